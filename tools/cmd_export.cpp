// korvel export FILE: the values of channel groups as CSV, one table per group.
#include <algorithm>
#include <charconv>
#include <exception>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "tool.h"
#include "values.h"

namespace korvel::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
  std::string file;
  std::string out;
  int group = 0;  // 0: every group
  std::vector<std::string> channels;
  bool raw = false;
  std::optional<double> from, to;
  bool force = false;
};

// A group to export and the numbers of its channels, time channels first.
struct Plan {
  uint16_t group;
  std::vector<uint16_t> channels;
};

// Rows formatted on a helper thread, appended to the output afterwards; the same calls as
// Output takes. Numbers are formatted straight into the buffer, which grows as needed and is
// kept from window to window.
struct Chunk {
  std::vector<char> b;
  std::size_t used = 0;
  char* room(std::size_t n) {
    if (b.size() - used < n) b.resize(std::max(2 * b.size(), used + n));
    return b.data() + used;
  }
  void put(char c) {
    *room(1) = c;
    ++used;
  }
  void text(std::string_view v) { used += v.copy(room(v.size()), v.size()); }
  template <class T>
  void number(T v) {
    char* at = room(32);
    used = static_cast<std::size_t>(std::to_chars(at, at + 32, v).ptr - b.data());
  }
  std::string_view view() const { return {b.data(), used}; }
};

template <class Sink>
void put_text(Sink& out, std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return out.text(text);
  out.put('"');
  for (char c : text) {
    if (c == '"') out.put('"');
    out.put(c);
  }
  out.put('"');
}

template <class Sink>
void put_cell(Sink& out, const Cell& c) {
  switch (c.shown) {
    case Cell::Shown::signed_int:
      return out.number(c.s);
    case Cell::Shown::unsigned_int:
      return out.number(c.u);
    case Cell::Shown::real:
      return out.number(c.real);
    case Cell::Shown::text:
      return put_text(out, c.text);
    case Cell::Shown::none:
      return;
  }
}

// Records `rows` as CSV rows into `out`.
template <class Sink>
void put_rows(Sink& out, const GroupValues& values, std::size_t columns,
              std::span<const uint32_t> rows) {
  Cell cell;
  for (uint32_t r : rows) {
    for (std::size_t i = 0; i < columns; ++i) {
      if (i != 0) out.put(',');
      values.render(i, r, cell);
      put_cell(out, cell);
    }
    out.put('\n');
  }
}

bool named(const ChannelInfo& c, const std::string& name) {
  return c.name == name || c.long_name == name;
}

// Chooses the groups and channels: every channel, or the time channels and the named ones in
// the order named. A group without a named channel is left out.
std::vector<Plan> plan(const Options& o, mdf_file* file) {
  uint16_t count = 0;
  check(mdfFileGroups(&count, file), o.file);
  if (o.group > count)
    throw ToolError{o.file + ": no group " + std::to_string(o.group) + " (the file has " +
                        std::to_string(count) + ")",
                    kExitUsage};
  std::vector<Plan> plans;
  std::vector<bool> found(o.channels.size());
  for (uint16_t n = 1; n <= count; ++n) {
    if (o.group != 0 && n != o.group) continue;
    mdf_group* g = nullptr;
    check(mdfGrpOpen(&g, file, n, MDF_OPEN_READ), o.file);
    const std::vector<ChannelInfo> channels = open_channels(g, o.file);
    Plan p{n, {}};
    for (const ChannelInfo& c : channels)
      if (c.time) p.channels.push_back(c.number);
    for (const ChannelInfo& c : channels)
      if (!c.time && o.channels.empty()) p.channels.push_back(c.number);
    bool hit = o.channels.empty();
    for (std::size_t i = 0; i < o.channels.size(); ++i)
      for (const ChannelInfo& c : channels)
        if (named(c, o.channels[i])) {
          found[i] = hit = true;  // a time channel named is there already
          if (!c.time) p.channels.push_back(c.number);
        }
    check(mdfGrpClose(g), o.file);
    if (hit) plans.push_back(std::move(p));
  }
  for (std::size_t i = 0; i < o.channels.size(); ++i)
    if (!found[i])
      throw ToolError{o.file + ": no channel " + o.channels[i] +
                          (o.group != 0 ? " in group " + std::to_string(o.group) : ""),
                      kExitUsage};
  return plans;
}

