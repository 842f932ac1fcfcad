#include "localization/lossy_cell_decoder.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <cstring>

#include "localization/cell_preparation.h"

namespace zorvane {
namespace localization {
namespace lossy {

CellDecoder::CellDecoder(const CellScales& scales, bool prepare) : scales_(scales), prepare_(prepare) {
  for (int b = 0; b < 256; ++b) {
    decodeWeight(static_cast<std::uint8_t>(b), &first_weight_[b], &second_weight_[b]);
  }
}

#if defined(__SSE2__)

namespace {

int fixed16At(const char* record, int offset) { return internal::decodeFixed16(record + offset); }

}  // namespace

// The cell's sixteen floats are four groups of four, assembled from three
// vectors:
//   sigma  = (value sigma 0, 1, height sigma 0, 1)
//   weight = (value weight 0, 1, height weight 0, 1)
//   means  = (height mean 0, 1, aux value, 0)
// and the two value means, which are their bytes converted.
void CellDecoder::decodeCells(const char* src, std::size_t n, MCell* out) const {
  const __m128 sigma_steps = _mm_setr_ps(scales_.value_sigma_step, scales_.value_sigma_step,
                                         scales_.height_sigma_step, scales_.height_sigma_step);
  const __m128 mean_steps = _mm_setr_ps(scales_.height_mean_step, scales_.height_mean_step,
                                        scales_.aux_value_step, 0.0f);
  const __m128 mean_origins = _mm_setr_ps(scales_.height_base, scales_.height_base,
                                          scales_.aux_value_base, 0.0f);
  const __m128 zero = _mm_setzero_ps();
  for (std::size_t i = 0; i < n; ++i) {
    const char* r = src + i * kRecordBytes;
    const auto* u = reinterpret_cast<const unsigned char*>(r);
    __m128 sigma = _mm_mul_ps(
        _mm_cvtepi32_ps(_mm_setr_epi32(fixed16At(r, kRecordValueSigmaOffset), fixed16At(r, kRecordValueSigmaOffset + 2),
                                       fixed16At(r, kRecordHeightSigmaOffset),
                                       fixed16At(r, kRecordHeightSigmaOffset + 2))),
        sigma_steps);
    const unsigned value_weight = u[kRecordValueWeightOffset];
    const unsigned height_weight = u[kRecordHeightWeightOffset];
    __m128 weight = _mm_setr_ps(first_weight_[value_weight], second_weight_[value_weight],
                                first_weight_[height_weight], second_weight_[height_weight]);
    if (prepare_) {
      // prepareComponent, lane by lane: w / s, then s * (s + s).
      weight = _mm_div_ps(weight, sigma);
      sigma = _mm_mul_ps(sigma, _mm_add_ps(sigma, sigma));
    }
    // Product, then the origin in a separate addition (decodeStep); the
    // last lane is 0 * 0 + 0 = +0, the first padding float.
    const __m128 means = _mm_add_ps(
        _mm_mul_ps(_mm_cvtepi32_ps(_mm_setr_epi32(fixed16At(r, kRecordHeightMeanOffset),
                                                  fixed16At(r, kRecordHeightMeanOffset + 2),
                                                  fixed16At(r, kRecordAuxOffset), 0)),
                   mean_steps),
        mean_origins);
    const __m128 value_means =
        _mm_cvtepi32_ps(_mm_setr_epi32(u[kRecordValueMeanOffset], u[kRecordValueMeanOffset + 1], 0, 0));
    auto* cell = reinterpret_cast<float*>(out + i);
    _mm_stream_ps(cell + 0, _mm_movelh_ps(sigma, value_means));
    _mm_stream_ps(cell + 4, _mm_shuffle_ps(weight, sigma, _MM_SHUFFLE(3, 2, 1, 0)));
    _mm_stream_ps(cell + 8, _mm_shuffle_ps(means, weight, _MM_SHUFFLE(3, 2, 1, 0)));
    _mm_stream_ps(cell + 12, _mm_movehl_ps(zero, means));
  }
}

#else

void CellDecoder::decodeCells(const char* src, std::size_t n, MCell* out) const {
  for (std::size_t i = 0; i < n; ++i) {
    MCell cell;
    decodeCellRecord(src + i * kRecordBytes, scales_, &cell);
    if (prepare_) internal::prepareCell(cell);
    std::memcpy(static_cast<void*>(out + i), &cell, sizeof cell);
  }
}

#endif

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane
