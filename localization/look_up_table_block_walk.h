// The coarse grid of a look-up table and the walk over one coarse
// position's block of grid positions: which grid positions it covers, which
// of them take part (inside the matrix, naming a cell), in which order they
// are visited, and the bin ranges their cells span.
#ifndef ZORVANE_LOCALIZATION_LOOK_UP_TABLE_BLOCK_WALK_H_
#define ZORVANE_LOCALIZATION_LOOK_UP_TABLE_BLOCK_WALK_H_

#include <algorithm>
#include <cstdint>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace localization {
namespace lut {

// Sets t's geometry and steps from matrix m and the builder's arguments, in
// single precision, with saturating conversions (look_up_table.h). Returns
// false, leaving grid_size_ 0, when the coarse grid has no position: cols_
// or rows_ below 1, or a product beyond 32 bits.
bool setTableGeometry(const GridMatrix& m, int factor, float height_step, float value_step, GridMatrixTable* t);

// Cache hint for the line holding p. (A plain __builtin_prefetch in a loop
// that does nothing else is deleted by the optimiser as a loop without
// effects; the volatile asm stays.)
inline void prefetch(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(p)));
#else
  __builtin_prefetch(p);
#endif
}

// The part of one coarse position's block that lies inside the matrix:
// grid columns x0 + a for a in [a_begin, a_end), rows y0 + b for b in
// [b_begin, b_end).
struct BlockWindow {
  std::int64_t x0 = 0, y0 = 0;
  std::int64_t a_begin = 0, a_end = 0;
  std::int64_t b_begin = 0, b_end = 0;
};

// Walks the blocks of the table `t` (its geometry set) over matrix `m`.
// Holds pointers into m: m must outlive the walker and stay unchanged.
class BlockWalker {
 public:
  BlockWalker(const GridMatrix& m, const GridMatrixTable& t, int factor);

  // The in-matrix part of coarse position (i, j)'s block; false when it is
  // empty (also for factor < 1 and for origins that overflow 64 bits).
  bool window(std::int64_t i, std::int64_t j, BlockWindow* w) const;

  // Calls fn(cell) for every taking-part cell of coarse position (i, j), in
  // block order (a, the column step, outer; b, the row step, inner). A
  // position takes part when its flat index lies inside index_ and its
  // entry is a cell number below cells_.size().
  template <class Fn>
  void forEachCell(std::int64_t i, std::int64_t j, Fn&& fn) const {
    BlockWindow w;
    if (!window(i, j, &w)) return;
    // Occupancy looks random to the branch predictor, so each column of
    // the block is first compacted into a list of its cells without
    // branching, a stretch of at most kStretch positions at a time.
    constexpr std::int64_t kStretch = 32;
    const MCell* found[kStretch];
    for (std::int64_t a = w.a_begin; a < w.a_end; ++a) {
      const std::int64_t x = w.x0 + a;
      // Rows whose flat position lies inside index_: y * cols_ + x < size.
      const std::int64_t indexed_rows = full_rows_ + (x < partial_columns_ ? 1 : 0);
      const std::int64_t b_end = std::min(w.b_end, indexed_rows - w.y0);
      for (std::int64_t b = w.b_begin; b < b_end; b += kStretch) {
        const std::int64_t stretch_end = std::min(b_end, b + kStretch);
        int count = 0;
        for (std::int64_t q = b; q < stretch_end; ++q) {
          const std::int32_t e = index_[(w.y0 + q) * cols_ + x];
          const bool valid = (e >= 0) & (e < cell_count_);
          found[count] = cells_ + (valid ? e : 0);
          count += valid;
        }
        for (int k = 0; k < count; ++k) {
          prefetch(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(found[k]) + kPrefetchBytes));
          fn(*found[k]);
        }
      }
    }
  }

 private:
  // Each visited cell hints the line kPrefetchBytes further on. A loaded
  // map stores its cells in flat order, so within one grid row of a row of
  // blocks the cells come in memory order: the hinted cell is met about ten
  // blocks later, on the same grid row, and no second walk of the index is
  // needed to find it. In another order the hint is only wasted (a hint
  // never faults, even beyond the array).
  static constexpr std::uintptr_t kPrefetchBytes = 16 * sizeof(MCell);
  const MCell* cells_;
  const std::int32_t* index_;
  std::int64_t cell_count_, index_size_;
  std::int64_t cols_, rows_;
  // index_ holds full_rows_ whole rows of cols_ entries and the first
  // partial_columns_ entries of one more row (0 <= partial_columns_ <
  // cols_), so that the walk finds a column's indexed rows without dividing.
  std::int64_t full_rows_ = 0, partial_columns_ = 0;
  int factor_;
  std::int64_t matrix_offset_x_, matrix_offset_y_;
  std::int64_t table_offset_x_, table_offset_y_;
};

// Bin ranges of one block: value bins [value_first, value_first + value_n),
// height bins likewise; n == 0 (with first 0) for an empty histogram. The
// value range is clamped to 0..255; the height range is clipped to its
// first kMaxHeightBins bins.
struct BlockRanges {
  std::int64_t value_first = 0, value_n = 0;
  std::int64_t height_first = 0, height_n = 0;
  std::int64_t cells = 0;  // taking-part cells
};
constexpr std::int64_t kMaxHeightBins = 65535;  // fits MCellCoarse::height_bins

// The range pass for coarse position (i, j): from the sentinels 10000 and
// -10000, every component of every taking-part cell widens the ranges by
// round((mean -/+ (sigma + sigma)) / step).
BlockRanges blockRanges(const BlockWalker& walker, std::int64_t i, std::int64_t j, float value_step, float height_step);

}  // namespace lut
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOOK_UP_TABLE_BLOCK_WALK_H_
