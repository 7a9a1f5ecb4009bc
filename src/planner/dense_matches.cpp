// SPDX-License-Identifier: Apache-2.0
#include "dense_matches.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "dense_prices.h"

namespace kelvane {
namespace {

constexpr int kOldTrials = 48;
constexpr int kNewTrials = 24;
constexpr uint32_t kLongest = 1U << 16U;
// Inside of a match so long no other is looked for, but near its end. Without that, a pattern that
// repeats takes time by the square of its length.
constexpr uint32_t kLongMatch = 256;
constexpr uint32_t kNearEnd = 16;
constexpr uint32_t kParsedAtOnce = 1U << 16U;  // bytes
// Places that are kept of both images; more are thinned out.
constexpr uint64_t kFewPlaces = 1U << 18U;
constexpr uint32_t kLargestStep = 4;

bool is_one_byte(const uint8_t* string) {
  return std::equal(string + 1, string + kStringBytes, string);
}

// What the prices of the next item depend on.
struct item_state {
  int64_t shift = 0;      // of the copy or match into the old image in front
  uint32_t distance = 0;  // of the last match into the new one
  uint8_t matches = 0;    // the last two items: literal or match

  item_state behind(bool is_match) const {
    return {shift, distance, static_cast<uint8_t>((matches * 2U + (is_match ? 1U : 0U)) & 3U)};
  }
};

struct step {
  uint32_t cost = UINT32_MAX;
  dense_item item;
  item_state state;
};

// Bytes `begin` to `end` of the new image, with `state` behind what is in front.
class item_parse {
 public:
  item_parse(const plan_images& images, const string_places& places, const old_reach& reach,
             const item_prices& prices, bool reads_new, uint32_t begin, uint32_t end,
             const item_state& state)
      : images_(images),
        places_(places),
        reach_(reach),
        prices_(prices),
        reads_new_(reads_new),
        begin_(begin),
        end_(end),
        steps_(size_t{end} - begin + 1) {
    steps_[0].cost = 0;
    steps_[0].state = state;
  }

  // Gives the state at the end.
  item_state append(std::vector<dense_item>& items) {
    for (uint32_t at = begin_; at < end_; ++at) {
      passed_ = at;
      take_literal(at);
      if (at >= long_until_ && end_ - at >= 3 && at + kStringBytes <= images_.new_image.size()) {
        take_matches(at);
      }
    }
    const size_t first = items.size();
    std::vector<dense_item> found;
    for (size_t at = steps_.size() - 1; at != 0; at -= steps_[at].item.length) {
      found.push_back(steps_[at].item);
    }
    std::reverse(found.begin(), found.end());
    for (const dense_item& item : found) {
      if (items.size() > first && item.kind == dense_item::literal &&
          items.back().kind == dense_item::literal) {
        items.back().length += item.length;
      } else {
        items.push_back(item);
      }
    }
    return steps_.back().state;
  }

 private:
  uint8_t new_byte(uint32_t at) const { return images_.new_image[at]; }
  const step& step_at(uint32_t at) const { return steps_[at - begin_]; }

  const std::array<uint32_t, 2>& match_prices(uint32_t at) const {
    return prices_.is_match[at % 4 * 4 + step_at(at).state.matches];
  }

  void take_literal(uint32_t at) {
    const step& from = step_at(at);
    enter(at + 1, from.cost + match_prices(at)[0] + prices_.literal[at],
          {1, 0, dense_item::literal}, from.state.behind(false));
  }

  void enter(uint32_t at, uint32_t cost, const dense_item& item, const item_state& state) {
    step& to = steps_[at - begin_];
    if (at > passed_ && cost < to.cost) {
      to = {cost, item, state};
    }
  }

