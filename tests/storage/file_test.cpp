#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
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

using FileApi = mdftest::Session;

// A small sorted file: one data group, one channel group with two channels.
mdftest::FileModel small_file() {
  mdftest::FileModel f;
  auto& dg = f.add_data_group();
  auto& cg = dg.add_channel_group(8);
  auto& t = cg.add_channel("time", 0, 32, 2, 1);
  t.conversion = mdftest::linear(0.0, 0.5, "s");
  auto& v = cg.add_channel("speed", 32, 32, 0);
  v.conversion = t.conversion;  // shared conversion block
  cg.add_record();
  return f;
}

// Refused opens; a created file: the identification with the program's name, the header with
// its defaults or with the fields set before the close (a full project field has no terminator).
TEST_F(FileApi, RefusedOpensAndCreatedFiles) {
  mdf_file* file = nullptr;
  EXPECT_EQ(mdfFileOpen(&file, path("new.mdf").c_str(), 3), MDF_ERR_OPEN_MODE);
  EXPECT_FALSE(fs::exists(path("new.mdf")));
  restart();
  EXPECT_EQ(mdfFileOpen(&file, path("missing.mdf").c_str(), MDF_OPEN_READ), MDF_FILE_NOT_OPENED);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(mdfGetErrorCode(), 0);  // positive: not sticky, but logged with the file name
  const std::string line = ("could not open file " + path("missing.mdf")).substr(0, 100);
  EXPECT_NE(mdftest::slurp("KORVEL.LOG").find(line), std::string::npos);
  mdfClose();
  EXPECT_EQ(mdfFileOpen(&file, path("new.mdf").c_str(), MDF_OPEN_CREATE), MDF_ERR_NOT_INITIALIZED);
  ASSERT_EQ(mdfOpen("TESTPROGRAM"), 0);                               // cut to its 8 characters
  write(mdftest::Image{std::vector<uint8_t>(1000, 'x')}, "new.mdf");  // replaced by the create
  ASSERT_EQ(mdfFileClose(open_file(path("new.mdf"), MDF_OPEN_CREATE)), 0);
  const auto bytes = mdftest::load_file(path("new.mdf"));
  ASSERT_EQ(bytes.size(), 64u + 208u);
  // Little-endian (0), IEEE (0), version 320, then zeros up to the header.
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 64),
            std::string("MDF     3.20    TESTPROG\0\0\0\0\x40\x01", 30) + std::string(34, '\0'));
  // No name gives KORVEL; a short name is padded with zeros.
  for (const auto& [given, id] :
       {std::pair<const char*, std::string>{nullptr, std::string("KORVEL\0\0", 8)},
        {"XY", std::string("XY\0\0\0\0\0\0", 8)}}) {
    mdfClose();
    ASSERT_EQ(mdfOpen(given), 0);
    ASSERT_EQ(mdfFileClose(open_file(path("id.mdf"), MDF_OPEN_CREATE)), 0);
    const auto other = mdftest::load_file(path("id.mdf"));
    EXPECT_EQ(std::string(other.begin() + 16, other.begin() + 24), id);
  }
  const auto r = mdftest::read_bytes(bytes);
  ASSERT_TRUE(r.ok()) << r.error_text();
  const auto& h = r.header;
  EXPECT_EQ(
      std::make_tuple(h.offset, h.block_size, h.author, h.timer_id, h.first_dg_link, h.dg_count),
      std::make_tuple(64u, 208, "KORVEL", "Local PC Reference Time", 0u, 0));
  EXPECT_EQ(
      std::make_tuple(h.date.size(), h.date[2], h.date[5], h.time.size(), h.timestamp_ns != 0),
      std::make_tuple(10u, ':', ':', 8u, true));

  file = open_file(path("h.mdf"), MDF_OPEN_CREATE);
  ASSERT_EQ(mdfFileSetInfo(file, "24:12:2025", "18:30:00", "a comment", "Ann", "Test bench",
                           "Project X", "Car 7"),
            0);
  ASSERT_EQ(mdfFileSetProject(file, std::string(40, 'p').c_str()), 0);
  ASSERT_EQ(mdfFileClose(file), 0);
  // An explicit date replaces the stamp; the comment is appended behind the header at close.
  const auto set = mdftest::read_file(path("h.mdf"));
  ASSERT_TRUE(set.ok()) << set.error_text();
  const auto& s = set.header;
  EXPECT_EQ(std::make_tuple(s.date, s.time, s.author, s.organization, s.project, s.subject,
                            s.timestamp_ns, s.comment, s.comment_link),
            std::make_tuple("24:12:2025", "18:30:00", "Ann", "Test bench", std::string(32, 'p'),
                            "Car 7", 0u, "a comment", 64u + 208u));
}

