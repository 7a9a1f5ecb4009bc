// SPDX-License-Identifier: Apache-2.0
// Images of updates read from ELF files: where the bytes lie, what the headers tell, and damage.

#include "kelmake_elf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "image_builder.h"
#include "loaded_image.h"

namespace kelmake {
namespace {

using kelvane::ByteOrder;
using kelvane::Bytes;
using kelvane::ByteWriter;
using testing::ElementsAre;

namespace elf32 = kelvane::elf32;

struct Segment {
  uint32_t load_address;
  uint32_t virtual_address;
  Bytes bytes;
  uint32_t flags = 0;
  uint32_t type = elf32::PT_LOAD;
};

struct Build {
  std::vector<Segment> segments;
  uint16_t machine = elf32::EM_ARM;
  uint32_t flags = 0;
  uint32_t entry = 0;
  std::vector<std::string> marks = {};
  ByteOrder order = ByteOrder::kLittle;
};

// The program headers are the first section, and each segment is one of the others.
Bytes elf_of(const Build& build) {
  kelvane::Image image;
  image.order = build.order;
  image.machine = build.machine;
  image.flags = build.flags;
  ByteWriter headers(build.order);
  auto offset = static_cast<uint32_t>(elf32::kFileHeaderSize +
                                      build.segments.size() * elf32::kProgramHeaderSize);
  image.sections.push_back({.name = ".headers"});
  for (const Segment& segment : build.segments) {
    const auto size = static_cast<uint32_t>(segment.bytes.size());
    for (const uint32_t field : {segment.type, offset, segment.virtual_address,
                                 segment.load_address, size, size, segment.flags, 4U}) {
      headers.u32(field);
    }
    image.sections.push_back({.name = ".segment", .content = segment.bytes});
    offset += (size + 3) / 4 * 4;
  }
  image.sections[0].content = headers.bytes();
  for (const std::string& mark : build.marks) {
    image.symbols.push_back({.name = mark});
  }
  image.damage = [&](elf32::file_header& header, std::vector<elf32::section_header>& /*sections*/) {
    header.e_entry = build.entry;
    header.e_phoff = elf32::kFileHeaderSize;
    header.e_phentsize = elf32::kProgramHeaderSize;
    header.e_phnum = static_cast<uint16_t>(build.segments.size());
  };
  return build_image(image);
}

const Bytes kCode = {1, 2, 3, 4, 5, 6};

TEST(KelmakeElfTest, LaysSegmentsOutByPages) {
  constexpr uint32_t kPage = 16;
  // Code, a word of data that is copied to RAM, a stretch two pages on, and what is not loaded.
  const Build build = {{{0x1044, 0x1044, {7, 7}},
                        {0x1004, 0x8004, kCode, elf32::PF_X},
                        {0x100C, 0x20000000, {9, 9, 9, 9}},
                        {0x1000, 0x1000, {5, 5, 5, 5}, 0, 4},
                        {0x1030, 0x20000100, {}}}};
  Build longer = build;
  longer.segments[0].bytes.resize(20, 8);
  const FlashImages images = lay_out("old", elf_of(build), "new", elf_of(longer), kPage);
  EXPECT_EQ(images.load_address, 0x1000U);
  EXPECT_THAT(
      Bytes(images.old_image.begin(), images.old_image.begin() + 20),
      ElementsAre(255, 255, 255, 255, 1, 2, 3, 4, 5, 6, 0, 0, 9, 9, 9, 9, 255, 255, 255, 255));
  EXPECT_EQ(images.old_image.size(), 0x46U);
  EXPECT_EQ(images.new_image.size(), 0x58U);
  EXPECT_EQ(images.new_image.back(), 8);
  ASSERT_EQ(images.ranges.size(), 2U);
  EXPECT_EQ(images.ranges[0].pages, 1U);
  EXPECT_EQ(images.ranges[1].first, 4U);
  EXPECT_EQ(images.ranges[1].pages, 2U);
  // The reader that checks updates sees the same.
  kelpatch::NamedImage old_image = {"old", elf_of(build)};
  kelpatch::NamedImage new_image = {"new", elf_of(longer)};
  kelpatch::load_linked(kPage, old_image, &new_image);
  EXPECT_EQ(old_image.bytes, images.old_image);
  EXPECT_EQ(new_image.bytes, images.new_image);
  // Code refers to addresses 0x7000 above those where it is loaded.
  EXPECT_EQ(images.targets.at(0).base, 0x8000U);
}

TEST(KelmakeElfTest, TellsTheMachine) {
  constexpr ByteOrder kLittle = ByteOrder::kLittle;
  constexpr ByteOrder kBig = ByteOrder::kBig;
  struct Case {
    uint16_t machine;
    ByteOrder order;
    uint32_t flags;
    uint32_t entry;
    std::vector<std::string> marks;
    std::vector<uint8_t> machines;
    ByteOrder code_order;
  };
  const Case cases[] = {
      {elf32::EM_ARM, kLittle, 0, 0, {}, {KELVANE_DENSE_THUMB, KELVANE_DENSE_ARM}, kLittle},
      {elf32::EM_ARM, kLittle, 0, 0x101, {}, {KELVANE_DENSE_THUMB}, kLittle},
      {elf32::EM_ARM, kLittle, 0, 0x101, {"$a", "$d", "$a.1", "$t"}, {KELVANE_DENSE_ARM}, kLittle},
      {elf32::EM_ARM, kBig, 0, 0, {"$t.x", "$table"}, {KELVANE_DENSE_THUMB}, kBig},
      {elf32::EM_ARM, kBig, elf32::EF_ARM_BE8, 0, {"$a"}, {KELVANE_DENSE_ARM}, kLittle},
      {elf32::EM_PPC, kBig, elf32::EF_ARM_BE8, 1, {}, {KELVANE_DENSE_POWERPC}, kBig},
      {elf32::EM_MIPS, kBig, 0, 0, {}, {KELVANE_DENSE_MIPS}, kBig},
      {elf32::EM_RISCV, kLittle, 0, 0, {}, {KELVANE_DENSE_RISCV}, kLittle},
      {2, kBig, 0, 0, {"$t"}, {KELVANE_DENSE_NONE}, kBig},
  };
  for (const Case& each : cases) {
    const ElfFile elf = read_elf(
        "file",
        elf_of({{{0, 0, kCode}}, each.machine, each.flags, each.entry, each.marks, each.order}));
    EXPECT_EQ(elf.machines, each.machines) << each.machine;
    EXPECT_EQ(elf.code_order, each.code_order) << each.machine;
    EXPECT_EQ(elf.data_order, each.order) << each.machine;
  }
}

// Any damage is refused in words, or leaves segments that lie in the file.
TEST(KelmakeElfTest, SurvivesDamage) {
  const Bytes sound =
      elf_of({{{0x1000, 0, kCode}, {0x2000, 0, kCode}}, elf32::EM_ARM, 0, 0, {"$a"}});
  const auto try_file = [](const Bytes& file) {
    try {
      for (const ElfSegment& segment : read_elf("file", file).segments) {
        ASSERT_LE(uint64_t{segment.offset} + segment.size, file.size());
      }
    } catch (const kelpatch::Failure& failure) {
      EXPECT_FALSE(failure.message.empty());
    }
    try {
      kelpatch::NamedImage image = {"file", file};
      kelpatch::load_linked(16, image, nullptr);
    } catch (const kelpatch::Failure& failure) {
      EXPECT_FALSE(failure.message.empty());
    }
  };
  for (size_t at = 0; at < sound.size(); ++at) {
    for (const uint32_t value : {0x00U, 0x01U, 0x7FU, 0x80U, 0xFFU}) {
      Bytes damaged = sound;
      damaged[at] = static_cast<uint8_t>(value);
      try_file(damaged);
    }
    try_file(Bytes(sound.begin(), sound.begin() + static_cast<ptrdiff_t>(at)));
  }
}

}  // namespace
}  // namespace kelmake
