#include "indmagic.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>

#include "captured_run.h"
#include "image_builder.h"
#include "indelfio.h"
#include "indgen_memory.h"
#include "patch_builder.h"
#include "reset_state.h"
#include "run_program.h"
#include "table_rows.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

class Identification : public testing::Test {
 protected:
  Identification() { reset_all_state(); }
  ~Identification() override { reset_all_state(); }

  // Identifies bytes that stand in a file behind others, as a member does, and sees to it that the
  // stream and the place for failures are as before.
  static const file_magic* identify(const std::string& bytes, const char* name = nullptr) {
    const file_ptr stream(std::tmpfile());
    std::fwrite(("earlier" + bytes).data(), 1, 7 + bytes.size(), stream.get());
    std::fseek(stream.get(), 7, SEEK_SET);
    const file_magic* const found = indmagic(stream.get(), name);
    EXPECT_EQ(std::ftell(stream.get()), 7);
    EXPECT_EQ(errorcode, nullptr);
    return found;
  }

  // "class machine" of the bytes, which may be given in hexadecimal.
  static std::string kind(const std::string& bytes, const char* name = nullptr) {
    const file_magic* const found = identify(bytes, name);
    return found == nullptr
               ? "null"
               : std::to_string(found->file_class) + " " + std::to_string(found->machine);
  }
  static std::string kind_of_hex(const std::string& digits, const char* name = nullptr) {
    return kind(from_hex(digits), name);
  }

  static std::string all_flags() {
    return {static_cast<char>('0' + magic.flag1), static_cast<char>('0' + magic.big_endian),
            static_cast<char>('0' + magic.flag3), static_cast<char>('0' + magic.flag4)};
  }

  // Identifies each sample of a table, made a file by `file_of`, and compares what it shares with
  // its group, as `shared` tells it, and its own numbers, as `own` does.
  static void check_samples(const char* table,
                            const std::function<std::string(const std::string&)>& file_of,
                            const std::function<std::string()>& shared,
                            const std::function<std::string()>& own) {
    for (const TableRow& row : rows_of("indmagic.table", table)) {
      for (const std::string& word : words_of(row.expected)) {
        const std::string sample = word.substr(0, word.find('='));
        ASSERT_NE(identify(file_of(sample)), nullptr) << word;
        EXPECT_EQ(shared(), row.given) << word;
        EXPECT_EQ(sample + "=" + own(), word);
      }
    }
  }

  static std::string text_of_numbers(const char* format, uint32_t a, uint32_t b) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, a, b);
    return text.data();
  }
};

TEST_F(Identification, KnowsEachCoffMagic) {
  check_samples(
      "coff",
      // Bit 2 of the flags in either order, which makes it an executable.
      [](const std::string& bytes) { return from_hex(bytes) + std::string(16, '\0') + "\x02\x02"; },
      [] {
        EXPECT_EQ(magic.object_kind, object_kind::kExecutable);
        return std::to_string(magic.file_class) + " " + all_flags() + " " +
               std::to_string(magic.family) + " " + std::to_string(magic.symbol_size);
      },
      [] { return text_of_numbers("%u/%04x", static_cast<uint32_t>(magic.machine), magic.code); });
}

TEST_F(Identification, KnowsEachElfMachineByItsFlagsToo) {
  for (const ByteOrder order : {ByteOrder::kLittle, ByteOrder::kBig}) {
    Image image;
    image.order = order;
    check_samples(
        "elf",
        [&](const std::string& numbers) {
          const size_t slash = numbers.find('/');
          image.machine = static_cast<uint16_t>(std::stoul(numbers));
          image.flags =
              slash == std::string::npos
                  ? 0
                  : static_cast<uint32_t>(std::stoul(numbers.substr(slash + 1), nullptr, 16));
          return text_of(build_image(image));
        },
        [&] {
          const uint8_t big = order == ByteOrder::kBig ? 1 : 0;
          EXPECT_EQ(magic.file_class, file_kind::kElf);
          EXPECT_EQ(magic.big_endian, big);
          EXPECT_EQ(magic.flag1, image.machine == 44 ? 0 : big);
          EXPECT_EQ(magic.flags, static_cast<int32_t>(image.flags));
          EXPECT_EQ(magic.code, image.machine);
          EXPECT_EQ(magic.symbol_size, 0);
          return all_flags().substr(2) + " " + std::to_string(magic.family) + " " +
                 (magic.short_name == nullptr ? "-" : magic.short_name);
        },
        [] { return std::to_string(magic.machine); });
  }
}

