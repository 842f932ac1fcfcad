// init(), the fixed-path start-up, against a library whose compiled-in map
// path is ZV_TEST_FIXED_MAP_PATH. Absent and present are checked in one test
// because ctest may run tests in parallel and both use that one file.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "gpu_aligner_stand_in/stand_in_record.h"
#include "localization/grid_map_lossy.h"
#include "localization/grid_map_server.h"

namespace {

namespace fs = std::filesystem;
namespace stand_in = zorvane::gpu_stand_in;
using namespace zorvane::localization;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const std::string kPath = ZV_TEST_FIXED_MAP_PATH;

void writeFixedMap() {
  GridMapLossy map;
  GridMatrix& m = map.mutable_matrix();
  m.manualInit(0.15f, 10, 6, 3, -2);
  m.index_.assign(m.grid_size_, -1);
  map.height_base_ = -1.0f;
  map.aux_value_base_ = 0.0f;
  for (int p = 0; p < 60; p += 3) {
    MCell c;
    for (float* f : {c.value_sigma, c.value_weight, c.height_weight}) f[0] = f[1] = 2.0f;
    c.value_mean[0] = static_cast<float>(10 + p);
    c.height_mean[0] = 0.01f * static_cast<float>(p);
    c.height_sigma[0] = c.height_sigma[1] = 0.1f;
    m.index_[static_cast<std::size_t>(p)] = static_cast<int>(m.cells_.size());
    m.cells_.push_back(c);
  }
  fs::create_directories(fs::path(kPath).parent_path());
  CaptureStdout();
  EXPECT_TRUE(map.saveToFile(kPath));
  GetCapturedStdout();
}

TEST(FixedPathStartUp, ResultFiveWhenTheMapIsAbsentAndZeroWhenPresent) {
  std::error_code ignored;
  fs::remove(kPath, ignored);
  stand_in::resetRecord();
  const stand_in::Record& r = stand_in::record();
  {
    GridMapServer server;
    CaptureStdout();
    EXPECT_EQ(server.init(), 5);
    // Only the loader speaks; init() itself prints nothing.
    EXPECT_EQ(GetCapturedStdout(), "\033[31mReadFromFile : Cannot read file " + kPath + "\033[0m\n");
    EXPECT_TRUE(r.calls.empty());
  }

  writeFixedMap();
  GridMapLossy reference;
  CaptureStdout();
  ASSERT_TRUE(reference.ReadFromFile(kPath));
  reference.generateMatrixTalbe(4);
  GetCapturedStdout();
  {
    GridMapServer server;
    CaptureStdout();
    EXPECT_EQ(server.init(), 0);
    EXPECT_EQ(GetCapturedStdout(), "");
  }
  // What reaches the matcher is the file's matrix and its level-4 table.
  EXPECT_EQ(r.calls.size(), 4u);
  ASSERT_TRUE(r.configs.size() == 1 && r.coarse_configs.size() == 1);
  const MatrixConfig& c = r.configs[0];
  EXPECT_EQ(std::make_tuple(c.cols, c.rows, c.offset_x, c.offset_y), std::make_tuple(10, 6, 3, -2));
  EXPECT_TRUE(r.index.holds(reference.matrix().index_) && r.cells.holds(reference.matrix().cells_));
  EXPECT_TRUE(r.coarse_cells.holds(reference.matrixTable(4).coarse_cells_));
  EXPECT_TRUE(r.verdict.consistent());
  fs::remove(kPath, ignored);
  stand_in::resetRecord();
}

}  // namespace
