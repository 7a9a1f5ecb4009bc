// SPDX-License-Identifier: Apache-2.0
#include "dense_matches.h"

#include <algorithm>
#include <array>
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
// What lengths of items of a part consist of. A field of 30 bits takes no number that may have
// more.
constexpr uint32_t kLengthBits = kParsedAtOnce * 2 - 1;
constexpr uint32_t kEachLength = 32;  // up to here every length of a match is tried
constexpr size_t kShortLengths = kEachLength + 1;
// Places that are kept of both images; more are thinned out.
constexpr uint64_t kFewPlaces = 1U << 18U;
constexpr uint32_t kLargestStep = 4;

bool is_one_byte(const uint8_t* string) {
  return std::equal(string + 1, string + kStringBytes, string);
}

// What the prices of the next item depend on.
struct item_state {
  int32_t shift = 0;      // of the copy or match into the old image in front
  uint32_t distance = 0;  // of the last match into the new one
  uint8_t matches = 0;    // the last two items: literal or match

  item_state behind(bool is_match) const {
    return {shift, distance, static_cast<uint8_t>((matches * 2U + (is_match ? 1U : 0U)) & 3U)};
  }
};

// By length, of matches whose lengths are all tried.
using length_costs = std::array<uint32_t, kShortLengths>;

length_costs costs_of_lengths(const number_prices& prices) {
  length_costs costs = {};
  for (uint32_t length = 2; length < costs.size(); ++length) {
    costs[length] = prices.of(length - 2);
  }
  return costs;
}

// For matches that begin at one place of one image: the least that the place of one took that was
// tried with this length or more. A further one at no less is no gain, nor are its shorter lengths.
struct tried_places {
  uint32_t longest = 0;
  length_costs least;

  bool is_gain(uint32_t length, uint32_t place_cost) const {
    return length > longest || place_cost < least[length];
  }
};

// The cheapest items for stored bytes, part by part in ascending order.
class item_parse {
 public:
  item_parse(const plan_images& images, const string_places& places, const old_reach& reach,
             bool reads_new)
      : images_(images), places_(places), reach_(reach), reads_new_(reads_new) {}

  void begin(const item_prices& prices) {
    prices_ = prices;
    old_lengths_ = costs_of_lengths(prices.old_length);
    new_lengths_ = costs_of_lengths(prices.new_length);
    state_ = {};
  }

  void pass(const dense_copy& copy) {
    state_.shift = static_cast<int32_t>(copy.target - copy.source);
  }

  // Bytes `begin` to `end` of the new image, of which `literals` tells what each costs as it is.
  void append(uint32_t begin, uint32_t end, std::span<const uint16_t> literals,
              std::vector<dense_item>& items) {
    begin_ = begin;
    end_ = end;
    long_until_ = 0;
    const size_t steps = size_t{end} - begin + 1;
    costs_.assign(steps, UINT32_MAX);
    items_.resize(std::max(items_.size(), steps));
    states_.resize(items_.size());
    costs_[0] = 0;
    states_[0] = state_;
    for (uint32_t at = begin; at < end; ++at) {
      passed_ = at;
      enter(at + 1, costs_[at - begin] + match_prices(at)[0] + literals[at - begin],
            {1, dense_item::literal, 0}, state_at(at).behind(false));
      if (at >= long_until_ && end - at >= 3 && at + kStringBytes <= images_.new_image.size()) {
        take_matches(at);
      }
    }
    state_ = states_[steps - 1];
    take_way_back(steps - 1, items);
  }

 private:
  uint8_t new_byte(uint32_t at) const { return images_.new_image[at]; }
  const item_state& state_at(uint32_t at) const { return states_[at - begin_]; }

  const std::array<uint32_t, 2>& match_prices(uint32_t at) const {
    return prices_.is_match[at % 4 * 4 + state_at(at).matches];
  }

  void enter(uint32_t at, uint32_t cost, const dense_item& item, const item_state& state) {
    const uint32_t index = at - begin_;
    if (at > passed_ && cost < costs_[index]) {
      costs_[index] = cost;
      items_[index] = item;
      states_[index] = state;
    }
  }

  // The items up to step `last`, literals in a row as one. They are put behind each other in the
  // places of the steps, from behind.
  void take_way_back(size_t last, std::vector<dense_item>& items) {
    size_t first = last + 1;
    for (size_t at = last; at != 0;) {
      const dense_item item = items_[at];
      at -= item.length;
      if (first <= last && item.kind == dense_item::literal &&
          items_[first].kind == dense_item::literal) {
        items_[first].length = (items_[first].length + item.length) & kLengthBits;
      } else {
        items_[--first] = item;
      }
    }
    items.insert(items.end(), items_.begin() + static_cast<ptrdiff_t>(first),
                 items_.begin() + static_cast<ptrdiff_t>(last) + 1);
  }

  void take_matches(uint32_t at) {
    for (uint32_t k = 0; k < places_.step(); ++k) {
      tried_old_[k].longest = 0;
      tried_new_[k].longest = 0;
    }
    const item_state& state = state_at(at);
    const int64_t expected = int64_t{at} - state.shift;
    if (expected >= 0 && expected < static_cast<int64_t>(images_.old_image.size())) {
      const auto place = static_cast<uint32_t>(expected);
      take_old(at, place, equal_bytes(images_.old_image, place, at), 0);
    }
    if (reads_new_) {
      if (state.distance != 0) {
        const uint32_t place = at - state.distance;
        take_new(at, place, equal_bytes(images_.new_image, place, at), 0);
      }
      each_of_last(places_.in_new(at), kNewTrials, [&](uint32_t place) {
        take_from_ahead(images_.new_image, place, at,
                        [&](uint32_t k, uint32_t equal) { take_new(at - k, place - k, equal, k); });
      });
    }
    each_of_last(places_.in_old(at), kOldTrials, [&](uint32_t place) {
      take_from_ahead(images_.old_image, place, at,
                      [&](uint32_t k, uint32_t equal) { take_old(at - k, place - k, equal, k); });
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

  // Matches whose bytes have been found equal, `k` bytes ahead of the string that was looked up.
  void take_new(uint32_t at, uint32_t place, uint32_t equal, uint32_t k) {
    const item_state& from = state_at(at);
    const uint32_t distance = at - place;
    const bool is_same = distance == from.distance;
    const uint32_t place_cost = prices_.is_new[1] + prices_.is_same_distance[is_same ? 1 : 0] +
                                (is_same ? 0 : prices_.distance.of(distance - 1));
    if (equal <= kEachLength && !tried_new_[k].is_gain(equal, place_cost)) {
      return;
    }
    item_state state = from.behind(true);
    state.distance = distance;
    take(at, equal, {0, dense_item::new_image, place}, place_cost, tried_new_[k], new_lengths_,
         prices_.new_length, state);
  }

  void take_old(uint32_t at, uint32_t place, uint32_t equal, uint32_t k) {
    const item_state& from = state_at(at);
    const uint32_t shift = at - place;
    const uint32_t number = folded(static_cast<uint32_t>(from.shift) - shift);
    if (number == UINT32_MAX) {
      return;  // cannot be told
    }
    const uint32_t place_cost = prices_.is_new[0] + prices_.place.of(number);
    if (equal <= kEachLength && !tried_old_[k].is_gain(equal, place_cost)) {
      return;
    }
    item_state state = from.behind(true);
    state.shift = static_cast<int32_t>(shift);
    take(at, reach_.readable(place, at, equal), {0, dense_item::old_image, place}, place_cost,
         tried_old_[k], old_lengths_, prices_.old_length, state);
  }

  // All lengths, the long ones by doubling.
  void take(uint32_t at, uint32_t longest, dense_item item, uint32_t place_cost,
            tried_places& tried, const length_costs& lengths, const number_prices& length_prices,
            const item_state& state) {
    if (longest >= kLongMatch) {
      long_until_ = std::max(long_until_, at + longest - kNearEnd);
    }
    const uint32_t cost = costs_[at - begin_] + match_prices(at)[1] + place_cost;
    const uint32_t each = std::min(longest, kEachLength);
    for (uint32_t length = each; length >= 2 && tried.is_gain(length, place_cost); --length) {
      tried.least[length] = place_cost;
      item.length = length & kLengthBits;
      enter(at + length, cost + lengths[length], item, state);
    }
    tried.longest = std::max(tried.longest, each);
    for (uint32_t length = kEachLength; length < longest;) {
      length = std::min(longest, length * 2);
      item.length = length & kLengthBits;
      enter(at + length, cost + length_prices.of(length - 2), item, state);
    }
  }

  const plan_images& images_;
  const string_places& places_;
  const old_reach& reach_;
  bool reads_new_;
  item_prices prices_;
  length_costs old_lengths_ = {};
  length_costs new_lengths_ = {};
  item_state state_;  // behind the last part
  uint32_t begin_ = 0;
  uint32_t end_ = 0;
  uint32_t passed_ = 0;      // steps up to here are settled
  uint32_t long_until_ = 0;  // up to here a long match reaches
  std::array<tried_places, kLargestStep> tried_old_ = {};
  std::array<tried_places, kLargestStep> tried_new_ = {};
  // By step, the last item on the cheapest way there. One array each, for most steps that are
  // looked at stay as they are.
  std::vector<uint32_t> costs_;
  std::vector<dense_item> items_;
  std::vector<item_state> states_;
};

}  // namespace

uint32_t string_places::hash_bits_for(const plan_images& images) {
  const uint64_t both = images.old_image.size() + images.new_image.size();
  return std::clamp(static_cast<uint32_t>(std::bit_width(both)), 8U, 18U);
}

bool string_places::are_many(const plan_images& images, std::span<const dense_copy> copies) {
  uint64_t stored = images.new_image.size();
  for (const dense_copy& copy : copies) {
    stored -= copy.length;
  }
  return stored > (size_t{1} << hash_bits_for(images)) / 4;
}

uint32_t string_places::hash_at(std::span<const uint8_t> image, uint32_t at) const {
  return (load_word(image.data() + at, ByteOrder::kLittle) * 2654435761U) >> (32 - hash_bits_);
}

// Notes the strings of the stored bytes.
void string_places::note_wanted(std::span<const dense_copy> copies) {
  uint32_t at = 0;
  const auto note_up_to = [&](size_t end) {
    for (; at < end && at + kStringBytes <= images_.new_image.size(); ++at) {
      const uint32_t hash = hash_at(images_.new_image, at);
      wanted_[hash / 64] |= uint64_t{1} << hash % 64;
    }
  };
  for (const dense_copy& copy : copies) {
    note_up_to(copy.target);
    at = copy.target + copy.length;
  }
  note_up_to(images_.new_image.size());
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
      if (is_wanted(hash)) {
        take(rank_of(hash), static_cast<uint32_t>(at));
      }
    }
  };
  // While places are filled in, the begin of a bucket stands behind it, and goes to its end.
  of.begin.assign(size_t{ranks_.back()} + 2, 0);
  each([&](uint32_t rank, uint32_t) { ++of.begin[rank + 2]; });
  for (size_t i = 1; i < of.begin.size(); ++i) {
    of.begin[i] += of.begin[i - 1];
  }
  of.all.resize(of.begin.back());
  each([&](uint32_t rank, uint32_t at) { of.all[of.begin[rank + 1]++] = at; });
}

