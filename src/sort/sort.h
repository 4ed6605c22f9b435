// Sorting unsorted files: every data group of the result holds one channel group and its
// records carry no record ids. Also finalizes files a recorder left unfinished and corrects
// cycle counters that do not match the records present.
#pragma once

#include <cstdint>

#include "korvel.h"

namespace korvel::sort {

// ---- Progress protocol ------------------------------------------------------------------------

// The millisecond tick the progress throttle reads; tests put a clock of their own here.
using TickSource = uint32_t (*)();
void set_tick_source(TickSource source);  // null restores the system tick

// Makes `params` the current parameter record (null clears it) and signals the start.
void begin_progress(MdfSortParams* params);
void end_progress();
// Flags of the current parameter record; 0 without one or when it is too short to hold them.
uint32_t current_flags();
// Reports `percent`: throttled to one report per 500 ms, only rising percents reach the
// progress callback, then the abort callback is asked. Returns 0 or -2013 (raised).
int16_t report(uint32_t percent);
// The closing report of a run: like report, but the run is over and is not abandoned.
void report_final();

// ---- Identity and float-type check ------------------------------------------------------------

constexpr uint16_t kUnsorted = 1;
constexpr uint16_t kFloatTypeMismatch = 2;
constexpr uint16_t kNotUsable = 4;
constexpr uint16_t kVersionTooNew = 8;

// Walks the raw file open as `number`. With `repair`, float channels whose type contradicts
// their bit count are switched in place. Returns the bit set above; never raises.
uint16_t check_identity(uint16_t number, bool accept_unfinished, bool repair);

// ---- The run ----------------------------------------------------------------------------------

// The whole sort of `source` into `target` (null, "" or the source itself: in place).
int16_t run_sort(const char* source, const char* target);

}  // namespace korvel::sort
