// The component that puts the prior map in place for the host: it loads the
// lossy map file, prepares the level-4 look-up table and hands the matrix
// and that table to the GPU matcher.
#ifndef ZORVANE_LOCALIZATION_GRID_MAP_SERVER_H_
#define ZORVANE_LOCALIZATION_GRID_MAP_SERVER_H_

#include <memory>

#include <yaml-cpp/yaml.h>

#include "common/common_base.h"
#include "localization/grid_map_lossy.h"

namespace zorvane {
namespace localization {

// Life cycle: construct, start once with one of the two init operations,
// destroy. Everything runs on the caller's thread; the server takes no lock
// and must not be used from another thread while it starts.
//
// The server is the only owner of its map: nothing hands the map, its matrix
// or its tables out, and they are released with the server. The GPU matcher
// receives pointers into the map's own arrays, which therefore stay valid and
// unchanged for as long as the server lives.
class GridMapServer : public common::CommonBase {
 public:
  // Sub-sampling level that start-up prepares and uploads.
  static constexpr int kUploadLevel = 4;
  // Codes of the runtime_error thrown by init(const YAML::Node&).
  static constexpr unsigned kConfigError = 0x11803;
  static constexpr unsigned kLoadError = 0x11804;

  // Names the component "GridMapServer" and creates an empty map.
  GridMapServer();
  ~GridMapServer() override;

  // A second owner of the map would break the ownership stated above.
  GridMapServer(const GridMapServer&) = delete;
  GridMapServer& operator=(const GridMapServer&) = delete;

  // Configured start-up from the server's YAML section, a mapping with the
  // keys "type" (must be exactly "GridMapServer") and "grid_map" (the map
  // file path, used verbatim). Every failure prints one red line on
  // standard output, then throws runtime_error:
  //   0x11803  "MapServer type not defined", "Wrong MapServer type",
  //            "Map file path not defined";
  //   0x11804  "Fail loading map into MapServer" (load, table or upload).
  // yaml-cpp exceptions from reading the keys pass through unchanged.
  void init(const YAML::Node& node);

  // Fixed-path start-up: the same four steps with the map file whose path is
  // fixed at build time (ZV_DEFAULT_MAP_PATH). Prints nothing of its own and
  // throws nothing of its own. Result: 0 on success, otherwise the first
  // failing step: 5 load, 6 table, 7 full-resolution upload, 8 table upload.
  int init();

  // Reads the fixed map file into the map; the loader's result, unchanged.
  bool loadFullResMap();

  // Makes sure the map's table cache holds `level` (an existing table is
  // kept as it is, and true returned). A table that is not cached is built
  // as generateMatrixTalbe(level) would build it, but only when the
  // builder's range pass finds it within the start-up budget of the loaded
  // map (N cells): at most 320 N + 2^24 bins of both axes together, at
  // most 1024 N + 2^25 bin evaluations, and no sequence beyond INT_MAX
  // elements. Otherwise no bin is allocated, the cache is left as it was
  // and the result is false.
  bool calcSubSampledMatrix(int level);

  // Hands the full-resolution geometry, then its cells and position index,
  // to the GPU matcher; nothing is copied. False, with nothing sent, when a
  // count does not fit the matcher's int.
  bool copyFullResMatrixGpu();

  // Hands the cached table of `level` to the GPU matcher: its geometry, then
  // the height table, the value table and the coarse records. False, with
  // nothing sent, when a sequence's size does not fit the matcher's int.
  // A level that is not cached ends the process with status 255 after
  // "map::at" on standard error, before anything is sent.
  bool copySubSampledMatrixGpu(int level);

 private:
  std::shared_ptr<GridMapLossy> grid_map_;
};

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_GRID_MAP_SERVER_H_
