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
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "localization/look_up_table_histogram.h"
#include "tests/support/plain_look_up_table.h"
#include "tests/support/synthetic_map.h"

namespace {

using namespace zorvane::localization;
using zorvane::testing::plainLookUpTable;
using zorvane::testing::makeSyntheticMap;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

std::uint32_t bits(float v) {
  std::uint32_t b = 0;
  std::memcpy(&b, &v, sizeof b);
  return b;
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

// Every field, every record and every float of both sequences, as bits
// (NaN sign and payload are not part of the result).
::testing::AssertionResult sameTable(const GridMatrixTable& a, const GridMatrixTable& b) {
  const auto fail = [](const std::string& what) { return ::testing::AssertionFailure() << what; };
  const auto fields = [](const GridMatrixTable& t) {
    return std::make_tuple(bits(t.resolution_), t.grid_size_, t.cols_, t.rows_, t.offset_x_, t.offset_y_,
                           bits(t.height_step_), bits(t.value_step_), bits(t.prob_scale_), bits(t.prob_floor_));
  };
  if (fields(a) != fields(b)) return fail("geometry, steps or probabilities");
  if (a.coarse_cells_.size() != b.coarse_cells_.size()) return fail("number of records");
  for (std::size_t p = 0; p < a.coarse_cells_.size(); ++p) {
    if (std::memcmp(&a.coarse_cells_[p], &b.coarse_cells_[p], sizeof(MCellCoarse)) != 0)
      return fail("record " + std::to_string(p));
  }
  for (const auto& [name, x, y] : {std::make_tuple("value_table_", &a.value_table_, &b.value_table_),
                                   std::make_tuple("height_table_", &a.height_table_, &b.height_table_)}) {
    if (x->size() != y->size()) return fail(std::string(name) + " size");
    for (std::size_t k = 0; k < x->size(); ++k) {
      if (!(std::isnan((*x)[k]) && std::isnan((*y)[k])) && bits((*x)[k]) != bits((*y)[k]))
        return fail(std::string(name) + "[" + std::to_string(k) + "]");
    }
  }
  return ::testing::AssertionSuccess();
}

// Builds the table and expects it to equal the plain builder's.
GridMatrixTable checked(const GridMatrix& m, int factor, float height_step = 0.15f, float value_step = 1.0f) {
  GridMatrixTable t = m.getLookUpTable(factor, height_step, value_step);
  EXPECT_TRUE(sameTable(t, plainLookUpTable(m, factor, height_step, value_step)))
      << "factor " << factor << ", steps " << height_step << "/" << value_step;
  return t;
}

// A matrix with the given geometry, every position empty.
GridMatrix emptyMatrix(int cols, int rows, int offset_x = 0, int offset_y = 0) {
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
  for (auto [field, v] : {std::pair<float*, float>{c.value_mean, value_mean}, {c.value_sigma, value_sigma},
                          {c.value_weight, 0.5f}, {c.height_mean, height_mean}, {c.height_sigma, height_sigma},
                          {c.height_weight, 0.5f}})
    field[0] = field[1] = v;
  return c;
}

// ---------------------------------------------------------------------------
// Worked cases.

TEST(LookUpTable, UnpreparedMatrixGivesTheEmptyTable) {
  auto map = makeSyntheticMap(40, 30, 3);
  for (int factor : {4, 0, -2}) {
    const GridMatrixTable t = map.matrix.getLookUpTable(factor, 0.15f, 1.0f);
    EXPECT_TRUE(sameTable(t, GridMatrixTable()));
    EXPECT_EQ(std::make_tuple(bits(t.resolution_), bits(t.prob_scale_), bits(t.prob_floor_), t.value_step_, t.height_step_),
              std::make_tuple(0x3e19999au, 0x3f666666u, 0x3a83126fu, 0.f, 0.f));
  }
}

TEST(LookUpTable, GeometryAndBlockCoverage) {
  GridMatrix m = emptyMatrix(10, 7, 5, -3);
  m.precalculated_ = true;
  const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
  EXPECT_EQ(std::make_tuple(t.cols_, t.rows_, t.grid_size_, t.offset_x_, t.offset_y_),
            std::make_tuple(3, 2, 6u, 1, -1));
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
      const int expected = x >= 1 && y >= 1 ? (y - 1) / 4 * 3 + (x - 1) / 4 : -1;
      for (int p = 0; p < 6; ++p) {
        const MCellCoarse& r = lone.coarse_cells_[p];
        EXPECT_EQ(std::make_pair(r.value_bins != 0, r.height_bins != 0), std::make_pair(p == expected, p == expected))
            << x << "," << y << " p " << p;
      }
    }
  }
}

