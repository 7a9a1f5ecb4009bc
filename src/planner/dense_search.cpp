// SPDX-License-Identifier: Apache-2.0
#include "dense_search.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "dense_base.h"
#include "dense_costs.h"
#include "dense_machines.h"
#include "dense_proof.h"
#include "dense_reach.h"
#include "dense_tries.h"
#include "dense_writer.h"
#include "parallel_tasks.h"

namespace kelvane {
namespace {

constexpr uint32_t kLeastEntry = 12;  // bytes of a copy that goes into the map
constexpr uint32_t kFirstBlockBits = 60;
constexpr size_t kLargeImage = 1U << 20U;
// Where more than an eighth of an image as large as this has to be sent, more tries take a minute
// for a megabyte and gain half a percent.
constexpr size_t kImageOfFewTries = 1U << 18U;
constexpr size_t kMuchNew = 8;
constexpr size_t kLittleGain = 64;     // the part of an image below which a second round is no use
constexpr size_t kFewMachines = 3;     // that are tried on images far apart
constexpr size_t kFewestMachines = 2;  // that stay behind the second round
constexpr size_t kSlack = 32;          // bytes in which small payloads may differ by chance
constexpr size_t kAlignedBytes = 100;  // that an alignment takes for each copy

struct try_settings {
  uint32_t block_bits = 50;
  uint32_t stored_word_bits = 18;
};

struct effort_settings {
  uint32_t rounds = 1;
  // So many rounds make the first try alone: they find the machine, the base and a map to predict
  // with, for which the settings of the alignment matter little.
  uint32_t single_rounds = 0;
  std::vector<try_settings> tries;
  std::span<const try_settings> tries_of(uint32_t round) const {
    const std::span<const try_settings> all = tries;
    return round < single_rounds ? all.first(1) : all;
  }
};

// Many tries in the last round alone take a fourth of the time that they take in each, and payloads
// differ by half a percent either way.
effort_settings settings_for(dense_effort effort, size_t new_size, bool is_far_apart) {
  // The first round has no map to predict with, so one alone may miss what moved.
  if (effort == dense_effort::quick ||
      (effort == dense_effort::normal && is_far_apart && new_size >= kLargeImage)) {
    return {2, 0, {{}}};
  }
  if (effort == dense_effort::best) {
    effort_settings settings = {3, 1, {{}}};
    for (const uint32_t stored_word_bits : {16U, 18U, 22U}) {
      settings.tries.push_back({40, stored_word_bits});
      settings.tries.push_back({60, stored_word_bits});
    }
    settings.tries.push_back({50, 16});
    settings.tries.push_back({50, 22});
    return settings;
  }
  return {3, 2, {{}, {40, 16}, {60, 16}, {40, 22}, {60, 22}}};
}

// How many machines may go into the round behind this one. The first one, without a map, shows too
// little to choose by.
size_t most_machines_behind(uint32_t round) {
  return round == 0 ? size_t{KELVANE_DENSE_MACHINES} : kFewestMachines;
}

// From `round` on, if no more machines fall behind than have to.
uint32_t most_tries_from(const effort_settings& settings, uint32_t round, size_t machines) {
  size_t count = 0;
  for (; round < settings.rounds; ++round) {
    count += settings.tries_of(round).size() * machines;
    machines = std::min(machines, most_machines_behind(round));
  }
  return static_cast<uint32_t>(count);
}

// A machine that may be the right one, and what the rounds so far have told of it.
struct contender {
  dense_options options;
  dense_knowledge knowledge;
  std::vector<int64_t> kept_shifts;
  dense_candidate best;
};

// Whether few strings of the new image are found in the old one. Then it does not pay to look for
// more at every place, which takes most of the time.
bool are_far_apart(const plan_images& images, const string_seeds& seeds) {
  constexpr size_t kStep = 64;  // from one string to the next
  size_t looked_for = 0;
  size_t found = 0;
  for (size_t at = 0; at + kSeedBytes + 4 <= images.new_image.size(); at += kStep) {
    const auto is_there = [&](const uint8_t* bytes) {
      const auto places = seeds.places(bytes);
      return std::any_of(places.begin(), places.end(), [&](uint32_t place) {
        return std::equal(bytes, bytes + kSeedBytes, images.old_image.data() + place);
      });
    };
    const uint8_t* const bytes = &images.new_image[at];
    if (std::equal(bytes, bytes + kSeedBytes, bytes + 1)) {
      continue;  // one byte repeated has no seed
    }
    ++looked_for;
    // Seeds stand at multiples of 4 of the old image.
    found += is_there(bytes) || is_there(bytes + 1) || is_there(bytes + 2) || is_there(bytes + 3);
  }
  return found * 4 < looked_for;
}

class search {
 public:
  explicit search(const dense_request& request)
      : request_(request),
        images_(request.images),
        checksums_(checksums_of(images_)),
        reach_(images_, request.geometry),
        strings_(images_.old_image),
        is_far_apart_(are_far_apart(images_, *strings_)) {}

