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

// Lane helpers of both instruction sets (AVX2 instructions, which the
// AVX-512 kernels may inline: their target includes AVX2).
#define ZV_AVX2_FMA __attribute__((target("avx2,fma")))

// Mask of the lanes of x that the main expf formula covers (not NaN).
ZV_AVX2_FMA inline __m256 expMainLanes(__m256 x) {
  const __m256 lowest = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(kExpLowest)));
  const __m256 highest = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(kExpHighest)));
  return _mm256_and_ps(_mm256_cmp_ps(x, lowest, _CMP_GE_OQ), _mm256_cmp_ps(x, highest, _CMP_LE_OQ));
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

// Lanes [0, count) of eight, as a mask for maskload/maskstore.
ZV_AVX2_FMA inline __m256i firstLanes(std::int64_t count) {
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const int n = count >= 8 ? 8 : static_cast<int>(count);
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), lane);
}

#undef ZV_AVX2_FMA

// AVX2: four lanes of double precision at a time, the tables by gathers.
namespace avx2 {
#define ZV_KERNEL __attribute__((target("avx2,fma")))

struct Tables {};
ZV_KERNEL inline Tables loadTables() { return {}; }

// expf of four arguments by the main formula, in double precision.
ZV_KERNEL inline __m128 expFour(__m128 x) {
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

// A half with none of `lanes` is left at 0 without its exponentials: the
// last group of a histogram is often half padding.
ZV_KERNEL inline __m256 expEightOf(__m256 x, int lanes, const Tables&) {
  const __m128 low = (lanes & 0x0f) != 0 ? expFour(_mm256_castps256_ps128(x)) : _mm_setzero_ps();
  const __m128 high = (lanes & 0xf0) != 0 ? expFour(_mm256_extractf128_ps(x, 1)) : _mm_setzero_ps();
  return _mm256_set_m128(high, low);
}

// logf of four positive normal arguments other than 1 by the main formula.
ZV_KERNEL inline __m128 logFour(__m128i ix) {
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

ZV_KERNEL inline __m256 logEight(__m256i ix, const Tables&) {
  return _mm256_set_m128(logFour(_mm256_extracti128_si256(ix, 1)), logFour(_mm256_castsi256_si128(ix)));
}

#include "localization/look_up_table_exp_log_kernels.inc"

#undef ZV_KERNEL
}  // namespace avx2

// AVX-512: all eight lanes in one register of doubles, and the tables held
// in registers, looked up by permutes instead of gathers. The same
// operations in the same order as the AVX2 forms, so the same bits. (The
// zero-masked conversions, all lanes enabled, are the plain ones without
// GCC 12's warning about their undefined starting value.)
namespace avx512 {
#define ZV_KERNEL __attribute__((target("avx512f,avx512dq,avx512vl,avx2,fma")))

struct Tables {
  __m512i exp0, exp1, exp2, exp3;     // kExpTable[0..7], [8..15], [16..23], [24..31]
  __m512d invc_low, invc_high;        // invc of the 16 logf intervals
  __m512d logc_low, logc_high;        // log c likewise
};

ZV_KERNEL inline Tables loadTables() {
  const auto* e = reinterpret_cast<const long long*>(kExpTable);
  const auto* l = reinterpret_cast<const double*>(kLogTable);
  Tables t;
  t.exp0 = _mm512_loadu_si512(e);
  t.exp1 = _mm512_loadu_si512(e + 8);
  t.exp2 = _mm512_loadu_si512(e + 16);
  t.exp3 = _mm512_loadu_si512(e + 24);
  // kLogTable interleaves {invc, log c}.
  const __m512i even = _mm512_setr_epi64(0, 2, 4, 6, 8, 10, 12, 14);
  const __m512i odd = _mm512_setr_epi64(1, 3, 5, 7, 9, 11, 13, 15);
  const __m512d first = _mm512_loadu_pd(l), second = _mm512_loadu_pd(l + 8);
  const __m512d third = _mm512_loadu_pd(l + 16), fourth = _mm512_loadu_pd(l + 24);
  t.invc_low = _mm512_permutex2var_pd(first, even, second);
  t.invc_high = _mm512_permutex2var_pd(third, even, fourth);
  t.logc_low = _mm512_permutex2var_pd(first, odd, second);
  t.logc_high = _mm512_permutex2var_pd(third, odd, fourth);
  return t;
}

ZV_KERNEL inline __m256 expEightOf(__m256 x, int, const Tables& t) {
  const __m512d xd = _mm512_maskz_cvtps_pd(0xff, x);
  const __m512d inv_ln2n = _mm512_set1_pd(fromBits(kExpInvLn2N));
  const __m512d shift = _mm512_set1_pd(fromBits(kExpShift));
  __m512d kd = _mm512_fmadd_pd(inv_ln2n, xd, shift);
  const __m512i ki = _mm512_castpd_si512(kd);
  kd = _mm512_sub_pd(kd, shift);
  const __m512d r = _mm512_fmsub_pd(inv_ln2n, xd, kd);
  // Entry ki & 31: the permutes read its low four bits, bit 4 picks the half.
  const __m512i low = _mm512_permutex2var_epi64(t.exp0, ki, t.exp1);
  const __m512i high = _mm512_permutex2var_epi64(t.exp2, ki, t.exp3);
  const __m512i entry = _mm512_mask_blend_epi64(_mm512_test_epi64_mask(ki, _mm512_set1_epi64(16)), low, high);
  const __m512d s = _mm512_castsi512_pd(_mm512_add_epi64(entry, _mm512_maskz_slli_epi64(0xff, ki, 47)));
  const __m512d z = _mm512_fmadd_pd(_mm512_set1_pd(fromBits(kExpC0)), r, _mm512_set1_pd(fromBits(kExpC1)));
  const __m512d r2 = _mm512_mul_pd(r, r);
  __m512d y = _mm512_fmadd_pd(_mm512_set1_pd(fromBits(kExpC2)), r, _mm512_set1_pd(1.0));
  y = _mm512_fmadd_pd(z, r2, y);
  return _mm512_maskz_cvtpd_ps(0xff, _mm512_mul_pd(y, s));
}

ZV_KERNEL inline __m256 logEight(__m256i ix, const Tables& t) {
  const __m256i tmp = _mm256_sub_epi32(ix, _mm256_set1_epi32(static_cast<int>(kLogOffset)));
  const __m256i i = _mm256_and_si256(_mm256_srli_epi32(tmp, 19), _mm256_set1_epi32(15));
  const __m256i k = _mm256_srai_epi32(tmp, 23);
  const __m256i iz = _mm256_sub_epi32(ix, _mm256_and_si256(tmp, _mm256_set1_epi32(static_cast<int>(0xff800000u))));
  const __m512d z = _mm512_maskz_cvtps_pd(0xff, _mm256_castsi256_ps(iz));
  const __m512i at = _mm512_maskz_cvtepi32_epi64(0xff, i);
  const __m512d invc = _mm512_permutex2var_pd(t.invc_low, at, t.invc_high);
  const __m512d logc = _mm512_permutex2var_pd(t.logc_low, at, t.logc_high);
  const __m512d y0 = _mm512_fmadd_pd(_mm512_maskz_cvtepi32_pd(0xff, k), _mm512_set1_pd(fromBits(kLogLn2)), logc);
  const __m512d r = _mm512_fmadd_pd(z, invc, _mm512_set1_pd(-1.0));
  __m512d y = _mm512_fmadd_pd(r, _mm512_set1_pd(fromBits(kLogA1)), _mm512_set1_pd(fromBits(kLogA2)));
  const __m512d r2 = _mm512_mul_pd(r, r);
  const __m512d s = _mm512_add_pd(r, y0);
  y = _mm512_fmadd_pd(r2, _mm512_set1_pd(fromBits(kLogA0)), y);
  return _mm512_maskz_cvtpd_ps(0xff, _mm512_fmadd_pd(r2, y, s));
}

#include "localization/look_up_table_exp_log_kernels.inc"

#undef ZV_KERNEL
}  // namespace avx512

bool processorHasAvx2AndFma() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }
bool processorHasAvx512() {
  return processorHasAvx2AndFma() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
         __builtin_cpu_supports("avx512vl");
}

// Compares eight-lane expf and logf with std::exp / std::log, bit for bit,
// on arguments spread over the exponents of a table (-104..0, and the whole
// float range as bit patterns) and over the positive floats.
using EightLanes = void (*)(const float*, float*);
bool matchesCLibrary(EightLanes exp_eight, EightLanes log_eight) {
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
    exp_eight(x, got);
    for (int q = 0; q < 8; ++q) {
      if (bitsOf(got[q]) != bitsOf(std::exp(x[q]))) return false;
    }
    for (int q = 0; q < 8; ++q) {
      std::uint32_t positive = bitsOf(x[q]) & 0x7fffffffu;
      std::memcpy(&x[q], &positive, sizeof positive);
    }
    log_eight(x, got);
    for (int q = 0; q < 8; ++q) {
      if (bitsOf(got[q]) != bitsOf(std::log(x[q]))) return false;
    }
  }
  return true;
}

