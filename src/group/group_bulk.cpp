// Array reads: one channel's values over a range of records into the caller's array, read in
// large pieces from the data section. The group's record cursor and its record buffer are not
// touched; the record at the cursor is decoded from the record buffer, as the per-value
// functions decode it, so that values not yet written back read the same both ways.
#include <algorithm>
#include <cstdint>
#include <span>

#include "channel/channel_node.h"
#include "channel/decode.h"
#include "channel/decode_array.h"
#include "frame/api.h"
#include "group/group.h"
#include "group/record_runs.h"

namespace korvel {
namespace {

constexpr const char* kChannelUnit = "MDFCHN1";
constexpr const char* kGroupUnit = "MDFGRP3";

const uint8_t* image_of(const Node* node) {
  return node != nullptr ? node->image : nullptr;
}

// The record at the cursor through the single-value decoders.
void decode_current(mdf_group* g, ValueKind kind, const uint8_t* cn, const uint8_t* cc, void* out) {
  const std::span<const uint8_t> record = record_span(g);
  switch (kind) {
    case ValueKind::hex:
      (void)decode_hex(record, cn, static_cast<double*>(out));
      break;
    case ValueKind::hex_int:
      (void)decode_hex_int(record, cn, static_cast<uint64_t*>(out));
      break;
    case ValueKind::phy:
      (void)decode_phy(record, cn, cc, static_cast<double*>(out));
      break;
  }
}

// The records [first, first + count) the group offers; status 1 when that is fewer than
// asked for (none: first at or beyond the end).
struct Span {
  uint32_t first = 0;
  uint32_t count = 0;
  int16_t status = 0;
};
Span records_to_read(mdf_group* g, uint32_t first, uint32_t count) {
  Span s{first, 0, 0};
  if (count == 0) return s;
  const uint32_t offered = offered_records(g);
  if (first >= offered) {
    s.status = MDF_END_OF_GROUP;
    return s;
  }
  s.count = std::min(count, offered - first);
  if (s.count < count) s.status = MDF_END_OF_GROUP;
  return s;
}

// Visits the records of `s` run by run; *done counts the records visited. A record that
// cannot be read ends the walk with its status.
template <class Visit>
int16_t for_each_run(mdf_group* g, const Span& s, uint32_t* done, Visit&& visit) {
  while (*done < s.count) {
    RecordRun run;
    if (int16_t st = fetch_records(g, s.first + *done, s.count - *done, &run); st != 0) return st;
    visit(run, *done);
    *done += run.count;
  }
  return 0;
}

// Values of kind `kind` of the channel (cn, cc) of group g into values (double or uint64_t).
int16_t read_values(mdf_group* g, const uint8_t* cn, const uint8_t* cc, ValueKind kind,
                    void* values, uint32_t* done_out, uint32_t first, uint32_t count) {
  if (done_out != nullptr) *done_out = 0;
  if (values == nullptr && count != 0) return internal_error(kChannelUnit, __LINE__);
  const Span s = records_to_read(g, first, count);
  if (s.count == 0) return s.status;
  const ArrayPlan plan = plan_array(kind, cn, cc, record_size(g));
  if (plan.status != 0) return plan.status;
  auto* doubles = static_cast<double*>(values);
  auto* integers = static_cast<uint64_t*>(values);
  int16_t rule_status = 0;
  uint32_t done = 0;
  const int16_t st = for_each_run(g, s, &done, [&](const RecordRun& run, uint32_t at) {
    void* out = kind == ValueKind::hex_int ? static_cast<void*>(integers + at)
                                           : static_cast<void*>(doubles + at);
    const int16_t status = decode_array(plan, run.base, run.stride, run.count, out);
    if (status != 0) rule_status = status;
  });
  // A pending record is in the buffer as it is in the file: the array holds it already.
  const uint32_t cursor = g->record_index;
  if (!g->record_pending && cursor >= s.first && cursor - s.first < done) {
    const uint32_t at = cursor - s.first;
    decode_current(g, kind, cn, cc,
                   kind == ValueKind::hex_int ? static_cast<void*>(integers + at)
                                              : static_cast<void*>(doubles + at));
  }
  if (done_out != nullptr) *done_out = done;
  if (st != 0) return st;
  if (rule_status != 0) return rule_status;
  return s.status;
}

int16_t read_bytes(mdf_group* g, const uint8_t* cn, uint8_t* buffer, uint32_t width,
                   uint32_t* done_out, uint32_t first, uint32_t count) {
  if (done_out != nullptr) *done_out = 0;
  uint32_t field_bytes = 0;
  const int16_t layout_status = bytes_status(cn, record_size(g), &field_bytes);
  if (layout_status == 0 && width < field_bytes) return internal_error(kChannelUnit, __LINE__);
  if (buffer == nullptr && count != 0) return internal_error(kChannelUnit, __LINE__);
  const Span s = records_to_read(g, first, count);
  if (s.count == 0) return s.status;
  if (layout_status != 0) return layout_status;
  uint32_t done = 0;
  const int16_t st = for_each_run(g, s, &done, [&](const RecordRun& run, uint32_t at) {
    decode_bytes_array(cn, run.base, run.stride, run.count, buffer + std::size_t{at} * width,
                       width);
  });
  const uint32_t cursor = g->record_index;
  if (!g->record_pending && cursor >= s.first && cursor - s.first < done) {
    // The record buffer may be shorter than the record (grown through another handle): the
    // field must fit the bytes it holds, as for mdfChnGetData.
    const std::span<const uint8_t> record = record_span(g);
    uint8_t* slot = buffer + std::size_t{cursor - s.first} * width;
    uint32_t unused = 0;
    if (bytes_status(cn, record.size(), &unused) == 0) {
      decode_bytes_array(cn, record.data(), record.size(), 1, slot, width);
    } else {
      std::fill(slot, slot + width, uint8_t{0});
    }
  }
  if (done_out != nullptr) *done_out = done;
  return st != 0 ? st : s.status;
}

template <class Body>
int16_t channel_call(channelnode* channel, Body&& body) {
  return checked_call(kChannelUnit, [&]() -> int16_t {
    if (!is_channel(channel)) return raise(MDF_ERR_BAD_CHANNEL, "");
    return body();
  });
}

}  // namespace
}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfChnReadPhyArray(double* values, uint32_t* done, channelnode* channel,
                                      uint32_t first, uint32_t count) {
  return channel_call(channel, [&] {
    return read_values(channel->group, channel->cn->image, image_of(channel->cc), ValueKind::phy,
                       values, done, first, count);
  });
}

