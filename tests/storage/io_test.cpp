// Numbered files: statuses, positions and sizes as the unit keeps them, both access styles,
// and the read-ahead window's agreement with the file.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "korvel.h"
#include "platform/platform.h"
#include "storage/io.h"

namespace fs = std::filesystem;
namespace io = korvel::io;

namespace {

constexpr uint16_t kDescriptor = 0;
constexpr uint16_t kStream = io::kStreamStyle;

std::string read_log() {
  std::ifstream in("KORVEL.LOG", std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<uint8_t> pattern(std::size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  std::mt19937 rng(seed);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

class Io : public ::testing::Test {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::temp_directory_path() / (std::string("korvel_io_") + info->test_suite_name() + "_" +
                                        info->name() + "_" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    for (uint16_t n : open_) io::close(n);
    mdfClose();
    fs::remove_all(dir_);
  }

  std::string path(const char* name) const { return (dir_ / name).string(); }

  static void put(const std::string& name, const std::vector<uint8_t>& bytes) {
    std::ofstream out(name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
  }
  static std::vector<uint8_t> get(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  // Opens and remembers the number so that TearDown closes it.
  uint16_t open(const std::string& name, uint16_t flags, uint16_t buffer = 8192) {
    uint16_t n = 0;
    EXPECT_EQ(io::open(&n, name.c_str(), flags, buffer), 0) << name;
    if (n != io::kNoFile) open_.push_back(n);
    return n;
  }
  void close(uint16_t n) {
    io::close(n);
    std::erase(open_, n);
  }

  fs::path dir_;
  std::vector<uint16_t> open_;
};

// Most behaviours hold for both access styles.
class IoBothStyles : public Io, public ::testing::WithParamInterface<uint16_t> {};

INSTANTIATE_TEST_SUITE_P(Styles, IoBothStyles, ::testing::Values(kDescriptor, kStream),
                         [](const auto& p) {
                           return p.param == kStream ? "Stream" : "Descriptor";
                         });

// ---- Open and close --------------------------------------------------------------------------

TEST_P(IoBothStyles, OpeningAMissingFileGives1000AndNoNumber) {
  const std::string name = path("missing.mf4");
  for (uint16_t mode : {io::kRead, io::kModify}) {
    uint16_t n = 7;
    EXPECT_EQ(io::open(&n, name.c_str(), static_cast<uint16_t>(GetParam() | mode), 8192), 1000);
    EXPECT_EQ(n, io::kNoFile);
  }
  // Logged with the file name, but positive: not sticky.
  EXPECT_EQ(mdfGetErrorCode(), 0);
  EXPECT_NE(read_log().find("could not open file " + name), std::string::npos);
}

TEST_P(IoBothStyles, OpenStartsAtZeroWithTheFileLength) {
  const std::string name = path("f.bin");
  put(name, pattern(1234, 1));
  for (uint16_t mode : {io::kRead, io::kModify}) {
    const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | mode));
    EXPECT_EQ(io::tell(n), 0);
    EXPECT_EQ(io::known_size(n), 1234);
    close(n);
  }
}

TEST_P(IoBothStyles, CreateReplacesAnExistingFile) {
  const std::string name = path("f.bin");
  put(name, pattern(500, 2));
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kCreate));
  EXPECT_EQ(io::known_size(n), 0);
  EXPECT_EQ(fs::file_size(name), 0u);
  EXPECT_EQ(io::write("new", 3, n), 0);
  close(n);
  const std::vector<uint8_t> expected{'n', 'e', 'w'};
  EXPECT_EQ(get(name), expected);
}

TEST_P(IoBothStyles, SeveralFilesKeepTheirOwnPositions) {
  std::vector<uint16_t> numbers;
  for (int i = 0; i < 5; ++i) {
    const std::string name = path(("f" + std::to_string(i)).c_str());
    put(name, pattern(100, static_cast<uint32_t>(i)));
    numbers.push_back(open(name, GetParam()));
  }
  // Interleaved use, so the list order keeps changing.
  for (int round = 0; round < 10; ++round) {
    for (int i = 4; i >= 0; --i) {
      if ((round + i) % 3 == 0) continue;
      uint8_t b = 0;
      ASSERT_EQ(io::read(&b, 1, numbers[i]), 0);
    }
  }
  for (int i = 0; i < 5; ++i) {
    int expected = 0;
    for (int round = 0; round < 10; ++round) expected += (round + i) % 3 != 0;
    EXPECT_EQ(io::tell(numbers[i]), expected) << i;
    uint8_t b = 0;
    ASSERT_EQ(io::read(&b, 1, numbers[i]), 0);
    EXPECT_EQ(b, pattern(100, static_cast<uint32_t>(i))[expected]);
  }
}

// ---- Seek ------------------------------------------------------------------------------------

TEST_P(IoBothStyles, SeekOriginsAndSeekToEndIgnoresTheOffset) {
  const std::string name = path("f.bin");
  const auto data = pattern(1000, 3);
  put(name, data);
  const uint16_t n = open(name, GetParam());
  ASSERT_EQ(io::seek(n, 600, io::kFromStart), 0);
  ASSERT_EQ(io::seek(n, -100, io::kFromCurrent), 0);
  ASSERT_EQ(io::seek(n, 250, io::kFromCurrent), 0);
  EXPECT_EQ(io::tell(n), 750);
  uint8_t b[2];
  ASSERT_EQ(io::read(b, 2, n), 0);
  EXPECT_EQ(b[0], data[750]);
  EXPECT_EQ(b[1], data[751]);
  for (int64_t offset : {int64_t{0}, int64_t{999}, int64_t{-5}, int64_t{1} << 40}) {
    ASSERT_EQ(io::seek(n, 0, io::kFromStart), 0);
    EXPECT_EQ(io::seek(n, offset, io::kToEnd), 0);
    EXPECT_EQ(io::tell(n), 1000) << offset;
    EXPECT_EQ(io::known_size(n), 1000);
  }
}

TEST_P(IoBothStyles, SeekToTheCurrentPositionMakesNoSystemCall) {
  const std::string name = path("f.bin");
  put(name, pattern(100, 5));
  const uint16_t n = open(name, GetParam());
  ASSERT_EQ(io::seek(n, 40, io::kFromStart), 0);
  const uint64_t calls = korvel::platform::file_call_count();
  EXPECT_EQ(io::seek(n, 40, io::kFromStart), 0);
  EXPECT_EQ(io::seek(n, 0, io::kFromCurrent), 0);
  EXPECT_EQ(io::tell(n), 40);
  EXPECT_EQ(io::known_size(n), 100);
  EXPECT_EQ(korvel::platform::file_call_count(), calls);
  // Seek to end at the end: nothing to do either.
  ASSERT_EQ(io::seek(n, 0, io::kToEnd), 0);
  const uint64_t at_end = korvel::platform::file_call_count();
  EXPECT_EQ(io::seek(n, 12345, io::kToEnd), 0);
  EXPECT_EQ(io::tell(n), 100);
  EXPECT_EQ(korvel::platform::file_call_count(), at_end);
}

TEST_P(IoBothStyles, SeekPastTheEndGrowsTheKnownSizeOnly) {
  const std::string name = path("f.bin");
  put(name, pattern(100, 6));
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kModify));
  ASSERT_EQ(io::seek(n, 150, io::kFromStart), 0);
  EXPECT_EQ(io::known_size(n), 150);
  EXPECT_EQ(fs::file_size(name), 100u);  // the file itself grows only when written
  ASSERT_EQ(io::seek(n, 0, io::kToEnd), 0);
  EXPECT_EQ(io::tell(n), 150);
  ASSERT_EQ(io::write("Z", 1, n), 0);
  ASSERT_EQ(io::flush(n), 0);
  EXPECT_EQ(io::known_size(n), 151);
  const auto bytes = get(name);
  ASSERT_EQ(bytes.size(), 151u);
  EXPECT_EQ(bytes[120], 0);
  EXPECT_EQ(bytes[150], 'Z');
}

