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

// Adds the bins of the chunk at b, bins [at, at + kChunk) of the histogram,
// that lie below n to *sum, in ascending order.
inline void addChunkToSum(const float* b, std::int64_t at, std::int64_t n, float* sum) {
  const std::int64_t end = std::min(kChunk, n - at);
  float s = *sum;
  for (std::int64_t q = 0; q < end; ++q) s += b[q];
  *sum = s;
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
                                                     std::int32_t from, std::int32_t to, std::int64_t sum_n,
                                                     float* sum) {
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
    if (sum != nullptr) addChunkToSum(b, kChunk * c, sum_n, sum);
  }
}
// Two registers a chunk; the bins buffer is only 32-byte aligned, so its
// loads and stores are the unaligned forms.
__attribute__((target("avx512f"))) void addTermRowsAvx512(float* bins, const TermRow* rows, int count,
                                                         std::int32_t from, std::int32_t to, std::int64_t sum_n,
                                                         float* sum) {
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
    if (sum != nullptr) addChunkToSum(b, kChunk * c, sum_n, sum);
  }
}
#endif

void addTermRowsPlain(float* bins, const TermRow* rows, int count, std::int32_t from, std::int32_t to,
                      std::int64_t sum_n, float* sum) {
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
    if (sum != nullptr) addChunkToSum(b, kChunk * c, sum_n, sum);
  }
}

// With a sum, each chunk's bins below sum_n are added to it as soon as the
// chunk is finished (addTermRowsAndSum).
using AddTermRows = void (*)(float*, const TermRow*, int, std::int32_t, std::int32_t, std::int64_t, float*);
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
  addTermRowsIn(bins, rows, count, from, to, 0, nullptr);
}

float addTermRowsAndSum(float* bins, const TermRow* rows, int count, std::int64_t n) {
  std::int32_t from = 0, to = 0;
  chunksReached(rows, count, &from, &to);
  // The zero bins outside [from, to) would add +0 to a sum that is never
  // -0 (it starts at +0, and x + -x is +0), which leaves it as it is.
  float sum = 0.f;
  addTermRowsIn(bins, rows, count, from, to, n, &sum);
  return sum;
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

void normaliseInto(float* bins, std::int64_t n, float sum, float scale, float floor, float log_floor, float* out) {
  if (sum == 0.f) {
    std::fill(out, out + n, log_floor);
    return;
  }
  logShares(bins, n, sum, scale, floor, log_floor);
  internal::streamFloats(out, bins, n);
}

HistogramKernel::HistogramKernel(std::int64_t value_width, std::int64_t height_width, float value_step)
    : storage_(static_cast<std::size_t>(paddedBins(value_width) + paddedBins(height_width) + kAlignSlack)),
      memo_(value_step == 1.0f ? new SigmaMemo() : nullptr) {
  const auto at = reinterpret_cast<std::uintptr_t>(storage_.data());
  constexpr std::uintptr_t kAlign = kAlignSlack * sizeof(float);
  value_bins_ = storage_.data() + ((kAlign - at % kAlign) % kAlign) / sizeof(float);
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
  row_count_ = 0;
  value_rows_added_ = false;
  walker.forEachCell(i, j, [&](const MCell& cell) {
    for (int c = 0; c < 2; ++c) {
      if (r.value_n > 0) {
        TermRow& row = rows_[row_count_];
        if (memoRow(memo, r.value_first, r.value_n, cell.value_weight[c], cell.value_mean[c], cell.value_sigma[c],
                    value_step, &row)) {
          if (row.chunk_from < row.chunk_to && ++row_count_ == kPendingRows) flushValueRows();
        } else {
          flushValueRows();
          addComponent(vbins, r.value_first, r.value_n, cell.value_weight[c], cell.value_mean[c], cell.value_sigma[c],
                       value_step, nullptr);
          value_rows_added_ = true;
        }
      }
      if (r.height_n > 0) {
        GaussianRun& run = pending_[pending_count_];
        run = {cell.height_weight[c], cell.height_mean[c], cell.height_sigma[c], r.height_first, height_last};
        if (r.height_n > kShortRun)
          termRange(run.w, run.mean, run.sigma, height_step, r.height_first, height_last, &run.lo, &run.hi);
        if (++pending_count_ == kPendingRuns) flushHeightRuns(r.height_first, height_step);
      }
    }
  });
  // The value sum is one long chain of dependent additions. When the rows
  // still gathered are all the block's value terms (the usual case), it is
  // taken while they are added; otherwise it is issued before the height
  // exponentials, which do not depend on it, so that the two overlap.
  float value_sum;
  if (!value_rows_added_) {
    value_sum = addTermRowsAndSum(vbins, rows_, row_count_, r.value_n);
    row_count_ = 0;
  } else {
    flushValueRows();
    value_sum = ascendingSum(vbins, r.value_n);
  }
  flushHeightRuns(r.height_first, height_step);
  normaliseInto(vbins, r.value_n, value_sum, scale, floor, log_floor, value_out);
  normaliseInto(hbins, r.height_n, ascendingSum(hbins, r.height_n), scale, floor, log_floor, height_out);
}

void HistogramKernel::flushHeightRuns(std::int64_t first, float height_step) {
  addGaussianRuns(height_bins_, first, pending_, pending_count_, height_step);
  pending_count_ = 0;
}

void HistogramKernel::flushValueRows() {
  if (row_count_ == 0) return;
  addTermRows(value_bins_, rows_, row_count_);
  row_count_ = 0;
  value_rows_added_ = true;
}

void HistogramKernel::finish() {
  internal::fenceStreamedStores();  // streamed stores visible before the region joins
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane
