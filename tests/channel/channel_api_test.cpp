// The channel functions through the C interface: opening, creating, duplicating, properties
// and values. Files are made with the test-side builder or through the library and checked
// with the test-side reader, which know the block layouts independently of the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
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

using mdftest::ByteOrder;
using Ch = channelnode*;
using Bytes = std::vector<uint8_t>;
using ::testing::PrintToString;

constexpr int16_t kEnd = MDF_END_OF_GROUP, kNoChannel = MDF_CHANNEL_NOT_FOUND,
                  kUnsupported = MDF_UNSUPPORTED_TYPE, kTooShort = MDF_CN_TOO_SHORT,
                  kMode = MDF_ERR_OPEN_MODE, kAlign = MDF_NOT_BYTE_ALIGNED;

using ChannelApi = mdftest::Session;
using mdftest::open_channel;

std::string name_of(Ch ch) {
  const char* name = nullptr;
  return mdfChnGetName(ch, &name) == 0 && name != nullptr ? name : "<error>";
}

// ---- Channels of every data type: places and values -----------------------------------------

// A channel of the file. Value types: integers 0, 1, 9, 10, 13, 14 (signed 1, 10, 14), IEEE
// floats 2, 3, 11, 12, 15, 16 (Motorola 9 to 12), text 7, bytes 8.
struct Column {
  std::string name;
  uint16_t type = 0, bits = 0;
  uint32_t first_bit = 0;  // where the packing rule puts it (worked out here, not asked)
  bool time = false;
  bool is(std::initializer_list<int> types) const {
    return std::find(types.begin(), types.end(), type) != types.end();
  }
  bool integer() const { return is({0, 1, 9, 10, 13, 14}); }
  bool is_signed() const { return is({1, 10, 14}); }
  bool ieee() const { return is({2, 3, 11, 12, 15, 16}); }
  bool text() const { return type == MDF_DT_STRING; }
  bool bytes_like() const { return text() || type == MDF_DT_BYTES; }
  ByteOrder order() const {
    return type >= 9 && type <= 12 ? ByteOrder::motorola : ByteOrder::intel;
  }
  uint32_t span() const { return ((first_bit & 7u) + bits + 7u) / 8u; }
};

uint32_t record_bytes(const std::vector<Column>& cs) {
  return (cs.back().first_bit + cs.back().bits + 7u) / 8u;
}

// The value of column `col` in record `r` for a seed: the bits of an integer field (the
// extremes mixed in) and its raw value, the double handed to a float setter and what it reads
// back as, or the bytes of a text (holding a terminator in two records of three) or array.
struct Value {
  uint64_t field = 0, raw = 0;
  double given = 0, real = 0;
  Bytes data;
};

Value value_of(const Column& c, size_t col, uint32_t r, uint64_t seed) {
  uint64_t n = ((seed << 56) ^ (uint64_t{col} << 32) ^ r) * 0x9E3779B97F4A7C15ull;
  n = (n ^ (n >> 29)) * 0xBF58476D1CE4E5B9ull;
  n ^= n >> 32;
  Value v;
  if (c.integer()) {
    const uint64_t sign = uint64_t{1} << (c.bits - 1), mask = sign | (sign - 1);
    const uint64_t pick = (r + col + seed) % 5;
    v.field = pick == 0 ? mask : pick == 1 ? 0 : pick == 2 ? sign : n & mask;
    const bool is_signed = c.is_signed();
    v.raw = is_signed ? (v.field ^ sign) - sign : v.field;  // sign-extended two's complement
    v.real =
        is_signed ? static_cast<double>(static_cast<int64_t>(v.raw)) : static_cast<double>(v.raw);
  } else if (!c.bytes_like()) {
    v.given = c.time ? static_cast<double>(r) * 0.001 + static_cast<double>(seed)
                     : static_cast<double>(static_cast<int32_t>(n)) / 3.0;
    v.real = c.bits == 32 ? static_cast<double>(static_cast<float>(v.given)) : v.given;
  } else {
    for (size_t i = 0; i < c.bits / 8u; ++i) {
      const uint64_t letter = 'a' + (n >> (5 * (i % 12))) % 26, byte = n >> (8 * (i % 8));
      v.data.push_back(static_cast<uint8_t>(c.text() ? letter : byte));
    }
    if (c.text() && r % 3 != 0) v.data[(n >> 60) % v.data.size()] = 0;
  }
  return v;
}

// The bytes record r must hold: every bit that no column covers is zero.
Bytes record_of(const std::vector<Column>& cs, uint32_t r, uint64_t seed) {
  Bytes rec(record_bytes(cs));
  for (size_t col = 0; col < cs.size(); ++col) {
    const Column& c = cs[col];
    const Value v = value_of(c, col, r, seed);
    const size_t at = c.first_bit / 8;
    const auto f = static_cast<float>(v.given);
    if (c.integer()) mdftest::put_bits(rec, c.first_bit, c.bits, v.field, c.order());
    if (c.ieee() && c.bits == 32) mdftest::put_f32(rec, at, f, c.order());
    if (c.ieee() && c.bits == 64) mdftest::put_f64(rec, at, v.given, c.order());
    if (c.bytes_like()) mdftest::put_raw(rec, at, v.data);
  }
  return rec;
}

// Which function family carries a column's values: 0 HexInt, 1 Hex, 2 Phy, 3 Data. Integers
// take turns through the first three (raw as double only up to four bytes), floats through Phy
// and Hex; the Get functions check each value through another family than Set and Read.
size_t family(const Column& c, size_t col, bool get) {
  if (c.bytes_like()) return 3;
  if (!c.integer()) return get ? 1 + col % 2 : 2 - col % 2;
  return c.span() > 4 ? (get ? 2 : 0) : (col + get) % 3;
}

