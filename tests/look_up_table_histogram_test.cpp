// The per-axis histogram kernel against the bin-by-bin arithmetic it
// replaces: every bin's bits, with and without the exponential memo, under
// weights (huge, subnormal) that make single terms visible where a whole
// table would hide them. The normalisation is checked through whole tables.
#include "localization/look_up_table_histogram.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "localization/look_up_table_exact.h"

namespace {

using namespace zorvane::localization::lut;

bool same(float a, float b) { return (std::isnan(a) && std::isnan(b)) || bitsOf(a) == bitsOf(b); }

struct Component {
  float weight, mean, sigma;
};

// Bins padded to whole groups and 32-byte aligned, as the kernel requires.
struct Bins {
  explicit Bins(std::int64_t n) : n(n), storage(static_cast<std::size_t>(paddedBins(n) + 8), 0.f) {}
  float* data() {
    return reinterpret_cast<float*>((reinterpret_cast<std::uintptr_t>(storage.data()) + 31) & ~std::uintptr_t{31});
  }
  std::int64_t n;
  std::vector<float> storage;
};

// Random components over an axis: value-like (whole means, repeated sigmas,
// step 1: the memo's case) or height-like (fractional means, any step),
// with zero, subnormal and huge weights and zero spreads mixed in.
std::vector<Component> randomComponents(std::mt19937& rng, bool value_like, int count) {
  std::uniform_real_distribution<float> u(0.f, 1.f);
  const float sigmas[] = {2.f, 4.5f, 8.f, 0.18f, 50.f, 200.f, 1e-4f};
  std::vector<Component> v;
  for (int i = 0; i < count; ++i) {
    Component c;
    const float r = u(rng);
    c.weight = r < 0.05f ? 0.f : r < 0.1f ? 1e-40f : r < 0.12f ? 3e20f : u(rng) * 2.f;
    c.mean = value_like ? std::floor(u(rng) * 300.f - 20.f) : u(rng) * 40.f - 20.f;
    c.sigma = u(rng) < 0.03f ? 0.f : sigmas[static_cast<int>(u(rng) * 7.f) % 7];
    if (c.sigma == 0.f) c.weight = std::numeric_limits<float>::infinity();  // as prepared from sigma 0
    v.push_back(c);
  }
  return v;
}

// plain[k - first] += the component's term of bin k, bin by bin.
void addPlainTerms(const Component& c, std::int64_t first, float step, std::vector<float>* plain) {
  for (std::size_t q = 0; q < plain->size(); ++q) {
    const float d = static_cast<float>(first + static_cast<std::int64_t>(q)) * step - c.mean;
    (*plain)[q] += c.weight * std::exp(-(d * d) / c.sigma);
  }
}

// The first bin whose bits differ, described; empty when all are the same.
std::string firstDifference(const float* fast, const std::vector<float>& plain, std::int64_t first) {
  for (std::size_t q = 0; q < plain.size(); ++q) {
    if (!same(fast[q], plain[q]))
      return "bin " + std::to_string(first + static_cast<std::int64_t>(q)) + ": " + std::to_string(fast[q]) +
             " vs " + std::to_string(plain[q]);
  }
  return "";
}

// Runs check() with the SSE and plain forms and with each wider form the
// processor has; the widest forms are in use again afterwards.
template <class Check>
void forEachWidth(Check check) {
  for (const VectorMath forms : {VectorMath::kPlain, VectorMath::kAvx2, VectorMath::kAvx512}) {
    SCOPED_TRACE(forms == VectorMath::kPlain ? "SSE" : forms == VectorMath::kAvx2 ? "AVX2" : "AVX-512");
    if (useVectorForms(forms)) check();
  }
  useVectorForms(widestVectorMath());
}

TEST(LookUpTableHistogram, AddComponentEqualsTheBinByBinSum) {
  forEachWidth([] {
    std::mt19937 rng(3);
    for (int round = 0; round < 400; ++round) {
      const bool value_like = round % 2 == 0;
      const float step = value_like ? 1.0f : (round % 3 == 0 ? 0.15f : 0.37f);
      const std::int64_t first =
          value_like ? static_cast<std::int64_t>(rng() % 120) : static_cast<std::int64_t>(rng() % 200) - 150;
      const std::int64_t n = value_like ? std::min<std::int64_t>(256 - first, 1 + rng() % 200) : 1 + rng() % 300;
      const std::vector<Component> comps = randomComponents(rng, value_like, 40);
      SigmaMemo memo;
      Bins fast(n);
      std::vector<float> plain(static_cast<std::size_t>(n), 0.f);
      for (const Component& c : comps) {
        addComponent(fast.data(), first, n, c.weight, c.mean, c.sigma, step, value_like ? &memo : nullptr);
        addPlainTerms(c, first, step, &plain);
      }
      ASSERT_EQ(firstDifference(fast.data(), plain, first), "") << "round " << round;
    }
  });
}

// The value axis as the kernel runs it: memo rows gathered and added
// chunk by chunk through all of them, a component the memo cannot serve
// added directly after the rows before it. Every bin must still receive
// its terms in component order.
TEST(LookUpTableHistogram, GatheredRowsEqualTheBinByBinSum) {
  forEachWidth([] {
    std::mt19937 rng(11);
    for (int round = 0; round < 300; ++round) {
      const std::int64_t first = static_cast<std::int64_t>(rng() % 200);
      const std::int64_t n = std::min<std::int64_t>(256 - first, 1 + rng() % 256);
      const std::vector<Component> comps = randomComponents(rng, true, 90);
      const std::size_t capacity = 1 + rng() % 40;  // flushes when full, as the kernel's list
      SigmaMemo memo;
      Bins fast(n);
      std::vector<TermRow> rows;
      std::vector<float> plain(static_cast<std::size_t>(n), 0.f);
      for (const Component& c : comps) {
        TermRow row;
        if (memoRow(&memo, first, n, c.weight, c.mean, c.sigma, 1.0f, &row)) {
          rows.push_back(row);
        } else {
          addTermRows(fast.data(), rows.data(), static_cast<int>(rows.size()));
          rows.clear();
          addComponent(fast.data(), first, n, c.weight, c.mean, c.sigma, 1.0f, nullptr);
        }
        if (rows.size() == capacity) {
          addTermRows(fast.data(), rows.data(), static_cast<int>(rows.size()));
          rows.clear();
        }
        addPlainTerms(c, first, 1.0f, &plain);
      }
      addTermRows(fast.data(), rows.data(), static_cast<int>(rows.size()));
      ASSERT_EQ(firstDifference(fast.data(), plain, first), "") << "round " << round;
    }
  });
}

// Several histograms summed side by side give each the sum of its own bins
// in ascending order: lengths equal, nested, empty, in any order, with
// magnitudes that make the order of additions visible in the last bits.
TEST(LookUpTableHistogram, SumsSideBySideEqualEachAscendingSum) {
  const std::vector<std::vector<std::int64_t>> cases = {
      {0},       {1},          {300},          {7, 7},          {5, 300}, {300, 5}, {0, 0, 0, 0},
      {9, 0, 4}, {1, 2, 3, 4}, {4, 3, 2, 1},   {130, 129, 131, 17}, {64, 64, 0, 200},
  };
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> exponent(-30.f, 10.f);
  for (const auto& lengths : cases) {
    const int count = static_cast<int>(lengths.size());
    std::vector<std::vector<float>> histograms;
    const float* bins[kMaxSums];
    for (const std::int64_t n : lengths) {
      std::vector<float> h(static_cast<std::size_t>(n));
      for (float& v : h) v = std::exp2(exponent(rng)) * (1.f + exponent(rng) / 64.f);
      histograms.push_back(std::move(h));
    }
    for (int h = 0; h < count; ++h) bins[h] = histograms[static_cast<std::size_t>(h)].data();
    float sums[kMaxSums];
    ascendingSums(bins, lengths.data(), count, sums);
    for (int h = 0; h < count; ++h) {
      EXPECT_TRUE(same(sums[h], ascendingSum(bins[h], lengths[static_cast<std::size_t>(h)])))
          << "case of " << count << ", histogram " << h << " of " << lengths[static_cast<std::size_t>(h)] << " bins";
    }
  }
}

// The memo's table for a sigma holds exactly the library's exponentials.
TEST(LookUpTableHistogram, MemoTablesHoldTheLibraryExponentials) {
  SigmaMemo memo;
  int reach = 0;
  for (float s : {2.f, 0.5f, 98.f, 1e-3f}) {
    EXPECT_EQ(memo.find(s, &reach), nullptr) << "a sigma met once gets no table";
    const float* t = memo.find(s, &reach);
    ASSERT_NE(t, nullptr);
    int last = -1;
    for (int d = 0; d <= 255; ++d) {
      const float df = static_cast<float>(d);
      if (std::exp(-(df * df) / s) != 0.f) last = d;
    }
    EXPECT_EQ(reach, last);
    for (int d = -reach - SigmaMemo::kPad; d <= reach + SigmaMemo::kPad; ++d) {
      const float df = static_cast<float>(d);
      const float want = std::abs(d) <= reach ? std::exp(-(df * df) / s) : 0.f;
      ASSERT_EQ(bitsOf(t[d]), bitsOf(want)) << s << " " << d;
    }
  }
}

}  // namespace
