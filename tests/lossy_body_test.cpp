// The body decoder on record sources that fail or change underneath it: a
// read error, a file cut short after it was opened, records that name other
// positions when they are fetched again. Every refusal leaves the matrix
// empty, and nothing is written outside it (the sanitizer build checks).
#include "localization/lossy_body.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>

#include "localization/lossy_record_source.h"
#include "localization/map_file_buffer.h"
#include "tests/support/map_bytes.h"
#include "tests/support/map_files.h"

namespace zorvane {
namespace localization {
namespace {

using lossy::kRecordBytes;
using testing::Bytes;

enum class After { kNothing, kReadFails, kSourceEnds, kPositionsMove };

// Hands out `records` (into the scratch, like a file); from fetch number
// `good` on it misbehaves as `after` says.
class ChangingSource : public lossy::RecordSource {
 public:
  ChangingSource(const Bytes& records, int good, After after) : records_(records), good_(good), after_(after) {}
  const char* fetch(std::size_t first, std::size_t n, char* scratch, MapLoadStatus* failure) const override {
    const bool bad = fetches_.fetch_add(1) >= good_;
    if (bad && after_ == After::kReadFails) return *failure = MapLoadStatus::kCannotRead, nullptr;
    if (bad && after_ == After::kSourceEnds) return *failure = MapLoadStatus::kTruncatedBody, nullptr;
    std::memcpy(scratch, records_.data() + first * kRecordBytes, n * kRecordBytes);
    if (bad && after_ == After::kPositionsMove) {
      for (std::size_t i = 0; i < n; ++i) std::memset(scratch + i * kRecordBytes, 0x7f, 4);
    }
    return scratch;
  }

 private:
  const Bytes& records_;
  const int good_;
  const After after_;
  mutable std::atomic<int> fetches_{0};
};

GridMatrix shapedMatrix() {
  GridMatrix m;
  m.manualInit(0.15f, 3, 2, 0, 0);
  return m;
}

// Positions 4, 1, 4: out of order and named twice, so the index is
// replayed in record order. One chunk: fetch 0 reads its head, fetch 1 the
// run, fetch 2 the replay.
TEST(DecodeBodyTest, AFailingOrChangingSourceLeavesTheMatrixEmpty) {
  Bytes records;
  for (const std::uint32_t position : {4u, 1u, 4u}) testing::appendRecord(&records, position);
  const lossy::CellScales scales{0.01f, 0.01f, 0.01f, 0.01f, -4.0f, 0.0f};
  struct Case { int good; After after; MapLoadStatus status; };
  const Case cases[] = {
      {0, After::kReadFails, MapLoadStatus::kCannotRead},
      {1, After::kSourceEnds, MapLoadStatus::kTruncatedBody},
      {2, After::kReadFails, MapLoadStatus::kCannotRead},
      {2, After::kPositionsMove, MapLoadStatus::kPositionOutOfRange},
      {0, After::kNothing, MapLoadStatus::kOk},
  };
  for (const Case& c : cases) {
    GridMatrix m = shapedMatrix();
    const ChangingSource source(records, c.good, c.after);
    EXPECT_EQ(lossy::decodeBody(source, 3, scales, true, &m), c.status) << c.good;
    if (c.status == MapLoadStatus::kOk) {
      EXPECT_EQ(std::vector<std::int32_t>(m.index_.begin(), m.index_.end()),
                (std::vector<std::int32_t>{-1, 1, -1, -1, 2, -1}));
      EXPECT_EQ(m.cells_.size(), 3u);
      EXPECT_TRUE(m.precalculated_);
    } else {
      EXPECT_TRUE(m.cells_.empty() && m.index_.empty() && !m.precalculated_) << c.good;
    }
  }
}

TEST(DecodeBodyTest, AFileCutShortAfterItWasOpenedIsATruncatedBody) {
  Bytes records;
  for (std::uint32_t position = 0; position < 6; ++position) testing::appendRecord(&records, position);
  const std::string path = testing::tempMapPath("cut_short");
  testing::writeFileBytes(path, records);
  internal::MapFile file;
  ASSERT_EQ(file.open(path, 1 << 20), internal::FileReadStatus::kOk);
  ASSERT_EQ(truncate(path.c_str(), 5 * kRecordBytes), 0);
  GridMatrix m = shapedMatrix();
  EXPECT_EQ(lossy::decodeBody(lossy::FileRecords(file, 0), 6, {}, false, &m), MapLoadStatus::kTruncatedBody);
  EXPECT_TRUE(m.cells_.empty() && m.index_.empty());
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
