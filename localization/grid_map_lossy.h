// GridMapLossy: the grid map stored in the quantised zvmap file.
//
// The file layout and the quantisation rules are in lossy_codec.h; the
// record loops in lossy_body.h. The format loses precision in fixed ways:
// sigmas, height means and aux_value are stored in steps of 0.01 (the last
// two from the map's origins), value means as whole numbers 0..255, and
// each pair of mixture weights as the share of the first in 255ths.
//
// Console output: every message is one line on standard output, ended and
// flushed; red messages are "\033[31m" + text + "\033[0m" + end of line.
#ifndef ZORVANE_LOCALIZATION_GRID_MAP_LOSSY_H_
#define ZORVANE_LOCALIZATION_GRID_MAP_LOSSY_H_

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <typeinfo>
#include <utility>

#include "localization/grid_map_base.h"
#include "localization/little_endian.h"
#include "localization/lossy_body.h"
#include "localization/lossy_codec.h"
#include "localization/map_file_buffer.h"

namespace zorvane {
namespace localization {

class GridMapLossy : public GridMapBase {
 public:
  // Base members at their initial values, the five steps at their defaults.
  GridMapLossy() = default;
  ~GridMapLossy() override = default;

  // Writes the map to `path` (created or truncated first) as one buffer in
  // one write. Prints "GridMapLossy: buf size: " L, "GridMapLossy saveToFile:
  // header size: " h and "GridMapLossy saveToFile: body size: " b, then
  // returns true once the file is written. Returns false, leaving the file
  // empty:
  //  - red "GridMapLossy saveToFile: Cannot create file " + path when it
  //    cannot be opened (nothing else happens);
  //  - when the header or body length is 0 or less: a map without cells,
  //    or one addBodyBinary refuses (body size -1);
  //  - red "GridMapLossy saveToFile: Map size is not same as raw data!" when
  //    header plus body differs from the buffer length;
  //  - red "GridMapLossy saveToFile: Map too large for the file format",
  //    printed right after the open, for more than 97,612,890 cells (the
  //    lengths are signed 32-bit).
  // Saves the cells as they are: a loaded (prepared) map does not give back
  // the file it came from. Does not change the object.
  bool saveToFile(const std::string& path) override;

  // Replaces the header values and the matrix by the file at `path`, then
  // prepares the cells (runPreCalc). True when the map is ready for use.
  // Never reads outside the file's bytes or writes outside the matrix, and
  // takes at most the file's size plus the final matrix in memory. The
  // table cache is left as it was.
  //
  // Results, in the order the checks are made:
  //  - not a readable regular file (missing, a directory, a pipe): red
  //    "ReadFromFile : Cannot read file " + path; false; object unchanged.
  //  - first five bytes not "zvmap" (an empty or shorter file included):
  //    no output; false; object unchanged.
  //  - ends inside the 61-byte header, or longer than the largest file the
  //    format allows (61 + 22 * 97,612,890 bytes): red "ReadFromFile : Map
  //    size is not same as raw data!"; false; object unchanged.
  //  - body size field not a multiple of 22: red "GridMapLossy
  //    loadHeaderBinary : Map format wrong", then the load goes on with the
  //    whole records.
  //  - whole records declared beyond the end of the file: red "ReadFromFile
  //    : Map size is not same as raw data!"; false; header values and
  //    geometry loaded; cells_ and index_ empty; precalculated_ false.
  //  - negative rows or columns, a grid whose 32-bit size wraps, or a grid
  //    too large for its cells (more than 2^24 + 256 * records positions,
  //    or more than 2^30; see lossy_codec.h): red "GridMapLossy
  //    loadBodyBinary : Map dimensions out of range"; false; header values
  //    and geometry loaded; cells_ and index_ empty; precalculated_ false.
  //    Decided from the header, before any memory is taken for the index.
  //  - a record naming a position at or beyond the grid: red "GridMapLossy
  //    loadBodyBinary : Cell position out of range"; false; as the row above.
  //  - body size field below 22: false (no message of its own); header
  //    values and geometry loaded; index_ sized to the grid, all -1;
  //    cells_ empty; precalculated_ false.
  //  - file length differs from 61 + the whole records: red "ReadFromFile :
  //    Map size is not same as raw data!"; false; header values, geometry,
  //    index_ and cells_ loaded from the file, in raw form; precalculated_
  //    false.
  bool ReadFromFile(const std::string& path) override;

