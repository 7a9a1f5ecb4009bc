// SPDX-License-Identifier: Apache-2.0
#include "page_plan.h"

#include <algorithm>
#include <cinttypes>
#include <numeric>

namespace kelpatch {
namespace {

constexpr uint32_t kMostPages = 65535;

// Where each byte of the pages lay ahead of the moves.
std::vector<uint32_t> origins(PatchFile& patch, uint32_t bytes) {
  std::vector<uint32_t> origin(bytes);
  std::iota(origin.begin(), origin.end(), 0U);
  bool behind = false;
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, patch.applier());
  while (kelvane_item_next(&cursor, &item) != 0) {
    if (item.kind == KELVANE_ITEM_COMMAND) {
      if (item.command == KELVANE_CM_MOVE && behind) {
        fatal("'%s' moves behind another command (at offset %" PRIu32
              "), which a device can't carry out by pages",
              patch.name().c_str(), patch.applier()->error_position);
      }
      behind = behind || item.command != KELVANE_CM_MOVE;
    } else if (item.kind == KELVANE_ITEM_MOVE) {
      const auto source = origin.begin() + item.address;
      const auto target = origin.begin() + (item.address + item.value);
      if (target < source) {
        std::copy(source, source + item.size, target);
      } else {
        std::copy_backward(source, source + item.size, target + item.size);
      }
    }
  }
  return origin;
}

// Up to `size` bytes from `start` on.
struct Part {
  Bytes::const_iterator begin;
  Bytes::const_iterator end;
};

Part part_of(const Bytes& bytes, uint64_t start, uint64_t size) {
  const uint64_t begin = std::min<uint64_t>(start, bytes.size());
  const uint64_t end = std::min<uint64_t>(start + size, bytes.size());
  return {bytes.begin() + static_cast<ptrdiff_t>(begin),
          bytes.begin() + static_cast<ptrdiff_t>(end)};
}

// Whether the new bytes of a page are others than the old ones there.
bool changes(const Bytes& old_file, const Bytes& new_file, uint64_t start, uint32_t page_size) {
  const Part after = part_of(new_file, start, page_size);
  const Part before = part_of(old_file, start, static_cast<uint64_t>(after.end - after.begin));
  return !std::equal(after.begin, after.end, before.begin, before.end);
}

void put_half(Bytes& bytes, size_t value) {
  bytes.push_back(static_cast<uint8_t>(value & 0xFFU));
  bytes.push_back(static_cast<uint8_t>(value >> 8U));
}

// The last changed page that reads each page, as long as that page itself is written ahead of it.
std::vector<uint32_t> last_readers(const std::vector<uint32_t>& origin,
                                   const std::vector<uint32_t>& changed, uint32_t pages,
                                   uint32_t page_size) {
  std::vector<bool> is_changed(pages);
  for (const uint32_t page : changed) {
    is_changed[page] = true;
  }
  std::vector<uint32_t> last(pages);
  for (const uint32_t page : changed) {
    const size_t start = size_t{page} * page_size;
    for (size_t at = start; at < start + page_size; ++at) {
      const uint32_t read = origin[at] / page_size;
      if (read < page && is_changed[read]) {
        last[read] = std::max(last[read], page);
      }
    }
  }
  return last;
}

// Gives each page that is needed beyond the ring the first slot that is free.
void keep_pages(PagePlan& plan, const std::vector<uint32_t>& last) {
  std::vector<uint32_t> taken_up_to;  // the last page that needs what is in the slot
  for (const uint32_t page : plan.changed) {
    if (last[page] < page + plan.ring) {
      continue;
    }
    size_t slot = 0;
    while (slot < taken_up_to.size() && taken_up_to[slot] >= page) {
      ++slot;
    }
    if (slot == taken_up_to.size()) {
      taken_up_to.push_back(0);
    }
    taken_up_to[slot] = last[page];
    plan.kept.push_back({page, static_cast<uint32_t>(slot)});
  }
  plan.slots = static_cast<uint32_t>(taken_up_to.size());
}

}  // namespace

Bytes PagePlan::encoded() const {
  std::vector<std::pair<uint32_t, uint32_t>> runs;
  for (const uint32_t page : changed) {
    if (!runs.empty() && runs.back().first + runs.back().second == page) {
      ++runs.back().second;
    } else {
      runs.emplace_back(page, 1);
    }
  }
  Bytes bytes;
  put_half(bytes, runs.size());
  for (const auto& [first, count] : runs) {
    put_half(bytes, first);
    put_half(bytes, count);
  }
  put_half(bytes, kept.size());
  for (const Kept& one : kept) {
    put_half(bytes, one.page);
    put_half(bytes, one.slot);
  }
  return bytes;
}

PagePlan plan_pages(PatchFile& patch, const Bytes& old_file, const Bytes& new_file,
                    uint32_t page_size, uint32_t ring) {
  PagePlan plan;
  const uint64_t size = std::max(old_file.size(), new_file.size());
  const uint64_t pages = (size + page_size - 1) / page_size;
  if (pages > kMostPages || pages * page_size > kLargestFile) {
    fatal("'%s' is for images of more than %" PRIu32 " pages", patch.name().c_str(), kMostPages);
  }
  plan.page_size = page_size;
  plan.pages = static_cast<uint32_t>(pages);
  plan.ring = ring;
  for (uint32_t page = 0; page < plan.pages; ++page) {
    if (changes(old_file, new_file, uint64_t{page} * page_size, page_size)) {
      plan.changed.push_back(page);
    }
  }
  const std::vector<uint32_t> origin = origins(patch, plan.pages * page_size);
  keep_pages(plan, last_readers(origin, plan.changed, plan.pages, page_size));
  return plan;
}

PagePlan plan_for(PatchFile& patch, const Bytes& old_file, const Bytes& new_file,
                  const SparePages& spare) {
  PagePlan plan = plan_pages(patch, old_file, new_file, spare.page_size, spare.ring);
  if (plan.spare() <= spare.spare) {
    return plan;
  }
  // A longer ring may need fewer slots.
  PagePlan best = plan;
  for (uint32_t ring = 1; ring < best.spare(); ring *= 2) {
    const PagePlan other = plan_pages(patch, old_file, new_file, spare.page_size, ring);
    if (other.spare() < best.spare()) {
      best = other;
    }
  }
  mismatch("'%s' needs %" PRIu32 " spare pages with a ring of %" PRIu32 ", not %" PRIu32
           "; --ring %" PRIu32 " --spare %" PRIu32 " would do",
           patch.name().c_str(), plan.spare(), plan.ring, spare.spare, best.ring, best.spare());
}

}  // namespace kelpatch
