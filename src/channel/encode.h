// Value encoding: places one channel's value into the data bytes of a record, changing only
// the bits of that channel.
//
// `record` is the record data and `cn` the CN block image; positions, masks and byte orders
// are those of decode.h. A field whose bytes do not lie wholly inside the record data is
// never touched and gives 1020 "Unsupported channel datatype". On any status but 0 the
// record is unchanged. Statuses are returned, never raised.
#pragma once

#include <cstdint>
#include <span>

#include "channel/decode.h"

namespace korvel {

// Rounding of a raw double for integer fields. Unsigned codes: the low 32 bits of
// (x + 0.5) truncated to a signed 64-bit integer, 0 when that is out of range or NaN.
// Signed codes: (x - 0.5) for negative x, else (x + 0.5), truncated to a signed 32-bit
// integer; out of range and NaN give 0x80000000.
uint32_t round_unsigned(double x);
int32_t round_signed(double x);

// Merges the low bits of `value` into the field: the field's bits take the value, all
// other bits of the span keep theirs. A Motorola field made of whole bytes is not read
// first, since every bit of its span is replaced. Needs byte_span <= 8.
void merge_field(uint8_t* data, const ValueLayout& layout, bool motorola, uint64_t value);

// Raw value from a double: integer codes of at most 4 bytes span (rounded as above, cut to
// the bit count), IEEE floats of 32 bits (narrowed, round to nearest) or 64 bits at bit
// offset 0, VAX F of 32 bits. Returns 0, 1020 or -1003 for a null CN image.
int16_t encode_hex(std::span<uint8_t> record, const uint8_t* cn, double value);

// Raw value from the two's-complement bits of an integer: integer codes below 15 with a span
// of at most 8 bytes. Returns 0, 1020 or -1003.
int16_t encode_hex_int(std::span<uint8_t> record, const uint8_t* cn, uint64_t value);

// Raw bytes: copies min(bit count / 8, length) bytes from src as they stand. Returns 0,
// 1016 when the start bit or the bit count is not a multiple of 8, 1020 when the field lies
// outside the record, or -1003.
int16_t encode_data(std::span<uint8_t> record, const uint8_t* cn, const uint8_t* src,
                    uint32_t length);

// Physical value: the inverse of the conversion rule `cc` (null: none), then encode_hex.
// Returns 1021 without storing anything for a text formula or an unsupported rule type.
int16_t encode_phy(std::span<uint8_t> record, const uint8_t* cn, const uint8_t* cc, double value);

}  // namespace korvel
