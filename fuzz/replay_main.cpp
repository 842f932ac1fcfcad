// Runs a fuzz target's LLVMFuzzerTestOneInput over files, without libFuzzer:
//   <target>_replay FILE_OR_DIRECTORY...
// Every regular file named, or found directly in a named directory, is one
// input, run in name order. A target reports a failed check by aborting, so
// the name of each input goes to standard error before it runs: the last
// name printed is the culprit. The target's own console output (the map
// operations' lines on standard output) is discarded. Exits with 0 when
// every input ran, 2 on a usage error or when no input was found.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
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
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs found\n");
    return 2;
  }
  std::sort(inputs.begin(), inputs.end());

  std::fflush(stdout);
  const int null = open("/dev/null", O_WRONLY);
  if (null >= 0) dup2(null, STDOUT_FILENO);
  for (const auto& path : inputs) {
    std::fprintf(stderr, "replaying %s\n", path.c_str());
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", path.c_str());
      return 1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // An exact-size heap copy, as libFuzzer hands its inputs over: never a
    // null pointer, not even for an empty input.
    const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[bytes.size()]);
    if (!bytes.empty()) std::memcpy(copy.get(), bytes.data(), bytes.size());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs replayed\n", inputs.size());
  return 0;
}
