// Conversion between IEEE numbers (little-endian, as the PC holds them) and the VAX formats
// F, D and G, in place on the caller's bytes.
//
// A VAX number is a sequence of 16-bit words, most significant word first, each word
// little-endian. Word 0 holds the sign (bit 15), the exponent and the top fraction bits; the
// value is 0.1f (binary) times 2^(exponent - bias). Here a VAX number is handled as one
// integer whose most significant 16 bits are word 0.
//
//   format  bytes  exponent  fraction  bias  relation to IEEE
//   F       4      14..7     23        128   IEEE single fields, exponent + 2, words swapped
//   D       8      14..7     55        128   exponent = IEEE double exponent - 894,
//                                            fraction = IEEE fraction << 3
//   G       8      14..4     52        1024  IEEE double fields, exponent + 2, words reversed
//
// The exponent + 2 of F and G is the difference of the hidden bit's place (0.1f against
// 1.f) and of the biases. Out-of-range cases are mapped as the library always has: see the
// comments at each converter; they are kept on purpose, files and callers depend on them.
#include <cstdint>

#include "frame/bytes.h"
#include "korvel.h"

namespace {

using korvel::load_le16;
using korvel::load_le32;
using korvel::load_le64;
using korvel::store_le16;
using korvel::store_le32;
using korvel::store_le64;

// Reads 8 bytes of VAX words (word 0 first) as one integer with word 0 on top.
uint64_t load_vax64(const uint8_t* p) {
  return (static_cast<uint64_t>(load_le16(p)) << 48) |
         (static_cast<uint64_t>(load_le16(p + 2)) << 32) |
         (static_cast<uint64_t>(load_le16(p + 4)) << 16) | static_cast<uint64_t>(load_le16(p + 6));
}

void store_vax64(uint8_t* p, uint64_t v) {
  store_le16(p, static_cast<uint16_t>(v >> 48));
  store_le16(p + 2, static_cast<uint16_t>(v >> 32));
  store_le16(p + 4, static_cast<uint16_t>(v >> 16));
  store_le16(p + 6, static_cast<uint16_t>(v));
}

// Swaps the two 16-bit halves: VAX F word order against IEEE single word order.
uint32_t swap_halves(uint32_t x) {
  return (x << 16) | (x >> 16);
}

constexpr uint64_t kSignBit = uint64_t{1} << 63;
constexpr uint64_t kIeeeFraction = (uint64_t{1} << 52) - 1;
constexpr uint64_t kVaxDFraction = (uint64_t{1} << 55) - 1;
constexpr uint32_t kVaxReservedOperand = 0x00008000;  // sign set, exponent 0

void pc_double_to_vax_d(uint8_t* p) {
  const uint64_t bits = load_le64(p);
  if (bits == 0) return;  // +0 stays zero; -0 is not all zeros and is treated as tiny
  const uint64_t sign = bits & kSignBit;
  const int ieee_exponent = static_cast<int>((bits >> 52) & 0x7FF);
  // VAX D has the exponent range of IEEE single: clamp at both ends, keeping the fraction.
  int exponent = ieee_exponent - 894;
  if (ieee_exponent < 895) exponent = 1;
  if (exponent > 255) exponent = 255;
  const uint64_t vax =
      sign | (static_cast<uint64_t>(exponent) << 55) | ((bits & kIeeeFraction) << 3);
  store_vax64(p, vax);
}

void vax_d_to_pc_double(uint8_t* p) {
  const uint64_t vax = load_vax64(p);
  if (vax == 0) return;
  const uint64_t sign = vax & kSignBit;
  const uint64_t exponent = ((vax >> 55) & 0xFF) + 894;  // never beyond 11 bits
  const uint64_t fraction = (vax & kVaxDFraction) >> 3;  // the lowest 3 bits are dropped
  store_le64(p, sign | (exponent << 52) | fraction);
}

void pc_double_to_vax_g(uint8_t* p) {
  const uint64_t bits = load_le64(p);
  if (bits == 0) return;
  uint16_t w0 = static_cast<uint16_t>(bits >> 48);
  // Exponent + 2. Only an add that would leave 16 bits is avoided, so the largest positive
  // exponents carry into the sign bit.
  if (w0 < 0xFFDF) w0 = static_cast<uint16_t>(w0 + 0x20);
  store_vax64(p, (static_cast<uint64_t>(w0) << 48) | (bits & 0x0000FFFFFFFFFFFFu));
}

void vax_g_to_pc_double(uint8_t* p) {
  const uint64_t vax = load_vax64(p);
  if (vax == 0) return;
  uint16_t w0 = static_cast<uint16_t>(vax >> 48);
  if (w0 >= 0x20) w0 = static_cast<uint16_t>(w0 - 0x20);  // exponent - 2
  store_le64(p, (static_cast<uint64_t>(w0) << 48) | (vax & 0x0000FFFFFFFFFFFFu));
}

}  // namespace

extern "C" {

KORVEL_API void mdfPCFloatToVAXFFloat(void* value4) {
  auto* p = static_cast<uint8_t*>(value4);
  const uint32_t x = load_le32(p);
  const uint32_t exponent = (x >> 23) & 0xFF;
  uint32_t vax;
  if (exponent == 0) {
    // Zeros of either sign become VAX zero; denormals have no VAX counterpart.
    vax = (x & 0x7FFFFF) == 0 ? 0 : kVaxReservedOperand;
  } else if (exponent >= 254) {
    // Too large for VAX F after the exponent shift, and infinities and NaNs.
    vax = kVaxReservedOperand;
  } else {
    vax = swap_halves(x) + 0x100;  // exponent + 2 in word 0
  }
  store_le32(p, vax);
}

KORVEL_API void mdfVAXFFloatToPCFloat(void* value4) {
  auto* p = static_cast<uint8_t*>(value4);
  const uint32_t vax = load_le32(p);
  const uint32_t exponent = (vax >> 7) & 0xFF;
  uint32_t x;
  if (exponent == 0) {
    x = 0;  // true zero, dirty zero and the reserved operand
  } else if (exponent <= 2) {
    // Too small for a normal IEEE single; mapped to +infinity, not to zero, as the library
    // always has.
    x = 0x7F800000;
  } else {
    x = swap_halves(vax) - 0x01000000;  // exponent - 2
  }
  store_le32(p, x);
}

KORVEL_API void mdfPCDoubleToVAXDFloat(void* value8) {
  pc_double_to_vax_d(static_cast<uint8_t*>(value8));
}

KORVEL_API void mdfVAXDFloatToPCDouble(void* value8) {
  vax_d_to_pc_double(static_cast<uint8_t*>(value8));
}

KORVEL_API void mdfPCDoubleToVAXGFloat(void* value8) {
  pc_double_to_vax_g(static_cast<uint8_t*>(value8));
}

KORVEL_API void mdfVAXGFloatToPCDouble(void* value8) {
  vax_g_to_pc_double(static_cast<uint8_t*>(value8));
}

KORVEL_API void mdfVAXDFloatToVAXGFloat(void* value8) {
  auto* p = static_cast<uint8_t*>(value8);
  vax_d_to_pc_double(p);
  pc_double_to_vax_g(p);
}

KORVEL_API void mdfVAXGFloatToVAXDFloat(void* value8) {
  auto* p = static_cast<uint8_t*>(value8);
  vax_g_to_pc_double(p);
  pc_double_to_vax_d(p);
}

}  // extern "C"
