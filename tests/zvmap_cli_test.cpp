// The zvmap command-line tool, run as a user runs it: the executable built
// into bin/, its output, exit statuses and files, on the bundled map, on
// hand-made and hostile files, and on bad arguments.
#ifdef ZVMAP_EXECUTABLE

#include <png.h>
#include <sys/stat.h>
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "localization/grid_map_lossy.h"
#include "tests/support/map_bytes.h"
#include "tests/support/map_files.h"

namespace zorvane {
namespace testing {
namespace {

using localization::GridMapLossy;
using localization::MCell;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

std::string quoted(const std::string& arg) {
  std::string q = "'";
  for (const char c : arg) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string readText(const std::string& path) {
  const Bytes bytes = readFileBytes(path);
  return std::string(bytes.begin(), bytes.end());
}

// Runs zvmap with `args`, standard input from /dev/null, standard output
// and error captured (so neither is a terminal). A run that takes more than
// a minute is killed and reports status 124.
ToolRun zvmap(const std::vector<std::string>& args) {
  const std::string out = tempMapPath("stdout"), err = tempMapPath("stderr");
  std::string command = "timeout 60 " + quoted(ZVMAP_EXECUTABLE);
  for (const std::string& a : args) command += " " + quoted(a);
  command += " </dev/null >" + quoted(out) + " 2>" + quoted(err);
  const int raw = std::system(command.c_str());
  ToolRun run;
  run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  run.out = readText(out);
  run.err = readText(err);
  return run;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Every one of `parts` somewhere in `text`.
::testing::AssertionResult hasAll(const std::string& text, const std::vector<std::string>& parts) {
  for (const std::string& part : parts) {
    if (!contains(text, part)) return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
  }
  return ::testing::AssertionSuccess();
}

int countLines(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

// The map of these tests: the bundled map where the examples built it,
// otherwise the same synthetic scene made by the tool.
const std::string& mapPath() {
  static const std::string path = [] {
    struct stat st;
    if (::stat(ZV_BUNDLED_MAP, &st) == 0) return std::string(ZV_BUNDLED_MAP);
    const std::string made = ::testing::TempDir() + "zvmap_cli_" + std::to_string(getpid()) + ".gridmap";
    zvmap({"synth", "-o", made, "--cols", "500", "--rows", "500", "--seed", "20"});
    return made;
  }();
  return path;
}

GridMapLossy loadRaw(const std::string& path) {
  GridMapLossy map;
  EXPECT_TRUE(map.load(path, /*prepare=*/false).ok()) << path;
  return map;
}

const MCell* cellAt(const GridMapLossy& map, int x, int y) {
  const auto& m = map.matrix();
  const std::int32_t c = m.index_[static_cast<std::size_t>(y) * m.cols_ + x];
  return c < 0 ? nullptr : &m.cells_[static_cast<std::size_t>(c)];
}

struct Image {
  std::uint32_t width = 0, height = 0;
  std::vector<std::uint8_t> rgba;
  const std::uint8_t* pixel(std::uint32_t x, std::uint32_t y) const { return &rgba[(std::size_t{y} * width + x) * 4]; }
};

Image readPng(const std::string& path) {
  Image image;
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, path.c_str())) return image;
  png.format = PNG_FORMAT_RGBA;
  image.rgba.resize(PNG_IMAGE_SIZE(png));
  if (png_image_finish_read(&png, nullptr, image.rgba.data(), 0, nullptr)) {
    image.width = png.width;
    image.height = png.height;
  }
  return image;
}

// One failure: exit status 1, nothing on standard output unless the
// command reports, exactly one line on standard error naming the file.
void expectOneLineFailure(const ToolRun& run, const std::string& file, const std::string& reason) {
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(countLines(run.err), 1) << run.err;
  EXPECT_EQ(run.err.rfind("zvmap: " + file + ": ", 0), 0u) << run.err;
  EXPECT_TRUE(contains(run.err, reason)) << run.err << " lacks " << reason;
}

TEST(ZvmapCliTest, HelpAndVersionForEverySubcommand) {
  const ToolRun top = zvmap({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const char* sub : {"info", "check", "render", "synth", "table", "diff"}) {
    const ToolRun help = zvmap({sub, "--help"});
    EXPECT_TRUE(contains(top.out, sub) && help.status == 0 && contains(help.out, "Exit status")) << sub << help.out;
  }
  const ToolRun version = zvmap({"--version"});
  EXPECT_TRUE(version.status == 0 && std::regex_match(version.out, std::regex("zvmap [0-9]+\\.[0-9]+\\.[0-9]+\n")))
      << version.out;
}

TEST(ZvmapCliTest, BadArgumentsAreUsageErrors) {
  const std::string map = mapPath(), png = tempMapPath("unused.png"), out = tempMapPath("unused.gridmap");
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"info"},
      {"info", map, "extra"},
      {"check", map, "--level", "0"},
      {"render", map, "-o", png},
      {"render", map, "-o", png, "--layer", "colour"},
      {"render", map, "--layer", "height"},
      {"synth", "-o", out, "--cols", "0", "--rows", "10"},
      {"synth", "--cols", "10", "--rows", "10"},
      {"table", map, "--threads", "0"},
      {"table", map, "--level", "-4"},
      {"diff", map},
      {"diff", map, map, "--tolerance", "loose"},
  };
  for (const auto& args : cases) {
    std::string shown;
    for (const auto& a : args) shown += " " + a;
    const ToolRun run = zvmap(args);
    EXPECT_EQ(run.status, 2) << shown;
    EXPECT_EQ(run.out, "") << shown;
    EXPECT_EQ(countLines(run.err), 1) << shown << ":\n" << run.err;
    EXPECT_EQ(run.err.rfind("zvmap", 0), 0u) << shown << ":\n" << run.err;
  }
  EXPECT_FALSE(fileExists(png));
  EXPECT_FALSE(fileExists(out));
}

TEST(ZvmapCliTest, HostileFilesFailWithOneLineInEverySubcommand) {
  const Bytes good = readFileBytes(mapPath());
  ASSERT_GT(good.size(), 1000u);
  const std::string dir = freshTempPath("dir"), fifo = freshTempPath("fifo"), missing = freshTempPath("missing");
  ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);  // nobody writes: a reader would wait forever
  Bytes appended = good;
  appended.push_back('x');
  const std::tuple<const char*, Bytes, const char*> files[] = {
      {"text", Bytes(200, 'a'), "not a zvmap file"},
      {"header_cut", Bytes(good.begin(), good.begin() + 40), "truncated inside the 61-byte header (40 bytes)"},
      {"body_cut", Bytes(good.begin(), good.end() - 5), "truncated"},
      {"appended", appended, "file length differs"},
  };
  std::vector<std::pair<std::string, std::string>> paths = {
      {dir, "cannot read the file: is a directory"},
      {fifo, "cannot read the file: not a regular file (a pipe)"},
      {"/dev/zero", "cannot read the file: not a regular file (a device)"},
      {missing, "cannot read the file: no such file or directory"}};
  for (const auto& [name, bytes, reason] : files) {
    paths.emplace_back(tempMapPath(name), reason);
    writeFileBytes(paths.back().first, bytes);
  }
  // Each reason once; each subcommand on a cut header (they all read maps
  // through one loader).
  const std::string png = tempMapPath("hostile.png");
  for (const auto& [path, reason] : paths) {
    const ToolRun run = zvmap({"info", path});
    expectOneLineFailure(run, path, reason);
    EXPECT_EQ(run.out, "");
  }
  const std::string cut = paths[5].first;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"info", cut, "--json"}, {"check", cut}, {"table", cut},
        {"render", cut, "-o", png, "--layer", "height"}, {"diff", mapPath(), cut}, {"diff", cut, mapPath()}}) {
    SCOPED_TRACE(args[0]);
    expectOneLineFailure(zvmap(args), cut, "truncated inside the 61-byte header");
  }
  EXPECT_FALSE(fileExists(png));
  ::rmdir(dir.c_str());
  ::unlink(fifo.c_str());
}

