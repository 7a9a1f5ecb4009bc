#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "plan_search.h"

namespace kelmake {

// Exit statuses.
inline constexpr int kWritten = 0;  // the patch was written, or help was asked for
inline constexpr int kTrouble = 1;  // a file, memory, or a plan that does not hold
inline constexpr int kUsage = 2;

// Thrown for wrong usage, with what stands behind "kelmake: " on standard error. All else that ends
// a run is a kelpatch::Failure or std::bad_alloc, and trouble.
struct UsageError {
  std::string message;
};

struct Options {
  std::string old_name;
  std::string new_name;
  std::string patch_name;
  std::string report_name;           // empty: no report
  bool ram = false;                  // the files are images of target memory
  std::string exclude_name;          // a file of sections to leave out; empty: none
  std::vector<std::string> aliases;  // of memory regions, as they were written
  uint8_t format = 1;
  kelvane::patch_profile profile = kelvane::patch_profile::wide;
  kelvane::plan_effort effort = kelvane::plan_effort::normal;
  std::optional<kelvane::ByteOrder> order;  // both are tried by default
  std::optional<uint32_t> seconds;          // no limit by default
  uint32_t jobs = 1;
  bool quiet = false;
  bool help = false;
  bool version = false;
};

// Reads the command line, without the program's name. With --help or --version nothing else is
// required. Throws UsageError ("error: ... (see kelmake --help)").
Options parse_options(const std::vector<std::string>& arguments);

// The text of --help.
const char* help_text();

// The words of the command line for a value.
const char* name_of(kelvane::patch_profile profile);
const char* name_of(kelvane::plan_effort effort);
const char* name_of(kelvane::ByteOrder order);

}  // namespace kelmake
