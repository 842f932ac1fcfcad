// Look-up table building: the production builder against the plain
// reference builder on synthetic street-scene maps, side by side in one run.
//
//   look_up_table_bench [--benchmark_filter=map:500/]   (quick run)
//
// Each benchmark is named <builder>/map:<side>/threads:<n>; maps are side x
// side positions at about 40% occupancy (500: ~100 k cells, 2000: ~1.6 M,
// 5000: ~10 M). Counters: cells of the map, table_MB (the finished table),
// peak_extra_MB (peak resident memory during the build above the resident
// memory before it, table included) and peak_ratio = peak_extra / table.
// After the runs a summary prints plain / production time ratios and the
// production speed-up from 1 to 2 threads.
//
// Before the runs the benchmark touches and frees 2 GiB once. In a virtual
// machine the first touch of guest memory that was never used costs far
// more than an ordinary page fault (the host backs the page), which would
// load whichever builder runs first; afterwards both pay ordinary faults
// for the fresh memory they allocate in every iteration.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "localization/grid_matrix.h"
#include "tools/reference/plain_look_up_table.h"
#include "tools/reference/synthetic_map.h"

namespace {

using zorvane::localization::GridMatrix;
using zorvane::localization::GridMatrixTable;

const GridMatrix& preparedMap(int side) {
  static std::map<int, std::unique_ptr<GridMatrix>> maps;
  auto& slot = maps[side];
  if (!slot) {
    slot = std::make_unique<GridMatrix>(zorvane::reference::makeSyntheticMap(side, side, 1).matrix);
    slot->runPreCalc();
  }
  return *slot;
}

// Resident-set figures of this process in kB from /proc/self/status; -1 when
// not available.
long statusKb(const char* field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(in, line)) {
    if (line.compare(0, key.size(), key) == 0) return std::stol(line.substr(key.size()));
  }
  return -1;
}

// Restarts the peak (VmHWM) from the current resident set.
bool resetPeak() {
  std::ofstream out("/proc/self/clear_refs");
  out << "5";
  out.flush();
  return static_cast<bool>(out);
}

double tableBytes(const GridMatrixTable& t) {
  return 4.0 * static_cast<double>(t.value_table_.size() + t.height_table_.size()) +
         16.0 * static_cast<double>(t.coarse_cells_.size());
}

enum class Builder { kProduction, kPlain };

void buildTable(benchmark::State& state, int side, int threads, Builder builder) {
  const GridMatrix& m = preparedMap(side);
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  double table_mb = 0, peak_mb = -1;
  for (auto _ : state) {
    state.PauseTiming();
    const bool peak_known = resetPeak();
    const long before = statusKb("VmRSS");
    state.ResumeTiming();
    GridMatrixTable t = builder == Builder::kProduction ? m.getLookUpTable(4, 0.15f, 1.0f)
                                                        : zorvane::reference::plainLookUpTable(m, 4, 0.15f, 1.0f);
    state.PauseTiming();
    benchmark::DoNotOptimize(t.value_table_.data());
    const long peak = statusKb("VmHWM");
    if (peak_known && before >= 0 && peak >= 0) peak_mb = std::max(peak_mb, (peak - before) / 1024.0);
    table_mb = tableBytes(t) / (1024.0 * 1024.0);
    { GridMatrixTable gone = std::move(t); }
    state.ResumeTiming();
  }
  omp_set_num_threads(saved);
  state.counters["cells"] = static_cast<double>(m.cells_.size());
  state.counters["table_MB"] = table_mb;
  if (peak_mb >= 0) {
    state.counters["peak_extra_MB"] = peak_mb;
    state.counters["peak_ratio"] = table_mb > 0 ? peak_mb / table_mb : 0;
  }
}

// Console output as usual, plus a summary of the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Iteration && r.iterations > 0)
        seconds_[r.run_name.function_name] = r.real_accumulated_time / static_cast<double>(r.iterations);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-10s %-8s %14s %14s %10s %14s\n", "map", "threads", "production_s", "plain_s", "plain/prod",
                "prod 1->2 thr");
    for (int side : {500, 2000, 5000}) {
      for (int threads : {1, 2}) {
        const double prod = get("production", side, threads), plain = get("plain", side, threads);
        const double one = get("production", side, 1);
        if (prod <= 0) continue;
        std::printf("%-10d %-8d %14.3f %14.3f %10.1f %14s\n", side, threads, prod, plain,
                    plain > 0 ? plain / prod : 0.0,
                    threads == 2 && one > 0 ? std::to_string(one / prod).substr(0, 4).c_str() : "");
      }
    }
  }

 private:
  double get(const char* builder, int side, int threads) const {
    const auto it = seconds_.find(name(builder, side, threads));
    return it == seconds_.end() ? 0.0 : it->second;
  }
  std::map<std::string, double> seconds_;

 public:
  static std::string name(const std::string& builder, int side, int threads) {
    return builder + "/map:" + std::to_string(side) + "/threads:" + std::to_string(threads);
  }
};

}  // namespace

void touchAndFree(std::size_t bytes) {
  std::vector<char> block(bytes);
  for (std::size_t i = 0; i < bytes; i += 4096) block[i] = 1;
  benchmark::DoNotOptimize(block.data());
}

int main(int argc, char** argv) {
  touchAndFree(std::size_t{2} << 30);
  for (int side : {500, 2000, 5000}) {
    for (int threads : {1, 2}) {
      auto* prod = benchmark::RegisterBenchmark(RatioReporter::name("production", side, threads).c_str(), buildTable,
                                                side, threads, Builder::kProduction);
      prod->Unit(benchmark::kMillisecond)->UseRealTime();
      if (side == 2000) prod->Iterations(5);
      if (side == 5000) prod->Iterations(3);
      auto* plain = benchmark::RegisterBenchmark(RatioReporter::name("plain", side, threads).c_str(), buildTable,
                                                 side, threads, Builder::kPlain);
      plain->Unit(benchmark::kMillisecond)->UseRealTime();
      if (side >= 2000) plain->Iterations(1);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
