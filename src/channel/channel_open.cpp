// Opening, creating, duplicating and closing channel handles, and walking the open ones.
#include "channel/channel_open.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "channel/channel_node.h"
#include "channel/channel_props.h"
#include "channel/channel_steps.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "group/group.h"
#include "storage/block.h"

namespace korvel {
namespace {

using namespace layout;

constexpr const char* kUnit = "MDFCHN1";

int16_t bad_group() {
  return raise(MDF_ERR_BAD_GROUP, "");
}
int16_t bad_channel() {
  return raise(MDF_ERR_BAD_CHANNEL, "");
}

Node* first_channel(mdf_group* g) {
  return resolve_link(g->file->tree, g->cg, cg::kFirstCn);
}
Node* next_channel(mdf_group* g, Node* cn) {
  return resolve_link(g->file->tree, cn, cn::kNext);
}

int16_t open_by_index(channelnode** out, mdf_group* g, uint16_t index) {
  *out = nullptr;
  ChannelCache& cache = channel_cache();
  Node* cn = nullptr;
  if (index != 0) {
    // Opening 1, 2, 3 ... in turn follows one link per call instead of walking the chain.
    if (cache.group == g && cache.cn != nullptr && index == cache.index + 1) {
      cn = next_channel(g, cache.cn);
    } else {
      cn = first_channel(g);
      for (uint32_t i = 1; i < index && cn != nullptr; ++i) cn = next_channel(g, cn);
    }
  }
  cache = ChannelCache{g, index, cn};
  if (cn == nullptr) return raise(MDF_CHANNEL_NOT_FOUND, "");
  return make_channel_record(out, g, g->file, cn);
}

// The first channel of the group whose channel type is `type`; null when none.
Node* first_channel_of_type(mdf_group* g, uint16_t type) {
  for (Node* cn = first_channel(g); cn != nullptr; cn = next_channel(g, cn)) {
    if (load_le16(cn->image + cn::kType) == type) return cn;
  }
  return nullptr;
}

bool names_equal(const uint8_t* field, const char* name, bool ignore_case) {
  for (uint32_t i = 0; i < cn::kNameLength; ++i) {
    const auto a = static_cast<unsigned char>(field[i]);
    const auto b = static_cast<unsigned char>(name[i]);
    if (ignore_case ? std::toupper(a) != std::toupper(b) : a != b) return false;
    if (a == 0) return true;
  }
  return true;
}

// Single and double floats are told apart by the bit count: a caller asking for a 64-bit
// single gets a double, one asking for a 32-bit double gets a single.
uint16_t normalise_value_type(uint16_t value_type, uint16_t bits) {
  if (bits == 64) {
    if (value_type == MDF_DT_FLOAT) return MDF_DT_DOUBLE;
    if (value_type == MDF_DT_FLOAT_LE) return MDF_DT_DOUBLE_LE;
    if (value_type == MDF_DT_FLOAT_BE) return MDF_DT_DOUBLE_BE;
  } else if (bits == 32) {
    if (value_type == MDF_DT_DOUBLE) return MDF_DT_FLOAT;
    if (value_type == MDF_DT_DOUBLE_LE) return MDF_DT_FLOAT_LE;
    if (value_type == MDF_DT_DOUBLE_BE) return MDF_DT_FLOAT_BE;
  }
  return value_type;
}

// Checks the number of bits against the value type; floats get their fixed widths.
int16_t check_bits(uint16_t value_type, uint16_t* bits) {
  switch (value_type) {
    case MDF_DT_UINT:
    case MDF_DT_INT:
    case MDF_DT_UINT_BE:
    case MDF_DT_INT_BE:
    case MDF_DT_UINT_LE:
    case MDF_DT_INT_LE:
      if (*bits < 1 || *bits > 64) return raise(MDF_ERR_CHANNEL_BITS, "");
      return 0;
    case MDF_DT_FLOAT:
    case MDF_DT_VAX_F:
    case MDF_DT_FLOAT_BE:
    case MDF_DT_FLOAT_LE:
      *bits = 32;
      return 0;
    case MDF_DT_DOUBLE:
    case MDF_DT_DOUBLE_BE:
    case MDF_DT_DOUBLE_LE:
      *bits = 64;
      return 0;
    case MDF_DT_STRING:
    case MDF_DT_BYTES:
      if (*bits == 0 || *bits % 8 != 0) return raise(MDF_ERR_CHANNEL_BITS, "");
      return 0;
    default:  // VAX G and D cannot be written, and codes above 16 do not exist
      return raise(MDF_ERR_VALUE_TYPE, "");
  }
}

// The bit just behind a channel's value, counted from the first bit of the record data.
uint32_t end_bit(const Node* cn) {
  return load_le16(cn->image + cn::kFirstBit) + load_le16(cn->image + cn::kBitCount) +
         8u * additional_byte_offset(cn);
}

int16_t create_channel(channelnode** out, mdf_group* g, uint16_t type, uint16_t bits,
                       uint16_t value_type, const char* name) {
  value_type = normalise_value_type(value_type, bits);
  if (name == nullptr || name[0] == '\0') return internal_error(kUnit, 340);
  // A channel group of a file open for modifying is written back by the close of a group
  // open in mode 1, but new channel blocks never are: a grown record size would no longer
  // match the records.
  if (g->mode == 1 || g->file->mode == 1) return raise(MDF_ERR_OPEN_MODE, "");
  if (int16_t st = check_bits(value_type, &bits); st != 0) return st;

  // The new value goes behind every value of the group. A small field shares the last byte
  // only when it fits whole into the rest of that byte.
  uint32_t p = 0;
  Node* last = nullptr;
  for (Node* cn = first_channel(g); cn != nullptr; cn = next_channel(g, cn)) {
    p = std::max(p, end_bit(cn));
    last = cn;
  }
  if ((p & 7u) != 0 && (p & 7u) + bits > 8) p = (p + 7u) & ~7u;
  const uint32_t last_byte = (p + bits - 1u) / 8u;
  if (last_byte >= 65525) return raise(MDF_ERR_CHANNEL_BITS, "");
  const auto needed = static_cast<uint16_t>(last_byte + 1u);

  Node* cn = nullptr;
  if (int16_t st = new_block(g->file, kCN, &cn); st != 0) return st;
  if (last != nullptr) {
    set_link(last, cn::kNext, 0, cn);
  } else {
    set_link(g->cg, cg::kFirstCn, 0, cn);
  }
  uint8_t* b = cn->image;
  store_le16(b + cn::kType, type);
  // Start bits count only up to 65535; the part of the position in whole 8 KiB steps goes
  // into the additional byte offset.
  store_le16(b + cn::kFirstBit, static_cast<uint16_t>(p & 0xFFFFu));
  if (cn->block_size() >= cn::kSize) {
    store_le16(b + cn::kByteOffset, static_cast<uint16_t>((p / 8u) & 0xE000u));
  }
  store_le16(b + cn::kBitCount, bits);
  store_le16(b + cn::kDataType, value_type);
  store_le16(b + cn::kRangeValid, 0);
  store_f64(b + cn::kMinimum, 0.0);
  store_f64(b + cn::kMaximum, 0.0);
  store_f64(b + cn::kSampleRate, 0.0);
  copy_field(reinterpret_cast<char*>(b + cn::kName), name, cn::kNameLength);

  channelnode* ch = nullptr;
  if (int16_t st = new_channel_record(&ch); st != 0) return st;
  ch->group = g;
  ch->cn = cn;
  ch->cc = nullptr;
  // A created channel has no current record to read yet: its first read moves on.
  ch->read_steps = 1;
  ch->write_steps = 0;
  append_channel(ch);

  uint8_t* cgb = g->cg->image;
  if (load_le16(cgb + cg::kRecordSize) < needed) store_le16(cgb + cg::kRecordSize, needed);
  store_le16(cgb + cg::kCnCount, static_cast<uint16_t>(load_le16(cgb + cg::kCnCount) + 1));
  if (int16_t st = refresh_record_layout(g); st != 0) {
    remove_channel(ch);
    free_channel(ch);
    return st;
  }
  // Other handles on the same channel group get room for the grown record too (if that
  // fails, their record views stay within what they hold).
  for (mdf_group* other = state().open_groups; other != nullptr; other = other->next) {
    if (other != g && other->cg == g->cg) refresh_record_layout(other);
  }
  if (type == MDF_CHN_TIME) {
    g->time_channel = cn;
    g->time_conversion = nullptr;
  }
  *out = ch;
  return 0;
}

// A fixed-width text field as a terminated string.
std::string field_string(const uint8_t* field, std::size_t width) {
  const auto* text = reinterpret_cast<const char*>(field);
  const void* end = std::memchr(text, 0, width);
  return std::string(text, end != nullptr ? static_cast<const char*>(end) - text : width);
}

// Copies a block of another (or the same) file into `file`, with fresh copies of the TX
// blocks its links point to: copied link records still point into the source's tree.
int16_t copy_with_texts(mdf_file* file, mdf_file* source_file, Node* source, Node** out) {
  Node* copy = nullptr;
  if (int16_t st = copy_block(file, &copy, source_file->tree, source); st != 0) return st;
  for (uint16_t i = 0; i < copy->link_count; ++i) {
    const uint32_t field = copy->links()[i].field;
    Node* text = resolve_link(source_file->tree, source, field);
    Node* text_copy = nullptr;
    if (text != nullptr) {
      if (int16_t st = copy_block(file, &text_copy, source_file->tree, text); st != 0) return st;
    }
    set_link(copy, field, 0, text_copy);
  }
  *out = copy;
  return 0;
}

int16_t duplicate_channel(channelnode** out, mdf_group* target, channelnode* source) {
  const uint8_t* sb = source->cn->image;
  mdf_file* source_file = source->group->file;
  const uint16_t type = load_le16(sb + cn::kType);
  const uint16_t bits = load_le16(sb + cn::kBitCount);
  const uint16_t value_type = load_le16(sb + cn::kDataType);
  const std::string name = field_string(sb + cn::kName, cn::kNameLength);
  const std::string desc = field_string(sb + cn::kDescription, cn::kDescriptionLength);
  const std::string comment = linked_text(source, cn::kComment);
  const std::string long_text = long_name_of(source);
  const std::string display_text = display_name_of(source);

  channelnode* ch = nullptr;
  if (int16_t st = create_channel(&ch, target, type, bits, value_type, name.c_str()); st != 0) {
    return st;
  }
  auto fail = [&](int16_t st) {
    remove_channel(ch);
    free_channel(ch);
    return st;
  };
  int16_t result = 0;
  if (int16_t st = set_info(ch, nullptr, desc.c_str(), comment.c_str()); st < 0) return fail(st);
  if (int16_t st = set_info_ext(ch, 0, long_text.c_str(), display_text.c_str()); st != 0) {
    if (st < 0) return fail(st);
    result = st;  // 1013: the copy cannot hold the names; the rest is still copied
  }
  mdf_file* file = target->file;
  if (source->cc != nullptr) {
    Node* cc = nullptr;
    if (int16_t st = copy_with_texts(file, source_file, source->cc, &cc); st != 0) return fail(st);
    set_link(ch->cn, cn::kConversion, 0, cc);
    ch->cc = cc;
  }
  if (Node* ce = resolve_link(source_file->tree, source->cn, cn::kExtension); ce != nullptr) {
    Node* copy = nullptr;
    if (int16_t st = copy_with_texts(file, source_file, ce, &copy); st != 0) return fail(st);
    set_link(ch->cn, cn::kExtension, 0, copy);
  }
  *out = ch;
  return result;
}

}  // namespace

ChannelMatch find_channel_by_name(mdf_file* file, Node* cg, const char* name) {
  for (bool ignore_case : {false, true}) {
    uint16_t index = 0;
    // Channels beyond the 16-bit index range cannot be opened by index, so none is matched.
    for (Node* cn : chain(file->tree, cg, cg::kFirstCn)) {
      if (index >= 0xFFFF) break;
      ++index;
      if (load_le16(cn->image + cn::kType) == MDF_CHN_TIME) continue;
      if (names_equal(cn->image + cn::kName, name, ignore_case)) return ChannelMatch{index, cn};
    }
  }
  return ChannelMatch{};
}

}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfChnOpen(channelnode** channel, mdf_group* group, uint16_t index) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (!is_group(group)) return bad_group();
    if (channel == nullptr) return internal_error(kUnit, __LINE__);
    return open_by_index(channel, group, index);
  });
}

