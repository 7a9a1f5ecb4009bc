#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "archive_builder.h"
#include "captured_run.h"
#include "changed_surroundings.h"
#include "indgen_memory.h"
#include "indobjio.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {

// Hands a file to the dispatcher with hooks that keep what they get, a line each:
//   HOOK DISPLAY_NAME offset POSITION, and what stands there
class LibraryTest : public testing::Test {
 protected:
  LibraryTest() : here_(tree_.name()) {
    reset_all_state();
    calls.clear();
    do_ELF_file_ptr = [](std::FILE* stream, std::FILE*, object_info* object) {
      record("elf", stream, object);
      return 30;
    };
    do_unknown_file_ptr = [](std::FILE* stream, std::FILE*, object_info* object) {
      record("unknown", stream, object);
      return 170;
    };
  }
  ~LibraryTest() override { reset_all_state(); }

  // What the hooks got of a file "lib.a" with these bytes.
  std::vector<std::string> calls_for(const std::string& bytes) {
    calls.clear();
    tree_.write("lib.a", bytes);
    run = capture([this] { result = do_any_file("lib.a"); });
    return calls;
  }
  // How the run ended, if it did: its words.
  std::string end_of(const std::string& bytes) {
    calls_for(bytes);
    EXPECT_EQ(run.status, run.ended ? 1 : -1);
    return run.errors;
  }

  static void record(const std::string& hook, std::FILE* stream, const object_info* object) {
    const long position = std::ftell(stream);
    EXPECT_EQ(position, object->member_offset);
    std::string line = hook + " " + object->display_name + " " + std::to_string(position) + " ";
    for (int c = 0; line.back() != '\n' && (c = std::fgetc(stream)) != EOF;) {
      line += static_cast<char>(c);
    }
    calls.push_back(line);
  }

  static inline std::vector<std::string> calls;
  CapturedRun run;
  int32_t result = 0;
  TemporaryDirectory tree_;
  ChangedDirectory here_;
};

}  // namespace kelvane
