#include "tests/support/map_bytes.h"

#include <cstring>
#include <string>

#include "localization/little_endian.h"
#include "localization/lossy_format.h"

namespace zorvane {
namespace testing {

using namespace localization;

MCell exampleCell() {
  MCell c;
  const float fields[][2] = {{1.5f, 2.0f}, {20.f, 100.6f}, {3.f, 1.f}, {0.05f, 0.123f}, {-2.0f, 0.5f}, {1.f, 1.f}};
  std::memcpy(static_cast<void*>(&c), fields, sizeof fields);  // value_sigma .. height_weight, in order
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

HeaderFields::HeaderFields() {
  tag = 7;
  height_base = -4.0f;
  aux_value_base = 0.0f;
  reference[0] = 1.0, reference[1] = 2.0, reference[2] = 3.0;
  rows = 2, cols = 3;
}

Bytes headerBytes(const HeaderFields& h) {
  // Written field by field at literal offsets, independently of the
  // library's header encoder, so that tests of the encoder compare against
  // a second statement of the layout.
  using namespace internal;
  Bytes b(61, 0);
  std::memcpy(b.data(), "zvmap", 5);
  encodeFixed32(&b[5], h.tag);
  encodeFloat32(&b[9], h.height_base);
  encodeFloat32(&b[13], h.aux_value_base);
  for (int k = 0; k < 3; ++k) encodeFloat64(&b[17 + 8 * k], h.reference[k]);
  encodeFixed32(&b[41], h.body_bytes);
  const std::int32_t geometry[4] = {h.rows, h.cols, h.offset_y, h.offset_x};
  for (int k = 0; k < 4; ++k) encodeInt32(&b[45 + 4 * k], geometry[k]);
  return b;
}

void appendRecord(Bytes* file, std::uint32_t position, unsigned char fill) {
  const std::size_t at = file->size();
  file->resize(at + lossy::kRecordBytes, static_cast<char>(fill));
  internal::encodeFixed32(&(*file)[at], position);
}

}  // namespace testing
}  // namespace zorvane
