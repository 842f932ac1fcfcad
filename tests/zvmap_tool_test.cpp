// The map producers' tool: generate, info and verify on good and broken
// files, with their reports and exit statuses.
#include "tools/zvmap_commands.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/support/map_files.h"

namespace zorvane {
namespace tools {
namespace {

using testing::Bytes;

int runCapturing(const std::function<int()>& command, std::string* out) {
  ::testing::internal::CaptureStdout();
  const int status = command();
  *out = ::testing::internal::GetCapturedStdout();
  return status;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(ZvmapToolTest, GeneratedMapVerifiesAndDescribesItself) {
  const std::string path = testing::tempMapPath("generated.zvmap");
  std::string out;
  ASSERT_EQ(runCapturing([&] { return zvmap::generateCommand("100", "66", "2", path); }, &out), 0);
  const std::size_t cells = (testing::readFileBytes(path).size() - 61) / 22;
  ASSERT_GT(cells, 1000u);
  EXPECT_EQ(out, "GridMapLossy: buf size: " + std::to_string(61 + 22 * cells) +
                     "\nGridMapLossy saveToFile: header size: 61\nGridMapLossy saveToFile: body size: " +
                     std::to_string(22 * cells) + "\nwrote " + path + ": " + std::to_string(cells) +
                     " cells on 100 x 66 positions\n");

  EXPECT_EQ(runCapturing([&] { return zvmap::verifyCommand(path); }, &out), 0);
  EXPECT_EQ(out, "OK " + path + ": " + std::to_string(cells) + " cells on 100 x 66 positions\n");

  EXPECT_EQ(runCapturing([&] { return zvmap::infoCommand(path); }, &out), 0);
  EXPECT_TRUE(contains(out, "body size     " + std::to_string(22 * cells) + " bytes (" +
                                std::to_string(cells) + " records)\n"));
  EXPECT_TRUE(contains(out, "geometry      100 cols x 66 rows = 6600 positions")) << out;
  EXPECT_TRUE(contains(out, "cells         " + std::to_string(cells) + " ("));
  // Raw numbers: whole-number value means within the generator's 5..200.
  EXPECT_TRUE(contains(out, "  value mean      5 .. 200\n")) << out;
}

TEST(ZvmapToolTest, VerifyListsEveryProblemOfALoadableButUnsoundMap) {
  testing::HeaderFields h;  // 2 x 3 grid, finite origins
  h.body_size = 3 * 22;
  Bytes file = testing::headerBytes(h);
  testing::appendRecord(&file, 4);
  testing::appendRecord(&file, 4);        // position named twice
  testing::appendRecord(&file, 1, 0x00);  // zero sigmas
  const std::string path = testing::tempMapPath("unsound.zvmap");
  testing::writeFileBytes(path, file);
  std::string out;
  EXPECT_EQ(runCapturing([&] { return zvmap::verifyCommand(path); }, &out), 1);
  EXPECT_EQ(out, "FAIL " + path + ": 3 cells on 3 x 2 positions\n"
                 "  2 records not in increasing position order\n"
                 "  some cells are not named by exactly one position\n"
                 "  1 cells with a zero sigma\n");
}

TEST(ZvmapToolTest, BrokenFilesAndBadArgumentsFail) {
  std::string out;
  const std::string missing = testing::tempMapPath("missing.zvmap");
  EXPECT_EQ(runCapturing([&] { return zvmap::verifyCommand(missing); }, &out), 1);
  EXPECT_EQ(out, testing::redLine("ReadFromFile : Cannot read file " + missing) + "FAIL " + missing +
                     ": the map does not load\n");

  testing::HeaderFields h;
  h.body_size = 5 * 22;  // five records declared, none present
  const std::string cut = testing::tempMapPath("cut.zvmap");
  testing::writeFileBytes(cut, testing::headerBytes(h));
  EXPECT_EQ(runCapturing([&] { return zvmap::infoCommand(cut); }, &out), 1);
  EXPECT_TRUE(contains(out, "length        61 bytes, header and body say 171\n")) << out;

  const std::string text = testing::tempMapPath("text.zvmap");
  testing::writeFileBytes(text, Bytes(80, 'a'));
  EXPECT_EQ(runCapturing([&] { return zvmap::infoCommand(text); }, &out), 1);
  EXPECT_TRUE(contains(out, "not a zvmap file: no \"zvmap\" magic\n"));

  const std::string unused = testing::tempMapPath("unused.zvmap");
  EXPECT_EQ(runCapturing([&] { return zvmap::generateCommand("0", "10", "1", unused); }, &out), 2);
  EXPECT_EQ(runCapturing([&] { return zvmap::generateCommand("10", "x", "1", unused); }, &out), 2);
  EXPECT_EQ(runCapturing([&] { return zvmap::generateCommand("40000", "40000", "1", unused); }, &out), 2);
  EXPECT_FALSE(testing::fileExists(unused));
}

}  // namespace
}  // namespace tools
}  // namespace zorvane
