// The zvmap quantisation rules: rounding and saturation of each rule, and
// every stored step read back and stored again; the loader's bulk cell
// decoder against the rules record by record. Byte order and the record
// layout are checked through whole files (grid_map_lossy_test.cpp).
#include "localization/lossy_format.h"

#include "localization/cell_preparation.h"
#include "localization/lossy_cell_decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "tests/support/map_files.h"

namespace zorvane {
namespace localization {
namespace {

using namespace internal;
using namespace lossy;
using testing::bits;
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST(StepRuleTest, SubtractsTheOriginRoundsHalvesAwayAndSaturates) {
  struct Case { float value, origin, step; int stored; };
  const Case cases[] = {
      // Step 1 makes the quotient exact, so the halves are real halves.
      {0.49f, 0, 1, 0}, {0.5f, 0, 1, 1}, {2.5f, 0, 1, 3}, {65534.5f, 0, 1, 65535},
      {65536.0f, 0, 1, 65535}, {-0.4f, 0, 1, 0}, {-0.5f, 0, 1, 0}, {-3.0f, 0, 1, 0},
      {kNaN, 0, 1, 0}, {kInf, 0, 1, 65535}, {-kInf, 0, 1, 0},
      {700.0f, 0, 0.01f, 65535}, {1.5f, 0, 0.01f, 150}, {0.123f, 0, 0.01f, 12},
      {0.05f, 0, 0.01f, 5}, {-2.0f, -2.5f, 0.01f, 50}, {0.5f, -2.5f, 0.01f, 300},
      {-2.6f, -2.5f, 0.01f, 0},
      {3.0f, kInf, 0.01f, 0},  // a map's default origin: everything stores 0
  };
  for (const Case& c : cases) {
    EXPECT_EQ(encodeStep(c.value, c.origin, c.step), c.stored) << c.value << " - " << c.origin;
    if (c.origin == 0) {
      EXPECT_EQ(encodeStep(c.value, c.step), c.stored) << c.value;
    }
  }
  EXPECT_EQ(decodeStep(0, kInf, 0.01f), kInf);
  EXPECT_EQ(bits(decodeStep(65535, 0.01f)), bits(655.3499755859375f));
  EXPECT_EQ(bits(decodeStep(5, 0.01f)), bits(0.04999999701976776f));
  EXPECT_EQ(bits(decodeStep(12, 0.01f)), bits(0.11999999731779099f));
  EXPECT_EQ(bits(decodeStep(300, -2.5f, 0.01f)), bits(0.5f));
  for (int q = 0; q <= 65535; ++q) {
    const auto u = static_cast<std::uint16_t>(q);
    ASSERT_EQ(encodeStep(decodeStep(u, 0.01f), 0.01f), u) << q;
    ASSERT_EQ(encodeStep(decodeStep(u, -4.0f, 0.01f), -4.0f, 0.01f), u) << q;
  }
}

TEST(StepRuleTest, QuotientRoundingMatchesRoundHalfAwayFromZero) {
  auto expected = [](float q) -> int {
    return q > 0.0f ? static_cast<int>(std::min(65535.0f, std::round(q))) : 0;
  };
  std::vector<float> qs = {0.49999997f, std::numeric_limits<float>::denorm_min()};
  for (int k = 0; k < 65536; ++k) {  // around every half, where rounding decides
    const float half = static_cast<float>(k) + 0.5f;
    qs.insert(qs.end(), {std::nextafter(half, 0.0f), half, std::nextafter(half, 1e9f)});
  }
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> any(-10.0f, 70000.0f), small(0.0f, 2.0f);
  for (int i = 0; i < 200000; ++i) qs.insert(qs.end(), {any(rng), small(rng)});
  for (float q : qs) ASSERT_EQ(quantizeStepQuotient(q), expected(q)) << q;
}

TEST(WholeNumberRuleTest, RoundsHalvesUpAndSaturates) {
  const std::pair<float, int> cases[] = {
      {20.0f, 20}, {100.6f, 101}, {2.5f, 3}, {2.4999998f, 2}, {254.5f, 255}, {255.4f, 255},
      {300.0f, 255}, {kInf, 255}, {0.49f, 0}, {-0.6f, 0}, {-3.0f, 0}, {-kInf, 0}, {kNaN, 0},
      {0.49999997f, 0},  // + 0.5 in double precision stays below 1
  };
  for (const auto& c : cases) EXPECT_EQ(encodeWhole(c.first), c.second) << c.first;
  for (int b = 0; b <= 255; ++b) ASSERT_EQ(encodeWhole(decodeWhole(std::uint8_t(b))), b);
}

TEST(WeightRuleTest, StoresTheFirstWeightsShareIn255thsAndReadsAPairSummingToOne) {
  struct Case { float w0, w1; int stored; };
  const Case cases[] = {
      {3, 1, 191}, {1, 1, 128}, {0.75f, 0.25f, 191}, {1, 0, 255}, {0, 1, 0},
      {0, 0, 0},   {-1, 2, 0},  {2, -1, 255},        {kNaN, 1, 0}, {kInf, 1, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(encodeWeight(c.w0, c.w1), c.stored) << c.w0 << "," << c.w1;
  struct Read { int b; float w0, w1; };
  const Read reads[] = {{191, 0.7490196228027344f, 0.2509803771972656f},
                        {128, 0.501960813999176f, 0.498039186000824f}, {0, 0, 1}, {255, 1, 0}};
  float w0, w1;
  for (const Read& r : reads) {
    decodeWeight(static_cast<std::uint8_t>(r.b), &w0, &w1);
    EXPECT_EQ(bits(w0), bits(r.w0)) << r.b;
    EXPECT_EQ(bits(w1), bits(r.w1)) << r.b;
  }
  for (int b = 0; b <= 255; ++b) {
    decodeWeight(static_cast<std::uint8_t>(b), &w0, &w1);
    ASSERT_EQ(bits(w1), bits(1.0f - w0)) << b;
    ASSERT_EQ(encodeWeight(w0, w1), b) << b;
  }
}

// Random records (every weight byte, any 16-bit step) under ordinary and
// extreme scales: every bit of each cell as decodeCellRecord and
// prepareCell give it, padding zero.
TEST(CellDecoderTest, GivesTheRecordRulesBitsAndZeroPadding) {
  const CellScales scales[] = {
      {0.01f, 0.01f, 0.01f, 0.01f, -40.0f, -2.5f},
      {0.0f, 1e-30f, 3.0e38f, -0.5f, kInf, kNaN},  // 0/0, subnormal, overflow, NaN
      {1e-41f, 7.0f, 1e-3f, 1.0f, -1e30f, 1e-40f},
  };
  std::mt19937 rng(11);
  std::vector<char> records(4099 * kRecordBytes);
  for (char& c : records) c = static_cast<char>(rng());
  const std::size_t n = records.size() / kRecordBytes;
  for (const CellScales& s : scales) {
    for (const bool prepare : {false, true}) {
      std::vector<MCell> got(n);
      std::memset(static_cast<void*>(got.data()), 0xA5, n * sizeof(MCell));
      CellDecoder(s, prepare).decodeCells(records.data(), n, got.data());
      for (std::size_t i = 0; i < n; ++i) {
        MCell want;
        decodeCellRecord(records.data() + i * kRecordBytes, s, &want);
        if (prepare) prepareCell(want);
        ASSERT_EQ(std::memcmp(&got[i], &want, sizeof(MCell)), 0) << "record " << i << ", prepare " << prepare;
      }
    }
  }
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
