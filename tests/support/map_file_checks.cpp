#include "tests/support/map_file_checks.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "localization/lossy_body.h"
#include "localization/lossy_format.h"
#include "tests/support/map_bytes.h"

namespace zorvane {
namespace testing {

ScratchFile::ScratchFile() {
  fd_ = memfd_create("zvmap", 0);
  if (fd_ >= 0) {
    path_ = "/proc/self/fd/" + std::to_string(fd_);
    return;
  }
  char name[] = "/tmp/zvmap_fuzz_XXXXXX";
  fd_ = mkstemp(name);
  if (fd_ >= 0) unlink_path_ = path_ = name;
}

ScratchFile::~ScratchFile() {
  if (fd_ >= 0) close(fd_);
  if (!unlink_path_.empty()) unlink(unlink_path_.c_str());
}

bool ScratchFile::assign(const std::uint8_t* data, std::size_t size) {
  if (ftruncate(fd_, 0) != 0 || lseek(fd_, 0, SEEK_SET) != 0) return false;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd_, data + done, size - done);
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

void loadExample(localization::GridMapLossy* map) {
  Bytes buf = exampleFileBytes();
  map->loadHeaderBinary(buf.data());
  map->loadBodyBinary(buf.data() + localization::lossy::kHeaderBytes);
  map->mutable_matrix().runPreCalc();
}

bool sameAsExample(const localization::GridMapLossy& map) {
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

bool indexNamesOnlyCells(const localization::GridMatrix& m) {
  for (const std::int32_t entry : m.index_) {
    if (entry < -1 || (entry >= 0 && static_cast<std::size_t>(entry) >= m.cells_.size())) return false;
  }
  return true;
}

bool indexCoversGrid(const localization::GridMatrix& m) {
  return m.index_.size() == m.grid_size_ && indexNamesOnlyCells(m);
}

std::string checkMapFileInput(const std::uint8_t* data, std::size_t size) {
  using localization::GridMapLossy;
  using localization::GridMatrix;
  ScratchFile file;
  if (!file.ok() || !file.assign(data, size)) return "cannot create a scratch file";

  GridMapLossy map;
  loadExample(&map);
  const bool loaded = map.ReadFromFile(file.path());
  const GridMatrix& m = map.matrix();
  if (!indexCoversGrid(m)) return "the index does not cover the grid with cell numbers";
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

}  // namespace testing
}  // namespace zorvane
