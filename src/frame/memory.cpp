// Tagged memory. Every block handed out carries the 32-bit tag 20490 (0x500A) in the four
// bytes in front of the address. The address itself is 16-byte aligned so that library
// records and block images placed in such memory are properly aligned.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "platform/platform.h"

namespace {
constexpr uint32_t kMemoryTag = 20490;
constexpr std::size_t kFront = 16;  // room in front of the address; the tag is its last 4 bytes
}  // namespace

extern "C" {

KORVEL_API void* mdfMalloc(uint32_t size) {
  auto* raw = static_cast<uint8_t*>(std::calloc(1, static_cast<std::size_t>(size) + kFront));
  if (raw == nullptr) return nullptr;
  std::memcpy(raw + kFront - 4, &kMemoryTag, 4);
  return raw + kFront;
}

KORVEL_API void mdfFree(void* p) {
  if (p == nullptr) return;
  auto* bytes = static_cast<uint8_t*>(p);
  uint32_t tag;
  std::memcpy(&tag, bytes - 4, 4);
  if (tag != kMemoryTag) {
    // Not a block of ours (or a damaged one): report it and leave the memory alone rather
    // than hand a foreign pointer to the heap.
    mdfAssertFailed("KORVEL", 63);
    return;
  }
  std::free(bytes - kFront);
}

KORVEL_API int32_t mdfCoreLeft(void) {
  constexpr uint64_t kMin = 0x1000000;  // 16 MiB
  constexpr uint64_t kMax = 0x8000000;  // 128 MiB
  const uint64_t half = korvel::platform::available_physical_memory() / 2;
  return static_cast<int32_t>(std::clamp(half, kMin, kMax));
}

}  // extern "C"
