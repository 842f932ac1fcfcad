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

// A chunk of zeros, read by rows for the chunks they do not reach.
alignas(64) const float kZeroChunk[kChunk] = {};

// The terms `row` adds to chunk c: its own where it reaches the chunk,
// otherwise kZeroChunk, whose products w * 0 are +-0 (memo rows have
// finite weights) and leave every bin as it is (a bin is never -0). The
// choice is made without a branch: which rows reach which chunks follows
// the map and would be mispredicted often, and a wasted product costs less.
inline const float* chunkTerms(const TermRow& row, std::int32_t c) {
  const bool reaches = static_cast<std::uint32_t>(c - row.chunk_from) <
                       static_cast<std::uint32_t>(row.chunk_to - row.chunk_from);
  // Formed as an integer: for a chunk the row does not reach it points
  // outside the row's table and is not used.
  const std::uintptr_t own = reinterpret_cast<std::uintptr_t>(row.terms) +
                             static_cast<std::uintptr_t>(c - row.chunk_from) * (kChunk * sizeof(float));
  const std::uintptr_t mask = std::uintptr_t{0} - static_cast<std::uintptr_t>(reaches);
  return reinterpret_cast<const float*>((own & mask) | (reinterpret_cast<std::uintptr_t>(kZeroChunk) & ~mask));
}

// addTermRows in each instruction set. Every lane is one single-precision
// multiply and one add, as in scalar code (no fused multiply-add), whatever
// the vector width. A chunk's bins stay in registers while the rows go by;
// a row that does not reach the chunk adds zeros (chunkTerms).
#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("avx2"))) void addTermRowsAvx2(float* bins, const TermRow* rows, int count,
                                                     std::int32_t from, std::int32_t to) {
  constexpr int kLanes = kChunk / 8;
  for (std::int32_t c = from; c < to; ++c) {
    float* const b = bins + kChunk * c;
    __m256 a[kLanes];
    for (int q = 0; q < kLanes; ++q) a[q] = _mm256_load_ps(b + 8 * q);
    for (int r = 0; r < count; ++r) {
      const TermRow& row = rows[r];
      const float* const t = chunkTerms(row, c);
      const __m256 w = _mm256_set1_ps(row.w);
      for (int q = 0; q < kLanes; ++q) a[q] = _mm256_add_ps(a[q], _mm256_mul_ps(w, _mm256_loadu_ps(t + 8 * q)));
    }
    for (int q = 0; q < kLanes; ++q) _mm256_store_ps(b + 8 * q, a[q]);
  }
}
// Two registers a chunk; the bins buffer is only 32-byte aligned, so its
// loads and stores are the unaligned forms.
__attribute__((target("avx512f"))) void addTermRowsAvx512(float* bins, const TermRow* rows, int count,
                                                         std::int32_t from, std::int32_t to) {
  constexpr int kLanes = kChunk / 16;
  for (std::int32_t c = from; c < to; ++c) {
    float* const b = bins + kChunk * c;
    __m512 a[kLanes];
    for (int q = 0; q < kLanes; ++q) a[q] = _mm512_loadu_ps(b + 16 * q);
    for (int r = 0; r < count; ++r) {
      const TermRow& row = rows[r];
      const float* const t = chunkTerms(row, c);
      const __m512 w = _mm512_set1_ps(row.w);
      for (int q = 0; q < kLanes; ++q) a[q] = _mm512_add_ps(a[q], _mm512_mul_ps(w, _mm512_loadu_ps(t + 16 * q)));
    }
    for (int q = 0; q < kLanes; ++q) _mm512_storeu_ps(b + 16 * q, a[q]);
  }
}
#endif

void addTermRowsPlain(float* bins, const TermRow* rows, int count, std::int32_t from, std::int32_t to) {
  for (std::int32_t c = from; c < to; ++c) {
    float* const b = bins + kChunk * c;
#if defined(__SSE2__)
    __m128 a[kChunk / 4];
    for (int q = 0; q < kChunk / 4; ++q) a[q] = _mm_load_ps(b + 4 * q);
    for (int r = 0; r < count; ++r) {
      const TermRow& row = rows[r];
      const float* const t = chunkTerms(row, c);
      const __m128 w = _mm_set1_ps(row.w);
      for (int q = 0; q < kChunk / 4; ++q) a[q] = _mm_add_ps(a[q], _mm_mul_ps(w, _mm_loadu_ps(t + 4 * q)));
    }
    for (int q = 0; q < kChunk / 4; ++q) _mm_store_ps(b + 4 * q, a[q]);
#else
    for (int r = 0; r < count; ++r) {
      const TermRow& row = rows[r];
      const float* const t = chunkTerms(row, c);
      for (int q = 0; q < kChunk; ++q) b[q] += row.w * t[q];
    }
#endif
  }
}

using AddTermRows = void (*)(float*, const TermRow*, int, std::int32_t, std::int32_t);
// The rows' loop of `forms`, or nullptr when the processor lacks it.
AddTermRows addTermRowsOf(VectorMath forms) {
#if defined(__x86_64__) || defined(__i386__)
  if (forms == VectorMath::kAvx512) return __builtin_cpu_supports("avx512f") ? addTermRowsAvx512 : nullptr;
  if (forms == VectorMath::kAvx2) return __builtin_cpu_supports("avx2") ? addTermRowsAvx2 : nullptr;
#else
  if (forms != VectorMath::kPlain) return nullptr;
#endif
  return addTermRowsPlain;
}
// The widest rows' loop the processor runs, chosen once at start (the
// rows need no self-check: they call no library function).
AddTermRows widestAddTermRows() {
  for (const VectorMath forms : {VectorMath::kAvx512, VectorMath::kAvx2}) {
    if (const AddTermRows rows = addTermRowsOf(forms)) return rows;
  }
  return addTermRowsPlain;
}
AddTermRows addTermRowsIn = widestAddTermRows();

// Floats of slack that let a buffer start on a 32-byte boundary.
constexpr std::int64_t kAlignSlack = 8;

}  // namespace

SigmaMemo::SigmaMemo()
    : slots_(kSlots), arena_(new float[static_cast<std::size_t>(kTables) * (511 + kPad) + kPad]), arena_used_(kPad) {
  std::fill(arena_.get(), arena_.get() + kPad, 0.f);
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
    // The zeros on the left are those behind the previous table (or the
    // arena's first kPad), so each table adds its span and kPad zeros.
    t.centre = arena_used_ + std::max(last, 0);
    float* const centre = arena_.get() + t.centre;
    for (int d = 0; d <= std::max(last, 0) + kPad; ++d) {
      const float v = d <= last ? values[d] : 0.f;
      centre[d] = v;
      if (d <= std::max(last, 0)) centre[-d] = v;
    }
    arena_used_ += 2 * std::max(last, 0) + 1 + kPad;
    slot->table = static_cast<std::int32_t>(tables_.size());
    tables_.push_back(t);
  }
  const Table& t = tables_[static_cast<std::size_t>(slot->table)];
  *reach = t.reach;
  return arena_.get() + t.centre;
}

bool useVectorForms(VectorMath forms) {
  const AddTermRows rows = addTermRowsOf(forms);
  const bool math = useVectorMath(forms);
  if (rows != nullptr) addTermRowsIn = rows;
  return rows != nullptr && math;
}

namespace {

// The chunks [*from, *to) that some row reaches; empty when none does.
void chunksReached(const TermRow* rows, int count, std::int32_t* from, std::int32_t* to) {
  *from = *to = 0;
  for (int r = 0; r < count; ++r) {
    if (rows[r].chunk_from >= rows[r].chunk_to) continue;
    if (*from == *to) {
      *from = rows[r].chunk_from;
      *to = rows[r].chunk_to;
    }
    *from = std::min(*from, rows[r].chunk_from);
    *to = std::max(*to, rows[r].chunk_to);
  }
}

}  // namespace

void addTermRows(float* bins, const TermRow* rows, int count) {
  std::int32_t from = 0, to = 0;
  chunksReached(rows, count, &from, &to);
  addTermRowsIn(bins, rows, count, from, to);
}

