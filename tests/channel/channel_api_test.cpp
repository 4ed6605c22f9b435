// The channel functions through the C interface: opening, creating, duplicating, properties
// and values. Files are made with the test-side builder or through the library and checked
// with the test-side reader, which know the block layouts independently of the library.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;
using mdftest::ByteOrder;

constexpr ByteOrder kIntel = ByteOrder::intel;
constexpr ByteOrder kMotorola = ByteOrder::motorola;

// The library logs into "KORVEL.LOG" in the working directory, made at the first line a
// process logs. Test programs run side by side (one process per test under ctest); a working
// directory of their own keeps them from writing into each other's log.
class OwnWorkingDirectory : public ::testing::Environment {
 public:
  void SetUp() override {
    old_ = fs::current_path();
    dir_ = mdftest::scratch_dir("korvel_chn_cwd");
    fs::current_path(dir_);
  }
  void TearDown() override {
    fs::current_path(old_);
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

 private:
  fs::path old_, dir_;
};
[[maybe_unused]] ::testing::Environment* const g_own_directory =
    ::testing::AddGlobalTestEnvironment(new OwnWorkingDirectory);

class ChannelApi : public ::testing::Test {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
    // The log file is made (and an old one emptied) at the first line of the process; make
    // it now so that its size tells which calls add a line.
    mdfPrintMessage(::testing::UnitTest::GetInstance()->current_test_info()->name());
    dir_ = mdftest::scratch_dir("korvel_chn");
  }
  void TearDown() override {
    mdfClose();
    fs::remove_all(dir_);
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  std::string write(const mdftest::FileModel& model, const std::string& name = "in.mdf") {
    mdftest::write_file(path(name), mdftest::build(model).bytes);
    return path(name);
  }
  // A fresh library session: a raised failure leaves a sticky error behind.
  static void restart() {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
  }
  fs::path dir_;
};

// Size of the library's log file in the working directory; raised statuses add a line.
std::uintmax_t log_size() {
  std::error_code ec;
  const auto n = fs::file_size("KORVEL.LOG", ec);
  return ec ? 0 : n;
}

std::string name_of(channelnode* ch) {
  const char* name = nullptr;
  if (mdfChnGetName(ch, &name) != 0 || name == nullptr) return "<error>";
  return name;
}

uint64_t mask_of(unsigned bits) {
  return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
}

int64_t sign_extend(uint64_t v, unsigned bits) {
  if (bits >= 64) return static_cast<int64_t>(v);
  const uint64_t sign = uint64_t{1} << (bits - 1);
  return static_cast<int64_t>((v ^ sign) - sign);
}

uint64_t mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// A VAX F number from the value of an IEEE single: the same fraction with the hidden bit
// written as 0.1f instead of 1.f (exponent bias 128 instead of 127, so +2), stored as two
// 16-bit words, the word with sign and exponent first, each word low byte first.
std::array<uint8_t, 4> vax_f_bytes(float f) {
  const uint32_t b = std::bit_cast<uint32_t>(f);
  if ((b & 0x7FFFFFFFu) == 0) return {0, 0, 0, 0};
  const uint32_t sign = b >> 31;
  const uint32_t exponent = ((b >> 23) & 0xFF) + 2;
  const uint32_t fraction = b & 0x7FFFFF;
  const auto w0 = static_cast<uint16_t>((sign << 15) | (exponent << 7) | (fraction >> 16));
  const auto w1 = static_cast<uint16_t>(fraction & 0xFFFF);
  return {static_cast<uint8_t>(w0), static_cast<uint8_t>(w0 >> 8), static_cast<uint8_t>(w1),
          static_cast<uint8_t>(w1 >> 8)};
}

// ---- The end-to-end case: every data type through 10,000 records ----------------------------

enum class Kind { time, unsigned_int, signed_int, ieee, vax_f, text, bytes };

struct Column {
  std::string name;
  uint16_t value_type = 0;
  uint16_t bits = 0;
  Kind kind = Kind::unsigned_int;
  ByteOrder order = kIntel;
  uint32_t first_bit = 0;  // where the packing rule puts it (computed here, not asked)
  uint32_t bytes() const { return bits / 8u; }
  uint32_t span() const { return ((first_bit & 7u) + bits + 7u) / 8u; }
  bool integer() const { return kind == Kind::unsigned_int || kind == Kind::signed_int; }
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

uint32_t record_bytes(const std::vector<Column>& columns) {
  const auto& last = columns.back();
  return (last.first_bit + last.bits + 7u) / 8u;
}

std::vector<Column> every_data_type() {
  std::vector<Column> cs;
  cs.push_back({"time", MDF_DT_DOUBLE, 64, Kind::time, kIntel});
  struct IntegerCode {
    uint16_t code;
    Kind kind;
    ByteOrder order;
    bool every_width;
  };
  const IntegerCode codes[] = {
      {MDF_DT_UINT_LE, Kind::unsigned_int, kIntel, true},
      {MDF_DT_INT_BE, Kind::signed_int, kMotorola, true},
      {MDF_DT_UINT_BE, Kind::unsigned_int, kMotorola, true},
      {MDF_DT_INT_LE, Kind::signed_int, kIntel, true},
      {MDF_DT_UINT, Kind::unsigned_int, kIntel, false},
      {MDF_DT_INT, Kind::signed_int, kIntel, false},
  };
  const uint16_t some_widths[] = {1, 2, 5, 8, 12, 16, 23, 32, 33, 40, 57, 63, 64};
  for (const auto& ic : codes) {
    std::vector<uint16_t> widths;
    if (ic.every_width) {
      for (uint16_t b = 1; b <= 64; ++b) widths.push_back(b);
    } else {
      widths.assign(std::begin(some_widths), std::end(some_widths));
    }
    for (uint16_t b : widths) {
      cs.push_back(
          {"c" + std::to_string(ic.code) + "_" + std::to_string(b), ic.code, b, ic.kind, ic.order});
    }
  }
  cs.push_back({"float_default", MDF_DT_FLOAT, 32, Kind::ieee, kIntel});
  cs.push_back({"double_default", MDF_DT_DOUBLE, 64, Kind::ieee, kIntel});
  cs.push_back({"float_be", MDF_DT_FLOAT_BE, 32, Kind::ieee, kMotorola});
  cs.push_back({"double_be", MDF_DT_DOUBLE_BE, 64, Kind::ieee, kMotorola});
  cs.push_back({"float_le", MDF_DT_FLOAT_LE, 32, Kind::ieee, kIntel});
  cs.push_back({"double_le", MDF_DT_DOUBLE_LE, 64, Kind::ieee, kIntel});
  cs.push_back({"vax_f", MDF_DT_VAX_F, 32, Kind::vax_f, kIntel});
  cs.push_back({"bit_after_vax", MDF_DT_UINT, 1, Kind::unsigned_int, kIntel});
  cs.push_back({"text8", MDF_DT_STRING, 64, Kind::text, kIntel});
  cs.push_back({"text3", MDF_DT_STRING, 24, Kind::text, kIntel});
  cs.push_back({"bytes5", MDF_DT_BYTES, 40, Kind::bytes, kIntel});
  cs.push_back({"bytes1", MDF_DT_BYTES, 8, Kind::bytes, kIntel});
  place(cs);
  return cs;
}

// The value of column `col` in record `r` for a given seed.
struct Values {
  uint64_t seed;

  uint64_t noise(size_t col, uint32_t r) const {
    return mix(seed ^ (static_cast<uint64_t>(col) << 40) ^ r);
  }
  double time(uint32_t r) const {
    return static_cast<double>(r) * 0.001 + static_cast<double>(seed);
  }
  // Raw field bits of an integer column, with the extremes mixed in.
  uint64_t field(const Column& c, size_t col, uint32_t r) const {
    const uint64_t m = mask_of(c.bits);
    switch ((r + col + seed) % 5) {
      case 0:
        return m;
      case 1:
        return 0;
      case 2:
        return uint64_t{1} << (c.bits - 1);
      default:
        return noise(col, r) & m;
    }
  }
  // The raw value an integer column decodes to (two's complement for signed columns).
  uint64_t raw(const Column& c, size_t col, uint32_t r) const {
    const uint64_t f = field(c, col, r);
    return c.kind == Kind::signed_int ? static_cast<uint64_t>(sign_extend(f, c.bits)) : f;
  }
  double raw_double(const Column& c, size_t col, uint32_t r) const {
    const uint64_t f = field(c, col, r);
    return c.kind == Kind::signed_int ? static_cast<double>(sign_extend(f, c.bits))
                                      : static_cast<double>(f);
  }
  // The double handed to the library for a float column, and what it must decode to.
  double given(size_t col, uint32_t r) const {
    return static_cast<double>(static_cast<int32_t>(noise(col, r))) / 3.0;
  }
  double stored(const Column& c, size_t col, uint32_t r) const {
    const double g = given(col, r);
    return c.bits == 32 || c.kind == Kind::vax_f ? static_cast<double>(static_cast<float>(g)) : g;
  }
  // Bytes of a text or byte-array column; a text holds a terminator in some records.
  std::vector<uint8_t> data(const Column& c, size_t col, uint32_t r) const {
    std::vector<uint8_t> d(c.bytes());
    const uint64_t n = noise(col, r);
    for (size_t i = 0; i < d.size(); ++i) {
      d[i] = c.kind == Kind::text ? static_cast<uint8_t>('a' + (n >> (5 * i)) % 26)
                                  : static_cast<uint8_t>(n >> (8 * (i % 8)));
    }
    if (c.kind == Kind::text && r % 3 != 0) d[(n >> 60) % d.size()] = 0;
    return d;
  }
};

// Which Set function writes a column: integers rotate through HexInt, Hex and Phy (Hex and
// Phy only where the raw value fits a double path), floats through Hex and Phy.
enum class Setter { hex_int, hex, phy, data };
Setter setter_of(const Column& c, size_t col) {
  switch (c.kind) {
    case Kind::unsigned_int:
    case Kind::signed_int:
      if (c.span() > 4) return Setter::hex_int;
      return col % 3 == 0 ? Setter::hex_int : col % 3 == 1 ? Setter::hex : Setter::phy;
    case Kind::ieee:
      return col % 2 == 0 ? Setter::hex : Setter::phy;
    case Kind::vax_f:
    case Kind::time:
      return Setter::phy;
    case Kind::text:
    case Kind::bytes:
      return Setter::data;
  }
  return Setter::data;
}

int16_t set_value(channelnode* ch, const Column& c, size_t col, uint32_t r, const Values& v) {
  switch (setter_of(c, col)) {
    case Setter::hex_int:
      // Signed fields take the two's-complement bits; the field keeps its low bits.
      return mdfChnSetHexInt(ch, v.raw(c, col, r));
    case Setter::hex:
      return mdfChnSetHex(ch, c.integer() ? v.raw_double(c, col, r) : v.given(col, r));
    case Setter::phy:
      return mdfChnSetPhy(ch, c.integer() ? v.raw_double(c, col, r) : v.given(col, r));
    case Setter::data: {
      const auto d = v.data(c, col, r);
      return mdfChnSetData(ch, d.data(), static_cast<uint32_t>(d.size()));
    }
  }
  return -1;
}

// Collects mismatches and reports the first few, so that a broken encoder does not flood
// the output with thousands of lines.
class Mismatches {
 public:
  // `where` is a description, or a callable that makes one; it is only used on failure.
  template <class Where, class A, class B>
  void check(bool ok, const Where& where, const A& got, const B& want) {
    if (ok) return;
    if (++count_ <= 5) {
      std::string text;
      if constexpr (std::is_invocable_v<Where>) {
        text = where();
      } else {
        text = where;
      }
      ADD_FAILURE() << text << ": got " << ::testing::PrintToString(got) << ", want "
                    << ::testing::PrintToString(want);
    }
  }
  int count() const { return count_; }

