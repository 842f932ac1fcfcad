// GridMapServer start-up: the console output of every path byte for byte,
// the codes, and what reaches the GPU matcher (seen through the gpu_aligner
// stand-in and compared with a table built independently from the same
// file).
#include "localization/grid_map_server.h"

#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "gpu_aligner_stand_in/stand_in_record.h"
#include "localization/grid_map_lossy.h"
#include "localization/little_endian.h"
#include "localization/runtime_error.h"
#include "tests/support/map_files.h"
#include "tools/reference/synthetic_map.h"

namespace {

namespace stand_in = zorvane::gpu_stand_in;
using namespace zorvane::localization;
using namespace zorvane::testing;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const std::vector<std::string> kFourCalls = {"cudaSetMatrixConfig", "cudaSetMatrixCells",
                                             "cudaSetMatrixConfigCoarse", "cudaSetMatrixCellsCoarse"};

std::string green(const std::string& path) {
  return "\033[32m[MapServer]: Load from file: " + path + "\033[0m\n";
}
std::string warning(const std::string& key) {
  return "\033[33mGridMapServer : Not set \033[0m" + key + "\033[33m value !!!\033[0m\033[0m\n";
}
std::string loadFailed() { return redLine("Fail loading map into MapServer"); }

YAML::Node section(const std::string& path) {
  return YAML::Load("{type: GridMapServer, grid_map: '" + path + "'}");
}

bool sameConfig(const MatrixConfig& c, const GridMatrixBase& m) {
  return std::make_tuple(c.resolution, c.grid_size, c.cols, c.rows, c.offset_x, c.offset_y) ==
         std::make_tuple(m.resolution_, m.grid_size_, m.cols_, m.rows_, m.offset_x_, m.offset_y_);
}

// Runs the configured start-up; returns its output, then the code and
// what() of the coded exception if one was thrown.
std::string start(GridMapServer& server, const YAML::Node& node) {
  CaptureStdout();
  std::string thrown;
  try {
    server.init(node);
  } catch (const runtime_error& e) {
    thrown = "[threw " + std::to_string(e.code_) + ": " + e.what() + "]";
  }
  return GetCapturedStdout() + thrown;
}
const std::string kThrew11803 = "[threw 71683: 0x11803]";
const std::string kThrew11804 = "[threw 71684: 0x11804]";

// Writes a synthetic map (coarse blocks not aligned with its edges, cells
// over many bins) and returns its path.
std::string writeMap(const std::string& name, int cols, int rows, unsigned seed) {
  const auto synthetic = zorvane::reference::makeSyntheticMap(cols, rows, seed);
  GridMapLossy map;
  map.mutable_matrix() = synthetic.matrix;
  map.height_base_ = synthetic.height_base;
  const std::string path = tempMapPath(name);
  std::string out;
  EXPECT_TRUE(saveCapturing(map, path, &out)) << path;
  return path;
}

// The same file read by a map of our own, with its level-4 table.
void loadReference(const std::string& path, GridMapLossy& reference) {
  std::string out;
  ASSERT_TRUE(readCapturing(reference, path, &out));
  reference.generateMatrixTalbe(4);
}

class ServerTest : public testing::Test {
 protected:
  void SetUp() override { stand_in::resetRecord(); }
  void TearDown() override { stand_in::resetRecord(); }
  const stand_in::Record& rec() { return stand_in::record(); }
};

TEST_F(ServerTest, ConfigurationErrorsPrintTheirLinesAndThrow0x11803) {
  const std::string no_type = warning("type") + redLine("MapServer type not defined");
  const std::string wrong = redLine("Wrong MapServer type");
  const std::string no_path = warning("grid_map") + redLine("Map file path not defined");
  // Wrong or missing types come without "grid_map" on purpose: it must not be
  // read, or its warning would show.
  const std::pair<const char*, std::string> cases[] = {
      {"grid_map: /maps/map_lossy.gridmap", no_type},
      {"type: ~", no_type},
      {"[GridMapServer]", no_type},
      {"type: gridmapserver", wrong},
      {"type: 'GridMapServer '", wrong},
      {"type: GridMapServerX", wrong},
      {"type: 42", wrong},
      {"type: GridMapServer", no_path},
      {"type: GridMapServer\ngrid_map: ~", no_path},
      {"type: GridMapServer\nGrid_map: /maps/map_lossy.gridmap", no_path},
  };
  for (const auto& [yaml, out] : cases) {
    SCOPED_TRACE(yaml);
    GridMapServer server;
    EXPECT_EQ(start(server, YAML::Load(yaml)), out + kThrew11803);
  }
  EXPECT_TRUE(rec().calls.empty());
}

TEST_F(ServerTest, YamlExceptionsLeaveTheConfiguredStartUpUnchanged) {
  const YAML::Node host = YAML::Load("localizer: {rate: 10}\n");
  GridMapServer server;
  CaptureStdout();
  EXPECT_THROW(server.init(YAML::Load("type: GridMapServer\ngrid_map: [a, b]")),
               YAML::TypedBadConversion<std::string>);
  // A host that hands over the lookup of a section it does not have.
  EXPECT_THROW(server.init(host["map_server"]), YAML::InvalidNode);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_TRUE(rec().calls.empty());
}

TEST_F(ServerTest, LoadFailuresPrintTheLoaderLinesThenTheirOwnAndThrow0x11804) {
  const Bytes good = readFileBytes(writeMap("good.gridmap", 19, 17, 1));
  Bytes bad_magic = good, longer = good;
  bad_magic[4] = 'q';
  longer.push_back('x');
  const std::string wrong_magic = tempMapPath("wrong_magic.gridmap"), too_long = tempMapPath("too_long.gridmap");
  writeFileBytes(wrong_magic, bad_magic);
  writeFileBytes(too_long, longer);
  const std::string missing = tempMapPath("missing") + "/map_lossy.gridmap";
  for (const auto& [path, loader_lines] : {
           std::make_pair(missing, redLine("ReadFromFile : Cannot read file " + missing)),
           // grid_map: '' is a value, the empty path: it reaches the load.
           std::make_pair(std::string(), redLine("ReadFromFile : Cannot read file ")),
           std::make_pair(wrong_magic, std::string()),
           std::make_pair(too_long, redLine("ReadFromFile : Map size is not same as raw data!"))}) {
    SCOPED_TRACE(path);
    GridMapServer server;
    EXPECT_EQ(start(server, section(path)),
              green(path) + loader_lines + loadFailed() + kThrew11804);
  }
  EXPECT_TRUE(rec().calls.empty());
}

TEST_F(ServerTest, StartUpUploadsTheLoadedMatrixAndItsLevelFourTableWhichASecondStartUpKeeps) {
  const std::string path = writeMap("map_lossy.gridmap", 43, 37, 3);
  const std::string second = writeMap("second.gridmap", 36, 15, 4);
  GridMapLossy reference, ref_second;
  loadReference(path, reference);
  loadReference(second, ref_second);
  const GridMatrix& m = reference.matrix();
  const GridMatrixTable& t = reference.matrixTable(4);
  ASSERT_TRUE(m.precalculated_);

  GridMapServer server;
  EXPECT_EQ(start(server, section(path)), green(path));

  EXPECT_EQ(rec().callNames(), kFourCalls);
  ASSERT_TRUE(rec().configs.size() == 1 && rec().coarse_configs.size() == 1);
  EXPECT_TRUE(sameConfig(rec().configs[0], m));
  ASSERT_FALSE(t.value_table_.empty() || t.height_table_.empty());
  EXPECT_TRUE(sameConfig(rec().coarse_configs[0], t));
  // Prepared cells and the index as loaded; then the height pair, the value
  // pair and grid_size records of the table.
  EXPECT_TRUE(rec().cells.holds(m.cells_));
  EXPECT_TRUE(rec().index.holds(m.index_));
  EXPECT_TRUE(rec().height_table.holds(t.height_table_));
  EXPECT_TRUE(rec().value_table.holds(t.value_table_));
  EXPECT_TRUE(rec().coarse_cells.holds(t.coarse_cells_));
  EXPECT_TRUE(rec().verdict.consistent()) << testing::PrintToString(rec().verdict.problems);

  // The pointers lead into storage that the server keeps alive and unchanged
  // (the sanitizer build catches reading a temporary copy).
  for (const auto* received : {&rec().cells, &rec().index, &rec().height_table, &rec().value_table,
                               &rec().coarse_cells}) {
    EXPECT_TRUE(received->unchanged());
  }

  // A second start-up reloads the matrix, but the cache keeps level 4 as
  // built from the first map.
  ASSERT_NE(t.height_table_.size(), ref_second.matrixTable(4).height_table_.size());
  EXPECT_EQ(start(server, section(second)), green(second));
  ASSERT_EQ(rec().calls.size(), 8u);
  ASSERT_TRUE(rec().configs.size() == 2 && rec().coarse_configs.size() == 2);
  EXPECT_TRUE(sameConfig(rec().configs[1], ref_second.matrix()));
  EXPECT_TRUE(rec().index.holds(ref_second.matrix().index_));
  EXPECT_TRUE(rec().cells.holds(ref_second.matrix().cells_));
  EXPECT_TRUE(sameConfig(rec().coarse_configs[1], t));
  EXPECT_TRUE(rec().coarse_cells.holds(t.coarse_cells_));
  EXPECT_TRUE(rec().height_table.holds(t.height_table_));
}

TEST_F(ServerTest, UnloadedServerPrintsNothingAndUploadsDefaultsAndEmptyArrays) {
  CaptureStdout();
  {
    GridMapServer server;
    EXPECT_TRUE(server.copyFullResMatrixGpu());
    EXPECT_TRUE(server.calcSubSampledMatrix(4));
    EXPECT_TRUE(server.calcSubSampledMatrix(4));
    EXPECT_TRUE(server.copySubSampledMatrixGpu(4));
  }
  EXPECT_EQ(GetCapturedStdout(), "");

  EXPECT_EQ(rec().callNames(), kFourCalls);
  EXPECT_TRUE(sameConfig(rec().configs.at(0), GridMatrix()));
  EXPECT_EQ(rec().cells.count + rec().index.count + rec().height_table.count + rec().value_table.count, 0);
  EXPECT_EQ(rec().coarse_configs.at(0).grid_size, 0u);
  EXPECT_TRUE(rec().verdict.consistent());
}

TEST_F(ServerTest, UploadOfALevelThatIsNotCachedEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        GridMapServer server;
        server.calcSubSampledMatrix(4);
        server.copySubSampledMatrixGpu(2);
      },
      testing::ExitedWithCode(255), "^map::at\n$");
  EXPECT_EXIT(GridMapServer().copySubSampledMatrixGpu(4), testing::ExitedWithCode(255),
              "^map::at\n$");
}

