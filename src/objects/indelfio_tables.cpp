// Operations that read several tables of an object, and the queries that only look at its start.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "indelfio.h"
#include "indelfio_internal.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indview.h"

namespace kelvane {

namespace {

// While it lives and `on` is set, failures are recorded in it instead of ending the run.
class QuietFailures {
 public:
  explicit QuietFailures(bool on) : outer_(elf_geterrorcondaddr()) {
    if (on) {
      elf_seterrorcond(&failed_);
    }
  }
  // Not by elf_seterrorcond, which would clear what the outer one has recorded.
  ~QuietFailures() { errorcode = outer_; }
  QuietFailures(const QuietFailures&) = delete;
  QuietFailures& operator=(const QuietFailures&) = delete;

  bool any() const { return failed_ != 0; }

 private:
  int32_t* outer_;
  int32_t failed_ = 0;
};

// Puts a stream back to where it was found, or closes the one opened for a question.
class QueryStream {
 public:
  QueryStream(std::FILE* stream, const char* name)
      : opened_(stream == nullptr && name != nullptr ? gen_fopen(name, "r") : nullptr),
        stream_(stream != nullptr ? stream : opened_.get()),
        position_(stream != nullptr ? std::ftell(stream) : 0) {}
  ~QueryStream() {
    if (stream_ != nullptr && opened_ == nullptr) {
      std::fseek(stream_, position_, SEEK_SET);
    }
  }
  QueryStream(const QueryStream&) = delete;
  QueryStream& operator=(const QueryStream&) = delete;

  // Fills `bytes` and tells whether that many were there.
  template <size_t Size>
  bool read(std::array<uint8_t, Size>* bytes) {
    return stream_ != nullptr && std::fread(bytes->data(), 1, Size, stream_) == Size;
  }
  bool seek(long offset, int whence) {
    return stream_ != nullptr && std::fseek(stream_, offset, whence) == 0;
  }

