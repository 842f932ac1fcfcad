// GridMatrix::getLookUpTable; the contract is in look_up_table.h.
//
// The stated algorithm builds one heap histogram per coarse position and
// axis, bin by bin, each bin walking the whole block again and calling exp
// for every component. This builder produces the same bits with far less
// work and memory:
//
//  1. A range pass (parallel) writes each position's bin counts and first
//     bins into its record; a serial prefix sum gives the offsets; the two
//     sequences are sized once; a fill pass (parallel) then writes every
//     histogram straight into its final place. No per-position allocation.
//  2. Bins are independent, so instead of bin-outer loops a block's cells
//     are visited once, cell by cell and component by component, adding one
//     term into every bin. Each bin still receives the same additions in the
//     same order (block order, component 0 then 1).
//  3. Terms that are exactly zero are not computed. Far from its mean a
//     component's exp argument drops below -103.97, where expf returns +0;
//     a finite weight times +0 is +-0, and adding +-0 to a running bin
//     (which starts at +0 and can never become -0) changes nothing. The
//     skipped bins are found conservatively in double precision.
//  4. On the value axis with step 1 and whole-number means, z - mean is an
//     exact integer d, so exp(-(d*d)/sigma) depends only on |d| and the
//     prepared sigma. Loaded maps hold a few thousand distinct sigmas; each
//     thread keeps a table of these exponentials per sigma it meets twice,
//     and the value axis becomes a multiply-add over contiguous floats.
//  5. Normalisation calls log only where the argument differs from
//     prob_floor_ itself (every empty bin), whose logarithm is computed once.
//
// exp and log are always the library's float functions, the same calls the
// plain algorithm makes; nothing here approximates them.
#include "localization/look_up_table.h"

#include <omp.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "localization/parallel_split.h"

namespace zorvane {
namespace localization {
namespace {

constexpr std::int64_t kMaxHeightBins = 65535;  // the clip; fits height_bins

// Saturating float-to-int32 conversion; NaN converts to 0.
std::int32_t toInt32(float v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0f) return std::numeric_limits<std::int32_t>::max();
  if (v <= -2147483648.0f) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(v);
}

// Nearest whole number, halves away from zero, then saturated: the same
// result as toInt32(std::round(v)), without the library call. Below 2^23 in
// magnitude v - trunc(v) is exact; from 2^23 on every float is whole.
inline std::int32_t roundToBin(float v) {
  if (!(std::fabs(v) < 2147483648.0f)) return toInt32(v);
  const auto t = static_cast<std::int32_t>(v);  // towards zero
  const float rest = v - static_cast<float>(t);
  // Without branches: which way a bound rounds is data, not a pattern.
  return t + static_cast<std::int32_t>(rest >= 0.5f) - static_cast<std::int32_t>(rest <= -0.5f);
}

// The low 16 bits of a histogram's first bin, taken through f32 as the
// stated packing does. (First bins are rounded f32 values, the sentinels or
// INT32_MIN, all exactly representable, so the round trip never changes
// them.)
std::int16_t firstField(std::int64_t first) {
  const auto held = static_cast<std::int64_t>(static_cast<float>(first));
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<std::uint64_t>(held) & 0xFFFFu));
}

// Cache hint for the line holding p. A plain __builtin_prefetch in a loop
// that does nothing else is deleted by the optimiser as a loop without
// effects; the volatile asm stays.
inline void prefetch(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(p)));
#else
  __builtin_prefetch(p);
#endif
}

// The grid-position rectangle of one coarse position's block that lies
// inside the matrix: columns x0 + a for a in [a_begin, a_end), rows y0 + b
// for b in [b_begin, b_end).
struct BlockWindow {
  std::int64_t x0 = 0, y0 = 0;
  std::int64_t a_begin = 0, a_end = 0;
  std::int64_t b_begin = 0, b_end = 0;
};

class BlockWalker {
 public:
  BlockWalker(const GridMatrix& m, const GridMatrixTable& t, int factor)
      : cells_(m.cells_.data()),
        index_(m.index_.data()),
        cell_count_(static_cast<std::int64_t>(m.cells_.size())),
        index_size_(static_cast<std::int64_t>(m.index_.size())),
        cols_(m.cols_),
        rows_(m.rows_),
        factor_(factor),
        matrix_offset_x_(m.offset_x_),
        matrix_offset_y_(m.offset_y_),
        table_offset_x_(t.offset_x_),
        table_offset_y_(t.offset_y_) {}

