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
#include "color_reset.h"
#include "indconfig.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "scenario.h"
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

// ---- What the table tells

std::string shown(const color_configuration& configuration) {
  return std::to_string(configuration.attribute) + ":" + std::to_string(configuration.background) +
         ":" + std::to_string(configuration.foreground);
}

std::string name_of(const color_configuration* configuration) {
  const std::pair<const char*, const color_configuration*> names[] = {
      {"none", nullptr},
      {"info", &color_info_conf},
      {"warning", &color_warning_conf},
      {"error", &color_error_conf},
      {"before", &color_before_conf},
      {"after", &color_after_conf}};
  for (const auto& [name, known] : names) {
    if (configuration == known) {
      return name;
    }
  }
  return "unknown";
}

// The configuration that a type gives or gets; the end of the run is a `!`.
std::string chosen(int32_t type) {
  std::string name;
  const CapturedRun run = capture([&] { name = name_of(get_color_conf(type)); });
  if (run.ended) {
    EXPECT_EQ(run.errors, "kelvane: fatal: unknown type (" + std::to_string(type) + ")\n");
  }
  return run.ended && run.status == 1 ? "!" : name;
}
std::string set_for(int32_t type) {
  std::string fields;
  const CapturedRun run = capture([&] {
    color_config_type(type, type, type + 10, type + 20);
    fields = shown(*get_color_conf(type));
  });
  if (run.ended) {
    EXPECT_EQ(run.errors, "kelvane: fatal: invalid type (" + std::to_string(type) + ")\n");
  }
  return run.ended && run.status == 1 ? "!" : fields;
}

uint32_t code_seen = 0;

__attribute__((format(printf, 2, 3))) void print_code(uint32_t code, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(code, format, arguments);
  va_end(arguments);
}

// The sequence in front of a message of the code; the message itself is handed on as it is.
std::string around(uint32_t code) {
  gen_domessage = [](uint32_t seen, const char*, va_list) {
    code_seen = seen;
    std::fputs("text", stderr);
  };
  color_init(nullptr, 1);
  const std::string all = capture([code] { print_code(code, "%s", "x"); }).errors;
  EXPECT_EQ(code_seen, code);
  const std::string prefix = all.substr(0, all.find("text"));
  EXPECT_EQ(all, prefix + "text" + (prefix.empty() ? "" : get_ansi_suffix()));
  return prefix;
}

TEST_F(Color, DoesWhatTheTableTells) {
  using Text = const char*;
  EXPECT_EQ(all_configurations(), kDefaults);
  EXPECT_STREQ(get_ansi_suffix(), "\x1b[00m");
  // clang-format off
  go_through(KELVANE_TABLES "color_format.table", tree_, {
      {"prefix", [](int32_t attribute, int32_t background, int32_t foreground) {
        const color_configuration configuration = {attribute, background, foreground};
        return get_ansi_prefix(&configuration);
      }},
      {"parse", [](Text text) {
        color_configuration fields = {-1, -1, -1};
        const char* const behind = color_parse_ansi(text, &fields);
        EXPECT_TRUE(behind != nullptr || shown(fields) == "-1:-1:-1");
        return behind != nullptr ? std::to_string(behind - text) + "/" + shown(fields) : "none";
      }},
      KELVANE_OPERATION(chosen), {"set", set_for}, KELVANE_OPERATION(around),
      {"defaults", [](Text) { reset_color_format(); return ""; }},
      {"format", [](int32_t type) { return color_format_string(type, "text"); }},
      {"found", [](Text name, Text subdirectory) { return find_config(name, "ini", subdirectory); }},
      {"read_in", [](Text name) { parse_config_file(name); return color_info_conf.attribute; }},
  });
  // clang-format on
}

// ---- Printing

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
