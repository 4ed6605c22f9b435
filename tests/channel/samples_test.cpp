// Sample files written by independent MDF tools, read through the C interface and compared
// with the description beside each file (what an independent reader read from it): group
// and channel layout, raw values and physical values. Where the description's physical values
// follow other formulas (exponential and logarithmic rules) or are texts (verbal tables, whose
// texts the program's export compares), only the raw values are compared.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
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

// The stems of the sample files that have a description beside them.
std::vector<std::string> sample_stems() {
  std::vector<std::string> stems;
  for (const auto& entry : fs::directory_iterator(KORVEL_SAMPLES_DIR)) {
    fs::path p = entry.path();
    if (p.extension() == ".mdf" && fs::exists(p.replace_extension(".json")))
      stems.push_back(p.stem().string());
  }
  std::sort(stems.begin(), stems.end());
  return stems;
}

// One raw value, as the description writes it, through a Read function (`read`) or a Get
// function at the cursor: an integer, a double, or a text or a byte array (as hex).
Json read_raw(channelnode* ch, uint16_t data_type, bool read, int16_t& status) {
  static constexpr char kKinds[] = "uirrrrrtbuirruirr";  // by data type; r for the others
  const char kind = data_type < 17 ? kKinds[data_type] : 'r';
  uint64_t integer = 0;
  double real = 0;
  if (kind == 'i' || kind == 'u') {
    status = read ? mdfChnReadHexInt(&integer, ch) : mdfChnGetHexInt(&integer, ch, 0);
    return kind == 'i' ? Json(static_cast<int64_t>(integer)) : Json(integer);
  }
  if (kind == 'r') {
    status = read ? mdfChnReadHex(&real, ch) : mdfChnGetHex(&real, ch, 0);
    return Json(real);
  }
  uint8_t buffer[256] = {};
  uint32_t length = sizeof buffer;
  status = read ? mdfChnReadData(buffer, &length, ch) : mdfChnGetData(buffer, &length, ch, 0);
  std::string text;
  for (uint32_t i = 0; i < length && !(kind == 't' && buffer[i] == 0); ++i) {
    if (kind == 't') text += static_cast<char>(buffer[i]);
    if (kind == 'b') text += {"0123456789abcdef"[buffer[i] >> 4], "0123456789abcdef"[buffer[i] & 15]};
  }
  return Json(text);
}

