#pragma once

#include <cstdint>

// The command line: `kelvane [options] <file1> <file2>`. Most options write a global setting of the
// engine at once; what is left for main to pass on stands in one record.
namespace kelvane {

// What main passes on by argument.
struct command_line {
  uint16_t blocksize = 100;         // -b: bytes that have to agree where blocks agree again
  int32_t max_scan = 1000;          // -s: distance at which the search for that place gives up
  int32_t deconstruct = -1;         // -t: forced passes over the trees of moves (memory mode)
  const char* output = "diff.out";  // -o: name of the patch file
  bool color = true;                // cleared by -nocolor
  const char* file1 = nullptr;      // the first two arguments that are no options
  const char* file2 = nullptr;
};

// -exclude: name of the exclude file, borrowed from the command line; null if there is none.
extern const char* exclude_file;

// Reads the arguments from left to right; each option acts at once, so a later one overrides an
// earlier one. What is no option, or lacks its argument, ends the run with a message, the usage
// text and status 1; -h ends it with the usage text and status 0.
command_line parse_options(int32_t argc, char* const* argv);

// Tests what can be tested before a file is read: two names, a known patch version, an output that
// is no input. A failure ends the run with its message and status 1.
void check_command_line(const command_line& line);

// Version 0 has neither fills nor compressed substitutions: turns both off for it.
void limit_to_version();

// Writes the usage text to standard error and ends the run with `status`.
[[noreturn]] void show_help(int32_t status);

// Adds the memory alias "address:mask", two hexadecimal numbers. Any other text ends the run with
// "invalid format for alias '%s'" and status 1.
void get_alias(const char* text);

// Adds each word of the exclude file, if there is one, to the section exclusions. A file that can't
// be opened or read ends the run with status 1.
void read_exclude_file();

}  // namespace kelvane
