#include "debug_print.h"

#include <gtest/gtest.h>

#include "operation_table.h"
#include "reset_state.h"

namespace kelvane {
namespace {

TEST(DebugPrint, SaysWhatTheTableTells) {
  using Text = const char*;
  // clang-format off
  check_table({
      {"level", [](int32_t level) { debug_level = level; return ""; }},
      {"number", [](int32_t level, int32_t number) { return dprintf(level, "x=%d", number); }},
      {"line", [](Text text) { return dprintf(0, "%s\n", text); }},
      // The format decides about the end of a line, not the text.
      {"text", [](Text text) { return dprintf(0, "%s", text); }},
      {"format", [](const std::string& format) { return dprintf(0, format.c_str(), 0); }},
      {"address", [](uint32_t address) { dprintf(0, "%p", address_for_print(address)); return ""; }},
  }, KELVANE_TABLES "debug_print.table");
  // clang-format on
  reset_all_state();
}

}  // namespace
}  // namespace kelvane