  // Calls fn(cell) for every taking-part cell of coarse position (i, j), in
  // block order (a outer, b inner).
  template <class Fn>
  void forEachCell(std::int64_t i, std::int64_t j, Fn&& fn) const {
    BlockWindow w;
    if (!window(i, j, &w)) return;
    // Occupancy looks random to the branch predictor, so each column of
    // the block is first compacted into a list of its cells without
    // branching, a stretch of at most kStretch positions at a time.
    constexpr std::int64_t kStretch = 32;
    const MCell* found[kStretch];
    for (std::int64_t a = w.a_begin; a < w.a_end; ++a) {
      const std::int64_t x = w.x0 + a;
      // Rows whose flat position lies inside index_: y * cols_ + x < size.
      const std::int64_t indexed_rows = x < index_size_ ? (index_size_ - x + cols_ - 1) / cols_ : 0;
      const std::int64_t b_end = std::min(w.b_end, indexed_rows - w.y0);
      for (std::int64_t b = w.b_begin; b < b_end; b += kStretch) {
        const std::int64_t stretch_end = std::min(b_end, b + kStretch);
        int count = 0;
        for (std::int64_t q = b; q < stretch_end; ++q) {
          const std::int32_t e = index_[(w.y0 + q) * cols_ + x];
          const bool valid = (e >= 0) & (e < cell_count_);
          found[count] = cells_ + (valid ? e : 0);
          count += valid;
        }
        for (int k = 0; k < count; ++k) fn(*found[k]);
      }
    }
  }

  // Cache hints for a block that will be visited soon: its index entries,
  // or (once those are likely cached) its cells. Cells are 64-byte records
  // spread over several grid rows; without the hints both passes wait on
  // memory for most of their time.
  void prefetchIndex(std::int64_t i, std::int64_t j) const {
    BlockWindow w;
    if (!window(i, j, &w)) return;
    for (std::int64_t b = w.b_begin; b < w.b_end; ++b) {
      const std::int64_t row = (w.y0 + b) * cols_;
      const std::int64_t from = row + w.x0 + w.a_begin, to = row + w.x0 + w.a_end - 1;
      if (to >= index_size_) break;
      prefetch(index_ + from);
      prefetch(index_ + to);
    }
  }
  void prefetchCells(std::int64_t i, std::int64_t j) const {
    forEachCell(i, j, [](const MCell& cell) { prefetch(&cell); });
  }

 private:
  // One axis: first grid line of the block (i - table offset) * factor +
  // matrix offset, and the part of [0, factor) inside [0, extent).
  bool axisWindow(std::int64_t i, std::int64_t table_offset, std::int64_t matrix_offset,
                  std::int64_t extent, std::int64_t* origin, std::int64_t* begin,
                  std::int64_t* end) const {
    std::int64_t o = 0;
    if (__builtin_mul_overflow(i - table_offset, static_cast<std::int64_t>(factor_), &o)) return false;
    if (__builtin_add_overflow(o, matrix_offset, &o)) return false;
    if (o >= extent || o <= -static_cast<std::int64_t>(factor_)) return false;
    *origin = o;
    *begin = std::max<std::int64_t>(0, -o);
    *end = std::min<std::int64_t>(factor_, extent - o);
    return *begin < *end;
  }

  bool window(std::int64_t i, std::int64_t j, BlockWindow* w) const {
    if (factor_ < 1) return false;
    return axisWindow(i, table_offset_x_, matrix_offset_x_, cols_, &w->x0, &w->a_begin, &w->a_end) &&
           axisWindow(j, table_offset_y_, matrix_offset_y_, rows_, &w->y0, &w->b_begin, &w->b_end);
  }

  const MCell* cells_;
  const std::int32_t* index_;
  std::int64_t cell_count_, index_size_;
  std::int64_t cols_, rows_;
  int factor_;
  std::int64_t matrix_offset_x_, matrix_offset_y_;
  std::int64_t table_offset_x_, table_offset_y_;
};

// Blocks are visited row of blocks by row of blocks, left to right, so that
// the index entries and the cells of one row of blocks are read as a few
// forward streams; hint the cells of the block kCellsAhead columns on.
constexpr std::int64_t kCellsAhead = 4;

inline void prefetchAhead(const BlockWalker& walker, std::int64_t i, std::int64_t j, std::int64_t columns) {
  if (i + kCellsAhead < columns) walker.prefetchCells(i + kCellsAhead, j);
}

