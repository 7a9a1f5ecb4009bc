// The program on patches for target memory, made by hand between images made by hand.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image_builder.h"
#include "patch_builder.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

using Order = PatchBuilder::Order;
using Regions = std::vector<PatchBuilder::Region>;

// Code at 0x1000, data at 0x2000 with a ROM copy, zeros at 0x3000 and a swap region at 0x4000.
Image image_with(const std::string& code, const std::string& data) {
  Image image;
  image.sections = {{".text", elf32::SHT_PROGBITS, elf32::SHF_ALLOC, 0x1000, bytes_of(code)},
                    {".romdata", elf32::SHT_PROGBITS, elf32::SHF_ALLOC, 0x9000, bytes_of(data)},
                    {".data",
                     elf32::SHT_NOBITS,
                     elf32::SHF_ALLOC,
                     0x2000,
                     {},
                     static_cast<uint32_t>(data.size())},
                    {".bss", elf32::SHT_NOBITS, elf32::SHF_ALLOC, 0x3000, {}, 4},
                    {".heap", elf32::SHT_NOBITS, elf32::SHF_ALLOC, 0x4000, {}, 16}};
  image.symbols = {{".heap", 0x4000, 16, 0x11, ".heap"}};
  return image;
}

const Image kOld = image_with("ABCDEFGH", "data");
const Image kNew = image_with("ABCDEFGX", "date");
const Regions kRegions = {{0x1000, 0x1008}, {0x2000, 0x2004}, {0x3000, 0x3004}};
const std::string kOldBytes = "ABCDEFGHdata" + std::string(4, '\0');
const std::string kNewBytes = "ABCDEFGXdate" + std::string(4, '\0');

class KelpatchMemory : public ::testing::Test {
 protected:
  KelpatchMemory() {
    write("old.elf", kOld);
    write("new.elf", kNew);
    folder.write("a.patch", patch({}).version1_memory(0x1000, 0x1000));
  }

  void write(const std::string& name, const Image& image) {
    folder.write(name, text_of(build_image(image)));
  }

  // The right patch, with a way through the swap region; `more` is what else it moves.
  static PatchBuilder patch(const std::vector<PatchBuilder::Block>& more,
                            const Regions& before = kRegions, const Regions& after = kRegions,
                            const std::string& new_bytes = kNewBytes) {
    PatchBuilder commands(Order::kLittle);
    std::vector<PatchBuilder::Block> blocks = {{0x1004, 4, 0x3000}, {0x4004, 4, 0U - 0x3000}};
    blocks.insert(blocks.end(), more.begin(), more.end());
    commands.checksum(before, patch_checksum(kOldBytes)).move(blocks);
    commands.substitute(2, {{0x1007, "X"}, {0x2003, "e"}});
    commands.checksum(after, patch_checksum(new_bytes));
    return commands;
  }

  ProgramResult run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), kelpatch_program());
    return run_program(arguments, folder.name());
  }
  void expect_failure(const std::vector<std::string>& arguments, int status,
                      const std::string& message) const {
    const ProgramResult result = run(arguments);
    EXPECT_EQ(result.errors, "kelpatch: " + message + "\n");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.status, status);
  }
  void expect_unverified(int status, const std::string& message) const {
    expect_failure({"verify", "--ram", "old.elf", "new.elf", "a.patch"}, status, message);
  }
  void expect_bad_old_image(const Image& image, const std::string& what) {
    write("old.elf", image);
    expect_unverified(2, "fatal: image 'old.elf' is damaged: " + what);
  }

  TemporaryDirectory folder;
};

TEST_F(KelpatchMemory, VerifiesOnTheMemoryOfTheTarget) {
  EXPECT_EQ(run({"verify", "--ram", "old.elf", "new.elf", "a.patch"}).output,
            "the patch is right\n");
}

