// Decoding and encoding of channel values on record bytes and CN/CC images built here byte by
// byte: the layout rules, table cases per decoder and encoder, and randomized round trips
// checked against a bit-by-bit reference.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "channel/decode.h"
#include "channel/encode.h"
#include "convert/conversion.h"
#include "korvel.h"
#include "storage/layout.h"

namespace {

namespace cn = korvel::layout::cn;
namespace cc = korvel::layout::cc;
using Bytes = std::vector<uint8_t>;

constexpr int16_t kU = MDF_UNSUPPORTED_TYPE;
constexpr int16_t kAlign = MDF_NOT_BYTE_ALIGNED;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

void put16(Bytes& b, uint32_t at, int v) {
  b[at] = static_cast<uint8_t>(v & 0xFF);
  b[at + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
}
void put_real(Bytes& b, uint32_t at, double v) {
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  for (int i = 0; i < 8; ++i) b[at + i] = static_cast<uint8_t>(bits >> (8 * i));
}

// A CN image with the given position fields. `size` is the stored block size; the image is
// always 228 bytes long, so a field beyond a shorter block can hold a tempting value.
Bytes make_cn(int type, int first_bit, int bits, int size = 228, int extra = 0) {
  Bytes b(228, 0);
  b[0] = 'C';
  b[1] = 'N';
  put16(b, 2, size);
  put16(b, cn::kFirstBit, first_bit);
  put16(b, cn::kBitCount, bits);
  put16(b, cn::kDataType, type);
  put16(b, cn::kByteOffset, extra);
  return b;
}

// A CC image with parameters P1, P2, ... and the 16-byte extra (offset 0, factor 1).
Bytes make_cc(int type, const std::vector<double>& p) {
  uint32_t size = cc::kSize + 8 * static_cast<uint32_t>(p.size());
  Bytes b(size + cc::kExtra, 0);
  b[0] = 'C';
  b[1] = 'C';
  put16(b, 2, static_cast<int>(size));
  put16(b, cc::kType, type);
  put16(b, cc::kCount, static_cast<int>(p.size()));
  for (uint32_t k = 0; k < p.size(); ++k) put_real(b, cc::kParams + 8 * k, p[k]);
  put_real(b, size + 8, 1.0);
  return b;
}

std::string where(int code, int first_bit, int bits) {
  return "code " + std::to_string(code) + " start " + std::to_string(first_bit) + " bits " +
         std::to_string(bits);
}

// ---------------------------------------------------------------------------------------
// Positions

TEST(ValueLayoutTest, PositionsFromChannelBlock) {
  struct Case {
    int size, first_bit, bits, extra;
    unsigned bit_offset, byte_offset, byte_span;
  };
  // clang-format off
  const Case cases[] = {
      {228, 0, 8, 0, 0, 0, 1},    {228, 4, 4, 0, 4, 0, 1},     {228, 4, 8, 0, 4, 0, 2},
      {228, 13, 3, 0, 5, 1, 1},   {228, 13, 4, 0, 5, 1, 2},    {228, 16, 64, 0, 0, 2, 8},
      {228, 7, 64, 0, 7, 0, 9},   {228, 0, 0, 0, 0, 0, 0},     {228, 3, 0, 0, 3, 0, 1},
      {228, 16, 8, 8192, 0, 8194, 1},                          {300, 16, 8, 3, 0, 5, 1},
      {228, 65535, 65535, 65535, 7, 8191 + 65535, 8193},
      // Below 228 bytes the additional byte offset is absent, whatever the bytes say.
      {218, 16, 8, 8192, 0, 2, 1}, {222, 16, 8, 8192, 0, 2, 1}, {227, 16, 8, 8192, 0, 2, 1},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(0, c.first_bit, c.bits, c.size, c.extra);
    korvel::ValueLayout l = korvel::value_layout(image.data());
    std::string what = where(0, c.first_bit, c.bits) + " size " + std::to_string(c.size);
    EXPECT_TRUE(l.complete) << what;
    EXPECT_EQ(l.bit_count, c.bits) << what;
    EXPECT_EQ(l.bit_offset, c.bit_offset) << what;
    EXPECT_EQ(l.byte_offset, c.byte_offset) << what;
    EXPECT_EQ(l.byte_span, c.byte_span) << what;
  }
}

TEST(ValueLayoutTest, BlockTooShortForTheFieldsHasNoValue) {
  Bytes image = make_cn(0, 0, 8, 191);
  EXPECT_FALSE(korvel::value_layout(image.data()).complete);
  EXPECT_TRUE(korvel::value_layout(make_cn(0, 0, 8, 192).data()).complete);
  Bytes record = {0x12, 0x34};
  double d = 1;
  uint64_t u = 1;
  uint8_t src[2] = {9, 9};
  EXPECT_EQ(korvel::decode_hex(record, image.data(), &d), kU);
  EXPECT_EQ(d, 0.0);
  EXPECT_EQ(korvel::decode_hex_int(record, image.data(), &u), kU);
  EXPECT_EQ(u, 0u);
  EXPECT_EQ(korvel::decode_phy(record, image.data(), nullptr, &d), kU);
  EXPECT_EQ(korvel::encode_hex(record, image.data(), 1.0), kU);
  EXPECT_EQ(korvel::encode_hex_int(record, image.data(), 1), kU);
  EXPECT_EQ(korvel::encode_data(record, image.data(), src, 2), kU);
  EXPECT_EQ(record, (Bytes{0x12, 0x34}));
}

TEST(ValueLayoutTest, NullChannelBlock) {
  Bytes record(8, 0);
  double d = 1;
  uint64_t u = 1;
  uint32_t n = 4;
  uint8_t buf[4];
  const int16_t bad = MDF_ERR_BAD_CHANNEL;
  EXPECT_EQ(korvel::decode_hex(record, nullptr, &d), bad);
  EXPECT_EQ(korvel::decode_hex_int(record, nullptr, &u), bad);
  EXPECT_EQ(korvel::decode_data(record, nullptr, buf, &n), bad);
  EXPECT_EQ(korvel::decode_phy(record, nullptr, nullptr, &d), bad);
  EXPECT_EQ(korvel::encode_hex(record, nullptr, 1.0), bad);
  EXPECT_EQ(korvel::encode_hex_int(record, nullptr, 1), bad);
  EXPECT_EQ(korvel::encode_data(record, nullptr, buf, 4), bad);
  EXPECT_EQ(korvel::encode_phy(record, nullptr, nullptr, 1.0), bad);
}

// ---------------------------------------------------------------------------------------
// Decoding

TEST(DecodeTest, RawAsDouble) {
  struct Case {
    int code, first_bit, bits;
    Bytes record;
    int16_t status;
    double value;
  };
  // clang-format off
  const Case cases[] = {
      {0, 4, 4, {0xA5}, 0, 10},         {13, 0, 8, {0xA5}, 0, 165},      {1, 0, 8, {0xFF}, 0, -1},
      {1, 0, 1, {0x01}, 0, -1},         {14, 3, 1, {0x08}, 0, -1},       {14, 0, 8, {0x7F}, 0, 127},
      {1, 0, 8, {0x80}, 0, -128},       {0, 8, 16, {0x99, 1, 2, 0x99}, 0, 513},
      {9, 0, 16, {0x12, 0x34}, 0, 0x1234},  {13, 0, 16, {0x12, 0x34}, 0, 0x3412},
      {9, 3, 10, {0xAB, 0xCD}, 0, 0x179},   // (0xABCD >> 3) & 0x3FF
      {10, 0, 16, {0xFF, 0xFE}, 0, -2},     {10, 4, 12, {0x80, 0x0F}, 0, -2048},  // 0x800
      {0, 0, 32, {0xFF, 0xFF, 0xFF, 0xFF}, 0, 4294967295.0},
      {1, 0, 32, {0, 0, 0, 0x80}, 0, -2147483648.0},      {0, 0, 0, {0xFF}, 0, 0},
      // Integer fields wider than 4 bytes need the integer decoder.
      {13, 4, 32, {0xF0, 0xFF, 0xFF, 0xFF, 0x0F}, kU, 0}, {0, 0, 40, {1, 2, 3, 4, 5}, kU, 0},
      {14, 0, 64, Bytes(8, 0xFF), kU, 0},
      // Floats go by bit count: 1.5f = 0x3FC00000, 2.5 = 0x4004000000000000.
      {2, 0, 32, {0, 0, 0xC0, 0x3F}, 0, 1.5},   {3, 0, 32, {0, 0, 0xC0, 0x3F}, 0, 1.5},
      {15, 8, 32, {0x77, 0, 0, 0xC0, 0x3F}, 0, 1.5},
      {2, 0, 64, {0, 0, 0, 0, 0, 0, 4, 0x40}, 0, 2.5},
      {16, 0, 64, {0, 0, 0, 0, 0, 0, 4, 0x40}, 0, 2.5},
      {11, 0, 32, {0x3F, 0xC0, 0, 0}, 0, 1.5},  {12, 0, 32, {0x3F, 0xC0, 0, 0}, 0, 1.5},
      {12, 0, 64, {0x40, 4, 0, 0, 0, 0, 0, 0}, 0, 2.5},
      {2, 0, 16, {0, 0x3C}, kU, 0}, {2, 4, 32, {0, 0, 0xC0, 0x3F, 0}, kU, 0},
      {11, 0, 16, {0x3F, 0xC0}, kU, 0},
      // VAX F 1.0 is the bytes 80 40 00 00; only 32 bits at bit offset 0.
      {4, 0, 32, {0x80, 0x40, 0, 0}, 0, 1}, {4, 8, 32, {0x55, 0x80, 0x40, 0, 0}, 0, 1},
      {4, 4, 32, {0x80, 0x40, 0, 0, 0}, kU, 0}, {4, 0, 64, Bytes(8, 0x40), kU, 0},
      // Fields reaching past the record data are not read.
      {0, 4, 8, {0xFF}, kU, 0}, {0, 16, 8, {0xFF, 0xFF}, kU, 0}, {3, 0, 64, Bytes(7, 0), kU, 0},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, c.first_bit, c.bits);
    double v = 12345.0;
    EXPECT_EQ(korvel::decode_hex(c.record, image.data(), &v), c.status)
        << where(c.code, c.first_bit, c.bits);
    EXPECT_EQ(v, c.value) << where(c.code, c.first_bit, c.bits);
  }
}

TEST(DecodeTest, AdditionalByteOffset) {
  Bytes record(10, 0);
  record[9] = 0x2A;
  record[1] = 7;
  double v = 0;
  EXPECT_EQ(korvel::decode_hex(record, make_cn(0, 8, 8, 228, 8).data(), &v), 0);
  EXPECT_EQ(v, 42.0);
  EXPECT_EQ(korvel::decode_hex(record, make_cn(0, 8, 8, 218, 8).data(), &v), 0);
  EXPECT_EQ(v, 7.0);  // a short block has no offset field
}

TEST(DecodeTest, RawAsInteger) {
  struct Case {
    int code, first_bit, bits;
    Bytes record;
    int16_t status;
    uint64_t value;
  };
  // clang-format off
  const Case cases[] = {
      {0, 4, 4, {0xA5}, 0, 10}, {1, 0, 8, {0x80}, 0, 0xFFFFFFFFFFFFFF80}, {1, 0, 1, {1}, 0, ~0ull},
      {13, 4, 32, {0xF0, 0xFF, 0xFF, 0xFF, 0x0F}, 0, 0xFFFFFFFF},
      {14, 4, 32, {0xF0, 0xFF, 0xFF, 0xFF, 0x0F}, 0, ~0ull},
      {14, 0, 64, Bytes(8, 0xFF), 0, ~0ull},          {0, 0, 64, Bytes(8, 0xFF), 0, ~0ull},
      {0, 0, 40, {1, 2, 3, 4, 5}, 0, 0x0504030201},   {9, 0, 40, {1, 2, 3, 4, 5}, 0, 0x0102030405},
      {10, 0, 40, {0x80, 0, 0, 0, 0}, 0, 0xFFFFFF8000000000},
      {10, 4, 12, {0xFF, 0xF0}, 0, ~0ull},            {9, 3, 10, {0xAB, 0xCD}, 0, 0x179},
      {9, 0, 16, {0x12, 0x34}, 0, 0x1234},            {13, 0, 16, {0x12, 0x34}, 0, 0x3412},
      // 57 bits from bit 7: (word >> 7), the low byte 0x80 >> 7 = 1 plus 0x01 << 1.
      {0, 7, 57, {0x80, 1, 2, 3, 4, 5, 6, 0x87}, 0, 0x010E0C0A08060403},
      {14, 7, 57, Bytes(8, 0x80), 0, 0xFF01010101010101},  // 0x0101...01 less 2^57
      {1, 32, 32, {0, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}, 0, ~1ull},
      // Spans beyond 8 bytes, non-integer codes, codes from 15 on, short records.
      {0, 1, 64, Bytes(9, 0xFF), kU, 0},  {13, 0, 65, Bytes(9, 0xFF), kU, 0},
      {2, 0, 32, Bytes(4, 1), kU, 0}, {3, 0, 64, Bytes(8, 1), kU, 0},
      {4, 0, 32, Bytes(4, 1), kU, 0},
      {7, 0, 8, {0x41}, kU, 0}, {8, 0, 8, {0x41}, kU, 0}, {11, 0, 32, Bytes(4, 1), kU, 0},
      {12, 0, 64, Bytes(8, 1), kU, 0}, {15, 0, 32, Bytes(4, 1), kU, 0},
      {16, 0, 64, Bytes(8, 1), kU, 0},
      {0, 0, 40, {1, 2, 3, 4}, kU, 0},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, c.first_bit, c.bits);
    uint64_t v = 12345;
    EXPECT_EQ(korvel::decode_hex_int(c.record, image.data(), &v), c.status)
        << where(c.code, c.first_bit, c.bits);
    EXPECT_EQ(v, c.value) << where(c.code, c.first_bit, c.bits);
  }
}

