// Array decoding: the layout decided once per call, one tight loop per layout.
#include "channel/decode_array.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <span>
#include <type_traits>

#include "channel/decode.h"
#include "frame/bytes.h"
#include "korvel.h"

namespace korvel {
namespace {

using Load = ArrayPlan::Load;

bool is_float_code(uint16_t code) {
  return code == MDF_DT_FLOAT || code == MDF_DT_DOUBLE || code == MDF_DT_FLOAT_LE ||
         code == MDF_DT_DOUBLE_LE || code == MDF_DT_FLOAT_BE || code == MDF_DT_DOUBLE_BE;
}
bool is_integer_code(uint16_t code) {
  return is_signed_code(code) || is_unsigned_code(code);
}

// The status decode_hex gives for every record of this layout.
int16_t hex_status(const ValueLayout& l, std::size_t record_size) {
  if (!l.complete || !field_fits(l, record_size)) return MDF_UNSUPPORTED_TYPE;
  if (is_integer_code(l.data_type)) return l.byte_span > 4 ? MDF_UNSUPPORTED_TYPE : MDF_OK;
  if (is_float_code(l.data_type)) {
    return l.bit_offset == 0 && (l.bit_count == 32 || l.bit_count == 64) ? MDF_OK
                                                                         : MDF_UNSUPPORTED_TYPE;
  }
  if (l.data_type == MDF_DT_VAX_F) {
    return l.bit_offset == 0 && l.bit_count == 32 ? MDF_OK : MDF_UNSUPPORTED_TYPE;
  }
  return MDF_UNSUPPORTED_TYPE;
}

// The status decode_hex_int gives for every record of this layout.
int16_t hex_int_status(const ValueLayout& l, std::size_t record_size) {
  if (!l.complete || l.byte_span > 8 || !field_fits(l, record_size)) return MDF_UNSUPPORTED_TYPE;
  return is_integer_code(l.data_type) ? MDF_OK : MDF_UNSUPPORTED_TYPE;
}

Load integer_load(const ValueLayout& l) {
  const bool is_signed = is_signed_code(l.data_type);
  // A Motorola field of whole bytes at bit offset 0 is a big-endian load of its span.
  if (is_motorola_code(l.data_type) && l.bit_offset == 0) {
    switch (l.bit_count) {
      case 16:
        return is_signed ? Load::i16_be : Load::u16_be;
      case 32:
        return is_signed ? Load::i32_be : Load::u32_be;
      case 64:
        return is_signed ? Load::i64_be : Load::u64_be;
      default:
        break;
    }
  }
  if (!is_motorola_code(l.data_type) && l.bit_offset == 0) {
    switch (l.bit_count) {
      case 8:
        return is_signed ? Load::i8 : Load::u8;
      case 16:
        return is_signed ? Load::i16 : Load::u16;
      case 32:
        return is_signed ? Load::i32 : Load::u32;
      case 64:
        return is_signed ? Load::i64 : Load::u64;
      default:
        break;
    }
  }
  return is_signed ? Load::field_signed : Load::field_unsigned;
}

Load float_load(const ValueLayout& l) {
  const bool big = l.data_type == MDF_DT_FLOAT_BE || l.data_type == MDF_DT_DOUBLE_BE;
  if (l.bit_count == 32) return big ? Load::f32_be : Load::f32;
  return big ? Load::f64_be : Load::f64;
}

// Stores f(record) for every record; the compiler sees one plain loop per loader.
template <class Out, class Get>
void each(const uint8_t* base, std::size_t stride, std::size_t n, Out* out, Get get) {
  for (std::size_t r = 0; r < n; ++r) out[r] = get(base + r * stride);
}

// Integer layouts into Out (double or uint64_t), with the conversions of the single-value
// decoders: signed values through int64_t, unsigned through uint64_t.
template <class Out>
bool integers(const ArrayPlan& plan, const uint8_t* base, std::size_t stride, std::size_t n,
              Out* out) {
  const uint8_t* b = base + plan.byte_offset;
  auto from_signed = [](int64_t v) {
    if constexpr (std::is_same_v<Out, double>) {
      return static_cast<double>(v);
    } else {
      return static_cast<uint64_t>(v);
    }
  };
  auto from_unsigned = [](uint64_t v) { return static_cast<Out>(v); };
  switch (plan.load) {
    case Load::u8:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_unsigned(*p); });
      return true;
    case Load::u16:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_unsigned(load_le16(p)); });
      return true;
    case Load::u32:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_unsigned(load_le32(p)); });
      return true;
    case Load::u64:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_unsigned(load_le64(p)); });
      return true;
    case Load::i8:
      each(b, stride, n, out,
           [&](const uint8_t* p) { return from_signed(static_cast<int8_t>(*p)); });
      return true;
    case Load::i16:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_signed(static_cast<int16_t>(load_le16(p))); });
      return true;
    case Load::i32:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_signed(static_cast<int32_t>(load_le32(p))); });
      return true;
    case Load::i64:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_signed(static_cast<int64_t>(load_le64(p))); });
      return true;
    case Load::u16_be:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_unsigned(load_be16(p)); });
      return true;
    case Load::u32_be:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_unsigned(load_be32(p)); });
      return true;
    case Load::u64_be:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_unsigned(load_be64(p)); });
      return true;
    case Load::i16_be:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_signed(static_cast<int16_t>(load_be16(p))); });
      return true;
    case Load::i32_be:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_signed(static_cast<int32_t>(load_be32(p))); });
      return true;
    case Load::i64_be:
      each(b, stride, n, out, [&](const uint8_t* p) { return from_signed(static_cast<int64_t>(load_be64(p))); });
      return true;
    case Load::field_unsigned:
    case Load::field_signed: {
      ValueLayout l;
      l.complete = true;
      l.bit_count = plan.bit_count;
      l.bit_offset = plan.bit_offset;
      l.byte_offset = 0;
      l.byte_span = plan.byte_span;
      const bool motorola = plan.motorola;
      if (plan.load == Load::field_signed) {
        each(b, stride, n, out, [&](const uint8_t* p) {
          return from_signed(apply_sign_rule(extract_field(p, l, motorola), l.bit_count));
        });
      } else {
        each(b, stride, n, out,
             [&](const uint8_t* p) { return from_unsigned(extract_field(p, l, motorola)); });
      }
      return true;
    }
    default:
      return false;
  }
}

