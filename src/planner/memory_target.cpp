#include "memory_target.h"

#include <algorithm>

#include "bd_checksum.h"

namespace kelvane {
namespace {

struct memory_ranges {
  std::vector<memory_range> of_old;
  std::vector<memory_range> of_new;
  std::vector<memory_range> spare;
  std::vector<memory_range> still_zeros;
};

memory_range range_of(const memory_section& section) {
  return {section.address, static_cast<uint32_t>(section.bytes.size())};
}

uint64_t end_of(const memory_range& range) {
  return uint64_t{range.address} + range.size;
}

// What both sections of a pair have of zeros at the same addresses, in whole words, but for `kept`
// bytes on either side of it: holes, and zeros to be moved from. Nothing if spare memory lies
// there, which doesn't stay as it is.
memory_range still_zeros_of(const memory_section_pair& pair, uint64_t kept,
                            const memory_range& spare) {
  if (!pair.old_section.is_zero || !pair.new_section.is_zero) {
    return {};
  }
  const memory_range old_range = range_of(pair.old_section);
  const memory_range new_range = range_of(pair.new_section);
  const uint64_t begin = (std::max(old_range.address, new_range.address) + kept + 3) & ~uint64_t{3};
  const uint64_t whole_end = std::min(end_of(old_range), end_of(new_range));
  const uint64_t end = (whole_end - std::min(kept, whole_end)) & ~uint64_t{3};
  if (begin >= end || (spare.size != 0 && spare.address < end && begin < end_of(spare))) {
    return {};
  }
  return {static_cast<uint32_t>(begin), static_cast<uint32_t>(end - begin)};
}

// Adds what a section has outside of `still`, which lies inside it if it has a size.
void add_outside(const memory_section& section, const memory_range& still,
                 std::vector<memory_range>& ranges) {
  const memory_range whole = range_of(section);
  if (still.size == 0) {
    ranges.push_back(whole);
    return;
  }
  ranges.push_back({whole.address, still.address - whole.address});
  ranges.push_back(
      {static_cast<uint32_t>(end_of(still)), static_cast<uint32_t>(end_of(whole) - end_of(still))});
}

memory_ranges ranges_of(std::span<const memory_section_pair> pairs, memory_range spare) {
  memory_ranges ranges;
  uint64_t old_bytes = 0;
  for (const memory_section_pair& pair : pairs) {
    old_bytes += pair.old_section.is_zero ? 0 : pair.old_section.bytes.size();
  }
  // No more is ever parked than there is.
  spare.size = static_cast<uint32_t>(std::min<uint64_t>(spare.size, old_bytes));
  ranges.spare.push_back(spare);
  for (const memory_section_pair& pair : pairs) {
    const memory_range still = still_zeros_of(pair, old_bytes, spare);
    add_outside(pair.old_section, still, ranges.of_old);
    add_outside(pair.new_section, still, ranges.of_new);
    if (still.size != 0) {
      ranges.still_zeros.push_back(still);
    }
  }
  return ranges;
}

void add_region(const memory_section& section, std::vector<checksum_region>& regions,
                uint32_t& checksum) {
  if (section.bytes.empty()) {
    return;
  }
  const memory_range range = range_of(section);
  regions.push_back({range.address, range.size});
  bd_checksum(section.bytes.data(), range.size, &checksum);
}

void put(const linear_map& map, const memory_section& section, std::vector<uint8_t>& image) {
  if (!section.bytes.empty() && !section.is_zero) {
    std::copy(section.bytes.begin(), section.bytes.end(),
              image.begin() + map.place_of(section.address));
  }
}

}  // namespace

uint64_t laid_out_memory::row_size(std::span<const memory_section_pair> pairs, memory_range spare) {
  const memory_ranges ranges = ranges_of(pairs, spare);
  return linear_map::row_size(ranges.of_old, ranges.of_new, ranges.spare);
}

laid_out_memory::laid_out_memory(std::span<const memory_section_pair> pairs, memory_range spare) {
  memory_ranges ranges = ranges_of(pairs, spare);
  target.still_zeros = std::move(ranges.still_zeros);
  target.map = linear_map(ranges.of_old, ranges.of_new, ranges.spare);
  old_image.resize(target.map.size());
  new_image.resize(target.map.size());
  for (const memory_section_pair& pair : pairs) {
    put(target.map, pair.old_section, old_image);
    put(target.map, pair.new_section, new_image);
    add_region(pair.old_section, target.old_regions, target.old_checksum);
    add_region(pair.new_section, target.new_regions, target.new_checksum);
  }
}

}  // namespace kelvane
