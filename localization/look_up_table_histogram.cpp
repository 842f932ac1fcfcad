#include "localization/look_up_table_histogram.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "localization/look_up_table_exact.h"
#include "localization/look_up_table_exp_log.h"
#include "localization/streaming_store.h"

namespace zorvane {
namespace localization {
namespace lut {
namespace {

// Runs of at most this many bins are evaluated bin by bin without first
// bounding the bins that can hold mass.
constexpr std::int64_t kShortRun = 32;

// Bins [*lo, *hi] of [first, last] outside which the component's term is
// surely +-0 (exp argument below -104), or all of [first, last] when that
// cannot be shown. Skipping needs a finite weight (w * 0 is then +-0), a
// finite mean, a finite positive sigma and step, and bin indices small
// enough that k * step is computed to well within a bin.
void termRange(float w, float mean, float sigma, float step, std::int64_t first, std::int64_t last, std::int64_t* lo,
               std::int64_t* hi) {
  *lo = first;
  *hi = last;
  constexpr std::int64_t kExactIndex = std::int64_t{1} << 22;
  if (!(std::isfinite(w) && std::isfinite(mean) && std::isfinite(sigma) && sigma > 0.f && std::isfinite(step) &&
        step > 0.f))
    return;
  if (first < -kExactIndex || last > kExactIndex) return;
  // |z - mean| > reach means -(z - mean)^2 / sigma < -105, and the two bins
  // of margin absorb the single-precision rounding of z and z - mean.
  const double reach = std::sqrt(105.0 * static_cast<double>(sigma));
  const double from = std::floor((static_cast<double>(mean) - reach) / step) - 2.0;
  const double to = std::ceil((static_cast<double>(mean) + reach) / step) + 2.0;
  if (from > static_cast<double>(*lo))
    *lo = from > static_cast<double>(last) ? last + 1 : static_cast<std::int64_t>(from);
  if (to < static_cast<double>(*hi)) *hi = to < static_cast<double>(first) ? first - 1 : static_cast<std::int64_t>(to);
}

// out[q] += w * src[q] for q < kGroup * groups; out is 32-byte aligned.
// Each lane is one single-precision multiply and one add, as in scalar code
// (no fused multiply-add), whatever the vector width. Written with
// intrinsics so that the stores and the next component's loads of `out`
// always fall on the same aligned groups (a compiler-vectorised loop may
// align on `src` instead, and reloading a group that straddles two recent
// stores stalls).
#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("avx2"))) void addScaledGroupsAvx2(float* out, const float* src, float w, std::int64_t groups) {
  const __m256 weight = _mm256_set1_ps(w);
  for (std::int64_t g = 0; g < groups; ++g) {
    const __m256 term = _mm256_mul_ps(weight, _mm256_loadu_ps(src + kGroup * g));
    _mm256_store_ps(out + kGroup * g, _mm256_add_ps(_mm256_load_ps(out + kGroup * g), term));
  }
}
#endif

void addScaledGroupsSse(float* out, const float* src, float w, std::int64_t groups) {
#if defined(__SSE2__)
  const __m128 weight = _mm_set1_ps(w);
  for (std::int64_t q = 0; q < kGroup * groups; q += 4) {
    const __m128 term = _mm_mul_ps(weight, _mm_loadu_ps(src + q));
    _mm_store_ps(out + q, _mm_add_ps(_mm_load_ps(out + q), term));
  }
#else
  for (std::int64_t q = 0; q < kGroup * groups; ++q) out[q] += w * src[q];
#endif
}

bool cpuHasAvx2() {
#if defined(__x86_64__) || defined(__i386__)
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

using AddScaledGroups = void (*)(float*, const float*, float, std::int64_t);
AddScaledGroups pickAddScaledGroups(bool wide) {
#if defined(__x86_64__) || defined(__i386__)
  if (wide && cpuHasAvx2()) return addScaledGroupsAvx2;
#endif
  return addScaledGroupsSse;
}
// Chosen once by the processor's features.
AddScaledGroups addScaledGroups = pickAddScaledGroups(true);

}  // namespace

SigmaMemo::SigmaMemo() : slots_(kSlots), arena_(new float[static_cast<std::size_t>(kTables) * (511 + 2 * kPad)]) {
  tables_.reserve(static_cast<std::size_t>(kTables));
}

const float* SigmaMemo::find(float s, int* reach) {
  const std::uint32_t key = bitsOf(s);
  std::uint32_t index = (key * 0x9E3779B1u) >> (32 - kSlotBits);
  Slot* slot = &slots_[index];
  while (slot->key != key) {
    if (slot->key == 0u) {
      // First sight: remember it, unless the slots are half full.
      if (used_slots_ < kSlots / 2) {
        slot->key = key;
        ++used_slots_;
      }
      return nullptr;
    }
    index = (index + 1) & (kSlots - 1);
    slot = &slots_[index];
  }
  if (slot->table < 0) {
    if (tables_.size() == static_cast<std::size_t>(kTables)) return nullptr;
    float values[256];
    int last = -1;
    for (int d = 0; d <= 255; ++d) {
      const float df = static_cast<float>(d);
      values[d] = std::exp(-(df * df) / s);
      if (values[d] != 0.f) last = d;
    }
    Table t;
    t.reach = last;
    t.centre = arena_used_ + kPad + std::max(last, 0);
    float* const centre = arena_.get() + t.centre;
    for (int d = 0; d <= std::max(last, 0) + kPad; ++d) {
      const float v = d <= last ? values[d] : 0.f;
      centre[d] = v;
      centre[-d] = v;
    }
    arena_used_ += 2 * (std::max(last, 0) + kPad) + 1;
    slot->table = static_cast<std::int32_t>(tables_.size());
    tables_.push_back(t);
  }
  const Table& t = tables_[static_cast<std::size_t>(slot->table)];
  *reach = t.reach;
  return arena_.get() + t.centre;
}

bool useWideVectors(bool wide) {
  addScaledGroups = pickAddScaledGroups(wide);
  const bool exact_math = useExactVectorMath(wide);
  return !wide || (cpuHasAvx2() && exact_math);
}

void addComponent(float* bins, std::int64_t first, std::int64_t n, float w, float mean, float sigma, float step,
                  SigmaMemo* memo) {
  const std::int64_t last = first + n - 1;
  if (memo != nullptr && step == 1.0f && mean >= 0.f && mean <= 255.f && mean == std::floor(mean) && std::isfinite(w) &&
      std::isfinite(sigma) && sigma > 0.f && first >= 0 && last <= 255) {
    // Value axis, step 1, whole-number mean: z - mean = k - m exactly.
    int reach = 0;
    if (const float* table = memo->find(sigma, &reach)) {
      const auto m = static_cast<std::int64_t>(mean);
      const std::int64_t lo = std::max(first, m - reach), hi = std::min(last, m + reach);
      if (lo > hi) return;
      // Widened to whole groups from the start of `bins`: the extra bins
      // get w * 0 (the table is 0 for reach < |d| <= reach + kPad, and w is
      // finite) or lie in the padding behind the histogram.
      const float* t = table - m;  // t[k] = T[k - m]
      const std::int64_t from = (lo - first) / kGroup * kGroup, to = (hi - first) / kGroup * kGroup + kGroup;
      addScaledGroups(bins + from, t + (first + from), w, (to - from) / kGroup);
      return;
    }
  }
  // Long runs are first cut down to the bins that can hold mass; every
  // remaining bin forms its exponent exactly as defined and is skipped
  // when the exponent is below -104, where expf is exactly +0 and a finite
  // weight makes the term +-0.
  std::int64_t lo = first, hi = last;
  if (n > kShortRun) termRange(w, mean, sigma, step, first, last, &lo, &hi);
  addGaussianTerms(bins, first, lo, hi, w, mean, sigma, step);
}

void normaliseInto(float* bins, std::int64_t n, float scale, float floor, float log_floor, float* out) {
  float sum = 0.f;
  for (std::int64_t k = 0; k < n; ++k) sum += bins[k];
  if (sum == 0.f) {
    std::fill(out, out + n, log_floor);
    return;
  }
  logShares(bins, n, sum, scale, floor, log_floor);
  internal::streamFloats(out, bins, n);
}

HistogramKernel::HistogramKernel(std::int64_t value_width, std::int64_t height_width, float value_step)
    : storage_(static_cast<std::size_t>(paddedBins(value_width) + paddedBins(height_width) + kGroup)),
      memo_(value_step == 1.0f ? new SigmaMemo() : nullptr) {
  const auto at = reinterpret_cast<std::uintptr_t>(storage_.data());
  value_bins_ = storage_.data() +
                ((kGroup * sizeof(float) - at % (kGroup * sizeof(float))) % (kGroup * sizeof(float))) / sizeof(float);
  height_bins_ = value_bins_ + paddedBins(value_width);
}

void HistogramKernel::build(const BlockWalker& walker, std::int64_t i, std::int64_t j, const BlockRanges& r,
                            float value_step, float height_step, float scale, float floor, float log_floor,
                            float* value_out, float* height_out) {
  float* const vbins = value_bins_;
  float* const hbins = height_bins_;
  SigmaMemo* const memo = memo_.get();
  std::fill(vbins, vbins + paddedBins(r.value_n), 0.f);
  std::fill(hbins, hbins + r.height_n, 0.f);
  const std::int64_t height_last = r.height_first + r.height_n - 1;
  pending_count_ = 0;
  walker.forEachCell(i, j, [&](const MCell& cell) {
    for (int c = 0; c < 2; ++c) {
      if (r.value_n > 0)
        addComponent(vbins, r.value_first, r.value_n, cell.value_weight[c], cell.value_mean[c], cell.value_sigma[c],
                     value_step, memo);
      if (r.height_n > 0) {
        GaussianRun& run = pending_[pending_count_];
        run = {cell.height_weight[c], cell.height_mean[c], cell.height_sigma[c], r.height_first, height_last};
        if (r.height_n > kShortRun)
          termRange(run.w, run.mean, run.sigma, height_step, r.height_first, height_last, &run.lo, &run.hi);
        if (++pending_count_ == kPendingRuns) flushHeightRuns(r.height_first, height_step);
      }
    }
  });
  flushHeightRuns(r.height_first, height_step);
  normaliseInto(vbins, r.value_n, scale, floor, log_floor, value_out);
  normaliseInto(hbins, r.height_n, scale, floor, log_floor, height_out);
}

void HistogramKernel::flushHeightRuns(std::int64_t first, float height_step) {
  addGaussianRuns(height_bins_, first, pending_, pending_count_, height_step);
  pending_count_ = 0;
}

void HistogramKernel::finish() {
  internal::fenceStreamedStores();  // streamed stores visible before the region joins
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane
