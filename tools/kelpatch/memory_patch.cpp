#include "memory_patch.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <set>
#include <utility>

#include "output_file.h"
#include "patch_verify.h"

namespace kelpatch {
namespace {

constexpr uint32_t kPiece = 65536;

// What the two checksum commands of a patch cover.
struct Frame {
  std::vector<kelvane_region> before;
  std::vector<kelvane_region> after;
};

Frame frame_of(PatchFile& patch) {
  Frame frame;
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, patch.applier());
  while (kelvane_item_next(&cursor, &item) != 0) {
    if (item.kind == KELVANE_ITEM_REGION) {
      (item.after != 0 ? frame.after : frame.before).push_back({item.address, item.size});
    }
  }
  return frame;
}

int read_bytes(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  static_cast<const TargetMemory*>(context)->read(address, bytes, count);
  return 0;
}

int write_bytes(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
  static_cast<TargetMemory*>(context)->write(address, bytes, count);
  return 0;
}

// The memory that a patch may touch.
class Room {
 public:
  // Words are changed whole, so a range reaches to their ends.
  void add(uint32_t address, uint32_t size) {
    if (size == 0) {
      return;
    }
    const uint32_t start = address & ~3U;
    const uint64_t end = (uint64_t{address} + size + 3) & ~uint64_t{3};
    ranges_.push_back({start, static_cast<uint32_t>(end - start)});
  }

  // All of it, in ascending order and with ranges that meet joined.
  const std::vector<kelvane_region>& joined() {
    std::sort(ranges_.begin(), ranges_.end(), [](const kelvane_region& a, const kelvane_region& b) {
      return a.address < b.address;
    });
    std::vector<kelvane_region> joined;
    uint64_t end = 0;
    for (const kelvane_region& range : ranges_) {
      const uint64_t range_end = uint64_t{range.address} + range.size;
      if (joined.empty() || range.address > end) {
        joined.push_back(range);
        end = range_end;
      } else if (range_end > end) {
        end = range_end;
        joined.back().size = static_cast<uint32_t>(end - joined.back().address);
      }
    }
    ranges_ = std::move(joined);
    return ranges_;
  }

 private:
  std::vector<kelvane_region> ranges_;
};

void check_file(const char* which, const MemoryImage& image, const PatchFile& patch, uint32_t size,
                uint32_t checksum) {
  const Bytes& file = image.file();
  const auto file_size = static_cast<uint32_t>(file.size());
  if (file_size != size || kelvane_apply_checksum(0, file.data(), file_size) != checksum) {
    mismatch("'%s' is not the %s file of '%s'", image.name().c_str(), which, patch.name().c_str());
  }
}

// Carries out the patch in the memory.
void run_patch(PatchFile& patch, const MemoryImage& old_image, TargetMemory& target, Room& room) {
  const std::vector<kelvane_region>& regions = room.joined();
  const kelvane_memory memory = {&target,
                                 read_bytes,
                                 write_bytes,
                                 regions.data(),
                                 static_cast<uint32_t>(regions.size()),
                                 KELVANE_SIZE_UNKNOWN,
                                 0};
  const int code = kelvane_apply_run(patch.applier(), &memory, KELVANE_SKIP_NEW);
  const kelvane_applier& applier = *patch.applier();
  if (code == KELVANE_APPLY_OUTSIDE) {
    fatal("'%s' reaches the address 0x%" PRIx32 " (at offset %" PRIu32
          "), outside the sections and the swap region",
          patch.name().c_str(), applier.error_address, applier.error_position);
  }
  if (code != KELVANE_APPLY_OK) {
    mismatch("'%s' was not made for the memory of '%s': %s", patch.name().c_str(),
             old_image.name().c_str(), kelvane_apply_text(code));
  }
}

void verify_new_checksum(PatchFile& patch, TargetMemory& target, Room& room) {
  const std::vector<kelvane_region>& regions = room.joined();
  const kelvane_memory memory = {&target,
                                 read_bytes,
                                 write_bytes,
                                 regions.data(),
                                 static_cast<uint32_t>(regions.size()),
                                 KELVANE_SIZE_UNKNOWN,
                                 0};
  if (kelvane_apply_verify_new(patch.applier(), &memory) != KELVANE_APPLY_OK) {
    mismatch("the new contents have not the checksum that '%s' states for them",
             patch.name().c_str());
  }
}

uint8_t byte_of(const MemorySection& section, uint32_t offset) {
  return offset < section.contents.size() ? section.contents[offset] : uint8_t{0};
}

void compare_section(const MemorySection& section, const TargetMemory& target,
                     const std::string& patch_name) {
  Bytes bytes(std::min(kPiece, section.size));
  for (uint32_t done = 0; done < section.size; done += static_cast<uint32_t>(bytes.size())) {
    const auto count = static_cast<uint32_t>(std::min<size_t>(bytes.size(), section.size - done));
    target.read(section.address + done, bytes.data(), count);
    for (uint32_t i = 0; i < count; ++i) {
      const uint8_t wanted = byte_of(section, done + i);
      if (bytes[i] != wanted) {
        mismatch("section '%s' differs from the result of '%s' at 0x%" PRIx32
                 ": it has 0x%02x, not 0x%02x",
                 section.name.c_str(), patch_name.c_str(), section.address + done + i, wanted,
                 bytes[i]);
      }
    }
  }
}

// The regions of a checksum have to be those of the sections, no less.
void check_coverage(const char* which, const std::vector<kelvane_region>& regions,
                    const std::vector<const MemorySection*>& sections, const PatchFile& patch) {
  std::set<std::pair<uint32_t, uint32_t>> covered;
  for (const kelvane_region& region : regions) {
    covered.emplace(region.address, region.size);
  }
  for (const MemorySection* const section : sections) {
    if (section->size != 0 && covered.count({section->address, section->size}) == 0) {
      mismatch("the checksum of the %s contents in '%s' leaves out section '%s'", which,
               patch.name().c_str(), section->name.c_str());
    }
  }
}

std::string file_name(uint32_t address) {
  return formatted("%08" PRIx32 ".bin", address);
}

void write_range(OutputFile& output, const TargetMemory& target, uint32_t address, uint32_t size) {
  Bytes bytes;
  for (uint32_t done = 0; done < size; done += static_cast<uint32_t>(bytes.size())) {
    bytes.resize(std::min(kPiece, size - done));
    target.read(address + done, bytes.data(), static_cast<uint32_t>(bytes.size()));
    output.write(bytes);
  }
}

void check_output_size(uint64_t size, const MemoryImage& image, const MemoryOutput& output,
                       const PatchFile& patch) {
  const uint32_t most =
      output.max_size.value_or(usual_max_size(static_cast<uint32_t>(image.file().size())));
  if (size > most) {
    fatal("'%s' leaves %" PRIu64 " bytes, more than %" PRIu32
          "; if that is right, allow it by --max-size",
          patch.name().c_str(), size, most);
  }
}

void write_image(const TargetMemory& target, const Frame& frame, uint32_t base,
                 const std::string& name) {
  uint64_t end = base;
  for (const kelvane_region& region : frame.after) {
    end = std::max(end, uint64_t{region.address} + region.size);
  }
  OutputFile file(name);
  write_range(file, target, base, static_cast<uint32_t>(end - base));
  file.keep();
}

void write_sections(const TargetMemory& target, const Frame& frame, const std::string& folder) {
  if (::mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
    fatal_errno("unable to make folder '%s'", folder.c_str());
  }
  for (const kelvane_region& region : frame.after) {
    OutputFile file(folder + "/" + file_name(region.address));
    write_range(file, target, region.address, region.size);
    file.keep();
  }
}

}  // namespace

