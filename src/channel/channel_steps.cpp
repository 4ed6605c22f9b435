// Record steps of the channel Read and Write functions.
#include "channel/channel_steps.h"

#include <cstdint>

#include "frame/frame.h"
#include "group/group.h"

namespace korvel {
namespace {

// The counters only tell whether a handle has stepped before; they stop at their maximum
// instead of wrapping to 0, which would make the next step stay on the current record.
void count_step(uint16_t& steps) {
  if (steps != UINT16_MAX) ++steps;
}

}  // namespace

int16_t read_step(channelnode* ch) {
  if (ch->read_steps == 0) {
    ch->read_steps = 1;
    return 0;
  }
  mdf_group* g = ch->group;
  if (g->mode == 1) {
    for (channelnode* other = state().open_channels; other != nullptr; other = other->next) {
      if (other->group == g && other->write_steps != 0) {
        if (int16_t st = group_write(g); st != 0) return st;
        break;
      }
    }
  }
  if (int16_t st = group_seek(g, 1, MDF_SEEK_REL); st != 0) return st;
  count_step(ch->read_steps);
  return 0;
}

int16_t write_step(channelnode* ch) {
  if (ch->write_steps == 0) {
    ch->write_steps = 1;
    return 0;
  }
  mdf_group* g = ch->group;
  if (g->mode == 2 && g->record_index == record_count(g)) {
    if (int16_t st = group_append(g); st != 0) return st;
    ++g->record_index;
    g->record_position += record_ids(g) + record_size(g);
  } else {
    if (int16_t st = group_write(g); st != 0) return st;
    if (int16_t st = group_seek(g, 1, MDF_SEEK_REL); st != 0) return st;
  }
  count_step(ch->write_steps);
  return 0;
}

}  // namespace korvel