  // Writes the 61-byte header at `buf`; the body size field is
  // getBodyBinarySize() now. Returns getHeaderBinarySize() + 16 (61).
  int addHeaderBinary(char* buf) override;

  // Returns -1 and changes nothing unless `buf` starts with "zvmap".
  // Otherwise loads the header values, body_size_ and the geometry (with
  // grid_size_ = cols * rows, 32-bit) from the 61 bytes at `buf`, prints
  // the red "GridMapLossy loadHeaderBinary : Map format wrong" when the body
  // size is not a multiple of 22, and returns 61.
  int loadHeaderBinary(char* buf) override;

  // 45: the header without its 16-byte geometry block.
  int getHeaderBinarySize() override;

  // Writes one 22-byte record per non-negative index_ entry, in increasing
  // position, at `buf`, which holds getBodyBinarySize() bytes. Returns
  // getBodyBinarySize(). A matrix without cells writes nothing. Otherwise
  // the writer refuses, writing nothing and returning -1, a matrix that
  // ReadFromFile would not give back:
  //  - an index that does not name every cell exactly once (an entry beyond
  //    cells_, a cell named twice or by no position), or records that would
  //    not fit the declared size: red "GridMapLossy addBodyBinary : Index
  //    does not name each cell once";
  //  - an index of other than grid_size_ entries, or a geometry the reader
  //    refuses (lossy::isLoadableGeometry): red "GridMapLossy addBodyBinary
  //    : Map dimensions out of range".
  int addBodyBinary(char* buf) override;

  // Rebuilds index_ and cells_ from body_size_ / 22 records at `buf` and
  // clears precalculated_; returns getBodyBinarySize() afterwards (22 times
  // the cells read). `buf` must hold that many bytes. Duplicate positions:
  // the later record wins, the earlier cell stays without a position.
  // Refuses (red message, empty cells_ and index_, returns 0) more than
  // 97,612,890 records or a geometry outside lossy::isLoadableGeometry for
  // the declared records ("GridMapLossy loadBodyBinary : Map dimensions out
  // of range"), before reading the body or sizing the index, and a
  // record naming a position at or beyond grid_size_ ("GridMapLossy
  // loadBodyBinary : Cell position out of range").
  int loadBodyBinary(char* buf) override;

  // cells_.size() * 22 in 32-bit arithmetic.
  int getBodyBinarySize() override;

  // Quantisation steps of the file (defaults below). value_mean_step_ is
  // not consulted: value means are always stored as whole numbers.
  float value_sigma_step_ = 0.01f;
  float value_mean_step_ = 1.0f;
  float height_sigma_step_ = 0.01f;
  float height_mean_step_ = 0.01f;
  float aux_value_step_ = 0.01f;

 private:
  lossy::CellScales cellScales() const {
    return {value_sigma_step_, height_sigma_step_, height_mean_step_,
            aux_value_step_,   height_base_,       aux_value_base_};
  }
  // loadBodyBinary, optionally leaving the cells in prepared form (and
  // precalculated_ set) as runPreCalc would.
  int loadBody(char* buf, bool prepare);

