// Runs the map file checks of the fuzz target over files, without libFuzzer:
//   map_file_replay FILE_OR_DIRECTORY...
// Every regular file named, or found directly in a named directory, is one
// input. Prints one line per failing input and exits with status 1 if any
// failed, 2 on a usage error.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/map_file_checks.h"

namespace {

// "" when the input passes, otherwise why not.
std::string replayOne(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "cannot read the input";
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The map operations' own console lines would bury the verdicts.
  std::cout.setstate(std::ios::badbit);
  const std::string failure = zorvane::testing::checkMapFileInput(
      reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  std::cout.clear();
  return failure;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: " << argv[0] << " FILE_OR_DIRECTORY...\n";
    return 2;
  }
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (std::filesystem::is_directory(argv[i], ec)) {
      for (const auto& entry : std::filesystem::directory_iterator(argv[i], ec)) {
        if (entry.is_regular_file(ec)) inputs.push_back(entry.path());
      }
    } else {
      inputs.emplace_back(argv[i]);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  int failed = 0;
  for (const auto& path : inputs) {
    const std::string failure = replayOne(path);
    if (!failure.empty()) {
      std::cerr << path.string() << ": " << failure << "\n";
      ++failed;
    }
  }
  std::cerr << inputs.size() << " inputs, " << failed << " failed\n";
  return failed == 0 ? 0 : 1;
}
