// Writing blocks through a placement: every link of an emitted block comes from the
// placement, never from an old position.
#include <gtest/gtest.h>

#include <cstring>

#include "frame/bytes.h"
#include "korvel.h"
#include "storage/block.h"
#include "storage/node.h"
#include "storage/placement.h"

namespace {

using namespace korvel;

// A read DG at 100 leads to a read DG at 200 and to a new CG; a copy of the DG into another
// file still leads to the source's blocks.
TEST(Emit, LinksComeFromThePlacementOnly) {
  mdfClose();
  ASSERT_EQ(mdfOpen(nullptr), 0);
  mdf_file* file = nullptr;
  mdf_file* other = nullptr;
  ASSERT_EQ(create_file_record(&file), 0);
  ASSERT_EQ(create_file_record(&other), 0);
  // A DG block as if read from `position`, its links taken from the image.
  const auto read_dg = [&](uint32_t position, uint32_t next) {
    uint32_t fields[8];
    uint8_t image[28] = {'D', 'G', 28, 0};
    store_le32(image + 4, next);
    const uint16_t n = link_fields(layout::kDG, image, 28, fields, 8);
    Node* node = file->tree.add(layout::kDG, 28, position, fields, n);
    std::memcpy(node->image, image, 28);
    NodeTree::register_links(node);
    return node;
  };
  Node* next = read_dg(200, 0);
  Node* dg = read_dg(100, 200);
  Node* cg = nullptr;
  ASSERT_EQ(new_block(file, layout::kCG, &cg), 0);
  set_link(dg, layout::dg::kFirstCg, 0, cg);
  Node* copy = nullptr;
  ASSERT_EQ(copy_block(other, &copy, file->tree, dg), 0);
  // own_file: the output is the file of the node's own tree; place_next: the DG at 200 is
  // placed at 5000, the CG at 6000.
  struct Case {
    Node* node;
    bool own_file, place_next;
    int16_t status;
  };
  const Case cases[] = {
      {dg, true, false, MDF_ERR_FATAL},    // the new CG has no place yet
      {dg, true, true, 0},                 // placed anew
      {dg, false, false, MDF_ERR_FATAL},   // a new file: where a block was read is no place
      {copy, true, false, MDF_ERR_FATAL},  // another file's blocks have no place here
      {copy, true, true, 0},
  };
  for (const Case& c : cases) {
    const NodeTree& tree = c.node == copy ? other->tree : file->tree;
    Placement placement = c.own_file ? Placement(tree) : Placement();
    if (c.place_next) {
      placement.assign(next, 5000);
      placement.assign(cg, 6000);
    }
    uint8_t out[28];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(emit_block(tree, c.node, placement, out), c.status);
    if (c.status != 0) continue;
    EXPECT_EQ(load_le32(out + layout::dg::kNext), 5000u);
    EXPECT_EQ(load_le32(out + layout::dg::kFirstCg), 6000u);
    EXPECT_EQ(load_le32(out + layout::dg::kTrigger), 0u);
    EXPECT_EQ(load_le32(dg->image + layout::dg::kNext), 200u);  // the image is not changed
  }
  // In its own file, a block on disk keeps its place unless placed anew.
  Placement own(file->tree);
  uint64_t at = 0;
  EXPECT_TRUE(own.position_of(next, &at));
  EXPECT_EQ(at, 200u);
  EXPECT_FALSE(own.position_of(cg, &at));
  release_file_record(other);
  release_file_record(file);
  mdfClose();
}

}  // namespace