TEST(LookUpTable, BinRangesOfSingleCells) {
  GridMatrix m = emptyMatrix(3, 3);
  putCell(m, 1, 1, preparedCell(100.f, 2.f, -0.2f, 0.05f));
  const GridMatrixTable t = m.getLookUpTable(4, 0.15f, 1.0f);
  ASSERT_EQ(t.grid_size_, 1u);
  const MCellCoarse& r = t.coarse_cells_[0];
  // Height: round((-0.2 -/+ 0.1) / 0.15) = -2 .. -1.
  EXPECT_EQ(std::make_tuple(r.value_first, r.value_bins, r.height_first, r.height_bins),
            std::make_tuple(96, 9, -2, 2));
  EXPECT_EQ(t.value_table_.size(), 9u);
  EXPECT_EQ(t.height_table_.size(), 2u);
  // Symmetric around the mean, peak at bin 100.
  EXPECT_EQ(bits(t.value_table_[0]), bits(t.value_table_[8]));
  EXPECT_GT(t.value_table_[4], t.value_table_[3]);

  // Value bins never go below 0; a height range straddling 0 keeps the low
  // 16 bits of its negative first bin.
  GridMatrix low = emptyMatrix(1, 1);
  putCell(low, 0, 0, preparedCell(2.f, 3.f, 0.f, 0.2f));
  const MCellCoarse lr = low.getLookUpTable(1, 0.15f, 1.0f).coarse_cells_[0];
  EXPECT_EQ(lr.value_first, 0);
  EXPECT_EQ(lr.value_bins, 9);  // bins 0 .. round(2 + 6)
  std::uint16_t raw = 0;
  std::memcpy(&raw, &lr.height_first, sizeof raw);
  EXPECT_EQ(raw, 0xFFFDu);  // round(-0.4 / 0.15) = -3
  EXPECT_EQ(lr.height_bins, 7);
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
// and subnormal weights, fractional and negative means; often sigmas from a
// small set, as in loaded maps, so that repeated spreads are common.
Case randomCase(std::uint64_t seed) {
  std::mt19937_64 rng(seed);
  const auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
  const auto integer = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  const auto chance = [&](double p) { return uniform(0, 1) < p; };
  const auto pick = [&](const std::vector<float>& v) { return v[static_cast<std::size_t>(integer(0, int(v.size()) - 1))]; };
  const auto real = [&](double lo, double hi) { return static_cast<float>(uniform(lo, hi)); };
  const auto quantised = [&](double lo, double hi) {  // 0.01 grid, like a loaded map
    return static_cast<float>(std::nearbyint(uniform(lo, hi) * 100.0) / 100.0);
  };

  Case c;
  c.factor = integer(1, 8);
  c.value_step = pick({1.0f, 1.0f, 1.0f, 0.15f, 0.37f, 2.5f, 0.7f});
  c.height_step = pick({0.15f, 0.15f, 0.05f, 0.4f, 1.0f, 0.23f});
  const int cols = chance(0.03) ? 0 : integer(1, 37);
  const int rows = chance(0.03) ? 0 : integer(1, 37);
  GridMatrix& m = c.matrix;
  m.manualInit(real(0.05, 1.0), cols, rows, integer(-41, 41), integer(-41, 41));
  m.index_.assign(m.grid_size_, -1);
  const double occupancy = pick({0.0f, 0.1f, 0.4f, 0.8f, 1.0f});
  const bool small_sigma_set = chance(0.5);
  const double ground = uniform(-20, 40);

  const auto valueSigma = [&]() -> float {
    const double u = uniform(0, 1);
    if (u < 0.03) return 0.f;
    if (u < 0.07) return real(0.001, 0.05);
    if (u < 0.10) return real(30, 300);
    return small_sigma_set ? pick({1.5f, 2.f, 2.5f, 3.f, 3.07f, 4.2f, 8.f}) : quantised(0.3, 20);
  };
  const auto valueMean = [&]() -> float {
    const double u = uniform(0, 1);
    return u < 0.10 ? real(-20, 280) : u < 0.15 ? integer(-30, -1) : u < 0.20 ? integer(256, 300) : integer(0, 255);
  };
  const auto heightSigma = [&]() -> float {
    const double u = uniform(0, 1);
    return u < 0.03 ? 0.f : u < 0.08 ? real(0.0005, 0.01) : u < 0.10 ? real(1, 3) : quantised(0.01, 0.6);
  };
  const auto heightMean = [&]() -> float {
    if (chance(0.1)) return real(-30, 60);
    const bool on_bin = chance(0.2);
    const double h = ground + uniform(-3, 3);
    return on_bin ? static_cast<float>(std::nearbyint(h / c.height_step)) * c.height_step : static_cast<float>(h);
  };
  // Some weights so small that whole histograms live among subnormals.
  const auto weight = [&]() -> float { return chance(0.05) ? 0.f : chance(0.04) ? real(1e-45, 1e-36) : real(0, 1); };

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
    for (float* w : {cell.value_weight, cell.height_weight}) {
      w[0] = weight();
      w[1] = chance(0.7) ? 1.0f - w[0] : weight();
    }
    m.index_[static_cast<std::size_t>(p)] = static_cast<std::int32_t>(m.cells_.size());
    m.cells_.push_back(cell);
  }
  m.runPreCalc();
  if (m.cells_.empty()) m.precalculated_ = true;  // prepared, but nothing in it
  return c;
}

