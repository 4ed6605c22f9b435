// POSIX implementation of the platform layer.
#if !defined(_WIN32)

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/platform.h"

static_assert(sizeof(off_t) >= 8, "64-bit file offsets are required");

namespace korvel::platform {
namespace {

// Read and write for everyone the process's umask allows, as for any file a program makes;
// a sorted file ends up as a renamed temporary file, so both get the same permissions.
constexpr mode_t kNewFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

// Calls into the file system made through this layer.
uint64_t g_file_calls = 0;

inline void count_call() {
  ++g_file_calls;
}

// An object inside the library, whose address tells dladdr which module we are.
const char g_module_anchor = 0;

void copy_cut(char* buffer, std::size_t size, const char* text) {
  if (buffer == nullptr || size == 0) return;
  std::size_t n = std::strlen(text);
  if (n > size - 1) n = size - 1;
  std::memcpy(buffer, text, n);
  buffer[n] = '\0';
}

// "MemAvailable:  123456 kB" from /proc/meminfo, in bytes; 0 when not there.
uint64_t meminfo_available() {
  std::FILE* f = std::fopen("/proc/meminfo", "r");
  if (f == nullptr) return 0;
  char line[256];
  uint64_t bytes = 0;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, "MemAvailable:", 13) == 0) {
      bytes = std::strtoull(line + 13, nullptr, 10) * 1024u;
      break;
    }
  }
  std::fclose(f);
  return bytes;
}

}  // namespace

// ---- Module, memory, clock -------------------------------------------------------------------

void module_file_name(char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) return;
  buffer[0] = '\0';
  Dl_info info{};
  const char* name = nullptr;
  if (dladdr(&g_module_anchor, &info) != 0 && info.dli_fname != nullptr &&
      info.dli_fname[0] != '\0') {
    name = info.dli_fname;
  }
  char resolved[PATH_MAX];
  if (name != nullptr && realpath(name, resolved) != nullptr) {
    copy_cut(buffer, size, resolved);
    return;
  }
  // Linked into the program itself (static archive): the program's own path.
  const ssize_t n = readlink("/proc/self/exe", resolved, sizeof resolved - 1);
  if (n > 0) {
    resolved[n] = '\0';
    copy_cut(buffer, size, resolved);
    return;
  }
  if (name != nullptr) copy_cut(buffer, size, name);
}

uint64_t available_physical_memory() {
  const uint64_t from_meminfo = meminfo_available();
  if (from_meminfo != 0) return from_meminfo;
  const long pages = sysconf(_SC_AVPHYS_PAGES);
  const long page_size = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || page_size <= 0) return 0;
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(page_size);
}

bool current_time(ClockReading* out) {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return false;
  tzset();
  out->seconds = static_cast<int64_t>(now.tv_sec);
  // `timezone` holds the standard offset in seconds west of UTC, without daylight saving.
  out->minutes_west = static_cast<int32_t>(timezone / 60);
  return true;
}

void local_calendar_time(CalendarTime* out) {
  *out = CalendarTime{};
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return;
  const time_t seconds = now.tv_sec;
  tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return;
  out->year = static_cast<uint16_t>(local.tm_year + 1900);
  out->month = static_cast<uint16_t>(local.tm_mon + 1);
  out->day = static_cast<uint16_t>(local.tm_mday);
  out->hour = static_cast<uint16_t>(local.tm_hour);
  out->minute = static_cast<uint16_t>(local.tm_min);
  out->second = static_cast<uint16_t>(local.tm_sec);
  out->millisecond = static_cast<uint16_t>(now.tv_nsec / 1000000);
}

uint32_t tick_count_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t ms =
      static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec / 1000000);
  return static_cast<uint32_t>(ms);  // wraps like a 32-bit tick counter
}

void yield_processor() {
  sched_yield();
}

// ---- File names ------------------------------------------------------------------------------

bool make_temp_file(const char* directory, const char* prefix, char* out, std::size_t size) {
  if (out == nullptr || size == 0) return false;
  out[0] = '\0';
  char dir[PATH_MAX];
  copy_cut(dir, sizeof dir, directory != nullptr && directory[0] != '\0' ? directory : ".");
  const std::size_t dir_len = std::strlen(dir);
  const char* separator = dir[dir_len - 1] == '/' ? "" : "/";
  char stem[4] = {};
  if (prefix != nullptr) {
    for (int i = 0; i < 3 && prefix[i] != '\0'; ++i) stem[i] = prefix[i];
  }
  // Start from a number that differs between processes and moments, then walk on until a
  // name is free; 0 is skipped as the system's own temp naming does.
  uint32_t unique = (tick_count_ms() ^ static_cast<uint32_t>(getpid()) * 2654435761u) & 0xFFFFu;
  for (uint32_t attempt = 0; attempt < 0xFFFFu; ++attempt) {
    if (unique == 0) unique = 1;
    char name[PATH_MAX + 16];
    const int n = std::snprintf(name, sizeof name, "%s%s%s%04X.TMP", dir, separator, stem,
                                static_cast<unsigned>(unique));
    if (n < 0 || static_cast<std::size_t>(n) >= size) return false;
    count_call();
    const int fd = ::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
    if (fd >= 0) {
      ::close(fd);
      std::memcpy(out, name, static_cast<std::size_t>(n) + 1);
      return true;
    }
    if (errno != EEXIST) return false;  // directory missing, not writable, ...
    unique = (unique + 1) & 0xFFFFu;
  }
  return false;
}

