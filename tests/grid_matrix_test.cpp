// The matrix model and the cell preparation: geometry, the worked cell,
// the checks, and the bits of the prepared numbers for any team size.
#include "localization/grid_matrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "tests/support/map_bytes.h"
#include "tests/support/team_size.h"

namespace zorvane {
namespace localization {
namespace {

using testing::bits;

// A cell with the given sigmas and weights (value then height, components
// 0 and 1) and fixed means and aux_value.
MCell cellWith(float vs0, float vs1, float vw0, float vw1, float hs0, float hs1, float hw0, float hw1) {
  MCell c;
  const float fields[][2] = {{vs0, vs1}, {17.f, 250.f}, {vw0, vw1}, {hs0, hs1}, {-1.25f, 3.5f}, {hw0, hw1}};
  std::memcpy(static_cast<void*>(&c), fields, sizeof fields);  // value_sigma .. height_weight, in order
  c.aux_value = 0.75f;
  return c;
}

// A matrix with n cells and a one-row index naming each of them.
GridMatrix matrixOf(const std::vector<MCell>& cells) {
  GridMatrix m;
  m.manualInit(0.15f, static_cast<int>(cells.size()), 1, 0, 0);
  m.cells_.assign(cells.begin(), cells.end());
  for (std::size_t i = 0; i < cells.size(); ++i) m.index_.push_back(static_cast<int>(i));
  return m;
}

// grid_size_ is the 32-bit product, wrapping; nothing else changes.
TEST(GridMatrixTest, ManualInitSetsGeometryOnlyAndWrapsTheProduct) {
  GridMatrix m = matrixOf({cellWith(2.f, 2.f, 1.f, 1.f, 1.f, 1.f, 1.f, 1.f)});
  m.precalculated_ = true;
  m.manualInit(0.2f, 3, 4, -1, 2);
  EXPECT_EQ(std::make_tuple(m.resolution_, m.grid_size_, m.cols_, m.rows_, m.offset_x_, m.offset_y_),
            std::make_tuple(0.2f, 12u, 3, 4, -1, 2));
  EXPECT_TRUE(m.cells_.size() == 1 && m.index_.size() == 1 && m.precalculated_);
  for (const auto& [cols, rows, size] : {std::make_tuple(65536, 65536, 0u), {-5, -3, 15u}, {-1, 1, 0xffffffffu}}) {
    m.manualInit(0.15f, cols, rows, 0, 0);
    EXPECT_EQ(m.grid_size_, size) << cols << " x " << rows;
  }
}

// Sigmas become 2 s^2 and weights w / s; means and aux_value stay; a second
// call changes nothing; without cells or without an index nothing happens;
// a zero sigma gives an infinite or NaN weight.
TEST(PreCalcTest, PreparesOnceAndOnlyAMatrixWithCellsAndIndex) {
  GridMatrix m = matrixOf({cellWith(2.f, 4.f, 0.5f, 0.5f, 0.5f, 0.25f, 0.25f, 0.75f),
                           cellWith(0.f, 0.f, 0.5f, 0.f, 1.f, 1.f, 1.f, 1.f)});
  MCell want = cellWith(8.f, 32.f, 0.25f, 0.125f, 0.5f, 0.125f, 0.5f, 3.f);
  const std::vector<int> index(m.index_.begin(), m.index_.end());
  m.index_.clear();
  m.runPreCalc();
  EXPECT_FALSE(m.precalculated_);
  EXPECT_EQ(m.cells_[0].value_sigma[0], 2.f);
  GridMatrix no_cells;
  no_cells.index_ = {-1, -1};
  no_cells.runPreCalc();
  EXPECT_FALSE(no_cells.precalculated_);

  m.index_.assign(index.begin(), index.end());
  for (int round = 0; round < 2; ++round) {
    m.runPreCalc();
    ASSERT_TRUE(m.precalculated_);
    EXPECT_EQ(std::memcmp(&m.cells_[0], &want, offsetof(MCell, unused_)), 0) << "round " << round;
  }
  EXPECT_EQ(m.cells_[1].value_sigma[0], 0.f);
  EXPECT_TRUE(std::isinf(m.cells_[1].value_weight[0]));
  EXPECT_TRUE(std::isnan(m.cells_[1].value_weight[1]));
}

// The split must not change a bit: every team size, wherever the ranges
// fall, gives what one thread gives.
TEST(PreCalcTest, EveryTeamSizeGivesTheOneThreadBits) {
  std::mt19937 rng(20261122);
  std::uniform_real_distribution<float> spread(0.001f, 40.f);
  std::uniform_real_distribution<float> weight(0.f, 1.f);
  std::vector<MCell> raw(1237);
  for (MCell& c : raw) {
    c = cellWith(spread(rng), spread(rng), weight(rng), weight(rng), spread(rng) / 50,
                 spread(rng) / 50, weight(rng), weight(rng));
  }
  auto prepared = [&](int threads) {
    testing::ScopedTeamSize team(threads);
    GridMatrix m = matrixOf(raw);
    m.runPreCalc();
    return m;
  };
  const GridMatrix one = prepared(1);
  for (int threads : {2, 3, 7, 16}) {
    const GridMatrix m = prepared(threads);
    ASSERT_EQ(m.cells_.size(), one.cells_.size());
    EXPECT_EQ(0, std::memcmp(m.cells_.data(), one.cells_.data(), one.cells_.size() * sizeof(MCell)))
        << threads << " threads";
  }
}

// runPreCheck flags a sigma whose square is not finite and changes
// nothing; runPreCheckSmall raises every sigma below the double 0.005 to
// 0.005f, which lies below it, so that 0.005f is raised again (to itself).
TEST(PreCheckTest, FlagsNonFiniteSquaresAndRaisesSmallSpreads) {
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  const float kRaised = 0.005f;
  struct Case {
    float sigmas[4];  // value_sigma[0..1], height_sigma[0..1]
    bool not_finite, small;
    float after[4];
  };
  const Case cases[] = {
      {{1.f, 2.f, 0.1f, 0.2f}, false, false, {1.f, 2.f, 0.1f, 0.2f}},
      {{-3.f, 1e19f, -1e19f, 0.01f}, false, true, {kRaised, 1e19f, kRaised, 0.01f}},
      {{2e19f, 1.f, 1.f, 1.f}, true, false, {2e19f, 1.f, 1.f, 1.f}},
      {{1.f, nan, 1.f, 1.f}, true, false, {1.f, nan, 1.f, 1.f}},
      {{nan, 0.01f, -1.f, 0.01f}, true, true, {nan, 0.01f, kRaised, 0.01f}},
      {{1.f, 1.f, -inf, 1.f}, true, true, {1.f, 1.f, kRaised, 1.f}},
      {{1.f, 1.f, 1.f, -2e19f}, true, true, {1.f, 1.f, 1.f, kRaised}},  // the last field is visited too
      {{0.001f, 0.01f, 0.f, 0.2f}, false, true, {kRaised, 0.01f, kRaised, 0.2f}},
      {{0.01f, 0.01f, 0.01f, kRaised}, false, true, {0.01f, 0.01f, 0.01f, kRaised}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(std::vector<float>(c.sigmas, c.sigmas + 4)));
    MCell cell = cellWith(c.sigmas[0], c.sigmas[1], 1.f, 1.f, c.sigmas[2], c.sigmas[3], 1.f, 1.f);
    const MCell before = cell;
    EXPECT_EQ(GridMatrix::runPreCheck(cell), c.not_finite);
    EXPECT_EQ(0, std::memcmp(&cell, &before, sizeof cell));
    EXPECT_EQ(GridMatrix::runPreCheckSmall(cell), c.small);
    const float got[4] = {cell.value_sigma[0], cell.value_sigma[1], cell.height_sigma[0], cell.height_sigma[1]};
    for (int k = 0; k < 4; ++k) {
      EXPECT_TRUE(bits(got[k]) == bits(c.after[k]) || (std::isnan(got[k]) && std::isnan(c.after[k]))) << k;
    }
  }
  EXPECT_EQ(bits(kRaised), 0x3ba3d70au);
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
