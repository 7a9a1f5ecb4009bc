#include "indbsdio.h"

#include <gmock/gmock.h>

#include <set>

#include "format_fixture.h"
#include "indelfio.h"
#include "indsort.h"

namespace kelvane {
namespace {

// Numbers in the order of a made file.
struct Numbers {
  ByteWriter out;

  explicit Numbers(bool big) : out(byte_order_of(big)) {}
  Numbers& words(std::initializer_list<uint32_t> values) {
    for (const uint32_t value : values) {
      out.u32(value);
    }
    return *this;
  }
  Bytes bytes() const { return out.bytes(); }
};

struct MadeSymbol {
  const char* name;
  uint8_t type;
  uint32_t value;
};

const std::vector<MadeSymbol> kSymbols = {
    {"start", 5, 0x2010},  {"..lin.12", 4, 0x2000}, {"common", 1, 0x40},
    {"table", 7, 0x3000},  {"outside", 1, 0},       {"room", 9, 0x3100},
    {"debug", 36, 0x2008}, {"local", 4, 0x2080},    {"shared", 19, 0x2004},
};

struct MadeFile {
  bool big = true;
  uint32_t machine_and_magic = 0x01020107;
  uint32_t entry = 0x20000;
  std::vector<MadeSymbol> symbols = kSymbols;
  Bytes front;  // what stands before the file

  Bytes text = counting(5);
  Bytes data = counting(6, 0x40);
  Bytes text_reloc = counting(8, 0x80);
  Bytes data_reloc = counting(16, 0xA0);

  Bytes strings() const {
    Bytes names;
    for (const MadeSymbol& symbol : symbols) {
      names = joined({names, bytes_of(symbol.name), {0}});
    }
    return names;
  }
  Bytes bytes() const {
    Numbers header(big);
    header.words(
        {machine_and_magic, static_cast<uint32_t>(text.size()), static_cast<uint32_t>(data.size()),
         0x100, static_cast<uint32_t>(symbols.size()) * 12, entry,
         static_cast<uint32_t>(text_reloc.size()), static_cast<uint32_t>(data_reloc.size())});
    Numbers tables(big);
    uint32_t name = 4;
    for (const MadeSymbol& symbol : symbols) {
      tables.out.u32(name);
      tables.out.u8(symbol.type);
      tables.out.u8(0x11);
      tables.out.u16(0x2233);
      tables.out.u32(symbol.value);
      name += static_cast<uint32_t>(std::string_view(symbol.name).size()) + 1;
    }
    if (!symbols.empty()) {
      tables.words({name});
      tables.out.raw(strings());
    }
    return joined({front, header.bytes(), text, data, text_reloc, data_reloc, tables.bytes()});
  }
};

// A record that is released with the test.
struct Info : bsd_info {
  Info() : bsd_info{} {}
  ~Info() { Bsd_FreeFile(this); }
  Info(const Info&) = delete;
  Info& operator=(const Info&) = delete;

  std::string names_of_symbols() const {
    std::string all;
    for (int32_t i = 0; i < symbol_count; ++i) {
      const char* const name = strings + Bsd_Symbol(this, i)->n_strx;
      all += (i == 0 ? "" : " ") + std::string(name);
    }
    return all;
  }
};

class Aout : public FormatTest {
 protected:
  void read(const Bytes& bytes, int64_t offset = 0) {
    stream_ = stream_of(bytes);
    Bsd_FreeFile(&info_);
    ASSERT_EQ(Bsd_ReadHeader(stream_.get(), &info_, "one", "two", offset), &info_);
  }
  void read_symbols(const Bytes& bytes) {
    read(bytes);
    ASSERT_EQ(Bsd_ReadSymbolAndStringTable(stream_.get(), &info_), info_.symbol_count);
  }

