// Field offsets of the MDF 3.x blocks and the plain field structs shared by the test-side file
// builder (mdf_builder.h) and reader (mdf_reader.h).
//
// Everything here is written from the block layouts alone and is independent of the library's own
// block code, so that tests compare the library against a second, separate reading of the format.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace mdftest {

// Byte offsets of links, counts and sizes, counted from the start of the block (the header block
// starts at file offset 64). The plain value fields are in the field tables at the end.
namespace off {
inline constexpr uint32_t id_reserved = 32;  // 2 bytes that must be zero
inline constexpr uint32_t id_size = 64;      // the identification block has no block head
inline constexpr uint32_t block_size = 2;    // u16 after the 2-char identifier of every other block
inline constexpr uint32_t hd_first_dg = 4, hd_comment = 8, hd_program = 12, hd_dg_count = 16;
inline constexpr uint32_t dg_next = 4, dg_first_cg = 8, dg_trigger = 12, dg_data = 16,
                          dg_cg_count = 20, dg_record_ids = 22;
inline constexpr uint32_t cg_next = 4, cg_first_cn = 8, cg_comment = 12, cg_record_id = 16,
                          cg_cn_count = 18, cg_record_size = 20, cg_record_count = 22,
                          cg_first_sr = 26;
// CN: the long name link needs a block of 222 bytes, the display name link 228.
inline constexpr uint32_t cn_next = 4, cn_conversion = 8, cn_extension = 12, cn_dependency = 16,
                          cn_comment = 20, cn_long_name = 218, cn_display_name = 222;
// CC: the type-dependent tail starts at cc_params; entry strides of tables 16 (raw, phys),
// verbal tables 40 (value, 32 chars), verbal range tables 20 (lower, upper, TX link at 16).
inline constexpr uint32_t cc_count = 44, cc_params = 46;
inline constexpr uint32_t cc_table_stride = 16, cc_verbal_stride = 40, cc_range_stride = 20;
inline constexpr uint32_t ce_type = 4, ce_record = 6;
// CD: entry k has three links (DG, CG, CN) at 8 + 12k.
inline constexpr uint32_t cd_type = 4, cd_count = 6, cd_links = 8;
// TR: event k has three REALs (time, pre, post) at 10 + 24k.
inline constexpr uint32_t tr_comment = 4, tr_count = 8, tr_events = 10;
inline constexpr uint32_t sr_next = 4, sr_data = 8, sr_count = 12, sr_interval = 16;
}  // namespace off

// Conversion type codes of the CC block.
namespace cc {
inline constexpr uint16_t linear = 0;
inline constexpr uint16_t table_interp = 1;
inline constexpr uint16_t table = 2;
inline constexpr uint16_t polynomial = 6;
inline constexpr uint16_t exponential = 7;
inline constexpr uint16_t logarithmic = 8;
inline constexpr uint16_t rational = 9;
inline constexpr uint16_t formula = 10;
inline constexpr uint16_t verbal = 11;
inline constexpr uint16_t verbal_range = 12;
inline constexpr uint16_t identity = 65535;
}  // namespace cc

// --- Plain field structs, used by both the builder (what to write) and the reader (what was
// read). Texts are the fixed-width character fields, cut at the first zero byte on reading.

struct IdBlock {
  std::string file_id = "MDF     ", format_id = "3.20    ", program_id = "mdftest";
  uint16_t byte_order = 0;
  uint16_t float_format = 0;  // 0 IEEE, 1 VAX G-float, 2 VAX D-float
  uint16_t version = 320, code_page = 0;
  uint8_t reserved32 = 0, reserved33 = 0;
  uint16_t unfinished_flags = 0, custom_unfinished_flags = 0;  // offsets 60 and 62
  bool operator==(const IdBlock&) const = default;
};

// HD fields other than links and counts. The last four exist only in 208-byte headers.
struct HeaderFields {
  std::string date = "01:01:2020";  // day:month:year
  std::string time = "00:00:00", author, organization, project, subject;
  uint64_t timestamp_ns = 0;
  int16_t utc_offset_hours = 0;
  uint16_t time_quality = 0;
  std::string timer_id;
  bool operator==(const HeaderFields&) const = default;
};

// CN fields other than links. additional_byte_offset exists only in CN blocks of 228+ bytes.
struct ChannelFields {
  uint16_t channel_type = 0;      // 0 data, 1 time
  std::string name, description;  // 32 and 128 chars
  uint16_t first_bit = 0, bit_count = 0, data_type = 0, range_valid = 0;
  double min = 0, max = 0, sample_rate = 0;
  uint16_t additional_byte_offset = 0;
  bool operator==(const ChannelFields&) const = default;
};

struct VerbalEntry {  // type 11: 8-byte value and 32-char text
  double value = 0;
  std::string text;
  bool operator==(const VerbalEntry&) const = default;
};

struct RangeEntry {  // type 12: lower, upper and a TX link (nullopt = link 0)
  double lower = 0, upper = 0;
  std::optional<std::string> text;
  bool operator==(const RangeEntry&) const = default;
};

// CC fields. Which tail member is used depends on the type:
//   params  - types 0 (P1 offset, P2 factor), 6, 7, 8, 9, 65535 and unknown types (8 bytes each)
//   table   - types 1 and 2, (raw, physical) pairs
//   formula - type 10
//   verbal  - type 11
//   ranges  - type 12
// raw_tail, when set, replaces all of them: the bytes from offset 46 on, written as they are.
// The reader decodes the tail of types 0..2, 6..12 and 65535 and puts the tail of every other
// type into raw_tail.
struct ConversionFields {
  uint16_t range_valid = 0;
  double min = 0, max = 0;
  std::string unit;  // 20 chars
  uint16_t type = cc::identity;
  std::vector<double> params;
  std::vector<std::pair<double, double>> table;
  std::string formula;
  std::vector<VerbalEntry> verbal;
  std::vector<RangeEntry> ranges;
  std::optional<std::vector<uint8_t>> raw_tail;
  bool operator==(const ConversionFields&) const = default;
};

struct ExtensionFields {  // CE: module type and the module record that follows it at offset 6
  uint16_t type = 0;
  std::vector<uint8_t> record;
  bool operator==(const ExtensionFields&) const = default;
};

struct TriggerEvent {
  double time = 0, pre_time = 0, post_time = 0;
  bool operator==(const TriggerEvent&) const = default;
};

// One dependency of a CD block, by position: data group index in the file, channel group index
// within that data group, channel index within that channel group; -1 stands for link 0.
struct DependencyTarget {
  int dg = -1, cg = -1, cn = -1;
  bool operator==(const DependencyTarget&) const = default;
};

// The plain value fields of the identification, HD, CN and CC blocks, one table per struct,
// driving both the builder and the reader. A number is as wide as its member (a double is an
// 8-byte REAL); a text has the given width. Fields beyond a shorter block are neither written nor
// read.
template <class S>
struct Field {
  uint32_t at;
  std::variant<uint8_t S::*, uint16_t S::*, int16_t S::*, uint32_t S::*, uint64_t S::*, double S::*,
               std::string S::*>
      member;
  uint32_t width = 0;
};

// clang-format off
inline const Field<IdBlock> id_fields[] = {
    {0, &IdBlock::file_id, 8},     {8, &IdBlock::format_id, 8},  {16, &IdBlock::program_id, 8},
    {24, &IdBlock::byte_order},    {26, &IdBlock::float_format}, {28, &IdBlock::version},
    {30, &IdBlock::code_page},     {32, &IdBlock::reserved32},   {33, &IdBlock::reserved33},
    {60, &IdBlock::unfinished_flags}, {62, &IdBlock::custom_unfinished_flags}};
inline const Field<HeaderFields> header_fields[] = {
    {18, &HeaderFields::date, 10},          {28, &HeaderFields::time, 8},
    {36, &HeaderFields::author, 32},        {68, &HeaderFields::organization, 32},
    {100, &HeaderFields::project, 32},      {132, &HeaderFields::subject, 32},
    {164, &HeaderFields::timestamp_ns},     {172, &HeaderFields::utc_offset_hours},
    {174, &HeaderFields::time_quality},     {176, &HeaderFields::timer_id, 32}};
inline const Field<ChannelFields> channel_fields[] = {
    {24, &ChannelFields::channel_type},  {26, &ChannelFields::name, 32},
    {58, &ChannelFields::description, 128}, {186, &ChannelFields::first_bit},
    {188, &ChannelFields::bit_count},    {190, &ChannelFields::data_type},
    {192, &ChannelFields::range_valid},  {194, &ChannelFields::min},
    {202, &ChannelFields::max},          {210, &ChannelFields::sample_rate},
    {226, &ChannelFields::additional_byte_offset}};
inline const Field<ConversionFields> conversion_fields[] = {
    {4, &ConversionFields::range_valid}, {6, &ConversionFields::min},
    {14, &ConversionFields::max},        {22, &ConversionFields::unit, 20},
    {42, &ConversionFields::type}};
// clang-format on

}  // namespace mdftest
