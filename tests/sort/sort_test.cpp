// Sorting through the C interface: source files made by the test-side builder, results read
// back by the test-side reader.
#include <gtest/gtest.h>

#include <algorithm>
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

using Model = std::function<void(FileModel&)>;
using Damage = std::function<void(mdftest::Built&)>;
struct Case {
  const char* name;
  Model change;   // on the model
  Damage damage;  // on the built bytes
  uint32_t flags;
  int16_t status;
  std::vector<uint32_t> counts;           // records per target channel group; empty: no target
  uint32_t size = sizeof(MdfSortParams);  // of the parameter record: flags only if it holds them
  bool float_repair = false;              // the type of A's time channel contradicts its 64 bits
};

const std::vector<uint32_t> kAll = {4, 4, 2, 3};
constexpr uint32_t kCheckTime = MDF_SORT_CHECK_TIME;
// Changes of the model: a record count of channel group c, a time of record k of c, the
// record id of channel group c, the version (and the unsorted data group dropped).
Model count(size_t c, uint32_t n) {
  return [=](FileModel& f) { f.data_groups[0].channel_groups[c].record_count = n; };
}
Model time_of(size_t c, size_t k, double t) {
  return
      [=](FileModel& f) { mdftest::put_f64(f.data_groups[0].channel_groups[c].records[k], 0, t); };
}
Model id_of(size_t c, uint16_t id) {
  return [=](FileModel& f) { f.data_groups[0].channel_groups[c].record_id = id; };
}
Model version(uint16_t v, bool sorted) {
  return [=](FileModel& f) {
    f.id.version = v;
    if (sorted) f.data_groups.pop_front();
  };
}
// An unfinished file with the given flags.
Damage unfinished(uint16_t flags) {
  return [=](mdftest::Built& b) {
    b.patch_chars(0, 8, "UnFinMF ");
    b.patch_u16(60, flags);
  };
}

// clang-format off
const Case kCases[] = {
    {"one_record_id", nullptr, nullptr, 0, 0, kAll},
    {"two_record_ids", [](FileModel& f) { f.data_groups[0].record_ids = 2; }, nullptr, 0, 0, kAll},
    {"finalize_flag_0", nullptr, unfinished(0), MDF_SORT_FINALIZE, 0, kAll},
    {"finalize_flag_1", nullptr, unfinished(1), MDF_SORT_FINALIZE, 0, kAll},
    {"finalize_flag_2", nullptr, unfinished(2), MDF_SORT_FINALIZE, MDF_ERR_FORMAT, {}},
    {"unfinished_without_flag", nullptr, unfinished(0), 0, MDF_ALREADY_SORTED, {}},
    // Record 4 (the second of B) carries an unknown id: the rest of the data group is lost.
    {"unknown_record_id", nullptr,
     [](mdftest::Built& b) { b.patch_u8(b.data_groups[0].data + 9 + 13 + 21 + 9, 99); }, 0,
     MDF_CYCLES_DECREASED, {2, 1, 1, 3}},
    // Without D, the file ends 5 bytes into B's last record.
    {"last_record_cut_off", [](FileModel& f) { f.data_groups.pop_back(); },
     [](mdftest::Built& b) { b.truncate(b.size() - 5); }, 0, MDF_CYCLES_DECREASED, {4, 3, 2}},
    {"data_beyond_the_end", nullptr, [](mdftest::Built& b) { b.truncate(b.size() - 12 - 5); }, 0,
     MDF_ERR_FORMAT, {}},
    {"surplus_with_recount", count(0, 3), nullptr, MDF_SORT_RECOUNT, MDF_CYCLES_INCREASED, kAll},
    // A parameter record too short for the flags: the surplus stays uncounted.
    {"recount_in_short_parameters", count(0, 3), nullptr, MDF_SORT_RECOUNT, MDF_CYCLES_DECREASED,
     {3, 3, 2, 3}, 52},
    {"fewer_than_declared", count(1, 6), nullptr, 0, MDF_CYCLES_DECREASED, kAll},
    {"fewer_than_declared_shrink", count(1, 6), nullptr, MDF_SORT_SHRINK, MDF_CYCLES_DECREASED,
     kAll},
    {"time_backwards_checked", time_of(1, 2, 5.0), nullptr, kCheckTime, MDF_BAD_TIME_STAMP, {}},
    {"time_backwards_unchecked", time_of(1, 2, 5.0), nullptr, 0, 0, kAll},
    {"first_time_beyond_30_days", time_of(2, 0, 3e6), nullptr, kCheckTime, MDF_BAD_TIME_STAMP, {}},
    {"time_jump_beyond_30_days", time_of(2, 1, 2.6e6 + 21), nullptr, kCheckTime,
     MDF_BAD_TIME_STAMP, {}},
    {"duplicate_record_id", id_of(2, 1), nullptr, 0, MDF_ERR_FORMAT, {}},
    {"record_id_above_255", id_of(2, 259), nullptr, 0, MDF_ERR_FORMAT, {}},
    {"sorted", version(320, true), nullptr, 0, MDF_ALREADY_SORTED, {}},
    {"no_data_groups", [](FileModel& f) { f.data_groups.clear(); }, nullptr, 0, MDF_ALREADY_SORTED,
     {}},
    {"no_channel_groups",
     [](FileModel& f) {
       f.data_groups.clear();
       f.add_data_group(1);
     },
     nullptr, 0, MDF_ALREADY_SORTED, {}},
    {"foreign_identifier", nullptr, [](mdftest::Built& b) { b.patch_chars(0, 8, "XDF     "); }, 0,
     MDF_ALREADY_SORTED, {}},
    {"reserved_bytes_used", nullptr, [](mdftest::Built& b) { b.patch_u8(33, 1); }, 0,
     MDF_ALREADY_SORTED, {}},
    {"version_340_unsorted", version(340, false), nullptr, 0, MDF_NEWER_VERSION, {}},
    {"version_340_sorted", version(340, true), nullptr, 0, MDF_ALREADY_SORTED, {}},
    {"version_400", version(400, false), nullptr, 0, MDF_ALREADY_SORTED, {}},
    // The type is repaired in the source itself (and so in the target).
    {"float_type_repaired",
     [](FileModel& f) { f.data_groups[0].channel_groups[0].channels[0].data_type = 2; }, nullptr,
     0, 0, kAll, sizeof(MdfSortParams), true},
};
// clang-format on

