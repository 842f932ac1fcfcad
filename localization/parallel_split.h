// The static split of n items over a team of threads, shared by both
// parallel passes of the library (cell preparation and the table builder).
#ifndef ZORVANE_LOCALIZATION_PARALLEL_SPLIT_H_
#define ZORVANE_LOCALIZATION_PARALLEL_SPLIT_H_

#include <cstdint>

namespace zorvane {
namespace localization {

// Half-open range [begin, end) of item numbers.
struct WorkRange {
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

// Contiguous share of thread `thread` (0-based) in a team of `threads`:
// with q = n / threads and r = n % threads, threads below r take q + 1 items
// from thread * (q + 1), the others q items from thread * q + r. The shares
// of a team cover 0..n-1 exactly once, in thread order. n <= 0 or a thread
// outside the team gives an empty range.
inline WorkRange staticSplit(std::int64_t n, int threads, int thread) {
  if (n <= 0 || threads <= 0 || thread < 0 || thread >= threads) return {};
  const std::int64_t q = n / threads;
  const std::int64_t r = n % threads;
  const std::int64_t t = thread;
  const std::int64_t begin = t < r ? t * (q + 1) : t * q + r;
  return {begin, begin + (t < r ? q + 1 : q)};
}

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_PARALLEL_SPLIT_H_
