// Test-side MDF 3.x file builder.
//
// Two layers:
//  - Image: a byte image with append and patch primitives (little-endian), for hand-made and
//    hostile files;
//  - FileModel: plain structs describing a whole file; build() lays it out into an Image and
//    returns the offset of every block it placed, so that a test can damage any field afterwards.
//
//   mdftest::FileModel f;                     // "MDF     ", "3.20    ", version 320, HD of 208
//   auto& dg = f.add_data_group();           // no record ids
//   auto& cg = dg.add_channel_group(8);      // record size 8
//   auto& t = cg.add_channel("time", 0, 64, 3);
//   t.channel_type = 1;
//   t.conversion = mdftest::linear(0.0, 0.001, "s");
//   for (int i = 0; i < 3; ++i) {
//     auto& rec = cg.add_record();
//     mdftest::put_f64(rec, 0, i * 0.5);
//   }
//   auto built = mdftest::build(f);
//   built.patch_u32(built.data_groups[0].offset + mdftest::off::dg_next, 1u << 30);  // damage
//   mdftest::write_file(path, built.bytes);
//
// Blocks are laid out in this order: identification, HD, HD comment, PR; then per data group:
// DG, TR, TR comment, and per channel group: CG, CG comment, SR blocks (each followed by its
// reduced data), and per channel: CN, comment, long name, display name, CC (with the TX blocks of
// a verbal range table), CE, CD; then the data group's records (or, with data_at_end, all data
// sections after all blocks). Shared blocks are written once, where first met.
//
// build() throws std::invalid_argument for descriptions it cannot lay out (a text too long for
// its field, a long name on a CN too short to hold the link, records that do not match the
// requested order, ...). Image's patch functions throw std::out_of_range outside the image.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/mdf_layout.h"

namespace mdftest {

// ---------------------------------------------------------------------------------------------
// Low-level byte image.

class Image {
 public:
  std::vector<uint8_t> bytes;

  uint32_t size() const { return static_cast<uint32_t>(bytes.size()); }
  // Appends a zero-filled block with a 2-char identifier and the given size field (at least 4
  // bytes), or bytes; returns the offset.
  uint32_t append_block(std::string_view id, uint16_t size);
  uint32_t append_bytes(std::span<const uint8_t> data);

  // Little-endian numbers of n bytes.
  void patch(uint64_t at, uint64_t v, size_t n);
  void patch_u8(uint64_t at, uint8_t v) { patch(at, v, 1); }
  void patch_u16(uint64_t at, uint16_t v) { patch(at, v, 2); }
  void patch_u32(uint64_t at, uint32_t v) { patch(at, v, 4); }
  void patch_u64(uint64_t at, uint64_t v) { patch(at, v, 8); }
  void patch_f64(uint64_t at, double v) { patch(at, std::bit_cast<uint64_t>(v), 8); }
  void patch_bytes(uint64_t at, std::span<const uint8_t> data);
  // Writes text into a fixed-width field, zero-padded; throws if it is longer than width.
  void patch_chars(uint64_t at, size_t width, std::string_view text);
  uint32_t u32(uint64_t at) const;
  void truncate(size_t new_size) { bytes.resize(std::min(new_size, bytes.size())); }

 private:
  void need(uint64_t at, size_t n) const;
};

// ---------------------------------------------------------------------------------------------
// Values in records. Bit positions count from the first data byte of the record (after any
// record id). Intel: bit p of the record is bit p%8 of byte p/8. Motorola: the field's bytes
// (byte first_bit/8 and on, (first_bit%8 + bits + 7)/8 of them) are read most significant byte
// first, and the field starts first_bit%8 bits above the least significant bit of that word.

enum class ByteOrder { intel, motorola };

void put_bits(std::span<uint8_t> rec, unsigned first_bit, unsigned bits, uint64_t value,
              ByteOrder order = ByteOrder::intel);
uint64_t get_bits(std::span<const uint8_t> rec, unsigned first_bit, unsigned bits,
                  ByteOrder order = ByteOrder::intel);
void put_f32(std::span<uint8_t> rec, size_t byte_offset, float v,
             ByteOrder order = ByteOrder::intel);
void put_f64(std::span<uint8_t> rec, size_t byte_offset, double v,
             ByteOrder order = ByteOrder::intel);
// Raw bytes, e.g. a VAX float the caller has encoded, or a string.
void put_raw(std::span<uint8_t> rec, size_t byte_offset, std::span<const uint8_t> data);

// ---------------------------------------------------------------------------------------------
// File description.

// A TX block reference. Empty means link 0. Converts implicitly from strings, so
// `cn.comment = "text";` works. Copies refer to the same block: a Text assigned to several fields
// is written once and all links point to it.
class Text {
 public:
  Text() = default;
  Text(const char* s);  // NOLINT(google-explicit-constructor): implicit on purpose
  Text(std::string s);  // NOLINT(google-explicit-constructor)
  explicit operator bool() const { return p_ != nullptr; }
  const std::string& str() const;
  const void* id() const { return p_.get(); }

