#include "tests/support/map_files.h"

#include <unistd.h>

#include <fstream>
#include <iterator>

#include "localization/little_endian.h"

namespace zorvane {
namespace testing {

using namespace localization;

std::string tempMapPath(const std::string& name) {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string test = info ? std::string(info->test_suite_name()) + "." + info->name() : "none";
  for (char& c : test) c = c == '/' ? '_' : c;
  return ::testing::TempDir() + "zv_" + std::to_string(getpid()) + "_" + test + "_" + name;
}

void writeFileBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

Bytes readFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string redLine(const std::string& text) { return "\033[31m" + text + "\033[0m\n"; }

MCell exampleCell() {
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
  return c;
}

void fillExampleMap(GridMapLossy* map) {
  map->header_tag_ = 1;
  map->height_base_ = -2.5f;
  map->aux_value_base_ = 0.0f;
  map->reference_[0] = 100.0;
  map->reference_[1] = 200.0;
  map->reference_[2] = 0.0;
  GridMatrix& m = map->mutable_matrix();
  m.manualInit(0.15f, 3, 2, -1, 4);
  m.cells_.assign(1, exampleCell());
  m.index_.assign({-1, -1, -1, -1, 0, -1});
}

Bytes exampleFileBytes() {
  const char* hex =
      "7a766d6170 01000000 000020c0 00000000"
      "0000000000005940 0000000000006940 0000000000000000"
      "16000000 02000000 03000000 04000000 ffffffff"
      "04000000 7d00 1465 9600c800 bf 32002c01 05000c00 80";
  Bytes out;
  for (const char* p = hex; *p;) {
    if (*p == ' ') { ++p; continue; }
    out.push_back(static_cast<char>(std::stoi(std::string(p, 2), nullptr, 16)));
    p += 2;
  }
  return out;
}

Bytes headerBytes(const HeaderFields& h) {
  using namespace internal;
  Bytes b(lossy::kHeaderBytes, 0);
  std::memcpy(b.data(), "zvmap", 5);
  encodeFixed32(&b[5], h.tag);
  encodeFloat32(&b[9], h.height_base);
  encodeFloat32(&b[13], h.aux_value_base);
  for (int k = 0; k < 3; ++k) encodeFloat64(&b[17 + 8 * k], h.reference[k]);
  encodeFixed32(&b[41], h.body_size);
  const std::int32_t geometry[4] = {h.rows, h.cols, h.offset_y, h.offset_x};
  for (int k = 0; k < 4; ++k) encodeInt32(&b[45 + 4 * k], geometry[k]);
  return b;
}

void appendRecord(Bytes* file, std::uint32_t position, unsigned char fill) {
  const std::size_t at = file->size();
  file->resize(at + lossy::kRecordBytes, static_cast<char>(fill));
  internal::encodeFixed32(&(*file)[at], position);
}

::testing::AssertionResult sameMatrix(const GridMatrix& a, const GridMatrix& b) {
  if (bits(a.resolution_) != bits(b.resolution_) || a.grid_size_ != b.grid_size_ ||
      a.cols_ != b.cols_ || a.rows_ != b.rows_ || a.offset_x_ != b.offset_x_ ||
      a.offset_y_ != b.offset_y_ || a.precalculated_ != b.precalculated_) {
    return ::testing::AssertionFailure() << "geometry or flag differs";
  }
  if (!std::equal(a.index_.begin(), a.index_.end(), b.index_.begin(), b.index_.end())) {
    return ::testing::AssertionFailure() << "index differs";
  }
  if (a.cells_.size() != b.cells_.size()) return ::testing::AssertionFailure() << "cell count";
  for (std::size_t i = 0; i < a.cells_.size(); ++i) {
    if (std::memcmp(&a.cells_[i], &b.cells_[i], offsetof(MCell, unused_)) != 0) {
      return ::testing::AssertionFailure() << "cell " << i << " differs";
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace testing
}  // namespace zorvane
