// SPDX-License-Identifier: Apache-2.0
#include "dense_search.h"

#include <algorithm>
#include <stdexcept>

#include "dense_base.h"
#include "dense_costs.h"
#include "dense_matches.h"
#include "dense_proof.h"
#include "dense_reach.h"
#include "dense_writer.h"
#include "parallel_tasks.h"

namespace kelvane {
namespace {

constexpr uint32_t kLeastEntry = 12;       // bytes of a copy that goes into the map
constexpr size_t kLargeImage = 1U << 20U;  // from here on normal effort makes fewer tries
constexpr uint32_t kFirstBlockBits = 60;

struct try_settings {
  uint32_t block_bits = 50;
  uint32_t stored_word_bits = 18;
};

struct effort_settings {
  uint32_t rounds = 1;
  std::vector<try_settings> tries = {{}};
};

effort_settings settings_for(dense_effort effort, size_t new_size) {
  // The first round has no map to predict with, so one alone may miss what moved.
  if (effort == dense_effort::quick ||
      (effort == dense_effort::normal && new_size >= kLargeImage)) {
    return {2, {{}}};
  }
  if (effort == dense_effort::best) {
    effort_settings settings = {3, {}};
    for (const uint32_t block_bits : {40U, 50U, 60U}) {
      for (const uint32_t stored_word_bits : {16U, 18U, 22U}) {
        settings.tries.push_back({block_bits, stored_word_bits});
      }
    }
    return settings;
  }
  return {3, {{40, 16}, {60, 16}, {40, 22}, {60, 22}}};
}

// A plan and its payload.
struct candidate {
  dense_plan plan;
  dense_options options;
  std::vector<shift_stretch> stretches;
  std::vector<uint8_t> payload;
  size_t size() const { return payload.size(); }
  bool is_made() const { return !payload.empty(); }
};

bool is_smaller(const candidate& first, const candidate& second) {
  return first.is_made() && (!second.is_made() || first.size() < second.size());
}

class search {
 public:
  explicit search(const dense_request& request)
      : request_(request),
        images_(request.images),
        reach_(images_, request.geometry),
        strings_(images_.old_image),
        chains_(images_) {}

  dense_update run();

 private:
  static uint32_t size_of(std::span<const uint8_t> image) {
    return static_cast<uint32_t>(image.size());
  }
  dense_options options_for(const dense_target& target) const {
    return {target, request_.model, true, request_.reads_new};
  }
  std::vector<shift_stretch> align(const dense_options& options, const difference_seeds& seeds,
                                   const dense_knowledge& knowledge, const try_settings& settings,
                                   std::span<const int64_t> kept_shifts) const;
  dense_plan plan_of(std::span<const shift_stretch> stretches, bool reads_new) const;
  void write(candidate& made) const {
    made.payload = write_dense(images_, made.plan, made.options);
  }
  std::vector<shift_stretch> first_alignment();
  std::vector<dense_options> likely_options(std::span<const shift_stretch> stretches) const;
  candidate rounds(const dense_options& options, const effort_settings& settings) const;
  void try_other_base(candidate& best) const;
  void try_without_differences(candidate& best) const;
  void try_without_new(candidate& best) const;

