#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

// Tables of examples in files beside the tests, a row a line: the name of the test's table, then
// what the test makes of the rest, and behind "=" what it expects. Lines that begin with # are
// comments, and so is what stands behind two blanks and #.
namespace kelvane {

struct TableRow {
  std::string given;
  std::string expected;
};

inline std::vector<std::string> words_of(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    words.push_back(word == "\"\"" ? "" : word);
  }
  return words;
}

inline std::vector<TableRow> rows_of(const std::string& file, const std::string& name) {
  std::ifstream stream(KELVANE_TABLES + file);
  std::vector<TableRow> rows;
  for (std::string line; std::getline(stream, line);) {
    line.erase(std::min(line.find("  #"), line.size()));
    const size_t sign = line.find(" = ");
    if (line.starts_with(name + ' ') && sign != std::string::npos) {
      const size_t start = line.find_first_not_of(' ', name.size());
      rows.push_back({line.substr(start, std::max(sign, start) - start), line.substr(sign + 3)});
      rows.back().given.erase(rows.back().given.find_last_not_of(' ') + 1);
    }
  }
  EXPECT_FALSE(rows.empty()) << file << ' ' << name;
  return rows;
}

}  // namespace kelvane
