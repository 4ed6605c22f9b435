// The channel functions through the C interface: opening, creating, duplicating, properties
// and values. Files are made with the test-side builder or through the library and checked
// with the test-side reader, which know the block layouts independently of the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;
using mdftest::ByteOrder;
using Ch = channelnode*;

constexpr int16_t kEnd = MDF_END_OF_GROUP, kNoChannel = MDF_CHANNEL_NOT_FOUND,
                  kUnsupported = MDF_UNSUPPORTED_TYPE, kTooShort = MDF_CN_TOO_SHORT;

using ChannelApi = mdftest::Session;
using mdftest::open_channel;

std::string name_of(Ch ch) {
  const char* name = nullptr;
  return mdfChnGetName(ch, &name) == 0 && name != nullptr ? name : "<error>";
}

// ---- Channels of every data type: places and values -----------------------------------------

enum class Kind { unsigned_int, signed_int, ieee, vax_f, text, bytes };

struct Column {
  std::string name;
  uint16_t type = 0, bits = 0;
  uint32_t first_bit = 0;  // where the packing rule puts it (worked out here, not asked)
  bool time = false;
  Kind kind() const {
    using enum Kind;
    static constexpr Kind kinds[] = {
        unsigned_int, signed_int, ieee, ieee, vax_f,        ieee,       ieee, text, bytes,
        unsigned_int, signed_int, ieee, ieee, unsigned_int, signed_int, ieee, ieee};
    return kinds[type];
  }
  bool integer() const { return kind() == Kind::unsigned_int || kind() == Kind::signed_int; }
  bool bytes_like() const { return kind() == Kind::text || kind() == Kind::bytes; }
  ByteOrder order() const {
    const bool motorola = type >= MDF_DT_UINT_BE && type <= MDF_DT_DOUBLE_BE;
    return motorola ? ByteOrder::motorola : ByteOrder::intel;
  }
  uint32_t span() const { return ((first_bit & 7u) + bits + 7u) / 8u; }
};

// The packing rule: each value goes behind all earlier ones; a field shares the last byte only
// if it fits whole into the rest of it.
void place(std::vector<Column>& columns) {
  uint32_t p = 0;
  for (auto& c : columns) {
    if ((p & 7u) != 0 && (p & 7u) + c.bits > 8) p = (p + 7u) & ~7u;
    c.first_bit = p;
    p += c.bits;
  }
}

uint32_t record_bytes(const std::vector<Column>& cs) {
  return (cs.back().first_bit + cs.back().bits + 7u) / 8u;
}

uint64_t mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// The value of column `col` in record `r` for a seed: the bits of an integer field (the
// extremes mixed in) and its raw value, the double handed to a float setter and what it reads
// back as, or the bytes of a text (holding a terminator in two records of three) or array.
struct Value {
  uint64_t field = 0, raw = 0;
  double given = 0, real = 0;
  std::vector<uint8_t> data;
};

Value value_of(const Column& c, size_t col, uint32_t r, uint64_t seed) {
  const uint64_t n = mix(seed ^ (static_cast<uint64_t>(col) << 40) ^ r);
  Value v;
  if (c.integer()) {
    const uint64_t sign = uint64_t{1} << (c.bits - 1), mask = sign | (sign - 1);
    const uint64_t pick = (r + col + seed) % 5;
    v.field = pick == 0 ? mask : pick == 1 ? 0 : pick == 2 ? sign : n & mask;
    const bool is_signed = c.kind() == Kind::signed_int;
    v.raw = is_signed ? (v.field ^ sign) - sign : v.field;  // sign-extended two's complement
    v.real =
        is_signed ? static_cast<double>(static_cast<int64_t>(v.raw)) : static_cast<double>(v.raw);
  } else if (!c.bytes_like()) {
    v.given = c.time ? static_cast<double>(r) * 0.001 + static_cast<double>(seed)
                     : static_cast<double>(static_cast<int32_t>(n)) / 3.0;
    v.real = c.bits == 32 ? static_cast<double>(static_cast<float>(v.given)) : v.given;
  } else {
    v.data.resize(c.bits / 8u);
    for (size_t i = 0; i < v.data.size(); ++i) {
      v.data[i] = c.kind() == Kind::text ? static_cast<uint8_t>('a' + (n >> (5 * (i % 12))) % 26)
                                         : static_cast<uint8_t>(n >> (8 * (i % 8)));
    }
    if (c.kind() == Kind::text && r % 3 != 0) v.data[(n >> 60) % v.data.size()] = 0;
  }
  return v;
}

// A VAX F number from the value of an IEEE single: the same fraction with the hidden bit
// written as 0.1f instead of 1.f (exponent bias 128 instead of 127, so +2), stored as two
// 16-bit words, the word with sign and exponent first, each word low byte first.
std::array<uint8_t, 4> vax_f_bytes(float f) {
  const uint32_t b = std::bit_cast<uint32_t>(f);
  if ((b & 0x7FFFFFFFu) == 0) return {0, 0, 0, 0};
  const uint32_t exponent = ((b >> 23) & 0xFF) + 2;
  const auto w0 = static_cast<uint16_t>(((b >> 31) << 15) | (exponent << 7) | ((b >> 16) & 0x7F));
  const auto w1 = static_cast<uint16_t>(b & 0xFFFF);
  return {static_cast<uint8_t>(w0), static_cast<uint8_t>(w0 >> 8), static_cast<uint8_t>(w1),
          static_cast<uint8_t>(w1 >> 8)};
}

// The bytes record r must hold: every bit that no column covers is zero.
std::vector<uint8_t> record_of(const std::vector<Column>& cs, uint32_t r, uint64_t seed) {
  std::vector<uint8_t> rec(record_bytes(cs));
  for (size_t col = 0; col < cs.size(); ++col) {
    const Column& c = cs[col];
    const Value v = value_of(c, col, r, seed);
    const size_t at = c.first_bit / 8;
    if (c.integer()) {
      mdftest::put_bits(rec, c.first_bit, c.bits, v.field, c.order());
    } else if (c.kind() == Kind::vax_f) {
      mdftest::put_raw(rec, at, vax_f_bytes(static_cast<float>(v.given)));
    } else if (c.kind() == Kind::ieee && c.bits == 32) {
      mdftest::put_f32(rec, at, static_cast<float>(v.given), c.order());
    } else if (c.kind() == Kind::ieee) {
      mdftest::put_f64(rec, at, v.given, c.order());
    } else {
      mdftest::put_raw(rec, at, v.data);
    }
  }
  return rec;
}

// Which function family carries a column's values: 0 HexInt, 1 Hex, 2 Phy. Integers take
// turns through all three (raw as double only up to four bytes), floats through Phy and Hex;
// the Get functions check each value through another family than Set and Read.
size_t family(const Column& c, size_t col, bool get) {
  if (!c.integer()) return get ? 1 + col % 2 : 2 - col % 2;
  if (c.span() > 4) return get ? 2 : 0;
  return (col + get) % 3;
}

// Stores a value through a Set function, or (write) the Write function of the same family.
int16_t put_value(Ch ch, const Column& c, size_t col, const Value& v, bool write) {
  const auto size = static_cast<uint32_t>(v.data.size());
  const double d = c.integer() ? v.real : v.given;
  if (c.bytes_like()) {
    return write ? mdfChnWriteData(ch, v.data.data(), size)
                 : mdfChnSetData(ch, v.data.data(), size);
  }
  const size_t f = family(c, col, false);
  if (f == 0) return write ? mdfChnWriteHexInt(ch, v.raw) : mdfChnSetHexInt(ch, v.raw);
  if (f == 1) return write ? mdfChnWriteHex(ch, d) : mdfChnSetHex(ch, d);
  return write ? mdfChnWritePhy(ch, d) : mdfChnSetPhy(ch, d);
}

