// Writes the map bundled with the host example: a synthetic street scene of
// 500 x 500 positions (75 m x 75 m at 0.15 m) in the lossy map format. The
// same build always writes the same bytes.
//
//   zv_write_bundled_map <output path>
#include <filesystem>
#include <iostream>
#include <utility>

#include "localization/grid_map_lossy.h"
#include "tools/reference/synthetic_map.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: zv_write_bundled_map <output path>" << std::endl;
    return 2;
  }
  constexpr int kCols = 500;
  constexpr int kRows = 500;
  constexpr std::uint64_t kSeed = 20;

  zorvane::reference::SyntheticMap scene = zorvane::reference::makeSyntheticMap(kCols, kRows, kSeed);
  zorvane::localization::GridMapLossy map;
  map.mutable_matrix() = std::move(scene.matrix);
  map.height_base_ = scene.height_base;
  map.aux_value_base_ = scene.aux_value_base;
  // No geo-reference: the scene lives in its own frame.
  map.reference_[0] = map.reference_[1] = map.reference_[2] = 0.0;

  const std::filesystem::path out = argv[1];
  std::error_code error;
  if (out.has_parent_path()) std::filesystem::create_directories(out.parent_path(), error);
  if (!map.saveToFile(out.string())) {
    std::cerr << "zv_write_bundled_map: could not write " << out.string() << std::endl;
    return 1;
  }
  return 0;
}
