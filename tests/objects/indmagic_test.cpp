#include "indmagic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>

#include "captured_run.h"
#include "image_builder.h"
#include "indelfio.h"
#include "indgen_memory.h"
#include "patch_builder.h"
#include "reset_state.h"
#include "run_program.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

// Samples, one group a line: what all of it share, then the samples with their machine.

// file_class, flag1 big_endian flag3 flag4, family, symbol_size: two bytes = machine / code
constexpr std::string_view kCoffSamples[] = {
    "2 0000 1 18: 4401=1/0144 4501=2/0145 4601=3/0146 4701=4/0147 4A01=5/014a",
    "2 0001 1 18: 4C01=6/014c",
    "2 1111 21 18: 1133=9/1133",
    "2 0011 3 18: C270=11/70c2 C370=12/70c3 C470=13/70c4",
    "2 1111 20 18: 0500=16/0500 71C2=14/71c2",
    "2 0011 20 18: C371=15/71c3",
    "2 1100 16 18: 0165=17/0165 0266=17/0266 0366=17/0366 0466=22/0466",
    "2 0000 16 18: 6601=18/0166",
    "2 0010 16 18: 6201=26/0162 0162=27/0162",
    "4 0000 5 24: 8301=28/0183 8401=28/0184 8402=28/0284",
    "2 1101 4 18: 0260=29/0260",
    "2 0001 4 24: 6001=30/0160 0D01=30/01d0",
    "2 1101 4 24: 0160=31/0160",
    "2 1110 19 18: 01C3=32/01c3 01C4=32/01c4",
    "2 1100 2 18: 0150=34/0150 0151=35/0151 0152=36/0152 0268=34/0268",
    "2 1101 2 18: 0088=37/0088 0089=38/0088",
    "7 1101 28 18: 020B=39/020b",
    "5 1101 19 18: 01DF=33/01df",
    "1 0001 0 18: 0B01=53/010b",
    "2 0001 7 18: 000A=95/000a 01C0=95/01c0 01C2=95/01c2",
    "2 0111 7 18: 00C2=95/00c2",
};
// flag3 flag4, family, short_name: e_machine / e_flags = machine
constexpr std::string_view kElfSamples[] = {
    "00 1 -: 3=54 6=55",
    "10 21 -: 2=56 18=57",
    "10 16 -: 10=59 38=60 54=61 8=62 51=85",
    "10 10 fp: 78=104",
    "11 11 -: 37=63",
    "10 19 -: 20=64",
    "11 3 -: 36/80000000=65 36/40000000=66 36/20ffffff=67 36/10000000=86 36/02000000=86"
    " 36/08000000=87 36/04ffffff=88",
    "10 7 -: 40=68 40/ffffffff=68",
    "11 20 -: 42/00000000=69 42/80000000=75 42/40000000=70 42/20000000=71 42/10000000=72"
    " 42/08000000=73 42/04000000=74 42/02000001=76",
    "00 19 -: 1=77",
    "00 2 -: 4=79 52=79",
    "01 4 -: 19=80",
    "10 24 -: 44/00000000=81 44/80000000=82 44/40000000=83 44/2fffffff=84",
    "10 26 -: 77=102 57=96",
    "10 14 -: 39=90",
    "10 17 -: 56=91",
    "10 22 st100: 60=97",
    "11 23 sc: 58=101",
    "11 25 zsp: 79=103",
    "10 27 pdsp: 63=105",
    "10 13 max: 102=107",
    "11 8 bf: 106=113 31=113 34=113",
    "10 15 mep: 61453=116",
    "10 12 m32r: 88=108",
    "10 6 arc: 93=109",
    "00 0 -: 36=0 42/01000000=0 99=0 0=0 44/10000000=0",
};
// flag1 and big_endian, flag4, family: four bytes = machine / code
constexpr std::string_view kBsdSamples[] = {
    "01 1: 07010000=44/107 07016400=43/640107",
    "11 2: 01020107=45/1020107 01020108=45/1020108 0102010B=45/102010b 80020107=46/80020107"
    " 00020107=47/20107 00000107=48/107 01000107=49/1000107 01010107=50/1010107"
    " 00010107=51/10107",
    "11 21: 01030107=10/1030107 0103010B=10/1030107 81030107=42/81030107 8103010B=42/8103010b",
};

