#include "options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "captured_run.h"
#include "changed_surroundings.h"
#include "debug_print.h"
#include "engine_settings.h"
#include "image.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "section_filter.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using Words = std::vector<const char*>;

// What the options of the command line leave in the settings. Their messages, the usage text and
// what file mode shows of them are looked at with the program itself.
class Options : public testing::Test {
 protected:
  Options() { start_afresh(); }
  ~Options() override { reset_all_state(); }

  static void start_afresh() {
    reset_all_state();
    gen_changeprogname("kelvane");
  }

  // Parses the words as a new process would, and limits to the version, as a run does.
  static command_line parsed(const Words& words) {
    start_afresh();
    std::vector<char*> argv = {const_cast<char*>("kelvane")};
    for (const char* const word : words) {
      argv.push_back(const_cast<char*>(word));
    }
    const auto argc = static_cast<int32_t>(argv.size());
    argv.push_back(nullptr);
    const command_line line = parse_options(argc, argv.data());
    limit_to_version();
    return line;
  }
};

TEST_F(Options, WriteTheirSettingsOverTheInitialOnes) {
  const command_line initial = parsed({});
  EXPECT_EQ(initial.blocksize, 100);
  EXPECT_EQ(initial.max_scan, 1000);
  EXPECT_EQ(initial.deconstruct, -1);
  EXPECT_STREQ(initial.output, "diff.out");
  EXPECT_TRUE(initial.color);
  EXPECT_EQ(initial.file1, nullptr);
  EXPECT_EQ(exclude_file, nullptr);
  EXPECT_EQ(TargetIsBigEndian, 0);

  const command_line line =
      parsed({"-b", "12", "-s", "-5", "old", "-t", "3", "-o", "-h", "-nocolor", "-exclude", "one",
              "new", "-exclude", "two", "third"});
  EXPECT_EQ(line.blocksize, 12);
  EXPECT_EQ(line.max_scan, -5);
  EXPECT_EQ(line.deconstruct, 3);
  EXPECT_STREQ(line.output, "-h");
  EXPECT_FALSE(line.color);
  EXPECT_STREQ(line.file1, "old");
  EXPECT_STREQ(line.file2, "new");
  EXPECT_STREQ(exclude_file, "two");
}

struct Settings {
  int32_t ram, version, debug, inc, relative, splicing, fill, compressed, percent, length;
  int32_t swap, swap_block, minsize, maxtrees;
  bool operator==(const Settings&) const = default;
};

Settings settings() {
  return {fDiffMemory,
          version,
          debug_level,
          incr_enabled,
          relative_substitutions,
          substitution_splicing,
          use_fill_command,
          compressed_substitutions,
          min_compression_percent,
          min_compression_length,
          swap_enabled,
          swap_block_enabled,
          min_swap_block_size,
          swap_maxtrees};
}

