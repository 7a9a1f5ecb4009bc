#include "section_filter.h"

#include <gtest/gtest.h>

#include <sstream>
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
#include "table_rows.h"

namespace kelvane {
namespace {

uint32_t number_from(const std::string& text) {
  return static_cast<uint32_t>(std::stoul(text, nullptr, 0));
}

// A section list under construction.
class SectionList : public testing::Test {
 protected:
  SectionList() : records_(gen_alloc_array<sym_addr>(kMostSections)) {
    reset_all_state();
    gen_changeprogname("kelvane");
    fDiffMemory = 1;
    start();
  }
  ~SectionList() override {
    start();
    reset_all_state();
  }

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
  for (const TableRow& row : rows_of("section_filter.table", "name")) {
    const std::string name = words_of(row.given)[0];
    const std::vector<std::string> expected = words_of(row.expected);
    EXPECT_EQ(mapped(name), expected[0]) << name;
    EXPECT_EQ(mapped(name, ~elf32::SHF_ALLOC), expected[2]) << name;
    fDiffMemory = 0;
    EXPECT_EQ(mapped(name, 0), expected[1]) << name;
    fDiffMemory = 1;
  }
}

TEST_F(SectionList, SectionsOfOneNameBecomeOneRecord) {
  object_start = 60;
  for (const TableRow& row : rows_of("section_filter.table", "record")) {
    start();
    for (const std::string& section : words_of(row.given)) {
      std::istringstream fields(section);
      std::string name;
      std::getline(fields, name, ',');
      std::vector<uint32_t> numbers;
      for (std::string number; std::getline(fields, number, ',');) {
        numbers.push_back(number_from(number));
      }
      add(name, numbers[0], numbers[1], numbers[2], numbers[3]);
    }
    EXPECT_EQ(shown(*sym_addr_list), row.expected);
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
  for (const TableRow& row : rows_of("section_filter.table", "alias")) {
    start();
    reset_all_state();
    fDiffMemory = 1;
    start();
    debug_level = 1;
    EXPECT_EQ(capture([&] {
                for (const std::string& alias : words_of(row.given)) {
                  add_memory_alias(number_from(alias),
                                   number_from(alias.substr(alias.find(':') + 1)));
                }
              }).errors,
              "");
    const std::vector<std::string> forms = words_of(row.expected);
    std::string lines;
    for (size_t i = 1; i < forms.size(); ++i) {
      lines += "Mapping address " + forms[i - 1] + " to " + forms[i] + '\n';
    }
    EXPECT_EQ(capture([&] { add(".x", number_from(forms.front())); }).errors, lines);
    EXPECT_EQ(sym_addr_list->addr.low, number_from(forms.back()));
  }
  debug_level = 2;
  EXPECT_EQ(capture([] { add_memory_alias(0x80000000, 0); }).errors,
            "Adding memory alias for address 0x80000000 with mask 0\n");
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
