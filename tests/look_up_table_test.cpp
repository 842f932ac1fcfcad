// GridMatrix::getLookUpTable: the worked cases of its contract, bit-for-bit
// agreement with the plain reference builder on many random matrices and
// thread counts, and the decisions for inputs outside the preconditions.
#include "localization/look_up_table.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/plain_look_up_table.h"
#include "tools/mapgen/synthetic_map.h"

namespace {

using zorvane::localization::GridMatrix;
using zorvane::localization::GridMatrixTable;
using zorvane::localization::MCell;
using zorvane::localization::MCellCoarse;
using zorvane::testing::plainLookUpTable;

std::uint32_t bits(float v) {
  std::uint32_t b = 0;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

using zorvane::localization::internal::SubnormalPath;
using zorvane::localization::internal::setSubnormalPath;

// Both ways of treating subnormal arithmetic must give the same bits; runs
// fn(path name) once with each, then restores the default.
template <class Fn>
void forEachSubnormalPath(Fn&& fn) {
  for (SubnormalPath path : {SubnormalPath::kAvoid, SubnormalPath::kHardware}) {
    setSubnormalPath(path);
    fn(path == SubnormalPath::kAvoid ? "avoiding subnormals" : "hardware subnormals");
  }
  setSubnormalPath(SubnormalPath::kAuto);
}

// Runs fn with the default OpenMP team set to `threads`.
template <class Fn>
auto withThreads(int threads, Fn&& fn) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  auto result = fn();
  omp_set_num_threads(saved);
  return result;
}

std::string describe(const MCellCoarse& r) {
  return "{" + std::to_string(r.value_bins) + "," + std::to_string(r.value_first) + "," +
         std::to_string(r.value_offset) + " | " + std::to_string(r.height_bins) + "," +
         std::to_string(r.height_first) + "," + std::to_string(r.height_offset) + "}";
}

// Every field, every record and every float of both sequences, as bits.
::testing::AssertionResult sameTable(const GridMatrixTable& a, const GridMatrixTable& b) {
  const auto fail = [](const std::string& what) { return ::testing::AssertionFailure() << what; };
  if (bits(a.resolution_) != bits(b.resolution_)) return fail("resolution_");
  if (a.grid_size_ != b.grid_size_) return fail("grid_size_");
  if (a.cols_ != b.cols_ || a.rows_ != b.rows_) return fail("cols_/rows_");
  if (a.offset_x_ != b.offset_x_ || a.offset_y_ != b.offset_y_) return fail("offsets");
  if (bits(a.height_step_) != bits(b.height_step_) || bits(a.value_step_) != bits(b.value_step_))
    return fail("steps");
  if (bits(a.prob_scale_) != bits(b.prob_scale_) || bits(a.prob_floor_) != bits(b.prob_floor_))
    return fail("prob_scale_/prob_floor_");
  if (a.coarse_cells_.size() != b.coarse_cells_.size()) return fail("number of records");
  for (std::size_t p = 0; p < a.coarse_cells_.size(); ++p) {
    if (std::memcmp(&a.coarse_cells_[p], &b.coarse_cells_[p], sizeof(MCellCoarse)) != 0)
      return fail("record " + std::to_string(p) + ": " + describe(a.coarse_cells_[p]) + " vs " +
                  describe(b.coarse_cells_[p]));
  }
  for (const auto& pair : {std::make_pair(&a.value_table_, &b.value_table_),
                           std::make_pair(&a.height_table_, &b.height_table_)}) {
    const char* name = pair.first == &a.value_table_ ? "value_table_" : "height_table_";
    if (pair.first->size() != pair.second->size())
      return fail(std::string(name) + " size " + std::to_string(pair.first->size()) + " vs " +
                  std::to_string(pair.second->size()));
    for (std::size_t k = 0; k < pair.first->size(); ++k) {
      const float x = (*pair.first)[k], y = (*pair.second)[k];
      if (std::isnan(x) && std::isnan(y)) continue;  // NaN sign and payload are not part of the result
      if (bits(x) != bits(y))
        return fail(std::string(name) + "[" + std::to_string(k) + "] " + std::to_string((*pair.first)[k]) +
                    " vs " + std::to_string((*pair.second)[k]));
    }
  }
  return ::testing::AssertionSuccess();
}

// A matrix with the given geometry, every position empty.
GridMatrix emptyMatrix(int cols, int rows, int offset_x, int offset_y) {
  GridMatrix m;
  m.manualInit(0.15f, cols, rows, offset_x, offset_y);
  m.index_.assign(m.grid_size_, -1);
  return m;
}

// Appends an already prepared cell at grid position (x, y).
void putCell(GridMatrix& m, int x, int y, const MCell& cell) {
  m.index_[static_cast<std::size_t>(y) * static_cast<std::size_t>(m.cols_) + static_cast<std::size_t>(x)] =
      static_cast<std::int32_t>(m.cells_.size());
  m.cells_.push_back(cell);
  m.precalculated_ = true;
}

// Prepared cell with both components equal.
MCell preparedCell(float value_mean, float value_sigma, float height_mean, float height_sigma) {
  MCell c;
  for (int k = 0; k < 2; ++k) {
    c.value_mean[k] = value_mean;
    c.value_sigma[k] = value_sigma;
    c.value_weight[k] = 0.5f;
    c.height_mean[k] = height_mean;
    c.height_sigma[k] = height_sigma;
    c.height_weight[k] = 0.5f;
  }
  return c;
}

// ---------------------------------------------------------------------------
// Worked cases.

TEST(LookUpTable, UnpreparedMatrixGivesTheEmptyTable) {
  auto map = zorvane::tools::makeSyntheticMap(40, 30, 3);
  for (int factor : {4, 0, -2}) {
    const GridMatrixTable t = map.matrix.getLookUpTable(factor, 0.15f, 1.0f);
    EXPECT_TRUE(sameTable(t, GridMatrixTable()));
    EXPECT_EQ(bits(t.resolution_), 0x3e19999au);
    EXPECT_EQ(bits(t.prob_scale_), 0x3f666666u);
    EXPECT_EQ(bits(t.prob_floor_), 0x3a83126fu);
    EXPECT_EQ(t.value_step_, 0.f);
    EXPECT_EQ(t.height_step_, 0.f);
  }
}

TEST(LookUpTable, GeometryAndBlockCoverage) {
  GridMatrix m = emptyMatrix(10, 7, 5, -3);
  m.precalculated_ = true;
  const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
  EXPECT_EQ(t.cols_, 3);
  EXPECT_EQ(t.rows_, 2);
  EXPECT_EQ(t.grid_size_, 6u);
  EXPECT_EQ(t.offset_x_, 1);
  EXPECT_EQ(t.offset_y_, -1);
  EXPECT_EQ(bits(t.resolution_), bits(0.15f * 4.0f));
  EXPECT_EQ(t.coarse_cells_.size(), 6u);
  EXPECT_TRUE(t.value_table_.empty());

  // A lone cell at each grid position shows which coarse position covers it:
  // (0, 0) covers columns 1-4 and rows 1-4; (2, 1) covers column 9, rows 5-6;
  // column 0 and row 0 belong to coarse positions outside the table.
  for (int x = 0; x < 10; ++x) {
    for (int y = 0; y < 7; ++y) {
      GridMatrix one = emptyMatrix(10, 7, 5, -3);
      putCell(one, x, y, preparedCell(100.f, 2.f, 1.f, 0.5f));
      const GridMatrixTable lone = one.getLookUpTable(4, 0.15f, 1.0f);
      int expected = -1;
      if (x >= 1 && y >= 1) expected = (y - 1) / 4 * 3 + (x - 1) / 4;
      for (int p = 0; p < 6; ++p) {
        EXPECT_EQ(lone.coarse_cells_[p].value_bins != 0, p == expected) << x << "," << y << " p " << p;
        EXPECT_EQ(lone.coarse_cells_[p].height_bins != 0, p == expected) << x << "," << y << " p " << p;
      }
    }
  }
}

TEST(LookUpTable, BinRangesOfSingleCells) {
  GridMatrix m = emptyMatrix(3, 3, 0, 0);
  putCell(m, 1, 1, preparedCell(100.f, 2.f, -0.2f, 0.05f));
  const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
  ASSERT_EQ(t.grid_size_, 1u);
  const MCellCoarse& r = t.coarse_cells_[0];
  EXPECT_EQ(r.value_first, 96);
  EXPECT_EQ(r.value_bins, 9);
  // Height: round((-0.2 -/+ 0.1) / 0.15) = -2 .. -1.
  EXPECT_EQ(r.height_first, -2);
  EXPECT_EQ(r.height_bins, 2);
  EXPECT_EQ(t.value_table_.size(), 9u);
  EXPECT_EQ(t.height_table_.size(), 2u);
  // Symmetric around the mean, peak at bin 100, floor far out.
  EXPECT_EQ(bits(t.value_table_[0]), bits(t.value_table_[8]));
  EXPECT_GT(t.value_table_[4], t.value_table_[3]);

  // Value bins never go below 0; a height range straddling 0 keeps the low
  // 16 bits of its negative first bin.
  GridMatrix low = emptyMatrix(1, 1, 0, 0);
  putCell(low, 0, 0, preparedCell(2.f, 3.f, 0.f, 0.2f));
  const GridMatrixTable lt = low.getLookUpTable(1, 0.15f, 1.0f);
  EXPECT_EQ(lt.coarse_cells_[0].value_first, 0);
  EXPECT_EQ(lt.coarse_cells_[0].value_bins, 9);  // bins 0 .. round(2 + 6)
  std::uint16_t raw = 0;
  std::memcpy(&raw, &lt.coarse_cells_[0].height_first, sizeof raw);
  EXPECT_EQ(raw, 0xFFFDu);  // round(-0.4 / 0.15) = -3
  EXPECT_EQ(lt.coarse_cells_[0].height_bins, 7);
}

TEST(LookUpTable, EmptyGridsAndEmptyBlocks) {
  for (auto [cols, rows] : {std::pair<int, int>{0, 5}, {5, 0}, {0, 0}}) {
    GridMatrix m = emptyMatrix(cols, rows, 3, -7);
    m.precalculated_ = true;
    const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
    EXPECT_EQ(t.grid_size_, 0u);
    EXPECT_TRUE(t.coarse_cells_.empty());
    EXPECT_TRUE(t.value_table_.empty());
    EXPECT_TRUE(t.height_table_.empty());
  }
  // Cells only in the first and last block: the middle records are empty
  // and carry the running offsets.
  GridMatrix m = emptyMatrix(12, 1, 0, 0);
  putCell(m, 0, 0, preparedCell(50.f, 8.f, 3.f, 0.5f));
  putCell(m, 11, 0, preparedCell(60.f, 8.f, 4.f, 0.5f));
  const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
  ASSERT_EQ(t.grid_size_, 3u);
  const MCellCoarse& mid = t.coarse_cells_[1];
  EXPECT_EQ(mid.value_bins, 0);
  EXPECT_EQ(mid.value_first, 0);
  EXPECT_EQ(mid.height_bins, 0);
  EXPECT_EQ(mid.height_first, 0);
  EXPECT_EQ(mid.value_offset, t.coarse_cells_[0].value_bins);
  EXPECT_EQ(mid.height_offset, t.coarse_cells_[0].height_bins);
  EXPECT_EQ(t.coarse_cells_[2].value_offset, mid.value_offset);
}

// On a realistic map: offsets chain, every histogram is a distribution, and
// every stored value lies between ln 0.001 and ln 0.901.
TEST(LookUpTable, SyntheticMapTableIsConsistent) {
  auto map = zorvane::tools::makeSyntheticMap(160, 120, 5);
  map.matrix.runPreCalc();
  const GridMatrixTable t = map.matrix.getLookUpTable(4, 0.15f, 1.0f);
  ASSERT_EQ(t.grid_size_, t.coarse_cells_.size());
  std::uint64_t value_offset = 0, height_offset = 0;
  std::size_t stored = 0;
  for (const MCellCoarse& r : t.coarse_cells_) {
    ASSERT_EQ(r.value_offset, value_offset);
    ASSERT_EQ(r.height_offset, height_offset);
    for (auto [table, offset, n] : {std::make_tuple(&t.value_table_, r.value_offset, r.value_bins),
                                    std::make_tuple(&t.height_table_, r.height_offset, r.height_bins)}) {
      if (n == 0) continue;
      double mass = 0;
      for (int k = 0; k < n; ++k) {
        const float v = (*table)[offset + static_cast<std::uint32_t>(k)];
        ASSERT_GE(v, std::log(0.001f));
        ASSERT_LE(v, std::log(0.901f) + 1e-6f);
        mass += (std::exp(static_cast<double>(v)) - 0.001) / 0.9;
      }
      EXPECT_NEAR(mass, 1.0, 1e-4 * n);
      ++stored;
    }
    value_offset += r.value_bins;
    height_offset += r.height_bins;
  }
  EXPECT_EQ(value_offset, t.value_table_.size());
  EXPECT_EQ(height_offset, t.height_table_.size());
  EXPECT_GT(stored, t.grid_size_ / 2);
}

// ---------------------------------------------------------------------------
// Bit-for-bit agreement with the plain builder.

struct Case {
  GridMatrix matrix;
  int factor = 4;
  float height_step = 0.15f;
  float value_step = 1.0f;
};

// Small random matrices that wander through the corners of the contract:
// odd sizes, negative offsets, factors 1..8, unusual steps, empty and edge
// positions, cells out of position order, zero and very large spreads, zero
// weights, fractional and negative means; often sigmas from a small set, as
// in loaded maps, so that repeated spreads are common.
Case randomCase(std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  const auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
  const auto integer = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const auto chance = [&](double p) { return uniform(0, 1) < p; };

  Case c;
  c.factor = integer(1, 8);
  const float value_steps[] = {1.0f, 1.0f, 1.0f, 0.15f, 0.37f, 2.5f, 0.7f};
  const float height_steps[] = {0.15f, 0.15f, 0.05f, 0.4f, 1.0f, 0.23f};
  c.value_step = value_steps[integer(0, 6)];
  c.height_step = height_steps[integer(0, 5)];
  const int cols = chance(0.03) ? 0 : integer(1, 37);
  const int rows = chance(0.03) ? 0 : integer(1, 37);
  GridMatrix& m = c.matrix;
  m.manualInit(static_cast<float>(uniform(0.05, 1.0)), cols, rows, integer(-41, 41), integer(-41, 41));
  m.index_.assign(m.grid_size_, -1);

  const double occupancy = std::vector<double>{0.0, 0.1, 0.4, 0.8, 1.0}[static_cast<std::size_t>(integer(0, 4))];
  const bool small_sigma_set = chance(0.5);
  const auto quantised = [&](double lo, double hi) {  // 0.01 grid, like a loaded map
    return static_cast<float>(std::nearbyint(uniform(lo, hi) * 100.0) / 100.0);
  };
  const auto valueSigma = [&]() -> float {
    const double u = uniform(0, 1);
    if (u < 0.03) return 0.f;
    if (u < 0.07) return static_cast<float>(uniform(0.001, 0.05));
    if (u < 0.10) return static_cast<float>(uniform(30, 300));
    if (small_sigma_set) return std::vector<float>{1.5f, 2.f, 2.5f, 3.f, 3.07f, 4.2f, 8.f}[static_cast<std::size_t>(integer(0, 6))];
    return quantised(0.3, 20);
  };
  const auto valueMean = [&]() -> float {
    const double u = uniform(0, 1);
    if (u < 0.10) return static_cast<float>(uniform(-20, 280));
    if (u < 0.15) return static_cast<float>(integer(-30, -1));
    if (u < 0.20) return static_cast<float>(integer(256, 300));
    return static_cast<float>(integer(0, 255));
  };
  const auto heightSigma = [&]() -> float {
    const double u = uniform(0, 1);
    if (u < 0.03) return 0.f;
    if (u < 0.08) return static_cast<float>(uniform(0.0005, 0.01));
    if (u < 0.10) return static_cast<float>(uniform(1, 3));
    return quantised(0.01, 0.6);
  };
  const double ground = uniform(-20, 40);
  const auto heightMean = [&]() -> float {
    if (chance(0.1)) return static_cast<float>(uniform(-30, 60));
    if (chance(0.2)) return static_cast<float>(std::nearbyint((ground + uniform(-3, 3)) / c.height_step)) * c.height_step;
    return static_cast<float>(ground + uniform(-3, 3));
  };
  // Some weights so small that whole histograms live among subnormals.
  const auto weight = [&]() -> float {
    if (chance(0.05)) return 0.f;
    if (chance(0.04)) return static_cast<float>(uniform(1e-45, 1e-36));
    return static_cast<float>(uniform(0, 1));
  };

  std::vector<int> positions;
  for (int p = 0; p < static_cast<int>(m.grid_size_); ++p) {
    const int x = p % cols, y = p / cols;
    const bool edge = x == 0 || y == 0 || x == cols - 1 || y == rows - 1;
    if (chance(edge ? std::max(occupancy, 0.3) : occupancy)) positions.push_back(p);
  }
  std::shuffle(positions.begin(), positions.end(), rng);  // cells out of position order
  for (int p : positions) {
    MCell cell;
    for (int k = 0; k < 2; ++k) {
      cell.value_mean[k] = valueMean();
      cell.value_sigma[k] = valueSigma();
      cell.height_mean[k] = heightMean();
      cell.height_sigma[k] = heightSigma();
    }
    const float vw = weight(), hw = weight();
    cell.value_weight[0] = vw;
    cell.value_weight[1] = chance(0.7) ? 1.0f - vw : weight();
    cell.height_weight[0] = hw;
    cell.height_weight[1] = chance(0.7) ? 1.0f - hw : weight();
    m.index_[static_cast<std::size_t>(p)] = static_cast<std::int32_t>(m.cells_.size());
    m.cells_.push_back(cell);
  }
  m.runPreCalc();
  if (m.cells_.empty()) m.precalculated_ = true;  // prepared, but nothing in it
  return c;
}

TEST(LookUpTableExact, RandomMatricesMatchThePlainBuilder) {
  for (std::uint64_t seed = 1; seed <= 240; ++seed) {
    const Case c = randomCase(seed);
    const GridMatrixTable plain =
        withThreads(2, [&] { return plainLookUpTable(c.matrix, c.factor, c.height_step, c.value_step); });
    forEachSubnormalPath([&](const char* path) {
      for (int threads : {1, 2, 3, 7}) {
        const GridMatrixTable fast =
            withThreads(threads, [&] { return c.matrix.getLookUpTable(c.factor, c.height_step, c.value_step); });
        ASSERT_TRUE(sameTable(fast, plain)) << "seed " << seed << ", " << threads << " threads, factor "
                                            << c.factor << ", steps " << c.height_step << "/" << c.value_step
                                            << ", " << path;
      }
    });
    if (HasFatalFailure()) return;
  }
}

TEST(LookUpTableExact, SyntheticMapsMatchThePlainBuilder) {
  // Loaded-map numbers: whole-number value means, 0.01-step sigmas, so the
  // value axis runs almost entirely on repeated spreads.
  for (std::uint64_t seed : {2u, 7u}) {
    auto map = zorvane::tools::makeSyntheticMap(97, 83, seed);
    map.matrix.runPreCalc();
    for (int factor : {4, 3, 1}) {
      const GridMatrixTable plain = withThreads(2, [&] { return plainLookUpTable(map.matrix, factor, 0.15f, 1.0f); });
      forEachSubnormalPath([&](const char* path) {
        for (int threads : {1, 2, 3, 7}) {
          const GridMatrixTable fast =
              withThreads(threads, [&] { return map.matrix.getLookUpTable(factor, 0.15f, 1.0f); });
          ASSERT_TRUE(sameTable(fast, plain))
              << "seed " << seed << ", factor " << factor << ", " << threads << " threads, " << path;
        }
      });
      if (HasFatalFailure()) return;
    }
  }
}

// ---------------------------------------------------------------------------
// Decisions where the algorithm leaves a choice, and inputs outside the
// preconditions. Each must be bounded, defined and, where the plain builder
// can follow, identical to it.

TEST(LookUpTableEdges, WideHeightRangesAreClippedTo65535Bins) {
  // Raw height sigma 655.35 (the file's largest): prepared 2 s^2, a range of
  // millions of bins.
  GridMatrix m = emptyMatrix(2, 1, 0, 0);
  MCell wide = preparedCell(10.f, 4.f, 12.f, 2.f * 655.35f * 655.35f);
  putCell(m, 0, 0, wide);
  putCell(m, 1, 0, preparedCell(20.f, 4.f, 3.f, 0.02f));
  const GridMatrixTable t = m.getLookUpTable(2, 0.15f, 1.0f);
  ASSERT_EQ(t.grid_size_, 1u);
  const MCellCoarse& r = t.coarse_cells_[0];
  EXPECT_EQ(r.height_bins, 65535);
  EXPECT_EQ(t.height_table_.size(), 65535u);
  const float low = std::round((12.f - (wide.height_sigma[0] + wide.height_sigma[0])) / 0.15f);
  EXPECT_EQ(r.height_first, static_cast<std::int16_t>(static_cast<std::int64_t>(low) & 0xFFFF));
  EXPECT_TRUE(sameTable(t, plainLookUpTable(m, 2, 0.15f, 1.0f)));

  // Heights far above the sentinel: the range starts at bin 10000 and is
  // clipped there; nothing of the cell's mass falls in the stored bins.
  GridMatrix far = emptyMatrix(1, 1, 0, 0);
  putCell(far, 0, 0, preparedCell(10.f, 4.f, 30000.f, 0.5f));
  const GridMatrixTable ft = far.getLookUpTable(1, 0.15f, 1.0f);
  EXPECT_EQ(ft.coarse_cells_[0].height_first, 10000);
  EXPECT_EQ(ft.coarse_cells_[0].height_bins, 65535);
  EXPECT_TRUE(sameTable(ft, plainLookUpTable(far, 1, 0.15f, 1.0f)));

  // Far below: the range runs from the cell's bin (beyond 2^24 in
  // magnitude) up to the -10000 sentinel and keeps its first 65535 bins;
  // the record holds the low 16 bits of the first one.
  GridMatrix deep = emptyMatrix(1, 1, 0, 0);
  putCell(deep, 0, 0, preparedCell(10.f, 4.f, -2600000.5f, 0.f));
  const GridMatrixTable dt = deep.getLookUpTable(1, 0.15f, 1.0f);
  const auto first = static_cast<std::int64_t>(std::round(-2600000.5f / 0.15f));
  EXPECT_EQ(dt.coarse_cells_[0].height_first, static_cast<std::int16_t>(first & 0xFFFF));
  EXPECT_EQ(dt.coarse_cells_[0].height_bins, 65535);
  EXPECT_TRUE(sameTable(dt, plainLookUpTable(deep, 1, 0.15f, 1.0f)));
}

TEST(LookUpTableEdges, AllMassUnderflowingStoresTheFloor) {
  // A spread far narrower than a bin, mean half-way between two bins: every
  // bin's exponential underflows to 0, and 0 / 0 is replaced by the floor.
  GridMatrix m = emptyMatrix(1, 1, 0, 0);
  putCell(m, 0, 0, preparedCell(100.f, 2.f, 0.075f, 2e-6f));
  const GridMatrixTable t = m.getLookUpTable(1, 0.15f, 1.0f);
  ASSERT_EQ(t.coarse_cells_[0].height_bins, 2);
  EXPECT_EQ(bits(t.height_table_[0]), bits(std::log(0.001f)));
  EXPECT_EQ(bits(t.height_table_[1]), bits(std::log(0.001f)));
  EXPECT_TRUE(sameTable(t, plainLookUpTable(m, 1, 0.15f, 1.0f)));
}

TEST(LookUpTableEdges, NonFiniteCellsStayBoundedAndDefined) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  GridMatrix m = emptyMatrix(4, 3, -1, 2);
  // A map saved with the default +inf height origin.
  putCell(m, 0, 0, preparedCell(30.f, 4.f, inf, 0.5f));
  MCell mixed = preparedCell(40.f, 4.f, 1.f, 0.5f);
  mixed.height_mean[1] = -inf;
  mixed.value_mean[1] = nan;
  putCell(m, 1, 1, mixed);
  MCell odd = preparedCell(40.f, inf, 2.f, nan);
  odd.value_weight[0] = inf;
  putCell(m, 3, 2, odd);
  const GridMatrixTable plain = plainLookUpTable(m, 2, 0.15f, 1.0f);
  forEachSubnormalPath([&](const char* path) {
    for (int threads : {1, 3}) {
      const GridMatrixTable t = withThreads(threads, [&] { return m.getLookUpTable(2, 0.15f, 1.0f); });
      EXPECT_TRUE(sameTable(t, plain)) << path;
      for (const MCellCoarse& r : t.coarse_cells_) EXPECT_LE(r.height_bins, 65535);
    }
  });
  // The +inf cell alone: its range is [10000, INT32_MAX], clipped, and all
  // of its mass is 0, so the floor is stored.
  GridMatrix lone = emptyMatrix(1, 1, 0, 0);
  putCell(lone, 0, 0, preparedCell(30.f, 4.f, inf, 0.5f));
  const GridMatrixTable t = lone.getLookUpTable(1, 0.15f, 1.0f);
  EXPECT_EQ(t.coarse_cells_[0].height_first, 10000);
  EXPECT_EQ(t.coarse_cells_[0].height_bins, 65535);
  EXPECT_EQ(bits(t.height_table_[123]), bits(std::log(0.001f)));
}

