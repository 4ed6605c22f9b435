// Prepared value coding of open channels.
#include "channel/codec.h"

namespace korvel {

const ArrayPlan& ChannelCodec::rebuild(ValueKind kind, const Node* cn, const Node* cc,
                                       std::size_t record_size) {
  Slot& s = slots[static_cast<uint8_t>(kind)];
  s.plan = plan_array(kind, cn != nullptr ? cn->image : nullptr,
                      cc != nullptr ? cc->image : nullptr, record_size);
  s.generation = state().kept.channel_image_generation;
  s.cn = cn;
  s.cc = cc;
  s.record_size = record_size;
  s.valid = true;
  return s.plan;
}

}  // namespace korvel
