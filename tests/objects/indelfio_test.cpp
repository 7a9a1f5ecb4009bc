#include "indelfio.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bytes.h"
#include "captured_run.h"
#include "image_builder.h"
#include "indelfio_internal.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "sanitizers.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using elf32::file_header;
using elf32::section_header;
using testing::ElementsAre;
using testing::IsEmpty;
using Headers = std::vector<section_header>;

class Elf : public testing::Test {
 protected:
  Elf() {
    reset_all_state();
    gen_changeprogname("kelvane");
  }
  ~Elf() override { reset_all_state(); }

  // A stream over the bytes that stands at `position`.
  std::FILE* stream(const Bytes& bytes, long position = 0) {
    stream_.reset(std::tmpfile());
    std::fwrite(bytes.data(), 1, bytes.size(), stream_.get());
    std::fseek(stream_.get(), position, SEEK_SET);
    return stream_.get();
  }

  // What an action writes in the order of `order`.
  static Bytes written(int32_t order, const std::function<void(std::FILE*)>& action) {
    endian = order;
    const file_ptr file(std::tmpfile());
    action(file.get());
    Bytes bytes(static_cast<size_t>(std::ftell(file.get())));
    std::rewind(file.get());
    EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
    return bytes;
  }

  // The message with which an action ends the run, all but the program's name.
  static std::string end_of(const std::function<void()>& action) {
    const CapturedRun run = capture(action);
    EXPECT_EQ(run.status, 1);
    return run.errors;
  }

 private:
  file_ptr stream_;
};

constexpr char kReadFailed[] = "kelvane: fatal: read failed\n";

// Two sections and three symbols, one of them undefined.
Image small_image(ByteOrder order = ByteOrder::little) {
  Image image;
  image.order = order;
  image.sections = {{.name = ".text", .addr = 0x1000, .content = Bytes(20, 0x11)},
                    {.name = ".data", .addr = 0x80002000, .content = Bytes(7, 0x22)}};
  image.symbols = {{.name = "main", .value = 0x1004, .size = 8, .section = ".text"},
                   {.name = "outside"},
                   {.name = "x", .value = 0x80002000, .size = 7, .info = 1, .section = ".data"}};
  return image;
}

std::vector<std::string> section_names(std::FILE* stream) {
  const ElfSections sections = elf_read_sections(stream, is_64bit_object(stream));
  std::vector<std::string> names;
  for (uint32_t i = 0; i < sections.count; ++i) {
    names.emplace_back(sections.names.at(sections.headers[i].sh_name));
  }
  return names;
}

std::vector<std::string> symbol_names(std::FILE* stream) {
  const ElfSymbols symbols = elf_read_symbols(stream, is_64bit_object(stream));
  std::vector<std::string> names;
  for (uint32_t i = 0; i < symbols.count; ++i) {
    names.emplace_back(symbols.strings.at(symbols.records[i].st_name));
  }
  return names;
}

// ---- Numbers, bytes, failures

TEST_F(Elf, NumbersAreReadAndWrittenInTheOrderSet) {
  for (const int32_t order : {1, 2}) {
    const Bytes bytes = written(order, [](std::FILE* out) {
      write2(out, 0x8102);
      write4(out, 0x83040506);
    });
    EXPECT_EQ(bytes,
              order == 1 ? (Bytes{0x81, 2, 0x83, 4, 5, 6}) : (Bytes{2, 0x81, 6, 5, 4, 0x83}));
    std::FILE* const in = stream(bytes);
    EXPECT_EQ(read2(in), 0x8102U);
    EXPECT_EQ(read4(in), 0x83040506U);
  }
}

TEST_F(Elf, BytesBehindTheEndOfTheFileCountAsAllOnes) {
  std::FILE* const in = stream({0x12});
  endian = 1;
  EXPECT_EQ(read2(in), 0x12FFU);
  EXPECT_EQ(read4(in), 0xFFFFFFFFU);
  EXPECT_EQ(read1(in), 0xFFU);
  std::FILE* const words = stream({1, 0, 0, 0, 2});
  endian = 2;
  uint32_t buffer[2];
  EXPECT_EQ(read_words(words, buffer, 2), buffer);
  EXPECT_EQ(buffer[0], 1U);
  EXPECT_EQ(buffer[1], 0xFFFFFF02U);
}

