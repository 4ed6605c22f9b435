#include "fuzz/fuzz_targets.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "convert/formula.h"
#include "korvel.h"

namespace korvel_fuzz {

namespace {
// Reads a channel's module record through the generic and the typed getters, touching every
// byte and text handed out.
void read_module_info(channelnode* ch) {
  uint16_t type = 0;
  const ce_info* info = nullptr;
  if (mdfChnGetModuleInfo(ch, &type, &info) != 0 || info == nullptr) return;
  volatile size_t sum = 0;
  for (uint8_t b : info->bytes) sum = sum + b;
  const char* t[2] = {};
  auto touch = [&] {
    for (const char*& s : t) {
      if (s != nullptr) sum = sum + std::strlen(s);
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

// One file per process, so that replays running side by side never share it.
const std::string& scratch_path() {
  static const std::string path =
      (std::filesystem::temp_directory_path() /
       ("korvel_fuzz_" + std::to_string(std::random_device{}()) + ".mdf"))
          .string();
  return path;
}
}  // namespace

void open_file(const uint8_t* data, size_t size) {
  const std::string& path = scratch_path();
  if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
    if (size != 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  mdfClose();
  mdfOpen(nullptr);
  mdf_file* file = nullptr;
  if (mdfFileOpen(&file, path.c_str(), MDF_OPEN_READ) == 0) {
    uint16_t groups = 0;
    mdfFileGroups(&groups, file);
    mdfFileIsSort(file);
    for (uint16_t n = 1; n <= groups && n <= 16; ++n) {
      mdf_group* group = nullptr;
      if (mdfGrpOpen(&group, file, n, MDF_OPEN_READ) != 0) break;
      uint16_t channels = 0;
      mdfGrpChannels(&channels, group);
      const char* comment = nullptr;
      uint16_t events = 0;
      const void* event_records = nullptr;
      mdfGrpGetText(group, &comment);
      if (mdfGrpGetTrigger(group, &comment, &events, &event_records) == 0 && events != 0) {
        std::vector<uint8_t> copy(24u * events);  // every counted event must be readable
        std::memcpy(copy.data(), event_records, copy.size());
      }
      double time = 0;
      if (mdfGrpGetTime(&time, group) != MDF_NO_TIME_CHANNEL) {
        for (int mode : {0, 1, 4, 21}) mdfGrpSeekTime(group, 0.5, static_cast<uint16_t>(mode));
      }
      for (uint16_t c = 1; c <= channels && c <= 32; ++c) {
        channelnode* ch = nullptr;
        if (mdfChnOpen(&ch, group, c) != 0) break;
        const char* text = nullptr;
        mdfChnGetText(ch, &text);
        mdfChnGetLongName(ch, &text);
        mdfChnGetDisplayName(ch, &text);
        for (int k = 0; k < 4; ++k) {
          double value = 0;
          uint64_t raw = 0;
          uint8_t bytes[64];
          uint32_t length = sizeof bytes;
          mdfChnGetHex(&value, ch, 0);
          mdfChnGetHexInt(&raw, ch, 0);
          mdfChnGetData(bytes, &length, ch, 0);
          if (mdfChnReadPhy(&value, ch) != 0) break;
        }
        for (uint16_t i = 0; i < 3; ++i) mdfChnGetFormVTabText(ch, i, &text);
        read_module_info(ch);
        mdfChnClose(ch);
      }
      mdfGrpClose(group);
    }
    mdfFileClose(file);
  }
  // The dump opens the file on its own, from a closed library as well.
  mdfClose();
  mdfDump(path.c_str(), 0);
  mdfDump(path.c_str(), 1);
  mdfClose();
}

void evaluate_formula(const uint8_t* data, size_t size) {
  std::vector<char> text(data, data + size);
  for (double x : {0.0, 1.0, -2.5}) {
    std::vector<char> copy = text;
    double result = 0;
    korvel::evaluate_formula(copy, x, &result);
  }
}

}  // namespace korvel_fuzz
