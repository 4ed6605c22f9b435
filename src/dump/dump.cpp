// The text dump: the block structure of a file, block by block in link order, printed to the
// log through mdfPrintf for a person to read. The labels (most of them German) and the line
// formats are fixed; measured values are not printed.
//
// The file is opened for reading, so every link followed here was checked and read by the
// open. Each field is still read only where the block's stored size covers it: a field a
// short block lacks prints as 0, and a text field prints up to its fixed width.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "channel/module_types.h"
#include "frame/api.h"
#include "frame/bytes.h"
#include "storage/block.h"
#include "storage/file.h"

namespace korvel {
namespace {

using namespace layout;

constexpr const char* kGroupIndent = "      ";             // trigger and channel-group lines
constexpr const char* kChannelIndent = "               ";  // conversion, comment, extension

// Formats one piece of output and hands it to mdfPrintf; the format is checked at compile time.
[[gnu::format(printf, 1, 2)]] void print(const char* format, ...) {
  char small[256];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) {
    va_end(again);
    return;
  }
  if (static_cast<std::size_t>(length) < sizeof small) {
    va_end(again);
    mdfPrintf("%s", small);
    return;
  }
  std::string large(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(large.data(), large.size(), format, again);
  va_end(again);
  mdfPrintf("%s", large.c_str());
}

// Field reads bounded by the block's stored size.
uint32_t stored_size(const Node* n) {
  return std::min<uint32_t>(n->block_size(), n->image_size);
}
bool covers(const Node* n, uint32_t at, uint32_t width) {
  return at + width <= stored_size(n);
}
unsigned u16_at(const Node* n, uint32_t at) {
  return covers(n, at, 2) ? load_le16(n->image + at) : 0u;
}
uint32_t u32_at(const Node* n, uint32_t at) {
  return covers(n, at, 4) ? load_le32(n->image + at) : 0u;
}
double real_at(const Node* n, uint32_t at) {
  return covers(n, at, 8) ? load_f64(n->image + at) : 0.0;
}
// A fixed-width text field up to its first zero byte; never longer than the field.
std::string chars_at(const Node* n, uint32_t at, uint32_t width) {
  if (!covers(n, at, 1)) return {};
  const uint32_t end = std::min(at + width, stored_size(n));
  const char* p = reinterpret_cast<const char*>(n->image + at);
  return std::string(p, std::find(p, p + (end - at), '\0'));
}

const char* data_type_name(unsigned type) {
  static constexpr const char* kNames[] = {"unsigned",
                                           "signed",
                                           "IEEE-float",
                                           "IEEE-double",
                                           "VAX-F_float",
                                           "VAX-G_float",
                                           "VAX-D_float",
                                           "String",
                                           "Byte-array",
                                           "unsigned (Motorola Byte order)",
                                           "signed (Motorola Byte order)",
                                           "IEEE-float (Motorola Byte order)",
                                           "IEEE-double (Motorola Byte order)",
                                           "unsigned (Intel Byte order)",
                                           "signed (Intel Byte order)",
                                           "IEEE-float (Intel Byte order)",
                                           "IEEE-double (Intel Byte order)"};
  return type < std::size(kNames) ? kNames[type] : "???";
}

const char* conversion_name(unsigned type) {
  switch (type) {
    case 0:
      return "MDF_CC_FRM_LIN";
    case 1:
      return "MDF_CC_FRM_ITAB";
    case 2:
      return "MDF_CC_FRM_TAB";
    case 6:
      return "MDF_CC_FRM_POL";
    case 7:
      return "MDF_CC_FRM_EXP";
    case 8:
      return "MDF_CC_FRM_LOG";
    case 9:
      return "MDF_CC_FRM_RAT";
    case 10:
      return "MDF_CC_FRM_TXT";
    case 11:
      return "MDF_CC_FRM_VTAB";
    case 12:
      return "MDF_CC_FRM_VTABR";
    case 65535:
      return "MDF_CC_FRM_NON";
    default:
      return "<unknown>";
  }
}

// The module number of an extension block: the 16-bit field the module type names, when the
// stored block holds it.
unsigned module_number(const Node* ce, unsigned type) {
  const module::ModuleType* t = module::module_type(static_cast<uint16_t>(type));
  if (t == nullptr || t->number_offset == module::kNoNumber ||
      !covers(ce, ce::kRecord + static_cast<uint32_t>(t->number_offset), 2)) {
    return 0;
  }
  return module::module_number(static_cast<uint16_t>(type), ce->image + ce::kRecord);
}

// A block reached through a link field, with the link value by which it was reached.
struct Linked {
  Node* node = nullptr;
  uint32_t position = 0;
};

class Dumper {
 public:
  Dumper(const char* name, mdf_file* file, bool hex) : name_(name), file_(file), hex_(hex) {}
  void run();

