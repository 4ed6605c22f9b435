// The identity and float-type check, made on the raw file before any block is loaded: it
// decides whether a sort may touch the file at all, and repairs float channels whose data
// type contradicts their bit count.
#include <cstring>
#include <unordered_set>

#include "frame/bytes.h"
#include "sort/sort.h"
#include "storage/io.h"
#include "storage/layout.h"

namespace korvel::sort {
namespace {

using namespace layout;

constexpr uint32_t kDgRead = 24;
constexpr uint32_t kCgRead = 26;
constexpr uint32_t kCnRead = 218;

// Reads `count` bytes at `at` when the file holds them; never reads past the end, so a
// short file is a finding of the check rather than a raised read error.
bool read_at(uint16_t number, uint32_t at, uint8_t* out, uint32_t count) {
  if (at == 0 || static_cast<int64_t>(at) + count > io::known_size(number)) return false;
  return io::seek(number, at, io::kFromStart) == 0 &&
         io::read(out, static_cast<uint16_t>(count), number) == 0;
}

class Checker {
 public:
  Checker(uint16_t number, bool repair) : number_(number), repair_(repair) {}

  // Walks the channels of one channel group; false when the file is not usable.
  bool channels(uint32_t link) {
    uint8_t cn[kCnRead];
    std::unordered_set<uint32_t> seen;
    for (; link != 0; link = load_le32(cn + cn::kNext)) {
      if (!seen.insert(link).second) return false;
      if (!read_at(number_, link, cn, kCnRead) || load_le16(cn) != kCN) return false;
      float_type(link, cn);
    }
    return true;
  }

  uint16_t bits = 0;

 private:
  void float_type(uint32_t at, uint8_t* cn) {
    const uint16_t type = load_le16(cn + cn::kDataType);
    const uint16_t count = load_le16(cn + cn::kBitCount);
    if ((type == 2 && count == 32) || (type == 3 && count == 64) || (type != 2 && type != 3)) {
      return;
    }
    const bool repairable = (type == 2 && count == 64) || (type == 3 && count == 32);
    if (!repair_ || !repairable) {
      bits |= kFloatTypeMismatch;
      return;
    }
    store_le16(cn + cn::kDataType, type == 2 ? 3 : 2);
    uint32_t size = load_le16(cn + kHeadSize);
    if (size > kCnRead) size = kCnRead;
    if (io::seek(number_, at, io::kFromStart) == 0 && io::write(cn, size, number_) == 0) {
      io::flush(number_);
    }
  }

  uint16_t number_;
  bool repair_;
};

}  // namespace

uint16_t check_identity(uint16_t number, bool accept_unfinished, bool repair) {
  uint8_t id[id::kSize];
  if (io::known_size(number) < static_cast<int64_t>(id::kSize) ||
      io::seek(number, 0, io::kFromStart) != 0 || io::read(id, id::kSize, number) != 0) {
    return kNotUsable;
  }
  const bool finished = std::memcmp(id, "MDF     ", 8) == 0;
  const bool unfinished = accept_unfinished && std::memcmp(id, "UnFinMF ", 8) == 0;
  if (!finished && !unfinished) return kNotUsable;
  if (id[id::kReserved] != 0 || id[id::kReserved + 1] != 0) return kNotUsable;
  const uint16_t version = load_le16(id + id::kVersion);
  if (version < 200) return kNotUsable;
  if (version / 100 > 3) return kVersionTooNew;
  Checker check(number, repair);
  if (version >= 340) check.bits |= kVersionTooNew;

  uint8_t hd[hd::kSizeOld];
  if (!read_at(number, hd::kPosition, hd, hd::kSizeOld) || load_le16(hd) != kHD) {
    return check.bits | kNotUsable;
  }
  uint8_t dg[kDgRead];
  uint8_t cg[kCgRead];
  std::unordered_set<uint32_t> seen_dg;
  for (uint32_t link = load_le32(hd + hd::kFirstDg); link != 0; link = load_le32(dg + dg::kNext)) {
    if (!seen_dg.insert(link).second) return check.bits | kNotUsable;
    if (!read_at(number, link, dg, kDgRead) || load_le16(dg) != kDG) {
      return check.bits | kNotUsable;
    }
    if (load_le16(dg + dg::kCgCount) > 1) check.bits |= kUnsorted;
    if (load_le32(dg + dg::kData) == 0) continue;
    std::unordered_set<uint32_t> seen_cg;
    for (uint32_t c = load_le32(dg + dg::kFirstCg); c != 0; c = load_le32(cg + cg::kNext)) {
      if (!seen_cg.insert(c).second) return check.bits | kNotUsable;
      if (!read_at(number, c, cg, kCgRead) || load_le16(cg) != kCG) {
        return check.bits | kNotUsable;
      }
      if (load_le32(cg + cg::kRecordCount) == 0) continue;
      if (!check.channels(load_le32(cg + cg::kFirstCn))) return check.bits | kNotUsable;
    }
  }
  return check.bits;
}

}  // namespace korvel::sort
