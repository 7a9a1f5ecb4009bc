#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "operation_table.h"
#include "temporary_directory.h"

// Tables whose lines follow each other as the steps of scenarios, in a folder that @ stands for.
namespace kelvane {

inline std::string octal(mode_t mode) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%o", mode & 07777U);
  return text.data();
}

// The permissions of an entry that is there; of a link itself.
inline mode_t mode_of(const std::string& name) {
  struct stat status {};
  EXPECT_EQ(::lstat(name.c_str(), &status), 0) << name;
  return status.st_mode & 07777U;
}

// Operations that prepare a scenario and look at what it left; entries are named from the folder.
// `errno` is that of the operation before.
inline std::vector<Operation> steps_in(const TemporaryDirectory& folder, const int& reason) {
  using Text = const char*;
  namespace fs = std::filesystem;
  // clang-format off
  return {
      {"errno", [&](Text) { return ::strerrorname_np(reason); }},
      {"env", [](Text name, Text value) { ::setenv(name, value, 1); return ""; }},
      {"write", [&](Text entry, Text contents) { folder.write(entry, contents); return ""; }},
      {"read", [&](Text entry) { return folder.read(entry); }},
      {"mkdir", [&](Text entry) { fs::create_directories(folder.path(entry)); return ""; }},
      {"symlink", [&](Text target, Text entry) { fs::create_symlink(target, folder.path(entry)); return ""; }},
      {"hardlink", [&](Text target, Text entry) { fs::create_hard_link(folder.path(target), folder.path(entry)); return ""; }},
      {"chmod", [&](Text entry, mode_t mode) { ::chmod(folder.path(entry).c_str(), mode); return ""; }},
      {"mode", [&](Text entry) { return octal(mode_of(folder.path(entry))); }},
      {"exists", [&](Text entry) { return fs::exists(fs::symlink_status(folder.path(entry))); }},
      {"empty", [&](Text entry) { return fs::is_empty(folder.path(entry)); }},
      {"remove", [&](Text entry) { fs::remove_all(folder.path(entry)); return ""; }},
  };
  // clang-format on
}

// Goes through the table in a file with `operations` and the steps above.
inline void go_through(const char* file, const TemporaryDirectory& folder,
                       std::vector<Operation> operations) {
  int reason = 0;
  const std::vector<Operation> steps = steps_in(folder, reason);
  operations.insert(operations.end(), steps.begin(), steps.end());
  check_table(
      operations, file,
      [&](const Operation& operation, const std::vector<std::string>& arguments) {
        errno = 0;
        const std::string given = operation(arguments);
        reason = errno;
        return given;
      },
      folder.name() + "/");
}

}  // namespace kelvane
