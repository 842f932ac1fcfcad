// The zvmap field helpers and quantisation rules: byte order, rounding,
// saturation and the exact arithmetic of each rule.
#include "localization/lossy_codec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <limits>
#include <vector>

namespace zorvane {
namespace localization {
namespace {

using namespace internal;
using namespace lossy;

std::uint32_t bits(float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

std::vector<unsigned char> bytes(const char* p, int n) {
  return std::vector<unsigned char>(reinterpret_cast<const unsigned char*>(p),
                                    reinterpret_cast<const unsigned char*>(p) + n);
}

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST(LittleEndianTest, FieldsAreWrittenLowByteFirstAtAnyAlignment) {
  char buf[1 + 8] = {};
  char* odd = buf + 1;  // never aligned for the wider types
  encodeFixed16(odd, 0x1234);
  EXPECT_EQ(bytes(odd, 2), (std::vector<unsigned char>{0x34, 0x12}));
  EXPECT_EQ(decodeFixed16(odd), 0x1234);
  encodeFixed32(odd, 0x89abcdefu);
  EXPECT_EQ(bytes(odd, 4), (std::vector<unsigned char>{0xef, 0xcd, 0xab, 0x89}));
  EXPECT_EQ(decodeFixed32(odd), 0x89abcdefu);
  encodeFixed64(odd, 0x0102030405060708ull);
  EXPECT_EQ(bytes(odd, 8), (std::vector<unsigned char>{8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(decodeFixed64(odd), 0x0102030405060708ull);
  encodeInt32(odd, -1);
  EXPECT_EQ(bytes(odd, 4), (std::vector<unsigned char>{0xff, 0xff, 0xff, 0xff}));
  EXPECT_EQ(decodeInt32(odd), -1);
  encodeInt32(odd, std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(decodeInt32(odd), std::numeric_limits<std::int32_t>::min());
}

TEST(LittleEndianTest, FloatsTravelAsTheirRawBits) {
  char buf[9] = {};
  encodeFloat32(buf + 1, -2.5f);
  EXPECT_EQ(bytes(buf + 1, 4), (std::vector<unsigned char>{0x00, 0x00, 0x20, 0xc0}));
  encodeFloat64(buf + 1, 200.0);
  EXPECT_EQ(bytes(buf + 1, 8), (std::vector<unsigned char>{0, 0, 0, 0, 0, 0, 0x69, 0x40}));
  EXPECT_EQ(decodeFloat64(buf + 1), 200.0);

  // A signalling-looking NaN payload and a negative zero come back unchanged.
  const std::uint32_t payload = 0x7fa00001u;
  float nan_in;
  std::memcpy(&nan_in, &payload, sizeof nan_in);
  encodeFloat32(buf, nan_in);
  EXPECT_EQ(bits(decodeFloat32(buf)), payload);
  encodeFloat32(buf, -0.0f);
  EXPECT_EQ(bits(decodeFloat32(buf)), 0x80000000u);
  const std::uint64_t dpayload = 0x7ff0000000000001ull;
  double dnan;
  std::memcpy(&dnan, &dpayload, sizeof dnan);
  encodeFloat64(buf, dnan);
  EXPECT_EQ(decodeFixed64(buf), dpayload);
}

TEST(StepRuleTest, RoundsHalvesAwayFromZeroAndSaturates) {
  // Step 1 makes the quotient exact, so the halves are real halves.
  EXPECT_EQ(encodeStep(0.49f, 1.0f), 0);
  EXPECT_EQ(encodeStep(0.5f, 1.0f), 1);
  EXPECT_EQ(encodeStep(2.5f, 1.0f), 3);
  EXPECT_EQ(encodeStep(65534.5f, 1.0f), 65535);
  EXPECT_EQ(encodeStep(65535.0f, 1.0f), 65535);
  EXPECT_EQ(encodeStep(65536.0f, 1.0f), 65535);
  EXPECT_EQ(encodeStep(-0.4f, 1.0f), 0);
  EXPECT_EQ(encodeStep(-0.5f, 1.0f), 0);  // -1 before saturation
  EXPECT_EQ(encodeStep(-3.0f, 1.0f), 0);
  EXPECT_EQ(encodeStep(kNaN, 1.0f), 0);
  EXPECT_EQ(encodeStep(kInf, 1.0f), 65535);
  EXPECT_EQ(encodeStep(-kInf, 1.0f), 0);

  // With the default step of 0.01.
  EXPECT_EQ(encodeStep(700.0f, 0.01f), 65535);
  EXPECT_EQ(encodeStep(-0.25f, 0.01f), 0);
  EXPECT_EQ(encodeStep(1.5f, 0.01f), 150);
  EXPECT_EQ(encodeStep(0.123f, 0.01f), 12);
  EXPECT_EQ(encodeStep(0.05f, 0.01f), 5);
}

TEST(StepRuleTest, QuotientRoundingMatchesRoundHalfAwayFromZero) {
  auto expected = [](float q) -> int {
    if (!(q > 0.0f)) return 0;
    return static_cast<int>(std::min(65535.0f, std::round(q)));
  };
  // Around every half, where rounding decides, and at random elsewhere.
  for (int k = 0; k < 65536; ++k) {
    const float half = static_cast<float>(k) + 0.5f;
    for (float q : {std::nextafter(half, 0.0f), half, std::nextafter(half, 1e9f)}) {
      ASSERT_EQ(quantizeStepQuotient(q), expected(q)) << q;
    }
  }
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> any(-10.0f, 70000.0f);
  std::uniform_real_distribution<float> small(0.0f, 2.0f);
  for (int i = 0; i < 200000; ++i) {
    const float a = any(rng), b = small(rng);
    ASSERT_EQ(quantizeStepQuotient(a), expected(a)) << a;
    ASSERT_EQ(quantizeStepQuotient(b), expected(b)) << b;
  }
  EXPECT_EQ(quantizeStepQuotient(0.49999997f), 0);
  EXPECT_EQ(quantizeStepQuotient(std::numeric_limits<float>::denorm_min()), 0);
}

TEST(StepRuleTest, OriginIsSubtractedThenDivided) {
  EXPECT_EQ(encodeStep(-2.0f, -2.5f, 0.01f), 50);
  EXPECT_EQ(encodeStep(0.5f, -2.5f, 0.01f), 300);
  EXPECT_EQ(encodeStep(-2.6f, -2.5f, 0.01f), 0);
  // The default origin of a map is +infinity: everything stores 0 ...
  EXPECT_EQ(encodeStep(3.0f, kInf, 0.01f), 0);
  // ... and reads back as +infinity.
  EXPECT_EQ(decodeStep(0, kInf, 0.01f), kInf);
  EXPECT_EQ(encodeStep(kNaN, 0.0f, 0.01f), 0);
}

TEST(StepRuleTest, ReadingIsProductThenOrigin) {
  EXPECT_EQ(bits(decodeStep(65535, 0.01f)), bits(655.3499755859375f));
  EXPECT_EQ(bits(decodeStep(5, 0.01f)), bits(0.04999999701976776f));
  EXPECT_EQ(bits(decodeStep(12, 0.01f)), bits(0.11999999731779099f));
  EXPECT_EQ(bits(decodeStep(300, -2.5f, 0.01f)), bits(static_cast<float>(300) * 0.01f + -2.5f));
  EXPECT_EQ(decodeStep(0, 0.01f), 0.0f);
}

TEST(StepRuleTest, EveryStoredStepSurvivesAnotherRoundTrip) {
  for (int q = 0; q <= 65535; ++q) {
    const auto u = static_cast<std::uint16_t>(q);
    ASSERT_EQ(encodeStep(decodeStep(u, 0.01f), 0.01f), u) << q;
    ASSERT_EQ(encodeStep(decodeStep(u, -4.0f, 0.01f), -4.0f, 0.01f), u) << q;
  }
}

TEST(WholeNumberRuleTest, RoundsHalvesUpAndSaturates) {
  EXPECT_EQ(encodeWhole(20.0f), 20);
  EXPECT_EQ(encodeWhole(100.6f), 101);
  EXPECT_EQ(encodeWhole(2.5f), 3);
  EXPECT_EQ(encodeWhole(2.4999998f), 2);
  EXPECT_EQ(encodeWhole(254.5f), 255);
  EXPECT_EQ(encodeWhole(255.4f), 255);
  EXPECT_EQ(encodeWhole(300.0f), 255);
  EXPECT_EQ(encodeWhole(kInf), 255);
  EXPECT_EQ(encodeWhole(0.49f), 0);
  EXPECT_EQ(encodeWhole(-0.6f), 0);  // -0.1 truncates toward zero
  EXPECT_EQ(encodeWhole(-3.0f), 0);
  EXPECT_EQ(encodeWhole(-kInf), 0);
  EXPECT_EQ(encodeWhole(kNaN), 0);
  // 0.5 is added in double precision: 0.49999997f + 0.5 stays below 1.
  EXPECT_EQ(encodeWhole(0.49999997f), 0);
  for (int b = 0; b <= 255; ++b) {
    ASSERT_EQ(encodeWhole(decodeWhole(static_cast<std::uint8_t>(b))), b);
  }
}

TEST(WeightRuleTest, StoresTheShareOfTheFirstWeightIn255ths) {
  EXPECT_EQ(encodeWeight(3.0f, 1.0f), 191);  // 191.25 + 0.5, truncated
  EXPECT_EQ(encodeWeight(1.0f, 1.0f), 128);  // 127.5 + 0.5
  EXPECT_EQ(encodeWeight(0.75f, 0.25f), 191);
  EXPECT_EQ(encodeWeight(1.0f, 0.0f), 255);
  EXPECT_EQ(encodeWeight(0.0f, 1.0f), 0);
  EXPECT_EQ(encodeWeight(0.0f, 0.0f), 0);    // 0 / 0
  EXPECT_EQ(encodeWeight(-1.0f, 2.0f), 0);   // negative share
  EXPECT_EQ(encodeWeight(2.0f, -1.0f), 255); // share 2
  EXPECT_EQ(encodeWeight(kNaN, 1.0f), 0);
  EXPECT_EQ(encodeWeight(kInf, 1.0f), 0);    // inf / inf
}

TEST(WeightRuleTest, ReadsAPairThatSumsToOne) {
  float w0 = -1.f, w1 = -1.f;
  decodeWeight(191, &w0, &w1);
  EXPECT_EQ(bits(w0), bits(0.7490196228027344f));
  EXPECT_EQ(bits(w1), bits(0.2509803771972656f));
  decodeWeight(128, &w0, &w1);
  EXPECT_EQ(bits(w0), bits(0.501960813999176f));
  EXPECT_EQ(bits(w1), bits(0.498039186000824f));
  decodeWeight(0, &w0, &w1);
  EXPECT_EQ(w0, 0.0f);
  EXPECT_EQ(w1, 1.0f);
  decodeWeight(255, &w0, &w1);
  EXPECT_EQ(w0, 1.0f);
  EXPECT_EQ(w1, 0.0f);
  for (int b = 0; b <= 255; ++b) {
    decodeWeight(static_cast<std::uint8_t>(b), &w0, &w1);
    ASSERT_EQ(bits(w0), bits(static_cast<float>(b / 255.0))) << b;
    ASSERT_EQ(bits(w1), bits(1.0f - w0)) << b;
    ASSERT_EQ(encodeWeight(w0, w1), b) << b;
  }
}

// The record of the one cell of the documented 83-byte example.
MCell exampleCell() {
  MCell c;
  c.value_sigma[0] = 1.5f;
  c.value_sigma[1] = 2.0f;
  c.value_mean[0] = 20.f;
  c.value_mean[1] = 100.6f;
  c.value_weight[0] = 3.f;
  c.value_weight[1] = 1.f;
  c.height_sigma[0] = 0.05f;
  c.height_sigma[1] = 0.123f;
  c.height_mean[0] = -2.0f;
  c.height_mean[1] = 0.5f;
  c.height_weight[0] = 1.f;
  c.height_weight[1] = 1.f;
  c.aux_value = 1.25f;
  return c;
}

constexpr CellScales kExampleScales{0.01f, 0.01f, 0.01f, 0.01f, -2.5f, 0.0f};

const std::vector<unsigned char> kExampleRecord = {0x04, 0x00, 0x00, 0x00, 0x7d, 0x00, 0x14, 0x65,
                                                   0x96, 0x00, 0xc8, 0x00, 0xbf, 0x32, 0x00, 0x2c,
                                                   0x01, 0x05, 0x00, 0x0c, 0x00, 0x80};

TEST(CellRecordTest, FieldsLandAtTheirOffsets) {
  char record[kRecordBytes + 2];
  std::memset(record, 0x5a, sizeof record);
  encodeCellRecord(record + 1, 4, exampleCell(), kExampleScales);
  EXPECT_EQ(bytes(record + 1, kRecordBytes), kExampleRecord);
  // Exactly 22 bytes are written.
  EXPECT_EQ(record[0], 0x5a);
  EXPECT_EQ(record[kRecordBytes + 1], 0x5a);
}

TEST(CellRecordTest, DecodingSetsTheThirteenFloatsAndNothingElse) {
  MCell cell;
  std::memset(cell.unused_, 0xee, sizeof cell.unused_);
  const auto* record = reinterpret_cast<const char*>(kExampleRecord.data());
  EXPECT_EQ(recordPosition(record), 4u);
  decodeCellRecord(record, kExampleScales, &cell);
  EXPECT_EQ(cell.aux_value, 125 * 0.01f);
  EXPECT_EQ(cell.value_mean[0], 20.f);
  EXPECT_EQ(cell.value_mean[1], 101.f);
  EXPECT_EQ(bits(cell.value_sigma[0]), bits(150 * 0.01f));
  EXPECT_EQ(bits(cell.value_sigma[1]), bits(200 * 0.01f));
  EXPECT_EQ(bits(cell.value_weight[0]), bits(0.7490196228027344f));
  EXPECT_EQ(bits(cell.value_weight[1]), bits(0.2509803771972656f));
  EXPECT_EQ(bits(cell.height_mean[0]), bits(-2.0f));
  EXPECT_EQ(bits(cell.height_mean[1]), bits(0.5f));
  EXPECT_EQ(bits(cell.height_sigma[0]), bits(0.04999999701976776f));
  EXPECT_EQ(bits(cell.height_sigma[1]), bits(0.11999999731779099f));
  EXPECT_EQ(bits(cell.height_weight[0]), bits(0.501960813999176f));
  EXPECT_EQ(bits(cell.height_weight[1]), bits(0.498039186000824f));
  for (unsigned char b : cell.unused_) EXPECT_EQ(b, 0xee);
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
