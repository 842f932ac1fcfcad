#include "localization/runtime_error.h"

#include <ios>
#include <sstream>

namespace zorvane {
namespace localization {

std::string uinttostr(unsigned value) {
  std::ostringstream out;
  out.setf(std::ios_base::hex, std::ios_base::basefield);
  out << "0x" << value;
  return out.str();
}

runtime_error::runtime_error(unsigned code)
    : std::runtime_error(uinttostr(code)), code_(code), code_text_(uinttostr(code)) {}

runtime_error::~runtime_error() = default;

}  // namespace localization
}  // namespace zorvane
