#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "indgen_file.h"
#include "indgen_memory.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using testing::ElementsAre;

class TextReading : public testing::Test {
 protected:
  using Reader = char* (*)(std::FILE*, char**, int32_t*);

  // All that `reader` gives for a file with `contents`, and the capacity at the end.
  std::vector<std::string> read_all(Reader reader, const std::string& contents) {
    const file_ptr stream(std::fopen(root_.write("text", contents).c_str(), "r"));
    char* buffer = nullptr;
    capacity_ = 0;
    std::vector<std::string> pieces;
    while (const char* const piece = reader(stream.get(), &buffer, &capacity_)) {
      EXPECT_EQ(piece, buffer);
      pieces.emplace_back(piece);
    }
    gen_free(buffer);
    return pieces;
  }
  int32_t lines_of(const std::string& contents) {
    return gen_count_lines_in_file(root_.write("text", contents).c_str());
  }

  TemporaryDirectory root_;
  int32_t capacity_ = 0;
};

TEST_F(TextReading, LinesEndAtLfCrOrBoth) {
  EXPECT_THAT(read_all(gen_getline, "ab\r\ncd"), ElementsAre("ab", "cd"));
  EXPECT_THAT(read_all(gen_getline, "ab\n\ncd\n"), ElementsAre("ab", "", "cd"));
  EXPECT_THAT(read_all(gen_getline, "\n"), ElementsAre(""));
  EXPECT_THAT(read_all(gen_getline, ""), ElementsAre());
  EXPECT_THAT(read_all(gen_getline, "ab\rXcd\r"), ElementsAre("ab", "cd"));
  EXPECT_THAT(read_all(gen_getline, "\r"), ElementsAre());
  EXPECT_THAT(read_all(gen_getline, "\rX"), ElementsAre(""));
}

TEST_F(TextReading, ALineBufferGrowsBy250BytesAndKeepsRoomForTheTerminator) {
  const struct {
    size_t length;
    int32_t capacity;
  } rows[] = {{0, 250}, {249, 250}, {250, 500}, {1000, 1250}};
  for (const auto& row : rows) {
    const std::string line(row.length, 'x');
    EXPECT_THAT(read_all(gen_getline, line + "\n"), ElementsAre(line));
    EXPECT_EQ(capacity_, row.capacity);
    if (row.length > 0) {
      EXPECT_THAT(read_all(gen_gettoken, line), ElementsAre(line));
      EXPECT_EQ(capacity_, row.capacity);
    }
  }
}

