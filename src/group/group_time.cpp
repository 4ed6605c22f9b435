// Group time: the current record's time through the group's time channel and its rule, and
// moving the record cursor to a time (binary search in sorted data groups, a forward scan in
// unsorted ones).
#include <cmath>
#include <cstdint>

#include "channel/decode.h"
#include "channel/encode.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "group/group.h"
#include "storage/layout.h"

namespace korvel {
namespace {

using namespace layout;

constexpr const char* kUnit = "MDFGRP3";
constexpr uint16_t kChoiceBits = 7;  // the low bits of a time seek mode choose the record

const uint8_t* time_rule(mdf_group* g) {
  return g->time_conversion != nullptr ? g->time_conversion->image : nullptr;
}

// The current record's time; the decoding or conversion status.
int16_t read_time(mdf_group* g, double* time) {
  if (int16_t st = load_record(g); st != 0) return st;
  return decode_phy(record_span(g), g->time_channel->image, time_rule(g), time);
}

// Puts the cursor on record `index`. An index beyond the records (a wrapped -1 among them)
// gives status 1 and leaves the cursor where it was.
int16_t seek_index(mdf_group* g, uint32_t index) {
  return group_seek(g, static_cast<int32_t>(index), MDF_SEEK_ABS);
}

// Puts the cursor on record `index` and reads its time.
int16_t probe(mdf_group* g, uint32_t index, double* time) {
  ++state().kept.time_probes;
  if (int16_t st = seek_index(g, index); st != 0) return st;
  return read_time(g, time);
}

// Unsorted data group: the first record from the cursor on whose time is not below the
// target, after going back to record 0 when the target lies before the current time. A
// target that is not a number is found at the first record looked at.
int16_t scan_to_time(mdf_group* g, double current, double target) {
  if (current > target) {
    if (int16_t st = seek_index(g, 0); st != 0) return st;
  }
  for (;;) {
    double time = 0.0;
    ++state().kept.time_probes;
    if (int16_t st = read_time(g, &time); st != 0) return st;
    if (!(time < target)) return 0;
    if (int16_t st = group_seek(g, 1, MDF_SEEK_REL); st != 0) return st;
  }
}

// A record with exactly the target time was found at `at`.
int16_t take_exact(mdf_group* g, uint32_t at, uint16_t choice) {
  if (choice == MDF_SEEK_TIME_BEFORE) return seek_index(g, at - 1);
  if (choice == MDF_SEEK_TIME_AFTER) return seek_index(g, at + 1);
  return seek_index(g, at);
}

// No record has the target time: record `hi` lies before it and record `lo` after it;
// `last_probe` is the record the search looked at last.
int16_t take_neighbour(mdf_group* g, double target, uint32_t lo, uint32_t hi, uint32_t last,
                       uint32_t last_probe, uint16_t choice) {
  switch (choice) {
    case MDF_SEEK_TIME_NEAREST: {
      if (lo > last) return seek_index(g, hi);
      double after = 0.0;
      double before = 0.0;
      if (int16_t st = probe(g, lo, &after); st != 0) return st;
      if (int16_t st = probe(g, hi, &before); st != 0) return st;
      // Equal distance takes the later record.
      return seek_index(g, std::fabs(target - after) > std::fabs(target - before) ? hi : lo);
    }
    case MDF_SEEK_TIME_EXACT:
      return MDF_RECORD_NOT_FOUND;
    case MDF_SEEK_TIME_BEFORE:
    case MDF_SEEK_TIME_AT_OR_BEFORE:
      return seek_index(g, hi);
    case MDF_SEEK_TIME_AFTER:
    case MDF_SEEK_TIME_AT_OR_AFTER:
      if (lo > last) return MDF_RECORD_NOT_FOUND;
      return seek_index(g, lo);
    default:
      return seek_index(g, last_probe);
  }
}

// Sorted data group: binary search over the record indices, unsigned 32-bit. A target
// before record 0 ends the search with status 1 and the cursor on record 0: in a group of
// fewer than 2^31 records that is where `hi` wrapping below 0 leads (the next probe, index
// 2^31 - 1, lies past the records), and in a larger group, where that probe would find a
// record and the search would go round for ever, the search stops there at once. The
// midpoint is taken as lo + (hi - lo) / 2, which equals the 32-bit (lo + hi) / 2 wherever
// that sum does not wrap, and in groups of more than 2^31 records never falls below `lo`.
int16_t search_time(mdf_group* g, double current, double target, uint16_t choice) {
  const uint32_t count = record_count(g);
  const uint32_t last = count - 1;
  const uint32_t at = g->record_index;
  uint32_t lo = 0;
  uint32_t hi = last;
  if (at != 0 && at <= count) {
    if (target > current) {
      lo = at;
    } else {
      hi = at;
    }
  }
  // Starting beyond the last record, nothing is probed; the last record stands in for the
  // probe.
  uint32_t mid = last;
  if (lo <= last) {
    do {
      mid = lo + (hi - lo) / 2;
      double time = 0.0;
      if (int16_t st = probe(g, mid, &time); st != 0) return st;
      if (time > target) {
        if (mid == 0) return MDF_END_OF_GROUP;
        hi = mid - 1;
      } else if (target > time) {
        lo = mid + 1;
      } else {
        return take_exact(g, mid, choice);  // NaN compares neither way and lands here
      }
    } while (lo <= hi);
  }
  return take_neighbour(g, target, lo, hi, last, mid, choice);
}

}  // namespace

int16_t group_get_time(mdf_group* g, double* time) {
  if (time != nullptr) *time = 0.0;
  if (g->time_channel == nullptr) return raise(MDF_NO_TIME_CHANNEL, "");
  double value = 0.0;
  const int16_t st = read_time(g, &value);
  if (time != nullptr) *time = value;
  return st;
}

int16_t group_set_time(mdf_group* g, double time) {
  if (g->time_channel == nullptr) return raise(MDF_NO_TIME_CHANNEL, "");
  if (int16_t st = load_record(g); st != 0) return st;
  return encode_phy(record_span(g), g->time_channel->image, time_rule(g), time);
}

int16_t group_seek_time(mdf_group* g, double time, uint16_t mode) {
  if (g->time_channel == nullptr) return internal_error(kUnit, __LINE__);
  // At record 0 the current time is taken as 0.0 without reading the record.
  double current = 0.0;
  if (g->record_index != 0) {
    if (int16_t st = read_time(g, &current); st != 0) return st;
  }
  const double target = (mode & MDF_SEEK_REL) != 0 ? current + time : time;
  if (target == current) return 0;
  if (load_le16(g->dg->image + dg::kCgCount) != 1) return scan_to_time(g, current, target);
  return search_time(g, current, target, static_cast<uint16_t>(mode & kChoiceBits));
}

uint64_t time_search_probes() {
  return state().kept.time_probes;
}

namespace {

template <class Body>
int16_t group_call(mdf_group* group, Body&& body) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (!is_group(group)) return raise(MDF_ERR_BAD_GROUP, "");
    return body();
  });
}

}  // namespace
}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfGrpGetTime(double* time, mdf_group* group) {
  return group_call(group, [&] { return group_get_time(group, time); });
}

KORVEL_API int16_t mdfGrpSetTime(mdf_group* group, double time) {
  return group_call(group, [&] { return group_set_time(group, time); });
}

KORVEL_API int16_t mdfGrpSeekTime(mdf_group* group, double time, uint16_t mode) {
  return group_call(group, [&] { return group_seek_time(group, time, mode); });
}

}  // extern "C"
