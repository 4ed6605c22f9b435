// korvel demo [FILE]: writes an example measurement file, reads it back and lists it.
#include <cmath>
#include <filesystem>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "tool.h"

namespace korvel::tool {
namespace {

constexpr double kPi = 3.14159265358979323846;

// The fast group: 1000 records at 1 ms. The time is counted in milliseconds and converted
// to seconds by a linear rule; a sine in millivolts shown in volts; a wrapping counter; a
// temperature settling towards 90 degrees; an operating state of 2 bits.
void write_fast_group(mdf_file* file, const std::string& name) {
  const auto ok = [&](int16_t status) { check(status, name); };
  mdf_group* g = nullptr;
  ok(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE));
  channelnode *time = nullptr, *sine = nullptr, *counter = nullptr, *temperature = nullptr,
              *state = nullptr;
  ok(mdfChnCreate(&time, g, MDF_CHN_TIME, 32, MDF_DT_UINT, "time"));
  ok(mdfChnSetFormLin(time, "s", 0.0, 0.001));
  ok(mdfChnCreate(&sine, g, MDF_CHN_DATA, 16, MDF_DT_INT, "sine"));
  ok(mdfChnSetFormLin(sine, "V", 0.0, 0.001));
  ok(mdfChnSetInfo(sine, nullptr, "5 V sine at 2 Hz", "synthetic test signal"));
  ok(mdfChnCreate(&counter, g, MDF_CHN_DATA, 8, MDF_DT_UINT, "counter"));
  ok(mdfChnCreate(&temperature, g, MDF_CHN_DATA, 32, MDF_DT_FLOAT, "temperature"));
  ok(mdfChnCreate(&state, g, MDF_CHN_DATA, 2, MDF_DT_UINT, "state"));
  ok(mdfChnSetDesc(state, "0 off, 1 starting, 2 running, 3 fault"));
  ok(mdfChnSetRaster(time, 0.001));
  for (int i = 0; i < 1000; ++i) {
    const double t = i * 0.001;
    // The first Write fills record 0; every later one first appends the record before.
    ok(mdfChnWritePhy(time, t));
    ok(mdfChnSetPhy(sine, 5.0 * std::sin(2.0 * kPi * 2.0 * t)));
    ok(mdfChnSetHexInt(counter, static_cast<uint64_t>(i % 256)));
    ok(mdfChnSetPhy(temperature, 90.0 - 70.0 * std::exp(-t / 0.25)));
    ok(mdfChnSetHexInt(state, i < 100 ? 0 : i < 300 ? 1 : i < 950 ? 2 : 3));
  }
  // Closing the group closes its channels; the time channel's pending record is appended.
  ok(mdfGrpClose(g));
}

// The slow group: 100 records at 100 ms. Time in seconds as doubles, a battery voltage, three
// flag bits, and a vehicle speed stored in Motorola byte order in steps of 0.01 km/h.
void write_slow_group(mdf_file* file, const std::string& name) {
  const auto ok = [&](int16_t status) { check(status, name); };
  mdf_group* g = nullptr;
  ok(mdfGrpOpen(&g, file, 1, MDF_OPEN_CREATE));
  channelnode *time = nullptr, *voltage = nullptr, *flags = nullptr, *speed = nullptr;
  ok(mdfChnCreate(&time, g, MDF_CHN_TIME, 64, MDF_DT_DOUBLE, "time"));
  ok(mdfChnSetFormLin(time, "s", 0.0, 1.0));
  ok(mdfChnCreate(&voltage, g, MDF_CHN_DATA, 64, MDF_DT_DOUBLE, "battery"));
  ok(mdfChnSetFormLin(voltage, "V", 0.0, 1.0));
  ok(mdfChnCreate(&flags, g, MDF_CHN_DATA, 3, MDF_DT_UINT, "flags"));
  ok(mdfChnCreate(&speed, g, MDF_CHN_DATA, 16, MDF_DT_UINT_BE, "speed"));
  ok(mdfChnSetFormLin(speed, "km/h", 0.0, 0.01));
  ok(mdfChnSetLongName(speed, "vehicle_speed_from_wheel_sensors"));
  for (int i = 0; i < 100; ++i) {
    const double t = i * 0.1;
    ok(mdfChnWritePhy(time, t));
    ok(mdfChnSetPhy(voltage, 12.6 - 0.004 * i));
    ok(mdfChnSetHexInt(flags, static_cast<uint64_t>(i / 10 % 8)));
    ok(mdfChnSetPhy(speed, t < 5.0 ? 20.0 * t : 100.0));
  }
  ok(mdfGrpClose(g));
}

struct Options {
  std::string file = "korvel-demo.mdf";
  bool force = false;
};

int run(const Options& o) {
  check_output_path(o.file, {}, o.force);
  Session session;
  const bool done = session.run([&] {
    mdf_file* file = nullptr;
    check(mdfFileOpen(&file, o.file.c_str(), MDF_OPEN_CREATE), o.file);
    check(mdfFileSetInfo(file, nullptr, nullptr, "example measurement written by korvel demo",
                         "korvel demo", nullptr, "demo", "synthetic signals"),
          o.file);
    // A created group goes to the head of the file's list of groups, so the group written
    // last is the first a reader finds.
    write_slow_group(file, o.file);
    write_fast_group(file, o.file);
    check(mdfFileClose(file), o.file);
    std::cout << "wrote " << o.file << "\n\n";
    print_file_info(o.file);
  });
  std::cout.flush();
  return done ? kExitOk : kExitFailure;
}

Runner add(CLI::App& app) {
  auto o = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand("demo", "Write an example measurement file and show it");
  sub->footer(
      "Writes two channel groups of synthetic signals, reads the file back and shows it as\n"
      "info does. An existing file is not replaced unless --force.");
  sub->add_option("FILE", o->file, "the file to write")->capture_default_str();
  sub->add_flag("--force", o->force, "replace an existing file");
  return [o] { return run(*o); };
}

const bool registered = register_command({"demo", "korvel demo [--force] [FILE]", 40, add});

}  // namespace
}  // namespace korvel::tool
