// Tests of the formula evaluator: tables of (text, value, X, status) rows and of refused
// texts, worked out by hand from the language rules; random and mutated texts are the fuzz
// corpus's.
#include "convert/formula.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
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
// Text, value, X (0 when not given) and status (0 when not given).
struct Row { const char* text; double value; double x = 0; int16_t status = 0; };
const Row kRows[] = {
  // The documented edge cases.
  {"2*X+1", 7, 3}, {"x*2", 6, 3}, {"XRAW*2", 6, 3}, {"1,5", 1.5}, {"1,5+X", 2.5, 1},
  {"(X>2) ? 10 : 20", 10, 3}, {"(X>2) ? 10 : 20", 20, 1}, {"2^3^2", 64}, {"-2^2", 4}, {"~1*2", -3},
  {"~1<<2", -5}, {"BIT(X,1)", 0, 5}, {"1+BOOL(1<2)", 2}, {"MIN(3,1,2)", 1}, {"7<<40", 7},
  {"1/0", 0, 0, 8}, {"LN(0)", 0, 0, 8}, {"", 0}, {"!1<2&&2<3", 0}, {"(1<2)?1:2==1", 1},
  // Level 1: the conditional; its else branch takes every arithmetic operator after it.
  {"(1>2)?1:2+3", 5}, {"(1>2)?1:2|4", 6}, {"1+(1>2)?1:2*3", 7}, {"-(1>2)?1:2+3", -5},
  {"(1<2)?(2>3)?4:5:6", 5}, {"(1>2)?1:2==1", 0}, {"(1>2)?4:(2<3)?5:6", 5}, {"((1<2))?3:4", 3},
  // Level 2: "|", "&" and XOR on one level, left to right.
  {"6|1&3", 3}, {"6 XOR 3&1", 1}, {"1|2 XOR 3", 0}, {"1|2+4", 7}, {"2.9|0", 2}, {"-2.9|0", -2},
  {"1E400|0", 0}, {"12&10", 8},
  // Level 3: prefix "~" covers levels 4 to 7 after it, but not level 2.
  {"~0|1", -1}, {"2*~1+1", -6}, {"~1>>1", -1}, {"-~2*3", 7}, {"~~5", 5}, {"1+~1", -1}, {"~0&1", 1},
  // Level 4: shifts scale by powers of two for 0 < n < 32 only.
  {"3+1<<2", 16}, {"1<<2+1", 8}, {"1>>1", 0.5}, {"5<<-1", 5}, {"5<<31", 10737418240.0},
  {"8>>2.9", 2}, {"5<<32", 5}, {"1<<1<<2", 8}, {"1.5<<1", 3}, {"5<<0", 5},
  // Levels 5 and 6.
  {"2+3*4", 14}, {"10-4-3", 3}, {"7%4*2", 6}, {"7.5%2", 1.5}, {"-7%3", -1}, {"5%0", kNaN},
  {"8/4/2", 1},
  // Level 7: "^" is left-associative; level 8: prefix "-" and "+" bind tighter than "^".
  {"2*3^2", 18}, {"2^3*2", 16}, {"2^-2^2", 0.0625}, {"-X^2", 9, 3}, {"+-+2", -2}, {"2- -2", 4},
  // Conditions: "||" looser than "&&" looser than "!" looser than the comparisons.
  {"!1<2||1<2", 1}, {"1<2||1<2&&2<1", 1}, {"2<1&&1<2||1<2", 1}, {"!FALSE&&TRUE", 1}, {"1!=1", 0},
  {"2>=2", 1}, {"1<=1", 1}, {"1+2<2*2", 1}, {"1|2==3", 1}, {"!(1<2)?1:2==1", 0}, {"X==X", 0, kNaN},
  {"X!=X", 1, kNaN}, {"BOOL(TRUE)+BOOL(1>2)", 1}, {"!(1<2&&2<1)", 1}, {"1==1", 1}, {"2>1", 1},
  {"1<1", 0}, {"X<1", 0, kNaN},
  // Number tokens: hexadecimal ones are 32-bit integers modulo 2^32.
  {"0XFFFFFFFF", 4294967295.0}, {"0X123456789", 591751049}, {"0XFFFFFFFF|0", -1},
  {"~2147483647", -2147483648.0}, {".5+X", 0.5}, {"2.5E-1*X", 1, 4}, {"1E400*X", kInf, 1},
  // BIT takes exactly the variable and a 16-bit decimal integer; the bit number is mod 32.
  {"BIT(X,31)", 1, -1}, {"BIT(X,32766)", 1, 1073741824}, {"BIT(X,0)", 0, 2.9}, {"BIT(X,2.0)", 1, 4},
  {"BIT('X.Y',1)", 1, 2}, {"BIT(X,0)||FALSE", 1, 1}, {"BIT(X,32)", 1, 1}, {"BIT(XRAW,1)", 1, 2},
  // Names: quoted names are never keywords; any other name beginning with X is X.
  {"'X.A[1]'*2", 6, 3}, {"'X", 5, 5}, {"X_1@", 4, 4}, {"X XOR 1", 2, 3}, {"XXOR", 3, 3},
  // Functions and constants.
  {"ARCCOS(0)", kPi / 2}, {"ASIN(1)", kPi / 2}, {"ARCTAN(1)*4", kPi}, {"COS(0)", 1},
  {"SIN(PI/2)", 1}, {"COSH(0)", 1}, {"EXP(1)", kE}, {"LN(E)", 1}, {"LOG(1000)", 3}, {"SQR(-3)", 9},
  {"SQRT(16)", 4}, {"ABS(-2.5)", 2.5}, {"CEIL(1.2)", 2}, {"FLOOR(-1.2)", -2}, {"POW(2,10)", 1024},
  {"sin(x)", 0}, {"SQRT(-1)", kNaN}, {"ACOS(1)", 0}, {"ARCSIN(0)", 0}, {"TAN(0)", 0},
  // Faults: division by exactly 0 and logarithms of exactly 0. Every part of the text is
  // evaluated, the branch not taken included.
  {"LOG(-0)", 0, 0, 8}, {"(X>0)?1/X:0", 0, 0, 8}, {"(1<2)||LN(0)<1", 0, 0, 8}, {"1/-0", 0, 0, 8},
  // MIN and MAX share one running pair.
  {"MIN(1,2,MIN(5,6))", 5}, {"MAX(1,2,MIN(0,3))", 3}, {"MIN(MIN(5,6),1,2)", 1},
  {"MIN(5,6,(1<2)?1:MAX(-3,-4))", -4}, {"MAX(3,1,2)", 3}, {"MIN(4,3,2,1,0)", 0},
  // Plain numbers and the comma prefix; white space, escaped line breaks, stray characters.
  {"-1,5", -1.5}, {"  2,25", 2.25}, {"-", 0}, {"1..2", 1}, {"-,5+X", 0.5, 1}, {"1,5-X", 0.5, 1},
  {"1,5,", 1.5}, {" \t2 * X \n", 8, 4}, {"X\\r\\n*2", 6, 3}, {"\\n", 0}, {"X\xFF+1", 5, 5},
};

