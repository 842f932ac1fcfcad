// GridMatrix::getLookUpTable: the worked cases of its contract, bit-for-bit
// agreement with the plain reference builder on many random matrices and
// thread counts, and the decisions for inputs outside the preconditions.
#include "localization/look_up_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "localization/look_up_table_exact.h"
#include "localization/look_up_table_histogram.h"
#include "tools/reference/plain_look_up_table.h"
#include "tools/reference/synthetic_map.h"
#include "tests/support/map_files.h"
#include "tests/support/team_size.h"

namespace {

using namespace zorvane::localization;
using zorvane::reference::plainLookUpTable;
using zorvane::reference::makeSyntheticMap;
using lut::bitsOf;
using zorvane::testing::sameTable;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Runs fn with the default OpenMP team set to `threads`.
template <class Fn>
auto withThreads(int threads, Fn&& fn) {
  zorvane::testing::ScopedTeamSize team(threads);
  return fn();
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

TEST(LookUpTable, UnpreparedMatrixGivesTheEmptyTable) {
  const auto map = makeSyntheticMap(40, 30, 3);
  for (int factor : {4, 0, -2}) {
    EXPECT_TRUE(sameTable(map.matrix.getLookUpTable(factor, 0.15f, 1.0f), GridMatrixTable()));
  }
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
      // The vector forms: SSE rows and plain exponentials with one thread,
      // AVX2 with two (where the processor has wider ones too), the
      // processor's widest otherwise.
      using zorvane::localization::lut::VectorMath;
      zorvane::localization::lut::useVectorForms(threads == 1   ? VectorMath::kPlain
                                                 : threads == 2 ? VectorMath::kAvx2
                                                                : zorvane::localization::lut::widestVectorMath());
      const GridMatrixTable fast =
          withThreads(threads, [&] { return c.matrix.getLookUpTable(c.factor, c.height_step, c.value_step); });
      ASSERT_TRUE(sameTable(fast, plain)) << "case " << i << " (seeds from 1, then synthetic), " << threads
                                          << " threads, factor " << c.factor << ", steps " << c.height_step
                                          << "/" << c.value_step;
    }
    zorvane::localization::lut::useVectorForms(zorvane::localization::lut::widestVectorMath());
    if (HasFatalFailure()) return;
  }
}

// measureLookUpTable counts exactly what the builder then allocates; its
// work is the bins of each block times the block's cells, counted here by
// brute force over the built table's records. The budgeted builder offers
// that extent, and builds the same table when it is accepted; refused, it
// leaves the bins unallocated.
TEST(LookUpTableExtent, MeasuredCountsEqualTheBuiltTable) {
  std::vector<Case> cases;
  for (std::uint64_t seed = 1; seed <= 60; ++seed) cases.push_back(randomCase(seed));
  auto map = makeSyntheticMap(97, 83, 5);
  map.matrix.runPreCalc();
  cases.push_back({map.matrix, 4, 0.15f, 1.0f});
  const auto counts = [](const LookUpTableExtent& e) { return std::make_tuple(e.records, e.value_bins, e.height_bins, e.work); };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    const GridMatrix& m = c.matrix;
    const GridMatrixTable t = m.getLookUpTable(c.factor, c.height_step, c.value_step);
    std::uint64_t work = 0;
    for (std::int64_t p = 0; p < static_cast<std::int64_t>(m.index_.size()) && t.grid_size_ > 0; ++p) {
      const std::int32_t e = m.index_[static_cast<std::size_t>(p)];
      if (e < 0 || static_cast<std::size_t>(e) >= m.cells_.size()) continue;
      const auto block = [&](std::int64_t v, int offset, std::int64_t table_offset) {
        return static_cast<std::int64_t>(std::floor(static_cast<double>(v - offset) / c.factor)) + table_offset;
      };
      const std::int64_t x = block(p % m.cols_, m.offset_x_, t.offset_x_), y = block(p / m.cols_, m.offset_y_, t.offset_y_);
      if (x < 0 || y < 0 || x >= t.cols_ || y >= t.rows_) continue;
      const MCellCoarse& r = t.coarse_cells_[static_cast<std::size_t>(y * t.cols_ + x)];
      work += static_cast<std::uint64_t>(r.value_bins) + r.height_bins;
    }
    const auto want = std::make_tuple(std::uint64_t{t.grid_size_}, std::uint64_t{t.value_table_.size()},
                                      std::uint64_t{t.height_table_.size()}, work);
    for (int threads : {1, 3}) {
      EXPECT_EQ(counts(withThreads(threads, [&] { return measureLookUpTable(m, c.factor, c.height_step, c.value_step); })),
                want)
          << "case " << i << ", " << threads << " threads";
    }
    for (bool yes : {true, false}) {
      if (i % 7 != 0) break;
      LookUpTableExtent offered;
      GridMatrixTable built;
      const auto decide = [&](const LookUpTableExtent& e) { return offered = e, yes; };
      EXPECT_EQ(buildLookUpTableWithin(m, c.factor, c.height_step, c.value_step, decide, &built), yes);
      EXPECT_EQ(counts(offered), want) << "case " << i;
      EXPECT_TRUE(yes ? bool(sameTable(built, t)) : built.value_table_.capacity() + built.height_table_.capacity() == 0)
          << "case " << i;
    }
  }
  GridMatrix unprepared = map.matrix;
  unprepared.precalculated_ = false;
  EXPECT_EQ(counts(measureLookUpTable(unprepared, 4, 0.15f, 1.0f)), counts(LookUpTableExtent()));
}

