// The per-axis histogram kernel of the table builder: one block's Gaussian
// mass summed into bins, then normalised into log-probabilities.
//
// Bins are independent, so instead of walking the block again for every bin,
// each cell is visited once and its components add one term into every bin
// they reach. Every bin still receives the same additions in the same order
// (block order, component 0 then 1) as the bin-by-bin definition, each term
// weight * exp(-(z - mean)^2 / sigma) formed in single precision with the
// library's expf, so the bits are the same. Two kinds of work are skipped,
// both without changing a bit:
//  - terms that are exactly +-0: below an exponent of -104 expf returns +0,
//    and adding +-0 to a bin (which starts at +0 and never becomes -0)
//    changes nothing;
//  - repeated exponentials: on the value axis with step 1 and a whole-number
//    mean, z - mean is an exact integer d, so the term depends only on |d|
//    and the prepared sigma; a per-thread SigmaMemo keeps those tables for
//    the sigmas it meets repeatedly (a loaded map holds a few thousand).
// Normalisation calls logf only where the argument differs from the floor
// itself, whose logarithm is computed once.
#ifndef ZORVANE_LOCALIZATION_LOOK_UP_TABLE_HISTOGRAM_H_
#define ZORVANE_LOCALIZATION_LOOK_UP_TABLE_HISTOGRAM_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "localization/look_up_table_block_walk.h"
#include "localization/look_up_table_exp_log.h"

namespace zorvane {
namespace localization {
namespace lut {

// Per-thread cache of exp(-(d*d) / sigma) for |d| <= 255, keyed by the
// bits of the prepared sigma. A sigma gets a table the second time the
// thread meets it (a sigma met once is cheaper to evaluate directly); when
// the cache is full, further sigmas are evaluated directly. A table holds
// only the span where the exponential is not 0 (|d| <= reach) and kPad
// zeros on either side, so that the thread's tables stay in its caches: a
// loaded map holds a few thousand distinct value sigmas.
class SigmaMemo {
 public:
  // Zeros on either side of a table: a run widened to whole chunks of
  // kChunk bins (below) stays inside.
  static constexpr int kPad = 32;
  static constexpr int kSlotBits = 13;
  static constexpr std::uint32_t kSlots = 1u << kSlotBits;
  static constexpr std::int32_t kTables = kSlots / 2;

  SigmaMemo();

  // The table for prepared sigma s (finite, > 0), or nullptr. The returned
  // pointer t gives exp(-(d*d)/s) at t[d] for |d| <= *reach, the largest
  // |d| <= 255 whose exponential is not 0, and 0 at t[d] for reach < |d| <=
  // reach + kPad.
  const float* find(float s, int* reach);

