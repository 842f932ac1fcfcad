// Memory of the map's large arrays: zero-filled, page aligned where large,
// and unchanged by pre-faulting; the file buffer takes the same.
#include "localization/map_allocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "localization/map_file_buffer.h"

namespace {

using namespace zorvane::localization;
using namespace zorvane::localization::internal;

TEST(MapAllocator, BlocksAreZeroFilledAndLargeOnesPageAligned) {
  for (std::size_t bytes : {std::size_t{1}, std::size_t{4095}, kLargeBlockBytes - 1, kLargeBlockBytes,
                            kLargeBlockBytes + 12345, 3 * kLargeBlockBytes}) {
    auto* p = static_cast<unsigned char*>(allocateMapBytes(bytes));
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(std::all_of(p, p + bytes, [](unsigned char c) { return c == 0; })) << bytes;
    if (bytes >= kLargeBlockBytes) {
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 4096, 0u);
    }
    std::memset(p, 0xA5, bytes);  // the whole block is writable
    prefaultMapBytes(p, bytes);
    EXPECT_TRUE(std::all_of(p, p + bytes, [](unsigned char c) { return c == 0xA5; })) << bytes;
    releaseMapBytes(p, bytes);
  }
  EXPECT_EQ(allocateMapBytes(0), nullptr);
  releaseMapBytes(nullptr, 0);
}

bool allZero(const void* p, std::size_t bytes) {
  const auto* c = static_cast<const unsigned char*>(p);
  return std::all_of(c, c + bytes, [](unsigned char b) { return b == 0; });
}

TEST(MapAllocator, TheLargerReleasedBlockIsReusedZeroFilledWhateverSizeComesNext) {
  const std::size_t block = kLargeBlockBytes;
  const std::size_t held_bytes = std::max(block, spareMapBytes());
  void* held = allocateMapBytes(held_bytes);  // takes all of any spare an earlier test left
  ASSERT_EQ(spareMapBytes(), 0u);

  void* a = allocateMapBytes(2 * block);
  std::memset(a, 0xA5, 2 * block);
  releaseMapBytes(a, 2 * block);
  EXPECT_EQ(spareMapBytes(), 2 * block);
  void* same = allocateMapBytes(2 * block);  // the same size: the same block, zeroed
  EXPECT_EQ(same, a);
  EXPECT_TRUE(allZero(same, 2 * block));
  EXPECT_EQ(spareMapBytes(), 0u);

  // Grown: the reused pages zeroed, the new ones fresh, all writable.
  std::memset(same, 0x5A, 2 * block);
  releaseMapBytes(same, 2 * block);
  const std::size_t larger = 3 * block + 12345;
  auto* const grown = static_cast<unsigned char*>(allocateMapBytes(larger));
  EXPECT_TRUE(allZero(grown, larger));
  std::memset(grown, 0x11, larger);
  EXPECT_EQ(spareMapBytes(), 0u);

  // Shrunk: the head reused and zeroed, the tail kept as the spare.
  releaseMapBytes(grown, larger);
  EXPECT_EQ(spareMapBytes(), 3 * block + 16384);
  void* smaller = allocateMapBytes(block + 1);
  EXPECT_EQ(smaller, grown);
  EXPECT_TRUE(allZero(smaller, block + 1));
  EXPECT_EQ(spareMapBytes(), 2 * block + 12288);
  void* tail = allocateMapBytes(2 * block);
  EXPECT_EQ(tail, grown + block + 4096);
  EXPECT_TRUE(allZero(tail, 2 * block));
  releaseMapBytes(tail, 2 * block);

  // Of two released blocks the larger is kept.
  void* big = allocateMapBytes(2 * block);
  releaseMapBytes(big, 2 * block);
  releaseMapBytes(smaller, block + 1);
  EXPECT_EQ(spareMapBytes(), 2 * block);
  releaseMapBytes(held, held_bytes);
}

TEST(MapAllocator, VectorsAndFileBuffersUseIt) {
  MapVector<float> v(kLargeBlockBytes / sizeof(float) + 3, 1.5f);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.data()) % 4096, 0u);
  v.resize(7);
  v.shrink_to_fit();
  EXPECT_EQ(v.back(), 1.5f);

  MapFileBuffer buffer(kLargeBlockBytes + 1);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % 4096, 0u);
  EXPECT_TRUE(std::all_of(buffer.data(), buffer.data() + buffer.size(), [](char c) { return c == 0; }));
  MapFileBuffer small(10);
  EXPECT_TRUE(std::all_of(small.data(), small.data() + 10, [](char c) { return c == 0; }));
}

}  // namespace
