#include "localization/parallel_split.h"

#include <gtest/gtest.h>

namespace zorvane {
namespace localization {
namespace {

// Shares are contiguous, in thread order, cover every item once, and
// differ in size by at most one with the larger shares first: with n items
// and T threads, thread t < n mod T takes n / T + 1 items, the others n / T.
TEST(StaticSplitTest, SharesTileTheItemsInThreadOrder) {
  for (std::int64_t n = 0; n <= 40; ++n) {
    for (int threads = 1; threads <= 9; ++threads) {
      std::int64_t next = 0;
      std::int64_t previous_size = n;
      for (int t = 0; t < threads; ++t) {
        const WorkRange r = staticSplit(n, threads, t);
        ASSERT_EQ(r.begin, next) << n << " items, " << threads << " threads, thread " << t;
        ASSERT_LE(r.begin, r.end);
        const std::int64_t size = r.end - r.begin;
        ASSERT_LE(size, previous_size);
        ASSERT_GE(size, n / threads);
        ASSERT_LE(size, n / threads + 1);
        previous_size = size;
        next = r.end;
      }
      ASSERT_EQ(next, n);
    }
  }
}

TEST(StaticSplitTest, NothingToSplitOrThreadOutsideTheTeam) {
  for (const WorkRange r : {staticSplit(0, 4, 0), staticSplit(-5, 4, 1), staticSplit(10, 0, 0),
                            staticSplit(10, 4, 4), staticSplit(10, 4, -1)}) {
    EXPECT_EQ(r.begin, r.end);
  }
  const WorkRange huge = staticSplit(std::int64_t{1} << 40, 3, 2);
  EXPECT_EQ(huge.end, std::int64_t{1} << 40);
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
