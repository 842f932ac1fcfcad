#include "localization/grid_map_server.h"

#include <climits>
#include <cstdint>
#include <map>
#include <string>
#include <typeinfo>
#include <utility>

#include "common/console.h"
#include "gpu_aligner/gpu_aligner.h"
#include "localization/look_up_table.h"
#include "localization/matrix_config.h"
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

// What building a table at start-up may cost, in proportion to the loaded
// map (N cells, a file of 61 + 22 N bytes). A single 22-byte record can make
// its block's height histogram reach the 65,535-bin clip (an infinite or
// far height origin, a height sigma of some 50 m or more), so without a
// bound a file of a megabyte could ask for gigabytes and minutes. Real maps
// stay far inside: the synthetic 10 M-cell street map needs 23 bins and
// 254 bin evaluations per cell.
//  - Bins of both axes together at most kBinsPerCell * N + kFreeBins, i.e.
//    at most 58 bytes of table per file byte plus 64 MiB. A value histogram
//    holds at most 256 bins and a block at least one cell, so the value axis
//    alone never exceeds 256 N: the allowance beyond is for heights.
//  - Work, the bin evaluations of the fill pass, at most kWorkPerCell * N +
//    kFreeWork, i.e. the time grows by a bounded amount per cell (the value
//    axis again stays within 256 N of it).
//  - Neither sequence beyond INT_MAX elements: the GPU matcher takes its
//    sizes as int.
constexpr std::uint64_t kBinsPerCell = 320;
constexpr std::uint64_t kFreeBins = std::uint64_t{1} << 24;
constexpr std::uint64_t kWorkPerCell = 1024;
constexpr std::uint64_t kFreeWork = std::uint64_t{1} << 25;

bool withinStartUpBudget(const LookUpTableExtent& e, std::uint64_t cells) {
  const std::uint64_t int_max = INT_MAX;
  return e.value_bins <= int_max && e.height_bins <= int_max &&
         e.value_bins + e.height_bins <= kBinsPerCell * cells + kFreeBins && e.work <= kWorkPerCell * cells + kFreeWork;
}

// Sizes the GPU matcher takes as int; what does not fit is refused, never
// narrowed.
bool fitsInt(std::size_t n) { return n <= static_cast<std::size_t>(INT_MAX); }

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
  const auto key = static_cast<unsigned>(level);
  const GridMatrix& matrix = grid_map_->matrix();
  const std::uint64_t cells = matrix.cells_.size();
  const auto affordable = [cells](const LookUpTableExtent& extent) {
    return withinStartUpBudget(extent, cells);
  };
  std::map<unsigned, GridMatrixTable>& cache = grid_map_->matrix_tables_;
  if (cache.count(key) != 0) return true;
  if (typeid(*grid_map_) != typeid(GridMapLossy)) {
    // A map class of its own may generate its tables its own way: measure
    // first, then let it.
    if (!affordable(measureLookUpTable(matrix, static_cast<int>(key), grid_map_->height_step_,
                                       grid_map_->value_step_))) {
      return false;
    }
    grid_map_->generateMatrixTalbe(key);
    return true;
  }
  // What generateMatrixTalbe(key) does for GridMapLossy, with the budget
  // checked by the builder's own range pass before any bin is allocated, so
  // that the check costs start-up nothing.
  GridMatrixTable table;
  if (!buildLookUpTableWithin(matrix, static_cast<int>(key), grid_map_->height_step_,
                              grid_map_->value_step_, affordable, &table)) {
    return false;
  }
  cache.emplace(key, std::move(table));
  return true;
}

bool GridMapServer::copyFullResMatrixGpu() {
  const GridMatrix& matrix = grid_map_->matrix();
  if (!fitsInt(matrix.cells_.size()) || !fitsInt(matrix.index_.size())) return false;
  cudaSetMatrixConfig(matrixConfigOf(matrix));
  cudaSetMatrixCells(matrix.cells_.data(), static_cast<int>(matrix.cells_.size()),
                     matrix.index_.data(), static_cast<int>(matrix.index_.size()));
  return true;
}

bool GridMapServer::copySubSampledMatrixGpu(int level) {
  const GridMatrixTable& table = grid_map_->matrixTable(static_cast<unsigned>(level));
  if (!fitsInt(table.height_table_.size()) || !fitsInt(table.value_table_.size())) return false;
  cudaSetMatrixConfigCoarse(matrixConfigOf(table));
  // The matcher takes the height table first, although the table declares
  // the value table first.
  cudaSetMatrixCellsCoarse(table.height_table_.data(), static_cast<int>(table.height_table_.size()),
                           table.value_table_.data(), static_cast<int>(table.value_table_.size()),
                           table.coarse_cells_.data());
  return true;
}

}  // namespace localization
}  // namespace zorvane
