// zv_host: how a localisation host process starts the map server.
//
//   zv_host [config.yaml [map.gridmap]]
//
// Reads the host configuration (by default the copy that the build wrote
// next to this program, which names the bundled map), optionally replaces
// the map path of its "map_server" section, and starts a GridMapServer with
// that section. Afterwards it shows what the GPU matcher received and how
// long each part of the start-up took.
//
// Exit status: 0 started; 1 the server refused to start (its code is
// printed); 2 the configuration could not be read or used; 3 the GPU matcher
// received data that it could not work with.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <yaml-cpp/yaml.h>

#include "gpu_aligner_stand_in/stand_in_record.h"
#include "localization/grid_map_server.h"
#include "localization/runtime_error.h"

#ifndef ZV_HOST_DEFAULT_CONFIG
#error "ZV_HOST_DEFAULT_CONFIG must name the default host configuration"
#endif

namespace {

using Clock = std::chrono::steady_clock;

double msBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

void printTiming(const char* step, double ms) {
  std::printf("  %-28s %10.2f ms\n", step, ms);
  std::fflush(stdout);
}

const char* meaningOf(unsigned code) {
  switch (code) {
    case 0x11803:
      return "the map_server section is incomplete or wrong";
    case 0x11804:
      return "the map could not be loaded, tabled or handed to the GPU matcher";
    default:
      return "unknown code";
  }
}

// What the GPU matcher received. With the stand-in gpu_aligner of this
// project the upload can be inspected; against the real library this report
// goes away.
bool reportUpload() {
  namespace stand_in = zorvane::gpu_stand_in;
  const stand_in::Record& r = stand_in::record();
  std::cout << "zv_host: the GPU matcher received (gpu_aligner stand-in):\n";
  std::cout << "  calls          ";
  const std::vector<std::string> names = r.callNames();
  for (std::size_t i = 0; i < names.size(); ++i) std::cout << (i ? ", " : "") << names[i];
  std::cout << "\n";
  if (!r.configs.empty()) {
    const auto& c = r.configs.back();
    std::cout << "  full matrix    " << c.cols << " x " << c.rows << " positions (" << c.grid_size
              << "), resolution " << c.resolution << " m, offset x " << c.offset_x << " y "
              << c.offset_y << "\n"
              << "                 " << r.cells.count << " cells, " << r.index.count
              << " index entries\n";
  }
  if (!r.coarse_configs.empty()) {
    const auto& c = r.coarse_configs.back();
    std::cout << "  level-4 table  " << c.cols << " x " << c.rows << " coarse positions ("
              << c.grid_size << "), resolution " << c.resolution << " m, offset x "
              << c.offset_x << " y " << c.offset_y << "\n"
              << "                 " << r.coarse_cells.elements << " coarse records, "
              << r.height_table.count << " height bins, " << r.value_table.count << " value bins\n";
  }
  const bool consistent = r.verdict.consistent() && names.size() == 4;
  if (consistent) {
    std::cout << "  verdict        consistent: index count = grid_size, index entries valid,"
                 " coarse bins inside the tables\n";
  } else {
    std::cout << "  verdict        NOT consistent\n";
    if (names.size() != 4) std::cout << "                 expected four calls\n";
    for (const std::string& p : r.verdict.problems) std::cout << "                 " << p << "\n";
  }
  std::cout << std::flush;
  return consistent;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 3) {
    std::cerr << "usage: zv_host [config.yaml [map.gridmap]]" << std::endl;
    return 2;
  }
  const std::string config_path = argc > 1 ? argv[1] : ZV_HOST_DEFAULT_CONFIG;
  const Clock::time_point begin = Clock::now();

  YAML::Node server_section;
  try {
    const YAML::Node config = YAML::LoadFile(config_path);
    if (!config.IsMap() || !config["map_server"]) {
      std::cerr << "zv_host: " << config_path << " has no map_server section" << std::endl;
      return 2;
    }
    server_section = YAML::Clone(config["map_server"]);
    if (argc > 2) server_section["grid_map"] = std::string(argv[2]);
  } catch (const YAML::Exception& e) {
    std::cerr << "zv_host: cannot read " << config_path << ": " << e.what() << std::endl;
    return 2;
  }
  std::cout << "zv_host: configuration " << config_path << std::endl;
  const Clock::time_point configured = Clock::now();

  zorvane::localization::GridMapServer server;
  const Clock::time_point constructed = Clock::now();
  try {
    server.init(server_section);
  } catch (const zorvane::localization::runtime_error& e) {
    std::cout << "zv_host: map server did not start: code " << e.what() << " ("
              << meaningOf(e.code_) << ")" << std::endl;
    return 1;
  } catch (const YAML::Exception& e) {
    std::cout << "zv_host: map server section unusable: " << e.what() << std::endl;
    return 2;
  }
  const Clock::time_point started = Clock::now();
  std::cout << "zv_host: map server started" << std::endl;

  const bool consistent = reportUpload();

  // The server runs its steps inside init(); the matcher's calls mark where
  // one ends and the next begins.
  const auto& calls = zorvane::gpu_stand_in::record().calls;
  std::cout << "zv_host: timings" << std::endl;
  printTiming("read configuration", msBetween(begin, configured));
  printTiming("construct server", msBetween(configured, constructed));
  if (calls.size() == 4) {
    printTiming("load map, build table", msBetween(constructed, calls[0].at));
    printTiming("full-resolution upload", msBetween(calls[0].at, calls[2].at));
    printTiming("level-4 table upload", msBetween(calls[2].at, started));
  }
  printTiming("server start-up (init)", msBetween(constructed, started));
  printTiming("whole start-up", msBetween(begin, started));
  return consistent ? 0 : 3;
}
