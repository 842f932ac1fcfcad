// The body of a zvmap file: the cell records of a whole matrix.
//
// These are the loops behind GridMapLossy::addBodyBinary and
// loadBodyBinary. They live in the library rather than in the inline class
// so that they are compiled once, with the library's flags.
#ifndef ZORVANE_LOCALIZATION_LOSSY_BODY_H_
#define ZORVANE_LOCALIZATION_LOSSY_BODY_H_

#include <cstdint>

#include "localization/grid_matrix.h"
#include "localization/lossy_codec.h"

namespace zorvane {
namespace localization {
namespace lossy {

// True when a `rows` x `cols` grid holding `records` cells is one a file
// may declare: both extents non-negative, their product equal to
// `grid_size` (no 32-bit wrap), and within the bounds of lossy_codec.h
// (kFreeGridPositions + kPositionsPerCell * records, and
// kMaxGridPositions).
bool isLoadableGeometry(std::int32_t rows, std::int32_t cols, std::uint32_t grid_size,
                        std::uint64_t records);

// Number of records the writer would produce for `matrix`, or -1 when the
// matrix breaks its invariant: a non-negative index_ entry that names no
// cell, a cell named by two positions, or a cell named by none.
std::int64_t countBodyRecords(const GridMatrix& matrix);

// Writes one record per non-negative index_ entry, walking the positions in
// increasing order, to `dst`. Precondition: countBodyRecords(matrix) >= 0
// and `dst` holds 22 times that many bytes. Returns the bytes written.
std::int64_t encodeBody(const GridMatrix& matrix, const CellScales& scales, char* dst);

enum class BodyDecodeStatus {
  kOk,
  kPositionOutOfRange,  // a record names a position at or beyond grid_size_
};

// Rebuilds `matrix`'s index_ (grid_size_ entries, -1 where no record names
// the position) and cells_ (`records` cells, numbered in record order) from
// the records at `src`, and clears precalculated_. A position named twice
// ends up naming the later record's cell. Cells that were there before keep
// their padding bytes; all thirteen floats of every cell are overwritten.
//
// Preconditions: `src` holds 22 * `records` bytes; the geometry is loadable
// (isLoadableGeometry); `records` <= kMaxCells.
//
// On kPositionOutOfRange nothing is written outside index_: the matrix is
// left with empty cells_ and index_ (their memory released) and
// precalculated_ false.
BodyDecodeStatus decodeBody(const char* src, std::uint32_t records, const CellScales& scales,
                            bool prepare, GridMatrix* matrix);

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOSSY_BODY_H_