TEST(DecodeTest, RawBytes) {
  struct Case {
    int code, first_bit, bits;
    uint32_t room;
    int16_t status;
    uint32_t length;
    Bytes out;  // the 6-byte buffer afterwards, prefilled with 0xEE
  };
  const uint8_t E = 0xEE;
  const Bytes record = {0x00, 0x11, 0x22, 0x33, 0x44, 'A', 'B', 0, 'C', 'D'};
  // clang-format off
  const Case cases[] = {
      {8, 8, 24, 6, 0, 3, {0x11, 0x22, 0x33, E, E, E}},
      {8, 8, 24, 2, 0, 2, {0x11, 0x22, E, E, E, E}},
      {0, 0, 16, 6, 0, 2, {0x00, 0x11, E, E, E, E}},
      {3, 16, 32, 6, 0, 4, {0x22, 0x33, 0x44, 'A', E, E}},
      // A string stops after the first zero byte; the buffer behind it is left alone.
      {7, 40, 40, 6, 0, 5, {'A', 'B', 0, E, E, E}}, {7, 40, 16, 6, 0, 2, {'A', 'B', E, E, E, E}},
      {7, 56, 24, 6, 0, 3, {0, E, E, E, E, E}},
      // Not whole bytes: 1016; past the record: 1020. The first buffer byte is cleared.
      {8, 4, 16, 6, kAlign, 0, {0, E, E, E, E, E}}, {8, 8, 12, 6, kAlign, 0, {0, E, E, E, E, E}},
      {8, 72, 16, 6, kU, 0, {0, E, E, E, E, E}},
      // No room: nothing written at all.
      {8, 8, 24, 0, 0, 0, {E, E, E, E, E, E}},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, c.first_bit, c.bits);
    Bytes out(6, E);
    uint32_t length = c.room;
    EXPECT_EQ(korvel::decode_data(record, image.data(), out.data(), &length), c.status)
        << where(c.code, c.first_bit, c.bits);
    EXPECT_EQ(length, c.length) << where(c.code, c.first_bit, c.bits);
    EXPECT_EQ(out, c.out) << where(c.code, c.first_bit, c.bits);
  }
}

