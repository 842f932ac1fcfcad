// LookUpTable: a GridMatrixTable seen from Python, its three sequences as
// arrays owned by the table object.
#include <sstream>
#include <string>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "localization/grid_matrix.h"
#include "python/src/array_views.h"
#include "python/src/bindings.h"
#include "python/src/cell_dtypes.h"

namespace zorvane {
namespace python {

namespace py = pybind11;
using localization::GridMatrixTable;

namespace {

py::array floatView(const localization::MapVector<float>& bins, py::handle owner) {
  return viewOnto(py::dtype::of<float>(), {static_cast<py::ssize_t>(bins.size())}, bins.data(), owner,
                  /*writable=*/true);
}

std::string tableRepr(const GridMatrixTable& t) {
  std::ostringstream s;
  s << "<zorvane.LookUpTable " << t.cols_ << " x " << t.rows_ << " coarse positions (cols x rows), "
    << "resolution " << t.resolution_ << ", offset (" << t.offset_x_ << ", " << t.offset_y_ << "), "
    << t.value_table_.size() << " value bins of " << t.value_step_ << ", " << t.height_table_.size()
    << " height bins of " << t.height_step_ << ">";
  return s.str();
}

}  // namespace

void bindLookUpTable(py::module_& module) {
  py::class_<GridMatrixTable>(module, "LookUpTable", R"doc(
A sub-sampled look-up table, as built by Map.look_up_table(): for each
coarse position (a block of level x level grid positions) one histogram of
log-probabilities per axis.

Coarse position (i, j) (column i, row j) is coarse_cells[j, i]; its value
bins are value_table[o : o + n] with o = value_offset and n = value_bins,
bin k standing for the value k * value_step, k from value_first on; the
height axis likewise. The arrays are owned by the table object and stay
valid as long as any of them or the table is alive.
)doc")
      .def_property_readonly(
          "resolution", [](const GridMatrixTable& t) { return t.resolution_; },
          "Edge length of one coarse position (the map's resolution times the level).")
      .def_property_readonly(
          "cols", [](const GridMatrixTable& t) { return t.cols_; }, "Number of coarse columns.")
      .def_property_readonly(
          "rows", [](const GridMatrixTable& t) { return t.rows_; }, "Number of coarse rows.")
      .def_property_readonly(
          "offset_x", [](const GridMatrixTable& t) { return t.offset_x_; },
          "Coarse column of map-wide coarse column 0.")
      .def_property_readonly(
          "offset_y", [](const GridMatrixTable& t) { return t.offset_y_; },
          "Coarse row of map-wide coarse row 0.")
      .def_property_readonly(
          "grid_size", [](const GridMatrixTable& t) { return t.grid_size_; },
          "Number of coarse positions, cols * rows.")
      .def_property_readonly(
          "height_step", [](const GridMatrixTable& t) { return t.height_step_; }, "Height bin width.")
      .def_property_readonly(
          "value_step", [](const GridMatrixTable& t) { return t.value_step_; }, "Value bin width.")
      .def_property_readonly(
          "prob_scale", [](const GridMatrixTable& t) { return t.prob_scale_; },
          "Scale of a bin's probability before the logarithm (0.9).")
      .def_property_readonly(
          "prob_floor", [](const GridMatrixTable& t) { return t.prob_floor_; },
          "Floor added to the scaled probability before the logarithm (0.001).")
      .def_property_readonly(
          "value_table",
          [](py::object self) { return floatView(self.cast<GridMatrixTable&>().value_table_, self); },
          "The value bins of all coarse positions, a 1-D float32 array in flat coarse order.")
      .def_property_readonly(
          "height_table",
          [](py::object self) { return floatView(self.cast<GridMatrixTable&>().height_table_, self); },
          "The height bins of all coarse positions, a 1-D float32 array in flat coarse order.")
      .def_property_readonly(
          "coarse_cells",
          [](py::object self) {
            auto& t = self.cast<GridMatrixTable&>();
            // grid_size_ is 0 whenever cols_ * rows_ would not describe the
            // records (non-positive extents); the shape follows the records.
            const bool grid = t.coarse_cells_.size() == static_cast<std::size_t>(t.grid_size_) &&
                              t.grid_size_ != 0;
            std::vector<py::ssize_t> shape = grid ? std::vector<py::ssize_t>{t.rows_, t.cols_}
                                                  : std::vector<py::ssize_t>{0, 0};
            return viewOnto(coarseCellDtype(), std::move(shape), t.coarse_cells_.data(), self,
                            /*writable=*/true);
          },
          "One COARSE_CELL_DTYPE record (16 bytes) per coarse position, shape (rows, cols).")
      .def("__repr__", &tableRepr);
}

}  // namespace python
}  // namespace zorvane