// Sizes a table sequence to n zeros. A fresh block of hundreds of megabytes
// is first faulted in by the whole team (the kernel zeroes new pages as they
// are faulted, which would otherwise all happen on the calling thread); the
// resize then only writes resident memory. Where the kernel does not offer
// the request, the resize faults the pages itself.
void sizeResident(MapVector<float>& v, std::size_t n, int team) {
  v.reserve(n);
  constexpr std::uintptr_t kPage = 4096;
  constexpr std::uintptr_t kChunk = std::uintptr_t{2} << 20;
  const auto start = reinterpret_cast<std::uintptr_t>(v.data());
  const std::uintptr_t begin = (start + kPage - 1) & ~(kPage - 1);
  const std::uintptr_t end = (start + n * sizeof(float)) & ~(kPage - 1);
#if defined(MADV_POPULATE_WRITE)
  if (team > 1 && end > begin + 4 * kChunk) {
    const auto chunks = static_cast<std::int64_t>((end - begin + kChunk - 1) / kChunk);
#pragma omp parallel num_threads(team)
    {
      const WorkRange range = staticSplit(chunks, omp_get_num_threads(), omp_get_thread_num());
      const std::uintptr_t from = begin + static_cast<std::uintptr_t>(range.begin) * kChunk;
      const std::uintptr_t to = std::min(end, begin + static_cast<std::uintptr_t>(range.end) * kChunk);
      if (to > from) (void)madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
    }
  }
#else
  (void)team;
#endif
  v.resize(n);
}

// Bin ranges of one block: value bins [value_first, value_first + value_n),
// height bins likewise; n == 0 (with first 0) for an empty histogram.
struct BlockRanges {
  std::int64_t value_first = 0, value_n = 0;
  std::int64_t height_first = 0, height_n = 0;
  std::int64_t cells = 0;  // taking-part cells
};

BlockRanges blockRanges(const BlockWalker& walker, std::int64_t i, std::int64_t j, float value_step,
                        float height_step) {
  std::int32_t value_low = 10000, value_high = -10000;
  std::int32_t height_low = 10000, height_high = -10000;
  std::int64_t cells = 0;
  walker.forEachCell(i, j, [&](const MCell& cell) {
    ++cells;
    for (int c = 0; c < 2; ++c) {
      const float vs = cell.value_sigma[c], hs = cell.height_sigma[c];
      value_low = std::min(value_low, roundToBin((cell.value_mean[c] - (vs + vs)) / value_step));
      value_high = std::max(value_high, roundToBin((cell.value_mean[c] + (vs + vs)) / value_step));
      height_low = std::min(height_low, roundToBin((cell.height_mean[c] - (hs + hs)) / height_step));
      height_high = std::max(height_high, roundToBin((cell.height_mean[c] + (hs + hs)) / height_step));
    }
  });
  BlockRanges r;
  r.cells = cells;
  const std::int64_t value_first = std::max<std::int32_t>(value_low, 0);
  const std::int64_t value_last = std::min<std::int32_t>(value_high, 255);
  if (value_last >= value_first) {
    r.value_first = value_first;
    r.value_n = value_last - value_first + 1;
  }
  if (height_high >= height_low) {
    r.height_first = height_low;
    r.height_n = std::min<std::int64_t>(static_cast<std::int64_t>(height_high) - height_low + 1, kMaxHeightBins);
  }
  return r;
}

// Subnormal floats. On many x86 cores every arithmetic instruction with a
// subnormal operand or result takes a microcode assist costing some hundred
// cycles, and the tails of every Gaussian pass through the subnormal range.
// Where a term or a bin may be subnormal, the builder either shows that the
// operation cannot change the bin, or carries it out exactly in double
// precision on exactly converted operands: a product of two floats is exact
// in double, and the sum of two floats computed in double and then rounded
// to float is the correctly rounded float sum (53 >= 2 * 24 + 1 bits, so the
// double rounding is harmless; a subnormal sum is exact in both).
inline std::uint32_t bitsOf(float f) {
  std::uint32_t b = 0;
  std::memcpy(&b, &f, sizeof b);
  return b;
}
inline float floatOf(std::uint32_t b) {
  float f = 0.f;
  std::memcpy(&f, &b, sizeof f);
  return f;
}
constexpr std::uint32_t kSmallestNormalBits = 0x00800000u;  // 2^-126
constexpr float kTinyTerm = 0x1p-100f;                       // see addMemoRun
constexpr std::uint32_t kUnmovedBinBits = 0x26800000u;       // 2^-50

inline bool isSubnormal(float f) {
  const std::uint32_t magnitude = bitsOf(f) & 0x7fffffffu;
  return magnitude != 0 && magnitude < kSmallestNormalBits;
}

// f as a double, without a floating-point operation on a subnormal.
inline double exactDouble(float f) {
  const std::uint32_t b = bitsOf(f);
  if ((b & 0x7f800000u) != 0) return static_cast<double>(f);
  const double magnitude = static_cast<double>(static_cast<std::int32_t>(b & 0x7fffffu)) * 0x1p-149;
  return (b >> 31) != 0 ? -magnitude : magnitude;
}

