#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/scratch.h"

namespace {

double real_at(const void* base, size_t index) {
  double v;
  std::memcpy(&v, static_cast<const uint8_t*>(base) + 8 * index, 8);
  return v;
}

using mdftest::log_text;

// Channels 1..6 of one group: no rule, linear, table, verbal table, verbal range table, and
// a verbal range table whose first text scales.
class FormApi : public mdftest::Session {
 protected:
  void SetUp() override {
    Session::SetUp();
    mdftest::FileModel f;
    auto& cg = f.add_data_group().add_channel_group(8);
    cg.add_channel("plain", 0, 8, 0);
    cg.add_channel("lin", 8, 8, 0).conversion = mdftest::linear(1.0, 2.0, "km/h");
    cg.add_channel("tab", 16, 8, 0).conversion =
        mdftest::table(true, {{0, 10}, {1, 20}, {2, 40}}, "bar");
    cg.add_channel("vtab", 24, 8, 0).conversion = mdftest::verbal_table({{0, "off"}, {1, "on"}});
    cg.add_channel("vtabr", 32, 8, 0).conversion = mdftest::range_table(
        {{0, 9, std::string("low")}, {10, 19, std::nullopt}, {20, 29, std::string("high")}});
    cg.add_channel("scaled", 40, 8, 0).conversion =
        mdftest::range_table({{0, 1, std::string("{LINEAR_CONV \"2.5*{X}-10\"}")}});
    cg.add_record();
    group_ = mdftest::open_group(open_file(write(f)), 1);
  }
  channelnode* channel(uint16_t index) { return mdftest::open_channel(group_, index); }
  mdf_group* group_ = nullptr;
};

TEST_F(FormApi, Getters) {
  uint16_t type = 7;
  const char* unit = nullptr;
  const void* params = nullptr;
  const size_t log_size = log_text().size();
  EXPECT_EQ(mdfChnGetForm(channel(1), &type, &unit, &params), MDF_NO_FORMULA);
  EXPECT_EQ(log_text().size(), log_size);  // returned quietly
  ASSERT_EQ(mdfChnGetForm(channel(2), &type, &unit, &params), 0);
  EXPECT_EQ(std::make_tuple(type, std::string(unit), real_at(params, 0), real_at(params, 1)),
            std::make_tuple(MDF_CC_FRM_LIN, "km/h", 1.0, 2.0));
  EXPECT_EQ(mdfChnGetForm(channel(2), nullptr, nullptr, nullptr), 0);
  const uint16_t* count = nullptr;
  const void* points = nullptr;
  ASSERT_EQ(mdfChnGetFormTab(channel(3), &type, &unit, &count, &points), 0);
  EXPECT_EQ(
      std::make_tuple(type, std::string(unit), *count, real_at(points, 4), real_at(points, 5)),
      std::make_tuple(MDF_CC_FRM_ITAB, "bar", uint16_t{3}, 2.0, 40.0));
  // Entry 1 of a verbal table starts 40 bytes in.
  ASSERT_EQ(mdfChnGetFormVTab(channel(4), &type, &unit, &count, &points), 0);
  EXPECT_EQ(std::make_tuple(type, *count, real_at(points, 5),
                            std::string(static_cast<const char*>(points) + 48)),
            std::make_tuple(MDF_CC_FRM_VTAB, uint16_t{2}, 1.0, "on"));
  double offset = 7, factor = 7;
  ASSERT_EQ(mdfChnGetFormVTabR(channel(6), &type, &unit, &offset, &factor, &count, &points), 0);
  EXPECT_EQ(std::make_tuple(type, offset, factor), std::make_tuple(MDF_CC_FRM_VTABR, -10.0, 2.5));
  ASSERT_EQ(mdfChnGetFormVTabR(channel(5), &type, &unit, &offset, &factor, &count, &points), 0);
  EXPECT_EQ(std::make_tuple(*count, offset, factor), std::make_tuple(uint16_t{3}, 0.0, 1.0));
}

TEST_F(FormApi, VerbalTexts) {
  channelnode* vtabr = channel(5);
  const char* text = nullptr;
  const struct {
    uint16_t index;
    const char* text;
  } rows[] = {{0, "low"}, {1, ""}, {2, "high"}};
  for (const auto& r : rows) {
    ASSERT_EQ(mdfChnGetFormVTabText(vtabr, r.index, &text), 0);
    EXPECT_STREQ(text, r.text);
  }
  // A verbal table is read at the range-table stride: entry 0's "link" lies in the text of
  // the first entry and is no block.
  ASSERT_EQ(mdfChnGetFormVTabText(channel(4), 0, &text), 0);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(mdfGetErrorCode(), 0);

  text = "x";
  EXPECT_EQ(mdfChnGetFormVTabText(vtabr, 3, &text), MDF_VTAB_INDEX);
  EXPECT_STREQ(text, "");
  EXPECT_NE(log_text().find("index outside range of verbal conversion table (count=3)"),
            std::string::npos);
  EXPECT_EQ(mdfChnGetFormVTabText(channel(2), 0, &text), MDF_NOT_A_VTAB);
  EXPECT_NE(log_text().find("not a verbal table (id=0)"), std::string::npos);
}

TEST_F(FormApi, WrongKindsAreRaised) {
  using Call = int16_t (*)(channelnode*);
  // Channel, call, status, log line. A refused call hands out no table, but the offset and
  // factor of a range table before its check.
  // clang-format off
  const struct { uint16_t channel; Call call; int16_t status; const char* logged; } cases[] = {
      {2, [](channelnode* ch) {
         const uint16_t* count = nullptr;
         const void* points = &count;
         const int16_t st = mdfChnGetFormTab(ch, nullptr, nullptr, &count, &points);
         return static_cast<int16_t>(count == nullptr && points == nullptr ? st : 0);
       }, MDF_NOT_A_TABLE, "illegal formula type, not a table (id=0)"},
      {3, [](channelnode* ch) { return mdfChnGetFormVTab(ch, nullptr, nullptr, nullptr, nullptr); },
       MDF_NOT_A_VTAB, "not a verbal table (id=1)"},
      {4, [](channelnode* ch) {
         double offset = 0, factor = 0;
         const int16_t st = mdfChnGetFormVTabR(ch, nullptr, nullptr, &offset, &factor, nullptr, nullptr);
         return static_cast<int16_t>(factor == 1.0 ? st : 0);
       }, MDF_NOT_A_VTABR, "not a area verbal table (id=11)"},
      {1, [](channelnode* ch) { return mdfChnGetFormTab(ch, nullptr, nullptr, nullptr, nullptr); },
       MDF_NO_FORMULA, "no formula found"},
      {2, [](channelnode* ch) { return mdfChnSetForm(ch, 9, "u", 1.0); }, MDF_UNKNOWN_FORMULA,
       "unknown formula type (id=9)"},
      {2, [](channelnode* ch) {
         const double pts[2] = {0, 0};
         return mdfChnSetFormTab(ch, 3, "u", 1, pts);
       }, MDF_UNKNOWN_FORMULA, "unknown formula type (id=3)"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.logged);
    EXPECT_EQ(c.call(channel(c.channel)), c.status);
    EXPECT_NE(log_text().find(c.logged), std::string::npos);
  }
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

TEST_F(FormApi, SettingRules) {
  using Set = int16_t (*)(channelnode*);
  static const double pts[4] = {0, 1, 10, 11};
  // clang-format off
  const struct { const char* what; Set set; uint16_t type; std::vector<double> params; } cases[] = {
      {"linear", [](channelnode* ch) { return mdfChnSetFormLin(ch, "V", 0.5, 4.0); }, 0, {0.5, 4.0}},
      {"variadic", [](channelnode* ch) { return mdfChnSetForm(ch, 0, "V", 3.0, -1.0); }, 0, {3.0, -1.0}},
      {"polynomial", [](channelnode* ch) { return mdfChnSetFormPol(ch, "V", 1, 2, 3, 4, 5, 6); }, 6,
       {1, 2, 3, 4, 5, 6}},
      {"exponential", [](channelnode* ch) { return mdfChnSetFormExp(ch, "V", 1, 2, 3, 4, 5, 6, 7); },
       7, {1, 2, 3, 4, 5, 6, 7}},
      {"logarithmic", [](channelnode* ch) { return mdfChnSetFormLog(ch, "V", 7, 6, 5, 4, 3, 2, 1); },
       8, {7, 6, 5, 4, 3, 2, 1}},
      {"table", [](channelnode* ch) { return mdfChnSetFormTab(ch, MDF_CC_FRM_TAB, "V", 2, pts); }, 2,
       {0, 1, 10, 11}},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    channelnode* ch = channel(1);
    ASSERT_EQ(c.set(ch), 0);
    uint16_t type = 99;
    const char* unit = nullptr;
    const void* params = nullptr;
    ASSERT_EQ(mdfChnGetForm(ch, &type, &unit, &params), 0);
    EXPECT_EQ(type, c.type);
    EXPECT_STREQ(unit, "V");
    for (size_t k = 0; k < c.params.size(); ++k) EXPECT_EQ(real_at(params, k), c.params[k]);
    ASSERT_EQ(mdfChnClose(ch), 0);
  }
  // A 20-character unit fills its field without a terminator.
  channelnode* ch = channel(1);
  ASSERT_EQ(mdfChnSetFormLin(ch, "abcdefghijklmnopqrstuvwxyz", 0, 1), 0);
  const char* unit = nullptr;
  const void* params = nullptr;
  ASSERT_EQ(mdfChnGetForm(ch, nullptr, &unit, &params), 0);
  EXPECT_EQ(std::string(unit, 20), "abcdefghijklmnopqrst");
  EXPECT_EQ(static_cast<const void*>(unit + 24), params);  // type and count lie between
}

}  // namespace
