// Message texts from text files: the caller's own file first, then "KORVEL.TXT" in the
// current directory. A line "<status>:<text>" gives the text of that status.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"

namespace {

// Looks `code` up in one text file; true when a line gave its text.
bool lookup_in_file(const char* path, int16_t code) {
  std::FILE* f = std::fopen(path, "r");
  if (f == nullptr) return false;
  char line[128];  // lines are read in pieces of at most 127 characters
  while (std::fgets(line, sizeof line, f) != nullptr) {
    int number = 0;
    if (std::sscanf(line, "%d", &number) != 1 || number != code) continue;
    line[std::strcspn(line, "\r\n")] = '\0';
    const char* colon = std::strchr(line, ':');
    if (colon == nullptr) continue;  // a numbered line without a colon means nothing
    char* result = korvel::state().kept.text_result;
    std::snprintf(result, sizeof korvel::LibraryState::Kept::text_result, "%s", colon + 1);
    std::fclose(f);
    return true;
  }
  std::fclose(f);
  return false;
}
}  // namespace

extern "C" {

KORVEL_API int16_t mdfSetUsrTextFile(const char* path) {
  char* name = korvel::state().kept.user_text_file;
  std::snprintf(name, sizeof korvel::LibraryState::Kept::user_text_file, "%s",
                path != nullptr ? path : "");
  return 0;
}

KORVEL_API const char* mdfGetTextStrF(int16_t code) {
  auto& kept = korvel::state().kept;
  constexpr std::size_t kSize = sizeof kept.text_result;
  std::snprintf(kept.text_result, kSize, "[KORVEL] Error Nr.: %d", code);
  if (kept.user_text_file[0] != '\0' && lookup_in_file(kept.user_text_file, code)) {
    return kept.text_result;
  }
  if (lookup_in_file("KORVEL.TXT", code)) return kept.text_result;
  std::snprintf(kept.text_result, kSize, "[KORVEL] Error Nr.: %d", code);
  return kept.text_result;
}

}  // extern "C"