TEST_F(KelpatchMemory, SaysWhatDiffersFirst) {
  write("new.elf", image_with("ABCDEFGX", "dare"));
  expect_unverified(1,
                    "error: section '.data' differs from the result of 'a.patch' at 0x2002: it has "
                    "0x72, not 0x74");
  write("new.elf", kNew);
  folder.write("a.patch", patch({}, kRegions, kRegions, "other").version1_memory(1, 1));
  expect_unverified(1,
                    "error: the new contents have not the checksum that 'a.patch' states for them");
  folder.write("a.patch", patch({}, kRegions, {kRegions[1]}).version1_memory(1, 1));
  expect_unverified(
      1, "error: the checksum of the new contents in 'a.patch' leaves out section '.text'");
  folder.write("a.patch", patch({}, {kRegions[0]}).version1_memory(1, 1));
  expect_unverified(
      1, "error: the checksum of the old contents in 'a.patch' leaves out section '.data'");
  folder.write("a.patch", patch({{0x1000, 4, 0x3010}}).version1_memory(1, 1));
  expect_unverified(2,
                    "fatal: 'a.patch' reaches the address 0x4010 (at offset 100), outside the "
                    "sections and the swap region");
  write("old.elf", image_with("ABCDEFGI", "data"));
  folder.write("a.patch", patch({}).version1_memory(1, 1));
  expect_unverified(1,
                    "error: 'a.patch' was not made for the memory of 'old.elf': the old contents "
                    "have another checksum");
  Image other = kOld;
  other.sections[0].name = ".code";
  write("old.elf", other);
  expect_unverified(1, "error: section '.text' of 'new.elf' is missing in 'old.elf'");
}

TEST_F(KelpatchMemory, RefusesPatchesOfAnotherKind) {
  folder.write("a.patch", PatchBuilder(Order::kLittle).move({}).version1("a", "b"));
  expect_unverified(2, "fatal: 'a.patch' is a patch for a file, not for target memory");
  folder.write("a.patch", PatchBuilder(Order::kBig).move({}).version1_memory(1, 1));
  expect_unverified(1, "error: 'a.patch' has not the byte order of 'old.elf'");
  const std::string old_file = folder.read("old.elf");
  folder.write("a.patch", PatchBuilder(Order::kLittle).move({}).version0(old_file, "b"));
  expect_unverified(1, "error: 'new.elf' is not the new file of 'a.patch'");
  expect_failure({"apply", "--ram", "old.elf", "a.patch", "-o", "out"}, 2,
                 "fatal: 'a.patch' is of version 0 and does not tell which memory it leaves");
  // Version 0 tells nothing of the memory, and is verified all the same.
  write("new.elf", kOld);
  folder.write("a.patch", PatchBuilder(Order::kLittle).move({}).version0(old_file, old_file));
  EXPECT_EQ(run({"verify", "--ram", "old.elf", "new.elf", "a.patch"}).errors, "");
}

TEST_F(KelpatchMemory, RefusesDamagedImages) {
  folder.write("old.elf",
               "\x7f"
               "ELF and no more than that");
  expect_unverified(2, "fatal: 'old.elf' is not an image: it has no header of a 32-bit ELF file");
  Image image = kOld;
  image.sections[3].addr = 0xFFFFFFFE;
  expect_bad_old_image(image, "section '.bss' runs past the end of the addresses");
  image.sections[3].addr = 0x1004;
  expect_bad_old_image(image, "section '.bss' overlaps another");
  image = kOld;
  image.sections[0].name = ".cromt_slow";
  expect_bad_old_image(image, "compressed section '.text_slow' cannot be expanded");
  image = kOld;
  image.damage = [](auto&, auto& headers) { headers[1].sh_offset = 0x10000; };
  expect_bad_old_image(image, "section '.text' lies outside the file");
  image.damage = [](auto& header, auto&) { header.e_shstrndx = 99; };
  expect_bad_old_image(image, "its section headers are unsound");
  image.damage = [](auto& header, auto&) { header.e_shoff = 0x10000; };
  expect_bad_old_image(image, "a section header lies outside the file");
  image.damage = [](auto&, auto& headers) { headers.back().sh_offset = 0x10000; };
  expect_bad_old_image(image, "a table of names lies outside the file");
}