  void take_matches(uint32_t at) {
    const item_state& state = step_at(at).state;
    const int64_t expected = at - state.shift;
    if (expected >= 0 && expected < static_cast<int64_t>(images_.old_image.size())) {
      const auto place = static_cast<uint32_t>(expected);
      take_old(at, place, equal_bytes(images_.old_image, place, at));
    }
    if (reads_new_) {
      if (state.distance != 0) {
        const uint32_t place = at - state.distance;
        take_new(at, place, equal_bytes(images_.new_image, place, at));
      }
      each_of_last(places_.in_new(at), kNewTrials, [&](uint32_t place) {
        take_from_ahead(images_.new_image, place, at,
                        [&](uint32_t k, uint32_t equal) { take_new(at - k, place - k, equal); });
      });
    }
    each_of_last(places_.in_old(at), kOldTrials, [&](uint32_t place) {
      take_from_ahead(images_.old_image, place, at,
                      [&](uint32_t k, uint32_t equal) { take_old(at - k, place - k, equal); });
    });
  }

  static void each_of_last(std::span<const uint32_t> places, size_t count, const auto& take) {
    for (size_t i = places.size(); i != 0 && places.size() - i < count; --i) {
      take(places[i - 1]);
    }
  }

  // From `at`, and from bytes ahead of it that agree and stand at places that are left out.
  void take_from_ahead(std::span<const uint8_t> image, uint32_t place, uint32_t at,
                       const auto& take) {
    const uint32_t equal = equal_bytes(image, place, at);
    take(0, equal);
    for (uint32_t k = 1; k < places_.step() && k <= place && k <= at - begin_ &&
                         image[place - k] == new_byte(at - k);
         ++k) {
      take(k, std::min(equal + k, kLongest));
    }
  }

  uint32_t equal_bytes(std::span<const uint8_t> image, uint32_t place, uint32_t at) const {
    const auto limit =
        static_cast<uint32_t>(std::min<size_t>({end_ - at, kLongest, image.size() - place}));
    uint32_t length = 0;
    while (length + 8 <= limit &&
           std::memcmp(&image[place + length], &images_.new_image[at + length], 8) == 0) {
      length += 8;
    }
    while (length < limit && image[place + length] == new_byte(at + length)) {
      ++length;
    }
    return length;
  }

  // Matches whose bytes have been found equal.
  void take_new(uint32_t at, uint32_t place, uint32_t equal) {
    item_state state = step_at(at).state.behind(true);
    const bool is_same = at - place == state.distance;
    state.distance = at - place;
    take(at, equal, {0, place, dense_item::new_image},
         prices_.is_new[1] + prices_.is_same_distance[is_same ? 1 : 0] +
             (is_same ? 0 : prices_.distance.of(at - place - 1)),
         prices_.new_length, state);
  }

  void take_old(uint32_t at, uint32_t place, uint32_t equal) {
    item_state state = step_at(at).state.behind(true);
    const int64_t shift = static_cast<int64_t>(at) - place;
    const auto off = static_cast<uint32_t>(state.shift - shift);
    state.shift = shift;
    take(at, reach_.readable(place, at, equal), {0, place, dense_item::old_image},
         prices_.is_new[0] + prices_.place.of(folded(off)), prices_.old_length, state);
  }

  // All lengths, the long ones by doubling.
  void take(uint32_t at, uint32_t longest, dense_item item, uint32_t place_cost,
            const number_prices& length_prices, const item_state& state) {
    constexpr uint32_t kEachLength = 32;
    if (longest >= kLongMatch) {
      long_until_ = std::max(long_until_, at + longest - kNearEnd);
    }
    const uint32_t cost = step_at(at).cost + match_prices(at)[1] + place_cost;
    for (uint32_t length = 2; length <= longest; length = length < kEachLength || length == longest
                                                              ? length + 1
                                                              : std::min(longest, length * 2)) {
      item.length = length;
      enter(at + length, cost + length_prices.of(length - 2), item, state);
    }
  }

