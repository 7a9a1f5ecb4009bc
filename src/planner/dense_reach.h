// SPDX-License-Identifier: Apache-2.0
#pragma once

// Which old bytes the device can still read while it computes a byte of the new image.

#include <span>
#include <vector>

#include "dense_plan.h"

namespace kelvane {

class old_reach {
 public:
  old_reach(const flash_geometry& geometry, uint32_t old_size, uint32_t new_size);

  // How many of `length` old bytes from `place` on can be read if each is read for the new byte at
  // the same distance from `at`, before the first that can't or lies outside the old image. What
  // can be read for a byte can be read for every earlier one.
  uint32_t readable(int64_t place, uint32_t at, uint32_t length) const;

  // Chooses the pages to keep: those from which `stretches` would take most bytes that nothing else
  // holds, as long as the slots suffice.
  void choose_kept(std::span<const shift_stretch> stretches);

  // Cuts stretches to what lies in the old image and can be read; the rest is to be stored.
  std::vector<dense_copy> readable_copies(std::span<const shift_stretch> stretches) const;

 private:
  std::vector<dense_copy> readable_copies_anywhere(std::span<const shift_stretch> stretches) const;
  bool page_is_readable(uint32_t page, uint32_t for_page) const {
    return geometry_.ring_pages == 0 || page + geometry_.ring_pages > for_page ||
           (page < last_use_.size() && last_use_[page] >= for_page);
  }

  flash_geometry geometry_;
  uint32_t old_size_;
  uint32_t new_size_;
  std::vector<uint32_t> last_use_;  // by page, 0 for one that is not kept
};

// The pages that a plan needs kept, with their slots: by ascending page. A plan that keeps to an
// old_reach needs no more slots than the geometry has.
std::vector<kept_page> pages_to_keep(const dense_plan& plan, const flash_geometry& geometry);

}  // namespace kelvane
