#include "plan_patch.h"

#include <algorithm>

#include "applier.h"
#include "bd_checksum.h"
#include "memory_proof.h"
#include "memory_target.h"

namespace kelvane {
namespace {

format_settings format_of(const plan_images& images, const plan& planned, const plan_rules& rules) {
  format_settings settings;
  settings.version = rules.format;
  settings.big_endian = planned.order == ByteOrder::kBig;
  settings.memory_mode = images.memory != nullptr;
  return settings;
}

uint32_t checksum_of(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  bd_checksum(bytes.data(), static_cast<uint32_t>(bytes.size()), &sum);
  return sum;
}

// What stands around the commands.
patch_commands frame_of(const plan_images& images) {
  patch_commands frame;
  if (images.memory != nullptr) {
    const memory_target& memory = *images.memory;
    frame.regions1 = memory.old_regions;
    frame.regions2 = memory.new_regions;
    frame.checksum1 = memory.old_checksum;
    frame.checksum2 = memory.new_checksum;
  }
  return frame;
}

patch_header header_of(const plan_images& images) {
  if (images.memory != nullptr) {
    return images.memory->header;
  }
  patch_header header;
  header.old_checksum = checksum_of(images.old_image);
  header.new_checksum = checksum_of(images.new_image);
  header.old_size = static_cast<uint32_t>(images.old_image.size());
  header.new_size = static_cast<uint32_t>(images.new_image.size());
  return header;
}

// Memory that holds the old image, with room for the larger of both and a guard on either side.
struct guarded_memory {
  static constexpr uint32_t kGuardBytes = 64;
  static constexpr uint8_t kGuard = 0xA5;
  std::vector<uint8_t> bytes;

  explicit guarded_memory(const plan_images& images) {
    const size_t room = std::max(images.old_image.size(), images.new_image.size());
    bytes.assign(room + 2 * size_t{kGuardBytes}, kGuard);
    std::copy(images.old_image.begin(), images.old_image.end(), bytes.begin() + kGuardBytes);
  }
  uint32_t room() const { return static_cast<uint32_t>(bytes.size()) - 2 * kGuardBytes; }
  bool has_guards() const {
    const auto is_guard = [](uint8_t byte) { return byte == kGuard; };
    return std::all_of(bytes.begin(), bytes.begin() + kGuardBytes, is_guard) &&
           std::all_of(bytes.end() - kGuardBytes, bytes.end(), is_guard);
  }
};

int read_memory(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  const auto& memory = *static_cast<const guarded_memory*>(context);
  std::copy_n(memory.bytes.begin() + guarded_memory::kGuardBytes + address, count, bytes);
  return 0;
}

int write_memory(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
  auto& memory = *static_cast<guarded_memory*>(context);
  std::copy_n(bytes, count, memory.bytes.begin() + guarded_memory::kGuardBytes + address);
  return 0;
}

}  // namespace

patch_commands commands_of(const plan_images& images, const plan& planned) {
  patch_commands commands = frame_of(images);
  const auto address_of = [&](uint32_t place) { return target_address(images, place); };
  for (const moved_block& block : planned.moves) {
    const uint32_t source = address_of(block.source);
    commands.blocks.push_back(
        {source, block.length, static_cast<int32_t>(address_of(block.destination) - source)});
  }
  const uint8_t* const new_bytes = images.new_image.data();
  for (const planned_store& store : planned.stores) {
    if (store.kind == store_kind::compressed) {
      commands.compressed.push_back({address_of(store.address), store.packed_size,
                                     planned.packed.data() + store.packed_begin});
    } else {
      (store.kind == store_kind::single ? commands.single_bytes : commands.substitutions)
          .push_back({address_of(store.address), store.size, new_bytes + store.address});
    }
  }
  for (const planned_fill& fill : planned.fills) {
    commands.fills.push_back(
        {address_of(fill.address), static_cast<uint16_t>(fill.size), fill.value});
  }
  for (const planned_class& of : planned.classes) {
    increment_class words = {of.value, {}};
    words.addresses.reserve(of.count);
    for (const uint32_t word : std::span(planned.words).subspan(of.begin, of.count)) {
      words.addresses.push_back(address_of(word * 4));
    }
    commands.increments.push_back(std::move(words));
  }
  return commands;
}

plan_cost cost_of_plan(const plan_images& images, const plan& planned, const plan_rules& rules) {
  const patch_commands commands = commands_of(images, planned);
  const format_settings settings = format_of(images, planned, rules);
  plan_cost cost;
  cost.header = size_of_patch(frame_of(images), settings) - cost_of_blocks(0);
  cost.moves = cost_of_blocks(commands.blocks.size());
  cost.plain_stores = cost_of_stores(commands.substitutions, settings);
  cost.packed_stores = cost_of_stores(commands.compressed, settings);
  cost.single_stores = cost_of_single_bytes(commands.single_bytes, settings);
  cost.fills = cost_of_fills(commands.fills.size());
  cost.increments = cost_of_increments(commands.increments);
  return cost;
}

std::vector<uint8_t> write_plan(const plan_images& images, const plan& planned,
                                const plan_rules& rules) {
  return write_patch(commands_of(images, planned), header_of(images),
                     format_of(images, planned, rules));
}

std::string fault_of_patch(const plan_images& images, const std::vector<uint8_t>& patch,
                           ByteOrder order) {
  if (images.memory != nullptr) {
    return fault_of_memory_patch(images, patch, order);
  }
  kelvane_applier applier = {};
  const uint32_t flags =
      order == ByteOrder::kBig ? KELVANE_V0_BIG_ENDIAN : KELVANE_V0_LITTLE_ENDIAN;
  int code = kelvane_apply_open(&applier, patch.data(), static_cast<uint32_t>(patch.size()), flags);
  guarded_memory memory(images);
  if (code == KELVANE_APPLY_OK) {
    const kelvane_region room = {0, memory.room()};
    const kelvane_memory target = {
        &memory, read_memory, write_memory,
        &room,   1,           static_cast<uint32_t>(images.old_image.size()),
        0};
    // The bytes are compared, so their checksum needn't be.
    code = kelvane_apply_run(&applier, &target, KELVANE_SKIP_NEW);
  }
  if (code != KELVANE_APPLY_OK) {
    return std::string(kelvane_apply_text(code)) + ", at offset " +
           std::to_string(applier.error_position);
  }
  if (!memory.has_guards()) {
    return "it writes outside the image";
  }
  const auto result = memory.bytes.begin() + guarded_memory::kGuardBytes;
  const auto place = std::mismatch(images.new_image.begin(), images.new_image.end(), result).first;
  if (place != images.new_image.end()) {
    return "its result differs from the new image at offset " +
           std::to_string(place - images.new_image.begin());
  }
  return {};
}

}  // namespace kelvane
