// Any bytes as a patch: opened, shown, checked and carried out on a memory of a bounded size. The
// first byte of the input chooses how a version 0 patch is read (bits 0 and 1) and whether the size
// and the checksum of a version 1 patch are made to fit (bit 2 in file mode, bit 3 in memory mode);
// the rest is the patch. An access outside the memory or a write by a refused patch is a fault.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "applier.h"

namespace {

constexpr uint32_t kFileSize = 512;
constexpr uint32_t kSectionAddress = 0x8000;

struct Target {
  std::array<uint8_t, kFileSize> file = {};
  std::array<uint8_t, kFileSize> section = {};
  uint64_t moved = 0;  // bytes read and written: a small patch may ask for long work
  bool written = false;
};

uint8_t* place(Target& target, uint32_t address, uint32_t count) {
  const bool in_section = address >= kSectionAddress;
  const uint32_t offset = in_section ? address - kSectionAddress : address;
  if (offset > kFileSize || count == 0 || count > kFileSize - offset) {
    std::abort();
  }
  target.moved += count;
  return (in_section ? target.section.data() : target.file.data()) + offset;
}

int read_target(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  Target& target = *static_cast<Target*>(context);
  std::copy_n(place(target, address, count), count, bytes);
  return target.moved > (uint64_t{1} << 24) ? 1 : 0;
}

int write_target(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
  Target& target = *static_cast<Target*>(context);
  std::copy_n(bytes, count, place(target, address, count));
  target.written = true;
  return target.moved > (uint64_t{1} << 24) ? 1 : 0;
}

// Takes every item and reads what it points to.
void touch_items(kelvane_applier* applier, const uint8_t* patch) {
  kelvane_cursor cursor;
  kelvane_item item;
  uint32_t sum = 0;
  kelvane_cursor_start(&cursor, applier);
  while (kelvane_item_next(&cursor, &item) != 0) {
    if (item.kind == KELVANE_ITEM_STORE) {
      sum = kelvane_apply_checksum(sum, patch + item.value, item.count);
    }
  }
  if (cursor.code != KELVANE_APPLY_OK) {
    std::abort();
  }
}

void put_word(uint8_t* bytes, uint32_t word, bool big_endian) {
  for (uint32_t i = 0; i < 4; ++i) {
    bytes[i] = static_cast<uint8_t>(word >> (8 * (big_endian ? 3 - i : i)));
  }
}

// Makes the words that describe the patch itself, at `position`, fit it.
void make_fit(uint8_t* patch, uint32_t size, uint32_t position) {
  const uint32_t behind = position + 8;
  if (size < behind) {
    return;
  }
  const bool big_endian = patch[20] == 0;
  put_word(patch + position, size - 20, big_endian);
  put_word(patch + position + 4, kelvane_apply_checksum(0, patch + behind, size - behind),
           big_endian);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 65536) {
    return 0;
  }
  const auto patch_size = static_cast<uint32_t>(size - 1);
  const auto patch = std::make_unique<uint8_t[]>(patch_size);
  std::copy_n(data + 1, patch_size, patch.get());
  if ((data[0] & 12U) != 0) {
    make_fit(patch.get(), patch_size, (data[0] & 4U) != 0 ? 40 : 24);
  }
  const auto applier = std::make_unique<kelvane_applier>();
  if (kelvane_apply_open(applier.get(), patch.get(), patch_size, data[0] & 3U) !=
      KELVANE_APPLY_OK) {
    return 0;
  }
  touch_items(applier.get(), patch.get());
  Target target;
  const kelvane_region regions[] = {{kSectionAddress, kFileSize}, {0, kFileSize}};
  const kelvane_memory memory = {
      &target, read_target, write_target, regions, 2, KELVANE_SIZE_UNKNOWN, 0};
  const int checked = kelvane_apply_check(applier.get(), &memory);
  const int code = kelvane_apply_run(applier.get(), &memory, KELVANE_SKIP_OLD | KELVANE_SKIP_NEW);
  if (checked != KELVANE_APPLY_OK && (code != checked || target.written)) {
    std::abort();
  }
  kelvane_apply_verify_old(applier.get(), &memory);
  kelvane_apply_verify_new(applier.get(), &memory);
  return 0;
}
