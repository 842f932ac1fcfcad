// PLACEHOLDER until the recording stand-in lands: the four calls do nothing.
#include "gpu_aligner/gpu_aligner.h"

namespace zorvane {
namespace localization {

void cudaSetMatrixConfig(const MatrixConfig&) {}
void cudaSetMatrixCells(const MCell*, int, const int*, int) {}
void cudaSetMatrixConfigCoarse(const MatrixConfig&) {}
void cudaSetMatrixCellsCoarse(const float*, int, const float*, int, const MCellCoarse*) {}

}  // namespace localization
}  // namespace zorvane