// Stores a value through a Set function, or (write) the Write function of the same family.
int16_t put_value(Ch ch, const Column& c, size_t col, const Value& v, bool write) {
  const auto size = static_cast<uint32_t>(v.data.size());
  const double d = c.integer() ? v.real : v.given;
  const size_t f = family(c, col, false);
  if (f == 0) return write ? mdfChnWriteHexInt(ch, v.raw) : mdfChnSetHexInt(ch, v.raw);
  if (f == 1) return write ? mdfChnWriteHex(ch, d) : mdfChnSetHex(ch, d);
  if (f == 2) return write ? mdfChnWritePhy(ch, d) : mdfChnSetPhy(ch, d);
  return write ? mdfChnWriteData(ch, v.data.data(), size) : mdfChnSetData(ch, v.data.data(), size);
}

// Checks the value of record r through a Read function (read; the handle stands at r) or
// through a Get function with offset r from record 0. A text copy stops after the first zero
// byte; the rest of the buffer stays as it was.
bool check_value(Ch ch, const Column& c, size_t col, uint32_t r, bool read) {
  const Value v = value_of(c, col, r, 1);
  const auto at = static_cast<int16_t>(r);
  Bytes buffer(v.data.size() + 3, 0xEE), want = v.data;
  auto length = static_cast<uint32_t>(buffer.size());
  double x = -1;
  uint64_t n = 1;
  const size_t f = family(c, col, !read);
  const int16_t st = f == 0   ? (read ? mdfChnReadHexInt(&n, ch) : mdfChnGetHexInt(&n, ch, at))
                     : f == 1 ? (read ? mdfChnReadHex(&x, ch) : mdfChnGetHex(&x, ch, at))
                     : f == 2 ? (read ? mdfChnReadPhy(&x, ch) : mdfChnGetPhy(&x, ch, at))
                     : read   ? mdfChnReadData(buffer.data(), &length, ch)
                              : mdfChnGetData(buffer.data(), &length, ch, at);
  const auto zero = std::find(want.begin(), want.end(), 0);
  if (c.text() && zero != want.end()) want.erase(zero + 1, want.end());
  want.resize(buffer.size(), 0xEE);
  const bool ok = f == 0  ? n == v.raw
                  : f < 3 ? x == v.real
                          : length == v.data.size() && buffer == want;
  EXPECT_TRUE(st == 0 && ok) << c.name << " record " << r << ": "
                             << PrintToString(std::make_tuple(st, n, x, buffer)) << ", want "
                             << PrintToString(std::make_tuple(v.raw, v.real, want));
  return st == 0 && ok;
}

// The file through the test-side reader: one group, its channels at their places (past bit
// 65535 the start bit keeps the rest below 65536 and the additional byte offset whole steps of
// 8192 bytes), and `records` records holding exactly the expected bytes.
void check_file(const std::string& file, const std::vector<Column>& cs, uint32_t records) {
  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto& cg = *rf.channel_groups().at(0);
  EXPECT_EQ(std::tie(cg.record_count, cg.record_size, cg.cn_count),
            std::make_tuple(records, record_bytes(cs), cs.size()));
  ASSERT_EQ(std::make_pair(cg.channels.size(), cg.records.size()),
            std::make_pair(cs.size(), size_t{records}));
  for (size_t i = 0; i < cs.size(); ++i) {
    const auto& cn = cg.channels[i];
    EXPECT_EQ(std::make_tuple(cn.name, cn.bit_count, cn.data_type, cn.channel_type, cn.block_size,
                              cn.first_bit + 8u * cn.additional_byte_offset,
                              cn.additional_byte_offset % 8192),
              std::make_tuple(cs[i].name, cs[i].bits, cs[i].type, uint16_t{cs[i].time}, 228,
                              cs[i].first_bit, 0));
  }
  // The first few wrong records only, so that a broken coder does not print thousands of lines.
  for (uint32_t r = 0, wrong = 0; r < records && wrong < 5; ++r) {
    const auto want = record_of(cs, r, 1);
    EXPECT_EQ(cg.records[r], want) << "record " << r;
    wrong += cg.records[r] != want;
  }
}

