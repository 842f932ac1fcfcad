// Base of the configurable components: a name, an initialised flag and the
// one way components read their parameters from a YAML section.
#ifndef ZORVANE_COMMON_COMMON_BASE_H_
#define ZORVANE_COMMON_COMMON_BASE_H_

#include <iostream>
#include <string>

#include <yaml-cpp/yaml.h>

#include "common/console.h"

namespace zorvane {
namespace common {

class CommonBase {
 public:
  CommonBase() = default;
  virtual ~CommonBase() = default;

  // The flag as stored. Nothing in this library sets it; a derived component
  // that has a notion of "ready" assigns initialized_ itself.
  virtual bool isInitialized() { return initialized_; }

  // A copy of the component name. Parameter warnings name the component
  // through this call, so an override renames them too.
  virtual std::string name() { return name_; }

  // Reads the scalar stored under `key` in the mapping `node` into `value`
  // and returns true. When the key is absent, empty or null, `value` is left
  // as it was, one yellow warning line naming the component and the key is
  // printed on standard output, and the result is false; the caller decides
  // whether that is fatal.
  //
  // Nothing is caught. yaml-cpp's own exceptions leave this call with
  // `value` untouched:
  //   YAML::InvalidNode    `node` is invalid (e.g. an earlier lookup of an
  //                        absent key);
  //   YAML::BadSubscript   `node` is a scalar;
  //   YAML::TypedBadConversion<T>  the value is not convertible to T (for
  //                        std::string: a sequence or a mapping).
  // A null, undefined or sequence `node` holds no keys: every key warns.
  //
  // The key is looked up three times on purpose (defined? null? convert),
  // each through the const subscript, which never inserts into `node`.
  template <typename T>
  bool yamlRead(const YAML::Node& node, const std::string& key, T& value) {
    if (!node[key].IsDefined() || node[key].IsNull()) {
      // The key stands out uncoloured between the two yellow parts.
      std::cout << kYellow << name() << " : Not set " << kColourReset << key << kYellow
                << " value !!!" << kColourReset << kColourReset << std::endl;
      return false;
    }
    value = node[key].template as<T>();
    return true;
  }

 protected:
  bool initialized_ = false;
  std::string name_ = "zv_common_default";
};

}  // namespace common
}  // namespace zorvane

#endif  // ZORVANE_COMMON_COMMON_BASE_H_
