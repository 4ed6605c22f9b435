// The linear pair kept behind a CC image in memory, and the scaling annotations of verbal
// range tables it is derived from when a CC block is read.
#include "storage/cc_extra.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include "frame/bytes.h"
#include "korvel.h"
#include "storage/layout.h"

namespace korvel {

using namespace layout;

namespace {

uint32_t block_size(const uint8_t* image) {
  return load_le16(image + kHeadSize);
}

}  // namespace

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
  const uint32_t size = block_size(cc);
  if (size < cc::kSize) return 0;
  // Entries that lie wholly inside the block, at most the stored count.
  const uint32_t fit = (size - cc::kParams) / cc::kVtabrEntry;
  const uint32_t count = load_le16(cc + cc::kCount);
  if (entry >= std::min(count, fit)) return 0;
  return load_le32(cc + cc::kParams + cc::kVtabrEntry * entry + cc::kVtabrLink);
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
  if (block_size(cc) >= cc::kSize && load_le16(cc + cc::kType) == MDF_CC_FRM_VTABR &&
      vtabr_text_link(cc, 0) != 0 &&
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
