// Open files: the file handle's operations that other parts of the library use.
#pragma once

#include "storage/block.h"
#include "storage/node.h"

namespace korvel {

// Sets the hook through which closing a file closes its open groups (the group API's).
void set_close_groups_hook(CloseGroupsHook hook);

// Closes every open file whose context depth is at least `depth` and returns the status of
// the last close (the frame's hook for closing a context level).
int16_t close_files_at_depth(uint16_t depth);

// Maps what the bytes of a file opened for modifying hold: every block read at open, and the
// records of every data group (from its data position, the declared records of its channel
// groups, cut at the end of the file). Blocks that overlap each other or records would let a
// record write land in a block, or a block rewritten in place put old bytes over records: such
// a file is refused with -2004 (raised). Keeps the blocks in the file record.
int16_t map_file(mdf_file* file);

// Whether records may be written to the bytes [start, start + length) of a file opened for
// modifying: they lie inside the file as it was opened and touch no block read at open.
bool record_bytes_free(const mdf_file* file, uint64_t start, uint64_t length);

// Walks the data groups of the file from the header, in chain order; the visitor returns
// false to stop.
template <class Visit>
void for_each_data_group(mdf_file* file, Visit&& visit) {
  for (Node* dg : chain(file->tree, file->header, layout::hd::kFirstDg)) {
    if (!visit(dg)) return;
  }
}

// Walks the channel groups in the numbering of group handles: each data group of the
// header's list, each channel group of that data group. The visitor gets (dg, cg, previous
// cg in the same dg, previous dg, number) and returns false to stop.
template <class Visit>
void for_each_channel_group(mdf_file* file, Visit&& visit) {
  uint32_t number = 0;
  Node* previous_dg = nullptr;
  bool go_on = true;
  for_each_data_group(file, [&](Node* dg) {
    Node* previous_cg = nullptr;
    for (Node* cg : chain(file->tree, dg, layout::dg::kFirstCg)) {
      if (!go_on) break;
      go_on = visit(dg, cg, previous_cg, previous_dg, ++number);
      previous_cg = cg;
    }
    previous_dg = dg;
    return go_on;
  });
}

}  // namespace korvel
