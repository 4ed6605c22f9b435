// The process-wide state of the library and its reset.
#include <cstring>
#include <utility>

#include "frame/frame.h"

namespace korvel {

namespace {
// Constant-initialised: no load-time constructor runs for it, so work done at load (LibMain)
// finds it ready.
constinit LibraryState g_state;
}  // namespace

LibraryState& state() {
  return g_state;
}

void reset_state() {
  LibraryState::Kept kept = std::move(g_state.kept);
  g_state = LibraryState{};
  g_state.kept = std::move(kept);
}

char* module_path() {
  return g_state.kept.module_path;
}

void set_close_files_hook(CloseFilesHook hook) {
  g_state.kept.close_files = hook;
}

int16_t close_files_from_depth(uint16_t depth) {
  const CloseFilesHook hook = g_state.kept.close_files;
  return hook != nullptr ? hook(depth) : 0;
}

int16_t open_library(const char* program_id, void (*wire)()) {
  LibraryState& s = g_state;
  if (!s.kept.layers_wired) {
    s.kept.layers_wired = true;
    if (wire != nullptr) wire();
  }
  if (s.context_depth != 0) return finish(raise(MDF_ALREADY_OPEN, ""));
  reset_state();
  // Fixed-width field: an 8-character name stays unterminated.
  std::strncpy(s.program_id, program_id != nullptr ? program_id : "KORVEL", sizeof s.program_id);
  s.first_error = 0;
  s.first_error_text[0] = '\0';
  s.context_depth = 1;
  return s.last_status;
}

}  // namespace korvel
