// A host of the map library, built against an installed package only:
// starts a GridMapServer on a map file and reports the result.
//
//   zv_consumer [map file]
//
// Without an argument it uses the example map installed with the package
// (the build passes its path as ZV_EXAMPLE_MAP). Exit status 0 when the
// server started, 1 when the start-up failed, 2 for a wrong command line.
#include <iostream>

#include <yaml-cpp/yaml.h>

#include "localization/grid_map_server.h"
#include "localization/runtime_error.h"

int main(int argc, char** argv) {
  const char* map_path = nullptr;
#ifdef ZV_EXAMPLE_MAP
  map_path = ZV_EXAMPLE_MAP;
#endif
  if (argc == 2) map_path = argv[1];
  if (argc > 2 || map_path == nullptr) {
    std::cerr << "usage: zv_consumer <map file>" << std::endl;
    return 2;
  }

  // The server's section of a host configuration.
  YAML::Node section;
  section["type"] = "GridMapServer";
  section["grid_map"] = map_path;

  zorvane::localization::GridMapServer server;
  try {
    server.init(section);
  } catch (const zorvane::localization::runtime_error& e) {
    // The reason is already on the console; the code says which step failed.
    std::cout << "zv_consumer: start-up failed, code " << e.what() << std::endl;
    return 1;
  }
  std::cout << "zv_consumer: " << server.name() << " started" << std::endl;
  return 0;
}