 private:
  struct Slot {
    std::uint32_t key = 0;    // sigma bits; 0: free (a positive sigma never has bits 0)
    std::int32_t table = -1;  // table number, or -1 while seen once
  };
  struct Table {
    std::int64_t centre = 0;  // index of d = 0 in arena_
    int reach = 0;
  };
  std::vector<Slot> slots_;
  std::vector<Table> tables_;
  // kPad zeros, then tables, each its span and kPad zeros: room for
  // kTables tables of the widest span.
  std::unique_ptr<float[]> arena_;
  std::int64_t arena_used_;
  std::uint32_t used_slots_ = 0;
};

// Bins buffers are handled in whole aligned chunks of this many floats:
// the term rows below add a chunk at a time, and the eight-lane loops of
// look_up_table_exp_log.h work on groups of eight inside them.
constexpr std::int64_t kChunk = 32;
// Floats a bins buffer needs for an n-bin histogram: n rounded up to whole
// chunks (at least one chunk).
inline std::int64_t paddedBins(std::int64_t n) { return ((n > 0 ? n : 1) + kChunk - 1) / kChunk * kChunk; }

// One component's terms over a histogram's bins, kept as a row to be added
// later: bin q of the chunks [chunk_from, chunk_to) receives w *
// terms[q - chunk_from * kChunk], the product formed in single precision
// (no fused multiply-add). Those terms are readable, and 0 wherever q < n
// lies outside the bins the component reaches; bins past n (padding) may
// receive anything.
struct TermRow {
  const float* terms;
  float w;
  std::int32_t chunk_from, chunk_to;
};

// A memo row for a component of the value axis (step 1, first >= 0, first
// + n <= 256): false when the memo cannot serve it (a mean that is not a
// whole number in 0..255, a weight or sigma that is not finite, a sigma
// not yet tabled, or a different step). A true result with chunk_from ==
// chunk_to means the component adds nothing to these bins.
bool memoRow(SigmaMemo* memo, std::int64_t first, std::int64_t n, float w, float mean, float sigma, float step,
             TermRow* row);

// bins[q] += rows[r].w * rows[r].terms[q] for r = 0 .. count - 1 in turn,
// over each row's chunks: every bin receives its terms in row order, as
// if the rows were added one after the other. bins is 32-byte aligned and
// holds every chunk a row names. Each chunk is carried through all rows in
// registers, so a bin is loaded and stored once per call.
void addTermRows(float* bins, const TermRow* rows, int count);

// The memo rows are added with 512-bit AVX-512 instructions, 256-bit AVX2
// or 128-bit SSE, and the exponentials and logarithms run eight at a time
// in AVX-512 or AVX2 or one at a time (look_up_table_exp_log.h). At start
// the rows take the widest instructions the processor has, the
// exponentials the widest form that passed its self-check; every choice
// gives the same bits. Tests switch with this (not while a table is built): kPlain
// selects SSE rows and the plain loops, kAvx2 and kAvx512 the forms of that
// instruction set. Returns false when the processor or the C library does
// not allow them; the parts that are allowed are selected all the same.
bool useVectorForms(VectorMath forms);

// Adds weight * exp(-((float)k * step - mean)^2 / sigma) into bins[k - first]
// for every bin k of [first, first + n) where the term can differ from +-0.
// `memo` (may be null) is used for whole-number means in 0..255 with step 1
// and first >= 0, first + n <= 256. bins must hold paddedBins(n) floats,
// 32-byte aligned; the padding bins may receive terms.
void addComponent(float* bins, std::int64_t first, std::int64_t n, float weight, float mean, float sigma, float step,
                  SigmaMemo* memo);

// The sum of the n bins in ascending order from +0.
float ascendingSum(const float* bins, std::int64_t n);

// sums[h] = ascendingSum(bins[h], n[h]) for h < count (at most
// kMaxSums). Each sum is a chain of dependent additions, as long as its
// histogram; the chains of several histograms are taken through one loop,
// so that they wait on their additions side by side instead of one after
// the other.
constexpr int kMaxSums = 4;
void ascendingSums(const float* const* bins, const std::int64_t* n, int count, float* sums);

// Writes ln((v / sum) * scale + floor) of each of the n bins to out, sum
// being ascendingSum(bins, n); bins (paddedBins(n) floats) is overwritten,
// padding included. A zero sum stores log_floor (= logf(floor))
// everywhere. out needs no alignment.
void normaliseInto(float* bins, std::int64_t n, float sum, float scale, float floor, float log_floor, float* out);

// The working memory of one thread of the fill pass, sized before the
// parallel region so that nothing is allocated inside it.
//
// A block's bins are summed and normalised only when kMaxSums blocks are
// built (or at finish): the ascending sum of a value histogram, about a
// hundred dependent additions, would otherwise hold up each block by
// itself.
class HistogramKernel {
 public:
  // value_width, height_width: the widest histograms the thread builds.
  // The memo is kept when value_step is 1.
  HistogramKernel(std::int64_t value_width, std::int64_t height_width, float value_step, float scale, float floor);

  // Builds coarse position (i, j)'s histograms over the ranges r (from
  // blockRanges); their log-probabilities go to value_out (r.value_n
  // values) and height_out (r.height_n values) by the next finish() at the
  // latest, with streaming stores.
  void build(const BlockWalker& walker, std::int64_t i, std::int64_t j, const BlockRanges& r, float value_step,
             float height_step, float* value_out, float* height_out);
  // Writes out the blocks built since the last call and makes the
  // streamed stores visible: the thread calls it before its results are
  // read by another.
  void finish();

 private:
  // A built block whose histograms are still to be normalised.
  struct Pending {
    std::int64_t value_n = 0, height_n = 0;
    float* value_out = nullptr;
    float* height_out = nullptr;
  };
  void normalisePending();

  // Height components of the block, gathered so that their exponentials
  // are evaluated together (addGaussianRuns); passed on when full.
  static constexpr int kPendingRuns = 64;
  GaussianRun runs_[kPendingRuns];
  int run_count_ = 0;
  void flushHeightRuns(float* bins, std::int64_t first, float height_step);

  // Value components the memo serves, gathered so that each chunk of bins
  // goes through all of them in registers (addTermRows); passed on when
  // full and before any component the memo cannot serve.
  static constexpr int kPendingRows = 64;
  TermRow rows_[kPendingRows];
  int row_count_ = 0;
  void flushValueRows(float* bins);

  float scale_, floor_, log_floor_;
  std::vector<float> storage_;  // the bins buffers, aligned within
  float* value_bins_[kMaxSums] = {};
  float* height_bins_[kMaxSums] = {};
  Pending pending_[kMaxSums];
  int pending_count_ = 0;
  std::unique_ptr<SigmaMemo> memo_;
};

}  // namespace lut
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOOK_UP_TABLE_HISTOGRAM_H_
