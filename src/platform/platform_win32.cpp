// Windows implementation of the platform layer.
//
// Files are C runtime descriptors, as streams are built on them: the descriptor of a stream
// and the descriptor of a plainly opened file live in one numbering, which the I/O unit
// relies on. Positioned transfers, lengths and identities go to the system handle behind
// the descriptor, always with 64-bit positions.
#if defined(_WIN32)

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "korvel.h"
#include "platform/platform.h"

namespace korvel::platform {
namespace {

// Calls into the file system made through this layer.
uint64_t g_file_calls = 0;

inline void count_call() {
  ++g_file_calls;
}

// An object inside the library, whose address tells which module we are.
const char g_module_anchor = 0;

// Transfers are cut into pieces the system's 32-bit counts can carry.
constexpr std::size_t kLargestTransfer = std::size_t{1} << 30;

// 100-nanosecond intervals from 1601-01-01 (the system's epoch) to 1970-01-01.
constexpr uint64_t kEpochDifference = 116444736000000000ULL;

void copy_cut(char* buffer, std::size_t size, const char* text) {
  if (buffer == nullptr || size == 0) return;
  std::size_t n = std::strlen(text);
  if (n > size - 1) n = size - 1;
  std::memcpy(buffer, text, n);
  buffer[n] = '\0';
}

HMODULE own_module() {
  HMODULE module = nullptr;
  if (!GetModuleHandleExA(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          &g_module_anchor, &module)) {
    return nullptr;
  }
  return module;
}

HANDLE handle_of(int fd) {
  if (fd < 0) return INVALID_HANDLE_VALUE;
  return reinterpret_cast<HANDLE>(_get_osfhandle(fd));
}

bool current_pointer(HANDLE h, int64_t* out) {
  LARGE_INTEGER zero{}, now{};
  if (!SetFilePointerEx(h, zero, &now, FILE_CURRENT)) return false;
  *out = now.QuadPart;
  return true;
}

bool move_pointer(HANDLE h, int64_t offset) {
  LARGE_INTEGER to{};
  to.QuadPart = offset;
  return SetFilePointerEx(h, to, nullptr, FILE_BEGIN) != 0;
}

OVERLAPPED at_offset(int64_t offset) {
  OVERLAPPED o{};
  o.Offset = static_cast<DWORD>(static_cast<uint64_t>(offset) & 0xFFFFFFFFu);
  o.OffsetHigh = static_cast<DWORD>(static_cast<uint64_t>(offset) >> 32);
  return o;
}

}  // namespace

// ---- Module, memory, clock -------------------------------------------------------------------

void module_file_name(char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) return;
  buffer[0] = '\0';
  // A static archive linked into a program has the program as its module.
  HMODULE module = own_module();
  static char full[32768];  // the longest path the system knows
  const DWORD n = GetModuleFileNameA(module, full, sizeof full);
  if (n == 0 || n >= sizeof full) return;
  full[n] = '\0';
  copy_cut(buffer, size, full);
}

uint64_t available_physical_memory() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  if (!GlobalMemoryStatusEx(&status)) return 0;
  return status.ullAvailPhys;
}

