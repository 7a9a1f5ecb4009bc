// SPDX-License-Identifier: Apache-2.0
#include "kelmake_update_report.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>
#include <string_view>

#include "flash_dense.h"
#include "kelmake_report.h"

namespace kelmake {
namespace {

using kelpatch::formatted;

// A row of the ledger of what the device's code takes.
struct DeviceSize {
  const char* processor;
  const char* level;
  const char* part;
  uint32_t code;   // bytes
  uint32_t stack;  // bytes
  uint32_t state;  // bytes
};

constexpr DeviceSize kDeviceSizes[] = {
#include <device_sizes.inc>
};

// What the table is about.
constexpr char kProcessor[] = "cortex-m3";
constexpr char kLevel[] = "-Oz";
constexpr char kDensePart[] = "update of flash, dense";
constexpr char kPatchPart[] = "update of flash";
constexpr char kAllMachines[] = "dense, all machines";
// The decoder with one machine, by kelvane_dense_machine. One for none is in no table.
constexpr const char* kOneMachine[KELVANE_DENSE_MACHINES] = {
    kAllMachines, "dense, Thumb", "dense, ARM", "dense, PowerPC", "dense, MIPS", "dense, RISC-V"};
constexpr uint32_t kBytesOfClass = 16;

constexpr bool is_equal(std::string_view first, const char* second) {
  return first == second;
}

constexpr const DeviceSize* size_of(const char* part) {
  for (const DeviceSize& row : kDeviceSizes) {
    if (is_equal(row.processor, kProcessor) && is_equal(row.level, kLevel) &&
        is_equal(row.part, part)) {
      return &row;
    }
  }
  return nullptr;
}
static_assert(size_of(kPatchPart) != nullptr && size_of(kDensePart) != nullptr);
static_assert(std::none_of(std::begin(kOneMachine), std::end(kOneMachine),
                           [](const char* part) { return size_of(part) == nullptr; }));

// The code of an update whose decoder is built for one machine.
constexpr uint32_t code_for(uint8_t machine) {
  return size_of(kDensePart)->code - size_of(kAllMachines)->code +
         size_of(kOneMachine[machine])->code;
}

// What one way takes.
struct Needs {
  uint64_t bytes = 0;
  uint32_t ring = 0;
  uint32_t slots = 0;
  uint32_t checkpoint = 0;  // pages of one
  uint32_t memory = 0;      // bytes, without the window
  uint32_t code = 0;
  uint32_t spare() const { return ring + slots + 2 * checkpoint; }
};

Needs needs_of_update(const UpdateOutcome& outcome) {
  const kelpatch::PagePlan& plan = outcome.update.plan();
  const kelvane_dense_info& info = *outcome.update.dense();
  const DeviceSize& size = *size_of(kDensePart);
  const uint32_t saved = kelpatch::dense_state_size(KELVANE_DENSE_LARGEST_MODEL) -
                         kelpatch::dense_state_size(info.model);
  Needs needs;
  needs.bytes = outcome.update.bytes().size();
  needs.ring = plan.ring;
  needs.slots = plan.slots;
  needs.checkpoint = (kelpatch::dense_state_size(info.model) - 1) / plan.page_size + 1;
  needs.memory = size.state - saved + KELVANE_DENSE_ENTRY_SIZE * info.map_entries;
  needs.code = code_for(info.machine);
  return needs;
}

Needs needs_of_patch(const PatchWay& patch) {
  const DeviceSize& size = *size_of(kPatchPart);
  return {patch.size, patch.ring, patch.slots, 0, size.state + kBytesOfClass * patch.classes,
          size.code};
}

std::string row(const char* name, uint64_t update, uint64_t patch) {
  return formatted("  %-26s %12" PRIu64 " %12" PRIu64 "\n", name, update, patch);
}

const char* name_of_bool(bool value) {
  return value ? "true" : "false";
}

std::string json_of_needs(const char* key, const Needs& needs) {
  return formatted("    \"%s\": {\"bytes\": %" PRIu64 ", \"spare_pages\": %" PRIu32
                   ", \"ring\": %" PRIu32 ", \"slots\": %" PRIu32 ", \"checkpoint_pages\": %" PRIu32
                   ", \"memory\": %" PRIu32 ", \"code\": %" PRIu32 "}",
                   key, needs.bytes, needs.spare(), needs.ring, needs.slots, needs.checkpoint,
                   needs.memory, needs.code);
}

}  // namespace

std::string text_of_images(const Options& options, const FlashImages& images) {
  std::string text;
  const auto image = [&](const char* which, const std::string& name, const kelpatch::Bytes& bytes) {
    text += formatted("%s: %s, %s\n", which, name.c_str(), counted(bytes.size(), "byte").c_str());
  };
  image("old", options.old_name, images.old_image);
  image("new", options.new_name, images.new_image);
  if (!images.targets.empty()) {
    text += formatted("loaded from 0x%08" PRIx64 " on, %s\n", images.load_address,
                      counted(std::max<size_t>(images.ranges.size(), 1), "range").c_str());
  }
  return text + formatted("update of flash, pages of %" PRIu32 " bytes, effort %s\n",
                          options.update.page_size, name_of(options.effort));
}

std::string text_of_update(const UpdateOutcome& outcome) {
  const Options& options = outcome.options;
  const kelpatch::UpdateFile& update = outcome.update;
  const kelvane_dense_info& info = *update.dense();
  const kelpatch::PagePlan& plan = update.plan();
  const Needs dense = needs_of_update(outcome);
  const Needs patch = needs_of_patch(outcome.patch);
  std::string text =
      formatted("update: %s, %s", options.patch_name.c_str(), counted(dense.bytes, "byte").c_str());
  if (info.new_size > 0) {
    text += formatted(", %.2f %% of the new image", percent_of(dense.bytes, info.new_size));
  }
  text += formatted("\n  machine %s, code %s, data %s, base 0x%08" PRIx32 ", %s model\n",
                    name_of_machine(info.machine),
                    name_of(kelvane::byte_order_of(info.code_big_endian != 0)),
                    name_of(kelvane::byte_order_of(info.data_big_endian != 0)), info.base,
                    name_of_model(info.model));
  text +=
      formatted("  header and plan %zu bytes, payload %" PRIu32 " bytes, %s in the map\n",
                update.bytes().size() - update.bundle().payload.size, update.bundle().payload.size,
                info.map_entries == 1 ? "1 entry"
                                      : formatted("%" PRIu32 " entries", info.map_entries).c_str());
  text += formatted("  %zu of %" PRIu32 " pages change\n", plan.changed.size(), plan.pages);
  if (plan.raise != 0) {
    text += formatted("  the old image is raised by %s first, which takes %s more\n",
                      counted(plan.raise, "page").c_str(), counted(plan.raised(), "erase").c_str());
  }
  text += formatted("%-28s %12s %12s\n", "a device needs", "this update", "by a patch");
  text += row("bytes to receive", dense.bytes, patch.bytes);
  text += row("pages of the image", plan.pages, std::max(plan.old_pages, plan.new_pages));
  text += row("spare pages of flash", dense.spare(), patch.spare());
  text += row("  ring of saved pages", dense.ring, patch.ring);
  text += row("  slots of kept pages", dense.slots, patch.slots);
  text += row("  two checkpoints", 2 * dense.checkpoint, 2 * patch.checkpoint);
  text += row("bytes of RAM, and a window", dense.memory, patch.memory);
  text += row("bytes of code", dense.code, patch.code);
  const std::string machines =
      info.machine == KELVANE_DENSE_NONE
          ? "all machines"
          : formatted("the machine %s alone", name_of_machine(info.machine));
  text += formatted("RAM and code are those of a %s, code by clang %s with %s.\n", kProcessor,
                    kLevel, machines.c_str());
  text += "A window is at most a page.\n";
  if (options.update.spare && patch.spare() > *options.update.spare) {
    text +=
        formatted("A patch would not fit into %" PRIu32 " spare pages.\n", *options.update.spare);
  }
  text += "Carried out on a model of the flash, it made the new image.\n";
  text +=
      info.reads_new != 0
          ? "The device cannot compute the new image before it erases a page; with --rehearse it "
            "can.\n"
          : "The device computes the whole new image before it erases a page.\n";
  if (plan.changed.empty()) {
    text += "No page changes.\n";
  } else if (dense.bytes >= info.new_size / 10 * 9) {
    text += "The update is not worth it: it is nearly as large as the new image.\n";
  }
  return text;
}

std::string json_of_update(const UpdateOutcome& outcome) {
  const Options& options = outcome.options;
  const kelvane_dense_info& info = *outcome.update.dense();
  const kelpatch::PagePlan& plan = outcome.update.plan();
  std::string text = "{\n";
  const auto file = [&](const char* key, const std::string& name, uint64_t size) {
    text += formatted("  \"%s\": {\"name\": %s, \"size\": %" PRIu64 "},\n", key,
                      json_text(name).c_str(), size);
  };
  file("old", options.old_name, outcome.images.old_image.size());
  file("new", options.new_name, outcome.images.new_image.size());
  file("update", options.patch_name, outcome.update.bytes().size());
  text += formatted(
      "  \"mode\": \"update\",\n  \"effort\": \"%s\",\n  \"machine\": \"%s\",\n"
      "  \"code_order\": \"%s\",\n  \"data_order\": \"%s\",\n  \"base\": %" PRIu32
      ",\n  \"model\": \"%s\",\n  \"reads_new\": %s,\n",
      name_of(options.effort), name_of_machine(info.machine),
      name_of(kelvane::byte_order_of(info.code_big_endian != 0)),
      name_of(kelvane::byte_order_of(info.data_big_endian != 0)), info.base,
      name_of_model(info.model), name_of_bool(info.reads_new != 0));
  text += formatted(
      "  \"page_size\": %" PRIu32 ",\n  \"pages\": %" PRIu32
      ",\n  \"changed_pages\": %zu,\n  \"raise\": %" PRIu32 ",\n  \"raised_pages\": %" PRIu32
      ",\n  \"ranges\": %zu,\n  \"checkpoint\": %" PRIu32 ",\n  \"payload\": %" PRIu32
      ",\n  \"map_entries\": %" PRIu32 ",\n  \"copies\": %" PRIu32 ",\n  \"device\": {\n",
      plan.page_size, plan.pages, plan.changed.size(), plan.raise, plan.raised(),
      std::max<size_t>(plan.ranges.size(), 1), options.update.checkpoint,
      outcome.update.bundle().payload.size, info.map_entries, outcome.found.copies);
  text += json_of_needs("update", needs_of_update(outcome)) + ",\n";
  text += json_of_needs("patch", needs_of_patch(outcome.patch));
  return text + formatted("\n  },\n  \"seconds\": %.2f\n}\n", outcome.seconds);
}

}  // namespace kelmake
