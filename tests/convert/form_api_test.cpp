#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

double real_at(const void* base, size_t index) {
  double v;
  std::memcpy(&v, static_cast<const uint8_t*>(base) + 8 * index, 8);
  return v;
}

using mdftest::log_text;

const char* const kFormulas[] = {"x*3 - 0x10", "1/(X-2)", "X +* 2"};

// Channels 1..6 of one group: no rule, linear, table, verbal table, verbal range table, and
// a verbal range table whose first text scales; 7..9 text formulas. Record x (0..5) holds x in
// every byte.
class FormApi : public mdftest::Session {
 protected:
  void SetUp() override {
    Session::SetUp();
    mdftest::FileModel f;
    auto& cg = f.add_data_group().add_channel_group(9);
    cg.add_channel("plain", 0, 8, 0);
    cg.add_channel("lin", 8, 8, 0).conversion = mdftest::linear(1.0, 2.0, "km/h");
    cg.add_channel("tab", 16, 8, 0).conversion =
        mdftest::table(true, {{0, 10}, {1, 20}, {2, 40}}, "bar");
    cg.add_channel("vtab", 24, 8, 0).conversion = mdftest::verbal_table({{0, "off"}, {1, "on"}});
    cg.add_channel("vtabr", 32, 8, 0).conversion = mdftest::range_table(
        {{0, 9, std::string("low")}, {10, 19, std::nullopt}, {20, 29, std::string("high")}});
    cg.add_channel("scaled", 40, 8, 0).conversion =
        mdftest::range_table({{0, 1, std::string("{LINEAR_CONV \"2.5*{X}-10\"}")}});
    for (int c = 0; c < 3; ++c) {
      cg.add_channel("f" + std::to_string(c), uint16_t(48 + 8 * c), 8, 0).conversion =
          mdftest::formula(kFormulas[c]);
    }
    for (uint8_t x = 0; x < 6; ++x) cg.add_record().assign(9, x);
    group_ = mdftest::open_group(open_file(write(f)), 1);
  }
  channelnode* channel(uint16_t index) { return mdftest::open_channel(group_, index); }
  mdf_group* group_ = nullptr;
};

