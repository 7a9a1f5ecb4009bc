#pragma once

#include <cstdint>
#include <cstdio>

// AIX libraries of the small format: members chained by offsets, all numbers in decimal text.
//
//   file    0 "<aiaff>\n", 8 offset of the member table, 20 not used here, 32 offset of the first
//           member, 44 offset of the last member, 56 not used here                     (68 bytes)
//   member  0 not used here, 12 offset of the next member, 24 not used here, 36 date,
//           48 not used here, 84 length of the name (4 characters), 88 two characters of the name
//                                                                                      (90 bytes)
//           then the rest of the name, 2 bytes, and one more if the length is odd; then the
//           contents
//
// Offsets and date have 12 characters.
namespace kelvane {

struct aix_file_header {
  char magic[8];
  char member_table[12];
  char unused_1[12];
  char first_member[12];
  char last_member[12];
  char unused_2[12];
};

struct aix_member_header {
  char unused_1[12];
  char next_member[12];
  char unused_2[12];
  char date[12];
  char unused_3[36];
  char name_length[4];
  char name[2];
};

static_assert(sizeof(aix_file_header) == 68 && sizeof(aix_member_header) == 90);

// Reads the file header where the stream stands. Gives 1, or 0 with a cleared header if the file
// ends before.
int32_t aix_archive_read_file_header(std::FILE* stream, aix_file_header* header);

// Read the header of the first member, or of the one that follows `previous_member_header`, and
// leave the stream at the member's contents. Give the member's name, for the caller to release by
// gen_free; null with a cleared header if there is no such member, if it doesn't lie in the file,
// or if its name has fewer than three characters. Both records may be the same.
char* aix_archive_read_first_member_header(std::FILE* stream, const aix_file_header* file_header,
                                           aix_member_header* member_header);
char* aix_archive_read_next_member_header(std::FILE* stream, const aix_file_header* file_header,
                                          const aix_member_header* previous_member_header,
                                          aix_member_header* member_header);

// The offsets that these two go to.
int64_t aix_archive_first_offset(const aix_file_header* file_header);
int64_t aix_archive_next_offset(const aix_member_header* member_header);

// The date in seconds.
int64_t aix_archive_get_member_date(const aix_member_header* member_header);

}  // namespace kelvane
