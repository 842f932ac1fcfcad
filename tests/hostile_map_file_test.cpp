// Broken and hostile zvmap files: a corpus built here, each case with the
// result, console output and state it must leave, read into a map that
// already holds a prepared matrix. Every case also runs through the fuzz
// target's checks, so the corpus doubles as its regression suite.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "fuzz/map_file_fuzz_target.h"
#include "localization/grid_map_lossy.h"
#include "tests/support/map_files.h"

namespace zorvane {
namespace localization {
namespace {

using testing::appendRecord;
using testing::Bytes;
using testing::HeaderFields;
using testing::headerBytes;
using testing::redLine;

const std::string kSize = redLine("ReadFromFile : Map size is not same as raw data!");
const std::string kFormat = redLine("GridMapLossy loadHeaderBinary : Map format wrong");
const std::string kDimensions = redLine("GridMapLossy loadBodyBinary : Map dimensions out of range");
const std::string kPosition = redLine("GridMapLossy loadBodyBinary : Cell position out of range");

// What a load leaves behind.
enum class After {
  kUnchanged,    // the map still holds the example, prepared
  kHeaderOnly,   // header and geometry from the file; no cells, no index
  kEmptyIndex,   // header and geometry; index of -1 entries; no cells
  kRaw,          // header, geometry, index and cells from the file, raw
  kReady,        // loaded and prepared
};

struct HostileCase {
  std::string name;
  Bytes file;
  bool result;
  std::string output;
  After after;
};

Bytes withRecords(HeaderFields h, const std::vector<std::uint32_t>& positions,
                  unsigned char fill = 0x11) {
  h.body_size = static_cast<std::uint32_t>(22 * positions.size());
  Bytes file = headerBytes(h);
  for (std::uint32_t p : positions) appendRecord(&file, p, fill);
  return file;
}

HeaderFields grid(std::int32_t rows, std::int32_t cols) {
  HeaderFields h;
  h.rows = rows;
  h.cols = cols;
  return h;
}

std::vector<HostileCase> hostileCorpus() {
  std::vector<HostileCase> c;
  const Bytes header = headerBytes(HeaderFields());

  // Too short for a header.
  c.push_back({"empty file", {}, false, "", After::kUnchanged});
  c.push_back({"part of the magic", Bytes{'z', 'v', 'm'}, false, "", After::kUnchanged});
  c.push_back({"magic only", Bytes{'z', 'v', 'm', 'a', 'p'}, false, kSize, After::kUnchanged});
  c.push_back({"header cut at 60 bytes", Bytes(header.begin(), header.begin() + 60), false, kSize,
               After::kUnchanged});
  c.push_back({"not a map file", Bytes(100, 'x'), false, "", After::kUnchanged});

  // Shorter than the body the header declares.
  Bytes missing = header;
  missing[41] = 66;
  c.push_back({"body missing", missing, false, kSize, After::kHeaderOnly});
  Bytes cut = withRecords(HeaderFields(), {0, 1, 2});
  cut.resize(cut.size() - 12);
  c.push_back({"body cut inside a record", cut, false, kSize, After::kHeaderOnly});
  HeaderFields huge_body;
  huge_body.body_size = 0xffffffffu;
  Bytes huge = headerBytes(huge_body);
  appendRecord(&huge, 0);
  c.push_back({"body size 2^32 - 1", huge, false, kFormat + kSize, After::kHeaderOnly});
  HeaderFields over_bound;
  over_bound.body_size = 22u * 97612891u;  // one record beyond the signed 32-bit lengths
  c.push_back({"body beyond the cell bound", headerBytes(over_bound), false, kSize,
               After::kHeaderOnly});

  // Geometry that would commit the loader to absurd memory, or that wraps.
  c.push_back({"65535 x 65535 grid with three cells", withRecords(grid(65535, 65535), {0, 1, 2}),
               false, kDimensions, After::kHeaderOnly});
  c.push_back({"65535 x 65535 grid without cells", withRecords(grid(65535, 65535), {}), false,
               kDimensions, After::kHeaderOnly});
  c.push_back({"negative rows and columns", withRecords(grid(-2, -3), {0}), false, kDimensions,
               After::kHeaderOnly});
  c.push_back({"negative rows", withRecords(grid(-1, 3), {0}), false, kDimensions,
               After::kHeaderOnly});
  c.push_back({"grid size wrapping to 0", withRecords(grid(65536, 65536), {0}), false, kDimensions,
               After::kHeaderOnly});
  c.push_back({"grid size wrapping to a small grid", withRecords(grid(65537, 65535), {0}), false,
               kDimensions, After::kHeaderOnly});
  c.push_back({"beyond 2^30 positions", withRecords(grid(32769, 32768), {0}), false, kDimensions,
               After::kHeaderOnly});
  // One record allows 2^24 + 256 positions: 256 x 65537 is just that many.
  c.push_back({"one row beyond what one cell allows", withRecords(grid(257, 65537), {0}), false,
               kDimensions, After::kHeaderOnly});
  c.push_back({"as many positions as one cell allows", withRecords(grid(256, 65537), {16777471}),
               true, "", After::kReady});

  // Records naming positions outside the grid.
  c.push_back({"position at the grid size", withRecords(grid(2, 3), {6}), false, kPosition,
               After::kHeaderOnly});
  c.push_back({"position 2^32 - 1", withRecords(grid(2, 3), {0xffffffffu}), false, kPosition,
               After::kHeaderOnly});
  c.push_back({"bad position after good ones", withRecords(grid(2, 3), {0, 1, 99}), false,
               kPosition, After::kHeaderOnly});
  c.push_back({"any position in an empty grid", withRecords(grid(0, 5), {0}), false, kPosition,
               After::kHeaderOnly});

  // Odd but readable.
  c.push_back({"duplicate positions", withRecords(grid(2, 3), {1, 1, 4}), true, "", After::kReady});
  c.push_back({"descending positions", withRecords(grid(2, 3), {5, 3, 0}), true, "",
               After::kReady});
  c.push_back({"every field saturated", withRecords(grid(2, 3), {0, 5}, 0xff), true, "",
               After::kReady});
  c.push_back({"zero sigmas and weights", withRecords(grid(2, 3), {2}, 0x00), true, "",
               After::kReady});
  HeaderFields nan_origins = grid(1, 1);
  nan_origins.height_base = std::numeric_limits<float>::quiet_NaN();
  nan_origins.aux_value_base = -std::numeric_limits<float>::infinity();
  c.push_back({"non-finite origins", withRecords(nan_origins, {0}), true, "", After::kReady});

  // Readable, but the length does not match: loaded raw, not ready.
  Bytes longer = withRecords(grid(2, 3), {0, 4});
  longer.push_back(0);
  c.push_back({"one byte too many", longer, false, kSize, After::kRaw});
  Bytes partial = withRecords(grid(2, 3), {0, 4});
  partial[41] = 50;  // 2 whole records and 6 bytes declared; 2 whole records present
  partial.resize(partial.size() + 1);
  c.push_back({"declared tail of a record", partial, false, kFormat + kSize, After::kRaw});

  // A header without records: the documented empty-body state.
  c.push_back({"no records", withRecords(grid(2, 3), {}), false, "", After::kEmptyIndex});
  return c;
}

class HostileMapFileTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileMapFileTest, GivesTheDecidedResultOutputAndState) {
  const HostileCase& hc = GetParam();
  const std::string path = testing::tempMapPath("hostile.zvmap");
  testing::writeFileBytes(path, hc.file);

  GridMapLossy map;
  fuzz::loadExample(&map);
  std::string out;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(testing::readCapturing(map, path, &out), hc.result);
  // Refusals are decided from the header, before any large allocation.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(out, hc.output);

  const GridMatrix& m = map.matrix();
  EXPECT_TRUE(fuzz::indexNamesOnlyCells(m));
  switch (hc.after) {
    case After::kUnchanged:
      EXPECT_TRUE(fuzz::sameAsExample(map));
      break;
    case After::kHeaderOnly:
      EXPECT_EQ(map.header_tag_, 7u);
      EXPECT_EQ(m.rows_, internal::decodeInt32(&hc.file[lossy::kRowsOffset]));
      EXPECT_TRUE(m.cells_.empty());
      EXPECT_TRUE(m.index_.empty());
      EXPECT_FALSE(m.precalculated_);
      break;
    case After::kEmptyIndex:
      EXPECT_EQ(map.header_tag_, 7u);
      EXPECT_EQ(m.index_.size(), m.grid_size_);
      for (std::int32_t e : m.index_) EXPECT_EQ(e, -1);
      EXPECT_TRUE(m.cells_.empty());
      EXPECT_FALSE(m.precalculated_);
      break;
    case After::kRaw:
    case After::kReady:
      EXPECT_EQ(map.header_tag_, 7u);
      EXPECT_EQ(m.index_.size(), m.grid_size_);
      EXPECT_EQ(m.cells_.size(), map.body_size_ / 22);
      EXPECT_EQ(m.precalculated_, hc.after == After::kReady);
      break;
  }

