// Initialisation, nested contexts, shutdown and version queries.
#include <cstring>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "platform/platform.h"

namespace {
constexpr char kLibraryVersion[] = "5.87 (2017-06-27)";
constexpr char kFormatVersion[] = "3.30    ";

// Closes the files of every level from the current depth down to 1.
void close_all_levels() {
  auto& s = korvel::state();
  for (uint16_t depth = s.context_depth; depth >= 1; --depth) {
    korvel::close_files_from_depth(depth);
    s.context_depth = static_cast<uint16_t>(depth - 1);
  }
}

char* bounded_copy(char* dst, const char* src, int32_t len) {
  if (dst != nullptr && len > 0) std::strncpy(dst, src, static_cast<std::size_t>(len));
  return dst;
}
}  // namespace

extern "C" {

KORVEL_API int16_t mdfClose(void) {
  auto& s = korvel::state();
  if (s.context_depth == 0) return korvel::finish(0);
  s.last_status = 0;
  close_all_levels();
  s.context_depth = 0;
  return s.last_status;
}

KORVEL_API int16_t mdfContextOpen(void) {
  auto& s = korvel::state();
  if (s.context_depth != 0) {
    ++s.context_depth;
  } else {
    mdfOpen(nullptr);
  }
  return 0;
}

KORVEL_API int16_t mdfContextClose(void) {
  auto& s = korvel::state();
  if (s.context_depth == 0) return 0;
  if (s.context_depth == 1) {
    mdfClose();
    return 0;
  }
  korvel::close_files_from_depth(s.context_depth);
  --s.context_depth;
  return 0;
}

KORVEL_API char* mdfGetKorvelVersion(char* dst, int32_t len) {
  return bounded_copy(dst, kLibraryVersion, len);
}

KORVEL_API char* mdfGetMdfFormatVersion(char* dst, int32_t len) {
  return bounded_copy(dst, kFormatVersion, len);
}

KORVEL_API int16_t mdfSetOutputFloatFormat(uint16_t format) {
  korvel::state().output_float_format = format;
  return 0;
}

KORVEL_API void mdfActivityInfo(void*, void*) {}

KORVEL_API int32_t LibMain(void*, uint16_t, uint16_t clearPath, char*) {
  char* path = korvel::module_path();
  if (clearPath != 0) std::memset(path, 0, 256);
  korvel::platform::module_file_name(path, 256);
  return 1;
}

}  // extern "C"

// On systems without a load-time entry of their own, the work of LibMain runs when the
// library is loaded.
#if !defined(_WIN32)
__attribute__((constructor)) static void korvel_on_load() {
  LibMain(nullptr, 1, 1, nullptr);
}
#endif
