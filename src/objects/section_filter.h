#pragma once

#include <cstdint>

// Which sections of an image take part in a comparison, and where they lie.
namespace kelvane {

// An address range that names the same memory as another: bits of `mask` are ignored when an
// address is compared with `address`, and are replaced by those of `address`.
struct memory_alias {
  uint32_t address;
  uint32_t mask;
};

// Names of sections that don't take part: a null-terminated array of owned strings, null until the
// first is added. Written by add_section_exclusion, complete before the first file is loaded.
extern char** section_exclusions;
// Aliases in the order in which they were added, ended by a pair of zeros; null until the first is
// added. Written by add_memory_alias, complete before the first file is loaded.
extern memory_alias* memory_aliases;

// Appends a copy of `name`.
void add_section_exclusion(const char* name);

// Appends a pair and prints it at debug level 2.
void add_memory_alias(uint32_t address, uint32_t mask);

}  // namespace kelvane
