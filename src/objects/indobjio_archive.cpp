// The common archive, read.
//
//   archive  8 bytes of magic, then members, each at an even offset
//   member   60 bytes of header, all text: 0 name, 16 date, 28 user, 34 group, 40 mode in octal,
//            48 size, 58 the bytes 0x60 0x0A; then the contents
//
// Dialects differ in the names. System V and GNU end a name with "/", and keep one that is too long
// for 16 bytes in a member "//" of its own, to which "/INDEX" points; the names there end in "/"
// and a line end, or in a zero with some tools. Others have a member "ARFILENAMES/" and " INDEX".
// In archives with the magic "!<elfa>\n" the name field itself grows in steps of 4 bytes until it
// ends in "/". Symbol tables are members with names of their own.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "byte_reader.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indobjio.h"
#include "indobjio_internal.h"

namespace kelvane {

std::array<char, kArchiveHeaderSize> ar = {};
std::array<char, kArchiveNameSize + 1> buff = {};
std::array<char, 512> longname = {};
archive_string_table ax_stringtab = {};
int32_t ax_strtabpos = 0;
bool gnu_arfilenames_seen = false;
bool null_terminated_overflow_table = false;
int32_t suffix = 1;
archive_member ret = {};

int64_t number_in(std::string_view text) {
  return std::strtoll(std::string(text).c_str(), nullptr, 10);
}

int32_t small_number_in(std::string_view text) {
  return static_cast<int32_t>(std::clamp<int64_t>(
      number_in(text), std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

void archive_read_error(const char* file_name) {
  gen_errorexit(kStatusFailure, "error reading archive file '%s'", file_name);
}

void* checked_ar_fread(void* buffer, size_t size, size_t count, std::FILE* stream,
                       const char* file_name) {
  if (std::fread(buffer, size, count, stream) == count) {
    return buffer;
  }
  if (std::feof(stream) == 0) {
    archive_read_error(file_name);
  }
  return nullptr;
}

namespace {

constexpr size_t kNameStep = 4;         // of a name that grows
constexpr size_t kShortenedName = 15;   // what a shortened name has, number and all
constexpr size_t kShortenedNumber = 3;  // digits of the number
constexpr int32_t kSuffixLimit = 0x1000;

bool is_space(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view field(size_t offset, size_t size) {
  return {ar.data() + offset, size};
}

// Reads a header whose name ends where a "/" stands. Gives false at the end of the file.
bool read_growing_header(std::FILE* stream, const char* file_name) {
  size_t length = kArchiveNameSize;
  if (checked_ar_fread(longname.data(), 1, length, stream, file_name) == nullptr) {
    return false;
  }
  for (;;) {
    size_t end = length;
    while (end > 0 && is_space(longname[end - 1])) {
      --end;
    }
    if (end > 0 && longname[end - 1] == '/') {
      longname[end - 1] = '\0';
      break;
    }
    if (length == longname.size()) {
      archive_read_error(file_name);
    }
    if (checked_ar_fread(longname.data() + length, 1, kNameStep, stream, file_name) == nullptr) {
      return false;
    }
    length += kNameStep;
  }
  std::copy_n(longname.data(), kArchiveNameSize, ar.data());
  return checked_ar_fread(ar.data() + kArchiveNameSize, 1, ar.size() - kArchiveNameSize, stream,
                          file_name) != nullptr;
}

bool read_header(std::FILE* stream, const char* file_name) {
  if (adi_style_ar_header != 0) {
    return read_growing_header(stream, file_name);
  }
  return checked_ar_fread(ar.data(), 1, ar.size(), stream, file_name) != nullptr;
}

void check_end_mark(std::FILE* stream, const char* file_name) {
  const char first = ar[kArchiveHeaderSize - 2];
  const char second = ar[kArchiveHeaderSize - 1];
  if (first != kArchiveEndMark[0] || second != kArchiveEndMark[1]) {
    gen_errorexit(kStatusFailure,
                  "Unexpected chars in archive file header '%s' at %d '\\%03o' '\\%03o'", file_name,
                  static_cast<int32_t>(std::ftell(stream)), static_cast<uint8_t>(first),
                  static_cast<uint8_t>(second));
  }
}

uint32_t octal_in(std::string_view text) {
  uint32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '7') {
      break;
    }
    value = value * 8 + static_cast<uint32_t>(c - '0');
  }
  return value;
}

void take_numbers() {
  ret.date = small_number_in(field(16, 12));
  ret.uid = small_number_in(field(28, 6));
  ret.gid = small_number_in(field(34, 6));
  ret.mode = octal_in(field(40, 8));
  ret.size = small_number_in(field(48, 10));
  ret.is_table = 0;
  ret.slash_terminated = 0;
}

// Whether the names of the table end in a zero alone. The first name that ends in "/" decides.
bool names_end_in_zeros(const archive_string_table& names) {
  bool found = false;
  for (int32_t i = 1; i < names.size; ++i) {
    const char before = names.bytes[i - 1];
    const char c = names.bytes[i];
    if (before == '/' && (c == '\0' || c == '\n')) {
      return false;
    }
    found = found || (c == '\0' && before != '\0' && before != '\n');
  }
  return found;
}

// Takes in the table whose header was read last. Gives false if there is no memory for it.
bool read_long_names(std::FILE* stream, const char* file_name, int32_t header_position) {
  gen_free(ax_stringtab.bytes);
  ax_stringtab = {};
  // Looked at before memory of that size is asked for.
  const int64_t rest = stream_rest(stream);
  if (ret.size < 0 || rest < 0 ||
      !fits(0, static_cast<uint64_t>(ret.size), static_cast<uint64_t>(rest))) {
    archive_read_error(file_name);
  }
  const auto size = static_cast<uint32_t>(ret.size);
  gen_ptr<char> bytes(gen_alloc_array<char>(size + 1));
  if (bytes == nullptr) {
    return false;
  }
  ax_strtabpos = header_position;
  if (std::fread(bytes.get(), 1, size, stream) != size) {
    archive_read_error(file_name);
  }
  bytes.get()[size] = '\0';
  ax_stringtab = {bytes.release(), ret.size};
  null_terminated_overflow_table = names_end_in_zeros(ax_stringtab);
  if (size % 2 != 0) {
    std::fgetc(stream);
  }
  return true;
}

bool is_symbol_table(std::string_view name) {
  return name.starts_with("/ ") || name.starts_with("__________EL") ||
         name.starts_with("__.SYMDEF") || name.starts_with("________64EL") ||
         (name.empty() && adi_style_ar_header != 0);
}

// Makes a name 15 characters long in place: what fits of it, a number, its suffix.
void shorten(char* name) {
  const std::string_view whole(name);
  const size_t dot = whole.rfind('.');
  const std::string ending(dot == std::string_view::npos
                               ? std::string_view()
                               : whole.substr(dot, kShortenedName - kShortenedNumber));
  std::array<char, kShortenedNumber + 1> number{};
  std::snprintf(number.data(), number.size(), "%.3x", static_cast<uint32_t>(suffix) % kSuffixLimit);
  char* const end = name + kShortenedName;
  std::copy(ending.begin(), ending.end(), end - ending.size());
  std::copy_n(number.data(), kShortenedNumber, end - ending.size() - kShortenedNumber);
  *end = '\0';
  suffix = (suffix + 1) % kSuffixLimit;
}

// The name to which a name field points, or null if it isn't one that does.
char* long_name(std::string_view name) {
  const bool points = name.starts_with('/') || (name.starts_with(' ') && gnu_arfilenames_seen);
  if (!points || name.size() < 2 || !is_digit(name[1])) {
    return nullptr;
  }
  const int32_t index = small_number_in(name.substr(1));
  if (index >= ax_stringtab.size) {
    return nullptr;
  }
  char* const found = ax_stringtab.bytes + index;
  if (!null_terminated_overflow_table) {
    const char* const last = ax_stringtab.bytes + ax_stringtab.size - 1;
    char* end = found;
    while (end < last && *end != '\0' && *end != '/' && *end != '\n') {
      ++end;
    }
    ret.slash_terminated = *end == '/' ? 1 : 0;
    *end = '\0';
  }
  if (no_long_filenames_in_ar_header != 0 && std::strlen(found) > kShortenedName) {
    shorten(found);
  }
  return found;
}

// The name that stands in the header itself, without the blanks and the "/" behind it.
const char* short_name() {
  size_t last = kArchiveNameSize - 1;
  while (last > 0 && is_space(ar[last])) {
    --last;
  }
  size_t length = last + 1;
  if (ar[last] == '/') {
    ret.slash_terminated = 1;
    --length;
  }
  std::copy_n(ar.data(), length, buff.data());
  buff[length] = '\0';
  return buff.data();
}

// The name of the member whose header was read last at `position`.
const char* member_name(std::string_view name, int32_t position) {
  if (is_symbol_table(name)) {
    ret.is_table = 1;
  } else if (const char* const pointed_to = long_name(name)) {
    return pointed_to;
  } else if (adi_style_ar_header == 0) {
    if (ax_strtabpos == 0) {
      ax_strtabpos = position;
    }
    return short_name();
  }
  if (adi_style_ar_header != 0) {
    return longname.data();
  }
  // A symbol table has its whole field for a name.
  std::copy_n(ar.data(), kArchiveNameSize, buff.data());
  buff.back() = '\0';
  return buff.data();
}

}  // namespace

archive_member* read_archive_header(std::FILE* stream, const char* file_name) {
  for (;;) {
    const auto position = static_cast<int32_t>(std::ftell(stream));
    if (!read_header(stream, file_name)) {
      return nullptr;
    }
    check_end_mark(stream, file_name);
    take_numbers();
    const std::string_view name =
        adi_style_ar_header != 0 ? std::string_view(longname.data()) : field(0, kArchiveNameSize);
    const bool gnu = name.starts_with("ARFILENAMES/");
    if (gnu || name.starts_with("// ")) {
      gnu_arfilenames_seen = gnu;
      if (!read_long_names(stream, file_name, position)) {
        return nullptr;
      }
      continue;
    }
    ret.name = member_name(name, position);
    if (ret.size < 0) {
      gen_warning("%s has negative size (%d)", ret.name, ret.size);
    }
    return &ret;
  }
}

}  // namespace kelvane
