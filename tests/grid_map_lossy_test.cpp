// GridMapLossy: the six binary operations against the documented example,
// and saveToFile / ReadFromFile with their console lines, results and the
// state they leave, byte for byte.
#include "localization/grid_map_lossy.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "tests/support/map_files.h"
#include "tools/mapgen/synthetic_map.h"

namespace zorvane {
namespace localization {
namespace {

using testing::Bytes;
using testing::exampleFileBytes;
using testing::fillExampleMap;
using testing::readCapturing;
using testing::readFileBytes;
using testing::redLine;
using testing::saveCapturing;
using testing::tempMapPath;
using testing::writeFileBytes;

std::uint32_t bits(float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

std::string sizeLines(std::uint32_t buf, int header, int body) {
  return "GridMapLossy: buf size: " + std::to_string(buf) +
         "\nGridMapLossy saveToFile: header size: " + std::to_string(header) +
         "\nGridMapLossy saveToFile: body size: " + std::to_string(body) + "\n";
}

const char kReadMismatch[] = "ReadFromFile : Map size is not same as raw data!";
const char kFormatWrong[] = "GridMapLossy loadHeaderBinary : Map format wrong";

TEST(GridMapLossyTest, ConstructsWithTheDefaultStepsAndAnEmptyMatrix) {
  GridMapLossy map;
  EXPECT_EQ(bits(map.value_sigma_step_), bits(0.01f));
  EXPECT_EQ(map.value_mean_step_, 1.0f);
  EXPECT_EQ(bits(map.height_sigma_step_), bits(0.01f));
  EXPECT_EQ(bits(map.height_mean_step_), bits(0.01f));
  EXPECT_EQ(bits(map.aux_value_step_), bits(0.01f));
  EXPECT_EQ(static_cast<double>(map.aux_value_step_), 0.009999999776482582);
  EXPECT_EQ(bits(map.matrix().resolution_), 0x3e19999au);
  EXPECT_TRUE(map.matrix().cells_.empty());
  EXPECT_EQ(map.getHeaderBinarySize(), 45);
  EXPECT_EQ(map.getBodyBinarySize(), 0);
}

// The documented 83-byte example, byte for byte in both directions.
TEST(GridMapLossyGoldenTest, EncodesTheExampleByteForByte) {
  GridMapLossy map;
  fillExampleMap(&map);
  EXPECT_EQ(map.getBodyBinarySize(), 22);
  Bytes buf(83, '\x5a');
  EXPECT_EQ(map.addHeaderBinary(buf.data()), 61);
  EXPECT_EQ(map.addBodyBinary(buf.data() + 61), 22);
  EXPECT_EQ(buf, exampleFileBytes());

  const std::string path = tempMapPath("example.zvmap");
  std::string out;
  EXPECT_TRUE(saveCapturing(map, path, &out));
  EXPECT_EQ(out, sizeLines(83, 61, 22));
  EXPECT_EQ(readFileBytes(path), exampleFileBytes());
}

TEST(GridMapLossyGoldenTest, DecodesTheExampleToTheDocumentedValues) {
  Bytes file = exampleFileBytes();
  GridMapLossy map;
  EXPECT_EQ(map.loadHeaderBinary(file.data()), 61);
  EXPECT_EQ(map.header_tag_, 1u);
  EXPECT_EQ(map.height_base_, -2.5f);
  EXPECT_EQ(bits(map.aux_value_base_), 0u);
  EXPECT_EQ(map.reference_[0], 100.0);
  EXPECT_EQ(map.reference_[1], 200.0);
  EXPECT_EQ(map.reference_[2], 0.0);
  EXPECT_EQ(map.body_size_, 22u);
  const GridMatrix& m = map.matrix();
  EXPECT_EQ(m.rows_, 2);
  EXPECT_EQ(m.cols_, 3);
  EXPECT_EQ(m.offset_y_, 4);
  EXPECT_EQ(m.offset_x_, -1);
  EXPECT_EQ(m.grid_size_, 6u);

  EXPECT_EQ(map.loadBodyBinary(file.data() + 61), 22);
  ASSERT_EQ(m.index_.size(), 6u);
  EXPECT_EQ(std::vector<std::int32_t>(m.index_.begin(), m.index_.end()),
            (std::vector<std::int32_t>{-1, -1, -1, -1, 0, -1}));
  ASSERT_EQ(m.cells_.size(), 1u);
  const MCell& c = m.cells_[0];
  EXPECT_EQ(c.value_mean[0], 20.f);
  EXPECT_EQ(c.value_mean[1], 101.f);
  EXPECT_EQ(bits(c.value_sigma[0]), bits(1.5f));
  EXPECT_EQ(bits(c.value_sigma[1]), bits(2.0f));
  EXPECT_EQ(static_cast<double>(c.value_weight[0]), 0.7490196228027344);
  EXPECT_EQ(static_cast<double>(c.value_weight[1]), 0.2509803771972656);
  EXPECT_EQ(static_cast<double>(c.height_sigma[0]), 0.04999999701976776);
  EXPECT_EQ(static_cast<double>(c.height_sigma[1]), 0.11999999731779099);
  EXPECT_EQ(c.height_mean[0], -2.0f);
  EXPECT_EQ(c.height_mean[1], 0.5f);
  EXPECT_EQ(static_cast<double>(c.height_weight[0]), 0.501960813999176);
  EXPECT_EQ(static_cast<double>(c.height_weight[1]), 0.498039186000824);
  EXPECT_EQ(c.aux_value, 1.25f);
  EXPECT_FALSE(m.precalculated_);

  // Read from disk: no output, and the same cells in prepared form.
  const std::string path = tempMapPath("example.zvmap");
  writeFileBytes(path, exampleFileBytes());
  GridMatrix expected = m;
  expected.runPreCalc();
  GridMapLossy loaded;
  std::string out;
  EXPECT_TRUE(readCapturing(loaded, path, &out));
  EXPECT_EQ(out, "");
  EXPECT_TRUE(testing::sameMatrix(loaded.matrix(), expected));
  EXPECT_TRUE(loaded.matrix().precalculated_);
}

TEST(GridMapLossyCodecTest, HeaderValuesSurviveBitForBit) {
  GridMapLossy map;
  map.header_tag_ = 0xdeadbeefu;
  map.height_base_ = std::numeric_limits<float>::quiet_NaN();
  map.aux_value_base_ = -0.0f;
  map.reference_[0] = -1e300;
  map.reference_[1] = std::numeric_limits<double>::denorm_min();
  map.reference_[2] = std::numeric_limits<double>::infinity();
  map.mutable_matrix().manualInit(0.3f, 5, 0, std::numeric_limits<int>::min(), -7);
  Bytes buf(61);
  ASSERT_EQ(map.addHeaderBinary(buf.data()), 61);

  GridMapLossy back;
  ASSERT_EQ(back.loadHeaderBinary(buf.data()), 61);
  EXPECT_EQ(back.header_tag_, map.header_tag_);
  EXPECT_EQ(bits(back.height_base_), bits(map.height_base_));
  EXPECT_EQ(bits(back.aux_value_base_), 0x80000000u);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(back.reference_[k], map.reference_[k]);
  EXPECT_EQ(back.matrix().cols_, 5);
  EXPECT_EQ(back.matrix().rows_, 0);
  EXPECT_EQ(back.matrix().offset_x_, std::numeric_limits<int>::min());
  EXPECT_EQ(back.matrix().offset_y_, -7);
  EXPECT_EQ(back.matrix().grid_size_, 0u);
  // Not in the file: the resolution stays what the matrix held.
  EXPECT_EQ(bits(back.matrix().resolution_), bits(0.15f));
  // body_size_ is read from the file, never written from it.
  EXPECT_EQ(map.body_size_, 0u);
}

TEST(GridMapLossyCodecTest, BodySizeNotAMultipleOf22WarnsAndReadsWholeRecords) {
  testing::HeaderFields h;
  h.body_size = 50;
  Bytes file = testing::headerBytes(h);
  testing::appendRecord(&file, 1);
  testing::appendRecord(&file, 4);
  file.resize(file.size() + 6, 0);
  GridMapLossy map;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(map.loadHeaderBinary(file.data()), 61);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), redLine(kFormatWrong));
  EXPECT_EQ(map.body_size_, 50u);
  EXPECT_EQ(map.matrix().rows_, 2);
  EXPECT_EQ(map.loadBodyBinary(file.data() + 61), 44);
  EXPECT_EQ(map.matrix().cells_.size(), 2u);

