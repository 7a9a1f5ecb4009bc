// SPDX-License-Identifier: Apache-2.0
#include "update_simulation.h"

#include <random>

namespace kelvane {
namespace {

const kelvane_payload_kind* const kPatches[] = {&kelvane_patch_kind, nullptr};

uint32_t pages_of(const DeviceShape& shape) {
  return 1 + shape.image_pages + shape.spare_pages + KELVANE_JOURNAL_PAGES;
}

// Starts until one comes through. Gives the code of the last.
int start_until_through(SimulatedDevice& device, const kelvane_source& bundle, CutResult& result,
                        uint32_t more, std::minstd_rand& random) {
  for (;;) {
    if (more > 0) {
      const uint64_t operation = random() % 40;
      device.flash().cut_at(operation, static_cast<Cut>(random() % 3));
    } else {
      device.flash().power_on();
    }
    ++result.starts;
    const int code = device.run(bundle);
    if (device.flash().powered()) {
      return code;
    }
    ++result.cuts;
    --more;
  }
}

}  // namespace

SimulatedDevice::SimulatedDevice(const DeviceShape& shape, std::string_view image, uint32_t seed)
    : shape_(shape), flash_(shape.flash, pages_of(shape), seed) {
  flash_.install(image_address(), image);
  set_up();
}

SimulatedDevice::SimulatedDevice(const DeviceShape& shape, const FlashModel& flash)
    : shape_(shape), flash_(flash) {
  set_up();
}

void SimulatedDevice::set_up() {
  const uint32_t page = shape_.flash.page_size;
  const uint32_t state_size = shape_.kinds != nullptr
                                  ? shape_.state_size
                                  : static_cast<uint32_t>(sizeof(kelvane_patch_payload) +
                                                          shape_.classes * sizeof(kelvane_words));
  work_.resize(shape_.window == 0 ? page : shape_.window);
  state_.resize((state_size + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t));
  board_.driver = *flash_.driver();
  board_.image = image_address();
  board_.image_pages = shape_.image_pages;
  board_.spare = board_.image + shape_.image_pages * page;
  board_.spare_pages = shape_.spare_pages;
  board_.journal = board_.spare + shape_.spare_pages * page;
  board_.work = work_.data();
  board_.work_size = static_cast<uint32_t>(work_.size());
  board_.kinds = shape_.kinds != nullptr ? shape_.kinds : kPatches;
  board_.state = state_.data();
  board_.state_size = state_size;
}

std::string SimulatedDevice::image(uint32_t size) const {
  return flash_.contents(image_address(), size);
}

int SimulatedDevice::open(const kelvane_source& bundle) {
  return kelvane_update_open(&update_, &board_, &bundle);
}

int SimulatedDevice::run(const kelvane_source& bundle) {
  int code = open(bundle);
  while (code == KELVANE_UPDATE_MORE) {
    code = step();
  }
  return code;
}

CutResult cut_everywhere(const DeviceShape& shape, std::string_view old_image,
                         std::string_view new_image, const kelvane_source& bundle,
                         const CutPlan& cuts) {
  CutResult result;
  std::minstd_rand random(cuts.seed);
  SimulatedDevice whole(shape, old_image, cuts.seed);
  const auto size = static_cast<uint32_t>(new_image.size());
  const auto note = [&](SimulatedDevice& device, int code) {
    result.wrong += code != KELVANE_APPLY_OK || device.image(size) != new_image ? 1 : 0;
    result.violations += device.flash().violations;
  };
  whole.flash().watch = [&](const std::function<void(FlashModel & copy)>& repeat) {
    if (result.operations++ % cuts.every != 0) {
      return;
    }
    if (cuts.report) {
      cuts.report(result.operations);
    }
    for (const Cut how : {Cut::kBefore, Cut::kTorn, Cut::kAfter}) {
      FlashModel flash(whole.flash());
      flash.cut_at(0, how);
      repeat(flash);
      ++result.cuts;
      SimulatedDevice device(shape, flash);
      const uint32_t more = cuts.more == 0 ? 0 : static_cast<uint32_t>(random() % (cuts.more + 1));
      note(device, start_until_through(device, bundle, result, more, random));
    }
  };
  result.code = whole.run(bundle);
  note(whole, result.code);
  return result;
}

}  // namespace kelvane
