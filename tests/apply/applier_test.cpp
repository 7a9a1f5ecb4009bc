#include "applier.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "patch_builder.h"
#include "target_memory.h"
#include "worked_patch.h"

namespace kelvane {
namespace {

using Order = PatchBuilder::Order;
constexpr Order kOrders[] = {Order::kLittle, Order::kBig};

uint32_t flag_of(Order order) {
  return order == Order::kBig ? KELVANE_V0_BIG_ENDIAN : KELVANE_V0_LITTLE_ENDIAN;
}

std::string counted(size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i) {
    bytes += static_cast<char>(static_cast<uint8_t>(i * 7 + i / 256));
  }
  return bytes;
}

// What the commands make of a memory that starts at `address`, under a header that says nothing of
// the contents.
std::string carried_out(const std::string& commands, const std::string& contents, Order order,
                        uint32_t address = 0) {
  TargetMemory memory({{address, contents}});
  EXPECT_EQ(apply_patch(std::string(16, '\0') + commands, memory,
                        flag_of(order) | KELVANE_V0_MEMORY_MODE),
            KELVANE_APPLY_OK);
  EXPECT_TRUE(memory.guards_stand());
  EXPECT_EQ(memory.outside, 0U);
  return memory.contents();
}

TEST(Applier, TurnsTheOldFileOfTheWorkedPatchIntoTheNewOne) {
  TargetMemory memory(worked_old_file(), 100);
  EXPECT_EQ(apply_patch(worked_patch(), memory), KELVANE_APPLY_OK);
  EXPECT_EQ(memory.contents().substr(0, 68), worked_new_file());
  EXPECT_EQ(memory.contents().substr(68), std::string(32, '\xEE'));
}

TEST(Applier, AcceptsAPatchWithoutAnyBlock) {
  const std::string file = "abc";  // checksum 0x187163
  TargetMemory memory(file, 3);
  const std::string version0 =
      from_hex("00187163 00187163 00000003 00000003") + from_hex("03 0000");
  ASSERT_EQ(version0.size(), 19U);
  EXPECT_EQ(apply_patch(version0, memory, KELVANE_V0_BIG_ENDIAN), KELVANE_APPLY_OK);
  const std::string version1 = from_hex(
      "7F515652 00000001 00000007 00000000 04000000"
      "01000000 63711800 63711800 03000000 03000000 1F000000 00C00000 03 0000");
  ASSERT_EQ(version1.size(), 51U);
  EXPECT_EQ(apply_patch(version1, memory), KELVANE_APPLY_OK);
  EXPECT_EQ(memory.contents(), file);
  EXPECT_EQ(memory.writes, 0U);
}

TEST(Applier, ReadsTheHeaderOfEveryFormat) {
  using Said = std::vector<uint32_t>;
  const auto said = [](const std::string& patch, uint32_t flags) {
    OpenedPatch opened(patch, flags);
    kelvane_patch_info info = {};
    EXPECT_EQ(kelvane_apply_info(opened.applier(), &info), KELVANE_APPLY_OK);
    return Said{info.version,      info.memory_mode,  info.big_endian, info.header_size,
                info.old_checksum, info.new_checksum, info.old_size,   info.new_size,
                info.old_crt1,     info.new_crt1};
  };
  for (const Order order : kOrders) {
    const uint32_t big = order == Order::kBig ? 1 : 0;
    PatchBuilder builder(order);
    builder.move({});
    EXPECT_EQ(said(builder.version0("abc", "ab"), flag_of(order)),
              (Said{0, 0, big, 16, 0x187163, 0x30E2, 3, 2, 0, 0}));
    // Version 1 knows better than the flags.
    EXPECT_EQ(said(builder.version1("ab", "abc"), 3),
              (Said{1, 0, big, 48, 0x30E2, 0x187163, 2, 3, 0, 0}));
    EXPECT_EQ(said(builder.version1_memory(0x8000, 0x8124), 0),
              (Said{1, 1, big, 40, 0, 0, 0, 0, 0x8000, 0x8124}));
  }
}

TEST(Applier, StoresTheBytesOfAbsoluteAndRelativeLists) {
  const std::string big = from_hex(
      "01 0002 0001 00005000 00000002 6677"
      "0002 00001000 0002 1122 1003 334455");
  const std::string little = from_hex(
      "01 0200 0100 00500000 02000000 6677"
      "0200 00100000 0002 1122 1003 334455");
  std::string expected(0x4002, '\0');
  expected.replace(0, 2, from_hex("1122"));
  expected.replace(0x10, 3, from_hex("334455"));
  expected.replace(0x4000, 2, from_hex("6677"));
  EXPECT_EQ(carried_out(big, std::string(0x4002, '\0'), Order::kBig, 0x1000), expected);
  EXPECT_EQ(carried_out(little, std::string(0x4002, '\0'), Order::kLittle, 0x1000), expected);
  // Single bytes: one at 6, then a base of 2 with distances 0, 2 and 0 (the last one stays).
  EXPECT_EQ(carried_out(from_hex("02 0002 0001 00000006 41 0003 00000002 0042 0243 0044"),
                        "........", Order::kBig),
            "..B.D.A.");
}

TEST(Applier, FillsWithOneByte) {
  EXPECT_EQ(
      carried_out(from_hex("06 0002 00000002 0003 2A 00000000 0000 2B"), "......", Order::kBig),
      "..***.");
  EXPECT_EQ(
      carried_out(from_hex("06 0100 01000000 8403 2A"), std::string(902, '.'), Order::kLittle),
      "." + std::string(900, '*') + ".");
}

TEST(Applier, ExpandsCompressedStreams) {
  const struct {
    const char* stream;
    std::string expanded;
  } streams[] = {
      {"01 41", "A"},
      {"07 61 62 63 EE F6", "abcabcabcabc"},
      {"00 DC FF", std::string(18, '\0')},
      {"06 DC FF 00 00", std::string(20, '\0')},
      {"05 62 EE F0 61 EE F0", "bbbbabbb"},
      {"05 62 EE F0 61 EF F0", "bbbbabbb"},
      // 8 bytes up to a full group, then a slot that holds the next byte: 4096 back, so nothing.
      {"FF 61 62 63 64 65 66 67 68 00 F6 F0", std::string("abcdefgh") + std::string(3, '\0')},
      // From the zeros in front into what was written: two zeros, then the letters.
      {"03 61 62 EC F4", from_hex("61 62 00 00 61 62 00 00 61")},
      {"", ""},
  };
  for (const auto& [stream, expanded] : streams) {
    SCOPED_TRACE(stream);
    PatchBuilder builder(Order::kBig);
    builder.substitute(5, {{2, from_hex(stream)}});
    EXPECT_EQ(carried_out(builder.commands(), std::string(40, '.'), Order::kBig),
              ".." + expanded + std::string(38 - expanded.size(), '.'));
  }
}

// The bytes expanded so far leave the working memory in pieces, and references reach back into
// those, over their end, and round the window.
TEST(Applier, ExpandsReferencesToWhatIsInMemoryAlready) {
  std::string stream;
  std::string expanded;
  for (uint32_t group = 0; group < 700; ++group) {
    const auto literal = static_cast<char>(static_cast<uint8_t>(group * 31 + group / 9));
    stream += '\1';  // a literal and seven references
    stream += literal;
    expanded += literal;
    for (uint32_t item = 0; item < 7; ++item) {
      const uint32_t distance = 1 + (group * 61 + item * 709) % 4096;
      const uint32_t length = 3 + (group + item) % 16;
      const auto ring_index = static_cast<uint32_t>((4078 + expanded.size()) % 4096);
      const uint32_t slot = (ring_index - distance) % 4096;
      stream += static_cast<char>(static_cast<uint8_t>(slot));
      stream += static_cast<char>(static_cast<uint8_t>((slot >> 4 & 0xF0U) | (length - 3)));
      for (uint32_t i = 0; i < length; ++i) {
        expanded += distance > expanded.size() ? '\0' : expanded[expanded.size() - distance];
      }
    }
  }
  PatchBuilder builder(Order::kLittle);
  builder.substitute(5, {{0, stream}});
  EXPECT_EQ(carried_out(builder.commands(), std::string(expanded.size(), '.'), Order::kLittle),
            expanded);
}

TEST(Applier, MovesBlocksOneAfterTheOtherLikeMemmove) {
  // Up by 2 gives ababcdef; the second block takes "cdef" from there down by 3.
  EXPECT_EQ(carried_out(from_hex("03 0002 00000000 00000006 00000002 00000004 00000004 FFFFFFFD"),
                        "abcdefgh", Order::kBig),
            "acdefdef");
  for (const uint32_t shift : {1U, 255U, 256U, 257U, 700U}) {
    const std::string contents = counted(2000);
    PatchBuilder up(Order::kLittle);
    up.move({{10, 1200, shift}});
    std::string expected = contents;
    expected.replace(10 + shift, 1200, contents, 10, 1200);
    EXPECT_EQ(carried_out(up.commands(), contents, Order::kLittle), expected);
    PatchBuilder down(Order::kBig);
    down.move({{10 + shift, 1200, 0U - shift}});
    expected = contents;
    expected.replace(10, 1200, contents, 10 + shift, 1200);
    EXPECT_EQ(carried_out(down.commands(), contents, Order::kBig), expected);
  }
}

TEST(Applier, AddsIncrementsToWordsInTheOrderOfTheTarget) {
  // Value 4 at 0x100, 0x104 and 0x200; value 0x20000 at 4, 8 and 12; value 4 at 0; no class.
  const std::string worked = from_hex("07 00000009 06 00 12 D1 EA 28 3E 01 10");
  std::string contents(0x204, '\0');
  contents.replace(0x100, 8, from_hex("000000FC 00000001"));
  std::string expected(0x204, '\0');
  expected.replace(0x100, 8, from_hex("00000100 00000005"));
  expected.replace(0x200, 4, from_hex("00000004"));
  EXPECT_EQ(carried_out(worked, contents, Order::kBig), expected);
  EXPECT_EQ(carried_out(from_hex("07 06000000 01 00 04 00 1C 40"),
                        from_hex("0000FFFF 00000000 0000FFFF 010203FF"), Order::kLittle),
            from_hex("0000FFFF 00000200 00000100 010205FF"));
  EXPECT_EQ(carried_out(from_hex("07 0B000000 06 00 3A 1A 8B E8 FE FE FF 00 02"),
                        from_hex("FEFFFFFF"), Order::kLittle),
            from_hex("02000000"));
  EXPECT_EQ(carried_out(from_hex("07 00000002 00 02"), "abcd", Order::kBig), "abcd");
}

TEST(Applier, ReadsEveryJumpCategoryAndEveryFormOfAValue) {
  // Jumps at both ends of each category, in words.
  const uint32_t jumps[] = {1, 2, 3, 4, 7, 8, 23, 24, 279, 280, 65815, 65816, 0x10000000};
  std::vector<uint32_t> addresses;
  uint32_t address = 0;
  for (const uint32_t jump : jumps) {
    address += 4 * jump;
    addresses.push_back(address);
  }
  std::vector<PatchBuilder::Class> classes;
  // The first values are 1 and 0x10000 apart, which is short; then come longer ways and a way down.
  for (const uint32_t value : {1U, 2U, 0x10002U, 0x20003U, 0xFFFFFFF0U, 0U, 5U}) {
    classes.push_back({value, addresses});
  }
  classes.push_back({6, {0, 4, 4, 0xFFFFFFFC}, 0x163470});  // 4 twice: a jump of 0
  classes.push_back({7, {}});
  for (uint32_t value = 8; value < 40; ++value) {
    classes.push_back({value, {value * 4}, 0x1AB444});
  }
  for (const Order order : kOrders) {
    PatchBuilder builder(order);
    builder.increments(classes);
    OpenedPatch opened(std::string(16, '\0') + builder.commands(), flag_of(order));
    ASSERT_EQ(opened.code, KELVANE_APPLY_OK);
    std::vector<std::pair<uint32_t, uint32_t>> expected;
    for (const PatchBuilder::Class& group : classes) {
      for (const uint32_t word : group.addresses) {
        expected.emplace_back(group.value, word);
      }
    }
    std::vector<std::pair<uint32_t, uint32_t>> read;
    kelvane_cursor cursor;
    kelvane_item item;
    kelvane_cursor_start(&cursor, opened.applier());
    while (kelvane_item_next(&cursor, &item) != 0) {
      if (item.kind == KELVANE_ITEM_INCREMENT) {
        read.emplace_back(item.value, item.address);
      }
    }
    EXPECT_EQ(cursor.code, KELVANE_APPLY_OK);
    EXPECT_EQ(read, expected);
  }
}

TEST(Applier, TakesAMapOfZeroForTheDefaultMap) {
  // Value 4, map flag, 21 bits of 0, one jump of 1, the end.
  const std::string stream = from_hex("06 00 02 00 80 00 02");
  EXPECT_EQ(carried_out(from_hex("07 07000000") + stream, std::string(8, '\0'), Order::kLittle),
            from_hex("00000000 04000000"));
}

TEST(Applier, CarriesOutRepeatedCommandsInTheOrderOfThePatch) {
  for (const Order order : kOrders) {
    PatchBuilder builder(order);
    builder.fill({{0, 4, '-'}}).substitute(2, {{1, "x"}});
    builder.move({{0, 4, 4}}).move({}).fill({{0, 2, '+'}}).fill({});
    builder.substitute(2, {}, {{{2, "y"}, {3, "z"}}}).substitute(1, {}).substitute(1, {{7, "!"}});
    builder.substitute(5, {}).increments({{0x01010101, {4}}}).increments({{0x01010101, {4}}});
    EXPECT_EQ(carried_out(builder.commands(), "abcdefgh", order), "++yz/z/#");
  }
}

TEST(Applier, FramesAMemoryPatchByTheChecksumsOfItsRegions) {
  const std::string low = counted(40);
  const std::string high = "0123456789";
  for (const Order order : kOrders) {
    // The regions of the patch run over the seam of two regions that touch, and up to the end of
    // the address space.
    std::string changed = low;
    changed.replace(15, 10, 10, '=');
    PatchBuilder builder(order);
    builder.checksum({{0x1000, 0x1028}, {0xFFFFFFF8, 0}}, patch_checksum(low + high.substr(2)));
    builder.checksum({}, 0);
    builder.move({}).fill({{0x100F, 10, '='}}).substitute(2, {{0xFFFFFFFF, "!"}});
    builder.checksum({{0xFFFFFFF6, 0}, {0x1000, 0x1000}, {0x1000, 0x1028}},
                     patch_checksum("012345678!" + changed));
    const std::string patch = builder.version1_memory(0x1000, 0x1004);
    TargetMemory memory(
        {{0x1014, low.substr(20)}, {0xFFFFFFF6, high}, {0x1000, low.substr(0, 20)}});
    EXPECT_EQ(apply_patch(patch, memory), KELVANE_APPLY_OK);
    EXPECT_EQ(memory.contents(2) + memory.contents(0), changed);
    EXPECT_EQ(memory.contents(1), "012345678!");
    const uint32_t writes = memory.writes;
    EXPECT_EQ(apply_patch(patch, memory), KELVANE_APPLY_OLD_CHECKSUM);
    EXPECT_EQ(memory.writes, writes);
  }
}

TEST(Applier, VerifiesTheOldContentsBeforeAndTheNewOnesAfter) {
  PatchBuilder builder(Order::kBig);
  builder.move({}).substitute(2, {{0, "X"}});
  const std::string patch = builder.version1("abc", "Xbc");
  TargetMemory other_bytes("abd", 3);
  EXPECT_EQ(apply_patch(patch, other_bytes), KELVANE_APPLY_OLD_CHECKSUM);
  TargetMemory longer("abcd", 4);
  EXPECT_EQ(apply_patch(patch, longer), KELVANE_APPLY_OLD_SIZE);
  EXPECT_EQ(other_bytes.writes + longer.writes, 0U);
  longer.access()->old_size = KELVANE_SIZE_UNKNOWN;
  EXPECT_EQ(apply_patch(patch, longer), KELVANE_APPLY_OK);
  EXPECT_EQ(longer.contents(), "Xbcd");

  EXPECT_EQ(apply_patch(patch, other_bytes, 0, KELVANE_SKIP_OLD), KELVANE_APPLY_NEW_CHECKSUM);
  EXPECT_EQ(other_bytes.contents(), "Xbd");
  EXPECT_EQ(apply_patch(patch, other_bytes, 0, KELVANE_SKIP_OLD | KELVANE_SKIP_NEW),
            KELVANE_APPLY_OK);
  PatchBuilder framed(Order::kBig);
  framed.move({}).substitute(2, {{0, "X"}}).checksum({{0, 3}}, patch_checksum("Xbc"));
  EXPECT_EQ(apply_patch(framed.version1_memory(0, 0), other_bytes), KELVANE_APPLY_NEW_CHECKSUM);
}

TEST(Applier, RefusesADamagedPatchWithItsCodeAndPlace) {
  const struct {
    const char* commands;
    int code;
    uint32_t position;  // behind the header
  } damages[] = {
      {"", KELVANE_APPLY_NO_COMMANDS, 0},
      {"00", KELVANE_APPLY_BAD_COMMAND, 0},
      {"03 0000 08", KELVANE_APPLY_BAD_COMMAND, 3},
      {"04 00000000 00000000", KELVANE_APPLY_MISPLACED, 0},
      {"03 00", KELVANE_APPLY_TRUNCATED, 0},
      {"03 0001 00000000 00000000 000000", KELVANE_APPLY_TRUNCATED, 0},
      {"01 00", KELVANE_APPLY_TRUNCATED, 0},
      {"01 0000", KELVANE_APPLY_BAD_LIST, 0},
      {"01 0001 00", KELVANE_APPLY_TRUNCATED, 3},
      {"01 0001 0001 00000000 000000", KELVANE_APPLY_TRUNCATED, 5},
      {"01 0001 0001 00000000 00000002 61", KELVANE_APPLY_TRUNCATED, 5},
      {"01 0001 0001 00000000 FFFFFFFF 61", KELVANE_APPLY_TRUNCATED, 5},
      {"02 0001 0001 00000000", KELVANE_APPLY_TRUNCATED, 5},
      {"02 0002 0000 0002 000000", KELVANE_APPLY_TRUNCATED, 5},
      {"02 0002 0000 0001 00000000 0061", KELVANE_APPLY_BAD_LIST, 5},
      {"02 0002 0000 0000 00000000", KELVANE_APPLY_BAD_LIST, 5},
      {"02 0002 0000 0002 00000000 0161 0161", KELVANE_APPLY_BAD_LIST, 11},
      {"02 0002 0000 0002 FFFFFFFF 0061 0161", KELVANE_APPLY_BAD_LIST, 13},
      {"01 0002 0000 0002 00000000 0000 01", KELVANE_APPLY_TRUNCATED, 13},
      {"05 0001 0001 00000000 00000001 01", KELVANE_APPLY_BAD_COMPRESSION, 5},
      {"05 0001 0001 00000000 00000002 0061", KELVANE_APPLY_BAD_COMPRESSION, 5},
      {"05 0001 0001 00000000 00000002 0361", KELVANE_APPLY_BAD_COMPRESSION, 5},
      {"06 00", KELVANE_APPLY_TRUNCATED, 0},
      {"06 0001 00000000 0001", KELVANE_APPLY_TRUNCATED, 0},
      {"07 000000", KELVANE_APPLY_TRUNCATED, 0},
      {"07 00000003 0002", KELVANE_APPLY_TRUNCATED, 0},
      // Streams: none, cut in a value, nothing where a word should stand, ten zeros, a map with a
      // category twice, one with a category 7, padding of 1, a byte too many, and an address behind
      // the last word.
      {"07 00000000", KELVANE_APPLY_BAD_INCREMENTS, 5},
      {"07 00000001 00", KELVANE_APPLY_BAD_INCREMENTS, 5},
      {"07 00000003 060000", KELVANE_APPLY_BAD_INCREMENTS, 7},
      {"07 00000005 0600000000", KELVANE_APPLY_BAD_INCREMENTS, 7},
      {"07 00000007 06 00 12 00 00 00 08", KELVANE_APPLY_BAD_INCREMENTS, 5},
      {"07 00000007 06 00 FE FF FF FF FF", KELVANE_APPLY_BAD_INCREMENTS, 5},
      {"07 00000006 01 00 04 00 1C C0", KELVANE_APPLY_BAD_INCREMENTS, 10},
      {"07 00000007 01 00 04 00 1C 40 00", KELVANE_APPLY_BAD_INCREMENTS, 10},
      {"07 0000000B 06 00 3A 1A 8B E8 FE FE 3F 00 02", KELVANE_APPLY_BAD_INCREMENTS, 9},
  };
  for (const auto& [commands, code, position] : damages) {
    SCOPED_TRACE(commands);
    PatchBuilder builder(Order::kBig);
    builder.bytes(from_hex(commands));
    OpenedPatch version0(builder.version0("abc", "abc"), KELVANE_V0_BIG_ENDIAN);
    EXPECT_EQ(version0.code, code);
    EXPECT_EQ(version0.applier()->error_position, 16 + position);
    OpenedPatch version1(builder.version1("abc", "abc"));
    EXPECT_EQ(version1.code, code);
    EXPECT_EQ(version1.applier()->error_position, 48 + position);
    // What was not opened can't be used.
    TargetMemory memory("abc", 3);
    EXPECT_EQ(kelvane_apply_run(version1.applier(), memory.access(), 3),
              KELVANE_APPLY_BAD_ARGUMENT);
    EXPECT_EQ(memory.reads + memory.writes, 0U);
  }
}

TEST(Applier, RefusesChecksumsThatDoNotFrameTheCommands) {
  const struct {
    const char* commands;
    int code;
  } damages[] = {
      {"04 00000000 00000000", KELVANE_APPLY_NO_COMMANDS},
      {"03 0000 04 00000000 00000000 03 0000", KELVANE_APPLY_MISPLACED},
      {"04 0000", KELVANE_APPLY_TRUNCATED},
      {"04 00000001 00000000 00000001", KELVANE_APPLY_TRUNCATED},
      {"04 20000001 00000000 00000001 00000000", KELVANE_APPLY_TRUNCATED},
      {"04 00000001 00000002 00000001 00000000", KELVANE_APPLY_BAD_REGION},
  };
  for (const auto& [commands, code] : damages) {
    SCOPED_TRACE(commands);
    PatchBuilder builder(Order::kBig);
    builder.bytes(from_hex(commands));
    EXPECT_EQ(OpenedPatch(builder.version1_memory(0, 0)).code, code);
  }
}

TEST(Applier, RefusesADamagedHeader) {
  PatchBuilder builder(Order::kBig);
  builder.move({});
  const std::string patch = builder.version1("abc", "abc");
  const auto code_with = [&patch](size_t place, char value) {
    std::string bytes = patch;
    bytes[place] = value;
    return OpenedPatch(bytes).code;
  };
  for (const size_t place : {4U, 7U, 11U, 15U, 16U, 17U, 18U, 19U}) {
    EXPECT_EQ(code_with(place, 9), KELVANE_APPLY_BAD_HEADER) << place;
  }
  EXPECT_EQ(code_with(23, 2), KELVANE_APPLY_BAD_VERSION);
  EXPECT_EQ(code_with(20, 1), KELVANE_APPLY_BAD_VERSION);
  EXPECT_EQ(code_with(43, 30), KELVANE_APPLY_BAD_SIZE);
  EXPECT_EQ(code_with(47, 1), KELVANE_APPLY_BAD_CHECKSUM);
  EXPECT_EQ(code_with(50, 1), KELVANE_APPLY_BAD_CHECKSUM);
  EXPECT_EQ(OpenedPatch(patch + '\0').code, KELVANE_APPLY_BAD_SIZE);
  EXPECT_EQ(OpenedPatch(patch.substr(0, 39)).code, KELVANE_APPLY_TOO_SHORT);
  EXPECT_EQ(OpenedPatch(patch.substr(20, 15)).code, KELVANE_APPLY_TOO_SHORT);
  EXPECT_EQ(OpenedPatch("").code, KELVANE_APPLY_TOO_SHORT);
  // Checksums of the two files that happen to be the size and checksum of the patch itself.
  PatchBuilder twofold(Order::kBig);
  twofold.word(1).word(31).word(patch_checksum(patch.substr(32)));
  EXPECT_EQ(OpenedPatch(patch.substr(0, 20) + twofold.commands() + patch.substr(32)).code,
            KELVANE_APPLY_BAD_SHAPE);
}

TEST(Applier, RefusesWhatLiesOutsideTheMemory) {
  const struct {
    const char* commands;
    uint32_t address;
  } outside[] = {
      {"03 0001 00000FFF 00000002 00000001", 0xFFF},
      {"03 0001 00001007 00000002 FFFFFFFF", 0x1007},
      {"03 0001 00001000 00000002 00000007", 0x1007},
      {"03 0001 00001000 00000002 FFFFFFFF", 0xFFF},
      {"03 0001 00001000 FFFFFFFF 00000000", 0x1000},
      {"01 0001 0001 00001006 00000003 616263", 0x1006},
      {"02 0001 0001 00001008 61", 0x1008},
      {"05 0001 0001 00001000 00000003 00DCF6", 0x1000},
      {"06 0001 00001000 0009 61", 0x1000},
      {"06 0001 FFFFFFFF 0002 61", 0xFFFFFFFF},
  };
  for (const auto& [commands, address] : outside) {
    SCOPED_TRACE(commands);
    TargetMemory memory({{0x1000, "abcdefgh"}});
    OpenedPatch opened(
        std::string(16, '\0') + from_hex("06 0001 00001000 0008 2D") + from_hex(commands),
        KELVANE_V0_BIG_ENDIAN | KELVANE_V0_MEMORY_MODE);
    ASSERT_EQ(opened.code, KELVANE_APPLY_OK);
    EXPECT_EQ(kelvane_apply_run(opened.applier(), memory.access(), 3), KELVANE_APPLY_OUTSIDE);
    EXPECT_EQ(opened.applier()->error_address, address);
    const bool in_list = std::string("125").find(commands[1]) != std::string::npos;
    EXPECT_EQ(opened.applier()->error_position, 26U + (in_list ? 5U : 3U));
    EXPECT_EQ(memory.writes + memory.reads, 0U);
  }
}

TEST(Applier, RefusesWordsAndRegionsOutsideTheMemory) {
  TargetMemory memory({{0x1000, "abcdefghij"}});
  PatchBuilder words(Order::kBig);
  words.increments({{4, {0x1000, 0x1004, 0x1008}}});
  EXPECT_EQ(apply_patch(words.version1_memory(0, 0), memory), KELVANE_APPLY_OUTSIDE);
  PatchBuilder region(Order::kBig);
  region.move({}).checksum({{0x1000, 0x100B}}, 0);
  const std::string patch = region.version1_memory(0, 0);
  EXPECT_EQ(apply_patch(patch, memory), KELVANE_APPLY_OUTSIDE);
  OpenedPatch opened(patch);
  EXPECT_EQ(kelvane_apply_verify_new(opened.applier(), memory.access()), KELVANE_APPLY_OUTSIDE);
  EXPECT_EQ(memory.reads + memory.writes, 0U);
}

// The memory may be larger than both files; what lies behind them is not the patch's.
TEST(Applier, KeepsAFilePatchInsideTheLongerFile) {
  PatchBuilder builder(Order::kBig);
  builder.move({{0, 3, 0}}).fill({{4, 1, 'x'}});
  const std::string shrinking = builder.version1("abcde", "abc");
  TargetMemory memory("abcde", 10);
  EXPECT_EQ(apply_patch(shrinking, memory), KELVANE_APPLY_OK);
  EXPECT_EQ(apply_patch(builder.version1("abc", "abcd"), memory), KELVANE_APPLY_OUTSIDE);
  TargetMemory small("abcd", 4);
  EXPECT_EQ(apply_patch(shrinking, small), KELVANE_APPLY_NO_ROOM);
  OpenedPatch opened(shrinking);
  EXPECT_EQ(kelvane_apply_check(opened.applier(), small.access()), KELVANE_APPLY_NO_ROOM);
  EXPECT_EQ(small.reads + small.writes, 0U);
}

// A new size that is too large may come with the right checksum, for 32 bytes of 0 leave that as it
// is. A size that is too small is seen by the addresses.
TEST(Applier, WantsTheLastByteOfAGrownFileWritten) {
  const struct {
    const char* commands;
    uint32_t reached;  // the end of the last byte written; 4 if the patch is right
  } patches[] = {
      {"03 0000", 0},
      {"03 0001 00000000 00000002 00000002", 4},
      {"03 0001 00000000 00000002 00000001", 3},
      {"03 0001 00000002 00000002 00000000", 0},  // stays, so that nothing is written
      {"03 0001 00000000 00000000 00000004", 0},
      {"01 0001 0001 00000001 00000003 616263", 4},
      {"01 0001 0001 00000001 00000002 6162", 3},
      {"01 0001 0001 00000004 00000000", 0},
      {"02 0001 0002 00000003 61 00000000 61", 4},
      {"05 0001 0001 00000003 00000002 0161", 4},
      {"05 0001 0001 00000000 00000003 00DCF0", 3},
      {"06 0001 00000003 0001 61", 4},
      {"06 0001 00000002 0001 61", 3},
      {"07 0000000B 06 00 3A 1A 8B E8 FE FE FF 00 02", 4},
  };
  for (const auto& [commands, reached] : patches) {
    SCOPED_TRACE(commands);
    PatchBuilder builder(Order::kBig);
    builder.bytes(from_hex(commands));
    for (const bool signed_patch : {true, false}) {
      const auto patch_from = [&](const std::string& old_file) {
        return signed_patch ? builder.version1(old_file, "abcd")
                            : builder.version0(old_file, "abcd");
      };
      OpenedPatch grown(patch_from("abc"), KELVANE_V0_BIG_ENDIAN);
      TargetMemory memory("abc", 4);
      EXPECT_EQ(kelvane_apply_check(grown.applier(), memory.access()),
                reached == 4 ? KELVANE_APPLY_OK : KELVANE_APPLY_NEW_SIZE);
      if (reached != 4) {
        EXPECT_EQ(grown.applier()->error_address, reached);
        // A file that doesn't grow need not be written at all.
        OpenedPatch same(patch_from("abce"), KELVANE_V0_BIG_ENDIAN);
        EXPECT_EQ(kelvane_apply_check(same.applier(), memory.access()), KELVANE_APPLY_OK);
      }
    }
  }
  std::string damaged = worked_patch();
  damaged[38] = '\x10';
  TargetMemory memory(worked_old_file() + std::string(4100, '\0'), 64 + 4100);
  memory.access()->old_size = 64;
  EXPECT_EQ(apply_patch(damaged, memory), KELVANE_APPLY_NEW_SIZE);
  EXPECT_EQ(memory.writes, 0U);
}

TEST(Applier, ReportsEveryAccessThatFails) {
  for (const bool in_read : {true, false}) {
    int code = KELVANE_APPLY_WRITE_FAILED;
    uint32_t failures = 0;
    for (uint32_t n = 1; code != KELVANE_APPLY_OK; ++n) {
      TargetMemory memory(worked_old_file(), 68);
      (in_read ? memory.fail_read : memory.fail_write) = n;
      code = apply_patch(worked_patch(), memory);
      if (code == KELVANE_APPLY_OK) {
        break;
      }
      ++failures;
      EXPECT_EQ(code, in_read ? KELVANE_APPLY_READ_FAILED : KELVANE_APPLY_WRITE_FAILED);
    }
    // Reads: old checksum, move, three words, new checksum. Writes: move, three stores, the
    // expanded bytes, three single bytes, fill, three words.
    EXPECT_EQ(failures, in_read ? 6U : 12U);
  }
}

// A copy of a cursor goes on where it was made, whatever became of the first one, and both end.
TEST(Applier, ACopiedCursorGoesOnByItself) {
  OpenedPatch opened(worked_patch());
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, opened.applier());
  std::vector<kelvane_cursor> copies = {cursor};
  std::vector<uint32_t> places;
  while (kelvane_item_next(&cursor, &item) != 0) {
    copies.push_back(cursor);
    places.push_back(opened.applier()->error_position * 16 + item.kind);
  }
  EXPECT_EQ(places.size(), 26U);
  EXPECT_EQ(kelvane_item_next(&cursor, &item), 0);
  for (size_t from = 0; from < copies.size(); ++from) {
    std::vector<uint32_t> rest;
    while (kelvane_item_next(&copies[from], &item) != 0) {
      rest.push_back(opened.applier()->error_position * 16 + item.kind);
    }
    EXPECT_EQ(rest,
              std::vector<uint32_t>(places.begin() + static_cast<ptrdiff_t>(from), places.end()));
  }
  kelvane_applier unopened = {};
  kelvane_cursor_start(&cursor, &unopened);
  EXPECT_EQ(kelvane_item_next(&cursor, &item), 0);
  EXPECT_EQ(cursor.code, KELVANE_APPLY_BAD_ARGUMENT);
}

// A patch behind a callback, which fails at any call in turn: nothing has been written until all of
// it was checked, and what was written is the same.
TEST(Applier, FetchesThePatch) {
  struct Fetched {
    std::string bytes;
    uint32_t calls = 0;
    uint32_t fail_call = 0;
  } fetched;
  fetched.bytes = "ahead" + worked_patch();
  const kelvane_fetch fetch = [](void* context, uint32_t position, uint8_t* bytes, uint32_t count) {
    auto& self = *static_cast<Fetched*>(context);
    if (++self.calls == self.fail_call || position + count > self.bytes.size()) {
      return 1;
    }
    self.bytes.copy(reinterpret_cast<char*>(bytes), count, position);
    return 0;
  };
  const kelvane_source whole = {nullptr, fetch, &fetched, 0,
                                static_cast<uint32_t>(fetched.bytes.size())};
  kelvane_source patch;
  ASSERT_EQ(kelvane_source_part(&whole, 5, whole.size - 4, &patch), 1);
  ASSERT_EQ(kelvane_source_part(&whole, 5, whole.size - 5, &patch), 0);
  int code = KELVANE_APPLY_FETCH_FAILED;
  for (uint32_t failing = 1; code != KELVANE_APPLY_OK; ++failing) {
    TargetMemory memory(worked_old_file(), 68);
    kelvane_applier applier;
    fetched.calls = 0;
    fetched.fail_call = failing;
    code = kelvane_apply_open_source(&applier, &patch, 0);
    const bool opened = code == KELVANE_APPLY_OK;
    if (opened) {
      code = kelvane_apply_run(&applier, memory.access(), 0);
    }
    if (code == KELVANE_APPLY_OK) {
      EXPECT_EQ(memory.contents(), worked_new_file());
      EXPECT_GT(failing, 20U);
    } else {
      EXPECT_EQ(code, KELVANE_APPLY_FETCH_FAILED) << failing;
      EXPECT_TRUE(opened || memory.writes == 0);
    }
  }
}

