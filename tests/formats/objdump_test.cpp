// Windows files as a real compiler and linker make them: what is printed of them is what objdump
// says of the same fields, and what is written back is the same bytes.

#include <cstring>
#include <map>
#include <sstream>

#include "comcoff.h"
#include "format_fixture.h"
#include "pecoff.h"
#include "run_program.h"

namespace kelvane {
namespace {

constexpr const char* kSource =
    "int counter = 5;\n"
    "int zeros[1000];\n"
    "__declspec(dllexport) int a_function_with_a_long_name(int by) {\n"
    "  counter += by;\n"
    "  zeros[by & 7] = counter;\n"
    "  return counter;\n"
    "}\n"
    "int start(void) { return a_function_with_a_long_name(3); }\n";

std::string run(const std::vector<std::string>& arguments, const std::string& directory) {
  const ProgramResult result = run_program(arguments, directory, {{"LC_ALL", "C"}, {"TZ", "UTC"}});
  EXPECT_EQ(result.status, 0) << arguments[0] << ": " << result.output << result.errors;
  return result.output;
}

struct Image {
  const char* what;
  const char* target;
  std::vector<std::string> link;
};

const Image kImages[] = {
    {"PE32 program",
     "i686-pc-windows-msvc",
     {"/entry:start", "/subsystem:windows", "/safeseh:no", "/debug", "/stack:0x200000,0x3000"}},
    {"PE32+ program", "x86_64-pc-windows-msvc", {"/entry:start", "/subsystem:console", "/debug"}},
    {"PE32+ library", "x86_64-pc-windows-msvc", {"/dll", "/noentry", "/version:3.7"}},
};

class Objdump : public FormatTest {
 protected:
  Objdump() { setenv("TZ", "UTC", 1); }

  // Makes "made.obj" and gives its bytes.
  std::string compile(const char* target) {
    directory_.write("made.c", kSource);
    run({KELVANE_CLANG, "-target", target, "-O1", "-g", "-gcodeview", "-c", "made.c", "-o",
         "made.obj"},
        directory_.name());
    return directory_.read("made.obj");
  }

  // Makes "made.exe" and gives its bytes.
  std::string link(const Image& image) {
    compile(image.target);
    std::vector<std::string> command = {KELVANE_LLD_LINK, "/nodefaultlib", "/out:made.exe"};
    command.insert(command.end(), image.link.begin(), image.link.end());
    command.emplace_back("made.obj");
    run(command, directory_.name());
    return directory_.read("made.exe");
  }

  std::string objdump(const char* option, const char* file) const {
    return run({KELVANE_OBJDUMP, option, file}, directory_.name());
  }

