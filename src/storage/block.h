// Reading, making and writing the blocks of an MDF 3.x file.
#pragma once

#include <cstddef>
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
// A copy of `source` (a block of `source_tree`, with the in-memory extra) as a new unwritten
// node whose links point to the source's targets until changed; those lie in the source's
// tree, so they have no place in the file unless placed (Placement).
int16_t copy_block(mdf_file* file, Node** out, const NodeTree& source_tree, const Node* source);

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

// The members of a chain of DG, CG, CN or SR blocks: the block that `owner`'s link at `field`
// leads to, then each member's next along the link that the kinds table names for its kind.
// It ends at a link of 0, at a link that cannot be followed (raised by resolve_link), and
// after as many members as the tree has nodes, so a loop of links cannot hold it.
class Chain {
 public:
  class iterator {
   public:
    using value_type = Node*;
    using difference_type = std::ptrdiff_t;
    iterator() = default;
    iterator(const NodeTree* tree, Node* node) : tree_(tree), node_(node) {}
    Node* operator*() const { return node_; }
    iterator& operator++() {
      const layout::KindSpec* desc = layout::kind_spec(node_->kind);
      node_ = desc != nullptr && desc->next != 0 && ++steps_ < tree_->size()
                  ? resolve_link(*tree_, node_, desc->next)
                  : nullptr;
      return *this;
    }
    bool operator==(const iterator& other) const { return node_ == other.node_; }

   private:
    const NodeTree* tree_ = nullptr;
    Node* node_ = nullptr;
    std::size_t steps_ = 0;
  };
  Chain(const NodeTree& tree, Node* first) : tree_(&tree), first_(first) {}
  iterator begin() const { return iterator(tree_, first_); }
  iterator end() const { return iterator(); }

 private:
  const NodeTree* tree_;
  Node* first_;
};
inline Chain chain(const NodeTree& tree, Node* owner, uint32_t field) {
  return Chain(tree, resolve_link(tree, owner, field));
}

// Text of a TX node (always terminated in memory), "" for none.
const char* text_of(const Node* tx);

}  // namespace korvel
