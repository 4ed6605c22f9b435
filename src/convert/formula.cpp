// Formula language of text conversion rules: lexer, shift-reduce parser and the compiled
// program that evaluates a text.
//
// The parser is an operator-precedence shift-reduce machine over an explicit stack, so a
// deeply nested text never costs native stack. Each construct emits its computation when it
// is reduced; no tree is built, so both branches of a conditional and both sides of && and ||
// are always evaluated (a division by zero in the branch not taken still fails). The
// stack is measured in the grammar symbols its entries stand for (an open parenthesis is
// one, "( cond ) ? e :" is six) and may hold at most 10000 of them, start state included;
// a text that needs more fails like a syntax error.

#include "convert/formula.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>
#include <system_error>
#include <vector>

#include "frame/frame.h"

namespace korvel {
namespace {

constexpr int16_t kOk = 0;
constexpr int16_t kSyntax = 7;
constexpr int16_t kMathFault = 8;

constexpr size_t kStackLimit = 10000;  // grammar symbols on the stack, start state included
constexpr size_t kStackInitial = 200;
constexpr size_t kNameKeep = 80;  // characters of a name that are kept; the rest is dropped

constexpr double kE = 2.718281828459045;
constexpr double kPi = 3.141592653589793;
constexpr double kTwo32 = 4294967296.0;

const char* const kMsgSyntax = "error: syntax";
const char* const kMsgOverflow = "parser stack overflow";

// clang-format off
enum class Tok : uint8_t {
  End, Number, Variable, Function, Pow, Min, Max, Bool, Bit, Random, ConstE, ConstPi, True,
  False, Reserved, Unknown,
  Plus, Minus, Star, Slash, Percent, Caret, ShiftLeft, ShiftRight, BitOr, BitAnd, BitXor,
  Tilde, Not, Less, LessEq, Greater, GreaterEq, Equal, NotEqual, OrOr, AndAnd,
  LParen, RParen, Comma, Question, Colon, Other
};
// clang-format on

// Decimal numbers are classified by value; only a 16-bit integer may stand as a bit number.
enum class NumberKind : uint8_t { Int16, Int32, Floating };

using UnaryFn = double (*)(double);

double fn_acos(double v) {
  return std::acos(v);
}
double fn_asin(double v) {
  return std::asin(v);
}
double fn_atan(double v) {
  return std::atan(v);
}
double fn_cos(double v) {
  return std::cos(v);
}
double fn_sin(double v) {
  return std::sin(v);
}
double fn_tan(double v) {
  return std::tan(v);
}
double fn_cosh(double v) {
  return std::cosh(v);
}
double fn_sinh(double v) {
  return std::sinh(v);
}
double fn_tanh(double v) {
  return std::tanh(v);
}
double fn_exp(double v) {
  return std::exp(v);
}
double fn_ln(double v) {
  return std::log(v);
}
double fn_log(double v) {
  return std::log10(v);
}
double fn_sqr(double v) {
  return v * v;
}
double fn_sqrt(double v) {
  return std::sqrt(v);
}
double fn_abs(double v) {
  return std::fabs(v);
}
double fn_ceil(double v) {
  return std::ceil(v);
}
double fn_floor(double v) {
  return std::floor(v);
}

struct Token {
  Tok type = Tok::End;
  NumberKind kind = NumberKind::Floating;
  UnaryFn fn = nullptr;  // one-argument functions
  double value = 0.0;
};

struct Keyword {
  const char* name;
  Tok type;
  UnaryFn fn = nullptr;
};

constexpr Keyword kKeywords[] = {
    {"ACOS", Tok::Function, fn_acos},
    {"ARCCOS", Tok::Function, fn_acos},
    {"ASIN", Tok::Function, fn_asin},
    {"ARCSIN", Tok::Function, fn_asin},
    {"ATAN", Tok::Function, fn_atan},
    {"ARCTAN", Tok::Function, fn_atan},
    {"COS", Tok::Function, fn_cos},
    {"SIN", Tok::Function, fn_sin},
    {"TAN", Tok::Function, fn_tan},
    {"COSH", Tok::Function, fn_cosh},
    {"SINH", Tok::Function, fn_sinh},
    {"TANH", Tok::Function, fn_tanh},
    {"EXP", Tok::Function, fn_exp},
    {"LN", Tok::Function, fn_ln},
    {"LOG", Tok::Function, fn_log},
    {"SQR", Tok::Function, fn_sqr},
    {"SQRT", Tok::Function, fn_sqrt},
    {"ABS", Tok::Function, fn_abs},
    {"CEIL", Tok::Function, fn_ceil},
    {"FLOOR", Tok::Function, fn_floor},
    {"POW", Tok::Pow},
    {"MIN", Tok::Min},
    {"MAX", Tok::Max},
    {"RND", Tok::Random},
    {"E", Tok::ConstE},
    {"PI", Tok::ConstPi},
    {"TRUE", Tok::True},
    {"FALSE", Tok::False},
    {"BIT", Tok::Bit},
    {"BOOL", Tok::Bool},
    {"XOR", Tok::BitXor},
    {"PHY", Tok::Reserved},
    {"HEX", Tok::Reserved},
    {"T", Tok::Reserved},
    {"TIME", Tok::Reserved},
};

// Characters that are tokens by themselves; any other is Tok::Other. "<", ">", "!", "|"
// and "&" may be the first half of a two-character operator.
struct CharToken {
  char c;
  Tok type;
};
constexpr CharToken kCharTokens[] = {
    {'<', Tok::Less},   {'>', Tok::Greater}, {'!', Tok::Not},   {'|', Tok::BitOr},
    {'&', Tok::BitAnd}, {'%', Tok::Percent}, {'*', Tok::Star},  {'+', Tok::Plus},
    {'-', Tok::Minus},  {'/', Tok::Slash},   {'^', Tok::Caret}, {'~', Tok::Tilde},
    {'(', Tok::LParen}, {')', Tok::RParen},  {',', Tok::Comma}, {'?', Tok::Question},
    {':', Tok::Colon},
};
struct PairToken {
  char first, second;
  Tok type;
};
constexpr PairToken kPairTokens[] = {
    {'<', '<', Tok::ShiftLeft}, {'<', '=', Tok::LessEq}, {'>', '>', Tok::ShiftRight},
    {'>', '=', Tok::GreaterEq}, {'=', '=', Tok::Equal},  {'!', '=', Tok::NotEqual},
    {'|', '|', Tok::OrOr},      {'&', '&', Tok::AndAnd},
};

// Kinds of parse stack entries. Value is a finished operand; the others are pending
// constructs waiting for their right part.
// clang-format off
enum class Mark : uint8_t { Value, Open, Call, Query, Colon, Prefix, Binary, Compare, Not, And, Or };
// clang-format on

// Operands are registers of the compiled program (formula.h): the parser decides the
// structure of the text once, and the program computes the values for each X.
struct Entry {
  Mark mark = Mark::Value;
  Tok op = Tok::End;     // operator of Prefix/Binary/Compare; function token of Call
  UnaryFn fn = nullptr;  // Call of a one-argument function
  bool cond = false;     // Value: a condition rather than an arithmetic expression
  uint8_t weight = 1;    // grammar symbols this entry stands for
  uint32_t args = 0;     // Call: arguments completed before the current one
  uint32_t a = 0;        // Value; condition of Query/Colon; first argument of Call
  uint32_t b = 0;        // Colon: the value of the then-branch
};

using FormulaState = FormulaRun;  // process-wide; callers make one call at a time

// The text a lexer reads: upper-cased, up to its first zero byte.
struct Source {
  const char* text = nullptr;
  size_t length = 0;
  size_t pos = 0;  // read position of the lexer
};

FormulaState& formula_state() {
  return state().kept.formula;
}

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_letter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
bool is_name_start(char c) {
  return is_letter(c) || c == '_' || c == '@';
}
bool is_name_char(char c, bool quoted) {
  return is_name_start(c) || is_digit(c) || (quoted && (c == '.' || c == '[' || c == ']'));
}
int hex_value(char c) {
  if (is_digit(c)) return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}
bool ends_input(char c) {
  return static_cast<unsigned char>(c) == 0xFF;
}

// True when the out-of-range decimal literal [first, last) is too large rather than too
// small: the decimal exponent of its first significant digit is not negative.
bool literal_overflows(const char* first, const char* last) {
  const char* p = first;
  long long int_digits = 0;
  long long lead_zeros = 0;
  bool significant = false;
  for (; p < last && is_digit(*p); ++p) {
    if (*p != '0') significant = true;
    if (significant) ++int_digits;
  }
  if (p < last && *p == '.') {
    for (++p; p < last && is_digit(*p); ++p) {
      if (*p != '0') significant = true;
      if (!significant) ++lead_zeros;
    }
  }
  long long exponent = 0;
  if (p < last && (*p == 'E' || *p == 'e')) {
    ++p;
    bool negative = p < last && *p == '-';
    if (p < last && (*p == '-' || *p == '+')) ++p;
    for (; p < last && is_digit(*p); ++p) {
      if (exponent < 1000000000LL) exponent = exponent * 10 + (*p - '0');
    }
    if (negative) exponent = -exponent;
  }
  long long magnitude = int_digits > 0 ? int_digits - 1 : -(lead_zeros + 1);
  return magnitude + exponent >= 0;
}

// Reads the decimal literal at the start of [first, last): the longest prefix of digits,
// point, digits and exponent. *used is 0 when there is none. Magnitudes beyond the double
// range become infinity or zero.
double read_decimal(const char* first, const char* last, size_t* used) {
  double value = 0.0;
  std::from_chars_result r = std::from_chars(first, last, value, std::chars_format::general);
  if (r.ec == std::errc::invalid_argument) {
    *used = 0;
    return 0.0;
  }
  *used = static_cast<size_t>(r.ptr - first);
  if (r.ec == std::errc::result_out_of_range) {
    value = literal_overflows(first, r.ptr) ? HUGE_VAL : 0.0;
  }
  return value;
}

// Integer operators work on signed 32-bit integers: the operand is truncated toward zero
// and reduced modulo 2^32, so 0xFFFFFFFF acts as -1. NaN and infinities give 0.
int32_t to_int32(double v) {
  if (!std::isfinite(v)) return 0;
  double m = std::fmod(std::trunc(v), kTwo32);
  if (m < 0.0) m += kTwo32;
  return static_cast<int32_t>(static_cast<uint32_t>(m));
}

double next_random(FormulaState& st) {
  st.random_seed = st.random_seed * 214013u + 2531011u;
  return static_cast<double>((st.random_seed >> 16) & 0x7FFFu) / 32767.0;
}

// ---------------------------------------------------------------------------------------
// Lexer

class Lexer {
 public:
  explicit Lexer(Source& st) : st_(st) {}

