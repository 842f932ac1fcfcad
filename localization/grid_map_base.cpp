#include "localization/grid_map_base.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <limits>
#include <utility>

namespace zorvane {
namespace localization {

GridMapBase::GridMapBase()
    : value_step_(1.0f),
      height_step_(0.15f),
      header_tag_(0),
      body_size_(0),
      height_base_(std::numeric_limits<float>::infinity()),
      aux_value_base_(std::numeric_limits<float>::infinity()),
      reference_{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
                 std::numeric_limits<double>::infinity()} {}

// Members go in reverse order of declaration: the table cache, then the
// matrix.
GridMapBase::~GridMapBase() = default;

bool GridMapBase::saveToFile(const std::string&) { return false; }

bool GridMapBase::ReadFromFile(const std::string&) { return false; }

const GridMatrix& GridMapBase::matrix() const { return matrix_; }

GridMatrix& GridMapBase::mutable_matrix() { return matrix_; }

const GridMatrixTable& GridMapBase::matrixTable(const unsigned& level) const {
  try {
    return matrix_tables_.at(level);
  } catch (const std::exception& e) {
    // A level that was never generated is a programming error of the
    // caller, with no table to fall back on.
    std::cerr << e.what() << '\n' << std::flush;
    std::exit(-1);
  }
}

GridMatrixTable& GridMapBase::mutable_matrixable(const unsigned& level) {
  auto it = matrix_tables_.lower_bound(level);
  if (it != matrix_tables_.end() && it->first == level) return it->second;
  return matrix_tables_.emplace_hint(it, level, GridMatrixTable())->second;
}

void GridMapBase::generateMatrixTalbe(const unsigned& level) {
  auto it = matrix_tables_.lower_bound(level);
  if (it != matrix_tables_.end() && it->first == level) return;
  // The computed table's three arrays are moved into the cache entry, not
  // copied: a level-4 table of a large map runs to hundreds of megabytes.
  matrix_tables_.emplace_hint(
      it, level, matrix_.getLookUpTable(static_cast<int>(level), height_step_, value_step_));
}

}  // namespace localization
}  // namespace zorvane