TEST(ZvmapCliTest, InfoReportsTheStoredMap) {
  const std::string map = mapPath();
  const GridMapLossy loaded = loadRaw(map);
  const auto& m = loaded.matrix();
  const std::string cells = std::to_string(m.cells_.size());
  float lo = 1e30f, hi = -1e30f;
  for (const MCell& c : m.cells_) lo = std::min(lo, c.height_sigma[1]), hi = std::max(hi, c.height_sigma[1]);

  const ToolRun text = zvmap({"info", map});
  EXPECT_TRUE(text.status == 0 && text.err.empty());
  EXPECT_TRUE(hasAll(text.out, {"geometry        500 cols x 500 rows = 250000 positions, offset x " +
                                    std::to_string(m.offset_x_) + " y " + std::to_string(m.offset_y_) + "\n",
                                "cells           " + cells + " (body " + std::to_string(22 * m.cells_.size()),
                                "file size       " + std::to_string(readFileBytes(map).size()) + " bytes",
                                "  value_mean[0]     5               200 "}));

  const ToolRun json = zvmap({"info", map, "--json"});
  EXPECT_EQ(json.status, 0);
  ASSERT_EQ(countLines(json.out), 1);
  EXPECT_TRUE(json.out.front() == '{' && json.out.substr(json.out.size() - 2) == "}\n") << json.out;
  std::ostringstream sigma;
  sigma << "\"height_sigma[1]\":{\"min\":" << lo << ",\"max\":" << hi << ",";
  EXPECT_TRUE(hasAll(json.out, {"\"cells\":" + cells + ",", "\"geometry\":{\"cols\":500,\"rows\":500,\"positions\":250000,",
                                "\"value_mean[0]\":{\"min\":5,\"max\":200,", sigma.str()}));
}

