// korvel dump FILE [--hex]: the library's text dump of a file's block structure, on standard
// output.
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "tool.h"

namespace korvel::tool {
namespace {

struct Options {
  std::string file;
  bool hex = false;
};

int run(const Options& o) {
  Session session;
  Output out;
  // The library prints the dump to its log; the part written by this dump is passed on.
  const bool done = session.run([&] {
    const std::uintmax_t mark = session.log_size();
    check(mdfDump(o.file.c_str(), o.hex ? 1 : 0), o.file);
    out.text(session.log_since(mark));
  });
  if (!done) return kExitFailure;
  out.commit();
  return kExitOk;
}

Runner add(CLI::App& app) {
  auto o = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand("dump", "Print the block structure of a measurement file");
  sub->footer(
      "Every block from the identification to the conversion rules and module information,\n"
      "as the library's text dump prints it; --hex adds the bytes of every block.");
  sub->add_option("FILE", o->file, "an MDF file")->required();
  sub->add_flag("--hex", o->hex, "add a hex dump of every block");
  return [o] { return run(*o); };
}

const bool registered = register_command({"dump", "korvel dump [--hex] FILE", 20, add});

}  // namespace
}  // namespace korvel::tool
