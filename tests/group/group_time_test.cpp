// Group time, comment and trigger functions through the C interface.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;

const std::vector<double> kTimes = {0.0, 0.5, 1.0, 2.0, 2.0, 4.0};

// One channel group with a time channel (double) holding `times`; with `unsorted`, its
// records interleave with those of a second channel group.
mdftest::FileModel timed(const std::vector<double>& times, bool unsorted) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(unsorted ? 1 : 0);
  auto& cg = dg.add_channel_group(8, 1);
  cg.add_channel("t", 0, 64, 3, MDF_CHN_TIME);
  for (double t : times) mdftest::put_f64(cg.add_record(), 0, t);
  if (unsorted) {
    auto& other = dg.add_channel_group(8, 2);
    other.add_channel("t", 0, 64, 3, MDF_CHN_TIME);
    for (size_t k = 0; k < times.size(); ++k) mdftest::put_f64(other.add_record(), 0, -5.0);
  }
  return f;
}

class GroupTime : public ::testing::Test {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    dir_ = mdftest::scratch_dir("korvel_group_time");
  }
  void TearDown() override {
    mdfClose();
    fs::remove_all(dir_);
  }
  std::string write(const mdftest::FileModel& f, const char* name = "in.mdf") {
    const auto p = (dir_ / name).string();
    mdftest::write_file(p, mdftest::build(f).bytes);
    return p;
  }
  mdf_group* open_group(const std::string& p, uint16_t mode = MDF_OPEN_READ) {
    mdf_file* file = nullptr;
    mdf_group* g = nullptr;
    EXPECT_EQ(mdfFileOpen(&file, p.c_str(), mode), 0);
    EXPECT_EQ(mdfGrpOpen(&g, file, 1, mode), 0);
    return g;
  }
  static uint32_t tell(mdf_group* g) {
    uint32_t at = 99;
    mdfGrpTell(&at, g);
    return at;
  }
  fs::path dir_;
};

TEST_F(GroupTime, SeekTimeTable) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr uint16_t R = MDF_SEEK_REL;
  struct Case {
    bool unsorted;
    uint32_t start;
    double time;
    uint16_t mode;
    int16_t status;
    uint32_t at;
  };
  const Case cases[] = {
      // Between 0.5 and 1.0: nearest at equal distance takes the later record.
      {false, 0, 0.75, 0, 0, 2},
      {false, 0, 0.75, 1, 2, 1},
      {false, 0, 0.75, 2, 0, 1},
      {false, 0, 0.75, 3, 0, 1},
      {false, 0, 0.75, 4, 0, 2},
      {false, 0, 0.75, 5, 0, 2},
      {false, 0, 0.75, 6, 0, 1},
      {false, 0, 0.75, 7, 0, 1},
      {false, 0, 2.9, 0, 0, 4},
      {false, 0, 3.0, 0, 0, 5},
      {false, 0, 3.0, 3, 0, 4},
      // Exact times.
      {false, 0, 0.5, 0, 0, 1},
      {false, 0, 0.5, 1, 0, 1},
      {false, 0, 0.5, 2, 0, 0},
      {false, 0, 0.5, 4, 0, 2},
      {false, 5, 2.0, 4, 0, 5},
      {false, 0, 4.0, 4, 1, 5},
      {false, 2, 0.0, 2, 1, 0},
      // The search is bounded by the current record: from 1 it finds the first 2.0, from 0
      // the second.
      {false, 1, 2.0, 0, 0, 3},
      {false, 0, 2.0, 0, 0, 4},
      // Before the first record: status 1 with the cursor on record 0, in every mode.
      {false, 0, -1.0, 0, 1, 0},
      {false, 3, -1.0, 5, 1, 0},
      {false, 0, -1.0, 1, 1, 0},
      // After the last.
      {false, 0, 9.0, 0, 0, 5},
      {false, 0, 9.0, 3, 0, 5},
      {false, 0, 9.0, 4, 2, 5},
      {false, 0, 9.0, 5, 2, 5},
      {false, 0, 9.0, 1, 2, 5},
      // Relative times; a relative 0 returns at once (a search would find record 3).
      {false, 2, 1.0, R | 5, 0, 3},
      {false, 3, -1.25, R, 0, 2},
      {false, 4, 0.0, R | 1, 0, 4},
      {false, 0, nan, 1, 0, 2},
      {false, 0, nan, 4, 0, 3},
      // Unsorted: the first record at or after the time, whatever the low bits say.
      {true, 0, 0.75, 0, 0, 2},
      {true, 0, 0.75, 1, 0, 2},
      {true, 0, 0.5, 2, 0, 1},
      {true, 0, -1.0, 4, 0, 0},
      {true, 0, 9.0, 0, 1, 5},
      {true, 4, 0.75, 3, 0, 2},
      {true, 2, 1.0, R, 0, 3},
      {true, 4, 0.0, R, 0, 4},
      {true, 3, 2.0, 1, 0, 3},
      {true, 2, nan, 0, 0, 2},
  };
  for (bool unsorted : {false, true}) {
    mdf_group* g = open_group(write(timed(kTimes, unsorted)));
    for (const auto& c : cases) {
      if (c.unsorted != unsorted) continue;
      SCOPED_TRACE(testing::Message()
                   << unsorted << " from " << c.start << " to " << c.time << " mode " << c.mode);
      ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(c.start), MDF_SEEK_ABS), 0);
      EXPECT_EQ(mdfGrpSeekTime(g, c.time, c.mode), c.status);
      EXPECT_EQ(tell(g), c.at);
      double t = -1;
      EXPECT_EQ(mdfGrpGetTime(&t, g), 0);
      EXPECT_EQ(t, kTimes[c.at]);
    }
    EXPECT_EQ(mdfGetErrorCode(), 0);
    mdfClose();
    mdfOpen(nullptr);
  }
}