// d rounded to float (to nearest, ties to even), building a subnormal
// result from its bits.
inline float roundedFloat(double d) {
  const double magnitude = std::fabs(d);
  if (!(magnitude < 0x1p-126)) return static_cast<float>(d);
  // magnitude * 2^149 < 2^23: adding and removing 2^52 rounds it to a whole
  // number, to nearest with ties to even, as the float operation would.
  const double scaled = magnitude * 0x1p149;
  const auto units = static_cast<std::uint32_t>((scaled + 0x1p52) - 0x1p52);
  return floatOf(units | (std::signbit(d) ? 0x80000000u : 0u));
}

// x + w * e in single precision (the product rounded first), bit for bit,
// with no subnormal reaching the FPU.
inline float exactMulAdd(float x, float w, float e) {
  const float product = roundedFloat(exactDouble(w) * exactDouble(e));
  return roundedFloat(exactDouble(x) + exactDouble(product));
}

// x += w * e, taking the hardware path when no operand or result can be
// subnormal: e >= 2^-100 and 2^-20 <= |w| <= 2^20 keep the product normal.
inline void addProduct(float& x, float w, float e, bool w_moderate) {
  if (w_moderate && e >= kTinyTerm && !isSubnormal(x)) {
    x += w * e;
  } else {
    x = exactMulAdd(x, w, e);
  }
}

inline bool moderate(float w) {
  const float a = std::fabs(w);
  return a >= 0x1p-20f && a <= 0x1p20f;
}

// Per-thread cache of exp(-(d*d) / sigma) for d = -255..255, keyed by the
// bits of the prepared sigma. A sigma gets a table the second time the
// thread meets it (a sigma met once is cheaper to evaluate directly); when
// the cache is full, further sigmas are evaluated directly.
class SigmaMemo {
 public:
  // Entry kPad + 255 + d for d = -255..255, and kPad zeros on either side,
  // so that a run widened to whole groups of four bins stays inside.
  static constexpr int kPad = 4;
  static constexpr int kWidth = 511 + 2 * kPad;
  static constexpr int kSlotBits = 13;
  static constexpr std::uint32_t kSlots = 1u << kSlotBits;
  static constexpr std::int32_t kTables = kSlots / 2;

  SigmaMemo() : slots_(kSlots), tables_(new float[static_cast<std::size_t>(kTables) * kWidth]) {}

  // The table for prepared sigma s (finite, > 0), or nullptr; exp(-(d*d)/s)
  // is at [kPad + 255 + d]. *reach is the largest |d| whose entry is not 0,
  // *core the largest |d| whose entry is at least kTinyTerm (-1: none).
  const float* find(float s, int* reach, int* core) {
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
      if (used_tables_ == kTables) return nullptr;
      slot->table = used_tables_++;
      float* table = tables_.get() + static_cast<std::ptrdiff_t>(slot->table) * kWidth;
      std::fill(table, table + kWidth, 0.f);
      int last = -1, normal = -1;
      for (int d = 0; d <= 255; ++d) {
        const float df = static_cast<float>(d);
        const float v = std::exp(-(df * df) / s);
        table[kPad + 255 + d] = v;
        table[kPad + 255 - d] = v;
        if (v != 0.f) last = d;
        if (v >= kTinyTerm) normal = d;
      }
      slot->reach = static_cast<std::int16_t>(last);
      slot->core = static_cast<std::int16_t>(normal);
    }
    *reach = slot->reach;
    *core = slot->core;
    return tables_.get() + static_cast<std::ptrdiff_t>(slot->table) * kWidth;
  }

 private:
  // One lookup touches one 16-byte slot.
  struct alignas(16) Slot {
    std::uint32_t key = 0;    // sigma bits; 0: free (a positive sigma never has bits 0)
    std::int32_t table = -1;  // table number, or -1 while seen once
    std::int16_t reach = 0;
    std::int16_t core = 0;
  };
  std::vector<Slot> slots_;
  std::unique_ptr<float[]> tables_;
  std::uint32_t used_slots_ = 0;
  std::int32_t used_tables_ = 0;
};

// Working memory of one thread, sized before the parallel region.
struct Scratch {
  std::unique_ptr<float[]> value_bins;
  std::unique_ptr<float[]> height_bins;
  std::unique_ptr<SigmaMemo> memo;
};

