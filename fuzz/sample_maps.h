// Small, deterministic zvmap files for the fuzz targets' seeds and for the
// start-up target's map directory. Encoded through the map's own codec
// operations, without saveToFile's console lines.
#ifndef ZORVANE_FUZZ_SAMPLE_MAPS_H_
#define ZORVANE_FUZZ_SAMPLE_MAPS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "localization/grid_map_lossy.h"

namespace zorvane {
namespace testing {

// The file bytes of `map` as saveToFile would write them; empty when the
// codec refuses the map.
inline std::vector<char> encodeMapFile(localization::GridMapLossy& map) {
  std::vector<char> bytes(static_cast<std::size_t>(map.getHeaderBinarySize() + 16 + map.getBodyBinarySize()));
  const int h = map.addHeaderBinary(bytes.data());
  const int b = map.addBodyBinary(bytes.data() + h);
  if (b < 0 || static_cast<std::size_t>(h + b) != bytes.size()) return {};
  return bytes;
}

// A cols x rows map with a cell at every `every`-th position (every >= 1),
// cell values drawn from `seed`; offsets may be negative.
inline std::vector<char> sampleMapFile(int cols, int rows, int every, std::uint32_t seed,
                                       int offset_x = -3, int offset_y = 2) {
  localization::GridMapLossy map;
  map.header_tag_ = seed;
  map.height_base_ = -5.0f;
  map.aux_value_base_ = 0.0f;
  map.reference_[0] = 1.0;
  map.reference_[1] = 2.0;
  map.reference_[2] = 3.0;
  localization::GridMatrix& m = map.mutable_matrix();
  m.manualInit(0.15f, cols, rows, offset_x, offset_y);
  m.index_.assign(static_cast<std::size_t>(cols) * static_cast<std::size_t>(rows), -1);
  std::uint32_t state = seed * 2654435761u + 1;
  const auto next = [&state](int range) {
    state = state * 1664525u + 1013904223u;
    return static_cast<float>((state >> 8) % static_cast<std::uint32_t>(range));
  };
  for (std::size_t p = 0; p < m.index_.size(); p += static_cast<std::size_t>(every)) {
    localization::MCell c;
    for (int k = 0; k < 2; ++k) {
      c.value_sigma[k] = 0.5f + next(300) * 0.01f;
      c.value_mean[k] = next(256);
      c.value_weight[k] = 1.0f + next(4);
      c.height_sigma[k] = 0.05f + next(20) * 0.01f;
      c.height_mean[k] = next(400) * 0.01f - 2.0f;
      c.height_weight[k] = 1.0f + next(3);
    }
    c.aux_value = next(100) * 0.01f;
    m.index_[p] = static_cast<std::int32_t>(m.cells_.size());
    m.cells_.push_back(c);
  }
  return encodeMapFile(map);
}

}  // namespace testing
}  // namespace zorvane

#endif  // ZORVANE_FUZZ_SAMPLE_MAPS_H_
