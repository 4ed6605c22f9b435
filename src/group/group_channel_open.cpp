// Opening a channel together with its group: by the channel's number over the whole file,
// or by its short name.
#include "channel/channel_open.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "group/group.h"
#include "storage/file.h"

namespace korvel {
namespace {

using namespace layout;

constexpr const char* kUnit = "MDFGRP4";

// Where channel `n` of the whole file (1-based over all channel groups in order, time
// channels included) lies: its group's number and its index within the group.
struct ChannelPlace {
  uint32_t group = 0;  // 0 when there is no such channel
  uint16_t index = 0;
};

ChannelPlace place_of_channel(mdf_file* file, uint32_t n) {
  ChannelPlace place;
  uint32_t seen = 0;
  for_each_channel_group(file, [&](Node*, Node* cg, Node*, Node*, uint32_t number) {
    uint16_t index = 0;
    for ([[maybe_unused]] Node* cn : chain(file->tree, cg, cg::kFirstCn)) {
      if (index >= 0xFFFF) break;
      ++index;
      if (++seen == n) {
        place = ChannelPlace{number, index};
        return false;
      }
    }
    return true;
  });
  return place;
}

ChannelPlace place_of_name(mdf_file* file, const char* name) {
  ChannelPlace place;
  for_each_channel_group(file, [&](Node*, Node* cg, Node*, Node*, uint32_t number) {
    // Exact and case-insensitive matches are tried group by group: a match in an earlier
    // group wins over an exact match in a later one.
    const ChannelMatch match = find_channel_by_name(file, cg, name);
    if (match.cn == nullptr) return true;
    place = ChannelPlace{number, match.index};
    return false;
  });
  return place;
}

int16_t open_at(channelnode** channel, mdf_group** group, mdf_file* file, const ChannelPlace& place,
                uint16_t mode) {
  // Not finding the channel is an ordinary answer: returned, not raised.
  if (place.group == 0 || place.group > 0xFFFF) return MDF_CHN_NOT_FOUND;
  if (int16_t st = mdfGrpOpen(group, file, static_cast<uint16_t>(place.group), mode); st != 0) {
    return st;
  }
  // When the channel cannot be opened the group stays open and its handle stays stored.
  return mdfChnOpen(channel, *group, place.index);
}

}  // namespace
}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfGrpChnOpen(channelnode** channel, mdf_group** group, mdf_file* file,
                                 uint16_t number, uint16_t mode) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (group != nullptr) *group = nullptr;
    if (!is_file(file)) return raise(MDF_ERR_BAD_FILE, "");
    if (mode > MDF_OPEN_CREATE) return raise(MDF_ERR_OPEN_MODE, "");
    // Channels are opened with their group for reading only.
    if (mode != MDF_OPEN_READ) return internal_error(kUnit, __LINE__);
    if (channel == nullptr || group == nullptr) return internal_error(kUnit, __LINE__);
    return open_at(channel, group, file, place_of_channel(file, number), mode);
  });
}

KORVEL_API int16_t mdfGrpChnOpenName(channelnode** channel, mdf_group** group, mdf_file* file,
                                     const char* name, uint16_t mode) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (channel != nullptr) *channel = nullptr;
    if (group != nullptr) *group = nullptr;
    if (!is_file(file)) return raise(MDF_ERR_BAD_FILE, "");
    if (mode > MDF_OPEN_CREATE) return raise(MDF_ERR_OPEN_MODE, "");
    // A created group has no channels to find yet.
    if (mode == MDF_OPEN_CREATE) return internal_error(kUnit, __LINE__);
    if (channel == nullptr || group == nullptr) return internal_error(kUnit, __LINE__);
    if (name == nullptr) return internal_error(kUnit, __LINE__);
    if (name[0] == '\0') return MDF_CHN_NOT_FOUND;  // no channel has an empty name to match
    return open_at(channel, group, file, place_of_name(file, name), mode);
  });
}

}  // extern "C"
