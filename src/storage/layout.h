// Byte layout of every MDF 3.x block, described once. All numbers are little-endian,
// texts are fixed-width zero-padded fields, links are 32-bit file offsets (0 = none).
//
// Every block but the identification block starts with a 4-byte head:
//   0  2  identifier, two upper-case letters ("CC" read as little-endian 16-bit = 17219)
//   2  2  block size in bytes, head included
#pragma once

#include <cstdint>

namespace korvel::layout {

constexpr uint16_t block_id(char a, char b) {
  return static_cast<uint16_t>(static_cast<uint8_t>(a) | (static_cast<uint8_t>(b) << 8));
}

// Block kinds: the identifier as a 16-bit value; the identification block is kind 0.
enum Kind : uint16_t {
  kId = 0,
  kCC = block_id('C', 'C'),  // 17219 conversion rule
  kCD = block_id('C', 'D'),  // 17475 dependency
  kHD = block_id('H', 'D'),  // 17480 header
  kCE = block_id('C', 'E'),  // 17731 extension (module information)
  kCG = block_id('C', 'G'),  // 18243 channel group
  kDG = block_id('D', 'G'),  // 18244 data group
  kCN = block_id('C', 'N'),  // 20035 channel
  kPR = block_id('P', 'R'),  // 21072 program
  kSR = block_id('S', 'R'),  // 21075 sample reduction
  kTR = block_id('T', 'R'),  // 21076 trigger
  kTX = block_id('T', 'X'),  // 22612 text
};

constexpr uint32_t kHeadId = 0;
constexpr uint32_t kHeadSize = 2;
constexpr uint32_t kHeadLength = 4;

// Identification block, at file offset 0, 64 bytes, no head.
namespace id {
constexpr uint32_t kSize = 64;
constexpr uint32_t kFileId = 0;        // 8 chars "MDF     " or "UnFinMF "
constexpr uint32_t kFormatId = 8;      // 8 chars "3.20    "
constexpr uint32_t kProgramId = 16;    // 8 chars
constexpr uint32_t kByteOrder = 24;    // u16, 0 little-endian
constexpr uint32_t kFloatFormat = 26;  // u16, 0 IEEE, 1 VAX G, 2 VAX D
constexpr uint32_t kVersion = 28;      // u16, 320
constexpr uint32_t kCodePage = 30;     // u16
constexpr uint32_t kReserved = 32;     // 2 bytes, must be 0 on read
constexpr uint32_t kStdFlags = 60;     // u16 standard unfinished flags
constexpr uint32_t kCustomFlags = 62;  // u16 custom unfinished flags
}  // namespace id

// Header block "HD", always at file offset 64; 208 bytes (164 before version 3.20).
namespace hd {
constexpr uint32_t kPosition = 64;
constexpr uint32_t kSize = 208;
constexpr uint32_t kSizeOld = 164;
constexpr uint32_t kFirstDg = 4;        // link DG
constexpr uint32_t kComment = 8;        // link TX
constexpr uint32_t kProgram = 12;       // link PR
constexpr uint32_t kDgCount = 16;       // u16
constexpr uint32_t kDate = 18;          // 10 chars "dd:mm:yyyy"
constexpr uint32_t kTime = 28;          // 8 chars "hh:mm:ss"
constexpr uint32_t kAuthor = 36;        // 32 chars
constexpr uint32_t kOrganisation = 68;  // 32 chars
constexpr uint32_t kProject = 100;      // 32 chars
constexpr uint32_t kSubject = 132;      // 32 chars
constexpr uint32_t kTimeStamp = 164;    // u64 ns since 1970, local time (size >= 208)
constexpr uint32_t kUtcOffset = 172;    // i16 hours
constexpr uint32_t kTimeQuality = 174;  // u16
constexpr uint32_t kTimerId = 176;      // 32 chars
}  // namespace hd

// Text block "TX": head, text, terminating zero; size = text length + 5.
namespace tx {
constexpr uint32_t kText = 4;
}

// Program block "PR": head, then program-specific bytes.
namespace pr {
constexpr uint32_t kSize = 4;
}

// Data group block "DG", 28 bytes.
namespace dg {
constexpr uint32_t kSize = 28;
constexpr uint32_t kNext = 4;        // link DG
constexpr uint32_t kFirstCg = 8;     // link CG
constexpr uint32_t kTrigger = 12;    // link TR
constexpr uint32_t kData = 16;       // file offset of the data records (not a block)
constexpr uint32_t kCgCount = 20;    // u16
constexpr uint32_t kRecordIds = 22;  // u16, 0, 1 or 2
}  // namespace dg

// Channel group block "CG", 26 bytes, 30 with the sample reduction link.
namespace cg {
constexpr uint32_t kSize = 26;
constexpr uint32_t kSizeWithSr = 30;
constexpr uint32_t kNext = 4;          // link CG
constexpr uint32_t kFirstCn = 8;       // link CN
constexpr uint32_t kComment = 12;      // link TX
constexpr uint32_t kRecordId = 16;     // u16
constexpr uint32_t kCnCount = 18;      // u16
constexpr uint32_t kRecordSize = 20;   // u16, bytes
constexpr uint32_t kRecordCount = 22;  // u32
constexpr uint32_t kFirstSr = 26;      // link SR (size >= 30)
}  // namespace cg

// Channel block "CN", 228 bytes (218 in old files, 222 with the long name only).
namespace cn {
constexpr uint32_t kSize = 228;
constexpr uint32_t kSizeOld = 218;
constexpr uint32_t kSizeLongName = 222;
constexpr uint32_t kNext = 4;         // link CN
constexpr uint32_t kConversion = 8;   // link CC
constexpr uint32_t kExtension = 12;   // link CE
constexpr uint32_t kDependency = 16;  // link CD
constexpr uint32_t kComment = 20;     // link TX
constexpr uint32_t kType = 24;        // u16, 0 data, 1 time
constexpr uint32_t kName = 26;        // 32 chars
constexpr uint32_t kNameLength = 32;
constexpr uint32_t kDescription = 58;  // 128 chars
constexpr uint32_t kDescriptionLength = 128;
constexpr uint32_t kFirstBit = 186;     // u16
constexpr uint32_t kBitCount = 188;     // u16
constexpr uint32_t kDataType = 190;     // u16
constexpr uint32_t kRangeValid = 192;   // u16
constexpr uint32_t kMinimum = 194;      // REAL
constexpr uint32_t kMaximum = 202;      // REAL
constexpr uint32_t kSampleRate = 210;   // REAL
constexpr uint32_t kLongName = 218;     // link TX (size >= 222)
constexpr uint32_t kDisplayName = 222;  // link TX (size >= 228)
constexpr uint32_t kByteOffset = 226;   // u16 additional byte offset (size >= 228)
}  // namespace cn

// Conversion block "CC": common part of 46 bytes, then the type-dependent parameters. In
// memory every CC image carries 16 bytes beyond its block: offset and factor (REALs) of the
// verbal range table; they are never written.
namespace cc {
constexpr uint32_t kSize = 46;
constexpr uint32_t kExtra = 16;
constexpr uint32_t kRangeValid = 4;  // u16
constexpr uint32_t kMinimum = 6;     // REAL
constexpr uint32_t kMaximum = 14;    // REAL
constexpr uint32_t kUnit = 22;       // 20 chars
constexpr uint32_t kUnitLength = 20;
constexpr uint32_t kType = 42;   // u16
constexpr uint32_t kCount = 44;  // u16 number of parameter entries
constexpr uint32_t kParams = 46;
constexpr uint32_t kTableEntry = 16;  // types 1, 2: raw REAL, physical REAL
constexpr uint32_t kVtabEntry = 40;   // type 11: REAL, 32 chars
constexpr uint32_t kVtabrEntry = 20;  // type 12: lower REAL, upper REAL, link TX
constexpr uint32_t kVtabrLink = 16;   // offset of the TX link inside a type-12 entry
// Parameter bytes per entry when a block is made: 16 for types 1 and 2, 40 for type 11,
// 8 for all others (type 12 included).
constexpr uint32_t param_bytes_per_entry(uint16_t type) {
  return (type == 1 || type == 2) ? 16u : type == 11 ? 40u : 8u;
}
}  // namespace cc

// Extension block "CE", 128 bytes when made: type, then the module record. The record is
// 128 bytes long, so its last 6 bytes lie beyond a block of the made size and never reach the
// file. In memory every CE image carries 128 zero bytes beyond its block, so the whole record
// can be read behind offset 6 whatever size the block was stored with.
namespace ce {
constexpr uint32_t kSize = 128;
constexpr uint32_t kType = 4;    // u16
constexpr uint32_t kRecord = 6;  // module record, record offset r at block offset 6 + r
constexpr uint32_t kRecordSize = 128;
constexpr uint32_t kExtra = kRecordSize;
}  // namespace ce

// Dependency block "CD", 20 bytes when made (one dependency).
namespace cd {
constexpr uint32_t kSize = 20;
constexpr uint32_t kType = 4;     // u16
constexpr uint32_t kCount = 6;    // u16 N
constexpr uint32_t kEntries = 8;  // N x (link DG, link CG, link CN), 12 bytes each
constexpr uint32_t kEntry = 12;
}  // namespace cd

// Trigger block "TR": comment link, event count, events of three REALs. A block made for N
// events is 24 x N + 34 bytes: one spare entry, left zero.
namespace tr {
constexpr uint32_t kSize = 34;
constexpr uint32_t kComment = 4;  // link TX
constexpr uint32_t kCount = 8;    // u16
constexpr uint32_t kEvents = 10;  // N x (time, pre-time, post-time)
constexpr uint32_t kEvent = 24;
}  // namespace tr

// Sample reduction block "SR", 24 bytes.
namespace sr {
constexpr uint32_t kSize = 24;
constexpr uint32_t kNext = 4;       // link SR
constexpr uint32_t kData = 8;       // link to the reduced data (not a block)
constexpr uint32_t kCount = 12;     // u32
constexpr uint32_t kInterval = 16;  // REAL
}  // namespace sr

// ---- One table of block kinds ------------------------------------------------------------
// What the library knows of each kind beyond the field offsets above: the sizes, the link
// fields (with the block size each needs to be present and the kind it leads to), the chain
// link, and the REALs that a VAX float file has converted at read. Reading, defaults,
// copying, writing, the sort's copy and the dump take these from here.

// A link field of a block kind: present when the block is at least `from_size` bytes.
struct LinkSpec {
  uint16_t field;
  uint16_t from_size;
  uint16_t target;  // kind of the block it leads to
};

struct KindSpec {
  uint16_t kind;
  uint16_t minimum_size;  // smallest block whose fixed fields the library reads
  uint16_t default_size;  // size of a new block
  uint16_t extra;         // bytes an image holds beyond its block
  uint16_t next;          // the link to the next member of a chain of this kind, 0 for none
  uint8_t link_count;
  LinkSpec links[7];  // the fixed link fields, in ascending order
  uint8_t real_count;
  uint16_t reals[3];  // fixed REAL fields converted from VAX formats at read
  // Further links whose number the contents decide: the text of each entry of a verbal range
  // table (CC), the data group, channel group and channel of each dependency (CD).
  bool content_links;
};

// clang-format off
inline constexpr KindSpec kKinds[] = {
  // kind  minimum       default     extra       next
  {kId, id::kSize,     id::kSize,  0,          0,
   0, {}, 0, {}, false},
  {kHD, hd::kSizeOld,  hd::kSize,  0,          0,
   3, {{hd::kFirstDg, 8, kDG}, {hd::kComment, 12, kTX}, {hd::kProgram, 16, kPR}},
   0, {}, false},
  {kTX, 4,             4,          1,          0,
   0, {}, 0, {}, false},
  {kPR, 4,             pr::kSize,  0,          0,
   0, {}, 0, {}, false},
  {kDG, 24,            dg::kSize,  0,          dg::kNext,
   3, {{dg::kNext, 8, kDG}, {dg::kFirstCg, 12, kCG}, {dg::kTrigger, 16, kTR}},
   0, {}, false},
  {kCG, cg::kSize,     cg::kSize,  0,          cg::kNext,
   4, {{cg::kNext, 8, kCG}, {cg::kFirstCn, 12, kCN}, {cg::kComment, 16, kTX},
       {cg::kFirstSr, cg::kSizeWithSr, kSR}},
   0, {}, false},
  {kCN, cn::kSizeOld,  cn::kSize,  0,          cn::kNext,
   7, {{cn::kNext, 8, kCN}, {cn::kConversion, 12, kCC}, {cn::kExtension, 16, kCE},
       {cn::kDependency, 20, kCD}, {cn::kComment, 24, kTX},
       {cn::kLongName, cn::kSizeLongName, kTX}, {cn::kDisplayName, cn::kSize, kTX}},
   3, {cn::kMinimum, cn::kMaximum, cn::kSampleRate}, false},
  {kCC, cc::kSize,     cc::kSize,  cc::kExtra, 0,
   0, {}, 2, {cc::kMinimum, cc::kMaximum}, true},
  {kCE, ce::kRecord,   ce::kSize,  ce::kExtra, 0,
   0, {}, 0, {}, false},
  {kCD, 8,             cd::kSize,  0,          0,
   0, {}, 0, {}, true},
  {kTR, tr::kEvents,   tr::kSize,  0,          0,
   1, {{tr::kComment, 8, kTX}}, 0, {}, false},
  {kSR, sr::kSize,     sr::kSize,  0,          sr::kNext,
   1, {{sr::kNext, 8, kSR}}, 0, {}, false},
};
// clang-format on

// The table row of a kind; null for a kind that is no block of an MDF 3.x file.
constexpr const KindSpec* kind_spec(uint16_t kind) {
  for (const KindSpec& k : kKinds) {
    if (k.kind == kind) return &k;
  }
  return nullptr;
}

}  // namespace korvel::layout
