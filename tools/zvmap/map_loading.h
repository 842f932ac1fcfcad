// How the tool reads and writes map files: through the library's own loader
// and saver, silently, with a status the tool turns into its messages.
// Nothing else in the tool opens a map file.
#ifndef ZORVANE_TOOLS_ZVMAP_MAP_LOADING_H_
#define ZORVANE_TOOLS_ZVMAP_MAP_LOADING_H_

#include <cstdint>
#include <string>

#include "localization/grid_map_lossy.h"

namespace zorvane {
namespace tools {
namespace zvmap {

// Why a load failed, in the order the loader checks.
enum class MapLoadStatus {
  kOk,
  kCannotRead,             // missing, a directory, a pipe, a device, unreadable
  kNotAMapFile,            // no "zvmap" magic
  kSizeMismatch,           // file length differs from header plus body
  kDimensionsOutOfRange,   // a geometry the loader refuses
  kPositionOutOfRange,     // a record names a position beyond the grid
  kNoCells,                // the header declares no whole record
};

struct MapLoadResult {
  MapLoadStatus status = MapLoadStatus::kOk;
  bool partial_record = false;  // body size field not a multiple of 22
  bool ok() const { return status == MapLoadStatus::kOk; }
};

// A short lower-case reason, e.g. "not a readable regular file".
const char* describeLoadStatus(MapLoadStatus status);

// Loads the map file at `path` into `*map` as the map server does, printing
// nothing. With `prepare` false the cells stay raw, as the file stores them
// (precalculated_ false). On failure the map holds what the loader leaves
// (see GridMapLossy::ReadFromFile): never cells read past the file's end.
MapLoadResult loadMap(const std::string& path, bool prepare, localization::GridMapLossy* map);

// loadMap, and on failure the message "zvmap: <path>: <reason>" on
// standard error, with the numbers behind the reason where the header was
// read. True when the map loaded.
bool loadOrFail(const std::string& path, bool prepare, localization::GridMapLossy* map,
                MapLoadResult* result = nullptr);

// The reason of a failed load in full: describeLoadStatus and, where the
// header was read, the numbers behind it.
std::string explainLoadFailure(const std::string& path, const MapLoadResult& result,
                               const localization::GridMapLossy& map);

// Writes `map` to `path`, printing nothing. Returns an empty string on
// success, otherwise a short lower-case reason.
std::string saveMap(localization::GridMapLossy& map, const std::string& path);

// The file's size in bytes, or -1 when it cannot be examined.
std::int64_t fileBytes(const std::string& path);

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_MAP_LOADING_H_
