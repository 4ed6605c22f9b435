// Sorting through the C interface: source files made by the test-side builder, results read
// back by the test-side reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "korvel.h"
#include "sort/sort.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;
using mdftest::FileModel;

// One data group with record ids, three interleaved channel groups A (id 1, 8 bytes,
// 4 records), B (id 2, 12 bytes, 4) and C (id 3, 20 bytes, 2), round robin
// (A B C A B C A B A B), followed by a sorted data group D (4 bytes, 3 records). Every record
// starts with its time (double, seconds): group g, record i at 10 g + i / 100; the byte after
// the time holds 16 g + i.
FileModel base(uint16_t ids = 1) {
  FileModel f;
  f.data_at_end = true;
  auto& dg = f.add_data_group(ids);
  const uint16_t sizes[] = {8, 12, 20};
  const int counts[] = {4, 4, 2};
  for (int g = 0; g < 3; ++g) {
    auto& cg = dg.add_channel_group(sizes[g], static_cast<uint16_t>(g + 1));
    cg.comment = "group " + std::to_string(g);
    cg.add_channel("t" + std::to_string(g), 0, 64, 3, 1);
    if (sizes[g] > 8) cg.add_channel("v" + std::to_string(g), 64, 8, 0);
    for (int i = 0; i < counts[g]; ++i) {
      auto& rec = cg.add_record();
      mdftest::put_f64(rec, 0, 10.0 * g + i / 100.0);
      if (sizes[g] > 8) rec[8] = static_cast<uint8_t>(16 * g + i);
    }
  }
  auto& d = f.add_data_group(0);
  auto& cg = d.add_channel_group(4);
  cg.add_channel("x", 0, 32, 0);
  for (int i = 0; i < 3; ++i) cg.add_record()[0] = static_cast<uint8_t>(0xD0 + i);
  return f;
}

struct Case {
  const char* name;
  std::function<void(FileModel&)> change;       // on the model
  std::function<void(mdftest::Built&)> damage;  // on the built bytes
  uint32_t flags;
  int16_t status;
  std::vector<uint32_t> counts;  // records per target channel group; empty: no target
};

uint32_t data_of(const mdftest::Built& b) {
  return b.data_groups[0].data;
}

const Case kCases[] = {
    {"one_record_id", nullptr, nullptr, 0, 0, {4, 4, 2, 3}},
    {"two_record_ids",
     [](FileModel& f) { f.data_groups[0].record_ids = 2; },
     nullptr,
     0,
     0,
     {4, 4, 2, 3}},
    {"finalize_flag_0",
     nullptr,
     [](mdftest::Built& b) { b.patch_chars(0, 8, "UnFinMF "); },
     MDF_SORT_FINALIZE,
     0,
     {4, 4, 2, 3}},
    {"finalize_flag_1",
     nullptr,
     [](mdftest::Built& b) {
       b.patch_chars(0, 8, "UnFinMF ");
       b.patch_u16(60, 1);
     },
     MDF_SORT_FINALIZE,
     0,
     {4, 4, 2, 3}},
    {"finalize_flag_2",
     nullptr,
     [](mdftest::Built& b) {
       b.patch_chars(0, 8, "UnFinMF ");
       b.patch_u16(60, 2);
     },
     MDF_SORT_FINALIZE,
     MDF_ERR_FORMAT,
     {}},
    {"unfinished_without_flag",
     nullptr,
     [](mdftest::Built& b) { b.patch_chars(0, 8, "UnFinMF "); },
     0,
     MDF_ALREADY_SORTED,
     {}},
    // Record 4 (the second of B) carries an unknown id: the rest of the data group is lost.
    {"unknown_record_id",
     nullptr,
     [](mdftest::Built& b) { b.patch_u8(data_of(b) + 9 + 13 + 21 + 9, 99); },
     0,
     MDF_CYCLES_DECREASED,
     {2, 1, 1, 3}},
    // Without D, the file ends 5 bytes into B's last record.
    {"last_record_cut_off",
     [](FileModel& f) { f.data_groups.pop_back(); },
     [](mdftest::Built& b) { b.truncate(b.size() - 5); },
     0,
     MDF_CYCLES_DECREASED,
     {4, 3, 2}},
    {"data_beyond_the_end",
     nullptr,
     [](mdftest::Built& b) { b.truncate(b.size() - 12 - 5); },
     0,
     MDF_ERR_FORMAT,
     {}},
    {"surplus_without_recount",
     [](FileModel& f) { f.data_groups[0].channel_groups[0].record_count = 3; },
     nullptr,
     0,
     MDF_CYCLES_DECREASED,
     {3, 3, 2, 3}},
    {"surplus_with_recount",
     [](FileModel& f) { f.data_groups[0].channel_groups[0].record_count = 3; },
     nullptr,
     MDF_SORT_RECOUNT,
     MDF_CYCLES_INCREASED,
     {4, 4, 2, 3}},
    {"fewer_than_declared",
     [](FileModel& f) { f.data_groups[0].channel_groups[1].record_count = 6; },
     nullptr,
     0,
     MDF_CYCLES_DECREASED,
     {4, 4, 2, 3}},
    {"fewer_than_declared_shrink",
     [](FileModel& f) { f.data_groups[0].channel_groups[1].record_count = 6; },
     nullptr,
     MDF_SORT_SHRINK,
     MDF_CYCLES_DECREASED,
     {4, 4, 2, 3}},
    {"time_backwards_checked",
     [](FileModel& f) { mdftest::put_f64(f.data_groups[0].channel_groups[1].records[2], 0, 5.0); },
     nullptr,
     MDF_SORT_CHECK_TIME,
     MDF_BAD_TIME_STAMP,
     {}},
    {"time_backwards_unchecked",
     [](FileModel& f) { mdftest::put_f64(f.data_groups[0].channel_groups[1].records[2], 0, 5.0); },
     nullptr,
     0,
     0,
     {4, 4, 2, 3}},
    {"first_time_beyond_30_days",
     [](FileModel& f) { mdftest::put_f64(f.data_groups[0].channel_groups[2].records[0], 0, 3e6); },
     nullptr,
     MDF_SORT_CHECK_TIME,
     MDF_BAD_TIME_STAMP,
     {}},
    {"time_jump_beyond_30_days",
     [](FileModel& f) {
       mdftest::put_f64(f.data_groups[0].channel_groups[2].records[1], 0, 2.6e6 + 21);
     },
     nullptr,
     MDF_SORT_CHECK_TIME,
     MDF_BAD_TIME_STAMP,
     {}},
    {"duplicate_record_id",
     [](FileModel& f) { f.data_groups[0].channel_groups[2].record_id = 1; },
     nullptr,
     0,
     MDF_ERR_FORMAT,
     {}},
    {"record_id_above_255",
     [](FileModel& f) { f.data_groups[0].channel_groups[2].record_id = 259; },
     nullptr,
     0,
     MDF_ERR_FORMAT,
     {}},
    {"sorted", [](FileModel& f) { f.data_groups.pop_front(); }, nullptr, 0, MDF_ALREADY_SORTED, {}},
    {"no_data_groups",
     [](FileModel& f) { f.data_groups.clear(); },
     nullptr,
     0,
     MDF_ALREADY_SORTED,
     {}},
    {"no_channel_groups",
     [](FileModel& f) {
       f.data_groups.clear();
       f.add_data_group(1);
     },
     nullptr,
     0,
     MDF_ALREADY_SORTED,
     {}},
    {"foreign_identifier",
     nullptr,
     [](mdftest::Built& b) { b.patch_chars(0, 8, "XDF     "); },
     0,
     MDF_ALREADY_SORTED,
     {}},
    {"reserved_bytes_used",
     nullptr,
     [](mdftest::Built& b) { b.patch_u8(33, 1); },
     0,
     MDF_ALREADY_SORTED,
     {}},
    {"version_340_unsorted",
     [](FileModel& f) { f.id.version = 340; },
     nullptr,
     0,
     MDF_NEWER_VERSION,
     {}},
    {"version_340_sorted",
     [](FileModel& f) {
       f.id.version = 340;
       f.data_groups.pop_front();
     },
     nullptr,
     0,
     MDF_ALREADY_SORTED,
     {}},
    {"version_400", [](FileModel& f) { f.id.version = 400; }, nullptr, 0, MDF_ALREADY_SORTED, {}},
};

