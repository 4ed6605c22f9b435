#include <gtest/gtest.h>

#include <cstring>

#include "frame/bytes.h"
#include "korvel.h"
#include "storage/block.h"
#include "storage/node.h"
#include "storage/placement.h"

namespace {

using namespace korvel;

class NodeTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    ASSERT_EQ(create_file_record(&file_), 0);
  }
  void TearDown() override {
    release_file_record(file_);
    mdfClose();
  }
  // A DG block as if read from `position`, its links taken from the image.
  Node* read_dg(uint32_t position, uint32_t next) {
    uint32_t fields[8];
    uint8_t image[28] = {'D', 'G', 28, 0};
    store_le32(image + 4, next);
    const uint16_t n = link_fields(layout::kDG, image, 28, fields, 8);
    Node* node = file_->tree.add(layout::kDG, 28, position, fields, n);
    std::memcpy(node->image, image, 28);
    NodeTree::register_links(node);
    return node;
  }
  mdf_file* file_ = nullptr;
};

TEST_F(NodeTreeTest, ResolvingLinks) {
  Node* a = read_dg(100, 0);
  Node* b = read_dg(200, 100);
  Node* c = read_dg(300, 999);
  EXPECT_EQ(resolve_link(file_->tree, a, layout::dg::kNext), nullptr);  // link 0: nothing
  EXPECT_EQ(mdfGetErrorCode(), 0);
  EXPECT_EQ(resolve_link(file_->tree, b, layout::dg::kNext), a);
  EXPECT_EQ(resolve_link(file_->tree, b, layout::dg::kNext), a);  // cached
  EXPECT_EQ(NodeTree::find_by_block(b->image), b);
  EXPECT_EQ(file_->tree.find_by_position(300), c);
  EXPECT_EQ(file_->tree.find_by_position(301), nullptr);

  EXPECT_EQ(resolve_link(file_->tree, c, layout::dg::kNext), nullptr);  // no block at 999
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_UNKNOWN_BLOCK);
}

TEST_F(NodeTreeTest, UnknownFieldIsAnUnknownLink) {
  Node* a = read_dg(100, 0);
  EXPECT_EQ(resolve_link(file_->tree, a, layout::dg::kData), nullptr);  // data is no link
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_UNKNOWN_LINK);
}

TEST_F(NodeTreeTest, NewBlocksLinkBeforeTheyAreWritten) {
  Node* dg = nullptr;
  Node* cg = nullptr;
  ASSERT_EQ(new_block(file_, layout::kDG, &dg), 0);
  ASSERT_EQ(new_block(file_, layout::kCG, &cg), 0);
  EXPECT_EQ(dg->block_size(), 28);
  EXPECT_EQ(cg->block_size(), 26);
  ASSERT_NE(set_link(dg, layout::dg::kFirstCg, 0, cg), nullptr);
  EXPECT_EQ(resolve_link(file_->tree, dg, layout::dg::kFirstCg), cg);
  EXPECT_EQ(load_le32(dg->image + layout::dg::kFirstCg), 0u);  // the image is untouched
  EXPECT_EQ(set_link(dg, layout::dg::kData, 0, cg), nullptr);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_UNKNOWN_LINK);
}