KORVEL_API int16_t mdfGrpOpenChannels(channelnode** channels, mdf_group* group, uint16_t first,
                                      uint16_t count) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channels != nullptr) std::fill(channels, channels + count, nullptr);
    if (!is_group(group)) return bad_group();
    if (channels == nullptr && count != 0) return internal_error(kUnit, __LINE__);
    for (uint32_t i = 0; i < count; ++i) {
      if (first + i > 0xFFFFu) return raise(MDF_CHANNEL_NOT_FOUND, "");
      const int16_t st = open_by_index(&channels[i], group, static_cast<uint16_t>(first + i));
      if (st != 0) return st;
    }
    return 0;
  });
}

KORVEL_API int16_t mdfChnOpenName(channelnode** channel, mdf_group* group, const char* name) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (!is_group(group)) return bad_group();
    if (name == nullptr || name[0] == '\0') return internal_error(kUnit, 280);
    if (channel == nullptr) return internal_error(kUnit, __LINE__);
    const ChannelMatch match = find_channel_by_name(group->file, group->cg, name);
    // Not finding a name is an ordinary answer: returned, not raised.
    if (match.cn == nullptr) return MDF_CHN_NAME_NOT_FOUND;
    return make_channel_record(channel, group, group->file, match.cn);
  });
}

