#pragma once

#include <cstdint>
#include <cstdio>

// Oasys 68K libraries. All words have 4 bytes, the most significant first.
//
//   file    0 word 600, 4 two fields of 12 bytes, 28 word: number of entries,
//           32 word: offset of the entry table, 36 five words                          (56 bytes)
//   entry   0 word: its number, from 1, 4 field of 12 bytes, 16 five words,
//           36 word: length of the name, 40 the name and one byte, if the length isn't 0;
//           then as many units of 4 bytes as the second and third of the five words say;
//           the fifth of them is the offset of the member
namespace kelvane {

// The word at the start of a library, and what a successful read gives.
inline constexpr uint32_t kOasysLibraryWord = 600;

struct ooflib_header {
  uint32_t word;
  uint8_t fields[2][12];
  uint32_t entry_count;
  uint32_t table_offset;
  uint32_t words[5];
};

struct ooflib_tbl_entry {
  uint32_t number;  // counted from 1
  uint8_t field[12];
  uint32_t words[5];
  uint32_t name_length;
  char* name;      // owned, ended by a zero; null without a name
  void* unused_1;  // owned; null
  void* unused_2;  // owned; null
};

// Indexes into ooflib_tbl_entry::words.
inline constexpr size_t kOasysFirstUnits = 1;
inline constexpr size_t kOasysSecondUnits = 2;
inline constexpr size_t kOasysMemberOffset = 4;

// Reads the file header and gives its first word, or 1 if the file ends before.
uint32_t read_ooflib_header(std::FILE* stream, ooflib_header* record);

// Reads an entry, and skips what follows its name. Gives 600, or 1 if the entry doesn't lie whole
// in the file. What the record held is overwritten; release it by free_ooflib_tbl_entry_ptr, after
// a failure too.
uint32_t read_ooflib_tbl_entry(std::FILE* stream, ooflib_tbl_entry* record);

// Releases what the record owns, but not the record.
void free_ooflib_tbl_entry_ptr(ooflib_tbl_entry* record);

}  // namespace kelvane