// ---------------------------------------------------------------------------
// Our decisions where the arithmetic leaves a choice, and inputs outside the
// preconditions: bounded, defined and, on any thread count, the plain
// builder's table; each row also checks the decision itself.

GridMatrix oneCell(const MCell& cell) {
  GridMatrix m = emptyMatrix(1, 1);
  putCell(m, 0, 0, cell);
  return m;
}

TEST(LookUpTableEdges, OddMatricesMatchThePlainBuilderAndStayBounded) {
  using Check = std::function<void(const GridMatrixTable&)>;
  const float log_floor = std::log(0.001f);
  const auto every = [](const auto& v, auto pred) {
    return !v.empty() && std::all_of(v.begin(), v.end(), pred);
  };
  const auto firstHeight = [](std::int16_t first) {
    return [first](const GridMatrixTable& t) {
      EXPECT_EQ(t.coarse_cells_[0].height_first, first);
      EXPECT_EQ(t.coarse_cells_[0].height_bins, 65535);
    };
  };
  // Raw height sigma 655.35 (the file's largest): a range of millions of
  // bins, clipped to 65535 keeping the low 16 bits of its first bin.
  const float wide = 2.f * 655.35f * 655.35f;
  GridMatrix clipped = emptyMatrix(2, 1);
  putCell(clipped, 0, 0, preparedCell(10.f, 4.f, 12.f, wide));
  putCell(clipped, 1, 0, preparedCell(20.f, 4.f, 3.f, 0.02f));
  const auto low = static_cast<std::int64_t>(std::round((12.f - (wide + wide)) / 0.15f));
  const auto deep = static_cast<std::int64_t>(std::round(-2600000.5f / 0.15f));

  GridMatrix non_finite = emptyMatrix(4, 3, -1, 2);
  putCell(non_finite, 0, 0, preparedCell(30.f, 4.f, kInf, 0.5f));
  MCell mixed = preparedCell(40.f, 4.f, 1.f, 0.5f);
  mixed.height_mean[1] = -kInf;
  mixed.value_mean[1] = kNaN;
  putCell(non_finite, 1, 1, mixed);
  MCell odd = preparedCell(40.f, kInf, 2.f, kNaN);
  odd.value_weight[0] = kInf;
  putCell(non_finite, 3, 2, odd);

  // Raw sigma 0: prepared sigma 0 and an infinite weight.
  MCell raw = preparedCell(80.f, 2.f, 0.f, 0.1f);
  raw.value_sigma[0] = 0.f;
  GridMatrix zero_sigma = oneCell(raw);
  zero_sigma.precalculated_ = false;
  zero_sigma.runPreCalc();

  GridMatrix small = emptyMatrix(6, 5);
  putCell(small, 2, 3, preparedCell(60.f, 4.f, 1.f, 0.3f));
  putCell(small, 5, 0, preparedCell(90.f, 6.f, 4.f, 0.2f));
  const Check no_bins = [](const GridMatrixTable& t) {
    EXPECT_TRUE(t.value_table_.empty() && t.height_table_.empty());
  };

  // Index entries that name no cell, and a short index, are empty positions.
  const Case r = randomCase(77);
  ASSERT_GT(r.matrix.cells_.size(), 10u);
  GridMatrix broken = r.matrix, cleaned = r.matrix;
  const std::int32_t n = static_cast<std::int32_t>(r.matrix.cells_.size());
  const std::int32_t bad[] = {n, n + 5, INT32_MAX, -2, INT32_MIN};
  for (std::size_t p = 0; p < broken.index_.size(); p += 3) {
    broken.index_[p] = bad[p / 3 % 5];
    cleaned.index_[p] = -1;
  }
  broken.index_.resize(broken.index_.size() / 2);
  std::fill(cleaned.index_.begin() + static_cast<std::ptrdiff_t>(broken.index_.size()), cleaned.index_.end(), -1);

  struct Edge {
    std::string what;
    GridMatrix m;
    int factor;
    float height_step = 0.15f, value_step = 1.0f;
    Check check = [](const GridMatrixTable&) {};
  };
  std::vector<Edge> edges = {
      {"wide height range", clipped, 2, 0.15f, 1.0f, firstHeight(static_cast<std::int16_t>(low & 0xFFFF))},
      // Far above the sentinel the range starts at bin 10000; far below it
      // runs from the cell's bin (beyond 2^24) up to the -10000 sentinel.
      {"far above", oneCell(preparedCell(10.f, 4.f, 30000.f, 0.5f)), 1, 0.15f, 1.0f, firstHeight(10000)},
      {"far below", oneCell(preparedCell(10.f, 4.f, -2600000.5f, 0.f)), 1, 0.15f, 1.0f,
       firstHeight(static_cast<std::int16_t>(deep & 0xFFFF))},
      // The +inf height of a map saved with the default origin: clipped, and
      // with all its mass 0 it stores the floor.
      {"infinite height", oneCell(preparedCell(10.f, 4.f, kInf, 0.5f)), 1, 0.15f, 1.0f,
       [&](const GridMatrixTable& t) {
         firstHeight(10000)(t);
         EXPECT_EQ(bitsOf(t.height_table_[123]), bitsOf(log_floor));
       }},
      // A spread far narrower than a bin, mean half-way between two bins:
      // every exponential underflows, and 0 / 0 is replaced by the floor.
      {"all mass underflowing", oneCell(preparedCell(100.f, 2.f, 0.075f, 2e-6f)), 1, 0.15f, 1.0f,
       [&](const GridMatrixTable& t) {
         EXPECT_TRUE(every(t.height_table_, [&](float v) { return bitsOf(v) == bitsOf(log_floor); }));
       }},
      {"non-finite cells", non_finite, 2},
      {"zero sigma", zero_sigma, 1, 0.15f, 1.0f,
       [&](const GridMatrixTable& t) { EXPECT_TRUE(every(t.value_table_, [](float v) { return std::isnan(v); })); }},
      {"factor 0", small, 0, 0.15f, 1.0f, no_bins},
      {"factor -1", small, -1, 0.15f, 1.0f, no_bins},
      {"broken index", broken, r.factor, r.height_step, r.value_step,
       [&](const GridMatrixTable& t) {
         EXPECT_TRUE(sameTable(t, cleaned.getLookUpTable(r.factor, r.height_step, r.value_step)));
       }},
  };
  for (float step : {0.f, -0.15f, kNaN, kInf, 1e-30f}) {
    edges.push_back({"step " + std::to_string(step), small, 3, step, step});
  }
  // Offsets at the ends of the int32 range: block origins need 64 bits.
  for (int offset : {INT_MIN, INT_MAX, INT_MIN + 3}) {
    GridMatrix m = emptyMatrix(9, 5, offset, offset);
    putCell(m, 0, 0, preparedCell(60.f, 4.f, 1.f, 0.3f));
    putCell(m, 8, 4, preparedCell(60.f, 4.f, 1.f, 0.3f));
    edges.push_back({"offset " + std::to_string(offset), m, 4});
  }
  for (const Edge& e : edges) {
    SCOPED_TRACE(e.what);
    const GridMatrixTable plain = plainLookUpTable(e.m, e.factor, e.height_step, e.value_step);
    for (int threads : {1, 3}) {
      const GridMatrixTable t =
          withThreads(threads, [&] { return e.m.getLookUpTable(e.factor, e.height_step, e.value_step); });
      EXPECT_TRUE(sameTable(t, plain)) << threads << " threads";
      for (const MCellCoarse& c : t.coarse_cells_) EXPECT_TRUE(c.value_bins <= 256 && c.height_bins <= 65535);
    }
    e.check(plain);
  }
}

