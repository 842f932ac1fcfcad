// The table builder's exact conversions against the library arithmetic
// they replace.
#include "localization/look_up_table_exact.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

namespace {

using namespace zorvane::localization::lut;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();

TEST(LookUpTableExact, ToInt32TruncatesAndSaturates) {
  const std::vector<std::tuple<float, std::int32_t>> cases = {
      {0.f, 0},
      {-0.f, 0},
      {2.9f, 2},
      {-2.9f, -2},
      {2147483520.f, 2147483520},
      {2147483648.f, kMax},
      {-2147483648.f, kMin},
      {-2147483904.f, kMin},
      {kInf, kMax},
      {-kInf, kMin},
      {kNaN, 0},
  };
  for (const auto& [v, want] : cases) EXPECT_EQ(toInt32(v), want) << v;
}

// roundToBin(v) == toInt32(std::round(v)) for halves, their neighbours, the
// saturation edges, non-finite values and a million random floats of every
// magnitude.
TEST(LookUpTableExact, RoundToBinEqualsLibraryRound) {
  std::vector<float> values = {0.f,       -0.f,       0.5f,         -0.5f,        1.5f,          -1.5f,
                               2.5f,      -2.5f,      0.49999997f,  -0.49999997f, 8388607.5f,    -8388607.5f,
                               8388608.f, 16777217.f, 2147483520.f, 2147483648.f, -2147483648.f, 3e9f,
                               -3e9f,     kInf,       -kInf,        kNaN,         1e-45f,        -1e-45f};
  for (int k = -300; k <= 300; ++k) {
    const float half = static_cast<float>(k) + 0.5f;
    values.insert(values.end(), {half, std::nextafter(half, kInf), std::nextafter(half, -kInf)});
  }
  std::mt19937 rng(11);
  std::uniform_int_distribution<std::uint32_t> any;
  for (int i = 0; i < 1000000; ++i) {
    const std::uint32_t b = any(rng);
    float f;
    std::memcpy(&f, &b, sizeof f);
    values.push_back(f);
  }
  for (float v : values) {
    ASSERT_EQ(roundToBin(v), toInt32(std::round(v))) << v << " bits " << bitsOf(v);
  }
#if defined(__SSE2__)
  // The four-lane form, each value in every lane.
  for (std::size_t k = 0; k + 4 <= values.size(); ++k) {
    alignas(16) std::int32_t got[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(got), roundToBinFour(_mm_loadu_ps(&values[k])));
    for (int q = 0; q < 4; ++q) {
      const float v = values[k + static_cast<std::size_t>(q)];
      ASSERT_EQ(got[q], toInt32(std::round(v))) << v << " bits " << bitsOf(v) << " lane " << q;
    }
  }
#endif
}

}  // namespace
