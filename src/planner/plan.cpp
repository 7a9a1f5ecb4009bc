#include "plan.h"

#include <algorithm>
#include <cstring>

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
  moved.unknown_begin = static_cast<uint32_t>(old_size);
  moved.unknown.assign(room - old_size, 1);
  for (const moved_block& block : moves) {
    std::memmove(&moved.bytes[block.destination], &moved.bytes[block.source], block.length);
    const size_t end = size_t{block.destination} + block.length;
    if (end > old_size) {
      const size_t begin = std::max<size_t>(block.destination, old_size);
      std::fill(moved.unknown.begin() + static_cast<ptrdiff_t>(begin - old_size),
                moved.unknown.begin() + static_cast<ptrdiff_t>(end - old_size), uint8_t{0});
    }
  }
  for (size_t at = old_size; at < new_size; ++at) {
    if (moved.unknown[at - old_size] != 0) {
      moved.bytes[at] = static_cast<uint8_t>(~images.new_image[at]);
    }
  }
  moved.bytes.resize(new_size);
  return moved;
}

}  // namespace kelvane
