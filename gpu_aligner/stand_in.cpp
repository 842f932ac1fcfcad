// Recording stand-in for the closed GPU matcher (see stand_in_record.h).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
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

// Reads `count` elements behind `from` into a digest, or nothing when the
// count is negative or the pointer is null; false in those two cases when
// count != 0. Each piece of the array is handed to inspect(piece, n,
// first_element) right after it was digested, while it is still in the
// caches, so that the checks do not read the array a second time.
template <class T, class Inspect>
bool receive(const T* from, std::int64_t count, ReceivedArray& to, Inspect&& inspect) {
  to = ReceivedArray();
  to.at = from;
  to.count = count;
  const bool usable = count == 0 || (count > 0 && from != nullptr);
  if (usable && count > 0) {
    to.elements = count;
    to.bytes = static_cast<std::size_t>(count) * sizeof(T);
  }
  // Pieces of 16 KiB: a whole number of elements and of the digest's
  // 32-byte groups, and small enough to stay in the first-level cache.
  constexpr std::size_t kPieceBytes = 16384;
  constexpr std::int64_t kPieceElements = kPieceBytes / sizeof(T);
  static_assert(kPieceBytes % sizeof(T) == 0 && kPieceElements * sizeof(T) % 32 == 0, "whole elements and groups");
  DigestStream digest;
  for (std::int64_t first = 0; first < to.elements; first += kPieceElements) {
    const std::int64_t n = std::min(kPieceElements, to.elements - first);
    digest.add(from + first, static_cast<std::size_t>(n) * sizeof(T));
    inspect(from + first, n, first);
  }
  to.digest = digest.result();
  return usable;
}

template <class T>
bool receive(const T* from, std::int64_t count, ReceivedArray& to) {
  return receive(from, count, to, [](const T*, std::int64_t, std::int64_t) {});
}

// cols * rows == grid_size exactly, neither negative.
void checkGeometry(const char* call, const MatrixConfig& c) {
  const bool matches = c.cols >= 0 && c.rows >= 0 &&
                       std::uint64_t(std::uint32_t(c.cols)) * std::uint32_t(c.rows) == c.grid_size;
  if (!matches) {
    fail(mutableRecord().verdict.geometry_matches,
         std::string(call) + ": cols " + std::to_string(c.cols) + " x rows " + std::to_string(c.rows) +
             " is not grid_size " + std::to_string(c.grid_size));
  }
}

// Saturating float-to-int32 conversion, NaN as 0: the table builder's.
std::int32_t toInt32(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<std::int32_t>::max();
  if (v <= -2147483648.0f) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(v);
}

bool sameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool sameGeometry(const MatrixConfig& a, const MatrixConfig& b) {
  return sameBits(a.resolution, b.resolution) && a.grid_size == b.grid_size && a.cols == b.cols &&
         a.rows == b.rows && a.offset_x == b.offset_x && a.offset_y == b.offset_y;
}

std::string describe(const MatrixConfig& c) {
  return "resolution " + std::to_string(c.resolution) + ", " + std::to_string(c.cols) + " x " +
         std::to_string(c.rows) + " (grid_size " + std::to_string(c.grid_size) + "), offsets " +
         std::to_string(c.offset_x) + ", " + std::to_string(c.offset_y);
}

void checkCoarseAgainstFull(const MatrixConfig& coarse) {
  Record& r = mutableRecord();
  bool& flag = r.verdict.coarse_matches_full;
  if (r.configs.empty()) {
    fail(flag, "cudaSetMatrixConfigCoarse: no full-resolution configuration received before");
    return;
  }
  const MatrixConfig& full = r.configs.back();
  const double ratio = static_cast<double>(coarse.resolution) / static_cast<double>(full.resolution);
  if (!(ratio >= 0.5 && ratio < 2147483647.0)) {
    fail(flag, "cudaSetMatrixConfigCoarse: resolution " + std::to_string(coarse.resolution) +
                   " is no whole multiple of the full resolution " + std::to_string(full.resolution));
    return;
  }
  const int factor = static_cast<int>(std::lround(ratio));
  const MatrixConfig expected = gpu_stand_in::coarseGeometryFor(full, factor);
  if (!sameGeometry(coarse, expected)) {
    fail(flag, "cudaSetMatrixConfigCoarse: " + describe(coarse) + " is not the level-" +
                   std::to_string(factor) + " geometry of the full matrix: " + describe(expected));
  }
}

