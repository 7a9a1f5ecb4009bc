#include "plan_search.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>

#include "alignment.h"
#include "make_plan.h"
#include "memory_target.h"
#include "move_order.h"
#include "parallel_tasks.h"
#include "word_classes.h"

namespace kelvane {
namespace {

// What each effort tries.
struct effort_settings {
  uint32_t rounds;
  std::span<const uint32_t> block_bits;
  std::span<const uint32_t> stored_word_bits;
  uint32_t order_tries;
  bool all_rates;
};

constexpr std::array<uint32_t, 3> kBlockBits = {240, 110, 160};
constexpr std::array<uint32_t, 2> kStoredWordBits = {40, 22};

constexpr uint32_t kQuickOrders = 3;

effort_settings settings_of(plan_effort effort) {
  const std::span<const uint32_t> block_bits(kBlockBits);
  const std::span<const uint32_t> stored_bits(kStoredWordBits);
  switch (effort) {
    case plan_effort::quick:
      return {1, block_bits.first(1), stored_bits.first(1), kQuickOrders, false};
    case plan_effort::normal:
      return {3, block_bits.first(2), stored_bits.first(1), 12, false};
    default:
      return {3, block_bits, stored_bits, 54, true};
  }
}

// What compressed stores are first taken to cost: bits a byte, and the entry.
constexpr uint32_t kPackedByte = 58 * kBit / 10;
constexpr uint32_t kPackedEntry = 66 * kBit;
constexpr uint32_t kDearPackedEntry = 160 * kBit;

// Everything about a plan that the next round needs.
struct tried_plan {
  plan planned;
  plan_cost cost;
  plan_settings settings;
  std::vector<int64_t> shifts;
  bool is_made = false;
};

// The plans of both rules, and what is asked and told meanwhile. Shared by the threads.
class tried_plans {
 public:
  tried_plans(const plan_request& request, uint32_t most_tries)
      : request_(request), most_tries_(most_tries) {}

  bool is_over() {
    const std::lock_guard<std::mutex> hold(mutex_);
    was_stopped_ = was_stopped_ || (started_ > 0 && request_.is_over && request_.is_over());
    ++started_;
    return was_stopped_;
  }
  bool was_stopped() const { return was_stopped_; }

  void note(const tried_plan& made) {
    const std::lock_guard<std::mutex> hold(mutex_);
    ++tries_;
    least_ = std::min(least_, made.cost.total());
    if (request_.report) {
      request_.report({tries_, most_tries_, least_});
    }
  }

  // Not for several threads. Keeps the cheapest plans; of equal ones those made first.
  void keep(std::vector<tried_plan>& round) {
    for (tried_plan& each : round) {
      if (each.is_made) {
        kept_.push_back(std::move(each));
      }
    }
    std::stable_sort(kept_.begin(), kept_.end(), [](const auto& first, const auto& second) {
      return first.cost.total() < second.cost.total();
    });
    kept_.erase(kept_.begin() + static_cast<ptrdiff_t>(std::min(kept_.size(), kMostKept)),
                kept_.end());
  }

  // The cheapest plan that holds.
  found_plan best() {
    std::string first_fault;
    size_t chosen = 0;
    for (size_t i = 0; i < kept_.size() && request_.fault_of; ++i) {
      std::string fault = request_.fault_of(kept_[i].planned);
      if (fault.empty()) {
        chosen = i;
        first_fault.clear();
        break;
      }
      first_fault = i == 0 ? std::move(fault) : first_fault;
    }
    return {std::move(kept_[chosen].planned), kept_[chosen].cost, tries_, was_stopped_,
            std::move(first_fault)};
  }

 private:
  // Plans of unlike images are as large as they are; a few are enough to fall back on.
  static constexpr size_t kMostKept = 3;

