#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;

class GroupApi : public ::testing::Test {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    dir_ = mdftest::scratch_dir("korvel_group");
  }
  void TearDown() override {
    mdfClose();
    fs::remove_all(dir_);
  }
  std::string write(const mdftest::Built& built, const char* name = "in.mdf") {
    const auto p = (dir_ / name).string();
    mdftest::write_file(p, built.bytes);
    return p;
  }
  mdf_file* open(const std::string& p, uint16_t mode = MDF_OPEN_READ) {
    mdf_file* file = nullptr;
    EXPECT_EQ(mdfFileOpen(&file, p.c_str(), mode), 0);
    return file;
  }
  // The current record's data bytes.
  static std::vector<uint8_t> current(mdf_group* g) {
    uint8_t* data = nullptr;
    const int32_t size = mdfGrpBuffer(&data, g);
    return {data, data + (size - 24)};
  }
  fs::path dir_;
};

// Record k of channel group c: its bytes say which record it is.
std::vector<uint8_t> record_bytes(size_t c, size_t k, size_t size) {
  std::vector<uint8_t> r(size);
  for (size_t i = 0; i < size; ++i) r[i] = static_cast<uint8_t>(c * 64 + k * 3 + i);
  return r;
}

// One data group holding three channel groups of 5, 3 and 4 records, interleaved.
mdftest::FileModel interleaved(uint16_t ids) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(ids);
  const size_t sizes[] = {4, 2, 7};
  const size_t counts[] = {5, 3, 4};
  for (size_t c = 0; c < 3; ++c) {
    auto& cg = dg.add_channel_group(static_cast<uint16_t>(sizes[c]), static_cast<uint16_t>(c + 1));
    cg.add_channel(std::string(1, static_cast<char>('a' + c)), 0, 8, 0);
    for (size_t k = 0; k < counts[c]; ++k) cg.records.push_back(record_bytes(c, k, sizes[c]));
  }
  dg.order = {0, 1, 0, 2, 2, 1, 0, 0, 2, 1, 2, 0};
  return f;
}

TEST_F(GroupApi, InterleavedRecordsReadInOrderAndBySeeks) {
  for (uint16_t ids : {uint16_t{1}, uint16_t{2}}) {
    SCOPED_TRACE(ids);
    const auto f = interleaved(ids);
    mdf_file* file = open(write(mdftest::build(f)));
    EXPECT_EQ(mdfFileIsSort(file), MDF_NOT_SORTED);
    for (uint16_t c = 0; c < 3; ++c) {
      const auto& cg = f.data_groups[0].channel_groups[c];
      mdf_group* g = nullptr;
      ASSERT_EQ(mdfGrpOpen(&g, file, static_cast<uint16_t>(c + 1), 0), 0);
      uint32_t count = 0;
      EXPECT_EQ(mdfGrpRecords(&count, g), 0);
      ASSERT_EQ(count, cg.records.size());
      for (uint32_t k = 0; k < count; ++k) {
        if (k != 0) {
          ASSERT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_REL), 0);
        }
        EXPECT_EQ(current(g), cg.records[k]) << "record " << k;
      }
      EXPECT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_REL), MDF_END_OF_GROUP);
      // Absolute seeks, backwards and forwards.
      for (uint32_t k : {count - 1, 0u, count / 2, 1u, count - 1}) {
        ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(k), MDF_SEEK_ABS), 0);
        uint32_t at = 99;
        EXPECT_EQ(mdfGrpTell(&at, g), 0);
        EXPECT_EQ(at, k);
        EXPECT_EQ(current(g), cg.records[k]) << "record " << k;
      }
      EXPECT_EQ(mdfGrpClose(g), 0);
    }
    EXPECT_EQ(mdfFileClose(file), 0);
  }
}

