// Placing blocks in an output and emitting them with their links set from the placement.
#include "storage/placement.h"

#include <cstring>
#include <vector>

#include "frame/bytes.h"
#include "frame/frame.h"
#include "storage/io.h"

namespace korvel {
namespace {

constexpr const char* kUnit = "MDF3";

bool valid_for_writing(const Node* node) {
  return node->kind == 0 || node->block_size() >= 4;
}

// Room for the copy of one block being written into its own file.
std::vector<uint8_t>& scratch() {
  return state().kept.emit_scratch;
}

int16_t emit_into_scratch(mdf_file* file, const Placement& placement, Node* node,
                          const LinkRule* rule) {
  std::vector<uint8_t>& bytes = scratch();
  bytes.resize(written_size(node));
  return emit_block(file->tree, node, placement, bytes.data(), rule);
}

// Writes the emitted copy in scratch at `position` and notes it as the block's place.
int16_t write_scratch(mdf_file* file, Node* node, uint64_t position) {
  const std::vector<uint8_t>& bytes = scratch();
  node->written_position = static_cast<uint32_t>(position);
  std::memcpy(node->image, bytes.data(), bytes.size());
  return io::write(bytes.data(), static_cast<uint32_t>(bytes.size()), file->io_number);
}

}  // namespace

void Placement::append(const Node* node) {
  if (node == nullptr || placed(node)) return;
  positions_.emplace(node, end_);
  end_ += written_size(node);
}

bool Placement::position_of(const Node* node, uint64_t* out) const {
  if (auto it = positions_.find(node); it != positions_.end()) {
    *out = it->second;
    return true;
  }
  // A block of the output's own file that is on disk there already.
  if (own_ != nullptr && own_->contains(node)) {
    const uint32_t at = node->written_position != 0 ? node->written_position : node->read_position;
    if (at != 0) {
      *out = at;
      return true;
    }
  }
  return false;
}

int16_t placed_link(const NodeTree& tree, const Node* owner, uint32_t field,
                    const Placement& placement, uint32_t* value) {
  *value = 0;
  LinkRecord* link = NodeTree::find_link(const_cast<Node*>(owner), field);
  if (link == nullptr) return raise(MDF_ERR_UNKNOWN_LINK, "");
  const Node* target = link->target;
  if (target == nullptr) {
    if (link->position == 0) return 0;
    target = tree.find_by_position(link->position);
    if (target == nullptr) return raise(MDF_ERR_UNKNOWN_BLOCK, "");
    link->target = const_cast<Node*>(target);
  }
  uint64_t position = 0;
  if (!placement.position_of(target, &position)) return internal_error(kUnit, __LINE__);
  if (position > 0xFFFFFFFFull) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  *value = static_cast<uint32_t>(position);
  return 0;
}

int16_t emit_block(const NodeTree& tree, const Node* node, const Placement& placement, uint8_t* out,
                   const LinkRule* rule) {
  if (!valid_for_writing(node)) return internal_error(kUnit, __LINE__);
  std::memcpy(out, node->image, written_size(node));
  const LinkRecord* links = const_cast<Node*>(node)->links();
  for (uint16_t i = 0; i < node->link_count; ++i) {
    const uint32_t field = links[i].field;
    uint32_t value = 0;
    if (rule == nullptr || !(*rule)(node, field, &value)) {
      if (int16_t st = placed_link(tree, node, field, placement, &value); st != 0) return st;
    }
    store_le32(out + field, value);
  }
  return 0;
}

int16_t write_placed(mdf_file* file, const Placement& placement, Node* node) {
  return write_placed(file, placement, node, {});
}

int16_t write_placed(mdf_file* file, const Placement& placement, Node* node,
                     std::initializer_list<uint32_t> fields) {
  if (!valid_for_writing(node)) return internal_error(kUnit, __LINE__);
  uint64_t position = 0;
  if (!placement.position_of(node, &position)) return internal_error(kUnit, __LINE__);
  // Only the identification block lives at 0.
  if (position == 0 && node->kind != 0) return internal_error(kUnit, __LINE__);
  if (position > 0xFFFFFFFFull) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  const LinkRule keep_others = [&](const Node* owner, uint32_t field, uint32_t* value) {
    for (uint32_t f : fields) {
      if (f == field) return false;
    }
    *value = load_le32(owner->image + field);
    return true;
  };
  if (int16_t st =
          emit_into_scratch(file, placement, node, fields.size() != 0 ? &keep_others : nullptr);
      st != 0) {
    return st;
  }
  const uint16_t number = file->io_number;
  const int64_t current = io::tell(number);
  // A block placed where the file stands is appended there; one placed elsewhere is written
  // in place, and the file returns to where it stood.
  if (current == static_cast<int64_t>(position)) return write_scratch(file, node, position);
  if (int16_t st = io::seek(number, static_cast<int64_t>(position), io::kFromStart); st != 0)
    return st;
  if (int16_t st = write_scratch(file, node, position); st != 0) return st;
  return io::seek(number, current, io::kFromStart);
}

int16_t append_placed(mdf_file* file, Placement& placement, std::span<Node* const> nodes) {
  std::vector<Node*> fresh;
  for (Node* node : nodes) {
    if (node == nullptr || placement.placed(node)) continue;
    placement.append(node);
    fresh.push_back(node);
  }
  for (Node* node : fresh) {
    uint64_t position = 0;
    placement.position_of(node, &position);
    // The blocks go one after another from where the placement began: the file's end.
    if (io::tell(file->io_number) != static_cast<int64_t>(position)) {
      return internal_error(kUnit, __LINE__);
    }
    if (position > 0xFFFFFFFFull) return raise(MDF_ERR_FILE_TOO_LARGE, "");
    if (int16_t st = emit_into_scratch(file, placement, node, nullptr); st != 0) return st;
    if (int16_t st = write_scratch(file, node, position); st != 0) return st;
  }
  return 0;
}

}  // namespace korvel
