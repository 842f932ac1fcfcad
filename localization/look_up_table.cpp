// PLACEHOLDER until the table builder lands: returns the empty table.
#include "localization/grid_matrix.h"

namespace zorvane {
namespace localization {

GridMatrixTable GridMatrix::getLookUpTable(int, float, float) const { return GridMatrixTable(); }

}  // namespace localization
}  // namespace zorvane