TEST(LookUpTableEdges, ZeroSpreadsGiveNaNLikeThePlainArithmetic) {
  // Raw sigma 0: prepared sigma 0 and an infinite weight; every bin NaN.
  GridMatrix m = emptyMatrix(1, 1, 0, 0);
  MCell raw;
  raw.value_mean[0] = raw.value_mean[1] = 80.f;
  raw.value_sigma[0] = 0.f;
  raw.value_sigma[1] = 2.f;
  raw.value_weight[0] = raw.value_weight[1] = 0.5f;
  raw.height_sigma[0] = raw.height_sigma[1] = 0.1f;
  raw.height_weight[0] = raw.height_weight[1] = 0.5f;
  m.cells_.push_back(raw);
  m.index_[0] = 0;
  m.runPreCalc();
  forEachSubnormalPath([&](const char* path) {
    const GridMatrixTable t = m.getLookUpTable(1, 0.15f, 1.0f);
    ASSERT_GT(t.value_table_.size(), 0u);
    for (float v : t.value_table_) EXPECT_TRUE(std::isnan(v)) << path;
    EXPECT_TRUE(sameTable(t, plainLookUpTable(m, 1, 0.15f, 1.0f))) << path;
  });
}

TEST(LookUpTableEdges, ExtremeGeometryDoesNotOverflowOrAllocateWildly) {
  const MCell cell = preparedCell(60.f, 4.f, 1.f, 0.3f);
  // Offsets at the ends of the int32 range: block origins need 64 bits.
  for (int offset : {INT_MIN, INT_MAX, INT_MIN + 3}) {
    GridMatrix m = emptyMatrix(9, 5, offset, offset);
    putCell(m, 0, 0, cell);
    putCell(m, 8, 4, cell);
    const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
    EXPECT_TRUE(sameTable(t, plainLookUpTable(m, 4, 0.15f, 1.0f))) << offset;
  }
  GridMatrix m = emptyMatrix(9, 5, INT_MIN, 0);
  putCell(m, 0, 0, cell);
  const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
  EXPECT_EQ(t.offset_x_, INT_MIN / 4);
  EXPECT_GT(t.coarse_cells_[0].value_bins, 0);

  // Both extents negative: the 32-bit product would be a huge positive grid.
  GridMatrix negative;
  negative.manualInit(0.15f, -40000, -40000, 0, 0);
  negative.cells_.push_back(cell);
  negative.index_.assign(4, 0);
  negative.precalculated_ = true;
  const GridMatrixTable nt = negative.getLookUpTable(1, 0.15f, 1.0f);
  EXPECT_EQ(nt.grid_size_, 0u);
  EXPECT_TRUE(nt.coarse_cells_.empty());
  EXPECT_EQ(nt.cols_, -40000);

  // Factors below 1 store no bins; a huge factor visits only the matrix.
  GridMatrix small = emptyMatrix(6, 5, 0, 0);
  putCell(small, 2, 3, cell);
  putCell(small, 5, 0, preparedCell(90.f, 6.f, 4.f, 0.2f));
  for (int factor : {0, -1, -7, INT_MIN}) {
    const GridMatrixTable ft = small.getLookUpTable(factor, 0.15f, 1.0f);
    EXPECT_TRUE(ft.value_table_.empty()) << factor;
    EXPECT_TRUE(ft.height_table_.empty()) << factor;
    for (const MCellCoarse& r : ft.coarse_cells_) EXPECT_EQ(r.value_bins + r.height_bins, 0);
    if (factor >= -1) {
      EXPECT_TRUE(sameTable(ft, plainLookUpTable(small, factor, 0.15f, 1.0f))) << factor;
    }
  }
  const GridMatrixTable huge = small.getLookUpTable(INT_MAX, 0.15f, 1.0f);
  const GridMatrixTable whole = plainLookUpTable(small, 8, 0.15f, 1.0f);  // one block holds everything
  ASSERT_EQ(huge.grid_size_, 1u);
  EXPECT_EQ(std::memcmp(&huge.coarse_cells_[0], &whole.coarse_cells_[0], sizeof(MCellCoarse)), 0);
  EXPECT_EQ(huge.value_table_, whole.value_table_);
  EXPECT_EQ(huge.height_table_, whole.height_table_);
}

