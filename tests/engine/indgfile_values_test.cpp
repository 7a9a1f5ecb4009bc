#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "captured_run.h"
#include "indgen_memory.h"
#include "indgfile.h"
#include "structured_file.h"

namespace kelvane {
namespace {

using Bytes = std::vector<uint8_t>;

TEST_F(StructuredFile, StoresNumbersInFixedWidths) {
  const std::string bytes = written(kVariable, 2, [](GFile* file) {
    gf_put_1(file, 0x81);
    gf_put_2(file, 0x8203);
    gf_put_4(file, 0x84050607);
    gf_put_8(file, 0x88090A0B8C0D0E0F);
    gf_put_adr16(file, 0x9011);
    gf_put_adr32(file, 0x92131415);
    const gadr address = {0x9A1B1C1D, 0x96171819};
    gf_put_adr64(file, &address);
  });
  EXPECT_EQ(bytes, text({0x81, 0x82, 0x03, 0x84, 0x05, 0x06, 0x07, 0x88, 0x09, 0x0A,
                         0x0B, 0x8C, 0x0D, 0x0E, 0x0F, 0x90, 0x11, 0x92, 0x13, 0x14,
                         0x15, 0x96, 0x17, 0x18, 0x19, 0x9A, 0x1B, 0x1C, 0x1D}));
  GFile* const file = reopen();
  EXPECT_EQ(gf_get_1(file), 0x81);
  EXPECT_EQ(gf_get_2(file), 0x8203);
  EXPECT_EQ(gf_get_4(file), 0x84050607);
  EXPECT_EQ(gf_get_8(file), 0x88090A0B8C0D0E0F);
  EXPECT_EQ(gf_get_adr16(file), 0x9011);
  EXPECT_EQ(gf_get_adr32(file), 0x92131415U);
  gadr address = {};
  gf_get_adr64(file, &address);
  EXPECT_EQ(address.high, 0x96171819U);
  EXPECT_EQ(address.low, 0x9A1B1C1DU);
  EXPECT_EQ(gf_get_4(file), 0U);  // at the end
  gf_close(file);
}

TEST_F(StructuredFile, StoresUnsignedNumbersInSevenBitGroups) {
  const auto expect = [this](uint32_t version, uint32_t value, std::initializer_list<uint8_t> s) {
    expect_stored(version, gf_put_un, gf_get_un, value, s);
  };
  expect(0, 300, {0x00, 0x00, 0x01, 0x2C});
  expect(kVariable, 300, {0xAC, 0x02});
  expect(kVariable, 0, {0x00});
  expect(kVariable, 127, {0x7F});
  expect(kVariable, 128, {0x80, 0x01});
  expect(kVariable, UINT32_MAX, {0xFF, 0xFF, 0xFF, 0xFF, 0x0F});
}

TEST_F(StructuredFile, StoresSignedNumbersInSevenBitGroups) {
  const auto expect = [this](uint32_t version, int32_t value, std::initializer_list<uint8_t> s) {
    expect_stored(version, gf_put_sn, gf_get_sn, value, s);
  };
  expect(0, -2, {0xFF, 0xFF, 0xFF, 0xFE});
  expect(kVariable, 0, {0x00});
  expect(kVariable, -1, {0x7F});
  expect(kVariable, 63, {0x3F});
  expect(kVariable, 64, {0xC0, 0x00});
  expect(kVariable, -64, {0x40});
  expect(kVariable, -65, {0xBF, 0x7F});
  expect(kVariable, -129, {0xFF, 0x7E});
  expect(kVariable, INT32_MAX, {0xFF, 0xFF, 0xFF, 0xFF, 0x07});
  expect(kVariable, INT32_MIN, {0x80, 0x80, 0x80, 0x80, 0x78});
}

TEST_F(StructuredFile, ReadsZeroWhereANumberIsCutAndDropsBitsBeyondThirtyTwo) {
  GFile* file = open_variable(text({0xAC}));
  EXPECT_EQ(gf_get_un(file), 0U);
  EXPECT_EQ(gf_get_un(file), 0U);
  EXPECT_EQ(gf_get_iss(file), -1);
  gf_close(file);
  file = open_variable(text({0xFF}));
  EXPECT_EQ(gf_get_sn(file), 0);
  gf_close(file);
  file = open_variable(text({0x81, 0x80, 0x80, 0x80, 0xF0, 0x80, 0xFF, 0x01, 0x05}));
  EXPECT_EQ(gf_get_un(file), 1U);
  EXPECT_EQ(gf_get_un(file), 5U);
  gf_close(file);
}

TEST_F(StructuredFile, StoresMinusOneOfAnIndexInOneByte) {
  expect_stored(kVariable, gf_put_iss, gf_get_iss, -1, {0x00});
  expect_stored(kVariable, gf_put_ind, gf_get_ind, 127, {0x80, 0x01});
  expect_stored(0, gf_put_iss, gf_get_iss, -1, {0xFF, 0xFF, 0xFF, 0xFF});
}

TEST_F(StructuredFile, StoresFollowingIndexesAsDifferences) {
  const auto put = [](GFile* file) {
    gf_put_iss_2(file, 9, 7);
    gf_put_ind_2(file, -1, 3);
    gf_put_iss_3(file, 0, 100, 98);
    gf_put_ind_3(file, INT32_MIN, INT32_MAX, INT32_MAX);
  };
  const auto expect_back = [this] {
    GFile* const file = reopen();
    int32_t a = 0;
    int32_t b = 0;
    int32_t c = 0;
    gf_get_iss_2(file, &a, &b);
    EXPECT_EQ(std::vector({a, b}), std::vector({9, 7}));
    gf_get_ind_2(file, &a, &b);
    EXPECT_EQ(std::vector({a, b}), std::vector({-1, 3}));
    gf_get_iss_3(file, &a, &b, &c);
    EXPECT_EQ(std::vector({a, b, c}), std::vector({0, 100, 98}));
    gf_get_ind_3(file, &a, &b, &c);
    EXPECT_EQ(std::vector({a, b, c}), std::vector({INT32_MIN, INT32_MAX, INT32_MAX}));
    gf_close(file);
  };
  EXPECT_EQ(written(kVariable, 2, put), text({0x0A, 0x7E, 0x00, 0x04, 0x01, 0xE4, 0x00, 0x7E, 0x81,
                                              0x80, 0x80, 0x80, 0x08, 0x7F, 0x00}));
  expect_back();
  EXPECT_EQ(written(0, 2, put),
            text({0,    0, 0, 9, 0,    0,    0,    7,    0xFF, 0xFF, 0xFF, 0xFF, 0, 0,
                  0,    3, 0, 0, 0,    0,    0,    0,    0,    100,  0,    0,    0, 98,
                  0x80, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF}));
  expect_back();
}

TEST_F(StructuredFile, TellsANullStringFromAnEmptyOne) {
  const auto put = [](GFile* file) {
    gf_put_str(file, nullptr);
    gf_put_str(file, "");
    gf_put_str(file, "ab");
  };
  EXPECT_EQ(written(0, 2, put), text({0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 3, 'a', 'b', 0}));
  EXPECT_EQ(written(kVariable, 2, put), text({0x00, 0x01, 0x00, 0x03, 'a', 'b', 0}));
  GFile* const file = reopen();
  EXPECT_EQ(gf_get_str(file), nullptr);
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "");
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "ab");
  EXPECT_EQ(gf_get_str(file), nullptr);  // at the end
  gf_close(file);
}

