// korvel: the command-line program of the Korvel library for MDF 3.x measurement files.
//
// Each command lives in its own file (cmd_*.cpp) and registers itself; this file parses the
// command line, starts the library in a session with a private log, runs the command and turns
// failures into messages and exit codes: 0 done, 1 a library or file failure, 2 a wrong
// argument, 130 interrupted.
#include <iostream>
#include <map>

#include <CLI/CLI.hpp>

#include "tool.h"

namespace {

using namespace korvel::tool;

std::string versions() {
  char library[32] = {};
  char format[16] = {};
  mdfGetKorvelVersion(library, sizeof library - 1);
  mdfGetMdfFormatVersion(format, sizeof format - 1);
  std::string f = format;
  f.erase(f.find_last_not_of(' ') + 1);
  return std::string("korvel ") + library + "\nMDF format up to " + f;
}

// The short usage shown after a wrong argument: the chosen command's, or every command's.
void short_usage(const CLI::App& app, const std::vector<Command>& commands) {
  const auto chosen = app.get_subcommands();
  const std::string name = chosen.empty() ? "" : chosen.front()->get_name();
  const char* lead = "usage:";
  for (const Command& c : commands) {
    if (!name.empty() && name != c.name) continue;
    std::fprintf(stderr, "%s %s\n", lead, c.usage);
    lead = "      ";
  }
  std::fprintf(stderr, "Run 'korvel %s%s--help' for more.\n", name.c_str(),
               name.empty() ? "" : " ");
}

int run(int argc, char** argv) {
  CLI::App app{"korvel: look into, export and write MDF 3.x measurement files.", "korvel"};
  app.require_subcommand(1);
  app.set_version_flag("--version", versions, "Print the library and format versions");
  app.footer("Run 'korvel COMMAND --help' for the options of a command.");
  const std::vector<Command> commands = korvel::tool::commands();
  std::map<const CLI::App*, Runner> runners;
  for (const Command& c : commands) {
    Runner runner = c.add(app);
    runners[app.get_subcommand(c.name)] = std::move(runner);
  }
  // "korvel help [COMMAND]" is "korvel [COMMAND] --help".
  std::string topic;
  CLI::App* help = app.add_subcommand("help", "Print this text, or the help of a command");
  help->add_option("COMMAND", topic, "a command");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::fprintf(stderr, "korvel: %s\n", e.what());
    short_usage(app, commands);
    return kExitUsage;
  }
  if (help->parsed()) {
    const CLI::App* sub = nullptr;
    try {
      if (!topic.empty()) sub = app.get_subcommand(topic);
    } catch (const CLI::OptionNotFound&) {
    }
    if (!topic.empty() && sub == nullptr) {
      std::fprintf(stderr, "korvel: no command %s\n", topic.c_str());
      short_usage(app, commands);
      return kExitUsage;
    }
    std::cout << (sub != nullptr ? sub->help("korvel") : app.help());
    return kExitOk;
  }

  Runner& command = runners.at(app.get_subcommands().front());
  catch_interrupt();
  try {
    return command();
  } catch (const LibraryError& e) {
    report(e);
    return kExitFailure;
  } catch (const ToolError& e) {
    report(e.message);
    return e.exit_code;
  } catch (const Interrupted&) {
    report("interrupted");
    return kExitInterrupted;
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const korvel::tool::ToolError& e) {
    korvel::tool::report(e.message);
    return e.exit_code;
  } catch (const std::exception& e) {
    korvel::tool::report(e.what());
    return korvel::tool::kExitFailure;
  }
}
