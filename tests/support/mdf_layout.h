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
#include <vector>

namespace mdftest {

// Byte offsets of block fields, counted from the start of the block (the identification block
// starts at file offset 0, the header block at 64). Use them to find a field to patch:
//   built.patch_u32(built.data_groups[0].offset + off::dg_next, 12345);
namespace off {
// Identification block (64 bytes, no block head).
inline constexpr uint32_t id_file = 0;                // 8 chars, "MDF     " or "UnFinMF "
inline constexpr uint32_t id_format = 8;              // 8 chars, e.g. "3.20    "
inline constexpr uint32_t id_program = 16;            // 8 chars
inline constexpr uint32_t id_byte_order = 24;         // u16
inline constexpr uint32_t id_float = 26;              // u16: 0 IEEE, 1 VAX G, 2 VAX D
inline constexpr uint32_t id_version = 28;            // u16, e.g. 320
inline constexpr uint32_t id_code_page = 30;          // u16
inline constexpr uint32_t id_reserved = 32;           // 2 bytes that must be zero
inline constexpr uint32_t id_unfinished = 60;         // u16 standard unfinished flags
inline constexpr uint32_t id_custom_unfinished = 62;  // u16 custom unfinished flags
inline constexpr uint32_t id_size = 64;

// Every other block: 2-char identifier and u16 size.
inline constexpr uint32_t block_id = 0;
inline constexpr uint32_t block_size = 2;

// HD (at file offset 64; 164 or 208 bytes).
inline constexpr uint32_t hd_first_dg = 4;
inline constexpr uint32_t hd_comment = 8;
inline constexpr uint32_t hd_program = 12;
inline constexpr uint32_t hd_dg_count = 16;
inline constexpr uint32_t hd_date = 18;           // 10 chars
inline constexpr uint32_t hd_time = 28;           // 8 chars
inline constexpr uint32_t hd_author = 36;         // 32 chars
inline constexpr uint32_t hd_org = 68;            // 32 chars
inline constexpr uint32_t hd_project = 100;       // 32 chars
inline constexpr uint32_t hd_subject = 132;       // 32 chars
inline constexpr uint32_t hd_timestamp = 164;     // u64 ns, only in 208-byte headers
inline constexpr uint32_t hd_utc_offset = 172;    // i16 hours
inline constexpr uint32_t hd_time_quality = 174;  // u16
inline constexpr uint32_t hd_timer_id = 176;      // 32 chars

// DG (28 bytes).
inline constexpr uint32_t dg_next = 4;
inline constexpr uint32_t dg_first_cg = 8;
inline constexpr uint32_t dg_trigger = 12;
inline constexpr uint32_t dg_data = 16;
inline constexpr uint32_t dg_cg_count = 20;
inline constexpr uint32_t dg_record_ids = 22;
inline constexpr uint32_t dg_reserved = 24;  // 4 bytes

// CG (26 bytes, 30 with the SR link).
inline constexpr uint32_t cg_next = 4;
inline constexpr uint32_t cg_first_cn = 8;
inline constexpr uint32_t cg_comment = 12;
inline constexpr uint32_t cg_record_id = 16;
inline constexpr uint32_t cg_cn_count = 18;
inline constexpr uint32_t cg_record_size = 20;
inline constexpr uint32_t cg_record_count = 22;  // u32
inline constexpr uint32_t cg_first_sr = 26;

// CN (218, 222 or 228 bytes).
inline constexpr uint32_t cn_next = 4;
inline constexpr uint32_t cn_conversion = 8;
inline constexpr uint32_t cn_extension = 12;
inline constexpr uint32_t cn_dependency = 16;
inline constexpr uint32_t cn_comment = 20;
inline constexpr uint32_t cn_type = 24;
inline constexpr uint32_t cn_name = 26;         // 32 chars
inline constexpr uint32_t cn_description = 58;  // 128 chars
inline constexpr uint32_t cn_first_bit = 186;
inline constexpr uint32_t cn_bit_count = 188;
inline constexpr uint32_t cn_data_type = 190;
inline constexpr uint32_t cn_range_valid = 192;
inline constexpr uint32_t cn_min = 194;           // REAL
inline constexpr uint32_t cn_max = 202;           // REAL
inline constexpr uint32_t cn_sample_rate = 210;   // REAL
inline constexpr uint32_t cn_long_name = 218;     // link, size >= 222
inline constexpr uint32_t cn_display_name = 222;  // link, size >= 228
inline constexpr uint32_t cn_byte_offset = 226;   // u16, size >= 228

// CC (46 bytes plus the type-dependent tail).
inline constexpr uint32_t cc_range_valid = 4;
inline constexpr uint32_t cc_min = 6;
inline constexpr uint32_t cc_max = 14;
inline constexpr uint32_t cc_unit = 22;  // 20 chars
inline constexpr uint32_t cc_type = 42;
inline constexpr uint32_t cc_count = 44;
inline constexpr uint32_t cc_params = 46;
// Entry strides of the tail: tables 16 (raw, phys), verbal table 40 (value, 32 chars),
// verbal range table 20 (lower, upper, TX link at entry offset 16).
inline constexpr uint32_t cc_table_stride = 16;
inline constexpr uint32_t cc_verbal_stride = 40;
inline constexpr uint32_t cc_range_stride = 20;

// CE.
inline constexpr uint32_t ce_type = 4;
inline constexpr uint32_t ce_record = 6;

// CD: entry k has three links (DG, CG, CN) at 8 + 12k.
inline constexpr uint32_t cd_type = 4;
inline constexpr uint32_t cd_count = 6;
inline constexpr uint32_t cd_links = 8;

// TR: event k has three REALs (time, pre, post) at 10 + 24k.
inline constexpr uint32_t tr_comment = 4;
inline constexpr uint32_t tr_count = 8;
inline constexpr uint32_t tr_events = 10;

// SR (24 bytes).
inline constexpr uint32_t sr_next = 4;
inline constexpr uint32_t sr_data = 8;
inline constexpr uint32_t sr_count = 12;     // u32
inline constexpr uint32_t sr_interval = 16;  // REAL
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
  std::string file_id = "MDF     ";
  std::string format_id = "3.20    ";
  std::string program_id = "mdftest";
  uint16_t byte_order = 0;
  uint16_t float_format = 0;  // 0 IEEE, 1 VAX G-float, 2 VAX D-float
  uint16_t version = 320;
  uint16_t code_page = 0;
  uint8_t reserved32 = 0;
  uint8_t reserved33 = 0;
  uint16_t unfinished_flags = 0;         // offset 60
  uint16_t custom_unfinished_flags = 0;  // offset 62
  bool operator==(const IdBlock&) const = default;
};

// HD fields other than links and counts. The last four exist only in 208-byte headers.
struct HeaderFields {
  std::string date = "01:01:2020";  // day:month:year
  std::string time = "00:00:00";
  std::string author;
  std::string organization;
  std::string project;
  std::string subject;
  uint64_t timestamp_ns = 0;
  int16_t utc_offset_hours = 0;
  uint16_t time_quality = 0;
  std::string timer_id;
  bool operator==(const HeaderFields&) const = default;
};

// CN fields other than links. additional_byte_offset exists only in CN blocks of 228+ bytes.
struct ChannelFields {
  uint16_t channel_type = 0;  // 0 data, 1 time
  std::string name;           // 32 chars
  std::string description;    // 128 chars
  uint16_t first_bit = 0;
  uint16_t bit_count = 0;
  uint16_t data_type = 0;
  uint16_t range_valid = 0;
  double min = 0;
  double max = 0;
  double sample_rate = 0;
  uint16_t additional_byte_offset = 0;
  bool operator==(const ChannelFields&) const = default;
};

struct VerbalEntry {  // type 11: 8-byte value and 32-char text
  double value = 0;
  std::string text;
  bool operator==(const VerbalEntry&) const = default;
};

struct RangeEntry {  // type 12: lower, upper and a TX link (nullopt = link 0)
  double lower = 0;
  double upper = 0;
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
  double min = 0;
  double max = 0;
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
  double time = 0;
  double pre_time = 0;
  double post_time = 0;
  bool operator==(const TriggerEvent&) const = default;
};

// One dependency of a CD block, by position: data group index in the file, channel group index
// within that data group, channel index within that channel group; -1 stands for link 0.
struct DependencyTarget {
  int dg = -1;
  int cg = -1;
  int cn = -1;
  bool operator==(const DependencyTarget&) const = default;
};

}  // namespace mdftest
