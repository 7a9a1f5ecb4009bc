#include "indgen_quote.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "indgen_memory.h"

namespace kelvane {
namespace {

using conversion = char* (*)(const char*);

// The result of a conversion, released.
std::string converted(conversion convert, const std::string& text) {
  const gen_ptr<char> result(convert(text.c_str()));
  return result == nullptr ? "(null)" : result.get();
}

struct Decoded {
  const char* text;
  int value;
  size_t used;
};

TEST(UnescapeOneChar, DecodesEachKindOfEscapeAndMovesBehindIt) {
  const std::vector<Decoded> cases = {
      {"ab", 'a', 1},     {"\\ab", 7, 2},    {"\\bb", 8, 2},      {"\\fb", 12, 2},
      {"\\nb", 10, 2},    {"\\rb", 13, 2},   {"\\tb", 9, 2},      {"\\vb", 11, 2},
      {"\\\\b", '\\', 2}, {"\\'b", '\'', 2}, {"\\\"b", '"', 2},   {"\\?b", '?', 2},
      {"\\qb", 'q', 2},   {"\\4b", '4', 2},  {"\\7b", '7', 2},    {"\\101", 'A', 4},
      {"\\0z", 0, 2},     {"\\18", 1, 2},    {"\\1234", 0123, 4}, {"\\377", -1, 4},
      {"\\400", '4', 2},  {"\\x41", 'A', 4}, {"\\xz", 0, 2},      {"\\xG1", 0, 2},
      {"\\x4g", 4, 3},    {"\\xfF1", -1, 4}, {"\\Xff", 'X', 2},   {"\xe4", -28, 1},
      {"\\x", 0, 2}};
  for (const Decoded& expected : cases) {
    const char* position = expected.text;
    EXPECT_EQ(gen_unescape_one_char(&position), expected.value) << expected.text;
    EXPECT_EQ(static_cast<size_t>(position - expected.text), expected.used) << expected.text;
  }
}

TEST(UnescapeOneChar, NeverMovesBehindTheTerminator) {
  const std::string backslash = "\\";
  const char* position = backslash.c_str();
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(gen_unescape_one_char(&position), 0);
    EXPECT_EQ(position, backslash.c_str() + 1);
  }
}

TEST(Quotify, EscapesBackslashesAndBothQuotesInsideEitherKind) {
  EXPECT_EQ(converted(gen_quotify_string, R"(a"b)"), R"("a\"b")");
  EXPECT_EQ(converted(gen_quotify_string, R"(\'")"), R"("\\\'\"")");
  EXPECT_EQ(converted(gen_single_quotify_string, R"(\'")"), R"('\\\'\"')");
  EXPECT_EQ(converted(gen_quotify_string, ""), R"("")");
  EXPECT_EQ(converted(gen_quotify_string, "a\tb\n"), "\"a\tb\n\"");
}

TEST(Escapify, EscapesSomeControlCharactersAndAddsNoQuotes) {
  EXPECT_EQ(converted(gen_escapify_string, "\n\r\t\x01\x02\x03"), R"(\n\r\t\1\2\3)");
  EXPECT_EQ(converted(gen_escapify_string, "\x04\a\v\x7f\xff"), "\x04\a\v\x7f\xff");
  EXPECT_EQ(converted(gen_escapify_string, R"(a"b'\)"), R"(a\"b\'\\)");
  EXPECT_EQ(converted(gen_escapify_string, ""), "");
}

TEST(Dequotify, DropsEveryQuoteOfItsKindThatIsNotPartOfAnEscape) {
  EXPECT_EQ(converted(gen_dequotify_string, R"("a'b"c\"d\x41")"), "a'bc\"dA");
  EXPECT_EQ(converted(gen_dequotify_string, R"('a"b'c\'d')"), "a\"bc'd");
  EXPECT_EQ(converted(gen_dequotify_string, R"(a"b'\t)"), "a\"b'\t");
  EXPECT_EQ(converted(gen_single_dequotify_string, R"(a'b"c'\')"), "ab\"c'");
  EXPECT_EQ(converted(gen_double_dequotify_string, R"(a'b"c"\")"), "a'bc\"");
  EXPECT_EQ(converted(gen_unescapify_string, R"("a\101'\n)"), "\"aA'\n");
  EXPECT_EQ(converted(gen_dequotify_string, ""), "");
}

TEST(Dequotify, EndsAtANulThatAnEscapeGives) {
  EXPECT_EQ(converted(gen_unescapify_string, R"(ab\0cd)"), "ab");
  EXPECT_EQ(converted(gen_unescapify_string, R"(ab\xcd)"), "ab\xcd");
  EXPECT_EQ(converted(gen_unescapify_string, R"(ab\xyz)"), "ab");
  EXPECT_EQ(converted(gen_unescapify_string, R"(ab\)"), "ab");
}

TEST(Unquotify, CopiesEscapesWhenItIsNotToDecodeThem) {
  const gen_ptr<char> result(xunquotify_string(R"("a\"\x41")", '"', 0));
  EXPECT_STREQ(result.get(), R"(a\\x41)");
}

TEST(QuotingFamily, GivesNullForNull) {
  for (const conversion convert :
       {gen_quotify_string, gen_single_quotify_string, gen_escapify_string, gen_dequotify_string,
        gen_single_dequotify_string, gen_double_dequotify_string, gen_unescapify_string,
        gen_shellescapify_filename, gen_unshellescapify_filename}) {
    EXPECT_EQ(convert(nullptr), nullptr);
  }
}

TEST(ShellFileNames, AreQuotedOnlyWhereABlankOrADoubleQuoteAsksForIt) {
  EXPECT_EQ(converted(gen_shellescapify_filename, "plain"), "plain");
  EXPECT_EQ(converted(gen_shellescapify_filename, "two words"), "'two words'");
  EXPECT_EQ(converted(gen_shellescapify_filename, "a\"b"), "'a\"b'");
  EXPECT_EQ(converted(gen_shellescapify_filename, "a\tb'c"), "a\tb'c");
  EXPECT_EQ(converted(gen_shellescapify_filename, ""), "");
}

TEST(ShellFileNames, ComeOutOfTheirQuotes) {
  EXPECT_EQ(converted(gen_unshellescapify_filename, "'two words'"), "two words");
  EXPECT_EQ(converted(gen_unshellescapify_filename, "'no end"), "no end");
  EXPECT_EQ(converted(gen_unshellescapify_filename, "'a\\n'b'"), "a\\n'b");
  EXPECT_EQ(converted(gen_unshellescapify_filename, "'"), "");
  EXPECT_EQ(converted(gen_unshellescapify_filename, R"("a\tb")"), "a\tb");
  EXPECT_EQ(converted(gen_unshellescapify_filename, R"(a'b"\t)"), R"(a'b"\t)");
  EXPECT_EQ(converted(gen_unshellescapify_filename, ""), "");
}

TEST(BinaryToString, PutsTheLowNibbleOfEachByteFirst) {
  const std::array<uint8_t, 4> bytes = {0xab, 0x00, 0x1f, 0xff};
  EXPECT_STREQ(gen_ptr<char>(gen_binary_to_string(bytes.data(), 4)).get(), "ba00f1ff");
  EXPECT_STREQ(gen_ptr<char>(gen_binary_to_string(bytes.data(), 0)).get(), "");
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
  const auto text_of = [](char* text) {
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return std::string(text);
  };
  EXPECT_EQ(text_of(gen_msprintf("%s is %d", "it", -7)), "it is -7");
  EXPECT_EQ(text_of(gen_msprintf("%s", "")), "");
  EXPECT_EQ(text_of(gen_msprintf("%3000s", "x")), std::string(2999, ' ') + "x");
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
