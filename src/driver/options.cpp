#include "options.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "debug_print.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "image.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgeninit.h"
#include "indview.h"
#include "section_filter.h"

namespace kelvane {

const char* exclude_file = nullptr;

namespace {

// Reads a number as atoi does, without its undefined overflow.
int32_t number_of(const char* text) {
  return static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

// An option; `text` is its argument, null if it takes none.
struct Option {
  std::string_view name;
  bool takes_argument;
  void (*act)(command_line& line, const char* text);
};

void set_blocksize(command_line& line, const char* text) {
  line.blocksize = static_cast<uint16_t>(number_of(text));
  if (line.blocksize == 0) {
    show_help(kStatusFailure);
  }
}

void set_max_scan(command_line& line, const char* text) {
  line.max_scan = number_of(text);
  if (line.max_scan == 0) {
    show_help(kStatusFailure);
  }
}

void choose_memory_mode() {
  fDiffMemory = 1;
  version = std::max(version, 1);
}

void turn_optimizations_off() {
  incr_enabled = 0;
  swap_enabled = 0;
  compressed_substitutions = 0;
  use_fill_command = 0;
}

// The options in the order in which they are tested.
// clang-format off
constexpr std::array<Option, 23> kOptions = {{
    // name                        argument  effect
    {"-b",                         true,  set_blocksize},
    {"-s",                         true,  set_max_scan},
    {"-t",                         true,  [](command_line& line, const char* text) { line.deconstruct = number_of(text); }},
    {"-o",                         true,  [](command_line& line, const char* text) { line.output = text; }},
    {"-ram",                       false, [](command_line&, const char*) { choose_memory_mode(); }},
    {"-version",                   true,  [](command_line&, const char* text) { version = number_of(text); }},
    {"-exclude",                   true,  [](command_line&, const char* text) { exclude_file = text; }},
    {"-alias",                     true,  [](command_line&, const char* text) { get_alias(text); }},
    {"-inc",                       false, [](command_line&, const char*) { incr_enabled = 1; }},
    {"-memmove",                   false, [](command_line&, const char*) { swap_enabled = 1; }},
    {"-memmove_block",             false, [](command_line&, const char*) { swap_block_enabled = 1; }},
    {"-memmove_block_minsize",     true,  [](command_line&, const char* text) { min_swap_block_size = number_of(text); }},
    {"-memmove_maxtrees",          true,  [](command_line&, const char* text) { swap_maxtrees = number_of(text); }},
    {"-substitution_splicing",     false, [](command_line&, const char*) { substitution_splicing = 1; }},
    {"-relative_substitutions",    false, [](command_line&, const char*) { relative_substitutions = 1; }},
    {"-compressed_substitutions",  false, [](command_line&, const char*) { compressed_substitutions = 1; }},
    {"-fill",                      false, [](command_line&, const char*) { use_fill_command = 1; }},
    {"-min_compression_percent",   true,  [](command_line&, const char* text) { min_compression_percent = number_of(text); }},
    {"-min_compression_length",    true,  [](command_line&, const char* text) { min_compression_length = number_of(text); }},
    {"-noopt",                     false, [](command_line&, const char*) { turn_optimizations_off(); }},
    {"-nocolor",                   false, [](command_line& line, const char*) { line.color = false; }},
    {"-d",                         true,  [](command_line&, const char* text) { debug_level = number_of(text); }},
    {"-h",                         false, [](command_line&, const char*) { show_help(kStatusSuccess); }},
}};
// clang-format on

// Takes an argument that is no option as a file name; a third one is ignored.
void take_file_name(command_line& line, const char* name) {
  if (line.file1 == nullptr) {
    line.file1 = name;
  } else if (line.file2 == nullptr) {
    line.file2 = name;
  }
}

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Ends the run if the output exists and is one of the inputs, under whatever name.
void check_output(const command_line& line) {
  struct stat output = {};
  if (gen_sys_stat(line.output, &output) != 0) {
    return;
  }
  for (const char* const name : {line.file1, line.file2}) {
    struct stat input = {};
    if (gen_stat(name, &input) == 0 && same_file(output, input)) {
      gen_errorexit(kStatusFailure, "output file '%s' is also an input file", line.output);
    }
  }
}

}  // namespace

command_line parse_options(int32_t argc, char* const* argv) {
  command_line line;
  for (int32_t i = 1; i < argc; ++i) {
    const char* const argument = argv[i];
    const auto option =
        std::find_if(kOptions.begin(), kOptions.end(),
                     [argument](const Option& known) { return known.name == argument; });
    if (option == kOptions.end()) {
      if (argument[0] == '-') {
        gen_error("invalid option '%s'", argument);
        show_help(kStatusFailure);
      }
      take_file_name(line, argument);
      continue;
    }
    const char* text = nullptr;
    if (option->takes_argument) {
      if (i + 1 >= argc) {
        gen_error("option '%s' requires an argument", argument);
        show_help(kStatusFailure);
      }
      text = argv[++i];
    }
    option->act(line, text);
  }
  return line;
}

void check_command_line(const command_line& line) {
  if (line.file1 == nullptr || line.file2 == nullptr) {
    gen_error("must specify two files to compare");
    show_help(kStatusFailure);
  }
  if (version != 0 && version != 1) {
    gen_errorexit(kStatusFailure, "unsupported patch version %d", version);
  }
  check_output(line);
}

void limit_to_version() {
  if (version < 1) {
    compressed_substitutions = 0;
    use_fill_command = 0;
  }
}

void show_help(int32_t status) {
  const char* const name = gen_getprogname();
  std::fprintf(stderr, "Usage: %s [options] <file1> <file2>\n", name != nullptr ? name : "kelvane");
  std::fputs(
      "  -o <output>     set name of output file\n"
      "  -b <blocksize>  set size for block comparisons\n"
      "  -s <max_scan>   set size for giving up on block comparisons\n"
      "  -ram            create diff suitable for memory patching\n"
      "  -noopt          disable optimizations\n"
      "  -nocolor        disable colorized output\n"
      "  -h              display this help message\n",
      stderr);
  end_run(status);
}

void get_alias(const char* text) {
  uint32_t address = 0;
  uint32_t mask = 0;
  if (std::sscanf(text, "%x:%x", &address, &mask) != 2) {
    gen_errorexit(kStatusFailure, "invalid format for alias '%s'", text);
  }
  add_memory_alias(address, mask);
}

void read_exclude_file() {
  if (exclude_file == nullptr) {
    return;
  }
  const file_ptr stream(gen_fopen(exclude_file, "r"));
  if (stream == nullptr) {
    gen_perrorexit(kStatusFailure, "error while opening exclude file '%s'", exclude_file);
  }
  while (true) {
    std::array<char, 1026> word{};
    // A word with nothing behind it ends at the end of the file, and is not used.
    [[maybe_unused]] const int words = std::fscanf(stream.get(), "%1025s", word.data());
    if (std::ferror(stream.get()) != 0) {
      gen_perrorexit(kStatusFailure, "error while reading exclude file '%s'", exclude_file);
    }
    if (std::feof(stream.get()) != 0) {
      return;
    }
    add_section_exclusion(word.data());
  }
}

}  // namespace kelvane
