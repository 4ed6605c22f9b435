// Channel records and the process-wide list of open channels, kept in order of opening.
#include "channel/channel_node.h"

#include <cstring>
#include <new>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "storage/block.h"
#include "storage/layout.h"

namespace korvel {

using namespace layout;

int16_t new_channel_record(channelnode** out) {
  void* memory = mdfMalloc(sizeof(channelnode));
  if (memory == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  *out = new (memory) channelnode();
  return 0;
}

void destroy_channel_record(channelnode* ch) {
  // The prepared codec owns memory (a compiled formula); the tag stays, as mdfFree leaves it.
  ch->~channelnode();
  mdfFree(ch);
}

int16_t append_channel(channelnode* ch) {
  if (!is_channel(ch)) return internal_error("CNODE", 44);
  auto& s = state();
  ch->next = nullptr;
  ch->prev = s.open_channels_tail;
  if (s.open_channels_tail == nullptr) {
    s.open_channels = ch;
  } else {
    s.open_channels_tail->next = ch;
  }
  s.open_channels_tail = ch;
  return 0;
}

namespace {

bool in_list(const channelnode* ch) {
  return ch->prev != nullptr || state().open_channels == ch;
}

}  // namespace

int16_t remove_channel(channelnode* ch) {
  if (!is_channel(ch)) return internal_error("CNODE", 60);
  if (!in_list(ch)) return MDF_ERR_NODE_NOT_FOUND;
  auto& s = state();
  (ch->prev == nullptr ? s.open_channels : ch->prev->next) = ch->next;
  (ch->next == nullptr ? s.open_channels_tail : ch->next->prev) = ch->prev;
  ch->next = ch->prev = nullptr;
  return 0;
}

int16_t free_channel(channelnode* ch) {
  if (!is_channel(ch)) return internal_error("CNODE", 76);
  if (in_list(ch)) return internal_error("CNODE", 78);
  destroy_channel_record(ch);
  return 0;
}

int16_t make_channel_record(channelnode** out, mdf_group* group, mdf_file* file, Node* cn) {
  channelnode* ch = nullptr;
  if (int16_t st = new_channel_record(&ch); st != 0) return st;
  ch->group = group;
  ch->cn = cn;
  ch->cc = resolve_link(file->tree, cn, cn::kConversion);
  if (sticky_error() != 0) {
    destroy_channel_record(ch);
    return sticky_error();
  }
  append_channel(ch);
  *out = ch;
  return 0;
}

uint16_t additional_byte_offset(const Node* cn) {
  return cn->block_size() >= cn::kSize ? load_le16(cn->image + cn::kByteOffset) : uint16_t{0};
}

ChannelPosition channel_position(const Node* cn) {
  const uint32_t first_bit = load_le16(cn->image + cn::kFirstBit);
  const uint32_t bits = load_le16(cn->image + cn::kBitCount);
  ChannelPosition p;
  p.bit_offset = static_cast<uint8_t>(first_bit & 7);
  p.byte_offset = (first_bit >> 3) + additional_byte_offset(cn);
  p.byte_span = (p.bit_offset + bits + 7) >> 3;
  return p;
}

}  // namespace korvel