// Hand-made maps on a 3 x 2 grid with finite origins.
std::string writeMap(const std::string& name, const std::vector<std::pair<std::uint32_t, unsigned char>>& records,
                     float height_base = -4.0f) {
  HeaderFields h;
  h.height_base = height_base;
  h.body_bytes = static_cast<std::uint32_t>(22 * records.size());
  Bytes file = headerBytes(h);
  for (const auto& [position, fill] : records) appendRecord(&file, position, fill);
  const std::string path = tempMapPath(name);
  writeFileBytes(path, file);
  return path;
}

TEST(ZvmapCliTest, CheckFindsWhatTheLoaderAccepts) {
  const ToolRun bundled = zvmap({"check", mapPath()});
  EXPECT_EQ(bundled.status, 0) << bundled.out;
  EXPECT_EQ(bundled.err, "");
  EXPECT_TRUE(contains(bundled.out, "result: 0 errors, 0 warnings\n")) << bundled.out;

  struct Case {
    std::string name;
    std::vector<std::pair<std::uint32_t, unsigned char>> records;
    float height_base;
    int status;
    std::vector<std::string> lines;
  };
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<Case> cases = {
      // Fill 0x01: sigmas of 2.57, a table of modest histograms.
      {"sound", {{0, 0x01}, {4, 0x01}}, -4.0f, 0,
       {"  ok       records in increasing position order, each position named once\n",
        "result: 0 errors, 0 warnings\n"}},
      {"twice", {{4, 0x01}, {1, 0x01}, {4, 0x01}}, -4.0f, 0,
       {"  warning  1 record names a position named by a later record", "result: 0 errors, 1 warning\n"}},
      {"unordered", {{4, 0x01}, {1, 0x01}}, -4.0f, 0,
       {"  warning  records are not in increasing position order (1 position follow", "result: 0 errors, 1 warning\n"}},
      {"zero_spread", {{1, 0x01}, {2, 0x00}}, -4.0f, 1,
       {"  error    1 cell has a spread below 0.005 (runPreCheckSmall would raise it); zero spreads: "
        "value_sigma[0] 1, value_sigma[1] 1, height_sigma[0] 1, height_sigma[1] 1"}},
      // Sigmas of 655.35 stretch a height histogram over millions of bins.
      {"wide", {{0, 0xff}}, -4.0f, 1, {"1 block needs more than 65535 height bins and would be clipped"}},
      {"no_origin", {{0, 0x11}}, inf, 1, {"  error    height origin is inf"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = writeMap(c.name, c.records, c.height_base);
    const ToolRun run = zvmap({"check", path});
    EXPECT_EQ(run.status, c.status) << run.out;
    EXPECT_TRUE(hasAll(run.out, c.lines));
    if (c.status == 0) {
      EXPECT_EQ(run.err, "");
    } else {
      expectOneLineFailure(run, path, "found (see the report)");
    }
  }
}

// check sizes the table from the cells; table builds it: the numbers agree.
TEST(ZvmapCliTest, CheckSizesTheTableThatTableBuilds) {
  const ToolRun check = zvmap({"check", mapPath(), "--level", "3"});
  const ToolRun table = zvmap({"table", mapPath(), "--level", "3"});
  ASSERT_EQ(check.status + table.status, 0) << check.out << table.out;
  std::smatch c, t;
  ASSERT_TRUE(std::regex_search(check.out, c,
                                std::regex("table: ([0-9]+) x ([0-9]+) coarse positions, ([0-9]+) value bins "
                                           "\\(largest ([0-9]+)\\), ([0-9]+) height bins \\(largest ([0-9]+)\\)")))
      << check.out;
  ASSERT_TRUE(std::regex_search(table.out, t,
                                std::regex("coarse grid +([0-9]+) x ([0-9]+) =[^]*value bins +([0-9]+) \\(largest "
                                           "([0-9]+)[^]*height bins +([0-9]+) \\(largest ([0-9]+)")))
      << table.out;
  for (int k = 1; k <= 6; ++k) EXPECT_EQ(c[k], t[k]) << "field " << k;
}

TEST(ZvmapCliTest, TableMatchesThePlainEvaluationOnAnyThreadCount) {
  const std::string map = tempMapPath("small.gridmap");
  ASSERT_EQ(zvmap({"synth", "-o", map, "--cols", "130", "--rows", "97", "--seed", "3"}).status, 0);
  std::string sizes;
  for (const char* threads : {"1", "3"}) {
    const ToolRun run = zvmap({"table", map, "--threads", threads, "--check-plain"});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(contains(run.out, "plain check     every bit matches")) << run.out;
    EXPECT_TRUE(contains(run.out, std::string(" s on ") + threads + " threads\n")) << run.out;
    const std::string table = run.out.substr(run.out.find("coarse grid"), run.out.find("build time") -
                                                                              run.out.find("coarse grid"));
    if (sizes.empty()) sizes = table;
    EXPECT_EQ(table, sizes);
  }
}

TEST(ZvmapCliTest, RenderDrawsEachLayerNorthUp) {
  const std::string map = mapPath(), png = tempMapPath("layer.png");
  const GridMapLossy loaded = loadRaw(map);
  const auto& m = loaded.matrix();
  const auto mixture = [](const float* w, const float* mean) { return w[0] * mean[0] + w[1] * mean[1]; };
  // The positions of the extremes of the height mixture mean.
  int lx = 0, ly = 0, hx = 0, hy = 0;
  float lo = 1e30f, hi = -1e30f;
  for (int y = 0; y < m.rows_; ++y) {
    for (int x = 0; x < m.cols_; ++x) {
      const MCell* c = cellAt(loaded, x, y);
      const float h = c == nullptr ? 0.f : mixture(c->height_weight, c->height_mean);
      if (c != nullptr && h < lo) lo = h, lx = x, ly = y;
      if (c != nullptr && h > hi) hi = h, hx = x, hy = y;
    }
  }
  for (const std::string layer : {"value", "height", "occupancy"}) {
    SCOPED_TRACE(layer);
    const ToolRun run = zvmap({"render", map, "-o", png, "--layer", layer});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.err.empty() && countLines(run.out) == 1 && contains(run.out, "500 x 500 px, north up")) << run.out;
    const Image image = readPng(png);
    ASSERT_TRUE(image.width == 500u && image.height == 500u);
    const auto pixel = [&](int x, int y) {
      const std::uint8_t* p = image.pixel(x, m.rows_ - 1 - y);  // north up: row 0 at the bottom
      return std::vector<int>(p, p + 4);
    };
    // Opaque exactly where cells are; on the value layer, the grey of the
    // mixture mean.
    int wrong = 0;
    for (int y = 0; y < m.rows_; ++y) {
      for (int x = 0; x < m.cols_; ++x) {
        const MCell* c = cellAt(loaded, x, y);
        const std::vector<int> p = pixel(x, y);
        const int grey = c == nullptr ? 0 : static_cast<int>(std::lround(mixture(c->value_weight, c->value_mean)));
        wrong += p[3] != (c == nullptr ? 0 : 255) ||
                 (c != nullptr && layer == "value" && p != std::vector<int>{grey, grey, grey, 255});
      }
    }
    EXPECT_EQ(wrong, 0);
    if (layer == "height") {  // viridis 0 and 1 at the extremes
      EXPECT_EQ(pixel(lx, ly), (std::vector<int>{0x44, 0x01, 0x54, 255}));
      EXPECT_EQ(pixel(hx, hy), (std::vector<int>{0xfd, 0xe7, 0x25, 255}));
    }
  }

  const ToolRun bins = zvmap({"render", map, "-o", png, "--layer", "bins", "--level", "5"});
  ASSERT_EQ(bins.status, 0) << bins.err;
  EXPECT_TRUE(contains(bins.out, "level-5 table")) << bins.out;
  const Image coarse = readPng(png);
  EXPECT_TRUE(coarse.width == 100u && coarse.height == 100u);
}

TEST(ZvmapCliTest, RenderFailureLeavesNoPicture) {
  const std::string dir = freshTempPath("pictures");
  ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
  const std::string missing_dir = dir + "/no/such/place.png";
  expectOneLineFailure(zvmap({"render", mapPath(), "-o", missing_dir, "--layer", "value"}), missing_dir,
                       "cannot create the image");
  expectOneLineFailure(zvmap({"render", mapPath(), "-o", dir, "--layer", "value"}), dir, "cannot write the image");
  // Nothing left behind: no temporary image beside either destination.
  DIR* temp = ::opendir(::testing::TempDir().c_str());
  ASSERT_NE(temp, nullptr);
  const std::string stem = dir.substr(dir.rfind('/') + 1);
  for (dirent* entry; (entry = ::readdir(temp)) != nullptr;) {
    EXPECT_EQ(std::string(entry->d_name).find(stem + ".tmp-"), std::string::npos) << entry->d_name;
  }
  ::closedir(temp);
  struct stat st;
  ASSERT_EQ(::stat(dir.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  ::rmdir(dir.c_str());
}

TEST(ZvmapCliTest, SynthIsDeterministicAndRefusesGridsTooLargeBeforeBuilding) {
  const auto synth = [](const std::string& out, const char* cols, const char* rows, const char* seed) {
    return zvmap({"synth", "-o", out, "--cols", cols, "--rows", rows, "--seed", seed});
  };
  const std::string a = tempMapPath("a.gridmap"), b = tempMapPath("b.gridmap"), c = tempMapPath("c.gridmap");
  const ToolRun first = synth(a, "200", "150", "2");
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_TRUE(contains(first.out, "on 200 x 150 positions (seed 2)")) << first.out;
  ASSERT_EQ(synth(b, "200", "150", "2").status + synth(c, "200", "150", "10").status, 0);
  EXPECT_EQ(readFileBytes(a), readFileBytes(b));
  EXPECT_NE(readFileBytes(a), readFileBytes(c));
  if (mapPath() == ZV_BUNDLED_MAP) {  // the bundled map is the 500 x 500 scene of seed 20
    ASSERT_EQ(synth(b, "500", "500", "20").status, 0);
    EXPECT_EQ(readFileBytes(b), readFileBytes(ZV_BUNDLED_MAP));
  }
  // 32768 x 32768 would be tens of gigabytes of cells: refused at once. The
  // small scene of seed 9 lies wholly inside a building: nothing to save.
  const std::string huge = tempMapPath("huge.gridmap"), nowhere = tempMapPath("no/such/dir.gridmap");
  expectOneLineFailure(synth(huge, "32768", "32768", "1"), huge, "does not fit a map file");
  expectOneLineFailure(synth(huge, "97612891", "1", "1"), huge, "does not fit a map file");
  expectOneLineFailure(synth(huge, "200", "150", "9"), huge, "has no occupied positions");
  EXPECT_FALSE(fileExists(huge));
  expectOneLineFailure(synth(nowhere, "10", "10", "1"), nowhere, "No such file or directory");
}

TEST(ZvmapCliTest, DiffReportsHeaderAndCellDifferences) {
  const std::string map = mapPath();
  const Bytes good = readFileBytes(map);
  EXPECT_EQ(zvmap({"diff", map, map, "--tolerance", "exact"}).status, 0);

  // Record 0's first value mean one step up (within one quantum) and record
  // 1's three steps up; a changed tag.
  Bytes nudged = good;
  nudged[61 + 6] = static_cast<char>(nudged[61 + 6] + 1);
  nudged[61 + 22 + 6] = static_cast<char>(nudged[61 + 22 + 6] + 3);
  nudged[5] = 9;
  const std::string other = tempMapPath("nudged.gridmap");
  writeFileBytes(other, nudged);
  const ToolRun quantised = zvmap({"diff", map, other});
  expectOneLineFailure(quantised, map, "differs from " + other);
  EXPECT_TRUE(hasAll(quantised.out, {"  tag: 0 | 9\n", "  differing     1 of the common positions beyond quantisation\n"}));
  const ToolRun exact = zvmap({"diff", map, other, "--tolerance", "exact"});
  EXPECT_EQ(exact.status, 1);
  EXPECT_TRUE(hasAll(exact.out, {"  differing     2 of the common positions\n    value_mean[0]: 2\n"}));

  // Positions present in one map only, matched on the map-wide grid.
  const std::string a = writeMap("only_a", {{0, 0x11}, {4, 0x11}});
  const std::string b = writeMap("only_b", {{4, 0x11}, {5, 0x11}});
  const ToolRun one_side = zvmap({"diff", a, b});
  EXPECT_EQ(one_side.status, 1);
  EXPECT_TRUE(hasAll(one_side.out, {"  positions     1 in both, 1 only in A, 1 only in B\n", "(0, 0) only in A",
                                    "(2, 1) only in B"}));
}

}  // namespace
}  // namespace testing
}  // namespace zorvane

#endif  // ZVMAP_EXECUTABLE
