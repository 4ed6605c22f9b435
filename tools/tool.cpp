#include "tool.h"

#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
#include <system_error>

namespace korvel::tool {

namespace fs = std::filesystem;

// ---- Commands ---------------------------------------------------------------------------------

namespace {
std::vector<Command>& table() {
  static std::vector<Command> commands;
  return commands;
}
}  // namespace

bool register_command(const Command& command) {
  table().push_back(command);
  return true;
}

std::vector<Command> commands() {
  std::vector<Command> sorted = table();
  std::sort(sorted.begin(), sorted.end(),
            [](const Command& a, const Command& b) { return a.order < b.order; });
  return sorted;
}

// ---- Failures ---------------------------------------------------------------------------------

std::string status_text(int16_t status) {
  const char* text = mdfGetTextStrD(status);
  return text != nullptr ? text : "unknown status";
}

void report(const LibraryError& error) {
  std::fprintf(stderr, "korvel: %s: %s (%d)\n", error.file.c_str(),
               status_text(error.status).c_str(), error.status);
}

void report(const std::string& message) {
  if (!message.empty()) std::fprintf(stderr, "korvel: %s\n", message.c_str());
}

// ---- The library session ----------------------------------------------------------------------

Session::Session() {
  const fs::path home = fs::current_path();
  std::random_device random;
  for (int attempt = 0; dir_.empty(); ++attempt) {
    fs::path candidate = fs::temp_directory_path() / ("korvel-" + std::to_string(random()));
    if (fs::create_directory(candidate)) dir_ = candidate;
    if (attempt == 100) throw ToolError{"cannot make a temporary directory", kExitFailure};
  }
  fs::permissions(dir_, fs::perms::owner_all, fs::perm_options::replace);
  // The log opens at the first line printed and stays open for the life of the process.
  fs::current_path(dir_);
  mdfPrintf("%s", "");
  fs::current_path(home);
}

Session::~Session() {
  mdfClose();
  std::error_code ignored;  // on systems that cannot delete an open file the directory stays
  fs::remove_all(dir_, ignored);
}

std::uintmax_t Session::log_size() const {
  std::error_code ec;
  const std::uintmax_t size = fs::file_size(dir_ / "KORVEL.LOG", ec);
  return ec ? 0 : size;
}

std::string Session::log_since(std::uintmax_t mark) const {
  std::ifstream log(dir_ / "KORVEL.LOG", std::ios::binary);
  log.seekg(static_cast<std::streamoff>(mark));
  std::string text(std::istreambuf_iterator<char>(log), {});
  std::erase(text, '\r');
  return text;
}

bool Session::run(const std::function<void()>& work) {
  mdfClose();
  mdfOpen("KORVEL");
  const std::uintmax_t mark = log_size();
  try {
    work();
    return true;
  } catch (const LibraryError& e) {
    report(e);
    std::istringstream log(log_since(mark));
    for (std::string line; std::getline(log, line);)
      if (!line.empty()) std::fprintf(stderr, "%s\n", line.c_str());
    return false;
  }
}

// ---- Ctrl-C -----------------------------------------------------------------------------------

volatile std::sig_atomic_t interrupted = 0;

void catch_interrupt() {
  std::signal(SIGINT, [](int) { interrupted = 1; });
  std::signal(SIGTERM, [](int) { interrupted = 1; });
#ifdef SIGPIPE
  // A reader that stops early (korvel export FILE | head) makes writes fail instead of
  // killing the program before it removes its temporary directory.
  std::signal(SIGPIPE, SIG_IGN);
#endif
}

bool stderr_is_terminal() {
#if defined(_WIN32)
  return _isatty(_fileno(stderr)) != 0;
#else
  return isatty(fileno(stderr)) != 0;
#endif
}

// ---- Output -----------------------------------------------------------------------------------

namespace {
// Buffers of finished outputs, kept for the next one: an export writes one file per group,
// and fresh memory for each would cost the system a page fault per page.
std::vector<std::vector<char>> g_spare_buffers;

std::vector<char> take_buffer(std::size_t size) {
  if (g_spare_buffers.empty()) return std::vector<char>(size);
  std::vector<char> b = std::move(g_spare_buffers.back());
  g_spare_buffers.pop_back();
  return b;
}
}  // namespace

Output::Output()
    : buffer_(take_buffer(kCapacity)), spare_(take_buffer(kCapacity)), stream_(stdout) {}

Output::Output(const fs::path& path)
    : buffer_(take_buffer(kCapacity)), spare_(take_buffer(kCapacity)), path_(path) {
  partial_ = path;
  partial_ += ".partial";
  stream_ = std::fopen(partial_.string().c_str(), "wb");
  if (stream_ == nullptr)
    throw ToolError{path.string() + ": " + std::strerror(errno), kExitFailure};
}

Output::~Output() {
  stop_writer();
  g_spare_buffers.push_back(std::move(buffer_));
  g_spare_buffers.push_back(std::move(spare_));
  if (path_.empty()) return;
  if (stream_ != nullptr) std::fclose(stream_);
  std::error_code ignored;
  fs::remove(partial_, ignored);
}

void Output::fail(int error) {
  // A closed pipe on standard output is the reader's choice, not a failure to report.
  if (path_.empty() && error == EPIPE) throw ToolError{"", kExitFailure};
  throw ToolError{(path_.empty() ? std::string("standard output") : path_.string()) + ": " +
                      std::strerror(error),
                  kExitFailure};
}

void Output::write_now(std::string_view s, int* error) {
  if (std::fwrite(s.data(), 1, s.size(), stream_) != s.size()) *error = errno != 0 ? errno : EIO;
}

void Output::wait_writer() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return !busy_; });
  if (const int error = writer_error_; error != 0) {
    lock.unlock();
    fail(error);
  }
}