TEST(DecodeTest, PhysicalValue) {
  struct Case {
    int code, bits;
    Bytes record;
    Bytes rule;  // empty: no conversion
    int16_t status;
    double value;
  };
  const Bytes lin = make_cc(MDF_CC_FRM_LIN, {1.0, 10.0});  // y = 10 x + 1
  const int16_t kRule = MDF_UNSUPPORTED_RULE;
  // clang-format off
  const Case cases[] = {
      {1, 8, {0xFE}, lin, 0, -19}, {0, 8, {0xFE}, lin, 0, 2541}, {10, 16, {0xFF, 0xFF}, lin, 0, -9},
      {13, 40, {0, 0, 0, 0, 1}, lin, 0, 10 * 0x1p32 + 1},
      {0, 64, Bytes(8, 0xFF), {}, 0, 0x1p64},                          // stays positive
      {14, 64, Bytes(8, 0xFF), {}, 0, -1}, {14, 64, {0, 0, 0, 0, 0, 0, 0, 0x80}, {}, 0, -0x1p63},
      {2, 32, {0, 0, 0xC0, 0x3F}, lin, 0, 16}, {12, 64, {0x40, 4, 0, 0, 0, 0, 0, 0}, {}, 0, 2.5},
      {4, 32, {0x80, 0x40, 0, 0}, lin, 0, 11},
      // Decoding failures give their status and 0.
      {5, 64, Bytes(8, 0x40), lin, kU, 0}, {7, 8, {0x41}, lin, kU, 0},
      {0, 72, Bytes(9, 1), lin, kU, 0},
      {1, 16, {1}, lin, kU, 0},
      // An unsupported rule passes the raw value through with 1021.
      {1, 8, {0xFE}, make_cc(3, {1, 10}), kRule, -2},
      {2, 32, {0, 0, 0xC0, 0x3F}, make_cc(133, {}), kRule, 1.5},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, 0, c.bits);
    Bytes rule = c.rule;
    double v = 12345.0;
    EXPECT_EQ(korvel::decode_phy(c.record, image.data(), rule.empty() ? nullptr : rule.data(), &v),
              c.status)
        << where(c.code, 0, c.bits);
    EXPECT_EQ(v, c.value) << where(c.code, 0, c.bits);
  }
}

