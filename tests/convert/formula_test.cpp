// Tests of the formula evaluator: a table of (text, X, value, status) rows worked out by
// hand from the language rules, and a robustness run over random and mutated texts.
#include "convert/formula.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace korvel {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kPi = 3.141592653589793;
constexpr double kE = 2.718281828459045;

struct Outcome {
  int16_t status;
  double value;
};

// Evaluates a copy held in a buffer of exactly the text's size (no terminating zero), so
// that any read past the end is caught by the address sanitizer.
Outcome eval(const std::string& text, double x = 0.0) {
  std::vector<char> buffer(text.begin(), text.end());
  double value = -12345.0;
  int16_t status = evaluate_formula(buffer, x, &value);
  return {status, value};
}

// clang-format off
struct Row { const char* text; double x; double value; int16_t status; };
const Row kRows[] = {
  // The documented edge cases.
  {"2*X+1", 3, 7, 0}, {"x*2", 3, 6, 0}, {"XRAW*2", 3, 6, 0}, {"1,5", 0, 1.5, 0},
  {"1,5+X", 1, 2.5, 0}, {"X+1,5", 1, 0, 7}, {"(X>2) ? 10 : 20", 3, 10, 0},
  {"(X>2) ? 10 : 20", 1, 20, 0}, {"X>2 ? 10 : 20", 3, 0, 7}, {"2^3^2", 0, 64, 0}, {"-2^2", 0, 4, 0},
  {"~1*2", 0, -3, 0}, {"~1<<2", 0, -5, 0}, {"BIT(X,1)", 5, 0, 0}, {"BIT(X,1+1)", 5, 0, 7},
  {"BIT(5,1)", 5, 0, 7}, {"1+(1<2)", 0, 0, 7}, {"1+BOOL(1<2)", 0, 2, 0}, {"MIN(3,1,2)", 0, 1, 0},
  {"MAX(1,5)", 0, 5, 0}, {"7<<3", 0, 56, 0}, {"7<<40", 0, 7, 0}, {"1/0", 0, 0, 8},
  {"LN(0)", 0, 0, 8}, {"", 0, 0, 0}, {"!1<2&&2<3", 0, 0, 0}, {"(1<2)?1:2==1", 0, 1, 0},
  {"1==2==3", 0, 0, 7},
  // Level 1: the conditional; its else branch takes every arithmetic operator after it.
  {"(1>2)?1:2+3", 0, 5, 0}, {"(1>2)?1:2|4", 0, 6, 0}, {"1+(1>2)?1:2*3", 0, 7, 0},
  {"-(1>2)?1:2+3", 0, -5, 0}, {"(1<2)?(2>3)?4:5:6", 0, 5, 0}, {"(1>2)?1:2==1", 0, 0, 0},
  // Level 2: "|", "&" and XOR on one level, left to right.
  {"6|1&3", 0, 3, 0}, {"6 XOR 3&1", 0, 1, 0}, {"1|2 XOR 3", 0, 0, 0}, {"12&10", 0, 8, 0},
  {"1|2+4", 0, 7, 0}, {"2.9|0", 0, 2, 0}, {"-2.9|0", 0, -2, 0}, {"1E400|0", 0, 0, 0},
  // Level 3: prefix "~" covers levels 4 to 7 after it, but not level 2.
  {"~0|1", 0, -1, 0}, {"2*~1+1", 0, -6, 0}, {"~1>>1", 0, -1, 0}, {"-~2*3", 0, 7, 0},
  // Level 4: shifts scale by powers of two for 0 < n < 32 only.
  {"3+1<<2", 0, 16, 0}, {"1<<2+1", 0, 8, 0}, {"1>>1", 0, 0.5, 0}, {"5<<-1", 0, 5, 0},
  {"5<<31", 0, 10737418240.0, 0}, {"5<<32", 0, 5, 0}, {"8>>2.9", 0, 2, 0},
  // Levels 5 and 6.
  {"2+3*4", 0, 14, 0}, {"10-4-3", 0, 3, 0}, {"2*3%4", 0, 2, 0}, {"7%4*2", 0, 6, 0},
  {"8/4/2", 0, 1, 0}, {"7.5%2", 0, 1.5, 0}, {"-7%3", 0, -1, 0}, {"5%0", 0, kNaN, 0},
  // Level 7: "^" is left-associative; level 8: prefix "-" and "+" bind tighter than "^".
  {"2*3^2", 0, 18, 0}, {"2^3*2", 0, 16, 0}, {"2^-2^2", 0, 0.0625, 0}, {"-X^2", 3, 9, 0},
  {"+-+2", 0, -2, 0}, {"2- -2", 0, 4, 0},
  // Conditions: "||" looser than "&&" looser than "!" looser than the comparisons.
  {"!1<2||1<2", 0, 1, 0}, {"1<2||1<2&&2<1", 0, 1, 0}, {"2<1&&1<2||1<2", 0, 1, 0},
  {"!FALSE&&TRUE", 0, 1, 0}, {"!(1<2&&2<1)", 0, 1, 0}, {"1!=1", 0, 0, 0}, {"2>=2", 0, 1, 0},
  {"1<=1", 0, 1, 0}, {"1+2<2*2", 0, 1, 0}, {"1|2==3", 0, 1, 0}, {"!(1<2)?1:2==1", 0, 0, 0},
  {"X==X", kNaN, 0, 0}, {"X!=X", kNaN, 1, 0},
  // Comparisons do not chain; a condition where an expression must stand, and the reverse.
  {"1<2<3", 0, 0, 7}, {"(1<2)<3", 0, 0, 7}, {"(1<2)*2", 0, 0, 7}, {"SIN(1<2)", 0, 0, 7},
  {"~TRUE", 0, 0, 7}, {"(1<2)?1:(1<2)", 0, 0, 7}, {"BOOL(1)", 0, 0, 7}, {"1&&TRUE", 0, 0, 7},
  {"(1)?2:3", 0, 0, 7}, {"BOOL(TRUE)+BOOL(1>2)", 0, 1, 0},
  // Number tokens: hexadecimal ones are 32-bit integers modulo 2^32.
  {"0XFFFFFFFF", 0, 4294967295.0, 0}, {"0X123456789", 0, 591751049, 0}, {"0X", 0, 0, 7},
  {"0XFFFFFFFF|0", 0, -1, 0}, {"~2147483647", 0, -2147483648.0, 0}, {".5+X", 0, 0.5, 0},
  {"99999999999*1", 0, 99999999999.0, 0}, {"2.5E-1*X", 4, 1, 0}, {"2E", 0, 0, 7},
  {"1E400*X", 1, kInf, 0}, {"1.2.3+X", 0, 0, 7}, {"X 1", 0, 0, 7},
  // BIT takes exactly the variable and a 16-bit decimal integer; the bit number is mod 32.
  {"BIT(X,31)", -1, 1, 0}, {"BIT(X,32)", 1, 1, 0}, {"BIT(X,32766)", 1073741824, 1, 0},
  {"BIT(X,0)", 2.9, 0, 0}, {"BIT(X,2.0)", 4, 1, 0}, {"BIT(X,32767)", 0, 0, 7},
  {"BIT(X,0X1)", 0, 0, 7}, {"BIT(X,-1)", 0, 0, 7}, {"BIT(X*1,1)", 0, 0, 7}, {"BIT(X,1,2)", 0, 0, 7},
  {"BIT('X.Y',1)", 2, 1, 0}, {"BIT(X,0)||FALSE", 1, 1, 0}, {"BIT(X,0)+1", 1, 0, 7},
  // Names: quoted names are never keywords; any other name beginning with X is X.
  {"'X.A[1]'*2", 3, 6, 0}, {"'X", 5, 5, 0}, {"'SIN'(1)", 0, 0, 7}, {"'A.B'", 0, 0, 7},
  {"_X", 0, 0, 7}, {"X_1@", 4, 4, 0}, {"X XOR 1", 3, 2, 0}, {"XXOR", 3, 3, 0}, {"SINX", 0, 0, 7},
  // Reserved words are recognised but accepted nowhere.
  {"PHY", 0, 0, 7}, {"HEX", 0, 0, 7}, {"T", 0, 0, 7}, {"TIME", 0, 0, 7}, {"time*2", 0, 0, 7},
  // Functions and constants.
  {"ARCCOS(0)", 0, kPi / 2, 0}, {"ASIN(1)", 0, kPi / 2, 0}, {"ARCTAN(1)*4", 0, kPi, 0},
  {"COS(0)", 0, 1, 0}, {"SIN(PI/2)", 0, 1, 0}, {"COSH(0)", 0, 1, 0}, {"EXP(1)", 0, kE, 0},
  {"LN(E)", 0, 1, 0}, {"LOG(1000)", 0, 3, 0}, {"SQR(-3)", 0, 9, 0}, {"SQRT(16)", 0, 4, 0},
  {"ABS(-2.5)", 0, 2.5, 0}, {"CEIL(1.2)", 0, 2, 0}, {"FLOOR(-1.2)", 0, -2, 0},
  {"POW(2,10)", 0, 1024, 0}, {"sin(x)", 0, 0, 0}, {"POW(2)", 0, 0, 7}, {"SIN X", 0, 0, 7},
  {"SIN(1,2)", 0, 0, 7}, {"PI()", 0, 0, 7}, {"RND()", 0, 0, 7}, {"SQRT(-1)", 0, kNaN, 0},
  // Faults: division by exactly 0 and logarithms of exactly 0. Every part of the text is
  // evaluated, the branch not taken included.
  {"LOG(-0)", 0, 0, 8}, {"0/0", 0, 0, 8}, {"(X>0)?1/X:0", 0, 0, 8}, {"(1<2)||LN(0)<1", 0, 0, 8},
  // MIN and MAX share one running pair.
  {"MIN(1,2,MIN(5,6))", 0, 5, 0}, {"MAX(1,2,MIN(0,3))", 0, 3, 0}, {"MIN(MIN(5,6),1,2)", 0, 1, 0},
  {"MIN(5,6,(1<2)?1:MAX(-3,-4))", 0, -4, 0}, {"MIN(5)", 0, 0, 7}, {"MIN(1,2,)", 0, 0, 7},
  // A text is refused at the first token that no rule can continue; nothing after it is
  // evaluated, so the division by zero behind it does not count.
  {"(1<2)?1<1/0:3", 0, 0, 7}, {"SIN(TRUE&&1/0<1)", 0, 0, 7}, {"1+!TRUE", 0, 0, 7},
  // Plain numbers and the comma prefix.
  {"-1,5", 0, -1.5, 0}, {"  2,25", 0, 2.25, 0}, {"-", 0, 0, 0}, {".", 0, 0, 0}, {"1..2", 0, 1, 0},
  {"-,5+X", 1, 0.5, 0}, {"1,5-X", 1, 0.5, 0}, {"1 5", 0, 0, 7}, {"1,5,", 0, 1.5, 0},
  // White space, escaped line breaks, stray characters, incomplete texts.
  {" \t2 * X \n", 4, 8, 0}, {"X\\r\\n*2", 3, 6, 0}, {"X\\q", 0, 0, 7}, {"\\n", 0, 0, 0},
  {"(X", 0, 0, 7}, {"X)", 0, 0, 7}, {"(1,2)", 0, 0, 7}, {"(1<2)?1:", 0, 0, 7}, {"X\xFF+1", 5, 5, 0},
  {"1+", 0, 0, 7}, {"*1", 0, 0, 7},
};
// clang-format on

