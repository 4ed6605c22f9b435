// The log file "KORVEL.LOG": created in the current directory at the first line printed,
// kept open until the process ends and flushed after every print so it survives a crash.
#include <cstdarg>
#include <cstdio>

#include "frame/frame.h"

namespace {

int print_to_log(const char* format, va_list args) {
  std::FILE*& log = korvel::state().kept.log;
  if (log == nullptr) {
    log = std::fopen("KORVEL.LOG", "w");
    if (log == nullptr) return 0;  // tried again at the next print
  }
  const int written = std::vfprintf(log, format, args);
  std::fflush(log);
  return written;
}

int print_line(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int written = print_to_log(format, args);
  va_end(args);
  return written;
}
}  // namespace

extern "C" {

KORVEL_API int32_t mdfPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int written = print_to_log(format, args);
  va_end(args);
  return written;
}

KORVEL_API int32_t mdfPrintError(const char* text) {
  return print_line("[KORVEL-ERROR] %s\n", text != nullptr ? text : "");
}

KORVEL_API int32_t mdfPrintMessage(const char* text) {
  return print_line("[KORVEL-Message] %s\n", text != nullptr ? text : "");
}

}  // extern "C"
