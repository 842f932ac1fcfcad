#include "tools/zvmap/map_loading.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <sstream>

#include "localization/durable_save.h"
#include "localization/lossy_format.h"
#include "tools/zvmap/console.h"

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

using localization::GridMapLossy;
namespace lossy = localization::lossy;

// The library's saver reports on standard output; the tool keeps its own
// output clean and says what went wrong in its own words.
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

std::string lowerFirst(std::string text) {
  if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z') text[0] = static_cast<char>(text[0] - 'A' + 'a');
  return text;
}

// What kind of thing a path that cannot be read names.
std::string whyUnreadable(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return lowerFirst(std::strerror(errno));
  if (S_ISDIR(st.st_mode)) return "is a directory";
  if (S_ISFIFO(st.st_mode)) return "not a regular file (a pipe)";
  if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) return "not a regular file (a device)";
  if (S_ISSOCK(st.st_mode)) return "not a regular file (a socket)";
  if (::access(path.c_str(), R_OK) != 0) return lowerFirst(std::strerror(errno));
  return "";
}

}  // namespace

MapLoadResult loadMap(const std::string& path, bool prepare, GridMapLossy* map) {
  return map->load(path, prepare);
}

std::string explainLoadFailure(const std::string& path, const MapLoadResult& result, const GridMapLossy& map) {
  std::string reason = describeLoadStatus(result.status);
  const std::int64_t length = fileBytes(path);
  const std::int64_t records = map.body_size_ / lossy::kRecordBytes;
  const std::string declared = "the header declares " + std::to_string(records) + " records, " +
                               std::to_string(lossy::kHeaderBytes + records * lossy::kRecordBytes) + " bytes";
  switch (result.status) {
    case MapLoadStatus::kCannotRead: {
      // The library's reason lists the possibilities; the path tells which.
      const std::string why = whyUnreadable(path);
      if (!why.empty()) reason = "cannot read the file: " + why;
      break;
    }
    case MapLoadStatus::kFileTooLarge:
    case MapLoadStatus::kTruncatedHeader:
      reason += " (" + std::to_string(length) + " bytes)";
      break;
    case MapLoadStatus::kTruncatedBody:
    case MapLoadStatus::kSizeMismatch:
      reason += " (" + std::to_string(length) + " bytes; " + declared + ")";
      break;
    case MapLoadStatus::kDimensionsOutOfRange:
      reason += " (for " + std::to_string(records) + " records)";
      break;
    default:
      break;
  }
  return reason;
}

bool loadOrFail(const std::string& path, bool prepare, GridMapLossy* map, MapLoadResult* result) {
  MapLoadResult r;
  {
    Progress progress("loading " + path, 0);
    r = loadMap(path, prepare, map);
  }
  if (result != nullptr) *result = r;
  if (r.ok()) return true;
  fail(path, explainLoadFailure(path, r, *map));
  return false;
}

std::string saveMap(GridMapLossy& map, const std::string& path) {
  // The codec prints a red line when it refuses a map; the reason comes
  // back in the result as well.
  MutedStdout muted;
  const localization::MapSaveResult saved = localization::saveMapDurably(map, path);
  if (saved.ok) return "";
  // The error names the path, which the tool's own line names already.
  const std::string prefix = "cannot save map to " + path + ": ";
  if (saved.error.rfind(prefix, 0) == 0) return saved.error.substr(prefix.size());
  return saved.error;
}

std::int64_t fileBytes(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return -1;
  return static_cast<std::int64_t>(st.st_size);
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
