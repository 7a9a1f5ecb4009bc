#include "memory_image.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace kelpatch {
namespace {

constexpr uint32_t kFileHeaderSize = 52;
constexpr uint32_t kSectionHeaderSize = 40;
constexpr uint32_t kSymbolSize = 16;
constexpr uint32_t kNoContents = 8;  // sh_type of a section without any
constexpr uint32_t kAllocated = 2;   // bit of sh_flags
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

struct SectionHeader {
  std::string name;
  uint32_t type;
  uint32_t flags;
  uint32_t address;
  uint32_t offset;
  uint32_t size;
  uint32_t link;
  uint32_t entry_size;
};

// A section as it will be in memory.
struct Record {
  std::string name;
  uint32_t type = 0;
  uint32_t address = 0;
  uint32_t offset = 0;
  uint32_t size = 0;
  uint32_t compressed_size = 0;
};

// The file, read at offsets that are checked.
class ElfFile {
 public:
  ElfFile(const std::string& name, const Bytes& bytes) : name_(name), bytes_(bytes) {
    constexpr uint8_t kStart[] = {0x7F, 'E', 'L', 'F', 1};
    if (bytes.size() < kFileHeaderSize ||
        !std::equal(std::begin(kStart), std::end(kStart), bytes.begin()) ||
        (bytes[5] != 1 && bytes[5] != 2)) {
      fatal("'%s' is not an image: it has no header of a 32-bit ELF file", name.c_str());
    }
    big_endian_ = bytes[5] == 2;
    read_sections();
  }

  bool big_endian() const { return big_endian_; }
  const std::vector<SectionHeader>& sections() const { return sections_; }

  uint32_t word(uint64_t offset) const { return number(offset, 4); }

  // Tests that there are `size` bytes at `offset`, which belong to `what`.
  const uint8_t* at(uint64_t offset, uint64_t size, const std::string& what) const {
    if (offset > bytes_.size() || size > bytes_.size() - offset) {
      fatal("image '%s' is damaged: %s lies outside the file", name_.c_str(), what.c_str());
    }
    return bytes_.data() + offset;
  }

  std::string text(const SectionHeader& table, uint32_t index) const {
    if (index >= table.size) {
      return "";
    }
    const char* const start = reinterpret_cast<const char*>(
        at(uint64_t{table.offset} + index, table.size - index, "a table of names"));
    return {start, std::find(start, start + (table.size - index), '\0')};
  }

 private:
  uint32_t number(uint64_t offset, uint32_t size) const {
    const uint8_t* const place = at(offset, size, "a header");
    uint32_t value = 0;
    for (uint32_t i = 0; i < size; ++i) {
      value = value << 8U | place[big_endian_ ? i : size - 1 - i];
    }
    return value;
  }

  void read_sections() {
    const uint32_t offset = word(32);
    const uint32_t entry_size = number(46, 2);
    const uint32_t count = number(48, 2);
    const uint32_t name_table = number(50, 2);
    if (count == 0) {
      return;
    }
    if (entry_size < kSectionHeaderSize || name_table >= count) {
      fatal("image '%s' is damaged: its section headers are unsound", name_.c_str());
    }
    at(offset, uint64_t{count} * entry_size, "a section header");
    std::vector<uint32_t> names;
    for (uint32_t i = 0; i < count; ++i) {
      const uint64_t place = uint64_t{offset} + uint64_t{i} * entry_size;
      names.push_back(word(place));
      sections_.push_back({"", word(place + 4), word(place + 8), word(place + 12), word(place + 16),
                           word(place + 20), word(place + 24), word(place + 36)});
    }
    for (uint32_t i = 0; i < count; ++i) {
      sections_[i].name = text(sections_[name_table], names[i]);
    }
  }

