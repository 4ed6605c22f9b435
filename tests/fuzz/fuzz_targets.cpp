#include "fuzz/fuzz_targets.h"

#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "convert/formula.h"
#include "group/group.h"
#include "korvel.h"
#include "storage/node.h"
#include "support/mdf_builder.h"

namespace korvel_fuzz {

namespace {

// One file per process, so that replays running side by side never share it; removed with
// its sorted copy when the process ends.
const std::string& scratch_path() {
  static const struct Scratch {
    std::string path = (std::filesystem::temp_directory_path() /
                        ("korvel_fuzz_" + std::to_string(std::random_device{}()) + ".mdf"))
                           .string();
    ~Scratch() {
      std::error_code ec;
      std::filesystem::remove(path, ec);
      std::filesystem::remove(path + ".sorted", ec);
    }
  } scratch;
  return scratch.path;
}

constexpr int32_t kMaxRecords = 1024;

// A fresh library session.
void restart() {
  mdfClose();
  mdfOpen(nullptr);
}

// The bytes written to the scratch file, in a fresh library session.
void write_scratch(const uint8_t* data, size_t size) {
  mdftest::write_file(scratch_path(), {data, size});
  restart();
}

// Opens each of the first `most` groups of a file in turn with its first channels, for `body`.
template <class Body>
void each_group(mdf_file* file, uint16_t mode, uint16_t most, Body&& body) {
  uint16_t groups = 0;
  mdfFileGroups(&groups, file);
  for (uint16_t n = 1; n <= groups && n <= most; ++n) {
    mdf_group* group = nullptr;
    if (mdfGrpOpen(&group, file, n, mode) != 0) break;
    std::vector<channelnode*> channels;
    uint16_t count = 0;
    mdfGrpChannels(&count, group);
    for (uint16_t c = 1; c <= count && c <= 32; ++c) {
      channelnode* ch = nullptr;
      if (mdfChnOpen(&ch, group, c) != 0) break;
      channels.push_back(ch);
    }
    body(group, channels);
    for (channelnode* ch : channels) mdfChnClose(ch);
    mdfGrpClose(group);
  }
}

// Every value of the current record, through every channel.
void read_values(const std::vector<channelnode*>& channels) {
  for (channelnode* ch : channels) {
    double value = 0;
    uint64_t raw = 0;
    uint8_t bytes[64];
    uint32_t length = sizeof bytes;
    mdfChnGetHex(&value, ch, 0);
    mdfChnGetHexInt(&raw, ch, 0);
    mdfChnGetPhy(&value, ch, 0);
    mdfChnGetData(bytes, &length, ch, 0);
  }
}

// The group's comment, trigger and times, every channel's texts and module record (every
// byte touched), and every record that opens.
void walk_group(mdf_group* group, const std::vector<channelnode*>& channels) {
  const char* comment = nullptr;
  uint16_t events = 0;
  const void* event_records = nullptr;
  mdfGrpGetText(group, &comment);
  if (mdfGrpGetTrigger(group, &comment, &events, &event_records) == 0 && events != 0) {
    std::vector<uint8_t> copy(24u * events);  // every counted event must be readable
    std::memcpy(copy.data(), event_records, copy.size());
  }
  // A time search in a group without a time channel is a sticky error that would end the walk.
  double time = 0;
  if (mdfGrpGetTime(&time, group) != MDF_NO_TIME_CHANNEL) {
    for (int mode : {0, 1, 4, 21}) mdfGrpSeekTime(group, 0.5, static_cast<uint16_t>(mode));
  }
  for (channelnode* ch : channels) {
    const char* text = nullptr;
    mdfChnGetText(ch, &text);
    mdfChnGetLongName(ch, &text);
    mdfChnGetDisplayName(ch, &text);
    for (uint16_t i = 0; i < 3; ++i) mdfChnGetFormVTabText(ch, i, &text);
    uint16_t type = 0;
    const ce_info* info = nullptr;
    if (mdfChnGetModuleInfo(ch, &type, &info) == 0 && info != nullptr) {
      volatile size_t sum = 0;
      for (uint8_t b : info->bytes) sum = sum + b;
    }
    // The typed getters hand out texts from the module record: each must be a whole string.
    const char* t[2] = {};
    const auto touch = [&] {
      for (const char*& s : t) {
        if (s != nullptr) static_cast<void>(std::strlen(s));
        s = nullptr;
      }
    };
    mdfChnGetDimInfo(ch, nullptr, nullptr, &t[0], &t[1]);
    touch();
    mdfChnGetAcanInfo(ch, nullptr, nullptr, &t[0], &t[1], nullptr, nullptr);
    touch();
    mdfChnGetCanInfo(ch, nullptr, nullptr, &t[0], &t[1], nullptr);
    touch();
    mdfChnGetSmbInfo(ch, &t[0], nullptr, nullptr);
    touch();
    mdfChnGetQcnInfo(ch, nullptr, nullptr, &t[0], &t[1]);
    touch();
  }
  // Absolute, then relative backwards from the last record, then far away.
  int32_t records = 0;
  for (; records < kMaxRecords && mdfGrpSeek(group, records, MDF_SEEK_ABS) == 0; ++records) {
    read_values(channels);
  }
  mdfGrpSeek(group, records - 1, MDF_SEEK_ABS);
  for (int32_t k = 1; k < records && mdfGrpSeek(group, -1, MDF_SEEK_REL) == 0; ++k) {
    read_values(channels);
  }
  // The array reads over the records reached and beyond, touched in full.
  const uint32_t n = static_cast<uint32_t>(records);
  std::vector<double> values(n + 2);
  std::vector<uint64_t> raws(n + 2);
  std::vector<uint8_t> bytes((n + 2) * 64);
  uint32_t done = 0;
  for (channelnode* ch : channels) {
    const int16_t st = mdfChnReadPhyArray(values.data(), &done, ch, 0, n + 2);
    if (done > n + 2) __builtin_trap();
    // Every value read as an array is the one read alone (NaNs of any payload count as equal;
    // text formulas may draw random numbers, which differ from one evaluation to the next).
    uint16_t rule = 0;
    const bool formula = mdfChnGetForm(ch, &rule, nullptr, nullptr) == 0 && rule == 10;
    for (uint32_t r = 0; r < done && (st == 0 || st == 1) && !formula; ++r) {
      double single = 0;
      if (mdfGrpSeek(group, static_cast<int32_t>(r), MDF_SEEK_ABS) != 0 ||
          mdfChnGetPhy(&single, ch, 0) != 0) {
        break;
      }
      const bool same = std::memcmp(&single, &values[r], sizeof single) == 0 ||
                        (single != single && values[r] != values[r]);
      if (!same) __builtin_trap();
    }
    mdfChnReadHexArray(values.data(), &done, ch, n / 2, 3);
    mdfChnReadHexIntArray(raws.data(), &done, ch, 0, n + 2);
    uint16_t bits = 0;
    if (mdfChnGetBits(ch, &bits) == 0 && bits <= 8 * 64) {
      mdfChnReadBytesArray(bytes.data(), 64, &done, ch, 1, n + 1);
    }
  }
  mdfGrpReadTimeArray(values.data(), &done, group, 0, n + 2);
  mdfGrpSeek(group, INT32_MAX, MDF_SEEK_ABS);
  mdfGrpSeek(group, INT32_MIN, MDF_SEEK_REL);
}

}  // namespace

void open_file(const uint8_t* data, size_t size) {
  write_scratch(data, size);
  mdf_file* file = nullptr;
  if (mdfFileOpen(&file, scratch_path().c_str(), MDF_OPEN_READ) == 0) {
    mdfFileIsSort(file);
    each_group(file, MDF_OPEN_READ, 16, walk_group);
    mdfFileClose(file);
  }
  // The dump opens the file on its own, from a closed library as well.
  mdfClose();
  mdfDump(scratch_path().c_str(), 0);
  mdfDump(scratch_path().c_str(), 1);
  mdfClose();
}

void modify_file(const uint8_t* data, size_t size) {
  write_scratch(data, size);
  // Per byte of the file as it was: what it must hold at the end, or -1 for anything (a block
  // rewritten in place).
  std::vector<int> expected(data, data + size);
  const auto rewritten = [&](const korvel::Extent& block) {  // in place at the close
    for (uint64_t i = block.start; i < block.end() && i < size; ++i) expected[i] = -1;
  };
  mdf_file* file = nullptr;
  if (mdfFileOpen(&file, scratch_path().c_str(), MDF_OPEN_MODIFY) == 0) {
    const std::vector<korvel::Node*> blocks = file->tree.nodes();  // all read at open
    rewritten({64, file->header->block_size()});
    each_group(
        file, MDF_OPEN_MODIFY, 8, [&](mdf_group* g, const std::vector<channelnode*>& channels) {
          rewritten({g->cg->read_position, g->cg->block_size()});
          const uint32_t ids = korvel::record_ids(g);
          // Values set through the channels and a byte changed directly, the record written.
          for (int32_t k = 0; k < kMaxRecords / 4 && mdfGrpSeek(g, k, MDF_SEEK_ABS) == 0; ++k) {
            for (channelnode* ch : channels) mdfChnSetHexInt(ch, 0x5A5A5A5A5A5A5A5Au + k);
            uint8_t* record = nullptr;
            const int32_t length = mdfGrpBuffer(&record, g) - 24;
            if (length > 0) record[k % length] ^= 0xFF;
            if (mdfGrpWrite(g) != 0) continue;
            const korvel::Extent at{static_cast<uint32_t>(g->record_position),
                                    static_cast<uint32_t>(length) + ids};
            for (const korvel::Node* b : blocks) {
              if (at.start < b->read_position + b->block_size() && b->read_position < at.end())
                __builtin_trap();
            }
            const uint8_t* bytes = record - (ids != 0 ? 1 : 0);  // from the leading identifier
            for (uint32_t i = 0; i < at.length && at.start + i < size; ++i) {
              expected[at.start + i] = bytes[i];
            }
          }
        });
    mdfFileClose(file);
  }
  mdfClose();
  // Every byte but those of the blocks rewritten in place is as expected (records written over
  // no block, as checked at each write), and a file refused for modifying is untouched.
  const std::vector<uint8_t> after = mdftest::load_file(scratch_path());
  if (after.size() < size) __builtin_trap();
  for (size_t i = 0; i < size; ++i) {
    if (expected[i] != -1 && after[i] != expected[i]) __builtin_trap();
  }
}

namespace {

// Whether the file opens read-only and, when `sorted`, holds one channel group per data group.
bool opens(const std::string& name, bool sorted = false) {
  restart();
  mdf_file* file = nullptr;
  if (mdfFileOpen(&file, name.c_str(), MDF_OPEN_READ) != 0) return false;
  const bool ok = !sorted || mdfFileIsSort(file) == 0;
  mdfFileClose(file);
  return ok;
}

bool sorted_status(int16_t status) {
  return status == 0 || status == MDF_CYCLES_INCREASED || status == MDF_CYCLES_DECREASED;
}

// The sort may change the source only by switching float data types 2 and 3 (the low byte
// of a CN block's type field); the upper byte of those fields stays 0.
void expect_only_float_repair(const std::vector<uint8_t>& before,
                              const std::vector<uint8_t>& after) {
  if (after.size() != before.size()) __builtin_trap();
  for (size_t i = 0; i < before.size(); ++i) {
    if (after[i] == before[i]) continue;
    const bool swap = (before[i] == 2 && after[i] == 3) || (before[i] == 3 && after[i] == 2);
    if (!swap || i + 1 >= before.size() || before[i + 1] != 0) __builtin_trap();
  }
}

}  // namespace

void sort_file(const uint8_t* data, size_t size) {
  const std::string& source = scratch_path();
  const std::string target = source + ".sorted";
  const std::vector<uint8_t> original(data, data + size);
  write_scratch(data, size);
  const bool readable = opens(source);
  // Every combination of the four flags, chosen by the length of the input.
  const size_t pick = size % 16;
  const uint32_t flags =
      ((pick & 1) != 0 ? MDF_SORT_RECOUNT : 0) | ((pick & 2) != 0 ? MDF_SORT_SHRINK : 0) |
      ((pick & 4) != 0 ? MDF_SORT_CHECK_TIME : 0) | ((pick & 8) != 0 ? MDF_SORT_FINALIZE : 0);
  restart();
  MdfSortParams params{sizeof params, source.c_str(), target.c_str(), nullptr,
                       nullptr,       nullptr,        nullptr,        flags};
  const int16_t status = mdfSortWithProgress(&params);
  const std::vector<uint8_t> repaired = mdftest::load_file(source);
  expect_only_float_repair(original, repaired);
  if (sorted_status(status) != std::filesystem::exists(target)) __builtin_trap();
  // A target sorted from a file that opens must open and be sorted.
  if (sorted_status(status) && readable && !opens(target, true)) __builtin_trap();
  std::filesystem::remove(target);
  // In place: the source is replaced by a sorted file, or stays as it was after the repair.
  restart();
  const int16_t again = mdfSort(source.c_str(), source.c_str());
  if (sorted_status(again)) {
    if (readable && !opens(source, true)) __builtin_trap();
  } else if (mdftest::load_file(source) != repaired) {
    __builtin_trap();
  }
  mdfClose();
}

void evaluate_formula(const uint8_t* data, size_t size) {
  for (double x : {0.0, 1.0, -2.5}) {
    std::vector<char> text(data, data + size);
    double result = 0;
    korvel::evaluate_formula(text, x, &result);
  }
}

}  // namespace korvel_fuzz
