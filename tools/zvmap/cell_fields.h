// The thirteen numbers of a cell, by name, and their statistics over a map.
#ifndef ZORVANE_TOOLS_ZVMAP_CELL_FIELDS_H_
#define ZORVANE_TOOLS_ZVMAP_CELL_FIELDS_H_

#include <array>
#include <cstdint>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace tools {
namespace zvmap {

constexpr int kCellFields = 13;

// Names in MCell order: "value_sigma[0]", ..., "aux_value".
extern const std::array<const char*, kCellFields> kCellFieldNames;

// Field `f` (0..12, the order of kCellFieldNames) of `cell`.
float cellField(const localization::MCell& cell, int f);

// The file's quantum of field `f`: how far apart two stored values of it
// lie at least (sigmas, height means and aux_value 0.01, value means 1,
// weights 1/255), for comparisons that forgive quantisation.
float fieldQuantum(int f);

// Range and mean of one field over the finite values; non-finite values
// are only counted.
struct FieldStats {
  double min = 0.0;
  double max = 0.0;
  double sum = 0.0;
  std::int64_t finite = 0;
  std::int64_t non_finite = 0;

  void add(float v);
  double mean() const { return finite > 0 ? sum / static_cast<double>(finite) : 0.0; }
};

// Statistics of every field over all cells of `matrix` (in the form they
// are in: raw after a load without preparation).
std::array<FieldStats, kCellFields> cellFieldStats(const localization::GridMatrix& matrix);

// The mixture means of a raw cell: w0 * m0 + w1 * m1 on each axis.
float valueMixtureMean(const localization::MCell& cell);
float heightMixtureMean(const localization::MCell& cell);

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_CELL_FIELDS_H_