// ---------------------------------------------------------------------------
// Start-up budget: what one file may cost in table memory and time.

// A zvmap file: a cols x rows grid, one cell at each of `positions`, every
// cell with value means 100, value sigmas 1.00, height means 0 above
// `height_base` and height sigmas `height_sigma` hundredths.
Bytes handBuiltMap(std::int32_t cols, std::int32_t rows, const std::vector<std::uint32_t>& positions,
                   std::uint16_t height_sigma, float height_base) {
  namespace le = zorvane::localization::internal;
  HeaderFields h;
  h.cols = cols;
  h.rows = rows;
  h.height_base = height_base;
  h.body_bytes = static_cast<std::uint32_t>(22 * positions.size());
  Bytes file = headerBytes(h);
  for (std::uint32_t position : positions) {
    appendRecord(&file, position, 0);
    char* record = &file[file.size() - 22];
    record[6] = record[7] = static_cast<char>(100);  // value means
    le::encodeFixed16(record + 8, 100);              // value sigmas 1.00
    le::encodeFixed16(record + 10, 100);
    record[12] = record[21] = static_cast<char>(128);  // weights
    le::encodeFixed16(record + 17, height_sigma);
    le::encodeFixed16(record + 19, height_sigma);
  }
  return file;
}

// Every position of a side x side grid, or with `step` 4 one position in
// every 4 x 4 block (one cell per block of the level-4 table).
std::vector<std::uint32_t> positions(std::uint32_t side, std::uint32_t step = 1) {
  std::vector<std::uint32_t> p;
  for (std::uint32_t y = 0; y < side; y += step) {
    for (std::uint32_t x = 0; x < side; x += step) p.push_back(y * side + x);
  }
  return p;
}

