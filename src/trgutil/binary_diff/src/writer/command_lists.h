#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "indgen_memory.h"

// The commands of a patch while they wait to be written. A comparison keeps one process-wide list a
// kind; the patch holds all moves first, told in old addresses (in the first image), and then all
// else, told in new addresses (in the second), so no list needs to know of another. Lists are in
// the order in which their records were made, which is that of ascending addresses.
namespace kelvane {

// Codes of the commands; each command of the patch begins with its code.
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

// The size of the engine's table of increment classes. The patch itself sets no limit.
inline constexpr int32_t kMaxIncrementClasses = 20;

// What a command writes: bytes inside an image or a buffer, or a plain value.
union command_data {
  const uint8_t* bytes;
  uint32_t value;
};

// The one record of every command, and of each block of a CM_MOVE.
//   list                     address       size                    data
//   moves                    old address   signed shift, 0 an end  not set
//   substitutions            new address   number of bytes         the bytes
//   compressed               new address   compressed bytes        them, in a buffer of its own
//   single bytes             new address   1                       the byte
//   fills                    new address   3 to 65534              the run
//   increments               new address   bytes that change       the new word, a value
//   checksum regions         start         bytes                   not set
//   blocks of a CM_MOVE      source        bytes                   signed shift, a value
// Bytes point into the second image, which has to stay until the patch is written.
struct command_record {
  uint32_t address;
  int32_t size;
  command_data data;
  command_record* next;  // null at the end
};

// A list of commands as it goes into the patch: all absolute, or all relative to one base address.
struct command_list {
  command_record* first;
  command_record* last;
  uint16_t num_commands;  // of an absolute list the low 16 bits
  uint32_t flags;         // CL_NO_SIZE and CL_RELATIVE
  command_list* next;
};

// The engine's lists, each with its last record and its tally. Written by the units named; emptied
// by dump_command_set. The tallies wrap and no decision depends on them.
extern command_record* first_sub;  // CM_SUBSTITUTE, by add_substitution
extern command_record* last_sub;
extern uint16_t num_subs;
extern command_record* first_sub_comp;  // CM_SUB_COMP, by add_substitution
extern command_record* last_sub_comp;
extern command_record* first_sub_one;  // CM_SUB_ONE, by add_substitution
extern command_record* last_sub_one;
extern uint16_t num_sub_ones;
extern command_record* first_fill;  // CM_FILL, by add_substitution
extern command_record* last_fill;
extern command_record* first_move;  // CM_MOVE, by add_move
extern command_record* last_move;
extern uint16_t num_moves;
extern command_record* first_abs_move;  // CM_MOVE, by add_abs_move
extern command_record* last_abs_move;
extern uint16_t num_abs_moves;
extern command_record* first_checksum1;  // CM_CHECKSUM of the first image, by add_checksum
extern command_record* last_checksum1;
extern uint32_t checksum1;  // running checksum of the first image, written in memory mode
extern command_record* first_checksum2;
extern command_record* last_checksum2;
extern uint32_t checksum2;

// The engine's classes of increments, in order of first use. Written by add_increment (and taken
// back by the rehearsal of process_increments), read by the coder. Never emptied by the writer.
extern int32_t incr_values;                                           // classes in use
extern std::array<uint32_t, kMaxIncrementClasses> incr_value;         // new less old word
extern std::array<command_record*, kMaxIncrementClasses> first_incr;  // records of each class
extern std::array<command_record*, kMaxIncrementClasses> last_incr;
extern std::array<int32_t, kMaxIncrementClasses> num_incrs;  // their number

// Hang `record`, which comes from gen_alloc, behind the list that the two variables keep, and
// return it. From here on it belongs to the list.
command_record* append_command(command_record* record, command_record** first,
                               command_record** last);
command_list* append_list(command_list* list, command_list** first, command_list** last);
command_record* append_block(command_record* block, command_record** first, command_record** last);
// Puts `block` in front of the list, and returns it.
command_record* prepend_block(command_record* block, command_record** first, command_record** last);

// Release a chain of commands, and each header with its commands. The bytes that commands point to
// stay.
void free_commands(command_record* commands);
void free_command_list(command_list* lists);

// Owns a chain of commands, so that it is released on every road out of a function.
struct CommandsDeleter {
  void operator()(command_record* commands) const { free_commands(commands); }
};
using commands_ptr = std::unique_ptr<command_record, CommandsDeleter>;

// A chain that grows at both ends and belongs to the object.
struct command_chain {
  command_chain() = default;
  ~command_chain() { free_commands(first); }
  command_chain(const command_chain&) = delete;
  command_chain& operator=(const command_chain&) = delete;

  command_record* first = nullptr;
  command_record* last = nullptr;
};

// Takes a list out of its variables, which are null then.
commands_ptr take_commands(command_record** first, command_record** last);

// Keeps a buffer to which a command of the engine's lists points until reset_engine, and returns
// it.
const uint8_t* keep_bytes(gen_ptr<uint8_t> bytes);

}  // namespace kelvane
