// Forward and inverse conversion rules, and the linear pair of verbal range tables.
#include "convert/conversion.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <span>

#include "convert/formula.h"
#include "frame/bytes.h"
#include "korvel.h"
#include "storage/layout.h"

namespace korvel {
namespace {

namespace cc_layout = layout::cc;

uint32_t block_size(const uint8_t* cc) {
  return load_le16(cc + layout::kHeadSize);
}

// Read access to the parameters of one CC image, never beyond its block size.
class Rule {
 public:
  explicit Rule(const uint8_t* cc) : cc_(cc), size_(block_size(cc)) {}

  // A block too short for the common part has no type that could be trusted.
  bool readable() const { return size_ >= cc_layout::kSize; }
  uint16_t type() const { return load_le16(cc_ + cc_layout::kType); }
  uint16_t count() const { return load_le16(cc_ + cc_layout::kCount); }

  // Parameter P(k), k counted from 1 as in the formulas; 0.0 when it lies beyond the block.
  double p(uint32_t k) const { return real_at(cc_layout::kParams + 8 * (k - 1)); }

  // Entries of a table of `stride`-byte entries that lie wholly inside the block, at most
  // the stored count.
  uint32_t entries(uint32_t stride) const {
    uint32_t fit = (size_ - cc_layout::kParams) / stride;
    return count() < fit ? count() : fit;
  }
  // Point i of a table (types 1 and 2): raw value and physical value.
  double raw(uint32_t i) const { return load_f64(cc_ + point(i)); }
  double phys(uint32_t i) const { return load_f64(cc_ + point(i) + 8); }

  double extra_offset() const { return load_f64(cc_ + size_); }
  double extra_factor() const { return load_f64(cc_ + size_ + 8); }

 private:
  double real_at(uint32_t offset) const {
    return offset + 8 <= size_ ? load_f64(cc_ + offset) : 0.0;
  }
  static uint32_t point(uint32_t i) { return cc_layout::kParams + cc_layout::kTableEntry * i; }

