#pragma once

#include <cstdint>
#include <cstdio>

// COFF object files: numbers in a byte order chosen at run time, that order found from the file
// header, and the file's records read and written field by field. ECOFF's records are in
// comcoff2.h, the headers of PE images in pecoff.h; both go through what is here.
//
// The records are those of the published format, with its field names. All settings below are
// process-wide, and one file is read or written at a time. Nobody sets them for a file but
// get_endian_header, and only from -1: a reader of a whole file sets `bigendian` and `bcscompat` to
// -1 and `ecoff` to what it expects, and then calls that.
//
// Streams and records are the caller's. Where a file ends too early, the numbers that it lacks are
// 0, and nothing is reported but by the result.
namespace kelvane {

// 1 big-endian, 0 little-endian, -1 not yet determined. All but 0 reads and writes big-endian.
// Written by get_endian_header and whoever reads or writes a file.
extern int32_t bigendian;
// Not 0: the file's long fields have 64 bits. Written by whoever reads a file.
extern int32_t ecoff;
// Not 0: i960 variant, sections have an alignment and symbols extra fields. Written by
// get_endian_header and whoever reads a file.
extern int32_t coff960;
// Not 0: BCS variant, symbols of 20 bytes and counts of 32 bits; -1 not yet determined. Written by
// get_endian_header, fixCOFFmagic and whoever reads a file.
extern int32_t bcscompat;
// Bytes of a symbol record in the file. Written by get_endian_header and whoever reads a file.
extern int32_t symsize;
// Not 0: a high half of a long field that says something is no cause for a warning. Written by
// whoever reads a file.
extern int32_t dynamic;
// Not 0: the high half 0xFFFFFC00 is none either. Written by whoever reads a file.
extern int32_t only_globals;

// What read_string read last: 1023 characters at most and a zero. Written by read_string.
inline constexpr uint32_t kStringSize = 1024;
extern char str[kStringSize];

namespace coff {

// The section header with counts of 16 bits.
struct scnhdr {
  char s_name[8];  // padded with zeros, without one if all 8 are used
  uint32_t s_paddr;
  uint32_t s_vaddr;
  uint32_t s_size;
  uint32_t s_scnptr;
  uint32_t s_relptr;
  uint32_t s_lnnoptr;
  uint16_t s_nreloc;
  uint16_t s_nlnno;
  uint32_t s_flags;
  uint32_t s_align;  // of the i960 variant
};

// The same with counts of 32 bits.
struct section_header {
  char s_name[8];
  uint32_t s_paddr;
  uint32_t s_vaddr;
  uint32_t s_size;
  uint32_t s_scnptr;
  uint32_t s_relptr;
  uint32_t s_lnnoptr;
  uint32_t s_nreloc;
  uint32_t s_nlnno;
  uint32_t s_flags;
  uint32_t s_align;
};

struct symbol {
  // Padded with zeros. If the first four are zeros, the name stands in the string table instead,
  // at n_offset.
  char n_name[8];
  uint32_t n_offset;  // 0 for a name that stands here
  uint32_t n_value;
  int16_t n_scnum;
  uint32_t n_type;   // 16 bits, in the i960 variant 32
  uint16_t n_flags;  // of the i960 variant
  uint8_t n_sclass;
  uint8_t n_numaux;  // auxiliary records behind this one
};

}  // namespace coff

// ---- Numbers, in the order that `bigendian` says.

// Read 1, 2, 4 or 8 bytes into `*value`. Give 0, or -1 and a value of 0 if the file ends before.
int32_t GETCHAR(uint8_t* value, std::FILE* stream);
int32_t GETSHORT(uint16_t* value, std::FILE* stream);
int32_t GETINT(uint32_t* value, std::FILE* stream);
// Two halves, in little-endian files the low one first: the high half times 2 to the power of 32,
// plus the low half taken as signed. So a low half from 0x80000000 on counts down from the high
// one.
int32_t GETLONGLONG(uint64_t* value, std::FILE* stream);

// Reads 4 bytes as the value; if `ecoff` is set, 4 more as the high half, which is dropped. That
// gives the warning "64-bit entries not supported!" unless `dynamic` is set or the half says
// nothing: it is 0, it is -1 behind a negative value, or it is 0xFFFFFC00 with `only_globals` set.
// Gives 0, also at the end of the file.
int32_t GETLONG(uint32_t* value, std::FILE* stream);

// Write the low 8, 16 or 32 bits of `value`, or two halves. A failure shows in the stream alone.
void PUTCHAR(uint32_t value, std::FILE* stream);
void PUTSHORT(uint32_t value, std::FILE* stream);
void PUTINT(uint32_t value, std::FILE* stream);
void PUTLONGLONG(uint32_t high, uint32_t low, std::FILE* stream);

// ---- The file header.

// Settles the byte order of a file from its magic as a big-endian host reads it. Of a magic of
// little-endian files `*magic` is byte-swapped and `*big_endian` 0, of one of big-endian files
// `*big_endian` is 1; both give 1. Any other gives -1 there and the result 0. A `bcscompat` of -1
// becomes 1 for the magic 0x16D and otherwise 0.
int32_t fixCOFFmagic(uint16_t* magic, int32_t* big_endian);

// Reads the file header, 20 bytes (24 if `ecoff` is set), where the stream stands; each pointer for
// a field may be null. With a `bigendian` of -1 the magic decides the byte order, and sets
// `bigendian`, `coff960` and `bcscompat`; where it is unknown, the other fields decide by a guess,
// which with a `warn` that isn't 0 gives the warning "unknown magic number, guessing %s endian byte
// order." with "big" or "little". The magic then stays as a big-endian host reads it. Two printable
// characters in place of a magic end the run with status 1 and "File appears to be ASCII".
//
// With `warn`, flags that are asked for and lack bit 0 give the warning "object file is
// relocatable". A `bcscompat` of -1 becomes 0, and `symsize` is set. Gives 1 if the magic isn't
// known (with `bigendian` 0 or 1 before: isn't one of files of that order), otherwise 0.
int32_t get_endian_header(std::FILE* stream, int32_t warn, uint16_t* magic, uint16_t* sections,
                          uint32_t* time, uint32_t* symbol_pointer, uint32_t* symbol_count,
                          uint16_t* optional_size, uint16_t* flags);

// Writes the 20 bytes of a file header.
void write_header(std::FILE* stream, uint16_t magic, uint16_t sections, uint32_t time,
                  uint32_t symbol_pointer, uint32_t symbol_count, uint16_t optional_size,
                  uint16_t flags);

// ---- Section headers. The readers give 0, or -1 if the file ends before.

// If `bcscompat` is 1, 16 bits that are dropped stand before each count in the file, in either byte
// order. Without `coff960` the alignment stays as it was.
int32_t read_sect_header(std::FILE* stream, coff::scnhdr* record);
// Writes counts of 16 bits and no alignment, whatever the variant.
void write_sect_header(std::FILE* stream, const coff::scnhdr* record);

// If `bcscompat` is 1, the counts have 32 bits in the file, otherwise 16. Without `coff960` the
// alignment becomes 0. It is never written.
int32_t read_section_header(std::FILE* stream, coff::section_header* record);
void write_section_header(std::FILE* stream, const coff::section_header* record);

// ---- Symbols and strings.

// Both work at `table_offset + index * symsize`, or with an `index` of -1 where the stream stands.
// They give 0; -1 for a `table_offset` below 1, an `index` below -1, and what can't be read or
// written whole.
int32_t read_symbol(std::FILE* stream, int64_t table_offset, int32_t index, coff::symbol* record);

// Writes the record with `name`. Up to 8 characters stand in the name field. Of a longer name the
// field is written as the record has it, if the first four bytes of that aren't all zeros.
// Otherwise the name is written to `string_stream`, without a zero behind it, at `string_offset +
// *string_position`, or where that stream stands if `string_offset` is negative; the record is
// written with its n_offset as it was, and then n_offset becomes `*string_position`, which grows by
// the length of the name. A null `name` writes the record's own field or offset.
int32_t write_symbol(std::FILE* stream, int64_t table_offset, int32_t index, coff::symbol* record,
                     const char* name, std::FILE* string_stream, int64_t string_offset,
                     uint32_t* string_position);

// Reads a string from `table_offset + offset` up to a zero byte, the end of the file or 1023
// characters. Gives `str`, which the next call overwrites; null if there was nothing to read.
const char* read_string(std::FILE* stream, int64_t table_offset, int64_t offset);

}  // namespace kelvane