  ::testing::internal::CaptureStdout();
  const std::string failure = fuzz::checkMapFileInput(
      reinterpret_cast<const std::uint8_t*>(hc.file.data()), hc.file.size());
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(failure, "");
}

INSTANTIATE_TEST_SUITE_P(Corpus, HostileMapFileTest, ::testing::ValuesIn(hostileCorpus()),
                         [](const ::testing::TestParamInfo<HostileCase>& info) {
                           std::string name;
                           for (char ch : info.param.name) name += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                           return name;
                         });

TEST(HostileMapFileSourceTest, PipeIsRefusedWithoutWaitingForAWriter) {
  const std::string path = testing::tempMapPath("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  GridMapLossy map;
  std::string out;
  EXPECT_FALSE(testing::readCapturing(map, path, &out));
  EXPECT_EQ(out, redLine("ReadFromFile : Cannot read file " + path));
  unlink(path.c_str());
}

TEST(HostileMapFileSourceTest, FileBeyondTheSigned32BitLengthsIsRefusedUnread) {
  // A sparse file of 2^31 bytes with a valid-looking header: refused from
  // its size alone, without taking 2 GiB of memory.
  const std::string path = testing::tempMapPath("sparse.zvmap");
  testing::writeFileBytes(path, testing::exampleFileBytes());
  ASSERT_EQ(truncate(path.c_str(), off_t{1} << 31), 0);
  GridMapLossy map;
  fuzz::loadExample(&map);
  std::string out;
  EXPECT_FALSE(testing::readCapturing(map, path, &out));
  EXPECT_EQ(out, kSize);
  EXPECT_TRUE(fuzz::sameAsExample(map));
  unlink(path.c_str());
}

TEST(HostileMapFileSourceTest, BodyReaderRefusesCountsBeyondTheBoundBeforeReading) {
  // The declared count alone is refused; the one-byte buffer is never read.
  GridMapLossy map;
  HeaderFields h = grid(2, 3);
  h.body_size = 22u * 97612891u;
  Bytes header = headerBytes(h);
  ASSERT_EQ(map.loadHeaderBinary(header.data()), 61);
  char body = 0;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(map.loadBodyBinary(&body), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), kDimensions);
  EXPECT_TRUE(map.matrix().cells_.empty());
}

TEST(HostileMapFileSourceTest, ValidMapsPassTheFuzzChecks) {
  for (const Bytes& file : {testing::exampleFileBytes(), withRecords(grid(40, 30), {0, 7, 1199})}) {
    ::testing::internal::CaptureStdout();
    const std::string failure = fuzz::checkMapFileInput(
        reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(failure, "");
  }
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
