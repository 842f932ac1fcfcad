// CommonBase and yamlRead: the exact warning line, the cases that count as
// "not set", and the yaml-cpp exceptions that must pass through untouched.
#include "common/common_base.h"

#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <string>
#include <tuple>
#include <utility>

namespace {

using zorvane::common::CommonBase;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::string warning(const std::string& component, const std::string& key) {
  return "\033[33m" + component + " : Not set \033[0m" + key + "\033[33m value !!!\033[0m\033[0m\n";
}

class NamedComponent : public CommonBase {
 public:
  NamedComponent() { name_ = "NamedComponent"; }
};

// name() is virtual and the warning goes through it.
class RenamedComponent : public NamedComponent {
 public:
  std::string name() override { return "Renamed"; }
};

TEST(CommonBaseYamlRead, PresentValuesReadSilentlyAndAbsentOnesWarnOnceKeepingTheTarget) {
  const YAML::Node node = YAML::Load("path: /maps/a b.gridmap\nnumber: 007\ncount: 12\nempty:\ntilde: ~\nother: x\n");
  NamedComponent c;
  std::string path, number;
  int count = 0;
  CaptureStdout();
  EXPECT_TRUE(c.yamlRead(node, "path", path) && c.yamlRead(node, "number", number) &&
              c.yamlRead(node, "count", count));
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(std::make_tuple(path, number, count), std::make_tuple("/maps/a b.gridmap", "007", 12));

  const std::pair<YAML::Node, const char*> absent[] = {
      {node, "missing"}, {node, "empty"}, {node, "tilde"}, {node, "Other"},
      {YAML::Node(), "type"}, {YAML::Load("[a, b]"), "type"},
  };
  for (const auto& [n, key] : absent) {
    SCOPED_TRACE(key);
    std::string value = "unchanged";
    CaptureStdout();
    EXPECT_FALSE(c.yamlRead(n, key, value));
    EXPECT_EQ(GetCapturedStdout(), warning("NamedComponent", key));
    EXPECT_EQ(value, "unchanged");
  }
  std::string value;
  CaptureStdout();
  EXPECT_FALSE(RenamedComponent().yamlRead(node, "grid_map", value));
  EXPECT_EQ(GetCapturedStdout(), warning("Renamed", "grid_map"));
}

TEST(CommonBaseYamlRead, YamlExceptionsPassThroughWithTargetUntouched) {
  NamedComponent c;
  std::string value = "unchanged";
  int number = 3;
  const YAML::Node map = YAML::Load("list: [1, 2]\nmapping: {a: 1}\nscalar: x\n");
  const YAML::Node invalid = map["absent"];  // const lookup of an absent key
  CaptureStdout();
  EXPECT_THROW(c.yamlRead(map, "list", value), YAML::TypedBadConversion<std::string>);
  EXPECT_THROW(c.yamlRead(map, "mapping", value), YAML::TypedBadConversion<std::string>);
  EXPECT_THROW(c.yamlRead(map["scalar"], "key", value), YAML::BadSubscript);
  EXPECT_THROW(c.yamlRead(invalid["absent"], "key", value), YAML::InvalidNode);
  EXPECT_THROW(c.yamlRead(map, "scalar", number), YAML::TypedBadConversion<int>);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(value, "unchanged");
  EXPECT_EQ(number, 3);
}

}  // namespace