// Counts mismatches and reports the first few, so that a broken coder does not print thousands
// of lines.
struct Mismatches {
  int count = 0;
  template <class A, class B>
  void check(bool ok, const Column& c, uint32_t r, const A& got, const B& want) {
    if (!ok && ++count <= 5) {
      ADD_FAILURE() << c.name << " record " << r << ": got " << ::testing::PrintToString(got)
                    << ", want " << ::testing::PrintToString(want);
    }
  }
};

// Checks one value through a Read function (read) or a Get function of the column's family.
void check_value(Mismatches& m, Ch ch, const Column& c, size_t col, uint32_t r, const Value& v,
                 bool read) {
  if (c.bytes_like()) {
    std::vector<uint8_t> buffer(v.data.size() + 3, 0xEE);
    auto length = static_cast<uint32_t>(buffer.size());
    const int16_t st = read ? mdfChnReadData(buffer.data(), &length, ch)
                            : mdfChnGetData(buffer.data(), &length, ch, 0);
    // A text copy stops after the first zero byte; the rest of the buffer stays as it was.
    std::vector<uint8_t> want = v.data;
    const auto zero = std::find(want.begin(), want.end(), 0);
    if (c.kind() == Kind::text && zero != want.end()) want.erase(zero + 1, want.end());
    want.resize(buffer.size(), 0xEE);
    m.check(st == 0 && length == v.data.size() && buffer == want, c, r, buffer, want);
    return;
  }
  double x = -1;
  uint64_t n = 1;
  const size_t f = family(c, col, !read);
  const int16_t st = f == 0   ? (read ? mdfChnReadHexInt(&n, ch) : mdfChnGetHexInt(&n, ch, 0))
                     : f == 1 ? (read ? mdfChnReadHex(&x, ch) : mdfChnGetHex(&x, ch, 0))
                              : (read ? mdfChnReadPhy(&x, ch) : mdfChnGetPhy(&x, ch, 0));
  const bool ok = st == 0 && (f == 0 ? n == v.raw : x == v.real);
  m.check(ok, c, r, std::make_tuple(f, st, n, x), std::make_pair(v.raw, v.real));
}

// The file through the test-side reader: one group, its channels at their places (past bit
// 65535 the start bit keeps the rest below 65536 and the additional byte offset whole steps of
// 8192 bytes), and `records` records holding exactly the expected bytes.
void check_file(const std::string& file, const std::vector<Column>& cs, uint32_t records,
                uint64_t seed) {
  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto& cg = *rf.channel_groups().at(0);
  EXPECT_EQ(std::tie(cg.record_count, cg.record_size, cg.cn_count),
            std::make_tuple(records, record_bytes(cs), cs.size()));
  ASSERT_EQ(cg.channels.size(), cs.size());
  for (size_t i = 0; i < cs.size(); ++i) {
    const auto& cn = cg.channels[i];
    EXPECT_EQ(std::tie(cn.name, cn.bit_count, cn.data_type, cn.channel_type, cn.block_size),
              std::make_tuple(cs[i].name, cs[i].bits, cs[i].type, uint16_t{cs[i].time}, 228));
    EXPECT_EQ(cn.first_bit + 8u * cn.additional_byte_offset, cs[i].first_bit) << cs[i].name;
    EXPECT_EQ(cn.additional_byte_offset % 8192, 0) << cs[i].name;
  }
  ASSERT_EQ(cg.records.size(), records);
  int wrong = 0;
  for (uint32_t r = 0; r < records; ++r) {
    const auto want = record_of(cs, r, seed);
    if (cg.records[r] != want && ++wrong <= 3) {
      ADD_FAILURE() << "record " << r << ": " << ::testing::PrintToString(cg.records[r])
                    << ", want " << ::testing::PrintToString(want);
    }
  }
  EXPECT_EQ(wrong, 0);
}

// Every value of every record: each channel with its own handle through a Read function from
// record 0 and one past the last (read), or row by row through mdfGrpSeek and a Get function.
void check_values(mdf_group* g, const std::vector<Column>& cs, uint32_t records, uint64_t seed,
                  bool read) {
  std::vector<Ch> hs;
  for (size_t i = 0; i < cs.size(); ++i) hs.push_back(open_channel(g, i + 1));
  Mismatches m;
  for (size_t col = 0; read && col < cs.size(); ++col) {
    ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
    for (uint32_t r = 0; r < records; ++r)
      check_value(m, hs[col], cs[col], col, r, value_of(cs[col], col, r, seed), true);
    double x = 0;
    EXPECT_EQ(mdfChnReadPhy(&x, hs[col]), kEnd) << cs[col].name;
  }
  for (uint32_t r = 0; !read && r < records; ++r) {
    ASSERT_EQ(r == 0 ? mdfGrpSeek(g, 0, MDF_SEEK_ABS) : mdfGrpSeek(g, 1, MDF_SEEK_REL), 0) << r;
    for (size_t col = 0; col < cs.size(); ++col)
      check_value(m, hs[col], cs[col], col, r, value_of(cs[col], col, r, seed), false);
  }
  EXPECT_EQ(read ? kEnd : mdfGrpSeek(g, 1, MDF_SEEK_REL), kEnd);  // no record after the last
  EXPECT_EQ(m.count, 0);
  for (auto* h : hs) EXPECT_EQ(mdfChnClose(h), 0);
}

TEST_F(ChannelApi, TenThousandRecordsOfEveryDataTypeWrittenReadAndRewritten) {
  // A time channel; integers of every code from 1 to 64 bits; floats of 32 and 64 bits in
  // every byte order; VAX F; texts and byte arrays.
  std::vector<Column> cs = {{"time", MDF_DT_DOUBLE, 64, 0, true}};
  const auto add = [&cs](uint16_t type, uint16_t bits) {
    cs.push_back({"t" + std::to_string(type) + "_" + std::to_string(bits), type, bits});
  };
  const uint16_t integers[] = {0, 1, 9, 10, 13, 14};
  const uint16_t widths[] = {1, 3, 8, 12, 16, 24, 31, 32, 33, 48, 63, 64};
  for (uint16_t type : integers) {
    for (uint16_t bits : widths) add(type, bits);
  }
  const uint16_t others[][2] = {{2, 32},  {11, 32}, {15, 32}, {4, 32}, {3, 64}, {12, 64},
                                {16, 64}, {7, 64},  {7, 24},  {8, 40}, {8, 8}};
  for (const auto& o : others) add(o[0], o[1]);
  place(cs);
  constexpr uint32_t kRecords = 10000;
  const std::string file = path("all_types.mdf");

  // Create: the time channel written with mdfChnWritePhy, every other value set after it.
  mdf_group* g = open(file, MDF_OPEN_CREATE);
  std::vector<Ch> hs(cs.size());
  for (size_t i = 0; i < cs.size(); ++i) {
    ASSERT_EQ(mdfChnCreate(&hs[i], g, cs[i].time ? MDF_CHN_TIME : MDF_CHN_DATA, cs[i].bits,
                           cs[i].type, cs[i].name.c_str()),
              0);
  }
  EXPECT_EQ(mdfGrpBuffer(nullptr, g), static_cast<int32_t>(record_bytes(cs)) + 24);
  Ch time = nullptr;
  ASSERT_EQ(mdfChnOpenTime(&time, g), 0);  // the created time channel is the group's
  EXPECT_EQ(name_of(time), "time");
  for (uint32_t r = 0; r < kRecords; ++r) {
    for (size_t col = 0; col < cs.size(); ++col) {
      ASSERT_EQ(put_value(hs[col], cs[col], col, value_of(cs[col], col, r, 1), col == 0), 0)
          << cs[col].name << " " << r;
    }
  }
  ASSERT_EQ(mdfFileClose(f_), 0);  // stores the last record, still in the buffer
  check_file(file, cs, kRecords, 1);

  // Read back through Read functions, then row by row through Get functions.
  g = open(file, MDF_OPEN_READ);
  check_values(g, cs, kRecords, 1, true);
  check_values(g, cs, kRecords, 1, false);
  ASSERT_EQ(mdfFileClose(f_), 0);

  // Rewrite in place: mode 1, Set every value of a record, mdfGrpWrite.
  g = open(file, MDF_OPEN_MODIFY);
  for (size_t i = 0; i < cs.size(); ++i) hs[i] = open_channel(g, i + 1);
  for (uint32_t r = 0; r < kRecords; ++r) {
    ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    for (size_t col = 0; col < cs.size(); ++col) {
      ASSERT_EQ(put_value(hs[col], cs[col], col, value_of(cs[col], col, r, 2), false), 0)
          << cs[col].name << " " << r;
    }
    ASSERT_EQ(mdfGrpWrite(g), 0) << r;
  }
  ASSERT_EQ(mdfFileClose(f_), 0);
  check_file(file, cs, kRecords, 2);
  check_values(open(file, MDF_OPEN_READ), cs, kRecords, 2, false);
  ASSERT_EQ(mdfFileClose(f_), 0);
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// ---- Creating channels ----------------------------------------------------------------------

TEST_F(ChannelApi, CreatedChannelsArePackedBehindEachOther) {
  // The (value type, bits) of each channel, where each one lands, the record size.
  using Channels = std::vector<std::pair<uint16_t, uint16_t>>;
  // clang-format off
  const std::tuple<Channels, std::vector<uint32_t>, int> cases[] = {
      {{{0, 1}, {0, 3}, {0, 6}}, {0, 1, 8}, 2},  // 6 bits do not fit into the 4 left of byte 0
      {{{0, 4}, {0, 4}, {0, 1}}, {0, 4, 8}, 2},      {{{0, 3}, {0, 5}, {0, 1}}, {0, 3, 8}, 2},
      {{{0, 7}, {0, 2}}, {0, 8}, 2},                 {{{0, 2}, {2, 32}, {0, 3}}, {0, 8, 40}, 6},
      {{{0, 1}, {7, 16}, {0, 8}}, {0, 8, 24}, 4},    {{{13, 12}, {0, 4}, {0, 4}}, {0, 12, 16}, 3},
      {{{10, 64}, {0, 1}, {9, 9}}, {0, 64, 72}, 11},
      {{{8, 8}, {14, 7}, {14, 1}, {14, 1}}, {0, 8, 15, 16}, 3},
      {{{8, 65528}, {0, 8}, {0, 8}, {0, 16}}, {0, 65528, 65536, 65544}, 8195},
  };
  // clang-format on
  for (size_t n = 0; n < std::size(cases); ++n) {
    SCOPED_TRACE(n);
    const auto& [channels, first_bits, record_size] = cases[n];
    const std::string file = path("pack" + std::to_string(n) + ".mdf");
    mdf_group* g = open(file, MDF_OPEN_CREATE);
    std::vector<Column> cs;
    std::vector<Ch> hs(channels.size());
    for (size_t i = 0; i < hs.size(); ++i) {
      cs.push_back({"v" + std::to_string(i), channels[i].first, channels[i].second, first_bits[i]});
      ASSERT_EQ(mdfChnCreate(&hs[i], g, 0, cs[i].bits, cs[i].type, cs[i].name.c_str()), 0);
      uint8_t bit = 0xFF;
      uint32_t byte = 0;
      ASSERT_EQ(mdfChnGetBitAndByteOffset(hs[i], &bit, &byte), 0);
      EXPECT_EQ(byte * 8 + bit, first_bits[i]) << i;
    }
    EXPECT_EQ(mdfGrpBuffer(nullptr, g), record_size + 24);
    // One record: the first value through a Write function, the others set after it.
    for (size_t i = 0; i < hs.size(); ++i)
      ASSERT_EQ(put_value(hs[i], cs[i], i, value_of(cs[i], i, 0, 3), i == 0), 0) << i;
    ASSERT_EQ(mdfFileClose(f_), 0);
    check_file(file, cs, 1, 3);
  }
}

TEST_F(ChannelApi, CreateNormalisesValueTypesByTheirBitCountOrRefusesThem) {
  constexpr int16_t kType = MDF_ERR_VALUE_TYPE, kBits = MDF_ERR_CHANNEL_BITS;
  // (value type, bits) given, (value type, bits) made, status. Value types: 0/1 integers, 2/3
  // float/double, 4..6 VAX F/G/D, 7 text, 8 bytes, 9..12 the same Motorola, 13..16 Intel.
  // clang-format off
  const std::tuple<uint16_t, uint16_t, uint16_t, uint16_t, int16_t> cases[] = {
      {2, 64, 3, 64, 0},   {15, 64, 16, 64, 0}, {11, 64, 12, 64, 0}, {3, 32, 2, 32, 0},
      {16, 32, 15, 32, 0}, {12, 32, 11, 32, 0}, {15, 16, 15, 32, 0}, {2, 8, 2, 32, 0},
      {3, 8, 3, 64, 0},    {12, 0, 12, 64, 0},  {4, 64, 4, 32, 0},   {4, 1, 4, 32, 0},
      {0, 64, 0, 64, 0},   {10, 1, 10, 1, 0},   {7, 16, 7, 16, 0},   {8, 8, 8, 8, 0},
      {5, 64, 0, 0, kType}, {6, 64, 0, 0, kType}, {17, 8, 0, 0, kType}, {0xFFFF, 8, 0, 0, kType},
      {7, 12, 0, 0, kBits}, {7, 0, 0, 0, kBits},  {8, 7, 0, 0, kBits},  {0, 0, 0, 0, kBits},
      {1, 65, 0, 0, kBits}, {13, 100, 0, 0, kBits}, {10, 0, 0, 0, kBits},
  };
  // clang-format on
  int n = 0;
  for (const auto& [given_type, given_bits, want_type, want_bits, status] : cases) {
    SCOPED_TRACE(std::to_string(given_type) + "/" + std::to_string(given_bits));
    restart();
    mdf_group* g = open(path("create" + std::to_string(n++) + ".mdf"), MDF_OPEN_CREATE);
    auto* ch = reinterpret_cast<Ch>(&n);  // must be replaced
    ASSERT_EQ(mdfChnCreate(&ch, g, 0, given_bits, given_type, "x"), status);
    EXPECT_EQ(mdfGetErrorCode(), status);
    uint16_t type = 0, bits = 0;
    if (status == 0) mdfChnGetInfo(ch, nullptr, &bits, &type, nullptr, nullptr, nullptr);
    EXPECT_EQ(std::make_tuple(ch == nullptr, type, bits),
              std::make_tuple(status != 0, want_type, want_bits));
  }
  // A record may end at byte 65524; a channel that would end behind it is refused.
  restart();
  mdf_group* g = open(path("wide.mdf"), MDF_OPEN_CREATE);
  Ch ch = nullptr;
  for (int i = 0; i < 7; ++i) ASSERT_EQ(mdfChnCreate(&ch, g, 0, 65528, MDF_DT_BYTES, "b"), 0);
  ASSERT_EQ(mdfChnCreate(&ch, g, 0, 65504, MDF_DT_BYTES, "fits"), 0);
  EXPECT_EQ(mdfGrpBuffer(nullptr, g), 65525 + 24);
  EXPECT_EQ(mdfChnCreate(&ch, g, 0, 1, MDF_DT_UINT, "one_bit_more"), kBits);
  EXPECT_EQ(std::make_pair(ch, mdfGetErrorCode()), std::make_pair(Ch{nullptr}, kBits));
}

// ---- Opening channels -----------------------------------------------------------------------

const std::string kName32 = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";  // fills the name field

// Group 1: "Engine" (the time channel), speed, Speed, engine, kName32. Groups 2 and 3 share a
// data group with record ids: [a] without a time channel, and [t3 (time), SPEED, d].
mdftest::FileModel named_channels() {
  mdftest::FileModel f;
  auto& cg1 = f.add_data_group().add_channel_group(8);
  cg1.add_channel("Engine", 0, 32, MDF_DT_FLOAT, MDF_CHN_TIME);
  cg1.add_channel("speed", 32, 8, MDF_DT_UINT);
  cg1.add_channel("Speed", 40, 8, MDF_DT_UINT);
  cg1.add_channel("engine", 48, 8, MDF_DT_UINT);
  cg1.add_channel(kName32, 56, 8, MDF_DT_UINT);
  cg1.add_record();
  auto& dg = f.add_data_group(1);
  auto& cg2 = dg.add_channel_group(1, 1);
  cg2.add_channel("a", 0, 8, MDF_DT_UINT);
  cg2.add_record();
  auto& cg3 = dg.add_channel_group(3, 2);
  cg3.add_channel("t3", 0, 8, MDF_DT_UINT, MDF_CHN_TIME);
  cg3.add_channel("SPEED", 8, 8, MDF_DT_UINT);
  cg3.add_channel("d", 16, 8, MDF_DT_UINT);
  cg3.add_record();
  return f;
}

TEST_F(ChannelApi, OpenersFindChannelsByIndexNameTypeOrTimeAndReportMisses) {
  mdf_group* g[3] = {open(write(named_channels()), MDF_OPEN_READ), nullptr, nullptr};
  for (uint16_t i = 1; i < 3; ++i) ASSERT_EQ(mdfGrpOpen(&g[i], f_, i + 1, MDF_OPEN_READ), 0);
  enum Op { by_index, by_name, by_type, by_time, file_index, file_name };
  const int16_t k3 = MDF_CHN_NAME_NOT_FOUND, k4 = MDF_CHN_NOT_FOUND, k1008 = MDF_TIME_CHN_NOT_FOUND;
  // Opener, group (1..3; 0 for the file-level openers), index or type, name, status, the name
  // of the channel found, the channel count of the group a file-level opener opens.
  // clang-format off
  const std::tuple<Op, int, uint16_t, std::string, int16_t, std::string, uint16_t> cases[] = {
      // By index, the time channel counted: in order (each open follows the link of the one
      // before), back, across groups, and out of range.
      {by_index, 1, 1, "", 0, "Engine", 0},    {by_index, 1, 2, "", 0, "speed", 0},
      {by_index, 1, 3, "", 0, "Speed", 0},     {by_index, 1, 4, "", 0, "engine", 0},
      {by_index, 1, 5, "", 0, kName32, 0},     {by_index, 1, 6, "", kNoChannel, "", 0},
      {by_index, 2, 1, "", 0, "a", 0},         {by_index, 1, 2, "", 0, "speed", 0},
      {by_index, 3, 2, "", 0, "SPEED", 0},     {by_index, 1, 0, "", kNoChannel, "", 0},
      {by_index, 1, 0xFFFF, "", kNoChannel, "", 0},
      // By name: exact first, then ignoring case, at most 32 characters; never a time channel.
      {by_name, 1, 0, "Speed", 0, "Speed", 0}, {by_name, 1, 0, "SPEED", 0, "speed", 0},
      {by_name, 1, 0, "Engine", 0, "engine", 0},
      {by_name, 1, 0, "abcdefghijklmnopqrstuvwxyz012345", 0, kName32, 0},
      {by_name, 1, 0, kName32 + "_and_more", 0, kName32, 0},
      {by_name, 1, 0, "spee", k3, "", 0},      {by_name, 1, 0, "speedy", k3, "", 0},
      {by_name, 3, 0, "t3", k3, "", 0},
      {by_type, 1, 0, "", 0, "speed", 0},      {by_type, 1, 1, "", 0, "Engine", 0},
      {by_type, 1, 7, "", kNoChannel, "", 0},  {by_time, 3, 0, "", 0, "t3", 0},
      {by_time, 2, 0, "", k1008, "", 0},
      // The file-level openers count channels over all groups and search group by group: a
      // match ignoring case in an earlier group wins over an exact one in a later group.
      {file_index, 0, 5, "", 0, kName32, 5},   {file_index, 0, 7, "", 0, "t3", 3},
      {file_index, 0, 10, "", k4, "", 0},      {file_index, 0, 0, "", k4, "", 0},
      {file_name, 0, 0, "SPEED", 0, "speed", 5}, {file_name, 0, 0, "d", 0, "d", 3},
      {file_name, 0, 0, "t3", k4, "", 0},      {file_name, 0, 0, "", k4, "", 0},
  };
  // clang-format on
  for (const auto& [op, group, n, name, status, found, group_channels] : cases) {
    SCOPED_TRACE(::testing::Message() << op << " " << group << " " << n << " " << name);
    auto* ch = reinterpret_cast<Ch>(g[0]);  // must be replaced
    mdf_group* grp = g[0];
    mdf_group* in = group > 0 ? g[group - 1] : nullptr;
    const int16_t st = op == by_index  ? mdfChnOpen(&ch, in, n)
                       : op == by_name ? mdfChnOpenName(&ch, in, name.c_str())
                       : op == by_type ? mdfChnOpenType(&ch, in, n)
                       : op == by_time ? mdfChnOpenTime(&ch, in)
                       : op == file_index
                           ? mdfGrpChnOpen(&ch, &grp, f_, n, MDF_OPEN_READ)
                           : mdfGrpChnOpenName(&ch, &grp, f_, name.c_str(), MDF_OPEN_READ);
    // A miss leaves no handles; a hit is closed (a group closes its channel too).
    const bool cleared = ch == nullptr && (group > 0 || grp == nullptr);
    const std::string got = st == 0 ? name_of(ch) : "";
    uint16_t channels = 0;
    if (st == 0 && group == 0) mdfGrpChannels(&channels, grp);
    const int16_t closed = st != 0 ? 0 : group > 0 ? mdfChnClose(ch) : mdfGrpClose(grp);
    EXPECT_EQ(std::make_tuple(st, st == 0 || cleared, got, channels, closed),
              std::make_tuple(status, true, found, group_channels, 0));
  }
  EXPECT_EQ(mdfGetErrorCode(), 0) << "positive statuses are not sticky";
}

// ---- Long and display names -----------------------------------------------------------------

TEST_F(ChannelApi, LongAndDisplayNamesByBlockSizeLinkAndCommentMarker) {
  const std::string markers = "$Longname: FromComment\n$Displayname: DisplayFromComment";
  const std::string long_word(1000, 'L'), display_word(300, 'D');
  struct Case {
    uint16_t size;
    std::string comment, long_link, display_link, long_name, display_name;
  };
  // clang-format off
  const std::vector<Case> cases = {
      // Blocks of 218, 222 and 228 bytes, for the setters below.
      {218, "", "", "", "", ""},
      {222, markers, "LongFromLink", "", "LongFromLink", "DisplayFromComment"},
      {228, markers, "Long228", "Display228", "Long228", "Display228"},
      // A link field, where the block has one, is used even when it is 0.
      {222, markers, "", "", "", "DisplayFromComment"}, {228, markers, "", "", "", ""},
      // Below 222 bytes: the markers in the comment, each only as the first '$' of its line;
      // the value is the first word after it.
      {218, markers, "", "", "FromComment", "DisplayFromComment"},
      {218, "$ no marker here\n$Longname: Engine_Speed rpm", "", "", "Engine_Speed", ""},
      {218, "$Longname: A", "", "", "A", ""},     {218, "$x $Longname: A", "", "", "", ""},
      {218, "text before $Longname: A", "", "", "A", ""},
      {218, "$x\n$y $Longname: A\n$Longname: B", "", "", "B", ""},
      {218, "$Longname:A", "", "", "", ""},       {218, "$Longname: ", "", "", "", ""},
      {218, "$Longname:   \t Word\nnext", "", "", "Word", ""},
      {218, "$Longname: \nOnNextLine", "", "", "OnNextLine", ""},
      {218, "$Displayname: D\r\n$Longname: L", "", "", "L", "D"},
      {218, "$Displayname:D", "", "", "", "D"},   {218, "$DisplaynamX: D", "", "", "", ""},
      {218, "$Displaynam", "", "", "", ""},       {218, "no dollar at all", "", "", "", ""},
      {218, "$Longname: " + long_word, "", "", long_word, ""},
      {218, "$Displayname: " + display_word, "", "", "", display_word.substr(0, 255)},
  };
  // clang-format on
  // Every short name fills its 32-character field, so it has no terminator in the block.
  const auto short_name = [](size_t i) {
    return ("n" + std::to_string(i) + std::string(32, '_')).substr(0, 32);
  };
  mdftest::FileModel model;
  auto& cg = model.add_data_group().add_channel_group(1);
  for (size_t i = 0; i < cases.size(); ++i) {
    auto& cn = cg.add_channel(short_name(i), 0, 8, MDF_DT_UINT);
    cn.block_size = cases[i].size;
    if (!cases[i].comment.empty()) cn.comment = cases[i].comment;
    if (!cases[i].long_link.empty()) cn.long_name = cases[i].long_link;
    if (!cases[i].display_link.empty()) cn.display_name = cases[i].display_link;
  }
  mdf_group* g = open(write(model), MDF_OPEN_READ);
  // The byte offset and the names; without a long name the short name stands in, terminated
  // after its 32 characters.
  const auto expect_names = [&](size_t i, uint16_t offset, const std::string& long_name,
                                const std::string& display_name) {
    Ch ch = open_channel(g, i + 1);
    uint16_t got_offset = 99;
    const char *got_long = "", *got_display = "", *long_or_short = "";
    const int16_t st = mdfChnGetInfoExt(ch, &got_offset, &got_long, &got_display);
    const std::string got_names = std::string(got_long) + "|" + got_display;
    const int16_t st_long = mdfChnGetLongName(ch, &long_or_short);
    EXPECT_EQ(std::make_tuple(st, got_offset, got_names, st_long, std::string(long_or_short)),
              std::make_tuple(0, offset, long_name + "|" + display_name, 0,
                              long_name.empty() ? short_name(i) : long_name))
        << i;
  };
  for (size_t i = 0; i < cases.size(); ++i)
    expect_names(i, 0, cases[i].long_name, cases[i].display_name);

  // Setters on the blocks of 218, 222 and 228 bytes: 1013 (returned) where a block has no field
  // for the value, and nothing changes then; byte offset 0 leaves the stored one.
  const std::pair<std::function<int16_t(Ch)>, std::array<int16_t, 3>> sets[] = {
      {[](Ch c) { return mdfChnSetLongName(c, "LN"); }, {kTooShort, 0, 0}},
      {[](Ch c) { return mdfChnSetDisplayName(c, "DN"); }, {kTooShort, kTooShort, 0}},
      {[](Ch c) { return mdfChnSetInfoExt(c, 3, nullptr, nullptr); }, {kTooShort, kTooShort, 0}},
      {[](Ch c) { return mdfChnSetInfoExt(c, 0, nullptr, nullptr); }, {0, 0, 0}},
  };
  for (size_t i = 0; i < 3; ++i) {
    Ch ch = open_channel(g, i + 1);
    for (const auto& [set, status] : sets) EXPECT_EQ(set(ch), status[i]) << i;
  }
  EXPECT_EQ(mdfGetErrorCode(), 0) << "1013 is returned, not raised";
  expect_names(0, 0, "", "");
  expect_names(1, 0, "LN", "DisplayFromComment");
  expect_names(2, 3, "LN", "DN");
  ASSERT_EQ(mdfChnSetInfoExt(open_channel(g, 3), 0, "", nullptr), 0);  // "" unlinks the text
  expect_names(2, 3, "", "DN");
}

// ---- Values ---------------------------------------------------------------------------------

// Ten records: u16 at byte 0 = 257 * r, a 40-bit unsigned at byte 2 = 2^33 + r, a 4-bit field
// at bit 60 = r, a text formula channel "X*2" = r and a linear one (2 * raw + 0.5) = -r.
mdftest::FileModel ten_records() {
  mdftest::FileModel f;
  auto& cg = f.add_data_group().add_channel_group(10);
  cg.add_channel("u16", 0, 16, MDF_DT_UINT);
  cg.add_channel("u40", 16, 40, MDF_DT_UINT_LE);
  cg.add_channel("nibble", 60, 4, MDF_DT_UINT);
  cg.add_channel("formula", 64, 8, MDF_DT_UINT).conversion = mdftest::formula("X*2");
  cg.add_channel("linear", 72, 8, MDF_DT_INT).conversion = mdftest::linear(0.5, 2.0, "A");
  for (uint32_t r = 0; r < 10; ++r) {
    auto& rec = cg.add_record();
    mdftest::put_bits(rec, 0, 16, 257 * r);
    mdftest::put_bits(rec, 16, 40, (uint64_t{1} << 33) + r);
    mdftest::put_bits(rec, 60, 4, r);
    mdftest::put_bits(rec, 64, 8, r);
    mdftest::put_bits(rec, 72, 8, static_cast<uint8_t>(-static_cast<int>(r)));
  }
  return f;
}

TEST_F(ChannelApi, GetWithAnOffsetReadsThatRecordAndMovesTheCursorBack) {
  mdf_group* g = open(write(ten_records()), MDF_OPEN_READ);
  enum Getter { phy, hex, hex_int, data };
  // Channel, getter, cursor, offset; status, value, cursor afterwards.
  // clang-format off
  const std::tuple<size_t, Getter, int32_t, int16_t, int16_t, double, uint32_t> cases[] = {
      {1, phy, 2, 0, 0, 514, 2},    {1, phy, 2, 3, 0, 1285, 2},   {1, phy, 2, -2, 0, 0, 2},
      {1, phy, 9, -9, 0, 0, 9},     {1, phy, 0, 9, 0, 2313, 0},   {1, data, 3, -1, 0, 514, 3},
      {2, hex_int, 3, 2, 0, 0x1p33 + 5, 3},
      // Outside the records: 1, the cursor unmoved.
      {1, phy, 5, 5, kEnd, 0, 5},   {1, phy, 2, -3, kEnd, 0, 2},
      {1, phy, 0, 32767, kEnd, 0, 0}, {1, phy, 7, -32768, kEnd, 0, 7},
      // A value that cannot be decoded leaves the cursor at the record it was read from.
      {2, hex, 1, 2, kUnsupported, 0, 3},
      // The value's own status: the bits are not byte aligned.
      {3, data, 4, 0, MDF_NOT_BYTE_ALIGNED, 0, 4},
  };
  // clang-format on
  for (const auto& [channel, get, cursor, offset, status, value, cursor_after] : cases) {
    SCOPED_TRACE(::testing::Message() << channel << " at " << cursor << " " << offset);
    ASSERT_EQ(mdfGrpSeek(g, cursor, MDF_SEEK_ABS), 0);
    Ch ch = open_channel(g, channel);
    double v = -1;
    uint64_t n = 1;
    uint8_t bytes[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    uint32_t length = sizeof bytes;
    const int16_t st = get == phy       ? mdfChnGetPhy(&v, ch, offset)
                       : get == hex     ? mdfChnGetHex(&v, ch, offset)
                       : get == hex_int ? mdfChnGetHexInt(&n, ch, offset)
                                        : mdfChnGetData(bytes, &length, ch, offset);
    if (get == hex_int) v = static_cast<double>(n);
    // Bytes: the value of those copied, and a refused copy zeroes the first byte.
    if (get == data) v = length == 2 ? bytes[0] + 256.0 * bytes[1] : length + 1000.0 * bytes[0];
    uint32_t tell = 99;
    ASSERT_EQ(mdfGrpTell(&tell, g), 0);
    EXPECT_EQ(std::make_tuple(st, v, tell), std::make_tuple(status, value, cursor_after));
  }
  // The setters refuse the same way: no bytes for a 4-bit field, no inverse of a text formula.
  const uint8_t byte = 7;
  EXPECT_EQ(mdfChnSetData(open_channel(g, 3), &byte, 1), MDF_NOT_BYTE_ALIGNED);
  EXPECT_EQ(mdfChnSetPhy(open_channel(g, 4), 10.0), MDF_UNSUPPORTED_RULE);
  EXPECT_EQ(mdfGetErrorCode(), 0) << "1016, 1020 and 1021 are returned, not raised";
}

// The coding prepared for a handle follows the setters: a new rule through this handle, a new
// byte offset through another handle on the same CN block (both see the one block image).
TEST_F(ChannelApi, PreparedCodingFollowsRuleAndOffsetSetters) {
  mdf_group* g = open(write(ten_records()), MDF_OPEN_MODIFY);
  Ch a = open_channel(g, 1), b = open_channel(g, 1);
  ASSERT_EQ(mdfGrpSeek(g, 3, MDF_SEEK_ABS), 0);
  // Setter, then the values read through a and b (record 3: u16 771; bytes 2..3 hold 3).
  const std::tuple<std::function<int16_t()>, double, double> steps[] = {
      {[] { return int16_t{0}; }, 771, 771},
      {[&] { return mdfChnSetFormLin(a, "u", 1.0, 2.0); }, 1543, 771},
      {[&] { return mdfChnSetInfoExt(b, 2, nullptr, nullptr); }, 7, 3},
      {[&] { return mdfChnSetFormLin(a, "u", 0.0, -1.0); }, -3, 3},
  };
  for (const auto& [set, via_a, via_b] : steps) {
    ASSERT_EQ(set(), 0);
    double va = 0, vb = 0;
    EXPECT_EQ(mdfChnGetPhy(&va, a, 0), 0);
    EXPECT_EQ(mdfChnGetPhy(&vb, b, 0), 0);
    EXPECT_EQ(std::make_pair(va, vb), std::make_pair(via_a, via_b));
  }
}

TEST_F(ChannelApi, ReadAndWriteStepsMoveOnFromTheSecondCall) {
  auto model = ten_records();
  const auto file = write(model);
  mdf_group* g = open(file, MDF_OPEN_MODIFY);
  Ch writer = open_channel(g, 1), reader = open_channel(g, 2), linear = open_channel(g, 5);
  ASSERT_EQ(mdfGrpSeek(g, 2, MDF_SEEK_ABS), 0);
  // The first Write fills record 2 (a Set beside it). Two Reads on a new handle read records 2
  // and 3; the one that moves on stores record 2 first.
  ASSERT_EQ(mdfChnWriteHexInt(writer, 1000), 0);
  ASSERT_EQ(mdfChnSetPhy(linear, 20.5), 0);  // raw 10 by the inverse of the linear rule
  uint64_t n2 = 0, n3 = 0;
  ASSERT_EQ(mdfChnReadHexInt(&n2, reader), 0);
  ASSERT_EQ(mdfChnReadHexInt(&n3, reader), 0);
  EXPECT_EQ(std::make_pair(n2, n3),
            std::make_pair((uint64_t{1} << 33) + 2, (uint64_t{1} << 33) + 3));
  // Each later Write stores the current record and moves on: record 3 stays, 4 and 5 are
  // filled; closing the handle stores record 5.
  ASSERT_EQ(mdfChnWriteHexInt(writer, 2000), 0);
  ASSERT_EQ(mdfChnWriteHexInt(writer, 3000), 0);
  ASSERT_EQ(mdfChnClose(writer), 0);
  ASSERT_EQ(mdfFileClose(f_), 0);
  auto want = model.data_groups[0].channel_groups[0].records;
  for (const auto& [r, v] : {std::pair<size_t, uint64_t>{2, 1000}, {4, 2000}, {5, 3000}})
    mdftest::put_bits(want[r], 0, 16, v);
  mdftest::put_bits(want[2], 72, 8, 10);
  EXPECT_EQ(mdftest::read_file(file).channel_groups().at(0)->records, want);

  // A created handle moves on at its first Read.
  g = open(path("created.mdf"), MDF_OPEN_CREATE);
  Ch created = nullptr;
  ASSERT_EQ(mdfChnCreate(&created, g, 0, 16, MDF_DT_UINT, "v"), 0);
  for (uint64_t v : {10u, 11u, 12u}) {
    ASSERT_EQ(mdfChnSetHexInt(created, v), 0);
    ASSERT_EQ(mdfGrpWriteAppend(g), 0);
  }
  ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
  ASSERT_EQ(mdfChnReadHexInt(&n2, created), 0);
  EXPECT_EQ(n2, 11u);
}

TEST_F(ChannelApi, StepsGoOnPast65535Calls) {
  // More records than a 16-bit step counter counts: every Write after the first appends,
  // every Read after the first moves on.
  constexpr uint32_t kRecords = 70000;
  const std::string file = path("long.mdf");
  Ch ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, open(file, MDF_OPEN_CREATE), 0, 32, MDF_DT_UINT, "n"), 0);
  for (uint32_t r = 0; r < kRecords; ++r) ASSERT_EQ(mdfChnWriteHexInt(ch, r * 7u), 0) << r;
  ASSERT_EQ(mdfFileClose(f_), 0);
  mdf_group* g = open(file, MDF_OPEN_READ);
  uint32_t records = 0;
  ASSERT_EQ(mdfGrpRecords(&records, g), 0);
  EXPECT_EQ(records, kRecords);
  ch = open_channel(g, 1);
  uint64_t v = 0;
  int wrong = 0;
  for (uint32_t r = 0; r < kRecords; ++r) wrong += mdfChnReadHexInt(&v, ch) != 0 || v != r * 7u;
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(mdfChnReadHexInt(&v, ch), kEnd);
}

