#pragma once

#include <cstdint>
#include <cstdio>

#include "indmagic.h"

// Any file, and each member of any library, handed to the reader of its format. The library formats
// themselves are read here: the common archive in its dialects, the AIX and the Oasys library; and
// the common archive is written. All of it rests on static records, so it is for one caller at a
// time.
namespace kelvane {

// ---- Records

// A member of a common archive, as its header tells. The numbers are the header's text, cut to
// what their type holds.
struct archive_member {
  const char* name;  // in a static buffer or in the table of long names
  int32_t date;      // seconds
  int32_t uid;
  int32_t gid;
  uint32_t mode;
  int32_t size;              // bytes of contents
  uint8_t is_table;          // a symbol table of the archive, no object
  uint8_t slash_terminated;  // the name ended in "/"
};

// The object at hand, as each hook gets it. Strings belong to the dispatcher and are good until the
// hook comes back.
struct object_info {
  const char*
      display_name;  // for messages: FILE, FILE(MEMBER), or FILE[MEMBER] of an Oasys library
  const char* archive_name;       // the file if it is a library, else null
  const char* member_name;        // the member, or the file if it is none
  const file_magic* magic;        // null for a broken PE file, and at the end of a library
  int32_t in_library;             // 1 for a member
  int32_t member_offset;          // of the contents, in the file; 0 if it is no library
  archive_member* member_header;  // of a common archive, else null
};

// A table of long member names, one behind the other.
struct archive_string_table {
  char* bytes;
  int32_t size;
};

// ---- Hooks: who reads which format. Null, which is the state at start of all but one, is nobody.
// Written by a host program, which may put them at any time but during do_any_file.

using object_hook = int32_t (*)(std::FILE* stream, std::FILE* second_stream, object_info* object);
using library_hook = int32_t (*)(std::FILE* stream, object_info* object);

extern object_hook do_BSD_file_ptr;               // class 1
extern object_hook do_COFF_file_ptr;              // classes 2, 4, 5, 6
extern object_hook do_ELF_file_ptr;               // class 3
extern object_hook do_QVR_file_ptr;               // class 9
extern object_hook do_OOF_file_ptr;               // class 10
extern object_hook do_import_library_file_ptr;    // class 11
extern object_hook do_misc_file_ptr;              // class 13
extern object_hook do_windows_resource_file_ptr;  // class 14
extern object_hook do_unknown_file_ptr;           // all others
// For a member that is a symbol table of a common archive; before and behind the members of any
// library. Their results don't count.
extern library_hook do_TOC_file_ptr;
extern library_hook do_archive_start_ptr;
extern library_hook do_archive_end_ptr;

// ---- Switches

// 1 while member names of a common archive have no fixed length but end in "/". Written by
// do_any_file: 1 for class 16.
extern int32_t adi_style_ar_header;
// Set, it shortens long member names to 15 characters with a number in them. Written by a host
// program; nobody here does.
extern int32_t no_long_filenames_in_ar_header;

// ---- Reading

// Hands the file, or each of its members if it is a library, to the hook for its format. Gives the
// result of the last object hook: -1 for a file that has none, 0 for a member that has none and for
// a library without objects. Ends the run with status 1 and
//   "unable to open input file '%s'"
//   "error reading archive file '%s'"      also for a negative size and for members in a circle
//   "Unexpected chars in archive file header '%s' at %d '\\%03o' '\\%03o'"
//   "failed reading the header of Oasys 68K library '%s'", "failed reading Oasys 68K library '%s'"
//   "failed reading the header of AIX format library '%s'"
// What lies outside the file otherwise ends a library as its end does.
int32_t do_any_file(const char* name);

// Calls the hook for the class of `object->magic`, a null one being class 17, with the stream at
// the start of the object. Gives its result, or what do_any_file tells for nobody.
int32_t do_object_file(std::FILE* stream, std::FILE* second_stream, object_info* object);

// Reads the next member header of a common archive and takes in tables of long names on the way.
// Gives a static record, or null at the end of the file. The stream then stands at the member's
// contents. A negative size is reported as "%s has negative size (%d)", a warning; for other faults
// see do_any_file.
archive_member* read_archive_header(std::FILE* stream, const char* file_name);

// fread. Gives `buffer` if all items arrived and null at the end of the file; a failure to read
// ends the run with status 1 and "error reading archive file '%s'".
void* checked_ar_fread(void* buffer, size_t size, size_t count, std::FILE* stream,
                       const char* file_name);

// ---- Writing a common archive. A writer first puts all long names into a table
// (archive_name_is_long, add_long_archive_name), writes "!<arch>\n" and that table, and then each
// member: its header, its contents, a line end if their size is odd.

// Writes the header of a member from the record's numbers. A name gets a "/" behind it unless it
// begins with one. One of 16 or more characters is reported as "Name '%s' in archive '%s' exceeds
// 16 character limit. Truncated." and cut so that both fit 16 bytes; negative numbers but the size
// are reported by check_sprintf, under the archive's name.
void write_archive_header(std::FILE* stream, const char* archive_name, const archive_member* record,
                          const char* name);

// Writes the table of long names as a member "//", with zeros up to a size divisible by 4. Writes
// nothing for a null or an empty table.
void write_archive_string_table(std::FILE* stream, const char* archive_name,
                                const archive_string_table* names);

// Puts `value` in the printf form `format` (one conversion of an int) into `length` bytes of a
// header, with no terminator; what doesn't fit is cut off, and bytes behind a shorter text stay.
// With `check_negative`, a negative value gives the warning "%s: field %s is negative (%d) changed
// to 0." and is written as 0.
void check_sprintf(const char* name, char* destination, int32_t length, const char* format,
                   int32_t value, const char* field_name, bool check_negative);

// The room that the name takes in the table: its length and 2, or 0 for one of fewer than 15
// characters, which stands in the header itself.
int32_t archive_name_is_long(const char* name);

// Writes the name, "/" and a line end to `destination`, without a terminator, and gives the place
// behind them.
char* add_long_archive_name(char* destination, const char* name);

// The offset of `name` in the table, -1 if it isn't there. A name that is found is left ended by a
// zero.
int32_t find_in_archive_string_table(const char* name, archive_string_table* names);

// Writes "/INDEX", which stands for a long name in a header, with its terminator; 13 bytes do.
void archive_name_from_string_table_index(char* destination, int32_t index);

}  // namespace kelvane
