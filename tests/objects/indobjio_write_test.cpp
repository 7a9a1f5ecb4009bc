#include <gtest/gtest.h>

#include <array>
#include <ctime>

#include "indobjio.h"
#include "library_fixture.h"
#include "run_program.h"

namespace kelvane {
namespace {

using std::string;

archive_member record_of(int32_t date, int32_t uid, int32_t gid, uint32_t mode, int32_t size) {
  return {nullptr, date, uid, gid, mode, size, 0, 0};
}

class ArchiveWriting : public LibraryTest {
 protected:
  // What `write` puts into a file, with its messages kept in `run`.
  string written(const std::function<void(std::FILE*)>& write) {
    const file_ptr stream(std::fopen("out", "w"));
    run = capture([&] { write(stream.get()); });
    std::fflush(stream.get());
    return tree_.read("out");
  }
  string header(const archive_member& record, const char* name) {
    return written(
        [&](std::FILE* stream) { write_archive_header(stream, "lib.a", &record, name); });
  }
};

// A table with room for what is put into it.
class LongNames {
 public:
  archive_string_table* table() {
    view_ = {bytes_.data(), static_cast<int32_t>(bytes_.size())};
    return &view_;
  }
  explicit LongNames(string bytes) : bytes_(std::move(bytes)) {}
  const string& bytes() const { return bytes_; }

 private:
  string bytes_;
  archive_string_table view_ = {};
};

TEST_F(ArchiveWriting, WritesAHeaderFieldByField) {
  const archive_member record = record_of(1700000000, 1000, 100, 0100644, 2147483647);
  EXPECT_EQ(header(record, "a.o"), "a.o/            1700000000  1000  100   100644  2147483647`\n");
  EXPECT_EQ(header(record, "fifteen_letters").substr(0, 17), "fifteen_letters/1");
  EXPECT_EQ(header(record, "/12").substr(0, 16), "/12             ");
  EXPECT_EQ(header(record, "").substr(0, 16), "/               ");
  EXPECT_EQ(run.errors, "");
}

TEST_F(ArchiveWriting, ReportsNamesAndNumbersThatDoNotFit) {
  const archive_member negative = record_of(-1, -2, -3, 0xFFFFFFFC, -5);
  EXPECT_EQ(header(negative, "sixteen_letters_"),
            "sixteen_letters/0           0     0     0       -5        `\n");
  EXPECT_EQ(run.errors,
            "error: Name 'sixteen_letters_' in archive 'lib.a' exceeds 16 character limit. "
            "Truncated.\n"
            "warning: lib.a: field time is negative (-1) changed to 0.\n"
            "warning: lib.a: field uid is negative (-2) changed to 0.\n"
            "warning: lib.a: field gid is negative (-3) changed to 0.\n"
            "warning: lib.a: field mode is negative (-4) changed to 0.\n");
  const archive_member large = record_of(0, 1234567, 7654321, 0777, 0);
  EXPECT_EQ(header(large, "/a_name_of_more_than_16"),
            "/a_name_of_more_0           123456765432777     0         `\n");
  EXPECT_FALSE(run.ended);
}

TEST_F(ArchiveWriting, FillsATableOfLongNamesUpToWholeWords) {
  LongNames names("a_name_of_fifteen/\nx/\n");  // 22 bytes
  const auto before = static_cast<int64_t>(std::time(nullptr));
  const string member = written(
      [&](std::FILE* stream) { write_archive_string_table(stream, "lib.a", names.table()); });
  EXPECT_EQ(member.substr(0, 16), padded("//", 16));
  EXPECT_GE(std::stoll(member.substr(16, 12)), before);
  EXPECT_EQ(member.substr(28),
            "0     0     0       24        `\n" + names.bytes() + string(2, '\0'));
  LongNames whole("fifteen_letter/\n");
  EXPECT_EQ(written([&](std::FILE* stream) {
              write_archive_string_table(stream, "lib.a", whole.table());
            }).size(),
            60U + 16U);
  archive_string_table empty = {};
  EXPECT_EQ(written([&](std::FILE* stream) {
              write_archive_string_table(stream, "lib.a", nullptr);
              write_archive_string_table(stream, "lib.a", &empty);
            }),
            "");
}

TEST_F(ArchiveWriting, FindsNamesInATable) {
  EXPECT_EQ(archive_name_is_long("fourteen_char_"), 0);
  EXPECT_EQ(archive_name_is_long("fifteen_letters"), 17);
  string room(8, '.');
  EXPECT_EQ(add_long_archive_name(room.data() + 1, "abc") - room.data(), 6);
  EXPECT_EQ(room, ".abc/\n..");
  std::array<char, 13> field{};
  archive_name_from_string_table_index(field.data(), INT32_MIN);
  EXPECT_STREQ(field.data(), "/-2147483648");

  const string bytes("one/\ntwo\nthree\0\nfour/five", 25);
  const auto offset_of = [&](const char* name) {
    LongNames names(bytes);
    return find_in_archive_string_table(name, names.table());
  };
  EXPECT_EQ(offset_of("one"), 0);
  EXPECT_EQ(offset_of("two"), 5);
  EXPECT_EQ(offset_of("three"), 9);
  EXPECT_EQ(offset_of(""), 15);  // in front of the line end behind the zero
  EXPECT_EQ(offset_of("four"), 16);
  EXPECT_EQ(offset_of("five"), -1);  // has no end
  EXPECT_EQ(offset_of("ne"), -1);
  LongNames names(bytes);
  find_in_archive_string_table("two", names.table());
  EXPECT_EQ(names.bytes(), string("one/\ntwo\0three\0\nfour/five", 25));
  archive_string_table empty = {};
  EXPECT_EQ(find_in_archive_string_table("", &empty), -1);
  EXPECT_EQ(find_in_archive_string_table("", nullptr), -1);
}

TEST_F(ArchiveWriting, WritesWhatArReadsAndTheReaderToo) {
  const std::vector<LibraryMember> members = {{"short.o", "1\n"},
                                              {"a_name_of_more_than_sixteen.o", "odd"},
                                              {"fourteen_char_", "2\n"},
                                              {"fifteen_letters", "3\n"}};
  string table;
  for (const LibraryMember& member : members) {
    const size_t size = table.size();
    table.resize(size + static_cast<size_t>(archive_name_is_long(member.name.c_str())));
    if (table.size() > size) {
      add_long_archive_name(table.data() + size, member.name.c_str());
    }
  }
  LongNames names(table);
  const string archive = written([&](std::FILE* stream) {
    std::fputs("!<arch>\n", stream);
    write_archive_string_table(stream, "lib.a", names.table());
    for (const LibraryMember& member : members) {
      const int32_t index = find_in_archive_string_table(member.name.c_str(), names.table());
      std::array<char, 13> reference{};
      archive_name_from_string_table_index(reference.data(), index);
      const archive_member record =
          record_of(0, 0, 0, 0644, static_cast<int32_t>(member.contents.size()));
      write_archive_header(stream, "lib.a", &record,
                           index < 0 ? member.name.c_str() : reference.data());
      std::fputs((member.contents + string(member.contents.size() % 2, '\n')).c_str(), stream);
    }
  });
  EXPECT_EQ(run.errors, "");
  const std::vector<string> calls_of_all = calls_for(archive);
  ASSERT_EQ(calls_of_all.size(), members.size());
  string listing;
  for (size_t i = 0; i < members.size(); ++i) {
    EXPECT_TRUE(calls_of_all[i].starts_with("unknown lib.a(" + members[i].name + ") "));
    listing += members[i].name + "\n";
  }
  EXPECT_EQ(run_program({KELVANE_AR, "t", "lib.a"}, tree_.name()).output, listing);
  EXPECT_EQ(run_program({KELVANE_AR, "p", "lib.a"}, tree_.name()).output, "1\nodd2\n3\n");
}

}  // namespace
}  // namespace kelvane