TEST_F(ChannelApi, CreatingInAModifiedGroupIsRefusedAndLeavesTheFile) {
  const auto file = write(ten_records());
  const auto before = mdftest::load_file(file);
  // Through a group open for modifying, and through one open for reading in the same file
  // (whose channel group a modifying handle would write back).
  for (uint16_t mode : {uint16_t{MDF_OPEN_MODIFY}, uint16_t{MDF_OPEN_READ}}) {
    Ch ch = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfFileOpen(&f_, file.c_str(), MDF_OPEN_MODIFY), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f_, 1, mode), 0);
    EXPECT_EQ(mdfChnCreate(&ch, g, 0, 32, MDF_DT_UINT, "extra"), MDF_ERR_OPEN_MODE);
    EXPECT_EQ(ch, nullptr);
    mdfClose();
    mdfOpen(nullptr);
  }
  EXPECT_EQ(mdftest::load_file(file), before) << "the sticky error keeps the closes from writing";
}

// ---- Duplicating channels -------------------------------------------------------------------

// Record r of the duplicate source: time, level, state, old_style and text at the given bits.
void put_source_values(std::vector<uint8_t>& rec, uint32_t r, const std::array<unsigned, 5>& at) {
  const std::string s = "t" + std::to_string(r);
  mdftest::put_f64(rec, at[0] / 8, r * 10.0);
  mdftest::put_bits(rec, at[1], 12, r * 200);
  mdftest::put_bits(rec, at[2], 4, r % 2);
  mdftest::put_bits(rec, at[3], 16, static_cast<uint16_t>(-static_cast<int>(r) * 100),
                    ByteOrder::motorola);
  mdftest::put_raw(rec, at[4] / 8, std::vector<uint8_t>(s.begin(), s.end()));
}

