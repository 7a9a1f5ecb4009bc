#pragma once

#include <cstdint>

#include "image.h"

// Symbols brought into the order that the comparison needs. A symbol is eligible if it is an object
// or a function and is defined.
namespace kelvane {

// Comparison functions over symbol records, as qsort takes them; both put eligible records first.
// symtab_addr orders by address. symtab_cmp puts those with a size first and orders by name, which
// it reads through `table.strings`, so `table` must describe the records.
int32_t symtab_addr(const void* a, const void* b);
int32_t symtab_cmp(const void* a, const void* b);

// Sorts the records of `table` with one of the two, equal records in their order.
void sort_symbols(int32_t (*compare)(const void*, const void*));

// Of the records that share one address leaves one, the greatest, among equal sizes the earliest,
// and makes the others ineligible, each with a line at debug level 5. The records must be those of
// `table`, sorted by symtab_addr.
void symtab_del_dup(elf32::symbol* records, int32_t count);

// Number of leading records of `table` that are objects or functions, defined and of a size.
int32_t count_defined_with_size();
// Number of leading records of `table` that have a size.
int32_t count_with_size();

// Prints the names of the first `count` records of `table`, one a line, at debug level 5.
void print_symbol_names(int32_t count);

}  // namespace kelvane
