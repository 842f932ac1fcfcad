// NumPy arrays that alias memory owned by a bound C++ object.
#ifndef ZORVANE_PYTHON_SRC_ARRAY_VIEWS_H_
#define ZORVANE_PYTHON_SRC_ARRAY_VIEWS_H_

#include <vector>

#include <pybind11/numpy.h>

namespace zorvane {
namespace python {

// A C-contiguous array of `dtype` and `shape` over `data`, with `owner` (the
// Python object that owns the memory) as its base, so the memory lives as
// long as the array does. Read-only unless `writable`. An array without
// elements may own a fresh empty buffer instead (`data` may then be null).
inline pybind11::array viewOnto(const pybind11::dtype& dtype, std::vector<pybind11::ssize_t> shape,
                                const void* data, pybind11::handle owner, bool writable) {
  pybind11::array view = data != nullptr ? pybind11::array(dtype, std::move(shape), data, owner)
                                         : pybind11::array(dtype, std::move(shape));
  if (!writable) view.attr("setflags")(pybind11::arg("write") = false);
  return view;
}

}  // namespace python
}  // namespace zorvane

#endif  // ZORVANE_PYTHON_SRC_ARRAY_VIEWS_H_
