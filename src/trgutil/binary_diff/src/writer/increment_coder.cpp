// The engine's classes, from the tables of the comparison to CM_INCRS.
//
// Size is what this is for, and time is spent for it: three runs of the coder over all increments,
// so that each class gets the prefix code that fits its own jumps. The size has to be known before
// the stream is written, since it stands in front of it, and the increments come last in the patch;
// so the dry runs are made early, behind the moves, and what they cost is told at debug level 1
// before anything else is written.
//
// `pop_map` lives on from run to run and from one command set to the next: the first run of a
// second command set starts from the maps of the first. That decides between categories of equal
// use, so it shows in the bytes.
#include "increment_coder.h"

#include <algorithm>
#include <utility>

#include "binshared.h"
#include "debug_print.h"
#include "engine_settings.h"
#include "increment_pass.h"
#include "indgen_memory.h"
#include "writer_reset.h"

namespace kelvane {

namespace {

constexpr jump_coder kAtStart = {.trace = true};
jump_coder engine_coder = kAtStart;

// The accepted classes of the engine, as code_pass takes them.
struct EngineClasses {
  static size_t class_at(int32_t index) {
    return static_cast<size_t>(sort_incrs[static_cast<size_t>(index)]);
  }

  static int32_t count() { return sorted_incrs; }
  static uint32_t value(int32_t index) { return incr_value[class_at(index)]; }
  static uint32_t& map(int32_t index) { return pop_map[class_at(index)]; }
  template <typename Take>
  static void each_address(int32_t index, Take take) {
    for (const command_record* record = first_incr[class_at(index)]; record != nullptr;
         record = record->next) {
      take(record->address);
    }
  }
};

// One dry run; sets `incr_size` and prints it under the given name.
void measure(const char* cost) {
  set_put_pointer(nullptr);
  output_sorted_increments();
  incr_size = bits_total / kBitsInByte;
  dprintf(1, "%s: %d bytes\n", cost, incr_size);
}

// Divides the classes into accepted and rejected ones, in the order of first use.
void divide_classes(int32_t threshold) {
  sorted_incrs = 0;
  rejected_incrs = 0;
  for (int32_t i = 0; i < incr_values; ++i) {
    const auto incr_class = static_cast<size_t>(i);
    if (num_incrs[incr_class] <= threshold) {
      dprintf(5, "INCR REJECT %08x used %d\n", incr_value[incr_class], num_incrs[incr_class]);
      reject_incrs[static_cast<size_t>(rejected_incrs++)] = i;
    } else {
      dprintf(5, "INCR ACCEPT %08x used %d\n", incr_value[incr_class], num_incrs[incr_class]);
      sort_incrs[static_cast<size_t>(sorted_incrs++)] = i;
    }
  }
}

}  // namespace

int32_t& put_bits_dry_run = engine_coder.dry_run;
uint8_t*& put_byte_pointer = engine_coder.next_byte;
uint8_t& put_bits_in_byte = engine_coder.bits_in_byte;
int32_t& bits_total = engine_coder.bits_total;
std::array<int32_t, kJumpCategories>& population = engine_coder.population;
std::array<int32_t, kJumpCategories>& population_map = engine_coder.population_map;
std::array<uint32_t, kMaxIncrementClasses> pop_map{};
std::array<int32_t, kMaxIncrementClasses> sort_incrs{};
int32_t sorted_incrs = 0;
std::array<int32_t, kMaxIncrementClasses> reject_incrs{};
int32_t rejected_incrs = 0;
command_record* first_rejected_incs = nullptr;
command_record* last_rejected_incr = nullptr;
int32_t incr_size = 0;

void set_put_pointer(uint8_t* buffer) {
  engine_coder.start(buffer);
}

void put_bits(int32_t count, uint32_t value) {
  engine_coder.put_bits(count, value);
}

void align_output(int32_t boundary) {
  engine_coder.align(boundary);
}

void clear_population() {
  population = {};
}

void set_population_map(uint32_t map) {
  engine_coder.set_population_map(map);
}

uint32_t sort_population_map() {
  return engine_coder.sort_population_map();
}

void put_prefix(int32_t category) {
  engine_coder.put_prefix(category);
}

void encode_jump(uint32_t jump) {
  engine_coder.encode_jump(jump);
}

void encode_incr_change(int32_t index, uint32_t previous_value, uint32_t value, uint32_t map) {
  engine_coder.begin_class(index, previous_value, value, map);
}

void output_sorted_increments() {
  code_pass(engine_coder, EngineClasses{});
}

void merge_sort_lists(command_record** first, command_record** last, command_record* other) {
  command_record* merged_first = nullptr;
  command_record* merged_last = nullptr;
  command_record* list = *first;
  while (list != nullptr || other != nullptr) {
    const bool take_other = list == nullptr || (other != nullptr && other->address < list->address);
    command_record*& source = take_other ? other : list;
    command_record* const record = source;
    source = record->next;  // before appending overwrites it
    append_command(record, &merged_first, &merged_last);
  }
  *first = merged_first;
  *last = merged_last;
}

void commit_rejections() {
  dprintf(5, "INCR COMMIT_REJECTIONS (%d)\n", rejected_incrs);
  for (int32_t i = 0; i < rejected_incrs; ++i) {
    const auto incr_class = static_cast<size_t>(reject_incrs[static_cast<size_t>(i)]);
    merge_sort_lists(&first_rejected_incs, &last_rejected_incr,
                     std::exchange(first_incr[incr_class], nullptr));
    last_incr[incr_class] = nullptr;
  }
}

void reject_some_sort_others(int32_t threshold) {
  if (incr_enabled == 0) {
    return;
  }
  divide_classes(threshold);
  // The values of the classes differ, so any sort gives this order.
  std::sort(sort_incrs.begin(), sort_incrs.begin() + sorted_incrs, [](int32_t a, int32_t b) {
    return incr_value[static_cast<size_t>(a)] < incr_value[static_cast<size_t>(b)];
  });
  measure("INCR SORT COST");
  measure("INCR DOUBLE SORTED COST");
  int32_t total = 0;
  for (int32_t i = 0; i < rejected_incrs; ++i) {
    total += num_incrs[static_cast<size_t>(reject_incrs[static_cast<size_t>(i)])];
  }
  dprintf(1, "INCR REJECTED COST: MIN=%d bytes, MAX=%d bytes\n", total * 2, total * 8);
}

void output_increments() {
  if (incr_enabled == 0 || incr_size <= kEmptyStream) {
    return;
  }
  const auto room = static_cast<uint32_t>(incr_size);
  const gen_ptr<uint8_t> buffer(gen_alloc_array<uint8_t>(room));
  put_byte(CM_INCRS);
  dprintf(2, "\nCM_INCRS");
  put_word(room);
  set_put_pointer(buffer.get());
  engine_coder.room_end = buffer.get() + room;
  output_sorted_increments();
  put_data(buffer.get(), static_cast<uint32_t>(bits_total / kBitsInByte));
}

void reset_increment_coder() {
  engine_coder = kAtStart;
  pop_map = {};
  sort_incrs = {};
  sorted_incrs = 0;
  reject_incrs = {};
  rejected_incrs = 0;
  take_commands(&first_rejected_incs, &last_rejected_incr);
  incr_size = 0;
}

}  // namespace kelvane