// Bins [*lo, *hi] of [first, last] outside which the component's term is
// surely +-0 (exp argument below -104), or all of [first, last] when that
// cannot be shown. Skipping needs a finite weight (w * 0 is then +-0), a
// finite mean, a finite positive sigma and step, and bin indices small
// enough that k * step is computed to well within a bin.
void termRange(float w, float mean, float sigma, float step, std::int64_t first, std::int64_t last,
               std::int64_t* lo, std::int64_t* hi) {
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
  if (from > static_cast<double>(*lo)) *lo = from > static_cast<double>(last) ? last + 1 : static_cast<std::int64_t>(from);
  if (to < static_cast<double>(*hi)) *hi = to < static_cast<double>(first) ? first - 1 : static_cast<std::int64_t>(to);
}

// out[q] += w * src[q] for q < 4 * groups; out is 16-byte aligned. Each
// lane is one single-precision multiply and one add, as in scalar code.
// Written with SSE2 so that the stores and the next component's loads of
// `out` always fall on the same 16-byte groups (a compiler-vectorised loop
// may align on `src` instead, and reloading a group that straddles two
// recent stores stalls).
inline void addScaledGroups(float* out, const float* src, float w, std::int64_t groups) {
#if defined(__SSE2__)
  const __m128 weight = _mm_set1_ps(w);
  for (std::int64_t g = 0; g < groups; ++g) {
    const __m128 term = _mm_mul_ps(weight, _mm_loadu_ps(src + 4 * g));
    _mm_store_ps(out + 4 * g, _mm_add_ps(_mm_load_ps(out + 4 * g), term));
  }
#else
  for (std::int64_t q = 0; q < 4 * groups; ++q) out[q] += w * src[q];
#endif
}

// Below this exponent expf returns exactly +0 (its result would be under
// half the smallest subnormal from -103.972 on).
constexpr float kZeroExponent = -104.0f;
// Runs of at most this many bins are evaluated bin by bin without first
// bounding the bins that can hold mass.
constexpr std::int64_t kShortRun = 32;

// Adds w * T[k - m] into bins[k - first] for the bins k of [first, last]
// within `reach` of m; T is a SigmaMemo table (w finite). Bins within `core`
// of m take whole aligned groups of four with SSE (terms >= 2^-100 times a
// moderate weight are normal). The others go one by one: a tail term is
// below 2^20 * 2^-100 = 2^-80 in magnitude, so a bin of at least 2^-50
// cannot move (its half ulp is at least 2^-75) and is left alone; a smaller
// bin takes the term exactly.
//
// Without `avoid`, the whole run goes through SSE, widened to whole groups
// of four from the start of `bins` so that successive components store and
// reload the same 16-byte groups: the extra bins get w * 0 (the table is 0
// beyond reach, and w is finite) or lie in the padding behind the
// histogram, which is never read out.
inline void addMemoRun(float* bins, std::int64_t first, std::int64_t last, float w, std::int64_t m,
                       const float* table, int reach, int core, bool avoid) {
  const std::int64_t lo = std::max(first, m - reach), hi = std::min(last, m + reach);
  if (lo > hi) return;
  const float* t = table + (SigmaMemo::kPad + 255 - m);  // t[k] = T[k - m]
  if (!avoid) {
    const std::int64_t from = (lo - first) & ~std::int64_t{3}, to = (hi - first) | 3;
    addScaledGroups(bins + from, t + (first + from), w, (to - from + 1) / 4);
    return;
  }
  const bool w_moderate = moderate(w);
  std::int64_t g0 = hi + 1, g1 = hi + 1;  // [g0, g1): SSE groups
  if (w_moderate && core >= 0) {
    const std::int64_t clo = std::max(lo, m - core), chi = std::min(hi, m + core);
    const std::int64_t a = first + ((clo - first + 3) & ~std::int64_t{3});
    const std::int64_t b = first + ((chi - first + 1) & ~std::int64_t{3});
    if (a < b) {
      g0 = a;
      g1 = b;
    }
  }
  const auto one = [&](std::int64_t k) {
    const float term = t[k];
    float& x = bins[k - first];
    if (w_moderate && term >= kTinyTerm) {
      if (isSubnormal(x)) {
        x = exactMulAdd(x, w, term);
      } else {
        x += w * term;
      }
    } else if ((bitsOf(x) & 0x7fffffffu) < kUnmovedBinBits || !w_moderate) {
      x = exactMulAdd(x, w, term);
    }
  };
  for (std::int64_t k = lo; k < std::min(g0, hi + 1); ++k) one(k);
  if (g0 < g1) addScaledGroups(bins + (g0 - first), t + g0, w, (g1 - g0) / 4);
  for (std::int64_t k = std::max(g1, lo); k <= hi; ++k) one(k);
}

