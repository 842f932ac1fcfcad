#include "localization/look_up_table_exp_log.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "localization/look_up_table_exact.h"

namespace zorvane {
namespace localization {
namespace lut {
namespace {

// expf is +0 below this exponent (look_up_table_histogram.h).
constexpr float kZeroExponent = -104.0f;

void addGaussianTermsPlain(float* bins, std::int64_t first, std::int64_t lo, std::int64_t hi, float w, float mean,
                           float sigma, float step) {
  const bool weight_finite = std::isfinite(w);
  for (std::int64_t k = lo; k <= hi; ++k) {
    const float z = static_cast<float>(k) * step;
    const float d = z - mean;
    const float exponent = -(d * d) / sigma;
    if (exponent < kZeroExponent && weight_finite) continue;
    bins[k - first] += w * std::exp(exponent);
  }
}

void addGaussianRunsPlain(float* bins, std::int64_t first, const GaussianRun* runs, int count, float step) {
  for (int c = 0; c < count; ++c) {
    addGaussianTermsPlain(bins, first, runs[c].lo, runs[c].hi, runs[c].w, runs[c].mean, runs[c].sigma, step);
  }
}

void logSharesPlain(float* bins, std::int64_t n, float sum, float scale, float floor, float log_floor) {
  const std::uint32_t floor_bits = bitsOf(floor);
  for (std::int64_t k = 0; k < n; ++k) {
    const float a = (bins[k] / sum) * scale + floor;
    bins[k] = bitsOf(a) == floor_bits ? log_floor : std::log(a);
  }
}

#if defined(__x86_64__)

double fromBits(std::uint64_t bits) {
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

// expf: x = (k + r) / 32 * ln 2 with k whole and |r| <= 1/2, then
// 2^(k/32) from a 32-entry table of 2^(i/32) and 2^(r/32) from a cubic.
// kExpTable[i] holds the bits of 2^(i/32) less i << 47, so that adding
// k << 47 puts k / 32 into the exponent.
alignas(32) const std::uint64_t kExpTable[32] = {
    0x3ff0000000000000, 0x3fefd9b0d3158574, 0x3fefb5586cf9890f, 0x3fef9301d0125b51, 0x3fef72b83c7d517b,
    0x3fef54873168b9aa, 0x3fef387a6e756238, 0x3fef1e9df51fdee1, 0x3fef06fe0a31b715, 0x3feef1a7373aa9cb,
    0x3feedea64c123422, 0x3feece086061892d, 0x3feebfdad5362a27, 0x3feeb42b569d4f82, 0x3feeab07dd485429,
    0x3feea47eb03a5585, 0x3feea09e667f3bcd, 0x3fee9f75e8ec5f74, 0x3feea11473eb0187, 0x3feea589994cce13,
    0x3feeace5422aa0db, 0x3feeb737b0cdc5e5, 0x3feec49182a3f090, 0x3feed503b23e255d, 0x3feee89f995ad3ad,
    0x3feeff76f2fb5e47, 0x3fef199bdd85529c, 0x3fef3720dcef9069, 0x3fef5818dcfba487, 0x3fef7c97337b9b5f,
    0x3fefa4afa2a490da, 0x3fefd0765b6e4540};
constexpr std::uint64_t kExpInvLn2N = 0x40471547652b82fe;  // 32 / ln 2
constexpr std::uint64_t kExpShift = 0x4338000000000000;    // 1.5 * 2^52: rounds to a whole number
constexpr std::uint64_t kExpC0 = 0x3ebc6af84b912394;
constexpr std::uint64_t kExpC1 = 0x3f2ebfce50fac4f3;
constexpr std::uint64_t kExpC2 = 0x3f962e42ff0c52d6;
// The main formula covers [-0x1.9d1d9ep6, 0x1.62e42ep6]; below, expf gives
// the smallest subnormal or +0, above +inf.
constexpr std::uint32_t kExpLowest = 0xc2ce8ecf;
constexpr std::uint32_t kExpHighest = 0x42b17217;

// logf: x = 2^k * z with z near 1, z * invc - 1 = r small, and
// log x = k ln 2 + log c + r + a cubic correction in r. Entry i is
// {invc, log c} for the i-th of 16 intervals of z.
alignas(32) const std::uint64_t kLogTable[32] = {
    0x3ff661ec79f8f3be, 0xbfd57bf7808caade, 0x3ff571ed4aaf883d, 0xbfd2bef0a7c06ddb, 0x3ff49539f0f010b0,
    0xbfd01eae7f513a67, 0x3ff3c995b0b80385, 0xbfcb31d8a68224e9, 0x3ff30d190c8864a5, 0xbfc6574f0ac07758,
    0x3ff25e227b0b8ea0, 0xbfc1aa2bc79c8100, 0x3ff1bb4a4a1a343f, 0xbfba4e76ce8c0e5e, 0x3ff12358f08ae5ba,
    0xbfb1973c5a611ccc, 0x3ff0953f419900a7, 0xbfa252f438e10c1e, 0x3ff0000000000000, 0x0000000000000000,
    0x3fee608cfd9a47ac, 0x3faaa5aa5df25984, 0x3feca4b31f026aa0, 0x3fbc5e53aa362eb4, 0x3feb2036576afce6,
    0x3fc526e57720db08, 0x3fe9c2d163a1aa2d, 0x3fcbc2860d224770, 0x3fe886e6037841ed, 0x3fd1058bc8a07ee1,
    0x3fe767dcf5534862, 0x3fd4043057b6ee09};
constexpr std::uint64_t kLogLn2 = 0x3fe62e42fefa39ef;
constexpr std::uint64_t kLogA0 = 0xbfd00ea348b88334;
constexpr std::uint64_t kLogA1 = 0x3fd5575b0be00b6a;
constexpr std::uint64_t kLogA2 = 0xbfdffffef20a4123;
constexpr std::uint32_t kLogOffset = 0x3f330000;

#define ZV_AVX2_FMA __attribute__((target("avx2,fma")))

// expf of four arguments by the main formula, in double precision.
ZV_AVX2_FMA inline __m128 expFour(__m128 x) {
  const __m256d xd = _mm256_cvtps_pd(x);
  const __m256d inv_ln2n = _mm256_set1_pd(fromBits(kExpInvLn2N));
  const __m256d shift = _mm256_set1_pd(fromBits(kExpShift));
  __m256d kd = _mm256_fmadd_pd(inv_ln2n, xd, shift);
  const __m256i ki = _mm256_castpd_si256(kd);
  kd = _mm256_sub_pd(kd, shift);
  const __m256d r = _mm256_fmsub_pd(inv_ln2n, xd, kd);
  // The masked gathers, with every lane enabled, are the plain ones with a
  // defined starting value (GCC 12 warns about the plain ones' undefined).
  const __m256i entry = _mm256_mask_i64gather_epi64(
      _mm256_setzero_si256(), reinterpret_cast<const long long*>(kExpTable),
      _mm256_and_si256(ki, _mm256_set1_epi64x(31)), _mm256_set1_epi64x(-1), 8);
  const __m256d s = _mm256_castsi256_pd(_mm256_add_epi64(entry, _mm256_slli_epi64(ki, 47)));
  const __m256d z = _mm256_fmadd_pd(_mm256_set1_pd(fromBits(kExpC0)), r, _mm256_set1_pd(fromBits(kExpC1)));
  const __m256d r2 = _mm256_mul_pd(r, r);
  __m256d y = _mm256_fmadd_pd(_mm256_set1_pd(fromBits(kExpC2)), r, _mm256_set1_pd(1.0));
  y = _mm256_fmadd_pd(z, r2, y);
  return _mm256_cvtpd_ps(_mm256_mul_pd(y, s));
}

// Mask of the lanes of x that the main expf formula covers (not NaN).
ZV_AVX2_FMA inline __m256 expMainLanes(__m256 x) {
  const __m256 lowest = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(kExpLowest)));
  const __m256 highest = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(kExpHighest)));
  return _mm256_and_ps(_mm256_cmp_ps(x, lowest, _CMP_GE_OQ), _mm256_cmp_ps(x, highest, _CMP_LE_OQ));
}

ZV_AVX2_FMA inline __m256 expEight(__m256 x) {
  return _mm256_set_m128(expFour(_mm256_extractf128_ps(x, 1)), expFour(_mm256_castps256_ps128(x)));
}

// expEight for the lanes in `lanes` (bit q: lane q); a half with none of
// them is left at 0 without its exponentials. The last group of a
// histogram is often half padding.
ZV_AVX2_FMA inline __m256 expEightOf(__m256 x, int lanes) {
  const __m128 low = (lanes & 0x0f) != 0 ? expFour(_mm256_castps256_ps128(x)) : _mm_setzero_ps();
  const __m128 high = (lanes & 0xf0) != 0 ? expFour(_mm256_extractf128_ps(x, 1)) : _mm_setzero_ps();
  return _mm256_set_m128(high, low);
}

// logf of four positive normal arguments other than 1 by the main formula.
ZV_AVX2_FMA inline __m128 logFour(__m128i ix) {
  const __m128i tmp = _mm_sub_epi32(ix, _mm_set1_epi32(static_cast<int>(kLogOffset)));
  const __m128i i = _mm_and_si128(_mm_srli_epi32(tmp, 19), _mm_set1_epi32(15));
  const __m128i k = _mm_srai_epi32(tmp, 23);
  const __m128i iz = _mm_sub_epi32(ix, _mm_and_si128(tmp, _mm_set1_epi32(static_cast<int>(0xff800000u))));
  const __m256d z = _mm256_cvtps_pd(_mm_castsi128_ps(iz));
  const __m128i at = _mm_slli_epi32(i, 1);
  const auto* table = reinterpret_cast<const double*>(kLogTable);
  const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  const __m256d invc = _mm256_mask_i32gather_pd(_mm256_setzero_pd(), table, at, all, 8);
  const __m256d logc = _mm256_mask_i32gather_pd(_mm256_setzero_pd(), table + 1, at, all, 8);
  const __m256d y0 = _mm256_fmadd_pd(_mm256_cvtepi32_pd(k), _mm256_set1_pd(fromBits(kLogLn2)), logc);
  const __m256d r = _mm256_fmadd_pd(z, invc, _mm256_set1_pd(-1.0));
  __m256d y = _mm256_fmadd_pd(r, _mm256_set1_pd(fromBits(kLogA1)), _mm256_set1_pd(fromBits(kLogA2)));
  const __m256d r2 = _mm256_mul_pd(r, r);
  const __m256d t = _mm256_add_pd(r, y0);
  y = _mm256_fmadd_pd(r2, _mm256_set1_pd(fromBits(kLogA0)), y);
  return _mm256_cvtpd_ps(_mm256_fmadd_pd(r2, y, t));
}

// Mask (as int lanes) of the arguments the main logf formula covers:
// positive normal numbers other than 1.
ZV_AVX2_FMA inline __m256i logMainLanes(__m256i ix) {
  // (ix - 0x00800000) < 0x7f000000 unsigned, compared as signed after
  // flipping the top bit.
  const __m256i flip = _mm256_set1_epi32(static_cast<int>(0x80000000u));
  const __m256i biased = _mm256_xor_si256(_mm256_sub_epi32(ix, _mm256_set1_epi32(0x00800000)), flip);
  const __m256i normal = _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(0x7f000000u ^ 0x80000000u)), biased);
  const __m256i one = _mm256_cmpeq_epi32(ix, _mm256_set1_epi32(0x3f800000));
  return _mm256_andnot_si256(one, normal);
}

