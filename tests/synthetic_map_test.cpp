// The synthetic map generator behind `zvmap synth`, the bundled map and the
// benchmarks: the same map for any team size, a valid raw matrix, and cells
// that survive the lossy file unchanged (the round trip itself is in
// grid_map_lossy_test.cpp).
#include "tools/reference/synthetic_map.h"
#include "tests/support/team_size.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <tuple>

namespace {

using zorvane::localization::GridMatrix;
using zorvane::localization::MCell;
using zorvane::reference::makeSyntheticMap;
using zorvane::testing::ScopedTeamSize;

bool sameBits(const GridMatrix& a, const GridMatrix& b) {
  if (a.cells_.size() != b.cells_.size() || a.index_ != b.index_) return false;
  for (std::size_t i = 0; i < a.cells_.size(); ++i) {
    if (std::memcmp(&a.cells_[i], &b.cells_[i], 52) != 0) return false;  // the floats, not the padding
  }
  return true;
}

TEST(SyntheticMap, GeometryIndexAndDeterminism) {
  const auto made = [](int threads) {
    ScopedTeamSize team(threads);
    return makeSyntheticMap(403, 301, 4);
  };
  const auto one = made(1);
  EXPECT_TRUE(sameBits(one.matrix, made(3).matrix));
  EXPECT_FALSE(sameBits(one.matrix, makeSyntheticMap(403, 301, 5).matrix));

  const GridMatrix& m = one.matrix;
  EXPECT_EQ(std::make_tuple(m.cols_, m.rows_, m.grid_size_, m.precalculated_), std::make_tuple(403, 301, 403u * 301u, false));
  EXPECT_TRUE(m.offset_x_ % 4 != 0 && m.offset_y_ % 4 != 0);
  ASSERT_EQ(m.index_.size(), m.grid_size_);
  // Cells numbered 0, 1, 2, ... in increasing flat position, a tenth of the
  // grid at least.
  std::int32_t expected = 0;
  for (std::int32_t e : m.index_) ASSERT_EQ(e, e < 0 ? -1 : expected++);
  EXPECT_TRUE(static_cast<std::size_t>(expected) == m.cells_.size() && m.cells_.size() > m.grid_size_ / 10);
  EXPECT_TRUE(makeSyntheticMap(0, 50, 1).matrix.cells_.empty());
  // Height means above a finite origin, so that the file can hold them.
  ASSERT_TRUE(std::isfinite(one.height_base) && std::isfinite(one.aux_value_base));
  for (const MCell& c : m.cells_) ASSERT_TRUE(c.height_mean[0] > one.height_base && c.height_mean[1] > one.height_base);
}

}  // namespace
