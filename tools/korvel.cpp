// korvel: the command-line program of the Korvel library.
//
//   korvel                 print the library and format versions
//   korvel status CODE     print the text of a status code
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "korvel.h"

namespace {

int print_versions() {
  char library[32] = {};
  char format[16] = {};
  mdfGetKorvelVersion(library, sizeof library - 1);
  mdfGetMdfFormatVersion(format, sizeof format - 1);
  std::printf("Korvel %s\nMDF format up to %s\n", library, format);
  return 0;
}

int print_status(const char* argument) {
  char* end = nullptr;
  const long code = std::strtol(argument, &end, 10);
  if (end == argument || *end != '\0' || code < -32768 || code > 32767) {
    std::fprintf(stderr, "korvel: not a status code: %s\n", argument);
    return 2;
  }
  const char* text = mdfGetTextStrD(static_cast<int16_t>(code));
  if (text == nullptr) {
    std::printf("%ld: (no text)\n", code);
    return 1;
  }
  std::printf("%ld: %s\n", code, text);
  return 0;
}

int usage() {
  std::fprintf(stderr,
               "usage: korvel                 library and format versions\n"
               "       korvel status CODE     text of a status code\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 1) return print_versions();
  const std::string command = argv[1];
  if (command == "status" && argc == 3) return print_status(argv[2]);
  if (command == "version" && argc == 2) return print_versions();
  return usage();
}
