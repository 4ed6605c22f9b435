// Channel properties kept in the CN block and the texts linked from it: the operations
// behind the property functions, also used when a channel is duplicated.
#pragma once

#include <cstdint>
#include <string>

#include "channel/channel_node.h"

namespace korvel {

// The text of the TX block linked at `field` of the channel's CN block, "" for none. The
// caller makes sure the block is long enough to hold that link.
const char* linked_text(channelnode* ch, uint32_t field);

// The first whitespace-delimited word after a comment marker, at most `max_length`
// characters. A marker counts only where it is the first '$' of its line; the first 11
// characters of `marker` are compared there, then the marker's text up to its colon must
// follow. "" when no line holds the marker.
std::string marker_word(const char* text, const char* marker, std::size_t max_length);

// Long and display name: from their TX blocks when the CN block holds the links, else from
// the comment markers; "" for none.
std::string long_name_of(channelnode* ch);
std::string display_name_of(channelnode* ch);

// The additional byte offset, long name and display name as mdfChnGetInfoExt hands them out.
// Each output may be null; the texts live in static buffers that the next call for the same
// output overwrites.
void get_info_ext(channelnode* ch, uint16_t* byte_offset, const char** long_name,
                  const char** display_name);

// mdfChnSetInfo and mdfChnSetInfoExt without the handle check.
int16_t set_info(channelnode* ch, const char* name, const char* desc, const char* text);
int16_t set_info_ext(channelnode* ch, int16_t byte_offset, const char* long_name,
                     const char* display_name);

}  // namespace korvel
