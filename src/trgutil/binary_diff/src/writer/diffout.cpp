// The patch of a comparison. The engine keeps its commands in process-wide lists, and each
// operation here hands one of them to the patch writer as a value, in the order of the format,
// which patch_writer.cpp tells.
//
// A list is taken out of its variables before it is written, so that a run that ends in the middle
// leaves nothing behind twice, and its records are released before the first byte goes out.
//
// Of version 1 the checksum covers what stands behind it. It is written last, by stepping back: the
// body is read back from where it went, and so the checksum is one of the bytes that are really
// there.
#include "diffout.h"

#include <cstdio>
#include <utility>
#include <vector>

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
#include "patch_writer_internal.h"

namespace kelvane {

namespace {

constexpr int32_t kLeastPatchSize = 20;

struct State {
  const char* output_name = nullptr;  // of the file that is being written; for messages
};
State state;

[[noreturn]] void fail_to_open() {
  gen_errorexit(kStatusFailure, "gfile: could not open file for writing");
}

[[noreturn]] void fail_to_write() {
  gen_perrorexit(kStatusFailure, "error writing patch file '%s'",
                 state.output_name != nullptr ? state.output_name : "unnamed");
}

constexpr uint32_t kNoPosition = UINT32_MAX;

// Gives the position, or ends the run where the stream has none or has refused anything before.
uint32_t position_of_sound_output() {
  if (output_failed()) {
    fail_to_write();
  }
  const uint32_t position = get_pos();
  if (position == kNoPosition) {
    fail_to_write();
  }
  return position;
}

// Steps to a position, or ends the run.
void step_to(uint32_t position) {
  set_pos(position);
  if (get_pos() != position) {
    fail_to_write();
  }
}

byte_store store_of(const command_record& record) {
  return {record.address, static_cast<uint32_t>(record.size), record.data.bytes};
}

fill_store fill_of(const command_record& record) {
  return {record.address, static_cast<uint16_t>(record.size), *record.data.bytes};
}

checksum_region region_of(const command_record& record) {
  return {record.address, static_cast<uint32_t>(record.size)};
}

// A chain as values, at most `most` of them.
template <typename Value>
std::vector<Value> values_of(const command_record* commands, Value (*value)(const command_record&),
                             size_t most = SIZE_MAX) {
  std::vector<Value> values;
  for (; commands != nullptr && values.size() < most; commands = commands->next) {
    values.push_back(value(*commands));
  }
  return values;
}

void append_to_list(command_record* command, command_list* list) {
  append_command(command, &list->first, &list->last);
  ++list->num_commands;
}

command_list* append_new_list(uint32_t flags, command_list** lists, command_list** last_list) {
  command_list* const list = gen_alloc_array<command_list>(1);
  list->flags = flags;
  return append_list(list, lists, last_list);
}

void dump_list(uint8_t code, command_record** first, command_record** last, uint32_t flags) {
  dump_sub_command(code, take_commands(first, last).release(), flags);
}

// Writes the crt1 word of one image.
void dump_crt1(const file_data* image) {
  if (image->crt1 == 0) {
    gen_errorexit(kStatusFailure, "could not find __qvr_ind_crt1() in '%s'", image->name);
  }
  dprintf(2, "%s: crt1: %p", image->name, address_for_print(image->crt1));
  put_word(image->crt1);
}

patch_header header_of(const file_data* first, const file_data* second) {
  return {first->checksum,
          second->checksum,
          static_cast<uint32_t>(first->size),
          static_cast<uint32_t>(second->size),
          first->crt1,
          second->crt1};
}

}  // namespace

void dump_to_file(const file_data* first, const file_data* second, const char* name) {
  require_known_version(version);
  file_ptr stream(gen_fopen(name, "w+"));
  if (stream == nullptr) {
    fail_to_open();
  }
  GFile handle;
  if (version > 0 && gf_open_for_write(&handle, stream.get(), nullptr, kPatchFileType, 0,
                                       kPatchAddressMode, 0, 0) == nullptr) {
    fail_to_open();
  }
  set_output_file(stream.get());
  state.output_name = name;
  dump_commands(first, second);
  if (output_failed()) {
    fail_to_write();
  }
  set_output_file(nullptr);
  if (version > 0) {
    gf_close(&handle);
  }
  if (std::fclose(stream.release()) != 0) {
    fail_to_write();
  }
  state.output_name = nullptr;
}

void dump_commands(const file_data* first, const file_data* second) {
  require_known_version(version);
  dprintf(2, "%s", "");
  if (version == 0) {
    dump_commands_v0(first, second);
    return;
  }
  const patch_frame frame =
      begin_frame(&engine_output(), header_of(first, second), fDiffMemory != 0);
  if (fDiffMemory != 0) {
    dump_crt1(first);
    dump_crt1(second);
  }
  dump_range_checksum(first_checksum1, checksum1);
  dump_command_set(0);
  dump_range_checksum(first_checksum2, checksum2);
  dprintf(2, "%s", "");
  const uint32_t patch_size = position_of_sound_output() - frame.start;
  if (static_cast<int32_t>(patch_size) < kLeastPatchSize) {
    gen_errorexit(kStatusFailure, "internal: generated patch file is too small");
  }
  step_to(frame.body);
  const uint32_t body_size = patch_size - (frame.body - frame.start);
  uint32_t patch_checksum = 0;
  {
    const gen_ptr<uint8_t> bytes(get_data(body_size));
    bd_checksum(bytes.get(), body_size, &patch_checksum);
  }
  if (swap_trees != 0) {
    dprintf(1, "Memory Motion Trees: %d", swap_trees);
  }
  dprintf(1, "Patch size: %d  checksum: %#x", static_cast<int32_t>(patch_size), patch_checksum);
  step_to(frame.size_position);
  end_frame(&engine_output(), frame, patch_size, patch_checksum);
}

void dump_commands_v0(const file_data* first, const file_data* second) {
  write_files(&engine_output(), header_of(first, second));
  dump_command_set(0);
}

int32_t dump_command_set(int32_t x) {
  put_byte(CM_MOVE);
  dprintf(2, "\nCM_MOVE");
  output_block_moves(take_commands(&first_move, &last_move).release());
  num_moves = 0;
  reject_some_sort_others(0);
  commit_rejections();
  dprintf(2, "\nCM_SUBSTITUTE");
  dump_list(CM_SUBSTITUTE, &first_sub, &last_sub, 0);
  dprintf(2, "\nCM_SUB_COMP");
  dump_list(CM_SUB_COMP, &first_sub_comp, &last_sub_comp, 0);
  dprintf(2, "\nCM_SUB_ONE");
  dump_list(CM_SUB_ONE, &first_sub_one, &last_sub_one, CL_NO_SIZE);
  dump_fill_command(take_commands(&first_fill, &last_fill).get());
  output_increments();
  return x;
}

void dump_sub_command(uint32_t code, command_record* list, uint32_t flags) {
  commands_ptr commands(list);
  const std::vector<byte_store> stores = values_of(list, store_of);
  commands.reset();
  write_stores(&engine_output(), static_cast<uint8_t>(code), stores, flags,
               relative_substitutions != 0);
}

uint16_t generate_command_list(command_record* commands, command_list** lists,
                               command_list** last_list, uint32_t flags) {
  commands_ptr rest(commands);  // those that stand in no list yet
  dprintf(3, " generate_command_list");
  *lists = nullptr;
  *last_list = nullptr;
  command_list* const absolute = append_new_list(flags, lists, last_list);
  const std::vector<byte_store> stores = values_of(commands, store_of);
  const divided_stores divided = divide_stores(stores, relative_substitutions != 0, true);
  // Moving a command overwrites its link, so what follows it is read first.
  const auto move_first_to = [&rest](command_list* list) {
    command_record* const first = rest.release();
    rest.reset(first->next);
    append_to_list(first, list);
  };
  const byte_store* next = stores.data();
  for (const std::span<const byte_store>& run : divided.relative) {
    for (; next != run.data(); ++next) {
      move_first_to(absolute);
    }
    command_list* const relative = append_new_list(flags | CL_RELATIVE, lists, last_list);
    for (; next != run.data() + run.size(); ++next) {
      move_first_to(relative);
    }
  }
  while (rest != nullptr) {
    move_first_to(absolute);
  }
  return static_cast<uint16_t>(1 + divided.relative.size());
}

void output_command_lists(const command_list* lists) {
  for (; lists != nullptr; lists = lists->next) {
    output_commands(lists->first, lists->num_commands, lists->flags);
  }
}

void output_commands(const command_record* commands, uint16_t count, uint32_t flags) {
  write_list(&engine_output(), values_of(commands, store_of, count), flags);
}

void dump_fill_command(const command_record* commands) {
  dprintf(2, "\nCM_FILL");
  write_fills(&engine_output(), values_of(commands, fill_of));
}

void dump_range_checksum(const command_record* regions, uint32_t checksum) {
  dprintf(2, "\nCM_CHECKSUM");
  write_checksum(&engine_output(), values_of(regions, region_of), checksum);
}

}  // namespace kelvane
