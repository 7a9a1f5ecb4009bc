#pragma once

#include <cstdint>

#include "command_lists.h"
#include "image.h"

// The patch of a comparison: fronts that hand the engine's lists to the patch writer.
namespace kelvane {

// Writes the patch from `first` to `second` to the file `name`, from the lists that the comparison
// left, and empties them, but for the regions under a checksum and the increments. Failures end the
// run with status 1: "unsupported patch version %d" for a version other than 0 and 1; "gfile: could
// not open file for writing"; "could not find __qvr_ind_crt1() in '%s'" in memory mode; "error
// writing patch file '%s'". A file left behind is not removed.
void dump_to_file(const file_data* first, const file_data* second, const char* name);

// Writes a whole patch, in the format that `version` selects, to the output buffer or file. Ends
// the run as dump_to_file does; that the stream of version 0 refused something, only output_failed
// tells.
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

// Writes CM_FILL, unless `commands` is null.
void dump_fill_command(const command_record* commands);

// Writes CM_CHECKSUM, unless `regions` is null.
void dump_range_checksum(const command_record* regions, uint32_t checksum);

}  // namespace kelvane
