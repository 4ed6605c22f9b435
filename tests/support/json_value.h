// A minimal JSON reader for test data: the files that describe the sample measurement files.
//
// Numbers keep both readings: the double, and for integers written without fraction or
// exponent the exact 64-bit value, so that large raw values compare exactly.
//
//   const auto doc = mdftest::json::parse_file(path);
//   for (const auto& g : doc["groups"].array) { ... g["cycles"].as_uint64() ... }
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace mdftest::json {

struct Value {
  enum class Type { null, boolean, number, string, array, object };
  Type type = Type::null;
  bool boolean = false;
  double number = 0;
  bool integral = false;   // an integer literal whose magnitude fits 64 bits
  bool negative = false;   // its sign
  uint64_t magnitude = 0;  // its absolute value
  std::string string;
  std::vector<Value> array;
  // Object members in file order: names and values side by side (a pair holding the
  // still-incomplete Value would not compile everywhere).
  std::vector<std::string> names;
  std::vector<Value> members;

  bool is_null() const { return type == Type::null; }
  // The member of an object; throws std::out_of_range when absent or not an object.
  const Value& operator[](std::string_view key) const;
  // The member, or null when absent.
  const Value* find(std::string_view key) const;
  // Integer literals as exact integers; throw std::domain_error for anything else or a value
  // out of range.
  int64_t as_int64() const;
  uint64_t as_uint64() const;
};

// Parses a whole document; throws std::runtime_error with the offset of the first fault.
Value parse(std::string_view text);
Value parse_file(const std::filesystem::path& path);

}  // namespace mdftest::json
