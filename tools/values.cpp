#include "values.h"

#include <algorithm>
#include <cstring>

#include "tool.h"

namespace korvel::tool {

std::vector<ChannelInfo> open_channels(mdf_group* group, const std::string& file) {
  uint16_t count = 0;
  check(mdfGrpChannels(&count, group), file);
  std::vector<ChannelInfo> channels;
  for (uint16_t i = 1; i <= count; ++i) {
    ChannelInfo c;
    c.number = i;
    check(mdfChnOpen(&c.handle, group, i), file);
    uint16_t type = 0;
    const char *name = nullptr, *desc = nullptr, *long_name = nullptr;
    check(mdfChnGetInfo(c.handle, &type, &c.bits, &c.data_type, &name, &desc, nullptr), file);
    check(mdfChnGetInfoExt(c.handle, nullptr, &long_name, nullptr), file);
    c.time = type == MDF_CHN_TIME;
    c.name = field(name, 32);
    c.description = field(desc, 128);
    c.long_name = long_name != nullptr ? long_name : "";
    const char* unit = nullptr;
    // A channel without a rule gives 1004.
    c.has_rule = mdfChnGetForm(c.handle, &c.rule, &unit, nullptr) == 0;
    if (c.has_rule) c.unit = field(unit, 20);
    channels.push_back(std::move(c));
  }
  return channels;
}

namespace {

bool is_integer(uint16_t data_type) {
  switch (data_type) {
    case MDF_DT_UINT:
    case MDF_DT_INT:
    case MDF_DT_UINT_BE:
    case MDF_DT_INT_BE:
    case MDF_DT_UINT_LE:
    case MDF_DT_INT_LE:
      return true;
    default:
      return false;
  }
}

bool is_signed(uint16_t data_type) {
  return data_type == MDF_DT_INT || data_type == MDF_DT_INT_BE || data_type == MDF_DT_INT_LE;
}

}  // namespace

GroupValues::GroupValues(mdf_group* group, const std::string& file) : group_(group), file_(file) {
  check(mdfGrpRecords(&records_, group), file);
  uint8_t* data = nullptr;
  hollow_ = records_ > 0 && mdfGrpBuffer(&data, group) <= 24;
}

std::size_t GroupValues::add(const ChannelInfo& info, bool raw) {
  Column c;
  c.info = info;
  c.raw = raw;
  const uint16_t t = info.data_type;
  c.read = t == MDF_DT_STRING  ? Read::text
           : t == MDF_DT_BYTES ? Read::bytes
           : is_integer(t)     ? Read::integer
                               : Read::real;
  const bool identity = !info.has_rule || info.rule == MDF_CC_FRM_NON;
  c.exact_integer = c.read == Read::integer && (raw || identity);
  c.table = !raw && info.has_rule &&
            (info.rule == MDF_CC_FRM_VTAB || info.rule == MDF_CC_FRM_VTABR) &&
            (c.read == Read::integer || c.read == Read::real);
  if (c.table) load_table(c);
  columns_.push_back(std::move(c));
  return columns_.size() - 1;
}

// The entries of a value table (raw value and text) or of a range table (lower and upper raw
// value and text; entry 0 holds the text of values that no range holds).
void GroupValues::load_table(Column& c) {
  uint16_t type = 0;
  const uint16_t* count = nullptr;
  const void* entries = nullptr;
  double offset = 0, factor = 1;
  const auto* bytes = [&]() -> const unsigned char* {
    const int16_t st =
        c.info.rule == MDF_CC_FRM_VTAB
            ? mdfChnGetFormVTab(c.info.handle, &type, nullptr, &count, &entries)
            : mdfChnGetFormVTabR(c.info.handle, &type, nullptr, &offset, &factor, &count, &entries);
    check(st, file_);
    return static_cast<const unsigned char*>(entries);
  }();
  uint16_t n = 0;
  if (count != nullptr) std::memcpy(&n, count, sizeof n);
  // The count is the block's own and is not checked against the block's size; one larger than
  // any block can hold is damage, and then the values are shown as numbers. A smaller wrong
  // count can still make these reads pass the block's end (the interface gives no block size).
  const unsigned stride = c.info.rule == MDF_CC_FRM_VTAB ? 40 : 20;
  if (bytes == nullptr || n > (65535u - 46u) / stride) {
    c.table = false;
    return;
  }
  for (uint16_t i = 0; i < n; ++i) {
    TableEntry e{};
    if (c.info.rule == MDF_CC_FRM_VTAB) {
      std::memcpy(&e.low, bytes + 40u * i, 8);
      e.high = e.low;
      e.text = field(reinterpret_cast<const char*>(bytes + 40u * i + 8), 32);
    } else {
      std::memcpy(&e.low, bytes + 20u * i, 8);
      std::memcpy(&e.high, bytes + 20u * i + 8, 8);
      const char* text = nullptr;
      check(mdfChnGetFormVTabText(c.info.handle, i, &text), file_);
      e.text = text != nullptr ? text : "";
    }
    if (c.info.rule == MDF_CC_FRM_VTABR && i == 0)
      c.default_text = e.text;
    else
      c.entries.push_back(std::move(e));
  }
}

// Reads the window of records that holds the current record, each array the column needs.
// A status of the array reads holds for every record of the window, as the per-value reads
// would give it record by record; a failure of the library throws LibraryError.
void GroupValues::fill(Column& c) {
  c.first = current_ - current_ % kWindow;
  c.size = std::min(kWindow, records() - c.first);
  channelnode* ch = c.info.handle;
  const auto keep = [&](int16_t st) {
    if (st < 0) check(st, file_);
    return st == MDF_END_OF_GROUP ? int16_t{0} : st;
  };
  c.raw_status = c.physical_status = 0;
  const bool raw_integers = c.read == Read::integer && (c.exact_integer || c.table);
  const bool raw_reals = c.read == Read::real && (c.raw || c.table);
  if (raw_integers) {
    c.integers.resize(c.size);
    c.raw_status = keep(mdfChnReadHexIntArray(c.integers.data(), nullptr, ch, c.first, c.size));
  } else if (raw_reals) {
    c.raws.resize(c.size);
    c.raw_status = keep(mdfChnReadHexArray(c.raws.data(), nullptr, ch, c.first, c.size));
  } else if (c.read == Read::text || c.read == Read::bytes) {
    c.width = std::max(1u, c.info.bits / 8u);
    c.bytes.resize(std::size_t{c.size} * c.width);
    c.raw_status =
        keep(mdfChnReadBytesArray(c.bytes.data(), c.width, nullptr, ch, c.first, c.size));
  }
  const bool shown_raw = (raw_integers && c.exact_integer) || (raw_reals && c.raw) ||
                         c.read == Read::text || c.read == Read::bytes;
  if (c.raw_status == 0 && !shown_raw) {
    c.physicals.resize(c.size);
    c.physical_status = keep(mdfChnReadPhyArray(c.physicals.data(), nullptr, ch, c.first, c.size));
  }
}

const Cell& GroupValues::get(std::size_t i) {
  Column& c = columns_[i];
  if (c.cell_of != current_) {
    if (current_ < c.first || current_ - c.first >= c.size) fill(c);
    render(i, current_, c.cell);
    c.cell_of = current_;
    note(i, c.cell.status);
  }
  return c.cell;
}

void GroupValues::load(uint32_t first) {
  for (std::size_t i = 0; i < columns_.size(); ++i) load(first, i);
}

void GroupValues::load(uint32_t first, std::size_t i) {
  current_ = first;
  Column& c = columns_[i];
  if (first < c.first || first - c.first >= c.size) fill(c);
}

void GroupValues::render(std::size_t i, uint32_t record, Cell& cell) const {
  const Column& c = columns_[i];
  const std::size_t k = record - c.first;
  cell.shown = Cell::Shown::none;
  cell.has_number = false;
  int16_t st = c.raw_status;
  double raw = 0;
  switch (c.read) {
    case Read::integer: {
      if (!c.exact_integer && !c.table) break;
      cell.u = c.integers[k];
      cell.s = static_cast<int64_t>(cell.u);
      raw = is_signed(c.info.data_type) ? static_cast<double>(cell.s) : static_cast<double>(cell.u);
      if (st == 0 && c.exact_integer) {
        cell.shown =
            is_signed(c.info.data_type) ? Cell::Shown::signed_int : Cell::Shown::unsigned_int;
        cell.has_number = true;
        cell.number = raw;
      }
      break;
    }
    case Read::real:
      if (c.raw || c.table) raw = c.raws[k];
      if (st == 0 && c.raw) {
        cell.shown = Cell::Shown::real;
        cell.real = cell.number = raw;
        cell.has_number = true;
      }
      break;
    case Read::text:
    case Read::bytes: {
      if (st != 0) break;
      cell.text.clear();
      const uint8_t* value = c.bytes.data() + k * c.width;
      for (uint32_t b = 0; b < c.width; ++b) {
        if (c.read == Read::text) {
          if (value[b] == 0) break;
          cell.text.push_back(static_cast<char>(value[b]));
        } else {
          cell.text.push_back("0123456789abcdef"[value[b] >> 4]);
          cell.text.push_back("0123456789abcdef"[value[b] & 15]);
        }
      }
      cell.shown = Cell::Shown::text;
      break;
    }
  }
  if (st == 0 && cell.shown == Cell::Shown::none) {
    st = c.physical_status;
    if (st == 0) {
      const double physical = c.physicals[k];
      cell.shown = Cell::Shown::real;
      cell.real = cell.number = physical;
      cell.has_number = true;
      if (c.table) {
        const auto hit = std::find_if(c.entries.begin(), c.entries.end(), [raw](const auto& e) {
          return raw >= e.low && raw <= e.high;
        });
        // A range table's default text may be a scaling annotation: then the scaled value.
        const bool annotation = !c.default_text.empty() && c.default_text[0] == '{';
        if (hit != c.entries.end() || c.info.rule == MDF_CC_FRM_VTAB || !annotation) {
          cell.shown = Cell::Shown::text;
          cell.text = hit != c.entries.end() ? hit->text : c.default_text;
        }
      }
    }
  }
  cell.status = st;
  if (st != 0) cell.shown = Cell::Shown::none, cell.has_number = false;
}

}  // namespace korvel::tool
