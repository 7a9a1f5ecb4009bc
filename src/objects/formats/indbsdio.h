#pragma once

#include <cstdint>
#include <cstdio>

// BSD a.out object files: header, text, data, relocations, symbols and strings read, symbols sorted
// and filtered, header and symbols written.
//
// The file has, one behind the other: a header of 32 bytes, text, data, the relocations of both,
// the symbols, and the strings with a 32-bit word in front that tells their size, itself included.
// With the magic ZMAGIC the header belongs to the text, and segments begin on pages.
//
// Numbers are read and written by the primitives of indelfio.h in the order that its `endian` says,
// which Bsd_ReadHeader sets; its words report what can't be read, and end the run unless it was
// told where to record failures. What is larger than the rest of the file is reported as "read
// failed" before memory is asked for.
namespace kelvane {

namespace aout {

// Values of bsd_info::magic.
inline constexpr uint16_t OMAGIC = 0x107;
inline constexpr uint16_t NMAGIC = 0x108;
inline constexpr uint16_t ZMAGIC = 0x10B;

// Sizes of the records in a file, in bytes.
inline constexpr uint32_t kHeaderSize = 32;
inline constexpr uint32_t kSymbolSize = 12;

// A symbol, with the field names of the published format.
struct symbol {
  uint32_t n_strx;  // offset of the name in the string table
  uint8_t n_type;
  uint8_t n_other;
  uint16_t n_desc;
  uint32_t n_value;
};

// Values of symbol::n_type; the odd number above each is the same, visible outside its file.
inline constexpr uint8_t N_UNDF = 0;
inline constexpr uint8_t N_TEXT = 4;
inline constexpr uint8_t N_DATA = 6;
inline constexpr uint8_t N_BSS = 8;
inline constexpr uint8_t N_COMM = 18;
inline constexpr uint8_t kLastOrdinaryType = 30;  // those above are for debuggers

}  // namespace aout

// Indexes into bsd_info::relative_offsets and file_offsets.
namespace bsd_part {
inline constexpr uint32_t kText = 0;
inline constexpr uint32_t kData = 1;
inline constexpr uint32_t kTextReloc = 2;
inline constexpr uint32_t kDataReloc = 3;
inline constexpr uint32_t kSymbols = 4;
inline constexpr uint32_t kStrings = 5;
inline constexpr uint32_t kCount = 6;
}  // namespace bsd_part

// Indexes into bsd_info::load_addresses.
namespace bsd_address {
inline constexpr uint32_t kTextStart = 0;
inline constexpr uint32_t kTextEnd = 1;
inline constexpr uint32_t kDataStart = 2;
inline constexpr uint32_t kBssStart = 3;
inline constexpr uint32_t kBssEnd = 4;
inline constexpr uint32_t kCount = 5;
}  // namespace bsd_address

// What is known of one file or archive member. Sizes are in bytes.
struct bsd_info {
  // The header.
  uint16_t machine;
  uint16_t magic;
  uint32_t text_size;
  uint32_t data_size;
  uint32_t bss_size;
  uint32_t symbol_table_size;
  uint32_t entry;  // address
  uint32_t text_reloc_size;
  uint32_t data_reloc_size;

  uint8_t big_endian;
  // Exactly one is set: how the segments are laid out in memory.
  uint8_t style_paged;
  uint8_t style_other;
  uint8_t style_small;
  int32_t symbol_count;
  int32_t string_size;  // of the string table as stored, its size word included
  uint32_t page_size;
  uint32_t base_offset;  // where the header stands in the stream
  uint8_t symbols_read;
  uint8_t addresses_done;
  char* names[2];  // owned copies of what the caller gave, from gen_copy

  // Owned, null until read; from emalloc. The strings begin with their size word, and one zero
  // more stands behind them.
  aout::symbol* symbols;
  char* strings;
  uint8_t* text;
  uint8_t* data;
  uint8_t* text_reloc;
  uint8_t* data_reloc;