class Sort : public mdftest::Session, public ::testing::WithParamInterface<Case> {
 protected:
  void TearDown() override {
    korvel::sort::set_tick_source(nullptr);
    Session::TearDown();
  }
};

// Every target channel group sits alone in its data group without record ids and holds the
// first records of its source channel group, in order.
void expect_sorted(const FileModel& source, const fs::path& target,
                   const std::vector<uint32_t>& counts) {
  const auto r = mdftest::read_file(target);
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_TRUE(r.warnings.empty()) << r.error_text();
  EXPECT_EQ(std::make_tuple(r.id.file_id, r.id.unfinished_flags), std::make_tuple("MDF     ", 0));
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
    EXPECT_EQ(std::make_pair(cg.channels[0].name, cg.channels[0].data_type),
              std::make_pair(groups[i]->channels[0].name, groups[i]->channels[0].data_type));
    ASSERT_EQ(cg.records.size(), counts[i]);
    for (size_t k = 0; k < counts[i]; ++k)
      EXPECT_EQ(cg.records[k], groups[i]->records[k]) << i << "/" << k;
  }
}

// A parameter record of the given size for a sort of `s` into `d` (which must outlive it).
MdfSortParams params(const std::string& s, const std::string& d, uint32_t flags = 0,
                     uint32_t size = sizeof(MdfSortParams)) {
  return MdfSortParams{size, s.c_str(), d.c_str(), nullptr, nullptr, nullptr, nullptr, flags};
}
size_t files_in(const fs::path& dir) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

TEST_P(Sort, StatusAndTarget) {
  const Case& c = GetParam();
  FileModel f = base();
  if (c.change) c.change(f);
  auto built = mdftest::build(f);
  if (c.damage) c.damage(built);
  const std::string src = write(built), dst = path("out.mdf");
  MdfSortParams p = params(src, dst, c.flags, c.size);
  EXPECT_EQ(mdfSortWithProgress(&p), c.status);
  auto source = built.bytes;
  if (c.float_repair) {
    source[built.data_groups[0].channel_groups[0].channels[0].offset + 190] = 3;
    f.data_groups[0].channel_groups[0].channels[0].data_type = 3;
  }
  EXPECT_EQ(mdftest::load_file(src), source) << "the source changes only by a repair";
  if (!c.counts.empty()) expect_sorted(f, dst, c.counts);
  EXPECT_EQ(files_in(dir_), c.counts.empty() ? 1u : 2u);
}

