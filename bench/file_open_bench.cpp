// Opening and closing a large file for reading: time per open + close, and the memory of
// one open.
//
// The file holds 50,000 channels in 500 channel groups of 100 channels, one channel group per
// data group. Every channel has its own linear conversion block and its own comment text
// block; the first channel of each group is its time channel. The groups hold no records, so
// the file consists of blocks only and the ratio memory / file size is that of the block tree
// alone (records are not read at open). It is made once with the test-side file builder.
//
// Modes:
//   bench_file_open [benchmark flags]   time mdfFileOpen (mode 0, and mode 1) + mdfFileClose
//   bench_file_open --peak-memory       in a fresh process, the growth of the peak resident
//                                       set size (getrusage ru_maxrss) and of the heap in use
//                                       (mallinfo2) over the first open, and the file's size
//   both take --keep-file=PATH to write the file to PATH and leave it there.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "korvel.h"
#include "support/mdf_builder.h"

namespace {

namespace fs = std::filesystem;

constexpr int kGroups = 500;
constexpr int kChannelsPerGroup = 100;
constexpr uint32_t kChannels = static_cast<uint32_t>(kGroups) * kChannelsPerGroup;

std::string g_path;   // the file every mode opens
bool g_keep = false;  // leave the file behind at exit

void build_file(const std::string& path) {
  mdftest::FileModel f;
  f.header.comment = "Benchmark file: 500 channel groups of 100 channels";
  uint32_t number = 0;
  for (int g = 0; g < kGroups; ++g) {
    auto& dg = f.add_data_group();
    // A 64-bit time stamp, then 99 16-bit values.
    auto& cg = dg.add_channel_group(static_cast<uint16_t>(8 + 2 * (kChannelsPerGroup - 1)));
    cg.comment = "Channel group " + std::to_string(g + 1);
    for (int c = 0; c < kChannelsPerGroup; ++c) {
      ++number;
      const bool time = c == 0;
      const std::string name = time ? "time_" + std::to_string(g + 1)
                                    : "sig_" + std::to_string(g + 1) + "_" + std::to_string(c);
      const auto first_bit = static_cast<uint16_t>(time ? 0 : 64 + 16 * (c - 1));
      auto& cn = cg.add_channel(name, first_bit, time ? 64 : 16, time ? 3 : 0, time ? 1 : 0);
      cn.conversion =
          time ? mdftest::linear(0.0, 0.001, "s") : mdftest::linear(-1.0 * c, 0.01 * (c + 1), "V");
      cn.comment =
          "Comment of channel " + std::to_string(number) + " in group " + std::to_string(g + 1);
    }
  }
  const mdftest::Built built = mdftest::build(f);
  mdftest::write_file(path, built.bytes);
}

// Builds the file in a child process, so that the builder's memory never shows in this
// process's peak resident set size.
bool build_file_in_child(const std::string& path) {
  const pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    try {
      build_file(path);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "building %s failed: %s\n", path.c_str(), e.what());
      _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

long peak_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;  // KiB on Linux
}

long current_rss_kib() {
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  long pages_total = 0;
  long pages_resident = 0;
  const int got = std::fscanf(f, "%ld %ld", &pages_total, &pages_resident);
  std::fclose(f);
  if (got != 2) return -1;
  return pages_resident * (sysconf(_SC_PAGESIZE) / 1024);
}

std::size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;  // small-heap bytes in use + mmapped blocks
}

// Opens the file and checks that every group and channel is there; the handle or null.
mdf_file* open_checked(const char* what) {
  mdf_file* file = nullptr;
  const int16_t st = mdfFileOpen(&file, g_path.c_str(), MDF_OPEN_READ);
  if (st != 0 || file == nullptr) {
    std::fprintf(stderr, "%s: mdfFileOpen returned %d\n", what, st);
    return nullptr;
  }
  return file;
}

bool check_counts(mdf_file* file) {
  uint16_t groups = 0;
  uint32_t channels = 0;
  if (mdfFileGroups(&groups, file) != 0 || mdfFileChannels(&channels, file) != 0 ||
      groups != kGroups || channels != kChannels) {
    std::fprintf(stderr, "file has %u groups, %u channels; expected %d, %u\n", groups, channels,
                 kGroups, kChannels);
    return false;
  }
  return true;
}

