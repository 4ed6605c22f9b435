// The value coding of an open channel, prepared once: where the value lies in the record,
// the decoding kernel for its data type and byte order, and the conversion rule taken apart
// (a text formula compiled). Array reads prepare the same plans for one call.
//
// A prepared plan stays in use while the channel's CN block, its conversion block and the
// record size stay as they were. The functions that change a CN or CC image in a way that
// matters for decoding (byte offset, rule parameters) call channel_images_changed(), which
// makes every prepared plan of every handle be made again at its next use: two handles on
// one CN block see the same image.
#pragma once

#include <cstddef>
#include <cstdint>

#include "channel/decode_array.h"
#include "frame/frame.h"
#include "storage/node.h"

namespace korvel {

inline void channel_images_changed() {
  ++state().kept.channel_image_generation;
}

struct ChannelCodec {
  struct Slot {
    bool valid = false;
    uint64_t generation = 0;
    const Node* cn = nullptr;
    const Node* cc = nullptr;
    std::size_t record_size = 0;
    ArrayPlan plan;
  };
  Slot slots[3];  // by ValueKind

  // The plan for decoding `kind` values of channel (cn, cc) from records of `record_size`
  // bytes of record data, made again only when something it was made from changed.
  const ArrayPlan& plan(ValueKind kind, const Node* cn, const Node* cc, std::size_t record_size) {
    const Slot& s = slots[static_cast<uint8_t>(kind)];
    if (s.valid && s.generation == state().kept.channel_image_generation && s.cn == cn &&
        s.cc == cc && s.record_size == record_size) {
      return s.plan;
    }
    return rebuild(kind, cn, cc, record_size);
  }

 private:
  const ArrayPlan& rebuild(ValueKind kind, const Node* cn, const Node* cc, std::size_t record_size);
};

}  // namespace korvel
