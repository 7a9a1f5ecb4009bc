#include "section_filter.h"

#include <gtest/gtest.h>

#include "captured_run.h"
#include "debug_print.h"
#include "reset_state.h"

namespace kelvane {
namespace {

class SectionFilter : public testing::Test {
 protected:
  SectionFilter() { reset_all_state(); }
  ~SectionFilter() override { reset_all_state(); }
};

TEST_F(SectionFilter, KeepsCopiesOfTheExclusionsInTheirOrder) {
  EXPECT_EQ(section_exclusions, nullptr);
  std::string name = ".data";
  add_section_exclusion(name.c_str());
  name = ".text";
  add_section_exclusion(name.c_str());
  add_section_exclusion(".data");
  EXPECT_STREQ(section_exclusions[0], ".data");
  EXPECT_STREQ(section_exclusions[1], ".text");
  EXPECT_STREQ(section_exclusions[2], ".data");
  EXPECT_EQ(section_exclusions[3], nullptr);
}

TEST_F(SectionFilter, KeepsTheAliasesInTheirOrderWithAPairOfZerosBehind) {
  EXPECT_EQ(memory_aliases, nullptr);
  add_memory_alias(0x80000000, 0x20000000);
  add_memory_alias(0, 0);  // is the end itself, and adds nothing
  add_memory_alias(0, 0xFF);
  add_memory_alias(0x1000, 0);
  constexpr uint32_t kExpected[][2] = {{0x80000000, 0x20000000}, {0, 0xFF}, {0x1000, 0}, {0, 0}};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(memory_aliases[i].address, kExpected[i][0]) << i;
    EXPECT_EQ(memory_aliases[i].mask, kExpected[i][1]) << i;
  }
}

TEST_F(SectionFilter, ShowsAnAliasAtLevel2) {
  debug_level = 1;
  EXPECT_EQ(capture([] { add_memory_alias(1, 2); }).errors, "");
  debug_level = 2;
  EXPECT_EQ(capture([] { add_memory_alias(0x80000000, 0); }).errors,
            "Adding memory alias for address 0x80000000 with mask 0\n");
}

}  // namespace
}  // namespace kelvane
