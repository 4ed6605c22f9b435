// Sorting a large unsorted file into a named target, against copying the same file.
//
// The file (about 1 GiB, made once) holds one data group with six channel groups of 8, 12,
// 24, 64, 100 and 200 bytes per record, 1-byte record ids, records interleaved in a random
// order (each record's group drawn with equal chance). Its blocks are made by the test-side
// file builder; the records are streamed behind them.
//
// Modes:
//   bench_sort [benchmark flags]   time the copy (a read/write loop with 1 MiB buffers) and
//                                  mdfSort into a named target, same file, same run
//   bench_sort --peak-memory       in fresh processes, the peak resident set size of a copy
//                                  and of a sort
//   both take --size-mib=N (default 1024) and --keep-file=PATH.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "korvel.h"
#include "support/mdf_builder.h"

namespace {

namespace fs = std::filesystem;

constexpr uint16_t kSizes[] = {8, 12, 24, 64, 100, 200};
constexpr int kGroups = 6;

std::string g_path;
bool g_keep = false;
uint64_t g_bytes = 1024ull << 20;

void build_file(const std::string& path) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(1);
  for (int g = 0; g < kGroups; ++g) {
    auto& cg = dg.add_channel_group(kSizes[g], static_cast<uint16_t>(g + 1));
    cg.record_count = 0;
    cg.add_channel("t", 0, 64, 3, 1);
    for (uint32_t bit = 64; bit + 32 <= kSizes[g] * 8u; bit += 32) {
      char name[16];
      std::snprintf(name, sizeof name, "v%u", bit);
      cg.add_channel(name, static_cast<uint16_t>(bit), 32, 0);
    }
  }
  mdftest::Built built = mdftest::build(f);
  const uint32_t data = built.size();
  built.patch_u32(built.data_groups[0].offset + mdftest::off::dg_data, data);
  std::FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) std::exit(1);
  std::fwrite(built.bytes.data(), 1, built.bytes.size(), out);
  std::mt19937_64 random(42);
  uint32_t counts[kGroups] = {};
  std::vector<uint8_t> chunk;
  chunk.reserve(4u << 20);
  uint64_t written = 0;
  while (written < g_bytes) {
    chunk.clear();
    while (chunk.size() + 256 < chunk.capacity()) {
      const int g = static_cast<int>(random() % kGroups);
      chunk.push_back(static_cast<uint8_t>(g + 1));
      const double time = counts[g]++ * 0.001;
      const std::size_t at = chunk.size();
      chunk.resize(at + kSizes[g], static_cast<uint8_t>(counts[g]));
      std::memcpy(chunk.data() + at, &time, sizeof time);
    }
    std::fwrite(chunk.data(), 1, chunk.size(), out);
    written += chunk.size();
  }
  std::fclose(out);
  // The counts, now known, go into the channel-group blocks.
  std::FILE* patch = std::fopen(path.c_str(), "r+b");
  for (int g = 0; g < kGroups; ++g) {
    std::fseek(patch, built.data_groups[0].channel_groups[g].offset + mdftest::off::cg_record_count,
               SEEK_SET);
    std::fwrite(&counts[g], 4, 1, patch);
  }
  std::fclose(patch);
}

void copy_file(const std::string& from, const std::string& to) {
  const int in = ::open(from.c_str(), O_RDONLY);
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char> buffer(1u << 20);
  for (;;) {
    const ssize_t n = ::read(in, buffer.data(), buffer.size());
    if (n <= 0) break;
    if (::write(out, buffer.data(), static_cast<std::size_t>(n)) != n) break;
  }
  ::fsync(out);
  ::close(in);
  ::close(out);
}

int sort_file(const std::string& from, const std::string& to) {
  mdfOpen(nullptr);
  const int status = mdfSort(from.c_str(), to.c_str());
  const int fd = ::open(to.c_str(), O_WRONLY);
  ::fsync(fd);
  ::close(fd);
  mdfClose();
  return status;
}

void BM_Copy(benchmark::State& state) {
  const std::string to = g_path + ".copy";
  for (auto _ : state) copy_file(g_path, to);
  fs::remove(to);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fs::file_size(g_path)));
}

void BM_Sort(benchmark::State& state) {
  const std::string to = g_path + ".sorted";
  for (auto _ : state) {
    if (sort_file(g_path, to) != 0) state.SkipWithError("sort failed");
  }
  fs::remove(to);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fs::file_size(g_path)));
}

BENCHMARK(BM_Copy)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Sort)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// Peak resident set size of `work` in a child process, in KiB.
template <class Work>
long peak_kib(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    std::_Exit(0);
  }
  int status = 0;
  struct rusage usage {};
  wait4(child, &status, 0, &usage);
  return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char** argv) {
  bool peak = false;
  std::vector<char*> rest{argv[0]};
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--peak-memory") {
      peak = true;
    } else if (arg.starts_with("--size-mib=")) {
      g_bytes = std::stoull(std::string(arg.substr(11))) << 20;
    } else if (arg.starts_with("--keep-file=")) {
      g_path = std::string(arg.substr(12));
      g_keep = true;
    } else {
      rest.push_back(argv[i]);
    }
  }
  if (g_path.empty()) g_path = (fs::temp_directory_path() / "korvel_bench_sort.mdf").string();
  if (!g_keep || !fs::exists(g_path)) build_file(g_path);
  std::printf("file: %s, %.1f MiB\n", g_path.c_str(), double(fs::file_size(g_path)) / 1048576.0);
  std::fflush(stdout);
  if (peak) {
    const long copy = peak_kib([] { copy_file(g_path, g_path + ".copy"); });
    const long sort = peak_kib([] { std::_Exit(sort_file(g_path, g_path + ".sorted")); });
    std::printf("peak resident set: copy %ld KiB, sort %ld KiB\n", copy, sort);
    fs::remove(g_path + ".copy");
    fs::remove(g_path + ".sorted");
  } else {
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
  }
  if (!g_keep) fs::remove(g_path);
  return 0;
}
