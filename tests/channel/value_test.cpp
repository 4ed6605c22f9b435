// Decoding and encoding of raw channel values on record bytes and CN images built here byte by
// byte: the layout rules, the edges of the decoders and encoders and the rounding rules (every
// layout and width in the body of the value range, byte copies and physical values are the
// channel API tests' subject).
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "channel/decode.h"
#include "channel/encode.h"
#include "korvel.h"
#include "storage/layout.h"

namespace {

namespace cn = korvel::layout::cn;
using Bytes = std::vector<uint8_t>;

constexpr int16_t kU = MDF_UNSUPPORTED_TYPE;
constexpr int16_t kAlign = MDF_NOT_BYTE_ALIGNED;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const uint8_t F = 0xFF;

// Little-endian numbers of `n` bytes.
void put(Bytes& b, uint32_t at, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// A CN image with the given position fields. `size` is the stored block size; the image is
// always 228 bytes long, so a field beyond a shorter block can hold a tempting value.
Bytes make_cn(int type, int first_bit, int bits, int size = 228, int extra = 0) {
  Bytes b(228, 0);
  b[0] = 'C';
  b[1] = 'N';
  for (auto [at, v] : {std::pair{2u, size},
                       {cn::kFirstBit, first_bit},
                       {cn::kBitCount, bits},
                       {cn::kDataType, type},
                       {cn::kByteOffset, extra}}) {
    put(b, at, static_cast<uint64_t>(v), 2);
  }
  return b;
}

std::string where(int code, int first_bit, int bits) {
  return "code " + std::to_string(code) + " start " + std::to_string(first_bit) + " bits " +
         std::to_string(bits);
}

// Runs `check` on every row, with the row's CN image and a trace naming its field.
template <typename Row, std::size_t N, typename Check>
void each(const Row (&rows)[N], Check check) {
  for (const Row& r : rows) {
    SCOPED_TRACE(where(r.code, r.first_bit, r.bits));
    check(r, make_cn(r.code, r.first_bit, r.bits).data());
  }
}

TEST(ValueLayoutTest, PositionsFromChannelBlock) {
  // clang-format off
  struct Case { int size, first_bit, bits, extra; unsigned bit_offset, byte_offset, byte_span; };
  const Case cases[] = {
      {228, 4, 4, 0, 4, 0, 1}, {228, 4, 8, 0, 4, 0, 2}, {228, 13, 3, 0, 5, 1, 1},
      {228, 7, 64, 0, 7, 0, 9}, {228, 0, 0, 0, 0, 0, 0}, {228, 3, 0, 0, 3, 0, 1},
      {300, 16, 8, 3, 0, 5, 1}, {228, 65535, 65535, 65535, 7, 8191 + 65535, 8193},
      // Below 228 bytes the additional byte offset is absent, whatever the bytes say.
      {227, 16, 8, 8192, 0, 2, 1},
  };
  // clang-format on
  for (const Case& c : cases) {
    const auto l = korvel::value_layout(make_cn(0, c.first_bit, c.bits, c.size, c.extra).data());
    EXPECT_EQ(std::tuple(l.complete, l.bit_count, l.bit_offset, l.byte_offset, l.byte_span),
              std::tuple(true, c.bits, c.bit_offset, c.byte_offset, c.byte_span))
        << where(0, c.first_bit, c.bits) << " size " << c.size;
  }
}

// ---------------------------------------------------------------------------------------
// Decoding

TEST(DecodeTest, RawAsDoubleAndAsInteger) {
  // clang-format off
  struct Case { int code, first_bit, bits; Bytes record; int16_t d_status; double d;
                int16_t i_status; uint64_t i; };
  const Case cases[] = {
      // Integer layouts are the every-data-type file's subject; here the sign and the edges.
      {1, 0, 1, {1}, 0, -1, 0, ~0ull}, {0, 0, 0, {F}, 0, 0, 0, 0},
      {10, 4, 12, {0x80, 0x0F}, 0, -2048, 0, 0xFFFFFFFFFFFFF800},
      // Integer spans beyond 4 bytes only as integers, up to 8 bytes.
      {13, 4, 32, {0xF0, F, F, F, 0x0F}, kU, 0, 0, 0xFFFFFFFF},
      {0, 1, 64, Bytes(9, F), kU, 0, kU, 0}, {13, 0, 65, Bytes(9, F), kU, 0, kU, 0},
      // Floats only as doubles, by bit count (1.5f = 0x3FC00000), whatever the code's width.
      {3, 0, 32, {0, 0, 0xC0, 0x3F}, 0, 1.5, kU, 0}, {2, 0, 16, {0, 0x3C}, kU, 0, kU, 0},
      {2, 4, 32, {0, 0, 0xC0, 0x3F, 0}, kU, 0, kU, 0},
      // VAX F 1.0 is the bytes 80 40 00 00; only 32 bits at bit offset 0.
      {4, 8, 32, {0x55, 0x80, 0x40, 0, 0}, 0, 1, kU, 0},
      {4, 4, 32, {0x80, 0x40, 0, 0, 0}, kU, 0, kU, 0}, {4, 0, 64, Bytes(8, 0x40), kU, 0, kU, 0},
      // Fields reaching past the record data are not read.
      {0, 4, 8, {F}, kU, 0, kU, 0}, {0, 16, 8, {F, F}, kU, 0, kU, 0},
      {3, 0, 64, Bytes(7, 0), kU, 0, kU, 0}, {0, 0, 40, {1, 2, 3, 4}, kU, 0, kU, 0},
  };
  // clang-format on
  each(cases, [](const Case& c, const uint8_t* cn) {
    double d = 12345.0;
    uint64_t i = 12345;
    const auto d_status = korvel::decode_hex(c.record, cn, &d);
    const auto i_status = korvel::decode_hex_int(c.record, cn, &i);
    EXPECT_EQ(std::tuple(d_status, d, i_status, i), std::tuple(c.d_status, c.d, c.i_status, c.i));
  });
}

// ---------------------------------------------------------------------------------------
// Encoding

TEST(EncodeTest, RoundingRules) {
  // Unsigned: low 32 bits of (x + 0.5) truncated to 64 bits; 0 out of range and for NaN.
  // clang-format off
  const std::pair<double, uint32_t> unsigned_cases[] = {
      {0.49, 0}, {0.5, 1}, {2.5, 3}, {-0.5, 0}, {-1.5, 0xFFFFFFFF}, {0x1p32 + 7, 7},
      {0x1p63 - 1024, 0xFFFFFC00}, {0x1p63, 0}, {-0x1p63, 0}, {kNaN, 0}, {-kInf, 0},
  };
  // Signed: halves away from zero, truncated to 32 bits; out of range and NaN: 0x80000000.
  const std::pair<double, int32_t> signed_cases[] = {
      {0.5, 1}, {-0.5, -1}, {-2.4999, -2}, {2147483646.6, 2147483647}, {2147483647.5, INT32_MIN},
      {-2147483647.4, -2147483647}, {-2147483647.6, INT32_MIN}, {kNaN, INT32_MIN},
  };
  // clang-format on
  for (auto [x, v] : unsigned_cases) EXPECT_EQ(korvel::round_unsigned(x), v) << x;
  for (auto [x, v] : signed_cases) EXPECT_EQ(korvel::round_signed(x), v) << x;
}

TEST(EncodeTest, RawFromDoubleAndFromInteger) {
  const Bytes n4(4, 9), n5(5, 9);
  // Through encode_hex when `from_double`, else through encode_hex_int with the value's bits.
  // clang-format off
  struct Case { int code, first_bit, bits; Bytes before; double value; int16_t status; Bytes after;
                bool from_double = true; };
  const Case cases[] = {
      {0, 4, 4, {0x5A}, 3, 0, {0x3A}}, {13, 0, 8, {0}, 300, 0, {0x2C}},  // 300 cut to 8 bits
      {14, 4, 4, {0x55}, 7.6, 0, {0x85}}, {1, 0, 32, {1, 2, 3, 4}, -3e9, 0, {0, 0, 0, 0x80}},
      // Integer spans wider than 4 bytes: 1020 from a double, record unchanged; from an
      // integer, up to 8 bytes.
      {13, 4, 32, n5, 1, kU, n5}, {0, 1, 64, Bytes(9, 9), 1, kU, Bytes(9, 9), false},
      {0, 0, 48, n5, 1, kU, n5, false}, {2, 0, 32, n4, 1, kU, n4, false},
      // Floats by bit count; singles rounded to nearest, ties to even, overflow to infinity.
      {3, 0, 32, n4, 0.1, 0, {0xCD, 0xCC, 0xCC, 0x3D}},
      {15, 0, 32, n4, 1 + 0x1p-24, 0, {0, 0, 0x80, 0x3F}},
      {15, 0, 32, n4, 1 + 0x3p-24, 0, {2, 0, 0x80, 0x3F}},
      {2, 0, 32, n4, -1e300, 0, {0, 0, 0x80, 0xFF}},
      {16, 8, 64, Bytes(10, 9), 2.5, 0, {9, 0, 0, 0, 0, 0, 0, 4, 0x40, 9}},
      {11, 0, 16, {9, 9}, 1.5, kU, {9, 9}}, {2, 1, 32, n5, 1.5, kU, n5},
      // VAX F.
      {4, 8, 32, n5, 1, 0, {9, 0x80, 0x40, 0, 0}}, {4, 4, 32, n5, 1, kU, n5},
      // Past the record data: nothing written.
      {0, 4, 8, {9}, 1, kU, {9}}, {3, 0, 64, Bytes(7, 9), 1, kU, Bytes(7, 9)},
  };
  // clang-format on
  each(cases, [](const Case& c, const uint8_t* cn) {
    Bytes record = c.before;
    const auto status = c.from_double
                            ? korvel::encode_hex(record, cn, c.value)
                            : korvel::encode_hex_int(
                                  record, cn, static_cast<uint64_t>(static_cast<int64_t>(c.value)));
    EXPECT_EQ(std::pair(status, record), std::pair(c.status, c.after)) << c.value;
  });
}

// Byte copies stay inside the record and the caller's buffer: a copy cut to the room given, a
// decoded string up to its first zero byte (encoded as it stands), and refusals of fields that
// are not whole bytes (1016) or lie past the record (1020). A refused decode clears the first
// buffer byte; nothing else is written, and a refused encode leaves the record as it was.
TEST(ByteCopyTest, StaysInsideRecordAndBuffer) {
  const uint8_t E = 0xEE;
  const Bytes record = {0x00, 0x11, 0x22, 0x33, 0x44, 'A', 'B', 0, 'C', 'D'};
  const Bytes src = {'A', 0, 'C', 'D', 'E', 'F'};
  // `out`: the 6-byte buffer after a decode of the record (prefilled with E); `encoded`: the
  // bytes an encode of `room` bytes of src puts at the field's first byte of a record of 9s.
  struct Case {
    int code, first_bit, bits;
    uint32_t room;
    int16_t status;
    uint32_t length;
    Bytes out, encoded;
  };
  const Case cases[] = {
      {8, 8, 24, 6, 0, 3, {0x11, 0x22, 0x33, E, E, E}, {'A', 0, 'C'}},
      {8, 8, 24, 2, 0, 2, {0x11, 0x22, E, E, E, E}, {'A', 0}},
      {7, 40, 40, 6, 0, 5, {'A', 'B', 0, E, E, E}, {'A', 0, 'C', 'D', 'E'}},
      {8, 8, 24, 0, 0, 0, Bytes(6, E), {}},
      {8, 4, 16, 6, kAlign, 0, {0, E, E, E, E, E}, {}},
      {8, 8, 20, 6, kAlign, 0, {0, E, E, E, E, E}, {}},
      {8, 72, 16, 6, kU, 0, {0, E, E, E, E, E}, {}},
  };
  each(cases, [&](const Case& c, const uint8_t* cn) {
    Bytes out(6, E);
    uint32_t length = c.room;
    const auto status = korvel::decode_data(record, cn, out.data(), &length);
    EXPECT_EQ(std::tuple(status, length, out), std::tuple(c.status, c.length, c.out));
    Bytes written(record.size(), 9);
    Bytes expected = written;
    std::copy(c.encoded.begin(), c.encoded.end(), expected.begin() + c.first_bit / 8);
    const auto encoded = korvel::encode_data(written, cn, src.data(), c.room);
    EXPECT_EQ(std::pair(encoded, written), std::pair(c.status, expected));
  });
}

}  // namespace