  Token next() {
    size_t& p = st_.pos;
    for (;;) {
      while (p < st_.length && is_space(st_.text[p])) ++p;
      // An escaped line break ("\n" or "\r" written as two characters) is skipped.
      if (at(p) == '\\' &&
          (at(p + 1) == 'N' || at(p + 1) == 'R' || at(p + 1) == 'n' || at(p + 1) == 'r')) {
        p += 2;
        continue;
      }
      break;
    }
    Token t;
    if (p >= st_.length || ends_input(st_.text[p])) return t;
    char c = st_.text[p];
    if (c == '\'' && is_name_start(at(p + 1))) return name(true);
    if (is_name_start(c)) return name(false);
    if (c == '0' && (at(p + 1) == 'X' || at(p + 1) == 'x') && hex_value(at(p + 2)) >= 0) {
      p += 2;
      uint32_t u = 0;  // wraps, which keeps the value modulo 2^32
      for (int d = hex_value(at(p)); d >= 0; d = hex_value(at(++p))) {
        u = u * 16u + static_cast<uint32_t>(d);
      }
      t.type = Tok::Number;
      t.kind = NumberKind::Int32;
      t.value = static_cast<double>(u);
      return t;
    }
    if (is_digit(c) || (c == '.' && is_digit(at(p + 1)))) {
      size_t used = 0;
      double v = read_decimal(st_.text + p, st_.text + st_.length, &used);
      p += used;
      t.type = Tok::Number;
      bool integral = v == std::floor(v);
      if (integral && v < 32767.0) {
        t.kind = NumberKind::Int16;
        t.value = std::fmod(v, 65536.0);
      } else if (integral && v < 2147483647.0) {
        t.kind = NumberKind::Int32;
        t.value = std::fmod(v, kTwo32);
      } else {
        t.kind = NumberKind::Floating;
        t.value = v;
      }
      return t;
    }
    for (const PairToken& pt : kPairTokens) {
      if (pt.first == c && pt.second == at(p + 1)) {
        p += 2;
        t.type = pt.type;
        return t;
      }
    }
    ++p;
    t.type = Tok::Other;
    for (const CharToken& ct : kCharTokens) {
      if (ct.c == c) t.type = ct.type;
    }
    return t;
  }

