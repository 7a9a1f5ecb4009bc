#include "kelmake_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kelmake {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// A patch of `size` bytes, all of them increments.
kelvane::found_plan found_of(uint64_t size) {
  kelvane::found_plan found;
  found.cost.increments = size;
  found.planned.words = {1, 2};
  found.planned.classes = {{4, 0, 2}};
  found.tries = 3;
  return found;
}

TEST(KelmakeReportTest, TellsWhenAPatchIsNotWorthIt) {
  const Options options;
  struct Case {
    uint64_t size;
    uint64_t new_size;
    uint64_t packed_new_size;
    bool equal_files;
    const char* end;
  };
  const Case cases[] = {
      {100, 1000, 0, false, "2 words\n"},
      {100, 1000, 101, false, "2 words\n"},
      {100, 1000, 100, false,
       "The patch is not worth it: the new file alone, compressed, takes 100 bytes.\n"},
      {899, 1000, 2000, false, "2 words\n"},
      {900, 1000, 2000, false,
       "The patch is not worth it: it is nearly as large as the new file.\n"},
      {900, 1000, 10, true, "The two files are equal: the patch changes nothing.\n"},
      {50, 0, 0, false, "The new file is empty: the patch only says so.\n"},
  };
  for (const Case& each : cases) {
    const kelvane::found_plan found = found_of(each.size);
    const Outcome outcome = {options, 1000, each.new_size, each.equal_files, each.packed_new_size,
                             found,   1};
    EXPECT_THAT(text_of_outcome(outcome), EndsWith(each.end)) << each.size;
  }
}

TEST(KelmakeReportTest, TellsWhenTheTimeWasOver) {
  const Options options;
  kelvane::found_plan found = found_of(100);
  const Outcome outcome = {options, 1000, 1000, false, 0, found, 1};
  EXPECT_THAT(text_of_outcome(outcome), Not(HasSubstr("time")));
  found.was_stopped = true;
  EXPECT_THAT(text_of_outcome(outcome),
              HasSubstr("The time was over after 3 plans: another run may give another patch.\n"));
  EXPECT_THAT(json_of_outcome(outcome), HasSubstr("\"stopped\": true"));
}

TEST(KelmakeReportTest, QuotesNamesInJson) {
  Options options;
  options.old_name = "a\"b\\c\n\x01";
  const kelvane::found_plan found = found_of(100);
  const Outcome outcome = {options, 1000, 1000, false, 0, found, 1};
  EXPECT_THAT(json_of_outcome(outcome),
              AllOf(HasSubstr(R"({"name": "a\"b\\c\u000a\u0001", "size": 1000})"),
                    HasSubstr(R"("increments": {"bytes": 100, "count": 2})")));
}

}  // namespace
}  // namespace kelmake
