// zvmap diff: header and cell-by-cell differences between two maps.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "localization/grid_map_lossy.h"
#include "tools/zvmap/cell_fields.h"
#include "tools/zvmap/commands.h"
#include "tools/zvmap/console.h"
#include "tools/zvmap/map_loading.h"

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

using localization::GridMapLossy;
using localization::GridMatrix;
using localization::MCell;

constexpr int kShownDifferences = 10;

template <typename T>
bool sameBits(T a, T b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Whether two stored values of field `f` agree: bit for bit with kExact;
// with kQuantised when they lie at most one file quantum apart (they may be
// neighbouring quantisations of nearly the same value), with room for the
// single-precision rounding of values far from zero.
bool fieldsAgree(float a, float b, int f, Tolerance tolerance) {
  if (sameBits(a, b)) return true;
  if (tolerance == Tolerance::kExact || !std::isfinite(a) || !std::isfinite(b)) return false;
  const double slack = 1e-6 * std::max(std::fabs(static_cast<double>(a)), std::fabs(static_cast<double>(b)));
  return std::fabs(static_cast<double>(a) - b) <= fieldQuantum(f) * 1.001 + slack;
}

const MCell* cellAt(const GridMatrix& m, std::int64_t x, std::int64_t y) {
  if (x < 0 || y < 0 || x >= m.cols_ || y >= m.rows_) return nullptr;
  const std::int64_t flat = y * m.cols_ + x;
  if (flat >= static_cast<std::int64_t>(m.index_.size())) return nullptr;
  const std::int32_t c = m.index_[static_cast<std::size_t>(flat)];
  if (c < 0 || static_cast<std::size_t>(c) >= m.cells_.size()) return nullptr;
  return &m.cells_[static_cast<std::size_t>(c)];
}

class HeaderDiff {
 public:
  template <typename T>
  void compare(const std::string& name, const T& a, const T& b, const std::string& a_text,
               const std::string& b_text) {
    bool same;
    if constexpr (std::is_floating_point<T>::value) {
      same = sameBits(a, b);
    } else {
      same = a == b;
    }
    if (same) return;
    ++count_;
    std::cout << "  " << name << ": " << a_text << " | " << b_text << "\n";
  }
  int count() const { return count_; }

 private:
  int count_ = 0;
};

int compareHeaders(const GridMapLossy& a, const GridMapLossy& b) {
  HeaderDiff d;
  const GridMatrix& ma = a.matrix();
  const GridMatrix& mb = b.matrix();
  d.compare("tag", a.header_tag_, b.header_tag_, std::to_string(a.header_tag_), std::to_string(b.header_tag_));
  d.compare("height origin", a.height_base_, b.height_base_, formatFloat(a.height_base_), formatFloat(b.height_base_));
  d.compare("aux origin", a.aux_value_base_, b.aux_value_base_, formatFloat(a.aux_value_base_),
            formatFloat(b.aux_value_base_));
  for (int k = 0; k < 3; ++k) {
    d.compare("reference[" + std::to_string(k) + "]", a.reference_[k], b.reference_[k],
              formatDouble(a.reference_[k]), formatDouble(b.reference_[k]));
  }
  d.compare("cols", ma.cols_, mb.cols_, std::to_string(ma.cols_), std::to_string(mb.cols_));
  d.compare("rows", ma.rows_, mb.rows_, std::to_string(ma.rows_), std::to_string(mb.rows_));
  d.compare("offset x", ma.offset_x_, mb.offset_x_, std::to_string(ma.offset_x_), std::to_string(mb.offset_x_));
  d.compare("offset y", ma.offset_y_, mb.offset_y_, std::to_string(ma.offset_y_), std::to_string(mb.offset_y_));
  if (d.count() == 0) std::cout << "  same\n";
  return d.count();
}

}  // namespace

int runDiff(const DiffOptions& options) {
  GridMapLossy a, b;
  if (!loadOrFail(options.a, /*prepare=*/false, &a)) return kExitFailed;
  if (!loadOrFail(options.b, /*prepare=*/false, &b)) return kExitFailed;
  const GridMatrix& ma = a.matrix();
  const GridMatrix& mb = b.matrix();
  const bool exact = options.tolerance == Tolerance::kExact;

  std::cout << "diff " << options.a << " | " << options.b << " (tolerance "
            << (exact ? "exact" : "quantised") << ")\n"
            << "header\n";
  const int header_differences = compareHeaders(a, b);

  // Positions are matched on the map-wide grid: matrix column x of A is
  // map-wide column x - A's offset_x_, which is B's column that minus B's.
  const std::int64_t dx = static_cast<std::int64_t>(mb.offset_x_) - ma.offset_x_;
  const std::int64_t dy = static_cast<std::int64_t>(mb.offset_y_) - ma.offset_y_;
  std::int64_t both = 0, only_a = 0, only_b = 0, differing = 0;
  std::array<std::int64_t, kCellFields> per_field{};
  std::vector<std::string> shown;
  for (std::int64_t y = 0; y < ma.rows_; ++y) {
    for (std::int64_t x = 0; x < ma.cols_; ++x) {
      const MCell* ca = cellAt(ma, x, y);
      if (ca == nullptr) continue;
      const MCell* cb = cellAt(mb, x + dx, y + dy);
      if (cb == nullptr) {
        ++only_a;
        if (static_cast<int>(shown.size()) < kShownDifferences) {
          shown.push_back("(" + std::to_string(x) + ", " + std::to_string(y) + ") only in A");
        }
        continue;
      }
      ++both;
      std::string fields;
      for (int f = 0; f < kCellFields; ++f) {
        const float va = cellField(*ca, f), vb = cellField(*cb, f);
        if (fieldsAgree(va, vb, f, options.tolerance)) continue;
        ++per_field[f];
        if (fields.size() < 200) {
          fields += std::string(fields.empty() ? "" : ", ") + kCellFieldNames[f] + " " + formatFloat(va) + " | " +
                    formatFloat(vb);
        }
      }
      if (fields.empty()) continue;
      ++differing;
      if (static_cast<int>(shown.size()) < kShownDifferences) {
        shown.push_back("(" + std::to_string(x) + ", " + std::to_string(y) + "): " + fields);
      }
    }
  }
  for (std::int64_t y = 0; y < mb.rows_; ++y) {
    for (std::int64_t x = 0; x < mb.cols_; ++x) {
      if (cellAt(mb, x, y) == nullptr || cellAt(ma, x - dx, y - dy) != nullptr) continue;
      ++only_b;
      if (static_cast<int>(shown.size()) < kShownDifferences) {
        shown.push_back("(" + std::to_string(x - dx) + ", " + std::to_string(y - dy) + ") only in B");
      }
    }
  }

  std::cout << "cells\n"
            << "  positions     " << both << " in both, " << only_a << " only in A, " << only_b << " only in B\n"
            << "  differing     " << differing << " of the common positions"
            << (exact ? "" : " beyond quantisation") << "\n";
  for (int f = 0; f < kCellFields; ++f) {
    if (per_field[f] > 0) std::cout << "    " << kCellFieldNames[f] << ": " << per_field[f] << "\n";
  }
  if (!shown.empty()) {
    std::cout << "  first differences (A's grid positions)\n";
    for (const std::string& line : shown) std::cout << "    " << line << "\n";
  }
  const bool same = header_differences == 0 && only_a == 0 && only_b == 0 && differing == 0;
  std::cout << "result: " << (same ? "the maps match" : "the maps differ") << "\n";
  if (same) return kExitOk;
  return fail(options.a, "differs from " + options.b);
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
