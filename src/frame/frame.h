// Process-wide library state, the one error routine and the internal assertion.
#pragma once

#include <cstdint>

#include "korvel.h"

namespace korvel {

// All process-wide state of the library. Reset by mdfOpen (reset_state); the user text
// file name and the module path survive a reset.
struct LibraryState {
  uint16_t context_depth = 0;       // 0 closed, 1 after mdfOpen, +1 per mdfContextOpen
  int16_t last_status = 0;          // status of the most recent exported call
  int16_t first_error = 0;          // first negative status raised since mdfOpen
  char first_error_text[129] = {};  // its formatted line, at most 128 characters
  char program_id[8] = {'K', 'O', 'R', 'V', 'E', 'L', 0, 0};  // fixed width, maybe unterminated
  mdf_file* open_files = nullptr;                             // newest first
  mdf_group* open_groups = nullptr;                           // in order of opening
  channelnode* open_channels = nullptr;                       // in order of opening
  channelnode* open_channels_tail = nullptr;
  uint32_t io_buffer_size = 4096;  // buffer size handed to every file the file API opens
  uint16_t extra_open_flags = 0;   // OR-ed into the flags of every file opened
  uint16_t output_float_format = 0;
  char assert_text[256] = {};  // the last text built by mdfAssertFailed
};

LibraryState& state();
void reset_state();

// The path of the library module, filled at load time.
char* module_path();  // 256 characters

// Hook through which the frame closes the files of one context level; the file API fills
// it. Closes every open file whose recorded depth is at least `depth` and returns the
// status of the last close (0 when nothing was closed).
using CloseFilesHook = int16_t (*)(uint16_t depth);
void set_close_files_hook(CloseFilesHook hook);
int16_t close_files_from_depth(uint16_t depth);

// The built-in text of a status, "" for 0, null for a code without text.
const char* builtin_text(int16_t code);

// The one routine through which failures are reported: formats "<text> <context>\n",
// cuts it at 128 characters, keeps the first negative status as the sticky error, logs
// the line with mdfPrintError and returns the status unchanged.
int16_t raise(int16_t status, const char* context = "");
int16_t raise_fmt(int16_t status, const char* format, ...);

// Internal consistency failure of `unit` at `line`; raises -2011 and returns it.
inline int16_t internal_error(const char* unit, int line) {
  return mdfAssertFailed(unit, line);
}

// Stores `status` as the last status and returns it (the tail of every exported call).
inline int16_t finish(int16_t status) {
  state().last_status = status;
  return status;
}

// The sticky first error, or 0 when none is stored.
inline int16_t sticky_error() {
  return state().first_error;
}

}  // namespace korvel
