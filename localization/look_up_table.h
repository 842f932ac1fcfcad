// Contract of GridMatrix::getLookUpTable (declared in grid_matrix.h), the
// builder of sub-sampled look-up tables.
//
//   GridMatrixTable GridMatrix::getLookUpTable(int factor, float height_step,
//                                              float value_step) const;
//
// Reads the matrix, never changes it, and returns a new table by value (the
// three sequences are moved out, never copied). Preconditions: factor >= 1,
// both steps > 0 and finite, the matrix filled and prepared (runPreCalc),
// its cells finite, index_ holding grid_size_ entries that are -1 or valid
// cell numbers. Inputs outside them are handled as stated at the end.
//
// Result
// ------
// Unprepared matrix (precalculated_ false): the default-constructed table
// (resolution_ 0.15, geometry 0, sequences empty, both steps 0, prob_scale_
// 0.9f, prob_floor_ 0.001f), whatever the arguments.
//
// Geometry, F = (float)factor, every operation in single precision:
//   resolution_ = matrix resolution_ * F
//   cols_ = ceil(matrix cols_ / F), rows_ = ceil(matrix rows_ / F)
//   offset_x_ = floor(matrix offset_x_ / F), offset_y_ likewise (a negative
//     offset rounds towards minus infinity)
//   grid_size_ = cols_ * rows_; height_step_, value_step_ = the arguments.
//
// Coarse position (i, j), flat p = j * cols_ + i, covers the grid positions
// (x0 + a, y0 + b), a, b = 0 .. factor - 1, with
//   x0 = (i - offset_x_) * factor + matrix offset_x_, y0 likewise,
// i.e. blocks are aligned on the map-wide grid, edge blocks may be partial.
// A position takes part when it lies in the matrix and its index_ entry names
// a cell. "Block order" is a (column step) outer, b (row step) inner.
//
// Bin ranges. Starting from low 10000 / high -10000 on each axis, every
// component c of every taking-part cell widens the range by
//   round((mean[c] -/+ (sigma[c] + sigma[c])) / step)
// (single precision, halves away from zero; sigma is the prepared 2s^2).
// Value bins are clamped to 0..255, height bins are not. n = last - first + 1;
// n < 1 stores nothing. A block without taking-part cells stores nothing.
//
// Bin values. Bin k stands for z = (float)k * step. Its value starts at +0
// and, for every taking-part cell in block order and component 0 then 1,
// grows by weight[c] * exp(-(z - mean[c])^2 / sigma[c]) in single precision
// (std::exp on float). Normalisation: S = sum of the n bins in ascending
// order from 0; each bin v becomes log((v / S) * prob_scale_ + prob_floor_).
//
// Assembly. Records in flat coarse order; value_bins / height_bins = n,
// value_first / height_first = low 16 bits of the first bin index
// (declared int16_t, so a negative height index reads back as itself, -3 is
// 0xFFFD), each
// offset = the running sum of the earlier records' counts on that axis; an
// empty histogram stores count 0, first 0 and the running offset.
//
// Our decisions where the arithmetic alone does not settle the result
// -----------------------------------------------------------------
// - Steps of the empty table: 0, 0 (default construction).
// - Height ranges wider than 65535 bins are clipped to their first 65535 bins
//   (first bin kept, last = first + 65534); the normalisation runs over the
//   stored bins only. Every count therefore fits its 16-bit field and the
//   offsets advance by exactly the stored counts. This covers both very wide
//   spreads and blocks pulled apart by the +-10000 sentinels.
// - A histogram whose bin sum S is exactly 0 (all of its mass underflows,
//   e.g. a lone cell whose spread is far narrower than a bin) stores
//   log(prob_floor_) in every bin instead of the NaN that 0 / 0 would give:
//   "no information" at the floor probability.
// - A table whose value or height sequence would exceed 2^32 - 1 bins cannot
//   be addressed by the 32-bit offsets; it is refused like an allocation
//   that cannot be satisfied (std::bad_alloc), before any parallel work.
// - Memory exhaustion while sizing the records, the sequences or the
//   per-thread working memory raises std::bad_alloc to the caller. Nothing
//   is allocated inside the parallel region and no exception can leave it.
//
// Inputs outside the preconditions
// --------------------------------
// The builder never invokes undefined behaviour, never reads or writes
// outside the matrix's or its own arrays, and its work and memory are
// bounded by the matrix size, the coarse grid and the 65535-bin clip:
// - Every float-to-integer conversion (coarse cols_/rows_/offsets, bin
//   bounds) saturates to the int32 range; NaN converts to 0. So an infinite
//   height mean (a map saved with +inf origins) gives a bin bound of
//   INT32_MIN or INT32_MAX, and the clip bounds the histogram.
// - A coarse cols_ or rows_ of 0 or less, or a product cols_ * rows_ beyond
//   the 32-bit range, gives grid_size_ 0: no records and empty sequences
//   (the six geometry fields keep their computed values). Both extents
//   negative thus do not wrap into a huge positive grid.
// - factor < 1: no bins are stored anywhere. factor 0 makes F = 0, whose
//   saturated geometry holds no records; a negative factor can give
//   records, all with count 0.
// - Block origins are computed in 64-bit arithmetic with overflow checks; a
//   block whose origin cannot be represented lies outside the matrix.
// - Only the part of a block that lies inside the matrix is visited, so a
//   huge factor costs no more than the matrix itself.
// - A position whose flat index is beyond index_.size(), or whose entry is
//   negative or not below cells_.size(), does not take part.
// - Non-finite cell numbers and non-positive or non-finite steps follow the
//   arithmetic above (with the conversions above); their bins may hold NaN
//   or infinities. A zero prepared spread with its infinite weight gives
//   NaN bins, exactly as the arithmetic says. Where a bin is NaN, its sign
//   and payload are not part of the result (the compiler may order the
//   operands of a NaN-producing operation either way); every other bit is.
//
// Threads: the block pass runs in OpenMP parallel regions with the default
// team (a range pass that sizes every histogram, then a fill pass that
// writes them into place; large tables are also faulted in by the team),
// each handing rows of coarse positions to its threads a few at a time.
// Every histogram depends on its own block alone, so the order in which
// blocks are visited is not part of the result. All
// regions have joined before the call returns. The result is identical,
// bit for bit, for any number of threads.
#ifndef ZORVANE_LOCALIZATION_LOOK_UP_TABLE_H_
#define ZORVANE_LOCALIZATION_LOOK_UP_TABLE_H_

