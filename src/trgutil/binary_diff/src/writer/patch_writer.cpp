// The patch file, piece by piece. docs/patch-format.md describes it with examples.
//
//   version 0: checksums and sizes of both files; the command set
//   version 1: structured file header (20 bytes, big-endian); version; in file mode checksums and
//              sizes of both files; size of the patch from the version word on; checksum of all
//              that follows; in memory mode the two crt1 and CM_CHECKSUM of the old memory; the
//              command set; in memory mode CM_CHECKSUM of the new memory
//
// The command set is CM_MOVE, always, then each kind that there is: CM_SUBSTITUTE, CM_SUB_COMP,
// CM_SUB_ONE, CM_FILL, CM_INCRS. Moves come first because they are told in old addresses. Nothing
// is padded, and there is no end mark.
//
// CM_SUBSTITUTE, CM_SUB_COMP and CM_SUB_ONE share a form: a count of lists, and the lists. The
// first is absolute and may be empty; all others are relative, which a reader knows from their
// place. A relative list has a base address, and each of its commands the distance from the command
// before it, in a byte.
//
// Counts have 16 bits. A command whose items go beyond that is written again with the rest, which
// an applier needs no word about, since it takes commands as they come.
#include "patch_writer.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdio>
#include <string>
#include <utility>

#include "bd_checksum.h"
#include "command_lists.h"
#include "debug_print.h"
#include "exit_status.h"
#include "indgadr.h"
#include "indgen_message.h"
#include "indgfile_internal.h"
#include "patch_writer_internal.h"

