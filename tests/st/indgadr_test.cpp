#include "indgadr.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "captured_run.h"
#include "reset_state.h"

namespace kelvane {

bool operator==(const gadr& a, const gadr& b) {
  return a.low == b.low && a.high == b.high;
}

std::ostream& operator<<(std::ostream& stream, const gadr& a) {
  return stream << std::hex << "high 0x" << a.high << " low 0x" << a.low << std::dec;
}

namespace {

constexpr uint32_t kOnes = 0xFFFFFFFF;

// An address by high and low word, in the order in which one reads it.
constexpr gadr at(uint32_t high, uint32_t low) {
  return {low, high};
}

// Every test starts in the mode of a new process.
class TargetAddress : public testing::Test {
 protected:
  void SetUp() override { reset_all_state(); }
  void TearDown() override { reset_all_state(); }

  // The value of `operation` in each of the modes.
  template <typename Operation>
  static auto by_mode(Operation operation) {
    std::array<decltype(operation()), 4> values{};
    for (int32_t mode = 0; mode < 4; ++mode) {
      gadr_set_mode(mode);
      values[static_cast<size_t>(mode)] = operation();
    }
    return values;
  }
};

template <typename Value>
using ByMode = std::array<Value, 4>;

TEST_F(TargetAddress, IsOf32BitsInANewProcess) {
  EXPECT_EQ(theMode, 2);
  gadr a{};
  EXPECT_STREQ(gadr_print(gadr_assign32(&a, 0x1234)), "0x00001234");
  EXPECT_EQ(gadr_set_mode(1), 2);
  EXPECT_EQ(gadr_get_mode(), 1);
}

TEST_F(TargetAddress, ModesAreToldApart) {
  EXPECT_EQ(by_mode(gadr_is16bit), (ByMode<bool>{true, false, false, false}));
  EXPECT_EQ(by_mode(gadr_is16bit_16seg), (ByMode<bool>{false, true, false, false}));
  EXPECT_EQ(by_mode(gadr_is32bit), (ByMode<bool>{false, false, true, false}));
  EXPECT_EQ(by_mode(gadr_is64bit), (ByMode<bool>{false, false, false, true}));
}

TEST_F(TargetAddress, ModesHaveNamesSizesAndEncodings) {
  struct Case {
    int32_t mode;
    const char* name;
    int32_t size, segment_size, encoding;
  };
  for (const Case& c : {Case{0, "16bit", 2, 0, 2}, Case{1, "16bit-16seg", 2, 2, 66},
                        Case{2, "32bit", 4, 0, 4}, Case{3, "64bit", 8, 0, 8}}) {
    EXPECT_STREQ(gadr_name_from_mode(c.mode), c.name);
    EXPECT_EQ(gadr_get_mode_for_adr_byte_size(c.size, c.segment_size), c.mode);
    EXPECT_EQ(gadr_encoding_from_mode(c.mode), c.encoding);
    EXPECT_EQ(gadr_mode_from_encoding(c.encoding), c.mode);
    EXPECT_EQ(gadr_mode_from_encoding(c.encoding + 0x300), c.mode);
  }
}

TEST_F(TargetAddress, BadModesAreReportedAndHaveDefaults) {
  const auto expect_report = [](const char* text, auto operation, auto expected) {
    const CapturedRun run = capture([&] { EXPECT_EQ(operation(), expected); });
    EXPECT_EQ(run.errors, std::string("error: ") + text + "\n");
  };
  for (const int32_t mode : {-1, 4}) {
    expect_report(
        "[adr_name_from_mode]: unknown mode!",
        [=] { return std::string(gadr_name_from_mode(mode)); }, std::string("unknown"));
    expect_report(
        "[gadr_encoding_from_mode]: unknown mode!", [=] { return gadr_encoding_from_mode(mode); },
        4);
  }
  expect_report(
      "[gadr_mode_from_encoding]: unknown mode!", [] { return gadr_mode_from_encoding(3); }, 2);
  const char* const bad_size = "[gadr_get_mode_for_adr_byte_size]: bad adr parameters";
  expect_report(
      bad_size, [] { return gadr_get_mode_for_adr_byte_size(3, 0); }, 2);
  expect_report(
      bad_size, [] { return gadr_get_mode_for_adr_byte_size(4, 2); }, 2);
  expect_report(
      bad_size, [] { return gadr_get_mode_for_adr_byte_size(2, 1); }, 2);
}

TEST_F(TargetAddress, IsAssigned) {
  gadr r{};
  const gadr a = at(1, 2);
  EXPECT_EQ(gadr_assign(&r, &a), &r);
  EXPECT_EQ(r, a);
  EXPECT_EQ(*gadr_assign_nil(&r), at(kOnes, kOnes));
  EXPECT_EQ(*gadr_assign_0(&r), at(0, 0));
  EXPECT_EQ(gadrNil(), at(kOnes, kOnes));

  const auto assigned32 = [&](int32_t v) { return by_mode([&] { return *gadr_assign32(&r, v); }); };
  const gadr narrow = at(0, 0xFFFFFFFE);
  EXPECT_EQ(assigned32(-2), (ByMode<gadr>{narrow, narrow, narrow, at(kOnes, 0xFFFFFFFE)}));
  EXPECT_EQ(assigned32(-1), (ByMode<gadr>{gadrNil(), gadrNil(), gadrNil(), gadrNil()}));
  EXPECT_EQ(assigned32(5)[3], at(0, 5));
}

TEST_F(TargetAddress, LosesASignExtensionOutsideThe64BitMode) {
  gadr r{};
  EXPECT_EQ(*gadr_assign64(&r, 0xFFFFFFFF80000000), at(0, 0x80000000));
  EXPECT_EQ(*gadr_assign64(&r, 0xFFFFFFFF7FFFFFFF), at(kOnes, 0x7FFFFFFF));
  EXPECT_EQ(*gadr_assign64(&r, 0xFFFFFFFFFFFFFFFF), gadrNil());
  EXPECT_EQ(*gadr_assign64(&r, 0x0000000180000000), at(1, 0x80000000));
  EXPECT_EQ(*gadr_sign_extend(&(r = at(0, 0x80000000))), at(0, 0x80000000));
  gadr_set_mode(3);
  EXPECT_EQ(*gadr_assign64(&r, 0xFFFFFFFF80000000), at(kOnes, 0x80000000));
  EXPECT_EQ(*gadr_sign_extend(&(r = at(0, 0x80000000))), at(kOnes, 0x80000000));
  EXPECT_EQ(*gadr_sign_extend(&(r = at(0, 0x7FFFFFFF))), at(0, 0x7FFFFFFF));
  EXPECT_EQ(*gadr_sign_extend(&(r = at(1, 0x80000000))), at(1, 0x80000000));
}

TEST_F(TargetAddress, IsComparedByTheBitsThatCount) {
  const gadr a = at(1, 0x00020003);
  const gadr b = at(2, 0x00010004);
  EXPECT_EQ(by_mode([&] { return gadr_cmp(&a, &b); }), (ByMode<int32_t>{-1, 1, 1, -1}));
  EXPECT_EQ(by_mode([&] { return gadr_lt(&a, &b); }), (ByMode<bool>{true, false, false, true}));
  EXPECT_EQ(by_mode([&] { return gadr_lte(&b, &a); }), (ByMode<bool>{false, true, true, false}));
  const gadr c = at(9, 0x00020003);
  const gadr d = at(9, 0x00070003);
  EXPECT_EQ(by_mode([&] { return gadr_cmp(&a, &c); }), (ByMode<int32_t>{0, 0, 0, -1}));
  EXPECT_EQ(by_mode([&] { return gadr_equal(&c, &d); }), (ByMode<bool>{true, false, false, false}));
  EXPECT_EQ(by_mode([&] { return gadr_not_equal(&a, &c); }),
            (ByMode<bool>{false, false, false, true}));
  EXPECT_EQ(by_mode([&] { return gadr_lt(&a, &c); }), (ByMode<bool>{false, false, false, true}));
  EXPECT_EQ(by_mode([&] { return gadr_lte(&c, &a); }), (ByMode<bool>{true, true, true, false}));
}

TEST_F(TargetAddress, IsComparedWithANumber) {
  const gadr a = at(1, 0x00020003);
  EXPECT_EQ(by_mode([&] { return gadr_cmp32(&a, 3); }), (ByMode<int32_t>{0, 1, 1, 1}));
  EXPECT_EQ(by_mode([&] { return gadr_cmp32(&a, 0x00020003); }), (ByMode<int32_t>{-1, 0, 0, 1}));
  EXPECT_EQ(by_mode([&] { return gadr_lt32(&a, kOnes); }), (ByMode<bool>{true, true, true, false}));
  EXPECT_EQ(by_mode([&] { return gadr_lt32(&a, 3); }), (ByMode<bool>{false, false, false, false}));
  EXPECT_EQ(by_mode([&] { return gadr_lte32(&a, 0x00020003); }),
            (ByMode<bool>{true, true, true, false}));
  gadr_set_mode(3);
  const gadr low = at(0, 0x80000000);
  EXPECT_EQ(gadr_cmp32(&low, 1), 1) << "unsigned";
}

TEST_F(TargetAddress, IsTestedFor0AndNil) {
  struct Case {
    gadr a;
    ByMode<bool> is_0, is_nil, is_nil_or_0, is_not_nil_or_0;
  };
  constexpr bool T = true;
  constexpr bool F = false;
  // clang-format off
  const Case cases[] = {
    // address               0             nil           nil or 0      neither
    {at(0, 0),               {T, T, T, T}, {F, F, F, F}, {T, T, T, T}, {F, F, F, F}},
    {at(1, 0),               {F, F, F, F}, {F, F, F, F}, {T, T, T, F}, {F, F, F, T}},
    {at(0, 0x00010000),      {F, T, F, F}, {F, F, F, F}, {F, F, F, F}, {F, F, T, T}},
    {at(0, 0x0000FFFF),      {F, F, F, F}, {T, T, F, F}, {T, T, F, F}, {F, F, T, T}},
    {at(0, 0xFFFFFFFF),      {F, F, F, F}, {T, T, T, F}, {T, T, T, F}, {F, F, F, T}},
    {at(kOnes, 0xFFFFFFFF),  {F, F, F, F}, {T, T, T, T}, {T, T, T, T}, {F, F, F, F}},
    {at(kOnes, 0x00010002),  {F, F, F, F}, {F, F, F, F}, {F, F, F, F}, {T, T, T, T}},
  };
  // clang-format on
  for (const Case& c : cases) {
    for (int32_t mode = 0; mode < 4; ++mode) {
      SCOPED_TRACE(testing::Message() << c.a << " in mode " << mode);
      gadr_set_mode(mode);
      const auto index = static_cast<size_t>(mode);
      EXPECT_EQ(gadr_is_0(&c.a), c.is_0[index]);
      EXPECT_EQ(gadr_is_not_0(&c.a), !c.is_0[index]);
      EXPECT_EQ(gadr_is_nil(&c.a), c.is_nil[index]);
      EXPECT_EQ(gadr_is_not_nil(&c.a), !c.is_nil[index]);
      EXPECT_EQ(gadr_is_nil_or_0(&c.a), c.is_nil_or_0[index]);
      EXPECT_EQ(gadr_is_not_nil_or_0(&c.a), c.is_not_nil_or_0[index]);
    }
  }
  EXPECT_TRUE(gadr32_is_nil(kOnes));
  EXPECT_FALSE(gadr32_is_nil(0xFFFF));
}

TEST_F(TargetAddress, IsAddedAndSubtracted) {
  const gadr a = at(1, 0x0002FFFF);
  const gadr b = at(3, 0xFFFF0001);
  gadr r{};
  EXPECT_EQ(by_mode([&] { return *gadr_add(&(r = gadrNil()), &a, &b); }),
            (ByMode<gadr>{at(0, 0), at(0, 0x00010000), at(0, 0x00020000), at(5, 0x00020000)}));
  EXPECT_EQ(
      by_mode([&] { return *gadr_inc(&(r = a), &b); }),
      (ByMode<gadr>{at(1, 0x00020000), at(1, 0x00020000), at(1, 0x00020000), at(5, 0x00020000)}));
  EXPECT_EQ(by_mode([&] { return *gadr_sub(&(r = gadrNil()), &b, &a); }),
            (ByMode<gadr>{at(0, 0x0002), at(0, 0xFFFD0002), at(0, 0xFFFC0002), at(2, 0xFFFC0002)}));
  EXPECT_EQ(by_mode([&] { return *gadr_dec(&(r = b), &a); }),
            (ByMode<gadr>{at(0, 0x0002), at(0, 0xFFFD0002), at(0, 0xFFFC0002), at(2, 0xFFFC0002)}));
  const gadr ones = at(0, 0x00010001);
  gadr_set_mode(1);
  r = at(0, 0xFFFFFFFF);
  EXPECT_EQ(gadr_add(&r, &r, &ones), &r);
  EXPECT_EQ(r, at(0, 0)) << "no carry from the offset into the segment";
  gadr_set_mode(3);
  r = at(1, 0);
  EXPECT_EQ(*gadr_sub(&r, &r, &ones), at(0, 0xFFFEFFFF)) << "a borrow";
}

TEST_F(TargetAddress, IsAddedToANumber) {
  const gadr a = at(1, 0x0002FFFF);
  gadr r{};
  const ByMode<gadr> plus_2 = {at(0, 0x0001), at(0, 0x00020001), at(0, 0x00030001),
                               at(1, 0x00030001)};
  EXPECT_EQ(by_mode([&] { return *gadr_add32(&(r = gadrNil()), &a, 2); }), plus_2);
  EXPECT_EQ(by_mode([&] { return *gadr_sub32(&(r = gadrNil()), &a, -2); }), plus_2);
  const ByMode<gadr> grown_by_2 = {at(1, 0x00020001), at(1, 0x00020001), at(1, 0x00030001),
                                   at(1, 0x00030001)};
  EXPECT_EQ(by_mode([&] { return *gadr_inc32(&(r = a), 2); }), grown_by_2);
  EXPECT_EQ(by_mode([&] { return *gadr_dec32(&(r = a), -2); }), grown_by_2);

  const gadr b = at(1, 0x00000001);
  const ByMode<gadr> minus_2 = {at(0, 0xFFFF), at(0, 0xFFFF), at(0, kOnes), at(0, kOnes)};
  EXPECT_EQ(by_mode([&] { return *gadr_add32(&(r = gadrNil()), &b, -2); }), minus_2);
  EXPECT_EQ(by_mode([&] { return *gadr_sub32(&(r = gadrNil()), &b, 2); }), minus_2);
  const ByMode<gadr> less_2 = {at(1, 0xFFFF), at(1, 0xFFFF), at(1, kOnes), at(0, kOnes)};
  EXPECT_EQ(by_mode([&] { return *gadr_inc32(&(r = b), -2); }), less_2);
  EXPECT_EQ(by_mode([&] { return *gadr_dec32(&(r = b), 2); }), less_2);
}

TEST_F(TargetAddress, TakesTheMostNegativeNumberAsAMagnitude) {
  gadr_set_mode(3);
  const gadr a = at(1, 0);
  gadr r{};
  const gadr expected = at(0, 0x80000000);
  EXPECT_EQ(*gadr_add32(&r, &a, INT32_MIN), expected);
  EXPECT_EQ(*gadr_sub32(&r, &a, INT32_MIN), expected);
  EXPECT_EQ(*gadr_inc32(&(r = a), INT32_MIN), expected);
  EXPECT_EQ(*gadr_dec32(&(r = a), INT32_MIN), expected);
}

TEST_F(TargetAddress, StaysNilWhereThatIsAskedFor) {
  const gadr one = at(0, 1);
  gadr r = gadrNil();
  EXPECT_EQ(*gadr_inc_if_not_nil(&r, &one), gadrNil());
  EXPECT_EQ(*gadr_inc32_if_not_nil(&r, 1), gadrNil());
  r = at(0, 7);
  EXPECT_EQ(*gadr_inc_if_not_nil(&r, &one), at(0, 8));
  EXPECT_EQ(*gadr_inc32_if_not_nil(&r, -3), at(0, 5));
}

TEST_F(TargetAddress, DifferenceIsSigned) {
  const gadr a = at(0, 0x00010001);
  const gadr b = at(0, 0x00000002);
  EXPECT_EQ(by_mode([&] { return gadr_diff(&a, &b); }), (ByMode<int32_t>{-1, -1, 0xFFFF, 0xFFFF}));
  EXPECT_EQ(by_mode([&] { return gadr_diff(&b, &a); }), (ByMode<int32_t>{1, 1, -0xFFFF, -0xFFFF}));
}

TEST_F(TargetAddress, MinimumAndMaximumGoByTheMode) {
  const gadr a = at(1, 8);
  const gadr b = at(2, 7);
  const gadr equal_to_b = b;
  gadr r{};
  for (const int32_t mode : {1, 2, 3}) {
    gadr_set_mode(mode);
    const bool wide = mode == 3;
    EXPECT_EQ(*gadr_min(&r, &a, &b), wide ? a : at(0, 7));
    EXPECT_EQ(*gadr_max(&r, &a, &b), wide ? b : at(0, 8));
    EXPECT_EQ(gadr_pmin(&a, &b), wide ? &a : &b);
    EXPECT_EQ(gadr_pmax(&a, &b), wide ? &b : &a);
    EXPECT_EQ(gadr_pmin(&equal_to_b, &b), &b) << "a tie";
    EXPECT_EQ(gadr_pmax(&equal_to_b, &b), wide ? &equal_to_b : &b) << "a tie";
  }
}

TEST_F(TargetAddress, MinimumAndMaximumOf16BitsAreReported) {
  gadr_set_mode(0);
  const gadr a = at(1, 0x00010002);
  const gadr b = at(1, 0x00020001);
  gadr r{};
  const CapturedRun run = capture([&] {
    EXPECT_EQ(*gadr_min(&r, &a, &b), at(0, 0x00010002)) << "by low words";
    EXPECT_EQ(*gadr_max(&r, &a, &b), at(0, 0x00020001));
    EXPECT_EQ(gadr_pmin(&a, &b), &a);
    EXPECT_EQ(gadr_pmax(&a, &b), &b);
  });
  const std::string line = "error: gadr: unimplemented 16bit case\n";
  EXPECT_EQ(run.errors, line + line + line + line);
}

TEST_F(TargetAddress, IsScaled) {
  gadr r{};
  const gadr a = at(1, 0x80028003);
  EXPECT_EQ(
      by_mode([&] { return *gadr_scale_up(&(r = a), 4); }),
      (ByMode<gadr>{at(1, 0x8002000C), at(1, 0x8002000C), at(1, 0x000A000C), at(6, 0x000A000C)}));
  EXPECT_EQ(
      by_mode([&] { return *gadr_scale_down(&(r = a), 2); }),
      (ByMode<gadr>{at(1, 0x80024001), at(1, 0x80024001), at(1, 0x40014001), at(0, 0xC0014001)}));
  EXPECT_EQ(*gadr_scale_down(&(r = a), 1), a);
  EXPECT_EQ(*gadr_scale_up(&(r = a), 1), a);
  gadr_set_mode(2);
  EXPECT_EQ(*gadr_scale_up(&(r = at(0, 5)), 3), at(0, 15));
  EXPECT_EQ(*gadr_scale_down(&(r = at(0, 16)), 3), at(0, 5));
}

TEST_F(TargetAddress, StaysNilWhenScaledBelow64Bits) {
  gadr r{};
  const gadr nil = gadrNil();
  EXPECT_EQ(by_mode([&] { return *gadr_scale_up(&(r = nil), 4); }),
            (ByMode<gadr>{nil, nil, nil, at(kOnes, 0xFFFFFFFC)}));
  EXPECT_EQ(by_mode([&] { return *gadr_scale_down(&(r = nil), 4); }),
            (ByMode<gadr>{nil, nil, nil, at(0x3FFFFFFF, kOnes)}));
  EXPECT_EQ(gadr32_scale_up(5, 3), 15U);
  EXPECT_EQ(gadr32_scale_down(16, 3), 5U);
  EXPECT_EQ(gadr32_scale_up(kOnes, 3), kOnes);
  EXPECT_EQ(gadr32_scale_down(kOnes, 3), kOnes);
}

TEST_F(TargetAddress, IsAligned) {
  gadr r{};
  const gadr a = at(5, 0x12341239);
  for (int32_t mode = 0; mode < 4; ++mode) {
    gadr_set_mode(mode);
    EXPECT_EQ(*gadr_align(&(r = a), 16), at(5, 0x12341230));
    EXPECT_EQ(*gadr_align(&(r = a), 0), a);
    EXPECT_EQ(*gadr_align(&(r = gadrNil()), 16), gadrNil());
    EXPECT_EQ(*gadr_align(&(r = at(0, 20)), 7), at(0, 14));
  }
  EXPECT_EQ(by_mode([&] { return gadr_align(&(r = a), 0x1000000)->low; }),
            (ByMode<uint32_t>{0x12340000, 0x12340000, 0x12000000, 0x12000000}));
}

// What gadr_cmprange gives in the mode in use, and how many warnings it takes.
void expect_place(const gadr& a, const gadr& start, const gadr& end, int32_t place,
                  bool warned = false) {
  const CapturedRun run = capture([&] { EXPECT_EQ(gadr_cmprange(&a, &start, &end), place); });
  EXPECT_EQ(run.errors, warned ? "warning: gadr: invalid range\n" : "") << a;
}

TEST_F(TargetAddress, HasAPlaceByARange) {
  for (int32_t mode = 0; mode < 4; ++mode) {
    SCOPED_TRACE(mode);
    gadr_set_mode(mode);
    expect_place(at(0, 0x0F), at(0, 0x10), at(0, 0x20), -1);
    expect_place(at(0, 0x10), at(0, 0x10), at(0, 0x20), 0);
    expect_place(at(0, 0x1F), at(0, 0x10), at(0, 0x20), 0);
    expect_place(at(0, 0x20), at(0, 0x10), at(0, 0x20), 1);
    expect_place(at(0, 0x0F), at(0, 0x10), at(0, 0x10), -1);
    expect_place(at(0, 0x10), at(0, 0x10), at(0, 0x10), 1);
  }
  gadr_set_mode(3);
  expect_place(at(1, 0), at(0, 0x10), at(0, 0x20), 1);
  expect_place(at(1, 5), at(0, 0x10), at(2, 0), 0);
}

TEST_F(TargetAddress, HasAPlaceByARangeThatWraps) {
  const gadr start = at(0, 0xFFFFFFF0);
  const gadr end = at(0, 0x10);
  for (int32_t mode = 0; mode < 4; ++mode) {
    SCOPED_TRACE(mode);
    gadr_set_mode(mode);
    expect_place(at(0, 0xFFFFFFF8), start, end, 0);
    expect_place(at(0, 0x8), start, end, 0);
    expect_place(at(0, 0x10), start, end, -1);
    expect_place(at(0, 0x100), start, end, -1);
    expect_place(at(0, 0x4), at(0, 0x10), at(0, 0x8), -1, true);
    expect_place(at(0, 0x20), at(0, 0x10), at(0, 0x8), 1, true);
    expect_place(at(0, 0x9), at(0, 0x10), at(0, 0x8), -1);
  }
}

TEST_F(TargetAddress, RangeThatWrapsSpansLessThanHalfTheSpace) {
  EXPECT_EQ(gadr16_cmprange(0, 0x9000, 0x0FFF), 0);
  EXPECT_EQ(gadr32_cmprange(0, 0x90000000, 0x0FFFFFFF), 0);
  const CapturedRun run = capture([] {
    EXPECT_EQ(gadr16_cmprange(0, 0x9000, 0x1000), -1);
    EXPECT_EQ(gadr32_cmprange(0, 0x90000000, 0x10000000), -1);
  });
  EXPECT_EQ(run.errors, "warning: gadr: invalid range\nwarning: gadr: invalid range\n");
}

TEST_F(TargetAddress, RangeOf64BitsThatWrapsIsJudgedByItsWords) {
  gadr_set_mode(3);
  expect_place(at(1, 0), at(2, 0x10), at(1, 0x10), 0);
  expect_place(at(0, 0), at(2, 0x10), at(0, 0x10), -1, true);
  expect_place(at(3, 0), at(2, 0x10), at(0, 0x10), 1, true);
  gadr_set_mode(2);
  const gadr v = at(1, 5);
  const gadr start = at(1, 4);
  const gadr end = at(2, 0);
  EXPECT_EQ(gadr64_cmprange(&v, &start, &end), 0) << "whatever the mode";
}

TEST_F(TargetAddress, HasAPlaceByARangeOfNumbers) {
  const gadr a = at(1, 0x00020018);
  EXPECT_EQ(by_mode([&] { return gadr_cmprange32(&a, 0x00070010, 0x00080020); }),
            (ByMode<int32_t>{0, -1, -1, 1}));
  const gadr b = at(0, 0x00020018);
  EXPECT_EQ(by_mode([&] { return gadr_cmprange32(&b, 0x00020010, 0x00020020); }),
            (ByMode<int32_t>{0, 0, 0, 0}));
}

TEST_F(TargetAddress, HasAPlaceByABlock) {
  const gadr a = at(1, 0x00020018);
  const gadr start = at(1, 0x00020010);
  const gadr far = at(1, 0xFFFFFFF0);
  const gadr behind_the_wrap = at(2, 0x8);
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock(&a, &start, 9); }), (ByMode<int32_t>{0, 0, 0, 0}));
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock(&a, &start, 8); }), (ByMode<int32_t>{1, 1, 1, 1}));
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock(&behind_the_wrap, &far, 0x20); }),
            (ByMode<int32_t>{0, 0, 0, 0}));
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock(&a, &start, 0x00010004); }),
            (ByMode<int32_t>{1, 0, 0, 0}));
}

