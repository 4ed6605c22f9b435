// One sort run: the source's block tree is copied into a target in which every channel group
// has a data group of its own, and the records of each source data group are distributed, in
// one forward pass over the source, into the regions of their channel groups.
//
// The target's block structure is planned before anything is written: every block gets its
// target position first, so each link is written once with the position of the block it
// points to in the target. Records are read from the source in large chunks and collected
// per channel group in write buffers, which go to the target in large writes.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <unordered_map>
#include <vector>

#include "channel/decode.h"
#include "frame/bytes.h"
#include "frame/frame.h"
#include "platform/platform.h"
#include "sort/sort.h"
#include "storage/block.h"
#include "storage/io.h"
#include "storage/layout.h"
#include "storage/node.h"

namespace korvel::sort {
namespace {

using namespace layout;

constexpr const char* kUnit = "MDFSORTF";
constexpr uint64_t kMaxLink = 0xFFFFFFFFull;
constexpr uint64_t kBufferCap = 1048576;     // largest write buffer of one channel group
constexpr uint64_t kHeldBack = 4096;         // memory the buffers leave to everything else
constexpr double kMaxStep = 2592000.0;       // 30 days: the largest plausible time step
constexpr std::size_t kChunk = 1u << 20;     // source bytes read at once
constexpr std::size_t kOutChunk = 1u << 20;  // block bytes collected before a write
constexpr uint32_t kNewDgSize = dg::kSize;
constexpr uint32_t kFillRun = 64;  // 0xFF bytes taken for unused room
constexpr uint16_t kNoSlot = 0xFFFF;

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

bool all_fill(const uint8_t* p) {
  for (uint32_t i = 0; i < kFillRun; ++i) {
    if (p[i] != 0xFF) return false;
  }
  return true;
}

// Directory part of a file name ("." when it has none).
std::string directory_of(const char* name) {
  const std::string s = name != nullptr ? name : "";
  const std::size_t cut = s.find_last_of("/\\:");
  if (cut == std::string::npos) return ".";
  if (cut == 0) return s.substr(0, 1);
  if (s[cut] == ':') return s.substr(0, cut + 1);
  return s.substr(0, cut);
}

// Whether two names reach the same file.
bool same_file(const char* a, const char* b) {
  if (std::strcmp(a, b) == 0) return true;
  const int fa = platform::open_file(a, platform::OpenMode::read);
  if (fa < 0) return false;
  const int fb = platform::open_file(b, platform::OpenMode::read);
  bool same = false;
  if (fb >= 0) {
    platform::FileStatus sa;
    platform::FileStatus sb;
    same = platform::file_status(fa, &sa) && platform::file_status(fb, &sb) &&
           sa.device == sb.device && sa.file_id == sb.file_id;
    platform::close_file(fb);
  }
  platform::close_file(fa);
  return same;
}

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
  int16_t link_position(const Node* owner, uint32_t field, uint32_t* out);
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

  std::unordered_map<const Node*, uint32_t> placed_;
  std::vector<Planned> plan_;
  uint64_t cursor_ = 0;
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

// ---- Source ----------------------------------------------------------------------------------

int16_t Sorter::open_source(const char* source) {
  source_name_ = source;
  return io::open(&src_, source, io::kRead, 8192);
}

int16_t Sorter::check_and_repair(const char* source) {
  const uint16_t bits = check_identity(src_, finalize_, false);
  // Only a file that is understood, and not of a newer version, is repaired.
  if ((bits & kFloatTypeMismatch) != 0 && (bits & (kNotUsable | kVersionTooNew)) == 0) {
    io::close(src_);
    src_ = io::kNoFile;
    if (int16_t st = io::open(&src_, source, io::kModify, 8192); st != 0) return st;
    check_identity(src_, finalize_, true);
    io::close(src_);
    src_ = io::kNoFile;
    if (int16_t st = io::open(&src_, source, io::kRead, 8192); st != 0) return st;
  }
  if ((bits & kNotUsable) != 0 || (bits & kUnsorted) == 0) return MDF_ALREADY_SORTED;
  if ((bits & kVersionTooNew) != 0) return raise(MDF_NEWER_VERSION, "");
  return 0;
}

int16_t Sorter::load_tree() {
  if (int16_t st = create_file_record(&tree_); st != 0) return st;
  tree_->io_number = src_;
  // Blocks are copied as stored: REALs stay in the file's own format.
  return read_file(tree_, ReadOptions{false, finalize_});
}

int16_t Sorter::finalize_identification() {
  uint8_t* id = tree_->id_block->image;
  if (!finalize_ || std::memcmp(id, "UnFinMF ", 8) != 0) return 0;
  if (load_le16(id + id::kCustomFlags) != 0 || load_le16(id + id::kStdFlags) > 1) {
    return raise(MDF_ERR_FORMAT, "");
  }
  store_le16(id + id::kStdFlags, 0);
  std::memcpy(id, "MDF     ", 8);
  recount_ = true;
  return 0;
}

int16_t Sorter::first_pass() {
  Node* dg = resolve_link(tree_->tree, tree_->header, hd::kFirstDg);
  bool unsorted = false;
  for (; dg != nullptr; dg = resolve_link(tree_->tree, dg, dg::kNext)) {
    DataGroupStats g;
    g.dg = dg;
    g.data = load_le32(dg->image + dg::kData);
    g.ids = load_le16(dg->image + dg::kRecordIds);
    g.first_slot = static_cast<uint32_t>(slots_.size());
    for (Node* cg = resolve_link(tree_->tree, dg, dg::kFirstCg); cg != nullptr;
         cg = resolve_link(tree_->tree, cg, cg::kNext)) {
      if (slots_.size() >= 65535) return raise(MDF_ERR_FORMAT, "");
      Slot s;
      s.cg = cg;
      s.dg_index = static_cast<uint32_t>(groups_.size());
      s.record_size = load_le16(cg->image + cg::kRecordSize);
      s.record_id = load_le16(cg->image + cg::kRecordId);
      s.declared = load_le32(cg->image + cg::kRecordCount);
      s.target_count = s.declared;
      g.records += s.declared;
      g.bytes += uint64_t{s.declared} * s.record_size;
      if (s.record_size != 0) {
        g.min_size = std::min(g.min_size, s.record_size);
        g.max_size = std::max(g.max_size, s.record_size);
      }
      for (Node* cn = resolve_link(tree_->tree, cg, cg::kFirstCn); cn != nullptr;
           cn = resolve_link(tree_->tree, cn, cn::kNext)) {
        ++channel_total_;
      }
      slot_of_cg_[cg] = static_cast<uint32_t>(slots_.size());
      slots_.push_back(std::move(s));
      ++g.slot_count;
    }
    if (g.slot_count > 1) unsorted = true;
    if (g.data != 0) bytes_to_sort_ += g.bytes;
    groups_.push_back(g);
  }
  if (sticky_error() < 0) return sticky_error();
  if (groups_.empty() || slots_.empty() || !unsorted) return MDF_ALREADY_SORTED;
  return 0;
}

// ---- Target ----------------------------------------------------------------------------------

int16_t Sorter::open_target(const char* source, const char* target) {
  if (target != nullptr && target[0] != '\0' && !same_file(source, target)) {
    target_name_ = target;
    if (io::open(&dst_, target, io::kCreate, 8192) != 0) {
      dst_ = io::kNoFile;
      return raise(MDF_NO_TARGET_ACCESS, target);
    }
    return 0;
  }
  const std::string dir = directory_of(target);
  char name[1024];
  if (!platform::make_temp_file(dir.c_str(), "KORVEL", name, sizeof name)) {
    return raise(MDF_NO_TARGET_ACCESS, dir.c_str());
  }
  target_name_ = name;
  temporary_ = true;
  if (io::open(&dst_, name, io::kModify, 8192) != 0) {
    dst_ = io::kNoFile;
    return raise(MDF_NO_TARGET_ACCESS, name);
  }
  return 0;
}

int16_t Sorter::place(const Node* node) {
  if (node == nullptr || placed_.count(node) != 0) return 0;
  const uint32_t size = node->kind == kId ? id::kSize : node->block_size();
  if (cursor_ + size > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  placed_.emplace(node, static_cast<uint32_t>(cursor_));
  plan_.push_back({node, 0, static_cast<uint32_t>(cursor_)});
  cursor_ += size;
  return 0;
}

int16_t Sorter::place_channel(Node* cn) {
  NodeTree& tree = tree_->tree;
  if (int16_t st = place(cn); st != 0) return st;
  Node* cc = resolve_link(tree, cn, cn::kConversion);
  if (int16_t st = place(cc); st != 0) return st;
  if (cc != nullptr && load_le16(cc->image + cc::kType) == 12) {
    // The texts of a verbal range table's entries.
    for (uint16_t i = 0; i < cc->link_count; ++i) {
      if (int16_t st = place(resolve_link(tree, cc, cc->links()[i].field)); st != 0) return st;
    }
  }
  const uint16_t size = cn->block_size();
  for (uint32_t field :
       {cn::kExtension, cn::kDependency, cn::kComment, cn::kLongName, cn::kDisplayName}) {
    if (field == cn::kLongName && size < cn::kSizeLongName) continue;
    if (field == cn::kDisplayName && size < cn::kSize) continue;
    if (int16_t st = place(resolve_link(tree, cn, field)); st != 0) return st;
  }
  return 0;
}

int16_t Sorter::plan_structure() {
  NodeTree& tree = tree_->tree;
  Node* hd = tree_->header;
  int16_t st = place(tree_->id_block);
  if (st == 0) st = place(hd);
  if (st == 0) st = place(resolve_link(tree, hd, hd::kComment));
  if (st == 0) st = place(resolve_link(tree, hd, hd::kProgram));
  for (uint32_t i = 0; st == 0 && i < slots_.size(); ++i) {
    Slot& s = slots_[i];
    if (cursor_ + kNewDgSize > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
    s.target_dg = static_cast<uint32_t>(cursor_);
    plan_.push_back({nullptr, i, s.target_dg});
    cursor_ += kNewDgSize;
    Node* tr = resolve_link(tree, groups_[s.dg_index].dg, dg::kTrigger);
    st = place(tr);
    if (st == 0 && tr != nullptr) st = place(resolve_link(tree, tr, tr::kComment));
    if (st == 0) st = place(s.cg);
    if (st != 0) break;
    s.target_cg = placed_.at(s.cg);
    st = place(resolve_link(tree, s.cg, cg::kComment));
    for (Node* cn = resolve_link(tree, s.cg, cg::kFirstCn); st == 0 && cn != nullptr;
         cn = resolve_link(tree, cn, cn::kNext)) {
      st = place_channel(cn);
      // The time channel: the first of type 1 whose bytes lie within the record.
      if (st == 0 && (recount_ || check_time_) && s.time_cn == nullptr &&
          load_le16(cn->image + cn::kType) == 1 &&
          field_fits(value_layout(cn->image), s.record_size)) {
        s.time_cn = cn;
        Node* cc = resolve_link(tree, cn, cn::kConversion);
        s.time_cc = cc != nullptr ? cc->image : nullptr;
      }
    }
  }
  if (st == 0 && sticky_error() < 0) st = sticky_error();
  data_start_ = cursor_;
  return st;
}

// The target position of the block a link of `owner` points to (0 for none).
int16_t Sorter::link_position(const Node* owner, uint32_t field, uint32_t* out) {
  *out = 0;
  const uint32_t value = load_le32(owner->image + field);
  if (value == 0) return 0;
  const Node* target = tree_->tree.find_by_position(value);
  if (target == nullptr) return internal_error(kUnit, __LINE__);
  auto it = placed_.find(target);
  if (it == placed_.end()) return internal_error(kUnit, __LINE__);
  *out = it->second;
  return 0;
}

int16_t Sorter::emit(const uint8_t* bytes, uint32_t size) {
  out_.insert(out_.end(), bytes, bytes + size);
  return out_.size() >= kOutChunk ? flush_out() : 0;
}

int16_t Sorter::flush_out() {
  if (out_.empty()) return 0;
  const int16_t st = io::write(out_.data(), static_cast<uint32_t>(out_.size()), dst_);
  out_.clear();
  return st;
}

int16_t Sorter::write_block(const Planned& p) {
  if (p.source == nullptr) {
    const Slot& s = slots_[p.slot];
    uint8_t b[kNewDgSize] = {};
    store_le16(b, kDG);
    store_le16(b + kHeadSize, kNewDgSize);
    store_le32(b + dg::kNext, p.slot + 1 < slots_.size() ? slots_[p.slot + 1].target_dg : 0);
    store_le32(b + dg::kFirstCg, s.target_cg);
    uint32_t tr = 0;
    if (int16_t st = link_position(groups_[s.dg_index].dg, dg::kTrigger, &tr); st != 0) return st;
    store_le32(b + dg::kTrigger, tr);
    if (s.position > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
    store_le32(b + dg::kData, s.dropped ? 0 : static_cast<uint32_t>(s.position));
    store_le16(b + dg::kCgCount, 1);
    return emit(b, kNewDgSize);
  }
  const Node* n = p.source;
  const uint32_t size = n->kind == kId ? id::kSize : n->block_size();
  std::vector<uint8_t> b(n->image, n->image + size);
  auto* owner = const_cast<Node*>(n);
  const LinkRecord* links = owner->links();
  for (uint16_t i = 0; i < n->link_count; ++i) {
    const uint32_t field = links[i].field;
    uint32_t value = 0;
    if (n->kind == kHD && field == hd::kFirstDg) {
      value = slots_.front().target_dg;
    } else if (n->kind == kCG && (field == cg::kNext || field == cg::kFirstSr)) {
      value = 0;  // one channel group per data group; reduced data stays behind
    } else if (n->kind == kCD) {
      continue;
    } else if (int16_t st = link_position(n, field, &value); st != 0) {
      return st;
    }
    store_le32(b.data() + field, value);
  }
  if (n->kind == kHD) store_le16(b.data() + hd::kDgCount, static_cast<uint16_t>(slots_.size()));
  if (n->kind == kCD) {
    // Each entry names a channel by data group, channel group and channel; the data group
    // becomes the new one that holds the channel group.
    const uint32_t count = load_le16(n->image + cd::kCount);
    for (uint32_t e = 0; e < count; ++e) {
      const uint32_t at = cd::kEntries + cd::kEntry * e;
      if (at + cd::kEntry > size) break;
      const Node* cg = tree_->tree.find_by_position(load_le32(n->image + at + 4));
      auto slot = cg != nullptr ? slot_of_cg_.find(cg) : slot_of_cg_.end();
      if (slot == slot_of_cg_.end()) return raise(MDF_ERR_FORMAT, "");
      const Slot& s = slots_[slot->second];
      uint32_t cn_position = 0;
      if (const uint32_t cn_link = load_le32(n->image + at + 8); cn_link != 0) {
        const Node* cn = tree_->tree.find_by_position(cn_link);
        auto it = cn != nullptr ? placed_.find(cn) : placed_.end();
        if (it == placed_.end() || cn->kind != kCN) return raise(MDF_ERR_FORMAT, "");
        cn_position = it->second;
      }
      store_le32(b.data() + at, s.target_dg);
      store_le32(b.data() + at + 4, s.target_cg);
      store_le32(b.data() + at + 8, cn_position);
    }
  }
  return emit(b.data(), size);
}

int16_t Sorter::write_structure() {
  uint32_t channels = 0;
  for (const Planned& p : plan_) {
    if (int16_t st = write_block(p); st != 0) return st;
    if (p.source != nullptr && p.source->kind == kCN) {
      ++channels;
      const uint32_t percent =
          5 + static_cast<uint32_t>(15ull * channels / std::max<uint32_t>(channel_total_, 1));
      if (int16_t st = report(percent); st != 0) return st;
    }
  }
  if (int16_t st = flush_out(); st != 0) return st;
  if (static_cast<uint64_t>(io::tell(dst_)) != data_start_) return internal_error(kUnit, __LINE__);
  return 0;
}

// ---- Data area layout ------------------------------------------------------------------------

void Sorter::pack() {
  uint64_t at = data_start_;
  for (uint32_t i : area_order_) {
    Slot& s = slots_[i];
    s.position = s.region == 0 || s.dropped ? 0 : at;
    at += s.region;
  }
  data_end_ = at;
}

// Lays the data area out anew. Slots before `first_open_slot` hold written records and must
// stay where they are; the overflow rule may move one of the others to the end.
int16_t Sorter::lay_out(uint32_t first_open_slot) {
  std::vector<uint64_t> fixed;
  for (uint32_t i = 0; i < first_open_slot; ++i) fixed.push_back(slots_[i].position);
  pack();
  if (data_end_ > kMaxLink) {
    const uint64_t excess = data_end_ - kMaxLink;
    const bool keep = moved_ >= 0 && slots_[static_cast<uint32_t>(moved_)].region > excess;
    if (!keep) {
      int64_t choice = -1;
      for (uint32_t i = static_cast<uint32_t>(slots_.size()); i-- > first_open_slot;) {
        if (slots_[i].region > excess) {
          choice = i;
          break;
        }
      }
      if (choice < 0) return raise(MDF_ERR_FILE_TOO_LARGE, "");
      moved_ = choice;
      area_order_.clear();
      for (uint32_t i = 0; i < slots_.size(); ++i) {
        if (i != static_cast<uint32_t>(choice)) area_order_.push_back(i);
      }
      area_order_.push_back(static_cast<uint32_t>(choice));
      pack();
    }
  }
  for (uint32_t i = 0; i < first_open_slot; ++i) {
    if (slots_[i].position != fixed[i]) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  }
  for (const Slot& s : slots_) {
    if (s.position > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  }
  return 0;
}

int16_t Sorter::patch_data_links(uint32_t from_slot, uint32_t to_slot) {
  for (uint32_t i = from_slot; i < to_slot; ++i) {
    const Slot& s = slots_[i];
    uint8_t b[24];
    if (io::seek(dst_, s.target_dg, io::kFromStart) != 0 || io::read(b, 24, dst_) != 0) {
      return raise(MDF_ERR_WRITE, "");
    }
    if (load_le16(b) != kDG) return internal_error(kUnit, __LINE__);
    if (s.position > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
    store_le32(b + dg::kData, s.dropped ? 0 : static_cast<uint32_t>(s.position));
    if (int16_t st = io::seek(dst_, s.target_dg, io::kFromStart); st != 0) return st;
    if (int16_t st = io::write(b, 24, dst_); st != 0) return st;
  }
  return 0;
}

int16_t Sorter::patch_count(Slot& s) {
  if (s.read == s.target_count) return 0;
  uint8_t b[cg::kSize];
  if (io::seek(dst_, s.target_cg, io::kFromStart) != 0 || io::read(b, cg::kSize, dst_) != 0) {
    return raise(MDF_ERR_WRITE, "");
  }
  if (load_le16(b) != kCG) return internal_error(kUnit, __LINE__);
  store_le32(b + cg::kRecordCount, s.read);
  if (int16_t st = io::seek(dst_, s.target_cg, io::kFromStart); st != 0) return st;
  if (int16_t st = io::write(b, cg::kSize, dst_); st != 0) return st;
  s.target_count = s.read;
  return 0;
}

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

// ---- The run ---------------------------------------------------------------------------------

void Sorter::release() {
  if (src_ != io::kNoFile) io::close(src_);
  src_ = io::kNoFile;
  if (dst_ != io::kNoFile) io::close(dst_);
  dst_ = io::kNoFile;
  if (tree_ != nullptr) {
    tree_->io_number = io::kNoFile;
    release_file_record(tree_);
    tree_ = nullptr;
  }
  for (Slot& s : slots_) s.buffer.reset();
}

// Closes both files and puts the result in its place, or removes what failed.
int16_t Sorter::finish_target(int16_t status) {
  const bool failed =
      status != 0 && status != MDF_CYCLES_INCREASED && status != MDF_CYCLES_DECREASED;
  if (dst_ != io::kNoFile && !failed) io::flush(dst_);
  const bool had_target = !target_name_.empty();
  release();
  if (!had_target) return status;
  if (failed) {
    platform::remove_file(target_name_.c_str());
    return status;
  }
  if (temporary_ && !platform::replace_file(target_name_.c_str(), source_name_.c_str())) {
    platform::remove_file(target_name_.c_str());
    return raise(MDF_NO_TARGET_ACCESS, source_name_.c_str());
  }
  return status;
}

int16_t Sorter::run(const char* source, const char* target) {
  int16_t st = 0;
  try {
    st = steps(source, target);
  } catch (const std::bad_alloc&) {
    st = raise(MDF_ERR_NO_MEMORY, "");
  }
  return finish_target(st);
}

int16_t Sorter::steps(const char* source, const char* target) {
  int16_t st = open_source(source);
  if (st != 0) return st;
  st = report(1);
  flags_ = current_flags();
  finalize_ = (flags_ & MDF_SORT_FINALIZE) != 0;
  recount_ = (flags_ & (MDF_SORT_RECOUNT | MDF_SORT_FINALIZE)) != 0;
  shrink_ = (flags_ & MDF_SORT_SHRINK) != 0;
  check_time_ = (flags_ & MDF_SORT_CHECK_TIME) != 0;
  if (st == 0) st = check_and_repair(source);
  if (st == 0) {
    src_size_ = io::known_size(src_);
    st = report(3);
  }
  if (st == 0) st = load_tree();
  if (st == 0) st = finalize_identification();
  if (st == 0) st = report(5);
  if (st == 0) st = first_pass();
  if (st == 0) st = open_target(source, target);
  if (st == 0) st = plan_structure();
  if (st == 0) {
    for (Slot& s : slots_) {
      s.region = groups_[s.dg_index].data != 0 ? uint64_t{s.declared} * s.record_size : 0;
    }
    for (uint32_t i = 0; i < slots_.size(); ++i) area_order_.push_back(i);
    st = lay_out(0);
  }
  if (st == 0) st = write_structure();
  if (st == 0) st = report(20);
  if (st == 0) st = sort_data();
  if (st == 0) st = decreased_ ? MDF_CYCLES_DECREASED : increased_ ? MDF_CYCLES_INCREASED : 0;
  return st;
}

}  // namespace

int16_t run_sort(const char* source, const char* target) {
  if (state().context_depth == 0) return raise(MDF_ERR_NOT_INITIALIZED, "");
  state().last_status = 0;
  mdfContextOpen();
  int16_t status = 0;
  {
    Sorter sorter;
    status = sorter.run(source, target);
    if (status != 0 && status != MDF_ALREADY_SORTED && status != MDF_CYCLES_INCREASED &&
        status != MDF_CYCLES_DECREASED) {
      // The first error raised during the run is the result.
      if (sticky_error() < 0 && status < 0) status = sticky_error();
    }
  }
  mdfContextClose();
  report_final();
  return status;
}

}  // namespace korvel::sort