bool is_integer_code(int code) {
  return code == 0 || code == 1 || code == 9 || code == 10 || code == 13 || code == 14;
}
bool is_ieee_code(int code) {
  return code == 2 || code == 3 || code == 11 || code == 12 || code == 15 || code == 16;
}

TEST(DecodeEncodeTest, StatusByCode) {
  // A 32-bit and a 40-bit field at bit 0 for every code, through all four raw coders.
  for (int code = 0; code <= 20; ++code) {
    Bytes w32 = make_cn(code, 0, 32);
    Bytes w40 = make_cn(code, 0, 40);
    Bytes record(8, 0x40);
    double d;
    uint64_t u;
    int16_t as_double = (is_integer_code(code) || is_ieee_code(code) || code == 4) ? 0 : kU;
    int16_t as_integer = is_integer_code(code) ? 0 : kU;
    EXPECT_EQ(korvel::decode_hex(record, w32.data(), &d), as_double) << code;
    EXPECT_EQ(korvel::decode_hex(record, w40.data(), &d), kU) << code;
    EXPECT_EQ(korvel::decode_hex_int(record, w32.data(), &u), as_integer) << code;
    EXPECT_EQ(korvel::decode_hex_int(record, w40.data(), &u), as_integer) << code;
    EXPECT_EQ(korvel::encode_hex(record, w32.data(), 1.0), as_double) << code;
    EXPECT_EQ(korvel::encode_hex(record, w40.data(), 1.0), kU) << code;
    EXPECT_EQ(korvel::encode_hex_int(record, w32.data(), 1), as_integer) << code;
    EXPECT_EQ(korvel::encode_hex_int(record, w40.data(), 1), as_integer) << code;
  }
}

// ---------------------------------------------------------------------------------------
// Encoding

