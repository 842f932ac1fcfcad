// The in-memory prior map: statistical cells on a rectangular grid, the
// position index, and the sub-sampled look-up tables derived from them.
//
// MCell and MCellCoarse are handed to the GPU matcher as raw arrays, so
// their byte layouts are part of the interface and are pinned by
// static_asserts below. All fields are public data members: the file codec,
// the table builder and the uploader read and write them directly.
#ifndef ZORVANE_LOCALIZATION_GRID_MATRIX_H_
#define ZORVANE_LOCALIZATION_GRID_MATRIX_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "localization/map_allocator.h"

namespace zorvane {
namespace localization {

// One full-resolution cell: a two-component Gaussian mixture on the value
// axis (0..255 scale) and one on the height axis, plus a carried scalar.
//
// Raw form (as loaded): *_sigma holds the standard deviation s, *_weight the
// mixture weight w. Prepared form (after GridMatrix::runPreCalc): *_sigma
// holds 2*s*s and *_weight holds w / s, so that component c contributes
// weight[c] * exp(-(z - mean[c])^2 / sigma[c]) at axis value z.
struct MCell {
  float value_sigma[2];
  float value_mean[2];
  float value_weight[2];
  float height_sigma[2];
  float height_mean[2];
  float height_weight[2];
  float aux_value;  // carried, never computed with
  // Bytes 52..63: padding to the 64-byte record the GPU matcher expects.
  // Zeroed at construction, never read or written afterwards.
  std::uint8_t unused_[12];

  // All thirteen floats 0.0, padding zeroed.
  MCell()
      : value_sigma{0.f, 0.f},
        value_mean{0.f, 0.f},
        value_weight{0.f, 0.f},
        height_sigma{0.f, 0.f},
        height_mean{0.f, 0.f},
        height_weight{0.f, 0.f},
        aux_value(0.f),
        unused_{} {}
};

static_assert(sizeof(MCell) == 64, "MCell is a 64-byte GPU record");
static_assert(std::is_trivially_copyable<MCell>::value, "MCell arrays are moved as bytes");
static_assert(offsetof(MCell, value_sigma) == 0 &&
                  offsetof(MCell, value_mean) == 8 &&
                  offsetof(MCell, value_weight) == 16 &&
                  offsetof(MCell, height_sigma) == 24 &&
                  offsetof(MCell, height_mean) == 32 &&
                  offsetof(MCell, height_weight) == 40 &&
                  offsetof(MCell, aux_value) == 48 &&
                  offsetof(MCell, unused_) == 52,
              "MCell layout: the GPU matcher reads these offsets");

// Geometry shared by the full-resolution matrix and by look-up tables.
// Matrix column x is map-wide column x - offset_x_, matrix row y is map-wide
// row y - offset_y_; flat position of (x, y) is y * cols_ + x.
class GridMatrixBase {
 public:
  GridMatrixBase() = default;
  GridMatrixBase(const GridMatrixBase&) = default;
  GridMatrixBase(GridMatrixBase&&) noexcept = default;
  GridMatrixBase& operator=(const GridMatrixBase&) = default;
  GridMatrixBase& operator=(GridMatrixBase&&) noexcept = default;
  virtual ~GridMatrixBase();

  // Stores the geometry as given and sets grid_size_ to cols * rows, a
  // 32-bit product that wraps on overflow. Validates nothing; leaves a
  // matrix's cells, index and prepared flag untouched.
  virtual void manualInit(const float& resolution, const int& cols, const int& rows,
                          const int& offset_x, const int& offset_y);

