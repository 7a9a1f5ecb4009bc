// SPDX-License-Identifier: Apache-2.0
#include "update_trial.h"

#include <algorithm>
#include <cinttypes>

#include "flash_dense.h"
#include "quick_checksum.h"

namespace kelpatch {
namespace {

using kelvane::CutPlan;
using kelvane::CutResult;
using kelvane::DeviceShape;
using kelvane::SimulatedDevice;

const kelvane_payload_kind* const kDense[] = {&kelvane_dense_kind, nullptr};

}  // namespace

std::string_view view_of(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void require_flash(const DeviceShape& shape) {
  const uint64_t pages =
      uint64_t{shape.image_pages} + shape.spare_pages + KELVANE_JOURNAL_PAGES + 1;
  if (pages * shape.flash.page_size > kLargestFile) {
    fatal("a flash of %" PRIu64 " pages of %" PRIu32 " bytes is too large", pages,
          shape.flash.page_size);
  }
}

uint32_t pages_of_larger_model(const UpdateFile& update) {
  if (!update.dense()) {
    return 0;
  }
  const uint32_t here = (kelvane_dense_kind.state_size - 1) / update.plan().page_size + 1;
  return 2 * (here - update.checkpoint_pages());
}

DeviceShape device_for(const UpdateFile& update) {
  DeviceShape shape;
  shape.flash.page_size = update.plan().page_size;
  // Into a page of 64 bytes go no more than the head and records of a journal of 4-byte units.
  shape.flash.unit = shape.flash.page_size < 128 ? 4 : 8;
  shape.image_pages = update.plan().pages;
  shape.spare_pages = update.spare_pages() + pages_of_larger_model(update);
  if (update.dense()) {
    shape.kinds = kDense;
    shape.state_size = dense_memory(KELVANE_DENSE_LARGEST_MODEL, update.dense()->map_entries);
  }
  require_flash(shape);
  return shape;
}

bool is_taken(const UpdateFile& update, const Bytes& old_image) {
  SimulatedDevice device(device_for(update), view_of(old_image), 1);
  const int code = device.open(source_of(update.bytes()));
  return code == KELVANE_UPDATE_MORE || code == KELVANE_APPLY_OK;
}

Bytes updated(const UpdateFile& update, const std::string& old_name, const Bytes& old_image,
              std::optional<uint32_t> told_max_size) {
  require_told(old_name, old_image, update.name(), update.old_image());
  const kelvane_payload_images& images = update.images();
  const uint32_t max_size = told_max_size.value_or(usual_max_size(images.old_size));
  if (images.new_size > max_size) {
    fatal("'%s' makes an image of %" PRIu32 " bytes, more than %" PRIu32
          "; if that is right, allow it by --max-size %" PRIu32,
          update.name().c_str(), images.new_size, max_size, images.new_size);
  }
  const DeviceShape shape = device_for(update);
  // A header may tell of any number of spare pages, which take memory here.
  constexpr uint32_t kUsualSpare = 256U << 20U;
  const uint32_t spare = shape.spare_pages * shape.flash.page_size;
  if (spare > std::max(kUsualSpare, max_size)) {
    fatal("'%s' needs %" PRIu32 " bytes of spare pages, more than %" PRIu32
          "; if that is right, allow it by --max-size %" PRIu32,
          update.name().c_str(), spare, std::max(kUsualSpare, max_size), spare);
  }
  SimulatedDevice device(shape, view_of(old_image), 1);
  const int code = device.run(source_of(update.bytes()));
  if (code != KELVANE_APPLY_OK) {
    mismatch("a device refuses '%s': %s", update.name().c_str(), kelvane_update_text(code));
  }
  const std::string image = device.image(images.new_size);
  return {image.begin(), image.end()};
}

void require_right(int code, SimulatedDevice& tried, const Bytes& new_image,
                   const std::string& name) {
  if (code == KELVANE_UPDATE_BAD_GEOMETRY) {
    fatal("no device has pages of %" PRIu32 " bytes with a unit of %" PRIu32
          " and a window of %" PRIu32,
          tried.board().driver.page_size, tried.board().driver.unit, tried.board().work_size);
  }
  if (code != KELVANE_APPLY_OK ||
      tried.image(static_cast<uint32_t>(new_image.size())) != view_of(new_image)) {
    mismatch("an update by '%s' ends wrong: %s", name.c_str(), kelvane_update_text(code));
  }
}

std::string simulate_cuts(const DeviceShape& shape, const Bytes& old_image, const Bytes& new_image,
                          const Bytes& update, const std::string& name, uint32_t jobs,
                          const std::function<void(uint64_t operations, uint64_t all)>& report) {
  // Each cut takes a few updates, whose time grows with the image.
  constexpr uint64_t kBytes = 1U << 30U;
  const uint64_t most_cuts =
      std::clamp<uint64_t>(kBytes / (std::max(old_image.size(), new_image.size()) + 1), 50, 2000);
  SimulatedDevice counting(shape, view_of(old_image), 1);
  counting.run(source_of(update));
  const kelvane_payload_kind quick_kind = quick_dense_kind();
  const kelvane_payload_kind* const quick_kinds[] = {&quick_kind, nullptr};
  DeviceShape quick_shape = shape;
  if (shape.kinds == kDense) {
    quick_shape.kinds = quick_kinds;
  }
  CutPlan cuts;
  const uint64_t all = counting.flash().operations();
  cuts.every = all / most_cuts + 1;
  cuts.more = 3;
  cuts.jobs = std::min(jobs, 8U);  // each has a flash of its own
  if (report) {
    cuts.report = [&](uint64_t operations) { report(operations, all); };
  }
  const CutResult result =
      cut_everywhere(quick_shape, view_of(old_image), view_of(new_image), source_of(update), cuts);
  if (result.wrong != 0 || result.violations != 0) {
    mismatch("an update by '%s' does not survive power loss", name.c_str());
  }
  const std::string which = cuts.every == 1 ? "each" : "one in " + std::to_string(cuts.every);
  return formatted("%s: power cut at %s of %" PRIu64 " operations, %" PRIu64 " cuts and %" PRIu64
                   " starts: %" PRIu64 " wrong images\n",
                   name.c_str(), which.c_str(), result.operations, result.cuts, result.starts,
                   result.wrong);
}

}  // namespace kelpatch
