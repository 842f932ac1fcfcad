// libFuzzer target: arbitrary bytes as a zvmap file (see
// map_file_fuzz_target.h for what is checked). Seed it with a few real maps,
// for instance from `zvmap_tool generate`:
//   map_file_fuzz -close_fd_mask=1 -max_len=4096 CORPUS_DIR
#include <cstdio>
#include <cstdlib>

#include "tests/support/map_file_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string failure = zorvane::testing::checkMapFileInput(data, size);
  if (!failure.empty()) {
    std::fprintf(stderr, "map file check failed: %s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