TEST_F(ServerTest, FilesWhoseTableWouldExceedTheStartUpBudgetAreRefusedBeforeItIsBuilt) {
  const float inf = std::numeric_limits<float>::infinity();
  struct Case {
    const char* name;
    std::int32_t cols, rows;
    std::vector<std::uint32_t> positions;
    std::uint16_t height_sigma;
    float height_base;
    bool starts;
  };
  const Case cases[] = {
      // 4,096 blocks of 16 cells at the 65,535-bin clip: 268 M height bins
      // (1 GiB) from a 1.44 MB file.
      {"height sigma 655.35 everywhere", 256, 256, positions(256), 65535, 0.f, false},
      // Infinite height means put every block at the clip.
      {"infinite height origin", 256, 256, positions(256), 10, inf, false},
      // One cell per block is enough.
      {"one far cell per block", 256, 256, positions(256, 4), 6000, 0.f, false},
      // About 3,000 height bins a block: 12 M bins fit the memory bound,
      // but 16 cells a block make 197 M evaluations, beyond the work bound.
      {"bins within, work beyond", 256, 256, positions(256), 750, 0.f, false},
      // The same grids with ordinary heights start.
      {"ordinary heights", 256, 256, positions(256), 10, 0.f, true},
      {"ordinary heights, one cell per block", 256, 256, positions(256, 4), 10, 0.f, true},
      // A few blocks at the clip fit the fixed allowance.
      {"one cell at the clip", 64, 64, {100}, 65535, 0.f, true},
      // A 105-byte file declaring the largest grid two cells allow (about a
      // million coarse positions), both cells at the clip: started in
      // proportion to its grid, not its bins.
      {"tiny file, large grid", 253, 65540, {0, 253 * 65540 - 1}, 65535, 0.f, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    stand_in::resetRecord();
    const std::string path = tempMapPath("budget.gridmap");
    writeFileBytes(path, handBuiltMap(c.cols, c.rows, c.positions, c.height_sigma, c.height_base));
    GridMapServer server;
    const std::string out = start(server, section(path));
    if (c.starts) {
      EXPECT_EQ(out, green(path));
      EXPECT_EQ(rec().callNames(), kFourCalls);
      EXPECT_TRUE(rec().verdict.consistent());
    } else {
      EXPECT_EQ(out, green(path) + loadFailed() + kThrew11804);
      EXPECT_TRUE(rec().calls.empty());
    }
  }
  EXPECT_EQ(rec().height_table.count, 2 * 65535);  // the tiny file's two clipped blocks
}

}  // namespace
