#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "bundle_file.h"
#include "bytes.h"
#include "flash_bundle.h"
#include "page_plan.h"
#include "patch_builder.h"
#include "patch_split.h"
#include "target_memory.h"
#include "update_simulation.h"

namespace kelvane {

inline std::string random_bytes(std::minstd_rand& random, size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i) {
    bytes += static_cast<char>(static_cast<uint8_t>(random() >> 8));
  }
  return bytes;
}

// Two images and the patch between them.
struct FlashPair {
  std::string old_image;
  std::string new_image;
  std::string patch;
};

// What the commands make of an image that has room to grow, and the patch that says so.
inline FlashPair pair_by(const PatchBuilder& commands, const std::string& old_image,
                         uint32_t new_size, uint32_t flags = 0) {
  FlashPair pair;
  pair.old_image = old_image;
  std::string room = old_image;
  room.resize(std::max<size_t>(new_size, old_image.size()), '\xFF');  // as in erased flash
  TargetMemory memory({{0, room}});
  EXPECT_EQ(apply_patch(std::string(16, '\0') + commands.commands(), memory,
                        flags | KELVANE_V0_MEMORY_MODE),
            KELVANE_APPLY_OK);
  pair.new_image = memory.contents().substr(0, new_size);
  pair.patch = commands.version1(old_image, pair.new_image);
  return pair;
}

// A stream of literals and references, now and then to what lies ahead of the store.
inline std::string compressed(std::minstd_rand& random, uint32_t items) {
  std::string stream;
  uint32_t offset = 0;
  for (uint32_t i = 0; i < items; i += 8) {
    const auto flags = static_cast<uint32_t>(random()) & (0xFFU >> (8 - std::min(8U, items - i)));
    stream += static_cast<char>(static_cast<uint8_t>(flags));
    for (uint32_t k = 0; k < 8 && i + k < items; ++k) {
      if ((flags >> k & 1U) != 0) {
        stream += random_bytes(random, 1);
        ++offset;
      } else {
        const uint32_t distance = 1 + static_cast<uint32_t>(random()) % (offset + 20);
        const uint32_t slot = (4078 + offset - distance) % 4096;
        const auto length = static_cast<uint32_t>(random()) % 16;
        stream += static_cast<char>(static_cast<uint8_t>(slot));
        stream += static_cast<char>(static_cast<uint8_t>((slot >> 4U & 0xF0U) | length));
        offset += length + 3;
      }
    }
  }
  return stream;
}

// The bytes that such a stream expands to at most.
constexpr uint32_t kMostExpanded = 18;

// All sorts of commands at random places: blocks that overlap and are moved again, stores, fills,
// compressed stores over page borders, increments of several classes.
inline FlashPair random_pair(uint32_t seed, uint32_t old_size, uint32_t new_size) {
  std::minstd_rand random(seed);
  const auto below = [&random](uint32_t limit) {
    return limit == 0 ? 0U : static_cast<uint32_t>(random()) % limit;
  };
  const uint32_t size = std::max(old_size, new_size);
  PatchBuilder commands(seed % 2 == 0 ? PatchBuilder::Order::kLittle : PatchBuilder::Order::kBig);
  for (uint32_t i = 0; i < 1 + seed % 2; ++i) {
    std::vector<PatchBuilder::Block> blocks;
    for (uint32_t k = below(8); k > 0; --k) {
      const uint32_t length = below(size / 3);
      const uint32_t from = below(size - length);
      blocks.push_back({from, length, below(size - length) - from});
    }
    commands.move(blocks);
  }
  PatchBuilder::Stores stores;
  for (uint32_t k = below(6); k > 0; --k) {
    const uint32_t length = below(200);
    stores.push_back({below(size - length), random_bytes(random, length)});
  }
  commands.substitute(1, stores);
  PatchBuilder::Stores streams;
  for (uint32_t k = below(4); k > 0; --k) {
    const uint32_t items = 1 + below(size / (4 * kMostExpanded));
    streams.push_back({below(size - items * kMostExpanded), compressed(random, items)});
  }
  commands.substitute(
      5, streams,
      seed % 3 == 0 ? std::vector<PatchBuilder::Stores>{}
                    : std::vector<PatchBuilder::Stores>{{{size / 2, compressed(random, 9)},
                                                         {size / 2 + 200, compressed(random, 9)}}});
  commands.fill({{below(size - 300), static_cast<uint16_t>(below(300)), 0xFF}});
  std::vector<PatchBuilder::Class> classes;
  for (uint32_t k = below(5); k > 0; --k) {
    std::vector<uint32_t> words;
    for (uint32_t at = 4 * (1 + below(40)); at + 4 <= size; at += 4 * (1 + below(60))) {
      words.push_back(at);
    }
    classes.push_back({static_cast<uint32_t>(random()), words});
  }
  commands.increments(classes);
  commands.substitute(2, {{size - 1, "z"}}).increments({{7, {8, 8, 64}}});
  return pair_by(commands, random_bytes(random, old_size), new_size,
                 seed % 2 == 0 ? KELVANE_V0_LITTLE_ENDIAN : KELVANE_V0_BIG_ENDIAN);
}

