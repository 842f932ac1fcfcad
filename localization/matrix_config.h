// The geometry record that goes to the GPU matcher with a matrix or a
// table (gpu_aligner.h).
#ifndef ZORVANE_LOCALIZATION_MATRIX_CONFIG_H_
#define ZORVANE_LOCALIZATION_MATRIX_CONFIG_H_

#include "gpu_aligner/gpu_aligner.h"
#include "localization/grid_matrix.h"

namespace zorvane {
namespace localization {

// A field-by-field copy of m's six geometry fields (resolution_, grid_size_,
// cols_, rows_, offset_x_, offset_y_), in MatrixConfig's order.
MatrixConfig matrixConfigOf(const GridMatrixBase& m);

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_MATRIX_CONFIG_H_
