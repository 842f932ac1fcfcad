// init(), the fixed-path start-up, against a library whose compiled-in map
// path is ZV_TEST_FIXED_MAP_PATH. Absent and present are checked in one test
// because ctest may run tests in parallel and both use that one file.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "gpu_aligner/stand_in_record.h"
#include "localization/grid_map_lossy.h"
#include "localization/grid_map_server.h"

namespace {

namespace fs = std::filesystem;
namespace stand_in = zorvane::gpu_stand_in;
using zorvane::localization::GridMapLossy;
using zorvane::localization::GridMapServer;
using zorvane::localization::GridMatrix;
using zorvane::localization::MCell;
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
    c.value_mean[0] = static_cast<float>(10 + p);
    c.value_mean[1] = static_cast<float>(100 + p);
    c.value_sigma[0] = 2.0f;
    c.value_sigma[1] = 3.0f;
    c.value_weight[0] = 1.0f;
    c.value_weight[1] = 1.0f;
    c.height_mean[0] = 0.01f * static_cast<float>(p);
    c.height_mean[1] = 0.5f;
    c.height_sigma[0] = 0.1f;
    c.height_sigma[1] = 0.2f;
    c.height_weight[0] = 1.0f;
    c.height_weight[1] = 2.0f;
    m.index_[static_cast<std::size_t>(p)] = static_cast<int>(m.cells_.size());
    m.cells_.push_back(c);
  }
  fs::create_directories(fs::path(kPath).parent_path());
  CaptureStdout();
  const bool saved = map.saveToFile(kPath);
  GetCapturedStdout();
  ASSERT_TRUE(saved);
}

TEST(FixedPathStartUp, ResultFiveWhenTheMapIsAbsentAndZeroWhenPresent) {
  std::error_code ignored;
  fs::remove(kPath, ignored);
  stand_in::resetRecord();
  {
    GridMapServer server;
    CaptureStdout();
    EXPECT_EQ(server.init(), 5);
    // Only the loader speaks; init() itself prints nothing.
    EXPECT_EQ(GetCapturedStdout(), "\033[31mReadFromFile : Cannot read file " + kPath + "\033[0m\n");
    EXPECT_TRUE(stand_in::record().calls.empty());
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
    const stand_in::Record& r = stand_in::record();
    EXPECT_EQ(r.callNames(),
              (std::vector<std::string>{"cudaSetMatrixConfig", "cudaSetMatrixCells",
                                        "cudaSetMatrixConfigCoarse", "cudaSetMatrixCellsCoarse"}));
    ASSERT_EQ(r.configs.size(), 1u);
    EXPECT_EQ(r.configs[0].cols, 10);
    EXPECT_EQ(r.configs[0].rows, 6);
    EXPECT_EQ(r.configs[0].offset_x, 3);
    EXPECT_EQ(r.configs[0].offset_y, -2);
    EXPECT_EQ(r.index, std::vector<std::int32_t>(reference.matrix().index_.begin(),
                                                  reference.matrix().index_.end()));
    ASSERT_EQ(r.cells.size(), 20u);
    EXPECT_EQ(std::memcmp(r.cells.data(), reference.matrix().cells_.data(), 20 * sizeof(MCell)), 0);
    ASSERT_EQ(r.coarse_configs.size(), 1u);
    EXPECT_EQ(r.coarse_configs[0].grid_size, reference.matrixTable(4).grid_size_);
    EXPECT_EQ(r.coarse_cells.size(), reference.matrixTable(4).coarse_cells_.size());
    EXPECT_TRUE(r.verdict.consistent());
  }
  fs::remove(kPath, ignored);
  stand_in::resetRecord();
}

}  // namespace