  const std::string& name_;
  const Bytes& bytes_;
  bool big_endian_ = false;
  std::vector<SectionHeader> sections_;
};

// The name under which a section counts in memory and whether its contents are compressed; nothing
// if it is not part of memory.
struct MappedName {
  std::string name;
  bool compressed;
};

std::optional<MappedName> in_memory(const std::string& name, uint32_t flags) {
  struct Rule {
    std::string_view prefix;
    std::string_view replacement;
    bool whole;
    bool compressed;
  };
  // clang-format off
  static constexpr Rule kRules[] = {
      // in the image   in memory   whole  compressed
      {".romfl1",       ".rflow1",  true,  false},
      {".romfl2",       ".rflow2",  true,  false},
      {".romfl3",       ".rflow3",  true,  false},
      {".UNCOMPRESSED", "",         false, false},
      {".ROM",          "",         false, false},
      {".rom",          ".",        false, false},
      {".cromt_",       ".text_",   false, true},
      {".crom",         ".",        false, true},
  };
  // clang-format on
  for (const Rule& rule : kRules) {
    if (rule.whole ? name == rule.prefix : name.starts_with(rule.prefix)) {
      return MappedName{std::string(rule.replacement) + name.substr(rule.prefix.size()),
                        rule.compressed};
    }
  }
  return (flags & kAllocated) != 0 ? std::optional<MappedName>({name, false}) : std::nullopt;
}

bool takes_no_part(const std::string& name) {
  static constexpr std::string_view kNames[] = {".heap",    ".stack",   ".reset",  ".syscall",
                                                ".fixaddr", ".fixtype", ".secinfo"};
  return name.starts_with(".patch") || name.starts_with(".CROM") ||
         std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

// Folds the names of generated sections into one; nothing for those that are left out.
std::optional<std::string> working_name(const std::string& name) {
  if (name.starts_with("..") || name.starts_with("%%")) {
    if (name.starts_with("..lx") || name.substr(2).starts_with("lin")) {
      return std::nullopt;
    }
    return "@#$%";
  }
  if (name.starts_with("__caller.") || name.starts_with("__callee.")) {
    return std::nullopt;
  }
  return name;
}

uint32_t without_alias(uint32_t address, const std::vector<Alias>& aliases) {
  for (const Alias& alias : aliases) {
    // All bits from the lowest one of the address upwards.
    const uint32_t region = 0U - (alias.address & (0U - alias.address));
    if ((address & region & ~alias.mask) == (alias.address & ~alias.mask)) {
      address = (address & ~alias.mask) | (alias.address & alias.mask);
    }
  }
  return address;
}

std::vector<Record> records_of(const ElfFile& elf, const ImageOptions& options) {
  std::vector<Record> records;
  std::map<std::string, size_t> places;
  for (const SectionHeader& header : elf.sections()) {
    const std::optional<std::string> own_name = working_name(header.name);
    if (header.type == 0 || !own_name) {
      continue;
    }
    const std::optional<MappedName> mapped = in_memory(*own_name, header.flags);
    if (!mapped || takes_no_part(mapped->name) ||
        std::find(options.excluded.begin(), options.excluded.end(), mapped->name) !=
            options.excluded.end()) {
      continue;
    }
    const auto [place, is_new] = places.try_emplace(mapped->name, records.size());
    if (is_new) {
      records.push_back({mapped->name});
    }
    Record& record = records[place->second];
    if (is_new || mapped->name == *own_name) {
      record.address = without_alias(header.address, options.aliases);
    }
    if (is_new || header.type != kNoContents) {
      record.offset = header.offset;
      record.type = header.type;
      record.compressed_size = mapped->compressed ? header.size : 0;
    }
    record.size = header.size;
  }
  return records;
}

// Expands a compressed section: groups of a flag byte and eight items, bit 0 first, a literal byte
// for a set bit, else two bytes that name a place in a ring of 4096 zeros, written from 4078 on,
// and a length. Gives nothing if the stream is damaged or holds more than `size` bytes.
std::optional<Bytes> expanded(const uint8_t* stream, uint32_t stream_size, uint32_t size) {
  constexpr uint32_t kRing = 4096;
  constexpr uint32_t kStart = 4078;
  Bytes bytes;
  uint32_t position = 0;
  while (position < stream_size) {
    uint32_t flags = stream[position++];
    for (uint32_t item = 0; item < 8 && position < stream_size; ++item, flags >>= 1U) {
      if ((flags & 1U) != 0) {
        bytes.push_back(stream[position++]);
        continue;
      }
      if (stream_size - position < 2) {
        return std::nullopt;
      }
      const uint32_t high = stream[position + 1];
      const uint32_t place = stream[position] | (high & 0xF0U) << 4U;
      position += 2;
      const auto at = static_cast<uint32_t>(bytes.size());
      const uint32_t ring_index = (kStart + at) % kRing;
      const uint32_t distance =
          ring_index > place ? ring_index - place : ring_index - place + kRing;
      for (uint32_t i = 0; i < (high & 0x0FU) + 3; ++i) {
        bytes.push_back(distance > at + i ? uint8_t{0} : bytes[at + i - distance]);
      }
    }
    if (bytes.size() > size) {
      return std::nullopt;
    }
  }
  return bytes;
}

MemorySection section_of(const ElfFile& elf, const Record& record, const std::string& image) {
  if (uint64_t{record.address} + record.size > kAddressEnd) {
    fatal("image '%s' is damaged: section '%s' runs past the end of the addresses", image.c_str(),
          record.name.c_str());
  }
  const std::string what = "section '" + record.name + "'";
  if (record.compressed_size != 0) {
    const uint8_t* const stream = elf.at(record.offset, record.compressed_size, what);
    std::optional<Bytes> bytes = expanded(stream, record.compressed_size, record.size);
    if (!bytes) {
      fatal("image '%s' is damaged: compressed section '%s' cannot be expanded", image.c_str(),
            record.name.c_str());
    }
    return {record.name, record.address, record.size, *std::move(bytes)};
  }
  if (record.type == kNoContents) {
    return {record.name, record.address, record.size, {}};
  }
  const uint8_t* const start = elf.at(record.offset, record.size, what);
  return {record.name, record.address, record.size, Bytes(start, start + record.size)};
}

Range heap_of(const ElfFile& elf) {
  const auto& sections = elf.sections();
  const auto named = [&](const char* name) {
    return std::find_if(sections.begin(), sections.end(),
                        [name](const SectionHeader& header) { return header.name == name; });
  };
  auto table = named(".symtab");
  table = table == sections.end() ? named(".dynsym") : table;
  if (table == sections.end() || table->link >= sections.size()) {
    return {0, 0};
  }
  const uint32_t entry_size = table->entry_size == 0 ? kSymbolSize : table->entry_size;
  if (entry_size < kSymbolSize) {
    return {0, 0};
  }
  for (uint32_t i = 0; i < table->size / entry_size; ++i) {
    const uint64_t place = uint64_t{table->offset} + uint64_t{i} * entry_size;
    if (elf.text(sections[table->link], elf.word(place)) == ".heap") {
      const uint32_t address = elf.word(place + 4);
      const uint64_t end = std::min(uint64_t{address} + elf.word(place + 8), kAddressEnd);
      return {address, static_cast<uint32_t>(end - address)};
    }
  }
  return {0, 0};
}

}  // namespace

std::vector<std::string> read_exclusions(const std::string& file_name) {
  constexpr std::string_view kWhite = " \t\n\v\f\r";
  std::vector<std::string> words;
  std::string word;
  for (const uint8_t byte : read_input(file_name)) {
    const char letter = static_cast<char>(byte);
    if (kWhite.find(letter) == std::string_view::npos) {
      word += letter;
    } else if (!word.empty()) {
      words.push_back(std::exchange(word, ""));
    }
  }
  return words;
}

MemoryImage::MemoryImage(const std::string& name, const ImageOptions& options)
    : name_(name), file_(read_input(name)) {
  const ElfFile elf(name_, file_);
  big_endian_ = elf.big_endian();
  heap_ = heap_of(elf);
  for (const Record& record : records_of(elf, options)) {
    // Looked at by the start-up code alone, which is not patched.
    if (record.name != "XXX.starttext") {
      sections_.push_back(section_of(elf, record, name_));
    }
  }
  std::stable_sort(sections_.begin(), sections_.end(),
                   [](const MemorySection& a, const MemorySection& b) {
                     return a.address != b.address ? a.address < b.address : a.size < b.size;
                   });
  uint64_t end = 0;
  for (const MemorySection& section : sections_) {
    if (section.address < end) {
      fatal("image '%s' is damaged: section '%s' overlaps another", name_.c_str(),
            section.name.c_str());
    }
    end = uint64_t{section.address} + section.size;
    places_.emplace(section.name, places_.size());
  }
}

const MemorySection* MemoryImage::find(const std::string& section) const {
  const auto place = places_.find(section);
  return place == places_.end() ? nullptr : &sections_[place->second];
}

const MemorySection* MemoryImage::holding(uint32_t address) const {
  auto place = std::upper_bound(
      sections_.begin(), sections_.end(), address,
      [](uint32_t value, const MemorySection& section) { return value < section.address; });
  while (place != sections_.begin()) {
    --place;
    if (address - place->address < place->size) {
      return &*place;
    }
    if (place->size != 0) {
      break;
    }
  }
  return nullptr;
}

void TargetMemory::load(const MemorySection& section) {
  write(section.address, section.contents.data(), static_cast<uint32_t>(section.contents.size()));
}

void TargetMemory::read(uint32_t address, uint8_t* bytes, uint32_t count) const {
  while (count > 0) {
    const uint32_t part = std::min(count, kPage - address % kPage);
    const auto page = pages_.find(address / kPage);
    if (page == pages_.end()) {
      std::fill_n(bytes, part, uint8_t{0});
    } else {
      std::copy_n(page->second.begin() + address % kPage, part, bytes);
    }
    address += part;
    bytes += part;
    count -= part;
  }
}

void TargetMemory::write(uint32_t address, const uint8_t* bytes, uint32_t count) {
  while (count > 0) {
    const uint32_t part = std::min(count, kPage - address % kPage);
    auto page = pages_.find(address / kPage);
    const bool is_zero = std::all_of(bytes, bytes + part, [](uint8_t byte) { return byte == 0; });
    if (page == pages_.end() && !is_zero) {
      page = pages_.emplace(address / kPage, Bytes(kPage)).first;
    }
    if (page != pages_.end()) {
      std::copy_n(bytes, part, page->second.begin() + address % kPage);
    }
    address += part;
    bytes += part;
    count -= part;
  }
}

}  // namespace kelpatch
