#include "localization/lossy_body.h"

#include <cstddef>
#include <vector>

namespace zorvane {
namespace localization {
namespace lossy {

bool isLoadableGeometry(std::int32_t rows, std::int32_t cols, std::uint32_t grid_size,
                        std::uint64_t records) {
  if (rows < 0 || cols < 0) return false;
  const std::uint64_t positions = static_cast<std::uint64_t>(rows) * static_cast<std::uint64_t>(cols);
  if (positions != grid_size || positions > kMaxGridPositions) return false;
  // records <= 2^32, so the product cannot overflow.
  return positions <= kFreeGridPositions + kPositionsPerCell * records;
}

std::int64_t countBodyRecords(const GridMatrix& matrix) {
  const std::size_t cells = matrix.cells_.size();
  std::vector<std::uint64_t> named((cells + 63) / 64, 0);
  std::int64_t count = 0;
  for (const std::int32_t entry : matrix.index_) {
    if (entry < 0) continue;
    const auto c = static_cast<std::size_t>(entry);
    if (c >= cells) return -1;
    const std::uint64_t bit = std::uint64_t{1} << (c % 64);
    if (named[c / 64] & bit) return -1;
    named[c / 64] |= bit;
    ++count;
  }
  return count == static_cast<std::int64_t>(cells) ? count : -1;
}

std::int64_t encodeBody(const GridMatrix& matrix, const CellScales& scales, char* dst) {
  const std::int32_t* const index = matrix.index_.data();
  const MCell* const cells = matrix.cells_.data();
  const std::size_t positions = matrix.index_.size();
  char* out = dst;
  for (std::size_t p = 0; p < positions; ++p) {
    const std::int32_t c = index[p];
    if (c < 0) continue;
    encodeCellRecord(out, static_cast<std::uint32_t>(p), cells[c], scales);
    out += kRecordBytes;
  }
  return out - dst;
}

BodyDecodeStatus decodeBody(const char* src, std::uint32_t records, const CellScales& scales,
                            GridMatrix* matrix) {
  matrix->precalculated_ = false;
  MapVector<std::int32_t>& index = matrix->index_;
  MapVector<MCell>& cells = matrix->cells_;
  const std::size_t grid = matrix->grid_size_;

  // No entry of an earlier load survives, so a block too small for the new
  // grid is released before the new one is taken: growing it would copy
  // entries that are about to be overwritten, and hold both at once.
  index.clear();
  if (index.capacity() < grid) MapVector<std::int32_t>().swap(index);
  index.reserve(grid);

  // Cells beyond the new count are dropped; cells that stay are overwritten
  // field by field, new ones are appended fully decoded, so that every cell
  // is written exactly once.
  if (cells.size() > records) cells.resize(records);
  cells.reserve(records);
  const std::size_t kept = cells.size();

  // One pass in record order. A valid file names increasing positions, so
  // the index grows at its end: the gap before each named position is
  // appended as -1 entries and the position itself as its cell number. A
  // position at or below one already named (a duplicate or out-of-order
  // record) overwrites the entry in place, so the later record wins.
  for (std::uint32_t i = 0; i < records; ++i) {
    const char* record = src + static_cast<std::size_t>(i) * kRecordBytes;
    const std::uint32_t position = recordPosition(record);
    if (position >= grid) {
      MapVector<std::int32_t>().swap(index);
      MapVector<MCell>().swap(cells);
      return BodyDecodeStatus::kPositionOutOfRange;
    }
    const auto number = static_cast<std::int32_t>(i);
    if (position >= index.size()) {
      index.resize(position, -1);
      index.push_back(number);
    } else {
      index[position] = number;
    }
    if (i < kept) {
      decodeCellRecord(record, scales, &cells[i]);
    } else {
      MCell cell;
      decodeCellRecord(record, scales, &cell);
      cells.push_back(cell);
    }
  }
  index.resize(grid, -1);
  return BodyDecodeStatus::kOk;
}

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane
