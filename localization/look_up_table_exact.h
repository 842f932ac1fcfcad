// Exact number conversions of the table builder: float to bin index and bin
// index to the 16-bit record field, each reproducing the single-precision
// arithmetic of the table's definition bit for bit (look_up_table.h).
//
// They run once per component and block in the range pass, so they are
// inline here rather than calls into a .cpp file.
#ifndef ZORVANE_LOCALIZATION_LOOK_UP_TABLE_EXACT_H_
#define ZORVANE_LOCALIZATION_LOOK_UP_TABLE_EXACT_H_

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace zorvane {
namespace localization {
namespace lut {

// Float to int32, truncating towards zero and saturating at the int32
// range; NaN converts to 0. (A plain cast is undefined outside the range.)
inline std::int32_t toInt32(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<std::int32_t>::max();
  if (v <= -2147483648.0f) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(v);
}

// Nearest whole number, halves away from zero, then saturated: the same
// result as toInt32(std::round(v)), without the library call. Below 2^23 in
// magnitude v - trunc(v) is exact; from 2^23 on every float is whole.
inline std::int32_t roundToBin(float v) {
  if (!(std::fabs(v) < 2147483648.0f)) return toInt32(v);
  const auto t = static_cast<std::int32_t>(v);  // towards zero
  const float rest = v - static_cast<float>(t);
  // Without branches: which way a bound rounds is data, not a pattern.
  return t + static_cast<std::int32_t>(rest >= 0.5f) - static_cast<std::int32_t>(rest <= -0.5f);
}

// The low 16 bits of a histogram's first bin, taken through f32 as the
// packing is defined. (First bins are rounded f32 values, the sentinels or
// INT32_MIN, all exactly representable, so the round trip never changes
// them.)
inline std::int16_t firstField(std::int64_t first) {
  const auto held = static_cast<std::int64_t>(static_cast<float>(first));
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<std::uint64_t>(held) & 0xFFFFu));
}

inline std::uint32_t bitsOf(float f) {
  std::uint32_t b = 0;
  std::memcpy(&b, &f, sizeof b);
  return b;
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOOK_UP_TABLE_EXACT_H_