// Value bins on the value scale 0..255.
bool valueBinsBounded(const MCellCoarse& c) {
  if (c.value_bins == 0) return true;
  return c.value_bins <= 256 && c.value_first >= 0 && c.value_first + c.value_bins <= 256;
}

// Counts the non-finite bins of a table piece by piece (see receive).
struct NonFiniteBins {
  std::int64_t count = 0, first = 0;

  void operator()(const float* bins, std::int64_t n, std::int64_t at) {
    std::int32_t in_piece = 0;  // n <= 4096
    for (std::int64_t k = 0; k < n; ++k) in_piece += !std::isfinite(bins[k]);
    if (in_piece == 0) return;
    if (count == 0) first = at + (std::find_if(bins, bins + n, [](float v) { return !std::isfinite(v); }) - bins);
    count += in_piece;
  }

  void warn(const char* table) const {
    if (count == 0) return;
    mutableRecord().verdict.warnings.push_back("cudaSetMatrixCellsCoarse: " + std::to_string(count) +
                                               " non-finite bins in the " + table + " table, the first at " +
                                               std::to_string(first));
  }
};

// The first element met piece by piece (see receive) for which bad(element)
// holds; at is -1 while there is none.
template <class T, class Bad>
struct FirstBad {
  Bad bad;
  std::int64_t at = -1;

  void operator()(const T* piece, std::int64_t n, std::int64_t first) {
    if (at >= 0) return;
    // Judged whole first, a loop without an early exit that the compiler
    // can vectorise; most pieces have nothing to find.
    bool any = false;
    for (std::int64_t k = 0; k < n; ++k) any |= bad(piece[k]);
    if (!any) return;
    const T* hit = std::find_if(piece, piece + n, bad);
    if (hit != piece + n) at = first + (hit - piece);
  }
};
template <class T, class Bad>
FirstBad<T, Bad> firstBad(Bad bad) {
  return FirstBad<T, Bad>{bad};
}

}  // namespace

MatrixConfig coarseGeometryFor(const MatrixConfig& full, int factor) {
  const float f = static_cast<float>(factor);
  MatrixConfig c;
  c.resolution = full.resolution * f;
  c.cols = toInt32(std::ceil(static_cast<float>(full.cols) / f));
  c.rows = toInt32(std::ceil(static_cast<float>(full.rows) / f));
  c.offset_x = toInt32(std::floor(static_cast<float>(full.offset_x) / f));
  c.offset_y = toInt32(std::floor(static_cast<float>(full.offset_y) / f));
  const std::uint64_t positions =
      c.cols > 0 && c.rows > 0 ? std::uint64_t(std::uint32_t(c.cols)) * std::uint32_t(c.rows) : 0;
  c.grid_size = positions <= std::numeric_limits<std::uint32_t>::max() ? std::uint32_t(positions) : 0;
  return c;
}

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
  gpu_stand_in::checkGeometry("cudaSetMatrixConfig", config);
  mutableRecord().configs.push_back(config);
}