ZV_AVX2_FMA inline __m256 logEight(__m256i ix) {
  return _mm256_set_m128(logFour(_mm256_extracti128_si256(ix, 1)), logFour(_mm256_castsi256_si128(ix)));
}

// Lanes [0, count) of eight, as a mask for maskload/maskstore.
ZV_AVX2_FMA inline __m256i firstLanes(std::int64_t count) {
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const int n = count >= 8 ? 8 : static_cast<int>(count);
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), lane);
}

// The terms of one run for the group of eight bins k (as floats: kf) to
// add to it: w * expf(e) where the run adds, -0 elsewhere, which leaves
// every value as it is when added (x + -0 == x, zeros and NaN included).
ZV_AVX2_FMA inline __m256 groupTerms(__m256i k, __m256 kf, const GaussianRun& run, float step) {
  const __m256 minus_zero = _mm256_set1_ps(-0.0f);
  const __m256 d = _mm256_sub_ps(_mm256_mul_ps(kf, _mm256_set1_ps(step)), _mm256_set1_ps(run.mean));
  const __m256 exponent = _mm256_div_ps(_mm256_xor_ps(_mm256_mul_ps(d, d), minus_zero), _mm256_set1_ps(run.sigma));
  // With a finite weight, exponents below -104 add nothing; otherwise
  // (w * 0 is NaN) every term is added.
  const __m256 zero_below = _mm256_set1_ps(std::isfinite(run.w) ? kZeroExponent : -INFINITY);
  const __m256i outside = _mm256_or_si256(_mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(run.lo)), k),
                                          _mm256_cmpgt_epi32(k, _mm256_set1_epi32(static_cast<int>(run.hi))));
  const __m256 adds = _mm256_andnot_ps(_mm256_castsi256_ps(outside), _mm256_cmp_ps(exponent, zero_below, _CMP_NLT_UQ));
  const int add_bits = _mm256_movemask_ps(adds);
  if (add_bits == 0) return minus_zero;
  __m256 term =
      _mm256_blendv_ps(minus_zero, _mm256_mul_ps(_mm256_set1_ps(run.w), expEightOf(exponent, add_bits)), adds);
  const int odd_bits = add_bits & ~_mm256_movemask_ps(expMainLanes(exponent));
  if (odd_bits != 0) {
    alignas(32) float e[8], t[8];
    _mm256_store_ps(e, exponent);
    _mm256_store_ps(t, term);
    for (int q = 0; q < 8; ++q) {
      if ((odd_bits >> q) & 1) t[q] = run.w * std::exp(e[q]);
    }
    term = _mm256_load_ps(t);
  }
  return term;
}

