// SPDX-License-Identifier: Apache-2.0
#include "dense_tries.h"

#include <algorithm>
#include <utility>

#include "dense_base.h"
#include "dense_prices.h"
#include "dense_writer.h"
#include "parallel_tasks.h"

namespace kelvane {
namespace {

using copies_span = std::span<const dense_copy>;

bool are_equal(copies_span first, copies_span second) {
  return std::equal(first.begin(), first.end(), second.begin(), second.end(),
                    [](const dense_copy& one, const dense_copy& other) {
                      return one.source == other.source && one.target == other.target &&
                             one.length == other.length;
                    });
}

bool are_equal(const dense_options& first, const dense_options& second) {
  return first.target.machine == second.target.machine &&
         first.target.code_order == second.target.code_order &&
         first.target.data_order == second.target.data_order &&
         first.target.base == second.target.base && first.model == second.model &&
         first.differences == second.differences && first.reads_new == second.reads_new;
}

// The memory that finding items takes: one for each eight stored bytes, once more without its
// place, and the steps through the longest part.
uint64_t item_bytes(const plan_images& images, copies_span copies) {
  constexpr uint64_t kStepBytes = 26;  // cost, item and state, and the price of a literal
  uint64_t stored = 0;
  uint64_t longest = 0;
  uint32_t at = 0;
  const auto store_up_to = [&](size_t end) {
    stored += end - at;
    longest = std::max<uint64_t>(longest, end - at);
  };
  for (const dense_copy& copy : copies) {
    store_up_to(copy.target);
    at = copy.target + copy.length;
  }
  store_up_to(images.new_image.size());
  return stored / 8 * (sizeof(dense_item) + sizeof(item_extent)) +
         std::min<uint64_t>(longest, kParsedAtOnce) * kStepBytes;
}

bool stores_many(const dense_measuring& how, copies_span copies) {
  // Where images are far apart one index serves all plans.
  return string_places::are_many(how.images, how.is_far_apart ? copies_span() : copies);
}

class measuring {
 public:
  measuring(const dense_measuring& how, std::span<dense_candidate> made) : how_(how), made_(made) {
    for (size_t i = 0; i < made.size(); ++i) {
      const auto with_same_copies = std::find_if(
          groups_.begin(), groups_.end(),
          [&](const group& each) { return are_equal(copies_of(each), made[i].plan.copies); });
      if (with_same_copies == groups_.end()) {
        groups_.push_back({i});
      } else if (const size_t same = same_in(*with_same_copies, made[i].options, i); same != i) {
        seen_before_.emplace_back(i, same);
      } else {
        with_same_copies->push_back(i);
      }
    }
  }

  void run() {
    run(false);
    run(true);
    for (const auto& [again, first] : seen_before_) {
      made_[again].options = made_[first].options;
      set_size(made_[again], made_[first].size);
    }
  }

 private:
  using group = std::vector<size_t>;  // candidates with the same copies and other options

  // Which of a group has the same options; `none` if none has.
  size_t same_in(const group& members, const dense_options& options, size_t none) const {
    const auto same = std::find_if(members.begin(), members.end(), [&](size_t member) {
      return are_equal(made_[member].options, options);
    });
    return same == members.end() ? none : *same;
  }

  copies_span copies_of(const group& each) const { return made_[each.front()].plan.copies; }

  void run(bool many) {
    std::vector<const group*> groups;
    std::vector<copies_span> plans;
    uint64_t bytes = 0;
    for (const group& each : groups_) {
      const copies_span copies = copies_of(each);
      if (stores_many(how_, copies) == many) {
        groups.push_back(&each);
        plans.push_back(copies);
        bytes = std::max(bytes, item_bytes(how_.images, copies));
      }
    }
    if (groups.empty()) {
      return;
    }
    const string_places places(how_.images, plans, many);
    const size_t at_once = jobs_within(how_.images, bytes, how_.jobs);
    for (std::span<const group* const> left = groups; !left.empty();) {
      const auto now = left.first(std::min(left.size(), at_once));
      run_tasks(now.size(), how_.jobs, [&](size_t i) {
        dense_candidate& first = made_[now[i]->front()];
        first.plan.items = items_between(how_.images, places, how_.reach, first.plan.copies,
                                         first.options.reads_new);
      });
      measure(now);
      left = left.subspan(now.size());
    }
  }