void cudaSetMatrixCells(const MCell* cells, int cell_count, const int* index, int index_count) {
  gpu_stand_in::noteCall("cudaSetMatrixCells");
  gpu_stand_in::Record& r = mutableRecord();
  gpu_stand_in::Verdict& v = r.verdict;
  if (!gpu_stand_in::receive(cells, cell_count, r.cells)) {
    fail(v.index_count_matches, "cudaSetMatrixCells: unusable cell array (count " +
                                    std::to_string(cell_count) + ")");
  }
  const std::int64_t cells_available = std::max(cell_count, 0);
  auto bad_entry = gpu_stand_in::firstBad<int>(
      [cells_available](std::int32_t entry) { return entry != -1 && (entry < 0 || entry >= cells_available); });
  if (!gpu_stand_in::receive(index, index_count, r.index, bad_entry)) {
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
  if (bad_entry.at >= 0) {
    fail(v.index_entries_valid, "cudaSetMatrixCells: index entry " + std::to_string(bad_entry.at) + " is " +
                                    std::to_string(index[bad_entry.at]) + " with " + std::to_string(cell_count) +
                                    " cells");
  }
}

void cudaSetMatrixConfigCoarse(const MatrixConfig& config) {
  gpu_stand_in::noteCall("cudaSetMatrixConfigCoarse");
  gpu_stand_in::checkGeometry("cudaSetMatrixConfigCoarse", config);
  gpu_stand_in::checkCoarseAgainstFull(config);
  mutableRecord().coarse_configs.push_back(config);
}

void cudaSetMatrixCellsCoarse(const float* height_table, int height_count,
                              const float* value_table, int value_count,
                              const MCellCoarse* coarse_cells) {
  gpu_stand_in::noteCall("cudaSetMatrixCellsCoarse");
  gpu_stand_in::Record& r = mutableRecord();
  gpu_stand_in::Verdict& v = r.verdict;
  gpu_stand_in::NonFiniteBins height_non_finite, value_non_finite;
  if (!gpu_stand_in::receive(height_table, height_count, r.height_table, height_non_finite)) {
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: unusable height table (count " +
                                   std::to_string(height_count) + ")");
  }
  if (!gpu_stand_in::receive(value_table, value_count, r.value_table, value_non_finite)) {
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: unusable value table (count " +
                                   std::to_string(value_count) + ")");
  }
  height_non_finite.warn("height");
  value_non_finite.warn("value");
  if (r.coarse_configs.empty()) {
    r.coarse_cells = gpu_stand_in::ReceivedArray();
    r.coarse_cells.at = coarse_cells;
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: no coarse configuration received before");
    return;
  }

  // A range is inside when it is empty or ends at or before the table's end;
  // an absent table (negative count) holds nothing.
  const std::uint64_t values = static_cast<std::uint64_t>(std::max(value_count, 0));
  const std::uint64_t heights = static_cast<std::uint64_t>(std::max(height_count, 0));
  const auto inside = [values, heights](const MCellCoarse& c) {
    return (c.value_bins == 0 || std::uint64_t{c.value_offset} + c.value_bins <= values) &&
           (c.height_bins == 0 || std::uint64_t{c.height_offset} + c.height_bins <= heights);
  };
  auto outside = gpu_stand_in::firstBad<MCellCoarse>([&inside](const MCellCoarse& c) { return !inside(c); });
  auto unbounded = gpu_stand_in::firstBad<MCellCoarse>(
      [](const MCellCoarse& c) { return !gpu_stand_in::valueBinsBounded(c); });
  const std::int64_t records = r.coarse_configs.back().grid_size;
  if (!gpu_stand_in::receive(coarse_cells, records, r.coarse_cells,
                             [&](const MCellCoarse* piece, std::int64_t n, std::int64_t first) {
                               outside(piece, n, first);
                               unbounded(piece, n, first);
                             })) {
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: no coarse records for grid_size " +
                                   std::to_string(records));
  }
  if (outside.at >= 0) {
    const MCellCoarse& c = coarse_cells[outside.at];
    const bool value_inside = c.value_bins == 0 || std::uint64_t{c.value_offset} + c.value_bins <= values;
    fail(v.coarse_bins_inside, "cudaSetMatrixCellsCoarse: coarse record " + std::to_string(outside.at) +
                                   " reaches past the " + (value_inside ? "height" : "value") + " table");
  }
  if (unbounded.at >= 0) {
    const MCellCoarse& c = coarse_cells[unbounded.at];
    fail(v.value_bins_bounded, "cudaSetMatrixCellsCoarse: coarse record " + std::to_string(unbounded.at) +
                                   " stores value bins " + std::to_string(c.value_first) + " + " +
                                   std::to_string(c.value_bins) + ", outside 0..255");
  }
}

}  // namespace localization
}  // namespace zorvane
