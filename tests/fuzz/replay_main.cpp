// Replays saved fuzz inputs under plain ctest: fuzz_replay TARGET FILE_OR_DIR...
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/fuzz_targets.h"

int main(int argc, char** argv) {
  if (argc < 3) return 2;  // fuzz_replay open|modify|sort|formula FILE_OR_DIR...
  auto target = std::strcmp(argv[1], "formula") == 0  ? korvel_fuzz::evaluate_formula
                : std::strcmp(argv[1], "modify") == 0 ? korvel_fuzz::modify_file
                : std::strcmp(argv[1], "sort") == 0   ? korvel_fuzz::sort_file
                                                      : korvel_fuzz::open_file;
  int replayed = 0;
  for (int i = 2; i < argc; ++i) {
    std::vector<std::filesystem::path> inputs{argv[i]};
    if (std::filesystem::is_directory(argv[i]))
      inputs.assign(std::filesystem::directory_iterator(argv[i]), {});
    for (const auto& input : inputs) {
      std::ifstream in(input, std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
      target(bytes.data(), bytes.size());
      ++replayed;
    }
  }
  std::printf("%d inputs replayed\n", replayed);
  return replayed > 0 ? 0 : 1;
}