TEST_F(Identification, KnowsEachAoutMagic) {
  check_samples(
      "aout", from_hex,
      [] {
        EXPECT_EQ(magic.file_class, file_kind::kAout);
        EXPECT_EQ(magic.symbol_size, 12);
        return all_flags() + " " + std::to_string(magic.family);
      },
      [] { return text_of_numbers("%u/%x", static_cast<uint32_t>(magic.machine), magic.code); });
}

TEST_F(Identification, GoesByTheRulesInTheirOrder) {
  for (const TableRow& row : rows_of("indmagic.table", "rule")) {
    const std::vector<std::string> words = words_of(row.given);
    const char* const name = words.size() > 1 ? words[1].c_str() : nullptr;
    EXPECT_EQ(kind_of_hex(words[0], name), row.expected) << row.given;
  }
}

TEST_F(Identification, FillsWhatARuleSaysAndLeavesTheRest) {
  identify("Hello");
  EXPECT_EQ(magic.code, 0x6548U);
  EXPECT_EQ(all_flags(), "0010");
  identify(from_hex("02100108"));
  EXPECT_EQ(magic.code, 0x108U);
  EXPECT_EQ(magic.family, 28);
  EXPECT_EQ(magic.object_kind, object_kind::kExecutable);
  EXPECT_EQ(all_flags(), "1100");

  Image image;
  image.machine = 78;
  image.flags = 0xFFFFFFFF;
  for (const auto& [type, kind] : std::initializer_list<std::pair<uint16_t, int32_t>>{
           {0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 0}, {0xFFFF, 0}}) {
    image.type = type;
    identify(text_of(build_image(image)));
    EXPECT_EQ(magic.object_kind, kind) << type;
  }
  identify("!<arch>\n");  // an archive says nothing of these
  EXPECT_EQ(magic.flags, -1);
  EXPECT_EQ(magic.family, 10);
  EXPECT_EQ(magic.short_name, nullptr);
  EXPECT_EQ(magic.code, 0x3C21U);
}

TEST_F(Identification, ReadsTheFlagsOfACoffFileInItsOrder) {
  for (const TableRow& row : rows_of("indmagic.table", "coff_flags")) {
    identify(from_hex(row.given.substr(0, 4) + std::string(32, '0') + row.given.substr(4)));
    EXPECT_EQ(std::to_string(magic.flags) + " " + std::to_string(magic.object_kind) + " " +
                  std::to_string(magic.file_class),
              row.expected)
        << row.given;
  }
}

TEST_F(Identification, FollowsAPeFileToItsSignature) {
  const auto pe = [](const std::string& offset, const std::string& behind) {
    return kind(from_hex("4D5A" + std::string(116, '0') + offset + "0000" + behind));
  };
  const std::string between(32, '0');
  EXPECT_EQ(pe("42000000", "50450000 4C01" + between + "0220"), "6 6");
  EXPECT_EQ(magic.object_kind, object_kind::kShared);
  EXPECT_EQ(magic.flags, 0x2002);
  EXPECT_EQ(pe("42000000", "50450000 01C2" + between + "0200"), "6 95");
  EXPECT_EQ(magic.object_kind, object_kind::kExecutable);
  EXPECT_EQ(magic.family, 7);
  EXPECT_EQ(magic.symbol_size, 18);
  EXPECT_EQ(pe("42000000", "50450000 0150" + between + "0002"), "6 34");  // a big-endian machine
  EXPECT_EQ(magic.flags, 2);
  EXPECT_EQ(pe("42000000", "50450000 8401"), "4 28");  // its header is cut
  EXPECT_EQ(pe("42000000", "50450000 9999"), "6 6");
  EXPECT_EQ(pe("42000000", "50450001 4C01"), "null");
  EXPECT_EQ(pe("42000000", "504500"), "null");
  EXPECT_EQ(pe("43000000", "50450000 4C01"), "null");
  EXPECT_EQ(pe("FFFFFFFF", "50450000 4C01"), "null");
  EXPECT_EQ(pe("FFFFFF7F", "50450000 4C01"), "null");
  EXPECT_EQ(kind_of_hex("4D5A" + std::string(100, '0')), "null");
}

