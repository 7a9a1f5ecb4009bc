#include "plan_search.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>

#include "alignment.h"
#include "changed_words.h"
#include "make_plan.h"
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

effort_settings settings_of(plan_effort effort) {
  const std::span<const uint32_t> block_bits(kBlockBits);
  const std::span<const uint32_t> stored_bits(kStoredWordBits);
  switch (effort) {
    case plan_effort::quick:
      return {1, block_bits.first(1), stored_bits.first(1), 1, false};
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
  std::vector<int64_t> shifts;
  bool is_made = false;
};

// The order in which more of the words that differ share their difference with several others.
ByteOrder likelier_order(const plan_images& images, std::span<const moved_block> moves,
                         ByteOrder guess) {
  const moved_image moved = carry_out_moves(images, moves);
  const auto shared = [&](ByteOrder order) {
    const changed_words changed = find_changed_words(images, moved, order);
    return std::count_if(changed.words.begin(), changed.words.end(),
                         [](const changed_word& word) { return word.is_frequent; });
  };
  const ByteOrder other = guess == ByteOrder::big ? ByteOrder::little : ByteOrder::big;
  return shared(other) > shared(guess) ? other : guess;
}

class plan_searcher {
 public:
  explicit plan_searcher(const plan_request& request)
      : request_(request),
        effort_(settings_of(request.effort)),
        order_(request.order.value_or(likely_order(request.images.new_image))),
        strings_(std::make_unique<string_seeds>(request.images.old_image)) {}

  found_plan run() {
    most_tries_ = effort_.rounds * static_cast<uint32_t>(alignments());
    for (uint32_t round = 0; round < effort_.rounds && !was_stopped_; ++round) {
      go_round(round);
    }
    return {std::move(best_.planned), best_.cost, tries_, was_stopped_};
  }

 private:
  size_t alignments() const { return effort_.block_bits.size() * effort_.stored_word_bits.size(); }

  void go_round(uint32_t round) {
    if (differences_ == nullptr || differences_order_ != order_) {
      differences_ = std::make_unique<difference_seeds>(request_.images.old_image, order_);
      differences_order_ = order_;
    }
    std::vector<tried_plan> tried(alignments());
    run_tasks(tried.size(), request_.jobs, [&](size_t index) {
      if (!is_over()) {
        tried[index] = try_alignment(index, round == 0);
        note(tried[index]);
      }
    });
    const tried_plan* round_best = nullptr;
    for (const tried_plan& each : tried) {
      if (each.is_made && (round_best == nullptr || each.cost.total() < round_best->cost.total())) {
        round_best = &each;
      }
    }
    if (round_best == nullptr) {
      return;
    }
    order_ = round_best->planned.order;
    shifts_ = round_best->shifts;
    prices_ = class_prices(mean_prices(round_best->planned));
    if (!best_.is_made || round_best->cost.total() < best_.cost.total()) {
      best_ = *round_best;
    }
  }

  bool is_over() {
    const std::lock_guard<std::mutex> hold(mutex_);
    was_stopped_ = was_stopped_ || (started_ > 0 && request_.is_over && request_.is_over());
    ++started_;
    return was_stopped_;
  }

  void note(const tried_plan& made) {
    const std::lock_guard<std::mutex> hold(mutex_);
    ++tries_;
    least_ = std::min(least_, made.cost.total());
    if (request_.report) {
      request_.report({tries_, most_tries_, least_});
    }
  }

  tried_plan try_alignment(size_t index, bool is_first_round) {
    alignment_settings settings;
    settings.block_bits = effort_.block_bits[index % effort_.block_bits.size()];
    settings.stored_word_bits = request_.rules.compression
                                    ? effort_.stored_word_bits[index / effort_.block_bits.size()]
                                    : 0;
    settings.kept_shifts = shifts_;
    const alignment_input input = {request_.images, order_, strings_.get(), differences_.get(),
                                   &prices_};
    const std::vector<shift_stretch> stretches = align_images(input, settings);
    if (effort_.rounds * alignments() == 1) {  // what comes needs the memory
      strings_.reset();
      differences_.reset();
    }
    const move_order moves =
        best_order(request_.images, stretches, {effort_.order_tries, request_.rules.outer_holes});
    tried_plan best;
    if (request_.effort == plan_effort::quick) {
      const ByteOrder order =
          request_.order ? *request_.order : likelier_order(request_.images, moves.blocks, order_);
      take_cheaper(best, moves, {order, kPackedByte, kPackedEntry});
      return best;
    }
    take_cheaper(best, moves, {order_, kPackedByte, kPackedEntry});
    if (is_first_round && !request_.order) {
      const ByteOrder other = order_ == ByteOrder::big ? ByteOrder::little : ByteOrder::big;
      take_cheaper(best, moves, {other, kPackedByte, kPackedEntry});
    }
    try_rates(best, moves);
    best.shifts = widest_shifts(stretches);
    return best;
  }

  // The plan again with other rates of compressed stores, where there is much to store.
  void try_rates(tried_plan& best, const move_order& moves) const {
    constexpr uint64_t kMuch = 1000;
    if (!request_.rules.compression || best.cost.packed_stores + best.cost.plain_stores < kMuch) {
      return;
    }
    const ByteOrder order = best.planned.order;
    if (effort_.all_rates) {
      for (const uint32_t tenths : {52U, 64U}) {
        for (const uint32_t entry : {kPackedEntry, kDearPackedEntry}) {
          take_cheaper(best, moves, {order, tenths * kBit / 10, entry});
        }
      }
      return;
    }
    take_cheaper(best, moves, {order, 64 * kBit / 10, kPackedEntry});
  }

  void take_cheaper(tried_plan& best, const move_order& moves,
                    const plan_settings& settings) const {
    tried_plan made;
    made.planned = make_plan(request_.images, moves.blocks, request_.rules, settings);
    made.cost = cost_of_plan(request_.images, made.planned, request_.rules);
    made.is_made = true;
    if (!best.is_made || made.cost.total() < best.cost.total()) {
      best = std::move(made);
    }
  }

  const plan_request& request_;
  effort_settings effort_;
  ByteOrder order_;
  std::unique_ptr<string_seeds> strings_;
  std::unique_ptr<difference_seeds> differences_;
  ByteOrder differences_order_ = ByteOrder::little;
  class_prices prices_;
  std::vector<int64_t> shifts_;
  tried_plan best_;

  std::mutex mutex_;  // for what follows
  uint32_t tries_ = 0;
  uint32_t most_tries_ = 0;
  uint32_t started_ = 0;
  uint64_t least_ = UINT64_MAX;
  bool was_stopped_ = false;
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
  return unevenness[0] > unevenness[1] ? ByteOrder::big : ByteOrder::little;
}

found_plan search_plan(const plan_request& request) {
  return plan_searcher(request).run();
}

}  // namespace kelvane