TEST(LookUpTableExact, RandomAndSyntheticMatricesMatchThePlainBuilder) {
  std::vector<Case> cases;
  for (std::uint64_t seed = 1; seed <= 240; ++seed) cases.push_back(randomCase(seed));
  // Loaded-map numbers: whole-number value means, 0.01-step sigmas, so the
  // value axis runs almost entirely on repeated spreads.
  for (std::uint64_t seed : {2u, 7u}) {
    auto map = makeSyntheticMap(97, 83, seed);
    map.matrix.runPreCalc();
    for (int factor : {4, 3, 1}) cases.push_back({map.matrix, factor, 0.15f, 1.0f});
  }
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    const GridMatrixTable plain =
        withThreads(2, [&] { return plainLookUpTable(c.matrix, c.factor, c.height_step, c.value_step); });
    for (int threads : {1, 2, 3, 7}) {
      // The vector width of the memo runs: SSE with one thread, the
      // processor's widest otherwise.
      zorvane::localization::lut::useWideVectors(threads != 1);
      const GridMatrixTable fast =
          withThreads(threads, [&] { return c.matrix.getLookUpTable(c.factor, c.height_step, c.value_step); });
      ASSERT_TRUE(sameTable(fast, plain)) << "case " << i << " (seeds from 1, then synthetic), " << threads
                                          << " threads, factor " << c.factor << ", steps " << c.height_step
                                          << "/" << c.value_step;
    }
    zorvane::localization::lut::useWideVectors(true);
    if (HasFatalFailure()) return;
  }
}

