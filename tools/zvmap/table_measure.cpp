#include "tools/zvmap/table_measure.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "tools/reference/plain_look_up_table.h"

namespace zorvane {
namespace tools {
namespace zvmap {

using localization::GridMatrix;
using localization::MCell;
using reference::plainRoundToInt32;

TableMeasure::TableMeasure(const GridMatrix& matrix, int factor, float height_step, float value_step)
    : matrix_(matrix),
      factor_(factor),
      height_step_(height_step),
      value_step_(value_step),
      coarse_(reference::plainCoarseGeometry(matrix, factor)) {}

BlockBins TableMeasure::block(std::int32_t i, std::int32_t j) const {
  BlockBins bins;
  const std::int64_t f = factor_;
  const std::int64_t x0 = (static_cast<std::int64_t>(i) - coarse_.offset_x_) * f + matrix_.offset_x_;
  const std::int64_t y0 = (static_cast<std::int64_t>(j) - coarse_.offset_y_) * f + matrix_.offset_y_;
  const std::int64_t x_from = std::max<std::int64_t>(x0, 0);
  const std::int64_t x_to = std::min<std::int64_t>(x0 + f, matrix_.cols_);
  const std::int64_t y_from = std::max<std::int64_t>(y0, 0);
  const std::int64_t y_to = std::min<std::int64_t>(y0 + f, matrix_.rows_);
  const bool raw = !matrix_.precalculated_;
  const auto index_size = static_cast<std::int64_t>(matrix_.index_.size());
  const auto cell_count = static_cast<std::int64_t>(matrix_.cells_.size());

  std::int32_t value_low = 10000, value_high = -10000;
  std::int32_t height_low = 10000, height_high = -10000;
  for (std::int64_t x = x_from; x < x_to; ++x) {
    for (std::int64_t y = y_from; y < y_to; ++y) {
      const std::int64_t flat = y * matrix_.cols_ + x;
      if (flat >= index_size) continue;
      const std::int32_t c = matrix_.index_[static_cast<std::size_t>(flat)];
      if (c < 0 || c >= cell_count) continue;
      const MCell& cell = matrix_.cells_[static_cast<std::size_t>(c)];
      ++bins.cells;
      for (int k = 0; k < 2; ++k) {
        float vs = cell.value_sigma[k], hs = cell.height_sigma[k];
        if (raw) {  // the prepared spread 2 s^2, as runPreCalc computes it
          vs = vs * (vs + vs);
          hs = hs * (hs + hs);
        }
        value_low = std::min(value_low, plainRoundToInt32((cell.value_mean[k] - (vs + vs)) / value_step_));
        value_high = std::max(value_high, plainRoundToInt32((cell.value_mean[k] + (vs + vs)) / value_step_));
        height_low = std::min(height_low, plainRoundToInt32((cell.height_mean[k] - (hs + hs)) / height_step_));
        height_high = std::max(height_high, plainRoundToInt32((cell.height_mean[k] + (hs + hs)) / height_step_));
      }
    }
  }
  if (bins.cells == 0) return bins;
  const std::int64_t value_first = std::max<std::int32_t>(value_low, 0);
  const std::int64_t value_last = std::min<std::int32_t>(value_high, 255);
  bins.value = std::max<std::int64_t>(value_last - value_first + 1, 0);
  bins.height_wanted = std::max<std::int64_t>(static_cast<std::int64_t>(height_high) - height_low + 1, 0);
  bins.height = std::min(bins.height_wanted, kMaxHeightBins);
  return bins;
}

std::int64_t TableSize::bytes() const {
  return 4 * (value_bins + height_bins) + 16 * static_cast<std::int64_t>(coarse.grid_size_);
}

TableSize measureTable(const GridMatrix& matrix, int factor, float height_step, float value_step,
                       void (*progress)(void*, std::int64_t), void* progress_context) {
  const TableMeasure measure(matrix, factor, height_step, value_step);
  TableSize size;
  size.coarse = measure.coarse();
  if (size.coarse.grid_size_ == 0) return size;
  for (std::int32_t i = 0; i < size.coarse.cols_; ++i) {
    for (std::int32_t j = 0; j < size.coarse.rows_; ++j) {
      const BlockBins b = measure.block(i, j);
      size.value_bins += b.value;
      size.height_bins += b.height;
      size.largest_value = std::max(size.largest_value, b.value);
      size.largest_height = std::max(size.largest_height, b.height);
      if (b.height_wanted > size.largest_height_wanted) {
        size.largest_height_wanted = b.height_wanted;
        size.largest_height_i = i;
        size.largest_height_j = j;
      }
      if (b.height_wanted > b.height) ++size.clipped_blocks;
    }
    if (progress != nullptr) progress(progress_context, i + 1);
  }
  return size;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
