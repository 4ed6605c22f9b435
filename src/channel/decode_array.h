// Decoding one channel's values from many records at once.
//
// The records lie in memory at a fixed stride, each with at least `record_size` bytes of
// record data. Every value is bit for bit the one the single-value decoders (decode.h) give
// for the same record data: the layout is derived once, and the common layouts (byte-aligned
// Intel integers of 8, 16, 32 and 64 bits, IEEE floats) are read as plain strided loads; bit
// fields and Motorola order take the general field extraction. Statuses are returned, never
// raised.
#pragma once

#include <cstddef>
#include <bit>
#include <cstdint>

#include "channel/decode.h"
#include "convert/conversion.h"
#include "frame/bytes.h"

namespace korvel {

// What to decode: raw as double (decode_hex), raw as integer (decode_hex_int), physical
// (decode_phy).
enum class ValueKind : uint8_t { hex, hex_int, phy };

// A channel's layout and rule, prepared for array decoding.
struct ArrayPlan {
  enum class Load : uint8_t {
    u8, u16, u32, u64, i8, i16, i32, i64,  // byte-aligned Intel integers
    u16_be, u32_be, u64_be, i16_be, i32_be, i64_be,  // byte-aligned Motorola integers
    f32, f64, f32_be, f64_be,              // IEEE floats
    field_unsigned, field_signed,          // bit fields and Motorola order, span <= 8
    single,                                // anything else: the single-value decoder per record
  };
  ValueKind kind = ValueKind::phy;
  Load load = Load::single;
  int16_t status = 0;         // the decoding status of every record (0, 1020, -1003)
  uint32_t byte_offset = 0;   // of the field in the record data
  uint32_t byte_span = 0;     // bytes the field touches
  uint8_t bit_offset = 0;
  uint16_t bit_count = 0;
  bool motorola = false;
  const uint8_t* cn = nullptr;
  const uint8_t* cc = nullptr;
  std::size_t record_size = 0;  // record data bytes, for the single-value decoder
  PreparedRule rule;          // for physical values
  // The physical value of one record from its field, the loader and the identity or linear
  // rule compiled together; null for other layouts and rules (decode_field then takes the
  // general way).
  int16_t (*physical)(const ArrayPlan& plan, const uint8_t* field, double* out) = nullptr;
};

// Prepares the decoding of `kind` values of channel `cn` (CN image) with rule `cc` (null: none)
// from records of `record_size` bytes of record data.
ArrayPlan plan_array(ValueKind kind, const uint8_t* cn, const uint8_t* cc,
                     std::size_t record_size);

// Decodes the values of `n` records, record r at base + r * stride, into out (double for hex
// and phy, uint64_t for hex_int). Returns the status every value has: the plan's decoding
// status (then nothing is stored), else the rule's status for physical values (0 or 1021).
int16_t decode_array(const ArrayPlan& plan, const uint8_t* base, std::size_t stride,
                     std::size_t n, void* out);

// The raw value of a record whose field starts at `field`, for a plan whose load is not
// `single`: as a double (hex and phy) or as a 64-bit integer (hex_int), converted as the
// single-value decoders convert it.
template <class Out>
inline Out load_value(const ArrayPlan& plan, const uint8_t* field) {
  using Load = ArrayPlan::Load;
  auto from_signed = [](int64_t v) { return static_cast<Out>(v); };
  auto from_unsigned = [](uint64_t v) { return static_cast<Out>(v); };
  switch (plan.load) {
    case Load::u8:
      return from_unsigned(*field);
    case Load::u16:
      return from_unsigned(load_le16(field));
    case Load::u32:
      return from_unsigned(load_le32(field));
    case Load::u64:
      return from_unsigned(load_le64(field));
    case Load::i8:
      return from_signed(static_cast<int8_t>(*field));
    case Load::i16:
      return from_signed(static_cast<int16_t>(load_le16(field)));
    case Load::i32:
      return from_signed(static_cast<int32_t>(load_le32(field)));
    case Load::i64:
      return from_signed(static_cast<int64_t>(load_le64(field)));
    case Load::u16_be:
      return from_unsigned(load_be16(field));
    case Load::u32_be:
      return from_unsigned(load_be32(field));
    case Load::u64_be:
      return from_unsigned(load_be64(field));
    case Load::i16_be:
      return from_signed(static_cast<int16_t>(load_be16(field)));
    case Load::i32_be:
      return from_signed(static_cast<int32_t>(load_be32(field)));
    case Load::i64_be:
      return from_signed(static_cast<int64_t>(load_be64(field)));
    case Load::f32:
      return static_cast<Out>(static_cast<double>(load_f32(field)));
    case Load::f64:
      return static_cast<Out>(load_f64(field));
    case Load::f32_be:
      return static_cast<Out>(static_cast<double>(std::bit_cast<float>(load_be32(field))));
    case Load::f64_be:
      return static_cast<Out>(std::bit_cast<double>(load_be64(field)));
    case Load::field_unsigned:
    case Load::field_signed: {
      const uint64_t word = load_field_word(field, plan.byte_span, plan.motorola);
      const uint64_t v = (word >> plan.bit_offset) & field_mask(plan.bit_count);
      if (plan.load == Load::field_signed) return from_signed(apply_sign_rule(v, plan.bit_count));
      return from_unsigned(v);
    }
    case Load::single:
      break;
  }
  return Out{};
}

// One value of a record whose field starts at `field` (the plan's load is not `single`):
// the value and status decode_array gives for that record.
inline int16_t decode_field(const ArrayPlan& plan, const uint8_t* field, void* out) {
  if (plan.physical != nullptr) return plan.physical(plan, field, static_cast<double*>(out));
  if (plan.status != 0) return plan.status;
  if (plan.kind == ValueKind::hex_int) {
    *static_cast<uint64_t*>(out) = load_value<uint64_t>(plan, field);
    return 0;
  }
  const double raw = load_value<double>(plan, field);
  if (plan.kind == ValueKind::hex) {
    *static_cast<double*>(out) = raw;
    return 0;
  }
  return to_physical_prepared(plan.rule, raw, static_cast<double*>(out));
}

// Raw bytes of `n` records into slots of `width` bytes each (width at least the field's
// bytes): the field's bit count / 8 bytes as decode_data copies them (a string up to and
// including its first zero byte), the rest of the slot zero. Returns 0, or the status
// mdfChnGetData gives for every record of this layout (1016, 1020; nothing stored).
int16_t bytes_status(const uint8_t* cn, std::size_t record_size, uint32_t* field_bytes);
void decode_bytes_array(const uint8_t* cn, const uint8_t* base, std::size_t stride, std::size_t n,
                        uint8_t* dst, uint32_t width);

}  // namespace korvel