// One channel: its name, type, data type, bit count and place, its rule and unit; the first
// records through Read functions and the last ones through Get functions after a seek, each
// raw value with the physical value of the same record.
void check_channel(mdf_group* g, uint16_t index, uint32_t records, const Json& d) {
  SCOPED_TRACE(d["name"].get<std::string>());
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
  ASSERT_EQ(mdfChnOpen(&ch, g, index), 0);
  uint16_t type = 9, bits = 0, data_type = 99, rule = MDF_CC_FRM_NON;
  const char *name = "", *unit = "";
  uint8_t bit = 0xFF;
  uint32_t byte = 0;
  ASSERT_EQ(mdfChnGetInfo(ch, &type, &bits, &data_type, &name, nullptr, nullptr), 0);
  ASSERT_EQ(mdfChnGetBitAndByteOffset(ch, &bit, &byte), 0);
  EXPECT_EQ(std::make_tuple(std::string(name), type, data_type, bits, byte * 8u + bit),
            std::make_tuple(d["name"].get<std::string>(), d["master"].get<bool>() ? 1 : 0,
                            d["mdf3_data_type"].get<uint64_t>(), d["bit_count"].get<uint64_t>(),
                            d["bit_offset"].get<uint64_t>()));
  const int16_t form = mdfChnGetForm(ch, &rule, &unit, nullptr);
  EXPECT_EQ(form, d["conversion_type"].is_null() ? MDF_NO_FORMULA : 0);
  if (form == 0) {
    EXPECT_EQ(std::make_tuple(Json(rule), std::string(unit, std::find(unit, unit + 20, '\0'))),
              std::make_tuple(d["conversion_type"], d["unit"].get<std::string>()));
  }
  // Verbal tables give the raw value as physical value; exponential and logarithmic values
  // of the description follow other formulas.
  const bool numeric = data_type != MDF_DT_STRING && data_type != MDF_DT_BYTES;
  const bool as_raw = rule == MDF_CC_FRM_NON || rule == MDF_CC_FRM_VTAB || rule == MDF_CC_FRM_VTABR;
  const bool skip = rule == MDF_CC_FRM_EXP || rule == MDF_CC_FRM_LOG;
  const auto expect_record = [&](uint32_t r, bool read, const Json& raw_want, const Json& phys) {
    int16_t status = -1;
    EXPECT_EQ(read_raw(ch, data_type, read, status), raw_want) << "raw " << r;
    EXPECT_EQ(status, 0) << r;
    double physical = -1;
    EXPECT_EQ(mdfChnGetPhy(&physical, ch, 0), numeric ? 0 : MDF_UNSUPPORTED_TYPE) << r;
    if (numeric && !skip) { EXPECT_EQ(Json(physical), as_raw ? raw_want : phys) << "phys " << r; }
  };
  const auto &raw_first = d["raw_first"], &phys_first = d["phys_first"];
  const auto &raw_last = d["raw_last"], &phys_last = d["phys_last"];
  ASSERT_TRUE(raw_first.size() == phys_first.size() && raw_last.size() == phys_last.size() &&
              raw_last.size() <= records);
  for (uint32_t r = 0; r < raw_first.size(); ++r) expect_record(r, true, raw_first[r], phys_first[r]);
  for (uint32_t k = 0; k < raw_last.size(); ++k) {
    const auto r = static_cast<uint32_t>(records - raw_last.size() + k);
    ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    expect_record(r, false, raw_last[k], phys_last[k]);
  }
  ASSERT_EQ(mdfChnClose(ch), 0);
}

class SampleFile : public mdftest::Session, public ::testing::WithParamInterface<std::string> {};

// Every channel of every group; then a copy opens for modifying (files of other writers hold no
// block over another block or over records).
TEST_P(SampleFile, EveryChannelMatchesTheIndependentReading) {
  const fs::path file = fs::path(KORVEL_SAMPLES_DIR) / (GetParam() + ".mdf");
  const Json groups = Json::parse(std::ifstream(fs::path(file).replace_extension(".json")))["groups"];
  mdf_file* f = open_file(file.string());
  uint16_t group_count = 0;
  ASSERT_EQ(mdfFileGroups(&group_count, f), 0);
  ASSERT_EQ(group_count, groups.size());
  for (uint16_t gi = 0; gi < group_count; ++gi) {
    SCOPED_TRACE("group " + std::to_string(gi + 1));
    const auto& cds = groups[gi]["channels"];
    mdf_group* g = nullptr;
    uint32_t records = 0;
    uint16_t channels = 0;
    ASSERT_EQ(mdfGrpOpen(&g, f, static_cast<uint16_t>(gi + 1), MDF_OPEN_READ), 0);
    ASSERT_EQ(mdfGrpRecords(&records, g), 0);
    ASSERT_EQ(mdfGrpChannels(&channels, g), 0);
    ASSERT_EQ(std::make_tuple(Json(records), Json(channels), Json(mdfGrpBuffer(nullptr, g) - 24)),
              std::make_tuple(groups[gi]["cycles"], Json(cds.size()), groups[gi]["record_bytes"]));
    for (uint16_t ci = 0; ci < channels; ++ci) check_channel(g, ci + 1, records, cds[ci]);
    ASSERT_EQ(mdfGrpClose(g), 0);
  }
  ASSERT_EQ(mdfFileClose(f), 0);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  EXPECT_EQ(mdfFileClose(open_file(mdftest::copy_writable(file, dir_).string(), MDF_OPEN_MODIFY)), 0);
}

// The samples must be there: an empty list fails the suite.
INSTANTIATE_TEST_SUITE_P(Samples, SampleFile, ::testing::ValuesIn(sample_stems()),
                         [](const ::testing::TestParamInfo<std::string>& param) {
                           std::string name = param.param;
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

}  // namespace