// IEEE float layouts as doubles.
bool floats(const ArrayPlan& plan, const uint8_t* base, std::size_t stride, std::size_t n,
            double* out) {
  const uint8_t* b = base + plan.byte_offset;
  switch (plan.load) {
    case Load::f32:
      each(b, stride, n, out,
           [](const uint8_t* p) { return static_cast<double>(std::bit_cast<float>(load_le32(p))); });
      return true;
    case Load::f64:
      each(b, stride, n, out, [](const uint8_t* p) { return std::bit_cast<double>(load_le64(p)); });
      return true;
    case Load::f32_be:
      each(b, stride, n, out, [](const uint8_t* p) {
        return static_cast<double>(std::bit_cast<float>(load_be32(p)));
      });
      return true;
    case Load::f64_be:
      each(b, stride, n, out,
           [](const uint8_t* p) { return std::bit_cast<double>(load_be64(p)); });
      return true;
    default:
      return false;
  }
}

// One physical value with the loader and rule fixed at compile time.
template <Load L, PreparedRule::Kind R>
int16_t physical_value(const ArrayPlan& plan, const uint8_t* field, double* out) {
  double raw;
  switch (L) {
    case Load::u8:
      raw = static_cast<double>(*field);
      break;
    case Load::u16:
      raw = static_cast<double>(load_le16(field));
      break;
    case Load::u32:
      raw = static_cast<double>(load_le32(field));
      break;
    case Load::u64:
      raw = static_cast<double>(load_le64(field));
      break;
    case Load::i8:
      raw = static_cast<double>(static_cast<int64_t>(static_cast<int8_t>(*field)));
      break;
    case Load::i16:
      raw = static_cast<double>(static_cast<int64_t>(static_cast<int16_t>(load_le16(field))));
      break;
    case Load::i32:
      raw = static_cast<double>(static_cast<int64_t>(static_cast<int32_t>(load_le32(field))));
      break;
    case Load::i64:
      raw = static_cast<double>(static_cast<int64_t>(load_le64(field)));
      break;
    case Load::u16_be:
      raw = static_cast<double>(load_be16(field));
      break;
    case Load::i16_be:
      raw = static_cast<double>(static_cast<int64_t>(static_cast<int16_t>(load_be16(field))));
      break;
    case Load::u32_be:
      raw = static_cast<double>(load_be32(field));
      break;
    case Load::i32_be:
      raw = static_cast<double>(static_cast<int64_t>(static_cast<int32_t>(load_be32(field))));
      break;
    case Load::f32:
      raw = static_cast<double>(load_f32(field));
      break;
    case Load::f64:
      raw = load_f64(field);
      break;
    default:
      raw = load_value<double>(plan, field);
      break;
  }
  if constexpr (R == PreparedRule::Kind::linear) {
    *out = raw * plan.rule.p[0] + plan.rule.p[1];
  } else {
    *out = raw;
  }
  return 0;
}

template <Load L>
auto physical_kernel_for(PreparedRule::Kind rule) -> int16_t (*)(const ArrayPlan&, const uint8_t*,
                                                                  double*) {
  switch (rule) {
    case PreparedRule::Kind::identity:
      return physical_value<L, PreparedRule::Kind::identity>;
    case PreparedRule::Kind::linear:
      return physical_value<L, PreparedRule::Kind::linear>;
    default:
      return nullptr;
  }
}