 private:
  char at(size_t i) const { return i < st_.length ? st_.text[i] : '\0'; }

  // A name: keyword, the variable (any other name beginning with X) or an unknown symbol.
  // A quoted name may also contain ".", "[" and "]" and is never a keyword.
  Token name(bool quoted) {
    size_t& p = st_.pos;
    if (quoted) ++p;
    char kept[kNameKeep];
    size_t len = 0;
    for (; p < st_.length && is_name_char(st_.text[p], quoted); ++p) {
      if (len < kNameKeep) kept[len++] = st_.text[p];
    }
    if (quoted && at(p) == '\'') ++p;
    Token t;
    if (!quoted) {
      for (const Keyword& k : kKeywords) {
        if (std::strlen(k.name) == len && std::memcmp(k.name, kept, len) == 0) {
          t.type = k.type;
          t.fn = k.fn;
          return t;
        }
      }
    }
    t.type = (kept[0] == 'X' || kept[0] == 'x') ? Tok::Variable : Tok::Unknown;
    return t;
  }

  Source& st_;
};

// ---------------------------------------------------------------------------------------
// Parser and evaluator

int binary_level(Tok t) {
  switch (t) {
    case Tok::BitOr:
    case Tok::BitAnd:
    case Tok::BitXor:
      return 2;
    case Tok::ShiftLeft:
    case Tok::ShiftRight:
      return 4;
    case Tok::Plus:
    case Tok::Minus:
      return 5;
    case Tok::Star:
    case Tok::Slash:
    case Tok::Percent:
      return 6;
    case Tok::Caret:
      return 7;
    default:
      return 0;
  }
}

bool is_comparison(Tok t) {
  return t == Tok::Less || t == Tok::LessEq || t == Tok::Greater || t == Tok::GreaterEq ||
         t == Tok::Equal || t == Tok::NotEqual;
}

// Binding strength of a pending construct; 0 for those only a closing token ends. The
// arithmetic levels sit above the conditional, which sits above the condition operators.
// Prefix "~" (8) binds looser than "<<" (9) and tighter than "|" (7); prefix "-" and "+"
// (13) bind tighter than "^" (12).
int rank(const Entry& e) {
  switch (e.mark) {
    case Mark::Or:
      return 1;
    case Mark::And:
      return 2;
    case Mark::Not:
      return 3;
    case Mark::Compare:
      return 4;
    case Mark::Colon:
      return 5;
    case Mark::Binary:
      return 5 + binary_level(e.op);
    case Mark::Prefix:
      return e.op == Tok::Tilde ? 8 : 13;
    default:
      return 0;
  }
}

// Pending constructs with at least this rank are reduced before `t` is taken. Equal ranks
// reduce, which makes every binary level left-associative.
int reduce_threshold(Tok t) {
  if (int level = binary_level(t)) return 5 + level;
  if (is_comparison(t)) return 4;
  if (t == Tok::AndAnd) return 2;
  return 1;
}

int16_t apply_binary(Tok op, double l, double r, double* out) {
  switch (op) {
    case Tok::Plus:
      *out = l + r;
      break;
    case Tok::Minus:
      *out = l - r;
      break;
    case Tok::Star:
      *out = l * r;
      break;
    case Tok::Slash:
      if (r == 0.0) return kMathFault;
      *out = l / r;
      break;
    case Tok::Percent:
      *out = std::fmod(l, r);
      break;
    case Tok::Caret:
      *out = std::pow(l, r);
      break;
    case Tok::ShiftLeft:
    case Tok::ShiftRight: {
      int32_t n = to_int32(r);
      if (n <= 0 || n >= 32) {
        *out = l;
      } else {
        double factor = std::ldexp(1.0, n);
        *out = op == Tok::ShiftLeft ? l * factor : l / factor;
      }
      break;
    }
    case Tok::BitOr:
      *out = to_int32(l) | to_int32(r);
      break;
    case Tok::BitAnd:
      *out = to_int32(l) & to_int32(r);
      break;
    case Tok::BitXor:
      *out = to_int32(l) ^ to_int32(r);
      break;
    case Tok::Less:
      *out = l < r ? 1.0 : 0.0;
      break;
    case Tok::LessEq:
      *out = l <= r ? 1.0 : 0.0;
      break;
    case Tok::Greater:
      *out = l > r ? 1.0 : 0.0;
      break;
    case Tok::GreaterEq:
      *out = l >= r ? 1.0 : 0.0;
      break;
    case Tok::Equal:
      *out = l == r ? 1.0 : 0.0;
      break;
    case Tok::NotEqual:
      *out = l != r ? 1.0 : 0.0;
      break;
    default:
      return kSyntax;
  }
  return kOk;
}

bool truth(double v) {
  return v != 0.0;
}  // NaN counts as true

Entry value_entry(uint32_t reg, bool cond) {
  Entry e;
  e.a = reg;
  e.cond = cond;
  return e;
}

Entry mark_entry(Mark mark, Tok op, uint8_t weight) {
  Entry e;
  e.mark = mark;
  e.op = op;
  e.weight = weight;
  return e;
}

// The operations of a compiled program; the registers are named in CompiledFormula::Op.
enum Code : uint8_t {
  // dst = a <op> b; the binary operators in the order of kBinaryTokens
  kAdd,
  kSub,
  kMul,
  kDiv,
  kRem,
  kPower,
  kShiftLeft,
  kShiftRight,
  kBitOr,
  kBitAnd,
  kBitXor,
  kLess,
  kLessEq,
  kGreater,
  kGreaterEq,
  kEqual,
  kNotEqual,
  kNegate,  // dst = -a
  kInvert,  // dst = ~a as a 32-bit integer
  kNot,     // dst = !a
  kAnd,     // dst = a && b
  kOr,      // dst = a || b
  kSelect,  // dst = a ? b : c
  kCall,    // dst = fn(a) (LN and LOG of 0 fail)
  kBool,    // dst = a as a condition
  kPow,     // dst = a to the power b
  // Operations from here on use or change the process-wide state, or X.
  kSetPair,  // the running MIN/MAX pair = (a, b)
  kWiden,    // the running pair takes in a
  kMin,      // dst = the running minimum
  kMax,      // dst = the running maximum
  kRandom,   // dst = the next random number
  kBit,      // dst = bit c of X as a 32-bit integer
};

constexpr Tok kBinaryTokens[] = {
    Tok::Plus,      Tok::Minus,      Tok::Star,      Tok::Slash,  Tok::Percent,  Tok::Caret,
    Tok::ShiftLeft, Tok::ShiftRight, Tok::BitOr,     Tok::BitAnd, Tok::BitXor,   Tok::Less,
    Tok::LessEq,    Tok::Greater,    Tok::GreaterEq, Tok::Equal,  Tok::NotEqual,
};

Code binary_code(Tok t) {
  for (size_t i = 0; i < std::size(kBinaryTokens); ++i) {
    if (kBinaryTokens[i] == t) return static_cast<Code>(i);
  }
  return kAdd;  // not reached: only binary operators and comparisons are pushed as such
}

// Registers an operation reads: a; a and b; a, b and c.
int operand_count(uint8_t code) {
  if (code <= kNotEqual || code == kAnd || code == kOr || code == kPow) return 2;
  if (code == kSelect) return 3;
  return 1;
}

// Carries out one operation; false for a failure (status 8).
inline bool step(const CompiledFormula::Op& op, double* r, double x, FormulaState& st) {
  const double a = r[op.a];
  switch (op.code) {
    case kAdd:
      r[op.dst] = a + r[op.b];
      return true;
    case kSub:
      r[op.dst] = a - r[op.b];
      return true;
    case kMul:
      r[op.dst] = a * r[op.b];
      return true;
    case kDiv:
      if (r[op.b] == 0.0) return false;
      r[op.dst] = a / r[op.b];
      return true;
    case kRem:
    case kPower:
    case kShiftLeft:
    case kShiftRight:
    case kBitOr:
    case kBitAnd:
    case kBitXor:
    case kLess:
    case kLessEq:
    case kGreater:
    case kGreaterEq:
    case kEqual:
    case kNotEqual:
      return apply_binary(kBinaryTokens[op.code], a, r[op.b], &r[op.dst]) == kOk;
    case kNegate:
      r[op.dst] = -a;
      return true;
    case kInvert:
      r[op.dst] = ~to_int32(a);
      return true;
    case kNot:
      r[op.dst] = truth(a) ? 0.0 : 1.0;
      return true;
    case kAnd:
      r[op.dst] = (truth(a) && truth(r[op.b])) ? 1.0 : 0.0;
      return true;
    case kOr:
      r[op.dst] = (truth(a) || truth(r[op.b])) ? 1.0 : 0.0;
      return true;
    case kSelect:
      r[op.dst] = truth(a) ? r[op.b] : r[op.c];
      return true;
    case kCall:
      // The logarithms of exactly 0 fail; other domain errors give NaN or infinity.
      if ((op.fn == fn_ln || op.fn == fn_log) && a == 0.0) return false;
      r[op.dst] = op.fn(a);
      return true;
    case kBool:
      r[op.dst] = truth(a) ? 1.0 : 0.0;
      return true;
    case kPow:
      r[op.dst] = std::pow(a, r[op.b]);
      return true;
    case kSetPair: {
      const double b = r[op.b];
      st.run_min = b < a ? b : a;
      st.run_max = b < a ? a : b;
      return true;
    }
    case kWiden:
      if (a < st.run_min) st.run_min = a;
      if (a > st.run_max) st.run_max = a;
      return true;
    case kMin:
      r[op.dst] = st.run_min;
      return true;
    case kMax:
      r[op.dst] = st.run_max;
      return true;
    case kRandom:
      r[op.dst] = next_random(st);
      return true;
    case kBit:
      r[op.dst] = static_cast<double>((static_cast<uint32_t>(to_int32(x)) >> op.c) & 1u);
      return true;
    default:
      return true;
  }
}

// Parses a text and records its computations. Every place that computes a value when the
// text is evaluated emits one operation there, so the program keeps their order.
class Compiler {
 public:
  Compiler(Source& src, std::vector<CompiledFormula::Op>& ops, std::vector<double>& registers)
      : lexer_(src), ops_(ops), registers_(registers), constant_(registers.size(), false) {
    stack_.reserve(kStackInitial);
  }

