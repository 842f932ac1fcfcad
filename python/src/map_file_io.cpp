#include "python/src/map_file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <pybind11/pybind11.h>

#include "localization/durable_save.h"
#include "localization/lossy_format.h"
#include "localization/map_load_status.h"
#include "python/src/map_arrays.h"

namespace zorvane {
namespace python {

namespace py = pybind11;
using localization::GridMapLossy;

namespace {

// The library's load and save, each behind one function so that the module
// follows the library's own file operations with one edit each.
localization::MapLoadResult loadWithLibrary(GridMapLossy* map, const std::string& path, bool prepare) {
  return map->load(path, prepare);
}

// The library's durable save: a temporary file beside the target, checked
// writes, sync, rename; the old file stays on any failure. Silent.
localization::MapSaveResult saveWithLibrary(GridMapLossy* map, const std::string& path) {
  return localization::saveMapDurably(*map, path);
}

[[noreturn]] void raiseOSError(const std::string& message) {
  PyErr_SetString(PyExc_OSError, message.c_str());
  throw py::error_already_set();
}

[[noreturn]] void raiseOSError(int error, const std::string& path) {
  // OSError(errno, strerror, filename) picks the matching subclass.
  PyErr_SetObject(PyExc_OSError,
                  py::make_tuple(error, std::string(std::strerror(error)), path).ptr());
  throw py::error_already_set();
}

// Why `path` cannot be read: an errno from the system where there is one.
[[noreturn]] void raiseCannotRead(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) raiseOSError(errno, path);
  if (S_ISDIR(st.st_mode)) raiseOSError(EISDIR, path);
  if (!S_ISREG(st.st_mode)) {
    raiseOSError("cannot load map file '" + path + "': not a regular file (a pipe, socket or device)");
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) raiseOSError(errno, path);
  ::close(fd);
  raiseOSError("cannot load map file '" + path + "': the file could not be read");
}

}  // namespace

std::unique_ptr<GridMapLossy> readMap(const std::string& path, bool prepare) {
  auto map = std::make_unique<GridMapLossy>();
  localization::MapLoadResult outcome;
  {
    py::gil_scoped_release unlocked;
    outcome = loadWithLibrary(map.get(), path, prepare);
  }
  if (outcome.status == localization::MapLoadStatus::kCannotRead) raiseCannotRead(path);
  if (!outcome.ok()) {
    throw py::value_error("cannot load map file '" + path +
                          "': " + localization::describeLoadStatus(outcome.status));
  }
  if (outcome.partial_record) {
    const std::string warning = "map file '" + path +
                                "': body size is not a multiple of 22; its whole records were read";
    if (PyErr_WarnEx(PyExc_UserWarning, warning.c_str(), 1) != 0) throw py::error_already_set();
  }
  return map;
}

void saveMap(GridMapLossy& map, const std::string& path) {
  const localization::GridMatrix& m = map.matrix_;
  const auto cells = static_cast<std::int64_t>(m.cells_.size());
  const std::string prefix = "cannot save map file '" + path + "': ";
  if (cells == 0) throw py::value_error(prefix + "the map has no cells");
  if (cells > kMaxMapCells) {
    throw py::value_error(prefix + "the map has " + std::to_string(cells) +
                          " cells, more than the 97612890 a map file can hold");
  }
  if (m.rows_ < 0 || m.cols_ < 0 ||
      static_cast<std::int64_t>(m.index_.size()) != std::int64_t{m.rows_} * m.cols_) {
    throw py::value_error(prefix + "the index does not match the map's rows and columns");
  }
  const std::string problem = checkCellIndex(m.index_.data(), m.rows_, m.cols_, cells);
  if (!problem.empty()) throw py::value_error(prefix + problem);
  if (!localization::lossy::isLoadableGeometry(m.rows_, m.cols_, m.grid_size_,
                                               static_cast<std::uint64_t>(cells))) {
    throw py::value_error(prefix + "a grid of " + std::to_string(m.rows_) + " x " +
                          std::to_string(m.cols_) + " positions is too large for " +
                          std::to_string(cells) + " cells to be read back");
  }

  localization::MapSaveResult outcome;
  {
    py::gil_scoped_release unlocked;
    outcome = saveWithLibrary(&map, path);
  }
  if (!outcome.ok) raiseOSError(outcome.error);
}

}  // namespace python
}  // namespace zorvane
