#pragma once

// Memory mode: what the planner is handed for two images of target memory, in place of two files.
//
//   laid_out_memory memory(pairs, spare);
//   memory.target.header = ...;            // of the patch
//   request.images = memory.images();
//
// Everything else goes the way of a file. The places of a plan are those of the row (linear_map.h);
// only the commands of the patch and the prices of increments know addresses.

#include <cstdint>
#include <span>
#include <vector>

#include "linear_map.h"
#include "patch_writer.h"
#include "plan.h"

namespace kelvane {

// A section as it is in memory.
struct memory_section {
  uint32_t address = 0;
  std::span<const uint8_t> bytes;
  bool is_zero = false;  // all of them are, as in a section that has none in its file
};

// A section of both images. Both lie anywhere; sections of one image don't overlap.
struct memory_section_pair {
  memory_section old_section;
  memory_section new_section;
};

struct memory_target {
  linear_map map;
  // Zeros that both images have at the same addresses and that no move needs as a hole. They have
  // no place in the row, and are as large as they like.
  std::vector<memory_range> still_zeros;
  // In format 0 of the files, in format 1 the addresses of the start-up code.
  patch_header header;
  // What format 1 frames the commands with: the sections that are not empty, in the order of the
  // pairs, and the checksums over all of them.
  std::vector<checksum_region> old_regions;
  std::vector<checksum_region> new_regions;
  uint32_t old_checksum = 0;
  uint32_t new_checksum = 0;
};

// Both images as rows. Not to be moved while a plan of them is in use.
struct laid_out_memory {
  memory_target target;
  std::vector<uint8_t> old_image;
  std::vector<uint8_t> new_image;

  // `spare`: memory that the patch may use as it likes; of a large one the beginning is enough. The
  // sections are copied. Throws std::bad_alloc if the row doesn't fit into memory; its size is
  // at most kLargestImage, else use row_size to find out.
  laid_out_memory(std::span<const memory_section_pair> pairs, memory_range spare);
  // The bytes of such a row.
  static uint64_t row_size(std::span<const memory_section_pair> pairs, memory_range spare);

  plan_images images() const { return {old_image, new_image, &target}; }
};

// Null in file mode.
inline const linear_map* map_of(const plan_images& images) {
  return images.memory != nullptr ? &images.memory->map : nullptr;
}

// Whether the old (new) image has all `count` bytes (1 to 63) at a place that lies inside it.
inline bool has_old(const plan_images& images, int64_t place, uint32_t count) {
  return images.memory == nullptr || images.memory->map.old_bytes().has(place, count);
}
inline bool has_new(const plan_images& images, int64_t place, uint32_t count) {
  return images.memory == nullptr || images.memory->map.new_bytes().has(place, count);
}

// Calls take(begin, end) for the parts that the new image has between two places of it, ascending.
template <typename Take>
void each_new_part(const plan_images& images, int64_t begin, int64_t end, const Take& take) {
  if (images.memory != nullptr) {
    images.memory->map.new_bytes().each_part(begin, end, take);
  } else if (begin < end) {
    take(begin, end);
  }
}

// The address of a place.
inline uint32_t target_address(const plan_images& images, uint32_t place) {
  return images.memory != nullptr ? images.memory->map.address_of(place) : place;
}

}  // namespace kelvane
