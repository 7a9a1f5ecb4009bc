#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "indobjio.h"

// What the parts of the unit share, and what its tests look at.
namespace kelvane {

// Common archives: sizes of a header and of the parts of it.
inline constexpr size_t kArchiveMagicSize = 8;
inline constexpr size_t kArchiveHeaderSize = 60;
inline constexpr size_t kArchiveNameSize = 16;
inline constexpr char kArchiveEndMark[] = {'\x60', '\x0A'};

// State across the headers of one archive, and on into the next: written by read_archive_header.
// The header as read.
extern std::array<char, kArchiveHeaderSize> ar;
// A short name, ended by a zero.
extern std::array<char, kArchiveNameSize + 1> buff;
// A name that is not of fixed length.
extern std::array<char, 512> longname;
// The table of long names; its bytes are owned and have a zero behind them.
extern archive_string_table ax_stringtab;
// Where the header of that table stands in its file, or the first short name if no table came
// before it; 0 for neither yet.
extern int32_t ax_strtabpos;
// Whether that table had the name "ARFILENAMES/", and whether its names end in zeros alone.
extern bool gnu_arfilenames_seen;
extern bool null_terminated_overflow_table;
// Number for the next name that is shortened, below 4096.
extern int32_t suffix;
// What read_archive_header gives.
extern archive_member ret;
// What the hooks get. Written by do_any_file, and cleared at the start of each.
extern object_info info;

// The number at the start of a text, behind white space, with or without a sign; 0 if there is
// none. One that is too large counts as the largest of its sign.
int64_t number_in(std::string_view text);
// The same in 32 bits.
int32_t small_number_in(std::string_view text);

// Ends the run with "error reading archive file '%s'".
[[noreturn]] void archive_read_error(const char* file_name);

// Puts hooks, switches and the state above back to program start.
void reset_indobjio();

}  // namespace kelvane