// measureLookUpTable counts exactly what the builder then allocates; its
// work is the bins of each block times the block's cells, counted here by
// brute force over the built table's records.
TEST(LookUpTableExtent, MeasuredCountsEqualTheBuiltTable) {
  std::vector<Case> cases;
  for (std::uint64_t seed = 1; seed <= 60; ++seed) cases.push_back(randomCase(seed));
  auto map = makeSyntheticMap(97, 83, 5);
  map.matrix.runPreCalc();
  cases.push_back({map.matrix, 4, 0.15f, 1.0f});
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    const GridMatrixTable t = c.matrix.getLookUpTable(c.factor, c.height_step, c.value_step);
    std::uint64_t work = 0;
    for (std::int64_t j = 0; j < t.rows_ && t.grid_size_ > 0; ++j) {
      for (std::int64_t x = 0; x < t.cols_; ++x) {
        const MCellCoarse& r = t.coarse_cells_[static_cast<std::size_t>(j * t.cols_ + x)];
        // Cells of the block: grid positions of this coarse position.
        std::uint64_t cells = 0;
        for (std::int64_t a = 0; a < c.factor; ++a) {
          for (std::int64_t b = 0; b < c.factor; ++b) {
            const std::int64_t gx = (x - t.offset_x_) * c.factor + c.matrix.offset_x_ + a;
            const std::int64_t gy = (j - t.offset_y_) * c.factor + c.matrix.offset_y_ + b;
            if (gx < 0 || gy < 0 || gx >= c.matrix.cols_ || gy >= c.matrix.rows_) continue;
            const std::size_t flat = static_cast<std::size_t>(gy * c.matrix.cols_ + gx);
            if (flat < c.matrix.index_.size() && c.matrix.index_[flat] >= 0 &&
                static_cast<std::size_t>(c.matrix.index_[flat]) < c.matrix.cells_.size())
              ++cells;
          }
        }
        work += (static_cast<std::uint64_t>(r.value_bins) + r.height_bins) * cells;
      }
    }
    for (int threads : {1, 3}) {
      const LookUpTableExtent e =
          withThreads(threads, [&] { return measureLookUpTable(c.matrix, c.factor, c.height_step, c.value_step); });
      EXPECT_EQ(std::make_tuple(e.records, e.value_bins, e.height_bins, e.work),
                std::make_tuple(std::uint64_t{t.grid_size_}, std::uint64_t{t.value_table_.size()},
                                std::uint64_t{t.height_table_.size()}, work))
          << "case " << i << ", " << threads << " threads";
    }
  }
  // The budgeted builder offers the same extent, and builds the same table
  // when it is accepted; refused, it leaves the bins unallocated.
  for (std::size_t i = 0; i < cases.size(); i += 7) {
    const Case& c = cases[i];
    const LookUpTableExtent want = measureLookUpTable(c.matrix, c.factor, c.height_step, c.value_step);
    for (bool yes : {true, false}) {
      LookUpTableExtent offered;
      GridMatrixTable t;
      const bool built = buildLookUpTableWithin(
          c.matrix, c.factor, c.height_step, c.value_step,
          [&](const LookUpTableExtent& e) {
            offered = e;
            return yes;
          },
          &t);
      EXPECT_EQ(built, yes);
      EXPECT_EQ(std::make_tuple(offered.records, offered.value_bins, offered.height_bins, offered.work),
                std::make_tuple(want.records, want.value_bins, want.height_bins, want.work))
          << "case " << i;
      if (yes) {
        EXPECT_TRUE(sameTable(t, c.matrix.getLookUpTable(c.factor, c.height_step, c.value_step))) << "case " << i;
      } else {
        EXPECT_EQ(t.value_table_.capacity() + t.height_table_.capacity(), 0u) << "case " << i;
      }
    }
  }

  GridMatrix unprepared = map.matrix;
  unprepared.precalculated_ = false;
  const LookUpTableExtent none = measureLookUpTable(unprepared, 4, 0.15f, 1.0f);
  EXPECT_EQ(none.records + none.value_bins + none.height_bins + none.work, 0u);
}

