// Map: a GridMapLossy seen from Python.
//
// Views: `cells` and `index` alias the map's own arrays and keep the Map
// alive. No operation of Map replaces or resizes those arrays (a load or a
// build always makes a new Map), so a view stays valid for the map's life.
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <sstream>
#include <string>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "localization/grid_map_lossy.h"
#include "python/src/array_views.h"
#include "python/src/bindings.h"
#include "python/src/cell_dtypes.h"
#include "python/src/map_arrays.h"
#include "python/src/map_file_io.h"

namespace zorvane {
namespace python {

namespace py = pybind11;
using namespace pybind11::literals;
using localization::GridMapLossy;
using localization::GridMatrix;
using localization::GridMatrixTable;
using localization::MCell;

std::string pathArgument(const py::handle& path) {
  // os.fspath accepts str, bytes and os.PathLike and raises TypeError else.
  return py::module_::import("os").attr("fspath")(path).cast<std::string>();
}

namespace {

bool sameDtype(const py::dtype& a, const py::dtype& b) {
  return PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_EQ) == 1;
}

std::int32_t int32Argument(long long value, const char* name) {
  if (value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max()) {
    throw py::value_error(std::string(name) + " must fit a signed 32-bit integer, got " +
                          std::to_string(value));
  }
  return static_cast<std::int32_t>(value);
}

std::uint32_t tagArgument(long long value) {
  if (value < 0 || value > std::numeric_limits<std::uint32_t>::max()) {
    throw py::value_error("tag must fit an unsigned 32-bit integer, got " + std::to_string(value));
  }
  return static_cast<std::uint32_t>(value);
}

float resolutionArgument(double value) {
  if (!(std::isfinite(value) && value > 0)) {
    throw py::value_error("resolution must be a positive finite number");
  }
  return static_cast<float>(value);
}

void setReference(GridMapLossy& map, const py::sequence& reference) {
  if (py::len(reference) != 3) {
    throw py::value_error("reference must hold three numbers, got " +
                          std::to_string(py::len(reference)));
  }
  for (int k = 0; k < 3; ++k) map.reference_[k] = reference[k].cast<double>();
}

py::array cellsView(GridMapLossy& map, py::handle owner) {
  auto& cells = map.matrix_.cells_;
  return viewOnto(cellDtype(), {static_cast<py::ssize_t>(cells.size())}, cells.data(), owner,
                  /*writable=*/true);
}

py::array indexView(GridMapLossy& map, py::handle owner) {
  const GridMatrix& m = map.matrix_;
  // Every Map keeps index_ at rows * cols entries; anything else would be a
  // fault in this module, not in the caller's data.
  if (m.rows_ < 0 || m.cols_ < 0 ||
      static_cast<std::int64_t>(m.index_.size()) != std::int64_t{m.rows_} * m.cols_) {
    throw std::logic_error("map index does not hold rows * cols entries");
  }
  return viewOnto(py::dtype::of<std::int32_t>(), {m.rows_, m.cols_}, m.index_.data(), owner,
                  /*writable=*/false);
}

// A boolean per cell: `check(cell)`.
template <typename Check>
py::array_t<bool> perCell(GridMapLossy& map, Check check) {
  auto& cells = map.matrix_.cells_;
  py::array_t<bool> result(static_cast<py::ssize_t>(cells.size()));
  bool* out = result.mutable_data();
  for (std::size_t i = 0; i < cells.size(); ++i) out[i] = check(cells[i]);
  return result;
}

std::unique_ptr<GridMapLossy> fromArrays(const py::array& cells, const py::array& index,
                                         long long tag, float height_base, float aux_value_base,
                                         const py::sequence& reference, long long offset_x,
                                         long long offset_y, double resolution) {
  const bool cells_ok = sameDtype(cells.dtype(), cellDtype()) &&
                        cells.ndim() == 1 && (cells.flags() & py::array::c_style);
  if (!cells_ok) throw py::value_error("cells must be a C-contiguous 1-D array of CELL_DTYPE");
  const bool index_ok = sameDtype(index.dtype(), py::dtype::of<std::int32_t>()) && index.ndim() == 2 &&
                        (index.flags() & py::array::c_style);
  if (!index_ok) throw py::value_error("index must be a C-contiguous 2-D int32 array");

  const std::int64_t count = cells.shape(0);
  const std::int64_t rows = index.shape(0);
  const std::int64_t cols = index.shape(1);
  if (count > kMaxMapCells) {
    throw py::value_error(std::to_string(count) +
                          " cells are more than the 97612890 a map file can hold");
  }
  if (rows > std::numeric_limits<std::int32_t>::max() || cols > std::numeric_limits<std::int32_t>::max() ||
      static_cast<std::uint64_t>(rows * cols) > std::numeric_limits<std::uint32_t>::max()) {
    throw py::value_error("index of " + std::to_string(rows) + " x " + std::to_string(cols) +
                          " positions is larger than a map grid (at most 2^32 - 1 positions)");
  }
  const auto* index_data = static_cast<const std::int32_t*>(index.data());
  const std::string problem = checkCellIndex(index_data, rows, cols, count);
  if (!problem.empty()) throw py::value_error(problem);

  auto map = std::make_unique<GridMapLossy>();
  map->header_tag_ = tagArgument(tag);
  map->height_base_ = height_base;
  map->aux_value_base_ = aux_value_base;
  setReference(*map, reference);
  GridMatrix& m = map->matrix_;
  m.manualInit(resolutionArgument(resolution), static_cast<int>(cols), static_cast<int>(rows),
               int32Argument(offset_x, "offset_x"), int32Argument(offset_y, "offset_y"));
  const auto* cell_data = static_cast<const MCell*>(cells.data());
  m.cells_.assign(cell_data, cell_data + count);
  m.index_.assign(index_data, index_data + rows * cols);
  return map;
}

std::unique_ptr<GridMatrixTable> lookUpTable(const GridMapLossy& map, long long level,
                                             double height_step, double value_step) {
  if (level < 1 || level > std::numeric_limits<int>::max()) {
    throw py::value_error("level must be at least 1, got " + std::to_string(level));
  }
  const auto finitePositive = [](double step) { return std::isfinite(step) && step > 0; };
  if (!finitePositive(height_step) || !finitePositive(value_step)) {
    throw py::value_error("height_step and value_step must be positive finite numbers");
  }
  if (!map.matrix_.precalculated_) {
    throw py::value_error("the map is not prepared: call pre_calc() before building a table");
  }
  auto table = std::make_unique<GridMatrixTable>();
  py::gil_scoped_release unlocked;
  *table = map.matrix_.getLookUpTable(static_cast<int>(level), static_cast<float>(height_step),
                                      static_cast<float>(value_step));
  return table;
}

std::string mapRepr(const GridMapLossy& map) {
  const GridMatrix& m = map.matrix_;
  std::ostringstream s;
  s << "<zorvane.Map " << m.cols_ << " x " << m.rows_ << " positions (cols x rows), "
    << m.cells_.size() << " cells, " << (m.precalculated_ ? "prepared" : "raw")
    << ", offset (" << m.offset_x_ << ", " << m.offset_y_ << "), resolution " << m.resolution_
    << ", tag " << map.header_tag_ << ">";
  return s.str();
}

}  // namespace

void bindMap(py::module_& module) {
  py::class_<GridMapLossy> map(module, "Map", R"doc(
A zvmap prior map: a grid of rows x cols positions, a cell (CELL_DTYPE) at
some of them, the position index and the header values of the file.

Make one with Map.read(path) or Map.from_arrays(cells, index, ...);
Map() is an empty map. `cells` and `index` are views onto the map's own
memory, valid for the map's life: no operation of Map replaces its arrays.
A map must not be changed from another thread while save() or
look_up_table() runs on it (both release the GIL).
)doc");

  map.def(py::init<>(), "An empty map: no cells, a 0 x 0 grid, header values at their defaults.")
      .def_static(
          "read",
          [](const py::object& path, bool prepare) { return readMap(pathArgument(path), prepare); },
          "path"_a, "prepare"_a = true, R"doc(
Reads the zvmap file at `path` (str or os.PathLike) into a new Map.

With prepare=True (the default) the cells are brought into prepared form
(sigma = 2 s^2, weight = w / s), as the map server uses them and as
look_up_table() needs them; with prepare=False they stay raw, as in the file
(what a producer edits and saves again). The GIL is released while reading.

Raises OSError (FileNotFoundError, IsADirectoryError, PermissionError, ...)
when the file cannot be read and ValueError, naming the path and the reason,
when it is not a loadable map file.
)doc")
      .def(
          "save", [](GridMapLossy& self, const py::object& path) { saveMap(self, pathArgument(path)); },
          "path"_a, R"doc(
Writes the map to `path` as a zvmap file. The cells are written as they are
now: a prepared map is written with its prepared numbers, which a later read
takes as raw ones, so save a map read with prepare=False (or built with
from_arrays and not yet prepared). The GIL is released while writing.

Raises ValueError when the map has no file form (no cells, too many cells,
an index that does not name every cell once) and OSError when the file
cannot be written.
)doc")
      .def_property(
          "tag", [](const GridMapLossy& m) { return m.header_tag_; },
          [](GridMapLossy& m, long long tag) { m.header_tag_ = tagArgument(tag); },
          "Map tag of the file header (unsigned 32-bit), carried without interpretation.")
      .def_readwrite("height_base", &GridMapLossy::height_base_,
                     "Origin of the height means in the file (float32; +inf by default).")
      .def_readwrite("aux_value_base", &GridMapLossy::aux_value_base_,
                     "Origin of aux_value in the file (float32; +inf by default).")
      .def_property(
          "reference",
          [](const GridMapLossy& m) { return py::make_tuple(m.reference_[0], m.reference_[1], m.reference_[2]); },
          &setReference, "Three float64 reference values of the file header, as a tuple.")
      .def_property_readonly(
          "cols", [](const GridMapLossy& m) { return m.matrix_.cols_; }, "Number of grid columns (x).")
      .def_property_readonly(
          "rows", [](const GridMapLossy& m) { return m.matrix_.rows_; }, "Number of grid rows (y).")
      .def_property(
          "offset_x", [](const GridMapLossy& m) { return m.matrix_.offset_x_; },
          [](GridMapLossy& m, long long v) { m.matrix_.offset_x_ = int32Argument(v, "offset_x"); },
          "Grid column of map-wide column 0.")
      .def_property(
          "offset_y", [](const GridMapLossy& m) { return m.matrix_.offset_y_; },
          [](GridMapLossy& m, long long v) { m.matrix_.offset_y_ = int32Argument(v, "offset_y"); },
          "Grid row of map-wide row 0.")
      .def_property(
          "resolution", [](const GridMapLossy& m) { return m.matrix_.resolution_; },
          [](GridMapLossy& m, double v) { m.matrix_.resolution_ = resolutionArgument(v); },
          "Edge length of one grid position (float32; not stored in the file, 0.15 after read).")
      .def_property_readonly(
          "prepared", [](const GridMapLossy& m) { return m.matrix_.precalculated_; },
          "True once the cells are in prepared form (sigma = 2 s^2, weight = w / s).")
      .def_property_readonly(
          "cells", [](py::object self) { return cellsView(self.cast<GridMapLossy&>(), self); },
          R"doc(
The cells, a writable 1-D array of CELL_DTYPE (64-byte records), a view onto
the map's memory: a change made through it is what save() writes and what
look_up_table() reads. Cell number i is cells[i].
)doc")
      .def_property_readonly(
          "index", [](py::object self) { return indexView(self.cast<GridMapLossy&>(), self); },
          R"doc(
The position index, a read-only int32 array of shape (rows, cols), a view
onto the map's memory: index[y, x] is the cell number at column x, row y, or
-1 where the position has no cell. Read-only because it must name every cell
exactly once; build a map with another index through from_arrays().
)doc")
      .def(
          "pre_calc", [](GridMapLossy& m) { m.matrix_.runPreCalc(); }, R"doc(
Brings every cell from raw into prepared form in place, once: per
component, weight = w / s, then sigma = s * (s + s), in float32. Does
nothing on a prepared map, and leaves a map without cells unprepared.
)doc")
      .def(
          "pre_check",
          [](GridMapLossy& m) { return perCell(m, [](MCell& c) { return GridMatrix::runPreCheck(c); }); },
          R"doc(
A bool array of shape (len(cells),): True for each cell for which the
float32 square of one of its four sigmas is not finite (overflow or NaN).
Changes nothing.
)doc")
      .def(
          "pre_check_small",
          [](GridMapLossy& m) {
            if (m.matrix_.precalculated_) {
              throw py::value_error("pre_check_small() works on raw cells; this map is prepared");
            }
            return perCell(m, [](MCell& c) { return GridMatrix::runPreCheckSmall(c); });
          },
          R"doc(
Raises every sigma below 0.005 to float32 0.005 in place (raw cells only;
ValueError on a prepared map). Returns a bool array of shape (len(cells),),
True for each cell that was changed. NaN sigmas are left as they are.
)doc")
      .def("look_up_table", &lookUpTable, "level"_a = 4, "height_step"_a = 0.15, "value_step"_a = 1.0,
           R"doc(
Builds the sub-sampled look-up table of `level` (positions per coarse
position along each axis) with bins of height_step and value_step, exactly
as the map server does (bit for bit). Returns a new LookUpTable; the map's
own table cache is not used. The map must be prepared. The GIL is released
while the table is built.
)doc")
      .def_static("_from_arrays", &fromArrays, "cells"_a, "index"_a, "tag"_a, "height_base"_a,
                  "aux_value_base"_a, "reference"_a, "offset_x"_a, "offset_y"_a, "resolution"_a,
                  "from_arrays() once its arguments have been brought to CELL_DTYPE and int32.")
      .def("__repr__", &mapRepr);
}

}  // namespace python
}  // namespace zorvane
