#pragma once

#include <cstdint>
#include <cstdio>

#include "indgadr.h"

// Structured files: binary files with a common header and a common set of value encodings. A patch
// of version 1 is one of them. The header is 20 bytes, big-endian on every host:
//   0   4 bytes  signature: 0x7F, then "QVR"
//   4   4 bytes  format version, 1
//   8   4 bytes  file type, chosen by the caller; 7 is a patch
//   12  4 bytes  file version, chosen by the caller
//   16  1 byte   encoding of the address mode
//   17  1 byte   descriptors, always 0
//   18  1 byte   raw array mark: 0 arrays value by value; 1 raw, big-endian; 2 raw, little-endian
//   19  1 byte   reserved, 0
// A file of version 0 holds its numbers in fixed 4-byte forms, any other in variable ones (ULEB128
// and SLEB128, as the DWARF format defines them).
//
// The value operations return no failures: a short read or a write error shows up in the stream's
// error state, and a value read at the end of the file comes out wrong, so a caller asks
// gf_got_error after a batch. The first error of a handle is reported, once, as "Error while
// processing \"%s\"".
namespace kelvane {

struct GFile {
  std::FILE* fp;             // null after gf_close
  char* name;                // owned copy of the file name, for messages; or null
  int32_t format_version;    // from the header
  uint32_t file_type;        // from the header
  uint32_t file_version;     // from the header; not 0: variable encodings
  uint32_t address_mode;     // mode of the addresses
  uint8_t descriptors;       // 0 in every handle that opens
  uint8_t swapped;           // raw arrays are in the order that the host has not
  void* mapping;             // memory mapping of the file; nil is all ones
  uint32_t mapping_size;     // its length; nil is all ones
  uint32_t base;             // stream position of the header; positions count from it
  uint8_t descriptor_error;  // sticky errors
  uint8_t constval_error;
  uint8_t alignpad_error;
  uint8_t mapping_error;
  uint8_t owns_file;       // the library opened `fp` and closes it
  uint8_t unmap_on_close;  // gf_close releases the mapping
  uint8_t got_error;       // an error was reported
  uint8_t writing;         // opened for writing
  uint8_t allocated;       // the library allocated the handle and frees it
  uint8_t raw_arrays;      // the raw array mark
};

// ---- Opening and closing.

// Opens a file for writing and writes its header. `handle` may be null, and then comes from
// gen_alloc; otherwise its storage is the caller's. `fp` may be null, and then `name` is opened; a
// stream that is given stays the caller's, and the header goes where it stands. Gives the handle,
// or null on failure. `descriptors` is not supported: a warning, and it counts as 0.
GFile* gf_open_for_write(GFile* handle, std::FILE* fp, const char* name, uint32_t file_type,
                         uint32_t file_version, uint32_t address_mode, uint8_t descriptors,
                         uint8_t raw_arrays);

// The same for reading. A file with another header gives null, without a message but for "GFile
// desciptors not supported".
GFile* gf_open_for_read(GFile* handle, std::FILE* fp, const char* name);

// Closes what the library opened and releases what it allocated. Gives 1.
int32_t gf_close(GFile* handle);

// Maps the whole file into memory, read-only: only one that is open for reading and has its header
// at 0. Stores address and length through the two pointers, which may be null, and gives the
// address; all ones for both if it can't be mapped. With `unmap_on_close` gf_close releases it.
void* gf_open_memory_mapping(GFile* handle, uint8_t unmap_on_close, void** address, uint32_t* size);
// Releases a mapping, that of the handle if `address` is all ones. `handle` may be null.
void gf_close_memory_mapping(GFile* handle, void* address, uint32_t size);
// Gives all ones.
void* gf_get_nil_file_memory_mapping_handle();
// Whether an array of elements of 1 or 4 bytes can be used in the mapping where it stands.
bool gf_can_memory_map_array(const GFile* handle, uint32_t element_size);

// Stores and gives the position from the base; -1 on failure, which is an error of the handle.
// `position` may be null.
int32_t gf_tell(GFile* handle, int32_t* position);
// Seeks to a position from the base; a refusal is an error of the handle.
void gf_seek(GFile* handle, uint32_t position);

// ---- Error state.

// Reports the first error of a handle, with the text of errno if `use_errno` is set.
void gf_set_got_error(GFile* handle, uint8_t use_errno);
// Set a sticky flag and report.
void gf_set_descriptor_error(GFile* handle);
void gf_set_constval_error(GFile* handle);
void gf_set_alignpad_error(GFile* handle);
void gf_set_file_memory_mapping_error(GFile* handle);
// Whether any sticky flag is set or the stream is in error.
bool gf_got_error(const GFile* handle);
// Whether the stream has met its end; false with a warning if there is no stream or it isn't the
// library's.
bool gf_is_eof(const GFile* handle);

// ---- Values: gf_put_ writes at the position and gf_get_ reads there.

// 1, 2, 4 and 8 bytes, big-endian.
void gf_put_1(GFile* handle, uint32_t value);
uint8_t gf_get_1(GFile* handle);
void gf_put_2(GFile* handle, uint32_t value);
uint16_t gf_get_2(GFile* handle);
void gf_put_4(GFile* handle, uint32_t value);
uint32_t gf_get_4(GFile* handle);
void gf_put_8(GFile* handle, uint64_t value);
uint64_t gf_get_8(GFile* handle);

// Unsigned and signed numbers: 4 bytes, or ULEB128 and SLEB128. The end of the file inside one
// gives 0. -1 is 7F, 300 is AC 02.
void gf_put_un(GFile* handle, uint32_t value);
uint32_t gf_get_un(GFile* handle);
void gf_put_sn(GFile* handle, int32_t value);
int32_t gf_get_sn(GFile* handle);

// Indices, of which -1 is common: 4 bytes, or the value plus 1 as an unsigned number; and two and
// three of them, the later ones as the difference to the one before.
void gf_put_iss(GFile* handle, int32_t value);
int32_t gf_get_iss(GFile* handle);
void gf_put_iss_2(GFile* handle, int32_t first, int32_t second);
void gf_get_iss_2(GFile* handle, int32_t* first, int32_t* second);
void gf_put_iss_3(GFile* handle, int32_t first, int32_t second, int32_t third);
void gf_get_iss_3(GFile* handle, int32_t* first, int32_t* second, int32_t* third);
void gf_put_ind(GFile* handle, int32_t value);
int32_t gf_get_ind(GFile* handle);
void gf_put_ind_2(GFile* handle, int32_t first, int32_t second);
void gf_get_ind_2(GFile* handle, int32_t* first, int32_t* second);
void gf_put_ind_3(GFile* handle, int32_t first, int32_t second, int32_t third);
void gf_get_ind_3(GFile* handle, int32_t* first, int32_t* second, int32_t* third);

// A string with its terminator behind its length; null is the length 0. What is read is owned by
// the caller (gen_free) and always terminated.
void gf_put_str(GFile* handle, const char* string);
char* gf_get_str(GFile* handle);

// Addresses of 2, 4 and 8 bytes, and pairs, in variable files the second as a difference.
void gf_put_adr16(GFile* handle, uint32_t value);
uint16_t gf_get_adr16(GFile* handle);
void gf_put_adr32(GFile* handle, uint32_t value);
uint32_t gf_get_adr32(GFile* handle);
void gf_put_adr64(GFile* handle, const gadr* address);
void gf_get_adr64(GFile* handle, gadr* address);
void gf_put_adr16_2(GFile* handle, uint32_t first, uint32_t second);
void gf_get_adr16_2(GFile* handle, uint16_t* first, uint16_t* second);
void gf_put_adr32_2(GFile* handle, uint32_t first, uint32_t second);
void gf_get_adr32_2(GFile* handle, uint32_t* first, uint32_t* second);
void gf_put_adr64_2(GFile* handle, const gadr* first, const gadr* second);
void gf_get_adr64_2(GFile* handle, gadr* first, gadr* second);

// Target addresses, in the form of the handle's address mode. Below mode 3 a value of all ones is
// read as nil; mode 0 sets the offset only, mode 1 the low word, mode 2 the low word.
void gf_put_adr(GFile* handle, const gadr* address);
void gf_get_adr(GFile* handle, gadr* address);
void gf_put_adr_2(GFile* handle, const gadr* first, const gadr* second);
void gf_get_adr_2(GFile* handle, gadr* first, gadr* second);

// Write nothing: a value that is not the expected one is an error of the handle.
void gf_put_uc(GFile* handle, uint32_t value, uint32_t expected);
void gf_put_sc(GFile* handle, int32_t value, int32_t expected);

// ---- Padding and arrays.

// Align the position from the base to a power of 2. Pad bytes fall to 0xAB: AD AC AB. Reading
// others is an error of the handle.
void gf_put_alignpad(GFile* handle, uint32_t alignment);
void gf_get_alignpad(GFile* handle, uint32_t alignment);

// Raw bytes. The mapped form stores the address of the array in the mapping, or null and an error
// of the handle if there is none or the array does not lie inside it.
void gf_put_array_1(GFile* handle, const uint8_t* bytes, uint32_t count);
void gf_get_array_1(GFile* handle, uint8_t* bytes, uint32_t count);
void gf_skip_array_1(GFile* handle, uint32_t count);
void gf_get_mapped_array_1(GFile* handle, const uint8_t** pointer, uint32_t count);

// 4-byte values: raw and aligned where the file has raw arrays, otherwise value by value. Only raw
// arrays in the host's order can be had mapped.
void gf_put_array_4(GFile* handle, const uint32_t* values, uint32_t count);
void gf_get_array_4(GFile* handle, uint32_t* values, uint32_t count);
void gf_skip_array_4(GFile* handle, uint32_t count);
void gf_get_mapped_array_4(GFile* handle, const uint32_t** pointer, uint32_t count);
// Reverses the 4 bytes of each value in place.
void gf_swap_array_4(uint32_t* values, uint32_t count);

}  // namespace kelvane