// Time channels with rules: raw integers 0..3 turned into times by a linear rule with an
// offset and by an interpolating table; setting a time stores the inverse.
TEST_F(GroupTime, TimeThroughTheRuleBothWays) {
  struct Case {
    mdftest::ConversionPtr rule;
    double seek;     // a time between records
    uint32_t found;  // the nearest record
    double set;      // a time to store
    uint32_t raw;    // the raw value it stores
  };
  const Case cases[] = {
      {mdftest::linear(10.0, 0.5), 11.2, 2, 11.5, 3},                       // 10, 10.5, 11, 11.5
      {mdftest::table(true, {{0, 0}, {1, 10}, {3, 20}}), 12.0, 1, 15.0, 2}  // 0, 10, 15, 20
  };
  for (const auto& c : cases) {
    mdftest::FileModel f;
    auto& cg = f.add_data_group().add_channel_group(4);
    cg.add_channel("t", 0, 32, 0, MDF_CHN_TIME).conversion = c.rule;
    for (uint32_t k = 0; k < 4; ++k) mdftest::put_bits(cg.add_record(), 0, 32, k);
    mdf_group* g = open_group(write(f));
    // At record 0 the current time counts as 0.0: seeking 0.0 returns at once.
    EXPECT_EQ(mdfGrpSeekTime(g, 0.0, MDF_SEEK_TIME_EXACT), 0);
    EXPECT_EQ(mdfGrpSeekTime(g, c.seek, MDF_SEEK_TIME_NEAREST), 0);
    EXPECT_EQ(tell(g), c.found);
    EXPECT_EQ(mdfGrpSetTime(g, c.set), 0);
    uint8_t* data = nullptr;
    mdfGrpBuffer(&data, g);
    EXPECT_EQ(mdftest::get_bits({data, 4}, 0, 32), c.raw);
    double t = 0;
    EXPECT_EQ(mdfGrpGetTime(&t, g), 0);
    EXPECT_EQ(t, c.set);
    mdfClose();
    mdfOpen(nullptr);
  }
}

// Times set in a created group and rewritten in a modified one reach the file only through
// appends and writes.
TEST_F(GroupTime, SetTimeReachesTheFileThroughWrites) {
  const auto p = (dir_ / "made.mdf").string();
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, p.c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfChnCreate(&ch, g, MDF_CHN_TIME, 16, MDF_DT_UINT, "time"), 0);
  ASSERT_EQ(mdfChnSetFormLin(ch, "s", 1.0, 0.25), 0);
  for (int k = 0; k < 5; ++k) {  // five appends are written as four records
    ASSERT_EQ(mdfGrpSetTime(g, 1.0 + 0.25 * (k * 3)), 0);
    ASSERT_EQ(mdfGrpWriteAppend(g), 0);
  }
  ASSERT_EQ(mdfFileClose(file), 0);
  ASSERT_EQ(mdfFileOpen(&file, p.c_str(), MDF_OPEN_MODIFY), 0);
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, MDF_OPEN_MODIFY), 0);
  ASSERT_EQ(mdfGrpSeekTime(g, 2.5, MDF_SEEK_TIME_EXACT), 0);  // raw 6
  ASSERT_EQ(tell(g), 2u);
  ASSERT_EQ(mdfGrpSetTime(g, 3.0), 0);  // raw 8
  const auto before = mdftest::load_file(p);
  ASSERT_EQ(mdfGrpWrite(g), 0);
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto r = mdftest::read_file(p);
  ASSERT_TRUE(r.ok()) << r.error_text();
  const auto& records = r.data_groups.at(0).channel_groups.at(0).records;
  ASSERT_EQ(records.size(), 4u);
  const uint64_t expected[] = {0, 3, 8, 9};
  for (size_t k = 0; k < 4; ++k) EXPECT_EQ(mdftest::get_bits(records[k], 0, 16), expected[k]);
  // Before the write the record on disk still held raw 6.
  const uint32_t at = r.data_groups[0].data_link + 2 * 3 + 1;
  EXPECT_EQ(before.at(at), 6);
}

