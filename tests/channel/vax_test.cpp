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

// IEEE numbers are little-endian.
Bytes le(uint64_t bits, int size) {
  Bytes b(static_cast<std::size_t>(size));
  for (int i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(bits >> (8 * i));
  return b;
}
Bytes f32(uint32_t bits) {
  return le(bits, 4);
}
Bytes f64(uint64_t bits) {
  return le(bits, 8);
}
uint64_t le_value(const Bytes& b) {
  uint64_t v = 0;
  for (std::size_t i = b.size(); i-- > 0;) v = (v << 8) | b[i];
  return v;
}

// A VAX number: 16-bit words, word 0 first, each word low byte first.
Bytes vax(std::initializer_list<uint16_t> words) {
  Bytes b;
  for (uint16_t w : words) {
    b.push_back(static_cast<uint8_t>(w & 0xFF));
    b.push_back(static_cast<uint8_t>(w >> 8));
  }
  return b;
}
// From one integer whose top 16 bits are word 0.
Bytes vax64(uint64_t v) {
  return vax({static_cast<uint16_t>(v >> 48), static_cast<uint16_t>(v >> 32),
              static_cast<uint16_t>(v >> 16), static_cast<uint16_t>(v)});
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
double value_of(const Fields& f, int fraction_bits_in, int bias, int significant) {
  const uint64_t full = (uint64_t{1} << fraction_bits_in) + f.fraction;
  const int drop = fraction_bits_in + 1 - significant;
  const double v = std::ldexp(static_cast<double>(full >> drop),
                              f.exponent - bias - (fraction_bits_in + 1) + drop);
  return f.negative ? -v : v;
}

const Bytes kReservedF = vax({0x8000, 0});  // sign set, exponent 0

Bytes reference_vax_f(float f) {
  if (f == 0.0f) return vax({0, 0});
  const double a = std::fabs(static_cast<double>(f));
  if (!std::isfinite(f) || a < FLT_MIN) return kReservedF;  // no VAX counterpart
  const int e = binary_exponent(a) + 128;
  if (e > 255) return kReservedF;
  const uint64_t frac = fraction_bits(a, 23);
  return vax({static_cast<uint16_t>((std::signbit(f) ? 0x8000 : 0) | (e << 7) | (frac >> 16)),
              static_cast<uint16_t>(frac)});
}

Bytes reference_from_vax_f(const Bytes& b) {
  const auto v = static_cast<uint32_t>(vax_value(b));
  const Fields f{(v >> 31) != 0, static_cast<int>((v >> 23) & 0xFF), v & 0x7FFFFF};
  if (f.exponent == 0) return f32(0);
  if (f.exponent <= 2) return f32(std::bit_cast<uint32_t>(std::numeric_limits<float>::infinity()));
  return f32(std::bit_cast<uint32_t>(static_cast<float>(value_of(f, 23, 128, 24))));
}

Bytes d_bytes(const Fields& f) {
  return vax64((f.negative ? uint64_t{1} << 63 : 0) | (static_cast<uint64_t>(f.exponent) << 55) |
               f.fraction);
}
Bytes g_bytes(const Fields& f) {
  return vax64((f.negative ? uint64_t{1} << 63 : 0) | (static_cast<uint64_t>(f.exponent) << 52) |
               f.fraction);
}

// VAX D: bias 128, 55 fraction bits, of which an IEEE double fills the top 52. Out of range
// the exponent is clamped to 1 or 255 with the IEEE fraction kept. NaNs are in the table.
Bytes reference_vax_d(double d) {
  if (std::bit_cast<uint64_t>(d) == 0) return f64(0);
  const double a = std::fabs(d);
  if (std::isinf(a)) return d_bytes({std::signbit(d), 255, 0});
  if (a == 0.0) return d_bytes({true, 1, 0});
  const int e = a < DBL_MIN ? 1 : std::clamp(binary_exponent(a) + 128, 1, 255);
  return d_bytes({std::signbit(d), e, fraction_bits(a, 52) << 3});
}

Bytes reference_from_vax_d(const Bytes& b) {
  const uint64_t v = vax_value(b);
  if (v == 0) return f64(0);
  const Fields f{(v >> 63) != 0, static_cast<int>((v >> 55) & 0xFF), v & ((uint64_t{1} << 55) - 1)};
  return f64(std::bit_cast<uint64_t>(value_of(f, 55, 128, 53)));
}

// VAX G: bias 1024, 52 fraction bits; for |d| in [DBL_MIN, 2^1022).
Bytes reference_vax_g(double d) {
  if (std::bit_cast<uint64_t>(d) == 0) return f64(0);
  const double a = std::fabs(d);
  return g_bytes({std::signbit(d), binary_exponent(a) + 1024, fraction_bits(a, 52)});
}

// For exponents 3 and up.
Bytes reference_from_vax_g(const Bytes& b) {
  const uint64_t v = vax_value(b);
  const Fields f{(v >> 63) != 0, static_cast<int>((v >> 52) & 0x7FF),
                 v & ((uint64_t{1} << 52) - 1)};
  return f64(std::bit_cast<uint64_t>(value_of(f, 52, 1024, 53)));
}

// ---- Hand-worked cases -----------------------------------------------------------------------

struct Case {
  const char* what;
  Converter convert;
  Bytes in;
  Bytes out;
};

TEST(Vax, HandWorkedCases) {
  const Case cases[] = {
      // IEEE single to VAX F
      {"1.0f", mdfPCFloatToVAXFFloat, f32(0x3F800000), {0x80, 0x40, 0x00, 0x00}},
      {"-1.0f", mdfPCFloatToVAXFFloat, f32(0xBF800000), {0x80, 0xC0, 0x00, 0x00}},
      {"pi", mdfPCFloatToVAXFFloat, f32(0x40490FDB), {0x49, 0x41, 0xDB, 0x0F}},
      {"FLT_MIN: exponent 3", mdfPCFloatToVAXFFloat, f32(0x00800000), vax({0x0180, 0})},
      {"2^127 = 0.1b*2^128", mdfPCFloatToVAXFFloat, f32(0x7F000000), kReservedF},
      {"largest single", mdfPCFloatToVAXFFloat, f32(0x7F7FFFFF), {0x00, 0x80, 0x00, 0x00}},
      {"+inf", mdfPCFloatToVAXFFloat, f32(0x7F800000), kReservedF},
      {"-inf", mdfPCFloatToVAXFFloat, f32(0xFF800000), kReservedF},
      {"NaN", mdfPCFloatToVAXFFloat, f32(0x7FC00000), kReservedF},
      {"denormal", mdfPCFloatToVAXFFloat, f32(0x00000001), kReservedF},
      {"negative denormal", mdfPCFloatToVAXFFloat, f32(0x807FFFFF), kReservedF},
      {"-0.0f", mdfPCFloatToVAXFFloat, f32(0x80000000), f32(0)},
      // VAX F to IEEE single
      {"F 1.0", mdfVAXFFloatToPCFloat, {0x80, 0x40, 0x00, 0x00}, f32(0x3F800000)},
      {"F -1.0", mdfVAXFFloatToPCFloat, vax({0xC080, 0}), f32(0xBF800000)},
      {"largest F", mdfVAXFFloatToPCFloat, vax({0x7FFF, 0xFFFF}), f32(0x7EFFFFFF)},
      {"F exponent 3", mdfVAXFFloatToPCFloat, vax({0x0180, 0}), f32(0x00800000)},
      {"F exponent 1: +inf", mdfVAXFFloatToPCFloat, vax({0x0080, 0}), f32(0x7F800000)},
      {"F exponent 2: +inf", mdfVAXFFloatToPCFloat, vax({0x0100, 0x1234}), f32(0x7F800000)},
      {"F -, exponent 2: +inf", mdfVAXFFloatToPCFloat, vax({0x817F, 0xFFFF}), f32(0x7F800000)},
      {"F reserved operand", mdfVAXFFloatToPCFloat, kReservedF, f32(0)},
      {"F dirty zero", mdfVAXFFloatToPCFloat, vax({0x007F, 0xFFFF}), f32(0)},
      // IEEE double to VAX D
      {"D 1.0", mdfPCDoubleToVAXDFloat, f64(0x3FF0000000000000), vax({0x4080, 0, 0, 0})},
      {"D -0.0: tiny, E = 1", mdfPCDoubleToVAXDFloat, f64(0x8000000000000000),
       vax({0x8080, 0, 0, 0})},
      {"D -2.0", mdfPCDoubleToVAXDFloat, f64(0xC000000000000000), vax({0xC100, 0, 0, 0})},
      {"D 1+2^-52", mdfPCDoubleToVAXDFloat, f64(0x3FF0000000000001), vax({0x4080, 0, 0, 8})},
      {"D DBL_MAX: E 255", mdfPCDoubleToVAXDFloat, f64(0x7FEFFFFFFFFFFFFF),
       vax({0x7FFF, 0xFFFF, 0xFFFF, 0xFFF8})},
      {"D +inf", mdfPCDoubleToVAXDFloat, f64(0x7FF0000000000000), vax({0x7F80, 0, 0, 0})},
      {"D NaN keeps fraction", mdfPCDoubleToVAXDFloat, f64(0x7FF8000000000000),
       vax({0x7FC0, 0, 0, 0})},
      {"D -NaN", mdfPCDoubleToVAXDFloat, f64(0xFFF0000000000001), vax({0xFF80, 0, 0, 8})},
      {"D DBL_MIN: E 1", mdfPCDoubleToVAXDFloat, f64(0x0010000000000000), vax({0x0080, 0, 0, 0})},
      {"D 2^-129: E 1", mdfPCDoubleToVAXDFloat, f64(0x37E0000000000000), vax({0x0080, 0, 0, 0})},
      {"D 2^-128", mdfPCDoubleToVAXDFloat, f64(0x37F0000000000000), vax({0x0080, 0, 0, 0})},
      {"D 2^-127", mdfPCDoubleToVAXDFloat, f64(0x3800000000000000), vax({0x0100, 0, 0, 0})},
      {"D denormal", mdfPCDoubleToVAXDFloat, f64(1), vax({0x0080, 0, 0, 8})},
      // VAX D to IEEE double
      {"D 1.0 back", mdfVAXDFloatToPCDouble, vax({0x4080, 0, 0, 0}), f64(0x3FF0000000000000)},
      {"D low bits dropped", mdfVAXDFloatToPCDouble, vax({0x4080, 0, 0, 7}),
       f64(0x3FF0000000000000)},
      {"D truncated", mdfVAXDFloatToPCDouble, vax({0x4080, 0, 0, 0xF}), f64(0x3FF0000000000001)},
      {"largest D", mdfVAXDFloatToPCDouble, vax({0x7FFF, 0xFFFF, 0xFFFF, 0xFFFF}),
       f64(0x47DFFFFFFFFFFFFF)},
      {"D exponent 0 as is", mdfVAXDFloatToPCDouble, vax({0, 1, 0, 0}), f64(0x37E0000020000000)},
      {"D reserved operand", mdfVAXDFloatToPCDouble, vax({0x8000, 0, 0, 0}),
       f64(0xB7E0000000000000)},
      // IEEE double to VAX G
      {"G 1.0", mdfPCDoubleToVAXGFloat, f64(0x3FF0000000000000), vax({0x4010, 0, 0, 0})},
      {"G -1.0", mdfPCDoubleToVAXGFloat, f64(0xBFF0000000000000), vax({0xC010, 0, 0, 0})},
      {"G word order", mdfPCDoubleToVAXGFloat, f64(0x0123456789ABCDEF),
       vax({0x0143, 0x4567, 0x89AB, 0xCDEF})},
      {"G DBL_MAX carries into sign", mdfPCDoubleToVAXGFloat, f64(0x7FEFFFFFFFFFFFFF),
       vax({0x800F, 0xFFFF, 0xFFFF, 0xFFFF})},
      {"G +inf likewise", mdfPCDoubleToVAXGFloat, f64(0x7FF0000000000000), vax({0x8010, 0, 0, 0})},
      {"G -DBL_MAX left", mdfPCDoubleToVAXGFloat, f64(0xFFEFFFFFFFFFFFFF),
       vax({0xFFEF, 0xFFFF, 0xFFFF, 0xFFFF})},
      {"G 0xFFDF left", mdfPCDoubleToVAXGFloat, f64(0xFFDF000000000000), vax({0xFFDF, 0, 0, 0})},
      {"G 0xFFDE raised", mdfPCDoubleToVAXGFloat, f64(0xFFDE000000000000), vax({0xFFFE, 0, 0, 0})},
      {"G -0.0", mdfPCDoubleToVAXGFloat, f64(0x8000000000000000), vax({0x8020, 0, 0, 0})},
      {"G denormal", mdfPCDoubleToVAXGFloat, f64(1), vax({0x0020, 0, 0, 1})},
      // VAX G to IEEE double
      {"G 1.0 back", mdfVAXGFloatToPCDouble, vax({0x4010, 0, 0, 0}), f64(0x3FF0000000000000)},
      {"G word order back", mdfVAXGFloatToPCDouble, vax({0x0143, 0x4567, 0x89AB, 0xCDEF}),
       f64(0x0123456789ABCDEF)},
      {"G exponent 2", mdfVAXGFloatToPCDouble, vax({0x0020, 0, 0, 1}), f64(1)},
      {"G below 0x20 as is", mdfVAXGFloatToPCDouble, vax({0x001F, 0, 0, 0}),
       f64(0x001F000000000000)},
      {"G borrows from sign", mdfVAXGFloatToPCDouble, vax({0x8010, 0, 0, 0}),
       f64(0x7FF0000000000000)},
      {"G exponent 0", mdfVAXGFloatToPCDouble, vax({0, 0, 0, 5}), f64(5)},
      // D and G
      {"G 1.0 to D 1.0", mdfVAXGFloatToVAXDFloat, vax({0x4010, 0, 0, 0}), vax({0x4080, 0, 0, 0})},
      {"D 1.0 to G 1.0", mdfVAXDFloatToVAXGFloat, vax({0x4080, 0, 0, 0}), vax({0x4010, 0, 0, 0})},
  };
  for (const auto& c : cases) EXPECT_EQ(run(c.convert, c.in), c.out) << c.what;
}

TEST(Vax, AllZeroInputIsLeftUnchanged) {
  for (Converter c : {mdfPCFloatToVAXFFloat, mdfVAXFFloatToPCFloat}) {
    EXPECT_EQ(run(c, Bytes(4)), Bytes(4));
  }
  for (Converter c : {mdfPCDoubleToVAXDFloat, mdfVAXDFloatToPCDouble, mdfPCDoubleToVAXGFloat,
                      mdfVAXGFloatToPCDouble, mdfVAXDFloatToVAXGFloat, mdfVAXGFloatToVAXDFloat}) {
    EXPECT_EQ(run(c, Bytes(8)), Bytes(8));
  }
}

// ---- Many values against the references ------------------------------------------------------

constexpr int kRandomCases = 20000;

// IEEE double bits with a uniformly drawn exponent in [lo, hi] and random sign and fraction.
uint64_t random_double_bits(std::mt19937_64& rng, int lo, int hi) {
  const auto e = static_cast<uint64_t>(std::uniform_int_distribution<int>(lo, hi)(rng));
  return (rng() & 0x800FFFFFFFFFFFFFu) | (e << 52);
}

// Random VAX G pattern with exponent 3 or more.
Bytes random_vax_g(std::mt19937_64& rng) {
  for (;;) {
    const uint64_t v = rng();
    if (((v >> 52) & 0x7FF) >= 3) return vax64(v);
  }
}

TEST(Vax, RandomSinglesToVaxF) {
  std::mt19937_64 rng(1);
  for (int i = 0; i < kRandomCases; ++i) {
    const auto bits = static_cast<uint32_t>(rng());
    ASSERT_EQ(run(mdfPCFloatToVAXFFloat, f32(bits)), reference_vax_f(std::bit_cast<float>(bits)))
        << std::hex << bits;
  }
}

TEST(Vax, RandomVaxFToSingles) {
  std::mt19937_64 rng(2);
  for (int i = 0; i < kRandomCases; ++i) {
    const Bytes in = f32(static_cast<uint32_t>(rng()));
    ASSERT_EQ(run(mdfVAXFFloatToPCFloat, in), reference_from_vax_f(in)) << std::hex << le_value(in);
  }
}

TEST(Vax, EveryVaxFExponentRoundTrips) {
  std::mt19937_64 rng(3);
  for (uint32_t e = 3; e <= 255; ++e) {
    for (int j = 0; j < 40; ++j) {
      const uint32_t v = (static_cast<uint32_t>(j & 1) << 31) | (e << 23) |
                         (static_cast<uint32_t>(rng()) & 0x7FFFFF);
      const Bytes in = vax({static_cast<uint16_t>(v >> 16), static_cast<uint16_t>(v)});
      ASSERT_EQ(run(mdfPCFloatToVAXFFloat, run(mdfVAXFFloatToPCFloat, in)), in) << std::hex << v;
    }
  }
}

TEST(Vax, RandomDoublesToVaxD) {
  std::mt19937_64 rng(4);
  for (int i = 0; i < kRandomCases; ++i) {
    // Exponents spread evenly, so that both clamps are well covered; NaNs are in the table.
    const uint64_t bits = random_double_bits(rng, 0, 2047);
    const double d = std::bit_cast<double>(bits);
    if (std::isnan(d)) continue;
    ASSERT_EQ(run(mdfPCDoubleToVAXDFloat, f64(bits)), reference_vax_d(d)) << std::hex << bits;
  }
}

TEST(Vax, RandomVaxDToDoubles) {
  std::mt19937_64 rng(5);
  for (int i = 0; i < kRandomCases; ++i) {
    const Bytes in = vax64(rng());
    ASSERT_EQ(run(mdfVAXDFloatToPCDouble, in), reference_from_vax_d(in))
        << std::hex << vax_value(in);
  }
}

TEST(Vax, DoublesInVaxDRangeRoundTrip) {
  std::mt19937_64 rng(6);
  for (int i = 0; i < kRandomCases; ++i) {
    const Bytes in = f64(random_double_bits(rng, 895, 1149));  // VAX D exponents 1 to 255
    ASSERT_EQ(run(mdfVAXDFloatToPCDouble, run(mdfPCDoubleToVAXDFloat, in)), in)
        << std::hex << le_value(in);
  }
}

TEST(Vax, RandomDoublesToVaxGAndBack) {
  std::mt19937_64 rng(7);
  for (int i = 0; i < kRandomCases; ++i) {
    const uint64_t bits = random_double_bits(rng, 1, 2044);  // normal, below 2^1022
    const Bytes g = run(mdfPCDoubleToVAXGFloat, f64(bits));
    ASSERT_EQ(g, reference_vax_g(std::bit_cast<double>(bits))) << std::hex << bits;
    ASSERT_EQ(run(mdfVAXGFloatToPCDouble, g), f64(bits)) << std::hex << bits;
  }
}

TEST(Vax, RandomVaxGToDoubles) {
  std::mt19937_64 rng(8);
  for (int i = 0; i < kRandomCases; ++i) {
    const Bytes in = random_vax_g(rng);
    ASSERT_EQ(run(mdfVAXGFloatToPCDouble, in), reference_from_vax_g(in))
        << std::hex << vax_value(in);
  }
}

TEST(Vax, RandomDAndGBetweenEachOther) {
  std::mt19937_64 rng(9);
  for (int i = 0; i < kRandomCases; ++i) {
    // Every VAX D value lies well inside the normal double range.
    const Bytes d = vax64(rng());
    const double dv = std::bit_cast<double>(le_value(reference_from_vax_d(d)));
    ASSERT_EQ(run(mdfVAXDFloatToVAXGFloat, d), reference_vax_g(dv)) << std::hex << vax_value(d);
    const Bytes g = random_vax_g(rng);
    const double gv = std::bit_cast<double>(le_value(reference_from_vax_g(g)));
    ASSERT_EQ(run(mdfVAXGFloatToVAXDFloat, g), reference_vax_d(gv)) << std::hex << vax_value(g);
  }
}

}  // namespace
