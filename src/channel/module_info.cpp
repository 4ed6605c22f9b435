// The module information functions. A channel's source (CE) block holds a 16-bit module type
// and a 128-byte module record; the typed functions pack and unpack records through the layout
// tables of module_types.h, so that every layout is written down once.
#include "channel/module_info.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <span>
#include <variant>

#include "channel/channel_node.h"
#include "channel/module_types.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "group/group.h"
#include "storage/block.h"
#include "storage/io.h"
#include "storage/placement.h"

// Records are handed out at block offset 6, so the record type must not need more alignment.
static_assert(alignof(ce_info) == 1 && sizeof(ce_info) == korvel::module::kRecordSize);

namespace korvel {
namespace {

using namespace layout;
using module::Field;
using module::FieldKind;
using module::Layout;

constexpr const char* kUnit = "MDFCHN2";

// The values of the typed setters and the places their getters fill, in call order; the
// alternatives follow the order of FieldKind.
using FieldValue = std::variant<uint16_t, uint32_t, uint64_t, double, const char*>;
using FieldOut = std::variant<uint16_t*, uint32_t*, uint64_t*, double*, const char**>;

// Packs the values into a zeroed record. False when the values do not match the layout.
bool pack(Layout layout, std::span<const FieldValue> values, uint8_t* record) {
  const auto fields = module::layout_fields(layout);
  if (values.size() != fields.size()) return false;
  for (const Field& f : fields) {
    const FieldValue& v = values[f.argument];
    if (v.index() != static_cast<std::size_t>(f.kind)) return false;
    uint8_t* at = record + f.offset;
    switch (f.kind) {
      case FieldKind::kU16:
        store_le16(at, std::get<uint16_t>(v));
        break;
      case FieldKind::kU32:
        store_le32(at, std::get<uint32_t>(v));
        break;
      case FieldKind::kU64:
        store_le64(at, std::get<uint64_t>(v));
        break;
      case FieldKind::kReal:
        store_f64(at, std::get<double>(v));
        break;
      case FieldKind::kChars: {
        const char* text = std::get<const char*>(v);
        copy_field(reinterpret_cast<char*>(at), text != nullptr ? text : "", f.width);
        break;
      }
    }
  }
  return true;
}

// Hands out the fields of a record to the non-null places; texts point into the record.
// False, with nothing handed out, when the places do not match the layout.
bool unpack(Layout layout, const uint8_t* record, std::span<const FieldOut> outs) {
  const auto fields = module::layout_fields(layout);
  if (outs.size() != fields.size()) return false;
  for (const Field& f : fields) {
    if (outs[f.argument].index() != static_cast<std::size_t>(f.kind)) return false;
  }
  for (const Field& f : fields) {
    const FieldOut& out = outs[f.argument];
    const uint8_t* at = record + f.offset;
    switch (f.kind) {
      case FieldKind::kU16:
        if (auto* p = std::get<uint16_t*>(out)) *p = load_le16(at);
        break;
      case FieldKind::kU32:
        if (auto* p = std::get<uint32_t*>(out)) *p = load_le32(at);
        break;
      case FieldKind::kU64:
        if (auto* p = std::get<uint64_t*>(out)) *p = load_le64(at);
        break;
      case FieldKind::kReal:
        if (auto* p = std::get<double*>(out)) *p = load_f64(at);
        break;
      case FieldKind::kChars:
        if (auto* p = std::get<const char**>(out)) *p = reinterpret_cast<const char*>(at);
        break;
    }
  }
  return true;
}

int16_t set_module_info(channelnode* ch, uint16_t type, const uint8_t* record) {
  Node* ce = nullptr;
  if (int16_t st = new_block(ch->group->file, kCE, &ce); st != 0) return st;
  store_le16(ce->image + ce::kType, type);
  // Only the record bytes the block holds reach the file; the image beyond the block stays
  // zero, so a record reads the same before and after its file is written and reopened.
  const uint32_t held = std::min<uint32_t>(module::kRecordSize, ce->block_size() - ce::kRecord);
  if (record != nullptr) std::memcpy(ce->image + ce::kRecord, record, held);
  if (set_link(ch->cn, cn::kExtension, 0, ce) == nullptr) return MDF_ERR_UNKNOWN_LINK;
  return 0;
}

// The type and record of the channel's CE block. The image of a CE block holds at least 128
// bytes from the record on, whatever the stored block size (see image_extra).
int16_t get_module_info(channelnode* ch, uint16_t* type, const uint8_t** record) {
  if (type != nullptr) *type = 0xFFFF;
  if (record != nullptr) *record = nullptr;
  Node* ce = resolve_link(ch->group->file->tree, ch->cn, cn::kExtension);
  if (ce == nullptr) {
    if (const int16_t st = sticky_error(); st != 0) return st;  // a link that cannot be followed
    return raise(MDF_NO_MODULE_INFO, "");
  }
  if (type != nullptr) *type = load_le16(ce->image + ce::kType);
  if (record != nullptr) *record = ce->image + ce::kRecord;
  return 0;
}

// The frame of every module function: sticky error, handle check, work.
template <class Body>
int16_t module_call(channelnode* channel, Body&& body) {
  return checked_call(kUnit, [&]() -> int16_t {
    if (!is_channel(channel)) return raise(MDF_ERR_BAD_CHANNEL, "");
    return body();
  });
}

int16_t set_typed(channelnode* channel, uint16_t type, std::initializer_list<FieldValue> values) {
  return module_call(channel, [&]() -> int16_t {
    uint8_t record[module::kRecordSize] = {};
    const std::span<const FieldValue> given(values.begin(), values.size());
    if (!pack(module::kTypes[type].layout, given, record)) return internal_error(kUnit, __LINE__);
    return set_module_info(channel, type, record);
  });
}

// A typed getter: the record of a type the layout's getter accepts, unpacked into `outs`
// (and, when asked, the whole record). Other types leave every output untouched.
int16_t get_typed(channelnode* channel, Layout layout, std::initializer_list<FieldOut> outs,
                  const ce_info** whole = nullptr) {
  return module_call(channel, [&]() -> int16_t {
    uint16_t type = 0;
    const uint8_t* record = nullptr;
    if (int16_t st = get_module_info(channel, &type, &record); st != 0) return st;
    if (!module::getter_accepts(layout, type)) return raise(MDF_NO_MODULE_INFO, "");
    const std::span<const FieldOut> places(outs.begin(), outs.size());
    if (!places.empty() && !unpack(layout, record, places)) return internal_error(kUnit, __LINE__);
    if (whole != nullptr) *whole = reinterpret_cast<const ce_info*>(record);
    return 0;
  });
}

}  // namespace

int16_t write_new_module_blocks(mdf_file* file, Node* cg) {
  const uint16_t number = file->io_number;
  Placement placement(file->tree);
  for (Node* cn : chain(file->tree, cg, cg::kFirstCn)) {
    uint64_t at = 0;
    Node* ce = resolve_link(file->tree, cn, cn::kExtension);
    if (!placement.position_of(cn, &at) || ce == nullptr) continue;
    if (!placement.placed(ce)) {
      if (int16_t st = io::seek(number, 0, io::kToEnd); st != 0) return st;
      placement.set_end(static_cast<uint64_t>(io::tell(number)));
      if (int16_t st = append_placed(file, placement, {ce}); st != 0) return st;
    }
    uint32_t link = 0;
    if (int16_t st = placed_link(file->tree, cn, cn::kExtension, placement, &link); st != 0)
      return st;
    if (load_le32(cn->image + cn::kExtension) == link) continue;
    // Only the link: other fields of the CN image may hold changes that this file's mode
    // never writes (and repairs made at read), which a module set must not carry to disk.
    store_le32(cn->image + cn::kExtension, link);
    if (int16_t st = io::seek(number, static_cast<int64_t>(at + cn::kExtension), io::kFromStart);
        st != 0) {
      return st;
    }
    if (int16_t st = io::write(cn->image + cn::kExtension, 4, number); st != 0) return st;
  }
  // A link that could not be followed has been raised; its status ends the writing.
  return sticky_error();
}

}  // namespace korvel

