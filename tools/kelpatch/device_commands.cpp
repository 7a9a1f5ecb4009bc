// SPDX-License-Identifier: Apache-2.0
#include "device_commands.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <numeric>
#include <thread>
#include <utility>

#include "bundle_file.h"
#include "loaded_image.h"
#include "output_file.h"
#include "patch_split.h"
#include "patch_verify.h"
#include "update_trial.h"

namespace kelpatch {
namespace {

using kelvane::DeviceShape;
using kelvane::SimulatedDevice;

// A way from one image to another.
struct Update {
  PagePlan plan;
  Bytes payload;
  uint32_t classes = 0;
};

uint32_t count_classes(PatchFile& patch) {
  uint32_t count = 0;
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, patch.applier());
  while (kelvane_item_next(&cursor, &item) != 0) {
    count += item.kind == KELVANE_ITEM_CLASS ? 1 : 0;
  }
  return count;
}

void require_bundled(PatchFile& patch) {
  require_file_mode(patch);
  if (patch.info().version == 0) {
    fatal("'%s' is of version 0, and a device takes version 1 alone", patch.name().c_str());
  }
}

// Plans the update by the patch, its compressed stores cut at the borders of pages.
Update update_by(PatchFile& patch, const Bytes& old_file, const Bytes& new_file,
                 const DeviceOptions& device) {
  PatchFile cut(patch.name(), split_at_pages(patch, device.spare.page_size));
  return {plan_for(cut, old_file, new_file, device.spare), cut.bytes(), count_classes(cut)};
}

// The device that the command line tells of.
void take_device(DeviceShape& shape, const PagePlan& plan, const DeviceOptions& device) {
  shape.flash.page_size = plan.page_size;
  shape.flash.unit = device.unit;
  shape.image_pages = plan.pages;
  shape.spare_pages = device.spare.spare;
  shape.window = device.window.value_or(plan.page_size);
  shape.classes = device.classes;
  require_flash(shape);
}

uint32_t total(const std::vector<uint32_t>& erases, uint32_t first, uint32_t count) {
  return std::accumulate(erases.begin() + first, erases.begin() + first + count, 0U);
}

uint32_t most(const std::vector<uint32_t>& erases, uint32_t first, uint32_t count) {
  return count == 0 ? 0 : *std::max_element(erases.begin() + first, erases.begin() + first + count);
}

void show_plan(const Update& update, const DeviceOptions& device, SimulatedDevice& tried) {
  const PagePlan& plan = update.plan;
  const std::vector<uint32_t>& erases = tried.flash().erases;
  const uint32_t spare_at = 1 + plan.pages;
  const uint32_t journal_at = spare_at + device.spare.spare;
  const uint32_t all = total(erases, 0, journal_at + KELVANE_JOURNAL_PAGES);
  const double program_time =
      device.program_time.has_value() ? *device.program_time : 42.0 * plan.page_size / 4096;
  const double seconds =
      (all * static_cast<double>(device.erase_time) +
       static_cast<double>(tried.flash().programmed) / plan.page_size * program_time) /
      1000;
  std::printf("image: %" PRIu32 " pages of %" PRIu32 " bytes, %zu of them change\n", plan.pages,
              plan.page_size, plan.changed.size());
  std::printf("spare pages: %" PRIu32 " needed (a ring of %" PRIu32 ", %" PRIu32
              " slots for %zu kept pages); of %" PRIu32 " the ring takes %" PRIu32 "\n",
              plan.spare(), plan.ring, plan.slots, plan.kept.size(), device.spare.spare,
              device.spare.spare - plan.slots);
  std::printf("plan: %zu bytes, patch: %zu bytes\n", plan.encoded().size(), update.payload.size());
  std::printf("erases: %" PRIu32 " of image pages, %" PRIu32 " of spare pages, %" PRIu32
              " of the journal, %" PRIu32 " in all\n",
              total(erases, 1, plan.pages), total(erases, spare_at, device.spare.spare),
              total(erases, journal_at, KELVANE_JOURNAL_PAGES), all);
  std::printf("wear: %" PRIu32 " erases of an image page, %" PRIu32 " of a spare page, %" PRIu32
              " of a journal page at most\n",
              most(erases, 1, plan.pages), most(erases, spare_at, device.spare.spare),
              most(erases, journal_at, KELVANE_JOURNAL_PAGES));
  std::printf("memory: a window of %" PRIu32 " bytes, %" PRIu32
              " bytes to read each increment class once (%" PRIu32 " classes)\n",
              tried.board().work_size,
              update.classes * static_cast<uint32_t>(sizeof(kelvane_words)), update.classes);
  std::printf("time: %.1f seconds at %" PRIu32 " ms an erase and %.3g ms to program a page\n",
              seconds, device.erase_time, program_time);
}

void require_same(const Bytes& made, const Bytes& wanted, const std::string& patch_name,
                  const std::string& name) {
  if (made != wanted) {
    mismatch("'%s' does not make '%s'", patch_name.c_str(), name.c_str());
  }
}

// Ends the run unless the device has the pages that the update is for.
void require_device(const UpdateFile& update, const SparePages& spare) {
  const uint32_t page_size = update.plan().page_size;
  if (page_size != spare.page_size || update.spare_pages() > spare.spare) {
    mismatch("'%s' is for pages of %" PRIu32 " bytes and needs %" PRIu32
             " spare ones; --page %" PRIu32 " --spare %" PRIu32 " would do",
             update.name().c_str(), page_size, update.spare_pages(), page_size,
             update.spare_pages());
  }
}

// Ends the run unless the patch or the update makes `to`.
void require_way(const std::string& name, const Bytes& bytes, const NamedImage& from,
                 const NamedImage& to, const DeviceOptions& device,
                 std::optional<uint32_t> max_size) {
  if (is_update(bytes)) {
    const UpdateFile update(name, bytes);
    require_device(update, device.spare);
    require_same(updated(update, from.name, from.bytes, max_size), to.bytes, name, to.name);
  } else {
    PatchFile patch(name, bytes, ByteOrder::kFound, {});
    require_bundled(patch);
    require_same(patched(patch, from.name, from.bytes, max_size), to.bytes, name, to.name);
  }
}

// The bundle for one way, tried on the model.
Bytes tried_bundle(const std::string& name, const Bytes& way, const NamedImage& from,
                   const NamedImage& to, const DeviceOptions& device, Bytes back,
                   uint32_t signature) {
  BundleParts parts;
  parts.back = std::move(back);
  parts.signature = signature;
  PagePlan plan;
  DeviceShape shape;
  uint32_t more_pages = 0;
  if (is_update(way)) {
    const UpdateFile update(name, way);
    more_pages = pages_of_larger_model(update);
    parts.kind = update.bundle().kind;
    parts.checkpoint = update.bundle().checkpoint;
    parts.payload = update.payload();
    plan = update.plan();
    shape = device_for(update);
  } else {
    PatchFile patch(name, way, ByteOrder::kFound, {});
    Update update = update_by(patch, from.bytes, to.bytes, device);
    parts.payload = std::move(update.payload);
    plan = std::move(update.plan);
  }
  take_device(shape, plan, device);
  shape.spare_pages += more_pages;
  Bytes bundle = make_bundle(plan, parts);
  SimulatedDevice tried(shape, view_of(from.bytes), 1);
  require_right(tried.run(source_of(bundle)), tried, to.bytes, name);
  if (device.simulate) {
    const uint32_t jobs = std::thread::hardware_concurrency();
    std::fputs(simulate_cuts(shape, from.bytes, to.bytes, bundle, name, jobs, {}).c_str(), stdout);
  }
  return bundle;
}

}  // namespace