KORVEL_API int16_t mdfChnOpenType(channelnode** channel, mdf_group* group, uint16_t type) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (!is_group(group)) return bad_group();
    if (channel == nullptr) return internal_error(kUnit, __LINE__);
    Node* cn = first_channel_of_type(group, type);
    if (cn == nullptr) return raise(MDF_CHANNEL_NOT_FOUND, "");
    return make_channel_record(channel, group, group->file, cn);
  });
}

KORVEL_API int16_t mdfChnOpenTime(channelnode** channel, mdf_group* group) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (!is_group(group)) return bad_group();
    if (channel == nullptr) return internal_error(kUnit, __LINE__);
    Node* cn = first_channel_of_type(group, MDF_CHN_TIME);
    if (cn == nullptr) return raise(MDF_TIME_CHN_NOT_FOUND, "");
    return make_channel_record(channel, group, group->file, cn);
  });
}

KORVEL_API int16_t mdfChnCreate(channelnode** channel, mdf_group* group, uint16_t type,
                                uint16_t bits, uint16_t valueType, const char* name) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (!is_group(group)) return bad_group();
    if (channel == nullptr) return internal_error(kUnit, __LINE__);
    return create_channel(channel, group, type, bits, valueType, name);
  });
}

KORVEL_API int16_t mdfChnDuplicate(channelnode** channel, mdf_group* target, channelnode* source) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (!is_channel(source)) return bad_channel();
    if (!is_group(target)) return bad_group();
    if (channel == nullptr) return internal_error(kUnit, __LINE__);
    return duplicate_channel(channel, target, source);
  });
}

