#pragma once

#include <cstdint>

#include "changed_stretch.h"

// Replaced bytes: given to increments first, cut around the equal bytes that they still hold, and
// each piece filed under the cheapest kind of command.
namespace kelvane {

// The buffer that Encode fills, process-wide and reused for each piece. Written by
// add_compressed_char and add_substitution. It only holds the result of the piece in hand.
extern uint8_t* compressed_buffer_start;  // null before the first use
extern uint8_t* compressed_buffer_end;    // the next free byte

// Handles a stretch of `length` bytes that stand at `old_bytes` in the first image and at
// `new_bytes` in the second. `command_address` is where the commands apply; `old_address` and
// `new_address` are the addresses of the stretch in the two images, which decide alignment.
void process_substitution(const uint8_t* old_bytes, const uint8_t* new_bytes,
                          uint32_t command_address, uint32_t length, uint32_t old_address,
                          uint32_t new_address);
void process_substitution(const changed_stretch& stretch);

// Files one piece of `size` (at least 1) bytes that is to be written at new address `address`: one
// byte as CM_SUB_ONE, 3 to 65534 equal bytes as CM_FILL, a piece that compresses well as
// CM_SUB_COMP, all others as CM_SUBSTITUTE. `bytes` is kept by reference unless it is compressed;
// the compressed copy stays until reset_engine.
void add_substitution(uint32_t address, uint32_t size, const uint8_t* bytes);

// The callback of Encode: appends the low 8 bits of `c` to the compressed buffer.
void add_compressed_char(int32_t c);

}  // namespace kelvane