KORVEL_API int16_t mdfChnReadHexArray(double* values, uint32_t* done, channelnode* channel,
                                      uint32_t first, uint32_t count) {
  return channel_call(channel, [&] {
    return read_values(channel->group, channel->cn->image, image_of(channel->cc), ValueKind::hex,
                       values, done, first, count);
  });
}

KORVEL_API int16_t mdfChnReadHexIntArray(uint64_t* values, uint32_t* done, channelnode* channel,
                                         uint32_t first, uint32_t count) {
  return channel_call(channel, [&] {
    return read_values(channel->group, channel->cn->image, image_of(channel->cc),
                       ValueKind::hex_int, values, done, first, count);
  });
}

KORVEL_API int16_t mdfChnReadBytesArray(uint8_t* buffer, uint32_t width, uint32_t* done,
                                        channelnode* channel, uint32_t first, uint32_t count) {
  return channel_call(channel, [&] {
    return read_bytes(channel->group, channel->cn->image, buffer, width, done, first, count);
  });
}

KORVEL_API int16_t mdfChnReadPhyArrays(double* values, uint32_t* done, channelnode* const* channels,
                                       uint16_t channel_count, uint32_t first, uint32_t count) {
  return checked_call(kChannelUnit, [&]() -> int16_t {
    if (done != nullptr) *done = 0;
    if (channels == nullptr && channel_count != 0) return internal_error(kChannelUnit, __LINE__);
    for (uint16_t i = 0; i < channel_count; ++i) {
      if (!is_channel(channels[i])) return raise(MDF_ERR_BAD_CHANNEL, "");
      if (channels[i]->group != channels[0]->group) return internal_error(kChannelUnit, __LINE__);
    }
    if (values == nullptr && channel_count != 0 && count != 0) {
      return internal_error(kChannelUnit, __LINE__);
    }
    // Every row reads the same records, so every row holds as many values; the status is
    // the first one that says more than that the group ends.
    int16_t result = 0;
    for (uint16_t i = 0; i < channel_count; ++i) {
      channelnode* ch = channels[i];
      uint32_t row_done = 0;
      const int16_t st = read_values(ch->group, ch->cn->image, image_of(ch->cc), ValueKind::phy,
                                     values + std::size_t{i} * count, &row_done, first, count);
      if (done != nullptr) *done = row_done;
      if (st < 0) return st;
      if (result == 0 || (result == MDF_END_OF_GROUP && st != 0)) result = st;
    }
    return result;
  });
}

KORVEL_API int16_t mdfGrpReadTimeArray(double* times, uint32_t* done, mdf_group* group,
                                       uint32_t first, uint32_t count) {
  return checked_call(kGroupUnit, [&]() -> int16_t {
    if (done != nullptr) *done = 0;
    if (!is_group(group)) return raise(MDF_ERR_BAD_GROUP, "");
    if (group->time_channel == nullptr) return raise(MDF_NO_TIME_CHANNEL, "");
    return read_values(group, group->time_channel->image, image_of(group->time_conversion),
                       ValueKind::phy, times, done, first, count);
  });
}

}  // extern "C"
