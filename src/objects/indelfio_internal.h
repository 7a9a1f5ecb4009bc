#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "byte_order.h"
#include "elf32.h"

namespace kelvane {

// Forgets the byte order and where failures are recorded.
void reset_indelfio();

// Owns what comes from emalloc.
struct MallocDeleter {
  void operator()(void* pointer) const { std::free(pointer); }
};
template <typename T>
using malloc_ptr = std::unique_ptr<T[], MallocDeleter>;

// Gives the byte order that `endian` names; reports that it is not set and gives false.
bool order_of_file(ByteOrder* order);

// Whether the object that starts where the stream stands says that it is 64-bit.
bool is_64bit_object(std::FILE* stream);

// A string table: the text at an index, empty outside the table.
struct ElfStrings {
  malloc_ptr<char> bytes;
  uint32_t size = 0;

  const char* at(uint32_t index) const { return index < size ? bytes.get() + index : ""; }
};

struct ElfSections {
  malloc_ptr<elf32::section_header> headers;
  uint32_t count = 0;
  ElfStrings names;
};

struct ElfSymbols {
  malloc_ptr<elf32::symbol> records;
  uint32_t count = 0;
  ElfStrings strings;
};

// The table readers of indelfio.h, with the sizes of the string tables. `quiet` says that the
// object is known to be 64-bit, and a failure leaves the result empty.
ElfSections elf_read_sections(std::FILE* stream, bool quiet);
ElfSymbols elf_read_symbols(std::FILE* stream, bool quiet);

}  // namespace kelvane
