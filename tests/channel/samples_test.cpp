// Sample files written by independent MDF tools, read through the C interface and compared
// with the description beside each file (what an independent reader read from it): group
// and channel layout, raw values and physical values.
//
// Where the description's physical values come from other formulas than this library's
// (exponential and logarithmic rules) or are texts (verbal tables), the raw values are
// compared and the physical values checked by this library's own rules, with the rule
// parameters taken from the test-side reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "korvel.h"
#include "support/json_value.h"
#include "support/mdf_reader.h"

namespace {

namespace fs = std::filesystem;
namespace json = mdftest::json;

// ---- The JSON reader itself -----------------------------------------------------------------

TEST(JsonReader, ReadsTheValuesOfTheSampleDescriptions) {
  const auto v =
      json::parse(R"({"a": [1, -2, 3.5, "x\n\u00e9\"", true, false, null, 18446744073709551615,)"
                  R"( -9223372036854775808, 1e3, 0.1], "b": {}, "c": []})");
  const auto& a = v["a"].array;
  ASSERT_EQ(a.size(), 11u);
  EXPECT_EQ(a[0].as_int64(), 1);
  EXPECT_EQ(a[1].as_int64(), -2);
  EXPECT_FALSE(a[2].integral);
  EXPECT_EQ(a[2].number, 3.5);
  EXPECT_EQ(a[3].string, "x\n\xC3\xA9\"");
  EXPECT_TRUE(a[4].boolean);
  EXPECT_EQ(a[5].type, json::Value::Type::boolean);
  EXPECT_FALSE(a[5].boolean);
  EXPECT_TRUE(a[6].is_null());
  EXPECT_EQ(a[7].as_uint64(), 18446744073709551615u);
  EXPECT_EQ(a[8].as_int64(), INT64_MIN);
  EXPECT_THROW((void)a[7].as_int64(), std::domain_error);
  EXPECT_FALSE(a[9].integral);
  EXPECT_EQ(a[9].number, 1000.0);
  EXPECT_EQ(a[10].number, 0.1);
  EXPECT_EQ(v["b"].type, json::Value::Type::object);
  EXPECT_TRUE(v["c"].array.empty());
  EXPECT_EQ(v.find("d"), nullptr);
  EXPECT_THROW(json::parse("[1,]"), std::runtime_error);
  EXPECT_THROW(json::parse("{\"a\" 1}"), std::runtime_error);
  EXPECT_THROW(json::parse("[1] 2"), std::runtime_error);
}

// ---- The samples ----------------------------------------------------------------------------

fs::path samples_dir() {
  return fs::path(KORVEL_SAMPLES_DIR);
}

// The stems of the sample files that have a description beside them.
std::vector<std::string> sample_stems() {
  std::vector<std::string> stems;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(samples_dir(), ec)) {
    const fs::path p = entry.path();
    if (p.extension() != ".mdf") continue;
    fs::path description = p;
    description.replace_extension(".json");
    if (fs::exists(description)) stems.push_back(p.stem().string());
  }
  std::sort(stems.begin(), stems.end());
  return stems;
}

TEST(SampleFiles, AreThere) {
  EXPECT_GE(sample_stems().size(), 1u) << samples_dir();
}

enum class Raw { signed_int, unsigned_int, real, text, bytes };

Raw raw_kind(uint16_t value_type) {
  switch (value_type) {
    case MDF_DT_INT:
    case MDF_DT_INT_BE:
    case MDF_DT_INT_LE:
      return Raw::signed_int;
    case MDF_DT_UINT:
    case MDF_DT_UINT_BE:
    case MDF_DT_UINT_LE:
      return Raw::unsigned_int;
    case MDF_DT_STRING:
      return Raw::text;
    case MDF_DT_BYTES:
      return Raw::bytes;
    default:
      return Raw::real;
  }
}

// One raw value as read through the library, with a double reading for the rules.
struct RawValue {
  int16_t status = -1;
  uint64_t integer = 0;
  double real = 0;
  std::string text;  // text, or byte array as lower-case hex
};

// Length of a fixed-width text: up to the first zero byte, at most `width`.
std::size_t bounded_length(const void* p, std::size_t width) {
  const void* end = std::memchr(p, 0, width);
  return end != nullptr
             ? static_cast<std::size_t>(static_cast<const char*>(end) - static_cast<const char*>(p))
             : width;
}

std::string hex_of(const uint8_t* p, uint32_t n) {
  std::string s;
  char two[3];
  for (uint32_t i = 0; i < n; ++i) {
    std::snprintf(two, sizeof two, "%02x", p[i]);
    s += two;
  }
  return s;
}

