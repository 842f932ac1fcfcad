// zvmap synth: the synthetic street map of the tests and benchmarks.
#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>
#include <utility>

#include "localization/grid_map_lossy.h"
#include "localization/lossy_format.h"
#include "tools/reference/synthetic_map.h"
#include "tools/zvmap/commands.h"
#include "tools/zvmap/console.h"
#include "tools/zvmap/map_loading.h"

namespace zorvane {
namespace tools {
namespace zvmap {

namespace lossy = localization::lossy;

int runSynth(const SynthOptions& options) {
  // The generator may occupy any position, so the whole grid must fit the
  // file's cell bound; that also keeps the grid within what a file may
  // declare. Checked before a byte is built.
  const std::int64_t positions = options.cols * options.rows;
  if (options.cols < 1 || options.rows < 1 || positions > lossy::kMaxCells) {
    return fail(options.output, "a " + std::to_string(options.cols) + " x " + std::to_string(options.rows) +
                                    " grid does not fit a map file (at most " + std::to_string(lossy::kMaxCells) +
                                    " positions, each of which may hold a cell)");
  }
  const auto start = std::chrono::steady_clock::now();
  reference::SyntheticMap synthetic;
  {
    Progress progress("synth: building " + std::to_string(positions) + " positions", 0);
    synthetic = reference::makeSyntheticMap(static_cast<int>(options.cols), static_cast<int>(options.rows), options.seed);
  }
  if (synthetic.matrix.cells_.empty()) {
    // Small scenes can fall wholly inside a building, where nothing is
    // observed; a map file needs at least one cell.
    return fail(options.output, "the synthetic scene of this size and seed has no occupied positions; "
                                "choose another seed or a larger grid");
  }
  localization::GridMapLossy map;
  map.height_base_ = synthetic.height_base;
  map.aux_value_base_ = synthetic.aux_value_base;
  // The scene lives in its own frame: no geo-reference.
  map.reference_[0] = map.reference_[1] = map.reference_[2] = 0.0;
  map.mutable_matrix() = std::move(synthetic.matrix);
  std::string error;
  {
    Progress progress("synth: saving", 0);
    error = saveMap(map, options.output);
  }
  if (!error.empty()) return fail(options.output, error);
  const std::size_t cells = map.matrix().cells_.size();
  std::cout << "wrote " << options.output << ": " << cells << " cells on " << options.cols << " x " << options.rows
            << " positions (seed " << options.seed << "), "
            << formatBytes(static_cast<double>(lossy::kHeaderBytes) + 22.0 * static_cast<double>(cells)) << " in "
            << formatFixed(secondsSince(start), 2) << " s\n";
  return kExitOk;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