  Info info_;
  file_ptr stream_;
};

TEST_F(Aout, AFileOfEitherOrderIsReadWholeAndWrittenAgain) {
  for (const bool big : {true, false}) {
    MadeFile made;
    made.big = big;
    made.machine_and_magic = big ? 0x01020107 : 0x00640107;
    made.front = counting(3);
    read(made.bytes(), 3);
    EXPECT_EQ(endian, big ? 1 : 2);
    EXPECT_EQ(info_.big_endian, big ? 1 : 0);
    EXPECT_EQ(info_.machine, big ? 0x0102 : 0x0064);
    EXPECT_EQ(info_.magic, aout::OMAGIC);
    EXPECT_EQ(info_.entry + info_.bss_size + info_.base_offset, 0x20103U);
    EXPECT_STREQ(info_.names[1], "two");
    EXPECT_EQ(info_.text, nullptr);
    Bsd_ReadSymbolAndStringTable(stream_.get(), &info_);
    const aout::symbol* const symbol = Bsd_Symbol(&info_, 3);
    EXPECT_EQ(symbol->n_value, 0x3000U);
    EXPECT_EQ(symbol->n_type * 0x100 + symbol->n_other, 0x711);
    EXPECT_EQ(symbol->n_desc, 0x2233);
    EXPECT_EQ(Bsd_Symbol(&info_, 9), nullptr);
    EXPECT_EQ(Bsd_Symbol(&info_, -1), nullptr);

    const Bytes written = written_by([&](std::FILE* out) {
      Bsd_WriteHeader(out, &info_);
      std::fwrite(Bsd_ReadText(stream_.get(), &info_), 1, info_.text_size, out);
      std::fwrite(Bsd_ReadData(stream_.get(), &info_), 1, info_.data_size, out);
      std::fwrite(Bsd_ReadTextReloc(stream_.get(), &info_), 1, info_.text_reloc_size, out);
      std::fwrite(Bsd_ReadDataReloc(stream_.get(), &info_), 1, info_.data_reloc_size, out);
      // Out of order, to see that each goes to its place.
      Bsd_WriteStringTable(out, info_.strings + 4, info_.relative_offsets[bsd_part::kStrings],
                           static_cast<uint32_t>(info_.string_size) - 4);
      Bsd_WriteSymbol(out, nullptr, 1, 0);
      Bsd_WriteSymbol(out, info_.symbols, 9, info_.relative_offsets[bsd_part::kSymbols]);
    });
    EXPECT_EQ(joined({made.front, written}), made.bytes());
  }
}

TEST_F(Aout, ARecordAndABufferAreMadeWhereNoneIsGiven) {
  const MadeFile made;
  const file_ptr stream = stream_of(made.bytes());
  bsd_info* const info = Bsd_ReadHeader(stream.get(), nullptr, nullptr, nullptr, -1);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->symbol_count, 9);
  EXPECT_EQ(info->names[0], nullptr);
  std::fseek(stream.get(), static_cast<long>(info->file_offsets[bsd_part::kSymbols]), SEEK_SET);
  const malloc_ptr<aout::symbol> two(Bsd_ReadSymbol(stream.get(), nullptr, 2, -1));
  EXPECT_EQ(two[1].n_value, 0x2000U);
  Bsd_FreeFile(info);
  EXPECT_EQ(info->magic, 0);
  std::free(info);
}

TEST_F(Aout, StyleAndOffsetsFollowFromMachineAndMagic) {
  constexpr uint32_t kOther = 0x20000;
  const struct {
    uint32_t machine_and_magic;
    int style;  // 1 paged, 2 small, 3 other
    uint32_t page_size;
    uint32_t offsets[bsd_part::kCount];
  } cases[] = {
      {0x8103010B, 1, 8192, {0, 8192, 30, 33, 37, 61}},
      {0x81030107, 3, kOther, {32, 52, 62, 65, 69, 93}},
      {0x0003010B, 3, kOther, {0, kOther, kOther + 10, kOther + 13, 37, 61}},
      {0x00000107, 2, 8192, {32, 52, 62, 65, 69, 93}},
      {0x01640107, 2, 8192, {32, 52, 62, 65, 69, 93}},
      {0x00640108, 3, kOther, {32, 52, 62, 65, 69, 93}},
  };
  for (const auto& row : cases) {
    bsd_info info = {};
    info.machine = static_cast<uint16_t>(row.machine_and_magic >> 16U);
    info.magic = static_cast<uint16_t>(row.machine_and_magic);
    info.text_size = 20;
    info.data_size = 10;
    info.text_reloc_size = 3;
    info.data_reloc_size = 4;
    info.symbol_table_size = 24;
    info.base_offset = 100;
    Bsd_InitInfo(&info);
    EXPECT_EQ(info.symbol_count, 2);
    EXPECT_EQ(info.style_paged * 1 + info.style_small * 2 + info.style_other * 3, row.style)
        << std::hex << row.machine_and_magic;
    EXPECT_EQ(info.page_size, row.page_size);
    EXPECT_THAT(info.relative_offsets, testing::ElementsAreArray(row.offsets));
    EXPECT_EQ(info.file_offsets[5], row.offsets[5] + 100);
  }
}

TEST_F(Aout, LoadAddressesFollowFromStyleAndEntry) {
  const struct {
    int style;
    uint32_t magic, entry, text_size, text, data;
  } cases[] = {
      {1, 0x10B, 8191, 0x2001, 0, 0x4000},         {1, 0x10B, 8192, 0x2000, 0x2000, 0x4000},
      {1, 0x10B, 8191, 0x2000, 0, 0x2000},         {1, 0x107, 0, 0x11, 0x2000, 0x2011},
      {1, 0x108, 0, 0x2001, 0x2000, 0x6000},       {2, 0x107, 0x6123, 0x11, 0x6000, 0x6011},
      {2, 0x108, 0x6123, 0x11, 0x6000, 0x8000},    {3, 0x107, 8192, 0x11, 0x2000, 0x20000},
      {3, 0x10B, 8192, 0x20001, 0x2000, 0x40000},  {3, 0x107, 0x45678, 0x11, 0x40000, 0x40011},
      {3, 0x10B, 0x45678, 0x11, 0x40000, 0x60000},
  };
  for (const auto& row : cases) {
    bsd_info info = {};
    info.style_paged = row.style == 1 ? 1 : 0;
    info.style_small = row.style == 2 ? 1 : 0;
    info.style_other = row.style == 3 ? 1 : 0;
    info.page_size = row.style == 3 ? 0x20000 : 8192;
    info.magic = static_cast<uint16_t>(row.magic);
    info.entry = row.entry;
    info.text_size = row.text_size;
    info.data_size = 0x30;
    info.bss_size = 0x500;
    const file_ptr stream = stream_of(Bytes{});
    Bsd_ComputeLoadAddresses(stream.get(), &info);
    EXPECT_THAT(info.load_addresses,
                testing::ElementsAre(row.text, row.text + row.text_size, row.data, row.data + 0x30,
                                     row.data + 0x530))
        << row.style << " " << row.entry;
    info.entry += 0x100000;
    Bsd_ComputeLoadAddresses(stream.get(), &info);
    EXPECT_EQ(info.load_addresses[0], row.text) << "done once";
    Bsd_FreeFile(&info);
  }
}

TEST_F(Aout, SymbolsRefineTheAddressesOfTheOtherStyle) {
  MadeFile made;
  read(made.bytes());
  Bsd_ComputeLoadAddresses(stream_.get(), &info_);
  EXPECT_THAT(info_.load_addresses, testing::ElementsAre(0x2000, 0x2005, 0x3000, 0x3100, 0x3200));
  // Without symbols of text and bss, only what depends on the data moves.
  made.symbols = {{"d", 6, 0x3000}};
  read(made.bytes());
  Bsd_ComputeLoadAddresses(stream_.get(), &info_);
  EXPECT_THAT(info_.load_addresses, testing::ElementsAre(0x20000, 0x20005, 0x3000, 0x3006, 0x3106));
}

TEST_F(Aout, AFileWithoutSymbolsHasAnEmptyStringTable) {
  MadeFile made;
  made.symbols = {};
  made.text_reloc = {};
  read_symbols(made.bytes());
  EXPECT_EQ(info_.string_size, 0);
  EXPECT_STREQ(info_.strings, "");
  EXPECT_EQ(Bsd_ReadTextReloc(stream_.get(), &info_), nullptr);
  EXPECT_EQ(Bsd_FilterDebugSymbols(&info_), 0);
}

TEST_F(Aout, ANegativeOrMissingSizeOfStringsGivesNone) {
  const MadeFile made;
  Bytes bytes = made.bytes();
  const size_t strings = bytes.size() - made.strings().size() - 4;
  bytes[strings] = 0x80;
  for (const size_t size : {bytes.size(), strings}) {
    bytes.resize(size);
    read_symbols(bytes);
    EXPECT_EQ(info_.strings, nullptr);
    EXPECT_LT(info_.string_size, 0);
    Bsd_SortSymbolsByName(&info_);
    EXPECT_EQ(Bsd_FilterDebugAndQVRLineSymbols(&info_), 8);
  }
}

TEST_F(Aout, ComparisonsOrderByValueAndCommonSymbolsLast) {
  const aout::symbol low = {0, 5, 0, 0, 1};
  const aout::symbol high = {0, 7, 0, 0, 0x80000000};
  const aout::symbol common = {0, 1, 0, 0, 0};
  aout::symbol sized = common;
  sized.n_value = 1;
  EXPECT_EQ(Bsd_ValueCmp(nullptr, &low, &high), -1);
  EXPECT_EQ(Bsd_ValueCmp(nullptr, &high, &low), 1);
  EXPECT_EQ(Bsd_ValueCmp(nullptr, &low, &low), -1);
  EXPECT_EQ(Bsd_AddressCmp(nullptr, &sized, &high), 1);
  EXPECT_EQ(Bsd_AddressCmp(nullptr, &high, &sized), -1);
  EXPECT_EQ(Bsd_AddressCmp(nullptr, &common, &high), -1) << "without a value it isn't common";
  EXPECT_EQ(Bsd_AddressCmp(nullptr, &high, &low), 1);
}

TEST_F(Aout, SymbolsAreSortedByValueAddressAndName) {
  read_symbols(MadeFile{}.bytes());
  Bsd_SortSymbolsByValue(&info_);
  EXPECT_EQ(info_.names_of_symbols(),
            "outside common ..lin.12 shared debug start local table room");
  Bsd_SortSymbolsByAddress(&info_);
  EXPECT_EQ(info_.names_of_symbols(),
            "outside ..lin.12 debug start local table room common shared");
  Bsd_SortSymbolsByName(&info_);
  EXPECT_EQ(info_.names_of_symbols(),
            "..lin.12 common debug local outside room shared start table");
}

TEST_F(Aout, NamesOutsideTheStringsSortAsEmptyOnes) {
  read_symbols(MadeFile{}.bytes());
  Bsd_Symbol(&info_, 3)->n_strx = static_cast<uint32_t>(info_.string_size);
  Bsd_Symbol(&info_, 7)->n_strx = UINT32_MAX;
  Bsd_SortSymbolsByName(&info_);
  EXPECT_EQ(std::multiset({Bsd_Symbol(&info_, 0)->n_value, Bsd_Symbol(&info_, 1)->n_value}),
            std::multiset({0x2080U, 0x3000U}));
  EXPECT_EQ(Bsd_FilterDebugAndQVRLineSymbols(&info_), 7);
}

TEST_F(Aout, ValuesBecomeSizesOfOrdinarySymbols) {
  read_symbols(MadeFile{}.bytes());
  Bsd_ComputeLoadAddresses(stream_.get(), &info_);
  Bsd_SortSymbolsBySizeAndSetToValue(&info_);
  std::set<std::string> found;
  uint32_t before = 0;
  for (int32_t i = 0; i < info_.symbol_count; ++i) {
    const aout::symbol* const symbol = Bsd_Symbol(&info_, i);
    EXPECT_LE(before, symbol->n_value) << "sorted by size";
    before = symbol->n_value;
    found.insert(info_.strings + symbol->n_strx + (" " + std::to_string(before)));
  }
  // Common symbols and those for debuggers keep their values.
  EXPECT_THAT(found, testing::ElementsAre("..lin.12 16", "common 64", "debug 8200", "local 3968",
                                          "outside 8192", "room 256", "shared 8196", "start 112",
                                          "table 256"));
}

TEST_F(Aout, FiltersKeepTheOthersInOrder) {
  read_symbols(MadeFile{}.bytes());
  EXPECT_EQ(Bsd_FilterSymbols(&info_, nullptr), 9);
  EXPECT_EQ(Bsd_FilterDebugSymbols(&info_), 8);
  EXPECT_EQ(info_.names_of_symbols(), "start ..lin.12 common table outside room local shared");
  EXPECT_EQ(Bsd_FilterDebugAndQVRLineSymbols(&info_), 7);
  EXPECT_EQ(info_.names_of_symbols(), "start common table outside room local shared");
  EXPECT_EQ(info_.symbol_count, 7);
  EXPECT_EQ(Bsd_FilterSymbols(&info_, [](const bsd_info*, const aout::symbol*) { return true; }),
            0);
  EXPECT_EQ(Bsd_Symbol(&info_, 0), nullptr);
}

TEST_F(Aout, WhatIsNotThereIsReported) {
  for (const Bytes& bytes : {bytes_of("plain text"), Bytes{}, bytes_of("MZ no signature"),
                             Bytes{1, 3, 1, 8, 0, 0, 0, 0}}) {
    const CapturedRun run = capture([&] { read(bytes); });
    EXPECT_EQ(run.errors, "fatal: [Bsd_Init] bad magic\n");
    EXPECT_EQ(run.status, 1);
  }
  Bytes bytes = MadeFile{}.bytes();
  bytes[4] = bytes[8] = bytes[16] = bytes[24] = bytes[28] = 0x7F;  // sizes that no file has
  read(bytes);
  for (uint8_t* (*const read_part)(std::FILE*, bsd_info*) :
       {Bsd_ReadText, Bsd_ReadData, Bsd_ReadTextReloc, Bsd_ReadDataReloc}) {
    EXPECT_EQ(capture([&] { read_part(stream_.get(), &info_); }).errors, "fatal: read failed\n");
  }
  int32_t failure = 0;
  elf_seterrorcond(&failure);
  EXPECT_EQ(Bsd_ReadSymbol(stream_.get(), nullptr, UINT32_MAX, 0), nullptr);
  EXPECT_EQ(failure, -1);
  Bsd_ReadSymbolAndStringTable(stream_.get(), &info_);
  EXPECT_EQ(Bsd_Symbol(&info_, 0), nullptr);
}

}  // namespace
}  // namespace kelvane