// ---------------------------------------------------------------------------
// Our decisions where the arithmetic leaves a choice, and inputs outside the
// preconditions. Each must be bounded, defined and, where the plain builder
// can follow, identical to it.

TEST(LookUpTableEdges, WideHeightRangesAreClippedTo65535Bins) {
  // Raw height sigma 655.35 (the file's largest): prepared 2 s^2, a range of
  // millions of bins.
  GridMatrix m = emptyMatrix(2, 1);
  const float wide = 2.f * 655.35f * 655.35f;
  putCell(m, 0, 0, preparedCell(10.f, 4.f, 12.f, wide));
  putCell(m, 1, 0, preparedCell(20.f, 4.f, 3.f, 0.02f));
  const GridMatrixTable t = checked(m, 2);
  ASSERT_EQ(t.grid_size_, 1u);
  EXPECT_EQ(t.coarse_cells_[0].height_bins, 65535);
  EXPECT_EQ(t.height_table_.size(), 65535u);
  const float low = std::round((12.f - (wide + wide)) / 0.15f);
  EXPECT_EQ(t.coarse_cells_[0].height_first, static_cast<std::int16_t>(static_cast<std::int64_t>(low) & 0xFFFF));

  // Far above the sentinel the range starts at bin 10000 and is clipped
  // there (nothing of the cell's mass falls in the stored bins). Far below,
  // it runs from the cell's bin (beyond 2^24 in magnitude) up to the -10000
  // sentinel, keeps its first 65535 bins and the low 16 bits of the first.
  // The +inf height of a map saved with the default origin saturates, is
  // clipped likewise, and with all its mass 0 stores the floor.
  const auto deep = static_cast<std::int64_t>(std::round(-2600000.5f / 0.15f));
  for (const auto& [height, first] : {std::make_pair(30000.f, std::int16_t{10000}),
                                      std::make_pair(-2600000.5f, static_cast<std::int16_t>(deep & 0xFFFF)),
                                      std::make_pair(kInf, std::int16_t{10000})}) {
    SCOPED_TRACE(height);
    GridMatrix far = emptyMatrix(1, 1);
    putCell(far, 0, 0, preparedCell(10.f, 4.f, height, height == -2600000.5f ? 0.f : 0.5f));
    const GridMatrixTable ft = checked(far, 1);
    EXPECT_EQ(ft.coarse_cells_[0].height_first, first);
    EXPECT_EQ(ft.coarse_cells_[0].height_bins, 65535);
    if (height == kInf) {
      EXPECT_EQ(bits(ft.height_table_[123]), bits(std::log(0.001f)));
    }
  }
}

TEST(LookUpTableEdges, AllMassUnderflowingStoresTheFloor) {
  // A spread far narrower than a bin, mean half-way between two bins: every
  // bin's exponential underflows to 0, and 0 / 0 is replaced by the floor.
  GridMatrix m = emptyMatrix(1, 1);
  putCell(m, 0, 0, preparedCell(100.f, 2.f, 0.075f, 2e-6f));
  const GridMatrixTable t = checked(m, 1);
  ASSERT_EQ(t.coarse_cells_[0].height_bins, 2);
  for (float v : t.height_table_) EXPECT_EQ(bits(v), bits(std::log(0.001f)));
}

