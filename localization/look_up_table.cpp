// GridMatrix::getLookUpTable and measureLookUpTable; the contract is in
// look_up_table.h.
//
// The table's definition builds one heap histogram per coarse position and
// axis, bin by bin, each bin walking the whole block again. This builder
// produces the same bits with far less work and memory, in three steps:
//  1. A range pass (parallel, look_up_table_block_walk.h) writes each
//     position's bin counts and first bins into its record;
//  2. a serial prefix sum gives the offsets (look_up_table_packing.h), and
//     the two sequences are sized once;
//  3. a fill pass (parallel, look_up_table_histogram.h) writes every
//     histogram straight into its final place. No per-position allocation.
// Both passes hand rows of coarse positions to the team (each row of blocks
// reads its index entries and cells as forward streams and writes one
// stretch of records and bins). Every histogram depends on its own block
// alone, so which thread builds it changes no bit.
#include "localization/look_up_table.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <vector>

#include "localization/look_up_table_block_walk.h"
#include "localization/look_up_table_histogram.h"
#include "localization/look_up_table_packing.h"
#include "localization/map_allocator.h"

namespace zorvane {
namespace localization {
namespace {

// Rows of blocks are handed to the threads a few at a time as they become
// free: the work per row varies with the map, and on a shared machine one
// thread of the team may be held up, so a fixed split would leave the other
// waiting at the end of each pass.
constexpr int kRowsPerChunk = 4;

// Sizes an empty table sequence to n floats for the fill pass, which writes
// every one of them. The allocation faults its pages in with the team and
// hands them out zeroed (map_allocator.h), so the elements are left as
// they are: value-initialising them would write hundreds of megabytes of
// zeros again, on one thread. The bins take huge pages where they are free
// (map_allocator.h says why the table does and the matrix does not).
void sizeForFill(MapVector<float>& v, std::size_t n) {
  const internal::HugePagesWhereFree huge_pages;
  v.reserve(n);
  internal::growLeftForWriter(v, n);
}

}  // namespace

LookUpTableExtent measureLookUpTable(const GridMatrix& matrix, int factor, float height_step, float value_step) {
  LookUpTableExtent extent;
  GridMatrixTable table;
  if (!matrix.precalculated_ || !lut::setTableGeometry(matrix, factor, height_step, value_step, &table)) {
    return extent;
  }
  extent.records = table.grid_size_;
  const std::int64_t columns = table.cols_;
  const std::int64_t rows = table.rows_;
  const lut::BlockWalker walker(matrix, table, factor);
  std::uint64_t value_bins = 0, height_bins = 0, work = 0;
#pragma omp parallel reduction(+ : value_bins, height_bins, work)
  {
#pragma omp for schedule(dynamic, kRowsPerChunk) nowait
    for (std::int64_t j = 0; j < rows; ++j) {
      for (std::int64_t i = 0; i < columns; ++i) {
        const lut::BlockRanges r = lut::blockRanges(walker, i, j, value_step, height_step);
        value_bins += static_cast<std::uint64_t>(r.value_n);
        height_bins += static_cast<std::uint64_t>(r.height_n);
        work += static_cast<std::uint64_t>(r.value_n + r.height_n) * static_cast<std::uint64_t>(r.cells);
      }
    }
  }
  extent.value_bins = value_bins;
  extent.height_bins = height_bins;
  extent.work = work;
  return extent;
}

namespace {

// The builder behind getLookUpTable and buildLookUpTableWithin: false, with
// *table holding geometry and records only, when `accept` (may be null)
// refuses the extent found by the range pass.
bool buildTable(const GridMatrix& matrix, int factor, float height_step, float value_step,
                const std::function<bool(const LookUpTableExtent&)>* accept, GridMatrixTable* out) {
  GridMatrixTable& table = *out;
  table = GridMatrixTable();
  if (!matrix.precalculated_ || !lut::setTableGeometry(matrix, factor, height_step, value_step, &table)) {
    return accept == nullptr || (*accept)(LookUpTableExtent());
  }

  const std::int64_t columns = table.cols_;
  const std::int64_t rows = table.rows_;
  table.coarse_cells_.resize(table.grid_size_);
  MCellCoarse* const records = table.coarse_cells_.data();
  // The records keep only the low 16 bits of a height first bin; the fill
  // pass needs all of it. (Value first bins, 0..255, fit the record.)
  std::unique_ptr<std::int32_t[]> height_firsts(new std::int32_t[table.grid_size_]);
  const lut::BlockWalker walker(matrix, table, factor);
  const int team = std::max(1, omp_get_max_threads());

  // Range pass: counts and first bins into the records; the widest ranges
  // size the per-thread working memory.
  std::vector<std::int64_t> widest_value(static_cast<std::size_t>(team), 0);
  std::vector<std::int64_t> widest_height(static_cast<std::size_t>(team), 0);
  std::uint64_t work = 0;
#pragma omp parallel num_threads(team) reduction(+ : work)
  {
    const int thread = omp_get_thread_num();
    std::int64_t value_n = 0, height_n = 0;
#pragma omp for schedule(dynamic, kRowsPerChunk) nowait
    for (std::int64_t j = 0; j < rows; ++j) {
      for (std::int64_t i = 0; i < columns; ++i) {
        const lut::BlockRanges r = lut::blockRanges(walker, i, j, value_step, height_step);
        height_firsts[j * columns + i] = static_cast<std::int32_t>(r.height_first);
        lut::packCounts(r, &records[j * columns + i]);
        value_n = std::max(value_n, r.value_n);
        height_n = std::max(height_n, r.height_n);
        work += static_cast<std::uint64_t>(r.value_n + r.height_n) * static_cast<std::uint64_t>(r.cells);
      }
    }
    widest_value[static_cast<std::size_t>(thread)] = value_n;
    widest_height[static_cast<std::size_t>(thread)] = height_n;
  }

  LookUpTableExtent extent;
  extent.records = table.grid_size_;
  extent.work = work;
  const bool addressable = lut::assignOffsets(records, table.grid_size_, &extent.value_bins, &extent.height_bins);
  if (accept != nullptr && !(*accept)(extent)) return false;
  if (!addressable) throw std::bad_alloc();
  sizeForFill(table.value_table_, extent.value_bins);
  sizeForFill(table.height_table_, extent.height_bins);

  const std::int64_t value_width = *std::max_element(widest_value.begin(), widest_value.end());
  const std::int64_t height_width = *std::max_element(widest_height.begin(), widest_height.end());
  std::vector<std::unique_ptr<lut::HistogramKernel>> kernels(static_cast<std::size_t>(team));
  for (auto& k : kernels) {
    k.reset(new lut::HistogramKernel(value_width, height_width, value_step, table.prob_scale_, table.prob_floor_));
  }

  float* const value_out = table.value_table_.data();
  float* const height_out = table.height_table_.data();

  // Fill pass: every histogram straight into its place.
#pragma omp parallel num_threads(team)
  {
    const int thread = omp_get_thread_num();
    lut::HistogramKernel& kernel = *kernels[static_cast<std::size_t>(thread)];
#pragma omp for schedule(dynamic, kRowsPerChunk) nowait
    for (std::int64_t j = 0; j < rows; ++j) {
      for (std::int64_t i = 0; i < columns; ++i) {
        const MCellCoarse& rec = records[j * columns + i];
        if (rec.value_bins == 0 && rec.height_bins == 0) continue;
        lut::BlockRanges r;
        r.value_first = rec.value_first;
        r.value_n = rec.value_bins;
        r.height_first = height_firsts[j * columns + i];
        r.height_n = rec.height_bins;
        kernel.build(walker, i, j, r, value_step, height_step, value_out + rec.value_offset,
                     height_out + rec.height_offset);
      }
    }
    kernel.finish();
  }
  return true;
}

}  // namespace

GridMatrixTable GridMatrix::getLookUpTable(int factor, float height_step, float value_step) const {
  GridMatrixTable table;
  buildTable(*this, factor, height_step, value_step, nullptr, &table);
  return table;
}

bool buildLookUpTableWithin(const GridMatrix& matrix, int factor, float height_step, float value_step,
                            const std::function<bool(const LookUpTableExtent&)>& accept, GridMatrixTable* table) {
  return buildTable(matrix, factor, height_step, value_step, &accept, table);
}

}  // namespace localization
}  // namespace zorvane
