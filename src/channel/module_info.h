// Module (source) information of channels: the CE blocks behind the module functions.
#pragma once

#include <cstdint>

#include "korvel.h"
#include "storage/node.h"

namespace korvel {

// Writes the module blocks made for the channels of a channel group that is already in the
// file: each new CE block is appended at the end of the file and the CN block's extension link
// is rewritten in place (those four bytes only). Channels not yet in the file are left to the
// close of the group that creates them. Returns the first failing write's status.
int16_t write_new_module_blocks(mdf_file* file, Node* cg);

}  // namespace korvel