TEST_F(ChannelApi, TenThousandRecordsOfEveryDataTypeWrittenAndRead) {
  // A time channel; small fields that fill the rest of a byte exactly or do not fit into it
  // (a float, a text and an array behind a partly filled byte among them); integers of every code
  // from 1 to 64 bits; floats of 32 and 64 bits in every byte order; texts and byte
  // arrays. Each goes behind the ones before, sharing the last byte only if it fits whole into
  // the rest of it.
  std::vector<Column> cs = {{"time", MDF_DT_DOUBLE, 64, 0, true}};
  const auto add = [&cs](int type, int bits) {
    cs.push_back(
        {"t" + std::to_string(type) + "_" + std::to_string(bits) + "_" + std::to_string(cs.size()),
         static_cast<uint16_t>(type), static_cast<uint16_t>(bits)});
  };
  const std::pair<int, int> packed[] = {{0, 4},  {14, 4}, {0, 3},  {9, 5},   {0, 7}, {10, 1},
                                        {0, 2},  {2, 32}, {0, 3},  {7, 16},  {0, 1}, {8, 8},
                                        {14, 7}, {14, 1}, {14, 1}, {13, 12}, {0, 4}};
  for (auto [type, bits] : packed) add(type, bits);
  for (int type : {0, 1, 9, 10, 13, 14}) {
    for (int bits : {1, 3, 8, 12, 16, 24, 31, 32, 33, 48, 63, 64}) add(type, bits);
  }
  const std::pair<int, int> others[] = {{2, 32},  {11, 32}, {15, 32}, {3, 64}, {12, 64},
                                        {16, 64}, {7, 64},  {7, 24},  {8, 40}, {8, 8}};
  for (auto [type, bits] : others) add(type, bits);
  for (uint32_t p = 0; auto& c : cs) {
    if ((p & 7u) != 0 && (p & 7u) + c.bits > 8) p = (p + 7u) & ~7u;
    c.first_bit = p;
    p += c.bits;
  }
  constexpr uint32_t kRecords = 10000;
  const std::string file = path("all_types.mdf");

  // Create: the time channel written with mdfChnWritePhy (each later Write appends the record
  // before), every other value set after it: first to the value of another record set, so that
  // the setter must clear the bits it replaces, then to its own.
  mdf_group* g = open(file, MDF_OPEN_CREATE);
  std::vector<Ch> hs(cs.size());
  for (size_t i = 0; i < cs.size(); ++i) {
    ASSERT_EQ(mdfChnCreate(&hs[i], g, cs[i].time, cs[i].bits, cs[i].type, cs[i].name.c_str()), 0);
  }
  Ch time = nullptr;
  ASSERT_EQ(mdfChnOpenTime(&time, g), 0);  // the created time channel is the group's
  EXPECT_EQ(name_of(time), "time");
  for (uint32_t r = 0; r < kRecords; ++r) {
    for (size_t col = 0; col < cs.size(); ++col) {
      const Column& c = cs[col];
      ASSERT_EQ(col > 0 ? put_value(hs[col], c, col, value_of(c, col, r, 2), false) : 0, 0);
      ASSERT_EQ(put_value(hs[col], c, col, value_of(c, col, r, 1), col == 0), 0) << c.name;
    }
  }
  ASSERT_EQ(mdfFileClose(f_), 0);  // stores the last record, still in the buffer
  check_file(file, cs, kRecords);

  // Read back: each channel through a Read function on a new handle from record 0 to the last,
  // then through a Get function with the record's offset from record 0.
  g = open(file, MDF_OPEN_READ);
  // The first few wrong values only, so that a broken coder does not print thousands of lines.
  for (size_t col = 0, wrong = 0; col < cs.size() && wrong < 5; ++col) {
    for (bool read : {true, false}) {
      ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
      const Ch h = open_channel(g, col + 1);
      for (uint32_t r = 0; r < kRecords && wrong < 5; ++r)
        wrong += !check_value(h, cs[col], col, r, read);
    }
  }
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// ---- Creating channels ----------------------------------------------------------------------

TEST_F(ChannelApi, CreateNormalisesValueTypesByTheirBitCountOrRefusesThem) {
  constexpr int16_t kType = MDF_ERR_VALUE_TYPE, kBits = MDF_ERR_CHANNEL_BITS;
  // (value type, bits) given, (value type, bits) made, status. Value types: 0/1 integers, 2/3
  // float/double, 4..6 VAX F/G/D, 7 text, 8 bytes, 9..12 the same Motorola, 13..16 Intel.
  // clang-format off
  const std::tuple<uint16_t, uint16_t, uint16_t, uint16_t, int16_t> cases[] = {
      {2, 64, 3, 64, 0},   {15, 64, 16, 64, 0}, {12, 32, 11, 32, 0}, {15, 16, 15, 32, 0},
      {12, 0, 12, 64, 0},  {4, 64, 4, 32, 0},   {0, 64, 0, 64, 0},   {10, 1, 10, 1, 0},
      {7, 16, 7, 16, 0},   {8, 8, 8, 8, 0},     {5, 64, 0, 0, kType}, {17, 8, 0, 0, kType},
      {6, 64, 0, 0, kType}, {0xFFFF, 8, 0, 0, kType}, {7, 0, 0, 0, kBits},
      {7, 12, 0, 0, kBits}, {8, 7, 0, 0, kBits}, {0, 0, 0, 0, kBits}, {1, 65, 0, 0, kBits},
  };
  // clang-format on
  int n = 0;
  for (const auto& [given_type, given_bits, want_type, want_bits, status] : cases) {
    SCOPED_TRACE(std::to_string(given_type) + "/" + std::to_string(given_bits));
    restart();
    mdf_group* g = open(path("create" + std::to_string(n++) + ".mdf"), MDF_OPEN_CREATE);
    auto* ch = reinterpret_cast<Ch>(&n);  // must be replaced
    ASSERT_EQ(mdfChnCreate(&ch, g, 0, given_bits, given_type, "x"), status);
    uint16_t type = 0, bits = 0;
    if (status == 0) mdfChnGetInfo(ch, nullptr, &bits, &type, nullptr, nullptr, nullptr);
    EXPECT_EQ(std::make_tuple(mdfGetErrorCode(), ch == nullptr, type, bits),
              std::make_tuple(status, status != 0, want_type, want_bits));
  }
  // A record may end at byte 65524: seven arrays of 8191 bytes and one of 8188 fit, placed
  // past bit 65535 as the file takes them; a channel that would end behind them is refused.
  restart();
  std::vector<Column> cs;
  for (uint32_t i = 0; i < 8; ++i)
    cs.push_back({"b" + std::to_string(i), 8, uint16_t(i < 7 ? 65528 : 65504), 65528 * i});
  Ch ch = nullptr;
  const auto create_all = [&](const char* name) {
    mdf_group* g = open(path(name), MDF_OPEN_CREATE);
    for (const auto& c : cs) EXPECT_EQ(mdfChnCreate(&ch, g, 0, c.bits, c.type, c.name.c_str()), 0);
    return g;
  };
  create_all("wide.mdf");
  ASSERT_EQ(mdfFileClose(f_), 0);
  check_file(path("wide.mdf"), cs, 0);
  EXPECT_EQ(mdfChnCreate(&ch, create_all("wider.mdf"), 0, 1, MDF_DT_UINT, "one_bit_more"), kBits);
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
  uint16_t at = 32;
  for (const auto* name : {"speed", "Speed", "engine", kName32.c_str()}) {
    cg1.add_channel(name, at, 8, MDF_DT_UINT);
    at += 8;
  }
  auto& dg = f.add_data_group(1);
  dg.add_channel_group(1, 1).add_channel("a", 0, 8, MDF_DT_UINT);
  auto& cg3 = dg.add_channel_group(3, 2);
  cg3.add_channel("t3", 0, 8, MDF_DT_UINT, MDF_CHN_TIME);
  cg3.add_channel("SPEED", 8, 8, MDF_DT_UINT);
  cg3.add_channel("d", 16, 8, MDF_DT_UINT);
  cg1.add_record();
  dg.channel_groups[0].add_record();
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
      {by_index, 1, 1, "", 0, "Engine", 0},    {by_index, 1, 5, "", 0, kName32, 0},
      {by_index, 1, 6, "", kNoChannel, "", 0}, {by_index, 2, 1, "", 0, "a", 0},
      {by_index, 1, 2, "", 0, "speed", 0},     {by_index, 3, 2, "", 0, "SPEED", 0},
      {by_index, 1, 0, "", kNoChannel, "", 0}, {by_index, 1, 0xFFFF, "", kNoChannel, "", 0},
      // By name: exact first, then ignoring case, at most 32 characters; never a time channel.
      {by_name, 1, 0, "Speed", 0, "Speed", 0}, {by_name, 1, 0, "SPEED", 0, "speed", 0},
      {by_name, 1, 0, "Engine", 0, "engine", 0}, {by_name, 1, 0, "spee", k3, "", 0},
      {by_name, 1, 0, "speedy", k3, "", 0},
      {by_name, 1, 0, kName32 + "_and_more", 0, kName32, 0}, {by_name, 3, 0, "t3", k3, "", 0},
      {by_type, 1, 0, "", 0, "speed", 0},      {by_type, 1, 1, "", 0, "Engine", 0},
      {by_type, 1, 7, "", kNoChannel, "", 0},  {by_time, 3, 0, "", 0, "t3", 0},
      {by_time, 2, 0, "", k1008, "", 0},
      // The file-level openers count channels over all groups and search group by group: a
      // match ignoring case in an earlier group wins over an exact one in a later group.
      {file_index, 0, 5, "", 0, kName32, 5},   {file_index, 0, 7, "", 0, "t3", 3},
      {file_index, 0, 10, "", k4, "", 0},      {file_index, 0, 0, "", k4, "", 0},
      {file_name, 0, 0, "SPEED", 0, "speed", 5},
      {file_name, 0, 0, "t3", k4, "", 0},
  };
  // clang-format on
  for (const auto& [op, group, n, name, status, found, group_channels] : cases) {
    SCOPED_TRACE(::testing::Message() << op << " " << group << " " << n << " " << name);
    auto* ch = reinterpret_cast<Ch>(g[0]);  // must be replaced
    mdf_group *grp = g[0], *in = group > 0 ? g[group - 1] : nullptr;
    const int16_t st = op == by_index  ? mdfChnOpen(&ch, in, n)
                       : op == by_name ? mdfChnOpenName(&ch, in, name.c_str())
                       : op == by_type ? mdfChnOpenType(&ch, in, n)
                       : op == by_time ? mdfChnOpenTime(&ch, in)
                       : op == file_index
                           ? mdfGrpChnOpen(&ch, &grp, f_, n, MDF_OPEN_READ)
                           : mdfGrpChnOpenName(&ch, &grp, f_, name.c_str(), MDF_OPEN_READ);
    // A miss leaves no handles; a hit is closed (a group closes its channel too).
    const bool cleared = ch == nullptr && (group > 0 || grp == nullptr);
    uint16_t channels = 0;
    if (st == 0 && group == 0) mdfGrpChannels(&channels, grp);
    const std::string got = st == 0 ? name_of(ch) : "";
    const int16_t closed = st != 0 ? 0 : group > 0 ? mdfChnClose(ch) : mdfGrpClose(grp);
    EXPECT_EQ(std::make_tuple(st, st == 0 || cleared, got, channels, closed),
              std::make_tuple(status, true, found, group_channels, 0));
  }
  EXPECT_EQ(mdfGetErrorCode(), 0) << "positive statuses are not sticky";

  // The open channels of a group handle in order of opening: a channel of another handle on
  // the same group is passed over, and the walk stays at the end; closing a channel takes it
  // out.
  ASSERT_EQ(mdfGrpOpen(&g[1], f_, 1, MDF_OPEN_READ), 0);
  Ch it = reinterpret_cast<Ch>(g[0]);
  using Step = std::pair<int, Ch>;  // a status and the handle it leaves
  const auto first = [&it](mdf_group* in) { return Step{mdfChnGetFirst(in, &it), it}; };
  const auto next = [&it] { return Step{mdfChnGetNext(&it), it}; };
  const Step none = {MDF_CHN_NOT_FOUND, nullptr};
  EXPECT_EQ(first(g[0]), none);  // the table closed all it opened
  const Ch a = open_channel(g[0], 3), other = open_channel(g[1], 1), b = open_channel(g[0], 1);
  const std::vector<Step> walk = {first(g[0]), next(), next(), next()};
  EXPECT_EQ(walk, (std::vector<Step>{{0, a}, {0, b}, none, none}));
  EXPECT_EQ(std::make_pair(mdfChnGetNext(nullptr), mdfChnClose(a)),
            std::make_pair(int16_t{MDF_CHN_NOT_FOUND}, int16_t{0}));
  EXPECT_EQ(std::make_pair(first(g[0]), first(g[1])), std::make_pair(Step(0, b), Step(0, other)));
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// ---- Long and display names -----------------------------------------------------------------

TEST_F(ChannelApi, LongAndDisplayNamesByBlockSizeLinkAndCommentMarker) {
  const std::string markers = "$Longname: FromComment\n$Displayname: DisplayFromComment";
  const std::string long_word(1000, 'L'), display_word(300, 'D');
  // Block size, comment, linked long and display names ("": link 0), the names found.
  using Case = std::array<std::string, 5>;
  // clang-format off
  const std::vector<std::pair<uint16_t, Case>> cases = {
      // Blocks of 218, 222 and 228 bytes, for the setters below.
      {218, {"", "", "", "", ""}},
      {222, {markers, "LongFromLink", "", "LongFromLink", "DisplayFromComment"}},
      {228, {markers, "Long228", "Display228", "Long228", "Display228"}},
      // A link field, where the block has one, is used even when it is 0.
      {222, {markers, "", "", "", "DisplayFromComment"}}, {228, {markers, "", "", "", ""}},
      // Below 222 bytes: the markers in the comment, each only as the first '$' of its line;
      // the value is the first word after it.
      {218, {markers, "", "", "FromComment", "DisplayFromComment"}},
      {218, {"$ no marker here\n$Longname: Engine_Speed rpm", "", "", "Engine_Speed", ""}},
      {218, {"$x $Longname: A", "", "", "", ""}}, {218, {"$Longname:A", "", "", "", ""}},
      {218, {"text before $Longname: A", "", "", "A", ""}},
      {218, {"$x\n$y $Longname: A\n$Longname: B", "", "", "B", ""}},
      {218, {"$Longname: ", "", "", "", ""}},       {218, {"$Displaynam", "", "", "", ""}},
      {218, {"$Longname: \t\nOnNextLine", "", "", "OnNextLine", ""}},
      {218, {"$Displayname: D\r\n$Longname: L", "", "", "L", "D"}},
      {218, {"$Displayname:D", "", "", "", "D"}},   {218, {"$DisplaynamX: D", "", "", "", ""}},
      {218, {"$Longname: " + long_word, "", "", long_word, ""}},
      {218, {"$Displayname: " + display_word, "", "", "", display_word.substr(0, 255)}},
  };
  // clang-format on
  // Every short name fills its 32-character field, so it has no terminator in the block.
  const auto short_name = [](size_t i) {
    return ("n" + std::to_string(i) + std::string(32, '_')).substr(0, 32);
  };
  const auto text = [](const std::string& s) { return s.empty() ? mdftest::Text() : s; };
  mdftest::FileModel model;
  auto& cg = model.add_data_group().add_channel_group(1);
  for (const auto& [size, c] : cases) {
    auto& cn = cg.add_channel(short_name(cg.channels.size()), 0, 8, MDF_DT_UINT);
    cn.block_size = size;
    cn.comment = text(c[0]);
    cn.long_name = text(c[1]);
    cn.display_name = text(c[2]);
  }
  mdf_group* g = open(write(model), MDF_OPEN_READ);
  // The byte offset and the names; without a long name the short name stands in, terminated
  // after its 32 characters.
  const auto expect_names = [&](size_t i, uint16_t offset, const std::string& long_name,
                                const std::string& display_name) {
    uint16_t got_offset = 99;
    const char *got_long = "", *got_display = "", *long_or_short = "";
    const Ch ch = open_channel(g, i + 1);
    // The texts are copied before the next call, which may reuse the buffers they lie in.
    const int16_t st_ext = mdfChnGetInfoExt(ch, &got_offset, &got_long, &got_display);
    const std::string names[] = {got_long, got_display};
    const std::vector<int16_t> st = {st_ext, mdfChnGetLongName(ch, &long_or_short)};
    EXPECT_EQ(std::make_tuple(st, got_offset, names[0], names[1], std::string(long_or_short)),
              std::make_tuple(std::vector<int16_t>(2), offset, long_name, display_name,
                              long_name.empty() ? short_name(i) : long_name))
        << i;
  };
  for (size_t i = 0; i < cases.size(); ++i)
    expect_names(i, 0, cases[i].second[3], cases[i].second[4]);

  // Setters on the blocks of 218, 222 and 228 bytes: 1013 (returned) where a block has no field
  // for the value, and nothing changes then; byte offset 0 leaves the stored one.
  const std::vector<int16_t> want[] = {
      {kTooShort, kTooShort, kTooShort, 0}, {0, kTooShort, kTooShort, 0}, {0, 0, 0, 0}};
  for (size_t i = 0; i < 3; ++i) {
    const Ch ch = open_channel(g, i + 1);
    EXPECT_EQ((std::vector<int16_t>{mdfChnSetLongName(ch, "LN"), mdfChnSetDisplayName(ch, "DN"),
                                    mdfChnSetInfoExt(ch, 3, nullptr, nullptr),
                                    mdfChnSetInfoExt(ch, 0, nullptr, nullptr)}),
              want[i])
        << i;
  }
  EXPECT_EQ(mdfGetErrorCode(), 0) << "1013 is returned, not raised";
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

// Each call in a fresh session on the ten-record file, opened with its group 1 in the given
// modes, channels 1 to 4 open in h[1..4] and the cursor at the given record: its status, the
// value it gives (-1: none), where the cursor stands afterwards (not asked after a raised
// failure), whether it wrote a log line, and the sticky error it leaves.
TEST_F(ChannelApi, CallsOnTheTenRecordFile) {
  mdfPrintMessage("calls");  // the log is created (and emptied) at this process's first line
  const auto file = write(ten_records());
  const auto before = mdftest::load_file(file);
  Ch c = nullptr;
  mdf_group* out = nullptr;
  double v = -1, hi = 0;
  uint8_t b[4] = {};
  uint32_t length = 0;
  // Bytes: the value of those copied; a refused copy zeroes the first byte.
  const auto get_data = [&](Ch ch, int16_t offset) {
    std::fill_n(b, 4, uint8_t{0xEE});
    length = sizeof b;
    const int16_t st = mdfChnGetData(b, &length, ch, offset);
    v = length == 2 ? b[0] + 256.0 * b[1] : length + 1000.0 * b[0];
    return st;
  };
  using H = std::array<Ch, 5>;
  using Call = std::function<int16_t()>;
  mdf_group* g = nullptr;  // the group and channels the calls work on
  H h{};
  const Call create = [&] { return mdfChnCreate(&c, g, 0, 32, MDF_DT_UINT, "x"); };
  constexpr uint16_t R = MDF_OPEN_READ, M = MDF_OPEN_MODIFY;
  const int16_t kRule = MDF_UNSUPPORTED_RULE, kRange = MDF_RANGE_UNKNOWN, kU = kUnsupported;
  // clang-format off
  const std::tuple<uint16_t, uint16_t, int32_t, Call, int16_t, double, uint32_t, bool> cases[] = {
      // A Get with an offset reads that record and moves the cursor back.
      {R, R, 2, [&] { return mdfChnGetPhy(&v, h[1], 0); }, 0, 514, 2, false},
      {R, R, 2, [&] { return mdfChnGetPhy(&v, h[1], -2); }, 0, 0, 2, false},
      {R, R, 0, [&] { return mdfChnGetPhy(&v, h[1], 9); }, 0, 2313, 0, false},
      {R, R, 3, [&] { return get_data(h[1], -1); }, 0, 514, 3, false},
      {R, R, 3, [&] { return get_data(h[2], 0); }, 0, 3004, 3, false},  // cut to the room
      // Outside the records: 1, the cursor unmoved.
      {R, R, 5, [&] { return mdfChnGetPhy(&v, h[1], 5); }, kEnd, 0, 5, false},
      {R, R, 2, [&] { return mdfChnGetPhy(&v, h[1], -3); }, kEnd, 0, 2, false},
      {R, R, 0, [&] { return mdfChnGetPhy(&v, h[1], 32767); }, kEnd, 0, 0, false},
      {R, R, 7, [&] { return mdfChnGetPhy(&v, h[1], -32768); }, kEnd, 0, 7, false},
      // A value that cannot be decoded (40 bits as a double) leaves the cursor at the record
      // it was read from; no bytes of a field that is not byte aligned, no text formula inverted.
      {R, R, 1, [&] { return mdfChnGetHex(&v, h[2], 2); }, kU, 0, 3, false},
      {R, R, 4, [&] { return get_data(h[3], 0); }, kAlign, 0, 4, false},
      {R, R, 0, [&] { return mdfChnSetData(h[3], b, 1); }, kAlign, -1, 0, false},
      {R, R, 0, [&] { return mdfChnSetPhy(h[4], 10.0); }, kRule, -1, 0, false},
      {R, R, 0, [&] { return mdfChnGetHexRange(&v, &hi, h[1]); }, kRange, 0, 0, false},
      // Misses: some are logged.
      {R, R, 0, [&] { return mdfChnOpen(&c, g, 99); }, kNoChannel, -1, 0, true},
      {R, R, 0, [&] { return mdfChnOpenTime(&c, g); }, MDF_TIME_CHN_NOT_FOUND, -1, 0, true},
      {R, R, 0, [&] { return mdfChnOpenName(&c, g, "none"); }, MDF_CHN_NAME_NOT_FOUND, -1, 0,
       false},
      // Refused modes are logged; mode 1 is passed on to the group, which refuses it for a file
      // opened for reading.
      {R, R, 0, [&] { return mdfGrpChnOpen(&c, &out, f_, 2, 3); }, kMode, -1, 0, true},
      {R, R, 0, [&] { return mdfGrpChnOpenName(&c, &out, f_, "u16", 1); }, kMode, -1, 0, true},
      // No channel is created in an existing group: one open for modifying, or one open for
      // reading in a file open for modifying (whose channel group a modifying handle writes).
      {M, M, 0, create, kMode, -1, 0, true}, {M, R, 0, create, kMode, -1, 0, true},
  };
  // clang-format on
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& [file_mode, group_mode, cursor, call, status, value, cursor_after, logged] =
        cases[i];
    SCOPED_TRACE(i);
    restart();
    g = open(file, file_mode, group_mode);
    h = {nullptr, open_channel(g, 1), open_channel(g, 2), open_channel(g, 3), open_channel(g, 4)};
    ASSERT_EQ(mdfGrpSeek(g, cursor, MDF_SEEK_ABS), 0);
    const size_t log = mdftest::log_text().size();
    c = nullptr;
    out = nullptr;
    v = -1.0;
    EXPECT_EQ(call(), status);
    EXPECT_EQ(mdftest::log_text().size() > log, logged);
    uint32_t tell = 99;
    EXPECT_EQ(status >= 0 ? mdfGrpTell(&tell, g) : 0, 0);
    if (status < 0) tell = cursor_after;  // not asked after a raised failure
    EXPECT_EQ(std::make_tuple(v, tell, mdfGetErrorCode(), c, out),
              std::make_tuple(value, cursor_after, status < 0 ? status : 0, Ch{},
                              static_cast<mdf_group*>(nullptr)));
  }
  // A stored sticky error is returned at once, before any handle check, and still lets a
  // handle close; it keeps the closes from writing.
  uint16_t u16 = 0;
  EXPECT_EQ(std::make_pair(mdfChnGetType(nullptr, &u16), mdfChnClose(nullptr)),
            std::make_pair(kMode, int16_t{0}));
  mdfClose();
  EXPECT_EQ(mdftest::load_file(file), before);
}

// The coding prepared for a handle follows the setters: a new rule through this handle, a new
// byte offset through another handle on the same CN block (both see the one block image).
TEST_F(ChannelApi, PreparedCodingFollowsRuleAndOffsetSetters) {
  mdf_group* g = open(write(ten_records()), MDF_OPEN_MODIFY);
  Ch a = open_channel(g, 1), b = open_channel(g, 1);
  ASSERT_EQ(mdfGrpSeek(g, 3, MDF_SEEK_ABS), 0);
  // Setter, then the values read through a and b (record 3: u16 771; bytes 2..3 hold 3).
  const std::tuple<std::function<int16_t()>, double, double> steps[] = {
      {[&] { return mdfChnSetFormLin(a, "u", 1.0, 2.0); }, 1543, 771},
      {[&] { return mdfChnSetInfoExt(b, 2, nullptr, nullptr); }, 7, 3},
      {[&] { return mdfChnSetFormLin(a, "u", 0.0, -1.0); }, -3, 3},
  };
  for (const auto& [set, via_a, via_b] : steps) {
    double va = 0, vb = 0;
    const std::vector<int16_t> st = {set(), mdfChnGetPhy(&va, a, 0), mdfChnGetPhy(&vb, b, 0)};
    EXPECT_EQ(std::make_tuple(st, va, vb), std::make_tuple(std::vector<int16_t>(3), via_a, via_b));
  }
}

TEST_F(ChannelApi, ReadAndWriteStepsMoveOnFromTheSecondCall) {
  auto model = ten_records();
  const auto file = write(model);
  mdf_group* g = open(file, MDF_OPEN_MODIFY);
  Ch writer = open_channel(g, 1), reader = open_channel(g, 2), linear = open_channel(g, 5);
  ASSERT_EQ(mdfGrpSeek(g, 2, MDF_SEEK_ABS), 0);
  // The first Write fills record 2 (a Set beside it: raw 10 by the inverse of the linear
  // rule). Two Reads on a new handle read records 2 and 3; the one that moves on stores record
  // 2 first. Each later Write stores the current record and moves on: record 3 stays, 4 and 5
  // are filled; closing the handle stores record 5.
  uint64_t n2 = 0, n3 = 0;
  const std::vector<int16_t> st = {mdfChnWriteHexInt(writer, 1000),
                                   mdfChnSetPhy(linear, 20.5),
                                   mdfChnReadHexInt(&n2, reader),
                                   mdfChnReadHexInt(&n3, reader),
                                   mdfChnWriteHexInt(writer, 2000),
                                   mdfChnWriteHexInt(writer, 3000),
                                   mdfChnClose(writer),
                                   mdfFileClose(f_)};
  EXPECT_EQ(
      std::make_tuple(st, n2, n3),
      std::make_tuple(std::vector<int16_t>(8), (uint64_t{1} << 33) + 2, (uint64_t{1} << 33) + 3));
  auto want = model.data_groups[0].channel_groups[0].records;
  for (const auto& [r, v] : {std::pair<size_t, uint64_t>{2, 1000}, {4, 2000}, {5, 3000}})
    mdftest::put_bits(want[r], 0, 16, v);
  mdftest::put_bits(want[2], 72, 8, 10);
  EXPECT_EQ(mdftest::read_file(file).channel_groups().at(0)->records, want);

  // A created handle moves on at its first Read.
  g = open(path("short.mdf"), MDF_OPEN_CREATE);
  Ch made = nullptr;
  ASSERT_EQ(mdfChnCreate(&made, g, 0, 16, MDF_DT_UINT, "v"), 0);
  for (uint64_t v : {10u, 11u, 12u}) {
    ASSERT_EQ(mdfChnSetHexInt(made, v), 0);
    ASSERT_EQ(mdfGrpWriteAppend(g), 0);
  }
  ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
  ASSERT_EQ(mdfChnReadHexInt(&n2, made), 0);
  EXPECT_EQ(n2, 11u);

  // A created handle writes more records than a 16-bit step counter counts: every Write after
  // the first appends, every Read after the first moves on (the first reads record 0).
  constexpr uint32_t kRecords = 70000;
  const std::string created = path("created.mdf");
  Ch ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, open(created, MDF_OPEN_CREATE), 0, 32, MDF_DT_UINT, "n"), 0);
  for (uint32_t r = 0; r < kRecords; ++r) ASSERT_EQ(mdfChnWriteHexInt(ch, r * 7u), 0) << r;
  ASSERT_EQ(mdfFileClose(f_), 0);
  g = open(created, MDF_OPEN_READ);
  uint32_t records = 0;
  ASSERT_EQ(mdfGrpRecords(&records, g), 0);
  ch = open_channel(g, 1);
  uint64_t v = 0;
  int wrong = 0;
  for (uint32_t r = 0; r < kRecords; ++r) wrong += mdfChnReadHexInt(&v, ch) != 0 || v != r * 7u;
  EXPECT_EQ(std::make_tuple(records, wrong, mdfChnReadHexInt(&v, ch)),
            std::make_tuple(kRecords, 0, kEnd));
}