// Every close in modify mode appends the comment again (TX head, text, zero byte); a date set
// in a header of an older, shorter layout keeps its size; an empty text removes the comment.
TEST_F(FileApi, ModifiedHeaderKeepsItsSizeAndAppendsItsComment) {
  auto f = small_file();
  f.header.block_size = 164;
  f.header.comment = "old comment";
  const auto in = write(f);
  const auto size0 = fs::file_size(in);
  for (int i = 1; i <= 2; ++i) {
    ASSERT_EQ(mdfFileClose(open_file(in, MDF_OPEN_MODIFY)), 0);
    EXPECT_EQ(fs::file_size(in), size0 + i * (4 + 12u));
  }
  EXPECT_EQ(mdftest::read_file(in).header.comment, "old comment");
  mdf_file* file = open_file(in, MDF_OPEN_MODIFY);
  const char *before = nullptr, *after = nullptr;
  ASSERT_EQ(mdfFileGetText(file, &before), 0);
  EXPECT_STREQ(before, "old comment");
  ASSERT_EQ(mdfFileSetDate(file, "01:02:2003"), 0);
  ASSERT_EQ(mdfFileSetText(file, ""), 0);
  ASSERT_EQ(mdfFileGetText(file, &after), 0);
  EXPECT_STREQ(after, "");
  ASSERT_EQ(mdfFileClose(file), 0);
  const auto r = mdftest::read_file(in);
  ASSERT_TRUE(r.ok()) << r.error_text();
  EXPECT_EQ(std::make_tuple(r.header.block_size, r.header.date, r.header.comment_link),
            std::make_tuple(164, "01:02:2003", 0u));
}

// A VAX D file reads as IEEE and refuses modify. Channel blocks of each size read with their
// links; a float type that contradicts the bit count is repaired.
TEST_F(FileApi, ChannelBlocksOfAVaxDFileAsRead) {
  struct Case {
    uint16_t size, data_type, bits, expected_type, links;
  };
  const Case cases[] = {{218, 2, 64, 3, 5},
                        {222, 3, 32, 2, 6},
                        {228, 2, 32, 2, 7},
                        {228, 3, 64, 3, 7},
                        {240, 0, 16, 0, 7}};
  auto f = small_file();
  f.id.float_format = 2;
  // VAX D, worked out here: sign, exponent + 128 and a 55-bit fraction in four 16-bit words,
  // the most significant word first, each little-endian.
  f.encode_real = [](double v) {
    std::array<uint8_t, 8> out{};
    if (v == 0.0) return out;
    int e = 0;
    const double m = std::frexp(std::fabs(v), &e);  // m in [0.5, 1)
    const auto fraction = static_cast<uint64_t>(std::ldexp(m * 2.0 - 1.0, 55));
    const uint64_t bits = (uint64_t{v < 0} << 63) | (uint64_t(e + 128) << 55) | fraction;
    for (int w = 0; w < 4; ++w) {
      const auto word = static_cast<uint16_t>(bits >> (48 - 16 * w));
      out[2 * w] = static_cast<uint8_t>(word);
      out[2 * w + 1] = static_cast<uint8_t>(word >> 8);
    }
    return out;
  };
  auto& group = f.data_groups[0].channel_groups[0];
  group.channels[1].range_valid = 1;
  group.channels[1].min = -1.5;
  group.channels[1].max = 1000.25;
  group.channels[1].sample_rate = 0.01;
  for (const auto& c : cases) group.add_channel("x", 0, c.bits, c.data_type).block_size = c.size;
  const auto in = write(f);
  mdf_file* file = open_file(in);
  using namespace korvel::layout;
  const auto link = [&](Node* from, uint32_t field) {
    return korvel::resolve_link(file->tree, from, field);
  };
  Node* first = link(link(link(file->header, hd::kFirstDg), dg::kFirstCg), cg::kFirstCn);
  Node* speed = link(first, cn::kNext);
  ASSERT_NE(speed, nullptr);
  // The shared conversion is converted once: factor 0.5 stays 0.5.
  Node* conversion = link(speed, cn::kConversion);
  const auto f64 = [](const Node* n, std::size_t at) { return korvel::load_f64(n->image + at); };
  EXPECT_EQ(std::make_tuple(f64(speed, cn::kMinimum), f64(speed, cn::kMaximum),
                            f64(conversion, cc::kParams + 8)),
            std::make_tuple(-1.5, 1000.25, 0.5));
  EXPECT_DOUBLE_EQ(f64(speed, cn::kSampleRate), 0.01);
  Node* x = speed;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    x = link(x, cn::kNext);
    ASSERT_NE(x, nullptr);
    EXPECT_EQ(korvel::load_le16(x->image + cn::kDataType), c.expected_type);
    EXPECT_EQ(x->link_count, c.links);
  }
  ASSERT_EQ(mdfFileClose(file), 0);
  EXPECT_EQ(mdfFileOpen(&file, in.c_str(), MDF_OPEN_MODIFY), MDF_ERR_FLOAT_FORMAT);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FLOAT_FORMAT);
}

