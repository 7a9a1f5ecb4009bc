#include "section_filter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bytes.h"
#include "captured_run.h"
#include "debug_print.h"
#include "elf32.h"
#include "image.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "section_list.h"

namespace kelvane {
namespace {

class SectionFilter : public testing::Test {
 protected:
  SectionFilter() { reset_all_state(); }
  ~SectionFilter() override { reset_all_state(); }
};

TEST_F(SectionFilter, KeepsCopiesOfTheExclusionsInTheirOrder) {
  EXPECT_EQ(section_exclusions, nullptr);
  std::string name = ".data";
  add_section_exclusion(name.c_str());
  name = ".text";
  add_section_exclusion(name.c_str());
  add_section_exclusion(".data");
  EXPECT_STREQ(section_exclusions[0], ".data");
  EXPECT_STREQ(section_exclusions[1], ".text");
  EXPECT_STREQ(section_exclusions[2], ".data");
  EXPECT_EQ(section_exclusions[3], nullptr);
}

TEST_F(SectionFilter, KeepsTheAliasesInTheirOrderWithAPairOfZerosBehind) {
  EXPECT_EQ(memory_aliases, nullptr);
  add_memory_alias(0x80000000, 0x20000000);
  add_memory_alias(0, 0);  // is the end itself, and adds nothing
  add_memory_alias(0, 0xFF);
  add_memory_alias(0x1000, 0);
  constexpr uint32_t kExpected[][2] = {{0x80000000, 0x20000000}, {0, 0xFF}, {0x1000, 0}, {0, 0}};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(memory_aliases[i].address, kExpected[i][0]) << i;
    EXPECT_EQ(memory_aliases[i].mask, kExpected[i][1]) << i;
  }
}

TEST_F(SectionFilter, ShowsAnAliasAtLevel2) {
  debug_level = 1;
  EXPECT_EQ(capture([] { add_memory_alias(1, 2); }).errors, "");
  debug_level = 2;
  EXPECT_EQ(capture([] { add_memory_alias(0x80000000, 0); }).errors,
            "Adding memory alias for address 0x80000000 with mask 0\n");
}

TEST_F(SectionFilter, MasksFromTheLowestBitUpward) {
  for (const auto& [x, mask] : {std::pair{0x00100000U, 0xFFF00000U},
                                {0x80000000U, 0x80000000U},
                                {0x00000006U, 0xFFFFFFFEU},
                                {0U, 0U}}) {
    EXPECT_EQ(get_region_mask(x), mask);
  }
}

constexpr uint32_t kNobits = elf32::SHT_NOBITS;

// A section list under construction.
class SectionList : public SectionFilter {
 protected:
  SectionList() : records_(gen_alloc_array<sym_addr>(kMostSections)) {
    gen_changeprogname("kelvane");
    fDiffMemory = 1;
    start();
  }
  ~SectionList() override { start(); }

  // Makes the list empty.
  void start() {
    for (sym_addr* record = records_.get(); record != sym_addrp && sym_addrp != nullptr; ++record) {
      gen_free(record->name);
    }
    sym_addr_list = records_.get();
    sym_addrp = sym_addr_list;
  }

  static void add(const std::string& name, uint32_t addr = 0, uint32_t offset = 0,
                  uint32_t size = 0, uint32_t type = elf32::SHT_PROGBITS,
                  uint32_t flags = elf32::SHF_ALLOC) {
    add_symbol(name.c_str(), addr, offset, size, type, flags, "file");
  }

  // The name that a section gets in an empty list; "-" if it is dropped.
  std::string mapped(const std::string& name, uint32_t flags = elf32::SHF_ALLOC) {
    start();
    add(name, 0, 0, 0, elf32::SHT_PROGBITS, flags);
    return sym_addrp == sym_addr_list ? "-" : sym_addr_list->name;
  }

  // A record in one line: name, type, address, offset, size, compressed size, start of the object.
  static std::string shown(const sym_addr& record) {
    std::string line = record.name;
    for (const uint32_t number : {record.type, record.addr.low, record.offset.low, record.size,
                                  record.compressed_size, record.object_start}) {
      line += ' ' + std::to_string(number);
    }
    return line;
  }

