// GridMapBase: the rules of the table cache. That a reload keeps the cached
// table, and that a missing level ends the process, are seen through the
// server (grid_map_server_test.cpp).
#include "localization/grid_map_base.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "localization/grid_map_lossy.h"
#include "tests/support/map_files.h"
#include "tools/reference/synthetic_map.h"

namespace zorvane {
namespace localization {
namespace {

using testing::sameTable;

// A prepared synthetic matrix, small enough for a quick table.
void loadSmallMap(GridMapBase* map, std::uint64_t seed) {
  GridMatrix& m = map->mutable_matrix();
  m = reference::makeSyntheticMap(24, 16, seed).matrix;
  m.runPreCalc();
  ASSERT_TRUE(m.precalculated_);
}

TEST(GridMapBaseCacheTest, GenerateBuildsWithTheMapsStepsOnce) {
  GridMapLossy map;
  loadSmallMap(&map, 5);
  map.height_step_ = 0.3f;
  map.value_step_ = 2.0f;
  const GridMatrixTable expected = map.matrix().getLookUpTable(4, 0.3f, 2.0f);
  ASSERT_FALSE(expected.value_table_.empty());
  map.generateMatrixTalbe(4);
  const GridMatrixTable& cached = map.matrixTable(4);
  EXPECT_TRUE(sameTable(cached, expected));
  const float* values = cached.value_table_.data();
  // A second call computes nothing: a changed matrix does not reach the table.
  loadSmallMap(&map, 6);
  map.generateMatrixTalbe(4);
  EXPECT_TRUE(&map.matrixTable(4) == &cached && &map.mutable_matrixable(4) == &cached);
  EXPECT_EQ(cached.value_table_.data(), values);
  EXPECT_TRUE(sameTable(cached, expected));
  EXPECT_EQ(map.matrix_tables_.size(), 1u);
}

TEST(GridMapBaseCacheTest, AnEmptyTableOnceCachedIsKept) {
  // Generated from an unprepared matrix.
  GridMapLossy map;
  map.generateMatrixTalbe(2);
  loadSmallMap(&map, 5);
  map.generateMatrixTalbe(2);
  EXPECT_TRUE(sameTable(map.matrixTable(2), GridMatrixTable()));
  // Inserted by mutable_matrixable and filled by the caller.
  GridMatrixTable& inserted = map.mutable_matrixable(4);
  EXPECT_TRUE(sameTable(inserted, GridMatrixTable()));
  inserted.cols_ = 77;
  map.generateMatrixTalbe(4);
  EXPECT_TRUE(&map.matrixTable(4) == &inserted && inserted.cols_ == 77 && inserted.coarse_cells_.empty());
  // Levels are independent entries.
  map.mutable_matrixable(9);
  map.generateMatrixTalbe(1);
  EXPECT_EQ(map.matrix_tables_.size(), 4u);
  EXPECT_FALSE(map.matrixTable(1).coarse_cells_.empty());
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
