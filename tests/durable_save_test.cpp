// saveMapDurably: the bytes of saveToFile, and after any failure the old map
// untouched, no temporary file left and a reason naming the path. The tests
// run as root, so failures come from a real full file system (a small tmpfs,
// where mounting is allowed), from targets of the wrong kind, and from the
// seam in durable_save_testing.h; no test ever points a save at /dev.
#include "localization/durable_save.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "localization/durable_save_testing.h"
#include "localization/grid_map_lossy.h"
#include "tests/support/map_files.h"

namespace {

namespace fs = std::filesystem;
namespace loc = zorvane::localization;
using loc::GridMapLossy;
using loc::saveMapDurably;
using zorvane::testing::Bytes;
using zorvane::testing::readFileBytes;
using zorvane::testing::writeFileBytes;

// A map of `cells` cells on a 64-column grid, one per position.
void fillMap(GridMapLossy* map, int cells) {
  zorvane::testing::fillExampleMap(map);
  loc::GridMatrix& m = map->mutable_matrix();
  const int rows = (cells + 63) / 64;
  m.manualInit(0.15f, 64, rows, -3, 5);
  m.index_.assign(static_cast<std::size_t>(64 * rows), -1);
  m.cells_.clear();
  for (int c = 0; c < cells; ++c) {
    loc::MCell cell = zorvane::testing::exampleCell();
    cell.value_mean[0] = static_cast<float>(c % 256);
    m.cells_.push_back(cell);
    m.index_[static_cast<std::size_t>(c)] = c;
  }
}

Bytes saveToFileBytes(GridMapLossy& map, const std::string& path) {
  std::string out;
  EXPECT_TRUE(zorvane::testing::saveCapturing(map, path, &out));
  return readFileBytes(path);
}

// One fresh directory per test; the seam is reset after every test.
class DurableSave : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "zv_durable_XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    loc::internal::resetDurableSaveFileOps();
    if (!mount_.empty()) umount(mount_.c_str());
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  std::string path(const std::string& name) const { return (fs::path(dir_) / name).string(); }
  // Names in `dir` other than `keep`: a leftover temporary file shows here.
  std::vector<std::string> others(const std::string& dir, const std::string& keep) const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) {
      if (e.path().filename() != keep) names.push_back(e.path().filename().string());
    }
    return names;
  }

  // A failed save of `target`: one line naming it and `reason`, the old
  // bytes in place and no temporary file beside them.
  void expectFailed(const loc::MapSaveResult& r, const std::string& target, const std::string& reason,
                    const Bytes& old) {
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.error.rfind("cannot save map to " + target + ": ", 0), 0u) << r.error;
    EXPECT_NE(r.error.find(reason), std::string::npos) << r.error;
    EXPECT_EQ(r.error.find('\n'), std::string::npos);
    EXPECT_EQ(readFileBytes(target), old);
    EXPECT_TRUE(others(fs::path(target).parent_path().string(), fs::path(target).filename().string()).empty());
  }

  std::string dir_;
  std::string mount_;
};

TEST_F(DurableSave, WritesTheBytesOfSaveToFileAndReplacesKeepingPermissions) {
  GridMapLossy small, large;
  fillMap(&small, 3);
  fillMap(&large, 300);
  const Bytes small_bytes = saveToFileBytes(small, path("ref_small"));
  const Bytes large_bytes = saveToFileBytes(large, path("ref_large"));
  const std::string map = path("map.zvmap");

  testing::internal::CaptureStdout();
  const loc::MapSaveResult created = saveMapDurably(small, map);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(created.ok && created.error.empty()) << created.error;
  EXPECT_EQ(readFileBytes(map), small_bytes);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(fs::status(map).permissions(), static_cast<fs::perms>(0644 & ~mask));
  ASSERT_EQ(chmod(map.c_str(), 0640), 0);
  EXPECT_TRUE(saveMapDurably(large, map).ok);
  EXPECT_EQ(readFileBytes(map), large_bytes);
  EXPECT_EQ(fs::status(map).permissions(), static_cast<fs::perms>(0640));

  // A link is followed: the file it names is replaced, the link stays. A
  // bare name is saved in the working directory.
  ASSERT_EQ(symlink("map.zvmap", path("link").c_str()), 0);
  EXPECT_TRUE(saveMapDurably(small, path("link")).ok);
  EXPECT_TRUE(fs::is_symlink(path("link")));
  EXPECT_EQ(readFileBytes(map), small_bytes);
  const fs::path before = fs::current_path();
  fs::current_path(dir_);
  EXPECT_TRUE(saveMapDurably(large, "bare.zvmap").ok);
  fs::current_path(before);
  EXPECT_EQ(readFileBytes(path("bare.zvmap")), large_bytes);
  std::vector<std::string> names = others(dir_, "");
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"bare.zvmap", "link", "map.zvmap", "ref_large", "ref_small"}));
}

