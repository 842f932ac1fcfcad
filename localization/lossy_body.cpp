#include "localization/lossy_body.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <vector>

#include "localization/cell_preparation.h"
#include "localization/lossy_cell_decoder.h"
#include "localization/parallel_split.h"
#include "localization/streaming_store.h"

namespace zorvane {
namespace localization {
namespace lossy {

std::int64_t countBodyRecords(const GridMatrix& matrix) {
  // One bit per cell, set by the position that names it. The positions are
  // split by staticSplit and every thread marks its own bitmap; merging
  // them, a bit set twice means a cell named twice. Whichever thread meets
  // a violation, the answer is the same. The bitmaps are allocated before
  // the region: an allocation failure inside it would end the process.
  const std::size_t cells = matrix.cells_.size();
  const std::size_t words = (cells + 63) / 64;
  const std::int32_t* const index = matrix.index_.data();
  const auto positions = static_cast<std::int64_t>(matrix.index_.size());
  const int max_team = omp_get_max_threads();
  std::vector<std::vector<std::uint64_t>> named(static_cast<std::size_t>(max_team),
                                                std::vector<std::uint64_t>(words, 0));
  std::int64_t count = 0;
  bool valid = true;
#pragma omp parallel num_threads(max_team) reduction(+ : count) reduction(&& : valid)
  {
    const int thread = omp_get_thread_num();
    std::vector<std::uint64_t>& mine = named[static_cast<std::size_t>(thread)];
    const WorkRange range = staticSplit(positions, omp_get_num_threads(), thread);
    for (std::int64_t p = range.begin; p < range.end; ++p) {
      if (index[p] < 0) continue;
      const auto c = static_cast<std::size_t>(index[p]);
      if (c >= cells) {
        valid = false;
        break;
      }
      const std::uint64_t bit = std::uint64_t{1} << (c % 64);
      if (mine[c / 64] & bit) {
        valid = false;
        break;
      }
      mine[c / 64] |= bit;
      ++count;
    }
  }
  if (!valid || count != static_cast<std::int64_t>(cells)) return -1;
  // As many marks as cells, none beyond them: every cell is named exactly
  // once unless two threads marked the same one.
  for (std::size_t w = 0; w < words; ++w) {
    std::uint64_t seen = 0;
    for (const auto& bits : named) {
      if (seen & bits[w]) return -1;
      seen |= bits[w];
    }
  }
  return count;
}

std::int64_t encodeBody(const GridMatrix& matrix, const CellScales& scales, char* dst) {
  // The positions are split by staticSplit; each thread counts the records
  // of its range, and after a barrier writes them behind those of the
  // threads before it. The bytes do not depend on the team. The counts are
  // allocated before the region, for at most the team the region can get.
  const std::int32_t* const index = matrix.index_.data();
  const MCell* const cells = matrix.cells_.data();
  const auto positions = static_cast<std::int64_t>(matrix.index_.size());
  const int max_team = omp_get_max_threads();
  std::vector<std::int64_t> counts(static_cast<std::size_t>(max_team), 0);
#pragma omp parallel num_threads(max_team)
  {
    const int threads = omp_get_num_threads();
    const int thread = omp_get_thread_num();
    const WorkRange range = staticSplit(positions, threads, thread);
    std::int64_t mine = 0;
    for (std::int64_t p = range.begin; p < range.end; ++p) mine += index[p] >= 0;
    counts[static_cast<std::size_t>(thread)] = mine;
#pragma omp barrier
    std::int64_t before = 0;
    for (int t = 0; t < thread; ++t) before += counts[static_cast<std::size_t>(t)];
    char* out = dst + before * kRecordBytes;
    for (std::int64_t p = range.begin; p < range.end; ++p) {
      const std::int32_t c = index[p];
      if (c < 0) continue;
      encodeCellRecord(out, static_cast<std::uint32_t>(p), cells[c], scales);
      out += kRecordBytes;
    }
  }
  std::int64_t total = 0;
  for (const std::int64_t n : counts) total += n;
  return total * kRecordBytes;
}

namespace {

// Records are drawn by the threads of a load in chunks of this many: 512
// KiB of cells.
constexpr std::size_t kChunkRecords = 8192;

// The positions whose index entries one chunk may write. Chunk c owns
// [head of c, head of c + 1) (the last chunk up to the grid's end) when the
// chunk heads strictly increase; the owned ranges are then disjoint, so no
// two threads ever store into the same index entry. A record outside its
// chunk's range, or not above the record before it, is not written here:
// the index is then rebuilt in record order after the region.
struct OwnedPositions {
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

OwnedPositions ownedPositions(const char* src, std::size_t chunk, std::size_t chunks,
                              std::size_t count, std::size_t grid, bool heads_increase) {
  if (!heads_increase) return {};
  const std::size_t first = chunk * kChunkRecords;
  const std::size_t next = first + kChunkRecords;
  OwnedPositions owned;
  owned.begin = decodeRecordPosition(src + first * kRecordBytes);
  owned.end = chunk + 1 < chunks && next < count
                  ? static_cast<std::int64_t>(decodeRecordPosition(src + next * kRecordBytes))
                  : static_cast<std::int64_t>(grid);
  return owned;
}

bool chunkHeadsIncrease(const char* src, std::size_t chunks) {
  std::int64_t previous = -1;
  for (std::size_t c = 0; c < chunks; ++c) {
    const std::int64_t head = decodeRecordPosition(src + c * kChunkRecords * kRecordBytes);
    if (head <= previous) return false;
    previous = head;
  }
  return true;
}

struct RangeResult {
  bool position_in_grid = true;
  bool index_complete = true;  // every record's index entry was written
};

// Writes the index entries of records [begin, end) that lie within
// `owned`. Stops at the first record naming a position outside the grid.
RangeResult indexRange(const char* src, std::size_t begin, std::size_t end, std::size_t grid,
                       OwnedPositions owned, std::int32_t* index) {
  RangeResult result;
  std::int64_t previous = owned.begin - 1;
  for (std::size_t i = begin; i < end; ++i) {
    const std::uint32_t position = decodeRecordPosition(src + i * kRecordBytes);
    if (position >= grid) {
      result.position_in_grid = false;
      return result;
    }
    if (static_cast<std::int64_t>(position) > previous && position < owned.end) {
      index[position] = static_cast<std::int32_t>(i);
      previous = position;
    } else {
      result.index_complete = false;
    }
  }
  return result;
}

// Decodes records [begin, end) into cells [begin, end). Cells below `kept`
// were there before the load and are updated field by field, keeping their
// padding; the others are written whole.
void cellRange(const char* src, std::size_t begin, std::size_t end, const CellScales& scales,
               const CellDecoder& decoder, bool prepare, std::size_t kept, MCell* cells) {
  std::size_t i = begin;
  for (; i < end && i < kept; ++i) {
    decodeCellRecord(src + i * kRecordBytes, scales, &cells[i]);
    if (prepare) internal::prepareCell(cells[i]);
  }
  if (i < end) decoder.decodeCells(src + i * kRecordBytes, end - i, cells + i);
}

}  // namespace

MapLoadStatus decodeBody(const char* src, std::uint32_t records, const CellScales& scales,
                         bool prepare, GridMatrix* matrix) {
  matrix->precalculated_ = false;
  MapVector<std::int32_t>& index = matrix->index_;
  MapVector<MCell>& cells = matrix->cells_;
  const std::size_t grid = matrix->grid_size_;
  const std::size_t count = records;

  // No entry of an earlier load survives, so a block too small for the new
  // grid is released before the new one is taken: growing it would copy
  // entries that are about to be overwritten, and hold both at once.
  index.clear();
  if (index.capacity() < grid) MapVector<std::int32_t>().swap(index);
  index.reserve(grid);

  // Cells beyond the new count are dropped; cells that stay keep their
  // storage and padding and are updated field by field. All memory is
  // reserved here, outside the parallel region.
  if (cells.size() > count) cells.resize(count);
  const std::size_t kept = cells.size();
  cells.reserve(count);

  // A load writes hundreds of megabytes of fresh memory, so every byte is
  // written once, by the team: the new cells and the index entries are
  // left unconstructed here, the team fills the index with -1, and after a
  // barrier every thread decodes chunks of records in the order it draws
  // them. Every new cell is written whole by its chunk. If a record names a
  // position outside the grid, the chunks after it are skipped and both
  // arrays are released below, so no unwritten cell is ever read.
  //
  // Which thread decodes a chunk changes nothing in the result: every cell
  // depends on its own record alone, and each index entry is written by the
  // one chunk that owns its position (ownedPositions), or by the replay in
  // record order below.
  internal::growLeftForWriter(cells, count - kept);
  internal::growLeftForWriter(index, grid);
  MCell* const out = cells.data();
  std::int32_t* const idx = index.data();
  const CellDecoder decoder(scales, prepare);
  const std::size_t chunks = (count + kChunkRecords - 1) / kChunkRecords;
  const bool heads_increase = chunkHeadsIncrease(src, chunks);
  std::atomic<std::size_t> next_chunk{0};
  std::atomic<bool> in_grid{true};
  std::atomic<bool> index_complete{true};
#pragma omp parallel
  {
    const WorkRange fill = staticSplit(static_cast<std::int64_t>(grid), omp_get_num_threads(), omp_get_thread_num());
    std::fill(idx + fill.begin, idx + fill.end, -1);
#pragma omp barrier
    for (std::size_t c = next_chunk.fetch_add(1); c < chunks; c = next_chunk.fetch_add(1)) {
      if (!in_grid.load(std::memory_order_relaxed)) continue;
      const std::size_t begin = c * kChunkRecords;
      const std::size_t end = std::min(begin + kChunkRecords, count);
      const OwnedPositions owned = ownedPositions(src, c, chunks, count, grid, heads_increase);
      const RangeResult r = indexRange(src, begin, end, grid, owned, idx);
      if (!r.position_in_grid) {
        in_grid.store(false, std::memory_order_relaxed);
        continue;
      }
      if (!r.index_complete) index_complete.store(false, std::memory_order_relaxed);
      cellRange(src, begin, end, scales, decoder, prepare, kept, out);
    }
    internal::fenceStreamedStores();
  }

  if (!in_grid.load()) {
    MapVector<std::int32_t>().swap(index);
    MapVector<MCell>().swap(cells);
    return MapLoadStatus::kPositionOutOfRange;
  }
  if (!index_complete.load()) {
    // Positions out of order, or named twice: replay the index in record
    // order so that the later record wins. Every position was checked
    // against the grid above.
    std::fill(index.begin(), index.end(), -1);
    for (std::size_t i = 0; i < count; ++i) {
      idx[decodeRecordPosition(src + i * kRecordBytes)] = static_cast<std::int32_t>(i);
    }
  }
  matrix->precalculated_ = prepare;
  return MapLoadStatus::kOk;
}

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane
