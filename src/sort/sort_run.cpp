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

using namespace layout;

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

}  // namespace

using namespace layout;

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
  bool unsorted = false;
  for (Node* dg : chain(tree_->tree, tree_->header, hd::kFirstDg)) {
    DataGroupStats g;
    g.dg = dg;
    g.data = load_le32(dg->image + dg::kData);
    g.ids = load_le16(dg->image + dg::kRecordIds);
    g.first_slot = static_cast<uint32_t>(slots_.size());
    for (Node* cg : chain(tree_->tree, dg, dg::kFirstCg)) {
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
      for ([[maybe_unused]] Node* cn : chain(tree_->tree, cg, cg::kFirstCn)) {
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