string_places::string_places(const plan_images& images,
                             std::span<const std::span<const dense_copy>> plans, bool are_many)
    : images_(images), hash_bits_(hash_bits_for(images)) {
  wanted_.assign((size_t{1} << hash_bits_) / 64, 0);
  for (const std::span<const dense_copy> copies : plans) {
    note_wanted(copies);
  }
  ranks_.push_back(0);
  for (const uint64_t wanted : wanted_) {
    ranks_.push_back(ranks_.back() + static_cast<uint32_t>(std::popcount(wanted)));
  }
  const uint64_t both = images.old_image.size() + images.new_image.size();
  while (are_many && step_ < kLargestStep && both / step_ > kFewPlaces) {
    step_ *= 2;
  }
  fill(images.old_image, old_);
  fill(images.new_image, new_);
}

std::span<const uint32_t> string_places::in_new(uint32_t at) const {
  const std::span<const uint32_t> all = bucket(new_, hash_at(images_.new_image, at));
  return all.first(static_cast<size_t>(std::lower_bound(all.begin(), all.end(), at) - all.begin()));
}

namespace {

// Calls part(begin, end) for the bytes to be stored, by parts, and pass(copy) for each copy behind
// those ahead of it.
void for_stored(size_t new_size, std::span<const dense_copy> copies, const auto& part,
                const auto& pass) {
  uint32_t at = 0;
  const auto store_up_to = [&](uint32_t end) {
    while (at < end) {
      const uint32_t part_end = at + std::min(end - at, kParsedAtOnce);
      part(at, part_end);
      at = part_end;
    }
  };
  for (const dense_copy& copy : copies) {
    store_up_to(copy.target);
    at = copy.target + copy.length;
    pass(copy);
  }
  store_up_to(static_cast<uint32_t>(new_size));
}

}  // namespace

std::vector<dense_item> items_between(const plan_images& images, const string_places& places,
                                      const old_reach& reach, std::span<const dense_copy> copies,
                                      bool reads_new) {
  const size_t new_size = images.new_image.size();
  std::vector<uint16_t> literals(std::min<size_t>(new_size, kParsedAtOnce), kUsualLiteral);
  item_parse parse(images, places, reach, reads_new);
  item_counts counts;
  std::vector<item_extent> usual;
  std::vector<dense_item> items;
  parse.begin(usual_prices());
  for_stored(
      new_size, copies,
      [&](uint32_t begin, uint32_t end) {
        items.clear();
        parse.append(begin, end, literals, items);
        counts.take(items);
        for (const dense_item& item : items) {
          usual.push_back({item.length, item.kind});
        }
      },
      [&](const dense_copy& copy) {
        parse.pass(copy);
        counts.pass(copy);
      });
  literal_meter meter(images);
  items.clear();
  items.reserve(usual.size() + usual.size() / 8);
  std::span<const item_extent> ahead = usual;
  parse.begin(counts.prices());
  for_stored(
      new_size, copies,
      [&](uint32_t begin, uint32_t end) {
        ahead = ahead.subspan(meter.take(ahead, end - begin, literals));
        parse.append(begin, end, literals, items);
      },
      [&](const dense_copy& copy) {
        parse.pass(copy);
        meter.pass(copy);
      });
  return items;
}

}  // namespace kelvane
