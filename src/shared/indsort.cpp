#include "indsort.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <span>
#include <utility>

#include "indgen_memory.h"

namespace kelvane {

namespace {

constexpr size_t kQuicksortFrom = 6;       // fewer elements: exchange sort
constexpr size_t kMedianOfNineFrom = 36;   // fewer elements: the pivot is a median of three
constexpr size_t kLocalIndexEntries = 64;  // more elements: the index array is allocated

// What both sorts know about their elements.
struct Elements {
  void* context;
  size_t size;
  sort_compare compare;
  sort_exchange swap;

  size_t count(const uint8_t* begin, const uint8_t* end) const {
    return static_cast<size_t>(end - begin) / size;
  }
  bool sorts_after(const uint8_t* first, const uint8_t* second) const {
    return compare(context, first, second) > 0;
  }
  bool sorts_before(const uint8_t* first, const uint8_t* second) const {
    return compare(context, first, second) < 0;
  }
  void exchange(uint8_t* first, uint8_t* second) const {
    swap(first, second, static_cast<uint32_t>(size));
  }
};

// Elements that know where they stood at the start: `index` runs along with the array from `base`
// on and decides between equals.
struct IndexedElements : Elements {
  uint8_t* base;
  uint32_t* index;

  uint32_t& start_of(const uint8_t* element) const { return index[count(base, element)]; }
  bool sorts_after(const uint8_t* first, const uint8_t* second) const {
    const int32_t order = compare(context, first, second);
    if (order != 0) {
      return order > 0;
    }
    return static_cast<int32_t>(start_of(first) - start_of(second)) > 0;
  }
  void exchange(uint8_t* first, uint8_t* second) const {
    Elements::exchange(first, second);
    std::swap(start_of(first), start_of(second));
  }
};

// The median of three.
uint8_t* pick_middle(const Elements& elements, uint8_t* a, uint8_t* b, uint8_t* c) {
  if (elements.sorts_after(a, b)) {
    if (elements.sorts_before(b, c)) {
      return elements.sorts_after(a, c) ? c : a;
    }
    return b;
  }
  if (elements.sorts_after(b, c)) {
    return elements.sorts_after(a, c) ? a : c;
  }
  return b;
}

// Equal elements are equal here, for the stable sort too: it makes no difference to the result.
uint8_t* choose_pivot(const Elements& elements, uint8_t* begin, uint8_t* end) {
  const size_t size = elements.size;
  const size_t n = elements.count(begin, end);
  uint8_t* first = begin;
  uint8_t* middle = begin + (n + 1) / 2 * size;
  uint8_t* last = end - size;
  if (n >= kMedianOfNineFrom) {
    const size_t step = n / 8 * size;
    first = pick_middle(elements, first, first + step, first + 2 * step);
    middle = pick_middle(elements, middle - step, middle, middle + step);
    last = pick_middle(elements, last - 2 * step, last - step, last);
  }
  return pick_middle(elements, first, middle, last);
}

template <typename Order>
void exchange_sort(const Order& order, uint8_t* begin, const uint8_t* end) {
  for (uint8_t* i = begin; order.count(i, end) > 1; i += order.size) {
    for (uint8_t* j = i + order.size; j < end; j += order.size) {
      if (order.sorts_after(i, j)) {
        order.exchange(i, j);
      }
    }
  }
}

// Brings everything that sorts after the pivot behind it and the rest before it; gives the place
// where the pivot, which stands in the array and moves with the exchanges, has ended.
template <typename Order>
uint8_t* partition(const Order& order, uint8_t* begin, uint8_t* end) {
  const size_t size = order.size;
  uint8_t* pivot = choose_pivot(order, begin, end);
  uint8_t* low = begin;
  uint8_t* high = end - size;
  while (low < high) {
    while (low < pivot && !order.sorts_after(low, pivot)) {
      low += size;
    }
    while (pivot < high && !order.sorts_after(pivot, high)) {
      high -= size;
    }
    if (low == high) {
      break;
    }
    order.exchange(low, high);
    if (low == pivot) {
      pivot = high;
      low += size;
    } else if (high == pivot) {
      pivot = low;
      high -= size;
    } else {
      low += size;
      high -= size;
    }
  }
  return pivot;
}

template <typename Order>
void qvr_do_sort(const Order& order, uint8_t* begin, uint8_t* end) {
  while (order.count(begin, end) >= kQuicksortFrom) {
    uint8_t* const pivot = partition(order, begin, end);
    if (order.count(begin, pivot) >= 2) {
      qvr_do_sort(order, begin, pivot);
    }
    begin = pivot + order.size;
  }
  exchange_sort(order, begin, end);
}

template <typename Unit>
void exchange_units(uint8_t* first, uint8_t* second, size_t size) {
  for (size_t position = 0; position < size; position += sizeof(Unit)) {
    Unit from_first;
    Unit from_second;
    std::memcpy(&from_first, first + position, sizeof(Unit));
    std::memcpy(&from_second, second + position, sizeof(Unit));
    std::memcpy(first + position, &from_second, sizeof(Unit));
    std::memcpy(second + position, &from_first, sizeof(Unit));
  }
}

}  // namespace

void qvr_sort(void* context, void* base, uint32_t count, uint32_t size, sort_compare compare,
              sort_exchange exchange) {
  if (count == 0 || size == 0) {
    return;
  }
  auto* const begin = static_cast<uint8_t*>(base);
  const Elements order{context, size, compare,
                       exchange != nullptr ? exchange : qvr_swap_default_cmp};
  qvr_do_sort(order, begin, begin + size_t{count} * size);
}

void qvr_stable_sort(void* context, void* base, uint32_t count, uint32_t size, sort_compare compare,
                     sort_exchange exchange) {
  if (count == 0 || size == 0) {
    return;
  }
  std::array<uint32_t, kLocalIndexEntries> local_index;
  gen_ptr<uint32_t> allocated_index;
  std::span<uint32_t> index(local_index);
  if (count > index.size()) {
    allocated_index.reset(gen_alloc_array<uint32_t>(count));
    index = {allocated_index.get(), count};
  }
  std::iota(index.begin(), index.end(), 0U);
  auto* const begin = static_cast<uint8_t*>(base);
  const Elements elements{context, size, compare,
                          exchange != nullptr ? exchange : qvr_swap_default_cmp};
  const IndexedElements order{elements, begin, index.data()};
  qvr_do_sort(order, begin, begin + size_t{count} * size);
}

void qvr_swap_default_cmp(void* first, void* second, uint32_t size) {
  auto* const a = static_cast<uint8_t*>(first);
  auto* const b = static_cast<uint8_t*>(second);
  constexpr uint32_t kWord = sizeof(uint32_t);
  const bool whole_words = size % kWord == 0 && reinterpret_cast<uintptr_t>(a) % kWord == 0 &&
                           reinterpret_cast<uintptr_t>(b) % kWord == 0;
  if (whole_words) {
    exchange_units<uint32_t>(a, b, size);
  } else {
    exchange_units<uint8_t>(a, b, size);
  }
}

}  // namespace kelvane
