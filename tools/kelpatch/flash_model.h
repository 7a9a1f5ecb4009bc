// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "flash_driver.h"

namespace kelvane {

struct FlashGeometry {
  uint32_t page_size = 1024;
  uint32_t unit = 8;
  bool ecc_faults = false;  // a torn unit fails to read now and then, not only reads differently
};

// Where power goes in an operation.
enum class Cut { kBefore, kTorn, kAfter };

// Flash that loses power in the middle of things. An operation (erase or program) that is cut
// leaves its page, or its unit, torn: its bits are hardly changed, half changed or nearly done, and
// those that are not decided read at random each time. Without power every call fails and changes
// nothing.
class FlashModel {
 public:
  FlashModel(const FlashGeometry& geometry, uint32_t pages, uint32_t seed);
  FlashModel(const FlashModel& other);
  FlashModel& operator=(const FlashModel&) = delete;

  const kelvane_flash_driver* driver() const { return &driver_; }

  // Power goes at operation `operation`, counted from 0 from now on; it is on until then.
  void cut_at(uint64_t operation, Cut how);
  // Power is back, for good.
  void power_on();
  bool powered() const { return powered_; }
  uint64_t operations() const { return operations_; }  // since the last cut_at or power_on

  // Puts bytes there without any of the rules: what a programmer's tool leaves.
  void install(uint32_t address, std::string_view bytes);
  std::string contents(uint32_t address, uint32_t size) const;

  // Called ahead of each operation with what does the same operation on a copy of the flash, which
  // is not watched itself.
  std::function<void(const std::function<void(FlashModel& copy)>& repeat)> watch;

  // Programs of a unit that was not erased, operations that are not aligned, accesses that leave
  // the flash. The test expects 0.
  uint64_t violations = 0;
  uint32_t fail_operation = 0;   // the number of the operation that fails, from 1; 0 for none
  std::vector<uint32_t> erases;  // of each page
  uint64_t programmed = 0;       // bytes

 private:
  enum class Unit : uint8_t { kErased, kProgrammed, kTorn };
  enum class Progress : uint8_t { kHardlyBegun, kHalfDone, kNearlyDone };

  static int read(void* context, uint32_t address, uint8_t* bytes, uint32_t count);
  static int erase(void* context, uint32_t address);
  static int program(void* context, uint32_t address, const uint8_t* bytes, uint32_t count);

  bool inside(uint32_t address, uint64_t count) const;
  bool starts(Cut* cut);  // one more operation; false if it does nothing at all
  void tear(uint32_t place, uint8_t target, Progress progress);
  uint8_t random_bits() { return static_cast<uint8_t>(random_()); }
  Progress random_progress() { return static_cast<Progress>(random_() % 3); }

  FlashGeometry geometry_;
  kelvane_flash_driver driver_;
  std::vector<uint8_t> bytes_;
  std::vector<uint8_t> undecided_;  // bits that read at random; empty until something is torn
  std::vector<Unit> units_;
  std::minstd_rand random_;
  uint64_t operations_ = 0;
  uint64_t cut_operation_ = UINT64_MAX;
  Cut cut_ = Cut::kBefore;
  bool powered_ = true;
};

}  // namespace kelvane
