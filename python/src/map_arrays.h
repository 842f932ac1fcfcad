// Checks that let a map be built from, or saved with, arrays that Python
// code filled: the position index must name every cell exactly once.
#ifndef ZORVANE_PYTHON_SRC_MAP_ARRAYS_H_
#define ZORVANE_PYTHON_SRC_MAP_ARRAYS_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "localization/lossy_format.h"

namespace zorvane {
namespace python {

// The most cells a map file can hold (its lengths are signed 32-bit).
constexpr std::int64_t kMaxMapCells = localization::lossy::kMaxCells;

// Checks a row-major index of `rows` x `cols` entries against `cells` cells:
// every entry is -1 or a cell number below `cells`, and each cell is named
// by exactly one position. Returns "" when it holds, otherwise one sentence
// naming the first problem found (positions as "(row r, col c)"). Reads the
// index only; takes one bit of scratch memory per cell.
std::string checkCellIndex(const std::int32_t* index, std::int64_t rows, std::int64_t cols,
                           std::int64_t cells);

}  // namespace python
}  // namespace zorvane

#endif  // ZORVANE_PYTHON_SRC_MAP_ARRAYS_H_
