// libFuzzer target: arbitrary bytes as the map of the zvmap tool's
// subcommands. The input becomes a file that `info` (text and JSON),
// `check`, `render` (every layer), `table` and `diff` (against itself and
// against the example map) read, in the process, as the tool's main would
// call them. Whatever the bytes, each subcommand returns one of the tool's
// exit statuses (0, 1 or 2) and a failed render leaves no picture behind;
// memory errors and undefined behaviour are the sanitizers' to report.
// Pictures and tables are left out for files that declare more than 2^16
// grid positions: the loader accepts up to 2^24 positions for one cell, and
// a picture of every one of them takes longer, with the sanitizers, than
// the 5 s an input may take, while a smaller grid goes the same way.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/map_bytes.h"
#include "tests/support/map_file_checks.h"
#include "tools/zvmap/commands.h"

namespace {

namespace zvmap = zorvane::tools::zvmap;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "zvmap check failed: %s\n", what.c_str());
  std::abort();
}

void expectStatus(const char* command, int status) {
  if (status < 0 || status > 2) fail(std::string(command) + " returned " + std::to_string(status));
}

// The example map, written once per process.
const std::string& exampleMapPath() {
  static const std::string path = [] {
    static zorvane::testing::ScratchFile file;
    const zorvane::testing::Bytes bytes = zorvane::testing::exampleFileBytes();
    if (!file.ok() || !file.assign(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size())) {
      fail("cannot write the example map");
    }
    return file.path();
  }();
  return path;
}

constexpr std::uint64_t kMaxPicturedPositions = std::uint64_t{1} << 16;

// cols * rows as the header declares them (0 without a whole header).
std::uint64_t declaredPositions(const std::uint8_t* data, std::size_t size) {
  if (size < 61) return 0;
  const auto field = [data](std::size_t at) {
    return static_cast<std::uint64_t>(data[at]) | static_cast<std::uint64_t>(data[at + 1]) << 8 |
           static_cast<std::uint64_t>(data[at + 2]) << 16 | static_cast<std::uint64_t>(data[at + 3]) << 24;
  };
  return field(45) * field(49);
}

std::string picturePath() {
  return "/tmp/zvmap_fuzz_" + std::to_string(::getpid()) + ".png";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zorvane::testing::ScratchFile file;
  if (!file.ok() || !file.assign(data, size)) fail("cannot create a scratch file");
  const std::string& map = file.path();

  expectStatus("info", zvmap::runInfo({map, false}));
  expectStatus("info --json", zvmap::runInfo({map, true}));
  expectStatus("check", zvmap::runCheck({map, zvmap::kServerLevel}));
  if (declaredPositions(data, size) <= kMaxPicturedPositions) {
    const std::string picture = picturePath();
    for (zvmap::Layer layer : {zvmap::Layer::kValue, zvmap::Layer::kHeight, zvmap::Layer::kOccupancy,
                               zvmap::Layer::kBins}) {
      const int status = zvmap::runRender({map, picture, layer, zvmap::kServerLevel});
      expectStatus("render", status);
      const bool exists = ::access(picture.c_str(), F_OK) == 0;
      if (status != 0 && exists) fail("a failed render left a picture");
      ::unlink(picture.c_str());
    }
    zvmap::TableOptions table;
    table.map = map;
    expectStatus("table", zvmap::runTable(table));
  }
  expectStatus("diff", zvmap::runDiff({map, map, zvmap::Tolerance::kExact}));
  expectStatus("diff", zvmap::runDiff({map, exampleMapPath(), zvmap::Tolerance::kQuantised}));
  return 0;
}