TEST_F(FormApi, GettersRefusalsTextFormulasAndSetters) {
  uint16_t type = 7;
  const char* unit = nullptr;
  const void* params = nullptr;
  const size_t log_size = log_text().size();
  EXPECT_EQ(mdfChnGetForm(channel(1), &type, &unit, &params), MDF_NO_FORMULA);
  EXPECT_EQ(log_text().size(), log_size);  // returned quietly
  ASSERT_EQ(mdfChnGetForm(channel(2), &type, &unit, &params), 0);
  EXPECT_EQ(std::make_tuple(type, std::string(unit), real_at(params, 0), real_at(params, 1)),
            std::make_tuple(MDF_CC_FRM_LIN, "km/h", 1.0, 2.0));
  const uint16_t* count = nullptr;
  const void* points = nullptr;
  ASSERT_EQ(mdfChnGetFormTab(channel(3), &type, &unit, &count, &points), 0);
  EXPECT_EQ(
      std::make_tuple(type, std::string(unit), *count, real_at(points, 4), real_at(points, 5)),
      std::make_tuple(MDF_CC_FRM_ITAB, "bar", uint16_t{3}, 2.0, 40.0));
  double offset = 7, factor = 7;
  ASSERT_EQ(mdfChnGetFormVTabR(channel(6), &type, &unit, &offset, &factor, &count, &points), 0);
  EXPECT_EQ(std::make_tuple(type, offset, factor), std::make_tuple(MDF_CC_FRM_VTABR, -10.0, 2.5));
  // Verbal range texts; a verbal table is read at the range-table stride: entry 0's "link"
  // lies in the text of the first entry and is no block.
  const char* text = nullptr;
  const std::tuple<uint16_t, uint16_t, const char*> texts[] = {
      {5, 0, "low"}, {5, 1, ""}, {5, 2, "high"}, {4, 0, ""}};
  for (const auto& [ch, index, want] : texts) {
    ASSERT_EQ(mdfChnGetFormVTabText(channel(ch), index, &text), 0);
    EXPECT_STREQ(text, want);
  }
  // Wrong kinds are raised: call, status, log line; whether it hands out an empty text.
  const double pts[2] = {0, 0};
  // clang-format off
  const std::tuple<std::function<int16_t()>, int16_t, const char*, bool> cases[] = {
      {[&] { return mdfChnGetFormTab(channel(2), nullptr, nullptr, &count, &points); },
       MDF_NOT_A_TABLE, "illegal formula type, not a table (id=0)", false},
      {[&] { return mdfChnGetFormVTabR(channel(4), nullptr, nullptr, &offset, &factor, nullptr,
                                       nullptr); },
       MDF_NOT_A_VTABR, "not a area verbal table (id=11)", false},
      {[&] { return mdfChnGetFormTab(channel(1), nullptr, nullptr, nullptr, nullptr); },
       MDF_NO_FORMULA, "no formula found", false},
      {[&] { return mdfChnSetForm(channel(2), 9, "u", 1.0); }, MDF_UNKNOWN_FORMULA,
       "unknown formula type (id=9)", false},
      {[&] { return mdfChnSetFormTab(channel(2), 3, "u", 1, pts); }, MDF_UNKNOWN_FORMULA,
       "unknown formula type (id=3)", false},
      {[&] { return mdfChnGetFormVTabText(channel(2), 0, &text); }, MDF_NOT_A_VTAB,
       "not a verbal table (id=0)", true},
      {[&] { return mdfChnGetFormVTabText(channel(5), 3, &text); }, MDF_VTAB_INDEX,
       "index outside range of verbal conversion table (count=3)", true},
  };
  // clang-format on
  for (const auto& [call, status, logged, empties_text] : cases) {
    SCOPED_TRACE(logged);
    text = "x";
    EXPECT_EQ(call(), status);
    EXPECT_NE(log_text().find(logged), std::string::npos);
    EXPECT_EQ(std::string(text), empties_text ? "" : "x");
  }
  // A refused call hands out no table, but the offset and factor of a range table before its
  // check.
  EXPECT_EQ(std::make_tuple(count, points, factor), std::make_tuple(nullptr, nullptr, 1.0));
  // Text formulas through the channel functions: one faulty at X = 2 and one that never parses
  // give 0 with status 0 (the evaluator's status is not passed on).
  for (size_t c = 0; c < 3; ++c) {
    SCOPED_TRACE(kFormulas[c]);
    channelnode* ch = channel(static_cast<uint16_t>(c + 7));
    ASSERT_EQ(mdfGrpSeek(group_, 0, MDF_SEEK_ABS), 0);
    for (int x = 0; x < 6; ++x) {
      const double want[] = {x * 3 - 16.0, x == 2 ? 0.0 : 1.0 / (x - 2), 0.0};
      double value = -99;
      EXPECT_EQ(mdfChnReadPhy(&value, ch), 0) << x;
      EXPECT_DOUBLE_EQ(value, want[c]) << x;
    }
  }
  // Reading a formula upper-cases its text in the block (each record above read it again), so
  // a copy of the rule written into another file holds the upper-cased text.
  channelnode* copy = nullptr;
  mdf_file* target = open_file(path("copy.mdf"), MDF_OPEN_CREATE);
  ASSERT_EQ(mdfChnDuplicate(&copy, mdftest::open_group(target, 1, MDF_OPEN_CREATE), channel(7)), 0);
  ASSERT_EQ(mdfFileClose(target), 0);
  const auto read = mdftest::read_file(path("copy.mdf"));
  ASSERT_TRUE(read.ok()) << read.error_text();
  const auto& conversion = read.data_groups.at(0).channel_groups.at(0).channels.at(0).conversion;
  ASSERT_TRUE(conversion.has_value());
  EXPECT_EQ(conversion->formula, "X*3 - 0X10");
  // Setters, each rule read back: type, unit (20 characters fill the field without a terminator),
  // the parameters 24 bytes behind the unit (type and count lie between) and their values.
  const auto expect_rule = [&](channelnode* ch, uint16_t want_type, const char* want_unit,
                               const std::vector<double>& want) {
    ASSERT_EQ(mdfChnGetForm(ch, &type, &unit, &params), 0);
    EXPECT_EQ(std::make_tuple(type, std::string(unit, strnlen(unit, 20)), params),
              std::make_tuple(want_type, want_unit, static_cast<const void*>(unit + 24)));
    for (size_t k = 0; k < want.size(); ++k) EXPECT_EQ(real_at(params, k), want[k]) << k;
  };
  channelnode* ch = channel(1);
  ASSERT_EQ(mdfChnSetForm(ch, 7, "abcdefghijklmnopqrstu", 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0), 0);
  expect_rule(ch, MDF_CC_FRM_EXP, "abcdefghijklmnopqrst", {1, 2, 3, 4, 5, 6, 7});
  ASSERT_EQ(mdfChnSetFormLin(ch, "V", 0.5, 4.0), 0);
  expect_rule(ch, MDF_CC_FRM_LIN, "V", {0.5, 4.0});
  ASSERT_EQ(mdfChnSetFormPol(ch, "V", 1, 2, 3, 4, 5, 6), 0);
  expect_rule(ch, MDF_CC_FRM_POL, "V", {1, 2, 3, 4, 5, 6});
  ASSERT_EQ(mdfChnSetFormExp(ch, "V", 1, 2, 3, 4, 5, 6, 7), 0);
  expect_rule(ch, MDF_CC_FRM_EXP, "V", {1, 2, 3, 4, 5, 6, 7});
  ASSERT_EQ(mdfChnSetFormLog(ch, "V", 7, 6, 5, 4, 3, 2, 1), 0);
  expect_rule(ch, MDF_CC_FRM_LOG, "V", {7, 6, 5, 4, 3, 2, 1});
  const double table[4] = {0, 1, 10, 11};
  ASSERT_EQ(mdfChnSetFormTab(ch, MDF_CC_FRM_TAB, "V", 2, table), 0);
  expect_rule(ch, MDF_CC_FRM_TAB, "V", {0, 1, 10, 11});
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

}  // namespace
