#include "localization/lossy_format.h"

#include <cstring>

namespace zorvane {
namespace localization {
namespace lossy {

bool isLoadableGeometry(std::int32_t rows, std::int32_t cols, std::uint32_t grid_size,
                        std::uint64_t records) {
  if (rows < 0 || cols < 0) return false;
  const std::uint64_t positions = static_cast<std::uint64_t>(rows) * static_cast<std::uint64_t>(cols);
  if (positions != grid_size || positions > kMaxGridPositions) return false;
  // Callers pass at most 2^32 records, so the product cannot overflow.
  return positions <= kFreeGridPositions + kPositionsPerCell * records;
}

void encodeHeader(const Header& header, char* dst) {
  using namespace internal;
  std::memcpy(dst, kMagic, kMagicBytes);
  encodeFixed32(dst + kTagOffset, header.tag);
  encodeFloat32(dst + kHeightBaseOffset, header.height_base);
  encodeFloat32(dst + kAuxBaseOffset, header.aux_value_base);
  for (int k = 0; k < 3; ++k) encodeFloat64(dst + kReferenceOffset + 8 * k, header.reference[k]);
  encodeFixed32(dst + kBodySizeOffset, header.body_bytes);
  encodeInt32(dst + kRowsOffset, header.rows);
  encodeInt32(dst + kColsOffset, header.cols);
  encodeInt32(dst + kOffsetYOffset, header.offset_y);
  encodeInt32(dst + kOffsetXOffset, header.offset_x);
}

bool decodeHeader(const char* src, Header* header) {
  using namespace internal;
  if (std::memcmp(src, kMagic, kMagicBytes) != 0) return false;
  header->tag = decodeFixed32(src + kTagOffset);
  header->height_base = decodeFloat32(src + kHeightBaseOffset);
  header->aux_value_base = decodeFloat32(src + kAuxBaseOffset);
  for (int k = 0; k < 3; ++k) header->reference[k] = decodeFloat64(src + kReferenceOffset + 8 * k);
  header->body_bytes = decodeFixed32(src + kBodySizeOffset);
  header->rows = decodeInt32(src + kRowsOffset);
  header->cols = decodeInt32(src + kColsOffset);
  header->offset_y = decodeInt32(src + kOffsetYOffset);
  header->offset_x = decodeInt32(src + kOffsetXOffset);
  return true;
}

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane
