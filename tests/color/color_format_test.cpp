#include "color_format.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

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

namespace {

std::string shown(const color_configuration& configuration) {
  return std::to_string(configuration.attribute) + ":" + std::to_string(configuration.background) +
         ":" + std::to_string(configuration.foreground);
}

// All configurations from the first type on.
std::string all_configurations() {
  std::string all;
  for (const color_configuration* const configuration :
       {&color_info_conf, &color_warning_conf, &color_error_conf, &color_before_conf,
        &color_after_conf}) {
    all += shown(*configuration) + "/";
  }
  return all;
}

const std::string kDefaults = "1:-1:-1/1:-1:5/1:-1:1/0:-1:-1/1:-1:-1/";

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
  Color() { start_afresh(); }
  ~Color() override { reset_all_state(); }

  void start_afresh() {
    reset_all_state();
    gen_setuserconfigdir(tree_.path("home/.qvr").c_str());
    gen_changeprogdir(tree_.write("bin/kelvane", "").substr(0, tree_.path("bin").size()).c_str());
    gen_changeprogname("kelvane");
  }

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

std::string print_a_message_of_each_class(int32_t forced) {
  gen_domessage = gen_default_domessage;
  color_init(nullptr, static_cast<uint8_t>(forced));
  gen_printf("plain");
  gen_info("info");
  gen_warning("warning %d", 4);
  gen_error("error\n");
  errno = ENOENT;
  gen_perror("file");
  return std::to_string(is_tty_stdout) + "/" + std::to_string(is_tty_stderr);
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
      {"chosen", [](int32_t type) { return name_of(get_color_conf(type)); }},
      {"set", [](int32_t type) {
        color_config_type(type, type, type + 10, type + 20);
        return shown(*get_color_conf(type));
      }},
      KELVANE_OPERATION(around), {"messages", print_a_message_of_each_class},
      {"afresh", [this](Text) { start_afresh(); return ""; }},
      {"configurations", [](Text) { return all_configurations(); }},
      {"start", [](Text text) {
        color_init(nullptr, 1);
        EXPECT_EQ(gen_domessage, gen_color_domessage);
        EXPECT_EQ(gen_domessage_orig, gen_default_domessage);
        gen_error("%s", text);
        return "";
      }},
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

// ---- The configuration file

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

TEST_F(Color, ShipsAFileThatHoldsTheDefaults) {
  for (int32_t type = 2; type <= 6; ++type) {
    color_config_type(type, 9, 9, 9);
  }
  EXPECT_EQ(capture([] { parse_config_file(KELVANE_DEFAULT_COLORS); }).errors, "");
  EXPECT_EQ(all_configurations(), kDefaults);
}

}  // namespace
}  // namespace kelvane
