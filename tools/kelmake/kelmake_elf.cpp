// SPDX-License-Identifier: Apache-2.0
#include "kelmake_elf.h"

#include <algorithm>
#include <cinttypes>
#include <optional>
#include <string_view>

#include "byte_reader.h"
#include "elf32.h"

namespace kelmake {
namespace {

using kelpatch::Bytes;
using kelpatch::fatal;
using kelvane::ByteOrder;
using kelvane::ByteReader;
namespace elf32 = kelvane::elf32;

constexpr uint32_t kMostPages = 65535;
constexpr uint64_t kMostBytes = uint64_t{256} << 20U;
constexpr uint64_t kLastAddress = UINT32_MAX;
// Of the records of 64-bit files.
constexpr uint32_t kWideFileHeaderSize = 64;
constexpr uint32_t kWideProgramHeaderSize = 56;

// What is needed of the file header and of a program header, of either class. Where a field is not
// told by its width, it has 4 bytes in a 32-bit file and 8 in a 64-bit one.
struct FileHeader {
  bool is_wide = false;  // 64-bit
  uint16_t machine = 0;
  uint64_t entry = 0;
  uint64_t program_headers = 0;  // offset in the file
  uint64_t section_headers = 0;
  uint32_t flags = 0;
  uint16_t program_header_size = 0;
  uint16_t program_header_count = 0;
  uint16_t section_header_size = 0;
  uint16_t section_header_count = 0;
};
struct ProgramHeader {
  uint32_t type = 0;
  uint32_t flags = 0;
  uint64_t offset = 0;
  uint64_t virtual_address = 0;
  uint64_t load_address = 0;
  uint64_t file_size = 0;
  uint64_t memory_size = 0;
};

uint64_t address_of(ByteReader& reader, bool is_wide) {
  return is_wide ? reader.u64() : reader.u32();
}

FileHeader file_header_of(ByteReader& reader, bool is_wide) {
  FileHeader header;
  header.is_wide = is_wide;
  reader.seek(elf32::kIdentificationSize + 2);  // behind e_type
  header.machine = reader.u16();
  reader.skip(4);  // e_version
  header.entry = address_of(reader, is_wide);
  header.program_headers = address_of(reader, is_wide);
  header.section_headers = address_of(reader, is_wide);
  header.flags = reader.u32();
  reader.skip(2);  // e_ehsize
  header.program_header_size = reader.u16();
  header.program_header_count = reader.u16();
  header.section_header_size = reader.u16();
  header.section_header_count = reader.u16();
  return header;
}

ProgramHeader program_header_of(ByteReader& reader, bool is_wide) {
  ProgramHeader header;
  header.type = reader.u32();
  if (is_wide) {
    header.flags = reader.u32();
  }
  header.offset = address_of(reader, is_wide);
  header.virtual_address = address_of(reader, is_wide);
  header.load_address = address_of(reader, is_wide);
  header.file_size = address_of(reader, is_wide);
  header.memory_size = address_of(reader, is_wide);
  if (!is_wide) {
    header.flags = reader.u32();
  }
  return header;
}

elf32::section_header section_header_of(ByteReader& reader) {
  elf32::section_header header = {};
  for (uint32_t* const field : {&header.sh_name, &header.sh_type, &header.sh_flags, &header.sh_addr,
                                &header.sh_offset, &header.sh_size, &header.sh_link,
                                &header.sh_info, &header.sh_addralign, &header.sh_entsize}) {
    *field = reader.u32();
  }
  return header;
}

// Ends the run unless the bytes of the segment are there and have addresses that an update reaches.
void require_loadable(const std::string& name, const ProgramHeader& segment, bool is_wide,
                      uint64_t size) {
  if (!kelvane::fits(segment.offset, segment.file_size, size)) {
    fatal("image '%s' is damaged: a segment lies outside the file", name.c_str());
  }
  if (segment.file_size > segment.memory_size) {
    fatal("image '%s' is damaged: a segment has more bytes in the file than in memory",
          name.c_str());
  }
  const uint64_t last = segment.load_address + segment.file_size - 1;
  if (last < segment.load_address || (!is_wide && last > kLastAddress)) {
    fatal("image '%s' is damaged: a segment lies beyond the last address", name.c_str());
  }
  if (last > kLastAddress) {
    fatal("image '%s' loads bytes up to 0x%" PRIx64 ", and addresses of an update have 32 bits",
          name.c_str(), last);
  }
}

std::vector<ElfSegment> segments_of(const std::string& name, ByteReader& reader,
                                    const FileHeader& header) {
  const uint32_t least_size =
      header.is_wide ? kWideProgramHeaderSize : uint32_t{elf32::kProgramHeaderSize};
  if (header.program_header_count != 0 &&
      (header.program_header_size < least_size ||
       !kelvane::fits_array(header.program_headers, header.program_header_count,
                            header.program_header_size, reader.size()))) {
    fatal("image '%s' is damaged: its program headers are unsound", name.c_str());
  }
  std::vector<ElfSegment> segments;
  for (uint32_t i = 0; i < header.program_header_count; ++i) {
    reader.seek(header.program_headers + uint64_t{i} * header.program_header_size);
    const ProgramHeader segment = program_header_of(reader, header.is_wide);
    if (segment.type != elf32::PT_LOAD || segment.file_size == 0) {
      continue;
    }
    require_loadable(name, segment, header.is_wide, reader.size());
    segments.push_back(
        {static_cast<uint32_t>(segment.load_address),
         static_cast<uint32_t>(segment.virtual_address), static_cast<uint32_t>(segment.offset),
         static_cast<uint32_t>(segment.file_size), (segment.flags & elf32::PF_X) != 0});
  }
  if (segments.empty()) {
    fatal("image '%s' has no bytes to load", name.c_str());
  }
  std::stable_sort(segments.begin(), segments.end(),
                   [](const ElfSegment& first, const ElfSegment& second) {
                     return first.load_address < second.load_address;
                   });
  uint64_t end = 0;
  for (const ElfSegment& segment : segments) {
    if (segment.load_address < end) {
      fatal("image '%s' is damaged: a segment overlaps another", name.c_str());
    }
    end = uint64_t{segment.load_address} + segment.size;
  }
  return segments;
}

// The assembler marks where code of one kind begins: "$t" or "$t.any", "$a" or "$a.any". Gives what
// more of the marks stand for, or nothing for a file without any that can be read.
std::optional<uint8_t> marked_code(const Bytes& file, ByteReader reader, const FileHeader& header) {
  std::vector<elf32::section_header> sections;
  for (uint32_t i = 0;
       i < header.section_header_count && header.section_header_size >= elf32::kSectionHeaderSize;
       ++i) {
    reader.seek(header.section_headers + uint64_t{i} * header.section_header_size);
    sections.push_back(section_header_of(reader));
  }
  const auto symbols = std::find_if(
      sections.begin(), sections.end(),
      [](const elf32::section_header& section) { return section.sh_type == elf32::SHT_SYMTAB; });
  if (reader.failed() || symbols == sections.end() || symbols->sh_link >= sections.size()) {
    return std::nullopt;
  }
  const elf32::section_header& strings = sections[symbols->sh_link];
  if (!kelvane::fits(symbols->sh_offset, symbols->sh_size, file.size()) ||
      !kelvane::fits(strings.sh_offset, strings.sh_size, file.size())) {
    return std::nullopt;
  }
  const std::string_view names(reinterpret_cast<const char*>(file.data()) + strings.sh_offset,
                               strings.sh_size);
  uint32_t thumb = 0;
  uint32_t arm = 0;
  for (uint32_t at = 0; at + elf32::kSymbolSize <= symbols->sh_size; at += elf32::kSymbolSize) {
    const uint32_t place =
        kelvane::load_word(file.data() + symbols->sh_offset + at, reader.order());
    if (place >= names.size()) {
      continue;
    }
    const std::string_view name = names.substr(place, 3);
    const bool is_mark = name.size() == 3 && name[0] == '$' && (name[2] == '\0' || name[2] == '.');
    thumb += is_mark && name[1] == 't' ? 1 : 0;
    arm += is_mark && name[1] == 'a' ? 1 : 0;
  }
  if (thumb == 0 && arm == 0) {
    return std::nullopt;
  }
  return thumb >= arm ? KELVANE_DENSE_THUMB : KELVANE_DENSE_ARM;
}

std::vector<uint8_t> machines_of(const Bytes& file, const ByteReader& reader,
                                 const FileHeader& header) {
  switch (header.machine) {
    case elf32::EM_ARM:
      if (header.is_wide) {
        return {KELVANE_DENSE_NONE};
      }
      if (const std::optional<uint8_t> marked = marked_code(file, reader, header)) {
        return {*marked};
      }
      // An odd entry is Thumb; an even one may be a table of vectors.
      if ((header.entry & 1U) != 0) {
        return {KELVANE_DENSE_THUMB};
      }
      return {KELVANE_DENSE_THUMB, KELVANE_DENSE_ARM};
    case elf32::EM_PPC:
      return {KELVANE_DENSE_POWERPC};
    case elf32::EM_MIPS:
      return {KELVANE_DENSE_MIPS};
    case elf32::EM_RISCV:
      return {KELVANE_DENSE_RISCV};
    default:
      return {KELVANE_DENSE_NONE};
  }
}

uint64_t end_of(const ElfFile& elf) {
  const ElfSegment& last = elf.segments.back();
  return uint64_t{last.load_address} + last.size;
}

// How far virtual addresses lie above load addresses. Where segments differ in that, as data does
// that is copied to RAM, most of the code decides: it is what refers to flash.
uint32_t virtual_distance(const ElfFile& elf) {
  const auto weight = [](const ElfSegment& segment) { return segment.is_code ? segment.size : 0; };
  const auto code = std::max_element(elf.segments.begin(), elf.segments.end(),
                                     [&](const ElfSegment& first, const ElfSegment& second) {
                                       return weight(first) < weight(second);
                                     });
  return code->virtual_address - code->load_address;
}

Bytes image_of(const ElfFile& elf, const Bytes& file, uint64_t load_address, uint32_t page_size) {
  Bytes image(end_of(elf) - load_address, 0xFF);
  uint64_t end = 0;
  for (const ElfSegment& segment : elf.segments) {
    const uint64_t begin = segment.load_address - load_address;
    // Zeros, as in a raw image that is made of the file, unless a page lies between that the image
    // does not have.
    if (end != 0 && begin / page_size <= (end - 1) / page_size + 1) {
      std::fill(image.begin() + static_cast<ptrdiff_t>(end),
                image.begin() + static_cast<ptrdiff_t>(begin), uint8_t{0});
    }
    std::copy_n(file.begin() + segment.offset, segment.size,
                image.begin() + static_cast<ptrdiff_t>(begin));
    end = begin + segment.size;
  }
  return image;
}

// The pages that a segment of either file touches.
std::vector<FlashRange> ranges_of(const ElfFile& old_elf, const ElfFile& new_elf,
                                  uint64_t load_address, uint32_t page_size) {
  std::vector<FlashRange> touched;
  for (const ElfFile* const elf : {&old_elf, &new_elf}) {
    for (const ElfSegment& segment : elf->segments) {
      const uint64_t begin = segment.load_address - load_address;
      const auto first = static_cast<uint32_t>(begin / page_size);
      const auto last = static_cast<uint32_t>((begin + segment.size - 1) / page_size);
      touched.push_back({first, last - first + 1});
    }
  }
  std::sort(touched.begin(), touched.end(), [](const FlashRange& first, const FlashRange& second) {
    return first.first < second.first;
  });
  std::vector<FlashRange> ranges;
  for (const FlashRange& range : touched) {
    if (ranges.empty() || range.first > ranges.back().first + ranges.back().pages) {
      ranges.push_back(range);
    } else {
      const uint32_t end =
          std::max(ranges.back().first + ranges.back().pages, range.first + range.pages);
      ranges.back().pages = end - ranges.back().first;
    }
  }
  if (ranges.size() == 1) {
    ranges.clear();
  }
  return ranges;
}

}  // namespace

bool is_elf(const Bytes& file) {
  constexpr std::string_view kMagic =
      "\x7F"
      "ELF";
  return file.size() >= kMagic.size() && std::equal(kMagic.begin(), kMagic.end(), file.begin());
}

ElfFile read_elf(const std::string& name, const Bytes& file) {
  const uint8_t file_class = file.size() > elf32::EI_CLASS ? file[elf32::EI_CLASS] : uint8_t{0};
  const bool is_wide = file_class == elf32::ELFCLASS64;
  if ((!is_wide && file_class != elf32::ELFCLASS32) ||
      file.size() < (is_wide ? kWideFileHeaderSize : uint32_t{elf32::kFileHeaderSize})) {
    fatal("image '%s' is damaged: it has no header of a 32-bit or 64-bit ELF file", name.c_str());
  }
  ElfFile elf;
  elf.data_order = kelvane::byte_order_of(file[elf32::EI_DATA] == elf32::ELFDATA2MSB);
  ByteReader reader(file, elf.data_order);
  const FileHeader header = file_header_of(reader, is_wide);
  elf.is_wide = is_wide;
  elf.machine = header.machine;
  elf.segments = segments_of(name, reader, header);
  elf.machines = machines_of(file, reader, header);
  const bool has_little_code =
      header.machine == elf32::EM_RISCV ||
      (header.machine == elf32::EM_ARM && (header.flags & elf32::EF_ARM_BE8) != 0);
  elf.code_order = has_little_code ? ByteOrder::kLittle : elf.data_order;
  return elf;
}

FlashImages lay_out(const std::string& old_name, const Bytes& old_file, const std::string& new_name,
                    const Bytes& new_file, uint32_t page_size) {
  const ElfFile old_elf = read_elf(old_name, old_file);
  const ElfFile new_elf = read_elf(new_name, new_file);
  if (old_elf.machine != new_elf.machine || old_elf.data_order != new_elf.data_order ||
      old_elf.is_wide != new_elf.is_wide) {
    fatal("'%s' and '%s' are for different machines", old_name.c_str(), new_name.c_str());
  }
  FlashImages images;
  const uint64_t begin =
      std::min(old_elf.segments.front().load_address, new_elf.segments.front().load_address);
  const uint64_t end = std::max(end_of(old_elf), end_of(new_elf));
  images.load_address = begin - begin % page_size;
  const uint64_t size = end - images.load_address;
  if (size > kMostBytes || (size + page_size - 1) / page_size > kMostPages) {
    fatal("'%s' and '%s' load bytes from 0x%" PRIx64 " to 0x%" PRIx64
          ", which is more than the 65535 pages or 256 MiB of an update",
          old_name.c_str(), new_name.c_str(), begin, end);
  }
  images.old_image = image_of(old_elf, old_file, images.load_address, page_size);
  images.new_image = image_of(new_elf, new_file, images.load_address, page_size);
  images.ranges = ranges_of(old_elf, new_elf, images.load_address, page_size);
  const uint32_t base = static_cast<uint32_t>(images.load_address) + virtual_distance(old_elf);
  for (const uint8_t machine : old_elf.machines) {
    images.targets.push_back({machine, old_elf.code_order, old_elf.data_order, base});
  }
  return images;
}

}  // namespace kelmake