  const dense_request& request_;
  const plan_images& images_;
  old_reach reach_;
  string_seeds strings_;
  string_chains chains_;
};

std::vector<shift_stretch> search::align(const dense_options& options,
                                         const difference_seeds& seeds,
                                         const dense_knowledge& knowledge,
                                         const try_settings& settings,
                                         std::span<const int64_t> kept_shifts) const {
  dense_costs costs(images_, options, reach_, knowledge);
  alignment_input input;
  input.images = images_;
  input.order = options.target.data_order;
  input.strings = &strings_;
  input.differences = &seeds;
  input.prices = &knowledge.prices;
  input.pricing = &costs;
  alignment_settings alignment;
  alignment.block_bits = settings.block_bits;
  alignment.stored_word_bits = settings.stored_word_bits;
  alignment.proposes_on_grid = true;
  alignment.enter_stored_bits = 20;
  alignment.enter_zero_bits = settings.block_bits;
  alignment.kept_shifts.assign(kept_shifts.begin(), kept_shifts.end());
  return align_images(input, alignment);
}

dense_plan search::plan_of(std::span<const shift_stretch> stretches, bool reads_new) const {
  dense_plan plan;
  plan.copies = reach_.readable_copies(stretches);
  uint32_t at = 0;
  int64_t shift = 0;
  for (const dense_copy& copy : plan.copies) {
    append_items(images_, chains_, reach_, reads_new, at, copy.target, shift, plan.items);
    at = copy.target + copy.length;
    shift = static_cast<int64_t>(copy.target) - copy.source;
  }
  append_items(images_, chains_, reach_, reads_new, at, size_of(images_.new_image), shift,
               plan.items);
  std::vector<dense_copy> longest;
  for (const dense_copy& copy : plan.copies) {
    if (copy.length >= kLeastEntry) {
      longest.push_back(copy);
    }
  }
  const size_t count = std::min<size_t>(longest.size(), std::min(request_.map_limit, 0xFFFFU));
  std::stable_sort(longest.begin(), longest.end(),
                   [](const dense_copy& first, const dense_copy& second) {
                     return first.length > second.length;
                   });
  longest.resize(count);
  std::sort(longest.begin(), longest.end(), [](const dense_copy& first, const dense_copy& second) {
    return first.target < second.target;
  });
  for (const dense_copy& copy : longest) {
    plan.map.push_back({copy.source, copy.target, copy.length});
  }
  return plan;
}

// Once with every old byte at hand, which shows the pages worth keeping, and once with them.
std::vector<shift_stretch> search::first_alignment() {
  flash_geometry anything = request_.geometry;
  anything.ring_pages = 0;
  const dense_options plain = options_for({});
  const difference_seeds seeds(images_.old_image, ByteOrder::kLittle);
  const try_settings settings = {kFirstBlockBits, 16};
  old_reach restricted = reach_;
  reach_ = old_reach(images_, anything);
  std::vector<shift_stretch> stretches = align(plain, seeds, {}, settings, {});
  reach_ = restricted;
  if (request_.geometry.ring_pages == 0) {
    return stretches;
  }
  reach_.choose_kept(stretches);
  return align(plain, seeds, {}, settings, {});
}

// The best of each machine whose payload is not half as large again as the smallest.
std::vector<dense_options> search::likely_options(std::span<const shift_stretch> stretches) const {
  struct guess {
    candidate made;
    size_t size = 0;
  };
  std::vector<dense_options> all;
  for (uint8_t machine = KELVANE_DENSE_NONE; machine < KELVANE_DENSE_MACHINES; ++machine) {
    for (const ByteOrder data_order : {ByteOrder::kLittle, ByteOrder::kBig}) {
      for (const ByteOrder code_order : {ByteOrder::kLittle, ByteOrder::kBig}) {
        const bool is_odd = machine == KELVANE_DENSE_NONE    ? code_order != data_order
                            : machine == KELVANE_DENSE_RISCV ? code_order == ByteOrder::kBig
                                                             : false;
        if (!is_odd) {
          all.push_back(options_for({machine, code_order, data_order, 0}));
        }
      }
    }
  }
  const dense_plan plan = plan_of(stretches, request_.reads_new);
  std::vector<size_t> sizes(all.size());
  run_tasks(all.size(), request_.jobs, [&](size_t i) {
    all[i].target.base = likely_base(images_, plan.copies, all[i].target);
    sizes[i] = write_dense(images_, plan, all[i]).size();
  });
  std::vector<size_t> order(all.size());
  for (size_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t first, size_t second) { return sizes[first] < sizes[second]; });
  std::vector<dense_options> likely;
  for (const size_t i : order) {
    const bool is_seen = std::any_of(likely.begin(), likely.end(), [&](const dense_options& other) {
      return other.target.machine == all[i].target.machine;
    });
    if (!is_seen && sizes[i] * 2 < sizes[order.front()] * 3) {
      likely.push_back(all[i]);
    }
  }
  return likely;
}

// The base that the aligned images tell may be better than the one that was guessed first.
void search::try_other_base(candidate& best) const {
  candidate other = best;
  other.options.target.base = likely_base(images_, best.plan.copies, best.options.target);
  if (other.options.target.base == best.options.target.base) {
    return;
  }
  write(other);
  if (is_smaller(other, best)) {
    best = std::move(other);
  }
}

void search::try_without_differences(candidate& best) const {
  candidate other = best;
  other.options.differences = false;
  write(other);
  if (is_smaller(other, best)) {
    best = std::move(other);
  }
}

// Without matches into the new image the device can compute it before it writes any: taken where it
// costs nothing.
void search::try_without_new(candidate& best) const {
  candidate other = best;
  other.options.reads_new = false;
  other.plan = plan_of(best.stretches, false);
  write(other);
  if (!is_smaller(best, other)) {
    best = std::move(other);
  }
}

candidate search::rounds(const dense_options& options, const effort_settings& settings) const {
  const difference_seeds seeds(images_.old_image, options.target.data_order);
  candidate best;
  dense_options current = options;
  dense_knowledge knowledge;
  std::vector<int64_t> kept_shifts;
  for (uint32_t round = 0; round < settings.rounds; ++round) {
    std::vector<candidate> made(settings.tries.size());
    run_tasks(made.size(), request_.jobs, [&](size_t i) {
      made[i].options = current;
      made[i].stretches = align(current, seeds, knowledge, settings.tries[i], kept_shifts);
      made[i].plan = plan_of(made[i].stretches, current.reads_new);
      write(made[i]);
    });
    candidate& winner = *std::min_element(made.begin(), made.end(), is_smaller);
    if (!request_.base_is_known) {
      try_other_base(winner);
      current = winner.options;
    }
    knowledge.map = winner.plan.map;
    knowledge.prices = difference_prices(images_, current.target.data_order, winner.plan.copies);
    kept_shifts = widest_shifts(winner.stretches);
    if (is_smaller(winner, best)) {
      best = std::move(winner);
    }
  }
  return best;
}

dense_update search::run() {
  const std::vector<shift_stretch> stretches = first_alignment();
  std::vector<dense_options> likely;
  if (!request_.target) {
    likely = likely_options(stretches);
  } else {
    likely.push_back(options_for(*request_.target));
    if (!request_.base_is_known) {
      likely[0].target.base =
          likely_base(images_, reach_.readable_copies(stretches), *request_.target);
    }
  }
  const effort_settings settings = settings_for(request_.effort, images_.new_image.size());
  candidate best;
  for (const dense_options& options : likely) {
    candidate made = rounds(options, settings);
    if (is_smaller(made, best)) {
      best = std::move(made);
    }
  }
  try_without_differences(best);
  try_without_new(best);
  dense_update update;
  update.kept = pages_to_keep(best.plan, reach_.pages());
  update.payload = std::move(best.payload);
  update.options = best.options;
  update.copies = static_cast<uint32_t>(best.plan.copies.size());
  update.map_entries = static_cast<uint32_t>(best.plan.map.size());
  return update;
}

}  // namespace

dense_update search_dense(const dense_request& request) {
  dense_update update = search(request).run();
  const std::string fault =
      fault_of_dense(request.images, update.payload, update.kept, request.geometry);
  if (!fault.empty()) {
    throw std::logic_error("a dense update is wrong: " + fault);
  }
  return update;
}

}  // namespace kelvane
