// The classes of the extension module _zorvane, one binding function each.
#ifndef ZORVANE_PYTHON_SRC_BINDINGS_H_
#define ZORVANE_PYTHON_SRC_BINDINGS_H_

#include <string>

#include <pybind11/pybind11.h>

namespace zorvane {
namespace python {

// Map (a GridMapLossy) with its file operations, header values, geometry,
// array views and matrix operations.
void bindMap(pybind11::module_& module);

// LookUpTable (a GridMatrixTable): coarse geometry and its three arrays.
void bindLookUpTable(pybind11::module_& module);

// A path argument as the file operations take it: str, bytes or any
// os.PathLike. Raises TypeError for anything else.
std::string pathArgument(const pybind11::handle& path);

}  // namespace python
}  // namespace zorvane

#endif  // ZORVANE_PYTHON_SRC_BINDINGS_H_
