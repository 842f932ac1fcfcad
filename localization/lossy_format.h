// The zvmap file format: layout, quantisation rules and the bounds a file
// must keep. This is the one place that defines what the bytes of a map
// file mean; the map class (grid_map_lossy.h) and the record loops
// (lossy_body.h) only apply it.
//
// A zvmap file is a 61-byte header followed by one 22-byte record per
// occupied grid position, in increasing flat position:
//
//   header  0  magic "zvmap"        record  0  u32 flat position
//           5  u32 map tag                  4  u16 aux_value      (step rule, origin)
//           9  f32 height origin            6  u8  value_mean[0]  (whole-number rule)
//          13  f32 aux_value origin         7  u8  value_mean[1]  (whole-number rule)
//          17  f64 reference[0]             8  u16 value_sigma[0] (step rule)
//          25  f64 reference[1]            10  u16 value_sigma[1] (step rule)
//          33  f64 reference[2]            12  u8  value weights  (weight rule)
//          41  u32 body bytes (22 * N)     13  u16 height_mean[0] (step rule, origin)
//          45  i32 rows                    15  u16 height_mean[1] (step rule, origin)
//          49  i32 cols                    17  u16 height_sigma[0] (step rule)
//          53  i32 offset_y                19  u16 height_sigma[1] (step rule)
//          57  i32 offset_x                21  u8  height weights (weight rule)
//
// All multi-byte fields are little-endian and unaligned (little_endian.h).
// The rules are exact to the bit: every intermediate is single or double
// precision as written, and the library is built without contraction of
// multiply-adds. The full description, with a worked example, is
// docs/zvmap-format.md.
//
// The record rules are defined inline here because the loader and the
// writer apply them once per record of files with tens of millions of
// records.
#ifndef ZORVANE_LOCALIZATION_LOSSY_FORMAT_H_
#define ZORVANE_LOCALIZATION_LOSSY_FORMAT_H_

#include <cstdint>

#include "localization/grid_matrix.h"
#include "localization/little_endian.h"

namespace zorvane {
namespace localization {
namespace lossy {

// --- Sizes and offsets. ---

constexpr char kMagic[5] = {'z', 'v', 'm', 'a', 'p'};
constexpr int kMagicBytes = 5;

// getHeaderBinarySize() reports the header up to the body size field; the
// 16-byte geometry block follows it.
constexpr int kHeaderFieldBytes = 45;
constexpr int kGeometryBytes = 16;
constexpr int kHeaderBytes = kHeaderFieldBytes + kGeometryBytes;  // 61
constexpr int kRecordBytes = 22;

constexpr int kTagOffset = 5;
constexpr int kHeightBaseOffset = 9;
constexpr int kAuxBaseOffset = 13;
constexpr int kReferenceOffset = 17;  // three f64, 8 bytes apart
constexpr int kBodySizeOffset = 41;
constexpr int kRowsOffset = 45;
constexpr int kColsOffset = 49;
constexpr int kOffsetYOffset = 53;
constexpr int kOffsetXOffset = 57;

constexpr int kRecordPositionOffset = 0;
constexpr int kRecordAuxOffset = 4;
constexpr int kRecordValueMeanOffset = 6;      // two u8
constexpr int kRecordValueSigmaOffset = 8;     // two u16
constexpr int kRecordValueWeightOffset = 12;   // one u8
constexpr int kRecordHeightMeanOffset = 13;    // two u16
constexpr int kRecordHeightSigmaOffset = 17;   // two u16
constexpr int kRecordHeightWeightOffset = 21;  // one u8

// --- Bounds. ---

// Byte counts and file lengths are signed 32-bit, which bounds a map to
// (2^31 - 1 - 61) / 22 cells and a file to 61 + 22 * that many bytes.
constexpr std::int64_t kMaxCells = (std::int64_t{0x7fffffff} - kHeaderBytes) / kRecordBytes;
constexpr std::int64_t kMaxFileBytes = kHeaderBytes + kRecordBytes * kMaxCells;
static_assert(kMaxCells == 97612890, "cell bound of the signed 32-bit lengths");

// How large a grid (cols * rows positions) a file may declare. The index
// costs 4 bytes per position whether occupied or not, so a few header bytes
// could otherwise commit the loader to gigabytes: 65535 x 65535 positions
// is a 17 GB index. A grid is accepted when it has at most
//   kFreeGridPositions + kPositionsPerCell * (number of records)
// positions, and never more than kMaxGridPositions. The index a file can
// demand is then proportional to the file (at most about 47 bytes per file
// byte beyond a 64 MiB allowance), which real maps stay far below: a grid of
// 4096 x 4096 positions is always accepted, and beyond it any map whose
// cells occupy at least 1 position in 256.
constexpr std::uint64_t kFreeGridPositions = std::uint64_t{1} << 24;
constexpr std::uint64_t kPositionsPerCell = 256;
constexpr std::uint64_t kMaxGridPositions = std::uint64_t{1} << 30;

// True when a `rows` x `cols` grid holding `records` cells is one a file
// may declare: both extents non-negative, their product equal to
// `grid_size` (no 32-bit wrap), and within the bounds above.
bool isLoadableGeometry(std::int32_t rows, std::int32_t cols, std::uint32_t grid_size,
                        std::uint64_t records);

// --- Header. ---

// The header's fields, in file order.
struct Header {
  std::uint32_t tag = 0;
  float height_base = 0.f;
  float aux_value_base = 0.f;
  double reference[3] = {0.0, 0.0, 0.0};
  std::uint32_t body_bytes = 0;
  std::int32_t rows = 0;
  std::int32_t cols = 0;
  std::int32_t offset_y = 0;
  std::int32_t offset_x = 0;
};

// Writes the 61 header bytes at `dst`, which holds at least kHeaderBytes.
void encodeHeader(const Header& header, char* dst);

// False, leaving `*header` unchanged, unless `src` starts with the magic.
// Otherwise reads the 61 bytes at `src` into `*header`, each field from its
// raw bits. `src` holds at least kHeaderBytes.
bool decodeHeader(const char* src, Header* header);

// True when the declared body holds whole records only. The loader accepts
// a body size that is not (with a warning) and reads its whole records.
inline bool bodyIsWholeRecords(const Header& header) {
  return header.body_bytes % kRecordBytes == 0;
}

// --- Step rule: sigmas (no origin), height means and aux_value (origin). ---

// Nearest integer to the single-precision quotient, halves away from zero,
// saturated to 0..65535; a quotient that is not a number stores 0.
inline std::uint16_t quantizeStepQuotient(float quotient) {
  if (!(quotient > 0.0f)) return 0;  // negatives, -0, +0 and NaN
  if (quotient >= 65535.0f) return 65535;
  // round() for a positive quotient, without a library call: q + 0.5 is
  // exact in double precision (a float has 24 significant bits), and
  // truncating it rounds halves away from zero.
  return static_cast<std::uint16_t>(static_cast<std::int32_t>(static_cast<double>(quotient) + 0.5));
}

inline std::uint16_t encodeStep(float value, float step) {
  return quantizeStepQuotient(value / step);
}

// The difference and the quotient are separate single-precision operations.
inline std::uint16_t encodeStep(float value, float origin, float step) {
  const float difference = value - origin;
  return quantizeStepQuotient(difference / step);
}

inline float decodeStep(std::uint16_t q, float step) { return static_cast<float>(q) * step; }

// The origin is added after the product, in a separate addition.
inline float decodeStep(std::uint16_t q, float origin, float step) {
  const float scaled = static_cast<float>(q) * step;
  return scaled + origin;
}

// --- Whole-number rule: the two value means. ---

// Truncation toward zero of a double, saturated to 0..255; NaN gives 0.
inline std::uint8_t truncateToByte(double v) {
  if (!(v >= 1.0)) return 0;  // below 1 truncates to 0 or saturates there; NaN
  if (v >= 255.0) return 255;
  return static_cast<std::uint8_t>(v);
}

// v widened to double, plus 0.5, truncated: for v >= 0 this rounds to
// nearest with halves upward (2.5 stores 3).
inline std::uint8_t encodeWhole(float value) {
  return truncateToByte(static_cast<double>(value) + 0.5);
}

inline float decodeWhole(std::uint8_t b) { return static_cast<float>(b); }

// --- Weight rule: one byte per pair of mixture weights. ---

// The share of w0 in 255ths: sum, quotient and product in single precision,
// then widened, plus 0.5 and truncated. Two zero weights (a NaN share) and
// negative shares store 0.
inline std::uint8_t encodeWeight(float w0, float w1) {
  const float sum = w1 + w0;
  const float share = w0 / sum;
  const float scaled = share * 255.0f;
  return truncateToByte(static_cast<double>(scaled) + 0.5);
}

// w0 = b / 255 in double, narrowed; w1 = 1 - w0 in single precision, so a
// loaded pair always sums to one.
inline void decodeWeight(std::uint8_t b, float* w0, float* w1) {
  const float first = static_cast<float>(static_cast<double>(b) / 255.0);
  *w0 = first;
  *w1 = 1.0f - first;
}

// --- One cell record. ---

// The quantisation steps and origins in effect for a file.
struct CellScales {
  float value_sigma_step;
  float height_sigma_step;
  float height_mean_step;
  float aux_value_step;
  float height_base;
  float aux_value_base;
};

// Writes the 22-byte record of `cell` at flat position `position`.
inline void encodeCellRecord(char* dst, std::uint32_t position, const MCell& cell,
                             const CellScales& s) {
  using internal::encodeFixed16;
  internal::encodeFixed32(dst + kRecordPositionOffset, position);
  encodeFixed16(dst + kRecordAuxOffset, encodeStep(cell.aux_value, s.aux_value_base, s.aux_value_step));
  dst[kRecordValueMeanOffset + 0] = static_cast<char>(encodeWhole(cell.value_mean[0]));
  dst[kRecordValueMeanOffset + 1] = static_cast<char>(encodeWhole(cell.value_mean[1]));
  encodeFixed16(dst + kRecordValueSigmaOffset + 0, encodeStep(cell.value_sigma[0], s.value_sigma_step));
  encodeFixed16(dst + kRecordValueSigmaOffset + 2, encodeStep(cell.value_sigma[1], s.value_sigma_step));
  dst[kRecordValueWeightOffset] =
      static_cast<char>(encodeWeight(cell.value_weight[0], cell.value_weight[1]));
  encodeFixed16(dst + kRecordHeightMeanOffset + 0,
                encodeStep(cell.height_mean[0], s.height_base, s.height_mean_step));
  encodeFixed16(dst + kRecordHeightMeanOffset + 2,
                encodeStep(cell.height_mean[1], s.height_base, s.height_mean_step));
  encodeFixed16(dst + kRecordHeightSigmaOffset + 0,
                encodeStep(cell.height_sigma[0], s.height_sigma_step));
  encodeFixed16(dst + kRecordHeightSigmaOffset + 2,
                encodeStep(cell.height_sigma[1], s.height_sigma_step));
  dst[kRecordHeightWeightOffset] =
      static_cast<char>(encodeWeight(cell.height_weight[0], cell.height_weight[1]));
}

inline std::uint32_t decodeRecordPosition(const char* src) {
  return internal::decodeFixed32(src + kRecordPositionOffset);
}

// Sets the thirteen floats of `cell` from the record at `src`; the padding
// bytes of the cell are left alone.
inline void decodeCellRecord(const char* src, const CellScales& s, MCell* cell) {
  using internal::decodeFixed16;
  const auto* u = reinterpret_cast<const unsigned char*>(src);
  cell->aux_value = decodeStep(decodeFixed16(src + kRecordAuxOffset), s.aux_value_base, s.aux_value_step);
  cell->value_mean[0] = decodeWhole(u[kRecordValueMeanOffset + 0]);
  cell->value_mean[1] = decodeWhole(u[kRecordValueMeanOffset + 1]);
  cell->value_sigma[0] = decodeStep(decodeFixed16(src + kRecordValueSigmaOffset + 0), s.value_sigma_step);
  cell->value_sigma[1] = decodeStep(decodeFixed16(src + kRecordValueSigmaOffset + 2), s.value_sigma_step);
  decodeWeight(u[kRecordValueWeightOffset], &cell->value_weight[0], &cell->value_weight[1]);
  cell->height_mean[0] =
      decodeStep(decodeFixed16(src + kRecordHeightMeanOffset + 0), s.height_base, s.height_mean_step);
  cell->height_mean[1] =
      decodeStep(decodeFixed16(src + kRecordHeightMeanOffset + 2), s.height_base, s.height_mean_step);
  cell->height_sigma[0] =
      decodeStep(decodeFixed16(src + kRecordHeightSigmaOffset + 0), s.height_sigma_step);
  cell->height_sigma[1] =
      decodeStep(decodeFixed16(src + kRecordHeightSigmaOffset + 2), s.height_sigma_step);
  decodeWeight(u[kRecordHeightWeightOffset], &cell->height_weight[0], &cell->height_weight[1]);
}

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOSSY_FORMAT_H_