TEST_F(GroupApi, SeekingBeyondTheEndsLeavesTheCursor) {
  mdf_file* file = open(write(mdftest::build(interleaved(1))));
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, 0), 0);
  ASSERT_EQ(mdfGrpSeek(g, 2, MDF_SEEK_ABS), 0);
  struct Case {
    int32_t position;
    uint16_t mode;
    int16_t status;
  };
  const Case cases[] = {{-3, MDF_SEEK_REL, 1}, {-100, MDF_SEEK_REL, 1}, {3, MDF_SEEK_REL, 1},
                        {5, MDF_SEEK_ABS, 1},  {-1, MDF_SEEK_ABS, 1},   {0, 7, MDF_ERR_SEEK_MODE}};
  for (const auto& c : cases) {
    EXPECT_EQ(mdfGrpSeek(g, c.position, c.mode), c.status) << c.position;
    uint32_t at = 0;
    mdfGrpTell(&at, g);
    if (c.status != MDF_ERR_SEEK_MODE) {
      EXPECT_EQ(at, 2u);
    }
  }
}

TEST_F(GroupApi, SeekingToTheCurrentRecordRereadsOnlyUnsortedGroups) {
  mdftest::FileModel sorted;
  auto& cg = sorted.add_data_group().add_channel_group(4);
  cg.add_channel("v", 0, 8, 0);
  for (size_t k = 0; k < 3; ++k) cg.records.push_back(record_bytes(0, k, 4));
  struct Case {
    mdftest::FileModel model;
    bool reread;
  };
  const Case cases[] = {{sorted, false}, {interleaved(1), true}};
  for (const auto& c : cases) {
    mdf_file* file = open(write(mdftest::build(c.model)));
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfGrpOpen(&g, file, 1, 0), 0);
    ASSERT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_ABS), 0);
    uint8_t* data = nullptr;
    mdfGrpBuffer(&data, g);
    data[0] ^= 0xFF;  // a change in memory only
    ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_REL), 0);
    EXPECT_EQ(data[0], c.reread ? record_bytes(0, 1, 4)[0] : record_bytes(0, 1, 4)[0] ^ 0xFF);
    EXPECT_EQ(mdfFileClose(file), 0);
  }
}

TEST_F(GroupApi, EmptyGroupOpens) {
  mdftest::FileModel f;
  f.add_data_group().add_channel_group(10).add_channel("v", 0, 8, 0);
  mdf_file* file = open(write(mdftest::build(f)));
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, 0), 0);
  uint32_t count = 9;
  EXPECT_EQ(mdfGrpRecords(&count, g), 0);
  EXPECT_EQ(count, 0u);
  for (int32_t p : {0, 1, -1}) EXPECT_EQ(mdfGrpSeek(g, p, MDF_SEEK_ABS), MDF_END_OF_GROUP);
  EXPECT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_REL), MDF_END_OF_GROUP);
  uint8_t* data = nullptr;
  EXPECT_EQ(mdfGrpBuffer(&data, g), 34);
  EXPECT_NE(data, nullptr);
  uint16_t channels = 0;
  EXPECT_EQ(mdfGrpChannels(&channels, g), 0);
  EXPECT_EQ(channels, 1);
}

