// Sample files written by independent MDF tools, read through the C interface and compared
// with the description beside each file (what an independent reader read from it): group
// and channel layout, raw values and physical values.
//
// Where the description's physical values come from other formulas than this library's
// (exponential and logarithmic rules) or are texts (verbal tables), the raw values are
// compared and the physical values checked by this library's own rules, with the rule
// parameters as the library hands them out.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "korvel.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Ch = channelnode*;

// ---- The samples ----------------------------------------------------------------------------

// The stems of the sample files that have a description beside them.
std::vector<std::string> sample_stems() {
  std::vector<std::string> stems;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(KORVEL_SAMPLES_DIR, ec)) {
    fs::path p = entry.path();
    if (p.extension() == ".mdf" && fs::exists(p.replace_extension(".json")))
      stems.push_back(p.stem().string());
  }
  std::sort(stems.begin(), stems.end());
  return stems;
}

enum class Raw { signed_int, unsigned_int, real, text, bytes };

Raw raw_kind(uint64_t value_type) {
  using enum Raw;
  static constexpr Raw kinds[] = {
      unsigned_int, signed_int, real, real, real,         real,       real, text, bytes,
      unsigned_int, signed_int, real, real, unsigned_int, signed_int, real, real};
  return value_type < std::size(kinds) ? kinds[value_type] : real;
}

// One raw value through a Read function (read) or a Get function at the cursor: an integer
// (and its double reading for the rules), a double, or a text or a byte array (as hex).
struct RawValue {
  int16_t status = -1;
  uint64_t integer = 0;
  double real = 0;
  std::string text;
};

RawValue read_raw(Ch ch, Raw kind, bool read) {
  RawValue v;
  if (kind == Raw::signed_int || kind == Raw::unsigned_int) {
    v.status = read ? mdfChnReadHexInt(&v.integer, ch) : mdfChnGetHexInt(&v.integer, ch, 0);
    v.real = kind == Raw::signed_int ? static_cast<double>(static_cast<int64_t>(v.integer))
                                     : static_cast<double>(v.integer);
  } else if (kind == Raw::real) {
    v.status = read ? mdfChnReadHex(&v.real, ch) : mdfChnGetHex(&v.real, ch, 0);
  } else {
    uint8_t buffer[256] = {};
    uint32_t length = sizeof buffer;
    v.status = read ? mdfChnReadData(buffer, &length, ch) : mdfChnGetData(buffer, &length, ch, 0);
    for (uint32_t i = 0; i < length && !(kind == Raw::text && buffer[i] == 0); ++i) {
      if (kind == Raw::text) v.text += static_cast<char>(buffer[i]);
      if (kind == Raw::bytes)
        v.text += {"0123456789abcdef"[buffer[i] >> 4], "0123456789abcdef"[buffer[i] & 15]};
    }
  }
  return v;
}

// The raw value as the description writes it.
Json as_json(const RawValue& v, Raw kind) {
  return kind == Raw::signed_int     ? Json(static_cast<int64_t>(v.integer))
         : kind == Raw::unsigned_int ? Json(v.integer)
         : kind == Raw::real         ? Json(v.real)
                                     : Json(v.text);
}

// The exponential (7) and logarithmic (8) rules by this library's formulas, P1 .. P7 as stored.
double exp_log_rule(uint16_t type, const std::vector<double>& p, double x) {
  const auto f = [type](double y) { return type == MDF_CC_FRM_EXP ? std::log(y) : std::exp(y); };
  const double v = x - p[6];
  if (p[3] == 0) return p[0] == 0 || p[1] == 0 ? 0.0 : f((v * p[5] - p[2]) / p[0]) / p[1];
  if (p[0] != 0 || std::isnan(p[0])) return x;
  if (p[4] == 0 || v == 0) return 0.0;
  return f((p[2] / v - p[5]) / p[3]) / p[4];
}

// The text of a value-to-text rule for a raw value. A verbal table (11): the entry holding the
// value, "" if none. A verbal range table (12): the writer of the samples keeps a default text
// in entry 0 (its range 0 .. 0 is no range) and the ranges after it; the first range holding
// the value gives the text, else the default.
std::string text_of(Ch ch, uint16_t type, double raw) {
  uint16_t t = 0, chosen = 0;
  const uint16_t* count = nullptr;
  const void* entries = nullptr;
  double offset = 0, factor = 0, value[2] = {};
  const char* text = nullptr;
  if (type == MDF_CC_FRM_VTAB) {
    if (mdfChnGetFormVTab(ch, &t, nullptr, &count, &entries) != 0) return "<no table>";
    for (uint16_t i = 0; i < *count; ++i) {
      const char* entry = static_cast<const char*>(entries) + 40 * i;
      std::memcpy(value, entry, sizeof(double));
      if (value[0] == raw) return std::string(entry + 8, std::find(entry + 8, entry + 40, '\0'));
    }
    return "";
  }
  if (mdfChnGetFormVTabR(ch, &t, nullptr, &offset, &factor, &count, &entries) != 0)
    return "<no table>";
  for (uint16_t i = 1; i < *count && chosen == 0; ++i) {
    std::memcpy(value, static_cast<const char*>(entries) + 20 * i, sizeof value);
    if (raw >= value[0] && raw <= value[1]) chosen = i;
  }
  if (*count == 0) return "";
  return mdfChnGetFormVTabText(ch, chosen, &text) == 0 ? text : "<no text>";
}

// The physical value this library must give for a raw value, and the text the description
// lists for value-to-text rules.
void expect_physical(Ch ch, const Json& d, const RawValue& raw, double physical, int16_t status,
                     const Json& want, const std::string& where) {
  const Raw kind = raw_kind(d["mdf3_data_type"].get<uint64_t>());
  if (kind == Raw::text || kind == Raw::bytes) {
    EXPECT_EQ(status, MDF_UNSUPPORTED_TYPE) << where;
    return;
  }
  ASSERT_EQ(status, 0) << where;
  const Json& rule = d["conversion_type"];
  const auto type = static_cast<uint16_t>(rule.is_null() ? MDF_CC_FRM_NON : rule.get<uint64_t>());
  if (type == MDF_CC_FRM_EXP || type == MDF_CC_FRM_LOG) {
    const void* params = nullptr;
    ASSERT_EQ(mdfChnGetForm(ch, nullptr, nullptr, &params), 0);
    std::vector<double> p(7);
    std::memcpy(p.data(), params, 7 * sizeof(double));
    EXPECT_EQ(physical, exp_log_rule(type, p, raw.real)) << where;
  } else if (type == MDF_CC_FRM_VTAB || type == MDF_CC_FRM_VTABR) {
    // A range table takes a linear pair from scaling annotations in its first text; these
    // samples carry plain texts, which leave factor 1 and offset 0.
    const char* first = "";
    if (type == MDF_CC_FRM_VTABR) {
      ASSERT_EQ(mdfChnGetFormVTabText(ch, 0, &first), 0);
    }
    ASSERT_NE(first[0], '{') << "a scaling annotation: extend this test";
    EXPECT_EQ(physical, raw.real) << where;
    EXPECT_EQ(text_of(ch, type, raw.real), want.get<std::string>()) << where;
  } else {
    EXPECT_EQ(physical, type == MDF_CC_FRM_NON ? raw.real : want.get<double>()) << where;
  }
}

// One channel: its name, type, data type, bit count and place, its rule and unit; the first
// records through Read functions and the last ones through Get functions after a seek, each
// raw value with the physical value of the same record.
void check_channel(mdf_group* g, uint16_t index, uint32_t records, const Json& d) {
  SCOPED_TRACE(d["name"].get<std::string>());
  Ch ch = nullptr;
  ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
  ASSERT_EQ(mdfChnOpen(&ch, g, index), 0);
  uint16_t type = 9, bits = 0, value_type = 99, rule = 0;
  const char *name = "", *unit = "";
  uint8_t bit = 0xFF;
  uint32_t byte = 0;
  ASSERT_EQ(mdfChnGetInfo(ch, &type, &bits, &value_type, &name, nullptr, nullptr), 0);
  ASSERT_EQ(mdfChnGetBitAndByteOffset(ch, &bit, &byte), 0);
  EXPECT_EQ(std::make_tuple(std::string(name), type, value_type, bits, byte * 8u + bit),
            std::make_tuple(d["name"].get<std::string>(), d["master"].get<bool>() ? 1 : 0,
                            d["mdf3_data_type"].get<uint64_t>(), d["bit_count"].get<uint64_t>(),
                            d["bit_offset"].get<uint64_t>()));
  const int16_t form = mdfChnGetForm(ch, &rule, &unit, nullptr);
  if (d["conversion_type"].is_null()) {
    EXPECT_EQ(form, MDF_NO_FORMULA);
  } else {
    ASSERT_EQ(form, 0);
    EXPECT_EQ(std::make_tuple(uint64_t{rule}, std::string(unit, std::find(unit, unit + 20, '\0'))),
              std::make_tuple(d["conversion_type"].get<uint64_t>(), d["unit"].get<std::string>()));
  }

  const Raw kind = raw_kind(value_type);
  const auto &raw_first = d["raw_first"], &phys_first = d["phys_first"];
  const auto &raw_last = d["raw_last"], &phys_last = d["phys_last"];
  ASSERT_TRUE(raw_first.size() == phys_first.size() && raw_last.size() == phys_last.size() &&
              raw_last.size() <= records);
  const auto expect_record = [&](uint32_t r, bool read_next, const Json& raw_want,
                                 const Json& phys_want) {
    const RawValue raw = read_raw(ch, kind, read_next);
    EXPECT_EQ(raw.status, 0) << r;
    EXPECT_EQ(as_json(raw, kind), raw_want) << "raw " << r;
    double physical = -1;
    const int16_t st = mdfChnGetPhy(&physical, ch, 0);
    expect_physical(ch, d, raw, physical, st, phys_want, "phys " + std::to_string(r));
  };
  for (uint32_t r = 0; r < raw_first.size(); ++r)
    expect_record(r, true, raw_first[r], phys_first[r]);
  for (size_t k = 0; k < raw_last.size(); ++k) {
    const auto r = static_cast<uint32_t>(records - raw_last.size() + k);
    ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    expect_record(r, false, raw_last[k], phys_last[k]);
  }
  ASSERT_EQ(mdfChnClose(ch), 0);
}

