#include "memory_proof.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>

#include "applier.h"
#include "memory_target.h"
#include "patch_writer.h"

namespace kelvane {
namespace {

// A byte that no section has. Memory of the new image alone begins as the opposite of what it is to
// become, so that a byte which the patch forgets is never right by chance.
constexpr uint8_t kGuard = 0xA5;

// The target's memory, laid out as the row.
class proof_memory {
 public:
  explicit proof_memory(const plan_images& images)
      : images_(images), bytes_(images.new_image.size(), kGuard) {
    each(images.memory->map.new_bytes(),
         [&](size_t place) { bytes_[place] = static_cast<uint8_t>(~images.new_image[place]); });
    each(images.memory->map.old_bytes(),
         [&](size_t place) { bytes_[place] = images.old_image[place]; });
  }

  static int read(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    const auto& memory = *static_cast<const proof_memory*>(context);
    while (count > 0) {
      const uint32_t known = std::min(count, memory.images_.memory->map.bytes_from(address));
      const uint32_t part = known > 0 ? known : std::min(count, memory.zeros_from(address));
      if (part == 0) {
        return 1;
      }
      if (known > 0) {
        std::copy_n(memory.bytes_.begin() + memory.place_of(address), part, bytes);
      } else {
        std::fill_n(bytes, part, uint8_t{0});
      }
      address += part;
      bytes += part;
      count -= part;
    }
    return 0;
  }
  static int write(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
    auto& memory = *static_cast<proof_memory*>(context);
    while (count > 0) {
      const uint32_t part = std::min(count, memory.images_.memory->map.bytes_from(address));
      if (part == 0) {
        return 1;
      }
      std::copy_n(bytes, part, memory.bytes_.begin() + memory.place_of(address));
      address += part;
      bytes += part;
      count -= part;
    }
    return 0;
  }

  std::string fault() const {
    std::string fault;
    size_t checked = 0;
    const auto check_guards = [&](size_t end) {
      for (; checked < end && fault.empty(); ++checked) {
        fault = bytes_[checked] != kGuard ? "it writes outside the sections" : "";
      }
    };
    for (const memory_range& range : images_.memory->map.memory()) {
      check_guards(place_of(range.address));
      checked = size_t{place_of(range.address)} + range.size;
    }
    check_guards(bytes_.size());
    each(images_.memory->map.new_bytes(), [&](size_t place) {
      if (fault.empty() && bytes_[place] != images_.new_image[place]) {
        std::array<char, 11> address = {};
        std::snprintf(address.data(), address.size(), "0x%08" PRIx32,
                      target_address(images_, static_cast<uint32_t>(place)));
        fault = std::string("its result differs from the new image at address ") + address.data();
      }
    });
    return fault;
  }

 private:
  uint32_t zeros_from(uint32_t address) const {
    for (const memory_range& range : images_.memory->still_zeros) {
      if (address >= range.address && address - range.address < range.size) {
        return range.size - (address - range.address);
      }
    }
    return 0;
  }
  uint32_t place_of(uint32_t address) const { return images_.memory->map.place_of(address); }
  static void each(const row_bytes& bytes, const auto& take) {
    for (const row_bytes::run& run : bytes.runs()) {
      for (size_t place = run.begin; place < run.end; ++place) {
        take(place);
      }
    }
  }

  const plan_images& images_;
  std::vector<uint8_t> bytes_;
};

}  // namespace

std::string fault_of_memory_patch(const plan_images& images, const std::vector<uint8_t>& patch,
                                  ByteOrder order) {
  kelvane_applier applier = {};
  const uint32_t flags =
      (order == ByteOrder::kBig ? KELVANE_V0_BIG_ENDIAN : KELVANE_V0_LITTLE_ENDIAN) |
      KELVANE_V0_MEMORY_MODE;
  int code = kelvane_apply_open(&applier, patch.data(), static_cast<uint32_t>(patch.size()), flags);
  proof_memory memory(images);
  if (code == KELVANE_APPLY_OK) {
    // All addresses: the memory itself refuses those of no section, and finds out faster.
    const std::array<kelvane_region, 2> regions = {{{0, UINT32_MAX}, {UINT32_MAX, 1}}};
    const kelvane_memory target = {&memory,
                                   proof_memory::read,
                                   proof_memory::write,
                                   regions.data(),
                                   regions.size(),
                                   KELVANE_SIZE_UNKNOWN,
                                   0};
    code = kelvane_apply_run(&applier, &target, 0);
  }
  kelvane_patch_info info = {};
  if (code == KELVANE_APPLY_OK) {
    code = kelvane_apply_info(&applier, &info);
  }
  if (code != KELVANE_APPLY_OK) {
    return std::string(kelvane_apply_text(code)) + ", at offset " +
           std::to_string(applier.error_position);
  }
  if (info.memory_mode == 0 || (info.big_endian != 0) != (order == ByteOrder::kBig)) {
    return "it is not for this memory";
  }
  return memory.fault();
}

}  // namespace kelvane
