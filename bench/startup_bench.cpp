// Start-up of a 10 M-cell map as a vehicle sees it: every measured
// operation runs in a fresh process, so that every page the operation
// writes is a page the kernel must first hand out, exactly as at a real
// start-up. (An in-process benchmark loop reuses memory the process already
// touched and hides that cost and its spread.)
//
//   startup_bench [--runs N] [--plain_runs M] [--map PATH] [--threads T]
//                 [--only OPS] [--settle S] [--memory cold|warm|mixed]
//                 [--warm_gib G] [--cold_wait W]
//
// Generates the synthetic 5000 x 5000 street map into PATH when it is
// missing (default build/startup_map_5000.zvmap relative to the working
// directory), then runs each operation N times (the plain table and the
// plain init M times: they take half a minute each), ours and plain
// interleaved, each in a child process with OMP_NUM_THREADS=T (default 2),
// and prints one table row per operation: min, median, p90 and max seconds
// and the largest peak resident memory of the child. OPS is a comma list of
// operation names (see kOperations) to run a subset. Before each child the
// driver waits S seconds (default 1): the kernel's work of tearing down the
// previous child (up to 3.4 GB for the plain start-up) would otherwise fall
// on the next one, and a vehicle starts on a machine that is not doing it.
//
// --memory MODE sets what the memory a child is handed has been through.
// On a virtual machine that hands freed memory back to its host (free page
// reporting: about two seconds after a free, in blocks of 2 MiB and up),
// the first touch of such memory also costs a fault in the host, and the
// child's time then depends on how much memory the previous children freed
// and how long ago. Bare metal has no such cost.
//   cold:  the driver waits --cold_wait W seconds (default 6) instead of
//          the settle pause, so that freed memory is back with the host
//          (default: the worst case of such a machine);
//   warm:  after the settle pause the driver faults in and releases
//          --warm_gib G GiB (default 4, more than any child's peak), so the
//          child is handed memory the guest has just used, as bare metal
//          hands out any free memory;
//   mixed: the settle pause alone (what the figures before 2026-11-24
//          06:00 UTC measured).
//
// A child is this program again with --child OP: it does the untimed
// preparation the operation needs (the load, for the table alone), times
// the operation and prints "RESULT <seconds> <peak resident bytes>".
#include <omp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/plain_map_loader.h"
#include "gpu_aligner/gpu_aligner.h"
#include "localization/grid_map_lossy.h"
#include "localization/lossy_format.h"
#include "localization/grid_map_server.h"
#include "localization/look_up_table.h"
#include "localization/matrix_config.h"
#include "tools/reference/plain_look_up_table.h"
#include "tools/reference/synthetic_map.h"

namespace zorvane {
namespace {

using localization::GridMapLossy;
using localization::GridMatrix;
using localization::GridMatrixTable;
using localization::MCell;

constexpr int kSide = 5000;
constexpr std::uint64_t kSeed = 42;

// --- In the child. ---

std::int64_t peakResidentBytes() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 6, "VmHWM:") == 0) return std::stoll(line.substr(6)) * 1024;
  }
  return -1;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// User plus system time of the whole process so far, all threads.
double cpuSeconds() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

// Wall and CPU time from construction; stop() stores both.
struct Timer {
  std::chrono::steady_clock::time_point wall = std::chrono::steady_clock::now();
  double cpu = cpuSeconds();
  double stop(double* cpu_out) const {
    *cpu_out = cpuSeconds() - cpu;
    return secondsSince(wall);
  }
};

// Library progress lines are not part of the result.
struct QuietStdout {
  QuietStdout() { std::cout.setstate(std::ios::badbit); }
  ~QuietStdout() { std::cout.clear(); }
};

// The plain table builder takes a GridMatrix; the plain map's vectors are
// copied into one outside the timing.
GridMatrix plainMatrix(const bench::PlainMap& plain) {
  GridMatrix m = plain.matrix;
  m.index_.assign(plain.index.begin(), plain.index.end());
  m.cells_.assign(plain.cells.begin(), plain.cells.end());
  m.precalculated_ = true;
  return m;
}

// The four gpu_aligner calls of a start-up, as the server makes them: the
// geometry of `matrix` with its cells and index, then the table's.
template <class Cells, class Index>
void uploadFourCalls(const localization::GridMatrixBase& matrix, const Cells& cells, const Index& index,
                     const GridMatrixTable& table) {
  localization::cudaSetMatrixConfig(localization::matrixConfigOf(matrix));
  localization::cudaSetMatrixCells(cells.data(), static_cast<int>(cells.size()), index.data(),
                                   static_cast<int>(index.size()));
  localization::cudaSetMatrixConfigCoarse(localization::matrixConfigOf(table));
  localization::cudaSetMatrixCellsCoarse(table.height_table_.data(), static_cast<int>(table.height_table_.size()),
                                         table.value_table_.data(), static_cast<int>(table.value_table_.size()),
                                         table.coarse_cells_.data());
}

// Runs one operation; false when it failed.
bool runChild(const std::string& op, const std::string& path, double* seconds, double* cpu) {
  QuietStdout quiet;
  if (op == "load" || op == "load_no_thp") {
    GridMapLossy map;
    const Timer start;
    const bool ok = map.ReadFromFile(path);
    *seconds = start.stop(cpu);
    return ok;
  }
  if (op == "plain_load") {
    bench::PlainMap plain;
    const Timer start;
    const bool ok = bench::plainLoad(path, true, &plain);
    *seconds = start.stop(cpu);
    return ok;
  }
  if (op == "table" || op == "measure") {
    GridMapLossy map;
    if (!map.ReadFromFile(path)) return false;
    const Timer start;
    if (op == "table") {
      const GridMatrixTable table = map.matrix().getLookUpTable(4, 0.15f, 1.0f);
      *seconds = start.stop(cpu);
      return table.grid_size_ > 0;
    }
    const localization::LookUpTableExtent e = localization::measureLookUpTable(map.matrix(), 4, 0.15f, 1.0f);
    *seconds = start.stop(cpu);
    std::cerr << "extent: records " << e.records << ", value bins " << e.value_bins << ", height bins " << e.height_bins
              << ", work " << e.work << ", cells " << map.matrix().cells_.size() << "\n";
    return e.value_bins > 0;
  }
  if (op == "plain_table") {
    bench::PlainMap plain;
    if (!bench::plainLoad(path, true, &plain)) return false;
    const GridMatrix m = plainMatrix(plain);
    plain = bench::PlainMap();
    const Timer start;
    const GridMatrixTable table = reference::plainLookUpTable(m, 4, 0.15f, 1.0f);
    *seconds = start.stop(cpu);
    return table.grid_size_ > 0;
  }
  if (op == "init") {
    YAML::Node node;
    node["type"] = "GridMapServer";
    node["grid_map"] = path;
    localization::GridMapServer server;
    const Timer start;
    server.init(node);  // throws on failure
    *seconds = start.stop(cpu);
    return true;
  }
  if (op == "uploads") {
    // The last two steps of init alone: the loaded matrix and its level-4
    // table handed to the gpu_aligner we link (the stand-in reads and
    // checks every byte, as a device copy reads them).
    GridMapLossy map;
    if (!map.ReadFromFile(path)) return false;
    map.generateMatrixTalbe(4);
    const GridMatrix& m = map.matrix();
    const GridMatrixTable& t = map.matrixTable(4);
    const Timer start;
    uploadFourCalls(m, m.cells_, m.index_, t);
    *seconds = start.stop(cpu);
    return true;
  }
  if (op == "plain_init") {
    // The same four steps, plain: load, table, the four uploads. The
    // builder needs a GridMatrix, so the plain loader's vectors are decoded
    // straight into one (standard allocation for its vectors is what the
    // plain side stands for; the matrix's own allocator is the library's).
    const Timer start;
    bench::PlainMap plain;
    if (!bench::plainLoad(path, true, &plain)) return false;
    const GridMatrixTable table = reference::plainLookUpTable(plainMatrix(plain), 4, 0.15f, 1.0f);
    uploadFourCalls(plain.matrix, plain.cells, plain.index, table);
    *seconds = start.stop(cpu);
    return true;
  }
  std::cerr << "unknown operation " << op << "\n";
  return false;
}

// --- In the driver. ---

struct Operation {
  const char* name;    // child operation
  const char* label;   // table row
  bool plain_is_slow;  // runs --plain_runs times instead of --runs
};
const Operation kOperations[] = {
    {"load", "ReadFromFile", false},
    {"plain_load", "ReadFromFile (plain)", false},
    {"load_no_thp", "ReadFromFile, THP off for the process", false},
    {"measure", "measureLookUpTable(4, 0.15, 1.0)", false},
    {"table", "getLookUpTable(4, 0.15, 1.0)", false},
    {"plain_table", "getLookUpTable (plain)", true},
    {"uploads", "the 4 uploads alone", false},
    {"init", "init (load, table, 4 uploads)", false},
    {"plain_init", "init (plain)", true},
};

// What the memory a child is handed has been through (see the top).
struct MemoryPreparation {
  std::string mode = "cold";
  double settle = 1.0;     // seconds, warm and mixed
  double warm_gib = 4.0;   // faulted in and released, warm
  double cold_wait = 6.0;  // seconds, cold
};

void sleepSeconds(double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); }

// Faults in `bytes` of fresh memory and releases it at once.
bool touchAndRelease(std::size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return false;
  (void)madvise(p, bytes, MADV_NOHUGEPAGE);
#if defined(MADV_POPULATE_WRITE)
  if (madvise(p, bytes, MADV_POPULATE_WRITE) != 0)
#endif
    for (std::size_t at = 0; at < bytes; at += 4096) static_cast<volatile char*>(p)[at] = 1;
  munmap(p, bytes);
  return true;
}

bool prepareMemory(const MemoryPreparation& m) {
  if (m.mode == "cold") {
    sleepSeconds(m.cold_wait);
    return true;
  }
  sleepSeconds(m.settle);
  if (m.mode == "warm") return touchAndRelease(static_cast<std::size_t>(m.warm_gib * (1 << 30)));
  return m.mode == "mixed";
}

struct Sample {
  double seconds = 0;
  double peak_bytes = 0;
  double cpu = 0;  // user + system seconds of all threads
};

bool runInChild(const std::string& self, const std::string& op, const std::string& path, Sample* out) {
  const std::string command = "'" + self + "' --child " + op + " --map '" + path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return false;
  char line[512];
  bool found = false;
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    if (std::sscanf(line, "RESULT %lf %lf %lf", &out->seconds, &out->peak_bytes, &out->cpu) == 3) found = true;
  }
  return pclose(pipe) == 0 && found;
}

double quantile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  // Nearest rank: the smallest value with at least q of the runs at or below.
  std::size_t rank = static_cast<std::size_t>(q * static_cast<double>(v.size()) + 0.999999);
  rank = std::max<std::size_t>(1, std::min(rank, v.size()));
  return v[rank - 1];
}

bool ensureMap(const std::string& path) {
  if (std::ifstream(path).good()) return true;
  std::cerr << "generating " << path << " (" << kSide << " x " << kSide << ", seed " << kSeed << ")\n";
  reference::SyntheticMap synthetic = reference::makeSyntheticMap(kSide, kSide, kSeed);
  GridMapLossy map;
  map.height_base_ = synthetic.height_base;
  map.aux_value_base_ = synthetic.aux_value_base;
  map.mutable_matrix() = std::move(synthetic.matrix);
  const std::string partial = path + ".partial";
  QuietStdout quiet;
  return map.saveToFile(partial) && std::rename(partial.c_str(), path.c_str()) == 0;
}

