#include "kelvane.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "bd_checksum.h"
#include "byte_reader.h"
#include "command_lists.h"
#include "debug_print.h"
#include "diffshared.h"
#include "driver_reset.h"
#include "elf32.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indzip.h"
#include "motion.h"

namespace kelvane {

sym_addr* sym_addr_list1 = nullptr;
sym_addr* sym_addr_list2 = nullptr;

namespace {

constexpr char kNotCompared[] = "XXX.starttext";
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;
constexpr uint64_t kHalfOfTheAddresses = uint64_t{1} << 31U;

uint32_t address_of(const sym_addr& section) {
  return section.addr.low;
}

uint32_t count_of(const file_data* file) {
  return static_cast<uint32_t>(file->sections_end - file->sections);
}

void sort_by_address(sym_addr* list, uint32_t count) {
  std::stable_sort(list, list + count,
                   [](const sym_addr& a, const sym_addr& b) { return sym_addr_cmp(&a, &b) < 0; });
}

// The sections of the first image by name. Where a name stands twice the first in the list counts.
class SectionNames {
 public:
  SectionNames(const sym_addr* list, uint32_t count) {
    sections_.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      sections_.push_back(&list[i]);
    }
    std::stable_sort(sections_.begin(), sections_.end(), [](const sym_addr* a, const sym_addr* b) {
      return std::strcmp(a->name, b->name) < 0;
    });
  }

  const sym_addr* find(const char* name) const {
    const auto place = std::lower_bound(sections_.begin(), sections_.end(), name,
                                        [](const sym_addr* section, const char* text) {
                                          return std::strcmp(section->name, text) < 0;
                                        });
    return place != sections_.end() && std::strcmp((*place)->name, name) == 0 ? *place : nullptr;
  }

 private:
  std::vector<const sym_addr*> sections_;
};

// What a section holds: in the file image, or in a buffer of its own.
struct Contents {
  const uint8_t* bytes = nullptr;
  gen_ptr<uint8_t> buffer;
};

const uint8_t* stored_bytes(const sym_addr& section, uint32_t size, const file_data& file) {
  const uint64_t start = uint64_t{section.object_start} + section.offset.low;
  if (!fits(start, size, static_cast<uint32_t>(file.size))) {
    gen_errorexit(kStatusFailure, "section '%s' lies outside file '%s'", section.name, file.name);
  }
  return file.bytes + start;
}

Contents contents_of(const sym_addr& section, const file_data& file) {
  Contents contents;
  if (uint64_t{address_of(section)} + section.size > kAddressEnd) {
    gen_errorexit(kStatusFailure, "section '%s' in file '%s' runs past the end of the addresses",
                  section.name, file.name);
  }
  if (section.compressed_size != 0) {
    const uint8_t* const stored = stored_bytes(section, section.compressed_size, file);
    contents.buffer.reset(gen_alloc_array<uint8_t>(section.size));
    dprintf(1, "Uncompressing section '%s' from file '%s'", section.name, file.name);
    // Where it holds less than the section does, the rest stays zero.
    const Expanded expanded =
        expand_bounded(contents.buffer.get(), section.size, stored, section.compressed_size);
    if (expanded.end != ExpandEnd::kComplete) {
      gen_errorexit(kStatusFailure, "compressed section '%s' in file '%s' is damaged", section.name,
                    file.name);
    }
  } else if (section.type == elf32::SHT_NOBITS) {
    if (section.size != 0 && std::strstr(section.name, "bss") == nullptr) {
      gen_warning("SHT_NOBITS for possibly non-BSS section '%s' in file '%s'", section.name,
                  file.name);
    }
    contents.buffer.reset(gen_alloc_array<uint8_t>(section.size));
  } else {
    contents.bytes = stored_bytes(section, section.size, file);
    return contents;
  }
  contents.bytes = contents.buffer.get();
  return contents;
}

// Gives the contents that motion may change: never the file image, which other sections may share.
uint8_t* own_copy(Contents* contents, uint32_t size) {
  if (contents->buffer == nullptr && size != 0) {
    contents->buffer.reset(gen_alloc_array<uint8_t>(size));
    std::memcpy(contents->buffer.get(), contents->bytes, size);
    contents->bytes = contents->buffer.get();
  }
  return contents->buffer.get();
}

// A section of the new image with its partner. Partners further apart than half of the addresses
// have a shift that no signed number holds.
struct Pair {
  const sym_addr* old_section;
  const sym_addr* new_section;
  uint32_t address1;
  uint32_t size1;
  uint32_t address2;
  uint32_t size2;
};

bool moves_too_far(const Pair& pair) {
  const uint32_t distance =
      pair.address1 < pair.address2 ? pair.address2 - pair.address1 : pair.address1 - pair.address2;
  return distance != 0 &&
         uint64_t{distance} + std::max(pair.size1, pair.size2) >= kHalfOfTheAddresses;
}

void add_gap_moves(uint32_t index, const Pair& pair, uint32_t end1, uint32_t end2) {
  const uint32_t gap1 = pair.address1 - end1;
  const uint32_t gap2 = pair.address2 - end2;
  const auto distance = static_cast<int32_t>(pair.address2 - pair.address1);
  if (index != 0) {
    // A gap that the new image has not is taken out by one move. Else a section is placed afresh.
    if (gap2 == 0 && gap1 != 0 && gap1 < kHalfOfTheAddresses) {
      add_move(pair.address1, static_cast<int32_t>(gap2 - gap1));
      return;
    }
    add_move(pair.address1, 0);
  }
  if (distance != 0) {
    add_move(pair.address1, distance);
  }
}

std::vector<address_range> compared_sections(const sym_addr* list2, uint32_t count2,
                                             const SectionNames& names) {
  std::vector<address_range> ranges;
  for (uint32_t k = 0; k < count2; ++k) {
    const sym_addr* const section = names.find(list2[k].name);
    if (section != nullptr && section->size != 0 && std::strcmp(section->name, kNotCompared) != 0) {
      ranges.push_back({address_of(*section), section->size});
    }
  }
  return ranges;
}

}  // namespace

