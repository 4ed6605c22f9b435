// Finding channels in a channel group and making channel handles for them; shared by the
// channel API and the group-level channel openers.
#pragma once

#include <cstdint>

#include "korvel.h"
#include "storage/node.h"

namespace korvel {

// A channel found in a channel group: its 1-based index (time channels counted) and its CN
// block; index 0 and a null block when nothing matched.
struct ChannelMatch {
  uint16_t index = 0;
  Node* cn = nullptr;
};

// The first channel of the channel group, other than a time channel, whose short name
// matches `name` over at most 32 characters: exactly first, then ignoring case.
ChannelMatch find_channel_by_name(mdf_file* file, Node* cg, const char* name);

}  // namespace korvel