// Reads the raw value through a Read function (read = true) or a Get function at the cursor.
RawValue read_raw(channelnode* ch, Raw kind, bool read) {
  RawValue v;
  switch (kind) {
    case Raw::signed_int:
    case Raw::unsigned_int:
      v.status = read ? mdfChnReadHexInt(&v.integer, ch) : mdfChnGetHexInt(&v.integer, ch, 0);
      v.real = kind == Raw::signed_int ? static_cast<double>(static_cast<int64_t>(v.integer))
                                       : static_cast<double>(v.integer);
      break;
    case Raw::real:
      v.status = read ? mdfChnReadHex(&v.real, ch) : mdfChnGetHex(&v.real, ch, 0);
      break;
    case Raw::text:
    case Raw::bytes: {
      uint8_t buffer[256] = {};
      uint32_t length = sizeof buffer;
      v.status = read ? mdfChnReadData(buffer, &length, ch) : mdfChnGetData(buffer, &length, ch, 0);
      if (kind == Raw::text) {
        v.text.assign(reinterpret_cast<const char*>(buffer), bounded_length(buffer, length));
      } else {
        v.text = hex_of(buffer, length);
      }
      break;
    }
  }
  return v;
}

void expect_raw(const RawValue& got, Raw kind, const json::Value& want, const std::string& where) {
  ASSERT_EQ(got.status, 0) << where;
  switch (kind) {
    case Raw::signed_int:
      EXPECT_EQ(static_cast<int64_t>(got.integer), want.as_int64()) << where;
      break;
    case Raw::unsigned_int:
      EXPECT_EQ(got.integer, want.as_uint64()) << where;
      break;
    case Raw::real:
      EXPECT_EQ(got.real, want.number) << where;
      break;
    case Raw::text:
    case Raw::bytes:
      EXPECT_EQ(got.text, want.string) << where;
      break;
  }
}

// Physical values of the exponential and logarithmic rules, by this library's formulas
// (P1 .. P7 as stored).
double exponential_rule(const std::vector<double>& p, double x) {
  const double v = x - p[6];
  if (p[3] == 0)
    return p[0] == 0 || p[1] == 0 ? 0.0 : std::log(((x - p[6]) * p[5] - p[2]) / p[0]) / p[1];
  if (p[0] != 0 || std::isnan(p[0])) return x;
  if (p[4] == 0 || v == 0) return 0.0;
  return std::log((p[2] / v - p[5]) / p[3]) / p[4];
}

double logarithmic_rule(const std::vector<double>& p, double x) {
  const double v = x - p[6];
  if (p[3] == 0)
    return p[0] == 0 || p[1] == 0 ? 0.0 : std::exp(((x - p[6]) * p[5] - p[2]) / p[0]) / p[1];
  if (p[0] != 0 || std::isnan(p[0])) return x;
  if (p[4] == 0 || v == 0) return 0.0;
  return std::exp((p[2] / v - p[5]) / p[3]) / p[4];
}

// Text of a verbal table (type 11) entry for a raw value, "" when no entry has it.
std::string verbal_text(channelnode* ch, double raw) {
  uint16_t type = 0;
  const uint16_t* count = nullptr;
  const void* entries = nullptr;
  if (mdfChnGetFormVTab(ch, &type, nullptr, &count, &entries) != 0) return "<no table>";
  const auto* bytes = static_cast<const uint8_t*>(entries);
  for (uint16_t i = 0; i < *count; ++i) {
    double value = 0;
    std::memcpy(&value, bytes + 40 * i, sizeof value);
    if (value != raw) continue;
    const auto* text = reinterpret_cast<const char*>(bytes + 40 * i + 8);
    return std::string(text, bounded_length(text, 32));
  }
  return "";
}

// Text of a verbal range table (type 12) for a raw value. The writer of the samples keeps a
// default text in entry 0 (its range 0 .. 0 is no range) and the ranges in the entries after
// it: the first of those holding the value gives the text, else the default.
std::string range_text(channelnode* ch, double raw) {
  uint16_t type = 0;
  const uint16_t* count = nullptr;
  const void* entries = nullptr;
  double offset = 0, factor = 0;
  if (mdfChnGetFormVTabR(ch, &type, nullptr, &offset, &factor, &count, &entries) != 0) {
    return "<no table>";
  }
  const auto* bytes = static_cast<const uint8_t*>(entries);
  uint16_t chosen = 0;
  for (uint16_t i = 1; i < *count; ++i) {
    double lower = 0, upper = 0;
    std::memcpy(&lower, bytes + 20 * i, sizeof lower);
    std::memcpy(&upper, bytes + 20 * i + 8, sizeof upper);
    if (raw >= lower && raw <= upper) {
      chosen = i;
      break;
    }
  }
  if (*count == 0) return "";
  const char* text = nullptr;
  if (mdfChnGetFormVTabText(ch, chosen, &text) != 0) return "<no text>";
  return text;
}

