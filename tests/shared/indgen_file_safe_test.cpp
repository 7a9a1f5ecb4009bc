#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "indgen_file.h"
#include "indgen_memory.h"
#include "reset_state.h"
#include "scenario.h"

namespace kelvane {
namespace {

file_ptr opened(const char* name, const char* mode) {
  return file_ptr(std::fopen(name, mode));
}

TEST(SafeOperations, DoAndSayWhatTheTableTells) {
  using Text = const char*;
  const TemporaryDirectory root;
  reset_all_state();
  // clang-format off
  go_through(KELVANE_TABLES "indgen_file_safe.table", root, {
      {"open", [](Text name, Text description, Text mode) {
        const file_ptr stream(gen_safe_fopen(name, description, mode));
        return std::getc(stream.get());
      }},
      {"close_full", [](Text name, Text description) {
        std::FILE* const stream = std::fopen("/dev/full", "w");
        std::fputc('x', stream);
        return gen_safe_fclose(name, description, stream);
      }},
      {"close", [](Text file) { return gen_safe_fclose("x", nullptr, std::fopen(file, "r")); }},
      {"items", [](Text file, Text name, uint32_t size, uint32_t count) {
        char buffer[9] = {};
        const file_ptr stream = opened(file, "r");
        errno = ENOENT;  // of an earlier failure, and no reason of this one
        return std::to_string(gen_safe_fread(name, buffer, size, count, stream.get())) + ":" + buffer;
      }},
      {"items_nowhere", [](Text file) { return gen_safe_fread("x", nullptr, 1, 4, opened(file, "r").get()); }},
      {"blocks", [](Text file, Text name) {
        const file_ptr stream = opened(file, "r");
        const gen_ptr<void> fresh(gen_safe_readbytes(name, stream.get(), nullptr, 4));
        char buffer[4] = {};
        EXPECT_EQ(gen_safe_readbytes(name, stream.get(), buffer, 4), buffer);
        return std::string(static_cast<char*>(fresh.get()), 4);
      }},
      {"put", [](Text file, Text mode, Text name) { return gen_safe_fwrite(name, "12", 1, 2, opened(file, mode).get()); }},
      {"seek", [](Text file, Text name, long offset) {
        const file_ptr stream = opened(file, "r");
        EXPECT_EQ(gen_safe_fseek(name, stream.get(), offset, SEEK_SET), 0);
        return std::getc(stream.get());
      }},
  });
  // clang-format on
}

}  // namespace
}  // namespace kelvane
