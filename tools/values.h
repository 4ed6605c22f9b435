// Channels of a group and the values of their records: the one place where the program reads
// values, so that a faster way of reading them replaces this file only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "korvel.h"

namespace korvel::tool {

// A channel of an open group, as the commands show it.
struct ChannelInfo {
  channelnode* handle = nullptr;
  uint16_t number = 0;  // 1-based within the group
  std::string name, long_name, description, unit;
  bool time = false;  // a time channel
  uint16_t data_type = 0, bits = 0;
  bool has_rule = false;  // a conversion rule is attached
  uint16_t rule = MDF_CC_FRM_NON;
};

// Opens every channel of a group (the handles close with the group).
std::vector<ChannelInfo> open_channels(mdf_group* group, const std::string& file);

// One value as it is shown: an exact integer, a double or a text; `number` holds the value as a
// double for minimum and maximum (not for texts of strings and byte arrays).
struct Cell {
  enum class Shown { none, signed_int, unsigned_int, real, text };
  Shown shown = Shown::none;
  int64_t s = 0;
  uint64_t u = 0;
  double real = 0;
  std::string text;
  bool has_number = false;
  double number = 0;
  int16_t status = 0;  // the library's status when the value could not be read (shown: none)
};

// Values of chosen channels of one group, record by record. Physical values, except that an
// integer channel without a rule (or with the 1:1 rule) is shown as the exact integer, value
// tables as their texts, strings as text and byte arrays as hex; raw columns show the
// unconverted values. Each column is read through the library's array reads, a window of
// records at a time; the group's record cursor does not move.
class GroupValues {
 public:
  GroupValues(mdf_group* group, const std::string& file);
  // Adds a channel of the group as the next column; returns its index.
  std::size_t add(const ChannelInfo& channel, bool raw);
  // The records to read: none when records of 0 bytes are declared (a damaged channel group
  // may claim billions of them, each read without touching the file); hollow() tells.
  uint32_t records() const { return hollow_ ? 0 : records_; }
  bool hollow() const { return hollow_; }
  // Makes record `index` (below records()) the current record.
  void seek(uint32_t index) { current_ = index; }
  // The value of column i in the current record.
  const Cell& get(std::size_t i);
  // Reads, for every column, the window of records that holds record `first` (below
  // records()); records first .. window_end(first) - 1 can then be rendered.
  void load(uint32_t first);
  void load(uint32_t first, std::size_t i);  // column i only
  static uint32_t window_end(uint32_t first) { return first - first % kWindow + kWindow; }
  // The value of column i in a record of the loaded windows, into `cell`. Changes nothing, so
  // that several threads may render records at once.
  void render(std::size_t i, uint32_t record, Cell& cell) const;
  // Notes the status of a rendered value as the column's failure when it is the first.
  void note(std::size_t i, int16_t status) {
    if (status != 0 && columns_[i].failure == 0) columns_[i].failure = status;
  }
  // The first status other than 0 met in column i (its values are shown empty).
  int16_t failure(std::size_t i) const { return columns_[i].failure; }

 private:
  enum class Read { integer, real, text, bytes };
  struct TableEntry {
    double low, high;
    std::string text;
  };
  struct Column {
    ChannelInfo info;
    bool raw = false;
    Read read = Read::real;
    bool exact_integer = false;  // physical value = raw integer
    bool table = false;          // value-to-text rule
    std::vector<TableEntry> entries;
    std::string default_text;  // range tables: the text of entry 0 when no range holds
    // The window of records read: [first, first + size); per record the raw integer, the
    // raw value as a double, the physical value or `width` bytes, as the column needs them.
    uint32_t first = 0, size = 0, width = 0;
    std::vector<uint64_t> integers;
    std::vector<double> raws, physicals;
    std::vector<uint8_t> bytes;
    int16_t raw_status = 0, physical_status = 0;  // of the window's reads, for every record
    Cell cell;
    int64_t cell_of = -1;  // the record the cell holds
    int16_t failure = 0;
  };
  static constexpr uint32_t kWindow = 512;  // records read at a time per column
  void load_table(Column& c);
  void fill(Column& c);

  mdf_group* group_;
  std::string file_;
  uint32_t records_ = 0;
  bool hollow_ = false;
  uint32_t current_ = 0;
  std::vector<Column> columns_;
};

}  // namespace korvel::tool
