// SPDX-License-Identifier: Apache-2.0
#include "dense_reach.h"

#include <algorithm>
#include <numeric>

namespace kelvane {
namespace {

constexpr uint32_t kLeastGain = 64;  // bytes that a kept page has to serve

// Calls take(old page, new page, bytes) for a range of old bytes that go to `at`, in pieces that
// cross no page on either side.
template <typename Take>
void for_pages(uint32_t page_size, uint32_t place, uint32_t at, uint32_t length, const Take& take) {
  while (length != 0) {
    const uint32_t piece =
        std::min({length, page_size - place % page_size, page_size - at % page_size});
    take(place / page_size, at / page_size, piece);
    place += piece;
    at += piece;
    length -= piece;
  }
}

}  // namespace

old_reach::old_reach(const flash_geometry& geometry, uint32_t old_size, uint32_t new_size)
    : geometry_(geometry), old_size_(old_size), new_size_(new_size) {}

uint32_t old_reach::readable(int64_t place, uint32_t at, uint32_t length) const {
  if (place < 0 || place >= old_size_) {
    return 0;
  }
  const auto first = static_cast<uint32_t>(place);
  length = std::min(length, old_size_ - first);
  if (geometry_.ring_pages == 0) {
    return length;
  }
  uint32_t fits = 0;
  bool is_cut = false;
  for_pages(geometry_.page_size, first, at, length,
            [&](uint32_t page, uint32_t for_page, uint32_t piece) {
              is_cut = is_cut || !page_is_readable(page, for_page);
              fits += is_cut ? 0 : piece;
            });
  return fits;
}

void old_reach::choose_kept(std::span<const shift_stretch> stretches) {
  const uint32_t page_size = geometry_.page_size;
  const uint32_t old_pages = old_size_ / page_size + 1;
  const uint32_t new_pages = new_size_ / page_size + 1;
  last_use_.assign(old_pages, 0);
  if (geometry_.ring_pages == 0 || geometry_.slots == 0) {
    return;
  }
  std::vector<uint32_t> gain(old_pages, 0);
  std::vector<uint32_t> last(old_pages, 0);
  for (const dense_copy& copy : readable_copies_anywhere(stretches)) {
    for_pages(page_size, copy.source, copy.target, copy.length,
              [&](uint32_t page, uint32_t for_page, uint32_t piece) {
                if (!page_is_readable(page, for_page)) {
                  gain[page] += piece;
                  last[page] = std::max(last[page], for_page);
                }
              });
  }
  std::vector<uint32_t> by_gain(old_pages);
  std::iota(by_gain.begin(), by_gain.end(), 0);
  std::stable_sort(by_gain.begin(), by_gain.end(),
                   [&](uint32_t first, uint32_t second) { return gain[first] > gain[second]; });
  std::vector<uint32_t> used(new_pages, 0);
  for (const uint32_t page : by_gain) {
    if (gain[page] < kLeastGain) {
      break;
    }
    const auto begin = used.begin() + page;
    const auto end = used.begin() + last[page] + 1;
    if (std::any_of(begin, end, [&](uint32_t slots) { return slots >= geometry_.slots; })) {
      continue;
    }
    std::for_each(begin, end, [](uint32_t& slots) { ++slots; });
    last_use_[page] = last[page];
  }
}

// The parts of the stretches that come from inside the old image.
std::vector<dense_copy> old_reach::readable_copies_anywhere(
    std::span<const shift_stretch> stretches) const {
  std::vector<dense_copy> copies;
  for (const shift_stretch& stretch : stretches) {
    if (stretch.shift == kStoredShift) {
      continue;
    }
    const int64_t begin = std::max<int64_t>(stretch.begin, stretch.shift);
    const int64_t end = std::min<int64_t>(stretch.end, old_size_ + stretch.shift);
    if (begin < end) {
      copies.push_back({static_cast<uint32_t>(begin - stretch.shift), static_cast<uint32_t>(begin),
                        static_cast<uint32_t>(end - begin)});
    }
  }
  return copies;
}

std::vector<dense_copy> old_reach::readable_copies(std::span<const shift_stretch> stretches) const {
  std::vector<dense_copy> copies;
  for (const dense_copy& whole : readable_copies_anywhere(stretches)) {
    bool goes_on = false;
    uint32_t done = 0;
    for_pages(geometry_.page_size, whole.source, whole.target, whole.length,
              [&](uint32_t page, uint32_t for_page, uint32_t piece) {
                const bool is_readable = page_is_readable(page, for_page);
                if (is_readable && goes_on) {
                  copies.back().length += piece;
                } else if (is_readable) {
                  copies.push_back({whole.source + done, whole.target + done, piece});
                }
                goes_on = is_readable;
                done += piece;
              });
  }
  return copies;
}

std::vector<kept_page> pages_to_keep(const dense_plan& plan, const flash_geometry& geometry) {
  std::vector<kept_page> kept;
  if (geometry.ring_pages == 0) {
    return kept;
  }
  std::vector<uint32_t> last_use;
  const auto note = [&](uint32_t place, uint32_t at, uint32_t length) {
    for_pages(geometry.page_size, place, at, length,
              [&](uint32_t page, uint32_t for_page, uint32_t) {
                if (page + geometry.ring_pages <= for_page) {
                  last_use.resize(std::max<size_t>(last_use.size(), page + size_t{1}));
                  last_use[page] = std::max(last_use[page], for_page);
                }
              });
  };
  uint32_t at = 0;
  auto copy = plan.copies.begin();
  const auto pass_copies = [&] {
    for (; copy != plan.copies.end() && copy->target == at; ++copy) {
      note(copy->source, at, copy->length);
      at += copy->length;
    }
  };
  pass_copies();
  for (const dense_item& item : plan.items) {
    const uint32_t length = std::max(item.length, 1U);
    if (item.length != 0 && !item.is_new) {
      note(item.from, at, length);
    }
    at += length;
    pass_copies();
  }
  std::vector<uint32_t> busy_until;  // by slot: the last page for which it is read
  for (uint32_t page = 0; page < last_use.size(); ++page) {
    if (last_use[page] == 0) {
      continue;
    }
    const auto slot = std::find_if(busy_until.begin(), busy_until.end(),
                                   [&](uint32_t until) { return until < page; });
    kept.push_back({page, static_cast<uint32_t>(slot - busy_until.begin()), last_use[page]});
    if (slot == busy_until.end()) {
      busy_until.push_back(last_use[page]);
    } else {
      *slot = last_use[page];
    }
  }
  return kept;
}

}  // namespace kelvane