  dense_update run();

 private:
  static uint32_t size_of(std::span<const uint8_t> image) {
    return static_cast<uint32_t>(image.size());
  }
  size_t machines_by_size(size_t all, bool is_told) const;
  bool takes_long() const { return is_far_apart_ && images_.new_image.size() >= kLargeImage; }
  dense_options options_for(const dense_target& target) const {
    return {target, request_.model, true, request_.reads_new};
  }
  // The seeds for the order have been made.
  std::vector<shift_stretch> align(const dense_options& options, const dense_knowledge& knowledge,
                                   const try_settings& settings,
                                   std::span<const int64_t> kept_shifts) const;
  // All but the items.
  dense_plan plan_of(std::span<const shift_stretch> stretches) const;
  std::vector<shift_stretch> first_alignment();
  std::vector<dense_options> likely_options(std::span<const shift_stretch> stretches) const;
  void next_round(std::vector<contender>& contenders, std::span<const try_settings> tries);
  void drop_behind(std::vector<contender>& contenders, uint32_t round) const;
  void note_try(size_t size);
  void take_winner(contender& contender, dense_candidate& winner) const;
  static size_t index_of(ByteOrder order) { return order == ByteOrder::kBig ? 1 : 0; }
  void make_seeds(ByteOrder order);
  void drop_seeds();
  size_t tries_at_once() const;
  dense_measuring measuring() {
    return {images_,       reach_,
            is_far_apart_, request_.base_is_known,
            request_.jobs, [this](size_t size) { note_try(size); }};
  }