TEST(LookUpTableEdges, NonFiniteCellsAndZeroSpreadsFollowThePlainArithmetic) {
  GridMatrix m = emptyMatrix(4, 3, -1, 2);
  putCell(m, 0, 0, preparedCell(30.f, 4.f, kInf, 0.5f));
  MCell mixed = preparedCell(40.f, 4.f, 1.f, 0.5f);
  mixed.height_mean[1] = -kInf;
  mixed.value_mean[1] = kNaN;
  putCell(m, 1, 1, mixed);
  MCell odd = preparedCell(40.f, kInf, 2.f, kNaN);
  odd.value_weight[0] = kInf;
  putCell(m, 3, 2, odd);
  const GridMatrixTable plain = plainLookUpTable(m, 2, 0.15f, 1.0f);

  // Raw sigma 0: prepared sigma 0 and an infinite weight; every value bin NaN.
  GridMatrix zero = emptyMatrix(1, 1);
  MCell raw = preparedCell(80.f, 2.f, 0.f, 0.1f);  // raw numbers, prepared below
  raw.value_sigma[0] = 0.f;
  putCell(zero, 0, 0, raw);
  zero.precalculated_ = false;
  zero.runPreCalc();

  for (int threads : {1, 3}) {
    const GridMatrixTable t = withThreads(threads, [&] { return m.getLookUpTable(2, 0.15f, 1.0f); });
    EXPECT_TRUE(sameTable(t, plain));
    for (const MCellCoarse& r : t.coarse_cells_) EXPECT_LE(r.height_bins, 65535);
  }
  const GridMatrixTable z = checked(zero, 1);
  ASSERT_GT(z.value_table_.size(), 0u);
  for (float v : z.value_table_) EXPECT_TRUE(std::isnan(v));
}

TEST(LookUpTableEdges, ExtremeGeometryDoesNotOverflowOrAllocateWildly) {
  const MCell cell = preparedCell(60.f, 4.f, 1.f, 0.3f);
  // Offsets at the ends of the int32 range: block origins need 64 bits.
  for (int offset : {INT_MIN, INT_MAX, INT_MIN + 3}) {
    GridMatrix m = emptyMatrix(9, 5, offset, offset);
    putCell(m, 0, 0, cell);
    putCell(m, 8, 4, cell);
    checked(m, 4);
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
  GridMatrix small = emptyMatrix(6, 5);
  putCell(small, 2, 3, cell);
  putCell(small, 5, 0, preparedCell(90.f, 6.f, 4.f, 0.2f));
  for (int factor : {0, -1, -7, INT_MIN}) {
    const GridMatrixTable ft = factor >= -1 ? checked(small, factor) : small.getLookUpTable(factor, 0.15f, 1.0f);
    EXPECT_TRUE(ft.value_table_.empty() && ft.height_table_.empty()) << factor;
    for (const MCellCoarse& r : ft.coarse_cells_) EXPECT_EQ(r.value_bins + r.height_bins, 0);
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
  for (std::size_t p = 0; p < broken.index_.size(); p += 3) {
    broken.index_[p] = bad[p / 3 % 5];
    cleaned.index_[p] = -1;
  }
  // A short index: the positions it does not reach are empty.
  broken.index_.resize(broken.index_.size() / 2);
  std::fill(cleaned.index_.begin() + static_cast<std::ptrdiff_t>(broken.index_.size()), cleaned.index_.end(), -1);
  const GridMatrixTable want = checked(cleaned, c.factor, c.height_step, c.value_step);
  for (int threads : {1, 2}) {
    EXPECT_TRUE(sameTable(
        withThreads(threads, [&] { return broken.getLookUpTable(c.factor, c.height_step, c.value_step); }), want));
  }
}

TEST(LookUpTableEdges, BadStepsStayBounded) {
  GridMatrix m = emptyMatrix(3, 2);
  putCell(m, 0, 0, preparedCell(60.f, 4.f, 1.f, 0.3f));
  putCell(m, 2, 1, preparedCell(61.f, 3.f, 2.f, 0.1f));
  for (float step : {0.f, -0.15f, kNaN, kInf, 1e-30f}) {
    const GridMatrixTable t = checked(m, 3, step, step);
    EXPECT_LE(t.value_table_.size(), 256u);
    EXPECT_LE(t.height_table_.size(), 65535u);
  }
}

}  // namespace