// Gaps between the source values: a copy is placed as a new channel is, behind the ones before.
constexpr std::array<unsigned, 5> kSourceBits = {0, 68, 80, 88, 104};
constexpr std::array<unsigned, 5> kCopyBits = {0, 64, 76, 80, 96};

mdftest::FileModel duplicate_source() {
  mdftest::FileModel f;
  auto& cg = f.add_data_group().add_channel_group(17);
  auto& t = cg.add_channel("time", kSourceBits[0], 64, MDF_DT_DOUBLE, MDF_CHN_TIME);
  t.conversion = mdftest::linear(0.0, 0.001, "s");
  t.description = "time base";
  auto& level = cg.add_channel("level", kSourceBits[1], 12, MDF_DT_UINT);
  level.conversion =
      mdftest::range_table({{0, 99, "LOW"}, {100, 999, std::nullopt}, {1000, 4095, "HIGH"}}, "lvl");
  level.comment = "level comment";
  level.long_name = "level_long";
  level.display_name = "Level";
  level.extension = mdftest::extension(MDF_CE_DIM, std::vector<uint8_t>(122, 0x5A));
  cg.add_channel("state", kSourceBits[2], 4, MDF_DT_UINT).conversion =
      mdftest::verbal_table({{0, "off"}, {1, "on"}});
  auto& old = cg.add_channel("old_style", kSourceBits[3], 16, MDF_DT_INT_BE);
  old.block_size = 218;
  old.comment = "$Longname: OldLong\n$Displayname: OldDisplay";
  old.conversion = mdftest::polynomial({1, 2, 3, 4, 5, 6}, "p");
  auto& text = cg.add_channel("text", kSourceBits[4], 32, MDF_DT_STRING);
  std::tie(text.range_valid, text.min, text.max) = std::make_tuple(uint16_t{1}, -1.0, 1.0);
  for (uint32_t r = 0; r < 20; ++r) put_source_values(cg.add_record(), r, kSourceBits);
  return f;
}

