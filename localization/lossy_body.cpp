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

OwnedPositions ownedPositions(const std::vector<std::uint32_t>& heads, std::size_t chunk,
                              std::size_t grid, bool heads_increase) {
  if (!heads_increase) return {};
  OwnedPositions owned;
  owned.begin = heads[chunk];
  owned.end = chunk + 1 < heads.size() ? static_cast<std::int64_t>(heads[chunk + 1])
                                       : static_cast<std::int64_t>(grid);
  return owned;
}

// The first record's position of every chunk, or the source's failure.
MapLoadStatus chunkHeads(const RecordSource& source, std::size_t chunks, std::vector<std::uint32_t>* heads) {
  char scratch[kRecordBytes];
  MapLoadStatus failure = MapLoadStatus::kOk;
  for (std::size_t c = 0; c < chunks; ++c) {
    const char* record = source.fetch(c * kChunkRecords, 1, scratch, &failure);
    if (record == nullptr) return failure;
    (*heads)[c] = decodeRecordPosition(record);
  }
  return MapLoadStatus::kOk;
}

bool strictlyIncrease(const std::vector<std::uint32_t>& heads) {
  for (std::size_t c = 1; c < heads.size(); ++c) {
    if (heads[c] <= heads[c - 1]) return false;
  }
  return true;
}

// What stopped a parallel decode, reported the same whichever thread met
// which failure: the gravest one met, a failed read before a short source
// before a position outside the grid.
class GravestFailure {
 public:
  void note(MapLoadStatus status) {
    const int rank = rankOf(status);
    int seen = rank_.load(std::memory_order_relaxed);
    while (rank > seen && !rank_.compare_exchange_weak(seen, rank, std::memory_order_relaxed)) {
    }
  }
  bool any() const { return rank_.load(std::memory_order_relaxed) != 0; }
  MapLoadStatus status() const {
    switch (rank_.load()) {
      case 3:
        return MapLoadStatus::kCannotRead;
      case 2:
        return MapLoadStatus::kTruncatedBody;
      case 1:
        return MapLoadStatus::kPositionOutOfRange;
      default:
        return MapLoadStatus::kOk;
    }
  }

 private:
  static int rankOf(MapLoadStatus status) {
    switch (status) {
      case MapLoadStatus::kCannotRead:
        return 3;
      case MapLoadStatus::kTruncatedBody:
        return 2;
      default:
        return 1;
    }
  }
  std::atomic<int> rank_{0};
};

struct RangeResult {
  bool position_in_grid = true;
  bool index_complete = true;  // every record's index entry was written
};

