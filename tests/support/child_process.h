#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "temporary_directory.h"

namespace kelvane {

// What a child process left: its exit status (-1 if a signal ended it), and what it wrote to
// standard output and standard error, in the order of writing.
struct ChildResult {
  int status = -1;
  std::string words;
};

// The status of a child whose action came to its end.
inline constexpr int kReturned = 99;

// Calls `action` in a child process, for what ends the process or changes it for good.
inline ChildResult in_child(const std::function<void()>& action) {
  const TemporaryDirectory capture;
  const std::string words = capture.write("words", "");
  const pid_t child = ::fork();
  if (child == 0) {
    const int descriptor = ::open(words.c_str(), O_WRONLY | O_APPEND);
    if (::dup2(descriptor, STDOUT_FILENO) >= 0 && ::dup2(descriptor, STDERR_FILENO) >= 0) {
      action();
    }
    ::_exit(kReturned);
  }
  ChildResult result;
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  }
  result.words = capture.read("words");
  return result;
}

}  // namespace kelvane