TEST_P(IoBothStyles, SeekBeforeTheStartFailsWithTheOffsetAsContext) {
  struct Case {
    int64_t start;
    int64_t offset;
    int origin;
    const char* context;
  };
  const Case cases[] = {{10, -5, io::kFromStart, "-5"},
                        {10, -20, io::kFromCurrent, "-20"},
                        {10, INT64_MIN, io::kFromCurrent, "-9223372036854775808"}};
  const std::string name = path("f.bin");
  put(name, pattern(100, 7));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.context);
    mdfClose();  // each case starts without a stored error
    ASSERT_EQ(mdfOpen(nullptr), 0);
    const uint16_t n = open(name, GetParam());
    ASSERT_EQ(io::seek(n, c.start, io::kFromStart), 0);
    EXPECT_EQ(io::seek(n, c.offset, c.origin), MDF_ERR_SEEK);
    EXPECT_EQ(io::tell(n), 0);
    EXPECT_EQ(io::known_size(n), 100);
    EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_SEEK);
    EXPECT_EQ(std::string(mdfGetErrorText()),
              std::string("could not locate pos in file ") + c.context + "\n");
    // The file is at 0 again: the next read starts there.
    uint8_t b = 0;
    EXPECT_EQ(io::read(&b, 1, n), 0);
    EXPECT_EQ(b, pattern(100, 7)[0]);
    close(n);
    mdfClose();
  }
}

