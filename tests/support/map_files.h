// Helpers for the map file tests: temporary files, captured console output,
// matrix comparison. The file bytes themselves are in map_bytes.h.
#ifndef ZORVANE_TESTS_SUPPORT_MAP_FILES_H_
#define ZORVANE_TESTS_SUPPORT_MAP_FILES_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "localization/grid_map_lossy.h"
#include "tests/support/map_bytes.h"

namespace zorvane {
namespace testing {

// A path in the test temporary directory, unique to this process and test.
std::string tempMapPath(const std::string& name);
// tempMapPath(name) with nothing there. Process numbers repeat, so a file,
// pipe or empty directory an earlier run left under the same name is
// removed first: a test that makes a pipe or a directory there needs that.
std::string freshTempPath(const std::string& name);
void writeFileBytes(const std::string& path, const Bytes& bytes);
Bytes readFileBytes(const std::string& path);  // empty when unreadable
bool fileExists(const std::string& path);
std::string redLine(const std::string& text);  // "\033[31m" text "\033[0m\n"

// Caps the process's address space at its current size plus `bytes` for
// its lifetime, so that an allocation beyond the cap fails with
// std::bad_alloc instead of succeeding. Inactive under AddressSanitizer,
// whose shadow memory needs the address space.
class AddressSpaceCap {
 public:
  explicit AddressSpaceCap(std::size_t bytes);
  AddressSpaceCap(const AddressSpaceCap&) = delete;
  AddressSpaceCap& operator=(const AddressSpaceCap&) = delete;
  ~AddressSpaceCap();

 private:
  bool active_ = false;
  unsigned long long previous_soft_ = 0;
};

// Runs `f` under an AddressSpaceCap of `bytes`; returns its result.
template <typename F>
auto withinMemory(std::size_t bytes, F&& f) -> decltype(f()) {
  AddressSpaceCap cap(bytes);
  return f();
}

// Runs `f` with standard output captured into `*out`; returns its result.
template <typename F>
auto capturing(std::string* out, F&& f) -> decltype(f()) {
  ::testing::internal::CaptureStdout();
  auto result = f();
  *out = ::testing::internal::GetCapturedStdout();
  return result;
}
inline bool readCapturing(localization::GridMapLossy& map, const std::string& path,
                          std::string* out) {
  return capturing(out, [&] { return map.ReadFromFile(path); });
}
inline bool saveCapturing(localization::GridMapLossy& map, const std::string& path,
                          std::string* out) {
  return capturing(out, [&] { return map.saveToFile(path); });
}

// Same geometry, flag, index, and cells bit for bit (padding excluded).
::testing::AssertionResult sameMatrix(const localization::GridMatrix& a,
                                      const localization::GridMatrix& b);
// Every field, every record and every float of both sequences, as bits
// (NaN sign and payload are not part of the result).
::testing::AssertionResult sameTable(const localization::GridMatrixTable& a,
                                     const localization::GridMatrixTable& b);

}  // namespace testing
}  // namespace zorvane

#endif  // ZORVANE_TESTS_SUPPORT_MAP_FILES_H_
