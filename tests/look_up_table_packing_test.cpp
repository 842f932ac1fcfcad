// Packing of the table's records: the 32-bit addressing limit, which no
// table small enough to build in a test reaches (counts and offsets are
// checked through whole tables against the plain builder).
#include "localization/look_up_table_packing.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <vector>

namespace {

using namespace zorvane::localization;
using namespace zorvane::localization::lut;

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