  // 111 bytes: 61 + 44 is not the file length.
  const std::string path = tempMapPath("fifty.zvmap");
  writeFileBytes(path, file);
  ASSERT_EQ(file.size(), 111u);
  GridMapLossy loaded;
  std::string out;
  EXPECT_FALSE(readCapturing(loaded, path, &out));
  EXPECT_EQ(out, redLine(kFormatWrong) + redLine(kReadMismatch));
  EXPECT_FALSE(loaded.matrix().precalculated_);
  EXPECT_EQ(loaded.matrix().cells_.size(), 2u);

  // 105 bytes, that is the whole records only: accepted after the warning.
  file.resize(105);
  writeFileBytes(path, file);
  GridMapLossy accepted;
  EXPECT_TRUE(readCapturing(accepted, path, &out));
  EXPECT_EQ(out, redLine(kFormatWrong));
  EXPECT_TRUE(accepted.matrix().precalculated_);
}

TEST(GridMapLossyCodecTest, DuplicatePositionsLeaveTheEarlierCellUnnamed) {
  testing::HeaderFields h;
  h.body_size = 66;
  Bytes file = testing::headerBytes(h);
  testing::appendRecord(&file, 2, 0x10);
  testing::appendRecord(&file, 2, 0x20);
  testing::appendRecord(&file, 0, 0x30);  // out of order as well
  GridMapLossy map;
  ASSERT_EQ(map.loadHeaderBinary(file.data()), 61);
  ASSERT_EQ(map.loadBodyBinary(file.data() + 61), 66);
  const GridMatrix& m = map.matrix();
  EXPECT_EQ(std::vector<std::int32_t>(m.index_.begin(), m.index_.end()),
            (std::vector<std::int32_t>{2, -1, 1, -1, -1, -1}));
  ASSERT_EQ(m.cells_.size(), 3u);
  EXPECT_EQ(m.cells_[0].value_mean[0], 0x10);
  EXPECT_EQ(m.cells_[1].value_mean[0], 0x20);
  EXPECT_EQ(m.cells_[2].value_mean[0], 0x30);
}

TEST(GridMapLossyCodecTest, CellsAreWrittenInPositionOrderAndRenumbered) {
  GridMapLossy map;
  map.height_base_ = 0.f;
  map.aux_value_base_ = 0.f;
  GridMatrix& m = map.mutable_matrix();
  m.manualInit(0.15f, 4, 1, 0, 0);
  m.cells_.resize(3);
  for (int i = 0; i < 3; ++i) m.cells_[i].value_mean[0] = static_cast<float>(10 * (i + 1));
  m.index_.assign({2, -1, 0, 1});  // cell 2 first in position order

  Bytes buf(61 + 66);
  ASSERT_EQ(map.addHeaderBinary(buf.data()), 61);
  ASSERT_EQ(map.addBodyBinary(buf.data() + 61), 66);
  GridMapLossy back;
  ASSERT_EQ(back.loadHeaderBinary(buf.data()), 61);
  ASSERT_EQ(back.loadBodyBinary(buf.data() + 61), 66);
  const GridMatrix& b = back.matrix();
  EXPECT_EQ(std::vector<std::int32_t>(b.index_.begin(), b.index_.end()),
            (std::vector<std::int32_t>{0, -1, 1, 2}));
  EXPECT_EQ(b.cells_[0].value_mean[0], 30.f);
  EXPECT_EQ(b.cells_[1].value_mean[0], 10.f);
  EXPECT_EQ(b.cells_[2].value_mean[0], 20.f);
}

TEST(GridMapLossyCodecTest, InfiniteOriginsStoreZeroAndReadBackInfinite) {
  GridMapLossy map;  // origins at their initial +infinity
  GridMatrix& m = map.mutable_matrix();
  m.manualInit(0.15f, 1, 1, 0, 0);
  m.cells_.resize(1);
  m.cells_[0].height_mean[0] = 3.f;
  m.cells_[0].height_mean[1] = -3.f;
  m.cells_[0].aux_value = 1.f;
  m.index_.assign(1, 0);
  Bytes buf(83);
  map.addHeaderBinary(buf.data());
  map.addBodyBinary(buf.data() + 61);
  EXPECT_EQ(buf[61 + 4], 0);
  EXPECT_EQ(buf[61 + 13], 0);
  EXPECT_EQ(buf[61 + 15], 0);
  GridMapLossy back;
  back.loadHeaderBinary(buf.data());
  back.loadBodyBinary(buf.data() + 61);
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(back.matrix().cells_[0].height_mean[0], inf);
  EXPECT_EQ(back.matrix().cells_[0].height_mean[1], inf);
  EXPECT_EQ(back.matrix().cells_[0].aux_value, inf);
}

TEST(GridMapLossyCodecTest, LoadingResetsTheIndexAndTheFlag) {
  GridMapLossy map;
  GridMatrix& m = map.mutable_matrix();
  m.precalculated_ = true;
  m.cells_.resize(5);
  m.cells_[0].aux_value = 99.f;
  std::memset(m.cells_[0].unused_, 0xab, sizeof m.cells_[0].unused_);
  m.index_.assign(40, 4);
  Bytes file = exampleFileBytes();
  ASSERT_EQ(map.loadHeaderBinary(file.data()), 61);
  ASSERT_EQ(map.loadBodyBinary(file.data() + 61), 22);
  EXPECT_FALSE(m.precalculated_);
  EXPECT_EQ(std::vector<std::int32_t>(m.index_.begin(), m.index_.end()),
            (std::vector<std::int32_t>{-1, -1, -1, -1, 0, -1}));
  ASSERT_EQ(m.cells_.size(), 1u);
  EXPECT_EQ(m.cells_[0].aux_value, 1.25f);
  // A cell that stays is overwritten field by field, its padding untouched.
  for (unsigned char b : m.cells_[0].unused_) EXPECT_EQ(b, 0xab);
}

// saveToFile: console lines, results and files.
TEST(GridMapLossySaveTest, MapWithoutCellsPrintsTheSizesAndLeavesAnEmptyFile) {
  const std::string path = tempMapPath("empty.zvmap");
  writeFileBytes(path, Bytes(10, 'x'));
  GridMapLossy map;
  std::string out;
  EXPECT_FALSE(saveCapturing(map, path, &out));
  EXPECT_EQ(out, sizeLines(61, 61, 0));
  EXPECT_TRUE(testing::fileExists(path));
  EXPECT_TRUE(readFileBytes(path).empty());
}

TEST(GridMapLossySaveTest, ThousandCellsMakeA22061ByteFile) {
  GridMapLossy map;
  map.height_base_ = 0.f;
  map.aux_value_base_ = 0.f;
  GridMatrix& m = map.mutable_matrix();
  m.manualInit(0.15f, 50, 40, 0, 0);
  m.cells_.resize(1000);
  m.index_.assign(2000, -1);
  for (int i = 0; i < 1000; ++i) m.index_[2 * i + 1] = 999 - i;
  const std::string path = tempMapPath("thousand.zvmap");
  std::string out;
  EXPECT_TRUE(saveCapturing(map, path, &out));
  EXPECT_EQ(out, sizeLines(22061, 61, 22000));
  EXPECT_EQ(readFileBytes(path).size(), 22061u);
}

TEST(GridMapLossySaveTest, UnwritablePathPrintsRedAndReturnsFalse) {
  const std::string path = tempMapPath("no_such_dir") + "/map.zvmap";
  GridMapLossy map;
  fillExampleMap(&map);
  std::string out;
  EXPECT_FALSE(saveCapturing(map, path, &out));
  EXPECT_EQ(out, redLine("GridMapLossy saveToFile: Cannot create file " + path));
}

TEST(GridMapLossySaveTest, RefusesAnIndexThatDoesNotNameEachCellOnce) {
  const std::string refusal =
      redLine("GridMapLossy addBodyBinary : Index does not name each cell once");
  struct Case {
    const char* what;
    std::vector<std::int32_t> index;
  };
  const Case cases[] = {
      {"a cell named twice", {0, 1, 1, -1}},   // would write 3 records into 2 slots
      {"a cell named by none", {0, -1, -1, -1}},
      {"an entry beyond the cells", {0, 1, 2, -1}},
      {"an index of fewer positions", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    GridMapLossy map;
    GridMatrix& m = map.mutable_matrix();
    m.manualInit(0.15f, 2, 2, 0, 0);
    m.cells_.resize(2);
    m.index_.assign(c.index.begin(), c.index.end());
    Bytes buf(61 + 44 + 8, '\x5a');
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(map.addBodyBinary(buf.data() + 61), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), refusal);
    EXPECT_EQ(Bytes(buf.begin() + 61, buf.end()), Bytes(52, '\x5a')) << "nothing written";

    const std::string path = tempMapPath("refused.zvmap");
    std::string out;
    EXPECT_FALSE(saveCapturing(map, path, &out));
    EXPECT_EQ(out, "GridMapLossy: buf size: 105\nGridMapLossy saveToFile: header size: 61\n" +
                       refusal + "GridMapLossy saveToFile: body size: -1\n");
    EXPECT_TRUE(readFileBytes(path).empty());
  }
}

TEST(GridMapLossySaveTest, RefusesAGeometryTheReaderWouldRefuse) {
  const std::string refusal = redLine("GridMapLossy addBodyBinary : Map dimensions out of range");
  GridMapLossy map;
  fillExampleMap(&map);
  GridMatrix& m = map.mutable_matrix();
  m.index_.push_back(-1);  // 7 entries for 6 positions
  Bytes buf(83, '\x5a');
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(map.addBodyBinary(buf.data() + 61), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), refusal);
  EXPECT_EQ(Bytes(buf.begin() + 61, buf.end()), Bytes(22, '\x5a'));

