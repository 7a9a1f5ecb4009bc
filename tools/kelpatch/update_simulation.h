// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "flash_apply.h"
#include "flash_model.h"
#include "flash_patch.h"

namespace kelvane {

// What a simulated device has.
struct DeviceShape {
  FlashGeometry flash;
  uint32_t image_pages = 0;
  uint32_t spare_pages = 0;
  uint32_t window = 0;    // bytes; 0: a page
  uint32_t classes = 64;  // increment classes that are read on
  // The payloads that it takes, and memory for their state; null: patches, with room for `classes`.
  const kelvane_payload_kind* const* kinds = nullptr;
  uint32_t state_size = 0;
};

// A device with an image in a model of flash: the image's pages behind a page that stays alone,
// then the spare pages, then the journal.
class SimulatedDevice {
 public:
  SimulatedDevice(const DeviceShape& shape, std::string_view image, uint32_t seed);
  // One with this flash, which was just switched on.
  SimulatedDevice(const DeviceShape& shape, const FlashModel& flash);
  SimulatedDevice(const SimulatedDevice&) = delete;
  SimulatedDevice& operator=(const SimulatedDevice&) = delete;

  FlashModel& flash() { return flash_; }
  const kelvane_update& update() const { return update_; }
  const kelvane_flash& board() const { return board_; }
  std::string image(uint32_t size) const;
  uint32_t image_address() const { return shape_.flash.page_size; }

  // Opens the bundle, as after a reset.
  int open(const kelvane_source& bundle);
  int step() { return kelvane_update_step(&update_); }
  // Opens it and does all steps. Gives the code of the last one.
  int run(const kelvane_source& bundle);

 private:
  void set_up();

  DeviceShape shape_;
  FlashModel flash_;
  kelvane_flash board_ = {};
  kelvane_update update_ = {};
  std::vector<uint8_t> work_;
  std::vector<std::max_align_t> state_;
};

// The power is cut at operations of an update, in turn: ahead of it, in the middle of it and right
// behind it. Each time the device is started again until it comes through, and cut up to `more`
// times on the way.
struct CutPlan {
  uint64_t every = 1;  // operations from one that is cut to the next
  uint32_t more = 0;
  uint32_t seed = 1;
  uint32_t jobs = 1;  // devices that go on to their ends at the same time; changes no number
  // Called ahead of each operation that is cut, with the operations so far. May be empty.
  std::function<void(uint64_t operations)> report = {};
};

struct CutResult {
  uint64_t operations = 0;  // of the update without a cut
  uint64_t cuts = 0;
  uint64_t starts = 0;
  uint64_t wrong = 0;       // updates that ended in another image, with a code, or not at all
  uint64_t violations = 0;  // of the rules of flash
  int code = 0;             // of the update without a cut
};

CutResult cut_everywhere(const DeviceShape& shape, std::string_view old_image,
                         std::string_view new_image, const kelvane_source& bundle,
                         const CutPlan& cuts);

}  // namespace kelvane
