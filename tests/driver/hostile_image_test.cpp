// Images damaged in every way that one byte can be, and cut everywhere, through the whole loading.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "bytes.h"
#include "captured_run.h"
#include "child_process.h"
#include "elf32.h"
#include "image.h"
#include "image_builder.h"
#include "indgen_message.h"
#include "load.h"
#include "load_internal.h"
#include "memory_file.h"
#include "reset_state.h"
#include "sanitizers.h"
#include "symbol_list.h"

namespace kelvane {
namespace {

int32_t messages = 0;

// Loads an image and uses its symbols, as a run does. The run ends or it goes on: by one message
// and status 1, or without a word.
void load_damaged(const MemoryFile& file, const Bytes& bytes) {
  ASSERT_TRUE(file.put(bytes));
  const std::string name = file.name();
  messages = 0;
  int32_t status = 0;
  file_data record = {};
  try {
    status = load_file(&record, name.c_str()) == 1 ? 0 : 1;
    sort_symbols(symtab_addr);
    symtab_del_dup(table.records, table.count);
    sort_symbols(symtab_cmp);
    for (const sym_addr* section = record.sections; section != record.sections_end; ++section) {
      ASSERT_NE(section->name, nullptr);
    }
  } catch (const EndOfRun& end) {
    status = end.status;
  }
  EXPECT_EQ(messages, status);
  EXPECT_LE(status, 1);
  release_file(&record);
  table = {};
}

// An image with all that a reader looks at.
Image whole_image(ByteOrder order) {
  Image image;
  image.order = order;
  image.sections = {{.name = ".text", .addr = 0x1000, .content = Bytes(12, 1)},
                    {.name = ".crom_x", .addr = 0x3000, .content = Bytes(5, 2)},
                    {.name = ".bss", .type = elf32::SHT_NOBITS, .addr = 0x2000, .size = 8}};
  image.symbols = {crt1_symbol(0x1000, ".text"),
                   {.name = "x", .value = 0x1000, .size = 4, .info = 1, .section = ".text"}};
  image.dynamic_symbols = {{.name = "y", .value = 4, .size = 4, .section = ".text"}};
  return image;
}

void damage_everywhere(bool wide) {
  const MemoryFile file;
  for (const ByteOrder order : {ByteOrder::big, ByteOrder::little}) {
    Bytes whole = build_image(whole_image(order));
    if (wide) {
      whole[elf32::EI_CLASS] = elf32::ELFCLASS64;
    }
    for (size_t i = 0; i < whole.size(); ++i) {
      Bytes damaged = whole;
      const uint8_t was = whole[i];
      for (const int value : {0, 1, 0x7F, 0x80, 0xFF, was ^ 1, was + 1}) {
        damaged[i] = static_cast<uint8_t>(value);
        load_damaged(file, damaged);
      }
      if (i > 0) {
        load_damaged(file, Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(i)));
      }
    }
  }
}

class HostileImages : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Modes, HostileImages, testing::Bool(),
                         [](const auto& mode) { return mode.param ? "MemoryMode" : "FileMode"; });

TEST_P(HostileImages, LoadOrEndTheRunWithOneMessage) {
  reset_all_state();
  fDiffMemory = GetParam() ? 1 : 0;
  const ChildResult child = in_child([] {
    if (!kUnderAddressSanitizer) {
      // Little address space is left, so that a size that is believed ends in other words.
      const rlimit little = {200U << 20U, 200U << 20U};
      ::setrlimit(RLIMIT_AS, &little);
    }
    gen_exit = [](int32_t status) { throw EndOfRun{status}; };
    gen_domessage = [](uint32_t, const char* format, va_list) {
      ++messages;
      EXPECT_EQ(std::string(format).find("memory"), std::string::npos);
    };
    damage_everywhere(false);
    damage_everywhere(true);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.words, "");
  reset_all_state();
}

}  // namespace
}  // namespace kelvane
