// The eight-lane expf and logf against the C library's, bit for bit, over
// the arguments a table can meet and the special values around them.
#include "localization/look_up_table_exp_log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "localization/look_up_table_exact.h"

namespace {

using namespace zorvane::localization::lut;

bool same(float a, float b) { return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b)); }
float fromBits(std::uint32_t b) {
  float v = 0;
  std::memcpy(&v, &b, sizeof v);
  return v;
}

const VectorMath kEightLaneForms[] = {VectorMath::kAvx2, VectorMath::kAvx512};

const char* nameOf(VectorMath math) {
  return math == VectorMath::kAvx512 ? "AVX-512" : math == VectorMath::kAvx2 ? "AVX2" : "plain";
}

// Applies the eight-lane function to the special values and to every
// stride-th float from `from_bits` to `to_bits` (bit patterns, inclusive),
// and returns up to five arguments whose result differs from the scalar
// one; `*count` gets the number of arguments tried.
template <class Eight, class Scalar>
std::vector<float> mismatches(std::vector<float> specials, std::uint32_t from_bits, std::uint32_t to_bits,
                              std::uint32_t stride, Eight eight, Scalar scalar, std::uint64_t* count) {
  std::vector<float> wrong;
  float args[8], got[8];
  int filled = 0;
  *count = 0;
  const auto flush = [&] {
    eight(args, got);
    for (int q = 0; q < filled; ++q) {
      if (bitsOf(got[q]) != bitsOf(scalar(args[q])) && wrong.size() < 5) wrong.push_back(args[q]);
    }
    *count += static_cast<std::uint64_t>(filled);
    filled = 0;
  };
  const auto add = [&](float x) {
    args[filled++] = x;
    if (filled == 8) flush();
  };
  for (const float x : specials) add(x);
  for (std::uint64_t b = from_bits; b <= to_bits; b += stride) add(fromBits(static_cast<std::uint32_t>(b)));
  if (filled > 0) {
    for (int q = filled; q < 8; ++q) args[q] = 0.5f;
    flush();
  }
  return wrong;
}

// Every float instead of a sample with ZV_EXHAUSTIVE_MATH=1 in the
// environment (about a minute): sampling cannot see a fault that changes
// one result in a billion, such as a multiply-add fused where the C library
// does not fuse it.
std::uint32_t strideOr(std::uint32_t stride) { return std::getenv("ZV_EXHAUSTIVE_MATH") != nullptr ? 1u : stride; }

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Each form the processor runs passes the self-check, and the widest is
// used from the start.
TEST(LookUpTableExpLog, GlibcGetsEveryEightLaneFormTheProcessorRuns) {
#if defined(__GLIBC__)
  for (const VectorMath math : kEightLaneForms) {
    if (processorRuns(math)) {
      EXPECT_TRUE(vectorMathAvailable(math)) << nameOf(math) << ": the self-check failed";
    }
  }
  const VectorMath widest = processorRuns(VectorMath::kAvx512) ? VectorMath::kAvx512
                            : processorRuns(VectorMath::kAvx2) ? VectorMath::kAvx2
                                                               : VectorMath::kPlain;
  EXPECT_EQ(widestVectorMath(), widest);
#else
  GTEST_SKIP() << "the eight-lane forms follow glibc";
#endif
}

// Exponents are -(d*d)/sigma: 0 down to -104 (below, the term is skipped),
// densely; positive ones up to overflow, coarser; the neighbourhood of the
// formula's limits and the special values too. Logarithms of every positive
// float, densely.
// Both forms are tested wherever the processor runs them, even where the
// self-check turned them down, so that a fault in them shows as one.
TEST(LookUpTableExpLog, EightLaneFormsAreTheLibrarysOnEveryArgumentATableMeets) {
  const auto c_exp = [](float x) { return std::exp(x); };
  const auto c_log = [](float x) { return std::log(x); };
  const std::vector<float> exp_specials = {0.f, -0.f, 88.72283f, 88.72284f, -103.27893f, -103.27894f, -103.972f,
                                           -104.f, -1e-45f, 1e-45f, kInf, -kInf, kNaN, 1.f, -1.f, -87.33655f};
  const std::vector<float> log_specials = {0.f, -0.f, 1.f, kInf, -kInf, kNaN, -1.f, 1e-45f, 1.1754942e-38f,
                                           1.1754944e-38f, std::nextafter(1.f, 2.f), std::nextafter(1.f, 0.f),
                                           0.15f, 3.4028235e38f, 0.5f, 2.f};
  for (const VectorMath math : kEightLaneForms) {
    if (!processorRuns(math)) continue;
    SCOPED_TRACE(nameOf(math));
    const auto exp_eight = [math](const float* x, float* out) { expEightForTesting(math, x, out); };
    const auto log_eight = [math](const float* x, float* out) { logEightForTesting(math, x, out); };
    std::uint64_t count = 0;
    // Negative floats ascend in bits towards -inf.
    EXPECT_EQ(mismatches(exp_specials, bitsOf(-0.0f), bitsOf(-104.0f), strideOr(23), exp_eight, c_exp, &count),
              std::vector<float>());
    EXPECT_GT(count, 45'000'000u);
    EXPECT_EQ(mismatches({}, 0u, bitsOf(89.f), strideOr(211), exp_eight, c_exp, &count), std::vector<float>());
    EXPECT_EQ(mismatches(log_specials, 0u, bitsOf(kInf), strideOr(41), log_eight, c_log, &count),
              std::vector<float>());
    EXPECT_GT(count, 50'000'000u);
  }
}

