// The coder of one stream, and streams from classes told outright.
//
// Ranks go by how often a class uses a category, so the coder runs three times over the same
// classes: the first dry run, with the default ranks, finds the map of each class; the second, with
// those maps, finds the size and settles the order of categories of equal use; the third writes.
// The third cannot come out longer than the second: a map changes between them only among
// categories of equal use, and a map never turns into the default or away from it.
#include "increment_stream.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "increment_pass.h"

namespace kelvane {

namespace {

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

constexpr int32_t kNextClassShort = 7;  // zero bits of the codes that end a class
constexpr int32_t kNextClassLong = 8;
constexpr int32_t kEndOfStream = 9;

uint32_t map_field(uint32_t map, int32_t rank) {
  return (map >> static_cast<uint32_t>(kMapFieldBits * rank)) & kMapFieldMask;
}

// The low `count` bits of `value`, 1 to 32.
uint32_t low_bits(uint32_t value, int32_t count) {
  return value & (UINT32_MAX >> static_cast<uint32_t>(32 - count));
}

// Puts `zeros` zero bits and a one bit.
void put_unary(jump_coder* coder, int32_t zeros) {
  coder->put_bits(zeros + 1, 1U << static_cast<uint32_t>(zeros));
}

// Classes told outright, in the order of the stream, with the map of each.
class ToldClasses {
 public:
  explicit ToldClasses(std::span<const increment_class> classes) {
    for (const increment_class& told : classes) {
      if (!told.addresses.empty()) {
        order_.push_back(&told);
      }
    }
    std::stable_sort(
        order_.begin(), order_.end(),
        [](const increment_class* a, const increment_class* b) { return a->value < b->value; });
    maps_.assign(order_.size(), 0);
  }

  int32_t count() const { return static_cast<int32_t>(order_.size()); }
  uint32_t value(int32_t index) const { return order_[static_cast<size_t>(index)]->value; }
  uint32_t& map(int32_t index) const { return maps_[static_cast<size_t>(index)]; }
  template <typename Take>
  void each_address(int32_t index, Take take) const {
    for (const uint32_t address : order_[static_cast<size_t>(index)]->addresses) {
      take(address);
    }
  }

 private:
  std::vector<const increment_class*> order_;
  mutable std::vector<uint32_t> maps_;
};

// Bytes of the stream, by the two dry runs.
uint32_t measured(jump_coder* coder, const ToldClasses& classes) {
  for (int32_t run = 0; run < 2; ++run) {
    coder->start(nullptr);
    code_pass(*coder, classes);
  }
  return static_cast<uint32_t>(coder->bits_total / kBitsInByte);
}

}  // namespace

void jump_coder::start(uint8_t* buffer) {
  population = {};
  dry_run = buffer == nullptr ? 1 : 0;
  next_byte = buffer;
  room_end = nullptr;
  bits_in_byte = 0;
  bits_total = 0;
}

void jump_coder::put_bits(int32_t count, uint32_t value) {
  assert(count >= 1 && count <= 32);
  bits_total += count;
  if (dry_run != 0) {
    return;
  }
  value = low_bits(value, count);
  if (trace) {
    dprintf(8, "INCR put_bits %2d value %08x\n", count, value);
  }
  while (count > 0) {
    const int32_t taken = std::min(count, kBitsInByte - bits_in_byte);
    byte |= low_bits(value, taken) << bits_in_byte;
    value >>= static_cast<uint32_t>(taken);  // at most 8, so never by the whole width
    count -= taken;
    bits_in_byte = static_cast<uint8_t>(bits_in_byte + taken);
    if (bits_in_byte == kBitsInByte) {
      assert(room_end == nullptr || next_byte < room_end);
      *next_byte++ = static_cast<uint8_t>(byte);
      byte = 0;
      bits_in_byte = 0;
    }
  }
}

void jump_coder::align(int32_t boundary) {
  int32_t missing = (boundary - bits_total % boundary) % boundary;
  while (missing > 0) {
    const int32_t count = std::min(missing, 32);
    put_bits(count, 0);
    missing -= count;
  }
}

void jump_coder::set_population_map(uint32_t map) {
  const uint32_t used = map == 0 ? kDefaultPopulationMap : map;
  for (int32_t rank = 0; rank < kJumpCategories; ++rank) {
    const uint32_t category = map_field(used, rank);
    if (category < population_map.size()) {
      population_map[category] = rank;
    }
  }
}

uint32_t jump_coder::sort_population_map() {
  // The table goes from category to rank, and is taken as a list of categories all the same: it is
  // a permutation either way, and so ties come out in the order of the ranks. A sort from the plain
  // order of categories would give other bytes.
  const auto uses = [this](int32_t entry) { return population[static_cast<size_t>(entry)]; };
  bool swapped = false;
  for (size_t limit = population_map.size() - 1; limit > 0; --limit) {
    for (size_t j = 0; j < limit; ++j) {
      if (uses(population_map[j]) < uses(population_map[j + 1])) {
        std::swap(population_map[j], population_map[j + 1]);
        swapped = true;
      }
    }
  }
  if (swapped && trace) {
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

void jump_coder::put_prefix(int32_t category) {
  assert(category >= 0 && category < kJumpCategories);
  const auto index = static_cast<size_t>(category);
  ++population[index];
  put_unary(this, population_map[index]);
}

void jump_coder::encode_jump(uint32_t jump) {
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

void jump_coder::begin_class(int32_t index, uint32_t previous_value, uint32_t value, uint32_t map) {
  constexpr uint32_t kGreatestShortDelta = 0x10000;
  const uint32_t delta = value - previous_value;
  const bool long_form = delta == 0 || delta > kGreatestShortDelta;
  if (index != 0) {
    put_unary(this, long_form ? kNextClassLong : kNextClassShort);
  } else {
    put_bits(1, long_form ? 1 : 0);
  }
  if (long_form) {
    put_bits(32, value);
  } else {
    put_bits(16, delta - 1);
  }
  // A map of 0, the first run's, acts as the default and is put in full: nothing is gained by a
  // short form in a run whose bits nobody reads.
  if (map == kDefaultPopulationMap) {
    put_bits(1, 0);
  } else {
    put_bits(1, 1);
    put_bits(kMapBits, map);
  }
  set_population_map(map);
}

void jump_coder::end_stream() {
  put_unary(this, kEndOfStream);
  align(kBitsInByte);
}

void print_populations(const jump_coder& coder) {
  if (!coder.trace || debug_level < 5) {
    return;
  }
  for (size_t i = 0; i < kCategories.size(); ++i) {
    dprintf(5, "INCR population[%d] used %5d calc bits %6d\n", static_cast<int32_t>(i),
            coder.population[i],
            (kCategories[i].extra_bits + coder.population_map[i] + 1) * coder.population[i]);
  }
}

std::vector<uint8_t> encode_increments(std::span<const increment_class> classes) {
  const ToldClasses told(classes);
  if (told.count() == 0) {
    return {};
  }
  jump_coder coder;
  std::vector<uint8_t> stream(measured(&coder, told));
  coder.start(stream.data());
  coder.room_end = stream.data() + stream.size();
  code_pass(coder, told);
  assert(coder.next_byte == coder.room_end);
  return stream;
}

uint32_t size_of_increments(std::span<const increment_class> classes) {
  const ToldClasses told(classes);
  jump_coder coder;
  return told.count() == 0 ? 0 : measured(&coder, told);
}

}  // namespace kelvane
