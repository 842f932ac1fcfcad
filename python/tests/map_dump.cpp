// Reads a map file with the C++ library alone and writes what it holds, for
// the Python tests to compare with the module byte for byte:
//
//   zv_python_map_dump <map file> <level> <height step> <value step> <out dir>
//
// writes into <out dir> (which must exist):
//   cells.bin, index.bin        the loaded (prepared) cells and index, raw
//   geometry.txt                the table's resolution bits, grid size, cols,
//                               rows, offset_x, offset_y, height and value
//                               step bits, one per line
//   value_table.bin, height_table.bin, coarse_cells.bin
//                               the table of <level>, raw
//   resaved.zvmap               the loaded map saved again
// Exit status 0 on success, 1 when the map cannot be read or written.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "localization/grid_map_lossy.h"

namespace {

using namespace zorvane::localization;

template <typename Vector>
void writeRaw(const std::string& path, const Vector& v) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(v.data()),
             static_cast<std::streamsize>(v.size() * sizeof(v[0])));
}

std::uint32_t bits(float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::cerr << "usage: zv_python_map_dump <map> <level> <height step> <value step> <out dir>\n";
    return 2;
  }
  const std::string out = std::string(argv[5]) + "/";
  GridMapLossy map;
  if (!map.ReadFromFile(argv[1])) return 1;
  const GridMatrix& m = map.matrix();
  writeRaw(out + "cells.bin", m.cells_);
  writeRaw(out + "index.bin", m.index_);

  const GridMatrixTable t =
      m.getLookUpTable(std::atoi(argv[2]), std::strtof(argv[3], nullptr), std::strtof(argv[4], nullptr));
  std::ofstream(out + "geometry.txt")
      << bits(t.resolution_) << "\n" << t.grid_size_ << "\n" << t.cols_ << "\n" << t.rows_ << "\n"
      << t.offset_x_ << "\n" << t.offset_y_ << "\n" << bits(t.height_step_) << "\n"
      << bits(t.value_step_) << "\n";
  writeRaw(out + "value_table.bin", t.value_table_);
  writeRaw(out + "height_table.bin", t.height_table_);
  writeRaw(out + "coarse_cells.bin", t.coarse_cells_);
  return map.saveToFile(out + "resaved.zvmap") ? 0 : 1;
}
