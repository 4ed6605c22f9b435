// Numbered files with 64-bit positions.
//
// A file is known to its users by a 16-bit number (the operating-system descriptor number;
// kNoFile means none). The unit keeps its own idea of each file's position and size, so that
// tell and seek-to-end never ask the operating system and a seek to the current position
// costs nothing.
//
// Two access styles:
//  - descriptor style (flags without kStreamStyle): unbuffered positioned access, used for
//    MDF files. Reads are served from a read-ahead window (kReadAheadSize bytes) so that the
//    many small reads and seeks of block parsing and record reading cost no system call.
//    Writes update every window on the file, so a window never disagrees with what was
//    written. With kWriteBuffer (the file API's MDF files opened for writing), consecutive
//    writes collect in a write buffer of kWriteBufferSize bytes and reach the file in one
//    system call; without it (and always for a file opened for reading) they go to the file
//    at once.
//  - stream style (kStreamStyle): a C stream with a buffer of the caller's size, used by
//    sorting and finalizing.
//
// Buffered writes reach the file before anything could see the file without them: before a
// read that the window cannot serve, a change of size, a flush (commit), a close, another
// number's system access to the same file and another open of it. At most one number holds
// buffered bytes of a file at a time, so they are written in the order they were made.
//
// Failures: an open failure raises 1000 with the file name as context. A failed read, write
// or seek sets the position to 0, puts the file at 0 and raises -2001, -2000 or -2002 (the
// seek's context is the requested offset). Buffered bytes that cannot be written fail the
// same way as the unbuffered write would have, -2000, raised by the operation that writes
// them (the number that made them is set to 0); that operation returns -2000 and does
// nothing else. An unknown file number, a bad mode or a bad
// origin is an internal error of unit "IO" (-2011).
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel::io {

constexpr uint16_t kNoFile = 65535;

// Open flags: the low byte is the mode, bit 0x100 selects stream style.
constexpr uint16_t kRead = 0;    // existing file, read only
constexpr uint16_t kModify = 1;  // existing file, read and write
constexpr uint16_t kCreate = 2;  // any file of that name is deleted, then a new one created
constexpr uint16_t kStreamStyle = 0x100;
constexpr uint16_t kWriteBuffer = 0x200;  // descriptor style: collect consecutive writes

// Seek origins.
constexpr int kFromStart = 0;
constexpr int kFromCurrent = 1;
constexpr int kToEnd = 2;  // the offset is ignored: the end is the size as known

// Size of the read-ahead window of descriptor-style files.
constexpr std::size_t kReadAheadSize = 64 * 1024;

// Size of the write buffer of kWriteBuffer files. Writes of more than a quarter of it go to
// the file at once (after the bytes buffered before them).
constexpr std::size_t kWriteBufferSize = 1024 * 1024;

// Opens `name`. Sets *number to kNoFile first and to the file's number on success. The
// buffer size applies to stream style only. Returns 0, 1000 (cannot open), -2007 (no memory
// for the record) or -2011 (bad mode).
int16_t open(uint16_t* number, const char* name, uint16_t flags, uint16_t buffer_size);

// Writes buffered bytes, then closes the file and forgets its number. A failure to write
// them is raised (-2000).
void close(uint16_t number);

// Reads exactly `count` bytes at the position and advances it; a short read (end of file)
// fails with -2001.
int16_t read(void* dest, uint16_t count, uint16_t number);

// The same for counts beyond 65535 bytes, in one transfer.
int16_t read_bulk(void* dest, std::size_t count, uint16_t number);

// Writes `count` bytes at the position and advances it; the known size grows with the
// position. Fails with -2000.
int16_t write(const void* src, uint32_t count, uint16_t number);

// Moves the position: to `offset` (kFromStart), by `offset` (kFromCurrent) or to the known
// size (kToEnd). A seek beyond the size grows the known size. Fails with -2002.
int16_t seek(uint16_t number, int64_t offset, int origin);

// The position as known; -1 for an unknown number (after the internal error is raised).
int64_t tell(uint16_t number);

// The size as known; -1 for an unknown number (after the internal error is raised).
int64_t known_size(uint16_t number);

// Changes the file's length. A position beyond the new size moves to the new end. Fails
// with -2000 "cannot change size".
int16_t set_size(uint16_t number, int64_t size);

// Writes the buffered bytes of the file (of any number open on it). Returns 0 or -2000.
int16_t commit(uint16_t number);

// Commits, then flushes the file's stream; for a descriptor-style file, all output streams
// of the process. Returns 0, or -2000 when the buffered bytes could not be written.
int16_t flush(uint16_t number);

}  // namespace korvel::io
