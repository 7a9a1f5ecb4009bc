// The writing side: records are put together in memory and written in one piece. A write error is
// not seen here; it stays in the stream for whoever closes it.
#include <algorithm>
#include <array>
#include <span>

#include "byte_order.h"
#include "indelfio.h"
#include "indelfio_internal.h"

namespace kelvane {

namespace {

constexpr uint32_t kRecordsAtOnce = 4096;

void put(ByteWriter& out, const elf32::program_header& header) {
  for (const uint32_t word : {header.p_type, header.p_offset, header.p_vaddr, header.p_paddr,
                              header.p_filesz, header.p_memsz, header.p_flags, header.p_align}) {
    out.u32(word);
  }
}

void put(ByteWriter& out, const elf32::section_header& header) {
  for (const uint32_t word :
       {header.sh_name, header.sh_type, header.sh_flags, header.sh_addr, header.sh_offset,
        header.sh_size, header.sh_link, header.sh_info, header.sh_addralign, header.sh_entsize}) {
    out.u32(word);
  }
}

void put(ByteWriter& out, const elf32::symbol& symbol) {
  for (const uint32_t word : {symbol.st_name, symbol.st_value, symbol.st_size}) {
    out.u32(word);
  }
  out.u8(symbol.st_info);
  out.u8(symbol.st_other);
  out.u16(symbol.st_shndx);
}

void put(ByteWriter& out, const elf32::rel& relocation) {
  out.u32(relocation.r_offset);
  out.u32(relocation.r_info);
}

void put(ByteWriter& out, const elf32::rela& relocation) {
  out.u32(relocation.r_offset);
  out.u32(relocation.r_info);
  out.u32(static_cast<uint32_t>(relocation.r_addend));
}

void put(ByteWriter& out, const elf32::file_header& header) {
  out.raw(header.e_ident);
  out.u16(header.e_type);
  out.u16(header.e_machine);
  for (const uint32_t word :
       {header.e_version, header.e_entry, header.e_phoff, header.e_shoff, header.e_flags}) {
    out.u32(word);
  }
  for (const uint16_t half : {header.e_ehsize, header.e_phentsize, header.e_phnum,
                              header.e_shentsize, header.e_shnum, header.e_shstrndx}) {
    out.u16(half);
  }
}

template <typename Record>
void write_records(std::FILE* stream, const Record* records, uint32_t count) {
  ByteOrder order = ByteOrder::little;
  if (count == 0 || !order_of_file(&order)) {
    return;
  }
  for (uint32_t done = 0; done < count;) {
    const uint32_t some = std::min(kRecordsAtOnce, count - done);
    ByteWriter out(order);
    for (const Record& record : std::span(records + done, some)) {
      put(out, record);
    }
    std::fwrite(out.bytes().data(), 1, out.bytes().size(), stream);
    done += some;
  }
}

void write_zeros(std::FILE* stream, uint32_t count) {
  constexpr std::array<uint8_t, 4096> kZeros = {};
  while (count > 0) {
    const uint32_t some = std::min(static_cast<uint32_t>(kZeros.size()), count);
    std::fwrite(kZeros.data(), 1, some, stream);
    count -= some;
  }
}

// The records of a section, by their type; 0 where their number can't be told.
int32_t write_record_section(std::FILE* stream, const elf32::section_header& header,
                             const void* data) {
  if (header.sh_entsize == 0) {
    return 0;
  }
  const uint32_t count = header.sh_size / header.sh_entsize;
  switch (header.sh_type) {
    case elf32::SHT_SYMTAB:
      return elf_write_symtab(stream, static_cast<const elf32::symbol*>(data), count);
    case elf32::SHT_RELA:
      return elf_write_rela(stream, static_cast<const elf32::rela*>(data), count);
    default:
      return elf_write_rel(stream, static_cast<const elf32::rel*>(data), count);
  }
}

}  // namespace

void write2(std::FILE* stream, uint16_t value) {
  ByteOrder order = ByteOrder::little;
  if (order_of_file(&order)) {
    std::array<uint8_t, 2> bytes{};
    store_half(bytes.data(), value, order);
    std::fwrite(bytes.data(), 1, bytes.size(), stream);
  }
}

void write4(std::FILE* stream, uint32_t value) {
  ByteOrder order = ByteOrder::little;
  if (order_of_file(&order)) {
    std::array<uint8_t, 4> bytes{};
    store_word(bytes.data(), value, order);
    std::fwrite(bytes.data(), 1, bytes.size(), stream);
  }
}

int32_t elf_writeheader(std::FILE* stream, const elf32::file_header* header) {
  write_records(stream, header, 1);
  return 1;
}

void elf_writeprogheader(std::FILE* stream, const elf32::program_header* headers, uint32_t count) {
  write_records(stream, headers, count);
}

int32_t elf_writesecheader(std::FILE* stream, const elf32::section_header* headers,
                           uint32_t count) {
  write_records(stream, headers, count);
  return 1;
}

void elf_writesymbol(std::FILE* stream, const elf32::symbol* symbols, uint32_t count) {
  write_records(stream, symbols, count);
}

int32_t elf_write_symtab(std::FILE* stream, const elf32::symbol* symbols, uint32_t count) {
  write_records(stream, symbols, count);
  return 1;
}

int32_t elf_write_rel(std::FILE* stream, const elf32::rel* records, uint32_t count) {
  write_records(stream, records, count);
  return 1;
}

int32_t elf_write_rela(std::FILE* stream, const elf32::rela* records, uint32_t count) {
  write_records(stream, records, count);
  return 1;
}

int32_t elf_write_unformatted_section(std::FILE* stream, const void* bytes, uint32_t count) {
  const auto* const start = static_cast<const uint8_t*>(bytes);
  for (uint32_t done = 0; done < count;) {
    const size_t written = std::fwrite(start + done, 1, count - done, stream);
    if (written == 0) {
      return 0;
    }
    done += static_cast<uint32_t>(written);
  }
  return 1;
}

int32_t elf_write_section(std::FILE* stream, elf32::section_header* header, const void* data,
                          uint32_t* position) {
  if (header->sh_addralign > 1) {
    const uint32_t padding = (0U - *position) & (header->sh_addralign - 1);
    write_zeros(stream, padding);
    *position += padding;
  }
  header->sh_offset = *position;
  if (header->sh_type != elf32::SHT_NOBITS) {
    *position += header->sh_size;
  }
  if (header->sh_size == 0) {
    header->sh_offset = 0;
    return 1;
  }
  switch (header->sh_type) {
    case elf32::SHT_NULL:
    case elf32::SHT_NOBITS:
      return 1;
    case elf32::SHT_PROGBITS:
    case elf32::SHT_STRTAB:
    case elf32::SHT_NOTE:
      return elf_write_unformatted_section(stream, data, header->sh_size);
    case elf32::SHT_SYMTAB:
    case elf32::SHT_RELA:
    case elf32::SHT_REL:
      return write_record_section(stream, *header, data);
    default:
      return 0;
  }
}

}  // namespace kelvane