TEST_F(GroupApi, RefusalsAndBadHandles) {
  const auto in = write(mdftest::build(interleaved(1)));
  mdf_file* file = open(in);
  mdf_group* g = reinterpret_cast<mdf_group*>(8);
  EXPECT_EQ(mdfGrpOpen(&g, file, 4, 0), MDF_GROUP_NOT_FOUND);
  EXPECT_EQ(g, nullptr);
  EXPECT_EQ(mdfGrpOpen(&g, file, 0, 0), MDF_GROUP_NOT_FOUND);
  EXPECT_EQ(mdfGetErrorCode(), 0);  // positive: logged, not sticky
  std::ifstream log("KORVEL.LOG");
  std::stringstream text;
  text << log.rdbuf();
  EXPECT_NE(text.str().find("[KORVEL-ERROR] group not found (n=0)\n"), std::string::npos);

  // Each refusal is negative and so sticky: every case starts afresh.
  struct Case {
    const char* what;
    std::function<int16_t(mdf_file*)> call;
    int16_t status;
  };
  const Case cases[] = {
      {"modify on a read file",
       [](mdf_file* f) {
         mdf_group* x;
         return mdfGrpOpen(&x, f, 1, 1);
       },
       MDF_ERR_OPEN_MODE},
      {"mode 3",
       [](mdf_file* f) {
         mdf_group* x;
         return mdfGrpOpen(&x, f, 1, 3);
       },
       MDF_ERR_OPEN_MODE},
      {"write in mode 0",
       [](mdf_file* f) {
         mdf_group* x;
         mdfGrpOpen(&x, f, 1, 0);
         return mdfGrpWrite(x);
       },
       MDF_ERR_OPEN_MODE},
      {"append in mode 0",
       [](mdf_file* f) {
         mdf_group* x;
         mdfGrpOpen(&x, f, 1, 0);
         return mdfGrpWriteAppend(x);
       },
       MDF_ERR_OPEN_MODE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    mdfClose();
    mdfOpen(nullptr);
    file = open(in);
    EXPECT_EQ(c.call(file), c.status);
    EXPECT_EQ(mdfGetErrorCode(), c.status);
  }
}

TEST_F(GroupApi, GroupsOfAFileInOrderOfOpening) {
  mdf_file* file = open(write(mdftest::build(interleaved(1))));
  mdf_file* other = open(write(mdftest::build(interleaved(2)), "other.mdf"));
  mdf_group *a = nullptr, *b = nullptr, *c = nullptr, *it = nullptr;
  EXPECT_EQ(mdfGrpGetFirst(&it, file), MDF_GRP_NOT_FOUND);
  ASSERT_EQ(mdfGrpOpen(&a, file, 3, 0), 0);
  ASSERT_EQ(mdfGrpOpen(&b, other, 1, 0), 0);
  ASSERT_EQ(mdfGrpOpen(&c, file, 1, 0), 0);
  EXPECT_EQ(mdfGrpGetFirst(&it, file), 0);
  EXPECT_EQ(it, a);
  EXPECT_EQ(mdfGrpGetNext(&it), 0);
  EXPECT_EQ(it, c);
  EXPECT_EQ(mdfGrpGetNext(&it), MDF_GRP_NOT_FOUND);
  EXPECT_EQ(it, nullptr);
  EXPECT_EQ(mdfGrpGetNext(nullptr), MDF_GRP_NOT_FOUND);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  EXPECT_EQ(mdfFileClose(file), 0);  // closes a and c
  EXPECT_EQ(mdfGrpGetFirst(&it, other), 0);
  EXPECT_EQ(it, b);
}

TEST_F(GroupApi, CreatedGroupIsGroupOneAndCountsItsAppendedRecords) {
  const auto p = (dir_ / "new.mdf").string();
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, p.c_str(), MDF_OPEN_CREATE), 0);
  mdf_group* first = nullptr;
  ASSERT_EQ(mdfGrpOpen(&first, file, 1, MDF_OPEN_CREATE), 0);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(mdfGrpWriteAppend(first), 0);
  mdf_group* second = nullptr;
  EXPECT_EQ(mdfGrpOpen(&second, file, 1, MDF_OPEN_CREATE), MDF_ERR_TWO_CREATES);
  mdfClose();
  mdfOpen(nullptr);
  ASSERT_EQ(mdfFileOpen(&file, p.c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&first, file, 1, MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpWriteAppend(first), 0);
  ASSERT_EQ(mdfGrpClose(first), 0);
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfGrpOpen(&g, file, 7, MDF_OPEN_CREATE), 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(mdfGrpWriteAppend(g), 0);
  uint32_t count = 0;
  EXPECT_EQ(mdfGrpRecords(&count, g), 0);
  EXPECT_EQ(count, 3u);
  uint16_t groups = 0;
  EXPECT_EQ(mdfFileGroups(&groups, file), 0);
  EXPECT_EQ(groups, 2);
  // The group created first has moved up to number 2.
  mdf_group* earlier = nullptr;
  ASSERT_EQ(mdfGrpOpen(&earlier, file, 2, 0), 0);
  EXPECT_EQ(mdfGrpRecords(&count, earlier), 0);
  EXPECT_EQ(count, 0u);  // one appended record is written as count 0
  ASSERT_EQ(mdfGrpClose(earlier), 0);
  ASSERT_EQ(mdfGrpClose(g), 0);
  ASSERT_EQ(mdfFileClose(file), 0);

  const auto r = mdftest::read_file(p);
  ASSERT_TRUE(r.ok()) << r.error_text();
  ASSERT_EQ(r.data_groups.size(), 2u);
  EXPECT_EQ(r.header.dg_count, 2);
  const auto& newest = r.data_groups[0];
  ASSERT_EQ(newest.channel_groups.size(), 1u);
  EXPECT_EQ(newest.channel_groups[0].record_count, 2u);  // three appended, written as 2
  EXPECT_EQ(newest.channel_groups[0].record_id, 1);
  EXPECT_EQ(newest.record_ids, 1);
  // The records (identifier byte 1 each) lie before the blocks that describe them, and the
  // close wrote CG, DG and then rewrote the header in place.
  const uint32_t data = newest.data_link;
  EXPECT_EQ(r.bytes[data], 1);
  EXPECT_EQ(r.bytes[data + 1], 1);
  EXPECT_EQ(r.bytes[data + 2], 1);
  EXPECT_EQ(newest.channel_groups[0].offset, data + 3);
  EXPECT_EQ(newest.offset, data + 3 + 26);
  EXPECT_EQ(r.bytes.size(), data + 3 + 26 + 28);
  EXPECT_EQ(r.header.first_dg_link, newest.offset);
  EXPECT_EQ(newest.next_link, r.data_groups[1].offset);
}