#endif  // __x86_64__

}  // namespace

bool processorRuns(VectorMath math) {
#if defined(__x86_64__)
  switch (math) {
    case VectorMath::kAvx2:
      return processorHasAvx2AndFma();
    case VectorMath::kAvx512:
      return processorHasAvx512();
    case VectorMath::kPlain:
      break;
  }
#endif
  return math == VectorMath::kPlain;
}

bool vectorMathAvailable(VectorMath math) {
#if defined(__x86_64__)
  static const bool avx2 =
      processorHasAvx2AndFma() && matchesCLibrary(avx2::expEightChecked, avx2::logEightChecked);
  static const bool avx512 =
      avx2 && processorHasAvx512() && matchesCLibrary(avx512::expEightChecked, avx512::logEightChecked);
  if (math == VectorMath::kAvx2) return avx2;
  if (math == VectorMath::kAvx512) return avx512;
#endif
  return math == VectorMath::kPlain;
}

VectorMath widestVectorMath() {
  for (const VectorMath math : {VectorMath::kAvx512, VectorMath::kAvx2}) {
    if (vectorMathAvailable(math)) return math;
  }
  return VectorMath::kPlain;
}

namespace {
VectorMath vector_math = widestVectorMath();
}  // namespace

bool useVectorMath(VectorMath math) {
  if (!vectorMathAvailable(math)) return false;
  vector_math = math;
  return true;
}

