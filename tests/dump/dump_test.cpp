// The text dump compared with reference texts in tests/dump/refs. To regenerate them on
// purpose, run the tests with KORVEL_UPDATE_REFS=1 and review the difference before committing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "frame/frame.h"
#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/scratch.h"

// The file descriptions below name only the leading fields; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

namespace fs = std::filesystem;
using mdftest::FileModel;

// The dump of a file, the part of the log it wrote, against a reference text.
void expect_ref(const std::string& name, uint32_t hex, const std::string& ref) {
  const size_t before = mdftest::log_text().size();
  EXPECT_EQ(mdfDump(name.c_str(), hex), 0) << ref;
  const std::string text = mdftest::log_text().substr(before);
  const fs::path path = fs::path(KORVEL_DUMP_REFS) / (ref + ".txt");
  if (std::getenv("KORVEL_UPDATE_REFS") != nullptr) std::ofstream(path, std::ios::binary) << text;
  EXPECT_EQ(text, mdftest::slurp(path)) << ref;
}

std::vector<uint8_t> counting(size_t n) {
  std::vector<uint8_t> bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i + 1);
  return bytes;
}

// Every kind of block. Fixed date and time: the reference holds no date of today.
FileModel every_kind_of_block() {
  FileModel f;
  // A full subject field has no terminator.
  f.header = {{"24:12:2023", "13:14:15", "Author", "", "Project", std::string(32, 'S')},
              208,
              {},
              "File comment",
              counting(3)};
  auto& dg1 = f.add_data_group(1);
  dg1.trigger = mdftest::Trigger{"Trigger comment", {{1.5, 0.25, 0.5}, {3, 0, 1e-3}}, {}, {}};
  auto& fast = dg1.add_channel_group(24, 1);
  fast.block_size = 30;
  fast.comment = "Fast group";
  fast.record_count = 1000;
  fast.sample_reductions = {{10, 0.5, {1, 2}}, {5, 1.0, {}}};
  auto time_cc = mdftest::linear(0, 0.001, "s");
  time_cc->range_valid = 1;
  time_cc->max = 0.01;
  // Channel blocks of 218, 222 and 228 bytes: {type, name, description, first bit, bits, data
  // type, range valid, min, max, rate, byte offset}, size, comment, long name, display name.
  fast.channels = {{{1, "t", "", 0, 64, 3, 1, 0, 10, 0.01}, 218, "Time comment", {}, {}, time_cc},
                   {{0, "long", "Short description", 64, 16, 13}, 222, {}, "A long signal name"},
                   {{0, std::string(32, 'N'), std::string(128, 'D'), 3, 8, 9, 0, 0, 0, 0, 2},
                    228,
                    {},
                    "Another long name",
                    "Display",
                    mdftest::params(mdftest::cc::identity, {}, std::string(20, 'U'))}};
  auto& slow = dg1.add_channel_group(2, 2);
  slow.comment = "Slow group";
  auto short_ce = mdftest::extension(1, counting(122));
  short_ce->block_size = 8;  // too short for the module number
  slow.channels = {{{0, "short_ce", "", 0, 8, 0}, 228, {}, {}, {}, {}, short_ce}};
  auto& dg2 = f.add_data_group();
  // Counts three events, holds one and a half.
  dg2.trigger = mdftest::Trigger{{}, {{2, 1, 1}, {4, 3, 3}}, 3, 50};
  auto& types = dg2.add_channel_group(22);
  types.block_size = 30;
  // Every data type, conversion type and module type name, known and unknown.
  const uint16_t conversions[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 65534, 65535};
  for (uint16_t i = 0; i < 22; ++i) {
    auto& c = types.add_channel("dt" + std::to_string(i), i * 8, 8, i);
    if (i < 16) c.conversion = mdftest::raw_conversion(conversions[i], i, {}, "u");
    c.extension = mdftest::extension(i < 21 ? i : 65535, counting(122));
    c.block_size = i == 21 ? 226 : 228;  // room for a display-name link, but no link there
  }
  types.add_record();
  return f;
}

// Every kind of block with and without hex; files without data groups in float formats 1
// and 2 (the 17-byte program block shows the row split of the hex dump); the files of other
// writers, dumped from copies (their references were reviewed once by hand). The program's
// tests give the statuses of refused files.
TEST(Dump, EveryKindOfBlockWithAndWithoutHex) {
  // A scratch directory entered for the test: the log is opened there, and files print their
  // names as given.
  const fs::path dir = mdftest::scratch_dir("korvel_dump");
  fs::current_path(dir);
  ASSERT_EQ(mdfOpen(nullptr), 0);
  mdftest::write_file("all.mdf", mdftest::build(every_kind_of_block()).bytes);
  std::vector<std::tuple<std::string, uint32_t, std::string>> refs = {{"all.mdf", 0, "all"},
                                                                      {"all.mdf", 1, "all_hex"}};
  const uint16_t depth = korvel::state().context_depth;
  for (uint16_t format : {uint16_t{1}, uint16_t{2}}) {
    FileModel f;
    f.id.float_format = format;
    f.header = {{}, 164, {}, "Only a header", counting(13)};
    mdftest::write_file("empty.mdf", mdftest::build(f).bytes);
    expect_ref("empty.mdf", format - 1u, "empty_" + std::to_string(format));
  }
  for (const auto& entry : fs::directory_iterator(KORVEL_SAMPLES_DIR)) {
    if (entry.path().extension() != ".mdf") continue;
    mdftest::copy_writable(entry.path(), ".");
    const std::string file = entry.path().filename().string();
    refs.emplace_back(file, 0, "samples/" + entry.path().stem().string());
    refs.emplace_back(file, 1, "samples/" + entry.path().stem().string() + "_hex");
  }
  EXPECT_GT(refs.size(), 2u);
  for (const auto& [file, hex, ref] : refs) expect_ref(file, hex, ref);
  // Each dump leaves its context open.
  EXPECT_EQ(korvel::state().context_depth, depth + 2 + refs.size());
  mdfClose();
  std::error_code ec;
  fs::current_path(fs::temp_directory_path());
  fs::remove_all(dir, ec);
}

}  // namespace
