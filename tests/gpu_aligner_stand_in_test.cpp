// The gpu_aligner stand-in: it must record faithfully what it receives and
// judge it as a real matcher would, without crashing on bad input that it
// can detect without reading.
#include "gpu_aligner_stand_in/stand_in_record.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
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
                   std::uint32_t height_offset, std::int16_t value_first = 0) {
  return {value_bins, value_first, value_offset, height_bins, -2, height_offset};
}

const stand_in::Record& rec() { return stand_in::record(); }

// The six verdict flags in declaration order, as '1' (holds) or '0'.
std::string flags() {
  const stand_in::Verdict& v = rec().verdict;
  std::string s;
  for (bool f : {v.geometry_matches, v.index_count_matches, v.index_entries_valid, v.coarse_matches_full,
                 v.coarse_bins_inside, v.value_bins_bounded})
    s += f ? '1' : '0';
  return s;
}

class StandIn : public testing::Test {
 protected:
  void SetUp() override { stand_in::resetRecord(); }
  void TearDown() override { stand_in::resetRecord(); }
};

TEST_F(StandIn, RecordsWhatACorrectUploadSentAndJudgesItConsistent) {
  std::vector<MCell> cells(2);
  cells[0].value_mean[0] = 11.f;
  std::vector<int> index = {-1, 1, 0, -1, -1, -1};
  const std::vector<float> heights = {-1.f, -2.f, -3.f}, values = {-5.f, -6.f};
  const std::vector<MCellCoarse> records = {coarse(2, 0, 3, 0), coarse(0, 2, 0, 3)};
  const MatrixConfig level2 = {0.6f, 2, 2, 1, -2, 3};  // config(3, 2) at factor 2
  loc::cudaSetMatrixConfig(config(3, 2));
  loc::cudaSetMatrixCells(cells.data(), 2, index.data(), 6);
  loc::cudaSetMatrixConfigCoarse(level2);
  loc::cudaSetMatrixCellsCoarse(heights.data(), 3, values.data(), 2, records.data());

  EXPECT_EQ(rec().callNames(), (std::vector<std::string>{"cudaSetMatrixConfig", "cudaSetMatrixCells",
                                                         "cudaSetMatrixConfigCoarse", "cudaSetMatrixCellsCoarse"}));
  const MatrixConfig full = config(3, 2);
  ASSERT_TRUE(rec().configs.size() == 1 && rec().coarse_configs.size() == 1);
  EXPECT_EQ(std::memcmp(&rec().configs[0], &full, sizeof full), 0);
  EXPECT_EQ(std::memcmp(&rec().coarse_configs[0], &level2, sizeof level2), 0);
  EXPECT_EQ((std::vector<const void*>{rec().cells.at, rec().index.at, rec().height_table.at, rec().value_table.at,
                                      rec().coarse_cells.at}),
            (std::vector<const void*>{cells.data(), index.data(), heights.data(), values.data(), records.data()}));
  EXPECT_TRUE(rec().cells.holds(cells) && rec().index.holds(index) && rec().height_table.holds(heights) &&
              rec().value_table.holds(values) && rec().coarse_cells.holds(records));
  EXPECT_FALSE(rec().height_table.holds(values));
  EXPECT_EQ(flags(), "111111");
  EXPECT_TRUE(rec().verdict.problems.empty() && rec().verdict.warnings.empty());

  // A later change of the caller's arrays shows, in any element.
  const std::vector<MCell> sent = cells;
  EXPECT_TRUE(rec().cells.unchanged() && rec().index.unchanged());
  cells[1].aux_value = 9.f;
  index.back() = 0;
  EXPECT_FALSE(rec().cells.unchanged() || rec().index.unchanged());
  EXPECT_TRUE(rec().cells.holds(sent) && !rec().cells.holds(sent.data(), 1));
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
    if (size > 0) {
      EXPECT_NE(stand_in::digestOf(bytes.data(), size - 1), digest) << size;
    }
    for (std::size_t i = 0; i < size * 2; ++i) {
      bytes[i / 2] ^= i % 2 ? 0x80 : 0x01;
      EXPECT_NE(stand_in::digestOf(bytes.data(), size), digest) << size << " byte " << i / 2;
      bytes[i / 2] ^= i % 2 ? 0x80 : 0x01;
    }
  }
}

