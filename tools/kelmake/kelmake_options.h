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

// What the command line says of a device, for an update.
struct UpdateOptions {
  uint32_t page_size = 4096;
  uint32_t ring = 8;               // how many pages back old bytes can be read, this one included
  std::optional<uint32_t> spare;   // all spare pages; by default those that 8 slots take
  uint32_t checkpoint = 8;         // pages that change from one checkpoint to the next
  bool rehearse = false;           // the device is to know the new image ahead of the first erase
  uint32_t map = 2048;             // entries at most, each of which takes memory on the device
  std::optional<uint32_t> raise;   // pages to move the old image up by first; else if it pays
  uint8_t model = 1;               // 0 takes half the memory
  std::optional<uint8_t> machine;  // as kelvane_dense_machine has them
  std::optional<uint32_t> base;    // the target address of the first byte
  bool simulate = false;
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
  bool bundle = false;  // an update of a device and no patch
  UpdateOptions update;
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
const char* name_of_machine(uint8_t machine);
const char* name_of_model(uint8_t model);

}  // namespace kelmake
