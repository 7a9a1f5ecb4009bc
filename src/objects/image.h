#pragma once

#include <cstdint>

#include "elf32.h"
#include "indgadr.h"

// What a run knows of an input: the loaded file, its sections, its symbols. Plain records that the
// engine and the driver read.
namespace kelvane {

// Set by the option -ram: memory mode, a comparison section by section at target addresses. In
// file mode, 0, a comparison of the files whole.
extern int32_t fDiffMemory;

// A section as it takes part in a comparison. The key is `name`, unique within a file.
struct sym_addr {
  char* name;                // owned, after mapping
  uint32_t type;             // sh_type of the section
  gadr addr;                 // target address, after memory aliases
  gadr offset;               // of the contents, counted from the start of their object
  uint32_t size;             // bytes of contents
  uint32_t compressed_size;  // bytes of stored compressed data; 0 if it is not compressed
  uint32_t object_start;     // where the object that `offset` counts from starts in the file
};

// A loaded input file.
struct file_data {
  const char* name;        // borrowed from the command line
  uint8_t* bytes;          // the file whole; owned, never freed
  int32_t size;            // number of bytes actually read
  uint32_t checksum;       // bd_checksum of the whole file, started from 0
  int32_t big_endian;      // 1 for a big-endian target
  sym_addr* sections;      // first section record
  sym_addr* sections_end;  // behind the last one
  uint32_t crt1;           // value of the symbol __qvr_ind_crt1; 0 if it was not found
};

// The symbols of a file.
struct symbol_table {
  int32_t count;           // number of symbol records
  int32_t relevant;        // leading records that searches may use; set by run_sequence
  elf32::symbol* records;  // owned, never freed
  char* strings;           // string table that st_name indexes; owned, never freed
  uint32_t strings_size;   // bytes of `strings`; one zero more stands behind them
};

// Name of a symbol of that table: the string at its st_name, empty if that lies outside the
// strings.
inline const char* symbol_name(const symbol_table& symbols, const elf32::symbol& record) {
  return record.st_name < symbols.strings_size ? symbols.strings + record.st_name : "";
}

// `table` describes the file that was loaded last, and has no symbols as long as no reader of
// images fills it. run_sequence copies it to `table1` for the first file and to `table2` for the
// second.
extern symbol_table table;
extern symbol_table table1;
extern symbol_table table2;

}  // namespace kelvane
