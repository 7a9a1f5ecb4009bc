#include "section_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "bytes.h"
#include "captured_run.h"
#include "image_builder.h"
#include "indelfio.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "indmagic.h"
#include "reset_state.h"
#include "section_filter.h"

namespace kelvane {
namespace {

using elf32::file_header;
using elf32::section_header;
using testing::ElementsAre;
using testing::IsEmpty;
using Headers = std::vector<section_header>;

// Objects read as part of a load.
class Objects : public testing::Test {
 protected:
  Objects() : list_(gen_alloc_array<sym_addr>(kMostSections)) {
    reset_all_state();
    gen_changeprogname("kelvane");
    sym_addr_list = list_.get();
    sym_addrp = sym_addr_list;
    current_data = &file_;
  }
  ~Objects() override {
    for (sym_addr* record = sym_addr_list; record != sym_addrp; ++record) {
      gen_free(record->name);
    }
    reset_all_state();
  }

  // Reads an object of the machine `machine` that stands behind `before` bytes of something else.
  void read(const Bytes& object, int32_t machine = 0, size_t before = 0) {
    stream_.reset(std::tmpfile());
    const Bytes bytes = joined({Bytes(before, 0xEE), object});
    std::fwrite(bytes.data(), 1, bytes.size(), stream_.get());
    std::fseek(stream_.get(), static_cast<long>(before), SEEK_SET);
    file_magic kind = {};
    kind.machine = machine;
    object_info object_at_hand = {};
    object_at_hand.display_name = "lib.a(x.o)";
    object_at_hand.magic = &kind;
    EXPECT_EQ(do_ELF_file(stream_.get(), nullptr, &object_at_hand), 0);
  }

  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const sym_addr* record = list_.get(); record != sym_addrp; ++record) {
      result.emplace_back(record->name);
    }
    return result;
  }

  gen_ptr<sym_addr> list_;
  file_data file_ = {};
  file_ptr stream_;
};

Image image_with(const std::vector<ImageSymbol>& symbols) {
  Image image;
  image.sections = {{.name = ".text", .addr = 0x1000, .content = Bytes(16)},
                    {.name = "null", .type = elf32::SHT_NULL},
                    {.name = ".bss", .type = elf32::SHT_NOBITS, .addr = 0x2000, .size = 8},
                    {.name = ".debug", .flags = 0, .content = Bytes(4)}};
  image.symbols = symbols;
  return image;
}

TEST_F(Objects, GiveTheSectionsThatTheModeTakes) {
  read(build_image(image_with({})));
  EXPECT_THAT(names(), ElementsAre(".text", ".debug", ".shstrtab"));
  fDiffMemory = 1;
  read(build_image(image_with({})));
  EXPECT_THAT(names(), ElementsAre(".text", ".debug", ".shstrtab", ".bss"));
}

TEST_F(Objects, AreReadFromWhereTheyStart) {
  fDiffMemory = 1;
  read(build_image(image_with({crt1_symbol(0x1000, ".text")})), 0, 1234);
  EXPECT_EQ(list_.get()[0].offset.low, 52U);
  EXPECT_EQ(list_.get()[0].object_start, 1234U);
  EXPECT_EQ(file_.crt1, 0x1000U);
  EXPECT_STREQ(symbol_name(table, table.records[1]), "__qvr_ind_crt1");
}

TEST_F(Objects, LeaveTheSymbolsOfTheLastOneThatHasAny) {
  read(build_image(image_with({{.name = "a", .section = ".text"}})));
  table1 = table;
  read(build_image(image_with({{.name = "b"}, {.name = "c"}})));
  EXPECT_EQ(table.count, 3);
  EXPECT_STREQ(symbol_name(table, table.records[2]), "c");
  EXPECT_STREQ(symbol_name(table1, table1.records[1]), "a");
  const char* const strings = table.strings;
  read(build_image(image_with({})));
  EXPECT_EQ(table.count, 0);
  EXPECT_EQ(table.records, nullptr);
  EXPECT_EQ(table.strings, strings);
}

TEST_F(Objects, TellTheStartUpFunction) {
  const auto crt1 = [](uint32_t value, uint8_t info = 0x12, const char* section = ".text",
                       uint8_t other = 0) {
    ImageSymbol symbol = crt1_symbol(value, section);
    symbol.info = info;
    symbol.other = other;
    return symbol;
  };
  struct Row {
    std::vector<ImageSymbol> symbols;
    int32_t machine;
    uint32_t expected;
  };
  for (const Row& row : {
           Row{{{.name = "other", .value = 1, .section = ".text"}}, 0, 0},
           Row{{crt1(0x100), crt1(0x200)}, 0, 0x100},
           Row{{crt1(0x100, 0x12, ""), crt1(0x200, 0x11), crt1(0x300, 2)}, 0, 0x300},
           Row{{crt1(0x100, 0x12, ".text", 1)}, 68, 0x101},
           Row{{crt1(0x100, 0x12, ".text", 2)}, 68, 0x100},
           Row{{crt1(0x100, 0x12, ".text", 1)}, 67, 0x100},
       }) {
    file_.crt1 = 0;
    read(build_image(image_with(row.symbols)), row.machine);
    EXPECT_EQ(file_.crt1, row.expected);
  }
}

TEST_F(Objects, OfOneByteOrderAreReadOnAnyHost) {
  for (const ByteOrder order : {ByteOrder::big, ByteOrder::little}) {
    Image image = image_with({crt1_symbol(0x81020304, ".text")});
    image.order = order;
    read(build_image(image));
    EXPECT_EQ(endian, order == ByteOrder::big ? 1 : 2);
    EXPECT_EQ(file_.crt1, 0x81020304U);
    EXPECT_EQ(list_.get()[0].addr.low, 0x1000U);
  }
}

// The second half starts where the first has left the stream, which is not put back if there are no
// sections.
TEST_F(Objects, WithoutSectionsAreReadAgainFromWhereTheHeadersWouldBe) {
  Image image = image_with({});
  image.damage = [](file_header& header, Headers&) { header.e_shnum = 0, header.e_shoff = 0; };
  read(build_image(image));
  EXPECT_THAT(names(), IsEmpty());
  image.damage = [](file_header& header, Headers&) { header.e_shentsize = 20; };
  const Bytes small_headers = build_image(image);
  const CapturedRun run = capture([&] { read(small_headers); });
  EXPECT_EQ(run.errors, "kelvane: fatal: bad elf magic number\n");
  EXPECT_EQ(run.status, 1);
  Bytes wide = small_headers;
  wide[elf32::EI_CLASS] = elf32::ELFCLASS64;
  EXPECT_FALSE(capture([&] { read(wide); }).ended) << "a 64-bit object never ends the run";
  EXPECT_EQ(table.count, 0);
}

TEST_F(Objects, AreNamedInMessagesAsTheyAreShown) {
  fDiffMemory = 1;
  add_section_exclusion(".ROM.text");
  Image image = image_with({});
  image.sections[0].name = ".ROM.text";
  const Bytes bytes = build_image(image);
  EXPECT_EQ(capture([&] { read(bytes); }).errors,
            "kelvane: fatal: Exclusion '.ROM.text' should use RAM section name instead for file "
            "'lib.a(x.o)'\n");
}

}  // namespace
}  // namespace kelvane
