// The coded exception: the "0x" text of its code, and that hosts can catch
// it through the standard hierarchy.
#include "localization/runtime_error.h"

#include <gtest/gtest.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace {

using zorvane::localization::runtime_error;
using zorvane::localization::uinttostr;

TEST(Uinttostr, LowerCaseHexWithoutPaddingOverTheWholeRange) {
  EXPECT_EQ(uinttostr(0), "0x0");
  EXPECT_EQ(uinttostr(9), "0x9");
  EXPECT_EQ(uinttostr(255), "0xff");
  EXPECT_EQ(uinttostr(256), "0x100");
  EXPECT_EQ(uinttostr(71683), "0x11803");
  EXPECT_EQ(uinttostr(0x7fffffffu), "0x7fffffff");
  EXPECT_EQ(uinttostr(0x80000000u), "0x80000000");  // no sign, no wrap
  EXPECT_EQ(uinttostr(4294967295u), "0xffffffff");
}

TEST(RuntimeError, CarriesTheCodeAndItsTextOnly) {
  const runtime_error config(71683);
  EXPECT_STREQ(config.what(), "0x11803");
  EXPECT_EQ(config.code_, 71683u);
  EXPECT_EQ(config.code_text_, "0x11803");

  const runtime_error load(0x11804);
  EXPECT_STREQ(load.what(), "0x11804");
  EXPECT_EQ(load.code_text_, load.what());

  const runtime_error zero(0);
  EXPECT_STREQ(zero.what(), "0x0");
  const runtime_error top(0xffffffffu);
  EXPECT_STREQ(top.what(), "0xffffffff");
  EXPECT_EQ(top.code_, 0xffffffffu);
}

TEST(RuntimeError, CaughtThroughTheStandardHierarchy) {
  try {
    throw runtime_error(0x11804);
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "0x11804");
  }
  try {
    throw runtime_error(0x11803);
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "0x11803");
  }
}

}  // namespace
