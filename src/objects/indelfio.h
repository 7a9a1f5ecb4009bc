#pragma once

#include <cstdint>
#include <cstdio>

#include "elf32.h"

// The structures of 32-bit ELF files (System V ABI), read and written in either byte order on a
// host of either byte order. What a section means is not known here. Numbers in memory are in the
// host's order; the global `endian` steers the conversion.
//
// Every operation takes the stream first. Where a `buffer` is asked for, null means a fresh one
// from emalloc, which the caller releases by the platform's free. An `offset` is where to seek
// first, -1 for reading where the stream stands. errno is 0 before anything is read, so that a
// failure is reported with the reason of this read or with none.
//
// Failures go through die(): they end the run with status 1, or, while `errorcode` is set, are
// recorded there and the operation comes back with what it has.
//
//   words                               when
//   "internal, endian not set"          a number is read or written before `endian` is known; a
//                                       read gives zeros, a write writes nothing
//   "out of memory allocating %d bytes" emalloc; the result is null
//   "read failed"                       read_bytes: fewer bytes than asked for; also section
//                                       headers, symbols and strings that are larger than what is
//                                       left of the file, before memory is asked for
//   "bad elf magic number"              elf_readheader; the result is null
//
// Other tables are not held against the file's end: each missing byte of a number counts as 0xFF.
namespace kelvane {

// Byte order of the file being read or written, and after a load that of the file that was read
// last: 0 not yet known, 1 big-endian, 2 little-endian. Set by elf_readheader; whoever writes a
// file without reading one sets it.
extern int32_t endian;

// Where failures are recorded instead of ending the run; null at first, and then they end it.
// Written by elf_seterrorcond.
extern int32_t* errorcode;

// Makes `address` (null allowed) the place where failures are recorded, and puts 0 there.
void elf_seterrorcond(int32_t* address);
// Gives that place, so that a caller can put it back in `errorcode` afterwards.
int32_t* elf_geterrorcondaddr();

// Reports a failure. While `errorcode` is set, the integer becomes -1 and die returns. Otherwise
// the run ends with the text (at most two %d) and, if errno is not 0, its reason.
void die(const char* format, int32_t a, int32_t b) __attribute__((format(printf, 1, 0)));

// malloc that reports. A count of 0 gives null and is no failure.
void* emalloc(uint64_t count);

// ---- Numbers and bytes.

uint8_t read1(std::FILE* stream);
uint16_t read2(std::FILE* stream);
uint32_t read4(std::FILE* stream);
void write2(std::FILE* stream, uint16_t value);
void write4(std::FILE* stream, uint32_t value);
// Reads `count` bytes as they are. Gives the buffer, or null after a failure. A fresh buffer has a
// zero behind the bytes, so that strings in it end.
void* read_bytes(std::FILE* stream, void* buffer, uint32_t count);
// Reads `count` words of 4 bytes.
uint32_t* read_words(std::FILE* stream, uint32_t* buffer, uint32_t count);

// ---- Records.

// Reads the file header where the stream stands and sets `endian`: big if the identification says
// 2, else little. No other identification byte is looked at, so a 64-bit file gives nonsense.
elf32::file_header* elf_readheader(std::FILE* stream, elf32::file_header* buffer);
int32_t elf_writeheader(std::FILE* stream, const elf32::file_header* header);  // gives 1

elf32::program_header* elf_readprogheader(std::FILE* stream, elf32::program_header* buffer,
                                          uint32_t count, int64_t offset);
void elf_writeprogheader(std::FILE* stream, const elf32::program_header* headers, uint32_t count);

// `entry_size` is that of the file, 0 for the standard one. A smaller one than that is refused:
// null with nothing read. Of a larger one the surplus bytes of each entry are thrown away.
elf32::section_header* elf_readsecheader(std::FILE* stream, elf32::section_header* buffer,
                                         uint32_t count, int64_t offset, uint32_t entry_size);
int32_t elf_writesecheader(std::FILE* stream, const elf32::section_header* headers,
                           uint32_t count);  // gives 1

// `entry_size` as for section headers.
elf32::symbol* elf_readsymbol(std::FILE* stream, elf32::symbol* buffer, uint32_t count,
                              int64_t offset, uint32_t entry_size);
void elf_writesymbol(std::FILE* stream, const elf32::symbol* symbols, uint32_t count);
int32_t elf_write_symtab(std::FILE* stream, const elf32::symbol* symbols,
                         uint32_t count);  // gives 1

elf32::rel* elf_read_rel(std::FILE* stream, elf32::rel* buffer, uint32_t count, int64_t offset);
elf32::rela* elf_read_rela(std::FILE* stream, elf32::rela* buffer, uint32_t count, int64_t offset);
int32_t elf_write_rel(std::FILE* stream, const elf32::rel* records, uint32_t count);    // gives 1
int32_t elf_write_rela(std::FILE* stream, const elf32::rela* records, uint32_t count);  // gives 1

elf32::line_fix* elf_read_linefix(std::FILE* stream, elf32::line_fix* buffer, uint32_t count,
                                  int64_t offset);

// Writes raw bytes until all are written. Gives 1, or 0 if a write delivers nothing.
int32_t elf_write_unformatted_section(std::FILE* stream, const void* bytes, uint32_t count);

// Writes the contents of one section and sets its `sh_offset`. `position` is where the stream
// stands; it moves on by zeros that fill up to `sh_addralign` (a power of two) and, but for
// SHT_NOBITS, by `sh_size`. `data` is an array of records for symbols (type 2) and relocations (4
// with, 9 without addend), whose count is `sh_size` by `sh_entsize`, and bytes for the types 1, 3
// and 7. A section of size 0 gets the offset 0. Gives 1; 0 for another type, for records whose
// `sh_entsize` is 0, and where nothing can be written.
int32_t elf_write_section(std::FILE* stream, elf32::section_header* header, const void* data,
                          uint32_t* position);

// ---- Tables of an object that starts where the stream stands; offsets count from there, so that a
// member of an archive reads like a file of its own. The stream stays where the reading left it.
// Any null pointer gives 0.
//
// A string table that no section header describes counts as empty. A table without a last zero ends
// where it ends, and one zero more stands behind what is given. A failure in an object whose class
// byte says 64-bit neither ends the run nor is it recorded: the table is not there.

// Stores the section headers and the section name table (null for an empty one), both for the
// caller to free, and gives the number of sections. With 0 sections the headers are null and the
// names are left alone.
int32_t elf_read_section_and_string_table(std::FILE* stream, elf32::section_header** out_headers,
                                          char** out_names);

// Stores the symbols of ".symtab", or in a file without it of ".dynsym", and their strings, both
// for the caller to free, and gives the number of symbols. Without symbols or strings the result is
// 0, and nothing is stored.
int32_t elf_read_symbol_and_string_table(std::FILE* stream, elf32::symbol** out_records,
                                         char** out_strings);

// Gives the number of names of global and weak symbols in ".symtab" that are defined and don't
// begin with "..bof", "..eof" or "..lin". If there are any, stores an array of offsets, the block
// of names that they index, each with its zero, and the size of that block; the caller frees both.
int32_t elf_read_symbol_names(std::FILE* stream, uint32_t** out_offsets, char** out_strings,
                              uint32_t* out_size);

// ---- Queries. They leave the stream where it was; a null stream means the file `name`, opened for
// the question alone. A file that can't be opened, or too short a one, gives 0.

// Whether an ELF identification stands where the stream stands.
int32_t elfmagic(std::FILE* stream, const char* name);
// Whether the file, from its start on, says that it is big-endian.
int32_t elf_bigendian(std::FILE* stream, const char* name);
// Whether an archive begins where the stream stands whose first member that is no table is an ELF
// file.
int32_t elflibrary(std::FILE* stream, const char* name);

}  // namespace kelvane
