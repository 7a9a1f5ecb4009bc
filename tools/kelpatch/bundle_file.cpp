// SPDX-License-Identifier: Apache-2.0
#include "bundle_file.h"

#include "flash_bundle.h"

namespace kelpatch {
namespace {

void put(Bytes& bytes, size_t value, uint32_t size) {
  for (uint32_t i = 0; i < size; ++i) {
    bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
}

}  // namespace

Bytes make_bundle(const PagePlan& plan, const BundleParts& parts) {
  const Bytes encoded = plan.encoded();
  const size_t size =
      KELVANE_BUNDLE_HEADER_SIZE + encoded.size() + parts.payload.size() + parts.back.size();
  Bytes summed;  // what stands behind the checksum
  put(summed, size, 4);
  put(summed, parts.signature, 4);
  put(summed, plan.page_size, 4);
  put(summed, plan.ring, 2);
  put(summed, plan.slots, 2);
  put(summed, encoded.size(), 4);
  put(summed, parts.payload.size(), 4);
  put(summed, parts.back.size(), 4);
  put(summed, parts.state_size, 4);
  for (const Bytes* part : {&encoded, &parts.payload, &parts.back}) {
    summed.insert(summed.end(), part->begin(), part->end());
  }
  Bytes bundle = {'K', 'E', 'L', 'B'};
  put(bundle, KELVANE_BUNDLE_VERSION, 2);
  put(bundle, parts.kind, 1);
  put(bundle, parts.checkpoint, 1);
  put(bundle, kelvane_crc32(0, summed.data(), static_cast<uint32_t>(summed.size())), 4);
  bundle.insert(bundle.end(), summed.begin(), summed.end());
  bundle.insert(bundle.end(), parts.signature, 0xFF);
  return bundle;
}

}  // namespace kelpatch