bool memoRow(SigmaMemo* memo, std::int64_t first, std::int64_t n, float w, float mean, float sigma, float step,
             TermRow* row) {
  const std::int64_t last = first + n - 1;
  if (memo == nullptr || !(step == 1.0f && mean >= 0.f && mean <= 255.f && mean == std::floor(mean) &&
                           std::isfinite(w) && std::isfinite(sigma) && sigma > 0.f && first >= 0 && last <= 255))
    return false;
  // Value axis, step 1, whole-number mean: z - mean = k - m exactly, and
  // the term of bin k is w * T[k - m].
  int reach = 0;
  const float* const table = memo->find(sigma, &reach);
  if (table == nullptr) return false;
  const auto m = static_cast<std::int64_t>(mean);
  const std::int64_t lo = std::max(first, m - reach), hi = std::min(last, m + reach);
  row->w = w;
  row->terms = table;
  row->chunk_from = row->chunk_to = 0;
  if (lo > hi) return true;
  // Widened to whole chunks: the extra bins below lo and above hi read the
  // table's zeros (|k - m| <= reach + kPad) or lie in the padding behind
  // the histogram; w is finite, so their terms are +-0 and leave them as
  // they are.
  row->chunk_from = static_cast<std::int32_t>((lo - first) / kChunk);
  row->chunk_to = static_cast<std::int32_t>((hi - first) / kChunk + 1);
  row->terms = table + (first + kChunk * row->chunk_from - m);
  return true;
}

void addComponent(float* bins, std::int64_t first, std::int64_t n, float w, float mean, float sigma, float step,
                  SigmaMemo* memo) {
  TermRow row;
  if (memoRow(memo, first, n, w, mean, sigma, step, &row)) {
    addTermRows(bins, &row, 1);
    return;
  }
  const std::int64_t last = first + n - 1;
  // Long runs are first cut down to the bins that can hold mass; every
  // remaining bin forms its exponent exactly as defined and is skipped
  // when the exponent is below -104, where expf is exactly +0 and a finite
  // weight makes the term +-0.
  std::int64_t lo = first, hi = last;
  if (n > kShortRun) termRange(w, mean, sigma, step, first, last, &lo, &hi);
  addGaussianTerms(bins, first, lo, hi, w, mean, sigma, step);
}

float ascendingSum(const float* bins, std::int64_t n) {
  float sum = 0.f;
  for (std::int64_t k = 0; k < n; ++k) sum += bins[k];
  return sum;
}

namespace {

// Bins [from, to) of the `Chains` histograms b[0..Chains) added to their
// sums s[0..Chains), each in ascending order: the chains interleave.
template <int Chains>
void addSideBySide(const float* const* b, float* s, std::int64_t from, std::int64_t to) {
  float acc[Chains];
  for (int h = 0; h < Chains; ++h) acc[h] = s[h];
  for (std::int64_t k = from; k < to; ++k) {
    for (int h = 0; h < Chains; ++h) acc[h] += b[h][k];
  }
  for (int h = 0; h < Chains; ++h) s[h] = acc[h];
}

}  // namespace

void ascendingSums(const float* const* bins, const std::int64_t* n, int count, float* sums) {
  static_assert(kMaxSums == 4, "one case below for each number of chains");
  // Shortest first: while k is below the shortest remaining length, every
  // remaining histogram takes bin k in the same loop.
  int order[kMaxSums];
  for (int h = 0; h < count; ++h) {
    int at = h;
    for (; at > 0 && n[order[at - 1]] > n[h]; --at) order[at] = order[at - 1];
    order[at] = h;
  }
  const float* b[kMaxSums];
  float s[kMaxSums];
  for (int h = 0; h < count; ++h) {
    b[h] = bins[order[h]];
    s[h] = 0.f;
  }
  std::int64_t done = 0;
  for (int h = 0; h < count; ++h) {
    const std::int64_t to = std::max(done, n[order[h]]);
    switch (count - h) {
      case 4: addSideBySide<4>(b + h, s + h, done, to); break;
      case 3: addSideBySide<3>(b + h, s + h, done, to); break;
      case 2: addSideBySide<2>(b + h, s + h, done, to); break;
      default: addSideBySide<1>(b + h, s + h, done, to); break;
    }
    done = to;
  }
  for (int h = 0; h < count; ++h) sums[order[h]] = s[h];
}

void normaliseInto(float* bins, std::int64_t n, float sum, float scale, float floor, float log_floor, float* out) {
  if (sum == 0.f) {
    std::fill(out, out + n, log_floor);
    return;
  }
  logShares(bins, n, sum, scale, floor, log_floor);
  internal::streamFloats(out, bins, n);
}

