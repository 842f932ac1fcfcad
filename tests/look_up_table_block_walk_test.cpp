// The coarse grid of the table builder and the bin ranges of its range pass.
// Which positions each block visits is checked through whole tables against
// the plain builder (look_up_table_test.cpp).
#include "localization/look_up_table_block_walk.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <tuple>
#include <vector>

#include "localization/look_up_table_exact.h"

namespace {

using namespace zorvane::localization;
using namespace zorvane::localization::lut;

TEST(LookUpTableBlockWalk, GeometryOfTheCoarseGrid) {
  struct Case {
    int cols, rows, offset_x, offset_y, factor;
    std::int32_t want_cols, want_rows, want_ox, want_oy;
    std::uint32_t want_grid;
  };
  const std::vector<Case> cases = {
      {10, 7, 5, -3, 4, 3, 2, 1, -1, 6},
      {0, 7, 0, 0, 4, 0, 2, 0, 0, 0},
      {8, 8, -8, -9, 4, 2, 2, -2, -3, 4},
      {5, 5, 0, 0, 0, INT_MAX, INT_MAX, 0, 0, 0},      // f = 0: saturated, no positions
      {65536, 65536, 0, 0, 1, 65536, 65536, 0, 0, 0},  // product beyond 32 bits
  };
  for (const Case& c : cases) {
    GridMatrix m;
    m.manualInit(0.15f, c.cols, c.rows, c.offset_x, c.offset_y);
    GridMatrixTable t;
    const bool has_grid = setTableGeometry(m, c.factor, 0.15f, 1.0f, &t);
    EXPECT_EQ(std::make_tuple(t.cols_, t.rows_, t.offset_x_, t.offset_y_, t.grid_size_, has_grid),
              std::make_tuple(c.want_cols, c.want_rows, c.want_ox, c.want_oy, c.want_grid, c.want_grid > 0))
        << c.cols << "x" << c.rows << " factor " << c.factor;
  }
  GridMatrix m;
  m.manualInit(0.15f, 10, 7, 5, -3);
  GridMatrixTable t;
  setTableGeometry(m, 4, 0.25f, 2.f, &t);
  EXPECT_EQ(bitsOf(t.resolution_), bitsOf(0.15f * 4.f));
  EXPECT_EQ(std::make_tuple(t.height_step_, t.value_step_), std::make_tuple(0.25f, 2.f));
}

TEST(LookUpTableBlockWalk, RangePassWidensFromTheSentinels) {
  struct Case {
    float value_mean, value_sigma, height_mean, height_sigma;
    std::int64_t value_first, value_n, height_first, height_n;
  };
  const std::vector<Case> cases = {
      {100.f, 2.f, 0.f, 0.1f, 96, 9, -1, 3},              // 100 -/+ 4; heights round(-+0.2/0.15)
      {2.f, 3.f, 1.f, 0.01f, 0, 9, 7, 1},                 // value clamped at 0: 2 + 6 = 8
      {250.f, 10.f, 2000.f, 0.1f, 230, 26, 10000, 3336},  // value clamped at 255; low sentinel
      {-50.f, 1.f, 0.f, 1e9f, 0, 0, INT_MIN, 65535},      // value range empty; height saturated, clipped
  };
  for (const Case& c : cases) {
    GridMatrix m;
    m.manualInit(0.15f, 1, 1, 0, 0);
    m.index_.assign(1, 0);
    m.cells_.resize(1);
    m.precalculated_ = true;
    MCell& cell = m.cells_[0];
    for (int k = 0; k < 2; ++k) {
      cell.value_mean[k] = c.value_mean;
      cell.value_sigma[k] = c.value_sigma;
      cell.height_mean[k] = c.height_mean;
      cell.height_sigma[k] = c.height_sigma;
    }
    GridMatrixTable t;
    ASSERT_TRUE(setTableGeometry(m, 1, 0.15f, 1.0f, &t));
    const BlockRanges r = blockRanges(BlockWalker(m, t, 1), 0, 0, 1.0f, 0.15f);
    EXPECT_EQ(std::make_tuple(r.value_first, r.value_n, r.height_first, r.height_n, r.cells),
              std::make_tuple(c.value_first, c.value_n, c.height_first, c.height_n, std::int64_t{1}))
        << c.value_mean << " " << c.height_mean;
  }
}

}  // namespace
