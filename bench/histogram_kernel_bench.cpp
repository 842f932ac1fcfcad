// Two loops of the table builder alone, in each instruction set the
// processor runs: the height axis (one block's Gaussian runs added into its
// bins, lut::addGaussianRuns) on blocks shaped like those of the synthetic
// street map, and the normalisation's logarithms (lut::logShares) on value
// histograms of that map's average width.
//
//   histogram_kernel_bench [--benchmark_repetitions=5]
//
// In the start-up benchmark the height exponentials are about a fifth of
// a table's CPU time, but that benchmark's fresh processes vary by more
// than a change to this loop is worth. This one runs the loop alone, on
// data that stays in the caches, so that two forms of it can be compared
// in seconds. Counters: seconds per block and per (run, group of eight
// bins), the unit the eight-lane forms evaluate, or per group of eight
// logarithms; forms 0, 1, 2 are plain, AVX2 and AVX-512.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "localization/look_up_table_exp_log.h"
#include "localization/look_up_table_histogram.h"

namespace {

using zorvane::localization::lut::addGaussianRuns;
using zorvane::localization::lut::GaussianRun;
using zorvane::localization::lut::logShares;
using zorvane::localization::lut::paddedBins;
using zorvane::localization::lut::processorRuns;
using zorvane::localization::lut::useVectorMath;
using zorvane::localization::lut::VectorMath;

constexpr float kHeightStep = 0.15f;

struct Block {
  std::int64_t first = 0, n = 0;
  std::vector<GaussianRun> runs;
};

// Six cells a block, as in the street map: heights within about a metre of
// each other, spreads from 2 cm to 0.5 m, most of them small. Each run
// covers the whole block range, as the builder gives runs of up to 32 bins.
std::vector<Block> streetBlocks(int count) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> unit(0.f, 1.f);
  std::vector<Block> blocks(static_cast<std::size_t>(count));
  for (Block& b : blocks) {
    const float ground = 2.f + 3.f * unit(rng);
    float low = 1e9f, high = -1e9f;
    for (int component = 0; component < 12; ++component) {
      const float mean = ground + 1.2f * unit(rng);
      const float sd = 0.02f + 0.48f * unit(rng) * unit(rng);
      const float s = 2.f * sd * sd;
      b.runs.push_back({0.5f, mean, s, 0, 0});
      low = std::min(low, std::round((mean - (s + s)) / kHeightStep));
      high = std::max(high, std::round((mean + (s + s)) / kHeightStep));
    }
    b.first = static_cast<std::int64_t>(low);
    b.n = static_cast<std::int64_t>(high) - b.first + 1;
    for (GaussianRun& r : b.runs) {
      r.lo = b.first;
      r.hi = b.first + b.n - 1;
    }
  }
  return blocks;
}

// Selects the instruction set of the benchmark's argument; false, with the
// run marked skipped, where the processor lacks it.
bool selectForm(benchmark::State& state) {
  const auto math = static_cast<VectorMath>(state.range(0));
  if (processorRuns(math) && useVectorMath(math)) return true;
  state.SkipWithError("instruction set not available");
  return false;
}

// The first 32-byte boundary in v (8 floats of slack), as the builder's
// bins buffers are aligned.
float* aligned32(std::vector<float>& v) {
  return reinterpret_cast<float*>((reinterpret_cast<std::uintptr_t>(v.data()) + 31) & ~std::uintptr_t{31});
}

// An inverted rate: seconds for each of `count` units over all iterations.
benchmark::Counter secondsEach(double count) {
  return benchmark::Counter(count, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Registers a benchmark once per form: plain, AVX2, AVX-512.
void everyForm(benchmark::internal::Benchmark* b) {
  b->ArgName("form");
  for (const VectorMath math : {VectorMath::kPlain, VectorMath::kAvx2, VectorMath::kAvx512}) {
    b->Arg(static_cast<int>(math));
  }
}

void BM_HeightRuns(benchmark::State& state) {
  if (!selectForm(state)) return;
  static const std::vector<Block> blocks = streetBlocks(4096);
  std::int64_t groups = 0, widest = 0;
  for (const Block& b : blocks) {
    groups += static_cast<std::int64_t>(b.runs.size()) * ((b.n + 7) / 8);
    widest = std::max(widest, b.n);
  }
  std::vector<float> bins(static_cast<std::size_t>(paddedBins(widest)) + 8);
  float* const aligned = aligned32(bins);
  for (auto _ : state) {
    for (const Block& b : blocks) {
      std::fill(aligned, aligned + paddedBins(b.n), 0.f);
      addGaussianRuns(aligned, b.first, b.runs.data(), static_cast<int>(b.runs.size()), kHeightStep);
    }
    benchmark::DoNotOptimize(aligned[0]);
  }
  const double rounds = static_cast<double>(state.iterations());
  state.counters["per_block"] = secondsEach(rounds * static_cast<double>(blocks.size()));
  state.counters["per_run_group"] = secondsEach(rounds * static_cast<double>(groups));
  useVectorMath(zorvane::localization::lut::widestVectorMath());
}

BENCHMARK(BM_HeightRuns)->Apply(everyForm)->Unit(benchmark::kMillisecond);

// 134 value bins (this map's average), bell-shaped with tails that reach
// the floor, as most of the map's histograms; copied in before each call,
// since the loop overwrites them.
void BM_LogShares(benchmark::State& state) {
  if (!selectForm(state)) return;
  constexpr std::int64_t kBins = 134;
  std::vector<float> bell(static_cast<std::size_t>(paddedBins(kBins)), 0.f);
  float sum = 0.f;
  for (std::int64_t k = 0; k < kBins; ++k) {
    const float d = static_cast<float>(k - kBins / 2) / 12.f;
    bell[static_cast<std::size_t>(k)] = std::exp(-d * d);
    sum += bell[static_cast<std::size_t>(k)];
  }
  std::vector<float> bins(bell.size() + 8);
  float* const aligned = aligned32(bins);
  const float log_floor = std::log(0.001f);
  for (auto _ : state) {
    std::copy(bell.begin(), bell.end(), aligned);
    logShares(aligned, kBins, sum, 0.9f, 0.001f, log_floor);
    benchmark::DoNotOptimize(aligned[0]);
  }
  state.counters["per_group"] = secondsEach(static_cast<double>(state.iterations()) * ((kBins + 7) / 8));
  useVectorMath(zorvane::localization::lut::widestVectorMath());
}

BENCHMARK(BM_LogShares)->Apply(everyForm)->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
