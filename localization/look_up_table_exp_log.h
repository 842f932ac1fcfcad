// The two loops of the histogram kernel that call the C library's expf and
// logf, each in a plain form and in an eight-lane form.
//
// Every term and every logarithm of a table is defined as the C library's
// single-precision result, so a faster path may only give the same bits.
// The eight-lane form reproduces, operation for operation, the expf and
// logf that glibc runs on x86-64 processors with AVX2 and FMA (there it
// picks its FMA variants; their fused operations are part of what those
// functions compute, not a contraction of ours). It is used only where the
// processor has both features and, once per process, a self-check against
// std::exp and std::log on several thousand arguments gave equal bits; a
// C library whose functions differ is left to the plain form. Lanes whose
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

// Whether the eight-lane forms are in use. Tests switch with
// useExactVectorMath (not while a table is built): false selects the plain
// forms; true the eight-lane forms where this processor and C library
// allow them, and then it returns whether they do.
bool exactVectorMathInUse();
bool useExactVectorMath(bool wide);

// The eight-lane expf and logf alone, for tests: out[q] = expf(x[q]) and
// logf(x[q]) for q < 8, through the vector formula where it applies.
// Only to be called where the processor has AVX2 and FMA.
void expEightForTesting(const float* x, float* out);
void logEightForTesting(const float* x, float* out);

}  // namespace lut
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOOK_UP_TABLE_EXP_LOG_H_