 private:
  Linked follow(Node* owner, uint32_t field) const;
  void hex_dump(const char* prefix, uint32_t position, const Node* block) const;
  void text(const char* prefix, const Node* tx) const;
  void comment(const char* prefix, const Linked& tx) const;
  void identification() const;
  void header() const;
  void data_group(Node* dg);
  void trigger(const Linked& tr) const;
  void channel_group(Node* cg);
  void sample_reduction(const Node* sr) const;
  void channel(Node* cn) const;
  void conversion(const Linked& cc) const;
  void extension(const Linked& ce) const;

  const char* name_;  // as the caller gave it (the file record keeps at most 260 characters)
  mdf_file* file_;
  bool hex_;
  uint16_t channel_groups_ = 0;  // numbers the channel groups over the whole file
};

Linked Dumper::follow(Node* owner, uint32_t field) const {
  // A field the block is too short for has no link record: there is nothing to follow.
  if (!covers(owner, field, 4)) return {};
  Node* node = resolve_link(file_->tree, owner, field);
  return {node, node != nullptr ? load_le32(owner->image + field) : 0u};
}

// The head line, then the block's bytes; a row ends after the bytes with index 0, 16, 32 ...,
// so the head line holds one byte and every later row sixteen.
void Dumper::hex_dump(const char* prefix, uint32_t position, const Node* block) const {
  const uint32_t size = stored_size(block);
  char head[96];
  std::snprintf(head, sizeof head, "%sBLOCK %u: %u Bytes at %u :", prefix, unsigned{block->kind},
                unsigned{block->block_size()}, position);
  std::string row = head;
  for (uint32_t i = 0; i < size; ++i) {
    // "%02X " without a formatted print per byte
    static constexpr char kDigits[] = "0123456789ABCDEF";
    row += kDigits[block->image[i] >> 4];
    row += kDigits[block->image[i] & 15];
    row += ' ';
    if (i % 16 == 0) {
      row += '\n';
      print("%s", row.c_str());
      row = prefix;
    }
  }
  row += '\n';
  print("%s", row.c_str());
}

void Dumper::text(const char* prefix, const Node* tx) const {
  if (tx == nullptr) return;
  const unsigned size = tx->block_size();
  print("%sTXBLOCK: %u Bytes\n", prefix, size);
  // The image ends with a zero byte behind the block, so the precision never leaves it.
  print("%s%.*s\n", prefix, static_cast<int>(size), text_of(tx));
}

void Dumper::comment(const char* prefix, const Linked& tx) const {
  if (tx.node == nullptr) return;
  if (hex_) hex_dump(prefix, tx.position, tx.node);
  text(prefix, tx.node);
}

void Dumper::identification() const {
  const Node* id = file_->id_block;
  print("IDBLOCK: '%8.8s' '%8.8s' '%8.8s' %d\n", chars_at(id, id::kFileId, 8).c_str(),
        chars_at(id, id::kProgramId, 8).c_str(), chars_at(id, id::kFormatId, 8).c_str(),
        static_cast<int>(u16_at(id, id::kVersion)));
  switch (u16_at(id, id::kFloatFormat)) {
    case 0:
      print("         Format fuer Real-Zahlen IEEE\n");
      break;
    case 1:
      print("         Format fuer Real-Zahlen VAX G_Float\n");
      break;
    case 2:
      print("         Format fuer Real-Zahlen VAX D_Float\n");
      break;
    default:
      print("         Unbekanntes Format fuer Real-Zahlen\n");
      break;
  }
}

void Dumper::header() const {
  Node* hd = file_->header;
  if (hex_) hex_dump("", 0, hd);
  print("HDBLOCK: %10.10s %8.8s %u Datagroup(s)\n", chars_at(hd, hd::kDate, 10).c_str(),
        chars_at(hd, hd::kTime, 8).c_str(), u16_at(hd, hd::kDgCount));
  for (uint32_t field : {hd::kAuthor, hd::kOrganisation, hd::kProject, hd::kSubject}) {
    const std::string value = chars_at(hd, field, 32);
    if (!value.empty()) print("         %s\n", value.c_str());
  }
  const Linked pr = follow(hd, hd::kProgram);
  if (pr.node != nullptr) {
    if (hex_) hex_dump("", pr.position, pr.node);
    print("PRBLOCK: %u Bytes\n", unsigned{pr.node->block_size()});
  }
  comment("", follow(hd, hd::kComment));
}

void Dumper::run() {
  print("Datei %s\n", name_);
  identification();
  header();
  for_each_data_group(file_, [&](Node* dg) {
    data_group(dg);
    return true;
  });
  print("EOF\n\n");
}

void Dumper::data_group(Node* dg) {
  print("\n  DGBLOCK: %u Groups, %u Ids, Data at %u\n", u16_at(dg, dg::kCgCount),
        u16_at(dg, dg::kRecordIds), u32_at(dg, dg::kData));
  trigger(follow(dg, dg::kTrigger));
  for (Node* cg : chain(file_->tree, dg, dg::kFirstCg)) {
    channel_group(cg);
  }
}

void Dumper::trigger(const Linked& tr) const {
  if (tr.node == nullptr) return;
  const unsigned events = u16_at(tr.node, tr::kCount);
  print("    TRBLOCK: %d Windows\n", static_cast<int>(events));
  comment(kGroupIndent, follow(tr.node, tr::kComment));
  // Only the events the block holds are listed: a count larger than the block must not make
  // a small file print without end.
  for (unsigned i = 0; i < events && covers(tr.node, tr::kEvents + tr::kEvent * i, 1); ++i) {
    const uint32_t at = tr::kEvents + tr::kEvent * i;
    print("      Window %d: %g [%g,%g]\n", static_cast<int>(i + 1), real_at(tr.node, at),
          real_at(tr.node, at + 8), real_at(tr.node, at + 16));
  }
}

void Dumper::channel_group(Node* cg) {
  ++channel_groups_;
  print("    CGBLOCK%u: Identifier %u, %u Bytes, %u Channels, %u Cycles\n",
        unsigned{channel_groups_}, u16_at(cg, cg::kRecordId), u16_at(cg, cg::kRecordSize),
        u16_at(cg, cg::kCnCount), u32_at(cg, cg::kRecordCount));
  comment(kGroupIndent, follow(cg, cg::kComment));
  if (cg->block_size() >= cg::kSizeWithSr) {
    for (Node* sr : chain(file_->tree, cg, cg::kFirstSr)) {
      sample_reduction(sr);
    }
  }
  for (Node* cn : chain(file_->tree, cg, cg::kFirstCn)) {
    channel(cn);
  }
}

void Dumper::sample_reduction(const Node* sr) const {
  print("      SRBLOCK: Interval: %g s, %u Cycles, Data at %u\n", real_at(sr, sr::kInterval),
        u32_at(sr, sr::kCount), u32_at(sr, sr::kData));
}

void Dumper::channel(Node* cn) const {
  const uint16_t size = cn->block_size();
  const unsigned type = u16_at(cn, cn::kType);
  const unsigned byte_offset = size >= cn::kSize ? u16_at(cn, cn::kByteOffset) : 0u;
  print("      %-8s Typ %s-%u, %u Databits at %d%s, %s, Raster %g\n",
        chars_at(cn, cn::kName, cn::kNameLength).c_str(), type == 1 ? "Time" : "Data", type,
        u16_at(cn, cn::kBitCount), static_cast<int>(u16_at(cn, cn::kFirstBit) + 8 * byte_offset),
        byte_offset >= 1 ? " (incl. byte offset)" : "", data_type_name(u16_at(cn, cn::kDataType)),
        real_at(cn, cn::kSampleRate));
  if (size >= cn::kSizeLongName) {
    if (const Node* tx = follow(cn, cn::kLongName).node; tx != nullptr) {
      print("%sLond signal name: %s\n", kChannelIndent, text_of(tx));
    }
  }
  if (size >= cn::kSize) {
    if (const Node* tx = follow(cn, cn::kDisplayName).node; tx != nullptr) {
      print("%sDisplay name: %s\n", kChannelIndent, text_of(tx));
    }
  }
  const std::string description = chars_at(cn, cn::kDescription, cn::kDescriptionLength);
  if (!description.empty()) print("%sDescription: %s\n", kChannelIndent, description.c_str());
  if (u16_at(cn, cn::kRangeValid) != 0) {
    print("%sRange HEX [%g,%g]\n", kChannelIndent, real_at(cn, cn::kMinimum),
          real_at(cn, cn::kMaximum));
  }
  conversion(follow(cn, cn::kConversion));
  comment(kChannelIndent, follow(cn, cn::kComment));
  extension(follow(cn, cn::kExtension));
}

void Dumper::conversion(const Linked& cc) const {
  if (cc.node == nullptr) return;
  if (hex_) hex_dump(kChannelIndent, cc.position, cc.node);
  const unsigned type = u16_at(cc.node, cc::kType);
  print("%sCCBLOCK: Typ %s(%u), Parameters %u, Unit %s\n", kChannelIndent, conversion_name(type),
        type, u16_at(cc.node, cc::kCount), chars_at(cc.node, cc::kUnit, cc::kUnitLength).c_str());
  if (u16_at(cc.node, cc::kRangeValid) != 0) {
    print("                        Range PHY [%g,%g]\n", real_at(cc.node, cc::kMinimum),
          real_at(cc.node, cc::kMaximum));
  }
}

void Dumper::extension(const Linked& ce) const {
  if (ce.node == nullptr) return;
  if (hex_) hex_dump(kChannelIndent, ce.position, ce.node);
  const unsigned type = u16_at(ce.node, ce::kType);
  print("%sCEBLOCK: %s-%d\n", kChannelIndent, module::module_mnemonic(static_cast<uint16_t>(type)),
        static_cast<int>(module_number(ce.node, type)));
}

// Opens a working context and the file for reading, prints, closes the file. The context is
// left open after a successful dump and closed when the open or the close fails.
int16_t dump_file(const char* name, bool hex) {
  mdfContextOpen();
  mdf_file* file = nullptr;
  if (const int16_t st = mdfFileOpen(&file, name, MDF_OPEN_READ); st != 0) {
    mdfContextClose();
    return st;
  }
  try {
    Dumper(name, file, hex).run();
  } catch (...) {
    mdfFileClose(file);
    mdfContextClose();
    throw;
  }
  if (const int16_t st = mdfFileClose(file); st != 0) {
    mdfContextClose();
    return st;
  }
  return 0;
}

}  // namespace
}  // namespace korvel

extern "C" {

KORVEL_API int16_t mdfDump(const char* name, uint32_t hex) {
  // No sticky check up front: opening the working context comes first (it initialises a
  // closed library), and the file open answers with a stored error.
  return korvel::api_call("KORVEL", [&] { return korvel::dump_file(name, hex != 0); });
}

}  // extern "C"
