// Stores that bypass the caches, for arrays written once and not read again
// soon: the cells of a load and the bins of a large table run to hundreds
// of megabytes, and fetching each line before overwriting it would double
// the memory traffic. Without SSE2 they are ordinary stores.
#ifndef ZORVANE_LOCALIZATION_STREAMING_STORE_H_
#define ZORVANE_LOCALIZATION_STREAMING_STORE_H_

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zorvane {
namespace localization {
namespace internal {

// Copies the 64 bytes at `src` to `dst`, which is 16-byte aligned.
inline void streamStore64(void* dst, const void* src) {
#if defined(__SSE2__)
  const auto* from = static_cast<const __m128i*>(src);
  auto* to = static_cast<__m128i*>(dst);
  _mm_stream_si128(to + 0, _mm_loadu_si128(from + 0));
  _mm_stream_si128(to + 1, _mm_loadu_si128(from + 1));
  _mm_stream_si128(to + 2, _mm_loadu_si128(from + 2));
  _mm_stream_si128(to + 3, _mm_loadu_si128(from + 3));
#else
  std::memcpy(dst, src, 64);
#endif
}

// Copies `n` floats from `src` to `out`; the 16-byte aligned groups of
// `out` bypass the caches.
inline void streamFloats(float* out, const float* src, std::int64_t n) {
  std::int64_t k = 0;
#if defined(__SSE2__)
  for (; k < n && (reinterpret_cast<std::uintptr_t>(out + k) & 15u) != 0; ++k) out[k] = src[k];
  for (; k + 4 <= n; k += 4) _mm_stream_ps(out + k, _mm_loadu_ps(src + k));
#endif
  for (; k < n; ++k) out[k] = src[k];
}

// Makes this thread's streamed stores visible to the others; call before
// the thread leaves the parallel region that made them.
inline void fenceStreamedStores() {
#if defined(__SSE2__)
  _mm_sfence();
#endif
}

}  // namespace internal
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_STREAMING_STORE_H_
