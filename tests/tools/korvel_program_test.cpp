// The korvel program run as a user runs it, in a scratch directory, and the sample files of
// independent writers through the C interface, `info --json` and `export` against their
// descriptions (what an independent reader read from them).
#include <gtest/gtest.h>

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "korvel.h"
#include "support/mdf_builder.h"
#include "support/scratch.h"

#if !defined(_WIN32)
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Row = std::vector<std::string>;

struct Outcome {
  int code;
  std::string out, err;
};

using mdftest::slurp;

#if defined(_WIN32)
// cmd.exe changes the drive only with /d; the program's standard streams are text streams
// there, ending lines with CR LF (taken out on every system: the program writes none).
const char* const kCd = "cd /d \"";
#else
const char* const kCd = "cd \"";
#endif

int exit_code(int status) {
#if defined(_WIN32)
  return status;
#else
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
}

std::string text(std::string s) {
  std::erase(s, '\r');
  return s;
}

// The cells of a CSV text whose cells need no quoting (the quoting is checked on a text of its
// own).
std::vector<Row> parse_csv(const std::string& text) {
  std::vector<Row> rows(1, Row(1));
  for (const char c : text) {
    if (c == ',') {
      rows.back().emplace_back();
    } else if (c == '\n') {
      rows.emplace_back(1);
    } else {
      rows.back().back() += c;
    }
  }
  rows.pop_back();  // after the last line end
  return rows;
}

// A text field of a fixed width, up to its first zero byte.
std::string field(const char* text, std::size_t width) {
  return {text, std::find(text, text + width, '\0')};
}

class Program : public ::testing::Test {
 protected:
  fs::path dir = mdftest::scratch_dir("korvel_program");

  Outcome korvel(const std::string& args) {
    const std::string command = kCd + dir.string() + "\" && \"" KORVEL_PROGRAM "\" " + args;
    const int status = std::system((command + " >stdout.txt 2>stderr.txt").c_str());
    return {exit_code(status), text(slurp(dir / "stdout.txt")), text(slurp(dir / "stderr.txt"))};
  }
  // The library's log goes to a private directory, never to the user's.
  void TearDown() override {
    EXPECT_FALSE(fs::exists(dir / "KORVEL.LOG"));
    fs::remove_all(dir);
  }
};

