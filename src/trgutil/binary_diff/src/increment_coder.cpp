#include "increment_coder.h"

#include <algorithm>
#include <utility>

#include "binshared.h"
#include "debug_print.h"
#include "engine_settings.h"
#include "increment_coder_internal.h"
#include "indgen_memory.h"

namespace kelvane {

int32_t put_bits_dry_run = 0;
uint8_t* put_byte_pointer = nullptr;
uint8_t put_bits_in_byte = 0;
int32_t bits_total = 0;
std::array<int32_t, kJumpCategories> population{};
std::array<int32_t, kJumpCategories> population_map{};
std::array<uint32_t, kMaxIncrementClasses> pop_map{};
std::array<int32_t, kMaxIncrementClasses> sort_incrs{};
int32_t sorted_incrs = 0;
std::array<int32_t, kMaxIncrementClasses> reject_incrs{};
int32_t rejected_incrs = 0;
command_record* first_rejected_incs = nullptr;
command_record* last_rejected_incr = nullptr;
int32_t incr_size = 0;

namespace {

constexpr int32_t kBitsInByte = 8;
constexpr int32_t kCodeIncrements = 7;
constexpr int32_t kEmptyStream = 2;  // bytes of a stream without classes

struct Category {
  uint32_t jumps;  // how many jumps it holds; of the last one all that are left
  int32_t extra_bits;
};
// clang-format off
constexpr std::array<Category, kJumpCategories> kCategories = {{
    // jumps  extra_bits
    {1,       0},
    {2,       1},
    {4,       2},
    {16,      4},
    {256,     8},
    {65536,   16},
    {0,       32},
}};
// clang-format on

constexpr int32_t kMapFieldBits = 3;
constexpr uint32_t kMapFieldMask = 7;
constexpr int32_t kMapBits = kMapFieldBits * kJumpCategories;

uint32_t map_field(uint32_t map, int32_t rank) {
  return (map >> static_cast<uint32_t>(kMapFieldBits * rank)) & kMapFieldMask;
}

struct State {
  uint32_t static_byte = 0;  // the byte being built
};
State state;

// The low `count` bits of `value`, 1 to 32.
uint32_t low_bits(uint32_t value, int32_t count) {
  return value & (UINT32_MAX >> static_cast<uint32_t>(32 - count));
}

// Puts `zeros` zero bits and a one bit.
void put_unary(int32_t zeros) {
  put_bits(zeros + 1, 1U << static_cast<uint32_t>(zeros));
}

constexpr int32_t kNextClassShort = 7;  // zero bits of the codes that end a class
constexpr int32_t kNextClassLong = 8;
constexpr int32_t kEndOfStream = 9;

void print_populations() {
  if (debug_level < 5) {
    return;
  }
  for (size_t i = 0; i < kCategories.size(); ++i) {
    dprintf(5, "INCR population[%d] used %5d calc bits %6d\n", static_cast<int32_t>(i),
            population[i], (kCategories[i].extra_bits + population_map[i] + 1) * population[i]);
  }
}

}  // namespace

void set_put_pointer(uint8_t* buffer) {
  clear_population();
  put_bits_dry_run = buffer == nullptr ? 1 : 0;
  put_byte_pointer = buffer;
  put_bits_in_byte = 0;
  bits_total = 0;
}

void put_bits(int32_t count, uint32_t value) {
  bits_total += count;
  if (put_bits_dry_run != 0) {
    return;
  }
  value = low_bits(value, count);
  dprintf(8, "INCR put_bits %2d value %08x\n", count, value);
  while (count > 0) {
    const int32_t taken = std::min(count, kBitsInByte - put_bits_in_byte);
    state.static_byte |= low_bits(value, taken) << put_bits_in_byte;
    value >>= static_cast<uint32_t>(taken);  // at most 8, so never by the whole width
    count -= taken;
    put_bits_in_byte = static_cast<uint8_t>(put_bits_in_byte + taken);
    if (put_bits_in_byte == kBitsInByte) {
      *put_byte_pointer++ = static_cast<uint8_t>(state.static_byte);
      state.static_byte = 0;
      put_bits_in_byte = 0;
    }
  }
}

void align_output(int32_t boundary) {
  int32_t missing = (boundary - bits_total % boundary) % boundary;
  while (missing > 0) {
    const int32_t count = std::min(missing, 32);
    put_bits(count, 0);
    missing -= count;
  }
}

void clear_population() {
  population = {};
}

void set_population_map(uint32_t map) {
  const uint32_t used = map == 0 ? kDefaultPopulationMap : map;
  for (int32_t rank = 0; rank < kJumpCategories; ++rank) {
    const uint32_t category = map_field(used, rank);
    if (category < population_map.size()) {
      population_map[category] = rank;
    }
  }
}

uint32_t sort_population_map() {
  // The table from category to rank is taken as a list of categories.
  const auto uses = [](int32_t entry) { return population[static_cast<size_t>(entry)]; };
  bool swapped = false;
  for (size_t limit = population_map.size() - 1; limit > 0; --limit) {
    for (size_t j = 0; j < limit; ++j) {
      if (uses(population_map[j]) < uses(population_map[j + 1])) {
        std::swap(population_map[j], population_map[j + 1]);
        swapped = true;
      }
    }
  }
  if (swapped) {
    for (int32_t i = kJumpCategories - 1; i >= 0; --i) {
      const int32_t entry = population_map[static_cast<size_t>(i)];
      dprintf(5, "INCR PREFIX %d used %5d will map to partition %d\n", i, uses(entry), entry);
    }
  }
  uint32_t map = 0;
  for (size_t i = population_map.size(); i-- > 0;) {
    map = (map << static_cast<uint32_t>(kMapFieldBits)) | static_cast<uint32_t>(population_map[i]);
  }
  return map;
}

void put_prefix(int32_t category) {
  const auto index = static_cast<size_t>(category);
  ++population[index];
  put_unary(population_map[index]);
}

void encode_jump(uint32_t jump) {
  uint32_t rest = jump - 1;  // a jump of 0 wraps past all lower categories
  int32_t category = 0;
  for (; category < kJumpCategories - 1; ++category) {
    const uint32_t jumps = kCategories[static_cast<size_t>(category)].jumps;
    if (rest < jumps) {
      break;
    }
    rest -= jumps;
  }
  put_prefix(category);
  const int32_t extra_bits = kCategories[static_cast<size_t>(category)].extra_bits;
  if (extra_bits > 0) {
    put_bits(extra_bits, rest);
  }
}

void encode_incr_change(int32_t index, uint32_t previous_value, uint32_t value, uint32_t map) {
  constexpr uint32_t kGreatestShortDelta = 0x10000;
  const uint32_t delta = value - previous_value;
  const bool long_form = delta == 0 || delta > kGreatestShortDelta;
  if (index != 0) {
    put_unary(long_form ? kNextClassLong : kNextClassShort);
  } else {
    put_bits(1, long_form ? 1 : 0);
  }
  if (long_form) {
    put_bits(32, value);
  } else {
    put_bits(16, delta - 1);
  }
  if (map == kDefaultPopulationMap) {
    put_bits(1, 0);
  } else {
    put_bits(1, 1);
    put_bits(kMapBits, map);
  }
  set_population_map(map);
}

void output_sorted_increments() {
  uint32_t previous_value = 0;
  for (int32_t index = 0; index < sorted_incrs; ++index) {
    const auto incr_class = static_cast<size_t>(sort_incrs[static_cast<size_t>(index)]);
    const uint32_t value = incr_value[incr_class];
    dprintf(2, "INCR SUBTOTAL %08x bits %d\n", value, bits_total);
    clear_population();
    encode_incr_change(index, previous_value, value, pop_map[incr_class]);
    previous_value = value;
    uint32_t address = 0;
    for (const command_record* record = first_incr[incr_class]; record != nullptr;
         record = record->next) {
      const int32_t bits_before = bits_total;
      encode_jump((record->address - address) >> 2U);
      address = record->address;
      dprintf(7, "INCR ENCODE %s to 0x%.8x bits %d\n", put_bits_dry_run != 0 ? "jump" : "JUMP",
              address, bits_total - bits_before);
    }
    print_populations();
    pop_map[incr_class] = sort_population_map();
  }
  put_unary(kEndOfStream);
  align_output(kBitsInByte);
  dprintf(2, "INCR GRANDTOTAL bits %d (%d bytes)\n", bits_total, bits_total / kBitsInByte);
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
    merge_sort_lists(&first_rejected_incs, &last_rejected_incr, first_incr[incr_class]);
  }
}

namespace {

// One dry pass; sets `incr_size` and prints it under the given name.
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
  const gen_ptr<uint8_t> buffer(gen_alloc_array<uint8_t>(static_cast<uint32_t>(incr_size)));
  put_byte(kCodeIncrements);
  dprintf(2, "\nCM_INCRS");
  put_word(static_cast<uint32_t>(incr_size));
  set_put_pointer(buffer.get());
  output_sorted_increments();
  put_data(buffer.get(), static_cast<uint32_t>(bits_total / kBitsInByte));
}

void reset_increment_coder() {
  put_bits_dry_run = 0;
  put_byte_pointer = nullptr;
  put_bits_in_byte = 0;
  bits_total = 0;
  population = {};
  population_map = {};
  pop_map = {};
  sort_incrs = {};
  sorted_incrs = 0;
  reject_incrs = {};
  rejected_incrs = 0;
  first_rejected_incs = nullptr;
  last_rejected_incr = nullptr;
  incr_size = 0;
  state = State{};
}

}  // namespace kelvane