TEST_F(GroupTime, CommentAndTriggerOfACreatedGroupReachTheFile) {
  const auto p = (dir_ / "made.mdf").string();
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, p.c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), 0);
  const double events[] = {1.5, 0.25, 0.75, 3.0, 0.5, 1.0};
  ASSERT_EQ(mdfGrpSetText(g, "replaced"), 0);
  ASSERT_EQ(mdfGrpSetText(g, "group note"), 0);
  ASSERT_EQ(mdfGrpSetText(g, nullptr), 0);  // does nothing
  ASSERT_EQ(mdfGrpSetTrigger(g, "old", 1, events), 0);
  ASSERT_EQ(mdfGrpSetTrigger(g, "trigger note", 2, events), 0);
  const char* text = nullptr;
  const char* comment = nullptr;
  uint16_t count = 0;
  const void* got = nullptr;
  EXPECT_EQ(mdfGrpGetText(g, &text), 0);
  EXPECT_STREQ(text, "group note");
  EXPECT_EQ(mdfGrpGetTrigger(g, &comment, &count, &got), 0);
  EXPECT_STREQ(comment, "trigger note");
  ASSERT_EQ(count, 2);
  EXPECT_EQ(std::memcmp(got, events, sizeof events), 0);
  ASSERT_EQ(mdfGrpClose(g), 0);
  ASSERT_EQ(mdfFileClose(file), 0);

  const auto r = mdftest::read_file(p);
  ASSERT_TRUE(r.ok()) << r.error_text();
  const auto& dg = r.data_groups.at(0);
  const auto& cg = dg.channel_groups.at(0);
  ASSERT_TRUE(dg.trigger.has_value());
  const auto& tr = *dg.trigger;
  EXPECT_EQ(cg.comment, "group note");
  EXPECT_EQ(tr.comment, "trigger note");
  EXPECT_EQ(tr.block_size, 2 * 24 + 34);  // one spare event entry
  EXPECT_EQ(tr.events, (std::vector<mdftest::TriggerEvent>{{1.5, 0.25, 0.75}, {3.0, 0.5, 1.0}}));
  for (uint32_t i = 10 + 48; i < 82; ++i) {
    EXPECT_EQ(r.bytes[tr.offset + i], 0) << i;
  }
  // Only the blocks in use were written: CG comment, CG, TR comment, TR, DG, end of file.
  const uint32_t order[] = {cg.comment_link, cg.offset, tr.comment_link, tr.offset, dg.offset};
  for (size_t k = 0; k + 1 < std::size(order); ++k) {
    EXPECT_EQ(order[k] + r.blocks.at(order[k]).size, order[k + 1]);
  }
  EXPECT_EQ(dg.offset + 28u, r.bytes.size());
}

// In modify mode the group comment is written at close; the old comment block stays where
// it was, unlinked.
TEST_F(GroupTime, CommentOfAModifiedGroup) {
  struct Case {
    const char* text;
    const char* expected;  // null: no comment
  };
  const Case cases[] = {{"new", "new"}, {"", nullptr}, {nullptr, "old"}};
  for (const auto& c : cases) {
    auto f = timed(kTimes, false);
    f.data_groups[0].channel_groups[0].comment = "old";
    const auto p = write(f);
    const auto old_at = mdftest::build(f).data_groups[0].channel_groups[0].comment;
    mdf_group* g = open_group(p, MDF_OPEN_MODIFY);
    ASSERT_EQ(mdfGrpSetText(g, c.text), 0);
    const char* text = nullptr;
    EXPECT_EQ(mdfGrpGetText(g, &text), 0);
    EXPECT_STREQ(text, c.expected != nullptr ? c.expected : "");
    EXPECT_EQ(mdfGrpGetText(g, nullptr), 0);
    mdfClose();
    mdfOpen(nullptr);
    const auto r = mdftest::read_file(p);
    ASSERT_TRUE(r.ok()) << r.error_text();
    const auto& cg = r.data_groups[0].channel_groups[0];
    EXPECT_EQ(cg.comment,
              c.expected != nullptr ? std::optional<std::string>(c.expected) : std::nullopt);
    EXPECT_EQ(mdftest::raw_block(r.bytes, old_at)->bytes,
              (std::vector<uint8_t>{'T', 'X', 8, 0, 'o', 'l', 'd', 0}));
  }
}