TEST_F(DurableSave, ConcurrentSavesToOnePathEachLeaveACompleteMap) {
  constexpr int kThreads = 4;
  std::vector<GridMapLossy> maps(kThreads);
  std::vector<Bytes> encodings;
  for (int t = 0; t < kThreads; ++t) {
    fillMap(&maps[t], 20 + 7 * t);
    encodings.push_back(saveToFileBytes(maps[t], path("ref_" + std::to_string(t))));
    fs::remove(path("ref_" + std::to_string(t)));
  }
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int k = 0; k < 25; ++k) failures[t] += saveMapDurably(maps[t], path("map.zvmap")).ok ? 0 : 1;
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
  EXPECT_NE(std::find(encodings.begin(), encodings.end(), readFileBytes(path("map.zvmap"))), encodings.end());
  EXPECT_TRUE(others(dir_, "map.zvmap").empty());
}

// Refuses, with the old file untouched, what saveToFile would not write.
class CodecDouble : public GridMapLossy {
 public:
  int header_result = 0;  // 0: the real one
  int body_result = 0;
  int addHeaderBinary(char* buf) override {
    const int h = GridMapLossy::addHeaderBinary(buf);
    return header_result != 0 ? header_result : h;
  }
  int addBodyBinary(char* buf) override {
    const int b = GridMapLossy::addBodyBinary(buf);
    return body_result != 0 ? body_result : b;
  }
};

TEST_F(DurableSave, RefusesMapsThatSaveToFileRefusesAndLeavesTheOldFile) {
  const Bytes old = zorvane::testing::exampleFileBytes();
  struct Case {
    const char* what;
    std::function<void(CodecDouble*)> spoil;
    const char* reason;
  };
  const Case cases[] = {
      {"no cells", [](CodecDouble* m) { m->mutable_matrix().cells_.clear(); }, "the map has no cells"},
      {"header refused", [](CodecDouble* m) { m->header_result = -1; }, "refused the header (-1)"},
      {"header past the buffer", [](CodecDouble* m) { m->header_result = 1 << 20; }, "refused the header"},
      {"body refused", [](CodecDouble* m) { m->body_result = -1; }, "refused the cells (-1)"},
      {"index names a cell twice",
       [](CodecDouble* m) { m->mutable_matrix().index_[5] = m->mutable_matrix().index_[4]; },
       "refused the cells (-1)"},
      {"size mismatch", [](CodecDouble* m) { m->body_result = 44; }, "differ from the encoded length 83"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    writeFileBytes(path("map.zvmap"), old);
    CodecDouble map;
    zorvane::testing::fillExampleMap(&map);
    c.spoil(&map);
    testing::internal::CaptureStdout();
    const loc::MapSaveResult r = saveMapDurably(map, path("map.zvmap"));
    testing::internal::GetCapturedStdout();  // the codec's own refusal line
    expectFailed(r, path("map.zvmap"), c.reason, old);
  }
}

TEST_F(DurableSave, NeverReplacesWhatIsNotARegularFile) {
  GridMapLossy map;
  fillMap(&map, 5);
  ASSERT_EQ(mkdir(path("dir").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0644), 0);
  ASSERT_EQ(symlink("nowhere", path("dangling").c_str()), 0);
  ASSERT_EQ(symlink("dir", path("to_dir").c_str()), 0);
  struct Case {
    std::string target;
    const char* reason;
  };
  std::vector<Case> cases = {
      {path("dir"), "it exists and is a directory"},
      {path("fifo"), "it exists and is a FIFO"},
      {path("to_dir"), "it exists and is a directory"},
      {path("dangling"), "cannot follow the symbolic link: No such file or directory"},
      {path("missing/map.zvmap"), "No such file or directory"},
      {path("dir") + "/", "it exists and is a directory"},
      {path("missing") + "/", "does not name a file"},
      {"", "the path is empty"},
  };
  // A device node of our own (the null device's numbers), never one in /dev.
  const bool have_device = mknod(path("device").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
  if (have_device) cases.push_back({path("device"), "it exists and is a character device"});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    const loc::MapSaveResult r = saveMapDurably(map, c.target);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("cannot save map to " + c.target + ": "), std::string::npos) << r.error;
    EXPECT_NE(r.error.find(c.reason), std::string::npos) << r.error;
  }
  EXPECT_TRUE(fs::is_directory(path("dir")) && fs::is_empty(path("dir")));
  EXPECT_TRUE(fs::is_fifo(path("fifo")));
  EXPECT_TRUE(fs::is_symlink(path("dangling")) && !fs::exists(path("nowhere")));
  if (have_device) {
    EXPECT_TRUE(fs::is_character_file(path("device")));
  }
  std::vector<std::string> names = others(dir_, "");
  EXPECT_EQ(names.size(), have_device ? 5u : 4u);
}

