// The matrix model and the cell preparation: construction state, geometry,
// and the bits of the prepared numbers for any team size.
#include "localization/grid_matrix.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <vector>

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

TEST(MCellTest, ConstructionZeroesEveryByte) {
  alignas(MCell) unsigned char storage[sizeof(MCell)];
  std::memset(storage, 0xAB, sizeof storage);
  new (storage) MCell();
  const unsigned char zeros[sizeof(MCell)] = {};
  EXPECT_EQ(0, std::memcmp(storage, zeros, sizeof storage));
}

TEST(GridMatrixTest, DefaultsOfMatrixTableAndCoarseRecord) {
  const GridMatrix m;
  EXPECT_EQ(bits(m.resolution_), 0x3e19999au);
  EXPECT_EQ(m.grid_size_, 0u);
  EXPECT_EQ(m.cols_, 0);
  EXPECT_EQ(m.rows_, 0);
  EXPECT_EQ(m.offset_x_, 0);
  EXPECT_EQ(m.offset_y_, 0);
  EXPECT_FALSE(m.precalculated_);
  EXPECT_TRUE(m.cells_.empty());
  EXPECT_TRUE(m.index_.empty());

  const GridMatrixTable t;
  EXPECT_EQ(bits(t.resolution_), 0x3e19999au);
  EXPECT_EQ(t.grid_size_, 0u);
  EXPECT_EQ(bits(t.prob_scale_), 0x3f666666u);
  EXPECT_EQ(bits(t.prob_floor_), 0x3a83126fu);
  EXPECT_TRUE(t.value_table_.empty());
  EXPECT_TRUE(t.height_table_.empty());
  EXPECT_TRUE(t.coarse_cells_.empty());

  const MCellCoarse c;
  const unsigned char zeros[sizeof(MCellCoarse)] = {};
  EXPECT_EQ(0, std::memcmp(&c, zeros, sizeof c));
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

TEST(GridMatrixTest, TablesMoveTheirArraysInsteadOfCopyingThem) {
  GridMatrixTable t;
  t.value_table_.resize(1000, 1.f);
  t.height_table_.resize(10, 2.f);
  t.coarse_cells_.resize(4);
  const float* value_data = t.value_table_.data();
  const MCellCoarse* coarse_data = t.coarse_cells_.data();
  GridMatrixTable moved(std::move(t));
  EXPECT_EQ(moved.value_table_.data(), value_data);
  EXPECT_EQ(moved.coarse_cells_.data(), coarse_data);
  GridMatrixTable assigned;
  assigned = std::move(moved);
  EXPECT_EQ(assigned.value_table_.data(), value_data);
}

TEST(PreCalcTest, PreparesTheDocumentedCellAndLeavesMeansAlone) {
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

// The pass must give the same bits as a serial evaluation of the stated
// arithmetic, whatever the team size and wherever the ranges split.
TEST(PreCalcTest, EveryTeamSizeGivesTheSerialBits) {
  std::mt19937 rng(20261122);
  std::uniform_real_distribution<float> spread(0.001f, 40.f);
  std::uniform_real_distribution<float> weight(0.f, 1.f);
  std::vector<MCell> raw(1237);
  for (MCell& c : raw) {
    c = cellWith(spread(rng), spread(rng), weight(rng), weight(rng), spread(rng) / 50,
                 spread(rng) / 50, weight(rng), weight(rng));
  }
  std::vector<MCell> expected = raw;
  for (MCell& c : expected) {
    float* sigma[4] = {&c.value_sigma[0], &c.value_sigma[1], &c.height_sigma[0],
                       &c.height_sigma[1]};
    float* w[4] = {&c.value_weight[0], &c.value_weight[1], &c.height_weight[0],
                   &c.height_weight[1]};
    for (int k = 0; k < 4; ++k) {
      const float s = *sigma[k];
      *w[k] = *w[k] / s;
      *sigma[k] = s * (s + s);
    }
  }

  const int saved = omp_get_max_threads();
  for (int threads : {1, 2, 3, 7, 16}) {
    omp_set_num_threads(threads);
    GridMatrix m = matrixOf(raw);
    m.runPreCalc();
    ASSERT_EQ(m.cells_.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
      ASSERT_EQ(0, std::memcmp(&m.cells_[i], &expected[i], sizeof(MCell)))
          << "cell " << i << " with " << threads << " threads";
    }
  }
  omp_set_num_threads(saved);
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
