// The module (source) types of extension blocks and the layouts of their 128-byte module
// records, described once: the module functions pack and unpack records by these tables, and
// the text dump prints each module's mnemonic and number from them.
//
// A record lies at offset 6 of its CE block (after the head and the 16-bit module type);
// record offset r is block offset 6 + r. Numbers are little-endian, texts fixed-width fields
// zero-padded and not terminated when full.
#pragma once

#include <cstdint>
#include <iterator>
#include <span>

#include "frame/bytes.h"
#include "storage/layout.h"

namespace korvel::module {

constexpr uint32_t kRecordSize = layout::ce::kRecordSize;

// How a field is stored; the order is that of the value alternatives of the module functions.
enum class FieldKind : uint8_t { kU16, kU32, kU64, kReal, kChars };

struct Field {
  uint8_t offset;  // in the record
  uint8_t width;   // bytes; for texts the field's characters
  FieldKind kind;
  uint8_t argument;  // 0-based position among the typed functions' value arguments
};

enum class Layout : uint8_t {
  kText,        // types 0, 16, 17
  kAnalog,      // types 1, 14
  kDevice,      // types 2, 7, 9, 12, 13, 18
  kBus,         // types 3, 15
  kNamedPair,   // types 4, 5, 8, 10, 11
  kDevicePair,  // type 6
  kBusMessage,  // type 19 (the standard's CAN source layout)
};

namespace fields {
using enum FieldKind;
//  r   width  kind   argument
inline constexpr Field kText[] = {{0, 32, kChars, 0}};
// Stored in another order than the calls take them: (a, b, c, d) lie as b, d, c, a.
inline constexpr Field kAnalog[] = {
    {0, 2, kU16, 1}, {2, 8, kU64, 3}, {10, 8, kReal, 2}, {18, 2, kU16, 0}};
inline constexpr Field kDevice[] = {
    {0, 2, kU16, 0}, {2, 4, kU32, 1}, {6, 80, kChars, 2}, {86, 32, kChars, 3}};
inline constexpr Field kDevicePair[] = {{0, 2, kU16, 0},     {2, 4, kU32, 1},   {6, 80, kChars, 2},
                                        {86, 32, kChars, 3}, {118, 2, kU16, 4}, {120, 2, kU16, 5}};
inline constexpr Field kBus[] = {
    {0, 2, kU16, 0}, {2, 2, kU16, 1}, {4, 20, kChars, 2}, {24, 32, kChars, 3}, {56, 2, kU16, 4}};
inline constexpr Field kNamedPair[] = {{0, 32, kChars, 0}, {32, 2, kU16, 1}, {34, 2, kU16, 2}};
inline constexpr Field kBusMessage[] = {
    {0, 4, kU32, 0}, {4, 4, kU32, 1}, {8, 36, kChars, 2}, {44, 36, kChars, 3}};
}  // namespace fields

constexpr std::span<const Field> layout_fields(Layout layout) {
  switch (layout) {
    case Layout::kText:
      return fields::kText;
    case Layout::kAnalog:
      return fields::kAnalog;
    case Layout::kDevice:
      return fields::kDevice;
    case Layout::kBus:
      return fields::kBus;
    case Layout::kNamedPair:
      return fields::kNamedPair;
    case Layout::kDevicePair:
      return fields::kDevicePair;
    case Layout::kBusMessage:
      return fields::kBusMessage;
  }
  return {};
}

constexpr int8_t kNoNumber = -1;

struct ModuleType {
  const char* mnemonic;  // as the dump prints it
  Layout layout;
  int8_t number_offset;  // record offset of the 16-bit module number, kNoNumber for none
  bool readable;         // a typed getter hands it out (type 18 is written, never read back)
};

// Indexed by module type.
inline constexpr ModuleType kTypes[] = {
    {"GEN", Layout::kText, kNoNumber, true},        // 0
    {"AIM", Layout::kAnalog, 18, true},             // 1
    {"DIM", Layout::kDevice, 0, true},              // 2
    {"CANIM", Layout::kBus, 0, true},               // 3
    {"Q24", Layout::kNamedPair, 34, true},          // 4
    {"LA1", Layout::kNamedPair, 34, true},          // 5
    {"ACAN", Layout::kDevicePair, 0, true},         // 6
    {"ETK", Layout::kDevice, 0, true},              // 7
    {"LA2", Layout::kNamedPair, 34, true},          // 8
    {"DIM2", Layout::kDevice, 0, true},             // 9
    {"THS", Layout::kNamedPair, 34, true},          // 10
    {"ADS", Layout::kNamedPair, 34, true},          // 11
    {"QPSI1", Layout::kDevice, 0, true},            // 12
    {"QPSI2", Layout::kDevice, 0, true},            // 13
    {"GEN", Layout::kAnalog, kNoNumber, true},      // 14
    {"QCAN", Layout::kBus, 0, true},                // 15
    {"GEN", Layout::kText, kNoNumber, true},        // 16
    {"GEN", Layout::kText, kNoNumber, true},        // 17
    {"SSC", Layout::kDevice, 0, false},             // 18
    {"GEN", Layout::kBusMessage, kNoNumber, true},  // 19
};
constexpr uint16_t kTypeCount = static_cast<uint16_t>(std::size(kTypes));

constexpr const ModuleType* module_type(uint16_t type) {
  return type < kTypeCount ? &kTypes[type] : nullptr;
}

// Whether the getter of `layout` hands out records of `type`.
constexpr bool getter_accepts(Layout layout, uint16_t type) {
  const ModuleType* t = module_type(type);
  return t != nullptr && t->readable && t->layout == layout;
}

// The name the dump shows: "GEN" for types without a name of their own and unknown types.
constexpr const char* module_mnemonic(uint16_t type) {
  const ModuleType* t = module_type(type);
  return t != nullptr ? t->mnemonic : "GEN";
}

// The module number of a record (the 128 bytes behind it readable), 0 for types without one.
inline uint16_t module_number(uint16_t type, const uint8_t* record) {
  const ModuleType* t = module_type(type);
  if (t == nullptr || t->number_offset == kNoNumber) return 0;
  return load_le16(record + t->number_offset);
}

}  // namespace korvel::module