  // Returns 0 with the register of the formula's value, or 7 with *message set.
  int16_t run(uint32_t* value, const char** message) {
    message_ = message;
    bool want_operand = true;
    bool paren_cond = false;  // the top operand is a "( condition )" just closed
    for (;;) {
      Token t = lexer_.next();
      if (want_operand) {
        int16_t s = operand(t, value, &want_operand);
        if (s != kOk || t.type == Tok::End) return s;
        continue;
      }
      if (paren_cond) {
        paren_cond = false;
        if (t.type == Tok::Question) {
          Entry query = mark_entry(Mark::Query, Tok::Question, 4);
          query.a = stack_.back().a;
          pop();
          if (!push(query)) return overflow();
          want_operand = true;
          continue;
        }
      }
      if (int16_t s = reduce(reduce_threshold(t.type)); s != kOk) return s;
      Entry& top = stack_.back();
      Entry* below = stack_.size() >= 2 ? &stack_[stack_.size() - 2] : nullptr;
      // A comparison, "&&" and "||" make a condition, which only some places take; the
      // text is refused at the operator itself, before anything after it is evaluated.
      if (binary_level(t.type) != 0 || is_comparison(t.type)) {
        if (top.cond) return syntax();
        if (is_comparison(t.type) && !takes_condition(stack_.size() - 1)) return syntax();
        Mark m = binary_level(t.type) != 0 ? Mark::Binary : Mark::Compare;
        if (!push(mark_entry(m, t.type, 1))) return overflow();
        want_operand = true;
      } else if (t.type == Tok::AndAnd || t.type == Tok::OrOr) {
        if (!top.cond || !takes_condition(stack_.size() - 1)) return syntax();
        if (!push(mark_entry(t.type == Tok::AndAnd ? Mark::And : Mark::Or, t.type, 1))) {
          return overflow();
        }
        want_operand = true;
      } else if (t.type == Tok::RParen && below != nullptr && below->mark == Mark::Open) {
        Entry inner = value_entry(top.a, top.cond);
        pop();
        pop();
        if (!push(inner)) return overflow();
        paren_cond = inner.cond;
      } else if (t.type == Tok::RParen && below != nullptr && below->mark == Mark::Call) {
        if (int16_t s = finish_call(); s != kOk) return s;
      } else if (t.type == Tok::Comma && below != nullptr && below->mark == Mark::Call) {
        if (int16_t s = next_argument(); s != kOk) return s;
        want_operand = true;
      } else if (t.type == Tok::Colon && below != nullptr && below->mark == Mark::Query &&
                 !top.cond) {
        Entry colon = mark_entry(Mark::Colon, Tok::Colon, 6);
        colon.a = below->a;
        colon.b = top.a;
        pop();
        pop();
        if (!push(colon)) return overflow();
        want_operand = true;
      } else if (t.type == Tok::End && stack_.size() == 1) {
        *value = top.a;
        return kOk;
      } else {
        return syntax();
      }
    }
  }

