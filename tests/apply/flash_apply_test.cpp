// Updates of a device in a model of flash, with power cuts and with bundles that are damaged.
#include "flash_apply.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "flash_pairs.h"
#include "update_simulation.h"

namespace kelvane {
namespace {

using Order = PatchBuilder::Order;

// What moves up by half a page, with pointers that follow.
FlashPair insert_pair(uint32_t page_size) {
  std::minstd_rand random(3);
  const std::string old_image = random_bytes(random, 5 * page_size + 60);
  const uint32_t at = page_size + 24;
  const auto size = static_cast<uint32_t>(old_image.size());
  PatchBuilder commands(Order::kLittle);
  commands.move({{at, size - at, page_size / 2}})
      .substitute(1, {{at, std::string(page_size / 2, 'n')}});
  commands.increments({{64, {0, 40, page_size * 4}}, {65, {page_size * 2}}});
  return pair_by(commands, old_image, size + page_size / 2);
}

// Blocks that change places over many pages, so that some pages have to be kept.
FlashPair reorder_pair(uint32_t page_size) {
  std::minstd_rand random(4);
  const std::string old_image = random_bytes(random, 8 * page_size);
  PatchBuilder commands(Order::kBig);
  // The swap by way of what lies behind the image.
  commands.move({{0, page_size * 2, page_size * 8},
                 {page_size * 5 + 8, page_size * 2, 0U - page_size * 5 - 8},
                 {page_size * 8, page_size * 2, 0U - page_size * 3}});
  commands.fill({{page_size * 7, 20, '-'}});
  return pair_by(commands, old_image, page_size * 10, KELVANE_V0_BIG_ENDIAN);
}

FlashPair shrunk_pair(uint32_t page_size) {
  std::minstd_rand random(5);
  const std::string old_image = random_bytes(random, 6 * page_size);
  PatchBuilder commands(Order::kLittle);
  commands.move({{page_size * 2, page_size * 4, 0U - page_size - 12}});
  commands.substitute(5, {{page_size * 3 - 9, from_hex("01 61 EE FF EE FF")}});
  return pair_by(commands, old_image, 5 * page_size - 12);
}

DeviceShape shape_for(const Bundled& bundle, uint32_t unit, bool ecc, uint32_t window) {
  DeviceShape shape;
  shape.flash = {bundle.plan.page_size, unit, ecc};
  shape.image_pages = bundle.plan.pages + 1;
  shape.spare_pages = bundle.plan.spare();
  shape.window = window;
  return shape;
}

TEST(FlashApply, AnUpdateCutAtAnyOperationEndsInTheNewImage) {
  struct {
    uint64_t cuts = 0, starts = 0, geometries = 0;
  } all;
  for (uint32_t seed = 1; seed <= runs_asked_for(); ++seed) {
    for (const uint32_t page_size : {256U, 1024U}) {
      for (const uint32_t unit : {4U, 16U, 32U}) {
        const bool ecc = (unit == 16) != (page_size == 1024);
        const FlashPair pairs[] = {insert_pair(page_size), reorder_pair(page_size),
                                   shrunk_pair(page_size)};
        for (const FlashPair& pair : pairs) {
          const uint32_t ring = 1 + (unit + seed) % 3;
          // What moves up by half a page needs no more than the page at hand once it is raised.
          const uint32_t raise = unit == 16 && &pair == &pairs[0] ? ring : 0;
          const Bundled bundle = bundled(pair, page_size, ring, true, {}, raise);
          const uint32_t window = unit == 4 ? 64 : unit == 16 ? 0 : 128;
          const CutResult result =
              cut_everywhere(shape_for(bundle, unit, ecc, window), pair.old_image, pair.new_image,
                             bundle.source(), {1, 4, seed * 100 + unit});
          SCOPED_TRACE("page " + std::to_string(page_size) + ", unit " + std::to_string(unit) +
                       ", ring " + std::to_string(ring));
          ASSERT_EQ(result.code, KELVANE_APPLY_OK);
          ASSERT_EQ(result.wrong, 0u);
          ASSERT_EQ(result.violations, 0u);
          all.cuts += result.cuts;
          all.starts += result.starts;
          ++all.geometries;
        }
      }
    }
  }
  EXPECT_GT(all.cuts, 3000u);
  std::printf("%lu cuts, %lu starts, %lu runs\n", static_cast<unsigned long>(all.cuts),
              static_cast<unsigned long>(all.starts), static_cast<unsigned long>(all.geometries));
}

TEST(FlashApply, PagesOf128KilobytesServe) {
  constexpr uint32_t kPage = 128 * 1024;
  const FlashPair pair = shrunk_pair(kPage);
  const Bundled bundle = bundled(pair, kPage, 2);
  const CutResult result = cut_everywhere(shape_for(bundle, 32, true, 0), pair.old_image,
                                          pair.new_image, bundle.source(), {11, 1, 5});
  EXPECT_EQ(result.code, KELVANE_APPLY_OK);
  EXPECT_GT(result.cuts, 5u);
  EXPECT_EQ(result.wrong + result.violations, 0u);
}

// The same devices are cut at the same operations, however many go on at a time; also where all of
// them end wrong.
TEST(FlashApply, DevicesThatGoOnTogetherAreCountedAsOneByOne) {
  const FlashPair pair = reorder_pair(256);
  const Bundled bundle = bundled(pair, 256, 2);
  for (const std::string& wanted : {pair.new_image, pair.old_image}) {
    const auto counts = [&](uint32_t jobs) {
      const CutResult result = cut_everywhere(shape_for(bundle, 16, true, 0), pair.old_image,
                                              wanted, bundle.source(), {3, 3, 7, jobs});
      return std::array{result.operations, result.cuts, result.starts, result.wrong,
                        result.violations};
    };
    const auto one_by_one = counts(1);
    EXPECT_EQ(one_by_one[3] == 0, wanted == pair.new_image);
    EXPECT_EQ(counts(2), one_by_one);
    EXPECT_EQ(counts(5), one_by_one);
  }
}

int fetch_bytes(void* context, uint32_t position, uint8_t* bytes, uint32_t count) {
  const auto& all = *static_cast<const kelpatch::Bytes*>(context);
  if (position > all.size() || count > all.size() - position) {
    return 1;
  }
  std::copy_n(all.begin() + position, count, bytes);
  return 0;
}

// The engine that carries out in place is the oracle. With a ring that is too short for the moves,
// pages are kept. Some raise the old image, with a ring of all pages.
TEST(FlashApply, GivesWhatTheApplierGives) {
  for (uint32_t seed = 1; seed <= 60 * runs_asked_for(); ++seed) {
    SCOPED_TRACE(seed);
    const uint32_t old_size = 3000 + seed * 7 % 1000;
    const uint32_t raise = seed % 7 == 0 ? 1 + seed % 5 : 0;
    const uint32_t growth = raise * 300 + seed;
    const FlashPair pair =
        random_pair(seed, old_size, seed % 5 == 0 ? old_size - 500 : old_size + growth);
    const uint32_t page_size = 256U << (seed % 3);
    const Bundled bundle =
        bundled(pair, page_size, raise != 0 ? 30 : 1 + seed % 4, seed % 4 != 0, {}, raise);
    DeviceShape shape = shape_for(bundle, 4U << (seed % 4), false, 32U << (seed % 4));
    shape.classes = seed % 6;
    shape.spare_pages += seed % 2;
    SimulatedDevice device(shape, pair.old_image, seed);
    if (raise != 0) {  // whatever lies behind counts as erased
      const uint32_t behind = bundle.plan.old_pages * page_size;
      device.flash().install(device.image_address() + behind,
                             std::string(shape.image_pages * page_size - behind, 'b'));
    }
    kelvane_source source = bundle.source();
    kelpatch::Bytes external = bundle.bytes;
    external.insert(external.begin(), 40, uint8_t{0});
    if (seed % 3 == 1) {  // as in external flash
      source = {nullptr, fetch_bytes, &external, 40, source.size};
    }
    ASSERT_EQ(device.run(source), KELVANE_APPLY_OK);
    ASSERT_EQ(device.image(static_cast<uint32_t>(pair.new_image.size())), pair.new_image);
    ASSERT_EQ(device.flash().violations, 0u);
    const uint32_t behind = 1 + shape.image_pages;
    for (uint32_t page = 1; page < behind; ++page) {
      ASSERT_LE(device.flash().erases[page], raise != 0 ? 2U : 1U);
    }
  }
}

// Compressed stores of a bundle lie in one page each, and there are some that had to be cut.
TEST(FlashApply, CutsCompressedStoresAtPageBorders) {
  uint32_t cut = 0;
  for (uint32_t seed = 1; seed <= 20; ++seed) {
    const FlashPair pair = random_pair(seed, 3000, 3300);
    kelpatch::PatchFile whole("patch", bytes_of(pair.patch));
    kelpatch::PatchFile split("patch", split_at_pages(whole, 256));
    kelvane_cursor cursor;
    kelvane_item item;
    kelvane_cursor_start(&cursor, split.applier());
    while (kelvane_item_next(&cursor, &item) != 0) {
      if (item.kind == KELVANE_ITEM_STORE && item.command == KELVANE_CM_SUB_COMP && item.size > 0) {
        EXPECT_EQ(item.address / 256, (item.address + item.size - 1) / 256);
      }
    }
    cut += whole.bytes() != split.bytes() ? 1 : 0;
    TargetMemory memory(pair.old_image, 3300);
    EXPECT_EQ(apply_patch(text_of(split.bytes()), memory, 0, KELVANE_SKIP_NEW), KELVANE_APPLY_OK);
    TargetMemory by_whole(pair.old_image, 3300);
    EXPECT_EQ(apply_patch(pair.patch, by_whole, 0, KELVANE_SKIP_NEW), KELVANE_APPLY_OK);
    EXPECT_EQ(memory.contents(), by_whole.contents());
  }
  EXPECT_GT(cut, 10u);
}

TEST(FlashApply, RefusesADamagedBundleBeforeTheFirstErase) {
  const FlashPair pair = reorder_pair(256);
  kelpatch::BundleParts parts;
  parts.signature = 6;
  const Bundled bundle = bundled(pair, 256, 1, true, parts);
  ASSERT_GT(bundle.plan.kept.size(), 0u);
  const DeviceShape shape = shape_for(bundle, 8, false, 0);
  damage_everywhere(bundle.bytes, 6, [&](const kelpatch::Bytes& bytes, bool must_refuse) {
    hold_against(shape, pair.old_image, pair.new_image, bytes, must_refuse);
  });
}

TEST(FlashApply, TakesNumbersThatAWriterMakesAlone) {
  const std::pair<const char*, std::optional<uint32_t>> cases[] = {
      {"00", 0},           {"7F", 127},      {"80 01", 128},         {"FF FF FF FF 0F", 0xFFFFFFFF},
      {"80 00", {}},       {"81 80 00", {}}, {"80 80 80 80 10", {}}, {"FF FF FF FF 8F 00", {}},
      {"FF FF FF FF", {}}, {"", {}}};
  for (const auto& [text, value] : cases) {
    kelpatch::Bytes bytes = bytes_of(from_hex(text));
    uint32_t position = 0;
    uint32_t found = 0;
    const kelvane_source source = {bytes.data(), nullptr, nullptr, 0,
                                   static_cast<uint32_t>(bytes.size())};
    const int code = kelvane_bundle_number(&source, &position, &found);
    EXPECT_EQ(code == KELVANE_BUNDLE_OK, value.has_value()) << text;
    if (value) {
      kelpatch::Bytes again;
      kelpatch::put_number(again, *value);
      EXPECT_EQ(found, *value);
      EXPECT_EQ(again, bytes);
    }
  }
}

TEST(FlashApply, SaysWhyItRefuses) {
  const FlashPair pair = insert_pair(256);
  const Bundled good = bundled(pair, 256, 2);
  const DeviceShape shape = shape_for(good, 8, false, 0);
  PatchBuilder behind(Order::kLittle);
  behind.move({}).fill({{0, 1, 'x'}}).move({{0, 4, 8}});
  PatchBuilder nothing(Order::kLittle);
  nothing.move({});
  FlashPair wrong_new = pair;
  wrong_new.patch = nothing.version1(pair.old_image, pair.old_image.substr(1) + "?");
  const auto with_payload = [&](const std::string& payload) {
    kelpatch::BundleParts parts;
    parts.payload = bytes_of(payload);
    return make_bundle(good.plan, parts);
  };
  const auto with_plan = [&](const std::function<void(kelpatch::PagePlan&)>& change) {
    Bundled other = good;
    change(other.plan);
    kelpatch::BundleParts parts;
    parts.payload = bytes_of(pair.patch);
    return make_bundle(other.plan, parts);
  };
  const auto with_kind = [&](uint8_t kind, uint8_t checkpoint) {
    kelpatch::BundleParts parts;
    parts.payload = bytes_of(pair.patch);
    parts.kind = kind;
    parts.checkpoint = checkpoint;
    return make_bundle(good.plan, parts);
  };
  kelpatch::Bytes of_version_2 = good.bytes;
  of_version_2[KELVANE_BUNDLE_SUMMED_FROM] ^= 3;
  const struct {
    const char* name;
    kelpatch::Bytes bundle;
    int code;
  } cases[] = {
      {"good", good.bytes, KELVANE_UPDATE_MORE},
      {"version", of_version_2, KELVANE_UPDATE_BAD_VERSION},
      {"kind", with_kind(9, 0), KELVANE_UPDATE_OTHER_KIND},
      {"checkpoint", with_kind(1, 4), KELVANE_UPDATE_OTHER_KIND},
      {"page size", with_plan([](auto& plan) { plan.page_size = 512; }),
       KELVANE_UPDATE_OTHER_FLASH},
      {"ring", with_plan([](auto& plan) { plan.ring = 3; }), KELVANE_UPDATE_OTHER_FLASH},
      {"no ring", with_plan([](auto& plan) { plan.ring = 0; }), KELVANE_UPDATE_OTHER_FLASH},
      {"slots", with_plan([](auto& plan) {
         plan.slots = 1;
         plan.kept.push_back({0, 0});
       }),
       KELVANE_UPDATE_OTHER_FLASH},
      {"page left out", with_plan([](auto& plan) { plan.changed.pop_back(); }),
       KELVANE_APPLY_NEW_CHECKSUM},
      {"page outside", with_plan([](auto& plan) { plan.changed.push_back(90); }),
       KELVANE_UPDATE_BAD_PLAN},
      {"slot outside", with_plan([](auto& plan) {
         plan.kept.push_back({0, 0});
       }),
       KELVANE_UPDATE_BAD_PLAN},
      {"version 0", with_payload(behind.version0(pair.old_image, pair.old_image)),
       KELVANE_UPDATE_UNSUPPORTED},
      {"memory mode", with_payload(behind.version1_memory(0, 0)), KELVANE_UPDATE_UNSUPPORTED},
      {"move behind", with_payload(behind.version1(pair.old_image, pair.old_image)),
       KELVANE_UPDATE_MOVE_BEHIND},
      {"other old image", with_payload(nothing.version1(pair.new_image, pair.new_image)),
       KELVANE_APPLY_OLD_CHECKSUM},
      {"other new image", with_payload(wrong_new.patch), KELVANE_APPLY_NEW_CHECKSUM},
      {"larger image", with_payload(nothing.version1(pair.old_image, std::string(9000, 'x'))),
       KELVANE_APPLY_NO_ROOM},
      {"no patch", with_payload("x"), KELVANE_APPLY_TOO_SHORT},
  };
  for (const auto& [name, bundle, code] : cases) {
    SimulatedDevice device(shape, pair.old_image, 1);
    const int found =
        device.open({bundle.data(), nullptr, nullptr, 0, static_cast<uint32_t>(bundle.size())});
    EXPECT_EQ(found, code) << name << ": " << kelvane_update_text(found);
    EXPECT_EQ(device.flash().operations(), 0u) << name;
    EXPECT_EQ(device.step() == KELVANE_UPDATE_MORE, code == KELVANE_UPDATE_MORE) << name;
  }
  // A ring that is too short for the moves.
  const Bundled two = bundled(reorder_pair(256), 256, 2);
  kelpatch::PagePlan short_of = two.plan;
  short_of.kept.clear();
  kelpatch::BundleParts parts;
  parts.payload = bytes_of(reorder_pair(256).patch);
  const kelpatch::Bytes bundle = make_bundle(short_of, parts);
  SimulatedDevice device(shape_for(two, 8, false, 0), reorder_pair(256).old_image, 1);
  EXPECT_EQ(device.open({bundle.data(), nullptr, nullptr, 0, static_cast<uint32_t>(bundle.size())}),
            KELVANE_UPDATE_BAD_PLAN);
  EXPECT_STREQ(kelvane_update_text(KELVANE_UPDATE_FLASH_FAILED), "the flash failed");
  EXPECT_STREQ(kelvane_update_text(KELVANE_APPLY_OK), "no error");
}

TEST(FlashApply, RefusesAGeometryThatDoesNotServe) {
  const FlashPair pair = insert_pair(256);
  const Bundled bundle = bundled(pair, 256, 2);
  const kelvane_source source = bundle.source();
  const std::pair<const char*, std::function<void(kelvane_flash&)>> changes[] = {
      {"page", [](kelvane_flash& flash) { flash.driver.page_size = 384; }},
      {"unit", [](kelvane_flash& flash) { flash.driver.unit = 12; }},
      {"no window", [](kelvane_flash& flash) { flash.work_size = 0; }},
      {"window", [](kelvane_flash& flash) { flash.work_size = 96; }},
      {"large window", [](kelvane_flash& flash) { flash.work_size = 512; }},
      {"small window", [](kelvane_flash& flash) { flash.work_size = 4; }},
      {"pages", [](kelvane_flash& flash) { flash.image_pages = 65536; }},
      {"state", [](kelvane_flash& flash) { flash.state_size = 40; }}};
  for (const auto& [name, change] : changes) {
    SimulatedDevice device(shape_for(bundle, 8, false, 0), pair.old_image, 1);
    kelvane_flash flash = device.board();
    change(flash);
    kelvane_update update;
    EXPECT_EQ(kelvane_update_open(&update, &flash, &source), KELVANE_UPDATE_BAD_GEOMETRY) << name;
    EXPECT_EQ(device.flash().operations() + device.flash().violations, 0u) << name;
  }
}

// From the first step to the last nobody but this bundle may go on; then the way back is free.
TEST(FlashApply, HoldsOnToAnUpdateUntilItIsFinished) {
  const FlashPair pair = insert_pair(256);
  PatchBuilder commands(Order::kLittle);
  commands.move({{256 + 24 + 128, 4 * 256 + 36, 0U - 128}});
  commands.increments({{0U - 64, {0, 40, 1024 - 128}}, {0U - 65, {512 - 128}}});
  PatchBuilder stores(Order::kLittle);
  stores.substitute(1, {{0, pair.old_image}});
  FlashPair back_pair =
      pair_by(stores, pair.new_image, static_cast<uint32_t>(pair.old_image.size()));
  ASSERT_EQ(back_pair.new_image, pair.old_image);
  kelpatch::BundleParts parts;
  parts.back = bundled(back_pair, 256, 2).bytes;
  const Bundled bundle = bundled(pair, 256, 2, true, parts);
  const kelvane_source source = bundle.source();
  const Bundled other = bundled(pair, 256, 3);
  DeviceShape shape = shape_for(bundle, 8, false, 0);
  shape.spare_pages = 4;
  SimulatedDevice device(shape, pair.old_image, 1);
  kelvane_source back;
  ASSERT_EQ(kelvane_update_back(&source, &back), 0);
  const kelvane_source alone = other.source();
  EXPECT_EQ(kelvane_update_back(&alone, &back), 1);
  ASSERT_EQ(kelvane_update_back(&source, &back), 0);
  const auto state = [&](const kelvane_source& of) {
    return kelvane_update_state(&device.board(), &of);
  };

  EXPECT_EQ(state(source), KELVANE_UPDATE_NONE);
  ASSERT_EQ(device.open(source), KELVANE_UPDATE_MORE);
  uint32_t steps = 0;
  while (device.step() == KELVANE_UPDATE_MORE) {
    EXPECT_EQ(kelvane_update_done(&device.update()), steps);
    ++steps;
    EXPECT_EQ(state(source), KELVANE_UPDATE_UNFINISHED);
    EXPECT_EQ(state(back), KELVANE_UPDATE_OTHER);
    SimulatedDevice restarted(shape, device.flash());
    EXPECT_EQ(restarted.open(alone), KELVANE_UPDATE_OTHER_UPDATE);
    EXPECT_EQ(restarted.open(back), KELVANE_UPDATE_OTHER_UPDATE);
    EXPECT_EQ(restarted.open(source), KELVANE_UPDATE_MORE);
  }
  EXPECT_EQ(steps, kelvane_update_all(&device.update()) + 1);
  EXPECT_EQ(state(source), KELVANE_UPDATE_FINISHED);
  EXPECT_EQ(device.image(static_cast<uint32_t>(pair.new_image.size())), pair.new_image);
  const uint64_t operations = device.flash().operations();
  EXPECT_EQ(device.run(source), KELVANE_APPLY_OK);
  EXPECT_EQ(device.flash().operations(), operations);

  EXPECT_EQ(device.run(back), KELVANE_APPLY_OK);
  EXPECT_EQ(device.image(static_cast<uint32_t>(pair.old_image.size())), pair.old_image);
  // Forward once more, and with the old image put back by other means.
  EXPECT_EQ(device.run(source), KELVANE_APPLY_OK);
  device.flash().install(device.image_address(), pair.old_image);
  EXPECT_EQ(device.run(source), KELVANE_APPLY_OK);
  EXPECT_EQ(device.image(static_cast<uint32_t>(pair.new_image.size())), pair.new_image);
}

TEST(FlashApply, AsksForTheSignatureFirstAndTellsThatItLives) {
  const FlashPair pair = insert_pair(256);
  kelpatch::BundleParts parts;
  parts.signature = 4;
  Bundled bundle = bundled(pair, 256, 2, true, parts);
  std::fill(bundle.bytes.end() - 4, bundle.bytes.end(), uint8_t{'s'});
  const kelvane_source source = bundle.source();
  SimulatedDevice device(shape_for(bundle, 8, false, 64), pair.old_image, 1);
  kelvane_flash flash = device.board();
  static uint32_t signs_of_life;
  signs_of_life = 0;
  flash.alive = [](void*) { ++signs_of_life; };
  flash.authentic = [](void*, const kelvane_source* summed, const kelvane_source* signature) {
    EXPECT_EQ(signs_of_life, 0u);
    uint8_t bytes[4] = {};
    EXPECT_EQ(signature->size, 4u);
    EXPECT_EQ(kelvane_source_read(signature, 0, bytes, 4), 0);
    return summed->bytes[8] != 'K' && std::memcmp(bytes, "ssss", 4) == 0 ? 0 : 1;
  };
  kelvane_update update;
  EXPECT_EQ(kelvane_update_open(&update, &flash, &source), KELVANE_UPDATE_MORE);
  EXPECT_GT(signs_of_life, 2 * pair.new_image.size() / 64);
  signs_of_life = 0;
  bundle.bytes.back() = 't';
  EXPECT_EQ(kelvane_update_open(&update, &flash, &source), KELVANE_UPDATE_NOT_AUTHENTIC);
  EXPECT_EQ(signs_of_life + device.flash().operations(), 0u);
}

// Also where one window takes long: with each of many increment classes, which are checked once and
// read again for each window that is rehearsed.
TEST(FlashApply, TellsThatItLivesAmongManyClasses) {
  constexpr uint32_t kClasses = 200;
  std::minstd_rand random(6);
  PatchBuilder commands(Order::kLittle);
  std::vector<PatchBuilder::Class> classes;
  for (uint32_t i = 1; i <= kClasses; ++i) {
    classes.push_back({1000 * i, {4 * i}});
  }
  commands.increments(classes);
  const FlashPair pair = pair_by(commands, random_bytes(random, 9 * 256), 9 * 256);
  const Bundled bundle = bundled(pair, 256, 2);
  const kelvane_source source = bundle.source();
  DeviceShape shape = shape_for(bundle, 8, false, 0);
  shape.classes = 0;
  SimulatedDevice device(shape, pair.old_image, 1);
  kelvane_flash flash = device.board();
  static uint32_t signs_of_life;
  signs_of_life = 0;
  flash.alive = [](void*) { ++signs_of_life; };
  kelvane_update update;
  ASSERT_EQ(kelvane_update_open(&update, &flash, &source), KELVANE_UPDATE_MORE);
  EXPECT_GT(signs_of_life, kClasses * (1 + bundle.plan.changed.size()));
}

// A patch has no state to go on with: windows give the same bytes in any order.
TEST(FlashApply, ComputesTheWindowsOfAPatchInAnyOrder) {
  const FlashPair pair = random_pair(42, 4000, 4200);
  const std::string room = pair.old_image + std::string(8192 - pair.old_image.size(), '\xFF');
  const kelpatch::Bytes patch = bytes_of(pair.patch);
  struct {
    kelvane_patch_payload payload;
    kelvane_words classes[3];
  } state;
  kelvane_payload_input input = {};
  input.payload = {patch.data(), nullptr, nullptr, 0, static_cast<uint32_t>(patch.size())};
  input.image_size = 8192;
  input.update = const_cast<std::string*>(&room);
  input.old_image = [](void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    static_cast<const std::string*>(context)->copy(reinterpret_cast<char*>(bytes), count, address);
    return 0;
  };
  input.alive = [](void*) {};
  kelvane_payload_images images;
  ASSERT_EQ(kelvane_patch_kind.open(&state, sizeof state, &input, &images), 0);
  ASSERT_EQ(kelvane_patch_kind.restart(&state), 0);
  std::string made(4224, '\0');
  for (uint32_t i = 0; i < 33; ++i) {
    const uint32_t at = i * 7 % 33 * 128;
    ASSERT_EQ(kelvane_patch_kind.window(&state, at, reinterpret_cast<uint8_t*>(&made[at]), 128), 0);
  }
  EXPECT_EQ(made.substr(0, pair.new_image.size()), pair.new_image);
}

// A failure of the flash itself ends the run with a code that stays, and a start later goes on.
TEST(FlashApply, EndsWhereTheFlashFails) {
  const FlashPair pair = shrunk_pair(256);
  const Bundled bundle = bundled(pair, 256, 2);
  int code = KELVANE_UPDATE_FLASH_FAILED;
  uint32_t failing = 0;
  while (code != KELVANE_APPLY_OK) {
    SimulatedDevice device(shape_for(bundle, 8, false, 0), pair.old_image, 1);
    device.flash().fail_operation = ++failing;
    code = device.run(bundle.source());
    if (code != KELVANE_APPLY_OK) {
      ASSERT_EQ(code, KELVANE_UPDATE_FLASH_FAILED);
      ASSERT_EQ(device.step(), KELVANE_UPDATE_FLASH_FAILED);
      device.flash().fail_operation = 0;
      ASSERT_EQ(device.run(bundle.source()), KELVANE_APPLY_OK);
      ASSERT_EQ(device.image(static_cast<uint32_t>(pair.new_image.size())), pair.new_image);
    }
  }
  EXPECT_GT(failing, 30u);
}

}  // namespace
}  // namespace kelvane
