// The synthetic map generator: other tests and the benchmarks rely on its
// maps being valid raw matrices whose cells survive the lossy file unchanged.
#include "tests/support/synthetic_map.h"
#include "tests/support/team_size.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <tuple>
#include <vector>

namespace {

using zorvane::localization::GridMatrix;
using zorvane::localization::MCell;
using zorvane::testing::makeSyntheticMap;
using zorvane::testing::ScopedTeamSize;

bool sameBits(const GridMatrix& a, const GridMatrix& b) {
  if (a.cells_.size() != b.cells_.size() || a.index_ != b.index_) return false;
  for (std::size_t i = 0; i < a.cells_.size(); ++i) {
    if (std::memcmp(&a.cells_[i], &b.cells_[i], 52) != 0) return false;  // the floats, not the padding
  }
  return true;
}

// q * 0.01f + origin for some whole q in 0..65535, evaluated as the file
// reader does.
bool onStepGrid(float v, float origin) {
  const double q = std::nearbyint((static_cast<double>(v) - origin) / 0.01);
  return q >= 0 && q <= 65535 && static_cast<float>(q) * 0.01f + origin == v;
}

TEST(SyntheticMap, GeometryIndexAndDeterminism) {
  auto made = [](int threads) {
    ScopedTeamSize team(threads);
    return makeSyntheticMap(203, 157, 9);
  };
  const auto one = made(1);
  const auto three = made(3);
  EXPECT_TRUE(sameBits(one.matrix, three.matrix));
  EXPECT_FALSE(sameBits(one.matrix, makeSyntheticMap(203, 157, 10).matrix));

  const GridMatrix& m = one.matrix;
  EXPECT_FALSE(m.precalculated_);
  EXPECT_EQ(std::make_tuple(m.cols_, m.rows_, m.grid_size_), std::make_tuple(203, 157, 203u * 157u));
  EXPECT_TRUE(m.offset_x_ % 4 != 0 && m.offset_y_ % 4 != 0);
  ASSERT_EQ(m.index_.size(), m.grid_size_);
  // Cells numbered 0, 1, 2, ... in increasing flat position.
  std::int32_t expected = 0;
  for (std::int32_t e : m.index_) ASSERT_EQ(e, e < 0 ? -1 : expected++);
  EXPECT_EQ(static_cast<std::size_t>(expected), m.cells_.size());

  const auto none = makeSyntheticMap(0, 50, 1);
  EXPECT_TRUE(none.matrix.grid_size_ == 0 && none.matrix.cells_.empty() && none.matrix.index_.empty());
}

TEST(SyntheticMap, CellsLieOnTheLossyFileGrid) {
  // A small map may fall mostly on one block; a larger one averages out to
  // about 40% occupancy.
  const auto map = makeSyntheticMap(400, 300, 4);
  const GridMatrix& m = map.matrix;
  const auto share = [](const GridMatrix& g) { return static_cast<double>(g.cells_.size()) / g.grid_size_; };
  EXPECT_GT(share(m), 0.1);
  EXPECT_LT(share(m), 0.7);
  const double big_share = share(makeSyntheticMap(1000, 1000, 4).matrix);
  EXPECT_GT(big_share, 0.33);
  EXPECT_LT(big_share, 0.47);
  ASSERT_TRUE(std::isfinite(map.height_base) && std::isfinite(map.aux_value_base));
  std::size_t wide = 0;
  for (const MCell& c : m.cells_) {
    for (int k = 0; k < 2; ++k) {
      ASSERT_TRUE(c.value_mean[k] == std::floor(c.value_mean[k]) && c.value_mean[k] >= 5.f && c.value_mean[k] <= 200.f)
          << c.value_mean[k];
      ASSERT_TRUE(onStepGrid(c.value_sigma[k], 0.f)) << c.value_sigma[k];
      ASSERT_TRUE(onStepGrid(c.height_sigma[k], 0.f)) << c.height_sigma[k];
      ASSERT_TRUE(onStepGrid(c.height_mean[k], map.height_base)) << c.height_mean[k];
      ASSERT_GT(c.height_mean[k], map.height_base);
      ASSERT_TRUE(c.value_sigma[k] > 0.f && c.value_sigma[k] <= 20.f) << c.value_sigma[k];
      ASSERT_TRUE(c.height_sigma[k] >= 0.02f && c.height_sigma[k] <= 0.5f) << c.height_sigma[k];
      wide += c.value_sigma[k] >= 8.f;
    }
    ASSERT_TRUE(onStepGrid(c.aux_value, map.aux_value_base));
    // The weight rule: w0 = b / 255 in double narrowed, w1 = 1 - w0.
    for (const float* w : {c.value_weight, c.height_weight}) {
      ASSERT_EQ(w[0], static_cast<float>(std::nearbyint(static_cast<double>(w[0]) * 255.0) / 255.0));
      ASSERT_EQ(w[1], 1.0f - w[0]);
    }
  }
  // A few percent of wide value sigmas, not none and not most.
  EXPECT_GT(wide, m.cells_.size() / 100);
  EXPECT_LT(wide, m.cells_.size() / 5);
}

}  // namespace