struct ChannelContext {
  mdf_group* group;
  uint16_t index;  // 1-based
  uint32_t records;
  const json::Value& description;
  const mdftest::ReadChannel& read;  // the test-side reader's view of the same channel
};

// The physical value this library must give for a raw value, and the text the description
// lists for value-to-text rules.
void expect_physical(channelnode* ch, const ChannelContext& c, const RawValue& raw, double physical,
                     int16_t status, const json::Value& want, const std::string& where) {
  const auto& d = c.description;
  const uint16_t value_type = static_cast<uint16_t>(d["mdf3_data_type"].as_uint64());
  if (raw_kind(value_type) == Raw::text || raw_kind(value_type) == Raw::bytes) {
    EXPECT_EQ(status, MDF_UNSUPPORTED_TYPE) << where;
    return;
  }
  ASSERT_EQ(status, 0) << where;
  const json::Value& rule = d["conversion_type"];
  const uint16_t type = rule.is_null() ? MDF_CC_FRM_NON : static_cast<uint16_t>(rule.as_uint64());
  switch (type) {
    case MDF_CC_FRM_NON:
      EXPECT_EQ(physical, raw.real) << where;
      break;
    case MDF_CC_FRM_EXP:
    case MDF_CC_FRM_LOG: {
      ASSERT_TRUE(c.read.conversion.has_value());
      const auto& p = c.read.conversion->params;
      ASSERT_EQ(p.size(), 7u);
      const double want_phys =
          type == MDF_CC_FRM_EXP ? exponential_rule(p, raw.real) : logarithmic_rule(p, raw.real);
      EXPECT_EQ(physical, want_phys) << where;
      break;
    }
    case MDF_CC_FRM_VTAB:
      EXPECT_EQ(physical, raw.real) << where;
      EXPECT_EQ(verbal_text(ch, raw.real), want.string) << where;
      break;
    case MDF_CC_FRM_VTABR: {
      // The linear pair comes from scaling annotations in the first text; these samples
      // carry plain texts, which leave factor 1 and offset 0.
      ASSERT_TRUE(c.read.conversion.has_value());
      const auto& ranges = c.read.conversion->ranges;
      ASSERT_FALSE(ranges.empty());
      ASSERT_TRUE(!ranges[0].text || ranges[0].text->rfind('{', 0) != 0)
          << "a scaling annotation in a sample: extend this test";
      EXPECT_EQ(physical, raw.real) << where;
      EXPECT_EQ(range_text(ch, raw.real), want.string) << where;
      break;
    }
    default:
      EXPECT_EQ(physical, want.number) << where;
      break;
  }
}