 private:
  int16_t syntax() {
    *message_ = kMsgSyntax;
    return kSyntax;
  }
  int16_t overflow() {
    *message_ = kMsgOverflow;
    return kSyntax;
  }

  uint32_t constant(double v) {
    registers_.push_back(v);
    constant_.push_back(true);
    return static_cast<uint32_t>(registers_.size() - 1);
  }
  // A new register computed by `code`. An operation on constants alone that neither fails
  // nor touches the process-wide state is carried out now: its register becomes a constant
  // of the same value.
  uint32_t emit(Code code, uint32_t a = 0, uint32_t b = 0, uint32_t c = 0, UnaryFn fn = nullptr) {
    const uint32_t dst = constant(0.0);
    const CompiledFormula::Op op{code, dst, a, b, c, fn};
    if (code < kSetPair) {
      const int n = operand_count(code);
      const bool known = constant_[a] && (n < 2 || constant_[b]) && (n < 3 || constant_[c]);
      FormulaState unused;
      if (known && step(op, registers_.data(), 0.0, unused)) return dst;
    }
    constant_[dst] = false;
    ops_.push_back(op);
    return dst;
  }

  bool push(const Entry& e) {
    if (depth_ + e.weight > kStackLimit) return false;
    stack_.push_back(e);
    depth_ += e.weight;
    return true;
  }
  void pop() {
    depth_ -= stack_.back().weight;
    stack_.pop_back();
  }
  // Replaces the top `count` entries by one finished operand.
  void replace(size_t count, uint32_t reg, bool cond) {
    for (size_t i = 0; i < count; ++i) pop();
    push(value_entry(reg, cond));  // cannot overflow: at least as much was just removed
  }

