// The channel property functions: names, description, comment, long and display names,
// sampling rate, position and value ranges. Properties live in the CN block image (and the
// CC block image for the physical range); texts handed out point into those images, into TX
// block images, or into the static buffers below.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "channel/channel_node.h"
#include "channel/channel_props.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "group/group.h"
#include "storage/block.h"

namespace korvel {
namespace {

using namespace layout;

constexpr const char* kUnit = "MDFCHN1";
constexpr const char* kRangeUnit = "MDFCHN4";

constexpr const char kLongNameMarker[] = "$Longname: ";
constexpr const char kDisplayNameMarker[] = "$Displayname: ";
constexpr std::size_t kMarkerCompare = 11;
constexpr std::size_t kDisplayNameWord = 255;

// Texts handed out that are not pointers into block images (in the process-wide state).
ChannelTexts& texts() {
  return state().kept.channel_texts;
}
static_assert(sizeof ChannelTexts::name == cn::kNameLength + 1 &&
              sizeof ChannelTexts::description == cn::kDescriptionLength + 1 &&
              sizeof ChannelTexts::fallback_name == cn::kNameLength + 1);

int16_t bad_channel() {
  return raise(MDF_ERR_BAD_CHANNEL, "");
}

// A fixed-width text field of a block image as a terminated string: the field itself when it
// holds a terminator, else a terminated copy in `buffer` (width + 1 bytes). A field filled to
// its width would otherwise run into the next field and possibly past the image.
const char* field_text(const uint8_t* field, std::size_t width, char* buffer) {
  if (std::memchr(field, 0, width) != nullptr) return reinterpret_cast<const char*>(field);
  std::memcpy(buffer, field, width);
  buffer[width] = '\0';
  return buffer;
}

bool is_blank(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Makes a TX block holding `text` and links it at `field`; an empty text unlinks.
int16_t set_linked_text(channelnode* ch, uint32_t field, const char* text) {
  if (text[0] == '\0') {
    set_link(ch->cn, field, 0, nullptr);
    return 0;
  }
  Node* tx = nullptr;
  if (int16_t st =
          new_text_block(ch->group->file, &tx, static_cast<uint32_t>(std::strlen(text)), text);
      st != 0) {
    return st;
  }
  set_link(ch->cn, field, 0, tx);
  return 0;
}

void get_info(channelnode* ch, uint16_t* type, uint16_t* bits, uint16_t* value_type,
              const char** name, const char** desc, const char** text) {
  const uint8_t* b = ch->cn->image;
  if (type != nullptr) *type = load_le16(b + cn::kType);
  if (bits != nullptr) *bits = load_le16(b + cn::kBitCount);
  if (value_type != nullptr) *value_type = load_le16(b + cn::kDataType);
  if (name != nullptr) *name = field_text(b + cn::kName, cn::kNameLength, texts().name);
  if (desc != nullptr) {
    *desc = field_text(b + cn::kDescription, cn::kDescriptionLength, texts().description);
  }
  if (text != nullptr) *text = linked_text(ch, cn::kComment);
}

// The frame of every property function: sticky error, handle check, work.
template <class Body>
int16_t channel_call(const char* unit, channelnode* channel, Body&& body) {
  return checked_call(unit, [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    return body();
  });
}

}  // namespace

const char* linked_text(channelnode* ch, uint32_t field) {
  return text_of(resolve_link(ch->group->file->tree, ch->cn, field));
}

std::string marker_word(const char* text, const char* marker, std::size_t max_length) {
  for (const char* p = std::strchr(text, '$'); p != nullptr;) {
    if (std::strncmp(p, marker, kMarkerCompare) == 0) {
      // The marker's text up to its colon, then any blanks, then the word.
      const char* q = p;
      for (const char* m = marker; *m != '\0' && *m != ' '; ++m, ++q) {
        if (*q != *m) return {};
      }
      while (is_blank(*q)) ++q;
      const char* word = q;
      while (*q != '\0' && !is_blank(*q) && static_cast<std::size_t>(q - word) < max_length) ++q;
      return std::string(word, q);
    }
    // Only the first '$' of a line can open a marker: go on at the next line.
    p = std::strchr(p, '\n');
    if (p != nullptr) p = std::strchr(p + 1, '$');
  }
  return {};
}

std::string long_name_of(channelnode* ch) {
  if (ch->cn->block_size() >= cn::kSizeLongName) return linked_text(ch, cn::kLongName);
  return marker_word(linked_text(ch, cn::kComment), kLongNameMarker, std::string::npos);
}

std::string display_name_of(channelnode* ch) {
  if (ch->cn->block_size() >= cn::kSize) return linked_text(ch, cn::kDisplayName);
  return marker_word(linked_text(ch, cn::kComment), kDisplayNameMarker, kDisplayNameWord);
}

void get_info_ext(channelnode* ch, uint16_t* byte_offset, const char** long_name,
                  const char** display_name) {
  if (byte_offset != nullptr) *byte_offset = additional_byte_offset(ch->cn);
  if (long_name != nullptr) {
    texts().long_name = long_name_of(ch);
    *long_name = texts().long_name.c_str();
  }
  if (display_name != nullptr) {
    texts().display_name = display_name_of(ch);
    *display_name = texts().display_name.c_str();
  }
}

int16_t set_info(channelnode* ch, const char* name, const char* desc, const char* text) {
  uint8_t* b = ch->cn->image;
  if (name != nullptr) {
    if (name[0] == '\0') return internal_error(kUnit, 714);
    copy_field(reinterpret_cast<char*>(b + cn::kName), name, cn::kNameLength);
  }
  if (desc != nullptr) {
    copy_field(reinterpret_cast<char*>(b + cn::kDescription), desc, cn::kDescriptionLength);
  }
  if (text != nullptr) return set_linked_text(ch, cn::kComment, text);
  return 0;
}

int16_t set_info_ext(channelnode* ch, int16_t byte_offset, const char* long_name,
                     const char* display_name) {
  const uint16_t size = ch->cn->block_size();
  if (byte_offset != 0) {
    if (size < cn::kSize) return MDF_CN_TOO_SHORT;
    store_le16(ch->cn->image + cn::kByteOffset, static_cast<uint16_t>(byte_offset));
    channel_images_changed();
  }
  if (long_name != nullptr) {
    if (size < cn::kSizeLongName) return MDF_CN_TOO_SHORT;
    if (int16_t st = set_linked_text(ch, cn::kLongName, long_name); st != 0) return st;
  }
  if (display_name != nullptr) {
    if (size < cn::kSize) return MDF_CN_TOO_SHORT;
    if (int16_t st = set_linked_text(ch, cn::kDisplayName, display_name); st != 0) return st;
  }
  return 0;
}

}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfChnGetInfo(channelnode* channel, uint16_t* type, uint16_t* bits,
                                 uint16_t* valueType, const char** name, const char** desc,
                                 const char** text) {
  return channel_call(kUnit, channel, [&]() -> int16_t {
    get_info(channel, type, bits, valueType, name, desc, text);
    return 0;
  });
}

KORVEL_API int16_t mdfChnGetInfoArrays(uint16_t* types, uint16_t* bits, uint16_t* valueTypes,
                                       char* names, channelnode* const* channels, uint16_t count) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channels == nullptr && count != 0) return internal_error(kUnit, __LINE__);
    for (uint16_t i = 0; i < count; ++i) {
      if (!is_channel(channels[i])) return bad_channel();
    }
    for (uint16_t i = 0; i < count; ++i) {
      get_info(channels[i], types != nullptr ? types + i : nullptr,
               bits != nullptr ? bits + i : nullptr,
               valueTypes != nullptr ? valueTypes + i : nullptr, nullptr, nullptr, nullptr);
      if (names != nullptr) {
        // The name field may fill its 32 characters: copied up to its first zero, terminated.
        const uint8_t* field = channels[i]->cn->image + cn::kName;
        char* slot = names + std::size_t{i} * (cn::kNameLength + 1);
        std::size_t n = 0;
        while (n < cn::kNameLength && field[n] != 0) ++n;
        std::memcpy(slot, field, n);
        std::fill(slot + n, slot + cn::kNameLength + 1, '\0');
      }
    }
    return 0;
  });
}