void check_channel(const ChannelContext& c) {
  const auto& d = c.description;
  const std::string name = d["name"].string;
  SCOPED_TRACE(name);
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnOpen(&ch, c.group, c.index), 0);
  uint16_t type = 9, bits = 0, value_type = 99;
  const char* got_name = nullptr;
  ASSERT_EQ(mdfChnGetInfo(ch, &type, &bits, &value_type, &got_name, nullptr, nullptr), 0);
  EXPECT_EQ(got_name, name);
  EXPECT_EQ(type, d["master"].boolean ? MDF_CHN_TIME : MDF_CHN_DATA);
  EXPECT_EQ(value_type, d["mdf3_data_type"].as_uint64());
  EXPECT_EQ(bits, d["bit_count"].as_uint64());
  uint8_t bit = 0xFF;
  uint32_t byte = 0;
  ASSERT_EQ(mdfChnGetBitAndByteOffset(ch, &bit, &byte), 0);
  EXPECT_EQ(byte * 8u + bit, d["bit_offset"].as_uint64());

  uint16_t rule = 0;
  const char* unit = nullptr;
  const int16_t form = mdfChnGetForm(ch, &rule, &unit, nullptr);
  if (d["conversion_type"].is_null()) {
    EXPECT_EQ(form, MDF_NO_FORMULA);
  } else {
    ASSERT_EQ(form, 0);
    EXPECT_EQ(rule, d["conversion_type"].as_uint64());
    EXPECT_EQ(std::string(unit, bounded_length(unit, 20)), d["unit"].string);
  }
  ASSERT_EQ(mdfChnClose(ch), 0);

  const Raw kind = raw_kind(value_type);
  const auto& raw_first = d["raw_first"].array;
  const auto& phys_first = d["phys_first"].array;
  const auto& raw_last = d["raw_last"].array;
  const auto& phys_last = d["phys_last"].array;
  ASSERT_EQ(raw_first.size(), phys_first.size());
  ASSERT_EQ(raw_last.size(), phys_last.size());
  ASSERT_LE(raw_last.size(), c.records);

  // The first records through Read functions: raw values with one handle, then physical
  // values with another, each from record 0.
  std::vector<RawValue> raws;
  ASSERT_EQ(mdfGrpSeek(c.group, 0, MDF_SEEK_ABS), 0);
  ASSERT_EQ(mdfChnOpen(&ch, c.group, c.index), 0);
  for (size_t k = 0; k < raw_first.size(); ++k) {
    raws.push_back(read_raw(ch, kind, true));
    expect_raw(raws.back(), kind, raw_first[k], "read raw " + std::to_string(k));
  }
  ASSERT_EQ(mdfChnClose(ch), 0);
  ASSERT_EQ(mdfGrpSeek(c.group, 0, MDF_SEEK_ABS), 0);
  ASSERT_EQ(mdfChnOpen(&ch, c.group, c.index), 0);
  for (size_t k = 0; k < phys_first.size(); ++k) {
    double physical = -1;
    const int16_t st = mdfChnReadPhy(&physical, ch);
    expect_physical(ch, c, raws[k], physical, st, phys_first[k], "read phys " + std::to_string(k));
  }
  ASSERT_EQ(mdfChnClose(ch), 0);

  // The last records through Get functions after a seek.
  ASSERT_EQ(mdfChnOpen(&ch, c.group, c.index), 0);
  for (size_t k = 0; k < raw_last.size(); ++k) {
    const uint32_t r =
        c.records - static_cast<uint32_t>(raw_last.size()) + static_cast<uint32_t>(k);
    ASSERT_EQ(mdfGrpSeek(c.group, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    const RawValue raw = read_raw(ch, kind, false);
    expect_raw(raw, kind, raw_last[k], "get raw " + std::to_string(r));
    double physical = -1;
    const int16_t st = mdfChnGetPhy(&physical, ch, 0);
    expect_physical(ch, c, raw, physical, st, phys_last[k], "get phys " + std::to_string(r));
  }
  ASSERT_EQ(mdfChnClose(ch), 0);
}

class SampleFile : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    mdfClose();
    ASSERT_EQ(mdfOpen(nullptr), 0);
  }
  void TearDown() override { mdfClose(); }
};

TEST_P(SampleFile, EveryChannelMatchesTheIndependentReading) {
  const fs::path file = samples_dir() / (GetParam() + ".mdf");
  const json::Value doc = json::parse_file(samples_dir() / (GetParam() + ".json"));
  const auto read = mdftest::read_file(file);
  ASSERT_TRUE(read.ok()) << read.error_text();
  const auto read_groups = read.channel_groups();
  const auto& groups = doc["groups"].array;
  ASSERT_EQ(read_groups.size(), groups.size());

  mdf_file* f = nullptr;
  ASSERT_EQ(mdfFileOpen(&f, file.string().c_str(), MDF_OPEN_READ), 0);
  uint16_t group_count = 0;
  ASSERT_EQ(mdfFileGroups(&group_count, f), 0);
  ASSERT_EQ(group_count, groups.size());
  for (size_t gi = 0; gi < groups.size(); ++gi) {
    const auto& gd = groups[gi];
    SCOPED_TRACE("group " + std::to_string(gi + 1));
    mdf_group* g = nullptr;
    ASSERT_EQ(mdfGrpOpen(&g, f, static_cast<uint16_t>(gi + 1), MDF_OPEN_READ), 0);
    uint32_t records = 0;
    uint16_t channels = 0;
    ASSERT_EQ(mdfGrpRecords(&records, g), 0);
    ASSERT_EQ(mdfGrpChannels(&channels, g), 0);
    EXPECT_EQ(records, gd["cycles"].as_uint64());
    const auto& cds = gd["channels"].array;
    ASSERT_EQ(channels, cds.size());
    ASSERT_EQ(read_groups[gi]->channels.size(), cds.size());
    EXPECT_EQ(mdfGrpBuffer(nullptr, g), static_cast<int32_t>(gd["record_bytes"].as_uint64()) + 24);
    for (size_t ci = 0; ci < cds.size(); ++ci) {
      check_channel(ChannelContext{g, static_cast<uint16_t>(ci + 1), records, cds[ci],
                                   read_groups[gi]->channels[ci]});
    }
    ASSERT_EQ(mdfGrpClose(g), 0);
  }
  ASSERT_EQ(mdfFileClose(f), 0);
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

INSTANTIATE_TEST_SUITE_P(Samples, SampleFile, ::testing::ValuesIn(sample_stems()),
                         [](const ::testing::TestParamInfo<std::string>& param) {
                           std::string name = param.param;
                           for (char& ch : name) {
                             if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           }
                           return name;
                         });

}  // namespace