 private:
  int count_ = 0;
};

// A description of a value's place, made only when a check fails.
auto at(const Column& c, uint32_t r, const char* how) {
  return [&c, r, how] { return c.name + " record " + std::to_string(r) + " (" + how + ")"; };
}

// Checks the text or byte-array value that a Data function copied: a text copy stops after
// the first zero byte it copies and leaves the rest of the buffer alone.
void check_data(Mismatches& m, const Column& c, uint32_t r, const std::vector<uint8_t>& want,
                const std::vector<uint8_t>& buffer, uint32_t length, int16_t st, const char* how) {
  m.check(st == 0 && length == c.bytes(), at(c, r, how), std::make_pair(st, length), c.bytes());
  std::vector<uint8_t> expected = want;
  expected.resize(buffer.size(), 0xEE);
  if (c.kind == Kind::text) {
    for (size_t i = 0; i < want.size(); ++i) {
      if (want[i] == 0) {
        std::fill(expected.begin() + static_cast<std::ptrdiff_t>(i) + 1, expected.end(), 0xEE);
        break;
      }
    }
  }
  m.check(buffer == expected, at(c, r, how), buffer, expected);
}

// One value through a Read function of the column's kind.
void read_and_check(Mismatches& m, channelnode* ch, const Column& c, size_t col, uint32_t r,
                    const Values& v) {
  switch (c.kind) {
    case Kind::time: {
      double x = -1;
      const int16_t st = mdfChnReadPhy(&x, ch);
      m.check(st == 0 && x == v.time(r), at(c, r, "ReadPhy"), x, v.time(r));
      break;
    }
    case Kind::unsigned_int:
    case Kind::signed_int:
      if (col % 3 == 1 && c.span() <= 4) {
        double x = -1;
        const int16_t st = mdfChnReadHex(&x, ch);
        m.check(st == 0 && x == v.raw_double(c, col, r), at(c, r, "ReadHex"), x,
                v.raw_double(c, col, r));
      } else if (col % 3 == 2) {
        double x = -1;
        const int16_t st = mdfChnReadPhy(&x, ch);
        m.check(st == 0 && x == v.raw_double(c, col, r), at(c, r, "ReadPhy"), x,
                v.raw_double(c, col, r));
      } else {
        uint64_t x = 1;
        const int16_t st = mdfChnReadHexInt(&x, ch);
        m.check(st == 0 && x == v.raw(c, col, r), at(c, r, "ReadHexInt"), x, v.raw(c, col, r));
      }
      break;
    case Kind::ieee:
    case Kind::vax_f: {
      double x = -1;
      const int16_t st = col % 2 == 0 ? mdfChnReadHex(&x, ch) : mdfChnReadPhy(&x, ch);
      m.check(st == 0 && x == v.stored(c, col, r), at(c, r, "Read float"), x, v.stored(c, col, r));
      break;
    }
    case Kind::text:
    case Kind::bytes: {
      std::vector<uint8_t> buffer(c.bytes() + 3, 0xEE);
      auto length = static_cast<uint32_t>(buffer.size());
      const int16_t st = mdfChnReadData(buffer.data(), &length, ch);
      check_data(m, c, r, v.data(c, col, r), buffer, length, st, "ReadData");
      break;
    }
  }
}

// One value through every Get function that applies to the column.
void get_and_check(Mismatches& m, channelnode* ch, const Column& c, size_t col, uint32_t r,
                   const Values& v) {
  double x = -1;
  uint64_t n = 1;
  switch (c.kind) {
    case Kind::time:
      m.check(mdfChnGetPhy(&x, ch, 0) == 0 && x == v.time(r), at(c, r, "GetPhy"), x, v.time(r));
      break;
    case Kind::unsigned_int:
    case Kind::signed_int: {
      m.check(mdfChnGetHexInt(&n, ch, 0) == 0 && n == v.raw(c, col, r), at(c, r, "GetHexInt"), n,
              v.raw(c, col, r));
      const double want = v.raw_double(c, col, r);
      m.check(mdfChnGetPhy(&x, ch, 0) == 0 && x == want, at(c, r, "GetPhy"), x, want);
      // Raw as double is for fields of at most four bytes.
      const int16_t st = mdfChnGetHex(&x, ch, 0);
      if (c.span() <= 4) {
        m.check(st == 0 && x == want, at(c, r, "GetHex"), x, want);
      } else {
        m.check(st == MDF_UNSUPPORTED_TYPE && x == 0.0, at(c, r, "GetHex wide"), st,
                MDF_UNSUPPORTED_TYPE);
      }
      break;
    }
    case Kind::ieee:
    case Kind::vax_f:
      m.check(mdfChnGetHex(&x, ch, 0) == 0 && x == v.stored(c, col, r), at(c, r, "GetHex"), x,
              v.stored(c, col, r));
      m.check(mdfChnGetPhy(&x, ch, 0) == 0 && x == v.stored(c, col, r), at(c, r, "GetPhy"), x,
              v.stored(c, col, r));
      m.check(mdfChnGetHexInt(&n, ch, 0) == MDF_UNSUPPORTED_TYPE, at(c, r, "GetHexInt float"), n,
              0);
      break;
    case Kind::text:
    case Kind::bytes: {
      std::vector<uint8_t> buffer(c.bytes() + 3, 0xEE);
      auto length = static_cast<uint32_t>(buffer.size());
      const int16_t st = mdfChnGetData(buffer.data(), &length, ch, 0);
      check_data(m, c, r, v.data(c, col, r), buffer, length, st, "GetData");
      break;
    }
  }
}

// Checks the records of a file with the test-side reader: count, size, positions and the
// bytes of every value; bits that belong to no channel stay zero.
void check_file_bytes(const std::string& file, const std::vector<Column>& cs, uint32_t records,
                      const Values& v) {
  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto groups = rf.channel_groups();
  ASSERT_EQ(groups.size(), 1u);
  const auto& cg = *groups[0];
  EXPECT_EQ(cg.record_count, records);
  ASSERT_EQ(cg.records.size(), records);
  EXPECT_EQ(cg.record_size, record_bytes(cs));
  EXPECT_EQ(cg.cn_count, cs.size());
  ASSERT_EQ(cg.channels.size(), cs.size());
  for (size_t i = 0; i < cs.size(); ++i) {
    const auto& cn = cg.channels[i];
    EXPECT_EQ(cn.name, cs[i].name);
    EXPECT_EQ(cn.first_bit, cs[i].first_bit) << cs[i].name;
    EXPECT_EQ(cn.bit_count, cs[i].bits) << cs[i].name;
    EXPECT_EQ(cn.data_type, cs[i].value_type) << cs[i].name;
    EXPECT_EQ(cn.channel_type, cs[i].kind == Kind::time ? 1 : 0) << cs[i].name;
    EXPECT_EQ(cn.additional_byte_offset, 0) << cs[i].name;
  }
  // Bits of the record that no channel covers. A Motorola field counts its bits from the
  // least significant bit of the last byte of its span.
  std::vector<uint8_t> free_bits(cg.record_size, 0xFF);
  for (const auto& c : cs) {
    const uint32_t first_byte = c.first_bit / 8;
    for (uint32_t k = c.first_bit % 8; k < c.first_bit % 8 + c.bits; ++k) {
      const uint32_t byte =
          c.order == kMotorola ? first_byte + c.span() - 1 - k / 8 : first_byte + k / 8;
      free_bits[byte] = static_cast<uint8_t>(free_bits[byte] & ~(1u << (k % 8)));
    }
  }
  Mismatches m;
  for (uint32_t r = 0; r < records; ++r) {
    const std::span<const uint8_t> rec = cg.records[r];
    for (size_t i = 0; i < rec.size(); ++i) {
      m.check((rec[i] & free_bits[i]) == 0,
              [r] { return "free bits of record " + std::to_string(r); }, rec[i], 0);
    }
    for (size_t col = 0; col < cs.size(); ++col) {
      const Column& c = cs[col];
      const size_t byte = c.first_bit / 8;
      switch (c.kind) {
        case Kind::time:
          m.check(mdftest::get_f64(rec, byte) == v.time(r), at(c, r, "bytes"),
                  mdftest::get_f64(rec, byte), v.time(r));
          break;
        case Kind::unsigned_int:
        case Kind::signed_int: {
          const uint64_t got = mdftest::get_bits(rec, c.first_bit, c.bits, c.order);
          m.check(got == v.field(c, col, r), at(c, r, "bytes"), got, v.field(c, col, r));
          break;
        }
        case Kind::ieee: {
          const double got = c.bits == 32 ? mdftest::get_f32(rec, byte, c.order)
                                          : mdftest::get_f64(rec, byte, c.order);
          m.check(got == v.stored(c, col, r), at(c, r, "bytes"), got, v.stored(c, col, r));
          break;
        }
        case Kind::vax_f: {
          const auto want = vax_f_bytes(static_cast<float>(v.given(col, r)));
          const std::array<uint8_t, 4> got = {rec[byte], rec[byte + 1], rec[byte + 2],
                                              rec[byte + 3]};
          m.check(got == want, at(c, r, "bytes"), got, want);
          break;
        }
        case Kind::text:
        case Kind::bytes: {
          const std::vector<uint8_t> got(
              rec.begin() + static_cast<std::ptrdiff_t>(byte),
              rec.begin() + static_cast<std::ptrdiff_t>(byte + c.bytes()));
          m.check(got == v.data(c, col, r), at(c, r, "bytes"), got, v.data(c, col, r));
          break;
        }
      }
    }
  }
  EXPECT_EQ(m.count(), 0);
}

// Opens every channel of group 1 and checks every record row by row: mdfGrpSeek, then the Get
// functions.
void check_rows(mdf_group* g, const std::vector<Column>& cs, uint32_t records, const Values& v) {
  std::vector<channelnode*> handles(cs.size());
  for (size_t i = 0; i < cs.size(); ++i) {
    ASSERT_EQ(mdfChnOpen(&handles[i], g, static_cast<uint16_t>(i + 1)), 0);
  }
  Mismatches m;
  for (uint32_t r = 0; r < records; ++r) {
    const int16_t st = r == 0 ? mdfGrpSeek(g, 0, MDF_SEEK_ABS) : mdfGrpSeek(g, 1, MDF_SEEK_REL);
    ASSERT_EQ(st, 0) << r;
    for (size_t col = 0; col < cs.size(); ++col) get_and_check(m, handles[col], cs[col], col, r, v);
  }
  EXPECT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_REL), MDF_END_OF_GROUP);
  EXPECT_EQ(m.count(), 0);
  for (auto* h : handles) EXPECT_EQ(mdfChnClose(h), 0);
}

