// Where the blocks of one output go, and emitting them there.
//
// Deciding where blocks go is kept apart from writing them. A layout pass gives every block
// that an output needs its position in that output (a Placement); emitting a block then
// writes a copy of its image with every link field set from those positions. A link to a
// block that has no position in the output is an internal error: an offset taken from
// another file (where the block was read, or where a copied block's source lies) never
// reaches the output.
//
// The output is either the file of the blocks' own tree (group and file closes; blocks
// already on disk there keep their place unless placed anew) or a new file (the sort; only
// blocks placed for it have a position).
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <unordered_map>

#include "storage/node.h"

namespace korvel {

class Placement {
 public:
  // An output that is a new file: only the blocks placed here have a position in it.
  Placement() = default;
  // An output that is the file of `own`: a block of that tree already on disk keeps its
  // position there unless it is placed anew.
  explicit Placement(const NodeTree& own) : own_(&own) {}

  // The end of the output: where the next appended block goes.
  void set_end(uint64_t end) { end_ = end; }
  uint64_t end() const { return end_; }
  // Gives `node` the position at the end of the output and moves the end past the block;
  // a block that has a position already is left where it is.
  void append(const Node* node);
  // Gives `node` the position `position`.
  void assign(const Node* node, uint64_t position) { positions_[node] = position; }
  // The position of `node` in the output; false when it has none.
  bool position_of(const Node* node, uint64_t* out) const;
  bool placed(const Node* node) const {
    uint64_t unused = 0;
    return position_of(node, &unused);
  }

 private:
  const NodeTree* own_ = nullptr;
  std::unordered_map<const Node*, uint64_t> positions_;
  uint64_t end_ = 0;
};

// Bytes of a block as written: its size from the head, 64 for the identification block.
inline uint32_t written_size(const Node* node) {
  return node->kind == 0 ? 64u : node->block_size();
}

// Lets the caller decide the value of a link field itself: returns true and sets `value`,
// or false to leave the field to the placement.
using LinkRule = std::function<bool(const Node* owner, uint32_t field, uint32_t* value)>;

// The value a link field of `owner` takes in the output: the placed position of its target,
// 0 for none. The target is the link's (set or resolved) block, else the block of `tree` at
// the position read (-2008 raised when there is none). A target without a position is an
// internal error; a position beyond 32 bits raises -2014.
int16_t placed_link(const NodeTree& tree, const Node* owner, uint32_t field,
                    const Placement& placement, uint32_t* value);

// Copies the block of `node` (written_size bytes) into `out` with every link field set as
// placed_link says, or as `rule` decides for the fields it takes.
int16_t emit_block(const NodeTree& tree, const Node* node, const Placement& placement, uint8_t* out,
                   const LinkRule* rule = nullptr);

// Emits `node` into its own file at its placed position (appended when the file stands there,
// else written in place and the file returned to where it stood) and notes the position as the
// block's place on disk. The image takes the link values written, so it stays what the disk holds.
// With `fields` given, only those link fields are set from the placement; the others are written as
// stored.
int16_t write_placed(mdf_file* file, const Placement& placement, Node* node);
int16_t write_placed(mdf_file* file, const Placement& placement, Node* node,
                     std::initializer_list<uint32_t> fields);

// Places the blocks in order at the end of `placement` and writes them there, in that order;
// blocks with a position already are neither placed anew nor written. Nulls are skipped.
int16_t append_placed(mdf_file* file, Placement& placement, std::span<Node* const> nodes);
inline int16_t append_placed(mdf_file* file, Placement& placement,
                             std::initializer_list<Node*> nodes) {
  return append_placed(file, placement, std::span<Node* const>(nodes.begin(), nodes.size()));
}

}  // namespace korvel
