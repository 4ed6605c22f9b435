// Entry points that feed untrusted bytes to the library: a whole file, and a formula text.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel_fuzz {

// Writes the bytes to a scratch file, opens it for reading, and walks every group, channel
// and record that opens (bounded): seeks absolute, relative and backwards, reading every
// value at every record, the group's comment, trigger and times; then dumps it with and
// without hex.
void open_file(const uint8_t* data, size_t size);
// Writes the bytes to a scratch file, opens it for modifying, rewrites records and values,
// closes it, and traps when a byte changed that was not asked to change (the header and the
// channel groups rewritten in place and blocks appended at the end aside), when a record was
// written over a block, or when a file refused for modifying changed at all.
void modify_file(const uint8_t* data, size_t size);
// Writes the bytes to a scratch file and sorts it into a named target with a combination of
// flags chosen by the input, then in place; traps when the source changed other than by the
// float-type repair, when a failed sort left a target or a changed source, or when a sorted
// file of an input that opens does not open as a sorted file.
void sort_file(const uint8_t* data, size_t size);
// Evaluates the bytes as a formula text for a few values of X.
void evaluate_formula(const uint8_t* data, size_t size);

}  // namespace korvel_fuzz