  const uint8_t* cc_;
  uint32_t size_;
};

// Types 1 and 2: clamp to the end points, else a binary search for the enclosing pair.
double table_forward(const Rule& rule, bool interpolate, double x) {
  uint32_t n = rule.entries(cc_layout::kTableEntry);
  if (n == 0) return 0.0;
  if (x <= rule.raw(0)) return rule.phys(0);
  if (x >= rule.raw(n - 1)) return rule.phys(n - 1);
  uint32_t lo = 0;
  uint32_t hi = n - 1;
  while (hi - lo > 1) {
    uint32_t mid = (lo + hi) / 2;
    if (rule.raw(mid) > x) {
      hi = mid;
    } else if (x > rule.raw(mid)) {
      lo = mid;
    } else {
      return rule.phys(mid);
    }
  }
  double r_lo = rule.raw(lo), r_hi = rule.raw(hi);
  double p_lo = rule.phys(lo), p_hi = rule.phys(hi);
  if (interpolate) return (p_hi - p_lo) / (r_hi - r_lo) * (x - r_lo) + p_lo;
  // A raw value midway between two points takes the lower one.
  return (x - r_lo) > (r_hi - x) ? p_hi : p_lo;
}

// Types 1 and 2 backwards: the first segment whose physical end points enclose y.
double table_inverse(const Rule& rule, bool interpolate, double y) {
  uint32_t n = rule.entries(cc_layout::kTableEntry);
  if (n <= 1) return 0.0;
  for (uint32_t i = 0; i + 1 < n; ++i) {
    double p0 = rule.phys(i), p1 = rule.phys(i + 1);
    if (!((p0 <= y && y <= p1) || (p0 >= y && y >= p1))) continue;
    double r0 = rule.raw(i), r1 = rule.raw(i + 1);
    if (interpolate) return (r1 - r0) / (p1 - p0) * (y - p0) + r0;
    // Unlike the forward direction, a physical value midway takes the later point.
    return std::fabs(p1 - y) > std::fabs(p0 - y) ? r0 : r1;
  }
  return 0.0;
}

// Types 7 (exponential) and 8 (logarithmic) share their branches and differ only in the
// function applied: the physical value of type 7 comes through ln, that of type 8 through
// exp, and the raw value the other way round.
double exp_log_forward(const Rule& r, double (*f)(double), double x) {
  double v = x - r.p(7);
  if (r.p(4) == 0.0) {
    if (r.p(1) == 0.0 || r.p(2) == 0.0) return 0.0;
    return f((v * r.p(6) - r.p(3)) / r.p(1)) / r.p(2);
  }
  // With both P1 and P4 set the rule has no closed inverse here; the raw value passes.
  if (r.p(1) != 0.0) return x;
  if (r.p(5) == 0.0 || v == 0.0) return 0.0;
  return f((r.p(3) / v - r.p(6)) / r.p(4)) / r.p(5);
}

double exp_log_inverse(const Rule& r, double (*f)(double), double y) {
  double d = f(y * r.p(5)) * r.p(4) + r.p(6);
  if (d == 0.0) return 0.0;
  return (f(y * r.p(2)) * r.p(1) + r.p(3)) / d + r.p(7);
}

double ln(double v) {
  return std::log(v);
}
double ex(double v) {
  return std::exp(v);
}

}  // namespace

int16_t to_physical(uint8_t* cc, double x, double* y) {
  if (cc == nullptr) {
    *y = x;
    return MDF_OK;
  }
  Rule r(cc);
  if (!r.readable()) {
    *y = x;
    return MDF_UNSUPPORTED_RULE;
  }
  switch (r.type()) {
    case MDF_CC_FRM_LIN:
      *y = x * r.p(2) + r.p(1);
      return MDF_OK;
    case MDF_CC_FRM_ITAB:
      *y = table_forward(r, true, x);
      return MDF_OK;
    case MDF_CC_FRM_TAB:
      *y = table_forward(r, false, x);
      return MDF_OK;
    case MDF_CC_FRM_POL: {
      // P6 is part of the stored rule but takes no part in the formula.
      double u = x - r.p(5);
      *y = (r.p(2) - r.p(4) * u) / (r.p(3) * u - r.p(1));
      return MDF_OK;
    }
    case MDF_CC_FRM_EXP:
      *y = exp_log_forward(r, ln, x);
      return MDF_OK;
    case MDF_CC_FRM_LOG:
      *y = exp_log_forward(r, ex, x);
      return MDF_OK;
    case MDF_CC_FRM_RAT: {
      double d = r.p(4) * x * x + r.p(5) * x + r.p(6);
      *y = d == 0.0 ? 0.0 : (r.p(1) * x * x + r.p(2) * x + r.p(3)) / d;
      return MDF_OK;
    }
    case MDF_CC_FRM_TXT: {
      // A faulty formula yields 0.0; the conversion itself still counts as done.
      double value = 0.0;
      uint32_t size = block_size(cc);
      std::span<char> text(reinterpret_cast<char*>(cc + cc_layout::kParams),
                           size - cc_layout::kParams);
      (void)evaluate_formula(text, x, &value);
      *y = value;
      return MDF_OK;
    }
    case MDF_CC_FRM_VTAB:
    case MDF_CC_FRM_NON:
      *y = x;
      return MDF_OK;
    case MDF_CC_FRM_VTABR:
      *y = x * r.extra_factor() + r.extra_offset();
      return MDF_OK;
    default:
      *y = x;
      return MDF_UNSUPPORTED_RULE;
  }
}

PreparedRule prepare_rule(uint8_t* cc) {
  PreparedRule prepared;
  if (cc == nullptr) return prepared;
  Rule r(cc);
  prepared.cc = cc;
  prepared.kind = PreparedRule::Kind::general;
  if (!r.readable()) return prepared;
  switch (r.type()) {
    case MDF_CC_FRM_LIN:
      prepared.kind = PreparedRule::Kind::linear;
      prepared.p[0] = r.p(2);
      prepared.p[1] = r.p(1);
      break;
    case MDF_CC_FRM_VTABR:
      prepared.kind = PreparedRule::Kind::linear;
      prepared.p[0] = r.extra_factor();
      prepared.p[1] = r.extra_offset();
      break;
    case MDF_CC_FRM_VTAB:
    case MDF_CC_FRM_NON:
      prepared.kind = PreparedRule::Kind::identity;
      break;
    case MDF_CC_FRM_POL:
    case MDF_CC_FRM_RAT:
      prepared.kind = r.type() == MDF_CC_FRM_POL ? PreparedRule::Kind::polynomial
                                                 : PreparedRule::Kind::rational;
      for (uint32_t k = 0; k < 6; ++k) prepared.p[k] = r.p(k + 1);
      break;
    default:
      break;
  }
  return prepared;
}

int16_t to_physical_array(const PreparedRule& rule, double* values, std::size_t n) {
  // The expressions are those of to_physical, term for term, so that every value is the same.
  const double* p = rule.p;
  switch (rule.kind) {
    case PreparedRule::Kind::identity:
      return MDF_OK;
    case PreparedRule::Kind::linear: {
      const double factor = p[0], offset = p[1];
      for (std::size_t i = 0; i < n; ++i) values[i] = values[i] * factor + offset;
      return MDF_OK;
    }
    case PreparedRule::Kind::polynomial:
      for (std::size_t i = 0; i < n; ++i) {
        double u = values[i] - p[4];
        values[i] = (p[1] - p[3] * u) / (p[2] * u - p[0]);
      }
      return MDF_OK;
    case PreparedRule::Kind::rational:
      for (std::size_t i = 0; i < n; ++i) {
        const double x = values[i];
        double d = p[3] * x * x + p[4] * x + p[5];
        values[i] = d == 0.0 ? 0.0 : (p[0] * x * x + p[1] * x + p[2]) / d;
      }
      return MDF_OK;
    case PreparedRule::Kind::general:
      break;
  }
  int16_t status = MDF_OK;
  for (std::size_t i = 0; i < n; ++i) status = to_physical(rule.cc, values[i], &values[i]);
  return status;
}

int16_t to_physical_signed(uint8_t* cc, int64_t x, double* y) {
  return to_physical(cc, static_cast<double>(x), y);
}

int16_t to_physical_unsigned(uint8_t* cc, uint64_t x, double* y) {
  return to_physical(cc, static_cast<double>(x), y);
}

int16_t to_raw(const uint8_t* cc, double y, double* x) {
  if (cc == nullptr) {
    *x = y;
    return MDF_OK;
  }
  Rule r(cc);
  if (!r.readable()) {
    *x = y;
    return MDF_UNSUPPORTED_RULE;
  }
  switch (r.type()) {
    case MDF_CC_FRM_LIN:
      *x = r.p(2) == 0.0 ? 0.0 : (y - r.p(1)) / r.p(2);
      return MDF_OK;
    case MDF_CC_FRM_ITAB:
      *x = table_inverse(r, true, y);
      return MDF_OK;
    case MDF_CC_FRM_TAB:
      *x = table_inverse(r, false, y);
      return MDF_OK;
    case MDF_CC_FRM_POL: {
      // P6 is not added back: the inverse mirrors the forward formula, which ignores it.
      double d = y * r.p(3) + r.p(4);
      *x = d == 0.0 ? 0.0 : (y * r.p(1) + r.p(2)) / d + r.p(5);
      return MDF_OK;
    }
    case MDF_CC_FRM_EXP:
      *x = exp_log_inverse(r, ex, y);
      return MDF_OK;
    case MDF_CC_FRM_LOG:
      *x = exp_log_inverse(r, ln, y);
      return MDF_OK;
    case MDF_CC_FRM_RAT: {
      if (r.p(1) == 0.0 && r.p(4) == 0.0) {
        double d = y * r.p(5) - r.p(2);
        *x = d == 0.0 ? 0.0 : (r.p(3) - y * r.p(6)) / d;
        return MDF_OK;
      }
      double a = r.p(1) - y * r.p(4);
      double b = r.p(2) - y * r.p(5);
      double c = r.p(3) - y * r.p(6);
      // Only the root with the plus sign is taken.
      *x = a == 0.0 ? 0.0 : (std::sqrt(b * b - 4.0 * a * c) - b) / (2.0 * a);
      return MDF_OK;
    }
    case MDF_CC_FRM_VTAB:
    case MDF_CC_FRM_NON:
      *x = y;
      return MDF_OK;
    case MDF_CC_FRM_VTABR: {
      double factor = r.extra_factor();
      *x = factor == 0.0 ? 0.0 : (y - r.extra_offset()) / factor;
      return MDF_OK;
    }
    default:  // text formulas have no inverse
      *x = y;
      return MDF_UNSUPPORTED_RULE;
  }
}

double cc_extra_offset(const uint8_t* cc) {
  return load_f64(cc + block_size(cc));
}
double cc_extra_factor(const uint8_t* cc) {
  return load_f64(cc + block_size(cc) + 8);
}
void set_cc_extra(uint8_t* cc, double offset, double factor) {
  store_f64(cc + block_size(cc), offset);
  store_f64(cc + block_size(cc) + 8, factor);
}

uint32_t vtabr_text_link(const uint8_t* cc, uint32_t entry) {
  Rule r(cc);
  if (!r.readable() || entry >= r.entries(cc_layout::kVtabrEntry)) return 0;
  return load_le32(cc + cc_layout::kParams + cc_layout::kVtabrEntry * entry +
                   cc_layout::kVtabrLink);
}

// ---------------------------------------------------------------------------------------
// Scaling annotations in the text of a verbal range table's first entry.
//
// The annotations are matched with the rules of the C library's formatted input: a blank in
// the pattern matches any run of white space (also none), "%lg" skips white space and then
// takes the longest run of characters that is, or begins, a floating-point number (failing
// when that run is not a whole number, as in "1e" or "0x"), "%c" takes the next character
// as it is, and every other character must match itself. Matching stops at the first
// failure; what counts is how many fields were filled by then. The number syntax is that of
// the "C" locale whatever locale the host process has set.
namespace {

bool is_white(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_hex_digit(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
char lower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Number of leading characters of p that match `word` ignoring case.
size_t match_word(const char* p, const char* word) {
  size_t k = 0;
  while (word[k] != '\0' && lower(p[k]) == word[k]) ++k;
  return k;
}

// Whether a number that the parser found out of range is too large (rather than too small):
// the position of its first significant digit plus its exponent decides.
bool too_large(const char* p, const char* end, bool hex) {
  int64_t position = 0;  // digits before the point, or minus the zeros after it
  bool significant = false;
  bool after_point = false;
  int64_t exponent = 0;
  char exp_mark = hex ? 'p' : 'e';
  for (; p < end; ++p) {
    if (*p == '.') {
      after_point = true;
    } else if (lower(*p) == exp_mark) {
      ++p;
      bool negative = p < end && *p == '-';
      if (p < end && (*p == '-' || *p == '+')) ++p;
      for (; p < end; ++p) {
        if (exponent < 1000000) exponent = exponent * 10 + (*p - '0');
      }
      if (negative) exponent = -exponent;
      break;
    } else if (!significant && *p == '0') {
      if (after_point) --position;
    } else {
      significant = true;
      if (!after_point) ++position;
    }
  }
  return (hex ? 4 * position : position) + exponent > 0;
}

// "%lg" on the text at `in` (white space already skipped). Advances `in` past the characters
// taken; returns false on a matching failure.
bool scan_number(const char*& in, double* out) {
  const char* p = in;
  bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  bool valid = false;
  double value = 0.0;
  if (lower(*p) == 'i') {
    size_t k = match_word(p, "infinity");
    p += k;
    valid = k == 3 || k == 8;
    value = std::numeric_limits<double>::infinity();
  } else if (lower(*p) == 'n') {
    size_t k = match_word(p, "nan");
    p += k;
    valid = k == 3;
    if (valid && *p == '(') {
      ++p;
      while (is_digit(*p) || (lower(*p) >= 'a' && lower(*p) <= 'z') || *p == '_') ++p;
      valid = *p == ')';
      if (valid) ++p;
    }
    value = std::numeric_limits<double>::quiet_NaN();
  } else {
    bool hex = *p == '0' && lower(p[1]) == 'x';
    auto digit = hex ? is_hex_digit : is_digit;
    if (hex) p += 2;
    const char* mantissa = p;
    size_t digits = 0;
    for (; digit(*p); ++p) ++digits;
    if (*p == '.') {
      ++p;
      for (; digit(*p); ++p) ++digits;
    }
    valid = digits > 0;
    // An exponent mark continues the number only after at least one digit.
    if (valid && lower(*p) == (hex ? 'p' : 'e')) {
      ++p;
      if (*p == '+' || *p == '-') ++p;
      size_t exp_digits = 0;
      for (; is_digit(*p); ++p) ++exp_digits;
      valid = exp_digits > 0;
    }
    if (valid) {
      auto result = std::from_chars(mantissa, p, value,
                                    hex ? std::chars_format::hex : std::chars_format::general);
      if (result.ec == std::errc::result_out_of_range) {
        value = too_large(mantissa, p, hex) ? std::numeric_limits<double>::infinity() : 0.0;
      } else if (result.ec != std::errc() || result.ptr != p) {
        valid = false;
      }
    }
  }
  in = p;
  if (!valid) return false;
  *out = negative ? -value : value;
  return true;
}

// Matches `text` against a pattern made of literal characters, blanks, "%lg" and "%c".
// Returns the number of fields filled; numbers go to `numbers` in order, the character of
// "%c" to `last`.
int scan_pattern(const char* text, const char* pattern, double* numbers, char* last) {
  int fields = 0;
  const char* in = text;
  for (const char* f = pattern; *f != '\0';) {
    if (is_white(*f)) {
      while (is_white(*f)) ++f;
      while (is_white(*in)) ++in;
    } else if (f[0] == '%' && f[1] == 'l' && f[2] == 'g') {
      while (is_white(*in)) ++in;
      if (*in == '\0' || !scan_number(in, numbers)) return fields;
      ++numbers;
      ++fields;
      f += 3;
    } else if (f[0] == '%' && f[1] == 'c') {
      if (*in == '\0') return fields;
      *last = *in++;
      ++fields;
      f += 2;
    } else {
      if (*in != *f) return fields;
      ++in;
      ++f;
    }
  }
  return fields;
}

enum class Scaling { kFactorOffset, kOffsetMinusFactor, kFactor, kOffset };

struct Annotation {
  const char* pattern;
  int fields;  // fields the pattern must fill, the final "%c" included
  Scaling scaling;
};

// Tried in this order; the first that fills all its fields and ends in "}" wins.
constexpr Annotation kAnnotations[] = {
    {"{LINEAR_CONV \"%lg*{X}%lg\"%c", 3, Scaling::kFactorOffset},
    {"{EVAL \"%lg*{X}%lg\"%c", 3, Scaling::kFactorOffset},
    {"{EVAL \"%lg-%lg*{X}\"%c", 3, Scaling::kOffsetMinusFactor},
    {"{EVAL \"%lg*{X}\"%c", 2, Scaling::kFactor},
    {"{EVAL \"%lg+{X}\"%c", 2, Scaling::kOffset},
    {"{EVAL \"{X}%lg\"%c", 2, Scaling::kOffset},
    {"{EVAL \"%lg\"%c", 2, Scaling::kOffset},
};

}  // namespace

void derive_vtabr_extra(uint8_t* cc, const char* entry0_text) {
  double offset = 0.0;
  double factor = 1.0;
  Rule r(cc);
  if (r.readable() && r.type() == MDF_CC_FRM_VTABR && vtabr_text_link(cc, 0) != 0 &&
      entry0_text != nullptr) {
    for (const Annotation& a : kAnnotations) {
      double n[2] = {0.0, 0.0};
      char last = '\0';
      if (scan_pattern(entry0_text, a.pattern, n, &last) != a.fields || last != '}') continue;
      switch (a.scaling) {
        case Scaling::kFactorOffset:
          factor = n[0];
          offset = n[1];
          break;
        case Scaling::kOffsetMinusFactor:
          offset = n[0];
          factor = -n[1];
          break;
        case Scaling::kFactor:
          factor = n[0];
          break;
        case Scaling::kOffset:
          offset = n[0];
          break;
      }
      break;
    }
  }
  set_cc_extra(cc, offset, factor);
}

}  // namespace korvel
