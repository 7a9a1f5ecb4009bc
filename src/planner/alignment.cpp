#include "alignment.h"

#include <algorithm>
#include <functional>

#include "alignment_internal.h"
#include "word_costs.h"

namespace kelvane {
namespace {

constexpr size_t kFoundStates = 28;
constexpr size_t kKeptShifts = 12;
constexpr int64_t kSightBytes = 64;
constexpr int64_t kSkipBytes = 65536;  // the most that is passed over at once
constexpr uint32_t kSeedTrialWords = 24;
constexpr int64_t kRefusalBytes = 48;
constexpr int64_t kIdleBytes = 1024;
constexpr uint32_t kPoorFitWords = 16;
constexpr uint32_t kPoorFitBits = 6;   // a word
constexpr uint32_t kPoorFitGain = 60;  // what a proposal must save over those words
constexpr int64_t kNearShifts = 32;    // on each side, 4 bytes apart
// Proposals are made every 32 bytes at most. In vain they are made half as often, and so on, down
// to every 512: a border that is found too late is moved back afterwards.
constexpr int64_t kPoorFitStep = 32;
constexpr int64_t kLongestPoorFitStep = 512;
constexpr int32_t kNoRecord = -1;

struct state {
  int64_t shift = 0;
  uint64_t cost = 0;
  int64_t start = 0;           // where this state was entered
  int32_t before = kNoRecord;  // the record of the state that it was entered from
  int32_t record = kNoRecord;  // its own, once somebody was entered from it
  int64_t used = 0;            // the last place where it was below its bound
  bool after_store = false;
};

// A state that somebody was entered from.
struct way_record {
  int64_t shift = 0;
  uint32_t start = 0;
  int32_t before = kNoRecord;
};

struct refusal {
  int64_t shift = 0;
  int64_t until = -1;
};

class aligner {
 public:
  aligner(const alignment_input& input, const alignment_settings& settings);
  std::vector<shift_stretch> run();

 private:
  uint64_t entry_bits(int64_t shift) const {
    return shift == 0              ? settings_.enter_zero_bits
           : shift == kStoredShift ? settings_.enter_stored_bits
                                   : settings_.block_bits;
  }
  int32_t record_of(state& entered_from);
  void clamp_to_best(int64_t at);
  int64_t next_part(int64_t at);
  int64_t next_difference(int64_t at);
  bool is_alive(int64_t shift) const;
  bool is_refused(int64_t shift, int64_t at) const;
  void refuse(int64_t shift, int64_t at);
  void propose_strings(int64_t at);
  void try_string(int64_t at, int64_t place, uint64_t& best_cost);
  void propose_near(int64_t at);
  void enter(int64_t shift, int64_t at);
  void retire(int64_t at);
  std::vector<shift_stretch> way_back() const;

