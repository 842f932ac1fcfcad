// Whole-file reads: a large file is read in parts by the team, and the
// parts must join into exactly the file's bytes for any team size.
#include "localization/map_file_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "localization/lossy_format.h"
#include "tests/support/map_bytes.h"
#include "tests/support/map_files.h"
#include "tests/support/team_size.h"

namespace {

using zorvane::localization::internal::FileReadStatus;
using zorvane::localization::internal::MapFileBuffer;
using zorvane::localization::internal::readWholeFile;

TEST(MapFileBuffer, PartsReadByTheTeamJoinIntoTheFile) {
  // Sizes around the part boundaries of one to four readers of 32 MiB.
  const std::size_t mib = std::size_t{1} << 20;
  for (const std::size_t size : {std::size_t{3}, 64 * mib - 1, 64 * mib + 7, 129 * mib + 3}) {
    std::vector<char> bytes(size);
    std::uint32_t x = static_cast<std::uint32_t>(size);
    for (char& b : bytes) {
      x = x * 1664525u + 1013904223u;  // every part distinct, no period near a part's size
      b = static_cast<char>(x >> 24);
    }
    const std::string path = zorvane::testing::tempMapPath("whole_file_read");
    zorvane::testing::writeFileBytes(path, bytes);
    for (int threads : {1, 2, 3, 4}) {
      zorvane::testing::ScopedTeamSize team(threads);
      MapFileBuffer buffer;
      ASSERT_EQ(readWholeFile(path, zorvane::localization::lossy::kMaxFileBytes, &buffer), FileReadStatus::kOk);
      ASSERT_EQ(buffer.size(), size) << threads << " threads";
      EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), buffer.data())) << size << " bytes, " << threads << " threads";
    }
    std::remove(path.c_str());
  }
}

}  // namespace