  TemporaryDirectory directory_;
};

// The lines of a text by what stands before `separator`, and the first word behind it.
std::map<std::string, std::string> values_in(const std::string& text, char separator) {
  std::map<std::string, std::string> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t place = line.find(separator);
    if (place == std::string::npos) {
      continue;
    }
    std::string key = line.substr(0, place);
    key.erase(key.find_last_not_of(" \t") + 1);
    std::istringstream rest(line.substr(place + 1));
    rest >> values[key];
  }
  return values;
}

uint64_t number(const std::string& text, int base) {
  return std::strtoull(text.c_str(), nullptr, base);
}

void compare_fields(const std::string& printed, const std::string& dumped, bool pe32) {
  // clang-format off
  const std::pair<const char*, const char*> rows[] = {
      {"Magic", "Magic"}, {"Code Size", "SizeOfCode"}, {"Data Size", "SizeOfInitializedData"},
      {"Bss Size", "SizeOfUninitializedData"}, {"entry point", "AddressOfEntryPoint"},
      {"text start", "BaseOfCode"}, {"data start", "BaseOfData"}, {"Image Base", "ImageBase"},
      {"Section Align", "SectionAlignment"}, {"File Align", "FileAlignment"},
      {"Reserved", "Win32Version"}, {"Image Size", "SizeOfImage"},
      {"Header Sizes", "SizeOfHeaders"}, {"CheckSum", "CheckSum"}, {"Subsystem", "Subsystem"},
      {"DLL flags", "DllCharacteristics"}, {"Stack Reserve", "SizeOfStackReserve"},
      {"Stack Commit", "SizeOfStackCommit"}, {"Heap Reserve", "SizeOfHeapReserve"},
      {"Heap Commit", "SizeOfHeapCommit"}, {"Loader Flags", "LoaderFlags"},
      {"Directories", "NumberOfRvaAndSizes"},
  };
  // clang-format on
  auto ours = values_in(printed, '=');
  auto theirs = values_in(dumped, '\t');
  for (const auto& [label, name] : rows) {
    const size_t there = !pe32 && std::strcmp(label, "data start") == 0 ? 0 : 1;
    ASSERT_EQ(ours.count(label) + theirs.count(name), 2 * there) << label;
    EXPECT_EQ(number(ours[label], 0), number(theirs[name], 16)) << label;
  }
  for (const auto& [label, name] :
       {std::pair("LINK Ver", "LinkerVersion"), std::pair("OS Version", "OSystemVersion"),
        std::pair("Image Version", "ImageVersion"),
        std::pair("Subsystem Ver", "SubsystemVersion")}) {
    EXPECT_EQ(ours[label],
              theirs[std::string("Major") + name] + "." + theirs[std::string("Minor") + name]);
  }
}

TEST_F(Objdump, ImagesPrintTheSameAndAreWrittenBack) {
  for (const Image& made : kImages) {
    SCOPED_TRACE(made.what);
    const std::string image = link(made);
    const std::string dumped = objdump("-p", "made.exe");
    const file_ptr stream = stream_of(bytes_of(image));
    ASSERT_EQ(skip_to_pecoff_fileheader(stream.get()), 0);
    const long start = std::ftell(stream.get());
    pe::file_header file = {};
    pe::optional_header optional = {};
    ASSERT_EQ(read_pecoff_fileheader(&file, stream.get()), 0);
    ASSERT_EQ(read_pecoff_optheader(&optional, file.f_opthdr, stream.get()), 0);

    const std::string header = printed_by([&] { print_pecoff_fileheader(&file); });
    const size_t time = dumped.find("Time/Date\t\t") + 11;
    EXPECT_NE(header.find(" " + dumped.substr(time, 25)), std::string::npos) << header;
    EXPECT_EQ(number(values_in(header, '=')["f_flags"], 0),
              number(dumped.substr(dumped.find("Characteristics ") + 16), 16));
    compare_fields(printed_by([&] { print_pecoff_optheader(&optional, file.f_opthdr); }), dumped,
                   optional.Magic == pe::kPe32);
    ASSERT_EQ(optional.NumberOfRvaAndSizes, 16U);
    for (uint32_t i = 0; i < pe::kFixedEntries; ++i) {
      const std::string key = std::string("Entry ") + "0123456789abcdef"[i] + " ";
      std::istringstream entry(dumped.substr(dumped.find(key) + key.size()));
      uint64_t address = 1;
      uint64_t size = 1;
      entry >> std::hex >> address >> size;
      EXPECT_EQ(optional.fixed[i].address, address) << i;
      EXPECT_EQ(optional.fixed[i].size, size) << i;
    }

    const std::string sections = objdump("-h", "made.exe");
    const Bytes written = written_by([&](std::FILE* out) {
      write_pecoff_fileheader(&file, out);
      write_pecoff_optheader(&optional, file.f_opthdr, out);
      for (uint32_t i = 0; i < file.f_nscns; ++i) {
        pe::section_header section = {};
        ASSERT_EQ(read_pecoff_scnhdr(&section, stream.get()), 0);
        write_pecoff_scnhdr(&section, out);
        const std::string name(section.Name, strnlen(section.Name, sizeof section.Name));
        std::istringstream row(sections.substr(sections.find(" " + name + " ") + name.size() + 1));
        uint64_t size = 0, address = 0, load = 0, place = 0;
        row >> std::hex >> size >> address >> load >> place;
        EXPECT_EQ(calc_sizeof_rawdata_in_pecoff_section(&section), size) << name;
        EXPECT_EQ(optional.ImageBase + section.VirtualAddress, address) << name;
        EXPECT_EQ(section.PointerToRawData, place) << name;
        // The debug directory lies in the read-only data.
        const uint32_t debug_address = optional.fixed[6].address;
        if (debug_address >= section.VirtualAddress &&
            debug_address - section.VirtualAddress < section.VirtualSize) {
          const file_ptr again = stream_of(bytes_of(image));
          std::fseek(
              again.get(),
              static_cast<long>(section.PointerToRawData + debug_address - section.VirtualAddress),
              SEEK_SET);
          pe::debug_directory debug = {};
          ASSERT_EQ(read_pecoff_debug_dir(&debug, again.get()), 0);
          EXPECT_STREQ(pecoff_debug_dir_type_name(debug.Type), "CODEVIEW");
          std::istringstream entry(dumped.substr(dumped.find("CodeView ") + 9));
          uint64_t entry_size = 0, entry_address = 0, entry_place = 0;
          entry >> std::hex >> entry_size >> entry_address >> entry_place;
          EXPECT_EQ(debug.SizeOfData, entry_size);
          EXPECT_EQ(debug.AddressOfRawData, entry_address);
          EXPECT_EQ(debug.PointerToRawData, entry_place);
        }
      }
    });
    EXPECT_EQ(written, bytes_at(stream.get(), start, written.size()));
    EXPECT_GT(written.size(), 20U + file.f_opthdr);
    free_pecoff_optheader(&optional);
  }
}

TEST_F(Objdump, AnObjectFileIsReadWithItsNamesAndWrittenBack) {
  const std::string object = compile("i686-pc-windows-msvc");
  const file_ptr stream = stream_of(bytes_of(object));
  bigendian = bcscompat = -1;
  uint16_t magic = 0, count = 0, optional_size = 0, flags = 0;
  uint32_t time = 0, symbols = 0, symbol_count = 0;
  ASSERT_EQ(get_endian_header(stream.get(), 0, &magic, &count, &time, &symbols, &symbol_count,
                              &optional_size, &flags),
            0);
  EXPECT_EQ(magic, 0x014C);
  const Bytes written = written_by([&](std::FILE* out) {
    write_header(out, magic, count, time, symbols, symbol_count, optional_size, flags);
    for (uint32_t i = 0; i < count; ++i) {
      coff::section_header section = {};
      ASSERT_EQ(read_section_header(stream.get(), &section), 0);
      write_section_header(out, &section);
    }
  });
  EXPECT_EQ(written, bytes_at(stream.get(), 0, written.size()));

  // objdump -t has a line with the name at its end for each symbol that is neither auxiliary nor
  // the name of the source.
  constexpr uint8_t kFileClass = 103;
  const std::string dumped = objdump("-t", "made.obj");
  const int64_t strings = int64_t{symbols} + int64_t{symbol_count} * symsize;
  uint32_t names = 0;
  const Bytes table = written_by([&](std::FILE* out) {
    uint32_t auxiliary = 0;
    for (uint32_t i = 0; i < symbol_count; ++i) {
      coff::symbol symbol = {};
      ASSERT_EQ(read_symbol(stream.get(), symbols, static_cast<int32_t>(i), &symbol), 0);
      ASSERT_EQ(write_symbol(out, 1, -1, &symbol, nullptr, nullptr, 0, nullptr), 0);
      if (auxiliary > 0) {
        --auxiliary;
        continue;
      }
      auxiliary = symbol.n_numaux;
      const std::string name = symbol.n_offset != 0
                                   ? read_string(stream.get(), strings, symbol.n_offset)
                                   : std::string(symbol.n_name, strnlen(symbol.n_name, 8));
      if (symbol.n_sclass == kFileClass) {
        continue;
      }
      EXPECT_NE(dumped.find(" " + name + "\n"), std::string::npos) << name;
      ++names;
    }
  });
  EXPECT_GT(names, 5U);
  EXPECT_EQ(table, bytes_at(stream.get(), symbols, table.size()));
}

}  // namespace
}  // namespace kelvane