// ---- Write -----------------------------------------------------------------------------------

TEST_P(IoBothStyles, WritingPastTheSizeGrowsItWritingInsideKeepsIt) {
  const std::string name = path("f.bin");
  auto expected = pattern(100, 8);
  put(name, expected);
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kModify));
  const auto a = pattern(20, 80);
  ASSERT_EQ(io::seek(n, 10, io::kFromStart), 0);
  ASSERT_EQ(io::write(a.data(), 20, n), 0);
  EXPECT_EQ(io::tell(n), 30);
  EXPECT_EQ(io::known_size(n), 100);
  std::copy(a.begin(), a.end(), expected.begin() + 10);

  const auto b = pattern(10, 81);
  ASSERT_EQ(io::seek(n, 95, io::kFromStart), 0);
  ASSERT_EQ(io::write(b.data(), 10, n), 0);
  EXPECT_EQ(io::tell(n), 105);
  EXPECT_EQ(io::known_size(n), 105);
  expected.resize(95);
  expected.insert(expected.end(), b.begin(), b.end());

  ASSERT_EQ(io::seek(n, 0, io::kFromStart), 0);
  ASSERT_EQ(io::write(a.data(), 5, n), 0);
  EXPECT_EQ(io::known_size(n), 105);
  std::copy(a.begin(), a.begin() + 5, expected.begin());
  close(n);
  EXPECT_EQ(get(name), expected);
}

TEST_P(IoBothStyles, WriteToAReadOnlyFileFailsAndRewinds) {
  const std::string name = path("f.bin");
  const auto data = pattern(64, 9);
  put(name, data);
  const uint16_t n = open(name, GetParam());
  ASSERT_EQ(io::seek(n, 8, io::kFromStart), 0);
  // A stream may hold the bytes in its buffer; flushing makes the failure certain.
  int16_t status = io::write("abcd", 4, n);
  if (status == 0) {
    io::flush(n);
    status = io::write(std::vector<uint8_t>(20000).data(), 20000, n);
  }
  EXPECT_EQ(status, MDF_ERR_WRITE);
  EXPECT_EQ(io::tell(n), 0);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_WRITE);
  close(n);
  EXPECT_EQ(get(name), data);
}

TEST_P(IoBothStyles, ZeroByteTransfersChangeNothing) {
  const std::string name = path("f.bin");
  put(name, pattern(10, 10));
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kModify));
  ASSERT_EQ(io::seek(n, 10, io::kFromStart), 0);
  uint8_t b = 0;
  EXPECT_EQ(io::read(&b, 0, n), 0);
  EXPECT_EQ(io::write(&b, 0, n), 0);
  EXPECT_EQ(io::tell(n), 10);
  EXPECT_EQ(io::known_size(n), 10);
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// ---- Set size --------------------------------------------------------------------------------

TEST_P(IoBothStyles, SetSizeBelowThePositionMovesItToTheNewEnd) {
  const std::string name = path("f.bin");
  const auto data = pattern(100, 11);
  put(name, data);
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kModify));
  ASSERT_EQ(io::seek(n, 80, io::kFromStart), 0);
  ASSERT_EQ(io::set_size(n, 50), 0);
  EXPECT_EQ(io::tell(n), 50);
  EXPECT_EQ(io::known_size(n), 50);
  EXPECT_EQ(fs::file_size(name), 50u);
  ASSERT_EQ(io::write("E", 1, n), 0);
  EXPECT_EQ(io::known_size(n), 51);

  // Growing leaves the position alone and fills with zeros.
  ASSERT_EQ(io::seek(n, 10, io::kFromStart), 0);
  ASSERT_EQ(io::set_size(n, 70), 0);
  EXPECT_EQ(io::tell(n), 10);
  EXPECT_EQ(io::known_size(n), 70);
  close(n);
  auto expected = std::vector<uint8_t>(data.begin(), data.begin() + 50);
  expected.push_back('E');
  expected.resize(70, 0);
  EXPECT_EQ(get(name), expected);
}

TEST_P(IoBothStyles, SetSizeKeepsBufferedWritesInside) {
  const std::string name = path("f.bin");
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kCreate));
  const auto data = pattern(300, 12);
  ASSERT_EQ(io::write(data.data(), 300, n), 0);
  ASSERT_EQ(io::set_size(n, 200), 0);
  ASSERT_EQ(io::write("xy", 2, n), 0);  // at 200, the new end
  close(n);
  auto expected = std::vector<uint8_t>(data.begin(), data.begin() + 200);
  expected.push_back('x');
  expected.push_back('y');
  EXPECT_EQ(get(name), expected);
}

TEST_P(IoBothStyles, SetSizeFailureGives2000CannotChangeSize) {
  const std::string name = path("f.bin");
  put(name, pattern(100, 13));
  const uint16_t n = open(name, GetParam());  // read only
  ASSERT_EQ(io::seek(n, 30, io::kFromStart), 0);
  EXPECT_EQ(io::set_size(n, 10), MDF_ERR_WRITE);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_WRITE);
  EXPECT_EQ(std::string(mdfGetErrorText()), "could not write file cannot change size\n");
  EXPECT_EQ(io::known_size(n), 100);
  EXPECT_EQ(io::tell(n), 30);
  EXPECT_EQ(fs::file_size(name), 100u);
  const uint16_t w = open(path("g.bin"), static_cast<uint16_t>(GetParam() | io::kCreate));
  EXPECT_EQ(io::set_size(w, -1), MDF_ERR_WRITE);
  EXPECT_EQ(io::known_size(w), 0);
}

// ---- Read ------------------------------------------------------------------------------------

TEST_P(IoBothStyles, ReadPastTheEndFailsRewindsAndSticks) {
  const std::string name = path("f.bin");
  const auto data = pattern(10, 14);
  put(name, data);
  const uint16_t n = open(name, GetParam());
  uint8_t buf[16];
  ASSERT_EQ(io::read(buf, 4, n), 0);
  EXPECT_EQ(io::tell(n), 4);
  EXPECT_EQ(io::read(buf, 10, n), MDF_ERR_READ);
  EXPECT_EQ(io::tell(n), 0);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_READ);
  EXPECT_EQ(std::string(mdfGetErrorText()), "could not read file \n");
  // The file is at 0 again.
  ASSERT_EQ(io::read(buf, 3, n), 0);
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + 3),
            std::vector<uint8_t>(data.begin(), data.begin() + 3));
  // The first error stays, a later one does not replace it.
  EXPECT_EQ(io::seek(n, -1, io::kFromStart), MDF_ERR_SEEK);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_READ);
}

TEST_P(IoBothStyles, ReadBetweenFileEndAndKnownSizeFails) {
  const std::string name = path("f.bin");
  put(name, pattern(10, 15));
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kModify));
  ASSERT_EQ(io::seek(n, 20, io::kFromStart), 0);  // known size 20, file still 10
  ASSERT_EQ(io::seek(n, 12, io::kFromStart), 0);
  uint8_t b;
  EXPECT_EQ(io::read(&b, 1, n), MDF_ERR_READ);
  EXPECT_EQ(io::known_size(n), 20);
}

TEST_P(IoBothStyles, BulkReadMovesMoreThan65535Bytes) {
  const std::string name = path("f.bin");
  const auto data = pattern(300000, 16);
  put(name, data);
  const uint16_t n = open(name, GetParam());
  std::vector<uint8_t> buf(200000);
  ASSERT_EQ(io::seek(n, 1000, io::kFromStart), 0);
  ASSERT_EQ(io::read_bulk(buf.data(), buf.size(), n), 0);
  EXPECT_EQ(io::tell(n), 201000);
  EXPECT_TRUE(std::equal(buf.begin(), buf.end(), data.begin() + 1000));
  EXPECT_EQ(io::read_bulk(buf.data(), buf.size(), n), MDF_ERR_READ);
  EXPECT_EQ(io::tell(n), 0);
}

TEST_P(IoBothStyles, ReadsAndWritesMayAlternateWithoutSeeks) {
  const std::string name = path("f.bin");
  auto expected = pattern(64, 17);
  put(name, expected);
  const uint16_t n = open(name, static_cast<uint16_t>(GetParam() | io::kModify));
  uint8_t b[4];
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(io::read(b, 4, n), 0);
    EXPECT_EQ(std::vector<uint8_t>(b, b + 4),
              std::vector<uint8_t>(expected.begin() + 8 * i, expected.begin() + 8 * i + 4));
    const uint8_t w[4] = {uint8_t(i), uint8_t(i), uint8_t(i), uint8_t(i)};
    ASSERT_EQ(io::write(w, 4, n), 0);
    std::fill(expected.begin() + 8 * i + 4, expected.begin() + 8 * i + 8, static_cast<uint8_t>(i));
  }
  EXPECT_EQ(io::tell(n), 64);
  ASSERT_EQ(io::seek(n, 0, io::kFromStart), 0);
  std::vector<uint8_t> all(64);
  ASSERT_EQ(io::read(all.data(), 64, n), 0);
  EXPECT_EQ(all, expected);
  close(n);
  EXPECT_EQ(get(name), expected);
}

// ---- Flush and styles ------------------------------------------------------------------------

TEST_F(Io, StreamStyleBuffersInTheCallersSizeDescriptorStyleDoesNot) {
  const std::string name = path("s.bin");
  const uint16_t n = open(name, kStream | io::kCreate, 8192);
  const auto data = pattern(5000, 18);
  ASSERT_EQ(io::write(data.data(), 5000, n), 0);
  // Smaller than the buffer: still in it.
  EXPECT_EQ(fs::file_size(name), 0u);
  ASSERT_EQ(io::flush(n), 0);
  EXPECT_EQ(fs::file_size(name), 5000u);
  ASSERT_EQ(io::write(data.data(), 5000, n), 0);
  ASSERT_EQ(io::write(data.data(), 5000, n), 0);
  // 10000 more bytes overflow an 8192-byte buffer once.
  EXPECT_GE(fs::file_size(name), 5000u + 8192u);
  EXPECT_LT(fs::file_size(name), 15000u);
  close(n);
  EXPECT_EQ(fs::file_size(name), 15000u);

  // Descriptor style has no buffer of its own: the bytes are in the file at once.
  const uint16_t d = open(path("d.bin"), io::kCreate);
  ASSERT_EQ(io::write("abc", 3, d), 0);
  EXPECT_EQ(fs::file_size(path("d.bin")), 3u);
}

TEST_F(Io, BothStylesWriteTheSameBytes) {
  const std::string a = path("a.bin");
  const std::string b = path("b.bin");
  const uint16_t na = open(a, kDescriptor | io::kCreate);
  const uint16_t nb = open(b, kStream | io::kCreate, 512);
  std::mt19937 rng(19);
  for (int step = 0; step < 400; ++step) {
    const auto chunk = pattern(rng() % 3000, static_cast<uint32_t>(step));
    const int what = static_cast<int>(rng() % 10);
    for (uint16_t n : {na, nb}) {
      if (what < 6) {
        ASSERT_EQ(io::write(chunk.data(), static_cast<uint32_t>(chunk.size()), n), 0);
      } else if (what < 8) {
        ASSERT_EQ(io::seek(n, static_cast<int64_t>(chunk.size() * 7 % 20000), io::kFromStart), 0);
      } else if (what < 9) {
        ASSERT_EQ(io::seek(n, 0, io::kToEnd), 0);
      } else {
        ASSERT_EQ(io::set_size(n, static_cast<int64_t>(chunk.size() * 5)), 0);
      }
    }
    ASSERT_EQ(io::tell(na), io::tell(nb)) << step;
    ASSERT_EQ(io::known_size(na), io::known_size(nb)) << step;
  }
  close(na);
  close(nb);
  EXPECT_EQ(get(a), get(b));
}

// ---- Read-ahead window (descriptor style) ----------------------------------------------------

TEST_F(Io, SmallReadsAndSeeksInsideTheWindowMakeNoSystemCall) {
  const std::string name = path("f.bin");
  const auto data = pattern(200000, 20);
  put(name, data);
  const uint16_t n = open(name, io::kRead);
  uint8_t buf[32];
  ASSERT_EQ(io::read(buf, 16, n), 0);
  const uint64_t calls = korvel::platform::file_call_count();
  std::mt19937 rng(21);
  for (int i = 0; i < 2000; ++i) {
    const int64_t at = static_cast<int64_t>(rng() % (io::kReadAheadSize - 4096 - 32));
    ASSERT_EQ(io::seek(n, at, io::kFromStart), 0);
    ASSERT_EQ(io::read(buf, 32, n), 0);
    ASSERT_EQ(std::memcmp(buf, data.data() + at, 32), 0) << at;
    EXPECT_EQ(io::tell(n), at + 32);
  }
  EXPECT_EQ(korvel::platform::file_call_count(), calls);
}

TEST_F(Io, SequentialRecordReadingNeedsFewSystemCalls) {
  const std::string name = path("f.bin");
  constexpr std::size_t kRecord = 13;
  constexpr std::size_t kRecords = 100000;
  const auto data = pattern(kRecord * kRecords, 22);
  put(name, data);
  const uint16_t n = open(name, io::kRead);
  const uint64_t calls = korvel::platform::file_call_count();
  uint8_t rec[kRecord];
  uint64_t sum = 0, expected_sum = 0;
  for (std::size_t i = 0; i < kRecords; ++i) {
    ASSERT_EQ(io::read(rec, kRecord, n), 0);
    sum += rec[i % kRecord];
    expected_sum += data[i * kRecord + i % kRecord];
  }
  EXPECT_EQ(sum, expected_sum);
  const uint64_t used = korvel::platform::file_call_count() - calls;
  // One fill per window, with some overlap at the window edges.
  EXPECT_LE(used, data.size() / (io::kReadAheadSize - 4096) + 2);
  EXPECT_GE(used, data.size() / io::kReadAheadSize);
}

TEST_F(Io, WritesInsideTheWindowAreReadBack) {
  const std::string name = path("f.bin");
  auto expected = pattern(100000, 23);
  put(name, expected);
  const uint16_t n = open(name, io::kModify);
  uint8_t buf[64];
  ASSERT_EQ(io::read(buf, 8, n), 0);  // fills the window from 0

  struct Write {
    int64_t at;
    std::size_t length;
  };
  const Write writes[] = {
      {100, 8},                                           // inside
      {static_cast<int64_t>(io::kReadAheadSize) - 4, 8},  // across the window's end
      {0, 1},                                             // first byte
      {static_cast<int64_t>(io::kReadAheadSize) - 1, 1},  // last byte of the window
      {99990, 20},                                        // across the file's end: grows it
  };
  for (const auto& w : writes) {
    const auto bytes = pattern(w.length, static_cast<uint32_t>(w.at));
    ASSERT_EQ(io::seek(n, w.at, io::kFromStart), 0);
    ASSERT_EQ(io::write(bytes.data(), static_cast<uint32_t>(w.length), n), 0);
    if (expected.size() < static_cast<std::size_t>(w.at) + w.length)
      expected.resize(w.at + w.length);
    std::copy(bytes.begin(), bytes.end(), expected.begin() + w.at);
  }
  EXPECT_EQ(io::known_size(n), 100010);
  for (const auto& w : writes) {
    const int64_t from = w.at >= 16 ? w.at - 16 : 0;
    const std::size_t len = std::min<std::size_t>(48, expected.size() - from);
    ASSERT_EQ(io::seek(n, from, io::kFromStart), 0);
    ASSERT_EQ(io::read(buf, static_cast<uint16_t>(len), n), 0);
    EXPECT_EQ(std::memcmp(buf, expected.data() + from, len), 0) << w.at;
  }
  close(n);
  EXPECT_EQ(get(name), expected);
}

