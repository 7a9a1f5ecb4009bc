#include "options.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "captured_run.h"
#include "changed_surroundings.h"
#include "debug_print.h"
#include "engine_settings.h"
#include "image.h"
#include "indgeninit.h"
#include "operation_table.h"
#include "reset_state.h"
#include "section_filter.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

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

  // Parses the words, which / stands between, as a new process would, and limits to the version, as
  // a run does.
  const command_line& parsed(const std::string& words) {
    start_afresh();
    words_ = {"kelvane"};
    std::istringstream all(words);
    for (std::string word; std::getline(all, word, '/');) {
      words_.push_back(word);
    }
    std::vector<char*> argv;
    for (std::string& word : words_) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    line_ = parse_options(static_cast<int32_t>(argv.size()) - 1, argv.data());
    limit_to_version();
    return line_;
  }

 private:
  std::vector<std::string> words_;
  command_line line_;
};

std::string listed(std::initializer_list<int32_t> values) {
  std::string all;
  for (const int32_t value : values) {
    all += (all.empty() ? "" : ":") + std::to_string(value);
  }
  return all;
}

// The words of an exclude file as exclusions.
std::string exclusions(const std::string& contents) {
  const TemporaryDirectory tree;
  const ChangedDirectory here(tree.name());
  reset_all_state();
  tree.write("names", contents);
  exclude_file = "names";
  read_exclude_file();
  std::string names;
  for (char** name = section_exclusions; name != nullptr && *name != nullptr; ++name) {
    names += std::string(*name) + "|";
  }
  return names;
}

TEST_F(Options, WriteWhatTheTableTells) {
  using Text = const std::string&;
  // clang-format off
  check_table({
      {"line", [this](Text words) {
        const command_line& line = parsed(words);
        return listed({line.blocksize, line.max_scan, line.deconstruct, line.color ? 1 : 0}) + ":" + line.output + ":" +
               text_of(line.file1) + ":" + text_of(line.file2) + ":" + text_of(exclude_file);
      }},
      {"settings", [this](Text words) {
        parsed(words);
        EXPECT_EQ(TargetIsBigEndian, 0);
        return listed({fDiffMemory, version, debug_level, incr_enabled, relative_substitutions, substitution_splicing,
                       use_fill_command, compressed_substitutions, min_compression_percent, min_compression_length,
                       swap_enabled, swap_block_enabled, min_swap_block_size, swap_maxtrees});
      }},
      {"aliases", [this](Text words) {
        parsed(words);
        std::ostringstream all;
        for (const auto* alias = memory_aliases; alias != nullptr && (alias->address != 0 || alias->mask != 0); ++alias) {
          all << std::hex << alias->address << "/" << alias->mask << " ";
        }
        return all.str();
      }},
      KELVANE_OPERATION(exclusions),
  }, KELVANE_TABLES "options.table");
  // clang-format on
  const std::string longest(1025, 'a');  // what is longer is cut into pieces
  EXPECT_EQ(exclusions(longest + "\n"), longest + "|");
  EXPECT_EQ(exclusions(longest + "b c\n"), longest + "|b|c|");
}

}  // namespace
}  // namespace kelvane
