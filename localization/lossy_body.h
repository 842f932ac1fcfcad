// The body of a zvmap file: the cell records of a whole matrix, written and
// read by parallel loops. The record layout and rules are lossy_format.h.
#ifndef ZORVANE_LOCALIZATION_LOSSY_BODY_H_
#define ZORVANE_LOCALIZATION_LOSSY_BODY_H_

#include <cstdint>

#include "localization/grid_matrix.h"
#include "localization/lossy_format.h"
#include "localization/lossy_record_source.h"
#include "localization/map_load_status.h"

namespace zorvane {
namespace localization {
namespace lossy {

// Number of records the writer would produce for `matrix`, or -1 when the
// matrix breaks its invariant: a non-negative index_ entry that names no
// cell, a cell named by two positions, or a cell named by none. Throws
// std::bad_alloc (before any parallel work) when its bitmaps cannot be had.
std::int64_t countBodyRecords(const GridMatrix& matrix);

// Writes one record per non-negative index_ entry, walking the positions in
// increasing order, to `dst`. Precondition: countBodyRecords(matrix) >= 0
// and `dst` holds 22 times that many bytes. Returns the bytes written.
std::int64_t encodeBody(const GridMatrix& matrix, const CellScales& scales, char* dst);

// Rebuilds `matrix`'s index_ (grid_size_ entries, -1 where no record names
// the position) and cells_ (`records` cells, numbered in record order) from
// the records at `src`. With `prepare` the cells are left in prepared form
// (the bits runPreCalc would give) and precalculated_ is set; otherwise it
// is cleared. A position named twice ends up naming the later record's
// cell. Cells that were there before keep their padding bytes; all thirteen
// floats of every cell are overwritten.
//
// Preconditions: `src` holds 22 * `records` bytes; the geometry is loadable
// (isLoadableGeometry); `records` <= kMaxCells.
//
// Returns kOk, or kPositionOutOfRange when a record names a position at or
// beyond grid_size_: nothing is then written outside index_, and cells_ and
// index_ are left empty (their memory released) and precalculated_ false.
// Throws std::bad_alloc, before any parallel work, when the memory for the
// cells or the index cannot be had.
MapLoadStatus decodeBody(const char* src, std::uint32_t records, const CellScales& scales,
                         bool prepare, GridMatrix* matrix);

// The same, with the records fetched from `source` a run at a time. Also
// returns the source's failure, kTruncatedBody or kCannotRead, when it
// cannot give every record (a file that shrank or failed while it was
// read); the matrix is then left as for kPositionOutOfRange. When several
// failures are met, a failed read is reported before a short source, and
// both before a position outside the grid.
MapLoadStatus decodeBody(const RecordSource& source, std::uint32_t records, const CellScales& scales,
                         bool prepare, GridMatrix* matrix);

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOSSY_BODY_H_
