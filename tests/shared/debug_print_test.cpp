#include "debug_print.h"

#include <gtest/gtest.h>

#include <string>

#include "captured_run.h"
#include "reset_state.h"

namespace kelvane {
namespace {

class DebugPrint : public testing::Test {
 protected:
  ~DebugPrint() override { reset_all_state(); }
};

TEST_F(DebugPrint, SpeaksFromItsLevelOn) {
  EXPECT_EQ(capture([] { EXPECT_EQ(dprintf(1, "hidden"), 0); }).errors, "");
  EXPECT_EQ(capture([] { EXPECT_EQ(dprintf(0, "x=%d", 12), 4); }).errors, "x=12\n");
  debug_level = 2;
  EXPECT_EQ(capture([] { EXPECT_EQ(dprintf(2, "at"), 2); }).errors, "at\n");
  EXPECT_EQ(capture([] { EXPECT_EQ(dprintf(3, "above"), 0); }).errors, "");
  debug_level = -1;
  EXPECT_EQ(capture([] { EXPECT_EQ(dprintf(0, "never"), 0); }).errors, "");
}

TEST_F(DebugPrint, EndsALineThatTheFormatLeavesOpen) {
  EXPECT_EQ(capture([] { EXPECT_EQ(dprintf(0, "whole\n"), 6); }).errors, "whole\n");
  // The format decides, not the text.
  EXPECT_EQ(capture([] { EXPECT_EQ(dprintf(0, "%s", "text\n"), 5); }).errors, "text\n\n");
  const std::string nothing;
  EXPECT_EQ(capture([&] { EXPECT_EQ(dprintf(0, nothing.c_str(), 0), 0); }).errors, "\n");
}

TEST_F(DebugPrint, ShowsAnAddressAsThePlatformShowsAPointer) {
  EXPECT_EQ(capture([] { dprintf(0, "%p", address_for_print(0xFFFF0004U)); }).errors,
            "0xffff0004\n");
  EXPECT_EQ(capture([] { dprintf(0, "%p", address_for_print(0)); }).errors, "(nil)\n");
}

}  // namespace
}  // namespace kelvane
