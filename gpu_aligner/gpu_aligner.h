// Interface of the GPU scan-matching library.
//
// The library is closed and ships separately; this header is what the map
// library is compiled and linked against. It receives, once per start-up,
// the full-resolution matrix and one sub-sampled look-up table. Every array
// is passed as a pointer into storage that the caller keeps alive and
// unchanged; counts are element counts, never byte counts.
#ifndef ZORVANE_GPU_ALIGNER_GPU_ALIGNER_H_
#define ZORVANE_GPU_ALIGNER_GPU_ALIGNER_H_

#include <cstdint>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace localization {

// Geometry of one matrix as the GPU library sees it: a field-by-field copy of
// GridMatrixBase's six geometry fields, 24 bytes, little-endian, no padding.
struct MatrixConfig {
  float resolution = 0.15f;
  std::uint32_t grid_size = 0;  // cols * rows, not the number of cells
  std::int32_t cols = 0;
  std::int32_t rows = 0;
  std::int32_t offset_x = 0;
  std::int32_t offset_y = 0;
};
static_assert(sizeof(MatrixConfig) == 24, "MatrixConfig is shared with the GPU library");

// Geometry of the full-resolution matrix; call before cudaSetMatrixCells.
void cudaSetMatrixConfig(const MatrixConfig& config);

// Cells of the full-resolution matrix (prepared form) and its position index
// (grid_size entries, each a cell number or -1).
void cudaSetMatrixCells(const MCell* cells, int cell_count, const int* index,
                        int index_count);

// Geometry of the coarse matrix; call before cudaSetMatrixCellsCoarse.
void cudaSetMatrixConfigCoarse(const MatrixConfig& config);

// Tables and coarse records of the coarse matrix. The height table comes
// first. The number of coarse records is the grid_size of the last coarse
// configuration.
void cudaSetMatrixCellsCoarse(const float* height_table, int height_count,
                              const float* value_table, int value_count,
                              const MCellCoarse* coarse_cells);

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_GPU_ALIGNER_GPU_ALIGNER_H_