TEST_F(ChannelApi, DuplicatedChannelsCarryTheirPropertiesIntoAnotherFile) {
  const auto source = write(duplicate_source(), "source.mdf");
  const std::string target = path("target.mdf");
  mdf_group* sg = open(source, MDF_OPEN_READ);
  mdf_group* dg = open(target, MDF_OPEN_CREATE);
  constexpr size_t kChannels = 5;
  constexpr uint32_t kRecords = 20;
  Ch from[kChannels], to[kChannels];
  for (size_t i = 0; i < kChannels; ++i) {
    from[i] = open_channel(sg, i + 1);
    ASSERT_EQ(mdfChnDuplicate(&to[i], dg, from[i]), 0) << i;
  }
  // Properties set on the copies reach the file as well: a name that fills its field, a
  // description cut to 128 characters, a comment removed, the raster and both value ranges,
  // which a copy does not take over. A second handle on a block sees the changes of the first.
  double lo = 0, hi = 0;
  EXPECT_EQ(mdfChnGetHexRange(&lo, &hi, to[4]), MDF_RANGE_UNKNOWN);
  EXPECT_EQ(mdfChnGetPhyRange(&lo, &hi, to[4]), MDF_RANGE_UNKNOWN);  // no rule
  EXPECT_EQ(mdfChnGetPhyRange(&lo, &hi, to[0]), MDF_RANGE_UNKNOWN);  // a rule, range not valid
  ASSERT_EQ(mdfChnSetInfo(to[1], kName32.c_str(), std::string(140, 'd').c_str(), ""), 0);
  Ch text_again = open_channel(dg, 5);
  ASSERT_EQ(mdfChnSetRaster(text_again, 0.25), 0);
  ASSERT_EQ(mdfChnSetHexRange(text_again, -3.0, 1000.0), 0);
  ASSERT_EQ(mdfChnSetPhyRange(to[0], 1.5, 2.5), 0);
  double raster = 0;
  ASSERT_EQ(mdfChnGetRaster(to[4], &raster), 0);
  ASSERT_EQ(mdfChnGetHexRange(&lo, &hi, to[4]), 0);
  EXPECT_EQ(std::make_tuple(raster, lo, hi), std::make_tuple(0.25, -3.0, 1000.0));

  // Copy every record value by value: the time bytes with a Write function (each later one
  // appends the record before), the others as raw integers or bytes with Set functions.
  for (uint32_t r = 0; r < kRecords; ++r) {
    ASSERT_EQ(mdfGrpSeek(sg, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    for (size_t i = 0; i < kChannels; ++i) {
      uint8_t bytes[8] = {};
      uint32_t length = sizeof bytes;
      uint64_t raw = 0;
      if (i != 0 && mdfChnGetHexInt(&raw, from[i], 0) == 0) {
        ASSERT_EQ(mdfChnSetHexInt(to[i], raw), 0);
      } else {
        ASSERT_EQ(mdfChnGetData(bytes, &length, from[i], 0), 0);
        ASSERT_EQ(
            i == 0 ? mdfChnWriteData(to[i], bytes, length) : mdfChnSetData(to[i], bytes, length),
            0);
      }
    }
  }
  ASSERT_EQ(mdfFileClose(f_), 0);

  // On disk: every property of the source but its place, the rules (with the texts of a range
  // table) and the module record, the names a short source block keeps in its comment; the
  // values at their new places.
  const auto rs = mdftest::read_file(source);
  const auto rt = mdftest::read_file(target);
  ASSERT_TRUE(rt.ok()) << rt.error_text();
  const auto& cs = rs.channel_groups().at(0)->channels;
  const auto& ct = rt.channel_groups().at(0)->channels;
  ASSERT_EQ(ct.size(), kChannels);
  for (size_t i = 0; i < kChannels; ++i) {
    SCOPED_TRACE(cs[i].name);
    mdftest::ChannelFields want = cs[i];
    want.first_bit = static_cast<uint16_t>(kCopyBits[i]);
    std::tie(want.range_valid, want.min, want.max) =
        i == 4 ? std::make_tuple(uint16_t{1}, -3.0, 1000.0)
               : std::make_tuple(uint16_t{0}, 0.0, 0.0);
    if (i == 4) want.sample_rate = 0.25;
    if (i == 1)
      std::tie(want.name, want.description) = std::make_tuple(kName32, std::string(128, 'd'));
    EXPECT_TRUE(static_cast<const mdftest::ChannelFields&>(ct[i]) == want);
    EXPECT_EQ(std::tie(ct[i].block_size, ct[i].comment),
              std::make_tuple(228, i == 1 ? std::nullopt : cs[i].comment));
    if (i != 3) {
      EXPECT_EQ(std::tie(ct[i].long_name, ct[i].display_name),
                std::tie(cs[i].long_name, cs[i].display_name));
    }
    ASSERT_EQ(ct[i].conversion.has_value(), cs[i].conversion.has_value());
    if (cs[i].conversion) {
      mdftest::ConversionFields want_cc = *cs[i].conversion;
      if (i == 0)
        std::tie(want_cc.range_valid, want_cc.min, want_cc.max) =
            std::make_tuple(uint16_t{1}, 1.5, 2.5);
      EXPECT_TRUE(static_cast<const mdftest::ConversionFields&>(*ct[i].conversion) == want_cc);
    }
    ASSERT_EQ(ct[i].extension.has_value(), cs[i].extension.has_value());
    if (cs[i].extension) {
      EXPECT_EQ(std::tie(ct[i].extension->type, ct[i].extension->record),
                std::tie(cs[i].extension->type, cs[i].extension->record));
    }
  }
  EXPECT_EQ(std::tie(ct[3].long_name, ct[3].display_name),
            std::make_tuple("OldLong", "OldDisplay"));
  const auto& records = rt.channel_groups().at(0)->records;
  ASSERT_EQ(records.size(), kRecords);
  for (uint32_t r = 0; r < kRecords; ++r) {
    std::vector<uint8_t> want(16);
    put_source_values(want, r, kCopyBits);
    EXPECT_EQ(records[r], want) << r;
  }
}

// ---- Refused calls --------------------------------------------------------------------------

TEST_F(ChannelApi, RefusedModesAreRaised) {
  const auto file = write(named_channels());
  mdf_file* f = nullptr;
  Ch out = nullptr;
  mdf_group* out_group = nullptr;
  uint16_t u16 = 0;
  // Mode 1 is passed on to the group, which refuses it for a file opened for reading.
  const std::function<int16_t()> cases[] = {
      [&] { return mdfGrpChnOpen(&out, &out_group, f, 2, 3); },
      [&] { return mdfGrpChnOpenName(&out, &out_group, f, "a", 3); },
      [&] { return mdfGrpChnOpenName(&out, &out_group, f, "a", 1); },
  };
  for (const auto& call : cases) {
    restart();
    ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
    EXPECT_EQ(call(), MDF_ERR_OPEN_MODE);
    EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_OPEN_MODE) << "raised";
    EXPECT_EQ(std::make_pair(out, out_group),
              std::make_pair(Ch{nullptr}, static_cast<mdf_group*>(nullptr)));
  }
  // A stored sticky error is returned at once, before any handle check, and still lets a
  // handle close.
  EXPECT_EQ(mdfChnGetType(nullptr, &u16), MDF_ERR_OPEN_MODE);
  EXPECT_EQ(mdfChnClose(nullptr), 0);
}

size_t log_size() {
  std::error_code ec;
  const auto size = fs::file_size("KORVEL.LOG", ec);
  return ec ? 0 : static_cast<size_t>(size);
}

TEST_F(ChannelApi, OpenChannelsOfAGroupInOrderOfOpening) {
  mdf_group* g1 = open(write(ten_records()), MDF_OPEN_READ);
  mdf_group* g2 = mdftest::open_group(f_, 1);
  Ch it = reinterpret_cast<Ch>(g1);
  EXPECT_EQ(mdfChnGetFirst(g1, &it), MDF_CHN_NOT_FOUND);
  EXPECT_EQ(it, nullptr);
  const Ch a = open_channel(g1, 3), other = open_channel(g2, 1), b = open_channel(g1, 1);
  ASSERT_EQ(mdfChnGetFirst(g1, &it), 0);
  EXPECT_EQ(it, a);
  ASSERT_EQ(mdfChnGetNext(&it), 0);
  EXPECT_EQ(it, b);  // the other group's channel is passed over
  EXPECT_EQ(mdfChnGetNext(&it), MDF_CHN_NOT_FOUND);
  EXPECT_EQ(it, nullptr);
  EXPECT_EQ(mdfChnGetNext(&it), MDF_CHN_NOT_FOUND);
  EXPECT_EQ(mdfChnGetNext(nullptr), MDF_CHN_NOT_FOUND);
  ASSERT_EQ(mdfChnClose(a), 0);
  ASSERT_EQ(mdfChnGetFirst(g1, &it), 0);
  EXPECT_EQ(it, b);
  ASSERT_EQ(mdfChnGetFirst(g2, &it), 0);
  EXPECT_EQ(it, other);
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// Some positive statuses are raised (a log line), others only returned.
TEST_F(ChannelApi, RaisedAndReturnedStatuses) {
  mdfPrintMessage("statuses");  // the log is created (and emptied) at this process's first line
  mdf_group* g = open(write(ten_records()), MDF_OPEN_READ);
  const Ch u16 = open_channel(g, 1), u40 = open_channel(g, 2), nibble = open_channel(g, 3);
  double d = 0, lo = 0, hi = 0;
  uint8_t bytes[8];
  uint32_t length = sizeof bytes;
  Ch c = nullptr;
  // What is asked, the status, whether it is logged.
  const std::tuple<const char*, std::function<int16_t()>, int16_t, bool> cases[] = {
      {"index beyond the end", [&] { return mdfChnOpen(&c, g, 99); }, kNoChannel, true},
      {"no time channel", [&] { return mdfChnOpenTime(&c, g); }, MDF_TIME_CHN_NOT_FOUND, true},
      {"no such name", [&] { return mdfChnOpenName(&c, g, "none"); }, MDF_CHN_NAME_NOT_FOUND,
       false},
      {"past the last record", [&] { return mdfChnGetHex(&d, u16, 10); }, kEnd, false},
      {"40 bits as a double", [&] { return mdfChnGetHex(&d, u40, 0); }, kUnsupported, false},
      {"4 bits as bytes", [&] { return mdfChnGetData(bytes, &length, nibble, 0); },
       MDF_NOT_BYTE_ALIGNED, false},
      {"no range", [&] { return mdfChnGetHexRange(&lo, &hi, u16); }, MDF_RANGE_UNKNOWN, false},
      {"no rule", [&] { return mdfChnGetForm(u16, nullptr, nullptr, nullptr); }, MDF_NO_FORMULA,
       false},
  };
  for (const auto& [what, call, status, logged] : cases) {
    SCOPED_TRACE(what);
    const size_t before = log_size();
    EXPECT_EQ(call(), status);
    EXPECT_EQ(log_size() > before, logged);
  }
  EXPECT_EQ(mdfGetErrorCode(), 0);
}
}  // namespace
