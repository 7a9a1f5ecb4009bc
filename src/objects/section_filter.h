#pragma once

#include <cstdint>

// Which sections of an image take part in a comparison, under which name, and where they lie. A
// piece of memory can have several sections in an image: its RAM section, a copy of its initial
// contents in ROM, compressed or not. All of them become one record of the section list.
namespace kelvane {

// An address range that names the same memory as another: bits of `mask` are ignored when an
// address is compared with `address`, and are replaced by those of `address`. Only the bits from
// the lowest one of `address` upward are compared.
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

// Appends a copy of `name`, which is that of a RAM section and excludes its copies in ROM too.
void add_section_exclusion(const char* name);

// Appends a pair and prints it at debug level 2.
void add_memory_alias(uint32_t address, uint32_t mask);

// The mask of all bits from the lowest one of `x` upward: 0xFFF00000 for 0x00100000; 0 for 0.
uint32_t get_region_mask(uint32_t x);

// Takes a section into the list of the load at hand (section_list.h), or drops it. The numbers are
// those of its header; `file_name` is for messages. Names are mapped in memory mode alone:
//
//   .romfl1 .romfl2 .romfl3   .rflow1 .rflow2 .rflow3
//   .UNCOMPRESSEDx, .ROMx     x
//   .romx                     .x
//   .cromt_x                  .text_x, compressed
//   .cromx                    .x, compressed
//   another                   stays; dropped unless SHF_ALLOC is set
//
// In both modes "..lx", "..lin", "%%lin", "__caller." and "__callee." at the start of a name drop
// the section, and all others that begin with ".." or "%%" share the name "@#$%". Dropped are also
// what is excluded and in memory mode what belongs to no comparison (".heap" and others), with a
// line at debug level 1.
//
// A section whose name the list has gives that record what it knows better: the address counts if
// the section bears the name itself, type, contents and compressed size if it has contents; the
// size in any case, but for a compressed section, whose size is not that of the memory.
//
// Ends the run with status 1 and "Exclusion '%s' should use RAM section name instead for file '%s'"
// or "more than %d symbols found in '%s'" (sections, that is: 32768).
void add_symbol(const char* name, uint32_t addr, uint32_t offset, uint32_t size, uint32_t type,
                uint32_t flags, const char* file_name);

}  // namespace kelvane