// The kernel of the common layouts with the identity or a linear rule; null otherwise.
auto physical_kernel(Load load, PreparedRule::Kind rule) -> int16_t (*)(const ArrayPlan&,
                                                                       const uint8_t*, double*) {
  switch (load) {
    case Load::u8:
      return physical_kernel_for<Load::u8>(rule);
    case Load::u16:
      return physical_kernel_for<Load::u16>(rule);
    case Load::u32:
      return physical_kernel_for<Load::u32>(rule);
    case Load::u64:
      return physical_kernel_for<Load::u64>(rule);
    case Load::i8:
      return physical_kernel_for<Load::i8>(rule);
    case Load::i16:
      return physical_kernel_for<Load::i16>(rule);
    case Load::i32:
      return physical_kernel_for<Load::i32>(rule);
    case Load::i64:
      return physical_kernel_for<Load::i64>(rule);
    case Load::u16_be:
      return physical_kernel_for<Load::u16_be>(rule);
    case Load::i16_be:
      return physical_kernel_for<Load::i16_be>(rule);
    case Load::u32_be:
      return physical_kernel_for<Load::u32_be>(rule);
    case Load::i32_be:
      return physical_kernel_for<Load::i32_be>(rule);
    case Load::f32:
      return physical_kernel_for<Load::f32>(rule);
    case Load::f64:
      return physical_kernel_for<Load::f64>(rule);
    case Load::field_unsigned:
      return physical_kernel_for<Load::field_unsigned>(rule);
    case Load::field_signed:
      return physical_kernel_for<Load::field_signed>(rule);
    default:
      return nullptr;
  }
}

}  // namespace

ArrayPlan plan_array(ValueKind kind, const uint8_t* cn, const uint8_t* cc,
                     std::size_t record_size) {
  ArrayPlan plan;
  plan.kind = kind;
  plan.cn = cn;
  plan.cc = cc;
  if (cn == nullptr) {
    plan.status = MDF_ERR_BAD_CHANNEL;
    return plan;
  }
  const ValueLayout l = value_layout(cn);
  plan.byte_offset = l.byte_offset;
  plan.byte_span = l.byte_span;
  plan.bit_offset = l.bit_offset;
  plan.bit_count = l.bit_count;
  plan.motorola = is_motorola_code(l.data_type);
  const bool integer = l.complete && is_integer_code(l.data_type);
  if (kind == ValueKind::hex_int || (kind == ValueKind::phy && integer)) {
    plan.status = hex_int_status(l, record_size);
  } else {
    plan.status = hex_status(l, record_size);
  }
  if (plan.status != MDF_OK) return plan;
  if (integer) {
    plan.load = integer_load(l);
  } else if (is_float_code(l.data_type)) {
    plan.load = float_load(l);
  } else {
    plan.load = Load::single;  // VAX F
  }
  if (kind == ValueKind::phy) {
    plan.rule = prepare_rule(cc);
    plan.physical = physical_kernel(plan.load, plan.rule.kind);
  }
  plan.record_size = record_size;
  return plan;
}

int16_t decode_array(const ArrayPlan& plan, const uint8_t* base, std::size_t stride,
                     std::size_t n, void* out) {
  if (plan.status != MDF_OK) return plan.status;
  if (plan.kind == ValueKind::hex_int) {
    integers(plan, base, stride, n, static_cast<uint64_t*>(out));
    return MDF_OK;
  }
  auto* values = static_cast<double*>(out);
  if (!integers(plan, base, stride, n, values) && !floats(plan, base, stride, n, values)) {
    // VAX F through the single-value decoder, record by record.
    for (std::size_t r = 0; r < n; ++r) {
      std::span<const uint8_t> record(base + r * stride, plan.record_size);
      (void)decode_hex(record, plan.cn, &values[r]);
    }
  }
  if (plan.kind != ValueKind::phy) return MDF_OK;
  return to_physical_array(plan.rule, values, n);
}

int16_t bytes_status(const uint8_t* cn, std::size_t record_size, uint32_t* field_bytes) {
  *field_bytes = 0;
  const ValueLayout l = value_layout(cn);
  if (!l.complete || l.bit_offset != 0 || l.bit_count % 8 != 0) return MDF_NOT_BYTE_ALIGNED;
  if (!field_fits(l, record_size)) return MDF_UNSUPPORTED_TYPE;
  *field_bytes = l.bit_count / 8u;
  return MDF_OK;
}

void decode_bytes_array(const uint8_t* cn, const uint8_t* base, std::size_t stride, std::size_t n,
                        uint8_t* dst, uint32_t width) {
  const ValueLayout l = value_layout(cn);
  const uint32_t length = l.bit_count / 8u;
  const bool string = l.data_type == MDF_DT_STRING;
  for (std::size_t r = 0; r < n; ++r) {
    const uint8_t* src = base + r * stride + l.byte_offset;
    uint8_t* slot = dst + r * width;
    uint32_t copied = length;
    if (string) {
      const void* zero = std::memchr(src, 0, length);
      if (zero != nullptr) copied = static_cast<uint32_t>(static_cast<const uint8_t*>(zero) - src) + 1;
    }
    if (copied != 0) std::memcpy(slot, src, copied);
    if (width > copied) std::memset(slot + copied, 0, width - copied);
  }
}

}  // namespace korvel
