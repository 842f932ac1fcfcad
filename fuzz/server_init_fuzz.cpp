// libFuzzer target: arbitrary text as the YAML section of the configured
// start-up, GridMapServer::init(const YAML::Node&).
//
// On first use the target writes a few small map files into a fresh
// temporary directory, and every "@/" in the text is replaced by that
// directory's path, so that the text can name them:
//   @/valid.zvmap      a 12 x 9 map with 36 cells
//   @/wide.zvmap       a 70 x 3 map, negative offsets, every position a cell
//   @/truncated.zvmap  valid.zvmap without its last 5 bytes
//   @/short.zvmap      the first 40 bytes of valid.zvmap
//   @/magic.zvmap      valid.zvmap with "zvmap" spelt "zvmaq"
//   @/oddbody.zvmap    a header declaring a 50-byte body, then 50 bytes
//   @/empty.zvmap      no bytes
// (the directory also holds a subdirectory @/dir). Other paths are used as
// written. The directory, <temp>/zv_init_fuzz_<pid>, is removed at a normal
// exit or by the next run after the process has gone.
//
// Allowed outcomes: a normal return, zorvane::localization::runtime_error
// with code 0x11803 or 0x11804, or an exception of yaml-cpp (a text that is
// not YAML, a value that is not a string). After a normal return the
// gpu_aligner stand-in must have received the four calls, judged
// consistent. Anything else (another exception, a crash, a sanitizer
// report) is a finding.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/sample_maps.h"
#include "gpu_aligner_stand_in/stand_in_record.h"
#include "localization/grid_map_server.h"
#include "localization/runtime_error.h"

namespace {

namespace fz = zorvane::testing;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "start-up check failed: %s\n", what.c_str());
  std::abort();
}

void writeFile(const std::string& path, const std::vector<char>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) fail("cannot write " + path);
}

constexpr char kDirectoryPrefix[] = "zv_init_fuzz_";

// libFuzzer may end the process without running destructors, so the
// directory is named after the process, and each run first removes the
// directories of processes that no longer exist.
void removeStaleDirectories(const std::filesystem::path& parent) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(parent, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(kDirectoryPrefix, 0) != 0) continue;
    const std::string digits = name.substr(sizeof kDirectoryPrefix - 1);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) continue;
    const long pid = std::strtol(digits.c_str(), nullptr, 10);
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) std::filesystem::remove_all(entry.path(), ec);
  }
}

// The map directory, made once per process.
class MapDirectory {
 public:
  MapDirectory() {
    const std::filesystem::path parent = std::filesystem::temp_directory_path();
    removeStaleDirectories(parent);
    dir_ = (parent / (kDirectoryPrefix + std::to_string(getpid()))).string();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    if (mkdir(dir_.c_str(), 0700) != 0) fail("cannot make " + dir_);
    const std::vector<char> valid = fz::sampleMapFile(12, 9, 3, 11);
    std::vector<char> magic = valid;
    magic[4] = 'q';
    std::vector<char> odd(valid.begin(), valid.begin() + 61);
    odd[41] = 50;
    odd[42] = odd[43] = odd[44] = 0;
    odd.insert(odd.end(), valid.begin() + 61, valid.begin() + 111);
    add("valid.zvmap", valid);
    add("wide.zvmap", fz::sampleMapFile(70, 3, 1, 5, -9, -6));
    add("truncated.zvmap", std::vector<char>(valid.begin(), valid.end() - 5));
    add("short.zvmap", std::vector<char>(valid.begin(), valid.begin() + 40));
    add("magic.zvmap", magic);
    add("oddbody.zvmap", odd);
    add("empty.zvmap", {});
    if (mkdir((dir_ + "/dir").c_str(), 0755) != 0) fail("cannot make " + dir_ + "/dir");
  }
  ~MapDirectory() {
    for (const std::string& f : files_) unlink(f.c_str());
    rmdir((dir_ + "/dir").c_str());
    rmdir(dir_.c_str());
  }
  const std::string& path() const { return dir_; }

 private:
  void add(const std::string& name, const std::vector<char>& bytes) {
    files_.push_back(dir_ + "/" + name);
    writeFile(files_.back(), bytes);
  }
  std::string dir_;
  std::vector<std::string> files_;
};

std::string substituteDirectory(std::string text, const std::string& dir) {
  for (std::size_t at = text.find("@/"); at != std::string::npos; at = text.find("@/", at + dir.size() + 1)) {
    text.replace(at, 1, dir);
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MapDirectory maps;
  const std::string text =
      substituteDirectory(std::string(reinterpret_cast<const char*>(data), size), maps.path());
  YAML::Node node;
  try {
    node = YAML::Load(text);
  } catch (const YAML::Exception&) {
    return 0;  // not YAML at all
  }
  zorvane::gpu_stand_in::resetRecord();
  try {
    zorvane::localization::GridMapServer server;
    server.init(node);
  } catch (const zorvane::localization::runtime_error& e) {
    if (e.code_ != 0x11803 && e.code_ != 0x11804) fail(std::string("unexpected code ") + e.what());
    return 0;
  } catch (const YAML::Exception&) {
    return 0;
  } catch (const std::exception& e) {
    fail(std::string("unexpected exception: ") + e.what());
  } catch (...) {
    fail("unexpected exception of unknown type");
  }
  const auto& record = zorvane::gpu_stand_in::record();
  if (record.calls.size() != 4) fail("a successful start-up did not make four calls");
  if (!record.verdict.consistent()) fail("inconsistent upload: " + record.verdict.problems.front());
  return 0;
}
