// GridMapServer start-up: the console output of every path byte for byte,
// the codes, and what reaches the GPU matcher (seen through the gpu_aligner
// stand-in and compared with a table built independently from the same
// file).
#include "localization/grid_map_server.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "gpu_aligner/stand_in_record.h"
#include "localization/grid_map_lossy.h"
#include "localization/runtime_error.h"

namespace {

namespace fs = std::filesystem;
namespace stand_in = zorvane::gpu_stand_in;
using zorvane::localization::GridMapLossy;
using zorvane::localization::GridMapServer;
using zorvane::localization::GridMatrix;
using zorvane::localization::GridMatrixBase;
using zorvane::localization::GridMatrixTable;
using zorvane::localization::MatrixConfig;
using zorvane::localization::MCell;
using zorvane::localization::MCellCoarse;
using zorvane::localization::runtime_error;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const std::vector<std::string> kFourCalls = {"cudaSetMatrixConfig", "cudaSetMatrixCells",
                                             "cudaSetMatrixConfigCoarse",
                                             "cudaSetMatrixCellsCoarse"};

std::string green(const std::string& path) {
  return "\033[32m[MapServer]: Load from file: " + path + "\033[0m\n";
}
std::string red(const std::string& text) { return "\033[31m" + text + "\033[0m\n"; }
std::string warning(const std::string& key) {
  return "\033[33mGridMapServer : Not set \033[0m" + key + "\033[33m value !!!\033[0m\033[0m\n";
}

YAML::Node section(const std::string& path) {
  YAML::Node node;
  node["type"] = "GridMapServer";
  node["grid_map"] = path;
  return node;
}

// A small map in raw form whose coarse blocks do not line up with its edges
// (offsets not multiples of 4) and whose cells spread over several value and
// height bins, so that the two tables differ in length and content.
void fillMap(GridMapLossy& map, int cols, int rows, unsigned salt) {
  GridMatrix& m = map.mutable_matrix();
  m.manualInit(0.15f, cols, rows, -5, 6);
  m.index_.assign(m.grid_size_, -1);
  m.cells_.clear();
  map.height_base_ = -2.0f;
  map.aux_value_base_ = 0.0f;
  map.header_tag_ = 7 + salt;
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < cols; ++x) {
      if ((x * 7 + y * 3 + salt) % 5 == 0) continue;
      const int k = static_cast<int>(m.cells_.size()) + static_cast<int>(salt);
      MCell c;
      c.value_mean[0] = static_cast<float>(20 + (k * 37) % 180);
      c.value_mean[1] = static_cast<float>(30 + (k * 11) % 200);
      c.value_sigma[0] = 1.0f + 0.5f * static_cast<float>(k % 5);
      c.value_sigma[1] = 2.0f + static_cast<float>(k % 3);
      c.value_weight[0] = static_cast<float>(1 + k % 3);
      c.value_weight[1] = 1.0f;
      c.height_mean[0] = -1.0f + 0.07f * static_cast<float>(k % 20);
      c.height_mean[1] = 0.3f + 0.05f * static_cast<float>(k % 9);
      c.height_sigma[0] = 0.05f + 0.01f * static_cast<float>(k % 6);
      c.height_sigma[1] = 0.1f + 0.02f * static_cast<float>(k % 4);
      c.height_weight[0] = 2.0f;
      c.height_weight[1] = static_cast<float>(1 + k % 2);
      c.aux_value = 0.5f + 0.01f * static_cast<float>(k % 50);
      m.index_[static_cast<std::size_t>(y * cols + x)] = static_cast<int>(m.cells_.size());
      m.cells_.push_back(c);
    }
  }
}

bool sameConfig(const MatrixConfig& c, const GridMatrixBase& m) {
  return c.resolution == m.resolution_ && c.grid_size == m.grid_size_ && c.cols == m.cols_ &&
         c.rows == m.rows_ && c.offset_x == m.offset_x_ && c.offset_y == m.offset_y_;
}

template <class T, class V>
bool sameBytes(const std::vector<T>& got, const V& want) {
  return got.size() == want.size() &&
         (got.empty() || std::memcmp(got.data(), want.data(), got.size() * sizeof(T)) == 0);
}

