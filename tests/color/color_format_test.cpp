#include "color_format.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "captured_run.h"
#include "indconfig.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {

// Configurations are compared and printed field by field.
bool operator==(const color_configuration& a, const color_configuration& b) {
  return a.attribute == b.attribute && a.background == b.background && a.foreground == b.foreground;
}
void PrintTo(const color_configuration& configuration, std::ostream* stream) {
  *stream << "{attribute " << configuration.attribute << ", background " << configuration.background
          << ", foreground " << configuration.foreground << "}";
}

namespace {

using testing::ElementsAre;

std::vector<color_configuration> all_configurations() {
  return {color_info_conf, color_warning_conf, color_error_conf, color_before_conf,
          color_after_conf};
}

const std::vector<color_configuration> kDefaults = {
    {1, -1, -1}, {1, -1, 5}, {1, -1, 1}, {0, -1, -1}, {1, -1, -1}};

// Gives what a call prints to a stream of its own on the file of that name.
std::string printed(const std::function<void(std::FILE*)>& print) {
  const TemporaryDirectory directory;
  const file_ptr stream(std::fopen(directory.path("text").c_str(), "w"));
  print(stream.get());
  std::fflush(stream.get());
  return directory.read("text");
}

// A tree with a home, and a program with its two directories beside it; empty of configuration
// files until a test writes some.
class Color : public testing::Test {
 protected:
  Color() {
    reset_all_state();
    gen_setuserconfigdir(tree_.path("home/.qvr").c_str());
    gen_changeprogdir(tree_.write("bin/kelvane", "").substr(0, tree_.path("bin").size()).c_str());
    gen_changeprogname("kelvane");
  }
  ~Color() override { reset_all_state(); }

  // Reads a configuration file with that text and gives the messages.
  std::string errors_of(const std::string& text) {
    tree_.write("home/.qvr/colors.ini", text);
    const CapturedRun run = capture([] { parse_config_file(nullptr); });
    EXPECT_FALSE(run.ended);
    return run.errors;
  }

