// SPDX-License-Identifier: Apache-2.0
#include "bundle_file.h"

#include <bit>

#include "flash_bundle.h"

namespace kelpatch {

Bytes make_bundle(const PagePlan& plan, const BundleParts& parts) {
  const Bytes encoded = plan.encoded();
  const auto size_of = [](const Bytes& part) { return static_cast<uint32_t>(part.size()); };
  const struct {
    uint32_t bit;
    uint32_t size;
  } optional_parts[] = {{KELVANE_BUNDLE_HAS_PLAN, size_of(encoded)},
                        {KELVANE_BUNDLE_HAS_BACK, size_of(parts.back)},
                        {KELVANE_BUNDLE_HAS_SIGNATURE, parts.signature}};
  uint32_t has = static_cast<uint32_t>(std::countr_zero(plan.page_size));
  Bytes bundle = {'K', 'B', 0, 0, 0, 0};
  bundle.push_back(static_cast<uint8_t>(KELVANE_BUNDLE_VERSION | parts.kind << 4U));
  bundle.push_back(0);
  put_number(bundle, plan.ring);
  put_number(bundle, parts.checkpoint);
  put_number(bundle, size_of(parts.payload));
  for (const auto& [bit, size] : optional_parts) {
    if (size != 0) {
      has |= bit;
      put_number(bundle, size);
    }
  }
  bundle[KELVANE_BUNDLE_FIXED_SIZE - 1] = static_cast<uint8_t>(has);
  for (const Bytes* part : {&encoded, &parts.payload, &parts.back}) {
    bundle.insert(bundle.end(), part->begin(), part->end());
  }
  const uint32_t checksum = kelvane_crc32(0, bundle.data() + KELVANE_BUNDLE_SUMMED_FROM,
                                          size_of(bundle) - KELVANE_BUNDLE_SUMMED_FROM);
  for (uint32_t i = 0; i < 4; ++i) {
    bundle[KELVANE_BUNDLE_CHECKSUM_AT + i] = static_cast<uint8_t>(checksum >> (8 * i));
  }
  bundle.insert(bundle.end(), parts.signature, 0xFF);
  return bundle;
}

}  // namespace kelpatch
