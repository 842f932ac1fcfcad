// Whole cells from cell records, for the loader's bulk pass: the same bits
// as decodeCellRecord (followed by prepareCell when asked), with the
// per-record divisions taken out of the loop.
//
// A record's two weight bytes each decode with a division in double
// precision, and preparing a cell divides four weights by four sigmas. The
// first are looked up in a table of the 256 pairs decodeWeight gives; the
// second are one four-lane division, which rounds each lane exactly as the
// single division does. Every other step is the same product or sum, lane
// by lane.
#ifndef ZORVANE_LOCALIZATION_LOSSY_CELL_DECODER_H_
#define ZORVANE_LOCALIZATION_LOSSY_CELL_DECODER_H_

#include <cstddef>

#include "localization/grid_matrix.h"
#include "localization/lossy_format.h"

namespace zorvane {
namespace localization {
namespace lossy {

class CellDecoder {
 public:
  // Cells in prepared form when `prepare`, raw otherwise.
  CellDecoder(const CellScales& scales, bool prepare);

  // Writes cells [0, n) of `out` whole from the n records at `src`: the
  // thirteen floats as decodeCellRecord (and prepareCell) give them, the
  // padding bytes zero. `out` is 16-byte aligned; the stores bypass the
  // caches where the processor offers it, so the caller fences them
  // (fenceStreamedStores) before another thread reads the cells.
  void decodeCells(const char* src, std::size_t n, MCell* out) const;

 private:
  CellScales scales_;
  bool prepare_;
  float first_weight_[256];   // decodeWeight's w0 for each byte
  float second_weight_[256];  // and its w1
};

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOSSY_CELL_DECODER_H_
