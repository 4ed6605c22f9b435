// Group time, comment and trigger functions through the C interface.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <limits>
#include <optional>
#include <tuple>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

const double kTimes[] = {0.0, 0.5, 1.0, 2.0, 2.0, 4.0};

class GroupTime : public mdftest::Session {
 protected:
  std::string file() const { return path("in.mdf"); }
  static uint32_t tell(mdf_group* g) {
    uint32_t at = 99;
    mdfGrpTell(&at, g);
    return at;
  }
  // A time search from record `start`: its status and the record it reaches.
  static std::pair<int, uint32_t> seek(mdf_group* g, double start, double time, double mode) {
    EXPECT_EQ(mdfGrpSeek(g, static_cast<int32_t>(static_cast<uint32_t>(start)), MDF_SEEK_ABS), 0);
    const int status = mdfGrpSeekTime(g, time, static_cast<uint16_t>(mode));
    return {status, tell(g)};
  }
};

// A channel group whose time channel (double) holds kTimes; with `unsorted` its records
// interleave with those of a second channel group.
mdftest::FileModel timed(bool unsorted) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(unsorted ? 1 : 0);
  for (uint16_t c = 1; c <= (unsorted ? 2 : 1); ++c) {
    auto& cg = dg.add_channel_group(8, c);
    cg.add_channel("t", 0, 64, 3, MDF_CHN_TIME);
    for (double t : kTimes) mdftest::put_f64(cg.add_record(), 0, c == 1 ? t : -5.0);
  }
  return f;
}

TEST_F(GroupTime, SeekTimeTable) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double R = MDF_SEEK_REL;
  // {unsorted, start record, time, mode, status, record}
  // clang-format off
  const double cases[][6] = {
      // Between records, every mode; nearest at equal distance takes the later record.
      {0, 0, 0.75, 0, 0, 2}, {0, 0, 0.75, 1, 2, 1}, {0, 0, 0.75, 2, 0, 1}, {0, 0, 0.75, 3, 0, 1},
      {0, 0, 0.75, 4, 0, 2}, {0, 0, 0.75, 5, 0, 2}, {0, 0, 0.75, 6, 0, 1}, {0, 0, 0.75, 7, 0, 1},
      {0, 0, 2.9, 0, 0, 4}, {0, 0, 3.0, 0, 0, 5}, {0, 0, 3.0, 3, 0, 4},
      // Exact times; before the first or after the last record.
      {0, 0, 0.5, 0, 0, 1}, {0, 0, 0.5, 1, 0, 1}, {0, 0, 0.5, 2, 0, 0}, {0, 0, 0.5, 4, 0, 2},
      {0, 5, 2.0, 4, 0, 5}, {0, 0, 4.0, 4, 1, 5}, {0, 2, 0.0, 2, 1, 0},
      {0, 0, -1.0, 0, 1, 0}, {0, 3, -1.0, 5, 1, 0}, {0, 0, -1.0, 1, 1, 0},
      {0, 0, 9.0, 0, 0, 5}, {0, 0, 9.0, 3, 0, 5}, {0, 0, 9.0, 4, 2, 5}, {0, 0, 9.0, 5, 2, 5},
      {0, 0, 9.0, 1, 2, 5},
      // Bounded by the current record: from 1 the first 2.0 is found, from 0 the second.
      {0, 1, 2.0, 0, 0, 3}, {0, 0, 2.0, 0, 0, 4},
      // Relative; a relative 0 returns at once (a search would find record 3). NaN is exact.
      {0, 2, 1.0, R + 5, 0, 3}, {0, 3, -1.25, R, 0, 2}, {0, 4, 0.0, R + 1, 0, 4},
      {0, 0, nan, 1, 0, 2}, {0, 0, nan, 4, 0, 3},
      // Unsorted: the first record at or after the time, whatever the low bits say.
      {1, 0, 0.75, 0, 0, 2}, {1, 0, 0.75, 1, 0, 2}, {1, 0, 0.5, 2, 0, 1}, {1, 0, -1.0, 4, 0, 0},
      {1, 0, 9.0, 0, 1, 5}, {1, 4, 0.75, 3, 0, 2}, {1, 2, 1.0, R, 0, 3}, {1, 4, 0.0, R, 0, 4},
      {1, 3, 2.0, 1, 0, 3}, {1, 2, nan, 0, 0, 2},
  };
  // clang-format on
  // Trigger blocks counting n events: none (sorted), 400 of which the block holds one
  // (unsorted), zero (sorted).
  for (int n : {-1, 400, 0}) {
    const bool unsorted = n == 400;
    auto f = timed(unsorted);
    if (n >= 0) f.data_groups[0].trigger = mdftest::Trigger{"note", {}, uint16_t(n), {}};
    if (n > 0) f.data_groups[0].trigger->events.push_back({1, 2, 3});
    mdf_group* g = open(write(f), MDF_OPEN_READ);
    for (const auto& [u, start, time, mode, status, at] : cases) {
      if ((u != 0) != unsorted) continue;
      SCOPED_TRACE(testing::Message() << u << " " << start << " " << time << " " << mode);
      EXPECT_EQ(seek(g, start, time, mode), std::make_pair(int(status), uint32_t(at)));
    }
    // Without a trigger block a refusal that is not sticky; every counted event can be read,
    // those the block lacks as zeros.
    const char* comment = "x";
    uint16_t count = 99;
    const void* events = &count;
    EXPECT_EQ(mdfGrpGetTrigger(g, &comment, &count, &events), n < 0 ? MDF_NO_TRIGGER : 0);
    EXPECT_EQ(std::make_tuple(count, events == nullptr), std::make_tuple(std::max(n, 0), n < 0));
    EXPECT_STREQ(comment, n < 0 ? nullptr : "note");
    std::vector<double> all(3u * count);
    if (count > 0) std::memcpy(all.data(), events, all.size() * sizeof(double));
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i], i < 3 ? double(i + 1) : 0.0) << i;
    EXPECT_EQ(mdfGetErrorCode(), 0);
    restart();
  }
}