  uint32_t relative_offsets[bsd_part::kCount];  // behind base_offset
  uint32_t file_offsets[bsd_part::kCount];      // in the stream
  uint32_t load_addresses[bsd_address::kCount];
};

// ---- Reading. A null record or buffer means a fresh one from emalloc, which the caller releases
// by the platform's free; an `offset` of -1 means where the stream stands.

// Fills `info` from the header at `offset`, and sets `endian` and all that follows from the header.
// What the record held before is forgotten, not released. The names, each of which may be null, are
// copied for the caller's use. Gives the record; null after a recorded failure. A magic that is
// none of a.out ends the run with status 1 and "[Bsd_Init] bad magic".
bsd_info* Bsd_ReadHeader(std::FILE* stream, bsd_info* info, const char* name1, const char* name2,
                         int64_t offset);

// Works out style, page size, number of symbols and offsets from the header's fields and
// `base_offset`, in the same words for a bad magic. Bsd_ReadHeader has done so; again after a
// change of the header.
void Bsd_InitInfo(bsd_info* info);

// Releases what the record owns and clears it. The record itself stays the caller's.
void Bsd_FreeFile(bsd_info* info);

// Fills `load_addresses`, once. With `style_other` the lowest symbol of a segment tells where the
// segment begins, so the symbol table is loaded for that.
void Bsd_ComputeLoadAddresses(std::FILE* stream, bsd_info* info);

// Reads `count` symbols and gives the buffer, null after a recorded failure.
aout::symbol* Bsd_ReadSymbol(std::FILE* stream, aout::symbol* buffer, uint32_t count,
                             int64_t offset);

// Loads symbols and strings, once, and gives the number of symbols. Without symbols the strings are
// an empty string of size 0. Where the file has no size for the strings, or a negative one, they
// are null, and all symbols count as nameless.
int32_t Bsd_ReadSymbolAndStringTable(std::FILE* stream, bsd_info* info);

// Read a part whole and give it, as the record has it then; null for a part of size 0. One that was
// read before is read again.
uint8_t* Bsd_ReadText(std::FILE* stream, bsd_info* info);
uint8_t* Bsd_ReadData(std::FILE* stream, bsd_info* info);
uint8_t* Bsd_ReadTextReloc(std::FILE* stream, bsd_info* info);
uint8_t* Bsd_ReadDataReloc(std::FILE* stream, bsd_info* info);

// ---- Symbols, once they are loaded.

// The symbol at `index`, which lies from 0 to `symbol_count` - 1; null for any other.
aout::symbol* Bsd_Symbol(const bsd_info* info, int32_t index);

// Orders for qvr_sort. By value: 1 if the first is greater, otherwise -1, never 0. By address: the
// same, but common symbols behind all others. By name: as strcmp has it, `context` being a string
// table in which both names lie; the others take no context.
int32_t Bsd_ValueCmp(void* context, const void* first, const void* second);
int32_t Bsd_AddressCmp(void* context, const void* first, const void* second);
int32_t Bsd_NameCmp(void* context, const void* first, const void* second);

// Sort the symbols in place by these. A name outside the string table counts as empty. Equal ones
// end in no particular order.
void Bsd_SortSymbolsByValue(bsd_info* info);
void Bsd_SortSymbolsByAddress(bsd_info* info);
void Bsd_SortSymbolsByName(bsd_info* info);

// Makes the value of each ordinary symbol that isn't common its size: the distance to the next such
// symbol, of the last one to the end of bss. The symbols are sorted by value, and the load
// addresses computed, before.
void Bsd_SetSymbolValuesToSize(bsd_info* info);
// Sorts by value, does that, and sorts by value again, so by size.
void Bsd_SortSymbolsBySizeAndSetToValue(bsd_info* info);

using bsd_predicate = bool (*)(const bsd_info* info, const aout::symbol* symbol);

// Whether the symbol is for debuggers (its type is above 30); the second also tells of names that
// begin with "..lin.".
bool xIsDebugSymbol(const bsd_info* info, const aout::symbol* symbol);
bool xIsDebugOrQVRLineSymbol(const bsd_info* info, const aout::symbol* symbol);

// Remove the symbols for which `predicate` (xIsDebugSymbol, xIsDebugOrQVRLineSymbol) is true, keep
// the others in order, and give their number. A null `predicate` changes nothing. Addresses of
// symbols are good no longer.
int32_t Bsd_FilterSymbols(bsd_info* info, bsd_predicate predicate);
int32_t Bsd_FilterDebugSymbols(bsd_info* info);
int32_t Bsd_FilterDebugAndQVRLineSymbols(bsd_info* info);

// ---- Writing, in the order that `endian` says, at `offset` or, with -1, where the stream stands.
// Failures show in the stream.

// Writes the 32 bytes of the header where the stream stands.
void Bsd_WriteHeader(std::FILE* stream, const bsd_info* info);
// Null `symbols` write nothing.
void Bsd_WriteSymbol(std::FILE* stream, const aout::symbol* symbols, uint32_t count,
                     int64_t offset);
// Writes the size word, `size` + 4, and `size` bytes of strings. So bsd_info::strings are written
// from their fifth byte on.
void Bsd_WriteStringTable(std::FILE* stream, const char* strings, int64_t offset, uint32_t size);

}  // namespace kelvane
