#include <algorithm>
#include <array>
#include <optional>

#include "stores_internal.h"

namespace kelvane {
namespace {

constexpr int kPasses = 3;
constexpr int kListBytes = 6;
constexpr uint64_t kNever = UINT64_MAX / 4;

// What a store costs beside its bytes, in a list and alone.
struct kind_costs {
  store_kind kind;
  int linked;
  int alone;
};
constexpr kind_costs kPlain = {store_kind::plain, 2, 8};
constexpr kind_costs kSingle = {store_kind::single, 1, 4};

int cost_of(const kind_costs& costs, bool linked_before, bool linked_after) {
  const int starts_list = !linked_before && linked_after ? kListBytes : 0;
  return (linked_before || linked_after ? costs.linked : costs.alone) + starts_list;
}

class store_linker {
 public:
  store_linker(bool short_stores, idle_bytes& idle, std::vector<planned_store>& stores)
      : short_stores_(short_stores), idle_(idle), stores_(stores), widened_(stores.size()) {}

  void run() {
    for (int pass = 0; pass < kPasses && change_kinds(); ++pass) {
    }
    std::vector<planned_store> links;
    add_links(kPlain, links);
    add_links(kSingle, links);
    stores_.insert(stores_.end(), links.begin(), links.end());
    std::stable_sort(stores_.begin(), stores_.end(),
                     [](const planned_store& first, const planned_store& second) {
                       return first.address < second.address;
                     });
  }

 private:
  // How a single byte became a plain store: with the byte behind it, the one ahead, or none.
  enum class widening : uint8_t { none, behind, ahead, alone };

  static bool links(uint32_t first, uint32_t second) { return second - first <= kListReach; }

  bool can_link(size_t index, store_kind kind) const {
    return stores_[index].kind == kind && stores_[index].size <= kLargestInList;
  }
  // The next store of the kind in reach of `address`, beside `index`.
  std::optional<size_t> before(size_t index, uint32_t address, store_kind kind) const {
    while (index > 0 && links(stores_[index - 1].address, address)) {
      if (can_link(--index, kind)) {
        return index;
      }
    }
    return std::nullopt;
  }
  std::optional<size_t> after(size_t index, uint32_t address, store_kind kind) const {
    while (++index < stores_.size() && links(address, stores_[index].address)) {
      if (can_link(index, kind)) {
        return index;
      }
    }
    return std::nullopt;
  }

  // What the lists of a kind grow by if the store `index` is one of them, at `address`, beside its
  // bytes.
  int added_cost(size_t index, uint32_t address, const kind_costs& costs) const {
    const auto left = before(index, address, costs.kind);
    const auto right = after(index, address, costs.kind);
    const bool left_goes_on = left && before(*left, stores_[*left].address, costs.kind);
    const bool right_goes_on = right && after(*right, stores_[*right].address, costs.kind);
    const bool meet = left && right && links(stores_[*left].address, stores_[*right].address);
    int with = cost_of(costs, left.has_value(), right.has_value());
    int without = 0;
    if (left) {
      with += cost_of(costs, left_goes_on, true);
      without += cost_of(costs, left_goes_on, meet);
    }
    if (right) {
      with += cost_of(costs, true, right_goes_on);
      without += cost_of(costs, meet, right_goes_on);
    }
    return with - without;
  }

  bool change_kinds() {
    bool any = false;
    for (size_t i = 0; i < stores_.size(); ++i) {
      if (stores_[i].kind == store_kind::single) {
        any = widen(i) || any;
      } else if (widened_[i] != widening::none) {
        any = narrow(i) || any;
      }
    }
    return any;
  }

  bool widen(size_t index) {
    planned_store& store = stores_[index];
    const bool behind = idle_.is_idle(int64_t{store.address} + 1);
    const bool ahead = idle_.is_idle(int64_t{store.address} - 1);
    if (!short_stores_ && !behind && !ahead) {
      return false;
    }
    const widening way = short_stores_ ? widening::alone
                         : behind      ? widening::behind
                                       : widening::ahead;
    const uint32_t address = store.address - (way == widening::ahead ? 1 : 0);
    const uint32_t size = short_stores_ ? 1 : 2;
    const int as_single = added_cost(index, store.address, kSingle) + 1;
    const int as_plain = added_cost(index, address, kPlain) + static_cast<int>(size);
    if (as_plain >= as_single) {
      return false;
    }
    store = {address, size, 0, 0, store_kind::plain};
    widened_[index] = way;
    if (size == 2) {
      idle_.set_used(way == widening::behind ? address + 1 : address);
    }
    return true;
  }

  bool narrow(size_t index) {
    planned_store& store = stores_[index];
    const widening way = widened_[index];
    const uint32_t address = store.address + (way == widening::ahead ? 1 : 0);
    const int as_plain = added_cost(index, store.address, kPlain) + static_cast<int>(store.size);
    const int as_single = added_cost(index, address, kSingle) + 1;
    if (as_single >= as_plain) {
      return false;
    }
    if (way != widening::alone) {
      idle_.set_idle(way == widening::behind ? address + 1 : address - 1);
    }
    store = {address, 1, 0, 0, store_kind::single};
    widened_[index] = widening::none;
    return true;
  }

  // Where stores of the kind are out of reach of each other by little, links them by stores of
  // bytes that are there already: 1 byte, for plain stores 2, or none at all if short stores are
  // allowed. Whether a link pays depends on the ones beside it, so the cheapest way through all of
  // them is looked for: two states, linked to the next store or not.
  void add_links(const kind_costs& costs, std::vector<planned_store>& added) {
    std::vector<size_t> of_kind;
    for (size_t i = 0; i < stores_.size(); ++i) {
      if (stores_[i].kind == costs.kind) {
        of_kind.push_back(i);
      }
    }
    std::array<uint64_t, 2> least = {0, kNever};  // by whether linked to the store before
    std::vector<std::array<uint8_t, 2>> came_from(of_kind.size());
    for (size_t i = 0; i < of_kind.size(); ++i) {
      const std::array<uint64_t, 2> edge = edge_costs(costs, of_kind, i);
      std::array<uint64_t, 2> next = {kNever, kNever};
      for (const size_t before : {0U, 1U}) {
        for (const size_t after : {0U, 1U}) {
          const uint64_t cost = least[before] + edge[after] +
                                static_cast<uint64_t>(cost_of(costs, before != 0, after != 0));
          if (cost < next[after]) {
            next[after] = cost;
            came_from[i][after] = static_cast<uint8_t>(before);
          }
        }
      }
      least = next;
    }
    uint8_t after = 0;
    for (size_t i = of_kind.size(); i-- > 0;) {
      if (after != 0) {
        add_link(costs, stores_[of_kind[i]], stores_[of_kind[i + 1]], added);
      }
      after = came_from[i][after];
    }
  }

  // What it costs to leave a store unlinked to the next one, and to link it.
  std::array<uint64_t, 2> edge_costs(const kind_costs& costs, const std::vector<size_t>& of_kind,
                                     size_t index) const {
    if (index + 1 == of_kind.size()) {
      return {0, kNever};
    }
    const planned_store& first = stores_[of_kind[index]];
    const planned_store& second = stores_[of_kind[index + 1]];
    if (first.size > kLargestInList || second.size > kLargestInList) {
      return {0, kNever};
    }
    if (links(first.address, second.address)) {
      return {kNever, 0};
    }
    const size_t count = link_places(costs, first.address, second.address).size();
    if (count == 0) {
      return {0, kNever};
    }
    return {0, count * (static_cast<uint64_t>(costs.linked) + link_size(costs))};
  }

  uint32_t link_size(const kind_costs& costs) const {
    return costs.kind == store_kind::single ? 1 : short_stores_ ? 0 : 2;
  }

  // Where stores have to stand that link two which are out of reach; nowhere if there are no such
  // places, or too many are needed to pay.
  std::vector<uint32_t> link_places(const kind_costs& costs, uint32_t first,
                                    uint32_t second) const {
    constexpr uint32_t kMostLinks = 3;
    const uint32_t count = (second - first - 1) / kListReach;
    if (count > kMostLinks) {
      return {};
    }
    std::vector<uint32_t> places;
    for (uint32_t left = count; left > 0; --left) {
      // Not farther than a list reaches, and near enough for those that follow.
      const uint32_t highest = std::min(first + kListReach, second - 1);
      const uint32_t lowest = std::max(first + 1, second - kListReach * left);
      const auto place = idle_place(lowest, highest, link_size(costs));
      if (!place) {
        return {};
      }
      places.push_back(*place);
      first = *place;
    }
    return places;
  }

  void add_link(const kind_costs& costs, const planned_store& first, const planned_store& second,
                std::vector<planned_store>& added) {
    if (links(first.address, second.address)) {
      return;
    }
    const uint32_t size = link_size(costs);
    for (const uint32_t place : link_places(costs, first.address, second.address)) {
      added.push_back({place, size, 0, 0, costs.kind});
      for (uint32_t i = 0; i < size; ++i) {
        idle_.set_used(place + i);
      }
    }
  }

  std::optional<uint32_t> idle_place(uint32_t lowest, uint32_t highest, uint32_t size) const {
    for (uint32_t at = highest; at >= lowest; --at) {
      if (size == 0 ? idle_.is_of_image(at)
                    : (idle_.is_idle(at) && (size == 1 || idle_.is_idle(int64_t{at} + 1)))) {
        return at;
      }
    }
    return std::nullopt;
  }

  bool short_stores_;
  idle_bytes& idle_;
  std::vector<planned_store>& stores_;
  std::vector<widening> widened_;
};

}  // namespace

void link_stores(bool short_stores, idle_bytes& idle, std::vector<planned_store>& stores) {
  store_linker(short_stores, idle, stores).run();
}

}  // namespace kelvane