// Each row is a sequence of uploads from a fresh record and the verdict
// flags it must leave: geometry, index count, index entries, coarse against
// full, coarse bins inside, value bins bounded.
TEST_F(StandIn, JudgesEachUploadAgainstTheLastConfigurations) {
  const std::vector<MCell> two_cells(2);
  const std::vector<int> six(6, -1);
  const std::vector<float> heights(5, -1.f), values(600, -2.f);
  const auto cells = [&](std::vector<int> index) {
    loc::cudaSetMatrixConfig(config(2, 2));
    loc::cudaSetMatrixCells(two_cells.data(), 2, index.data(), static_cast<int>(index.size()));
  };
  // One coarse record over tables of 5 height and `value_count` value bins.
  const auto bins = [&](MCellCoarse r, int value_count = 4, bool swapped = false) {
    loc::cudaSetMatrixConfig(config(1, 1));
    loc::cudaSetMatrixConfigCoarse(config(1, 1));
    if (swapped) {
      loc::cudaSetMatrixCellsCoarse(values.data(), value_count, heights.data(), 5, &r);
    } else {
      loc::cudaSetMatrixCellsCoarse(heights.data(), 5, values.data(), value_count, &r);
    }
  };
  // 10 x 7 positions, offsets 5 and -3: at factor 4 the table has 3 x 2
  // positions, offsets 1 and -1, resolution 0.6 (0.15f * 4).
  const MatrixConfig full = {0.15f, 70, 10, 7, 5, -3}, level4 = {0.15f * 4.0f, 6, 3, 2, 1, -1};
  const auto table = [&](MatrixConfig f, MatrixConfig c) {
    loc::cudaSetMatrixConfig(f);
    loc::cudaSetMatrixConfigCoarse(c);
  };
  const auto with = [&](std::function<void(MatrixConfig&)> change) {
    MatrixConfig c = level4;
    change(c);
    return c;
  };
  struct Row {
    const char* what;
    std::function<void()> uploads;
    const char* flags;
  };
  const Row rows[] = {
      {"cols x rows, level 1 of itself", [&] { table(full, full); }, "111111"},
      {"wrong grid_size", [&] { loc::cudaSetMatrixConfig({0.15f, 7, 3, 2, 0, 0}); }, "011111"},
      {"negative, though the product is 0", [&] { loc::cudaSetMatrixConfig({0.15f, 0, -2, 0, 0, 0}); }, "011111"},
      {"2^32 positions wrap to 0", [&] { loc::cudaSetMatrixConfig({0.15f, 0, 65536, 65536, 0, 0}); }, "011111"},
      {"the largest grid", [&] { loc::cudaSetMatrixConfig({0.15f, 4294836225u, 65535, 65535, 0, 0}); }, "111111"},
      {"coarse geometry checked too", [&] { table(config(3, 2), {0.3f, 7, 3, 2, -3, 7}); }, "011011"},
      {"index before any configuration", [&] { loc::cudaSetMatrixCells(nullptr, 0, six.data(), 6); }, "101111"},
      {"index of an earlier configuration",
       [&] {
         loc::cudaSetMatrixConfig(config(3, 2));
         loc::cudaSetMatrixConfig(config(2, 2));
         loc::cudaSetMatrixCells(nullptr, 0, six.data(), 6);
       },
       "101111"},
      {"entries name cells", [&] { cells({1, -1, 0, -1}); }, "111111"},
      {"entry at the cell count", [&] { cells({1, -1, 0, 2}); }, "110111"},
      {"entry below -1", [&] { cells({1, -1, 0, -2}); }, "110111"},
      {"level 4", [&] { table(full, level4); }, "111111"},
      {"level 3", [&] { table(full, {0.15f * 3.0f, 12, 4, 3, 1, -1}); }, "111111"},
      {"cols rounded down", [&] { table(full, with([](MatrixConfig& c) { c.cols = 2, c.grid_size = 4; })); }, "111011"},
      {"offset_x rounded up", [&] { table(full, with([](MatrixConfig& c) { c.offset_x = 2; })); }, "111011"},
      {"offset_y truncated towards zero", [&] { table(full, with([](MatrixConfig& c) { c.offset_y = 0; })); }, "111011"},
      {"resolution one step off",
       [&] { table(full, with([](MatrixConfig& c) { c.resolution = std::nextafter(0.15f * 4.0f, 1.0f); })); }, "111011"},
      {"finer than the matrix", [&] { table(full, {0.075f, 280, 20, 14, 10, -6}); }, "111011"},
      {"the empty table of an unprepared matrix", [&] { table(full, {0.15f, 0, 0, 0, 0, 0}); }, "111011"},
      {"coarse before any configuration", [&] { loc::cudaSetMatrixConfigCoarse(level4); }, "111011"},
      {"judged against the last full configuration",  // a table kept from an earlier map
       [&] { table(full, level4), table({0.15f, 0, 0, 0, 0, 0}, level4); }, "111011"},
      {"ranges end exactly at the table ends", [&] { bins(coarse(4, 0, 5, 0)); }, "111111"},
      {"empty ranges read nothing", [&] { bins(coarse(0, 900, 0, 900)); }, "111111"},
      {"value range one past its table", [&] { bins(coarse(2, 3, 1, 0)); }, "111101"},
      {"height range one past its table", [&] { bins(coarse(1, 0, 3, 3)); }, "111101"},
      {"offset + bins wrapping", [&] { bins(coarse(1, 0xffffffffu, 0, 0)); }, "111101"},
      {"the value table is the second pair", [&] { bins(coarse(1, 0, 5, 0), 4, true); }, "111101"},
      {"records without a coarse configuration",
       [&] { loc::cudaSetMatrixCellsCoarse(nullptr, 0, values.data(), 2, nullptr); }, "111101"},
      {"all 256 value bins", [&] { bins(coarse(256, 0, 0, 0), 600); }, "111111"},
      {"bin 255", [&] { bins(coarse(1, 0, 0, 0, 255), 600); }, "111111"},
      {"no bins at -7", [&] { bins(coarse(0, 0, 0, 0, -7), 600); }, "111111"},
      {"257 value bins", [&] { bins(coarse(257, 0, 0, 0), 600); }, "111110"},
      {"bin -1", [&] { bins(coarse(1, 0, 0, 0, -1), 600); }, "111110"},
      {"past bin 255", [&] { bins(coarse(7, 0, 0, 0, 250), 600); }, "111110"},
  };
  for (const Row& row : rows) {
    stand_in::resetRecord();
    row.uploads();
    EXPECT_EQ(flags(), row.flags) << row.what << ": " << testing::PrintToString(rec().verdict.problems);
  }
  // Records are as many as the last coarse configuration has positions.
  stand_in::resetRecord();
  const std::vector<MCellCoarse> three(3, coarse(0, 0, 0, 0));
  loc::cudaSetMatrixConfigCoarse(config(5, 5));
  loc::cudaSetMatrixConfigCoarse(config(3, 1));
  loc::cudaSetMatrixCellsCoarse(nullptr, 0, nullptr, 0, three.data());
  EXPECT_TRUE(rec().coarse_cells.holds(three));
}

