// Seeking by time (mdfGrpSeekTime, mode nearest) to random times in a sorted group of 10^5
// and of 10^7 records. Besides seeks per second it reports the records each seek reads
// ("reads/seek", counted by the library's time search): a binary search reads about
// log2(records) of them, so the figure grows by about log2(100) = 6.6 from the small group
// to the large one, not by a factor of 100.
//
// The files are written through the library (a double time channel, record k at time
// k ms) into the temporary directory once and removed at exit.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>

#include "group/group.h"
#include "korvel.h"

namespace {

constexpr double kStep = 0.001;  // seconds between records

void check(int16_t status, const char* call) {
  if (status == 0) return;
  std::fprintf(stderr, "%s failed: %d\n", call, status);
  std::abort();
}

// A closed created group declares one record less than it was given: append one more.
void write_file(const std::string& name, uint32_t records) {
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  channelnode* time = nullptr;
  check(mdfFileOpen(&file, name.c_str(), MDF_OPEN_CREATE), "mdfFileOpen");
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), "mdfGrpOpen");
  check(mdfChnCreate(&time, g, MDF_CHN_TIME, 64, MDF_DT_DOUBLE, "time"), "mdfChnCreate");
  for (uint32_t k = 0; k <= records; ++k) {
    check(mdfGrpSetTime(g, k * kStep), "mdfGrpSetTime");
    check(mdfGrpWriteAppend(g), "mdfGrpWriteAppend");
  }
  check(mdfFileClose(file), "mdfFileClose");
}

// The benchmark files, written once per size and removed at exit.
struct Files {
  std::map<uint32_t, std::string> by_size;
  ~Files() {
    for (const auto& [records, name] : by_size) std::filesystem::remove(name);
  }
  const std::string& get(uint32_t records) {
    auto it = by_size.find(records);
    if (it != by_size.end()) return it->second;
    const std::string name = (std::filesystem::temp_directory_path() /
                              ("korvel_time_seek_" + std::to_string(records) + ".mdf"))
                                 .string();
    write_file(name, records);
    return by_size.emplace(records, name).first->second;
  }
};

void BM_SeekTime(benchmark::State& state) {
  static const bool open = (check(mdfOpen("KBENCH"), "mdfOpen"), true);
  (void)open;
  static Files files;
  const auto records = static_cast<uint32_t>(state.range(0));
  const std::string& name = files.get(records);
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  check(mdfFileOpen(&file, name.c_str(), MDF_OPEN_READ), "mdfFileOpen");
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_READ), "mdfGrpOpen");
  uint32_t count = 0;
  check(mdfGrpRecords(&count, g), "mdfGrpRecords");
  if (count != records) state.SkipWithError("unexpected record count");
  std::mt19937_64 random(42);
  std::uniform_real_distribution<double> target(0.0, records * kStep);
  const uint64_t probes_before = korvel::time_search_probes();
  uint64_t seeks = 0;
  for (auto _ : state) {
    check(mdfGrpSeekTime(g, target(random), MDF_SEEK_TIME_NEAREST), "mdfGrpSeekTime");
    ++seeks;
  }
  state.SetItemsProcessed(static_cast<int64_t>(seeks));
  state.counters["reads/seek"] = static_cast<double>(korvel::time_search_probes() - probes_before) /
                                 static_cast<double>(seeks);
  check(mdfFileClose(file), "mdfFileClose");
}
BENCHMARK(BM_SeekTime)->Arg(100000)->Arg(10000000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
