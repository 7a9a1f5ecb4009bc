// SPDX-License-Identifier: Apache-2.0
#include "flash_model.h"

#include <algorithm>

namespace kelvane {

FlashModel::FlashModel(const FlashGeometry& geometry, uint32_t pages, uint32_t seed)
    : erases(pages),
      geometry_(geometry),
      driver_{this, read, erase, program, geometry.page_size, geometry.unit},
      bytes_(size_t{pages} * geometry.page_size, 0xFF),
      units_(bytes_.size() / geometry.unit, Unit::kErased),
      random_(seed + 1) {}

FlashModel::FlashModel(const FlashModel& other)
    : violations(other.violations),
      fail_operation(other.fail_operation),
      erases(other.erases),
      programmed(other.programmed),
      geometry_(other.geometry_),
      driver_(other.driver_),
      bytes_(other.bytes_),
      undecided_(other.undecided_),
      units_(other.units_),
      random_(other.random_),
      operations_(other.operations_),
      cut_operation_(other.cut_operation_),
      cut_(other.cut_),
      powered_(other.powered_) {
  driver_.context = this;
}

void FlashModel::cut_at(uint64_t operation, Cut how) {
  power_on();
  cut_operation_ = operation;
  cut_ = how;
}

void FlashModel::power_on() {
  powered_ = true;
  operations_ = 0;
  cut_operation_ = UINT64_MAX;
}

void FlashModel::install(uint32_t address, std::string_view bytes) {
  std::copy(bytes.begin(), bytes.end(), bytes_.begin() + address);
  const uint32_t unit = geometry_.unit;
  for (size_t i = address / unit; i < (address + bytes.size() + unit - 1) / unit; ++i) {
    units_[i] = Unit::kProgrammed;
  }
}

std::string FlashModel::contents(uint32_t address, uint32_t size) const {
  return {bytes_.begin() + address, bytes_.begin() + address + size};
}

bool FlashModel::inside(uint32_t address, uint64_t count) const {
  return address <= bytes_.size() && count <= bytes_.size() - address;
}

bool FlashModel::starts(Cut* cut) {
  *cut = Cut::kAfter;
  if (!powered_) {
    return false;
  }
  const uint64_t operation = operations_++;
  if (operation == cut_operation_) {
    powered_ = false;
    *cut = cut_;
    return cut_ != Cut::kBefore;
  }
  return operation + 1 != fail_operation;
}

int FlashModel::read(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  FlashModel& flash = *static_cast<FlashModel*>(context);
  if (!flash.inside(address, count)) {
    ++flash.violations;
    return 1;
  }
  if (!flash.powered_) {
    return 1;
  }
  std::copy_n(flash.bytes_.begin() + address, count, bytes);
  const uint32_t unit = flash.geometry_.unit;
  const uint32_t end = address + count;
  uint32_t place = address;
  while (place < end) {
    const uint32_t unit_end = std::min(end, (place / unit + 1) * unit);
    const bool is_torn = flash.units_[place / unit] == Unit::kTorn;
    for (; is_torn && place < unit_end; ++place) {
      if (flash.geometry_.ecc_faults && flash.random_() % 4 != 0) {
        return 1;
      }
      uint8_t& byte = bytes[place - address];
      byte = static_cast<uint8_t>(byte ^ (flash.random_bits() & flash.undecided_[place]));
    }
    place = unit_end;
  }
  return 0;
}

// Changes one byte towards `target`, as far as it got.
void FlashModel::tear(uint32_t place, uint8_t target, Progress progress) {
  undecided_.resize(bytes_.size());
  uint8_t& byte = bytes_[place];
  const auto changing = static_cast<uint8_t>(byte ^ target);
  const auto few =
      static_cast<uint8_t>(random_() % 8 == 0 ? (1U << (random_() % 8)) & changing : 0);
  switch (progress) {
    case Progress::kHardlyBegun:
      undecided_[place] = few;
      break;
    case Progress::kHalfDone:
      undecided_[place] = changing;
      byte = static_cast<uint8_t>(byte ^ (random_bits() & changing));
      break;
    case Progress::kNearlyDone:
      undecided_[place] = few;
      byte = target;
      break;
  }
}

int FlashModel::erase(void* context, uint32_t address) {
  FlashModel& flash = *static_cast<FlashModel*>(context);
  const uint32_t size = flash.geometry_.page_size;
  Cut cut;
  if (!flash.inside(address, size) || address % size != 0) {
    ++flash.violations;
    return 1;
  }
  if (flash.watch) {
    flash.watch([&](FlashModel& copy) { erase(&copy, address); });
  }
  if (!flash.starts(&cut)) {
    return 1;
  }
  ++flash.erases[address / size];
  const bool torn = cut == Cut::kTorn;
  const Progress progress = flash.random_progress();
  if (torn) {
    for (uint32_t place = address; place < address + size; ++place) {
      flash.tear(place, 0xFF, progress);
    }
  } else {
    std::fill_n(flash.bytes_.begin() + address, size, uint8_t{0xFF});
    if (!flash.undecided_.empty()) {
      std::fill_n(flash.undecided_.begin() + address, size, uint8_t{0});
    }
  }
  const uint32_t unit = flash.geometry_.unit;
  std::fill_n(flash.units_.begin() + address / unit, size / unit,
              torn ? Unit::kTorn : Unit::kErased);
  return flash.powered_ ? 0 : 1;
}

int FlashModel::program(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
  FlashModel& flash = *static_cast<FlashModel*>(context);
  const uint32_t unit = flash.geometry_.unit;
  Cut cut;
  if (!flash.inside(address, count) || address % unit != 0 || count % unit != 0 || count == 0) {
    ++flash.violations;
    return 1;
  }
  if (flash.watch) {
    flash.watch([&](FlashModel& copy) { program(&copy, address, bytes, count); });
  }
  if (!flash.starts(&cut)) {
    return 1;
  }
  flash.programmed += count;
  const uint32_t units = count / unit;
  const uint32_t last = cut == Cut::kTorn ? static_cast<uint32_t>(flash.random_()) % units : units;
  const Progress progress = flash.random_progress();
  for (uint32_t i = 0; i < units && i <= last; ++i) {
    const uint32_t start = address + i * unit;
    Unit& state = flash.units_[start / unit];
    if (state != Unit::kErased) {
      ++flash.violations;
    }
    for (uint32_t place = start; place < start + unit; ++place) {
      const auto target = static_cast<uint8_t>(flash.bytes_[place] & bytes[place - address]);
      if (i == last) {
        flash.tear(place, target, progress);
      } else {
        flash.bytes_[place] = target;
      }
    }
    state = i == last ? Unit::kTorn : Unit::kProgrammed;
  }
  return flash.powered_ ? 0 : 1;
}

}  // namespace kelvane