// What follows the shared words of a group: calls `check` with each word cut at "=" and "/".
void for_each_sample(std::istringstream& group,
                     const std::function<void(const std::vector<std::string>&)>& check) {
  std::string word;
  while (group >> word) {
    std::replace(word.begin(), word.end(), '=', '/');
    std::istringstream parts(word);
    std::vector<std::string> cut;
    for (std::string part; std::getline(parts, part, '/');) {
      cut.push_back(part);
    }
    check(cut);
  }
}

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
};

TEST_F(Identification, KnowsEachCoffMagic) {
  for (const std::string_view line : kCoffSamples) {
    std::istringstream group{std::string(line)};
    int32_t file_class = 0;
    int32_t family = 0;
    int32_t symbol_size = 0;
    std::string flags;
    char colon = 0;
    group >> file_class >> flags >> family >> symbol_size >> colon;
    for_each_sample(group, [&](const std::vector<std::string>& sample) {
      // Bit 2 of the flags in either order, which makes it an executable.
      ASSERT_NE(identify(from_hex(sample[0]) + std::string(16, '\0') + "\x02\x02"), nullptr);
      EXPECT_EQ(magic.machine, std::stoi(sample[1])) << sample[0];
      EXPECT_EQ(magic.code, std::stoul(sample[2], nullptr, 16)) << sample[0];
      EXPECT_EQ(magic.file_class, file_class) << sample[0];
      EXPECT_EQ(magic.symbol_size, symbol_size) << sample[0];
      EXPECT_EQ(magic.family, family) << sample[0];
      EXPECT_EQ(all_flags(), flags) << sample[0];
      EXPECT_EQ(magic.object_kind, object_kind::kExecutable) << sample[0];
      EXPECT_EQ(std::memcmp(magic.first_bytes, from_hex(sample[0]).data(), 2), 0);
    });
  }
}

TEST_F(Identification, KnowsEachElfMachineByItsFlagsToo) {
  for (const std::string_view line : kElfSamples) {
    std::istringstream group{std::string(line)};
    std::string flags;
    int32_t family = 0;
    std::string short_name;
    group >> flags >> family >> short_name;
    for_each_sample(group, [&](const std::vector<std::string>& sample) {
      for (const ByteOrder order : {ByteOrder::little, ByteOrder::big}) {
        Image image;
        image.order = order;
        image.machine = static_cast<uint16_t>(std::stoul(sample[0]));
        image.flags =
            sample.size() < 3 ? 0 : static_cast<uint32_t>(std::stoul(sample[1], nullptr, 16));
        const uint8_t big = order == ByteOrder::big ? 1 : 0;
        ASSERT_NE(identify(text_of(build_image(image))), nullptr);
        EXPECT_EQ(magic.machine, std::stoi(sample.back())) << line;
        EXPECT_EQ(magic.code, image.machine);
        EXPECT_EQ(magic.file_class, file_kind::kElf);
        EXPECT_EQ(magic.big_endian, big);
        EXPECT_EQ(magic.flag1, image.machine == 44 ? 0 : big);
        EXPECT_EQ(all_flags().substr(2), flags) << line;
        EXPECT_EQ(magic.family, family);
        EXPECT_EQ(std::string(magic.short_name == nullptr ? "-" : magic.short_name) + ":",
                  short_name);
        EXPECT_EQ(magic.flags, static_cast<int32_t>(image.flags));
        EXPECT_EQ(magic.symbol_size, 0);
      }
    });
  }
}

TEST_F(Identification, KnowsEachAoutMagic) {
  for (const std::string_view line : kBsdSamples) {
    std::istringstream group{std::string(line)};
    std::string flags;
    int32_t family = 0;
    char colon = 0;
    group >> flags >> family >> colon;
    for_each_sample(group, [&](const std::vector<std::string>& sample) {
      ASSERT_NE(identify(from_hex(sample[0])), nullptr);
      EXPECT_EQ(magic.machine, std::stoi(sample[1])) << sample[0];
      EXPECT_EQ(magic.code, std::stoul(sample[2], nullptr, 16)) << sample[0];
      EXPECT_EQ(magic.file_class, file_kind::kAout);
      EXPECT_EQ(magic.symbol_size, 12);
      EXPECT_EQ(magic.family, family);
      EXPECT_EQ(all_flags(), flags.substr(0, 1) + flags[0] + '1' + flags[1]) << sample[0];
    });
  }
}