TEST_F(ChannelApi, TenThousandRecordsOfEveryDataTypeWrittenReadAndRewritten) {
  const auto cs = every_data_type();
  constexpr uint32_t kRecords = 10000;
  const Values first{1};
  const std::string file = path("all_types.mdf");

  // Create: the time channel written with mdfChnWritePhy, every other value set after it.
  {
    mdf_file* f = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_CREATE), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
    std::vector<channelnode*> hs;
    for (const auto& c : cs) {
      channelnode* ch = nullptr;
      ASSERT_EQ(mdfChnCreate(&ch, g, c.kind == Kind::time ? MDF_CHN_TIME : MDF_CHN_DATA, c.bits,
                             c.value_type, c.name.c_str()),
                0)
          << c.name;
      uint8_t bit = 0xFF;
      uint32_t byte = 0;
      ASSERT_EQ(mdfChnGetBitAndByteOffset(ch, &bit, &byte), 0);
      EXPECT_EQ(byte * 8 + bit, c.first_bit) << c.name;
      hs.push_back(ch);
    }
    ASSERT_EQ(mdfGrpBuffer(nullptr, g), static_cast<int32_t>(record_bytes(cs)) + 24);
    for (uint32_t r = 0; r < kRecords; ++r) {
      ASSERT_EQ(mdfChnWritePhy(hs[0], first.time(r)), 0) << r;
      for (size_t col = 1; col < cs.size(); ++col) {
        ASSERT_EQ(set_value(hs[col], cs[col], col, r, first), 0) << cs[col].name << " " << r;
      }
    }
    // The last record is still in the buffer; closing the group stores it.
    uint32_t count = 0;
    ASSERT_EQ(mdfGrpRecords(&count, g), 0);
    EXPECT_EQ(count, kRecords - 1);
    ASSERT_EQ(mdfGrpClose(g), 0);
    ASSERT_EQ(mdfFileClose(f), 0);
  }
  check_file_bytes(file, cs, kRecords, first);

  // Read back: each channel through its own handle with a Read function from record 0.
  {
    mdf_file* f = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
    uint16_t channels = 0;
    uint32_t records = 0;
    ASSERT_EQ(mdfGrpChannels(&channels, g), 0);
    ASSERT_EQ(mdfGrpRecords(&records, g), 0);
    EXPECT_EQ(channels, cs.size());
    EXPECT_EQ(records, kRecords);
    Mismatches m;
    for (size_t col = 0; col < cs.size(); ++col) {
      ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
      channelnode* ch = nullptr;
      ASSERT_EQ(mdfChnOpen(&ch, g, static_cast<uint16_t>(col + 1)), 0);
      uint16_t type = 9, bits = 0, value_type = 99;
      const char* name = nullptr;
      ASSERT_EQ(mdfChnGetInfo(ch, &type, &bits, &value_type, &name, nullptr, nullptr), 0);
      EXPECT_EQ(name, cs[col].name);
      EXPECT_EQ(type, cs[col].kind == Kind::time ? 1 : 0);
      EXPECT_EQ(bits, cs[col].bits);
      EXPECT_EQ(value_type, cs[col].value_type);
      for (uint32_t r = 0; r < kRecords; ++r) read_and_check(m, ch, cs[col], col, r, first);
      // One read past the last record.
      double x = 0;
      EXPECT_EQ(mdfChnReadPhy(&x, ch), MDF_END_OF_GROUP) << cs[col].name;
      EXPECT_EQ(mdfChnClose(ch), 0);
    }
    EXPECT_EQ(m.count(), 0);
    check_rows(g, cs, kRecords, first);
    ASSERT_EQ(mdfFileClose(f), 0);
  }

  // Rewrite in place: mode 1, Set every value of a record, mdfGrpWrite.
  const Values second{2};
  {
    mdf_file* f = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_MODIFY), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_MODIFY), 0);
    std::vector<channelnode*> hs(cs.size());
    for (size_t i = 0; i < cs.size(); ++i) {
      ASSERT_EQ(mdfChnOpen(&hs[i], g, static_cast<uint16_t>(i + 1)), 0);
    }
    for (uint32_t r = 0; r < kRecords; ++r) {
      ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
      ASSERT_EQ(mdfChnSetPhy(hs[0], second.time(r)), 0);
      for (size_t col = 1; col < cs.size(); ++col) {
        ASSERT_EQ(set_value(hs[col], cs[col], col, r, second), 0) << cs[col].name << " " << r;
      }
      ASSERT_EQ(mdfGrpWrite(g), 0) << r;
    }
    ASSERT_EQ(mdfFileClose(f), 0);
  }
  check_file_bytes(file, cs, kRecords, second);
  {
    mdf_file* f = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
    check_rows(g, cs, kRecords, second);
    ASSERT_EQ(mdfFileClose(f), 0);
  }
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// ---- Creating channels ----------------------------------------------------------------------

struct PackCase {
  std::vector<std::pair<uint16_t, uint16_t>> channels;  // (value type, bits)
  std::vector<uint32_t> first_bits;
  uint16_t record_size;
};

TEST_F(ChannelApi, CreatedChannelsArePackedBehindEachOther) {
  const PackCase cases[] = {
      {{{0, 1}, {0, 3}, {0, 6}}, {0, 1, 8}, 2},  // 6 bits do not fit into the 4 left
      {{{0, 4}, {0, 4}, {0, 1}}, {0, 4, 8}, 2},
      {{{0, 3}, {0, 5}, {0, 1}}, {0, 3, 8}, 2},  // 3 + 5 fill the byte exactly
      {{{0, 7}, {0, 2}}, {0, 8}, 2},
      {{{0, 2}, {2, 32}, {0, 3}}, {0, 8, 40}, 6},
      {{{0, 1}, {7, 16}, {0, 8}}, {0, 8, 24}, 4},
      {{{13, 12}, {0, 4}, {0, 4}}, {0, 12, 16}, 3},
      {{{10, 64}, {0, 1}, {9, 9}}, {0, 64, 72}, 11},
      {{{8, 8}, {14, 7}, {14, 1}, {14, 1}}, {0, 8, 15, 16}, 3},
  };
  int n = 0;
  for (const auto& pc : cases) {
    SCOPED_TRACE(n);
    const std::string file = path("pack" + std::to_string(n++) + ".mdf");
    mdf_file* f = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_CREATE), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
    for (size_t i = 0; i < pc.channels.size(); ++i) {
      channelnode* ch = nullptr;
      const std::string name = "v" + std::to_string(i);
      ASSERT_EQ(mdfChnCreate(&ch, g, 0, pc.channels[i].second, pc.channels[i].first, name.c_str()),
                0);
      uint8_t bit = 0xFF;
      uint32_t byte = 0;
      ASSERT_EQ(mdfChnGetBitAndByteOffset(ch, &bit, &byte), 0);
      EXPECT_EQ(byte * 8 + bit, pc.first_bits[i]) << i;
    }
    EXPECT_EQ(mdfGrpBuffer(nullptr, g), pc.record_size + 24);
    ASSERT_EQ(mdfFileClose(f), 0);
    const auto rf = mdftest::read_file(file);
    ASSERT_TRUE(rf.ok()) << rf.error_text();
    const auto& cg = *rf.channel_groups().at(0);
    EXPECT_EQ(cg.record_size, pc.record_size);
    EXPECT_EQ(cg.cn_count, pc.channels.size());
    ASSERT_EQ(cg.channels.size(), pc.channels.size());
    for (size_t i = 0; i < pc.channels.size(); ++i) {
      EXPECT_EQ(cg.channels[i].first_bit, pc.first_bits[i]) << i;
      EXPECT_EQ(cg.channels[i].block_size, 228) << i;
    }
  }
}

TEST_F(ChannelApi, PositionsBeyond65535BitsUseTheAdditionalByteOffset) {
  const std::string file = path("far.mdf");
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
  channelnode *big = nullptr, *last_byte = nullptr, *far = nullptr, *farther = nullptr;
  ASSERT_EQ(mdfChnCreate(&big, g, 0, 65528, MDF_DT_BYTES, "big"), 0);  // bytes 0..8190
  ASSERT_EQ(mdfChnCreate(&last_byte, g, 0, 8, MDF_DT_UINT, "at8191"), 0);
  ASSERT_EQ(mdfChnCreate(&far, g, 0, 8, MDF_DT_UINT, "at8192"), 0);
  ASSERT_EQ(mdfChnCreate(&farther, g, 0, 16, MDF_DT_UINT, "at8193"), 0);
  struct Expect {
    channelnode* ch;
    uint32_t byte;
    uint16_t extra;
  };
  for (const auto& e :
       {Expect{last_byte, 8191, 0}, Expect{far, 8192, 8192}, Expect{farther, 8193, 8192}}) {
    uint8_t bit = 0xFF;
    uint32_t byte = 0;
    uint16_t extra = 1;
    ASSERT_EQ(mdfChnGetBitAndByteOffset(e.ch, &bit, &byte), 0);
    ASSERT_EQ(mdfChnGetInfoExt(e.ch, &extra, nullptr, nullptr), 0);
    EXPECT_EQ(bit, 0);
    EXPECT_EQ(byte, e.byte);
    EXPECT_EQ(extra, e.extra);
  }
  EXPECT_EQ(mdfGrpBuffer(nullptr, g), 8195 + 24);
  // One record, written through a Write function: closing the file stores it.
  ASSERT_EQ(mdfChnWriteHexInt(far, 0xA5), 0);
  ASSERT_EQ(mdfChnSetHexInt(farther, 0x1234), 0);
  ASSERT_EQ(mdfFileClose(f), 0);

  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto& cg = *rf.channel_groups().at(0);
  ASSERT_EQ(cg.channels.size(), 4u);
  EXPECT_EQ(cg.channels[1].first_bit, 65528);
  EXPECT_EQ(cg.channels[1].additional_byte_offset, 0);
  EXPECT_EQ(cg.channels[2].first_bit, 0);
  EXPECT_EQ(cg.channels[2].additional_byte_offset, 8192);
  EXPECT_EQ(cg.channels[3].first_bit, 8);
  EXPECT_EQ(cg.channels[3].additional_byte_offset, 8192);
  ASSERT_EQ(cg.records.size(), 1u);
  EXPECT_EQ(cg.records[0].at(8192), 0xA5);
  EXPECT_EQ(cg.records[0].at(8193), 0x34);
  EXPECT_EQ(cg.records[0].at(8194), 0x12);
}

TEST_F(ChannelApi, RecordsOfMoreThan65524BytesAreRefused) {
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, path("wide.mdf").c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
  channelnode* ch = nullptr;
  for (int i = 0; i < 7; ++i) {
    ASSERT_EQ(mdfChnCreate(&ch, g, 0, 65528, MDF_DT_BYTES, "block"), 0);  // 7 x 8191 bytes
  }
  // 57337 + 8188 bytes: the record ends at byte 65524, the last allowed.
  ASSERT_EQ(mdfChnCreate(&ch, g, 0, 8188 * 8, MDF_DT_BYTES, "fits"), 0);
  EXPECT_EQ(mdfGrpBuffer(nullptr, g), 65525 + 24);
  const auto before = log_size();
  EXPECT_EQ(mdfChnCreate(&ch, g, 0, 1, MDF_DT_UINT, "one_bit_more"), MDF_ERR_CHANNEL_BITS);
  EXPECT_EQ(ch, nullptr);
  EXPECT_GT(log_size(), before);
  EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_CHANNEL_BITS);
}

TEST_F(ChannelApi, ValueTypesAreNormalisedByTheirBitCount) {
  struct Case {
    uint16_t value_type, bits;
    uint16_t want_type, want_bits;
  };
  const Case cases[] = {
      {MDF_DT_FLOAT, 64, MDF_DT_DOUBLE, 64},       {MDF_DT_FLOAT_LE, 64, MDF_DT_DOUBLE_LE, 64},
      {MDF_DT_FLOAT_BE, 64, MDF_DT_DOUBLE_BE, 64}, {MDF_DT_DOUBLE, 32, MDF_DT_FLOAT, 32},
      {MDF_DT_DOUBLE_LE, 32, MDF_DT_FLOAT_LE, 32}, {MDF_DT_DOUBLE_BE, 32, MDF_DT_FLOAT_BE, 32},
      {MDF_DT_FLOAT_LE, 16, MDF_DT_FLOAT_LE, 32},  {MDF_DT_FLOAT, 8, MDF_DT_FLOAT, 32},
      {MDF_DT_DOUBLE, 8, MDF_DT_DOUBLE, 64},       {MDF_DT_DOUBLE_BE, 0, MDF_DT_DOUBLE_BE, 64},
      {MDF_DT_VAX_F, 64, MDF_DT_VAX_F, 32},        {MDF_DT_VAX_F, 1, MDF_DT_VAX_F, 32},
      {MDF_DT_UINT, 64, MDF_DT_UINT, 64},          {MDF_DT_INT_BE, 1, MDF_DT_INT_BE, 1},
      {MDF_DT_STRING, 16, MDF_DT_STRING, 16},      {MDF_DT_BYTES, 8, MDF_DT_BYTES, 8},
  };
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, path("types.mdf").c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
  for (const auto& c : cases) {
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfChnCreate(&ch, g, 0, c.bits, c.value_type, "x"), 0);
    uint16_t type = 99, bits = 0;
    ASSERT_EQ(mdfChnGetValueType(ch, &type), 0);
    ASSERT_EQ(mdfChnGetBits(ch, &bits), 0);
    EXPECT_EQ(type, c.want_type) << c.value_type << "/" << c.bits;
    EXPECT_EQ(bits, c.want_bits) << c.value_type << "/" << c.bits;
  }
}

