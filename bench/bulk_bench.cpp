// Every value of a large file, read five ways in one run, on a file of 183 sorted channel
// groups of 200 channels (a double time channel and mixed integer and float types, each with
// a linear rule) and 1,800 records each, about 250 MB, made once in the temporary directory:
//  - open: mdfFileOpen and mdfFileClose;
//  - arrays: every channel of every group through mdfChnReadPhyArray;
//  - per value: every channel of every group through mdfChnReadPhy;
//  - row by row: mdfGrpSeek by +1, then mdfChnGetPhy on every channel;
//  - file bytes: the file read with fread in pieces of 1 MiB, the floor for any reader.
// Values per second are the "values" counter (rates over real time).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"

namespace {

constexpr uint16_t kGroups = 183;
constexpr uint16_t kChannels = 200;  // the time channel included
constexpr uint32_t kRecords = 1800;
constexpr uintmax_t kFileSize = 264533910;  // as the builder lays the file out

struct Kind {
  uint16_t bits;
  uint16_t data_type;
};
const Kind kKinds[] = {{8, MDF_DT_UINT},  {16, MDF_DT_INT},    {32, MDF_DT_UINT},
                       {32, MDF_DT_INT},  {32, MDF_DT_FLOAT},  {64, MDF_DT_DOUBLE}};

std::string bench_file() {
  return (std::filesystem::temp_directory_path() / "korvel_bulk_bench.mdf").string();
}

void check(int16_t status, const char* call) {
  if (status != 0 && status != MDF_END_OF_GROUP) {
    std::fprintf(stderr, "%s failed: %d\n", call, status);
    std::abort();
  }
}

// Makes the file unless one of the expected size is there already.
void ensure_file() {
  static const bool made = [] {
    check(mdfOpen("KBENCH"), "mdfOpen");
    std::error_code ec;
    if (std::filesystem::file_size(bench_file(), ec) == kFileSize) return true;
    mdftest::FileModel f;
    f.id.version = 310;
    f.id.format_id = "3.10    ";
    f.header.block_size = 164;
    for (uint16_t g = 0; g < kGroups; ++g) {
      auto& cg = f.add_data_group().add_channel_group(0);
      uint16_t bit = 0;
      auto& t = cg.add_channel("t", 0, 64, MDF_DT_DOUBLE, 1);
      t.conversion = mdftest::linear(0.0, 1.0, "s");
      bit = 64;
      for (uint16_t c = 1; c < kChannels; ++c) {
        const Kind& k = kKinds[(c + g) % 6];
        auto& ch = cg.add_channel("c" + std::to_string(c), bit, k.bits, k.data_type);
        ch.conversion = mdftest::linear(0.5 * c, 1.0 + 0.001 * c);
        bit = static_cast<uint16_t>(bit + k.bits);
      }
      cg.record_size = static_cast<uint16_t>(bit / 8);
      for (uint32_t r = 0; r < kRecords; ++r) {
        auto& rec = cg.add_record();
        for (size_t i = 0; i < rec.size(); ++i) rec[i] = static_cast<uint8_t>(r * 7 + i * 13);
        mdftest::put_f64(rec, 0, r * 0.01);
      }
    }
    mdftest::write_file(bench_file(), mdftest::build(f).bytes);
    return true;
  }();
  (void)made;
}

mdf_file* open_file() {
  mdf_file* file = nullptr;
  check(mdfFileOpen(&file, bench_file().c_str(), MDF_OPEN_READ), "mdfFileOpen");
  return file;
}

// Runs `per_group(group, channels)` over every group of the file; returns the values read.
template <class PerGroup>
uint64_t each_group(PerGroup per_group) {
  mdf_file* file = open_file();
  uint16_t groups = 0;
  check(mdfFileGroups(&groups, file), "mdfFileGroups");
  uint64_t values = 0;
  for (uint16_t n = 1; n <= groups; ++n) {
    mdf_group* g = nullptr;
    check(mdfGrpOpen(&g, file, n, 0), "mdfGrpOpen");
    uint16_t count = 0;
    check(mdfGrpChannels(&count, g), "mdfGrpChannels");
    std::vector<channelnode*> channels(count);
    for (uint16_t i = 0; i < count; ++i) check(mdfChnOpen(&channels[i], g, i + 1), "mdfChnOpen");
    values += per_group(g, channels);
    check(mdfGrpClose(g), "mdfGrpClose");
  }
  check(mdfFileClose(file), "mdfFileClose");
  return values;
}

void report(benchmark::State& state, uint64_t values) {
  state.counters["values"] = benchmark::Counter(static_cast<double>(values),
                                                benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Open(benchmark::State& state) {
  ensure_file();
  for (auto _ : state) check(mdfFileClose(open_file()), "mdfFileClose");
}
BENCHMARK(BM_Open)->Unit(benchmark::kMillisecond)->Iterations(10)->UseRealTime();

// Every value of every channel of the file, read group by group by `per_group(group, channels,
// sum)`, which adds the values it reads to `sum` and returns how many it read.
template <class PerGroup>
void all_values(benchmark::State& state, PerGroup per_group) {
  ensure_file();
  uint64_t n = 0;
  double sum = 0;
  for (auto _ : state) {
    n = each_group([&](mdf_group* g, const std::vector<channelnode*>& channels) {
      return per_group(g, channels, sum);
    });
  }
  benchmark::DoNotOptimize(sum);
  report(state, n);
}

void BM_AllValuesArrays(benchmark::State& state) {
  std::vector<double> values(kRecords);
  all_values(state, [&](mdf_group* g, const std::vector<channelnode*>& channels, double& sum) {
    uint32_t records = 0;
    check(mdfGrpRecords(&records, g), "mdfGrpRecords");
    values.resize(records);
    uint64_t read = 0;
    for (channelnode* ch : channels) {
      uint32_t done = 0;
      check(mdfChnReadPhyArray(values.data(), &done, ch, 0, records), "mdfChnReadPhyArray");
      sum += values[done / 2];
      read += done;
    }
    return read;
  });
}
BENCHMARK(BM_AllValuesArrays)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_AllValuesReadPhy(benchmark::State& state) {
  all_values(state, [](mdf_group* g, const std::vector<channelnode*>& channels, double& sum) {
    uint64_t read = 0;
    for (channelnode* ch : channels) {
      check(mdfGrpSeek(g, 0, MDF_SEEK_ABS), "mdfGrpSeek");
      double v = 0;
      while (mdfChnReadPhy(&v, ch) == 0) {
        sum += v;
        ++read;
      }
    }
    return read;
  });
}
BENCHMARK(BM_AllValuesReadPhy)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_AllValuesRowByRow(benchmark::State& state) {
  all_values(state, [](mdf_group* g, const std::vector<channelnode*>& channels, double& sum) {
    uint64_t read = 0;
    int16_t st = mdfGrpSeek(g, 0, MDF_SEEK_ABS);
    while (st == 0) {
      for (channelnode* ch : channels) {
        double v = 0;
        check(mdfChnGetPhy(&v, ch, 0), "mdfChnGetPhy");
        sum += v;
      }
      read += channels.size();
      st = mdfGrpSeek(g, 1, MDF_SEEK_REL);
    }
    return read;
  });
}
BENCHMARK(BM_AllValuesRowByRow)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_FileBytes(benchmark::State& state) {
  ensure_file();
  std::vector<char> buffer(1 << 20);
  uint64_t total = 0;
  for (auto _ : state) {
    std::FILE* f = std::fopen(bench_file().c_str(), "rb");
    if (f == nullptr) std::abort();
    total = 0;
    size_t got = 0;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), f)) != 0) total += got;
    std::fclose(f);
  }
  state.counters["bytes"] = benchmark::Counter(static_cast<double>(total),
                                               benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_FileBytes)->Unit(benchmark::kMillisecond)->Iterations(10)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