// Adds weight * exp(-(z - mean)^2 / sigma) for z = k * step into bins[k -
// first] for every bin k of [first, first + n) where the term can differ
// from +-0.
inline void addComponent(float* bins, std::int64_t first, std::int64_t n, float w, float mean, float sigma,
                         float step, SigmaMemo* memo, bool avoid) {
  const std::int64_t last = first + n - 1;
  if (memo != nullptr && mean >= 0.f && mean <= 255.f && mean == std::floor(mean) && std::isfinite(w) &&
      std::isfinite(sigma) && sigma > 0.f) {
    // Value axis, step 1, whole-number mean: z - mean = k - m exactly.
    int reach = 0, core = 0;
    if (const float* table = memo->find(sigma, &reach, &core)) {
      addMemoRun(bins, first, last, w, static_cast<std::int64_t>(mean), table, reach, core, avoid);
      return;
    }
  }
  // Long runs are first cut down to the bins that can hold mass; every
  // remaining bin forms its exponent exactly as stated and skips the call
  // when the exponent is below -104, where expf is exactly +0 (it underflows
  // from -103.97 on) and a finite weight makes the term +-0.
  std::int64_t lo = first, hi = last;
  if (n > kShortRun) termRange(w, mean, sigma, step, first, last, &lo, &hi);
  const bool weight_finite = std::isfinite(w);
  const bool w_moderate = moderate(w);
  for (std::int64_t k = lo; k <= hi; ++k) {
    const float z = static_cast<float>(k) * step;
    const float d = z - mean;
    const float exponent = -(d * d) / sigma;
    if (exponent < kZeroExponent && weight_finite) continue;
    if (avoid) {
      addProduct(bins[k - first], w, std::exp(exponent), w_moderate);
    } else {
      bins[k - first] += w * std::exp(exponent);
    }
  }
}

// Copies n finished bins to the table. The table is written once and not
// read again while building, so whole 16-byte groups bypass the caches
// (streaming stores), leaving them to the cells and the exp tables. The
// thread that streams must fence before the region ends (see the fill pass).
inline void streamOut(float* out, const float* src, std::int64_t n) {
#if defined(__SSE2__)
  std::int64_t k = 0;
  for (; k < n && (reinterpret_cast<std::uintptr_t>(out + k) & 15u) != 0; ++k) out[k] = src[k];
  for (; k + 4 <= n; k += 4) _mm_stream_ps(out + k, _mm_loadu_ps(src + k));
  for (; k < n; ++k) out[k] = src[k];
#else
  std::copy(src, src + n, out);
#endif
}

// Writes ln((v / S) * scale + floor) of each of the n bins to out; S is the
// ascending sum. A zero sum stores log_floor everywhere (see the header).
// The arguments are formed in place in `bins` first (a loop the compiler can
// vectorise; each element is still (v / S) * scale + floor in single
// precision), then the logarithms are taken one by one.
//
// Subnormal bins (the far tails) are kept away from the FPU: once the sum
// reaches 2^-100 a subnormal bin cannot change it, and before that it is
// added exactly; and with a sum of at least 2^-60, any bin below 2^-100 has
// v / S < 2^-40, so (v / S) * scale + floor rounds to floor itself (half an
// ulp of 0.001f is 2^-34), exactly what a bin of 0 gives.
void normaliseInto(float* bins, std::int64_t n, float scale, float floor, float log_floor, float* out,
                   bool avoid) {
  float sum = 0.f;
  for (std::int64_t k = 0; k < n; ++k) {
    const float v = bins[k];
    if (avoid && (isSubnormal(v) || isSubnormal(sum))) {
      if (!(sum >= kTinyTerm)) sum = roundedFloat(exactDouble(sum) + exactDouble(v));
    } else {
      sum += v;
    }
  }
  if (sum == 0.f) {
    std::fill(out, out + n, log_floor);
    return;
  }
  if (sum >= 0x1p-60f) {
    const std::uint32_t tiny_bits = bitsOf(kTinyTerm);
    for (std::int64_t k = 0; k < n; ++k) {
      const float v = (bitsOf(bins[k]) & 0x7fffffffu) < tiny_bits ? 0.f : bins[k];
      bins[k] = (v / sum) * scale + floor;
    }
  } else {
    for (std::int64_t k = 0; k < n; ++k) bins[k] = (bins[k] / sum) * scale + floor;
  }
  std::uint32_t floor_bits = 0;
  std::memcpy(&floor_bits, &floor, sizeof floor_bits);
  for (std::int64_t k = 0; k < n; ++k) {
    const float arg = bins[k];
    std::uint32_t bits = 0;
    std::memcpy(&bits, &arg, sizeof bits);
    bins[k] = bits == floor_bits ? log_floor : std::log(arg);
  }
  streamOut(out, bins, n);
}

std::atomic<internal::SubnormalPath> g_subnormal_path{internal::SubnormalPath::kAuto};

