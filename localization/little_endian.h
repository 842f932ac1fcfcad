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

// The same bits seen as another type of the same size.
template <class To, class From>
inline To bitCast(From from) {
  static_assert(sizeof(To) == sizeof(From), "bitCast keeps the size");
  To to;
  std::memcpy(&to, &from, sizeof to);
  return to;
}

// IEEE 754 values travel as their raw bits: NaN payloads, signed zeros and
// infinities survive a round trip unchanged.
inline void encodeFloat32(char* dst, float value) { encodeFixed32(dst, bitCast<std::uint32_t>(value)); }
inline float decodeFloat32(const char* src) { return bitCast<float>(decodeFixed32(src)); }
inline void encodeFloat64(char* dst, double value) { encodeFixed64(dst, bitCast<std::uint64_t>(value)); }
inline double decodeFloat64(const char* src) { return bitCast<double>(decodeFixed64(src)); }

}  // namespace internal
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LITTLE_ENDIAN_H_
