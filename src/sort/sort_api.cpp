// The exported sort functions and the progress protocol shared by every step of a sort.
#include "frame/api.h"
#include "frame/frame.h"
#include "platform/platform.h"
#include "sort/sort.h"

namespace korvel::sort {
namespace {

constexpr const char* kUnit = "MDFSORTF";
constexpr uint32_t kThrottleMs = 500;
constexpr uint32_t kFlagsFrom = 56;  // structSize from which the flags word is read

// The progress of the sort running now, in the process-wide state.
SortProgress& progress() {
  return state().kept.sort_progress;
}

uint32_t now() {
  const TickSource tick = progress().tick;
  return tick != nullptr ? tick() : platform::tick_count_ms();
}

// Whether a report is due; notes the time when it is.
bool due() {
  const uint32_t t = now();
  const uint64_t last = progress().last_tick;
  if (last <= t && t <= last + kThrottleMs) return false;
  progress().last_tick = t;
  return true;
}

void call_progress(uint32_t percent) {
  MdfSortParams* p = progress().params;
  if (p->pfnProgress == nullptr) return;
  if (percent > 100) percent = 100;
  if (percent <= progress().last_percent) return;
  p->pfnProgress(static_cast<int>(percent), p->userData);
  progress().last_percent = percent;
  platform::yield_processor();
}

}  // namespace

void set_tick_source(TickSource source) {
  progress().tick = source;
}

void begin_progress(MdfSortParams* params) {
  progress().params = params;
  progress().last_percent = 0;
  progress().last_tick = now();
  if (params != nullptr && params->pfnStart != nullptr) params->pfnStart(params->userData);
}

void end_progress() {
  progress().params = nullptr;
}

uint32_t current_flags() {
  const MdfSortParams* p = progress().params;
  if (p == nullptr || p->structSize < kFlagsFrom) return 0;
  return p->flags;
}

int16_t report(uint32_t percent) {
  MdfSortParams* p = progress().params;
  if (p == nullptr || !due()) return 0;
  call_progress(percent);
  if (p->pfnAbort != nullptr && p->pfnAbort(p->userData) != 0) {
    return raise(MDF_ERR_USER_ABORT, "");
  }
  return 0;
}

void report_final() {
  if (progress().params != nullptr && due()) call_progress(100);
}

}  // namespace korvel::sort

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfSort(const char* source, const char* target) {
  return checked_call(sort::kUnit, [&]() -> int16_t {
    if (source == nullptr) return internal_error(sort::kUnit, __LINE__);
    return sort::run_sort(source, target);
  });
}

KORVEL_API int16_t mdfSortWithProgress(MdfSortParams* params) {
  return checked_call(sort::kUnit, [&]() -> int16_t {
    if (params == nullptr || params->srcFile == nullptr) {
      return internal_error(sort::kUnit, __LINE__);
    }
    sort::begin_progress(params);
    int16_t status = 0;
    try {
      status = sort::run_sort(params->srcFile, params->dstFile);
    } catch (...) {
      sort::end_progress();
      throw;
    }
    sort::end_progress();
    return status;
  });
}

KORVEL_API int16_t mdfTestSort(const char* name) {
  if (const int16_t sticky = sticky_error(); sticky != 0) return finish(sticky);
  if (state().context_depth == 0) return finish(raise(MDF_ERR_NOT_INITIALIZED, ""));
  if (name == nullptr) return finish(internal_error(sort::kUnit, __LINE__));
  mdfContextOpen();
  mdf_file* file = nullptr;
  const int16_t open_status = mdfFileOpen(&file, name, 0);
  int16_t result = open_status;
  if (open_status == 0) {
    result = mdfFileIsSort(file);
    mdfFileClose(file);
  }
  mdfContextClose();
  return finish(result);
}

}  // extern "C"
