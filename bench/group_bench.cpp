// Sequential record reading through the group API: a sorted group of 10^6 records of 32
// bytes, and an unsorted data group holding 4 channel groups whose records interleave.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "korvel.h"
#include "support/mdf_builder.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kRecords = 1000000;
constexpr uint16_t kRecordSize = 32;

std::string temp_path(const char* name) {
  return (fs::temp_directory_path() / name).string();
}

const std::string& sorted_file() {
  static const std::string path = [] {
    mdftest::FileModel f;
    auto& dg = f.add_data_group();
    auto& cg = dg.add_channel_group(kRecordSize);
    cg.add_channel("value", 0, 32, 0);
    cg.record_count = kRecords;
    std::vector<uint8_t> data(static_cast<size_t>(kRecords) * kRecordSize);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    dg.raw_data = std::move(data);
    const auto p = temp_path("korvel_bench_sorted.mdf");
    mdftest::write_file(p, mdftest::build(f).bytes);
    return p;
  }();
  return path;
}

const std::string& unsorted_file() {
  static const std::string path = [] {
    mdftest::FileModel f;
    auto& dg = f.add_data_group(1);
    constexpr int kGroups = 4;
    for (int c = 0; c < kGroups; ++c) {
      auto& cg = dg.add_channel_group(kRecordSize, static_cast<uint16_t>(c + 1));
      cg.add_channel("value", 0, 32, 0);
      cg.record_count = kRecords / kGroups;
    }
    std::vector<uint8_t> data;
    data.reserve(static_cast<size_t>(kRecords) * (kRecordSize + 1));
    for (uint32_t k = 0; k < kRecords; ++k) {
      data.push_back(static_cast<uint8_t>(k % kGroups + 1));
      for (uint16_t i = 0; i < kRecordSize; ++i) data.push_back(static_cast<uint8_t>(k + i));
    }
    dg.raw_data = std::move(data);
    const auto p = temp_path("korvel_bench_unsorted.mdf");
    mdftest::write_file(p, mdftest::build(f).bytes);
    return p;
  }();
  return path;
}

// Reads every record of group `number` with relative seeks of +1; returns the records read.
uint32_t read_group(mdf_file* file, uint16_t number) {
  mdf_group* group = nullptr;
  if (mdfGrpOpen(&group, file, number, MDF_OPEN_READ) != 0) return 0;
  uint8_t* data = nullptr;
  mdfGrpBuffer(&data, group);
  uint32_t read = 1;
  uint64_t checksum = data[0];
  while (mdfGrpSeek(group, 1, MDF_SEEK_REL) == 0) {
    checksum += data[0];
    ++read;
  }
  benchmark::DoNotOptimize(checksum);
  mdfGrpClose(group);
  return read;
}

void BM_ReadSortedGroup(benchmark::State& state) {
  const auto& path = sorted_file();
  mdfOpen(nullptr);
  mdf_file* file = nullptr;
  if (mdfFileOpen(&file, path.c_str(), MDF_OPEN_READ) != 0) {
    state.SkipWithError("cannot open the sorted file");
    return;
  }
  uint64_t records = 0;
  for (auto _ : state) records += read_group(file, 1);
  state.SetItemsProcessed(static_cast<int64_t>(records));
  mdfClose();
}
BENCHMARK(BM_ReadSortedGroup)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReadUnsortedGroups(benchmark::State& state) {
  const auto& path = unsorted_file();
  mdfOpen(nullptr);
  mdf_file* file = nullptr;
  if (mdfFileOpen(&file, path.c_str(), MDF_OPEN_READ) != 0) {
    state.SkipWithError("cannot open the unsorted file");
    return;
  }
  uint64_t records = 0;
  for (auto _ : state) {
    for (uint16_t g = 1; g <= 4; ++g) records += read_group(file, g);
  }
  // Every group's pass scans the whole data section; the figure counts the records read.
  state.SetItemsProcessed(static_cast<int64_t>(records));
  mdfClose();
}
BENCHMARK(BM_ReadUnsortedGroups)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
