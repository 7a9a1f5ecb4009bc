#pragma once

#include <cstdint>
#include <cstdio>

#include "image.h"
#include "indobjio.h"

// Sections and symbols of a file, collected while it is loaded: the hook for ELF objects and what
// it does. A file of another kind never gets here, and has neither.
namespace kelvane {

// Records of a section list. The list of a file is one array of this capacity, so that pointers to
// records stay valid while it grows.
inline constexpr int32_t kMostSections = 32768;

// The load at hand, null outside of one: start of its section list, the record behind the last one
// in use, and the file under construction. Written by load_file; sym_addrp by add_symbol too.
extern sym_addr* sym_addr_list;
extern sym_addr* sym_addrp;
extern file_data* current_data;
// Where the object at hand starts in its file. Written by read_ELF_headers, read by add_symbol.
extern uint32_t object_start;

// The hook behind do_ELF_file_ptr, for an object that starts where the stream stands: appends its
// sections to the list, makes its symbols `table` and finds the start-up function of current_data.
// Gives 0. A damaged object ends the run as indelfio.h and section_filter.h tell, but a 64-bit one
// never for its tables: it has then no sections or no symbols.
int32_t do_ELF_file(std::FILE* stream, std::FILE* second_stream, object_info* object);

// The first half: hands each section to add_symbol, in file mode those with contents alone.
// `file_name` is for messages. The stream is put back, unless there are no sections.
void read_ELF_headers(std::FILE* stream, const char* file_name);

// The second half: `table` gets the symbols, and current_data the address of the first function
// "__qvr_ind_crt1" that is defined. On ARM bit 0 of its `st_other`, which tells Thumb code, becomes
// bit 0 of the address. A file without symbols leaves the strings of `table` alone.
void find_crt1_symbol(std::FILE* stream, object_info* object);

}  // namespace kelvane
