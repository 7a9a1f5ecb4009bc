#include "indaixlib.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "byte_reader.h"
#include "indgen_memory.h"
#include "indobjio_internal.h"

namespace kelvane {

namespace {

// Bytes of the name that stand in the header, and bytes behind the name.
constexpr size_t kNameInHeader = sizeof(aix_member_header::name);
constexpr uint64_t kBehindName = 2;

template <size_t size>
int64_t number_of(const char (&field)[size]) {
  return number_in({field, size});
}

template <typename Record>
bool read_record(ByteReader& reader, Record* record) {
  return reader.read(std::span(reinterpret_cast<uint8_t*>(record), sizeof(Record)));
}

// Reads the header at `offset` and the name behind it; leaves the stream at the contents. Gives
// null if one of them isn't there.
gen_ptr<char> read_member(std::FILE* stream, int64_t offset, aix_member_header* header) {
  if (std::fseek(stream, static_cast<long>(offset), SEEK_SET) != 0) {
    return nullptr;
  }
  ByteReader reader(stream, ByteOrder::big);
  if (!read_record(reader, header)) {
    return nullptr;
  }
  const int64_t length = number_of(header->name_length);
  if (length <= static_cast<int64_t>(kNameInHeader)) {
    return nullptr;
  }
  const size_t remainder = static_cast<size_t>(length) - kNameInHeader;
  const std::vector<uint8_t> rest_of_name = reader.bytes(remainder);
  if (reader.failed()) {
    return nullptr;
  }
  gen_ptr<char> name(gen_alloc_array<char>(static_cast<uint32_t>(length) + 1));
  char* const behind = std::copy_n(header->name, kNameInHeader, name.get());
  std::copy(rest_of_name.begin(), rest_of_name.end(), behind);
  return reader.skip(kBehindName + static_cast<uint64_t>(length % 2)) ? std::move(name) : nullptr;
}

char* read_member_or_clear(std::FILE* stream, int64_t offset, aix_member_header* header) {
  gen_ptr<char> name = read_member(stream, offset, header);
  if (name == nullptr) {
    *header = {};
  }
  return name.release();
}

}  // namespace

int32_t aix_archive_read_file_header(std::FILE* stream, aix_file_header* header) {
  ByteReader reader(stream, ByteOrder::big);
  return read_record(reader, header) ? 1 : 0;
}

char* aix_archive_read_first_member_header(std::FILE* stream, const aix_file_header* file_header,
                                           aix_member_header* member_header) {
  if (number_of(file_header->last_member) == 0) {
    *member_header = {};
    return nullptr;
  }
  return read_member_or_clear(stream, aix_archive_first_offset(file_header), member_header);
}

char* aix_archive_read_next_member_header(std::FILE* stream, const aix_file_header* file_header,
                                          const aix_member_header* previous_member_header,
                                          aix_member_header* member_header) {
  const int64_t offset = aix_archive_next_offset(previous_member_header);
  if (offset == 0 || std::memcmp(previous_member_header->next_member, file_header->member_table,
                                 sizeof file_header->member_table) == 0) {
    *member_header = {};
    return nullptr;
  }
  return read_member_or_clear(stream, offset, member_header);
}

int64_t aix_archive_first_offset(const aix_file_header* file_header) {
  return number_of(file_header->first_member);
}

int64_t aix_archive_next_offset(const aix_member_header* member_header) {
  return number_of(member_header->next_member);
}

int64_t aix_archive_get_member_date(const aix_member_header* member_header) {
  return number_of(member_header->date);
}

}  // namespace kelvane
