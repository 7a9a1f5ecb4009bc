#include "kelmake_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

#include "printable.h"

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

const Comparison kThousandBytes = {1000, 1000, {}, {}};

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
      {100, 1000, 0, false, "2 words\nApplied in memory, it made the new file.\n"},
      {100, 1000, 101, false, "2 words\nApplied in memory, it made the new file.\n"},
      {100, 1000, 100, false,
       "The patch is not worth it: the new file alone, compressed, takes 100 bytes.\n"},
      {899, 1000, 2000, false, "2 words\nApplied in memory, it made the new file.\n"},
      {900, 1000, 2000, false,
       "The patch is not worth it: it is nearly as large as the new file.\n"},
      {900, 1000, 10, true, "The two files are equal: the patch changes nothing.\n"},
      {50, 0, 0, false, "The new file is empty: the patch only says so.\n"},
  };
  for (const Case& each : cases) {
    const kelvane::found_plan found = found_of(each.size);
    const Comparison comparison = {1000, each.new_size, {}, {}};
    const Outcome outcome = {options, comparison, each.equal_files, each.packed_new_size, found, 1};
    EXPECT_THAT(text_of_outcome(outcome), EndsWith(each.end)) << each.size;
  }
}

TEST(KelmakeReportTest, TellsOfAFewSectionsAndOfMemory) {
  Options options;
  options.ram = true;
  Comparison comparison = {180, 180, {}, kelvane::ByteOrder::kBig};
  for (uint32_t i = 0; i < 18; ++i) {
    comparison.sections.push_back({"s" + std::to_string(i), i, 10, 16, 10});
  }
  const std::string text = text_of_comparison(options, comparison);
  EXPECT_THAT(text, HasSubstr("180 bytes in 18 sections\n"));
  EXPECT_THAT(text, HasSubstr("at 0x00000010, before: 10 bytes at 0x0000000f\n  and 2 more\n"
                              "memory mode, "));
  EXPECT_THAT(text, EndsWith(", big-endian\n"));
  const kelvane::found_plan found = found_of(162);
  EXPECT_THAT(text_of_outcome({options, comparison, false, 0, found, 1}),
              AllOf(HasSubstr("90.0 % of the new sections"),
                    EndsWith("it is nearly as large as the new sections.\n")));
}

TEST(KelmakeReportTest, TellsWhenTheTimeWasOverAndOfManyClasses) {
  const Options options;
  kelvane::found_plan found = found_of(100);
  const Outcome outcome = {options, kThousandBytes, false, 0, found, 1};
  EXPECT_THAT(text_of_outcome(outcome), Not(HasSubstr("time")));
  found.was_stopped = true;
  found.planned.classes.resize(21);
  EXPECT_THAT(text_of_outcome(outcome),
              HasSubstr("The time was over after 3 plans: another run may give another patch.\n"
                        "It has 21 classes of increments; for an applier that takes 20 at most "
                        "use '--profile any'.\n"));
  EXPECT_THAT(json_of_outcome(outcome), HasSubstr("\"stopped\": true"));
}

TEST(KelmakeReportTest, QuotesNamesInJson) {
  Options options;
  options.old_name = "a\"b\\c\n\x01";
  options.new_name = "\u00e9\U0001F600\xE9\xC0\x80\xED\xA0\x80\xF5z\xE2\x82";
  const kelvane::found_plan found = found_of(100);
  const Outcome outcome = {options, kThousandBytes, false, 0, found, 1};
  EXPECT_THAT(json_of_outcome(outcome),
              AllOf(HasSubstr(R"({"name": "a\"b\\c\u000a\u0001", "size": 1000})"),
                    HasSubstr("\"\u00e9\U0001F600\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd"
                              "\\ufffdz\\ufffd\\ufffd\""),
                    HasSubstr(R"("increments": {"bytes": 100, "count": 2})")));
}

TEST(KelmakeReportTest, ShowsNamesWithoutControlBytes) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {".text$a b\\x", ".text$a b\\x"},
      {"\x1b[2J\n\x7f", "\\x1b[2J\\x0a\\x7f"},
      {std::string("a\0b", 3), "a\\x00b"},
      // Characters of two, three and four bytes; a control character of two.
      {"\u00e4\u20ac\U0001f600", "\u00e4\u20ac\U0001f600"},
      {"\u009b31m\u00a0", "\\xc2\\x9b31m\u00a0"},
      {"a\u202eb\u2027\u2069", "a\\xe2\\x80\\xaeb\u2027\\xe2\\x81\\xa9"},
      // A byte of no character, one that is cut off, one longer than it need be, half a pair.
      {"\x9bm\xe4", "\\x9bm\\xe4"},
      {"\xe2\x82x", "\\xe2\\x82x"},
      {"\xc0\x9b", "\\xc0\\x9b"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
  };
  for (const auto& [name, shown] : cases) {
    EXPECT_EQ(kelpatch::printable(name), shown);
  }
}

}  // namespace
}  // namespace kelmake
