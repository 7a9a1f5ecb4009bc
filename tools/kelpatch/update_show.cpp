// SPDX-License-Identifier: Apache-2.0
#include "update_show.h"

#include <cinttypes>
#include <cstdio>

#include "patch_show.h"

namespace kelpatch {
namespace {

const char* name_of_machine(uint8_t machine) {
  static constexpr const char* kNames[KELVANE_DENSE_MACHINES] = {"none",    "thumb", "arm",
                                                                 "powerpc", "mips",  "riscv"};
  return kNames[machine];
}

const char* name_of_order(uint8_t big_endian) {
  return big_endian != 0 ? "big-endian" : "little-endian";
}

// "3, 5-9": the numbers in ascending order.
std::string text_of_pages(const std::vector<uint32_t>& pages) {
  std::string text;
  for (size_t i = 0; i < pages.size(); ++i) {
    const size_t first = i;
    while (i + 1 < pages.size() && pages[i + 1] == pages[i] + 1) {
      ++i;
    }
    text += formatted("%s%" PRIu32, text.empty() ? "" : ", ", pages[first]);
    if (i != first) {
      text += formatted("-%" PRIu32, pages[i]);
    }
  }
  return text.empty() ? "none" : text;
}

void show_image(const char* which, uint32_t size, uint32_t checksum) {
  std::printf("%s image: %" PRIu32 " bytes, checksum 0x%08" PRIx32 "\n", which, size, checksum);
}

void show_dense(const UpdateFile& update) {
  const kelvane_dense_info& info = *update.dense();
  std::printf("machine %s, code %s, data %s, base 0x%08" PRIx32 "\n", name_of_machine(info.machine),
              name_of_order(info.code_big_endian), name_of_order(info.data_big_endian), info.base);
  std::printf("%s model, distances %s predicted\n", info.model == 0 ? "small" : "large",
              info.differences != 0 ? "are" : "are not");
  std::printf("%s\n", info.reads_new != 0
                          ? "reads new bytes back: a device knows the new image when it is written"
                          : "reads no new bytes: a device computes the new image before it erases");
}

void show_plan(const UpdateFile& update) {
  const PagePlan& plan = update.plan();
  std::printf("pages: %" PRIu32 " of %" PRIu32 " bytes, %zu change: %s\n", plan.pages,
              plan.page_size, plan.changed.size(), text_of_pages(plan.changed).c_str());
  if (plan.raise != 0) {
    std::printf("raised: the old image by %" PRIu32 " %s first, %" PRIu32 " erases more\n",
                plan.raise, plan.raise == 1 ? "page" : "pages", plan.raised());
  }
  for (const PageRange& range : plan.ranges) {
    std::printf("range: pages %" PRIu32 "-%" PRIu32 "\n", range.first,
                range.first + range.pages - 1);
  }
  for (const PagePlan::Kept& kept : plan.kept) {
    std::printf("kept: page %" PRIu32 " in slot %" PRIu32 "\n", kept.page, kept.slot);
  }
  std::printf("spare pages: %" PRIu32 " (a ring of %" PRIu32 ", %" PRIu32 " slots",
              update.spare_pages(), plan.ring, plan.slots);
  if (update.dense()) {
    std::printf(", checkpoints 2 x %" PRIu32 ", one behind every %" PRIu32 " pages that change",
                update.checkpoint_pages(), uint32_t{update.bundle().checkpoint});
  }
  std::printf(")\n");
  if (update.dense()) {
    std::printf("memory of the decoder: %" PRIu32 " bytes at most\n",
                dense_memory(update.dense()->model, update.dense()->map_entries));
  }
}

void show_parts(const UpdateFile& update) {
  const kelvane_bundle& bundle = update.bundle();
  const uint32_t header =
      bundle.summed.size - bundle.plan.size - bundle.payload.size - bundle.back.size;
  std::printf("bytes: header %" PRIu32 ", plan %" PRIu32 ", payload %" PRIu32
              ", update back %" PRIu32 ", signature %" PRIu32 "\n",
              header, bundle.plan.size, bundle.payload.size, bundle.back.size,
              bundle.signature.size);
}

}  // namespace

void show_update(UpdateFile& update) {
  const kelvane_payload_images& images = update.images();
  std::printf("update, %s payload, %zu bytes\n", update.dense() ? "dense" : "patch",
              update.bytes().size());
  show_image("old", images.old_size, images.old_checksum);
  show_image("new", images.new_size, images.new_checksum);
  if (update.dense()) {
    show_dense(update);
  }
  show_plan(update);
  show_parts(update);
  if (update.patch()) {
    std::printf("\n");
    show_patch(*update.patch(), ByteOrder::kFound, {});
    return;
  }
  std::printf("map: %zu %s\n", update.map().size(), update.map().size() == 1 ? "entry" : "entries");
  for (const kelvane_dense_entry& entry : update.map()) {
    std::printf("  %" PRIu32 " bytes from 0x%" PRIx32 " to 0x%" PRIx32 " (%+" PRId64 ")\n",
                entry.length, entry.source, entry.target,
                int64_t{entry.target} - int64_t{entry.source});
  }
}

}  // namespace kelpatch
