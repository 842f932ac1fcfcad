// NumPy dtypes of the two records that the map hands out as arrays.
//
// Each dtype matches its C++ record field by field: same names (the record's
// fields), same offsets (taken from the record itself) and the same item
// size, so that an array of the dtype can be a view onto the record array.
#ifndef ZORVANE_PYTHON_SRC_CELL_DTYPES_H_
#define ZORVANE_PYTHON_SRC_CELL_DTYPES_H_

#include <pybind11/numpy.h>

namespace zorvane {
namespace python {

// MCell, 64 bytes: value_sigma, value_mean, value_weight, height_sigma,
// height_mean, height_weight (each float32 of shape (2,)), aux_value
// (float32); bytes 52..63 are padding outside every field.
pybind11::dtype cellDtype();

// MCellCoarse, 16 bytes: value_bins u2, value_first i2, value_offset u4,
// height_bins u2, height_first i2, height_offset u4.
pybind11::dtype coarseCellDtype();

}  // namespace python
}  // namespace zorvane

#endif  // ZORVANE_PYTHON_SRC_CELL_DTYPES_H_