KORVEL_API int16_t mdfChnGetType(channelnode* channel, uint16_t* type) {
  return mdfChnGetInfo(channel, type, nullptr, nullptr, nullptr, nullptr, nullptr);
}

KORVEL_API int16_t mdfChnGetBits(channelnode* channel, uint16_t* bits) {
  return mdfChnGetInfo(channel, nullptr, bits, nullptr, nullptr, nullptr, nullptr);
}

KORVEL_API int16_t mdfChnGetValueType(channelnode* channel, uint16_t* valueType) {
  return mdfChnGetInfo(channel, nullptr, nullptr, valueType, nullptr, nullptr, nullptr);
}

KORVEL_API int16_t mdfChnGetName(channelnode* channel, const char** name) {
  return mdfChnGetInfo(channel, nullptr, nullptr, nullptr, name, nullptr, nullptr);
}

KORVEL_API int16_t mdfChnGetDesc(channelnode* channel, const char** desc) {
  return mdfChnGetInfo(channel, nullptr, nullptr, nullptr, nullptr, desc, nullptr);
}

KORVEL_API int16_t mdfChnGetText(channelnode* channel, const char** text) {
  return mdfChnGetInfo(channel, nullptr, nullptr, nullptr, nullptr, nullptr, text);
}

KORVEL_API int16_t mdfChnSetInfo(channelnode* channel, const char* name, const char* desc,
                                 const char* text) {
  return channel_call(kUnit, channel,
                      [&]() -> int16_t { return set_info(channel, name, desc, text); });
}

KORVEL_API int16_t mdfChnSetName(channelnode* channel, const char* name) {
  return mdfChnSetInfo(channel, name, nullptr, nullptr);
}

