#pragma once

#include <cstdint>

// Debug print of the engine. What each level prints:
//   1  per section or block of sections; a failed search; cost of the increments; patch size
//   2  every command when it is made and when it is written
//   3  building of the command lists; symbol motion
//   4  hexadecimal dump of written data
//   5  names of symbols, and those deleted as duplicates; population tables and the accepting of
//      increment classes
//   7  each jump of the increment stream
//   8  each word difference and each put_bits
namespace kelvane {

// Threshold of dprintf. Written by the option -d, before anything prints. Others read it only to
// skip the making of lines that would not be printed.
extern int32_t debug_level;

// Prints to standard error if `debug_level` is at least `level`, and adds a newline unless `format`
// ends in one (an empty format gets one). Returns what vfprintf returned, 0 if nothing was printed.
int32_t dprintf(int32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// A target address as the argument of %p in a debug line: it prints as the host prints a pointer of
// that value. The result must not be dereferenced.
const void* address_for_print(uint32_t address);

}  // namespace kelvane
