#include "indgen_string.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "captured_run.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "operation_table.h"

namespace kelvane {
namespace {

// The characters from -128 to 255 for which a test gives something other than 0.
template <typename Test>
Operation accepted(const char* name, Test test) {
  return {name, [test](const std::string&) {
            std::string characters;
            for (int32_t c = -128; c < 256; ++c) {
              characters += !test(c)            ? ""
                            : c >= 0 && c < 128 ? std::string(1, static_cast<char>(c))
                                                : "beyond";
            }
            return characters;
          }};
}

TEST(CharacterTests, AcceptTheirSetsAndNothingElse) {
  check_table({accepted("space", gen_isspace), accepted("blank", gen_isblank),
               accepted("upper", gen_isupper), accepted("alnum", gen_isalnum),
               accepted("whitespace", gen_is_whitespace), accepted("arith", gen_is_arith),
               accepted("separator", gen_is_separator)},
              KELVANE_TABLES "indgen_string_sets.table");
}

// Where the scan finds its `>`, counted from 0, or -1, and the depths that it leaves.
std::string close_angle(const char* text, int32_t angles, int32_t parens) {
  const char* const found = gen_find_close_angle(text, &angles, &parens);
  return std::to_string(found == nullptr ? -1 : found - text) + "/" + std::to_string(angles) + "/" +
         std::to_string(parens);
}

// The tokens of a text, / between them.
std::string tokens(const std::string& given, const char* delimiters) {
  std::string text = given;
  std::string found;
  char* rest = text.data();
  while (const char* const token = gen_strtok_r(rest, delimiters, &rest)) {
    found += token + std::string("/");
  }
  EXPECT_EQ(rest, nullptr);
  return found;
}

TEST(Strings, GiveWhatTheTableTells) {
  check_table({KELVANE_OPERATION(gen_is_alphanum),    KELVANE_OPERATION(gen_isbreak),
               KELVANE_OPERATION(gen_is_whitespace),  KELVANE_OPERATION(gen_is_separator),
               KELVANE_OPERATION(gen_is_arith),       KELVANE_OPERATION(gen_isspace),
               KELVANE_OPERATION(gen_isblankstring),  KELVANE_OPERATION(gen_strequal),
               KELVANE_OPERATION(gen_strnequal),      KELVANE_OPERATION(gen_stricmp),
               KELVANE_OPERATION(gen_strnicmp),       KELVANE_OPERATION(gen_strprefix),
               KELVANE_OPERATION(gen_strprefixn),     KELVANE_OPERATION(gen_strcaseprefix),
               KELVANE_OPERATION(gen_strcaseprefixn), KELVANE_OPERATION(gen_strsuffix),
               KELVANE_OPERATION(gen_strstr),         KELVANE_OPERATION(gen_strcasestr),
               KELVANE_OPERATION(gen_strstr2),        KELVANE_OPERATION(gen_strrstr),
               KELVANE_OPERATION(gen_strrcasestr),    KELVANE_OPERATION(gen_copy),
               KELVANE_OPERATION(gen_copyn),          KELVANE_OPERATION(gen_strlower),
               KELVANE_OPERATION(gen_strupper),       KELVANE_OPERATION(gen_concat),
               KELVANE_OPERATION(gen_concatn),        KELVANE_OPERATION(gen_concat3),
               KELVANE_OPERATION(gen_concat_sep),     KELVANE_OPERATION(gen_concat_int),
               KELVANE_OPERATION(gen_concat4),        KELVANE_OPERATION(gen_concat5),
               KELVANE_OPERATION(gen_concat6),        KELVANE_OPERATION(gen_concat7),
               KELVANE_OPERATION(gen_concat8),        KELVANE_OPERATION(gen_concat9),
               KELVANE_OPERATION(gen_fcopy),          KELVANE_OPERATION(gen_fcopyn),
               KELVANE_OPERATION(gen_fconcat),        KELVANE_OPERATION(gen_fconcatn),
               KELVANE_OPERATION(gen_fconcat3),       KELVANE_OPERATION(gen_fconcat_sep),
               KELVANE_OPERATION(gen_fconcat4),       KELVANE_OPERATION(gen_fconcat5),
               KELVANE_OPERATION(gen_fconcat6),       KELVANE_OPERATION(gen_fconcat7),
               KELVANE_OPERATION(gen_fconcat8),       KELVANE_OPERATION(gen_fconcat9),
               KELVANE_OPERATION(gen_fconcat_int),    KELVANE_OPERATION(gen_new_char_type),
               KELVANE_OPERATION(gen_char_type),      KELVANE_OPERATION(close_angle),
               KELVANE_OPERATION(gen_hcomp),          KELVANE_OPERATION(tokens)},
              KELVANE_TABLES "indgen_string.table");
  EXPECT_STREQ(gen_find_close_angle("<a>b", nullptr, nullptr), ">b");
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

TEST(ReleasingConcatenation, TakesAPartOfItsFirstArgumentAndGoesPastTheReplaceableFree) {
  char* const text = ::strdup("abc");
  EXPECT_EQ(taken(gen_fconcat(text, text + 1)), "abcbc");
  void (*const real_free)(void*) = gen_free;
  static int32_t calls;
  calls = 0;
  gen_free = [](void*) { ++calls; };
  char* value = ::strdup("old");
  gen_strchange(&value, "new");
  value = gen_fconcat(value, "er");
  gen_free = real_free;
  EXPECT_EQ(taken(value), "newer");
  EXPECT_EQ(calls, 0);

  void* (*const real_alloc)(uint32_t, uint32_t) = gen_alloc;
  gen_alloc = [](uint32_t, uint32_t size) -> void* { gen_out_of_memory(size); };
  const CapturedRun run = capture([] { gen_fconcat(::strdup("a"), "b"); });
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