// Exit codes, messages and outputs, and refusals to replace a file: what was refused is left
// as it was.
TEST_F(Program, ExitCodesMessagesOutputsAndRefusals) {
  std::ofstream(dir / "run42.mdf") << "a recording";
  const Outcome demo = korvel("demo --force run42.mdf");
  ASSERT_EQ(demo.code, 0) << demo.err;
  // Groups in the order a reader finds them: the fast group first.
  EXPECT_LT(demo.out.find("group 1: 1000 records"), demo.out.find("group 2: 100 records"));
  const std::string written = slurp(dir / "run42.mdf");
  auto unfinished = mdftest::load_file(dir / "run42.mdf");
  std::copy_n("UnFinMF ", 8, unfinished.begin());
  mdftest::write_file(dir / "unfinished.mdf", unfinished);
  std::ofstream(dir / "bad.mdf") << std::string(100, 'x');
  // Billions of records of 0 bytes: each would be read without touching the file.
  mdftest::FileModel hollow;
  hollow.add_data_group().add_channel_group(0).add_channel("x", 0, 8, 0);
  hollow.data_groups[0].channel_groups[0].record_count = 4000000000u;
  mdftest::write_file(dir / "hollow.mdf", mdftest::build(hollow).bytes);
  // Texts that need quoting, a range table whose default text is a scaling annotation, and a
  // Latin-1 unit.
  mdftest::FileModel made;
  auto& cg = made.add_data_group().add_channel_group(10);
  cg.add_channel("time", 0, 16, 0, 1).conversion = mdftest::linear(0, 0.5, "s");
  cg.add_channel("mode", 16, 8, 0).conversion = mdftest::range_table(
      {{0, 0, "{LINEAR_CONV \"2*{X}+1\"}"}, {1, 2, "low"}, {3, 3, "say \"hi\""}}, "\260C");
  cg.add_channel("note", 24, 48, 7);
  const std::string notes[] = {"a,b", "plain", "x\"y"};
  for (uint8_t i = 0; i < 4; ++i) {
    auto& rec = cg.add_record();
    mdftest::put_bits(rec, 0, 16, i);
    mdftest::put_bits(rec, 16, 8, i + 2u);
    const std::string& note = notes[i % 3];
    mdftest::put_raw(rec, 3, std::span(reinterpret_cast<const uint8_t*>(note.data()), note.size()));
  }
  mdftest::write_file(dir / "made.mdf", mdftest::build(made).bytes);
  // The text is looked for on standard output when the code is 0, else on standard error.
  const struct {
    const char* args;
    int code;
    const char* text;
  } cases[] = {
      {"--help", 0, "Subcommands:"},
      {"status -1004", 0, "-1004: illegal group open mode"},
      {"dump --hex run42.mdf", 0, "BLOCK 17480: 208 Bytes at 0 :48 \n44 D0 00 71"},
      {"sort run42.mdf", 0, "run42.mdf: already sorted, left as it was\n"},
      {"dump missing.mdf", 1, "korvel: missing.mdf: could not open file (1000)\n"},
      {"dump bad.mdf", 1, "korvel: bad.mdf: file format (-2004)\n"},
      {"", 2, "usage: korvel info"},
      {"bogus", 2, "usage: korvel info"},
      {"info", 2, "usage: korvel info [--json] [--no-scan] FILE...\n"},
      {"status 70000", 2, "usage: korvel status CODE\n"},
      {"export run42.mdf --group 3", 2, "korvel: run42.mdf: no group 3 (the file has 2)"},
      {"export run42.mdf --channel nothing", 2, "no channel nothing"},
      {"info missing.mdf", 1, "(1000)\n[KORVEL-ERROR] could not open file"},
      {"info bad.mdf run42.mdf", 1, "korvel: bad.mdf: file format (-2004)\n"},
      {"info unfinished.mdf", 1, "the file is unfinished"},
      {"export hollow.mdf", 1, "group 1: records of 0 bytes, none read"},
      {"demo run42.mdf", 1, "korvel: run42.mdf: exists (--force replaces it)\n"},
      {"export run42.mdf --group 1 -o run42.mdf --force", 2,
       "korvel: run42.mdf: is the file being read"},
      {"export run42.mdf -o out.csv", 0, ""},
      {"export run42.mdf -o out.csv", 1, "korvel: out.1.csv: exists (--force replaces it)\n"},
      {"export run42.mdf -o out.csv --force", 0, ""},
      // Raw values of the time in milliseconds, a time range; all groups on standard output.
      {"export run42.mdf --raw --from 0.9975 --to 0.9995", 0,
       "time,sine,counter,temperature,state\n998,-126,230,88.70761108398438,3\n"
       "999,-63,231,88.7127685546875,3\n\ntime,battery,flags,speed\n"},
      {"export made.mdf", 0,
       "time [s],mode [\260C],note\n0,low,\"a,b\"\n"
       "0.5,\"say \"\"hi\"\"\",plain\n1,9,\"x\"\"y\"\n1.5,11,\"a,b\"\n"},
  };
  for (const auto& c : cases) {
    const Outcome r = korvel(c.args);
    EXPECT_EQ(r.code, c.code) << c.args;
    EXPECT_NE((c.code == 0 ? r.out : r.err).find(c.text), std::string::npos) << c.args << "\n"
                                                                             << r.out << r.err;
    if (c.code == 0) {
      EXPECT_EQ(r.err, "") << c.args;
    }
  }
  EXPECT_EQ(slurp(dir / "run42.mdf"), written);
  // The good file after the bad one is still shown.
  EXPECT_NE(korvel("info bad.mdf run42.mdf").out.find("group 2: 100 records"), std::string::npos);
  // The refusals left no file behind.
  std::vector<std::string> files;
  for (const auto& e : fs::directory_iterator(dir)) files.push_back(e.path().filename().string());
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Row{"bad.mdf", "hollow.mdf", "made.mdf", "out.1.csv", "out.2.csv", "run42.mdf",
                        "stderr.txt", "stdout.txt", "unfinished.mdf"}));
  // A group, channels and a time range chosen.
  const auto rows = parse_csv(korvel("export run42.mdf --group 2 --channel battery --channel "
                                     "vehicle_speed_from_wheel_sensors --from 1 --to 2")
                                  .out);
  ASSERT_EQ(rows.size(), 12u);  // 1.0, 1.1, ... 2.0 s
  EXPECT_EQ((std::vector{rows[0], rows[1], rows[11]}),
            (std::vector<Row>{{"time [s]", "battery [V]", "speed [km/h]"},
                              {"1", "12.56", "20"},
                              {"2", "12.52", "40"}}));
  const json mode = json::parse(korvel("info --json made.mdf").out)[0]["groups"][0]["channels"][1];
  // The Latin-1 unit in UTF-8.
  EXPECT_EQ(std::make_tuple(mode["unit"], mode["first"], mode["min"], mode["max"]),
            std::make_tuple(json("\302\260C"), json("low"), json(5.0), json(11.0)));
}