class ServerTest : public testing::Test {
 protected:
  void SetUp() override {
    stand_in::resetRecord();
    dir_ = fs::path(testing::TempDir()) /
           ("zv_server_" + std::to_string(::getpid()) + "_" +
            testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
    stand_in::resetRecord();
  }

  // Writes a map file and returns its path.
  std::string writeMap(const std::string& name, int cols, int rows, unsigned salt) {
    GridMapLossy map;
    fillMap(map, cols, rows, salt);
    const std::string path = (dir_ / name).string();
    CaptureStdout();
    const bool saved = map.saveToFile(path);
    GetCapturedStdout();
    EXPECT_TRUE(saved) << path;
    return path;
  }

  // The same file read by a map of our own, with its level-4 table.
  static void loadReference(const std::string& path, GridMapLossy& reference) {
    CaptureStdout();
    ASSERT_TRUE(reference.ReadFromFile(path));
    reference.generateMatrixTalbe(4);
    GetCapturedStdout();
  }

  const stand_in::Record& rec() { return stand_in::record(); }

  struct Outcome {
    std::string out;
    bool threw = false;
    unsigned code = 0;
    std::string what;
  };

  // Runs the configured start-up with standard output captured.
  static Outcome start(GridMapServer& server, const YAML::Node& node) {
    Outcome o;
    CaptureStdout();
    try {
      server.init(node);
    } catch (const runtime_error& e) {
      o.threw = true;
      o.code = e.code_;
      o.what = e.what();
    }
    o.out = GetCapturedStdout();
    return o;
  }

  fs::path dir_;
};

TEST_F(ServerTest, ConstructionNamesTheComponentAndPrintsNothing) {
  CaptureStdout();
  {
    GridMapServer server;
    EXPECT_EQ(server.name(), "GridMapServer");
    EXPECT_FALSE(server.isInitialized());
  }
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_TRUE(rec().calls.empty());
}

TEST_F(ServerTest, ConfigurationErrorsPrintTheirLinesAndThrow0x11803) {
  struct Case {
    const char* yaml;
    std::string out;
  };
  const std::string no_type = warning("type") + red("MapServer type not defined");
  const std::string wrong = red("Wrong MapServer type");
  const std::string no_path = warning("grid_map") + red("Map file path not defined");
  // Wrong or missing types come without "grid_map" on purpose: it must not be
  // read, or its warning would show.
  const Case cases[] = {
      {"grid_map: /maps/map_lossy.gridmap", no_type},
      {"type:\ngrid_map: /maps/map_lossy.gridmap", no_type},
      {"type: ~", no_type},
      {"type: null", no_type},
      {"{}", no_type},
      {"~", no_type},
      {"[GridMapServer]", no_type},
      {"type: gridmapserver", wrong},
      {"type: GRIDMAPSERVER", wrong},
      {"type: 'GridMapServer '", wrong},
      {"type: GridMapServerX", wrong},
      {"type: 42", wrong},
      {"type: GridMapServer", no_path},
      {"type: GridMapServer\ngrid_map:", no_path},
      {"type: GridMapServer\ngrid_map: ~", no_path},
      {"type: GridMapServer\nGrid_map: /maps/map_lossy.gridmap", no_path},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.yaml);
    GridMapServer server;
    const Outcome o = start(server, YAML::Load(c.yaml));
    EXPECT_TRUE(o.threw);
    EXPECT_EQ(o.code, 0x11803u);
    EXPECT_EQ(o.what, "0x11803");
    EXPECT_EQ(o.out, c.out);
  }
  EXPECT_TRUE(rec().calls.empty());
}

TEST_F(ServerTest, YamlExceptionsLeaveTheConfiguredStartUpUnchanged) {
  const YAML::Node host = YAML::Load("localizer: {rate: 10}\n");
  {
    GridMapServer server;
    CaptureStdout();
    EXPECT_THROW(server.init(YAML::Load("type: GridMapServer\ngrid_map: [a, b]")),
                 YAML::TypedBadConversion<std::string>);
    EXPECT_THROW(server.init(YAML::Load("type: {name: GridMapServer}")),
                 YAML::TypedBadConversion<std::string>);
    EXPECT_THROW(server.init(YAML::Load("GridMapServer")), YAML::BadSubscript);
    // A host that hands over the lookup of a section it does not have.
    EXPECT_THROW(server.init(host["map_server"]), YAML::InvalidNode);
    EXPECT_EQ(GetCapturedStdout(), "");
  }
  EXPECT_TRUE(rec().calls.empty());
}

