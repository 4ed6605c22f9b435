#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>

#include "frame/bytes.h"
#include "korvel.h"
#include "storage/block.h"
#include "storage/node.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;
using korvel::Node;

class FileApi : public ::testing::Test {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    dir_ = mdftest::scratch_dir("korvel_file");
  }
  void TearDown() override {
    mdfClose();
    fs::remove_all(dir_);
  }
  std::string path(const char* name) const { return (dir_ / name).string(); }
  std::string write(const mdftest::Built& built, const char* name = "in.mdf") {
    mdftest::write_file(path(name), built.bytes);
    return path(name);
  }
  fs::path dir_;
};

// A small sorted file: one data group, one channel group with two channels.
mdftest::FileModel small_file() {
  mdftest::FileModel f;
  auto& dg = f.add_data_group();
  auto& cg = dg.add_channel_group(8);
  auto& t = cg.add_channel("time", 0, 32, 2, 1);
  t.conversion = mdftest::linear(0.0, 0.5, "s");
  auto& v = cg.add_channel("speed", 32, 32, 0);
  v.conversion = t.conversion;  // shared conversion block
  v.comment = "vehicle speed";
  t.comment = v.comment;  // shared text block
  cg.add_record();
  return f;
}

TEST_F(FileApi, CreateAndCloseWritesIdentificationAndHeader) {
  mdfClose();
  ASSERT_EQ(mdfOpen("TESTPROG"), 0);
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, path("new.mdf").c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto bytes = mdftest::load_file(path("new.mdf"));
  ASSERT_EQ(bytes.size(), 64u + 208u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 24), "MDF     3.20    TESTPROG");
  EXPECT_EQ(bytes[24] | bytes[25] << 8, 0);  // little-endian
  EXPECT_EQ(bytes[26] | bytes[27] << 8, 0);  // IEEE
  EXPECT_EQ(bytes[28] | bytes[29] << 8, 320);
  for (size_t i = 30; i < 64; ++i) EXPECT_EQ(bytes[i], 0) << i;
  const auto r = mdftest::read_bytes(bytes);
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_EQ(r.header.offset, 64u);
  EXPECT_EQ(r.header.block_size, 208);
  EXPECT_EQ(r.header.author, "KORVEL");
  EXPECT_EQ(r.header.timer_id, "Local PC Reference Time");
  EXPECT_EQ(r.header.first_dg_link, 0u);
  EXPECT_EQ(r.header.dg_count, 0);
  ASSERT_EQ(r.header.date.size(), 10u);
  EXPECT_EQ(r.header.date[2], ':');
  EXPECT_EQ(r.header.date[5], ':');
  EXPECT_EQ(r.header.time.size(), 8u);
  EXPECT_NE(r.header.timestamp_ns, 0u);
}

TEST_F(FileApi, HeaderFieldsSurviveCloseAndReopen) {
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, path("h.mdf").c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfFileSetInfo(file, "24:12:2025", "18:30:00", "a comment", "Ann", "Test bench",
                           "Project X", "Car 7"),
            0);
  const std::string long32(40, 'p');
  ASSERT_EQ(mdfFileSetProject(file, long32.c_str()), 0);
  ASSERT_EQ(mdfFileClose(file), 0);

  ASSERT_EQ(mdfFileOpen(&file, path("h.mdf").c_str(), MDF_OPEN_READ), 0);
  const char *date, *time, *text, *name, *division, *project, *subject;
  ASSERT_EQ(mdfFileGetInfo(file, &date, &time, &text, &name, &division, &project, &subject), 0);
  EXPECT_STREQ(date, "24:12:2025");
  EXPECT_STREQ(time, "18:30:00");
  EXPECT_STREQ(text, "a comment");
  EXPECT_STREQ(name, "Ann");
  EXPECT_STREQ(division, "Test bench");
  EXPECT_EQ(std::string(project, 32), std::string(32, 'p'));  // full field, no terminator
  EXPECT_STREQ(subject, "Car 7");
  ASSERT_EQ(mdfFileClose(file), 0);

  const auto r = mdftest::read_file(path("h.mdf"));
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_EQ(r.header.timestamp_ns, 0u);  // an explicit date replaces the stamp
  EXPECT_EQ(r.header.comment, "a comment");
  EXPECT_EQ(r.header.comment_link, 64u + 208u);  // appended behind the header at close
}