INSTANTIATE_TEST_SUITE_P(Cases, Sort, ::testing::ValuesIn(kCases),
                         [](const auto& test) { return std::string(test.param.name); });

// Shrinking closes the gap that an over-declared channel group leaves and cuts the file.
TEST_F(Sort, ShrinkCutsTheTarget) {
  FileModel f = base();
  f.data_groups[0].channel_groups[1].record_count = 6;
  const std::string s = write(f);
  uintmax_t sizes[2] = {};
  for (uint32_t flags : {0u, MDF_SORT_SHRINK}) {
    const std::string d = path("out" + std::to_string(flags) + ".mdf");
    MdfSortParams p = params(s, d, flags);
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
  ASSERT_EQ(mdfSort(write(f).c_str(), path("out.mdf").c_str()), 0);
  const auto r = mdftest::read_file(path("out.mdf"));
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_EQ(r.header.comment, "file comment");
  const auto& dep = r.data_groups[0].channel_groups[0].channels[0].dependency;
  ASSERT_TRUE(dep.has_value());
  // Data group, channel group and channel of each dependency, by their places in the target.
  const auto at = [&](size_t d, size_t c) {
    const auto& dg = r.data_groups.at(d);
    const auto& cg = dg.channel_groups.at(0);
    return std::make_tuple(dg.offset, cg.offset, cg.channels.at(c).offset);
  };
  ASSERT_EQ(dep->links.size(), 2u);
  EXPECT_EQ(std::make_tuple(dep->links[0].dg, dep->links[0].cg, dep->links[0].cn), at(1, 1));
  EXPECT_EQ(std::make_tuple(dep->links[1].dg, dep->links[1].cg, dep->links[1].cn), at(3, 0));
  const auto& cc = r.data_groups[1].channel_groups[0].channels[1].conversion;
  ASSERT_TRUE(cc.has_value());
  EXPECT_EQ(std::make_tuple(cc->type, cc->ranges.at(0).text, cc->ranges.at(1).text,
                            cc->ranges.at(2).text),
            std::make_tuple(12, "low", "high", std::nullopt));
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(r.data_groups[i].trigger.has_value());
    EXPECT_EQ(r.data_groups[i].trigger->offset, r.data_groups[0].trigger->offset) << "shared";
    EXPECT_EQ(r.data_groups[i].trigger->comment, "trig");
  }
  EXPECT_FALSE(r.data_groups[3].trigger.has_value());
}

// Sorting in place goes through a temporary file that replaces the source.
TEST_F(Sort, InPlace) {
  const std::string s = path("in.mdf"), other_name = (dir_ / "." / "in.mdf").string();
  for (const char* target :
       {s.c_str(), other_name.c_str(), "", static_cast<const char*>(nullptr)}) {
    write(base());
    const auto cwd_before = files_in(".");
    ASSERT_EQ(mdfSort(s.c_str(), target), 0);
    expect_sorted(base(), s, kAll);
    EXPECT_EQ(std::make_pair(files_in(dir_), files_in(".")), std::make_pair(size_t{1}, cwd_before));
  }
}

TEST_F(Sort, RefusedFilesAndTargets) {
  const std::string s = write(base()), missing = path("missing.mdf");
  EXPECT_EQ(mdfSort(s.c_str(), path("no/out.mdf").c_str()), MDF_NO_TARGET_ACCESS);
  EXPECT_EQ(mdfSort(missing.c_str(), nullptr), MDF_FILE_NOT_OPENED);
  EXPECT_EQ(mdfTestSort(s.c_str()), MDF_NOT_SORTED);
  EXPECT_EQ(mdfTestSort(missing.c_str()), MDF_FILE_NOT_OPENED);
  mdfClose();
  EXPECT_EQ(mdfTestSort(s.c_str()), MDF_ERR_NOT_INITIALIZED);
  EXPECT_EQ(mdfSort(s.c_str(), nullptr), MDF_ERR_NOT_INITIALIZED);
}

// The clock of the progress protocol: every look moves it by g_step ms.
uint32_t g_now = 0;
uint32_t g_step = 0;
uint32_t tick() {
  return g_now += g_step;
}

struct Watch {
  std::vector<int> percents;
  int starts = 0, asks = 0;
  int abort_at = -1;  // abort at this many asks
};

