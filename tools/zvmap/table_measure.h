// The size of a look-up table, worked out from a matrix without building
// it: the coarse geometry and each coarse position's bin counts, as
// GridMatrix::getLookUpTable sizes them in its range pass
// (localization/look_up_table.h). Used to warn about tables that would be
// huge or clipped, and to picture bin counts.
#ifndef ZORVANE_TOOLS_ZVMAP_TABLE_MEASURE_H_
#define ZORVANE_TOOLS_ZVMAP_TABLE_MEASURE_H_

#include <cstdint>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace tools {
namespace zvmap {

// The height bins the builder keeps of a wider range.
constexpr std::int64_t kMaxHeightBins = 65535;

// Bin counts of one coarse position. The height count is the builder's
// (clipped to kMaxHeightBins); `height_wanted` is the width of the range
// before the clip.
struct BlockBins {
  std::int64_t cells = 0;  // taking-part cells of the block
  std::int64_t value = 0;
  std::int64_t height = 0;
  std::int64_t height_wanted = 0;
};

// Computes the bin counts of the blocks of one coarse grid.
class TableMeasure {
 public:
  // `matrix` in raw or prepared form (precalculated_ says which; raw
  // sigmas are prepared on the fly with the library's arithmetic). Steps
  // as passed to getLookUpTable. The matrix must outlive the measure.
  TableMeasure(const localization::GridMatrix& matrix, int factor, float height_step, float value_step);

  const localization::GridMatrixBase& coarse() const { return coarse_; }

  // Bins of coarse position (i, j), 0 <= i < coarse cols_, 0 <= j < rows_.
  BlockBins block(std::int32_t i, std::int32_t j) const;

 private:
  const localization::GridMatrix& matrix_;
  int factor_;
  float height_step_;
  float value_step_;
  localization::GridMatrixBase coarse_;
};

// Totals over a whole table.
struct TableSize {
  localization::GridMatrixBase coarse;
  std::int64_t value_bins = 0;
  std::int64_t height_bins = 0;
  std::int64_t largest_value = 0;
  std::int64_t largest_height = 0;
  std::int64_t largest_height_wanted = 0;  // before the clip
  std::int32_t largest_height_i = 0;       // coarse position of largest_height_wanted
  std::int32_t largest_height_j = 0;
  std::int64_t clipped_blocks = 0;         // blocks whose height range was clipped
  // Bytes of the table: 4 per bin and 16 per coarse record.
  std::int64_t bytes() const;
};

// Measures the whole table, calling `progress(done_columns)` now and then
// when given.
TableSize measureTable(const localization::GridMatrix& matrix, int factor, float height_step,
                       float value_step, void (*progress)(void*, std::int64_t) = nullptr,
                       void* progress_context = nullptr);

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_TABLE_MEASURE_H_