// Failures injected through the seam. Each hook below fails on cue and
// otherwise behaves as the system call does.
int calls = 0;
int fail_at = 0;
int fail_errno = 0;

ssize_t writeFailing(int fd, const void* data, std::size_t bytes) {
  if (++calls == fail_at) {
    errno = fail_errno;
    return -1;
  }
  return ::write(fd, data, bytes < 50 ? bytes : 50);  // short writes until then
}
ssize_t writeStuck(int, const void*, std::size_t) { return 0; }
// Every other call is interrupted, the others write at most 7 bytes.
ssize_t writeInterrupted(int fd, const void* data, std::size_t bytes) {
  if (++calls % 2 == 1) {
    errno = EINTR;
    return -1;
  }
  return ::write(fd, data, bytes < 7 ? bytes : 7);
}
int fsyncFailing(int fd) {
  if (++calls == fail_at) {
    errno = fail_errno;
    return -1;
  }
  return ::fsync(fd);
}
int renameFailing(const char*, const char*) {
  errno = fail_errno;
  return -1;
}

// A failed write, file sync or rename leaves the old map and no temporary
// file; a failed directory sync comes after the rename, with the new map in
// place; interrupted and short writes are retried to the end.
TEST_F(DurableSave, SystemCallFailuresAreReportedAndRetriesComplete) {
  GridMapLossy map;
  fillMap(&map, 40);  // 941 bytes: 19 writes of 50 bytes
  const Bytes old = zorvane::testing::exampleFileBytes();
  const Bytes saved = saveToFileBytes(map, path("reference"));
  fs::remove(path("reference"));
  auto& ops = loc::internal::durableSaveFileOps();
  struct Case {
    const char* what;
    std::function<void()> inject;
    const char* reason;  // nullptr: the save succeeds
    bool new_in_place;
  };
  const Case cases[] = {
      {"first write fails", [&] { ops.write = writeFailing; fail_at = 1; fail_errno = EIO; }, "writing ", false},
      {"disk full half-way", [&] { ops.write = writeFailing; fail_at = 9; fail_errno = ENOSPC; },
       ": No space left on device", false},
      {"write makes no progress", [&] { ops.write = writeStuck; }, "made no progress after 0 bytes", false},
      {"file sync fails", [&] { ops.fsync = fsyncFailing; fail_at = 1; fail_errno = EIO; }, "syncing ", false},
      {"rename fails", [&] { ops.rename = renameFailing; fail_errno = EXDEV; }, "Invalid cross-device link", false},
      {"directory sync fails", [&] { ops.fsync = fsyncFailing; fail_at = 2; fail_errno = EIO; },
       "the new map is in place, but cannot sync the directory ", true},
      // A file system that cannot sync directories needs no such sync.
      {"directory sync unsupported", [&] { ops.fsync = fsyncFailing; fail_at = 2; fail_errno = EINVAL; }, nullptr,
       true},
      {"interrupted and short writes", [&] { ops.write = writeInterrupted; }, nullptr, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    loc::internal::resetDurableSaveFileOps();
    calls = 0;
    writeFileBytes(path("map.zvmap"), old);
    c.inject();
    const loc::MapSaveResult r = saveMapDurably(map, path("map.zvmap"));
    if (!c.new_in_place) {
      expectFailed(r, path("map.zvmap"), c.reason, old);
      continue;
    }
    EXPECT_EQ(r.ok, c.reason == nullptr) << r.error;
    if (c.reason != nullptr) {
      EXPECT_NE(r.error.find(c.reason + dir_), std::string::npos) << r.error;
    }
    EXPECT_EQ(readFileBytes(path("map.zvmap")), saved);
  }
  EXPECT_GT(calls, 2 * 941 / 7);  // the interrupted writes
}

TEST_F(DurableSave, AFullFileSystemKeepsTheOldMap) {
  const std::string mnt = path("small");
  ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
  if (mount("zv_durable", mnt.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "cannot mount a small tmpfs here: " << std::strerror(errno);
  }
  mount_ = mnt;
  GridMapLossy small, large;
  fillMap(&small, 10);
  fillMap(&large, 4000);  // 88 kB, more than the file system holds
  const std::string target = mnt + "/map.zvmap";
  ASSERT_TRUE(saveMapDurably(small, target).ok);
  const Bytes before = readFileBytes(target);
  expectFailed(saveMapDurably(large, target), target, "No space left on device", before);
}

}  // namespace