// ---- Duplicating channels -------------------------------------------------------------------

// A time channel with a linear rule; a level with a range table (with texts and a link 0), a
// comment, long and display names and a module record; an old block of 218 bytes with the
// names in its comment, a polynomial and a value range. Gaps between them: a copy is placed as
// a new channel is, behind the ones before.
mdftest::FileModel duplicate_source() {
  mdftest::FileModel f;
  auto& cg = f.add_data_group().add_channel_group(17);
  auto& t = cg.add_channel("time", 0, 64, MDF_DT_DOUBLE, MDF_CHN_TIME);
  t.conversion = mdftest::linear(0, 0.001, "s");
  t.description = "time";
  auto& level = cg.add_channel("level", 68, 12, MDF_DT_UINT);
  level.conversion =
      mdftest::range_table({{0, 99, "LOW"}, {100, 999, std::nullopt}, {1000, 4095, "HIGH"}}, "lvl");
  level.comment = "level comment";
  level.long_name = "level_long";
  level.display_name = "Level";
  level.extension = mdftest::extension(MDF_CE_DIM, Bytes(122, 0x5A));
  auto& old = cg.add_channel("old_style", 88, 16, MDF_DT_INT_BE);
  old.block_size = 218;
  old.comment = "$Longname: OldLong\n$Displayname: OldDisplay";
  old.conversion = mdftest::params(mdftest::cc::polynomial, {1, 2, 3, 4, 5, 6}, "p");
  old.range_valid = 1;
  old.min = -1.0;
  old.max = 1.0;
  return f;
}