  const plan_request& request_;
  std::vector<tried_plan> kept_;
  std::mutex mutex_;  // for what follows
  uint32_t tries_ = 0;
  uint32_t most_tries_ = 0;
  uint32_t started_ = 0;
  uint64_t least_ = UINT64_MAX;
  bool was_stopped_ = false;
};

// The order in which more of the words that differ share their difference with several others. They
// are counted by a hash of the difference: whom chance adds, it adds to both orders.
ByteOrder likelier_order(const plan_images& images, std::span<const moved_block> moves,
                         ByteOrder guess) {
  constexpr uint32_t kHashBits = 20;
  constexpr uint8_t kSeveral = 6;
  const moved_image moved = carry_out_moves(images, moves);
  const auto shared = [&](ByteOrder order) {
    std::vector<uint8_t> counts(size_t{1} << kHashBits);
    uint64_t several = 0;
    for (uint32_t at = 0; at + 4 <= moved.bytes.size(); at += 4) {
      const uint32_t difference =
          load_word(&images.new_image[at], order) - load_word(&moved.bytes[at], order);
      uint8_t& count = counts[(difference * 2654435761U) >> (32U - kHashBits)];
      if (difference == 0 || !moved.is_known(at) || !moved.is_known(at + 3)) {
        continue;
      }
      if (count == kSeveral) {
        ++several;
      } else if (++count == kSeveral) {
        several += kSeveral;
      }
    }
    return several;
  };
  const ByteOrder other = guess == ByteOrder::kBig ? ByteOrder::kLittle : ByteOrder::kBig;
  return shared(other) > shared(guess) ? other : guess;
}

size_t alignments_of(const effort_settings& effort) {
  return effort.block_bits.size() * effort.stored_word_bits.size();
}

// At effort quick the rules don't matter before the order of the moves: one alignment does for
// both.
bool shares_alignments(const plan_request& request) {
  return request.effort == plan_effort::quick && request.narrower_rules &&
         request.rules.compression == request.narrower_rules->compression;
}

class plan_searcher {
 public:
  plan_searcher(const plan_request& request, const plan_rules& rules, plan_effort effort,
                tried_plans& tried, packed_runs& forms)
      : request_(request),
        rules_(rules),
        tried_(tried),
        forms_(forms),
        effort_(settings_of(effort)),
        order_(request.order.value_or(likely_order(request.images.new_image))),
        strings_(std::make_unique<string_seeds>(request.images.old_image, known_bytes())) {}

  void run() {
    for (uint32_t round = 0; round < effort_.rounds && !tried_.was_stopped(); ++round) {
      if (!go_round(round)) {
        return;
      }
    }
  }

 private:
  size_t alignments() const { return alignments_of(effort_); }
  const row_bytes* known_bytes() const {
    const linear_map* const map = map_of(request_.images);
    return map != nullptr ? &map->old_bytes() : nullptr;
  }

  // Whether another round may give anything else.
  bool go_round(uint32_t round) {
    if (differences_ == nullptr || differences_order_ != order_) {
      differences_ =
          std::make_unique<difference_seeds>(request_.images.old_image, order_, known_bytes());
      differences_order_ = order_;
    }
    std::vector<tried_plan> tried(alignments());
    run_tasks(tried.size(), request_.jobs, [&](size_t index) {
      if (!tried_.is_over()) {
        tried[index] = try_alignment(index, round == 0);
        tried_.note(tried[index]);
      }
    });
    const tried_plan* round_best = nullptr;
    for (const tried_plan& each : tried) {
      if (each.is_made && (round_best == nullptr || each.cost.total() < round_best->cost.total())) {
        round_best = &each;
      }
    }
    bool is_new = false;
    if (round_best != nullptr) {
      std::vector<class_price> prices = mean_prices(request_.images, round_best->planned);
      is_new = order_ != round_best->planned.order || shifts_ != round_best->shifts ||
               mean_prices_ != prices;
      order_ = round_best->planned.order;
      settings_ = round_best->settings;
      shifts_ = round_best->shifts;
      mean_prices_ = std::move(prices);
      prices_ = class_prices(*mean_prices_);
    }
    tried_.keep(tried);
    return is_new;
  }

  tried_plan try_alignment(size_t index, bool is_first_round) {
    alignment_settings settings;
    settings.block_bits = effort_.block_bits[index % effort_.block_bits.size()];
    settings.stored_word_bits =
        rules_.compression ? effort_.stored_word_bits[index / effort_.block_bits.size()] : 0;
    settings.kept_shifts = shifts_;
    const alignment_input input = {request_.images, order_, strings_.get(), differences_.get(),
                                   &prices_};
    const std::vector<shift_stretch> stretches = align_images(input, settings);
    if (effort_.rounds * alignments() == 1) {  // what comes needs the memory
      strings_.reset();
      differences_.reset();
    }
    tried_plan best;
    if (effort_.rounds == 1) {
      take_quick(best, stretches, rules_);
      if (shares_alignments(request_)) {
        take_quick(best, stretches, *request_.narrower_rules);
      }
      return best;
    }
    const move_order moves = order_of(stretches, rules_, effort_.order_tries);
    if (is_first_round) {
      take_cheaper(best, moves, rules_, {order_, kPackedByte, kPackedEntry});
      if (!request_.order) {
        const ByteOrder other = order_ == ByteOrder::kBig ? ByteOrder::kLittle : ByteOrder::kBig;
        take_cheaper(best, moves, rules_, {other, kPackedByte, kPackedEntry});
      }
      // Estimates may be wrong: the order that effort quick takes is no worse a start.
      if (index == 0 && moves.tries > kQuickOrders) {
        take_cheaper(best, order_of(stretches, rules_, kQuickOrders), rules_, best.settings);
      }
      try_rates(best, moves);
    } else {
      take_cheaper(best, moves, rules_, settings_);
    }
    best.shifts = widest_shifts(stretches);
    return best;
  }

  move_order order_of(std::span<const shift_stretch> stretches, const plan_rules& rules,
                      uint32_t tries) const {
    return best_order(request_.images, stretches, {tries, rules.outer_holes, rules.compression});
  }

  void take_quick(tried_plan& best, std::span<const shift_stretch> stretches,
                  const plan_rules& rules) {
    const move_order moves = order_of(stretches, rules, effort_.order_tries);
    const ByteOrder order =
        request_.order ? *request_.order : likelier_order(request_.images, moves.blocks, order_);
    take_cheaper(best, moves, rules, {order, kPackedByte, kPackedEntry});
  }

  // The plan again with other rates of compressed stores, where there is much to store.
  void try_rates(tried_plan& best, const move_order& moves) {
    constexpr uint64_t kMuch = 1000;
    if (!rules_.compression || best.cost.packed_stores + best.cost.plain_stores < kMuch) {
      return;
    }
    const ByteOrder order = best.planned.order;
    if (effort_.all_rates) {
      for (const uint32_t tenths : {52U, 64U}) {
        for (const uint32_t entry : {kPackedEntry, kDearPackedEntry}) {
          take_cheaper(best, moves, rules_, {order, tenths * kBit / 10, entry});
        }
      }
      return;
    }
    take_cheaper(best, moves, rules_, {order, 64 * kBit / 10, kPackedEntry});
  }

  void take_cheaper(tried_plan& best, const move_order& moves, const plan_rules& rules,
                    const plan_settings& settings) {
    tried_plan made;
    made.planned = make_plan(request_.images, moves.blocks, rules, settings, forms_);
    made.cost = cost_of_plan(request_.images, made.planned, rules);
    made.settings = settings;
    made.is_made = true;
    if (!best.is_made || made.cost.total() < best.cost.total()) {
      best = std::move(made);
    }
  }

  const plan_request& request_;
  const plan_rules& rules_;
  tried_plans& tried_;
  packed_runs& forms_;
  effort_settings effort_;
  ByteOrder order_;
  plan_settings settings_;  // those of the best plan of the round before
  std::unique_ptr<string_seeds> strings_;
  std::unique_ptr<difference_seeds> differences_;
  ByteOrder differences_order_ = ByteOrder::kLittle;
  std::optional<std::vector<class_price>> mean_prices_;  // not known in the first round
  class_prices prices_;                                  // of them
  std::vector<int64_t> shifts_;
};

}  // namespace

ByteOrder likely_order(std::span<const uint8_t> image) {
  // How unevenly the values are spread over even and over odd places.
  std::array<std::array<uint64_t, 256>, 2> counts = {};
  for (size_t i = 0; i < image.size(); ++i) {
    ++counts[i % 2][image[i]];
  }
  std::array<uint64_t, 2> unevenness = {};
  for (size_t side = 0; side < 2; ++side) {
    for (size_t value = 1; value < 255; ++value) {  // not the values that gaps are filled with
      unevenness[side] += counts[side][value] / 16 * (counts[side][value] / 16);
    }
  }
  return unevenness[0] > unevenness[1] ? ByteOrder::kBig : ByteOrder::kLittle;
}

// Searches go their own ways, and one that tries more may end worse: the best effort is the better
// of two.
found_plan search_plan(const plan_request& request) {
  std::vector<plan_effort> efforts = {request.effort};
  if (request.effort == plan_effort::best) {
    efforts.insert(efforts.begin(), plan_effort::normal);
  }
  std::vector<const plan_rules*> all_rules = {&request.rules};
  if (request.narrower_rules && !shares_alignments(request)) {
    all_rules.push_back(&*request.narrower_rules);
  }
  uint32_t most_tries = 0;
  for (const plan_effort each : efforts) {
    const effort_settings effort = settings_of(each);
    most_tries += effort.rounds * static_cast<uint32_t>(alignments_of(effort) * all_rules.size());
  }
  tried_plans tried(request, most_tries);
  packed_runs forms(request.images.new_image);
  for (const plan_rules* const rules : all_rules) {
    for (const plan_effort effort : efforts) {
      if (!tried.was_stopped()) {
        plan_searcher(request, *rules, effort, tried, forms).run();
      }
    }
  }
  return tried.best();
}

}  // namespace kelvane
