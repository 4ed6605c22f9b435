// Value decoding: one channel's value from the data bytes of a record, and the bit-field
// access that decoding and encoding share.
//
// `record` is the record data (the bytes after the record identifier) and `cn` the CN block
// image. A field whose bytes do not lie wholly inside the record data is never touched: the
// decoders report it as 1020 "Unsupported channel datatype" with the output 0, like every
// other layout they cannot handle. Statuses are returned, never raised.
#pragma once

#include <cstdint>
#include <span>

namespace korvel {

// Where a channel's value lies in the record data, derived from its CN block image.
struct ValueLayout {
  bool complete = false;     // the block is long enough to hold bit count and data type
  uint16_t data_type = 0;    // signal data type code, 0 to 16
  uint16_t bit_count = 0;    // number of bits
  uint8_t bit_offset = 0;    // start bit AND 7
  uint32_t byte_offset = 0;  // start bit / 8 + additional byte offset (blocks of 228+ bytes)
  uint32_t byte_span = 0;    // (bit offset + bit count + 7) / 8: record bytes the value touches
};

ValueLayout value_layout(const uint8_t* cn);

// Integer data type codes: unsigned 0, 9, 13; signed 1, 10, 14; Motorola order 9, 10.
inline bool is_unsigned_code(uint16_t code) {
  return code == 0 || code == 9 || code == 13;
}
inline bool is_signed_code(uint16_t code) {
  return code == 1 || code == 10 || code == 14;
}
inline bool is_motorola_code(uint16_t code) {
  return code == 9 || code == 10;
}

// Whether the bytes of the field lie inside record data of `record_size` bytes.
bool field_fits(const ValueLayout& layout, std::size_t record_size);

// 2^bits - 1 for bits 0 to 64.
inline uint64_t field_mask(unsigned bits) {
  return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
}

// The field's bytes as one word: Intel order takes the first byte as the least significant,
// Motorola order the last byte of the span. Only the `span` bytes (at most 8) are read or
// written; the rest of the word reads as zero.
inline uint64_t load_field_word(const uint8_t* p, uint32_t span, bool motorola) {
  uint64_t word = 0;
  for (uint32_t i = 0; i < span; ++i) {
    const uint32_t byte = motorola ? span - 1 - i : i;  // significance of p[i] in bytes
    word |= static_cast<uint64_t>(p[i]) << (8 * byte);
  }
  return word;
}
void store_field_word(uint8_t* p, uint32_t span, bool motorola, uint64_t word);

// The unsigned field value: the word shifted right by the bit offset and cut to the bit
// count. Needs byte_span <= 8.
uint64_t extract_field(const uint8_t* data, const ValueLayout& layout, bool motorola);

// Makes a field value of `bits` bits signed: values above 2^(bits-1) - 1 have 2^bits taken
// off. For 32 bits and fewer this is the same number as the 32-bit rule gives.
int64_t apply_sign_rule(uint64_t value, unsigned bits);

// Raw value as a double: integer fields of at most 4 bytes span, IEEE floats of 32 or 64
// bits at bit offset 0 (by bit count, whatever the code says), VAX F of 32 bits.
// Returns 0, 1020 (output 0) or -1003 for a null CN image.
int16_t decode_hex(std::span<const uint8_t> record, const uint8_t* cn, double* out);

// Raw value as a 64-bit integer (two's complement for signed codes): integer codes below
// 15 with a span of at most 8 bytes. Returns 0, 1020 (output 0) or -1003.
int16_t decode_hex_int(std::span<const uint8_t> record, const uint8_t* cn, uint64_t* out);

// Raw bytes: copies min(bit count / 8, *length) bytes into dst and stores that count in
// *length. A string (code 7) copy stops after the first zero byte it copies; the rest of
// dst is left as it is. dst[0] is set to 0 first when *length is not 0. Returns 0, 1016
// when the start bit or the bit count is not a multiple of 8, 1020 when the field lies
// outside the record (*length 0 in both cases), or -1003.
int16_t decode_data(std::span<const uint8_t> record, const uint8_t* cn, uint8_t* dst,
                    uint32_t* length);

// Physical value: signed and unsigned integer codes through the integer decoder, all other
// codes through the double decoder, then the conversion rule `cc` (null: none). A decoding
// failure returns its status with the output 0; otherwise the conversion's status.
int16_t decode_phy(std::span<const uint8_t> record, const uint8_t* cn, const uint8_t* cc,
                   double* out);

}  // namespace korvel
