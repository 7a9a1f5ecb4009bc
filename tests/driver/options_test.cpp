#include "options.h"

#include <gtest/gtest.h>

#include <filesystem>
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

const std::string kUsage =
    "Usage: kelvane [options] <file1> <file2>\n"
    "  -o <output>     set name of output file\n"
    "  -b <blocksize>  set size for block comparisons\n"
    "  -s <max_scan>   set size for giving up on block comparisons\n"
    "  -ram            create diff suitable for memory patching\n"
    "  -noopt          disable optimizations\n"
    "  -nocolor        disable colorized output\n"
    "  -h              display this help message\n";

using Words = std::vector<const char*>;

class Options : public testing::Test {
 protected:
  Options() { start_afresh(); }
  ~Options() override { reset_all_state(); }

  static void start_afresh() {
    reset_all_state();
    gen_changeprogname("kelvane");
  }

  // Parses the words as a new process would.
  static command_line parsed(const Words& words) {
    start_afresh();
    return parse(words);
  }
  static CapturedRun refused(const Words& words) {
    start_afresh();
    CapturedRun run = capture([&] { parse(words); });
    EXPECT_TRUE(run.ended);
    return run;
  }
  // Parses and then limits to the version, as a run does.
  static void applied(const Words& words) {
    parsed(words);
    limit_to_version();
  }

  TemporaryDirectory tree_;
  ChangedDirectory here_{tree_.name()};

 private:
  static command_line parse(const Words& words) {
    std::vector<char*> argv = {const_cast<char*>("kelvane")};
    for (const char* const word : words) {
      argv.push_back(const_cast<char*>(word));
    }
    const auto argc = static_cast<int32_t>(argv.size());
    argv.push_back(nullptr);
    return parse_options(argc, argv.data());
  }
};

TEST_F(Options, HaveInitialValues) {
  const command_line line = parsed({});
  EXPECT_EQ(line.blocksize, 100);
  EXPECT_EQ(line.max_scan, 1000);
  EXPECT_EQ(line.deconstruct, -1);
  EXPECT_STREQ(line.output, "diff.out");
  EXPECT_TRUE(line.color);
  EXPECT_EQ(line.file1, nullptr);
  EXPECT_EQ(line.file2, nullptr);
  EXPECT_EQ(fDiffMemory, 0);
  EXPECT_EQ(version, 0);
  EXPECT_EQ(debug_level, 0);
  EXPECT_EQ(incr_enabled, 0);
  EXPECT_EQ(relative_substitutions, 1);
  EXPECT_EQ(substitution_splicing, 1);
  EXPECT_EQ(use_fill_command, 1);
  EXPECT_EQ(compressed_substitutions, 1);
  EXPECT_EQ(min_compression_percent, 10);
  EXPECT_EQ(min_compression_length, 50);
  EXPECT_EQ(swap_enabled, 0);
  EXPECT_EQ(swap_block_enabled, 0);
  EXPECT_EQ(min_swap_block_size, 12);
  EXPECT_EQ(swap_maxtrees, -1);
  EXPECT_EQ(exclude_file, nullptr);
  EXPECT_EQ(TargetIsBigEndian, 0);
}

TEST_F(Options, WriteTheirSettings) {
  EXPECT_EQ(parsed({"-b", "12"}).blocksize, 12);
  EXPECT_EQ(parsed({"-s", "-5"}).max_scan, -5);
  EXPECT_EQ(parsed({"-t", "3"}).deconstruct, 3);
  EXPECT_STREQ(parsed({"-o", "patch"}).output, "patch");
  EXPECT_FALSE(parsed({"-nocolor"}).color);
  parsed({"-ram"});
  EXPECT_EQ(fDiffMemory, 1);
  EXPECT_EQ(version, 1);
  parsed({"-version", "7"});
  EXPECT_EQ(version, 7);
  parsed({"-exclude", "one", "-exclude", "two"});
  EXPECT_STREQ(exclude_file, "two");
  parsed({"-inc"});
  EXPECT_EQ(incr_enabled, 1);
  parsed({"-memmove"});
  EXPECT_EQ(swap_enabled, 1);
  EXPECT_EQ(swap_block_enabled, 0);
  parsed({"-memmove_block"});
  EXPECT_EQ(swap_enabled, 0);
  EXPECT_EQ(swap_block_enabled, 1);
  parsed({"-memmove_block_minsize", "40", "-memmove_maxtrees", "6"});
  EXPECT_EQ(min_swap_block_size, 40);
  EXPECT_EQ(swap_maxtrees, 6);
  parsed({"-min_compression_percent", "25", "-min_compression_length", "7"});
  EXPECT_EQ(min_compression_percent, 25);
  EXPECT_EQ(min_compression_length, 7);
  parsed({"-d", "5"});
  EXPECT_EQ(debug_level, 5);
}

