// COFF records. A record is taken from the stream as one block, whose size follows from the
// variant, and taken apart by a bounded cursor, so that a file that ends in the middle gives zeros.
#include "comcoff.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "comcoff_internal.h"
#include "indgen_message.h"

namespace kelvane {

int32_t bigendian = 0;
int32_t ecoff = 0;
int32_t coff960 = 0;
int32_t bcscompat = 0;
int32_t symsize = 0;
int32_t dynamic = 0;
int32_t only_globals = 0;
char str[kStringSize] = {};

void reset_comcoff() {
  for (int32_t* const setting :
       {&bigendian, &ecoff, &coff960, &bcscompat, &symsize, &dynamic, &only_globals}) {
    *setting = 0;
  }
  std::fill(std::begin(str), std::end(str), '\0');
}

ByteOrder coff_order() {
  return byte_order_of(bigendian != 0);
}

bool put_record(const ByteWriter& record, std::FILE* stream) {
  const std::span<const uint8_t> bytes = record.bytes();
  return std::fwrite(bytes.data(), 1, bytes.size(), stream) == bytes.size();
}

namespace {

constexpr size_t kNameSize = 8;
constexpr size_t kNameField = 4;  // zeros in front of an offset, in a field of kNameSize

// The high half that relocatable files of one kind have in all their symbols.
constexpr uint32_t kGlobalsHighHalf = 0xFFFFFC00;

void warn_of_high_half(uint32_t value, uint32_t high) {
  const bool sign_alone = high == UINT32_MAX && static_cast<int32_t>(value) < 0;
  const bool globals = only_globals != 0 && high == kGlobalsHighHalf;
  if (high != 0 && !sign_alone && !globals && dynamic == 0) {
    gen_warning("64-bit entries not supported!");
  }
}

void read_name(ByteReader& in, char (&name)[kNameSize]) {
  uint8_t bytes[kNameSize];
  in.read(bytes);
  std::copy(std::begin(bytes), std::end(bytes), name);
}

std::span<const uint8_t> bytes_of_text(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// Name and longs, alike in both forms of a section header.
template <typename Header>
void read_places(ByteReader& in, Header* record) {
  read_name(in, record->s_name);
  for (uint32_t* const field : {&record->s_paddr, &record->s_vaddr, &record->s_size,
                                &record->s_scnptr, &record->s_relptr, &record->s_lnnoptr}) {
    *field = long_from(in);
  }
}

template <typename Header>
void write_places(ByteWriter& out, const Header* record) {
  out.raw(bytes_of_text({record->s_name, kNameSize}));
  for (const uint32_t field : {record->s_paddr, record->s_vaddr, record->s_size, record->s_scnptr,
                               record->s_relptr, record->s_lnnoptr}) {
    out.u32(field);
  }
}

bool has_long_counts() {
  return bcscompat == 1;
}

// Bytes of a section header as this variant has it in the file.
size_t section_header_size() {
  const size_t counts = has_long_counts() ? 8 : 4;
  const size_t alignment = coff960 != 0 ? 4 : 0;
  return kNameSize + 6 * long_size() + counts + 4 + alignment;
}

uint32_t count_from(ByteReader& in) {
  return has_long_counts() ? in.u32() : in.u16();
}

bool has_padding() {
  return bcscompat != 0 || coff960 != 0;
}

// Bytes of a symbol as it is read and written, whatever `symsize` says of where it stands.
size_t symbol_record_size() {
  return 18 + (coff960 != 0 ? size_t{4} : 0) + (has_padding() ? size_t{2} : 0);
}

// Seeks to a symbol, and tells whether there is such a place.
bool seek_to_symbol(std::FILE* stream, int64_t table_offset, int32_t index) {
  if (table_offset < 1 || index < -1) {
    return false;
  }
  if (index == -1) {
    return true;
  }
  const int64_t distance = int64_t{index} * symsize;
  return distance <= INT64_MAX - table_offset &&
         std::fseek(stream, static_cast<long>(table_offset + distance), SEEK_SET) == 0;
}

bool is_in_string_table(const coff::symbol& record) {
  return std::all_of(record.n_name, record.n_name + kNameField,
                     [](char letter) { return letter == '\0'; });
}

// Writes a name to the string table and tells whether it went out.
bool append_string(std::FILE* stream, int64_t offset, uint32_t position, std::string_view name) {
  if (offset >= 0 && (offset > INT64_MAX - position ||
                      std::fseek(stream, static_cast<long>(offset + position), SEEK_SET) != 0)) {
    return false;
  }
  return std::fwrite(name.data(), 1, name.size(), stream) == name.size();
}

void write_symbol_fields(ByteWriter& out, const coff::symbol& record) {
  out.u32(record.n_value);
  out.u16(static_cast<uint16_t>(record.n_scnum));
  if (coff960 != 0) {
    out.u16(record.n_flags);
    out.u32(record.n_type);
  } else {
    out.u16(static_cast<uint16_t>(record.n_type));
  }
  out.u8(record.n_sclass);
  out.u8(record.n_numaux);
  out.zeros(has_padding() ? 2 : 0);
}

}  // namespace

uint64_t longlong_from(ByteReader& in) {
  const uint32_t first = in.u32();
  const uint32_t second = in.u32();
  const bool high_first = in.order() == ByteOrder::kBig;
  const uint64_t high = high_first ? first : second;
  const auto low = static_cast<int32_t>(high_first ? second : first);
  return in.failed() ? 0 : (high << 32U) + static_cast<uint64_t>(int64_t{low});
}

uint32_t long_from(ByteReader& in) {
  const uint32_t value = in.u32();
  if (ecoff != 0) {
    warn_of_high_half(value, in.u32());
  }
  return value;
}

size_t long_size() {
  return ecoff != 0 ? 8 : 4;
}

int32_t GETCHAR(uint8_t* value, std::FILE* stream) {
  FileRecord record(stream, 1);
  *value = record.in.u8();
  return record.result();
}

int32_t GETSHORT(uint16_t* value, std::FILE* stream) {
  FileRecord record(stream, 2);
  *value = record.in.u16();
  return record.result();
}

int32_t GETINT(uint32_t* value, std::FILE* stream) {
  FileRecord record(stream, 4);
  *value = record.in.u32();
  return record.result();
}

int32_t GETLONGLONG(uint64_t* value, std::FILE* stream) {
  FileRecord record(stream, 8);
  *value = longlong_from(record.in);
  return record.result();
}

int32_t GETLONG(uint32_t* value, std::FILE* stream) {
  FileRecord record(stream, long_size());
  *value = long_from(record.in);
  return 0;
}

void PUTCHAR(uint32_t value, std::FILE* stream) {
  ByteWriter out(coff_order());
  out.u8(static_cast<uint8_t>(value));
  put_record(out, stream);
}

void PUTSHORT(uint32_t value, std::FILE* stream) {
  ByteWriter out(coff_order());
  out.u16(static_cast<uint16_t>(value));
  put_record(out, stream);
}

void PUTINT(uint32_t value, std::FILE* stream) {
  ByteWriter out(coff_order());
  out.u32(value);
  put_record(out, stream);
}

void PUTLONGLONG(uint32_t high, uint32_t low, std::FILE* stream) {
  const bool high_first = coff_order() == ByteOrder::kBig;
  PUTINT(high_first ? high : low, stream);
  PUTINT(high_first ? low : high, stream);
}

int32_t read_sect_header(std::FILE* stream, coff::scnhdr* record) {
  FileRecord file(stream, section_header_size());
  read_places(file.in, record);
  for (uint16_t* const count : {&record->s_nreloc, &record->s_nlnno}) {
    file.in.skip(has_long_counts() ? 2 : 0);
    *count = file.in.u16();
  }
  record->s_flags = file.in.u32();
  if (coff960 != 0) {
    record->s_align = file.in.u32();
  }
  return file.result();
}

void write_sect_header(std::FILE* stream, const coff::scnhdr* record) {
  ByteWriter out(coff_order());
  write_places(out, record);
  out.u16(record->s_nreloc);
  out.u16(record->s_nlnno);
  out.u32(record->s_flags);
  put_record(out, stream);
}

int32_t read_section_header(std::FILE* stream, coff::section_header* record) {
  FileRecord file(stream, section_header_size());
  read_places(file.in, record);
  record->s_nreloc = count_from(file.in);
  record->s_nlnno = count_from(file.in);
  record->s_flags = file.in.u32();
  record->s_align = coff960 != 0 ? file.in.u32() : 0;
  return file.result();
}

void write_section_header(std::FILE* stream, const coff::section_header* record) {
  ByteWriter out(coff_order());
  write_places(out, record);
  for (const uint32_t count : {record->s_nreloc, record->s_nlnno}) {
    if (has_long_counts()) {
      out.u32(count);
    } else {
      out.u16(static_cast<uint16_t>(count));
    }
  }
  out.u32(record->s_flags);
  put_record(out, stream);
}

int32_t read_symbol(std::FILE* stream, int64_t table_offset, int32_t index, coff::symbol* record) {
  if (!seek_to_symbol(stream, table_offset, index)) {
    return -1;
  }
  FileRecord file(stream, symbol_record_size());
  *record = {};
  read_name(file.in, record->n_name);
  if (is_in_string_table(*record)) {
    std::fill(std::begin(record->n_name), std::end(record->n_name), '\0');
    file.in.seek(kNameField);
    record->n_offset = file.in.u32();
  }
  record->n_value = file.in.u32();
  record->n_scnum = file.in.i16();
  if (coff960 != 0) {
    record->n_flags = file.in.u16();
    record->n_type = file.in.u32();
  } else {
    record->n_type = file.in.u16();
  }
  record->n_sclass = file.in.u8();
  record->n_numaux = file.in.u8();
  file.in.skip(has_padding() ? 2 : 0);
  return file.result();
}

int32_t write_symbol(std::FILE* stream, int64_t table_offset, int32_t index, coff::symbol* record,
                     const char* name, std::FILE* string_stream, int64_t string_offset,
                     uint32_t* string_position) {
  if (!seek_to_symbol(stream, table_offset, index)) {
    return -1;
  }
  ByteWriter out(coff_order());
  const std::string_view text = name != nullptr ? name : "";
  if (name != nullptr && text.size() <= kNameSize) {
    out.raw(bytes_of_text(text));
    out.zeros(kNameSize - text.size());
  } else if (!is_in_string_table(*record)) {
    out.raw(bytes_of_text({record->n_name, kNameSize}));
  } else {
    out.zeros(kNameField);
    if (name != nullptr && !append_string(string_stream, string_offset, *string_position, text)) {
      return -1;
    }
    out.u32(record->n_offset);
    if (name != nullptr) {
      record->n_offset = *string_position;
      *string_position += static_cast<uint32_t>(text.size());
    }
  }
  write_symbol_fields(out, *record);
  return put_record(out, stream) ? 0 : -1;
}

const char* read_string(std::FILE* stream, int64_t table_offset, int64_t offset) {
  const uint64_t place = static_cast<uint64_t>(table_offset) + static_cast<uint64_t>(offset);
  if (std::fseek(stream, static_cast<long>(place), SEEK_SET) != 0) {
    return nullptr;
  }
  size_t length = 0;
  int letter = std::getc(stream);
  if (letter == EOF) {
    return nullptr;
  }
  while (letter != EOF && letter != '\0') {
    str[length++] = static_cast<char>(letter);
    if (length == kStringSize - 1) {
      break;
    }
    letter = std::getc(stream);
  }
  str[length] = '\0';
  return str;
}

}  // namespace kelvane