  // True when an operand that ends up a condition may stand at stack index `at`, that is
  // after the entries below it: at the start, in parentheses, after "!", "&&", "||" and
  // as the argument of BOOL. Everywhere else only an arithmetic expression may stand.
  bool takes_condition(size_t at) const {
    if (at == 0) return true;
    const Entry& m = stack_[at - 1];
    return m.mark == Mark::Open || m.mark == Mark::Not || m.mark == Mark::And ||
           m.mark == Mark::Or || (m.mark == Mark::Call && m.op == Tok::Bool);
  }

  // Takes a token where an operand must begin.
  int16_t operand(const Token& t, uint32_t* value, bool* want_operand) {
    uint32_t v = 0;
    bool cond = false;
    switch (t.type) {
      case Tok::Number:
        v = constant(t.value);
        break;
      case Tok::Variable:
        v = 0;
        break;
      case Tok::ConstE:
        v = constant(kE);
        break;
      case Tok::ConstPi:
        v = constant(kPi);
        break;
      case Tok::Random:
        v = emit(kRandom);
        break;
      case Tok::True:
      case Tok::False:
        if (!takes_condition(stack_.size())) return syntax();
        v = constant(t.type == Tok::True ? 1.0 : 0.0);
        cond = true;
        break;
      case Tok::Bit: {
        if (!takes_condition(stack_.size())) return syntax();
        if (int16_t s = bit_test(&v); s != kOk) return s;
        cond = true;
        break;
      }
      case Tok::Plus:
      case Tok::Minus:
      case Tok::Tilde:
        return push(mark_entry(Mark::Prefix, t.type, 1)) ? kOk : overflow();
      case Tok::Not:
        if (!takes_condition(stack_.size())) return syntax();
        return push(mark_entry(Mark::Not, t.type, 1)) ? kOk : overflow();
      case Tok::LParen:
        return push(mark_entry(Mark::Open, t.type, 1)) ? kOk : overflow();
      case Tok::Function:
      case Tok::Pow:
      case Tok::Min:
      case Tok::Max:
      case Tok::Bool: {
        if (lexer_.next().type != Tok::LParen) return syntax();
        Entry call = mark_entry(Mark::Call, t.type, 2);
        call.fn = t.fn;
        return push(call) ? kOk : overflow();
      }
      case Tok::End:
        if (!stack_.empty()) return syntax();
        *value = constant(0.0);  // the empty formula
        return kOk;
      default:
        return syntax();
    }
    if (!push(value_entry(v, cond))) return overflow();
    *want_operand = false;
    return kOk;
  }

