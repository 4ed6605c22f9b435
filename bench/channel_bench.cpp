// Values per second through the channel functions, on a sorted group of 10^6 records with a
// time channel and seven channels of mixed integer and float types, each with a linear rule:
//  - writing the file: mdfChnWritePhy on the time channel, mdfChnSetPhy on the others;
//  - reading row by row: mdfGrpSeek by +1, then mdfChnGetPhy on every channel;
//  - reading one channel: mdfChnReadPhy from record 0 to the end.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "korvel.h"

namespace {

constexpr uint32_t kRecords = 1000000;

struct ChannelKind {
  const char* name;
  uint16_t bits;
  uint16_t value_type;
  double factor;  // linear rule: physical = raw * factor + offset
  double offset;
};

// Time first, then the seven value channels.
const ChannelKind kChannels[] = {
    {"time", 64, MDF_DT_DOUBLE, 0, 0},        {"u8", 8, MDF_DT_UINT, 0.5, -10.0},
    {"i16", 16, MDF_DT_INT, 0.01, 0.0},       {"u32", 32, MDF_DT_UINT_LE, 0.001, 5.0},
    {"i32_be", 32, MDF_DT_INT_BE, 0.25, 0.0}, {"u16_be", 16, MDF_DT_UINT_BE, 0.1, -100.0},
    {"f32", 32, MDF_DT_FLOAT, 2.0, 1.0},      {"f64", 64, MDF_DT_DOUBLE, 1.0, 0.5},
};
constexpr int kChannelCount = static_cast<int>(sizeof kChannels / sizeof kChannels[0]);

std::string bench_file() {
  return (std::filesystem::temp_directory_path() / "korvel_channel_bench.mdf").string();
}

void fail(const char* call, int16_t status) {
  std::fprintf(stderr, "%s failed: %d\n", call, status);
  std::abort();
}

void check(int16_t status, const char* call) {
  if (status != 0) fail(call, status);
}

void ensure_library() {
  static const bool open = [] {
    check(mdfOpen("KBENCH"), "mdfOpen");
    return true;
  }();
  (void)open;
}

// The physical value of channel c in record r: values that the raw types can hold.
double physical(int c, uint32_t r) {
  const double x = static_cast<double>(r % 200);
  return kChannels[c].offset + kChannels[c].factor * x;
}

// Writes the benchmark file; returns the number of values written.
uint64_t write_file(const std::string& name) {
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  check(mdfFileOpen(&file, name.c_str(), MDF_OPEN_CREATE), "mdfFileOpen");
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), "mdfGrpOpen");
  channelnode* ch[kChannelCount] = {};
  for (int c = 0; c < kChannelCount; ++c) {
    const auto& k = kChannels[c];
    check(
        mdfChnCreate(&ch[c], g, c == 0 ? MDF_CHN_TIME : MDF_CHN_DATA, k.bits, k.value_type, k.name),
        "mdfChnCreate");
    if (c != 0) check(mdfChnSetFormLin(ch[c], "u", k.offset, k.factor), "mdfChnSetFormLin");
  }
  for (uint32_t r = 0; r < kRecords; ++r) {
    check(mdfChnWritePhy(ch[0], r * 0.001), "mdfChnWritePhy");
    for (int c = 1; c < kChannelCount; ++c) check(mdfChnSetPhy(ch[c], physical(c, r)), "SetPhy");
  }
  check(mdfGrpClose(g), "mdfGrpClose");
  check(mdfFileClose(file), "mdfFileClose");
  return static_cast<uint64_t>(kRecords) * kChannelCount;
}

// The file the read benchmarks use, written once.
const std::string& read_file() {
  static const std::string name = [] {
    ensure_library();
    const std::string n = bench_file();
    write_file(n);
    return n;
  }();
  return name;
}

void BM_WriteFile(benchmark::State& state) {
  ensure_library();
  const std::string name = bench_file() + ".w";
  uint64_t values = 0;
  for (auto _ : state) values += write_file(name);
  state.SetItemsProcessed(static_cast<int64_t>(values));
  std::filesystem::remove(name);
}
BENCHMARK(BM_WriteFile)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ReadRowByRow(benchmark::State& state) {
  const std::string& name = read_file();
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  check(mdfFileOpen(&file, name.c_str(), MDF_OPEN_READ), "mdfFileOpen");
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_READ), "mdfGrpOpen");
  channelnode* ch[kChannelCount] = {};
  for (int c = 0; c < kChannelCount; ++c) {
    check(mdfChnOpen(&ch[c], g, static_cast<uint16_t>(c + 1)), "mdfChnOpen");
  }
  uint64_t values = 0;
  double sum = 0;
  for (auto _ : state) {
    check(mdfGrpSeek(g, 0, MDF_SEEK_ABS), "mdfGrpSeek");
    for (uint32_t r = 0; r < kRecords; ++r) {
      if (r != 0) check(mdfGrpSeek(g, 1, MDF_SEEK_REL), "mdfGrpSeek");
      for (int c = 0; c < kChannelCount; ++c) {
        double v = 0;
        check(mdfChnGetPhy(&v, ch[c], 0), "mdfChnGetPhy");
        sum += v;
      }
    }
    values += static_cast<uint64_t>(kRecords) * kChannelCount;
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(static_cast<int64_t>(values));
  check(mdfFileClose(file), "mdfFileClose");
}
BENCHMARK(BM_ReadRowByRow)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_ReadOneChannel(benchmark::State& state) {
  const std::string& name = read_file();
  const auto c = static_cast<uint16_t>(state.range(0));
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  check(mdfFileOpen(&file, name.c_str(), MDF_OPEN_READ), "mdfFileOpen");
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_READ), "mdfGrpOpen");
  uint64_t values = 0;
  double sum = 0;
  for (auto _ : state) {
    check(mdfGrpSeek(g, 0, MDF_SEEK_ABS), "mdfGrpSeek");
    channelnode* ch = nullptr;
    check(mdfChnOpen(&ch, g, static_cast<uint16_t>(c + 1)), "mdfChnOpen");
    for (uint32_t r = 0; r < kRecords; ++r) {
      double v = 0;
      check(mdfChnReadPhy(&v, ch), "mdfChnReadPhy");
      sum += v;
    }
    check(mdfChnClose(ch), "mdfChnClose");
    values += kRecords;
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(static_cast<int64_t>(values));
  check(mdfFileClose(file), "mdfFileClose");
}
// The 16-bit Motorola channel with its linear rule, and the time channel.
BENCHMARK(BM_ReadOneChannel)->Arg(5)->Arg(0)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