TEST_F(ChannelApi, CreateRefusesBadValueTypesAndBitCounts) {
  struct Case {
    uint16_t value_type, bits;
    int16_t status;
  };
  const Case cases[] = {
      {MDF_DT_VAX_G, 64, MDF_ERR_VALUE_TYPE},
      {MDF_DT_VAX_D, 64, MDF_ERR_VALUE_TYPE},
      {17, 8, MDF_ERR_VALUE_TYPE},
      {0xFFFF, 8, MDF_ERR_VALUE_TYPE},
      {MDF_DT_STRING, 12, MDF_ERR_CHANNEL_BITS},
      {MDF_DT_STRING, 0, MDF_ERR_CHANNEL_BITS},
      {MDF_DT_BYTES, 7, MDF_ERR_CHANNEL_BITS},
      {MDF_DT_UINT, 0, MDF_ERR_CHANNEL_BITS},
      {MDF_DT_INT, 65, MDF_ERR_CHANNEL_BITS},
      {MDF_DT_UINT_LE, 100, MDF_ERR_CHANNEL_BITS},
      {MDF_DT_INT_BE, 0, MDF_ERR_CHANNEL_BITS},
  };
  int n = 0;
  for (const auto& c : cases) {
    restart();
    mdf_file* f = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(
        mdfFileOpen(&f, path("refuse" + std::to_string(n++) + ".mdf").c_str(), MDF_OPEN_CREATE), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
    auto* ch = reinterpret_cast<channelnode*>(&n);  // must be cleared
    EXPECT_EQ(mdfChnCreate(&ch, g, 0, c.bits, c.value_type, "x"), c.status)
        << c.value_type << "/" << c.bits;
    EXPECT_EQ(ch, nullptr);
    EXPECT_EQ(mdfGetErrorCode(), c.status);
  }
}

TEST_F(ChannelApi, CreatedTimeChannelIsTheGroupsTimeChannel) {
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, path("time.mdf").c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
  channelnode *data = nullptr, *t1 = nullptr, *found = nullptr;
  ASSERT_EQ(mdfChnCreate(&data, g, MDF_CHN_DATA, 16, MDF_DT_UINT, "v"), 0);
  EXPECT_EQ(mdfChnOpenTime(&found, g), MDF_TIME_CHN_NOT_FOUND);
  EXPECT_EQ(found, nullptr);
  restart();
  ASSERT_EQ(mdfFileOpen(&f, path("time2.mdf").c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfChnCreate(&data, g, MDF_CHN_DATA, 16, MDF_DT_UINT, "v"), 0);
  ASSERT_EQ(mdfChnCreate(&t1, g, MDF_CHN_TIME, 64, MDF_DT_DOUBLE, "t"), 0);
  ASSERT_EQ(mdfChnOpenTime(&found, g), 0);
  EXPECT_EQ(name_of(found), "t");
  uint16_t type = 0;
  ASSERT_EQ(mdfChnGetType(found, &type), 0);
  EXPECT_EQ(type, MDF_CHN_TIME);
  ASSERT_EQ(mdfFileClose(f), 0);
  const auto rf = mdftest::read_file(path("time2.mdf"));
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  EXPECT_EQ(rf.channel_groups().at(0)->channels.at(1).channel_type, 1);
}

// ---- Opening channels -----------------------------------------------------------------------

// Group 1: time "Engine" (a time channel), speed, Speed, engine, a 32-character name.
// Group 2: no time channel, "a".
mdftest::FileModel named_channels() {
  mdftest::FileModel f;
  auto& dg = f.add_data_group();
  auto& cg = dg.add_channel_group(8);
  cg.add_channel("Engine", 0, 32, MDF_DT_FLOAT, MDF_CHN_TIME);
  cg.add_channel("speed", 32, 8, MDF_DT_UINT);
  cg.add_channel("Speed", 40, 8, MDF_DT_UINT);
  cg.add_channel("engine", 48, 8, MDF_DT_UINT);
  cg.add_channel("ABCDEFGHIJKLMNOPQRSTUVWXYZ012345", 56, 8, MDF_DT_UINT);
  for (uint8_t r = 0; r < 3; ++r) {
    auto& rec = cg.add_record();
    rec[4] = r;
  }
  auto& dg2 = f.add_data_group();
  auto& cg2 = dg2.add_channel_group(1);
  cg2.add_channel("a", 0, 8, MDF_DT_UINT);
  cg2.add_record();
  return f;
}

TEST_F(ChannelApi, OpenByIndexCountsTheTimeChannelAndRefusesOutOfRange) {
  const auto file = write(named_channels());
  mdf_file* f = nullptr;
  mdf_group *g = nullptr, *g2 = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g2, f, 2, MDF_OPEN_READ), 0);
  const std::vector<std::string> names = {"Engine", "speed", "Speed", "engine",
                                          "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"};
  // In order (each open follows one link from the previous one), out of order, and
  // alternating between groups.
  const std::vector<std::pair<mdf_group*, uint16_t>> order = {
      {g, 1}, {g, 2},  {g, 3}, {g, 4}, {g, 5},  {g, 3}, {g, 1}, {g, 5},
      {g, 4}, {g2, 1}, {g, 5}, {g, 2}, {g2, 1}, {g, 2}, {g, 3}};
  for (const auto& [group, index] : order) {
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfChnOpen(&ch, group, index), 0);
    EXPECT_EQ(name_of(ch), group == g2 ? std::string("a") : names[index - 1]) << index;
    EXPECT_EQ(mdfChnClose(ch), 0);
  }
  channelnode* time = nullptr;
  ASSERT_EQ(mdfChnOpen(&time, g, 1), 0);
  uint16_t type = 0;
  ASSERT_EQ(mdfChnGetType(time, &type), 0);
  EXPECT_EQ(type, MDF_CHN_TIME);

  for (uint16_t index : {uint16_t{0}, uint16_t{6}, uint16_t{0xFFFF}}) {
    auto* ch = time;  // must be cleared
    const auto before = log_size();
    EXPECT_EQ(mdfChnOpen(&ch, g, index), MDF_CHANNEL_NOT_FOUND) << index;
    EXPECT_EQ(ch, nullptr);
    EXPECT_GT(log_size(), before) << "1002 is raised";
  }
  // After index 5 the next one does not exist either.
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnOpen(&ch, g, 5), 0);
  EXPECT_EQ(mdfChnOpen(&ch, g, 6), MDF_CHANNEL_NOT_FOUND);
  EXPECT_EQ(mdfGetErrorCode(), 0) << "positive statuses are not sticky";
}

TEST_F(ChannelApi, OpenByNameExactThenIgnoringCaseNeverTheTimeChannel) {
  const auto file = write(named_channels());
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  struct Case {
    const char* name;
    const char* found;  // null: not found
  };
  const Case cases[] = {
      {"Speed", "Speed"},  // exact match wins over an earlier case-insensitive one
      {"speed", "speed"},
      {"SPEED", "speed"},    // first case-insensitive match
      {"Engine", "engine"},  // the time channel of that name is skipped
      {"ENGINE", "engine"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZ012345", "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"},
      {"abcdefghijklmnopqrstuvwxyz012345", "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZ012345_and_more", "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"},
      {"spee", nullptr},
      {"speedy", nullptr},
      {"time", nullptr},
  };
  const auto before = log_size();
  for (const auto& c : cases) {
    channelnode* ch = reinterpret_cast<channelnode*>(g);  // must be replaced
    const int16_t st = mdfChnOpenName(&ch, g, c.name);
    if (c.found == nullptr) {
      EXPECT_EQ(st, MDF_CHN_NAME_NOT_FOUND) << c.name;
      EXPECT_EQ(ch, nullptr);
    } else {
      ASSERT_EQ(st, 0) << c.name;
      EXPECT_EQ(name_of(ch), c.found) << c.name;
      double v = -1;
      EXPECT_EQ(mdfChnReadPhy(&v, ch), 0) << "an opened handle reads the current record first";
      EXPECT_EQ(mdfChnClose(ch), 0);
    }
  }
  EXPECT_EQ(log_size(), before) << "3 is returned, not raised";
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

TEST_F(ChannelApi, OpenByTypeAndTime) {
  const auto file = write(named_channels());
  mdf_file* f = nullptr;
  mdf_group *g = nullptr, *g2 = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g2, f, 2, MDF_OPEN_READ), 0);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnOpenType(&ch, g, MDF_CHN_DATA), 0);
  EXPECT_EQ(name_of(ch), "speed");
  ASSERT_EQ(mdfChnOpenType(&ch, g, MDF_CHN_TIME), 0);
  EXPECT_EQ(name_of(ch), "Engine");
  ASSERT_EQ(mdfChnOpenTime(&ch, g), 0);
  EXPECT_EQ(name_of(ch), "Engine");

  auto before = log_size();
  EXPECT_EQ(mdfChnOpenType(&ch, g, 7), MDF_CHANNEL_NOT_FOUND);
  EXPECT_EQ(ch, nullptr);
  EXPECT_GT(log_size(), before);
  before = log_size();
  ch = reinterpret_cast<channelnode*>(g);
  EXPECT_EQ(mdfChnOpenTime(&ch, g2), MDF_TIME_CHN_NOT_FOUND);
  EXPECT_EQ(ch, nullptr);
  EXPECT_GT(log_size(), before);
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// DG 1: CG 1 [t1 (time), a, b]; DG 2 (record ids): CG 2 [t2 (time), B, c], CG 3 [t3, d].
mdftest::FileModel three_groups() {
  mdftest::FileModel f;
  auto& cg1 = f.add_data_group().add_channel_group(3);
  cg1.add_channel("t1", 0, 8, MDF_DT_UINT, MDF_CHN_TIME);
  cg1.add_channel("a", 8, 8, MDF_DT_UINT);
  cg1.add_channel("b", 16, 8, MDF_DT_UINT);
  cg1.add_record();
  auto& dg2 = f.add_data_group(1);
  auto& cg2 = dg2.add_channel_group(3, 1);
  cg2.add_channel("t2", 0, 8, MDF_DT_UINT, MDF_CHN_TIME);
  cg2.add_channel("B", 8, 8, MDF_DT_UINT);
  cg2.add_channel("c", 16, 8, MDF_DT_UINT);
  cg2.add_record();
  auto& cg3 = dg2.add_channel_group(2, 2);
  cg3.add_channel("t3", 0, 8, MDF_DT_UINT, MDF_CHN_TIME);
  cg3.add_channel("d", 8, 8, MDF_DT_UINT);
  cg3.add_record();
  return f;
}