TEST(Formula, Table) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string("text: ") + row.text + "  X: " + std::to_string(row.x));
    const Outcome got = eval(row.text, row.x);
    EXPECT_EQ(got.status, row.status);
    if (std::isnan(row.value)) {
      EXPECT_TRUE(std::isnan(got.value)) << got.value;
    } else {
      EXPECT_DOUBLE_EQ(got.value, row.value);
    }
  }
}

TEST(Formula, TextIsChangedInPlaceAndEndsAtZeroByte) {
  char text[] = "1,5+x\0y,x";
  double value = 0.0;
  EXPECT_EQ(evaluate_formula(std::span<char>(text, sizeof text - 1), 2.0, &value), 0);
  EXPECT_DOUBLE_EQ(value, 3.5);
  EXPECT_EQ(std::memcmp(text, "1.5+X\0y,x", sizeof text), 0);
  EXPECT_EQ(evaluate_formula(std::span<char>(text, 3), 2.0, nullptr), 0);  // no result pointer
}

TEST(Formula, RandomValues) {
  // RND gives multiples of 1/32767 in [0, 1], many different ones; a reset restarts it.
  std::set<double> seen;
  for (int i = 0; i < 200; ++i) {
    const Outcome r = eval("RND");
    ASSERT_TRUE(r.status == 0 && r.value >= 0.0 && r.value <= 1.0) << r.value;
    ASSERT_NEAR(r.value * 32767.0, std::round(r.value * 32767.0), 1e-6);
    seen.insert(r.value);
  }
  EXPECT_GT(seen.size(), 100u);
  reset_formula_state();
  const double first = eval("RND").value;
  reset_formula_state();
  EXPECT_EQ(eval("RND").value, first);
}

