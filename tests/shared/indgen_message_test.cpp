#include "indgen_message.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "captured_run.h"
#include "child_process.h"
#include "indgeninit.h"
#include "operation_table.h"
#include "reset_state.h"

namespace kelvane {
namespace {

class Messages : public testing::Test {
 protected:
  Messages() {
    reset_all_state();
    gen_changeprogname("kelvane");
  }
  ~Messages() override { reset_all_state(); }
};

__attribute__((format(printf, 2, 3))) void send(uint32_t code, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(code, format, arguments);
  va_end(arguments);
}

// What a message of the code says.
std::string words_of(uint32_t code) {
  return capture([code] { send(code, "text"); }).errors;
}

// The words of a message of the code, without the line's end.
std::string words(uint32_t code, int error, bool error_is_taken) {
  errno = error;
  const std::string line = capture([code] { send(code, "text"); }).errors;
  EXPECT_EQ(errno == 0, error_is_taken) << code;
  EXPECT_TRUE(!line.empty() && line.back() == '\n') << code;
  return line.substr(0, line.size() - 1);
}

TEST_F(Messages, SayWhatTheTableTells) {
  using Text = const char*;
  // clang-format off
  check_table({
      {"words", [](uint32_t code) { return words(code, ENOENT, false); }},
      {"reason", [](uint32_t code) { return words(code, ENOENT, true); }},
      {"no_errno", [](uint32_t code) { return words(code, 0, true); }},
      {"capitals", [](uint8_t on) { gen_upper_error_msgs = on; return ""; }},
      {"name", [](Text name) { gen_changeprogname(name); return ""; }},
      {"counted", [](Text) {
        std::string counts;
        for (const uint32_t count : gen_error_count) {
          counts += (counts.empty() ? "" : ":") + std::to_string(count);
        }
        return counts + "/" + std::to_string(gen_any_error);
      }},
  }, KELVANE_TABLES "indgen_message.table");
  // clang-format on
}

TEST_F(Messages, ComeFromOneOperationForEachClassAndMayEndTheRun) {
  using Text = const char*;
  // clang-format off
  check_table({
      {"printed", [](Text text) { gen_printf("%s", text); return ""; }},
      {"info", [](int32_t number) { gen_info("gadr: %d", number); return ""; }},
      {"warning", [](Text text) { gen_warning("gadr: %s", text); return ""; }},
      {"error", [](Text text) { gen_error("line %d: %s\n", 3, text); return ""; }},
      {"perror", [](int32_t number, Text text) { errno = number; gen_perror("unable to open %s", text); return ""; }},
      {"errorexit", [](int32_t status, Text text) { gen_errorexit(status, "%s", text); return ""; }},
      {"perrorexit", [](int32_t status, Text text) { errno = ENOENT; gen_perrorexit(status, "Unable to open %s: ", text); return ""; }},
      {"successexit", [](Text) { gen_successexit(); return ""; }},
      {"counts", [](Text) { return std::to_string(gen_error_count[0]) + ":" + std::to_string(gen_error_count[2]) + "/" + std::to_string(gen_any_error); }},
  }, KELVANE_TABLES "indgen_message_classes.table");
  // clang-format on
}

TEST_F(Messages, EndInOneNewline) {
  for (uint32_t code = 0; code < 9; ++code) {
    EXPECT_EQ(capture([code] { send(code, "text\n"); }).errors, words_of(code)) << code;
  }
  // The format decides, not the text.
  EXPECT_EQ(capture([] { send(6, "%s", "text\n"); }).errors, "text\n\n");
  errno = ENOENT;
  EXPECT_EQ(capture([] { gen_perror("text\n"); }).errors,
            "kelvane: fatal: text\n: No such file or directory\n");
  errno = 0;
  EXPECT_EQ(capture([] { gen_perror("text\n"); }).errors, "kelvane: fatal: text\n");
  EXPECT_EQ(capture([] { gen_perror("text"); }).errors, "kelvane: fatal: text\n");
}

TEST_F(Messages, GoThroughThePointerWithTheFullCode) {
  static uint32_t seen = 0;
  gen_domessage = [](uint32_t code, const char*, va_list) { seen = code; };
  EXPECT_EQ(capture([] { gen_perrorexit(1, "text"); }).errors, "");
  EXPECT_EQ(seen, 102U);
  EXPECT_EQ(capture([] { gen_errorexit(0, "text"); }).errors, "");
  EXPECT_EQ(seen, 0U);
}

TEST_F(Messages, StandBehindWhatWasPrintedBefore) {
  const ChildResult report = in_child([] {
    std::fputs("output\n", stdout);
    gen_error("report");
  });
  EXPECT_EQ(report.words, "output\nkelvane: error: report\n");
  EXPECT_EQ(report.status, kReturned);
}

TEST_F(Messages, OfAFailedAssertionEndTheProcess) {
  gen_exit = [](int32_t) { std::puts("not this way"); };
  const auto failed = [](const char* text, int32_t code) {
    const ChildResult run = in_child([text, code] {
      std::fputs("output\n", stdout);
      __Assert(0, text, "a", 12, code);
    });
    EXPECT_EQ(run.status, 1);
    return run.words;
  };
  EXPECT_EQ(failed("x", 0), "output\nAssertion failed in 'a' on line 12 in kelvane\n");
  EXPECT_EQ(failed(nullptr, 0), "output\nAssertion failed in 'a' on line 12 in kelvane\n");
  EXPECT_EQ(failed("y < 7", 0), "output\nAssertion (y < 7) failed in 'a' on line 12 in kelvane\n");
  EXPECT_EQ(failed("xx", -3), "output\nAssertion (xx) [-3] failed in 'a' on line 12 in kelvane\n");
  gen_changeprogname("");
  EXPECT_EQ(failed("x", 5), "output\nAssertion [5] failed in 'a' on line 12\n");
  gen_changeprogname(nullptr);
  EXPECT_EQ(failed("x", 0), "output\nAssertion failed in 'a' on line 12\n");
  EXPECT_EQ(in_child([] { __Assert(-1, "y", "a", 12, 0); }).status, kReturned);
}

TEST_F(Messages, ExitFlushesAndRunsHandlersTheFirstTimeOnly) {
  const ChildResult first = in_child([] {
    std::atexit([] { std::fputs("handler\n", stdout); });
    std::fputs("output\n", stdout);
    gen_exit(5);
  });
  EXPECT_EQ(first.status, 5);
  EXPECT_EQ(first.words, "output\nhandler\n");
  // The handlers run from the last to the first.
  const ChildResult again = in_child([] {
    std::atexit([] { std::fputs("not any more\n", stdout); });
    std::atexit([] { gen_exit(already_doing_exit == 1 ? 7 : 8); });
    gen_exit(5);
  });
  EXPECT_EQ(again.status, 7);
  EXPECT_EQ(again.words, "");
}

}  // namespace
}  // namespace kelvane
