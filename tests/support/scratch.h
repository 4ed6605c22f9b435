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

}  // namespace mdftest
