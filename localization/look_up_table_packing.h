// Packing of a look-up table: each coarse position's bin counts and first
// bins go into its 16-byte record, and the records' offsets into the two
// flat bin sequences are the running sums of the counts in flat coarse
// order.
#ifndef ZORVANE_LOCALIZATION_LOOK_UP_TABLE_PACKING_H_
#define ZORVANE_LOCALIZATION_LOOK_UP_TABLE_PACKING_H_

#include <cstddef>
#include <cstdint>

#include "localization/grid_matrix.h"
#include "localization/look_up_table_block_walk.h"

namespace zorvane {
namespace localization {
namespace lut {

// Stores r's counts and the low 16 bits of its first bins in *record (the
// offsets are left alone). r's counts fit 16 bits: value bins are at most
// 256, height bins are clipped to kMaxHeightBins.
void packCounts(const BlockRanges& r, MCellCoarse* record);

// Running offsets: record p's value_offset / height_offset become the sums
// of the counts of records 0 .. p - 1. *value_total and *height_total get
// the sums over all n records. Returns false, with the offsets of the
// records past the limit unspecified, when a total exceeds 2^32 - 1, which
// the 32-bit offsets cannot address.
bool assignOffsets(MCellCoarse* records, std::size_t n, std::uint64_t* value_total, std::uint64_t* height_total);

}  // namespace lut
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOOK_UP_TABLE_PACKING_H_
