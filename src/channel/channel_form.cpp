// The exported functions that get and set a channel's conversion rule.
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <vector>

#include "channel/channel_node.h"
#include "channel/codec.h"
#include "convert/conversion.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "group/group.h"
#include "storage/block.h"

namespace korvel {
namespace {

using namespace layout;

int16_t bad_channel() {
  return raise(MDF_ERR_BAD_CHANNEL, "");
}

const char* unit_of(const Node* cc) {
  return reinterpret_cast<const char*>(cc->image + cc::kUnit);
}
uint16_t type_of(const Node* cc) {
  return load_le16(cc->image + cc::kType);
}
const uint16_t* count_of(const Node* cc) {
  return reinterpret_cast<const uint16_t*>(cc->image + cc::kCount);
}

// Bytes per entry of a rule's parameters as callers read them: table points, verbal table
// entries, range table entries, and single REALs for the other types.
uint32_t entry_bytes(uint16_t type) {
  switch (type) {
    case 1:
    case 2:
      return cc::kTableEntry;
    case 11:
      return cc::kVtabEntry;
    case 12:
      return cc::kVtabrEntry;
    default:
      return 8;
  }
}

// REALs a parametric rule takes whatever its stored count says.
uint32_t parameters_taken(uint16_t type) {
  switch (type) {
    case 0:
      return 2;
    case 6:
    case 9:
      return 6;
    case 7:
    case 8:
      return 7;
    default:
      return 0;
  }
}

// The memory handed out for a rule's parameters, where a caller reads `needed` bytes. The
// library's copy of the block when it holds them; a damaged block that promises more than it
// holds is copied into `spare`, zero-filled up to `needed`, so that no caller reads outside
// library memory. `spare` belongs to one getter and keeps the copy until its next call.
const void* parameters_out(const Node* cc, uint32_t needed, std::vector<uint8_t>& spare) {
  const uint32_t size = cc->block_size();
  const uint32_t held = size > cc::kParams ? size - cc::kParams : 0;
  if (needed <= held) return cc->image + cc::kParams;
  spare.assign(needed, 0);
  std::memcpy(spare.data(), cc->image + cc::kParams, held);
  return spare.data();
}

// Hands out type and unit; the common first step of the table getters.
void head_outs(const Node* cc, uint16_t* type, const char** unit) {
  if (type != nullptr) *type = type_of(cc);
  if (unit != nullptr) *unit = unit_of(cc);
}

// Hands out the stored count and the entries of a table rule of one of the accepted types,
// with memory behind the entries for every entry the count promises; for any other type both
// are set null and `refusal` is raised with the type.
int16_t table_outs(const Node* cc, uint16_t accept1, uint16_t accept2, int16_t refusal,
                   const uint16_t** count, const void** entries, std::vector<uint8_t>& spare) {
  const uint16_t t = type_of(cc);
  const bool accepted = t == accept1 || t == accept2;
  if (count != nullptr) *count = accepted ? count_of(cc) : nullptr;
  if (entries != nullptr) {
    *entries = accepted
                   ? parameters_out(cc, load_le16(cc->image + cc::kCount) * entry_bytes(t), spare)
                   : nullptr;
  }
  return accepted ? int16_t{0} : raise_fmt(refusal, "(id=%d)", t);
}

// The text of entry `index` of a verbal table, read at the range-table entry stride for
// both table kinds. A value there that is not a link of the block is looked up as a
// position and taken only when a text block lies there; nothing is raised for it.
const char* entry_text(mdf_file* file, Node* cc, uint32_t index) {
  const uint32_t field = cc::kParams + cc::kVtabrEntry * index + cc::kVtabrLink;
  if (field + 4 > cc->block_size()) return "";
  if (NodeTree::find_link(cc, field) != nullptr)
    return text_of(resolve_link(file->tree, cc, field));
  const uint32_t position = load_le32(cc->image + field);
  if (position == 0) return "";
  Node* node = file->tree.find_by_position(position);
  return node != nullptr && node->kind == kTX ? text_of(node) : "";
}

// Makes a new conversion block for the channel and points the channel at it.
int16_t attach_rule(channelnode* ch, uint16_t type, uint16_t entries, const char* unit,
                    Node** out) {
  mdf_file* file = ch->group->file;
  Node* cc = nullptr;
  if (int16_t st = new_conversion_block(file, &cc, type, entries); st != 0) return st;
  copy_field(reinterpret_cast<char*>(cc->image + cc::kUnit), unit != nullptr ? unit : "",
             cc::kUnitLength);
  set_link(ch->cn, cn::kConversion, 0, cc);
  ch->cc = cc;
  channel_images_changed();
  // The group converts its time with the time channel's rule.
  if (ch->group->time_channel == ch->cn) ch->group->time_conversion = cc;
  *out = cc;
  return 0;
}

int16_t set_parametric(channelnode* ch, uint16_t type, const char* unit, const double* p) {
  uint16_t count = 0;
  switch (type) {
    case 0:
      count = 2;
      break;
    case 6:
      count = 6;
      break;
    case 7:
    case 8:
      count = 7;
      break;
    default:
      return raise_fmt(MDF_UNKNOWN_FORMULA, "(id=%d)", type);
  }
  Node* cc = nullptr;
  if (int16_t st = attach_rule(ch, type, count, unit, &cc); st != 0) return st;
  for (uint16_t k = 0; k < count; ++k) store_f64(cc->image + cc::kParams + 8u * k, p[k]);
  return 0;
}

}  // namespace
}  // namespace korvel

using namespace korvel;

extern "C" {

KORVEL_API int16_t mdfChnGetForm(channelnode* channel, uint16_t* type, const char** unit,
                                 const void** params) {
  return checked_call("MDFFORM2", [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    const Node* cc = channel->cc;
    if (cc == nullptr) return MDF_NO_FORMULA;
    head_outs(cc, type, unit);
    if (params != nullptr) {
      // A formula text ends inside the image: the in-memory extra behind the block starts
      // with zero bytes. Other parameters are read by their count or by what the type takes.
      const uint16_t t = type_of(cc);
      const uint32_t needed =
          std::max(load_le16(cc->image + cc::kCount) * entry_bytes(t), 8 * parameters_taken(t));
      *params = t == MDF_CC_FRM_TXT ? cc->image + cc::kParams
                                    : parameters_out(cc, needed, state().kept.form_spare);
    }
    return 0;
  });
}

KORVEL_API int16_t mdfChnGetFormTab(channelnode* channel, uint16_t* type, const char** unit,
                                    const uint16_t** count, const void** points) {
  return checked_call("MDFFORM2", [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    const Node* cc = channel->cc;
    if (cc == nullptr) return raise(MDF_NO_FORMULA, "");
    head_outs(cc, type, unit);
    return table_outs(cc, MDF_CC_FRM_ITAB, MDF_CC_FRM_TAB, MDF_NOT_A_TABLE, count, points,
                      state().kept.tab_spare);
  });
}

KORVEL_API int16_t mdfChnGetFormVTab(channelnode* channel, uint16_t* type, const char** unit,
                                     const uint16_t** count, const void** entries) {
  return checked_call("MDFFORM2", [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    const Node* cc = channel->cc;
    if (cc == nullptr) return raise(MDF_NO_FORMULA, "");
    head_outs(cc, type, unit);
    return table_outs(cc, MDF_CC_FRM_VTAB, MDF_CC_FRM_VTAB, MDF_NOT_A_VTAB, count, entries,
                      state().kept.vtab_spare);
  });
}

KORVEL_API int16_t mdfChnGetFormVTabR(channelnode* channel, uint16_t* type, const char** unit,
                                      double* offset, double* factor, const uint16_t** count,
                                      const void** entries) {
  return checked_call("MDFFORM2", [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    const Node* cc = channel->cc;
    if (cc == nullptr) return raise(MDF_NO_FORMULA, "");
    head_outs(cc, type, unit);
    if (offset != nullptr) *offset = cc_extra_offset(cc->image);
    if (factor != nullptr) *factor = cc_extra_factor(cc->image);
    return table_outs(cc, MDF_CC_FRM_VTABR, MDF_CC_FRM_VTABR, MDF_NOT_A_VTABR, count, entries,
                      state().kept.vtabr_spare);
  });
}

KORVEL_API int16_t mdfChnGetFormVTabText(channelnode* channel, uint16_t index, const char** text) {
  return checked_call("MDFFORM2", [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    Node* cc = channel->cc;
    if (cc == nullptr) return raise(MDF_NO_FORMULA, "");
    const uint16_t t = type_of(cc);
    if (t != MDF_CC_FRM_VTAB && t != MDF_CC_FRM_VTABR) {
      if (text != nullptr) *text = "";
      return raise_fmt(MDF_NOT_A_VTAB, "(id=%d)", t);
    }
    const uint16_t entries = *count_of(cc);
    if (index >= entries) {
      if (text != nullptr) *text = "";
      return raise_fmt(MDF_VTAB_INDEX, "(count=%d)", entries);
    }
    if (text != nullptr) *text = entry_text(channel->group->file, cc, index);
    return 0;
  });
}

KORVEL_API int16_t mdfChnSetForm(channelnode* channel, uint16_t type, const char* unit, ...) {
  double p[7] = {};
  if (type == 0 || type == 6 || type == 7 || type == 8) {
    const int count = type == 0 ? 2 : type == 6 ? 6 : 7;
    va_list args;
    va_start(args, unit);
    for (int k = 0; k < count; ++k) p[k] = va_arg(args, double);
    va_end(args);
  }
  return checked_call("MDFFORM2", [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    return set_parametric(channel, type, unit, p);
  });
}

KORVEL_API int16_t mdfChnSetFormLin(channelnode* channel, const char* unit, double p1, double p2) {
  return mdfChnSetForm(channel, MDF_CC_FRM_LIN, unit, p1, p2);
}

KORVEL_API int16_t mdfChnSetFormPol(channelnode* channel, const char* unit, double p1, double p2,
                                    double p3, double p4, double p5, double p6) {
  return mdfChnSetForm(channel, MDF_CC_FRM_POL, unit, p1, p2, p3, p4, p5, p6);
}

KORVEL_API int16_t mdfChnSetFormExp(channelnode* channel, const char* unit, double p1, double p2,
                                    double p3, double p4, double p5, double p6, double p7) {
  return mdfChnSetForm(channel, MDF_CC_FRM_EXP, unit, p1, p2, p3, p4, p5, p6, p7);
}

KORVEL_API int16_t mdfChnSetFormLog(channelnode* channel, const char* unit, double p1, double p2,
                                    double p3, double p4, double p5, double p6, double p7) {
  return mdfChnSetForm(channel, MDF_CC_FRM_LOG, unit, p1, p2, p3, p4, p5, p6, p7);
}

KORVEL_API int16_t mdfChnSetFormTab(channelnode* channel, uint16_t type, const char* unit,
                                    uint16_t count, const double* points) {
  return checked_call("MDFFORM2", [&]() -> int16_t {
    if (!is_channel(channel)) return bad_channel();
    if (type != MDF_CC_FRM_ITAB && type != MDF_CC_FRM_TAB) {
      return raise_fmt(MDF_UNKNOWN_FORMULA, "(id=%d)", type);
    }
    if (points == nullptr || count == 0) return internal_error("MDFFORM2", __LINE__);
    Node* cc = nullptr;
    if (int16_t st = attach_rule(channel, type, count, unit, &cc); st != 0) return st;
    for (uint32_t i = 0; i < 2u * count; ++i)
      store_f64(cc->image + cc::kParams + 8u * i, points[i]);
    return 0;
  });
}

}  // extern "C"
