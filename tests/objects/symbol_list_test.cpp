#include "symbol_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "captured_run.h"
#include "debug_print.h"
#include "reset_state.h"

namespace kelvane {
namespace {

using testing::ElementsAre;

constexpr uint8_t kGlobalFunction = 0x12;  // the binding in the high bits doesn't matter
constexpr uint8_t kSection = 3;

// A table of symbols that tests fill by name.
class Symbols : public testing::Test {
 protected:
  Symbols() { reset_all_state(); }
  ~Symbols() override { reset_all_state(); }

  elf32::symbol symbol(const std::string& name, uint32_t value, uint32_t size,
                       uint8_t info = kGlobalFunction, uint16_t section = 1) {
    const auto position = static_cast<uint32_t>(strings_.size());
    strings_ += name + '\0';
    return {position, value, size, info, 0, section};
  }

  // Makes the records the table.
  void describe(const std::vector<elf32::symbol>& records) {
    records_ = records;
    table = {static_cast<int32_t>(records_.size()), 0, records_.data(), strings_.data(),
             static_cast<uint32_t>(strings_.size())};
  }

  // Names of the records that are objects or functions still, in their order.
  std::vector<std::string> names(bool eligible_only = false) {
    std::vector<std::string> result;
    for (const elf32::symbol& record : records_) {
      if (!eligible_only || record.st_info != 0) {
        result.emplace_back(strings_.data() + record.st_name);
      }
    }
    return result;
  }

  // Names of the records that stay of symbols named by their sizes, all at one address.
  std::vector<std::string> survivors(const std::vector<uint32_t>& sizes) {
    std::vector<elf32::symbol> records;
    for (const uint32_t size : sizes) {
      records.push_back(symbol(std::to_string(records.size() + 1), 0x1000, size));
    }
    describe(records);
    symtab_del_dup(table.records, table.count);
    return names(true);
  }

 private:
  std::string strings_;
  std::vector<elf32::symbol> records_;
};

TEST_F(Symbols, AreOrderedByAddressAsUnsignedNumbers) {
  const elf32::symbol low = symbol("low", 0x1000, 0);
  const elf32::symbol high = symbol("high", 0x80000000, 8, elf32::STT_OBJECT);
  EXPECT_EQ(symtab_addr(&low, &high), -1);
  EXPECT_EQ(symtab_addr(&high, &low), 1);
  EXPECT_EQ(symtab_addr(&low, &low), 0);
}

TEST_F(Symbols, ThatAreUndefinedOrOfAnotherTypeComeLastAndAreEqual) {
  const elf32::symbol good = symbol("z", 0xFFFFFFFF, 0);
  const elf32::symbol undefined = symbol("a", 1, 8, kGlobalFunction, elf32::SHN_UNDEF);
  const elf32::symbol section = symbol("b", 2, 8, kSection);
  const elf32::symbol none = symbol("c", 3, 8, 0x10);
  describe({});
  for (const auto compare : {symtab_addr, symtab_cmp}) {
    for (const elf32::symbol& bad : {undefined, section, none}) {
      EXPECT_LT(compare(&good, &bad), 0);
      EXPECT_GT(compare(&bad, &good), 0);
      EXPECT_EQ(compare(&bad, &undefined), 0);
    }
  }
}

TEST_F(Symbols, AreOrderedByNameThoseWithASizeFirst) {
  describe({symbol("", 0, 4, kSection), symbol("b", 1, 0), symbol("b", 2, 8),
            symbol("undefined", 3, 8, kGlobalFunction, 0), symbol("a", 4, 0), symbol("B", 5, 1),
            symbol("ab", 6, 0xFFFFFFFF), symbol("a", 7, 2, elf32::STT_OBJECT)});
  sort_symbols(symtab_cmp);
  EXPECT_THAT(names(), ElementsAre("B", "a", "ab", "b", "a", "b", "", "undefined"));
  EXPECT_EQ(count_defined_with_size(), 4);
  EXPECT_EQ(count_with_size(), 4);
}

TEST_F(Symbols, AreCountedToTheFirstOneThatDoesNotFit) {
  describe({symbol("a", 1, 8), symbol("b", 2, 8, kSection), symbol("c", 3, 8), symbol("d", 4, 0),
            symbol("e", 5, 8)});
  EXPECT_EQ(count_defined_with_size(), 1);
  EXPECT_EQ(count_with_size(), 3);
  describe({symbol("a", 1, 8), symbol("b", 2, 8, kGlobalFunction, 0)});
  EXPECT_EQ(count_defined_with_size(), 1);
  EXPECT_EQ(count_with_size(), 2);
  describe({});
  EXPECT_EQ(count_defined_with_size(), 0);
  EXPECT_EQ(count_with_size(), 0);
}

TEST_F(Symbols, OfOneAddressLeaveTheFirstOfTheGreatest) {
  EXPECT_THAT(survivors({4, 8}), ElementsAre("2"));
  EXPECT_THAT(survivors({8, 4}), ElementsAre("1"));
  EXPECT_THAT(survivors({4, 4}), ElementsAre("1"));
  EXPECT_THAT(survivors({4, 8, 16}), ElementsAre("3"));
  EXPECT_THAT(survivors({16, 8, 4}), ElementsAre("1"));
  EXPECT_THAT(survivors({4, 16, 8, 16}), ElementsAre("2"));
}

TEST_F(Symbols, AreDeletedAddressByAddressWithTheirNamesAtLevel5) {
  describe({symbol("a", 1, 4), symbol("b", 1, 8), symbol("c", 2, 4), symbol("d", 3, 8),
            symbol("e", 3, 8), symbol("section", 3, 16, kSection), symbol("f", 3, 9)});
  debug_level = 4;
  const std::vector<elf32::symbol> before(table.records, table.records + table.count);
  EXPECT_EQ(capture([] { symtab_del_dup(table.records, table.count); }).errors, "");
  // A record that is no object or function counts behind one that is.
  EXPECT_THAT(names(true), ElementsAre("b", "c", "section"));
  describe(before);
  debug_level = 5;
  EXPECT_EQ(capture([] { symtab_del_dup(table.records, table.count); }).errors,
            "Deleting dup: a\nDeleting dup: e\nDeleting dup: d\nDeleting dup: f\n");
}

TEST_F(Symbols, ThatAreNotEligibleStartNoComparison) {
  describe({symbol("a", 1, 4, kSection), symbol("b", 1, 8, kSection), symbol("c", 1, 2)});
  symtab_del_dup(table.records, table.count);
  EXPECT_THAT(names(true), ElementsAre("a", "b", "c"));
}

TEST_F(Symbols, AreShownByTheirNamesAloneAtLevel5) {
  describe({symbol("a", 1, 4), symbol("", 2, 4), symbol("c", 3, 4)});
  debug_level = 4;
  EXPECT_EQ(capture([] { print_symbol_names(3); }).errors, "");
  debug_level = 5;
  EXPECT_EQ(capture([] { print_symbol_names(2); }).errors, "a\n\n");
}

}  // namespace
}  // namespace kelvane
