// Record runs: large reads of the data section, and the scan of unsorted data groups done in
// one pass.
#include "group/record_runs.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "group/group.h"
#include "storage/block.h"
#include "storage/io.h"
#include "storage/layout.h"

namespace korvel {

using namespace layout;

// What a record identifier stands for in the group's data group: the group's own records,
// another channel group's (with the bytes to skip behind the identifier), or nothing known.
struct IdEntry {
  uint8_t kind = 0;  // 0 unknown, 1 own, 2 other
  uint32_t skip = 0;
};

struct RecordCache {
  // The layout the bytes were read for.
  uint64_t data = 0;           // data position of the data group
  uint32_t size = 0;           // record data bytes
  uint32_t file_stride = 0;    // record data plus identifiers
  uint16_t ids = 0;
  bool direct = false;         // records by position (sorted, or without identifiers)
  int64_t file_size = 0;
  std::array<IdEntry, 256> owners{};
  bool valid = false;
  // Whether the bytes are the file's bytes as they stand (records read in one piece from
  // the record of index `first` on), identifiers included.
  bool mirror = false;
  // Records first .. first + count - 1, record r's data at bytes + lead + r * stride.
  std::unique_ptr<uint8_t[]> bytes;  // not zero-filled: every byte handed out was read
  std::size_t capacity = 0;
  uint32_t first = 0;
  uint32_t count = 0;
  std::size_t lead = 0;
  std::size_t stride = 0;
  // The scan of an unsorted group: the record found next and where its search starts.
  uint32_t next_index = 0;
  uint64_t next_position = 0;
  // File bytes for the scan, [window_start, window_start + window.size()).
  std::vector<uint8_t> window;
  uint64_t window_start = 0;
};

namespace {

constexpr std::size_t kWindowBytes = std::size_t{1} << 20;

// The current layout of the group, as the record cursor sees it.
void describe(mdf_group* g, RecordCache* layout_out) {
  RecordCache& c = *layout_out;
  c.data = load_le32(g->dg->image + dg::kData);
  c.size = record_size(g);
  c.ids = record_ids(g);
  c.file_stride = c.size + c.ids;
  c.direct = c.ids == 0 || load_le16(g->dg->image + dg::kCgCount) == 1;
  c.file_size = io::known_size(g->file->io_number);
  c.owners.fill(IdEntry{});
  if (c.ids == 0) return;
  const uint32_t trailing = c.ids == 2 ? 1u : 0u;
  // The first channel group of the data group with a matching identifier, the own one first.
  for (Node* cg : chain(g->file->tree, g->dg, dg::kFirstCg)) {
    IdEntry& e = c.owners[load_le16(cg->image + cg::kRecordId) & 0xFF];
    if (e.kind == 0) e = IdEntry{2, load_le16(cg->image + cg::kRecordSize) + trailing};
  }
  c.owners[load_le16(g->cg->image + cg::kRecordId) & 0xFF] = IdEntry{1, c.size + trailing};
}

bool same_layout(const RecordCache& a, const RecordCache& b) {
  return a.data == b.data && a.size == b.size && a.ids == b.ids && a.direct == b.direct &&
         a.file_size == b.file_size &&
         std::memcmp(a.owners.data(), b.owners.data(), sizeof a.owners) == 0;
}

// Room for n bytes of records.
uint8_t* reserve(RecordCache& c, std::size_t n) {
  if (n > c.capacity) {
    c.bytes.reset();
    c.capacity = 0;
    c.bytes.reset(new uint8_t[n]);
    c.capacity = n;
  }
  return c.bytes.get();
}

bool fits(const RecordCache& c, uint64_t from, uint64_t count) {
  return static_cast<int64_t>(from + count) <= c.file_size;
}

// Reads file bytes [at, at + n) into dst; false (after the file unit raised) on failure.
bool read_at(uint16_t number, uint64_t at, void* dst, std::size_t n) {
  if (n == 0) return true;
  return io::seek(number, static_cast<int64_t>(at), io::kFromStart) == 0 &&
         io::read_bulk(dst, n, number) == 0;
}

// File bytes [at, at + n) through the scan window; null on a failed read. The bytes must lie
// inside the file.
const uint8_t* window_bytes(RecordCache& c, uint16_t number, uint64_t at, std::size_t n) {
  if (at >= c.window_start && at + n <= c.window_start + c.window.size()) {
    return c.window.data() + (at - c.window_start);
  }
  const uint64_t rest = static_cast<uint64_t>(c.file_size) - at;
  const std::size_t length = static_cast<std::size_t>(std::min<uint64_t>(rest, std::max(n, kWindowBytes)));
  c.window.resize(length);
  c.window_start = at;
  if (!read_at(number, at, c.window.data(), length)) {
    c.window.clear();
    return nullptr;
  }
  return c.window.data();
}

// From `at` on, the next record of the group, as the record cursor's read finds it: records
// of other channel groups are skipped; an unknown identifier, or a record or identifier that
// would cross the end of the file, fails. *data receives the position of the record data.
bool locate(RecordCache& c, uint16_t number, uint64_t at, uint64_t* data) {
  for (;;) {
    if (c.ids == 0) {
      if (!fits(c, at, c.size)) return false;
      *data = at;
      return true;
    }
    if (!fits(c, at, 1)) return false;
    const uint8_t* id = window_bytes(c, number, at, 1);
    if (id == nullptr) return false;
    const IdEntry e = c.owners[*id];
    if (e.kind == 0 || !fits(c, at + 1, e.skip)) return false;
    if (e.kind == 1) {
      *data = at + 1;
      return true;
    }
    at += 1 + e.skip;
  }
}

// Direct groups: records first .. first + n - 1 in one read. False when an identifier is not
// the group's own (a damaged sorted group); the caller then finds the records one by one.
bool read_direct(RecordCache& c, uint16_t number, uint32_t first, uint32_t n, bool* failed) {
  const std::size_t bytes = std::size_t{n} * c.file_stride;
  uint8_t* dst = reserve(c, bytes);
  if (!read_at(number, c.data + uint64_t{first} * c.file_stride, dst, bytes)) {
    *failed = true;
    return false;
  }
  if (c.ids != 0) {
    for (uint32_t r = 0; r < n; ++r) {
      if (c.owners[dst[std::size_t{r} * c.file_stride]].kind != 1) return false;
    }
  }
  c.lead = c.ids != 0 ? 1 : 0;
  c.stride = c.file_stride;
  c.first = first;
  c.count = n;
  c.mirror = true;
  return true;
}

// Records first .. first + n - 1 found one by one and packed. Keeps what was found before a
// failure; returns the number of records found.
uint32_t read_packed(RecordCache& c, uint16_t number, uint32_t first, uint32_t n) {
  uint8_t* dst = reserve(c, std::size_t{n} * c.size);
  c.lead = 0;
  c.stride = c.size;
  c.first = first;
  c.count = 0;
  c.mirror = false;
  if (!c.direct && (c.next_index > first || c.next_index == 0)) {
    c.next_index = 0;
    c.next_position = c.data;
  }
  auto find = [&](uint32_t index, uint64_t* data) {
    if (c.direct) return locate(c, number, c.data + uint64_t{index} * c.file_stride, data);
    if (!locate(c, number, c.next_position, data)) return false;
    c.next_index = index + 1;
    c.next_position = *data - (c.ids != 0 ? 1 : 0) + c.file_stride;
    return true;
  };
  uint64_t data = 0;
  // An unsorted group's scan passes the records before the first one asked for.
  while (!c.direct && c.next_index < first) {
    if (!find(c.next_index, &data)) return 0;
  }
  for (uint32_t r = 0; r < n; ++r) {
    if (!find(first + r, &data)) break;
    const uint8_t* src = window_bytes(c, number, data, c.size);
    if (src == nullptr) break;
    if (c.size != 0) std::memcpy(dst + std::size_t{r} * c.size, src, c.size);
    c.count = r + 1;
  }
  return c.count;
}

}  // namespace

uint32_t offered_records(const mdf_group* g) {
  const uint32_t size = record_size(g);
  if (size == 0) return 0;
  const int64_t room = io::known_size(g->file->io_number) - load_le32(g->dg->image + dg::kData);
  if (room <= 0) return 0;
  const uint64_t fit = static_cast<uint64_t>(room) / (size + record_ids(g));
  return static_cast<uint32_t>(std::min<uint64_t>(fit, record_count(g)));
}

int16_t fetch_records(mdf_group* g, uint32_t index, uint32_t limit, RecordRun* run) {
  if (g->records == nullptr) g->records = new RecordCache();
  RecordCache& c = *g->records;
  RecordCache now;
  describe(g, &now);
  // Only a file open for reading keeps its records as they are between calls.
  const bool keep = g->file->mode == 0;
  if (!keep || !c.valid || !same_layout(c, now)) {
    g->pending_record = nullptr;
    c.data = now.data;
    c.size = now.size;
    c.file_stride = now.file_stride;
    c.ids = now.ids;
    c.direct = now.direct;
    c.file_size = now.file_size;
    c.owners = now.owners;
    c.count = 0;
    c.next_index = 0;
    c.window.clear();
    c.valid = true;
  }
  if (index < c.first || index - c.first >= c.count) {
    g->pending_record = nullptr;  // the kept bytes are about to change
    const uint32_t left = offered_records(g) - index;
    const uint32_t fit = static_cast<uint32_t>(std::max<std::size_t>(1, kRecordCacheBytes / c.file_stride));
    const uint32_t n = std::min(left, keep ? fit : std::min(fit, limit));
    const uint16_t number = g->file->io_number;
    bool failed = false;
    if (!c.direct || !read_direct(c, number, index, n, &failed)) {
      if (failed || read_packed(c, number, index, n) == 0) {
        c.count = 0;
        c.window.clear();
        return raise(MDF_ERR_FORMAT, "");
      }
    }
    c.window.clear();
    c.window.shrink_to_fit();
  }
  const uint32_t at = index - c.first;
  run->base = c.bytes.get() + c.lead + std::size_t{at} * c.stride;
  run->stride = c.stride;
  run->count = std::min(c.count - at, limit);
  return 0;
}

namespace {

// Whether the records kept with a group handle of a file open for reading were read for the
// group's layout as it is now. Such a file neither grows nor has its channel groups, record
// sizes or identifiers changed, so the data position, record size, identifier count and
// sortedness tell the layout apart without walking the data group's channel groups.
bool kept_layout_current(const RecordCache* c, const mdf_group* g) {
  if (c == nullptr || !c->valid) return false;
  const uint16_t ids = record_ids(g);
  return c->ids == ids && c->size == record_size(g) &&
         c->data == load_le32(g->dg->image + dg::kData) &&
         c->direct == (ids == 0 || load_le16(g->dg->image + dg::kCgCount) == 1);
}

}  // namespace

const uint8_t* kept_file_record(const mdf_group* g, uint32_t index) {
  if (g->file->mode != 0) return nullptr;
  const RecordCache* c = g->records;
  if (c == nullptr || !c->mirror || index < c->first || index - c->first >= c->count ||
      !kept_layout_current(c, g)) {
    return nullptr;
  }
  return c->bytes.get() + std::size_t{index - c->first} * c->file_stride;
}

const uint8_t* kept_file_bytes(const mdf_group* g, uint64_t at, uint32_t n) {
  if (g->file->mode != 0) return nullptr;
  const RecordCache* c = g->records;
  if (c == nullptr || !c->mirror || !kept_layout_current(c, g)) return nullptr;
  const uint64_t begin = c->data + uint64_t{c->first} * c->file_stride;
  const uint64_t end = begin + uint64_t{c->count} * c->file_stride;
  if (at < begin || at > end || end - at < n) return nullptr;
  return c->bytes.get() + (at - begin);
}

const uint8_t* kept_record(mdf_group* g, uint32_t index) {
  if (g->file->mode != 0) return nullptr;
  const RecordCache* c = g->records;
  if (c != nullptr && index >= c->first && index - c->first < c->count &&
      kept_layout_current(c, g)) {
    return c->bytes.get() + c->lead + std::size_t{index - c->first} * c->stride;
  }
  if (!offers_record(g, index)) return nullptr;
  RecordRun run;
  if (fetch_records(g, index, 1, &run) != 0) return nullptr;
  return run.base;
}

void release_record_cache(mdf_group* g) {
  g->pending_record = nullptr;
  delete g->records;
  g->records = nullptr;
}

}  // namespace korvel
