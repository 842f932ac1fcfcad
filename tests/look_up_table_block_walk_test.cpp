// The coarse grid and the block walk of the table builder: geometry, which
// grid positions a coarse position covers, the order in which its cells are
// visited, and the bin ranges of the range pass.
#include "localization/look_up_table_block_walk.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace zorvane::localization;
using namespace zorvane::localization::lut;

std::uint32_t bits(float v) {
  std::uint32_t b = 0;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

// A matrix whose cell at grid position (x, y) carries x in aux_value and y
// in value_mean[0], so that a visit names its position; `occupied` decides.
template <class Occupied>
GridMatrix markedMatrix(int cols, int rows, int offset_x, int offset_y, Occupied occupied) {
  GridMatrix m;
  m.manualInit(0.15f, cols, rows, offset_x, offset_y);
  m.index_.assign(m.grid_size_, -1);
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < cols; ++x) {
      if (!occupied(x, y)) continue;
      MCell c;
      c.aux_value = static_cast<float>(x);
      c.value_mean[0] = static_cast<float>(y);
      m.index_[static_cast<std::size_t>(y * cols + x)] = static_cast<std::int32_t>(m.cells_.size());
      m.cells_.push_back(c);
    }
  }
  m.precalculated_ = true;
  return m;
}

std::vector<std::pair<int, int>> visits(const BlockWalker& w, std::int64_t i, std::int64_t j) {
  std::vector<std::pair<int, int>> v;
  w.forEachCell(
      i, j, [&](const MCell& c) { v.emplace_back(static_cast<int>(c.aux_value), static_cast<int>(c.value_mean[0])); });
  return v;
}

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
  EXPECT_EQ(bits(t.resolution_), bits(0.15f * 4.f));
  EXPECT_EQ(std::make_tuple(t.height_step_, t.value_step_), std::make_tuple(0.25f, 2.f));
}

// The worked geometry: 10 x 7 with offsets (5, -3), factor 4. Coarse (0, 0)
// covers columns 1-4 and rows 1-4; coarse (2, 1) columns 9-12 and rows 5-8,
// of which column 9 and rows 5-6 lie inside. Visits go a outer, b inner.
TEST(LookUpTableBlockWalk, BlocksCoverTheirPositionsInBlockOrder) {
  const GridMatrix m = markedMatrix(10, 7, 5, -3, [](int, int) { return true; });
  GridMatrixTable t;
  ASSERT_TRUE(setTableGeometry(m, 4, 0.15f, 1.0f, &t));
  const BlockWalker w(m, t, 4);
  std::vector<std::pair<int, int>> want;
  for (int x = 1; x <= 4; ++x)
    for (int y = 1; y <= 4; ++y) want.emplace_back(x, y);
  EXPECT_EQ(visits(w, 0, 0), want);
  EXPECT_EQ(visits(w, 2, 1), (std::vector<std::pair<int, int>>{{9, 5}, {9, 6}}));
  EXPECT_EQ(visits(w, 0, 1).size(), 4u * 2u);  // columns 1-4, rows 5-6
  BlockWindow win;
  EXPECT_FALSE(w.window(3, 0, &win));  // beyond the coarse grid: columns 13-16
  EXPECT_TRUE(w.window(0, -1, &win));  // rows -3..0: row 0 is inside
  EXPECT_FALSE(w.window(0, -2, &win));
}

// Blocks are aligned on the map-wide grid, so the coarse grid may leave the
// first columns or rows of the matrix uncovered (as column 0 above). Every
// other taking-part position is visited exactly once, by the block that
// contains it, for random sizes, offsets and factors; positions whose entry
// is not a valid cell number, or beyond a short index, are skipped.
TEST(LookUpTableBlockWalk, BlocksVisitEachCoveredPositionOnce) {
  std::mt19937 rng(5);
  for (int round = 0; round < 200; ++round) {
    const int cols = static_cast<int>(rng() % 23) + 1, rows = static_cast<int>(rng() % 23) + 1;
    const int ox = static_cast<int>(rng() % 41) - 20, oy = static_cast<int>(rng() % 41) - 20;
    const int factor = static_cast<int>(rng() % 6) + 1;
    GridMatrix m = markedMatrix(cols, rows, ox, oy, [&](int, int) { return rng() % 3 != 0; });
    // A few broken entries and a short index.
    for (std::size_t p = 0; p < m.index_.size(); p += 7)
      m.index_[p] = (p % 2) ? -5 : static_cast<std::int32_t>(m.cells_.size());
    if (round % 4 == 0) m.index_.resize(m.index_.size() / 2);
    GridMatrixTable t;
    if (!setTableGeometry(m, factor, 0.15f, 1.0f, &t)) continue;
    const BlockWalker w(m, t, factor);
    std::vector<int> seen(static_cast<std::size_t>(cols * rows), 0);
    for (std::int64_t j = 0; j < t.rows_; ++j)
      for (std::int64_t i = 0; i < t.cols_; ++i)
        for (const auto& [x, y] : visits(w, i, j)) {
          // The visit lies in this block: block i starts at grid column
          // (i - table offset) * factor + matrix offset.
          EXPECT_EQ(static_cast<std::int64_t>(std::floor(static_cast<double>(x - m.offset_x_) / factor)),
                    i - t.offset_x_);
          EXPECT_EQ(static_cast<std::int64_t>(std::floor(static_cast<double>(y - m.offset_y_) / factor)),
                    j - t.offset_y_);
          ++seen[static_cast<std::size_t>(y * cols + x)];
        }
    const auto covered = [&](int v, int offset, std::int64_t table_offset, std::int64_t extent) {
      const auto block = static_cast<std::int64_t>(std::floor(static_cast<double>(v - offset) / factor)) + table_offset;
      return block >= 0 && block < extent;
    };
    for (int p = 0; p < cols * rows; ++p) {
      const bool takes_part = static_cast<std::size_t>(p) < m.index_.size() && m.index_[p] >= 0 &&
                              static_cast<std::size_t>(m.index_[p]) < m.cells_.size() &&
                              covered(p % cols, ox, t.offset_x_, t.cols_) &&
                              covered(p / cols, oy, t.offset_y_, t.rows_);
      ASSERT_EQ(seen[static_cast<std::size_t>(p)], takes_part ? 1 : 0) << "round " << round << " position " << p;
    }
  }
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
    GridMatrix m = markedMatrix(1, 1, 0, 0, [](int, int) { return true; });
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
