// The exported group functions: opening channel groups, the record cursor, reading,
// rewriting and appending records, closing and deleting groups.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "channel/channel_node.h"
#include "channel/module_info.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "frame/frame.h"
#include "group/group.h"
#include "group/record_runs.h"
#include "storage/block.h"
#include "storage/file.h"
#include "storage/io.h"
#include "storage/placement.h"

namespace korvel {

using namespace layout;

namespace {

int16_t bad_group() {
  return raise(MDF_ERR_BAD_GROUP, "");
}
int16_t bad_file() {
  return raise(MDF_ERR_BAD_FILE, "");
}

bool find_channel_group(mdf_file* file, uint32_t n, Node** dg_out, Node** cg_out,
                        Node** previous_cg = nullptr, Node** previous_dg = nullptr) {
  bool found = false;
  for_each_channel_group(file, [&](Node* dg, Node* cg, Node* pcg, Node* pdg, uint32_t number) {
    if (number != n) return true;
    *dg_out = dg;
    *cg_out = cg;
    if (previous_cg != nullptr) *previous_cg = pcg;
    if (previous_dg != nullptr) *previous_dg = pdg;
    found = true;
    return false;
  });
  return found;
}

int16_t allocate_buffer(mdf_group* g, uint32_t record_bytes) {
  // Nominal size record + 24 from the data address, plus the room in front of the data.
  const uint32_t capacity = record_bytes + kBufferExtra + kRecordDataOffset;
  auto* buffer = static_cast<uint8_t*>(mdfMalloc(capacity));
  if (buffer == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  if (g->buffer != nullptr) {
    std::memcpy(buffer, g->buffer, std::min(capacity, g->buffer_capacity));
    mdfFree(g->buffer);
  }
  g->buffer = buffer;
  g->buffer_capacity = capacity;
  return 0;
}

int16_t new_group(mdf_group** out) {
  void* memory = mdfMalloc(sizeof(mdf_group));
  if (memory == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  *out = new (memory) mdf_group();
  return 0;
}

void append_group(mdf_group* g) {
  mdf_group** slot = &state().open_groups;
  while (*slot != nullptr) slot = &(*slot)->next;
  *slot = g;
}

void unlink_group(mdf_group* g) {
  for (mdf_group** slot = &state().open_groups; *slot != nullptr; slot = &(*slot)->next) {
    if (*slot == g) {
      *slot = g->next;
      return;
    }
  }
}

void free_group(mdf_group* g) {
  if (g->buffer != nullptr) mdfFree(g->buffer);
  release_record_cache(g);
  g->tag = 0;  // a stale handle is refused, not used
  mdfFree(g);
}

// The identifier byte of the group's own records.
uint8_t own_record_id(const mdf_group* g) {
  return static_cast<uint8_t>(load_le16(g->cg->image + cg::kRecordId) & 0xFF);
}

// Finds the channel group of a record identifier: the own one first, then the data
// group's list in order.
Node* group_of_record_id(mdf_group* g, uint8_t id) {
  if ((load_le16(g->cg->image + cg::kRecordId) & 0xFF) == id) return g->cg;
  for (Node* cg : chain(g->file->tree, g->dg, dg::kFirstCg)) {
    if ((load_le16(cg->image + cg::kRecordId) & 0xFF) == id) return cg;
  }
  return nullptr;
}

// Positions the file at the record position and reads (or, when only scanning, finds) the
// next record of this channel group, skipping records of other channel groups. Nothing is
// read beyond the end of the file.
int16_t read_record(mdf_group* g, bool scan_only) {
  // Another handle on the same channel group may have grown its record.
  if (int16_t st = refresh_record_layout(g); st != 0) return st;
  const uint16_t number = g->file->io_number;
  const int64_t file_size = io::known_size(number);
  const uint16_t ids = record_ids(g);
  auto fits = [&](uint64_t from, uint64_t count) {
    return static_cast<int64_t>(from + count) <= file_size;
  };
  for (;;) {
    uint64_t at = g->record_position;
    uint32_t length = record_size(g);
    Node* owner = g->cg;
    if (ids != 0) {
      uint8_t id = 0;
      if (!fits(at, 1)) return raise(MDF_ERR_FORMAT, "");
      // Records kept for array reads hold the identifier without a read.
      if (const uint8_t* kept = kept_file_bytes(g, at, 1); kept != nullptr) {
        id = *kept;
      } else if (io::seek(number, static_cast<int64_t>(at), 0) != 0 ||
                 io::read(&id, 1, number) != 0) {
        return raise(MDF_ERR_FORMAT, "");
      }
      owner = group_of_record_id(g, id);
      if (owner == nullptr) return raise(MDF_ERR_FORMAT, "");
      length = load_le16(owner->image + cg::kRecordSize) + (ids == 2 ? 1u : 0u);
      at += 1;
    }
    // A scan that passes the end of the file stops there, whatever the counts claim.
    if (!fits(at, length)) return raise(MDF_ERR_FORMAT, "");
    if (owner == g->cg) {
      if (scan_only) return 0;
      g->record_pending = true;
      g->pending_at = at;
      g->pending_length = length;
      g->pending_record = nullptr;
      return g->buffer_shown ? load_record(g) : 0;
    }
    g->record_position = at + length;
  }
}

int16_t move_cursor(mdf_group* g, int32_t position, uint16_t mode);

// Moves the cursor; a failed read puts it back where it was.
int16_t seek_record(mdf_group* g, int32_t position, uint16_t mode) {
  const uint32_t index = g->record_index;
  const uint64_t at = g->record_position;
  const int16_t st = move_cursor(g, position, mode);
  if (st < 0) {
    g->record_index = index;
    g->record_position = at;
  }
  return st;
}

int16_t move_cursor(mdf_group* g, int32_t position, uint16_t mode) {
  uint32_t target;
  if (mode == MDF_SEEK_REL) {
    if (position < 0 && static_cast<uint32_t>(-static_cast<int64_t>(position)) > g->record_index) {
      return MDF_END_OF_GROUP;
    }
    target = static_cast<uint32_t>(static_cast<int64_t>(g->record_index) + position);
  } else if (mode == MDF_SEEK_ABS) {
    target = static_cast<uint32_t>(position);
  } else {
    return raise(MDF_ERR_SEEK_MODE, "");
  }
  const uint64_t data = load_le32(g->dg->image + dg::kData);
  const uint16_t ids = record_ids(g);
  const uint32_t stride = record_size(g) + ids;
  // A record of a sorted group kept in memory as it stands in the file is found as
  // read_record finds it, without the file: its identifier is the group's own.
  if (target != g->record_index || target == 0) {
    if (const uint8_t* kept = kept_file_record(g, target);
        kept != nullptr && (ids == 0 || kept[0] == own_record_id(g)) &&
        record_size(g) + 1u + kBufferExtra + kRecordDataOffset <= g->buffer_capacity) {
      g->record_index = target;
      g->record_position = data + static_cast<uint64_t>(stride) * target;
      g->record_pending = true;
      // The data follow the leading identifier; a second identifier, if any, trails them.
      const uint32_t lead = ids != 0 ? 1u : 0u;
      g->pending_at = g->record_position + lead;
      g->pending_length = record_size(g) + (ids == 2 ? 1u : 0u);
      g->pending_record = kept + lead;
      g->pending_record_size = record_size(g);
      return g->buffer_shown ? load_record(g) : 0;
    }
  }
  if (!offers_record(g, target)) return MDF_END_OF_GROUP;
  if (target == 0) {
    g->record_index = 0;
    g->record_position = data;
    return read_record(g, false);
  }
  if (load_le16(g->dg->image + dg::kCgCount) == 1) {
    if (target == g->record_index) return 0;
    g->record_index = target;
    g->record_position = data + static_cast<uint64_t>(stride) * target;
    return read_record(g, false);
  }
  if (target < g->record_index) {
    g->record_index = 0;
    g->record_position = data;
    if (int16_t st = read_record(g, false); st != 0) return st;
  }
  if (target == g->record_index) return read_record(g, false);
  while (g->record_index != target) {
    ++g->record_index;
    g->record_position += stride;
    if (int16_t st = read_record(g, true); st != 0) return st;
  }
  return read_record(g, false);
}

// Writes the record buffer at the record position.
int16_t store_record(mdf_group* g) {
  if (int16_t st = refresh_record_layout(g); st != 0) return st;
  if (int16_t st = load_record(g); st != 0) return st;
  const uint16_t number = g->file->io_number;
  const uint16_t ids = record_ids(g);
  const uint32_t size = record_size(g);
  uint8_t* from = record_data(g);
  if (ids != 0) {
    const auto id = static_cast<uint8_t>(load_le16(g->cg->image + cg::kRecordId));
    from[-1] = id;
    // With two identifiers the byte that reaches the file behind the data is the one held
    // after the data; the identifier is put one byte further.
    if (ids == 2) from[size + 1] = id;
    from -= 1;
  }
  if (io::seek(number, static_cast<int64_t>(g->record_position), 0) != 0 ||
      io::write(from, size + ids, number) != 0) {
    return raise(MDF_ERR_WRITE, "");
  }
  return 0;
}

int16_t write_record(mdf_group* g) {
  if (g->mode == 0) return raise(MDF_ERR_OPEN_MODE, "");
  // Without a current record the cursor points at whatever follows the data (in a file this
  // library wrote, the group's own blocks): nothing is written there.
  if (!offers_record(g, g->record_index)) return MDF_END_OF_GROUP;
  // In a file opened for modifying, a record that the scan of a damaged data group found on
  // a block's bytes, or beyond the file as opened, is not written: the block would be lost.
  if (g->file->mode == 1 &&
      !record_bytes_free(g->file, g->record_position, uint64_t{record_size(g)} + record_ids(g))) {
    return raise(MDF_ERR_FORMAT, "");
  }
  return store_record(g);
}

int16_t append_record(mdf_group* g) {
  if (g->mode != 2) return raise(MDF_ERR_OPEN_MODE, "");
  const uint16_t number = g->file->io_number;
  if (io::seek(number, 0, io::kToEnd) != 0) return internal_error("MDFGRP1", __LINE__);
  const int64_t end = io::tell(number);
  if (end > 0xFFFFFFFFLL) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  g->record_position = static_cast<uint64_t>(end);
  g->record_index = record_count(g);
  store_le32(g->cg->image + cg::kRecordCount, g->record_index + 1);
  return store_record(g);
}

// Counts the channels of a channel group and finds its time channel (the last of type 1).
void scan_channels(mdf_group* g) {
  for (Node* cn : chain(g->file->tree, g->cg, cg::kFirstCn)) {
    if (g->channel_count < 0xFFFF) ++g->channel_count;
    if (load_le16(cn->image + cn::kType) == 1) g->time_channel = cn;
  }
  if (g->time_channel != nullptr) {
    g->time_conversion = resolve_link(g->file->tree, g->time_channel, cn::kConversion);
  }
}

int16_t open_existing(mdf_group** out, mdf_file* file, uint16_t n, uint16_t mode) {
  if (n > file->group_count) return raise(MDF_GROUP_NOT_FOUND, "");
  Node* dg = nullptr;
  Node* cg = nullptr;
  if (!find_channel_group(file, n, &dg, &cg)) return raise_fmt(MDF_GROUP_NOT_FOUND, "(n=%d)", n);
  mdf_group* g = nullptr;
  if (int16_t st = new_group(&g); st != 0) return st;
  g->file = file;
  g->mode = mode;
  g->number = n;
  g->dg = dg;
  g->cg = cg;
  scan_channels(g);
  if (int16_t st = allocate_buffer(g, load_le16(cg->image + cg::kRecordSize) + 1u); st != 0) {
    free_group(g);
    return st;
  }
  append_group(g);
  g->record_index = 0;
  g->record_position = load_le32(dg->image + dg::kData);
  const int16_t st = seek_record(g, 0, MDF_SEEK_ABS);
  if (st != 0 && st != MDF_END_OF_GROUP) {
    unlink_group(g);
    free_group(g);
    return st;
  }
  *out = g;
  return 0;
}

int16_t open_created(mdf_group** out, mdf_file* file, uint16_t n) {
  for (mdf_group* other = state().open_groups; other != nullptr; other = other->next) {
    if (other->file == file && other->mode == 2) return raise(MDF_ERR_TWO_CREATES, "");
  }
  const uint16_t number = file->io_number;
  if (io::seek(number, 0, io::kToEnd) != 0) return raise(MDF_ERR_SEEK, "");
  const int64_t end = io::tell(number);
  if (end > 0xFFFFFFFFLL) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  // Everything that can fail comes before the header is touched, so a failed create leaves
  // the file's list of data groups as it was.
  mdf_group* g = nullptr;
  if (int16_t st = new_group(&g); st != 0) return st;
  Node* cg = nullptr;
  Node* dg = nullptr;
  int16_t st = allocate_buffer(g, 1);
  if (st == 0) st = new_block(file, kCG, &cg);
  if (st == 0) st = new_block(file, kDG, &dg);
  if (st != 0) {
    free_group(g);
    return st;
  }
  store_le16(cg->image + cg::kRecordId, 1);
  Node* hd = file->header;
  set_link(dg, dg::kFirstCg, 0, cg);
  set_link(dg, dg::kNext, 0, resolve_link(file->tree, hd, hd::kFirstDg));
  store_le32(dg->image + dg::kData, static_cast<uint32_t>(end));
  store_le16(dg->image + dg::kCgCount, 1);
  store_le16(dg->image + dg::kRecordIds, 1);
  // The new data group goes to the head of the list: it is group 1 while it is open.
  store_le16(hd->image + hd::kDgCount,
             static_cast<uint16_t>(load_le16(hd->image + hd::kDgCount) + 1));
  set_link(hd, hd::kFirstDg, 0, dg);
  if (file->group_count < 0xFFFF) ++file->group_count;
  g->file = file;
  g->mode = 2;
  g->number = n;
  g->dg = dg;
  g->cg = cg;
  g->record_position = static_cast<uint64_t>(end);
  append_group(g);
  *out = g;
  return 0;
}

// The blocks of a created group go to the end of the file, each block before the blocks that
// link to it: per channel (last first) its module block, the texts of a verbal range table,
// the conversion, comment, display name and long name, then the channel; then the channel
// group's comment and the channel group, the trigger's comment and the trigger, and the data
// group. Blocks on disk already stay where they are. The header is then rewritten in place
// with the new first data group.
int16_t write_created_group(mdf_group* g) {
  mdf_file* file = g->file;
  auto& tree = file->tree;
  std::vector<Node*> channels;
  for (Node* cn : chain(tree, g->cg, cg::kFirstCn)) channels.push_back(cn);
  std::vector<Node*> order;
  for (auto it = channels.rbegin(); it != channels.rend(); ++it) {
    Node* cn = *it;
    order.push_back(resolve_link(tree, cn, cn::kExtension));
    Node* cc = resolve_link(tree, cn, cn::kConversion);
    if (cc != nullptr && load_le16(cc->image + cc::kType) == 12) {
      for (uint16_t i = 0; i < cc->link_count; ++i) {
        order.push_back(resolve_link(tree, cc, cc->links()[i].field));
      }
    }
    order.push_back(cc);
    order.push_back(resolve_link(tree, cn, cn::kComment));
    if (cn->block_size() >= cn::kSizeLongName) {
      if (cn->block_size() >= cn::kSize) order.push_back(resolve_link(tree, cn, cn::kDisplayName));
      order.push_back(resolve_link(tree, cn, cn::kLongName));
    }
    order.push_back(cn);
  }
  order.push_back(resolve_link(tree, g->cg, cg::kComment));
  order.push_back(g->cg);
  if (Node* tr = resolve_link(tree, g->dg, dg::kTrigger); tr != nullptr) {
    order.push_back(resolve_link(tree, tr, tr::kComment));
    order.push_back(tr);
  }
  order.push_back(g->dg);
  // The count written is the index of the last appended record.
  store_le32(g->cg->image + cg::kRecordCount, g->record_index);
  Placement placement(tree);
  placement.set_end(static_cast<uint64_t>(io::tell(file->io_number)));
  if (int16_t st = append_placed(file, placement, order); st != 0) return st;
  return write_placed(file, placement, file->header, {hd::kFirstDg});
}

int16_t write_modified_group(mdf_group* g) {
  mdf_file* file = g->file;
  Placement placement(file->tree);
  placement.set_end(static_cast<uint64_t>(io::tell(file->io_number)));
  Node* comment = resolve_link(file->tree, g->cg, cg::kComment);
  if (int16_t st = append_placed(file, placement, {comment}); st != 0) return st;
  return write_placed(file, placement, g->cg, {cg::kComment});
}

int16_t close_group(mdf_group* g) {
  state().channel_cache = ChannelCache{};
  // Every channel of the group goes, even one whose last record could not be stored: a
  // channel must never outlive its group.
  int16_t channel_status = 0;
  channelnode* ch = state().open_channels;
  while (ch != nullptr) {
    channelnode* next = ch->next;
    if (ch->group == g) {
      const int16_t st = mdfChnClose(ch);
      if (st != 0) {
        if (channel_status == 0) channel_status = st;
        remove_channel(ch);
        free_channel(ch);
      }
    }
    ch = next;
  }
  if (channel_status != 0 && sticky_error() == 0) return channel_status;
  // Module blocks set on channels of a file open for modifying reach the file with the group,
  // whatever mode the group is open in.
  if (sticky_error() == 0 && g->file->mode == 1) {
    if (int16_t st = write_new_module_blocks(g->file, g->cg); st != 0) return st;
  }
  if (sticky_error() == 0 && (g->mode == 1 || g->mode == 2)) {
    if (io::seek(g->file->io_number, 0, io::kToEnd) != 0) return raise(MDF_ERR_SEEK, "");
    const int16_t st = g->mode == 2 ? write_created_group(g) : write_modified_group(g);
    if (st != 0) return st;
    // A closed group is in the file whole, also for programs that read it meanwhile.
    if (int16_t cst = io::commit(g->file->io_number); cst != 0) return cst;
  }
  unlink_group(g);
  free_group(g);
  return 0;
}

}  // namespace

int16_t close_groups_of_file(mdf_file* file) {
  mdf_group* g = state().open_groups;
  while (g != nullptr) {
    if (g->tag != kGroupTag) return internal_error("MDFFILE1", 131);
    mdf_group* next = g->next;
    if (g->file == file) {
      if (close_group(g) != 0) {
        // A group that cannot be written is still released with its file.
        unlink_group(g);
        free_group(g);
      }
    }
    g = next;
  }
  return 0;
}

namespace {

int16_t delete_group(mdf_file* file, uint16_t n) {
  if (n > file->group_count) return raise(MDF_GROUP_NOT_FOUND, "");
  if (file->mode != 1) return raise(MDF_ERR_OPEN_MODE, "");
  Node *dg = nullptr, *cg = nullptr, *previous_cg = nullptr, *previous_dg = nullptr;
  if (!find_channel_group(file, n, &dg, &cg, &previous_cg, &previous_dg)) {
    return raise_fmt(MDF_GROUP_NOT_FOUND, "(n=%d)", n);
  }
  for (mdf_group* g = state().open_groups; g != nullptr; g = g->next) {
    if (g->cg == cg) return raise(MDF_GROUP_IS_OPEN, "");
  }
  // Blocks are rewritten where they lie; every block they link to is on disk already.
  const Placement on_disk(file->tree);
  Node* after_cg = resolve_link(file->tree, cg, cg::kNext);
  if (previous_cg != nullptr) {
    set_link(previous_cg, cg::kNext, 0, after_cg);
    if (int16_t st = write_placed(file, on_disk, previous_cg, {cg::kNext}); st != 0) return st;
  } else {
    set_link(dg, dg::kFirstCg, 0, after_cg);
  }
  const uint16_t count = load_le16(dg->image + dg::kCgCount);
  store_le16(dg->image + dg::kCgCount, static_cast<uint16_t>(count > 0 ? count - 1 : 0));
  if (int16_t st = write_placed(file, on_disk, dg); st != 0) return st;
  if (file->group_count > 0) --file->group_count;
  if (resolve_link(file->tree, dg, dg::kFirstCg) != nullptr) return 0;
  // The data group is empty: take it out of the header's list. Its records stay where they
  // are; nothing is compacted.
  Node* hd = file->header;
  Node* after_dg = resolve_link(file->tree, dg, dg::kNext);
  if (previous_dg != nullptr) {
    set_link(previous_dg, dg::kNext, 0, after_dg);
    if (int16_t st = write_placed(file, on_disk, previous_dg); st != 0) return st;
  } else {
    set_link(hd, hd::kFirstDg, 0, after_dg);
  }
  const uint16_t groups = load_le16(hd->image + hd::kDgCount);
  store_le16(hd->image + hd::kDgCount, static_cast<uint16_t>(groups > 0 ? groups - 1 : 0));
  return write_placed(file, on_disk, hd, {hd::kFirstDg});
}

}  // namespace

ChannelCache& channel_cache() {
  return state().channel_cache;
}

bool offers_record(const mdf_group* g, uint32_t index) {
  const uint32_t size = record_size(g);
  if (size == 0 || index >= record_count(g)) return false;
  const int64_t room = io::known_size(g->file->io_number) - load_le32(g->dg->image + dg::kData);
  return static_cast<int64_t>((uint64_t{index} + 1) * (size + record_ids(g))) <= room;
}

int16_t load_record(mdf_group* g) {
  if (!g->record_pending) return 0;
  g->record_pending = false;
  const uint16_t number = g->file->io_number;
  const uint32_t room = g->buffer_capacity - kRecordDataOffset;
  const uint32_t length = std::min(g->pending_length, room);
  if (io::seek(number, static_cast<int64_t>(g->pending_at), 0) != 0 ||
      (length != 0 && io::read_bulk(record_data(g), length, number) != 0)) {
    return raise(MDF_ERR_FORMAT, "");
  }
  return 0;
}

int16_t refresh_record_layout(mdf_group* g) {
  const uint32_t needed = record_size(g) + 1u + kBufferExtra + kRecordDataOffset;
  if (needed <= g->buffer_capacity) return 0;
  return allocate_buffer(g, record_size(g) + 1u);
}

int16_t group_seek(mdf_group* g, int32_t position, uint16_t mode) {
  return seek_record(g, position, mode);
}
int16_t group_write(mdf_group* g) {
  return write_record(g);
}
int16_t group_append(mdf_group* g) {
  return append_record(g);
}

}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfGrpOpen(mdf_group** group, mdf_file* file, uint16_t number, uint16_t mode) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (group != nullptr) *group = nullptr;
    if (!is_file(file)) return bad_file();
    if (mode > 2 || (mode != 0 && mode != file->mode)) return raise(MDF_ERR_OPEN_MODE, "");
    if (group == nullptr) return internal_error("MDFGRP1", __LINE__);
    return mode == 2 ? open_created(group, file, number) : open_existing(group, file, number, mode);
  });
}

KORVEL_API int16_t mdfGrpClose(mdf_group* group) {
  return api_call("MDFGRP1", [&]() -> int16_t {
    if (!is_group(group)) return bad_group();
    return close_group(group);
  });
}

KORVEL_API int16_t mdfGrpDelete(mdf_file* file, uint16_t number) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_file(file)) return bad_file();
    return delete_group(file, number);
  });
}

KORVEL_API int16_t mdfGrpGetFirst(mdf_group** group, mdf_file* file) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_file(file)) return bad_file();
    *group = nullptr;
    for (mdf_group* g = state().open_groups; g != nullptr; g = g->next) {
      if (g->file == file) {
        *group = g;
        return 0;
      }
    }
    return MDF_GRP_NOT_FOUND;
  });
}

KORVEL_API int16_t mdfGrpGetNext(mdf_group** group) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (group == nullptr || *group == nullptr) return MDF_GRP_NOT_FOUND;
    if (!is_group(*group)) return bad_group();
    for (mdf_group* g = (*group)->next; g != nullptr; g = g->next) {
      if (g->file == (*group)->file) {
        *group = g;
        return 0;
      }
    }
    *group = nullptr;
    return MDF_GRP_NOT_FOUND;
  });
}

KORVEL_API int16_t mdfGrpChannels(uint16_t* count, mdf_group* group) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_group(group)) return bad_group();
    *count = group->channel_count;
    return 0;
  });
}

KORVEL_API int16_t mdfGrpRecords(uint32_t* count, mdf_group* group) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_group(group)) return bad_group();
    *count = record_count(group);
    return 0;
  });
}

KORVEL_API int16_t mdfGrpTell(uint32_t* index, mdf_group* group) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_group(group)) return bad_group();
    *index = group->record_index;
    return 0;
  });
}

KORVEL_API int16_t mdfGrpSeek(mdf_group* group, int32_t position, uint16_t mode) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_group(group)) return bad_group();
    return seek_record(group, position, mode);
  });
}

KORVEL_API int16_t mdfGrpWrite(mdf_group* group) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_group(group)) return bad_group();
    return write_record(group);
  });
}

KORVEL_API int16_t mdfGrpWriteAppend(mdf_group* group) {
  return checked_call("MDFGRP1", [&]() -> int16_t {
    if (!is_group(group)) return bad_group();
    return append_record(group);
  });
}

KORVEL_API int32_t mdfGrpBuffer(uint8_t** data, mdf_group* group) {
  // No status bookkeeping; a handle that is not a group gives size 0 and no address.
  if (!is_group(group)) {
    if (data != nullptr) *data = nullptr;
    return 0;
  }
  // From now on the caller may read the buffer at any time: it holds every record sought.
  group->buffer_shown = true;
  (void)load_record(group);
  if (data != nullptr) *data = record_data(group);
  return static_cast<int32_t>(record_size(group)) + static_cast<int32_t>(kBufferExtra);
}

KORVEL_API int16_t mdfFileChannels(uint32_t* count, mdf_file* file) {
  return checked_call("MDFFILE1", [&]() -> int16_t {
    if (!is_file(file)) return bad_file();
    *count = 0;
    for (uint32_t n = 1; n <= file->group_count; ++n) {
      mdf_group* g = nullptr;
      if (int16_t st = mdfGrpOpen(&g, file, static_cast<uint16_t>(n), 0); st != 0) return st;
      *count += g->channel_count;
      mdfGrpClose(g);
    }
    return 0;
  });
}

}  // extern "C"