PatchFile open_memory_patch(const std::string& name, const MemoryImage& image) {
  PatchFile patch(name, image.big_endian() ? ByteOrder::kBig : ByteOrder::kLittle, {}, true);
  const kelvane_patch_info& info = patch.info();
  if (info.memory_mode == 0) {
    fatal("'%s' is a patch for a file, not for target memory", name.c_str());
  }
  if ((info.big_endian != 0) != image.big_endian()) {
    mismatch("'%s' has not the byte order of '%s'", name.c_str(), image.name().c_str());
  }
  return patch;
}

void verify_memory(const std::string& old_name, const std::string& new_name,
                   const std::string& patch_name, const ImageOptions& options) {
  const MemoryImage old_image(old_name, options);
  const MemoryImage new_image(new_name, options);
  PatchFile patch = open_memory_patch(patch_name, old_image);
  const kelvane_patch_info& info = patch.info();
  if (info.version == 0) {
    check_file("old", old_image, patch, info.old_size, info.old_checksum);
    check_file("new", new_image, patch, info.new_size, info.new_checksum);
  }
  TargetMemory target;
  Room room;
  std::vector<const MemorySection*> old_sections;
  std::vector<const MemorySection*> new_sections;
  for (const MemorySection& section : new_image.sections()) {
    const MemorySection* const partner = old_image.find(section.name);
    if (partner == nullptr) {
      mismatch("section '%s' of '%s' is missing in '%s'", section.name.c_str(), new_name.c_str(),
               old_name.c_str());
    }
    old_sections.push_back(partner);
    new_sections.push_back(&section);
    target.load(*partner);
    room.add(partner->address, partner->size);
    room.add(section.address, section.size);
  }
  room.add(old_image.heap().address, old_image.heap().size);
  if (info.version != 0) {
    const Frame frame = frame_of(patch);
    check_coverage("old", frame.before, old_sections, patch);
    check_coverage("new", frame.after, new_sections, patch);
  }
  run_patch(patch, old_image, target, room);
  for (const MemorySection* const section : new_sections) {
    compare_section(*section, target, patch_name);
  }
  verify_new_checksum(patch, target, room);
}

void apply_memory(const std::string& old_name, const std::string& patch_name,
                  const MemoryOutput& output, const ImageOptions& options) {
  refuse_inputs(output.name, {old_name, patch_name});
  const MemoryImage old_image(old_name, options);
  PatchFile patch = open_memory_patch(patch_name, old_image);
  if (patch.info().version == 0) {
    fatal("'%s' is of version 0 and does not tell which memory it leaves", patch_name.c_str());
  }
  const Frame frame = frame_of(patch);
  uint64_t size = 0;
  uint64_t end = output.base.value_or(0);
  for (const kelvane_region& region : frame.after) {
    if (output.base && region.address < *output.base) {
      fatal("'%s' leaves a section at 0x%" PRIx32 ", below the base address 0x%" PRIx32,
            patch_name.c_str(), region.address, *output.base);
    }
    size += region.size;
    end = std::max(end, uint64_t{region.address} + region.size);
  }
  check_output_size(output.base ? end - *output.base : size, old_image, output, patch);
  TargetMemory target;
  Room room;
  for (const MemorySection& section : old_image.sections()) {
    target.load(section);
  }
  for (const std::vector<kelvane_region>* const regions : {&frame.before, &frame.after}) {
    for (const kelvane_region& region : *regions) {
      room.add(region.address, region.size);
    }
  }
  room.add(old_image.heap().address, old_image.heap().size);
  run_patch(patch, old_image, target, room);
  verify_new_checksum(patch, target, room);
  if (output.base) {
    write_image(target, frame, *output.base, output.name);
  } else {
    write_sections(target, frame, output.name);
  }
}

}  // namespace kelpatch
