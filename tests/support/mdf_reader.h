// Test-side MDF 3.x file reader.
//
// Reads a whole file into plain structs: every block field, the texts behind links, the decoded
// conversion tails, and each data group's data section split into records per channel group.
// It is meant for damaged files too: every access is bounds-checked, every chain is followed
// with a visited set, and problems are collected instead of thrown:
//   errors   - structural faults: a link outside the file, a block with the wrong identifier or
//              a size below 4, a block running past the end of the file, a cycle in a chain;
//              reading of that branch stops there;
//   warnings - content that does not add up: a count larger than its block holds, a data
//              section shorter than the declared records, an unknown record id.
//
//   auto r = mdftest::read_file(path);
//   ASSERT_TRUE(r.ok()) << r.error_text();
//   const auto& cn = r.data_groups[0].channel_groups[0].channels[1];
//   EXPECT_EQ(cn.name, "speed");
//   EXPECT_EQ(cn.conversion->type, mdftest::cc::linear);
//   EXPECT_EQ(r.data_groups[0].channel_groups[0].records.size(), 10u);
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/mdf_layout.h"

namespace mdftest {

struct FileModel;  // mdf_builder.h

// Each block's offset and size, its links and counts, the blocks and texts behind them.
struct ReadHeader : HeaderFields {
  uint32_t offset = 0, first_dg_link = 0, comment_link = 0, program_link = 0;
  uint16_t block_size = 0, dg_count = 0;
  std::optional<std::string> comment;
  std::optional<std::vector<uint8_t>> program;  // PR bytes after its head
};

struct ReadTrigger {
  uint32_t offset = 0, comment_link = 0;
  uint16_t block_size = 0, event_count = 0;
  std::optional<std::string> comment;
  std::vector<TriggerEvent> events;  // as many as the count says and the block holds
};

struct ReadConversion : ConversionFields {
  uint32_t offset = 0;
  uint16_t block_size = 0, param_count = 0;
};

struct ReadExtension : ExtensionFields {  // record: block bytes from offset 6 on
  uint32_t offset = 0;
  uint16_t block_size = 0;
};

struct ReadDependency {
  uint32_t offset = 0;
  uint16_t block_size = 0, type = 0, count = 0;
  struct Links {
    uint32_t dg = 0, cg = 0, cn = 0;
  };
  std::vector<Links> links;  // as many as the count says and the block holds
};

struct ReadChannel : ChannelFields {
  uint32_t offset = 0, next_link = 0, conversion_link = 0, extension_link = 0, dependency_link = 0,
           comment_link = 0;
  uint32_t long_name_link = 0;     // 0 if the block is shorter than 222
  uint32_t display_name_link = 0;  // 0 if the block is shorter than 228
  uint16_t block_size = 0;
  std::optional<std::string> comment, long_name, display_name;
  std::optional<ReadConversion> conversion;
  std::optional<ReadExtension> extension;
  std::optional<ReadDependency> dependency;
};

struct ReadChannelGroup {
  uint32_t offset = 0, next_link = 0, first_cn_link = 0, comment_link = 0, record_count = 0;
  uint16_t block_size = 0, record_id = 0, cn_count = 0, record_size = 0;
  std::optional<std::string> comment;
  std::vector<ReadChannel> channels;
  std::vector<std::vector<uint8_t>> records;  // data bytes of each record, without ids
};

struct ReadDataGroup {
  uint32_t offset = 0, next_link = 0, first_cg_link = 0, trigger_link = 0, data_link = 0;
  uint16_t block_size = 0, cg_count = 0, record_ids = 0;
  std::optional<ReadTrigger> trigger;
  std::vector<ReadChannelGroup> channel_groups;
  // The data section: from the data link, as many bytes as the declared records take
  // (sum of record_count * (record_size + record_ids)), cut at the end of the file.
  std::vector<uint8_t> data;
};

struct BlockInfo {
  std::string id;
  uint16_t size = 0;
};

struct ReadFile {
  std::vector<uint8_t> bytes;  // the whole file
  IdBlock id;
  ReadHeader header;
  std::vector<ReadDataGroup> data_groups;  // in chain order
  std::map<uint32_t, BlockInfo> blocks;    // every block reached, by offset
  std::vector<std::string> errors;
  std::vector<std::string> warnings;

  bool ok() const { return errors.empty(); }
  std::string error_text() const;  // errors and warnings, one per line
  // All channel groups in file order; index + 1 is the library's group number.
  std::vector<const ReadChannelGroup*> channel_groups() const;
};

ReadFile read_bytes(std::span<const uint8_t> bytes);
ReadFile read_file(const std::filesystem::path& path);

}  // namespace mdftest
