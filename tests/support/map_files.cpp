#include "tests/support/map_files.h"

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "localization/little_endian.h"

namespace zorvane {
namespace testing {

using localization::GridMapLossy;
using localization::GridMatrix;
using localization::MCell;

std::string tempMapPath(const std::string& name) {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string test = info != nullptr ? std::string(info->test_suite_name()) + "." + info->name() : "none";
  for (char& c : test) {
    if (c == '/') c = '_';
  }
  return ::testing::TempDir() + "zv_" + std::to_string(getpid()) + "_" + test + "_" + name;
}

void writeFileBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

Bytes readFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

Bytes hexBytes(const std::string& hex) {
  Bytes out;
  std::string pair;
  for (char c : hex) {
    if (c == ' ' || c == '\n') continue;
    pair += c;
    if (pair.size() == 2) {
      out.push_back(static_cast<char>(std::stoi(pair, nullptr, 16)));
      pair.clear();
    }
  }
  return out;
}

std::string redLine(const std::string& text) { return "\033[31m" + text + "\033[0m\n"; }

void fillExampleMap(GridMapLossy* map) {
  map->header_tag_ = 1;
  map->height_base_ = -2.5f;
  map->aux_value_base_ = 0.0f;
  map->reference_[0] = 100.0;
  map->reference_[1] = 200.0;
  map->reference_[2] = 0.0;
  GridMatrix& m = map->mutable_matrix();
  m.manualInit(0.15f, 3, 2, -1, 4);
  MCell c;
  c.value_sigma[0] = 1.5f;
  c.value_sigma[1] = 2.0f;
  c.value_mean[0] = 20.f;
  c.value_mean[1] = 100.6f;
  c.value_weight[0] = 3.f;
  c.value_weight[1] = 1.f;
  c.height_sigma[0] = 0.05f;
  c.height_sigma[1] = 0.123f;
  c.height_mean[0] = -2.0f;
  c.height_mean[1] = 0.5f;
  c.height_weight[0] = 1.f;
  c.height_weight[1] = 1.f;
  c.aux_value = 1.25f;
  m.cells_.assign(1, c);
  m.index_.assign(6, -1);
  m.index_[4] = 0;
}

Bytes exampleFileBytes() {
  return hexBytes(
      "7a 76 6d 61 70  01 00 00 00  00 00 20 c0  00 00 00 00"
      "00 00 00 00 00 00 59 40  00 00 00 00 00 00 69 40  00 00 00 00 00 00 00 00"
      "16 00 00 00  02 00 00 00  03 00 00 00  04 00 00 00  ff ff ff ff"
      "04 00 00 00  7d 00  14 65  96 00 c8 00  bf  32 00 2c 01  05 00 0c 00  80");
}

Bytes headerBytes(const HeaderFields& h) {
  using namespace localization::internal;
  Bytes b(localization::lossy::kHeaderBytes, 0);
  std::memcpy(b.data(), "zvmap", 5);
  encodeFixed32(&b[5], h.tag);
  encodeFloat32(&b[9], h.height_base);
  encodeFloat32(&b[13], h.aux_value_base);
  for (int k = 0; k < 3; ++k) encodeFloat64(&b[17 + 8 * k], h.reference[k]);
  encodeFixed32(&b[41], h.body_size);
  encodeInt32(&b[45], h.rows);
  encodeInt32(&b[49], h.cols);
  encodeInt32(&b[53], h.offset_y);
  encodeInt32(&b[57], h.offset_x);
  return b;
}

void appendRecord(Bytes* file, std::uint32_t position, unsigned char fill) {
  const std::size_t at = file->size();
  file->resize(at + localization::lossy::kRecordBytes, static_cast<char>(fill));
  localization::internal::encodeFixed32(&(*file)[at], position);
}

bool readCapturing(GridMapLossy& map, const std::string& path, std::string* out) {
  ::testing::internal::CaptureStdout();
  const bool ok = map.ReadFromFile(path);
  *out = ::testing::internal::GetCapturedStdout();
  return ok;
}

bool saveCapturing(GridMapLossy& map, const std::string& path, std::string* out) {
  ::testing::internal::CaptureStdout();
  const bool ok = map.saveToFile(path);
  *out = ::testing::internal::GetCapturedStdout();
  return ok;
}

::testing::AssertionResult sameMatrix(const GridMatrix& a, const GridMatrix& b) {
  std::uint32_t ra, rb;
  std::memcpy(&ra, &a.resolution_, 4);
  std::memcpy(&rb, &b.resolution_, 4);
  if (ra != rb || a.grid_size_ != b.grid_size_ || a.cols_ != b.cols_ || a.rows_ != b.rows_ ||
      a.offset_x_ != b.offset_x_ || a.offset_y_ != b.offset_y_) {
    return ::testing::AssertionFailure() << "geometry differs";
  }
  if (a.precalculated_ != b.precalculated_) return ::testing::AssertionFailure() << "flag differs";
  if (a.index_.size() != b.index_.size() ||
      !std::equal(a.index_.begin(), a.index_.end(), b.index_.begin())) {
    return ::testing::AssertionFailure() << "index differs";
  }
  if (a.cells_.size() != b.cells_.size()) {
    return ::testing::AssertionFailure()
           << "cell count " << a.cells_.size() << " vs " << b.cells_.size();
  }
  for (std::size_t i = 0; i < a.cells_.size(); ++i) {
    // The thirteen floats; the padding is not part of a cell's value.
    if (std::memcmp(&a.cells_[i], &b.cells_[i], offsetof(MCell, unused_)) != 0) {
      return ::testing::AssertionFailure() << "cell " << i << " differs";
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace testing
}  // namespace zorvane
