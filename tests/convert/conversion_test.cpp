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

namespace {

namespace cc = korvel::layout::cc;
using Bytes = std::vector<uint8_t>;

void put16(Bytes& b, uint32_t at, uint32_t v) {
  b[at] = static_cast<uint8_t>(v & 0xFF);
  b[at + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
}
void put32(Bytes& b, uint32_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void put_real(Bytes& b, uint32_t at, double v) {
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  for (int i = 0; i < 8; ++i) b[at + i] = static_cast<uint8_t>(bits >> (8 * i));
}
double get_real(const Bytes& b, uint32_t at) {
  uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits |= static_cast<uint64_t>(b[at + i]) << (8 * i);
  double v;
  std::memcpy(&v, &bits, 8);
  return v;
}

// A CC image of `size` bytes (46 + 8 per parameter when 0) with the stored entry count
// `count`, followed by the 16-byte extra holding offset 0.0 and factor 1.0.
Bytes make_cc(int type, int count, const std::vector<double>& params, uint32_t size = 0) {
  if (size == 0) size = cc::kSize + 8 * static_cast<uint32_t>(params.size());
  Bytes b(size + cc::kExtra, 0);
  b[0] = 'C';
  b[1] = 'C';
  put16(b, 2, size);
  if (size >= cc::kType + 2) put16(b, cc::kType, static_cast<uint32_t>(type));
  if (size >= cc::kCount + 2) put16(b, cc::kCount, static_cast<uint32_t>(count));
  for (uint32_t k = 0; k < params.size() && cc::kParams + 8 * k + 8 <= size; ++k) {
    put_real(b, cc::kParams + 8 * k, params[k]);
  }
  put_real(b, size + 8, 1.0);
  return b;
}

// Tables store (raw, physical) pairs: their entry count is half the number of doubles.
Bytes make_rule(int type, const std::vector<double>& p) {
  bool table = type == MDF_CC_FRM_ITAB || type == MDF_CC_FRM_TAB;
  return make_cc(type, static_cast<int>(table ? p.size() / 2 : p.size()), p);
}

enum Direction { kFwd, kInv };

struct RuleCase {
  int type;
  std::vector<double> p;  // P1, P2, ... or r0, p0, r1, p1, ...
  Direction dir;
  double in, out;
};

const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Points (0, 5), (10, 100), (20, 300), (30, 250), and a falling pair (1, 10), (2, 0).
const std::vector<double> kPts = {0, 5, 10, 100, 20, 300, 30, 250};
const std::vector<double> kFall = {1, 10, 2, 0};
const std::vector<double> kPol = {1, 10, 2, 3, 4, 99};  // P6 = 99 plays no part
const std::vector<double> kPol0 = {1, 10, 2, 3, 4, 0};
const std::vector<double> kExpA = {2, 0.5, 1, 0, 0, 3, 1};     // P4 = 0
const std::vector<double> kExpB = {0, 1, 8, 2, 0.5, 1, 1};     // P1 = 0, P4 set
const std::vector<double> kExpPass = {2, 0.5, 1, 4, 1, 3, 1};  // P1 and P4 set

// clang-format off
const RuleCase kRuleCases[] = {
    // Linear: y = x P2 + P1; x = (y - P1) / P2, 0 when P2 = 0.
    {0, {1, 2}, kFwd, 3, 7},            {0, {1, 2}, kInv, 7, 3},
    {0, {-10, 0.5}, kFwd, 4, -8},       {0, {-10, 0.5}, kInv, -8, 4},
    {0, {100, -4}, kFwd, 25, 0},        {0, {100, -4}, kInv, 0, 25},
    {0, {5, 0}, kFwd, 123, 5},          {0, {5, 0}, kInv, 5, 0},
    // Interpolated table: clamped outside, inner points exact, linear in between.
    {1, kPts, kFwd, -5, 5},   {1, kPts, kFwd, 0, 5},     {1, kPts, kFwd, 5, 52.5},   // 95/10*5+5
    {1, kPts, kFwd, 10, 100}, {1, kPts, kFwd, 15, 200},  {1, kPts, kFwd, 20, 300},
    {1, kPts, kFwd, 25, 275}, {1, kPts, kFwd, 30, 250},  {1, kPts, kFwd, 99, 250},
    {1, kPts, kFwd, 12.5, 150},                                   // 200/10*2.5+100
    // Its inverse: the first segment enclosing y in either direction, else 0.
    {1, kPts, kInv, 52.5, 5}, {1, kPts, kInv, 5, 0},
    {1, kPts, kInv, 200, 15},                                     // 10/200*100+10
    {1, kPts, kInv, 275, 18.75},  // segments 1 and 2 both enclose 275: the first wins
    {1, kPts, kInv, 250, 17.5},   {1, kPts, kInv, 300, 20},
    {1, kPts, kInv, 4, 0},    {1, kPts, kInv, 301, 0},   {1, kFall, kInv, 2.5, 1.75}, // -0.1*-7.5+1
    // Step table: the nearer point, a tie takes the lower point forward ...
    {2, kPts, kFwd, -1, 5},   {2, kPts, kFwd, 4.9, 5},   {2, kPts, kFwd, 5, 5},
    {2, kPts, kFwd, 5.1, 100}, {2, kPts, kFwd, 15, 100}, {2, kPts, kFwd, 16, 300},
    {2, kPts, kFwd, 20, 300}, {2, kPts, kFwd, 25, 300},  {2, kPts, kFwd, 26, 250},
    // ... and the later point backwards.
    {2, kPts, kInv, 52.5, 10}, {2, kPts, kInv, 52, 0},   {2, kPts, kInv, 53, 10},
    {2, kPts, kInv, 275, 20}, {2, kPts, kInv, 4, 0},
    {2, kFall, kInv, 7, 1},   {2, kFall, kInv, 5, 2},    {2, kFall, kInv, 2.5, 2},
    // Tables of one point or none.
    {1, {3, 42}, kFwd, -1, 42}, {1, {3, 42}, kFwd, 8, 42}, {1, {3, 42}, kInv, 42, 0},
    {2, {3, 42}, kFwd, 8, 42},  {2, {3, 42}, kInv, 42, 0},
    {1, {}, kFwd, 8, 0},        {2, {}, kInv, 8, 0},
    // Polynomial: y = (P2 - P4 u) / (P3 u - P1), u = x - P5; x = (y P1 + P2) / (y P3 + P4) + P5.
    {6, kPol, kFwd, 5, 7},      {6, kPol0, kFwd, 5, 7},        // u = 1: 7 / 1
    {6, kPol, kFwd, 6, 4.0 / 3}, {6, kPol0, kFwd, 6, 4.0 / 3}, // u = 2: 4 / 3
    {6, kPol, kInv, 7, 5},      {6, kPol0, kInv, 7, 5},        // 17 / 17 + 4
    {6, kPol, kInv, 4.0 / 3, 6},                               // (34/3) / (17/3) + 4
    {6, kPol, kInv, -1.5, 0},                                  // y P3 + P4 = 0
    {6, kPol, kFwd, 4.5, kInf},                                // no guard forward: 8.5 / 0
    // Exponential, P4 = 0: y = ln(((x - P7) P6 - P3) / P1) / P2, 0 when P1 or P2 is 0.
    {7, kExpA, kFwd, 3, 2 * std::log(2.5)},
    {7, kExpA, kInv, 2 * std::log(2.5), 3},                    // (2.5 * 2 + 1) / 3 + 1
    {7, {0, 0.5, 1, 0, 0, 3, 1}, kFwd, 3, 0},  {7, {2, 0, 1, 0, 0, 3, 1}, kFwd, 3, 0},
    // P1 and P4 set: the raw value passes.
    {7, kExpPass, kFwd, 3, 3},  {7, kExpPass, kFwd, -17.25, -17.25},
    // P1 = 0: y = ln((P3 / v - P6) / P4) / P5, v = x - P7; 0 when P5 or v is 0.
    {7, kExpB, kFwd, 3, 2 * std::log(1.5)},
    {7, kExpB, kInv, 2 * std::log(1.5), 3},                    // 8 / (1.5 * 2 + 1) + 1
    {7, kExpB, kFwd, 1, 0},     {7, {0, 1, 8, 2, 0, 1, 1}, kFwd, 3, 0},
    {7, {1, 1, 1, -1, 0, 1, 0}, kInv, 3, 0},                   // exp(0) * -1 + 1 = 0
    // Logarithmic: the same branches with exp in place of ln.
    {8, kExpA, kFwd, 3, 2 * std::exp(2.5)},
    {8, {0, 0.5, 1, 0, 0, 3, 1}, kFwd, 3, 0},  {8, {2, 0, 1, 0, 0, 3, 1}, kFwd, 3, 0},
    {8, kExpPass, kFwd, 6.5, 6.5},
    {8, kExpB, kFwd, 3, 2 * std::exp(1.5)},    {8, kExpB, kFwd, 1, 0},
    {8, {0, 1, 8, 2, 0, 1, 1}, kFwd, 3, 0},
    // x = (ln(y P2) P1 + P3) / (ln(y P5) P4 + P6) + P7.
    {8, {1, 1, 0, 1, 1, 0, 0}, kInv, std::exp(1.0), 1},
    {8, {1, 1, 0, 1, 1, 0, 0}, kInv, 1, 0},                    // ln(1) * 1 + 0 = 0
    {8, {3, 1, 2, 1, 1, 1, 0.5}, kInv, std::exp(2.0), 8.0 / 3 + 0.5},  // (2*3+2)/(2+1)+0.5
    // Rational: y = (P1 x^2 + P2 x + P3) / (P4 x^2 + P5 x + P6), 0 when the divisor is 0.
    {9, {1, 2, 3, 0, 1, 1}, kFwd, 2, 11.0 / 3}, {9, {1, 2, 3, 0, 1, 1}, kFwd, -1, 0},
    // P1 = P4 = 0: x = (P3 - y P6) / (y P5 - P2), 0 when that divisor is 0.
    {9, {0, 2, 3, 0, 1, 1}, kFwd, 1, 2.5},      {9, {0, 2, 3, 0, 1, 1}, kInv, 2.5, 1},
    {9, {0, 2, 3, 0, 1, 1}, kInv, 4, -0.5},     {9, {0, 2, 3, 0, 1, 1}, kInv, 2, 0},
    // Otherwise the root with the plus sign: y = x^2 gives sqrt(y), never -sqrt(y).
    {9, {1, 0, 0, 0, 0, 1}, kFwd, -3, 9},       {9, {1, 0, 0, 0, 0, 1}, kInv, 9, 3},
    {9, {1, 0, 0, 0, 0, 1}, kInv, 2.25, 1.5},   {9, {1, 0, 0, 1, 0, 0}, kInv, 1, 0},  // a = 0
    // a = 2 - y, b = 1 - 2y, c = 3: y = 3 gives (sqrt(25 + 12) + 5) / -2; y = 1 has no root.
    {9, {2, 1, 3, 1, 2, 0}, kInv, 3, (std::sqrt(37.0) + 5) / -2},
    {9, {2, 1, 3, 1, 2, 0}, kInv, 1, kNaN},
    // Verbal table and identity pass values both ways.
    {11, {}, kFwd, 12.5, 12.5}, {11, {}, kInv, -4, -4},
    {65535, {}, kFwd, 12.5, 12.5}, {65535, {}, kInv, -4, -4},
};
// clang-format on

TEST(ConversionTest, RulesBothWays) {
  for (const RuleCase& c : kRuleCases) {
    Bytes rule = make_rule(c.type, c.p);
    double out = -12345.0;
    int16_t status = c.dir == kFwd ? korvel::to_physical(rule.data(), c.in, &out)
                                   : korvel::to_raw(rule.data(), c.in, &out);
    std::string what = "type " + std::to_string(c.type) + (c.dir == kFwd ? " fwd " : " inv ") +
                       std::to_string(c.in);
    EXPECT_EQ(status, 0) << what;
    if (std::isnan(c.out)) {
      EXPECT_TRUE(std::isnan(out)) << what;
    } else {
      EXPECT_DOUBLE_EQ(out, c.out) << what;
    }
  }
}

TEST(ConversionTest, NullRuleIsIdentity) {
  double v = 0;
  EXPECT_EQ(korvel::to_physical(nullptr, 3.25, &v), 0);
  EXPECT_EQ(v, 3.25);
  EXPECT_EQ(korvel::to_physical_signed(nullptr, -7, &v), 0);
  EXPECT_EQ(v, -7.0);
  EXPECT_EQ(korvel::to_raw(nullptr, -2.5, &v), 0);
  EXPECT_EQ(v, -2.5);
}

TEST(ConversionTest, IntegerEntriesConvertToDoubleFirst) {
  Bytes rule = make_rule(MDF_CC_FRM_LIN, {1, 2});
  double y = 0;
  EXPECT_EQ(korvel::to_physical_signed(rule.data(), -5, &y), 0);
  EXPECT_EQ(y, -9.0);
  EXPECT_EQ(korvel::to_physical_signed(rule.data(), INT64_MIN, &y), 0);
  EXPECT_EQ(y, -0x1p64 + 1);
  EXPECT_EQ(korvel::to_physical_unsigned(rule.data(), 0x8000000000000000ull, &y), 0);
  EXPECT_EQ(y, 0x1p64 + 1);  // stays positive
  EXPECT_EQ(korvel::to_physical_unsigned(rule.data(), 12, &y), 0);
  EXPECT_EQ(y, 25.0);
}

TEST(ConversionTest, TextFormulaForwardOnly) {
  // Forward through the evaluator; a faulty formula gives 0.0 and still succeeds.
  const std::pair<const char*, double> cases[] = {{"x*2+1", 7.0}, {"X*(", 0.0}, {"X/0", 0.0}};
  for (auto [text, y] : cases) {
    uint32_t length = static_cast<uint32_t>(std::strlen(text));
    Bytes rule = make_cc(MDF_CC_FRM_TXT, 0, {}, cc::kSize + length);
    std::memcpy(rule.data() + cc::kParams, text, length);
    double out = -1;
    EXPECT_EQ(korvel::to_physical(rule.data(), 3.0, &out), 0) << text;
    EXPECT_EQ(out, y) << text;
    EXPECT_EQ(korvel::to_raw(rule.data(), 7.0, &out), MDF_UNSUPPORTED_RULE) << text;
  }
}

TEST(ConversionTest, RangeTableUsesTheExtraPair) {
  Bytes rule = make_cc(MDF_CC_FRM_VTABR, 0, {});
  korvel::set_cc_extra(rule.data(), -10.0, 2.5);  // physical = raw * 2.5 - 10
  EXPECT_EQ(get_real(rule, cc::kSize), -10.0);
  EXPECT_EQ(get_real(rule, cc::kSize + 8), 2.5);
  double v = 0;
  EXPECT_EQ(korvel::to_physical(rule.data(), 10.0, &v), 0);
  EXPECT_EQ(v, 15.0);
  EXPECT_EQ(korvel::to_raw(rule.data(), 15.0, &v), 0);
  EXPECT_EQ(v, 10.0);
  korvel::set_cc_extra(rule.data(), 7.0, 0.0);
  EXPECT_EQ(korvel::to_physical(rule.data(), 10.0, &v), 0);
  EXPECT_EQ(v, 7.0);
  EXPECT_EQ(korvel::to_raw(rule.data(), 15.0, &v), 0);
  EXPECT_EQ(v, 0.0);  // factor 0: no inverse
}

TEST(ConversionTest, UnsupportedTypesReport1021) {
  for (int type : {3, 4, 5, 13, 132, 133, 1000, 65534}) {
    Bytes rule = make_cc(type, 2, {1.0, 2.0});
    double v = 0;
    EXPECT_EQ(korvel::to_physical(rule.data(), 6.5, &v), MDF_UNSUPPORTED_RULE) << type;
    EXPECT_EQ(v, 6.5);
    EXPECT_EQ(korvel::to_physical_signed(rule.data(), -3, &v), MDF_UNSUPPORTED_RULE);
    EXPECT_EQ(v, -3.0);
    EXPECT_EQ(korvel::to_physical_unsigned(rule.data(), 11, &v), MDF_UNSUPPORTED_RULE);
    EXPECT_EQ(v, 11.0);
    EXPECT_EQ(korvel::to_raw(rule.data(), 6.5, &v), MDF_UNSUPPORTED_RULE) << type;
  }
}

TEST(ConversionTest, DamagedBlocksReadNothingBeyondTheirSize) {
  double v = 0;
  // Only P1 lies inside the block: P2 reads as 0, so y = P1 and the inverse guard applies.
  Bytes lin = make_cc(MDF_CC_FRM_LIN, 2, {4.0, 3.0}, cc::kSize + 8);
  EXPECT_EQ(korvel::to_physical(lin.data(), 100.0, &v), 0);
  EXPECT_EQ(v, 4.0);
  EXPECT_EQ(korvel::to_raw(lin.data(), 100.0, &v), 0);
  EXPECT_EQ(v, 0.0);
  // A polynomial cut after P3: P4 = P5 = 0, so y = P2 / (P3 x - P1) = 10 / 5.
  Bytes pol = make_cc(MDF_CC_FRM_POL, 6, {1, 10, 2, 3, 4, 5}, cc::kSize + 24);
  EXPECT_EQ(korvel::to_physical(pol.data(), 3.0, &v), 0);
  EXPECT_EQ(v, 2.0);
  // A table claiming 50 points but holding two uses the two.
  Bytes tab = make_cc(MDF_CC_FRM_ITAB, 50, {0, 0, 10, 100});
  EXPECT_EQ(korvel::to_physical(tab.data(), 5.0, &v), 0);
  EXPECT_EQ(v, 50.0);
  EXPECT_EQ(korvel::to_physical(tab.data(), 20.0, &v), 0);
  EXPECT_EQ(v, 100.0);
  EXPECT_EQ(korvel::to_raw(tab.data(), 150.0, &v), 0);
  EXPECT_EQ(v, 0.0);
  // A half point at the end is not used: one point (0, 7) remains.
  Bytes half = make_cc(MDF_CC_FRM_TAB, 2, {0, 7, 10}, cc::kSize + 24);
  EXPECT_EQ(korvel::to_physical(half.data(), 50.0, &v), 0);
  EXPECT_EQ(v, 7.0);
  // A block shorter than the common part has no type to trust.
  Bytes stub = make_cc(MDF_CC_FRM_LIN, 0, {}, 20);
  EXPECT_EQ(korvel::to_physical(stub.data(), 1.5, &v), MDF_UNSUPPORTED_RULE);
  EXPECT_EQ(v, 1.5);
  EXPECT_EQ(korvel::to_raw(stub.data(), 1.5, &v), MDF_UNSUPPORTED_RULE);
}

// A verbal range table with `n` entries whose entry 0 links to `link`; the extra behind it
// starts out stale so that the defaults are seen to be written.
Bytes make_vtabr(int n, uint32_t link) {
  uint32_t size = cc::kSize + cc::kVtabrEntry * static_cast<uint32_t>(n);
  Bytes b = make_cc(MDF_CC_FRM_VTABR, n, {}, size);
  for (uint32_t i = 0; i < static_cast<uint32_t>(n); ++i) {
    put32(b, cc::kParams + cc::kVtabrEntry * i + cc::kVtabrLink, i == 0 ? link : 1000 + i);
  }
  put_real(b, size, 555.0);
  put_real(b, size + 8, 666.0);
  return b;
}

std::pair<double, double> derive(const char* text, int n = 2, uint32_t link = 0x1234) {
  Bytes b = make_vtabr(n, link);
  korvel::derive_vtabr_extra(b.data(), text);
  return {korvel::cc_extra_offset(b.data()), korvel::cc_extra_factor(b.data())};
}

TEST(ConversionTest, RangeTableAnnotations) {
  struct Case {
    const char* text;
    double offset, factor;
  };
  // clang-format off
  const Case cases[] = {
      // Each pattern in turn.
      {"{LINEAR_CONV \"2.5*{X}-10\"}", -10, 2.5}, {"{EVAL \"2.5*{X}+3\"}", 3, 2.5},
      {"{EVAL \"5-2*{X}\"}", 5, -2},   {"{EVAL \"3*{X}\"}", 0, 3},    {"{EVAL \"10+{X}\"}", 10, 1},
      {"{EVAL \"{X}-4\"}", -4, 1},     {"{EVAL \"{X}+4.5\"}", 4.5, 1}, {"{EVAL \"7\"}", 7, 1},
      // The closing brace is required right after the quote; what follows it is ignored.
      {"{EVAL \"3*{X}\"", 0, 1},       {"{EVAL \"3*{X}\" }", 0, 1},    {"{EVAL \"3*{X}\")", 0, 1},
      {"{LINEAR_CONV \"2.5*{X}-10\"", 0, 1},                          {"{EVAL \"3*{X}\"}..", 0, 3},
      // A blank in the pattern matches any white space, also none; numbers skip white space;
      // literal characters do not.
      {"{EVAL\"3*{X}\"}", 0, 3},       {"{EVAL \t\n \" 3*{X}\"}", 0, 3},
      {"{LINEAR_CONV \"2*{X} -1\"}", -1, 2},
      {"{EVAL \"3 *{X}\"}", 0, 1},     {" {EVAL \"3*{X}\"}", 0, 1},
      // Letter case of the literal parts matters.
      {"{eval \"3*{X}\"}", 0, 1},      {"{EVAL \"3*{x}\"}", 0, 1},
      // Two fields read are not three: no pattern fits.
      {"{LINEAR_CONV \"2.5*{X}\"}", 0, 1},
      // Number syntax: exponents, leading points, signs, hexadecimal, infinity.
      {"{EVAL \"1.5e2*{X}\"}", 0, 150}, {"{EVAL \".5*{X}\"}", 0, 0.5}, {"{EVAL \"+4.*{X}\"}", 0, 4},
      {"{EVAL \"-3*{X}\"}", 0, -3},     {"{EVAL \"0x10*{X}\"}", 0, 16},
      {"{EVAL \"0x1.8p1*{X}\"}", 0, 3},
      {"{EVAL \"1e400*{X}\"}", 0, kInf}, {"{EVAL \"INF*{X}\"}", 0, kInf},
      // A number cut short after its exponent mark or "0x" is no number at all.
      {"{EVAL \"1e*{X}\"}", 0, 1},      {"{EVAL \"0x*{X}\"}", 0, 1},
      {"{EVAL \"1e+{X}\"}", 0, 1},
      // "5e-2" is one number, so the third pattern finds no minus; the fourth fits.
      {"{EVAL \"5e-2*{X}\"}", 0, 0.05},
      {"Idle", 0, 1},                   {"", 0, 1},
  };
  // clang-format on
  for (const Case& c : cases) {
    auto [offset, factor] = derive(c.text);
    EXPECT_EQ(offset, c.offset) << c.text;
    EXPECT_EQ(factor, c.factor) << c.text;
  }
}

TEST(ConversionTest, RangeTableAnnotationDefaults) {
  const char* text = "{EVAL \"3*{X}\"}";
  EXPECT_EQ(derive(text, 0), std::make_pair(0.0, 1.0));     // no entries
  EXPECT_EQ(derive(text, 2, 0), std::make_pair(0.0, 1.0));  // entry 0 without text link
  EXPECT_EQ(derive(nullptr), std::make_pair(0.0, 1.0));     // no text
  EXPECT_EQ(derive(text, 1), std::make_pair(0.0, 3.0));
  // Another rule type gets the defaults whatever the text says.
  Bytes lin = make_rule(MDF_CC_FRM_LIN, {1, 2});
  put_real(lin, cc::kSize + 16, 9.0);
  korvel::derive_vtabr_extra(lin.data(), text);
  EXPECT_EQ(korvel::cc_extra_offset(lin.data()), 0.0);
  EXPECT_EQ(korvel::cc_extra_factor(lin.data()), 1.0);
  // A count larger than the block: entry 0 is inside and counts, entry 1 is not read.
  Bytes b = make_vtabr(1, 77);
  put16(b, cc::kCount, 900);
  korvel::derive_vtabr_extra(b.data(), "{EVAL \"4*{X}\"}");
  EXPECT_EQ(korvel::cc_extra_factor(b.data()), 4.0);
  EXPECT_EQ(korvel::vtabr_text_link(b.data(), 0), 77u);
  EXPECT_EQ(korvel::vtabr_text_link(b.data(), 1), 0u);
  Bytes three = make_vtabr(3, 0x55);
  EXPECT_EQ(korvel::vtabr_text_link(three.data(), 2), 1002u);
  EXPECT_EQ(korvel::vtabr_text_link(three.data(), 3), 0u);
}

}  // namespace
