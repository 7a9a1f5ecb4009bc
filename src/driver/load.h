#pragma once

#include <cstdint>
#include <cstdio>

#include "image.h"

// Inputs read into memory, and taken apart if they are images.
namespace kelvane {

// Fills the record from the file `name`, which is borrowed, and `table` with the symbols of an ELF
// file. Gives 1, or 0 if the file could not be read into memory, which has been reported then. The
// record owns its bytes and sections. A file of a kind that isn't read has no sections, leaves
// `table` as it was, and has the byte order of the ELF file read last. A damaged image or library
// ends the run, as indelfio.h, section_filter.h and indobjio.h tell.
int32_t load_file(file_data* record, const char* name);

// Releases what load_file has made, and empties the record. The symbols stay.
void release_file(file_data* record);

// Reads the file whole into a fresh buffer, stores that through `out_bytes`, for the caller to
// release by gen_free, and gives the number of bytes read. Stores nothing on failure. A failure is
// reported and gives -1: "unable to open input file '%s'" and "error while reading input file '%s'"
// with the reason; "could not load '%s':
// %s" for a directory, a pipe, or more than 2147483647 bytes; "could not allocate %i bytes for file
// '%s'" for an empty file.
int32_t read_file(uint8_t** out_bytes, const char* name);

// Ends the run with "files have different endianness\n" and status 1 unless both files are of one
// byte order.
void check_byte_orders(const file_data* first, const file_data* second);

// Size of the stream's file in bytes, with the stream put back to its start; -1 if it can't seek.
int64_t file_size(std::FILE* stream);

}  // namespace kelvane
