// The coded exception: the "0x" text of its code, and that hosts can catch
// it through the standard hierarchy.
#include "localization/runtime_error.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using zorvane::localization::runtime_error;
using zorvane::localization::uinttostr;

TEST(RuntimeError, CodeTextIsLowerCaseHexWithoutPaddingOverTheWholeRange) {
  const std::pair<unsigned, const char*> cases[] = {
      {0, "0x0"},        {9, "0x9"},   {255, "0xff"}, {256, "0x100"}, {71683, "0x11803"},
      {0x80000000u, "0x80000000"},  // no sign, no wrap
      {4294967295u, "0xffffffff"},
  };
  for (const auto& [code, text] : cases) {
    EXPECT_EQ(uinttostr(code), text);
    try {  // caught through the standard hierarchy, carrying the code and its text
      throw runtime_error(code);
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), text);
      EXPECT_EQ(static_cast<const runtime_error&>(e).code_, code);
    }
  }
}

}  // namespace