TEST_F(TargetAddress, HasAPlaceByABlockFromANumber) {
  const gadr a = at(0, 0x8);
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock32(&a, 0xFFFFFFF0, 0x20); }),
            (ByMode<int32_t>{0, 0, 0, 0}));
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock32(&a, 0x7, 0x1); }), (ByMode<int32_t>{1, 1, 1, 1}));
  const gadr high = at(kOnes, 0xFFFFFFF8);
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock32(&high, 0xFFFFFFF0, 0xF); }),
            (ByMode<int32_t>{0, 0, 0, 0}))
      << "a negative start is sign-extended for an address with a high word";
  const gadr above = at(1, 0x8);
  EXPECT_EQ(by_mode([&] { return gadr_cmpblock32(&above, 0x0, 0x10); }),
            (ByMode<int32_t>{0, 0, 0, 1}));
}

TEST_F(TargetAddress, IsPrinted) {
  const gadr a = at(0x1A, 0x002B003C);
  const auto printed = [](const gadr& address) {
    return by_mode([&] { return std::string(gadr_print(&address)); });
  };
  const auto printed_nopad = [](const gadr& address) {
    return by_mode([&] { return std::string(gadr_print_nopad(&address)); });
  };
  EXPECT_EQ(printed(a),
            (ByMode<std::string>{"0x003c", "0x002b003c", "0x002b003c", "0x0000001a_002b003c"}));
  EXPECT_EQ(printed_nopad(a), (ByMode<std::string>{"0x3c", "0x2b3c", "0x2b003c", "0x1a_2b003c"}));
  EXPECT_EQ(printed(at(0, 0x3C)),
            (ByMode<std::string>{"0x003c", "0x003c", "0x0000003c", "0x00000000_0000003c"}));
  EXPECT_EQ(printed_nopad(at(0, 0x3C)), (ByMode<std::string>{"0x3c", "0x3c", "0x3c", "0x0_3c"}));
}