HistogramKernel::HistogramKernel(std::int64_t value_width, std::int64_t height_width, float value_step, float scale,
                                 float floor)
    : scale_(scale),
      floor_(floor),
      log_floor_(std::log(floor)),
      storage_(static_cast<std::size_t>(kMaxSums * (paddedBins(value_width) + paddedBins(height_width)) +
                                        kAlignSlack)),
      memo_(value_step == 1.0f ? new SigmaMemo() : nullptr) {
  const auto at = reinterpret_cast<std::uintptr_t>(storage_.data());
  constexpr std::uintptr_t kAlign = kAlignSlack * sizeof(float);
  float* next = storage_.data() + ((kAlign - at % kAlign) % kAlign) / sizeof(float);
  for (int h = 0; h < kMaxSums; ++h) {
    value_bins_[h] = next;
    height_bins_[h] = next + paddedBins(value_width);
    next = height_bins_[h] + paddedBins(height_width);
  }
}

void HistogramKernel::build(const BlockWalker& walker, std::int64_t i, std::int64_t j, const BlockRanges& r,
                            float value_step, float height_step, float* value_out, float* height_out) {
  float* const vbins = value_bins_[pending_count_];
  float* const hbins = height_bins_[pending_count_];
  SigmaMemo* const memo = memo_.get();
  std::fill(vbins, vbins + paddedBins(r.value_n), 0.f);
  std::fill(hbins, hbins + r.height_n, 0.f);
  const std::int64_t height_last = r.height_first + r.height_n - 1;
  run_count_ = 0;
  row_count_ = 0;
  walker.forEachCell(i, j, [&](const MCell& cell) {
    for (int c = 0; c < 2; ++c) {
      if (r.value_n > 0) {
        TermRow& row = rows_[row_count_];
        if (memoRow(memo, r.value_first, r.value_n, cell.value_weight[c], cell.value_mean[c], cell.value_sigma[c],
                    value_step, &row)) {
          if (row.chunk_from < row.chunk_to && ++row_count_ == kPendingRows) flushValueRows(vbins);
        } else {
          flushValueRows(vbins);
          addComponent(vbins, r.value_first, r.value_n, cell.value_weight[c], cell.value_mean[c], cell.value_sigma[c],
                       value_step, nullptr);
        }
      }
      if (r.height_n > 0) {
        GaussianRun& run = runs_[run_count_];
        run = {cell.height_weight[c], cell.height_mean[c], cell.height_sigma[c], r.height_first, height_last};
        if (r.height_n > kShortRun)
          termRange(run.w, run.mean, run.sigma, height_step, r.height_first, height_last, &run.lo, &run.hi);
        if (++run_count_ == kPendingRuns) flushHeightRuns(hbins, r.height_first, height_step);
      }
    }
  });
  flushValueRows(vbins);
  flushHeightRuns(hbins, r.height_first, height_step);
  pending_[pending_count_] = {r.value_n, r.height_n, value_out, height_out};
  if (++pending_count_ == kMaxSums) normalisePending();
}

void HistogramKernel::normalisePending() {
  if (pending_count_ == 0) return;
  // Value histograms in the first kMaxSums places, height histograms in
  // the next.
  const float* bins[2 * kMaxSums] = {};
  std::int64_t n[2 * kMaxSums] = {};
  float sums[2 * kMaxSums] = {};
  for (int h = 0; h < pending_count_; ++h) {
    bins[h] = value_bins_[h];
    n[h] = pending_[h].value_n;
    bins[kMaxSums + h] = height_bins_[h];
    n[kMaxSums + h] = pending_[h].height_n;
  }
  ascendingSums(bins, n, pending_count_, sums);
  ascendingSums(bins + kMaxSums, n + kMaxSums, pending_count_, sums + kMaxSums);
  for (int h = 0; h < pending_count_; ++h) {
    const Pending& p = pending_[h];
    normaliseInto(value_bins_[h], p.value_n, sums[h], scale_, floor_, log_floor_, p.value_out);
    normaliseInto(height_bins_[h], p.height_n, sums[kMaxSums + h], scale_, floor_, log_floor_, p.height_out);
  }
  pending_count_ = 0;
}

void HistogramKernel::flushHeightRuns(float* bins, std::int64_t first, float height_step) {
  addGaussianRuns(bins, first, runs_, run_count_, height_step);
  run_count_ = 0;
}

void HistogramKernel::flushValueRows(float* bins) {
  if (row_count_ == 0) return;
  addTermRows(bins, rows_, row_count_);
  row_count_ = 0;
}

void HistogramKernel::finish() {
  normalisePending();
  internal::fenceStreamedStores();  // streamed stores visible before the region joins
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane
