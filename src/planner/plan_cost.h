#pragma once

// What a plan takes in the patch, to the byte, without writing it.

#include <cstdint>

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

plan_cost cost_of_plan(const plan& planned, const plan_rules& rules);

}  // namespace kelvane
