// GridMapLossy: the binary operations against the example map, and
// saveToFile / ReadFromFile with their console lines, results and the state
// they leave.
#include "localization/grid_map_lossy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/map_files.h"
#include "tests/support/team_size.h"
#include "tools/reference/synthetic_map.h"

namespace zorvane {
namespace localization {
namespace {

using namespace testing;
using Index = std::vector<std::int32_t>;

Index indexOf(const GridMatrix& m) { return Index(m.index_.begin(), m.index_.end()); }

std::string sizeLines(int buf, int header, int body) {
  return "GridMapLossy: buf size: " + std::to_string(buf) +
         "\nGridMapLossy saveToFile: header size: " + std::to_string(header) +
         "\nGridMapLossy saveToFile: body size: " + std::to_string(body) + "\n";
}

const std::string kReadMismatch = redLine("ReadFromFile : Map size is not same as raw data!");
const std::string kFormatWrong = redLine("GridMapLossy loadHeaderBinary : Map format wrong");
const std::string kIndexRefusal =
    redLine("GridMapLossy addBodyBinary : Index does not name each cell once");

// Header and records from `buf` into `map`; true when both report their sizes.
bool decode(GridMapLossy& map, Bytes& buf, int body) {
  return map.loadHeaderBinary(buf.data()) == 61 && map.loadBodyBinary(buf.data() + 61) == body;
}

Bytes withRecords(HeaderFields h, const std::vector<std::uint32_t>& positions,
                  const std::vector<unsigned char>& fills = {}) {
  h.body_bytes = static_cast<std::uint32_t>(22 * positions.size());
  Bytes file = headerBytes(h);
  for (std::size_t i = 0; i < positions.size(); ++i) {
    appendRecord(&file, positions[i], fills.empty() ? 0x11 : fills[i]);
  }
  return file;
}

TEST(GridMapLossyGoldenTest, EncodesTheExampleByteForByte) {
  GridMapLossy map;
  fillExampleMap(&map);
  EXPECT_EQ(map.getBodyBinarySize(), 22);
  Bytes buf(84, '\x5a');  // one byte more: the record is exactly 22 bytes
  EXPECT_EQ(map.addHeaderBinary(buf.data()), 61);
  EXPECT_EQ(map.addBodyBinary(buf.data() + 61), 22);
  EXPECT_EQ(buf.back(), '\x5a');
  buf.pop_back();
  EXPECT_EQ(buf, exampleFileBytes());

  const std::string path = tempMapPath("example.zvmap");
  std::string out;
  EXPECT_TRUE(saveCapturing(map, path, &out));
  EXPECT_EQ(out, sizeLines(83, 61, 22));
  EXPECT_EQ(readFileBytes(path), exampleFileBytes());
}

TEST(GridMapLossyGoldenTest, DecodesTheExampleToItsQuantisedValues) {
  Bytes file = exampleFileBytes();
  GridMapLossy map;
  ASSERT_TRUE(decode(map, file, 22));
  EXPECT_EQ((std::vector<double>{static_cast<double>(map.header_tag_), map.height_base_,
                                  map.aux_value_base_, map.reference_[0], map.reference_[1],
                                  map.reference_[2], static_cast<double>(map.body_size_)}),
            (std::vector<double>{1, -2.5, 0, 100, 200, 0, 22}));
  const GridMatrix& m = map.matrix();
  EXPECT_EQ((Index{m.rows_, m.cols_, m.offset_y_, m.offset_x_, int(m.grid_size_)}),
            (Index{2, 3, 4, -1, 6}));
  EXPECT_EQ(indexOf(m), (Index{-1, -1, -1, -1, 0, -1}));
  ASSERT_EQ(m.cells_.size(), 1u);
  const float expected[13] = {1.5f, 2.0f, 20.f, 101.f, 0.7490196228027344f, 0.2509803771972656f,
                              0.04999999701976776f, 0.11999999731779099f, -2.0f, 0.5f,
                              0.501960813999176f, 0.498039186000824f, 1.25f};
  const float* got = &m.cells_[0].value_sigma[0];
  for (int k = 0; k < 13; ++k) EXPECT_EQ(bits(got[k]), bits(expected[k])) << "float " << k;
  EXPECT_FALSE(m.precalculated_);
}

TEST(GridMapLossyCodecTest, HeaderValuesSurviveBitForBit) {
  GridMapLossy map;
  map.header_tag_ = 0xdeadbeefu;
  map.height_base_ = std::numeric_limits<float>::quiet_NaN();
  map.aux_value_base_ = -0.0f;
  const double refs[3] = {-1e300, std::numeric_limits<double>::denorm_min(),
                          std::numeric_limits<double>::signaling_NaN()};
  std::copy(refs, refs + 3, map.reference_);
  map.mutable_matrix().manualInit(0.3f, 5, 0, std::numeric_limits<int>::min(), -7);
  Bytes buf(61);
  ASSERT_EQ(map.addHeaderBinary(buf.data()), 61);
  GridMapLossy back;
  ASSERT_EQ(back.loadHeaderBinary(buf.data()), 61);
  EXPECT_EQ(back.header_tag_, map.header_tag_);
  EXPECT_EQ(bits(back.height_base_), bits(map.height_base_));
  EXPECT_EQ(bits(back.aux_value_base_), 0x80000000u);
  EXPECT_EQ(std::memcmp(back.reference_, refs, sizeof refs), 0);
  const GridMatrix& b = back.matrix();
  EXPECT_EQ((Index{b.cols_, b.rows_, b.offset_x_, b.offset_y_}),
            (Index{5, 0, std::numeric_limits<int>::min(), -7}));
  EXPECT_EQ(b.grid_size_, 0u);
}

// A position named twice leaves the earlier cell unnamed, also when the
// records lie in different load chunks, whichever thread decodes which.
TEST(GridMapLossyCodecTest, DuplicatePositionsNameTheLaterRecord) {
  Bytes file = withRecords(HeaderFields(), {2, 2, 0}, {0x10, 0x20, 0x30});  // out of order too
  GridMapLossy map;
  ASSERT_TRUE(decode(map, file, 66));
  EXPECT_EQ(indexOf(map.matrix()), (Index{2, -1, 1, -1, -1, -1}));
  ASSERT_EQ(map.matrix().cells_.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(map.matrix().cells_[i].value_mean[0], 0x10 * (i + 1));

  // Chunks hold 8192 records. Position 3 again at the end, and at the head
  // of the second chunk, where two chunks would otherwise both store it.
  HeaderFields h;
  h.rows = 201;
  h.cols = 100;
  std::vector<std::uint32_t> late(20000), at_head(20000);
  for (std::uint32_t p = 0; p < 20000; ++p) late[p] = at_head[p] = p;
  late.push_back(3);
  at_head.insert(at_head.begin() + 8192, 3);
  const std::pair<std::vector<std::uint32_t>, std::uint32_t> layouts[] = {{late, 20000},
                                                                          {at_head, 8192}};
  for (const auto& [positions, later] : layouts) {
    const std::string path = tempMapPath("duplicate.zvmap");
    writeFileBytes(path, withRecords(h, positions));
    for (int team : {1, 2, 4}) {
      ScopedTeamSize scoped(team);
      GridMapLossy loaded;
      std::string out;
      ASSERT_TRUE(readCapturing(loaded, path, &out));
      const GridMatrix& m = loaded.matrix();
      EXPECT_EQ((Index{m.index_[3], m.index_[4], m.index_[20000]}),
                (Index{static_cast<std::int32_t>(later), 4, -1}))
          << team;
    }
  }
}

// Cells go out in position order and come back renumbered; a map's initial
// +infinity origins store 0 and read back as +infinity.
TEST(GridMapLossyCodecTest, CellsAreWrittenInPositionOrderAgainstTheOrigins) {
  GridMapLossy map;
  GridMatrix& m = map.mutable_matrix();
  m.manualInit(0.15f, 4, 1, 0, 0);
  m.cells_.resize(3);
  for (int i = 0; i < 3; ++i) m.cells_[i].value_mean[0] = static_cast<float>(10 * (i + 1));
  m.cells_[2].height_mean[0] = 3.f;
  m.cells_[2].height_mean[1] = -3.f;
  m.cells_[2].aux_value = 1.f;
  m.index_.assign({2, -1, 0, 1});  // cell 2 first in position order
  Bytes buf(61 + 66);
  ASSERT_EQ(map.addHeaderBinary(buf.data()), 61);
  ASSERT_EQ(map.addBodyBinary(buf.data() + 61), 66);
  for (int at : {4, 13, 15}) EXPECT_EQ(buf[61 + at], 0) << at;
  GridMapLossy back;
  ASSERT_TRUE(decode(back, buf, 66));
  const GridMatrix& b = back.matrix();
  EXPECT_EQ(indexOf(b), (Index{0, -1, 1, 2}));
  EXPECT_EQ((std::vector<float>{b.cells_[0].value_mean[0], b.cells_[1].value_mean[0],
                                b.cells_[2].value_mean[0]}),
            (std::vector<float>{30, 10, 20}));
  const MCell& c = b.cells_[0];
  for (float v : {c.height_mean[0], c.height_mean[1], c.aux_value}) EXPECT_TRUE(std::isinf(v) && v > 0);
}

// The body writer refuses, writing nothing, what the reader would refuse.
TEST(GridMapLossySaveTest, RefusesAnIndexOrGeometryTheReaderWouldRefuse) {
  const std::string dims = redLine("GridMapLossy addBodyBinary : Map dimensions out of range");
  struct Case { const char* what; int cols, rows, cells; Index index; std::string refusal; int named; };
  const Case cases[] = {
      {"a cell named twice", 2, 2, 2, {0, 1, 1, -1}, kIndexRefusal, -1},  // 3 records, 2 slots
      {"a cell named by none", 2, 2, 2, {0, -1, -1, -1}, kIndexRefusal, -1},
      {"an entry beyond the cells", 2, 2, 2, {0, 1, 2, -1}, kIndexRefusal, -1},
      {"an index of fewer positions", 2, 2, 2, {}, kIndexRefusal, -1},
      {"an index of more positions", 3, 2, 1, {-1, -1, -1, -1, 0, -1, -1}, dims, -1},
      {"a grid far too sparse for its cells", 5000, 4000, 1, {}, dims, 12345},
  };
  std::string out;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    GridMapLossy map;
    GridMatrix& m = map.mutable_matrix();
    m.manualInit(0.15f, c.cols, c.rows, 0, 0);
    m.cells_.resize(c.cells);
    m.index_.assign(c.index.begin(), c.index.end());
    if (c.named >= 0) {
      m.index_.assign(m.grid_size_, -1);
      m.index_[c.named] = 0;
    }
    Bytes buf(52, '\x5a');
    EXPECT_EQ(capturing(&out, [&] { return map.addBodyBinary(buf.data()); }), -1);
    EXPECT_EQ(out, c.refusal);
    EXPECT_EQ(buf, Bytes(52, '\x5a')) << "nothing written";
    const std::string path = tempMapPath("refused.zvmap");
    EXPECT_FALSE(saveCapturing(map, path, &out));
    EXPECT_EQ(out, "GridMapLossy: buf size: " + std::to_string(61 + 22 * c.cells) +
                       "\nGridMapLossy saveToFile: header size: 61\n" + c.refusal +
                       "GridMapLossy saveToFile: body size: -1\n");
    EXPECT_TRUE(readFileBytes(path).empty());
  }
  // Without cells nothing is written and nothing is checked.
  GridMapLossy no_cells;
  no_cells.mutable_matrix().manualInit(0.15f, 5000, 4000, 0, 0);
  Bytes buf(22, '\x5a');
  EXPECT_EQ(capturing(&out, [&] { return no_cells.addBodyBinary(buf.data()); }), 0);
  EXPECT_EQ(out, "");
}

// Size operations overridden by a subclass are what saveToFile uses.
class ShortBodyMap : public GridMapLossy {
 public:
  int getBodyBinarySize() override { return GridMapLossy::getBodyBinarySize() - 22; }
};
class ShortHeaderMap : public GridMapLossy {
 public:
  int addHeaderBinary(char* buf) override { return GridMapLossy::addHeaderBinary(buf) - 1; }
};

TEST(GridMapLossySaveTest, FailuresPrintTheirLinesAndLeaveAnEmptyFile) {
  const std::string path = tempMapPath("failed.zvmap");
  const std::string no_dir = tempMapPath("no_such_dir") + "/map.zvmap";
  struct Case { const char* what; std::shared_ptr<GridMapLossy> map; bool example; std::string path, out; };
  const Case cases[] = {
      {"no cells", std::make_shared<GridMapLossy>(), false, path, sizeLines(61, 61, 0)},
      {"no directory", std::make_shared<GridMapLossy>(), true, no_dir,
       redLine("GridMapLossy saveToFile: Cannot create file " + no_dir)},
      {"header short of the buffer", std::make_shared<ShortHeaderMap>(), true, path,
       sizeLines(83, 60, 22) + redLine("GridMapLossy saveToFile: Map size is not same as raw data!")},
      // A declared body too small for the records is refused, not overrun.
      {"body short of the records", std::make_shared<ShortBodyMap>(), true, path,
       "GridMapLossy: buf size: 61\nGridMapLossy saveToFile: header size: 61\n" + kIndexRefusal +
           "GridMapLossy saveToFile: body size: -1\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    writeFileBytes(path, Bytes(10, 'x'));
    if (c.example) fillExampleMap(c.map.get());
    std::string out;
    EXPECT_FALSE(saveCapturing(*c.map, c.path, &out));
    EXPECT_EQ(out, c.out);
    EXPECT_TRUE(fileExists(path));
    EXPECT_EQ(readFileBytes(path).size(), c.path == path ? 0u : 10u);
  }
}

TEST(GridMapLossySaveTest, SavingALoadedMapWritesThePreparedNumbers) {
  const std::string path = tempMapPath("example.zvmap");
  const std::string again = tempMapPath("again.zvmap");
  writeFileBytes(path, exampleFileBytes());
  GridMapLossy map;
  std::string out;
  ASSERT_TRUE(readCapturing(map, path, &out));
  ASSERT_TRUE(saveCapturing(map, again, &out));
  Bytes expected = exampleFileBytes();
  expected[61 + 8] = static_cast<char>(450 & 0xff);  // the sigma 1.5 is now 2 * 1.5^2
  expected[61 + 9] = static_cast<char>(450 >> 8);
  const Bytes saved = readFileBytes(again);
  ASSERT_EQ(saved.size(), 83u);
  EXPECT_EQ(Bytes(saved.begin(), saved.begin() + 70), Bytes(expected.begin(), expected.begin() + 70));
}

// A synthetic map of several load chunks: its cells lie on the quantisation
// grid, so a save and load gives them back bit for bit, in prepared form,
// whatever the team size; the silent load gives the same, or the raw cells.
TEST(GridMapLossyRoundTripTest, SyntheticMapComesBackExactlyForAnyTeam) {
  reference::SyntheticMap synthetic = reference::makeSyntheticMap(300, 200, 5);
  GridMapLossy map;
  map.header_tag_ = 3;
  map.height_base_ = synthetic.height_base;
  map.aux_value_base_ = synthetic.aux_value_base;
  map.reference_[0] = 4.5;
  map.mutable_matrix() = synthetic.matrix;
  const int cells = static_cast<int>(map.matrix().cells_.size());
  ASSERT_GT(cells, 30000);  // several chunks of 8192 records
  const std::string path = tempMapPath("synthetic.zvmap");
  std::string out;
  ASSERT_TRUE(saveCapturing(map, path, &out));
  EXPECT_EQ(out, sizeLines(61 + 22 * cells, 61, 22 * cells));
  GridMatrix expected = synthetic.matrix;
  expected.runPreCalc();
  for (int team : {1, 3, 7}) {
    SCOPED_TRACE(team);
    ScopedTeamSize scoped(team);
    GridMapLossy back, silent, raw;
    EXPECT_TRUE(readCapturing(back, path, &out));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(sameMatrix(back.matrix(), expected));
    EXPECT_TRUE(capturing(&out, [&] { return silent.load(path).ok() && raw.load(path, /*prepare=*/false).ok(); }));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(sameMatrix(silent.matrix(), expected));
    EXPECT_TRUE(sameMatrix(raw.matrix(), synthetic.matrix));
    EXPECT_EQ(std::make_tuple(back.header_tag_, bits(back.height_base_), back.reference_[0]),
              std::make_tuple(3u, bits(synthetic.height_base), 4.5));
  }
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