TEST_F(TextReading, TokensAreCutAtSpaces) {
  EXPECT_THAT(read_all(gen_gettoken, "  a\tb\n"), ElementsAre("a", "b"));
  EXPECT_THAT(read_all(gen_gettoken, "a\vb\f\xff\r"), ElementsAre("a\vb", "\xff"));
  EXPECT_THAT(read_all(gen_gettoken, " \n"), ElementsAre());
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

TEST_F(TextReading, LinesAreCountedWithOrWithoutALastNewline) {
  EXPECT_EQ(lines_of("a\nb"), 2);
  EXPECT_EQ(lines_of("a\nb\n"), 2);
  EXPECT_EQ(lines_of("\n"), 1);
  EXPECT_EQ(lines_of(""), 0);
  EXPECT_EQ(lines_of(std::string(70000, '\n') + "x"), 70001);
  EXPECT_EQ(gen_count_lines_in_file(root_.path("missing").c_str()), 0);
}

TEST_F(TextReading, AFileIsReadUpToALengthOrWhole) {
  const std::string name = root_.write("text", "abc");
  char bytes[8] = {};
  EXPECT_EQ(gen_getfile(name.c_str(), bytes, 2), 2);
  EXPECT_STREQ(bytes, "ab");
  EXPECT_EQ(gen_getfile(name.c_str(), bytes, 8), 3);
  EXPECT_EQ(gen_getfile(root_.path("missing").c_str(), bytes, 8), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(gen_getfile(root_.name().c_str(), bytes, 8), -1);
  EXPECT_EQ(errno, EISDIR);

  char* buffer = nullptr;
  int32_t size = -7;
  ASSERT_EQ(gen_readfile_into_buffer(name.c_str(), &buffer, &size), 0);
  EXPECT_EQ(std::string(buffer, 3), "abc");
  EXPECT_EQ(size, 3);
  std::free(buffer);
  ASSERT_EQ(gen_readfile_into_buffer(root_.write("empty", "").c_str(), &buffer, nullptr), 0);
  EXPECT_NE(buffer, nullptr);
  std::free(buffer);
  EXPECT_EQ(gen_readfile_into_buffer(root_.path("missing").c_str(), &buffer, &size), -1);
  EXPECT_EQ(gen_readfile_into_buffer(root_.name().c_str(), &buffer, &size), -1);
}

TEST_F(TextReading, TheFirstLineOfAFileComesFromTheComposedName) {
  root_.write("d/f", "in d/f\r\nmore\n");
  root_.write("f", "in f");
  root_.write("empty", "");
  root_.write("blank", "\nx\n");
  const char* const root = root_.name().c_str();
  const auto line = [](const char* r, const char* d, const char* f) {
    return std::string(gen_ptr<char>(gen_getsinglelineasciifile(r, d, f, "fallback")).get());
  };
  EXPECT_EQ(line(root, "d", "f"), "in d/f");
  EXPECT_EQ(line(root, nullptr, "f"), "in f");
  EXPECT_EQ(line(root, "f", nullptr), "in f");
  EXPECT_EQ(line(root_.path("f").c_str(), nullptr, nullptr), "in f");
  EXPECT_EQ(line(root, nullptr, "blank"), "");
  EXPECT_EQ(line(root, nullptr, "empty"), "fallback");
  EXPECT_EQ(line(root, "d", "missing"), "fallback");
  EXPECT_EQ(line(nullptr, nullptr, nullptr), "fallback");
  EXPECT_EQ(gen_getsinglelineasciifile(root, "d", "missing", nullptr), nullptr);
}

TEST_F(TextReading, WordsOfAFileAreRunsWithoutWhiteSpace) {
  const auto words_of = [](const char* name) {
    std::vector<std::string> words;
    int32_t count = -7;
    const gen_ptr<char*> list(gen_get_words_from_file(name, &count));
    for (int32_t index = 0; list && list.get()[index] != nullptr; ++index) {
      words.emplace_back(list.get()[index]);
      gen_free(list.get()[index]);
    }
    EXPECT_EQ(static_cast<size_t>(count), words.size());
    return words;
  };
  EXPECT_THAT(words_of(root_.write("text", " .text\n.data\v\t\f.bss").c_str()),
              ElementsAre(".text", ".data", ".bss"));
  std::string many;
  for (int number = 0; number < 200; ++number) {
    many += std::to_string(number) + "\r\n";
  }
  const std::vector<std::string> numbers = words_of(root_.write("text", many).c_str());
  ASSERT_EQ(numbers.size(), 200u);
  EXPECT_EQ(numbers[199], "199");

  int32_t count = -7;
  const gen_ptr<char*> empty(gen_get_words_from_file(root_.write("empty", "").c_str(), &count));
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(*empty, nullptr);
  EXPECT_EQ(count, 0);
  const gen_ptr<char*> unreadable(gen_get_words_from_file(root_.name().c_str(), nullptr));
  ASSERT_NE(unreadable, nullptr);
  EXPECT_EQ(*unreadable, nullptr);
  count = -7;
  EXPECT_EQ(gen_get_words_from_file(root_.path("missing").c_str(), &count), nullptr);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(gen_get_words_from_file(nullptr, nullptr), nullptr);
}

TEST_F(TextReading, AppendingPrintsBehindWhatIsThere) {
  const std::string name = root_.path("log");
  EXPECT_EQ(gen_append_to_file(name.c_str(), "%d lines\n", 2), 0);
  EXPECT_EQ(gen_append_to_file(name.c_str(), "%s", "end"), 0);
  EXPECT_EQ(root_.read("log"), "2 lines\nend");
  EXPECT_EQ(gen_append_to_file(root_.path("no/log").c_str(), "x"), -1);
}

}  // namespace
}  // namespace kelvane
