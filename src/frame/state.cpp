// The process-wide state of the library and its reset.
#include <cstring>

#include "frame/frame.h"

namespace korvel {

namespace {
LibraryState g_state;
CloseFilesHook g_close_files = nullptr;
char g_module_path[256] = {};
}  // namespace

LibraryState& state() {
  return g_state;
}

void reset_state() {
  LibraryState fresh;
  g_state = fresh;
}

char* module_path() {
  return g_module_path;
}

void set_close_files_hook(CloseFilesHook hook) {
  g_close_files = hook;
}

int16_t close_files_from_depth(uint16_t depth) {
  return g_close_files != nullptr ? g_close_files(depth) : 0;
}

}  // namespace korvel
