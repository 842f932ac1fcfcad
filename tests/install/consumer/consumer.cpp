// Starts the map server on the map given on the command line.
#include <iostream>

#include <yaml-cpp/yaml.h>

#include "localization/grid_map_server.h"
#include "localization/runtime_error.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  YAML::Node section;
  section["type"] = "GridMapServer";
  section["grid_map"] = argv[1];
  zorvane::localization::GridMapServer server;
  try {
    server.init(section);
  } catch (const zorvane::localization::runtime_error& e) {
    std::cout << "zv_consumer: code " << e.what() << std::endl;
    return 1;
  }
  std::cout << "zv_consumer: " << server.name() << " started" << std::endl;
  return 0;
}
