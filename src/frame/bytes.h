// Little- and big-endian loads and stores on byte pointers. File bytes are only ever
// touched through these helpers; no C struct is laid over a block image.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace korvel {

inline uint16_t load_le16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t load_le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t load_le64(const uint8_t* p) {
  return static_cast<uint64_t>(load_le32(p)) | (static_cast<uint64_t>(load_le32(p + 4)) << 32);
}
inline int16_t load_le16s(const uint8_t* p) {
  return static_cast<int16_t>(load_le16(p));
}
inline double load_f64(const uint8_t* p) {
  return std::bit_cast<double>(load_le64(p));
}
inline float load_f32(const uint8_t* p) {
  return std::bit_cast<float>(load_le32(p));
}

inline void store_le16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void store_le32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void store_le64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void store_f64(uint8_t* p, double v) {
  store_le64(p, std::bit_cast<uint64_t>(v));
}
inline void store_f32(uint8_t* p, float v) {
  store_le32(p, std::bit_cast<uint32_t>(v));
}

inline uint16_t load_be16(const uint8_t* p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline uint32_t load_be32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}
inline uint64_t load_be64(const uint8_t* p) {
  return (static_cast<uint64_t>(load_be32(p)) << 32) | load_be32(p + 4);
}
inline void store_be16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void store_be32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * (3 - i)));
}
inline void store_be64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * (7 - i)));
}

// Bounded copy in the manner of strncpy: copies up to n characters, pads the rest of the
// field with zero bytes and adds no terminator when the source fills the field.
inline void copy_field(char* dst, const char* src, std::size_t n) {
  std::size_t i = 0;
  for (; i < n && src[i] != '\0'; ++i) dst[i] = src[i];
  for (; i < n; ++i) dst[i] = '\0';
}

}  // namespace korvel