// Where subnormal arithmetic is slow: Intel cores take a microcode assist
// for each subnormal operand or result; AMD's recent cores do not, and there
// the checks would only cost time.
bool avoidSubnormals() {
  switch (g_subnormal_path.load(std::memory_order_relaxed)) {
    case internal::SubnormalPath::kAvoid: return true;
    case internal::SubnormalPath::kHardware: return false;
    default: break;
  }
#if defined(__x86_64__) || defined(__i386__)
  static const bool intel = __builtin_cpu_is("intel");
  return intel;
#else
  return false;
#endif
}

// The table's geometry and steps, in single precision as stated. False when
// the coarse grid holds no position (no records, empty sequences).
bool setGeometry(const GridMatrix& m, int factor, float height_step, float value_step, GridMatrixTable* t) {
  const float f = static_cast<float>(factor);
  t->resolution_ = m.resolution_ * f;
  t->cols_ = toInt32(std::ceil(static_cast<float>(m.cols_) / f));
  t->rows_ = toInt32(std::ceil(static_cast<float>(m.rows_) / f));
  t->offset_x_ = toInt32(std::floor(static_cast<float>(m.offset_x_) / f));
  t->offset_y_ = toInt32(std::floor(static_cast<float>(m.offset_y_) / f));
  t->height_step_ = height_step;
  t->value_step_ = value_step;
  const bool has_grid = t->cols_ > 0 && t->rows_ > 0 &&
                        static_cast<std::uint64_t>(t->cols_) * static_cast<std::uint64_t>(t->rows_) <=
                            std::numeric_limits<std::uint32_t>::max();
  t->grid_size_ = has_grid ? static_cast<std::uint32_t>(t->cols_) * static_cast<std::uint32_t>(t->rows_) : 0u;
  return t->grid_size_ != 0;
}

}  // namespace

LookUpTableExtent measureLookUpTable(const GridMatrix& matrix, int factor, float height_step, float value_step) {
  LookUpTableExtent extent;
  GridMatrixTable table;
  if (!matrix.precalculated_ || !setGeometry(matrix, factor, height_step, value_step, &table)) return extent;
  extent.records = table.grid_size_;
  const std::int64_t columns = table.cols_;
  const std::int64_t rows = table.rows_;
  const BlockWalker walker(matrix, table, factor);
  std::uint64_t value_bins = 0, height_bins = 0, work = 0;
#pragma omp parallel reduction(+ : value_bins, height_bins, work)
  {
    const WorkRange range = staticSplit(rows, omp_get_num_threads(), omp_get_thread_num());
    for (std::int64_t j = range.begin; j < range.end; ++j) {
      for (std::int64_t i = 0; i < columns; ++i) {
        prefetchAhead(walker, i, j, columns);
        const BlockRanges r = blockRanges(walker, i, j, value_step, height_step);
        value_bins += static_cast<std::uint64_t>(r.value_n);
        height_bins += static_cast<std::uint64_t>(r.height_n);
        work += static_cast<std::uint64_t>(r.value_n + r.height_n) * static_cast<std::uint64_t>(r.cells);
      }
    }
  }
  extent.value_bins = value_bins;
  extent.height_bins = height_bins;
  extent.work = work;
  return extent;
}

namespace internal {
void setSubnormalPath(SubnormalPath path) { g_subnormal_path.store(path, std::memory_order_relaxed); }
}  // namespace internal

