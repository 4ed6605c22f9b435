// libFuzzer entry; the target is chosen at build time (KORVEL_FUZZ_TARGET).
#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  korvel_fuzz::KORVEL_FUZZ_TARGET(data, size);
  return 0;
}