KORVEL_API int16_t mdfChnClose(channelnode* channel) {
  // Closing releases the handle even with a sticky error stored; only the pending write
  // step is skipped then.
  return api_call(kUnit, [&]() -> int16_t {
    if (channel == nullptr) return 0;
    if (!is_channel(channel)) return bad_channel();
    if (sticky_error() == 0) {
      // After the last record the step stores it and finds no record to move on to (1):
      // the record is in the file, so the close goes on.
      const int16_t st = write_step(channel);
      if (st != 0 && st != MDF_END_OF_GROUP) return st;
    }
    remove_channel(channel);
    return free_channel(channel);
  });
}

KORVEL_API int16_t mdfChnGetFirst(mdf_group* group, channelnode** channel) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (!is_group(group)) return bad_group();
    if (channel == nullptr) return internal_error(kUnit, __LINE__);
    for (channelnode* ch = state().open_channels; ch != nullptr; ch = ch->next) {
      if (ch->group == group) {
        *channel = ch;
        return 0;
      }
    }
    return MDF_CHN_NOT_FOUND;
  });
}

KORVEL_API int16_t mdfChnGetNext(channelnode** channel) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel == nullptr || *channel == nullptr) return MDF_CHN_NOT_FOUND;
    if (!is_channel(*channel)) return bad_channel();
    for (channelnode* ch = (*channel)->next; ch != nullptr; ch = ch->next) {
      if (ch->group == (*channel)->group) {
        *channel = ch;
        return 0;
      }
    }
    *channel = nullptr;
    return MDF_CHN_NOT_FOUND;
  });
}

}  // extern "C"