// The two loops in both forms, against their definition, on runs that start
// and end anywhere within a group of eight.
TEST(LookUpTableExpLog, BothFormsOfTheLoopsGiveTheDefinedBins) {
  struct Term {
    float w, mean, sigma, step;
  };
  const Term terms[] = {{0.7f, 3.3f, 8.f, 0.15f},    {2.f, -40.f, 0.02f, 0.37f}, {kInf, 1.f, 0.f, 0.15f},
                        {1e-30f, 0.f, 1e9f, 1.f},    {-0.5f, 7.9f, 3.f, 0.15f},  {0.3f, kNaN, 2.f, 0.15f},
                        {1.f, 2.f, -4.f, 1.f},       {0.f, 2.f, 1e-3f, 1.f},     {kInf, 0.f, 1e-3f, 1.f}};
  for (const VectorMath math : {VectorMath::kPlain, VectorMath::kAvx2, VectorMath::kAvx512}) {
    if (!useVectorMath(math)) continue;
    const char* const form = nameOf(math);
    for (std::int64_t lo = -9; lo <= 2; ++lo) {
      for (std::int64_t hi = lo - 1; hi <= lo + 19; ++hi) {
        const std::int64_t first = -12;
        // Term by term over [lo, hi]; and all terms in one call, each
        // over its own run inside [lo, hi] (step 0.15 for all).
        std::vector<float> bins(40, 0.25f), want(40, 0.25f), run_bins(40, 0.25f), run_want(40, 0.25f);
        std::vector<GaussianRun> runs;
        const auto add = [&](std::vector<float>& to, const Term& t, float step, std::int64_t from, std::int64_t to_k) {
          for (std::int64_t k = from; k <= to_k; ++k) {
            const float d = static_cast<float>(k) * step - t.mean;
            const float e = -(d * d) / t.sigma;
            if (!(e < -104.f && std::isfinite(t.w))) to[static_cast<std::size_t>(k - first)] += t.w * std::exp(e);
          }
        };
        for (const Term& t : terms) {
          addGaussianTerms(bins.data(), first, lo, hi, t.w, t.mean, t.sigma, t.step);
          add(want, t, t.step, lo, hi);
          const std::int64_t run_lo = lo + static_cast<std::int64_t>(runs.size() % 3);
          const std::int64_t run_hi = hi - static_cast<std::int64_t>(runs.size() % 4);
          runs.push_back({t.w, t.mean, t.sigma, run_lo, run_hi});
          add(run_want, t, 0.15f, run_lo, run_hi);
        }
        addGaussianRuns(run_bins.data(), first, runs.data(), static_cast<int>(runs.size()), 0.15f);
        for (std::size_t k = 0; k < bins.size(); ++k) {
          ASSERT_TRUE(same(bins[k], want[k]))
              << form << " lo " << lo << " hi " << hi << " bin " << k;
          ASSERT_TRUE(same(run_bins[k], run_want[k]))
              << form << " runs, lo " << lo << " hi " << hi << " bin " << k;
        }

        // Shares: zero bins give exactly the floor, the last one exactly 1
        // (a special case of logf), one bin a NaN.
        const std::int64_t n = hi - lo + 1 > 0 ? hi - lo + 1 : 0;
        std::vector<float> values(static_cast<std::size_t>((n + 7) / 8 * 8 + 8), 0.f);
        for (std::int64_t k = 0; k < n; ++k) values[static_cast<std::size_t>(k)] = k % 3 == 0 ? 0.f : 0.01f * k;
        if (n > 4) values[4] = kNaN;
        if (n > 1) values[static_cast<std::size_t>(n - 1)] = 0.85f;
        const float sum = 1.f, scale = 1.f, floor = 0.15f;
        ASSERT_EQ(0.85f + floor, 1.f);
        std::vector<float> logs = values;
        logShares(logs.data(), n, sum, scale, floor, -7.f);
        for (std::int64_t k = 0; k < n; ++k) {
          const float a = (values[static_cast<std::size_t>(k)] / sum) * scale + floor;
          const float want = bitsOf(a) == bitsOf(floor) ? -7.f : std::log(a);
          const float got = logs[static_cast<std::size_t>(k)];
          ASSERT_TRUE(same(got, want))
              << form << " n " << n << " value " << k;
        }
      }
    }
  }
  useVectorMath(widestVectorMath());
}

}  // namespace
