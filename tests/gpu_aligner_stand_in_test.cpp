// The gpu_aligner stand-in: it must record faithfully what it receives and
// judge it as a real matcher would, without crashing on bad input that it
// can detect without reading.
#include "gpu_aligner/stand_in_record.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

namespace loc = zorvane::localization;
namespace stand_in = zorvane::gpu_stand_in;
using loc::MatrixConfig;
using loc::MCell;
using loc::MCellCoarse;

MatrixConfig config(std::int32_t cols, std::int32_t rows) {
  MatrixConfig c;
  c.resolution = 0.6f;
  c.cols = cols;
  c.rows = rows;
  c.grid_size = static_cast<std::uint32_t>(cols * rows);
  c.offset_x = -3;
  c.offset_y = 7;
  return c;
}

MCellCoarse coarse(std::uint16_t value_bins, std::uint32_t value_offset,
                   std::uint16_t height_bins, std::uint32_t height_offset) {
  MCellCoarse c;
  c.value_bins = value_bins;
  c.value_first = -1;
  c.value_offset = value_offset;
  c.height_bins = height_bins;
  c.height_first = 2;
  c.height_offset = height_offset;
  return c;
}

bool sameConfig(const MatrixConfig& a, const MatrixConfig& b) {
  return std::memcmp(&a, &b, sizeof(MatrixConfig)) == 0;
}

class StandIn : public testing::Test {
 protected:
  void SetUp() override { stand_in::resetRecord(); }
  void TearDown() override { stand_in::resetRecord(); }
  const stand_in::Record& rec() { return stand_in::record(); }
};

TEST_F(StandIn, RecordsACorrectUploadAndJudgesItConsistent) {
  std::vector<MCell> cells(2);
  cells[0].value_mean[0] = 11.f;
  cells[1].height_mean[1] = -4.5f;
  const std::vector<int> index = {-1, 1, 0, -1, -1, -1};
  const std::vector<float> heights = {-1.f, -2.f, -3.f};
  const std::vector<float> values = {-5.f, -6.f};
  const std::vector<MCellCoarse> records = {coarse(2, 0, 3, 0), coarse(0, 2, 0, 3)};

  loc::cudaSetMatrixConfig(config(3, 2));
  loc::cudaSetMatrixCells(cells.data(), 2, index.data(), 6);
  loc::cudaSetMatrixConfigCoarse(config(2, 1));
  loc::cudaSetMatrixCellsCoarse(heights.data(), 3, values.data(), 2, records.data());

  EXPECT_EQ(rec().callNames(),
            (std::vector<std::string>{"cudaSetMatrixConfig", "cudaSetMatrixCells",
                                      "cudaSetMatrixConfigCoarse", "cudaSetMatrixCellsCoarse"}));
  for (std::size_t i = 1; i < rec().calls.size(); ++i) {
    EXPECT_LE(rec().calls[i - 1].at, rec().calls[i].at);
  }
  ASSERT_EQ(rec().configs.size(), 1u);
  EXPECT_TRUE(sameConfig(rec().configs[0], config(3, 2)));
  ASSERT_EQ(rec().coarse_configs.size(), 1u);
  EXPECT_TRUE(sameConfig(rec().coarse_configs[0], config(2, 1)));

  EXPECT_EQ(rec().cells_at, cells.data());
  EXPECT_EQ(rec().index_at, index.data());
  EXPECT_EQ(rec().cell_count, 2);
  EXPECT_EQ(rec().index_count, 6);
  ASSERT_EQ(rec().cells.size(), 2u);
  EXPECT_EQ(std::memcmp(rec().cells.data(), cells.data(), 2 * sizeof(MCell)), 0);
  EXPECT_EQ(rec().index, index);

  EXPECT_EQ(rec().height_table_at, heights.data());
  EXPECT_EQ(rec().value_table_at, values.data());
  EXPECT_EQ(rec().coarse_cells_at, records.data());
  EXPECT_EQ(rec().height_table, heights);
  EXPECT_EQ(rec().value_table, values);
  ASSERT_EQ(rec().coarse_cells.size(), 2u);
  EXPECT_EQ(std::memcmp(rec().coarse_cells.data(), records.data(), 2 * sizeof(MCellCoarse)), 0);

  EXPECT_TRUE(rec().verdict.consistent());
  EXPECT_TRUE(rec().verdict.problems.empty());

  stand_in::resetRecord();
  EXPECT_TRUE(rec().calls.empty());
  EXPECT_TRUE(rec().configs.empty());
  EXPECT_TRUE(rec().index.empty());
  EXPECT_EQ(rec().index_at, nullptr);
}

TEST_F(StandIn, CopiesTheArraysInsteadOfKeepingThem) {
  std::vector<MCell> cells(1);
  std::vector<int> index = {0};
  loc::cudaSetMatrixConfig(config(1, 1));
  loc::cudaSetMatrixCells(cells.data(), 1, index.data(), 1);
  cells[0].aux_value = 9.f;
  index[0] = -1;
  EXPECT_EQ(rec().cells[0].aux_value, 0.f);
  EXPECT_EQ(rec().index[0], 0);
}

