// The platform layer: temporary names, file names, descriptor and stream files, clocks,
// module path and the call counter.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace fs = std::filesystem;
namespace pf = korvel::platform;

namespace {

class PlatformFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::temp_directory_path() /
           (std::string("korvel_platform_") + info->name() + "_" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string path(const char* name) const { return (dir_ / name).string(); }

  static void put(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
  }
  static std::string get(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  fs::path dir_;
};

// ---- Temporary names -------------------------------------------------------------------------

TEST_F(PlatformFiles, TempFileIsCreatedEmptyWithPrefixAndFourHexDigits) {
  char name[512];
  ASSERT_TRUE(pf::make_temp_file(dir_.c_str(), "KORVEL", name, sizeof name));
  const std::string s = name;
  const std::string head = (dir_ / "KOR").string();
  ASSERT_EQ(s.compare(0, head.size(), head), 0) << s;
  ASSERT_EQ(s.size(), head.size() + 8) << s;
  for (std::size_t i = head.size(); i < head.size() + 4; ++i) {
    EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(s[i]))) << s;
  }
  EXPECT_EQ(s.substr(head.size() + 4), ".TMP");
  ASSERT_TRUE(fs::exists(s));
  EXPECT_EQ(fs::file_size(s), 0u);

  // A trailing separator is not doubled; a short prefix is used as it is.
  const std::string with_slash = dir_.string() + "/";
  ASSERT_TRUE(pf::make_temp_file(with_slash.c_str(), "K", name, sizeof name));
  EXPECT_EQ(std::string(name).substr(0, with_slash.size() + 1), with_slash + "K") << name;
  EXPECT_EQ(std::strlen(name), with_slash.size() + 9);
}

TEST_F(PlatformFiles, TempFileNamesAreUnique) {
  std::set<std::string> names;
  for (int i = 0; i < 50; ++i) {
    char name[512];
    ASSERT_TRUE(pf::make_temp_file(dir_.c_str(), "KORVEL", name, sizeof name));
    EXPECT_TRUE(names.insert(name).second) << name;
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 50);
}

TEST_F(PlatformFiles, TempFileInCurrentDirectoryWhenNoneGiven) {
  const fs::path old = fs::current_path();
  fs::current_path(dir_);
  char name[512];
  const bool ok = pf::make_temp_file("", "KORVEL", name, sizeof name);
  fs::current_path(old);
  ASSERT_TRUE(ok);
  EXPECT_EQ(std::string(name).compare(0, 5, "./KOR"), 0) << name;
  EXPECT_TRUE(fs::exists(dir_ / fs::path(name).filename()));
}

TEST_F(PlatformFiles, TempFileFailsWithoutDirectoryOrRoom) {
  char name[512];
  EXPECT_FALSE(pf::make_temp_file(path("missing").c_str(), "KORVEL", name, sizeof name));
  char small[8];
  EXPECT_FALSE(pf::make_temp_file(dir_.c_str(), "KORVEL", small, sizeof small));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 0);
}

// ---- Delete and rename -----------------------------------------------------------------------

TEST_F(PlatformFiles, RenameMovesContentsAndRemoveDeletes) {
  const std::string a = path("a.bin");
  const std::string b = path("b.bin");
  put(a, "contents");
  ASSERT_TRUE(pf::rename_file(a.c_str(), b.c_str()));
  EXPECT_FALSE(fs::exists(a));
  EXPECT_EQ(get(b), "contents");
  ASSERT_TRUE(pf::remove_file(b.c_str()));
  EXPECT_FALSE(fs::exists(b));
  EXPECT_FALSE(pf::remove_file(b.c_str()));
  EXPECT_FALSE(pf::rename_file(a.c_str(), b.c_str()));
}

// ---- Descriptor files ------------------------------------------------------------------------

TEST_F(PlatformFiles, OpenModes) {
  const std::string name = path("f.bin");
  EXPECT_EQ(pf::open_file(name.c_str(), pf::OpenMode::read), -1);
  EXPECT_EQ(pf::open_file(name.c_str(), pf::OpenMode::read_write), -1);

  int fd = pf::open_file(name.c_str(), pf::OpenMode::create);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(pf::write_file(fd, "abcdef", 6));
  EXPECT_TRUE(pf::close_file(fd));
  EXPECT_EQ((fs::status(name).permissions() & fs::perms::owner_all),
            fs::perms::owner_read | fs::perms::owner_write);

  // Create on an existing file neither truncates nor replaces it.
  fd = pf::open_file(name.c_str(), pf::OpenMode::create);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(pf::file_length(fd), 6);
  EXPECT_TRUE(pf::close_file(fd));

  fd = pf::open_file(name.c_str(), pf::OpenMode::read);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(pf::write_file(fd, "x", 1));
  EXPECT_FALSE(pf::write_file_at(fd, "x", 1, 0));
  EXPECT_FALSE(pf::set_file_length(fd, 2));
  char buf[6];
  EXPECT_TRUE(pf::read_file(fd, buf, 6));
  EXPECT_EQ(std::string(buf, 6), "abcdef");
  EXPECT_TRUE(pf::close_file(fd));
  EXPECT_EQ(get(name), "abcdef");
}

TEST_F(PlatformFiles, SequentialAndPositionedTransfers) {
  const std::string name = path("f.bin");
  put(name, "0123456789");
  const int fd = pf::open_file(name.c_str(), pf::OpenMode::read_write);
  ASSERT_GE(fd, 0);
  char buf[16] = {};
  EXPECT_TRUE(pf::read_file(fd, buf, 4));
  EXPECT_EQ(std::string(buf, 4), "0123");

  // Positioned transfers neither use nor move the descriptor's position.
  EXPECT_TRUE(pf::write_file_at(fd, "AB", 2, 8));
  EXPECT_EQ(pf::read_file_at(fd, buf, 4, 6), 4);
  EXPECT_EQ(std::string(buf, 4), "67AB");
  EXPECT_TRUE(pf::read_file(fd, buf, 2));
  EXPECT_EQ(std::string(buf, 2), "45");

  // Short positioned read at the end, nothing beyond it, and no negative offsets.
  EXPECT_EQ(pf::read_file_at(fd, buf, 16, 7), 3);
  EXPECT_EQ(std::string(buf, 3), "7AB");
  EXPECT_EQ(pf::read_file_at(fd, buf, 4, 10), 0);
  EXPECT_EQ(pf::read_file_at(fd, buf, 4, 100), 0);
  EXPECT_EQ(pf::read_file_at(fd, buf, 4, -1), -1);
  EXPECT_FALSE(pf::write_file_at(fd, "x", 1, -1));

  // A sequential read that cannot be completed reports failure.
  EXPECT_TRUE(pf::seek_file(fd, 8));
  EXPECT_FALSE(pf::read_file(fd, buf, 4));

  EXPECT_TRUE(pf::seek_file(fd, 2));
  EXPECT_TRUE(pf::write_file(fd, "xy", 2));
  EXPECT_FALSE(pf::seek_file(fd, -1));
  EXPECT_TRUE(pf::close_file(fd));
  EXPECT_EQ(get(name), "01xy4567AB");
}

TEST_F(PlatformFiles, LengthAndChangeOfLength) {
  const std::string name = path("f.bin");
  const int fd = pf::open_file(name.c_str(), pf::OpenMode::create);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(pf::file_length(fd), 0);
  const std::vector<char> data(100, 'z');
  ASSERT_TRUE(pf::write_file(fd, data.data(), data.size()));
  EXPECT_EQ(pf::file_length(fd), 100);

  ASSERT_TRUE(pf::set_file_length(fd, 40));
  EXPECT_EQ(pf::file_length(fd), 40);
  ASSERT_TRUE(pf::set_file_length(fd, 5000));
  EXPECT_EQ(pf::file_length(fd), 5000);
  char buf[8];
  ASSERT_EQ(pf::read_file_at(fd, buf, 8, 36), 8);
  EXPECT_EQ(std::string(buf, 8), std::string("zzzz\0\0\0\0", 8));  // extended with zeros
  EXPECT_FALSE(pf::set_file_length(fd, -1));
  EXPECT_EQ(pf::file_length(fd), 5000);

  // Beyond 32 bits: a sparse file of 5 GiB.
  const int64_t big = int64_t{5} << 30;
  if (pf::set_file_length(fd, big)) {
    EXPECT_EQ(pf::file_length(fd), big);
    EXPECT_TRUE(pf::write_file_at(fd, "E", 1, big - 1));
    EXPECT_EQ(pf::read_file_at(fd, buf, 2, big - 1), 1);
    EXPECT_EQ(buf[0], 'E');
  }
  EXPECT_TRUE(pf::close_file(fd));
  EXPECT_EQ(pf::file_length(-1), -1);
}

TEST_F(PlatformFiles, FileStatusTellsLengthAndIdentity) {
  const std::string a = path("a.bin");
  const std::string b = path("b.bin");
  put(a, "12345");
  put(b, "1");
  const int fa1 = pf::open_file(a.c_str(), pf::OpenMode::read);
  const int fa2 = pf::open_file(a.c_str(), pf::OpenMode::read_write);
  const int fb = pf::open_file(b.c_str(), pf::OpenMode::read);
  pf::FileStatus s1, s2, s3;
  ASSERT_TRUE(pf::file_status(fa1, &s1));
  ASSERT_TRUE(pf::file_status(fa2, &s2));
  ASSERT_TRUE(pf::file_status(fb, &s3));
  EXPECT_EQ(s1.length, 5);
  EXPECT_EQ(s3.length, 1);
  EXPECT_TRUE(s1.device == s2.device && s1.file_id == s2.file_id);
  EXPECT_FALSE(s1.device == s3.device && s1.file_id == s3.file_id);
  pf::FileStatus bad;
  EXPECT_FALSE(pf::file_status(-1, &bad));
  for (int fd : {fa1, fa2, fb}) EXPECT_TRUE(pf::close_file(fd));
}

// ---- Stream files ----------------------------------------------------------------------------

TEST_F(PlatformFiles, StreamWithCallerBuffer) {
  const std::string name = path("s.bin");
  std::FILE* s = pf::open_stream(name.c_str(), "wb+");
  ASSERT_NE(s, nullptr);
  std::vector<char> buffer(8192);
  ASSERT_TRUE(pf::set_stream_buffer(s, buffer.data(), buffer.size()));
  const int fd = pf::stream_descriptor(s);
  EXPECT_GE(fd, 0);

  EXPECT_TRUE(pf::write_stream(s, "hello world", 11));
  // Held in the caller's buffer until flushed.
  EXPECT_EQ(pf::file_length(fd), 0);
  EXPECT_EQ(std::string(buffer.data(), 11), "hello world");
  EXPECT_TRUE(pf::flush_stream(s));
  EXPECT_EQ(pf::file_length(fd), 11);

  char got[16] = {};
  EXPECT_TRUE(pf::seek_stream(s, 6));
  EXPECT_TRUE(pf::read_stream(s, got, 5));
  EXPECT_EQ(std::string(got, 5), "world");
  EXPECT_FALSE(pf::read_stream(s, got, 1));  // at the end: the item does not arrive
  EXPECT_TRUE(pf::seek_stream_to_end(s));
  EXPECT_TRUE(pf::write_stream(s, "!", 1));
  EXPECT_TRUE(pf::seek_stream(s, 0));
  EXPECT_FALSE(pf::read_stream(s, got, 13));  // only 12 bytes: a partial item fails
  EXPECT_FALSE(pf::seek_stream(s, -1));
  EXPECT_TRUE(pf::flush_stream(nullptr));
  EXPECT_TRUE(pf::close_stream(s));
  EXPECT_EQ(get(name), "hello world!");

  EXPECT_EQ(pf::open_stream(path("missing").c_str(), "rb"), nullptr);
  s = pf::open_stream(name.c_str(), "rb");
  ASSERT_NE(s, nullptr);
  EXPECT_FALSE(pf::write_stream(s, "x", 1) && pf::flush_stream(s));  // read-only stream
  EXPECT_TRUE(pf::close_stream(s));
  EXPECT_EQ(get(name), "hello world!");
}

// ---- Counter ---------------------------------------------------------------------------------

TEST_F(PlatformFiles, CounterCountsFileCallsOnly) {
  const std::string name = path("c.bin");
  put(name, "abc");
  const uint64_t c0 = pf::file_call_count();
  const int fd = pf::open_file(name.c_str(), pf::OpenMode::read);
  EXPECT_EQ(pf::file_call_count(), c0 + 1);
  char buf[3];
  EXPECT_EQ(pf::read_file_at(fd, buf, 3, 0), 3);
  EXPECT_EQ(pf::file_length(fd), 3);
  EXPECT_TRUE(pf::seek_file(fd, 1));
  EXPECT_EQ(pf::file_call_count(), c0 + 4);
  pf::tick_count_ms();
  pf::yield_processor();
  char module[256];
  pf::module_file_name(module, sizeof module);
  EXPECT_EQ(pf::file_call_count(), c0 + 4);
  EXPECT_TRUE(pf::close_file(fd));
  EXPECT_EQ(pf::file_call_count(), c0 + 5);
}

// ---- Clocks, memory, module ------------------------------------------------------------------

TEST(PlatformClock, TickCountAdvancesWithTime) {
  const uint32_t t0 = pf::tick_count_ms();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  pf::yield_processor();
  const uint32_t t1 = pf::tick_count_ms();
  const uint32_t elapsed = t1 - t0;  // wrapping difference
  EXPECT_GE(elapsed, 25u);
  EXPECT_LT(elapsed, 10000u);
  for (int i = 0; i < 1000; ++i) {
    const uint32_t a = pf::tick_count_ms();
    const uint32_t b = pf::tick_count_ms();
    EXPECT_LT(b - a, 1000u);  // never goes back
  }
}

// Runs `body` with TZ set to `zone`, then restores the previous setting.
template <typename Body>
void with_zone(const char* zone, Body body) {
  const char* old = std::getenv("TZ");
  const std::string saved = old != nullptr ? old : "";
  ::setenv("TZ", zone, 1);
  ::tzset();
  body();
  if (old != nullptr) {
    ::setenv("TZ", saved.c_str(), 1);
  } else {
    ::unsetenv("TZ");
  }
  ::tzset();
}

TEST(PlatformClock, CurrentTimeGivesSecondsAndStandardZoneOffset) {
  struct Case {
    const char* zone;
    int32_t minutes_west;
  };
  // Daylight saving is never included, whatever the season.
  const Case cases[] = {{"UTC0", 0},
                        {"EST5EDT,M3.2.0,M11.1.0", 300},
                        {"CET-1CEST,M3.5.0,M10.5.0/3", -60},
                        {"IST-5:30", -330}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zone);
    with_zone(c.zone, [&] {
      pf::ClockReading r;
      ASSERT_TRUE(pf::current_time(&r));
      const auto now = static_cast<int64_t>(std::time(nullptr));
      EXPECT_LE(std::llabs(r.seconds - now), 2);
      EXPECT_EQ(r.minutes_west, c.minutes_west);
    });
  }
}

TEST(PlatformClock, LocalCalendarTimeMatchesTheZone) {
  with_zone("JST-9", [] {
    const std::time_t before = std::time(nullptr);
    pf::CalendarTime t;
    pf::local_calendar_time(&t);
    const std::time_t after = std::time(nullptr);
    ASSERT_GE(t.month, 1);
    ASSERT_LE(t.month, 12);
    ASSERT_GE(t.day, 1);
    ASSERT_LE(t.day, 31);
    EXPECT_LT(t.hour, 24);
    EXPECT_LT(t.minute, 60);
    EXPECT_LT(t.second, 61);
    EXPECT_LT(t.millisecond, 1000);
    // The fields are Japan time, nine hours ahead of UTC. time() may run a little behind the
    // precise clock, so allow a second on either side.
    std::tm fields{};
    fields.tm_year = t.year - 1900;
    fields.tm_mon = t.month - 1;
    fields.tm_mday = t.day;
    fields.tm_hour = t.hour;
    fields.tm_min = t.minute;
    fields.tm_sec = t.second;
    const std::time_t utc = ::timegm(&fields) - 9 * 3600;
    EXPECT_GE(utc, before - 1);
    EXPECT_LE(utc, after + 1);
  });
}

TEST(PlatformSystem, AvailableMemoryIsPlausible) {
  const uint64_t bytes = pf::available_physical_memory();
  EXPECT_GT(bytes, uint64_t{1} << 20);
  EXPECT_LT(bytes, uint64_t{1} << 50);
}

TEST(PlatformSystem, ModulePathIsAnExistingAbsoluteFile) {
  char path[4096];
  pf::module_file_name(path, sizeof path);
  ASSERT_GT(std::strlen(path), 1u);
  EXPECT_EQ(path[0], '/');
  EXPECT_TRUE(fs::is_regular_file(path)) << path;

  // Cut to the size given, always terminated.
  char small[6];
  std::memset(small, 'x', sizeof small);
  pf::module_file_name(small, sizeof small);
  EXPECT_EQ(std::strlen(small), 5u);
  EXPECT_EQ(std::string(small), std::string(path, 5));
}

}  // namespace