// One group as CSV: a header row of names (with units for physical values), then one row per
// record in the time range.
void export_group(const Options& o, mdf_file* file, const Plan& p, Output& out,
                  std::vector<std::string>& failures) {
  mdf_group* g = nullptr;
  check(mdfGrpOpen(&g, file, p.group, MDF_OPEN_READ), o.file);
  const std::vector<ChannelInfo> channels = open_channels(g, o.file);
  GroupValues values(g, o.file);
  for (std::size_t i = 0; i < p.channels.size(); ++i) {
    const ChannelInfo& c = channels[p.channels[i] - 1u];
    values.add(c, o.raw);
    if (i != 0) out.put(',');
    put_text(out, !o.raw && !c.unit.empty() ? c.name + " [" + c.unit + "]" : c.name);
  }
  out.put('\n');
  // The time range is checked on the physical time, also when raw values are written.
  std::optional<std::size_t> time;
  if (o.from || o.to) {
    const auto t =
        std::find_if(channels.begin(), channels.end(), [](const ChannelInfo& c) { return c.time; });
    if (t == channels.end())
      throw ToolError{
          o.file + ": group " + std::to_string(p.group) + " has no time channel for --from/--to",
          kExitUsage};
    time = values.add(*t, false);
  }
  const double from = o.from.value_or(-std::numeric_limits<double>::infinity());
  const double to = o.to.value_or(std::numeric_limits<double>::infinity());
  const std::size_t columns = p.channels.size();
  // A window of records at a time: read through the library on this thread, then its rows
  // formatted in two halves, the second on a helper thread, and written in order.
  std::vector<uint32_t> rows;
  Chunk second;
  Cell cell;
  for (uint32_t first = 0, n = values.records(); first < n;) {
    if (interrupted) throw Interrupted{};
    const uint32_t end = std::min(GroupValues::window_end(first), n);
    if (time) values.load(first, *time);
    rows.clear();
    for (uint32_t r = first; r < end; ++r) {
      if (time) {
        values.render(*time, r, cell);
        values.note(*time, cell.status);
        if (!cell.has_number || !(cell.number >= from && cell.number <= to)) continue;
      }
      rows.push_back(r);
    }
    first = end;
    if (rows.empty()) continue;
    values.load(rows.front());
    // Every value of a column in one window has the same status.
    for (std::size_t i = 0; i < columns; ++i) {
      values.render(i, rows.front(), cell);
      values.note(i, cell.status);
    }
    const std::span<const uint32_t> all(rows);
    const std::size_t half = rows.size() / 2;
    second.used = 0;
    std::exception_ptr helper_failure;
    std::thread helper([&] {
      try {
        put_rows(second, values, columns, all.subspan(half));
      } catch (...) {
        helper_failure = std::current_exception();
      }
    });
    try {
      put_rows(out, values, columns, all.first(half));
    } catch (...) {
      helper.join();
      throw;
    }
    helper.join();
    if (helper_failure) std::rethrow_exception(helper_failure);
    out.text(second.view());
  }
  if (values.hollow())
    failures.push_back(o.file + ": group " + std::to_string(p.group) +
                       ": records of 0 bytes, none read");
  for (std::size_t i = 0; i < columns; ++i)
    if (int16_t st = values.failure(i); st != 0)
      failures.push_back(o.file + ": group " + std::to_string(p.group) + ", channel " +
                         channels[p.channels[i] - 1u].name + ": " + status_text(st) + " (" +
                         std::to_string(st) + ")");
  check(mdfGrpClose(g), o.file);
}

// OUT for one group; OUT with the group number before the extension for several.
fs::path output_path(const Options& o, const Plan& p, std::size_t groups) {
  if (groups == 1) return o.out;
  fs::path path = o.out;
  const fs::path extension = path.extension();
  path.replace_extension();
  path += "." + std::to_string(p.group);
  path += extension;
  return path;
}

int run(const Options& o) {
  if (o.from && o.to && *o.from > *o.to) throw ToolError{"--from is after --to", kExitUsage};
  Session session;
  std::vector<std::string> failures;
  const bool done = session.run([&] {
    mdf_file* file = nullptr;
    check(mdfFileOpen(&file, o.file.c_str(), MDF_OPEN_READ), o.file);
    const std::vector<Plan> plans = plan(o, file);
    if (o.out.empty()) {
      Output out;
      for (const Plan& p : plans) {
        if (&p != &plans.front()) out.put('\n');
        export_group(o, file, p, out, failures);
      }
      out.commit();
    } else {
      for (const Plan& p : plans)
        check_output_path(output_path(o, p, plans.size()), o.file, o.force);
      for (const Plan& p : plans) {
        Output out(output_path(o, p, plans.size()));
        export_group(o, file, p, out, failures);
        out.commit();
      }
    }
    check(mdfFileClose(file), o.file);
  });
  for (const std::string& f : failures) report(f);
  return done && failures.empty() ? kExitOk : kExitFailure;
}

Runner add(CLI::App& app) {
  auto o = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand("export", "Write the values of channel groups as CSV");
  sub->footer(
      "One table per channel group: a header row of channel names with units, the time\n"
      "channel first, then one row per record. Physical values: integers without a rule\n"
      "exactly, texts of value tables as text (a value without an entry as an empty text),\n"
      "strings as text, byte arrays as hex; numbers in the shortest form that reads back as\n"
      "the same double.\n"
      "Without -o the tables go to standard output, separated by an empty line. With -o OUT\n"
      "and several groups, group N goes to OUT with .N before the extension: -o run.csv\n"
      "writes run.1.csv, run.2.csv, ... Existing files are not replaced unless --force.");
  sub->add_option("FILE", o->file, "the MDF file")->required();
  sub->add_option("-o,--output", o->out, "the CSV file to write");
  sub->add_option("--group", o->group, "export only channel group N (numbered from 1)")
      ->check(CLI::Range(1, 65535));
  sub->add_option("--channel", o->channels,
                  "export this channel (short or long name; repeat for more); the time "
                  "channel always comes first");
  sub->add_flag("--raw", o->raw, "raw values, unconverted (no units in the header)");
  sub->add_option("--from", o->from,
                  "only records at or after this time (in the unit of the time channel)");
  sub->add_option("--to", o->to, "only records at or before this time");
  sub->add_flag("--force", o->force, "replace existing output files");
  return [o] { return run(*o); };
}

const bool registered = register_command(
    {"export",
     "korvel export FILE [-o OUT.csv] [--group N] [--channel NAME]... [--raw] [--from T] "
     "[--to T] [--force]",
     20, add});

}  // namespace
}  // namespace korvel::tool
