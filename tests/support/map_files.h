// Helpers for tests of the zvmap file: files in the test's temporary
// directory, the documented 83-byte example, and hand-built headers and
// records for broken files.
#ifndef ZORVANE_TESTS_SUPPORT_MAP_FILES_H_
#define ZORVANE_TESTS_SUPPORT_MAP_FILES_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "localization/grid_map_lossy.h"

namespace zorvane {
namespace testing {

using Bytes = std::vector<char>;

// A path in the test temporary directory, unique to this process and the
// running test; `name` tells files of one test apart.
std::string tempMapPath(const std::string& name);

void writeFileBytes(const std::string& path, const Bytes& bytes);
// The whole file, or an empty vector when it cannot be read.
Bytes readFileBytes(const std::string& path);
bool fileExists(const std::string& path);

// Bytes from a string of hexadecimal pairs; spaces are ignored.
Bytes hexBytes(const std::string& hex);

// "\033[31m" + text + "\033[0m\n": one red console line.
std::string redLine(const std::string& text);

// The documented example map (tag 1, height origin -2.5, aux origin 0,
// references 100, 200, 0, 3 x 2 grid with offsets x -1 and y 4, one cell at
// flat position 4) and its 83-byte file.
void fillExampleMap(localization::GridMapLossy* map);
Bytes exampleFileBytes();

// Header fields of a hand-built file.
struct HeaderFields {
  std::uint32_t tag = 7;
  float height_base = -4.0f;
  float aux_value_base = 0.0f;
  double reference[3] = {1.0, 2.0, 3.0};
  std::uint32_t body_size = 0;
  std::int32_t rows = 2;
  std::int32_t cols = 3;
  std::int32_t offset_y = 0;
  std::int32_t offset_x = 0;
};

// 61 header bytes for `h`, magic included.
Bytes headerBytes(const HeaderFields& h);

// Appends one 22-byte record for `position`, with every other byte equal to
// `fill` (0x11 gives small, valid numbers).
void appendRecord(Bytes* file, std::uint32_t position, unsigned char fill = 0x11);

// Calls `map.ReadFromFile(path)` with standard output captured into `*out`.
bool readCapturing(localization::GridMapLossy& map, const std::string& path, std::string* out);
// Calls `map.saveToFile(path)` with standard output captured into `*out`.
bool saveCapturing(localization::GridMapLossy& map, const std::string& path, std::string* out);

// True when both matrices hold the same geometry and flag, and the same
// index and cells bit for bit (the cells' thirteen floats).
::testing::AssertionResult sameMatrix(const localization::GridMatrix& a,
                                      const localization::GridMatrix& b);

}  // namespace testing
}  // namespace zorvane

#endif  // ZORVANE_TESTS_SUPPORT_MAP_FILES_H_