bool remove_file(const char* name) {
  count_call();
  return std::remove(name) == 0;
}

bool rename_file(const char* from, const char* to) {
  count_call();
  return std::rename(from, to) == 0;
}

bool replace_file(const char* from, const char* to) {
  count_call();
  return ::rename(from, to) == 0;  // atomic, and replaces an existing target
}

// ---- Descriptor files ------------------------------------------------------------------------

int open_file(const char* name, OpenMode mode) {
  count_call();
  int flags = O_CLOEXEC;
  switch (mode) {
    case OpenMode::read:
      flags |= O_RDONLY;
      break;
    case OpenMode::read_write:
      flags |= O_RDWR;
      break;
    case OpenMode::create:
      flags |= O_RDWR | O_CREAT;
      break;
  }
  int fd;
  do {
    fd = ::open(name, flags, kNewFileMode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool close_file(int fd) {
  count_call();
  return ::close(fd) == 0;
}

bool read_file(int fd, void* dest, std::size_t count) {
  count_call();
  auto* p = static_cast<char*>(dest);
  while (count > 0) {
    const ssize_t n = ::read(fd, p, count);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

bool write_file(int fd, const void* src, std::size_t count) {
  count_call();
  const auto* p = static_cast<const char*>(src);
  while (count > 0) {
    const ssize_t n = ::write(fd, p, count);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

int64_t read_file_at(int fd, void* dest, std::size_t count, int64_t offset) {
  count_call();
  if (offset < 0) return -1;
  auto* p = static_cast<char*>(dest);
  int64_t total = 0;
  while (count > 0) {
    const ssize_t n = ::pread(fd, p, count, static_cast<off_t>(offset + total));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;  // end of file
    p += n;
    total += n;
    count -= static_cast<std::size_t>(n);
  }
  return total;
}

bool write_file_at(int fd, const void* src, std::size_t count, int64_t offset) {
  count_call();
  if (offset < 0) return false;
  const auto* p = static_cast<const char*>(src);
  int64_t done = 0;
  while (count > 0) {
    const ssize_t n = ::pwrite(fd, p, count, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    done += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

bool seek_file(int fd, int64_t offset) {
  count_call();
  return ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) != static_cast<off_t>(-1);
}

int64_t file_length(int fd) {
  count_call();
  struct stat st {};
  if (::fstat(fd, &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

bool file_status(int fd, FileStatus* out) {
  count_call();
  struct stat st {};
  if (::fstat(fd, &st) != 0) return false;
  out->length = static_cast<int64_t>(st.st_size);
  out->device = static_cast<uint64_t>(st.st_dev);
  out->file_id = static_cast<uint64_t>(st.st_ino);
  return true;
}

bool set_file_length(int fd, int64_t length) {
  count_call();
  if (length < 0) return false;
  int rc;
  do {
    rc = ::ftruncate(fd, static_cast<off_t>(length));
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

// ---- Stream files ----------------------------------------------------------------------------

std::FILE* open_stream(const char* name, const char* mode) {
  count_call();
  return std::fopen(name, mode);
}

bool set_stream_buffer(std::FILE* stream, char* buffer, std::size_t size) {
  return std::setvbuf(stream, buffer, _IOFBF, size) == 0;
}

int stream_descriptor(std::FILE* stream) {
  return ::fileno(stream);
}

bool close_stream(std::FILE* stream) {
  count_call();
  return std::fclose(stream) == 0;
}

bool read_stream(std::FILE* stream, void* dest, std::size_t count) {
  count_call();
  if (count == 0) return true;
  return std::fread(dest, count, 1, stream) == 1;
}

bool write_stream(std::FILE* stream, const void* src, std::size_t count) {
  count_call();
  if (count == 0) return true;
  return std::fwrite(src, count, 1, stream) == 1;
}

bool seek_stream(std::FILE* stream, int64_t offset) {
  count_call();
  if (offset < 0) return false;
  return ::fseeko(stream, static_cast<off_t>(offset), SEEK_SET) == 0;
}

bool seek_stream_to_end(std::FILE* stream) {
  count_call();
  return ::fseeko(stream, 0, SEEK_END) == 0;
}

bool flush_stream(std::FILE* stream) {
  count_call();
  return std::fflush(stream) == 0;
}

// ---- Accounting ------------------------------------------------------------------------------

uint64_t file_call_count() {
  return g_file_calls;
}

}  // namespace korvel::platform

#endif  // !_WIN32