TEST_F(FileApi, EmptyTextRemovesTheComment) {
  auto f = small_file();
  f.header.comment = "old comment";
  const auto in = write(mdftest::build(f));
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_MODIFY), 0);
  const char* text = nullptr;
  ASSERT_EQ(mdfFileGetText(file, &text), 0);
  EXPECT_STREQ(text, "old comment");
  ASSERT_EQ(mdfFileSetText(file, ""), 0);
  ASSERT_EQ(mdfFileGetText(file, &text), 0);
  EXPECT_STREQ(text, "");
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto r = mdftest::read_file(in);
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_EQ(r.header.comment_link, 0u);
}

TEST_F(FileApi, ModifyAppendsTheCommentAtEveryClose) {
  auto f = small_file();
  f.header.comment = "kept";
  const auto in = write(mdftest::build(f));
  const auto size0 = fs::file_size(in);
  for (int i = 1; i <= 2; ++i) {
    mdf_file* file = nullptr;
    ASSERT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_MODIFY), 0);
    ASSERT_EQ(mdfFileClose(file), 0);
    EXPECT_EQ(fs::file_size(in), size0 + i * (4 + 5u));
  }
  const auto r = mdftest::read_file(in);
  EXPECT_EQ(r.header.comment, "kept");
}

TEST_F(FileApi, SettingTheDateOfAnOldHeaderKeepsItsSize) {
  auto f = small_file();
  f.header.block_size = 164;
  const auto in = write(mdftest::build(f));
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_MODIFY), 0);
  ASSERT_EQ(mdfFileSetDate(file, "01:02:2003"), 0);
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto r = mdftest::read_file(in);
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_EQ(r.header.block_size, 164);
  EXPECT_EQ(r.header.date, "01:02:2003");
}

TEST_F(FileApi, RefusedCalls) {
  mdf_file* file = nullptr;
  mdfClose();
  EXPECT_EQ(mdfFileOpen(&file, path("y.mdf").c_str(), MDF_OPEN_CREATE), MDF_ERR_NOT_INITIALIZED);
  mdfOpen(nullptr);
  EXPECT_EQ(mdfFileOpen(&file, path("x.mdf").c_str(), 3), MDF_ERR_OPEN_MODE);
  EXPECT_FALSE(fs::exists(path("x.mdf")));
  EXPECT_EQ(mdfFileClose(nullptr), 0);
  mdfClose();
  mdfOpen(nullptr);
  EXPECT_EQ(mdfFileOpen(&file, path("missing.mdf").c_str(), MDF_OPEN_READ), MDF_FILE_NOT_OPENED);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(mdfGetErrorCode(), 0);  // positive: not sticky
  uint16_t groups = 0;
  uint32_t junk[64] = {};
  EXPECT_EQ(mdfFileGroups(&groups, reinterpret_cast<mdf_file*>(junk)), MDF_ERR_BAD_FILE);
  EXPECT_EQ(mdfFileIsSort(nullptr), MDF_ERR_BAD_FILE);  // the sticky error answers first
}