TEST_F(GroupApi, RewritingARecordChangesExactlyItsBytes) {
  for (uint16_t ids : {uint16_t{0}, uint16_t{1}, uint16_t{2}}) {
    SCOPED_TRACE(ids);
    auto f = ids == 0 ? mdftest::FileModel{} : interleaved(ids);
    if (ids == 0) {
      auto& cg = f.add_data_group().add_channel_group(4);
      cg.add_channel("v", 0, 8, 0);
      for (size_t k = 0; k < 3; ++k) cg.records.push_back(record_bytes(0, k, 4));
    }
    const auto built = mdftest::build(f);
    const auto in = write(built);
    mdf_file* file = open(in, MDF_OPEN_MODIFY);
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfGrpOpen(&g, file, 1, MDF_OPEN_MODIFY), 0);
    ASSERT_EQ(mdfGrpSeek(g, 2, MDF_SEEK_ABS), 0);
    uint8_t* data = nullptr;
    mdfGrpBuffer(&data, g);
    const uint8_t fresh[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    std::memcpy(data, fresh, 4);
    ASSERT_EQ(mdfGrpWrite(g), 0);
    ASSERT_EQ(mdfGrpClose(g), 0);
    ASSERT_EQ(mdfFileClose(file), 0);
    const auto after = mdftest::load_file(in);
    auto expected = built.bytes;
    const uint32_t at = built.data_groups[0].channel_groups[0].records[2] + (ids != 0 ? 1 : 0);
    std::memcpy(expected.data() + at, fresh, 4);
    ASSERT_GE(after.size(), expected.size());
    // Closing in modify mode rewrote the CG and the header in place; nothing else moved.
    for (size_t i = 0; i < expected.size(); ++i) {
      const bool in_header = i >= 64 && i < 64 + 208u;
      const auto cg_at = built.data_groups[0].channel_groups[0].offset;
      const bool in_cg = i >= cg_at && i < cg_at + 26u;
      if (!in_header && !in_cg) {
        ASSERT_EQ(after[i], expected[i]) << "byte " << i;
      }
    }
  }
}

TEST_F(GroupApi, DeletingGroups) {
  auto f = interleaved(1);
  f.add_data_group().add_channel_group(1).add_channel("solo", 0, 8, 0);
  const auto in = write(mdftest::build(f));
  mdf_file* file = open(in);
  EXPECT_EQ(mdfGrpDelete(file, 1), MDF_ERR_OPEN_MODE);
  EXPECT_EQ(mdfFileClose(file), 0);
  mdfClose();
  mdfOpen(nullptr);
  file = open(in, MDF_OPEN_MODIFY);
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfGrpOpen(&g, file, 2, 0), 0);
  EXPECT_EQ(mdfGrpDelete(file, 2), MDF_GROUP_IS_OPEN);
  EXPECT_EQ(mdfGrpDelete(file, 9), MDF_GROUP_NOT_FOUND);
  ASSERT_EQ(mdfGrpClose(g), 0);
  EXPECT_EQ(mdfGrpDelete(file, 2), 0);  // the middle channel group of the first data group
  EXPECT_EQ(mdfGrpDelete(file, 3), 0);  // the only channel group of the second data group
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto r = mdftest::read_file(in);
  ASSERT_TRUE(r.ok()) << r.error_text();
  ASSERT_EQ(r.data_groups.size(), 1u);
  EXPECT_EQ(r.header.dg_count, 1);
  ASSERT_EQ(r.data_groups[0].channel_groups.size(), 2u);
  EXPECT_EQ(r.data_groups[0].cg_count, 2);
  EXPECT_EQ(r.data_groups[0].channel_groups[0].record_id, 1);
  EXPECT_EQ(r.data_groups[0].channel_groups[1].record_id, 3);
}

