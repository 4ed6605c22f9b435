// Group comment (the channel group's TX block) and trigger information (the data group's TR
// block). The set functions make new blocks in the node tree and link them; the blocks they
// replace are only unlinked. Closing the group writes what its mode writes.
#include <cstdint>
#include <cstring>
#include <vector>

#include "frame/api.h"
#include "frame/bytes.h"
#include "group/group.h"
#include "storage/block.h"
#include "storage/file.h"

namespace korvel {
namespace {

using namespace layout;

constexpr const char* kUnit = "MDFGRP4";

int16_t make_text(mdf_file* file, const char* text, Node** out) {
  const std::size_t length = std::strlen(text);
  if (length > 0xFFFFu - 5u) return raise(MDF_ERR_FORMAT, "");
  return new_text_block(file, out, static_cast<uint32_t>(length), text);
}

int16_t link_to(Node* owner, uint32_t field, Node* target) {
  return set_link(owner, field, 0, target) != nullptr ? int16_t{0} : MDF_ERR_UNKNOWN_LINK;
}

// Where the caller reads `count` events of the block: the block itself when it holds
// them all (or there are none), else a zero-padded copy, so that no count read from a
// damaged file leads a caller outside library memory.
const uint8_t* event_records(const Node* tr, uint16_t count) {
  const uint32_t size = tr->block_size();
  const uint32_t needed = tr::kEvents + tr::kEvent * count;
  if (needed <= size) return tr->image + tr::kEvents;
  // The events it holds, then zeros up to the count; valid until the next call that needs it.
  std::vector<uint8_t>& padded = state().kept.padded_events;
  padded.assign(std::size_t{tr::kEvent} * count, 0);
  if (size > tr::kEvents) {
    std::memcpy(padded.data(), tr->image + tr::kEvents, size - tr::kEvents);
  }
  return padded.data();
}

int16_t get_text(mdf_group* g, const char** text) {
  if (text != nullptr) *text = text_of(resolve_link(g->file->tree, g->cg, cg::kComment));
  return 0;
}

int16_t set_text(mdf_group* g, const char* text) {
  if (text == nullptr) return 0;
  Node* tx = nullptr;
  if (text[0] != '\0') {
    if (int16_t st = make_text(g->file, text, &tx); st != 0) return st;
  }
  return link_to(g->cg, cg::kComment, tx);
}

int16_t get_trigger(mdf_group* g, const char** comment, uint16_t* count, const void** events) {
  if (comment != nullptr) *comment = nullptr;
  if (count != nullptr) *count = 0;
  if (events != nullptr) *events = nullptr;
  auto& tree = g->file->tree;
  Node* tr = resolve_link(tree, g->dg, dg::kTrigger);
  if (tr == nullptr) return raise(MDF_NO_TRIGGER, "");
  if (Node* tx = resolve_link(tree, tr, tr::kComment); tx != nullptr && comment != nullptr) {
    *comment = text_of(tx);
  }
  const uint16_t n = load_le16(tr->image + tr::kCount);
  if (count != nullptr) *count = n;
  if (events != nullptr) *events = event_records(tr, n);
  return 0;
}

int16_t set_trigger(mdf_group* g, const char* comment, uint16_t count, const double* events) {
  if (count != 0 && events == nullptr) return internal_error(kUnit, __LINE__);
  // The TR block first: it is the one a large count can refuse.
  Node* tr = nullptr;
  if (int16_t st = new_trigger_block(g->file, &tr, count); st != 0) return st;
  if (count != 0) std::memcpy(tr->image + tr::kEvents, events, std::size_t{tr::kEvent} * count);
  Node* tx = nullptr;
  if (comment != nullptr && comment[0] != '\0') {
    if (int16_t st = make_text(g->file, comment, &tx); st != 0) return st;
  }
  if (int16_t st = link_to(tr, tr::kComment, tx); st != 0) return st;
  return link_to(g->dg, dg::kTrigger, tr);
}

template <class Body>
int16_t group_call(mdf_group* group, Body&& body) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (!is_group(group)) return raise(MDF_ERR_BAD_GROUP, "");
    return body();
  });
}

}  // namespace
}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfGrpGetText(mdf_group* group, const char** text) {
  return group_call(group, [&] { return get_text(group, text); });
}

KORVEL_API int16_t mdfGrpSetText(mdf_group* group, const char* text) {
  return group_call(group, [&] { return set_text(group, text); });
}

KORVEL_API int16_t mdfGrpGetTrigger(mdf_group* group, const char** comment, uint16_t* count,
                                    const void** events) {
  return group_call(group, [&] { return get_trigger(group, comment, count, events); });
}

KORVEL_API int16_t mdfGrpSetTrigger(mdf_group* group, const char* comment, uint16_t count,
                                    const double* events) {
  return group_call(group, [&] { return set_trigger(group, comment, count, events); });
}

}  // extern "C"