TEST_F(ChannelApi, DuplicatedChannelsCarryTheirPropertiesIntoAnotherFile) {
  const auto source = write(duplicate_source(), "source.mdf");
  const std::string target = path("target.mdf");
  mdf_group* sg = open(source, MDF_OPEN_READ);
  mdf_group* dg = open(target, MDF_OPEN_CREATE);
  Ch to[3];
  for (size_t i = 0; i < 3; ++i) ASSERT_EQ(mdfChnDuplicate(&to[i], dg, open_channel(sg, i + 1)), 0);
  // Properties set on the copies reach the file as well: a name that fills its field, a
  // description cut to 128 characters, a comment removed, the raster and both value ranges,
  // which a copy does not take over (both copies asked have a rule and no valid range). A
  // second handle on a block sees the changes of the first.
  double lo = 0, hi = 0, raster = 0;
  const Ch old_again = open_channel(dg, 3);
  const std::vector<int16_t> st = {
      mdfChnGetHexRange(&lo, &hi, to[2]),
      mdfChnGetPhyRange(&lo, &hi, to[2]),
      mdfChnGetPhyRange(&lo, &hi, to[0]),
      mdfChnSetInfo(to[1], kName32.c_str(), std::string(140, 'd').c_str(), ""),
      mdfChnSetRaster(old_again, 0.25),
      mdfChnSetHexRange(old_again, -3.0, 1000.0),
      mdfChnSetPhyRange(to[0], 1.5, 2.5),
      mdfChnGetRaster(to[2], &raster),
      mdfChnGetHexRange(&lo, &hi, to[2]),
      mdfFileClose(f_)};
  const int16_t k = MDF_RANGE_UNKNOWN;
  const std::vector<int16_t> want_st = {k, k, k, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::make_tuple(st, raster, lo, hi), std::make_tuple(want_st, 0.25, -3.0, 1000.0));

  // On disk: every property of the source but its place, the rules (with the texts of a range
  // table) and the module record, the names a short source block keeps in its comment.
  const auto rs = mdftest::read_file(source), rt = mdftest::read_file(target);
  ASSERT_TRUE(rt.ok()) << rt.error_text();
  const auto &cs = rs.channel_groups().at(0)->channels, &ct = rt.channel_groups().at(0)->channels;
  ASSERT_EQ(ct.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(cs[i].name);
    mdftest::ChannelFields want = cs[i];
    want.first_bit = std::array<uint16_t, 3>{0, 64, 80}[i];
    std::tie(want.range_valid, want.min, want.max, want.sample_rate) =
        i == 2 ? std::make_tuple(uint16_t{1}, -3.0, 1000.0, 0.25)
               : std::make_tuple(uint16_t{0}, 0.0, 0.0, cs[i].sample_rate);
    if (i == 1) {
      want.name = kName32;
      want.description = std::string(128, 'd');
    }
    mdftest::ConversionFields want_cc = *cs[i].conversion;
    if (i == 0) {
      want_cc.range_valid = 1;
      want_cc.min = 1.5;
      want_cc.max = 2.5;
    }
    EXPECT_TRUE(static_cast<const mdftest::ChannelFields&>(ct[i]) == want);
    EXPECT_TRUE(static_cast<const mdftest::ConversionFields&>(*ct[i].conversion) == want_cc);
    EXPECT_EQ(ct[i].extension.has_value(), i == 1);
    EXPECT_EQ(std::tie(ct[i].block_size, ct[i].comment, ct[i].long_name, ct[i].display_name),
              std::make_tuple(228, i == 1 ? std::nullopt : cs[i].comment,
                              i == 2 ? "OldLong" : cs[i].long_name,
                              i == 2 ? "OldDisplay" : cs[i].display_name));
  }
  EXPECT_TRUE(static_cast<const mdftest::ExtensionFields&>(*ct[1].extension) == *cs[1].extension);
}

}  // namespace
