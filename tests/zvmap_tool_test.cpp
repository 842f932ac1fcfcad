// The map producers' tool: generate, info and verify on good and broken
// files, with their reports and exit statuses.
#include "tools/zvmap_commands.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/map_files.h"

namespace zorvane {
namespace tools {
namespace {

using namespace testing;

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(ZvmapToolTest, GeneratedMapVerifiesAndDescribesItself) {
  const std::string path = tempMapPath("generated.zvmap");
  std::string out;
  ASSERT_EQ(capturing(&out, [&] { return zvmap::generateCommand("100", "66", "2", path); }), 0);
  const std::size_t cells = (readFileBytes(path).size() - 61) / 22;
  const std::string n = std::to_string(cells), body = std::to_string(22 * cells);
  ASSERT_GT(cells, 1000u);
  EXPECT_EQ(out, "GridMapLossy: buf size: " + std::to_string(61 + 22 * cells) +
                     "\nGridMapLossy saveToFile: header size: 61\nGridMapLossy saveToFile: body size: " +
                     body + "\nwrote " + path + ": " + n + " cells on 100 x 66 positions\n");
  EXPECT_EQ(capturing(&out, [&] { return zvmap::verifyCommand(path); }), 0);
  EXPECT_EQ(out, "OK " + path + ": " + n + " cells on 100 x 66 positions\n");
  EXPECT_EQ(capturing(&out, [&] { return zvmap::infoCommand(path); }), 0);
  for (const std::string& line :
       {"body size     " + body + " bytes (" + n + " records)\n",
        std::string("geometry      100 cols x 66 rows = 6600 positions"), "cells         " + n + " (",
        std::string("  value mean      5 .. 200\n")}) {  // raw whole-number means of the generator
    EXPECT_TRUE(contains(out, line)) << line << " in\n" << out;
  }
}

TEST(ZvmapToolTest, VerifyListsEveryProblemOfALoadableButUnsoundMap) {
  HeaderFields h;  // 2 x 3 grid, finite origins
  h.body_bytes = 3 * 22;
  Bytes file = headerBytes(h);
  appendRecord(&file, 4);
  appendRecord(&file, 4);        // position named twice
  appendRecord(&file, 1, 0x00);  // zero sigmas
  const std::string path = tempMapPath("unsound.zvmap");
  writeFileBytes(path, file);
  std::string out;
  EXPECT_EQ(capturing(&out, [&] { return zvmap::verifyCommand(path); }), 1);
  EXPECT_EQ(out, "FAIL " + path + ": 3 cells on 3 x 2 positions\n"
                 "  2 records not in increasing position order\n"
                 "  some cells are not named by exactly one position\n"
                 "  1 cells with a zero sigma\n");
}

TEST(ZvmapToolTest, BrokenFilesAndBadArgumentsFail) {
  std::string out;
  const std::string missing = tempMapPath("missing.zvmap");
  EXPECT_EQ(capturing(&out, [&] { return zvmap::verifyCommand(missing); }), 1);
  EXPECT_EQ(out, redLine("ReadFromFile : Cannot read file " + missing) + "FAIL " + missing +
                     ": the map does not load\n");

  HeaderFields h;
  h.body_bytes = 5 * 22;  // five records declared, none present
  const std::string cut = tempMapPath("cut.zvmap"), text = tempMapPath("text.zvmap");
  writeFileBytes(cut, headerBytes(h));
  writeFileBytes(text, Bytes(80, 'a'));
  EXPECT_EQ(capturing(&out, [&] { return zvmap::infoCommand(cut); }), 1);
  EXPECT_TRUE(contains(out, "length        61 bytes, header and body say 171\n")) << out;
  EXPECT_EQ(capturing(&out, [&] { return zvmap::infoCommand(text); }), 1);
  EXPECT_TRUE(contains(out, "not a zvmap file: no \"zvmap\" magic\n")) << out;

  const std::string unused = tempMapPath("unused.zvmap");
  const std::pair<const char*, const char*> sizes[] = {{"0", "10"}, {"10", "x"}, {"40000", "40000"}};
  for (const auto& cr : sizes) {
    EXPECT_EQ(capturing(&out, [&] { return zvmap::generateCommand(cr.first, cr.second, "1", unused); }), 2)
        << cr.first << " x " << cr.second;
  }
  EXPECT_FALSE(fileExists(unused));
}

}  // namespace
}  // namespace tools
}  // namespace zorvane
