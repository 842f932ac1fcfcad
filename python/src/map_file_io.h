// Reading and writing map files from Python: the library's file operations
// with their failures raised as Python exceptions.
#ifndef ZORVANE_PYTHON_SRC_MAP_FILE_IO_H_
#define ZORVANE_PYTHON_SRC_MAP_FILE_IO_H_

#include <memory>
#include <string>

#include "localization/grid_map_lossy.h"

namespace zorvane {
namespace python {

// Reads the zvmap file at `path` into a new map; with `prepare` the cells
// are brought into prepared form, as the map server uses them. Prints
// nothing. The GIL is released while the file is read and decoded.
// Raises:
//  - OSError when the file cannot be read: missing, unreadable, a directory,
//    a pipe or a device (with the errno of the failure where there is one,
//    so FileNotFoundError, IsADirectoryError, PermissionError), naming the
//    path;
//  - ValueError "cannot load map file '<path>': <reason>" when it is not a
//    loadable map file.
// A body size that is not a multiple of 22 whose whole records make up the
// file loads, with a UserWarning.
std::unique_ptr<localization::GridMapLossy> readMap(const std::string& path, bool prepare);

// Writes `map` to `path` as it is now (cells in prepared form are written
// with their prepared numbers). The GIL is released while the file is
// written. Raises ValueError when the map has no file form (no cells, more
// cells than a file holds, an index that does not name every cell exactly
// once, a grid too large for its cells to be read back) and OSError when
// the file cannot be written, each naming the path.
void saveMap(localization::GridMapLossy& map, const std::string& path);

}  // namespace python
}  // namespace zorvane

#endif  // ZORVANE_PYTHON_SRC_MAP_FILE_IO_H_