TEST_F(Identification, GoesByTheRulesInTheirOrder) {
  constexpr const char* kResource =
      "00000000 20000000 FFFF0000 FFFF0000 00000000 00000000 00000000 00000000";
  struct Case {
    std::string digits;
    const char* name;
    const char* kind;
  };
  const Case cases[] = {
      {"213C617263683E0A", nullptr, "8 0"},           // "!<arch>\n"
      {"3C61696166663E0A", nullptr, "12 0"},          // "<aiaff>\n"
      {"213C656C66613E0A", nullptr, "16 0"},          // "!<elfa>\n"
      {"213C617263683E", "x.pro", "17 0"},            // cut: no other rule gets its turn
      {"3C6169617878780A", nullptr, "17 0"},          // "<aiaxxx\n"
      {"213C7468696E3E0A", nullptr, "17 0"},          // "!<thin>\n"
      {"00000258", nullptr, "10 0"},                  //
      {"00000259", nullptr, "17 0"},                  //
      {"0000FFFF", nullptr, "11 0"},                  //
      {kResource, "x.pro", "14 114"},                 //
      {std::string(kResource, 69), nullptr, "17 0"},  // a byte short
      {"00000000 20000000 FFFF0000 FFFF0000 00000000 01000000 00000000 00000000",  //
       nullptr, "17 0"},
      {"00000000 21000000 FFFF0000 FFFF0000 00000000 00000000 00000000 00000000",  //
       "x.pro", "13 112"},
      {std::string(64, '0'), nullptr, "17 0"},  //
      {"00010107", "x.pro", "1 51"},            // a.out before data
      {"00010108", "x.pro", "9 110"},           // data before the suffix
      {"01010000", nullptr, "9 110"},           //
      {"02020000", nullptr, "9 110"},           //
      {"04000000", nullptr, "9 110"},           //
      {"0102", nullptr, "9 111"},               //
      {"03", nullptr, "9 111"},                 //
      {"05010000", nullptr, "17 0"},            //
      {"494E5400", "x.pro", "9 115"},           // "INT" and a zero
      {"494E5400", nullptr, "9 115"},           //
      {"494E54", nullptr, "9 115"},             // the zero is what a short file lacks
      {"494E5401", nullptr, "17 0"},            //
      {"02100108", "x.dbp", "15 106"},          // SOM
      {"02100109", "x.dbp", "13 112"},          //
      {"41424344", "dir.pro/x", "17 0"},        //
      {"41424344", ".pro", "13 112"},           //
      {"4D5A", "x.pro", "null"},                // COFF before the suffix
      {"", "x.pro", "13 112"},                  //
      {"", nullptr, "17 0"},                    //
      {"7F454C46", nullptr, "3 0"},             // no header
  };
  for (const Case& one : cases) {
    EXPECT_EQ(kind_of_hex(one.digits, one.name), one.kind) << one.digits;
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
  struct Case {
    const char* digits;
    int32_t flags;
    int32_t object_kind;
    int32_t file_class;
  };
  const std::string between(32, '0');
  for (const Case& one : std::initializer_list<Case>{{"4C01 0200", 2, 2, 2},
                                                     {"4C01 0002", 0x200, 1, 2},
                                                     {"4C01 0300", 3, 2, 2},
                                                     {"4C01 0100", 1, 0, 2},
                                                     {"4C01 0020", 0x2000, 1, 2},
                                                     {"4C01 FFFF", -1, 2, 2},
                                                     {"0150 0001", 1, 0, 2},
                                                     {"0150 0100", 0x100, 1, 2},
                                                     {"8301 0001", 0x100, 1, 2},
                                                     {"8301 0000", 0, 1, 4},
                                                     {"4C01", 0, 1, 2}}) {
    const std::string digits(one.digits);
    const std::string flags = digits.size() > 4 ? between + digits.substr(5) : "";
    identify(from_hex(digits.substr(0, 4) + flags));
    EXPECT_EQ(magic.flags, one.flags) << digits;
    EXPECT_EQ(magic.object_kind, one.object_kind) << digits;
    EXPECT_EQ(magic.file_class, one.file_class) << digits;
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

TEST_F(Identification, NamesMachines) {
  EXPECT_STREQ(machinename(1), "Intel 8086");
  EXPECT_STREQ(machinename(41), "RS6000");
  EXPECT_STREQ(machinename(68), "ARM");
  EXPECT_STREQ(machinename(116), "Media Procesor");
  for (const int32_t unknown : {0, -1, 118}) {
    EXPECT_STREQ(machinename(unknown), "unknown machine type");
  }
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
