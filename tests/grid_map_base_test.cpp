// GridMapBase: initial values to the bit, and the rules of the table cache,
// including the end of the process on a missing level.
#include "localization/grid_map_base.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "localization/grid_map_lossy.h"
#include "tests/support/map_files.h"
#include "tools/mapgen/synthetic_map.h"

namespace zorvane {
namespace localization {
namespace {

std::uint32_t bits(float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

std::uint64_t bits(double d) {
  std::uint64_t u;
  std::memcpy(&u, &d, sizeof u);
  return u;
}

// A prepared synthetic matrix, small enough for a quick table.
void loadSmallMap(GridMapBase* map, std::uint64_t seed) {
  GridMatrix& m = map->mutable_matrix();
  m = tools::makeSyntheticMap(24, 16, seed).matrix;
  ASSERT_FALSE(m.cells_.empty());
  m.runPreCalc();
}

// memcmp of two arrays of n bytes; empty arrays may have no storage.
bool sameBytes(const void* a, const void* b, std::size_t n) {
  return n == 0 || std::memcmp(a, b, n) == 0;
}

bool sameTable(const GridMatrixTable& a, const GridMatrixTable& b) {
  return a.grid_size_ == b.grid_size_ && a.cols_ == b.cols_ && a.rows_ == b.rows_ &&
         a.offset_x_ == b.offset_x_ && a.offset_y_ == b.offset_y_ &&
         bits(a.resolution_) == bits(b.resolution_) && bits(a.height_step_) == bits(b.height_step_) &&
         bits(a.value_step_) == bits(b.value_step_) && a.value_table_.size() == b.value_table_.size() &&
         sameBytes(a.value_table_.data(), b.value_table_.data(), a.value_table_.size() * 4) &&
         a.height_table_.size() == b.height_table_.size() &&
         sameBytes(a.height_table_.data(), b.height_table_.data(), a.height_table_.size() * 4) &&
         a.coarse_cells_.size() == b.coarse_cells_.size() &&
         sameBytes(a.coarse_cells_.data(), b.coarse_cells_.data(), a.coarse_cells_.size() * 16);
}

TEST(GridMapBaseTest, ConstructsWithTheInitialValuesToTheBit) {
  GridMapLossy map;
  const GridMapBase& base = map;
  EXPECT_EQ(bits(base.value_step_), bits(1.0f));
  EXPECT_EQ(bits(base.height_step_), 0x3e19999au);
  EXPECT_EQ(base.header_tag_, 0u);
  EXPECT_EQ(base.body_size_, 0u);
  EXPECT_EQ(bits(base.height_base_), 0x7f800000u);
  EXPECT_EQ(bits(base.aux_value_base_), 0x7f800000u);
  for (double r : base.reference_) EXPECT_EQ(bits(r), 0x7ff0000000000000ull);
  EXPECT_TRUE(base.matrix_tables_.empty());
  EXPECT_EQ(&base.matrix(), &map.mutable_matrix());
  EXPECT_EQ(base.matrix().grid_size_, 0u);
  EXPECT_TRUE(base.matrix().index_.empty());
}

TEST(GridMapBaseCacheTest, GenerateBuildsWithTheMapsStepsOnce) {
  GridMapLossy map;
  loadSmallMap(&map, 5);
  map.height_step_ = 0.3f;
  map.value_step_ = 2.0f;
  const GridMatrixTable expected = map.matrix().getLookUpTable(4, 0.3f, 2.0f);
  ASSERT_FALSE(expected.value_table_.empty());

  map.generateMatrixTalbe(4);
  ASSERT_EQ(map.matrix_tables_.count(4u), 1u);
  const GridMatrixTable& cached = map.matrixTable(4);
  EXPECT_TRUE(sameTable(cached, expected));
  const float* values = cached.value_table_.data();

  // A second call computes nothing: even a changed matrix does not reach
  // the cached table.
  loadSmallMap(&map, 6);
  map.generateMatrixTalbe(4);
  EXPECT_EQ(&map.matrixTable(4), &cached);
  EXPECT_EQ(cached.value_table_.data(), values);
  EXPECT_TRUE(sameTable(cached, expected));
  EXPECT_EQ(&map.mutable_matrixable(4), &cached);
  EXPECT_EQ(map.matrix_tables_.size(), 1u);
}

TEST(GridMapBaseCacheTest, UnpreparedMatrixCachesTheEmptyTableForGood) {
  GridMapLossy map;
  map.generateMatrixTalbe(2);
  ASSERT_EQ(map.matrix_tables_.size(), 1u);
  EXPECT_EQ(map.matrixTable(2).grid_size_, 0u);
  EXPECT_TRUE(map.matrixTable(2).coarse_cells_.empty());
  loadSmallMap(&map, 5);
  map.generateMatrixTalbe(2);
  EXPECT_TRUE(map.matrixTable(2).coarse_cells_.empty());
}

TEST(GridMapBaseCacheTest, MutableMatrixableInsertsAnEmptyTableThatGenerateKeeps) {
  GridMapLossy map;
  loadSmallMap(&map, 5);
  GridMatrixTable& inserted = map.mutable_matrixable(4);
  EXPECT_TRUE(sameTable(inserted, GridMatrixTable()));
  inserted.cols_ = 77;  // a caller fills its own table
  map.generateMatrixTalbe(4);
  EXPECT_EQ(&map.matrixTable(4), &inserted);
  EXPECT_EQ(map.matrixTable(4).cols_, 77);
  EXPECT_TRUE(map.matrixTable(4).coarse_cells_.empty());
  // Levels are independent entries, ordered by level.
  map.mutable_matrixable(9);
  map.generateMatrixTalbe(1);
  EXPECT_EQ(map.matrix_tables_.size(), 3u);
  EXPECT_EQ(map.matrix_tables_.begin()->first, 1u);
  EXPECT_EQ(&map.mutable_matrixable(4), &inserted);
}

TEST(GridMapBaseCacheTest, ReloadingTheMapKeepsTheCachedTable) {
  const std::string path = testing::tempMapPath("reload.zvmap");
  GridMapLossy writer;
  tools::SyntheticMap synthetic = tools::makeSyntheticMap(30, 20, 1);
  writer.height_base_ = synthetic.height_base;
  writer.aux_value_base_ = synthetic.aux_value_base;
  writer.mutable_matrix() = synthetic.matrix;
  std::string out;
  ASSERT_TRUE(testing::saveCapturing(writer, path, &out));

  GridMapLossy map;
  loadSmallMap(&map, 5);
  map.generateMatrixTalbe(4);
  const GridMatrixTable before = map.matrixTable(4);
  ASSERT_TRUE(testing::readCapturing(map, path, &out));
  EXPECT_EQ(map.matrix().cols_, 30);
  EXPECT_EQ(map.matrix().cells_.size(), synthetic.matrix.cells_.size());
  EXPECT_TRUE(sameTable(map.matrixTable(4), before));
}

class GridMapBaseDeathTest : public ::testing::Test {
 protected:
  // The library's OpenMP regions leave worker threads behind; a forked
  // child must re-execute instead of inheriting them.
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(GridMapBaseDeathTest, MissingLevelWritesMapAtAndExitsWith255) {
  GridMapLossy map;
  loadSmallMap(&map, 5);
  map.generateMatrixTalbe(4);
  EXPECT_EXIT(map.matrixTable(2), ::testing::ExitedWithCode(255), "^map::at\n$");
  const GridMapLossy empty;
  EXPECT_EXIT(empty.matrixTable(0), ::testing::ExitedWithCode(255), "^map::at\n$");
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
