#include "pecoff.h"

#include <sstream>

#include "format_fixture.h"
#include "pecoff_internal.h"

namespace kelvane {
namespace {

class Pe : public FormatTest {
 protected:
  Pe() { setenv("TZ", "UTC", 1); }
};

struct Optional : pe::optional_header {
  Optional() : pe::optional_header{} {}
  ~Optional() { free_pecoff_optheader(this); }
  Optional(const Optional&) = delete;
  Optional& operator=(const Optional&) = delete;
};

// An optional header whose fields are all different; entry i has the address 0x1000 + i.
Bytes optional_bytes(bool plus, uint32_t entries) {
  ByteWriter out(ByteOrder::kLittle);
  const auto words = [&](std::initializer_list<uint32_t> values) {
    std::ranges::for_each(values, [&](uint32_t value) { out.u32(value); });
  };
  const auto size = [&](uint64_t value) {
    plus ? out.u64(value) : out.u32(static_cast<uint32_t>(value));
  };
  out.u16(plus ? 523 : 267);
  out.raw(Bytes{14, 2});
  words({0x200, 0x400, 0, 0x1020, 0x1000});
  out.raw(plus ? Bytes{} : Bytes{0, 0x20, 0, 0});
  size(plus ? 0x180000000U : 0x400000U);
  words({0x1000, 0x200});
  out.raw(Bytes{6, 0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0});
  words({0, 0x5000, 0x400, 0xFFFFFFFF});
  out.u16(3);
  out.u16(plus ? 0xA800 : 0x0040);
  for (const uint64_t value : {0x100000U, 0x1000U, 0x200000U, 0x2000U}) {
    size(plus ? value * 0x1000 : value);
  }
  words({0, entries});
  for (uint32_t i = 0; i < entries; ++i) {
    words({0x1000 + i, i});
  }
  return out.bytes();
}

TEST_F(Pe, ANumberLineHasTwoBasesFromTenOn) {
  const struct {
    const char* label;
    uint32_t value;
    const char* suffix;
    const char* text;
  } cases[] = {
      {"x", 7, "\n", "x 7 \n"},  {"x", 16, "\n", "x 0x10 (16) \n"},
      {"x", 9, "", "x 9\n"},     {"x", 10, nullptr, "x 0xa (10)\n"},
      {nullptr, 0, "s", " 0 s"}, {"", 0xFFFFFFFF, "\n", " 0xffffffff (-1) \n"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(printed_by([&] { print_num_line(row.label, row.value, row.suffix); }), row.text);
  }
}

TEST_F(Pe, AFileHeaderPrintsItsFieldsAndFlags) {
  const Bytes bytes = {0x4C, 1, 3,  0x80, 0, 0x60, 0x97, 0x5F, 9,    0,
                       0,    0, 10, 0,    0, 0,    0xE0, 0,    0x02, 0xA9};
  pe::file_header record = {};
  const file_ptr stream = stream_of(bytes);
  ASSERT_EQ(read_pecoff_fileheader(&record, stream.get()), 0);
  EXPECT_EQ(printed_by([&] { print_pecoff_fileheader(&record); }),
            "f_magic  = 0x14c = 0514 (I386)\n"
            "f_nscns  = 32771\n"
            "f_timdat = 0x5f976000 (1603756032) Mon Oct 26 23:47:12 2020\n"
            "f_symptr = 9 \n"
            "f_nsyms  = 0xa (10) \n"
            "f_opthdr = 0xe0 (224) \n"
            "f_flags  = 0xa902\n"
            "\t   BIG_ENDIAN\n"
            "\t   DLL\n"
            "\t   0x0800\n"
            "\t   32BIT_MACHINE\n"
            "\t   EXECUTABLE_IMAGE\n");
  EXPECT_EQ(written_by([&](std::FILE* out) { write_pecoff_fileheader(&record, out); }), bytes);
}

// What both forms print alike.
const std::string kStandardLines =
    "LINK Ver      = 14.2\n"
    "Code Size     = 0x200 (512) \n"
    "Data Size     = 0x400 (1024) \n"
    "Bss Size      = 0 \n"
    "entry point   = 0x1020 (4128) \n"
    "text start    = 0x1000 (4096) \n";
const std::string kWindowsLines =
    "Section Align = 0x1000 (4096) \n"
    "File Align    = 0x200 (512) \n"
    "OS Version    = 6.1\n"
    "Image Version = 2.3\n"
    "Subsystem Ver = 4.5\n"
    "Reserved      = 0 \n"
    "Image Size    = 0x5000 (20480) \n"
    "Header Sizes  = 0x400 (1024) \n"
    "CheckSum      = 0xffffffff (-1) \n"
    "Subsystem     = 3 (WINDOWS_CUI)\n";

TEST_F(Pe, APe32HeaderPrintsEachFieldOnOneLine) {
  const Bytes bytes = optional_bytes(false, 0);
  const file_ptr stream = stream_of(bytes);
  Optional record;
  ASSERT_EQ(read_pecoff_optheader(&record, 96, stream.get()), 0);
  const std::string standard =
      "Magic         = 0x10b = 0413 (PE32)\n" + kStandardLines + "data start    = 0x2000 (8192) \n";
  EXPECT_EQ(printed_by([&] { print_pecoff_optheader(&record, 92); }),
            standard + "Image Base    = 0x400000\n" + kWindowsLines +
                "DLL flags     = 0x0040 \n"
                "Stack Reserve = 0x100000\n"
                "Stack Commit  = 0x1000\n"
                "Heap Reserve  = 0x200000\n"
                "Heap Commit   = 0x2000\n"
                "Loader Flags  = 0 \n"
                "Directories   = 0\n");
  EXPECT_EQ(printed_by([&] { print_pecoff_optheader(&record, 91); }), standard);
  EXPECT_EQ(written_by([&](std::FILE* out) { write_pecoff_optheader(&record, 91, out); }),
            Bytes(bytes.begin(), bytes.begin() + 28));
  std::rewind(stream.get());
  ASSERT_EQ(read_pecoff_optheader(&record, 91, stream.get()), 0);
  EXPECT_EQ(std::ftell(stream.get()), 28);
  EXPECT_EQ(record.ImageBase, 0U);
}

TEST_F(Pe, APe32PlusHeaderPrintsItsWideFieldsApart) {
  const file_ptr stream = stream_of(optional_bytes(true, 16));
  Optional record;
  ASSERT_EQ(read_pecoff_optheader(&record, 240, stream.get()), 0);
  std::string entries;
  std::istringstream names(
      "Exports,Imports,Resources,Exceptions,Certificates,Base Relocations,Debug,Architecture,"
      "GlobalPtr,Thread Local Storage,Load Config,Bound Imports,Import Addresses,Delay Imports,"
      "COMx Header,Reserved");
  std::string name;
  for (const char digit : std::string("0123456789abcdef")) {
    std::getline(names, name, ',');
    entries += "  " + name + "\n    Address   = 0x0000100" + digit + "\n    Size      = 0x0000000" +
               digit + "\n";
  }
  EXPECT_EQ(printed_by([&] { print_pecoff_optheader(&record, 240); }),
            "Magic         = 0x20b = 01013 (PE32+)\n" + kStandardLines +
                "Image Base    = 0x180000000\n\n" + kWindowsLines +
                "DLL flags     = 0xa800 (NOBIND,WDM_DRIVER,TERMINAL_SERVER_AWARE)\n"
                "Stack Reserve = 0x100000000\n\n"
                "Stack Commit = 0x1000000\n\n"
                "Heap Reserve = 0x200000000\n\n"
                "Heap Commit = 0x2000000\n\n"
                "Loader Flags  = 0 \n"
                "Directories   = 16\n" +
                entries);
}

TEST_F(Pe, EntriesBeyondTheFixedOnesAreExtra) {
  const struct {
    uint32_t count, fixed, extra;
  } cases[] = {{0, 0, 0}, {15, 0, 15}, {16, 16, 0}, {17, 16, 1}, {20, 16, 4}};
  for (const bool plus : {false, true}) {
    for (const auto& row : cases) {
      const Bytes bytes = optional_bytes(plus, row.count);
      Optional record;
      const auto size = static_cast<int32_t>(bytes.size());
      ASSERT_EQ(read_pecoff_optheader(&record, size, stream_of(bytes).get()), 0) << row.count;
      uint32_t extra = 0;
      for (const auto* entry = record.extra; entry != nullptr; entry = entry->next) {
        EXPECT_EQ(entry->address, 0x1000 + row.fixed + extra);
        ++extra;
      }
      EXPECT_EQ(extra, row.extra);
      uint32_t linked = 0;
      for (const auto* entry = &record.fixed[0]; entry != nullptr; entry = entry->next) {
        ++linked;
      }
      EXPECT_EQ(linked, row.fixed != 0 ? row.count : 1) << row.count;
      EXPECT_EQ(record.fixed[15].address, row.fixed != 0 ? 0x100FU : 0U);
      EXPECT_EQ(written_by([&](std::FILE* out) { write_pecoff_optheader(&record, size, out); }),
                bytes);
      const std::string text = printed_by([&] { print_pecoff_optheader(&record, size); });
      EXPECT_EQ(text.find("  Exports\n") != std::string::npos, row.fixed != 0);
      EXPECT_EQ(text.find("  Extra\n") != std::string::npos, row.extra != 0);
    }
  }
}

TEST_F(Pe, MoreEntriesThanTheFileHoldsAreAFailedRead) {
  Bytes bytes = optional_bytes(false, 17);
  for (const uint8_t highest : Bytes{0x00, 0xFF}) {
    bytes[95] = highest;
    bytes.resize(bytes.size() - 1);
    Optional record;
    EXPECT_EQ(read_pecoff_optheader(&record, 232, stream_of(bytes).get()), 1);
    EXPECT_EQ(record.extra, nullptr);
  }
}

TEST_F(Pe, SectionFlagsPrintFromTheHighestBitDown) {
  const struct {
    uint32_t flags;
    const char* text;
  } cases[] = {
      {0, "REG"},
      {0x60000020, "(READ_ACCESS,MEM_EXECUTE,CODE)"},
      {0x00300000, "(ALIGN_4)"},
      {0x00F00001, "(ALIGN_16384,DSECT)"},
      {0x00002000, "()"},
      {0x00016020, "(,,,CODE)"},
      {0x9F100000,
       "(WRITE_ACCESS,MEM_SHARED,NOT_PAGED,NOT_CACHED,MEM_DISCARDABLE,RELOC_OVERFLOW,ALIGN_1)"},
      {0x000E9FDE,
       "(MEM_PRELOAD,MEM_LOCKED,MEM_PURGEABLE,MEM_FARDATA,LNK_COMDAT,LNK_REMOVE,OVERLAY,INFO,OTHER,"
       "BSS,DATA,COPY,NOPAD,GROUP,NOLOAD)"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(printed_by([&] { print_pecoff_section_flags(row.flags); }), row.text);
  }
}

TEST_F(Pe, ASectionHeaderPrintsItsNameBeforeTheFirstLine) {
  const Bytes bytes = joined({bytes_of("12345678"),
                              {100, 0, 0, 0, 0, 0x10, 0, 0, 0, 2, 0, 0, 0, 4, 0, 0},
                              {1, 0, 0, 0, 2, 0, 0, 0, 0xFF, 0xFF, 4, 0, 0x40, 0, 0, 0x40}});
  pe::section_header record = {};
  ASSERT_EQ(read_pecoff_scnhdr(&record, stream_of(bytes).get()), 0);
  const std::string rest =
      "Sizeof Data in memory = 0x64 (100) \n"
      "VirtualAddress        = 0x1000 (4096) \n"
      "Sizeof Data in file   = 0x200 (512) \n"
      "Ptr to Raw Data       = 0x400 (1024) \n"
      "Ptr to Relocations    = 1 \n"
      "Ptr to Linenumbers    = 2 \n"
      "# of Relocations      = 0xffff (65535) \n"
      "# of LineNumbers      = 4 \n"
      "Characteristics       = 0x40000040 (1073741888)\n"
      "(READ_ACCESS,DATA)\n";
  EXPECT_EQ(printed_by([&] { print_pecoff_scnhdr(&record); }),
            "Name             = 12345678" + rest);
  EXPECT_EQ(written_by([&](std::FILE* out) { write_pecoff_scnhdr(&record, out); }), bytes);
  record.Name[2] = '\0';
  EXPECT_EQ(printed_by([&] { print_pecoff_scnhdr(&record); }),
            "Name             = 12      " + rest);
  EXPECT_EQ(printed_by([] { print_pecoff_scnhdr(nullptr); }), "");
}

TEST_F(Pe, TheFileHoldsTheSmallerOfTwoSizes) {
  const struct {
    uint32_t in_memory, in_file, place, held;
  } cases[] = {
      {0, 512, 1, 512}, {100, 512, 1, 100}, {1000, 512, 1, 512}, {0, 0, 1, 0},
      {100, 512, 0, 0}, {512, 512, 1, 512}, {100, 0, 1, 0},      {UINT32_MAX, 512, 1, UINT32_MAX}};
  for (const auto& row : cases) {
    pe::section_header section = {};
    section.VirtualSize = row.in_memory;
    section.SizeOfRawData = row.in_file;
    section.PointerToRawData = row.place;
    EXPECT_EQ(calc_sizeof_rawdata_in_pecoff_section(&section), row.held) << row.in_memory;
  }
}

TEST_F(Pe, ADebugDirectoryEntryPrintsItsFields) {
  const Bytes bytes = {0, 0, 0,    0, 1, 0, 0, 0,    2, 0, 3, 0, 2, 0,
                       0, 0, 0x19, 0, 0, 0, 0, 0x30, 0, 0, 5, 0, 0, 0};
  pe::debug_directory record = {};
  ASSERT_EQ(read_pecoff_debug_dir(&record, stream_of(bytes).get()), 0);
  EXPECT_EQ(printed_by([&] { print_pecoff_debug_dir(&record); }),
            "Characteristics     = 0\n"
            "TimeDateStamp       = 1 Thu Jan  1 00:00:01 1970\n"
            "Version             = 2.3\n"
            "Type                = 2 CODEVIEW\n"
            "Size of data        = 0x19 (25) \n"
            "Address of raw data = 0x3000 (12288) \n"
            "Pointer to raw data = 5 \n");
  EXPECT_EQ(written_by([&](std::FILE* out) { write_pecoff_debug_dir(&record, out); }), bytes);
  EXPECT_EQ(printed_by([] { print_pecoff_debug_dir(nullptr); }), "");
  EXPECT_EQ(printed_by([] { print_image_data("x", nullptr, ""); }), "");
}

TEST_F(Pe, NumbersWithoutANameSaySo) {
  EXPECT_STREQ(pecoff_machinename(0), "ANY_MACHINE");
  EXPECT_STREQ(pecoff_machinename(0x466), "MIPSFPU16");
  EXPECT_STREQ(pecoff_machinename(0x8664), "UNKNOWN MACHINE");
  EXPECT_STREQ(pecoff_debug_dir_type_name(9), "BORLAND");
  EXPECT_STREQ(pecoff_debug_dir_type_name(10), "???");
}

TEST_F(Pe, OnlyAnImageHasAFileHeader) {
  Bytes image = joined(
      {{1, 2}, bytes_of("MZ"), Bytes(58), {66, 0, 0, 0}, {9, 9}, bytes_of("PE"), {0, 0, 'x'}});
  const auto skip = [](const Bytes& bytes) {
    const file_ptr stream = stream_of(bytes);
    std::fseek(stream.get(), 2, SEEK_SET);
    return skip_to_pecoff_fileheader(stream.get()) == 0 ? std::fgetc(stream.get()) : -2;
  };
  EXPECT_EQ(skip(image), 'x');
  for (const size_t place : {2U, 3U, 62U, 65U, 68U, 69U, 70U, 71U}) {
    Bytes damaged = image;
    damaged[place] ^= 0x80U;
    EXPECT_EQ(skip(damaged), -2) << place;
  }
  image.resize(71);
  EXPECT_EQ(skip(image), -2);
}

}  // namespace
}  // namespace kelvane
