#include "word_classes.h"

#include <algorithm>
#include <optional>

#include "changed_words.h"
#include "class_costs.h"
#include "memory_target.h"

namespace kelvane {
namespace {

constexpr int kTurns = 6;
constexpr int kTurnsByMean = 2;  // the first of them, which price words by the mean of their class
// A class that was dropped twice stays out, so that the turns end.
constexpr uint8_t kMostDrops = 2;
// What taking in a class has to gain, in bit parts, so that it isn't dropped again at once.
constexpr int64_t kLeastGain = 6 * kBit;
constexpr uint32_t kBetweenStores = 14 * kBit;

class class_chooser {
 public:
  class_chooser(changed_words& changed, const word_settings& settings)
      : changed_(changed), settings_(settings) {}

  std::vector<stored_run> run() {
    choose_first();
    std::vector<stored_run> runs;
    uint64_t uses_before = 0;  // when the walk before was made
    for (int turn = 0; turn < kTurns; ++turn) {
      price_words(turn < kTurnsByMean);
      std::vector<stored_run> next = walk_words(changed_, densities_, settings_.walk);
      const bool is_same = next == runs;
      runs = std::move(next);
      const uint64_t uses = changed_uses_;
      if (turn + 1 < kTurns) {
        densities_ = measure_density(changed_, runs);
      }
      if (turn >= 1 && turn + 1 < kTurns) {
        if (settings_.class_limit == UINT32_MAX) {
          drop_losing();
          take_in_gaining();
        } else {
          keep_best();
        }
      }
      if (turn >= kTurnsByMean && is_same && changed_uses_ == uses_before) {
        break;  // all other turns would give the same
      }
      uses_before = uses;
    }
    return runs;
  }

 private:
  changed_word& word_at(uint32_t index) { return changed_.words[index]; }

  // All members' words, or those that are increments.
  const std::vector<uint32_t>& places_of(const value_class& of, bool increments_only) {
    places_.clear();
    for (const uint32_t member : changed_.members(of)) {
      const changed_word& word = changed_.words[member];
      if (!increments_only || word.is_increment) {
        places_.push_back(changed_.target_word(word));
      }
    }
    return places_;
  }

  // Jumps and map of a class over these words, in bits.
  uint64_t class_bits(const std::vector<uint32_t>& words, bool with_map) const {
    const jump_counts counts = count_jumps(words);
    const jump_prices prices = prices_for(counts);
    return jump_bits(counts, prices) + (with_map && prices.has_map ? kMapBits : 0);
  }

  void set_use(value_class& of, bool in_use) {
    of.in_use = in_use;
    ++changed_uses_;
    for (const uint32_t member : changed_.members(of)) {
      word_at(member).is_allowed = in_use;
      word_at(member).is_increment = in_use;
    }
  }

  // Before anything is known of stores: a class has to save more than it takes, each store by
  // itself.
  void choose_first() {
    constexpr int64_t kHeadBits = 25;
    std::vector<std::pair<int64_t, size_t>> gains;
    for (size_t i = 0; i < changed_.classes.size(); ++i) {
      const value_class& candidate = changed_.classes[i];
      int64_t gain = -kHeadBits;
      for (const uint32_t member : changed_.members(candidate)) {
        gain += first_store_bits(member);
      }
      gain -= static_cast<int64_t>(class_bits(places_of(candidate, false), true));
      if (gain > 0) {
        gains.emplace_back(-gain, i);
      }
    }
    std::sort(gains.begin(), gains.end());
    for (size_t i = 0; i < std::min<size_t>(gains.size(), settings_.class_limit); ++i) {
      set_use(changed_.classes[gains[i].second], true);
    }
  }

  int64_t first_store_bits(uint32_t index) const {
    const uint32_t span = changed_.words[index].span();
    const bool has_neighbour = is_of_no_value(index, -1) || is_of_no_value(index, 1);
    if (span == 1) {
      return has_neighbour ? 16 : 20;
    }
    return 20 + 8 * static_cast<int64_t>(span) - (has_neighbour ? 8 : 0);
  }
  // Whether the word on that side differs and will be stored, being of a value found once.
  bool is_of_no_value(uint32_t index, int side) const {
    const bool touches = side < 0 ? changed_.follows(index) : changed_.is_followed(index);
    return touches && !changed_.words[side < 0 ? index - 1 : index + 1].has_twins;
  }

