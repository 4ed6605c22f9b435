// Checks of the test-side MDF builder and reader: exact bytes at hand-computed offsets, the
// round trip reader(build(f)) against f, and robustness of the reader on damaged files.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "support/mdf_builder.h"
#include "support/mdf_reader.h"

namespace mdftest {
namespace {

using Bytes = std::vector<uint8_t>;

// Little-endian number at an offset, read independently of the support code.
uint64_t le(const Bytes& b, size_t at, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v |= uint64_t{b.at(at + i)} << (8 * i);
  return v;
}
std::string str(const Bytes& b, size_t at, size_t n) {
  return {b.begin() + static_cast<std::ptrdiff_t>(at),
          b.begin() + static_cast<std::ptrdiff_t>(at + n)};
}
bool has_message(const std::vector<std::string>& list, const std::string& part) {
  for (const auto& s : list)
    if (s.find(part) != std::string::npos) return true;
  return false;
}

TEST(SupportBuilder, BlocksAtHandComputedOffsets) {
  FileModel f;
  f.id = {"UnFinMF ", "3.30    ", "prog", 0, 2, 330, 1252, 0, 0, 1, 0x0203};
  f.header.author = "me";
  f.header.timestamp_ns = 0x0102030405060708u;
  f.header.utc_offset_hours = -5;
  f.header.timer_id = std::string(32, 't');  // fills its field, no terminator
  f.header.comment = "hello";
  f.header.program = Bytes{7, 8, 9};
  auto& cg = f.add_data_group().add_channel_group(8, 5);
  auto& cn = cg.add_channel("time", 16, 32, 2, 1);
  cn.min = -1.5;
  cn.additional_byte_offset = 3;
  cn.comment = "c1";
  cn.long_name = "LongName";
  cn.display_name = "Disp";
  cn.conversion = linear(1.0, 0.5, "s");
  cn.extension = extension(2, {0x34, 0x12});
  cg.add_record()[0] = 0xAA;
  cg.add_record()[7] = 0xBB;
  const Built b = build(f);
  const Bytes& x = b.bytes;
  // ID 0, HD 64, TX "hello" 272, PR 282, DG 289, CG 317, CN 343, TX "c1" 571,
  // TX "LongName" 578, TX "Disp" 591, CC 600, CE 662, data 790..806.
  ASSERT_EQ(x.size(), 806u);
  EXPECT_EQ(str(x, 0, 24), std::string("UnFinMF 3.30    prog\0\0\0\0", 24));
  // clang-format off
  const std::tuple<size_t, size_t, uint64_t> numbers[] = {
      // ID: byte order, float format, version, code page, unfinished flags.
      {24, 2, 0}, {26, 2, 2}, {28, 2, 330}, {30, 2, 1252}, {60, 2, 1}, {62, 2, 0x0203},
      // HD: size, DG, TX, PR, DG count, time stamp, UTC offset.
      {66, 2, 208}, {68, 4, 289}, {72, 4, 272}, {76, 4, 282}, {80, 2, 1},
      {228, 8, 0x0102030405060708}, {236, 2, 0xFFFB},
      // DG: size, CG, data, CG count, record ids. CG: size, CN, record id, CN count, record
      // size, record count.
      {291, 2, 28}, {297, 4, 317}, {305, 4, 790}, {309, 2, 1}, {311, 2, 0}, {319, 2, 26},
      {325, 4, 343}, {333, 2, 5}, {335, 2, 1}, {337, 2, 8}, {339, 4, 2},
      // CN: size, next, CC, CE, CD, comment, channel type, first bit, bits, data type, min,
      // long name, display name, additional byte offset.
      {345, 2, 228}, {347, 4, 0}, {351, 4, 600}, {355, 4, 662}, {359, 4, 0}, {363, 4, 571},
      {367, 2, 1}, {529, 2, 16}, {531, 2, 32}, {533, 2, 2}, {537, 8, 0xBFF8000000000000},
      {561, 4, 578}, {565, 4, 591}, {569, 2, 3}, {580, 2, 13},
      // CC: size, type linear, two parameters 1.0 and 0.5. CE: size, type, record.
      {602, 2, 62}, {642, 2, 0}, {644, 2, 2}, {646, 8, 0x3FF0000000000000},
      {654, 8, 0x3FE0000000000000}, {664, 2, 128}, {666, 2, 2}, {668, 2, 0x1234}, {790, 1, 0xAA},
      {805, 1, 0xBB}};
  // clang-format on
  for (const auto& [at, n, v] : numbers) EXPECT_EQ(le(x, at, n), v) << "offset " << at;
  // clang-format off
  const std::pair<size_t, std::string> texts[] = {
      {64, "HD"}, {100, std::string("me\0", 3)}, {240, std::string(32, 't')},
      {272, std::string("TX\x0A\0hello\0", 10)}, {282, std::string("PR\x07\0\x07\x08\x09", 7)},
      {289, "DG"}, {317, "CG"}, {343, "CN"}, {369, std::string("time\0", 5)},
      {571, std::string("TX\x07\0c1\0", 7)}, {600, "CC"}, {622, std::string("s\0", 2)},
      {662, "CE"}};
  // clang-format on
  for (const auto& [at, s] : texts) EXPECT_EQ(str(x, at, s.size()), s) << "offset " << at;
  EXPECT_EQ(b.header_comment, 272u);
  EXPECT_EQ(b.program, 282u);
  EXPECT_EQ(b.data_groups[0].offset, 289u);
  EXPECT_EQ(b.data_groups[0].channel_groups[0].channels[0].offset, 343u);
  EXPECT_EQ(b.offset_of(cn.conversion.get()), 600u);
  EXPECT_EQ(b.data_groups[0].channel_groups[0].records, (std::vector<uint32_t>{790, 798}));

  cn.block_size = 218;  // too short for a long name
  EXPECT_THROW(build(f), std::invalid_argument);
  // A 164-byte header ends before the time stamp.
  FileModel old;
  old.header.block_size = 164;
  old.header.timestamp_ns = 99;
  old.add_data_group();
  const Built o = build(old);
  EXPECT_EQ(le(o.bytes, 66, 2), 164u);
  EXPECT_EQ(le(o.bytes, 68, 4), 228u);
  EXPECT_EQ(str(o.bytes, 228, 2), "DG");
}

TEST(SupportBuilder, RecordValuesAndInterleavedData) {
  // Motorola, bit offset 3, 10 bits over B0 B1: word B1 + 256 * B0 holds the value shifted by 3.
  Bytes r = {0, 0};
  put_bits(r, 3, 10, 0x2A5, ByteOrder::motorola);
  EXPECT_EQ(r, (Bytes{0x15, 0x28}));
  EXPECT_EQ(get_bits(r, 3, 10, ByteOrder::motorola), 0x2A5u);
  put_bits(r, 4, 4, 0xA);
  EXPECT_EQ(r, (Bytes{0xA5, 0x28}));
  EXPECT_THROW(put_bits(r, 9, 8, 1), std::out_of_range);
  Bytes d(12, 0);
  put_f64(d, 0, 1.0, ByteOrder::motorola);
  put_f32(d, 8, 1.0f);
  EXPECT_EQ(d, (Bytes{0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x3F}));
  // Two record ids: each record between the low byte of its group's id, round robin.
  FileModel f;
  auto& dg = f.add_data_group(2);
  dg.add_channel_group(2, 1).records = {{0xA0, 0xA1}, {0xA2, 0xA3}};
  dg.add_channel_group(1, 0x102).records = {{0xC0}};
  const Built b = build(f);
  const auto& bd = b.data_groups[0];
  ASSERT_EQ(bd.data_size, 11u);
  EXPECT_EQ(Bytes(b.bytes.begin() + bd.data, b.bytes.end()),
            (Bytes{1, 0xA0, 0xA1, 1, 2, 0xC0, 2, 1, 0xA2, 0xA3, 1}));
  dg.record_ids = 1;
  dg.order = {1, 0, 0};
  const Built b1 = build(f);
  EXPECT_EQ(Bytes(b1.bytes.begin() + b1.data_groups[0].data, b1.bytes.end()),
            (Bytes{2, 0xC0, 1, 0xA0, 0xA1, 1, 0xA2, 0xA3}));
}

// Every CC type and CN size, shared blocks, extension and dependency, trigger and sample
// reductions, sorted and unsorted groups and a data section whose record count lies.
FileModel rich_file() {
  FileModel f;
  f.header.author = "author";
  f.header.comment = "file comment";
  f.header.program = Bytes{1, 2, 3, 4};
  f.header.timestamp_ns = 1234567890123456789u;
  f.header.utc_offset_hours = 2;
  auto& d0 = f.add_data_group();
  d0.trigger = Trigger{"trigger comment", {{1.0, 0.5, 0.25}, {2.0, 0, 0}}, {}, {}};
  auto& g0 = d0.add_channel_group(16);
  g0.block_size = 30;
  g0.comment = "group comment";
  g0.sample_reductions = {{10, 0.1, {1, 2, 3}}, {5, 0.2, {}}};
  const Text shared = "shared comment";
  const ConversionPtr shared_cc = linear(-1, 2, "V");
  // clang-format off
  const std::vector<ConversionPtr> conversions = {
      shared_cc, table(true, {{0, 0}, {10, 100}}, "%"), table(false, {{0, 1}, {1, 2}, {2, 4}}),
      polynomial({1, 2, 3, 4, 5, 6}), exponential({1, 2, 3, 4, 5, 6, 7}),
      logarithmic({7, 6, 5, 4, 3, 2, 1}), rational({0, 1, 0, 0, 0, 1}), formula("X1*2+1"),
      verbal_table({{0, "off"}, {1, "on"}, {2, std::string(32, 'x')}}),
      range_table({{0, 10, "low"}, {10, 20, std::nullopt}, {0, 0, "{EVAL \"2*{X}\"}"}}),
      identity("rpm"), raw_conversion(132, 1, {9, 8, 7, 6, 5}), shared_cc};
  // clang-format on
  const uint16_t sizes[] = {218, 222, 228, 240};
  for (size_t i = 0; i < conversions.size(); ++i) {
    const auto k = static_cast<uint16_t>(i);
    auto& cn = g0.add_channel("ch" + std::to_string(i), k, 8, 0);
    cn.block_size = sizes[i % 4];
    cn.conversion = conversions[i];
    cn.comment = i % 2 == 0 ? shared : Text("own " + std::to_string(i));
    if (cn.block_size >= 222) cn.long_name = "long " + std::to_string(i);
    if (cn.block_size >= 228) cn.display_name = "disp " + std::to_string(i);
    if (cn.block_size >= 228) cn.additional_byte_offset = k;
    cn.min = -static_cast<double>(i);
    cn.max = static_cast<double>(i);
  }
  g0.channels[0].channel_type = 1;
  g0.channels[1].extension = extension(7, Bytes(122, 0x5A));
  g0.channels[2].dependency = dependency(1, {{1, 1, 0}, {0, 0, 0}});
  for (int k = 0; k < 3; ++k) put_bits(g0.add_record(), 0, 16, static_cast<uint64_t>(k * 1000));
  for (uint16_t ids = 1; ids <= 2; ++ids) {  // unsorted groups with one and two record ids
    auto& d = f.add_data_group(ids);
    auto& a = d.add_channel_group(3, 1);
    auto& c = d.add_channel_group(1, 2);
    a.add_channel("a", 0, 24, 0);
    c.add_channel("c", 0, 8, 1);
    for (uint8_t k = 0; k < 3; ++k) a.records.push_back({k, k, k});
    c.records = {{0x7F}, {0x80}};
    if (ids == 2) d.order = {1, 1, 0, 0, 0};
  }
  auto& raw = f.add_data_group();
  auto& rg = raw.add_channel_group(2);
  rg.add_channel("r", 0, 16, 0);
  rg.record_count = 3;
  raw.raw_data = Bytes{1, 2, 3, 4, 5, 6};
  return f;
}

TEST(SupportReader, RoundTrip) {
  for (const bool at_end : {false, true}) {
    FileModel f = rich_file();
    f.data_at_end = at_end;
    ReadOptions options;
    if (at_end) {  // REALs stored big-endian through the hooks
      f.encode_real = [](double v) {
        std::array<uint8_t, 8> b{};
        for (int i = 0; i < 8; ++i)
          b[i] = static_cast<uint8_t>(std::bit_cast<uint64_t>(v) >> (56 - 8 * i));
        return b;
      };
      options.decode_real = [](std::span<const uint8_t, 8> b) {
        uint64_t v = 0;
        for (uint8_t byte : b) v = (v << 8) | byte;
        return std::bit_cast<double>(v);
      };
    }
    const Built b = build(f);
    const auto path = std::filesystem::temp_directory_path() / "mdftest_round_trip.mdf";
    write_file(path, b.bytes);
    EXPECT_EQ(load_file(path), b.bytes);
    const ReadFile r = read_file(path, options);
    std::filesystem::remove(path);
    EXPECT_TRUE(r.ok()) << r.error_text();
    const auto diffs = differences(f, r);
    EXPECT_TRUE(diffs.empty()) << diffs.front();
    ASSERT_EQ(r.data_groups.size(), 4u);
    // The minimum of ch1, -1.0, as stored: big-endian through the hook, else little-endian.
    const uint32_t cn1 = b.data_groups[0].channel_groups[0].channels[1].offset;
    EXPECT_EQ(le(b.bytes, cn1 + off::cn_min, 8), at_end ? 0xF0BFu : 0xBFF0000000000000u);
    EXPECT_EQ(r.channel_groups().size(), 6u);
    EXPECT_EQ(r.find_channel("c")->data_type, 1u);

    const auto& cns = r.data_groups[0].channel_groups[0].channels;
    ASSERT_EQ(cns.size(), 13u);
    EXPECT_EQ(cns[0].conversion_link, cns[12].conversion_link);  // one shared CC block
    EXPECT_EQ(cns[0].comment_link, cns[2].comment_link);         // one shared TX block
    EXPECT_NE(cns[1].comment_link, cns[3].comment_link);
    EXPECT_EQ(cns[0].long_name_link, 0u);  // a 218-byte block has no such field
    EXPECT_EQ(r.data_groups[3].channel_groups[0].records.size(), 3u);  // as many as there are
    EXPECT_EQ(r.blocks.at(b.header_comment).size, 17u);
    EXPECT_FALSE(read_file(path).ok());  // removed

    // The comparison notices a changed value.
    f.data_groups[0].channel_groups[0].channels[3].conversion->params[5] = 99;
    f.data_groups[2].channel_groups[1].records[0][0] = 0;
    const auto changed = differences(f, r);
    ASSERT_EQ(changed.size(), 2u);
    EXPECT_NE(changed[0].find("dg[0].cg[0].cn[3].conversion.params"), std::string::npos);
    EXPECT_NE(changed[1].find("dg[2].cg[1].records"), std::string::npos);
  }
}

TEST(SupportReader, DamagedFiles) {
  const Built good = build(rich_file());
  const auto& g0 = good.data_groups[0].channel_groups[0];
  Built b = good;  // data group chain back to itself
  b.patch_u32(b.data_groups[0].offset + off::dg_next, b.data_groups[0].offset);
  ReadFile r = read_bytes(b.bytes);
  EXPECT_TRUE(has_message(r.errors, "cycle in the data group chain")) << r.error_text();
  EXPECT_EQ(r.data_groups.size(), 1u);
  b = good;  // channel chain loop, sample reduction chain loop
  b.patch_u32(g0.channels[1].offset + off::cn_next, g0.channels[0].offset);
  b.patch_u32(g0.sample_reductions[1] + off::sr_next, g0.sample_reductions[0]);
  r = read_bytes(b.bytes);
  EXPECT_TRUE(has_message(r.errors, "cycle in the channel chain"));
  EXPECT_TRUE(has_message(r.errors, "cycle in the sample reduction chain"));
  EXPECT_EQ(r.data_groups[0].channel_groups[0].channels.size(), 2u);
  b = good;  // links beyond the end, wrong identifier, size below 4
  b.patch_u32(g0.channels[0].offset + off::cn_conversion, 0xFFFFFF00u);
  b.patch_bytes(g0.comment, {'X', 'X'});
  b.patch_u16(g0.channels[1].offset + off::block_size, 2);
  r = read_bytes(b.bytes);
  EXPECT_TRUE(has_message(r.errors, "beyond the end of the file"));
  EXPECT_TRUE(has_message(r.errors, "expected TX"));
  EXPECT_TRUE(has_message(r.errors, "has size 2"));
  b = good;  // data cut off inside the last record of the sorted group
  b.truncate(good.data_groups[0].data + 40);
  r = read_bytes(b.bytes);
  EXPECT_TRUE(has_message(r.warnings, "data section of 48 bytes"));
  EXPECT_EQ(r.data_groups[0].channel_groups[0].records.size(), 2u);

  const auto raw = raw_block(good.bytes, good.data_groups[1].offset);
  ASSERT_TRUE(raw.has_value());
  EXPECT_TRUE(raw->id == "DG" && raw->size == 28u && raw->complete && raw->bytes.size() == 28u);
  EXPECT_FALSE(raw_block(good.bytes, good.bytes.size() - 3).has_value());

  // Every prefix of the file, and the file with a byte of the header or of the first data
  // group's blocks flipped, read without a crash; among the prefixes only the whole file
  // reads cleanly.
  size_t clean = 0;
  for (size_t n = 0; n <= good.bytes.size(); ++n) {
    const ReadFile p = read_bytes(std::span<const uint8_t>(good.bytes.data(), n));
    clean += p.ok() && p.warnings.empty() ? 1 : 0;
  }
  EXPECT_EQ(clean, 1u);
  Bytes x = good.bytes;
  for (size_t i = 64; i < good.data_groups[0].data; i += 2) {  // every u16 field, u32 twice
    x[i] = static_cast<uint8_t>(~x[i]);
    (void)read_bytes(x);
    x[i] = good.bytes[i];
  }
}

}  // namespace
}  // namespace mdftest