// A parameter record for a sort of `s` into `d` reporting to `w`.
MdfSortParams watched(const std::string& s, const std::string& d, Watch& w) {
  MdfSortParams p = params(s, d);
  p.userData = &w;
  p.pfnStart = [](void* u) { ++static_cast<Watch*>(u)->starts; };
  p.pfnProgress = [](int percent, void* u) { static_cast<Watch*>(u)->percents.push_back(percent); };
  p.pfnAbort = [](void* u) {
    auto* watch = static_cast<Watch*>(u);
    return ++watch->asks == watch->abort_at ? 1 : 0;
  };
  return p;
}

// Reports come at most every 500 ms, only with a rising percent, and end with 100. An abort at
// any point leaves the source as it was and no target behind. (The Python tests stop a sort in
// place.)
TEST_F(Sort, ProgressIsThrottledAndAbortLeavesNothingBehind) {
  korvel::sort::set_tick_source(&tick);
  const std::string s = write(base()), d = path("out.mdf");
  const auto bytes = mdftest::load_file(s);
  g_step = 501;
  for (int abort_at : {-1, 1, 3, 5, 8}) {
    SCOPED_TRACE(abort_at);
    restart();
    Watch w{{}, 0, 0, abort_at};
    MdfSortParams p = watched(s, d, w);
    EXPECT_EQ(mdfSortWithProgress(&p), abort_at < 0 ? 0 : MDF_ERR_USER_ABORT);
    const auto& seen = w.percents;
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
    EXPECT_EQ(std::make_tuple(w.starts, seen.front(), seen.back()), std::make_tuple(1, 1, 100));
    EXPECT_TRUE(abort_at >= 0 || std::find(seen.begin(), seen.end(), 20) != seen.end());
    EXPECT_EQ(mdftest::load_file(s), bytes);
    EXPECT_EQ(files_in(dir_), abort_at < 0 ? 2u : 1u);
    fs::remove(d);
  }
  // With the clock standing still no report is due and nobody is asked about an abort.
  restart();
  g_step = 0;
  Watch quiet{{}, 0, 0, 1};
  MdfSortParams p = watched(s, d, quiet);
  EXPECT_EQ(mdfSortWithProgress(&p), 0);
  EXPECT_EQ(std::make_tuple(quiet.starts, quiet.asks, quiet.percents.size()),
            std::make_tuple(1, 0, size_t{0}));
}

// Counts declare regions of several GiB while the records are few: the data area is laid out
// for the declared counts, so the rule for data beyond 4 GiB applies to a small file.
TEST_F(Sort, DataAreaBeyondFourGiB) {
  // Sorts channel groups of the given record sizes and declared counts (two records each) into
  // the target `name`.
  const auto sort = [&](std::vector<std::pair<uint16_t, uint32_t>> groups, const char* name) {
    FileModel f;
    auto& dg = f.add_data_group(1);
    for (size_t g = 0; g < groups.size(); ++g) {
      auto& cg = dg.add_channel_group(groups[g].first, static_cast<uint16_t>(g + 1));
      cg.add_channel("x", 0, 8, 0);
      cg.records.resize(2, std::vector<uint8_t>(groups[g].first));
      cg.record_count = groups[g].second;
    }
    restart();
    return mdfSort(write(f).c_str(), path(name).c_str());
  };
  // A (1 GiB), B (3.5 GiB), C (16 bytes): B, the last group larger than the excess, moves
  // behind C so that it starts below 4 GiB. The data links are read from the head of the file
  // (its data area is sparse and far too large to read whole).
  ASSERT_EQ(sort({{256, 1u << 22}, {256, 7u << 21}, {8, 2}}, "a.mdf"), MDF_CYCLES_DECREASED);
  std::ifstream in(path("a.mdf"), std::ios::binary);
  mdftest::Image head;
  head.bytes.resize(1 << 16);
  in.read(reinterpret_cast<char*>(head.bytes.data()), 1 << 16);
  std::vector<uint32_t> links;
  for (uint32_t dg = head.u32(64 + 4); dg != 0; dg = head.u32(dg + 4))
    links.push_back(head.u32(dg + 16));
  ASSERT_EQ(links.size(), 3u);
  EXPECT_EQ(links,
            (std::vector<uint32_t>{links[0], links[0] + (1u << 30) + 16, links[0] + (1u << 30)}));
  // Three regions of 2 GiB: none is larger than the excess.
  EXPECT_EQ(sort({{256, 1u << 23}, {256, 1u << 23}, {256, 1u << 23}}, "b.mdf"),
            MDF_ERR_FILE_TOO_LARGE);
  EXPECT_FALSE(fs::exists(path("b.mdf")));
}

}  // namespace