TEST_F(TargetAddress, LeavesFourPrintedTextsAlive) {
  std::vector<const char*> texts;
  for (uint32_t low = 0; low < 4; ++low) {
    const gadr a = at(0, low);
    texts.push_back(gadr_print_nopad(&a));
  }
  for (uint32_t low = 0; low < 4; ++low) {
    EXPECT_EQ(texts[low], "0x" + std::to_string(low));
  }
}

TEST_F(TargetAddress, IsParsed) {
  struct Case {
    const char* text;
    uint32_t high, low;
    const char* rest;
  };
  // clang-format off
  constexpr Case kCases[] = {
    {"1234", 0, 0x1234, ""},
    {"0x00000001_00000002", 1, 2, ""},
    {"0x0000000100000002", 1, 2, ""},
    {" \t\b\r0XaBcDeF", 0, 0xABCDEF, ""},
    {"0x12zz", 0, 0x12, "zz"},
    {"12345678_", 0, 0x12345678, ""},
    {"12345678_ 9", 0, 0x12345678, " 9"},
    {"12345678zz", 0x12345678, 0, "zz"},
    {"123456789", 0x12345678, 9, ""},
    {"1234567_8", 0, 0x1234567, "_8"},
    {"00000001000000023", 1, 2, "3"},
    {"  0xg", 0, 0, "g"},
    {" -1", 0, 0, "-1"},
    {"", 0, 0, ""},
  };
  // clang-format on
  for (const Case& c : kCases) {
    uint32_t low = 77;
    uint32_t high = 77;
    EXPECT_STREQ(gadr_parse_adr(c.text, &low, &high), c.rest) << c.text;
    EXPECT_EQ(at(high, low), at(c.high, c.low)) << c.text;
  }
}

