// The plain loader that the map benchmarks set beside ReadFromFile: the
// file through a zero-filled std::vector buffer, decoded record by record
// into standard vectors (4 KiB pages, one construction pass, then the
// decode), the cells then prepared as runPreCalc does. No pipelining, no
// prefaulting, no reuse of memory: what a direct reading of the format
// costs.
#ifndef ZORVANE_BENCH_PLAIN_MAP_LOADER_H_
#define ZORVANE_BENCH_PLAIN_MAP_LOADER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace bench {

struct PlainMap {
  localization::GridMatrix matrix;  // geometry only; cells and index in the vectors below
  std::vector<std::int32_t> index;
  std::vector<localization::MCell> cells;
};

// Loads the map file at `path` into *out; with `prepare`, the cells are
// then prepared (2 sigma^2 and w / sigma) in an OpenMP loop. False when the
// file cannot be read or a record lies outside the grid. Trusts the file
// otherwise: benchmarks read only maps they wrote.
bool plainLoad(const std::string& path, bool prepare, PlainMap* out);

// The cells prepared in place, as runPreCalc prepares them.
void plainPrepare(std::vector<localization::MCell>& cells);

}  // namespace bench
}  // namespace zorvane

#endif  // ZORVANE_BENCH_PLAIN_MAP_LOADER_H_