// Texts refused with status 7 and value 0 (X = 1).
const char* const kRefused[] = {
  // Documented edge cases.
  "X+1,5", "X>2 ? 10 : 20", "BIT(X,1+1)", "BIT(5,1)", "1+(1<2)", "1==2==3",
  // Comparisons do not chain; a condition where an expression must stand, and the reverse.
  "1<2<3", "(1<2)*2", "SIN(1<2)", "~TRUE", "(1<2)?1:(1<2)", "BOOL(1)", "1&&TRUE", "(1)?2:3",
  // Numbers, BIT arguments, names, reserved words, calls of the wrong shape.
  "0X", "2E", "1.2.3+X", "X 1", "BIT(X,32767)", "BIT(X,0X1)", "BIT(X,-1)", "BIT(X*1,1)",
  "BIT(X,0)+1", "'SIN'(1)", "'A.B'", "_X", "SINX", "PHY", "TIME", "POW(2)", "PI()", "RND()",
  "MIN(5)", "MIN(1,2,)", "HEX", "T", "time*2", "SIN(1,2)", "BIT(X,1,2)", "BIT(X,1.5)", "MAX()",
  // A text is refused at the first token that no rule can continue; nothing after it is
  // evaluated, so the division by zero behind it does not count.
  "(1<2)?1<1/0:3", "SIN(TRUE&&1/0<1)", "1+!TRUE",
  // Stray characters and incomplete texts.
  "1 5", "X\\q", "(X", "X)", "(1<2)?1:", "1+", "*1", "()", "1?2:3", "(1<2)?1", "(1,2)",
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
      // Relative: the C runtime's EXP, LOG, ASIN and the like may be off by more than 4 ulps.
      const double tolerance =
          std::isinf(row.value) ? 0 : 1e-12 * std::max(1.0, std::fabs(row.value));
      EXPECT_TRUE(got.value == row.value || std::fabs(got.value - row.value) <= tolerance)
          << got.value;
    }
  }
  for (const char* text : kRefused) {
    const Outcome got = eval(text, 1.0);
    EXPECT_EQ(std::make_pair(got.status, got.value), std::make_pair(int16_t{7}, 0.0)) << text;
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

TEST(Formula, RandomValuesRestartAtAReset) {
  // RND gives multiples of 1/32767 in [0, 1]; a reset restarts the sequence.
  reset_formula_state();
  const Outcome first = eval("RND");
  const Outcome second = eval("RND");
  EXPECT_NE(first.value, second.value);
  EXPECT_TRUE(first.status == 0 && first.value >= 0.0 && first.value <= 1.0) << first.value;
  EXPECT_NEAR(first.value * 32767.0, std::round(first.value * 32767.0), 1e-6);
  reset_formula_state();
  EXPECT_EQ(eval("RND").value, first.value);
}

TEST(Formula, LongNamesAndDeepNesting) {
  const auto repeat = [](const std::string& s, size_t n) {
    std::string r;
    for (size_t i = 0; i < n; ++i) r += s;
    return r;
  };
  const char* const overflow = "parser stack overflow";
  // clang-format off
  const struct { std::string text; double x; Outcome want; const char* why; } cases[] = {
      {"X" + std::string(200, 'A') + "*2", 4, {0, 8}, nullptr},
      {"'X" + std::string(150, '.') + "'+1", 4, {0, 5}, nullptr},
      {std::string(200, 'A'), 0, {7, 0}, "error: syntax"},
      {std::string(9000, '(') + "X+1" + std::string(9000, ')'), 2, {0, 3}, nullptr},
      {std::string(10001, '(') + "X" + std::string(10001, ')'), 0, {7, 0}, overflow},
      {std::string(100000, '-') + "X", 0, {7, 0}, overflow},
      {repeat("1+", 100000) + "X", 1, {0, 100001}, nullptr},  // left-associative: no nesting
      {repeat("!", 100000) + "TRUE", 0, {7, 0}, overflow},
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
