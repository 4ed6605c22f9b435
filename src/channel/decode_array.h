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
#include <cstdint>

#include "convert/conversion.h"

namespace korvel {

// What to decode: raw as double (decode_hex), raw as integer (decode_hex_int), physical
// (decode_phy).
enum class ValueKind : uint8_t { hex, hex_int, phy };

// A channel's layout and rule, prepared for array decoding.
struct ArrayPlan {
  enum class Load : uint8_t {
    u8, u16, u32, u64, i8, i16, i32, i64,  // byte-aligned Intel integers
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
  uint8_t* cc = nullptr;
  std::size_t record_size = 0;  // record data bytes, for the single-value decoder
  PreparedRule rule;          // for physical values
};

// A plan kept with a channel handle, with the bytes of the CN and CC images it was made from.
struct PlanCache {
  static constexpr std::size_t kKeyBytes = 160;
  bool valid = false;
  uint16_t key_length = 0;
  uint8_t key[kKeyBytes] = {};
  ArrayPlan plan;
};

// The plan for (kind, cn, cc, record_size), made again only when the images or the record
// size differ from those the kept plan was made from.
const ArrayPlan& cached_plan(PlanCache& cache, ValueKind kind, const uint8_t* cn, uint8_t* cc,
                             std::size_t record_size);

// Prepares the decoding of `kind` values of channel `cn` (CN image) with rule `cc` (null: none)
// from records of `record_size` bytes of record data.
ArrayPlan plan_array(ValueKind kind, const uint8_t* cn, uint8_t* cc, std::size_t record_size);

// Decodes the values of `n` records, record r at base + r * stride, into out (double for hex
// and phy, uint64_t for hex_int). Returns the status every value has: the plan's decoding
// status (then nothing is stored), else the rule's status for physical values (0 or 1021).
int16_t decode_array(const ArrayPlan& plan, const uint8_t* base, std::size_t stride,
                     std::size_t n, void* out);

// Raw bytes of `n` records into slots of `width` bytes each (width at least the field's
// bytes): the field's bit count / 8 bytes as decode_data copies them (a string up to and
// including its first zero byte), the rest of the slot zero. Returns 0, or the status
// mdfChnGetData gives for every record of this layout (1016, 1020; nothing stored).
int16_t bytes_status(const uint8_t* cn, std::size_t record_size, uint32_t* field_bytes);
void decode_bytes_array(const uint8_t* cn, const uint8_t* base, std::size_t stride, std::size_t n,
                        uint8_t* dst, uint32_t width);

}  // namespace korvel