// The stand-in digests and checks an array in one read, 16 KiB at a time:
// arrays of several pieces arrive whole, and what is found in a later piece
// is reported where it lies.
TEST_F(StandIn, ArraysOfManyPiecesAreJudgedWhole) {
  constexpr std::size_t kPieceFloats = 4096;
  std::vector<float> values(3 * kPieceFloats + 5, -1.f), heights(kPieceFloats + 1, -1.f);
  values[kPieceFloats + 7] = NAN;
  values[3 * kPieceFloats + 4] = INFINITY;
  heights[kPieceFloats] = -INFINITY;
  std::vector<int> index(2 * kPieceFloats + 3, -1);
  index[2 * kPieceFloats + 1] = 5;  // the only bad entry, in the third piece
  std::vector<MCellCoarse> records(9000, coarse(0, 0, 0, 0));
  records[8000] = coarse(1, 0, 2, static_cast<std::uint32_t>(heights.size()) - 1);  // 1024 records a piece
  records[8999] = coarse(3, 0, 0, 0, 254);
  const std::vector<MCell> two_cells(2);
  loc::cudaSetMatrixConfig(config(static_cast<std::int32_t>(index.size()), 1));
  loc::cudaSetMatrixCells(two_cells.data(), 2, index.data(), static_cast<int>(index.size()));
  loc::cudaSetMatrixConfig(config(9000, 1));
  loc::cudaSetMatrixConfigCoarse(config(9000, 1));
  loc::cudaSetMatrixCellsCoarse(heights.data(), static_cast<int>(heights.size()), values.data(),
                                static_cast<int>(values.size()), records.data());
  EXPECT_TRUE(rec().index.holds(index) && rec().value_table.holds(values) && rec().height_table.holds(heights) &&
              rec().coarse_cells.holds(records));
  EXPECT_EQ(rec().verdict.problems,
            (std::vector<std::string>{"cudaSetMatrixCells: index entry 8193 is 5 with 2 cells",
                                      "cudaSetMatrixCellsCoarse: coarse record 8000 reaches past the height table",
                                      "cudaSetMatrixCellsCoarse: coarse record 8999 stores value bins 254 + 3, "
                                      "outside 0..255"}));
  EXPECT_EQ(rec().verdict.warnings,
            (std::vector<std::string>{
                "cudaSetMatrixCellsCoarse: 1 non-finite bins in the height table, the first at 4096",
                "cudaSetMatrixCellsCoarse: 2 non-finite bins in the value table, the first at 4103"}));
}