GridMatrixTable GridMatrix::getLookUpTable(int factor, float height_step, float value_step) const {
  GridMatrixTable table;
  if (!precalculated_) return table;
  if (!setGeometry(*this, factor, height_step, value_step, &table)) return table;

  const std::int64_t columns = table.cols_;
  const std::int64_t rows = table.rows_;
  table.coarse_cells_.resize(table.grid_size_);
  MCellCoarse* const records = table.coarse_cells_.data();
  // The records keep only the low 16 bits of a height first bin; the fill
  // pass needs all of it. (Value first bins, 0..255, fit the record.)
  std::unique_ptr<std::int32_t[]> height_firsts(new std::int32_t[table.grid_size_]);
  const BlockWalker walker(*this, table, factor);
  const int team = std::max(1, omp_get_max_threads());

  // Range pass: counts and first bins into the records; the widest ranges
  // size the per-thread working memory.
  std::vector<std::int64_t> widest_value(static_cast<std::size_t>(team), 0);
  std::vector<std::int64_t> widest_height(static_cast<std::size_t>(team), 0);
#pragma omp parallel num_threads(team)
  {
    const int thread = omp_get_thread_num();
    const WorkRange range = staticSplit(rows, omp_get_num_threads(), thread);
    std::int64_t value_n = 0, height_n = 0;
    for (std::int64_t j = range.begin; j < range.end; ++j) {
      for (std::int64_t i = 0; i < columns; ++i) {
        prefetchAhead(walker, i, j, columns);
        const BlockRanges r = blockRanges(walker, i, j, value_step, height_step);
        MCellCoarse& rec = records[j * columns + i];
        height_firsts[j * columns + i] = static_cast<std::int32_t>(r.height_first);
        rec.value_bins = static_cast<std::uint16_t>(r.value_n);
        rec.value_first = firstField(r.value_first);
        rec.height_bins = static_cast<std::uint16_t>(r.height_n);
        rec.height_first = firstField(r.height_first);
        value_n = std::max(value_n, r.value_n);
        height_n = std::max(height_n, r.height_n);
      }
    }
    widest_value[static_cast<std::size_t>(thread)] = value_n;
    widest_height[static_cast<std::size_t>(thread)] = height_n;
  }

  // Offsets: running sums in flat coarse order.
  std::uint64_t value_total = 0, height_total = 0;
  for (std::uint32_t p = 0; p < table.grid_size_; ++p) {
    records[p].value_offset = static_cast<std::uint32_t>(value_total);
    records[p].height_offset = static_cast<std::uint32_t>(height_total);
    value_total += records[p].value_bins;
    height_total += records[p].height_bins;
  }
  constexpr std::uint64_t kAddressable = std::numeric_limits<std::uint32_t>::max();
  if (value_total > kAddressable || height_total > kAddressable) throw std::bad_alloc();
  sizeResident(table.value_table_, value_total, team);
  sizeResident(table.height_table_, height_total, team);

  const std::int64_t value_width = *std::max_element(widest_value.begin(), widest_value.end());
  const std::int64_t height_width = *std::max_element(widest_height.begin(), widest_height.end());
  const bool use_memo = value_step == 1.0f;
  std::vector<Scratch> scratch(static_cast<std::size_t>(team));
  for (Scratch& s : scratch) {
    // Value bins padded to whole groups of four (see addComponent).
    s.value_bins.reset(new float[static_cast<std::size_t>((value_width | 3) + 1)]);
    s.height_bins.reset(new float[static_cast<std::size_t>(std::max<std::int64_t>(height_width, 1))]);
    if (use_memo) s.memo.reset(new SigmaMemo());
  }

  float* const value_out = table.value_table_.data();
  float* const height_out = table.height_table_.data();
  const float scale = table.prob_scale_, floor = table.prob_floor_;
  const float log_floor = std::log(floor);
  const bool avoid = avoidSubnormals();

  // Fill pass: every histogram straight into its place.
#pragma omp parallel num_threads(team)
  {
    const int thread = omp_get_thread_num();
    const WorkRange range = staticSplit(rows, omp_get_num_threads(), thread);
    Scratch& s = scratch[static_cast<std::size_t>(thread)];
    float* const vbins = s.value_bins.get();
    float* const hbins = s.height_bins.get();
    SigmaMemo* const memo = s.memo.get();
    for (std::int64_t j = range.begin; j < range.end; ++j) {
      for (std::int64_t i = 0; i < columns; ++i) {
        prefetchAhead(walker, i, j, columns);
        const MCellCoarse& rec = records[j * columns + i];
        if (rec.value_bins == 0 && rec.height_bins == 0) continue;
        BlockRanges r;
        r.value_first = rec.value_first;
        r.value_n = rec.value_bins;
        r.height_first = height_firsts[j * columns + i];
        r.height_n = rec.height_bins;
        std::fill(vbins, vbins + ((r.value_n + 3) & ~std::int64_t{3}), 0.f);
        std::fill(hbins, hbins + r.height_n, 0.f);
        walker.forEachCell(i, j, [&](const MCell& cell) {
          for (int c = 0; c < 2; ++c) {
            if (r.value_n > 0)
              addComponent(vbins, r.value_first, r.value_n, cell.value_weight[c], cell.value_mean[c],
                           cell.value_sigma[c], value_step, memo, avoid);
            if (r.height_n > 0)
              addComponent(hbins, r.height_first, r.height_n, cell.height_weight[c], cell.height_mean[c],
                           cell.height_sigma[c], height_step, nullptr, avoid);
          }
        });
        normaliseInto(vbins, r.value_n, scale, floor, log_floor, value_out + rec.value_offset, avoid);
        normaliseInto(hbins, r.height_n, scale, floor, log_floor, height_out + rec.height_offset, avoid);
      }
    }
#if defined(__SSE2__)
    _mm_sfence();  // streamed stores visible before the join
#endif
  }
  return table;
}

}  // namespace localization
}  // namespace zorvane
