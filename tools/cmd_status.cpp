// korvel status CODE: the text of a status code of the library.
#include <cstdio>
#include <memory>

#include <CLI/CLI.hpp>

#include "tool.h"

namespace korvel::tool {
namespace {

int run(int code) {
  const char* text = mdfGetTextStrD(static_cast<int16_t>(code));
  if (text == nullptr) {
    std::printf("%d: (no text)\n", code);
    return kExitFailure;
  }
  std::printf("%d: %s\n", code, text);
  return kExitOk;
}

Runner add(CLI::App& app) {
  auto code = std::make_shared<int>(0);
  CLI::App* sub = app.add_subcommand("status", "Print the text of a status code of the library");
  sub->footer("0 is success, codes below 0 are errors, codes above 0 notices.");
  sub->add_option("CODE", *code, "a status code")->required()->check(CLI::Range(-32768, 32767));
  return [code] { return run(*code); };
}

const bool registered = register_command({"status", "korvel status CODE", 50, add});

}  // namespace
}  // namespace korvel::tool
