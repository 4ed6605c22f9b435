// Forward and inverse conversion rules, and the linear pair of verbal range tables.
#include "convert/conversion.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "convert/formula.h"
#include "frame/bytes.h"
#include "frame/frame.h"
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

// The formula text of a type-10 rule: from offset 46 to the end of the block.
std::span<const char> formula_text(const uint8_t* cc) {
  return {reinterpret_cast<const char*>(cc + cc_layout::kParams),
          block_size(cc) - cc_layout::kParams};
}

// Compiles the formula text of a type-10 rule. The text is first normalised in place in the
// block (upper-cased, the commas of a leading number turned into points), as evaluating a
// formula has always left it: the rule getters, and copies of the rule made afterwards, show
// the text so changed. The block image lives in a node's writable buffer.
std::shared_ptr<const CompiledFormula> compile_block_formula(const uint8_t* cc) {
  const std::span<const char> text = formula_text(cc);
  normalise_formula_text({const_cast<char*>(text.data()), text.size()});
  return compile_formula(text);
}

// The program of a type-10 rule for a conversion without a prepared rule (the group's time,
// sorting): the last text compiled here is kept, so converting value after value through the
// same text compiles it once. A text equal to the kept one is normalised already.
const CompiledFormula& last_formula(const uint8_t* cc) {
  std::string& text = state().kept.last_formula_text;
  std::shared_ptr<const void>& compiled = state().kept.last_formula_program;
  const std::span<const char> span = formula_text(cc);
  std::size_t n = 0;
  while (n < span.size() && span[n] != '\0') ++n;
  if (compiled == nullptr || text.size() != n || std::memcmp(text.data(), span.data(), n) != 0) {
    compiled = compile_block_formula(cc);
    text.assign(span.data(), n);
  }
  return *static_cast<const CompiledFormula*>(compiled.get());
}

double ln(double v) {
  return std::log(v);
}
double ex(double v) {
  return std::exp(v);
}

}  // namespace

int16_t to_physical(const uint8_t* cc, double x, double* y) {
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
      (void)last_formula(cc).run(x, y);
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

PreparedRule prepare_rule(const uint8_t* cc) {
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
    case MDF_CC_FRM_TXT:
      prepared.kind = PreparedRule::Kind::formula;
      prepared.formula = compile_block_formula(cc);
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
    case PreparedRule::Kind::formula:
      for (std::size_t i = 0; i < n; ++i) (void)rule.formula->run(values[i], &values[i]);
      return MDF_OK;
    case PreparedRule::Kind::general:
      break;
  }
  int16_t status = MDF_OK;
  for (std::size_t i = 0; i < n; ++i) status = to_physical(rule.cc, values[i], &values[i]);
  return status;
}

int16_t to_physical_signed(const uint8_t* cc, int64_t x, double* y) {
  return to_physical(cc, static_cast<double>(x), y);
}

int16_t to_physical_unsigned(const uint8_t* cc, uint64_t x, double* y) {
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

}  // namespace korvel