TEST_F(GroupApi, DamagedDataSections) {
  struct Case {
    const char* what;
    std::function<void(mdftest::Built&)> damage;
    int32_t seek_to;
    int16_t open_status;
    int16_t seek_status;
  };
  const Case cases[] = {
      {"unknown record id",
       [](mdftest::Built& b) { b.patch_u8(b.data_groups[0].channel_groups[1].records[0], 9); }, 3,
       0, MDF_ERR_FORMAT},
      {"records cut off", [](mdftest::Built& b) { b.truncate(b.size() - 3); }, 4, 0,
       MDF_ERR_FORMAT},
      {"more records declared than present",
       [](mdftest::Built& b) {
         b.patch_u32(b.data_groups[0].channel_groups[0].offset + mdftest::off::cg_record_count, 9);
       },
       7, 0, MDF_ERR_FORMAT},
      {"data position beyond the end: no records",
       [](mdftest::Built& b) {
         b.patch_u32(b.data_groups[0].offset + mdftest::off::dg_data, 0x7FFFFFF0u);
       },
       0, 0, MDF_END_OF_GROUP},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    mdfClose();
    mdfOpen(nullptr);
    auto f = interleaved(1);
    f.data_at_end = true;
    auto built = mdftest::build(f);
    c.damage(built);
    mdf_file* file = open(write(built));
    mdf_group* g = nullptr;
    EXPECT_EQ(mdfGrpOpen(&g, file, 1, 0), c.open_status);
    if (c.open_status != 0) continue;
    EXPECT_EQ(mdfGrpSeek(g, c.seek_to, MDF_SEEK_ABS), c.seek_status);
    EXPECT_EQ(mdfGetErrorCode(), c.seek_status < 0 ? c.seek_status : 0);
  }
}

TEST_F(GroupApi, FileChannelsCountsEveryGroup) {
  auto f = interleaved(1);
  f.data_groups[0].channel_groups[2].add_channel("w", 8, 8, 0);
  mdf_file* file = open(write(mdftest::build(f)));
  uint32_t count = 0;
  EXPECT_EQ(mdfFileChannels(&count, file), 0);
  EXPECT_EQ(count, 4u);
}

}  // namespace