  // The price of every member of a class in use, in or out: half the mean, half what it adds to
  // the others. The first turns take the mean alone.
  void price_words(bool by_mean) {
    for (const value_class& of : changed_.classes) {
      if (!of.in_use) {
        continue;
      }
      const std::vector<uint32_t>& words = places_of(of, true);
      const jump_prices prices = prices_for(count_jumps(words));
      const auto bits_of = [&](uint32_t jump) { return prices.bits[jump_category(jump)]; };
      const uint32_t mean =
          words.empty() ? 20 * kBit
                        : static_cast<uint32_t>(class_bits(words, false) * kBit / words.size());
      size_t next = 0;
      for (const uint32_t member : changed_.members(of)) {
        changed_word& word = word_at(member);
        const uint32_t place = changed_.target_word(word);
        while (next < words.size() && words[next] < place) {
          ++next;
        }
        uint32_t price = mean;
        if (!by_mean) {
          const uint32_t before = next > 0 ? words[next - 1] : 0;
          const size_t after = next + (next < words.size() && words[next] == place ? 1 : 0);
          int64_t added = bits_of(place - before);
          if (after < words.size()) {
            added +=
                int64_t{bits_of(words[after] - place)} - int64_t{bits_of(words[after] - before)};
          }
          added *= kBit;
          const int64_t blended = added / 2 + std::min<int64_t>(mean, added + 3 * kBit) / 2;
          price = static_cast<uint32_t>(std::max<int64_t>(blended, kBit));
        }
        word.price = std::max(price, kBit) & 0x3FFFU;
      }
    }
  }

  // What the stores shrink by if the word becomes an increment, in bit parts.
  int64_t store_saving(uint32_t index) const {
    const changed_word& word = changed_.words[index];
    const store_density& density = densities_[index];
    const uint32_t entry = plain_entry(density);
    const uint32_t alone = word.span() == 1 ? single_store(density, settings_.walk.short_stores)
                                            : entry + 8 * kBit * word.span();
    const bool stored_before = changed_.follows(index) && !changed_.words[index - 1].is_increment;
    const bool stored_after =
        changed_.is_followed(index) && !changed_.words[index + 1].is_increment;
    if (stored_before && stored_after) {
      return std::min(alone, kBetweenStores);
    }
    if (!stored_before && !stored_after) {
      return alone;
    }
    const changed_word& neighbour = changed_.words[stored_before ? index - 1 : index + 1];
    const uint32_t bytes = stored_before ? word.last_byte() + 1 : 4 - word.first_byte();
    return std::min(alone, bytes * 8 * kBit + (neighbour.is_frequent ? entry / 2 : 0));
  }

  // The gain of a class, in bit parts, between neighbours of these values.
  int64_t gain_of(const value_class& of, bool increments_only, uint32_t value_before,
                  std::optional<uint32_t> value_after) {
    int64_t saved = 0;
    for (const uint32_t member : changed_.members(of)) {
      if (!increments_only || changed_.words[member].is_increment) {
        saved += store_saving(member);
      }
    }
    const std::vector<uint32_t>& words = places_of(of, increments_only);
    if (words.empty()) {
      return 0;
    }
    int64_t head = head_bits(value_before, of.value);
    if (value_after) {
      head += int64_t{head_bits(of.value, *value_after)} -
              int64_t{head_bits(value_before, *value_after)};
    }
    return saved - (static_cast<int64_t>(class_bits(words, true)) + head) * int64_t{kBit};
  }

  // For each class the next one in use behind it.
  std::vector<std::optional<uint32_t>> values_after() const {
    std::vector<std::optional<uint32_t>> after(changed_.classes.size());
    std::optional<uint32_t> next;
    for (size_t i = changed_.classes.size(); i-- > 0;) {
      after[i] = next;
      if (changed_.classes[i].in_use) {
        next = changed_.classes[i].value;
      }
    }
    return after;
  }

