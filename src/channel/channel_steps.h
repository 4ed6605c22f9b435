// The record steps of channel handles: which record a Read or Write call works on.
#pragma once

#include <cstdint>

#include "channel/channel_node.h"

namespace korvel {

// Before each Read: the first read of an opened handle stays on the current record; every
// later one writes a record pending in modify mode back and moves one record on.
int16_t read_step(channelnode* ch);
// Before each Write and at close: the first write stays on the current record; every later
// one stores the current record (appended in create mode when it is the next new record,
// else written back) and moves one record on.
int16_t write_step(channelnode* ch);

}  // namespace korvel
