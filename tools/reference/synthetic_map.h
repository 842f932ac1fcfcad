// Synthetic prior maps for tests and benchmarks.
//
// makeSyntheticMap draws a plausible street scene (roads with lane markings,
// sidewalks, building facades, yards, trees and parked cars) on a grid and
// fills a raw GridMatrix with one cell per observed position. Every cell
// already lies on the quantisation grid of the lossy map file, so a matrix
// made here behaves exactly like one that was saved and loaded again:
//   - value means are whole numbers 5..200;
//   - sigmas are (float)q * 0.01f, q a whole number;
//   - height means are (float)q * 0.01f + height_base, aux_value likewise
//     from aux_value_base (the addition a separate f32 operation);
//   - weights are w0 = (float)(b / 255.0) and w1 = 1.0f - w0 for a byte b.
#ifndef ZORVANE_TESTS_SUPPORT_SYNTHETIC_MAP_H_
#define ZORVANE_TESTS_SUPPORT_SYNTHETIC_MAP_H_

#include <cstdint>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace reference {

struct SyntheticMap {
  // Raw form (precalculated_ false), geometry set through manualInit with
  // resolution 0.15, index_ filled (grid_size_ entries), cells numbered in
  // increasing flat position, as the lossy loader numbers them.
  localization::GridMatrix matrix;
  // File origin for the height means: finite and below every height mean.
  float height_base = 0.f;
  // File origin for aux_value: finite and at most every aux_value.
  float aux_value_base = 0.f;
};

// Deterministic in (cols, rows, seed) for a given build: the same arguments
// always give the same cells, whatever the number of OpenMP threads. About
// 40% of the positions are occupied. The offsets are chosen so that neither
// is a multiple of 4, so that coarse blocks of the usual level do not line up
// with the matrix edges. Non-positive cols or rows give a matrix with no
// positions and no cells.
SyntheticMap makeSyntheticMap(int cols, int rows, std::uint64_t seed);

}  // namespace reference
}  // namespace zorvane

#endif  // ZORVANE_TESTS_SUPPORT_SYNTHETIC_MAP_H_