  // The first of each group has the items for all of it.
  void measure(std::span<const group* const> groups) {
    struct trial {
      size_t candidate;
      const dense_plan* plan;
      dense_options options;
      size_t size = 0;
    };
    std::vector<trial> trials;  // two for each candidate, the second one with another base
    for (const group* const each : groups) {
      for (const size_t i : *each) {
        trials.insert(trials.end(), 2, {i, &made_[each->front()].plan, made_[i].options});
      }
    }
    run_tasks(trials.size(), how_.jobs, [&](size_t i) {
      trial& tried = trials[i];
      if (i % 2 != 0) {
        uint32_t& base = tried.options.target.base;
        base = how_.base_is_known
                   ? base
                   : likely_base(how_.images, tried.plan->copies, tried.options.target);
        if (base == trials[i - 1].options.target.base) {
          return;
        }
      }
      tried.size = size_of_dense(how_.images, *tried.plan, tried.options);
    });
    for (size_t i = 0; i < trials.size(); i += 2) {
      const size_t other = trials[i + 1].size;
      const trial& best = trials[other != 0 && other < trials[i].size ? i + 1 : i];
      made_[best.candidate].options = best.options;
      set_size(made_[best.candidate], best.size);
    }
    for (const group* const each : groups) {
      made_[each->front()].plan.items = std::vector<dense_item>();  // {} would keep the memory
    }
  }

  void set_size(dense_candidate& made, size_t size) {
    made.size = size;
    if (how_.note) {
      how_.note(size);
    }
  }

  const dense_measuring& how_;
  std::span<dense_candidate> made_;
  std::vector<group> groups_;
  std::vector<std::pair<size_t, size_t>> seen_before_;  // and what they are the same as
};

}  // namespace

size_t jobs_within(const plan_images& images, uint64_t task_bytes, uint32_t jobs) {
  const uint64_t both = images.old_image.size() + images.new_image.size();
  return std::clamp<size_t>(both * 2 / (task_bytes + 1), 1, std::max(jobs, 1U));
}

void measure_all(const dense_measuring& how, std::span<dense_candidate> made) {
  measuring(how, made).run();
}

void finish_plan(const dense_measuring& how, dense_candidate& best) {
  dense_candidate other = best;
  other.options.reads_new = false;
  const bool has_other = best.options.reads_new;
  const uint64_t task_bytes = item_bytes(how.images, best.plan.copies);
  {
    const copies_span copies = best.plan.copies;
    const string_places places(how.images, {&copies, 1}, stores_many(how, copies));
    run_tasks(has_other ? 2 : 1, jobs_within(how.images, task_bytes, how.jobs), [&](size_t i) {
      dense_candidate& made = i == 0 ? best : other;
      made.plan.items =
          items_between(how.images, places, how.reach, copies, made.options.reads_new);
    });
  }
  dense_options plain = best.options;
  plain.differences = false;
  size_t plain_size = 0;
  run_tasks(has_other ? 2 : 1, how.jobs, [&](size_t i) {
    if (i == 0) {
      plain_size = size_of_dense(how.images, best.plan, plain);
    } else {
      other.size = size_of_dense(how.images, other.plan, other.options);
    }
  });
  if (plain_size < best.size) {
    best.size = plain_size;
    best.options = plain;
    if (has_other) {
      other.options.differences = false;
      other.size = size_of_dense(how.images, other.plan, other.options);
    }
  }
  if (has_other && !is_smaller(best, other)) {
    best = std::move(other);
  }
}

}  // namespace kelvane
