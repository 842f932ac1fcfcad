// The checks one arbitrary file runs through, shared by the map file fuzz
// target (fuzz/map_file_fuzz.cpp, also built as a replay driver over
// fuzz/regression/) and the hostile-file tests.
//
// The input becomes a file that is read into a map which already holds a
// prepared matrix (the example map), so that both a first load and
// a reload over an older map are exercised. Whatever the bytes, afterwards:
//  - no index_ entry names a cell beyond cells_;
//  - a successful load left a ready matrix: loadable geometry, an index of
//    grid_size_ entries, body_size_ / 22 cells, prepared, and a file length
//    of exactly 61 + 22 per cell;
//  - a failed load left the matrix unprepared, or the object as it was;
//  - a map that loaded and can be saved loads again to the same geometry
//    and index.
// Memory errors are left to the sanitizers the driver is built with.
#ifndef ZORVANE_TESTS_SUPPORT_MAP_FILE_CHECKS_H_
#define ZORVANE_TESTS_SUPPORT_MAP_FILE_CHECKS_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "localization/grid_map_lossy.h"

namespace zorvane {
namespace testing {

// An anonymous in-memory file with a path the map can open. Falls back to a
// temporary file where memfd_create is unavailable. Move-less.
class ScratchFile {
 public:
  ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  ~ScratchFile();

  bool ok() const { return fd_ >= 0; }
  const std::string& path() const { return path_; }

  // Replaces the contents with `size` bytes at `data`.
  bool assign(const std::uint8_t* data, std::size_t size);

 private:
  int fd_ = -1;
  std::string path_;
  std::string unlink_path_;
};

// The example map (map_bytes.h), loaded and prepared without a file.
void loadExample(localization::GridMapLossy* map);
// True when `map` holds exactly what loadExample gives.
bool sameAsExample(const localization::GridMapLossy& map);

// True when every index_ entry is -1 or a cell number below cells_.size().
bool indexNamesOnlyCells(const localization::GridMatrix& m);
// True as well when index_ has exactly grid_size_ entries: the state every
// load leaves, refused or not.
bool indexCoversGrid(const localization::GridMatrix& m);

// Runs the checks above on one input. Returns "" when all hold, otherwise
// what failed. Prints what the map operations print.
std::string checkMapFileInput(const std::uint8_t* data, std::size_t size);

}  // namespace testing
}  // namespace zorvane

#endif  // ZORVANE_TESTS_SUPPORT_MAP_FILE_CHECKS_H_
