// VAX F, D and G conversions against hand-worked bit patterns: word order, biases, fraction
// bits, and the out-of-range mappings.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "korvel.h"

namespace {

using Bytes = std::vector<uint8_t>;

// `size` bytes of `v`: an IEEE number little-endian; a VAX number in 16-bit words, word 0 (the
// top 16 bits of v) first, each word low byte first.
Bytes bytes(uint64_t v, std::size_t size, bool vax) {
  Bytes b(size);
  for (std::size_t i = 0; i < size; ++i) {
    b[i] = static_cast<uint8_t>(v >> (vax ? 16 * (size / 2 - 1 - i / 2) + 8 * (i % 2) : 8 * i));
  }
  return b;
}

// A converter with its width and whether it reads and writes VAX words.
struct Converter {
  void (*convert)(void*);
  std::size_t size;
  bool vax_in, vax_out;
};
const Converter toF{mdfPCFloatToVAXFFloat, 4, false, true};
const Converter fromF{mdfVAXFFloatToPCFloat, 4, true, false};
const Converter toD{mdfPCDoubleToVAXDFloat, 8, false, true};
const Converter fromD{mdfVAXDFloatToPCDouble, 8, true, false};
const Converter toG{mdfPCDoubleToVAXGFloat, 8, false, true};
const Converter fromG{mdfVAXGFloatToPCDouble, 8, true, false};
const Converter dToG{mdfVAXDFloatToVAXGFloat, 8, true, true};
const Converter gToD{mdfVAXGFloatToVAXDFloat, 8, true, true};

TEST(Vax, HandWorkedCases) {
  // IEEE numbers as their bits, VAX numbers as one integer with word 0 on top.
  const struct {
    Converter c;
    uint64_t in, out;
  } cases[] = {
      // clang-format off
      // 1.0f both ways; all-zero input is left unchanged by every converter.
      {toF, 0x3F800000, 0x40800000}, {fromF, 0x40800000, 0x3F800000}, {toF, 0, 0}, {fromF, 0, 0},
      {toD, 0, 0}, {fromD, 0, 0}, {toG, 0, 0}, {fromG, 0, 0}, {dToG, 0, 0}, {gToD, 0, 0},
      // Single to F: FLT_MIN has exponent 3; 2^127 = 0.1b*2^128 is too large, as are infinity
      // and NaN; a denormal has no counterpart; -0 is 0.
      {toF, 0x00800000, 0x01800000}, {toF, 0x7F000000, 0x80000000}, {toF, 0x7F800000, 0x80000000},
      {toF, 0x7FC00000, 0x80000000},
      {toF, 0x807FFFFF, 0x80000000}, {toF, 0x80000000, 0}, {toF, 0xC1200001, 0xC2200001},
      // F to single: largest F, exponent 3; exponents 1 and 2 of either sign give +infinity;
      // the reserved operand and a dirty zero give 0.
      {fromF, 0x7FFFFFFF, 0x7EFFFFFF}, {fromF, 0x01800000, 0x00800000},
      {fromF, 0x00800000, 0x7F800000}, {fromF, 0x01001234, 0x7F800000},
      {fromF, 0x817FFFFF, 0x7F800000}, {fromF, 0x80000000, 0},
      {fromF, 0x007FFFFF, 0}, {fromF, 0xC2200001, 0xC1200001},
      // Double to D: 1.0, -0.0 (tiny, E = 1), 1 + 2^-52; DBL_MAX and +infinity clamp to E 255,
      // NaNs keep their fraction; 2^-128 and a denormal clamp to E 1; 2^-127.
      {toD, 0x3FF0000000000000, 0x4080000000000000}, {toD, 0x8000000000000000, 0x8080000000000000},
      {toD, 0x3FF0000000000001, 0x4080000000000008}, {toD, 0x7FEFFFFFFFFFFFFF, 0x7FFFFFFFFFFFFFF8},
      {toD, 0x7FF0000000000000, 0x7F80000000000000}, {toD, 0xFFF0000000000001, 0xFF80000000000008},
      {toD, 0x37F0000000000000, 0x0080000000000000}, {toD, 0x3800000000000000, 0x0100000000000000},
      {toD, 1, 0x0080000000000008},
      // D to double: the lowest 3 bits are dropped, not rounded; exponent 0 is not special.
      {fromD, 0x4080000000000007, 0x3FF0000000000000},
      {fromD, 0x408000000000000F, 0x3FF0000000000001},
      {fromD, 0x0000000100000000, 0x37E0000020000000},
      {fromD, 0x8000000000000000, 0xB7E0000000000000},
      // Double to G: 1.0 and the word order; DBL_MAX and +infinity carry into the sign bit,
      // word 0 from 0xFFDF on is left; -0.0 and a denormal are raised like any other.
      {toG, 0x3FF0000000000000, 0x4010000000000000}, {toG, 0x0123456789ABCDEF, 0x0143456789ABCDEF},
      {toG, 0x7FEFFFFFFFFFFFFF, 0x800FFFFFFFFFFFFF}, {toG, 0x7FF0000000000000, 0x8010000000000000},
      {toG, 0xFFEFFFFFFFFFFFFF, 0xFFEFFFFFFFFFFFFF}, {toG, 0xFFDF000000000000, 0xFFDF000000000000},
      {toG, 0xFFDE000000000000, 0xFFFE000000000000}, {toG, 0x8000000000000000, 0x8020000000000000},
      {toG, 1, 0x0020000000000001},
      // G to double: word 0 below 0x20 is left; from the sign bit it borrows.
      {fromG, 0x0020000000000001, 1}, {fromG, 0x001F000000000000, 0x001F000000000000},
      {fromG, 0x8010000000000000, 0x7FF0000000000000}, {fromG, 5, 5},
      // G 1.0 is D 1.0.
      {gToD, 0x4010000000000000, 0x4080000000000000},
      {dToG, 0x4080000000000000, 0x4010000000000000},
      // clang-format on
  };
  for (const auto& [c, in, out] : cases) {
    Bytes b = bytes(in, c.size, c.vax_in);
    c.convert(b.data());
    EXPECT_EQ(b, bytes(out, c.size, c.vax_out)) << std::hex << in;
  }
}

}  // namespace
