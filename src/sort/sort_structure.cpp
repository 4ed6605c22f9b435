// The target's block structure, planned before it is written so that every link is written
// once with its target's position in the target, and the layout of its data area.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "channel/decode.h"
#include "frame/bytes.h"
#include "frame/frame.h"
#include "platform/platform.h"
#include "sort/sort.h"
#include "sort/sorter.h"
#include "storage/block.h"
#include "storage/io.h"
#include "storage/layout.h"
#include "storage/node.h"
#include "storage/placement.h"

namespace korvel::sort {

using namespace layout;

int16_t Sorter::place(const Node* node) {
  if (node == nullptr || placement_.placed(node)) return 0;
  if (placement_.end() + written_size(node) > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  plan_.push_back({node, 0, static_cast<uint32_t>(placement_.end())});
  placement_.append(node);
  return 0;
}

// A channel and the blocks it links to (the next channel aside: the chain places it), with
// the texts of a verbal range table right behind their conversion.
int16_t Sorter::place_channel(Node* cn) {
  NodeTree& tree = tree_->tree;
  if (int16_t st = place(cn); st != 0) return st;
  const KindSpec& desc = *kind_spec(kCN);
  const uint16_t size = cn->block_size();
  for (uint8_t i = 0; i < desc.link_count; ++i) {
    const LinkSpec& link = desc.links[i];
    if (link.field == desc.next || size < link.from_size) continue;
    Node* target = resolve_link(tree, cn, link.field);
    if (int16_t st = place(target); st != 0) return st;
    if (target == nullptr || target->kind != kCC) continue;
    for (uint16_t k = 0; k < target->link_count; ++k) {
      if (int16_t st = place(resolve_link(tree, target, target->links()[k].field)); st != 0)
        return st;
    }
  }
  return 0;
}

int16_t Sorter::plan_structure() {
  NodeTree& tree = tree_->tree;
  Node* hd = tree_->header;
  int16_t st = place(tree_->id_block);
  if (st == 0) st = place(hd);
  if (st == 0) st = place(resolve_link(tree, hd, hd::kComment));
  if (st == 0) st = place(resolve_link(tree, hd, hd::kProgram));
  for (uint32_t i = 0; st == 0 && i < slots_.size(); ++i) {
    Slot& s = slots_[i];
    if (placement_.end() + kNewDgSize > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
    s.target_dg = static_cast<uint32_t>(placement_.end());
    plan_.push_back({nullptr, i, s.target_dg});
    placement_.set_end(placement_.end() + kNewDgSize);
    Node* tr = resolve_link(tree, groups_[s.dg_index].dg, dg::kTrigger);
    st = place(tr);
    if (st == 0 && tr != nullptr) st = place(resolve_link(tree, tr, tr::kComment));
    if (st == 0) st = place(s.cg);
    if (st != 0) break;
    uint64_t cg_position = 0;
    placement_.position_of(s.cg, &cg_position);
    s.target_cg = static_cast<uint32_t>(cg_position);
    st = place(resolve_link(tree, s.cg, cg::kComment));
    for (Node* cn : chain(tree, s.cg, cg::kFirstCn)) {
      if (st != 0) break;
      st = place_channel(cn);
      // The time channel: the first of type 1 whose bytes lie within the record.
      if (st == 0 && (recount_ || check_time_) && s.time_cn == nullptr &&
          load_le16(cn->image + cn::kType) == 1 &&
          field_fits(value_layout(cn->image), s.record_size)) {
        s.time_cn = cn;
        Node* cc = resolve_link(tree, cn, cn::kConversion);
        s.time_cc = cc != nullptr ? cc->image : nullptr;
      }
    }
  }
  if (st == 0 && sticky_error() < 0) st = sticky_error();
  data_start_ = placement_.end();
  return st;
}

int16_t Sorter::emit(const uint8_t* bytes, uint32_t size) {
  out_.insert(out_.end(), bytes, bytes + size);
  return out_.size() >= kOutChunk ? flush_out() : 0;
}

int16_t Sorter::flush_out() {
  if (out_.empty()) return 0;
  const int16_t st = io::write(out_.data(), static_cast<uint32_t>(out_.size()), dst_);
  out_.clear();
  return st;
}

int16_t Sorter::write_block(const Planned& p) {
  if (p.source == nullptr) {
    const Slot& s = slots_[p.slot];
    uint8_t b[kNewDgSize] = {};
    store_le16(b, kDG);
    store_le16(b + kHeadSize, kNewDgSize);
    store_le32(b + dg::kNext, p.slot + 1 < slots_.size() ? slots_[p.slot + 1].target_dg : 0);
    store_le32(b + dg::kFirstCg, s.target_cg);
    uint32_t tr = 0;
    if (int16_t st =
            placed_link(tree_->tree, groups_[s.dg_index].dg, dg::kTrigger, placement_, &tr);
        st != 0) {
      return st;
    }
    store_le32(b + dg::kTrigger, tr);
    if (s.position > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
    store_le32(b + dg::kData, s.dropped ? 0 : static_cast<uint32_t>(s.position));
    store_le16(b + dg::kCgCount, 1);
    return emit(b, kNewDgSize);
  }
  const Node* n = p.source;
  const uint32_t size = written_size(n);
  std::vector<uint8_t> b(size);
  // The target holds one data group per channel group, made anew: the header leads to the
  // first of them, a channel group to no further one and, as reduced data stays behind, to
  // no sample reduction block. Dependencies are set entry by entry below.
  const LinkRule rule = [&](const Node* owner, uint32_t field, uint32_t* value) {
    if (owner->kind == kHD && field == hd::kFirstDg) {
      *value = slots_.front().target_dg;
    } else if (owner->kind == kCG && (field == cg::kNext || field == cg::kFirstSr)) {
      *value = 0;
    } else if (owner->kind == kCD) {
      *value = load_le32(owner->image + field);
    } else {
      return false;
    }
    return true;
  };
  if (int16_t st = emit_block(tree_->tree, n, placement_, b.data(), &rule); st != 0) return st;
  if (n->kind == kHD) store_le16(b.data() + hd::kDgCount, static_cast<uint16_t>(slots_.size()));
  if (n->kind == kCD) {
    // Each entry names a channel by data group, channel group and channel; the data group
    // becomes the new one that holds the channel group.
    const uint32_t count = load_le16(n->image + cd::kCount);
    for (uint32_t e = 0; e < count; ++e) {
      const uint32_t at = cd::kEntries + cd::kEntry * e;
      if (at + cd::kEntry > size) break;
      const Node* cg = tree_->tree.find_by_position(load_le32(n->image + at + 4));
      auto slot = cg != nullptr ? slot_of_cg_.find(cg) : slot_of_cg_.end();
      if (slot == slot_of_cg_.end()) return raise(MDF_ERR_FORMAT, "");
      const Slot& s = slots_[slot->second];
      uint32_t cn_position = 0;
      if (const uint32_t cn_link = load_le32(n->image + at + 8); cn_link != 0) {
        const Node* cn = tree_->tree.find_by_position(cn_link);
        uint64_t at_target = 0;
        if (cn == nullptr || !placement_.position_of(cn, &at_target) || cn->kind != kCN) {
          return raise(MDF_ERR_FORMAT, "");
        }
        cn_position = static_cast<uint32_t>(at_target);
      }
      store_le32(b.data() + at, s.target_dg);
      store_le32(b.data() + at + 4, s.target_cg);
      store_le32(b.data() + at + 8, cn_position);
    }
  }
  return emit(b.data(), size);
}

int16_t Sorter::write_structure() {
  uint32_t channels = 0;
  for (const Planned& p : plan_) {
    if (int16_t st = write_block(p); st != 0) return st;
    if (p.source != nullptr && p.source->kind == kCN) {
      ++channels;
      const uint32_t percent =
          5 + static_cast<uint32_t>(15ull * channels / std::max<uint32_t>(channel_total_, 1));
      if (int16_t st = report(percent); st != 0) return st;
    }
  }
  if (int16_t st = flush_out(); st != 0) return st;
  if (static_cast<uint64_t>(io::tell(dst_)) != data_start_) return internal_error(kUnit, __LINE__);
  return 0;
}

// ---- Data area layout ------------------------------------------------------------------------

void Sorter::pack() {
  uint64_t at = data_start_;
  for (uint32_t i : area_order_) {
    Slot& s = slots_[i];
    s.position = s.region == 0 || s.dropped ? 0 : at;
    at += s.region;
  }
  data_end_ = at;
}

// Lays the data area out anew. Slots before `first_open_slot` hold written records and must
// stay where they are; the overflow rule may move one of the others to the end.
int16_t Sorter::lay_out(uint32_t first_open_slot) {
  std::vector<uint64_t> fixed;
  for (uint32_t i = 0; i < first_open_slot; ++i) fixed.push_back(slots_[i].position);
  pack();
  if (data_end_ > kMaxLink) {
    const uint64_t excess = data_end_ - kMaxLink;
    const bool keep = moved_ >= 0 && slots_[static_cast<uint32_t>(moved_)].region > excess;
    if (!keep) {
      int64_t choice = -1;
      for (uint32_t i = static_cast<uint32_t>(slots_.size()); i-- > first_open_slot;) {
        if (slots_[i].region > excess) {
          choice = i;
          break;
        }
      }
      if (choice < 0) return raise(MDF_ERR_FILE_TOO_LARGE, "");
      moved_ = choice;
      area_order_.clear();
      for (uint32_t i = 0; i < slots_.size(); ++i) {
        if (i != static_cast<uint32_t>(choice)) area_order_.push_back(i);
      }
      area_order_.push_back(static_cast<uint32_t>(choice));
      pack();
    }
  }
  for (uint32_t i = 0; i < first_open_slot; ++i) {
    if (slots_[i].position != fixed[i]) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  }
  for (const Slot& s : slots_) {
    if (s.position > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
  }
  return 0;
}

int16_t Sorter::patch_data_links(uint32_t from_slot, uint32_t to_slot) {
  for (uint32_t i = from_slot; i < to_slot; ++i) {
    const Slot& s = slots_[i];
    uint8_t b[24];
    if (io::seek(dst_, s.target_dg, io::kFromStart) != 0 || io::read(b, 24, dst_) != 0) {
      return raise(MDF_ERR_WRITE, "");
    }
    if (load_le16(b) != kDG) return internal_error(kUnit, __LINE__);
    if (s.position > kMaxLink) return raise(MDF_ERR_FILE_TOO_LARGE, "");
    store_le32(b + dg::kData, s.dropped ? 0 : static_cast<uint32_t>(s.position));
    if (int16_t st = io::seek(dst_, s.target_dg, io::kFromStart); st != 0) return st;
    if (int16_t st = io::write(b, 24, dst_); st != 0) return st;
  }
  return 0;
}

int16_t Sorter::patch_count(Slot& s) {
  if (s.read == s.target_count) return 0;
  uint8_t b[cg::kSize];
  if (io::seek(dst_, s.target_cg, io::kFromStart) != 0 || io::read(b, cg::kSize, dst_) != 0) {
    return raise(MDF_ERR_WRITE, "");
  }
  if (load_le16(b) != kCG) return internal_error(kUnit, __LINE__);
  store_le32(b + cg::kRecordCount, s.read);
  if (int16_t st = io::seek(dst_, s.target_cg, io::kFromStart); st != 0) return st;
  if (int16_t st = io::write(b, cg::kSize, dst_); st != 0) return st;
  s.target_count = s.read;
  return 0;
}

}  // namespace korvel::sort