  const alignment_input& input_;
  word_costs costs_;
  const uint8_t* old_;
  const uint8_t* new_;
  int64_t old_size_;
  int64_t new_size_;
  const alignment_settings& settings_;
  std::vector<state> states_;
  size_t fixed_states_ = 0;
  size_t best_ = 0;
  std::vector<way_record> records_;
  std::vector<refusal> refusals_ = std::vector<refusal>(4096);
  int64_t next_near_ = 0;
  int64_t near_step_ = kPoorFitStep;
  bool all_bounded_ = false;
  size_t part_ = 0;  // of the new image, the first that ends behind the word at hand
  int64_t next_difference_ = -1;
  int64_t difference_of_ = INT64_MAX;  // the shift that next_difference_ belongs to
  int64_t last_shift_ = 0;
  std::vector<uint32_t> places_;
  std::vector<int64_t> proposals_;
};

aligner::aligner(const alignment_input& input, const alignment_settings& settings)
    : input_(input),
      costs_(input, settings.stored_word_bits),
      old_(input.images.old_image.data()),
      new_(input.images.new_image.data()),
      old_size_(static_cast<int64_t>(input.images.old_image.size())),
      new_size_(static_cast<int64_t>(input.images.new_image.size())),
      settings_(settings) {
  states_.push_back({});
  if (settings.stored_word_bits != 0) {
    states_.push_back({.shift = kStoredShift, .cost = settings.enter_stored_bits});
  }
  for (const int64_t shift : settings.kept_shifts) {
    states_.push_back({.shift = shift, .cost = settings.block_bits});
  }
  fixed_states_ = states_.size();
}

int32_t aligner::record_of(state& entered_from) {
  if (entered_from.record == kNoRecord) {
    entered_from.record = static_cast<int32_t>(records_.size());
    records_.push_back(
        {entered_from.shift, static_cast<uint32_t>(entered_from.start), entered_from.before});
  }
  return entered_from.record;
}

// Finds the best state and bounds all others by it. Notes whether there was none below its bound.
void aligner::clamp_to_best(int64_t at) {
  best_ = 0;
  for (size_t i = 1; i < states_.size(); ++i) {
    if (states_[i].cost < states_[best_].cost) {
      best_ = i;
    }
  }
  const uint64_t best_cost = states_[best_].cost;
  states_[best_].used = at;
  all_bounded_ = true;
  for (size_t i = 0; i < states_.size(); ++i) {
    state& other = states_[i];
    if (i == best_) {
      continue;
    }
    const uint64_t bound = best_cost + entry_bits(other.shift);
    if (other.cost > bound) {
      other.before = record_of(states_[best_]);
      other.cost = bound;
      other.start = at;
      other.record = kNoRecord;
      other.after_store = false;
    } else if (other.cost < bound) {
      other.used = at;
      all_bounded_ = false;
    }
  }
}

// The word at `at`, or the first one that the new image has something of behind it.
int64_t aligner::next_part(int64_t at) {
  const linear_map* const map = map_of(input_.images);
  if (map == nullptr) {
    return at;
  }
  const std::vector<row_bytes::run>& parts = map->new_bytes().runs();
  while (part_ < parts.size() && parts[part_].end <= at) {
    ++part_;
  }
  const int64_t begin = part_ < parts.size() ? parts[part_].begin : new_size_;
  return std::max(at, begin & ~int64_t{3});
}

// The next word that differs under the best shift, or what is kSkipBytes away.
int64_t aligner::next_difference(int64_t at) {
  const int64_t shift = states_[best_].shift;
  if (difference_of_ != shift || next_difference_ < at) {
    difference_of_ = shift;
    next_difference_ = at;
    const int64_t limit = std::min(at + kSkipBytes, new_size_ & ~int64_t{3});
    while (shift != kStoredShift && next_difference_ < limit) {
      if (!costs_.is_equal(shift, next_difference_)) {
        break;
      }
      next_difference_ += 4;
    }
  }
  return next_difference_;
}

bool aligner::is_alive(int64_t shift) const {
  return std::any_of(states_.begin(), states_.end(),
                     [&](const state& alive) { return alive.shift == shift; });
}

bool aligner::is_refused(int64_t shift, int64_t at) const {
  const refusal& slot = refusals_[(static_cast<uint32_t>(shift) * 2654435761U) >> 20U];
  return slot.shift == shift && slot.until > at;
}

void aligner::refuse(int64_t shift, int64_t at) {
  refusals_[(static_cast<uint32_t>(shift) * 2654435761U) >> 20U] = {shift, at + kRefusalBytes};
}

void aligner::enter(int64_t shift, int64_t at) {
  const int32_t before = record_of(states_[best_]);
  states_.push_back({.shift = shift,
                     .cost = states_[best_].cost + entry_bits(shift),
                     .start = at,
                     .before = before,
                     .used = at});
}

// Takes the place in the old image for the string at `at`, if it fits better than the best state.
void aligner::try_string(int64_t at, int64_t place, uint64_t& best_cost) {
  const int64_t shift = at - place;
  if (is_alive(shift) || is_refused(shift, at) ||
      std::memcmp(old_ + place, new_ + at, kSeedBytes) != 0) {
    return;
  }
  const int64_t word = at & ~int64_t{3};
  if (best_cost == UINT64_MAX) {
    best_cost = costs_.words(states_[best_].shift, word, kSeedTrialWords,
                             states_[best_].after_store, UINT64_MAX);
  }
  if (costs_.words(shift, word, kSeedTrialWords, false, best_cost) >= best_cost) {
    refuse(shift, at);
    return;
  }
  enter(shift, word);
  if (states_.size() > fixed_states_ + kFoundStates) {
    // The dearest found state makes room, of equal ones the one longest out of use.
    size_t worst = fixed_states_;
    for (size_t i = fixed_states_; i + 1 < states_.size(); ++i) {
      if (i != best_ &&
          (states_[i].cost > states_[worst].cost ||
           (states_[i].cost == states_[worst].cost && states_[i].used < states_[worst].used))) {
        worst = i;
      }
    }
    if (worst != best_) {
      states_.erase(states_.begin() + static_cast<ptrdiff_t>(worst));
      best_ -= best_ > worst ? 1 : 0;
    }
  }
}

// Looks up the strings that begin in the word at `at`. Of a large bucket the places are taken that
// are nearest to where the best state is, and to the place itself, and some of all.
void aligner::propose_strings(int64_t at) {
  constexpr size_t kSmallBucket = 8;
  constexpr size_t kSampledBucket = 64;
  const int64_t best_shift = states_[best_].shift;
  uint64_t best_cost = UINT64_MAX;
  for (int64_t start = at; start < at + 4 && start + kSeedBytes <= new_size_; ++start) {
    if (!has_new(input_.images, start, kSeedBytes)) {
      continue;
    }
    // Where the best state is right already, another can't be better.
    const int64_t best_place = best_shift == kStoredShift ? -1 : start - best_shift;
    if (best_place >= 0 && best_place + kSeedBytes <= old_size_ &&
        has_old(input_.images, best_place, kSeedBytes) &&
        std::memcmp(old_ + best_place, new_ + start, kSeedBytes) == 0) {
      continue;
    }
    const std::span<const uint32_t> bucket = input_.strings->places(new_ + start);
    if (bucket.size() <= kSmallBucket) {
      for (const uint32_t place : bucket) {
        try_string(start, place, best_cost);
      }
      continue;
    }
    places_.clear();
    const auto take_near = [&](int64_t wanted, ptrdiff_t each_side) {
      const auto middle = std::lower_bound(bucket.begin(), bucket.end(),
                                           static_cast<uint32_t>(std::max<int64_t>(wanted, 0)));
      const auto first = middle - std::min(each_side, middle - bucket.begin());
      const auto last = middle + std::min(each_side, bucket.end() - middle);
      places_.insert(places_.end(), first, last);
    };
    if (best_shift != kStoredShift) {
      take_near(start - best_shift, 3);
    }
    take_near(start, 2);
    if (bucket.size() <= kSampledBucket) {
      for (size_t i = 0; i < bucket.size(); i += bucket.size() / 8) {
        places_.push_back(bucket[i]);
      }
    }
    for (const uint32_t place : places_) {
      try_string(start, place, best_cost);
    }
  }
}

// Looks for a shift under which not the words but their differences agree, if the best state fits
// badly.
void aligner::propose_near(int64_t at) {
  next_near_ = at + kPoorFitStep;
  const state& best = states_[best_];
  const uint64_t best_cost =
      costs_.words(best.shift, at, kPoorFitWords, best.after_store, UINT64_MAX);
  if (best_cost <= kPoorFitWords * kPoorFitBits || states_.size() >= fixed_states_ + kFoundStates) {
    near_step_ = kPoorFitStep;
    return;
  }
  const int64_t about = best.shift == kStoredShift ? last_shift_ : best.shift;
  proposals_.clear();
  for (int64_t step = 4; step <= 4 * kNearShifts; step += 4) {
    proposals_.push_back(about + step);
    proposals_.push_back(about - step);
  }
  proposals_.insert(proposals_.end(), {new_size_ - old_size_, about, 0});
  // The index holds every other word, so eight starts meet it as often as four would meet all.
  for (uint32_t stride = 1; stride <= kSeedStrides; ++stride) {
    for (int64_t start = at; start < at + 32; start += 4) {
      if (start + difference_seed_bytes(stride) > new_size_) {
        break;
      }
      if (!has_new(input_.images, start, difference_seed_bytes(stride))) {
        continue;
      }
      const std::span<const uint32_t> bucket = input_.differences->places(new_ + start, stride);
      const int64_t wanted = std::max<int64_t>(start - about, 0);
      const auto middle =
          std::lower_bound(bucket.begin(), bucket.end(), static_cast<uint32_t>(wanted));
      const auto last = middle + std::min<ptrdiff_t>(2, bucket.end() - middle);
      for (auto i = middle - std::min<ptrdiff_t>(2, middle - bucket.begin()); i != last; ++i) {
        proposals_.push_back(start - int64_t{*i});
      }
    }
  }
  uint64_t least = best_cost - kPoorFitGain;
  int64_t cheapest = kStoredShift;
  for (const int64_t shift : proposals_) {
    if (is_alive(shift)) {
      continue;
    }
    const uint64_t cost = costs_.words(shift, at, kPoorFitWords, false, least);
    if (cost < least) {
      least = cost;
      cheapest = shift;
    }
  }
  if (cheapest != kStoredShift) {
    enter(cheapest, at);
    near_step_ = kPoorFitStep;
  } else {
    next_near_ = at + near_step_;
    near_step_ = std::min(2 * near_step_, kLongestPoorFitStep);
  }
}

// Drops found states that have been of no use for a while.
void aligner::retire(int64_t at) {
  const int64_t best_shift = states_[best_].shift;
  const auto first = states_.begin() + static_cast<ptrdiff_t>(fixed_states_);
  states_.erase(std::remove_if(first, states_.end(),
                               [&](const state& found) {
                                 return found.used + kIdleBytes <= at && found.shift != best_shift;
                               }),
                states_.end());
}

std::vector<shift_stretch> aligner::way_back() const {
  std::vector<shift_stretch> stretches;
  const auto last = std::min_element(
      states_.begin(), states_.end(),
      [](const state& first, const state& second) { return first.cost < second.cost; });
  way_record at = {last->shift, static_cast<uint32_t>(last->start), last->before};
  auto end = static_cast<uint32_t>(new_size_);
  for (;;) {
    if (at.start < end) {
      if (!stretches.empty() && stretches.back().shift == at.shift) {
        stretches.back().begin = at.start;
      } else {
        stretches.push_back({at.start, end, at.shift});
      }
      end = at.start;
    }
    if (at.before == kNoRecord) {
      break;
    }
    at = records_[static_cast<size_t>(at.before)];
  }
  std::reverse(stretches.begin(), stretches.end());
  return stretches;
}

std::vector<shift_stretch> aligner::run() {
  const int64_t words_end = new_size_ & ~int64_t{3};
  for (int64_t at = 0; at < words_end; at += 4) {
    if (const int64_t next = next_part(at); next > at) {
      for (state& alive : states_) {
        alive.after_store = false;
      }
      at = next - 4;
      continue;
    }
    clamp_to_best(at);
    const int64_t difference = next_difference(at);
    if (all_bounded_ && difference > at + kSightBytes) {
      // No state can change until shortly before the next difference.
      states_[best_].after_store = false;
      at = difference - kSightBytes - 4;
      continue;
    }
    if (difference < std::min(at + kSightBytes, words_end)) {
      propose_strings(at);
      if (settings_.proposes_on_grid ? at % kPoorFitStep == 0 : at >= next_near_) {
        propose_near(at);
      }
    }
    if (states_[best_].shift != kStoredShift) {
      last_shift_ = states_[best_].shift;
    }
    for (state& alive : states_) {
      alive.cost += costs_.word(alive.shift, at, alive.after_store);
    }
    if (at % 256 == 0 && states_.size() > fixed_states_) {
      retire(at);
    }
  }
  return way_back();
}

}  // namespace

std::vector<shift_stretch> align_images(const alignment_input& input,
                                        const alignment_settings& settings) {
  if (input.images.new_image.empty()) {
    return {};
  }
  std::vector<shift_stretch> stretches = aligner(input, settings).run();
  settle_borders(input, word_costs(input, settings.stored_word_bits), stretches);
  return stretches;
}

std::vector<int64_t> widest_shifts(std::span<const shift_stretch> stretches) {
  std::vector<std::pair<int64_t, uint64_t>> by_shift;
  for (const shift_stretch& stretch : stretches) {
    if (stretch.shift != kStoredShift && stretch.shift != 0) {
      by_shift.emplace_back(stretch.shift, stretch.end - stretch.begin);
    }
  }
  std::sort(by_shift.begin(), by_shift.end());
  std::vector<std::pair<uint64_t, int64_t>> widest;  // by width, the widest first
  for (auto at = by_shift.begin(); at != by_shift.end();) {
    const int64_t shift = at->first;
    uint64_t width = 0;
    for (; at != by_shift.end() && at->first == shift; ++at) {
      width += at->second;
    }
    const std::pair<uint64_t, int64_t> found = {width, shift};
    widest.insert(std::upper_bound(widest.begin(), widest.end(), found, std::greater<>()), found);
    widest.resize(std::min(widest.size(), kKeptShifts));
  }
  std::vector<int64_t> shifts;
  shifts.reserve(widest.size());
  for (const auto& [width, shift] : widest) {
    shifts.push_back(shift);
  }
  return shifts;
}

}  // namespace kelvane