// Trigger blocks read from files: none, zero events, and a count larger than the block.
TEST_F(GroupTime, TriggersReadFromFiles) {
  struct Case {
    bool present;
    std::vector<mdftest::TriggerEvent> events;
    uint16_t count;
    int16_t status;
  };
  const Case cases[] = {{false, {}, 0, MDF_NO_TRIGGER},
                        {true, {}, 0, 0},
                        {true, {{1.0, 2.0, 3.0}}, 1, 0},
                        {true, {{1.0, 2.0, 3.0}}, 400, 0}};
  for (const auto& c : cases) {
    auto f = timed(kTimes, false);
    if (c.present) f.data_groups[0].trigger = mdftest::Trigger{"note", c.events, c.count, {}};
    mdf_group* g = open_group(write(f));
    const char* comment = "x";
    uint16_t count = 99;
    const void* events = &count;
    EXPECT_EQ(mdfGrpGetTrigger(g, &comment, &count, &events), c.status);
    EXPECT_EQ(count, c.count);
    if (!c.present) {
      EXPECT_EQ(comment, nullptr);
      EXPECT_EQ(events, nullptr);
    } else {
      EXPECT_STREQ(comment, "note");
      ASSERT_NE(events, nullptr);
      // Every counted event can be read; those the block does not hold read as zeros.
      std::vector<double> all(3u * count);
      if (count != 0) std::memcpy(all.data(), events, all.size() * sizeof(double));
      for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i], i < 3 ? static_cast<double>(i + 1) : 0.0) << i;
      }
    }
    EXPECT_EQ(mdfGetErrorCode(), 0);
    mdfClose();
    mdfOpen(nullptr);
  }
}

TEST_F(GroupTime, RefusalsAndBadHandles) {
  mdftest::FileModel f;
  auto& cg = f.add_data_group().add_channel_group(1);
  cg.add_channel("v", 0, 8, 0);
  cg.add_record();
  mdf_group* g = open_group(write(f));
  double t = 7;
  EXPECT_EQ(mdfGrpGetTime(&t, g), MDF_NO_TIME_CHANNEL);
  EXPECT_EQ(t, 0.0);
  EXPECT_EQ(mdfGrpSetTime(g, 1.0), MDF_NO_TIME_CHANNEL);
  EXPECT_EQ(mdfGetErrorCode(), 0);  // positive: not sticky
  // A bad handle is sticky: every call starts afresh.
  uint32_t junk[16] = {};
  auto* bad = reinterpret_cast<mdf_group*>(junk);
  const std::function<int16_t(mdf_group*)> calls[] = {
      [&](mdf_group* x) { return mdfGrpGetTime(&t, x); },
      [](mdf_group* x) { return mdfGrpSetTime(x, 0); },
      [](mdf_group* x) { return mdfGrpSeekTime(x, 0, 0); },
      [](mdf_group* x) { return mdfGrpGetText(x, nullptr); },
      [](mdf_group* x) { return mdfGrpSetText(x, "x"); },
      [](mdf_group* x) { return mdfGrpGetTrigger(x, nullptr, nullptr, nullptr); },
      [](mdf_group* x) { return mdfGrpSetTrigger(x, "x", 0, nullptr); }};
  for (const auto& call : calls) {
    for (mdf_group* x : {static_cast<mdf_group*>(nullptr), bad}) {
      mdfClose();
      mdfOpen(nullptr);
      EXPECT_EQ(call(x), MDF_ERR_BAD_GROUP);
    }
  }
  mdfClose();
  mdfOpen(nullptr);
  g = open_group(write(f));
  EXPECT_EQ(mdfGrpSeekTime(g, 1.0, 0), MDF_ERR_FATAL);  // a time search needs a time channel
}

}  // namespace