int peak_memory_mode() {
  if (mdfOpen(nullptr) != 0) return 1;
  const auto file_bytes = static_cast<double>(fs::file_size(g_path));
  const long rss_before = current_rss_kib();
  const long peak_before = peak_rss_kib();
  const std::size_t heap_before = heap_in_use();
  const auto t0 = std::chrono::steady_clock::now();
  mdf_file* file = open_checked("peak memory");
  const auto t1 = std::chrono::steady_clock::now();
  if (file == nullptr) return 1;
  const long peak_after = peak_rss_kib();
  const long rss_open = current_rss_kib();
  const std::size_t heap_open = heap_in_use();
  const bool counts_ok = check_counts(file);
  mdfFileClose(file);
  mdfClose();
  if (!counts_ok) return 1;

  const double peak_growth = static_cast<double>(peak_after - peak_before) * 1024.0;
  const double rss_growth = static_cast<double>(rss_open - rss_before) * 1024.0;
  const double heap_growth = static_cast<double>(heap_open) - static_cast<double>(heap_before);
  const double mib = 1024.0 * 1024.0;
  std::printf("file                        %s\n", g_path.c_str());
  std::printf("file size                   %.0f bytes (%.2f MiB)\n", file_bytes, file_bytes / mib);
  std::printf("channels / groups           %u / %d\n", kChannels, kGroups);
  std::printf("first open (cold process)   %.1f ms\n",
              std::chrono::duration<double, std::milli>(t1 - t0).count());
  std::printf("peak RSS growth, first open %.0f bytes (%.2f MiB) = %.2f x file size\n", peak_growth,
              peak_growth / mib, peak_growth / file_bytes);
  std::printf("RSS growth while open       %.0f bytes (%.2f MiB) = %.2f x file size\n", rss_growth,
              rss_growth / mib, rss_growth / file_bytes);
  std::printf("heap in use while open      %.0f bytes (%.2f MiB) = %.2f x file size\n", heap_growth,
              heap_growth / mib, heap_growth / file_bytes);
  return 0;
}

void BM_FileOpenClose(benchmark::State& state) {
  mdfClose();
  if (mdfOpen(nullptr) != 0) {
    state.SkipWithError("mdfOpen failed");
    return;
  }
  {
    mdf_file* file = open_checked("benchmark");
    const bool ok = file != nullptr && check_counts(file);
    mdfFileClose(file);
    if (!ok) {
      state.SkipWithError("the file does not open as expected");
      return;
    }
  }
  const auto mode = static_cast<uint16_t>(state.range(0));
  for (auto _ : state) {
    mdf_file* file = nullptr;
    const int16_t st = mdfFileOpen(&file, g_path.c_str(), mode);
    const int16_t closed = mdfFileClose(file);
    if (st != 0 || closed != 0) {
      state.SkipWithError("open or close failed");
      break;
    }
  }
  state.counters["file_MiB"] = static_cast<double>(fs::file_size(g_path)) / (1024.0 * 1024.0);
  state.counters["channels"] = kChannels;
  mdfClose();
}

// Argument: the open mode. Modifying also maps the blocks and records of the file (and each
// close appends the header comment anew, so the file grows by a few bytes per iteration).
BENCHMARK(BM_FileOpenClose)
    ->Arg(MDF_OPEN_READ)
    ->Arg(MDF_OPEN_MODIFY)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void remove_file() {
  if (!g_keep && !g_path.empty()) {
    std::error_code ignored;
    fs::remove(g_path, ignored);
  }
}

}  // namespace

int main(int argc, char** argv) {
  bool peak_memory = false;
  int kept = 1;  // arguments left for the benchmark library
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--peak-memory") {
      peak_memory = true;
    } else if (arg.starts_with("--keep-file=")) {
      g_path = std::string(arg.substr(12));
      g_keep = true;
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  if (g_path.empty()) {
    g_path =
        (fs::temp_directory_path() / ("korvel_bench_open_" + std::to_string(getpid()) + ".mdf"))
            .string();
  }
  if (!build_file_in_child(g_path)) {
    std::fprintf(stderr, "could not build the file %s\n", g_path.c_str());
    return 1;
  }
  std::atexit(remove_file);
  if (peak_memory) return peak_memory_mode();

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::AddCustomContext("korvel.file", g_path);
  benchmark::AddCustomContext("korvel.file_bytes", std::to_string(fs::file_size(g_path)));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