  float resolution_ = 0.15f;     // edge length of one grid position
  std::uint32_t grid_size_ = 0;  // cols_ * rows_: positions, not cells
  std::int32_t cols_ = 0;        // x extent and row stride
  std::int32_t rows_ = 0;        // y extent
  std::int32_t offset_x_ = 0;    // matrix column of map-wide column 0
  std::int32_t offset_y_ = 0;    // matrix row of map-wide row 0
};

// One coarse position of a look-up table: where its two histograms lie in
// the table's flat sequences. 16 bytes, read by the GPU matcher.
//
// value_first and height_first hold the low 16 bits (two's complement) of
// the first stored bin index; height bins may be negative.
struct MCellCoarse {
  std::uint16_t value_bins = 0;    // number of value bins stored (0: none)
  std::int16_t value_first = 0;    // index of the first stored value bin
  std::uint32_t value_offset = 0;  // its place in value_table_
  std::uint16_t height_bins = 0;
  std::int16_t height_first = 0;
  std::uint32_t height_offset = 0;  // its place in height_table_
};

static_assert(sizeof(MCellCoarse) == 16, "MCellCoarse is a 16-byte GPU record");
static_assert(std::is_trivially_copyable<MCellCoarse>::value, "MCellCoarse arrays are moved as bytes");
static_assert(offsetof(MCellCoarse, value_bins) == 0 &&
                  offsetof(MCellCoarse, value_first) == 2 &&
                  offsetof(MCellCoarse, value_offset) == 4 &&
                  offsetof(MCellCoarse, height_bins) == 8 &&
                  offsetof(MCellCoarse, height_first) == 10 &&
                  offsetof(MCellCoarse, height_offset) == 12,
              "MCellCoarse layout: the GPU matcher reads these offsets");

// A sub-sampled look-up table: per coarse position (a block of f x f grid
// positions) one histogram of log-probabilities per axis. The geometry
// fields describe the coarse grid. Bin k of an axis stands for k * step; the
// stored value of a bin is ln(prob_scale_ * P + prob_floor_), P being the
// bin's share of the block's Gaussian mass.
//
// Copyable and movable (the base declares both): a table returned by
// GridMatrix::getLookUpTable or stored in a map's cache moves its three
// sequences instead of copying them.
class GridMatrixTable : public GridMatrixBase {
 public:

  // Bin widths. A default-constructed (empty) table holds 0 in both.
  float height_step_ = 0.f;
  float value_step_ = 0.f;
  MapVector<float> value_table_;           // value bins, flat coarse order
  MapVector<float> height_table_;          // height bins, flat coarse order
  MapVector<MCellCoarse> coarse_cells_;    // one per coarse position
  float prob_scale_ = 0.9f;    // bits 0x3f666666
  float prob_floor_ = 0.001f;  // bits 0x3a83126f
};

// The full-resolution matrix.
//
// Invariants of a filled matrix: index_ has grid_size_ entries; every
// non-negative entry is a cell number below cells_.size() and each cell is
// named by exactly one position; precalculated_ is true exactly when every
// cell is in prepared form.
class GridMatrix : public GridMatrixBase {
 public:

  // Brings every cell from raw into prepared form, once, in one parallel
  // pass (OpenMP, default team, cells split by staticSplit). Per component,
  // in single precision: weight = weight / s, then sigma = s * (s + s),
  // s being the raw sigma. A no-op when already prepared; leaves the matrix
  // unprepared when cells_ or index_ is empty. A raw sigma of 0 gives an
  // infinite (or NaN) prepared weight; nothing guards against it.
  void runPreCalc();

  // True when the square of any of the four sigmas (value 0, value 1,
  // height 0, height 1) is not finite in single precision. Changes nothing.
  static bool runPreCheck(MCell& cell);

  // Raises each of the four sigmas that is below 0.005 (compared in double
  // precision) to the single-precision 0.005f; NaN is left alone. True when
  // any sigma was raised.
  static bool runPreCheckSmall(MCell& cell);

  // Builds the look-up table of sub-sampling factor `factor`; see
  // look_up_table.h for the full contract.
  GridMatrixTable getLookUpTable(int factor, float height_step, float value_step) const;

  bool precalculated_ = false;
  MapVector<MCell> cells_;         // occupied cells, in load order
  MapVector<std::int32_t> index_;  // per flat position: cell number or -1
};

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_GRID_MATRIX_H_
