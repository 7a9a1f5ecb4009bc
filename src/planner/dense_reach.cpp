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

device_pages::device_pages(const plan_images& images, const flash_geometry& geometry)
    : geometry_(geometry) {
  const std::span<const uint8_t> old_image = images.old_image;
  const std::span<const uint8_t> new_image = images.new_image;
  for (size_t at = 0; at < new_image.size(); at += geometry.page_size) {
    const size_t size = std::min<size_t>(geometry.page_size, new_image.size() - at);
    changes_.push_back(geometry.raise != 0 || at + size > old_image.size() ||
                       !std::equal(new_image.begin() + static_cast<ptrdiff_t>(at),
                                   new_image.begin() + static_cast<ptrdiff_t>(at + size),
                                   old_image.begin() + static_cast<ptrdiff_t>(at)));
    at_hand_.push_back(static_cast<uint32_t>(at_hand_.size()));
  }
  size_t begin = 0;
  uint32_t count = 0;
  for (size_t page = 0; page < changes_.size() && geometry.checkpoint != 0; ++page) {
    count += changes_[page] ? 1 : 0;
    // The last changed pages are a group of less. Behind them nothing is computed.
    if (count == geometry.checkpoint || page + 1 == changes_.size()) {
      size_t last = page;
      while (last > begin && !changes_[last]) {
        --last;
      }
      std::fill(at_hand_.begin() + static_cast<ptrdiff_t>(begin),
                at_hand_.begin() + static_cast<ptrdiff_t>(last), static_cast<uint32_t>(last));
      begin = page + 1;
      count = 0;
    }
  }
  // By page of the new image how many below it change, and where these are.
  std::vector<uint32_t> changed;
  for (uint32_t page = 0; page < changes_.size(); ++page) {
    changed_below_.push_back(static_cast<uint32_t>(changed.size()));
    if (changes_[page]) {
      changed.push_back(page);
    }
  }
  changed_below_.push_back(static_cast<uint32_t>(changed.size()));
  for (const uint32_t page : at_hand_) {
    const uint32_t saved = changed_below_[page + 1];
    const bool is_all_there = geometry.ring_pages == 0 || saved <= geometry.ring_pages;
    const uint32_t gone = is_all_there ? 0 : changed[saved - geometry.ring_pages - 1] + 1;
    gone_below_.push_back((gone - std::min(gone, geometry.raise)) * geometry.page_size);
  }
}

old_reach::old_reach(const plan_images& images, const flash_geometry& geometry)
    : pages_(images, geometry),
      old_size_(static_cast<uint32_t>(images.old_image.size())),
      new_size_(static_cast<uint32_t>(images.new_image.size())) {}

uint32_t old_reach::readable_by_pages(int64_t place, uint32_t at, uint32_t length) const {
  const auto first = static_cast<uint32_t>(place);
  const uint32_t page_size = pages_.geometry().page_size;
  if (first % page_size + length <= page_size && at % page_size + length <= page_size) {
    return page_is_readable(first / page_size, at / page_size) ? length : 0;
  }
  uint32_t fits = 0;
  bool is_cut = false;
  for_pages(page_size, first, at, length, [&](uint32_t page, uint32_t for_page, uint32_t piece) {
    is_cut = is_cut || !page_is_readable(page, for_page);
    fits += is_cut ? 0 : piece;
  });
  return fits;
}

void old_reach::choose_kept(std::span<const shift_stretch> stretches) {
  const flash_geometry& geometry = pages_.geometry();
  const uint32_t page_size = geometry.page_size;
  const uint32_t old_pages = old_size_ / page_size + 1;
  const uint32_t new_pages = new_size_ / page_size + 1;
  last_use_.assign(old_pages, 0);
  if (geometry.ring_pages == 0 || geometry.slots == 0) {
    return;
  }
  std::vector<uint32_t> gain(old_pages, 0);
  std::vector<uint32_t> last(old_pages, 0);
  for (const dense_copy& copy : readable_copies_anywhere(stretches)) {
    for_pages(page_size, copy.source, copy.target, copy.length,
              [&](uint32_t page, uint32_t for_page, uint32_t piece) {
                if (!page_is_readable(page, for_page)) {
                  gain[page] += piece;
                  last[page] = std::max(last[page], pages_.at_hand(for_page));
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
    const auto begin = used.begin() + page + geometry.raise;
    const auto end = used.begin() + last[page] + 1;
    if (std::any_of(begin, end, [&](uint32_t slots) { return slots >= geometry.slots; })) {
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
    for_pages(pages_.geometry().page_size, whole.source, whole.target, whole.length,
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

std::vector<kept_page> pages_to_keep(const dense_plan& plan, const device_pages& pages) {
  std::vector<kept_page> kept;
  std::vector<uint32_t> last_use;  // by the page in which an old one lies
  const auto note = [&](uint32_t place, uint32_t at, uint32_t length) {
    for_pages(pages.geometry().page_size, place, at, length,
              [&](uint32_t page, uint32_t for_page, uint32_t) {
                if (!pages.is_at_hand(page, for_page)) {
                  const size_t lies_in = size_t{page} + pages.geometry().raise;
                  last_use.resize(std::max(last_use.size(), lies_in + 1));
                  last_use[lies_in] = std::max(last_use[lies_in], pages.at_hand(for_page));
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
    if (item.kind == dense_item::old_image) {
      note(item.from, at, item.length);
    }
    at += item.length;
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
