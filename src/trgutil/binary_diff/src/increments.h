#pragma once

#include <cstdint>

#include "changed_stretch.h"
#include "command_lists.h"

// Increments: 32-bit words that are patched by adding a value. Words that change by the same value
// form a class, so that only a list of addresses has to be stored for each value.
namespace kelvane {

// Reads one word from each side, from the address to the next word boundary; the lanes in front of
// the address count as 0. Gives the new word, and stores the old one unless `old_word` is null. The
// byte order is that of the target.
uint32_t word_diff(const uint8_t* old_bytes, const uint8_t* new_bytes, uint32_t old_address,
                   uint32_t new_address, uint32_t* old_word);

// Tells whether a change must not be taken for an increment: a word of 0 may change only by a
// multiple of 4 of magnitude below 0x1000000.
bool bad_diff(uint32_t old_word, uint32_t difference);

// Finds or makes the class of `difference`. With `recording` set also makes a record for the word
// at `address`, a multiple of 4. Gives 0, or 1 if no class is free.
int32_t add_increment(uint32_t address, uint32_t difference, uint32_t new_word, int32_t recording);

// Walks a stretch of replaced bytes and gives the number of bytes from its start that increments
// cover. The arguments are those of process_substitution. With `recording` 0 this is a rehearsal
// that leaves no class behind, and gives 0 if the differences don't all fit the table; only after a
// rehearsal that gave more, call it again with `recording` 1.
int32_t process_increments(const uint8_t* old_bytes, const uint8_t* new_bytes,
                           uint32_t command_address, uint32_t length, uint32_t old_address,
                           uint32_t new_address, int32_t recording);
int32_t process_increments(const changed_stretch& stretch, int32_t recording);

}  // namespace kelvane
