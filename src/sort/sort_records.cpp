// The records: each source data group is read forward in large chunks and its records are
// collected per channel group in write buffers that go to the target in large writes.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "channel/decode.h"
#include "frame/bytes.h"
#include "frame/frame.h"
#include "platform/platform.h"
#include "sort/sort.h"
#include "sort/sorter.h"
#include "storage/block.h"
#include "storage/io.h"
#include "storage/layout.h"
#include "storage/node.h"

namespace korvel::sort {
namespace {

bool all_fill(const uint8_t* p) {
  for (uint32_t i = 0; i < kFillRun; ++i) {
    if (p[i] != 0xFF) return false;
  }
  return true;
}

}  // namespace

using namespace layout;

// ---- Records ---------------------------------------------------------------------------------

// Where the records of data group `d` end: the expected end, moved to the nearest block or
// other data behind the data position, to the end of the file, and back over 0xFF fill.
int16_t Sorter::data_bound(uint32_t d, uint64_t* bound) {
  DataGroupStats& g = groups_[d];
  const uint64_t p = g.data;
  const uint64_t e = p + g.bytes + g.records * g.ids;
  uint64_t b = static_cast<uint64_t>(src_size_);
  auto block = std::lower_bound(block_starts_.begin(), block_starts_.end(), p);
  if (block != block_starts_.end()) b = std::min<uint64_t>(b, *block);
  for (auto it = std::lower_bound(data_starts_.begin(), data_starts_.end(),
                                  std::pair<uint32_t, uint32_t>{g.data, 0});
       it != data_starts_.end(); ++it) {
    if (it->second == d) continue;
    b = std::min<uint64_t>(b, it->first);
    break;
  }
  if (groups_.size() >= 2 && g.bytes != 0) {
    uint8_t run[kFillRun];
    auto fill_at = [&](uint64_t at, bool* fill) -> int16_t {
      *fill = false;
      if (at + kFillRun > static_cast<uint64_t>(src_size_)) return 0;
      if (io::seek(src_, static_cast<int64_t>(at), io::kFromStart) != 0 ||
          io::read(run, kFillRun, src_) != 0) {
        return raise(MDF_ERR_FORMAT, "");
      }
      *fill = all_fill(run);
      return 0;
    };
    bool fill = false;
    if (int16_t st = fill_at(e, &fill); st != 0) return st;
    if (fill && e < b) b = e;
    for (std::size_t n = 0; n + 1 < groups_.size() && b >= e + kFillRun; ++n) {
      if (int16_t st = fill_at(b - kFillRun, &fill); st != 0) return st;
      if (!fill) break;
      b -= kFillRun;
    }
  }
  if (b > e) {
    const uint64_t surplus = b - e;
    const uint64_t per = uint64_t{g.min_size} + g.ids;
    g.records += surplus / per;
    g.bytes += surplus % per;
  }
  *bound = b;
  return 0;
}

int16_t Sorter::allocate_buffers(const DataGroupStats& g) {
  const int64_t core = mdfCoreLeft();
  const double available = core > static_cast<int64_t>(kHeldBack) ? double(core - kHeldBack) : 0.0;
  auto need_of = [&](const Slot& s) {
    const uint64_t count = recount_ && s.declared == 0 ? 1 : s.declared;
    return count * s.record_size;
  };
  uint64_t total = 0;
  for (uint32_t i = 0; i < g.slot_count; ++i) total += need_of(slots_[g.first_slot + i]);
  uint64_t carry = 0;
  for (uint32_t i = 0; i < g.slot_count; ++i) {
    Slot& s = slots_[g.first_slot + i];
    s.buffer.reset();
    s.capacity = s.waiting = 0;
    if (s.record_size == 0) continue;
    const uint64_t need = need_of(s);
    const uint64_t whole = need + s.record_size;
    uint64_t share =
        total != 0 ? static_cast<uint64_t>(double(need) * available / double(total)) : 0;
    share = std::min(share, need) + s.record_size;
    const uint64_t room = std::min(kBufferCap, whole);
    if (carry != 0 && share < room) {
      const uint64_t add = std::min(carry, room - share);
      share += add;
      carry -= add;
    }
    if (share > kBufferCap) {
      carry += share - kBufferCap;
      share = kBufferCap;
    }
    share = std::max<uint64_t>(share, s.record_size);
    s.buffer.reset(new (std::nothrow) uint8_t[share + 1]);
    if (!s.buffer) return raise(MDF_ERR_NO_MEMORY, "");
    s.capacity = static_cast<uint32_t>(share / s.record_size);
  }
  return 0;
}

int16_t Sorter::flush_slot(Slot& s, uint32_t d, uint64_t total, uint64_t consumed) {
  if (s.waiting == 0) return 0;
  const uint64_t bytes = uint64_t{s.waiting} * s.record_size;
  const uint64_t at = s.position + s.written * s.record_size;
  if (s.position == 0 || at + bytes > s.position + s.region) return internal_error(kUnit, __LINE__);
  if (int16_t st = io::seek(dst_, static_cast<int64_t>(at), io::kFromStart); st != 0) return st;
  if (int16_t st = io::write(s.buffer.get(), static_cast<uint32_t>(bytes), dst_); st != 0)
    return st;
  s.written += s.waiting;
  s.waiting = 0;
  uint32_t declared = static_cast<uint32_t>(std::min<uint64_t>(total, 0xFFFFFFFF));
  uint32_t done = static_cast<uint32_t>(std::min<uint64_t>(consumed, 0xFFFFFFFF));
  mdfActivityInfo(&declared, &done);
  const uint64_t groups = groups_.size();
  const uint64_t percent =
      20 + (uint64_t{d} + 1) * (consumed * 80) / (groups * std::max<uint64_t>(total, 1));
  return report(static_cast<uint32_t>(std::min<uint64_t>(percent, 100)));
}

Stamp Sorter::time_stamp(Slot& s, const uint8_t* record, double* out) {
  if (s.time_cn == nullptr) {
    *out = s.read;
    return Stamp::ok;
  }
  switch (load_le16(s.time_cn->image + cn::kDataType)) {
    case 0:
    case 9:
    case 13:
    case 1:
    case 10:
    case 14:
    case 2:
    case 3:
    case 11:
    case 12:
    case 15:
    case 16:
      break;
    default:
      return Stamp::unsupported;
  }
  const int16_t st = decode_phy({record, s.record_size}, s.time_cn->image, s.time_cc, out);
  if (st == MDF_UNSUPPORTED_TYPE) return Stamp::unsupported;
  return std::isfinite(*out) ? Stamp::ok : Stamp::bad;
}

// Reads the records of data group `d` into the write buffers. `stopped` tells that reading
// ended before the declared records were consumed; `extras` that records beyond declared
// counts were accepted (first reading in recount mode only).
int16_t Sorter::read_records(uint32_t d, uint64_t bound, bool second, bool* stopped, bool* extras) {
  DataGroupStats& g = groups_[d];
  *stopped = false;
  *extras = false;
  uint64_t total = 0;
  if (second) {
    for (uint32_t i = 0; i < g.slot_count; ++i) total += slots_[g.first_slot + i].declared;
  } else {
    total = g.records;
  }
  if (g.ids == 0 && slots_[g.first_slot].record_size == 0) {
    Slot& s = slots_[g.first_slot];  // records without bytes: all of them are there
    s.read = s.declared;
    return 0;
  }
  if (int16_t st = reader_.start(src_, g.data, bound - g.data); st != 0) return st;
  const bool extras_allowed = recount_ && !second;
  const uint32_t trailing = g.ids == 2 ? 1 : 0;
  uint64_t consumed = 0;
  while (consumed < total) {
    uint16_t index = static_cast<uint16_t>(g.first_slot);
    uint8_t id = 0;
    if (g.ids != 0) {
      if (reader_.left() < 1) break;
      if (int16_t st = reader_.need(1); st != 0) return st;
      id = reader_.data()[0];
      if (int16_t st = reader_.skip(1); st != 0) return st;
      index = id_table_[id];
      if (index == kNoSlot) break;  // damaged: the rest counts as missing
    }
    Slot& s = slots_[index];
    if (s.read == 0xFFFFFFFFu) break;  // a count cannot go higher
    const std::size_t length = s.record_size + trailing;
    if (reader_.left() < length) break;  // cut off
    if (int16_t st = reader_.need(length); st != 0) return st;
    const uint8_t* record = reader_.data();
    ++s.read;
    if (s.read <= s.declared) {
      if (!*extras) {
        if (check_time_ || (recount_ && s.read == s.declared)) {
          double t = 0.0;
          const Stamp stamp = time_stamp(s, record, &t);
          if (stamp == Stamp::unsupported) return raise(MDF_UNSUPPORTED_TYPE, "");
          const bool bad_first = s.read == 1 && (t < 0.0 || t > kMaxStep);
          const bool bad_step =
              check_time_ && s.has_time && (t < s.last_time || t > s.last_time + kMaxStep);
          if (stamp == Stamp::bad || bad_first || bad_step) return raise(MDF_BAD_TIME_STAMP, "");
          s.last_time = t;
          s.has_time = true;
        }
        if (s.record_size != 0) {
          std::memcpy(s.buffer.get() + std::size_t{s.waiting} * s.record_size, record,
                      s.record_size);
          if (++s.waiting == s.capacity) {
            if (int16_t st = flush_slot(s, d, total, consumed + 1); st != 0) return st;
          }
        }
      }
    } else {
      if (!extras_allowed) {
        --s.read;
        break;
      }
      double t = 0.0;
      const Stamp stamp = time_stamp(s, record, &t);
      if (stamp == Stamp::unsupported) return raise(MDF_UNSUPPORTED_TYPE, "");
      bool bad = stamp == Stamp::bad;
      if (!bad && s.has_time) bad = t < s.last_time || t > s.last_time + kMaxStep;
      if (!bad && !s.has_time) bad = t < 0.0 || t > kMaxStep;
      if (!bad && !*extras) {
        // Text or trigger blocks stored behind the data look like a record here.
        if (g.ids != 0) {
          bad = id == 'T' && s.record_size >= 1 && (record[0] == 'X' || record[0] == 'R');
        } else {
          bad = s.record_size >= 2 && record[0] == 'T' && (record[1] == 'X' || record[1] == 'R');
        }
      }
      if (bad) {
        --s.read;
        break;
      }
      *extras = true;
      s.last_time = t;
      s.has_time = true;
    }
    if (int16_t st = reader_.skip(length); st != 0) return st;
    ++consumed;
  }
  for (uint32_t i = 0; i < g.slot_count; ++i) {
    Slot& s = slots_[g.first_slot + i];
    if (s.read < s.declared) *stopped = true;
    if (int16_t st = flush_slot(s, d, total, consumed); st != 0) return st;
  }
  return 0;
}

int16_t Sorter::sort_data_group(uint32_t d) {
  DataGroupStats& g = groups_[d];
  const uint32_t first = g.first_slot;
  const uint32_t last = first + g.slot_count;
  if (g.data == 0) {
    for (uint32_t i = first; i < last; ++i) {
      if (slots_[i].declared != 0) decreased_ = true;
      slots_[i].read = 0;
      if (int16_t st = patch_count(slots_[i]); st != 0) return st;
    }
    return 0;
  }
  if (static_cast<int64_t>(g.data) > src_size_) return raise(MDF_ERR_FORMAT, "");
  uint64_t bound = 0;
  if (int16_t st = data_bound(d, &bound); st != 0) return st;
  std::fill(std::begin(id_table_), std::end(id_table_), kNoSlot);
  if (g.ids != 0) {
    for (uint32_t i = first; i < last; ++i) {
      const uint16_t id = slots_[i].record_id;
      if (id > 255 || id_table_[id] != kNoSlot) return raise(MDF_ERR_FORMAT, "");
      id_table_[id] = static_cast<uint16_t>(i);
    }
  }
  if (int16_t st = allocate_buffers(g); st != 0) return st;
  bool stopped = false;
  bool extras = false;
  if (int16_t st = read_records(d, bound, false, &stopped, &extras); st != 0) return st;
  if (stopped) decreased_ = true;
  if ((shrink_ && stopped) || (recount_ && extras)) {
    // The counts found become the declared counts; the regions are packed anew and the data
    // group is read a second time into them.
    if (extras) increased_ = true;
    for (uint32_t i = first; i < last; ++i) {
      Slot& s = slots_[i];
      s.declared = s.read;
      s.region = uint64_t{s.read} * s.record_size;
      s.read = s.waiting = 0;
      s.written = 0;
      s.has_time = false;
      s.last_time = 0.0;
    }
    if (int16_t st = lay_out(first); st != 0) return st;
    if (int16_t st = patch_data_links(first, static_cast<uint32_t>(slots_.size())); st != 0) {
      return st;
    }
    if (int16_t st = allocate_buffers(g); st != 0) return st;
    bool again = false;
    if (int16_t st = read_records(d, bound, true, &again, &extras); st != 0) return st;
    if (again) decreased_ = true;
  }
  for (uint32_t i = first; i < last; ++i) {
    Slot& s = slots_[i];
    s.buffer.reset();
    if (s.read < s.target_count) decreased_ = true;
    if (int16_t st = patch_count(s); st != 0) return st;
    if (s.read == 0 && s.position != 0) {
      s.dropped = true;
      s.position = 0;
      if (int16_t st = patch_data_links(i, i + 1); st != 0) return st;
    }
  }
  return 0;
}

int16_t Sorter::sort_data() {
  for (const Node* node : tree_->tree.nodes()) {
    if (node->read_position != 0) block_starts_.push_back(node->read_position);
  }
  std::sort(block_starts_.begin(), block_starts_.end());
  for (uint32_t d = 0; d < groups_.size(); ++d) {
    if (groups_[d].data != 0 && groups_[d].records != 0)
      data_starts_.push_back({groups_[d].data, d});
  }
  std::sort(data_starts_.begin(), data_starts_.end());
  for (uint32_t d = 0; d < groups_.size(); ++d) {
    if (int16_t st = sort_data_group(d); st != 0) return st;
  }
  if (shrink_ && decreased_ && data_end_ > data_start_ &&
      io::known_size(dst_) > static_cast<int64_t>(data_end_)) {
    if (io::set_size(dst_, static_cast<int64_t>(data_end_)) != 0) return raise(MDF_ERR_WRITE, "");
  }
  return 0;
}

}  // namespace korvel::sort
