// Checks of the test-side MDF builder and reader: exact bytes at hand-computed offsets, the
// round trip reader(build(f)) against f, and robustness of the reader on damaged files.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/mdf_builder.h"
#include "support/mdf_reader.h"

namespace mdftest {
namespace {

// Little-endian number at an offset, read independently of the support code.
uint64_t le(const std::vector<uint8_t>& b, size_t at, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v |= uint64_t{b.at(at + i)} << (8 * i);
  return v;
}
std::string str(const std::vector<uint8_t>& b, size_t at, size_t n) {
  return std::string(b.begin() + static_cast<std::ptrdiff_t>(at),
                     b.begin() + static_cast<std::ptrdiff_t>(at + n));
}
bool has_message(const std::vector<std::string>& list, const std::string& part) {
  for (const auto& s : list)
    if (s.find(part) != std::string::npos) return true;
  return false;
}

TEST(SupportBuilder, IdentificationBlockBytes) {
  FileModel f;
  f.id.file_id = "UnFinMF ";
  f.id.format_id = "3.30    ";
  f.id.program_id = "prog";
  f.id.float_format = 2;
  f.id.version = 330;
  f.id.code_page = 1252;
  f.id.unfinished_flags = 1;
  f.id.custom_unfinished_flags = 0x0203;
  const Built b = build(f);
  std::vector<uint8_t> want = {'U',  'n',  'F', 'i', 'n', 'M', 'F', ' ', '3',
                               '.',  '3',  '0', ' ', ' ', ' ', ' ', 'p', 'r',
                               'o',  'g',  0,   0,   0,   0,   0,   0,  // byte order
                               2,    0,                                 // float format
                               0x4A, 0x01,                              // 330
                               0xE4, 0x04};                             // 1252
  want.resize(60, 0);
  want.insert(want.end(), {1, 0, 0x03, 0x02});
  ASSERT_EQ(want.size(), 64u);
  EXPECT_EQ(std::vector<uint8_t>(b.bytes.begin(), b.bytes.begin() + 64), want);
  // Without comment or program block, the first data group would follow the 208-byte header.
  EXPECT_EQ(b.bytes.size(), 64u + 208u);
  EXPECT_EQ(str(b.bytes, 64, 2), "HD");
  EXPECT_EQ(le(b.bytes, 66, 2), 208u);
  EXPECT_EQ(le(b.bytes, 68, 4), 0u);  // no data group
}

TEST(SupportBuilder, HeaderFieldsCommentAndProgram) {
  FileModel f;
  f.header.date = "25:12:2021";
  f.header.time = "13:14:15";
  f.header.author = "me";
  f.header.organization = "org";
  f.header.project = "proj";
  f.header.subject = std::string(32, 's');  // fills its field, no terminator
  f.header.timestamp_ns = 0x0102030405060708u;
  f.header.utc_offset_hours = -5;
  f.header.time_quality = 10;
  f.header.timer_id = "Local PC Reference Time";
  f.header.comment = "hello";
  f.header.program = std::vector<uint8_t>{7, 8, 9};
  f.add_data_group();
  const Built b = build(f);
  const auto& x = b.bytes;
  EXPECT_EQ(str(x, 82, 10), "25:12:2021");
  EXPECT_EQ(str(x, 92, 8), "13:14:15");
  EXPECT_EQ(str(x, 100, 3), std::string("me\0", 3));
  EXPECT_EQ(str(x, 132, 4), std::string("org\0", 4));
  EXPECT_EQ(str(x, 164, 5), std::string("proj\0", 5));
  EXPECT_EQ(str(x, 196, 32), std::string(32, 's'));
  EXPECT_EQ(le(x, 228, 8), 0x0102030405060708u);
  EXPECT_EQ(le(x, 236, 2), 0xFFFBu);  // -5
  EXPECT_EQ(le(x, 238, 2), 10u);
  EXPECT_EQ(str(x, 240, 24), std::string("Local PC Reference Time\0", 24));
  // TX at 272: "TX", size 5 + 5, text, zero; PR at 282 of 4 + 3 bytes; DG at 289.
  EXPECT_EQ(le(x, 72, 4), 272u);
  EXPECT_EQ(std::vector<uint8_t>(x.begin() + 272, x.begin() + 282),
            (std::vector<uint8_t>{'T', 'X', 10, 0, 'h', 'e', 'l', 'l', 'o', 0}));
  EXPECT_EQ(le(x, 76, 4), 282u);
  EXPECT_EQ(std::vector<uint8_t>(x.begin() + 282, x.begin() + 289),
            (std::vector<uint8_t>{'P', 'R', 7, 0, 7, 8, 9}));
  EXPECT_EQ(le(x, 68, 4), 289u);
  EXPECT_EQ(le(x, 80, 2), 1u);
  EXPECT_EQ(b.header_comment, 272u);
  EXPECT_EQ(b.program, 282u);
  ASSERT_EQ(b.data_groups.size(), 1u);
  EXPECT_EQ(b.data_groups[0].offset, 289u);

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

TEST(SupportBuilder, ChannelGroupChannelConversionAndExtensionOffsets) {
  FileModel f;
  auto& cg = f.add_data_group().add_channel_group(8, 5);
  auto& cn = cg.add_channel("time", 16, 32, 2, 1);
  cn.description = "desc";
  cn.range_valid = 1;
  cn.min = -1.5;
  cn.max = 2.5;
  cn.sample_rate = 0.01;
  cn.additional_byte_offset = 3;
  cn.comment = "c1";
  cn.long_name = "LongName";
  cn.display_name = "Disp";
  cn.conversion = linear(1.0, 0.5, "s");
  cn.extension = extension(2, {0x34, 0x12});
  cg.add_record()[0] = 0xAA;
  cg.add_record()[7] = 0xBB;
  const Built b = build(f);
  const auto& x = b.bytes;
  // DG 272..300, CG 300..326, CN 326..554, TX "c1" 554..561, TX "LongName" 561..574,
  // TX "Disp" 574..583, CC 583..645, CE 645..773, data 773..789.
  ASSERT_EQ(x.size(), 789u);
  EXPECT_EQ(str(x, 272, 2), "DG");
  EXPECT_EQ(le(x, 274, 2), 28u);
  EXPECT_EQ(le(x, 280, 4), 300u);  // first CG
  EXPECT_EQ(le(x, 288, 4), 773u);  // data
  EXPECT_EQ(le(x, 292, 2), 1u);    // CG count
  EXPECT_EQ(le(x, 294, 2), 0u);    // record ids
  EXPECT_EQ(str(x, 300, 2), "CG");
  EXPECT_EQ(le(x, 302, 2), 26u);
  EXPECT_EQ(le(x, 308, 4), 326u);  // first CN
  EXPECT_EQ(le(x, 316, 2), 5u);    // record id
  EXPECT_EQ(le(x, 318, 2), 1u);    // channels
  EXPECT_EQ(le(x, 320, 2), 8u);    // record size
  EXPECT_EQ(le(x, 322, 4), 2u);    // records
  EXPECT_EQ(str(x, 326, 2), "CN");
  EXPECT_EQ(le(x, 328, 2), 228u);
  EXPECT_EQ(le(x, 330, 4), 0u);    // next
  EXPECT_EQ(le(x, 334, 4), 583u);  // CC
  EXPECT_EQ(le(x, 338, 4), 645u);  // CE
  EXPECT_EQ(le(x, 342, 4), 0u);    // CD
  EXPECT_EQ(le(x, 346, 4), 554u);  // comment
  EXPECT_EQ(le(x, 350, 2), 1u);    // time channel
  EXPECT_EQ(str(x, 352, 5), std::string("time\0", 5));
  EXPECT_EQ(str(x, 384, 5), std::string("desc\0", 5));
  EXPECT_EQ(le(x, 512, 2), 16u);
  EXPECT_EQ(le(x, 514, 2), 32u);
  EXPECT_EQ(le(x, 516, 2), 2u);
  EXPECT_EQ(le(x, 518, 2), 1u);
  EXPECT_EQ(le(x, 520, 8), 0xBFF8000000000000u);  // -1.5
  EXPECT_EQ(le(x, 528, 8), 0x4004000000000000u);  // 2.5
  EXPECT_EQ(le(x, 544, 4), 561u);                 // long name
  EXPECT_EQ(le(x, 548, 4), 574u);                 // display name
  EXPECT_EQ(le(x, 552, 2), 3u);                   // additional byte offset
  EXPECT_EQ(str(x, 554, 7), std::string("TX\x07\0c1\0", 7));
  EXPECT_EQ(le(x, 563, 2), 13u);
  EXPECT_EQ(str(x, 583, 2), "CC");
  EXPECT_EQ(le(x, 585, 2), 62u);
  EXPECT_EQ(str(x, 605, 2), std::string("s\0", 2));  // unit
  EXPECT_EQ(le(x, 625, 2), 0u);                      // type linear
  EXPECT_EQ(le(x, 627, 2), 2u);                      // parameters
  EXPECT_EQ(le(x, 629, 8), 0x3FF0000000000000u);     // P1 = 1.0
  EXPECT_EQ(le(x, 637, 8), 0x3FE0000000000000u);     // P2 = 0.5
  EXPECT_EQ(str(x, 645, 2), "CE");
  EXPECT_EQ(le(x, 647, 2), 128u);
  EXPECT_EQ(le(x, 649, 2), 2u);
  EXPECT_EQ(le(x, 651, 2), 0x1234u);
  EXPECT_EQ(x[773], 0xAA);
  EXPECT_EQ(x[788], 0xBB);
  const BuiltChannel& bc = b.data_groups[0].channel_groups[0].channels[0];
  EXPECT_EQ(bc.offset, 326u);
  EXPECT_EQ(bc.conversion, 583u);
  EXPECT_EQ(b.offset_of(cn.conversion.get()), 583u);
  EXPECT_EQ(b.data_groups[0].channel_groups[0].records, (std::vector<uint32_t>{773, 781}));

  // A 218-byte CN cannot hold a long name.
  cn.block_size = 218;
  EXPECT_THROW(build(f), std::invalid_argument);
  cn.long_name = {};
  cn.display_name = {};
  cn.name = std::string(33, 'n');
  EXPECT_THROW(build(f), std::invalid_argument);
}

TEST(SupportBuilder, RecordValuesAndInterleavedData) {
  std::vector<uint8_t> r(2, 0);
  put_bits(r, 4, 4, 0xA);
  EXPECT_EQ(r[0], 0xA0);
  EXPECT_EQ(get_bits(r, 4, 4), 0xAu);
  // Motorola, bit offset 3, 10 bits over B0 B1: word B1 + 256 * B0 holds the value shifted by 3.
  r = {0, 0};
  put_bits(r, 3, 10, 0x2A5, ByteOrder::motorola);
  EXPECT_EQ(r, (std::vector<uint8_t>{0x15, 0x28}));
  EXPECT_EQ(get_bits(r, 3, 10, ByteOrder::motorola), 0x2A5u);
  r = {0, 0};
  put_bits(r, 0, 16, 0x1234, ByteOrder::motorola);
  EXPECT_EQ(r, (std::vector<uint8_t>{0x12, 0x34}));
  put_bits(r, 0, 16, 0x1234);
  EXPECT_EQ(r, (std::vector<uint8_t>{0x34, 0x12}));
  EXPECT_THROW(put_bits(r, 9, 8, 1), std::out_of_range);
  std::vector<uint8_t> d(12, 0);
  put_f64(d, 0, 1.0, ByteOrder::motorola);
  put_f32(d, 8, 1.0f);
  EXPECT_EQ(d, (std::vector<uint8_t>{0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x3F}));
  EXPECT_EQ(get_f64(d, 0, ByteOrder::motorola), 1.0);
  put_raw(d, 2, {0xDE, 0xAD});
  EXPECT_EQ(d[2], 0xDE);

  FileModel f;
  auto& dg = f.add_data_group(2);
  auto& a = dg.add_channel_group(2, 1);
  auto& c = dg.add_channel_group(1, 0x102);  // only the low byte is written
  a.records = {{0xA0, 0xA1}, {0xA2, 0xA3}};
  c.records = {{0xC0}};
  const Built b = build(f);
  const auto& bd = b.data_groups[0];
  ASSERT_EQ(bd.data_size, 11u);
  EXPECT_EQ(std::vector<uint8_t>(b.bytes.begin() + bd.data, b.bytes.end()),
            (std::vector<uint8_t>{1, 0xA0, 0xA1, 1, 2, 0xC0, 2, 1, 0xA2, 0xA3, 1}));
  EXPECT_EQ(bd.channel_groups[1].records, (std::vector<uint32_t>{bd.data + 4}));
  dg.record_ids = 1;
  dg.order = {1, 0, 0};
  const Built b1 = build(f);
  EXPECT_EQ(std::vector<uint8_t>(b1.bytes.begin() + b1.data_groups[0].data, b1.bytes.end()),
            (std::vector<uint8_t>{2, 0xC0, 1, 0xA0, 0xA1, 1, 0xA2, 0xA3}));
  dg.order = {1, 0};  // leaves a record unused
  EXPECT_THROW(build(f), std::invalid_argument);
}

FileModel rich_file() {
  FileModel f;
  f.header.author = "author";
  f.header.comment = "file comment";
  f.header.program = std::vector<uint8_t>{1, 2, 3, 4};
  f.header.timestamp_ns = 1234567890123456789u;
  f.header.utc_offset_hours = 2;

  // Sorted group with trigger, sample reductions and one channel per CN size and CC type.
  auto& d0 = f.add_data_group();
  d0.trigger = Trigger{"trigger comment", {{1.0, 0.5, 0.25}, {2.0, 0, 0}}, {}, {}};
  auto& g0 = d0.add_channel_group(16);
  g0.block_size = 30;
  g0.comment = "group comment";
  g0.sample_reductions = {{10, 0.1, {1, 2, 3}}, {5, 0.2, {}}};
  const Text shared = "shared comment";
  const ConversionPtr shared_cc = linear(-1, 2, "V");
  const std::vector<ConversionPtr> conversions = {
      shared_cc,
      table(true, {{0, 0}, {10, 100}}, "%"),
      table(false, {{0, 1}, {1, 2}, {2, 4}}),
      polynomial({1, 2, 3, 4, 5, 6}),
      exponential({1, 2, 3, 4, 5, 6, 7}),
      logarithmic({7, 6, 5, 4, 3, 2, 1}),
      rational({0, 1, 0, 0, 0, 1}),
      formula("X1*2+1"),
      verbal_table({{0, "off"}, {1, "on"}, {2, std::string(32, 'x')}}),
      range_table({{0, 10, "low"}, {10, 20, std::nullopt}, {0, 0, "{EVAL \"2*{X}\"}"}}),
      identity("rpm"),
      raw_conversion(132, 1, {9, 8, 7, 6, 5}),
      shared_cc};
  const uint16_t sizes[] = {218, 222, 228, 240};
  for (size_t i = 0; i < conversions.size(); ++i) {
    auto& cn = g0.add_channel("ch" + std::to_string(i), static_cast<uint16_t>(i), 8, 0);
    cn.block_size = sizes[i % 4];
    cn.conversion = conversions[i];
    cn.comment = i % 2 == 0 ? shared : Text("own " + std::to_string(i));
    if (cn.block_size >= 222) cn.long_name = "long " + std::to_string(i);
    if (cn.block_size >= 228) cn.display_name = "disp " + std::to_string(i);
    if (cn.block_size >= 228) cn.additional_byte_offset = static_cast<uint16_t>(i);
    cn.min = -static_cast<double>(i);
    cn.max = static_cast<double>(i);
  }
  g0.channels[0].channel_type = 1;
  g0.channels[1].extension = extension(7, std::vector<uint8_t>(122, 0x5A));
  g0.channels[2].dependency = dependency(1, {{1, 1, 0}, {0, 0, 0}});
  for (int k = 0; k < 3; ++k) put_bits(g0.add_record(), 0, 16, static_cast<uint64_t>(k * 1000));

  // Unsorted groups with one and two record ids.
  for (uint16_t ids = 1; ids <= 2; ++ids) {
    auto& d = f.add_data_group(ids);
    auto& a = d.add_channel_group(3, 1);
    auto& c = d.add_channel_group(1, 2);
    a.add_channel("a", 0, 24, 0);
    c.add_channel("c", 0, 8, 1);
    for (uint8_t k = 0; k < 3; ++k) a.records.push_back({k, k, k});
    c.records = {{0x7F}, {0x80}};
    if (ids == 2) d.order = {1, 1, 0, 0, 0};
  }
  // Raw data section with a record count that lies.
  auto& raw = f.add_data_group();
  auto& rg = raw.add_channel_group(2);
  rg.add_channel("r", 0, 16, 0);
  rg.record_count = 3;
  raw.raw_data = std::vector<uint8_t>{1, 2, 3, 4, 5, 6};
  return f;
}

TEST(SupportReader, RoundTrip) {
  for (const bool at_end : {false, true}) {
    FileModel f = rich_file();
    f.data_at_end = at_end;
    const Built b = build(f);
    const auto path = std::filesystem::temp_directory_path() / "mdftest_round_trip.mdf";
    write_file(path, b.bytes);
    EXPECT_EQ(load_file(path), b.bytes);
    const ReadFile r = read_file(path);
    std::filesystem::remove(path);
    EXPECT_TRUE(r.ok()) << r.error_text();
    const auto diffs = differences(f, r);
    EXPECT_TRUE(diffs.empty()) << diffs.front();
    ASSERT_EQ(r.data_groups.size(), 4u);

    const auto& cns = r.data_groups[0].channel_groups[0].channels;
    ASSERT_EQ(cns.size(), 13u);
    EXPECT_EQ(cns[0].conversion_link, cns[12].conversion_link);  // one shared CC block
    EXPECT_EQ(cns[0].comment_link, cns[2].comment_link);         // one shared TX block
    EXPECT_NE(cns[1].comment_link, cns[3].comment_link);
    EXPECT_EQ(cns[9].conversion->ranges[0].text, "low");
    EXPECT_EQ(cns[9].conversion->range_links[1], 0u);
    EXPECT_EQ(cns[11].conversion->raw_tail, (std::vector<uint8_t>{9, 8, 7, 6, 5}));
    EXPECT_EQ(cns[0].long_name_link, 0u);  // 218 bytes
    EXPECT_EQ(cns[1].long_name, "long 1");
    EXPECT_EQ(cns[1].display_name, std::nullopt);  // 222 bytes
    EXPECT_EQ(cns[3].block_size, 240u);
    EXPECT_EQ(cns[2].dependency->links[0].cn,
              r.data_groups[1].channel_groups[1].channels[0].offset);
    EXPECT_EQ(r.data_groups[2].record_order, (std::vector<size_t>{1, 1, 0, 0, 0}));
    EXPECT_EQ(r.data_groups[3].data, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(r.data_groups[3].channel_groups[0].records.size(), 3u);
    EXPECT_EQ(r.channel_groups().size(), 6u);
    EXPECT_EQ(r.find_channel("c")->data_type, 1u);
    EXPECT_EQ(r.blocks.at(b.data_groups[1].offset).id, "DG");
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

TEST(SupportReader, RealEncodingHooks) {
  FileModel f;
  f.id.float_format = 2;
  f.encode_real = [](double v) {
    return std::array<uint8_t, 8>{0xEE, static_cast<uint8_t>(v), 0, 0, 0, 0, 0, 0};
  };
  auto& cn = f.add_data_group().add_channel_group(1).add_channel("v", 0, 8, 0);
  cn.min = 3;
  const Built b = build(f);
  const uint32_t at = b.data_groups[0].channel_groups[0].channels[0].offset;
  EXPECT_EQ(b.bytes[at + 194], 0xEE);
  EXPECT_EQ(b.bytes[at + 195], 3);
  ReadOptions o;
  o.decode_real = [](std::span<const uint8_t, 8> x) { return x[0] == 0xEE ? x[1] * 1.0 : -1.0; };
  EXPECT_EQ(read_bytes(b.bytes, o).data_groups[0].channel_groups[0].channels[0].min, 3.0);
}

TEST(SupportReader, DamagedFiles) {
  const FileModel f = rich_file();
  const Built good = build(f);
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
  EXPECT_EQ(raw->id, "DG");
  EXPECT_EQ(raw->size, 28u);
  EXPECT_TRUE(raw->complete);
  EXPECT_EQ(raw->bytes.size(), 28u);
  EXPECT_FALSE(raw_block(good.bytes, good.bytes.size() - 3).has_value());

  // Every prefix of the file, and the file with a byte of the header or of the first data group's
  // blocks flipped, read without a crash; among the prefixes only the whole file reads cleanly.
  size_t clean = 0;
  for (size_t n = 0; n <= good.bytes.size(); ++n) {
    const ReadFile p = read_bytes(std::span<const uint8_t>(good.bytes.data(), n));
    clean += p.ok() && p.warnings.empty() ? 1 : 0;
  }
  EXPECT_EQ(clean, 1u);
  std::vector<uint8_t> x = good.bytes;
  for (size_t i = 64; i < good.data_groups[0].data; i += 2) {  // every u16 field, u32 twice
    x[i] = static_cast<uint8_t>(~x[i]);
    (void)read_bytes(x);
    x[i] = good.bytes[i];
  }
}

}  // namespace
}  // namespace mdftest