  void releaseCells() {
    matrix_.precalculated_ = false;
    MapVector<MCell>().swap(matrix_.cells_);
    MapVector<std::int32_t>().swap(matrix_.index_);
  }
};

namespace internal {

inline void printRedLine(const std::string& text) {
  std::cout << "\033[31m" << text << "\033[0m" << std::endl;
}

// Sum of two lengths as the file operations form it: signed 32-bit, wrapping.
inline std::int32_t addLengths(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

constexpr char kReadSizeMismatch[] = "ReadFromFile : Map size is not same as raw data!";

}  // namespace internal

inline int GridMapLossy::getHeaderBinarySize() { return lossy::kHeaderFieldBytes; }

inline int GridMapLossy::getBodyBinarySize() {
  const auto cells = static_cast<std::uint32_t>(matrix_.cells_.size());
  return static_cast<int>(cells * static_cast<std::uint32_t>(lossy::kRecordBytes));
}

inline int GridMapLossy::addHeaderBinary(char* buf) {
  using namespace internal;
  std::memcpy(buf, lossy::kMagic, lossy::kMagicBytes);
  encodeFixed32(buf + lossy::kTagOffset, header_tag_);
  encodeFloat32(buf + lossy::kHeightBaseOffset, height_base_);
  encodeFloat32(buf + lossy::kAuxBaseOffset, aux_value_base_);
  for (int k = 0; k < 3; ++k) encodeFloat64(buf + lossy::kReferenceOffset + 8 * k, reference_[k]);
  encodeFixed32(buf + lossy::kBodySizeOffset, static_cast<std::uint32_t>(getBodyBinarySize()));
  encodeInt32(buf + lossy::kRowsOffset, matrix_.rows_);
  encodeInt32(buf + lossy::kColsOffset, matrix_.cols_);
  encodeInt32(buf + lossy::kOffsetYOffset, matrix_.offset_y_);
  encodeInt32(buf + lossy::kOffsetXOffset, matrix_.offset_x_);
  return getHeaderBinarySize() + lossy::kGeometryBytes;
}

inline int GridMapLossy::loadHeaderBinary(char* buf) {
  using namespace internal;
  if (std::memcmp(buf, lossy::kMagic, lossy::kMagicBytes) != 0) return -1;
  header_tag_ = decodeFixed32(buf + lossy::kTagOffset);
  height_base_ = decodeFloat32(buf + lossy::kHeightBaseOffset);
  aux_value_base_ = decodeFloat32(buf + lossy::kAuxBaseOffset);
  for (int k = 0; k < 3; ++k) reference_[k] = decodeFloat64(buf + lossy::kReferenceOffset + 8 * k);
  body_size_ = decodeFixed32(buf + lossy::kBodySizeOffset);
  matrix_.rows_ = decodeInt32(buf + lossy::kRowsOffset);
  matrix_.cols_ = decodeInt32(buf + lossy::kColsOffset);
  matrix_.offset_y_ = decodeInt32(buf + lossy::kOffsetYOffset);
  matrix_.offset_x_ = decodeInt32(buf + lossy::kOffsetXOffset);
  matrix_.grid_size_ =
      static_cast<std::uint32_t>(matrix_.cols_) * static_cast<std::uint32_t>(matrix_.rows_);
  if (body_size_ % lossy::kRecordBytes != 0) {
    printRedLine("GridMapLossy loadHeaderBinary : Map format wrong");
  }
  return getHeaderBinarySize() + lossy::kGeometryBytes;
}

inline int GridMapLossy::addBodyBinary(char* buf) {
  if (matrix_.cells_.empty()) return getBodyBinarySize();
  const std::int64_t declared = getBodyBinarySize();
  const std::int64_t records = lossy::countBodyRecords(matrix_);
  if (records < 0 || records * lossy::kRecordBytes > declared) {
    internal::printRedLine("GridMapLossy addBodyBinary : Index does not name each cell once");
    return -1;
  }
  if (matrix_.index_.size() != matrix_.grid_size_ ||
      !lossy::isLoadableGeometry(matrix_.rows_, matrix_.cols_, matrix_.grid_size_,
                                 static_cast<std::uint64_t>(records))) {
    internal::printRedLine("GridMapLossy addBodyBinary : Map dimensions out of range");
    return -1;
  }
  lossy::encodeBody(matrix_, cellScales(), buf);
  return getBodyBinarySize();
}

inline int GridMapLossy::loadBodyBinary(char* buf) { return loadBody(buf, /*prepare=*/false); }

inline int GridMapLossy::loadBody(char* buf, bool prepare) {
  const std::uint32_t records = body_size_ / lossy::kRecordBytes;
  if (records > lossy::kMaxCells ||
      !lossy::isLoadableGeometry(matrix_.rows_, matrix_.cols_, matrix_.grid_size_, records)) {
    releaseCells();
    internal::printRedLine("GridMapLossy loadBodyBinary : Map dimensions out of range");
    return getBodyBinarySize();
  }
  if (lossy::decodeBody(buf, records, cellScales(), prepare, &matrix_) != lossy::BodyDecodeStatus::kOk) {
    internal::printRedLine("GridMapLossy loadBodyBinary : Cell position out of range");
  }
  return getBodyBinarySize();
}

inline bool GridMapLossy::saveToFile(const std::string& path) {
  std::ofstream out(path, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!out) {
    internal::printRedLine("GridMapLossy saveToFile: Cannot create file " + path);
    return false;
  }
  if (static_cast<std::int64_t>(matrix_.cells_.size()) > lossy::kMaxCells) {
    internal::printRedLine("GridMapLossy saveToFile: Map too large for the file format");
    return false;
  }
  const std::int32_t length =
      internal::addLengths(getHeaderBinarySize() + lossy::kGeometryBytes, getBodyBinarySize());
  internal::MapFileBuffer buffer(length > 0 ? static_cast<std::size_t>(length) : 0);
  std::cout << "GridMapLossy: buf size: " << static_cast<std::uint32_t>(length) << std::endl;

  const int h = addHeaderBinary(buffer.data());
  std::cout << "GridMapLossy saveToFile: header size: " << h << std::endl;
  if (h <= 0) return false;

  const int b = addBodyBinary(buffer.data() + h);
  std::cout << "GridMapLossy saveToFile: body size: " << b << std::endl;
  if (b <= 0) return false;

  if (internal::addLengths(h, b) != length) {
    internal::printRedLine("GridMapLossy saveToFile: Map size is not same as raw data!");
    out.close();
    return false;
  }
  out.write(buffer.data(), length);
  out.close();
  return true;
}

inline bool GridMapLossy::ReadFromFile(const std::string& path) {
  internal::MapFileBuffer file;
  switch (internal::readWholeFile(path, lossy::kMaxFileBytes, &file)) {
    case internal::FileReadStatus::kOk:
      break;
    case internal::FileReadStatus::kCannotRead:
      internal::printRedLine("ReadFromFile : Cannot read file " + path);
      return false;
    case internal::FileReadStatus::kTooLarge:
      internal::printRedLine(internal::kReadSizeMismatch);
      return false;
  }
  // All lengths below fit in 32 bits: the file is at most kMaxFileBytes.
  const auto length = static_cast<std::int64_t>(file.size());
  char* const buf = file.data();

  // The header parser reads 61 bytes unchecked; a shorter file is judged on
  // the bytes it has. Without the magic it is not a map file at all.
  if (length < lossy::kHeaderBytes) {
    if (length >= lossy::kMagicBytes && std::memcmp(buf, lossy::kMagic, lossy::kMagicBytes) == 0) {
      internal::printRedLine(internal::kReadSizeMismatch);
    }
    return false;
  }

  const int h = loadHeaderBinary(buf);
  if (h <= 0) return false;

  // The body parser reads every whole record the header declares,
  // unchecked: they must lie inside the file.
  const std::int64_t body = static_cast<std::int64_t>(body_size_ / lossy::kRecordBytes) * lossy::kRecordBytes;
  if (h > length || body > length - h) {
    releaseCells();
    internal::printRedLine(internal::kReadSizeMismatch);
    return false;
  }

  // A map of exactly this class runs this class's body reader and size
  // operations, so whether the length check will pass is known before the
  // body is read. When it will, the cells are decoded straight into
  // prepared form: the same bits as reading them raw and then running
  // runPreCalc, with one pass over hundreds of megabytes of cells fewer.
  // A subclass goes through its own virtual operations step by step.
  int b;
  if (typeid(*this) == typeid(GridMapLossy)) {
    const std::int64_t records = body_size_ / lossy::kRecordBytes;
    b = loadBody(buf + h, /*prepare=*/records > 0 && h + lossy::kRecordBytes * records == length);
  } else {
    b = loadBodyBinary(buf + h);
  }
  if (b <= 0) return false;

  if (internal::addLengths(h, b) != length) {
    internal::printRedLine(internal::kReadSizeMismatch);
    return false;
  }
  matrix_.runPreCalc();
  return true;
}

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_GRID_MAP_LOSSY_H_
