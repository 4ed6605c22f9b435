// Writing records: 10^6 records of 20 bytes (a double time channel, a 32-bit and a 64-bit
// channel) plus a 1-byte identifier, through
//  - mdfGrpWriteAppend into a group created in a new file (mdfGrpSetTime, mdfChnSetPhy);
//  - mdfGrpWrite over every record of that group in a file opened for modifying
//    (mdfGrpSeek +1, mdfChnSetPhy).
// Besides the time it reports the file calls the library made per record ("calls/record",
// counted by its platform layer): without a write buffer every record is at least one write.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "korvel.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kRecords = 1000000;

void check(int16_t status, const char* call) {
  if (status == 0) return;
  std::fprintf(stderr, "%s failed: %d\n", call, status);
  std::abort();
}

void ensure_library() {
  static const bool open = [] {
    check(mdfOpen("KBENCH"), "mdfOpen");
    return true;
  }();
  (void)open;
}

std::string bench_file() {
  return (std::filesystem::temp_directory_path() / "korvel_write_bench.mdf").string();
}

void append_file(const std::string& name) {
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  channelnode* ch[3] = {};
  check(mdfFileOpen(&file, name.c_str(), MDF_OPEN_CREATE), "mdfFileOpen");
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), "mdfGrpOpen");
  check(mdfChnCreate(&ch[0], g, MDF_CHN_TIME, 64, MDF_DT_DOUBLE, "time"), "mdfChnCreate");
  check(mdfChnCreate(&ch[1], g, MDF_CHN_DATA, 32, MDF_DT_UINT, "counter"), "mdfChnCreate");
  check(mdfChnCreate(&ch[2], g, MDF_CHN_DATA, 64, MDF_DT_DOUBLE, "value"), "mdfChnCreate");
  for (uint32_t r = 0; r < kRecords; ++r) {
    check(mdfGrpSetTime(g, r * 0.001), "mdfGrpSetTime");
    check(mdfChnSetPhy(ch[1], static_cast<double>(r)), "mdfChnSetPhy");
    check(mdfChnSetPhy(ch[2], r * 0.5), "mdfChnSetPhy");
    check(mdfGrpWriteAppend(g), "mdfGrpWriteAppend");
  }
  check(mdfFileClose(file), "mdfFileClose");
}

void rewrite_file(const std::string& name) {
  mdf_file* file = nullptr;
  mdf_group* g = nullptr;
  channelnode* value = nullptr;
  check(mdfFileOpen(&file, name.c_str(), MDF_OPEN_MODIFY), "mdfFileOpen");
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_MODIFY), "mdfGrpOpen");
  check(mdfChnOpenName(&value, g, "value"), "mdfChnOpenName");
  uint32_t records = 0;
  check(mdfGrpRecords(&records, g), "mdfGrpRecords");
  for (uint32_t r = 0; r < records; ++r) {
    if (r != 0) check(mdfGrpSeek(g, 1, MDF_SEEK_REL), "mdfGrpSeek");
    check(mdfChnSetPhy(value, r * 0.25), "mdfChnSetPhy");
    check(mdfGrpWrite(g), "mdfGrpWrite");
  }
  check(mdfFileClose(file), "mdfFileClose");
}

void report(benchmark::State& state, uint64_t records, uint64_t calls) {
  state.SetItemsProcessed(static_cast<int64_t>(records));
  state.SetBytesProcessed(static_cast<int64_t>(records * 21));
  state.counters["calls/record"] =
      benchmark::Counter(static_cast<double>(calls) / static_cast<double>(records));
}

void BM_AppendRecords(benchmark::State& state) {
  ensure_library();
  const std::string name = bench_file();
  uint64_t calls = 0;
  for (auto _ : state) {
    const uint64_t before = korvel::platform::file_call_count();
    append_file(name);
    calls += korvel::platform::file_call_count() - before;
  }
  report(state, state.iterations() * uint64_t{kRecords}, calls);
  std::filesystem::remove(name);
}
BENCHMARK(BM_AppendRecords)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_RewriteRecords(benchmark::State& state) {
  ensure_library();
  const std::string name = bench_file();
  append_file(name);
  uint64_t calls = 0;
  for (auto _ : state) {
    const uint64_t before = korvel::platform::file_call_count();
    rewrite_file(name);
    calls += korvel::platform::file_call_count() - before;
  }
  report(state, state.iterations() * uint64_t{kRecords - 1}, calls);
  std::filesystem::remove(name);
}
BENCHMARK(BM_RewriteRecords)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