TEST(EncodeTest, RoundingRules) {
  // Unsigned: low 32 bits of (x + 0.5) truncated to 64 bits; 0 out of range and for NaN.
  // clang-format off
  const std::pair<double, uint32_t> unsigned_cases[] = {
      {0, 0}, {0.49, 0}, {0.5, 1}, {2.5, 3}, {2.4999, 2}, {-0.5, 0}, {-1, 0}, {-1.5, 0xFFFFFFFF},
      {-2, 0xFFFFFFFF}, {4294967295.4, 0xFFFFFFFF}, {0x1p32 + 7, 7},
      {0x1p63 - 1024, 0xFFFFFC00}, {0x1p63, 0}, {-0x1p63, 0}, {1e300, 0}, {kNaN, 0}, {-kInf, 0},
  };
  // Signed: halves away from zero, truncated to 32 bits; out of range and NaN: 0x80000000.
  const std::pair<double, int32_t> signed_cases[] = {
      {0, 0}, {0.5, 1}, {-0.5, -1}, {-2.5, -3}, {2.5, 3}, {-2.4999, -2}, {-0.49, 0},
      {2147483646.6, 2147483647}, {2147483647.5, INT32_MIN}, {-2147483647.4, -2147483647},
      {-2147483647.6, INT32_MIN}, {-2147483648.6, INT32_MIN}, {1e10, INT32_MIN}, {-1e10, INT32_MIN},
      {kNaN, INT32_MIN}, {kInf, INT32_MIN},
  };
  // clang-format on
  for (auto [x, v] : unsigned_cases) EXPECT_EQ(korvel::round_unsigned(x), v) << x;
  for (auto [x, v] : signed_cases) EXPECT_EQ(korvel::round_signed(x), v) << x;
}

TEST(EncodeTest, RawFromDouble) {
  struct Case {
    int code, first_bit, bits;
    Bytes before;
    double value;
    int16_t status;
    Bytes after;
  };
  const Bytes n4(4, 9), n5(5, 9), n8(8, 9);
  // clang-format off
  const Case cases[] = {
      {0, 4, 4, {0x5A}, 3, 0, {0x3A}},     {13, 0, 8, {0}, 300, 0, {0x2C}},  // 300 cut to 8 bits
      {14, 0, 8, {0}, -2.5, 0, {0xFD}}, {1, 0, 8, {0}, 2.5, 0, {3}}, {1, 0, 8, {0}, -0.4, 0, {0}},
      {14, 4, 4, {0x55}, 7.6, 0, {0x85}}, {0, 0, 8, {0x77}, -2, 0, {0xFF}},
      {14, 0, 8, {0x55}, kNaN, 0, {0}},
      {9, 0, 16, {0, 0}, 0x1234, 0, {0x12, 0x34}},  {13, 0, 16, {0, 0}, 0x1234, 0, {0x34, 0x12}},
      {9, 4, 8, {0xAB, 0xCD}, 255, 0, {0xAF, 0xFD}},  // the word 0xABCD becomes 0xAFFD
      {10, 4, 12, {0x00, 0x0F}, -1, 0, {0xFF, 0xFF}}, {10, 4, 12, {0xFF, 0xFF}, 0, 0, {0x00, 0x0F}},
      {0, 0, 32, {1, 2, 3, 4}, 1e19, 0, {0, 0, 0, 0}},
      {1, 0, 32, {1, 2, 3, 4}, -3e9, 0, {0, 0, 0, 0x80}},
      {0, 0, 32, {1, 2, 3, 4}, 0x1p32 + 1, 0, {1, 0, 0, 0}},
      // Integer spans wider than 4 bytes: 1020, record unchanged.
      {13, 4, 32, n5, 1, kU, n5},          {9, 0, 40, n5, 1, kU, n5},
      // Floats by bit count; singles rounded to nearest, ties to even, overflow to infinity.
      {2, 0, 32, n4, 1.5, 0, {0, 0, 0xC0, 0x3F}}, {3, 0, 32, n4, 0.1, 0, {0xCD, 0xCC, 0xCC, 0x3D}},
      {15, 0, 32, n4, 1 + 0x1p-24, 0, {0, 0, 0x80, 0x3F}},
      {15, 0, 32, n4, 1 + 0x3p-24, 0, {2, 0, 0x80, 0x3F}},
      {2, 0, 32, n4, 1e300, 0, {0, 0, 0x80, 0x7F}}, {2, 0, 32, n4, -1e300, 0, {0, 0, 0x80, 0xFF}},
      {2, 0, 64, n8, 2.5, 0, {0, 0, 0, 0, 0, 0, 4, 0x40}},
      {12, 0, 64, n8, 2.5, 0, {0x40, 4, 0, 0, 0, 0, 0, 0}},
      {16, 8, 64, Bytes(10, 9), 2.5, 0, {9, 0, 0, 0, 0, 0, 0, 4, 0x40, 9}},
      {11, 0, 32, n4, 1.5, 0, {0x3F, 0xC0, 0, 0}},     {12, 0, 32, n4, 1.5, 0, {0x3F, 0xC0, 0, 0}},
      {11, 0, 16, {9, 9}, 1.5, kU, {9, 9}},            {2, 1, 32, n5, 1.5, kU, n5},
      // VAX F.
      {4, 0, 32, n4, 1, 0, {0x80, 0x40, 0, 0}},        {4, 8, 32, n5, 1, 0, {9, 0x80, 0x40, 0, 0}},
      {4, 4, 32, n5, 1, kU, n5},
      // Past the record data: nothing written.
      {0, 4, 8, {9}, 1, kU, {9}},                      {3, 0, 64, Bytes(7, 9), 1, kU, Bytes(7, 9)},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, c.first_bit, c.bits);
    Bytes record = c.before;
    EXPECT_EQ(korvel::encode_hex(record, image.data(), c.value), c.status)
        << where(c.code, c.first_bit, c.bits) << " value " << c.value;
    EXPECT_EQ(record, c.after) << where(c.code, c.first_bit, c.bits) << " value " << c.value;
  }
}