 private:
  file_ptr opened_;
  std::FILE* stream_;
  long position_;
};

using Identification = std::array<uint8_t, elf32::kIdentificationSize>;

constexpr std::array<uint8_t, 4> kMagic = {0x7F, 'E', 'L', 'F'};

bool begins_with_magic(const Identification& bytes) {
  return std::equal(kMagic.begin(), kMagic.end(), bytes.begin());
}

// Header of an archive member: where its fields stand.
constexpr size_t kMemberHeaderSize = 60;
constexpr size_t kMemberSizeField = 48;
constexpr size_t kMemberEndMark = 58;
constexpr std::string_view kArchiveMagic = "!<arch>\n";

bool is_digit(uint8_t byte) {
  return byte >= '0' && byte <= '9';
}

// The bytes that the header says the member has.
long member_size(const std::array<uint8_t, kMemberHeaderSize>& header) {
  char field[kMemberEndMark - kMemberSizeField + 1] = {};
  std::copy_n(header.begin() + kMemberSizeField, sizeof field - 1, field);
  return std::atoi(field);
}

ElfStrings read_strings(std::FILE* stream, int64_t start, const ElfSections& sections,
                        uint32_t index) {
  ElfStrings strings;
  if (index < sections.count) {
    const elf32::section_header& header = sections.headers[index];
    gen_safe_fseek(nullptr, stream, static_cast<long>(start + header.sh_offset), SEEK_SET);
    strings.bytes.reset(static_cast<char*>(read_bytes(stream, nullptr, header.sh_size)));
    strings.size = strings.bytes != nullptr ? header.sh_size : 0;
  }
  return strings;
}

ElfSections read_sections_at(std::FILE* stream, int64_t start) {
  ElfSections sections;
  elf32::file_header header = {};
  if (elf_readheader(stream, &header) == nullptr) {
    return sections;
  }
  sections.headers.reset(elf_readsecheader(stream, nullptr, header.e_shnum, start + header.e_shoff,
                                           header.e_shentsize));
  if (sections.headers != nullptr) {
    sections.count = header.e_shnum;
    sections.names = read_strings(stream, start, sections, header.e_shstrndx);
  }
  return sections;
}

const elf32::section_header* find_section(const ElfSections& sections, const char* name) {
  const elf32::section_header* const first = sections.headers.get();
  const auto* const found =
      std::find_if(first, first + sections.count, [&](const elf32::section_header& header) {
        return std::strcmp(sections.names.at(header.sh_name), name) == 0;
      });
  return found != first + sections.count ? found : nullptr;
}

// The symbols that a section header describes, with their strings; nothing if either is missing or
// the entries are too small.
ElfSymbols read_symbols_of(std::FILE* stream, int64_t start, const ElfSections& sections,
                           const elf32::section_header* header) {
  ElfSymbols symbols;
  if (header == nullptr || (header->sh_entsize != 0 && header->sh_entsize < elf32::kSymbolSize)) {
    return symbols;
  }
  const uint32_t entry_size = header->sh_entsize == 0 ? elf32::kSymbolSize : header->sh_entsize;
  symbols.count = header->sh_size / entry_size;
  symbols.records.reset(
      elf_readsymbol(stream, nullptr, symbols.count, start + header->sh_offset, entry_size));
  symbols.strings = read_strings(stream, start, sections, header->sh_link);
  if (symbols.records == nullptr || symbols.strings.bytes == nullptr) {
    return {};
  }
  return symbols;
}

bool is_kept_name(const elf32::symbol& symbol, std::string_view name) {
  constexpr std::array<std::string_view, 3> kLeftOut = {"..bof", "..eof", "..lin"};
  const uint8_t binding = elf32::symbol_binding(symbol);
  return (binding == elf32::STB_GLOBAL || binding == elf32::STB_WEAK) &&
         symbol.st_shndx != elf32::SHN_UNDEF &&
         std::none_of(kLeftOut.begin(), kLeftOut.end(),
                      [name](std::string_view prefix) { return name.substr(0, 5) == prefix; });
}

}  // namespace

bool is_64bit_object(std::FILE* stream) {
  std::array<uint8_t, elf32::EI_CLASS + 1> start{};
  return QueryStream(stream, nullptr).read(&start) &&
         std::equal(kMagic.begin(), kMagic.end(), start.begin()) &&
         start[elf32::EI_CLASS] == elf32::ELFCLASS64;
}

ElfSections elf_read_sections(std::FILE* stream, bool quiet) {
  const QuietFailures failures(quiet);
  ElfSections sections = read_sections_at(stream, std::ftell(stream));
  if (failures.any()) {
    return {};
  }
  return sections;
}

ElfSymbols elf_read_symbols(std::FILE* stream, bool quiet) {
  const QuietFailures failures(quiet);
  const int64_t start = std::ftell(stream);
  const ElfSections sections = read_sections_at(stream, start);
  const elf32::section_header* header = find_section(sections, ".symtab");
  if (header == nullptr) {
    header = find_section(sections, ".dynsym");
  }
  ElfSymbols symbols = read_symbols_of(stream, start, sections, header);
  if (failures.any()) {
    return {};
  }
  return symbols;
}

int32_t elf_read_section_and_string_table(std::FILE* stream, elf32::section_header** out_headers,
                                          char** out_names) {
  if (stream == nullptr || out_headers == nullptr || out_names == nullptr) {
    return 0;
  }
  ElfSections sections = elf_read_sections(stream, is_64bit_object(stream));
  *out_headers = sections.headers.release();
  if (sections.count != 0) {
    *out_names = sections.names.bytes.release();
  }
  return static_cast<int32_t>(sections.count);
}

int32_t elf_read_symbol_and_string_table(std::FILE* stream, elf32::symbol** out_records,
                                         char** out_strings) {
  if (stream == nullptr || out_records == nullptr || out_strings == nullptr) {
    return 0;
  }
  ElfSymbols symbols = elf_read_symbols(stream, is_64bit_object(stream));
  if (symbols.count != 0) {
    *out_records = symbols.records.release();
    *out_strings = symbols.strings.bytes.release();
  }
  return static_cast<int32_t>(symbols.count);
}

int32_t elf_read_symbol_names(std::FILE* stream, uint32_t** out_offsets, char** out_strings,
                              uint32_t* out_size) {
  if (stream == nullptr || out_offsets == nullptr || out_strings == nullptr ||
      out_size == nullptr) {
    return 0;
  }
  const QuietFailures failures(is_64bit_object(stream));
  const int64_t start = std::ftell(stream);
  const ElfSections sections = read_sections_at(stream, start);
  const ElfSymbols symbols =
      read_symbols_of(stream, start, sections, find_section(sections, ".symtab"));
  std::vector<std::string_view> names;
  uint64_t size = 0;
  for (uint32_t i = 0; i < symbols.count; ++i) {
    const std::string_view name = symbols.strings.at(symbols.records[i].st_name);
    if (is_kept_name(symbols.records[i], name)) {
      names.push_back(name);
      size += name.size() + 1;
    }
  }
  if (names.empty() || failures.any()) {
    return 0;
  }
  // Names may overlap in the file and don't in the block, whose offsets have 32 bits.
  if (size > INT32_MAX) {
    die("out of memory allocating %d bytes", INT32_MAX, 0);
    return 0;
  }
  malloc_ptr<char> block(static_cast<char*>(emalloc(size)));
  malloc_ptr<uint32_t> offsets(static_cast<uint32_t*>(emalloc(names.size() * sizeof(uint32_t))));
  if (block == nullptr || offsets == nullptr) {
    return 0;
  }
  uint32_t position = 0;
  for (size_t i = 0; i < names.size(); ++i) {
    offsets[i] = position;
    std::memcpy(block.get() + position, names[i].data(), names[i].size());
    position += static_cast<uint32_t>(names[i].size());
    block[position++] = 0;
  }
  *out_offsets = offsets.release();
  *out_strings = block.release();
  *out_size = position;
  return static_cast<int32_t>(names.size());
}

int32_t elfmagic(std::FILE* stream, const char* name) {
  Identification bytes{};
  return QueryStream(stream, name).read(&bytes) && begins_with_magic(bytes) ? 1 : 0;
}

int32_t elf_bigendian(std::FILE* stream, const char* name) {
  Identification bytes{};
  QueryStream file(stream, name);
  return file.seek(0, SEEK_SET) && file.read(&bytes) && bytes[elf32::EI_DATA] == elf32::ELFDATA2MSB
             ? 1
             : 0;
}

int32_t elflibrary(std::FILE* stream, const char* name) {
  QueryStream file(stream, name);
  std::array<uint8_t, kArchiveMagic.size()> magic{};
  if (!file.read(&magic) || !std::equal(magic.begin(), magic.end(), kArchiveMagic.begin())) {
    return 0;
  }
  std::array<uint8_t, kMemberHeaderSize> header{};
  while (file.read(&header) && header[kMemberEndMark] == 0x60 &&
         header[kMemberEndMark + 1] == 0x0A) {
    if (header[0] != '/' || is_digit(header[1])) {
      Identification bytes{};
      return file.read(&bytes) && begins_with_magic(bytes) ? 1 : 0;
    }
    // A table; a negative size would lead back to where the walk has been.
    const long size = member_size(header);
    if (size < 0 || !file.seek(size, SEEK_CUR)) {
      return 0;
    }
  }
  return 0;
}

}  // namespace kelvane
