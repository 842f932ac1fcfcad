// zvmap_tool: inspect, generate and check zvmap files.
//
//   zvmap_tool info FILE                    header, geometry, cells, value ranges
//   zvmap_tool generate COLS ROWS SEED OUT  a synthetic street map, saved
//   zvmap_tool verify FILE                  load as the server does and check
//
// Exit status: 0 on success (verify: the map is sound), 1 when the file is
// unreadable or broken (verify: any problem found), 2 on a usage error.
#include <iostream>
#include <string>

#include "tools/zvmap_commands.h"

namespace {

int usage() {
  std::cerr << "usage: zvmap_tool info FILE\n"
               "       zvmap_tool generate COLS ROWS SEED OUT\n"
               "       zvmap_tool verify FILE\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace zorvane::tools::zvmap;
  if (argc < 2) return usage();
  const std::string command = argv[1];
  if (command == "info" && argc == 3) return infoCommand(argv[2]);
  if (command == "generate" && argc == 6) return generateCommand(argv[2], argv[3], argv[4], argv[5]);
  if (command == "verify" && argc == 3) return verifyCommand(argv[2]);
  return usage();
}