TEST_F(FileApi, SortednessAndGroupCount) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(1);
  dg.add_channel_group(4, 1).add_channel("a", 0, 32, 0);
  dg.add_channel_group(2, 2).add_channel("b", 0, 16, 0);
  f.add_data_group().add_channel_group(1).add_channel("c", 0, 8, 0);
  const auto in = write(mdftest::build(f));
  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_READ), 0);
  uint16_t groups = 0;
  EXPECT_EQ(mdfFileGroups(&groups, file), 0);
  EXPECT_EQ(groups, 3);
  EXPECT_EQ(mdfFileIsSort(file), MDF_NOT_SORTED);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  ASSERT_EQ(mdfFileClose(file), 0);

  const auto sorted = write(mdftest::build(small_file()), "sorted.mdf");
  ASSERT_EQ(mdfFileOpen(&file, sorted.c_str(), MDF_OPEN_READ), 0);
  EXPECT_EQ(mdfFileIsSort(file), 0);
  ASSERT_EQ(mdfFileClose(file), 0);
}

// Walks header -> first DG -> first CG -> first CN through the file's node tree.
Node* first_channel(mdf_file* file) {
  using namespace korvel::layout;
  Node* dg = korvel::resolve_link(file->tree, file->header, hd::kFirstDg);
  Node* cg = korvel::resolve_link(file->tree, dg, dg::kFirstCg);
  return korvel::resolve_link(file->tree, cg, cg::kFirstCn);
}

// VAX D encoding computed from the value's binary expansion: 0.1f x 2^(E-128), hidden bit.
std::array<uint8_t, 8> vax_d(double v) {
  std::array<uint8_t, 8> out{};
  if (v == 0.0) return out;
  int e = 0;
  const double m = std::frexp(std::fabs(v), &e);  // m in [0.5, 1)
  const uint64_t fraction = static_cast<uint64_t>(std::ldexp(m * 2.0 - 1.0, 55));
  const uint64_t bits = (uint64_t{v < 0} << 63) | (uint64_t(e + 128) << 55) | fraction;
  for (int w = 0; w < 4; ++w) {
    const uint16_t word = static_cast<uint16_t>(bits >> (48 - 16 * w));
    out[2 * w] = static_cast<uint8_t>(word);
    out[2 * w + 1] = static_cast<uint8_t>(word >> 8);
  }
  return out;
}

TEST_F(FileApi, VaxDFileReadsAsIeeeAndRefusesModify) {
  auto f = small_file();
  f.id.float_format = 2;
  f.encode_real = vax_d;
  auto& cn = f.data_groups[0].channel_groups[0].channels[1];
  cn.range_valid = 1;
  cn.min = -1.5;
  cn.max = 1000.25;
  cn.sample_rate = 0.01;
  const auto in = write(mdftest::build(f));

  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_READ), 0);
  Node* time = first_channel(file);
  Node* speed = korvel::resolve_link(file->tree, time, korvel::layout::cn::kNext);
  ASSERT_NE(speed, nullptr);
  EXPECT_EQ(korvel::load_f64(speed->image + korvel::layout::cn::kMinimum), -1.5);
  EXPECT_EQ(korvel::load_f64(speed->image + korvel::layout::cn::kMaximum), 1000.25);
  EXPECT_DOUBLE_EQ(korvel::load_f64(speed->image + korvel::layout::cn::kSampleRate), 0.01);
  // The shared conversion is converted once: factor 0.5 stays 0.5.
  Node* cc = korvel::resolve_link(file->tree, speed, korvel::layout::cn::kConversion);
  EXPECT_EQ(korvel::load_f64(cc->image + korvel::layout::cc::kParams + 8), 0.5);
  ASSERT_EQ(mdfFileClose(file), 0);

  EXPECT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_MODIFY), MDF_ERR_FLOAT_FORMAT);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FLOAT_FORMAT);
}