void diff_mem(const file_data* first, const file_data* second, uint16_t blocksize, int32_t max_scan,
              int32_t deconstruct) {
  sym_addr_list1 = first->sections;
  sym_addr_list2 = second->sections;
  const uint32_t count1 = count_of(first);
  const uint32_t count2 = count_of(second);
  sort_by_address(sym_addr_list1, count1);
  sort_by_address(sym_addr_list2, count2);
  check_overlap(sym_addr_list1, count1, first->name);
  check_overlap(sym_addr_list2, count2, second->name);
  const SectionNames names(sym_addr_list1, count1);
  const bool has_motion = swap_enabled != 0 || swap_block_enabled != 0;
  if (has_motion) {
    begin_motion(compared_sections(sym_addr_list2, count2, names));
  }
  uint32_t end1 = 0;
  uint32_t end2 = 0;
  for (uint32_t k = 0; k < count2; ++k) {
    const sym_addr& section = sym_addr_list2[k];
    const sym_addr* const partner = names.find(section.name);
    if (partner == nullptr) {
      gen_errorexit(kStatusFailure, "could not find section '%s' in first file", section.name);
    }
    Contents old_contents = contents_of(*partner, *first);
    Contents new_contents = contents_of(section, *second);
    if (std::strcmp(section.name, kNotCompared) == 0) {
      continue;
    }
    dprintf(1, "Adding patch for section '%s'", section.name);
    const Pair pair = {
        partner, &section, address_of(*partner), partner->size, address_of(section), section.size};
    if (pair.address1 < end1 || pair.address2 < end2) {
      gen_errorexit(kStatusFailure, "internal error: sections must be in ascending order");
    }
    if (moves_too_far(pair)) {
      gen_errorexit(kStatusFailure, "section '%s' moves too far", section.name);
    }
    do_add_checksum(old_contents.bytes, pair.address1, pair.size1, new_contents.bytes,
                    pair.address2, pair.size2);
    if (has_motion) {
      uint8_t* const movable = own_copy(&old_contents, pair.size1);
      do_sym_diff(movable, pair.address1, pair.size1, new_contents.bytes, pair.address2, pair.size2,
                  deconstruct);
    }
    add_gap_moves(k, pair, end1, end2);
    if (new_contents.buffer != nullptr) {
      keep_bytes(std::move(new_contents.buffer));
    }
    do_diff(old_contents.bytes, pair.address1, pair.size1, new_contents.bytes, pair.address2,
            pair.size2, blocksize, max_scan, 0);
    end1 = pair.address1 + pair.size1;
    end2 = pair.address2 + pair.size2;
  }
}

int32_t sym_addr_cmp(const void* a, const void* b) {
  const auto& one = *static_cast<const sym_addr*>(a);
  const auto& other = *static_cast<const sym_addr*>(b);
  const int32_t order = gadr_cmp(&one.addr, &other.addr);
  if (order != 0 || one.size == other.size) {
    return order;
  }
  return one.size < other.size ? -1 : 1;
}

void check_overlap(const sym_addr* list, uint32_t count, const char* file_name) {
  struct Range {
    int32_t start;
    int32_t end;
    bool meets(const Range& other) const { return start < other.end && other.start < end; }
  };
  std::vector<Range> ranges;
  ranges.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t start = address_of(list[i]);
    ranges.push_back({static_cast<int32_t>(start), static_cast<int32_t>(start + list[i].size)});
  }
  // In signed order a range that starts below the greatest end so far meets one in front of it; an
  // empty one stands in front of those that start with it. Ranges that end below their start have
  // no such order, and then, too, every pair is looked at.
  std::vector<Range> ordered = ranges;
  std::sort(ordered.begin(), ordered.end(), [](const Range& a, const Range& b) {
    return a.start != b.start ? a.start < b.start : a.end < b.end;
  });
  bool is_clear = true;
  int32_t reached = INT32_MIN;
  for (const Range& range : ordered) {
    is_clear = is_clear && range.start <= range.end && range.start >= reached;
    reached = std::max(reached, range.end);
  }
  for (uint32_t i = 0; i < count && !is_clear; ++i) {
    for (uint32_t j = i + 1; j < count; ++j) {
      if (ranges[i].meets(ranges[j])) {
        gen_errorexit(kStatusFailure, "%s: section '%s' overlaps section '%s'", file_name,
                      list[j].name, list[i].name);
      }
    }
  }
}

void do_add_checksum(const uint8_t* buffer1, uint32_t address1, uint32_t size1,
                     const uint8_t* buffer2, uint32_t address2, uint32_t size2) {
  if (size1 != 0) {
    bd_checksum(buffer1, size1, &checksum1);
    dprintf(2, " incremental checksum1: %#x", checksum1);
    add_checksum(&first_checksum1, &last_checksum1, address1, size1);
  }
  if (size2 != 0) {
    bd_checksum(buffer2, size2, &checksum2);
    dprintf(2, " incremental checksum2: %#x", checksum2);
    add_checksum(&first_checksum2, &last_checksum2, address2, size2);
  }
}

void reset_kelvane() {
  sym_addr_list1 = nullptr;
  sym_addr_list2 = nullptr;
}

}  // namespace kelvane
