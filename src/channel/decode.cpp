// Value decoding from the record data.
#include "channel/decode.h"

#include <bit>
#include <cstring>

#include "convert/conversion.h"
#include "frame/bytes.h"
#include "korvel.h"
#include "storage/layout.h"

namespace korvel {

ValueLayout value_layout(const uint8_t* cn) {
  ValueLayout l;
  uint32_t size = load_le16(cn + layout::kHeadSize);
  // A damaged block too short for the position and type fields has no value to reach.
  if (size < layout::cn::kDataType + 2) return l;
  uint16_t first_bit = load_le16(cn + layout::cn::kFirstBit);
  uint32_t extra = size >= layout::cn::kSize ? load_le16(cn + layout::cn::kByteOffset) : 0;
  l.complete = true;
  l.data_type = load_le16(cn + layout::cn::kDataType);
  l.bit_count = load_le16(cn + layout::cn::kBitCount);
  l.bit_offset = static_cast<uint8_t>(first_bit & 7);
  l.byte_offset = (first_bit >> 3) + extra;
  l.byte_span = (l.bit_offset + l.bit_count + 7u) >> 3;
  return l;
}

bool field_fits(const ValueLayout& layout, std::size_t record_size) {
  return static_cast<uint64_t>(layout.byte_offset) + layout.byte_span <= record_size;
}

void store_field_word(uint8_t* p, uint32_t span, bool motorola, uint64_t word) {
  for (uint32_t i = 0; i < span; ++i) {
    uint32_t byte = motorola ? span - 1 - i : i;
    p[i] = static_cast<uint8_t>(word >> (8 * byte));
  }
}

uint64_t extract_field(const uint8_t* data, const ValueLayout& layout, bool motorola) {
  uint64_t word = load_field_word(data + layout.byte_offset, layout.byte_span, motorola);
  return (word >> layout.bit_offset) & field_mask(layout.bit_count);
}

int64_t apply_sign_rule(uint64_t value, unsigned bits) {
  uint64_t signmax = bits <= 1 ? 0 : field_mask(bits - 1);
  uint64_t span = bits >= 64 ? 0 : uint64_t{1} << bits;
  if (value > signmax) value -= span;
  return static_cast<int64_t>(value);
}

namespace {

constexpr int16_t kUnsupported = MDF_UNSUPPORTED_TYPE;

}  // namespace

int16_t decode_hex(std::span<const uint8_t> record, const uint8_t* cn, double* out) {
  *out = 0.0;
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  ValueLayout l = value_layout(cn);
  if (!l.complete || !field_fits(l, record.size())) return kUnsupported;
  const uint8_t* p = record.data() + l.byte_offset;
  uint16_t code = l.data_type;
  switch (code) {
    case MDF_DT_UINT:
    case MDF_DT_UINT_LE:
    case MDF_DT_UINT_BE:
    case MDF_DT_INT:
    case MDF_DT_INT_LE:
    case MDF_DT_INT_BE: {
      // Wider fields need the integer decoder.
      if (l.byte_span > 4) return kUnsupported;
      uint64_t v = extract_field(record.data(), l, is_motorola_code(code));
      *out = is_signed_code(code) ? static_cast<double>(apply_sign_rule(v, l.bit_count))
                                  : static_cast<double>(v);
      return MDF_OK;
    }
    case MDF_DT_FLOAT:
    case MDF_DT_DOUBLE:
    case MDF_DT_FLOAT_LE:
    case MDF_DT_DOUBLE_LE:
    case MDF_DT_FLOAT_BE:
    case MDF_DT_DOUBLE_BE: {
      // The bit count, not the code, tells single from double: writers mixed them up.
      if (l.bit_offset != 0 || (l.bit_count != 32 && l.bit_count != 64)) return kUnsupported;
      bool big = code == MDF_DT_FLOAT_BE || code == MDF_DT_DOUBLE_BE;
      if (l.bit_count == 32) {
        *out = std::bit_cast<float>(big ? load_be32(p) : load_le32(p));
      } else {
        *out = std::bit_cast<double>(big ? load_be64(p) : load_le64(p));
      }
      return MDF_OK;
    }
    case MDF_DT_VAX_F: {
      if (l.bit_offset != 0 || l.bit_count != 32) return kUnsupported;
      uint8_t bytes[4];
      std::memcpy(bytes, p, 4);
      mdfVAXFFloatToPCFloat(bytes);
      *out = load_f32(bytes);
      return MDF_OK;
    }
    default:  // VAX G and D, strings, byte arrays, unknown codes
      return kUnsupported;
  }
}

int16_t decode_hex_int(std::span<const uint8_t> record, const uint8_t* cn, uint64_t* out) {
  *out = 0;
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  ValueLayout l = value_layout(cn);
  if (!l.complete || l.byte_span > 8 || l.data_type >= MDF_DT_FLOAT_LE) return kUnsupported;
  if (!field_fits(l, record.size())) return kUnsupported;
  uint16_t code = l.data_type;
  if (!is_unsigned_code(code) && !is_signed_code(code)) return kUnsupported;
  uint64_t v = extract_field(record.data(), l, is_motorola_code(code));
  if (is_signed_code(code)) v = static_cast<uint64_t>(apply_sign_rule(v, l.bit_count));
  *out = v;
  return MDF_OK;
}

int16_t decode_data(std::span<const uint8_t> record, const uint8_t* cn, uint8_t* dst,
                    uint32_t* length) {
  uint32_t room = *length;
  *length = 0;
  if (room != 0) dst[0] = 0;
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  ValueLayout l = value_layout(cn);
  if (!l.complete) return kUnsupported;
  if (l.bit_offset != 0 || l.bit_count % 8 != 0) return MDF_NOT_BYTE_ALIGNED;
  if (!field_fits(l, record.size())) return kUnsupported;
  uint32_t n = l.bit_count / 8u;
  if (room < n) n = room;
  const uint8_t* src = record.data() + l.byte_offset;
  if (l.data_type == MDF_DT_STRING) {
    for (uint32_t i = 0; i < n; ++i) {
      dst[i] = src[i];
      if (src[i] == 0) break;
    }
  } else {
    if (n != 0) std::memcpy(dst, src, n);
  }
  *length = n;
  return MDF_OK;
}

int16_t decode_phy(std::span<const uint8_t> record, const uint8_t* cn, const uint8_t* cc,
                   double* out) {
  *out = 0.0;
  if (cn == nullptr) return MDF_ERR_BAD_CHANNEL;
  uint16_t code = value_layout(cn).data_type;
  if (is_signed_code(code) || is_unsigned_code(code)) {
    uint64_t raw = 0;
    int16_t status = decode_hex_int(record, cn, &raw);
    if (status != MDF_OK) return status;  // *out stays 0, the raw value after a failure
    if (is_signed_code(code)) return to_physical_signed(cc, static_cast<int64_t>(raw), out);
    return to_physical_unsigned(cc, raw, out);
  }
  double raw = 0.0;
  int16_t status = decode_hex(record, cn, &raw);
  if (status != MDF_OK) return status;
  return to_physical(cc, raw, out);
}

}  // namespace korvel
