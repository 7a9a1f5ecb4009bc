#include "plan.h"

#include <algorithm>
#include <cstring>

#include "memory_target.h"

namespace kelvane {

plan_rules rules_for(patch_profile profile, uint8_t format) {
  plan_rules rules;
  rules.format = format;
  const bool free = profile == patch_profile::libapply;
  rules.compression = format == 1 || free;
  rules.short_stores = free;
  rules.outer_holes = free;
  if (profile == patch_profile::any) {
    rules.class_limit = 20;
  }
  return rules;
}

moved_image carry_out_moves(const plan_images& images, std::span<const moved_block> moves) {
  const size_t old_size = images.old_image.size();
  const size_t new_size = images.new_image.size();
  const size_t room = std::max(old_size, new_size);
  moved_image moved;
  moved.bytes.resize(room);
  std::copy(images.old_image.begin(), images.old_image.end(), moved.bytes.begin());
  const linear_map* const map = map_of(images);
  const size_t first_unknown = map != nullptr ? 0 : old_size;
  moved.unknown_begin = static_cast<uint32_t>(first_unknown);
  moved.unknown.assign(room - first_unknown, 1);
  if (map != nullptr) {
    for (const row_bytes::run& run : map->old_bytes().runs()) {
      std::fill_n(moved.unknown.begin() + run.begin, run.end - run.begin, uint8_t{0});
    }
  }
  for (const moved_block& block : moves) {
    std::memmove(&moved.bytes[block.destination], &moved.bytes[block.source], block.length);
    const size_t end = size_t{block.destination} + block.length;
    if (end > first_unknown) {
      const size_t begin = std::max<size_t>(block.destination, first_unknown);
      std::fill(moved.unknown.begin() + static_cast<ptrdiff_t>(begin - first_unknown),
                moved.unknown.begin() + static_cast<ptrdiff_t>(end - first_unknown), uint8_t{0});
    }
  }
  for (size_t at = first_unknown; at < new_size; ++at) {
    if (!has_new(images, static_cast<int64_t>(at), 1)) {
      moved.bytes[at] = images.new_image[at];
    } else if (moved.unknown[at - first_unknown] != 0) {
      moved.bytes[at] = static_cast<uint8_t>(~images.new_image[at]);
    }
  }
  moved.bytes.resize(new_size);
  return moved;
}

}  // namespace kelvane