TEST_F(Elf, AFailureEndsTheRunOrIsRecorded) {
  struct Row {
    const char* words;
    std::function<void(std::FILE*)> action;
  };
  const Row rows[] = {
      {"internal, endian not set", [](std::FILE* in) { EXPECT_EQ(read2(in), 0U); }},
      {"internal, endian not set", [](std::FILE* in) { EXPECT_EQ(read4(in), 0U); }},
      {"internal, endian not set", [](std::FILE* in) { write2(in, 1); }},
      {"internal, endian not set", [](std::FILE* in) { write4(in, 1); }},
      {"read failed", [](std::FILE* in) { EXPECT_EQ(read_bytes(in, nullptr, 9), nullptr); }},
      {"read failed",
       [](std::FILE* in) {
         uint8_t room[9];
         EXPECT_EQ(read_bytes(in, room, 9), nullptr);
       }},
      {"bad elf magic number",
       [](std::FILE* in) {
         file_header header;
         EXPECT_EQ(elf_readheader(in, &header), nullptr);
       }},
  };
  for (const Row& row : rows) {
    const bool long_enough = std::string(row.words) == "bad elf magic number";
    const Bytes bytes(long_enough ? 16 : 8, 0);
    EXPECT_EQ(end_of([&] { row.action(stream(bytes)); }),
              std::string("kelvane: fatal: ") + row.words + '\n');
    int32_t failure = 7;
    elf_seterrorcond(&failure);
    EXPECT_EQ(failure, 0);
    EXPECT_EQ(elf_geterrorcondaddr(), &failure);
    EXPECT_FALSE(capture([&] { row.action(stream(bytes)); }).ended);
    EXPECT_EQ(failure, -1) << row.words;
    elf_seterrorcond(nullptr);
  }
  EXPECT_EQ(emalloc(0), nullptr);
}

#if !KELVANE_UNDER_ADDRESS_SANITIZER
TEST_F(Elf, MemoryThatIsNotThereIsReported) {
  EXPECT_EQ(end_of([] { emalloc(UINT64_MAX); }),
            "kelvane: fatal: out of memory allocating -1 bytes: Cannot allocate memory\n");
}
#endif

TEST_F(Elf, AReasonIsAddedWhereThereIsOneAndNeverAStaleOne) {
  EXPECT_EQ(end_of([] {
              errno = ENOSPC;
              die("%d and %d", 3, 4);
            }),
            "kelvane: fatal: 3 and 4: No space left on device\n");
  EXPECT_EQ(end_of([&] {
              std::FILE* const in = stream({1});
              errno = ENOSPC;
              read_bytes(in, nullptr, 2);
            }),
            kReadFailed);
}

// ---- Records

TEST_F(Elf, TheHeaderTellsTheByteOrder) {
  for (const auto& [data, order] : {std::pair{0, 2}, {1, 2}, {2, 1}, {3, 2}}) {
    Image image = small_image(order == 1 ? ByteOrder::big : ByteOrder::little);
    image.machine = 0x1234;
    image.flags = 0x81020304;
    image.damage = [data = data](file_header& header, Headers&) {
      header.e_ident[elf32::EI_DATA] = static_cast<uint8_t>(data);
    };
    file_header header;
    ASSERT_EQ(elf_readheader(stream(build_image(image)), &header), &header);
    EXPECT_EQ(endian, order) << data;
    EXPECT_EQ(header.e_machine, 0x1234U);
    EXPECT_EQ(header.e_flags, 0x81020304U);
    EXPECT_EQ(header.e_shnum, 6U);
    EXPECT_EQ(header.e_shstrndx, 5U);
  }
}

