// korvel: the command-line program of the Korvel library.
//
//   korvel                 print the library and format versions
//   korvel status CODE     print the text of a status code
//   korvel demo [FILE]     write an example measurement file, read it back and list it
//
// The program uses only the library's public interface.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "korvel.h"

namespace {

int print_versions() {
  char library[32] = {};
  char format[16] = {};
  mdfGetKorvelVersion(library, sizeof library - 1);
  mdfGetMdfFormatVersion(format, sizeof format - 1);
  std::printf("Korvel %s\nMDF format up to %s\n", library, format);
  return 0;
}

int print_status(const char* argument) {
  char* end = nullptr;
  const long code = std::strtol(argument, &end, 10);
  if (end == argument || *end != '\0' || code < -32768 || code > 32767) {
    std::fprintf(stderr, "korvel: not a status code: %s\n", argument);
    return 2;
  }
  const char* text = mdfGetTextStrD(static_cast<int16_t>(code));
  if (text == nullptr) {
    std::printf("%ld: (no text)\n", code);
    return 1;
  }
  std::printf("%ld: %s\n", code, text);
  return 0;
}

// ---- demo ------------------------------------------------------------------------------------

// A failed library call: the message names the call and the status with its text.
struct Failure {
  std::string call;
  int16_t status;
};

// Runs a library call; a status other than 0 is thrown as a Failure.
void check(int16_t status, const char* call) {
  if (status != 0) throw Failure{call, status};
}

constexpr double kPi = 3.14159265358979323846;

// The fast group: 1000 records at 1 ms. The time is counted in milliseconds and converted
// to seconds by a linear rule; a sine in millivolts shown in volts; a wrapping counter; a
// temperature settling towards 90 degrees; an operating state of 2 bits.
void write_fast_group(mdf_file* file) {
  mdf_group* g = nullptr;
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), "mdfGrpOpen");
  channelnode *time = nullptr, *sine = nullptr, *counter = nullptr, *temperature = nullptr,
              *state = nullptr;
  check(mdfChnCreate(&time, g, MDF_CHN_TIME, 32, MDF_DT_UINT, "time"), "mdfChnCreate time");
  check(mdfChnSetFormLin(time, "s", 0.0, 0.001), "mdfChnSetFormLin time");
  check(mdfChnCreate(&sine, g, MDF_CHN_DATA, 16, MDF_DT_INT, "sine"), "mdfChnCreate sine");
  check(mdfChnSetFormLin(sine, "V", 0.0, 0.001), "mdfChnSetFormLin sine");
  check(mdfChnSetInfo(sine, nullptr, "5 V sine at 2 Hz", "synthetic test signal"),
        "mdfChnSetInfo sine");
  check(mdfChnCreate(&counter, g, MDF_CHN_DATA, 8, MDF_DT_UINT, "counter"), "mdfChnCreate counter");
  check(mdfChnCreate(&temperature, g, MDF_CHN_DATA, 32, MDF_DT_FLOAT, "temperature"),
        "mdfChnCreate temperature");
  check(mdfChnCreate(&state, g, MDF_CHN_DATA, 2, MDF_DT_UINT, "state"), "mdfChnCreate state");
  check(mdfChnSetDesc(state, "0 off, 1 starting, 2 running, 3 fault"), "mdfChnSetDesc state");
  check(mdfChnSetRaster(time, 0.001), "mdfChnSetRaster");
  for (int i = 0; i < 1000; ++i) {
    const double t = i * 0.001;
    // The first Write fills record 0; every later one first appends the record before.
    check(mdfChnWritePhy(time, t), "mdfChnWritePhy time");
    check(mdfChnSetPhy(sine, 5.0 * std::sin(2.0 * kPi * 2.0 * t)), "mdfChnSetPhy sine");
    check(mdfChnSetHexInt(counter, static_cast<uint64_t>(i % 256)), "mdfChnSetHexInt counter");
    check(mdfChnSetPhy(temperature, 90.0 - 70.0 * std::exp(-t / 0.25)), "mdfChnSetPhy temp");
    const uint64_t s = i < 100 ? 0 : i < 300 ? 1 : i < 950 ? 2 : 3;
    check(mdfChnSetHexInt(state, s), "mdfChnSetHexInt state");
  }
  // Closing the group closes its channels; the time channel's pending record is appended.
  check(mdfGrpClose(g), "mdfGrpClose");
}

// The slow group: 100 records at 100 ms. Time in seconds as doubles, a battery voltage, three
// flag bits, and a vehicle speed stored in Motorola byte order in steps of 0.01 km/h.
void write_slow_group(mdf_file* file) {
  mdf_group* g = nullptr;
  check(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE), "mdfGrpOpen");
  channelnode *time = nullptr, *voltage = nullptr, *flags = nullptr, *speed = nullptr;
  check(mdfChnCreate(&time, g, MDF_CHN_TIME, 64, MDF_DT_DOUBLE, "time"), "mdfChnCreate time");
  check(mdfChnCreate(&voltage, g, MDF_CHN_DATA, 64, MDF_DT_DOUBLE, "battery"),
        "mdfChnCreate battery");
  check(mdfChnCreate(&flags, g, MDF_CHN_DATA, 3, MDF_DT_UINT, "flags"), "mdfChnCreate flags");
  check(mdfChnCreate(&speed, g, MDF_CHN_DATA, 16, MDF_DT_UINT_BE, "speed"), "mdfChnCreate speed");
  check(mdfChnSetFormLin(speed, "km/h", 0.0, 0.01), "mdfChnSetFormLin speed");
  check(mdfChnSetLongName(speed, "vehicle_speed_from_wheel_sensors"), "mdfChnSetLongName");
  for (int i = 0; i < 100; ++i) {
    const double t = i * 0.1;
    check(mdfChnWritePhy(time, t), "mdfChnWritePhy time");
    check(mdfChnSetPhy(voltage, 12.6 - 0.004 * i), "mdfChnSetPhy battery");
    check(mdfChnSetHexInt(flags, static_cast<uint64_t>(i / 10 % 8)), "mdfChnSetHexInt flags");
    check(mdfChnSetPhy(speed, t < 5.0 ? 20.0 * t : 100.0), "mdfChnSetPhy speed");
  }
  check(mdfGrpClose(g), "mdfGrpClose");
}

const char* data_type_name(uint16_t code) {
  static const char* const names[] = {
      "unsigned",  "signed",      "float",     "double",      "VAX F",     "VAX G",
      "VAX D",     "string",      "bytes",     "unsigned BE", "signed BE", "float BE",
      "double BE", "unsigned LE", "signed LE", "float LE",    "double LE"};
  return code < sizeof names / sizeof names[0] ? names[code] : "?";
}

// A fixed-width text field of the library as a string (not terminated when full).
std::string field(const char* text, std::size_t width) {
  if (text == nullptr) return {};
  std::size_t n = 0;
  while (n < width && text[n] != '\0') ++n;
  return std::string(text, n);
}

