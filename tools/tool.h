// What the commands of the korvel program share: the command table, library failures and
// how they are reported, the library session with its private log, large buffered output,
// number formatting and the names of type codes.
//
// A command is one file, cmd_NAME.cpp, that registers itself:
//
//   namespace {
//   Runner add(CLI::App& app) {
//     auto options = std::make_shared<Options>();
//     CLI::App* sub = app.add_subcommand("name", "what it does");
//     sub->add_option("FILE", options->file, "...")->required();
//     return [options] { return run(*options); };
//   }
//   const bool registered = register_command({"name", "usage line", 40, add});
//   }
//
// The program uses only the library's public interface.
#pragma once

#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "korvel.h"

namespace CLI {
class App;
}

namespace korvel::tool {

// Exit codes of the program.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // a library call failed, or a file could not be written
constexpr int kExitUsage = 2;    // a wrong argument
constexpr int kExitInterrupted = 130;

// ---- Commands ---------------------------------------------------------------------------------

// Runs a command after its command line is parsed; returns the exit code.
using Runner = std::function<int()>;

struct Command {
  const char* name;
  const char* usage;  // one line shown after a wrong argument, e.g. "korvel info [--json] FILE..."
  int order;          // place in the list of commands
  Runner (*add)(CLI::App& app);  // adds the subcommand with its options
};

// Adds a command to the program's table; called from a static initialiser in its file.
bool register_command(const Command& command);
// The registered commands, in their order.
std::vector<Command> commands();

// ---- Failures ---------------------------------------------------------------------------------

// A library call that failed on a file: shown as "korvel: FILE: <status text> (<code>)".
struct LibraryError {
  std::string file;
  int16_t status;
};

// A failure that is not the library's (an output file that cannot be written, an argument that
// does not fit the file): shown as "korvel: <message>" with the exit code.
struct ToolError {
  std::string message;
  int exit_code;
};

// Throws a LibraryError unless the status is 0.
inline void check(int16_t status, const std::string& file) {
  if (status != 0) throw LibraryError{file, status};
}

// The status text of a code ("" for 0, "unknown status" for a code without text).
std::string status_text(int16_t status);
// Prints "korvel: FILE: <status text> (<code>)" on standard error.
void report(const LibraryError& error);
// Prints "korvel: <message>" on standard error (nothing for an empty message).
void report(const std::string& message);

// ---- The library session ----------------------------------------------------------------------

// The library writes its log "KORVEL.LOG" into the current directory of the process when it
// prints its first line, and keeps it open. The session opens that log in a private temporary
// directory at once and goes back to the user's directory, so relative paths keep their meaning
// and no log is left behind; the lines of a failed run are copied to standard error.
class Session {
 public:
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Runs the work on a file with the library started afresh (whatever is still open is
  // closed and a stored error cleared, so one failing file does not stop the next). A library
  // failure is reported with the log lines written meanwhile; returns false then.
  bool run(const std::function<void()>& work);

  // The size of the log so far, and what the library printed to it after that mark (lines
  // ended by a line feed alone, whatever the system's line ends).
  std::uintmax_t log_size() const;
  std::string log_since(std::uintmax_t mark) const;

 private:
  std::filesystem::path dir_;
};

// ---- Ctrl-C -----------------------------------------------------------------------------------

// Set by SIGINT or SIGTERM once the handler is installed; long loops stop and the program exits
// with 130.
extern volatile std::sig_atomic_t interrupted;
// Installs the handler, and makes writes to a closed pipe fail rather than kill.
void catch_interrupt();
// Whether standard error is shown on a terminal (a progress bar) or goes to a file or pipe.
bool stderr_is_terminal();
// Thrown by loops that saw the interrupt.
struct Interrupted {};

// ---- Output -----------------------------------------------------------------------------------

// Text written in large pieces to standard output or to a file. A file is written under a
// temporary name beside its final one and renamed by commit(), so an interrupted or failed run
// leaves no half-written file and does not destroy an older one.
//
// A full buffer is handed to a writer thread, which writes it while the next one fills: the
// system's copying of the text overlaps the formatting. The bytes and their order are those
// of one thread writing; a failure of the writer is reported by the next call that hands it a
// buffer, or by commit().
class Output {
 public:
  Output();                                            // standard output
  explicit Output(const std::filesystem::path& path);  // a file
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void text(std::string_view s) {
    if (s.size() > kCapacity - used_) drain();
    if (s.size() > kCapacity) return write(s);
    s.copy(buffer_.data() + used_, s.size());
    used_ += s.size();
  }
  void put(char c) {
    if (used_ == kCapacity) drain();
    buffer_[used_++] = c;
  }
  void number(double v);
  void number(int64_t v);
  void number(uint64_t v);
  // Writes what is buffered, and for a file renames it to its final name.
  void commit();

 private:
  static constexpr std::size_t kCapacity = 1 << 20;
  void drain();                    // hands the buffer to the writer
  void write(std::string_view s);  // writes now, after the writer's buffer
  void write_now(std::string_view s, int* error);
  void wait_writer();  // the writer idle; throws its failure
  void stop_writer();
  [[noreturn]] void fail(int error);
  // Room for the longest number: makes sure 32 bytes are free.
  char* room() {
    if (kCapacity - used_ < 32) drain();
    return buffer_.data() + used_;
  }

  std::vector<char> buffer_, spare_;
  std::size_t used_ = 0;
  std::FILE* stream_ = nullptr;
  std::filesystem::path path_, partial_;
  // The writer thread and what it is handed: `pending` bytes of spare_ while `busy`.
  std::thread writer_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t pending_ = 0;
  bool busy_ = false, stop_ = false;
  int writer_error_ = 0;  // errno of the writer's failed write, 0 when none
};

// ---- Formatting -------------------------------------------------------------------------------

// The shortest text that reads back as the same double (or integer).
std::string format_number(double v);
// A fixed-width text field of the library as a string (not terminated when full).
std::string field(const char* text, std::size_t width);
// Short names of data types ("uint", "int BE", "float", ...) and conversion types ("linear",
// "none" for a channel without a rule, ...).
std::string data_type_name(uint16_t code);
std::string conversion_name(uint16_t code, bool has_rule);

// Prints what `info` shows of a file (demo uses it); a library failure throws LibraryError.
void print_file_info(const std::string& file);

// Refuses to replace an existing file unless `force`, and never the file being read.
void check_output_path(const std::filesystem::path& out, const std::filesystem::path& input,
                       bool force);

}  // namespace korvel::tool