namespace {

// Closing a created group appends, from the last channel to the first, each channel's
// conversion, comment, display name and long name and then the channel; then the channel
// group and the data group, and rewrites the header in place.
TEST_F(GroupApi, CloseWritesTheBlocksOfACreatedGroupInOrder) {
  const auto p = (dir_ / "order.mdf").string();
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, p.c_str(), MDF_OPEN_CREATE), 0);
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), 0);
  channelnode* chs[2] = {};
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(mdfChnCreate(&chs[i], g, 0, 16, MDF_DT_UINT, i == 0 ? "first" : "second"), 0);
    ASSERT_EQ(mdfChnSetFormLin(chs[i], "u", 0, 2), 0);
    ASSERT_EQ(mdfChnSetText(chs[i], i == 0 ? "comment 1" : "comment 2"), 0);
    ASSERT_EQ(mdfChnSetInfoExt(chs[i], 0, "long name", "shown"), 0);
  }
  ASSERT_EQ(mdfChnSetHexInt(chs[0], 7), 0);
  ASSERT_EQ(mdfGrpWriteAppend(g), 0);
  ASSERT_EQ(mdfGrpClose(g), 0);
  ASSERT_EQ(mdfFileClose(file), 0);

  const auto r = mdftest::read_file(p);
  ASSERT_TRUE(r.ok()) << r.error_text();
  const auto& dg = r.data_groups.at(0);
  const auto& cg = dg.channel_groups.at(0);
  ASSERT_EQ(cg.channels.size(), 2u);
  // Blocks in the order they were appended, behind the one record (identifier + 4 bytes).
  std::vector<uint32_t> order;
  for (int i = 1; i >= 0; --i) {
    const auto& cn = cg.channels[static_cast<size_t>(i)];
    order.insert(order.end(), {cn.conversion_link, cn.comment_link, cn.display_name_link,
                               cn.long_name_link, cn.offset});
  }
  order.insert(order.end(), {cg.offset, dg.offset});
  uint32_t expected = dg.data_link + 1 + 4;
  for (uint32_t at : order) {
    ASSERT_EQ(at, expected);
    expected += r.blocks.at(at).size;
  }
  EXPECT_EQ(r.bytes.size(), expected);
  EXPECT_EQ(r.header.first_dg_link, dg.offset);
  EXPECT_EQ(cg.channels[0].name, "first");
  EXPECT_EQ(cg.channels[0].next_link, cg.channels[1].offset);
  EXPECT_EQ(cg.channels[1].comment, "comment 2");
  EXPECT_EQ(cg.channels[1].long_name, "long name");
  EXPECT_EQ(cg.channels[1].display_name, "shown");
  EXPECT_EQ(cg.channels[0].conversion->params.at(1), 2.0);
  EXPECT_EQ(cg.record_size, 4);
  EXPECT_EQ(cg.cn_count, 2);
  EXPECT_EQ(cg.record_count, 0u);  // one appended record is written as count 0
  EXPECT_EQ(r.bytes[dg.data_link], 1);
  EXPECT_EQ(r.bytes[dg.data_link + 1], 7);
}

}  // namespace

namespace {

// Writing stays within the records, closing never leaves a channel behind, and a grown record
// reaches every handle on its channel group.
TEST_F(GroupApi, RecordsAreWrittenOnlyWhereThereAreRecords) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group();
  auto& full = dg.add_channel_group(2);
  full.add_channel("v", 0, 16, 0);
  for (int k = 0; k < 3; ++k) full.add_record();
  f.add_data_group().add_channel_group(2).add_channel("empty", 0, 16, 0);
  const auto in = write(mdftest::build(f));
  const auto before = mdftest::load_file(in);
  mdf_file* file = open(in, MDF_OPEN_MODIFY);
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfGrpOpen(&g, file, 2, MDF_OPEN_MODIFY), 0);
  EXPECT_EQ(mdfGrpWrite(g), MDF_END_OF_GROUP);  // an empty group has no record to write
  ASSERT_EQ(mdfGrpClose(g), 0);
  // One Write per record up to the last: the close stores the last record and finds no
  // record to move on to, which ends neither the channel nor the group.
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, MDF_OPEN_MODIFY), 0);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnOpen(&ch, g, 1), 0);
  for (uint64_t v : {11, 22, 33}) ASSERT_EQ(mdfChnWriteHexInt(ch, v), 0);
  ASSERT_EQ(mdfGrpClose(g), 0);
  EXPECT_EQ(korvel::state().open_channels, nullptr);  // the channel went with its group
  mdfClose();
  mdfOpen(nullptr);
  const auto r = mdftest::read_file(in);
  ASSERT_TRUE(r.ok()) << r.error_text();
  const auto& records = r.data_groups[0].channel_groups[0].records;
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(mdftest::get_bits(records[k], 0, 16), 11 * (k + 1));
  // Besides the records only the header and the two channel groups were rewritten in place.
  EXPECT_EQ(r.bytes.size(), before.size());
}

