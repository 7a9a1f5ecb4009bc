#pragma once

#include <cstdint>

#include "block_search.h"
#include "command_lists.h"
#include "image.h"

// The walk over two blocks that turns their differences into commands.
namespace kelvane {

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
