#include "diffout.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <utility>

#include "bd_checksum.h"
#include "binshared.h"
#include "block_moves.h"
#include "debug_print.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "increment_coder.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgfile.h"
#include "indview.h"
#include "patch_buffer.h"

namespace kelvane {

namespace {

constexpr uint32_t kPatchFileType = 7;  // of structured files
constexpr uint32_t kAddressMode = 2;    // 32-bit addresses
constexpr int32_t kLeastPatchSize = 20;

constexpr uint32_t kRelativeReach = 256;  // distances and sizes in a relative list fit a byte
constexpr int32_t kMaxRelativeLists = kMaxCount - 1;  // beside the absolute list

// Command lists that belong to the object, with their commands.
struct CommandLists {
  CommandLists() = default;
  ~CommandLists() { free_command_list(first); }
  CommandLists(const CommandLists&) = delete;
  CommandLists& operator=(const CommandLists&) = delete;

  command_list* first = nullptr;
  command_list* last = nullptr;
};

// Takes a list out of its variables.
command_record* taken(command_record** first, command_record** last) {
  *last = nullptr;
  return std::exchange(*first, nullptr);
}

[[noreturn]] void fail_to_open() {
  gen_errorexit(kStatusFailure, "gfile: could not open file for writing");
}

int32_t count_commands(const command_record* commands) {
  int32_t count = 0;
  for (; commands != nullptr; commands = commands->next) {
    ++count;
  }
  return count;
}

int32_t count_lists(const command_list* lists) {
  int32_t count = 0;
  for (; lists != nullptr; lists = lists->next) {
    ++count;
  }
  return count;
}

bool small(const command_record* command) {
  return command->size < static_cast<int32_t>(kRelativeReach);
}

// Whether `next` may follow `current` in a relative list.
bool within_reach(const command_record* current, const command_record* next) {
  return next != nullptr && next->address - current->address < kRelativeReach && small(next);
}

command_list* new_list(uint32_t flags, command_list** lists, command_list** last_list) {
  command_list* const list = gen_alloc_array<command_list>(1);
  list->flags = flags;
  return append_list(list, lists, last_list);
}

void move_to_list(command_record* command, command_list* list) {
  const bool relative = (list->flags & CL_RELATIVE) != 0;
  dprintf(3, "  add %s(%p)", relative ? "rel" : "abs", address_for_print(command->address));
  append_command(command, &list->first, &list->last);
  ++list->num_commands;
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

void output_command(const command_record* command, uint32_t previous_address, uint32_t flags) {
  const bool relative = (flags & CL_RELATIVE) != 0;
  const auto size = static_cast<uint32_t>(command->size);
  if (relative) {
    put_byte(command->address - previous_address);
  } else {
    put_word(command->address);
  }
  if ((flags & CL_NO_SIZE) != 0) {
    dprintf(2, " <%#x>", command->address);
  } else {
    if (relative) {
      put_byte(size);
    } else {
      put_word(size);
    }
    dprintf(2, " <%#x, %#x>", command->address, size);
  }
  put_data(command->data.bytes, size);
  if (debug_level >= 4) {
    dump_bytes(command->data.bytes, size);
  }
}

const char* name_of(uint32_t code) {
  switch (code) {
    case CM_SUBSTITUTE:
      return "CM_SUBSTITUTE";
    case CM_SUB_COMP:
      return "CM_SUB_COMP";
    default:
      return "CM_SUB_ONE";
  }
}

// Writes the crt1 word of one image.
void dump_crt1(const file_data* image) {
  if (image->crt1 == 0) {
    gen_errorexit(kStatusFailure, "could not find __qvr_ind_crt1() in '%s'", image->name);
  }
  dprintf(2, "%s: crt1: %p", image->name, address_for_print(image->crt1));
  put_word(image->crt1);
}

// The four words that describe both files whole.
void dump_files(const file_data* first, const file_data* second) {
  put_word(first->checksum);
  put_word(second->checksum);
  put_word(static_cast<uint32_t>(first->size));
  put_word(static_cast<uint32_t>(second->size));
}

}  // namespace

int32_t commands_for(int32_t count) {
  return std::max(1, count / kMaxCount + (count % kMaxCount != 0 ? 1 : 0));
}

void warn_of_repetition(const char* name, int32_t commands) {
  if (commands > 1) {
    gen_warning("%s takes %d commands in this patch", name, commands);
  }
}

void dump_to_file(const file_data* first, const file_data* second, const char* name) {
  file_ptr stream(gen_fopen(name, "w+"));
  if (stream == nullptr) {
    fail_to_open();
  }
  GFile handle;
  if (version > 0 && gf_open_for_write(&handle, stream.get(), nullptr, kPatchFileType, 0,
                                       kAddressMode, 0, 0) == nullptr) {
    fail_to_open();
  }
  set_output_file(stream.get());
  set_output_name(name);
  dump_commands(first, second);
  flush_output();
  set_output_file(nullptr);
  set_output_name(nullptr);
  if (version > 0) {
    gf_close(&handle);
  }
  if (std::fclose(stream.release()) != 0) {
    gen_perrorexit(kStatusFailure, "error writing patch file '%s'", name);
  }
}

void dump_commands(const file_data* first, const file_data* second) {
  dprintf(2, "%s", "");
  if (version == 0) {
    dump_commands_v0(first, second);
    return;
  }
  const uint32_t start = get_pos();
  put_word(static_cast<uint32_t>(version));
  if (fDiffMemory == 0) {
    dump_files(first, second);
  }
  const uint32_t size_position = get_pos();
  put_word(0);  // room for the size and the checksum of the patch
  put_word(0);
  const uint32_t body = get_pos();
  if (fDiffMemory != 0) {
    dump_crt1(first);
    dump_crt1(second);
  }
  dump_range_checksum(first_checksum1, checksum1);
  dump_command_set(0);
  dump_range_checksum(first_checksum2, checksum2);
  dprintf(2, "%s", "");
  const uint32_t patch_size = get_pos() - start;
  if (static_cast<int32_t>(patch_size) < kLeastPatchSize) {
    gen_errorexit(kStatusFailure, "internal: generated patch file is too small");
  }
  set_pos(body);
  const uint32_t body_size = patch_size - (body - start);
  uint32_t patch_checksum = 0;
  {
    const gen_ptr<uint8_t> bytes(get_data(body_size));
    bd_checksum(bytes.get(), body_size, &patch_checksum);
  }
  if (swap_trees != 0) {
    dprintf(1, "Memory Motion Trees: %d", swap_trees);
  }
  dprintf(1, "Patch size: %d  checksum: %#x", static_cast<int32_t>(patch_size), patch_checksum);
  set_pos(size_position);
  put_word(patch_size);
  put_word(patch_checksum);
}

void dump_commands_v0(const file_data* first, const file_data* second) {
  dump_files(first, second);
  dump_command_set(0);
}

int32_t dump_command_set(int32_t x) {
  put_byte(CM_MOVE);
  dprintf(2, "\nCM_MOVE");
  output_block_moves(taken(&first_move, &last_move));
  last_abs_move = nullptr;
  num_moves = 0;
  reject_some_sort_others(0);
  commit_rejections();
  dprintf(2, "\nCM_SUBSTITUTE");
  dump_sub_command(CM_SUBSTITUTE, taken(&first_sub, &last_sub), 0);
  dprintf(2, "\nCM_SUB_COMP");
  dump_sub_command(CM_SUB_COMP, taken(&first_sub_comp, &last_sub_comp), 0);
  dprintf(2, "\nCM_SUB_ONE");
  dump_sub_command(CM_SUB_ONE, taken(&first_sub_one, &last_sub_one), CL_NO_SIZE);
  const commands_ptr fills(taken(&first_fill, &last_fill));
  dump_fill_command(fills.get());
  output_increments();
  return x;
}

void dump_sub_command(uint32_t code, command_record* list, uint32_t flags) {
  if (list == nullptr) {
    return;
  }
  CommandLists lists;
  generate_command_list(list, &lists.first, &lists.last, flags);
  // The absolute list and the relative ones are used up together, command by command.
  const command_record* absolute = lists.first->first;
  const command_list* relative = lists.first->next;
  int32_t absolute_left = count_commands(absolute);
  int32_t relative_left = count_lists(relative);
  warn_of_repetition(name_of(code), std::max(commands_for(absolute_left),
                                             relative_left / kMaxRelativeLists +
                                                 (relative_left % kMaxRelativeLists != 0 ? 1 : 0)));
  do {
    const int32_t commands_here = std::min(absolute_left, kMaxCount);
    const int32_t lists_here = std::min(relative_left, kMaxRelativeLists);
    put_byte(code);
    put_half(static_cast<uint32_t>(1 + lists_here));
    dprintf(2, "num_lists=%i", 1 + lists_here);
    output_commands(absolute, static_cast<uint16_t>(commands_here), flags);
    for (int32_t i = 0; i < commands_here; ++i) {
      absolute = absolute->next;
    }
    for (int32_t i = 0; i < lists_here; ++i) {
      output_commands(relative->first, relative->num_commands, relative->flags);
      relative = relative->next;
    }
    absolute_left -= commands_here;
    relative_left -= lists_here;
  } while (absolute_left > 0 || relative_left > 0);
}

uint16_t generate_command_list(command_record* commands, command_list** lists,
                               command_list** last_list, uint32_t flags) {
  commands_ptr rest(commands);  // those that stand in no list yet
  dprintf(3, " generate_command_list");
  *lists = nullptr;
  *last_list = nullptr;
  command_list* const absolute = new_list(flags, lists, last_list);
  uint32_t count = 1;
  // Moving a command overwrites its link, so what follows it is read first.
  const auto move_first_to = [&rest](command_list* list) {
    command_record* const first = rest.release();
    rest.reset(first->next);
    move_to_list(first, list);
  };
  while (rest != nullptr) {
    if (relative_substitutions == 0 || !small(rest.get()) ||
        !within_reach(rest.get(), rest->next)) {
      move_first_to(absolute);
      continue;
    }
    command_list* const relative = new_list(flags | CL_RELATIVE, lists, last_list);
    ++count;
    while (within_reach(rest.get(), rest->next) && relative->num_commands + 1 < kMaxCount) {
      move_first_to(relative);
    }
    move_first_to(relative);
  }
  return static_cast<uint16_t>(count);
}

void output_command_lists(const command_list* lists) {
  for (; lists != nullptr; lists = lists->next) {
    output_commands(lists->first, lists->num_commands, lists->flags);
  }
}

void output_commands(const command_record* commands, uint16_t count, uint32_t flags) {
  const bool relative = (flags & CL_RELATIVE) != 0;
  const uint32_t position = get_pos();
  put_half(count);
  dprintf(2, "num_commands=%i%s", count, relative ? " (rel)" : "");
  uint32_t previous_address = 0;
  if (relative) {
    previous_address = commands->address;
    put_word(previous_address);
  }
  for (int32_t i = 0; i < count; ++i) {
    output_command(commands, previous_address, flags);
    previous_address = commands->address;
    commands = commands->next;
  }
  dprintf(2, " size: %#x - %#x", position, get_pos());
}

void free_command_list(command_list* lists) {
  while (lists != nullptr) {
    command_list* const next = lists->next;
    free_commands(lists->first);
    gen_free(lists);
    lists = next;
  }
}

void free_commands(command_record* commands) {
  while (commands != nullptr) {
    command_record* const next = commands->next;
    gen_free(commands);
    commands = next;
  }
}

void dump_fill_command(const command_record* commands) {
  dprintf(2, "\nCM_FILL");
  int32_t left = count_commands(commands);
  warn_of_repetition("CM_FILL", commands_for(left));
  while (left > 0) {
    const int32_t count = std::min(left, kMaxCount);
    const uint32_t position = get_pos();
    put_byte(CM_FILL);
    dprintf(2, "num_commands=%i", count);
    put_half(static_cast<uint32_t>(count));
    for (int32_t i = 0; i < count; ++i, commands = commands->next) {
      const auto size = static_cast<uint32_t>(commands->size);
      const uint8_t value = *commands->data.bytes;
      dprintf(2, " <%#x, %#x, %#.2x>", commands->address, size, value);
      put_word(commands->address);
      put_half(size);
      put_byte(value);
    }
    dprintf(2, " size: %#x - %#x", position, get_pos());
    left -= count;
  }
}

void dump_range_checksum(const command_record* regions, uint32_t checksum) {
  dprintf(2, "\nCM_CHECKSUM");
  if (regions == nullptr) {
    return;
  }
  put_byte(CM_CHECKSUM);
  const int32_t count = count_commands(regions);
  dump_numregions(static_cast<uint32_t>(count));
  dprintf(2, "num_regions=%i", count);
  for (; regions != nullptr; regions = regions->next) {
    const uint32_t end = regions->address + static_cast<uint32_t>(regions->size);
    dump_address_range(regions->address, end);
    dprintf(2, " range=%p - %p", address_for_print(regions->address), address_for_print(end - 1));
  }
  dump_checksum(checksum);
  dprintf(2, " checksum=%#x", checksum);
}

}  // namespace kelvane
