// Packing of the table's records: counts and first bins, running offsets,
// and the 32-bit addressing limit.
#include "localization/look_up_table_packing.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <vector>

namespace {

using namespace zorvane::localization;
using namespace zorvane::localization::lut;

TEST(LookUpTablePacking, CountsAndFirstBinsGoIntoTheRecord) {
  struct Case {
    BlockRanges r;
    std::uint16_t value_bins, value_first, height_bins, height_first;
  };
  const std::vector<Case> cases = {
      {{96, 9, -3, 4, 1}, 9, 96, 4, 0xFFFD},
      {{0, 0, 0, 0, 0}, 0, 0, 0, 0},
      {{0, 256, 10000, 65535, 16}, 256, 0, 65535, 10000},
  };
  for (const Case& c : cases) {
    MCellCoarse rec;
    rec.value_offset = 77;
    rec.height_offset = 88;
    packCounts(c.r, &rec);
    EXPECT_EQ(std::make_tuple(rec.value_bins, static_cast<std::uint16_t>(rec.value_first), rec.height_bins,
                              static_cast<std::uint16_t>(rec.height_first), rec.value_offset, rec.height_offset),
              std::make_tuple(c.value_bins, c.value_first, c.height_bins, c.height_first, 77u, 88u));
  }
}

TEST(LookUpTablePacking, OffsetsAreRunningSumsOfTheCounts) {
  std::vector<MCellCoarse> recs(5);
  const std::uint16_t value[] = {9, 0, 256, 1, 0};
  const std::uint16_t height[] = {0, 65535, 3, 0, 2};
  for (int p = 0; p < 5; ++p) {
    recs[p].value_bins = value[p];
    recs[p].height_bins = height[p];
  }
  std::uint64_t value_total = 0, height_total = 0;
  ASSERT_TRUE(assignOffsets(recs.data(), recs.size(), &value_total, &height_total));
  EXPECT_EQ(value_total, 266u);
  EXPECT_EQ(height_total, 65540u);
  const std::uint32_t want_value[] = {0, 9, 9, 265, 266};
  const std::uint32_t want_height[] = {0, 0, 65535, 65538, 65538};
  for (int p = 0; p < 5; ++p) {
    EXPECT_EQ(recs[p].value_offset, want_value[p]) << p;
    EXPECT_EQ(recs[p].height_offset, want_height[p]) << p;
  }
  EXPECT_TRUE(assignOffsets(recs.data(), 0, &value_total, &height_total));
  EXPECT_EQ(value_total + height_total, 0u);
}

// 65,538 records at the height clip hold 2^32 + 65,534 bins, one
// sequence more than 32-bit offsets can address; one record fewer fits.
TEST(LookUpTablePacking, TotalsBeyond32BitsAreReported) {
  std::vector<MCellCoarse> recs(65538);
  for (MCellCoarse& r : recs) r.height_bins = 65535;
  std::uint64_t value_total = 0, height_total = 0;
  EXPECT_FALSE(assignOffsets(recs.data(), recs.size(), &value_total, &height_total));
  EXPECT_EQ(height_total, 65538ull * 65535ull);
  EXPECT_TRUE(assignOffsets(recs.data(), recs.size() - 1, &value_total, &height_total));
  EXPECT_EQ(height_total, 65537ull * 65535ull);
}

}  // namespace
