// Plans of random pairs, carried out by the applier.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "image_pair.h"
#include "plan_patch.h"
#include "plan_search.h"
#include "sectioned_pair.h"

namespace kelvane {
namespace {

uint32_t pairs_of_a_kind() {
  const char* const wanted = std::getenv("KELVANE_ROUNDS");
  return wanted != nullptr ? static_cast<uint32_t>(std::atoi(wanted)) : KELVANE_PAIRS_OF_A_KIND;
}

plan_request any_request(const ImagePair& pair, Random& random) {
  static constexpr patch_profile kProfiles[] = {patch_profile::any, patch_profile::wide,
                                                patch_profile::libapply};
  static constexpr plan_effort kEfforts[] = {plan_effort::quick, plan_effort::quick,
                                             plan_effort::normal, plan_effort::best};
  plan_request request;
  request.images = {pair.old_image, pair.new_image};
  const patch_profile profile = kProfiles[random.below(3)];
  const auto format = static_cast<uint8_t>(random.below(2));
  request.rules = rules_for(profile, format);
  if (profile == patch_profile::libapply && random.below(2) == 0) {
    request.narrower_rules = rules_for(patch_profile::wide, format);
  }
  request.effort = kEfforts[random.below(4)];
  if (random.below(2) == 0) {
    request.order = byte_order_of(random.below(2) == 0);
  }
  return request;
}

// What a plan has to keep to under its rules, beside being right.
std::string broken_habit(const plan_request& request, const plan& planned) {
  if (planned.classes.size() > request.rules.class_limit) {
    return "too many classes";
  }
  if (!request.rules.compression && (!planned.packed.empty() || !planned.fills.empty())) {
    return "compression or fills";
  }
  const size_t old_size = request.images.old_image.size();
  const size_t new_size = request.images.new_image.size();
  for (const planned_store& store : planned.stores) {
    if (store.kind == store_kind::plain && store.size < 2 && !request.rules.short_stores) {
      return "a short store";
    }
  }
  for (const moved_block& block : planned.moves) {
    const size_t end = size_t{block.destination} + block.length;
    if (end > new_size && end > old_size) {
      return "a block outside";
    }
  }
  return {};
}

class PlanRoundTripTest : public testing::TestWithParam<PairKind> {};

TEST_P(PlanRoundTripTest, APatchCostsWhatThePlanSaysAndMakesTheNewImage) {
  for (uint32_t seed = 1; seed <= pairs_of_a_kind(); ++seed) {
    Random random(seed * 64 + static_cast<uint32_t>(GetParam()));
    const ImagePair pair = make_pair_of(GetParam(), random);
    const plan_request request = any_request(pair, random);
    const found_plan found = search_plan(request);
    const std::vector<uint8_t> patch = write_plan(request.images, found.planned, request.rules);
    ASSERT_EQ(patch.size(), found.cost.total()) << "seed " << seed;
    ASSERT_EQ(fault_of_patch(request.images, patch, found.planned.order), "") << "seed " << seed;
    ASSERT_EQ(broken_habit(request, found.planned), "") << "seed " << seed;
  }
}

// The same for target memory, which the patch is carried out in by addresses.
TEST_P(PlanRoundTripTest, APatchOfMemoryKeepsToTheSections) {
  for (uint32_t seed = 1; seed <= pairs_of_a_kind(); ++seed) {
    Random random(seed * 64 + 32 + static_cast<uint32_t>(GetParam()));
    const SectionedPair pair = make_sections(make_pair_of(GetParam(), random), random);
    plan_request request = any_request(pair.bytes, random);
    laid_out_memory memory(pair.sections, pair.spare);
    memory.target.header = {1, 2, 3, 4, 5, 6};
    request.images = memory.images();
    request.jobs = 1 + random.below(3);
    const found_plan found = search_plan(request);
    const std::vector<uint8_t> patch = write_plan(request.images, found.planned, request.rules);
    ASSERT_EQ(patch.size(), found.cost.total()) << "seed " << seed;
    ASSERT_EQ(fault_of_patch(request.images, patch, found.planned.order), "") << "seed " << seed;
    ASSERT_EQ(fault_on_target(pair, patch, found.planned.order == ByteOrder::kBig), "")
        << "seed " << seed;
    ASSERT_EQ(broken_habit(request, found.planned), "") << "seed " << seed;
    request.jobs = 1;
    ASSERT_EQ(write_plan(request.images, search_plan(request).planned, request.rules), patch)
        << "seed " << seed;
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, PlanRoundTripTest, testing::ValuesIn(kAllPairKinds),
                         [](const auto& kind) { return name_of(kind.param); });

// An image of code, one half of which has its pieces in another order, with words that moved.
ImagePair shuffled_pair(uint32_t seed) {
  Random random(seed);
  ImagePair pair;
  std::vector<Bytes> pieces;
  for (int i = 0; i < 60; ++i) {
    pieces.push_back(code_like(200 + random.below(900), random));
  }
  for (const Bytes& piece : pieces) {
    pair.old_image.insert(pair.old_image.end(), piece.begin(), piece.end());
  }
  for (size_t i = 20; i < 40; ++i) {
    std::swap(pieces[i], pieces[20 + random.below(20)]);
  }
  insert_piece(pieces[5], random);
  for (const Bytes& piece : pieces) {
    pair.new_image.insert(pair.new_image.end(), piece.begin(), piece.end());
  }
  return pair;
}

TEST(PlanSearchTest, TheNumberOfJobsChangesNoByte) {
  const ImagePair pair = shuffled_pair(7);
  plan_request request;
  request.images = {pair.old_image, pair.new_image};
  request.rules = rules_for(patch_profile::wide, 1);
  const found_plan alone = search_plan(request);
  const std::vector<uint8_t> patch = write_plan(request.images, alone.planned, request.rules);
  EXPECT_EQ(fault_of_patch(request.images, patch, alone.planned.order), "");
  EXPECT_LT(patch.size(), pair.new_image.size() / 8) << "the pieces are moved, not stored";
  for (const uint32_t jobs : {2U, 3U, 8U}) {
    request.jobs = jobs;
    const found_plan found = search_plan(request);
    EXPECT_EQ(write_plan(request.images, found.planned, request.rules), patch) << jobs;
  }
}

TEST(PlanSearchTest, ReportsEachTryAndGivesWhatItHasWhenTheTimeIsOver) {
  const ImagePair pair = shuffled_pair(8);
  plan_request request;
  request.images = {pair.old_image, pair.new_image};
  request.rules = rules_for(patch_profile::wide, 1);
  std::vector<uint32_t> tries;
  uint64_t best = UINT64_MAX;
  request.report = [&](const plan_progress& progress) {
    tries.push_back(progress.tries);
    EXPECT_LE(progress.best_size, best);
    best = progress.best_size;
  };
  const found_plan whole = search_plan(request);
  // The third round would be given what the second was given.
  EXPECT_EQ(tries, (std::vector<uint32_t>{1, 2, 3, 4}));
  EXPECT_EQ(whole.cost.total(), best);
  EXPECT_FALSE(whole.was_stopped);

  request.report = nullptr;
  request.is_over = [] { return true; };
  const found_plan stopped = search_plan(request);
  EXPECT_TRUE(stopped.was_stopped);
  EXPECT_EQ(stopped.tries, 1U);
  const std::vector<uint8_t> patch = write_plan(request.images, stopped.planned, request.rules);
  EXPECT_EQ(fault_of_patch(request.images, patch, stopped.planned.order), "");
}

TEST(PlanSearchTest, FindsTheOrderOfTheWords) {
  for (const bool big_endian : {false, true}) {
    Random random(3);
    ImagePair pair;
    for (uint32_t i = 0; i < 2000; ++i) {
      const uint32_t word = 0x10000000 + random.below(0x40000);
      append_word(pair.old_image, word, big_endian);
      append_word(pair.new_image, word + (i % 3 == 0 ? 0x98 : 0), big_endian);
    }
    plan_request request;
    request.images = {pair.old_image, pair.new_image};
    request.rules = rules_for(patch_profile::any, 1);
    const found_plan found = search_plan(request);
    EXPECT_EQ(found.planned.order, byte_order_of(big_endian));
    EXPECT_EQ(found.planned.classes.size(), 1U);
    EXPECT_TRUE(found.planned.stores.empty());
  }
}

TEST(PlanSearchTest, MakesNoMoreOfWideRulesOrMoreEffort) {
  for (uint32_t seed = 1; seed <= 16; ++seed) {
    Random random(seed);
    const ImagePair pair =
        seed % 16 == 0 ? shuffled_pair(seed) : make_pair_of(PairKind::kMixed, random);
    plan_request request;
    request.images = {pair.old_image, pair.new_image};
    request.rules = rules_for(patch_profile::wide, 1);
    uint64_t cost = UINT64_MAX;
    for (const plan_effort effort : {plan_effort::quick, plan_effort::normal, plan_effort::best}) {
      request.effort = effort;
      const uint64_t now = search_plan(request).cost.total();
      EXPECT_LE(now, cost) << "seed " << seed;
      cost = now;
    }
    request.narrower_rules = request.rules;
    request.rules = rules_for(patch_profile::libapply, 1);
    EXPECT_LE(search_plan(request).cost.total(), cost) << "seed " << seed;
  }
}

TEST(PlanSearchTest, GoesOnToTheNextBestPlanThatHolds) {
  const ImagePair pair = shuffled_pair(10);
  plan_request request;
  request.images = {pair.old_image, pair.new_image};
  request.rules = rules_for(patch_profile::wide, 1);
  std::vector<uint64_t> costs;  // of the plans asked about
  size_t faulty = 0;
  request.fault_of = [&](const plan& planned) {
    costs.push_back(cost_of_plan(request.images, planned, request.rules).total());
    plan broken = planned;
    if (costs.size() <= faulty) {
      broken.moves.pop_back();
    }
    return fault_of_patch(request.images, write_plan(request.images, broken, request.rules),
                          broken.order);
  };
  for (faulty = 0; faulty <= 3; ++faulty) {
    costs.clear();
    const found_plan found = search_plan(request);
    EXPECT_EQ(costs.size(), std::min<size_t>(faulty + 1, 3));
    EXPECT_TRUE(std::is_sorted(costs.begin(), costs.end()));
    EXPECT_EQ(found.fault.empty(), faulty < 3);
    EXPECT_EQ(found.cost.total(), faulty < 3 ? costs.back() : costs.front());
  }
}

TEST(PlanCheckTest, CatchesAFaultInAPlan) {
  const ImagePair pair = shuffled_pair(9);
  plan_request request;
  request.images = {pair.old_image, pair.new_image};
  request.rules = rules_for(patch_profile::wide, 1);
  const found_plan found = search_plan(request);
  const auto fault_of = [&](const plan& planned) {
    return fault_of_patch(request.images, write_plan(request.images, planned, request.rules),
                          planned.order);
  };
  ASSERT_EQ(fault_of(found.planned), "");

  plan missing_move = found.planned;
  missing_move.moves.pop_back();
  EXPECT_NE(fault_of(missing_move).find("its result differs from the new image at offset"),
            std::string::npos);
  plan wrong_order = found.planned;
  std::reverse(wrong_order.moves.begin(), wrong_order.moves.end());
  EXPECT_NE(fault_of(wrong_order), "");
  plan outside = found.planned;
  outside.fills.push_back({static_cast<uint32_t>(pair.new_image.size() + 100), 3, 0});
  EXPECT_NE(fault_of(outside), "");
}

// Two pieces of a section change places, with nothing free but the swap region.
TEST(PlanOfMemoryTest, ParksInTheSwapRegionAndNoWhereElse) {
  Random random(5);
  const Bytes first = random.bytes(2000);
  const Bytes second = random.bytes(2000);
  SectionedPair pair = {{joined({first, second}), joined({second, first})}, {}, {}, {}};
  pair.sections = {{{0x8000, pair.bytes.old_image}, {0x8000, pair.bytes.new_image}}};
  plan_request request;
  request.rules = rules_for(patch_profile::any, 0);
  request.order = ByteOrder::kBig;
  for (const uint32_t spare : {0U, 2000U}) {
    pair.spare = {0x20000000, spare};
    const laid_out_memory memory(pair.sections, pair.spare);
    request.images = memory.images();
    const found_plan found = search_plan(request);
    const std::vector<uint8_t> patch = write_plan(request.images, found.planned, request.rules);
    EXPECT_EQ(fault_on_target(pair, patch, true), "");
    EXPECT_EQ(patch.size() < 60, spare != 0) << patch.size();

    // The check sees what goes wrong.
    const auto fault_of = [&](const plan& planned) {
      return fault_of_patch(request.images, write_plan(request.images, planned, request.rules),
                            ByteOrder::kBig);
    };
    plan missing = found.planned;
    missing.moves.pop_back();
    EXPECT_EQ(fault_of(missing), std::string("its result differs from the new image at address ") +
                                     (spare != 0 ? "0x00008000" : "0x000087d0"));
    EXPECT_EQ(fault_of_patch(request.images, patch, ByteOrder::kLittle).empty(), false);
    laid_out_memory other = memory;
    other.old_image[10] ^= 1;
    request.images = other.images();
    EXPECT_NE(fault_of(found.planned), "");
  }
}

// Without compression, for a big-endian target.
plan plan_of(std::span<const memory_section_pair> sections) {
  const laid_out_memory memory(sections, {});
  plan_request request;
  request.images = memory.images();
  request.rules = rules_for(patch_profile::wide, 0);
  request.order = ByteOrder::kBig;
  return search_plan(request).planned;
}

// A section that ends inside a word ends with one store.
TEST(PlanOfMemoryTest, StoresTheEndOfASectionWhole) {
  const Bytes old_bytes(70, 0x10);
  Random random(8);
  const Bytes new_bytes = random.bytes(70);
  const std::vector<memory_section_pair> sections = {{{0x1001, old_bytes}, {0x1001, new_bytes}}};
  const plan planned = plan_of(sections);
  ASSERT_EQ(planned.stores.size(), 1U);
  EXPECT_EQ(planned.stores[0].size, 70U);
}

// A word that no section has whole is stored by its bytes, and so is one whose sections touch.
TEST(PlanOfMemoryTest, IncrementsWholeWordsOnly) {
  const Bytes old_bytes(64, 0x10);
  Bytes new_bytes = old_bytes;
  for (size_t i = 3; i < new_bytes.size(); i += 4) {
    ++new_bytes[i];
  }
  const std::span<const uint8_t> before(old_bytes);
  const std::span<const uint8_t> after(new_bytes);
  for (const uint32_t gap : {0U, 1U}) {
    const uint32_t next = 0x1000 + 34 + gap;
    const std::vector<memory_section_pair> sections = {
        {{0x1000, before.first(34)}, {0x1000, after.first(34)}},
        {{next, before.subspan(34 + gap)}, {next, after.subspan(34 + gap)}}};
    const plan planned = plan_of(sections);
    EXPECT_EQ(planned.words.size(), 16 - gap);
    EXPECT_EQ(planned.stores.size(), gap);
  }
}

// Zeros that stay where they are take no room, however many they are.
TEST(PlanOfMemoryTest, KeepsOnlyTheEndsOfZerosOfBothImages) {
  Random random(7);
  const Bytes code = random.bytes(3000);
  const Bytes zeros(1000000, 0);
  const std::span<const uint8_t> all(zeros);
  std::vector<memory_section_pair> sections = {
      {{0x8000, code}, {0x8000, code}},
      {{0x100000, all.first(900000), true}, {0x100040, all, true}}};
  const laid_out_memory memory(sections, {});
  EXPECT_EQ(memory.target.still_zeros.size(), 1U);
  const uint64_t ends = 2 * code.size() + 100000 + 0x80;
  EXPECT_LT(memory.target.map.size(), 3000 + ends + 3 * 520);
  plan_request request;
  request.images = memory.images();
  request.rules = rules_for(patch_profile::wide, 1);
  request.order = ByteOrder::kLittle;
  const found_plan found = search_plan(request);
  const auto fault_of = [&](const plan& planned) {
    return fault_of_patch(request.images, write_plan(request.images, planned, request.rules),
                          ByteOrder::kLittle);
  };
  EXPECT_EQ(fault_of(found.planned), "");
  EXPECT_LT(found.cost.total(), 140U);
  plan outside = found.planned;
  outside.fills.push_back({memory.target.map.place_of(0x100040 + 3000), 4, 0});
  EXPECT_NE(fault_of(outside), "") << "it writes where nothing is to change";

  const memory_range swap = {0x120000, 0x1000};
  EXPECT_TRUE(laid_out_memory(sections, swap).target.still_zeros.empty());
  EXPECT_LT(laid_out_memory(sections, {0x300000, 0x1000}).target.map.size(), 200000U);
  sections[1].old_section.is_zero = false;
  EXPECT_GT(laid_out_memory(sections, {}).target.map.size(), 1000000U);
}

TEST(LinearMapTest, KeepsNeighboursWordsAndSmallGaps) {
  Random random(6);
  for (int round = 0; round < 200; ++round) {
    std::vector<memory_range> ranges[2];
    for (uint32_t at = random.below(9), i = 0; i < 12; ++i) {
      const uint32_t size = random.below(90);
      ranges[random.below(2)].push_back({at, size});
      at += size + (random.below(3) == 0 ? random.below(3000) : random.below(4));
    }
    const linear_map map(ranges[0], ranges[1], {});
    ASSERT_LE(linear_map::row_size(ranges[0], ranges[1], {}), 12 * (90 + 516));
    std::vector<bool> of_old(map.size() + 70);
    uint32_t last = 0;
    uint32_t last_place = 0;
    for (const memory_range& range : map.memory()) {
      for (uint32_t address = range.address; address < range.address + range.size; ++address) {
        const uint32_t place = map.place_of(address);
        ASSERT_EQ(map.address_of(place), address);
        ASSERT_EQ(place % 4, address % 4);
        const uint32_t gap = last == 0 ? 0 : address - last;
        ASSERT_EQ(last == 0 || (gap <= 512 ? place - last_place == gap : place - last_place >= 512),
                  true);
        last = address;
        last_place = place;
      }
    }
    for (const memory_range& range : ranges[0]) {
      for (uint32_t i = 0; i < range.size; ++i) {
        of_old[map.place_of(range.address + i)] = true;
      }
    }
    for (uint32_t place = 0; place < map.size(); ++place) {
      const uint32_t count = 1 + random.below(63);
      const bool all = std::all_of(of_old.begin() + place, of_old.begin() + place + count,
                                   [](bool is) { return is; });
      ASSERT_EQ(map.old_bytes().has(place, count), all && place + count <= map.size());
      ASSERT_EQ(map.old_bytes().has_all(place, place + count), all);
    }
  }
}

}  // namespace
}  // namespace kelvane
