// Reference builder for look-up tables: the table algorithm written out loop
// for loop as localization/look_up_table.h states it, with one heap
// histogram per coarse position and axis and bin-outer loops. Slow on
// purpose; used only to check GridMatrix::getLookUpTable bit for bit and as
// the baseline of the benchmarks.
//
// It takes the same decisions as the production builder where the
// arithmetic leaves a choice (65535-bin clip, log(prob_floor_) for a zero
// sum, saturating float-to-int conversions, invalid index entries ignored),
// so that the two can also be compared on inputs such as infinite means.
// It does not bound its work for huge factors or geometries: keep inputs
// small.
#ifndef ZORVANE_TESTS_SUPPORT_PLAIN_LOOK_UP_TABLE_H_
#define ZORVANE_TESTS_SUPPORT_PLAIN_LOOK_UP_TABLE_H_

#include "localization/grid_matrix.h"

namespace zorvane {
namespace reference {

localization::GridMatrixTable plainLookUpTable(const localization::GridMatrix& matrix, int factor,
                                               float height_step, float value_step);

}  // namespace reference
}  // namespace zorvane

#endif  // ZORVANE_TESTS_SUPPORT_PLAIN_LOOK_UP_TABLE_H_