class Sort : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    dir_ = mdftest::scratch_dir("korvel_sort");
  }
  void TearDown() override {
    mdfClose();
    korvel::sort::set_tick_source(nullptr);
    fs::remove_all(dir_);
  }
  fs::path dir_;
};

// Every target channel group sits alone in its data group without record ids and holds the
// first records of its source channel group, in order.
void expect_sorted(const FileModel& source, const fs::path& target,
                   const std::vector<uint32_t>& counts) {
  const auto r = mdftest::read_file(target);
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_TRUE(r.warnings.empty()) << r.error_text();
  EXPECT_EQ(r.id.file_id, "MDF     ");
  EXPECT_EQ(r.id.unfinished_flags, 0);
  std::vector<const mdftest::ChannelGroup*> groups;
  for (const auto& dg : source.data_groups)
    for (const auto& cg : dg.channel_groups) groups.push_back(&cg);
  ASSERT_EQ(r.data_groups.size(), counts.size());
  EXPECT_EQ(r.header.dg_count, counts.size());
  for (size_t i = 0; i < counts.size(); ++i) {
    const auto& dg = r.data_groups[i];
    EXPECT_EQ(dg.record_ids, 0);
    ASSERT_EQ(dg.channel_groups.size(), 1u);
    const auto& cg = dg.channel_groups[0];
    EXPECT_EQ(cg.record_count, counts[i]) << i;
    EXPECT_EQ(cg.comment,
              groups[i]->comment ? std::optional(groups[i]->comment.str()) : std::nullopt);
    ASSERT_EQ(cg.channels.size(), groups[i]->channels.size());
    EXPECT_EQ(cg.channels[0].name, groups[i]->channels[0].name);
    ASSERT_EQ(cg.records.size(), counts[i]);
    for (size_t k = 0; k < counts[i]; ++k)
      EXPECT_EQ(cg.records[k], groups[i]->records[k]) << i << "/" << k;
    if (counts[i] == 0) {
      EXPECT_EQ(dg.data_link, 0u);
    }
  }
}

TEST_P(Sort, StatusAndTarget) {
  const Case& c = GetParam();
  FileModel f = base();
  if (c.change) c.change(f);
  auto built = mdftest::build(f);
  if (c.damage) c.damage(built);
  const fs::path src = dir_ / "in.mdf";
  const fs::path dst = dir_ / "out.mdf";
  mdftest::write_file(src, built.bytes);
  MdfSortParams p{};
  p.structSize = sizeof p;
  const std::string s = src.string();
  const std::string d = dst.string();
  p.srcFile = s.c_str();
  p.dstFile = d.c_str();
  p.flags = c.flags;
  EXPECT_EQ(mdfSortWithProgress(&p), c.status);
  EXPECT_EQ(mdftest::load_file(src), built.bytes) << "the source is never changed";
  EXPECT_EQ(fs::exists(dst), !c.counts.empty());
  if (!c.counts.empty()) expect_sorted(f, dst, c.counts);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()),
            c.counts.empty() ? 1 : 2);
}

INSTANTIATE_TEST_SUITE_P(Cases, Sort, ::testing::ValuesIn(kCases),
                         [](const auto& test) { return std::string(test.param.name); });

// Shrinking closes the gap that an over-declared channel group leaves and cuts the file.
TEST_F(Sort, ShrinkCutsTheTarget) {
  FileModel f = base();
  f.data_groups[0].channel_groups[1].record_count = 6;
  mdftest::write_file(dir_ / "in.mdf", mdftest::build(f).bytes);
  uintmax_t sizes[2] = {};
  for (uint32_t flags : {0u, MDF_SORT_SHRINK}) {
    const std::string s = (dir_ / "in.mdf").string();
    const std::string d = (dir_ / ("out" + std::to_string(flags) + ".mdf")).string();
    MdfSortParams p{sizeof p, s.c_str(), d.c_str(), nullptr, nullptr, nullptr, nullptr, flags};
    ASSERT_EQ(mdfSortWithProgress(&p), MDF_CYCLES_DECREASED);
    sizes[flags != 0] = fs::file_size(d);
    const auto r = mdftest::read_file(d);
    // Without shrinking C's records lie behind the unused room of B's region.
    EXPECT_EQ(r.data_groups[2].data_link - r.data_groups[1].data_link, (flags != 0 ? 4u : 6u) * 12);
  }
  EXPECT_EQ(sizes[0] - sizes[1], 2u * 12);
}