// Writes the index entries of records [begin, end), the run at `run`, that
// lie within `owned`. Stops at the first record naming a position outside
// the grid.
RangeResult indexRange(const char* run, std::size_t begin, std::size_t end, std::size_t grid,
                       OwnedPositions owned, std::int32_t* index) {
  RangeResult result;
  std::int64_t previous = owned.begin - 1;
  for (std::size_t i = begin; i < end; ++i) {
    const std::uint32_t position = decodeRecordPosition(run + (i - begin) * kRecordBytes);
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

// Decodes records [begin, end), the run at `run`, into cells [begin, end).
// Cells below `kept` were there before the load and are updated field by
// field, keeping their padding; the others are written whole.
void cellRange(const char* run, std::size_t begin, std::size_t end, const CellScales& scales,
               const CellDecoder& decoder, bool prepare, std::size_t kept, MCell* cells) {
  std::size_t i = begin;
  for (; i < end && i < kept; ++i) {
    decodeCellRecord(run + (i - begin) * kRecordBytes, scales, &cells[i]);
    if (prepare) internal::prepareCell(cells[i]);
  }
  if (i < end) decoder.decodeCells(run + (i - begin) * kRecordBytes, end - i, cells + i);
}

}  // namespace

MapLoadStatus decodeBody(const char* src, std::uint32_t records, const CellScales& scales,
                         bool prepare, GridMatrix* matrix) {
  return decodeBody(MemoryRecords(src), records, scales, prepare, matrix);
}

MapLoadStatus decodeBody(const RecordSource& source, std::uint32_t records, const CellScales& scales,
                         bool prepare, GridMatrix* matrix) {
  matrix->precalculated_ = false;
  MapVector<std::int32_t>& index = matrix->index_;
  MapVector<MCell>& cells = matrix->cells_;
  const std::size_t grid = matrix->grid_size_;
  const std::size_t count = records;
  const auto refuse = [&](MapLoadStatus status) {
    MapVector<std::int32_t>().swap(index);
    MapVector<MCell>().swap(cells);
    return status;
  };

  const std::size_t chunks = (count + kChunkRecords - 1) / kChunkRecords;
  std::vector<std::uint32_t> heads(chunks);
  const MapLoadStatus heads_read = chunkHeads(source, chunks, &heads);
  if (heads_read != MapLoadStatus::kOk) return refuse(heads_read);
  const bool heads_increase = strictlyIncrease(heads);

  // No entry of an earlier load survives, so a block too small for the new
  // grid is released before the new one is taken: growing it would copy
  // entries that are about to be overwritten, and hold both at once.
  index.clear();
  if (index.capacity() < grid) MapVector<std::int32_t>().swap(index);
  index.reserve(grid);

  // Cells beyond the new count are dropped; cells that stay keep their
  // storage and padding and are updated field by field. All memory is
  // reserved here, outside the parallel region, with a run of records'
  // room for each thread that may have to read them.
  if (cells.size() > count) cells.resize(count);
  const std::size_t kept = cells.size();
  cells.reserve(count);
  const int max_team = omp_get_max_threads();
  std::vector<std::vector<char>> scratch(static_cast<std::size_t>(max_team),
                                         std::vector<char>(kChunkRecords * kRecordBytes));

  // A load writes hundreds of megabytes of fresh memory, so every byte is
  // written once, by the team: the new cells and the index entries are
  // left unconstructed here, the team fills the index with -1, and after a
  // barrier every thread decodes chunks of records in the order it draws
  // them. Every new cell is written whole by its chunk. If a chunk cannot
  // be had or names a position outside the grid, the chunks after it are
  // skipped and both arrays are released below, so no unwritten cell is
  // ever read.
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
  std::atomic<std::size_t> next_chunk{0};
  GravestFailure failure;
  std::atomic<bool> index_complete{true};
#pragma omp parallel num_threads(max_team)
  {
    const int thread = omp_get_thread_num();
    const WorkRange fill = staticSplit(static_cast<std::int64_t>(grid), omp_get_num_threads(), thread);
    std::fill(idx + fill.begin, idx + fill.end, -1);
    char* const room = scratch[static_cast<std::size_t>(thread)].data();
#pragma omp barrier
    for (std::size_t c = next_chunk.fetch_add(1); c < chunks; c = next_chunk.fetch_add(1)) {
      if (failure.any()) continue;
      const std::size_t begin = c * kChunkRecords;
      const std::size_t end = std::min(begin + kChunkRecords, count);
      MapLoadStatus missing = MapLoadStatus::kOk;
      const char* run = source.fetch(begin, end - begin, room, &missing);
      if (run == nullptr) {
        failure.note(missing);
        continue;
      }
      const OwnedPositions owned = ownedPositions(heads, c, grid, heads_increase);
      const RangeResult r = indexRange(run, begin, end, grid, owned, idx);
      if (!r.position_in_grid) {
        failure.note(MapLoadStatus::kPositionOutOfRange);
        continue;
      }
      if (!r.index_complete) index_complete.store(false, std::memory_order_relaxed);
      cellRange(run, begin, end, scales, decoder, prepare, kept, out);
    }
    internal::fenceStreamedStores();
  }
  if (failure.any()) return refuse(failure.status());

  if (!index_complete.load()) {
    // Positions out of order, or named twice: replay the index in record
    // order so that the later record wins. The records are fetched again,
    // so their positions are checked again: a file may have changed since.
    std::fill(index.begin(), index.end(), -1);
    char* const room = scratch[0].data();
    for (std::size_t begin = 0; begin < count; begin += kChunkRecords) {
      const std::size_t end = std::min(begin + kChunkRecords, count);
      MapLoadStatus missing = MapLoadStatus::kOk;
      const char* run = source.fetch(begin, end - begin, room, &missing);
      if (run == nullptr) return refuse(missing);
      for (std::size_t i = begin; i < end; ++i) {
        const std::uint32_t position = decodeRecordPosition(run + (i - begin) * kRecordBytes);
        if (position >= grid) return refuse(MapLoadStatus::kPositionOutOfRange);
        idx[position] = static_cast<std::int32_t>(i);
      }
    }
  }
  matrix->precalculated_ = prepare;
  return MapLoadStatus::kOk;
}

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane
