#include "tests/support/map_files.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <tuple>
#include <iterator>


namespace zorvane {
namespace testing {

using namespace localization;

std::string tempMapPath(const std::string& name) {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string test = info ? std::string(info->test_suite_name()) + "." + info->name() : "none";
  for (char& c : test) c = c == '/' ? '_' : c;
  return ::testing::TempDir() + "zv_" + std::to_string(getpid()) + "_" + test + "_" + name;
}

std::string freshTempPath(const std::string& name) {
  const std::string path = tempMapPath(name);
  ::unlink(path.c_str());
  ::rmdir(path.c_str());
  return path;
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

namespace {

bool underAddressSanitizer() {
#if defined(__SANITIZE_ADDRESS__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

// Current size of the address space, from /proc/self/statm (pages).
std::size_t addressSpaceBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t pages = 0;
  statm >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

AddressSpaceCap::AddressSpaceCap(std::size_t bytes) {
  if (underAddressSanitizer()) return;
  rlimit limit{};
  if (getrlimit(RLIMIT_AS, &limit) != 0) return;
  previous_soft_ = limit.rlim_cur;
  const rlim_t cap = addressSpaceBytes() + bytes;
  if (limit.rlim_max != RLIM_INFINITY && cap > limit.rlim_max) return;
  limit.rlim_cur = cap;
  active_ = setrlimit(RLIMIT_AS, &limit) == 0;
}

AddressSpaceCap::~AddressSpaceCap() {
  if (!active_) return;
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = previous_soft_;
  setrlimit(RLIMIT_AS, &limit);
}

std::string redLine(const std::string& text) { return "\033[31m" + text + "\033[0m\n"; }

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

::testing::AssertionResult sameTable(const GridMatrixTable& a, const GridMatrixTable& b) {
  const auto fields = [](const GridMatrixTable& t) {
    return std::make_tuple(bits(t.resolution_), t.grid_size_, t.cols_, t.rows_, t.offset_x_, t.offset_y_,
                           bits(t.height_step_), bits(t.value_step_), bits(t.prob_scale_), bits(t.prob_floor_),
                           t.coarse_cells_.size(), t.value_table_.size(), t.height_table_.size());
  };
  if (fields(a) != fields(b)) return ::testing::AssertionFailure() << "geometry, steps or sizes";
  if (!a.coarse_cells_.empty() &&
      std::memcmp(a.coarse_cells_.data(), b.coarse_cells_.data(), a.coarse_cells_.size() * sizeof(MCellCoarse)) != 0)
    return ::testing::AssertionFailure() << "records";
  const auto same = [](float x, float y) { return (std::isnan(x) && std::isnan(y)) || bits(x) == bits(y); };
  for (std::size_t k = 0; k < a.value_table_.size(); ++k) {
    if (!same(a.value_table_[k], b.value_table_[k])) return ::testing::AssertionFailure() << "value bin " << k;
  }
  for (std::size_t k = 0; k < a.height_table_.size(); ++k) {
    if (!same(a.height_table_[k], b.height_table_[k])) return ::testing::AssertionFailure() << "height bin " << k;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace testing
}  // namespace zorvane
