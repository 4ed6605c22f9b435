// Process-wide library state, the one error routine and the internal assertion.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "korvel.h"

namespace korvel {

struct Node;  // a block of an open file (storage)
namespace io {
struct FileRecord;  // an open file of the I/O unit (storage)
}

// Hooks through which a layer closes what a higher layer opened: the files of a context
// level (filled by the file API) and the groups of a file being closed (filled by the group
// API). The library's initialisation fills them (wire_layers).
using CloseFilesHook = int16_t (*)(uint16_t depth);  // closes files of depth >= `depth`
using CloseGroupsHook = int16_t (*)(mdf_file* file);

// The open-by-index cache of the channel API: the group, index and CN block of the last
// open by index. Closing a group forgets it.
struct ChannelCache {
  mdf_group* group = nullptr;
  uint16_t index = 0;
  Node* cn = nullptr;
};

// Texts that the channel functions hand out and that are not pointers into block images.
// Each is overwritten by the next call that hands out the same kind of text.
struct ChannelTexts {
  char name[33] = {};           // a short name that fills its 32-character field, terminated
  char description[129] = {};   // a description that fills its 128-character field, terminated
  char fallback_name[33] = {};  // mdfChnGetLongName's short-name fallback
  std::string long_name;        // mdfChnGetInfoExt's long name
  std::string display_name;     // mdfChnGetInfoExt's display name
};

// The progress protocol of the sort running now (its parameters, the time and percentage
// reported last) and the clock it is throttled by.
struct SortProgress {
  MdfSortParams* params = nullptr;
  uint32_t last_tick = 0;
  uint32_t last_percent = 0;
  uint32_t (*tick)() = nullptr;  // replaces the system tick when set (for tests)
};

// The running state of the formula evaluator: the variable of the evaluation in progress,
// its result, the pair shared by every MIN and MAX of one evaluation, the seed of RAND and
// why the last evaluation ended with status 7 (or null).
struct FormulaRun {
  double x = 0.0;
  double result = 0.0;
  double run_min = 0.0;
  double run_max = 0.0;
  uint32_t random_seed = 1;
  const char* message = nullptr;
};

// All process-wide state of the library, in one place. The library starts no threads and
// locks nothing: callers make one call at a time, and nothing here is guarded.
//
// mdfOpen starts a session with reset_state: every field outside `kept` goes back to the
// value given here. `kept` lives from load to exit.
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
  ChannelCache channel_cache;  // refers to open groups only: none are open at mdfOpen

  struct Kept {
    // Initialisation: whether the close hooks have been filled, and the hooks.
    bool layers_wired = false;
    CloseFilesHook close_files = nullptr;
    CloseGroupsHook close_groups = nullptr;
    char module_path[256] = {};  // path of the library module, filled at load (LibMain)
    // Log and message texts.
    std::FILE* log = nullptr;       // "KORVEL.LOG", opened at the first line, never closed
    char user_text_file[261] = {};  // mdfSetUsrTextFile's file name
    char text_result[128] = {};     // mdfGetTextStrF's result
    // Storage. The I/O unit's open files stay known whatever happens to the sessions, so
    // that no descriptor and no buffered byte is lost.
    io::FileRecord* io_files = nullptr;  // open files, the one used last first
    char file_date[11] = {};             // mdfFileGetInfo's date, shared by all files
    char file_time[9] = {};              // mdfFileGetInfo's time, shared by all files
    std::vector<uint8_t> block_scratch;  // a block being read at open, before its node exists
    std::vector<uint32_t> link_fields;   // the link fields found in that block
    // Channels and groups.
    ChannelTexts channel_texts;
    uint64_t time_probes = 0;  // records read by time searches; for measurements
    // Blocks being written: the copy of one block with its links patched.
    std::vector<uint8_t> emit_scratch;
    // Conversions. The formula evaluator's state; the text of the formula compiled last for
    // a conversion without a prepared rule and its program (a compiled formula, typed by
    // the conversion unit), so that value after value through one text compiles it once.
    FormulaRun formula;
    std::string last_formula_text;
    std::shared_ptr<const void> last_formula_program;
    // Changes of CN and CC images that prepared channel codings depend on; a plan made at
    // an older count is made again.
    uint64_t channel_image_generation = 0;
    // Rule parameters handed out for a CC block shorter than its rule needs (zero-padded),
    // by getter: formula, table, value table, value-range table.
    std::vector<uint8_t> form_spare, tab_spare, vtab_spare, vtabr_spare;
    // Trigger events handed out for a TR block that counts more than it holds.
    std::vector<uint8_t> padded_events;
    // Sorting.
    SortProgress sort_progress;
  } kept;
};

LibraryState& state();
// Starts a new session: resets everything outside `kept` (mdfOpen).
void reset_state();

// The path of the library module, filled at load time.
char* module_path();  // 256 characters

// Sets the hook through which the frame closes the files of one context level, and calls
// it: closes every open file whose recorded depth is at least `depth` and returns the status
// of the last close (0 when nothing was closed or no hook is set).
void set_close_files_hook(CloseFilesHook hook);
int16_t close_files_from_depth(uint16_t depth);

// Initialisation: the first mdfOpen of the process fills the hooks through `wire` (the
// library's top layer knows every layer); later calls do nothing, so that a hook set since
// stays. Then opens the library as mdfOpen does: 1023 when it is open already, else a reset
// of the session, the program identifier, depth 1 and 0.
int16_t open_library(const char* program_id, void (*wire)());

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
