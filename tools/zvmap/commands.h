// The subcommands of zvmap. Each takes its parsed options, prints its
// report on standard output, failures as one line on standard error
// ("zvmap: <file>: <reason>"), and returns the process exit status
// (console.h: 0 success, 1 a failed, rejected or faulty map, 2 bad
// arguments that the parser could not catch).
#ifndef ZORVANE_TOOLS_ZVMAP_COMMANDS_H_
#define ZORVANE_TOOLS_ZVMAP_COMMANDS_H_

#include <cstdint>
#include <string>

namespace zorvane {
namespace tools {
namespace zvmap {

// The sub-sampling level the map server builds and uploads.
constexpr int kServerLevel = 4;

struct InfoOptions {
  std::string map;
  bool json = false;
};
// Header values, geometry, cell count, occupancy, file size and the range
// and mean of every cell field as stored (raw). 1 when the map does not
// load.
int runInfo(const InfoOptions& options);

struct CheckOptions {
  std::string map;
  int level = kServerLevel;
};
// Everything the loader refuses or silently accepts that a producer should
// know about. 1 when the map would not load or its table would be
// degenerate (zero, non-finite or clipped spreads, a non-finite origin).
int runCheck(const CheckOptions& options);

enum class Layer { kValue, kHeight, kOccupancy, kBins };
struct RenderOptions {
  std::string map;
  std::string output;
  Layer layer = Layer::kHeight;
  int level = kServerLevel;  // for Layer::kBins
};
// One PNG pixel per grid position (per coarse position for kBins), north
// (the largest row) up; a one-line legend on standard output.
int runRender(const RenderOptions& options);

struct SynthOptions {
  std::string output;
  std::int64_t cols = 0;
  std::int64_t rows = 0;
  std::uint64_t seed = 1;
};
// The deterministic synthetic street map, saved to `output`. Refuses,
// before building anything, a grid the file format cannot hold.
int runSynth(const SynthOptions& options);

struct TableOptions {
  std::string map;
  int level = kServerLevel;
  int threads = 0;  // 0: the OpenMP default
  bool check_plain = false;
};
// Builds the table as the server would and reports its size and build
// time; with check_plain also the plain evaluation, 1 unless every bit
// matches.
int runTable(const TableOptions& options);

enum class Tolerance { kQuantised, kExact };
struct DiffOptions {
  std::string a;
  std::string b;
  Tolerance tolerance = Tolerance::kQuantised;
};
// Header and cell-by-cell differences; 1 when the maps differ.
int runDiff(const DiffOptions& options);

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_COMMANDS_H_
