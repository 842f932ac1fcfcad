#include "tools/zvmap/cell_fields.h"

#include <algorithm>
#include <cmath>

namespace zorvane {
namespace tools {
namespace zvmap {

using localization::MCell;

const std::array<const char*, kCellFields> kCellFieldNames = {
    "value_sigma[0]",  "value_sigma[1]",  "value_mean[0]",   "value_mean[1]",  "value_weight[0]",
    "value_weight[1]", "height_sigma[0]", "height_sigma[1]", "height_mean[0]", "height_mean[1]",
    "height_weight[0]", "height_weight[1]", "aux_value"};

float cellField(const MCell& cell, int f) {
  switch (f) {
    case 0: return cell.value_sigma[0];
    case 1: return cell.value_sigma[1];
    case 2: return cell.value_mean[0];
    case 3: return cell.value_mean[1];
    case 4: return cell.value_weight[0];
    case 5: return cell.value_weight[1];
    case 6: return cell.height_sigma[0];
    case 7: return cell.height_sigma[1];
    case 8: return cell.height_mean[0];
    case 9: return cell.height_mean[1];
    case 10: return cell.height_weight[0];
    case 11: return cell.height_weight[1];
    default: return cell.aux_value;
  }
}

float fieldQuantum(int f) {
  switch (f) {
    case 2:
    case 3:
      return 1.0f;
    case 4:
    case 5:
    case 10:
    case 11:
      return 1.0f / 255.0f;
    default:
      return 0.01f;
  }
}

void FieldStats::add(float v) {
  if (!std::isfinite(v)) {
    ++non_finite;
    return;
  }
  const double d = v;
  if (finite == 0) {
    min = max = d;
  } else {
    min = std::min(min, d);
    max = std::max(max, d);
  }
  sum += d;
  ++finite;
}

std::array<FieldStats, kCellFields> cellFieldStats(const localization::GridMatrix& matrix) {
  std::array<FieldStats, kCellFields> stats;
  for (const MCell& cell : matrix.cells_) {
    for (int f = 0; f < kCellFields; ++f) stats[f].add(cellField(cell, f));
  }
  return stats;
}

float valueMixtureMean(const MCell& cell) {
  return cell.value_weight[0] * cell.value_mean[0] + cell.value_weight[1] * cell.value_mean[1];
}

float heightMixtureMean(const MCell& cell) {
  return cell.height_weight[0] * cell.height_mean[0] + cell.height_weight[1] * cell.height_mean[1];
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
