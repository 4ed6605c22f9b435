// The operating-system services the library uses, behind one small interface.
//
// Everything above this layer is portable C++; everything system-specific lives in one
// implementation file per system (platform_posix.cpp, platform_win32.cpp), each compiled
// only on its own system. No system header is included here.
//
// Files are identified by integer descriptors with 64-bit positions. Functions that move
// data move whole counts: a transfer that stops short (end of file, full disk, error)
// reports failure. Every function that works on a file, a stream or a file name counts
// one call on a process-wide counter, so that tests can show that an operation made no
// system call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace korvel::platform {

// ---- Module, memory, clock -------------------------------------------------------------------

// Full path of the shared library module, terminated and cut to size - 1 characters; an
// empty string when the system cannot tell.
void module_file_name(char* buffer, std::size_t size);

// Physical memory currently available to processes, in bytes.
uint64_t available_physical_memory();

// The current time as seconds since 1970 (UTC) together with the local zone's standard
// offset in minutes west of UTC (daylight saving not included).
struct ClockReading {
  int64_t seconds = 0;
  int32_t minutes_west = 0;
};
// False when the clock cannot be read.
bool current_time(ClockReading* out);

// Local calendar time; month 1-12, day 1-31.
struct CalendarTime {
  uint16_t year = 0;
  uint16_t month = 0;
  uint16_t day = 0;
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
  uint16_t millisecond = 0;
};
void local_calendar_time(CalendarTime* out);

// Milliseconds since an arbitrary fixed point (system start), monotonic, wrapping at 2^32.
uint32_t tick_count_ms();

// Gives the rest of the time slice to other threads (a zero-length sleep).
void yield_processor();

// ---- File names ------------------------------------------------------------------------------

// Creates a new, empty file with a unique name in `directory` and stores its name in `out`.
// The name is the directory, a separator, the first three characters of `prefix`, four hex
// digits and ".TMP". An empty or null directory means the current directory. False when no
// file could be created or the name does not fit into `size` characters.
bool make_temp_file(const char* directory, const char* prefix, char* out, std::size_t size);

bool remove_file(const char* name);
// Gives `from` the name `to` with the C runtime's rename; whether an existing `to` is
// replaced differs between systems (POSIX replaces it, Windows refuses).
bool rename_file(const char* from, const char* to);
// Puts `from` in the place of `to` in one step, replacing an existing `to`: at every moment
// `to` is either the old file or the new one. Both names must lie on one volume.
bool replace_file(const char* from, const char* to);

// ---- Descriptor files ------------------------------------------------------------------------

enum class OpenMode {
  read,        // existing file, read only
  read_write,  // existing file, read and write
  create,      // read and write; created if missing with read and write permission for
               // the owner; an existing file is neither truncated nor replaced
};

// All files are binary. Returns the descriptor, or -1.
int open_file(const char* name, OpenMode mode);
bool close_file(int fd);

// Sequential transfers at the descriptor's position.
bool read_file(int fd, void* dest, std::size_t count);
bool write_file(int fd, const void* src, std::size_t count);

// Positioned transfers; they do not use or move the descriptor's position. read_file_at
// returns the number of bytes read, which is less than `count` only at the end of the file,
// or -1 on error.
int64_t read_file_at(int fd, void* dest, std::size_t count, int64_t offset);
bool write_file_at(int fd, const void* src, std::size_t count, int64_t offset);

// Moves the descriptor's position to `offset` from the start; false on failure (for
// example a negative offset).
bool seek_file(int fd, int64_t offset);

// The file's length in bytes, or -1.
int64_t file_length(int fd);

// Length and identity of an open file. Two descriptors with equal identity refer to the
// same file.
struct FileStatus {
  int64_t length = -1;
  uint64_t device = 0;
  uint64_t file_id = 0;
};
bool file_status(int fd, FileStatus* out);

// Changes the file's length (truncates or extends with zero bytes).
bool set_file_length(int fd, int64_t length);

// ---- Stream files ----------------------------------------------------------------------------

// Opens a stream with a C mode string ("rb", "rb+", "wb+"); null on failure.
std::FILE* open_stream(const char* name, const char* mode);
// Gives the stream a caller-owned buffer used for full buffering; before any transfer.
bool set_stream_buffer(std::FILE* stream, char* buffer, std::size_t size);
// The descriptor number underlying the stream, or -1.
int stream_descriptor(std::FILE* stream);
bool close_stream(std::FILE* stream);
// One item of `count` bytes, which must arrive whole.
bool read_stream(std::FILE* stream, void* dest, std::size_t count);
bool write_stream(std::FILE* stream, const void* src, std::size_t count);
// Moves the stream to `offset` from the start; also the point at which a stream may change
// between reading and writing.
bool seek_stream(std::FILE* stream, int64_t offset);
// Moves the stream to the end of the file.
bool seek_stream_to_end(std::FILE* stream);
// Flushes one stream, or all open output streams of the process when `stream` is null.
bool flush_stream(std::FILE* stream);

// ---- Accounting ------------------------------------------------------------------------------

// Number of file, stream and file-name calls made through this layer since the process
// started.
uint64_t file_call_count();

}  // namespace korvel::platform
