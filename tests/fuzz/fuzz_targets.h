// Entry points that feed untrusted bytes to the library: a whole file, and a formula text.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel_fuzz {

// Writes the bytes to a scratch file, opens it, and walks every group, channel and record
// that opens (bounded), reading raw and physical values; then dumps it with and without hex.
void open_file(const uint8_t* data, size_t size);
// Evaluates the bytes as a formula text for a few values of X.
void evaluate_formula(const uint8_t* data, size_t size);

}  // namespace korvel_fuzz
