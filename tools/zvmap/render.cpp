// zvmap render: one layer of a map as a PNG picture.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "localization/grid_map_lossy.h"
#include "tools/zvmap/cell_fields.h"
#include "tools/zvmap/colour_map.h"
#include "tools/zvmap/commands.h"
#include "tools/zvmap/console.h"
#include "tools/zvmap/map_loading.h"
#include "tools/zvmap/png_writer.h"
#include "tools/zvmap/table_measure.h"

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

using localization::GridMapLossy;
using localization::GridMatrix;
using localization::MCell;

constexpr Rgba kTransparent = {0, 0, 0, 0};
constexpr Rgba kOccupied = {0, 0, 0, 255};

// The cell at grid position (x, y), or null when the position is empty.
const MCell* cellAt(const GridMatrix& m, std::int64_t x, std::int64_t y) {
  const std::int64_t flat = y * m.cols_ + x;
  if (flat >= static_cast<std::int64_t>(m.index_.size())) return nullptr;
  const std::int32_t c = m.index_[static_cast<std::size_t>(flat)];
  if (c < 0 || static_cast<std::size_t>(c) >= m.cells_.size()) return nullptr;
  return &m.cells_[static_cast<std::size_t>(c)];
}

// Writes `height` rows of `width` pixels, top row first; `pixel(x, row)`
// gives the colour of column x in image row `row`.
template <typename Pixel>
std::string writeImage(const std::string& path, std::uint32_t width, std::uint32_t height, Pixel pixel) {
  PngWriter png;
  std::string error = png.open(path, width, height);
  if (!error.empty()) return error;
  std::vector<std::uint8_t> row(static_cast<std::size_t>(width) * 4);
  Progress progress("render", height);
  for (std::uint32_t r = 0; r < height; ++r) {
    for (std::uint32_t x = 0; x < width; ++x) {
      const Rgba c = pixel(x, r);
      std::uint8_t* p = &row[static_cast<std::size_t>(x) * 4];
      p[0] = c.r;
      p[1] = c.g;
      p[2] = c.b;
      p[3] = c.a;
    }
    if (!png.writeRow(row.data())) break;
    progress.update(r + 1);
  }
  progress.finish();
  return png.finish();
}

std::string size(std::uint32_t width, std::uint32_t height) {
  return std::to_string(width) + " x " + std::to_string(height) + " px";
}

}  // namespace

int runRender(const RenderOptions& options) {
  GridMapLossy map;
  if (!loadOrFail(options.map, /*prepare=*/false, &map)) return kExitFailed;
  const GridMatrix& m = map.matrix();
  const auto width = static_cast<std::uint32_t>(m.cols_);
  const auto height = static_cast<std::uint32_t>(m.rows_);
  // North up: image row r shows grid row rows - 1 - r.
  const std::int64_t top = m.rows_ - 1;
  std::string legend, error;

  switch (options.layer) {
    case Layer::kValue:
      error = writeImage(options.output, width, height, [&](std::uint32_t x, std::uint32_t r) {
        const MCell* cell = cellAt(m, x, top - r);
        return cell == nullptr ? kTransparent : grey(valueMixtureMean(*cell) / 255.0f);
      });
      legend = "value: mixture mean of the value axis, grey from 0 (black) to 255 (white)";
      break;
    case Layer::kHeight: {
      double lo = std::numeric_limits<double>::infinity(), hi = -lo;
      std::int64_t non_finite = 0;
      for (std::int64_t y = 0; y <= top; ++y) {
        for (std::int64_t x = 0; x < m.cols_; ++x) {
          const MCell* cell = cellAt(m, x, y);
          if (cell == nullptr) continue;
          const float h = heightMixtureMean(*cell);
          if (!std::isfinite(h)) {
            ++non_finite;
            continue;
          }
          lo = std::min(lo, static_cast<double>(h));
          hi = std::max(hi, static_cast<double>(h));
        }
      }
      error = writeImage(options.output, width, height, [&](std::uint32_t x, std::uint32_t r) {
        const MCell* cell = cellAt(m, x, top - r);
        if (cell == nullptr) return kTransparent;
        const float h = heightMixtureMean(*cell);
        return std::isfinite(h) ? viridis(unitPosition(h, lo, hi)) : kTransparent;
      });
      legend = lo <= hi ? "height: mixture mean of the height axis, viridis from " + formatFloat(static_cast<float>(lo)) +
                              " (dark blue) to " + formatFloat(static_cast<float>(hi)) + " (yellow)"
                        : std::string("height: no finite heights");
      if (non_finite > 0) legend += ", " + std::to_string(non_finite) + " non-finite heights transparent";
      break;
    }
    case Layer::kOccupancy:
      error = writeImage(options.output, width, height, [&](std::uint32_t x, std::uint32_t r) {
        return cellAt(m, x, top - r) == nullptr ? kTransparent : kOccupied;
      });
      legend = "occupancy: occupied positions black";
      break;
    case Layer::kBins: {
      const TableMeasure measure(m, options.level, map.height_step_, map.value_step_);
      const auto& c = measure.coarse();
      if (c.grid_size_ == 0) return fail(options.map, "the level-" + std::to_string(options.level) + " table is empty");
      // One count per coarse position, a sixteenth of the index at level 4.
      std::vector<std::uint32_t> bins(c.grid_size_);
      std::int64_t most = 0;
      {
        Progress progress("render: sizing the table", c.rows_);
        for (std::int32_t j = 0; j < c.rows_; ++j) {
          for (std::int32_t i = 0; i < c.cols_; ++i) {
            const BlockBins b = measure.block(i, j);
            const std::int64_t total = b.cells > 0 ? b.value + b.height : -1;
            bins[static_cast<std::size_t>(j) * c.cols_ + i] = static_cast<std::uint32_t>(total + 1);
            most = std::max(most, total);
          }
          progress.update(j + 1);
        }
      }
      const std::int64_t coarse_top = c.rows_ - 1;
      error = writeImage(options.output, static_cast<std::uint32_t>(c.cols_), static_cast<std::uint32_t>(c.rows_),
                         [&](std::uint32_t i, std::uint32_t r) {
                           const std::uint32_t stored =
                               bins[static_cast<std::size_t>(coarse_top - r) * c.cols_ + i];
                           return stored == 0 ? kTransparent
                                              : viridis(unitPosition(stored - 1.0, 0.0, static_cast<double>(most)));
                         });
      legend = "bins: value plus height bins of the level-" + std::to_string(options.level) +
               " table per coarse position, viridis from 0 (dark blue) to " + std::to_string(std::max<std::int64_t>(most, 0)) +
               " (yellow)";
      if (error.empty()) {
        std::cout << legend << "; " << size(static_cast<std::uint32_t>(c.cols_), static_cast<std::uint32_t>(c.rows_))
                  << ", north up, empty blocks transparent; wrote " << options.output << "\n";
        return kExitOk;
      }
      break;
    }
  }
  if (!error.empty()) return fail(options.output, error);
  std::cout << legend << "; " << size(width, height) << ", north up, unoccupied transparent; wrote "
            << options.output << "\n";
  return kExitOk;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
