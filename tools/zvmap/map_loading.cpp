#include "tools/zvmap/map_loading.h"

#include <sys/stat.h>

#include <cstring>
#include <iostream>
#include <sstream>

#include "localization/lossy_body.h"
#include "localization/lossy_codec.h"
#include "localization/map_file_buffer.h"
#include "tools/zvmap/console.h"

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

using localization::GridMapLossy;
namespace lossy = localization::lossy;

// The library's file operations report on standard output; the tool keeps
// its own output clean and says what went wrong in its own words.
class MutedStdout {
 public:
  MutedStdout() : saved_(std::cout.rdbuf(sink_.rdbuf())) {}
  ~MutedStdout() { std::cout.rdbuf(saved_); }
  MutedStdout(const MutedStdout&) = delete;
  MutedStdout& operator=(const MutedStdout&) = delete;
  std::string text() const { return sink_.str(); }

 private:
  std::ostringstream sink_;
  std::streambuf* saved_;
};

// The last line the library printed, without its colour framing.
std::string lastLine(const std::string& text) {
  std::string line;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) {
    if (!l.empty()) line = l;
  }
  for (const char* escape : {"\033[31m", "\033[0m"}) {
    for (std::size_t at; (at = line.find(escape)) != std::string::npos;) line.erase(at, std::strlen(escape));
  }
  return line;
}

}  // namespace

const char* describeLoadStatus(MapLoadStatus status) {
  switch (status) {
    case MapLoadStatus::kOk:
      return "ok";
    case MapLoadStatus::kCannotRead:
      return "not a readable regular file";
    case MapLoadStatus::kNotAMapFile:
      return "not a zvmap file (no \"zvmap\" magic)";
    case MapLoadStatus::kSizeMismatch:
      return "file length does not match the header's body size";
    case MapLoadStatus::kDimensionsOutOfRange:
      return "grid dimensions out of range";
    case MapLoadStatus::kPositionOutOfRange:
      return "a cell position lies outside the grid";
    case MapLoadStatus::kNoCells:
      return "the map holds no cells";
  }
  return "unknown load failure";
}

// The library's loader steps, each through the map's own operations, with
// the status read off their results.
MapLoadResult loadMap(const std::string& path, bool prepare, GridMapLossy* map) {
  MapLoadResult result;
  localization::internal::MapFileBuffer file;
  switch (localization::internal::readWholeFile(path, lossy::kMaxFileBytes, &file)) {
    case localization::internal::FileReadStatus::kOk:
      break;
    case localization::internal::FileReadStatus::kCannotRead:
      result.status = MapLoadStatus::kCannotRead;
      return result;
    case localization::internal::FileReadStatus::kTooLarge:
      result.status = MapLoadStatus::kSizeMismatch;
      return result;
  }
  const auto length = static_cast<std::int64_t>(file.size());
  const bool magic =
      length >= lossy::kMagicBytes && std::memcmp(file.data(), lossy::kMagic, lossy::kMagicBytes) == 0;
  if (!magic) {
    result.status = MapLoadStatus::kNotAMapFile;
    return result;
  }
  if (length < lossy::kHeaderBytes) {
    result.status = MapLoadStatus::kSizeMismatch;
    return result;
  }
  MutedStdout muted;
  map->loadHeaderBinary(file.data());
  result.partial_record = map->body_size_ % lossy::kRecordBytes != 0;
  const std::int64_t records = map->body_size_ / lossy::kRecordBytes;
  if (records * lossy::kRecordBytes > length - lossy::kHeaderBytes) {
    result.status = MapLoadStatus::kSizeMismatch;
    return result;
  }
  if (records == 0) {
    result.status = MapLoadStatus::kNoCells;
    return result;
  }
  map->loadBodyBinary(file.data() + lossy::kHeaderBytes);
  if (map->matrix().cells_.empty()) {
    const auto& m = map->matrix();
    result.status = records <= lossy::kMaxCells &&
                            lossy::isLoadableGeometry(m.rows_, m.cols_, m.grid_size_,
                                                      static_cast<std::uint64_t>(records))
                        ? MapLoadStatus::kPositionOutOfRange
                        : MapLoadStatus::kDimensionsOutOfRange;
    return result;
  }
  if (lossy::kHeaderBytes + records * lossy::kRecordBytes != length) {
    result.status = MapLoadStatus::kSizeMismatch;
    return result;
  }
  if (prepare) map->mutable_matrix().runPreCalc();
  return result;
}

std::string saveMap(GridMapLossy& map, const std::string& path) {
  MutedStdout muted;
  if (map.saveToFile(path)) return "";
  std::string reason = lastLine(muted.text());
  if (reason.rfind("GridMapLossy saveToFile: Cannot create file", 0) == 0) return "cannot create the file";
  if (reason.rfind("GridMapLossy saveToFile: body size: 0", 0) == 0) return "the map holds no cells";
  return reason.empty() ? std::string("the map could not be saved") : reason;
}

std::string explainLoadFailure(const std::string& path, const MapLoadResult& result,
                               const GridMapLossy& map) {
  std::string reason = describeLoadStatus(result.status);
  const std::int64_t length = fileBytes(path);
  const auto& m = map.matrix();
  switch (result.status) {
    case MapLoadStatus::kSizeMismatch:
      if (length >= 0 && length < lossy::kHeaderBytes) {
        reason += " (" + std::to_string(length) + " bytes, shorter than the 61-byte header)";
      } else if (length > lossy::kMaxFileBytes) {
        reason += " (" + std::to_string(length) + " bytes, longer than any map file can be)";
      } else if (length >= 0) {
        const std::int64_t records = map.body_size_ / lossy::kRecordBytes;
        reason += " (" + std::to_string(length) + " bytes; the header declares " + std::to_string(records) +
                  " records, " + std::to_string(lossy::kHeaderBytes + records * lossy::kRecordBytes) + " bytes)";
      }
      break;
    case MapLoadStatus::kDimensionsOutOfRange:
      reason += " (" + std::to_string(m.cols_) + " cols x " + std::to_string(m.rows_) + " rows for " +
                std::to_string(map.body_size_ / lossy::kRecordBytes) + " records)";
      break;
    case MapLoadStatus::kPositionOutOfRange:
      reason += " (" + std::to_string(m.cols_) + " x " + std::to_string(m.rows_) + " grid)";
      break;
    default:
      break;
  }
  return reason;
}

bool loadOrFail(const std::string& path, bool prepare, GridMapLossy* map, MapLoadResult* result) {
  MapLoadResult r = loadMap(path, prepare, map);
  if (result != nullptr) *result = r;
  if (r.ok()) return true;
  fail(path, explainLoadFailure(path, r, *map));
  return false;
}

std::int64_t fileBytes(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return -1;
  return static_cast<std::int64_t>(st.st_size);
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
