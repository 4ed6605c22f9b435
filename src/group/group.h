// Group handles: one channel group of an open file with the record buffer and its cursor.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "korvel.h"
#include "storage/layout.h"
#include "storage/node.h"

namespace korvel {
struct RecordCache;
}

struct mdf_group {
  uint32_t tag = korvel::kGroupTag;
  mdf_file* file = nullptr;
  uint16_t mode = 0;
  uint16_t number = 0;         // the number the group was opened by
  uint16_t channel_count = 0;  // CN blocks counted at open (0 for a created group)
  korvel::Node* dg = nullptr;
  korvel::Node* cg = nullptr;
  korvel::Node* time_channel = nullptr;     // the last channel of type 1, or null
  korvel::Node* time_conversion = nullptr;  // its CC block, or null
  // The record buffer: a leading identifier slot, the record data and a trailing byte. Its
  // nominal size is record size + 24; the memory behind it is larger so that a caller who
  // takes that size from the data address stays inside.
  uint8_t* buffer = nullptr;
  uint32_t buffer_capacity = 0;  // bytes allocated
  uint64_t record_position = 0;  // file offset of the current record (of its identifier)
  uint32_t record_index = 0;     // index of the current record within this channel group
  mdf_group* next = nullptr;     // next open group, in order of opening
  korvel::RecordCache* records = nullptr;  // records kept for array reads, or null
  // A record found by a seek is copied into the buffer only when something looks at it:
  // while `record_pending` is set, its `pending_length` bytes (record data and a trailing
  // identifier) lie in the file at `pending_at`. Once mdfGrpBuffer has handed out the
  // buffer's address, records are copied at every seek.
  bool record_pending = false;
  bool buffer_shown = false;
  uint32_t pending_length = 0;
  uint64_t pending_at = 0;
  // While a record is pending: its record data in the records kept for array reads, when the
  // seek found it there (null otherwise), and the record size it was found with. Refilling
  // or releasing the kept records clears it.
  const uint8_t* pending_record = nullptr;
  uint16_t pending_record_size = 0;
};

namespace korvel {

constexpr uint32_t kRecordDataOffset = 16;  // record data inside the buffer
constexpr uint32_t kBufferExtra = 24;       // nominal buffer size = record size + 24

inline bool is_group(const mdf_group* g) {
  return g != nullptr && g->tag == kGroupTag;
}

inline uint8_t* record_data(mdf_group* g) {
  return g->buffer + kRecordDataOffset;
}
inline uint16_t record_size(const mdf_group* g) {
  return load_le16(g->cg->image + layout::cg::kRecordSize);
}
inline uint16_t record_ids(const mdf_group* g) {
  return load_le16(g->dg->image + layout::dg::kRecordIds);
}
// As declared by the channel group.
inline uint32_t record_count(const mdf_group* g) {
  return load_le32(g->cg->image + layout::cg::kRecordCount);
}
// Whether the group offers record `index`: the group offers its declared count of records,
// but no more than the bytes from the data position to the end of the file can hold at its
// stride (record size plus identifiers); a record size of 0 offers none.
bool offers_record(const mdf_group* g, uint32_t index);
// The record data, never more than the buffer holds (a record grown through another handle
// on the same channel group reaches this one at its next seek).
inline std::span<uint8_t> record_span(mdf_group* g) {
  const uint32_t room = g->buffer_capacity - kRecordDataOffset - kBufferExtra;
  return {record_data(g), std::min<uint32_t>(record_size(g), room)};
}

// Copies a pending record into the buffer; -2004 (raised) when it cannot be read. Every
// reader and writer of the buffer calls it first.
int16_t load_record(mdf_group* g);

// Makes room for a grown record size, keeping the record's bytes.
int16_t refresh_record_layout(mdf_group* g);

// The open-by-index cache of the channel API: the group, index and CN block of the last
// open by index. Closing a group forgets it.
ChannelCache& channel_cache();

// Closes the open groups of a file that is being closed (the file API's hook).
int16_t close_groups_of_file(mdf_file* file);

// Record cursor operations behind mdfGrpSeek, mdfGrpWrite and mdfGrpWriteAppend, for the
// channel functions (no sticky check, no last status).
int16_t group_seek(mdf_group* g, int32_t position, uint16_t mode);
int16_t group_write(mdf_group* g);
int16_t group_append(mdf_group* g);

// Time of the current record and the time search behind mdfGrpGetTime, mdfGrpSetTime and
// mdfGrpSeekTime (no sticky check, no last status), and the number of records the time
// searches have read so far (for measurements).
int16_t group_get_time(mdf_group* g, double* time);
int16_t group_set_time(mdf_group* g, double time);
int16_t group_seek_time(mdf_group* g, double time, uint16_t mode);
uint64_t time_search_probes();

}  // namespace korvel