TEST_F(StructuredFile, BelievesTheLengthOfAStringOnlyAsFarAsTheFileGoes) {
  const std::string long_string(10000, 'k');
  written(0, 2, [&](GFile* file) { gf_put_str(file, long_string.c_str()); });
  GFile* file = reopen();
  EXPECT_EQ(gen_ptr<char>(gf_get_str(file)).get(), long_string);
  gf_close(file);
  file = open(header(), text({0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'}));
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "ab");
  gf_close(file);
  file = open(header(), text({0, 0, 0, 2, 'a', 'b', 'c'}));  // no terminator
  EXPECT_STREQ(gen_ptr<char>(gf_get_str(file)).get(), "ab");
  EXPECT_EQ(gf_get_1(file), 'c');
  gf_close(file);
}

TEST_F(StructuredFile, StoresPairsOfAddressesAsDifferences) {
  const gadr low = {5, 1};
  const gadr high = {4, 3};
  const auto put = [&](GFile* file) {
    gf_put_adr16_2(file, 0xFFFF, 1);  // the difference is that of the unsigned values
    gf_put_adr32_2(file, 0xFFFFFFFF, 1);
    gf_put_adr64_2(file, &low, &high);
  };
  const auto expect_back = [&] {
    GFile* const file = reopen();
    uint16_t first16 = 0;
    uint16_t second16 = 0;
    gf_get_adr16_2(file, &first16, &second16);
    EXPECT_EQ(std::vector({first16, second16}), (std::vector<uint16_t>{0xFFFF, 1}));
    uint32_t first32 = 0;
    uint32_t second32 = 0;
    gf_get_adr32_2(file, &first32, &second32);
    EXPECT_EQ(std::vector({first32, second32}), std::vector({0xFFFFFFFFU, 1U}));
    gadr first = {};
    gadr second = {};
    gf_get_adr64_2(file, &first, &second);
    EXPECT_EQ(std::vector({first.high, first.low, second.high, second.low}),
              std::vector({1U, 5U, 3U, 4U}));
    gf_close(file);
  };
  EXPECT_EQ(written(kVariable, 2, put),
            text({0xFF, 0xFF, 0x82, 0x80, 0x7C, 0xFF, 0xFF, 0xFF, 0xFF, 0x02,
                  0,    0,    0,    1,    0,    0,    0,    5,    0x02, 0x7F}));
  expect_back();
  EXPECT_EQ(written(0, 2, put), text({0xFF, 0xFF, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1, 0, 0,
                                      0,    1,    0, 0, 0,    5,    0,    0,    0, 3, 0, 0, 0, 4}));
  expect_back();
}

// What the addresses 0x89AB'4567 and 0xFFFE'FFFF (both with a high word) store in a mode, alone and
// as a pair, and what they read back as over a prior value.
struct AddressCase {
  int32_t mode;
  std::string single;
  std::string pair;
  gadr first;
  gadr second;
};

TEST_F(StructuredFile, StoresWhatCountsOfAnAddressInItsMode) {
  const gadr nil = {UINT32_MAX, UINT32_MAX};
  const std::vector<AddressCase> cases = {
      {0, text({0x45, 0x67}), text({0x45, 0x67, 0x98, 0xF5, 0x02}), {0x33334567, 0x44444444}, nil},
      {1,
       text({0xAB, 0x93, 0x02, 0x45, 0x67}),
       text({0xAB, 0x93, 0x02, 0xFE, 0xFF, 0x03, 0x45, 0x67, 0x98, 0xF5, 0x02}),
       {0x89AB4567, 0x44444444},
       nil},
      {2,
       text({0x89, 0xAB, 0x45, 0x67}),
       text({0x89, 0xAB, 0x45, 0x67, 0x98, 0xF5, 0xCE, 0xB2, 0x07}),
       {0x89AB4567, 0x44444444},
       {0xFFFEFFFF, 0x44444444}},
      {3,
       text({0, 0, 0, 7, 0x89, 0xAB, 0x45, 0x67}),
       text({0, 0, 0, 7, 0x89, 0xAB, 0x45, 0x67, 0x01, 0x98, 0xF5, 0xCE, 0xB2, 0x07}),
       {0x89AB4567, 7},
       {0xFFFEFFFF, 8}},
  };
  const gadr first = {0x89AB4567, 7};
  const gadr second = {0xFFFEFFFF, 8};
  for (const AddressCase& expected : cases) {
    SCOPED_TRACE("mode " + std::to_string(expected.mode));
    const std::string bytes = written(kVariable, expected.mode, [&](GFile* file) {
      gf_put_adr(file, &first);
      gf_put_adr_2(file, &first, &second);
    });
    EXPECT_EQ(bytes, expected.single + expected.pair);
    GFile* const file = reopen();
    std::array<gadr, 3> read = {};
    read.fill({0x33333333, 0x44444444});
    gf_get_adr(file, &read[0]);
    gf_get_adr_2(file, &read[1], &read[2]);
    const std::array<gadr, 3> wanted = {expected.first, expected.first, expected.second};
    for (size_t i = 0; i < read.size(); ++i) {
      EXPECT_EQ(read[i].low, wanted[i].low) << i;
      EXPECT_EQ(read[i].high, wanted[i].high) << i;
    }
    gf_close(file);
  }
}

TEST_F(StructuredFile, ReadsAllOnesAsNilAndNothingInAnUnknownMode) {
  GFile* const file = open(header(), text({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x12}));
  gadr address = {1, 2};
  gf_get_adr(file, &address);
  EXPECT_EQ(address.low, UINT32_MAX);
  EXPECT_EQ(address.high, UINT32_MAX);
  file->address_mode = 0;
  address = {1, 2};
  gf_get_adr(file, &address);
  EXPECT_EQ(address.low, UINT32_MAX);
  EXPECT_EQ(address.high, UINT32_MAX);
  file->address_mode = 4;
  gf_get_adr(file, &address);
  gf_get_adr_2(file, &address, &address);
  gf_put_adr(file, &address);
  gf_put_adr_2(file, &address, &address);
  EXPECT_EQ(gf_get_1(file), 0x12);
  gf_close(file);
}

TEST_F(StructuredFile, PadsInDescendingOrderAndChecksThePad) {
  EXPECT_EQ(written(0, 2,
                    [](GFile* file) {
                      gf_put_alignpad(file, 4);  // 20 is aligned
                      gf_put_1(file, 0x11);
                      gf_put_alignpad(file, 0);
                      gf_put_alignpad(file, 1);
                      gf_put_alignpad(file, 4);
                      gf_put_1(file, 0x22);
                    }),
            text({0x11, 0xAD, 0xAC, 0xAB, 0x22}));
  GFile* file = reopen();
  gf_get_1(file);
  gf_get_alignpad(file, 4);
  EXPECT_EQ(gf_get_1(file), 0x22);
  EXPECT_EQ(gf_got_error(file), 0);
  gf_close(file);
  const CapturedRun run = capture([&] {
    file = open(header(), text({0x11, 0xAD, 0xAB, 0xAC, 0x22}));
    gf_get_1(file);
    gf_get_alignpad(file, 4);
    EXPECT_EQ(gf_get_1(file), 0x22);  // carried on
    EXPECT_EQ(file->alignpad_error, 1);
    gf_close(file);
  });
  EXPECT_EQ(run.errors, "error: Error while processing \"" + folder.path("written") + "\"\n");
}

TEST_F(StructuredFile, HoldsBytesAsTheyAre) {
  const Bytes bytes = {1, 2, 3, 4, 5};
  written(
      kVariable, 2, [&](GFile* file) { gf_put_array_1(file, bytes.data(), 5); }, 1);
  GFile* const file = reopen();
  gf_skip_array_1(file, 2);
  Bytes read(4, 0xEE);
  gf_get_array_1(file, read.data(), 4);
  EXPECT_EQ(read, (Bytes{3, 4, 5, 0xEE}));
  gf_close(file);
}

TEST_F(StructuredFile, StoresWordsOneByOneWithoutRawArrays) {
  const std::vector<uint32_t> words = {0x01020304, 0x05060708, 0x090A0B0C};
  const std::string bytes = written(kVariable, 2, [&](GFile* file) {
    gf_put_1(file, 0x11);
    gf_put_array_4(file, words.data(), 3);
    gf_put_array_4(file, words.data(), 0);
  });
  EXPECT_EQ(bytes, text({0x11, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  GFile* const file = reopen();
  gf_get_1(file);
  gf_skip_array_4(file, 1);
  std::vector<uint32_t> read(2);
  gf_get_array_4(file, read.data(), 2);
  EXPECT_EQ(read, std::vector({0x05060708U, 0x090A0B0CU}));
  gf_skip_array_4(file, UINT32_MAX);  // ends with the file
  gf_close(file);
}

TEST_F(StructuredFile, StoresRawWordsAlignedInTheHostsOrderAndMarksIt) {
  const std::vector<uint32_t> words = {0x01020304, 0x05060708};
  const std::string bytes = written(
      kVariable, 2,
      [&](GFile* file) {
        gf_put_1(file, 0x11);
        gf_put_array_4(file, words.data(), 0);  // no padding either
        gf_put_array_4(file, words.data(), 2);
      },
      7);
  const std::string whole = folder.read("written");
  const bool little = whole[18] == 2;
  EXPECT_EQ(bytes.substr(0, 4), text({0x11, 0xAD, 0xAC, 0xAB}));
  EXPECT_EQ(bytes.substr(4),
            little ? text({4, 3, 2, 1, 8, 7, 6, 5}) : text({1, 2, 3, 4, 5, 6, 7, 8}));
  GFile* const file = reopen();
  EXPECT_EQ(file->swapped, 0);
  gf_get_1(file);
  gf_skip_array_4(file, 1);
  uint32_t read = 0;
  gf_get_array_4(file, &read, 1);
  EXPECT_EQ(read, 0x05060708U);
  gf_close(file);
}

TEST_F(StructuredFile, ReadsRawWordsOfEitherOrder) {
  for (const uint8_t mark : {uint8_t{1}, uint8_t{2}}) {
    Bytes start = header();
    start[18] = mark;
    GFile* const file = open(start, mark == 1 ? text({1, 2, 3, 4}) : text({4, 3, 2, 1}));
    EXPECT_EQ(file->raw_arrays, mark);
    uint32_t read = 0;
    gf_get_array_4(file, &read, 1);
    EXPECT_EQ(read, 0x01020304U);
    const uint32_t one = 1;
    const bool host_is_little = *reinterpret_cast<const uint8_t*>(&one) == 1;
    EXPECT_EQ(file->swapped != 0, (mark == 2) != host_is_little);
    // Words of the other order can't be used where they stand.
    gf_open_memory_mapping(file, 1, nullptr, nullptr);
    EXPECT_EQ(gf_can_memory_map_array(file, 1), 1);
    EXPECT_EQ(gf_can_memory_map_array(file, 4), file->swapped != 0 ? 0 : 1);
    gf_close(file);
  }
}

TEST(WordSwap, ReversesTheBytesOfEachWord) {
  std::array<uint32_t, 2> words = {0x01020304, 0xA0B0C0D0};
  gf_swap_array_4(words.data(), 2);
  EXPECT_EQ(words, (std::array<uint32_t, 2>{0x04030201, 0xD0C0B0A0}));
}

}  // namespace
}  // namespace kelvane
