// Updates of a device in a model of flash by a dense payload: power cuts, ranges, damaged bundles.
#include "flash_dense.h"

#include <gtest/gtest.h>

#include <numeric>

#include "dense_bundle.h"
#include "flash_pairs.h"
#include "linked_program.h"
#include "quick_checksum.h"

namespace kelvane {
namespace {

constexpr ByteOrder kLittle = ByteOrder::kLittle;
constexpr ByteOrder kBig = ByteOrder::kBig;
constexpr dense_target kThumb = {KELVANE_DENSE_THUMB, kLittle, kLittle, 0x08004000};
constexpr dense_target kPowerPc = {KELVANE_DENSE_POWERPC, kBig, kBig, 0x00FF8000};

const kelvane_payload_kind* const kKinds[] = {&kelvane_patch_kind, &kelvane_dense_kind, nullptr};

struct Images {
  dense_target target;
  Bytes before;
  Bytes after;
};

// A function more, two in each other's place, and at the end what is new, twice over.
Images moved(const dense_target& target, uint32_t functions, uint32_t fresh = 300) {
  Random random(7);
  LinkedProgram program(functions, random);
  Images images = {target, program.link(target), {}};
  program.insert(functions / 3, random);
  program.swap(functions / 5, functions - 2);
  const Bytes twice = random.bytes(fresh);
  images.after = joined({program.link(target), twice, random.bytes(fresh / 6), twice});
  return images;
}

// New bytes near the start of a program and amid it, which push all else up, and a function more.
Images grown(const dense_target& target, uint32_t functions, uint32_t fresh) {
  Random random(9);
  LinkedProgram program(functions, random);
  Images images = {target, program.link(target), {}};
  program.insert(functions / 2, random);
  images.after = program.link(target);
  for (const size_t at : {images.after.size() / 2, size_t{100}}) {
    const Bytes piece = random.bytes(fresh / 2);
    images.after.insert(images.after.begin() + static_cast<ptrdiff_t>(at), piece.begin(),
                        piece.end());
  }
  return images;
}

// Makes the pages of `others` blank, with what was there behind them. Gives the ranges of the rest.
std::vector<kelpatch::PageRange> part_at(Images& images, std::vector<kelpatch::PageRange> others,
                                         uint32_t page_size) {
  std::vector<kelpatch::PageRange> ranges;
  uint32_t next = 0;
  for (const auto& [first, pages] : others) {
    for (Bytes* image : {&images.before, &images.after}) {
      image->insert(image->begin() + first * page_size, pages * page_size, uint8_t{0xFF});
    }
    if (first > next) {
      ranges.push_back({next, first - next});
    }
    next = first + pages;
  }
  const auto size = static_cast<uint32_t>(std::max(images.before.size(), images.after.size()));
  ranges.push_back({next, (size - 1) / page_size + 1 - next});
  return ranges;
}

// Changes here and there, with pages between that stay, and the end cut off.
Images patched(const dense_target& target, uint32_t functions) {
  Random random(8);
  LinkedProgram program(functions, random);
  Images images = {target, program.link(target), {}};
  images.after = images.before;
  for (const size_t at : {size_t{40}, images.after.size() / 2, images.after.size() - 900}) {
    images.after[at] = static_cast<uint8_t>(images.after[at] + 1);
  }
  images.after = Bytes(images.after.begin(), images.after.end() - 200);
  return images;
}

dense_request request_for(const Images& images, const flash_geometry& geometry, bool reads_new) {
  dense_request request;
  request.images = {images.before, images.after};
  request.geometry = geometry;
  request.target = images.target;
  request.base_is_known = true;
  request.reads_new = reads_new;
  request.effort = dense_effort::quick;
  return request;
}

uint32_t state_pages(uint32_t page_size) {
  return 2 * ((kelvane_dense_kind.state_size + page_size - 1) / page_size);
}

DeviceShape shape_for(const DenseBundle& bundle, uint32_t unit, uint32_t window) {
  DeviceShape shape;
  shape.flash = {bundle.plan.page_size, unit, unit == 16};
  shape.image_pages = bundle.plan.pages;
  shape.spare_pages = bundle.plan.spare() + state_pages(bundle.plan.page_size);
  shape.window = window;
  shape.kinds = kKinds;
  shape.state_size = dense_memory(bundle.map_entries);
  return shape;
}

struct Case {
  const char* name;
  Images images;
  flash_geometry geometry;
  uint32_t checkpoint;
  bool reads_new;
};

// A part of the operations is cut, others in each run; with KELVANE_FLASH_RUNS=N all, and N times.
TEST(FlashDense, AnUpdateCutAtAnyOperationEndsInTheNewImage) {
  const dense_target none = {KELVANE_DENSE_NONE, kLittle, kLittle, 0x1000};
  const dense_target arm = {KELVANE_DENSE_ARM, kLittle, kBig, 0x10000};
  const dense_target mips = {KELVANE_DENSE_MIPS, kBig, kBig, 0x9FC00000};
  const dense_target riscv = {KELVANE_DENSE_RISCV, kLittle, kLittle, 0x20400000};
  const Case cases[] = {{"thumb", moved(kThumb, 60), {256, 2, 8}, 4, true},
                        {"thumb, rehearsed", moved(kThumb, 60), {256, 4, 2}, 8, false},
                        {"arm", moved(arm, 90), {1024, 1, 4}, 4, true},
                        {"powerpc", moved(kPowerPc, 110), {1024, 2, 2}, 16, true},
                        {"mips", patched(mips, 120), {1024, 2, 2}, 8, false},
                        {"riscv", moved(riscv, 300), {4096, 2, 2}, 4, true},
                        {"none", patched(none, 60), {256, 2, 2}, 16, true},
                        {"one by one", patched(mips, 70), {256, 2, 2}, 1, true},
                        {"few pages", moved(kThumb, 90), {4096, 1, 0}, 8, false},
                        {"raised", grown(kThumb, 40, 3000), {256, 2, 2, 4, 11}, 4, true},
                        {"raised high", grown(mips, 60, 5000), {1024, 1, 0, 1, 9}, 1, false},
                        {"raised low", grown(kPowerPc, 60, 2000), {256, 2, 4, 8, 1}, 8, false}};
  const bool is_long = runs_asked_for() > 1;
  uint64_t cuts = 0;
  uint64_t kept = 0;
  uint64_t reading = 0;
  for (uint32_t run = 1; run <= runs_asked_for(); ++run) {
    for (const Case& one : cases) {
      SCOPED_TRACE(one.name);
      const DenseBundle bundle =
          dense_bundle(request_for(one.images, one.geometry, one.reads_new), one.checkpoint);
      const DeviceShape shape =
          shape_for(bundle, 4U << (run + one.checkpoint) % 3, run % 2 == 0 ? 64 : 0);
      const CutResult result =
          cut_everywhere(shape, text_of(one.images.before), text_of(one.images.after),
                         bundle.source(), {is_long ? 1U : 4U, is_long ? 4U : 2U, run * 10});
      ASSERT_EQ(result.code, KELVANE_APPLY_OK) << kelvane_update_text(result.code);
      ASSERT_EQ(result.wrong, 0u);
      ASSERT_EQ(result.violations, 0u);
      cuts += result.cuts;
      kept += bundle.plan.kept.size();
      reading += (bundle.parts.payload[0] & 0x40U) != 0 ? 1 : 0;
    }
  }
  EXPECT_GT(kept, 3u);
  EXPECT_GT(reading, 2u);
  std::printf("%lu cuts\n", static_cast<unsigned long>(cuts));
}

// How far checkpoints lie apart changes what an update takes, and nothing else. Prints what it
// takes. With KELVANE_FLASH_RUNS=2 or more in larger programs, with every operation cut.
TEST(FlashDense, CheckpointsOfAnyDistanceSurviveCuts) {
  struct Device {
    uint32_t page;
    uint32_t unit;
    uint32_t functions;
  };
  const bool is_long = runs_asked_for() > 1;
  for (const Device& device : {Device{256, 4, 160}, {1024, 8, 640}, {4096, 16, 1800}}) {
    const Images images = moved(kThumb, is_long ? device.functions : device.functions / 6);
    const dense_request request = request_for(images, {device.page, 2, 4}, false);
    const dense_update update = search_dense(request);
    uint64_t erases_before = UINT64_MAX;
    for (const uint32_t checkpoint : {4U, 8U, 16U}) {
      SCOPED_TRACE(std::to_string(device.page) + ", " + std::to_string(checkpoint));
      const DenseBundle bundle = bundle_of(request, update, checkpoint);
      SimulatedDevice whole(shape_for(bundle, device.unit, 0), text_of(images.before), 1);
      ASSERT_EQ(whole.run(bundle.source()), KELVANE_APPLY_OK);
      const uint64_t erases =
          std::accumulate(whole.flash().erases.begin(), whole.flash().erases.end(), uint64_t{0});
      EXPECT_LE(erases, erases_before);
      erases_before = erases;
      uint64_t cuts = 0;
      for (uint32_t run = 0; run == 0 || run + 1 < runs_asked_for(); ++run) {
        const CutResult result =
            cut_everywhere(shape_for(bundle, device.unit, run % 2 != 0 ? device.page / 2 : 0),
                           text_of(images.before), text_of(images.after), bundle.source(),
                           {is_long ? 1U : 29U, is_long ? 4U : 1U, 100 * run + checkpoint});
        EXPECT_EQ(result.code, KELVANE_APPLY_OK);
        EXPECT_EQ(result.wrong, 0u);
        EXPECT_EQ(result.violations, 0u);
        cuts += result.cuts;
      }
      std::printf("| %u | %u | %zu | %zu of %u | %u + %u + %u | %lu | %lu |\n", device.page,
                  checkpoint, bundle.bytes.size(), bundle.plan.changed.size(), bundle.plan.pages,
                  bundle.plan.ring, bundle.plan.slots, state_pages(device.page),
                  static_cast<unsigned long>(erases), static_cast<unsigned long>(cuts));
    }
  }
}

TEST(FlashDense, TheQuickChecksumIsThatOfDevices) {
  const Bytes bytes = Random(9).bytes(300);
  const uint8_t* const data = bytes.data();
  uint32_t sum = 0;
  for (uint32_t count = 0; count <= 300; ++count) {
    EXPECT_EQ(kelpatch::quick_dense_checksum(sum, data, count),
              kelvane_dense_checksum(sum, data, count));
    sum = kelvane_dense_checksum(sum, data + 300 - count, count);
  }
}

// What moves up by no more than the old image is raised is there when it is read, whatever the
// ring; the device finds it where the encoder counts on it.
TEST(FlashDense, AnImageThatIsRaisedStaysReadable) {
  for (uint32_t seed = 0; seed < 18 * runs_asked_for(); ++seed) {
    SCOPED_TRACE(seed);
    const uint32_t page = 256U << seed % 3;
    const uint32_t fresh = 4 * page + 97 * (seed % 9);
    const Images images = grown(kThumb, 20 + seed, fresh);
    const flash_geometry geometry = {page, 1 + seed / 3 % 2, seed % 4, 1 + seed % 5,
                                     1 + seed * 7 % 11};
    const DenseBundle bundle =
        dense_bundle(request_for(images, geometry, seed % 2 == 0), geometry.checkpoint);
    SimulatedDevice device(shape_for(bundle, 8, 0), text_of(images.before), seed);
    const int code = device.run(bundle.source());
    ASSERT_EQ(code, KELVANE_APPLY_OK) << kelvane_update_text(code);
    ASSERT_EQ(device.image(static_cast<uint32_t>(images.after.size())), text_of(images.after));
    if (geometry.raise * page > fresh) {
      EXPECT_LT(bundle.bytes.size(), fresh + 400);
    }
  }
}

TEST(FlashDense, RefusesToRaiseWhereThatDoesNotServe) {
  const Images images = grown(kThumb, 40, 3000);
  const DenseBundle good = dense_bundle(request_for(images, {256, 1, 0, 4, 11}, true), 4);
  const kelpatch::PagePlan& plan = good.plan;
  const auto run = [&](uint32_t raise, const auto& change) {
    DenseBundle other = good;
    other.plan.raise = raise;
    change(other.plan);
    other.bytes = make_bundle(other.plan, other.parts);
    DeviceShape shape = shape_for(good, 8, 0);
    shape.image_pages = std::max(plan.new_pages, plan.old_pages + 11) + 1;
    SimulatedDevice device(shape, text_of(images.before), 1);
    const int code = device.run(other.source());
    EXPECT_EQ(device.flash().operations() == 0, code != KELVANE_APPLY_OK);
    return code;
  };
  const auto as_it_is = [](kelpatch::PagePlan&) {};
  const uint32_t most = std::max(plan.new_pages, plan.old_pages + 11) + 1 - plan.old_pages;
  EXPECT_EQ(run(11, as_it_is), KELVANE_APPLY_OK);
  EXPECT_EQ(run(most, as_it_is), KELVANE_APPLY_OK);
  EXPECT_EQ(run(most + 1, as_it_is), KELVANE_APPLY_NO_ROOM);
  EXPECT_EQ(run(UINT32_MAX, as_it_is), KELVANE_APPLY_NO_ROOM);
  for (const uint32_t raise : {0U, 1U, 6U}) {  // too little for what the payload reads
    EXPECT_EQ(run(raise, as_it_is), KELVANE_UPDATE_BAD_PLAN);
  }
  EXPECT_EQ(run(11, [](kelpatch::PagePlan& other) { other.changed.pop_back(); }),
            KELVANE_UPDATE_BAD_PLAN);
  EXPECT_EQ(run(11,
                [](kelpatch::PagePlan& other) {
                  other.ranges = {{0, other.new_pages}};
                }),
            KELVANE_UPDATE_BAD_PLAN);
}

// What the payload reads is held against the plan also where the new image is not known before.
TEST(FlashDense, RefusesAPlanThatDoesNotKeepWhatIsRead) {
  const Images images = moved(kThumb, 60);
  for (const bool reads_new : {false, true}) {
    const DenseBundle good = dense_bundle(request_for(images, {256, 2, 8}, reads_new), 4);
    ASSERT_FALSE(good.plan.kept.empty());
    const auto run = [&](const auto& change) {
      DenseBundle other = good;
      change(other);
      other.bytes = make_bundle(other.plan, other.parts);
      DeviceShape shape = shape_for(good, 8, 0);
      shape.spare_pages = other.plan.spare() + state_pages(256);
      SimulatedDevice device(shape, text_of(images.before), 1);
      const int code = device.run(other.source());
      const bool is_known_late = reads_new && code == KELVANE_APPLY_NEW_CHECKSUM;
      EXPECT_EQ(device.flash().operations() == 0, code != KELVANE_APPLY_OK && !is_known_late);
      return code;
    };
    EXPECT_EQ(run([](DenseBundle&) {}), KELVANE_APPLY_OK);
    EXPECT_EQ(run([](DenseBundle& bundle) { bundle.plan.kept.pop_back(); }),
              KELVANE_UPDATE_BAD_PLAN);
    EXPECT_EQ(run([](DenseBundle& bundle) { --bundle.plan.ring; }), KELVANE_UPDATE_BAD_PLAN);
    EXPECT_EQ(run([](DenseBundle& bundle) { bundle.parts.checkpoint = 0; }),
              KELVANE_UPDATE_OTHER_KIND);
    EXPECT_EQ(run([](DenseBundle& bundle) { bundle.parts.payload[0] ^= 3; }),
              KELVANE_UPDATE_BAD_PAYLOAD);
    EXPECT_EQ(run([](DenseBundle& bundle) { bundle.parts.payload[2] ^= 1; }),
              KELVANE_APPLY_OLD_CHECKSUM);
    EXPECT_EQ(run([](DenseBundle& bundle) { bundle.parts.payload[6] ^= 1; }),
              KELVANE_APPLY_NEW_CHECKSUM);
    DeviceShape small = shape_for(good, 8, 0);
    small.state_size -= 14;
    SimulatedDevice device(small, text_of(images.before), 1);
    EXPECT_EQ(device.open(good.source()), KELVANE_UPDATE_NO_MEMORY);
  }
}

TEST(FlashDense, RefusesADamagedBundleBeforeTheFirstErase) {
  Images parted = moved(kPowerPc, 14, 12);
  const auto ranges = part_at(parted, {{1, 1}}, 256);
  const struct {
    Images images;
    flash_geometry geometry;
    bool reads_new;
    std::vector<kelpatch::PageRange> ranges;
  } cases[] = {{parted, {256, 2, 2}, false, ranges},
               {parted, {256, 2, 2}, true, ranges},
               {grown(kPowerPc, 12, 300), {256, 1, 0, 4, 2}, true, {}}};
  for (const auto& [images, geometry, reads_new, own] : cases) {
    const DenseBundle bundle = dense_bundle(request_for(images, geometry, reads_new), 4, own);
    const DeviceShape shape = shape_for(bundle, 8, 0);
    SimulatedDevice whole(shape, text_of(images.before), 1);
    ASSERT_EQ(whole.run(bundle.source()), KELVANE_APPLY_OK);
    damage_everywhere(bundle.bytes, 0, [&](const kelpatch::Bytes& bytes, bool must_refuse) {
      hold_against(shape, text_of(images.before), text_of(images.after), bytes, must_refuse);
    });
  }
}

// Pages between the ranges are another's: what they hold is not seen, and stays.
TEST(FlashDense, LeavesPagesOfNoRangeAlone) {
  constexpr uint32_t page = 256;
  Images images = moved(kThumb, 60);
  const auto ranges = part_at(images, {{0, 1}, {13, 3}}, page);
  const DenseBundle dense = dense_bundle(request_for(images, {page, 2, 4}, true), 4, ranges);
  const FlashPair pair =
      pair_by(PatchBuilder(PatchBuilder::Order::kLittle)
                  .move({})
                  .substitute(1, {{page + 9, "first"}, {18 * page, std::string(3 * page, 'n')}}),
              text_of(images.before), static_cast<uint32_t>(images.before.size()));
  kelpatch::BundleParts parts;
  parts.payload = bytes_of(pair.patch);
  kelpatch::PagePlan plan =
      kelpatch::plan_changes(images.before, bytes_of(pair.new_image), page, ranges, "patch");
  plan.ring = 2;
  const auto run = [&](const kelpatch::Bytes& bundle, const std::string& new_image) {
    SimulatedDevice device(shape_for(dense, 8, 0), text_of(images.before), 1);
    const std::pair<uint32_t, std::string> others[] = {{0, text_of(Random(1).bytes(page))},
                                                       {13, text_of(Random(2).bytes(3 * page))}};
    for (const auto& [first, bytes] : others) {
      device.flash().install(device.image_address() + first * page, bytes);
    }
    const int code =
        device.run({bundle.data(), nullptr, nullptr, 0, static_cast<uint32_t>(bundle.size())});
    if (code == KELVANE_APPLY_OK) {
      std::string wanted = new_image;
      for (const auto& [first, bytes] : others) {
        wanted.replace(first * page, bytes.size(), bytes);
      }
      EXPECT_EQ(device.image(static_cast<uint32_t>(wanted.size())), wanted);
    } else {
      EXPECT_EQ(device.flash().operations(), 0u);
    }
    return code;
  };
  EXPECT_EQ(run(dense.bytes, text_of(images.after)), KELVANE_APPLY_OK);
  EXPECT_EQ(run(make_bundle(plan, parts), pair.new_image), KELVANE_APPLY_OK);
  // Pages that change or are kept outside, ranges beyond the image.
  const auto without = [&](const std::function<void(kelpatch::PagePlan&)>& change) {
    kelpatch::PagePlan other = plan;
    change(other);
    return run(make_bundle(other, parts), pair.new_image);
  };
  const auto add_page = [](uint32_t number) {
    return [number](kelpatch::PagePlan& other) {
      other.changed.push_back(number);
      std::sort(other.changed.begin(), other.changed.end());
    };
  };
  EXPECT_EQ(without(add_page(0)), KELVANE_UPDATE_BAD_PLAN);
  EXPECT_EQ(without(add_page(13)), KELVANE_UPDATE_BAD_PLAN);
  EXPECT_EQ(without(add_page(11)), KELVANE_APPLY_OK);
  EXPECT_EQ(without([](kelpatch::PagePlan& other) {
              other.kept.push_back({14, 0});
              other.slots = 1;
            }),
            KELVANE_UPDATE_BAD_PLAN);
  EXPECT_EQ(without([](kelpatch::PagePlan& other) { ++other.ranges.back().pages; }),
            KELVANE_UPDATE_BAD_PLAN);
  EXPECT_EQ(without([](kelpatch::PagePlan& other) { other.ranges.clear(); }),
            KELVANE_APPLY_OLD_CHECKSUM);
}

// The bundle's bytes, one fetch of which fails.
struct FailingBytes {
  const kelpatch::Bytes& bytes;
  uint64_t fails_at;  // counted from 0
  uint64_t fetches = 0;
};

int fetch_or_fail(void* context, uint32_t position, uint8_t* bytes, uint32_t count) {
  auto& self = *static_cast<FailingBytes*>(context);
  std::copy_n(self.bytes.begin() + position, count, bytes);
  return self.fetches++ == self.fails_at ? 1 : 0;
}

// A step that could not read all that it needs must not count as done: the next start goes on.
TEST(FlashDense, AFetchThatFailsOnceIsToldAndDoesNoHarm) {
  constexpr uint32_t page = 256;
  Images images = moved(kThumb, 40, 500);
  const auto ranges = part_at(images, {{0, 1}, {13, 3}}, page);
  const DenseBundle bundle = dense_bundle(request_for(images, {page, 2, 4}, true), 4, ranges);
  ASSERT_NE(bundle.parts.payload[0] & 0x40U, 0u);  // reads the new image back
  uint64_t all = UINT64_MAX;
  for (uint64_t fails_at = 0; fails_at < all; fails_at += all == UINT64_MAX ? 0 : 1 + all / 800) {
    FailingBytes bytes = {bundle.bytes, all == UINT64_MAX ? all : fails_at};
    const kelvane_source source = {nullptr, fetch_or_fail, &bytes, 0,
                                   static_cast<uint32_t>(bundle.bytes.size())};
    SimulatedDevice device(shape_for(bundle, 8, 0), text_of(images.before), 1);
    const int code = device.run(source);
    if (all == UINT64_MAX) {
      ASSERT_EQ(code, KELVANE_APPLY_OK);
      all = bytes.fetches;
      continue;
    }
    ASSERT_NE(code, KELVANE_APPLY_OK) << fails_at;
    ASSERT_EQ(device.run(source), KELVANE_APPLY_OK) << fails_at;
    ASSERT_EQ(device.image(static_cast<uint32_t>(images.after.size())), text_of(images.after));
  }
}

}  // namespace
}  // namespace kelvane