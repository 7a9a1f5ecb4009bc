// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "page_plan.h"

namespace kelpatch {

// What the command line says of a device.
struct DeviceOptions {
  SparePages spare;
  bool has_ring = false;                 // the ring was told, which is for patches alone
  uint32_t unit = 8;                     // bytes that are programmed at once
  std::optional<uint32_t> window;        // bytes computed at a time; by default a page
  uint32_t classes = 64;                 // increment classes that are read on
  uint32_t erase_time = 85;              // milliseconds
  std::optional<uint32_t> program_time;  // milliseconds for a page; by default 42 for 4096 bytes
  std::optional<std::string> rollback;
  uint32_t signature = 0;
  bool simulate = false;
};

// Prints what an update of a device by the patch takes: pages, erases, wear, memory, time. Ends the
// run with status 1 if the old file is not the one of the patch or the spare pages are too few,
// with status 2 for a patch that no bundle can hold, or that makes more than `max_size` bytes.
void plan_update(const std::string& patch_name, const std::string& old_name,
                 const DeviceOptions& device, std::optional<uint32_t> max_size);

// `patch_name` and the way back may be updates too, which are given what else the command line asks
// for, but no other ring: if none of them is a patch, one that is told ends the run. Writes the
// bundle of plan and patch to `bundle_name`, after an update by it has come out right in a model of
// the flash. Ends the run as plan_update does, and with status 1 if the patch does not make the new
// file, or if any update whose power was cut ends wrong, and with status 2 if `bundle_name` is an
// input too.
void make_update(const std::string& patch_name, const std::string& old_name,
                 const std::string& new_name, const std::string& bundle_name,
                 const DeviceOptions& device, std::optional<uint32_t> max_size);

}  // namespace kelpatch