TEST_F(Options, RestateWhatNothingClears) {
  start_afresh();
  parsed({"-noopt"});
  EXPECT_EQ(relative_substitutions, 1);
  EXPECT_EQ(substitution_splicing, 1);
  parsed({"-substitution_splicing", "-relative_substitutions"});
  EXPECT_EQ(relative_substitutions, 1);
  EXPECT_EQ(substitution_splicing, 1);
}

TEST_F(Options, ReadNumbersToTheFirstLetter) {
  EXPECT_EQ(parsed({"-t", "12abc"}).deconstruct, 12);
  EXPECT_EQ(parsed({"-t", " \t+7"}).deconstruct, 7);
  EXPECT_EQ(parsed({"-t", "0x10"}).deconstruct, 0);
  EXPECT_EQ(parsed({"-t", ""}).deconstruct, 0);
  EXPECT_EQ(parsed({"-t", "-b"}).deconstruct, 0);  // an argument, whatever it looks like
  EXPECT_EQ(parsed({"-b", "65537"}).blocksize, 1);
  EXPECT_EQ(parsed({"-b", "-1"}).blocksize, 65535);
}

TEST_F(Options, ShowTheUsageForABlockSizeOrScanLimitOfZero) {
  for (const Words& words : {Words{"-b", "65536"}, Words{"-b", "abc"}, Words{"-b", "0", "-h"},
                             Words{"-s", "0"}, Words{"-s", "x"}}) {
    const CapturedRun run = refused(words);
    EXPECT_EQ(run.errors, kUsage);
    EXPECT_EQ(run.status, 1);
  }
}

TEST_F(Options, ShowTheUsageOnDemand) {
  const CapturedRun help = refused({"-h", "-bad"});
  EXPECT_EQ(help.errors, kUsage);
  EXPECT_EQ(help.status, 0);
  const CapturedRun bad = refused({"-bad", "-h"});
  EXPECT_EQ(bad.errors, "kelvane: error: invalid option '-bad'\n" + kUsage);
  EXPECT_EQ(bad.status, 1);
}

TEST_F(Options, AreWholeWordsInTheirOwnCase) {
  for (const char* const word : {"-bfoo", "-B", "-RAM", "-", "--help", "-memmov"}) {
    const CapturedRun run = refused({word});
    EXPECT_EQ(run.errors, "kelvane: error: invalid option '" + std::string(word) + "'\n" + kUsage);
    EXPECT_EQ(run.status, 1);
  }
}

TEST_F(Options, AtTheEndWithoutTheirArgumentAreRefused) {
  for (const char* const word :
       {"-b", "-s", "-t", "-o", "-version", "-exclude", "-alias", "-memmove_block_minsize",
        "-memmove_maxtrees", "-min_compression_percent", "-min_compression_length", "-d"}) {
    const CapturedRun run = refused({"old", "new", word});
    EXPECT_EQ(run.errors,
              "kelvane: error: option '" + std::string(word) + "' requires an argument\n" + kUsage);
    EXPECT_EQ(run.status, 1);
  }
}

TEST_F(Options, MixWithTwoFileNames) {
  const command_line line = parsed({"old", "-b", "5", "new", "-o", "-h", "third", ""});
  EXPECT_STREQ(line.file1, "old");
  EXPECT_STREQ(line.file2, "new");
  EXPECT_STREQ(line.output, "-h");
  EXPECT_EQ(line.blocksize, 5);
  EXPECT_STREQ(parsed({""}).file1, "");
}

TEST_F(Options, OverrideInTheirOrder) {
  parsed({"-ram", "-version", "0"});
  EXPECT_EQ(version, 0);
  parsed({"-version", "0", "-ram"});
  EXPECT_EQ(version, 1);
  parsed({"-version", "2", "-ram"});
  EXPECT_EQ(version, 2);
  EXPECT_EQ(parsed({"-b", "7", "-b", "9"}).blocksize, 9);
  EXPECT_STREQ(parsed({"-o", "a", "-o", "b"}).output, "b");
}

TEST_F(Options, AreTurnedOffTogetherAndOnAgainBehind) {
  applied({"-version", "1", "-inc", "-memmove", "-memmove_block", "-fill", "-noopt"});
  EXPECT_EQ(incr_enabled, 0);
  EXPECT_EQ(swap_enabled, 0);
  EXPECT_EQ(swap_block_enabled, 1);
  EXPECT_EQ(use_fill_command, 0);
  EXPECT_EQ(compressed_substitutions, 0);
  applied({"-version", "1", "-noopt", "-fill"});
  EXPECT_EQ(use_fill_command, 1);
  EXPECT_EQ(compressed_substitutions, 0);
  applied({"-noopt", "-compressed_substitutions", "-inc", "-memmove", "-ram"});
  EXPECT_EQ(compressed_substitutions, 1);
  EXPECT_EQ(use_fill_command, 0);
  EXPECT_EQ(incr_enabled, 1);
  EXPECT_EQ(swap_enabled, 1);
}

