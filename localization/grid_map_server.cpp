#include "localization/grid_map_server.h"

#include <string>

#include "common/console.h"
#include "gpu_aligner/gpu_aligner.h"
#include "localization/runtime_error.h"

#ifndef ZV_DEFAULT_MAP_PATH
#error "ZV_DEFAULT_MAP_PATH must name the map file of the fixed-path start-up"
#endif

namespace zorvane {
namespace localization {
namespace {

// The one pattern of every start-up failure: the reason in red on standard
// output, then the coded exception that tells the host only the class.
[[noreturn]] void failStartup(const char* message, unsigned code) {
  common::printRedLine(message);
  throw runtime_error(code);
}

MatrixConfig configOf(const GridMatrixBase& m) {
  MatrixConfig config;
  config.resolution = m.resolution_;
  config.grid_size = m.grid_size_;
  config.cols = m.cols_;
  config.rows = m.rows_;
  config.offset_x = m.offset_x_;
  config.offset_y = m.offset_y_;
  return config;
}

}  // namespace

GridMapServer::GridMapServer() : grid_map_(std::make_shared<GridMapLossy>()) {
  name_ = "GridMapServer";
}

GridMapServer::~GridMapServer() = default;

void GridMapServer::init(const YAML::Node& node) {
  std::string type;
  if (!yamlRead(node, "type", type)) failStartup("MapServer type not defined", kConfigError);
  if (type != "GridMapServer") failStartup("Wrong MapServer type", kConfigError);

  std::string path;
  if (!yamlRead(node, "grid_map", path)) failStartup("Map file path not defined", kConfigError);

  common::printGreenLine("[MapServer]: Load from file: " + path);
  if (!grid_map_->ReadFromFile(path)) failStartup("Fail loading map into MapServer", kLoadError);
  if (!calcSubSampledMatrix(kUploadLevel)) {
    failStartup("Fail loading map into MapServer", kLoadError);
  }
  if (!copyFullResMatrixGpu()) failStartup("Fail loading map into MapServer", kLoadError);
  if (!copySubSampledMatrixGpu(kUploadLevel)) {
    failStartup("Fail loading map into MapServer", kLoadError);
  }
}

int GridMapServer::init() {
  if (!loadFullResMap()) return 5;
  if (!calcSubSampledMatrix(kUploadLevel)) return 6;
  if (!copyFullResMatrixGpu()) return 7;
  if (!copySubSampledMatrixGpu(kUploadLevel)) return 8;
  return 0;
}

bool GridMapServer::loadFullResMap() { return grid_map_->ReadFromFile(ZV_DEFAULT_MAP_PATH); }

bool GridMapServer::calcSubSampledMatrix(int level) {
  grid_map_->generateMatrixTalbe(static_cast<unsigned>(level));
  return true;
}

bool GridMapServer::copyFullResMatrixGpu() {
  const GridMatrix& matrix = grid_map_->matrix();
  cudaSetMatrixConfig(configOf(matrix));
  cudaSetMatrixCells(matrix.cells_.data(), static_cast<int>(matrix.cells_.size()),
                     matrix.index_.data(), static_cast<int>(matrix.index_.size()));
  return true;
}

bool GridMapServer::copySubSampledMatrixGpu(int level) {
  const GridMatrixTable& table = grid_map_->matrixTable(static_cast<unsigned>(level));
  cudaSetMatrixConfigCoarse(configOf(table));
  // The matcher takes the height table first, although the table declares
  // the value table first.
  cudaSetMatrixCellsCoarse(table.height_table_.data(), static_cast<int>(table.height_table_.size()),
                           table.value_table_.data(), static_cast<int>(table.value_table_.size()),
                           table.coarse_cells_.data());
  return true;
}

}  // namespace localization
}  // namespace zorvane
