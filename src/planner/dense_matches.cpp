// SPDX-License-Identifier: Apache-2.0
#include "dense_matches.h"

#include <algorithm>
#include <bit>

namespace kelvane {
namespace {

constexpr uint32_t kHashBits = 18;
constexpr int kOldTrials = 48;
constexpr int kNewTrials = 24;
constexpr uint32_t kLongest = 1U << 16U;
// Costs in tenths of a bit.
constexpr uint32_t kLiteral = 65;
constexpr uint32_t kExpectedLiteral = 25;  // the byte that the copy in front would bring
constexpr uint32_t kMatch = 30;
constexpr uint32_t kRepeated = 10;

uint32_t number_cost(uint32_t value) {
  return 10 + 12 * (static_cast<uint32_t>(std::bit_width(value + 1)) - 1);
}

struct step {
  uint32_t cost = UINT32_MAX;
  dense_item item;
  int64_t shift = 0;  // from which the next match is told
};

class item_parse {
 public:
  item_parse(const plan_images& images, const string_chains& chains, const old_reach& reach,
             bool reads_new, uint32_t begin, uint32_t end, int64_t shift)
      : images_(images),
        chains_(chains),
        reach_(reach),
        reads_new_(reads_new),
        begin_(begin),
        end_(end),
        steps_(size_t{end} - begin + 1) {
    steps_[0].cost = 0;
    steps_[0].shift = shift;
  }

  void append(std::vector<dense_item>& items) {
    for (uint32_t at = begin_; at < end_; ++at) {
      take_literal(at);
      if (end_ - at >= 3 && at + string_chains::kStringBytes <= images_.new_image.size()) {
        take_matches(at);
      }
    }
    const size_t first = items.size();
    for (size_t at = steps_.size() - 1; at != 0;) {
      items.push_back(steps_[at].item);
      at -= std::max(steps_[at].item.length, 1U);
    }
    std::reverse(items.begin() + static_cast<ptrdiff_t>(first), items.end());
  }

 private:
  uint8_t new_byte(uint32_t at) const { return images_.new_image[at]; }
  const step& step_at(uint32_t at) const { return steps_[at - begin_]; }

  void take_literal(uint32_t at) {
    const step& from = step_at(at);
    const int64_t place = at - from.shift;
    const bool is_expected = place >= 0 && place < static_cast<int64_t>(images_.old_image.size()) &&
                             images_.old_image[static_cast<size_t>(place)] == new_byte(at);
    enter(at + 1, from.cost + (is_expected ? kExpectedLiteral : kLiteral), {}, from.shift);
  }

  void enter(uint32_t at, uint32_t cost, const dense_item& item, int64_t shift) {
    step& to = steps_[at - begin_];
    if (cost < to.cost) {
      to = {cost, item, shift};
    }
  }

  void take_matches(uint32_t at) {
    const int64_t expected = at - step_at(at).shift;
    if (expected >= 0 && expected < static_cast<int64_t>(images_.old_image.size())) {
      take_old(at, static_cast<uint32_t>(expected));
    }
    uint32_t place = reads_new_ ? chains_.before_new(at) : string_chains::kNone;
    for (int i = 0; i < kNewTrials && place != string_chains::kNone; ++i) {
      take_new(at, place);
      place = chains_.before_new(place);
    }
    place = chains_.newest_old(at);
    for (int i = 0; i < kOldTrials && place != string_chains::kNone; ++i) {
      take_old(at, place);
      place = chains_.before_old(place);
    }
  }

  uint32_t equal_bytes(std::span<const uint8_t> image, uint32_t place, uint32_t at) const {
    const auto limit =
        static_cast<uint32_t>(std::min<size_t>({end_ - at, kLongest, image.size() - place}));
    uint32_t length = 0;
    while (length < limit && image[place + length] == new_byte(at + length)) {
      ++length;
    }
    return length;
  }

  void take_new(uint32_t at, uint32_t place) {
    const uint32_t length = equal_bytes(images_.new_image, place, at);
    take(at, length, {0, place, true}, number_cost(at - place - 1), step_at(at).shift);
  }

  void take_old(uint32_t at, uint32_t place) {
    const uint32_t length = reach_.readable(place, at, equal_bytes(images_.old_image, place, at));
    const int64_t off = static_cast<int64_t>(place) - (at - step_at(at).shift);
    const uint32_t cost =
        off == 0 ? kRepeated
                 : kRepeated + number_cost(static_cast<uint32_t>(2 * (off < 0 ? -off : off)));
    take(at, length, {0, place, false}, cost, static_cast<int64_t>(at) - place);
  }

  // All lengths, the long ones by doubling.
  void take(uint32_t at, uint32_t longest, dense_item item, uint32_t place_cost, int64_t shift) {
    constexpr uint32_t kEachLength = 32;
    const uint32_t cost = step_at(at).cost + kMatch + place_cost;
    for (uint32_t length = 2; length <= longest; length = length < kEachLength || length == longest
                                                              ? length + 1
                                                              : std::min(longest, length * 2)) {
      item.length = length;
      enter(at + length, cost + number_cost(length - 2), item, shift);
    }
  }

  const plan_images& images_;
  const string_chains& chains_;
  const old_reach& reach_;
  bool reads_new_;
  uint32_t begin_;
  uint32_t end_;
  std::vector<step> steps_;
};

}  // namespace

uint32_t string_chains::hash_at(std::span<const uint8_t> image, uint32_t at) {
  return (load_word(image.data() + at, ByteOrder::kLittle) * 2654435761U) >> (32 - kHashBits);
}

string_chains::string_chains(const plan_images& images)
    : images_(images),
      old_heads_(size_t{1} << kHashBits, kNone),
      before_old_(images.old_image.size(), kNone),
      before_new_(images.new_image.size(), kNone) {
  for (uint32_t at = 0; at + kStringBytes <= images.old_image.size(); ++at) {
    uint32_t& head = old_heads_[hash_at(images.old_image, at)];
    before_old_[at] = head;
    head = at;
  }
  std::vector<uint32_t> heads(size_t{1} << kHashBits, kNone);
  for (uint32_t at = 0; at + kStringBytes <= images.new_image.size(); ++at) {
    uint32_t& head = heads[hash_at(images.new_image, at)];
    before_new_[at] = head;
    head = at;
  }
}

void append_items(const plan_images& images, const string_chains& chains, const old_reach& reach,
                  bool reads_new, uint32_t begin, uint32_t end, int64_t shift,
                  std::vector<dense_item>& items) {
  if (begin != end) {
    item_parse(images, chains, reach, reads_new, begin, end, shift).append(items);
  }
}

}  // namespace kelvane