using namespace korvel;
using module::Layout;

extern "C" {

KORVEL_API int16_t mdfChnSetModuleInfo(channelnode* channel, uint16_t type, const ce_info* info) {
  return module_call(channel, [&]() -> int16_t {
    return set_module_info(channel, type, reinterpret_cast<const uint8_t*>(info));
  });
}

KORVEL_API int16_t mdfChnGetModuleInfo(channelnode* channel, uint16_t* type, const ce_info** info) {
  return module_call(channel, [&]() -> int16_t {
    const uint8_t* record = nullptr;
    const int16_t st = get_module_info(channel, type, &record);
    if (info != nullptr) *info = reinterpret_cast<const ce_info*>(record);
    return st;
  });
}

KORVEL_API int16_t mdfChnGetModuleType(channelnode* channel, uint16_t* type) {
  return module_call(channel, [&]() -> int16_t { return get_module_info(channel, type, nullptr); });
}

// ---- Typed setters: the arguments in the order of their layout's table ----------------------

KORVEL_API int16_t mdfChnSetGenInfo(channelnode* channel, const char* text) {
  return set_typed(channel, MDF_CE_GEN, {text});
}
KORVEL_API int16_t mdfChnSetAimInfo(channelnode* channel, uint16_t a, uint16_t b, double c,
                                    uint64_t d) {
  return set_typed(channel, MDF_CE_AIM, {a, b, c, d});
}
KORVEL_API int16_t mdfChnSetDimInfo(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId) {
  return set_typed(channel, MDF_CE_DIM, {module, address, description, ecuId});
}
KORVEL_API int16_t mdfChnSetCanInfo(channelnode* channel, uint16_t module, uint16_t value2,
                                    const char* text1, const char* text2, uint16_t value5) {
  return set_typed(channel, MDF_CE_CANIM, {module, value2, text1, text2, value5});
}
KORVEL_API int16_t mdfChnSetQ24Info(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3) {
  return set_typed(channel, MDF_CE_Q24, {name, value2, value3});
}
KORVEL_API int16_t mdfChnSetLa1Info(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3) {
  return set_typed(channel, MDF_CE_LA1, {name, value2, value3});
}
KORVEL_API int16_t mdfChnSetAcanInfo(channelnode* channel, uint16_t module, uint32_t address,
                                     const char* description, const char* ecuId, uint16_t value5,
                                     uint16_t value6) {
  return set_typed(channel, MDF_CE_ACAN, {module, address, description, ecuId, value5, value6});
}
KORVEL_API int16_t mdfChnSetEtkInfo(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId) {
  return set_typed(channel, MDF_CE_ETK, {module, address, description, ecuId});
}
KORVEL_API int16_t mdfChnSetLa2Info(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3) {
  return set_typed(channel, MDF_CE_LA2, {name, value2, value3});
}
KORVEL_API int16_t mdfChnSetDm2Info(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId) {
  return set_typed(channel, MDF_CE_DIM2, {module, address, description, ecuId});
}
KORVEL_API int16_t mdfChnSetThsInfo(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3) {
  return set_typed(channel, MDF_CE_THS, {name, value2, value3});
}
KORVEL_API int16_t mdfChnSetAdsInfo(channelnode* channel, const char* name, uint16_t value2,
                                    uint16_t value3) {
  return set_typed(channel, MDF_CE_ADS, {name, value2, value3});
}
KORVEL_API int16_t mdfChnSetQp1Info(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId) {
  return set_typed(channel, MDF_CE_QPSI1, {module, address, description, ecuId});
}
KORVEL_API int16_t mdfChnSetQp2Info(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId) {
  return set_typed(channel, MDF_CE_QPSI2, {module, address, description, ecuId});
}
KORVEL_API int16_t mdfChnSetQa1Info(channelnode* channel, uint16_t a, uint16_t b, double c,
                                    uint64_t d) {
  return set_typed(channel, MDF_CE_QA1, {a, b, c, d});
}
KORVEL_API int16_t mdfChnSetQncInfo(channelnode* channel, uint16_t module, uint16_t value2,
                                    const char* text1, const char* text2, uint16_t value5) {
  return set_typed(channel, MDF_CE_QCAN, {module, value2, text1, text2, value5});
}
KORVEL_API int16_t mdfChnSetQnaInfo(channelnode* channel, const char* text) {
  return set_typed(channel, MDF_CE_QNA, {text});
}
KORVEL_API int16_t mdfChnSetQnvInfo(channelnode* channel, const char* text) {
  return set_typed(channel, MDF_CE_QNV, {text});
}
KORVEL_API int16_t mdfChnSetSscInfo(channelnode* channel, uint16_t module, uint32_t address,
                                    const char* description, const char* ecuId) {
  return set_typed(channel, MDF_CE_SSC, {module, address, description, ecuId});
}
KORVEL_API int16_t mdfChnSetQcnInfo(channelnode* channel, uint32_t messageId, uint32_t channelIndex,
                                    const char* messageName, const char* senderName) {
  return set_typed(channel, MDF_CE_QCN, {messageId, channelIndex, messageName, senderName});
}

// ---- Typed getters: one per layout, each for the types of its table ------------------------

KORVEL_API int16_t mdfChnGetGenInfo(channelnode* channel, const ce_info** info) {
  return get_typed(channel, Layout::kText, {}, info);
}
KORVEL_API int16_t mdfChnGetAimInfo(channelnode* channel, uint16_t* a, uint16_t* b, double* c,
                                    uint64_t* d) {
  return get_typed(channel, Layout::kAnalog, {a, b, c, d});
}
KORVEL_API int16_t mdfChnGetDimInfo(channelnode* channel, uint16_t* module, uint32_t* address,
                                    const char** description, const char** ecuId) {
  return get_typed(channel, Layout::kDevice, {module, address, description, ecuId});
}
KORVEL_API int16_t mdfChnGetCanInfo(channelnode* channel, uint16_t* module, uint16_t* value2,
                                    const char** text1, const char** text2, uint16_t* value5) {
  return get_typed(channel, Layout::kBus, {module, value2, text1, text2, value5});
}
KORVEL_API int16_t mdfChnGetAcanInfo(channelnode* channel, uint16_t* module, uint32_t* address,
                                     const char** description, const char** ecuId, uint16_t* value5,
                                     uint16_t* value6) {
  return get_typed(channel, Layout::kDevicePair,
                   {module, address, description, ecuId, value5, value6});
}
KORVEL_API int16_t mdfChnGetSmbInfo(channelnode* channel, const char** name, uint16_t* value2,
                                    uint16_t* value3) {
  return get_typed(channel, Layout::kNamedPair, {name, value2, value3});
}
KORVEL_API int16_t mdfChnGetQcnInfo(channelnode* channel, uint32_t* messageId,
                                    uint32_t* channelIndex, const char** messageName,
                                    const char** senderName) {
  return get_typed(channel, Layout::kBusMessage,
                   {messageId, channelIndex, messageName, senderName});
}

}  // extern "C"