class SampleFile : public ::testing::TestWithParam<std::string> {};

TEST_P(SampleFile, EveryChannelMatchesTheIndependentReading) {
  const fs::path file = fs::path(KORVEL_SAMPLES_DIR) / (GetParam() + ".mdf");
  std::ifstream in(fs::path(file).replace_extension(".json"));
  const Json doc = Json::parse(in);
  const auto& groups = doc["groups"];
  mdfClose();  // a fresh library session
  ASSERT_EQ(mdfOpen(nullptr), 0);
  mdf_file* f = nullptr;
  uint16_t group_count = 0;
  ASSERT_EQ(mdfFileOpen(&f, file.string().c_str(), MDF_OPEN_READ), 0);
  ASSERT_EQ(mdfFileGroups(&group_count, f), 0);
  ASSERT_EQ(group_count, groups.size());
  for (size_t gi = 0; gi < groups.size(); ++gi) {
    SCOPED_TRACE("group " + std::to_string(gi + 1));
    const auto& cds = groups[gi]["channels"];
    mdf_group* g = nullptr;
    uint32_t records = 0;
    uint16_t channels = 0;
    ASSERT_EQ(mdfGrpOpen(&g, f, static_cast<uint16_t>(gi + 1), MDF_OPEN_READ), 0);
    ASSERT_EQ(mdfGrpRecords(&records, g), 0);
    ASSERT_EQ(mdfGrpChannels(&channels, g), 0);
    ASSERT_EQ(std::make_tuple(uint64_t{records}, size_t{channels},
                              static_cast<uint64_t>(mdfGrpBuffer(nullptr, g))),
              std::make_tuple(groups[gi]["cycles"].get<uint64_t>(), cds.size(),
                              groups[gi]["record_bytes"].get<uint64_t>() + 24));
    for (size_t ci = 0; ci < cds.size(); ++ci)
      check_channel(g, static_cast<uint16_t>(ci + 1), records, cds[ci]);
    ASSERT_EQ(mdfGrpClose(g), 0);
  }
  ASSERT_EQ(mdfFileClose(f), 0);
  // Files of other writers hold no block over another block or over records: a copy opens for
  // modifying.
  const fs::path dir = mdftest::scratch_dir("korvel_samples");
  const std::string copy = mdftest::copy_writable(file, dir).string();
  EXPECT_EQ(mdfFileOpen(&f, copy.c_str(), MDF_OPEN_MODIFY), 0);
  EXPECT_EQ(mdfFileClose(f), 0);
  fs::remove_all(dir);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  mdfClose();
}

// The samples must be there: an empty list fails the suite.
INSTANTIATE_TEST_SUITE_P(Samples, SampleFile, ::testing::ValuesIn(sample_stems()),
                         [](const ::testing::TestParamInfo<std::string>& param) {
                           std::string name = param.param;
                           const auto odd = [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); };
                           std::replace_if(name.begin(), name.end(), odd, '_');
                           return name;
                         });

}  // namespace
