// Scratch directories for tests: one per test and process, so that test programs running
// side by side never share a file.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "korvel.h"
#include "support/mdf_builder.h"

namespace mdftest {

// A fresh, empty directory named after the running test (a parameterized test's '/' made '_',
// so that removing the directory leaves nothing behind).
inline std::filesystem::path scratch_dir(const std::string& prefix) {
  static const std::string process = std::to_string(std::random_device{}());
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = prefix + "_" + process + "_" + (info != nullptr ? info->name() : "none");
  std::replace(name.begin(), name.end(), '/', '_');
  auto dir = std::filesystem::temp_directory_path() / name;
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

// The contents of a file; a text file (the log) is read as text, so that its line ends arrive
// as "\n" on every system.
inline std::string slurp(const std::filesystem::path& path, bool text = false) {
  std::ifstream in(path, text ? std::ios::in : std::ios::in | std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
inline std::string log_text() {
  return slurp("KORVEL.LOG", true);
}

// Copies a file (a shared sample, which may be read-only) into `dir` as a writable file, so
// that the test may change it and the scratch directory can be removed on every system.
inline std::filesystem::path copy_writable(const std::filesystem::path& from,
                                           const std::filesystem::path& dir) {
  const auto to = dir / from.filename();
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(to, std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::add);
  return to;
}

inline mdf_group* open_group(mdf_file* file, uint16_t n, uint16_t mode = MDF_OPEN_READ) {
  mdf_group* g = nullptr;
  EXPECT_EQ(mdfGrpOpen(&g, file, n, mode), 0) << n;
  return g;
}

inline channelnode* open_channel(mdf_group* g, size_t index) {
  channelnode* ch = nullptr;
  EXPECT_EQ(mdfChnOpen(&ch, g, static_cast<uint16_t>(index)), 0) << index;
  return ch;
}

// A test in a fresh library session with a scratch directory of its own.
class Session : public ::testing::Test {
 protected:
  void SetUp() override {
    restart();
    dir_ = scratch_dir("korvel");
  }
  void TearDown() override {
    mdfClose();
    std::filesystem::remove_all(dir_);
  }
  // A fresh library session: a raised failure leaves a sticky error behind.
  static void restart() {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  // Writes a file into the scratch directory; returns its name.
  std::string write(const Image& image, const std::string& name = "in.mdf") const {
    write_file(path(name), image.bytes);
    return path(name);
  }
  std::string write(const FileModel& model, const std::string& name = "in.mdf") const {
    return write(build(model), name);
  }
  static mdf_file* open_file(const std::string& file, uint16_t mode = MDF_OPEN_READ) {
    mdf_file* f = nullptr;
    EXPECT_EQ(mdfFileOpen(&f, file.c_str(), mode), 0) << file;
    return f;
  }
  // Opens a file (kept in f_) and its first group, the group in the file's mode unless given.
  mdf_group* open(const std::string& file, uint16_t mode, int group_mode = -1) {
    return open_group(f_ = open_file(file, mode), 1, group_mode < 0 ? mode : uint16_t(group_mode));
  }
  std::filesystem::path dir_;
  mdf_file* f_ = nullptr;
};

}  // namespace mdftest
