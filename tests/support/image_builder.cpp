#include "image_builder.h"

#include <algorithm>

namespace kelvane {

namespace {

constexpr uint8_t kSurplus = 0xEE;

// Adds a string with its zero and gives its index.
uint32_t add_string(Bytes& table, const std::string& text) {
  const auto index = static_cast<uint32_t>(table.size());
  table.insert(table.end(), text.begin(), text.end());
  table.push_back(0);
  return index;
}

void put_surplus(ByteWriter& writer, uint32_t entry_size, uint32_t standard) {
  if (entry_size > standard) {
    writer.raw(Bytes(entry_size - standard, kSurplus));
  }
}

class Building {
 public:
  explicit Building(const Image& image) : image_(image), body_(image.order) {
    body_.zeros(elf32::kFileHeaderSize);
    add_header("", {});
  }

  Bytes build() {
    for (const ImageSection& section : image_.sections) {
      add_section(section);
    }
    add_symbols(image_.symbols, ".symtab", elf32::SHT_SYMTAB, ".strtab");
    add_symbols(image_.dynamic_symbols, ".dynsym", kDynsym, ".dynstr");
    elf32::section_header names = {};
    names.sh_type = elf32::SHT_STRTAB;
    add_header(".shstrtab", names);
    place(headers_.back(), names_);
    return finished();
  }

 private:
  static constexpr uint32_t kDynsym = 11;

  void add_header(const std::string& name, elf32::section_header header) {
    header.sh_name = add_string(names_, name);
    headers_.push_back(header);
  }

  void align() { body_.zeros((4 - body_.bytes().size() % 4) % 4); }

  // Puts contents into the file and tells the header.
  void place(elf32::section_header& header, const Bytes& content) {
    align();
    header.sh_offset = static_cast<uint32_t>(body_.bytes().size());
    header.sh_size = static_cast<uint32_t>(content.size());
    body_.raw(content);
  }

  void add_section(const ImageSection& section) {
    elf32::section_header header = {};
    header.sh_type = section.type;
    header.sh_flags = section.flags;
    header.sh_addr = section.addr;
    header.sh_addralign = 1;
    place(header, section.content);
    if (section.content.empty()) {
      header.sh_size = section.size;
    }
    add_header(section.name, header);
  }

  uint16_t index_of(const std::string& section) const {
    const auto found = std::find_if(image_.sections.begin(), image_.sections.end(),
                                    [&](const ImageSection& one) { return one.name == section; });
    return found == image_.sections.end()
               ? uint16_t{0}
               : static_cast<uint16_t>(found - image_.sections.begin() + 1);
  }

  void add_symbols(const std::vector<ImageSymbol>& symbols, const std::string& name, uint32_t type,
                   const std::string& strings_name) {
    if (symbols.empty()) {
      return;
    }
    ByteWriter writer(image_.order);
    Bytes strings = {0};
    writer.zeros(elf32::kSymbolSize);
    put_surplus(writer, image_.symbol_entry_size, elf32::kSymbolSize);
    for (const ImageSymbol& symbol : symbols) {
      writer.u32(add_string(strings, symbol.name));
      writer.u32(symbol.value);
      writer.u32(symbol.size);
      writer.u8(symbol.info);
      writer.u8(symbol.other);
      writer.u16(index_of(symbol.section));
      put_surplus(writer, image_.symbol_entry_size, elf32::kSymbolSize);
    }
    elf32::section_header header = {};
    header.sh_type = type;
    header.sh_link = static_cast<uint32_t>(headers_.size()) + 1;
    header.sh_info = 1;
    header.sh_entsize = image_.symbol_entry_size;
    place(header, writer.bytes());
    add_header(name, header);
    elf32::section_header strings_header = {};
    strings_header.sh_type = elf32::SHT_STRTAB;
    place(strings_header, strings);
    add_header(strings_name, strings_header);
  }

  elf32::file_header file_header() const {
    elf32::file_header header = {
        {0x7F, 'E', 'L', 'F', elf32::ELFCLASS32,
         image_.order == ByteOrder::big ? elf32::ELFDATA2MSB : elf32::ELFDATA2LSB, 1},
        image_.type,
        image_.machine,
        1,
        0,
        0,
        static_cast<uint32_t>(body_.bytes().size()),
        image_.flags,
        elf32::kFileHeaderSize,
        0,
        0,
        image_.section_entry_size,
        static_cast<uint16_t>(headers_.size()),
        static_cast<uint16_t>(headers_.size() - 1)};
    return header;
  }

  static void put_file_header(ByteWriter& writer, const elf32::file_header& header) {
    writer.raw(header.e_ident);
    writer.u16(header.e_type);
    writer.u16(header.e_machine);
    for (const uint32_t word :
         {header.e_version, header.e_entry, header.e_phoff, header.e_shoff, header.e_flags}) {
      writer.u32(word);
    }
    for (const uint16_t half : {header.e_ehsize, header.e_phentsize, header.e_phnum,
                                header.e_shentsize, header.e_shnum, header.e_shstrndx}) {
      writer.u16(half);
    }
  }

  Bytes finished() {
    align();
    elf32::file_header header = file_header();
    if (image_.damage) {
      image_.damage(header, headers_);
    }
    for (const elf32::section_header& section : headers_) {
      for (const uint32_t word :
           {section.sh_name, section.sh_type, section.sh_flags, section.sh_addr, section.sh_offset,
            section.sh_size, section.sh_link, section.sh_info, section.sh_addralign,
            section.sh_entsize}) {
        body_.u32(word);
      }
      put_surplus(body_, image_.section_entry_size, elf32::kSectionHeaderSize);
    }
    ByteWriter start(image_.order);
    put_file_header(start, header);
    Bytes bytes = body_.bytes();
    std::copy(start.bytes().begin(), start.bytes().end(), bytes.begin());
    return bytes;
  }

  const Image& image_;
  ByteWriter body_;
  Bytes names_;
  std::vector<elf32::section_header> headers_;
};

}  // namespace

Bytes build_image(const Image& image) {
  return Building(image).build();
}

ImageSymbol crt1_symbol(uint32_t value, const std::string& section) {
  return {.name = "__qvr_ind_crt1", .value = value, .size = 2, .section = section};
}

}  // namespace kelvane