TEST_F(Options, GiveWayToWhatTheVersionCannotHold) {
  for (const Words& words : {Words{}, Words{"-version", "0", "-fill", "-compressed_substitutions"},
                             Words{"-ram", "-version", "-1"}}) {
    applied(words);
    EXPECT_EQ(use_fill_command, 0);
    EXPECT_EQ(compressed_substitutions, 0);
  }
  applied({"-ram"});
  EXPECT_EQ(use_fill_command, 1);
  EXPECT_EQ(compressed_substitutions, 1);
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
  for (const char* const text : {"1000", "1000:", ":20", "x:y", "", "1000 :20"}) {
    const CapturedRun run = refused({"-alias", text});
    EXPECT_EQ(run.errors, "kelvane: fatal: invalid format for alias '" + std::string(text) + "'\n");
    EXPECT_EQ(run.status, 1);
  }
}

TEST_F(Options, NeedTwoNamesAndAKnownVersion) {
  const auto checked = [](const Words& words) {
    const command_line line = parsed(words);
    return capture([&] { check_command_line(line); });
  };
  CapturedRun run = checked({"-version", "2", "old"});
  EXPECT_EQ(run.errors, "kelvane: error: must specify two files to compare\n" + kUsage);
  EXPECT_EQ(run.status, 1);
  run = checked({"-version", "2", "old", "old"});
  EXPECT_EQ(run.errors, "kelvane: fatal: unsupported patch version 2\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(checked({"-version", "-1", "old", "old"}).errors,
            "kelvane: fatal: unsupported patch version -1\n");
  EXPECT_FALSE(checked({"old", "new"}).ended);
}

TEST_F(Options, NameNoOutputThatIsAnInput) {
  tree_.write("old", "abc");
  tree_.write("new", "abc");
  std::filesystem::create_symlink("old", "link");
  std::filesystem::create_hard_link("new", "second");
  const auto checked = [](const char* output) {
    const command_line line = parsed({"-o", output, "old", "new"});
    return capture([&] { check_command_line(line); });
  };
  for (const char* const output : {"old", "./new", "link", "second"}) {
    const CapturedRun run = checked(output);
    EXPECT_EQ(run.errors,
              "kelvane: fatal: output file '" + std::string(output) + "' is also an input file\n");
    EXPECT_EQ(run.status, 1);
  }
  EXPECT_FALSE(checked("other").ended);
}

// The exclusions that an exclude file of these contents adds, one a line.
class ExcludeFile : public Options {
 protected:
  std::string exclusions_of(const std::string& contents) {
    start_afresh();
    tree_.write("names", contents);
    exclude_file = "names";
    EXPECT_EQ(capture([] { read_exclude_file(); }).errors, "");
    std::string names;
    for (char** name = section_exclusions; name != nullptr && *name != nullptr; ++name) {
      names += *name + std::string("\n");
    }
    return names;
  }
};

TEST_F(ExcludeFile, HoldsWordsBetweenAnyWhiteSpace) {
  EXPECT_EQ(exclusions_of(" .text\t.data\r\n\v\f#no .data comment\n"),
            ".text\n.data\n#no\n.data\ncomment\n");
  EXPECT_EQ(exclusions_of(".text .data"), ".text\n");  // the last word has nothing behind it
  EXPECT_EQ(exclusions_of(".text"), "");
  EXPECT_EQ(exclusions_of(""), "");
  EXPECT_EQ(exclusions_of(" \n"), "");
}

TEST_F(ExcludeFile, CutsLongWordsBehind1025Characters) {
  const std::string word(1025, 'a');
  EXPECT_EQ(exclusions_of(word + "\n"), word + "\n");
  EXPECT_EQ(exclusions_of(word + "b c\n"), word + "\nb\nc\n");
}

TEST_F(ExcludeFile, ThatCannotBeReadEndsTheRun) {
  EXPECT_FALSE(capture([] { read_exclude_file(); }).ended);  // none is named
  exclude_file = "missing";
  CapturedRun run = capture([] { read_exclude_file(); });
  EXPECT_EQ(run.errors,
            "kelvane: fatal: error while opening exclude file 'missing': "
            "No such file or directory\n");
  EXPECT_EQ(run.status, 1);
  exclude_file = ".";
  run = capture([] { read_exclude_file(); });
  EXPECT_EQ(run.errors, "kelvane: fatal: error while reading exclude file '.': Is a directory\n");
  EXPECT_EQ(run.status, 1);
}

}  // namespace
}  // namespace kelvane