  const dense_request& request_;
  const plan_images& images_;
  image_checksums checksums_;
  old_reach reach_;
  std::optional<string_seeds> strings_;  // while images are aligned
  bool is_far_apart_;
  std::array<std::optional<difference_seeds>, 2> differences_;  // by order, those asked for
  size_t most_copies_ = 0;                                      // of a plan so far
  plan_progress progress_;
};

std::vector<shift_stretch> search::align(const dense_options& options,
                                         const dense_knowledge& knowledge,
                                         const try_settings& settings,
                                         std::span<const int64_t> kept_shifts) const {
  dense_costs costs(images_, options, reach_, knowledge);
  alignment_input input;
  input.images = images_;
  input.order = options.target.data_order;
  input.strings = &*strings_;
  input.differences = &*differences_[index_of(input.order)];
  input.prices = &knowledge.prices;
  input.pricing = &costs;
  alignment_settings alignment;
  alignment.block_bits = settings.block_bits;
  alignment.stored_word_bits = settings.stored_word_bits;
  alignment.proposes_on_grid = !is_far_apart_;
  alignment.enter_stored_bits = 20;
  alignment.enter_zero_bits = settings.block_bits;
  alignment.kept_shifts.assign(kept_shifts.begin(), kept_shifts.end());
  return align_images(input, alignment);
}

dense_plan search::plan_of(std::span<const shift_stretch> stretches) const {
  dense_plan plan;
  plan.copies = reach_.readable_copies(stretches);
  std::vector<dense_copy> longest;
  for (const dense_copy& copy : plan.copies) {
    if (copy.length >= kLeastEntry) {
      longest.push_back(copy);
    }
  }
  const size_t count = std::min<size_t>(longest.size(), std::min(request_.map_limit, 0xFFFFU));
  std::nth_element(longest.begin(), longest.begin() + static_cast<ptrdiff_t>(count), longest.end(),
                   [](const dense_copy& first, const dense_copy& second) {
                     return first.length != second.length ? first.length > second.length
                                                          : first.target < second.target;
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
  make_seeds(plain.target.data_order);
  const try_settings settings = {kFirstBlockBits, 16};
  old_reach restricted = reach_;
  reach_ = old_reach(images_, anything);
  std::vector<shift_stretch> stretches = align(plain, {}, settings, {});
  reach_ = restricted;
  if (request_.geometry.ring_pages == 0) {
    return stretches;
  }
  reach_.choose_kept(stretches);
  return align(plain, {}, settings, {});
}

// How many machines are tried for the sizes of their copies: none on large images far apart, where
// each takes long, if their code tells the machine.
size_t search::machines_by_size(size_t all, bool is_told) const {
  if (takes_long()) {
    return is_told ? 0 : 1;
  }
  return is_far_apart_ ? kFewMachines : all;
}

// The best of each machine whose copies do not take half as much again as the smallest, and that
// of the one whose code the image holds: where little was found, copies tell machines badly apart.
std::vector<dense_options> search::likely_options(std::span<const shift_stretch> stretches) const {
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
  const dense_plan plan = plan_of(stretches);
  std::vector<size_t> sizes(all.size());
  run_tasks(all.size(), request_.jobs, [&](size_t i) {
    all[i].target.base = likely_base(images_, plan.copies, all[i].target);
    sizes[i] = estimate_dense(images_, plan, all[i]);
  });
  std::vector<size_t> order(all.size());
  for (size_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t first, size_t second) { return sizes[first] < sizes[second]; });
  const std::optional<uint8_t> machine = machine_by_returns(images_.new_image);
  const size_t by_size = machines_by_size(all.size(), machine.has_value());
  std::vector<dense_options> likely;
  for (const size_t i : order) {
    const bool is_seen = std::any_of(likely.begin(), likely.end(), [&](const dense_options& other) {
      return other.target.machine == all[i].target.machine;
    });
    const bool is_near =
        likely.size() < by_size && sizes[i] * 2 < sizes[order.front()] * 3 + kSlack;
    if (!is_seen && (is_near || all[i].target.machine == machine)) {
      likely.push_back(all[i]);
    }
  }
  return likely;
}

void search::make_seeds(ByteOrder order) {
  if (!strings_) {
    strings_.emplace(images_.old_image);
  }
  std::optional<difference_seeds>& seeds = differences_[index_of(order)];
  if (!seeds) {
    seeds.emplace(images_.old_image, order);
  }
}

// They take more memory than the images, and so does the index that is needed next.
void search::drop_seeds() {
  strings_.reset();
  differences_ = {};
}

// So many plans may wait for being measured.
size_t search::tries_at_once() const {
  return (images_.old_image.size() + images_.new_image.size()) / 2 / sizeof(dense_copy) /
             (most_copies_ + 1) +
         1;
}

// All tries of all contenders share the threads: first they are aligned, then measured, as many at
// once as there is memory for.
void search::next_round(std::vector<contender>& contenders, std::span<const try_settings> tries) {
  const size_t count = contenders.size() * tries.size();
  std::vector<dense_candidate> winners(contenders.size());
  std::vector<dense_candidate> made;
  for (size_t first = 0; first < count; first += made.size()) {
    made.clear();
    made.resize(std::min(count - first, tries_at_once()));
    for (const contender& each : contenders) {
      make_seeds(each.options.target.data_order);
    }
    const size_t jobs = jobs_within(images_, kAlignedBytes * (most_copies_ + 1), request_.jobs);
    run_tasks(made.size(), jobs, [&](size_t i) {
      const contender& from = contenders[(first + i) / tries.size()];
      const std::vector<shift_stretch> stretches =
          align(from.options, from.knowledge, tries[(first + i) % tries.size()], from.kept_shifts);
      made[i].options = from.options;
      made[i].plan = plan_of(stretches);
      made[i].widest_shifts = widest_shifts(stretches);
    });
    drop_seeds();
    measure_all(measuring(), made);
    for (size_t i = 0; i < made.size(); ++i) {
      most_copies_ = std::max(most_copies_, made[i].plan.copies.size());
      dense_candidate& winner = winners[(first + i) / tries.size()];
      if (is_smaller(made[i], winner)) {
        winner = std::move(made[i]);
      }
    }
  }
  made = std::vector<dense_candidate>();
  for (size_t i = 0; i < contenders.size(); ++i) {
    take_winner(contenders[i], winners[i]);
  }
}

// Puts the best one first, among equals the one that needs no code for a machine, and leaves out
// who is far behind it. What is 5 % behind, and some bytes, does not catch up, but that the first
// round, without a map, shows little.
void search::drop_behind(std::vector<contender>& contenders, uint32_t round) const {
  std::stable_sort(contenders.begin(), contenders.end(),
                   [](const contender& first, const contender& second) {
                     const auto rank = [](const contender& each) {
                       const bool has_machine = each.options.target.machine != KELVANE_DENSE_NONE;
                       return std::pair(each.best.size, has_machine);
                     };
                     return rank(first) < rank(second);
                   });
  const size_t most = most_machines_behind(round);
  const size_t percent = round == 0 && !is_far_apart_ ? 150 : 105;
  const size_t limit = contenders.front().best.size * percent / 100 + kSlack;
  while (contenders.size() > most || contenders.back().best.size > limit) {
    contenders.pop_back();
  }
}

void search::note_try(size_t size) {
  progress_.best_size = progress_.tries == 0 ? size : std::min<uint64_t>(progress_.best_size, size);
  ++progress_.tries;
  if (request_.report) {
    request_.report(progress_);
  }
}

void search::take_winner(contender& contender, dense_candidate& winner) const {
  contender.options = winner.options;
  contender.knowledge.map = winner.plan.map;
  contender.knowledge.prices =
      difference_prices(images_, winner.options.target.data_order, winner.plan.copies);
  contender.kept_shifts = winner.widest_shifts;
  if (is_smaller(winner, contender.best)) {
    contender.best = std::move(winner);
  }
}

dense_update search::run() {
  std::vector<shift_stretch> stretches = first_alignment();
  drop_seeds();
  most_copies_ = stretches.size();
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
  stretches = std::vector<shift_stretch>();
  const size_t new_size = images_.new_image.size();
  effort_settings settings = settings_for(request_.effort, new_size, is_far_apart_);
  std::vector<contender> contenders;
  contenders.reserve(likely.size());
  for (const dense_options& options : likely) {
    contenders.push_back({options, {}, {}, {}});
  }
  for (uint32_t round = 0; round < settings.rounds; ++round) {
    const std::span<const try_settings> tries = settings.tries_of(round);
    progress_.most_tries = progress_.tries + most_tries_from(settings, round, contenders.size());
    next_round(contenders, tries);
    drop_behind(contenders, round);
    if (is_quick_enough(request_.effort, new_size, contenders.front().best.size)) {
      settings = settings_for(dense_effort::quick, new_size, is_far_apart_);
    }
    if (takes_long() && contenders.front().best.size + new_size / kLittleGain > new_size) {
      break;
    }
  }
  dense_candidate best = std::move(contenders.front().best);
  contenders.clear();
  finish_plan(measuring(), best);
  dense_update update;
  update.kept = pages_to_keep(best.plan, reach_.pages());
  update.payload = write_dense(images_, checksums_, best.plan, best.options, best.size);
  if (update.payload.size() != best.size) {
    throw std::logic_error("a dense update has another size than was measured");
  }
  update.options = best.options;
  update.copies = static_cast<uint32_t>(best.plan.copies.size());
  update.map_entries = static_cast<uint32_t>(best.plan.map.size());
  return update;
}

}  // namespace

bool is_quick_enough(dense_effort effort, size_t new_size, size_t quick_size) {
  return effort == dense_effort::quick ||
         (effort == dense_effort::normal && new_size >= kImageOfFewTries &&
          quick_size * kMuchNew > new_size);
}

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
