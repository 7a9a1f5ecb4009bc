// SPDX-License-Identifier: Apache-2.0
#include "update_simulation.h"

#include <deque>
#include <future>
#include <memory>
#include <random>
#include <utility>

namespace kelvane {
namespace {

const kelvane_payload_kind* const kPatches[] = {&kelvane_patch_kind, nullptr};

uint32_t pages_of(const DeviceShape& shape) {
  return 1 + shape.image_pages + shape.spare_pages + KELVANE_JOURNAL_PAGES;
}

// Starts the device as long as power is to go once more. Gives whether it came through none the
// less, and leaves the code of that start.
bool comes_through_cuts(SimulatedDevice& device, const kelvane_source& bundle, CutResult& result,
                        uint32_t more, std::minstd_rand& random, int& code) {
  for (; more > 0; --more) {
    const uint64_t operation = random() % 40;
    device.flash().cut_at(operation, static_cast<Cut>(random() % 3));
    ++result.starts;
    code = device.run(bundle);
    if (device.flash().powered()) {
      return true;
    }
    ++result.cuts;
  }
  return false;
}

// Devices on their last way, from a start with power that stays to their end: nothing of it depends
// on the others, and it takes most of the time.
class LastStarts {
 public:
  LastStarts(const kelvane_source& bundle, std::string_view new_image, CutResult& result,
             uint32_t jobs)
      : bundle_(bundle), new_image_(new_image), result_(result), jobs_(jobs) {}

  // Counts what came of a device that has ended with `code`.
  void note(SimulatedDevice& device, int code) { add(outcome_of(device, code)); }

  // Sees the device to its end, beside others where there are jobs for that.
  void run(std::unique_ptr<SimulatedDevice> device) {
    ++result_.starts;
    const auto last_start = [this, device = std::shared_ptr<SimulatedDevice>(std::move(device))] {
      device->flash().power_on();
      return outcome_of(*device, device->run(bundle_));
    };
    if (jobs_ <= 1) {
      add(last_start());
      return;
    }
    while (running_.size() >= jobs_) {
      take_first();
    }
    // Without a thread it runs when it is asked for. A copy, for one that was moved into a thread
    // that could not be made would be empty.
    running_.push_back(std::async(std::launch::async | std::launch::deferred, last_start));
  }

  void wait_for_all() {
    while (!running_.empty()) {
      take_first();
    }
  }

 private:
  struct Outcome {
    bool is_wrong;
    uint64_t violations;
  };
  Outcome outcome_of(SimulatedDevice& device, int code) const {
    const auto size = static_cast<uint32_t>(new_image_.size());
    return {code != KELVANE_APPLY_OK || device.image(size) != new_image_,
            device.flash().violations};
  }
  void add(const Outcome& outcome) {
    result_.wrong += outcome.is_wrong ? 1 : 0;
    result_.violations += outcome.violations;
  }
  void take_first() {
    std::future<Outcome> first = std::move(running_.front());
    running_.pop_front();
    add(first.get());
  }

  const kelvane_source& bundle_;
  std::string_view new_image_;
  CutResult& result_;
  size_t jobs_;
  std::deque<std::future<Outcome>> running_;
};

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
  LastStarts last_starts(bundle, new_image, result, cuts.jobs);
  whole.flash().watch = [&](const std::function<void(FlashModel & copy)>& repeat) {
    if (result.operations++ % cuts.every != 0) {
      return;
    }
    if (cuts.report) {
      cuts.report(result.operations);
    }
    for (const Cut how : {Cut::kBefore, Cut::kTorn, Cut::kAfter}) {
      auto device = std::make_unique<SimulatedDevice>(shape, whole.flash());
      device->flash().cut_at(0, how);
      repeat(device->flash());
      ++result.cuts;
      const uint32_t more = cuts.more == 0 ? 0 : static_cast<uint32_t>(random() % (cuts.more + 1));
      int code = 0;
      if (comes_through_cuts(*device, bundle, result, more, random, code)) {
        last_starts.note(*device, code);
      } else {
        last_starts.run(std::move(device));
      }
    }
  };
  result.code = whole.run(bundle);
  last_starts.note(whole, result.code);
  last_starts.wait_for_all();
  return result;
}

}  // namespace kelvane
