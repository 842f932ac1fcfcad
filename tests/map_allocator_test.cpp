// Memory of the map's large arrays: zero-filled, page aligned where large,
// and unchanged by pre-faulting; the file buffer takes the same.
#include "localization/map_allocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "localization/map_file_buffer.h"

namespace {

using namespace zorvane::localization;
using namespace zorvane::localization::internal;

// With and without the huge page hint: how pages are obtained must not
// change the bytes.
void checkBlocksAreZeroFilledAndLargeOnesPageAligned() {
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

TEST(MapAllocator, BlocksAreZeroFilledAndLargeOnesPageAligned) {
  checkBlocksAreZeroFilledAndLargeOnesPageAligned();
  const HugePagesWhereFree huge_pages;
  checkBlocksAreZeroFilledAndLargeOnesPageAligned();
}

TEST(MapAllocator, FreeBytesInHugeBlocksReadsBuddyinfo) {
  constexpr std::int64_t kMiB = 1 << 20;
  const std::string machine =
      "Node 0, zone      DMA      0      0      0      0      0      0      0      0      1      1      3 \n"
      "Node 0, zone    DMA32      1      1      4      2      5      4      3      3      4      2    752 \n"
      "Node 0, zone   Normal   3109   1534    985    818    833    748    503    264    218    250   1253 \n";
  struct Case {
    const char* what;
    std::string text;
    std::size_t page_bytes;
    std::int64_t expected;
  };
  const Case cases[] = {
      {"4 KiB pages: orders 9 and 10", machine, 4096, ((1 + 2 + 250) * 2 + (3 + 752 + 1253) * 4) * kMiB},
      {"64 KiB pages: order 5 is 2 MiB", "Node 0, zone Normal 7 7 7 7 7 1 1 1\n", 65536, (1 + 2 + 4) * 2 * kMiB},
      {"no block that large", "Node 0, zone Normal 9 9 9\n", 4096, 0},
      {"saturates", "Node 0, zone Normal 0 0 0 0 0 0 0 0 0 0 9223372036854775807\n", 4096,
       INT64_MAX / (2 * kMiB) * (2 * kMiB)},
      {"empty", "", 4096, -1},
      {"not a count", "Node 0, zone Normal 1 2 x\n", 4096, -1},
      {"no counts", "Node 0, zone Normal\n", 4096, -1},
      {"negative count", "Node 0, zone Normal 1 -2 3\n", 4096, -1},
      {"another file", "MemTotal: 24000000 kB\n", 4096, -1},
      {"a bad line after a good one", machine + "Node 1, zone\n", 4096, -1},
  };
  for (const Case& c : cases) EXPECT_EQ(freeBytesInHugeBlocks(c.text, c.page_bytes), c.expected) << c.what;
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
