#pragma once

#include <cstdint>
#include <cstdio>

#include "indgadr.h"

// Structured files: binary files with a common header and a common set of value encodings.
//
// A file begins with these 20 bytes, integers big-endian on every host:
//
//   offset  width  content
//   0       4      signature: 7F, then "QVR"
//   4       4      format version, 1 when written; a reader refuses anything above
//   8       4      file type
//   12      4      file version; 0 selects the fixed forms of values, another the variable forms
//   16      1      address encoding, the byte of gadr_encoding_from_mode
//   17      1      descriptors, always 0
//   18      1      raw array mark: 0 arrays of words stand value by value, big-endian; 1 raw in
//                  big-endian order; 2 raw in little-endian order
//   19      1      reserved, 0
//
// Positions that a caller sees count from the first byte of the header, so that a structured file
// can lie inside another file.
//
// Value operations return no failures: the error states are sticky, and a reader or writer asks
// gf_got_error after a batch. A number that is read at the end of the file is 0. The first error
// found on a handle is reported, once, as "Error while processing "NAME"" (class error, or class
// fatal with the reason where the system gave one), with UNKNOWN where there is no name. Nothing
// here ends the run.
namespace kelvane {

// The handle of a structured file. The caller may own the storage, or the library allocates it.
// Callers read the fields; only the library writes them.
struct GFile {
  std::FILE* fp;           // null after gf_close
  char* name;              // owned copy of the file name, or null; used in messages
  int32_t format_version;  // from the header
  uint32_t file_type;      // from the header
  uint32_t file_version;   // from the header; not 0 means variable forms
  int32_t address_mode;    // mode of gadr_set_mode
  uint8_t descriptors;     // 0 in every handle that opens
  uint8_t swapped;         // raw arrays stand in the other byte order than the host's
  void* mapping;           // the file's memory mapping; nil (all ones) without one
  uint32_t mapping_size;   // its length; all ones without one
  int32_t base;            // stream position of the header
  uint8_t descriptor_error;
  uint8_t constval_error;
  uint8_t alignpad_error;
  uint8_t mapping_error;
  uint8_t owns_file;       // the library opened `fp` and closes it
  uint8_t unmap_on_close;  // gf_close releases the mapping
  uint8_t got_error;       // an error was reported; only one report a handle
  uint8_t writing;         // opened for writing
  uint8_t allocated;       // the library allocated the handle and releases it
  uint8_t raw_arrays;      // the raw array mark
};

// ---- Opening and closing.

// Opens a structured file and writes its header, at the position of `fp`, or at the start of the
// file `name`, opened by gen_fopen, where `fp` is null. `name` may be null where `fp` is not. Fills
// `handle`, or a fresh handle where it is null, and gives it; gf_close ends its life. With
// `raw_arrays` set, arrays of words are stored raw in the host's byte order. Descriptors are not
// supported: with `descriptors` set, "GFile desciptors not supported" is a warning.
// Failure (the file can't be opened, the stream is in its error state): null, no message, nothing
// left open, and a handle of the caller's is cleared.
GFile* gf_open_for_write(GFile* handle, std::FILE* fp, const char* name, uint32_t file_type,
                         uint32_t file_version, int32_t address_mode, uint8_t descriptors,
                         uint8_t raw_arrays);

// The same for reading: takes the header from the position of `fp`, or from the start of `name`.
// A header that is cut short or wrong gives null with no message, except that one with descriptors
// is an error, "GFile desciptors not supported".
GFile* gf_open_for_read(GFile* handle, std::FILE* fp, const char* name);

// Ends the use of `handle` and gives 1. Closes the stream only if the library opened it; a failure
// to close is reported. Releases the name, a mapping opened with `unmap_on_close`, and the handle
// if the library allocated it.
int32_t gf_close(GFile* handle);

// Stores through `position` (may be null) and gives the position from the base; -1 on failure,
// which is reported.
int32_t gf_tell(GFile* handle, int32_t* position);

// Goes to a position from the base. Gives 0, or -1 on failure, which is reported.
int32_t gf_seek(GFile* handle, int32_t position);

// ---- Memory mapping.

// The value that stands for no mapping: all ones.
void* gf_get_nil_file_memory_mapping_handle();

// Maps the whole file for reading and gives the mapping, nil on failure. Only a file that is open
// for reading with a base of 0 can be mapped. Where `address` is not null, the mapping and its size
// are stored through `address` and `size` (all ones on failure). With `unmap_on_close`, gf_close
// releases the mapping; otherwise it outlives the handle, until gf_close_memory_mapping.
void* gf_open_memory_mapping(GFile* handle, uint8_t unmap_on_close, void** address, uint32_t* size);

// Releases the mapping of `size` bytes at `address`; where that is nil, the handle's own. `handle`
// may be null. Does nothing where there is no mapping.
void gf_close_memory_mapping(GFile* handle, void* address, uint32_t size);

// Tells whether arrays with elements of 1 or 4 bytes can be used in the mapping: 1 or 0. Another
// size is a warning, "GFile: [gf_can_map_hd_storage]: invalid array element size". `handle` may be
// null.
int32_t gf_can_memory_map_array(const GFile* handle, uint32_t element_size);

// ---- State. The flags never clear.

// Reports an error unless one was reported before; `use_errno` adds the reason.
void gf_set_got_error(GFile* handle, uint8_t use_errno);
// Set the flag of that name and report.
void gf_set_descriptor_error(GFile* handle);
void gf_set_constval_error(GFile* handle);
void gf_set_alignpad_error(GFile* handle);
void gf_set_file_memory_mapping_error(GFile* handle);

// 1 if one of the four flags is set or the stream is in its error state, else 0.
int32_t gf_got_error(const GFile* handle);

// The end-of-file state of a stream that the library opened, 1 or 0. Without a stream, or with one
// of the caller's, 0 and a warning: "[gf_check_eof]: fp==NULL", "[gf_check_eof]: fp==unowned".
int32_t gf_is_eof(const GFile* handle);

// ---- Values, written and read at the current position. "Variable" and "fixed" are the forms that
// the file version selects.

// Big-endian numbers of 1, 2, 4 and 8 bytes. One that the end of the file
// cuts reads as 0.
void gf_put_1(GFile* handle, uint8_t value);
uint8_t gf_get_1(GFile* handle);
void gf_put_2(GFile* handle, uint16_t value);
uint16_t gf_get_2(GFile* handle);
void gf_put_4(GFile* handle, uint32_t value);
uint32_t gf_get_4(GFile* handle);
void gf_put_8(GFile* handle, uint64_t value);
uint64_t gf_get_8(GFile* handle);

// An unsigned number: fixed 4 bytes; variable ULEB128 (groups of 7 bits, the lowest first, the top
// bit set in all bytes but the last). 300 is AC 02. 0 at the end of the file, inside a number too;
// bits above the 32nd are dropped.
void gf_put_un(GFile* handle, uint32_t value);
uint32_t gf_get_un(GFile* handle);

// A signed number: fixed 4 bytes; variable SLEB128 (the same, sign-extended from bit 6 of the last
// byte). -129 is FF 7E.
void gf_put_sn(GFile* handle, int32_t value);
int32_t gf_get_sn(GFile* handle);

// An index where -1 is common: fixed 4 bytes; variable the value plus 1 as by gf_put_un.
void gf_put_iss(GFile* handle, int32_t value);
int32_t gf_get_iss(GFile* handle);
void gf_put_ind(GFile* handle, int32_t value);
int32_t gf_get_ind(GFile* handle);

// Two or three of them: fixed 4 bytes each; variable the first as by gf_put_iss, each other one as
// its difference from the one before by gf_put_sn.
void gf_put_iss_2(GFile* handle, int32_t first, int32_t second);
void gf_get_iss_2(GFile* handle, int32_t* first, int32_t* second);
void gf_put_ind_2(GFile* handle, int32_t first, int32_t second);
void gf_get_ind_2(GFile* handle, int32_t* first, int32_t* second);
void gf_put_iss_3(GFile* handle, int32_t first, int32_t second, int32_t third);
void gf_get_iss_3(GFile* handle, int32_t* first, int32_t* second, int32_t* third);
void gf_put_ind_3(GFile* handle, int32_t first, int32_t second, int32_t third);
void gf_get_ind_3(GFile* handle, int32_t* first, int32_t* second, int32_t* third);

// A string: its length with the terminator by gf_put_un, then its bytes and the terminator; null
// is the length 0 alone. gf_get_str gives a fresh string, which the caller releases by gen_free, or
// null; what the file cuts short is as long as the file has it, and always terminated.
void gf_put_str(GFile* handle, const char* string);
char* gf_get_str(GFile* handle);

// Addresses of a fixed width: 2 or 4 bytes, or high word and low word.
void gf_put_adr16(GFile* handle, uint16_t address);
uint16_t gf_get_adr16(GFile* handle);
void gf_put_adr32(GFile* handle, uint32_t address);
uint32_t gf_get_adr32(GFile* handle);
void gf_put_adr64(GFile* handle, const gadr* address);
void gf_get_adr64(GFile* handle, gadr* address);

// Two of them: fixed one behind the other; variable the first, then the difference by gf_put_sn
// (of 64-bit addresses that of the high words, then that of the low words).
void gf_put_adr16_2(GFile* handle, uint16_t first, uint16_t second);
void gf_get_adr16_2(GFile* handle, uint16_t* first, uint16_t* second);
void gf_put_adr32_2(GFile* handle, uint32_t first, uint32_t second);
void gf_get_adr32_2(GFile* handle, uint32_t* first, uint32_t* second);
void gf_put_adr64_2(GFile* handle, const gadr* first, const gadr* second);
void gf_get_adr64_2(GFile* handle, gadr* first, gadr* second);

// An address by the address mode: 0 `off`, 1 `seg` by gf_put_sn and `off`, 2 the low word, 3 both
// words. Below mode 3 a value of all ones (of `off` or of the low word) reads as nil; otherwise
// what the mode doesn't store stays as the caller left it. Another mode writes and reads nothing.
void gf_put_adr(GFile* handle, const gadr* address);
void gf_get_adr(GFile* handle, gadr* address);
// Two of them, in mode 1 the two `seg`, then the two `off`.
void gf_put_adr_2(GFile* handle, const gadr* first, const gadr* second);
void gf_get_adr_2(GFile* handle, gadr* first, gadr* second);

// Write nothing. A value that differs from the expected one sets the constval error.
void gf_put_uc(GFile* handle, uint32_t value, uint32_t expected);
void gf_put_sc(GFile* handle, int32_t value, int32_t expected);

// ---- Padding and arrays.

// Aligns the position from the base to a power of 2. Pad bytes stand in descending order and end in
// AB, so three of them are AD AC AB. On reading, each that differs sets the alignpad error. Pads of
// more than 85 bytes don't read back clean. An alignment of 0 or 1 does nothing.
void gf_put_alignpad(GFile* handle, uint32_t alignment);
void gf_get_alignpad(GFile* handle, uint32_t alignment);

// Raw bytes, without padding.
void gf_put_array_1(GFile* handle, const uint8_t* bytes, uint32_t count);
void gf_get_array_1(GFile* handle, uint8_t* bytes, uint32_t count);
void gf_skip_array_1(GFile* handle, uint32_t count);

// Words: raw, with padding to 4 in front, where the file has raw arrays; otherwise one by one as by
// gf_put_4. A count of 0 does nothing.
void gf_put_array_4(GFile* handle, const uint32_t* values, uint32_t count);
void gf_get_array_4(GFile* handle, uint32_t* values, uint32_t count);
void gf_skip_array_4(GFile* handle, uint32_t count);

// Store through `pointer` where the array stands in the mapping, and move forward. A count of 0
// does nothing. Without a mapping, for words also without raw arrays or with those of the other
// byte order, and where the array does not lie in the mapping whole: null and the mapping error.
void gf_get_mapped_array_1(GFile* handle, const uint8_t** pointer, uint32_t count);
void gf_get_mapped_array_4(GFile* handle, const uint32_t** pointer, uint32_t count);

// Reverses the four bytes of each value.
void gf_swap_array_4(uint32_t* values, uint32_t count);

}  // namespace kelvane