#include <cstdint>
#include <functional>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace localization {

// What getLookUpTable(factor, height_step, value_step) would build from
// `matrix`, found without building it: one parallel pass over the blocks
// (the builder's own range pass), no allocation beyond the team's.
struct LookUpTableExtent {
  std::uint64_t records = 0;      // grid_size_ of the table
  std::uint64_t value_bins = 0;   // elements of value_table_
  std::uint64_t height_bins = 0;  // elements of height_table_
  // Bin evaluations: over every block, (value bins + height bins) times the
  // block's taking-part cells. The fill pass's time is proportional to it.
  std::uint64_t work = 0;
};
// An unprepared matrix, or one whose coarse grid is empty, gives all zeros.
// The same preconditions as getLookUpTable; the counts are exact.
LookUpTableExtent measureLookUpTable(const GridMatrix& matrix, int factor, float height_step, float value_step);

// getLookUpTable with a say before the bins are allocated: the range pass
// measures the table (exactly as measureLookUpTable would) and hands the
// extent to `accept`. When it returns true the table is built into *table,
// bit for bit what getLookUpTable returns, and the result is true. When it
// returns false nothing beyond the coarse records (16 bytes per coarse
// position) has been allocated or computed, *table holds the geometry and
// records only, and the result is false. An unprepared matrix or an empty
// coarse grid is offered the all-zero extent. Unlike getLookUpTable, a
// table beyond the 32-bit offsets is first offered to `accept` (which
// should refuse it; otherwise std::bad_alloc).
bool buildLookUpTableWithin(const GridMatrix& matrix, int factor, float height_step, float value_step,
                            const std::function<bool(const LookUpTableExtent&)>& accept, GridMatrixTable* table);

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOOK_UP_TABLE_H_