// A raw value at the cursor as a description writes it, through a Read function (`read`) or a
// Get function: an integer, a double, or a text or a byte array (as hex).
json raw_value(channelnode* ch, uint16_t data_type, bool read) {
  static constexpr char kKinds[] = "uirrrrrtbuirruirr";  // by data type; r for the others
  const char kind = data_type < 17 ? kKinds[data_type] : 'r';
  const bool integer = kind == 'i' || kind == 'u';
  uint64_t n = 0;
  double real = 0;
  uint8_t buffer[256] = {};
  uint32_t length = sizeof buffer;
  EXPECT_EQ(integer       ? (read ? mdfChnReadHexInt(&n, ch) : mdfChnGetHexInt(&n, ch, 0))
            : kind == 'r' ? (read ? mdfChnReadHex(&real, ch) : mdfChnGetHex(&real, ch, 0))
                          : (read ? mdfChnReadData(buffer, &length, ch)
                                  : mdfChnGetData(buffer, &length, ch, 0)),
            0);
  if (integer) return kind == 'i' ? json(static_cast<int64_t>(n)) : json(n);
  if (kind == 'r') return json(real);
  std::string text;
  for (uint32_t i = 0; i < length && !(kind == 't' && buffer[i] == 0); ++i) {
    if (kind == 't') text += static_cast<char>(buffer[i]);
    if (kind == 'b')
      text += {"0123456789abcdef"[buffer[i] >> 4], "0123456789abcdef"[buffer[i] & 15]};
  }
  return json(text);
}

// A CSV cell against a value of a description: texts exactly, integers as written, other
// numbers as the same double.
void expect_cell(const std::string& cell, const json& want) {
  double got = 0;
  std::from_chars(cell.data(), cell.data() + cell.size(), got);
  if (want.is_string() || want.is_number_integer()) {
    EXPECT_EQ(cell, want.is_string() ? want.get<std::string>() : want.dump());
  } else {
    EXPECT_EQ(got, want.get<double>()) << cell;
  }
}

// One channel of a sample: `info` (`j`) against the library; over the first 20 records (Read
// functions) and the last 5 (Get functions after a seek) the raw values against the
// description `d`, and the export's cells and the physical values (the raw value for verbal
// tables) against it; `info`'s first, last, smallest and largest physical value against all
// records. Exponential and logarithmic values of the description follow other formulas.
void check_channel(mdf_group* g, uint16_t index, uint32_t records, const json& d, const json& j,
                   const std::vector<Row>& csv) {
  SCOPED_TRACE(d["name"].get<std::string>());
  channelnode* ch = mdftest::open_channel(g, index + 1u);
  uint16_t type = 9, bits = 0, data_type = 99, rule = MDF_CC_FRM_NON;
  const char *name = "", *unit = "";
  ASSERT_EQ(mdfChnGetInfo(ch, &type, &bits, &data_type, &name, nullptr, nullptr), 0);
  const int16_t form = mdfChnGetForm(ch, &rule, &unit, nullptr);
  const json lib = {{"name", field(name, 32)},
                    {"kind", type == MDF_CHN_TIME ? "time" : "data"},
                    {"data_type", data_type},
                    {"bits", bits},
                    {"conversion", form == 0 ? json(rule) : json()},
                    {"unit", form == 0 ? field(unit, 20) : ""}};
  for (const auto& [key, value] : lib.items()) EXPECT_EQ(j[key], value) << key;
  const bool numeric = data_type != MDF_DT_STRING && data_type != MDF_DT_BYTES;
  const bool as_raw = rule == MDF_CC_FRM_NON || rule == MDF_CC_FRM_VTAB || rule == MDF_CC_FRM_VTABR;
  const bool other = rule == MDF_CC_FRM_EXP || rule == MDF_CC_FRM_LOG;
  ASSERT_EQ(mdfGrpSeek(g, 0, MDF_SEEK_ABS), 0);
  for (uint32_t k = 0; k < 25; ++k) {
    const uint32_t r = k < 20 ? k : records - 25 + k;
    SCOPED_TRACE(r);
    const json& raw = d[k < 20 ? "raw_first" : "raw_last"][k % 20];
    const json& phys = d[k < 20 ? "phys_first" : "phys_last"][k % 20];
    if (k >= 20) {
      ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(r), MDF_SEEK_ABS), 0);
    }
    EXPECT_EQ(raw_value(ch, data_type, k < 20), raw);
    double physical = -1;
    EXPECT_EQ(mdfChnGetPhy(&physical, ch, 0), numeric ? 0 : MDF_UNSUPPORTED_TYPE);
    if (numeric && !other) {
      EXPECT_EQ(json(physical), as_raw ? raw : phys);
    }
    if (!other) expect_cell(csv[r + 1][index], phys);
  }
  std::vector<double> v(numeric ? records : 0);
  for (uint32_t k = 0; k < v.size(); ++k) {
    ASSERT_EQ(mdfGrpSeek(g, static_cast<int32_t>(k), MDF_SEEK_ABS), 0);
    ASSERT_EQ(mdfChnGetPhy(&v[k], ch, 0), 0);
  }
  const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
  const bool texts = !numeric || rule == MDF_CC_FRM_VTAB || rule == MDF_CC_FRM_VTABR;
  EXPECT_EQ(
      json::array({j["min"], j["max"], j["first"], j["last"]}),
      json::array({numeric ? json(*lo) : json(), numeric ? json(*hi) : json(),
                   texts ? j["first"] : json(v.front()), texts ? j["last"] : json(v.back())}));
}

// Every sample file of independent writers through the library, `info --json` (all files at
// once) and `export`, against the library and the description beside it.
// Files of other writers hold no block over another block or over records: each opens for
// modifying.
TEST_F(Program, SamplesThroughTheLibraryInfoAndExport) {
  std::vector<std::string> files;
  std::string args = "info --json";
  for (const auto& e : fs::directory_iterator(KORVEL_SAMPLES_DIR))
    if (e.path().extension() == ".mdf") files.push_back(e.path().filename().string());
  std::sort(files.begin(), files.end());
  for (const auto& s : files) {
    mdftest::copy_writable(fs::path(KORVEL_SAMPLES_DIR) / s, dir);  // the original stays as it is
    args += " " + s;
  }
  const Outcome r = korvel(args);
  ASSERT_EQ(r.code, 0) << r.err;
  const json infos = json::parse(r.out);
  ASSERT_EQ(infos.size(), files.size());
  ASSERT_EQ(mdfOpen("TEST"), 0);
  for (std::size_t f = 0; f < files.size(); ++f) {
    const std::string stem = fs::path(files[f]).stem().string(), path = (dir / files[f]).string();
    SCOPED_TRACE(stem);
    const json& info = infos[f];
    const json groups =
        json::parse(slurp(fs::path(KORVEL_SAMPLES_DIR) / (stem + ".json")))["groups"];
    ASSERT_EQ(korvel("export " + files[f] + " -o " + stem + ".csv").code, 0);
    mdf_file* file = nullptr;
    ASSERT_EQ(mdfFileOpen(&file, path.c_str(), MDF_OPEN_READ), 0);
    const char *author = nullptr, *project = nullptr, *comment = nullptr;
    mdfFileGetInfo(file, nullptr, nullptr, &comment, &author, nullptr, &project, nullptr);
    uint16_t count = 0;
    mdfFileGroups(&count, file);
    EXPECT_EQ(
        std::make_tuple(info["file"], info["sorted"], info["finalized"], info["header"]["author"],
                        info["header"]["project"], info["header"]["comment"]),
        std::make_tuple(json(files[f]), json(mdfFileIsSort(file) == 0), json(true),
                        json(field(author, 32)), json(field(project, 32)), json(comment)));
    ASSERT_EQ(json::array({count, info["groups"].size()}),
              json::array({groups.size(), groups.size()}));
    for (uint16_t n = 1; n <= count; ++n) {
      SCOPED_TRACE(n);
      const json &d = groups[n - 1], &jg = info["groups"][n - 1];
      mdf_group* g = mdftest::open_group(file, n);
      uint32_t records = 0;
      uint16_t channels = 0;
      mdfGrpRecords(&records, g);
      mdfGrpChannels(&channels, g);
      const json size = mdfGrpBuffer(nullptr, g) - 24;
      EXPECT_EQ(json::array({records, size, channels, records, size, channels}),
                json::array({d["cycles"], d["record_bytes"], d["channels"].size(), jg["records"],
                             jg["record_size"], jg["channels"].size()}));
      const auto csv = parse_csv(slurp(dir / (stem + "." + std::to_string(n) + ".csv")));
      ASSERT_EQ(csv.size(), records + 1u);
      for (uint16_t c = 0; c < channels; ++c)
        check_channel(g, c, records, d["channels"][c], jg["channels"][c], csv);
      mdfGrpClose(g);
    }
    mdfFileClose(file);
    ASSERT_EQ(mdfFileOpen(&file, path.c_str(), MDF_OPEN_MODIFY), 0);
    EXPECT_EQ(mdfFileClose(file), 0);
  }
  EXPECT_EQ(mdfGetErrorCode(), 0);
  mdfClose();
  // The unsorted sample sorted in place: `info` then says sorted.
  const std::string unsorted = "mdflib_unsorted";
  const auto at = std::find(files.begin(), files.end(), unsorted + ".mdf");
  ASSERT_NE(at, files.end());
  ASSERT_EQ(infos[static_cast<std::size_t>(at - files.begin())]["sorted"], false);
  const Outcome sorted = korvel("sort " + unsorted + ".mdf --quiet");
  EXPECT_EQ(std::make_tuple(sorted.code, sorted.out, sorted.err),
            std::make_tuple(0, unsorted + ".mdf: sorted\n", ""));
  EXPECT_EQ(json::parse(korvel("info --json " + unsorted + ".mdf").out)[0]["sorted"], true);
}

