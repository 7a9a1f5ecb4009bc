#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "byte_order.h"
#include "bytes.h"
#include "elf32.h"

// ELF32 images made to order, in either byte order:
//
//   Image image;
//   image.order = ByteOrder::big;
//   image.sections = {{.name = ".text", .addr = 0x1000, .content = {1, 2, 3, 4}},
//                     {.name = ".bss", .type = elf32::SHT_NOBITS, .addr = 0x2000, .size = 64}};
//   image.symbols = {{.name = "main", .value = 0x1000, .size = 4, .section = ".text"}};
//   tree.write("image", text_of(build_image(image)));
//
// Contents lie in the order of the sections, each at an offset divisible by 4, then .symtab with
// .strtab, .dynsym with .dynstr (each pair only where it has symbols), .shstrtab, and the section
// headers in the same order behind a null one. So the first of `sections` has index 1.
namespace kelvane {

struct ImageSection {
  std::string name;
  uint32_t type = elf32::SHT_PROGBITS;
  uint32_t flags = elf32::SHF_ALLOC;
  uint32_t addr = 0;
  Bytes content = {};
  uint32_t size = 0;  // sh_size of a section without content
};

struct ImageSymbol {
  std::string name;
  uint32_t value = 0;
  uint32_t size = 0;
  uint8_t info = 0x12;       // a global function
  std::string section = "";  // the name of one of `sections`; empty: undefined
  uint8_t other = 0;
};

struct Image {
  ByteOrder order = ByteOrder::little;
  uint16_t machine = 20;
  uint16_t type = 2;   // executable
  uint32_t flags = 0;  // e_flags
  std::vector<ImageSection> sections;
  std::vector<ImageSymbol> symbols;          // a null symbol stands before them
  std::vector<ImageSymbol> dynamic_symbols;  // likewise
  // Sizes of the entries of both tables; what is above the standard sizes is filled with 0xEE.
  uint16_t section_entry_size = elf32::kSectionHeaderSize;
  uint32_t symbol_entry_size = elf32::kSymbolSize;
  // Where set: called with the headers before they are written, to damage them.
  std::function<void(elf32::file_header&, std::vector<elf32::section_header>&)> damage;
};

Bytes build_image(const Image& image);

// The function that memory mode asks for in each image, at `value` in `section`.
ImageSymbol crt1_symbol(uint32_t value, const std::string& section);

}  // namespace kelvane
