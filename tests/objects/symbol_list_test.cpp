#include "symbol_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "captured_run.h"
#include "debug_print.h"
#include "reset_state.h"
#include "table_rows.h"

namespace kelvane {
namespace {

// Makes the symbols of a row of the table `table`.
class Symbols : public testing::Test {
 protected:
  Symbols() { reset_all_state(); }
  ~Symbols() override { reset_all_state(); }

  void describe(const std::string& symbols) {
    strings_.clear();
    records_.clear();
    for (const std::string& symbol : words_of(symbols)) {
      const auto position = static_cast<uint32_t>(strings_.size());
      std::istringstream fields(symbol);
      std::string name;
      std::getline(fields, name, '/');
      strings_ += name + '\0';
      std::vector<uint32_t> numbers;
      for (std::string number; std::getline(fields, number, '/');) {
        numbers.push_back(static_cast<uint32_t>(std::stoul(number, nullptr, 0)));
      }
      const uint32_t type = numbers.size() > 2 ? numbers[2] : elf32::STT_FUNC;
      const uint32_t section = numbers.size() > 3 ? numbers[3] : 1;
      // The binding in the high bits of the type doesn't matter.
      records_.push_back({position, numbers[0], numbers[1], static_cast<uint8_t>(0x10U + type), 0,
                          static_cast<uint16_t>(section)});
    }
    table = {static_cast<int32_t>(records_.size()), 0, records_.data(), strings_.data(),
             static_cast<uint32_t>(strings_.size())};
  }

  // Names of the records, but for deleted ones.
  std::string names() const {
    std::string result;
    for (const elf32::symbol& record : records_) {
      if (record.st_info != 0) {
        result += (result.empty() ? "" : " ") + std::string(strings_.data() + record.st_name);
      }
    }
    return result;
  }

 private:
  std::string strings_;
  std::vector<elf32::symbol> records_;
};

TEST_F(Symbols, AreSortedByAddressOrByName) {
  for (const TableRow& row : rows_of("symbol_list.table", "addr")) {
    describe(row.given);
    sort_symbols(symtab_addr);
    EXPECT_EQ(names(), row.expected);
  }
  for (const TableRow& row : rows_of("symbol_list.table", "cmp")) {
    describe(row.given);
    sort_symbols(symtab_cmp);
    EXPECT_EQ(names() + ' ' + std::to_string(count_defined_with_size()) + ' ' +
                  std::to_string(count_with_size()),
              row.expected);
  }
}

TEST_F(Symbols, OfOneAddressLeaveTheFirstOfTheGreatest) {
  for (const TableRow& row : rows_of("symbol_list.table", "dup")) {
    describe(row.given);
    debug_level = 5;
    std::istringstream lines(capture([] { symtab_del_dup(table.records, table.count); }).errors);
    std::string deleted;
    for (std::string line; std::getline(lines, line);) {
      EXPECT_TRUE(line.starts_with("Deleting dup: ")) << line;
      deleted += line.substr(line.find(':') + 1);
    }
    EXPECT_EQ(names() + " -" + deleted, row.expected) << row.given;
  }
}

TEST_F(Symbols, AreShownByTheirNamesAloneAtLevel5) {
  describe("a/1/4 /2/4 c/3/4");
  debug_level = 4;
  EXPECT_EQ(capture([] { print_symbol_names(3); }).errors, "");
  debug_level = 5;
  EXPECT_EQ(capture([] { print_symbol_names(2); }).errors, "a\n\n");
}

}  // namespace
}  // namespace kelvane