 private:
  std::shared_ptr<const std::string> p_;
};

// The block is 46 bytes and its tail (a formula zero-padded to at least 256 bytes).
struct Conversion : ConversionFields {
  std::optional<uint16_t> param_count;  // default: the number of entries of the used tail member
                                        // (0 for type 10 and for raw_tail)
};
using ConversionPtr = std::shared_ptr<Conversion>;

// Factories; the result may be assigned to several channels, which then share one CC block.
// A rule of parameters (cc::polynomial, cc::exponential, ...); linear: P1 offset, P2 factor.
ConversionPtr params(uint16_t type, std::vector<double> p, std::string unit = {});
inline ConversionPtr linear(double offset, double factor, std::string unit = {}) {
  return params(cc::linear, {offset, factor}, std::move(unit));
}
ConversionPtr table(bool interpolate, std::vector<std::pair<double, double>> points,
                    std::string unit = {});  // type 1 if interpolate, else 2
ConversionPtr formula(std::string text, std::string unit = {});
ConversionPtr verbal_table(std::vector<VerbalEntry> entries, std::string unit = {});
ConversionPtr range_table(std::vector<RangeEntry> entries, std::string unit = {});
ConversionPtr raw_conversion(uint16_t type, uint16_t param_count, std::vector<uint8_t> tail,
                             std::string unit = {});

struct Extension : ExtensionFields {
  // Default: 128 (4 + type + the first 122 bytes of the record, zero-padded), or
  // 6 + record size if the record is longer than 122 bytes.
  std::optional<uint16_t> block_size;
};
using ExtensionPtr = std::shared_ptr<Extension>;
ExtensionPtr extension(uint16_t type, std::vector<uint8_t> record);

struct Dependency {
  uint16_t type = 0;
  std::vector<DependencyTarget> targets;  // resolved to links after all blocks are placed
};
using DependencyPtr = std::shared_ptr<Dependency>;
DependencyPtr dependency(uint16_t type, std::vector<DependencyTarget> targets);

struct Channel : ChannelFields {
  uint16_t block_size = 228;  // 218 (no long/display name), 222 (long name only), 228, or other;
                              // fields that do not fit are not written
  Text comment;
  Text long_name;     // needs block_size >= 222
  Text display_name;  // needs block_size >= 228
  ConversionPtr conversion;
  ExtensionPtr extension;
  DependencyPtr dependency;
};

struct SampleReduction {
  uint32_t sample_count = 0;
  double interval = 0;
  std::vector<uint8_t> data;  // written right after the SR block; empty: data link 0
};

struct ChannelGroup {
  uint16_t block_size = 26;  // 30 or more to have the SR link
  uint16_t record_id = 0;
  uint16_t record_size = 0;
  std::optional<uint32_t> record_count;  // default records.size(); set it to lie
  Text comment;
  std::deque<Channel> channels;  // a deque: references from add_channel stay valid
  std::vector<SampleReduction> sample_reductions;  // needs block_size >= 30
  // Record data bytes without record ids, written as given (their length is not checked).
  std::vector<std::vector<uint8_t>> records;

  Channel& add_channel(std::string name, uint16_t first_bit, uint16_t bits, uint16_t data_type,
                       uint16_t channel_type = 0);
  // Appends a zero-filled record of record_size bytes; the reference is valid until the next
  // change of `records`.
  std::vector<uint8_t>& add_record();
};

struct Trigger {
  Text comment;
  std::vector<TriggerEvent> events;
  std::optional<uint16_t> event_count;  // default events.size()
  std::optional<uint16_t> block_size;   // default 10 + 24 * events.size()
};

struct DataGroup {
  uint16_t record_ids = 0;  // 0, 1 or 2
  std::deque<ChannelGroup> channel_groups;
  std::optional<Trigger> trigger;
  // The data section: raw_data as it is when set (the benchmarks' large files), else made from
  // the channel groups' records: without record ids the records of
  // every channel group one after the other, in channel-group order; with record ids the
  // records are interleaved in `order` (a list of channel-group indices, one per record; empty:
  // round robin, one record of each channel group in turn while any is left), each led by the
  // low byte of the channel group's record id and, with two record ids, followed by it again.
  std::optional<std::vector<uint8_t>> raw_data;
  std::vector<size_t> order;

  ChannelGroup& add_channel_group(uint16_t record_size, uint16_t record_id = 0);
};

struct Header : HeaderFields {
  uint16_t block_size = 208;         // 164 in files before 3.20
  std::optional<uint16_t> dg_count;  // default data_groups.size()
  Text comment;
  std::optional<std::vector<uint8_t>> program;  // PR block bytes after its head
};

struct FileModel {
  IdBlock id;
  Header header;
  std::deque<DataGroup> data_groups;  // a deque: references from add_data_group stay valid
  bool data_at_end = false;  // place every data section after all blocks, in data-group order
  // Encoding of every REAL in blocks (CN, CC, TR, SR); default IEEE little-endian. Set it to a
  // VAX encoder to make a file with float format 1 or 2.
  std::function<std::array<uint8_t, 8>(double)> encode_real;

  DataGroup& add_data_group(uint16_t record_ids = 0);
};

// ---------------------------------------------------------------------------------------------
// Build result: the image plus the offset of every block (0 where none was written).

struct BuiltChannel {
  uint32_t offset = 0, comment = 0, long_name = 0, display_name = 0, conversion = 0, extension = 0,
           dependency = 0;
};

struct BuiltChannelGroup {
  uint32_t offset = 0, comment = 0;
  std::vector<uint32_t> sample_reductions;
  std::vector<BuiltChannel> channels;
  std::vector<uint32_t> records;  // file offset of each record (of its leading id, if any)
};

struct BuiltDataGroup {
  uint32_t offset = 0, trigger = 0, trigger_comment = 0;
  uint32_t data = 0;  // where the data section was placed (even when the link says otherwise)
  uint32_t data_size = 0;
  std::vector<BuiltChannelGroup> channel_groups;
};

struct Built : Image {
  uint32_t header = 64, header_comment = 0, program = 0;
  std::vector<BuiltDataGroup> data_groups;
  std::map<const void*, uint32_t> shared_blocks;  // shared Text/CC/CE/CD -> offset
};

Built build(const FileModel& file);

void write_file(const std::filesystem::path& path, std::span<const uint8_t> bytes);
std::vector<uint8_t> load_file(const std::filesystem::path& path);  // throws std::runtime_error

}  // namespace mdftest