TEST_F(Elf, RecordsOfEveryKindComeBackAsTheyWereWritten) {
  const file_header header = {
      {0x7F, 'E', 'L', 'F', 1, 0, 7}, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  const elf32::program_header program[2] = {{1, 2, 3, 4, 5, 6, 7, 8}, {9, 0, 0, 0, 0, 0, 0, 10}};
  const section_header section = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  const elf32::symbol symbol = {0x01020304, 5, 6, 7, 8, 0x090A};
  const elf32::rel rel = {1, 0x80000002};
  const elf32::rela rela = {1, 2, -3};
  for (const int32_t order : {1, 2}) {
    const Bytes bytes = written(order, [&](std::FILE* out) {
      file_header ordered = header;
      ordered.e_ident[elf32::EI_DATA] = order == 1 ? 2 : 1;
      EXPECT_EQ(elf_writeheader(out, &ordered), 1);
      elf_writeprogheader(out, program, 2);
      EXPECT_EQ(elf_writesecheader(out, &section, 1), 1);
      elf_writesymbol(out, &symbol, 1);
      EXPECT_EQ(elf_write_symtab(out, &symbol, 1), 1);
      EXPECT_EQ(elf_write_rel(out, &rel, 1), 1);
      EXPECT_EQ(elf_write_rela(out, &rela, 1), 1);
      EXPECT_EQ(elf_write_rela(out, nullptr, 0), 1);
    });
    ASSERT_EQ(bytes.size(), 52U + 2 * 32 + 40 + 16 + 16 + 8 + 12);
    std::FILE* const in = stream(bytes);
    const malloc_ptr<file_header> read_header(elf_readheader(in, nullptr));
    EXPECT_EQ(std::memcmp(&read_header[0].e_type, &header.e_type, sizeof header - 16), 0);
    const auto expect_equal = [](auto* record, const void* expected) {
      const malloc_ptr<std::remove_pointer_t<decltype(record)>> owned(record);
      EXPECT_EQ(std::memcmp(record, expected, sizeof *record), 0);
    };
    expect_equal(elf_readprogheader(in, nullptr, 2, -1), program);
    expect_equal(elf_readsecheader(in, nullptr, 1, -1, 0), &section);
    expect_equal(elf_readsymbol(in, nullptr, 1, -1, 0), &symbol);
    expect_equal(elf_readsymbol(in, nullptr, 1, -1, 16), &symbol);
    expect_equal(elf_read_rel(in, nullptr, 1, -1), &rel);
    expect_equal(elf_read_rela(in, nullptr, 1, -1), &rela);
    const elf32::line_fix fix = {{1, 2, 3, 4, 5}};
    expect_equal(elf_read_linefix(in, nullptr, 1, 52), &fix);
    elf32::program_header second;
    EXPECT_EQ(elf_readprogheader(in, &second, 1, 52 + 32), &second);
    EXPECT_EQ(second.p_align, 10U);
  }
}

TEST_F(Elf, EntriesMayBeLargerThanTheStandardAndNeverSmaller) {
  struct Row {
    uint32_t entry_size;
    size_t expected;
  };
  for (const Row& row : {Row{0, 4}, Row{8, 0}, Row{15, 0}, Row{16, 4}, Row{24, 4}}) {
    Image image = small_image();
    image.symbol_entry_size = std::max(row.entry_size, 16U);
    image.damage = [&](file_header&, Headers& headers) { headers[3].sh_entsize = row.entry_size; };
    const Bytes bytes = build_image(image);
    EXPECT_EQ(symbol_names(stream(bytes)).size(), row.expected) << row.entry_size;
  }
  for (const Row& row : {Row{0, 6}, Row{20, 0}, Row{39, 0}, Row{40, 6}, Row{48, 6}}) {
    Image image = small_image();
    image.section_entry_size = static_cast<uint16_t>(std::max(row.entry_size, 40U));
    image.damage = [&](file_header& header, Headers&) {
      header.e_shentsize = static_cast<uint16_t>(row.entry_size);
    };
    EXPECT_EQ(section_names(stream(build_image(image))).size(), row.expected) << row.entry_size;
  }
}

// ---- Tables

TEST_F(Elf, AnObjectReadsTheSameWhereverItStarts) {
  for (const ByteOrder order : {ByteOrder::big, ByteOrder::little}) {
    const Bytes object = build_image(small_image(order));
    for (const Bytes& before : {Bytes{}, Bytes(61, 0xEE)}) {
      std::FILE* const in = stream(joined({before, object}), static_cast<long>(before.size()));
      EXPECT_THAT(symbol_names(in), ElementsAre("", "main", "outside", "x"));
      std::fseek(in, static_cast<long>(before.size()), SEEK_SET);
      EXPECT_THAT(section_names(in),
                  ElementsAre("", ".text", ".data", ".symtab", ".strtab", ".shstrtab"));
    }
  }
}

TEST_F(Elf, TablesAreHandedToTheCaller) {
  section_header* headers = nullptr;
  char* names = nullptr;
  ASSERT_EQ(elf_read_section_and_string_table(stream(build_image(small_image())), &headers, &names),
            6);
  EXPECT_EQ(headers[2].sh_addr, 0x80002000U);
  EXPECT_STREQ(names + headers[2].sh_name, ".data");
  std::free(headers);
  std::free(names);
  elf32::symbol* symbols = nullptr;
  char* strings = nullptr;
  ASSERT_EQ(
      elf_read_symbol_and_string_table(stream(build_image(small_image())), &symbols, &strings), 4);
  EXPECT_EQ(symbols[3].st_value, 0x80002000U);
  EXPECT_EQ(symbols[3].st_shndx, 2U);
  EXPECT_STREQ(strings + symbols[1].st_name, "main");
  EXPECT_EQ(elf_read_symbol_and_string_table(nullptr, &symbols, &strings), 0);
  EXPECT_EQ(elf_read_section_and_string_table(stream({}), nullptr, &names), 0);
  std::free(symbols);
  std::free(strings);
}

TEST_F(Elf, TheFullSymbolTableComesBeforeTheDynamicOne) {
  Image image = small_image();
  image.dynamic_symbols = {{.name = "dynamic"}};
  EXPECT_THAT(symbol_names(stream(build_image(image))), ElementsAre("", "main", "outside", "x"));
  image.symbols.clear();
  EXPECT_THAT(symbol_names(stream(build_image(image))), ElementsAre("", "dynamic"));
  image.dynamic_symbols.clear();
  EXPECT_THAT(symbol_names(stream(build_image(image))), IsEmpty());
}

// Damages that leave something to read, and what is left.
TEST_F(Elf, DamagedTablesGiveWhatIsThere) {
  struct Row {
    const char* name;
    std::function<void(file_header&, Headers&)> damage;
    size_t sections, symbols;
  };
  const Row rows[] = {
      {"no section headers",
       [](file_header& header, Headers&) { header.e_shnum = 0, header.e_shoff = 0; }, 0, 0},
      {"names beyond the headers", [](file_header& header, Headers&) { header.e_shstrndx = 6; }, 6,
       0},
      {"names without a byte", [](file_header&, Headers& headers) { headers[5].sh_size = 0; }, 6,
       0},
      {"strings beyond the headers", [](file_header&, Headers& headers) { headers[3].sh_link = 6; },
       6, 0},
      {"strings without a byte", [](file_header&, Headers& headers) { headers[4].sh_size = 0; }, 6,
       0},
      {"less than a symbol", [](file_header&, Headers& headers) { headers[3].sh_size = 15; }, 6, 0},
      {"a symbol and a half", [](file_header&, Headers& headers) { headers[3].sh_size = 24; }, 6,
       1},
  };
  for (const Row& row : rows) {
    Image image = small_image();
    image.damage = row.damage;
    const Bytes bytes = build_image(image);
    EXPECT_EQ(section_names(stream(bytes)).size(), row.sections) << row.name;
    EXPECT_EQ(symbol_names(stream(bytes)).size(), row.symbols) << row.name;
  }
}

TEST_F(Elf, NamesEndWhereTheirTableEnds) {
  Image image = small_image();
  image.damage = [](file_header&, Headers& headers) {
    headers[5].sh_size -= 4;  // ".shstrtab" without its last letters and its zero
    headers[1].sh_name = headers[5].sh_size;
    headers[2].sh_name = 0xFFFFFFFF;
    headers[4].sh_size -= 1;  // the zero of "x"
  };
  const Bytes bytes = build_image(image);
  EXPECT_THAT(section_names(stream(bytes)),
              ElementsAre("", "", "", ".symtab", ".strtab", ".shstr"));
  EXPECT_THAT(symbol_names(stream(bytes)), ElementsAre("", "main", "outside", "x"));
}

// What does not fit into the file; the second object of each pair says that it is 64-bit.
TEST_F(Elf, TablesThatDoNotFitEndTheRunUnlessTheObjectIs64Bit) {
  struct Row {
    const char* name;
    std::function<void(file_header&, Headers&)> damage;
    bool sections_too;
  };
  const Row rows[] = {
      {"headers behind the end", [](file_header& header, Headers&) { header.e_shoff = 0xFFFFFFF0; },
       true},
      {"too many headers", [](file_header& header, Headers&) { header.e_shnum = 7; }, true},
      {"too large headers", [](file_header& header, Headers&) { header.e_shentsize = 0xFFFF; },
       true},
      {"names", [](file_header&, Headers& headers) { headers[5].sh_size = 0xFFFFFFFF; }, true},
      {"symbols", [](file_header&, Headers& headers) { headers[3].sh_size = 0xFFFFFFF0; }, false},
      {"large symbols",
       [](file_header&, Headers& headers) {
         headers[3].sh_entsize = 0x40000000;
         headers[3].sh_size = 0xC0000000;
       },
       false},
      {"strings", [](file_header&, Headers& headers) { headers[4].sh_offset = 0x10000; }, false},
  };
  for (const Row& row : rows) {
    Image image = small_image();
    image.damage = row.damage;
    const Bytes bytes = build_image(image);
    EXPECT_EQ(end_of([&] { symbol_names(stream(bytes)); }), kReadFailed) << row.name;
    EXPECT_EQ(capture([&] { section_names(stream(bytes)); }).ended, row.sections_too) << row.name;
    Bytes wide = bytes;
    wide[elf32::EI_CLASS] = elf32::ELFCLASS64;
    EXPECT_THAT(symbol_names(stream(wide)), IsEmpty()) << row.name;
    EXPECT_EQ(section_names(stream(wide)).empty(), row.sections_too) << row.name;
    EXPECT_EQ(errorcode, nullptr);
  }
  EXPECT_EQ(end_of([&] { section_names(stream({0x7F, 'E', 'L', 'F', 1, 1})); }), kReadFailed);
  EXPECT_THAT(section_names(stream({0x7F, 'E', 'L', 'F', 2, 1})), IsEmpty());
}

TEST_F(Elf, NamesOfGlobalSymbolsAreCondensed) {
  Image image = small_image(ByteOrder::big);
  image.symbols = {{.name = "global", .section = ".text"},
                   {.name = "undefined"},
                   {.name = "local", .info = 2, .section = ".text"},
                   {.name = "..bofx", .section = ".text"},
                   {.name = "..eof.", .section = ".text"},
                   {.name = "..lin", .section = ".text"},
                   {.name = "..li", .section = ".text"},
                   {.name = "", .section = ".text"},
                   {.name = "weak", .info = 0x20, .section = ".data"}};
  uint32_t* offsets = nullptr;
  char* strings = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(elf_read_symbol_names(stream(build_image(image)), &offsets, &strings, &size), 4);
  EXPECT_EQ(std::string(strings, size), std::string("global\0..li\0\0weak\0", 18));
  EXPECT_THAT(std::vector<uint32_t>(offsets, offsets + 4), ElementsAre(0, 7, 12, 13));
  std::free(offsets);
  std::free(strings);
  offsets = nullptr;
  image.dynamic_symbols = image.symbols;
  image.symbols.clear();
  EXPECT_EQ(elf_read_symbol_names(stream(build_image(image)), &offsets, &strings, &size), 0);
  EXPECT_EQ(offsets, nullptr);
}

// ---- Writing sections

TEST_F(Elf, ASectionIsWrittenByItsType) {
  const elf32::symbol symbols[2] = {};
  struct Row {
    uint32_t type, align, size, entry_size, start;  // what is asked for
    int32_t result;
    uint32_t offset, position;
    size_t bytes;
  };
  for (const Row& row : {Row{1, 0, 5, 0, 3, 1, 3, 8, 5},      // raw
                         Row{3, 4, 5, 0, 3, 1, 4, 9, 6},      // aligned
                         Row{7, 8, 5, 0, 8, 1, 8, 13, 5},     // aligned already
                         Row{8, 16, 5, 0, 3, 1, 16, 16, 13},  // no contents
                         Row{0, 1, 5, 0, 3, 1, 3, 8, 0},      // null
                         Row{2, 1, 39, 16, 0, 1, 0, 39, 32},  // two symbols
                         Row{4, 1, 24, 12, 0, 1, 0, 24, 24},  // relocations with addend
                         Row{9, 1, 16, 8, 0, 1, 0, 16, 16},   // and without
                         Row{2, 1, 32, 0, 0, 0, 0, 32, 0},    // symbols of no size
                         Row{5, 1, 5, 0, 3, 0, 3, 8, 0},      // cannot be written
                         Row{5, 4, 0, 0, 3, 1, 0, 4, 1}}) {   // unless it is empty
    section_header header = {};
    header.sh_type = row.type;
    header.sh_addralign = row.align;
    header.sh_size = row.size;
    header.sh_entsize = row.entry_size;
    uint32_t position = row.start;
    const Bytes bytes = written(2, [&](std::FILE* out) {
      EXPECT_EQ(elf_write_section(out, &header, symbols, &position), row.result) << row.type;
    });
    EXPECT_EQ(bytes.size(), row.bytes) << row.type;
    EXPECT_EQ(header.sh_offset, row.offset) << row.type;
    EXPECT_EQ(position, row.position) << row.type;
  }
  const file_ptr full(std::fopen("/dev/full", "w"));
  std::setvbuf(full.get(), nullptr, _IONBF, 0);
  EXPECT_EQ(elf_write_unformatted_section(full.get(), symbols, 5), 0);
}

// ---- Queries

// A header of an archive member.
Bytes member(std::string name, int64_t size) {
  name.resize(48, ' ');
  std::string digits = std::to_string(size);
  digits.resize(10, ' ');
  return bytes_of(name + digits + "`\n");
}

TEST_F(Elf, AFileIsAskedWhereItStandsOrByItsName) {
  const TemporaryDirectory tree;
  const Bytes elf = build_image(small_image(ByteOrder::big));
  const Bytes little = build_image(small_image());
  const Bytes magic = bytes_of("!<arch>\n");
  const Bytes library = joined({magic, member("/", 4), bytes_of("abcd"), member("//", 2),
                                bytes_of("xy"), member("/12", 1), elf});
  struct Row {
    int32_t (*question)(std::FILE*, const char*);
    Bytes bytes;
    int32_t expected;
  };
  const Row rows[] = {
      {elfmagic, elf, 1},
      {elfmagic, Bytes(elf.begin(), elf.begin() + 15), 0},
      {elfmagic, Bytes(20), 0},
      {elf_bigendian, elf, 1},
      {elf_bigendian, little, 0},
      {elf_bigendian, Bytes(elf.begin(), elf.begin() + 15), 0},
      {elflibrary, library, 1},
      {elflibrary, elf, 0},
      {elflibrary, magic, 0},
      {elflibrary, joined({magic, member("a.o/", 3), bytes_of("abc")}), 0},
      {elflibrary, joined({magic, member("a.o/", 1), elf}), 1},
      {elflibrary, joined({magic, member("/", 0), Bytes(60, 'x')}), 0},
      {elflibrary, joined({magic, member("/", -60), elf}), 0},
      {elflibrary, Bytes(library.begin(), library.begin() + 100), 0},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string name = tree.write("file", text_of(rows[i].bytes));
    EXPECT_EQ(rows[i].question(nullptr, name.c_str()), rows[i].expected) << i;
    std::FILE* const in = stream(joined({{0xEE}, rows[i].bytes}), 1);
    if (rows[i].question != elf_bigendian) {
      EXPECT_EQ(rows[i].question(in, nullptr), rows[i].expected) << i;
    }
    EXPECT_EQ(std::ftell(in), 1) << i;
    EXPECT_EQ(rows[i].question(nullptr, tree.path("missing").c_str()), 0);
  }
  std::FILE* const in = stream(elf, 30);
  EXPECT_EQ(elf_bigendian(in, nullptr), 1);
  EXPECT_EQ(std::ftell(in), 30);
}

}  // namespace
}  // namespace kelvane