  // A grid far too sparse for its one cell, with a matching index.
  m.manualInit(0.15f, 5000, 4000, 0, 0);
  m.index_.assign(m.grid_size_, -1);
  m.index_[12345] = 0;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(map.addBodyBinary(buf.data() + 61), -1);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), refusal);

  // Without cells nothing is written and nothing is checked.
  m.cells_.clear();
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(map.addBodyBinary(buf.data() + 61), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

// A size operation overridden by a subclass is what the others use.
class ShortBodyMap : public GridMapLossy {
 public:
  int getBodyBinarySize() override { return GridMapLossy::getBodyBinarySize() - 22; }
};

TEST(GridMapLossySaveTest, HeaderPlusBodyDifferingFromTheBufferIsRefused) {
  class LongHeaderMap : public GridMapLossy {
   public:
    int addHeaderBinary(char* buf) override { return GridMapLossy::addHeaderBinary(buf) - 1; }
  };
  LongHeaderMap map;
  fillExampleMap(&map);
  const std::string path = tempMapPath("mismatch.zvmap");
  std::string out;
  EXPECT_FALSE(saveCapturing(map, path, &out));
  EXPECT_EQ(out, sizeLines(83, 60, 22) +
                     redLine("GridMapLossy saveToFile: Map size is not same as raw data!"));
  EXPECT_TRUE(readFileBytes(path).empty());

  // A declared body too small for the records is refused, not overrun.
  ShortBodyMap short_body;
  fillExampleMap(&short_body);
  EXPECT_FALSE(saveCapturing(short_body, path, &out));
  EXPECT_EQ(out, "GridMapLossy: buf size: 61\nGridMapLossy saveToFile: header size: 61\n" +
                     redLine("GridMapLossy addBodyBinary : Index does not name each cell once") +
                     "GridMapLossy saveToFile: body size: -1\n");
}

TEST(GridMapLossySaveTest, SavingALoadedMapWritesThePreparedNumbers) {
  const std::string path = tempMapPath("example.zvmap");
  writeFileBytes(path, exampleFileBytes());
  GridMapLossy map;
  std::string out;
  ASSERT_TRUE(readCapturing(map, path, &out));
  const std::string again = tempMapPath("again.zvmap");
  ASSERT_TRUE(saveCapturing(map, again, &out));
  const Bytes saved = readFileBytes(again);
  ASSERT_EQ(saved.size(), 83u);
  const Bytes original = exampleFileBytes();
  EXPECT_NE(saved, original);
  // Same header and position; the sigma 1.5 is now 2 * 1.5^2 = 4.5.
  EXPECT_EQ(Bytes(saved.begin(), saved.begin() + 65), Bytes(original.begin(), original.begin() + 65));
  EXPECT_EQ(static_cast<unsigned char>(saved[61 + 8]), 450 & 0xff);
  EXPECT_EQ(static_cast<unsigned char>(saved[61 + 9]), 450 >> 8);
}

// ReadFromFile: results, messages and the state after each failure.
TEST(GridMapLossyReadTest, MissingFileOrDirectoryCannotBeRead) {
  for (const std::string& path : {tempMapPath("missing.zvmap"), ::testing::TempDir()}) {
    GridMapLossy map;
    fillExampleMap(&map);
    std::string out;
    EXPECT_FALSE(readCapturing(map, path, &out));
    EXPECT_EQ(out, redLine("ReadFromFile : Cannot read file " + path));
    EXPECT_EQ(map.header_tag_, 1u);
    EXPECT_EQ(map.matrix().cells_.size(), 1u);
  }
}

TEST(GridMapLossyReadTest, WrongMagicIsSilentAndChangesNothing) {
  Bytes file = exampleFileBytes();
  file[4] = 'P';
  const std::string path = tempMapPath("magic.zvmap");
  writeFileBytes(path, file);
  GridMapLossy map;
  fillExampleMap(&map);
  map.body_size_ = 1234;
  GridMatrix before = map.matrix();
  std::string out;
  EXPECT_FALSE(readCapturing(map, path, &out));
  EXPECT_EQ(out, "");
  EXPECT_EQ(map.header_tag_, 1u);
  EXPECT_EQ(map.body_size_, 1234u);
  EXPECT_EQ(map.height_base_, -2.5f);
  EXPECT_TRUE(testing::sameMatrix(map.matrix(), before));
  Bytes header_only = file;
  EXPECT_EQ(map.loadHeaderBinary(header_only.data()), -1);
}

TEST(GridMapLossyReadTest, OneByteAppendedLoadsRawButReportsTheSize) {
  Bytes file = exampleFileBytes();
  file.push_back(0);
  const std::string path = tempMapPath("long.zvmap");
  writeFileBytes(path, file);
  GridMapLossy map;
  std::string out;
  EXPECT_FALSE(readCapturing(map, path, &out));
  EXPECT_EQ(out, redLine(kReadMismatch));
  EXPECT_EQ(map.header_tag_, 1u);
  EXPECT_EQ(map.matrix().grid_size_, 6u);
  ASSERT_EQ(map.matrix().index_.size(), 6u);
  EXPECT_EQ(map.matrix().index_[4], 0);
  ASSERT_EQ(map.matrix().cells_.size(), 1u);
  EXPECT_EQ(bits(map.matrix().cells_[0].value_sigma[0]), bits(1.5f));  // raw
  EXPECT_FALSE(map.matrix().precalculated_);
}

TEST(GridMapLossyReadTest, BodySizeBelow22LoadsTheHeaderAndAnEmptyIndex) {
  for (std::uint32_t body : {0u, 10u}) {
    SCOPED_TRACE(body);
    testing::HeaderFields h;
    h.body_size = body;
    h.rows = 3;
    h.cols = 4;
    const std::string path = tempMapPath("small_body.zvmap");
    writeFileBytes(path, testing::headerBytes(h));
    GridMapLossy map;
    fillExampleMap(&map);
    map.mutable_matrix().precalculated_ = true;
    std::string out;
    EXPECT_FALSE(readCapturing(map, path, &out));
    EXPECT_EQ(out, body == 0 ? "" : redLine(kFormatWrong));
    EXPECT_EQ(map.header_tag_, 7u);
    EXPECT_EQ(map.body_size_, body);
    EXPECT_EQ(map.matrix().grid_size_, 12u);
    EXPECT_EQ(std::vector<std::int32_t>(map.matrix().index_.begin(), map.matrix().index_.end()),
              std::vector<std::int32_t>(12, -1));
    EXPECT_TRUE(map.matrix().cells_.empty());
    EXPECT_FALSE(map.matrix().precalculated_);
  }
}

// A second load replaces the matrix completely.
TEST(GridMapLossyReadTest, SecondLoadLeavesNoTraceOfTheFirst) {
  testing::HeaderFields h;
  h.rows = 4;
  h.cols = 5;
  h.body_size = 22 * 6;
  Bytes first = testing::headerBytes(h);
  for (std::uint32_t p : {0u, 3u, 7u, 8u, 12u, 19u}) testing::appendRecord(&first, p);
  h.rows = 2;
  h.body_size = 22 * 2;
  Bytes second = testing::headerBytes(h);
  for (std::uint32_t p : {1u, 8u}) testing::appendRecord(&second, p);

  const std::string a = tempMapPath("first.zvmap");
  const std::string b = tempMapPath("second.zvmap");
  writeFileBytes(a, first);
  writeFileBytes(b, second);
  GridMapLossy map;
  std::string out;
  ASSERT_TRUE(readCapturing(map, a, &out));
  ASSERT_EQ(map.matrix().cells_.size(), 6u);
  ASSERT_TRUE(readCapturing(map, b, &out));
  const GridMatrix& m = map.matrix();
  EXPECT_TRUE(m.precalculated_);
  ASSERT_EQ(m.cells_.size(), 2u);
  std::vector<std::int32_t> expected(10, -1);
  expected[1] = 0;
  expected[8] = 1;
  EXPECT_EQ(std::vector<std::int32_t>(m.index_.begin(), m.index_.end()), expected);

  GridMapLossy fresh;
  ASSERT_TRUE(readCapturing(fresh, b, &out));
  EXPECT_TRUE(testing::sameMatrix(m, fresh.matrix()));
}

// A synthetic street map saved and loaded again: its cells lie on the
// quantisation grid already, so the load gives them back bit for bit.
TEST(GridMapLossyRoundTripTest, SyntheticMapComesBackExactly) {
  tools::SyntheticMap synthetic = tools::makeSyntheticMap(100, 66, 2);
  GridMapLossy map;
  map.header_tag_ = 3;
  map.height_base_ = synthetic.height_base;
  map.aux_value_base_ = synthetic.aux_value_base;
  map.reference_[0] = 4.5;
  map.mutable_matrix() = synthetic.matrix;
  ASSERT_GT(map.matrix().cells_.size(), 500u);

  const std::string path = tempMapPath("synthetic.zvmap");
  std::string out;
  ASSERT_TRUE(saveCapturing(map, path, &out));
  EXPECT_EQ(readFileBytes(path).size(), 61 + 22 * map.matrix().cells_.size());

  GridMapLossy back;
  ASSERT_TRUE(readCapturing(back, path, &out));
  EXPECT_EQ(out, "");
  EXPECT_EQ(back.header_tag_, 3u);
  EXPECT_EQ(bits(back.height_base_), bits(synthetic.height_base));
  EXPECT_EQ(back.reference_[0], 4.5);
  EXPECT_TRUE(std::isinf(back.reference_[1]));
  GridMatrix expected = synthetic.matrix;
  expected.runPreCalc();
  EXPECT_TRUE(testing::sameMatrix(back.matrix(), expected));
}

// A map of several load chunks: the same matrix whatever the team size, and
// the same through a subclass, which loads step by step (raw cells, then
// runPreCalc) instead of decoding straight into prepared form.
TEST(GridMapLossyRoundTripTest, LoadIsTheSameForAnyTeamAndForASubclass) {
  tools::SyntheticMap synthetic = tools::makeSyntheticMap(300, 200, 5);
  GridMapLossy map;
  map.height_base_ = synthetic.height_base;
  map.aux_value_base_ = synthetic.aux_value_base;
  map.mutable_matrix() = synthetic.matrix;
  ASSERT_GT(map.matrix().cells_.size(), 30000u);  // several chunks of 8192 records
  const std::string path = tempMapPath("chunks.zvmap");
  std::string out;
  ASSERT_TRUE(saveCapturing(map, path, &out));
  GridMatrix expected = synthetic.matrix;
  expected.runPreCalc();

  const int threads = omp_get_max_threads();
  for (int team : {1, 2, 3, 7}) {
    SCOPED_TRACE(team);
    omp_set_num_threads(team);
    GridMapLossy loaded;
    EXPECT_TRUE(readCapturing(loaded, path, &out));
    EXPECT_TRUE(testing::sameMatrix(loaded.matrix(), expected));
    class StepByStep : public GridMapLossy {};
    StepByStep sub;
    EXPECT_TRUE(readCapturing(sub, path, &out));
    EXPECT_TRUE(testing::sameMatrix(sub.matrix(), expected));
  }
  omp_set_num_threads(threads);
}

// Records naming one position twice, far apart in the file: the later one
// wins, whichever thread decodes which.
TEST(GridMapLossyCodecTest, DuplicateAcrossChunksLeavesTheLaterRecord) {
  testing::HeaderFields h;
  h.rows = 201;
  h.cols = 100;
  const std::uint32_t n = 20000;
  h.body_size = 22 * (n + 1);
  Bytes file = testing::headerBytes(h);
  for (std::uint32_t p = 0; p < n; ++p) testing::appendRecord(&file, p);
  testing::appendRecord(&file, 3);  // names position 3 again, 20000 records later
  const std::string path = tempMapPath("late_duplicate.zvmap");
  writeFileBytes(path, file);
  const int threads = omp_get_max_threads();
  for (int team : {1, 2, 4}) {
    omp_set_num_threads(team);
    GridMapLossy map;
    std::string out;
    ASSERT_TRUE(readCapturing(map, path, &out));
    EXPECT_EQ(map.matrix().index_[3], static_cast<std::int32_t>(n)) << team;
    EXPECT_EQ(map.matrix().index_[4], 4) << team;
    EXPECT_EQ(map.matrix().index_[n], -1) << team;
  }
  omp_set_num_threads(threads);
}

}  // namespace
}  // namespace localization
}  // namespace zorvane
