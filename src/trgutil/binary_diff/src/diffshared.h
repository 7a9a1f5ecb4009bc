#pragma once

#include <array>
#include <cstdint>

#include "block_search.h"
#include "image.h"

// The commands of a patch while they wait to be written, and the walk over two blocks that makes
// them. Every kind of command has one process-wide list; the patch holds all moves first, told in
// old addresses (in the first image), and then all else, told in new addresses (in the second), so
// no list needs to know of another. Lists are in the order in which their records were made, which
// is that of ascending addresses.
namespace kelvane {

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

// The lists, each with its last record and its tally. Written by the operations here and in the
// units named; emptied by dump_command_set. The tallies wrap and no decision depends on them.
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

// Hang `record`, which comes from gen_alloc, behind the list that the two variables keep, and
// return it. From here on it belongs to the list.
command_record* append_command(command_record* record, command_record** first,
                               command_record** last);
command_list* append_list(command_list* list, command_list** first, command_list** last);
command_record* append_block(command_record* block, command_record** first, command_record** last);
// Puts `block` in front of the list, and returns it.
command_record* prepend_block(command_record* block, command_record** first, command_record** last);

// Records that from old address `address` on everything shifts by `size` bytes more than before:
// positive for bytes inserted there, negative for bytes removed in front of it, 0 for an end mark.
void add_move(uint32_t address, int32_t size);

// The same for moves that are told outright: called in pairs, the start of a block with its
// displacement and the end of the block with 0.
void add_abs_move(uint32_t address, int32_t size);

// Records a region of `size` bytes that a checksum covers, in the list given.
void add_checksum(command_record** first, command_record** last, uint32_t address, uint32_t size);

// Compares two files whole, with the offsets as addresses. A stretch without any reasonable match
// ends the process with status 1, and below debug level 1 without a word.
void diff(const file_data* first, const file_data* second, uint16_t blocksize, int32_t max_scan);

// Compares two blocks, `size1` bytes at `buffer1` that stand at old address `address1` and `size2`
// bytes at `buffer2` that stand at new address `address2`, and adds the commands that turn the
// first into the second, among them exactly one end mark. `blocksize` and `max_scan`, in bytes,
// steer the search for the place where the blocks agree again. If it fails: with `fatal` set the
// process ends with status 1, past gen_exit; with it clear all that is left becomes one change.
void do_diff(const uint8_t* buffer1, uint32_t address1, uint32_t size1, const uint8_t* buffer2,
             uint32_t address2, uint32_t size2, uint16_t blocksize, int32_t max_scan,
             int32_t fatal);

// Records that `length1` bytes at `position1` of the old block became `length2` bytes at
// `position2` of the new one: a replacement as far as both reach, then a removal or an insertion.
void process_change(const uint8_t* buffer1, uint32_t address1, uint32_t position1, uint32_t length1,
                    const uint8_t* buffer2, uint32_t address2, uint32_t position2,
                    uint32_t length2);

}  // namespace kelvane
