#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "changed_surroundings.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "owners.h"
#include "scenario.h"

namespace kelvane {
namespace {

class TextReading : public testing::Test {
 protected:
  using Reader = char* (*)(std::FILE*, char**, int32_t*);

  // All that `reader` gives for a file with `contents`, each behind a `>`.
  std::string read_all(Reader reader, const std::string& contents) {
    const file_ptr stream(std::fopen(root_.write("contents", contents).c_str(), "r"));
    char* buffer = nullptr;
    capacity_ = 0;
    std::string pieces;
    while (const char* const piece = reader(stream.get(), &buffer, &capacity_)) {
      EXPECT_EQ(piece, buffer);
      pieces += ">" + std::string(piece);
    }
    gen_free(buffer);
    return pieces;
  }

  TemporaryDirectory root_;
  ChangedDirectory here_{root_.name()};
  int32_t capacity_ = 0;
};

// The words of a file, and the count that comes with them.
std::string list_of_words(const char* name, const char* separator) {
  int32_t count = -7;
  const gen_ptr<char*> list(gen_get_words_from_file(name, &count));
  std::string words;
  int32_t index = 0;
  for (; list && list.get()[index] != nullptr; ++index) {
    words += separator + taken(list.get()[index]);
  }
  EXPECT_EQ(count, index);
  gen_ptr<char*> uncounted(gen_get_words_from_file(name, nullptr));
  EXPECT_EQ(uncounted == nullptr, list == nullptr);
  for (char** word = uncounted.get(); word != nullptr && *word != nullptr; ++word) {
    gen_free(*word);
  }
  return (list ? std::to_string(count) : kNullText) + words;
}

TEST_F(TextReading, GivesWhatTheTableTells) {
  using Text = const char*;
  // clang-format off
  go_through(KELVANE_TABLES "indgen_file_read.table", root_, {
      KELVANE_OPERATION(gen_count_lines_in_file), KELVANE_OPERATION(gen_getsinglelineasciifile),
      {"lines", [this](const std::string& text) { return read_all(gen_getline, text); }},
      {"tokens", [this](const std::string& text) { return read_all(gen_gettoken, text); }},
      {"words", [this](const std::string& text) { return list_of_words(root_.write("contents", text).c_str(), ">"); }},
      {"word_list", [](Text name) { return list_of_words(name, ">"); }},
      {"count", [this](const std::string& text) { return gen_count_lines_in_file(root_.write("contents", text).c_str()); }},
      {"append", [](Text name, int32_t number) { return gen_append_to_file(name, "%d lines\n", number); }},
      {"gen_getfile", [](Text name, size_t length) {
        std::array<char, 9> bytes{};
        const ssize_t read = gen_getfile(name, bytes.data(), length);
        return std::to_string(read) + ":" + bytes.data();
      }},
      {"whole", [](Text name) {
        char* buffer = nullptr;
        int32_t size = -7;
        if (gen_readfile_into_buffer(name, &buffer, &size) != 0) {
          return std::string(kNullText);
        }
        const platform_ptr owned(buffer);
        char* again = nullptr;
        EXPECT_EQ(gen_readfile_into_buffer(name, &again, nullptr), 0);
        const platform_ptr owned_again(again);
        return std::string(buffer, static_cast<size_t>(size));
      }},
  });
  // clang-format on
}

TEST_F(TextReading, TakesAnyNumberOfLinesAndWords) {
  std::string many;
  for (int number = 0; number < 200; ++number) {
    many += std::to_string(number) + "\r\n";
  }
  const std::string words = list_of_words(root_.write("words", many).c_str(), " ");
  EXPECT_EQ(words.substr(0, 10), "200 0 1 2 ");
  EXPECT_EQ(words.substr(words.size() - 4), " 199");
  EXPECT_EQ(gen_count_lines_in_file(root_.write("lines", std::string(70000, '\n') + "x").c_str()),
            70001);
}

TEST_F(TextReading, ALineBufferGrowsBy250BytesAndKeepsRoomForTheTerminator) {
  const struct {
    size_t length;
    int32_t capacity;
  } rows[] = {{0, 250}, {249, 250}, {250, 500}, {1000, 1250}};
  for (const auto& row : rows) {
    const std::string line(row.length, 'x');
    EXPECT_EQ(read_all(gen_getline, line + "\n"), ">" + line);
    EXPECT_EQ(capacity_, row.capacity);
    if (row.length > 0) {
      EXPECT_EQ(read_all(gen_gettoken, line), ">" + line);
      EXPECT_EQ(capacity_, row.capacity);
    }
  }
}

TEST_F(TextReading, TokensTakeTheSpaceBehindThem) {
  const file_ptr stream(std::fopen(root_.write("text", "a bc").c_str(), "r"));
  char* buffer = nullptr;
  int32_t size = 0;
  gen_gettoken(stream.get(), &buffer, &size);
  EXPECT_EQ(std::getc(stream.get()), 'b');  // the space is read too
  gen_free(buffer);
}

TEST_F(TextReading, FreshLinesKeepTheirNewlineHoweverLong) {
  EXPECT_EQ(gen_afgets(nullptr), nullptr);
  // The first room is 2048 bytes with the terminator, the next 4096.
  for (const size_t length : {0U, 1U, 2045U, 2046U, 2047U, 2048U, 4094U, 4095U, 100000U}) {
    const std::string line(length, 'x');
    const file_ptr stream(std::fopen(root_.write("text", line + "\n" + line).c_str(), "r"));
    EXPECT_EQ(gen_ptr<char>(gen_afgets(stream.get())).get(), line + "\n");
    EXPECT_EQ(gen_ptr<char>(gen_afgets(stream.get())).get(), line);
    EXPECT_STREQ(gen_ptr<char>(gen_afgets(stream.get())).get(), "");
  }
}

}  // namespace
}  // namespace kelvane