  const TemporaryDirectory tree_;
};

// ---- Sequences

TEST_F(Color, MakesThePrefixOfAttributeForegroundAndBackground) {
  const std::vector<std::pair<color_configuration, std::string>> cases = {
      // clang-format off
      {{1, -1, -1}, "\x1b[1m"}, {{1, -1, 5}, "\x1b[1;35m"}, {{0, -1, -1}, "\x1b[0m"},
      {{4, 2, -1}, "\x1b[4;42m"}, {{-1, -1, 2}, "\x1b[32m"}, {{-1, 3, -1}, "\x1b[43m"},
      {{-1, 0, 0}, "\x1b[30;40m"}, {{8, 7, 6}, "\x1b[8;36;47m"}, {{-1, -1, -1}, "\x1b[00m"},
      {{9, 1, 1}, ""}, {{1, 8, 1}, ""}, {{1, 1, 8}, ""}, {{-2, 1, 1}, ""}, {{1, -2, 1}, ""},
      {{1, 1, -2}, ""}, {{-1, 0x7fffffff, -1}, ""}, {{8, -1, 7}, "\x1b[8;37m"}};
  // clang-format on
  for (const auto& [configuration, prefix] : cases) {
    EXPECT_EQ(get_ansi_prefix(&configuration), prefix) << testing::PrintToString(configuration);
  }
  EXPECT_STREQ(get_ansi_suffix(), "\x1b[00m");
}

TEST_F(Color, ParsesASequenceOfUpToThreeNumbers) {
  struct Parsed {
    const char* text;
    int length;  // -1: not a sequence
    color_configuration fields;
  };
  const color_configuration before = {-1, -1, -1};
  const std::vector<Parsed> cases = {// clang-format off
      {"\x1b[1;35mtext", 7, {1, -1, 5}}, {"\x1b[00m", 5, {0, -1, -1}}, {"\x1b[49;9;39m", 10, {9, 9, 9}},
      {"\x1b[1;2;3m", 8, {3, -1, -1}}, {"\x1b[40m", 5, {-1, 0, -1}}, {"\x1b[030m", 6, {-1, -1, 0}},
      {"\x1b[m", 3, before}, {"\x1b[1;2;3;4m", -1, before}, {"\x1b[1;2;3;m", -1, before},
      {"\x1b[1;", -1, before}, {"\x1b[1", -1, before}, {"\x1b[1;m", -1, before},
      {"\x1b[;1m", -1, before}, {"\x1b[1;;2m", -1, before}, {"\x1b[1 m", -1, before},
      {"\x1b[-1m", -1, before}, {"\x1b[10m", -1, before}, {"\x1b[29m", -1, before},
      {"\x1b[50m", -1, before}, {"\x1b[4294967297m", -1, before}, {"\x1b(1m", -1, before},
      {"\x1b", -1, before}, {"[1m", -1, before}, {"", -1, before}};
  // clang-format on
  for (const Parsed& expected : cases) {
    color_configuration fields = before;
    const char* const behind = color_parse_ansi(expected.text, &fields);
    EXPECT_EQ(behind, expected.length < 0 ? nullptr : expected.text + expected.length)
        << expected.text + 1;
    EXPECT_EQ(fields, expected.fields) << expected.text + 1;
  }
}

TEST_F(Color, ChoosesTheConfigurationOfAType) {
  EXPECT_EQ(get_color_conf(1), nullptr);
  EXPECT_EQ(get_color_conf(2), &color_info_conf);
  EXPECT_EQ(get_color_conf(3), &color_warning_conf);
  EXPECT_EQ(get_color_conf(4), &color_error_conf);
  EXPECT_EQ(get_color_conf(5), &color_before_conf);
  EXPECT_EQ(get_color_conf(6), &color_after_conf);
  EXPECT_EQ(get_color_conf(1), &color_after_conf);
  EXPECT_EQ(get_color_conf(0), nullptr);
  EXPECT_EQ(get_color_conf(1), nullptr);
}

TEST_F(Color, SetsTheConfigurationOfAType) {
  EXPECT_EQ(all_configurations(), kDefaults);
  for (int32_t type = 2; type <= 6; ++type) {
    color_config_type(type, type, type + 10, type + 20);
  }
  EXPECT_THAT(all_configurations(),
              ElementsAre(color_configuration{2, 12, 22}, color_configuration{3, 13, 23},
                          color_configuration{4, 14, 24}, color_configuration{5, 15, 25},
                          color_configuration{6, 16, 26}));
}

TEST_F(Color, EndsTheRunAtATypeThatDoesNotExist) {
  const CapturedRun unknown = capture([] { get_color_conf(7); });
  EXPECT_EQ(unknown.errors, "kelvane: fatal: unknown type (7)\n");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(capture([] { get_color_conf(-1); }).errors, "kelvane: fatal: unknown type (-1)\n");
  for (const int32_t type : {0, 1, 7}) {
    const CapturedRun invalid = capture([type] { color_config_type(type, 1, 1, 1); });
    EXPECT_EQ(invalid.errors, "kelvane: fatal: invalid type (" + std::to_string(type) + ")\n");
    EXPECT_EQ(invalid.status, 1);
  }
}

// ---- Printing

TEST_F(Color, PutsATextBetweenSequencesWhateverTheStreams) {
  const auto formatted = [](int32_t type) {
    return std::string(gen_ptr<char>(color_format_string(type, "text")).get());
  };
  EXPECT_EQ(formatted(0), "text");
  EXPECT_EQ(formatted(4), "\x1b[1;31mtext\x1b[00m");
  EXPECT_EQ(formatted(1), "\x1b[1;31mtext\x1b[00m");
}

TEST_F(Color, LeavesSequencesInWhatGoesToAnOrdinaryStream) {
  EXPECT_EQ(printed([](std::FILE* stream) {
              EXPECT_EQ(color_print_string(stream, "a\x1b[1mb"), 6);
              color_print_prefix(stream, 3);
              color_print_prefix(stream, 0);
              color_print_suffix(stream, 0);
              color_print_suffix(stream, 5);
              EXPECT_EQ(color_fprintf(stream, 4, "%s %d", "text", 7), 6);
              EXPECT_EQ(color_fprintf(stream, 0, "%s", "plain"), 5);
            }),
            "a\x1b[1mb\x1b[1;35m\x1b[00m\x1b[1;31mtext 7\x1b[00mplain");
}

TEST_F(Color, DropsSequencesFromAStandardStreamThatIsNoTerminal) {
  const std::string text = "\x1b[1;31m\x1b[4mred\x1b[00m, \x1b[1; not\x1b[99m one\x1b[0m";
  const std::string plain = "red, \x1b[1; not\x1b[99m one";
  const auto print_to = [&text](std::FILE* stream) {
    return color_print_string(stream, text.c_str());
  };
  for (const bool terminal : {false, true}) {
    is_tty_stdout = terminal ? 1 : 0;
    is_tty_stderr = terminal ? 0 : 1;
    const std::string to_stdout = terminal ? text : plain;
    const std::string to_stderr = terminal ? plain : text;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(print_to(stdout), static_cast<int32_t>(to_stdout.size()));
    EXPECT_EQ(print_to(stderr), static_cast<int32_t>(to_stderr.size()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), to_stdout);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), to_stderr);
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(color_print_string(stderr, "\x1b[1m"), 0);
  EXPECT_EQ(color_print_string(stderr, ""), 0);
  // The formatted text itself goes straight to the stream.
  EXPECT_EQ(color_fprintf(stderr, 4, "%s", "a\x1b[1mb"), 6);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "a\x1b[1mb");
}

// ---- Messages

void print_a_message_of_each_class() {
  gen_printf("plain");
  gen_info("info");
  gen_warning("warning %d", 4);
  gen_error("error\n");
  errno = ENOENT;
  gen_perror("file");
}

constexpr const char* kPlainMessages =
    "plain\n"
    "kelvane: info: info\n"
    "kelvane: warning: warning 4\n"
    "kelvane: error: error\n"
    "kelvane: fatal: file: No such file or directory\n";

constexpr const char* kColoredMessages =
    "\x1b[1mplain\n\x1b[00m"
    "\x1b[1mkelvane: info: info\n\x1b[00m"
    "\x1b[1;35mkelvane: warning: warning 4\n\x1b[00m"
    "\x1b[1;31mkelvane: error: error\n\x1b[00m"
    "\x1b[1;31mkelvane: fatal: file: No such file or directory\n\x1b[00m";

TEST_F(Color, LeavesMessagesInAFilePlainUnlessForced) {
  EXPECT_EQ(capture([] {
              color_init(nullptr, 0);
              EXPECT_EQ(is_tty_stderr, 0);
              print_a_message_of_each_class();
            }).errors,
            kPlainMessages);
  gen_domessage = gen_default_domessage;
  EXPECT_EQ(capture([] {
              color_init(nullptr, 1);
              EXPECT_EQ(is_tty_stdout, 1);
              EXPECT_EQ(is_tty_stderr, 1);
              print_a_message_of_each_class();
            }).errors,
            kColoredMessages);
}

uint32_t code_seen = 0;

__attribute__((format(printf, 2, 3))) void print_code(uint32_t code, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(code, format, arguments);
  va_end(arguments);
}

TEST_F(Color, HandsTheMessageOnAsItIsAndColoursByTheReducedCode) {
  gen_domessage = [](uint32_t code, const char*, va_list) {
    code_seen = code;
    std::fputs("text", stderr);
  };
  color_init(nullptr, 1);
  const std::vector<std::pair<uint32_t, std::string>> cases = {
      {0, "\x1b[1;31m"},   {3, "\x1b[1;31m"}, {4, "\x1b[1;35m"}, {5, "\x1b[1m"},
      {6, "\x1b[1m"},      {7, ""},           {100, ""},         {101, "\x1b[1;31m"},
      {104, "\x1b[1;35m"}, {106, "\x1b[1m"},  {107, ""}};
  for (const auto& [code, prefix] : cases) {
    const std::string suffix = prefix.empty() ? "" : "\x1b[00m";
    EXPECT_EQ(capture([code = code] { print_code(code, "%s", "x"); }).errors,
              prefix + "text" + suffix)
        << code;
    EXPECT_EQ(code_seen, code);
  }
}

