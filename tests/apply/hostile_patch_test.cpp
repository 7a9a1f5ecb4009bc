// Small good patches, damaged in every place: each byte changed in six ways, each length cut.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "applier.h"
#include "patch_builder.h"
#include "target_memory.h"
#include "worked_patch.h"

namespace kelvane {
namespace {

using Order = PatchBuilder::Order;
using Regions = std::vector<std::pair<uint32_t, std::string>>;

struct Subject {
  const char* name;
  std::string patch;
  std::string old_contents;
  std::string new_contents;
  uint32_t address;  // of the memory: 0 for a file
  uint32_t flags;
};

std::vector<Subject> subjects() {
  const std::string old_file = worked_old_file();
  const std::string new_file = worked_new_file();
  std::vector<Subject> all = {
      {"worked", worked_patch(), old_file, new_file, 0, 0},
      {"worked, version 0", worked_patch().substr(24, 16) + worked_patch().substr(48), old_file,
       new_file, 0, KELVANE_V0_BIG_ENDIAN}};
  const std::string old_bytes = from_hex("01000000 02000000 FF000000 FFFF0000 61626364 65666768");
  const std::string new_bytes = from_hex("05000000 02000000 03010000 00000100 61616161 61616465");
  PatchBuilder commands(Order::kLittle);
  commands.move({{16, 5, 3}, {16, 2, 2}}).substitute(5, {{16, from_hex("01 61 EE F2")}});
  commands.substitute(1, {}, {{{21, "a"}, {22, "d"}}}).substitute(2, {{23, "e"}});
  commands.increments({{1, {12}}, {4, {0, 8}}});
  PatchBuilder framed(Order::kLittle);
  framed.checksum({{0x8000, 0x8018}}, patch_checksum(old_bytes));
  PatchBuilder moved(Order::kLittle);
  // The same commands with the addresses of the target.
  moved.move({{0x8010, 5, 3}, {0x8010, 2, 2}});
  moved.substitute(5, {{0x8010, from_hex("01 61 EE F2")}});
  moved.substitute(1, {}, {{{0x8015, "a"}, {0x8016, "d"}}}).substitute(2, {{0x8017, "e"}});
  moved.increments({{1, {0x800C}}, {4, {0x8000, 0x8008}}});
  framed.bytes(moved.commands()).checksum({{0x8000, 0x8018}}, patch_checksum(new_bytes));
  all.push_back({"version 0", commands.version0(old_bytes, new_bytes), old_bytes, new_bytes, 0, 0});
  all.push_back({"version 1", commands.version1(old_bytes, new_bytes), old_bytes, new_bytes, 0, 0});
  all.push_back(
      {"memory", framed.version1_memory(0x8000, 0x8004), old_bytes, new_bytes, 0x8000, 0});
  return all;
}

bool writes_nothing(int code) {
  return code != KELVANE_APPLY_OK && code != KELVANE_APPLY_NEW_CHECKSUM;
}

struct Outcome {
  int code;
  std::string contents;
};

// Whatever `patch` is: no access outside, and nothing written by a patch that is refused.
Outcome hold_against(const Subject& subject, std::string_view patch, uint32_t skip) {
  const uint32_t room = 8;
  std::string contents = subject.old_contents;
  if (subject.new_contents.size() > contents.size()) {
    contents.resize(subject.new_contents.size());
  }
  TargetMemory memory(Regions{{subject.address, contents + std::string(room, '\xEE')}});
  memory.access()->old_size = static_cast<uint32_t>(subject.old_contents.size());
  const int code = apply_patch(patch, memory, subject.flags, skip);
  EXPECT_TRUE(memory.guards_stand());
  EXPECT_EQ(memory.outside, 0U);
  if (writes_nothing(code)) {
    EXPECT_EQ(memory.writes, 0U);
  }
  return {code, memory.contents().substr(0, subject.new_contents.size())};
}

TEST(HostilePatch, IsSoundBeforeItIsDamaged) {
  for (const Subject& subject : subjects()) {
    SCOPED_TRACE(subject.name);
    const Outcome outcome = hold_against(subject, subject.patch, 0);
    EXPECT_EQ(outcome.code, KELVANE_APPLY_OK);
    EXPECT_EQ(outcome.contents, subject.new_contents);
  }
}

TEST(HostilePatch, IsRefusedOrGivesAChecksumFailureWithAnyByteChanged) {
  for (const Subject& subject : subjects()) {
    for (size_t place = 0; place < subject.patch.size(); ++place) {
      SCOPED_TRACE(std::string(subject.name) + " at " + std::to_string(place));
      const auto byte = static_cast<uint8_t>(subject.patch[place]);
      for (const int changed : {byte ^ 1, byte ^ 0x80, byte + 1, byte - 1, 0, 0xFF}) {
        std::string patch = subject.patch;
        patch[place] = static_cast<char>(static_cast<uint8_t>(changed));
        if (patch == subject.patch) {
          continue;
        }
        // Version 0 has no checksum of its own; a move may there be changed so that the commands
        // behind it still make the new contents.
        const Outcome outcome = hold_against(subject, patch, 0);
        if (outcome.code == KELVANE_APPLY_OK) {
          EXPECT_NE(subject.patch[0], '\x7F') << changed;
          EXPECT_EQ(outcome.contents, subject.new_contents) << changed;
        }
        hold_against(subject, patch, KELVANE_SKIP_OLD | KELVANE_SKIP_NEW);
      }
    }
  }
}

TEST(HostilePatch, IsRefusedOrGivesAChecksumFailureAtAnyLength) {
  for (const Subject& subject : subjects()) {
    for (size_t size = 0; size < subject.patch.size(); ++size) {
      SCOPED_TRACE(std::string(subject.name) + " cut to " + std::to_string(size));
      EXPECT_NE(hold_against(subject, subject.patch.substr(0, size), 0).code, KELVANE_APPLY_OK);
      hold_against(subject, subject.patch.substr(0, size), KELVANE_SKIP_OLD | KELVANE_SKIP_NEW);
    }
  }
}

// A checksum that was made right again leaves only the structure and the ranges to hold.
TEST(HostilePatch, StaysInsideTheMemoryWhenItsChecksumIsMadeToFit) {
  for (const Subject& subject : subjects()) {
    const bool in_file = subject.address == 0;
    if (subject.patch[0] != '\x7F') {
      continue;
    }
    const size_t place_of_sum = in_file ? 44 : 28;
    const bool big = subject.patch[20] == 0;
    for (size_t place = place_of_sum + 4; place < subject.patch.size(); ++place) {
      SCOPED_TRACE(std::string(subject.name) + " at " + std::to_string(place));
      for (int changed = 0; changed < 256; ++changed) {
        std::string patch = subject.patch;
        patch[place] = static_cast<char>(static_cast<uint8_t>(changed));
        PatchBuilder sum(big ? Order::kBig : Order::kLittle);
        sum.word(patch_checksum(patch.substr(place_of_sum + 4)));
        patch.replace(place_of_sum, 4, sum.commands());
        hold_against(subject, patch, 0);
        hold_against(subject, patch, KELVANE_SKIP_OLD | KELVANE_SKIP_NEW);
      }
    }
  }
}

}  // namespace
}  // namespace kelvane