TEST_F(Io, AppendedBytesAreReadBackAfterAWindowThatEndedAtTheFileEnd) {
  const std::string name = path("f.bin");
  put(name, pattern(100, 24));
  const uint16_t n = open(name, io::kModify);
  uint8_t buf[100];
  ASSERT_EQ(io::read(buf, 100, n), 0);  // window holds the whole file
  for (uint8_t i = 0; i < 50; ++i) ASSERT_EQ(io::write(&i, 1, n), 0);
  // The window took the appended bytes in: reading them back needs no system call.
  const uint64_t calls = korvel::platform::file_call_count();
  ASSERT_EQ(io::seek(n, 100, io::kFromStart), 0);
  ASSERT_EQ(io::read(buf, 50, n), 0);
  EXPECT_EQ(korvel::platform::file_call_count(), calls);
  for (uint8_t i = 0; i < 50; ++i) EXPECT_EQ(buf[i], i);
  EXPECT_EQ(io::read(buf, 1, n), MDF_ERR_READ);  // and nothing beyond
}

TEST_F(Io, TheWindowFollowsChangesOfSize) {
  const std::string name = path("f.bin");
  const auto data = pattern(1000, 25);
  put(name, data);
  const uint16_t n = open(name, io::kModify);
  uint8_t buf[16];
  ASSERT_EQ(io::read(buf, 16, n), 0);
  ASSERT_EQ(io::set_size(n, 500), 0);
  ASSERT_EQ(io::set_size(n, 1000), 0);
  // The cut-off part is gone from the file: zeros now, not the old bytes.
  ASSERT_EQ(io::seek(n, 600, io::kFromStart), 0);
  ASSERT_EQ(io::read(buf, 16, n), 0);
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + 16), std::vector<uint8_t>(16, 0));
  ASSERT_EQ(io::set_size(n, 300), 0);
  ASSERT_EQ(io::seek(n, 290, io::kFromStart), 0);
  EXPECT_EQ(io::read(buf, 16, n), MDF_ERR_READ);
}

TEST_F(Io, TwoNumbersOnOneFileSeeEachOthersWrites) {
  const std::string name = path("f.bin");
  put(name, pattern(5000, 26));
  const uint16_t reader = open(name, io::kRead);
  const uint16_t writer = open(name, io::kModify);
  uint8_t buf[8];
  ASSERT_EQ(io::read(buf, 8, reader), 0);  // the reader's window holds the start
  ASSERT_EQ(io::seek(writer, 1000, io::kFromStart), 0);
  ASSERT_EQ(io::write("ABCDEFGH", 8, writer), 0);
  ASSERT_EQ(io::seek(reader, 1000, io::kFromStart), 0);
  ASSERT_EQ(io::read(buf, 8, reader), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 8), "ABCDEFGH");
  ASSERT_EQ(io::set_size(writer, 1004), 0);
  ASSERT_EQ(io::seek(reader, 1000, io::kFromStart), 0);
  EXPECT_EQ(io::read(buf, 8, reader), MDF_ERR_READ);
}