void addGaussianTerms(float* bins, std::int64_t first, std::int64_t lo, std::int64_t hi, float w, float mean,
                      float sigma, float step) {
#if defined(__x86_64__)
  if (vector_math == VectorMath::kAvx512) return avx512::addGaussianTermsWide(bins, first, lo, hi, w, mean, sigma, step);
  if (vector_math == VectorMath::kAvx2) return avx2::addGaussianTermsWide(bins, first, lo, hi, w, mean, sigma, step);
#endif
  addGaussianTermsPlain(bins, first, lo, hi, w, mean, sigma, step);
}

void addGaussianRuns(float* bins, std::int64_t first, const GaussianRun* runs, int count, float step) {
#if defined(__x86_64__)
  if (vector_math == VectorMath::kAvx512) return avx512::addGaussianRunsWide(bins, first, runs, count, step);
  if (vector_math == VectorMath::kAvx2) return avx2::addGaussianRunsWide(bins, first, runs, count, step);
#endif
  addGaussianRunsPlain(bins, first, runs, count, step);
}

void logShares(float* bins, std::int64_t n, float sum, float scale, float floor, float log_floor) {
#if defined(__x86_64__)
  if (vector_math == VectorMath::kAvx512) return avx512::logSharesWide(bins, n, sum, scale, floor, log_floor);
  if (vector_math == VectorMath::kAvx2) return avx2::logSharesWide(bins, n, sum, scale, floor, log_floor);
#endif
  logSharesPlain(bins, n, sum, scale, floor, log_floor);
}

void expEightForTesting(VectorMath math, const float* x, float* out) {
#if defined(__x86_64__)
  if (math == VectorMath::kAvx512) return avx512::expEightChecked(x, out);
  if (math == VectorMath::kAvx2) return avx2::expEightChecked(x, out);
#endif
  for (int q = 0; q < 8; ++q) out[q] = std::exp(x[q]);
}

void logEightForTesting(VectorMath math, const float* x, float* out) {
#if defined(__x86_64__)
  if (math == VectorMath::kAvx512) return avx512::logEightChecked(x, out);
  if (math == VectorMath::kAvx2) return avx2::logEightChecked(x, out);
#endif
  for (int q = 0; q < 8; ++q) out[q] = std::log(x[q]);
}

}  // namespace lut
}  // namespace localization
}  // namespace zorvane
