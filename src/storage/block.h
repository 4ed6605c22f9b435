// Reading, making and writing the blocks of an MDF 3.x file.
#pragma once

#include <cstdint>

#include "storage/layout.h"
#include "storage/node.h"

namespace korvel {

// The offsets of the link fields of a block image, in ascending order. `size` is the
// block size from its head; only fields that the size covers count.
uint16_t link_fields(uint16_t kind, const uint8_t* image, uint32_t size, uint32_t* out,
                     uint16_t capacity);

// Bytes an image of this kind holds beyond its block: a TX image ends with a spare zero,
// a CC image carries offset and factor of the verbal range table, a CE image zeros enough
// for a whole module record behind offset 6 whatever the stored size.
uint32_t image_extra(uint16_t kind);

// A new block of `kind` (0 for the identification block) with its default size and
// contents, registered as an unwritten node with its links.
int16_t new_block(mdf_file* file, uint16_t kind, Node** out);
// A new block of `kind` with `size` bytes (head filled), zero otherwise.
int16_t new_sized_block(mdf_file* file, uint16_t kind, uint32_t size, Node** out);
int16_t new_conversion_block(mdf_file* file, Node** out, uint16_t type, uint16_t entries);
int16_t new_trigger_block(mdf_file* file, Node** out, uint16_t events);
int16_t new_text_block(mdf_file* file, Node** out, uint32_t length, const char* text);
// A copy of `source` (with the in-memory extra) as a new unwritten node with its links;
// the links keep the source's positions and targets unless changed.
int16_t copy_block(mdf_file* file, Node** out, const Node* source);

// Reads the block at `link` (none for 0); a block read before is handed out again. A head
// or body past the end of the file is a short read (-2001 raised); a head that cannot be a
// block, or a block shorter than its fixed fields, returns -2004 without raising it; a block
// of another kind than `expected` (0 = any) raises -2004.
// `fresh` (optional) tells whether the block was read just now.
int16_t read_block(mdf_file* file, uint32_t link, uint16_t expected, Node** out,
                   bool* fresh = nullptr);

struct ReadOptions {
  bool convert_floats = true;      // convert VAX G / D REALs to IEEE at read
  bool accept_unfinished = false;  // accept the identifier "UnFinMF "
};
// Reads every block of the file into its node tree; sets the file's identification and
// header nodes. On failure both stay null and the status is returned.
int16_t read_file(mdf_file* file, const ReadOptions& options);

// Writes the block at its written (else read) position and returns to the current
// position; appends it at the end of the file. Both note the written position.
int16_t write_block_in_place(mdf_file* file, Node* node);
int16_t append_block(mdf_file* file, Node* node);
// Stores into the link field the position of the block it points to (0 for none).
int16_t set_link_from_node(mdf_file* file, Node* owner, uint32_t field);
// set_link_from_node for every link field of the block.
int16_t set_links_from_nodes(mdf_file* file, Node* owner);

// The position a block has on disk: written, else read position.
inline uint32_t disk_position(const Node* node) {
  return node->written_position != 0 ? node->written_position : node->read_position;
}

// Text of a TX node (always terminated in memory), "" for none.
const char* text_of(const Node* tx);

}  // namespace korvel