TEST_F(StandIn, IndexCountMustMatchTheLastConfiguration) {
  const std::vector<int> index(6, -1);
  loc::cudaSetMatrixCells(nullptr, 0, index.data(), 6);  // no configuration yet
  EXPECT_FALSE(rec().verdict.index_count_matches);
  EXPECT_EQ(rec().index.size(), 6u);

  stand_in::resetRecord();
  loc::cudaSetMatrixConfig(config(3, 2));
  loc::cudaSetMatrixConfig(config(2, 2));  // the later geometry is the one that counts
  loc::cudaSetMatrixCells(nullptr, 0, index.data(), 6);
  EXPECT_FALSE(rec().verdict.index_count_matches);
  EXPECT_TRUE(rec().verdict.index_entries_valid);
  EXPECT_TRUE(rec().verdict.coarse_bins_inside);
  ASSERT_EQ(rec().verdict.problems.size(), 1u);
  EXPECT_NE(rec().verdict.problems[0].find("grid_size 4"), std::string::npos);
}

TEST_F(StandIn, IndexEntriesMustBeMinusOneOrACellNumber) {
  std::vector<MCell> cells(2);
  for (int bad : {2, -2, 1 << 30}) {
    SCOPED_TRACE(bad);
    stand_in::resetRecord();
    const std::vector<int> index = {0, -1, 1, bad};
    loc::cudaSetMatrixConfig(config(2, 2));
    loc::cudaSetMatrixCells(cells.data(), 2, index.data(), 4);
    EXPECT_TRUE(rec().verdict.index_count_matches);
    EXPECT_FALSE(rec().verdict.index_entries_valid);
  }
  stand_in::resetRecord();
  const std::vector<int> fine = {1, -1, 0, -1};
  loc::cudaSetMatrixConfig(config(2, 2));
  loc::cudaSetMatrixCells(cells.data(), 2, fine.data(), 4);
  EXPECT_TRUE(rec().verdict.consistent());
}

TEST_F(StandIn, CoarseBinsMustLieInsideTheirTables) {
  const std::vector<float> heights(5, -1.f);
  const std::vector<float> values(4, -2.f);
  struct Case {
    MCellCoarse record;
    bool inside;
  };
  const Case cases[] = {
      {coarse(4, 0, 5, 0), true},       // both ranges end exactly at the table ends
      {coarse(1, 3, 2, 3), true},
      {coarse(0, 900, 0, 900), true},   // empty ranges read nothing
      {coarse(2, 3, 1, 0), false},      // value range ends one past the value table
      {coarse(1, 0, 3, 3), false},      // height range ends one past the height table
      {coarse(1, 0xffffffffu, 0, 0), false},  // offset + bins must not wrap around
  };
  for (const Case& c : cases) {
    stand_in::resetRecord();
    loc::cudaSetMatrixConfigCoarse(config(1, 1));
    loc::cudaSetMatrixCellsCoarse(heights.data(), 5, values.data(), 4, &c.record);
    EXPECT_EQ(rec().verdict.coarse_bins_inside, c.inside)
        << "value " << c.record.value_offset << "+" << c.record.value_bins << " height "
        << c.record.height_offset << "+" << c.record.height_bins;
  }
  // The value table is the second pair: swapping the tables must be noticed.
  stand_in::resetRecord();
  const MCellCoarse needs_five_heights = coarse(1, 0, 5, 0);
  loc::cudaSetMatrixConfigCoarse(config(1, 1));
  loc::cudaSetMatrixCellsCoarse(values.data(), 4, heights.data(), 5, &needs_five_heights);
  EXPECT_FALSE(rec().verdict.coarse_bins_inside);
}

TEST_F(StandIn, CoarseRecordsFollowTheLastCoarseConfiguration) {
  const std::vector<float> values(2, 0.f);
  const std::vector<MCellCoarse> records(3, coarse(0, 0, 0, 0));
  loc::cudaSetMatrixCellsCoarse(nullptr, 0, values.data(), 2, records.data());
  EXPECT_TRUE(rec().coarse_cells.empty());  // no configuration: nothing to size them by
  EXPECT_EQ(rec().value_table, values);
  EXPECT_FALSE(rec().verdict.coarse_bins_inside);

  stand_in::resetRecord();
  loc::cudaSetMatrixConfigCoarse(config(5, 5));
  loc::cudaSetMatrixConfigCoarse(config(3, 1));
  loc::cudaSetMatrixCellsCoarse(nullptr, 0, nullptr, 0, records.data());
  EXPECT_EQ(rec().coarse_cells.size(), 3u);
  EXPECT_TRUE(rec().verdict.consistent());
}

TEST_F(StandIn, UnusableArraysAreNotedNotRead) {
  loc::cudaSetMatrixConfig(config(0, 0));
  loc::cudaSetMatrixCells(nullptr, 3, nullptr, -1);
  EXPECT_TRUE(rec().cells.empty());
  EXPECT_TRUE(rec().index.empty());
  EXPECT_EQ(rec().cell_count, 3);
  EXPECT_EQ(rec().index_count, -1);
  EXPECT_FALSE(rec().verdict.index_count_matches);
  EXPECT_EQ(rec().verdict.problems.size(), 3u);  // cells, index, count mismatch

  loc::cudaSetMatrixConfigCoarse(config(2, 2));
  loc::cudaSetMatrixCellsCoarse(nullptr, 7, nullptr, -4, nullptr);
  EXPECT_TRUE(rec().height_table.empty());
  EXPECT_TRUE(rec().value_table.empty());
  EXPECT_TRUE(rec().coarse_cells.empty());
  EXPECT_FALSE(rec().verdict.coarse_bins_inside);
}

}  // namespace
