// The matrix model and the cell preparation: geometry, the worked cell,
// the checks, and the bits of the prepared numbers for any team size.
#include "localization/grid_matrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "tests/support/team_size.h"

namespace zorvane {
namespace localization {
namespace {

std::uint32_t bits(float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

MCell cellWith(float vs0, float vs1, float vw0, float vw1, float hs0, float hs1, float hw0,
               float hw1) {
  MCell c;
  c.value_sigma[0] = vs0;
  c.value_sigma[1] = vs1;
  c.value_weight[0] = vw0;
  c.value_weight[1] = vw1;
  c.height_sigma[0] = hs0;
  c.height_sigma[1] = hs1;
  c.height_weight[0] = hw0;
  c.height_weight[1] = hw1;
  c.value_mean[0] = 17.f;
  c.value_mean[1] = 250.f;
  c.height_mean[0] = -1.25f;
  c.height_mean[1] = 3.5f;
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

TEST(GridMatrixTest, ManualInitSetsGeometryOnlyAndWrapsTheProduct) {
  GridMatrix m;
  m.cells_.resize(2);
  m.index_ = {1, -1, 0};
  m.precalculated_ = true;
  m.manualInit(0.2f, 3, 4, -1, 2);
  EXPECT_EQ(m.resolution_, 0.2f);
  EXPECT_EQ(m.grid_size_, 12u);
  EXPECT_EQ(m.cols_, 3);
  EXPECT_EQ(m.rows_, 4);
  EXPECT_EQ(m.offset_x_, -1);
  EXPECT_EQ(m.offset_y_, 2);
  EXPECT_EQ(m.cells_.size(), 2u);
  EXPECT_EQ(m.index_.size(), 3u);
  EXPECT_TRUE(m.precalculated_);

  m.manualInit(0.15f, 65536, 65536, 0, 0);
  EXPECT_EQ(m.grid_size_, 0u);
  m.manualInit(0.15f, -5, -3, 0, 0);
  EXPECT_EQ(m.grid_size_, 15u);
  m.manualInit(0.15f, -1, 1, 0, 0);
  EXPECT_EQ(m.grid_size_, 0xffffffffu);
  m.manualInit(0.15f, 7, 0, 0, 0);
  EXPECT_EQ(m.grid_size_, 0u);
}

TEST(PreCalcTest, PreparesAWorkedCellAndLeavesMeansAlone) {
  GridMatrix m = matrixOf({cellWith(2.f, 4.f, 0.5f, 0.5f, 0.5f, 0.25f, 0.25f, 0.75f)});
  m.runPreCalc();
  ASSERT_TRUE(m.precalculated_);
  const MCell& c = m.cells_[0];
  EXPECT_EQ(c.value_sigma[0], 8.f);
  EXPECT_EQ(c.value_sigma[1], 32.f);
  EXPECT_EQ(c.value_weight[0], 0.25f);
  EXPECT_EQ(c.value_weight[1], 0.125f);
  EXPECT_EQ(c.height_sigma[0], 0.5f);
  EXPECT_EQ(c.height_sigma[1], 0.125f);
  EXPECT_EQ(c.height_weight[0], 0.5f);
  EXPECT_EQ(c.height_weight[1], 3.f);
  EXPECT_EQ(c.value_mean[0], 17.f);
  EXPECT_EQ(c.value_mean[1], 250.f);
  EXPECT_EQ(c.height_mean[0], -1.25f);
  EXPECT_EQ(c.height_mean[1], 3.5f);
  EXPECT_EQ(c.aux_value, 0.75f);

  // A second call must not prepare the prepared numbers again.
  m.runPreCalc();
  EXPECT_EQ(m.cells_[0].value_sigma[0], 8.f);
  EXPECT_EQ(m.cells_[0].height_weight[1], 3.f);
}

TEST(PreCalcTest, NeedsBothCellsAndIndex) {
  GridMatrix m = matrixOf({cellWith(2.f, 2.f, 1.f, 1.f, 1.f, 1.f, 1.f, 1.f)});
  m.index_.clear();
  m.runPreCalc();
  EXPECT_FALSE(m.precalculated_);
  EXPECT_EQ(m.cells_[0].value_sigma[0], 2.f);

  GridMatrix no_cells;
  no_cells.index_ = {-1, -1};
  no_cells.runPreCalc();
  EXPECT_FALSE(no_cells.precalculated_);

  m.index_ = {0};
  m.runPreCalc();
  EXPECT_TRUE(m.precalculated_);
  EXPECT_EQ(m.cells_[0].value_sigma[0], 8.f);
}

TEST(PreCalcTest, ZeroSigmaGivesInfiniteOrNanWeight) {
  GridMatrix m = matrixOf({cellWith(0.f, 0.f, 0.5f, 0.f, 1.f, 1.f, 1.f, 1.f)});
  m.runPreCalc();
  EXPECT_EQ(m.cells_[0].value_sigma[0], 0.f);
  EXPECT_TRUE(std::isinf(m.cells_[0].value_weight[0]));
  EXPECT_TRUE(std::isnan(m.cells_[0].value_weight[1]));
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

TEST(PreCheckTest, FlagsSpreadsWhoseSquareIsNotFinite) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  auto fails = [](float vs0, float vs1, float hs0, float hs1) {
    MCell c = cellWith(vs0, vs1, 1.f, 1.f, hs0, hs1, 1.f, 1.f);
    const MCell before = c;
    const bool result = GridMatrix::runPreCheck(c);
    EXPECT_EQ(0, std::memcmp(&c, &before, sizeof c));
    return result;
  };
  EXPECT_FALSE(fails(1.f, 2.f, 0.1f, 0.2f));
  EXPECT_FALSE(fails(-3.f, 1e19f, -1e19f, 0.f));
  EXPECT_TRUE(fails(2e19f, 1.f, 1.f, 1.f));
  EXPECT_TRUE(fails(1.f, nan, 1.f, 1.f));
  EXPECT_TRUE(fails(1.f, 1.f, -inf, 1.f));
  EXPECT_TRUE(fails(1.f, 1.f, 1.f, -2e19f));  // the last field is visited too
}

TEST(PreCheckTest, SmallRaisesEveryFieldBelowTheMinimum) {
  const float kRaised = 0.005f;
  MCell c = cellWith(0.001f, 0.01f, 1.f, 1.f, 0.f, 0.2f, 1.f, 1.f);
  EXPECT_TRUE(GridMatrix::runPreCheckSmall(c));
  EXPECT_EQ(bits(c.value_sigma[0]), 0x3ba3d70au);
  EXPECT_EQ(c.value_sigma[1], 0.01f);
  EXPECT_EQ(c.height_sigma[0], kRaised);
  EXPECT_EQ(c.height_sigma[1], 0.2f);

  MCell fine = cellWith(0.01f, 0.01f, 1.f, 1.f, 0.01f, 0.01f, 1.f, 1.f);
  const MCell before = fine;
  EXPECT_FALSE(GridMatrix::runPreCheckSmall(fine));
  EXPECT_EQ(0, std::memcmp(&fine, &before, sizeof fine));

  // 0.005f lies below the double 0.005, so it is raised again (to itself).
  MCell at_minimum = cellWith(0.01f, 0.01f, 1.f, 1.f, 0.01f, kRaised, 1.f, 1.f);
  EXPECT_TRUE(GridMatrix::runPreCheckSmall(at_minimum));
  EXPECT_EQ(at_minimum.height_sigma[1], kRaised);

  MCell with_nan = cellWith(std::nanf(""), 0.01f, 1.f, 1.f, -1.f, 0.01f, 1.f, 1.f);
  EXPECT_TRUE(GridMatrix::runPreCheckSmall(with_nan));
  EXPECT_TRUE(std::isnan(with_nan.value_sigma[0]));
  EXPECT_EQ(with_nan.height_sigma[0], kRaised);
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
