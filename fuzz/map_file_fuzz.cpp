// libFuzzer target: arbitrary bytes as a zvmap file. First the checks of
// tests/support/map_file_checks.h (a load over a loaded map, a save and a reload);
// then the file goes the way of a start-up: a GridMapServer loads it, builds
// its level-4 table and uploads both to the gpu_aligner stand-in, which must
// judge a completed upload consistent. A file the server does not load must
// end the start-up with runtime_error 0x11804. The start-up leg is left out
// for files that declare more than 2^20 grid positions: the loader accepts
// up to 2^24 positions for a single cell, and with the sanitizers the five
// passes over such a grid (load, save, reload, table, upload) take longer
// than the 5 s an input may take, while a smaller grid goes the same way.
// scripts/fuzz.sh seeds and runs it; by hand:
//   map_file_fuzz -close_fd_mask=1 -max_len=4096 CORPUS_DIR
#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/map_file_checks.h"
#include "gpu_aligner_stand_in/stand_in_record.h"
#include "localization/grid_map_server.h"
#include "localization/runtime_error.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "map file check failed: %s\n", what.c_str());
  std::abort();
}

constexpr std::uint64_t kMaxStartUpPositions = std::uint64_t{1} << 20;

// cols * rows as the header declares them (0 without a whole header).
std::uint64_t declaredPositions(const std::uint8_t* data, std::size_t size) {
  if (size < 61) return 0;
  const auto field = [data](std::size_t at) {
    return static_cast<std::uint64_t>(data[at]) | static_cast<std::uint64_t>(data[at + 1]) << 8 |
           static_cast<std::uint64_t>(data[at + 2]) << 16 | static_cast<std::uint64_t>(data[at + 3]) << 24;
  };
  return field(45) * field(49);  // rows, cols; negative ones count as huge
}

void startServerOn(const std::uint8_t* data, std::size_t size) {
  zorvane::testing::ScratchFile file;
  if (!file.ok() || !file.assign(data, size)) fail("cannot create a scratch file");
  YAML::Node section;
  section["type"] = "GridMapServer";
  section["grid_map"] = file.path();
  zorvane::gpu_stand_in::resetRecord();
  try {
    zorvane::localization::GridMapServer server;
    server.init(section);
  } catch (const zorvane::localization::runtime_error& e) {
    if (e.code_ != 0x11804) fail(std::string("start-up ended with ") + e.what());
    return;
  }
  const auto& record = zorvane::gpu_stand_in::record();
  if (record.calls.size() != 4) fail("a start-up did not make the four upload calls");
  if (!record.verdict.consistent()) fail("inconsistent upload: " + record.verdict.problems.front());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string failure = zorvane::testing::checkMapFileInput(data, size);
  if (!failure.empty()) fail(failure);
  if (declaredPositions(data, size) <= kMaxStartUpPositions) startServerOn(data, size);
  return 0;
}
