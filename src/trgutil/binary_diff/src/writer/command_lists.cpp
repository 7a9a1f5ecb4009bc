#include "command_lists.h"

#include <utility>
#include <vector>

#include "writer_reset.h"

namespace kelvane {

command_record* first_sub = nullptr;
command_record* last_sub = nullptr;
uint16_t num_subs = 0;
command_record* first_sub_comp = nullptr;
command_record* last_sub_comp = nullptr;
command_record* first_sub_one = nullptr;
command_record* last_sub_one = nullptr;
uint16_t num_sub_ones = 0;
command_record* first_fill = nullptr;
command_record* last_fill = nullptr;
command_record* first_move = nullptr;
command_record* last_move = nullptr;
uint16_t num_moves = 0;
command_record* first_abs_move = nullptr;
command_record* last_abs_move = nullptr;
uint16_t num_abs_moves = 0;
command_record* first_checksum1 = nullptr;
command_record* last_checksum1 = nullptr;
uint32_t checksum1 = 0;
command_record* first_checksum2 = nullptr;
command_record* last_checksum2 = nullptr;
uint32_t checksum2 = 0;
int32_t incr_values = 0;
std::array<uint32_t, kMaxIncrementClasses> incr_value{};
std::array<command_record*, kMaxIncrementClasses> first_incr{};
std::array<command_record*, kMaxIncrementClasses> last_incr{};
std::array<int32_t, kMaxIncrementClasses> num_incrs{};

namespace {

template <typename Record>
Record* append(Record* record, Record** first, Record** last) {
  record->next = nullptr;
  if (*first == nullptr) {
    *first = record;
  } else {
    (*last)->next = record;
  }
  *last = record;
  return record;
}

// The buffers of compressed commands. On the heap and never destroyed: a signal may end the process
// while it grows, and a destructor that runs at exit would meet it half grown.
std::vector<gen_ptr<uint8_t>>& kept_bytes() {
  static auto* const kept = new std::vector<gen_ptr<uint8_t>>;
  return *kept;
}

}  // namespace

command_record* append_command(command_record* record, command_record** first,
                               command_record** last) {
  return append(record, first, last);
}

command_list* append_list(command_list* list, command_list** first, command_list** last) {
  return append(list, first, last);
}

command_record* append_block(command_record* block, command_record** first, command_record** last) {
  return append(block, first, last);
}

command_record* prepend_block(command_record* block, command_record** first,
                              command_record** last) {
  block->next = *first;
  if (*first == nullptr) {
    *last = block;
  }
  *first = block;
  return block;
}

void free_commands(command_record* commands) {
  while (commands != nullptr) {
    command_record* const next = commands->next;
    gen_free(commands);
    commands = next;
  }
}

void free_command_list(command_list* lists) {
  while (lists != nullptr) {
    command_list* const next = lists->next;
    free_commands(lists->first);
    gen_free(lists);
    lists = next;
  }
}

commands_ptr take_commands(command_record** first, command_record** last) {
  *last = nullptr;
  return commands_ptr(std::exchange(*first, nullptr));
}

const uint8_t* keep_bytes(gen_ptr<uint8_t> bytes) {
  return kept_bytes().emplace_back(std::move(bytes)).get();
}

void reset_command_lists() {
  const std::pair<command_record**, command_record**> lists[] = {
      {&first_sub, &last_sub},
      {&first_sub_comp, &last_sub_comp},
      {&first_sub_one, &last_sub_one},
      {&first_fill, &last_fill},
      {&first_move, &last_move},
      {&first_abs_move, &last_abs_move},
      {&first_checksum1, &last_checksum1},
      {&first_checksum2, &last_checksum2},
  };
  for (const auto& [first, last] : lists) {
    take_commands(first, last);
  }
  for (size_t i = 0; i < first_incr.size(); ++i) {
    take_commands(&first_incr[i], &last_incr[i]);
  }
  kept_bytes().clear();
  num_subs = 0;
  num_sub_ones = 0;
  num_moves = 0;
  num_abs_moves = 0;
  checksum1 = 0;
  checksum2 = 0;
  incr_values = 0;
  incr_value = {};
  num_incrs = {};
}

}  // namespace kelvane