TEST_F(ChannelApi, GroupLevelOpenersFindGroupAndChannel) {
  const auto file = write(three_groups());
  mdf_file* f = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  struct ByNumber {
    uint16_t number;
    const char* name;  // null: not found
    uint16_t group_channels;
  };
  const ByNumber by_number[] = {{1, "t1", 3}, {3, "b", 3},     {4, "t2", 3},
                                {5, "B", 3},  {6, "c", 3},     {7, "t3", 2},
                                {8, "d", 2},  {9, nullptr, 0}, {0, nullptr, 0}};
  for (const auto& c : by_number) {
    channelnode* ch = nullptr;
    mdf_group* g = nullptr;
    const int16_t st = mdfGrpChnOpen(&ch, &g, f, c.number, MDF_OPEN_READ);
    if (c.name == nullptr) {
      EXPECT_EQ(st, MDF_CHN_NOT_FOUND) << c.number;
      EXPECT_EQ(ch, nullptr);
      EXPECT_EQ(g, nullptr);
      continue;
    }
    ASSERT_EQ(st, 0) << c.number;
    EXPECT_EQ(name_of(ch), c.name);
    uint16_t channels = 0;
    ASSERT_EQ(mdfGrpChannels(&channels, g), 0);
    EXPECT_EQ(channels, c.group_channels);
    EXPECT_EQ(mdfGrpClose(g), 0);
  }
  struct ByName {
    const char* name;
    const char* found;
    uint16_t group_channels;
  };
  const ByName by_name[] = {{"B", "b", 3},  // a case-insensitive match in an earlier group wins
                            {"c", "c", 3},      {"C", "c", 3},     {"d", "d", 2},
                            {"t3", nullptr, 0}, {"zz", nullptr, 0}};
  const auto before = log_size();
  for (const auto& c : by_name) {
    channelnode* ch = nullptr;
    mdf_group* g = nullptr;
    const int16_t st = mdfGrpChnOpenName(&ch, &g, f, c.name, MDF_OPEN_READ);
    if (c.found == nullptr) {
      EXPECT_EQ(st, MDF_CHN_NOT_FOUND) << c.name;
      EXPECT_EQ(ch, nullptr);
      EXPECT_EQ(g, nullptr);
      continue;
    }
    ASSERT_EQ(st, 0) << c.name;
    EXPECT_EQ(name_of(ch), c.found);
    uint16_t channels = 0;
    ASSERT_EQ(mdfGrpChannels(&channels, g), 0);
    EXPECT_EQ(channels, c.group_channels);
    EXPECT_EQ(mdfGrpClose(g), 0);
  }
  EXPECT_EQ(log_size(), before) << "4 is returned, not raised";
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

TEST_F(ChannelApi, GroupLevelOpenersRefuseBadFilesAndModes) {
  const auto file = write(three_groups());
  struct Case {
    std::function<int16_t(mdf_file*, channelnode**, mdf_group**)> call;
    int16_t status;
  };
  const Case cases[] = {
      {[](mdf_file*, channelnode** c, mdf_group** g) { return mdfGrpChnOpen(c, g, nullptr, 1, 0); },
       MDF_ERR_BAD_FILE},
      {[](mdf_file*, channelnode** c, mdf_group** g) {
         return mdfGrpChnOpenName(c, g, nullptr, "a", 0);
       },
       MDF_ERR_BAD_FILE},
      {[](mdf_file* f, channelnode** c, mdf_group** g) { return mdfGrpChnOpen(c, g, f, 2, 3); },
       MDF_ERR_OPEN_MODE},
      {[](mdf_file* f, channelnode** c, mdf_group** g) { return mdfGrpChnOpen(c, g, f, 2, 1); },
       MDF_ERR_FATAL},
      {[](mdf_file* f, channelnode** c, mdf_group** g) {
         return mdfGrpChnOpenName(c, g, f, "a", 3);
       },
       MDF_ERR_OPEN_MODE},
      {[](mdf_file* f, channelnode** c, mdf_group** g) {
         return mdfGrpChnOpenName(c, g, f, "a", 2);
       },
       MDF_ERR_FATAL},
      // Mode 1 is passed on to the group, which refuses it for a file opened for reading.
      {[](mdf_file* f, channelnode** c, mdf_group** g) {
         return mdfGrpChnOpenName(c, g, f, "a", 1);
       },
       MDF_ERR_OPEN_MODE},
  };
  for (const auto& c : cases) {
    restart();
    mdf_file* f = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
    channelnode* ch = nullptr;
    mdf_group* g = nullptr;
    EXPECT_EQ(c.call(f, &ch, &g), c.status);
    EXPECT_EQ(ch, nullptr);
    EXPECT_EQ(g, nullptr);
    EXPECT_EQ(mdfGetErrorCode(), c.status);
  }
}

TEST_F(ChannelApi, GetFirstAndGetNextWalkTheOpenChannelsOfAGroup) {
  const auto file = write(named_channels());
  mdf_file* f = nullptr;
  mdf_group *g = nullptr, *g2 = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g2, f, 2, MDF_OPEN_READ), 0);
  channelnode* ch = reinterpret_cast<channelnode*>(g);
  EXPECT_EQ(mdfChnGetFirst(g, &ch), MDF_CHN_NOT_FOUND);
  EXPECT_EQ(ch, nullptr);
  // Opened interleaved with the other group's: 4, a, 2, a, 5.
  channelnode *c4 = nullptr, *c2 = nullptr, *c5 = nullptr, *a1 = nullptr, *a2 = nullptr;
  ASSERT_EQ(mdfChnOpen(&c4, g, 4), 0);
  ASSERT_EQ(mdfChnOpen(&a1, g2, 1), 0);
  ASSERT_EQ(mdfChnOpen(&c2, g, 2), 0);
  ASSERT_EQ(mdfChnOpen(&a2, g2, 1), 0);
  ASSERT_EQ(mdfChnOpen(&c5, g, 5), 0);
  std::vector<channelnode*> walked;
  ASSERT_EQ(mdfChnGetFirst(g, &ch), 0);
  for (int st = 0; st == 0; st = mdfChnGetNext(&ch)) walked.push_back(ch);
  EXPECT_EQ(ch, nullptr);
  EXPECT_EQ(walked, (std::vector<channelnode*>{c4, c2, c5}));
  walked.clear();
  ASSERT_EQ(mdfChnGetFirst(g2, &ch), 0);
  for (int st = 0; st == 0; st = mdfChnGetNext(&ch)) walked.push_back(ch);
  EXPECT_EQ(walked, (std::vector<channelnode*>{a1, a2}));
  // Closing takes a handle out of the walk.
  ASSERT_EQ(mdfChnClose(c2), 0);
  ch = c4;
  ASSERT_EQ(mdfChnGetNext(&ch), 0);
  EXPECT_EQ(ch, c5);
  EXPECT_EQ(mdfChnGetNext(nullptr), MDF_CHN_NOT_FOUND);
  ch = nullptr;
  EXPECT_EQ(mdfChnGetNext(&ch), MDF_CHN_NOT_FOUND);
  // Closing the group closes its channels.
  ASSERT_EQ(mdfGrpClose(g), 0);
  ASSERT_EQ(mdfChnGetFirst(g2, &ch), 0);
  EXPECT_EQ(ch, a1);
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

// ---- Properties -----------------------------------------------------------------------------

TEST_F(ChannelApi, LongAndDisplayNamesComeFromCommentMarkersOnShortBlocks) {
  const std::string long_word(1000, 'L');
  const std::string display_word(300, 'D');
  struct Case {
    std::string comment;
    std::string long_name;
    std::string display_name;
  };
  const std::vector<Case> cases = {
      {"$ no marker here\n$Longname: Engine_Speed rpm", "Engine_Speed", ""},
      {"$Longname: A", "A", ""},
      {"text before $Longname: A", "A", ""},
      {"$x $Longname: A", "", ""},  // not the first '$' of its line
      {"$x\n$y $Longname: A\n$Longname: B", "B", ""},
      {"$Longname:A", "", ""},  // the blank belongs to the marker
      {"$Longname: ", "", ""},
      {"$Longname:   \t Word\nnext", "Word", ""},
      {"$Longname: \nOnNextLine", "OnNextLine", ""},
      {"$Displayname: D\r\n$Longname: L", "L", "D"},
      {"$Displayname:D", "", "D"},
      {"$DisplaynamX: D", "", ""},
      {"$Displaynam", "", ""},
      {"$Longname: " + long_word, long_word, ""},
      {"$Displayname: " + display_word, "", display_word.substr(0, 255)},
      {"no dollar at all", "", ""},
      {"", "", ""},
  };
  mdftest::FileModel model;
  auto& cg = model.add_data_group().add_channel_group(1);
  for (size_t i = 0; i < cases.size(); ++i) {
    auto& cn = cg.add_channel("short" + std::to_string(i), 0, 8, MDF_DT_UINT);
    cn.block_size = 218;
    if (!cases[i].comment.empty()) cn.comment = cases[i].comment;
  }
  const auto file = write(model);
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].comment.substr(0, 40));
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfChnOpen(&ch, g, static_cast<uint16_t>(i + 1)), 0);
    uint16_t extra = 1;
    const char* long_name = nullptr;
    const char* display_name = nullptr;
    ASSERT_EQ(mdfChnGetInfoExt(ch, &extra, &long_name, &display_name), 0);
    EXPECT_EQ(extra, 0);
    EXPECT_EQ(long_name, cases[i].long_name);
    EXPECT_EQ(display_name, cases[i].display_name);
    const char* text = nullptr;
    ASSERT_EQ(mdfChnGetDisplayName(ch, &text), 0);
    EXPECT_EQ(text, cases[i].display_name);
    // Without a long name the short name stands in.
    ASSERT_EQ(mdfChnGetLongName(ch, &text), 0);
    EXPECT_EQ(text, cases[i].long_name.empty() ? "short" + std::to_string(i) : cases[i].long_name);
    ASSERT_EQ(mdfChnGetText(ch, &text), 0);
    EXPECT_EQ(text, cases[i].comment);
  }
}

TEST_F(ChannelApi, LongAndDisplayNamesByBlockSize) {
  mdftest::FileModel model;
  auto& cg = model.add_data_group().add_channel_group(1);
  const std::string comment = "$Longname: FromComment\n$Displayname: DisplayFromComment";
  auto& c218 = cg.add_channel("n218", 0, 8, MDF_DT_UINT);
  c218.block_size = 218;
  c218.comment = comment;
  auto& c222 = cg.add_channel("n222", 0, 8, MDF_DT_UINT);
  c222.block_size = 222;
  c222.comment = comment;
  c222.long_name = "LongFromLink";
  auto& c228 = cg.add_channel("n228", 0, 8, MDF_DT_UINT);
  c228.comment = comment;
  c228.long_name = "Long228";
  c228.display_name = "Display228";
  c228.additional_byte_offset = 0;
  auto& none = cg.add_channel("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789", 0, 8, MDF_DT_UINT);
  none.name = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";  // fills the 32-character field
  const auto file = write(model);
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  struct Case {
    uint16_t index;
    const char* long_name;
    const char* display_name;
    const char* long_or_short;
  };
  const Case cases[] = {
      {1, "FromComment", "DisplayFromComment", "FromComment"},
      {2, "LongFromLink", "DisplayFromComment", "LongFromLink"},
      {3, "Long228", "Display228", "Long228"},
      {4, "", "", "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"},
  };
  for (const auto& c : cases) {
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfChnOpen(&ch, g, c.index), 0);
    const char* long_name = nullptr;
    const char* display_name = nullptr;
    ASSERT_EQ(mdfChnGetInfoExt(ch, nullptr, &long_name, &display_name), 0);
    EXPECT_EQ(long_name, std::string(c.long_name)) << c.index;
    EXPECT_EQ(display_name, std::string(c.display_name)) << c.index;
    ASSERT_EQ(mdfChnGetLongName(ch, &long_name), 0);
    EXPECT_EQ(long_name, std::string(c.long_or_short)) << c.index;
    // Names that fill their field come out terminated.
    const char* name = nullptr;
    ASSERT_EQ(mdfChnGetName(ch, &name), 0);
    EXPECT_LE(std::strlen(name), 32u);
  }
}

TEST_F(ChannelApi, ExtendedPropertiesNeedALongEnoughChannelBlock) {
  mdftest::FileModel model;
  auto& cg = model.add_data_group().add_channel_group(1);
  for (uint16_t size : {uint16_t{218}, uint16_t{222}, uint16_t{228}}) {
    auto& cn = cg.add_channel("n" + std::to_string(size), 0, 8, MDF_DT_UINT);
    cn.block_size = size;
    if (size >= 228) cn.additional_byte_offset = 0;
  }
  const auto file = write(model);
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  channelnode* ch[3] = {};
  for (uint16_t i = 0; i < 3; ++i)
    ASSERT_EQ(mdfChnOpen(&ch[i], g, static_cast<uint16_t>(i + 1)), 0);
  struct Case {
    const char* what;
    std::function<int16_t(channelnode*)> set;
    int16_t status[3];  // on blocks of 218, 222 and 228 bytes
  };
  const Case cases[] = {
      {"long name",
       [](channelnode* c) { return mdfChnSetLongName(c, "LN"); },
       {MDF_CN_TOO_SHORT, 0, 0}},
      {"display name",
       [](channelnode* c) { return mdfChnSetDisplayName(c, "DN"); },
       {MDF_CN_TOO_SHORT, MDF_CN_TOO_SHORT, 0}},
      {"byte offset",
       [](channelnode* c) { return mdfChnSetInfoExt(c, 3, nullptr, nullptr); },
       {MDF_CN_TOO_SHORT, MDF_CN_TOO_SHORT, 0}},
      {"nothing",
       [](channelnode* c) { return mdfChnSetInfoExt(c, 0, nullptr, nullptr); },
       {0, 0, 0}},
  };
  const auto before = log_size();
  for (const auto& c : cases) {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(c.set(ch[i]), c.status[i]) << c.what << " " << i;
  }
  EXPECT_EQ(log_size(), before) << "1013 is returned, not raised";
  EXPECT_EQ(mdfGetErrorCode(), 0);
  struct Want {
    uint16_t offset;
    const char* long_name;
    const char* display_name;
  };
  const Want wants[] = {{0, "", ""}, {0, "LN", ""}, {3, "LN", "DN"}};
  for (int i = 0; i < 3; ++i) {
    uint16_t offset = 99;
    const char* long_name = nullptr;
    const char* display_name = nullptr;
    ASSERT_EQ(mdfChnGetInfoExt(ch[i], &offset, &long_name, &display_name), 0);
    EXPECT_EQ(offset, wants[i].offset) << i;
    EXPECT_EQ(long_name, std::string(wants[i].long_name)) << i;
    EXPECT_EQ(display_name, std::string(wants[i].display_name)) << i;
  }
  // Byte offset 0 leaves the stored offset; an empty name unlinks the text.
  ASSERT_EQ(mdfChnSetInfoExt(ch[2], 0, "", nullptr), 0);
  uint16_t offset = 99;
  const char* long_name = nullptr;
  ASSERT_EQ(mdfChnGetInfoExt(ch[2], &offset, &long_name, nullptr), 0);
  EXPECT_EQ(offset, 3);
  EXPECT_STREQ(long_name, "");
}