// Raw 0..3 through an interpolating table (10, 20, 25, 30), seeking and setting a time; at
// record 0 the current time counts as 0.0, so seeking 0.0 there returns at once.
TEST_F(GroupTime, TimeThroughAnInterpolatingTable) {
  mdftest::FileModel f;
  auto& cg = f.add_data_group().add_channel_group(4);
  auto& t = cg.add_channel("t", 0, 32, 0, MDF_CHN_TIME);
  t.conversion = mdftest::table(true, {{0, 10}, {1, 20}, {3, 30}});
  for (uint32_t k = 0; k < 4; ++k) mdftest::put_bits(cg.add_record(), 0, 32, k);
  mdf_group* g = open(write(f), MDF_OPEN_READ);
  EXPECT_EQ(std::make_pair(mdfGrpSeekTime(g, 0.0, MDF_SEEK_TIME_EXACT), tell(g)),
            std::make_pair(int16_t{0}, 0u));
  EXPECT_EQ(seek(g, 0, 24.0, MDF_SEEK_TIME_NEAREST), std::make_pair(0, 2u));
  EXPECT_EQ(seek(g, 0, 25.0, MDF_SEEK_TIME_EXACT), std::make_pair(0, 2u));
  uint8_t* data = nullptr;
  EXPECT_EQ(std::make_pair(mdfGrpSetTime(g, 20.0), mdfGrpBuffer(&data, g)),
            std::make_pair(int16_t{0}, 24 + 4));
  EXPECT_EQ(mdftest::get_bits({data, 4}, 0, 32), 1u);
}

