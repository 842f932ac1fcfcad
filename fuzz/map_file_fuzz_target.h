// The checks one arbitrary file runs through, shared by the libFuzzer
// target (map_file_fuzz.cpp), the corpus replay driver
// (map_file_replay.cpp) and the hostile-file tests.
//
// The input becomes a file that is read into a map which already holds a
// prepared matrix (the documented example), so that both a first load and
// a reload over an older map are exercised. Whatever the bytes, afterwards:
//  - no index_ entry names a cell beyond cells_;
//  - a successful load left a ready matrix: loadable geometry, an index of
//    grid_size_ entries, body_size_ / 22 cells, prepared, and a file length
//    of exactly 61 + 22 per cell;
//  - a failed load left the matrix unprepared, or the object as it was;
//  - a map that loaded and can be saved loads again to the same geometry
//    and index.
// Memory errors are left to the sanitizers the driver is built with.
#ifndef ZORVANE_FUZZ_MAP_FILE_FUZZ_TARGET_H_
#define ZORVANE_FUZZ_MAP_FILE_FUZZ_TARGET_H_

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "localization/grid_map_lossy.h"

namespace zorvane {
namespace fuzz {

// An anonymous in-memory file with a path the map can open. Falls back to a
// temporary file where memfd_create is unavailable.
class ScratchFile {
 public:
  ScratchFile() {
    fd_ = memfd_create("zvmap", 0);
    if (fd_ >= 0) {
      path_ = "/proc/self/fd/" + std::to_string(fd_);
      return;
    }
    char name[] = "/tmp/zvmap_fuzz_XXXXXX";
    fd_ = mkstemp(name);
    if (fd_ >= 0) unlink_path_ = path_ = name;
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  ~ScratchFile() {
    if (fd_ >= 0) close(fd_);
    if (!unlink_path_.empty()) unlink(unlink_path_.c_str());
  }

  bool ok() const { return fd_ >= 0; }
  const std::string& path() const { return path_; }

  // Replaces the contents with `size` bytes at `data`.
  bool assign(const std::uint8_t* data, std::size_t size) {
    if (ftruncate(fd_, 0) != 0 || lseek(fd_, 0, SEEK_SET) != 0) return false;
    std::size_t done = 0;
    while (done < size) {
      const ssize_t n = write(fd_, data + done, size - done);
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

 private:
  int fd_ = -1;
  std::string path_;
  std::string unlink_path_;
};

// The documented 83-byte example, loaded and prepared without a file.
inline void loadExample(localization::GridMapLossy* map) {
  static const unsigned char kExample[83] = {
      0x7a, 0x76, 0x6d, 0x61, 0x70, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x20, 0xc0, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x59, 0x40, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x69, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x16,
      0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00,
      0x00, 0xff, 0xff, 0xff, 0xff, 0x04, 0x00, 0x00, 0x00, 0x7d, 0x00, 0x14, 0x65, 0x96,
      0x00, 0xc8, 0x00, 0xbf, 0x32, 0x00, 0x2c, 0x01, 0x05, 0x00, 0x0c, 0x00, 0x80};
  std::vector<char> buf(kExample, kExample + sizeof kExample);
  map->loadHeaderBinary(buf.data());
  map->loadBodyBinary(buf.data() + 61);
  map->mutable_matrix().runPreCalc();
}

inline bool indexNamesOnlyCells(const localization::GridMatrix& m) {
  for (const std::int32_t entry : m.index_) {
    if (entry < -1 || (entry >= 0 && static_cast<std::size_t>(entry) >= m.cells_.size())) return false;
  }
  return true;
}

inline bool sameAsExample(const localization::GridMapLossy& map) {
  localization::GridMapLossy example;
  loadExample(&example);
  const localization::GridMatrix& a = map.matrix();
  const localization::GridMatrix& b = example.matrix();
  return map.header_tag_ == example.header_tag_ && map.body_size_ == example.body_size_ &&
         a.grid_size_ == b.grid_size_ && a.cols_ == b.cols_ && a.rows_ == b.rows_ &&
         a.precalculated_ == b.precalculated_ && a.index_ == b.index_ &&
         a.cells_.size() == b.cells_.size() &&
         std::memcmp(a.cells_.data(), b.cells_.data(), sizeof(localization::MCell)) == 0;
}

// Runs the checks above on one input. Returns "" when all hold, otherwise
// what failed. Prints what the map operations print.
inline std::string checkMapFileInput(const std::uint8_t* data, std::size_t size) {
  using localization::GridMapLossy;
  using localization::GridMatrix;
  ScratchFile file;
  if (!file.ok() || !file.assign(data, size)) return "cannot create a scratch file";

  GridMapLossy map;
  loadExample(&map);
  const bool loaded = map.ReadFromFile(file.path());
  const GridMatrix& m = map.matrix();
  if (!indexNamesOnlyCells(m)) return "an index entry names no cell";
  if (!loaded) {
    if (m.precalculated_ && !sameAsExample(map)) return "failed load left a prepared, changed matrix";
    return "";
  }
  if (!m.precalculated_) return "loaded matrix is not prepared";
  if (!localization::lossy::isLoadableGeometry(m.rows_, m.cols_, m.grid_size_, m.cells_.size())) {
    return "loaded geometry out of range";
  }
  if (m.index_.size() != m.grid_size_) return "index size differs from the grid";
  if (m.cells_.size() != map.body_size_ / 22) return "cell count differs from the body";
  if (61 + 22 * m.cells_.size() != size) return "accepted a file of the wrong length";

  ScratchFile copy;
  if (!copy.ok()) return "cannot create a scratch file";
  if (!map.saveToFile(copy.path())) {
    // Only a file that names a position twice leaves a cell without a
    // position, which the writer refuses.
    if (localization::lossy::countBodyRecords(m) >= 0) return "a loaded map could not be saved";
    return "";
  }
  GridMapLossy again;
  if (!again.ReadFromFile(copy.path())) return "a saved map did not load";
  const GridMatrix& n = again.matrix();
  if (n.rows_ != m.rows_ || n.cols_ != m.cols_ || n.offset_x_ != m.offset_x_ ||
      n.offset_y_ != m.offset_y_ || n.index_.size() != m.index_.size() ||
      n.cells_.size() != m.cells_.size()) {
    return "a saved map loaded with another shape";
  }
  // Cells are renumbered in position order, so compare which positions
  // are occupied.
  for (std::size_t p = 0; p < m.index_.size(); ++p) {
    if ((n.index_[p] >= 0) != (m.index_[p] >= 0)) return "a saved map loaded other positions";
  }
  return "";
}

}  // namespace fuzz
}  // namespace zorvane

#endif  // ZORVANE_FUZZ_MAP_FILE_FUZZ_TARGET_H_