TEST_F(FileApi, ChannelBlockSizesAndFloatRepair) {
  struct Case {
    uint16_t size;
    uint16_t data_type, bits;
    uint16_t expected_type;
    uint16_t links;
  };
  const Case cases[] = {{218, 2, 64, 3, 5},
                        {222, 3, 32, 2, 6},
                        {228, 2, 32, 2, 7},
                        {228, 3, 64, 3, 7},
                        {240, 0, 16, 0, 7}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    mdftest::FileModel f;
    auto& ch = f.add_data_group().add_channel_group(8).add_channel("x", 0, c.bits, c.data_type);
    ch.block_size = c.size;
    if (c.size >= 222) ch.long_name = "a long name";
    const auto in = write(mdftest::build(f));
    mdf_file* file = nullptr;
    ASSERT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_READ), 0);
    Node* cn = first_channel(file);
    ASSERT_NE(cn, nullptr);
    EXPECT_EQ(korvel::load_le16(cn->image + korvel::layout::cn::kDataType), c.expected_type);
    EXPECT_EQ(cn->link_count, c.links);
    if (c.size >= 222) {
      Node* tx = korvel::resolve_link(file->tree, cn, korvel::layout::cn::kLongName);
      EXPECT_STREQ(korvel::text_of(tx), "a long name");
    }
    ASSERT_EQ(mdfFileClose(file), 0);
  }
}

