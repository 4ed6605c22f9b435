// Open files: the file handle's operations that other parts of the library use.
#pragma once

#include "storage/block.h"
#include "storage/node.h"

namespace korvel {

// Hook through which closing a file closes its open groups; the group API fills it.
using CloseGroupsHook = int16_t (*)(mdf_file* file);
void set_close_groups_hook(CloseGroupsHook hook);

// Walks the data groups of the file from the header, in chain order.
template <class Visit>
void for_each_data_group(mdf_file* file, Visit&& visit) {
  Node* dg = resolve_link(file->tree, file->header, layout::hd::kFirstDg);
  while (dg != nullptr) {
    if (!visit(dg)) return;
    dg = resolve_link(file->tree, dg, layout::dg::kNext);
  }
}

}  // namespace korvel
