// SPDX-License-Identifier: Apache-2.0
#include "kelmake_update.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "bundle_file.h"
#include "dense_search.h"
#include "kelmake_elf.h"
#include "kelmake_files.h"
#include "kelmake_report.h"
#include "kelmake_update_report.h"
#include "patch_split.h"
#include "plan_patch.h"
#include "plan_search.h"
#include "update_trial.h"

namespace kelmake {
namespace {

using kelpatch::Bytes;
using kelpatch::fatal;
using kelpatch::PagePlan;
using kelpatch::UpdateFile;
using kelvane::ByteOrder;
using kelvane::dense_effort;
using kelvane::dense_target;
using std::chrono::steady_clock;

constexpr uint32_t kUsualSlots = 8;

// ---- The images and what they are for -----------------------------------------------------------

FlashImages read_images(const Options& options) {
  Bytes old_file = kelpatch::read_input(options.old_name);
  Bytes new_file = kelpatch::read_input(options.new_name);
  const bool is_image = is_elf(old_file);
  if (is_image != is_elf(new_file)) {
    fatal("'%s' is an ELF file and '%s' is not",
          (is_image ? options.old_name : options.new_name).c_str(),
          (is_image ? options.new_name : options.old_name).c_str());
  }
  if (is_image) {
    return lay_out(options.old_name, old_file, options.new_name, new_file,
                   options.update.page_size);
  }
  return {std::move(old_file), std::move(new_file), 0, {}, {}};
}

// The byte orders that a machine may have: of code, of data. Big-endian ARM has both sorts of code.
std::vector<dense_target> with_orders(uint8_t machine, const std::optional<ByteOrder>& told) {
  const bool is_arm = machine == KELVANE_DENSE_THUMB || machine == KELVANE_DENSE_ARM;
  const bool has_little_code = is_arm || machine == KELVANE_DENSE_RISCV;
  std::vector<dense_target> targets;
  for (const ByteOrder order : {ByteOrder::kLittle, ByteOrder::kBig}) {
    if (told.value_or(order) != order) {
      continue;
    }
    if (order == ByteOrder::kLittle || machine != KELVANE_DENSE_RISCV) {
      targets.push_back({machine, order, order, 0});
    }
    if (order == ByteOrder::kBig && has_little_code) {
      targets.push_back({machine, ByteOrder::kLittle, order, 0});
    }
  }
  return targets;
}

// What the encoder is to choose from: what the files and the command line tell, the latter first.
// Empty if both tell nothing of the machine.
std::vector<dense_target> targets_of(const Options& options, const FlashImages& images) {
  const std::optional<uint8_t>& machine = options.update.machine;
  std::vector<dense_target> targets;
  if (images.targets.empty() && machine) {
    targets = with_orders(*machine, options.order);
  }
  for (const dense_target& told : images.targets) {
    // An order or a machine that agrees with the file adds nothing to it.
    const bool is_same_order = options.order.value_or(told.data_order) == told.data_order;
    if (is_same_order && machine.value_or(told.machine) == told.machine) {
      targets.push_back(told);
    }
  }
  if (targets.empty()) {
    for (const dense_target& told : images.targets) {
      for (dense_target target :
           with_orders(machine.value_or(told.machine), options.order.value_or(told.data_order))) {
        target.base = told.base;
        targets.push_back(target);
      }
      if (machine) {
        break;  // the others would be made the same
      }
    }
  }
  for (dense_target& target : targets) {
    target.base = options.update.base.value_or(target.base);
  }
  return targets;
}

// ---- The update ---------------------------------------------------------------------------------

// The ring of the update: it holds the pages that are written between two checkpoints besides. No
// more than all pages are of use.
kelvane::flash_geometry geometry_of(const Options& options, uint64_t image_size) {
  constexpr uint32_t kMostPages = 65535;
  const UpdateOptions& device = options.update;
  const uint64_t pages =
      std::max<uint64_t>((image_size + device.page_size - 1) / device.page_size, 1);
  if (pages > kMostPages) {
    fatal("'%s' and '%s' have up to %" PRIu64 " pages of %" PRIu32 " bytes; --page %" PRIu32
          " would leave no more than 65535",
          options.old_name.c_str(), options.new_name.c_str(), pages, device.page_size,
          std::bit_ceil(static_cast<uint32_t>((image_size - 1) / kMostPages + 1)));
  }
  const uint32_t states =
      2 * ((kelpatch::dense_state_size(device.model) - 1) / device.page_size + 1);
  kelvane::flash_geometry geometry;
  geometry.page_size = device.page_size;
  geometry.checkpoint = device.checkpoint;
  geometry.ring_pages = static_cast<uint32_t>(
      std::min({pages, uint64_t{device.ring} + device.checkpoint - 1, uint64_t{kMostPages}}));
  geometry.slots = kUsualSlots;
  const uint32_t least = geometry.ring_pages + states;
  if (device.spare) {
    if (*device.spare < least) {
      fatal("%" PRIu32 " spare pages do not hold a ring of %" PRIu32
            " and two checkpoints of %" PRIu32 "; --spare %" PRIu32 " would do",
            *device.spare, geometry.ring_pages, states / 2, least);
    }
    geometry.slots = *device.spare - least;
  }
  return geometry;
}

kelvane::dense_update searched(const kelvane::dense_request& request) {
  try {
    return kelvane::search_dense(request);
  } catch (const std::logic_error& error) {
    fatal("internal: %s", error.what());
  }
}

// What the encoder finds by itself, as far as that agrees with what the command line tells; else
// all machines of the byte order that it tells.
std::vector<dense_target> guessed_targets(kelvane::dense_request request, const Options& options) {
  request.effort = dense_effort::quick;
  std::vector<dense_target> targets = {searched(request).options.target};
  if (options.order.value_or(targets[0].data_order) != targets[0].data_order) {
    targets.clear();
    for (uint8_t machine = 0; machine < KELVANE_DENSE_MACHINES; ++machine) {
      const std::vector<dense_target> more = with_orders(machine, options.order);
      targets.insert(targets.end(), more.begin(), more.end());
    }
  }
  for (dense_target& target : targets) {
    target.base = options.update.base.value_or(target.base);
  }
  return targets;
}

// By how many pages the old image may be raised first: as the command line tells, or as many as the
// new image has more. Of a ring one page less is there besides the one that is written.
uint32_t raise_to_try(const Options& options, const PagePlan& changes) {
  const UpdateOptions& device = options.update;
  if (device.raise) {
    if (*device.raise != 0 && !changes.ranges.empty()) {
      fatal("'%s' has %zu ranges, and what lies between them leaves no room to raise an image",
            options.patch_name.c_str(), changes.ranges.size());
    }
    return *device.raise;
  }
  const uint32_t more = changes.new_pages - std::min(changes.new_pages, changes.old_pages);
  if (more < device.ring || changes.old_pages == 0 || !changes.ranges.empty()) {
    return 0;
  }
  PagePlan raised = changes;
  raised.raise_by(more, options.patch_name);
  return is_countable(raised, device.checkpoint) ? more : 0;
}

// Raising costs an erase and a program of every old page. Where it saves a sixteenth of the bytes
// and one for 256 of the old image (16 for a page of 4096 bytes), even a link of 1000 bits a second
// takes as long for these as the flash takes for that.
bool pays_to_raise(size_t size, size_t raised_size, size_t old_image_size) {
  const size_t saved = size - std::min(size, raised_size);
  return saved >= size / 16 && saved >= old_image_size / 256;
}

// The target whose update is smallest, by short searches.
dense_target best_target(kelvane::dense_request request, const std::vector<dense_target>& targets) {
  request.effort = dense_effort::quick;
  size_t best_size = SIZE_MAX;
  dense_target best = targets.front();
  for (size_t i = 0; i < targets.size() && targets.size() > 1; ++i) {
    request.target = targets[i];
    const size_t size = searched(request).payload.size();
    if (size < best_size) {
      best_size = size;
      best = targets[i];
    }
  }
  return best;
}

// What a short search found, and whether more effort would find no other.
struct QuickUpdate {
  kelvane::dense_update update;
  bool is_final = false;
};

// Short searches for both ways. Raising is left out of the request's geometry unless it pays.
QuickUpdate found_by_both_ways(kelvane::dense_request& request) {
  kelvane::dense_request quick = request;
  quick.effort = dense_effort::quick;
  kelvane::dense_update found = searched(quick);
  quick.geometry.raise = 0;
  quick.target = found.options.target;
  kelvane::dense_update in_place = searched(quick);
  const bool pays =
      pays_to_raise(in_place.payload.size(), found.payload.size(), request.images.old_image.size());
  if (!pays) {
    request.geometry.raise = 0;
    found = std::move(in_place);
  }
  // Without raising the machine may be another.
  const bool is_final =
      (pays || request.target) &&
      is_quick_enough(request.effort, request.images.new_image.size(), found.payload.size());
  return {std::move(found), is_final};
}

// Without a word of the command line, raising is left out of the geometry where it does not pay.
kelvane::dense_update found_update(const Options& options, const FlashImages& images,
                                   kelvane::flash_geometry& geometry, ProgressLine& progress) {
  kelvane::dense_request request;
  request.images = {images.old_image, images.new_image};
  request.geometry = geometry;
  request.model = options.update.model;
  request.map_limit = options.update.map;
  request.reads_new = !options.update.rehearse;
  request.effort = options.effort == kelvane::plan_effort::quick    ? dense_effort::quick
                   : options.effort == kelvane::plan_effort::normal ? dense_effort::normal
                                                                    : dense_effort::best;
  request.jobs = options.jobs;
  request.report = [&](const kelvane::plan_progress& now) { progress.show(now); };
  progress.begin("looking for the machine");
  std::vector<dense_target> targets = targets_of(options, images);
  if (targets.empty() && (options.order || options.update.base)) {
    targets = guessed_targets(request, options);
  }
  if (!targets.empty()) {
    request.base_is_known = !images.targets.empty() || options.update.base;
    request.target = best_target(request, targets);
  }
  std::optional<QuickUpdate> quick;
  if (geometry.raise != 0 && !options.update.raise) {
    progress.begin("trying to raise the old image");
    quick = found_by_both_ways(request);
    geometry.raise = request.geometry.raise;
    if (quick->is_final) {
      return std::move(quick->update);
    }
  }
  progress.begin("making the update");
  kelvane::dense_update found = searched(request);
  return quick && quick->update.payload.size() < found.payload.size() ? std::move(quick->update)
                                                                      : std::move(found);
}

// Which pages change.
PagePlan changes_of(const Options& options, const FlashImages& images) {
  std::vector<kelpatch::PageRange> ranges;
  for (const FlashRange& range : images.ranges) {
    ranges.push_back({range.first, range.pages});
  }
  return kelpatch::plan_changes(images.old_image, images.new_image, options.update.page_size,
                                std::move(ranges), options.patch_name);
}

// The file of the update. Its ring is the shortest that a device takes it with; the encoder may
// have used less than it was given.
Bytes bundle_of(const Options& options, const FlashImages& images, PagePlan plan,
                const kelvane::flash_geometry& geometry, const kelvane::dense_update& update) {
  for (const kelvane::kept_page& kept : update.kept) {
    plan.kept.push_back({kept.page, kept.slot});
    plan.slots = std::max(plan.slots, kept.slot + 1);
  }
  kelpatch::BundleParts parts;
  parts.kind = KELVANE_PAYLOAD_DENSE;
  parts.checkpoint = geometry.checkpoint;
  parts.payload = update.payload;
  uint32_t too_short = 0;
  uint32_t ring = geometry.ring_pages;
  while (ring - too_short > 1) {
    plan.ring = too_short + (ring - too_short) / 2;
    const UpdateFile tried(options.patch_name, make_bundle(plan, parts));
    (kelpatch::is_taken(tried, images.old_image) ? ring : too_short) = plan.ring;
  }
  plan.ring = ring;
  return make_bundle(plan, parts);
}

// Ends the run unless a device of that geometry gets from the old image to the new one. Gives what
// came of cuts of power, if the options ask for that.
std::string prove(const Options& options, const FlashImages& images, const UpdateFile& update,
                  ProgressLine& progress) {
  if (kelpatch::updated(update, options.old_name, images.old_image, UINT32_MAX) !=
      images.new_image) {
    fatal("internal: the update from '%s' to '%s' makes another image", options.old_name.c_str(),
          options.new_name.c_str());
  }
  if (!options.update.simulate) {
    return {};
  }
  progress.begin("cutting power");
  return kelpatch::simulate_cuts(
      kelpatch::device_for(update), images.old_image, images.new_image, update.bytes(),
      options.patch_name, options.jobs,
      [&](uint64_t operations, uint64_t all) { progress.show("operation", operations, all); });
}

// ---- The same by a patch ------------------------------------------------------------------------

// The bundle with a patch that needs the fewest spare pages.
PatchWay way_by_patch(const Options& options, const FlashImages& images,
                      const kelvane::flash_geometry& geometry, ProgressLine& progress) {
  kelvane::plan_request request;
  request.report = [&](const kelvane::plan_progress& now) { progress.show(now); };
  progress.begin("making a patch to compare");
  request.images = {images.old_image, images.new_image};
  request.rules = kelvane::rules_for(kelvane::patch_profile::wide, 1);
  // It is there to compare; a longer search takes twice the memory of that for the update.
  request.effort = kelvane::plan_effort::quick;
  request.order = options.order;
  if (!images.targets.empty()) {
    request.order = images.targets.front().data_order;
  }
  request.jobs = options.jobs;
  const kelvane::found_plan found = kelvane::search_plan(request);
  kelpatch::PatchFile whole(options.patch_name,
                            kelvane::write_plan(request.images, found.planned, request.rules));
  kelpatch::PatchFile patch(options.patch_name,
                            kelpatch::split_at_pages(whole, geometry.page_size));
  std::optional<PagePlan> best;
  for (uint32_t ring = 1; ring == 1 || ring < best->spare(); ring *= 2) {
    PagePlan plan =
        kelpatch::plan_pages(patch, images.old_image, images.new_image, geometry.page_size, ring);
    if (!best || plan.spare() < best->spare()) {
      best = std::move(plan);
    }
  }
  kelpatch::BundleParts parts;
  parts.payload = patch.bytes();
  return {kelpatch::make_bundle(*best, parts).size(), best->ring, best->slots,
          static_cast<uint32_t>(found.planned.classes.size())};
}

}  // namespace

void make_update(const Options& options) {
  const steady_clock::time_point start = steady_clock::now();
  check_outputs(options);
  const FlashImages images = read_images(options);
  kelvane::flash_geometry geometry =
      geometry_of(options, std::max(images.old_image.size(), images.new_image.size()));
  if (!options.quiet) {
    std::fputs(text_of_images(options, images).c_str(), stdout);
    std::fflush(stdout);
  }
  PagePlan changes = changes_of(options, images);
  geometry.raise = raise_to_try(options, changes);
  PagePlan raised = changes;
  raised.raise_by(geometry.raise, options.patch_name);
  kelpatch::require_countable(options.update.raise ? raised : changes, options.update.checkpoint,
                              options.patch_name);
  std::optional<ProgressLine> progress(std::in_place, options);
  const kelvane::dense_update found = found_update(options, images, geometry, *progress);
  progress->begin("trying the update");
  const UpdateFile update(
      options.patch_name,
      bundle_of(options, images, geometry.raise != 0 ? std::move(raised) : std::move(changes),
                geometry, found));
  const std::string cuts = prove(options, images, update, *progress);
  // A report tells what a patch would take too; without one the update need not wait for that.
  const bool has_report = !options.report_name.empty();
  if (!has_report) {
    write_outputs(options, update.bytes(), {});
  }
  if (options.quiet && !has_report) {
    return;
  }
  const UpdateOutcome outcome = {
      options,
      images,
      found,
      update,
      way_by_patch(options, images, geometry, *progress),
      std::chrono::duration<double>(steady_clock::now() - start).count()};
  progress.reset();
  if (has_report) {
    write_outputs(options, update.bytes(), json_of_update(outcome));
  }
  if (!options.quiet) {
    std::fputs((cuts + text_of_update(outcome)).c_str(), stdout);
  }
}

}  // namespace kelmake