TEST_F(NodeTreeTest, EmittedLinksComeFromThePlacementOnly) {
  // A read DG at 100 leads to a read DG at 200 and to a new CG; a copy of the DG into another
  // tree still leads to the source's blocks.
  Node* next = read_dg(200, 0);
  Node* dg = read_dg(100, 200);
  Node* cg = nullptr;
  ASSERT_EQ(new_block(file_, layout::kCG, &cg), 0);
  set_link(dg, layout::dg::kFirstCg, 0, cg);
  mdf_file* other = nullptr;
  ASSERT_EQ(create_file_record(&other), 0);
  Node* copy = nullptr;
  ASSERT_EQ(copy_block(other, &copy, file_->tree, dg), 0);
  uint8_t out[28];
  struct Case {
    Node* node;
    bool own_file;    // the output is the file of the node's own tree
    bool place_next;  // the DG at 200 is placed at 5000, the CG at 6000
    int16_t status;
    uint32_t next, first_cg;
  };
  const Case cases[] = {
      {dg, true, false, MDF_ERR_FATAL, 0, 0},    // the new CG has no place yet
      {dg, true, true, 0, 5000, 6000},           // placed anew
      {dg, false, false, MDF_ERR_FATAL, 0, 0},   // a new file: where a block was read is no place
      {copy, true, false, MDF_ERR_FATAL, 0, 0},  // another file's blocks have no place here
      {copy, true, true, 0, 5000, 6000},
  };
  for (const Case& c : cases) {
    Placement placement =
        c.own_file ? Placement(c.node == copy ? other->tree : file_->tree) : Placement();
    if (c.place_next) {
      placement.assign(next, 5000);
      placement.assign(cg, 6000);
    }
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(emit_block(c.node == copy ? other->tree : file_->tree, c.node, placement, out),
              c.status);
    if (c.status != 0) continue;
    EXPECT_EQ(load_le32(out + layout::dg::kNext), c.next);
    EXPECT_EQ(load_le32(out + layout::dg::kFirstCg), c.first_cg);
    EXPECT_EQ(load_le32(out + layout::dg::kTrigger), 0u);
    EXPECT_EQ(load_le32(dg->image + layout::dg::kNext), 200u);  // the image is not changed
  }
  // In its own file, a block on disk keeps its place unless placed anew.
  Placement own(file_->tree);
  uint64_t at = 0;
  EXPECT_TRUE(own.position_of(next, &at));
  EXPECT_EQ(at, 200u);
  EXPECT_FALSE(own.position_of(cg, &at));
  release_file_record(other);
}

TEST_F(NodeTreeTest, SaveAndRestoreCopy) {
  Node* cg = nullptr;
  ASSERT_EQ(new_block(file_, layout::kCG, &cg), 0);
  ASSERT_EQ(save_copy(cg), 0);
  store_le16(cg->image + layout::cg::kRecordSize, 77);
  ASSERT_EQ(restore_copy(cg), 0);
  EXPECT_EQ(load_le16(cg->image + layout::cg::kRecordSize), 0);
  EXPECT_EQ(cg->saved, nullptr);
}

TEST_F(NodeTreeTest, RemovedNodesLeaveTheIndexes) {
  Node* a = read_dg(100, 0);
  read_dg(200, 0);
  EXPECT_EQ(file_->tree.remove(a), 0);
  EXPECT_EQ(file_->tree.find_by_position(100), nullptr);
  EXPECT_EQ(file_->tree.size(), 1u);
}

TEST_F(NodeTreeTest, LinkFieldsFollowTheBlockSize) {
  struct Case {
    uint16_t kind;
    uint32_t size;
    uint16_t links;
  };
  const Case cases[] = {{layout::kCN, 218, 5}, {layout::kCN, 222, 6}, {layout::kCN, 228, 7},
                        {layout::kCG, 26, 3},  {layout::kCG, 30, 4},  {layout::kHD, 208, 3},
                        {layout::kTX, 10, 0},  {layout::kSR, 24, 1},  {layout::kTR, 34, 1}};
  for (const auto& c : cases) {
    uint32_t fields[16];
    EXPECT_EQ(link_fields(c.kind, nullptr, c.size, fields, 16), c.links) << c.kind << " " << c.size;
  }
}

TEST_F(NodeTreeTest, ReleasingAFileFreesEveryImageOnce) {
  // Runs clean under AddressSanitizer: every node and image goes back exactly once.
  for (uint32_t i = 1; i <= 3000; ++i) read_dg(i * 28, i > 1 ? (i - 1) * 28 : 0);
  Node* tx = nullptr;
  ASSERT_EQ(new_text_block(file_, &tx, 5, "hello"), 0);
  EXPECT_STREQ(text_of(tx), "hello");
  EXPECT_EQ(tx->block_size(), 10);
  EXPECT_EQ(file_->tree.size(), 3001u);
}

}  // namespace
