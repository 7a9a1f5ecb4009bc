#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "captured_run.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

class SafeOperations : public testing::Test {
 protected:
  SafeOperations() { reset_all_state(); }

  file_ptr open(const std::string& name, const char* mode) const {
    return file_ptr(std::fopen(name.c_str(), mode));
  }
  static std::string words_of_open(const char* name, const char* description, const char* mode) {
    const CapturedRun run = capture([&] { gen_safe_fopen(name, description, mode); });
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.status, 1);
    return run.errors;
  }

  TemporaryDirectory root_;
  std::string file_ = root_.write("file", "abcdef");
};

TEST_F(SafeOperations, OpeningEndsTheRunInFixedWords) {
  EXPECT_EQ(words_of_open("no/name", nullptr, "r"),
            "fatal: Unable to open no/name for input: : No such file or directory\n");
  EXPECT_EQ(words_of_open("no/x", "configuration file", "rb"),
            "fatal: Unable to open configuration file 'no/x' for input: "
            ": No such file or directory\n");
  for (const char* const mode : {"wb", "a+", "w+"}) {
    EXPECT_EQ(words_of_open("no/x", "patch", mode),
              "fatal: Unable to open patch 'no/x' for output: : No such file or directory\n");
  }
  const file_ptr stream(gen_safe_fopen(file_.c_str(), nullptr, "r"));
  EXPECT_EQ(std::getc(stream.get()), 'a');
}

TEST_F(SafeOperations, ClosingReportsAFailureAndReturns) {
  const auto close_full = [](const char* name, const char* description) {
    const CapturedRun run = capture([&] {
      std::FILE* const stream = std::fopen("/dev/full", "w");
      std::fputc('x', stream);
      EXPECT_EQ(gen_safe_fclose(name, description, stream), EOF);
    });
    EXPECT_FALSE(run.ended);
    return run.errors;
  };
  EXPECT_EQ(close_full("x", nullptr), "fatal: Error closing x: : No space left on device\n");
  EXPECT_EQ(close_full("x", "patch"),
            "fatal: Error closing patch 'x': : No space left on device\n");
  EXPECT_EQ(close_full(nullptr, "patch"),
            "fatal: Error closing patch '': : No space left on device\n");
  EXPECT_EQ(close_full(nullptr, nullptr),
            "fatal: Error closing (null): : No space left on device\n");
  const CapturedRun quiet = capture(
      [this] { EXPECT_EQ(gen_safe_fclose("x", nullptr, std::fopen(file_.c_str(), "r")), 0); });
  EXPECT_EQ(quiet.errors, "");
}

TEST_F(SafeOperations, ReadingReportsOnlyWhenNothingWasRead) {
  char buffer[8] = {};
  const CapturedRun quiet = capture([&] {
    const file_ptr stream = open(file_, "r");
    EXPECT_EQ(gen_safe_fread("x", buffer, 2, 4, stream.get()), 3);
    EXPECT_STREQ(buffer, "abcdef");
  });
  EXPECT_EQ(quiet.errors, "");

  const CapturedRun at_end = capture([&] {
    const file_ptr stream = open("/dev/null", "r");
    errno = ENOENT;  // of an earlier failure, and no reason of this one
    EXPECT_EQ(gen_safe_fread("x", buffer, 1, 4, stream.get()), 0);
    EXPECT_EQ(gen_safe_fread(nullptr, buffer, 1, 4, stream.get()), 0);
    EXPECT_EQ(gen_safe_fread("x", nullptr, 1, 4, stream.get()), -1);
  });
  EXPECT_FALSE(at_end.ended);
  EXPECT_EQ(at_end.errors,
            "fatal: Error reading from 'x'\n"
            "fatal: Error reading from file\n"
            "error: internal: null buffer passed to gen_safe_fread\n");

  const CapturedRun failed = capture([&] {
    const file_ptr stream = open(root_.name(), "r");
    EXPECT_EQ(gen_safe_fread("x", buffer, 1, 4, stream.get()), 0);
  });
  EXPECT_EQ(failed.errors, "fatal: Error reading from 'x': Is a directory\n");
}

TEST_F(SafeOperations, ABlockIsReadWholeOrReported) {
  const CapturedRun run = capture([&] {
    const file_ptr stream = open(file_, "r");
    const gen_ptr<void> fresh(gen_safe_readbytes("x", stream.get(), nullptr, 4));
    EXPECT_EQ(std::string(static_cast<char*>(fresh.get()), 4), "abcd");
    char buffer[4] = {};
    EXPECT_EQ(gen_safe_readbytes("x", stream.get(), buffer, 4), buffer);
    EXPECT_EQ(gen_safe_readbytes(nullptr, stream.get(), buffer, 4), buffer);
  });
  EXPECT_EQ(run.errors, "fatal: Error reading from 'x'\nfatal: Error reading from file\n");
}

TEST_F(SafeOperations, WritingReportsFewerItemsThanAskedFor) {
  const CapturedRun run = capture([&] {
    const file_ptr readable = open(file_, "r");
    EXPECT_EQ(gen_safe_fwrite("x", "12", 1, 2, readable.get()), 0u);
    EXPECT_EQ(gen_safe_fwrite(nullptr, "12", 1, 2, readable.get()), 0u);
    const file_ptr writable = open(root_.path("new"), "w");
    EXPECT_EQ(gen_safe_fwrite("x", "12", 1, 2, writable.get()), 2u);
  });
  EXPECT_FALSE(run.ended);
  EXPECT_EQ(run.errors,
            "fatal: Error writing to 'x': Bad file descriptor\n"
            "fatal: Error writing to file: Bad file descriptor\n");
  EXPECT_EQ(root_.read("new"), "12");
}

TEST_F(SafeOperations, ASeekThatFailsEndsTheRun) {
  const file_ptr stream = open(file_, "r");
  const auto seek = [&](const char* name, long offset) {
    return capture([&] { EXPECT_EQ(gen_safe_fseek(name, stream.get(), offset, SEEK_SET), 0); });
  };
  EXPECT_FALSE(seek("x", 4).ended);
  EXPECT_EQ(std::getc(stream.get()), 'e');
  const CapturedRun named = seek("x", -1);
  EXPECT_TRUE(named.ended);
  EXPECT_EQ(named.status, 1);
  EXPECT_EQ(named.errors, "fatal: seek failed to -1 in 'x': Invalid argument\n");
  EXPECT_EQ(seek(nullptr, -7).errors, "fatal: seek failed to -7 in file: Invalid argument\n");
}

}  // namespace
}  // namespace kelvane
