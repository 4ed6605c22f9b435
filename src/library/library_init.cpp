// The library's initialisation: the one place that knows every layer. A lower layer reaches
// a higher one only through a hook of the process-wide state; the first mdfOpen of the
// process fills them here.
#include "frame/frame.h"
#include "group/group.h"
#include "storage/file.h"

namespace {

void wire_layers() {
  korvel::set_close_files_hook(&korvel::close_files_at_depth);
  korvel::set_close_groups_hook(&korvel::close_groups_of_file);
}

}  // namespace

extern "C" {

KORVEL_API int16_t mdfOpen(const char* programId) {
  return korvel::open_library(programId, &wire_layers);
}

}  // extern "C"
