// libFuzzer target: arbitrary bytes as a small matrix (geometry, offsets,
// raw cell floats, index entries valid or not), a factor and two steps, fed
// to GridMatrix::getLookUpTable. Whatever the input, the table must be
// consistent (records = grid_size_, offsets chained by the counts, the
// sequences exactly as long as the counts add up to, value bins inside
// 0..255); where the plain reference builder is cheap enough to run, the
// two must agree bit for bit (NaN bins only as NaN). Build it from the
// library sources plus tools/reference/plain_look_up_table.cpp with
// -fsanitize=fuzzer,address,undefined and run, for instance:
//   look_up_table_fuzz -max_len=2048 CORPUS_DIR
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "localization/look_up_table.h"
#include "tools/reference/plain_look_up_table.h"

namespace {

using zorvane::localization::GridMatrix;
using zorvane::localization::GridMatrixTable;
using zorvane::localization::MCell;

class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  // The next sizeof(T) bytes (zeros once the input is used up).
  template <class T>
  T take() {
    unsigned char raw[sizeof(T)] = {};
    const std::size_t n = size_ - pos_ < sizeof(T) ? size_ - pos_ : sizeof(T);
    std::memcpy(raw, data_ + pos_, n);
    pos_ += n;
    T v;
    std::memcpy(&v, raw, sizeof(T));
    return v;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "look-up table check failed: %s\n", what);
  std::abort();
}

void checkConsistent(const GridMatrixTable& t) {
  if (t.coarse_cells_.size() != t.grid_size_) fail("records != grid_size_");
  std::uint64_t value = 0, height = 0;
  for (const auto& r : t.coarse_cells_) {
    if (r.value_offset != static_cast<std::uint32_t>(value)) fail("value offset");
    if (r.height_offset != static_cast<std::uint32_t>(height)) fail("height offset");
    if (r.value_bins > 256) fail("more than 256 value bins");
    if (r.value_bins > 0 && (r.value_first < 0 || r.value_first + r.value_bins > 256)) fail("value bins outside 0..255");
    value += r.value_bins;
    height += r.height_bins;
  }
  if (value != t.value_table_.size() || height != t.height_table_.size()) fail("sequence sizes");
}

bool sameBits(float a, float b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  std::uint32_t x = 0, y = 0;
  std::memcpy(&x, &a, sizeof x);
  std::memcpy(&y, &b, sizeof y);
  return x == y;
}

void checkSame(const GridMatrixTable& a, const GridMatrixTable& b) {
  if (!sameBits(a.resolution_, b.resolution_) || a.grid_size_ != b.grid_size_ || a.cols_ != b.cols_ ||
      a.rows_ != b.rows_ || a.offset_x_ != b.offset_x_ || a.offset_y_ != b.offset_y_)
    fail("geometry differs from the plain builder");
  // memcmp must not see the null data() of an empty vector, even for 0 bytes.
  if (a.coarse_cells_.size() != b.coarse_cells_.size() ||
      (!a.coarse_cells_.empty() &&
       std::memcmp(a.coarse_cells_.data(), b.coarse_cells_.data(), a.coarse_cells_.size() * 16) != 0))
    fail("records differ from the plain builder");
  if (a.value_table_.size() != b.value_table_.size() || a.height_table_.size() != b.height_table_.size())
    fail("sequence sizes differ from the plain builder");
  for (std::size_t k = 0; k < a.value_table_.size(); ++k)
    if (!sameBits(a.value_table_[k], b.value_table_[k])) fail("value bin differs from the plain builder");
  for (std::size_t k = 0; k < a.height_table_.size(); ++k)
    if (!sameBits(a.height_table_[k], b.height_table_[k])) fail("height bin differs from the plain builder");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  const auto shape = in.take<std::uint8_t>();
  int cols = in.take<std::uint8_t>() % 24;
  int rows = in.take<std::uint8_t>() % 24;
  if (shape & 1) cols = -cols;
  if (shape & 2) rows = -rows;
  const int offset_x = (shape & 4) ? in.take<std::int32_t>() : in.take<std::int8_t>();
  const int offset_y = (shape & 8) ? in.take<std::int32_t>() : in.take<std::int8_t>();
  const int factor = (shape & 16) ? in.take<std::int32_t>() : in.take<std::uint8_t>() % 10;
  const float steps[] = {0.15f, 1.0f, 0.37f, 2.5f};
  const float height_step = (shape & 32) ? in.take<float>() : steps[in.take<std::uint8_t>() % 4];
  const float value_step = (shape & 64) ? in.take<float>() : steps[in.take<std::uint8_t>() % 4];

  GridMatrix m;
  m.manualInit(0.15f, cols, rows, offset_x, offset_y);
  const std::size_t cells = in.take<std::uint8_t>() % 24;
  for (std::size_t c = 0; c < cells; ++c) {
    MCell cell;
    float* fields[] = {&cell.value_sigma[0],  &cell.value_sigma[1],  &cell.value_mean[0],   &cell.value_mean[1],
                       &cell.value_weight[0], &cell.value_weight[1], &cell.height_sigma[0], &cell.height_sigma[1],
                       &cell.height_mean[0],  &cell.height_mean[1],  &cell.height_weight[0], &cell.height_weight[1]};
    for (float* f : fields) {
      // Mostly small whole numbers, sometimes any bit pattern.
      const auto pick = in.take<std::uint8_t>();
      *f = pick < 200 ? static_cast<float>(pick % 100) * 0.5f : in.take<float>();
    }
    m.cells_.push_back(cell);
  }
  // An index of any length up to the grid, entries from -3 to cells + 2.
  const std::size_t positions = (shape & 128) ? in.take<std::uint16_t>() % 600 : m.grid_size_ % 600;
  for (std::size_t p = 0; p < positions; ++p)
    m.index_.push_back(static_cast<std::int32_t>(in.take<std::uint8_t>() % (cells + 6)) - 3);
  m.precalculated_ = true;

  const GridMatrixTable table = m.getLookUpTable(factor, height_step, value_step);
  checkConsistent(table);

  // The plain builder walks factor x factor positions per block and every
  // bin of every histogram for every cell: only small cases.
  const bool small = factor >= -8 && factor <= 8 &&
                     table.value_table_.size() + table.height_table_.size() <= 20000;
  if (small) checkSame(table, zorvane::reference::plainLookUpTable(m, factor, height_step, value_step));
  return 0;
}