// Damaged and hostile files: each must end the open with its status, never hang or crash.
TEST_F(FileApi, HostileFilesAreRefused) {
  using mdftest::Built;
  namespace off = mdftest::off;
  struct Case {
    const char* what;
    std::function<void(mdftest::FileModel&)> model;
    std::function<void(Built&)> damage;
    int16_t status;
    bool sticky;
    uint16_t mode = MDF_OPEN_READ;
    std::function<int16_t(mdf_file*)> probe = {};  // run on the opened file
    int16_t probe_status = 0;
  };
  auto none = [](mdftest::FileModel&) {};
  const uint32_t far = 0x7FFFFFF0u;
  // Enough records behind the blocks that blocks laid over them stay within the file's size.
  auto records = [](mdftest::FileModel& f) {
    for (int k = 0; k < 200; ++k) f.data_groups[0].channel_groups[0].add_record();
  };
  auto first_record = [](const Built& b) { return b.data_groups[0].channel_groups[0].records[0]; };
  auto header_over_records = [=](Built& b) {
    b.patch_u16(64 + off::block_size, static_cast<uint16_t>(first_record(b)));
  };
  auto data_on_channel = [](Built& b) {
    const auto& cns = b.data_groups[0].channel_groups[0].channels;
    b.patch_u32(b.data_groups[0].offset + off::dg_data, cns[1].offset);
  };
  auto group_of = [](mdf_file* file, uint16_t mode) {
    mdf_group* g = nullptr;
    mdfGrpOpen(&g, file, 1, mode);
    return g;
  };
  auto channel_of = [](mdf_group* g) {
    channelnode* ch = nullptr;
    mdfChnOpen(&ch, g, 1);
    return ch;
  };
  const Case cases[] = {
      {"wrong identifier", [](auto& f) { f.id.file_id = "MDX     "; }, [](Built&) {}, -2004, true},
      {"unfinished", [](auto& f) { f.id.file_id = "UnFinMF "; }, [](Built&) {}, -2004, true},
      {"byte 32 set", [](auto& f) { f.id.reserved32 = 1; }, [](Built&) {}, -2004, true},
      {"byte 33 set", [](auto& f) { f.id.reserved33 = 1; }, [](Built&) {}, -2004, true},
      {"unknown float format", [](auto& f) { f.id.float_format = 3; }, [](Built&) {}, -2012, true},
      {"truncated identification", none, [](Built& b) { b.truncate(40); }, -2001, true},
      {"no header", none, [](Built& b) { b.truncate(64); }, -2001, true},
      {"header is no HD", none, [](Built& b) { b.patch_chars(64, 2, "DG"); }, -2004, true},
      {"DG next to itself", none,
       [](Built& b) {
         b.patch_u32(b.data_groups[0].offset + off::dg_next, b.data_groups[0].offset);
       },
       -2004, true},
      {"DG next back to the first", [](auto& f) { f.add_data_group(); },
       [](Built& b) {
         b.patch_u32(b.data_groups[1].offset + off::dg_next, b.data_groups[0].offset);
       },
       -2004, true},
      {"CN chain loops", none,
       [](Built& b) {
         const auto& cns = b.data_groups[0].channel_groups[0].channels;
         b.patch_u32(cns[1].offset + off::cn_next, cns[0].offset);
       },
       -2004, true},
      {"CG chain loops", none,
       [](Built& b) {
         const auto& cg = b.data_groups[0].channel_groups[0];
         b.patch_u32(cg.offset + off::cg_next, cg.offset);
       },
       -2004, true},
      {"SR chain loops",
       [](auto& f) {
         auto& cg = f.data_groups[0].channel_groups[0];
         cg.block_size = 30;
         cg.sample_reductions.resize(2);
       },
       [](Built& b) {
         const auto& srs = b.data_groups[0].channel_groups[0].sample_reductions;
         b.patch_u32(srs[1] + off::sr_next, srs[0]);
       },
       -2004, true},
      {"link beyond the end", none,
       [&](Built& b) { b.patch_u32(b.data_groups[0].offset + off::dg_first_cg, far); }, -2001,
       true},
      {"block runs past the end", none,
       [](Built& b) {
         const auto& cns = b.data_groups[0].channel_groups[0].channels;
         b.patch_u16(cns[0].offset + off::block_size, 0xFFF0);
       },
       -2001, true},
      {"block size below 4", none,
       [](Built& b) { b.patch_u16(b.data_groups[0].offset + off::block_size, 2); }, -2004, false},
      {"unknown block identifier", none,
       [](Built& b) { b.patch_chars(b.data_groups[0].offset, 2, "XY"); }, -2004, false},
      {"channel block too short", none,
       [](Built& b) {
         const auto& cns = b.data_groups[0].channel_groups[0].channels;
         b.patch_u16(cns[0].offset + off::block_size, 100);
       },
       -2004, false},
      {"conversion link to a channel", none,
       [](Built& b) {
         const auto& cns = b.data_groups[0].channel_groups[0].channels;
         b.patch_u32(cns[0].offset + off::cn_conversion, cns[1].offset);
       },
       -2004, true},
      {"three record identifiers", none,
       [](Built& b) { b.patch_u16(b.data_groups[0].offset + off::dg_record_ids, 3); }, -2004,
       false},
      {"blocks laid over each other",
       [](auto& f) {
         auto& cns = f.data_groups[0].channel_groups[0].channels;
         // A long comment whose text holds the head of another long text block.
         std::string text(30000, 'x');
         text.replace(100, 4, std::string("TX\x00\x20", 4));  // 8192 bytes, inside the file
         cns[0].comment = text;
         cns[1].comment = "placeholder";
       },
       [](Built& b) {
         const auto& cns = b.data_groups[0].channel_groups[0].channels;
         b.patch_u32(cns[1].offset + off::cn_comment, cns[0].comment + 4 + 100);
       },
       -2004, false},
      {"absurd range-table count",
       [](auto& f) {
         f.data_groups[0].channel_groups[0].channels[0].conversion =
             mdftest::range_table({{0, 1, std::string("{EVAL \"2*{X}\"}")}});
       },
       [](Built& b) {
         const auto& cn = b.data_groups[0].channel_groups[0].channels[0];
         b.patch_u16(cn.conversion + off::cc_count, 0xFFFF);
       },
       0, false},
      {"absurd dependency count",
       [](auto& f) {
         f.data_groups[0].channel_groups[0].channels[0].dependency = mdftest::dependency(0, {});
       },
       [](Built& b) {
         const auto& cn = b.data_groups[0].channel_groups[0].channels[0];
         b.patch_u16(cn.dependency + off::cd_count, 0xFFFF);
       },
       -2004, false},
      // Blocks over records or over each other: never modified, read as far as they go.
      {"header over the records", records, header_over_records, -2004, true, MDF_OPEN_MODIFY},
      {"header over the records, read", records, header_over_records, 0, false},
      {"channel group over the records",
       [=](auto& f) {
         records(f);
         f.data_groups[0].channel_groups[0].block_size = 30;
       },
       [=](Built& b) {
         const uint32_t cg = b.data_groups[0].channel_groups[0].offset;
         b.patch_u16(cg + off::block_size, static_cast<uint16_t>(first_record(b) + 8 - cg));
       },
       -2004, true, MDF_OPEN_MODIFY},
      {"data position on a channel", none, data_on_channel, -2004, true, MDF_OPEN_MODIFY},
      {"data position on a channel, read", none, data_on_channel, 0, false},
      {"data position on the header", none,
       [](Built& b) { b.patch_u32(b.data_groups[0].offset + off::dg_data, 64); }, -2004, true,
       MDF_OPEN_MODIFY},
      {"record found on a block is not written",
       [](auto& f) {
         // Records of "a" are led by 'D': the scan for its second record, past the one
         // record of "b" that no count declares, lands on the next data group's head.
         auto& dg = f.data_groups.emplace_front();
         dg.record_ids = 1;
         auto& a = dg.add_channel_group(4, 'D');
         a.add_channel("a", 0, 32, 0);
         a.add_record();
         a.record_count = 2;
         auto& b = dg.add_channel_group(10, 2);
         b.add_channel("b", 0, 8, 0);
         b.add_record();
         b.record_count = 0;
         dg.order = {0, 1};
       },
       [](Built&) {}, 0, false, MDF_OPEN_MODIFY,
       [=](mdf_file* file) {
         mdf_group* g = group_of(file, MDF_OPEN_MODIFY);
         EXPECT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_ABS), 0);
         return mdfGrpWrite(g);
       },
       -2004},
      // Walks bounded by the bytes present, not by the counts claimed.
      {"far seek, several channel groups without identifiers",
       [](auto& f) { f.data_groups[0].add_channel_group(2).add_channel("c", 0, 16, 0); },
       [](Built& b) {
         b.patch_u32(b.data_groups[0].channel_groups[0].offset + off::cg_record_count, ~0u);
       },
       0, false, MDF_OPEN_READ,
       [=](mdf_file* file) {
         return mdfGrpSeek(group_of(file, MDF_OPEN_READ), 0x7FFFFFFF, MDF_SEEK_ABS);
       },
       MDF_END_OF_GROUP},
      {"records of size 0", none,
       [](Built& b) {
         const uint32_t cg = b.data_groups[0].channel_groups[0].offset;
         b.patch_u16(cg + off::cg_record_size, 0);
         b.patch_u32(cg + off::cg_record_count, ~0u);
       },
       0, false, MDF_OPEN_READ,
       [=](mdf_file* file) {
         mdf_group* g = group_of(file, MDF_OPEN_READ);
         channelnode* ch = channel_of(g);
         uint32_t declared = 0;
         mdfGrpRecords(&declared, g);
         EXPECT_EQ(declared, ~0u);
         double value = 0;
         mdfChnReadPhy(&value, ch);
         return mdfChnReadPhy(&value, ch);
       },
       MDF_END_OF_GROUP},
      // Counts handed out as stored, with memory behind them for every entry counted.
      {"table count beyond its block",
       [](auto& f) {
         f.data_groups[0].channel_groups[0].channels[0].conversion =
             mdftest::table(true, {{0, 0}, {1, 10}, {2, 20}, {3, 30}, {4, 40}});
       },
       [](Built& b) {
         const auto& cn = b.data_groups[0].channel_groups[0].channels[0];
         b.patch_u16(cn.conversion + off::cc_count, 0xFFFF);
       },
       0, false, MDF_OPEN_READ,
       [=](mdf_file* file) {
         const uint16_t* count = nullptr;
         const void* points = nullptr;
         const int16_t st = mdfChnGetFormTab(channel_of(group_of(file, MDF_OPEN_READ)), nullptr,
                                             nullptr, &count, &points);
         EXPECT_EQ(*count, 0xFFFF);
         const auto* p = static_cast<const double*>(points);
         EXPECT_EQ(p[9], 40.0);
         for (uint32_t i = 10; i < 2u * 0xFFFF; ++i) EXPECT_EQ(p[i], 0.0) << i;
         return st;
       },
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    auto f = small_file();
    c.model(f);
    auto built = mdftest::build(f);
    c.damage(built);
    const auto in = write(built);
    const auto before = mdftest::load_file(in);
    mdf_file* file = nullptr;
    EXPECT_EQ(mdfFileOpen(&file, in.c_str(), c.mode), c.status);
    EXPECT_EQ(mdfGetErrorCode(), c.sticky ? c.status : 0);
    if (c.status == 0) {
      if (c.probe) {
        EXPECT_EQ(c.probe(file), c.probe_status);
      }
      EXPECT_EQ(mdfFileClose(file), 0);
    } else {
      EXPECT_EQ(file, nullptr);
    }
    EXPECT_EQ(mdftest::load_file(in), before);  // the source is never touched
  }
}

}  // namespace

