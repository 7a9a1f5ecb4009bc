// Images that a real compiler and linker make, in both byte orders, read as readelf reads them; and
// what the writers write, read by readelf.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bytes.h"
#include "elf32.h"
#include "indelfio.h"
#include "indelfio_internal.h"
#include "indgen_memory.h"
#include "reset_state.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using Lines = std::vector<std::string>;

// A program with functions, data of every kind, strings and weak symbols.
std::string sample_source() {
  std::string source = "extern int outside; int shared; static int hidden[9];\n";
  for (int i = 0; i < 60; ++i) {
    const std::string n = std::to_string(i);
    source += "const char text" + n + "[] = \"text of " + n + "\"; int data" + n + " = " + n +
              "; __attribute__((weak)) int f" + n + "(int x) { hidden[x % 9] += data" + n +
              "; return x + text" + n + "[x & 3] + shared; }\n";
  }
  return source + "void __qvr_ind_crt1(void) { shared = f1(2); }\n";
}

std::string output_of(const std::vector<std::string>& arguments) {
  const ProgramResult result = run_program(arguments, "", {{"LC_ALL", "C"}});
  EXPECT_EQ(result.status, 0) << result.errors;
  return result.output;
}

Lines lines_of(const std::string& text) {
  std::istringstream stream(text);
  Lines lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// A line of `readelf -SW`, all but the words for type and flags:
//   [ 1] .text             PROGBITS        00001000 000034 000005 00   A  0   0  1
// A null section has no name.
std::string section_line(const std::string& line) {
  std::istringstream words(line.substr(line.find(']') + 1));
  const Lines all(std::istream_iterator<std::string>(words), {});
  const std::string shown = line[line.find(']') + 2] == ' ' ? "" : all[0];
  const size_t address = (shown.empty() ? 0 : 1) + 1;
  std::string result = shown;
  for (size_t i = address; i < address + 4; ++i) {
    result += ' ' + std::to_string(std::stoul(all[i], nullptr, 16));
  }
  for (size_t i = all.size() - 3; i < all.size(); ++i) {
    result += ' ' + all[i];
  }
  return result;
}

Lines sections_by_readelf(const std::string& file) {
  Lines result;
  for (const std::string& line : lines_of(output_of({KELVANE_READELF, "-SW", file}))) {
    const size_t bracket = line.find('[');
    if (bracket < 4 && line.find("[Nr]") == std::string::npos) {
      result.push_back(section_line(line));
    }
  }
  return result;
}

// A line of `readelf -sW`: value, size, type, binding, section, name.
//      3: 00001000     4 FUNC    GLOBAL DEFAULT    1 main
std::string symbol_line(const std::string& line) {
  std::istringstream words(line);
  std::string number, value, size, type, binding, visibility, section, name;
  words >> number >> value >> size >> type >> binding >> visibility >> section >> name;
  return std::to_string(std::stoul(value, nullptr, 16)) + ' ' +
         std::to_string(std::stoul(size, nullptr, 0)) + ' ' + type + ' ' + binding + ' ' + section +
         ' ' + (type == "SECTION" ? "" : name);
}

Lines symbols_by_readelf(const std::string& file, const std::string& symbol_table_name) {
  Lines result;
  bool wanted = false;
  for (const std::string& line : lines_of(output_of({KELVANE_READELF, "-sW", file}))) {
    if (line.find("Symbol table '") == 0) {
      wanted = line.find('\'' + symbol_table_name + '\'') != std::string::npos;
    } else if (wanted && line.size() > 8 && line.find("Num:") > line.size()) {
      result.push_back(symbol_line(line));
    }
  }
  return result;
}

std::string word_for(const std::map<uint32_t, std::string>& words, uint32_t number) {
  const auto found = words.find(number);
  return found != words.end() ? found->second : std::to_string(number);
}

Lines sections_by_us(const std::string& file) {
  const file_ptr stream(std::fopen(file.c_str(), "r"));
  const ElfSections sections = elf_read_sections(stream.get(), false);
  Lines result;
  for (uint32_t i = 0; i < sections.count; ++i) {
    const elf32::section_header& header = sections.headers[i];
    std::string line = sections.names.at(header.sh_name);
    for (const uint32_t number :
         {header.sh_addr, header.sh_offset, header.sh_size, header.sh_entsize, header.sh_link,
          header.sh_info, header.sh_addralign}) {
      line += ' ' + std::to_string(number);
    }
    result.push_back(line);
  }
  return result;
}

Lines symbols_by_us(const std::string& file) {
  const file_ptr stream(std::fopen(file.c_str(), "r"));
  const ElfSymbols symbols = elf_read_symbols(stream.get(), false);
  Lines result;
  for (uint32_t i = 0; i < symbols.count; ++i) {
    const elf32::symbol& symbol = symbols.records[i];
    const uint8_t type = elf32::symbol_type(symbol);
    result.push_back(
        std::to_string(symbol.st_value) + ' ' + std::to_string(symbol.st_size) + ' ' +
        word_for({{0, "NOTYPE"}, {1, "OBJECT"}, {2, "FUNC"}, {3, "SECTION"}, {4, "FILE"}}, type) +
        ' ' + word_for({{0, "LOCAL"}, {1, "GLOBAL"}, {2, "WEAK"}}, elf32::symbol_binding(symbol)) +
        ' ' + word_for({{0, "UND"}, {0xFFF1, "ABS"}, {0xFFF2, "COM"}}, symbol.st_shndx) + ' ' +
        (type == 3 ? "" : symbols.strings.at(symbol.st_name)));
  }
  return result;
}

// Compiled and linked for one target.
class RealImages : public testing::TestWithParam<const char*> {
 protected:
  RealImages() {
    reset_all_state();
    tree_.write("sample.c", sample_source());
    output_of({KELVANE_CLANG, std::string("--target=") + GetParam(), "-O1", "-ffreestanding",
               "-fdata-sections", "-ffunction-sections", "-fPIC", "-c", tree_.path("sample.c"),
               "-o", object_});
  }
  ~RealImages() override { reset_all_state(); }

  void link(const std::vector<std::string>& options, const std::string& to) {
    std::vector<std::string> command = {KELVANE_LLD, "-e", "__qvr_ind_crt1", object_, "-o", to};
    command.insert(command.end(), options.begin(), options.end());
    output_of(command);
  }

  TemporaryDirectory tree_;
  std::string object_ = tree_.path("sample.o");
  std::string image_ = tree_.path("image");
};
INSTANTIATE_TEST_SUITE_P(Targets, RealImages,
                         testing::Values("powerpc-none-eabi", "armv7-none-eabi",
                                         "armebv7-none-eabi", "mipsel-none-elf"),
                         [](const auto& target) {
                           return std::string(target.param, std::strcspn(target.param, "-"));
                         });

TEST_P(RealImages, AreReadAsReadelfReadsThem) {
  link({}, image_);
  for (const std::string& file : {object_, image_}) {
    EXPECT_GT(sections_by_us(file).size(), 5U);
    EXPECT_EQ(sections_by_us(file), sections_by_readelf(file));
    EXPECT_GT(symbols_by_us(file).size(), 180U);
    EXPECT_EQ(symbols_by_us(file), symbols_by_readelf(file, ".symtab"));
  }
  link({"-shared", "--strip-all"}, image_);
  EXPECT_EQ(sections_by_us(image_), sections_by_readelf(image_));
  EXPECT_EQ(symbols_by_us(image_), symbols_by_readelf(image_, ".dynsym"));
  EXPECT_GT(symbols_by_us(image_).size(), 180U);
}

// Copies an object section by section, each written by its type.
void rewrite(const std::string& from, const std::string& to) {
  const file_ptr in(std::fopen(from.c_str(), "r"));
  const file_ptr out(std::fopen(to.c_str(), "w"));
  ElfSections sections = elf_read_sections(in.get(), false);
  std::rewind(in.get());
  elf32::file_header header;
  elf_readheader(in.get(), &header);
  elf_writeheader(out.get(), &header);
  uint32_t position = elf32::kFileHeaderSize;
  for (uint32_t i = 0; i < sections.count; ++i) {
    elf32::section_header& section = sections.headers[i];
    malloc_ptr<uint8_t> data;
    const uint32_t entries = section.sh_entsize == 0 ? 0 : section.sh_size / section.sh_entsize;
    if (section.sh_type == elf32::SHT_SYMTAB) {
      data.reset(reinterpret_cast<uint8_t*>(
          elf_readsymbol(in.get(), nullptr, entries, section.sh_offset, section.sh_entsize)));
    } else if (section.sh_type == elf32::SHT_REL) {
      data.reset(
          reinterpret_cast<uint8_t*>(elf_read_rel(in.get(), nullptr, entries, section.sh_offset)));
    } else if (section.sh_type == elf32::SHT_RELA) {
      data.reset(
          reinterpret_cast<uint8_t*>(elf_read_rela(in.get(), nullptr, entries, section.sh_offset)));
    } else if (section.sh_type != elf32::SHT_NOBITS) {
      std::fseek(in.get(), static_cast<long>(section.sh_offset), SEEK_SET);
      data.reset(static_cast<uint8_t*>(read_bytes(in.get(), nullptr, section.sh_size)));
    }
    if (elf_write_section(out.get(), &section, data.get(), &position) == 0) {
      EXPECT_EQ(elf_write_unformatted_section(out.get(), data.get(), section.sh_size), 1);
    }
    EXPECT_EQ(std::ftell(out.get()), static_cast<long>(position));
  }
  header.e_shoff = position;
  EXPECT_EQ(elf_writesecheader(out.get(), sections.headers.get(), sections.count), 1);
  std::rewind(out.get());
  EXPECT_EQ(elf_writeheader(out.get(), &header), 1);
}

TEST_P(RealImages, AreReadByReadelfAsTheyAreWritten) {
  rewrite(object_, image_);
  EXPECT_EQ(sections_by_us(image_), sections_by_readelf(image_));
  for (const char* const part : {"-sW", "-rW"}) {
    const auto shown = [&](const std::string& file) {
      Lines lines = lines_of(output_of({KELVANE_READELF, part, file}));
      std::erase_if(lines, [](const std::string& line) {
        return line.find("Relocation section") == 0;  // which tells the offset in the file
      });
      return lines;
    };
    EXPECT_GT(shown(object_).size(), 60U);
    EXPECT_EQ(shown(image_), shown(object_));
  }
}

}  // namespace
}  // namespace kelvane
