// Bytes of zvmap files for tests, benchmarks and fuzz targets: the example
// map and its 83-byte file, hand-built headers and records.
#ifndef ZORVANE_TESTS_SUPPORT_MAP_BYTES_H_
#define ZORVANE_TESTS_SUPPORT_MAP_BYTES_H_

#include <cstdint>
#include <cstring>
#include <vector>

#include "localization/grid_map_lossy.h"
#include "localization/lossy_format.h"

namespace zorvane {
namespace testing {

using Bytes = std::vector<char>;

inline std::uint32_t bits(float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

// The example map: tag 1, height origin -2.5, aux origin 0, references 100,
// 200, 0, a 3 x 2 grid (offsets x -1, y 4) with exampleCell() at flat
// position 4; and its 83-byte file.
localization::MCell exampleCell();
void fillExampleMap(localization::GridMapLossy* map);
Bytes exampleFileBytes();

// The header fields with the tests' defaults: tag 7, height origin -4,
// aux origin 0, references 1, 2, 3, no body, a 3 x 2 grid at offset 0.
struct HeaderFields : localization::lossy::Header {
  HeaderFields();
};
Bytes headerBytes(const HeaderFields& h);  // the 61 header bytes
// Appends a 22-byte record for `position`, every other byte `fill`.
void appendRecord(Bytes* file, std::uint32_t position, unsigned char fill = 0x11);

}  // namespace testing
}  // namespace zorvane

#endif  // ZORVANE_TESTS_SUPPORT_MAP_BYTES_H_
