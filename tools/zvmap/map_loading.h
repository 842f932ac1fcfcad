// How the tool reads and writes map files: through the library's own loader
// and saver, silently, with a status the tool turns into its messages.
// Nothing else in the tool opens a map file.
#ifndef ZORVANE_TOOLS_ZVMAP_MAP_LOADING_H_
#define ZORVANE_TOOLS_ZVMAP_MAP_LOADING_H_

#include <cstdint>
#include <string>

#include "localization/grid_map_lossy.h"
#include "localization/map_load_status.h"

namespace zorvane {
namespace tools {
namespace zvmap {

using localization::describeLoadStatus;
using localization::MapLoadResult;
using localization::MapLoadStatus;

// Loads the map file at `path` into `*map` as the map server does, printing
// nothing. With `prepare` false the cells stay raw, as the file stores them
// (precalculated_ false). On failure the map holds what the loader leaves
// (GridMapLossy::load): the header values as read, never cells read past
// the file's end.
MapLoadResult loadMap(const std::string& path, bool prepare, localization::GridMapLossy* map);

// loadMap, and on failure the message "zvmap: <path>: <reason>" on
// standard error, with the numbers behind the reason where the header was
// read. True when the map loaded.
bool loadOrFail(const std::string& path, bool prepare, localization::GridMapLossy* map,
                MapLoadResult* result = nullptr);

// The reason of a failed load in full: describeLoadStatus and the numbers
// behind it (what kind of file it is, the file's length and what the
// header declares).
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