  gen_ptr<sym_addr> records_;
};

TEST_F(SectionList, NamesAreMappedByTheFirstRuleThatFits) {
  struct Row {
    const char* name;
    const char* in_memory_mode;
    const char* in_file_mode;
    const char* without_alloc;
  };
  for (const Row& row : {
           Row{".text", ".text", ".text", "-"},
           Row{".romfl1", ".rflow1", ".romfl1", ".rflow1"},
           Row{".romfl2", ".rflow2", ".romfl2", ".rflow2"},
           Row{".romfl3", ".rflow3", ".romfl3", ".rflow3"},
           Row{".romfl4", ".fl4", ".romfl4", ".fl4"},
           Row{".romfl1x", ".fl1x", ".romfl1x", ".fl1x"},
           Row{".UNCOMPRESSED.data", ".data", ".UNCOMPRESSED.data", ".data"},
           Row{".ROM.data", ".data", ".ROM.data", ".data"},
           Row{".ROMdata", "data", ".ROMdata", "data"},
           Row{".romdata", ".data", ".romdata", ".data"},
           Row{".rom", ".", ".rom", "."},
           Row{".cromt_foo", ".text_foo", ".cromt_foo", ".text_foo"},
           Row{".cromfoo", ".foo", ".cromfoo", ".foo"},
           Row{".CROM.foo", "-", ".CROM.foo", "-"},
           Row{".Rom", ".Rom", ".Rom", "-"},
           Row{".patch_x", "-", ".patch_x", "-"},
           Row{".ROM.patch", "-", ".ROM.patch", "-"},
           Row{".heap", "-", ".heap", "-"},
           Row{".romheap", "-", ".romheap", "-"},
           Row{".heapx", ".heapx", ".heapx", "-"},
           Row{".stack", "-", ".stack", "-"},
           Row{".reset", "-", ".reset", "-"},
           Row{".syscall", "-", ".syscall", "-"},
           Row{".fixaddr", "-", ".fixaddr", "-"},
           Row{".fixtype", "-", ".fixtype", "-"},
           Row{".secinfo", "-", ".secinfo", "-"},
           Row{"..lxfoo", "-", "-", "-"},
           Row{"..linfoo", "-", "-", "-"},
           Row{"%%linfoo", "-", "-", "-"},
           Row{"%%lxfoo", "@#$%", "@#$%", "-"},
           Row{"..foo", "@#$%", "@#$%", "-"},
           Row{"..", "@#$%", "@#$%", "-"},
           Row{"__caller.x", "-", "-", "-"},
           Row{"__callee.", "-", "-", "-"},
           Row{"__callers", "__callers", "__callers", "-"},
           Row{"__calle.", "__calle.", "__calle.", "-"},
           Row{"", "", "", "-"},
       }) {
    EXPECT_EQ(mapped(row.name), row.in_memory_mode) << row.name;
    EXPECT_EQ(mapped(row.name, ~elf32::SHF_ALLOC), row.without_alloc) << row.name;
    fDiffMemory = 0;
    EXPECT_EQ(mapped(row.name, 0), row.in_file_mode) << row.name;
    fDiffMemory = 1;
  }
}

TEST_F(SectionList, SectionsOfOneNameBecomeOneRecord) {
  struct Section {
    const char* name;
    uint32_t addr, offset, size, type;
  };
  struct Row {
    std::vector<Section> sections;
    const char* record;
  };
  object_start = 60;
  for (const Row& row : {
           Row{{{".crom_x", 0x100, 10, 20, 1}, {"._x", 0x200, 30, 50, kNobits}},
               "._x 1 512 10 50 20 60"},
           Row{{{"._x", 0x200, 30, 50, kNobits}, {".crom_x", 0x100, 10, 20, 1}},
               "._x 1 512 10 50 20 60"},
           Row{{{".ROM.data", 0x100, 10, 20, 1}, {".data", 0x200, 30, 24, kNobits}},
               ".data 1 512 10 24 0 60"},
           Row{{{".data", 0x200, 30, 24, kNobits}, {".ROM.data", 0x100, 10, 20, 1}},
               ".data 1 512 10 20 0 60"},
           Row{{{".data", 0x200, 30, 24, 1}, {".rom.data", 0x100, 10, 20, 1}},
               ".data 1 512 30 24 0 60"},
           Row{{{".crom.x", 0x100, 10, 20, 1}, {"..x", 0, 0, 0, 1}}, "..x 1 256 10 20 20 60"},
           Row{{{".crom_x", 0x100, 10, 20, 1}, {".rom_x", 0x300, 40, 60, 1}},
               "._x 1 256 40 60 0 60"},
           Row{{{"..a", 1, 2, 3, 1}, {"%%b", 4, 5, 6, 7}}, "@#$% 7 4 5 6 0 60"},
       }) {
    start();
    for (const Section& one : row.sections) {
      add(one.name, one.addr, one.offset, one.size, one.type);
    }
    EXPECT_EQ(shown(*sym_addr_list), row.record);
  }
}

TEST_F(SectionList, AnExclusionNamesTheSectionInMemory) {
  add_section_exclusion(".bss");
  add_section_exclusion(".data");
  debug_level = 1;
  EXPECT_EQ(capture([] { add(".ROM.data"); }).errors,
            "Skipping section '.ROM.data' in file 'file' because of exclusion '.data'\n");
  EXPECT_EQ(sym_addrp, sym_addr_list);
  add_section_exclusion(".ROM.text");
  const CapturedRun run = capture([] { add(".ROM.text"); });
  EXPECT_EQ(run.errors,
            "kelvane: fatal: Exclusion '.ROM.text' should use RAM section name instead for file "
            "'file'\n");
  EXPECT_EQ(run.status, 1);
  fDiffMemory = 0;
  EXPECT_EQ(capture([] { add(".ROM.text"); }).errors,
            "Skipping section '.ROM.text' in file 'file' because of exclusion '.ROM.text'\n");
}

TEST_F(SectionList, WhatIsNeverComparedIsToldAtLevel1) {
  debug_level = 1;
  EXPECT_EQ(capture([] {
              add(".romheap");
              add(".debug", 0, 0, 0, 1, 0);
              add("..lin");
            }).errors,
            "Skipping section '.romheap' in file 'file'\n");
}

TEST_F(SectionList, AliasesBringAddressesToOneForm) {
  struct Row {
    std::vector<memory_alias> aliases;
    uint32_t addr, expected;
    const char* lines;
  };
  for (const Row& row : {
           Row{{{0x80000000, 0x20000000}},
               0xA0001000,
               0x80001000,
               "Mapping address 0xa0001000 to 0x80001000\n"},
           Row{{{0x80000000, 0x20000000}}, 0x00001000, 0x00001000, ""},
           Row{{{0x00100000, 0}}, 0x00154321, 0x00154321, "Mapping address 0x154321 to 0x154321\n"},
           Row{{{0, 0xF0000000}},
               0x12345678,
               0x02345678,
               "Mapping address 0x12345678 to 0x2345678\n"},
           Row{{{0, 0xF0000000}, {0x02000000, 0x00F00000}},
               0x12345678,
               0x02045678,
               "Mapping address 0x12345678 to 0x2345678\n"
               "Mapping address 0x2345678 to 0x2045678\n"},
           Row{{{0x00000000, 0xF0000000}, {0x02300000, 0x40000000}},
               0x12345678,
               0x02345678,
               "Mapping address 0x12345678 to 0x2345678\n"
               "Mapping address 0x2345678 to 0x2345678\n"},
       }) {
    debug_level = 0;
    reset_all_state();
    fDiffMemory = 1;
    start();
    for (const memory_alias& alias : row.aliases) {
      add_memory_alias(alias.address, alias.mask);
    }
    debug_level = 1;
    EXPECT_EQ(capture([&] { add(".x", row.addr); }).errors, row.lines);
    EXPECT_EQ(sym_addr_list->addr.low, row.expected);
  }
}

TEST_F(SectionList, HoldsEveryNameThatFitsAndNoMore) {
  for (int32_t i = 0; i < kMostSections; ++i) {
    add(".s" + std::to_string(i), static_cast<uint32_t>(i));
  }
  EXPECT_EQ(sym_addrp, sym_addr_list + kMostSections);
  for (const int32_t i : {0, 64, 65, 20000, kMostSections - 1}) {
    add(".s" + std::to_string(i), 7, 8, 9);
    EXPECT_EQ(shown(sym_addr_list[i]), ".s" + std::to_string(i) + " 1 7 8 9 0 0");
  }
  const CapturedRun run = capture([] { add(".another"); });
  EXPECT_EQ(run.errors, "kelvane: fatal: more than 32768 symbols found in 'file'\n");
  EXPECT_EQ(run.status, 1);
}

TEST_F(SectionList, IsSearchedAsByAWalkWhereverItIsPut) {
  const gen_ptr<sym_addr> other(gen_alloc_array<sym_addr>(300));
  std::vector<std::string> pool(250);
  for (size_t i = 0; i < pool.size(); ++i) {
    pool[i] = ".n" + std::to_string(i);
  }
  const auto use = [&](sym_addr* list, size_t count, size_t first_name) {
    for (size_t i = 0; i < count; ++i) {
      list[i].name = pool[(first_name + i) % pool.size()].data();
    }
    sym_addr_list = list;
    sym_addrp = list + count;
    for (const size_t asked : {size_t{0}, count / 2, count - 1}) {
      const std::string name = list[asked].name;
      sym_addr* const expected = list + asked % pool.size();  // names come again behind the pool
      expected->size = 0;
      add(name, 0, 0, 77);
      EXPECT_EQ(expected->size, 77U) << asked << ' ' << count << ' ' << first_name;
      EXPECT_EQ(sym_addrp, list + count);
    }
  };
  for (const size_t first_name : {0U, 3U, 101U, 40U}) {
    for (const size_t count : {300U, 120U, 20U, 299U}) {
      use(records_.get(), count, first_name);
      use(other.get(), count, first_name + count);
    }
  }
  sym_addr_list = records_.get();
  sym_addrp = sym_addr_list;
}

}  // namespace
}  // namespace kelvane