TEST_F(ChannelApi, PropertiesOfCreatedChannelsReachTheFile) {
  const std::string file = path("props.mdf");
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
  channelnode *a = nullptr, *b = nullptr;
  ASSERT_EQ(mdfChnCreate(&a, g, 0, 16, MDF_DT_UINT, "first_name"), 0);
  ASSERT_EQ(mdfChnCreate(&b, g, 0, 8, MDF_DT_INT, "b"), 0);
  ASSERT_EQ(mdfChnSetInfo(a, "renamed_to_a_name_of_exactly_32c", "a description", "a comment"), 0);
  ASSERT_EQ(mdfChnSetDesc(b, std::string(140, 'd').c_str()), 0);  // cut to 128
  ASSERT_EQ(mdfChnSetText(b, "to be removed"), 0);
  ASSERT_EQ(mdfChnSetText(b, ""), 0);
  ASSERT_EQ(mdfChnSetInfoExt(a, 0, "a_long_name", "a display name"), 0);
  ASSERT_EQ(mdfChnSetRaster(a, 0.25), 0);
  ASSERT_EQ(mdfChnSetHexRange(a, -3.0, 1000.0), 0);
  double lo = 1, hi = 1, raster = 0;
  EXPECT_EQ(mdfChnGetHexRange(&lo, &hi, b), MDF_RANGE_UNKNOWN);
  EXPECT_EQ(mdfChnGetPhyRange(&lo, &hi, b), MDF_RANGE_UNKNOWN);  // no conversion
  ASSERT_EQ(mdfChnGetHexRange(&lo, &hi, a), 0);
  EXPECT_EQ(lo, -3.0);
  EXPECT_EQ(hi, 1000.0);
  ASSERT_EQ(mdfChnGetRaster(a, &raster), 0);
  EXPECT_EQ(raster, 0.25);
  ASSERT_EQ(mdfChnSetFormLin(b, "V", 1.0, 2.0), 0);
  EXPECT_EQ(mdfChnGetPhyRange(&lo, &hi, b), MDF_RANGE_UNKNOWN);  // not valid yet
  ASSERT_EQ(mdfChnSetPhyRange(b, 1.5, 2.5), 0);
  ASSERT_EQ(mdfChnGetPhyRange(&lo, &hi, b), 0);
  EXPECT_EQ(lo, 1.5);
  EXPECT_EQ(hi, 2.5);
  const char* name = nullptr;
  ASSERT_EQ(mdfChnGetName(a, &name), 0);
  EXPECT_STREQ(name, "renamed_to_a_name_of_exactly_32c");
  EXPECT_EQ(mdfGetErrorCode(), 0);
  ASSERT_EQ(mdfFileClose(f), 0);

  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto& cns = rf.channel_groups().at(0)->channels;
  ASSERT_EQ(cns.size(), 2u);
  EXPECT_EQ(cns[0].name, "renamed_to_a_name_of_exactly_32c");
  EXPECT_EQ(cns[0].description, "a description");
  EXPECT_EQ(cns[0].comment, std::optional<std::string>("a comment"));
  EXPECT_EQ(cns[0].long_name, std::optional<std::string>("a_long_name"));
  EXPECT_EQ(cns[0].display_name, std::optional<std::string>("a display name"));
  EXPECT_EQ(cns[0].sample_rate, 0.25);
  EXPECT_EQ(cns[0].range_valid, 1);
  EXPECT_EQ(cns[0].min, -3.0);
  EXPECT_EQ(cns[0].max, 1000.0);
  EXPECT_EQ(cns[1].description, std::string(128, 'd'));
  EXPECT_EQ(cns[1].comment_link, 0u);
  ASSERT_TRUE(cns[1].conversion.has_value());
  EXPECT_EQ(cns[1].conversion->range_valid, 1);
  EXPECT_EQ(cns[1].conversion->min, 1.5);
  EXPECT_EQ(cns[1].conversion->max, 2.5);

  // Reopened: the same through the library; two handles on one block see each other's changes.
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  channelnode *a1 = nullptr, *a2 = nullptr;
  ASSERT_EQ(mdfChnOpen(&a1, g, 1), 0);
  ASSERT_EQ(mdfChnOpen(&a2, g, 1), 0);
  const char *desc = nullptr, *text = nullptr, *long_name = nullptr, *display_name = nullptr;
  uint16_t type = 9, bits = 0, value_type = 9;
  ASSERT_EQ(mdfChnGetInfo(a1, &type, &bits, &value_type, &name, &desc, &text), 0);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(bits, 16);
  EXPECT_EQ(value_type, MDF_DT_UINT);
  EXPECT_STREQ(name, "renamed_to_a_name_of_exactly_32c");
  EXPECT_STREQ(desc, "a description");
  EXPECT_STREQ(text, "a comment");
  ASSERT_EQ(mdfChnGetInfoExt(a1, nullptr, &long_name, &display_name), 0);
  EXPECT_STREQ(long_name, "a_long_name");
  EXPECT_STREQ(display_name, "a display name");
  ASSERT_EQ(mdfChnSetRaster(a2, 4.0), 0);
  ASSERT_EQ(mdfChnGetRaster(a1, &raster), 0);
  EXPECT_EQ(raster, 4.0);
}

TEST_F(ChannelApi, SetInfoWithAnEmptyNameAndPhysicalRangeWithoutRuleAreInternalErrors) {
  const std::function<int16_t(channelnode*)> calls[] = {
      [](channelnode* c) { return mdfChnSetName(c, ""); },
      [](channelnode* c) { return mdfChnSetPhyRange(c, 0.0, 1.0); },
  };
  for (const auto& call : calls) {
    restart();
    mdf_file* f = nullptr;
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfFileOpen(&f, path("internal.mdf").c_str(), MDF_OPEN_CREATE), 0);
    ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfChnCreate(&ch, g, 0, 8, MDF_DT_UINT, "x"), 0);
    EXPECT_EQ(call(ch), MDF_ERR_FATAL);
    EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_FATAL);
  }
}

// ---- Values ---------------------------------------------------------------------------------

// Ten records: u16 at byte 0 = 3 * r, a 40-bit unsigned at byte 2 = 2^33 + r, a 4-bit field
// at bit 60 = r, a text formula channel and a linear one.
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
    mdftest::put_bits(rec, 0, 16, 3 * r);
    mdftest::put_bits(rec, 16, 40, (uint64_t{1} << 33) + r);
    mdftest::put_bits(rec, 60, 4, r);
    mdftest::put_bits(rec, 64, 8, r);
    mdftest::put_bits(rec, 72, 8, static_cast<uint8_t>(-static_cast<int>(r)));
  }
  return f;
}

TEST_F(ChannelApi, GetWithAnOffsetMovesTheCursorAndBack) {
  const auto file = write(ten_records());
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  channelnode *u16 = nullptr, *u40 = nullptr;
  ASSERT_EQ(mdfChnOpen(&u16, g, 1), 0);
  ASSERT_EQ(mdfChnOpen(&u40, g, 2), 0);
  struct Case {
    int32_t cursor;
    int16_t offset;
    int16_t status;
    double value;
    uint32_t cursor_after;
  };
  const Case cases[] = {
      {2, 0, 0, 6, 2},
      {2, 3, 0, 15, 2},
      {2, -2, 0, 0, 2},
      {9, -9, 0, 0, 9},
      {0, 9, 0, 27, 0},
      {5, 5, MDF_END_OF_GROUP, 0, 5},
      {2, -3, MDF_END_OF_GROUP, 0, 2},
      {0, 32767, MDF_END_OF_GROUP, 0, 0},
      {7, -32768, MDF_END_OF_GROUP, 0, 7},
  };
  const auto before = log_size();
  for (const auto& c : cases) {
    ASSERT_EQ(mdfGrpSeek(g, c.cursor, MDF_SEEK_ABS), 0);
    double v = -1;
    EXPECT_EQ(mdfChnGetPhy(&v, u16, c.offset), c.status) << c.cursor << c.offset;
    EXPECT_EQ(v, c.value) << c.cursor << " " << c.offset;
    uint32_t tell = 99;
    ASSERT_EQ(mdfGrpTell(&tell, g), 0);
    EXPECT_EQ(tell, c.cursor_after) << c.cursor << " " << c.offset;
  }
  // A value that cannot be decoded leaves the cursor at the record it was read from.
  ASSERT_EQ(mdfGrpSeek(g, 1, MDF_SEEK_ABS), 0);
  double x = -1;
  EXPECT_EQ(mdfChnGetHex(&x, u40, 2), MDF_UNSUPPORTED_TYPE);
  EXPECT_EQ(x, 0.0);
  uint32_t tell = 0;
  ASSERT_EQ(mdfGrpTell(&tell, g), 0);
  EXPECT_EQ(tell, 3u);
  uint64_t n = 0;
  ASSERT_EQ(mdfChnGetHexInt(&n, u40, 2), 0);
  EXPECT_EQ(n, (uint64_t{1} << 33) + 5);
  ASSERT_EQ(mdfGrpTell(&tell, g), 0);
  EXPECT_EQ(tell, 3u);
  uint8_t data[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  uint32_t length = sizeof data;
  ASSERT_EQ(mdfChnGetData(data, &length, u16, -1), 0);
  EXPECT_EQ(length, 2u);
  EXPECT_EQ(data[0], 6);  // record 2: 3 * 2
  EXPECT_EQ(data[1], 0);
  EXPECT_EQ(data[2], 0xEE);
  EXPECT_EQ(log_size(), before) << "1 and 1020 are returned, not raised";
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

TEST_F(ChannelApi, ReturnedStatusesOfValueFunctions) {
  const auto file = write(ten_records());
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_MODIFY), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_MODIFY), 0);
  channelnode *nibble = nullptr, *formula = nullptr, *linear = nullptr;
  ASSERT_EQ(mdfChnOpen(&nibble, g, 3), 0);
  ASSERT_EQ(mdfChnOpen(&formula, g, 4), 0);
  ASSERT_EQ(mdfChnOpen(&linear, g, 5), 0);
  ASSERT_EQ(mdfGrpSeek(g, 4, MDF_SEEK_ABS), 0);
  const auto before = log_size();
  uint8_t data[8] = {0xEE};
  uint32_t length = sizeof data;
  EXPECT_EQ(mdfChnGetData(data, &length, nibble, 0), MDF_NOT_BYTE_ALIGNED);
  EXPECT_EQ(data[0], 0);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(mdfChnSetData(nibble, data, 1), MDF_NOT_BYTE_ALIGNED);
  EXPECT_EQ(mdfChnSetPhy(formula, 10.0), MDF_UNSUPPORTED_RULE);  // no inverse for formulas
  double v = 0;
  ASSERT_EQ(mdfChnGetPhy(&v, formula, 0), 0);
  EXPECT_EQ(v, 8.0);
  ASSERT_EQ(mdfChnGetPhy(&v, nibble, 0), 0);
  EXPECT_EQ(v, 4.0);
  // Linear rule phys = 2 * raw + 0.5; record 4 holds raw -4.
  ASSERT_EQ(mdfChnGetPhy(&v, linear, 0), 0);
  EXPECT_EQ(v, -7.5);
  ASSERT_EQ(mdfChnSetPhy(linear, 20.5), 0);
  uint64_t raw = 0;
  ASSERT_EQ(mdfChnGetHexInt(&raw, linear, 0), 0);
  EXPECT_EQ(raw, 10u);
  ASSERT_EQ(mdfChnSetHex(nibble, 13.0), 0);
  ASSERT_EQ(mdfChnGetHexInt(&raw, nibble, 0), 0);
  EXPECT_EQ(raw, 13u);
  EXPECT_EQ(log_size(), before);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  ASSERT_EQ(mdfGrpWrite(g), 0);
  ASSERT_EQ(mdfFileClose(f), 0);
  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto& rec = rf.channel_groups().at(0)->records.at(4);
  EXPECT_EQ(mdftest::get_bits(rec, 60, 4), 13u);
  EXPECT_EQ(mdftest::get_bits(rec, 72, 8), 10u);
  EXPECT_EQ(mdftest::get_bits(rec, 56, 4), 0u) << "the neighbouring bits are kept";
}

TEST_F(ChannelApi, ReadStepsOfOpenedAndCreatedHandles) {
  const auto file = write(ten_records());
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpSeek(g, 4, MDF_SEEK_ABS), 0);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnOpen(&ch, g, 1), 0);
  double a = -1, b = -1;
  ASSERT_EQ(mdfChnReadPhy(&a, ch), 0);
  ASSERT_EQ(mdfChnReadPhy(&b, ch), 0);
  EXPECT_EQ(a, 12.0);  // record 4
  EXPECT_EQ(b, 15.0);  // record 5
  uint32_t tell = 0;
  ASSERT_EQ(mdfGrpTell(&tell, g), 0);
  EXPECT_EQ(tell, 5u);
  // A second handle opened now starts on the current record.
  channelnode* other = nullptr;
  ASSERT_EQ(mdfChnOpen(&other, g, 1), 0);
  uint64_t n = 0;
  ASSERT_EQ(mdfChnReadHexInt(&n, other), 0);
  EXPECT_EQ(n, 15u);
  ASSERT_EQ(mdfFileClose(f), 0);

  // A created handle moves on at its first read.
  mdf_group* cg = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, path("created.mdf").c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&cg, f, 1, MDF_OPEN_CREATE), 0);
  channelnode* created = nullptr;
  ASSERT_EQ(mdfChnCreate(&created, cg, 0, 16, MDF_DT_UINT, "v"), 0);
  for (uint64_t v : {10u, 11u, 12u}) {
    ASSERT_EQ(mdfChnSetHexInt(created, v), 0);
    ASSERT_EQ(mdfGrpWriteAppend(cg), 0);
  }
  ASSERT_EQ(mdfGrpSeek(cg, 0, MDF_SEEK_ABS), 0);
  ASSERT_EQ(mdfChnReadHexInt(&n, created), 0);
  EXPECT_EQ(n, 11u);
  ASSERT_EQ(mdfChnOpen(&other, cg, 1), 0);
  ASSERT_EQ(mdfChnReadHexInt(&n, other), 0);
  EXPECT_EQ(n, 11u);
  ASSERT_EQ(mdfChnReadHexInt(&n, other), 0);
  EXPECT_EQ(n, 12u);
  EXPECT_EQ(mdfChnReadHexInt(&n, other), MDF_END_OF_GROUP);
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

TEST_F(ChannelApi, CreatingInAModifiedGroupIsRefusedAndLeavesTheFile) {
  const auto file = write(ten_records());
  const auto before = mdftest::load_file(file);
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_MODIFY), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_MODIFY), 0);
  channelnode* ch = nullptr;
  EXPECT_EQ(mdfChnCreate(&ch, g, 0, 32, MDF_DT_UINT, "extra"), MDF_ERR_OPEN_MODE);
  EXPECT_EQ(ch, nullptr);
  mdfClose();
  // The sticky error kept the closes from writing anything.
  EXPECT_EQ(mdftest::load_file(file), before);
}

TEST_F(ChannelApi, WriteStepsInModifyMode) {
  const auto file = write(ten_records());
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_MODIFY), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_MODIFY), 0);
  channelnode *writer = nullptr, *reader = nullptr;
  ASSERT_EQ(mdfChnOpen(&writer, g, 1), 0);
  ASSERT_EQ(mdfChnOpen(&reader, g, 2), 0);
  ASSERT_EQ(mdfGrpSeek(g, 2, MDF_SEEK_ABS), 0);
  // The first write fills record 2; a read that moves on stores that record first.
  ASSERT_EQ(mdfChnWriteHexInt(writer, 1000), 0);
  uint64_t n = 0;
  ASSERT_EQ(mdfChnReadHexInt(&n, reader), 0);
  EXPECT_EQ(n, (uint64_t{1} << 33) + 2);
  ASSERT_EQ(mdfChnReadHexInt(&n, reader), 0);
  EXPECT_EQ(n, (uint64_t{1} << 33) + 3);
  // Write steps: store record 3 (unchanged) and fill record 4, store 4 and fill 5; closing
  // stores record 5.
  ASSERT_EQ(mdfChnWriteHexInt(writer, 2000), 0);
  ASSERT_EQ(mdfChnWriteHexInt(writer, 3000), 0);
  uint32_t tell = 0;
  ASSERT_EQ(mdfGrpTell(&tell, g), 0);
  EXPECT_EQ(tell, 5u);
  ASSERT_EQ(mdfChnClose(writer), 0);
  ASSERT_EQ(mdfFileClose(f), 0);
  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto& records = rf.channel_groups().at(0)->records;
  const uint64_t want[] = {0, 3, 1000, 9, 2000, 3000, 18, 21, 24, 27};
  for (uint32_t r = 0; r < 10; ++r) EXPECT_EQ(mdftest::get_bits(records[r], 0, 16), want[r]) << r;
}

TEST_F(ChannelApi, StepsGoOnPast65535Calls) {
  // More records than a 16-bit step counter can count: every Write after the first appends,
  // every Read after the first moves on.
  constexpr uint32_t kRecords = 70000;
  const std::string file = path("long.mdf");
  mdf_file* f = nullptr;
  mdf_group* g = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_CREATE), 0);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnCreate(&ch, g, 0, 32, MDF_DT_UINT, "n"), 0);
  for (uint32_t r = 0; r < kRecords; ++r) ASSERT_EQ(mdfChnWriteHexInt(ch, r * 7u), 0) << r;
  ASSERT_EQ(mdfFileClose(f), 0);
  const auto rf = mdftest::read_file(file);
  ASSERT_TRUE(rf.ok()) << rf.error_text();
  const auto& cg = *rf.channel_groups().at(0);
  EXPECT_EQ(cg.record_count, kRecords);
  ASSERT_EQ(cg.records.size(), kRecords);
  int wrong = 0;
  for (uint32_t r = 0; r < kRecords; ++r)
    wrong += mdftest::get_bits(cg.records[r], 0, 32) != r * 7u;
  EXPECT_EQ(wrong, 0);

  ASSERT_EQ(mdfFileOpen(&f, file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&g, f, 1, MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfChnOpen(&ch, g, 1), 0);
  wrong = 0;
  for (uint32_t r = 0; r < kRecords; ++r) {
    uint64_t v = 0;
    ASSERT_EQ(mdfChnReadHexInt(&v, ch), 0) << r;
    wrong += v != r * 7u;
  }
  EXPECT_EQ(wrong, 0);
  uint64_t v = 0;
  EXPECT_EQ(mdfChnReadHexInt(&v, ch), MDF_END_OF_GROUP);
}

// ---- Duplicating channels -------------------------------------------------------------------

mdftest::FileModel duplicate_source() {
  mdftest::FileModel f;
  auto& cg = f.add_data_group().add_channel_group(16);
  auto& t = cg.add_channel("time", 0, 64, MDF_DT_DOUBLE, MDF_CHN_TIME);
  t.conversion = mdftest::linear(0.0, 0.001, "s");
  t.description = "time base";
  auto& level = cg.add_channel("level", 64, 12, MDF_DT_UINT);
  level.conversion =
      mdftest::range_table({{0, 99, "LOW"}, {100, 999, std::nullopt}, {1000, 4095, "HIGH"}}, "lvl");
  level.comment = "level comment";
  level.long_name = "level_long";
  level.display_name = "Level";
  level.extension = mdftest::extension(MDF_CE_DIM, std::vector<uint8_t>(122, 0x5A));
  auto& state = cg.add_channel("state", 76, 4, MDF_DT_UINT);
  state.conversion = mdftest::verbal_table({{0, "off"}, {1, "on"}});
  auto& old = cg.add_channel("old_style", 80, 16, MDF_DT_INT_BE);
  old.block_size = 218;
  old.comment = "$Longname: OldLong\n$Displayname: OldDisplay";
  old.conversion = mdftest::polynomial({1, 2, 3, 4, 5, 6}, "p");
  auto& text = cg.add_channel("text", 96, 32, MDF_DT_STRING);
  text.range_valid = 1;
  text.min = -1;
  text.max = 1;
  for (uint32_t r = 0; r < 20; ++r) {
    auto& rec = cg.add_record();
    mdftest::put_f64(rec, 0, r * 10.0);
    mdftest::put_bits(rec, 64, 12, r * 200);
    mdftest::put_bits(rec, 76, 4, r % 2);
    mdftest::put_bits(rec, 80, 16, static_cast<uint16_t>(-static_cast<int>(r) * 100), kMotorola);
    const std::string s = "t" + std::to_string(r);
    mdftest::put_raw(
        rec, 12, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(s.data()), s.size()));
  }
  return f;
}