// Blocks the target copies with their links: dependencies, verbal range texts, triggers.
TEST_F(Sort, LinkedBlocksFollow) {
  FileModel f = base();
  auto& a = f.data_groups[0].channel_groups[0].channels[0];
  a.dependency = mdftest::dependency(0, {{0, 1, 1}, {1, 0, 0}});
  auto& b = f.data_groups[0].channel_groups[1].channels[1];
  b.conversion = mdftest::range_table({{0, 10, "low"}, {10, 20, "high"}, {20, 30, std::nullopt}});
  f.data_groups[0].trigger = mdftest::Trigger{"trig", {{1.0, 0.5, 0.5}}, {}, {}};
  f.header.comment = "file comment";
  const auto built = mdftest::build(f);
  mdftest::write_file(dir_ / "in.mdf", built.bytes);
  ASSERT_EQ(mdfSort((dir_ / "in.mdf").string().c_str(), (dir_ / "out.mdf").string().c_str()), 0);
  const auto r = mdftest::read_file(dir_ / "out.mdf");
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_EQ(r.header.comment, "file comment");
  const auto& dep = r.data_groups[0].channel_groups[0].channels[0].dependency;
  ASSERT_TRUE(dep.has_value());
  EXPECT_EQ(dep->targets, (std::vector<mdftest::DependencyTarget>{{1, 0, 1}, {3, 0, 0}}));
  const auto& cc = r.data_groups[1].channel_groups[0].channels[1].conversion;
  ASSERT_TRUE(cc.has_value());
  EXPECT_EQ(cc->type, 12);
  EXPECT_EQ(cc->ranges[0].text, "low");
  EXPECT_EQ(cc->ranges[1].text, "high");
  EXPECT_EQ(cc->ranges[2].text, std::nullopt);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(r.data_groups[i].trigger.has_value());
    EXPECT_EQ(r.data_groups[i].trigger->offset, r.data_groups[0].trigger->offset) << "shared";
    EXPECT_EQ(r.data_groups[i].trigger->comment, "trig");
  }
  EXPECT_FALSE(r.data_groups[3].trigger.has_value());
}

// A float channel whose type contradicts its bit count is repaired in the source itself.
TEST_F(Sort, FloatTypeRepairChangesTheSource) {
  FileModel f = base();
  f.data_groups[0].channel_groups[0].channels[0].data_type = 2;  // 64 bits
  const auto built = mdftest::build(f);
  mdftest::write_file(dir_ / "in.mdf", built.bytes);
  ASSERT_EQ(mdfSort((dir_ / "in.mdf").string().c_str(), (dir_ / "out.mdf").string().c_str()), 0);
  auto repaired = built.bytes;
  repaired[built.data_groups[0].channel_groups[0].channels[0].offset + 190] = 3;
  EXPECT_EQ(mdftest::load_file(dir_ / "in.mdf"), repaired);
  EXPECT_EQ(
      mdftest::read_file(dir_ / "out.mdf").data_groups[0].channel_groups[0].channels[0].data_type,
      3);
}

// Sorting in place goes through a temporary file that replaces the source.
TEST_F(Sort, InPlace) {
  const FileModel f = base();
  const fs::path src = dir_ / "in.mdf";
  const std::string s = src.string();
  const std::string other_name = (dir_ / "." / "in.mdf").string();
  for (const char* target :
       {s.c_str(), other_name.c_str(), "", static_cast<const char*>(nullptr)}) {
    mdftest::write_file(src, mdftest::build(f).bytes);
    const auto cwd_before = std::distance(fs::directory_iterator("."), fs::directory_iterator());
    ASSERT_EQ(mdfSort(s.c_str(), target), 0);
    expect_sorted(f, src, {4, 4, 2, 3});
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
    EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), cwd_before);
    EXPECT_EQ(mdfTestSort(s.c_str()), 0);
  }
}

