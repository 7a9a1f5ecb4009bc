#include "linear_map.h"

#include <algorithm>
#include <iterator>

namespace kelvane {
namespace {

using run = row_bytes::run;

// Larger than the reach of a list of stores, and than any gap that a store would bridge.
constexpr uint64_t kKeptGap = 512;

// The ranges in order, those that touch or overlap as one.
std::vector<memory_range> joined(std::initializer_list<std::span<const memory_range>> lists) {
  std::vector<memory_range> ranges;
  for (const std::span<const memory_range> list : lists) {
    std::copy_if(list.begin(), list.end(), std::back_inserter(ranges),
                 [](const memory_range& range) { return range.size != 0; });
  }
  std::sort(ranges.begin(), ranges.end(), [](const memory_range& one, const memory_range& other) {
    return one.address < other.address;
  });
  std::vector<memory_range> all;
  for (const memory_range& range : ranges) {
    const uint64_t end = uint64_t{range.address} + range.size;
    if (!all.empty() && range.address <= uint64_t{all.back().address} + all.back().size) {
      memory_range& last = all.back();
      last.size = std::max(last.size, static_cast<uint32_t>(end - last.address));
    } else {
      all.push_back(range);
    }
  }
  return all;
}

// Calls take(range, place) for joined ranges; gives the place behind the last one.
template <typename Take>
uint64_t lay_out(const std::vector<memory_range>& memory, const Take& take) {
  uint64_t place = 0;
  uint64_t end = 0;  // of the last range, as an address
  for (const memory_range& range : memory) {
    const uint64_t gap = range.address - end;
    place += end == 0 ? range.address % 4 : gap <= kKeptGap ? gap : kKeptGap + (gap - kKeptGap) % 4;
    take(range, place);
    place += range.size;
    end = uint64_t{range.address} + range.size;
  }
  return place;
}

// The parts of ascending runs that lie in no run of `others`, which ascend too.
std::vector<run> without(const std::vector<run>& runs, const std::vector<run>& others) {
  std::vector<run> left;
  auto other = others.begin();
  for (run rest : runs) {
    while (other != others.end() && other->end <= rest.begin) {
      ++other;
    }
    for (auto next = other; next != others.end() && next->begin < rest.end; ++next) {
      if (rest.begin < next->begin) {
        left.push_back({rest.begin, next->begin});
      }
      rest.begin = std::min(next->end, rest.end);
    }
    if (rest.begin < rest.end) {
      left.push_back(rest);
    }
  }
  return left;
}

}  // namespace

row_bytes::row_bytes(std::vector<run> runs, uint32_t size)
    : runs_(std::move(runs)), bits_(size / 64 + 2), size_(size) {
  for (const run& each : runs_) {
    for (uint32_t place = each.begin; place < each.end;) {
      const uint32_t bit = place % 64;
      const uint32_t count = std::min(64 - bit, each.end - place);
      bits_[place / 64] |= (~uint64_t{0} >> (64 - count)) << bit;
      place += count;
    }
  }
}

size_t row_bytes::first_behind(int64_t place) const {
  return static_cast<size_t>(
      std::partition_point(runs_.begin(), runs_.end(),
                           [&](const run& each) { return each.end <= place; }) -
      runs_.begin());
}

bool row_bytes::has_all(int64_t begin, int64_t end) const {
  const size_t first = first_behind(begin);
  return first < runs_.size() && runs_[first].begin <= begin && end <= runs_[first].end;
}

uint64_t linear_map::row_size(std::span<const memory_range> old_ranges,
                              std::span<const memory_range> new_ranges,
                              std::span<const memory_range> spare) {
  return lay_out(joined({old_ranges, new_ranges, spare}), [](const memory_range&, uint64_t) {});
}

linear_map::linear_map(std::span<const memory_range> old_ranges,
                       std::span<const memory_range> new_ranges,
                       std::span<const memory_range> spare)
    : memory_(joined({old_ranges, new_ranges, spare})) {
  begins_.reserve(memory_.size());
  size_ = static_cast<uint32_t>(lay_out(memory_, [&](const memory_range&, uint64_t place) {
    begins_.push_back(static_cast<uint32_t>(place));
  }));
  const auto runs_of = [&](std::initializer_list<std::span<const memory_range>> lists) {
    std::vector<run> runs;
    for (const memory_range& range : joined(lists)) {
      const uint32_t begin = place_of(range.address);
      runs.push_back({begin, begin + range.size});
    }
    return runs;
  };
  old_bytes_ = row_bytes(runs_of({old_ranges}), size_);
  new_bytes_ = row_bytes(runs_of({new_ranges}), size_);
  all_bytes_ = row_bytes(runs_of({old_ranges, new_ranges, spare}), size_);
  const std::vector<run> new_alone = without(new_bytes_.runs(), old_bytes_.runs());
  holes_ = row_bytes(without(all_bytes_.runs(), new_alone), size_);
}

size_t linear_map::ranges_up_to(uint32_t address) const {
  const auto behind = std::upper_bound(
      memory_.begin(), memory_.end(), address,
      [](uint32_t value, const memory_range& range) { return value < range.address; });
  return static_cast<size_t>(behind - memory_.begin());
}

uint32_t linear_map::place_of(uint32_t address) const {
  const size_t index = ranges_up_to(address) - 1;
  return begins_[index] + (address - memory_[index].address);
}

uint32_t linear_map::bytes_from(uint32_t address) const {
  const size_t ranges = ranges_up_to(address);
  if (ranges == 0) {
    return 0;
  }
  const memory_range& range = memory_[ranges - 1];
  const uint32_t offset = address - range.address;
  return offset < range.size ? range.size - offset : 0;
}

uint32_t linear_map::address_of(uint32_t place) const {
  const auto behind = std::upper_bound(begins_.begin(), begins_.end(), place);
  const auto index = static_cast<size_t>(behind - begins_.begin()) - 1;
  return memory_[index].address + (place - begins_[index]);
}

std::vector<std::pair<int64_t, int64_t>> linear_map::reserved(bool outer_holes) const {
  std::vector<std::pair<int64_t, int64_t>> kept;
  for (const run& each : without({{0, size_}}, (outer_holes ? all_bytes_ : holes_).runs())) {
    kept.emplace_back(each.begin, each.end);
  }
  return kept;
}

}  // namespace kelvane
