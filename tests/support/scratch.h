// Scratch directories for tests: one per test and process, so that test programs running
// side by side never share a file.
#pragma once

#include <filesystem>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace mdftest {

// A fresh, empty directory named after the running test.
inline std::filesystem::path scratch_dir(const std::string& prefix) {
  static const std::string process = std::to_string(std::random_device{}());
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  auto dir = std::filesystem::temp_directory_path() /
             (prefix + "_" + process + "_" + (info != nullptr ? info->name() : "none"));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
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

}  // namespace mdftest