TEST(EncodeTest, RawFromInteger) {
  struct Case {
    int code, first_bit, bits;
    Bytes before;
    uint64_t value;
    int16_t status;
    Bytes after;
  };
  const Bytes z8(8, 0), n4(4, 9), n8(8, 9);
  const uint8_t F = 0xFF;
  // clang-format off
  const Case cases[] = {
      // 48 bits: six bytes written, the two after them kept.
      {13, 0, 48, Bytes(8, 0xEE), 0x112233445566, 0,
       {0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0xEE, 0xEE}},
      {0, 0, 8, {0}, 0x1234, 0, {0x34}},      {13, 4, 4, {0x0F}, 0xFFFFFFFFFFFFFFF5, 0, {0x5F}},
      {9, 0, 40, Bytes(5, 0), 0x0102030405, 0, {1, 2, 3, 4, 5}},
      {10, 0, 64, z8, 0xFFFFFFFFFFFFFFFE, 0, {F, F, F, F, F, F, F, 0xFE}},
      {14, 0, 64, z8, 0x8000000000000001, 0, {1, 0, 0, 0, 0, 0, 0, 0x80}},
      {0, 0, 64, z8, 0x0102030405060708, 0, {8, 7, 6, 5, 4, 3, 2, 1}},
      {1, 2, 12, {0x03, 0xC0}, ~0ull, 0, {F, F}}, {1, 2, 12, {F, F}, 0, 0, {0x03, 0xC0}},
      {9, 4, 8, {0xAB, 0xCD}, 0xFF, 0, {0xAF, 0xFD}},
      {10, 7, 57, z8, ~0ull, 0, {F, F, F, F, F, F, F, 0x80}},
      {0, 7, 57, z8, ~0ull, 0, {0x80, F, F, F, F, F, F, F}},
      // Non-integer codes, codes from 15 on, spans beyond 8 bytes, beyond the record.
      {2, 0, 32, n4, 1, kU, n4},   {7, 0, 8, {9}, 1, kU, {9}},  {8, 0, 8, {9}, 1, kU, {9}},
      {15, 0, 32, n4, 1, kU, n4}, {16, 0, 64, n8, 1, kU, n8},
      {0, 1, 64, Bytes(9, 9), 1, kU, Bytes(9, 9)},
      {0, 0, 48, Bytes(5, 9), 1, kU, Bytes(5, 9)},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, c.first_bit, c.bits);
    Bytes record = c.before;
    EXPECT_EQ(korvel::encode_hex_int(record, image.data(), c.value), c.status)
        << where(c.code, c.first_bit, c.bits);
    EXPECT_EQ(record, c.after) << where(c.code, c.first_bit, c.bits);
  }
}

TEST(EncodeTest, RawBytes) {
  struct Case {
    int code, first_bit, bits;
    uint32_t length;
    int16_t status;
    Bytes after;
  };
  const Bytes src = {'A', 0, 'C', 'D', 'E', 'F'};
  const Bytes n6(6, 9);
  // clang-format off
  const Case cases[] = {
      {8, 8, 24, 6, 0, {9, 'A', 0, 'C', 9, 9}},  {8, 8, 24, 2, 0, {9, 'A', 0, 9, 9, 9}},
      {7, 0, 32, 6, 0, {'A', 0, 'C', 'D', 9, 9}},  // strings too, as they stand
      {0, 16, 16, 6, 0, {9, 9, 'A', 0, 9, 9}},   {8, 8, 24, 0, 0, n6},
      {8, 4, 24, 6, kAlign, n6}, {8, 8, 20, 6, kAlign, n6}, {8, 32, 24, 6, kU, n6},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, c.first_bit, c.bits);
    Bytes record = n6;
    EXPECT_EQ(korvel::encode_data(record, image.data(), src.data(), c.length), c.status)
        << where(c.code, c.first_bit, c.bits);
    EXPECT_EQ(record, c.after) << where(c.code, c.first_bit, c.bits);
  }
}

