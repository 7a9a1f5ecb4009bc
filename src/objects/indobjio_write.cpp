// The common archive, written; indobjio_archive.cpp tells the format.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <string_view>

#include "indgen_file.h"
#include "indgen_message.h"
#include "indobjio.h"
#include "indobjio_internal.h"

namespace kelvane {

namespace {

// Names from here on stand in the table of long names.
constexpr size_t kLongName = 15;
constexpr uint32_t kTableUnit = 4;

bool ends_name(char c) {
  return c == '\0' || c == '/' || c == '\n';
}

void put_name(char* destination, std::string_view name) {
  const bool marked = name.starts_with('/');
  const std::string_view kept = name.substr(0, marked ? kArchiveNameSize : kArchiveNameSize - 1);
  std::copy(kept.begin(), kept.end(), destination);
  if (!marked) {
    destination[kept.size()] = '/';
  }
}

}  // namespace

void check_sprintf(const char* name, char* destination, int32_t length, const char* format,
                   int32_t value, const char* field_name, bool check_negative) {
  if (check_negative && value < 0) {
    gen_warning("%s: field %s is negative (%d) changed to 0.", name, field_name, value);
    value = 0;
  }
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), format, value);
  const std::string_view formatted(text.data());
  const std::string_view kept = formatted.substr(0, static_cast<size_t>(std::max(length, 0)));
  std::copy(kept.begin(), kept.end(), destination);
}

void write_archive_header(std::FILE* stream, const char* archive_name, const archive_member* record,
                          const char* name) {
  if (std::strlen(name) >= kArchiveNameSize) {
    gen_error("Name '%s' in archive '%s' exceeds 16 character limit. Truncated.", name,
              archive_name);
  }
  std::array<char, kArchiveHeaderSize> header{};
  header.fill(' ');
  char* const bytes = header.data();
  put_name(bytes, name);
  check_sprintf(archive_name, bytes + 16, 12, "%-12d", record->date, "time", true);
  check_sprintf(archive_name, bytes + 28, 6, "%-6d", record->uid, "uid", true);
  check_sprintf(archive_name, bytes + 34, 6, "%-6d", record->gid, "gid", true);
  check_sprintf(archive_name, bytes + 40, 8, "%-8o", static_cast<int32_t>(record->mode), "mode",
                true);
  check_sprintf(archive_name, bytes + 48, 10, "%-10d", record->size, "size", false);
  std::copy(std::begin(kArchiveEndMark), std::end(kArchiveEndMark), bytes + 58);
  gen_safe_fwrite(archive_name, bytes, 1, header.size(), stream);
}

void write_archive_string_table(std::FILE* stream, const char* archive_name,
                                const archive_string_table* names) {
  if (names == nullptr || names->bytes == nullptr || names->size <= 0) {
    return;
  }
  const auto size = static_cast<uint32_t>(names->size);
  const uint32_t padding = (kTableUnit - size % kTableUnit) % kTableUnit;
  archive_member record = {};
  record.date = static_cast<int32_t>(
      std::min<std::time_t>(std::time(nullptr), std::numeric_limits<int32_t>::max()));
  record.size = static_cast<int32_t>(size + padding);
  write_archive_header(stream, archive_name, &record, "//");
  gen_safe_fwrite(archive_name, names->bytes, 1, size, stream);
  const std::array<char, kTableUnit> zeros{};
  gen_safe_fwrite(archive_name, zeros.data(), 1, padding, stream);
}

int32_t archive_name_is_long(const char* name) {
  const size_t length = std::strlen(name);
  return length < kLongName ? 0 : static_cast<int32_t>(length + 2);
}

char* add_long_archive_name(char* destination, const char* name) {
  char* const end = std::copy_n(name, std::strlen(name), destination);
  end[0] = '/';
  end[1] = '\n';
  return end + 2;
}

int32_t find_in_archive_string_table(const char* name, archive_string_table* names) {
  if (names == nullptr || names->bytes == nullptr || names->size <= 0) {
    return -1;
  }
  const std::string_view wanted(name);
  char* const end = names->bytes + names->size;
  for (char* entry = names->bytes; entry < end;) {
    char* const terminator = std::find_if(entry, end, ends_name);
    if (terminator == end) {
      break;
    }
    if (std::string_view(entry, static_cast<size_t>(terminator - entry)) == wanted) {
      *terminator = '\0';
      return static_cast<int32_t>(entry - names->bytes);
    }
    const bool may_have_line_end = *terminator != '\0';
    entry = terminator + 1;
    if (may_have_line_end && entry < end && *entry == '\n') {
      ++entry;
    }
  }
  return -1;
}

void archive_name_from_string_table_index(char* destination, int32_t index) {
  constexpr size_t kRoom = 13;
  std::snprintf(destination, kRoom, "/%d", index);
}

}  // namespace kelvane
