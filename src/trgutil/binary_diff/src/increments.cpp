#include "increments.h"

#include "debug_print.h"
#include "engine_settings.h"
#include "indgen_memory.h"

namespace kelvane {

namespace {

constexpr uint32_t kLanes = 4;  // bytes of a word
constexpr uint32_t kLaneMask = kLanes - 1;
constexpr uint32_t kSignBit = 0x80000000U;

// The bytes from `address` to the next word boundary as their lanes of a word.
uint32_t read_lanes(const uint8_t* bytes, uint32_t address) {
  uint32_t word = 0;
  for (uint32_t lane = address & kLaneMask; lane < kLanes; ++lane) {
    const uint32_t shift = 8U * (TargetIsBigEndian != 0 ? kLaneMask - lane : lane);
    word |= uint32_t{*bytes++} << shift;
  }
  return word;
}

// Number of low-order bytes that it takes to hold `bits`.
int32_t significant_bytes(uint32_t bits) {
  int32_t count = 0;
  for (; bits != 0; bits >>= 8U) {
    ++count;
  }
  return count;
}

// Index of the class of `difference`, or `incr_values` if there is none.
int32_t find_class(uint32_t difference) {
  int32_t index = 0;
  while (index < incr_values && incr_value[static_cast<size_t>(index)] != difference) {
    ++index;
  }
  return index;
}

}  // namespace

uint32_t word_diff(const uint8_t* old_bytes, const uint8_t* new_bytes, uint32_t old_address,
                   uint32_t new_address, uint32_t* old_word) {
  if (old_word != nullptr) {
    *old_word = read_lanes(old_bytes, old_address);
  }
  return read_lanes(new_bytes, new_address);
}

bool bad_diff(uint32_t old_word, uint32_t difference) {
  constexpr uint32_t kMagnitudeLimit = 0x1000000U;
  if (old_word != 0) {
    return false;
  }
  if (difference % kLanes != 0) {
    return true;
  }
  const uint32_t magnitude = (difference & kSignBit) != 0 ? 0U - difference : difference;
  return magnitude >= kMagnitudeLimit;
}

int32_t add_increment(uint32_t address, uint32_t difference, uint32_t new_word, int32_t recording) {
  const auto index = static_cast<size_t>(find_class(difference));
  if (index == static_cast<size_t>(incr_values)) {
    if (incr_values == kMaxIncrementClasses) {
      dprintf(8, "INCR New Increment REJECTED (no space)\n");
      return 1;
    }
    ++incr_values;
    dprintf(8, "INCR New Increment ACCEPTED %d\n", incr_values);
    incr_value[index] = difference;
  }
  if (recording == 0) {
    return 0;
  }
  command_record* const record = gen_alloc_array<command_record>(1);
  const uint32_t old_word = new_word - difference;
  record->address = address;
  record->size = significant_bytes(new_word ^ old_word);
  record->data.value = new_word;
  dprintf(2, " CMD: inc 0x%08x (len %d) at %p", difference, record->size,
          address_for_print(address));
  append_command(record, &first_incr[index], &last_incr[index]);
  ++num_incrs[index];
  return 0;
}

int32_t process_increments(const changed_stretch& stretch, int32_t recording) {
  const int32_t saved_values = incr_values;
  changed_stretch rest = stretch;
  const auto start = static_cast<int32_t>((stretch.old_address & kLaneMask) + stretch.length);
  int32_t left = start;
  dprintf(2, "INCR PROCESS %08x vs %08x (len %d)\n", stretch.old_address, stretch.new_address,
          static_cast<int32_t>(stretch.length));
  if (((stretch.old_address ^ stretch.new_address) & kLaneMask) != 0) {
    dprintf(2, "INCR RELATIVELY MISALIGNED\n");
    return 0;
  }
  bool fits = true;
  while (left >= static_cast<int32_t>(kLanes)) {
    uint32_t old_word = 0;
    const uint32_t new_word =
        word_diff(rest.old_bytes, rest.new_bytes, rest.old_address, rest.new_address, &old_word);
    const uint32_t difference = new_word - old_word;
    if (recording == 0 || difference != 0) {
      dprintf(8, "INCR %s: from %08x into %08x is %08x at %08x\n",
              recording != 0 ? "WORD DIFF" : "Diff", old_word, new_word, difference,
              rest.new_address & ~kLaneMask);
    }
    if (difference != 0) {
      if (bad_diff(old_word, difference)) {
        dprintf(2, "INCR BAD DIFFERENCE\n");
        break;
      }
      if (add_increment(rest.command_address & ~kLaneMask, difference, new_word, recording) != 0) {
        fits = false;
        break;
      }
    }
    left -= static_cast<int32_t>(kLanes);
    rest.advance(kLanes - (rest.command_address & kLaneMask));
  }
  if (recording == 0) {
    incr_values = saved_values;
    if (!fits) {
      return 0;
    }
  }
  return left == start ? 0 : static_cast<int32_t>(stretch.length) - left;
}

int32_t process_increments(const uint8_t* old_bytes, const uint8_t* new_bytes,
                           uint32_t command_address, uint32_t length, uint32_t old_address,
                           uint32_t new_address, int32_t recording) {
  return process_increments(
      {old_bytes, new_bytes, command_address, length, old_address, new_address}, recording);
}

}  // namespace kelvane