TEST(EncodeTest, PhysicalValue) {
  struct Case {
    int code, bits;
    Bytes rule;  // empty: no conversion
    double value;
    int16_t status;
    Bytes after;  // two record bytes, 0x99 0x99 before
  };
  Bytes vtabr = make_cc(MDF_CC_FRM_VTABR, {});
  korvel::set_cc_extra(vtabr.data(), -10.0, 2.5);  // physical = 2.5 raw - 10
  Bytes formula = make_cc(MDF_CC_FRM_TXT, {0.0});
  std::memcpy(formula.data() + cc::kParams, "X*2", 3);
  const Bytes lin = make_cc(MDF_CC_FRM_LIN, {1, 2});  // physical = 2 raw + 1
  const Bytes keep = {0x99, 0x99};
  const int16_t kRule = MDF_UNSUPPORTED_RULE;
  // clang-format off
  const Case cases[] = {
      {0, 8, {}, 7.4, 0, {7, 0x99}}, {0, 8, lin, 7, 0, {3, 0x99}},
      {1, 16, lin, -7, 0, {0xFC, 0xFF}},
      {0, 8, make_cc(MDF_CC_FRM_LIN, {5, 0}), 7, 0, {0, 0x99}},       // P2 = 0: raw 0
      {0, 8, make_cc(MDF_CC_FRM_TAB, {0, 5, 10, 100}), 52.5, 0, {10, 0x99}},   // tie: later point
      {0, 8, make_cc(MDF_CC_FRM_ITAB, {0, 5, 10, 100}), 52.5, 0, {5, 0x99}},
      {0, 8, make_cc(MDF_CC_FRM_ITAB, {0, 5, 10, 100}), 101, 0, {0, 0x99}},    // not enclosed
      {0, 8, vtabr, 15, 0, {10, 0x99}}, {0, 8, make_cc(MDF_CC_FRM_NON, {}), 200, 0, {200, 0x99}},
      {7, 8, lin, 4, kU, keep},         {8, 16, lin, 4, kU, keep},
      // Text formulas and unsupported rules: 1021, nothing stored.
      {0, 8, formula, 8, kRule, keep},  {0, 8, make_cc(4, {1, 2}), 8, kRule, keep},
      {0, 8, make_cc(132, {1, 2}), 8, kRule, keep},
  };
  // clang-format on
  for (const Case& c : cases) {
    Bytes image = make_cn(c.code, 0, c.bits);
    Bytes record = keep;
    const uint8_t* rule = c.rule.empty() ? nullptr : c.rule.data();
    EXPECT_EQ(korvel::encode_phy(record, image.data(), rule, c.value), c.status)
        << where(c.code, 0, c.bits) << " value " << c.value;
    EXPECT_EQ(record, c.after) << where(c.code, 0, c.bits) << " value " << c.value;
  }
}

// ---------------------------------------------------------------------------------------
// Randomized round trips against a bit-by-bit reference

// Record byte and bit that hold bit `k` (counted from the field's lowest bit) of a field.
// Intel: the bits run upwards from bit `bit_offset` of the first byte. Motorola: the span's
// bytes are read last byte first, so bit w of that word lies in byte (span - 1 - w / 8).
std::pair<uint32_t, unsigned> bit_place(uint32_t byte_offset, unsigned bit_offset, unsigned bits,
                                        bool motorola, unsigned k) {
  unsigned w = bit_offset + k;
  uint32_t span = (bit_offset + bits + 7) / 8;
  return {motorola ? byte_offset + span - 1 - w / 8 : byte_offset + w / 8, w % 8};
}

bool get_bit(const Bytes& b, std::pair<uint32_t, unsigned> at) {
  return ((b[at.first] >> at.second) & 1) != 0;
}

// The low `bits` bits of v, sign-extended when asked, assembled bit by bit.
uint64_t cut(uint64_t v, unsigned bits, bool sign_extend) {
  uint64_t r = 0;
  for (unsigned i = 0; i < bits; ++i) r |= ((v >> i) & 1) << i;
  if (sign_extend && bits > 0 && ((v >> (bits - 1)) & 1)) {
    for (unsigned i = bits; i < 64; ++i) r |= uint64_t{1} << i;
  }
  return r;
}

// Checks that `after` holds the low `bits` bits of `expected` in the field and equals
// `before` everywhere else.
void expect_field(const Bytes& before, const Bytes& after, uint32_t byte_offset,
                  unsigned bit_offset, unsigned bits, bool motorola, uint64_t expected,
                  const std::string& what) {
  std::vector<std::vector<bool>> in_field(after.size(), std::vector<bool>(8, false));
  for (unsigned k = 0; k < bits; ++k) {
    auto at = bit_place(byte_offset, bit_offset, bits, motorola, k);
    ASSERT_LT(at.first, after.size()) << what;
    in_field[at.first][at.second] = true;
    ASSERT_EQ(get_bit(after, at), ((expected >> k) & 1) != 0) << what << " field bit " << k;
  }
  for (uint32_t i = 0; i < after.size(); ++i) {
    for (unsigned j = 0; j < 8; ++j) {
      if (!in_field[i][j]) {
        ASSERT_EQ(get_bit(after, {i, j}), get_bit(before, {i, j})) << what << " byte " << i;
      }
    }
  }
}

