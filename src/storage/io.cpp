// Numbered files with 64-bit positions: the record list, the two access styles, and the
// read-ahead window and write buffer of descriptor-style files.
#include "storage/io.h"

#include <algorithm>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "frame/frame.h"
#include "platform/platform.h"

namespace korvel::io {
namespace {

constexpr const char* kUnit = "IO";

// Window fills start on a multiple of this, so that a read just before the last fill point
// (a block head read after its body, a link back by a few bytes) is still covered.
constexpr int64_t kWindowAlign = 4096;

// The largest read served through the window; larger reads go straight to the file.
constexpr std::size_t kLargestWindowRead = kReadAheadSize - static_cast<std::size_t>(kWindowAlign);

// The largest write collected in the write buffer; larger ones go straight to the file.
constexpr std::size_t kLargestBufferedWrite = kWriteBufferSize / 4;

enum class LastTransfer : uint8_t { none, read, write };

}  // namespace

// One open file. Lives in memory from mdfMalloc, so it starts zero-filled.
struct FileRecord {
  uint16_t number;            // the number handed out (the descriptor number)
  std::FILE* stream;          // stream style only
  char* buffer;               // the stream's buffer (mdfMalloc), stream style only
  uint16_t flags;             // as given at open: mode in the low byte, kStreamStyle
  int64_t position;           // current position as the unit believes it
  int64_t size;               // current size as the unit believes it
  FileRecord* next;           // next record of the list
  int fd;                     // descriptor (of the stream, in stream style)
  uint64_t device;            // identity of the file, so that every record open on the same file
  uint64_t file_id;           //   sees the writes made through the others
  uint8_t* window;            // read-ahead window (mdfMalloc), descriptor style, made at first read
  int64_t window_start;       // file position of window[0]
  std::size_t window_length;  // bytes of the window that hold file contents; 0 = empty
  LastTransfer last;          // stream style: direction of the last transfer since the last seek
  uint8_t* pending;           // write buffer (mdfMalloc), kWriteBuffer files, made at first write
  int64_t pending_start;      // file position of pending[0]
  std::size_t pending_length; // bytes written but not yet in the file; 0 = none
};

namespace {

// Head of the list of open files (in the process-wide state); the file used last is first.
FileRecord*& files() {
  return state().kept.io_files;
}

bool is_stream(const FileRecord* r) {
  return (r->flags & kStreamStyle) != 0;
}

// Finds the record of `number` and moves it to the front of the list.
FileRecord* find(uint16_t number) {
  FileRecord* previous = nullptr;
  for (FileRecord* r = files(); r != nullptr; previous = r, r = r->next) {
    if (r->number != number) continue;
    if (previous != nullptr) {
      previous->next = r->next;
      r->next = files();
      files() = r;
    }
    return r;
  }
  return nullptr;
}

bool same_file(const FileRecord* a, const FileRecord* b) {
  return a->device == b->device && a->file_id == b->file_id;
}

// Whether writes to the file collect in its write buffer. A file opened for reading cannot
// be written, so its writes fail at once, as they always did.
bool buffers_writes(const FileRecord* r) {
  return (r->flags & (kStreamStyle | kWriteBuffer)) == kWriteBuffer && (r->flags & 0xFFu) != kRead;
}

// Keeps the windows of every record open on the file of `writer` equal to the file after
// `count` bytes from `src` were written at `offset`.
void note_write(const FileRecord* writer, const void* src, std::size_t count, int64_t offset) {
  const auto* bytes = static_cast<const uint8_t*>(src);
  const int64_t end = offset + static_cast<int64_t>(count);
  for (FileRecord* r = files(); r != nullptr; r = r->next) {
    if (r->window == nullptr || !same_file(r, writer)) continue;
    const int64_t w_start = r->window_start;
    int64_t w_end = w_start + static_cast<int64_t>(r->window_length);
    // Bytes written right behind the window's contents extend it while there is room.
    if (offset <= w_end && end > w_end) {
      const int64_t room = w_start + static_cast<int64_t>(kReadAheadSize);
      const int64_t new_end = end < room ? end : room;
      if (new_end > w_end) {
        r->window_length = static_cast<std::size_t>(new_end - w_start);
        w_end = new_end;
      }
    }
    const int64_t from = offset > w_start ? offset : w_start;
    const int64_t to = end < w_end ? end : w_end;
    if (from < to) {
      std::memcpy(r->window + (from - w_start), bytes + (from - offset),
                  static_cast<std::size_t>(to - from));
    }
  }
}

// After a failed write the file's contents are unknown: empty every window on it.
void forget_windows(const FileRecord* writer) {
  for (FileRecord* r = files(); r != nullptr; r = r->next) {
    if (same_file(r, writer)) r->window_length = 0;
  }
}

// The file was cut or extended to `size`: no window may hold bytes beyond it.
void note_new_size(const FileRecord* changed, int64_t size) {
  for (FileRecord* r = files(); r != nullptr; r = r->next) {
    if (r->window == nullptr || !same_file(r, changed)) continue;
    const int64_t w_end = r->window_start + static_cast<int64_t>(r->window_length);
    if (w_end > size) {
      r->window_length =
          size > r->window_start ? static_cast<std::size_t>(size - r->window_start) : 0;
    }
  }
}

// Puts the operating system's file position at 0 after a failure.
void rewind_file(FileRecord* r) {
  r->position = 0;
  if (is_stream(r)) {
    platform::seek_stream(r->stream, 0);
    r->last = LastTransfer::none;
  } else {
    platform::seek_file(r->fd, 0);
  }
}

// Writes the bytes that `r` holds in its write buffer. On failure they are lost, like the
// bytes of a failed unbuffered write: the windows on the file are emptied, `r` goes to 0 and
// -2000 is raised.
int16_t commit_record(FileRecord* r) {
  if (r->pending_length == 0) return 0;
  const bool ok = platform::write_file_at(r->fd, r->pending, r->pending_length, r->pending_start);
  r->pending_length = 0;
  if (ok) return 0;
  forget_windows(r);
  rewind_file(r);
  return raise(MDF_ERR_WRITE, "");
}

// Writes the buffered bytes of every record open on the file of `r` (`r` included or not),
// before a system call through `r` reads, writes or resizes the file.
int16_t commit_file(const FileRecord* r, bool including_r) {
  for (FileRecord* w = files(); w != nullptr; w = w->next) {
    if (w->pending_length == 0 || (w == r && !including_r) || !same_file(w, r)) continue;
    if (int16_t st = commit_record(w); st != 0) return st;
  }
  return 0;
}

// A write of a kWriteBuffer file at the position: collected when it extends or overwrites
// the buffered bytes within the buffer's size, else the buffered bytes go first and the
// write starts a new run (or goes to the file at once when large). Returns 0, the status of
// a failed commit (raised), or 1 when the write itself failed at the system.
int16_t buffered_write(FileRecord* r, const void* src, std::size_t count) {
  const int64_t pos = r->position;
  const int64_t start = r->pending_start;
  const int64_t end = start + static_cast<int64_t>(r->pending_length);
  const int64_t limit = start + static_cast<int64_t>(kWriteBufferSize);
  if (r->pending_length != 0 && pos >= start && pos <= end &&
      static_cast<int64_t>(count) <= limit - pos) {
    std::memcpy(r->pending + (pos - start), src, count);
    const int64_t new_end = pos + static_cast<int64_t>(count);
    if (new_end > end) r->pending_length = static_cast<std::size_t>(new_end - start);
    return 0;
  }
  if (int16_t st = commit_record(r); st != 0) return st;
  if (count <= kLargestBufferedWrite && r->pending == nullptr) {
    r->pending = static_cast<uint8_t*>(mdfMalloc(static_cast<uint32_t>(kWriteBufferSize)));
  }
  if (count > kLargestBufferedWrite || r->pending == nullptr) {  // no buffer: write at once
    return platform::write_file_at(r->fd, src, count, pos) ? 0 : 1;
  }
  std::memcpy(r->pending, src, count);
  r->pending_start = pos;
  r->pending_length = count;
  return 0;
}

// A stream may change between reading and writing only after a seek; the position is
// known, so seek to it.
bool prepare_stream(FileRecord* r, LastTransfer next) {
  if (r->last != LastTransfer::none && r->last != next) {
    if (!platform::seek_stream(r->stream, r->position)) return false;
  }
  r->last = next;
  return true;
}

// Descriptor-style read at the position from the window, when it holds the bytes.
bool read_from_window(const FileRecord* r, void* dest, std::size_t count) {
  const int64_t pos = r->position;
  const int64_t end = pos + static_cast<int64_t>(count);
  if (r->window_length == 0 || pos < r->window_start ||
      end > r->window_start + static_cast<int64_t>(r->window_length)) {
    return false;
  }
  std::memcpy(dest, r->window + (pos - r->window_start), count);
  return true;
}

// Descriptor-style read at the position from the file, refilling the window; the file holds
// every byte written (commit_file ran).
bool read_window(FileRecord* r, void* dest, std::size_t count) {
  const int64_t pos = r->position;
  const int64_t end = pos + static_cast<int64_t>(count);
  if (pos < 0) return false;
  if (count > kLargestWindowRead) {
    return platform::read_file_at(r->fd, dest, count, pos) == static_cast<int64_t>(count);
  }
  if (r->window == nullptr) {
    r->window = static_cast<uint8_t*>(mdfMalloc(static_cast<uint32_t>(kReadAheadSize)));
    if (r->window == nullptr) {  // no window: read unbuffered
      return platform::read_file_at(r->fd, dest, count, pos) == static_cast<int64_t>(count);
    }
  }
  const int64_t start = pos - pos % kWindowAlign;
  const int64_t got = platform::read_file_at(r->fd, r->window, kReadAheadSize, start);
  if (got < 0) {
    r->window_length = 0;
    return false;
  }
  r->window_start = start;
  r->window_length = static_cast<std::size_t>(got);
  if (end > start + got) return false;  // the file ends before the bytes asked for
  std::memcpy(dest, r->window + (pos - start), count);
  return true;
}

int16_t read_bytes(void* dest, std::size_t count, uint16_t number) {
  FileRecord* r = find(number);
  if (r == nullptr) return internal_error(kUnit, __LINE__);
  if (count == 0) return 0;
  bool ok;
  if (is_stream(r)) {
    if (int16_t st = commit_file(r, false); st != 0) return st;
    ok = prepare_stream(r, LastTransfer::read) && platform::read_stream(r->stream, dest, count);
  } else if (read_from_window(r, dest, count)) {
    ok = true;
  } else {
    if (int16_t st = commit_file(r, true); st != 0) return st;
    ok = read_window(r, dest, count);
  }
  if (!ok) {
    rewind_file(r);
    return raise(MDF_ERR_READ, "");
  }
  r->position += static_cast<int64_t>(count);
  return 0;
}

void release(FileRecord* r) {
  mdfFree(r->window);
  mdfFree(r->pending);
  r->~FileRecord();
  mdfFree(r);
}

}  // namespace

int16_t open(uint16_t* number, const char* name, uint16_t flags, uint16_t buffer_size) {
  *number = kNoFile;
  const unsigned mode = flags & 0xFFu;
  if (mode > kCreate) return internal_error(kUnit, __LINE__);
  if (name == nullptr) return raise(MDF_FILE_NOT_OPENED, "");
  const bool stream_style = (flags & kStreamStyle) != 0;
  // Create replaces: the old file goes first, so no truncation is needed afterwards.
  if (mode == kCreate) platform::remove_file(name);

  std::FILE* stream = nullptr;
  char* buffer = nullptr;
  int fd = -1;
  if (stream_style) {
    static constexpr const char* kModes[] = {"rb", "rb+", "wb+"};
    stream = platform::open_stream(name, kModes[mode]);
    if (stream == nullptr) return raise(MDF_FILE_NOT_OPENED, name);
    fd = platform::stream_descriptor(stream);
    // Without a buffer of our own (none asked for, or no memory) the stream keeps the
    // runtime's.
    if (buffer_size != 0) {
      buffer = static_cast<char*>(mdfMalloc(buffer_size));
      if (buffer != nullptr && !platform::set_stream_buffer(stream, buffer, buffer_size)) {
        mdfFree(buffer);
        buffer = nullptr;
      }
    }
  } else {
    static constexpr platform::OpenMode kModes[] = {
        platform::OpenMode::read, platform::OpenMode::read_write, platform::OpenMode::create};
    fd = platform::open_file(name, kModes[mode]);
    if (fd < 0) return raise(MDF_FILE_NOT_OPENED, name);
  }

  void* memory = mdfMalloc(sizeof(FileRecord));
  if (memory == nullptr) {
    if (stream != nullptr) {
      platform::close_stream(stream);
      mdfFree(buffer);
    } else {
      platform::close_file(fd);
    }
    return raise(MDF_ERR_NO_MEMORY, "");
  }
  auto* r = new (memory) FileRecord{};
  platform::FileStatus status;
  platform::file_status(fd, &status);
  r->device = status.device;
  r->file_id = status.file_id;
  // Bytes that another number holds for this file belong to its length and contents. A
  // failure to write them is raised; the open goes on with the file as it is.
  for (const FileRecord* w = files(); w != nullptr; w = w->next) {
    if (w->pending_length == 0 || !same_file(w, r)) continue;
    commit_file(r, false);
    platform::file_status(fd, &status);
    break;
  }
  r->number = static_cast<uint16_t>(fd);
  r->stream = stream;
  r->buffer = buffer;
  r->flags = flags;
  r->position = 0;
  r->size = status.length;
  r->fd = fd;
  r->next = files();
  files() = r;
  *number = r->number;
  return 0;
}

void close(uint16_t number) {
  FileRecord* r = find(number);
  if (r == nullptr) {
    internal_error(kUnit, __LINE__);
    return;
  }
  if (is_stream(r)) {
    platform::close_stream(r->stream);
    mdfFree(r->buffer);
  } else {
    commit_record(r);  // a failure is raised; the file is closed all the same
    platform::close_file(r->fd);
  }
  files() = r->next;  // find put it first (the commit does not reorder the list)
  release(r);
}

int16_t read(void* dest, uint16_t count, uint16_t number) {
  return read_bytes(dest, count, number);
}

int16_t read_bulk(void* dest, std::size_t count, uint16_t number) {
  return read_bytes(dest, count, number);
}

int16_t write(const void* src, uint32_t count, uint16_t number) {
  FileRecord* r = find(number);
  if (r == nullptr) return internal_error(kUnit, __LINE__);
  if (count == 0) return 0;
  // Bytes that another number holds for this file are older than these: they go first.
  if (int16_t st = commit_file(r, false); st != 0) return st;
  bool ok;
  if (is_stream(r)) {
    ok = prepare_stream(r, LastTransfer::write) && platform::write_stream(r->stream, src, count);
  } else if (r->position < 0) {
    ok = false;
  } else if (buffers_writes(r)) {
    const int16_t st = buffered_write(r, src, count);
    if (st < 0) return st;
    ok = st == 0;
  } else {
    ok = platform::write_file_at(r->fd, src, count, r->position);
  }
  if (!ok) {
    forget_windows(r);
    rewind_file(r);
    return raise(MDF_ERR_WRITE, "");
  }
  note_write(r, src, count, r->position);
  r->position += count;
  if (r->position > r->size) r->size = r->position;
  return 0;
}

int16_t seek(uint16_t number, int64_t offset, int origin) {
  FileRecord* r = find(number);
  if (r == nullptr) return internal_error(kUnit, __LINE__);
  int64_t target = 0;
  bool valid = true;
  switch (origin) {
    case kFromStart:
      target = offset;
      break;
    case kFromCurrent:
      valid = offset >= 0 ? r->position <= INT64_MAX - offset : r->position >= INT64_MIN - offset;
      if (valid) target = r->position + offset;
      break;
    case kToEnd:
      target = r->size;
      break;
    default:
      return internal_error(kUnit, __LINE__);
  }
  if (valid && target == r->position) return 0;
  bool ok = valid;
  if (ok) {
    r->position = target;
    if (is_stream(r)) {
      ok = platform::seek_stream(r->stream, target);
      r->last = LastTransfer::none;
    } else {
      // Reads and writes name their position, so the descriptor's own position does not
      // matter. A target inside the known size cannot fail; only one outside it (negative,
      // or beyond what the file system allows) is put to the system.
      ok = (target >= 0 && target <= r->size) || platform::seek_file(r->fd, target);
    }
  }
  if (!ok) {
    rewind_file(r);
    return raise_fmt(MDF_ERR_SEEK, "%" PRId64, offset);
  }
  if (r->position > r->size) r->size = r->position;
  return 0;
}

int64_t tell(uint16_t number) {
  const FileRecord* r = find(number);
  if (r == nullptr) {
    internal_error(kUnit, __LINE__);
    return -1;
  }
  return r->position;
}

int64_t known_size(uint16_t number) {
  const FileRecord* r = find(number);
  if (r == nullptr) {
    internal_error(kUnit, __LINE__);
    return -1;
  }
  return r->size;
}

int16_t set_size(uint16_t number, int64_t size) {
  FileRecord* r = find(number);
  if (r == nullptr) return internal_error(kUnit, __LINE__);
  if (int16_t st = commit_file(r, true); st != 0) return st;
  bool ok;
  if (is_stream(r)) {
    // Flushing writes out what the stream holds before the file is cut. Afterwards the stream
    // is sent past anything its buffer can hold and back: a seek into the range it buffered
    // before the change would serve the old bytes again.
    const int64_t beyond = std::max(size, r->position) + 2 * 65536;
    ok = platform::flush_stream(r->stream) && platform::set_file_length(r->fd, size) &&
         platform::seek_stream(r->stream, beyond) &&
         platform::seek_stream(r->stream, std::min(r->position, size));
    r->last = LastTransfer::none;
  } else {
    ok = platform::set_file_length(r->fd, size);
  }
  if (!ok) return raise(MDF_ERR_WRITE, "cannot change size");
  r->size = size;
  note_new_size(r, size);
  if (r->position > size) {
    r->position = size;
    if (is_stream(r)) platform::seek_stream_to_end(r->stream);
  }
  return 0;
}

int16_t commit(uint16_t number) {
  const FileRecord* r = find(number);
  if (r == nullptr) return internal_error(kUnit, __LINE__);
  return commit_file(r, true);
}

int16_t flush(uint16_t number) {
  FileRecord* r = find(number);
  if (r == nullptr) return internal_error(kUnit, __LINE__);
  const int16_t st = commit_file(r, true);
  platform::flush_stream(is_stream(r) ? r->stream : nullptr);
  return st;
}

}  // namespace korvel::io