TEST_F(TargetAddress, IsScannedAndScaled) {
  gadr r{};
  const auto scanned = [&](uint32_t scale) {
    return by_mode([&, scale] {
      r = gadrNil();
      EXPECT_STREQ(gadr_scan("0x00000001_00040008,", scale, &r), ",");
      return r;
    });
  };
  EXPECT_EQ(scanned(1), (ByMode<gadr>{at(0, 8), at(0, 8), at(0, 0x00040008), at(1, 0x00040008)}));
  const CapturedRun run = capture([&] {
    EXPECT_EQ(scanned(4), (ByMode<gadr>{at(0, 2), at(0, 2), at(0, 0x00010002), at(1, 0x00040008)}));
  });
  EXPECT_EQ(run.errors, "error: [gadr_scan]: illegal scale factor\n");
}

TEST_F(TargetAddress, ScanningMovesTheTextOn) {
  gadr r{};
  const char* text = "12 34;";
  EXPECT_TRUE(gadr_scanf(&text, 1, &r));
  EXPECT_STREQ(text, " 34;");
  EXPECT_TRUE(gadr_scanf(&text, 2, &r));
  EXPECT_EQ(r, at(0, 0x1A));
  EXPECT_FALSE(gadr_scanf(&text, 1, &r));
  EXPECT_STREQ(text, ";");
}

}  // namespace
}  // namespace kelvane
