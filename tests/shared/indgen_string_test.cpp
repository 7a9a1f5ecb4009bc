#include "indgen_string.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "captured_run.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"

namespace kelvane {
namespace {

// Takes a string over: its text, or "(null)".
std::string taken(char* made) {
  const gen_ptr<char> owner(made);
  return made == nullptr ? "(null)" : made;
}

// A string as the f family takes it: from the platform's malloc.
char* platform_string(const char* text) {
  return ::strdup(text);
}

// The characters from -128 to 255 for which a test gives something other than 0.
template <typename Test>
std::vector<int32_t> accepted(Test test) {
  std::vector<int32_t> characters;
  for (int32_t c = -128; c < 256; ++c) {
    if (test(c)) {
      characters.push_back(c);
    }
  }
  return characters;
}

std::vector<int32_t> codes(std::string_view text) {
  return {text.begin(), text.end()};
}

TEST(CharacterTests, AcceptTheirSetsAndNothingElse) {
  const std::string digits = "0123456789";
  const std::string uppers = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  const std::string lowers = "abcdefghijklmnopqrstuvwxyz";
  EXPECT_EQ(accepted(gen_isspace), codes("\t\n\f\r "));
  EXPECT_EQ(accepted(gen_isblank), codes("\t "));
  EXPECT_EQ(accepted(gen_isupper), codes(uppers));
  EXPECT_EQ(accepted(gen_isalnum), codes(digits + uppers + lowers));
  EXPECT_EQ(accepted(gen_is_whitespace), codes("\t\n "));
  EXPECT_EQ(accepted(gen_is_arith), codes("!&*+-/:<=>|"));
  EXPECT_EQ(gen_is_arith('='), 9);
  EXPECT_EQ(gen_is_whitespace('\n'), 2);
  EXPECT_EQ(accepted(gen_is_separator), codes("/"));

  for (const int32_t c : std::vector<int32_t>{'a', 'Z', '0', '$', 0x80, 0xFF, -1}) {
    EXPECT_TRUE(gen_is_alphanum(c)) << c;
  }
  for (const int32_t c : std::vector<int32_t>{'_', '-', ' ', 0, 127}) {
    EXPECT_FALSE(gen_is_alphanum(c)) << c;
  }
  for (const int32_t c : std::vector<int32_t>{';', 32, 0, -5, 127, 128, 255}) {
    EXPECT_TRUE(gen_isbreak(c)) << c;
  }
  for (const int32_t c : std::vector<int32_t>{33, 126, ':', 'a'}) {
    EXPECT_FALSE(gen_isbreak(c)) << c;
  }
}

TEST(CharacterTests, OfBytesLookAtTheLowEightBitsOnly) {
  EXPECT_EQ(gen_is_whitespace(0x100 + ' '), 2);
  EXPECT_TRUE(gen_is_separator(0x100 + '/'));
  EXPECT_TRUE(gen_is_alphanum(0x100 + 'a'));
  EXPECT_EQ(gen_is_arith(0x100 + '='), 0);
  EXPECT_FALSE(gen_isspace(0x100 + ' '));
}

TEST(BlankString, HoldsBlanksAndTabsOnly) {
  EXPECT_TRUE(gen_isblankstring(""));
  EXPECT_TRUE(gen_isblankstring(" \t "));
  EXPECT_FALSE(gen_isblankstring(" \n"));
  EXPECT_FALSE(gen_isblankstring(nullptr));
}

TEST(StringEquality, FoldsCaseAndKnowsNull) {
  EXPECT_TRUE(gen_strequal("ABC", "abc"));
  EXPECT_FALSE(gen_strequal("abc", "abcd"));
  EXPECT_FALSE(gen_strequal("[", "{")) << "letters only";
  EXPECT_TRUE(gen_strequal(nullptr, nullptr));
  EXPECT_FALSE(gen_strequal(nullptr, ""));
  EXPECT_FALSE(gen_strequal("", nullptr));
}

TEST(StringEquality, OfBeginningsEndsWithTheCount) {
  EXPECT_TRUE(gen_strnequal("abcX", "ABCY", 3));
  EXPECT_FALSE(gen_strnequal("abcX", "ABCY", 4));
  EXPECT_TRUE(gen_strnequal("ab", "AB", 9));
  EXPECT_FALSE(gen_strnequal("ab", "abc", 3));
  EXPECT_TRUE(gen_strnequal("a", "b", 0));
  EXPECT_TRUE(gen_strnequal(nullptr, nullptr, 1));
  EXPECT_FALSE(gen_strnequal(nullptr, "", 0));
}

TEST(StringOrder, ComparesFoldedSignedBytesAndPutsTheShorterFirst) {
  EXPECT_EQ(gen_stricmp("abc", "ABC"), 0);
  EXPECT_EQ(gen_stricmp("a", "B"), -1);
  EXPECT_EQ(gen_stricmp("B", "a"), 1);
  EXPECT_EQ(gen_stricmp("_", "A"), -1) << "A counts as a, behind _";
  EXPECT_EQ(gen_stricmp("\x80", "a"), -1);
  EXPECT_EQ(gen_stricmp("a", "\xff"), 1);
  EXPECT_EQ(gen_stricmp("ab", "abc"), -1);
  EXPECT_EQ(gen_stricmp("ab", "ab\x80"), -1);
  EXPECT_EQ(gen_stricmp("ab\x80", "ab"), 1);

  EXPECT_EQ(gen_strnicmp("abX", "ABY", 2), 0);
  EXPECT_EQ(gen_strnicmp("abX", "ABY", 3), -1);
  EXPECT_EQ(gen_strnicmp("ab", "a", 2), 1);
  EXPECT_EQ(gen_strnicmp("a", "b", 0), 0);
  EXPECT_EQ(gen_strnicmp("a", "b", -1), 0);
}

TEST(StringPrefix, BeginsTheText) {
  EXPECT_TRUE(gen_strprefix("abc", "ab"));
  EXPECT_TRUE(gen_strprefix("abc", "abc"));
  EXPECT_TRUE(gen_strprefix("", ""));
  EXPECT_FALSE(gen_strprefix("abc", "AB"));
  EXPECT_FALSE(gen_strprefix("ab", "abc"));
  EXPECT_TRUE(gen_strprefixn("abc", "abX", 2));
  EXPECT_FALSE(gen_strprefixn("abc", "abX", 3));
  EXPECT_TRUE(gen_strprefixn("abc", "ab", 9));
  EXPECT_TRUE(gen_strprefixn("abc", "X", 0));
  EXPECT_TRUE(gen_strcaseprefix("abc", "AB"));
  EXPECT_FALSE(gen_strcaseprefix("abc", "AC"));
  EXPECT_TRUE(gen_strcaseprefixn("abc", "ABX", 2));
  EXPECT_FALSE(gen_strcaseprefixn("abc", "ABX", 3));
  EXPECT_FALSE(gen_strprefixn("abc", "AB", 2));
}

TEST(StringSuffix, IsShorterThanTheText) {
  EXPECT_TRUE(gen_strsuffix("xabc", "abc"));
  EXPECT_FALSE(gen_strsuffix("abc", "abc"));
  EXPECT_FALSE(gen_strsuffix("bc", "abc"));
  EXPECT_FALSE(gen_strsuffix("xabc", "ABC"));
  EXPECT_TRUE(gen_strsuffix("a", ""));
  EXPECT_FALSE(gen_strsuffix("", ""));
}

TEST(StringPrefixAndSuffix, AreNeverNull) {
  EXPECT_FALSE(gen_strprefix(nullptr, "") || gen_strprefix("", nullptr));
  EXPECT_FALSE(gen_strprefixn(nullptr, "", 0) || gen_strprefixn("", nullptr, 0));
  EXPECT_FALSE(gen_strcaseprefix(nullptr, "") || gen_strcaseprefix("", nullptr));
  EXPECT_FALSE(gen_strcaseprefixn(nullptr, "", 0) || gen_strcaseprefixn("", nullptr, 0));
  EXPECT_FALSE(gen_strsuffix(nullptr, "") || gen_strsuffix("a", nullptr));
}

TEST(StringSearch, GivesTheFirstOrTheLastPlace) {
  const char* const text = "abcABCabc";
  EXPECT_EQ(gen_strstr(text, "BC"), text + 4);
  EXPECT_EQ(gen_strstr(text, "abc"), text);
  EXPECT_EQ(gen_strcasestr(text, "CA"), text + 2);
  EXPECT_EQ(gen_strstr2(text, "CA"), text + 2);
  EXPECT_EQ(gen_strrstr(text, "ab"), text + 6);
  EXPECT_EQ(gen_strrstr(text, text), text);
  EXPECT_EQ(gen_strrstr("aBaba", "AB"), nullptr);
  EXPECT_EQ(gen_strrcasestr(text, "CA"), text + 5);

  for (const auto search :
       {gen_strstr, gen_strcasestr, gen_strstr2, gen_strrstr, gen_strrcasestr}) {
    EXPECT_EQ(search(text, "abd"), nullptr);
    EXPECT_EQ(search("ab", "abc"), nullptr);
    EXPECT_EQ(search(nullptr, "a"), nullptr);
    EXPECT_EQ(search("a", nullptr), nullptr);
  }
}

TEST(StringSearch, FindsAnEmptyPatternByItsOwnRule) {
  const char* const text = "abc";
  EXPECT_EQ(gen_strstr(text, ""), nullptr);
  EXPECT_EQ(gen_strcasestr(text, ""), text);
  EXPECT_EQ(gen_strstr2(text, ""), text);
  EXPECT_EQ(gen_strcasestr("", ""), nullptr);
  EXPECT_EQ(gen_strrstr(text, ""), text + 3);
  EXPECT_EQ(gen_strrcasestr(text, ""), text + 3);
  EXPECT_NE(gen_strrstr("", ""), nullptr);
}

TEST(StringCopy, TakesAtMostTheCount) {
  EXPECT_EQ(taken(gen_copy("abc")), "abc");
  EXPECT_EQ(taken(gen_copy(nullptr)), "(null)");
  EXPECT_EQ(taken(gen_copyn("abc", 5)), "abc");
  EXPECT_EQ(taken(gen_copyn("abc", 2)), "ab");
  EXPECT_EQ(taken(gen_copyn("abc", 0)), "");
  EXPECT_EQ(taken(gen_copyn("abc", -1)), "(null)");
  EXPECT_EQ(taken(gen_copyn(nullptr, 1)), "(null)");
}

TEST(StringCopy, FoldsAsciiLettersOnly) {
  EXPECT_EQ(taken(gen_strlower("@AZ[az\xC4")), "@az[az\xC4");
  EXPECT_EQ(taken(gen_strupper("`az{AZ\xE4")), "`AZ{AZ\xE4");
  EXPECT_EQ(taken(gen_strlower(nullptr)), "(null)");
  EXPECT_EQ(taken(gen_strupper(nullptr)), "(null)");
}

TEST(StringChange, ReplacesTheOldValueEvenByAPartOfIt) {
  char* value = nullptr;
  gen_strchange(&value, "first value");
  EXPECT_STREQ(value, "first value");
  gen_strchange(&value, value + 6);
  EXPECT_STREQ(value, "value");
  const char* const unchanged = value;
  gen_strchange(&value, value);
  EXPECT_EQ(value, unchanged);
  gen_strchangen(&value, value, 3);
  EXPECT_STREQ(value, "val");
  gen_strchangen(&value, "x", -1);
  EXPECT_EQ(value, nullptr);
}

TEST(StringConcatenation, KnowsNullAndEmpty) {
  EXPECT_EQ(taken(gen_concat("a", "b")), "ab");
  EXPECT_EQ(taken(gen_concat("a", nullptr)), "a");
  EXPECT_EQ(taken(gen_concat(nullptr, "b")), "b");
  EXPECT_EQ(taken(gen_concat(nullptr, "")), "");
  EXPECT_EQ(taken(gen_concat(nullptr, nullptr)), "(null)");
  const char* const x = "x";
  const gen_ptr<char> copy(gen_concat("", x));
  EXPECT_STREQ(copy.get(), "x");
  EXPECT_NE(copy.get(), x);

  EXPECT_EQ(taken(gen_concatn("ab", "cde", 2)), "abcd");
  EXPECT_EQ(taken(gen_concatn("ab", "c", 5)), "abc");
  EXPECT_EQ(taken(gen_concatn("ab", "cde", -1)), "ab");
  EXPECT_EQ(taken(gen_concatn("ab", nullptr, 2)), "ab");
  EXPECT_EQ(taken(gen_concatn("", "cde", 2)), "cd");
  EXPECT_EQ(taken(gen_concatn(nullptr, "cde", -1)), "(null)");

  EXPECT_EQ(taken(gen_concat3("a", "b", "c")), "abc");
  EXPECT_EQ(taken(gen_concat3(nullptr, nullptr, "c")), "c");
  EXPECT_EQ(taken(gen_concat3(nullptr, nullptr, nullptr)), "(null)");

  EXPECT_EQ(taken(gen_concat_sep("a", '/', "b")), "a/b");
  EXPECT_EQ(taken(gen_concat_sep("", '/', "")), "/");
  EXPECT_EQ(taken(gen_concat_sep("a", '\0', "b")), "ab");
  EXPECT_EQ(taken(gen_concat_sep("a", '/', nullptr)), "a");
  EXPECT_EQ(taken(gen_concat_sep(nullptr, '/', "b")), "b");
  EXPECT_EQ(taken(gen_concat_sep(nullptr, '/', nullptr)), "(null)");

  EXPECT_EQ(taken(gen_concat_int("a", INT32_MIN)), "a-2147483648");
  EXPECT_EQ(taken(gen_concat_int(nullptr, 7)), "7");
}

TEST(StringConcatenation, OfFourAndMoreIsNeverNull) {
  EXPECT_EQ(taken(gen_concat4(nullptr, nullptr, nullptr, nullptr)), "");
  EXPECT_EQ(taken(gen_concat4("1", nullptr, "3", "4")), "134");
  EXPECT_EQ(taken(gen_concat5("1", "2", "3", "4", "5")), "12345");
  EXPECT_EQ(taken(gen_concat6("1", "2", "3", "4", "5", "6")), "123456");
  EXPECT_EQ(taken(gen_concat7("1", "2", "3", "4", "5", "6", "7")), "1234567");
  EXPECT_EQ(taken(gen_concat8("1", "2", "3", "4", "5", "6", "7", "8")), "12345678");
  EXPECT_EQ(taken(gen_concat9("1", "2", "3", "4", "5", "6", "7", "8", "9")), "123456789");
}

// The leak check of the sanitizer build sees to it that the first argument goes.
TEST(ReleasingConcatenation, GivesTheSameAndReleasesItsFirstArgument) {
  EXPECT_EQ(taken(gen_fcopy(platform_string("x"), "a")), "a");
  EXPECT_EQ(taken(gen_fcopyn(platform_string("x"), "abc", 2)), "ab");
  EXPECT_EQ(taken(gen_fconcat(platform_string("1"), "2")), "12");
  EXPECT_EQ(taken(gen_fconcatn(platform_string("1"), "234", 2)), "123");
  EXPECT_EQ(taken(gen_fconcat3(platform_string("1"), "2", "3")), "123");
  EXPECT_EQ(taken(gen_fconcat_sep(platform_string("1"), ',', "2")), "1,2");
  EXPECT_EQ(taken(gen_fconcat4(platform_string("1"), "2", "3", "4")), "1234");
  EXPECT_EQ(taken(gen_fconcat5(platform_string("1"), "2", "3", "4", "5")), "12345");
  EXPECT_EQ(taken(gen_fconcat6(platform_string("1"), "2", "3", "4", "5", "6")), "123456");
  EXPECT_EQ(taken(gen_fconcat7(platform_string("1"), "2", "3", "4", "5", "6", "7")), "1234567");
  EXPECT_EQ(taken(gen_fconcat8(platform_string("1"), "2", "3", "4", "5", "6", "7", "8")),
            "12345678");
  EXPECT_EQ(taken(gen_fconcat9(platform_string("1"), "2", "3", "4", "5", "6", "7", "8", "9")),
            "123456789");
  EXPECT_EQ(taken(gen_fconcat_int(platform_string("1"), 23)), "123");
}

TEST(ReleasingConcatenation, TakesNullAndPartsOfItsFirstArgument) {
  EXPECT_EQ(taken(gen_fcopy(nullptr, "a")), "a");
  EXPECT_EQ(taken(gen_fconcat(nullptr, nullptr)), "(null)");
  char* const text = platform_string("abc");
  EXPECT_EQ(taken(gen_fconcat(text, text + 1)), "abcbc");
}

TEST(ReleasingConcatenation, GoesPastTheReplaceableFree) {
  void (*const real_free)(void*) = gen_free;
  static int32_t calls;
  calls = 0;
  gen_free = [](void*) { ++calls; };
  char* value = platform_string("old");
  gen_strchange(&value, "new");
  value = gen_fconcat(value, "er");
  gen_free = real_free;
  EXPECT_EQ(taken(value), "newer");
  EXPECT_EQ(calls, 0);
}

TEST(ReleasingConcatenation, ReleasesItsFirstArgumentWhenMemoryIsExhausted) {
  void* (*const real_alloc)(uint32_t, uint32_t) = gen_alloc;
  gen_alloc = [](uint32_t, uint32_t size) -> void* { gen_out_of_memory(size); };
  const CapturedRun run = capture([] { gen_fconcat(platform_string("a"), "b"); });
  gen_alloc = real_alloc;
  EXPECT_EQ(run.status, kStatusOutOfMemory);
}

TEST(StringArray, GrowsByCopiesAndIsReleasedWhole) {
  char** array = reinterpret_cast<char**>(&array);
  uint32_t count = 5;
  gen_strarray_init(&array, &count);
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(count, 0U);
  gen_strarray_add_str(&array, &count, "one");
  gen_strarray_add_strn(&array, &count, "two and more", 3);
  gen_strarray_add_str(&array, &count, nullptr);
  ASSERT_EQ(count, 3U);
  EXPECT_STREQ(array[0], "one");
  EXPECT_STREQ(array[1], "two");
  EXPECT_EQ(array[2], nullptr);
  gen_strarray_free(&array, &count);
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(count, 0U);
  count = 5;
  gen_strarray_free(&array, &count);
  EXPECT_EQ(count, 5U) << "a null array is left alone";
}

std::vector<std::string> tokens(std::string text, const char* delimiters) {
  std::vector<std::string> found;
  char* rest = text.data();
  while (const char* const token = gen_strtok_r(rest, delimiters, &rest)) {
    found.emplace_back(token);
  }
  EXPECT_EQ(rest, nullptr);
  return found;
}

TEST(Splitting, GivesTheSameTokensForSetsOfEverySize) {
  const std::vector<std::string> expected = {"a", "bc", "d"};
  EXPECT_EQ(tokens(",,a,bc,d", ","), expected);
  EXPECT_EQ(tokens(",;a;bc,;d", ",;"), expected);
  EXPECT_EQ(tokens(".a;bc,.;d,", ",;."), expected);
  EXPECT_EQ(tokens(",,,", ","), std::vector<std::string>{});
  EXPECT_EQ(tokens("", ",;."), std::vector<std::string>{});
}

TEST(Splitting, StoresThePlaceBehindTheDelimiter) {
  std::string text = "a,,b";
  char* rest = nullptr;
  EXPECT_STREQ(gen_strtok_r(text.data(), ",", &rest), "a");
  EXPECT_EQ(rest, text.data() + 2);
  EXPECT_STREQ(gen_strtok_r(rest, ",", nullptr), "b");
  char* const before = rest;
  EXPECT_EQ(gen_strtok_r(nullptr, ",", &rest), nullptr);
  EXPECT_EQ(rest, before);
}

TEST(Numbers, AreReadAsThePlatformReadsThem) {
  const char* const text = "0x1Fz";
  char* end = nullptr;
  EXPECT_EQ(gen_strtoul(text, &end, 0), 31U);
  EXPECT_EQ(end, text + 4);
  EXPECT_EQ(gen_strtoul("77", nullptr, 8), 63U);
}

TEST(CharacterClass, FollowsFromTheNeighbours) {
  struct Case {
    char previous, current, next;
    int32_t expected;
  };
  // clang-format off
  constexpr Case kCases[] = {
    {'\\', '\0', 'a', 0},  {'a', '\\', 'b', 8},  {'\\', 'a', 'b', 8},
    {' ', 'a', ' ', 1},    {' ', '\x80', ' ', 1}, {' ', '$', ' ', 1},
    {'a', '\n', 'b', 2},   {' ', '-', '1', 1},   {' ', '-', ' ', 9},    {'a', '-', '1', 9},
    {' ', '/', '*', 10},   {'*', '/', ' ', 10},  {' ', '/', '/', 10},   {'a', '/', 'b', 13},
    {'/', '*', ' ', 10},   {' ', '*', '/', 10},  {'*', '*', '*', 13},   {'(', '*', ')', 13},
    {'n', '\'', 't', 1},   {' ', '\'', 't', 13}, {'n', '\'', ' ', 13},  {'(', '_', ' ', 1},
    {'(', ';', ' ', 3},    {'(', ',', ' ', 4},
    {'a', '(', ')', 12},   {'(', ')', 'a', 12},  {'a', '(', 'b', 5},    {'(', '.', 'b', 5},
    {'a', '{', '}', 12},   {'{', '}', 'a', 12},  {'a', '{', 'b', 6},    {'{', '.', 'b', 6},
    {'a', '[', ']', 12},   {'[', ']', 'a', 12},  {'a', '[', 'b', 7},    {'[', '.', 'b', 7},
    {'{', '(', 'b', 5},    {'(', '{', '}', 5},   {'a', ')', 'b', 13},   {'a', '.', 'b', 13},
  };
  // clang-format on
  for (const Case& c : kCases) {
    EXPECT_EQ(gen_new_char_type(c.previous, c.current, c.next), c.expected)
        << int{c.previous} << ' ' << int{c.current} << ' ' << int{c.next};
  }
}

TEST(CharacterClass, WithoutNeighboursTellsWordsAndWhiteSpace) {
  for (const int32_t c : std::vector<int32_t>{'a', 'Z', '9', '_', '$', 0x80, -1}) {
    EXPECT_EQ(gen_char_type(c), 0) << c;
  }
  for (const int32_t c : codes("\t\n ")) {
    EXPECT_EQ(gen_char_type(c), 2) << c;
  }
  EXPECT_EQ(gen_char_type('\0'), -1);
  EXPECT_EQ(gen_char_type('-'), 3);
  EXPECT_EQ(gen_char_type('\r'), 3);
}

// Where the scan of `text` finds its `>`, counted from 0, or -1; with the depths it starts from and
// is expected to leave.
void expect_close_angle(const char* text, int32_t angles, int32_t parens, ptrdiff_t expected,
                        int32_t angles_left, int32_t parens_left) {
  const char* const found = gen_find_close_angle(text, &angles, &parens);
  EXPECT_EQ(found == nullptr ? -1 : found - text, expected) << text;
  EXPECT_EQ(angles, angles_left) << text;
  EXPECT_EQ(parens, parens_left) << text;
}

TEST(CloseAngle, IsFoundAtTheDepthOfTheStart) {
  expect_close_angle("A<B>, C>", 0, 0, 3, 0, 0);
  expect_close_angle("A<B>, C>", 1, 0, 7, 0, 0);
  expect_close_angle("std::f<int (*)(a_1&), b*> >", 1, 0, 26, 0, 0);
  expect_close_angle(">", 0, 0, 0, 0, 0);
  EXPECT_STREQ(gen_find_close_angle("<a>b", nullptr, nullptr), ">b");
}

TEST(CloseAngle, LeavesTheDepthsForTheNextLine) {
  expect_close_angle("A<B, f(", 1, 0, -1, 2, 1);
  expect_close_angle("c)>, D>", 2, 1, 6, 0, 0);
  expect_close_angle("a>)", 1, 1, -1, 0, 1);
}

TEST(CloseAngle, IsNotLookedForBehindWhatCannotStandInAList) {
  for (const char* const text : {"a;>", "a:b>", "a && b>", "a)>", "a.b>", "\xE4>", "a"}) {
    expect_close_angle(text, 1, 0, -1, 1, 0);
  }
  expect_close_angle(nullptr, 1, 2, -1, 1, 2);
}

TEST(StringHash, HasKnownValues) {
  EXPECT_EQ(gen_hcomp("abc", 3), 0x5ba5a69eU);
  EXPECT_EQ(gen_hcomp("", 0), 0U);
  EXPECT_EQ(gen_hcomp("abcdefghi", 9), 0x568a2fc4U);
  EXPECT_EQ(gen_hcomp("abcdefghij", 10), 0x0a644d43U);
  EXPECT_EQ(gen_hcomp("a\x80\xff", 3), 0x6be6e98fU);
}

TEST(StringHash, OfLongTextsLooksAtNineBytes) {
  const std::string text = "abcdefghijkl";
  for (size_t changed = 0; changed < text.size(); ++changed) {
    std::string other = text;
    other[changed] = 'X';
    const bool skipped = changed == 3 || changed == 4 || changed == 8;
    EXPECT_EQ(gen_hcomp(other.data(), 12) == gen_hcomp(text.data(), 12), skipped) << changed;
  }
}

}  // namespace
}  // namespace kelvane
