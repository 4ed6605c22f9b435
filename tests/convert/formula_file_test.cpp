// Text-formula conversions read from a file, through the channel functions.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

using FormulaFile = mdftest::Session;

TEST_F(FormulaFile, TextFormulasConvertRecordValuesAndAreReadUpperCased) {
  const std::pair<const char*, double (*)(double)> columns[] = {
      {"(X*X)/2 + 1", [](double x) { return x * x / 2 + 1; }},
      {"x*3 - 0x10", [](double x) { return x * 3 - 16; }},
      {"1/(X-2)", [](double x) { return x == 2 ? 0.0 : 1 / (x - 2); }},  // faulty at X = 2
      {"X +* 2", [](double) { return 0.0; }},                            // never parses
      {"2,5", [](double) { return 2.5; }},                               // a plain number
  };
  mdftest::FileModel f;
  auto& cg = f.add_data_group().add_channel_group(5);
  for (size_t c = 0; c < std::size(columns); ++c) {
    cg.add_channel(std::string(1, static_cast<char>('a' + c)), static_cast<uint16_t>(8 * c), 8, 0)
        .conversion = mdftest::formula(columns[c].first);
  }
  for (uint8_t x = 0; x < 6; ++x) cg.add_record().assign(5, x);
  mdf_group* group = mdftest::open_group(open_file(write(f)), 1);
  for (size_t c = 0; c < std::size(columns); ++c) {
    SCOPED_TRACE(columns[c].first);
    channelnode* ch = mdftest::open_channel(group, c + 1);
    ASSERT_EQ(mdfGrpSeek(group, 0, MDF_SEEK_ABS), 0);
    for (int x = 0; x < 6; ++x) {
      double value = -99;
      EXPECT_EQ(mdfChnReadPhy(&value, ch), 0) << x;  // the evaluator's status is not passed on
      EXPECT_DOUBLE_EQ(value, columns[c].second(x)) << x;
    }
  }
  // A formula read twice gives the same value; reading it upper-cases its text in the block, so
  // a copy of the rule written into another file holds the upper-cased text.
  channelnode *b = mdftest::open_channel(group, 2), *copy = nullptr;
  ASSERT_EQ(mdfGrpSeek(group, 4, MDF_SEEK_ABS), 0);
  double first = 0, second = 0;
  EXPECT_EQ(mdfChnGetPhy(&first, b, 0), 0);
  EXPECT_EQ(mdfChnGetPhy(&second, b, 0), 0);
  EXPECT_EQ(std::make_pair(first, second), std::make_pair(-4.0, -4.0));
  mdf_file* target = open_file(path("copy.mdf"), MDF_OPEN_CREATE);
  ASSERT_EQ(mdfChnDuplicate(&copy, mdftest::open_group(target, 1, MDF_OPEN_CREATE), b), 0);
  ASSERT_EQ(mdfFileClose(target), 0);
  const auto read = mdftest::read_file(path("copy.mdf"));
  ASSERT_TRUE(read.ok()) << read.error_text();
  const auto& conversion = read.data_groups.at(0).channel_groups.at(0).channels.at(0).conversion;
  ASSERT_TRUE(conversion.has_value());
  EXPECT_EQ(conversion->formula, "X*3 - 0X10");
  EXPECT_EQ(mdfGetErrorCode(), 0);
}

}  // namespace
