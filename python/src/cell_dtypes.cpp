#include "python/src/cell_dtypes.h"

#include <cstddef>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace python {

namespace py = pybind11;
using localization::MCell;
using localization::MCellCoarse;

namespace {

struct Field {
  const char* name;
  const char* format;  // NumPy type string, explicitly little-endian
  std::size_t offset;
};

template <std::size_t N>
py::dtype recordDtype(const Field (&fields)[N], std::size_t itemsize) {
  py::list names, formats, offsets;
  for (const Field& f : fields) {
    names.append(f.name);
    formats.append(f.format);
    offsets.append(f.offset);
  }
  return py::dtype(names, formats, offsets, static_cast<py::ssize_t>(itemsize));
}

}  // namespace

py::dtype cellDtype() {
  static const Field kFields[] = {
      {"value_sigma", "(2,)<f4", offsetof(MCell, value_sigma)},
      {"value_mean", "(2,)<f4", offsetof(MCell, value_mean)},
      {"value_weight", "(2,)<f4", offsetof(MCell, value_weight)},
      {"height_sigma", "(2,)<f4", offsetof(MCell, height_sigma)},
      {"height_mean", "(2,)<f4", offsetof(MCell, height_mean)},
      {"height_weight", "(2,)<f4", offsetof(MCell, height_weight)},
      {"aux_value", "<f4", offsetof(MCell, aux_value)},
  };
  return recordDtype(kFields, sizeof(MCell));
}

py::dtype coarseCellDtype() {
  static const Field kFields[] = {
      {"value_bins", "<u2", offsetof(MCellCoarse, value_bins)},
      {"value_first", "<i2", offsetof(MCellCoarse, value_first)},
      {"value_offset", "<u4", offsetof(MCellCoarse, value_offset)},
      {"height_bins", "<u2", offsetof(MCellCoarse, height_bins)},
      {"height_first", "<i2", offsetof(MCellCoarse, height_first)},
      {"height_offset", "<u4", offsetof(MCellCoarse, height_offset)},
  };
  return recordDtype(kFields, sizeof(MCellCoarse));
}

}  // namespace python
}  // namespace zorvane
