// The two loops of the histogram kernel that call the C library's expf and
// logf, each in a plain form and in eight-lane forms.
//
// Every term and every logarithm of a table is defined as the C library's
// single-precision result, so a faster path may only give the same bits.
// The eight-lane forms reproduce, operation for operation, the expf and
// logf that glibc runs on x86-64 processors with AVX2 and FMA (there it
// picks its FMA variants; their fused operations are part of what those
// functions compute, not a contraction of ours), in AVX2 or in AVX-512
// (VectorMath below). A form is used only where the processor has its
// features and, once per process, a self-check against std::exp and
// std::log on several thousand arguments gave equal bits; a C library
// whose functions differ is left to the plain form. Lanes whose
// argument lies outside the range both variants compute by their main
// formula (underflow, overflow, zero, negative, NaN and the like) are
// handed to std::exp / std::log one by one.
#ifndef ZORVANE_LOCALIZATION_LOOK_UP_TABLE_EXP_LOG_H_
#define ZORVANE_LOCALIZATION_LOOK_UP_TABLE_EXP_LOG_H_

#include <cstdint>

namespace zorvane {
namespace localization {
namespace lut {

// For every bin k of [lo, hi]: with e = -(((float)k * step - mean)^2) /
// sigma in single precision, adds w * expf(e) into bins[k - first], except
// where e < -104 and w is finite (expf is +0 there, so the term is +-0 and
// would leave the bin as it is). first <= lo; `bins` holds paddedBins(hi - first + 1)
// floats (look_up_table_histogram.h): the eight-lane form works on whole
// groups of eight from bins[0] and stores the other bins of a group back
// unchanged.
void addGaussianTerms(float* bins, std::int64_t first, std::int64_t lo, std::int64_t hi, float w, float mean,
                      float sigma, float step);

// One component's part of addGaussianComponents: its weight, mean and
// prepared sigma, and the bins [lo, hi] it adds into.
struct GaussianRun {
  float w, mean, sigma;
  std::int64_t lo, hi;
};

// addGaussianTerms for each of the `count` runs in turn, with the same
// `bins`, `first` and `step`: every bin receives the terms in run order.
// first <= lo of every run that is not empty; `bins` holds
// paddedBins(h - first + 1) floats, h the largest hi. The eight-lane form
// takes a group of eight bins through all runs before the next group, so
// that the runs' exponentials, independent of each other, overlap.
void addGaussianRuns(float* bins, std::int64_t first, const GaussianRun* runs, int count, float step);

// Replaces each of the n bins v by the logarithm of its scaled share:
// with a = (v / sum) * scale + floor in single precision, logf(a), or
// log_floor where a has the bits of floor. `bins` holds paddedBins(n)
// floats; the eight-lane form works on whole groups and may overwrite the
// padding.
void logShares(float* bins, std::int64_t n, float sum, float scale, float floor, float log_floor);

// The instruction sets of the eight-lane forms; each gives the same bits.
// AVX2 works on four lanes of double precision at a time and reads the
// constant tables by gathers; AVX-512 works on all eight at once and keeps
// the tables in registers.
enum class VectorMath { kPlain, kAvx2, kAvx512 };

// Whether this processor has the instructions of `math` (AVX2 and FMA;
// for AVX-512 also its F, DQ and VL parts).
bool processorRuns(VectorMath math);
// Whether the loops may use `math`: the processor runs it and, once per
// process, its expf and logf gave the C library's bits on several thousand
// arguments.
bool vectorMathAvailable(VectorMath math);
// The widest available form, which the loops use from the start.
VectorMath widestVectorMath();
// Tests switch with useVectorMath (not while a table is built): selects
// `math` when it is available and returns whether it is.
bool useVectorMath(VectorMath math);

// The eight-lane expf and logf alone, for tests: out[q] = expf(x[q]) and
// logf(x[q]) for q < 8, through `math`'s formula where it applies. Only to
// be called where processorRuns(math).
void expEightForTesting(VectorMath math, const float* x, float* out);
void logEightForTesting(VectorMath math, const float* x, float* out);

}  // namespace lut
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOOK_UP_TABLE_EXP_LOG_H_
