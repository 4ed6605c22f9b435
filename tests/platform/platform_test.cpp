// The platform layer: temporary names, file names, descriptor and stream files, clocks,
// memory and module path.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <tuple>

#include "platform/platform.h"
#include "support/scratch.h"

namespace fs = std::filesystem;
namespace pf = korvel::platform;

namespace {

#if defined(_WIN32)
// The system names the file; its number is not padded to four digits.
const char* const kTempNumber = "[0-9A-Fa-f]{1,4}\\.(TMP|tmp)";
#else
const char* const kTempNumber = "[0-9A-Fa-f]{4}\\.TMP";
#endif

// Temporary files are new, empty and named by the pattern (no doubled separator, a short
// prefix as it is, the current directory when none is given); no directory or no room for
// the name makes no file.
TEST(Platform, FilesAndNames) {
  const fs::path dir = mdftest::scratch_dir("korvel_platform");
  const fs::path old = fs::current_path();
  fs::current_path(dir);
  const std::string d = dir.string();
  // Directory, prefix, room for the name, and the head of the name (empty: no file).
  const std::tuple<std::string, const char*, std::size_t, std::string> rows[] = {
      {d, "KORVEL", 512, (dir / "KOR").string()},
      {d + "/", "KORVEL", 512, (dir / "KOR").string()},
      {d, "K", 512, (dir / "K").string()},
      {"", "KORVEL", 512, (fs::path(".") / "KOR").string()},
      {(dir / "missing").string(), "KORVEL", 512, ""},
      {d, "KORVEL", d.size() + 12, ""}};
  std::set<std::string> names;
  for (const auto& [directory, prefix, size, head] : rows) {
    SCOPED_TRACE(directory + " " + prefix);
    for (int i = 0; i < 20; ++i) {
      char name[512] = {};
      const bool made = pf::make_temp_file(directory.c_str(), prefix, name, size);
      ASSERT_EQ(made, !head.empty());
      if (!made) continue;
      const std::string s = name;
      EXPECT_TRUE(names.insert(fs::absolute(s).string()).second) << s;
      ASSERT_EQ(s.compare(0, head.size(), head), 0) << s;
      EXPECT_TRUE(std::regex_match(s.substr(head.size()), std::regex(kTempNumber))) << s;
      EXPECT_EQ(fs::file_size(s), 0u);
    }
  }
  fs::current_path(old);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 80);
  // Replace puts the contents in the place of the target, which may exist; no source, no move.
  const std::string a = (dir / "a").string(), b = (dir / "b").string();
  for (const char* contents : {"contents", "new", static_cast<const char*>(nullptr)}) {
    if (contents != nullptr) std::ofstream(a) << contents;
    EXPECT_EQ(pf::replace_file(a.c_str(), b.c_str()), contents != nullptr);
    EXPECT_FALSE(fs::exists(a));
    EXPECT_EQ(mdftest::slurp(b), contents != nullptr ? contents : "new");
  }
  // Descriptor files: what the numbered files' tests do not reach. A new file is its owner's
  // alone to read and write; offsets reach beyond 32 bits where the file system allows.
  const std::string name = (dir / "f").string();
  int fd = pf::open_file(name.c_str(), pf::OpenMode::create);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(pf::write_file(fd, "0123456789", 10));
  EXPECT_TRUE(pf::close_file(fd));
  EXPECT_EQ(fs::status(name).permissions() & fs::perms::owner_all,
            fs::perms::owner_read | fs::perms::owner_write);
  fd = pf::open_file(name.c_str(), pf::OpenMode::create);  // neither truncates nor replaces
  EXPECT_EQ(pf::file_length(fd), 10);
  char buf[16] = {};
  EXPECT_TRUE(pf::read_file(fd, buf, 4));
  // Positioned transfers neither use nor move the descriptor's position.
  EXPECT_TRUE(pf::write_file_at(fd, "AB", 2, 8));
  EXPECT_EQ(pf::read_file_at(fd, buf, 16, 6), 4);
  EXPECT_EQ(std::string(buf, 4), "67AB");
  EXPECT_TRUE(pf::read_file(fd, buf, 2));
  EXPECT_EQ(std::string(buf, 2), "45");
  const int64_t big = int64_t{5} << 30;
  if (pf::set_file_length(fd, big)) {
    EXPECT_TRUE(pf::write_file_at(fd, "E", 1, big - 1));
    EXPECT_EQ(pf::read_file_at(fd, buf, 2, big - 1), 1);  // stops at the end
    EXPECT_EQ(buf[0], 'E');
    EXPECT_TRUE(pf::set_file_length(fd, 10));
  }
  // The status tells the length and whether two descriptors refer to one file.
  std::ofstream(dir / "g") << "1";
  const int same = pf::open_file(name.c_str(), pf::OpenMode::read);
  const int other = pf::open_file((dir / "g").string().c_str(), pf::OpenMode::read);
  pf::FileStatus st[3];
  ASSERT_TRUE(pf::file_status(fd, &st[0]) && pf::file_status(same, &st[1]) &&
              pf::file_status(other, &st[2]));
  EXPECT_EQ(st[0].length, 10);
  EXPECT_TRUE(st[0].device == st[1].device && st[0].file_id == st[1].file_id);
  EXPECT_FALSE(st[0].device == st[2].device && st[0].file_id == st[2].file_id);
  for (int f : {fd, same, other}) EXPECT_TRUE(pf::close_file(f));
  EXPECT_EQ(mdftest::slurp(name), "01234567AB");
  fs::remove_all(dir);
}

