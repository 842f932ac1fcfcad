#include "python/src/map_arrays.h"

#include <sstream>
#include <vector>

namespace zorvane {
namespace python {

namespace {

std::string at(std::int64_t position, std::int64_t cols) {
  std::ostringstream s;
  s << "(row " << position / cols << ", col " << position % cols << ")";
  return s.str();
}

}  // namespace

std::string checkCellIndex(const std::int32_t* index, std::int64_t rows, std::int64_t cols,
                           std::int64_t cells) {
  const std::int64_t positions = rows * cols;
  std::vector<bool> named(static_cast<std::size_t>(cells), false);
  std::ostringstream problem;
  for (std::int64_t p = 0; p < positions; ++p) {
    const std::int32_t c = index[p];
    if (c == -1) continue;
    if (c < -1) {
      problem << "index entry at " << at(p, cols) << " is " << c
              << "; entries must be cell numbers or -1";
      return problem.str();
    }
    if (c >= cells) {
      problem << "index entry at " << at(p, cols) << " names cell " << c << ", but there are only "
              << cells << " cells";
      return problem.str();
    }
    if (named[static_cast<std::size_t>(c)]) {
      std::int64_t first = 0;
      while (index[first] != c) ++first;
      problem << "cell " << c << " is named twice, at " << at(first, cols) << " and at "
              << at(p, cols) << "; each cell must have exactly one position";
      return problem.str();
    }
    named[static_cast<std::size_t>(c)] = true;
  }
  for (std::int64_t c = 0; c < cells; ++c) {
    if (!named[static_cast<std::size_t>(c)]) {
      problem << "cell " << c << " is not named by any index entry; each cell must have exactly one position";
      return problem.str();
    }
  }
  return "";
}

}  // namespace python
}  // namespace zorvane
