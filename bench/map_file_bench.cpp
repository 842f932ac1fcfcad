// Loading and saving zvmap files, beside a plain loader and beside the
// floor of what any loader must do, on synthetic street maps of about
// 1 M and 10 M cells. Everything a vehicle waits for is first touch of
// fresh memory, so every iteration loads into a new map and the map is
// destroyed outside the timing.
//
//   map_file_bench [--no_thp] [benchmark flags]
//
// --no_thp switches transparent huge pages off for this process
// (PR_SET_THP_DISABLE), to see the loader where the kernel offers none.
// Counters: MB/s of file; for ReadFromFile also peak_ratio, the resident
// memory the load added at its peak over (file size + final matrix).
#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/plain_map_loader.h"
#include "localization/grid_map_lossy.h"
#include "localization/lossy_format.h"
#include "localization/map_allocator.h"
#include "localization/map_file_buffer.h"
#include "tools/reference/synthetic_map.h"

namespace zorvane {
namespace {

using localization::GridMapLossy;
using localization::MCell;

// Map side lengths: 2000 x 2000 (about 1 M cells), 5000 x 5000 (about 10 M).
struct MapFile {
  std::string path;
  std::int64_t bytes = 0;
  std::int64_t cells = 0;
  std::int64_t positions = 0;
  std::int64_t matrixBytes() const {
    return cells * static_cast<std::int64_t>(sizeof(MCell)) + positions * 4;
  }
};

// Generated and saved once per side length, removed at exit.
const MapFile& mapFile(int side) {
  static std::map<int, MapFile> files;
  auto it = files.find(side);
  if (it != files.end()) return it->second;
  MapFile f;
  f.path = "/tmp/zv_map_file_bench_" + std::to_string(getpid()) + "_" + std::to_string(side) + ".zvmap";
  {
    reference::SyntheticMap synthetic = reference::makeSyntheticMap(side, side, 42);
    GridMapLossy map;
    map.height_base_ = synthetic.height_base;
    map.aux_value_base_ = synthetic.aux_value_base;
    map.mutable_matrix() = std::move(synthetic.matrix);
    std::cout.setstate(std::ios::badbit);
    const bool saved = map.saveToFile(f.path);
    std::cout.clear();
    if (!saved) std::abort();
    f.cells = static_cast<std::int64_t>(map.matrix().cells_.size());
    f.positions = static_cast<std::int64_t>(map.matrix().grid_size_);
  }
  f.bytes = 61 + 22 * f.cells;
  static struct Cleanup {
    ~Cleanup() {
      for (auto& kv : files) std::remove(kv.second.path.c_str());
    }
  } cleanup;
  return files.emplace(side, f).first->second;
}

void setCounters(benchmark::State& state, const MapFile& f) {
  state.SetBytesProcessed(state.iterations() * f.bytes);
  state.counters["cells"] = static_cast<double>(f.cells);
}

// Resident set size figures of this process, in bytes.
std::int64_t statusField(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::size_t n = std::strlen(key);
  while (std::getline(in, line)) {
    if (line.compare(0, n, key) == 0) return std::stoll(line.substr(n)) * 1024;
  }
  return -1;
}
bool resetPeakRss() {
  std::ofstream out("/proc/self/clear_refs");
  out << "5";
  return static_cast<bool>(out);
}

// --- The library's loader. ---

void BM_ReadFromFile(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  // One load outside the timing for the memory peak.
  {
    const std::int64_t before = statusField("VmRSS:");
    if (resetPeakRss()) {
      GridMapLossy map;
      if (!map.ReadFromFile(f.path)) state.SkipWithError("load failed");
      const std::int64_t peak = statusField("VmHWM:") - before;
      state.counters["peak_ratio"] = static_cast<double>(peak) / static_cast<double>(f.bytes + f.matrixBytes());
    }
  }
  for (auto _ : state) {
    state.PauseTiming();
    auto map = std::make_unique<GridMapLossy>();
    state.ResumeTiming();
    if (!map->ReadFromFile(f.path)) state.SkipWithError("load failed");
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  setCounters(state, f);
}

// The parts of ReadFromFile: the file into its buffer, header and body
// decoded into a fresh map, and the pre-calculation of the loaded cells.
void BM_ReadFileOnly(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    localization::internal::MapFileBuffer buffer;
    localization::internal::readWholeFile(f.path, localization::lossy::kMaxFileBytes, &buffer);
    benchmark::DoNotOptimize(buffer.data());
    state.PauseTiming();
    buffer = localization::internal::MapFileBuffer();
    state.ResumeTiming();
  }
  setCounters(state, f);
}

void BM_DecodeOnly(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  localization::internal::MapFileBuffer buffer;
  localization::internal::readWholeFile(f.path, localization::lossy::kMaxFileBytes, &buffer);
  for (auto _ : state) {
    state.PauseTiming();
    auto map = std::make_unique<GridMapLossy>();
    state.ResumeTiming();
    const int h = map->loadHeaderBinary(buffer.data());
    const int b = map->loadBodyBinary(buffer.data() + h);
    if (h + b != static_cast<int>(buffer.size())) state.SkipWithError("decode failed");
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  setCounters(state, f);
}

void BM_PreCalcOnly(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  localization::internal::MapFileBuffer buffer;
  localization::internal::readWholeFile(f.path, localization::lossy::kMaxFileBytes, &buffer);
  GridMapLossy map;
  for (auto _ : state) {
    state.PauseTiming();
    map.loadHeaderBinary(buffer.data());
    map.loadBodyBinary(buffer.data() + 61);
    state.ResumeTiming();
    map.mutable_matrix().runPreCalc();
  }
  setCounters(state, f);
}

// --- A plain loader: the same file through a zero-filled std::vector
// buffer, decoded into freshly grown standard vectors (4 KiB pages, one
// construction pass, then the decode), with or without preparing the
// cells afterwards. ---

// Raw -> prepared for a plain cell array, as GridMatrix::runPreCalc does it.
// Argument 1: 0 for the load alone, 1 for the load and then the
// preparation of the cells, which is what ReadFromFile does.
void BM_PlainLoader(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  const bool prepare = state.range(1) != 0;
  for (auto _ : state) {
    bench::PlainMap plain;
    if (!bench::plainLoad(f.path, prepare, &plain)) std::abort();
    benchmark::DoNotOptimize(plain.cells.data());
    benchmark::DoNotOptimize(plain.index.data());
    state.PauseTiming();
    plain = bench::PlainMap();
    state.ResumeTiming();
  }
  setCounters(state, f);
}

// --- The floor: the file read into memory plus one write of the final
// cells_ + index_ volume into fresh huge-page-advised memory. ---

void BM_Floor(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  const auto volume = static_cast<std::size_t>(f.matrixBytes());
  for (auto _ : state) {
    localization::internal::MapFileBuffer buffer;
    localization::internal::readWholeFile(f.path, localization::lossy::kMaxFileBytes, &buffer);
    void* block = localization::internal::allocateMapBytes(volume);
    std::memset(block, 0xff, volume);
    benchmark::DoNotOptimize(block);
    benchmark::DoNotOptimize(buffer.data());
    state.PauseTiming();
    localization::internal::releaseMapBytes(block, volume);
    buffer = localization::internal::MapFileBuffer();
    state.ResumeTiming();
  }
  setCounters(state, f);
}

// --- Saving: a loaded (prepared) map to a file, and the encode alone. ---

void BM_SaveToFile(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  GridMapLossy map;
  if (!map.ReadFromFile(f.path)) state.SkipWithError("load failed");
  const std::string out = f.path + ".saved";
  std::cout.setstate(std::ios::badbit);
  for (auto _ : state) {
    if (!map.saveToFile(out)) state.SkipWithError("save failed");
  }
  std::cout.clear();
  std::remove(out.c_str());
  setCounters(state, f);
}

void BM_EncodeOnly(benchmark::State& state) {
  const MapFile& f = mapFile(static_cast<int>(state.range(0)));
  GridMapLossy map;
  if (!map.ReadFromFile(f.path)) state.SkipWithError("load failed");
  localization::internal::MapFileBuffer buffer(static_cast<std::size_t>(f.bytes));
  for (auto _ : state) {
    const int h = map.addHeaderBinary(buffer.data());
    const int b = map.addBodyBinary(buffer.data() + h);
    benchmark::DoNotOptimize(b);
  }
  setCounters(state, f);
}

double minimum(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(2000)->Arg(5000)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5);
  b->ComputeStatistics("min", minimum);
}

BENCHMARK(BM_Floor)->Apply(sizes);
BENCHMARK(BM_ReadFromFile)->Apply(sizes);
BENCHMARK(BM_PlainLoader)
    ->ArgNames({"side", "prepare"})
    ->Args({2000, 0})
    ->Args({2000, 1})
    ->Args({5000, 0})
    ->Args({5000, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.5)
    ->ComputeStatistics("min", minimum);
BENCHMARK(BM_ReadFileOnly)->Apply(sizes);
BENCHMARK(BM_DecodeOnly)->Apply(sizes);
BENCHMARK(BM_PreCalcOnly)->Apply(sizes);
BENCHMARK(BM_SaveToFile)->Apply(sizes);
BENCHMARK(BM_EncodeOnly)->Apply(sizes);

}  // namespace
}  // namespace zorvane

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no_thp") == 0) {
      if (prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) != 0) std::perror("PR_SET_THP_DISABLE");
      for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
      --argc;
      break;
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