TEST(LookUpTableEdges, BrokenIndexEntriesAreEmptyPositions) {
  const Case c = randomCase(77);
  ASSERT_GT(c.matrix.cells_.size(), 10u);
  GridMatrix broken = c.matrix;
  GridMatrix cleaned = c.matrix;
  const std::int32_t n = static_cast<std::int32_t>(c.matrix.cells_.size());
  const std::int32_t bad[] = {n, n + 5, INT32_MAX, -2, INT32_MIN};
  int k = 0;
  for (std::size_t p = 0; p < broken.index_.size(); p += 3) {
    broken.index_[p] = bad[k++ % 5];
    cleaned.index_[p] = -1;
  }
  // A short index: the positions it does not reach are empty.
  broken.index_.resize(broken.index_.size() / 2);
  std::fill(cleaned.index_.begin() + static_cast<std::ptrdiff_t>(cleaned.index_.size() / 2), cleaned.index_.end(), -1);
  for (int threads : {1, 2}) {
    const GridMatrixTable t =
        withThreads(threads, [&] { return broken.getLookUpTable(c.factor, c.height_step, c.value_step); });
    EXPECT_TRUE(sameTable(t, cleaned.getLookUpTable(c.factor, c.height_step, c.value_step)));
    EXPECT_TRUE(sameTable(t, plainLookUpTable(cleaned, c.factor, c.height_step, c.value_step)));
  }
}

TEST(LookUpTableEdges, BadStepsStayBounded) {
  GridMatrix m = emptyMatrix(3, 2, 0, 0);
  putCell(m, 0, 0, preparedCell(60.f, 4.f, 1.f, 0.3f));
  putCell(m, 2, 1, preparedCell(61.f, 3.f, 2.f, 0.1f));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (float step : {0.f, -0.15f, nan, std::numeric_limits<float>::infinity(), 1e-30f}) {
    const GridMatrixTable plain = plainLookUpTable(m, 3, step, step);
    forEachSubnormalPath([&](const char* path) {
      const GridMatrixTable t = m.getLookUpTable(3, step, step);
      EXPECT_TRUE(sameTable(t, plain)) << step << ", " << path;
      EXPECT_LE(t.value_table_.size(), 256u);
      EXPECT_LE(t.height_table_.size(), 65535u);
    });
  }
}

}  // namespace