void Output::stop_writer() {
  if (!writer_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  writer_.join();
}

void Output::write(std::string_view s) {
  wait_writer();
  int error = 0;
  write_now(s, &error);
  if (error != 0) fail(error);
}

void Output::drain() {
  if (used_ == 0) return;
  wait_writer();
  std::swap(buffer_, spare_);
  {
    std::lock_guard lock(mutex_);
    pending_ = used_;
    busy_ = true;
  }
  used_ = 0;
  if (!writer_.joinable()) {
    writer_ = std::thread([this] {
      std::unique_lock lock(mutex_);
      for (;;) {
        changed_.wait(lock, [this] { return busy_ || stop_; });
        if (!busy_) return;
        lock.unlock();
        int error = 0;
        write_now(std::string_view(spare_.data(), pending_), &error);
        lock.lock();
        if (error != 0 && writer_error_ == 0) writer_error_ = error;
        busy_ = false;
        changed_.notify_all();
      }
    });
  } else {
    changed_.notify_all();
  }
}

void Output::commit() {
  drain();
  wait_writer();
  stop_writer();
  if (path_.empty()) {
    if (std::fflush(stream_) != 0) throw ToolError{"standard output: write failed", kExitFailure};
    return;
  }
  const int closed = std::fclose(stream_);
  stream_ = nullptr;
  if (closed != 0) throw ToolError{path_.string() + ": " + std::strerror(errno), kExitFailure};
  std::error_code ec;
  fs::rename(partial_, path_, ec);
  if (ec) throw ToolError{path_.string() + ": " + ec.message(), kExitFailure};
}

void Output::number(double v) {
  char* at = room();  // first: it may hand the buffer to the writer and take the other one
  used_ = static_cast<std::size_t>(std::to_chars(at, buffer_.data() + kCapacity, v).ptr -
                                   buffer_.data());
}
void Output::number(int64_t v) {
  char* at = room();  // first: it may hand the buffer to the writer and take the other one
  used_ = static_cast<std::size_t>(std::to_chars(at, buffer_.data() + kCapacity, v).ptr -
                                   buffer_.data());
}
void Output::number(uint64_t v) {
  char* at = room();  // first: it may hand the buffer to the writer and take the other one
  used_ = static_cast<std::size_t>(std::to_chars(at, buffer_.data() + kCapacity, v).ptr -
                                   buffer_.data());
}

// ---- Formatting -------------------------------------------------------------------------------

std::string format_number(double v) {
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, v).ptr);
}

std::string field(const char* text, std::size_t width) {
  if (text == nullptr) return {};
  std::size_t n = 0;
  while (n < width && text[n] != '\0') ++n;
  return std::string(text, n);
}

std::string data_type_name(uint16_t code) {
  static const char* const names[] = {"uint",     "int",      "float",     "double",  "VAX F",
                                      "VAX G",    "VAX D",    "string",    "bytes",   "uint BE",
                                      "int BE",   "float BE", "double BE", "uint LE", "int LE",
                                      "float LE", "double LE"};
  return code < std::size(names) ? names[code] : "type " + std::to_string(code);
}

std::string conversion_name(uint16_t code, bool has_rule) {
  if (!has_rule) return "none";
  switch (code) {
    case MDF_CC_FRM_LIN:
      return "linear";
    case MDF_CC_FRM_ITAB:
      return "table interp";
    case MDF_CC_FRM_TAB:
      return "table";
    case MDF_CC_FRM_POL:
      return "polynomial";
    case MDF_CC_FRM_EXP:
      return "exponential";
    case MDF_CC_FRM_LOG:
      return "logarithmic";
    case MDF_CC_FRM_RAT:
      return "rational";
    case MDF_CC_FRM_TXT:
      return "formula";
    case MDF_CC_FRM_VTAB:
      return "value texts";
    case MDF_CC_FRM_VTABR:
      return "range texts";
    case MDF_CC_FRM_NON:
      return "1:1";
    default:
      return "type " + std::to_string(code);
  }
}

void check_output_path(const fs::path& out, const fs::path& input, bool force) {
  std::error_code ec;
  if (!input.empty() && fs::equivalent(out, input, ec))
    throw ToolError{out.string() + ": is the file being read", kExitUsage};
  if (!force && fs::exists(out))
    throw ToolError{out.string() + ": exists (--force replaces it)", kExitFailure};
}

}  // namespace korvel::tool
