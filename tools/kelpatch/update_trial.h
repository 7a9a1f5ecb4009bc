// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "update_file.h"
#include "update_simulation.h"

// An update tried on a model of a device's flash before anybody relies on it.
namespace kelpatch {

std::string_view view_of(const Bytes& bytes);

// Ends the run for a device whose flash is too large for the model.
void require_flash(const kelvane::DeviceShape& shape);

// A device with no more spare pages than the update needs, and memory for its payload.
kelvane::DeviceShape device_for(const UpdateFile& update);

// Pages that the decoder here saves in checkpoints beyond those of a device that needs no more than
// the update's model.
uint32_t pages_of_larger_model(const UpdateFile& update);

// Whether such a device with `old_image` takes the update: what it checks before it erases a page.
bool is_taken(const UpdateFile& update, const Bytes& old_image);

// The image that the update makes of `old_image` on such a device. Ends the run with status 1 if
// that is not the old image of the update, or if the device refuses the update, and with status 2
// if the new image would have more than `max_size` bytes.
Bytes updated(const UpdateFile& update, const std::string& old_name, const Bytes& old_image,
              std::optional<uint32_t> max_size);

// Ends the run unless the update that was tried gave `code` for success, and `new_image`.
void require_right(int code, kelvane::SimulatedDevice& tried, const Bytes& new_image,
                   const std::string& name);

// Cuts power at the operations of the update, all of them unless that takes long, and gives a line
// that tells what came of it. `jobs`: devices that go on at the same time, eight at most. `report`
// is told how far it is, and may be empty. Ends the run with status 1 if any device ends with
// another image.
std::string simulate_cuts(const kelvane::DeviceShape& shape, const Bytes& old_image,
                          const Bytes& new_image, const Bytes& update, const std::string& name,
                          uint32_t jobs,
                          const std::function<void(uint64_t operations, uint64_t all)>& report);

}  // namespace kelpatch
