// Raw -> prepared form of one cell, the arithmetic of GridMatrix::runPreCalc.
// The loader applies it while decoding, so that a loaded map is prepared in
// the same pass; both must give the same bits, so both use this one
// definition.
#ifndef ZORVANE_LOCALIZATION_CELL_PREPARATION_H_
#define ZORVANE_LOCALIZATION_CELL_PREPARATION_H_

#include "localization/grid_matrix.h"

namespace zorvane {
namespace localization {
namespace internal {

// The weight is divided by the raw sigma s before the sigma is overwritten
// with s * (s + s), all in single precision.
inline void prepareComponent(float& sigma, float& weight) {
  const float s = sigma;
  weight = weight / s;
  sigma = s * (s + s);
}

// Value components 0 and 1, then height components 0 and 1.
inline void prepareCell(MCell& cell) {
  prepareComponent(cell.value_sigma[0], cell.value_weight[0]);
  prepareComponent(cell.value_sigma[1], cell.value_weight[1]);
  prepareComponent(cell.height_sigma[0], cell.height_weight[0]);
  prepareComponent(cell.height_sigma[1], cell.height_weight[1]);
}

}  // namespace internal
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_CELL_PREPARATION_H_
