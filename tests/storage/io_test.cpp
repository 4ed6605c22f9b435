// Numbered files: statuses, positions and sizes as the unit keeps them, both access styles,
// and the read-ahead window's agreement with the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "korvel.h"
#include "storage/io.h"
#include "support/scratch.h"

namespace fs = std::filesystem;
namespace io = korvel::io;

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint16_t kDescriptor = 0;
constexpr uint16_t kStream = io::kStreamStyle;
constexpr uint16_t kBuffered = io::kWriteBuffer;

Bytes pattern(std::size_t n, uint32_t seed) {
  Bytes v(n);
  std::mt19937 rng(seed);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

// Most behaviours hold for every access style (the parameter).
class Io : public mdftest::Session, public ::testing::WithParamInterface<uint16_t> {
 protected:
  // Closes what a failed assertion left open, so that the scratch directory can go.
  void TearDown() override {
    for (uint16_t n : open_) io::close(n);
    Session::TearDown();
  }
  // Opens and remembers the number so that TearDown closes it.
  uint16_t open(const std::string& name, int flags) {
    uint16_t n = 0;
    EXPECT_EQ(io::open(&n, name.c_str(), static_cast<uint16_t>(flags), 8192), 0) << name;
    if (n != io::kNoFile) open_.push_back(n);
    return n;
  }
  void close(uint16_t n) {
    io::close(n);
    std::erase(open_, n);
  }

  std::vector<uint16_t> open_;
};

// Position and known size of a file.
using State = std::pair<int64_t, int64_t>;
State at(uint16_t n) {
  return {io::tell(n), io::known_size(n)};
}

const char* const kStyleNames[] = {"Descriptor", "Stream", "BufferedDescriptor"};
INSTANTIATE_TEST_SUITE_P(Styles, Io, ::testing::Values(kDescriptor, kStream, kBuffered),
                         [](const auto& p) { return kStyleNames[p.index]; });

// Failed operations on a file opened for reading; the file is never changed.
TEST_P(Io, FailuresRaiseTheirStatusAndMoveThePosition) {
  const Bytes data = pattern(300000, 14);
  const std::string name = write(mdftest::Image{data});
  const auto flags = static_cast<uint16_t>(GetParam() | io::kModify);
  uint16_t none = 7;  // a missing file is no file, in modify mode too
  EXPECT_EQ(io::open(&none, path("missing").c_str(), flags, 8192), 1000);
  EXPECT_EQ(none, io::kNoFile);
  const uint16_t n = open(name, GetParam());
  Bytes buf(20000);
  // After a failure: its status and text, the position and known size, the file where the
  // position says; a later failure does not replace the first error.
  const auto failed = [&](int16_t status, const std::string& text, State after) {
    EXPECT_EQ(at(n), after);
    EXPECT_EQ(mdfGetErrorCode(), status);
    EXPECT_EQ(mdfGetErrorText(), text);
    uint8_t b = 0;
    EXPECT_EQ(io::read(&b, 1, n), 0);
    EXPECT_EQ(b, data[static_cast<std::size_t>(after.first)]);
    EXPECT_EQ(io::seek(n, -1, io::kFromStart), MDF_ERR_SEEK);
    EXPECT_EQ(mdfGetErrorCode(), status);
    restart();
  };
  for (const auto& [offset, origin, context] :
       {std::tuple{int64_t{-5}, io::kFromStart, "-5"},
        {INT64_MIN, io::kFromCurrent, "-9223372036854775808"}}) {
    ASSERT_EQ(io::seek(n, 10, io::kFromStart), 0);
    EXPECT_EQ(io::seek(n, offset, origin), MDF_ERR_SEEK);
    failed(MDF_ERR_SEEK, std::string("could not locate pos in file ") + context + "\n",
           {0, 300000});
  }
  // A stream may hold the bytes in its buffer; flushing makes the failure certain.
  ASSERT_EQ(io::seek(n, 8, io::kFromStart), 0);
  int16_t status = io::write("abcd", 4, n);
  if (status == 0) {
    io::flush(n);
    status = io::write(buf.data(), 20000, n);
  }
  EXPECT_EQ(status, MDF_ERR_WRITE);
  failed(MDF_ERR_WRITE, "could not write file \n", {0, 300000});
  ASSERT_EQ(io::seek(n, 30, io::kFromStart), 0);  // a failed change of size moves nothing
  EXPECT_EQ(io::set_size(n, 10), MDF_ERR_WRITE);
  failed(MDF_ERR_WRITE, "could not write file cannot change size\n", {30, 300000});
  // Between the file's end and a known size grown by a seek there is nothing to read.
  ASSERT_EQ(io::seek(n, 300010, io::kFromStart), 0);
  ASSERT_EQ(io::seek(n, 299999, io::kFromStart), 0);
  EXPECT_EQ(io::read(buf.data(), 2, n), MDF_ERR_READ);
  failed(MDF_ERR_READ, "could not read file \n", {0, 300010});
  close(n);
  EXPECT_EQ(mdftest::load_file(name), data);
}

// Random operations against a model of the file and of each number's position and known
// size. In descriptor style two numbers share the file, so that each must see the other's
// writes and changes of size through its read-ahead window.
TEST_P(Io, RandomOperationsAgreeWithAModel) {
  Bytes disk = pattern(150000, 27);
  const std::string name = write(mdftest::Image{disk});
  const uint32_t numbers = GetParam() != kStream ? 2 : 1;
  uint16_t n[2] = {};
  int64_t position[2] = {};
  int64_t known[2] = {};
  for (uint32_t k = 0; k < numbers; ++k) {
    n[k] = open(name, GetParam() | io::kModify);
    known[k] = static_cast<int64_t>(disk.size());
  }
  std::mt19937 rng(28);
  Bytes buf(70000);
  int failures = 0;
  for (int step = 0; step < 6000; ++step) {
    const auto k = rng() % numbers;
    int64_t& pos = position[k];
    const auto what = rng() % 100;
    if (what < 45) {  // read, mostly small, sometimes past the end
      const std::size_t count = rng() % 8 == 0 ? rng() % 70000 : rng() % 200;
      const bool fits = static_cast<std::size_t>(pos) + count <= disk.size();
      if (!fits && ++failures > 20) continue;  // keep the log short
      const int16_t st = count <= 65535 ? io::read(buf.data(), static_cast<uint16_t>(count), n[k])
                                        : io::read_bulk(buf.data(), count, n[k]);
      if (fits) {
        ASSERT_EQ(st, 0) << step;
        ASSERT_EQ(std::memcmp(buf.data(), disk.data() + pos, count), 0) << step;
        pos += static_cast<int64_t>(count);
      } else {
        ASSERT_EQ(st, MDF_ERR_READ) << step;
        pos = 0;
      }
    } else if (what < 70) {  // write
      const Bytes bytes = pattern(1 + rng() % 300, static_cast<uint32_t>(step));
      ASSERT_EQ(io::write(bytes.data(), static_cast<uint32_t>(bytes.size()), n[k]), 0) << step;
      const auto end = static_cast<std::size_t>(pos) + bytes.size();
      if (disk.size() < end) disk.resize(end, 0);
      std::copy(bytes.begin(), bytes.end(), disk.begin() + pos);
      pos = static_cast<int64_t>(end);
      known[k] = std::max(known[k], pos);
    } else if (what < 92) {  // seek near the position, across a window's edge, or anywhere;
      // from the start or from the position; past the end it grows the known size only
      const auto near = [&](int64_t at) {
        return std::max<int64_t>(0, at + static_cast<int64_t>(rng() % 600) - 300);
      };
      const auto how = rng() % 3;
      const int64_t target = how == 0   ? near(pos)
                             : how == 1 ? near(4096 * static_cast<int64_t>(rng() % 45))
                                        : static_cast<int64_t>(rng() % (disk.size() + 1000));
      const bool relative = rng() % 2 == 0;
      ASSERT_EQ(io::seek(n[k], relative ? target - pos : target,
                         relative ? io::kFromCurrent : io::kFromStart),
                0)
          << step;
      pos = target;
      known[k] = std::max(known[k], pos);
    } else if (what < 96) {  // to the end: the size as known, whatever the offset says
      const int64_t offsets[] = {0, 999, -5, int64_t{1} << 40};
      ASSERT_EQ(io::seek(n[k], offsets[rng() % 4], io::kToEnd), 0);
      pos = known[k];
    } else {  // change of size
      const auto size = static_cast<int64_t>(100000 + rng() % 100000);
      ASSERT_EQ(io::set_size(n[k], size), 0) << step;
      disk.resize(static_cast<std::size_t>(size), 0);
      known[k] = size;
      pos = std::min(pos, size);
    }
    for (uint32_t j = 0; j < numbers; ++j)
      ASSERT_EQ(at(n[j]), State(position[j], known[j])) << step;
  }
  for (uint32_t k = 0; k < numbers; ++k) close(n[k]);
  EXPECT_EQ(mdftest::load_file(name), disk);
}

// Buffered bytes that the system refuses (a full disk) fail as an unbuffered write does.
TEST_F(Io, BufferedBytesThatCannotBeWrittenFailAsAWrite) {
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "no device that is always full";
  for (const bool by_commit : {true, false}) {
    restart();
    const uint16_t n = open("/dev/full", kBuffered | io::kModify);
    ASSERT_EQ(io::write("abcd", 4, n), 0);
    uint8_t b = 0;
    EXPECT_EQ(by_commit ? io::commit(n) : io::read(&b, 1, n), MDF_ERR_WRITE);
    EXPECT_EQ(io::tell(n), 0);
    EXPECT_EQ(std::string(mdfGetErrorText()), "could not write file \n");
    close(n);
  }
}

TEST_F(Io, UnknownNumbersBadModesAndBadOriginsAreInternalErrors) {
  const std::string name = write(mdftest::Image{pattern(10, 29)});
  uint8_t b = 0;
  uint16_t out = 0;
  const uint16_t n = open(name, io::kRead);
  const uint16_t c = open(name, io::kRead);
  close(c);  // its number is free until the next open
  ASSERT_EQ(io::seek(n, 5, io::kFromStart), 0);
  const std::pair<std::function<int64_t()>, int64_t> cases[] = {
      {[&] { return io::tell(c); }, -1},
      {[&] { return io::known_size(c); }, -1},
      {[&] { return io::read(&b, 1, c); }, MDF_ERR_FATAL},
      {[&] { return io::read_bulk(&b, 1, c); }, MDF_ERR_FATAL},
      {[&] { return io::write(&b, 1, c); }, MDF_ERR_FATAL},
      {[&] { return io::seek(c, 1, io::kFromStart); }, MDF_ERR_FATAL},
      {[&] { return io::set_size(c, 1); }, MDF_ERR_FATAL},
      {[&] { return io::flush(c); }, MDF_ERR_FATAL},
      {[&] {
         io::close(c);
         return int64_t{0};
       },
       0},
      {[&] { return io::seek(n, 0, 3); }, MDF_ERR_FATAL},                           // bad origin
      {[&] { return io::open(&out, path("x").c_str(), 3, 4096); }, MDF_ERR_FATAL},  // bad mode
  };
  int index = 0;
  for (const auto& [call, result] : cases) {
    SCOPED_TRACE(index++);
    restart();
    EXPECT_EQ(call(), result);
    EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FATAL);
    EXPECT_NE(std::string(mdfGetErrorText()).find("Internal Error 1-IO-"), std::string::npos);
    EXPECT_EQ(io::tell(n), 5);  // the open file is not disturbed
  }
  EXPECT_EQ(out, io::kNoFile);
  EXPECT_FALSE(fs::exists(path("x")));
}

}  // namespace
