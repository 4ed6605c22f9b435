// VAX F, D and G conversions. Expected bit patterns are built here from the number's
// mathematical value (sign, binary exponent and fraction through frexp/ldexp), not from the
// converters' word shuffling; the out-of-range mappings are checked against hand-worked
// tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "korvel.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Converter = void (*)(void*);
using Rng = std::mt19937_64;

// IEEE numbers are little-endian.
Bytes le(uint64_t bits, std::size_t size) {
  Bytes b(size);
  for (std::size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(bits >> (8 * i));
  return b;
}
const auto f32 = [](uint32_t bits) { return le(bits, 4); };
const auto f64 = [](uint64_t bits) { return le(bits, 8); };
uint64_t le_value(const Bytes& b) {
  uint64_t v = 0;
  for (std::size_t i = b.size(); i-- > 0;) v = (v << 8) | b[i];
  return v;
}

// A VAX number of `size` bytes from one integer whose top 16 bits are word 0: 16-bit words,
// word 0 first, each word low byte first.
Bytes vax(uint64_t v, std::size_t size) {
  Bytes b;
  for (std::size_t w = size / 2; w-- > 0;) {
    b.push_back(static_cast<uint8_t>(v >> (16 * w)));
    b.push_back(static_cast<uint8_t>(v >> (16 * w + 8)));
  }
  return b;
}
uint64_t vax_value(const Bytes& b) {
  uint64_t v = 0;
  for (std::size_t i = 0; i < b.size(); i += 2) v = (v << 16) | b[i] | (b[i + 1] << 8);
  return v;
}

Bytes run(Converter convert, Bytes in) {
  convert(in.data());
  return in;
}

// ---- References from the mathematical value --------------------------------------------------

// Fields of a VAX number: value = (-1)^negative * 0.1f (binary) * 2^(exponent - bias).
struct Fields {
  bool negative;
  int exponent;
  uint64_t fraction;  // the bits after the hidden bit
};

// x = m * 2^k with m in [0.5, 1): the VAX form directly.
int binary_exponent(double a) {
  int k = 0;
  std::frexp(a, &k);
  return k;
}

// The `bits` fraction bits of a finite non-zero number's normalized form; below DBL_MIN the
// subnormal IEEE fraction (the library keeps it when it clamps the exponent).
uint64_t fraction_bits(double a, int bits) {
  if (a < DBL_MIN) return static_cast<uint64_t>(std::ldexp(a, 1074));
  int k = 0;
  const double m = std::frexp(a, &k);
  return static_cast<uint64_t>(std::ldexp(m, bits + 1)) - (uint64_t{1} << bits);
}

// The value of a VAX pattern, with a significand of `significant` bits (truncated).
double value_of(const Fields& f, int fraction_width, int bias, int significant) {
  const uint64_t full = (uint64_t{1} << fraction_width) + f.fraction;
  const int drop = fraction_width + 1 - significant;
  const double v = std::ldexp(static_cast<double>(full >> drop),
                              f.exponent - bias - (fraction_width + 1) + drop);
  return f.negative ? -v : v;
}

// VAX D has 55 fraction bits, VAX G 52.
Bytes vax_bytes(const Fields& f, int fraction_width) {
  return vax((f.negative ? uint64_t{1} << 63 : 0) |
                 (static_cast<uint64_t>(f.exponent) << fraction_width) | f.fraction,
             8);
}

Bytes reference_vax_f(const Bytes& in) {
  const float f = std::bit_cast<float>(static_cast<uint32_t>(le_value(in)));
  if (f == 0.0f) return Bytes(4);
  const double a = std::fabs(static_cast<double>(f));
  if (!std::isfinite(f) || a < FLT_MIN) return vax(0x80000000, 4);  // reserved operand
  const int e = binary_exponent(a) + 128;
  if (e > 255) return vax(0x80000000, 4);
  const uint64_t frac = fraction_bits(a, 23);
  return vax((std::signbit(f) ? 0x80000000 : 0) | static_cast<uint64_t>(e) << 23 | frac, 4);
}

Bytes reference_from_vax_f(const Bytes& b) {
  const auto v = static_cast<uint32_t>(vax_value(b));
  const Fields f{(v >> 31) != 0, static_cast<int>((v >> 23) & 0xFF), v & 0x7FFFFF};
  if (f.exponent == 0) return f32(0);
  if (f.exponent <= 2) return f32(std::bit_cast<uint32_t>(std::numeric_limits<float>::infinity()));
  return f32(std::bit_cast<uint32_t>(static_cast<float>(value_of(f, 23, 128, 24))));
}

// VAX D: bias 128, 55 fraction bits, of which an IEEE double fills the top 52. Out of range
// the exponent is clamped to 1 or 255 with the IEEE fraction kept, infinities and NaNs
// included.
Bytes reference_vax_d(const Bytes& in) {
  const double d = std::bit_cast<double>(le_value(in));
  if (std::bit_cast<uint64_t>(d) == 0) return f64(0);
  const double a = std::fabs(d);
  if (!std::isfinite(a)) return vax_bytes({std::signbit(d), 255, (le_value(in) << 12) >> 9}, 55);
  if (a == 0.0) return vax_bytes({true, 1, 0}, 55);
  const int e = a < DBL_MIN ? 1 : std::clamp(binary_exponent(a) + 128, 1, 255);
  return vax_bytes({std::signbit(d), e, fraction_bits(a, 52) << 3}, 55);
}

// VAX G: bias 1024, 52 fraction bits; for |d| in [DBL_MIN, 2^1022).
Bytes reference_vax_g(const Bytes& in) {
  const double d = std::bit_cast<double>(le_value(in));
  if (std::bit_cast<uint64_t>(d) == 0) return f64(0);
  const double a = std::fabs(d);
  return vax_bytes({std::signbit(d), binary_exponent(a) + 1024, fraction_bits(a, 52)}, 52);
}

// IEEE double of a VAX D (55 fraction bits, bias 128, the lowest 3 bits dropped) or VAX G
// (52 fraction bits, bias 1024, exponents 3 and up) pattern.
Bytes reference_from_vax(const Bytes& b, int fraction_width, int bias) {
  const uint64_t v = vax_value(b);
  if (v == 0) return f64(0);
  const Fields f{(v >> 63) != 0, static_cast<int>((v << 1) >> (fraction_width + 1)),
                 v & ((uint64_t{1} << fraction_width) - 1)};
  return f64(std::bit_cast<uint64_t>(value_of(f, fraction_width, bias, 53)));
}
const auto reference_from_vax_d = [](const Bytes& b) { return reference_from_vax(b, 55, 128); };
const auto reference_from_vax_g = [](const Bytes& b) { return reference_from_vax(b, 52, 1024); };

const Converter toF = mdfPCFloatToVAXFFloat, fromF = mdfVAXFFloatToPCFloat;
const Converter toD = mdfPCDoubleToVAXDFloat, fromD = mdfVAXDFloatToPCDouble;
const Converter toG = mdfPCDoubleToVAXGFloat, fromG = mdfVAXGFloatToPCDouble;
const Converter dToG = mdfVAXDFloatToVAXGFloat, gToD = mdfVAXGFloatToVAXDFloat;

// ---- Hand-worked cases -----------------------------------------------------------------------

TEST(Vax, HandWorkedCases) {
  EXPECT_EQ(run(toF, f32(0x3F800000)), (Bytes{0x80, 0x40, 0x00, 0x00}));  // 1.0f and back
  EXPECT_EQ(run(fromF, {0x80, 0x40, 0x00, 0x00}), f32(0x3F800000));
  // IEEE numbers as their bits, VAX numbers as one integer with word 0 on top.
  const struct {
    Converter convert;
    uint64_t in, out;
  } cases[] = {
      // clang-format off
      // Single to F: FLT_MIN has exponent 3; 2^127 = 0.1b*2^128 and the largest single are
      // too large, as are infinity and NaN; a denormal has no counterpart; -0 is 0.
      {toF, 0x00800000, 0x01800000}, {toF, 0x7F000000, 0x80000000}, {toF, 0x7F7FFFFF, 0x80000000},
      {toF, 0x7F800000, 0x80000000}, {toF, 0x7FC00000, 0x80000000}, {toF, 0x807FFFFF, 0x80000000},
      {toF, 0x80000000, 0},
      // F to single: largest F, exponent 3; exponents 1 and 2 of either sign give +infinity;
      // the reserved operand and a dirty zero give 0.
      {fromF, 0x7FFFFFFF, 0x7EFFFFFF}, {fromF, 0x01800000, 0x00800000},
      {fromF, 0x00800000, 0x7F800000}, {fromF, 0x01001234, 0x7F800000},
      {fromF, 0x817FFFFF, 0x7F800000}, {fromF, 0x80000000, 0}, {fromF, 0x007FFFFF, 0},
      // Double to D: 1.0, -0.0 (tiny, E = 1), 1 + 2^-52; DBL_MAX and +infinity clamp to E 255,
      // NaNs keep their fraction; 2^-129 and 2^-128 and a denormal clamp to E 1; 2^-127.
      {toD, 0x3FF0000000000000, 0x4080000000000000}, {toD, 0x8000000000000000, 0x8080000000000000},
      {toD, 0x3FF0000000000001, 0x4080000000000008}, {toD, 0x7FEFFFFFFFFFFFFF, 0x7FFFFFFFFFFFFFF8},
      {toD, 0x7FF0000000000000, 0x7F80000000000000}, {toD, 0x7FF8000000000000, 0x7FC0000000000000},
      {toD, 0xFFF0000000000001, 0xFF80000000000008}, {toD, 0x37E0000000000000, 0x0080000000000000},
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
  for (const auto& c : cases) {
    const std::size_t size = c.convert == toF || c.convert == fromF ? 4 : 8;
    const auto bytes = [&](uint64_t v, bool vax_words) {
      return vax_words ? vax(v, size) : le(v, size);
    };
    const bool from_ieee = c.convert == toF || c.convert == toD || c.convert == toG;
    const bool to_ieee = c.convert == fromF || c.convert == fromD || c.convert == fromG;
    EXPECT_EQ(run(c.convert, bytes(c.in, !from_ieee)), bytes(c.out, !to_ieee)) << std::hex << c.in;
  }
  // All-zero input is left unchanged by every converter.
  for (Converter c : {toF, fromF}) EXPECT_EQ(run(c, Bytes(4)), Bytes(4));
  for (Converter c : {toD, fromD, toG, fromG, dToG, gToD}) EXPECT_EQ(run(c, Bytes(8)), Bytes(8));
}

// ---- Many values against the references ------------------------------------------------------

// IEEE double bits with a uniformly drawn exponent in [lo, hi] and random sign and fraction.
uint64_t random_double_bits(Rng& rng, int lo, int hi) {
  const auto e = static_cast<uint64_t>(std::uniform_int_distribution<int>(lo, hi)(rng));
  return (rng() & 0x800FFFFFFFFFFFFFu) | (e << 52);
}

// Random VAX G pattern with exponent 3 or more.
Bytes random_vax_g(Rng& rng) {
  for (;;) {
    const uint64_t v = rng();
    if (((v >> 52) & 0x7FF) >= 3) return vax(v, 8);
  }
}

TEST(Vax, RandomValuesMatchTheReferences) {
  const struct {
    const char* what;
    Converter convert;
    Bytes (*input)(Rng&);
    Bytes (*reference)(const Bytes&);
  } cases[] = {
      {"single to F", toF, [](Rng& r) { return f32(static_cast<uint32_t>(r())); }, reference_vax_f},
      {"F to single", fromF, [](Rng& r) { return f32(static_cast<uint32_t>(r())); },
       reference_from_vax_f},
      // Exponents spread evenly, so that both clamps are well covered.
      {"double to D", toD, [](Rng& r) { return f64(random_double_bits(r, 0, 2047)); },
       reference_vax_d},
      {"D to double", fromD, [](Rng& r) { return vax(r(), 8); }, reference_from_vax_d},
      // Normal doubles below 2^1022; back from exponents 3 and up.
      {"double to G", toG, [](Rng& r) { return f64(random_double_bits(r, 1, 2044)); },
       reference_vax_g},
      {"G to double", fromG, random_vax_g, reference_from_vax_g},
      // Every VAX D value lies well inside the normal double range.
      {"D to G", dToG, [](Rng& r) { return vax(r(), 8); },
       [](const Bytes& d) { return reference_vax_g(reference_from_vax_d(d)); }},
      {"G to D", gToD, random_vax_g,
       [](const Bytes& g) { return reference_vax_d(reference_from_vax_g(g)); }},
  };
  Rng rng(1);
  for (const auto& c : cases) {
    for (int i = 0; i < 20000; ++i) {
      const Bytes in = c.input(rng);
      ASSERT_EQ(run(c.convert, in), c.reference(in)) << c.what << " " << std::hex << le_value(in);
    }
  }
}

}  // namespace