std::string value_text(int16_t status, double value) {
  if (status != 0) return "(status " + std::to_string(status) + ")";
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

void list_file(const char* name) {
  mdf_file* file = nullptr;
  check(mdfFileOpen(&file, name, MDF_OPEN_READ), "mdfFileOpen");
  uint16_t groups = 0;
  check(mdfFileGroups(&groups, file), "mdfFileGroups");
  std::printf("%s: %u channel groups\n", name, static_cast<unsigned>(groups));
  for (uint16_t n = 1; n <= groups; ++n) {
    mdf_group* g = nullptr;
    check(mdfGrpOpen(&g, file, n, MDF_OPEN_READ), "mdfGrpOpen");
    uint32_t records = 0;
    uint16_t channels = 0;
    check(mdfGrpRecords(&records, g), "mdfGrpRecords");
    check(mdfGrpChannels(&channels, g), "mdfGrpChannels");
    std::printf("\ngroup %u: %u records, %u channels\n", static_cast<unsigned>(n),
                static_cast<unsigned>(records), static_cast<unsigned>(channels));
    std::printf("  %-2s %-12s %-5s %-12s %4s %-6s %12s %12s\n", "#", "name", "kind", "data type",
                "bits", "unit", "first", "last");
    for (uint16_t i = 1; i <= channels; ++i) {
      channelnode* ch = nullptr;
      check(mdfChnOpen(&ch, g, i), "mdfChnOpen");
      uint16_t type = 0, bits = 0, value_type = 0;
      const char* channel_name = nullptr;
      check(mdfChnGetInfo(ch, &type, &bits, &value_type, &channel_name, nullptr, nullptr),
            "mdfChnGetInfo");
      uint16_t rule = 0;
      const char* unit = nullptr;
      // A channel without a conversion rule has no unit (status 1004).
      const bool has_rule = mdfChnGetForm(ch, &rule, &unit, nullptr) == 0;
      double first = 0, last = 0;
      int16_t first_status = MDF_END_OF_GROUP, last_status = MDF_END_OF_GROUP;
      if (records > 0) {
        check(mdfGrpSeek(g, 0, MDF_SEEK_ABS), "mdfGrpSeek");
        first_status = mdfChnGetPhy(&first, ch, 0);
        check(mdfGrpSeek(g, static_cast<int32_t>(records - 1), MDF_SEEK_ABS), "mdfGrpSeek");
        last_status = mdfChnGetPhy(&last, ch, 0);
      }
      std::printf("  %-2u %-12s %-5s %-12s %4u %-6s %12s %12s\n", static_cast<unsigned>(i),
                  field(channel_name, 32).c_str(), type == MDF_CHN_TIME ? "time" : "data",
                  data_type_name(value_type), static_cast<unsigned>(bits),
                  has_rule ? field(unit, 20).c_str() : "", value_text(first_status, first).c_str(),
                  value_text(last_status, last).c_str());
      check(mdfChnClose(ch), "mdfChnClose");
    }
    check(mdfGrpClose(g), "mdfGrpClose");
  }
  check(mdfFileClose(file), "mdfFileClose");
}

int demo(const char* name) {
  if (mdfOpen("KORVEL") != 0) {
    std::fprintf(stderr, "korvel: the library is already open\n");
    return 1;
  }
  int result = 0;
  try {
    mdf_file* file = nullptr;
    check(mdfFileOpen(&file, name, MDF_OPEN_CREATE), "mdfFileOpen");
    check(mdfFileSetInfo(file, nullptr, nullptr, "example measurement written by korvel demo",
                         "korvel demo", nullptr, "demo", "synthetic signals"),
          "mdfFileSetInfo");
    // One created group at a time per file; each new group goes to the head of the file's list.
    write_fast_group(file);
    write_slow_group(file);
    check(mdfFileClose(file), "mdfFileClose");
    std::printf("wrote %s\n\n", name);
    list_file(name);
  } catch (const Failure& f) {
    const char* text = mdfGetTextStrD(f.status);
    std::fprintf(stderr, "korvel: %s failed: %d %s\n", f.call.c_str(), f.status,
                 text != nullptr ? text : "");
    result = 1;
  }
  mdfClose();
  return result;
}

int usage() {
  std::fprintf(
      stderr,
      "usage: korvel                 library and format versions\n"
      "       korvel status CODE     text of a status code\n"
      "       korvel demo [FILE]     write an example file (korvel-demo.mdf) and list it\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 1) return print_versions();
  const std::string command = argv[1];
  if (command == "status" && argc == 3) return print_status(argv[2]);
  if (command == "version" && argc == 2) return print_versions();
  if (command == "demo" && argc <= 3) return demo(argc == 3 ? argv[2] : "korvel-demo.mdf");
  return usage();
}
