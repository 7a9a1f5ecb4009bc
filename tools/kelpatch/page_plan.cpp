// SPDX-License-Identifier: Apache-2.0
#include "page_plan.h"

#include <algorithm>
#include <cinttypes>
#include <numeric>
#include <utility>

#include "flash_journal.h"

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

bool is_blank(const Bytes& file, uint64_t start, uint32_t page_size) {
  const Part part = part_of(file, start, page_size);
  return std::all_of(part.begin, part.end, [](uint8_t byte) { return byte == 0xFF; });
}

// Stretches as a plan has them: pages between them (behind the first one less), pages less 1.
void put_stretches(Bytes& bytes, const std::vector<PageRange>& stretches) {
  uint32_t next = 0;
  for (const PageRange& one : stretches) {
    put_number(bytes, one.first - next);
    put_number(bytes, one.pages - 1);
    next = one.first + one.pages + 1;
  }
}

std::vector<PageRange> runs_of(const std::vector<uint32_t>& pages) {
  std::vector<PageRange> runs;
  for (const uint32_t page : pages) {
    if (!runs.empty() && runs.back().first + runs.back().pages == page) {
      ++runs.back().pages;
    } else {
      runs.push_back({page, 1});
    }
  }
  return runs;
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
  for (size_t i = 0; i < plan.changed.size(); ++i) {
    const uint32_t page = plan.changed[i];
    if (i + plan.ring >= plan.changed.size() || last[page] < plan.changed[i + plan.ring]) {
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

void put_number(Bytes& bytes, uint32_t number) {
  for (; number > 127; number >>= 7U) {
    bytes.push_back(static_cast<uint8_t>(0x80U | (number & 127U)));
  }
  bytes.push_back(static_cast<uint8_t>(number));
}

bool PagePlan::has(uint32_t page) const {
  return ranges.empty() || std::any_of(ranges.begin(), ranges.end(), [page](const PageRange& one) {
           return page - one.first < one.pages;
         });
}

void PagePlan::raise_by(uint32_t count, const std::string& name) {
  if (count == 0) {
    return;
  }
  const uint64_t most = std::min<uint64_t>(kMostPages, kLargestFile / page_size);
  if (uint64_t{old_pages} + count > most) {
    fatal("'%s' would raise an image of %" PRIu32 " pages by %" PRIu32
          "; both together may be no more than %" PRIu64,
          name.c_str(), old_pages, count, most);
  }
  raise = count;
  pages = std::max(pages, old_pages + count);
  changed.resize(new_pages);
  std::iota(changed.begin(), changed.end(), 0U);
}

Bytes PagePlan::encoded() const {
  std::vector<uint32_t> all;
  for (uint32_t page = 0; page < new_pages; ++page) {
    if (has(page)) {
      all.push_back(page);
    }
  }
  const bool all_change = (new_pages != 0 || raise != 0) && changed == all;
  const std::vector<PageRange> runs = all_change ? std::vector<PageRange>{} : runs_of(changed);
  Bytes bytes;
  put_number(bytes, all_change ? 0 : static_cast<uint32_t>(runs.size()) + 1);
  put_stretches(bytes, runs);
  put_number(bytes, static_cast<uint32_t>(kept.size()));
  if (!kept.empty()) {
    put_number(bytes, slots);
  }
  uint32_t next = 0;
  for (const Kept& one : kept) {
    put_number(bytes, one.page - next);
    put_number(bytes, one.slot);
    next = one.page + 1;
  }
  put_number(bytes, static_cast<uint32_t>(ranges.size()));
  put_stretches(bytes, ranges);
  put_number(bytes, raise);
  while (!bytes.empty() && bytes.back() == 0) {
    bytes.pop_back();  // the reader makes them up
  }
  return bytes;
}

PagePlan plan_changes(const Bytes& old_file, const Bytes& new_file, uint32_t page_size,
                      std::vector<PageRange> ranges, const std::string& name) {
  PagePlan plan;
  const uint64_t size = std::max(old_file.size(), new_file.size());
  const uint64_t pages = (size + page_size - 1) / page_size;
  if (pages > kMostPages || pages * page_size > kLargestFile) {
    fatal("'%s' is for images of more than %" PRIu32 " pages", name.c_str(), kMostPages);
  }
  plan.page_size = page_size;
  plan.pages = static_cast<uint32_t>(pages);
  plan.old_pages = static_cast<uint32_t>((old_file.size() + page_size - 1) / page_size);
  plan.new_pages = static_cast<uint32_t>((new_file.size() + page_size - 1) / page_size);
  plan.ranges = std::move(ranges);
  for (uint32_t page = 0; page < plan.pages; ++page) {
    const uint64_t start = uint64_t{page} * page_size;
    if (!plan.has(page)) {
      if (!is_blank(old_file, start, page_size) || !is_blank(new_file, start, page_size)) {
        mismatch("'%s' has bytes at offset %" PRIu64 ", which lies in no range", name.c_str(),
                 start);
      }
    } else if (changes(old_file, new_file, start, page_size)) {
      plan.changed.push_back(page);
    }
  }
  return plan;
}

bool is_countable(const PagePlan& plan, uint32_t checkpoint) {
  const uint64_t changed = plan.changed.size();
  const uint64_t checkpoints = checkpoint == 0 || changed == 0 ? 0 : (changed - 1) / checkpoint;
  return plan.raised() + 2 * changed + checkpoints < KELVANE_JOURNAL_FINISHED;
}

void require_countable(const PagePlan& plan, uint32_t checkpoint, const std::string& name) {
  if (!is_countable(plan, checkpoint)) {
    fatal("'%s' changes %zu pages of %" PRIu32
          " bytes, more than a device counts; larger pages would do",
          name.c_str(), plan.raised() + plan.changed.size(), plan.page_size);
  }
}

PagePlan plan_pages(PatchFile& patch, const Bytes& old_file, const Bytes& new_file,
                    uint32_t page_size, uint32_t ring) {
  PagePlan plan = plan_changes(old_file, new_file, page_size, {}, patch.name());
  plan.ring = ring;
  const std::vector<uint32_t> origin = origins(patch, plan.pages * page_size);
  keep_pages(plan, last_readers(origin, plan.changed, plan.pages, page_size));
  return plan;
}

PagePlan plan_for(PatchFile& patch, const Bytes& old_file, const Bytes& new_file,
                  const SparePages& spare) {
  PagePlan plan = plan_pages(patch, old_file, new_file, spare.page_size, spare.ring);
  require_countable(plan, 0, patch.name());
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