bool current_time(ClockReading* out) {
  FILETIME now{};
  GetSystemTimeAsFileTime(&now);
  TIME_ZONE_INFORMATION zone{};
  if (GetTimeZoneInformation(&zone) == TIME_ZONE_ID_INVALID) return false;
  const uint64_t ticks = (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
  out->seconds = static_cast<int64_t>((ticks - kEpochDifference) / 10000000u);
  // Bias is minutes west of UTC; the standard bias is what standard time adds to it.
  out->minutes_west = static_cast<int32_t>(zone.Bias + zone.StandardBias);
  return true;
}

void local_calendar_time(CalendarTime* out) {
  SYSTEMTIME t{};
  GetLocalTime(&t);
  out->year = t.wYear;
  out->month = t.wMonth;
  out->day = t.wDay;
  out->hour = t.wHour;
  out->minute = t.wMinute;
  out->second = t.wSecond;
  out->millisecond = t.wMilliseconds;
}

uint32_t tick_count_ms() {
  return GetTickCount();
}

void yield_processor() {
  Sleep(0);
}

// ---- File names ------------------------------------------------------------------------------

bool make_temp_file(const char* directory, const char* prefix, char* out, std::size_t size) {
  if (out == nullptr || size == 0) return false;
  out[0] = '\0';
  char dir[MAX_PATH];
  const char* given = directory != nullptr && directory[0] != '\0' ? directory : ".";
  const std::size_t dir_len = std::strlen(given);
  if (dir_len >= MAX_PATH - 14) return false;  // the system's own limit for the directory
  std::memcpy(dir, given, dir_len + 1);
  // The system adds a backslash unless the name ends in one; a final slash becomes that.
  if (dir[dir_len - 1] == '/') dir[dir_len - 1] = '\\';
  char stem[4] = {};
  if (prefix != nullptr) {
    for (int i = 0; i < 3 && prefix[i] != '\0'; ++i) stem[i] = prefix[i];
  }
  // Directory, separator, stem, four hex digits, ".TMP": refuse before a file exists.
  const std::size_t length = dir_len + (dir[dir_len - 1] == '\\' ? 0 : 1) + std::strlen(stem) + 8;
  if (length >= size) return false;
  char name[MAX_PATH];
  count_call();
  if (GetTempFileNameA(dir, stem, 0, name) == 0) return false;
  if (std::strlen(name) >= size) {  // a name longer than foreseen: leave no file behind
    DeleteFileA(name);
    return false;
  }
  std::memcpy(out, name, std::strlen(name) + 1);
  return true;
}

bool remove_file(const char* name) {
  count_call();
  return DeleteFileA(name) != 0;
}

bool rename_file(const char* from, const char* to) {
  count_call();
  return std::rename(from, to) == 0;
}

bool replace_file(const char* from, const char* to) {
  count_call();
  return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

// ---- Descriptor files ------------------------------------------------------------------------

int open_file(const char* name, OpenMode mode) {
  count_call();
  int flags = _O_BINARY | _O_NOINHERIT;
  switch (mode) {
    case OpenMode::read:
      flags |= _O_RDONLY;
      break;
    case OpenMode::read_write:
      flags |= _O_RDWR;
      break;
    case OpenMode::create:
      flags |= _O_RDWR | _O_CREAT;
      break;
  }
  return _open(name, flags, _S_IREAD | _S_IWRITE);
}

bool close_file(int fd) {
  count_call();
  if (fd < 0) return false;
  return _close(fd) == 0;
}

bool read_file(int fd, void* dest, std::size_t count) {
  count_call();
  if (fd < 0) return false;
  auto* p = static_cast<char*>(dest);
  while (count > 0) {
    const unsigned piece =
        static_cast<unsigned>(count < kLargestTransfer ? count : kLargestTransfer);
    const int n = _read(fd, p, piece);
    if (n <= 0) return false;
    p += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

bool write_file(int fd, const void* src, std::size_t count) {
  count_call();
  if (fd < 0) return false;
  const auto* p = static_cast<const char*>(src);
  while (count > 0) {
    const unsigned piece =
        static_cast<unsigned>(count < kLargestTransfer ? count : kLargestTransfer);
    const int n = _write(fd, p, piece);
    if (n <= 0) return false;
    p += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

// A transfer at an offset moves the pointer of a handle opened for synchronous access, so
// the pointer is put back afterwards.
int64_t read_file_at(int fd, void* dest, std::size_t count, int64_t offset) {
  count_call();
  HANDLE h = handle_of(fd);
  int64_t saved = 0;
  if (offset < 0 || h == INVALID_HANDLE_VALUE || !current_pointer(h, &saved)) return -1;
  auto* p = static_cast<char*>(dest);
  int64_t total = 0;
  bool ok = true;
  while (count > 0) {
    const DWORD piece = static_cast<DWORD>(count < kLargestTransfer ? count : kLargestTransfer);
    OVERLAPPED o = at_offset(offset + total);
    DWORD n = 0;
    if (!ReadFile(h, p, piece, &n, &o)) {
      ok = GetLastError() == ERROR_HANDLE_EOF;
      break;
    }
    if (n == 0) break;  // end of file
    p += n;
    total += n;
    count -= n;
  }
  if (!move_pointer(h, saved)) return -1;
  return ok ? total : -1;
}

bool write_file_at(int fd, const void* src, std::size_t count, int64_t offset) {
  count_call();
  HANDLE h = handle_of(fd);
  int64_t saved = 0;
  if (offset < 0 || h == INVALID_HANDLE_VALUE || !current_pointer(h, &saved)) return false;
  const auto* p = static_cast<const char*>(src);
  int64_t done = 0;
  bool ok = true;
  while (count > 0) {
    const DWORD piece = static_cast<DWORD>(count < kLargestTransfer ? count : kLargestTransfer);
    OVERLAPPED o = at_offset(offset + done);
    DWORD n = 0;
    if (!WriteFile(h, p, piece, &n, &o) || n == 0) {
      ok = false;
      break;
    }
    p += n;
    done += n;
    count -= n;
  }
  return move_pointer(h, saved) && ok;
}

bool seek_file(int fd, int64_t offset) {
  count_call();
  if (fd < 0 || offset < 0) return false;
  return _lseeki64(fd, offset, SEEK_SET) != -1;
}

int64_t file_length(int fd) {
  count_call();
  HANDLE h = handle_of(fd);
  LARGE_INTEGER size{};
  if (h == INVALID_HANDLE_VALUE || !GetFileSizeEx(h, &size)) return -1;
  return size.QuadPart;
}

bool file_status(int fd, FileStatus* out) {
  count_call();
  HANDLE h = handle_of(fd);
  BY_HANDLE_FILE_INFORMATION info{};
  if (h == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(h, &info)) return false;
  out->length =
      static_cast<int64_t>((static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
  out->device = info.dwVolumeSerialNumber;
  out->file_id = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  return true;
}

// The end of file is set at the pointer, which is then put back where it was; bytes that
// a longer file gains read as zeros.
bool set_file_length(int fd, int64_t length) {
  count_call();
  HANDLE h = handle_of(fd);
  int64_t saved = 0;
  if (length < 0 || h == INVALID_HANDLE_VALUE || !current_pointer(h, &saved)) return false;
  const bool ok = move_pointer(h, length) && SetEndOfFile(h) != 0;
  return move_pointer(h, saved) && ok;
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
  return _fileno(stream);
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
  return _fseeki64(stream, offset, SEEK_SET) == 0;
}

bool seek_stream_to_end(std::FILE* stream) {
  count_call();
  return _fseeki64(stream, 0, SEEK_END) == 0;
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

// ---- Load-time entry -------------------------------------------------------------------------

// Loaded as a DLL: the load work of LibMain, without thread attach and detach calls (the
// library starts no threads and keeps nothing per thread).
extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    DisableThreadLibraryCalls(module);
    LibMain(module, static_cast<uint16_t>(reason), 1, nullptr);
  }
  return TRUE;
}

namespace {
// Linked into a program from the static archive, no DllMain runs: the load work runs with
// the program's static initialisers instead.
[[maybe_unused]] const bool g_loaded_into_program = [] {
  if (korvel::platform::own_module() == GetModuleHandleA(nullptr)) {
    LibMain(nullptr, 1, 1, nullptr);
  }
  return true;
}();
}  // namespace

#endif  // _WIN32
