// Forward and inverse conversion rules on CC images built here byte by byte, and the linear
// pair derived from the first text of a verbal range table. Expected values are worked out
// by hand from the rule formulas (the comments show the arithmetic).
#include "convert/conversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "korvel.h"
#include "storage/layout.h"
#include "support/mdf_builder.h"

namespace {

namespace cc = korvel::layout::cc;
using Bytes = std::vector<uint8_t>;

// Numbers in host order, which is the file's (little-endian) on every system built for.
template <class T>
void put(Bytes& b, uint32_t at, T v) {
  std::memcpy(b.data() + at, &v, sizeof v);
}
double get_real(const Bytes& b, uint32_t at) {
  double v = 0;
  std::memcpy(&v, b.data() + at, 8);
  return v;
}

// A CC image of `size` bytes (46 + 8 per parameter when 0) with the stored entry count
// `count`, followed by the 16-byte extra holding offset 0.0 and factor 1.0.
Bytes make_cc(int type, int count, const std::vector<double>& params, uint32_t size = 0) {
  if (size == 0) size = cc::kSize + 8 * static_cast<uint32_t>(params.size());
  mdftest::Image b;
  b.bytes.resize(size + cc::kExtra);
  b.patch_chars(0, 2, "CC");
  b.patch_u16(2, static_cast<uint16_t>(size));
  if (size >= cc::kType + 2) b.patch_u16(cc::kType, static_cast<uint16_t>(type));
  if (size >= cc::kCount + 2) b.patch_u16(cc::kCount, static_cast<uint16_t>(count));
  for (uint32_t k = 0; k < params.size() && cc::kParams + 8 * k + 8 <= size; ++k) {
    b.patch_f64(cc::kParams + 8 * k, params[k]);
  }
  b.patch_f64(size + 8, 1.0);
  return b.bytes;
}

// Forward (raw in, physical out), inverse (physical in, raw out), or both ways.
enum Direction { kFwd, kInv, kBoth };

struct RuleCase {
  int type;
  std::vector<double> p;  // P1, P2, ... or r0, p0, r1, p1, ...
  Direction dir;
  double raw, phys;
  int16_t status = 0;
  uint32_t size = 0;  // the block size, when shorter than its parameters need
  int count = -1;     // the stored count, when it is not the number of parameters or points
};

// Tables store (raw, physical) pairs: their entry count is half the number of doubles. A
// verbal range table here has no entries and the linear pair {offset, factor} behind it.
Bytes make_rule(const RuleCase& c) {
  if (c.type == MDF_CC_FRM_VTABR) {
    Bytes b = make_cc(c.type, 0, {});
    korvel::set_cc_extra(b.data(), c.p[0], c.p[1]);
    return b;
  }
  const bool table = c.type == MDF_CC_FRM_ITAB || c.type == MDF_CC_FRM_TAB;
  const auto count = static_cast<int>(table ? c.p.size() / 2 : c.p.size());
  return make_cc(c.type, c.count >= 0 ? c.count : count, c.p, c.size);
}

const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Points (0, 5), (10, 100), (20, 300), (30, 250), and a falling pair (1, 10), (2, 0).
const std::vector<double> kPts = {0, 5, 10, 100, 20, 300, 30, 250};
const std::vector<double> kFall = {1, 10, 2, 0};
const std::vector<double> kPol = {1, 10, 2, 3, 4, 99};         // P6 = 99 plays no part
const std::vector<double> kExpA = {2, 0.5, 1, 0, 0, 3, 1};     // P4 = 0
const std::vector<double> kExpB = {0, 1, 8, 2, 0.5, 1, 1};     // P1 = 0, P4 set
const std::vector<double> kExpPass = {2, 0.5, 1, 4, 1, 3, 1};  // P1 and P4 set

// clang-format off
const RuleCase kRuleCases[] = {
    // Linear: y = x P2 + P1; x = (y - P1) / P2, 0 when P2 = 0.
    {0, {-10, 0.5}, kBoth, 4, -8}, {0, {5, 0}, kFwd, 123, 5}, {0, {5, 0}, kInv, 0, 5},
    // Interpolated table: clamped outside, inner points exact, linear in between (95/10*5+5).
    // Its inverse: the first segment enclosing y in either direction, else 0; segments 1 and
    // 2 both enclose 275; the falling pair gives -0.1*-7.5+1.
    {1, kPts, kFwd, -5, 5}, {1, kPts, kBoth, 5, 52.5}, {1, kPts, kBoth, 20, 300},
    {1, kPts, kFwd, 25, 275}, {1, kPts, kInv, 18.75, 275}, {1, kPts, kInv, 17.5, 250},
    {1, kPts, kInv, 0, 4}, {1, kPts, kInv, 0, 301}, {1, kFall, kInv, 1.75, 2.5},
    // Step table: the nearer point, a tie takes the lower point forward and the later point
    // backwards. Then tables of one point or none.
    {2, kPts, kFwd, 5, 5}, {2, kPts, kFwd, 5.1, 100}, {2, kPts, kFwd, 25, 300},
    {2, kPts, kFwd, 26, 250}, {2, kPts, kInv, 10, 52.5}, {2, kPts, kInv, 0, 52},
    {2, kPts, kInv, 20, 275}, {2, kFall, kInv, 2, 2.5}, {1, {3, 42}, kFwd, 8, 42},
    {2, {3, 42}, kInv, 0, 42}, {1, {}, kFwd, 8, 0}, {2, {}, kInv, 0, 8},
    // Polynomial: y = (P2 - P4 u) / (P3 u - P1), u = x - P5; x = (y P1 + P2) / (y P3 + P4) + P5.
    // u = 1: 7 / 1; u = 2: (34/3) / (17/3) + 4; then y P3 + P4 = 0, and no guard forward: 8.5 / 0.
    {6, kPol, kBoth, 5, 7}, {6, kPol, kBoth, 6, 4.0 / 3}, {6, kPol, kInv, 0, -1.5},
    {6, kPol, kFwd, 4.5, kInf},
    // Exponential, P4 = 0: y = ln(((x - P7) P6 - P3) / P1) / P2, 0 when P1 (or P2) is 0;
    // x = (exp(y P2) P1 + P3) / (exp(y P5) P4 + P6) + P7: (2.5 * 2 + 1) / 3 + 1.
    {7, kExpA, kBoth, 3, 2 * std::log(2.5)}, {7, {0, 0.5, 1, 0, 0, 3, 1}, kFwd, 3, 0},
    {7, {2, 0, 1, 0, 0, 3, 1}, kFwd, 3, 0},
    // P1 and P4 set: the raw value passes. P1 = 0: y = ln((P3 / v - P6) / P4) / P5, v = x - P7;
    // 0 when P5 or v is 0 (8 / (1.5 * 2 + 1) + 1). The inverse's exp(0) * -1 + 1 = 0.
    {7, kExpPass, kFwd, -17.25, -17.25}, {7, kExpB, kBoth, 3, 2 * std::log(1.5)},
    {7, kExpB, kFwd, 1, 0}, {7, {0, 1, 8, 2, 0, 1, 1}, kFwd, 3, 0},
    {7, {1, 1, 1, -1, 0, 1, 0}, kInv, 0, 3},
    // Logarithmic: the same branches with exp in place of ln, and the other way round; the
    // inverses give ln(1) * 1 + 0 = 0 and (2*3+2)/(2+1)+0.5.
    {8, kExpA, kFwd, 3, 2 * std::exp(2.5)}, {8, {2, 0, 1, 0, 0, 3, 1}, kFwd, 3, 0},
    {8, kExpPass, kFwd, 6.5, 6.5}, {8, kExpB, kFwd, 3, 2 * std::exp(1.5)},
    {8, {1, 1, 0, 1, 1, 0, 0}, kInv, 0, 1},
    {8, {3, 1, 2, 1, 1, 1, 0.5}, kInv, 8.0 / 3 + 0.5, std::exp(2.0)},
    // Rational: y = (P1 x^2 + P2 x + P3) / (P4 x^2 + P5 x + P6), 0 when the divisor is 0.
    {9, {1, 2, 3, 0, 1, 1}, kFwd, 2, 11.0 / 3}, {9, {1, 2, 3, 0, 1, 1}, kFwd, -1, 0},
    // P1 = P4 = 0: x = (P3 - y P6) / (y P5 - P2), 0 when that divisor is 0.
    {9, {0, 2, 3, 0, 1, 1}, kBoth, 1, 2.5}, {9, {0, 2, 3, 0, 1, 1}, kInv, 0, 2},
    // Otherwise the root with the plus sign: y = x^2 gives sqrt(y), never -sqrt(y); a = 0.
    // a = 2 - y, b = 1 - 2y, c = 3: y = 3 gives (sqrt(25 + 12) + 5) / -2; y = 1 has no root.
    {9, {1, 0, 0, 0, 0, 1}, kInv, 3, 9}, {9, {1, 0, 0, 1, 0, 0}, kInv, 0, 1},
    {9, {2, 1, 3, 1, 2, 0}, kInv, (std::sqrt(37.0) + 5) / -2, 3},
    {9, {2, 1, 3, 1, 2, 0}, kInv, kNaN, 1},
    // Verbal range table: physical = raw * factor + offset; no inverse for factor 0.
    {12, {-10, 2.5}, kBoth, 10, 15}, {12, {7, 0}, kInv, 0, 15},
    // Verbal table and identity pass values both ways.
    {11, {}, kBoth, 12.5, 12.5}, {65535, {}, kBoth, -4, -4},
    // Parameters beyond the block size read as 0: only P1 of a linear rule is inside, so
    // y = P1 and the inverse's guard applies; a polynomial cut after P3 has P4 = P5 = 0, so
    // y = P2 / (P3 x - P1) = 10 / 5.
    {0, {4, 3}, kFwd, 100, 4, 0, cc::kSize + 8}, {0, {4, 3}, kInv, 0, 100, 0, cc::kSize + 8},
    {6, {1, 10, 2, 3, 4, 5}, kFwd, 3, 2, 0, cc::kSize + 24},
    // A table claiming 50 points but holding two uses the two; a half point at the end is
    // not used, which leaves one point (0, 7).
    {1, {0, 0, 10, 100}, kFwd, 20, 100, 0, 0, 50}, {1, {0, 0, 10, 100}, kInv, 0, 150, 0, 0, 50},
    {2, {0, 7, 10}, kFwd, 50, 7, 0, cc::kSize + 24, 2},
    // No rule (-1 here) is the identity. Unknown types, and a block shorter than the common
    // part, give 1021 and pass the value.
    {-1, {}, kBoth, 3.25, 3.25}, {3, {1, 2}, kBoth, 6.5, 6.5, 1021},
    {13, {1, 2}, kBoth, 6.5, 6.5, 1021}, {65534, {1, 2}, kBoth, 6.5, 6.5, 1021},
    {0, {}, kBoth, 6.5, 6.5, 1021, 20},
};
// clang-format on

TEST(ConversionTest, RulesBothWays) {
  for (const RuleCase& c : kRuleCases) {
    Bytes rule = make_rule(c);
    for (Direction d : {kFwd, kInv}) {
      if (c.dir != kBoth && c.dir != d) continue;
      double out = -12345.0;
      const double in = d == kFwd ? c.raw : c.phys, want = d == kFwd ? c.phys : c.raw;
      SCOPED_TRACE("type " + std::to_string(c.type) + (d == kFwd ? " fwd " : " inv ") +
                   std::to_string(in));
      const uint8_t* image = c.type < 0 ? nullptr : rule.data();
      EXPECT_EQ(d == kFwd ? korvel::to_physical(image, in, &out) : korvel::to_raw(image, in, &out),
                c.status);
      if (std::isnan(want)) {
        EXPECT_TRUE(std::isnan(out));
      } else {
        EXPECT_DOUBLE_EQ(out, want);
      }
    }
  }
  // A text formula forward through the evaluator; a faulty one gives 0.0 and still succeeds.
  // It has no inverse.
  for (auto [text, y] : {std::pair{"x*2+1", 7.0}, {"X*(", 0.0}, {"X/0", 0.0}}) {
    const auto length = static_cast<uint32_t>(std::strlen(text));
    Bytes rule = make_cc(MDF_CC_FRM_TXT, 0, {}, cc::kSize + length);
    std::memcpy(rule.data() + cc::kParams, text, length);
    double v = -1;
    EXPECT_EQ(korvel::to_physical(rule.data(), 3.0, &v), 0) << text;
    EXPECT_EQ(v, y) << text;
    EXPECT_EQ(korvel::to_raw(rule.data(), 7.0, &v), MDF_UNSUPPORTED_RULE) << text;
  }
  // Integers become doubles before the rule: unsigned ones above 2^63 stay positive.
  Bytes lin = make_cc(MDF_CC_FRM_LIN, 2, {1, 2});
  double v = -1;
  EXPECT_EQ(korvel::to_physical_signed(lin.data(), INT64_MIN, &v), 0);
  EXPECT_EQ(v, -0x1p64 + 1);
  EXPECT_EQ(korvel::to_physical_unsigned(lin.data(), 1ull << 63, &v), 0);
  EXPECT_EQ(v, 0x1p64 + 1);
  // No rule: the identity; an unsupported one: 1021, and the integer passes.
  EXPECT_EQ(korvel::to_physical_signed(nullptr, -7, &v), 0);
  EXPECT_EQ(v, -7);
  Bytes unknown = make_cc(13, 2, {1.0, 2.0});
  EXPECT_EQ(korvel::to_physical_signed(unknown.data(), -3, &v), MDF_UNSUPPORTED_RULE);
  EXPECT_EQ(v, -3);
  EXPECT_EQ(korvel::to_physical_unsigned(unknown.data(), 11, &v), MDF_UNSUPPORTED_RULE);
  EXPECT_EQ(v, 11);
}

// A verbal range table with `n` entries whose entry 0 links to `link`; the pair behind it
// starts out stale so that the defaults are seen to be written.
Bytes make_vtabr(int n, uint32_t link) {
  const auto size = cc::kSize + cc::kVtabrEntry * static_cast<uint32_t>(n);
  Bytes b = make_cc(MDF_CC_FRM_VTABR, n, {}, size);
  for (uint32_t i = 0; i < static_cast<uint32_t>(n); ++i) {
    put(b, cc::kParams + cc::kVtabrEntry * i + cc::kVtabrLink, i == 0 ? link : 1000 + i);
  }
  put(b, size, 555.0);
  put(b, size + 8, 666.0);
  return b;
}

TEST(ConversionTest, RangeTableAnnotations) {
  // The text of entry 0 sets the linear pair behind the block (offset, then factor), when
  // the table has entries and entry 0 a text link; the pair is (0, 1) otherwise.
  // clang-format off
  struct Case { const char* text; double offset, factor; int n = 2; uint32_t link = 0x1234; };
  const Case cases[] = {
      // Each pattern in turn.
      {"{LINEAR_CONV \"2.5*{X}-10\"}", -10, 2.5}, {"{EVAL \"2.5*{X}+3\"}", 3, 2.5},
      {"{EVAL \"5-2*{X}\"}", 5, -2}, {"{EVAL \"3*{X}\"}", 0, 3}, {"{EVAL \"10+{X}\"}", 10, 1},
      {"{EVAL \"{X}-4\"}", -4, 1}, {"{EVAL \"7\"}", 7, 1},
      // No entries, no text link in entry 0, no text; one entry is enough.
      {"{EVAL \"3*{X}\"}", 0, 1, 0}, {"{EVAL \"3*{X}\"}", 0, 1, 2, 0}, {nullptr, 0, 1},
      {"{EVAL \"3*{X}\"}", 0, 3, 1},
      // The closing brace is required right after the quote; what follows it is ignored. A
      // blank in the pattern matches any white space, also none; numbers skip white space;
      // literal characters, their case included, do not. Two fields read are not three.
      {"{EVAL \"3*{X}\" }", 0, 1}, {"{EVAL \"3*{X}\"}..", 0, 3}, {"{EVAL\"3*{X}\"}", 0, 3},
      {"{EVAL \t\n \" 3*{X}\"}", 0, 3}, {"{eval \"3*{X}\"}", 0, 1}, {"{EVAL \"3 *{X}\"}", 0, 1},
      {"{LINEAR_CONV \"2*{X} -1\"}", -1, 2}, {"{LINEAR_CONV \"2.5*{X}\"}", 0, 1},
      // Number syntax: exponents, hexadecimal, infinity, a number too large. A number cut short
      // after its exponent mark or "0x" is no number at all. "5e-2" is one number, so the third
      // pattern finds no minus; the fourth fits.
      {"{EVAL \"1.5e2*{X}\"}", 0, 150}, {"{EVAL \"0x1.8p1*{X}\"}", 0, 3}, {"Idle", 0, 1},
      {"{EVAL \"INF*{X}\"}", 0, kInf}, {"{EVAL \"1e400*{X}\"}", 0, kInf},
      {"{EVAL \"1e*{X}\"}", 0, 1}, {"{EVAL \"0x*{X}\"}", 0, 1}, {"{EVAL \"5e-2*{X}\"}", 0, 0.05},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes b = make_vtabr(c.n, c.link);
    korvel::derive_vtabr_extra(b.data(), c.text);
    const uint32_t size = cc::kSize + cc::kVtabrEntry * static_cast<uint32_t>(c.n);
    EXPECT_EQ(std::make_pair(get_real(b, size), get_real(b, size + 8)),
              std::make_pair(c.offset, c.factor))
        << (c.text ? c.text : "null");
  }
  // Another rule type gets the defaults whatever the text says (its P3 = 3.3 lies where
  // entry 0's text link would be, and is not 0).
  Bytes lin = make_cc(MDF_CC_FRM_LIN, 1, {1, 2, 3.3});
  put(lin, cc::kSize + 24, 9.0);
  put(lin, cc::kSize + 32, 9.0);
  korvel::derive_vtabr_extra(lin.data(), "{EVAL \"3*{X}\"}");
  EXPECT_EQ(std::make_pair(get_real(lin, cc::kSize + 24), get_real(lin, cc::kSize + 32)),
            std::make_pair(0.0, 1.0));
  // A count larger than the block: entry 0 is inside and counts, entry 1 is not read; a
  // count of 3 holds entry 2 but not entry 3.
  Bytes b = make_vtabr(1, 77);
  put(b, cc::kCount, uint16_t{900});
  korvel::derive_vtabr_extra(b.data(), "{EVAL \"4*{X}\"}");
  EXPECT_EQ(korvel::cc_extra_factor(b.data()), 4.0);
  EXPECT_EQ(korvel::vtabr_text_link(b.data(), 1), 0u);
  Bytes three = make_vtabr(3, 0x55);
  EXPECT_EQ(korvel::vtabr_text_link(three.data(), 2), 1002u);
  EXPECT_EQ(korvel::vtabr_text_link(three.data(), 3), 0u);
}

}  // namespace