ZV_AVX2_FMA void addGaussianRunsAvx2(float* bins, std::int64_t first, const GaussianRun* runs, int count, float step) {
  // Bin numbers go through 32-bit lanes; (float)k is the same from 32 and
  // 64 bits for these.
  constexpr std::int64_t kLaneLimit = std::int64_t{1} << 30;
  std::int64_t g_begin = 0, g_end = 0;  // groups [g_begin, g_end) hold every run
  bool any = false;
  for (int c = 0; c < count; ++c) {
    if (runs[c].lo > runs[c].hi) continue;
    const std::int64_t from = (runs[c].lo - first) / 8, to = (runs[c].hi - first) / 8 + 1;
    g_begin = any ? std::min(g_begin, from) : from;
    g_end = any ? std::max(g_end, to) : to;
    any = true;
  }
  if (!any) return;
  if (first < -kLaneLimit || first + 8 * g_end > kLaneLimit) {
    addGaussianRunsPlain(bins, first, runs, count, step);
    return;
  }
  // Whole groups of eight from bins[0], so that successive calls load and
  // store the same groups.
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  for (std::int64_t g = g_begin; g < g_end; ++g) {
    const __m256i k = _mm256_add_epi32(_mm256_set1_epi32(static_cast<int>(first + 8 * g)), lane);
    const __m256 kf = _mm256_cvtepi32_ps(k);
    float* const at = bins + 8 * g;
    __m256 sum = _mm256_loadu_ps(at);
    for (int c = 0; c < count; ++c) {
      const GaussianRun& run = runs[c];
      if (run.lo > run.hi || g < (run.lo - first) / 8 || g > (run.hi - first) / 8) continue;
      sum = _mm256_add_ps(sum, groupTerms(k, kf, run, step));
    }
    _mm256_storeu_ps(at, sum);
  }
}

ZV_AVX2_FMA void addGaussianTermsAvx2(float* bins, std::int64_t first, std::int64_t lo, std::int64_t hi, float w,
                                      float mean, float sigma, float step) {
  const GaussianRun run = {w, mean, sigma, lo, hi};
  addGaussianRunsAvx2(bins, first, &run, 1, step);
}

ZV_AVX2_FMA inline __m256 logOrFloor(__m256i ix, __m256i floor8, __m256 log_floor8, __m256i lanes) {
  const __m256i is_floor = _mm256_cmpeq_epi32(ix, floor8);
  __m256 result = _mm256_blendv_ps(logEight(ix), log_floor8, _mm256_castsi256_ps(is_floor));
  const int odd_bits = _mm256_movemask_ps(
      _mm256_castsi256_ps(_mm256_andnot_si256(_mm256_or_si256(is_floor, logMainLanes(ix)), lanes)));
  if (odd_bits != 0) {
    alignas(32) float v[8], out[8];
    _mm256_store_ps(v, _mm256_castsi256_ps(ix));
    _mm256_store_ps(out, result);
    for (int q = 0; q < 8; ++q) {
      if ((odd_bits >> q) & 1) out[q] = std::log(v[q]);
    }
    result = _mm256_load_ps(out);
  }
  return result;
}

ZV_AVX2_FMA void logSharesAvx2(float* bins, std::int64_t n, float sum, float scale, float floor,
                               float log_floor) {
  const __m256 sum8 = _mm256_set1_ps(sum), scale8 = _mm256_set1_ps(scale), floor8 = _mm256_set1_ps(floor);
  const __m256i floor_bits8 = _mm256_castps_si256(floor8);
  const __m256 log_floor8 = _mm256_set1_ps(log_floor);
  // Whole groups, the last one into the padding: a masked load of what the
  // histogram has just stored would wait for those stores to complete.
  // A histogram's tails, beyond the reach of its components' mass, hold
  // shares that round to the floor itself; their groups need no logarithm.
  for (std::int64_t k0 = 0; k0 < n; k0 += 8) {
    float* const at = bins + k0;
    const __m256 share = _mm256_add_ps(_mm256_mul_ps(_mm256_div_ps(_mm256_loadu_ps(at), sum8), scale8), floor8);
    const __m256i lanes = firstLanes(n - k0);
    const __m256i share_bits = _mm256_castps_si256(share);
    const __m256i floor_or_padding = _mm256_or_si256(_mm256_cmpeq_epi32(share_bits, floor_bits8),
                                                     _mm256_xor_si256(lanes, _mm256_set1_epi32(-1)));
    if (_mm256_movemask_ps(_mm256_castsi256_ps(floor_or_padding)) == 0xff) {
      _mm256_storeu_ps(at, log_floor8);
      continue;
    }
    _mm256_storeu_ps(at, logOrFloor(share_bits, floor_bits8, log_floor8, lanes));
  }
}

ZV_AVX2_FMA void expEightAvx2(const float* x, float* out) {
  const __m256 v = _mm256_loadu_ps(x);
  const int odd_bits = ~_mm256_movemask_ps(expMainLanes(v)) & 0xff;
  _mm256_storeu_ps(out, expEight(v));
  for (int q = 0; q < 8; ++q) {
    if ((odd_bits >> q) & 1) out[q] = std::exp(x[q]);
  }
}

ZV_AVX2_FMA void logEightAvx2(const float* x, float* out) {
  const __m256i ix = _mm256_castps_si256(_mm256_loadu_ps(x));
  const int odd_bits = ~_mm256_movemask_ps(_mm256_castsi256_ps(logMainLanes(ix))) & 0xff;
  _mm256_storeu_ps(out, logEight(ix));
  for (int q = 0; q < 8; ++q) {
    if ((odd_bits >> q) & 1) out[q] = std::log(x[q]);
  }
}

#undef ZV_AVX2_FMA

bool cpuHasAvx2AndFma() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }

// Compares the eight-lane functions with std::exp / std::log, bit for bit,
// on arguments spread over the exponents of a table (-104..0, and the whole
// float range as bit patterns) and over the positive floats.
bool vectorMathMatchesCLibrary() {
  constexpr int kArguments = 8 * 1024;
  float x[8], got[8];
  std::uint32_t pattern = 0x9e3779b9u;
  for (int start = 0; start < kArguments; start += 8) {
    for (int q = 0; q < 8; ++q) {
      const int n = start + q;
      pattern = pattern * 1664525u + 1013904223u;
      float bits_value;
      std::memcpy(&bits_value, &pattern, sizeof bits_value);
      x[q] = n % 2 == 0 ? -104.0f * static_cast<float>(n) / kArguments : bits_value;
    }
    expEightAvx2(x, got);
    for (int q = 0; q < 8; ++q) {
      if (bitsOf(got[q]) != bitsOf(std::exp(x[q]))) return false;
    }
    for (int q = 0; q < 8; ++q) {
      std::uint32_t positive = bitsOf(x[q]) & 0x7fffffffu;
      std::memcpy(&x[q], &positive, sizeof positive);
    }
    logEightAvx2(x, got);
    for (int q = 0; q < 8; ++q) {
      if (bitsOf(got[q]) != bitsOf(std::log(x[q]))) return false;
    }
  }
  return true;
}

bool vectorMathAvailable() {
  static const bool available = cpuHasAvx2AndFma() && vectorMathMatchesCLibrary();
  return available;
}

#else

bool vectorMathAvailable() { return false; }

#endif  // __x86_64__

bool use_vector_math = vectorMathAvailable();

}  // namespace

void addGaussianTerms(float* bins, std::int64_t first, std::int64_t lo, std::int64_t hi, float w, float mean,
                      float sigma, float step) {
#if defined(__x86_64__)
  if (use_vector_math) {
    addGaussianTermsAvx2(bins, first, lo, hi, w, mean, sigma, step);
    return;
  }
#endif
  addGaussianTermsPlain(bins, first, lo, hi, w, mean, sigma, step);
}

void addGaussianRuns(float* bins, std::int64_t first, const GaussianRun* runs, int count, float step) {
#if defined(__x86_64__)
  if (use_vector_math) {
    addGaussianRunsAvx2(bins, first, runs, count, step);
    return;
  }
#endif
  addGaussianRunsPlain(bins, first, runs, count, step);
}

void logShares(float* bins, std::int64_t n, float sum, float scale, float floor, float log_floor) {
#if defined(__x86_64__)
  if (use_vector_math) {
    logSharesAvx2(bins, n, sum, scale, floor, log_floor);
    return;
  }
#endif
  logSharesPlain(bins, n, sum, scale, floor, log_floor);
}

bool exactVectorMathInUse() { return use_vector_math; }

bool useExactVectorMath(bool wide) {
  use_vector_math = wide && vectorMathAvailable();
  return !wide || use_vector_math;
}

void expEightForTesting(const float* x, float* out) {
#if defined(__x86_64__)
  expEightAvx2(x, out);
#else
  for (int q = 0; q < 8; ++q) out[q] = std::exp(x[q]);
#endif
}

void logEightForTesting(const float* x, float* out) {
#if defined(__x86_64__)
  logEightAvx2(x, out);
#else
  for (int q = 0; q < 8; ++q) out[q] = std::log(x[q]);
#endif
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane
