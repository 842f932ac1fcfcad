// Broken and hostile zvmap files: a corpus built here, each case with the
// load status, console output and state it must leave, read into a map that
// already holds a prepared matrix. Every case also runs through the fuzz
// target's checks, so the corpus doubles as its regression suite.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/map_file_checks.h"
#include "localization/grid_map_lossy.h"
#include "localization/little_endian.h"
#include "localization/lossy_body.h"
#include "localization/lossy_format.h"
#include "tests/support/map_files.h"

namespace zorvane {
namespace localization {
namespace {

using namespace testing;

const std::string kSize = redLine("ReadFromFile : Map size is not same as raw data!");
const std::string kFormat = redLine("GridMapLossy loadHeaderBinary : Map format wrong");
const std::string kDimensions = redLine("GridMapLossy loadBodyBinary : Map dimensions out of range");
const std::string kPosition = redLine("GridMapLossy loadBodyBinary : Cell position out of range");

enum class After {
  kUnchanged,   // the map still holds the example, prepared
  kDropped,     // header values from the file; geometry reset, no cells, no index
  kEmptyIndex,  // header and geometry; index of -1 entries; no cells
  kRaw,         // header, geometry, index and cells from the file, raw
  kReady,       // loaded and prepared
};

using S = MapLoadStatus;

struct HostileCase {
  std::string name;
  Bytes file;
  MapLoadStatus status;
  std::string output;  // what ReadFromFile prints
  After after;
};
void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }

Bytes withRecords(std::int32_t rows, std::int32_t cols, const std::vector<std::uint32_t>& positions,
                  unsigned char fill = 0x11, HeaderFields h = HeaderFields()) {
  h.rows = rows;
  h.cols = cols;
  h.body_bytes = static_cast<std::uint32_t>(22 * positions.size());
  Bytes file = headerBytes(h);
  for (std::uint32_t p : positions) appendRecord(&file, p, fill);
  return file;
}

Bytes withBodySize(Bytes file, std::uint32_t body_size) {
  internal::encodeFixed32(&file[lossy::kBodySizeOffset], body_size);
  return file;
}

std::vector<HostileCase> hostileCorpus() {
  const Bytes header = headerBytes(HeaderFields());
  Bytes cut = withRecords(2, 3, {0, 1, 2});
  cut.resize(cut.size() - 12);
  Bytes huge = withBodySize(header, 0xffffffffu);
  appendRecord(&huge, 0);
  Bytes longer = withRecords(2, 3, {0, 4});
  longer.push_back(0);
  Bytes bad_magic = exampleFileBytes();
  bad_magic[4] = 'P';
  HeaderFields odd_origins;
  odd_origins.height_base = std::numeric_limits<float>::quiet_NaN();
  odd_origins.aux_value_base = -std::numeric_limits<float>::infinity();

  std::vector<HostileCase> c = {
      // Too short for a header.
      {"empty file", {}, S::kNotAMapFile, "", After::kUnchanged},
      {"part of the magic", Bytes{'z', 'v', 'm'}, S::kNotAMapFile, "", After::kUnchanged},
      {"magic only", Bytes{'z', 'v', 'm', 'a', 'p'}, S::kTruncatedHeader, kSize, After::kUnchanged},
      {"header cut at 60 bytes", Bytes(header.begin(), header.end() - 1), S::kTruncatedHeader, kSize,
       After::kUnchanged},
      {"not a map file", Bytes(100, 'x'), S::kNotAMapFile, "", After::kUnchanged},
      {"one wrong byte of magic", bad_magic, S::kNotAMapFile, "", After::kUnchanged},
      // Shorter than the body the header declares.
      {"body missing", withBodySize(header, 66), S::kTruncatedBody, kSize, After::kDropped},
      {"body cut inside a record", cut, S::kTruncatedBody, kSize, After::kDropped},
      {"body size 2^32 - 1", huge, S::kTruncatedBody, kFormat + kSize, After::kDropped},
      // One record beyond the signed 32-bit lengths.
      {"body beyond the cell bound", withBodySize(header, 22u * 97612891u), S::kTruncatedBody,
       kSize, After::kDropped},
      // One record allows 2^24 + 256 positions: 256 x 65537 is just that many.
      {"as many positions as one cell allows", withRecords(256, 65537, {16777471}), S::kOk, "",
       After::kReady},
      // Odd but readable.
      {"duplicate positions", withRecords(2, 3, {1, 1, 4}), S::kOk, "", After::kReady},
      {"descending positions", withRecords(2, 3, {5, 3, 0}), S::kOk, "", After::kReady},
      {"every field saturated", withRecords(2, 3, {0, 5}, 0xff), S::kOk, "", After::kReady},
      {"zero sigmas and weights", withRecords(2, 3, {2}, 0x00), S::kOk, "", After::kReady},
      {"non-finite origins", withRecords(1, 1, {0}, 0x11, odd_origins), S::kOk, "", After::kReady},
      // Readable, but the length does not match: loaded raw, not ready.
      {"one byte too many", longer, S::kSizeMismatch, kSize, After::kRaw},
      // 2 whole records and 6 bytes declared; 2 whole records and 1 byte present.
      {"declared tail of a record", withBodySize(longer, 50), S::kSizeMismatch, kFormat + kSize,
       After::kRaw},
      {"declared tail, whole records present", withBodySize(withRecords(2, 3, {0, 4}), 50), S::kOk,
       kFormat, After::kReady},
      // A header without records: an empty body over the declared grid.
      {"no records", withRecords(2, 3, {}), S::kNoCells, "", After::kEmptyIndex},
      {"body size below one record", withBodySize(header, 10), S::kNoCells, kFormat,
       After::kEmptyIndex},
  };
  // Geometry that would commit the loader to absurd memory, or that wraps.
  struct Geometry { const char* name; std::int32_t rows, cols; std::vector<std::uint32_t> cells; };
  const Geometry refused[] = {
      {"65535 x 65535 grid with three cells", 65535, 65535, {0, 1, 2}},
      {"65535 x 65535 grid without cells", 65535, 65535, {}},
      {"negative rows and columns", -2, -3, {0}},
      {"negative rows", -1, 3, {0}},
      {"grid size wrapping to 0", 65536, 65536, {0}},
      {"grid size wrapping to a small grid", 65537, 65535, {0}},
      {"beyond 2^30 positions", 32769, 32768, {0}},
      {"one row beyond what one cell allows", 257, 65537, {0}},
  };
  for (const Geometry& g : refused) {
    c.push_back({g.name, withRecords(g.rows, g.cols, g.cells), S::kDimensionsOutOfRange, kDimensions,
                 After::kDropped});
  }
  // Records naming positions outside the grid.
  const std::pair<const char*, std::vector<std::uint32_t>> outside[] = {
      {"position at the grid size", {6}},
      {"position 2^32 - 1", {0xffffffffu}},
      {"bad position after good ones", {0, 1, 99}},
  };
  for (const auto& o : outside) {
    c.push_back({o.first, withRecords(2, 3, o.second), S::kPositionOutOfRange, kPosition,
                 After::kDropped});
  }
  c.push_back({"any position in an empty grid", withRecords(0, 5, {0}), S::kPositionOutOfRange,
               kPosition, After::kDropped});
  return c;
}

// Refusals are decided from the header, before any large allocation: a
// load may take the example's few bytes and the file, never the gigabytes
// a hostile header asks for.
constexpr std::size_t kLoadMemory = std::size_t{256} << 20;

std::string fuzzChecks(const Bytes& file) {
  std::string ignored;
  return capturing(&ignored, [&] {
    return testing::checkMapFileInput(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
  });
}

class HostileMapFileTest : public ::testing::TestWithParam<HostileCase> {};

// A subclass loads through its own virtual operations on the whole file in
// memory; overriding none of them, it must decide every file alike (only
// its silent load prints, from those operations).
class SubclassedMap : public GridMapLossy {};

template <class Map>
void expectTheDecidedStatusOutputAndState(const HostileCase& hc) {
  const std::string path = tempMapPath("hostile.zvmap");
  writeFileBytes(path, hc.file);

  // The silent load reports the status; ReadFromFile prints its line.
  Map silent;
  testing::loadExample(&silent);
  std::string silent_out;
  const MapLoadResult result =
      capturing(&silent_out, [&] { return withinMemory(kLoadMemory, [&] { return silent.load(path); }); });
  EXPECT_EQ(result.status, hc.status) << describeLoadStatus(result.status);
  EXPECT_EQ(result.partial_record, hc.output.find(kFormat) != std::string::npos);
  if (std::is_same<Map, GridMapLossy>::value) {
    EXPECT_EQ(silent_out, "");
  }

  Map map;
  testing::loadExample(&map);
  std::string out;
  EXPECT_EQ(readCapturing(map, path, &out), hc.status == S::kOk);
  EXPECT_EQ(out, hc.output);

  const GridMatrix& m = map.matrix();
  EXPECT_TRUE(testing::indexCoversGrid(m));
  EXPECT_TRUE(testing::indexCoversGrid(silent.matrix()));
  if (hc.after == After::kUnchanged) {
    EXPECT_TRUE(testing::sameAsExample(map));
  } else {
    EXPECT_EQ(map.header_tag_, 7u);
    const std::int32_t rows = internal::decodeInt32(&hc.file[lossy::kRowsOffset]);
    EXPECT_EQ(m.rows_, hc.after == After::kDropped ? 0 : rows);
    EXPECT_EQ(m.precalculated_, hc.after == After::kReady);
    EXPECT_EQ(m.cells_.size(), hc.after >= After::kRaw ? map.body_size_ / 22 : 0u);
    if (hc.after == After::kEmptyIndex) {
      EXPECT_EQ(static_cast<std::size_t>(std::count(m.index_.begin(), m.index_.end(), -1)),
                m.index_.size());
    }
  }
}

TEST_P(HostileMapFileTest, GivesTheDecidedStatusOutputAndState) {
  expectTheDecidedStatusOutputAndState<GridMapLossy>(GetParam());
  expectTheDecidedStatusOutputAndState<SubclassedMap>(GetParam());
  EXPECT_EQ(fuzzChecks(GetParam().file), "");
}

INSTANTIATE_TEST_SUITE_P(Corpus, HostileMapFileTest, ::testing::ValuesIn(hostileCorpus()),
                         [](const ::testing::TestParamInfo<HostileCase>& info) {
                           std::string name = info.param.name;
                           for (char& ch : name) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                           return name;
                         });

// A pipe is refused without waiting for a writer; a sparse 2 GiB file with
// a valid-looking header is refused from its size, unread.
TEST(HostileMapFileSourceTest, MissingFilesDirectoriesPipesAndHugeFilesAreNotRead) {
  const std::string pipe = freshTempPath("pipe"), sparse = tempMapPath("sparse.zvmap");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  writeFileBytes(sparse, exampleFileBytes());
  ASSERT_EQ(truncate(sparse.c_str(), off_t{1} << 31), 0);
  for (const std::string& path : {tempMapPath("missing.zvmap"), ::testing::TempDir(), pipe, sparse}) {
    GridMapLossy map;
    testing::loadExample(&map);
    std::string out;
    EXPECT_FALSE(readCapturing(map, path, &out));
    EXPECT_EQ(out, path == sparse ? kSize : redLine("ReadFromFile : Cannot read file " + path));
    EXPECT_TRUE(testing::sameAsExample(map));
  }
  unlink(pipe.c_str());
  unlink(sparse.c_str());
}

TEST(HostileMapFileSourceTest, BodyReaderRefusesCountsBeyondTheBoundBeforeReading) {
  // The declared count alone is refused; the one-byte buffer is never read.
  GridMapLossy map;
  Bytes header = withBodySize(headerBytes(HeaderFields()), 22u * 97612891u);
  ASSERT_EQ(map.loadHeaderBinary(header.data()), 61);
  char body = 0;
  std::string out;
  EXPECT_EQ(capturing(&out, [&] { return map.loadBodyBinary(&body); }), 0);
  EXPECT_EQ(out, kDimensions);
  EXPECT_TRUE(map.matrix().cells_.empty());
  EXPECT_TRUE(testing::indexCoversGrid(map.matrix()));
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
