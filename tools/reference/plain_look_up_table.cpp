#include "tools/reference/plain_look_up_table.h"

#include <omp.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "localization/parallel_split.h"

namespace zorvane {
namespace reference {
namespace {

using localization::GridMatrix;
using localization::GridMatrixTable;
using localization::MCell;

// The taking-part cell at grid position (x, y), or nullptr.
const MCell* cellAt(const GridMatrix& m, std::int64_t x, std::int64_t y) {
  if (x < 0 || x >= m.cols_ || y < 0 || y >= m.rows_) return nullptr;
  const std::int64_t flat = y * m.cols_ + x;
  if (flat >= static_cast<std::int64_t>(m.index_.size())) return nullptr;
  const std::int32_t e = m.index_[static_cast<std::size_t>(flat)];
  if (e == -1) return nullptr;
  if (e < 0 || static_cast<std::size_t>(e) >= m.cells_.size()) return nullptr;
  return &m.cells_[static_cast<std::size_t>(e)];
}

void normalise(std::vector<float>& h, const GridMatrixTable& t) {
  const std::int64_t n = static_cast<std::int64_t>(h[0]);
  float sum = 0.f;
  for (std::int64_t k = 0; k < n; ++k) sum += h[static_cast<std::size_t>(k + 2)];
  for (std::int64_t k = 0; k < n; ++k) {
    float& v = h[static_cast<std::size_t>(k + 2)];
    if (sum == 0.f) {
      v = std::log(t.prob_floor_);
    } else {
      v = std::log((v / sum) * t.prob_scale_ + t.prob_floor_);
    }
  }
}

enum Axis { kValue, kHeight };

// One histogram, bin-outer: for every bin, a full walk over the block.
std::vector<float> histogram(const GridMatrix& m, const GridMatrixTable& t, Axis axis, int f,
                             std::int64_t x0, std::int64_t y0, std::int64_t first, std::int64_t last) {
  std::int64_t n = last - first + 1;
  if (n < 1) return {0.f, 0.f};
  if (axis == kHeight && n > 65535) n = 65535;
  std::vector<float> h(static_cast<std::size_t>(n + 2));
  h[0] = static_cast<float>(n);
  h[1] = static_cast<float>(first);
  const float step = axis == kValue ? t.value_step_ : t.height_step_;
  for (std::int64_t k = first; k < first + n; ++k) {
    float v = 0.f;
    for (int a = 0; a < f; ++a) {
      for (int b = 0; b < f; ++b) {
        const MCell* cell = cellAt(m, x0 + a, y0 + b);
        if (cell == nullptr) continue;
        for (int c = 0; c < 2; ++c) {
          const float mean = axis == kValue ? cell->value_mean[c] : cell->height_mean[c];
          const float sigma = axis == kValue ? cell->value_sigma[c] : cell->height_sigma[c];
          const float weight = axis == kValue ? cell->value_weight[c] : cell->height_weight[c];
          const float z = static_cast<float>(k) * step;
          v += weight * std::exp(-(z - mean) * (z - mean) / sigma);
        }
      }
    }
    h[static_cast<std::size_t>(k - first + 2)] = v;
  }
  normalise(h, t);
  return h;
}

void assemble(const std::vector<std::vector<float>>& hists, localization::MapVector<float>& table,
              localization::MapVector<localization::MCellCoarse>& records, bool value) {
  std::uint64_t total = 0;
  for (const auto& h : hists) total += static_cast<std::uint64_t>(std::lround(h[0]));
  table.resize(total);
  std::uint64_t offset = 0;
  for (std::size_t p = 0; p < hists.size(); ++p) {
    const auto& h = hists[p];
    const long n = std::lround(h[0]);
    const auto first = static_cast<std::uint16_t>(static_cast<std::uint64_t>(std::llround(h[1])) & 0xFFFFu);
    if (value) {
      records[p].value_bins = static_cast<std::uint16_t>(n & 0xFFFF);
      records[p].value_first = static_cast<std::int16_t>(first);
      records[p].value_offset = static_cast<std::uint32_t>(offset);
    } else {
      records[p].height_bins = static_cast<std::uint16_t>(n & 0xFFFF);
      records[p].height_first = static_cast<std::int16_t>(first);
      records[p].height_offset = static_cast<std::uint32_t>(offset);
    }
    for (long k = 0; k < n; ++k) table[offset + static_cast<std::uint64_t>(k)] = h[static_cast<std::size_t>(k + 2)];
    offset += static_cast<std::uint64_t>(n);
  }
}

}  // namespace

std::int32_t plainToInt32(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return INT32_MAX;
  if (v <= -2147483648.0f) return INT32_MIN;
  return static_cast<std::int32_t>(v);
}

std::int32_t plainRoundToInt32(float v) { return plainToInt32(std::round(v)); }

localization::GridMatrixBase plainCoarseGeometry(const localization::GridMatrixBase& m, int factor) {
  localization::GridMatrixBase t;
  const float F = static_cast<float>(factor);
  t.resolution_ = m.resolution_ * F;
  t.cols_ = plainToInt32(std::ceil(static_cast<float>(m.cols_) / F));
  t.rows_ = plainToInt32(std::ceil(static_cast<float>(m.rows_) / F));
  t.offset_x_ = plainToInt32(std::floor(static_cast<float>(m.offset_x_) / F));
  t.offset_y_ = plainToInt32(std::floor(static_cast<float>(m.offset_y_) / F));
  const std::uint64_t product = static_cast<std::uint64_t>(static_cast<std::uint32_t>(t.cols_)) *
                                static_cast<std::uint32_t>(t.rows_);
  t.grid_size_ = t.cols_ <= 0 || t.rows_ <= 0 || product > UINT32_MAX ? 0u : static_cast<std::uint32_t>(product);
  return t;
}

GridMatrixTable plainLookUpTable(const GridMatrix& m, int factor, float height_step, float value_step) {
  GridMatrixTable t;
  if (!m.precalculated_) return t;

  static_cast<localization::GridMatrixBase&>(t) = plainCoarseGeometry(m, factor);
  t.height_step_ = height_step;
  t.value_step_ = value_step;

  std::vector<std::vector<float>> value_hists(t.grid_size_);
  std::vector<std::vector<float>> height_hists(t.grid_size_);
  const std::int64_t columns = t.grid_size_ == 0 ? 0 : t.cols_;

#pragma omp parallel
  {
    const localization::WorkRange range =
        localization::staticSplit(columns, omp_get_num_threads(), omp_get_thread_num());
    for (std::int64_t i = range.begin; i < range.end; ++i) {
      for (std::int64_t j = 0; j < t.rows_; ++j) {
        const std::size_t p = static_cast<std::size_t>(j * t.cols_ + i);
        if (factor < 1) {
          value_hists[p] = {0.f, 0.f};
          height_hists[p] = {0.f, 0.f};
          continue;
        }
        const std::int64_t x0 = (i - t.offset_x_) * factor + m.offset_x_;
        const std::int64_t y0 = (j - t.offset_y_) * factor + m.offset_y_;
        int value_low = 10000, value_high = -10000, height_low = 10000, height_high = -10000;
        for (int a = 0; a < factor; ++a) {
          for (int b = 0; b < factor; ++b) {
            const MCell* cell = cellAt(m, x0 + a, y0 + b);
            if (cell == nullptr) continue;
            for (int c = 0; c < 2; ++c) {
              const float vs = cell->value_sigma[c], hs = cell->height_sigma[c];
              const int vlo = plainRoundToInt32((cell->value_mean[c] - (vs + vs)) / value_step);
              const int vhi = plainRoundToInt32((cell->value_mean[c] + (vs + vs)) / value_step);
              const int hlo = plainRoundToInt32((cell->height_mean[c] - (hs + hs)) / height_step);
              const int hhi = plainRoundToInt32((cell->height_mean[c] + (hs + hs)) / height_step);
              value_low = std::min(value_low, vlo);
              value_high = std::max(value_high, vhi);
              height_low = std::min(height_low, hlo);
              height_high = std::max(height_high, hhi);
            }
          }
        }
        value_hists[p] = histogram(m, t, kValue, factor, x0, y0, std::max(value_low, 0), std::min(value_high, 255));
        height_hists[p] = histogram(m, t, kHeight, factor, x0, y0, height_low, height_high);
      }
    }
  }

  t.coarse_cells_.resize(t.grid_size_);
  assemble(value_hists, t.value_table_, t.coarse_cells_, true);
  assemble(height_hists, t.height_table_, t.coarse_cells_, false);
  return t;
}

}  // namespace reference
}  // namespace zorvane
