// korvel sort SRC [-o DST]: rewrites an unsorted (or unfinished) file as a sorted one, in
// place or into DST, with a progress display; Ctrl-C asks the library to stop, which leaves
// the source as it was.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "tool.h"

namespace korvel::tool {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Options {
  std::string source, target;
  bool recount = false, shrink = false, check_time = false, finalize = false;
  bool quiet = false, force = false;
};

// What the progress callbacks need: the display chosen, the size of the source and the start.
struct Progress {
  enum class Display { none, bar, lines } display;
  std::uintmax_t bytes;
  Clock::time_point start = Clock::now();
  bool drawn = false;
};

std::string seconds(double s) {
  char text[32];
  const auto whole = static_cast<long long>(s + 0.5);
  std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  return text;
}

void show(int percent, void* data) {
  auto& p = *static_cast<Progress*>(data);
  if (p.display == Progress::Display::lines) {
    std::fprintf(stderr, "%d%%\n", percent);
    return;
  }
  if (p.display != Progress::Display::bar) return;
  const double elapsed = std::chrono::duration<double>(Clock::now() - p.start).count();
  const std::string left = percent > 0 ? seconds(elapsed * (100 - percent) / percent) : "?";
  constexpr int kWidth = 30;
  const int filled = percent * kWidth / 100;
  std::fprintf(stderr, "\r[%s%s] %3d%%  %.1f of %.1f MB  %s elapsed, %s left ",
               std::string(static_cast<std::size_t>(filled), '#').c_str(),
               std::string(static_cast<std::size_t>(kWidth - filled), ' ').c_str(), percent,
               static_cast<double>(p.bytes) * percent / 100 / 1e6,
               static_cast<double>(p.bytes) / 1e6, seconds(elapsed).c_str(), left.c_str());
  std::fflush(stderr);
  p.drawn = true;
}

// The start of the sort: the empty bar at once, so that a terminal shows the sort running
// before its first report (the library reports at most every 500 ms).
void started(void* data) {
  if (static_cast<Progress*>(data)->display == Progress::Display::bar) show(0, data);
}

int stop_requested(void*) { return interrupted != 0; }

std::string outcome(int16_t status) {
  switch (status) {
    case 5:
      return "already sorted, left as it was";
    case 8:
      return "sorted; cycle counters corrected up to the records present";
    case 9:
      return "sorted; cycle counters corrected down to the records present";
    default:
      return "sorted";
  }
}

int run(const Options& o) {
  std::error_code ec;
  const bool in_place = o.target.empty() || fs::equivalent(o.target, o.source, ec);
  if (!in_place) check_output_path(o.target, o.source, o.force);
  Progress progress{o.quiet ? Progress::Display::none
                            : (stderr_is_terminal() ? Progress::Display::bar
                                                    : Progress::Display::lines),
                    fs::file_size(o.source, ec)};
  MdfSortParams params{};
  params.structSize = sizeof params;
  params.srcFile = o.source.c_str();
  params.dstFile = in_place ? nullptr : o.target.c_str();
  params.userData = &progress;
  params.pfnStart = started;
  params.pfnAbort = stop_requested;
  params.pfnProgress = show;
  params.flags = (o.recount ? MDF_SORT_RECOUNT : 0u) | (o.shrink ? MDF_SORT_SHRINK : 0u) |
                 (o.check_time ? MDF_SORT_CHECK_TIME : 0u) |
                 (o.finalize ? MDF_SORT_FINALIZE : 0u);
  Session session;
  int16_t status = 0;
  const bool done = session.run([&] {
    status = mdfSortWithProgress(&params);
    if (progress.drawn) std::fputc('\n', stderr);
    if (status == MDF_ERR_USER_ABORT) throw Interrupted{};
    if (status != 0 && status != 5 && status != 8 && status != 9) check(status, o.source);
  });
  if (!done) return kExitFailure;
  std::printf("%s: %s%s\n", o.source.c_str(), outcome(status).c_str(),
              in_place || status == 5 ? "" : (" into " + o.target).c_str());
  return kExitOk;
}

Runner add(CLI::App& app) {
  auto o = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand("sort", "Sort (and finalize) a measurement file");
  sub->footer(
      "Writes every channel group into a data group of its own, in place (through a\n"
      "temporary file that replaces the source only when complete) or into DST. Ctrl-C\n"
      "stops the sort and leaves the source as it was.");
  sub->add_option("SRC", o->source, "the file to sort")->required();
  sub->add_option("-o,--output", o->target, "write the sorted file here instead");
  sub->add_flag("--recount", o->recount, "keep records beyond a group's count, raise the count");
  sub->add_flag("--shrink", o->shrink, "lower the counts of short groups and close the gaps");
  sub->add_flag("--check-time", o->check_time, "check every record's time stamp");
  sub->add_flag("--finalize", o->finalize, "accept and finalize an unfinished file");
  sub->add_flag("-q,--quiet", o->quiet, "show no progress");
  sub->add_flag("--force", o->force, "replace an existing DST");
  return [o] { return run(*o); };
}

const bool registered = register_command(
    {"sort",
     "korvel sort [-o DST] [--recount] [--shrink] [--check-time] [--finalize] [--quiet] SRC", 25,
     add});

}  // namespace
}  // namespace korvel::tool