namespace {

// Thousands of randomly damaged files: every open ends with a status, and whatever opens can
// be walked group by group and record by record without leaving the file's bytes.
TEST_F(FileApi, RandomlyDamagedFilesNeverCrash) {
  auto f = small_file();
  f.header.comment = "header comment";
  auto& dg = f.add_data_group(1);
  for (uint16_t c = 1; c <= 2; ++c) {
    auto& cg = dg.add_channel_group(3, c);
    cg.block_size = 30;
    cg.sample_reductions.resize(1);
    cg.add_channel("u" + std::to_string(c), 0, 16, 0).conversion =
        mdftest::range_table({{0, 1, std::string("{EVAL \"2*{X}\"}")}});
    for (int k = 0; k < 3; ++k) cg.add_record();
  }
  const auto pristine = mdftest::build(f);
  std::mt19937 random(20261122);
  const std::string in = path("fuzz.mdf");
  int opened = 0;
  for (int round = 0; round < 1500; ++round) {
    auto bytes = pristine.bytes;
    const int flips = 1 + static_cast<int>(random() % 4);
    for (int i = 0; i < flips; ++i) {
      const size_t at = random() % bytes.size();
      switch (random() % 3) {
        case 0:
          bytes[at] = static_cast<uint8_t>(random());
          break;
        case 1:
          bytes[at] ^= static_cast<uint8_t>(1u << (random() % 8));
          break;
        default:  // a link-sized value pointing somewhere in or near the file
          if (at + 4 <= bytes.size()) {
            const uint32_t v = static_cast<uint32_t>(random() % (bytes.size() + 64));
            std::memcpy(bytes.data() + at, &v, 4);
          }
      }
    }
    if (random() % 8 == 0) bytes.resize(random() % bytes.size());
    mdftest::write_file(in, bytes);
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    mdf_file* file = nullptr;
    if (mdfFileOpen(&file, in.c_str(), MDF_OPEN_READ) != 0) {
      EXPECT_EQ(file, nullptr);
      continue;
    }
    ++opened;
    uint16_t groups = 0;
    mdfFileGroups(&groups, file);
    for (uint16_t n = 1; n <= groups && n <= 8; ++n) {
      mdf_group* g = nullptr;
      if (mdfGrpOpen(&g, file, n, 0) != 0) break;
      for (int k = 0; k < 16 && mdfGrpSeek(g, 1, MDF_SEEK_REL) == 0; ++k) {
      }
      mdfGrpClose(g);
    }
    mdfFileClose(file);
    EXPECT_EQ(mdftest::load_file(in), bytes);
  }
  EXPECT_GT(opened, 0);
}

}  // namespace
