// The in-memory tree of an open file's blocks.
//
// Every block of an open file is held as a byte image of the block on disk. Blocks refer to
// each other only through their on-disk link fields; following a link means asking the
// file's indexes, which keeps the images byte-exact and lets new blocks be linked to each
// other before they have a file position.
//
// A node is allocated in one piece with its link records and its image:
//   [Node][LinkRecord x link_count][pointer back to the Node][image]
// so the node of an image is found from the image address itself, and the link records of
// a block need no separate index. Nodes read from the file are indexed by read position.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "korvel.h"

namespace korvel {

constexpr uint32_t kFileTag = 30820;     // 0x7864
constexpr uint32_t kNodeTag = 30565;     // 0x7765
constexpr uint16_t kLinkTag = 5269;      // 0x1495
constexpr uint32_t kGroupTag = 30775;    // 0x7837
constexpr uint32_t kChannelTag = 10444;  // 0x28CC

struct Node;

// One link field of a block: where it points as read, and its target once resolved or set.
struct LinkRecord {
  uint16_t tag;       // kLinkTag
  uint16_t field;     // offset of the 32-bit link field inside the owner's image
  uint32_t position;  // the link value as read (the target's file offset)
  Node* target;       // the target once resolved or set, else null
};
static_assert(sizeof(LinkRecord) == 16, "link records are kept small: a file has millions");

struct Node {
  uint32_t tag;               // kNodeTag
  uint32_t read_position;     // file offset the block was read from; 0 for a new block
  uint32_t written_position;  // where the block was last written in its own file; 0 if never
  uint32_t image_size;        // bytes allocated for the image (block size + in-memory extra)
  uint16_t link_count;
  uint16_t kind;        // block identifier as 16-bit value; 0 for the identification block
  uint32_t list_index;  // position in the file's list of nodes
  uint8_t* saved;       // snapshot of the image, or null
  uint8_t* image;       // the block image

  LinkRecord* links() { return reinterpret_cast<LinkRecord*>(this + 1); }
  uint16_t block_size() const;  // from the head (64 for the identification block)
};

// The node tree of one file: owns every node and image.
class NodeTree {
 public:
  NodeTree() = default;
  NodeTree(const NodeTree&) = delete;
  NodeTree& operator=(const NodeTree&) = delete;
  ~NodeTree();

  // Makes a node holding an image of `image_size` zero bytes, with link records for the
  // given field offsets (their positions taken from the image later by register_links).
  // Enters it in the position index when `read_position` is not 0. Null on no memory.
  Node* add(uint16_t kind, uint32_t image_size, uint32_t read_position, const uint32_t* link_fields,
            uint16_t link_count);
  // Removes a node from the indexes and frees it with its image.
  int16_t remove(Node* node);
  // Takes the link records' positions from the image's current field values.
  static void register_links(Node* node);

  Node* find_by_position(uint32_t position) const;
  // Whether `node` is one of this tree's nodes.
  bool contains(const Node* node) const {
    return node != nullptr && node->list_index < nodes_.size() && nodes_[node->list_index] == node;
  }
  static Node* find_by_block(const uint8_t* image);
  // The link record of a field, or null when the block has no link there.
  static LinkRecord* find_link(Node* owner, uint32_t field);

  std::size_t size() const { return nodes_.size(); }
  // Bytes of the blocks read from the file, as counted by the reader.
  uint64_t loaded_bytes() const { return loaded_bytes_; }
  void count_loaded(uint32_t bytes) { loaded_bytes_ += bytes; }
  const std::vector<Node*>& nodes() const { return nodes_; }

 private:
  std::vector<Node*> nodes_;                         // every node, for release
  std::unordered_map<uint32_t, Node*> by_position_;  // nodes read from the file
  uint64_t loaded_bytes_ = 0;
};

// Resolves the link at `field` of `owner`: the target block's node, or null (link 0, or a
// failure raised as -2009 unknown link / -2008 unknown block).
Node* resolve_link(const NodeTree& tree, Node* owner, uint32_t field);
// Points the link at `field` to `target` (and `position`) without touching the image;
// the field gets its value when the owner is written. Null and -2009 raised when unknown.
LinkRecord* set_link(Node* owner, uint32_t field, uint32_t position, Node* target);

// The bytes [start, start + length) of a file.
struct Extent {
  uint32_t start;
  uint32_t length;
  uint64_t end() const { return uint64_t{start} + length; }
};

// Saves a snapshot of the image / copies it back and drops it; used to undo changes when
// an operation on a block fails.
int16_t save_copy(Node* node);
int16_t restore_copy(Node* node);

}  // namespace korvel

// The file record behind a file handle.

struct mdf_file {
  uint32_t tag = korvel::kFileTag;
  uint16_t context_depth = 0;
  uint16_t io_number = 65535;
  uint16_t mode = 0;
  uint16_t group_count = 0;
  char name[261] = {};
  korvel::Node* id_block = nullptr;
  korvel::Node* header = nullptr;
  mdf_file* next = nullptr;
  korvel::NodeTree tree;
  // A file opened for modifying: the blocks read at open, sorted and disjoint, and the file's
  // size then. Records are written only where neither lies.
  std::vector<korvel::Extent> blocks;
  int64_t size_at_open = 0;
};

namespace korvel {

// Creates a file record (tag set, file number 65535) at the current context depth.
int16_t create_file_record(mdf_file** out);
// Puts the file at the head of the list of open files / takes it out (-2010 if absent).
void link_file(mdf_file* file);
int16_t unlink_file(mdf_file* file);
// Unlinks the file and frees every node, image and link record and the record itself.
void release_file_record(mdf_file* file);
// A file handle with the right tag, else null.
inline bool is_file(const mdf_file* file) {
  return file != nullptr && file->tag == kFileTag;
}

}  // namespace korvel