TEST_F(Sort, TargetOutOfReach) {
  mdftest::write_file(dir_ / "in.mdf", mdftest::build(base()).bytes);
  EXPECT_EQ(mdfSort((dir_ / "in.mdf").string().c_str(), (dir_ / "no" / "out.mdf").string().c_str()),
            MDF_NO_TARGET_ACCESS);
  EXPECT_EQ(mdfSort((dir_ / "missing.mdf").string().c_str(), nullptr), MDF_FILE_NOT_OPENED);
}

TEST_F(Sort, TestSort) {
  mdftest::write_file(dir_ / "in.mdf", mdftest::build(base()).bytes);
  EXPECT_EQ(mdfTestSort((dir_ / "in.mdf").string().c_str()), MDF_NOT_SORTED);
  EXPECT_EQ(mdfTestSort((dir_ / "missing.mdf").string().c_str()), MDF_FILE_NOT_OPENED);
  mdfClose();
  EXPECT_EQ(mdfTestSort((dir_ / "in.mdf").string().c_str()), MDF_ERR_NOT_INITIALIZED);
  EXPECT_EQ(mdfSort((dir_ / "in.mdf").string().c_str(), nullptr), MDF_ERR_NOT_INITIALIZED);
}

// The clock of the progress protocol, moved by the tests.
uint32_t g_now = 0;
uint32_t g_step = 0;
uint32_t tick() {
  g_now += g_step;
  return g_now;
}

struct Watch {
  std::vector<int> percents;
  int starts = 0;
  int asks = 0;
  int abort_at = -1;  // abort at this many asks
};

MdfSortParams watched(Watch& w, const std::string& s, const std::string& d) {
  MdfSortParams p{sizeof(MdfSortParams), s.c_str(), d.c_str(), &w, nullptr, nullptr, nullptr, 0};
  p.pfnStart = [](void* u) { ++static_cast<Watch*>(u)->starts; };
  p.pfnProgress = [](int percent, void* u) { static_cast<Watch*>(u)->percents.push_back(percent); };
  p.pfnAbort = [](void* u) {
    auto* watch = static_cast<Watch*>(u);
    return ++watch->asks == watch->abort_at ? 1 : 0;
  };
  return p;
}

// Reports come at most every 500 ms, only with a rising percent, and end with 100.
TEST_F(Sort, ProgressIsThrottled) {
  korvel::sort::set_tick_source(&tick);
  mdftest::write_file(dir_ / "in.mdf", mdftest::build(base()).bytes);
  const std::string s = (dir_ / "in.mdf").string();
  const std::string d = (dir_ / "out.mdf").string();
  for (uint32_t step : {0u, 501u}) {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    g_step = step;
    Watch w;
    w.abort_at = 1;  // the first question stops the run
    MdfSortParams p = watched(w, s, d);
    const int16_t status = mdfSortWithProgress(&p);
    EXPECT_EQ(w.starts, 1);
    if (step == 0) {
      EXPECT_EQ(status, 0) << "no report is due, so nobody asks";
      EXPECT_TRUE(w.percents.empty());
    } else {
      EXPECT_EQ(status, MDF_ERR_USER_ABORT);
      EXPECT_EQ(w.percents, (std::vector<int>{1, 100}));
    }
  }
  mdfClose();
  ASSERT_EQ(mdfOpen(nullptr), 0);
  Watch w;
  MdfSortParams p = watched(w, s, d);
  ASSERT_EQ(mdfSortWithProgress(&p), 0);
  EXPECT_TRUE(std::is_sorted(w.percents.begin(), w.percents.end()));
  EXPECT_EQ(std::adjacent_find(w.percents.begin(), w.percents.end()), w.percents.end());
  EXPECT_EQ(w.percents.front(), 1);
  EXPECT_EQ(w.percents.back(), 100);
  EXPECT_NE(std::find(w.percents.begin(), w.percents.end(), 20), w.percents.end());
}

