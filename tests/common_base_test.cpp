// CommonBase and yamlRead: the exact warning line, the cases that count as
// "not set", and the yaml-cpp exceptions that must pass through untouched.
#include "common/common_base.h"

#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <string>

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

TEST(CommonBase, FreshComponentHasDefaultNameAndIsNotInitialised) {
  CommonBase base;
  EXPECT_EQ(base.name(), "zv_common_default");
  EXPECT_FALSE(base.isInitialized());
  NamedComponent named;
  EXPECT_EQ(named.name(), "NamedComponent");
}

TEST(CommonBaseYamlRead, PresentScalarIsReadAsParsedTextWithoutOutput) {
  const YAML::Node node = YAML::Load(
      "path: /maps/a b.gridmap\n"
      "number: 007\n"
      "flag: true\n"
      "quoted: '  padded  '\n"
      "Case: MiXeD\n");
  NamedComponent c;
  CaptureStdout();
  std::string path, number, flag, quoted, mixed;
  EXPECT_TRUE(c.yamlRead(node, "path", path));
  EXPECT_TRUE(c.yamlRead(node, "number", number));
  EXPECT_TRUE(c.yamlRead(node, "flag", flag));
  EXPECT_TRUE(c.yamlRead(node, "quoted", quoted));
  EXPECT_TRUE(c.yamlRead(node, "Case", mixed));
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(path, "/maps/a b.gridmap");
  EXPECT_EQ(number, "007");
  EXPECT_EQ(flag, "true");
  EXPECT_EQ(quoted, "  padded  ");
  EXPECT_EQ(mixed, "MiXeD");
}

TEST(CommonBaseYamlRead, AbsentEmptyOrNullWarnsOnceAndKeepsTarget) {
  const YAML::Node node = YAML::Load("empty:\ntilde: ~\nnull_word: null\nother: x\n");
  NamedComponent c;
  for (const char* key : {"missing", "empty", "tilde", "null_word", "Other"}) {
    SCOPED_TRACE(key);
    std::string value = "unchanged";
    CaptureStdout();
    EXPECT_FALSE(c.yamlRead(node, key, value));
    EXPECT_EQ(GetCapturedStdout(), warning("NamedComponent", key));
    EXPECT_EQ(value, "unchanged");
  }
}

TEST(CommonBaseYamlRead, WarningNamesTheComponentThroughVirtualName) {
  RenamedComponent c;
  std::string value;
  CaptureStdout();
  EXPECT_FALSE(c.yamlRead(YAML::Load("a: 1"), "grid_map", value));
  EXPECT_EQ(GetCapturedStdout(), warning("Renamed", "grid_map"));
}

TEST(CommonBaseYamlRead, NodesWithoutKeysWarnForEveryKey) {
  NamedComponent c;
  const YAML::Node nodes[] = {YAML::Node(), YAML::Load("~"), YAML::Load("[a, b]"),
                              YAML::Node(YAML::NodeType::Undefined)};
  for (const YAML::Node& node : nodes) {
    std::string value = "unchanged";
    CaptureStdout();
    EXPECT_FALSE(c.yamlRead(node, "type", value));
    EXPECT_EQ(GetCapturedStdout(), warning("NamedComponent", "type"));
    EXPECT_EQ(value, "unchanged");
  }
}

TEST(CommonBaseYamlRead, YamlExceptionsPassThroughWithTargetUntouched) {
  NamedComponent c;
  std::string value = "unchanged";
  const YAML::Node map = YAML::Load("list: [1, 2]\nmapping: {a: 1}\nscalar: x\n");

  CaptureStdout();
  EXPECT_THROW(c.yamlRead(map, "list", value), YAML::TypedBadConversion<std::string>);
  EXPECT_THROW(c.yamlRead(map, "mapping", value), YAML::TypedBadConversion<std::string>);
  // A scalar cannot be subscripted by a key.
  EXPECT_THROW(c.yamlRead(map["scalar"], "key", value), YAML::BadSubscript);
  // The const lookup of an absent key yields an invalid node.
  const YAML::Node invalid = map["absent"];
  EXPECT_THROW(c.yamlRead(invalid["absent"], "key", value), YAML::InvalidNode);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(value, "unchanged");
}

TEST(CommonBaseYamlRead, OtherTypesUseTheirOwnConversion) {
  NamedComponent c;
  const YAML::Node node = YAML::Load("count: 12\nratio: 0.25\nword: twelve\n");
  int count = 0;
  double ratio = 0;
  EXPECT_TRUE(c.yamlRead(node, "count", count));
  EXPECT_TRUE(c.yamlRead(node, "ratio", ratio));
  EXPECT_EQ(count, 12);
  EXPECT_EQ(ratio, 0.25);
  int untouched = 3;
  EXPECT_THROW(c.yamlRead(node, "word", untouched), YAML::TypedBadConversion<int>);
  EXPECT_EQ(untouched, 3);
}

}  // namespace
