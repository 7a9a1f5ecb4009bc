#include "word_walk.h"

#include <algorithm>
#include <array>

namespace kelvane {
namespace {

constexpr uint32_t kByte = 8 * kBit;
// The first and the last byte of a word, stored as two.
constexpr uint8_t kOuterBytes = 9;
constexpr uint32_t kOuterPairAlone = 80 * kBit;
constexpr uint32_t kOuterPair = 32 * kBit;
// A relative list reaches 255 bytes.
constexpr uint32_t kReachWords = 62;
constexpr uint32_t kLongestInList = 255;

constexpr uint64_t kNever = UINT64_MAX / 4;

enum walk_state : uint8_t { outside, in_plain, in_packed };

// Two bits for the state before, for each state, and for the state in front of the equal words
// before; a bit for "outside, as an increment".
class trace_bits {
 public:
  explicit trace_bits(uint16_t bits = 0) : bits_(bits) {}
  uint16_t bits() const { return bits_; }
  void set_before(uint32_t state, uint32_t before) { put(2 * state, before); }
  uint32_t before(uint32_t state) const { return get(2 * state); }
  void set_before_gap(uint32_t before) { put(6, before); }
  uint32_t before_gap() const { return get(6); }
  void set_increment(bool increment) { put(8, increment ? 1U : 0U); }
  bool increment() const { return get(8) != 0; }

 private:
  void put(uint32_t at, uint32_t value) {
    bits_ = static_cast<uint16_t>((bits_ & ~(3U << at)) | (value << at));
  }
  uint32_t get(uint32_t at) const { return (bits_ >> at) & 3U; }
  uint16_t bits_;
};

class word_walk {
 public:
  word_walk(changed_words& changed, std::span<const store_density> densities,
            const walk_settings& settings)
      : changed_(changed), densities_(densities), settings_(settings) {}

  std::vector<stored_run> run() {
    go_forward();
    go_back();
    return std::move(runs_);
  }

 private:
  store_density density_of(size_t index) const {
    return densities_.empty() ? store_density{} : densities_[index];
  }
  uint32_t gap_before(size_t index) const {
    const uint32_t before = index == 0 ? 0 : changed_.words[index - 1].word + 1;
    return changed_.words[index].word - before;
  }

  void pass_gap(uint64_t words, trace_bits& trace) {
    const uint32_t least =
        static_cast<uint32_t>(std::min_element(costs_.begin(), costs_.end()) - costs_.begin());
    trace.set_before_gap(least);
    costs_[outside] = costs_[least];
    costs_[in_plain] += words * 4 * kByte;
    costs_[in_packed] += words * 4 * settings_.packed_byte;
  }

  void pass_word(size_t index, trace_bits& trace) {
    const changed_word& word = changed_.words[index];
    const store_density density = density_of(index);
    const uint32_t bytes = changed_.bytes_of(word);
    const uint32_t from_first = bytes - word.first_byte();
    const uint32_t to_last = word.last_byte() + 1;
    const uint32_t entry = plain_entry(density);

    uint64_t least = kNever;
    const auto end_outside = [&](uint64_t cost, walk_state before, bool increment) {
      if (cost < least) {
        least = cost;
        trace.set_before(outside, before);
        trace.set_increment(increment);
      }
    };
    if (word.is_allowed) {
      end_outside(costs_[outside] + word.price, outside, true);
      end_outside(costs_[in_plain] + word.price, in_plain, true);
      end_outside(costs_[in_packed] + word.price, in_packed, true);
    }
    end_outside(costs_[outside] + store_alone(word, density), outside, false);
    end_outside(costs_[in_plain] + kByte * to_last, in_plain, false);
    end_outside(costs_[in_packed] + settings_.packed_byte * to_last, in_packed, false);

    // Staying in a store takes the whole word; entering one begins at the first byte that differs.
    const auto into = [&](walk_state state, uint64_t stay, uint64_t from_outside, walk_state other,
                          uint64_t from_other) {
      uint64_t cost = stay;
      trace.set_before(state, state);
      if (from_outside < cost) {
        cost = from_outside;
        trace.set_before(state, outside);
      }
      if (from_other < cost) {
        cost = from_other;
        trace.set_before(state, other);
      }
      return cost;
    };
    const uint64_t plain_begin = entry + kByte * from_first;
    const uint64_t plain =
        into(in_plain, costs_[in_plain] + kByte * bytes, costs_[outside] + plain_begin, in_packed,
             costs_[in_packed] + plain_begin);
    const uint64_t packed_begin =
        settings_.packed_entry + settings_.packed_byte * uint64_t{from_first};
    const uint64_t packed =
        into(in_packed, costs_[in_packed] + settings_.packed_byte * uint64_t{bytes},
             costs_[outside] + packed_begin, in_plain, costs_[in_plain] + packed_begin);
    costs_ = {least, plain, settings_.compression ? packed : kNever};
  }

