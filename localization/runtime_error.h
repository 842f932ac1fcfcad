// The coded exception of the map library.
//
// It carries one numeric code and nothing else: the human-readable reason
// is printed in red on standard output by the thrower just before the
// throw. what() is the code as "0x" + lower-case hexadecimal.
#ifndef ZORVANE_LOCALIZATION_RUNTIME_ERROR_H_
#define ZORVANE_LOCALIZATION_RUNTIME_ERROR_H_

#include <cstdint>
#include <stdexcept>
#include <string>

namespace zorvane {
namespace localization {

// "0x" followed by `value` in lower-case hexadecimal, no padding:
// 0 -> "0x0", 255 -> "0xff", 4294967295 -> "0xffffffff".
std::string uinttostr(unsigned value);

class runtime_error : public std::runtime_error {
 public:
  explicit runtime_error(unsigned code);
  ~runtime_error() override;

  std::uint32_t code_;     // as given to the constructor
  std::string code_text_;  // uinttostr(code_), the same text as what()
};

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_RUNTIME_ERROR_H_
