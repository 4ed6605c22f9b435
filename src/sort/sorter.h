// The sorter: the state of one sort run and its steps, shared by the units that carry
// them out (sort_run.cpp: source, target choice and the run; sort_structure.cpp: the target's
// blocks and the layout of its data area; sort_records.cpp: the records).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "frame/frame.h"
#include "storage/io.h"
#include "storage/layout.h"
#include "storage/node.h"
#include "storage/placement.h"

namespace korvel::sort {

inline constexpr const char* kUnit = "MDFSORTF";
inline constexpr uint64_t kMaxLink = 0xFFFFFFFFull;
inline constexpr uint64_t kBufferCap = 1048576;     // largest write buffer of one channel group
inline constexpr uint64_t kHeldBack = 4096;         // memory the buffers leave to everything else
inline constexpr double kMaxStep = 2592000.0;       // 30 days: the largest plausible time step
inline constexpr std::size_t kChunk = 1u << 20;     // source bytes read at once
inline constexpr std::size_t kOutChunk = 1u << 20;  // block bytes collected before a write
inline constexpr uint32_t kNewDgSize = layout::dg::kSize;
inline constexpr uint32_t kFillRun = 64;  // 0xFF bytes taken for unused room
inline constexpr uint16_t kNoSlot = 0xFFFF;

struct DataGroupStats {
  Node* dg = nullptr;
  uint64_t records = 0;  // declared records of its channel groups
  uint64_t bytes = 0;    // declared records x record size
  uint32_t data = 0;     // data position
  uint16_t ids = 0;      // record ids per record: 0, 1 or 2
  uint16_t min_size = 65535;
  uint16_t max_size = 0;
  uint32_t first_slot = 0;
  uint32_t slot_count = 0;
};

struct Slot {
  Node* cg = nullptr;
  uint32_t dg_index = 0;
  uint16_t record_size = 0;
  uint16_t record_id = 0;
  uint32_t declared = 0;      // records its region was laid out for
  uint32_t target_count = 0;  // count in the target's channel-group block
  uint32_t read = 0;          // records read so far
  uint64_t region = 0;        // bytes reserved in the data area
  uint64_t position = 0;      // data position in the target, 0 for none
  bool dropped = false;       // region kept, but no records: data link 0
  uint32_t target_cg = 0;
  uint32_t target_dg = 0;
  std::unique_ptr<uint8_t[]> buffer;
  uint32_t capacity = 0;  // records the buffer holds
  uint32_t waiting = 0;   // records in the buffer
  uint64_t written = 0;   // records written to the region
  Node* time_cn = nullptr;
  uint8_t* time_cc = nullptr;
  double last_time = 0.0;
  bool has_time = false;
};

// A block of the target in write order: a source block, or the new data group of a slot.
struct Planned {
  const Node* source = nullptr;
  uint32_t slot = 0;  // for a new data group
  uint32_t position = 0;
};

enum class Stamp { ok, bad, unsupported };

// Reads a stretch of the source in large chunks and hands out contiguous record bytes.
class SourceReader {
 public:
  int16_t start(uint16_t number, uint64_t position, uint64_t length) {
    if (!buffer_) {
      buffer_.reset(new (std::nothrow) uint8_t[kChunk]);
      if (!buffer_) return raise(MDF_ERR_NO_MEMORY, "");
    }
    number_ = number;
    begin_ = end_ = 0;
    unread_ = length;
    if (io::seek(number, static_cast<int64_t>(position), io::kFromStart) != 0) {
      return raise(MDF_ERR_FORMAT, "");
    }
    return 0;
  }
  uint64_t left() const { return unread_ + (end_ - begin_); }
  // Makes `n` bytes (at most left(), at most a chunk) contiguous at data().
  int16_t need(std::size_t n) {
    if (end_ - begin_ >= n) return 0;
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    const std::size_t pull = static_cast<std::size_t>(std::min<uint64_t>(unread_, kChunk - end_));
    if (pull != 0) {
      if (io::read_bulk(buffer_.get() + end_, pull, number_) != 0) return raise(MDF_ERR_FORMAT, "");
      end_ += pull;
      unread_ -= pull;
    }
    return end_ - begin_ >= n ? 0 : internal_error(kUnit, __LINE__);
  }
  const uint8_t* data() const { return buffer_.get() + begin_; }
  // Passes over `n` bytes, reading the file forward as needed.
  int16_t skip(std::size_t n) {
    while (n != 0) {
      if (begin_ == end_) {
        if (int16_t st = need(1); st != 0) return st;
      }
      const std::size_t step = std::min(n, end_ - begin_);
      begin_ += step;
      n -= step;
    }
    return 0;
  }

 private:
  std::unique_ptr<uint8_t[]> buffer_;
  uint16_t number_ = io::kNoFile;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  uint64_t unread_ = 0;
};

class Sorter {
 public:
  ~Sorter() { release(); }
  int16_t run(const char* source, const char* target);

 private:
  int16_t steps(const char* source, const char* target);
  int16_t open_source(const char* source);
  int16_t check_and_repair(const char* source);
  int16_t load_tree();
  int16_t finalize_identification();
  int16_t first_pass();
  int16_t open_target(const char* source, const char* target);
  int16_t plan_structure();
  int16_t place(const Node* node);
  int16_t place_channel(Node* cn);
  int16_t write_structure();
  int16_t write_block(const Planned& p);
  int16_t emit(const uint8_t* bytes, uint32_t size);
  int16_t flush_out();
  void pack();
  int16_t lay_out(uint32_t first_open_slot);
  int16_t patch_data_links(uint32_t from_slot, uint32_t to_slot);
  int16_t patch_count(Slot& s);
  int16_t sort_data();
  int16_t sort_data_group(uint32_t d);
  int16_t data_bound(uint32_t d, uint64_t* bound);
  int16_t allocate_buffers(const DataGroupStats& g);
  int16_t read_records(uint32_t d, uint64_t bound, bool second, bool* stopped, bool* extras);
  int16_t flush_slot(Slot& s, uint32_t d, uint64_t total, uint64_t consumed);
  Stamp time_stamp(Slot& s, const uint8_t* record, double* out);
  int16_t finish_target(int16_t status);
  void release();

  uint32_t flags_ = 0;
  bool recount_ = false;
  bool shrink_ = false;
  bool check_time_ = false;
  bool finalize_ = false;

  uint16_t src_ = io::kNoFile;
  uint16_t dst_ = io::kNoFile;
  int64_t src_size_ = 0;
  mdf_file* tree_ = nullptr;
  std::string source_name_;
  std::string target_name_;
  bool temporary_ = false;

  std::vector<DataGroupStats> groups_;
  std::vector<Slot> slots_;
  std::unordered_map<const Node*, uint32_t> slot_of_cg_;
  uint64_t bytes_to_sort_ = 0;
  uint32_t channel_total_ = 0;

  Placement placement_;  // where the target's blocks go
  std::vector<Planned> plan_;
  std::vector<uint8_t> out_;

  uint64_t data_start_ = 0;
  uint64_t data_end_ = 0;
  std::vector<uint32_t> area_order_;
  int64_t moved_ = -1;  // slot placed last by the overflow rule, -1 for none

  std::vector<uint32_t> block_starts_;                      // every block read, sorted
  std::vector<std::pair<uint32_t, uint32_t>> data_starts_;  // (data position, data group)
  SourceReader reader_;
  uint16_t id_table_[256] = {};

  bool decreased_ = false;
  bool increased_ = false;
};

}  // namespace korvel::sort
