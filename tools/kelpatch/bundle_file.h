// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "flash_payload.h"
#include "page_plan.h"

namespace kelpatch {

// What a bundle is made of.
struct BundleParts {
  uint8_t kind = KELVANE_PAYLOAD_PATCH;
  // Changed pages from one checkpoint to the next; 0: the payload has no state.
  uint32_t checkpoint = 0;
  Bytes payload;
  Bytes back;              // a bundle that leads back, or nothing
  uint32_t signature = 0;  // bytes that stay free for one
};

// The bundle of these parts, as flash_bundle.h reads it. The room for the signature is filled with
// 0xFF.
Bytes make_bundle(const PagePlan& plan, const BundleParts& parts);

}  // namespace kelpatch
