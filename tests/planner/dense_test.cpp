// SPDX-License-Identifier: Apache-2.0
// Dense updates: made, decoded in place, decoded a second time by the plain decoder, and damaged.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "checked_run.h"
#include "dense_machines.h"
#include "dense_matches.h"
#include "dense_model.h"
#include "dense_proof.h"
#include "dense_search.h"
#include "dense_writer.h"
#include "image_pair.h"
#include "linked_program.h"
#include "plain_dense_decoder.h"
#include "restarted_device.h"

namespace kelvane {
namespace {

constexpr ByteOrder kLittle = ByteOrder::kLittle;
constexpr ByteOrder kBig = ByteOrder::kBig;

uint32_t pairs_of_a_kind() {
  const char* const wanted = std::getenv("KELVANE_ROUNDS");
  return wanted != nullptr ? static_cast<uint32_t>(std::atoi(wanted)) : KELVANE_PAIRS_OF_A_KIND;
}

dense_request request_for(const ImagePair& pair) {
  dense_request request;
  request.images = {pair.old_image, pair.new_image};
  request.effort = dense_effort::quick;
  return request;
}

// A program of some 12 KB, and the same with a function more and two in each other's place.
ImagePair program_pair(const dense_target& target) {
  Random random(77);
  LinkedProgram program(110, random);
  ImagePair pair;
  pair.old_image = program.link(target);
  program.insert(31, random);
  program.swap(50, 52);
  pair.new_image = program.link(target);
  return pair;
}

struct MachineCase {
  const char* name;
  dense_target target;
  uint32_t bytes;  // of the payload, kept on purpose: a larger one needs a reason
};

// clang-format off
const MachineCase kMachineCases[] = {
  {"none",       {KELVANE_DENSE_NONE,    kLittle, kLittle, 0x00010000}, 168},
  {"thumb",      {KELVANE_DENSE_THUMB,   kLittle, kLittle, 0x08004000}, 128},
  {"thumb_be",   {KELVANE_DENSE_THUMB,   kBig,    kBig,    0x00100000}, 121},
  {"thumb_be8",  {KELVANE_DENSE_THUMB,   kLittle, kBig,    0x00100000}, 120},
  {"arm",        {KELVANE_DENSE_ARM,     kLittle, kLittle, 0x00010000}, 139},
  {"arm_be8",    {KELVANE_DENSE_ARM,     kLittle, kBig,    0x00010000}, 140},
  {"powerpc",    {KELVANE_DENSE_POWERPC, kBig,    kBig,    0x00FF8000}, 160},
  {"powerpc_le", {KELVANE_DENSE_POWERPC, kLittle, kLittle, 0x10000000}, 158},
  {"mips",       {KELVANE_DENSE_MIPS,    kBig,    kBig,    0x9FC00000}, 150},
  {"mips_le",    {KELVANE_DENSE_MIPS,    kLittle, kLittle, 0x80000000}, 154},
  {"riscv",      {KELVANE_DENSE_RISCV,   kLittle, kLittle, 0x20400000}, 140},
};
// clang-format on

class DenseMachineTest : public testing::TestWithParam<MachineCase> {};

TEST_P(DenseMachineTest, AnInsertAndASwapCostWhatTheLedgerSays) {
  const ImagePair pair = program_pair(GetParam().target);
  dense_request request = request_for(pair);
  request.effort = dense_effort::normal;
  request.target = GetParam().target;
  request.base_is_known = true;
  request.geometry = {1024, 2, 4, 0};
  const dense_update update = search_dense(request);
  EXPECT_EQ(plain_dense_decode(pair.old_image, update.payload, kLargestDecoded), pair.new_image);
  Random random(1);
  EXPECT_EQ(CheckedRun(pair.old_image, update.payload, random, 3).wrote, pair.new_image);
  EXPECT_EQ(update.payload.size(), GetParam().bytes) << "of " << pair.new_image.size();
}

TEST_P(DenseMachineTest, MachineAndBaseAreFoundFromTheImages) {
  if (GetParam().target.machine == KELVANE_DENSE_NONE) {
    return;  // addresses alone: any machine serves
  }
  const ImagePair pair = program_pair(GetParam().target);
  const dense_update update = search_dense(request_for(pair));
  EXPECT_EQ(update.options.target.machine, GetParam().target.machine);
  EXPECT_EQ(update.options.target.code_order, GetParam().target.code_order);
  EXPECT_EQ(update.options.target.data_order, GetParam().target.data_order);
  EXPECT_EQ(update.options.target.base, GetParam().target.base);
}

INSTANTIATE_TEST_SUITE_P(Machines, DenseMachineTest, testing::ValuesIn(kMachineCases),
                         [](const auto& machine) { return machine.param.name; });

// Branches whose field takes every value, in steps that leave no bit out.
struct BranchCase {
  uint8_t machine;
  uint32_t instruction;  // with an empty field
  uint32_t field;        // its bits
  int form;
};

// clang-format off
const BranchCase kBranchCases[] = {
  {KELVANE_DENSE_THUMB,   0xF000D000, 0x07FF2FFF, 1},  // BL
  {KELVANE_DENSE_THUMB,   0xF0009000, 0x07FF2FFF, 1},  // B.W
  {KELVANE_DENSE_THUMB,   0xF000C000, 0x07FF2FFE, 1},  // BLX
  {KELVANE_DENSE_THUMB,   0xF0408000, 0x043F2FFF, 2},  // BNE.W
  {KELVANE_DENSE_ARM,     0xEB000000, 0x00FFFFFF, 1},
  {KELVANE_DENSE_POWERPC, 0x48000001, 0x03FFFFFC, 1},
  {KELVANE_DENSE_POWERPC, 0x41820000, 0x0000FFFC, 2},
  {KELVANE_DENSE_MIPS,    0x0C000000, 0x03FFFFFF, 1},
  {KELVANE_DENSE_RISCV,   0x000000EF, 0xFFFFF000, 1},
  {KELVANE_DENSE_RISCV,   0x00A50063, 0xFE000F80, 2},
  {KELVANE_DENSE_RISCV,   0x0000A001, 0x00001FFC, 3},  // C.J
  {KELVANE_DENSE_RISCV,   0x0000C001, 0x00001C7C, 4},  // C.BEQZ
};
// clang-format on

TEST(DenseReferencesTest, ABranchToItsOwnTargetIsTheSameInstruction) {
  for (const BranchCase& branch : kBranchCases) {
    dense_options options;
    options.target.machine = branch.machine;
    options.target.base = 0x10000000;
    dense_model model({}, 0, options, {});
    for (const uint32_t place : {0x10000000U, 0x10000002U, 0x13FFFFFCU}) {
      // Every value of the field: the next one of a number whose bits are those of the mask.
      uint32_t bits = 0;
      uint32_t wrong = 0;
      do {
        const uint32_t instruction = branch.instruction | bits;
        uint32_t target = 0;
        const int form = kelvane_dense_branch_target(&model.decoder(), instruction, place, &target);
        wrong += form != branch.form || kelvane_dense_branch_to(&model.decoder(), instruction,
                                                                place, target, form) != instruction
                     ? 1
                     : 0;
        bits = (bits - branch.field) & branch.field;
      } while (bits != 0);
      EXPECT_EQ(wrong, 0U) << std::hex << branch.instruction << " at " << place;
    }
  }
}

// Returns of a machine in each 400 bytes of anything, and one of another machine now and then.
TEST(DenseMachinesTest, TheReturnsOfFunctionsTellTheMachine) {
  struct row {
    uint8_t machine;
    uint32_t size;
    uint32_t instruction;
  };
  constexpr row kRows[] = {
      {KELVANE_DENSE_THUMB, 2, 0x4770},       {KELVANE_DENSE_THUMB, 2, 0xBD70},
      {KELVANE_DENSE_ARM, 4, 0xE12FFF1E},     {KELVANE_DENSE_ARM, 4, 0xE8BD8070},
      {KELVANE_DENSE_POWERPC, 4, 0x4E800020}, {KELVANE_DENSE_MIPS, 4, 0x03E00008},
      {KELVANE_DENSE_RISCV, 2, 0x8082},       {KELVANE_DENSE_RISCV, 4, 0x00008067},
  };
  Random random(5);
  const Bytes anything = random.bytes(100001);
  EXPECT_EQ(machine_by_returns(anything), std::nullopt);
  EXPECT_EQ(machine_by_returns({}), std::nullopt);
  for (const row& each : kRows) {
    for (const bool big_endian : {false, true}) {
      Bytes image = anything;
      const auto put = [&](size_t at, const row& what) {
        for (uint32_t k = 0; k < what.size; ++k) {
          image[at + k] =
              static_cast<uint8_t>(what.instruction >> 8 * (big_endian ? what.size - 1 - k : k));
        }
      };
      for (size_t at = 0; at + 8 < image.size(); at += 400) {
        put(at, each);
        put(at + 4, kRows[at / 400 % 16 == 0 ? 5 : &each - kRows]);
      }
      EXPECT_EQ(machine_by_returns(image), each.machine) << std::hex << each.instruction;
    }
  }
}

dense_request any_request(const ImagePair& pair, Random& random) {
  dense_request request = request_for(pair);
  constexpr uint32_t kCheckpoints[] = {0, 1, 2, 4, 8, 16};
  request.geometry.page_size = 16U << random.below(6);
  request.geometry.ring_pages = random.below(5);
  request.geometry.slots = random.below(4);
  request.geometry.checkpoint = kCheckpoints[random.below(std::size(kCheckpoints))];
  if (request.geometry.ring_pages != 0 && random.below(4) != 0) {
    request.geometry.ring_pages += std::max(request.geometry.checkpoint, 1U) - 1;
  }
  request.geometry.raise = random.below(2) * random.below(12);
  request.model = static_cast<uint8_t>(random.below(2));
  request.reads_new = random.below(2) == 0;
  request.map_limit = random.below(3) == 0 ? random.below(4) : 2048;
  if (random.below(8) != 0) {
    request.target =
        dense_target{static_cast<uint8_t>(random.below(KELVANE_DENSE_MACHINES)),
                     byte_order_of(random.below(2) == 0), byte_order_of(random.below(2) == 0), 0};
  }
  return request;
}

class DenseRoundTripTest : public testing::TestWithParam<PairKind> {};

// search_dense throws if an update reads what the device has not kept, or is wrong otherwise; the
// device that is restarted knows nothing of the rule by which it finds that.
TEST_P(DenseRoundTripTest, AnUpdateServesItsDeviceAndBothDecodersAgree) {
  for (uint32_t seed = 1; seed <= pairs_of_a_kind(); ++seed) {
    Random random(seed * 64 + static_cast<uint32_t>(GetParam()));
    const ImagePair pair = make_pair_of(GetParam(), random);
    const dense_request request = any_request(pair, random);
    SCOPED_TRACE("seed " + std::to_string(seed));
    const dense_update update = search_dense(request);
    const CheckedRun run(pair.old_image, update.payload, random);
    ASSERT_EQ(run.code, KELVANE_DENSE_OK);
    ASSERT_EQ(run.wrote, pair.new_image);
    ASSERT_EQ(plain_dense_decode(pair.old_image, update.payload, kLargestDecoded), pair.new_image);
    ASSERT_EQ(RestartedDevice(request, update).run(random), pair.new_image);
    Bytes damaged = update.payload;
    damaged[random.below(damaged.size())] ^= static_cast<uint8_t>(1 + random.below(255));
    expect_agreement(pair.old_image, damaged, random);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, DenseRoundTripTest, testing::ValuesIn(kAllPairKinds),
                         [](const auto& kind) { return name_of(kind.param); });

TEST(DenseProofTest, AReadThatTheDeviceHasNotKeptIsAFault) {
  const ImagePair pair = program_pair(kMachineCases[1].target);
  dense_request request = request_for(pair);
  request.target = kMachineCases[1].target;
  request.geometry = {256, 0, 0, 0};
  const dense_update update = search_dense(request);
  EXPECT_EQ(fault_of_dense(request.images, update.payload, {}, request.geometry), "");
  EXPECT_EQ(fault_of_dense(request.images, update.payload, {}, {256, 1, 0, 0}),
            "it reads what the device has not kept");
  ImagePair other = pair;
  other.new_image.back() ^= 1;
  EXPECT_EQ(
      fault_of_dense({other.old_image, other.new_image}, update.payload, {}, request.geometry),
      "its checksums are not those of the images");
}

// Four pages of 64 bytes, a byte changed in some; the last one becomes what `source` was.
struct PageCase {
  std::vector<uint32_t> changed;
  uint32_t source;
  uint32_t ring;
  uint32_t checkpoint;
  std::vector<kept_page> kept;
  bool is_readable;
};

// clang-format off
const PageCase kPageCases[] = {
  {{0},    0, 1, 0, {},                     false},
  {{0},    0, 2, 0, {},                     true},   // pages 1 and 2 do not change
  {{0, 1}, 0, 2, 0, {},                     false},
  {{0, 1}, 0, 3, 0, {},                     true},
  {{},     0, 1, 0, {},                     true},   // page 0 does not change
  {{0},    0, 1, 0, {{0, 0, 3}},            true},
  {{0, 1}, 0, 1, 0, {{0, 0, 3}, {1, 0, 1}}, false},  // page 1 has taken the slot
  {{0},    0, 1, 0, {{0, 1, 3}},            false},  // there is one slot
  {{0, 2}, 1, 1, 1, {},                     true},
  {{0, 2}, 1, 1, 2, {},                     false},  // page 0 may be computed again behind page 2
  {{0, 2}, 1, 2, 2, {},                     true},
  {{0, 2}, 1, 1, 2, {{0, 0, 2}},            true},
  {{0, 2}, 2, 1, 2, {},                     false},
};
// clang-format on

// The proof sees what the device has when the group ends, and the encoder counts on the same.
TEST(DenseProofTest, WhatCanBeReadIsWhatTheDeviceHasWhenTheGroupEnds) {
  Random random(3);
  for (const PageCase& pages : kPageCases) {
    SCOPED_TRACE(&pages - kPageCases);
    const Bytes old_image = random.bytes(256);
    Bytes new_image = old_image;
    std::copy_n(old_image.begin() + pages.source * 64, 64, new_image.begin() + 192);
    for (const uint32_t page : pages.changed) {
      new_image[page * 64 + 7] ^= 1;
    }
    dense_plan plan;
    plan.copies = {{0, 0, 192}, {pages.source * 64, 192, 64}};
    const plan_images images = {old_image, new_image};
    const Bytes payload = write_dense(images, checksums_of(images), plan, {});
    const std::string fault =
        fault_of_dense(images, payload, pages.kept, {64, pages.ring, 1, pages.checkpoint});
    EXPECT_EQ(fault, pages.is_readable ? "" : "it reads what the device has not kept");
    if (pages.kept.empty()) {
      dense_request request;
      request.images = images;
      request.reads_new = false;
      request.geometry = {64, pages.ring, 0, pages.checkpoint};
      EXPECT_EQ(search_dense(request).payload.size() < 64, pages.is_readable);
    }
  }
}

TEST(DenseSearchTest, TheNumberOfJobsChangesNoByte) {
  const ImagePair pair = program_pair(kMachineCases[6].target);
  dense_request request = request_for(pair);
  request.effort = dense_effort::normal;
  const Bytes payload = search_dense(request).payload;
  for (const uint32_t jobs : {2U, 5U}) {
    request.jobs = jobs;
    EXPECT_EQ(search_dense(request).payload, payload) << jobs;
  }
}

TEST(DenseSearchTest, AMachineThatGainsNothingIsNone) {
  Random random(1);
  uint32_t ties = 0;
  for (int i = 0; i < 12; ++i) {
    const Bytes before = random.bytes(3000);
    Bytes after = before;
    after[random.below(after.size())] ^= 0x5A;
    const ImagePair pair = {before, after};
    dense_request request = request_for(pair);
    const dense_update update = search_dense(request);
    request.target = {KELVANE_DENSE_NONE, kLittle, kLittle, 0};
    if (search_dense(request).payload.size() == update.payload.size()) {
      EXPECT_EQ(update.options.target.machine, KELVANE_DENSE_NONE);
      ++ties;
    }
  }
  EXPECT_GT(ties, 0U);
}

// Patterns that repeat have a match everywhere: a search that looks at all of them takes minutes.
TEST(DenseSearchTest, APatternThatRepeatsCostsFewBytesAndLittleTime) {
  Random random(4);
  const Bytes before = random.bytes(4096);
  for (const uint32_t period : {1U, 2U, 4U, 600U}) {
    SCOPED_TRACE(period);
    const Bytes pattern = random.bytes(period);
    Bytes after = before;
    while (after.size() < 262144) {
      after.insert(after.end(), pattern.begin(), pattern.end());
    }
    const dense_update update = search_dense(request_for({before, after}));
    EXPECT_LT(update.payload.size(), 150 + period);
    EXPECT_EQ(plain_dense_decode(before, update.payload, kLargestDecoded), after);
  }
}

// Every byte of small updates changed in six ways, and every length.
TEST(DenseHostileTest, DamagedPayloadsAreRefusedOrDecodedInsideTheImages) {
  for (const size_t i : {1U, 5U, 6U, 8U, 10U}) {
    const dense_target& target = kMachineCases[i].target;
    Random random(5);
    LinkedProgram program(12, random);
    const Bytes old_image = program.link(target);
    program.insert(4, random);
    program.swap(8, 10);
    const Bytes new_image = program.link(target);
    ImagePair pair = {old_image, new_image};
    dense_request request = request_for(pair);
    request.target = target;
    const Bytes payload = search_dense(request).payload;
    for (size_t at = 0; at < payload.size(); ++at) {
      SCOPED_TRACE(at);
      for (const int change : {0x01, 0x80, 0xFF, 0x10, 0x5A}) {
        Bytes damaged = payload;
        damaged[at] ^= static_cast<uint8_t>(change);
        expect_agreement(old_image, damaged, random);
      }
      Bytes zeroed = payload;
      zeroed[at] = 0;
      expect_agreement(old_image, zeroed, random);
      expect_agreement(old_image, std::span(payload).first(at), random);
    }
  }
}

TEST(DenseDecoderTest, AWindowOutOfTurnAndALargerModelOrMapAreRefused) {
  const ImagePair pair = program_pair(kMachineCases[1].target);
  dense_request request = request_for(pair);
  request.target = kMachineCases[1].target;
  const Bytes payload = search_dense(request).payload;
  Random random(1);
  CheckedRun memory(pair.old_image, payload, random);
  kelvane_dense_input input = {&memory,
                               static_cast<uint32_t>(payload.size()),
                               CheckedRun::read_payload,
                               CheckedRun::read_old,
                               CheckedRun::read_new,
                               0};
  auto decoder = std::make_unique<kelvane_dense_decoder>();
  kelvane_dense_info info = {};
  std::vector<uint32_t> map(1000);
  EXPECT_EQ(kelvane_dense_open(decoder.get(), &input, nullptr, 0, &info), KELVANE_DENSE_NO_ROOM);
  EXPECT_EQ(info.new_size, pair.new_image.size());
  uint8_t bytes[16] = {};
  EXPECT_EQ(kelvane_dense_window(decoder.get(), 0, bytes, 16), KELVANE_DENSE_BAD_ARGUMENT);
  EXPECT_EQ(kelvane_dense_open(decoder.get(), &input, map.data(), 4000, &info), KELVANE_DENSE_OK);
  EXPECT_EQ(kelvane_dense_restart(decoder.get()), KELVANE_DENSE_OK);
  EXPECT_EQ(kelvane_dense_window(decoder.get(), 4, bytes, 12), KELVANE_DENSE_BAD_ARGUMENT);
  EXPECT_EQ(kelvane_dense_window(decoder.get(), 0, bytes, 16), KELVANE_DENSE_BAD_ARGUMENT);
  input.largest_image = 100;
  EXPECT_EQ(kelvane_dense_open(decoder.get(), &input, map.data(), 4000, &info),
            KELVANE_DENSE_NO_ROOM);
  EXPECT_EQ(kelvane_dense_restart(decoder.get()), KELVANE_DENSE_BAD_ARGUMENT);
}

}  // namespace
}  // namespace kelvane