  // BIT ( X , n ): the first argument must be the variable itself and n a 16-bit decimal
  // integer token; the result is bit n mod 32 of X as a 32-bit integer.
  int16_t bit_test(uint32_t* v) {
    if (depth_ + 6 > kStackLimit) return overflow();
    if (lexer_.next().type != Tok::LParen) return syntax();
    if (lexer_.next().type != Tok::Variable) return syntax();
    if (lexer_.next().type != Tok::Comma) return syntax();
    Token n = lexer_.next();
    if (n.type != Tok::Number || n.kind != NumberKind::Int16) return syntax();
    if (lexer_.next().type != Tok::RParen) return syntax();
    *v = emit(kBit, 0, 0, static_cast<uint32_t>(n.value) % 32u);
    return kOk;
  }

  // Reduces pending constructs of at least rank `threshold` that stand below the top
  // operand, checking that each gets operands of the kind it takes.
  int16_t reduce(int threshold) {
    while (stack_.size() >= 2) {
      Entry& top = stack_.back();
      Entry& m = stack_[stack_.size() - 2];
      int r = rank(m);
      if (r == 0 || r < threshold) break;
      switch (m.mark) {
        case Mark::Binary:
        case Mark::Compare: {
          if (top.cond) return syntax();
          const uint32_t left = stack_[stack_.size() - 3].a;
          replace(3, emit(binary_code(m.op), left, top.a), m.mark == Mark::Compare);
          break;
        }
        case Mark::Prefix: {
          if (top.cond) return syntax();
          const uint32_t v = m.op == Tok::Minus   ? emit(kNegate, top.a)
                             : m.op == Tok::Tilde ? emit(kInvert, top.a)
                                                  : top.a;
          replace(2, v, false);
          break;
        }
        case Mark::Not:
          if (!top.cond) return syntax();
          replace(2, emit(kNot, top.a), true);
          break;
        case Mark::And:
        case Mark::Or: {
          if (!top.cond) return syntax();
          const uint32_t left = stack_[stack_.size() - 3].a;
          replace(3, emit(m.mark == Mark::And ? kAnd : kOr, left, top.a), true);
          break;
        }
        case Mark::Colon:
          if (top.cond) return syntax();
          replace(2, emit(kSelect, m.a, m.b, top.a), false);
          break;
        default:
          return syntax();
      }
    }
    return kOk;
  }

  // "," after an argument of POW, MIN or MAX.
  int16_t next_argument() {
    Entry& top = stack_.back();
    Entry& call = stack_[stack_.size() - 2];
    if (top.cond) return syntax();
    const uint32_t v = top.a;
    bool first = call.args == 0;
    if (call.op == Tok::Pow) {
      if (!first) return syntax();
    } else if (call.op == Tok::Min || call.op == Tok::Max) {
      if (call.args == 1) emit(kSetPair, call.a, v);
      if (call.args >= 2) emit(kWiden, v);
    } else {
      return syntax();
    }
    if (first) call.a = v;
    ++call.args;
    pop();
    if (first) {
      // "NAME ( e ," now stands for four symbols instead of two.
      if (depth_ + 2 > kStackLimit) return overflow();
      stack_.back().weight = 4;
      depth_ += 2;
    }
    return kOk;
  }

