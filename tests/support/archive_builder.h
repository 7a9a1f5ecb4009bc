#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Libraries made by hand, of the three kinds that are read, for tests of those who read them. They
// write what they are told, sound or not.
namespace kelvane {

struct LibraryMember {
  std::string name;  // in a common archive: the name field, or more
  std::string contents;
};

// A text with blanks behind it up to `size`.
inline std::string padded(std::string_view text, size_t size) {
  std::string result(text);
  result.resize(std::max(size, text.size()), ' ');
  return result;
}

// A header of a common archive; the numbers as their text.
inline std::string archive_header(std::string_view name, std::string_view size,
                                  std::string_view end_mark = "`\n") {
  return padded(name, 16) + padded("1700000000", 12) + padded("10", 6) + padded("20", 6) +
         padded("100644", 8) + padded(size, 10) + std::string(end_mark);
}

inline std::string common_archive(const std::vector<LibraryMember>& members,
                                  std::string_view first_bytes = "!<arch>\n") {
  std::string archive(first_bytes);
  for (const LibraryMember& member : members) {
    archive += archive_header(member.name, std::to_string(member.contents.size()));
    archive += member.contents;
    archive.append(archive.size() % 2, '\n');
  }
  return archive;
}

// An AIX library whose member i is followed by member `order[i]`; by default each by the next and
// the last by nothing (-1 in `order`).
inline std::string aix_library(const std::vector<LibraryMember>& members,
                               std::vector<int> order = {}) {
  std::vector<size_t> offsets = {68};
  for (const LibraryMember& member : members) {
    offsets.push_back(offsets.back() + 90 + member.name.size() + member.name.size() % 2 +
                      member.contents.size());
  }
  for (size_t i = order.size(); i < members.size(); ++i) {
    order.push_back(i + 1 < members.size() ? static_cast<int>(i + 1) : -1);
  }
  const auto offset_text = [&](size_t index) {
    return padded(std::to_string(members.empty() ? 0 : offsets[index]), 12);
  };
  std::string library = "<aiaff>\n" + padded("0", 24) + offset_text(0) +
                        offset_text(members.empty() ? 0 : members.size() - 1) + padded("0", 12);
  for (size_t i = 0; i < members.size(); ++i) {
    const LibraryMember& member = members[i];
    const std::string name = padded(member.name, 2);
    library += padded(std::to_string(member.contents.size()), 12);
    library += order[i] < 0 ? padded("0", 12) : offset_text(static_cast<size_t>(order[i]));
    library += padded("0", 12) + padded("1700000000", 12) + padded("0", 36);
    library += padded(std::to_string(member.name.size()), 4) + name + "`\n";
    library.append(member.name.size() % 2, '\0');
    library += member.contents;
  }
  return library;
}

inline std::string big_word(size_t value) {
  std::string word;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) {
    word += static_cast<char>(static_cast<uint8_t>(value >> shift));
  }
  return word;
}

// An Oasys library: the contents behind the header, then the entry table. The first entry has two
// units of 4 bytes behind its name.
inline std::string oasys_library(const std::vector<LibraryMember>& members) {
  std::string contents;
  std::string table;
  for (size_t i = 0; i < members.size(); ++i) {
    const size_t units = i == 0 ? 1 : 0;
    const std::string& name = members[i].name;
    table += big_word(i + 1) + std::string(12, ' ') + big_word(0) + big_word(units);
    table += big_word(units) + big_word(0) + big_word(56 + contents.size());
    table += big_word(name.size()) + name + (name.empty() ? "" : std::string(1, '\0'));
    table.append(8 * units, 'u');
    contents += members[i].contents;
  }
  return big_word(600) + std::string(24, ' ') + big_word(members.size()) +
         big_word(56 + contents.size()) + std::string(20, '\0') + contents + table;
}

}  // namespace kelvane
