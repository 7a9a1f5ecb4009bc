// Updates by a payload whose decoder has a state, that depends on all that was decoded before.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "flash_pairs.h"
#include "update_simulation.h"

namespace kelvane {
namespace {

constexpr uint32_t kShift = 100;   // by which contents move up
constexpr uint32_t kBehind = 300;  // how far back new bytes are read

// The first part is what a checkpoint saves; it is larger than a page of 256 bytes.
struct Chain {
  uint32_t next;
  uint32_t mix;
  uint8_t history[292];
  const kelvane_payload_input* input;
  kelvane_payload_images images;
  uint32_t resumed;
};
constexpr uint32_t kStateSize = offsetof(Chain, input);

// The next byte of the new image; each old byte changes all that follow. `recent` is a new byte of
// a while ago.
uint8_t chained(Chain& chain, uint8_t old, uint8_t recent) {
  const size_t slot = chain.next++ % sizeof chain.history;
  chain.mix = chain.mix * 33 + old + chain.history[slot];
  chain.history[slot] = static_cast<uint8_t>(chain.mix >> 9);
  return static_cast<uint8_t>((old ^ (chain.mix >> 16)) + recent);
}

int open_chain(void* state, uint32_t size, const kelvane_payload_input* input,
               kelvane_payload_images* images) {
  auto& chain = *static_cast<Chain*>(state);
  if (size < sizeof chain ||
      kelvane_source_read(&input->payload, 0, reinterpret_cast<uint8_t*>(images), sizeof *images) !=
          0) {
    return KELVANE_APPLY_TOO_SHORT;
  }
  chain.input = input;
  chain.images = *images;
  return KELVANE_APPLY_OK;
}

int restart_chain(void* state) {
  std::memset(state, 0, kStateSize);
  static_cast<Chain*>(state)->resumed = 0;
  return KELVANE_APPLY_OK;
}

int resume_chain(void* state) {
  ++static_cast<Chain*>(state)->resumed;
  return KELVANE_APPLY_OK;
}

int chain_window(void* state, uint32_t address, uint8_t* bytes, uint32_t count, bool reads_new) {
  auto& chain = *static_cast<Chain*>(state);
  const kelvane_payload_input& input = *chain.input;
  EXPECT_EQ(address, chain.next) << "windows come one after the other";
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t at = address + i;
    uint8_t old = 0;
    uint8_t recent = 0;
    int code = KELVANE_APPLY_OK;
    if (at >= kShift && at - kShift < chain.images.old_size) {
      code = input.old_image(input.update, at - kShift, &old, 1);
    }
    if (code == KELVANE_APPLY_OK && reads_new && at >= kBehind + count) {
      code = input.new_image(input.update, at - kBehind, &recent, 1);
    }
    if (code != KELVANE_APPLY_OK) {
      return code;
    }
    bytes[i] = chained(chain, old, recent);
  }
  return KELVANE_APPLY_OK;
}

int plain_window(void* state, uint32_t address, uint8_t* bytes, uint32_t count) {
  return chain_window(state, address, bytes, count, false);
}

int reading_window(void* state, uint32_t address, uint8_t* bytes, uint32_t count) {
  return chain_window(state, address, bytes, count, true);
}

const kelvane_payload_kind kPlain = {
    KELVANE_PAYLOAD_DENSE, kStateSize,   open_chain,   restart_chain,
    resume_chain,          plain_window, plain_window, kelvane_apply_checksum};
// Reads what it has written.
const kelvane_payload_kind kReading = {
    KELVANE_PAYLOAD_DENSE, kStateSize,     open_chain,     restart_chain,
    resume_chain,          reading_window, reading_window, kelvane_apply_checksum};

constexpr uint32_t kPage = 256;

// What the chain makes of the old image, by windows of `window` bytes.
std::string chained_image(const std::string& old_image, uint32_t size, bool reads_new,
                          uint32_t window) {
  Chain chain;
  restart_chain(&chain);
  std::string image;
  for (uint32_t at = 0; at < size; ++at) {
    const bool in_old = at >= kShift && at - kShift < old_image.size();
    const bool reads = reads_new && at >= kBehind + window;
    image +=
        static_cast<char>(chained(chain, in_old ? static_cast<uint8_t>(old_image[at - kShift]) : 0,
                                  reads ? static_cast<uint8_t>(image[at - kBehind]) : 0));
  }
  return image;
}

struct Case {
  uint32_t checkpoint;
  bool reads_new;
  uint32_t skipped;  // a page that turns out not to change; 0 for none
};

Bundled chain_bundle(const std::string& old_image, const std::string& new_image,
                     uint32_t checkpoint, uint32_t ring, bool reads_new) {
  kelvane_payload_images images = {static_cast<uint32_t>(old_image.size()),
                                   static_cast<uint32_t>(new_image.size()),
                                   patch_checksum(old_image), patch_checksum(new_image), reads_new};
  kelpatch::BundleParts parts;
  parts.kind = KELVANE_PAYLOAD_DENSE;
  parts.checkpoint = checkpoint;
  parts.payload.resize(sizeof images);
  std::memcpy(parts.payload.data(), &images, sizeof images);
  Bundled bundle;
  bundle.plan =
      kelpatch::plan_changes(bytes_of(old_image), bytes_of(new_image), kPage, {}, "chain");
  bundle.plan.ring = ring;
  bundle.bytes = make_bundle(bundle.plan, parts);
  return bundle;
}

DeviceShape shape_for(const Bundled& bundle, const kelvane_payload_kind* const* kinds) {
  DeviceShape shape;
  shape.flash = {kPage, 8, true};
  shape.image_pages = bundle.plan.pages;
  shape.spare_pages = bundle.plan.ring + 4;  // two checkpoints of two pages
  shape.window = 64;
  shape.kinds = kinds;
  shape.state_size = sizeof(Chain);
  return shape;
}

TEST(FlashCheckpoint, AnUpdateCutAtAnyOperationGoesOnFromTheLastCheckpoint) {
  std::minstd_rand random(9);
  const std::string original = random_bytes(random, 11 * kPage - 30);
  for (const auto& [checkpoint, reads_new, skipped] :
       {Case{1, false, 0}, Case{3, false, 4}, Case{3, true, 0}, Case{4, true, 5},
        Case{200, false, 0}}) {
    SCOPED_TRACE(std::to_string(checkpoint) + (reads_new ? " reading" : ""));
    std::string old_image = original;
    std::string new_image = chained_image(old_image, 12 * kPage - 17, reads_new, 64);
    if (skipped != 0) {
      // Old bytes that are what they become; those of this page are read for later ones.
      for (uint32_t at = skipped * kPage; at < (skipped + 1) * kPage; ++at) {
        new_image = chained_image(old_image, at + 1, reads_new, 64);
        old_image[at] = new_image[at];
      }
      new_image = chained_image(old_image, 12 * kPage - 17, reads_new, 64);
    }
    const Bundled bundle =
        chain_bundle(old_image, new_image, checkpoint, 2 + std::min(checkpoint, 11U), reads_new);
    ASSERT_EQ(bundle.plan.changed.size(), skipped != 0 ? 11u : 12u);
    const kelvane_payload_kind* const kinds[] = {&kelvane_patch_kind,
                                                 reads_new ? &kReading : &kPlain, nullptr};
    const CutResult result = cut_everywhere(shape_for(bundle, kinds), old_image, new_image,
                                            bundle.source(), {1, 4, checkpoint});
    EXPECT_EQ(result.code, KELVANE_APPLY_OK) << kelvane_update_text(result.code);
    EXPECT_EQ(result.wrong, 0u);
    EXPECT_EQ(result.violations, 0u);
    EXPECT_GT(result.cuts, 300u);
  }
}

// The rehearsal sees that pages since the last checkpoint could not be decoded again.
TEST(FlashCheckpoint, ARingThatIsTooShortForTheCheckpointsIsRefused) {
  std::minstd_rand random(9);
  const std::string old_image = random_bytes(random, 9 * kPage);
  for (const bool reads_new : {false, true}) {
    const std::string new_image = chained_image(old_image, 9 * kPage, reads_new, 64);
    const kelvane_payload_kind* const kinds[] = {reads_new ? &kReading : &kPlain, nullptr};
    for (const uint32_t ring : {3U, 4U}) {
      const Bundled bundle = chain_bundle(old_image, new_image, 3, ring, reads_new);
      SimulatedDevice device(shape_for(bundle, kinds), old_image, 1);
      EXPECT_EQ(device.run(bundle.source()),
                ring == 3 ? int{KELVANE_UPDATE_BAD_PLAN} : int{KELVANE_APPLY_OK});
      EXPECT_EQ(device.flash().operations() == 0, ring == 3);
    }
  }
}

}  // namespace
}  // namespace kelvane
