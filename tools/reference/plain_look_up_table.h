// Reference builder for look-up tables: the table algorithm written out loop
// for loop as localization/look_up_table.h states it, with one heap
// histogram per coarse position and axis and bin-outer loops. Slow on
// purpose: it checks GridMatrix::getLookUpTable bit for bit (tests, fuzz
// targets, `zvmap table --check-plain`) and is the baseline of the
// benchmarks.
//
// It takes the same decisions as the production builder where the
// arithmetic leaves a choice (65535-bin clip, log(prob_floor_) for a zero
// sum, saturating float-to-int conversions, invalid index entries ignored),
// so that the two can also be compared on inputs such as infinite means.
// It does not bound its work for huge factors or geometries: keep inputs
// small.
#ifndef ZORVANE_TOOLS_REFERENCE_PLAIN_LOOK_UP_TABLE_H_
#define ZORVANE_TOOLS_REFERENCE_PLAIN_LOOK_UP_TABLE_H_

#include <cstdint>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace reference {

localization::GridMatrixTable plainLookUpTable(const localization::GridMatrix& matrix, int factor,
                                               float height_step, float value_step);

// The table's conversions, plainly: float to int32 truncating and
// saturating at the int32 range, NaN to 0; and std::round before it.
std::int32_t plainToInt32(float v);
std::int32_t plainRoundToInt32(float v);

// The coarse geometry of the table of factor `factor` built from `matrix`:
// resolution, columns, rows and offsets in single precision, grid_size_ 0
// when the coarse grid is empty or does not fit 32 bits.
localization::GridMatrixBase plainCoarseGeometry(const localization::GridMatrixBase& matrix, int factor);

}  // namespace reference
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_REFERENCE_PLAIN_LOOK_UP_TABLE_H_