  // ")" closing a function call.
  int16_t finish_call() {
    const Entry& top = stack_.back();
    const Entry& call = stack_[stack_.size() - 2];
    uint32_t v = 0;
    switch (call.op) {
      case Tok::Function:
        if (top.cond || call.args != 0 || call.fn == nullptr) return syntax();
        v = emit(kCall, top.a, 0, 0, call.fn);
        break;
      case Tok::Bool:
        if (!top.cond || call.args != 0) return syntax();
        v = emit(kBool, top.a);
        break;
      case Tok::Pow:
        if (top.cond || call.args != 1) return syntax();
        v = emit(kPow, call.a, top.a);
        break;
      case Tok::Min:
      case Tok::Max:
        if (top.cond || call.args == 0) return syntax();
        if (call.args == 1) {
          emit(kSetPair, call.a, top.a);
        } else {
          emit(kWiden, top.a);
        }
        v = emit(call.op == Tok::Min ? kMin : kMax);
        break;
      default:
        return syntax();
    }
    replace(2, v, false);
    return kOk;
  }

  Lexer lexer_;
  std::vector<CompiledFormula::Op>& ops_;
  std::vector<double>& registers_;
  std::vector<bool> constant_;  // per register: holds a value known without X
  std::vector<Entry> stack_;
  const char** message_ = nullptr;
  size_t depth_ = 1;  // the start state
};

char to_upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Upper-cases text[0, n) and turns the commas of a leading plain number into points; returns
// where the text starts after blanks and sets *plain_end to the end of that leading number.
size_t normalise(char* text, size_t n, size_t* plain_end) {
  for (size_t i = 0; i < n; ++i) text[i] = to_upper(text[i]);
  size_t start = 0;
  while (start < n && is_space(text[start])) ++start;
  // A text made only of digits, points, commas and a leading minus sign is a plain number
  // with commas as decimal points. The commas of such a prefix become points even when
  // more follows, so "1,5+X" reads as 1.5 + X.
  size_t end = start;
  if (end < n && text[end] == '-') ++end;
  for (; end < n && (is_digit(text[end]) || text[end] == '.' || text[end] == ','); ++end) {
    if (text[end] == ',') text[end] = '.';
  }
  *plain_end = end;
  return start;
}

size_t text_length(std::span<const char> text) {
  size_t n = 0;
  while (n < text.size() && text[n] != '\0') ++n;
  return n;
}

// Compiles a normalised text of n characters.
void compile_normalised(const char* text, size_t n, size_t start, size_t plain_end,
                        std::vector<CompiledFormula::Op>* ops, std::vector<double>* registers,
                        uint32_t* result, int16_t* status, const char** message) {
  registers->assign(1, 0.0);  // X
  if (plain_end == n) {
    const char* p = text + start;
    const char* last = text + n;
    bool negative = p < last && *p == '-';
    if (negative) ++p;
    size_t used = 0;
    double value = read_decimal(p, last, &used);
    if (used == 0) {
      value = 0.0;
    } else if (negative) {
      value = -value;
    }
    registers->push_back(value);
    *result = 1;
    *status = kOk;
    return;
  }
  Source src{text, n, start};
  try {
    Compiler compiler(src, *ops, *registers);
    *status = compiler.run(result, message);
  } catch (const std::bad_alloc&) {
    *message = kMsgOverflow;
    *status = kSyntax;
  }
}

}  // namespace

int16_t CompiledFormula::run(double x, double* result) const {
  FormulaState& st = formula_state();
  st.x = x;
  st.message = nullptr;
  double* r = registers_.data();
  r[0] = x;
  int16_t status = kOk;
  for (const Op& op : ops_) {
    if (!step(op, r, x, st)) {
      status = kMathFault;
      break;
    }
  }
  if (status == kOk && end_status_ != kOk) {
    status = end_status_;
    st.message = end_message_;
  }
  const double value = status == kOk ? r[result_] : 0.0;
  st.result = value;
  if (result != nullptr) *result = value;
  return status;
}

std::shared_ptr<const CompiledFormula> compile_formula(std::span<const char> text) {
  const size_t n = text_length(text);
  std::vector<char> copy(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(n));
  size_t plain_end = 0;
  const size_t start = normalise(copy.data(), n, &plain_end);
  auto compiled = std::make_shared<CompiledFormula>();
  compile_normalised(copy.data(), n, start, plain_end, &compiled->ops_, &compiled->registers_,
                     &compiled->result_, &compiled->end_status_, &compiled->end_message_);
  return compiled;
}

void reset_formula_state() {
  FormulaState& st = formula_state();
  st.x = 0.0;
  st.result = 0.0;
  st.run_min = 0.0;
  st.run_max = 0.0;
  st.random_seed = 1;
  st.message = nullptr;
}

const char* formula_failure_text() {
  return formula_state().message;
}

void normalise_formula_text(std::span<char> text) {
  size_t plain_end = 0;
  normalise(text.data(), text_length(text), &plain_end);
}

int16_t evaluate_formula(std::span<char> text, double x, double* result) {
  const size_t n = text_length(text);
  size_t plain_end = 0;
  normalise(text.data(), n, &plain_end);
  return compile_formula(std::span<const char>(text.data(), n))->run(x, result);
}

}  // namespace korvel
