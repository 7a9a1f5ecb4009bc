#include "patch_show.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>

#include "printable.h"

namespace kelpatch {
namespace {

struct Kind {
  const char* name;
  const char* unit;  // what the count of a command counts
};

// Indexed by the code of the command.
constexpr std::array<Kind, 8> kKinds = {{
    {"", ""},
    {"CM_SUBSTITUTE", "list"},
    {"CM_SUB_ONE", "list"},
    {"CM_MOVE", "block"},
    {"CM_CHECKSUM", "region"},
    {"CM_SUB_COMP", "list"},
    {"CM_FILL", "fill"},
    {"CM_INCRS", "byte"},
}};

// The kinds in the order in which a patch has them.
constexpr std::array<uint8_t, 7> kTableOrder = {
    KELVANE_CM_CHECKSUM, KELVANE_CM_MOVE, KELVANE_CM_SUBSTITUTE, KELVANE_CM_SUB_COMP,
    KELVANE_CM_SUB_ONE,  KELVANE_CM_FILL, KELVANE_CM_INCRS};

struct Total {
  uint64_t commands = 0;
  uint64_t changes = 0;
  uint64_t patch_bytes = 0;
  uint64_t target_bytes = 0;
};

struct Listing {
  const ShownImages& images;
  const uint8_t* patch;
  std::array<Total, kKinds.size()> totals;
  uint8_t command;  // at hand, which begins at
  uint32_t begin;
};

std::string in_section(const MemoryImage* image, uint32_t address) {
  const MemorySection* const section = image == nullptr ? nullptr : image->holding(address);
  return section == nullptr ? "" : " in " + printable(section->name);
}

// An address, with the name of its section. What a patch stores stands in the new image.
std::string new_place(const ShownImages& images, uint32_t address) {
  return formatted("0x%" PRIx32, address) + in_section(images.new_image, address);
}

std::string old_place(const ShownImages& images, uint32_t address) {
  const MemoryImage* const image = images.old_image;
  const std::string text = formatted("0x%" PRIx32, address);
  const bool is_swap = image != nullptr && address - image->heap().address < image->heap().size;
  return text + (is_swap ? " in the swap region" : in_section(image, address));
}

// Where a block goes: to its place in the new image, in the old one, or out of the way.
std::string moved_place(const ShownImages& images, uint32_t address) {
  const std::string old_text = old_place(images, address);
  return old_text.find(" in ") != std::string::npos ? old_text : new_place(images, address);
}

std::string counted(uint32_t count, const char* unit) {
  return formatted("%" PRIu32 " %s%s", count, unit, count == 1 ? "" : "s");
}

std::string hexadecimal(const kelvane_item& item, const uint8_t* data) {
  constexpr uint32_t kShown = 16;
  std::string text;
  for (uint32_t i = 0; i < std::min(item.count, kShown); ++i) {
    text += formatted(" %02x", data[i]);
  }
  return item.count > kShown ? text + " ..." : text;
}

void show_store(const ShownImages& images, const kelvane_item& item, const uint8_t* bytes) {
  const std::string data = hexadecimal(item, bytes);
  const std::string place = new_place(images, item.address);
  if (item.command == KELVANE_CM_SUB_ONE) {
    std::printf("    store 0x%02x at %s\n", bytes[0], place.c_str());
  } else if (item.command == KELVANE_CM_SUB_COMP) {
    std::printf("    expand %s to %s at %s:%s\n", counted(item.count, "byte").c_str(),
                counted(item.size, "byte").c_str(), place.c_str(), data.c_str());
  } else {
    std::printf("    store %s at %s:%s\n", counted(item.size, "byte").c_str(), place.c_str(),
                data.c_str());
  }
}

// Ends the command at hand.
void end_command(Listing& listing, uint32_t position) {
  listing.totals[listing.command].patch_bytes += position - listing.begin;
  listing.begin = position;
}

void show_item(Listing& listing, const kelvane_item& item) {
  const ShownImages& images = listing.images;
  Total& total = listing.totals[item.command];
  const Kind& kind = kKinds[item.command];
  const auto signed_value = static_cast<int32_t>(item.value);
  switch (item.kind) {
    case KELVANE_ITEM_COMMAND:
      ++total.commands;
      std::printf("%s%s, %s\n", kind.name,
                  item.command != KELVANE_CM_CHECKSUM ? ""
                  : item.after != 0                   ? " of the new contents"
                                                      : " of the old contents",
                  counted(item.count, kind.unit).c_str());
      break;
    case KELVANE_ITEM_LIST:
      if (item.relative != 0) {
        std::printf("  relative list from 0x%" PRIx32 ", %s\n", item.address,
                    counted(item.count, "command").c_str());
      } else {
        std::printf("  absolute list, %s\n", counted(item.count, "command").c_str());
      }
      break;
    case KELVANE_ITEM_MOVE:
      std::printf("  move %s from %s to %s (%+" PRId32 ")\n", counted(item.size, "byte").c_str(),
                  old_place(images, item.address).c_str(),
                  moved_place(images, item.address + item.value).c_str(), signed_value);
      break;
    case KELVANE_ITEM_STORE:
      show_store(images, item, listing.patch + item.value);
      break;
    case KELVANE_ITEM_FILL:
      std::printf("  fill %s at %s with 0x%02" PRIx32 "\n", counted(item.size, "byte").c_str(),
                  new_place(images, item.address).c_str(), item.value);
      break;
    case KELVANE_ITEM_CLASS:
      std::printf("  class of %" PRId32 " (0x%08" PRIx32 "), map 0x%06" PRIx32 "\n", signed_value,
                  item.value, item.count);
      break;
    case KELVANE_ITEM_INCREMENT:
      std::printf("    add %" PRId32 " to the word at %s\n", signed_value,
                  new_place(images, item.address).c_str());
      break;
    case KELVANE_ITEM_REGION:
      std::printf("  region of %s at %s\n", counted(item.size, "byte").c_str(),
                  (item.after != 0 ? new_place : old_place)(images, item.address).c_str());
      break;
    case KELVANE_ITEM_CHECKSUM:
      std::printf("  checksum 0x%08" PRIx32 "\n", item.value);
      break;
    default:
      break;
  }
  if (item.kind == KELVANE_ITEM_MOVE || item.kind == KELVANE_ITEM_STORE ||
      item.kind == KELVANE_ITEM_FILL || item.kind == KELVANE_ITEM_INCREMENT ||
      item.kind == KELVANE_ITEM_REGION) {
    ++total.changes;
    total.target_bytes += item.size;
  }
}

void show_header(PatchFile& patch, ByteOrder order) {
  const kelvane_patch_info& info = patch.info();
  const char* remark = "";
  const char* mode = info.memory_mode != 0 ? "memory mode" : "file mode";
  if (info.version == 0) {
    remark = order == ByteOrder::kFound ? " (found from the sizes)" : " (as told)";
    if (info.memory_mode == 0 && patch.check_files() == KELVANE_APPLY_OUTSIDE) {
      mode = "memory mode (addresses outside both files)";
    }
  }
  std::printf("version %d, %s, %s%s, %s\n", info.version, mode,
              info.big_endian != 0 ? "big-endian" : "little-endian", remark,
              counted(patch.size(), "byte").c_str());
  if (info.version != 0 && info.memory_mode != 0) {
    std::printf("old start-up code at 0x%" PRIx32 "\nnew start-up code at 0x%" PRIx32 "\n",
                info.old_crt1, info.new_crt1);
  } else {
    std::printf("old file: %s, checksum 0x%08" PRIx32 "\n", counted(info.old_size, "byte").c_str(),
                info.old_checksum);
    std::printf("new file: %s, checksum 0x%08" PRIx32 "\n", counted(info.new_size, "byte").c_str(),
                info.new_checksum);
  }
  std::printf("\n");
}

void show_row(const char* name, const Total& total) {
  std::printf("%-14s %9" PRIu64 " %9" PRIu64 " %12" PRIu64 " %13" PRIu64 "\n", name, total.commands,
              total.changes, total.patch_bytes, total.target_bytes);
}

}  // namespace

void show_patch(PatchFile& patch, ByteOrder order, const ShownImages& images) {
  Listing listing = {images, patch.applier()->patch.bytes, {}, 0, 0};
  show_header(patch, order);
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, patch.applier());
  while (kelvane_item_next(&cursor, &item) != 0) {
    if (item.kind == KELVANE_ITEM_COMMAND) {
      end_command(listing, patch.applier()->error_position);
      listing.command = item.command;
    }
    show_item(listing, item);
  }
  end_command(listing, patch.size());
  std::printf("\nkind            commands     items  patch bytes  target bytes\n");
  Total all;
  all.patch_bytes = listing.totals[0].patch_bytes;
  show_row("header", all);
  for (const uint8_t command : kTableOrder) {
    const Total& total = listing.totals[command];
    if (total.commands != 0) {
      show_row(kKinds[command].name, total);
      all.commands += total.commands;
      all.changes += total.changes;
      all.patch_bytes += total.patch_bytes;
      all.target_bytes += total.target_bytes;
    }
  }
  show_row("total", all);
}

}  // namespace kelpatch
