#include "localization/look_up_table_block_walk.h"

#include <cmath>
#include <limits>

#include "localization/look_up_table_exact.h"

namespace zorvane {
namespace localization {
namespace lut {
namespace {

// One axis of a block: first grid line (i - table offset) * factor + matrix
// offset, and the part of [0, factor) inside [0, extent). False when that
// part is empty or the origin overflows.
bool axisWindow(std::int64_t i, std::int64_t table_offset, std::int64_t matrix_offset, std::int64_t factor,
                std::int64_t extent, std::int64_t* origin, std::int64_t* begin, std::int64_t* end) {
  std::int64_t o = 0;
  if (__builtin_mul_overflow(i - table_offset, factor, &o)) return false;
  if (__builtin_add_overflow(o, matrix_offset, &o)) return false;
  if (o >= extent || o <= -factor) return false;
  *origin = o;
  *begin = std::max<std::int64_t>(0, -o);
  *end = std::min<std::int64_t>(factor, extent - o);
  return *begin < *end;
}

}  // namespace

bool setTableGeometry(const GridMatrix& m, int factor, float height_step, float value_step, GridMatrixTable* t) {
  const float f = static_cast<float>(factor);
  t->resolution_ = m.resolution_ * f;
  t->cols_ = toInt32(std::ceil(static_cast<float>(m.cols_) / f));
  t->rows_ = toInt32(std::ceil(static_cast<float>(m.rows_) / f));
  t->offset_x_ = toInt32(std::floor(static_cast<float>(m.offset_x_) / f));
  t->offset_y_ = toInt32(std::floor(static_cast<float>(m.offset_y_) / f));
  t->height_step_ = height_step;
  t->value_step_ = value_step;
  const bool has_grid = t->cols_ > 0 && t->rows_ > 0 &&
                        static_cast<std::uint64_t>(t->cols_) * static_cast<std::uint64_t>(t->rows_) <=
                            std::numeric_limits<std::uint32_t>::max();
  t->grid_size_ = has_grid ? static_cast<std::uint32_t>(t->cols_) * static_cast<std::uint32_t>(t->rows_) : 0u;
  return t->grid_size_ != 0;
}

BlockWalker::BlockWalker(const GridMatrix& m, const GridMatrixTable& t, int factor)
    : cells_(m.cells_.data()),
      index_(m.index_.data()),
      cell_count_(static_cast<std::int64_t>(m.cells_.size())),
      index_size_(static_cast<std::int64_t>(m.index_.size())),
      cols_(m.cols_),
      rows_(m.rows_),
      factor_(factor),
      matrix_offset_x_(m.offset_x_),
      matrix_offset_y_(m.offset_y_),
      table_offset_x_(t.offset_x_),
      table_offset_y_(t.offset_y_) {
  // A matrix without columns has no window (window() returns false).
  if (cols_ > 0) {
    full_rows_ = index_size_ / cols_;
    partial_columns_ = index_size_ % cols_;
  }
}

bool BlockWalker::window(std::int64_t i, std::int64_t j, BlockWindow* w) const {
  if (factor_ < 1) return false;
  return axisWindow(i, table_offset_x_, matrix_offset_x_, factor_, cols_, &w->x0, &w->a_begin, &w->a_end) &&
         axisWindow(j, table_offset_y_, matrix_offset_y_, factor_, rows_, &w->y0, &w->b_begin, &w->b_end);
}

BlockRanges blockRanges(const BlockWalker& walker, std::int64_t i, std::int64_t j, float value_step,
                        float height_step) {
  std::int32_t value_low = 10000, value_high = -10000;
  std::int32_t height_low = 10000, height_high = -10000;
  std::int64_t cells = 0;
#if defined(__SSE2__)
  // Lanes: value component 0, 1, height component 0, 1; the same
  // operations as below, four at a time.
  const __m128 steps = _mm_setr_ps(value_step, value_step, height_step, height_step);
  __m128i low = _mm_set1_epi32(10000), high = _mm_set1_epi32(-10000);
  walker.forEachCell(i, j, [&](const MCell& cell) {
    ++cells;
    // Two floats in the low half (__m128i may alias any type).
    const auto pair = [](const float* v) { return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(v)); };
    const __m128 sigma = _mm_castsi128_ps(_mm_unpacklo_epi64(pair(cell.value_sigma), pair(cell.height_sigma)));
    const __m128 mean = _mm_castsi128_ps(_mm_unpacklo_epi64(pair(cell.value_mean), pair(cell.height_mean)));
    const __m128 spread = _mm_add_ps(sigma, sigma);
    low = minFour(low, roundToBinFour(_mm_div_ps(_mm_sub_ps(mean, spread), steps)));
    high = maxFour(high, roundToBinFour(_mm_div_ps(_mm_add_ps(mean, spread), steps)));
  });
  alignas(16) std::int32_t lows[4], highs[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(lows), low);
  _mm_store_si128(reinterpret_cast<__m128i*>(highs), high);
  value_low = std::min(lows[0], lows[1]);
  height_low = std::min(lows[2], lows[3]);
  value_high = std::max(highs[0], highs[1]);
  height_high = std::max(highs[2], highs[3]);
#else
  walker.forEachCell(i, j, [&](const MCell& cell) {
    ++cells;
    for (int c = 0; c < 2; ++c) {
      const float vs = cell.value_sigma[c], hs = cell.height_sigma[c];
      value_low = std::min(value_low, roundToBin((cell.value_mean[c] - (vs + vs)) / value_step));
      value_high = std::max(value_high, roundToBin((cell.value_mean[c] + (vs + vs)) / value_step));
      height_low = std::min(height_low, roundToBin((cell.height_mean[c] - (hs + hs)) / height_step));
      height_high = std::max(height_high, roundToBin((cell.height_mean[c] + (hs + hs)) / height_step));
    }
  });
#endif
  BlockRanges r;
  r.cells = cells;
  const std::int64_t value_first = std::max<std::int32_t>(value_low, 0);
  const std::int64_t value_last = std::min<std::int32_t>(value_high, 255);
  if (value_last >= value_first) {
    r.value_first = value_first;
    r.value_n = value_last - value_first + 1;
  }
  if (height_high >= height_low) {
    r.height_first = height_low;
    r.height_n = std::min<std::int64_t>(static_cast<std::int64_t>(height_high) - height_low + 1, kMaxHeightBins);
  }
  return r;
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane
