// The linear pair (offset, factor) that a CC image carries in memory right behind its block,
// derived from the first entry's text when a verbal range table (type 12) is read. It is
// never written to a file.
#pragma once

#include <cstdint>

namespace korvel {

// The linear pair kept behind a CC image (physical = raw * factor + offset for type 12).
double cc_extra_offset(const uint8_t* cc);
double cc_extra_factor(const uint8_t* cc);
void set_cc_extra(uint8_t* cc, double offset, double factor);

// The TX link of entry `entry` of a verbal range table (type 12), or 0 when the block does
// not hold that entry.
uint32_t vtabr_text_link(const uint8_t* cc, uint32_t entry);

// Fills the linear pair behind a CC image. Defaults are offset 0.0 and factor 1.0; for a
// verbal range table (type 12) with at least one entry and a non-zero text link in entry 0,
// `entry0_text` (the zero-terminated text of that TX block, null when there is none) is
// matched against the known scaling annotations and the first full match sets the pair.
void derive_vtabr_extra(uint8_t* cc, const char* entry0_text);

}  // namespace korvel