  uint32_t store_alone(const changed_word& word, const store_density& density) const {
    if (word.span() == 1) {
      return single_store(density, settings_.short_stores);
    }
    const uint32_t entry = plain_entry(density);
    const uint32_t cost = entry + kByte * word.span();
    if (word.mask == kOuterBytes) {
      return std::min(cost, entry > 40 * kBit ? kOuterPairAlone : kOuterPair);
    }
    return cost;
  }

  void go_forward() {
    for (size_t i = 0; i < changed_.words.size(); ++i) {
      trace_bits trace;
      if (!changed_.is_joined(i)) {
        costs_[in_plain] = kNever;
        costs_[in_packed] = kNever;
      } else if (const uint32_t gap = gap_before(i); gap > 0) {
        pass_gap(gap, trace);
      }
      pass_word(i, trace);
      changed_.words[i].trace = trace.bits() & 0x1FFU;
    }
  }

  // Turns the traces into the states that were gone through, then those into runs.
  void go_back() {
    auto state =
        static_cast<uint32_t>(std::min_element(costs_.begin(), costs_.end()) - costs_.begin());
    for (size_t i = changed_.words.size(); i-- > 0;) {
      const trace_bits trace(static_cast<uint16_t>(changed_.words[i].trace));
      trace_bits gone;
      gone.set_before(0, trace.before(state));
      gone.set_before(1, state);
      gone.set_increment(state == outside && trace.increment());
      changed_.words[i].trace = gone.bits() & 0x1FFU;
      state = trace.before(state);
      if (gap_before(i) > 0 && state == outside) {
        state = trace.before_gap();
      }
    }
    for (size_t i = 0; i < changed_.words.size(); ++i) {
      add_to_runs(i);
    }
    end_run();
  }

  void add_to_runs(size_t index) {
    changed_word& word = changed_.words[index];
    const trace_bits gone(static_cast<uint16_t>(word.trace));
    const uint32_t before = gone.before(0);
    const uint32_t state = gone.before(1);
    if (before == outside || (state != outside && state != before)) {
      end_run();
    }
    word.is_increment = gone.increment();
    if (word.is_increment) {
      end_run();
      return;
    }
    const uint32_t address = word.word * 4;
    if (state == outside && before == outside && word.mask == kOuterBytes) {
      runs_.push_back({address, address + 1, false});
      runs_.push_back({address + 3, address + 4, false});
      return;
    }
    if (!is_open_) {
      open_ = {address + word.first_byte(), 0, state == in_packed};
      is_open_ = true;
    }
    open_.end = address + word.last_byte() + 1;
    if (state == outside) {
      end_run();
    }
  }

  void end_run() {
    if (is_open_ && changed_.map != nullptr) {
      // A word that the image doesn't have whole is stored by its parts.
      changed_.map->new_bytes().each_part(open_.begin, open_.end, [&](int64_t begin, int64_t end) {
        runs_.push_back(
            {static_cast<uint32_t>(begin), static_cast<uint32_t>(end), open_.is_compressed});
      });
    } else if (is_open_) {
      runs_.push_back(open_);
    }
    is_open_ = false;
  }

  changed_words& changed_;
  std::span<const store_density> densities_;
  const walk_settings& settings_;
  std::array<uint64_t, 3> costs_ = {0, kNever, kNever};
  std::vector<stored_run> runs_;
  stored_run open_;
  bool is_open_ = false;
};

// Counts of runs that begin within some words of a place that only goes up.
class run_window {
 public:
  run_window(std::span<const stored_run> runs, bool singles) {
    for (const stored_run& run : runs) {
      const uint32_t size = run.end - run.begin;
      if (size <= kLongestInList && (size == 1) == singles) {
        words_.push_back(run.begin / 4);
      }
    }
  }
  uint8_t others_near(uint32_t word) {
    const uint32_t all = within(word, kReachWords, far_);
    const uint32_t own = within(word, 1, near_);
    return static_cast<uint8_t>(std::min(all - own, 2U));
  }

 private:
  struct bounds {
    size_t begin = 0;
    size_t end = 0;
  };
  uint32_t within(uint32_t word, uint32_t reach, bounds& at) const {
    while (at.end < words_.size() && words_[at.end] <= word + reach) {
      ++at.end;
    }
    while (at.begin < words_.size() && words_[at.begin] + reach < word) {
      ++at.begin;
    }
    return static_cast<uint32_t>(at.end - at.begin);
  }
  std::vector<uint32_t> words_;
  bounds far_;
  bounds near_;
};

}  // namespace

std::vector<stored_run> walk_words(changed_words& changed, std::span<const store_density> densities,
                                   const walk_settings& settings) {
  return word_walk(changed, densities, settings).run();
}

std::vector<store_density> measure_density(const changed_words& changed,
                                           std::span<const stored_run> runs) {
  run_window plain(runs, false);
  run_window single(runs, true);
  std::vector<store_density> densities;
  densities.reserve(changed.words.size());
  for (const changed_word& word : changed.words) {
    store_density density;
    density.plain = plain.others_near(word.word) & 3U;
    density.single = single.others_near(word.word) & 3U;
    density.is_known = true;
    densities.push_back(density);
  }
  return densities;
}

}  // namespace kelvane