  const plan_images& images_;
  const string_places& places_;
  const old_reach& reach_;
  const item_prices& prices_;
  bool reads_new_;
  uint32_t begin_;
  uint32_t end_;
  uint32_t passed_ = 0;      // steps up to here are settled
  uint32_t long_until_ = 0;  // up to here a long match reaches
  std::vector<step> steps_;
};

}  // namespace

uint32_t string_places::hash_at(std::span<const uint8_t> image, uint32_t at) const {
  return (load_word(image.data() + at, ByteOrder::kLittle) * 2654435761U) >> (32 - hash_bits_);
}

// Notes the strings of the stored bytes; gives the number of these.
uint64_t string_places::note_wanted(std::span<const dense_copy> copies) {
  uint64_t stored = 0;
  wanted_.assign(size_t{1} << hash_bits_, false);
  uint32_t at = 0;
  const auto note_up_to = [&](size_t end) {
    for (; at < end; ++at, ++stored) {
      if (at + kStringBytes <= images_.new_image.size()) {
        wanted_[hash_at(images_.new_image, at)] = true;
      }
    }
  };
  for (const dense_copy& copy : copies) {
    note_up_to(copy.target);
    at = copy.target + copy.length;
  }
  note_up_to(images_.new_image.size());
  return stored;
}

void string_places::fill(std::span<const uint8_t> image, places& of) const {
  // Of a run of one byte its beginning: what is in it begins there as well.
  constexpr size_t kRun = 16;
  const auto each = [&](const auto& take) {
    size_t run_begin = 0;
    for (size_t at = 0; at + kStringBytes <= image.size(); ++at) {
      run_begin = at != 0 && image[at] == image[at - 1] ? run_begin : at;
      if (at % step_ != 0 || (at - run_begin > kRun && is_one_byte(&image[at]))) {
        continue;
      }
      const uint32_t hash = hash_at(image, static_cast<uint32_t>(at));
      if (wanted_[hash]) {
        take(hash, static_cast<uint32_t>(at));
      }
    }
  };
  of.begin.assign((size_t{1} << hash_bits_) + 1, 0);
  each([&](uint32_t hash, uint32_t) { ++of.begin[hash + 1]; });
  for (size_t i = 1; i < of.begin.size(); ++i) {
    of.begin[i] += of.begin[i - 1];
  }
  of.all.resize(of.begin.back());
  std::vector<uint32_t> next(of.begin.begin(), of.begin.end() - 1);
  each([&](uint32_t hash, uint32_t at) { of.all[next[hash]++] = at; });
}

string_places::string_places(const plan_images& images, std::span<const dense_copy> copies)
    : images_(images) {
  const uint64_t both = images.old_image.size() + images.new_image.size();
  hash_bits_ = std::clamp(static_cast<uint32_t>(std::bit_width(both)), 8U, 18U);
  const uint64_t stored = note_wanted(copies);
  // Most strings are wanted once there are some for each hash.
  if (stored > (size_t{1} << hash_bits_) / 4) {
    while (step_ < kLargestStep && both / step_ > kFewPlaces) {
      step_ *= 2;
    }
  }
  fill(images.old_image, old_);
  fill(images.new_image, new_);
  wanted_ = {};
}

std::span<const uint32_t> string_places::in_new(uint32_t at) const {
  const std::span<const uint32_t> all = bucket(new_, hash_at(images_.new_image, at));
  return all.first(static_cast<size_t>(std::lower_bound(all.begin(), all.end(), at) - all.begin()));
}

namespace {

std::vector<dense_item> cheapest_items(const plan_images& images, const string_places& places,
                                       const old_reach& reach, const item_prices& prices,
                                       std::span<const dense_copy> copies, bool reads_new) {
  std::vector<dense_item> items;
  uint32_t at = 0;
  item_state state;
  const auto store_up_to = [&](uint32_t end) {
    while (at < end) {
      const uint32_t part = at + std::min(end - at, kParsedAtOnce);
      state = item_parse(images, places, reach, prices, reads_new, at, part, state).append(items);
      at = part;
    }
  };
  for (const dense_copy& copy : copies) {
    store_up_to(copy.target);
    at = copy.target + copy.length;
    state.shift = static_cast<int64_t>(copy.target) - copy.source;
  }
  store_up_to(static_cast<uint32_t>(images.new_image.size()));
  items.shrink_to_fit();
  return items;
}

}  // namespace

std::vector<dense_item> items_between(const plan_images& images, const string_places& places,
                                      const old_reach& reach, std::span<const dense_copy> copies,
                                      bool reads_new) {
  const auto cheapest = [&](const item_prices& prices) {
    return cheapest_items(images, places, reach, prices, copies, reads_new);
  };
  const std::vector<dense_item> usual = cheapest(usual_prices(images.new_image.size()));
  return cheapest(measured_prices(images, copies, usual));
}

}  // namespace kelvane
