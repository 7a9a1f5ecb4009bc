#pragma once

#include <cstdint>
#include <memory>

#include "diffshared.h"

// The patch file. Version 0 is a header of four words and the command set; version 1 a structured
// file header, a patch header with size and checksum, and the command set, in memory mode framed by
// two checksums of the target's memory. docs/patch-format.md describes both.
namespace kelvane {

// Codes of the commands; each command begins with its code.
enum CommandCode : uint8_t {
  CM_SUBSTITUTE = 1,
  CM_SUB_ONE = 2,
  CM_MOVE = 3,
  CM_CHECKSUM = 4,
  CM_SUB_COMP = 5,
  CM_FILL = 6,
  CM_INCRS = 7,
};

// Flags of a command_list.
inline constexpr uint32_t CL_NO_SIZE = 1;   // the commands have no size field
inline constexpr uint32_t CL_RELATIVE = 4;  // the commands stand relative to a base address

// The greatest count of a 16-bit field. What holds more is written as several commands.
inline constexpr int32_t kMaxCount = 65535;

// Number of commands that it takes to write `count` items of at most kMaxCount each; at least 1.
int32_t commands_for(int32_t count);
// Warns "%s takes %d commands in this patch" if it takes more than one.
void warn_of_repetition(const char* name, int32_t commands);

// Writes the patch from `first` to `second` to the file `name`, from the lists that the comparison
// left, and empties them, but for the regions under a checksum and the increments. Failures end the
// run with status 1: "gfile: could not open file for writing"; "could not find __qvr_ind_crt1() in
// '%s'" in memory mode; "error writing patch file '%s'". A file left behind is not removed.
void dump_to_file(const file_data* first, const file_data* second, const char* name);

// Writes a whole patch, in the format that `version` selects, to the output buffer or file. Ends
// the run as dump_to_file does.
void dump_commands(const file_data* first, const file_data* second);
void dump_commands_v0(const file_data* first, const file_data* second);

// Writes the command set and empties the lists. `x` is not used and is returned. A second call
// writes what was added since, and all increments again.
int32_t dump_command_set(int32_t x);

// Writes one CM_SUBSTITUTE, CM_SUB_COMP or CM_SUB_ONE, told by `code` (8 bits), and releases the
// records. Nothing if `list` is null.
void dump_sub_command(uint32_t code, command_record* list, uint32_t flags);

// Divides `commands` into one absolute list, the first of `lists`, and any number of relative ones,
// and returns the number of lists, of which there may be more than 65535, in 16 bits. The caller
// releases the lists by free_command_list, and no longer owns `commands` whatever happens.
uint16_t generate_command_list(command_record* commands, command_list** lists,
                               command_list** last_list, uint32_t flags);

// Write the lists, each with output_commands, and one list of `count` commands.
void output_command_lists(const command_list* lists);
void output_commands(const command_record* commands, uint16_t count, uint32_t flags);

// Release each header with its commands, and a chain of commands.
void free_command_list(command_list* lists);
void free_commands(command_record* commands);

// Owns a chain of commands, so that it is released on every road out of a function.
struct CommandsDeleter {
  void operator()(command_record* commands) const { free_commands(commands); }
};
using commands_ptr = std::unique_ptr<command_record, CommandsDeleter>;

// Writes CM_FILL, unless `commands` is null.
void dump_fill_command(const command_record* commands);

// Writes CM_CHECKSUM, unless `regions` is null.
void dump_range_checksum(const command_record* regions, uint32_t checksum);

}  // namespace kelvane
