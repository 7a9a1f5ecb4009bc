#pragma once

#include <algorithm>

#include "bundle_file.h"
#include "dense_search.h"
#include "flash_dense.h"

namespace kelvane {

// A bundle, the plan in it, and what was asked of the encoder.
struct DenseBundle {
  kelpatch::PagePlan plan;
  kelpatch::BundleParts parts;
  kelpatch::Bytes bytes;
  uint32_t map_entries = 0;
  kelvane_source source() const {
    return {bytes.data(), nullptr, nullptr, 0, static_cast<uint32_t>(bytes.size())};
  }
};

// Memory for the payload's state on a device.
inline uint32_t dense_memory(uint32_t map_entries) {
  return static_cast<uint32_t>(sizeof(kelvane_dense_payload)) +
         map_entries * KELVANE_DENSE_ENTRY_SIZE;
}

// The bundle of a request's update. The encoder counts on the ring of the request for the page that
// is written; the bundle's is longer by the others that are done again ahead of the same
// checkpoint. Kept pages have a slot each.
inline DenseBundle bundle_of(const dense_request& request, const dense_update& update,
                             uint32_t checkpoint, std::vector<kelpatch::PageRange> ranges = {}) {
  const auto old_image = request.images.old_image;
  const auto new_image = request.images.new_image;
  DenseBundle made;
  made.plan = kelpatch::plan_changes({old_image.begin(), old_image.end()},
                                     {new_image.begin(), new_image.end()},
                                     request.geometry.page_size, std::move(ranges), "update");
  made.plan.raise_by(request.geometry.raise, "update");
  made.plan.ring = std::min(made.plan.pages, request.geometry.ring_pages + checkpoint - 1);
  for (const kept_page& page : update.kept) {
    made.plan.kept.push_back({page.page, made.plan.slots++});
  }
  made.parts.kind = KELVANE_PAYLOAD_DENSE;
  made.parts.checkpoint = checkpoint;
  made.parts.payload = update.payload;
  made.bytes = make_bundle(made.plan, made.parts);
  made.map_entries = update.map_entries;
  return made;
}

// The same, encoded for it.
inline DenseBundle dense_bundle(const dense_request& request, uint32_t checkpoint,
                                std::vector<kelpatch::PageRange> ranges = {}) {
  return bundle_of(request, search_dense(request), checkpoint, std::move(ranges));
}

}  // namespace kelvane
