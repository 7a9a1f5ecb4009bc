#include <algorithm>
#include <optional>

#include "stores_internal.h"

namespace kelvane {
namespace {

constexpr int kPasses = 3;
constexpr int kListBytes = 6;

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

  // Where stores of the kind are out of reach of each other by little, tries to link them by stores
  // of bytes that are there already: 1 byte, for plain stores 2, or none at all if short stores are
  // allowed.
  void add_links(const kind_costs& costs, std::vector<planned_store>& added) {
    const bool is_plain = costs.kind == store_kind::plain;
    const uint32_t size = !is_plain ? 1 : short_stores_ ? 0 : 2;
    const uint32_t most = !is_plain ? 2 : short_stores_ ? 3 : 1;
    const planned_store* last = nullptr;
    bool last_is_linked = false;  // to the one before it
    for (size_t i = 0; i < stores_.size(); ++i) {
      const planned_store& store = stores_[i];
      if (store.kind != costs.kind) {
        continue;
      }
      bool is_linked = false;
      if (store.size <= kLargestInList && last != nullptr && last->size <= kLargestInList) {
        const uint32_t gap = store.address - last->address;
        is_linked = gap <= kListReach;
        if (!is_linked && gap <= kListReach * (most + 1)) {
          const bool goes_on = after(i, store.address, costs.kind).has_value();
          is_linked = try_links(costs, *last, last_is_linked, store, goes_on, size, added);
        }
      }
      last = &store;
      last_is_linked = is_linked;
    }
  }

  bool try_links(const kind_costs& costs, const planned_store& first, bool first_is_linked,
                 const planned_store& second, bool second_goes_on, uint32_t size,
                 std::vector<planned_store>& added) {
    const uint32_t count = (second.address - first.address - 1) / kListReach;
    const int without =
        cost_of(costs, first_is_linked, false) + cost_of(costs, false, second_goes_on);
    const int with = cost_of(costs, first_is_linked, true) + cost_of(costs, true, second_goes_on) +
                     static_cast<int>(count) * (costs.linked + static_cast<int>(size));
    if (with >= without) {
      return false;
    }
    std::vector<planned_store> links;
    uint32_t from = first.address;
    for (uint32_t left = count; left > 0; --left) {
      // Not farther than a list reaches, and near enough for those that follow.
      const uint32_t highest = std::min(from + kListReach, second.address - 1);
      const uint32_t lowest = std::max(from + 1, second.address - kListReach * left);
      const auto place = idle_place(lowest, highest, size);
      if (!place) {
        return false;
      }
      links.push_back({*place, size, 0, 0, costs.kind});
      from = *place;
    }
    for (const planned_store& link : links) {
      for (uint32_t i = 0; i < size; ++i) {
        idle_.set_used(link.address + i);
      }
    }
    added.insert(added.end(), links.begin(), links.end());
    return true;
  }

  std::optional<uint32_t> idle_place(uint32_t lowest, uint32_t highest, uint32_t size) const {
    for (uint32_t at = highest; at >= lowest; --at) {
      if (size == 0 || (idle_.is_idle(at) && (size == 1 || idle_.is_idle(int64_t{at} + 1)))) {
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