TEST(Formula, LongNamesAndDeepNesting) {
  const auto repeat = [](const std::string& s, size_t n) {
    std::string r;
    for (size_t i = 0; i < n; ++i) r += s;
    return r;
  };
  const auto nested = [&](size_t depth, const std::string& core) {
    return repeat("(", depth) + core + repeat(")", depth);
  };
  const char* const overflow = "parser stack overflow";
  // clang-format off
  const struct { std::string text; double x; Outcome want; const char* why; } cases[] = {
      {"X" + std::string(200, 'A') + "*2", 4, {0, 8}, nullptr},
      {"'X" + std::string(150, '.') + "'+1", 4, {0, 5}, nullptr},
      {std::string(200, 'A'), 0, {7, 0}, "error: syntax"},
      {nested(9000, "X+1"), 2, {0, 3}, nullptr}, {nested(10001, "X"), 0, {7, 0}, overflow},
      {nested(1000, "X") + ")", 0, {7, 0}, "error: syntax"},
      {repeat("-", 100000) + "X", 0, {7, 0}, overflow},
      {repeat("1+", 100000) + "X", 1, {0, 100001}, nullptr},  // left-associative: no nesting
      {repeat("MIN(1,", 50000), 0, {7, 0}, overflow},
      {repeat("(1<2)?", 50000), 0, {7, 0}, overflow},
  };
  // clang-format on
  for (const auto& c : cases) {
    const Outcome got = eval(c.text, c.x);
    EXPECT_EQ(got.status, c.want.status) << c.text.substr(0, 20);
    EXPECT_EQ(got.value, c.want.value) << c.text.substr(0, 20);
    EXPECT_STREQ(formula_failure_text(), c.why) << c.text.substr(0, 20);
  }
}

}  // namespace
}  // namespace korvel