TEST_F(Color, PrintsOnlyTheSuffixForAConfigurationOutOfRange) {
  EXPECT_EQ(errors_of("[ERROR]\nforeground = 9\n"), "");
  EXPECT_EQ(capture([] {
              color_init(nullptr, 1);
              gen_error("text");
            }).errors,
            "kelvane: error: text\n\x1b[00m");
}

// ---- The configuration file

TEST_F(Color, ReadsSectionsAndFieldsInEveryAllowedForm) {
  EXPECT_EQ(errors_of("# comment\n"
                      "\n"
                      " \t \n"
                      "\t# indented comment\n"
                      "[INFO]\n"
                      "attribute = 4\n"
                      "background=2\n"
                      "[warning]  \t\r\n"
                      "  ATTRIBUTE \t=\t 0x1 \r\n"
                      "Foreground = 010\n"
                      "[ERROR]\n"
                      "attribute = -1\n"
                      "foreground =\n"
                      "background = +7\n"
                      "[BEFORE]\n"
                      "foreground = 99999999999\n"
                      "background = -99999999999\n"
                      " [After]\n"
                      "attribute = 3\n"
                      "attribute = 5"),
            "");
  EXPECT_THAT(all_configurations(),
              ElementsAre(color_configuration{4, 2, -1}, color_configuration{1, -1, 8},
                          color_configuration{-1, 7, 0},
                          color_configuration{0, -0x7fffffff - 1, 0x7fffffff},
                          color_configuration{5, -1, -1}));
}

TEST_F(Color, ReportsEachFaultyLineAndChangesNothingByIt) {
  EXPECT_EQ(errors_of("attribute = 1\n"         // 1
                      "no field\n"              // 2
                      "[BLUE]\n"                // 3
                      "foreground = 3\n"        // 4: still no section
                      "[ERROR]\n"               // 5
                      "[ INFO]\n"               // 6: names are not trimmed
                      "[]\n"                    // 7
                      "attribute 3\n"           // 8
                      "attribute = 1 2\n"       // 9
                      " Background = \t0x \n"   // 10
                      "foreground = red\n"      // 11
                      "colour = x\n"            // 12: the value comes first
                      "colour = 3\n"            // 13
                      "= 3\n"                   // 14
                      "attribute = 1 = 2\n"     // 15
                      "[INFO\n"                 // 16
                      "[\n"                     // 17
                      "attribute = 1 # bold\n"  // 18
                      "background = 3\n"),      // 19: ERROR is still selected
            "kelvane: error: line 1: no associated section for expresion 'attribute = 1'\n"
            "kelvane: error: line 2: no associated section for expresion 'no field'\n"
            "kelvane: error: line 3: invalid heading 'BLUE'\n"
            "kelvane: error: line 4: no associated section for expresion 'foreground = 3'\n"
            "kelvane: error: line 6: invalid heading ' INFO'\n"
            "kelvane: error: line 7: invalid heading ''\n"
            "kelvane: error: line 8: expected an '='\n"
            "kelvane: error: line 9: invalid value '1 2' for field 'attribute'\n"
            "kelvane: error: line 10: invalid value '0x' for field 'Background'\n"
            "kelvane: error: line 11: invalid value 'red' for field 'foreground'\n"
            "kelvane: error: line 12: invalid value 'x' for field 'colour'\n"
            "kelvane: error: line 13: invalid field name 'colour'\n"
            "kelvane: error: line 14: invalid field name ''\n"
            "kelvane: error: line 15: invalid value '1 = 2' for field 'attribute'\n"
            "kelvane: error: line 16: expected an '='\n"
            "kelvane: error: line 17: expected an '='\n"
            "kelvane: error: line 18: invalid value '1 # bold' for field 'attribute'\n");
  std::vector<color_configuration> expected = kDefaults;
  expected[2].background = 3;
  EXPECT_EQ(all_configurations(), expected);
}

TEST_F(Color, TakesALongLineForLinesOf199Bytes) {
  const std::string comment = "#" + std::string(197, 'x');  // 198 bytes and the line's end
  EXPECT_EQ(errors_of(comment + "\n[BLUE]\n"), "kelvane: error: line 2: invalid heading 'BLUE'\n");
  EXPECT_EQ(errors_of(comment + "x[BLUE]\n"), "kelvane: error: line 2: invalid heading 'BLUE'\n");
  // The line's end alone is a piece of its own.
  EXPECT_EQ(errors_of(comment + "x\n[BLUE]\n"), "kelvane: error: line 3: invalid heading 'BLUE'\n");
  EXPECT_EQ(errors_of(std::string(2 * 199, ' ') + "[INFO]\nattribute = 3\n"), "");
  EXPECT_EQ(color_info_conf.attribute, 3);
}

TEST_F(Color, FindsItsFileWithTheUserFirstThenTheSiteThenTheDefaults) {
  EXPECT_EQ(capture([] { parse_config_file(nullptr); }).errors, "");
  EXPECT_EQ(all_configurations(), kDefaults);
  int32_t attribute = 1;
  for (const char* const place : {"bin/defaults", "bin/config", "home/.qvr"}) {
    ++attribute;
    tree_.write(std::string(place) + "/colors.ini",
                "[INFO]\nattribute = " + std::to_string(attribute) + "\n");
    parse_config_file(nullptr);
    EXPECT_EQ(color_info_conf.attribute, attribute) << place;
  }
}

TEST_F(Color, FindsAFileUnderItsNameThenWithTheSuffixThenInTheSubdirectory) {
  const auto found = [](const char* name, const char* subdirectory) {
    const gen_ptr<char> path(find_config(name, "ini", subdirectory));
    return path == nullptr ? std::string("none") : std::string(path.get());
  };
  EXPECT_EQ(found("mine", "sub"), "none");
  const std::string deep = tree_.write("home/.qvr/sub/mine.ini", "");
  EXPECT_EQ(found("mine", "sub"), deep);
  EXPECT_EQ(found("mine.ini", "sub"), deep);
  EXPECT_EQ(found("mine", ""), "none");
  EXPECT_EQ(found("mine", nullptr), "none");
  const std::string with_suffix = tree_.write("bin/defaults/mine.ini", "[INFO]\nattribute = 7\n");
  EXPECT_EQ(found("mine", "sub"), with_suffix);
  EXPECT_EQ(found("mine.ini", "sub"), with_suffix);
  parse_config_file("mine");
  EXPECT_EQ(color_info_conf.attribute, 7);
  const std::string bare = tree_.write("bin/config/mine", "");
  EXPECT_EQ(found("mine", "sub"), bare);
}

// As long as it lives, no file can be opened.
class NoDescriptors {
 public:
  NoDescriptors() {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit none = {0, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  ~NoDescriptors() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before_{};
};

TEST_F(Color, EndsTheRunAtAFileThatIsThereAndCannotBeOpened) {
  const std::string path = tree_.write("home/.qvr/colors.ini", "[INFO]\n");
  const CapturedRun run = capture([] {
    const NoDescriptors none;
    parse_config_file(nullptr);
  });
  EXPECT_EQ(run.errors, "kelvane: fatal: Unable to open configuration file '" + path +
                            "' for input: : Too many open files\n");
  EXPECT_EQ(run.status, 1);
}

TEST_F(Color, StartsPlainWhileItsFileIsRead) {
  tree_.write("home/.qvr/colors.ini", "[BLUE]\n");
  EXPECT_EQ(capture([] {
              color_init(nullptr, 1);
              gen_error("after");
            }).errors,
            "kelvane: error: line 1: invalid heading 'BLUE'\n"
            "\x1b[1;31mkelvane: error: after\n\x1b[00m");
  EXPECT_EQ(gen_domessage, gen_color_domessage);
  EXPECT_EQ(gen_domessage_orig, gen_default_domessage);
}

TEST_F(Color, ShipsAFileThatHoldsTheDefaults) {
  for (int32_t type = 2; type <= 6; ++type) {
    color_config_type(type, 9, 9, 9);
  }
  EXPECT_EQ(capture([] { parse_config_file(KELVANE_DEFAULT_COLORS); }).errors, "");
  EXPECT_EQ(all_configurations(), kDefaults);
}

}  // namespace
}  // namespace kelvane
