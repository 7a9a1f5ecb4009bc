#pragma once

#include <cstdint>

#include "image.h"

// Memory mode: two images compared section by section, at their target addresses. The sections of
// the new image are taken in the order of their addresses, each with the one of the same name in
// the old image; a section of the old image that the new one has not is never looked at.
namespace kelvane {

// The section records of the two files while diff_mem runs, in ascending order; written by it.
extern sym_addr* sym_addr_list1;
extern sym_addr* sym_addr_list2;

// Adds the commands and checksum regions that turn the memory of the first image into that of the
// second. `blocksize` and `max_scan` are those of do_diff, `deconstruct` that of do_sym_diff. Both
// section lists are sorted in place; the files stay as they are. What the commands point to stays
// to the end of the process. Ends the run with status 1 where sections of one image overlap, a
// section has no partner, partners stand in another order, lie more than half of the addresses
// apart, outside the addresses or outside their file, or where a compressed section is damaged.
void diff_mem(const file_data* first, const file_data* second, uint16_t blocksize, int32_t max_scan,
              int32_t deconstruct);

// Comparison of section records, as qsort takes it: by address, then the smaller first.
int32_t sym_addr_cmp(const void* a, const void* b);

// Ends the run with "%s: section '%s' overlaps section '%s'" and status 1 if two of the `count`
// sections at `list`, which are sorted, overlap. Addresses are compared as signed numbers here.
void check_overlap(const sym_addr* list, uint32_t count, const char* file_name);

// Adds a pair of sections to the two checksums, unless they are empty, and their regions to the
// lists.
void do_add_checksum(const uint8_t* buffer1, uint32_t address1, uint32_t size1,
                     const uint8_t* buffer2, uint32_t address2, uint32_t size2);

}  // namespace kelvane
