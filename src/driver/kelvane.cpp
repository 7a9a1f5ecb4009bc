#include "kelvane.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "bd_checksum.h"
#include "command_lists.h"
#include "debug_print.h"
#include "diffshared.h"
#include "driver_reset.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "motion.h"
#include "section_pairs.h"

namespace kelvane {

sym_addr* sym_addr_list1 = nullptr;
sym_addr* sym_addr_list2 = nullptr;

namespace {

// Gives the contents that motion may change: never the file image, which other sections may share.
uint8_t* own_copy(section_contents* contents, uint32_t size) {
  if (contents->buffer == nullptr && size != 0) {
    contents->buffer.reset(gen_alloc_array<uint8_t>(size));
    std::memcpy(contents->buffer.get(), contents->bytes, size);
    contents->bytes = contents->buffer.get();
  }
  return contents->buffer.get();
}

void add_gap_moves(uint32_t index, const section_pair& pair, uint32_t end1, uint32_t end2) {
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

}  // namespace

void diff_mem(const file_data* first, const file_data* second, uint16_t blocksize, int32_t max_scan,
              int32_t deconstruct) {
  sym_addr_list1 = first->sections;
  sym_addr_list2 = second->sections;
  const section_pairing pairing(first, second);
  const bool has_motion = swap_enabled != 0 || swap_block_enabled != 0;
  if (has_motion) {
    begin_motion(pairing.compared());
  }
  uint32_t end1 = 0;
  uint32_t end2 = 0;
  for (uint32_t k = 0; k < pairing.count(); ++k) {
    std::optional<section_pair> pair = pairing.pair_at(k);
    if (!pair) {
      continue;
    }
    dprintf(1, "Adding patch for section '%s'", pair->name);
    if (pair->address1 < end1 || pair->address2 < end2) {
      gen_errorexit(kStatusFailure, "internal error: sections must be in ascending order");
    }
    refuse_far_pair(*pair);
    do_add_checksum(pair->contents1.bytes, pair->address1, pair->size1, pair->contents2.bytes,
                    pair->address2, pair->size2);
    if (has_motion) {
      uint8_t* const movable = own_copy(&pair->contents1, pair->size1);
      do_sym_diff(movable, pair->address1, pair->size1, pair->contents2.bytes, pair->address2,
                  pair->size2, deconstruct);
    }
    add_gap_moves(k, *pair, end1, end2);
    if (pair->contents2.buffer != nullptr) {
      keep_bytes(std::move(pair->contents2.buffer));
    }
    do_diff(pair->contents1.bytes, pair->address1, pair->size1, pair->contents2.bytes,
            pair->address2, pair->size2, blocksize, max_scan, 0);
    end1 = pair->address1 + pair->size1;
    end2 = pair->address2 + pair->size2;
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
