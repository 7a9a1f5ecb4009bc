// SPDX-License-Identifier: Apache-2.0
// Dense payloads made for the purpose: headers, entries of the map, literals that nobody would
// write, and the one of docs/dense-format.md.

#include <gtest/gtest.h>

#include "checked_run.h"
#include "dense_decisions.h"
#include "dense_model.h"
#include "dense_proof.h"
#include "dense_writer.h"
#include "image_pair.h"

namespace kelvane {
namespace {

struct HeaderCase {
  Bytes kinds;
  Bytes numbers;  // new size, old size less that, base, entries of the map
  int code;
};

// clang-format off
const HeaderCase kHeaderCases[] = {
  {{0x01, 0x00}, {100, 0, 0, 0},                                   KELVANE_DENSE_OK},
  {{0x11, 0xBD}, {100, 0x80, 0x00, 0x8F, 0, 0},                    KELVANE_DENSE_OK},  // longer than they need
  {{0x01, 0x00}, {100, 0, 0, 1},                                   KELVANE_DENSE_BAD_PAYLOAD},  // an entry behind the end
  {{},           {},                                               KELVANE_DENSE_BAD_HEADER},
  {{0x01, 0x00}, {100, 0, 0},                                      KELVANE_DENSE_BAD_HEADER},  // cut
  {{0x02, 0x00}, {100, 0, 0, 0},                                   KELVANE_DENSE_BAD_HEADER},  // version
  {{0x21, 0x00}, {100, 0, 0, 0},                                   KELVANE_DENSE_BAD_HEADER},  // model
  {{0x01, 0x06}, {100, 0, 0, 0},                                   KELVANE_DENSE_BAD_HEADER},  // machine
  {{0x01, 0x00}, {101, 1, 0, 0},                                   KELVANE_DENSE_NO_ROOM},
  {{0x01, 0x00}, {100, 2, 0, 0},                                   KELVANE_DENSE_NO_ROOM},
  {{0x01, 0x00}, {0, 1, 0, 0},                                     KELVANE_DENSE_NO_ROOM},  // -1 byte
  {{0x01, 0x00}, {100, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0},        KELVANE_DENSE_OK},
  {{0x01, 0x00}, {100, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x10, 0},        KELVANE_DENSE_BAD_HEADER},  // above 32 bits
  {{0x01, 0x00}, {100, 0, 0x80, 0x80, 0x80, 0x80, 0x80, 0, 0},     KELVANE_DENSE_BAD_HEADER},  // a sixth byte
  {{0x01, 0x20}, {100, 0, 0x80, 0x80, 0x80, 0x80, 0x01, 0},        KELVANE_DENSE_BAD_HEADER},  // the base, times 16
  {{0x01, 0x00}, {100, 0, 0, 0x80, 0x80, 0x04},                    KELVANE_DENSE_BAD_HEADER},  // 65536 entries
  {{0x01, 0x00}, {100, 0, 0, 2},                                   KELVANE_DENSE_NO_ROOM},     // of the map
};
// clang-format on

TEST(DenseDecoderTest, AHeaderIsTakenOrRefusedByWhatItSays) {
  Random random(1);
  for (const HeaderCase& header : kHeaderCases) {
    SCOPED_TRACE(&header - kHeaderCases);
    const Bytes payload =
        joined({header.kinds, Bytes(header.kinds.empty() ? 0 : 8), header.numbers});
    CheckedRun memory({}, payload, random);
    const kelvane_dense_input input = {&memory,
                                       static_cast<uint32_t>(payload.size()),
                                       CheckedRun::read_payload,
                                       CheckedRun::read_old,
                                       CheckedRun::read_new,
                                       100};
    kelvane_dense_decoder decoder;
    kelvane_dense_info info = {};
    uint32_t map[4] = {};
    EXPECT_EQ(kelvane_dense_open(&decoder, &input, map, sizeof map, &info), header.code);
  }
}

// Even one that no command uses.
TEST(DenseDecoderTest, AnEntryOfTheMapThatLiesOutsideIsRefused) {
  Random random(2);
  const Bytes image = random.bytes(64);
  const plan_images images = {image, image};
  for (const kelvane_dense_entry& entry : {kelvane_dense_entry{8, 40, 24},
                                           {8, 40, 25},
                                           {8, 64, 1},
                                           {8, 70, 1},
                                           {40, 8, 24},
                                           {40, 8, 25},
                                           {64, 8, 1},
                                           {70, 8, 1}}) {
    SCOPED_TRACE(std::to_string(entry.source) + ", " + std::to_string(entry.target));
    dense_plan plan;
    plan.copies = {{0, 0, 64}};
    plan.map = {entry};
    const Bytes payload = write_dense(images, checksums_of(images), plan, {});
    EXPECT_EQ(CheckedRun(image, payload, random).code,
              entry.length == 24 ? KELVANE_DENSE_OK : KELVANE_DENSE_BAD_PAYLOAD);
    expect_agreement(image, payload, random);
  }
}

// Each bit is what the counter by the second byte ahead takes it to be, against the other two,
// until a weight overflows.
TEST(DenseFormatTest, AWeightThatOverflowsIsTheSameForBothDecoders) {
  dense_model model({}, 0, {}, {});
  Bytes image;
  bool has_overflowed = false;
  for (uint32_t recent = 0; image.size() < 1024; recent = recent_behind(recent, image.back())) {
    const kelvane_dense_place place = literal_place(static_cast<uint32_t>(image.size()), recent);
    uint32_t node = 1;
    while (node < 256) {
      kelvane_dense_opinions says;
      kelvane_dense_weigh(&model.decoder(), &place, node, &says);
      const unsigned bit = says.said[2] > says.said[0] + says.said[1] ? 1 : 0;
      const int32_t weight = says.weights[2];
      kelvane_dense_learn_bit(&says, bit);
      has_overflowed = has_overflowed || says.weights[2] < weight - 0x8000;
      node = 2 * node + bit;
    }
    image.push_back(static_cast<uint8_t>(node));
  }
  EXPECT_TRUE(has_overflowed);
  dense_plan plan;
  plan.items = {{static_cast<uint32_t>(image.size()) & 0xFFFFU, dense_item::literal, 0}};
  const plan_images images = {{}, image};
  const Bytes payload = write_dense(images, checksums_of(images), plan, {});
  EXPECT_EQ(plain_dense_decode({}, payload, kLargestDecoded), image);
  EXPECT_EQ(decode_dense({}, payload, kLargestDecoded), image);
}

// The worked payload of docs/dense-format.md.
TEST(DenseFormatTest, TheWorkedPayloadIsWhatTheFormatPageShows) {
  Bytes old_image;
  Bytes new_image;
  for (const uint32_t word : {0x11U, 0x1008U, 0x22U, 0x1004U, 0x33U, 0x1010U}) {
    append_word(old_image, word, false);
  }
  for (const uint32_t word : {0x11U, 0x100CU, 0x55U, 0x22U, 0x1004U, 0x34U, 0x1014U}) {
    append_word(new_image, word, false);
  }
  dense_plan plan;
  plan.copies = {{0, 0, 8}, {8, 12, 16}};
  plan.map = {{0, 0, 8}, {8, 12, 16}};
  plan.items = {{4, dense_item::literal, 0}};
  dense_options options;
  options.target.base = 0x1000;
  options.model = 0;
  options.reads_new = false;
  options.differences = false;
  const plan_images images = {old_image, new_image};
  const Bytes payload = write_dense(images, checksums_of(images), plan, options);
  EXPECT_EQ(plain_dense_decode(old_image, payload, kLargestDecoded), new_image);
  EXPECT_EQ(payload, (Bytes{0x01, 0x60, 0x59, 0x3C, 0x04, 0xA9, 0x30, 0x3B, 0xE2, 0x21, 0x1C, 0x07,
                            0x01, 0x02, 0xFD, 0xA5, 0xFE, 0x41, 0xCE, 0x53, 0x51, 0xB3, 0x80}));
}

}  // namespace
}  // namespace kelvane
