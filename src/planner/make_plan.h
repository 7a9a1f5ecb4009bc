#pragma once

// One plan, from an alignment to the last store.

#include <span>

#include "alignment.h"
#include "packed_runs.h"
#include "plan.h"

namespace kelvane {

struct plan_settings {
  ByteOrder order = ByteOrder::kLittle;
  // A byte of a compressed store and its entry, in bit parts (see walk_settings).
  uint32_t packed_byte = 0;
  uint32_t packed_entry = 0;
};

// Completes the moves by fills, stores and increments. `forms`: of runs of the new image.
plan make_plan(const plan_images& images, std::span<const moved_block> moves,
               const plan_rules& rules, const plan_settings& settings, packed_runs& forms);

}  // namespace kelvane
