// SPDX-License-Identifier: Apache-2.0
#pragma once

// Which old bytes the device can still read while it computes a byte of the new image.

#include <algorithm>
#include <span>
#include <vector>

#include "dense_plan.h"
#include "plan.h"

namespace kelvane {

// The pages of the new image as a device goes through them.
class device_pages {
 public:
  device_pages(const plan_images& images, const flash_geometry& geometry);

  const flash_geometry& geometry() const { return geometry_; }
  // Whether the new bytes of a page are others than the old ones there. A page behind the end of
  // the new image stays.
  bool changes(uint32_t page) const { return page < changes_.size() && changes_[page]; }
  // The page that is taken to be written while a page (of the new image) is computed: with
  // checkpoints the last one that changes ahead of the next checkpoint, since after a loss of power
  // all since the last one is computed again.
  uint32_t at_hand(uint32_t page) const { return at_hand_[page]; }
  // Whether everything from an old place on is still there, or in the ring, when the byte at `at`
  // of the new image is computed. Quicker than asking for each page.
  bool is_not_gone(uint32_t place, uint32_t at) const {
    return place >= gone_below_[at / geometry_.page_size];
  }
  // Whether the old contents of a page are where they were, or in the ring, then.
  bool is_at_hand(uint32_t old_page, uint32_t page) const {
    const uint32_t lies_in = old_page + geometry_.raise;
    return geometry_.ring_pages == 0 || !changes(lies_in) || lies_in > at_hand(page) ||
           changed_below_[at_hand(page) + 1] - changed_below_[lies_in] <= geometry_.ring_pages;
  }

 private:
  flash_geometry geometry_;
  std::vector<bool> changes_;
  std::vector<uint32_t> at_hand_;
  std::vector<uint32_t> changed_below_;  // by page, and behind the last one
  std::vector<uint32_t> gone_below_;     // by page of the new image: an old place
};

class old_reach {
 public:
  old_reach(const plan_images& images, const flash_geometry& geometry);

  const device_pages& pages() const { return pages_; }

  // How many of `length` old bytes from `place` on can be read if each is read for the new byte at
  // the same distance from `at`, before the first that can't or lies outside the old image. What
  // can be read for a byte can be read for every earlier one.
  uint32_t readable(int64_t place, uint32_t at, uint32_t length) const {
    if (place < 0 || place >= old_size_) {
      return 0;
    }
    length = std::min(length, old_size_ - static_cast<uint32_t>(place));
    return length == 0 || pages_.is_not_gone(static_cast<uint32_t>(place), at + length - 1)
               ? length
               : readable_by_pages(place, at, length);
  }

  // Chooses the pages to keep: those from which `stretches` would take most bytes that nothing else
  // holds, as long as the slots suffice.
  void choose_kept(std::span<const shift_stretch> stretches);

  // Cuts stretches to what lies in the old image and can be read; the rest is to be stored.
  std::vector<dense_copy> readable_copies(std::span<const shift_stretch> stretches) const;

 private:
  uint32_t readable_by_pages(int64_t place, uint32_t at, uint32_t length) const;
  std::vector<dense_copy> readable_copies_anywhere(std::span<const shift_stretch> stretches) const;
  bool page_is_readable(uint32_t page, uint32_t for_page) const {
    return pages_.is_at_hand(page, for_page) ||
           (page < last_use_.size() && last_use_[page] >= pages_.at_hand(for_page));
  }

  device_pages pages_;
  uint32_t old_size_;
  uint32_t new_size_;
  std::vector<uint32_t> last_use_;  // by page, 0 for one that is not kept
};

// The pages that a plan needs kept, with their slots: by ascending page. A plan that keeps to an
// old_reach needs no more slots than the geometry has.
std::vector<kept_page> pages_to_keep(const dense_plan& plan, const device_pages& pages);

}  // namespace kelvane