// Damaged and hostile files: each must end the open with its status, never hang or crash.
// Damaged files kept as data (damaged/*.mdf), each with the status its open gives, whether
// that status sticks, and what a probe on the opened file returns; the file is never changed.
TEST_F(FileApi, DamagedFilesGiveTheirStatuses) {
  std::ifstream list(KORVEL_DAMAGED_DIR "/statuses.txt");
  std::string line;
  int replayed = 0;
  while (std::getline(list, line)) {
    std::istringstream row(line);
    std::string name, probe;
    int mode = 0, status = 0, sticky = 0, probe_status = 0;
    if (line.empty() || line[0] == '#' || !(row >> name >> mode >> status >> sticky)) continue;
    row >> probe >> probe_status;
    SCOPED_TRACE(name);
    ++replayed;
    restart();
    const auto in = mdftest::copy_writable(KORVEL_DAMAGED_DIR "/" + name + ".mdf", dir_).string();
    const auto before = mdftest::load_file(in);
    mdf_file* file = nullptr;
    EXPECT_EQ(mdfFileOpen(&file, in.c_str(), static_cast<uint16_t>(mode)), status);
    EXPECT_EQ(mdfGetErrorCode(), sticky ? status : 0);
    if (status != 0) {
      EXPECT_EQ(file, nullptr);
      continue;
    }
    mdf_group* g = probe.empty() ? nullptr : mdftest::open_group(file, 1, uint16_t(mode));
    channelnode* ch = nullptr;
    if (g != nullptr) mdfChnOpen(&ch, g, 1);
    double value = 0;
    int16_t got = 0;
    if (probe == "write1") {
      EXPECT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_ABS), 0);
      got = mdfGrpWrite(g);
    } else if (probe == "seekfar") {
      got = mdfGrpSeek(g, 0x7FFFFFFF, MDF_SEEK_ABS);
    } else if (probe == "read2") {
      mdfChnReadPhy(&value, ch);
      got = mdfChnReadPhy(&value, ch);
    } else if (probe == "table") {
      // Counts are handed out as stored, with memory behind every entry counted.
      const uint16_t* count = nullptr;
      const void* points = nullptr;
      got = mdfChnGetFormTab(ch, nullptr, nullptr, &count, &points);
      const auto* p = static_cast<const double*>(points);
      EXPECT_EQ(std::make_pair(*count, p[9]), std::make_pair(uint16_t{0xFFFF}, 40.0));
      for (uint32_t i = 10; i < 2u * 0xFFFF; ++i) EXPECT_EQ(p[i], 0.0) << i;
    }
    EXPECT_EQ(got, probe_status);
    EXPECT_EQ(mdfFileClose(file), 0);
    EXPECT_EQ(mdftest::load_file(in), before);
  }
  EXPECT_GE(replayed, 30);
}

}  // namespace
