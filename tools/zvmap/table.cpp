// zvmap table: the look-up table the server would build, timed, and
// optionally compared with the plain evaluation of its arithmetic.
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>

#include "localization/grid_map_lossy.h"
#include "tools/reference/plain_look_up_table.h"
#include "tools/zvmap/commands.h"
#include "tools/zvmap/console.h"
#include "tools/zvmap/map_loading.h"

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

using localization::GridMatrixTable;
using localization::MCellCoarse;
using localization::MapVector;

// Same bits, except that any NaN equals any NaN: where a bin is NaN its
// sign and payload are not part of the builder's result.
bool sameBits(float a, float b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Index of the first differing bin, or -1 when the sequences match.
std::int64_t firstDifference(const MapVector<float>& a, const MapVector<float>& b) {
  if (a.size() != b.size()) return static_cast<std::int64_t>(std::min(a.size(), b.size()));
  for (std::size_t k = 0; k < a.size(); ++k) {
    if (!sameBits(a[k], b[k])) return static_cast<std::int64_t>(k);
  }
  return -1;
}

std::int64_t firstDifference(const MapVector<MCellCoarse>& a, const MapVector<MCellCoarse>& b) {
  if (a.size() != b.size()) return static_cast<std::int64_t>(std::min(a.size(), b.size()));
  for (std::size_t k = 0; k < a.size(); ++k) {
    if (std::memcmp(&a[k], &b[k], sizeof(MCellCoarse)) != 0) return static_cast<std::int64_t>(k);
  }
  return -1;
}

// What differs between the two tables, or an empty string.
std::string compareTables(const GridMatrixTable& fast, const GridMatrixTable& plain) {
  const bool same_geometry =
      sameBits(fast.resolution_, plain.resolution_) && fast.grid_size_ == plain.grid_size_ &&
      fast.cols_ == plain.cols_ && fast.rows_ == plain.rows_ && fast.offset_x_ == plain.offset_x_ &&
      fast.offset_y_ == plain.offset_y_ && sameBits(fast.height_step_, plain.height_step_) &&
      sameBits(fast.value_step_, plain.value_step_) && sameBits(fast.prob_scale_, plain.prob_scale_) &&
      sameBits(fast.prob_floor_, plain.prob_floor_);
  if (!same_geometry) return "geometry or parameters differ";
  std::int64_t at = firstDifference(fast.coarse_cells_, plain.coarse_cells_);
  if (at >= 0) return "coarse record " + std::to_string(at) + " differs";
  at = firstDifference(fast.value_table_, plain.value_table_);
  if (at >= 0) return "value bin " + std::to_string(at) + " differs";
  at = firstDifference(fast.height_table_, plain.height_table_);
  if (at >= 0) return "height bin " + std::to_string(at) + " differs";
  return "";
}

}  // namespace

int runTable(const TableOptions& options) {
  if (options.threads > 0) omp_set_num_threads(options.threads);
  localization::GridMapLossy map;
  if (!loadOrFail(options.map, /*prepare=*/true, &map)) return kExitFailed;
  const localization::GridMatrix& m = map.matrix();
  const auto start = std::chrono::steady_clock::now();
  GridMatrixTable table;
  {
    Progress progress("table: building level " + std::to_string(options.level), 0);
    table = m.getLookUpTable(options.level, map.height_step_, map.value_step_);
  }
  const double seconds = secondsSince(start);

  std::int64_t largest_value = 0, largest_height = 0;
  for (const MCellCoarse& rec : table.coarse_cells_) {
    largest_value = std::max<std::int64_t>(largest_value, rec.value_bins);
    largest_height = std::max<std::int64_t>(largest_height, rec.height_bins);
  }
  const auto value_bins = static_cast<std::int64_t>(table.value_table_.size());
  const auto height_bins = static_cast<std::int64_t>(table.height_table_.size());
  const std::int64_t bytes = 4 * (value_bins + height_bins) + 16 * static_cast<std::int64_t>(table.coarse_cells_.size());
  int threads = 1;
#pragma omp parallel
  {
#pragma omp single
    threads = omp_get_num_threads();
  }
  std::cout << "map             " << options.map << ": " << m.cells_.size() << " cells on " << m.cols_ << " x "
            << m.rows_ << " positions\n"
            << "level           " << options.level << " (height step " << formatFloat(map.height_step_)
            << ", value step " << formatFloat(map.value_step_) << ")\n"
            << "coarse grid     " << table.cols_ << " x " << table.rows_ << " = " << table.grid_size_
            << " positions, offset x " << table.offset_x_ << " y " << table.offset_y_ << ", resolution "
            << formatFloat(table.resolution_) << "\n"
            << "value bins      " << value_bins << " (largest " << largest_value << " per position)\n"
            << "height bins     " << height_bins << " (largest " << largest_height << " per position)\n"
            << "table size      " << bytes << " bytes (" << formatBytes(static_cast<double>(bytes)) << ")\n"
            << "build time      " << formatFixed(seconds, 3) << " s on " << threads << " threads\n";

  if (!options.check_plain) return kExitOk;
  std::string difference;
  double plain_seconds = 0.0;
  {
    Progress progress("table: plain evaluation", 0);
    const auto plain_start = std::chrono::steady_clock::now();
    const GridMatrixTable plain = reference::plainLookUpTable(m, options.level, map.height_step_, map.value_step_);
    plain_seconds = secondsSince(plain_start);
    difference = compareTables(table, plain);
  }
  if (!difference.empty()) {
    std::cout << "plain check     MISMATCH: " << difference << "\n";
    return fail(options.map, "the level-" + std::to_string(options.level) +
                                 " table differs from the plain evaluation: " + difference);
  }
  std::cout << "plain check     every bit matches (" << formatFixed(plain_seconds, 3) << " s)\n";
  return kExitOk;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
