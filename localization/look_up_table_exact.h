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

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

#if defined(__SSE2__)
// roundToBin of each of four lanes, with SSE2 alone (every x86-64
// processor has it): the range pass rounds four bounds of a cell at once.
inline __m128i roundToBinFour(__m128 v) {
  const __m128 limit = _mm_set1_ps(2147483648.0f);
  const __m128 magnitude = _mm_andnot_ps(_mm_set1_ps(-0.0f), v);
  const __m128i in_range = _mm_castps_si128(_mm_cmplt_ps(magnitude, limit));  // false for NaN
  const __m128i t = _mm_cvttps_epi32(v);
  const __m128 rest = _mm_sub_ps(v, _mm_cvtepi32_ps(t));
  // The comparisons give -1 where true: t + (rest >= 0.5) - (rest <= -0.5).
  const __m128i up = _mm_castps_si128(_mm_cmpge_ps(rest, _mm_set1_ps(0.5f)));
  const __m128i down = _mm_castps_si128(_mm_cmple_ps(rest, _mm_set1_ps(-0.5f)));
  const __m128i rounded = _mm_add_epi32(_mm_sub_epi32(t, up), down);
  // Outside the range, toInt32: INT32_MAX above, INT32_MIN below, 0 for NaN.
  const __m128i above = _mm_castps_si128(_mm_cmpge_ps(v, limit));
  const __m128i below = _mm_castps_si128(_mm_cmple_ps(v, _mm_set1_ps(-2147483648.0f)));
  const __m128i saturated = _mm_or_si128(_mm_and_si128(above, _mm_set1_epi32(std::numeric_limits<std::int32_t>::max())),
                                         _mm_and_si128(below, _mm_set1_epi32(std::numeric_limits<std::int32_t>::min())));
  return _mm_or_si128(_mm_and_si128(in_range, rounded), _mm_andnot_si128(in_range, saturated));
}

inline __m128i minFour(__m128i a, __m128i b) {
  const __m128i a_greater = _mm_cmpgt_epi32(a, b);
  return _mm_or_si128(_mm_and_si128(a_greater, b), _mm_andnot_si128(a_greater, a));
}
inline __m128i maxFour(__m128i a, __m128i b) {
  const __m128i a_greater = _mm_cmpgt_epi32(a, b);
  return _mm_or_si128(_mm_and_si128(a_greater, a), _mm_andnot_si128(a_greater, b));
}
#endif

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