TEST_F(Options, WriteGlobalSettingsFromTheLeftToTheRight) {
  const struct {
    Words words;
    Settings expected;
  } rows[] = {
      // clang-format off
      //                                                ram version debug inc  relative splicing fill compressed percent length  swap block minsize maxtrees
      {{},                                              {0, 0, 0, 0,  1, 1, 0, 0, 10, 50,  0, 0, 12, -1}},
      {{"-ram"},                                        {1, 1, 0, 0,  1, 1, 1, 1, 10, 50,  0, 0, 12, -1}},
      {{"-ram", "-version", "0"},                       {1, 0, 0, 0,  1, 1, 0, 0, 10, 50,  0, 0, 12, -1}},
      {{"-ram", "-version", "-1"},                      {1, -1, 0, 0, 1, 1, 0, 0, 10, 50,  0, 0, 12, -1}},
      {{"-version", "0", "-ram"},                       {1, 1, 0, 0,  1, 1, 1, 1, 10, 50,  0, 0, 12, -1}},
      {{"-version", "2", "-ram"},                       {1, 2, 0, 0,  1, 1, 1, 1, 10, 50,  0, 0, 12, -1}},
      {{"-fill", "-compressed_substitutions"},          {0, 0, 0, 0,  1, 1, 0, 0, 10, 50,  0, 0, 12, -1}},
      {{"-inc", "-d", "5"},                             {0, 0, 5, 1,  1, 1, 0, 0, 10, 50,  0, 0, 12, -1}},
      {{"-memmove"},                                    {0, 0, 0, 0,  1, 1, 0, 0, 10, 50,  1, 0, 12, -1}},
      {{"-memmove_block"},                              {0, 0, 0, 0,  1, 1, 0, 0, 10, 50,  0, 1, 12, -1}},
      {{"-memmove_block_minsize", "40", "-memmove_maxtrees", "6"}, {0, 0, 0, 0, 1, 1, 0, 0, 10, 50, 0, 0, 40, 6}},
      {{"-min_compression_percent", "25", "-min_compression_length", "7"}, {0, 0, 0, 0, 1, 1, 0, 0, 25, 7, 0, 0, 12, -1}},
      {{"-substitution_splicing", "-relative_substitutions", "-noopt"}, {0, 0, 0, 0, 1, 1, 0, 0, 10, 50, 0, 0, 12, -1}},
      {{"-version", "1", "-inc", "-memmove", "-memmove_block", "-fill", "-noopt"}, {0, 1, 0, 0, 1, 1, 0, 0, 10, 50, 0, 1, 12, -1}},
      {{"-version", "1", "-noopt", "-fill"},            {0, 1, 0, 0,  1, 1, 1, 0, 10, 50,  0, 0, 12, -1}},
      {{"-noopt", "-compressed_substitutions", "-inc", "-memmove", "-ram"}, {1, 1, 0, 1, 1, 1, 0, 1, 10, 50, 1, 0, 12, -1}},
      // clang-format on
  };
  for (const auto& row : rows) {
    parsed(row.words);
    EXPECT_TRUE(settings() == row.expected) << testing::PrintToString(row.words);
  }
}

TEST_F(Options, ReadNumbersToTheFirstLetter) {
  const std::pair<const char*, int32_t> rows[] = {{"12abc", 12}, {" \t+7", 7}, {"0x10", 0},
                                                  {"", 0},       {"-b", 0},    {"65537", 65537}};
  for (const auto& [text, number] : rows) {
    EXPECT_EQ(parsed({"-t", text}).deconstruct, number) << text;
  }
  EXPECT_EQ(parsed({"-b", "65537"}).blocksize, 1);
  EXPECT_EQ(parsed({"-b", "-1"}).blocksize, 65535);
}

TEST_F(Options, AddEachAliasAtOnce) {
  parsed({"-alias", "80000000:20000000", "-alias", "0x1000:0xFfz"});
  ASSERT_NE(memory_aliases, nullptr);
  EXPECT_EQ(memory_aliases[0].address, 0x80000000U);
  EXPECT_EQ(memory_aliases[0].mask, 0x20000000U);
  EXPECT_EQ(memory_aliases[1].address, 0x1000U);
  EXPECT_EQ(memory_aliases[1].mask, 0xFFU);
  EXPECT_EQ(memory_aliases[2].address, 0U);
  EXPECT_EQ(memory_aliases[2].mask, 0U);
}

TEST_F(Options, TakeTheWordsOfTheExcludeFileBetweenWhiteSpace) {
  const std::string longest(1025, 'a');  // what is longer is cut into pieces
  const std::pair<std::string, std::string> rows[] = {
      {" .text\t.data\r\n\v\f#no .data comment\n", ".text\n.data\n#no\n.data\ncomment\n"},
      {".text .data", ".text\n"},  // the last word has nothing behind it
      {".text", ""},
      {" \n", ""},
      {longest + "\n", longest + "\n"},
      {longest + "b c\n", longest + "\nb\nc\n"}};
  const TemporaryDirectory tree;
  const ChangedDirectory here(tree.name());
  for (const auto& [contents, expected] : rows) {
    start_afresh();
    tree.write("names", contents);
    exclude_file = "names";
    EXPECT_EQ(capture([] { read_exclude_file(); }).errors, "");
    std::string names;
    for (char** name = section_exclusions; name != nullptr && *name != nullptr; ++name) {
      names += *name + std::string("\n");
    }
    EXPECT_EQ(names, expected);
  }
}

}  // namespace
}  // namespace kelvane
