// The extension module behind the package zorvane (python/zorvane).
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "python/src/bindings.h"
#include "python/src/cell_dtypes.h"
#include "python/src/map_arrays.h"

namespace py = pybind11;

PYBIND11_MODULE(_zorvane, module) {
  module.doc() = "zvmap prior maps as NumPy arrays (the compiled part of the package zorvane).";
  module.attr("CELL_DTYPE") = zorvane::python::cellDtype();
  module.attr("COARSE_CELL_DTYPE") = zorvane::python::coarseCellDtype();
  module.attr("MAX_CELLS") = zorvane::python::kMaxMapCells;
  zorvane::python::bindLookUpTable(module);
  zorvane::python::bindMap(module);
}