TEST_F(Identification, KnowsTheDataFilesOfTheToolChain) {
  constexpr int32_t kMachines[] = {0, 92, 93, 94, 98, 99, 100, 117, 0};
  for (uint32_t type = 0; type < std::size(kMachines); ++type) {
    const std::string file = from_hex("7F515652 00000001 0000000" + std::to_string(type));
    EXPECT_EQ(kind(file), (kMachines[type] != 0 ? "9 " : "17 ") + std::to_string(kMachines[type]));
    EXPECT_EQ(magic.code, kMachines[type] != 0 ? type : 0x517FU);
    EXPECT_EQ(magic.object_kind, kMachines[type] != 0 ? object_kind::kDataFile : 0);
  }
  EXPECT_EQ(kind("\x7FQVR"), "17 0");

  const TemporaryDirectory tree;
  const std::string before = tree.write("before", "some text, some more text");
  const std::string after = tree.write("after", "some text, and more text");
  const std::string patch = tree.path("patch");
  ASSERT_EQ(run_program({kelvane_program(), "-version", "1", "-o", patch, before, after}).status,
            0);
  const file_magic* const found = indmagic(nullptr, patch.c_str());
  ASSERT_NE(found, nullptr);
  EXPECT_STREQ(machinename(found->machine), "kelvane patch");
  EXPECT_STREQ(machinename(118), "unknown machine type");
}

TEST_F(Identification, OpensAFileByItsNameAndReportsAnUnusableArchive) {
  const TemporaryDirectory tree;
  EXPECT_EQ(indmagic(nullptr, tree.path("missing").c_str()), nullptr);
  const std::string name = tree.write("x.pro", "profile");
  EXPECT_EQ(indmagic(nullptr, name.c_str()), &magic);
  EXPECT_EQ(magic.file_class, file_kind::kProfileData);
  for (const char* const bytes : {"!<arch>\r\n", "!<elfa>\r\n", "<aiaff>\r\n"}) {
    const CapturedRun run = capture([&] { EXPECT_EQ(kind(bytes, "lib.a"), "17 0"); });
    EXPECT_EQ(
        run.errors,
        "error: archive file 'lib.a' has had carriage-returns (\\r) inserted before new-lines "
        "(\\n) and is unusable\n");
  }
  EXPECT_EQ(capture([&] { identify("!<arch>\r"); }).errors, "");
}

TEST_F(Identification, ReadsNumbersInTheOrderTold) {
  endian = 2;
  const file_ptr stream(std::tmpfile());
  std::fputs("\xFE\xDC\xBA\x98\xFE\xDC\xBA\x98\xFF\xFE\xFF\xFE", stream.get());
  std::rewind(stream.get());
  EXPECT_EQ(read4bytes(stream.get(), true), 0xFEDCBA98U);
  EXPECT_EQ(read4bytes(stream.get(), false), 0x98BADCFEU);
  EXPECT_EQ(read2bytes(stream.get(), true), -2);
  EXPECT_EQ(read2bytes(stream.get(), false), -257);
  EXPECT_EQ(read2bytes(stream.get(), false), 0);
}

}  // namespace
}  // namespace kelvane