TEST_F(StandIn, NonFiniteBinsAreOnlyWarningsAndUnusableArraysAreNotedNotRead) {
  const std::vector<float> odd_values = {-1.f, NAN, -2.f, INFINITY}, odd_heights = {-1.f, -2.f, -INFINITY};
  const MCellCoarse record = coarse(4, 0, 3, 0);
  loc::cudaSetMatrixConfig(config(1, 1));
  loc::cudaSetMatrixConfigCoarse(config(1, 1));
  loc::cudaSetMatrixCellsCoarse(odd_heights.data(), 3, odd_values.data(), 4, &record);
  EXPECT_TRUE(rec().verdict.consistent() && rec().verdict.problems.empty());
  EXPECT_EQ(rec().verdict.warnings,
            (std::vector<std::string>{
                "cudaSetMatrixCellsCoarse: 1 non-finite bins in the height table, the first at 2",
                "cudaSetMatrixCellsCoarse: 2 non-finite bins in the value table, the first at 1"}));

  stand_in::resetRecord();
  loc::cudaSetMatrixConfig(config(0, 0));
  loc::cudaSetMatrixCells(nullptr, 3, nullptr, -1);
  EXPECT_TRUE(rec().cells.elements == 0 && rec().index.elements == 0);
  EXPECT_EQ(rec().cells.count, 3);
  EXPECT_EQ(rec().verdict.problems.size(), 3u);  // cells, index, count mismatch
  loc::cudaSetMatrixConfigCoarse(config(2, 2));
  loc::cudaSetMatrixCellsCoarse(nullptr, 7, nullptr, -4, nullptr);
  EXPECT_TRUE(rec().height_table.bytes == 0 && rec().value_table.bytes == 0 && rec().coarse_cells.bytes == 0);
  EXPECT_EQ(flags(), "101001");
}

}  // namespace
