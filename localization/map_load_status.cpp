#include "localization/map_load_status.h"

#include "common/console.h"

namespace zorvane {
namespace localization {
namespace {

constexpr char kSizeMismatchLine[] = "ReadFromFile : Map size is not same as raw data!";

// Every status with its reason and its console line (nullptr: silent).
// A line that ends in a space is followed by the path.
struct StatusText {
  MapLoadStatus status;
  const char* reason;
  const char* line;
};

constexpr StatusText kStatusTexts[] = {
    {MapLoadStatus::kOk, "loaded", nullptr},
    {MapLoadStatus::kCannotRead, "cannot read the file (missing, unreadable or not a regular file)",
     "ReadFromFile : Cannot read file "},
    {MapLoadStatus::kNotAMapFile, "not a zvmap file (wrong magic)", nullptr},
    {MapLoadStatus::kFileTooLarge, "larger than any zvmap file can be", kSizeMismatchLine},
    {MapLoadStatus::kTruncatedHeader, "truncated inside the 61-byte header", kSizeMismatchLine},
    {MapLoadStatus::kNoCells, "the header declares no cells", nullptr},
    {MapLoadStatus::kDimensionsOutOfRange,
     "grid dimensions out of range (negative, wrapping, or too large for the cells)",
     "GridMapLossy loadBodyBinary : Map dimensions out of range"},
    {MapLoadStatus::kTruncatedBody, "truncated: the declared cell records run past the end of the file",
     kSizeMismatchLine},
    {MapLoadStatus::kPositionOutOfRange, "a cell record names a position outside the grid",
     "GridMapLossy loadBodyBinary : Cell position out of range"},
    {MapLoadStatus::kSizeMismatch, "file length differs from the header and the declared records",
     kSizeMismatchLine},
};

const StatusText& textOf(MapLoadStatus status) {
  for (const StatusText& t : kStatusTexts) {
    if (t.status == status) return t;
  }
  return kStatusTexts[0];  // unreachable: every enumerator has a row
}

}  // namespace

const char* describeLoadStatus(MapLoadStatus status) { return textOf(status).reason; }

namespace internal {

void printLoadStatusLine(MapLoadStatus status, const std::string& path) {
  const char* line = textOf(status).line;
  if (line == nullptr) return;
  std::string text = line;
  if (!text.empty() && text.back() == ' ') text += path;
  common::printRedLine(text);
}

void printPartialRecordLine() { common::printRedLine("GridMapLossy loadHeaderBinary : Map format wrong"); }

}  // namespace internal
}  // namespace localization
}  // namespace zorvane