namespace kelvane {

namespace {

constexpr size_t kMaxItems = kMaxCount;
constexpr size_t kMaxRelativeLists = kMaxItems - 1;  // beside the absolute list

// Number of commands that it takes to write `count` items of at most `most` each; at least 1.
size_t commands_for(size_t count, size_t most = kMaxItems) {
  return std::max<size_t>(1, count / most + (count % most != 0 ? 1 : 0));
}

void warn_of_repetition(const output_buffer& out, const char* name, size_t commands) {
  if (out.trace && commands > 1) {
    gen_warning("%s takes %d commands in this patch", name, static_cast<int32_t>(commands));
  }
}

void print_written(const output_buffer& out, uint32_t position) {
  if (out.trace) {
    dprintf(2, " size: %#x - %#x", position, out.pos());
  }
}

// Prints written bytes in lines of 16.
void dump_bytes(const uint8_t* bytes, uint32_t count) {
  constexpr uint32_t kBytesOfLine = 16;
  constexpr uint32_t kHalfLine = 8;
  for (uint32_t start = 0; start < count; start += kBytesOfLine) {
    std::string line = "  ";
    for (uint32_t i = start; i < std::min(count, start + kBytesOfLine); ++i) {
      std::array<char, 4> text{};
      std::snprintf(text.data(), text.size(), " %.2x", bytes[i]);
      line += text.data();
      if (i - start == kHalfLine - 1) {
        line += ' ';
      }
    }
    dprintf(4, "%s", line.c_str());
  }
}

void trace_store(const byte_store& store, uint32_t flags) {
  if ((flags & CL_NO_SIZE) != 0) {
    dprintf(2, " <%#x>", store.address);
  } else {
    dprintf(2, " <%#x, %#x>", store.address, store.size);
  }
  if (debug_level >= 4) {
    dump_bytes(store.bytes, store.size);
  }
}

void write_store(output_buffer* out, const byte_store& store, uint32_t previous_address,
                 uint32_t flags) {
  const bool relative = (flags & CL_RELATIVE) != 0;
  if (relative) {
    out->put_byte(store.address - previous_address);
  } else {
    out->put_word(store.address);
  }
  if ((flags & CL_NO_SIZE) == 0) {
    if (relative) {
      out->put_byte(store.size);
    } else {
      out->put_word(store.size);
    }
  }
  out->put_data(store.bytes, store.size);
  if (out->trace) {
    trace_store(store, flags);
  }
}

const char* name_of(uint8_t code) {
  switch (code) {
    case CM_SUBSTITUTE:
      return "CM_SUBSTITUTE";
    case CM_SUB_COMP:
      return "CM_SUB_COMP";
    default:
      return "CM_SUB_ONE";
  }
}

// All commands of a patch, from CM_MOVE on.
void write_command_set(output_buffer* out, const patch_commands& commands, bool relative_lists) {
  out->put_byte(CM_MOVE);
  write_blocks(out, commands.blocks);
  write_stores(out, CM_SUBSTITUTE, commands.substitutions, 0, relative_lists);
  write_stores(out, CM_SUB_COMP, commands.compressed, 0, relative_lists);
  write_stores(out, CM_SUB_ONE, commands.single_bytes, CL_NO_SIZE, relative_lists);
  write_fills(out, commands.fills);
  const std::vector<uint8_t> stream = encode_increments(commands.increments);
  if (!stream.empty()) {
    out->put_byte(CM_INCRS);
    out->put_word(static_cast<uint32_t>(stream.size()));
    out->put_data(stream.data(), static_cast<uint32_t>(stream.size()));
  }
}

// What the sink counts for `write`.
template <typename Write>
size_t counted(Write write) {
  output_buffer counter;
  write(&counter);
  return counter.pos();
}

// A buffer that goes away with the object.
struct MemoryOutput : output_buffer {
  MemoryOutput() { use_memory(); }
  ~MemoryOutput() { drop(); }
  MemoryOutput(const MemoryOutput&) = delete;
  MemoryOutput& operator=(const MemoryOutput&) = delete;
};

bool has_single_bytes_only(std::span<const byte_store> stores) {
  return std::all_of(stores.begin(), stores.end(),
                     [](const byte_store& store) { return store.size == 1; });
}

}  // namespace

void require_known_version(int32_t patch_version) {
  if (patch_version != 0 && patch_version != 1) {
    gen_errorexit(kStatusFailure, "unsupported patch version %d", patch_version);
  }
}

divided_stores divide_stores(std::span<const byte_store> stores, bool relative_lists, bool trace) {
  const auto within_reach = [stores](size_t i) {
    return i + 1 < stores.size() && stores[i + 1].size < kRelativeReach &&
           stores[i + 1].address - stores[i].address < kRelativeReach;
  };
  const auto told = [stores, trace](size_t i, const char* list) {
    if (trace) {
      dprintf(3, "  add %s(%p)", list, address_for_print(stores[i].address));
    }
    return i;
  };
  divided_stores divided;
  for (size_t i = 0; i < stores.size();) {
    if (!relative_lists || stores[i].size >= kRelativeReach || !within_reach(i)) {
      divided.absolute.push_back(stores[told(i++, "abs")]);
      continue;
    }
    const size_t start = i;
    while (within_reach(i) && i - start + 1 < kMaxItems) {
      told(i++, "rel");
    }
    told(i++, "rel");
    divided.relative.push_back(stores.subspan(start, i - start));
  }
  return divided;
}

void write_blocks(output_buffer* out, std::span<const move_block> blocks) {
  warn_of_repetition(*out, "CM_MOVE", commands_for(blocks.size()));
  bool again = false;
  do {
    if (again) {
      out->put_byte(CM_MOVE);
    }
    again = true;
    const auto here = blocks.first(std::min(blocks.size(), kMaxItems));
    out->put_half(static_cast<uint32_t>(here.size()));
    if (out->trace) {
      dprintf(2, "num_blocks=%i", static_cast<int32_t>(here.size()));
    }
    for (const move_block& block : here) {
      const auto shift = static_cast<uint32_t>(block.shift);
      out->put_word(block.source);
      out->put_word(block.size);
      out->put_word(shift);
      if (out->trace) {
        dprintf(2, " memmove(%#x, %#x, %#x)", block.source + shift, block.source, block.size);
      }
    }
    blocks = blocks.subspan(here.size());
  } while (!blocks.empty());
}

void write_list(output_buffer* out, std::span<const byte_store> stores, uint32_t flags) {
  assert(stores.size() <= kMaxItems);
  const bool relative = (flags & CL_RELATIVE) != 0;
  const uint32_t position = out->trace ? out->pos() : 0;
  out->put_half(static_cast<uint32_t>(stores.size()));
  if (out->trace) {
    dprintf(2, "num_commands=%i%s", static_cast<int32_t>(stores.size()), relative ? " (rel)" : "");
  }
  uint32_t previous_address = 0;
  if (relative) {
    previous_address = stores.front().address;
    out->put_word(previous_address);
  }
  for (const byte_store& store : stores) {
    write_store(out, store, previous_address, flags);
    previous_address = store.address;
  }
  print_written(*out, position);
}

void write_stores(output_buffer* out, uint8_t code, std::span<const byte_store> stores,
                  uint32_t flags, bool relative_lists) {
  if (stores.empty()) {
    return;
  }
  if (out->trace) {
    dprintf(3, " generate_command_list");
  }
  const divided_stores divided = divide_stores(stores, relative_lists, out->trace);
  // The absolute list and the relative ones are used up together, command by command.
  std::span<const byte_store> absolute = divided.absolute;
  std::span<const std::span<const byte_store>> relative = divided.relative;
  warn_of_repetition(
      *out, name_of(code),
      std::max(commands_for(absolute.size()), commands_for(relative.size(), kMaxRelativeLists)));
  do {
    const size_t lists_here = std::min(relative.size(), kMaxRelativeLists);
    const size_t commands_here = std::min(absolute.size(), kMaxItems);
    out->put_byte(code);
    out->put_half(static_cast<uint32_t>(1 + lists_here));
    if (out->trace) {
      dprintf(2, "num_lists=%i", static_cast<int32_t>(1 + lists_here));
    }
    write_list(out, absolute.first(commands_here), flags);
    for (const std::span<const byte_store>& list : relative.first(lists_here)) {
      write_list(out, list, flags | CL_RELATIVE);
    }
    absolute = absolute.subspan(commands_here);
    relative = relative.subspan(lists_here);
  } while (!absolute.empty() || !relative.empty());
}

void write_fills(output_buffer* out, std::span<const fill_store> fills) {
  warn_of_repetition(*out, "CM_FILL", commands_for(fills.size()));
  while (!fills.empty()) {
    const auto here = fills.first(std::min(fills.size(), kMaxItems));
    const uint32_t position = out->trace ? out->pos() : 0;
    out->put_byte(CM_FILL);
    if (out->trace) {
      dprintf(2, "num_commands=%i", static_cast<int32_t>(here.size()));
    }
    out->put_half(static_cast<uint32_t>(here.size()));
    for (const fill_store& fill : here) {
      if (out->trace) {
        dprintf(2, " <%#x, %#x, %#.2x>", fill.address, fill.size, fill.value);
      }
      out->put_word(fill.address);
      out->put_half(fill.size);
      out->put_byte(fill.value);
    }
    print_written(*out, position);
    fills = fills.subspan(here.size());
  }
}

void write_checksum(output_buffer* out, std::span<const checksum_region> regions,
                    uint32_t checksum) {
  if (regions.empty()) {
    return;
  }
  out->put_byte(CM_CHECKSUM);
  out->put_word(static_cast<uint32_t>(regions.size()));
  if (out->trace) {
    dprintf(2, "num_regions=%i", static_cast<int32_t>(regions.size()));
  }
  for (const checksum_region& region : regions) {
    const uint32_t end = region.address + region.size;
    out->put_word(region.address);
    out->put_word(end);
    if (out->trace) {
      dprintf(2, " range=%p - %p", address_for_print(region.address), address_for_print(end - 1));
    }
  }
  out->put_word(checksum);
  if (out->trace) {
    dprintf(2, " checksum=%#x", checksum);
  }
}

void write_files(output_buffer* out, const patch_header& header) {
  out->put_word(header.old_checksum);
  out->put_word(header.new_checksum);
  out->put_word(header.old_size);
  out->put_word(header.new_size);
}

patch_frame begin_frame(output_buffer* out, const patch_header& header, bool memory_mode) {
  patch_frame frame{};
  frame.start = out->pos();
  out->put_word(1);
  if (!memory_mode) {
    write_files(out, header);
  }
  frame.size_position = out->pos();
  out->put_word(0);
  out->put_word(0);
  frame.body = out->pos();
  return frame;
}

void end_frame(output_buffer* out, const patch_frame& frame, uint32_t patch_size,
               uint32_t patch_checksum) {
  out->seek(frame.size_position);
  out->put_word(patch_size);
  out->put_word(patch_checksum);
}

std::vector<uint8_t> write_patch(patch_commands&& commands, const patch_header& header,
                                 const format_settings& settings) {
  require_known_version(settings.version);
  const patch_commands taken = std::move(commands);
  assert(has_single_bytes_only(taken.single_bytes));
  MemoryOutput out;
  out.big_endian = settings.big_endian;
  if (settings.version == 0) {
    write_files(&out, header);
    write_command_set(&out, taken, settings.relative_lists);
    return {out.bytes, out.bytes + out.size};
  }
  const gf_header file_header =
      make_gf_header(kPatchFileType, 0, gadr_encoding_from_mode(kPatchAddressMode), 0);
  out.put_data(file_header.data(), static_cast<uint32_t>(file_header.size()));
  const patch_frame frame = begin_frame(&out, header, settings.memory_mode);
  if (settings.memory_mode) {
    out.put_word(header.old_crt1);
    out.put_word(header.new_crt1);
    write_checksum(&out, taken.regions1, taken.checksum1);
  }
  write_command_set(&out, taken, settings.relative_lists);
  if (settings.memory_mode) {
    write_checksum(&out, taken.regions2, taken.checksum2);
  }
  uint32_t checksum = 0;
  bd_checksum(out.bytes + frame.body, out.size - frame.body, &checksum);
  end_frame(&out, frame, out.size - frame.start, checksum);
  return {out.bytes, out.bytes + out.size};
}

size_t cost_of_blocks(size_t count) {
  return kMoveCommandCost * commands_for(count) + kBlockCost * count;
}

size_t cost_of_stores(std::span<const byte_store> stores, const format_settings& settings) {
  return counted([&](output_buffer* counter) {
    write_stores(counter, CM_SUBSTITUTE, stores, 0, settings.relative_lists);
  });
}

size_t cost_of_single_bytes(std::span<const byte_store> stores, const format_settings& settings) {
  return counted([&](output_buffer* counter) {
    write_stores(counter, CM_SUB_ONE, stores, CL_NO_SIZE, settings.relative_lists);
  });
}

size_t cost_of_fills(size_t count) {
  return count == 0 ? 0 : kFillCommandCost * commands_for(count) + kFillCost * count;
}

size_t cost_of_increments(std::span<const increment_class> classes) {
  const uint32_t size = size_of_increments(classes);
  return size == 0 ? 0 : kIncrementCommandCost + size;
}

size_t size_of_patch(const patch_commands& commands, const format_settings& settings) {
  require_known_version(settings.version);
  const auto checksum = [](const std::vector<checksum_region>& regions) {
    return regions.empty() ? 0 : kChecksumCommandCost + kRegionCost * regions.size();
  };
  constexpr size_t kFilesSize = 16;
  constexpr size_t kFrameSize = 12;  // version, size, checksum
  constexpr size_t kCrt1Size = 8;
  size_t size = kFilesSize;
  if (settings.version > 0) {
    size = std::tuple_size_v<gf_header> + kFrameSize;
    size += settings.memory_mode
                ? kCrt1Size + checksum(commands.regions1) + checksum(commands.regions2)
                : kFilesSize;
  }
  return size + cost_of_blocks(commands.blocks.size()) +
         cost_of_stores(commands.substitutions, settings) +
         cost_of_stores(commands.compressed, settings) +
         cost_of_single_bytes(commands.single_bytes, settings) +
         cost_of_fills(commands.fills.size()) + cost_of_increments(commands.increments);
}

}  // namespace kelvane