// With a page size no write of a block crosses a page.
TEST(Applier, ClipsBlocksToThePagesOfTheTarget) {
  for (const uint32_t shift : {1U, 100U, 600U}) {
    const std::string contents = counted(3000);
    PatchBuilder builder(Order::kLittle);
    builder.move({{700, 1500, shift}, {1000, 900, 0U - shift}});
    builder.substitute(1, {{30, counted(shift)}}).fill({{shift, 200, 7}});
    TargetMemory plain({{0, contents}});
    TargetMemory paged({{0, contents}});
    paged.access()->page_size = 64;
    paged.write_page = 64;
    const std::string patch = std::string(16, '\0') + builder.commands();
    EXPECT_EQ(apply_patch(patch, plain, KELVANE_V0_MEMORY_MODE), KELVANE_APPLY_OK);
    EXPECT_EQ(apply_patch(patch, paged, KELVANE_V0_MEMORY_MODE), KELVANE_APPLY_OK);
    EXPECT_EQ(paged.contents(), plain.contents());
  }
}

TEST(Applier, RefusesACallWithoutWhatItNeeds) {
  kelvane_applier applier = {};
  const uint8_t patch[19] = {};
  TargetMemory memory("", 0);
  EXPECT_EQ(kelvane_apply_open(nullptr, patch, 19, 0), KELVANE_APPLY_BAD_ARGUMENT);
  EXPECT_EQ(kelvane_apply_open(&applier, nullptr, 19, 0), KELVANE_APPLY_BAD_ARGUMENT);
  EXPECT_EQ(kelvane_apply_check(&applier, memory.access()), KELVANE_APPLY_BAD_ARGUMENT);
  kelvane_patch_info info;
  EXPECT_EQ(kelvane_apply_info(&applier, &info), KELVANE_APPLY_BAD_ARGUMENT);
  OpenedPatch opened(worked_patch());
  EXPECT_EQ(kelvane_apply_verify_old(opened.applier(), nullptr), KELVANE_APPLY_BAD_ARGUMENT);
  memory.access()->write = nullptr;
  EXPECT_EQ(kelvane_apply_run(opened.applier(), memory.access(), 0), KELVANE_APPLY_BAD_ARGUMENT);
  memory.access()->regions = nullptr;
  EXPECT_EQ(kelvane_apply_verify_new(opened.applier(), memory.access()),
            KELVANE_APPLY_BAD_ARGUMENT);
}

TEST(Applier, HasATextForEveryCode) {
  std::set<std::string> texts;
  for (int code = -1; code < KELVANE_APPLY_CODES; ++code) {
    texts.insert(kelvane_apply_text(code));
  }
  EXPECT_EQ(texts.size(), static_cast<size_t>(KELVANE_APPLY_CODES) + 1);
  EXPECT_STREQ(kelvane_apply_text(KELVANE_APPLY_WRITE_FAILED), "writing the memory failed");
  EXPECT_STREQ(kelvane_apply_text(KELVANE_APPLY_CODES), "unknown error");
}

}  // namespace
}  // namespace kelvane
