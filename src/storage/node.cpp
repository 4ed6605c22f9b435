// The block node tree of an open file and the list of open files.
#include "storage/node.h"

#include <cstring>
#include <new>

#include "frame/bytes.h"
#include "frame/frame.h"

namespace korvel {
namespace {

constexpr std::size_t kBackPointer = sizeof(Node*);

std::size_t links_bytes(uint16_t count) {
  return sizeof(LinkRecord) * count;
}

bool valid_head(const Node* node) {
  if (node->kind == 0) return true;
  const uint8_t* b = node->image;
  return load_le16(b + 2) >= 4 && b[0] >= 'A' && b[0] <= 'Z' && b[1] >= 'A' && b[1] <= 'Z';
}

}  // namespace

uint16_t Node::block_size() const {
  return kind == 0 ? uint16_t{64} : load_le16(image + 2);
}

NodeTree::~NodeTree() {
  // Release from the last node to the first.
  for (auto it = nodes_.rbegin(); it != nodes_.rend(); ++it) {
    if ((*it)->saved != nullptr) mdfFree((*it)->saved);
    mdfFree(*it);
  }
}

Node* NodeTree::add(uint16_t kind, uint32_t image_size, uint32_t read_position,
                    const uint32_t* link_fields, uint16_t link_count) {
  const std::size_t total = sizeof(Node) + links_bytes(link_count) + kBackPointer + image_size;
  if (total > 0xFFFFFFFFu) return nullptr;
  void* memory = mdfMalloc(static_cast<uint32_t>(total));
  if (memory == nullptr) return nullptr;
  try {
    // Room for one more node, grown by doubling: reserving exactly one more slot would copy
    // the whole list at every add, which makes building a tree quadratic in its size.
    if (nodes_.size() == nodes_.capacity()) nodes_.reserve(nodes_.empty() ? 64 : 2 * nodes_.size());
    // The same for the position index (its load factor stays at the default 1): reserving
    // exactly one more entry grows the table to the next of its bucket counts, which lie
    // about 10% apart, so it would rehash (walking every entry) far more often.
    if (read_position != 0 && by_position_.size() + 1 > by_position_.bucket_count()) {
      by_position_.reserve(2 * by_position_.size() + 64);
    }
  } catch (const std::bad_alloc&) {
    mdfFree(memory);
    return nullptr;
  }
  auto* node = static_cast<Node*>(memory);
  node->tag = kNodeTag;
  node->read_position = read_position;
  node->written_position = 0;
  node->image_size = image_size;
  node->link_count = link_count;
  node->kind = kind;
  node->saved = nullptr;
  auto* bytes = static_cast<uint8_t*>(memory);
  uint8_t* back = bytes + sizeof(Node) + links_bytes(link_count);
  std::memcpy(back, &node, sizeof node);
  node->image = back + kBackPointer;
  LinkRecord* links = node->links();
  for (uint16_t i = 0; i < link_count; ++i) {
    links[i] = LinkRecord{kLinkTag, static_cast<uint16_t>(link_fields[i]), 0, nullptr};
  }
  node->list_index = static_cast<uint32_t>(nodes_.size());
  nodes_.push_back(node);
  if (read_position != 0) by_position_.emplace(read_position, node);
  return node;
}

int16_t NodeTree::remove(Node* node) {
  if (node == nullptr || node->tag != kNodeTag) return internal_error("BNODE", __LINE__);
  const uint32_t index = node->list_index;
  if (index >= nodes_.size() || nodes_[index] != node) return MDF_ERR_NODE_NOT_FOUND;
  nodes_[index] = nodes_.back();
  nodes_[index]->list_index = index;
  nodes_.pop_back();
  if (node->read_position != 0) {
    auto it = by_position_.find(node->read_position);
    if (it != by_position_.end() && it->second == node) by_position_.erase(it);
  }
  if (node->saved != nullptr) mdfFree(node->saved);
  mdfFree(node);
  return 0;
}

void NodeTree::register_links(Node* node) {
  LinkRecord* links = node->links();
  for (uint16_t i = 0; i < node->link_count; ++i) {
    links[i].position = load_le32(node->image + links[i].field);
    links[i].target = nullptr;
  }
}

Node* NodeTree::find_by_position(uint32_t position) const {
  auto it = by_position_.find(position);
  if (it == by_position_.end()) return nullptr;
  if (it->second->tag != kNodeTag) {
    internal_error("BNODE", __LINE__);
    return nullptr;
  }
  return it->second;
}

Node* NodeTree::find_by_block(const uint8_t* image) {
  if (image == nullptr) return nullptr;
  Node* node;
  std::memcpy(&node, image - kBackPointer, sizeof node);
  if (node == nullptr || node->tag != kNodeTag || node->image != image) {
    internal_error("BNODE", __LINE__);
    return nullptr;
  }
  return node;
}

LinkRecord* NodeTree::find_link(Node* owner, uint32_t field) {
  if (owner == nullptr) return nullptr;
  LinkRecord* links = owner->links();
  // Link fields are registered in ascending order of their offsets.
  uint16_t lo = 0;
  uint16_t hi = owner->link_count;
  while (lo < hi) {
    const uint16_t mid = static_cast<uint16_t>((lo + hi) / 2);
    if (links[mid].field < field) {
      lo = static_cast<uint16_t>(mid + 1);
    } else {
      hi = mid;
    }
  }
  if (lo < owner->link_count && links[lo].field == field) {
    if (links[lo].tag != kLinkTag) {
      internal_error("LNODE", __LINE__);
      return nullptr;
    }
    return &links[lo];
  }
  return nullptr;
}

Node* resolve_link(const NodeTree& tree, Node* owner, uint32_t field) {
  LinkRecord* link = NodeTree::find_link(owner, field);
  if (link == nullptr) {
    raise(MDF_ERR_UNKNOWN_LINK, "");
    return nullptr;
  }
  if (link->target != nullptr) return link->target;
  if (link->position == 0) return nullptr;
  Node* target = tree.find_by_position(link->position);
  if (target == nullptr) {
    raise(MDF_ERR_UNKNOWN_BLOCK, "");
    return nullptr;
  }
  link->target = target;
  if (!valid_head(target) || target->block_size() < 4) internal_error("MDF1", __LINE__);
  return target;
}

LinkRecord* set_link(Node* owner, uint32_t field, uint32_t position, Node* target) {
  LinkRecord* link = NodeTree::find_link(owner, field);
  if (link == nullptr) {
    raise(MDF_ERR_UNKNOWN_LINK, "");
    return nullptr;
  }
  link->target = target;
  link->position = position;
  return link;
}

int16_t save_copy(Node* node) {
  if (node->saved != nullptr) return internal_error("BNODE", __LINE__);
  node->saved = static_cast<uint8_t*>(mdfMalloc(node->image_size));
  if (node->saved == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  std::memcpy(node->saved, node->image, node->image_size);
  return 0;
}

int16_t restore_copy(Node* node) {
  if (node->saved == nullptr) return internal_error("BNODE", __LINE__);
  std::memcpy(node->image, node->saved, node->image_size);
  mdfFree(node->saved);
  node->saved = nullptr;
  if (!valid_head(node)) return internal_error("MDF3", __LINE__);
  return 0;
}

int16_t create_file_record(mdf_file** out) {
  *out = nullptr;
  void* memory = mdfMalloc(sizeof(mdf_file));
  if (memory == nullptr) return raise(MDF_ERR_NO_MEMORY, "");
  auto* file = new (memory) mdf_file();
  file->context_depth = state().context_depth;
  *out = file;
  return 0;
}

void link_file(mdf_file* file) {
  file->next = state().open_files;
  state().open_files = file;
}

int16_t unlink_file(mdf_file* file) {
  mdf_file** slot = &state().open_files;
  while (*slot != nullptr) {
    if (*slot == file) {
      *slot = file->next;
      file->next = nullptr;
      return 0;
    }
    slot = &(*slot)->next;
  }
  return MDF_ERR_NODE_NOT_FOUND;
}

void release_file_record(mdf_file* file) {
  if (file == nullptr) return;
  if (file->tag != kFileTag) {
    internal_error("FNODE", __LINE__);
    return;
  }
  unlink_file(file);
  file->tag = 0;  // a stale handle is refused, not used
  file->~mdf_file();
  mdfFree(file);
}

}  // namespace korvel