TEST_F(ServerTest, LoadFailuresPrintTheLoaderLinesThenTheirOwnAndThrow0x11804) {
  const std::string good = writeMap("good.gridmap", 9, 7, 1);
  std::string bytes;
  {
    std::ifstream in(good, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  const std::string wrong_magic = (dir_ / "wrong_magic.gridmap").string();
  std::ofstream(wrong_magic, std::ios::binary) << "zvmaq" + bytes.substr(5);
  const std::string too_long = (dir_ / "too_long.gridmap").string();
  std::ofstream(too_long, std::ios::binary) << bytes + "x";
  const std::string missing = (dir_ / "missing" / "map_lossy.gridmap").string();

  struct Case {
    std::string path;
    std::string loader_lines;
  };
  const Case cases[] = {
      {missing, red("ReadFromFile : Cannot read file " + missing)},
      {wrong_magic, ""},
      {too_long, red("ReadFromFile : Map size is not same as raw data!")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    GridMapServer server;
    const Outcome o = start(server, section(c.path));
    EXPECT_TRUE(o.threw);
    EXPECT_EQ(o.code, 0x11804u);
    EXPECT_EQ(o.what, "0x11804");
    EXPECT_EQ(o.out, green(c.path) + c.loader_lines + red("Fail loading map into MapServer"));
  }
  EXPECT_TRUE(rec().calls.empty());
}

TEST_F(ServerTest, StartUpUploadsTheLoadedMatrixAndItsLevelFourTable) {
  const std::string path = writeMap("map_lossy.gridmap", 23, 17, 3);
  GridMapLossy reference;
  loadReference(path, reference);
  const GridMatrix& m = reference.matrix();
  const GridMatrixTable& t = reference.matrixTable(4);
  ASSERT_TRUE(m.precalculated_);

  GridMapServer server;
  const Outcome o = start(server, section(path));
  EXPECT_FALSE(o.threw) << o.what;
  EXPECT_EQ(o.out, green(path));
  EXPECT_FALSE(server.isInitialized());

  EXPECT_EQ(rec().callNames(), kFourCalls);
  ASSERT_EQ(rec().configs.size(), 1u);
  ASSERT_EQ(rec().coarse_configs.size(), 1u);
  EXPECT_TRUE(sameConfig(rec().configs[0], m));
  EXPECT_EQ(rec().configs[0].resolution, 0.15f);
  EXPECT_EQ(rec().configs[0].grid_size, 23u * 17u);
  EXPECT_TRUE(sameConfig(rec().coarse_configs[0], t));

  // Full resolution: prepared cells and the index, as loaded.
  EXPECT_EQ(rec().cell_count, static_cast<int>(m.cells_.size()));
  EXPECT_EQ(rec().index_count, static_cast<int>(m.index_.size()));
  EXPECT_EQ(rec().index_count, static_cast<int>(rec().configs[0].grid_size));
  EXPECT_TRUE(sameBytes(rec().cells, m.cells_));
  EXPECT_TRUE(sameBytes(rec().index, m.index_));

  // The table: height pair first, then the value pair, then grid_size records.
  EXPECT_EQ(rec().height_count, static_cast<int>(t.height_table_.size()));
  EXPECT_EQ(rec().value_count, static_cast<int>(t.value_table_.size()));
  EXPECT_TRUE(sameBytes(rec().height_table, t.height_table_));
  EXPECT_TRUE(sameBytes(rec().value_table, t.value_table_));
  EXPECT_TRUE(sameBytes(rec().coarse_cells, t.coarse_cells_));
  EXPECT_EQ(rec().coarse_cells.size(), rec().coarse_configs[0].grid_size);

  EXPECT_TRUE(rec().verdict.consistent());
  for (const std::string& p : rec().verdict.problems) ADD_FAILURE() << p;

  // The pointers lead into storage that the server keeps alive and
  // unchanged (a temporary copy would be gone by now; the sanitizer build
  // catches reading it).
  const auto stillThere = [](const void* at, const auto& copy) {
    return copy.empty() || std::memcmp(at, copy.data(), copy.size() * sizeof(copy[0])) == 0;
  };
  EXPECT_TRUE(stillThere(rec().cells_at, rec().cells));
  EXPECT_TRUE(stillThere(rec().index_at, rec().index));
  EXPECT_TRUE(stillThere(rec().height_table_at, rec().height_table));
  EXPECT_TRUE(stillThere(rec().value_table_at, rec().value_table));
  EXPECT_TRUE(stillThere(rec().coarse_cells_at, rec().coarse_cells));
}

TEST_F(ServerTest, ConfiguredPathIsUsedVerbatim) {
  writeMap("map_lossy.gridmap", 8, 8, 2);
  const fs::path before = fs::current_path();
  fs::current_path(dir_);
  GridMapServer server;
  const Outcome relative = start(server, section("map_lossy.gridmap"));
  GridMapServer other;
  const Outcome dotted = start(other, section("./sub/../map_lossy.gridmap"));
  fs::current_path(before);

  EXPECT_FALSE(relative.threw);
  EXPECT_EQ(relative.out, green("map_lossy.gridmap"));
  // No normalisation: the missing "sub" directory makes the path unreadable.
  EXPECT_TRUE(dotted.threw);
  EXPECT_EQ(dotted.out, green("./sub/../map_lossy.gridmap") +
                            red("ReadFromFile : Cannot read file ./sub/../map_lossy.gridmap") +
                            red("Fail loading map into MapServer"));
}

TEST_F(ServerTest, SecondStartUpReloadsTheMatrixButKeepsTheFirstTable) {
  const std::string first = writeMap("first.gridmap", 12, 9, 0);
  const std::string second = writeMap("second.gridmap", 16, 5, 4);
  GridMapLossy ref_first, ref_second;
  loadReference(first, ref_first);
  loadReference(second, ref_second);

  GridMapServer server;
  ASSERT_FALSE(start(server, section(first)).threw);
  const Outcome again = start(server, section(second));
  EXPECT_FALSE(again.threw);
  EXPECT_EQ(again.out, green(second));

  ASSERT_EQ(rec().calls.size(), 8u);
  ASSERT_EQ(rec().configs.size(), 2u);
  EXPECT_TRUE(sameConfig(rec().configs[1], ref_second.matrix()));
  EXPECT_TRUE(sameBytes(rec().index, ref_second.matrix().index_));
  EXPECT_TRUE(sameBytes(rec().cells, ref_second.matrix().cells_));
  // The cache keeps level 4 as built from the first map.
  ASSERT_EQ(rec().coarse_configs.size(), 2u);
  EXPECT_TRUE(sameConfig(rec().coarse_configs[1], ref_first.matrixTable(4)));
  EXPECT_TRUE(sameBytes(rec().coarse_cells, ref_first.matrixTable(4).coarse_cells_));
  EXPECT_TRUE(sameBytes(rec().height_table, ref_first.matrixTable(4).height_table_));
}

TEST_F(ServerTest, UploadFromAnUnloadedServerSendsDefaultsAndEmptyArrays) {
  GridMapServer server;
  CaptureStdout();
  EXPECT_TRUE(server.copyFullResMatrixGpu());
  EXPECT_TRUE(server.calcSubSampledMatrix(4));
  EXPECT_TRUE(server.calcSubSampledMatrix(4));
  EXPECT_TRUE(server.copySubSampledMatrixGpu(4));
  EXPECT_EQ(GetCapturedStdout(), "");

  EXPECT_EQ(rec().callNames(), kFourCalls);
  const MatrixConfig& c = rec().configs.at(0);
  EXPECT_EQ(c.resolution, 0.15f);
  EXPECT_EQ(c.grid_size, 0u);
  EXPECT_EQ(c.cols, 0);
  EXPECT_EQ(c.rows, 0);
  EXPECT_EQ(c.offset_x, 0);
  EXPECT_EQ(c.offset_y, 0);
  EXPECT_EQ(rec().cell_count, 0);
  EXPECT_EQ(rec().index_count, 0);
  EXPECT_EQ(rec().coarse_configs.at(0).grid_size, 0u);
  EXPECT_EQ(rec().height_count, 0);
  EXPECT_EQ(rec().value_count, 0);
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
  EXPECT_EXIT(
      {
        GridMapServer server;
        server.copySubSampledMatrixGpu(4);
      },
      testing::ExitedWithCode(255), "^map::at\n$");
}

}  // namespace