TEST(RoundTripTest, IntegerFieldsKeepTheirNeighbours) {
  std::mt19937_64 rng(20240611);
  const int codes[] = {0, 1, 9, 10, 13, 14};
  int checked_double = 0;
  for (int iteration = 0; iteration < 20000; ++iteration) {
    int code = codes[rng() % 6];
    bool motorola = code == 9 || code == 10;
    bool is_signed = code == 1 || code == 10 || code == 14;
    unsigned start = static_cast<unsigned>(rng() % 64);
    unsigned bit_offset = start % 8;
    uint32_t byte_offset = start / 8;
    unsigned bits = 1 + static_cast<unsigned>(rng() % (64 - bit_offset));
    uint32_t span = (bit_offset + bits + 7) / 8;
    Bytes before(byte_offset + span + rng() % 4);
    for (uint8_t& b : before) b = static_cast<uint8_t>(rng());
    Bytes image = make_cn(code, static_cast<int>(start), static_cast<int>(bits));
    std::string what = where(code, static_cast<int>(start), static_cast<int>(bits));

    // Integer encoder and decoder.
    uint64_t value = rng();
    Bytes record = before;
    ASSERT_EQ(korvel::encode_hex_int(record, image.data(), value), 0) << what;
    expect_field(before, record, byte_offset, bit_offset, bits, motorola, value, what);
    uint64_t back = 0;
    ASSERT_EQ(korvel::decode_hex_int(record, image.data(), &back), 0) << what;
    ASSERT_EQ(back, cut(value, bits, is_signed)) << what;

    // The double coders on spans of at most 4 bytes, with values in range.
    double d = 1;
    if (span > 4) {
      ASSERT_EQ(korvel::decode_hex(record, image.data(), &d), kU) << what;
      ASSERT_EQ(korvel::encode_hex(record, image.data(), 1.0), kU) << what;
      continue;
    }
    ++checked_double;
    uint64_t field = cut(rng(), bits, is_signed);
    double x =
        is_signed ? static_cast<double>(static_cast<int64_t>(field)) : static_cast<double>(field);
    // Fractions below one half round back to the same integer.
    double jitter = static_cast<double>(rng() % 1000) / 2001.0;
    record = before;
    ASSERT_EQ(korvel::encode_hex(record, image.data(), x + (x < 0 ? -jitter : jitter)), 0) << what;
    expect_field(before, record, byte_offset, bit_offset, bits, motorola, field, what);
    ASSERT_EQ(korvel::decode_hex(record, image.data(), &d), 0) << what;
    ASSERT_EQ(d, x) << what;
    ASSERT_EQ(korvel::decode_phy(record, image.data(), nullptr, &d), 0) << what;
    ASSERT_EQ(d, x) << what;
  }
  EXPECT_GT(checked_double, 5000);
}

TEST(RoundTripTest, FloatFieldsKeepTheirNeighbours) {
  std::mt19937_64 rng(77);
  const int codes[] = {2, 3, 11, 12, 15, 16, 4};
  for (int iteration = 0; iteration < 5000; ++iteration) {
    int code = codes[rng() % 7];
    unsigned bits = code == 4 || rng() % 2 == 0 ? 32 : 64;
    uint32_t byte_offset = static_cast<uint32_t>(rng() % 8);
    Bytes before(byte_offset + bits / 8 + rng() % 3);
    for (uint8_t& b : before) b = static_cast<uint8_t>(rng());
    Bytes image = make_cn(code, static_cast<int>(byte_offset * 8), static_cast<int>(bits));
    // Values of moderate size, so that VAX F holds them too.
    double x = std::ldexp(static_cast<double>(rng() % 2000000) - 1000000.0,
                          static_cast<int>(rng() % 60) - 30);
    Bytes record = before;
    std::string what = where(code, static_cast<int>(byte_offset * 8), static_cast<int>(bits));
    ASSERT_EQ(korvel::encode_hex(record, image.data(), x), 0) << what;
    for (uint32_t i = 0; i < record.size(); ++i) {
      if (i < byte_offset || i >= byte_offset + bits / 8) {
        ASSERT_EQ(record[i], before[i]) << what;
      }
    }
    double back = 0;
    ASSERT_EQ(korvel::decode_hex(record, image.data(), &back), 0) << what;
    ASSERT_EQ(back, bits == 32 ? static_cast<double>(static_cast<float>(x)) : x) << what;
  }
}

TEST(RoundTripTest, PhysicalThroughLinearRule) {
  std::mt19937_64 rng(5);
  Bytes rule = make_cc(MDF_CC_FRM_LIN, {-100.0, 0.5});  // physical = 0.5 raw - 100
  for (int iteration = 0; iteration < 2000; ++iteration) {
    int code = rng() % 2 == 0 ? 1 : 9;
    unsigned bits = 2 + static_cast<unsigned>(rng() % 15);
    Bytes image = make_cn(code, static_cast<int>(rng() % 8), static_cast<int>(bits));
    uint64_t field = cut(rng(), bits, code == 1);
    double raw =
        code == 1 ? static_cast<double>(static_cast<int64_t>(field)) : static_cast<double>(field);
    Bytes record(4, 0x5A);
    ASSERT_EQ(korvel::encode_phy(record, image.data(), rule.data(), 0.5 * raw - 100.0), 0);
    double back = 0;
    ASSERT_EQ(korvel::decode_phy(record, image.data(), rule.data(), &back), 0);
    ASSERT_EQ(back, 0.5 * raw - 100.0) << where(code, 0, static_cast<int>(bits)) << " " << raw;
  }
}

}  // namespace
