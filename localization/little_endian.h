// Little-endian fixed-width fields in byte buffers.
//
// Map files are little-endian with unaligned multi-byte fields. Every field
// is assembled from, or split into, single bytes with shifts, so the result
// does not depend on the host's byte order or on the alignment of the
// buffer, and no buffer is ever reinterpreted as a wider type. (Compilers
// turn each of these into a single load or store on x86-64.)
//
// The caller guarantees that `dst` / `src` points at no fewer bytes than the
// field's width.
#ifndef ZORVANE_LOCALIZATION_LITTLE_ENDIAN_H_
#define ZORVANE_LOCALIZATION_LITTLE_ENDIAN_H_

#include <cstdint>
#include <cstring>

namespace zorvane {
namespace localization {
namespace internal {

inline void encodeFixed16(char* dst, std::uint16_t value) {
  auto* p = reinterpret_cast<unsigned char*>(dst);
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
}

inline void encodeFixed32(char* dst, std::uint32_t value) {
  auto* p = reinterpret_cast<unsigned char*>(dst);
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
  p[2] = static_cast<unsigned char>(value >> 16);
  p[3] = static_cast<unsigned char>(value >> 24);
}

inline void encodeFixed64(char* dst, std::uint64_t value) {
  encodeFixed32(dst, static_cast<std::uint32_t>(value));
  encodeFixed32(dst + 4, static_cast<std::uint32_t>(value >> 32));
}

inline std::uint16_t decodeFixed16(const char* src) {
  const auto* p = reinterpret_cast<const unsigned char*>(src);
  return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

inline std::uint32_t decodeFixed32(const char* src) {
  const auto* p = reinterpret_cast<const unsigned char*>(src);
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

inline std::uint64_t decodeFixed64(const char* src) {
  return static_cast<std::uint64_t>(decodeFixed32(src)) |
         (static_cast<std::uint64_t>(decodeFixed32(src + 4)) << 32);
}

// Two's complement, the same four bytes as the unsigned field.
inline void encodeInt32(char* dst, std::int32_t value) {
  encodeFixed32(dst, static_cast<std::uint32_t>(value));
}
inline std::int32_t decodeInt32(const char* src) {
  return static_cast<std::int32_t>(decodeFixed32(src));
}

// IEEE 754 values travel as their raw bits: NaN payloads, signed zeros and
// infinities survive a round trip unchanged.
inline void encodeFloat32(char* dst, float value) {
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  encodeFixed32(dst, bits);
}
inline float decodeFloat32(const char* src) {
  const std::uint32_t bits = decodeFixed32(src);
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

inline void encodeFloat64(char* dst, double value) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  encodeFixed64(dst, bits);
}
inline double decodeFloat64(const char* src) {
  const std::uint64_t bits = decodeFixed64(src);
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

}  // namespace internal
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LITTLE_ENDIAN_H_
