#include "localization/grid_matrix.h"

#include <omp.h>

#include <cmath>
#include <limits>

#include "localization/cell_preparation.h"
#include "localization/parallel_split.h"

namespace zorvane {
namespace localization {
namespace {

// The four sigmas in the order both checks visit them.
inline float* sigmaField(MCell& cell, int i) {
  switch (i) {
    case 0: return &cell.value_sigma[0];
    case 1: return &cell.value_sigma[1];
    case 2: return &cell.height_sigma[0];
    default: return &cell.height_sigma[1];
  }
}

}  // namespace

GridMatrixBase::~GridMatrixBase() = default;

void GridMatrixBase::manualInit(const float& resolution, const int& cols, const int& rows,
                                const int& offset_x, const int& offset_y) {
  resolution_ = resolution;
  cols_ = cols;
  rows_ = rows;
  offset_x_ = offset_x;
  offset_y_ = offset_y;
  // Unsigned multiplication: wraps instead of overflowing.
  grid_size_ = static_cast<std::uint32_t>(cols) * static_cast<std::uint32_t>(rows);
}

void GridMatrix::runPreCalc() {
  if (precalculated_) return;
  if (cells_.empty() || index_.empty()) return;

  MCell* const cells = cells_.data();
  const std::int64_t n = static_cast<std::int64_t>(cells_.size());
#pragma omp parallel
  {
    const WorkRange range = staticSplit(n, omp_get_num_threads(), omp_get_thread_num());
    for (std::int64_t i = range.begin; i < range.end; ++i) internal::prepareCell(cells[i]);
  }
  precalculated_ = true;
}

bool GridMatrix::runPreCheck(MCell& cell) {
  constexpr float kLargest = std::numeric_limits<float>::max();
  for (int i = 0; i < 4; ++i) {
    const float s = *sigmaField(cell, i);
    const float square = s * s;
    // Written so that NaN fails as well as overflow.
    if (!(std::fabs(square) <= kLargest)) return true;
  }
  return false;
}

bool GridMatrix::runPreCheckSmall(MCell& cell) {
  constexpr double kMinimum = 0.005;
  bool changed = false;
  for (int i = 0; i < 4; ++i) {
    float& s = *sigmaField(cell, i);
    if (static_cast<double>(s) < kMinimum) {
      s = static_cast<float>(kMinimum);
      changed = true;
    }
  }
  return changed;
}

}  // namespace localization
}  // namespace zorvane