  void drop(value_class& of) {
    ++of.times_dropped;
    set_use(of, false);
  }

  void drop_losing() {
    const std::vector<std::optional<uint32_t>> after = values_after();
    std::vector<size_t> losing;
    uint32_t before = 0;
    for (size_t i = 0; i < changed_.classes.size(); ++i) {
      const value_class& of = changed_.classes[i];
      if (of.in_use) {
        if (gain_of(of, true, before, after[i]) <= 0) {
          losing.push_back(i);
        }
        before = of.value;
      }
    }
    for (const size_t i : losing) {
      drop(changed_.classes[i]);
    }
  }

  void take_in_gaining() {
    const std::vector<std::optional<uint32_t>> after = values_after();
    uint32_t before = 0;
    for (size_t i = 0; i < changed_.classes.size(); ++i) {
      value_class& of = changed_.classes[i];
      if (!of.in_use && of.times_dropped < kMostDrops &&
          gain_of(of, false, before, after[i]) > kLeastGain) {
        set_use(of, true);
      }
      if (of.in_use) {
        before = of.value;
      }
    }
  }

  // With a limit: the classes that gain most, in use or not.
  void keep_best() {
    const std::vector<std::optional<uint32_t>> after = values_after();
    std::vector<std::pair<int64_t, size_t>> gains;
    uint32_t before = 0;
    for (size_t i = 0; i < changed_.classes.size(); ++i) {
      const value_class& of = changed_.classes[i];
      const int64_t gain = gain_of(of, of.in_use, before, after[i]);
      if (gain > (of.in_use ? 0 : kLeastGain) && of.times_dropped < kMostDrops) {
        gains.emplace_back(-gain, i);
      }
      if (of.in_use) {
        before = of.value;
      }
    }
    if (gains.size() > settings_.class_limit) {
      std::nth_element(gains.begin(), gains.begin() + settings_.class_limit, gains.end());
      gains.resize(settings_.class_limit);
    }
    std::vector<uint8_t> keep(changed_.classes.size(), 0);
    for (const auto& [loss, place] : gains) {
      keep[place] = 1;
    }
    for (size_t i = 0; i < changed_.classes.size(); ++i) {
      value_class& of = changed_.classes[i];
      if (of.in_use && keep[i] == 0) {
        drop(of);
      } else if (!of.in_use && keep[i] != 0) {
        set_use(of, true);
      }
    }
  }

  changed_words& changed_;
  const word_settings& settings_;
  std::vector<store_density> densities_;
  std::vector<uint32_t> places_;
  uint64_t changed_uses_ = 0;  // how often a class was dropped or taken in
};

}  // namespace

word_choice choose_words(const plan_images& images, const moved_image& moved,
                         const word_settings& settings) {
  changed_words changed = find_changed_words(images, moved, settings.order);
  word_choice choice;
  choice.runs = class_chooser(changed, settings).run();
  for (const value_class& of : changed.classes) {
    planned_class chosen = {of.value, static_cast<uint32_t>(choice.words.size()), 0};
    for (const uint32_t member : changed.members(of)) {
      if (changed.words[member].is_increment) {
        choice.words.push_back(changed.words[member].word);
      }
    }
    chosen.count = static_cast<uint32_t>(choice.words.size()) - chosen.begin;
    if (chosen.count > 0) {
      choice.classes.push_back(chosen);
    }
  }
  return choice;
}

std::vector<class_price> mean_prices(const plan_images& images, const plan& planned) {
  constexpr uint64_t kHeadBits = 40;
  std::vector<class_price> prices;
  std::vector<uint32_t> words;  // by their addresses
  for (const planned_class& of : planned.classes) {
    words.clear();
    for (const uint32_t word : std::span(planned.words).subspan(of.begin, of.count)) {
      words.push_back(target_address(images, word * 4) / 4);
    }
    const jump_counts counts = count_jumps(words);
    const uint64_t bits = jump_bits(counts, prices_for(counts)) + kHeadBits;
    prices.push_back(
        {of.value, static_cast<uint32_t>(std::clamp<uint64_t>(bits / of.count, 2, 40))});
  }
  return prices;
}

}  // namespace kelvane
