#include "common/console.h"

#include <iostream>

namespace zorvane {
namespace common {

void printColouredLine(const char* colour, const std::string& text) {
  std::cout << colour << text << kColourReset << std::endl;
}

}  // namespace common
}  // namespace zorvane