KORVEL_API int16_t mdfChnSetDesc(channelnode* channel, const char* desc) {
  return mdfChnSetInfo(channel, nullptr, desc, nullptr);
}

KORVEL_API int16_t mdfChnSetText(channelnode* channel, const char* text) {
  return mdfChnSetInfo(channel, nullptr, nullptr, text);
}

KORVEL_API int16_t mdfChnGetInfoExt(channelnode* channel, uint16_t* byteOffset,
                                    const char** longName, const char** displayName) {
  return channel_call(kUnit, channel, [&]() -> int16_t {
    get_info_ext(channel, byteOffset, longName, displayName);
    return 0;
  });
}

KORVEL_API int16_t mdfChnSetInfoExt(channelnode* channel, int16_t byteOffset, const char* longName,
                                    const char* displayName) {
  return channel_call(kUnit, channel, [&]() -> int16_t {
    return set_info_ext(channel, byteOffset, longName, displayName);
  });
}

KORVEL_API int16_t mdfChnGetLongName(channelnode* channel, const char** longName) {
  return channel_call(kUnit, channel, [&]() -> int16_t {
    const char* text = nullptr;
    get_info_ext(channel, nullptr, &text, nullptr);
    if (text[0] == '\0') {
      text = field_text(channel->cn->image + cn::kName, cn::kNameLength, texts().fallback_name);
    }
    if (longName != nullptr) *longName = text;
    return 0;
  });
}

KORVEL_API int16_t mdfChnGetDisplayName(channelnode* channel, const char** displayName) {
  return mdfChnGetInfoExt(channel, nullptr, nullptr, displayName);
}

KORVEL_API int16_t mdfChnSetLongName(channelnode* channel, const char* longName) {
  return mdfChnSetInfoExt(channel, 0, longName, nullptr);
}

KORVEL_API int16_t mdfChnSetDisplayName(channelnode* channel, const char* displayName) {
  return mdfChnSetInfoExt(channel, 0, nullptr, displayName);
}

KORVEL_API int16_t mdfChnGetRaster(channelnode* channel, double* raster) {
  return channel_call(kUnit, channel, [&]() -> int16_t {
    if (raster != nullptr) *raster = load_f64(channel->cn->image + cn::kSampleRate);
    return 0;
  });
}

KORVEL_API int16_t mdfChnSetRaster(channelnode* channel, double raster) {
  return channel_call(kUnit, channel, [&]() -> int16_t {
    store_f64(channel->cn->image + cn::kSampleRate, raster);
    return 0;
  });
}

KORVEL_API int16_t mdfChnGetBitAndByteOffset(channelnode* channel, uint8_t* bitOffset,
                                             uint32_t* byteOffset) {
  return channel_call(kUnit, channel, [&]() -> int16_t {
    const ChannelPosition p = channel_position(channel->cn);
    if (bitOffset != nullptr) *bitOffset = p.bit_offset;
    if (byteOffset != nullptr) *byteOffset = p.byte_offset;
    return 0;
  });
}

KORVEL_API int16_t mdfChnGetHexRange(double* min, double* max, channelnode* channel) {
  return channel_call(kRangeUnit, channel, [&]() -> int16_t {
    const uint8_t* b = channel->cn->image;
    if (min != nullptr) *min = load_f64(b + cn::kMinimum);
    if (max != nullptr) *max = load_f64(b + cn::kMaximum);
    return load_le16(b + cn::kRangeValid) != 0 ? 0 : MDF_RANGE_UNKNOWN;
  });
}

KORVEL_API int16_t mdfChnSetHexRange(channelnode* channel, double min, double max) {
  return channel_call(kRangeUnit, channel, [&]() -> int16_t {
    uint8_t* b = channel->cn->image;
    store_le16(b + cn::kRangeValid, 1);
    store_f64(b + cn::kMinimum, min);
    store_f64(b + cn::kMaximum, max);
    return 0;
  });
}

KORVEL_API int16_t mdfChnGetPhyRange(double* min, double* max, channelnode* channel) {
  return channel_call(kRangeUnit, channel, [&]() -> int16_t {
    if (channel->cc == nullptr) return MDF_RANGE_UNKNOWN;
    const uint8_t* b = channel->cc->image;
    if (min != nullptr) *min = load_f64(b + cc::kMinimum);
    if (max != nullptr) *max = load_f64(b + cc::kMaximum);
    return load_le16(b + cc::kRangeValid) != 0 ? 0 : MDF_RANGE_UNKNOWN;
  });
}

KORVEL_API int16_t mdfChnSetPhyRange(channelnode* channel, double min, double max) {
  return channel_call(kRangeUnit, channel, [&]() -> int16_t {
    if (channel->cc == nullptr) return internal_error(kRangeUnit, 93);
    uint8_t* b = channel->cc->image;
    store_le16(b + cc::kRangeValid, 1);
    store_f64(b + cc::kMinimum, min);
    store_f64(b + cc::kMaximum, max);
    return 0;
  });
}

}  // extern "C"
