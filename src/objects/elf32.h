#pragma once

#include <cstdint>

// The records of a 32-bit ELF file as the System V ABI publishes them, each field with the
// standard's name and width, in the standard's order. In memory all numbers are in the host's byte
// order; indelfio turns them from and into that of the file.
namespace kelvane::elf32 {

// Sizes of the records in a file, in bytes.
inline constexpr uint32_t kIdentificationSize = 16;
inline constexpr uint32_t kFileHeaderSize = 52;
inline constexpr uint32_t kProgramHeaderSize = 32;
inline constexpr uint32_t kSectionHeaderSize = 40;
inline constexpr uint32_t kSymbolSize = 16;
inline constexpr uint32_t kRelSize = 8;
inline constexpr uint32_t kRelaSize = 12;
inline constexpr uint32_t kLineFixSize = 20;

// Indexes into the identification bytes, and what stands there.
inline constexpr uint32_t EI_CLASS = 4;
inline constexpr uint32_t EI_DATA = 5;
inline constexpr uint8_t ELFCLASS32 = 1;
inline constexpr uint8_t ELFCLASS64 = 2;
inline constexpr uint8_t ELFDATA2LSB = 1;
inline constexpr uint8_t ELFDATA2MSB = 2;

// Machines, and the flag of an ARM file whose code is little-endian beside big-endian data.
inline constexpr uint16_t EM_MIPS = 8;
inline constexpr uint16_t EM_PPC = 20;
inline constexpr uint16_t EM_ARM = 40;
inline constexpr uint16_t EM_RISCV = 243;
inline constexpr uint32_t EF_ARM_BE8 = 0x00800000;

struct file_header {
  uint8_t e_ident[kIdentificationSize];
  uint16_t e_type;
  uint16_t e_machine;
  uint32_t e_version;
  uint32_t e_entry;
  uint32_t e_phoff;
  uint32_t e_shoff;
  uint32_t e_flags;
  uint16_t e_ehsize;
  uint16_t e_phentsize;
  uint16_t e_phnum;
  uint16_t e_shentsize;
  uint16_t e_shnum;
  uint16_t e_shstrndx;
};

struct program_header {
  uint32_t p_type;
  uint32_t p_offset;
  uint32_t p_vaddr;
  uint32_t p_paddr;
  uint32_t p_filesz;
  uint32_t p_memsz;
  uint32_t p_flags;
  uint32_t p_align;
};

inline constexpr uint32_t PT_LOAD = 1;
inline constexpr uint32_t PF_X = 1;  // bit of p_flags: executable

struct section_header {
  uint32_t sh_name;  // index of the name in the section name table
  uint32_t sh_type;
  uint32_t sh_flags;
  uint32_t sh_addr;
  uint32_t sh_offset;
  uint32_t sh_size;
  uint32_t sh_link;
  uint32_t sh_info;
  uint32_t sh_addralign;
  uint32_t sh_entsize;
};

inline constexpr uint32_t SHT_NULL = 0;
inline constexpr uint32_t SHT_PROGBITS = 1;
inline constexpr uint32_t SHT_SYMTAB = 2;
inline constexpr uint32_t SHT_STRTAB = 3;
inline constexpr uint32_t SHT_RELA = 4;
inline constexpr uint32_t SHT_NOTE = 7;
inline constexpr uint32_t SHT_NOBITS = 8;
inline constexpr uint32_t SHT_REL = 9;
inline constexpr uint32_t SHF_ALLOC = 2;

struct symbol {
  uint32_t st_name;  // index of the name in the string table
  uint32_t st_value;
  uint32_t st_size;
  uint8_t st_info;  // the low four bits are the symbol type, the high four the binding
  uint8_t st_other;
  uint16_t st_shndx;
};

inline constexpr uint8_t STB_GLOBAL = 1;
inline constexpr uint8_t STB_WEAK = 2;
inline constexpr uint8_t STT_OBJECT = 1;
inline constexpr uint8_t STT_FUNC = 2;
inline constexpr uint16_t SHN_UNDEF = 0;

constexpr uint8_t symbol_type(const symbol& entry) {
  return entry.st_info & 0xFU;
}
constexpr uint8_t symbol_binding(const symbol& entry) {
  return static_cast<uint8_t>(entry.st_info >> 4U);
}

// A relocation without addend and one with.
struct rel {
  uint32_t r_offset;
  uint32_t r_info;
};
struct rela {
  uint32_t r_offset;
  uint32_t r_info;
  int32_t r_addend;
};

// A line-fix record of the tool chain, five words whose meaning nobody here needs.
struct line_fix {
  uint32_t words[5];
};

}  // namespace kelvane::elf32