TEST_F(ChannelApi, DuplicatedChannelsCarryTheirPropertiesIntoAnotherFile) {
  const auto source_file = write(duplicate_source(), "source.mdf");
  const std::string target_file = path("target.mdf");
  mdf_file *src = nullptr, *dst = nullptr;
  mdf_group *sg = nullptr, *dg = nullptr;
  ASSERT_EQ(mdfFileOpen(&src, source_file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&sg, src, 1, MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfFileOpen(&dst, target_file.c_str(), MDF_OPEN_CREATE), 0);
  ASSERT_EQ(mdfGrpOpen(&dg, dst, 1, MDF_OPEN_CREATE), 0);
  uint16_t count = 0;
  ASSERT_EQ(mdfGrpChannels(&count, sg), 0);
  ASSERT_EQ(count, 5);
  std::vector<channelnode*> from(count), to(count);
  for (uint16_t i = 0; i < count; ++i) {
    ASSERT_EQ(mdfChnOpen(&from[i], sg, static_cast<uint16_t>(i + 1)), 0);
    ASSERT_EQ(mdfChnDuplicate(&to[i], dg, from[i]), 0) << i;
  }
  // Copy every record value by value: the time bytes with a Write function (each later one
  // appends the record before), the others with Set functions.
  uint32_t records = 0;
  ASSERT_EQ(mdfGrpRecords(&records, sg), 0);
  for (uint32_t r = 0; r < records; ++r) {
    ASSERT_EQ(mdfGrpSeek(sg, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    for (uint16_t i = 0; i < count; ++i) {
      uint8_t bytes[8] = {};
      uint32_t length = sizeof bytes;
      uint64_t raw = 0;
      if (i == 0) {
        ASSERT_EQ(mdfChnGetData(bytes, &length, from[i], 0), 0);
        ASSERT_EQ(mdfChnWriteData(to[i], bytes, length), 0);
      } else if (mdfChnGetHexInt(&raw, from[i], 0) == 0) {
        ASSERT_EQ(mdfChnSetHexInt(to[i], raw), 0);
      } else {
        ASSERT_EQ(mdfChnGetData(bytes, &length, from[i], 0), 0);
        ASSERT_EQ(mdfChnSetData(to[i], bytes, length), 0);
      }
    }
  }
  ASSERT_EQ(mdfGrpClose(dg), 0);
  ASSERT_EQ(mdfFileClose(dst), 0);

  ASSERT_EQ(mdfFileOpen(&dst, target_file.c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfGrpOpen(&dg, dst, 1, MDF_OPEN_READ), 0);
  uint16_t copied = 0;
  ASSERT_EQ(mdfGrpChannels(&copied, dg), 0);
  ASSERT_EQ(copied, count);
  for (uint16_t i = 0; i < count; ++i) {
    channelnode *a = from[i], *b = nullptr;
    ASSERT_EQ(mdfChnOpen(&b, dg, static_cast<uint16_t>(i + 1)), 0);
    SCOPED_TRACE(name_of(a));
    uint16_t ta = 0, tb = 1, ba = 0, bb = 1, va = 0, vb = 1;
    const char *na, *nb, *da, *db, *xa, *xb;
    ASSERT_EQ(mdfChnGetInfo(a, &ta, &ba, &va, &na, &da, &xa), 0);
    const std::string name_a = na, desc_a = da, text_a = xa;
    ASSERT_EQ(mdfChnGetInfo(b, &tb, &bb, &vb, &nb, &db, &xb), 0);
    EXPECT_EQ(tb, ta);
    EXPECT_EQ(bb, ba);
    EXPECT_EQ(vb, va);
    EXPECT_EQ(nb, name_a);
    EXPECT_EQ(db, desc_a);
    EXPECT_EQ(xb, text_a);
    const char *la, *lb, *pa, *pb;
    ASSERT_EQ(mdfChnGetInfoExt(a, nullptr, &la, &pa), 0);
    const std::string long_a = la, display_a = pa;
    ASSERT_EQ(mdfChnGetInfoExt(b, nullptr, &lb, &pb), 0);
    EXPECT_EQ(lb, long_a);
    EXPECT_EQ(pb, display_a);
    uint16_t fa = 1, fb = 2;
    const char *ua = nullptr, *ub = nullptr;
    const void *qa = nullptr, *qb = nullptr;
    const int16_t sa = mdfChnGetForm(a, &fa, &ua, &qa);
    ASSERT_EQ(mdfChnGetForm(b, &fb, &ub, &qb), sa);
    if (sa == 0) {
      EXPECT_EQ(fb, fa);
      EXPECT_EQ(std::string(ub, 20), std::string(ua, 20));
    }
    if (fa == MDF_CC_FRM_VTABR) {
      for (uint16_t e = 0; e < 3; ++e) {
        const char *ea = nullptr, *eb = nullptr;
        ASSERT_EQ(mdfChnGetFormVTabText(a, e, &ea), 0);
        const std::string text_e = ea;
        ASSERT_EQ(mdfChnGetFormVTabText(b, e, &eb), 0);
        EXPECT_EQ(eb, text_e) << e;
      }
    }
    // The raw value range is not part of the copy.
    double lo = 1, hi = 1;
    EXPECT_EQ(mdfChnGetHexRange(&lo, &hi, b), MDF_RANGE_UNKNOWN);
    for (uint32_t r = 0; r < records; ++r) {
      double pva = 0, pvb = 1;
      ASSERT_EQ(mdfGrpSeek(sg, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
      ASSERT_EQ(mdfGrpSeek(dg, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
      const int16_t st = mdfChnGetPhy(&pva, a, 0);
      EXPECT_EQ(mdfChnGetPhy(&pvb, b, 0), st);
      EXPECT_EQ(pvb, pva) << r;
      uint8_t da8[8] = {}, db8[8] = {};
      uint32_t lena = 8, lenb = 8;
      const int16_t sd = mdfChnGetData(da8, &lena, a, 0);
      EXPECT_EQ(mdfChnGetData(db8, &lenb, b, 0), sd);
      EXPECT_EQ(std::memcmp(da8, db8, 8), 0) << r;
    }
  }
  EXPECT_EQ(mdfGetErrorCode(), 0);
  ASSERT_EQ(mdfFileClose(dst), 0);

  // The copied blocks, seen by the test-side reader.
  const auto rs = mdftest::read_file(source_file);
  const auto rt = mdftest::read_file(target_file);
  ASSERT_TRUE(rt.ok()) << rt.error_text();
  const auto& cs = rs.channel_groups().at(0)->channels;
  const auto& ct = rt.channel_groups().at(0)->channels;
  ASSERT_EQ(ct.size(), cs.size());
  for (size_t i = 0; i < cs.size(); ++i) {
    EXPECT_EQ(ct[i].block_size, 228) << i;
    EXPECT_EQ(ct[i].conversion.has_value(), cs[i].conversion.has_value()) << i;
    if (cs[i].conversion && ct[i].conversion) {
      const mdftest::ConversionFields& a = *cs[i].conversion;
      const mdftest::ConversionFields& b = *ct[i].conversion;
      EXPECT_TRUE(a == b) << i;
    }
    EXPECT_EQ(ct[i].extension.has_value(), cs[i].extension.has_value()) << i;
    if (cs[i].extension && ct[i].extension) {
      EXPECT_EQ(ct[i].extension->type, cs[i].extension->type);
      EXPECT_EQ(ct[i].extension->record, cs[i].extension->record);
    }
  }
  EXPECT_EQ(ct[3].long_name, std::optional<std::string>("OldLong"));
  EXPECT_EQ(ct[3].display_name, std::optional<std::string>("OldDisplay"));
  // The copy is placed as a new channel is: the 12-bit level right behind the time.
  EXPECT_EQ(ct[1].first_bit, 64);
  EXPECT_EQ(ct[2].first_bit, 76);
}

// ---- Handles --------------------------------------------------------------------------------

TEST_F(ChannelApi, BadHandlesAreRefused) {
  // A record of the right size whose tag is not the channel tag.
  alignas(8) static uint8_t fake[64] = {};
  auto* wrong = reinterpret_cast<channelnode*>(fake);
  uint16_t u16 = 0;
  uint8_t u8 = 0;
  uint32_t u32 = 4;
  uint64_t u64 = 0;
  double d = 0;
  const char* text = nullptr;
  uint8_t data[4] = {};
  channelnode* out = nullptr;
  using Call = std::function<int16_t(channelnode*)>;
  const std::vector<std::pair<const char*, Call>> calls = {
      {"GetInfo",
       [&](channelnode* c) { return mdfChnGetInfo(c, &u16, &u16, &u16, &text, &text, &text); }},
      {"GetType", [&](channelnode* c) { return mdfChnGetType(c, &u16); }},
      {"GetBits", [&](channelnode* c) { return mdfChnGetBits(c, &u16); }},
      {"GetValueType", [&](channelnode* c) { return mdfChnGetValueType(c, &u16); }},
      {"GetName", [&](channelnode* c) { return mdfChnGetName(c, &text); }},
      {"GetDesc", [&](channelnode* c) { return mdfChnGetDesc(c, &text); }},
      {"GetText", [&](channelnode* c) { return mdfChnGetText(c, &text); }},
      {"SetInfo", [&](channelnode* c) { return mdfChnSetInfo(c, "a", "b", "c"); }},
      {"SetName", [&](channelnode* c) { return mdfChnSetName(c, "a"); }},
      {"SetDesc", [&](channelnode* c) { return mdfChnSetDesc(c, "a"); }},
      {"SetText", [&](channelnode* c) { return mdfChnSetText(c, "a"); }},
      {"GetInfoExt", [&](channelnode* c) { return mdfChnGetInfoExt(c, &u16, &text, &text); }},
      {"SetInfoExt", [&](channelnode* c) { return mdfChnSetInfoExt(c, 1, "a", "b"); }},
      {"GetLongName", [&](channelnode* c) { return mdfChnGetLongName(c, &text); }},
      {"GetDisplayName", [&](channelnode* c) { return mdfChnGetDisplayName(c, &text); }},
      {"SetLongName", [&](channelnode* c) { return mdfChnSetLongName(c, "a"); }},
      {"SetDisplayName", [&](channelnode* c) { return mdfChnSetDisplayName(c, "a"); }},
      {"GetRaster", [&](channelnode* c) { return mdfChnGetRaster(c, &d); }},
      {"SetRaster", [&](channelnode* c) { return mdfChnSetRaster(c, 1.0); }},
      {"GetBitAndByteOffset",
       [&](channelnode* c) { return mdfChnGetBitAndByteOffset(c, &u8, &u32); }},
      {"GetHexRange", [&](channelnode* c) { return mdfChnGetHexRange(&d, &d, c); }},
      {"SetHexRange", [&](channelnode* c) { return mdfChnSetHexRange(c, 0, 1); }},
      {"GetPhyRange", [&](channelnode* c) { return mdfChnGetPhyRange(&d, &d, c); }},
      {"SetPhyRange", [&](channelnode* c) { return mdfChnSetPhyRange(c, 0, 1); }},
      {"GetData", [&](channelnode* c) { return mdfChnGetData(data, &u32, c, 0); }},
      {"GetHex", [&](channelnode* c) { return mdfChnGetHex(&d, c, 1); }},
      {"GetHexInt", [&](channelnode* c) { return mdfChnGetHexInt(&u64, c, 0); }},
      {"GetPhy", [&](channelnode* c) { return mdfChnGetPhy(&d, c, 0); }},
      {"SetData", [&](channelnode* c) { return mdfChnSetData(c, data, 1); }},
      {"SetHex", [&](channelnode* c) { return mdfChnSetHex(c, 1.0); }},
      {"SetHexInt", [&](channelnode* c) { return mdfChnSetHexInt(c, 1); }},
      {"SetPhy", [&](channelnode* c) { return mdfChnSetPhy(c, 1.0); }},
      {"ReadData", [&](channelnode* c) { return mdfChnReadData(data, &u32, c); }},
      {"ReadHex", [&](channelnode* c) { return mdfChnReadHex(&d, c); }},
      {"ReadHexInt", [&](channelnode* c) { return mdfChnReadHexInt(&u64, c); }},
      {"ReadPhy", [&](channelnode* c) { return mdfChnReadPhy(&d, c); }},
      {"WriteData", [&](channelnode* c) { return mdfChnWriteData(c, data, 1); }},
      {"WriteHex", [&](channelnode* c) { return mdfChnWriteHex(c, 1.0); }},
      {"WriteHexInt", [&](channelnode* c) { return mdfChnWriteHexInt(c, 1); }},
      {"WritePhy", [&](channelnode* c) { return mdfChnWritePhy(c, 1.0); }},
      {"Duplicate (source)", [&](channelnode* c) { return mdfChnDuplicate(&out, nullptr, c); }},
      {"Close",
       [&](channelnode* c) { return c == nullptr ? MDF_ERR_BAD_CHANNEL : mdfChnClose(c); }},
  };
  for (const auto& [what, call] : calls) {
    for (channelnode* handle : {static_cast<channelnode*>(nullptr), wrong}) {
      if (handle == nullptr && std::string(what) == "Close") continue;  // null closes quietly
      restart();
      const auto before = log_size();
      EXPECT_EQ(call(handle), MDF_ERR_BAD_CHANNEL) << what;
      EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_BAD_CHANNEL) << what;
      EXPECT_GT(log_size(), before) << what;
    }
  }
  restart();
  EXPECT_EQ(mdfChnClose(nullptr), 0);
  EXPECT_EQ(mdfGetErrorCode(), 0);

  // Group handles of the openers.
  auto* wrong_group = reinterpret_cast<mdf_group*>(fake);
  using GroupCall = std::function<int16_t(mdf_group*)>;
  const std::vector<std::pair<const char*, GroupCall>> group_calls = {
      {"Open", [&](mdf_group* g) { return mdfChnOpen(&out, g, 1); }},
      {"OpenName", [&](mdf_group* g) { return mdfChnOpenName(&out, g, "a"); }},
      {"OpenType", [&](mdf_group* g) { return mdfChnOpenType(&out, g, 0); }},
      {"OpenTime", [&](mdf_group* g) { return mdfChnOpenTime(&out, g); }},
      {"Create", [&](mdf_group* g) { return mdfChnCreate(&out, g, 0, 8, 0, "a"); }},
      {"GetFirst", [&](mdf_group* g) { return mdfChnGetFirst(g, &out); }},
  };
  for (const auto& [what, call] : group_calls) {
    for (mdf_group* handle : {static_cast<mdf_group*>(nullptr), wrong_group}) {
      restart();
      out = wrong;
      EXPECT_EQ(call(handle), MDF_ERR_BAD_GROUP) << what;
      EXPECT_EQ(out, nullptr) << what;
      EXPECT_EQ(mdfGetErrorCode(), MDF_ERR_BAD_GROUP) << what;
    }
  }
  // A stored sticky error is returned at once, before any handle check.
  restart();
  EXPECT_EQ(mdfChnGetType(nullptr, &u16), MDF_ERR_BAD_CHANNEL);
  EXPECT_EQ(mdfChnOpen(&out, nullptr, 1), MDF_ERR_BAD_CHANNEL);
  EXPECT_EQ(mdfChnClose(nullptr), 0);
}

}  // namespace
