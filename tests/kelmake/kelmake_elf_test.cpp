// SPDX-License-Identifier: Apache-2.0
// Images of updates read from ELF files: where the bytes lie, what the headers tell, and damage.

#include "kelmake_elf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "image_builder.h"
#include "loaded_image.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelmake {
namespace {

using kelvane::ByteOrder;
using kelvane::Bytes;
using kelvane::ByteWriter;
using testing::ElementsAre;

namespace elf32 = kelvane::elf32;

struct Segment {
  uint64_t load_address;
  uint64_t virtual_address;
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
  bool is_wide = false;
};

constexpr uint32_t kWideHeaderSize = 64;
constexpr uint32_t kWideEntrySize = 56;

// The file header, the program headers, and the bytes of the segments end to end.
Bytes wide_elf_of(const Build& build) {
  const bool is_big = build.order == ByteOrder::kBig;
  ByteWriter file(build.order);
  file.raw(Bytes{0x7F, 'E', 'L', 'F', elf32::ELFCLASS64, static_cast<uint8_t>(is_big ? 2 : 1), 1});
  file.zeros(9);
  file.u16(2);
  file.u16(build.machine);
  file.u32(1);
  for (const uint64_t field : {uint64_t{build.entry}, uint64_t{kWideHeaderSize}, uint64_t{0}}) {
    file.u64(field);
  }
  file.u32(build.flags);
  const auto count = static_cast<uint16_t>(build.segments.size());
  for (const uint32_t field : {kWideHeaderSize, kWideEntrySize, uint32_t{count}, 0U, 0U, 0U}) {
    file.u16(static_cast<uint16_t>(field));
  }
  uint64_t offset = kWideHeaderSize + uint64_t{kWideEntrySize} * count;
  for (const Segment& segment : build.segments) {
    file.u32(segment.type);
    file.u32(segment.flags);
    const uint64_t size = segment.bytes.size();
    for (const uint64_t field :
         {offset, segment.virtual_address, segment.load_address, size, size, uint64_t{1}}) {
      file.u64(field);
    }
    offset += size;
  }
  for (const Segment& segment : build.segments) {
    file.raw(segment.bytes);
  }
  return file.bytes();
}

// The program headers are the first section, and each segment is one of the others.
Bytes elf_of(const Build& build) {
  if (build.is_wide) {
    return wide_elf_of(build);
  }
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
    for (const uint32_t field :
         {segment.type, offset, static_cast<uint32_t>(segment.virtual_address),
          static_cast<uint32_t>(segment.load_address), size, size, segment.flags, 4U}) {
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

class ElfClass : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(KelmakeElfTest, ElfClass, testing::Bool(),
                         [](const auto& wide) { return wide.param ? "Wide" : "Narrow"; });

TEST_P(ElfClass, LaysSegmentsOutByPages) {
  constexpr uint32_t kPage = 16;
  for (const ByteOrder order : {ByteOrder::kLittle, ByteOrder::kBig}) {
    // Code, a word of data that is copied to RAM, a stretch two pages on, and what is not loaded.
    // What lies above 32 bits of a virtual address is of no use to an update.
    const uint64_t high = GetParam() ? uint64_t{0xFFFFFFFF} << 32U : 0;
    Build build = {{{0x80001044, high + 0x80001044, {7, 7}},
                    {0x80001004, high + 0x80008004, kCode, elf32::PF_X},
                    {0x8000100C, 0x20000000, {9, 9, 9, 9}},
                    {0x80001000, 0x80001000, {5, 5, 5, 5}, 0, 4},
                    {0x80001030, 0x20000100, {}}}};
    build.order = order;
    build.is_wide = GetParam();
    Build longer = build;
    longer.segments[0].bytes.resize(20, 8);
    const FlashImages images = lay_out("old", elf_of(build), "new", elf_of(longer), kPage);
    EXPECT_EQ(images.load_address, 0x80001000U);
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
    EXPECT_EQ(images.targets.at(0).base, 0x80008000U);
  }
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
    bool is_wide = false;
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
      {elf32::EM_RISCV, kLittle, 0, 0, {}, {KELVANE_DENSE_RISCV}, kLittle, true},
      {elf32::EM_RISCV, kBig, 0, 0, {}, {KELVANE_DENSE_RISCV}, kLittle, true},
      {elf32::EM_ARM, kLittle, 0, 1, {}, {KELVANE_DENSE_NONE}, kLittle, true},
      {183, kLittle, 0, 0, {}, {KELVANE_DENSE_NONE}, kLittle, true},
  };
  for (const Case& each : cases) {
    const ElfFile elf = read_elf("file", elf_of({{{0, 0, kCode}},
                                                 each.machine,
                                                 each.flags,
                                                 each.entry,
                                                 each.marks,
                                                 each.order,
                                                 each.is_wide}));
    EXPECT_EQ(elf.machines, each.machines) << each.machine;
    EXPECT_EQ(elf.code_order, each.code_order) << each.machine;
    EXPECT_EQ(elf.data_order, each.order) << each.machine;
  }
}

// What a reader says of the file.
template <typename Read>
std::string words_of(Read read) {
  try {
    read();
  } catch (const kelpatch::Failure& failure) {
    return failure.message;
  }
  return "nothing";
}

TEST_P(ElfClass, RefusesHostileHeaders) {
  const bool is_wide = GetParam();
  const std::string unsound = "fatal: image 'file' is damaged: its program headers are unsound";
  const std::string outside = "fatal: image 'file' is damaged: a header lies outside the file";
  const std::string no_bytes = "fatal: image 'file' is damaged: a segment lies outside the file";
  const std::string too_long =
      "fatal: image 'file' is damaged: a segment has more bytes in the file than in memory";
  const std::string overlap = "fatal: image 'file' is damaged: a segment overlaps another";
  const std::string beyond =
      "fatal: image 'file' is damaged: a segment lies beyond the last address";
  const auto far = [](const char* last) {
    return std::string("fatal: image 'file' loads bytes up to ") + last +
           ", and addresses of an update have 32 bits";
  };
  struct Field {
    uint32_t place;
    uint32_t size;
  };
  const uint32_t word = is_wide ? 8 : 4;
  const Field headers = is_wide ? Field{32, 8} : Field{28, 4};
  const Field entry_size = is_wide ? Field{54, 2} : Field{42, 2};
  const Field entries = is_wide ? Field{56, 2} : Field{44, 2};
  // Of the second program header.
  const Field offset = {is_wide ? 64U + 56 + 8 : 52U + 32 + 4, word};
  const Field address = {offset.place + 2 * word, word};
  const Field file_size = {offset.place + 3 * word, word};
  const Field memory_size = {offset.place + 4 * word, word};
  constexpr uint64_t kMost = UINT64_MAX;
  struct Case {
    Field field;
    uint64_t value;
    std::string by_kelmake;
    std::string by_kelpatch;
  };
  std::vector<Case> cases = {
      {headers, kMost, unsound, outside},
      {headers, kMost - 63, unsound, outside},
      {headers, 0x7FFFFFFF, unsound, outside},
      {entry_size, 0, unsound, unsound},
      {entry_size, is_wide ? 55U : 31U, unsound, unsound},
      {entry_size, 0xFFFF, unsound, outside},
      {entries, 0xFFFF, unsound, outside},
      {offset, kMost, no_bytes, no_bytes},
      {offset, kMost - 5, no_bytes, no_bytes},
      {file_size, kMost, no_bytes, no_bytes},
      {memory_size, 5, too_long, too_long},
      {address, 0x1005, overlap, overlap},
      {address, kMost, beyond, beyond},
      {address, kMost - 4, beyond, beyond},
      {address, is_wide ? 0xFFFFFFFAU : kMost - 5, "nothing",
       "fatal: image 'file' loads nothing, or more than 256 MiB"},
  };
  if (is_wide) {
    cases.push_back({address, 0xFFFFFFFF, far("0x100000004"), far("0x100000004")});
    cases.push_back({address, kMost - 5, far("0xffffffffffffffff"), far("0xffffffffffffffff")});
    cases.push_back({offset, uint64_t{1} << 32U, no_bytes, no_bytes});
    cases.push_back({file_size, (uint64_t{1} << 32U) + 6, no_bytes, no_bytes});
  }
  for (const ByteOrder order : {ByteOrder::kLittle, ByteOrder::kBig}) {
    const Bytes sound = elf_of(
        {{{0x1000, 0, kCode}, {0x2000, 0, kCode}}, elf32::EM_RISCV, 0, 0, {}, order, is_wide});
    for (const Case& each : cases) {
      ByteWriter value(order);
      value.u64(each.value);
      const auto low = value.bytes().begin() + (order == ByteOrder::kBig ? 8 - each.field.size : 0);
      Bytes damaged = sound;
      std::copy_n(low, each.field.size, damaged.begin() + each.field.place);
      SCOPED_TRACE(std::to_string(each.field.place) + ": " + std::to_string(each.value));
      kelpatch::NamedImage image = {"file", damaged};
      EXPECT_EQ(words_of([&] { read_elf("file", damaged); }), each.by_kelmake);
      EXPECT_EQ(words_of([&] { kelpatch::load_linked(16, image, nullptr); }), each.by_kelpatch);
    }
  }
}

// Any damage is refused in words, or leaves segments that lie in the file.
TEST_P(ElfClass, SurvivesDamage) {
  const Bytes sound = elf_of({{{0x1000, 0, kCode}, {0x2000, 0, kCode}},
                              elf32::EM_ARM,
                              0,
                              0,
                              {"$a"},
                              ByteOrder::kLittle,
                              GetParam()});
  const auto try_file = [](const Bytes& file) {
    words_of([&] {
      for (const ElfSegment& segment : read_elf("file", file).segments) {
        ASSERT_LE(uint64_t{segment.offset} + segment.size, file.size());
      }
    });
    kelpatch::NamedImage image = {"file", file};
    words_of([&] { kelpatch::load_linked(16, image, nullptr); });
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

// As a compiler and a linker make them: what is loaded, held against what readelf tells.
struct Target {
  const char* name;
  const char* option;
  uint8_t machine;
};
class LinkedImages : public testing::TestWithParam<Target> {};
INSTANTIATE_TEST_SUITE_P(
    KelmakeElfTest, LinkedImages,
    testing::Values(Target{"riscv64-none-elf", "-mcmodel=medany", KELVANE_DENSE_RISCV},
                    Target{"riscv32-none-elf", "-mcmodel=medlow", KELVANE_DENSE_RISCV},
                    Target{"mips64-none-elf", "-mno-abicalls", KELVANE_DENSE_MIPS},
                    Target{"aarch64-none-elf", "-mcmodel=small", KELVANE_DENSE_NONE}),
    [](const auto& target) {
      return std::string(target.param.name, std::strcspn(target.param.name, "-"));
    });

TEST_P(LinkedImages, AreReadAsReadelfReadsThem) {
  const kelvane::TemporaryDirectory tree;
  const auto output_of = [&](const std::vector<std::string>& arguments) {
    const auto result = kelvane::run_program(arguments, tree.name(), {{"LC_ALL", "C"}});
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
  };
  tree.write("sample.c",
             "int values[40] = {1, 2, 3}; const char* const names[] = {\"some\", \"more\"};\n"
             "int last(int x) { return values[x & 31] + names[x & 1][0]; }\n"
             "int first(int x) { return last(x) + last(x + 1); }\n");
  tree.write("sample.ld",
             "SECTIONS { .text 0x80000100 : { *(.text*) *(.rodata*) }\n"
             "  .data 0x20000000 : AT(0x80003000) { *(.data*) *(.sdata*) *(.srodata*) }\n"
             "  .bss : { *(.bss*) }  /DISCARD/ : { *(.MIPS.*) *(.reginfo) } }\n");
  output_of({KELVANE_CLANG, std::string("--target=") + GetParam().name, "-O1", "-ffreestanding",
             "-fno-pic", GetParam().option, "-c", "sample.c", "-o", "sample.o"});
  output_of({KELVANE_LLD, "-T", "sample.ld", "-e", "first", "sample.o", "-o", "sample.elf"});
  const Bytes file = kelvane::bytes_of(tree.read("sample.elf"));
  const ElfFile elf = read_elf("sample.elf", file);
  EXPECT_EQ(elf.machines, std::vector<uint8_t>{GetParam().machine});
  std::string read;
  for (const ElfSegment& segment : elf.segments) {
    read += kelpatch::formatted("%x %x %x %x\n", segment.load_address, segment.virtual_address,
                                segment.offset, segment.size);
  }
  // LOAD, offset, virtual and load address, sizes in the file and in memory.
  std::string told;
  std::istringstream lines(output_of({KELVANE_READELF, "-lW", "sample.elf"}));
  for (std::string line; std::getline(lines, line);) {
    unsigned long at = 0, address = 0, place = 0, size = 0;
    if (std::sscanf(line.c_str(), " LOAD %lx %lx %lx %lx", &at, &address, &place, &size) == 4 &&
        size != 0) {
      told += kelpatch::formatted("%lx %lx %lx %lx\n", place, address, at, size);
    }
  }
  EXPECT_EQ(read, told);
  EXPECT_GE(elf.segments.size(), 2U);
  const FlashImages images = lay_out("old", file, "new", file, 4096);
  EXPECT_EQ(images.load_address, 0x80000000U);
  kelpatch::NamedImage image = {"sample.elf", file};
  kelpatch::load_linked(4096, image, nullptr);
  EXPECT_EQ(image.bytes, images.old_image);
}

}  // namespace
}  // namespace kelmake
