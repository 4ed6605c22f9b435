// Value encoding into the record data.
#include "channel/encode.h"

#include <bit>
#include <cstring>

#include "convert/conversion.h"
#include "frame/bytes.h"
#include "korvel.h"

namespace korvel {

uint32_t round_unsigned(double x) {
  // The truncating conversion to 64 bits yields its indefinite value 0x8000000000000000
  // for NaN and out-of-range input; its low 32 bits are 0.
  double t = x + 0.5;
  if (!(t >= -0x1p63 && t < 0x1p63)) return 0;
  return static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(t)));
}

int32_t round_signed(double x) {
  // Halves round away from zero; NaN and out-of-range input give the 32-bit indefinite
  // value 0x80000000.
  double t = x < 0.0 ? x - 0.5 : x + 0.5;
  if (!(t > -2147483649.0 && t < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(t);
}

void merge_field(uint8_t* data, const ValueLayout& layout, bool motorola, uint64_t value) {
  uint8_t* p = data + layout.byte_offset;
  uint64_t mask = field_mask(layout.bit_count) << layout.bit_offset;
  bool whole_bytes = layout.bit_offset == 0 && layout.bit_count % 8 == 0;
  uint64_t word = motorola && whole_bytes ? 0 : load_field_word(p, layout.byte_span, motorola);
  word = ((value << layout.bit_offset) & mask) | (word & ~mask);
  store_field_word(p, layout.byte_span, motorola, word);
}

namespace {
constexpr int16_t kUnsupported = MDF_UNSUPPORTED_TYPE;
}

int16_t encode_hex(std::span<uint8_t> record, const uint8_t* cn, double value) {
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  ValueLayout l = value_layout(cn);
  if (!l.complete || !field_fits(l, record.size())) return kUnsupported;
  uint8_t* p = record.data() + l.byte_offset;
  uint16_t code = l.data_type;
  switch (code) {
    case MDF_DT_UINT:
    case MDF_DT_UINT_LE:
    case MDF_DT_UINT_BE:
    case MDF_DT_INT:
    case MDF_DT_INT_LE:
    case MDF_DT_INT_BE: {
      if (l.byte_span > 4) return kUnsupported;
      uint32_t v =
          is_signed_code(code) ? static_cast<uint32_t>(round_signed(value)) : round_unsigned(value);
      merge_field(record.data(), l, is_motorola_code(code), v);
      return MDF_OK;
    }
    case MDF_DT_FLOAT:
    case MDF_DT_DOUBLE:
    case MDF_DT_FLOAT_LE:
    case MDF_DT_DOUBLE_LE:
    case MDF_DT_FLOAT_BE:
    case MDF_DT_DOUBLE_BE: {
      // As in decoding, the bit count decides between single and double.
      if (l.bit_offset != 0 || (l.bit_count != 32 && l.bit_count != 64)) return kUnsupported;
      bool big = code == MDF_DT_FLOAT_BE || code == MDF_DT_DOUBLE_BE;
      if (l.bit_count == 32) {
        uint32_t bits = std::bit_cast<uint32_t>(static_cast<float>(value));
        if (big) {
          store_be32(p, bits);
        } else {
          store_le32(p, bits);
        }
      } else {
        uint64_t bits = std::bit_cast<uint64_t>(value);
        if (big) {
          store_be64(p, bits);
        } else {
          store_le64(p, bits);
        }
      }
      return MDF_OK;
    }
    case MDF_DT_VAX_F: {
      if (l.bit_offset != 0 || l.bit_count != 32) return kUnsupported;
      uint8_t bytes[4];
      store_f32(bytes, static_cast<float>(value));
      mdfPCFloatToVAXFFloat(bytes);
      std::memcpy(p, bytes, 4);
      return MDF_OK;
    }
    default:  // VAX G and D, strings, byte arrays, unknown codes
      return kUnsupported;
  }
}

int16_t encode_hex_int(std::span<uint8_t> record, const uint8_t* cn, uint64_t value) {
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  ValueLayout l = value_layout(cn);
  if (!l.complete || l.byte_span > 8 || l.data_type >= MDF_DT_FLOAT_LE) return kUnsupported;
  uint16_t code = l.data_type;
  if (!is_unsigned_code(code) && !is_signed_code(code)) return kUnsupported;
  if (!field_fits(l, record.size())) return kUnsupported;
  // Signed and unsigned codes alike: the caller hands in the two's-complement bits. A span
  // of up to 4 bytes takes the value's low 32 bits.
  if (l.byte_span <= 4) value &= 0xFFFFFFFFu;
  merge_field(record.data(), l, is_motorola_code(code), value);
  return MDF_OK;
}

int16_t encode_data(std::span<uint8_t> record, const uint8_t* cn, const uint8_t* src,
                    uint32_t length) {
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  ValueLayout l = value_layout(cn);
  if (!l.complete) return kUnsupported;
  if (l.bit_offset != 0 || l.bit_count % 8 != 0) return MDF_NOT_BYTE_ALIGNED;
  if (!field_fits(l, record.size())) return kUnsupported;
  uint32_t n = l.bit_count / 8u;
  if (length < n) n = length;
  // Strings too are copied as they stand: no terminator is looked for or added.
  if (n != 0) std::memcpy(record.data() + l.byte_offset, src, n);
  return MDF_OK;
}

int16_t encode_phy(std::span<uint8_t> record, const uint8_t* cn, const uint8_t* cc, double value) {
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  double raw = 0.0;
  int16_t status = to_raw(cc, value, &raw);
  if (status != MDF_OK) return status;
  return encode_hex(record, cn, raw);
}

}  // namespace korvel
