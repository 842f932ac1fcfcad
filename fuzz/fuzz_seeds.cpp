// Writes the seed corpora of the fuzz targets:
//   fuzz_seeds OUTPUT_DIRECTORY
// creates OUTPUT_DIRECTORY/<target>/ for every target and writes a few small
// inputs into it, overwriting seeds of the same name and leaving what the
// fuzzer added. Exits with 1 when a file cannot be written.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/sample_maps.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<char>;

bool ok = true;

void put(const fs::path& dir, const std::string& name, const Bytes& bytes) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  std::ofstream out(dir / name, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) {
    std::fprintf(stderr, "cannot write %s\n", (dir / name).c_str());
    ok = false;
  }
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Map files, valid and broken, for the targets that read them.
void mapFiles(const fs::path& dir) {
  const Bytes valid = zorvane::testing::sampleMapFile(12, 9, 3, 11);
  put(dir, "valid_12x9", valid);
  put(dir, "dense_5x4", zorvane::testing::sampleMapFile(5, 4, 1, 2, -7, -1));
  put(dir, "single_1x1", zorvane::testing::sampleMapFile(1, 1, 1, 3, 0, 0));
  put(dir, "truncated", Bytes(valid.begin(), valid.end() - 5));
  put(dir, "header_only", Bytes(valid.begin(), valid.begin() + 61));
  put(dir, "short_header", Bytes(valid.begin(), valid.begin() + 30));
  Bytes magic = valid;
  magic[0] = 'Z';
  put(dir, "wrong_magic", magic);
  Bytes odd(valid.begin(), valid.begin() + 111);
  odd[41] = 50, odd[42] = odd[43] = odd[44] = 0;
  put(dir, "body_50", odd);
  Bytes twice = valid;  // the second record names the first one's position
  for (int k = 0; k < 4; ++k) twice[61 + 22 + k] = twice[61 + k];
  put(dir, "position_twice", twice);
  Bytes outside = valid;  // the last record names a position beyond the grid
  outside[outside.size() - 22 + 3] = 0x7f;
  put(dir, "position_outside", outside);
}

// Small matrices as the table target decodes them: a shape byte, cols,
// rows, offsets, factor, steps, cells and index entries.
void tableInputs(const fs::path& dir) {
  std::uint32_t state = 7;
  for (int k = 0; k < 6; ++k) {
    Bytes b = {0, static_cast<char>(4 + 3 * k), static_cast<char>(3 + 2 * k), -2, 5, 4, 0, 1,
               static_cast<char>(3 + k)};
    for (int i = 0; i < 40 * (k + 1); ++i) {
      state = state * 1664525u + 1013904223u;
      b.push_back(static_cast<char>(state >> 24));
    }
    put(dir, "matrix_" + std::to_string(k), b);
  }
}

void yamlTexts(const fs::path& dir) {
  const char* const texts[][2] = {
      {"valid", "type: GridMapServer\ngrid_map: @/valid.zvmap\n"},
      {"wide", "type: GridMapServer\ngrid_map: \"@/wide.zvmap\"\nextra: [1, 2]\n"},
      {"truncated", "type: GridMapServer\ngrid_map: @/truncated.zvmap\n"},
      {"short", "{type: GridMapServer, grid_map: @/short.zvmap}"},
      {"magic", "type: GridMapServer\ngrid_map: @/magic.zvmap\n"},
      {"oddbody", "type: GridMapServer\ngrid_map: @/oddbody.zvmap\n"},
      {"empty_file", "type: GridMapServer\ngrid_map: @/empty.zvmap\n"},
      {"directory", "type: GridMapServer\ngrid_map: @/dir\n"},
      {"missing_file", "type: GridMapServer\ngrid_map: @/missing.zvmap\n"},
      {"no_type", "grid_map: @/valid.zvmap\n"},
      {"wrong_type", "type: gridmapserver\ngrid_map: @/valid.zvmap\n"},
      {"no_path", "type: GridMapServer\n"},
      {"null_path", "type: GridMapServer\ngrid_map: ~\n"},
      {"list_path", "type: GridMapServer\ngrid_map: [@/valid.zvmap]\n"},
      {"map_type", "type: {a: 1}\ngrid_map: @/valid.zvmap\n"},
      {"scalar", "GridMapServer"},
      {"sequence", "- type: GridMapServer\n- grid_map: @/valid.zvmap\n"},
      {"broken", "type: [GridMapServer\ngrid_map: @/valid.zvmap\n"},
      {"anchor", "type: &t GridMapServer\ngrid_map: *t\n"},
  };
  for (const auto& t : texts) put(dir, std::string(t[0]) + ".yaml", text(t[1]));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTPUT_DIRECTORY\n", argv[0]);
    return 2;
  }
  const fs::path out = argv[1];
  mapFiles(out / "map_file_fuzz");
  mapFiles(out / "codec_fuzz");
  mapFiles(out / "zvmap_fuzz");
  tableInputs(out / "look_up_table_fuzz");
  yamlTexts(out / "server_init_fuzz");
  return ok ? 0 : 1;
}
