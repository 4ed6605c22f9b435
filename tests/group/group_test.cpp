// The group functions through the C interface: records of sorted and unsorted groups, seeks,
// created groups and what their close writes, rewrites, deletes and damaged data sections.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

using GroupApi = mdftest::Session;
using mdftest::open_group;
using Bytes = std::vector<uint8_t>;

// The current record's data bytes.
Bytes current(mdf_group* g) {
  uint8_t* data = nullptr;
  const int32_t size = mdfGrpBuffer(&data, g);
  return {data, data + (size - 24)};
}

// Record k of channel group c: its bytes say which record it is.
Bytes record_bytes(size_t c, size_t k, size_t size) {
  Bytes r(size);
  for (size_t i = 0; i < size; ++i) r[i] = static_cast<uint8_t>(c * 64 + k * 3 + i);
  return r;
}

// One data group holding three channel groups of 5, 3 and 4 records, interleaved (ids 1 or 2),
// or one channel group of 3 records (ids 0).
mdftest::FileModel interleaved(uint16_t ids) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(ids);
  const size_t sizes[] = {4, 2, 7}, counts[] = {5, 3, 4};
  for (size_t c = 0; c < (ids == 0 ? 1u : 3u); ++c) {
    auto& cg = dg.add_channel_group(static_cast<uint16_t>(sizes[c]), static_cast<uint16_t>(c + 1));
    cg.add_channel(std::string(1, static_cast<char>('a' + c)), 0, 8, 0);
    for (size_t k = 0; k < (ids == 0 ? 3u : counts[c]); ++k)
      cg.records.push_back(record_bytes(c, k, sizes[c]));
  }
  if (ids != 0) dg.order = {0, 1, 0, 2, 2, 1, 0, 0, 2, 1, 2, 0};
  return f;
}

// Records in order by relative seeks; a seek to the current record reads it again from the
// file in an unsorted group only; seeks beyond the ends leave the cursor. Then a record
// rewritten in modify mode changes exactly its bytes.
TEST_F(GroupApi, RecordsInOrderRereadsSeeksBeyondTheEndsAndRewrites) {
  for (uint16_t ids : {uint16_t{0}, uint16_t{1}, uint16_t{2}}) {
    SCOPED_TRACE(ids);
    restart();
    const auto f = interleaved(ids);
    const auto& cgs = f.data_groups[0].channel_groups;
    const auto built = mdftest::build(f);
    const auto in = write(built);
    mdf_file* file = open_file(in);
    uint32_t channels = 0;
    EXPECT_EQ(mdfFileChannels(&channels, file), 0);
    EXPECT_EQ(std::make_pair(mdfFileIsSort(file), channels),
              std::make_pair(int16_t(ids == 0 ? 0 : MDF_NOT_SORTED), uint32_t(cgs.size())));
    for (uint16_t c = 0; c < cgs.size(); ++c) {
      mdf_group* g = open_group(file, c + 1);
      uint32_t count = 0;
      EXPECT_EQ(mdfGrpRecords(&count, g), 0);
      ASSERT_EQ(count, cgs[c].records.size());
      for (uint32_t k = 0; k < count; ++k) {
        ASSERT_EQ(mdfGrpSeek(g, k == 0 ? 0 : 1, k == 0 ? MDF_SEEK_ABS : MDF_SEEK_REL), 0);
        EXPECT_EQ(current(g), cgs[c].records[k]) << "record " << k;
      }
      EXPECT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_REL), MDF_END_OF_GROUP);
    }
    mdf_group* g = open_group(file, 1);
    ASSERT_EQ(mdfGrpSeek(g, 2, MDF_SEEK_ABS), 0);
    uint8_t* data = nullptr;
    mdfGrpBuffer(&data, g);
    data[0] ^= 0xFF;  // a change in memory only
    ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_REL), 0);
    EXPECT_EQ(data[0], record_bytes(0, 2, 4)[0] ^ (ids == 0 ? 0xFF : 0));
    const std::tuple<int32_t, uint16_t, int16_t> cases[] = {
        {-3, MDF_SEEK_REL, 1}, {-100, MDF_SEEK_REL, 1}, {3, MDF_SEEK_REL, 1},
        {5, MDF_SEEK_ABS, 1},  {-1, MDF_SEEK_ABS, 1},   {0, 7, MDF_ERR_SEEK_MODE}};
    for (const auto& [position, mode, status] : cases) {
      EXPECT_EQ(mdfGrpSeek(g, position, mode), status) << position;
      uint32_t at = 0;
      mdfGrpTell(&at, g);
      EXPECT_TRUE(status == MDF_ERR_SEEK_MODE || at == 2u) << position;
    }
    restart();  // the refused seek mode is sticky
    file = open_file(in, MDF_OPEN_MODIFY);
    g = open_group(file, 1, MDF_OPEN_MODIFY);
    ASSERT_EQ(mdfGrpSeek(g, 2, MDF_SEEK_ABS), 0);
    mdfGrpBuffer(&data, g);
    const uint8_t fresh[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    std::memcpy(data, fresh, 4);
    ASSERT_EQ(mdfGrpWrite(g), 0);
    ASSERT_EQ(mdfFileClose(file), 0);
    const auto after = mdftest::load_file(in);
    auto expected = built.bytes;
    const uint32_t at = built.data_groups[0].channel_groups[0].records[2] + (ids != 0 ? 1 : 0);
    std::memcpy(expected.data() + at, fresh, 4);
    ASSERT_GE(after.size(), expected.size());
    // Closing in modify mode rewrote the CG and the header in place; nothing else moved.
    const auto cg_at = built.data_groups[0].channel_groups[0].offset;
    for (size_t i = 0; i < expected.size(); ++i) {
      const bool rewritten = (i >= 64 && i < 64 + 208u) || (i >= cg_at && i < cg_at + 26u);
      ASSERT_TRUE(rewritten || after[i] == expected[i]) << "byte " << i;
    }
  }
}

// Group numbers that do not exist are logged, not sticky; the refusals are negative and so
// sticky: every case starts afresh.
TEST_F(GroupApi, Refusals) {
  const auto in = write(interleaved(1));
  mdf_file* file = open_file(in);
  mdf_group* g = reinterpret_cast<mdf_group*>(8);
  EXPECT_EQ(mdfGrpOpen(&g, file, 4, 0), MDF_GROUP_NOT_FOUND);
  EXPECT_EQ(g, nullptr);
  EXPECT_EQ(mdfGrpOpen(&g, file, 0, 0), MDF_GROUP_NOT_FOUND);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  EXPECT_NE(mdftest::log_text().find("[KORVEL-ERROR] group not found (n=0)\n"), std::string::npos);
  const auto create = [&](mdf_file* f) { return open_group(f, 1, MDF_OPEN_CREATE); };
  const std::tuple<const char*, uint16_t, std::function<int16_t(mdf_file*)>, int16_t> cases[] = {
      {"modify on a read file", 0, [&](mdf_file* f) { return mdfGrpOpen(&g, f, 1, 1); },
       MDF_ERR_OPEN_MODE},
      {"mode 3", 0, [&](mdf_file* f) { return mdfGrpOpen(&g, f, 1, 3); }, MDF_ERR_OPEN_MODE},
      {"write in mode 0", 0, [&](mdf_file* f) { return mdfGrpWrite(open_group(f, 1)); },
       MDF_ERR_OPEN_MODE},
      {"append in mode 0", 0, [&](mdf_file* f) { return mdfGrpWriteAppend(open_group(f, 1)); },
       MDF_ERR_OPEN_MODE},
      {"delete in a read file", 0, [&](mdf_file* f) { return mdfGrpDelete(f, 1); },
       MDF_ERR_OPEN_MODE},
      {"two created groups at once", MDF_OPEN_CREATE,
       [&](mdf_file* f) {
         EXPECT_EQ(mdfGrpWriteAppend(create(f)), 0);
         return mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE);
       },
       MDF_ERR_TWO_CREATES},
  };
  for (const auto& [what, mode, call, status] : cases) {
    SCOPED_TRACE(what);
    restart();
    EXPECT_EQ(call(open_file(mode == 0 ? in : path("new.mdf"), mode)), status);
    EXPECT_EQ(mdfGetErrorCode(), status);
  }
}

TEST_F(GroupApi, GroupsOfAFileInOrderOfOpening) {
  mdf_file* file = open_file(write(interleaved(1)));
  mdf_file* other = open_file(write(interleaved(2), "other.mdf"));
  mdf_group* it = nullptr;
  EXPECT_EQ(mdfGrpGetFirst(&it, file), MDF_GRP_NOT_FOUND);
  mdf_group *a = open_group(file, 3), *b = open_group(other, 1), *c = open_group(file, 1);
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

// Damaged data sections: group 1 reads records by seeks up to the damage, which gives its
// status (negative: sticky); an array read in a fresh session ends at the same record with the
// same status.
TEST_F(GroupApi, DamagedDataSections) {
  using Built = mdftest::Built;
  // Damage, record ids, the records readable, the status of the next.
  using Damage = std::function<void(Built&)>;
  const std::tuple<const char*, uint16_t, Damage, uint32_t, int16_t> cases[] = {
      {"unknown record id", 1,
       [](Built& b) { b.patch_u8(b.data_groups[0].channel_groups[1].records[0], 9); }, 1,
       MDF_ERR_FORMAT},
      {"records cut off", 1, [](Built& b) { b.truncate(b.size() - 3); }, 4, MDF_ERR_FORMAT},
      {"unknown record id, two ids", 2,
       [](Built& b) { b.patch_u8(b.data_groups[0].channel_groups[1].records[0], 9); }, 1,
       MDF_ERR_FORMAT},
      {"last record without its trailing id", 2, [](Built& b) { b.truncate(b.size() - 1); }, 4,
       MDF_ERR_FORMAT},
      {"records cut off, sorted: the group ends before", 0,
       [](Built& b) { b.truncate(b.size() - 1); }, 2, MDF_END_OF_GROUP},
      {"more records declared than present", 1,
       [](Built& b) {
         b.patch_u32(b.data_groups[0].channel_groups[0].offset + mdftest::off::cg_record_count, 9);
       },
       5, MDF_ERR_FORMAT},
      {"data position beyond the end: no records", 1,
       [](Built& b) { b.patch_u32(b.data_groups[0].offset + mdftest::off::dg_data, 0x7FFFFFF0u); },
       0, MDF_END_OF_GROUP},
  };
  for (const auto& [what, ids, damage, readable, status] : cases) {
    SCOPED_TRACE(what);
    restart();
    auto f = interleaved(ids);
    f.data_at_end = true;
    auto built = mdftest::build(f);
    damage(built);
    const auto in = write(built);
    mdf_group* g = open_group(open_file(in), 1);
    uint32_t k = 0;
    int16_t st = 0;
    while ((st = mdfGrpSeek(g, static_cast<int32_t>(k), MDF_SEEK_ABS)) == 0) ++k;
    EXPECT_EQ(std::make_tuple(k, st, mdfGetErrorCode()),
              std::make_tuple(readable, status, int16_t(status < 0 ? status : 0)));
    restart();
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfGrpChnOpen(&ch, &g, open_file(in), 1, 0), 0);
    std::vector<double> v(9);
    uint32_t done = 99;
    EXPECT_EQ(mdfChnReadPhyArray(v.data(), &done, ch, 0, 9), status);
    ASSERT_EQ(done, readable);
    for (uint32_t i = 0; i < done; ++i) EXPECT_EQ(v[i], 3.0 * i) << i;
  }
}

