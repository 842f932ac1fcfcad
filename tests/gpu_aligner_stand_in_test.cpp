// The gpu_aligner stand-in: it must record faithfully what it receives and
// judge it as a real matcher would, without crashing on bad input that it
// can detect without reading.
#include "gpu_aligner_stand_in/stand_in_record.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

namespace {

namespace loc = zorvane::localization;
namespace stand_in = zorvane::gpu_stand_in;
using loc::MatrixConfig;
using loc::MCell;
using loc::MCellCoarse;

MatrixConfig config(std::int32_t cols, std::int32_t rows) {
  return {0.3f, static_cast<std::uint32_t>(cols * rows), cols, rows, -3, 7};
}

MCellCoarse coarse(std::uint16_t value_bins, std::uint32_t value_offset, std::uint16_t height_bins,
                   std::uint32_t height_offset) {
  return {value_bins, 0, value_offset, height_bins, -2, height_offset};
}

template <class T>
bool sameBytes(const std::vector<T>& a, const std::vector<T>& b) {  // also for types without ==
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

class StandIn : public testing::Test {
 protected:
  void SetUp() override { stand_in::resetRecord(); }
  void TearDown() override { stand_in::resetRecord(); }
  const stand_in::Record& rec() { return stand_in::record(); }
};

TEST_F(StandIn, RecordsWhatACorrectUploadSentAndJudgesItConsistent) {
  std::vector<MCell> cells(2);
  cells[0].value_mean[0] = 11.f;
  cells[1].height_mean[1] = -4.5f;
  std::vector<int> index = {-1, 1, 0, -1, -1, -1};
  const std::vector<float> heights = {-1.f, -2.f, -3.f};
  const std::vector<float> values = {-5.f, -6.f};
  const std::vector<MCellCoarse> records = {coarse(2, 0, 3, 0), coarse(0, 2, 0, 3)};

  loc::cudaSetMatrixConfig(config(3, 2));
  loc::cudaSetMatrixCells(cells.data(), 2, index.data(), 6);
  const MatrixConfig level2 = {0.6f, 2, 2, 1, -2, 3};  // config(3, 2) at factor 2
  loc::cudaSetMatrixConfigCoarse(level2);
  loc::cudaSetMatrixCellsCoarse(heights.data(), 3, values.data(), 2, records.data());

  EXPECT_EQ(rec().callNames(), (std::vector<std::string>{"cudaSetMatrixConfig", "cudaSetMatrixCells",
                                                         "cudaSetMatrixConfigCoarse", "cudaSetMatrixCellsCoarse"}));
  EXPECT_TRUE(sameBytes(rec().configs, {config(3, 2)}) && sameBytes(rec().coarse_configs, {level2}));
  EXPECT_EQ((std::vector<const void*>{rec().cells.at, rec().index.at, rec().height_table.at, rec().value_table.at,
                                      rec().coarse_cells.at}),
            (std::vector<const void*>{cells.data(), index.data(), heights.data(), values.data(), records.data()}));
  EXPECT_EQ(std::make_pair(rec().cells.count, rec().index.count), std::make_pair(std::int64_t{2}, std::int64_t{6}));
  EXPECT_TRUE(rec().cells.holds(cells) && rec().index.holds(index) && rec().height_table.holds(heights) &&
              rec().value_table.holds(values) && rec().coarse_cells.holds(records));
  EXPECT_FALSE(rec().height_table.holds(values));
  EXPECT_TRUE(rec().verdict.consistent() && rec().verdict.problems.empty() && rec().verdict.warnings.empty());

  // What arrived is kept as it was during the call: a later change of the
  // caller's arrays shows, and the first element alone is not enough.
  const std::vector<MCell> sent_cells = cells;
  EXPECT_TRUE(rec().cells.unchanged() && rec().index.unchanged());
  cells[1].aux_value = 9.f;
  index.back() = 0;
  EXPECT_FALSE(rec().cells.unchanged() || rec().index.unchanged());
  EXPECT_FALSE(rec().cells.holds(cells) || rec().index.holds(index));
  EXPECT_TRUE(rec().cells.holds(sent_cells));
  EXPECT_FALSE(rec().cells.holds(sent_cells.data(), 1));

  stand_in::resetRecord();
  EXPECT_TRUE(rec().calls.empty() && rec().configs.empty() && rec().index.elements == 0);
  EXPECT_EQ(rec().index.at, nullptr);
}

// Lengths around the 8- and 32-byte steps; a change of any single byte, or
// one byte more or less, gives another digest.
TEST(StandInDigest, EveryByteAndTheLengthCount) {
  for (const std::size_t size : {0u, 1u, 7u, 8u, 9u, 31u, 32u, 33u, 64u, 71u}) {
    std::vector<unsigned char> bytes(size + 1);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 37 + 11);
    const std::uint64_t digest = stand_in::digestOf(bytes.data(), size);
    EXPECT_EQ(stand_in::digestOf(std::vector<unsigned char>(bytes).data(), size), digest);
    EXPECT_NE(stand_in::digestOf(bytes.data(), size + 1), digest) << size;
    if (size > 0) { EXPECT_NE(stand_in::digestOf(bytes.data(), size - 1), digest) << size; }
    for (std::size_t i = 0; i < size * 2; ++i) {
      bytes[i / 2] ^= i % 2 ? 0x80 : 0x01;
      EXPECT_NE(stand_in::digestOf(bytes.data(), size), digest) << size << " byte " << i / 2;
      bytes[i / 2] ^= i % 2 ? 0x80 : 0x01;
    }
  }
}

TEST_F(StandIn, IndexMustMatchTheLastConfigurationAndNameCells) {
  const std::vector<int> six(6, -1);
  loc::cudaSetMatrixCells(nullptr, 0, six.data(), 6);  // no configuration yet
  EXPECT_FALSE(rec().verdict.index_count_matches);
  EXPECT_TRUE(rec().index.holds(six));

  stand_in::resetRecord();
  loc::cudaSetMatrixConfig(config(3, 2));
  loc::cudaSetMatrixConfig(config(2, 2));  // the later geometry is the one that counts
  loc::cudaSetMatrixCells(nullptr, 0, six.data(), 6);
  const auto& v = rec().verdict;
  EXPECT_EQ(std::make_tuple(v.geometry_matches, v.index_count_matches, v.index_entries_valid,
                            v.coarse_matches_full, v.coarse_bins_inside, v.value_bins_bounded),
            std::make_tuple(true, false, true, true, true, true));
  ASSERT_EQ(rec().verdict.problems.size(), 1u);
  EXPECT_NE(rec().verdict.problems[0].find("grid_size 4"), std::string::npos);

  // Entries must be -1 or a cell number below the cell count.
  const std::vector<MCell> cells(2);
  for (int last : {-1, 2, -2, 1 << 30}) {
    SCOPED_TRACE(last);
    stand_in::resetRecord();
    const std::vector<int> index = {1, -1, 0, last};
    loc::cudaSetMatrixConfig(config(2, 2));
    loc::cudaSetMatrixCells(cells.data(), 2, index.data(), 4);
    EXPECT_TRUE(rec().verdict.index_count_matches);
    EXPECT_EQ(rec().verdict.index_entries_valid, last == -1);
  }
}

TEST_F(StandIn, CoarseBinsMustLieInsideTheirTablesOfTheLastConfiguration) {
  const std::vector<float> heights(5, -1.f);
  const std::vector<float> values(4, -2.f);
  const std::tuple<MCellCoarse, bool, bool> cases[] = {
      {coarse(4, 0, 5, 0), false, true},             // both ranges end exactly at the table ends
      {coarse(1, 3, 2, 3), false, true},
      {coarse(0, 900, 0, 900), false, true},         // empty ranges read nothing
      {coarse(2, 3, 1, 0), false, false},            // value range ends one past the value table
      {coarse(1, 0, 3, 3), false, false},            // height range ends one past the height table
      {coarse(1, 0xffffffffu, 0, 0), false, false},  // offset + bins must not wrap around
      {coarse(1, 0, 5, 0), true, false},             // the value table is the second pair
  };
  for (const auto& [record, swapped, inside] : cases) {
    stand_in::resetRecord();
    loc::cudaSetMatrixConfigCoarse(config(1, 1));
    if (swapped) {
      loc::cudaSetMatrixCellsCoarse(values.data(), 4, heights.data(), 5, &record);
    } else {
      loc::cudaSetMatrixCellsCoarse(heights.data(), 5, values.data(), 4, &record);
    }
    EXPECT_EQ(rec().verdict.coarse_bins_inside, inside)
        << "value " << record.value_offset << "+" << record.value_bins << " height "
        << record.height_offset << "+" << record.height_bins << (swapped ? " swapped" : "");
  }

  // Records are sized by the last coarse configuration; without one, none.
  stand_in::resetRecord();
  const std::vector<MCellCoarse> records(3, coarse(0, 0, 0, 0));
  loc::cudaSetMatrixCellsCoarse(nullptr, 0, values.data(), 2, records.data());
  EXPECT_EQ(rec().coarse_cells.elements, 0);
  EXPECT_TRUE(rec().value_table.holds(std::vector<float>(2, -2.f)));
  EXPECT_FALSE(rec().verdict.coarse_bins_inside);
  stand_in::resetRecord();
  loc::cudaSetMatrixConfig(config(5, 5));
  loc::cudaSetMatrixConfigCoarse(config(5, 5));
  loc::cudaSetMatrixConfig(config(3, 1));
  loc::cudaSetMatrixConfigCoarse(config(3, 1));
  loc::cudaSetMatrixCellsCoarse(nullptr, 0, nullptr, 0, records.data());
  EXPECT_TRUE(rec().coarse_cells.holds(records));
  EXPECT_TRUE(rec().verdict.consistent());
}

TEST_F(StandIn, EachConfigurationMustHaveColsTimesRowsPositions) {
  const std::tuple<MatrixConfig, bool> cases[] = {
      {config(3, 2), true},
      {{0.15f, 0, 0, 5, 0, 0}, true},
      {{0.15f, 7, 3, 2, 0, 0}, false},
      {{0.15f, 0, -2, 0, 0, 0}, false},                     // negative, though the product is 0
      {{0.15f, 0, 65536, 65536, 0, 0}, false},              // 2^32 positions wrap to 0
      {{0.15f, 4294836225u, 65535, 65535, 0, 0}, true},
  };
  for (const auto& [c, matches] : cases) {
    for (const bool coarse : {false, true}) {
      SCOPED_TRACE(std::to_string(c.cols) + " x " + std::to_string(c.rows) + (coarse ? " coarse" : ""));
      stand_in::resetRecord();
      loc::cudaSetMatrixConfig(c);
      if (coarse) loc::cudaSetMatrixConfigCoarse(c);  // level 1 of itself
      EXPECT_EQ(rec().verdict.geometry_matches, matches);
      if (!coarse) {
        EXPECT_EQ(rec().verdict.problems.size(), matches ? 0u : 1u);
      }
    }
  }
}

TEST_F(StandIn, CoarseGeometryMustBeATableLevelOfTheLastFullMatrix) {
  // 10 x 7 positions, offsets 5 and -3: at factor 4 the table has 3 x 2
  // positions, offsets 1 and -1, resolution 0.6 (0.15f * 4).
  const MatrixConfig full = {0.15f, 70, 10, 7, 5, -3};
  const MatrixConfig level4 = {0.15f * 4.0f, 6, 3, 2, 1, -1};
  const auto with = [&](auto change) {
    MatrixConfig c = level4;
    change(c);
    return c;
  };
  const float next_after_level4 = std::nextafter(0.15f * 4.0f, 1.0f);
  const std::tuple<const char*, MatrixConfig, bool> cases[] = {
      {"level 4", level4, true},
      {"level 1 is the matrix itself", full, true},
      {"level 3", {0.15f * 3.0f, 12, 4, 3, 1, -1}, true},
      {"cols rounded down", with([](MatrixConfig& c) { c.cols = 2, c.grid_size = 4; }), false},
      {"offset_x rounded up", with([](MatrixConfig& c) { c.offset_x = 2; }), false},
      {"offset_y truncated towards zero", with([](MatrixConfig& c) { c.offset_y = 0; }), false},
      {"resolution one step off", with([&](MatrixConfig& c) { c.resolution = next_after_level4; }), false},
      {"finer than the matrix", {0.075f, 280, 20, 14, 10, -6}, false},
      {"the empty table of an unprepared matrix", {0.15f, 0, 0, 0, 0, 0}, false},
  };
  for (const auto& [what, coarse_config, matches] : cases) {
    SCOPED_TRACE(what);
    stand_in::resetRecord();
    loc::cudaSetMatrixConfig(full);
    loc::cudaSetMatrixConfigCoarse(coarse_config);
    EXPECT_EQ(rec().verdict.coarse_matches_full, matches) << testing::PrintToString(rec().verdict.problems);
    EXPECT_TRUE(rec().verdict.geometry_matches);
  }

  // Judged against the last full configuration; none at all is a problem.
  stand_in::resetRecord();
  loc::cudaSetMatrixConfigCoarse(level4);
  EXPECT_FALSE(rec().verdict.coarse_matches_full);
  stand_in::resetRecord();
  loc::cudaSetMatrixConfig({0.15f, 0, 0, 0, 0, 0});
  loc::cudaSetMatrixConfig(full);
  loc::cudaSetMatrixConfigCoarse(level4);
  EXPECT_TRUE(rec().verdict.consistent());
  loc::cudaSetMatrixConfig({0.15f, 0, 0, 0, 0, 0});
  loc::cudaSetMatrixConfigCoarse(level4);  // a table kept from an earlier map
  EXPECT_FALSE(rec().verdict.coarse_matches_full);
  ASSERT_EQ(rec().verdict.problems.size(), 1u);
  EXPECT_NE(rec().verdict.problems[0].find("not the level-4 geometry"), std::string::npos)
      << rec().verdict.problems[0];
}

TEST_F(StandIn, ValueBinsMustLieOnTheValueScaleAndNonFiniteBinsAreOnlyWarnings) {
  const std::vector<float> values(600, -1.f);
  const std::vector<float> heights(4, -1.f);
  const std::tuple<MCellCoarse, bool> cases[] = {
      {coarse(256, 0, 0, 0), true},
      {{1, 255, 0, 0, 0, 0}, true},
      {{0, -7, 0, 0, 0, 0}, true},  // nothing stored, nothing to place
      {coarse(257, 0, 0, 0), false},
      {{1, -1, 0, 0, 0, 0}, false},
      {{7, 250, 0, 0, 0, 0}, false},
  };
  for (const auto& [record, bounded] : cases) {
    SCOPED_TRACE(std::to_string(record.value_first) + " + " + std::to_string(record.value_bins));
    stand_in::resetRecord();
    loc::cudaSetMatrixConfig(config(1, 1));
    loc::cudaSetMatrixConfigCoarse(config(1, 1));
    loc::cudaSetMatrixCellsCoarse(heights.data(), 4, values.data(), 600, &record);
    EXPECT_EQ(rec().verdict.value_bins_bounded, bounded);
    EXPECT_TRUE(rec().verdict.coarse_bins_inside);
  }

  stand_in::resetRecord();
  const std::vector<float> odd_values = {-1.f, NAN, -2.f, INFINITY};
  const std::vector<float> odd_heights = {-1.f, -2.f, -INFINITY};
  const MCellCoarse record = coarse(4, 0, 3, 0);
  loc::cudaSetMatrixConfig(config(1, 1));
  loc::cudaSetMatrixConfigCoarse(config(1, 1));
  loc::cudaSetMatrixCellsCoarse(odd_heights.data(), 3, odd_values.data(), 4, &record);
  EXPECT_TRUE(rec().verdict.consistent());
  EXPECT_TRUE(rec().verdict.problems.empty());
  EXPECT_EQ(rec().verdict.warnings,
            (std::vector<std::string>{
                "cudaSetMatrixCellsCoarse: 1 non-finite bins in the height table, the first at 2",
                "cudaSetMatrixCellsCoarse: 2 non-finite bins in the value table, the first at 1"}));
}

TEST_F(StandIn, UnusableArraysAreNotedNotRead) {
  loc::cudaSetMatrixConfig(config(0, 0));
  loc::cudaSetMatrixCells(nullptr, 3, nullptr, -1);
  EXPECT_TRUE(rec().cells.elements == 0 && rec().index.elements == 0);
  EXPECT_EQ(rec().cells.count, 3);
  EXPECT_EQ(rec().index.count, -1);
  EXPECT_FALSE(rec().verdict.index_count_matches);
  EXPECT_EQ(rec().verdict.problems.size(), 3u);  // cells, index, count mismatch

  loc::cudaSetMatrixConfigCoarse(config(2, 2));
  loc::cudaSetMatrixCellsCoarse(nullptr, 7, nullptr, -4, nullptr);
  EXPECT_TRUE(rec().height_table.bytes == 0 && rec().value_table.bytes == 0 && rec().coarse_cells.bytes == 0);
  EXPECT_FALSE(rec().verdict.coarse_bins_inside);
}

}  // namespace
