#include "localization/look_up_table_packing.h"

#include <limits>

#include "localization/look_up_table_exact.h"

namespace zorvane {
namespace localization {
namespace lut {

void packCounts(const BlockRanges& r, MCellCoarse* record) {
  record->value_bins = static_cast<std::uint16_t>(r.value_n);
  record->value_first = firstField(r.value_first);
  record->height_bins = static_cast<std::uint16_t>(r.height_n);
  record->height_first = firstField(r.height_first);
}

bool assignOffsets(MCellCoarse* records, std::size_t n, std::uint64_t* value_total, std::uint64_t* height_total) {
  constexpr std::uint64_t kAddressable = std::numeric_limits<std::uint32_t>::max();
  std::uint64_t value = 0, height = 0;
  for (std::size_t p = 0; p < n; ++p) {
    records[p].value_offset = static_cast<std::uint32_t>(value);
    records[p].height_offset = static_cast<std::uint32_t>(height);
    value += records[p].value_bins;
    height += records[p].height_bins;
  }
  *value_total = value;
  *height_total = height;
  return value <= kAddressable && height <= kAddressable;
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane
