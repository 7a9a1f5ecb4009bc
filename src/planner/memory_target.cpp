#include "memory_target.h"

#include <algorithm>

#include "bd_checksum.h"

namespace kelvane {
namespace {

struct memory_ranges {
  std::vector<memory_range> of_old;
  std::vector<memory_range> of_new;
  std::vector<memory_range> spare;
};

memory_range range_of(const memory_section& section) {
  return {section.address, static_cast<uint32_t>(section.bytes.size())};
}

memory_ranges ranges_of(std::span<const memory_section_pair> pairs, memory_range spare) {
  memory_ranges ranges;
  uint64_t old_bytes = 0;
  for (const memory_section_pair& pair : pairs) {
    ranges.of_old.push_back(range_of(pair.old_section));
    ranges.of_new.push_back(range_of(pair.new_section));
    old_bytes += pair.old_section.bytes.size();
  }
  // No more is ever parked than there is.
  spare.size = static_cast<uint32_t>(std::min<uint64_t>(spare.size, old_bytes));
  ranges.spare.push_back(spare);
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
  if (!section.bytes.empty()) {
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
  const memory_ranges ranges = ranges_of(pairs, spare);
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