// A created group with times, comment and trigger; then the same file modified: times reach
// the file through appends and writes, texts and triggers at close, and replaced blocks stay.
TEST_F(GroupTime, TimesCommentsAndTriggersReachTheFile) {
  mdf_group* g = open(file(), MDF_OPEN_CREATE);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, g, MDF_CHN_TIME, 16, MDF_DT_UINT, "time"), 0);
  ASSERT_EQ(mdfChnSetFormLin(ch, "s", 1.0, 0.25), 0);
  for (int k = 0; k < 5; ++k) {  // raw 0, 3, 6, 9, 12; written as four records
    ASSERT_EQ(mdfGrpSetTime(g, 1.0 + 0.25 * (k * 3)), 0);
    ASSERT_EQ(mdfGrpWriteAppend(g), 0);
  }
  const double events[] = {1.5, 0.25, 0.75, 3.0, 0.5, 1.0};
  for (const char* text : {"replaced", "group note", static_cast<const char*>(nullptr)})
    ASSERT_EQ(mdfGrpSetText(g, text), 0);
  ASSERT_EQ(mdfGrpSetTrigger(g, "replaced", 1, events), 0);
  ASSERT_EQ(mdfGrpSetTrigger(g, "trigger note", 2, events), 0);
  restart();

  const auto r = mdftest::read_file(file());
  ASSERT_TRUE(r.ok()) << r.error_text();
  const auto& dg = r.data_groups.at(0);
  const auto& cg = dg.channel_groups.at(0);
  const auto& tr = dg.trigger.value();
  EXPECT_EQ(std::make_tuple(cg.comment, tr.comment), std::make_tuple("group note", "trigger note"));
  EXPECT_EQ(tr.events, (std::vector<mdftest::TriggerEvent>{{1.5, 0.25, 0.75}, {3.0, 0.5, 1.0}}));
  EXPECT_EQ(tr.block_size, 2 * 24 + 34);  // with one spare event entry, zero
  EXPECT_EQ(std::count(&r.bytes.at(tr.offset + 58), &r.bytes.at(tr.offset + 81) + 1, 0), 24);
  // Only the blocks in use were written: CG comment, CG, TR comment, TR, DG, end of file.
  const uint32_t order[] = {cg.comment_link, cg.offset, tr.comment_link, tr.offset, dg.offset};
  for (size_t k = 0; k + 1 < std::size(order); ++k)
    EXPECT_EQ(order[k] + r.blocks.at(order[k]).size, order[k + 1]);
  EXPECT_EQ(dg.offset + 28u, r.bytes.size());

  g = open(file(), MDF_OPEN_MODIFY);
  ASSERT_EQ(mdfGrpSeekTime(g, 2.5, MDF_SEEK_TIME_EXACT), 0);  // raw 6
  ASSERT_EQ(tell(g), 2u);
  ASSERT_EQ(mdfGrpSetTime(g, 3.0), 0);  // raw 8, in memory only
  EXPECT_EQ(mdftest::load_file(file()).at(dg.data_link + 2 * 3 + 1), 6);
  ASSERT_EQ(mdfGrpWrite(g), 0);
  ASSERT_EQ(mdfGrpSetText(g, ""), 0);
  restart();
  const auto r2 = mdftest::read_file(file());
  ASSERT_TRUE(r2.ok()) << r2.error_text();
  const auto& modified = r2.data_groups.at(0).channel_groups.at(0);
  EXPECT_EQ(modified.comment, std::nullopt);
  const auto old_comment = r.bytes.begin() + cg.comment_link;  // left where it was
  EXPECT_TRUE(r2.bytes.size() >= r.bytes.size() &&
              std::equal(old_comment, old_comment + r.blocks.at(cg.comment_link).size,
                         r2.bytes.begin() + cg.comment_link));
  std::vector<uint64_t> raw;
  for (const auto& record : modified.records) raw.push_back(mdftest::get_bits(record, 0, 16));
  EXPECT_EQ(raw, (std::vector<uint64_t>{0, 3, 8, 9}));
}

// A sorted group of 2^31 + 100 one-byte records (a sparse file), times 0 but the last 1: the
// search neither wraps its midpoint nor goes round for ever below record 0.
TEST_F(GroupTime, SeekTimeBeyondTwoToThe31Records) {
  constexpr uint32_t kCount = (1u << 31) + 100;
  mdftest::FileModel f;
  f.data_at_end = true;
  auto& cg = f.add_data_group().add_channel_group(1);
  cg.add_channel("t", 0, 8, 0, MDF_CHN_TIME);
  cg.add_record();
  cg.record_count = kCount;
  const auto built = mdftest::build(f);
  write(built);
  {
    // Writing the last record's byte past the end leaves a hole of zeros.
    std::fstream out(file(), std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(static_cast<std::streamoff>(uint64_t{built.data_groups[0].data} + kCount - 1));
    ASSERT_TRUE(out.put(1).good());
  }
  mdf_group* g = open(file(), MDF_OPEN_READ);
  using P = std::pair<int, uint32_t>;
  EXPECT_EQ(seek(g, 0, -1.0, 0), P(1, 0));
  EXPECT_EQ(seek(g, kCount - 50, -1.0, 5), P(1, 0));
  EXPECT_EQ(seek(g, kCount - 50, 0.5, 0), P(0, kCount - 1));
  EXPECT_EQ(seek(g, kCount - 50, 0.5, 3), P(0, kCount - 2));
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

}  // namespace
