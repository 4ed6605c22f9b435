// Conversion rules of CC blocks: raw value to physical value and back.
//
// A CC image is the in-memory block: `cc` points at the block head, the block size is the
// 16-bit size of that head, and 16 bytes right behind the block hold the linear pair of the
// verbal range table (offset REAL, then factor REAL). Parameters are read only from inside
// the block size: a parameter whose bytes lie beyond the block reads as 0.0, and a table
// uses only the entries that lie wholly inside the block. A block shorter than the 46-byte
// common part has no readable type and counts as an unsupported rule.
//
// A null CC image is the identity. The image is never changed here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "convert/formula.h"
#include "storage/cc_extra.h"

namespace korvel {

// Forward conversion of a raw value x into the physical value *y. Returns 0, or 1021
// (unsupported rule type) with *y = x. A text formula (type 10) is compiled for this one
// value; converting many values goes through a PreparedRule, which compiles it once.
int16_t to_physical(const uint8_t* cc, double x, double* y);
// The same for raw values decoded as signed or unsigned 64-bit integers; both are first
// turned into a double (unsigned values of 2^63 and above stay positive).
int16_t to_physical_signed(const uint8_t* cc, int64_t x, double* y);
int16_t to_physical_unsigned(const uint8_t* cc, uint64_t x, double* y);

// A conversion rule taken apart once, for converting many values: the arithmetic rules
// (identity, linear, verbal range table scaling, polynomial, rational) keep their parameters,
// a text formula its compiled program; every other rule is applied through to_physical. Each
// value converted through a prepared rule is bit for bit the one to_physical gives for the
// same image. The image must stay unchanged while the rule is used.
struct PreparedRule {
  enum class Kind : uint8_t { identity, linear, polynomial, rational, formula, general };
  Kind kind = Kind::identity;
  double p[6] = {};             // linear: factor, offset; polynomial: P1..P5; rational: P1..P6
  const uint8_t* cc = nullptr;  // the image, for the general kind
  std::shared_ptr<const CompiledFormula> formula;  // for the formula kind
};
PreparedRule prepare_rule(const uint8_t* cc);
// Converts values[0..n) in place; returns the status to_physical gives for every value of
// this rule (0 or 1021; with 1021 the values stay raw).
int16_t to_physical_array(const PreparedRule& rule, double* values, std::size_t n);
// One value through a prepared rule.
inline int16_t to_physical_prepared(const PreparedRule& rule, double x, double* y) {
  switch (rule.kind) {
    case PreparedRule::Kind::identity:
      *y = x;
      return 0;
    case PreparedRule::Kind::linear:
      *y = x * rule.p[0] + rule.p[1];
      return 0;
    case PreparedRule::Kind::formula:
      // A faulty formula yields 0.0; the conversion itself still counts as done.
      (void)rule.formula->run(x, y);
      return 0;
    default:
      return to_physical_array(rule, &(*y = x), 1);
  }
}

// Inverse conversion of a physical value y into the raw value *x. Returns 0, or 1021 for a
// text formula or an unsupported rule type; the caller then stores nothing (*x is set to y).
int16_t to_raw(const uint8_t* cc, double y, double* x);

}  // namespace korvel