TEST(LookUpTableEdges, ExtremeGeometryDoesNotOverflowOrAllocateWildly) {
  const MCell cell = preparedCell(60.f, 4.f, 1.f, 0.3f);
  // Both extents negative: the 32-bit product would be a huge positive grid.
  GridMatrix negative;
  negative.manualInit(0.15f, -40000, -40000, 0, 0);
  negative.cells_.push_back(cell);
  negative.index_.assign(4, 0);
  negative.precalculated_ = true;
  const GridMatrixTable nt = negative.getLookUpTable(1, 0.15f, 1.0f);
  EXPECT_EQ(std::make_tuple(nt.grid_size_, nt.coarse_cells_.size(), nt.cols_),
            std::make_tuple(0u, std::size_t{0}, -40000));

  // The most negative factor stores no bins; the largest visits only the
  // matrix, in one block.
  GridMatrix small = emptyMatrix(6, 5);
  putCell(small, 2, 3, cell);
  putCell(small, 5, 0, preparedCell(90.f, 6.f, 4.f, 0.2f));
  const GridMatrixTable none = small.getLookUpTable(INT_MIN, 0.15f, 1.0f);
  EXPECT_TRUE(none.value_table_.empty() && none.height_table_.empty());
  const GridMatrixTable huge = small.getLookUpTable(INT_MAX, 0.15f, 1.0f);
  const GridMatrixTable whole = plainLookUpTable(small, 8, 0.15f, 1.0f);
  ASSERT_EQ(huge.grid_size_, 1u);
  EXPECT_EQ(std::memcmp(&huge.coarse_cells_[0], &whole.coarse_cells_[0], sizeof(MCellCoarse)), 0);
  EXPECT_EQ(huge.value_table_, whole.value_table_);
  EXPECT_EQ(huge.height_table_, whole.height_table_);
}

}  // namespace
