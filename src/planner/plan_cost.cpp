#include "plan_cost.h"

#include <algorithm>

#include "class_costs.h"
#include "stores.h"

namespace kelvane {
namespace {

constexpr uint64_t kHeaderOfVersion0 = 16;
constexpr uint64_t kHeaderOfVersion1 = 48;
constexpr uint64_t kCommand = 3;  // code and count
constexpr uint64_t kMostOfCount = 65535;
constexpr uint64_t kMostRelativeLists = 65534;

uint64_t commands_for(uint64_t count, uint64_t most) {
  return (count + most - 1) / most;
}

uint64_t cost_of_stores(const plan& planned, store_kind kind) {
  const uint64_t absolute_bytes = kind == store_kind::single ? 4 : 8;
  const uint64_t relative_bytes = kind == store_kind::single ? 1 : 2;
  uint64_t bytes = 0;
  uint64_t absolute = 0;
  uint64_t lists = 0;
  const planned_store* last = nullptr;
  bool last_is_linked = false;
  uint64_t in_list = 0;
  const auto data_of = [](const planned_store& store) {
    return store.kind == store_kind::compressed ? store.packed_size : store.size;
  };
  const auto end_last = [&] {
    if (last != nullptr && !last_is_linked) {
      ++absolute;
      bytes += absolute_bytes + data_of(*last);
    }
  };
  for (const planned_store& store : planned.stores) {
    if (store.kind != kind) {
      continue;
    }
    const bool links = last != nullptr && store.address - last->address <= kListReach &&
                       data_of(*last) <= kLargestInList && data_of(store) <= kLargestInList;
    if (links && in_list < kMostOfCount) {
      if (!last_is_linked) {
        ++lists;
        bytes += 6 + relative_bytes + data_of(*last);
        in_list = 1;
      }
      bytes += relative_bytes + data_of(store);
      ++in_list;
      last_is_linked = true;
    } else {
      end_last();
      last_is_linked = false;
      in_list = 0;
    }
    last = &store;
  }
  end_last();
  if (last == nullptr) {
    return 0;
  }
  // Each command has a count of its absolute list, if need be of none.
  const uint64_t commands = std::max(
      {uint64_t{1}, commands_for(absolute, kMostOfCount), commands_for(lists, kMostRelativeLists)});
  return bytes + commands * (kCommand + 2);
}

uint64_t cost_of_increments(const plan& planned, bool free_maps) {
  if (planned.classes.empty()) {
    return 0;
  }
  // A first class says its form in 1 bit where others say "next class" in 8 or 9.
  uint64_t bits = kEndBits;
  uint32_t last_value = 0;
  for (size_t i = 0; i < planned.classes.size(); ++i) {
    const planned_class& of = planned.classes[i];
    const uint32_t head = head_bits(last_value, of.value);
    bits += head;
    if (i == 0) {
      bits -= head == head_bits(0, 1) ? 7 : 8;
    }
    last_value = of.value;
    const jump_counts counts = count_jumps(std::span(planned.words).subspan(of.begin, of.count));
    const jump_prices prices = prices_for(counts, free_maps);
    bits += jump_bits(counts, prices) + (prices.has_map ? kMapBits : 0);
  }
  return 1 + 4 + (bits + 7) / 8;
}

}  // namespace

plan_cost cost_of_plan(const plan& planned, const plan_rules& rules) {
  plan_cost cost;
  cost.header = rules.format == 0 ? kHeaderOfVersion0 : kHeaderOfVersion1;
  const uint64_t moves = planned.moves.size();
  cost.moves = 12 * moves + kCommand * std::max<uint64_t>(commands_for(moves, kMostOfCount), 1);
  cost.plain_stores = cost_of_stores(planned, store_kind::plain);
  cost.packed_stores = cost_of_stores(planned, store_kind::compressed);
  cost.single_stores = cost_of_stores(planned, store_kind::single);
  const uint64_t fills = planned.fills.size();
  cost.fills = 7 * fills + kCommand * commands_for(fills, kMostOfCount);
  cost.increments = cost_of_increments(planned, rules.free_maps);
  const bool has_others = cost.total() > cost.header + cost.moves;
  if (rules.may_omit_move && moves == 0 && has_others) {
    cost.moves = 0;
  }
  return cost;
}

}  // namespace kelvane
