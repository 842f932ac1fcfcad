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
