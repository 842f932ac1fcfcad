// The outcome of loading a zvmap file, one value per way a load can end.
//
// GridMapLossy::load returns it without printing anything; ReadFromFile
// prints the console line that belongs to it. Tools and bindings turn it
// into their own errors with describeLoadStatus.
#ifndef ZORVANE_LOCALIZATION_MAP_LOAD_STATUS_H_
#define ZORVANE_LOCALIZATION_MAP_LOAD_STATUS_H_

#include <string>

namespace zorvane {
namespace localization {

enum class MapLoadStatus {
  kOk,
  kCannotRead,             // missing, unreadable, or not a regular file (directory, pipe, device)
  kNotAMapFile,            // does not start with "zvmap" (an empty or shorter file included)
  kFileTooLarge,           // longer than any map file can be (61 + 22 * 97,612,890 bytes)
  kTruncatedHeader,        // starts with "zvmap" but ends inside the 61-byte header
  kNoCells,                // the header declares fewer than 22 body bytes
  kDimensionsOutOfRange,   // negative extents, a wrapping grid, or a grid too large for its cells
  kTruncatedBody,          // the declared records run past the end of the file
  kPositionOutOfRange,     // a record names a position at or beyond the grid
  kSizeMismatch,           // bytes left over behind the declared records
};

struct MapLoadResult {
  MapLoadStatus status = MapLoadStatus::kOk;
  // The header's body size is not a multiple of 22: the whole records were
  // read and the rest judged by the length check. ReadFromFile warns.
  bool partial_record = false;

  bool ok() const { return status == MapLoadStatus::kOk; }
};

// A short, lower-case reason for people and exception messages, e.g.
// "not a zvmap file (wrong magic)". Never empty.
const char* describeLoadStatus(MapLoadStatus status);

namespace internal {

// Prints the red console line of `status`, if it has one, as ReadFromFile
// and loadBodyBinary report it ("ReadFromFile : Cannot read file " + path,
// "ReadFromFile : Map size is not same as raw data!", ...). kOk,
// kNotAMapFile and kNoCells print nothing.
void printLoadStatusLine(MapLoadStatus status, const std::string& path);

// The warning of a body size that is not a multiple of 22.
void printPartialRecordLine();

}  // namespace internal
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_MAP_LOAD_STATUS_H_
