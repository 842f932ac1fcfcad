// Recording stand-in for the closed GPU matcher (see stand_in_record.h).
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "gpu_aligner/gpu_aligner.h"
#include "gpu_aligner_stand_in/stand_in_record.h"

namespace zorvane {
namespace gpu_stand_in {
namespace {

Record& mutableRecord() {
  static Record record;
  return record;
}

void noteCall(const char* name) {
  mutableRecord().calls.push_back({name, std::chrono::steady_clock::now()});
}

void fail(bool& flag, const std::string& problem) {
  flag = false;
  mutableRecord().verdict.problems.push_back(problem);
}

// Copies `count` elements from `from`, or nothing when the count is negative
// or the pointer is null; false in those two cases when count != 0.
template <class T>
bool copyArray(const T* from, std::int64_t count, std::vector<T>& to) {
  to.clear();
  if (count <= 0) return count == 0;
  if (from == nullptr) return false;
  to.assign(from, from + count);
  return true;
}

}  // namespace

std::vector<std::string> Record::callNames() const {
  std::vector<std::string> names;
  names.reserve(calls.size());
  for (const CallEntry& call : calls) names.push_back(call.name);
  return names;
}

const Record& record() { return mutableRecord(); }

void resetRecord() { mutableRecord() = Record(); }

}  // namespace gpu_stand_in

namespace localization {

using gpu_stand_in::fail;
using gpu_stand_in::mutableRecord;

void cudaSetMatrixConfig(const MatrixConfig& config) {
  gpu_stand_in::noteCall("cudaSetMatrixConfig");
  mutableRecord().configs.push_back(config);
}

void cudaSetMatrixCells(const MCell* cells, int cell_count, const int* index, int index_count) {
  gpu_stand_in::noteCall("cudaSetMatrixCells");
  gpu_stand_in::Record& r = mutableRecord();
  gpu_stand_in::Verdict& v = r.verdict;
  r.cells_at = cells;
  r.cell_count = cell_count;
  r.index_at = index;
  r.index_count = index_count;

  if (!gpu_stand_in::copyArray(cells, cell_count, r.cells)) {
    fail(v.index_count_matches, "cudaSetMatrixCells: unusable cell array (count " +
                                    std::to_string(cell_count) + ")");
  }
  if (!gpu_stand_in::copyArray(index, index_count, r.index)) {
    fail(v.index_count_matches, "cudaSetMatrixCells: unusable index array (count " +
                                    std::to_string(index_count) + ")");
  }
  if (r.configs.empty()) {
    fail(v.index_count_matches, "cudaSetMatrixCells: no configuration received before");
  } else if (static_cast<std::int64_t>(index_count) != r.configs.back().grid_size) {
    fail(v.index_count_matches, "cudaSetMatrixCells: " + std::to_string(index_count) +
                                    " index entries for grid_size " +
                                    std::to_string(r.configs.back().grid_size));
  }

  const std::int64_t cells_available = std::max(cell_count, 0);
  for (std::size_t i = 0; i < r.index.size(); ++i) {
    const std::int32_t entry = r.index[i];
    if (entry != -1 && (entry < 0 || entry >= cells_available)) {
      fail(v.index_entries_valid, "cudaSetMatrixCells: index entry " + std::to_string(i) +
                                      " is " + std::to_string(entry) + " with " +
                                      std::to_string(cell_count) + " cells");
      break;
    }
  }
}

void cudaSetMatrixConfigCoarse(const MatrixConfig& config) {
  gpu_stand_in::noteCall("cudaSetMatrixConfigCoarse");
  mutableRecord().coarse_configs.push_back(config);
}

void cudaSetMatrixCellsCoarse(const float* height_table, int height_count,
                              const float* value_table, int value_count,
                              const MCellCoarse* coarse_cells) {
  gpu_stand_in::noteCall("cudaSetMatrixCellsCoarse");
  gpu_stand_in::Record& r = mutableRecord();
  gpu_stand_in::Verdict& v = r.verdict;
  r.height_table_at = height_table;
  r.height_count = height_count;
  r.value_table_at = value_table;
  r.value_count = value_count;
  r.coarse_cells_at = coarse_cells;

  if (!gpu_stand_in::copyArray(height_table, height_count, r.height_table)) {
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: unusable height table (count " +
                                   std::to_string(height_count) + ")");
  }
  if (!gpu_stand_in::copyArray(value_table, value_count, r.value_table)) {
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: unusable value table (count " +
                                   std::to_string(value_count) + ")");
  }
  if (r.coarse_configs.empty()) {
    r.coarse_cells.clear();
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: no coarse configuration received before");
    return;
  }
  const std::int64_t records = r.coarse_configs.back().grid_size;
  if (!gpu_stand_in::copyArray(coarse_cells, records, r.coarse_cells)) {
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: no coarse records for grid_size " +
                                   std::to_string(records));
  }

  // A range is inside when it is empty or ends at or before the table's end;
  // an absent table (negative count) holds nothing.
  const std::uint64_t values = static_cast<std::uint64_t>(std::max(value_count, 0));
  const std::uint64_t heights = static_cast<std::uint64_t>(std::max(height_count, 0));
  for (std::size_t i = 0; i < r.coarse_cells.size(); ++i) {
    const MCellCoarse& c = r.coarse_cells[i];
    const bool value_inside =
        c.value_bins == 0 || std::uint64_t{c.value_offset} + c.value_bins <= values;
    const bool height_inside =
        c.height_bins == 0 || std::uint64_t{c.height_offset} + c.height_bins <= heights;
    if (!value_inside || !height_inside) {
      fail(v.coarse_bins_inside,
           "cudaSetMatrixCellsCoarse: coarse record " + std::to_string(i) + " reaches past the " +
               (value_inside ? "height" : "value") + " table");
      break;
    }
  }
}

}  // namespace localization
}  // namespace zorvane