// Closing a created group writes its record count (one less than appended) and appends, from
// the last channel to the first, each channel's conversion, comment, display name and long name
// and then the channel; then the channel group and the data group, and rewrites the header in
// place. A group created later becomes group 1. Its appended records collect in the file's
// write buffer (more of them than it holds): a record rewritten between appends lands in its
// place, and another group handle and the reopened file see the same records.
TEST_F(GroupApi, CreatedGroupsAndWhatTheirCloseWrites) {
  constexpr uint32_t kRecords = 240000;  // 5 bytes each with the identifier: 1.2 MB
  // Records appended before a rewrite, the record rewritten.
  const std::pair<uint32_t, uint32_t> rewrites[] = {
      {1, 0}, {100, 99}, {100, 3}, {230000, 10}, {230000, 229999}};
  const auto p = path("new.mdf");
  mdf_file* file = open_file(p, MDF_OPEN_CREATE);
  mdf_group* g = open_group(file, 1, MDF_OPEN_CREATE);
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
  g = open_group(file, 7, MDF_OPEN_CREATE);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, g, MDF_CHN_DATA, 32, MDF_DT_UINT, "n"), 0);
  std::vector<uint32_t> expected;
  for (uint32_t k = 0; k < kRecords; ++k) {
    for (const auto& [after, record] : rewrites) {
      if (after != k) continue;
      ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(record), MDF_SEEK_ABS), 0);
      ASSERT_EQ(mdfChnSetPhy(ch, 7000000.0 + record), 0);
      ASSERT_EQ(mdfGrpWrite(g), 0);
      expected[record] = 7000000 + record;
    }
    ASSERT_EQ(mdfChnSetPhy(ch, k), 0);
    ASSERT_EQ(mdfGrpWriteAppend(g), 0);
    expected.push_back(k);
  }
  const auto read_all = [&](mdf_group* reader, uint32_t records) {
    for (uint32_t k = 0; k < records; ++k) {
      ASSERT_EQ(mdfGrpSeek(reader, static_cast<int32_t>(k), MDF_SEEK_ABS), 0);
      ASSERT_EQ(mdftest::get_bits(current(reader), 0, 32), expected[k]) << k;
    }
  };
  // While it is created the group counts every appended record; the closed earlier group, now
  // group 2, declares one less than its one record.
  uint32_t count = 0, earlier_count = 9;
  uint16_t groups = 0;
  EXPECT_EQ(mdfGrpRecords(&count, g), 0);
  EXPECT_EQ(mdfFileGroups(&groups, file), 0);
  EXPECT_EQ(mdfGrpRecords(&earlier_count, open_group(file, 2)), 0);
  EXPECT_EQ(std::make_tuple(count, groups, earlier_count),
            std::make_tuple(kRecords, uint16_t{2}, 0u));
  read_all(open_group(file, 1), kRecords);
  ASSERT_EQ(mdfFileClose(file), 0);
  read_all(open_group(open_file(p), 1), kRecords - 1);

  const auto r = mdftest::read_file(p);
  ASSERT_TRUE(r.ok()) << r.error_text();
  ASSERT_EQ(r.data_groups.size(), 2u);
  const auto& dg = r.data_groups[1];
  const auto& cg = dg.channel_groups.at(0);
  const auto& cn = cg.channels;
  ASSERT_EQ(cn.size(), 2u);
  // Blocks in the order they were appended, behind the one record (identifier + 4 bytes).
  std::vector<uint32_t> order;
  for (int i = 1; i >= 0; --i) {
    const auto& c = cn[static_cast<size_t>(i)];
    order.insert(order.end(), {c.conversion_link, c.comment_link, c.display_name_link,
                               c.long_name_link, c.offset});
  }
  order.insert(order.end(), {cg.offset, dg.offset});
  uint32_t behind = dg.data_link + 1 + 4;
  for (uint32_t at : order) {
    ASSERT_EQ(at, behind);
    behind += r.blocks.at(at).size;
  }
  EXPECT_EQ(std::make_tuple(cn[0].name, cn[0].next_link, cn[1].comment, cn[1].long_name,
                            cn[1].display_name),
            std::make_tuple("first", cn[1].offset, "comment 2", "long name", "shown"));
  EXPECT_EQ(std::make_tuple(cn[0].conversion->params.at(1), cg.record_size, cg.cn_count,
                            cg.record_count, r.bytes[dg.data_link], r.bytes[dg.data_link + 1]),
            std::make_tuple(2.0, 4, 2, 0u, 1, 7));
  // The later group: all its records (first and last identifier bytes) behind the first
  // group's blocks, then its channel, channel group and data group.
  const auto& newest = r.data_groups[0];
  const auto& cg2 = newest.channel_groups.at(0);
  const uint32_t data = newest.data_link, end = data + 5 * kRecords;
  EXPECT_EQ(std::make_tuple(r.header.dg_count, cg2.record_count, cg2.record_id, newest.record_ids),
            std::make_tuple(2, kRecords - 1, 1, 1));
  EXPECT_EQ(std::make_tuple(r.bytes[data], r.bytes[end - 5]), std::make_tuple(1, 1));
  const uint32_t cn2 = cg2.channels.at(0).offset;
  EXPECT_EQ(std::make_tuple(data, cn2, cg2.offset, newest.offset, r.bytes.size()),
            std::make_tuple(behind, end, cn2 + r.blocks.at(cn2).size, cg2.offset + 26,
                            newest.offset + 28u));
  EXPECT_EQ(std::make_pair(r.header.first_dg_link, newest.next_link),
            std::make_pair(newest.offset, dg.offset));
}

// In modify mode an empty group has no record to seek or write, and a buffer of its record
// size. One channel Write per record up to the last: the close stores the last record and finds
// no record to move on to, which ends neither the channel nor the group; closing never leaves a
// channel behind. An open group is not deleted; deleting the middle channel group of a data
// group and the only one of another leaves the rest. The file keeps its size.
TEST_F(GroupApi, ModifyModeWritesRecordsAndDeletesGroups) {
  auto f = interleaved(1);
  f.add_data_group().add_channel_group(2).add_channel("empty", 0, 16, 0);
  const auto built = mdftest::build(f);
  const auto in = write(built);
  mdf_file* file = open_file(in, MDF_OPEN_MODIFY);
  mdf_group* g = open_group(file, 4, MDF_OPEN_MODIFY);
  uint32_t count = 9;
  EXPECT_EQ(mdfGrpRecords(&count, g), 0);
  EXPECT_EQ(count, 0u);
  for (int32_t p : {0, 1, -1}) EXPECT_EQ(mdfGrpSeek(g, p, MDF_SEEK_ABS), MDF_END_OF_GROUP);
  EXPECT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_REL), MDF_END_OF_GROUP);
  EXPECT_EQ(mdfGrpBuffer(nullptr, g), 2 + 24);
  EXPECT_EQ(mdfGrpWrite(g), MDF_END_OF_GROUP);
  EXPECT_EQ(mdfGrpDelete(file, 4), MDF_GROUP_IS_OPEN);
  EXPECT_EQ(mdfGrpDelete(file, 9), MDF_GROUP_NOT_FOUND);
  ASSERT_EQ(mdfGrpClose(g), 0);
  g = open_group(file, 1, MDF_OPEN_MODIFY);
  channelnode* ch = mdftest::open_channel(g, 1);
  for (uint64_t v : {11, 22, 33, 44, 55}) ASSERT_EQ(mdfChnWriteHexInt(ch, v), 0);
  ASSERT_EQ(mdfGrpClose(g), 0);
  EXPECT_EQ(korvel::state().open_channels, nullptr);  // the channel went with its group
  EXPECT_EQ(mdfGrpDelete(file, 2), 0);  // the middle channel group of the first data group
  EXPECT_EQ(mdfGrpDelete(file, 3), 0);  // the only channel group of the second data group
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto r = mdftest::read_file(in);
  ASSERT_TRUE(r.ok()) << r.error_text();
  ASSERT_EQ(r.data_groups.size(), 1u);
  const auto& cgs = r.data_groups[0].channel_groups;
  ASSERT_EQ(cgs.size(), 2u);
  EXPECT_EQ(std::make_tuple(r.header.dg_count, r.data_groups[0].cg_count, cgs[0].record_id,
                            cgs[1].record_id, r.bytes.size()),
            std::make_tuple(1, 2, 1, 3, built.bytes.size()));
  // Behind each identifier byte (the reader stops at the first record of the deleted group).
  for (size_t k = 0; k < 5; ++k) {
    EXPECT_EQ(r.bytes[built.data_groups[0].channel_groups[0].records[k] + 1], 11 * (k + 1)) << k;
  }
}

// A channel created through one group handle widens the record of every handle on its channel
// group: set through another handle, its eight bytes stay inside that handle's record.
TEST_F(GroupApi, AGrownRecordReachesEveryHandleOnItsChannelGroup) {
  mdf_file* file = open_file(path("grow.mdf"), MDF_OPEN_CREATE);
  mdf_group* made = open_group(file, 1, MDF_OPEN_CREATE);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, made, 0, 8, MDF_DT_UINT, "small"), 0);
  for (int k = 0; k < 2; ++k) ASSERT_EQ(mdfGrpWriteAppend(made), 0);
  ASSERT_EQ(mdfGrpClose(made), 0);
  mdf_group *a = open_group(file, 1), *b = open_group(file, 1);
  ASSERT_EQ(mdfChnCreate(&ch, a, 0, 64, MDF_DT_UINT, "wide"), 0);  // in memory only
  EXPECT_EQ(mdfGrpBuffer(nullptr, b), 9 + 24);
  channelnode* through_b = nullptr;
  ASSERT_EQ(mdfChnOpenName(&through_b, b, "wide"), 0);
  ASSERT_EQ(mdfChnSetHexInt(through_b, 0x0102030405060708u), 0);  // bytes 1..8 of b's record
  uint64_t back = 0;
  EXPECT_EQ(mdfChnGetHexInt(&back, through_b, 0), 0);
  EXPECT_EQ(back, 0x0102030405060708u);
  EXPECT_EQ(mdfGrpSeek(b, 0, MDF_SEEK_ABS), 0);
}

}  // namespace