// Random operations against a model of the file, the position and the known size.
TEST_F(Io, RandomOperationsAgreeWithAModel) {
  const std::string name = path("f.bin");
  std::vector<uint8_t> disk = pattern(150000, 27);
  put(name, disk);
  const uint16_t n = open(name, io::kModify);
  int64_t position = 0;
  auto known = static_cast<int64_t>(disk.size());
  std::mt19937 rng(28);
  std::vector<uint8_t> buf(70000);
  int failures = 0;
  for (int step = 0; step < 5000; ++step) {
    const int what = static_cast<int>(rng() % 100);
    if (what < 45) {  // read, mostly small, sometimes past the end
      const std::size_t count = rng() % 8 == 0 ? rng() % 70000 : rng() % 200;
      const bool fits = position + static_cast<int64_t>(count) <= static_cast<int64_t>(disk.size());
      if (!fits && ++failures > 20) continue;  // keep the log short
      const int16_t st = count <= 65535 ? io::read(buf.data(), static_cast<uint16_t>(count), n)
                                        : io::read_bulk(buf.data(), count, n);
      if (fits) {
        ASSERT_EQ(st, 0) << step;
        ASSERT_EQ(std::memcmp(buf.data(), disk.data() + position, count), 0) << step;
        position += static_cast<int64_t>(count);
      } else {
        ASSERT_EQ(st, MDF_ERR_READ) << step;
        position = 0;
      }
    } else if (what < 70) {  // write
      const auto bytes = pattern(rng() % 300, static_cast<uint32_t>(step));
      ASSERT_EQ(io::write(bytes.data(), static_cast<uint32_t>(bytes.size()), n), 0) << step;
      if (disk.size() < position + bytes.size()) disk.resize(position + bytes.size(), 0);
      std::copy(bytes.begin(), bytes.end(), disk.begin() + position);
      position += static_cast<int64_t>(bytes.size());
      known = std::max(known, position);
    } else if (what < 92) {  // seek, near the position or anywhere
      const int64_t target =
          rng() % 2 == 0 ? std::max<int64_t>(0, position + static_cast<int64_t>(rng() % 400) - 200)
                         : static_cast<int64_t>(rng() % (disk.size() + 1000));
      ASSERT_EQ(io::seek(n, target, io::kFromStart), 0) << step;
      position = target;
      known = std::max(known, position);
    } else if (what < 96) {
      ASSERT_EQ(io::seek(n, 0, io::kToEnd), 0);
      position = known;
    } else {  // change of size
      const auto size = static_cast<int64_t>(100000 + rng() % 100000);
      ASSERT_EQ(io::set_size(n, size), 0) << step;
      disk.resize(static_cast<std::size_t>(size), 0);
      known = size;
      position = std::min(position, size);
    }
    ASSERT_EQ(io::tell(n), position) << step;
    ASSERT_EQ(io::known_size(n), known) << step;
  }
  close(n);
  EXPECT_EQ(get(name), disk);
}

// ---- Internal errors -------------------------------------------------------------------------

TEST_F(Io, UnknownNumbersBadModesAndBadOriginsAreInternalErrors) {
  const std::string name = path("f.bin");
  put(name, pattern(10, 29));
  uint8_t b = 0;
  uint16_t out = 0;
  struct Case {
    const char* what;
    std::function<int64_t(uint16_t open_number, uint16_t closed_number)> call;
    int64_t result;
  };
  const Case cases[] = {
      {"tell", [](uint16_t, uint16_t c) { return io::tell(c); }, -1},
      {"known size", [](uint16_t, uint16_t c) { return io::known_size(c); }, -1},
      {"read", [&](uint16_t, uint16_t c) { return io::read(&b, 1, c); }, MDF_ERR_FATAL},
      {"bulk read", [&](uint16_t, uint16_t c) { return io::read_bulk(&b, 1, c); }, MDF_ERR_FATAL},
      {"write", [&](uint16_t, uint16_t c) { return io::write(&b, 1, c); }, MDF_ERR_FATAL},
      {"seek", [](uint16_t, uint16_t c) { return io::seek(c, 1, io::kFromStart); }, MDF_ERR_FATAL},
      {"set size", [](uint16_t, uint16_t c) { return io::set_size(c, 1); }, MDF_ERR_FATAL},
      {"flush", [](uint16_t, uint16_t c) { return io::flush(c); }, MDF_ERR_FATAL},
      {"close", [](uint16_t, uint16_t c) { return (io::close(c), int64_t{0}); }, 0},
      {"bad origin", [](uint16_t o, uint16_t) { return io::seek(o, 0, 3); }, MDF_ERR_FATAL},
      {"bad mode", [&](uint16_t, uint16_t) { return io::open(&out, path("x").c_str(), 3, 4096); },
       MDF_ERR_FATAL},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    const uint16_t n = open(name, io::kRead);
    const uint16_t closed = open(name, io::kRead);
    close(closed);  // its number is free until the next open
    ASSERT_EQ(io::seek(n, 5, io::kFromStart), 0);
    EXPECT_EQ(c.call(n, closed), c.result);
    EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FATAL);
    EXPECT_NE(std::string(mdfGetErrorText()).find("Internal Error 1-IO-"), std::string::npos);
    EXPECT_EQ(io::tell(n), 5);  // the open file is not disturbed
    close(n);
  }
  EXPECT_EQ(out, io::kNoFile);
  EXPECT_FALSE(fs::exists(path("x")));
}

}  // namespace