TEST_F(KelpatchMemory, WritesSectionsOrOneImage) {
  EXPECT_EQ(run({"apply", "--ram", "old.elf", "a.patch", "-o", "out"}).errors, "");
  EXPECT_EQ(folder.read("out/00001000.bin"), "ABCDEFGX");
  EXPECT_EQ(folder.read("out/00002000.bin"), "date");
  EXPECT_EQ(folder.read("out/00003000.bin"), std::string(4, '\0'));
  EXPECT_EQ(run({"apply", "--ram", "--base", "0xFF0", "old.elf", "a.patch", "-o", "image"}).errors,
            "");
  EXPECT_EQ(folder.read("image"), std::string(16, '\0') + "ABCDEFGX" + std::string(0xFF8, '\0') +
                                      "date" + std::string(0x1000, '\0'));
  expect_failure({"apply", "--ram", "--base=1004", "old.elf", "a.patch", "-o", "image"}, 2,
                 "fatal: 'a.patch' leaves a section at 0x1000, below the base address 0x1004");
  expect_failure(
      {"apply", "--ram", "--max-size=15", "old.elf", "a.patch", "-o", "out"}, 2,
      "fatal: 'a.patch' leaves 16 bytes, more than 15; if that is right, allow it by --max-size");
  expect_failure({"apply", "--ram", "old.elf", "a.patch", "-o", "no/out"}, 2,
                 "fatal: unable to make folder 'no/out': No such file or directory");
}

TEST_F(KelpatchMemory, NamesTheSectionsOfAddresses) {
  const std::string words = run({"show", "--ram", "old.elf", "new.elf", "a.patch"}).output;
  for (const char* const line :
       {"  region of 8 bytes at 0x1000 in .text\n",
        "  move 4 bytes from 0x1004 in .text to 0x4004 in the swap region (+12288)\n",
        "  move 4 bytes from 0x4004 in the swap region to 0x1004 in .text (-12288)\n",
        "    store 0x65 at 0x2003 in .data\n"}) {
    EXPECT_NE(words.find(line), std::string::npos) << line << words;
  }
}

TEST_F(KelpatchMemory, TakesWhatTheProgramWasToldOfTheImages) {
  // The data is seen at a second address in both images, and the zeros take no part.
  Image old_image = kOld;
  Image new_image = kNew;
  old_image.sections[2].addr = 0x20002000;
  new_image.sections[2].addr = 0x20002000;
  write("old.elf", old_image);
  write("new.elf", new_image);
  folder.write("words", ".bss ignored");
  const Regions regions = {kRegions[0], kRegions[1]};
  folder.write("a.patch", patch({}, regions, regions, "ABCDEFGXdate").version1_memory(1, 1));
  PatchBuilder commands(Order::kLittle);
  commands.checksum(regions, patch_checksum("ABCDEFGHdata")).move({});
  commands.substitute(2, {{0x1007, "X"}, {0x2003, "e"}});
  commands.checksum(regions, patch_checksum("ABCDEFGXdate"));
  folder.write("a.patch", commands.version1_memory(1, 1));
  EXPECT_EQ(run({"verify", "--ram", "--exclude", "words", "--alias=2000:20000000", "old.elf",
                 "new.elf", "a.patch"})
                .errors,
            "");
  const std::string help = " (see kelpatch --help)";
  expect_failure({"verify", "--alias=1", "a", "b", "c"}, 2,
                 "error: '--alias' takes two hexadecimal numbers, ADDRESS:MASK, not '1'" + help);
  expect_failure({"apply", "--base=x", "a", "b", "-o", "c"}, 2,
                 "error: '--base' takes a hexadecimal address, not 'x'" + help);
  expect_failure({"verify", "--alias=1:2", "a", "b", "c"}, 2,
                 "error: '--base', '--exclude' and '--alias' are for '--ram'" + help);
  expect_failure({"verify", "--ram", "--base=1", "a", "b", "c"}, 2,
                 "error: '--base' is for 'apply'" + help);
  expect_failure({"show", "--ram", "a"}, 2, "error: 'show' takes three files" + help);
}

}  // namespace
}  // namespace kelvane