int driver(const std::string& self, const std::string& path, int runs, int plain_runs, int threads,
           const std::string& only, const MemoryPreparation& memory) {
  if (!ensureMap(path)) {
    std::cerr << "cannot write " << path << "\n";
    return 1;
  }
  setenv("OMP_NUM_THREADS", std::to_string(threads).c_str(), 1);
  std::vector<const Operation*> ops;
  for (const Operation& op : kOperations) {
    if (only.empty() || ("," + only + ",").find("," + std::string(op.name) + ",") != std::string::npos) {
      ops.push_back(&op);
    }
  }
  // Interleaved: run r of every operation before run r + 1 of any, so that
  // a noisy stretch of the machine hits both sides alike.
  std::map<std::string, std::vector<Sample>> samples;
  for (int r = 0; r < runs; ++r) {
    for (const Operation* op : ops) {
      if (op->plain_is_slow && r >= plain_runs) continue;
      Sample s;
      if (!prepareMemory(memory)) {
        std::cerr << "cannot prepare memory (--memory " << memory.mode << ")\n";
        return 1;
      }
      if (!runInChild(self, op->name, path, &s)) {
        std::cerr << "run " << r << " of " << op->name << " failed\n";
        return 1;
      }
      samples[op->name].push_back(s);
      std::cerr << "run " << r << " " << op->name << " " << s.seconds << " s\n";
    }
  }
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  std::printf("map %s: %lld bytes; %d threads; memory %s; seconds per fresh process\n", path.c_str(),
              static_cast<long long>(file.tellg()), threads, memory.mode.c_str());
  std::printf("| %-38s | %4s | %6s | %6s | %6s | %6s | %8s | %10s |\n", "operation", "runs", "min", "median", "p90",
              "max", "peak MB", "median CPU");
  std::printf("|%s|------|--------|--------|--------|--------|----------|------------|\n",
              std::string(40, '-').c_str());
  for (const Operation* op : ops) {
    const std::vector<Sample>& v = samples[op->name];
    std::vector<double> t, cpu;
    double peak = 0;
    for (const Sample& s : v) {
      t.push_back(s.seconds);
      cpu.push_back(s.cpu);
      peak = std::max(peak, s.peak_bytes);
    }
    std::printf("| %-38s | %4zu | %6.3f | %6.3f | %6.3f | %6.3f | %8.0f | %10.3f |\n", op->label, v.size(),
                quantile(t, 0.0), quantile(t, 0.5), quantile(t, 0.9), quantile(t, 1.0), peak / 1e6, quantile(cpu, 0.5));
  }
  std::printf("raw seconds:\n");
  for (const Operation* op : ops) {
    std::printf("  %s:", op->name);
    for (const Sample& s : samples[op->name]) std::printf(" %.3f", s.seconds);
    std::printf("\n");
  }
  return 0;
}

}  // namespace
}  // namespace zorvane

int main(int argc, char** argv) {
  std::string child, path = "build/startup_map_5000.zvmap", only;
  int runs = 10, plain_runs = 3, threads = 2;
  zorvane::MemoryPreparation memory;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--child" && has_value) {
      child = argv[++i];
    } else if (arg == "--map" && has_value) {
      path = argv[++i];
    } else if (arg == "--runs" && has_value) {
      runs = std::atoi(argv[++i]);
    } else if (arg == "--plain_runs" && has_value) {
      plain_runs = std::atoi(argv[++i]);
    } else if (arg == "--threads" && has_value) {
      threads = std::atoi(argv[++i]);
    } else if (arg == "--only" && has_value) {
      only = argv[++i];
    } else if (arg == "--settle" && has_value) {
      memory.settle = std::atof(argv[++i]);
    } else if (arg == "--memory" && has_value) {
      memory.mode = argv[++i];
    } else if (arg == "--warm_gib" && has_value) {
      memory.warm_gib = std::atof(argv[++i]);
    } else if (arg == "--cold_wait" && has_value) {
      memory.cold_wait = std::atof(argv[++i]);
    } else {
      std::cerr << "usage: startup_bench [--runs N] [--plain_runs M] [--map PATH] [--threads T] [--only OPS]"
                   " [--settle S] [--memory cold|warm|mixed] [--warm_gib G] [--cold_wait W]\n";
      return 2;
    }
  }
  if (!child.empty()) {
    double seconds = 0, cpu = 0;
    if (!zorvane::runChild(child, path, &seconds, &cpu)) return 1;
    std::printf("RESULT %.6f %lld %.6f\n", seconds, static_cast<long long>(zorvane::peakResidentBytes()), cpu);
    return 0;
  }
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return 1;
  self[n] = '\0';
  if (memory.mode != "warm" && memory.mode != "cold" && memory.mode != "mixed") {
    std::cerr << "--memory takes cold, warm or mixed\n";
    return 2;
  }
  return zorvane::driver(self, path, runs, plain_runs, threads, only, memory);
}
