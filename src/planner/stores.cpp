#include "stores.h"

#include <algorithm>

#include "memory_target.h"
#include "stores_internal.h"

namespace kelvane {
namespace {

constexpr uint32_t kLeastPacked = 16;
// What stands in front of a store's bytes in the absolute list, and about that in a relative one.
constexpr uint32_t kAbsoluteBytes = 8;
constexpr uint32_t kRelativeBytes = 3;

bool pays_packed(const stored_run& run, uint32_t packed) {
  const uint32_t size = run.end - run.begin;
  const uint32_t plain = size + (size <= kLargestInList ? kRelativeBytes : kAbsoluteBytes);
  if (run.is_compressed) {
    return packed + (size <= kLargestInList ? kRelativeBytes : 0) < size;
  }
  return packed + kAbsoluteBytes < plain;
}

// The fills of the bytes from `begin` on.
void fill_part(std::span<const uint8_t> bytes, size_t begin, size_t part_end, moved_image& moved,
               std::vector<planned_fill>& fills) {
  while (begin < part_end) {
    size_t end = begin + 1;
    while (end < part_end && bytes[end] == bytes[begin] && end - begin < kLargestFill) {
      ++end;
    }
    if (end - begin >= kLeastFill) {
      size_t differing = 0;
      size_t first = end;
      size_t last = begin;
      for (size_t at = begin; at < end; ++at) {
        if (moved.bytes[at] != bytes[at]) {
          ++differing;
          first = std::min(first, at);
          last = at;
        }
      }
      if (differing >= kLeastFill) {
        fills.push_back(
            {static_cast<uint32_t>(first), static_cast<uint32_t>(last + 1 - first), bytes[begin]});
        std::fill(moved.bytes.begin() + static_cast<ptrdiff_t>(first),
                  moved.bytes.begin() + static_cast<ptrdiff_t>(last) + 1, bytes[begin]);
      }
    }
    begin = end;
  }
}

}  // namespace

std::vector<planned_fill> find_fills(const plan_images& images, moved_image& moved) {
  std::vector<planned_fill> fills;
  each_new_part(images, 0, static_cast<int64_t>(images.new_image.size()),
                [&](int64_t begin, int64_t end) {
                  fill_part(images.new_image, static_cast<size_t>(begin), static_cast<size_t>(end),
                            moved, fills);
                });
  return fills;
}

idle_bytes::idle_bytes(const plan_images& images, const moved_image& moved, const plan& planned)
    : changed_(images.new_image.size(), false), map_(map_of(images)) {
  const auto mark = [&](uint32_t address, uint32_t size) {
    std::fill_n(changed_.begin() + address, size, true);
  };
  for (size_t at = 0; at < changed_.size(); ++at) {
    if (moved.bytes[at] != images.new_image[at] || !has_new(images, static_cast<int64_t>(at), 1)) {
      changed_[at] = true;
    }
  }
  for (const planned_store& store : planned.stores) {
    mark(store.address, store.size);
  }
  for (const uint32_t word : planned.words) {
    mark(word * 4, 4);
  }
}

void plan_stores(const plan_images& images, const moved_image& moved,
                 std::span<const stored_run> runs, const plan_rules& rules, packed_runs& forms,
                 plan& planned) {
  std::vector<planned_store> linked;  // all but the compressed ones
  std::vector<planned_store> packed;
  optimal_parser parser;
  for (const stored_run& run : runs) {
    planned_store store = {run.begin, run.end - run.begin, 0, 0, store_kind::plain};
    if (store.size == 1) {
      store.kind = store_kind::single;
    } else if (rules.compression && store.size >= kLeastPacked) {
      const size_t begin = planned.packed.size();
      const auto packed_size = forms.append(store.address, store.size, parser, planned.packed);
      if (packed_size && pays_packed(run, *packed_size)) {
        store.kind = store_kind::compressed;
        store.packed_begin = static_cast<uint32_t>(begin);
        store.packed_size = *packed_size;
      } else {
        planned.packed.resize(begin);
      }
    }
    (store.kind == store_kind::compressed ? packed : linked).push_back(store);
  }
  planned.packed.shrink_to_fit();  // of what doesn't compress nothing is left but the room
  planned.stores = linked;
  planned.stores.insert(planned.stores.end(), packed.begin(), packed.end());
  idle_bytes idle(images, moved, planned);
  link_stores(rules.short_stores, idle, linked);
  planned.stores = std::move(linked);
  planned.stores.insert(planned.stores.end(), packed.begin(), packed.end());
  std::stable_sort(planned.stores.begin(), planned.stores.end(),
                   [](const planned_store& first, const planned_store& second) {
                     return first.address < second.address;
                   });
}

}  // namespace kelvane
