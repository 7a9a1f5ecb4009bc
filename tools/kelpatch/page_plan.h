// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "applier.h"
#include "patch_file.h"

namespace kelpatch {

// Pages that a device has, apart from those of the image.
struct SparePages {
  uint32_t page_size = 4096;
  uint32_t ring = 2;   // one more than the pages that change by which contents move up
  uint32_t spare = 8;  // of the ring and of the slots
};

// Pages that follow each other.
struct PageRange {
  uint32_t first;
  uint32_t pages;
};

// In which order a device updates its flash: the pages that change, in ascending order, and those
// whose old contents a page far above still needs. The old contents of every page are saved ahead
// of it, a kept page in its slot, another one in the ring.
struct PagePlan {
  struct Kept {
    uint32_t page;
    uint32_t slot;
  };
  uint32_t page_size = 0;
  uint32_t pages = 0;      // that the images take, the old one also where it is raised to
  uint32_t old_pages = 0;  // of the old image
  uint32_t new_pages = 0;  // of the new image
  uint32_t ring = 0;
  uint32_t slots = 0;
  std::vector<uint32_t> changed;
  std::vector<Kept> kept;
  // The pages that are the update's own, with others between the ranges; none: all pages. A device
  // takes others for erased ones and leaves them alone.
  std::vector<PageRange> ranges;
  uint32_t raise = 0;  // pages by which the old image is moved up first

  // Moves the old image up by so many pages first, whereupon all pages of the new image change.
  // There must be no ranges. `name` is what a message calls the update.
  void raise_by(uint32_t count, const std::string& name);
  // The pages that this copies.
  uint32_t raised() const { return raise == 0 ? 0 : old_pages; }
  uint32_t spare() const { return ring + slots; }
  bool has(uint32_t page) const;
  // As a bundle has it: empty if all pages of the new image change and nothing else is to be said.
  Bytes encoded() const;
};

// Adds a number as a bundle has it, see flash_bundle.h.
void put_number(Bytes& bytes, uint32_t number);

// A plan that tells the pages that change, in these ranges, and the sizes. Ends the run if the
// images have more than 65535 pages, or hold anything but 0xFF outside the ranges; `name` is what
// the message calls the update.
PagePlan plan_changes(const Bytes& old_file, const Bytes& new_file, uint32_t page_size,
                      std::vector<PageRange> ranges, const std::string& name);

// Whether the journal of a device can count the steps, with a checkpoint behind every `checkpoint`
// pages that change (0: none).
bool is_countable(const PagePlan& plan, uint32_t checkpoint);

// Ends the run unless that is so.
void require_countable(const PagePlan& plan, uint32_t checkpoint, const std::string& name);

// Makes the plan for a patch in file mode, which has been checked against the two images. `ring`
// pages are at least 1. Ends the run if the images have more than 65535 pages, or if a move stands
// behind another command.
PagePlan plan_pages(PatchFile& patch, const Bytes& old_file, const Bytes& new_file,
                    uint32_t page_size, uint32_t ring);

// The plan for these spare pages. Ends the run if they are too few, and says what would do.
PagePlan plan_for(PatchFile& patch, const Bytes& old_file, const Bytes& new_file,
                  const SparePages& spare);

}  // namespace kelpatch
