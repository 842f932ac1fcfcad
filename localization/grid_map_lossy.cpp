#include "localization/grid_map_lossy.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <typeinfo>

#include "common/console.h"
#include "localization/lossy_body.h"
#include "localization/lossy_format.h"
#include "localization/lossy_record_source.h"
#include "localization/map_file_buffer.h"

namespace zorvane {
namespace localization {
namespace {

// Sum of two lengths as the file operations form it: signed 32-bit, wrapping.
std::int32_t addLengths(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

bool startsWithMagic(const char* buf, std::int64_t length) {
  return length >= lossy::kMagicBytes && std::memcmp(buf, lossy::kMagic, lossy::kMagicBytes) == 0;
}

}  // namespace

lossy::CellScales GridMapLossy::cellScales() const {
  return {value_sigma_step_, height_sigma_step_, height_mean_step_,
          aux_value_step_,   height_base_,       aux_value_base_};
}

void GridMapLossy::applyHeader(const lossy::Header& h) {
  header_tag_ = h.tag;
  height_base_ = h.height_base;
  aux_value_base_ = h.aux_value_base;
  for (int k = 0; k < 3; ++k) reference_[k] = h.reference[k];
  body_size_ = h.body_bytes;
  matrix_.rows_ = h.rows;
  matrix_.cols_ = h.cols;
  matrix_.offset_y_ = h.offset_y;
  matrix_.offset_x_ = h.offset_x;
  matrix_.grid_size_ = static_cast<std::uint32_t>(h.cols) * static_cast<std::uint32_t>(h.rows);
}

void GridMapLossy::dropMatrix() {
  matrix_.precalculated_ = false;
  MapVector<MCell>().swap(matrix_.cells_);
  MapVector<std::int32_t>().swap(matrix_.index_);
  matrix_.cols_ = 0;
  matrix_.rows_ = 0;
  matrix_.grid_size_ = 0;
  matrix_.offset_x_ = 0;
  matrix_.offset_y_ = 0;
}

int GridMapLossy::getHeaderBinarySize() { return lossy::kHeaderFieldBytes; }

int GridMapLossy::getBodyBinarySize() {
  const auto cells = static_cast<std::uint32_t>(matrix_.cells_.size());
  return static_cast<int>(cells * static_cast<std::uint32_t>(lossy::kRecordBytes));
}

int GridMapLossy::addHeaderBinary(char* buf) {
  lossy::Header h;
  h.tag = header_tag_;
  h.height_base = height_base_;
  h.aux_value_base = aux_value_base_;
  for (int k = 0; k < 3; ++k) h.reference[k] = reference_[k];
  h.body_bytes = static_cast<std::uint32_t>(getBodyBinarySize());
  h.rows = matrix_.rows_;
  h.cols = matrix_.cols_;
  h.offset_y = matrix_.offset_y_;
  h.offset_x = matrix_.offset_x_;
  lossy::encodeHeader(h, buf);
  return getHeaderBinarySize() + lossy::kGeometryBytes;
}

int GridMapLossy::loadHeaderBinary(char* buf) {
  lossy::Header h;
  if (!lossy::decodeHeader(buf, &h)) return -1;
  applyHeader(h);
  if (!lossy::bodyIsWholeRecords(h)) internal::printPartialRecordLine();
  return getHeaderBinarySize() + lossy::kGeometryBytes;
}

int GridMapLossy::addBodyBinary(char* buf) {
  if (matrix_.cells_.empty()) return getBodyBinarySize();
  const std::int64_t declared = getBodyBinarySize();
  const std::int64_t records = lossy::countBodyRecords(matrix_);
  if (records < 0 || records * lossy::kRecordBytes > declared) {
    common::printRedLine("GridMapLossy addBodyBinary : Index does not name each cell once");
    return -1;
  }
  if (matrix_.index_.size() != matrix_.grid_size_ ||
      !lossy::isLoadableGeometry(matrix_.rows_, matrix_.cols_, matrix_.grid_size_,
                                 static_cast<std::uint64_t>(records))) {
    common::printRedLine("GridMapLossy addBodyBinary : Map dimensions out of range");
    return -1;
  }
  lossy::encodeBody(matrix_, cellScales(), buf);
  return getBodyBinarySize();
}

MapLoadStatus GridMapLossy::decodeBodyRecords(const lossy::RecordSource& source, bool prepare) {
  const std::uint32_t records = body_size_ / lossy::kRecordBytes;
  if (records > lossy::kMaxCells ||
      !lossy::isLoadableGeometry(matrix_.rows_, matrix_.cols_, matrix_.grid_size_, records)) {
    dropMatrix();
    return MapLoadStatus::kDimensionsOutOfRange;
  }
  const MapLoadStatus status = lossy::decodeBody(source, records, cellScales(), prepare, &matrix_);
  if (status != MapLoadStatus::kOk) dropMatrix();
  return status;
}

int GridMapLossy::loadBodyBinary(char* buf) {
  const MapLoadStatus status = decodeBodyRecords(lossy::MemoryRecords(buf), /*prepare=*/false);
  internal::printLoadStatusLine(status, std::string());
  return getBodyBinarySize();
}

bool GridMapLossy::saveToFile(const std::string& path) {
  std::ofstream out(path, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!out) {
    common::printRedLine("GridMapLossy saveToFile: Cannot create file " + path);
    return false;
  }
  if (static_cast<std::int64_t>(matrix_.cells_.size()) > lossy::kMaxCells) {
    common::printRedLine("GridMapLossy saveToFile: Map too large for the file format");
    return false;
  }
  const std::int32_t length =
      addLengths(getHeaderBinarySize() + lossy::kGeometryBytes, getBodyBinarySize());
  internal::MapFileBuffer buffer(length > 0 ? static_cast<std::size_t>(length) : 0);
  std::cout << "GridMapLossy: buf size: " << static_cast<std::uint32_t>(length) << std::endl;

  const int h = addHeaderBinary(buffer.data());
  std::cout << "GridMapLossy saveToFile: header size: " << h << std::endl;
  if (h <= 0) return false;

  const int b = addBodyBinary(buffer.data() + h);
  std::cout << "GridMapLossy saveToFile: body size: " << b << std::endl;
  if (b <= 0) return false;

  if (addLengths(h, b) != length) {
    common::printRedLine("GridMapLossy saveToFile: Map size is not same as raw data!");
    out.close();
    return false;
  }
  out.write(buffer.data(), length);
  out.close();
  return true;
}

bool GridMapLossy::ReadFromFile(const std::string& path) {
  return loadFile(path, /*prepare=*/true, /*print=*/true).ok();
}

MapLoadResult GridMapLossy::load(const std::string& path, bool prepare) {
  return loadFile(path, prepare, /*print=*/false);
}

MapLoadResult GridMapLossy::loadFile(const std::string& path, bool prepare, bool print) {
  MapLoadResult result;
  const auto finish = [&](MapLoadStatus status) {
    result.status = status;
    if (print) internal::printLoadStatusLine(status, path);
    return result;
  };
  // A map of exactly this class runs this class's codec and size
  // operations, so the load can decode without printing, straight out of
  // the file and, when the length check will pass, straight into prepared
  // form: the same bits as reading the cells raw and then running
  // runPreCalc, with one pass over hundreds of megabytes of cells fewer. A
  // subclass goes through its own virtual operations step by step on the
  // whole file in memory, and they print their own lines.
  if (typeid(*this) == typeid(GridMapLossy)) {
    return finish(loadExactly(path, prepare, print, &result.partial_record));
  }

  internal::MapFileBuffer file;
  switch (internal::readWholeFile(path, lossy::kMaxFileBytes, &file)) {
    case internal::FileReadStatus::kOk:
      break;
    case internal::FileReadStatus::kCannotRead:
      return finish(MapLoadStatus::kCannotRead);
    case internal::FileReadStatus::kTooLarge:
      return finish(MapLoadStatus::kFileTooLarge);
  }
  // All lengths below fit in 32 bits: the file is at most kMaxFileBytes.
  const auto length = static_cast<std::int64_t>(file.size());
  char* const buf = file.data();

  // The header parser reads 61 bytes unchecked; a shorter file is judged on
  // the bytes it has. Without the magic it is not a map file at all.
  if (length < lossy::kHeaderBytes) {
    return finish(startsWithMagic(buf, length) ? MapLoadStatus::kTruncatedHeader
                                               : MapLoadStatus::kNotAMapFile);
  }
  const int h = loadHeaderBinary(buf);
  if (h <= 0) return finish(MapLoadStatus::kNotAMapFile);
  result.partial_record = body_size_ % lossy::kRecordBytes != 0;

  // The body parser reads every whole record the header declares,
  // unchecked: they must lie inside the file.
  const std::int64_t records = body_size_ / lossy::kRecordBytes;
  if (h > length || records * lossy::kRecordBytes > length - h) {
    dropMatrix();
    return finish(MapLoadStatus::kTruncatedBody);
  }
  const bool geometry_ok = records <= lossy::kMaxCells &&
                           lossy::isLoadableGeometry(matrix_.rows_, matrix_.cols_, matrix_.grid_size_,
                                                     static_cast<std::uint64_t>(records));
  const int b = loadBodyBinary(buf + h);  // prints its own refusals
  if (b <= 0 && (records > 0 || !geometry_ok)) {
    result.status = geometry_ok ? MapLoadStatus::kPositionOutOfRange : MapLoadStatus::kDimensionsOutOfRange;
    return result;
  }
  if (b <= 0) return finish(MapLoadStatus::kNoCells);

  if (addLengths(h, b) != length) return finish(MapLoadStatus::kSizeMismatch);
  if (prepare) matrix_.runPreCalc();
  return finish(MapLoadStatus::kOk);
}

MapLoadStatus GridMapLossy::loadExactly(const std::string& path, bool prepare, bool print,
                                        bool* partial_record) {
  internal::MapFile file;
  switch (file.open(path, lossy::kMaxFileBytes)) {
    case internal::FileReadStatus::kOk:
      break;
    case internal::FileReadStatus::kCannotRead:
      return MapLoadStatus::kCannotRead;
    case internal::FileReadStatus::kTooLarge:
      return MapLoadStatus::kFileTooLarge;
  }
  // All lengths below fit in 32 bits: the file is at most kMaxFileBytes.
  const auto length = static_cast<std::int64_t>(file.size());

  // A file shorter than a header is judged on the bytes it has. Without the
  // magic it is not a map file at all.
  char header_bytes[lossy::kHeaderBytes];
  std::size_t got = 0;
  if (!file.read(0, sizeof header_bytes, header_bytes, &got)) return MapLoadStatus::kCannotRead;
  if (got < sizeof header_bytes) {
    return startsWithMagic(header_bytes, static_cast<std::int64_t>(got)) ? MapLoadStatus::kTruncatedHeader
                                                                         : MapLoadStatus::kNotAMapFile;
  }
  lossy::Header header;
  if (!lossy::decodeHeader(header_bytes, &header)) return MapLoadStatus::kNotAMapFile;
  applyHeader(header);
  *partial_record = !lossy::bodyIsWholeRecords(header);
  if (print && *partial_record) internal::printPartialRecordLine();

  // Every whole record the header declares must lie inside the file.
  const int h = lossy::kHeaderBytes;
  const std::int64_t records = body_size_ / lossy::kRecordBytes;
  if (h > length || records * lossy::kRecordBytes > length - h) {
    dropMatrix();
    return MapLoadStatus::kTruncatedBody;
  }
  const bool prepare_now = prepare && records > 0 && h + lossy::kRecordBytes * records == length;
  const MapLoadStatus status = decodeBodyRecords(lossy::FileRecords(file, h), prepare_now);
  if (status != MapLoadStatus::kOk) return status;
  const int b = getBodyBinarySize();
  if (b <= 0) return MapLoadStatus::kNoCells;

  if (addLengths(h, b) != length) return MapLoadStatus::kSizeMismatch;
  if (prepare) matrix_.runPreCalc();
  return MapLoadStatus::kOk;
}

}  // namespace localization
}  // namespace zorvane
