#pragma once

// From a plan to the bytes of a patch: what it costs, the patch itself, and the proof that it
// works.

#include <cstdint>
#include <string>
#include <vector>

#include "patch_writer.h"
#include "plan.h"

namespace kelvane {

// Bytes of a patch file by what they are for.
struct plan_cost {
  uint64_t header = 0;
  uint64_t moves = 0;
  uint64_t plain_stores = 0;
  uint64_t packed_stores = 0;
  uint64_t single_stores = 0;
  uint64_t fills = 0;
  uint64_t increments = 0;

  uint64_t total() const {
    return header + moves + plain_stores + packed_stores + single_stores + fills + increments;
  }
};

// The commands of a plan. Stores point into the new image and into plan::packed, which have to
// stay.
patch_commands commands_of(const plan_images& images, const plan& planned);

// To the byte what write_plan would give, without writing it.
plan_cost cost_of_plan(const plan_images& images, const plan& planned, const plan_rules& rules);

// The patch file.
std::vector<uint8_t> write_plan(const plan_images& images, const plan& planned,
                                const plan_rules& rules);

// Carries out the patch with libapply on a copy of the old image, in place, between guard bytes,
// and compares. Gives nothing if the result is the new image, and else what is wrong, in words. Of
// target memory the guard bytes are all that no section and no spare memory has; `order` has to be
// that of the patch, and the checksums that frame it are tested, too.
std::string fault_of_patch(const plan_images& images, const std::vector<uint8_t>& patch,
                           ByteOrder order);

}  // namespace kelvane