TEST_F(GroupApi, AGrownRecordReachesEveryHandleOnItsChannelGroup) {
  const auto p = (dir_ / "grow.mdf").string();
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, p.c_str(), MDF_OPEN_CREATE), 0);
  mdf_group* made = nullptr;
  ASSERT_EQ(mdfGrpOpen(&made, file, 1, MDF_OPEN_CREATE), 0);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, made, 0, 8, MDF_DT_UINT, "small"), 0);
  for (int k = 0; k < 2; ++k) ASSERT_EQ(mdfGrpWriteAppend(made), 0);
  ASSERT_EQ(mdfGrpClose(made), 0);
  mdf_group *a = nullptr, *b = nullptr;
  ASSERT_EQ(mdfGrpOpen(&a, file, 1, 0), 0);
  ASSERT_EQ(mdfGrpOpen(&b, file, 1, 0), 0);
  ASSERT_EQ(mdfChnCreate(&ch, a, 0, 64, MDF_DT_UINT, "wide"), 0);  // in memory only
  uint8_t* data = nullptr;
  EXPECT_EQ(mdfGrpBuffer(&data, b), 9 + 24);
  channelnode* through_b = nullptr;
  ASSERT_EQ(mdfChnOpenName(&through_b, b, "wide"), 0);
  ASSERT_EQ(mdfChnSetHexInt(through_b, 0x0102030405060708u), 0);  // bytes 1..8 of b's record
  uint64_t back = 0;
  EXPECT_EQ(mdfChnGetHexInt(&back, through_b, 0), 0);
  EXPECT_EQ(back, 0x0102030405060708u);
  EXPECT_EQ(mdfGrpSeek(b, 0, MDF_SEEK_ABS), 0);
}

// Appended records collect in the file's write buffer (more of them here than it holds): a
// record rewritten between appends lands in its place, and another group handle, the
// reopened file and the bytes on disk all see the same records.
TEST_F(GroupApi, BufferedAppendsAndRewritesReachEveryReader) {
  constexpr uint32_t kRecords = 240000;  // 5 bytes each with the identifier: 1.2 MB
  struct Rewrite {
    uint32_t after;   // records appended before it
    uint32_t record;  // the record rewritten
  };
  const Rewrite rewrites[] = {{1, 0}, {100, 99}, {100, 3}, {230000, 10}, {230000, 229999}};
  const auto p = (dir_ / "appended.mdf").string();
  mdf_file* file = open(p, MDF_OPEN_CREATE);
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), 0);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, g, MDF_CHN_DATA, 32, MDF_DT_UINT, "n"), 0);
  std::vector<uint32_t> expected;
  for (uint32_t k = 0; k < kRecords; ++k) {
    for (const auto& w : rewrites) {
      if (w.after != k) continue;
      ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(w.record), MDF_SEEK_ABS), 0);
      ASSERT_EQ(mdfChnSetPhy(ch, 7000000.0 + w.record), 0);
      ASSERT_EQ(mdfGrpWrite(g), 0);
      expected[w.record] = 7000000 + w.record;
    }
    ASSERT_EQ(mdfChnSetPhy(ch, k), 0);
    ASSERT_EQ(mdfGrpWriteAppend(g), 0);
    expected.push_back(k);
  }
  const auto value = [](const std::vector<uint8_t>& bytes) {
    uint32_t v = 0;
    std::memcpy(&v, bytes.data(), 4);  // little-endian, as the tests run
    return v;
  };
  const auto read_all = [&](mdf_group* r, uint32_t count) {
    for (uint32_t k = 0; k < count; ++k) {
      ASSERT_EQ(mdfGrpSeek(r, static_cast<int32_t>(k), MDF_SEEK_ABS), 0);
      ASSERT_EQ(value(current(r)), expected[k]) << k;
    }
  };
  mdf_group* reader = nullptr;
  ASSERT_EQ(mdfGrpOpen(&reader, file, 1, MDF_OPEN_READ), 0);
  read_all(reader, kRecords);
  ASSERT_EQ(mdfFileClose(file), 0);
  // A closed created group declares one record less than it was given.
  file = open(p);
  ASSERT_EQ(mdfGrpOpen(&reader, file, 1, MDF_OPEN_READ), 0);
  read_all(reader, kRecords - 1);
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto r = mdftest::read_file(p);
  ASSERT_TRUE(r.ok()) << r.error_text();
  const auto& records = r.data_groups.at(0).channel_groups.at(0).records;
  ASSERT_EQ(records.size(), kRecords - 1);
  for (uint32_t k = 0; k < kRecords - 1; ++k) ASSERT_EQ(value(records[k]), expected[k]) << k;
  EXPECT_EQ(r.bytes[r.data_groups[0].data_link + 5 * (kRecords - 1)], 1);  // the last id byte
}

}  // namespace
