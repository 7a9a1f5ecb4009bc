#include "indobjio.h"

#include <gmock/gmock.h>

#include <array>

#include "image_builder.h"
#include "indgen_message.h"
#include "indobjio_internal.h"
#include "library_fixture.h"
#include "memory_file.h"
#include "run_program.h"

namespace kelvane {
namespace {

using std::string;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Dispatcher = LibraryTest;
using CommonArchive = LibraryTest;
using AixLibrary = LibraryTest;
using OasysLibrary = LibraryTest;

constexpr std::string_view kReadError = "fatal: error reading archive file 'lib.a'\n";

// A member that is told apart by a line of text.
LibraryMember text_member(const string& name, const string& text) {
  return {name, text + "\n"};
}

int32_t marked_hook(std::FILE*, std::FILE*, object_info* object) {
  return 100 + object->magic->file_class;
}

TEST_F(Dispatcher, CallsTheHookOfEachClass) {
  object_hook* const hooks[] = {&do_BSD_file_ptr,    &do_COFF_file_ptr,
                                &do_ELF_file_ptr,    &do_QVR_file_ptr,
                                &do_OOF_file_ptr,    &do_import_library_file_ptr,
                                &do_misc_file_ptr,   &do_windows_resource_file_ptr,
                                &do_unknown_file_ptr};
  const std::pair<object_hook*, std::vector<int32_t>> classes[] = {
      {&do_BSD_file_ptr, {1}},
      {&do_COFF_file_ptr, {2, 4, 5, 6}},
      {&do_ELF_file_ptr, {3}},
      {&do_QVR_file_ptr, {9}},
      {&do_OOF_file_ptr, {10}},
      {&do_import_library_file_ptr, {11}},
      {&do_misc_file_ptr, {13}},
      {&do_windows_resource_file_ptr, {14}},
      {&do_unknown_file_ptr, {7, 8, 12, 15, 16, 17, 0, -1, 18}},
  };
  for (object_hook* const hook : hooks) {
    *hook = nullptr;
  }
  for (const auto& [hook, own] : classes) {
    for (const int32_t file_class : own) {
      file_magic kind = {};
      kind.file_class = file_class;
      object_info object = {};
      object.magic = &kind;
      const bool unknown = hook == &do_unknown_file_ptr || hook == &do_misc_file_ptr;
      EXPECT_EQ(do_object_file(nullptr, nullptr, &object), -1);
      object.in_library = 1;
      EXPECT_EQ(do_object_file(nullptr, nullptr, &object), unknown ? 0 : -1) << file_class;
      *hook = marked_hook;
      EXPECT_EQ(do_object_file(nullptr, nullptr, &object), 100 + file_class);
      *hook = nullptr;
    }
  }
  do_unknown_file_ptr = marked_hook;
  file_magic profile = {};
  profile.file_class = file_kind::kProfileData;
  object_info object = {};
  object.magic = &profile;
  EXPECT_EQ(do_object_file(nullptr, nullptr, &object), 113);
}

TEST_F(Dispatcher, HandsOnAPlainFileWhole) {
  do_ELF_file_ptr = [](std::FILE* stream, std::FILE* second_stream, object_info* object) {
    record("elf", stream, object);
    EXPECT_NE(stream, second_stream);
    EXPECT_EQ(std::ftell(second_stream), 0);
    EXPECT_STREQ(object->member_name, "lib.a");
    EXPECT_EQ(object->archive_name, nullptr);
    EXPECT_EQ(object->in_library, 0);
    EXPECT_EQ(object->member_header, nullptr);
    EXPECT_EQ(object->magic, &magic);
    return 3;
  };
  EXPECT_THAT(calls_for("\x7F"
                        "ELF\n"),
              ElementsAre("elf lib.a 0 \x7F"
                          "ELF\n"));
  EXPECT_EQ(result, 3);
  EXPECT_THAT(calls_for("text\n"), ElementsAre("unknown lib.a 0 text\n"));
  EXPECT_EQ(result, 170);
  do_unknown_file_ptr = nullptr;
  EXPECT_EQ(end_of("text\n"), "");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(end_of("MZ, and no signature"), "");
  EXPECT_EQ(result, -1);
  const CapturedRun missing = capture([] { do_any_file("missing"); });
  EXPECT_EQ(missing.errors, "fatal: unable to open input file 'missing'\n");
  EXPECT_EQ(missing.status, 1);
}

TEST_F(CommonArchive, HandsOnEachMemberThatArMade) {
  const string object = text_of(build_image({}));
  tree_.write("one.o", object);
  tree_.write("odd.txt", "odd\n\n");
  tree_.write("a member of more than fifteen.o", "long\n");
  tree_.write("another_of_more_than_fifteen.o", object);
  const auto ar_makes = [&](const string& how) {
    std::remove("lib.a");
    EXPECT_EQ(run_program({KELVANE_AR, how, "lib.a", "one.o", "odd.txt",
                           "a member of more than fifteen.o", "another_of_more_than_fifteen.o"},
                          tree_.name())
                  .status,
              0);
    return tree_.read("lib.a");
  };
  const std::vector<string> members = calls_for(ar_makes("rcS"));
  ASSERT_EQ(members.size(), 4U);
  EXPECT_THAT(members[0], HasSubstr("elf lib.a(one.o) "));
  EXPECT_THAT(members[1], HasSubstr("unknown lib.a(odd.txt) "));
  EXPECT_THAT(members[2], HasSubstr("unknown lib.a(a member of more than fifteen.o) "));
  EXPECT_THAT(members[3], HasSubstr("elf lib.a(another_of_more_than_fifteen.o) "));
  EXPECT_EQ(result, 30);
  EXPECT_EQ(run.errors, "");
  // A thin archive has no contents; it is a file that nobody knows.
  EXPECT_THAT(calls_for(ar_makes("rcST")), ElementsAre("unknown lib.a 0 !<thin>\n"));
}

TEST_F(CommonArchive, FindsNamesInEachDialect) {
  const auto names = [this](const std::vector<LibraryMember>& members,
                            std::string_view first_bytes = "!<arch>\n") {
    string found;
    for (const string& call : calls_for(common_archive(members, first_bytes))) {
      const size_t open = call.find('(');
      found += call.substr(open, call.rfind(") ") + 1 - open);
    }
    return found + run.errors;
  };
  const LibraryMember gnu = {"//", "first_long_name.o/\nsecond_long_name.o/\n\n"};
  EXPECT_EQ(names({{"a.o/", "1"}, {"b", "22"}, {"sixteen.letters.", ""}, {"fifteen_letter/", ""}}),
            "(a.o)(b)(sixteen.letters.)(fifteen_letter)");
  EXPECT_EQ(names({{string("a\0b/", 4), ""}, {"a.o/\t\n", ""}, {"a/b/", ""}, {"a//", ""}}),
            "(a)(a.o)(a/b)(a/)");
  EXPECT_EQ(names({gnu, {"/0", "x"}, {"/19", "y"}, {"/7", ""}, {"s.o/", ""}}),
            "(first_long_name.o)(second_long_name.o)(ong_name.o)(s.o)");
  // One that points behind the table is a short name.
  EXPECT_EQ(names({gnu, {"/40", ""}, {"/39", ""}, {"/99999999999999", ""}, {"/x", ""}, {" 1", ""}}),
            "(/40)()(/99999999999999)(/x)( 1)");
  EXPECT_EQ(
      names({{"ARFILENAMES/", "a_name_of_a_member.o/\n"}, {" 0", ""}, {"/2", ""}, {" x", ""}}),
      "(a_name_of_a_member.o)(name_of_a_member.o)( x)");
  EXPECT_EQ(names({{"//", string("first/name.o\0second_name.o\0", 27)}, {"/0", ""}, {"/13", ""}}),
            "(first/name.o)(second_name.o)");
  EXPECT_EQ(names({{"//", string("first_name/\0second_name/\0", 25)}, {"/0", ""}, {"/12", ""}}),
            "(first_name)(second_name)");
  EXPECT_EQ(names({{"//", ""}, {"/0", ""}}), "(/0)");
  // Names of the BSD form stand in front of the contents, and are not looked for.
  EXPECT_EQ(names({{"#1/8", "a_name.otext"}}), "(#1/8)");
  const string in_steps = "a_name_of_more_than_sixteen.o/  ";
  EXPECT_EQ(names({{in_steps, "1"}, {"sixteen.letter./", ""}, {"a b /", "22"}}, "!<elfa>\n"),
            "(a_name_of_more_than_sixteen.o)(sixteen.letter.)(a b )");
}

TEST_F(CommonArchive, ReadsTheNumbersOfAHeader) {
  do_unknown_file_ptr = [](std::FILE*, std::FILE*, object_info* object) {
    const archive_member& header = *object->member_header;
    calls.push_back(std::to_string(header.date) + " " + std::to_string(header.uid) + " " +
                    std::to_string(header.gid) + " " + std::to_string(header.mode) + " " +
                    std::to_string(header.size) + " " + std::to_string(header.slash_terminated));
    return 0;
  };
  const string all_digits = "a/" + string(14, ' ') + "999999999999" + "123456" + "654321" +
                            "77777778" + "0         " + "`\n";
  EXPECT_THAT(calls_for("!<arch>\n" + archive_header("a", "1") + "x\n" + all_digits),
              ElementsAre("1700000000 10 20 33188 1 0", "2147483647 123456 654321 2097151 0 1"));
}

TEST_F(CommonArchive, OffersSymbolTablesToTheirHookAndBracketsTheWalk) {
  do_TOC_file_ptr = [](std::FILE* stream, object_info* object) {
    EXPECT_EQ(object->in_library, 1);
    record("toc", stream, object);
    return 7;
  };
  do_archive_start_ptr = [](std::FILE*, object_info* object) {
    EXPECT_EQ(object->magic->file_class, file_kind::kArchive);
    EXPECT_EQ(object->member_name, nullptr);
    EXPECT_EQ(object->in_library, 1);
    calls.push_back(string("start ") + object->display_name);
    return 8;
  };
  do_archive_end_ptr = [](std::FILE*, object_info* object) {
    EXPECT_EQ(object->magic, nullptr);
    EXPECT_EQ(object->member_name, nullptr);
    EXPECT_EQ(object->member_header, nullptr);
    calls.push_back(string("end ") + object->display_name + object->archive_name);
    return 9;
  };
  const string blanks(13, ' ');
  EXPECT_THAT(
      calls_for(common_archive({{"/", "1\n"},
                                {"//", "a_name_of_a_member.o/\n"},
                                {"/0", "x\n"},
                                {"__.SYMDEF SORTED", "3\n"},
                                {"__________ELELX", "4\n"},
                                {"________64ELELX", "5\n"}})),
      ElementsAre("start lib.a", "toc lib.a(/  " + blanks + ") 68 1\n",
                  "unknown lib.a(a_name_of_a_member.o) 212 x\n",
                  "toc lib.a(__.SYMDEF SORTED) 274 3\n", "toc lib.a(__________ELELX ) 336 4\n",
                  "toc lib.a(________64ELELX ) 398 5\n", "end lib.alib.a"));
  EXPECT_EQ(result, 170);
  do_archive_start_ptr = nullptr;
  EXPECT_THAT(calls_for(common_archive({{"/", "1\n"}}, "!<elfa>\n")),
              ElementsAre("toc lib.a() 68 1\n", "end lib.alib.a"));
  EXPECT_EQ(result, 0);
}

TEST_F(CommonArchive, KeepsATableOfLongNamesUntilTheNext) {
  const LibraryMember names = {"//", "a_name_of_a_member.o/\n"};
  EXPECT_THAT(calls_for(common_archive({names, text_member("/0", "x")})),
              ElementsAre("unknown lib.a(a_name_of_a_member.o) 150 x\n"));
  EXPECT_EQ(ax_strtabpos, 8);
  EXPECT_THAT(calls_for(common_archive({text_member("/2", "y")})),
              ElementsAre("unknown lib.a(name_of_a_member.o) 68 y\n"));
}

TEST_F(CommonArchive, ShortensLongNamesOnRequest) {
  no_long_filenames_in_ar_header = 1;
  suffix = 4094;
  EXPECT_THAT(calls_for(common_archive({{"//",
                                         "a_name_of_a_member.cpp.o/\nfifteen_letters/\n"
                                         "name_without_a_dot/\nname.with_a_long_suffix/\n"},
                                        text_member("/0", "1"),
                                        text_member("/26", "2"),
                                        text_member("/43", "3"),
                                        text_member("/63", "4")})),
              ElementsAre("unknown lib.a(a_name_of_ffe.o) 216 1\n",
                          "unknown lib.a(fifteen_letters) 278 2\n",
                          "unknown lib.a(name_withoutfff) 340 3\n",
                          "unknown lib.a(000.with_a_long) 402 4\n"));
  EXPECT_EQ(suffix, 1);
}

TEST_F(CommonArchive, EndsWhereItsBytesEnd) {
  const string archive = common_archive({text_member("a/", "x"), text_member("b/", "y")});
  EXPECT_THAT(calls_for(archive.substr(0, 8)), IsEmpty());
  EXPECT_EQ(result, 0);
  EXPECT_THAT(calls_for(archive.substr(0, 67)), IsEmpty());
  EXPECT_THAT(calls_for(archive.substr(0, 129)), ElementsAre("unknown lib.a(a) 68 x\n"));
  EXPECT_THAT(calls_for("!<arch>\n" + archive_header("a/", "2147483647")),
              ElementsAre("unknown lib.a(a) 68 "));
  EXPECT_THAT(calls_for("!<arch>\n" + archive_header("a/", "9999999999") + archive.substr(8)),
              ElementsAre("unknown lib.a(a) 68 a/              1700000000  10    20    100644  "
                          "2         `\n"));
  EXPECT_EQ(run.errors, "");
}

TEST_F(CommonArchive, ReportsWhatCannotBeRead) {
  const auto archive = [](const string& bytes) { return "!<arch>\n" + bytes; };
  EXPECT_EQ(end_of(archive(archive_header("a/", "0", "`X"))),
            "fatal: Unexpected chars in archive file header 'lib.a' at 68 '\\140' '\\130'\n");
  EXPECT_EQ(end_of(archive(archive_header("a/", "0") + archive_header("b/", "0", "\xFF\n"))),
            "fatal: Unexpected chars in archive file header 'lib.a' at 128 '\\377' '\\012'\n");
  EXPECT_EQ(end_of(archive(archive_header("a/", "-5") + "12345")),
            "warning: a has negative size (-5)\n" + string(kReadError));
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_EQ(end_of(archive(archive_header("//", "-1"))), kReadError);
  EXPECT_EQ(end_of(archive(archive_header("//", "3") + "ab")), kReadError);
  EXPECT_EQ(end_of(archive(archive_header("//", "2147483647") + "ab")), kReadError);
  EXPECT_EQ(end_of("!<elfa>\n" + string(512, 'a') + archive_header("", "0")), kReadError);
  EXPECT_EQ(end_of("!<elfa>\n" + string(511, 'a') + "/" + archive_header("", "0").substr(16)), "");
  EXPECT_THAT(calls, ElementsAre("unknown lib.a(" + string(511, 'a') + ") 564 "));
  EXPECT_EQ(end_of("!<elfa>\n" + string(511, 'a')), "");

  const file_ptr unreadable(std::fopen(tree_.path("lib.a").c_str(), "a"));
  std::array<char, 4> buffer{};
  const CapturedRun failed = capture(
      [&] { checked_ar_fread(buffer.data(), 1, buffer.size(), unreadable.get(), "lib.a"); });
  EXPECT_EQ(failed.errors, kReadError);
  EXPECT_EQ(failed.status, 1);
}

TEST_F(AixLibrary, HandsOnEachMemberOfTheChain) {
  const std::vector<LibraryMember> members = {text_member("one.o", "1"), text_member("four", "22"),
                                              text_member("six.so", "3")};
  EXPECT_THAT(calls_for(aix_library(members)),
              ElementsAre("unknown lib.a(one.o) 164 1\n", "unknown lib.a(four) 260 22\n",
                          "unknown lib.a(six.so) 359 3\n"));
  EXPECT_EQ(result, 170);
  EXPECT_THAT(calls_for(aix_library(members, {2, -1, 1})),
              ElementsAre("unknown lib.a(one.o) 164 1\n", "unknown lib.a(six.so) 359 3\n",
                          "unknown lib.a(four) 260 22\n"));
  EXPECT_THAT(calls_for(aix_library({})), IsEmpty());
  EXPECT_EQ(result, 0);
  // The walk ends at a name of two letters, and where the member table stands.
  EXPECT_THAT(calls_for(aix_library({text_member("one", "1"), text_member("2o", "2")})),
              ElementsAre("unknown lib.a(one) 162 1\n"));
  string library = aix_library(members);
  library.replace(8, 12, library.substr(68 + 12, 12));
  EXPECT_EQ(calls_for(library).size(), 1U);
  library.replace(8, 12, padded("not it", 12)).replace(68 + 12, 12, padded("99999", 12));
  EXPECT_EQ(calls_for(library).size(), 1U);
  EXPECT_EQ(run.errors, "");
}

TEST_F(AixLibrary, EndsACircleAndACutHeader) {
  const std::vector<LibraryMember> members = {text_member("one", "1"), text_member("two", "2")};
  EXPECT_EQ(end_of(aix_library(members, {1, 0})), kReadError);
  EXPECT_EQ(calls.size(), 2U);
  EXPECT_EQ(end_of(aix_library(members, {1, 1})), kReadError);
  EXPECT_EQ(end_of(aix_library(members).substr(0, 67)),
            "fatal: failed reading the header of AIX format library 'lib.a'\n");
}

TEST_F(OasysLibrary, HandsOnEachEntry) {
  const string library =
      oasys_library({text_member("one", "1"), text_member("", "22"), text_member("x", "3")});
  EXPECT_THAT(calls_for(library),
              ElementsAre("unknown lib.a[one] 56 1\n", "unknown lib.a[] 58 22\n",
                          "unknown lib.a[x] 61 3\n"));
  EXPECT_EQ(result, 170);
  EXPECT_THAT(calls_for(oasys_library({})), IsEmpty());
  EXPECT_EQ(result, 0);
  string outside = library;
  outside.replace(63 + 52 + 32, 4, big_word(library.size()));
  EXPECT_EQ(calls_for(outside).size(), 1U);
  EXPECT_EQ(run.errors, "");
}

TEST_F(OasysLibrary, ReportsWhatCannotBeRead) {
  const string words = "fatal: failed reading Oasys 68K library 'lib.a'\n";
  const string library = oasys_library({text_member("one", "1"), text_member("two", "2")});
  EXPECT_EQ(end_of(library.substr(0, 55)),
            "fatal: failed reading the header of Oasys 68K library 'lib.a'\n");
  EXPECT_EQ(end_of(library.substr(0, library.size() - 1)), words);
  EXPECT_EQ(calls.size(), 1U);
  constexpr size_t kFirstEntry = 56 + 4;
  const auto changed = [&](size_t offset, size_t value) {
    return string(library).replace(offset, 4, big_word(value));
  };
  EXPECT_EQ(end_of(changed(kFirstEntry, 2)), words);
  EXPECT_EQ(end_of(changed(kFirstEntry + 20, 0xFFFFFFFF)), words);
  EXPECT_EQ(end_of(changed(kFirstEntry + 36, 0xFFFFFFFF)), words);
  EXPECT_EQ(end_of(changed(32, 0xFFFFFFFF)), words);
  EXPECT_EQ(end_of(changed(28, 3)), words);
  EXPECT_EQ(calls.size(), 2U);
}

// Each byte of a small library changed, and each part of it from the start, ends without a signal,
// by the end of the file or by one fatal message and status 1, and asks for little memory.
TEST_F(Dispatcher, ComesBackFromDamagedLibraries) {
  static uint64_t asked = 0;
  static int fatal_messages = 0;
  asked = 0;
  gen_alloc = [](uint32_t count, uint32_t size) {
    asked = std::max(asked, uint64_t{count} * size);
    return gen_default_alloc(count, size);
  };
  gen_domessage = [](uint32_t code, const char*, va_list) { fatal_messages += code == 2 ? 1 : 0; };
  gen_exit = [](int32_t status) { throw EndOfRun{status}; };
  const MemoryFile file;
  const string name = file.name();
  const auto try_library = [&](const string& bytes) {
    calls.clear();
    ASSERT_TRUE(file.put(bytes_of(bytes)));
    fatal_messages = 0;
    bool ended = false;
    try {
      do_any_file(name.c_str());
    } catch (const EndOfRun& end) {
      ended = true;
      EXPECT_EQ(end.status, 1);
    }
    EXPECT_EQ(fatal_messages, ended ? 1 : 0) << bytes;
  };
  const std::vector<LibraryMember> members = {text_member("one", "1"),
                                              text_member("four",
                                                          "\x7F"
                                                          "ELF"),
                                              text_member("six/ab", "3")};
  const string libraries[] = {
      common_archive({{"/", "1234"},
                      {"//", "a_name_of_a_member.o/\nb_name_of_a_member.o/\n"},
                      text_member("/0", "x"),
                      text_member("/22", "y")}),
      common_archive({{"a_name_of_more_than_sixteen.o/  ", "1"}, {"b/", "22"}}, "!<elfa>\n"),
      aix_library(members),
      oasys_library(members),
  };
  for (const string& library : libraries) {
    for (size_t i = 0; i < library.size(); ++i) {
      for (const char value : {'\0', '\xFF', '/', '9', '-'}) {
        try_library(string(library).replace(i, 1, 1, value));
      }
      try_library(library.substr(0, i));
    }
  }
  EXPECT_LT(asked, 1024U);
}

}  // namespace
}  // namespace kelvane