// The clock's offset and the calendar of the zone in force: the calendar is UTC less the
// standard offset, one hour later while daylight saving time is in force.
void expect_local_time(int32_t minutes_west, bool fixed) {
  const std::time_t before = std::time(nullptr);
  pf::ClockReading r;
  pf::CalendarTime t;
  ASSERT_TRUE(pf::current_time(&r));
  pf::local_calendar_time(&t);
  const std::time_t after = std::time(nullptr);
  EXPECT_EQ(r.minutes_west, minutes_west);
  EXPECT_LE(std::llabs(r.seconds - before), 2);
  using namespace std::chrono;
  const int64_t days = sys_days{year{t.year} / t.month / t.day}.time_since_epoch().count();
  const int64_t utc = days * 86400 + t.hour * 3600 + t.minute * 60 + t.second + 60 * minutes_west;
  // time() may run a little behind the precise clock: a second either side.
  const bool standard = utc >= before - 1 && utc <= after + 1;
  const bool daylight = utc - 3600 >= before - 1 && utc - 3600 <= after + 1;
  EXPECT_TRUE(standard || (!fixed && daylight)) << utc - before;
}

TEST(Platform, ClockInTheZoneOfTheProcessMemoryAndModulePath) {
#if defined(_WIN32)
  // The system's zone, which a test cannot change: offset and calendar must agree.
  pf::ClockReading r;
  ASSERT_TRUE(pf::current_time(&r));
  expect_local_time(r.minutes_west, false);
#else
  // The offset is the zone's standard one, whatever the season.
  // clang-format off
  const struct {
    const char* zone;
    int32_t minutes_west;
    bool fixed;  // no daylight saving
  } cases[] = {{"UTC0", 0, true}, {"EST5EDT,M3.2.0,M11.1.0", 300, false},
               {"CET-1CEST,M3.5.0,M10.5.0/3", -60, false}, {"IST-5:30", -330, true}};
  // clang-format on
  const char* old = std::getenv("TZ");
  const std::string saved = old != nullptr ? old : "";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zone);
    ::setenv("TZ", c.zone, 1);
    ::tzset();
    expect_local_time(c.minutes_west, c.fixed);
  }
  old != nullptr ? ::setenv("TZ", saved.c_str(), 1) : ::unsetenv("TZ");
  ::tzset();
#endif
  // Memory, and the module path cut to the size given, always terminated.
  EXPECT_GT(pf::available_physical_memory(), uint64_t{1} << 20);
  EXPECT_LT(pf::available_physical_memory(), uint64_t{1} << 50);
  char path[4096];
  pf::module_file_name(path, sizeof path);
  EXPECT_TRUE(fs::path(path).is_absolute()) << path;
  EXPECT_TRUE(fs::is_regular_file(path)) << path;
  char small[6];
  std::memset(small, 'x', sizeof small);
  pf::module_file_name(small, sizeof small);
  EXPECT_EQ(std::string(small), std::string(path, 5));
}

}  // namespace