// An abort at any point leaves the source as it was and no target behind.
TEST_F(Sort, AbortLeavesNothingBehind) {
  korvel::sort::set_tick_source(&tick);
  g_step = 501;
  const auto bytes = mdftest::build(base()).bytes;
  const std::string s = (dir_ / "in.mdf").string();
  for (const std::string& d : {(dir_ / "out.mdf").string(), std::string()}) {
    for (int at : {1, 3, 5, 8}) {
      mdfClose();
      ASSERT_EQ(mdfOpen(nullptr), 0);
      mdftest::write_file(s, bytes);
      Watch w;
      w.abort_at = at;
      MdfSortParams p = watched(w, s, d);
      EXPECT_EQ(mdfSortWithProgress(&p), MDF_ERR_USER_ABORT) << at;
      EXPECT_EQ(mdftest::load_file(s), bytes);
      EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
      EXPECT_EQ(w.percents.back(), 100);
    }
  }
}

}  // namespace

namespace {

// Data links of the target's data groups, read from the head of the file (the data area of
// these targets is sparse and far too large to read whole).
std::vector<uint32_t> data_links(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  mdftest::Image head;
  head.bytes.resize(1 << 16);
  in.read(reinterpret_cast<char*>(head.bytes.data()),
          static_cast<std::streamsize>(head.bytes.size()));
  head.bytes.resize(static_cast<size_t>(in.gcount()));
  std::vector<uint32_t> links;
  for (uint32_t dg = head.u32(64 + 4); dg != 0; dg = head.u32(dg + 4))
    links.push_back(head.u32(dg + 16));
  return links;
}

// Counts declare regions of several GiB while the records are few: the data area is laid out
// for the declared counts, so the rule for data beyond 4 GiB applies to a small file.
TEST_F(Sort, DataAreaBeyondFourGiB) {
  const fs::path src = dir_ / "in.mdf";
  const fs::path dst = dir_ / "out.mdf";
  auto make = [&](std::vector<std::pair<uint16_t, uint32_t>> groups) {
    FileModel f;
    auto& dg = f.add_data_group(1);
    for (size_t g = 0; g < groups.size(); ++g) {
      auto& cg = dg.add_channel_group(groups[g].first, static_cast<uint16_t>(g + 1));
      cg.add_channel("x", 0, 8, 0);
      cg.add_record();
      cg.add_record();
      cg.record_count = groups[g].second;
    }
    mdftest::write_file(src, mdftest::build(f).bytes);
  };
  // A (1 GiB), B (3.5 GiB), C (16 bytes): B, the last group larger than the excess, moves
  // behind C so that it starts below 4 GiB.
  make({{256, 1u << 22}, {256, 7u << 21}, {8, 2}});
  ASSERT_EQ(mdfSort(src.string().c_str(), dst.string().c_str()), MDF_CYCLES_DECREASED);
  const auto links = data_links(dst);
  ASSERT_EQ(links.size(), 3u);
  EXPECT_EQ(links[2], links[0] + (1ull << 30));
  EXPECT_EQ(links[1], links[2] + 16);
  fs::remove(dst);
  // Three regions of 2 GiB: none is larger than the excess.
  mdfClose();
  ASSERT_EQ(mdfOpen(nullptr), 0);
  make({{256, 1u << 23}, {256, 1u << 23}, {256, 1u << 23}});
  EXPECT_EQ(mdfSort(src.string().c_str(), dst.string().c_str()), MDF_ERR_FILE_TOO_LARGE);
  EXPECT_FALSE(fs::exists(dst));
}

}  // namespace

namespace {

// The flags word is read only from a parameter record that is long enough to hold it.
TEST_F(Sort, ShortParameterRecordHasNoFlags) {
  FileModel f = base();
  f.data_groups[0].channel_groups[0].record_count = 3;
  mdftest::write_file(dir_ / "in.mdf", mdftest::build(f).bytes);
  const std::string s = (dir_ / "in.mdf").string();
  const std::string d = (dir_ / "out.mdf").string();
  for (uint32_t size : {52u, 56u}) {
    MdfSortParams p{size, s.c_str(), d.c_str(), nullptr, nullptr, nullptr, nullptr, MDF_SORT_RECOUNT};
    EXPECT_EQ(mdfSortWithProgress(&p), size < 56 ? MDF_CYCLES_DECREASED : MDF_CYCLES_INCREASED);
  }
}

}  // namespace
