// libFuzzer target: arbitrary bytes through the six codec operations of
// GridMapLossy, called as a careless caller would call them: every result is
// ignored and the caller goes on after a refusal. The caller keeps only the
// promises the codec's contract asks of it: 61 bytes for a header operation
// and, for a body operation, the body size the map declares
// (body_size_ / 22 whole records to read, getBodyBinarySize() to write).
// Each buffer is a heap allocation of exactly that size, so that the
// sanitizers see a single byte read or written past it.
//
// The input is the file: its first 61 bytes are the header, the rest the
// body. It is loaded twice into the same map (the second load over the
// first, as a second start-up does), then written and read back. Whatever
// the bytes:
//  - no index_ entry names a cell beyond cells_;
//  - getBodyBinarySize() is 22 per cell;
//  - addHeaderBinary writes 61 bytes that load back to the same header
//    values, bit for bit, and the body size the map declares;
//  - addBodyBinary writes exactly the declared body or refuses (-1); a body
//    it writes loads back to the same geometry and occupied positions.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tests/support/map_file_checks.h"
#include "localization/grid_map_lossy.h"

namespace {

using zorvane::localization::GridMapLossy;
using zorvane::localization::GridMatrix;

constexpr std::size_t kHeader = 61;
constexpr std::size_t kRecord = 22;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "codec check failed: %s\n", what);
  std::abort();
}

// Exactly `n` bytes on the heap, a copy of `data` (n may be 0).
std::unique_ptr<char[]> exactCopy(const void* data, std::size_t n) {
  std::unique_ptr<char[]> p(new char[n]);
  if (n > 0) std::memcpy(p.get(), data, n);
  return p;
}

// Loads the file without checking a single result.
void carelessLoad(GridMapLossy& map, const std::uint8_t* data, std::size_t size) {
  if (size >= kHeader) {
    const auto header = exactCopy(data, kHeader);
    map.loadHeaderBinary(header.get());
  }
  const std::size_t body_at = size >= kHeader ? kHeader : size;
  const std::size_t body = static_cast<std::size_t>(map.body_size_ / kRecord) * kRecord;
  if (body <= size - body_at) {
    const auto bytes = exactCopy(data + body_at, body);
    map.loadBodyBinary(bytes.get());
  }
}

bool sameBits(const void* a, const void* b, std::size_t n) { return std::memcmp(a, b, n) == 0; }

void checkHeaderReloads(GridMapLossy& map, const char* header) {
  GridMapLossy again;
  const auto copy = exactCopy(header, kHeader);
  if (again.loadHeaderBinary(copy.get()) != static_cast<int>(kHeader)) fail("a written header did not load");
  const GridMatrix& m = map.matrix();
  const GridMatrix& n = again.matrix();
  if (again.header_tag_ != map.header_tag_ || !sameBits(&again.height_base_, &map.height_base_, 4) ||
      !sameBits(&again.aux_value_base_, &map.aux_value_base_, 4) ||
      !sameBits(again.reference_, map.reference_, sizeof map.reference_)) {
    fail("header values changed on a write and read");
  }
  if (n.rows_ != m.rows_ || n.cols_ != m.cols_ || n.offset_x_ != m.offset_x_ || n.offset_y_ != m.offset_y_) {
    fail("geometry changed on a write and read");
  }
  if (again.body_size_ != static_cast<std::uint32_t>(map.getBodyBinarySize())) fail("header declares another body");
}

void checkBodyReloads(GridMapLossy& map, const char* header, const char* body, std::size_t body_bytes) {
  GridMapLossy again;
  const auto h = exactCopy(header, kHeader);
  again.loadHeaderBinary(h.get());
  const auto b = exactCopy(body, body_bytes);
  if (again.loadBodyBinary(b.get()) != static_cast<int>(body_bytes)) fail("a written body did not load whole");
  const GridMatrix& m = map.matrix();
  const GridMatrix& n = again.matrix();
  if (n.index_.size() != m.index_.size() || n.cells_.size() != m.cells_.size()) fail("a written body loaded another shape");
  for (std::size_t p = 0; p < m.index_.size(); ++p) {
    if ((n.index_[p] >= 0) != (m.index_[p] >= 0)) fail("a written body loaded other positions");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  GridMapLossy map;
  carelessLoad(map, data, size);
  carelessLoad(map, data, size);
  const GridMatrix& m = map.matrix();
  if (!zorvane::testing::indexNamesOnlyCells(m)) fail("an index entry names no cell");
  if (map.getBodyBinarySize() != static_cast<int>(kRecord * m.cells_.size())) fail("body size is not 22 per cell");

  const std::size_t header_bytes = static_cast<std::size_t>(map.getHeaderBinarySize() + 16);
  if (header_bytes != kHeader) fail("header size is not 61");
  const auto header = std::unique_ptr<char[]>(new char[header_bytes]);
  if (map.addHeaderBinary(header.get()) != static_cast<int>(kHeader)) fail("addHeaderBinary did not return 61");
  checkHeaderReloads(map, header.get());

  const std::size_t body_bytes = static_cast<std::size_t>(map.getBodyBinarySize());
  const auto body = std::unique_ptr<char[]>(new char[body_bytes]);
  const int b = map.addBodyBinary(body.get());
  if (b != -1 && b != static_cast<int>(body_bytes)) fail("addBodyBinary returned neither -1 nor the body size");
  if (b > 0) checkBodyReloads(map, header.get(), body.get(), body_bytes);
  return 0;
}
