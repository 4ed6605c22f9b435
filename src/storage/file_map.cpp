// The map of a file opened for modifying: which bytes hold blocks, which hold records.
#include <algorithm>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "storage/file.h"
#include "storage/io.h"

namespace korvel {
namespace {

using namespace layout;

// Whether [start, end) touches one of the sorted, disjoint blocks (whose ends ascend too).
bool touches_block(const std::vector<Extent>& blocks, uint64_t start, uint64_t end) {
  const auto after = std::partition_point(blocks.begin(), blocks.end(),
                                          [&](const Extent& b) { return b.end() <= start; });
  return after != blocks.end() && after->start < end;
}

int16_t overlap_at(uint64_t position) {
  return raise_fmt(MDF_ERR_FORMAT, "(pos=%llu)", static_cast<unsigned long long>(position));
}

// The bytes the records of a data group occupy from its data position: the declared records
// of all its channel groups, at most `limit`.
uint64_t data_bytes(mdf_file* file, Node* dg, uint64_t limit) {
  const uint64_t ids = load_le16(dg->image + dg::kRecordIds);
  uint64_t total = 0;
  for (Node* cg : chain(file->tree, dg, dg::kFirstCg)) {
    if (total >= limit) break;
    const uint64_t stride = load_le16(cg->image + cg::kRecordSize) + ids;
    total += stride * load_le32(cg->image + cg::kRecordCount);
  }
  return std::min(total, limit);
}

}  // namespace

int16_t map_file(mdf_file* file) {
  const int64_t size = io::known_size(file->io_number);
  std::vector<Extent>& blocks = file->blocks;
  blocks.clear();
  blocks.reserve(file->tree.size());
  for (const Node* node : file->tree.nodes()) {
    if (node->kind == kId) {
      blocks.push_back({0, id::kSize});
    } else if (node->read_position != 0) {
      blocks.push_back({node->read_position, node->block_size()});
    }
  }
  std::sort(blocks.begin(), blocks.end(),
            [](const Extent& a, const Extent& b) { return a.start < b.start; });
  for (std::size_t i = 1; i < blocks.size(); ++i) {
    if (blocks[i].start < blocks[i - 1].end()) return overlap_at(blocks[i].start);
  }
  // Records of two data groups may share bytes: rewriting one then changes the other, but no
  // block. Records and blocks may not.
  int16_t status = 0;
  for_each_data_group(file, [&](Node* dg) {
    const uint64_t start = load_le32(dg->image + dg::kData);
    if (static_cast<int64_t>(start) >= size) return true;
    const uint64_t end = start + data_bytes(file, dg, static_cast<uint64_t>(size) - start);
    if (end > start && touches_block(blocks, start, end)) status = overlap_at(start);
    return status == 0;
  });
  if (status != 0) {
    blocks.clear();
    return status;
  }
  file->size_at_open = size;
  return 0;
}

bool record_bytes_free(const mdf_file* file, uint64_t start, uint64_t length) {
  const uint64_t end = start + length;
  return end <= static_cast<uint64_t>(file->size_at_open) &&
         !touches_block(file->blocks, start, end);
}

}  // namespace korvel