// A bundle for the pair, and what a device needs to take it.
struct Bundled {
  kelpatch::PagePlan plan;
  kelpatch::Bytes bytes;
  kelvane_source source() const {
    return {bytes.data(), nullptr, nullptr, 0, static_cast<uint32_t>(bytes.size())};
  }
};

// One that raises the old image keeps no page but those of the ring.
inline Bundled bundled(const FlashPair& pair, uint32_t page_size, uint32_t ring, bool split = true,
                       const kelpatch::BundleParts& parts = {}, uint32_t raise = 0) {
  kelpatch::PatchFile whole("patch", bytes_of(pair.patch));
  kelpatch::PatchFile patch("patch", split ? split_at_pages(whole, page_size) : whole.bytes());
  Bundled made;
  made.plan = kelpatch::plan_pages(patch, bytes_of(pair.old_image), bytes_of(pair.new_image),
                                   page_size, ring);
  if (raise > 0) {
    made.plan.raise_by(raise, "patch");
    made.plan.kept.clear();
    made.plan.slots = 0;
  }
  kelpatch::BundleParts all = parts;
  all.payload = patch.bytes();
  made.bytes = make_bundle(made.plan, all);
  return made;
}

// How many times as many runs as usual.
inline uint32_t runs_asked_for() {
  const char* const asked = std::getenv("KELVANE_FLASH_RUNS");
  return asked != nullptr ? static_cast<uint32_t>(std::strtoul(asked, nullptr, 10)) : 1;
}

// The outcome of a bundle that is not as it was made: refused without an operation, or the right
// image. Where the new image can't be computed ahead, it may also be found wrong at the end.
inline void hold_against(const DeviceShape& shape, const std::string& old_image,
                         const std::string& new_image, const kelpatch::Bytes& bytes,
                         bool must_refuse) {
  // Exactly as large as it is, so that an access behind it is seen.
  const auto block = std::make_unique<uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), block.get());
  SimulatedDevice device(shape, old_image, 1);
  const int code =
      device.run({block.get(), nullptr, nullptr, 0, static_cast<uint32_t>(bytes.size())});
  ASSERT_EQ(device.flash().violations, 0u);
  if (code == KELVANE_APPLY_OK && !must_refuse) {
    ASSERT_EQ(device.image(static_cast<uint32_t>(new_image.size())), new_image);
  } else if (code != KELVANE_APPLY_NEW_CHECKSUM || device.update().images.reads_new == 0 ||
             must_refuse) {
    ASSERT_NE(code, KELVANE_APPLY_OK);
    ASSERT_EQ(device.flash().operations(), 0u) << kelvane_update_text(code);
  }
}

// Cuts a bundle at every length and changes each of its bytes, with its checksum as it was and made
// to fit. What fits its checksum may be right all the same, such as a page kept for longer.
inline void damage_everywhere(
    const kelpatch::Bytes& bundle, size_t signature,
    const std::function<void(const kelpatch::Bytes& damaged, bool must_refuse)>& try_it) {
  const size_t summed = bundle.size() - signature;
  for (size_t place = 0; place < summed; ++place) {
    SCOPED_TRACE(place);
    const uint8_t byte = bundle[place];
    for (const uint32_t changed : {byte ^ 1U, byte ^ 0x80U, byte + 1U, byte - 1U, 0U, 0xFFU}) {
      kelpatch::Bytes damaged = bundle;
      damaged[place] = static_cast<uint8_t>(changed);
      if (damaged == bundle) {
        continue;
      }
      try_it(damaged, true);
      const uint32_t crc =
          kelvane_crc32(0, damaged.data() + KELVANE_BUNDLE_SUMMED_FROM,
                        static_cast<uint32_t>(summed) - KELVANE_BUNDLE_SUMMED_FROM);
      for (uint32_t i = 0; i < 4; ++i) {
        damaged[KELVANE_BUNDLE_CHECKSUM_AT + i] = static_cast<uint8_t>(crc >> (8 * i));
      }
      try_it(damaged, false);
    }
  }
  for (size_t size = 0; size < bundle.size(); ++size) {
    SCOPED_TRACE(size);
    try_it({bundle.begin(), bundle.begin() + static_cast<ptrdiff_t>(size)}, true);
  }
}

}  // namespace kelvane