void plan_update(const std::string& patch_name, const std::string& old_name,
                 const DeviceOptions& device, std::optional<uint32_t> max_size) {
  const Bytes old_file = read_input(old_name);
  Bytes bytes = read_input(patch_name);
  if (is_update(bytes)) {
    fatal("'%s' is an update already, and 'kelpatch show' tells what it takes", patch_name.c_str());
  }
  PatchFile patch(patch_name, std::move(bytes), ByteOrder::kFound, {});
  require_bundled(patch);
  const Bytes new_file = patched(patch, old_name, old_file, max_size);
  Update update = update_by(patch, old_file, new_file, device);
  BundleParts parts;
  parts.payload = update.payload;
  const Bytes bundle = make_bundle(update.plan, parts);
  DeviceShape shape;
  take_device(shape, update.plan, device);
  SimulatedDevice tried(shape, view_of(old_file), 1);
  require_right(tried.run(source_of(bundle)), tried, new_file, patch_name);
  show_plan(update, device, tried);
}

void make_update(const std::string& patch_name, const std::string& old_name,
                 const std::string& new_name, const std::string& bundle_name,
                 const DeviceOptions& device, std::optional<uint32_t> max_size) {
  refuse_inputs(bundle_name, {patch_name, old_name, new_name, device.rollback.value_or("")});
  OutputFile output(bundle_name);
  NamedImage old_image = {old_name, read_input(old_name)};
  NamedImage new_image = {new_name, read_input(new_name)};
  const Bytes way = read_input(patch_name);
  const Bytes way_back = device.rollback ? read_input(*device.rollback) : Bytes();
  if (device.has_ring && is_update(way) && (!device.rollback || is_update(way_back))) {
    fatal("'--ring' is for patches, and the ring of '%s' is the update's own", patch_name.c_str());
  }
  if (is_update(way)) {
    load_linked(device.spare.page_size, old_image, &new_image);
  }
  require_way(patch_name, way, old_image, new_image, device, max_size);
  Bytes back;
  if (device.rollback) {
    require_way(*device.rollback, way_back, new_image, old_image, device, max_size);
    back = tried_bundle(*device.rollback, way_back, new_image, old_image, device, {}, 0);
  }
  output.write(tried_bundle(patch_name, way, old_image, new_image, device, std::move(back),
                            device.signature));
  output.keep();
}

}  // namespace kelpatch
