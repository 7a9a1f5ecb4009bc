// Numbers, bytes and records of ELF32 files, read. Tables come in blocks: a table of many records
// costs few calls of the library, and memory beside the records only for one block.
#include "indelfio.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <vector>

#include "byte_reader.h"
#include "exit_status.h"
#include "indelfio_internal.h"
#include "indgen_file.h"
#include "indgen_message.h"

namespace kelvane {

int32_t endian = 0;
int32_t* errorcode = nullptr;

namespace {

constexpr uint8_t kMissing = 0xFF;      // what a byte behind the end of the file counts as
constexpr uint32_t kBlockSize = 65536;  // bytes of a table read at once
constexpr uint8_t kMagic[] = {0x7F, 'E', 'L', 'F'};

void seek_to(std::FILE* stream, int64_t offset) {
  if (offset != -1) {
    gen_safe_fseek(nullptr, stream, static_cast<long>(offset), SEEK_SET);
  }
}

// Whether so many elements are left of the file; where that can't be told, yes.
bool is_left(std::FILE* stream, uint64_t count, uint64_t element) {
  const int64_t rest = stream_rest(stream);
  return rest < 0 || fits_array(0, count, element, static_cast<uint64_t>(rest));
}

// Fills `bytes`, those behind the end of the file with the value that they count as.
void read_to_end(std::FILE* stream, std::span<uint8_t> bytes) {
  const size_t got = std::fread(bytes.data(), 1, bytes.size(), stream);
  std::fill(bytes.begin() + static_cast<ptrdiff_t>(got), bytes.end(), kMissing);
}

// Reads `count` records of `entry_size` bytes, each taken apart by `decode`, into `out`.
template <typename Record>
void read_records(std::FILE* stream, std::span<Record> out, uint32_t entry_size,
                  Record (*decode)(ByteReader&)) {
  ByteOrder order = ByteOrder::little;
  const bool known = order_of_file(&order);
  const size_t at_once = std::max(kBlockSize / entry_size, 1U);
  std::vector<uint8_t> block(std::min(at_once, out.size()) * entry_size);
  for (size_t done = 0; done < out.size();) {
    const size_t count = std::min(at_once, out.size() - done);
    const std::span<uint8_t> bytes = std::span(block).first(count * entry_size);
    read_to_end(stream, bytes);
    for (size_t i = 0; i < count; ++i) {
      ByteReader entry(bytes.subspan(i * entry_size, entry_size), order);
      out[done + i] = known ? decode(entry) : Record{};
    }
    done += count;
  }
}

// The caller's buffer, or a fresh one; null for none of either.
template <typename Record>
Record* room_for(Record* buffer, uint32_t count) {
  return buffer != nullptr ? buffer
                           : static_cast<Record*>(emalloc(uint64_t{count} * sizeof(Record)));
}

template <typename Record>
Record* read_table(std::FILE* stream, Record* buffer, uint32_t count, uint32_t entry_size,
                   Record (*decode)(ByteReader&)) {
  errno = 0;
  Record* const records = room_for(buffer, count);
  if (records != nullptr) {
    read_records(stream, std::span(records, count), entry_size, decode);
  }
  return records;
}

// The same for tables whose entry size the file states, and that must lie in the file.
template <typename Record>
Record* read_sized_table(std::FILE* stream, Record* buffer, uint32_t count, uint32_t entry_size,
                         uint32_t standard_size, Record (*decode)(ByteReader&)) {
  const uint32_t size = entry_size == 0 ? standard_size : entry_size;
  if (size < standard_size) {
    return nullptr;
  }
  errno = 0;
  if (!is_left(stream, count, size)) {
    die("read failed", 0, 0);
    return nullptr;
  }
  return read_table(stream, buffer, count, size, decode);
}

// Fields are read in the order in which they stand here: a braced list is evaluated from left to
// right.
elf32::program_header program_header_from(ByteReader& in) {
  return {in.u32(), in.u32(), in.u32(), in.u32(), in.u32(), in.u32(), in.u32(), in.u32()};
}

elf32::section_header section_header_from(ByteReader& in) {
  return {in.u32(), in.u32(), in.u32(), in.u32(), in.u32(),
          in.u32(), in.u32(), in.u32(), in.u32(), in.u32()};
}

elf32::symbol symbol_from(ByteReader& in) {
  return {in.u32(), in.u32(), in.u32(), in.u8(), in.u8(), in.u16()};
}

elf32::rel rel_from(ByteReader& in) {
  return {in.u32(), in.u32()};
}

elf32::rela rela_from(ByteReader& in) {
  return {in.u32(), in.u32(), in.i32()};
}

elf32::line_fix line_fix_from(ByteReader& in) {
  return {{in.u32(), in.u32(), in.u32(), in.u32(), in.u32()}};
}

uint32_t word_from(ByteReader& in) {
  return in.u32();
}

bool read_number(std::FILE* stream, std::span<uint8_t> bytes, ByteOrder* order) {
  errno = 0;
  read_to_end(stream, bytes);
  return order_of_file(order);
}

// The fields behind the identification.
void read_header_fields(std::FILE* stream, elf32::file_header* header) {
  uint8_t bytes[elf32::kFileHeaderSize - elf32::kIdentificationSize];
  read_to_end(stream, bytes);
  ByteReader in(bytes, byte_order_of(endian == 1));
  for (uint16_t* const half : {&header->e_type, &header->e_machine}) {
    *half = in.u16();
  }
  for (uint32_t* const word : {&header->e_version, &header->e_entry, &header->e_phoff,
                               &header->e_shoff, &header->e_flags}) {
    *word = in.u32();
  }
  for (uint16_t* const half : {&header->e_ehsize, &header->e_phentsize, &header->e_phnum,
                               &header->e_shentsize, &header->e_shnum, &header->e_shstrndx}) {
    *half = in.u16();
  }
}

}  // namespace

void elf_seterrorcond(int32_t* address) {
  errorcode = address;
  if (address != nullptr) {
    *address = 0;
  }
}

int32_t* elf_geterrorcondaddr() {
  return errorcode;
}

void die(const char* format, int32_t a, int32_t b) {
  if (errorcode != nullptr) {
    *errorcode = -1;
    return;
  }
  if (errno != 0) {
    gen_perrorexit(kStatusFailure, format, a, b);
  }
  gen_errorexit(kStatusFailure, format, a, b);
}

void* emalloc(uint64_t count) {
  if (count == 0) {
    return nullptr;
  }
  void* const memory = std::malloc(count);
  if (memory == nullptr) {
    die("out of memory allocating %d bytes", static_cast<int32_t>(count), 0);
  }
  return memory;
}

bool order_of_file(ByteOrder* order) {
  if (endian != 1 && endian != 2) {
    die("internal, endian not set", 0, 0);
    return false;
  }
  *order = byte_order_of(endian == 1);
  return true;
}

uint8_t read1(std::FILE* stream) {
  return static_cast<uint8_t>(std::getc(stream));
}

uint16_t read2(std::FILE* stream) {
  std::array<uint8_t, 2> bytes{};
  ByteOrder order = ByteOrder::little;
  return read_number(stream, bytes, &order) ? load_half(bytes.data(), order) : uint16_t{0};
}

uint32_t read4(std::FILE* stream) {
  std::array<uint8_t, 4> bytes{};
  ByteOrder order = ByteOrder::little;
  return read_number(stream, bytes, &order) ? load_word(bytes.data(), order) : 0;
}

void* read_bytes(std::FILE* stream, void* buffer, uint32_t count) {
  errno = 0;
  malloc_ptr<uint8_t> fresh;
  if (buffer == nullptr) {
    if (!is_left(stream, count, 1)) {
      die("read failed", 0, 0);
      return nullptr;
    }
    fresh.reset(static_cast<uint8_t*>(emalloc(count == 0 ? 0 : uint64_t{count} + 1)));
    if (fresh == nullptr) {
      return nullptr;
    }
    fresh[count] = 0;
    buffer = fresh.get();
  }
  if (std::fread(buffer, 1, count, stream) != count) {
    die("read failed", 0, 0);
    return nullptr;
  }
  static_cast<void>(fresh.release());
  return buffer;
}

uint32_t* read_words(std::FILE* stream, uint32_t* buffer, uint32_t count) {
  return read_table(stream, buffer, count, sizeof(uint32_t), word_from);
}

elf32::file_header* elf_readheader(std::FILE* stream, elf32::file_header* buffer) {
  malloc_ptr<elf32::file_header> fresh;
  if (buffer == nullptr) {
    errno = 0;
    fresh.reset(room_for<elf32::file_header>(nullptr, 1));
    if (fresh == nullptr) {
      return nullptr;
    }
    buffer = fresh.get();
  }
  *buffer = {};
  if (read_bytes(stream, buffer->e_ident, elf32::kIdentificationSize) == nullptr) {
    return nullptr;
  }
  if (std::memcmp(buffer->e_ident, kMagic, sizeof kMagic) != 0) {
    die("bad elf magic number", 0, 0);
    return nullptr;
  }
  endian = buffer->e_ident[elf32::EI_DATA] == elf32::ELFDATA2MSB ? 1 : 2;
  read_header_fields(stream, buffer);
  static_cast<void>(fresh.release());
  return buffer;
}

elf32::program_header* elf_readprogheader(std::FILE* stream, elf32::program_header* buffer,
                                          uint32_t count, int64_t offset) {
  seek_to(stream, offset);
  return read_table(stream, buffer, count, elf32::kProgramHeaderSize, program_header_from);
}

elf32::section_header* elf_readsecheader(std::FILE* stream, elf32::section_header* buffer,
                                         uint32_t count, int64_t offset, uint32_t entry_size) {
  seek_to(stream, offset);
  return read_sized_table(stream, buffer, count, entry_size, elf32::kSectionHeaderSize,
                          section_header_from);
}

elf32::symbol* elf_readsymbol(std::FILE* stream, elf32::symbol* buffer, uint32_t count,
                              int64_t offset, uint32_t entry_size) {
  seek_to(stream, offset);
  return read_sized_table(stream, buffer, count, entry_size, elf32::kSymbolSize, symbol_from);
}

elf32::rel* elf_read_rel(std::FILE* stream, elf32::rel* buffer, uint32_t count, int64_t offset) {
  seek_to(stream, offset);
  return read_table(stream, buffer, count, elf32::kRelSize, rel_from);
}

elf32::rela* elf_read_rela(std::FILE* stream, elf32::rela* buffer, uint32_t count, int64_t offset) {
  seek_to(stream, offset);
  return read_table(stream, buffer, count, elf32::kRelaSize, rela_from);
}

elf32::line_fix* elf_read_linefix(std::FILE* stream, elf32::line_fix* buffer, uint32_t count,
                                  int64_t offset) {
  seek_to(stream, offset);
  return read_table(stream, buffer, count, elf32::kLineFixSize, line_fix_from);
}

void reset_indelfio() {
  endian = 0;
  errorcode = nullptr;
}

}  // namespace kelvane
