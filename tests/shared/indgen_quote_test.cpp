#include "indgen_quote.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

#include "operation_table.h"

namespace kelvane {
namespace {

// The character that an escape gives, and how many bytes it took.
std::string unescaped_char(const char* text) {
  const char* position = text;
  const int code = gen_unescape_one_char(&position);
  return std::to_string(code) + "/" + std::to_string(position - text);
}

TEST(Quoting, GivesWhatTheTableTells) {
  check_table(
      {KELVANE_OPERATION(unescaped_char), KELVANE_OPERATION(gen_quotify_string),
       KELVANE_OPERATION(gen_single_quotify_string), KELVANE_OPERATION(gen_escapify_string),
       KELVANE_OPERATION(gen_dequotify_string), KELVANE_OPERATION(gen_single_dequotify_string),
       KELVANE_OPERATION(gen_double_dequotify_string), KELVANE_OPERATION(gen_unescapify_string),
       KELVANE_OPERATION(xunquotify_string), KELVANE_OPERATION(gen_shellescapify_filename),
       KELVANE_OPERATION(gen_unshellescapify_filename)},
      KELVANE_TABLES "indgen_quote.table");
  const char* position = "";  // where there is nothing
  EXPECT_EQ(gen_unescape_one_char(&position), 0);
  EXPECT_EQ(*position, '\0');
}

TEST(BinaryToString, PutsTheLowNibbleOfEachByteFirst) {
  const std::array<uint8_t, 4> bytes = {0xab, 0x00, 0x1f, 0xff};
  EXPECT_EQ(taken(gen_binary_to_string(bytes.data(), 4)), "ba00f1ff");
  EXPECT_EQ(taken(gen_binary_to_string(bytes.data(), 0)), "");
}

__attribute__((format(printf, 1, 2))) int32_t length_of(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = gen_Xprintflen(format, arguments);
  va_end(arguments);
  return length;
}

TEST(FormattedText, HasALengthBeforeItIsWritten) {
  EXPECT_STREQ(gen_devnullpathname(), "/dev/null");
  EXPECT_EQ(length_of("%s-%05d", "abc", 42), 9);
  EXPECT_EQ(length_of("%100000s", ""), 100000);
  EXPECT_EQ(length_of("%s", ""), 0);
}

TEST(FormattedText, IsCutToItsBufferWithoutATerminator) {
  for (const size_t size : {0U, 1U, 3U, 4U, 5U, 8U}) {
    std::string buffer = "########";
    EXPECT_EQ(gen_snprintf(buffer.data(), size, "%s", "abc"), 3);
    std::string expected = "########";
    expected.replace(0, std::min(size, size_t{4}), std::string("abc\0", 4), 0,
                     std::min(size, size_t{4}));
    EXPECT_EQ(buffer, expected) << "size " << size;
  }
  EXPECT_EQ(gen_snprintf(nullptr, 0, "%d", 12345), 5);
  // A long text grows the spare buffer; a short one behind it still ends where it should.
  std::string buffer = "########";
  EXPECT_EQ(gen_snprintf(buffer.data(), 2, "%5000d", 1), 5000);
  EXPECT_EQ(gen_snprintf(buffer.data(), 3, "%s", "xyz"), 3);
  EXPECT_EQ(buffer, "xyz#####");
}

TEST(FormattedText, ComesInAFreshBlock) {
  EXPECT_EQ(taken(gen_msprintf("%s is %d", "it", -7)), "it is -7");
  EXPECT_EQ(taken(gen_msprintf("%s", "")), "");
  EXPECT_EQ(taken(gen_msprintf("%3000s", "x")), std::string(2999, ' ') + "x");
}

TEST(FormattedText, ThatCannotBeFormattedLeavesTheBufferAlone) {
  const std::array<wchar_t, 2> no_character = {static_cast<wchar_t>(0x7fffffff), 0};
  std::string buffer = "####";
  EXPECT_LT(gen_snprintf(buffer.data(), 4, "%ls", no_character.data()), 0);
  EXPECT_EQ(buffer, "####");
  EXPECT_EQ(gen_msprintf("%ls", no_character.data()), nullptr);
}

}  // namespace
}  // namespace kelvane
