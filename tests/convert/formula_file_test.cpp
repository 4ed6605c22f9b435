// Text-formula conversions read from a file, through the channel functions.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/mdf_reader.h"
#include "support/scratch.h"

namespace {

TEST(FormulaFile, TextFormulasConvertRecordValues) {
  mdfClose();
  ASSERT_EQ(mdfOpen(nullptr), 0);
  const auto dir = mdftest::scratch_dir("korvel_formula_file");
  const std::string path = (dir / "formula.mdf").string();
  struct Column {
    const char* formula;
    double (*expected)(double);
  };
  const Column columns[] = {
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
        .conversion = mdftest::formula(columns[c].formula);
  }
  for (uint8_t x = 0; x < 6; ++x) {
    auto& rec = cg.add_record();
    for (size_t c = 0; c < std::size(columns); ++c) rec[c] = x;
  }
  mdftest::write_file(path, mdftest::build(f).bytes);

  mdf_file* file = nullptr;
  ASSERT_EQ(mdfFileOpen(&file, path.c_str(), MDF_OPEN_READ), 0);
  mdf_group* group = nullptr;
  ASSERT_EQ(mdfGrpOpen(&group, file, 1, MDF_OPEN_READ), 0);
  for (size_t c = 0; c < std::size(columns); ++c) {
    SCOPED_TRACE(columns[c].formula);
    channelnode* ch = nullptr;
    ASSERT_EQ(mdfChnOpen(&ch, group, static_cast<uint16_t>(c + 1)), 0);
    for (int x = 0; x < 6; ++x) {
      double value = -99;
      EXPECT_EQ(mdfChnReadPhy(&value, ch), 0) << x;  // the evaluator's status is not passed on
      EXPECT_DOUBLE_EQ(value, columns[c].expected(x)) << x;
    }
    EXPECT_EQ(mdfChnClose(ch), 0);
    ASSERT_EQ(mdfGrpSeek(group, 0, MDF_SEEK_ABS), 0);
  }
  // A formula read twice gives the same value; reading it upper-cases its text in the block, so
  // a copy of the rule written into another file holds the upper-cased text.
  {
    channelnode* b = nullptr;
    ASSERT_EQ(mdfChnOpen(&b, group, 2), 0);
    ASSERT_EQ(mdfGrpSeek(group, 4, MDF_SEEK_ABS), 0);
    double first = 0, second = 0;
    EXPECT_EQ(mdfChnGetPhy(&first, b, 0), 0);
    EXPECT_EQ(mdfChnGetPhy(&second, b, 0), 0);
    EXPECT_EQ(std::make_pair(first, second), std::make_pair(-4.0, -4.0));
    const std::string copy_path = (dir / "copy.mdf").string();
    mdf_file* target = nullptr;
    mdf_group* created = nullptr;
    channelnode* copy = nullptr;
    ASSERT_EQ(mdfFileOpen(&target, copy_path.c_str(), MDF_OPEN_CREATE), 0);
    ASSERT_EQ(mdfGrpOpen(&created, target, 1, MDF_OPEN_CREATE), 0);
    ASSERT_EQ(mdfChnDuplicate(&copy, created, b), 0);
    ASSERT_EQ(mdfFileClose(target), 0);
    const auto read = mdftest::read_file(copy_path);
    ASSERT_TRUE(read.ok()) << read.error_text();
    const auto& conversion = read.data_groups.at(0).channel_groups.at(0).channels.at(0).conversion;
    ASSERT_TRUE(conversion.has_value());
    EXPECT_EQ(conversion->formula, "X*3 - 0X10");
    EXPECT_EQ(mdfChnClose(b), 0);
    ASSERT_EQ(mdfGrpSeek(group, 0, MDF_SEEK_ABS), 0);
  }
  // Writing a physical value through a text formula is refused and stores nothing.
  channelnode* ch = nullptr;
  ASSERT_EQ(mdfChnOpen(&ch, group, 1), 0);
  EXPECT_EQ(mdfChnSetPhy(ch, 5.0), MDF_UNSUPPORTED_RULE);
  double value = 0;
  EXPECT_EQ(mdfChnGetPhy(&value, ch, 0), 0);
  EXPECT_DOUBLE_EQ(value, 1.0);
  EXPECT_EQ(mdfGetErrorCode(), 0);
  mdfClose();
  std::filesystem::remove_all(dir);
}

}  // namespace
