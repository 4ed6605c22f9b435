// korvel info FILE...: what a measurement file holds, as text or as JSON.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tool.h"
#include "values.h"

namespace korvel::tool {
namespace {

using nlohmann::ordered_json;

struct ChannelReport {
  ChannelInfo info;
  Cell first, last;
  std::optional<double> min, max;
};

struct GroupReport {
  uint16_t number = 0;
  uint32_t records = 0;
  int32_t record_size = 0;
  std::vector<ChannelReport> channels;
};

struct FileReport {
  std::string file;
  // From the identification block, read directly: the library does not hand these out.
  bool has_id = false;
  std::string identifier, format, program;
  uint16_t version = 0;
  bool sorted = false;
  std::string date, time, author, organisation, project, subject, comment;
  std::vector<GroupReport> groups;
  std::vector<std::string> value_failures;
};

std::string trimmed(const char* text, std::size_t width) {
  std::string s = field(text, width);
  s.erase(s.find_last_not_of(' ') + 1);
  return s;
}

void read_identification(FileReport& r) {
  std::ifstream in(r.file, std::ios::binary);
  char id[64] = {};
  if (!in.read(id, sizeof id)) return;
  r.identifier = trimmed(id, 8);
  r.has_id = r.identifier == "MDF" || r.identifier == "UnFinMF";
  if (!r.has_id) return;
  r.format = trimmed(id + 8, 8);
  r.program = trimmed(id + 16, 8);
  r.version = static_cast<uint16_t>(static_cast<unsigned char>(id[28]) |
                                    static_cast<unsigned char>(id[29]) << 8);
}

bool finalized(const FileReport& r) {
  return r.identifier == "MDF";
}

void read_group(FileReport& r, mdf_file* file, uint16_t number, bool scan) {
  mdf_group* g = nullptr;
  check(mdfGrpOpen(&g, file, number, MDF_OPEN_READ), r.file);
  GroupReport gr;
  gr.number = number;
  uint8_t* data = nullptr;
  gr.record_size = mdfGrpBuffer(&data, g) - 24;
  const std::vector<ChannelInfo> channels = open_channels(g, r.file);
  GroupValues values(g, r.file);
  check(mdfGrpRecords(&gr.records, g), r.file);
  if (values.hollow())
    r.value_failures.push_back(r.file + ": group " + std::to_string(number) + ": " +
                               std::to_string(gr.records) + " records of 0 bytes, none read");
  for (const ChannelInfo& c : channels) {
    values.add(c, false);
    gr.channels.push_back({c, {}, {}, {}, {}});
  }
  const uint32_t n = values.records();
  for (uint32_t k = 0; k < n; k = scan || k + 1 == n ? k + 1 : n - 1) {
    if (interrupted) throw Interrupted{};
    values.seek(k);
    for (std::size_t i = 0; i < channels.size(); ++i) {
      const Cell& cell = values.get(i);
      ChannelReport& c = gr.channels[i];
      if (k == 0) c.first = cell;
      if (k + 1 == n) c.last = cell;
      if (!scan || !cell.has_number || std::isnan(cell.number)) continue;
      c.min = std::min(c.min.value_or(cell.number), cell.number);
      c.max = std::max(c.max.value_or(cell.number), cell.number);
    }
  }
  for (std::size_t i = 0; i < channels.size(); ++i)
    if (int16_t st = values.failure(i); st != 0)
      r.value_failures.push_back(r.file + ": group " + std::to_string(number) + ", channel " +
                                 channels[i].name + ": " + status_text(st) + " (" +
                                 std::to_string(st) + ")");
  check(mdfGrpClose(g), r.file);
  r.groups.push_back(std::move(gr));
}

void read_file(FileReport& r, bool scan) {
  mdf_file* file = nullptr;
  check(mdfFileOpen(&file, r.file.c_str(), MDF_OPEN_READ), r.file);
  const char *date = nullptr, *time = nullptr, *text = nullptr, *name = nullptr,
             *division = nullptr, *project = nullptr, *subject = nullptr;
  check(mdfFileGetInfo(file, &date, &time, &text, &name, &division, &project, &subject), r.file);
  r.date = field(date, 10);
  r.time = field(time, 8);
  r.comment = text != nullptr ? text : "";
  r.author = field(name, 32);
  r.organisation = field(division, 32);
  r.project = field(project, 32);
  r.subject = field(subject, 32);
  const int16_t sorted = mdfFileIsSort(file);
  if (sorted != MDF_NOT_SORTED) check(sorted, r.file);
  r.sorted = sorted == 0;
  uint16_t groups = 0;
  check(mdfFileGroups(&groups, file), r.file);
  for (uint16_t n = 1; n <= groups; ++n) read_group(r, file, n, scan);
  check(mdfFileClose(file), r.file);
}

// ---- Text -------------------------------------------------------------------------------------

std::string shown(const Cell& c) {
  switch (c.shown) {
    case Cell::Shown::signed_int:
      return std::to_string(c.s);
    case Cell::Shown::unsigned_int:
      return std::to_string(c.u);
    case Cell::Shown::real:
      return format_number(c.real);
    case Cell::Shown::text:
      return '"' + c.text + '"';
    case Cell::Shown::none:
      break;
  }
  return "-";
}

// Prints rows as columns; columns listed in `right` are aligned to the right.
void print_table(const std::vector<std::vector<std::string>>& rows, const std::string& right) {
  std::vector<std::size_t> width;
  for (const auto& row : rows) {
    width.resize(std::max(width.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line = "   ";
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string pad(width[i] - row[i].size(), ' ');
      line += ' ' + (right[i] == 'r' ? pad + row[i] : row[i] + pad);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << '\n';
  }
}

void print_text(const FileReport& r) {
  std::cout << r.file << '\n';
  if (r.has_id)
    std::cout << "  format " << r.format << " (" << r.version << "), written by " << r.program
              << "; " << (r.sorted ? "sorted" : "not sorted") << "; "
              << (finalized(r) ? "finalized" : "not finalized") << '\n';
  std::cout << "  recorded " << r.date << ' ' << r.time << '\n';
  const std::pair<const char*, const std::string*> header[] = {{"author", &r.author},
                                                               {"organisation", &r.organisation},
                                                               {"project", &r.project},
                                                               {"subject", &r.subject},
                                                               {"comment", &r.comment}};
  for (const auto& [label, value] : header) {
    std::string v = *value;
    for (std::size_t at = 0; (at = v.find('\n', at)) != std::string::npos; at += 16)
      v.insert(at + 1, std::string(15, ' '));
    std::string line = "  " + std::string(label) + std::string(13 - std::strlen(label), ' ') + v;
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << '\n';
  }
  for (const GroupReport& g : r.groups) {
    std::cout << "\n  group " << g.number << ": " << g.records << " records of " << g.record_size
              << " bytes\n";
    std::vector<std::vector<std::string>> rows = {
        {"#", "name", "kind", "type", "bits", "unit", "conversion", "first", "last", "min", "max"}};
    for (const ChannelReport& c : g.channels) {
      const auto number = [](const std::optional<double>& v) {
        return v ? format_number(*v) : std::string("-");
      };
      rows.push_back({std::to_string(c.info.number), c.info.name, c.info.time ? "time" : "data",
                      data_type_name(c.info.data_type), std::to_string(c.info.bits), c.info.unit,
                      conversion_name(c.info.rule, c.info.has_rule), shown(c.first), shown(c.last),
                      number(c.min), number(c.max)});
    }
    print_table(rows, "rlllrllrrrr");
  }
}

// ---- JSON -------------------------------------------------------------------------------------

// Texts of MDF 3 files carry no encoding: valid UTF-8 stays as it is, anything else is read
// as Latin-1, the usual code page of these files.
std::string utf8(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto b = static_cast<unsigned char>(text[i]);
    const std::size_t n = b < 0x80         ? 1
                          : (b >> 5) == 6  ? 2
                          : (b >> 4) == 14 ? 3
                          : (b >> 3) == 30 ? 4
                                           : 0;
    if (n == 0 || i + n > text.size()) break;
    std::size_t k = 1;
    while (k < n && (static_cast<unsigned char>(text[i + k]) >> 6) == 2) ++k;
    if (k < n) break;
    i += n;
  }
  if (i == text.size()) return text;
  std::string out;
  for (char c : text) {
    const auto b = static_cast<unsigned char>(c);
    if (b < 0x80) {
      out += c;
    } else {
      out += static_cast<char>(0xC0 | b >> 6);
      out += static_cast<char>(0x80 | (b & 0x3F));
    }
  }
  return out;
}

ordered_json cell_json(const Cell& c) {
  switch (c.shown) {
    case Cell::Shown::signed_int:
      return c.s;
    case Cell::Shown::unsigned_int:
      return c.u;
    case Cell::Shown::real:
      return c.real;
    case Cell::Shown::text:
      return utf8(c.text);
    case Cell::Shown::none:
      break;
  }
  return nullptr;
}

ordered_json to_json(const FileReport& r, const LibraryError* error) {
  ordered_json j;
  j["file"] = utf8(r.file);
  if (r.has_id) {
    j["format"] = utf8(r.format);
    j["version"] = r.version;
    j["program"] = utf8(r.program);
    j["finalized"] = finalized(r);
  }
  if (error != nullptr) {
    j["error"] = {{"status", error->status}, {"text", status_text(error->status)}};
    return j;
  }
  j["sorted"] = r.sorted;
  j["header"] = {{"date", utf8(r.date)},       {"time", utf8(r.time)},
                 {"author", utf8(r.author)},   {"organisation", utf8(r.organisation)},
                 {"project", utf8(r.project)}, {"subject", utf8(r.subject)},
                 {"comment", utf8(r.comment)}};
  j["groups"] = ordered_json::array();
  for (const GroupReport& g : r.groups) {
    ordered_json group = {{"number", g.number},
                          {"records", g.records},
                          {"record_size", g.record_size},
                          {"channels", ordered_json::array()}};
    for (const ChannelReport& c : g.channels) {
      const auto number = [](const std::optional<double>& v) {
        return v ? ordered_json(*v) : ordered_json(nullptr);
      };
      group["channels"].push_back(
          {{"number", c.info.number},
           {"name", utf8(c.info.name)},
           {"long_name", utf8(c.info.long_name)},
           {"description", utf8(c.info.description)},
           {"kind", c.info.time ? "time" : "data"},
           {"data_type", c.info.data_type},
           {"bits", c.info.bits},
           {"unit", utf8(c.info.unit)},
           {"conversion", c.info.has_rule ? ordered_json(c.info.rule) : ordered_json(nullptr)},
           {"first", cell_json(c.first)},
           {"last", cell_json(c.last)},
           {"min", number(c.min)},
           {"max", number(c.max)}});
    }
    j["groups"].push_back(std::move(group));
  }
  return j;
}

// ---- The command ------------------------------------------------------------------------------

struct Options {
  std::vector<std::string> files;
  bool json = false;
  bool no_scan = false;
};

int run(const Options& o) {
  Session session;
  bool failed = false;
  ordered_json all = ordered_json::array();
  for (const std::string& name : o.files) {
    FileReport r;
    r.file = name;
    std::optional<LibraryError> error;
    read_identification(r);
    const bool done = session.run([&] {
      try {
        read_file(r, !o.no_scan);
      } catch (const LibraryError& e) {
        error = e;
        throw;
      }
    });
    if (!done && r.identifier == "UnFinMF")
      report(name + ": the file is unfinished: its writer did not finalize it");
    for (const std::string& f : r.value_failures) report(f);
    failed = failed || !done || !r.value_failures.empty();
    if (o.json)
      all.push_back(to_json(r, error ? &*error : nullptr));
    else if (done)
      print_text(r);
    if (!o.json && done && &name != &o.files.back()) std::cout << '\n';
  }
  if (o.json) std::cout << all.dump(2) << '\n';
  std::cout.flush();
  return failed ? kExitFailure : kExitOk;
}

Runner add(CLI::App& app) {
  auto o = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand("info", "Show what measurement files hold");
  sub->footer(
      "Per file: format version, whether sorted and finalized, the header fields; per channel\n"
      "group its number, record count and record size, and a table of its channels with\n"
      "their first, last, minimum and maximum physical values. Every record is read for the\n"
      "minimum and maximum; --no-scan reads the first and last only.");
  sub->add_option("FILE", o->files, "MDF files")->required();
  sub->add_flag("--json", o->json, "print a JSON array with one object per file, for scripts");
  sub->add_flag("--no-scan", o->no_scan, "read only the first and last records");
  return [o] { return run(*o); };
}

const bool registered =
    register_command({"info", "korvel info [--json] [--no-scan] FILE...", 10, add});

}  // namespace

void print_file_info(const std::string& file) {
  FileReport r;
  r.file = file;
  read_identification(r);
  read_file(r, true);
  print_text(r);
  for (const std::string& f : r.value_failures) report(f);
}

}  // namespace korvel::tool