#if !defined(_WIN32)
// An unsorted file of `bytes` bytes or more: one data group of two channel groups (1-byte ids,
// records of 8 bytes) taking turns.
void write_unsorted(const fs::path& path, uint64_t bytes) {
  mdftest::FileModel f;
  auto& dg = f.add_data_group(1);
  for (uint16_t g = 1; g <= 2; ++g) dg.add_channel_group(8, g).add_channel("t", 0, 64, 3, 1);
  mdftest::Built built = mdftest::build(f);
  built.patch_u32(built.data_groups[0].offset + mdftest::off::dg_data, built.size());
  const std::string pair("\1\0\0\0\0\0\0\0\0\2\0\0\0\0\0\0\0\0", 18);
  std::string piece;
  while (piece.size() < (4u << 20)) piece += pair;
  const uint64_t pieces = bytes / piece.size() + 1;
  for (const auto& cg : built.data_groups[0].channel_groups)
    built.patch_u32(cg.offset + mdftest::off::cg_record_count,
                    static_cast<uint32_t>(pieces * piece.size() / 18));
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(built.bytes.data()),
            static_cast<std::streamsize>(built.size()));
  for (uint64_t i = 0; i < pieces; ++i)
    out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
}

// Ctrl-C during an in-place sort: the program stops the library, which leaves the source as it
// was and no temporary file behind. The signal goes after the first percent line (the sort is
// then running); the library checks for it at its next report, 500 ms later, so a sort that
// ends before that gets a larger file.
TEST_F(Program, CtrlCDuringASortLeavesTheSource) {
  const fs::path source = dir / "big.mdf";
  for (uint64_t bytes = 128u << 20;; bytes *= 3) {
    ASSERT_LT(bytes, 2ull << 30) << "no sort lasted long enough to be stopped";
    write_unsorted(source, bytes);
    fs::copy_file(source, dir / "copy.mdf", fs::copy_options::overwrite_existing);
    int err[2];
    ASSERT_EQ(pipe(err), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(err[1], 2);
      close(err[0]);
      if (chdir(dir.c_str()) == 0) execl(KORVEL_PROGRAM, "korvel", "sort", "big.mdf", nullptr);
      _exit(127);
    }
    close(err[1]);
    std::string text;
    char buffer[256];
    bool sent = false;
    for (ssize_t n; (n = read(err[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(n));
      // At a first report below 100%: the closing report comes when the sort is over.
      if (!sent && text.find("%\n") != std::string::npos && std::atoi(text.c_str()) < 100)
        sent = kill(pid, SIGINT) == 0;
    }
    close(err[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << text;
    if (WEXITSTATUS(status) == 0) continue;  // sorted before the library looked: larger file
    EXPECT_EQ(WEXITSTATUS(status), 130) << text;
    EXPECT_EQ(std::system((kCd + dir.string() + "\" && cmp -s big.mdf copy.mdf").c_str()), 0);
    for (const auto& e : fs::directory_iterator(dir))
      EXPECT_NE(e.path().filename().string().rfind("KORVEL", 0), 0u) << e.path();
    return;
  }
}
#endif

}  // namespace
