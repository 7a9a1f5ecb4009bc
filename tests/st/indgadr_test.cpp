#include "indgadr.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "captured_run.h"
#include "operation_table.h"
#include "reset_state.h"

namespace kelvane {

// Addresses in a table: high:low in hexadecimal, low alone, or nil.
void from_text(const std::string& text, gadr* a) {
  *a = gadrNil();
  if (text != "nil" && std::sscanf(text.c_str(), "%x:%x", &a->high, &a->low) == 1) {
    *a = {a->high, 0};
  }
}
std::string to_text(const gadr& a) {
  if (a.high == 0xFFFFFFFF && a.low == a.high) {
    return "nil";
  }
  std::array<char, 20> text{};
  const int high = a.high != 0 ? std::snprintf(text.data(), text.size(), "%X:", a.high) : 0;
  std::snprintf(text.data() + high, text.size() - static_cast<size_t>(high), "%X", a.low);
  return text.data();
}

namespace {

// Every test starts in the mode of a new process.
class TargetAddress : public testing::Test {
 protected:
  void SetUp() override { reset_all_state(); }
  void TearDown() override { reset_all_state(); }
};

// What an operation gives in each mode, one text if that is the same in all.
std::string by_mode(const Operation& operation, const std::vector<std::string>& arguments) {
  std::set<std::string> different;
  std::string all;
  for (int32_t mode = 0; mode < 4; ++mode) {
    gadr_set_mode(mode);
    std::string given;
    if (!capture([&] { given = operation(arguments); }).errors.empty()) {
      given += "!";
    }
    all += (mode == 0 ? "" : "/") + given;
    different.insert(given);
  }
  return different.size() == 1 ? *different.begin() : all;
}

// Operations as a table calls them: on values, with a result that held something else before.
template <auto operation>
gadr changed(gadr a) {
  EXPECT_EQ(operation(&a), &a);
  return a;
}
template <auto operation, typename Second>
gadr changed_by(gadr a, Second b) {
  if constexpr (std::is_same_v<Second, gadr>) {
    EXPECT_EQ(operation(&a, &b), &a);
  } else {
    EXPECT_EQ(operation(&a, b), &a);
  }
  return a;
}
template <auto operation, typename Second>
gadr made_of(gadr a, Second b) {
  gadr r = gadrNil();
  if constexpr (std::is_same_v<Second, gadr>) {
    EXPECT_EQ(operation(&r, &a, &b), &r);
    EXPECT_EQ(operation(&a, &a, &b), &a);
  } else {
    EXPECT_EQ(operation(&r, &a, b), &r);
    EXPECT_EQ(operation(&a, &a, b), &a);
  }
  EXPECT_EQ(to_text(a), to_text(r));  // the result may be an operand
  return r;
}
template <auto operation>
bool tested(gadr a) {
  return operation(&a);
}
template <auto operation>
int32_t compared(gadr a, gadr b) {
  return operation(&a, &b);
}
template <auto operation>
int32_t compared_with(gadr a, uint32_t v) {
  return operation(&a, v);
}
template <auto operation>
std::string chosen(gadr a, gadr b) {
  return operation(&a, &b) == &a ? "a" : "b";
}

std::string first_word(const std::string& text) {
  return text.substr(0, text.find(','));
}

// Names the operation after the one that it calls.
#define CALLED(caller, ...) Operation(first_word(#__VA_ARGS__), caller<__VA_ARGS__>)

TEST_F(TargetAddress, GivesWhatTheTableTells) {
  // clang-format off
  const std::vector<Operation> operations = {
      {"is16bit", [](int32_t) { return gadr_is16bit(); }},
      {"is16bit_16seg", [](int32_t) { return gadr_is16bit_16seg(); }},
      {"is32bit", [](int32_t) { return gadr_is32bit(); }},
      {"is64bit", [](int32_t) { return gadr_is64bit(); }},
      {"assign32", [](int32_t v) { gadr r{}; return *gadr_assign32(&r, v); }},
      {"assign64", [](uint64_t v) { gadr r{}; return *gadr_assign64(&r, v); }},
      {"sign_extend", changed<gadr_sign_extend>},
      CALLED(compared, gadr_cmp), CALLED(compared, gadr_lt), CALLED(compared, gadr_lte),
      CALLED(compared, gadr_equal), CALLED(compared, gadr_not_equal), CALLED(compared, gadr_diff),
      CALLED(compared_with, gadr_cmp32), CALLED(compared_with, gadr_lt32),
      CALLED(compared_with, gadr_lte32), CALLED(tested, gadr_is_0), CALLED(tested, gadr_is_not_0),
      CALLED(tested, gadr_is_nil), CALLED(tested, gadr_is_not_nil), CALLED(tested, gadr_is_nil_or_0),
      CALLED(tested, gadr_is_not_nil_or_0), KELVANE_OPERATION(gadr32_is_nil),
      CALLED(made_of, gadr_add, gadr), CALLED(made_of, gadr_sub, gadr),
      CALLED(made_of, gadr_add32, int32_t), CALLED(made_of, gadr_sub32, int32_t),
      CALLED(changed_by, gadr_inc, gadr), CALLED(changed_by, gadr_dec, gadr),
      CALLED(changed_by, gadr_inc32, int32_t), CALLED(changed_by, gadr_dec32, int32_t),
      CALLED(changed_by, gadr_inc_if_not_nil, gadr),
      CALLED(changed_by, gadr_inc32_if_not_nil, int32_t),
      CALLED(made_of, gadr_min, gadr), CALLED(made_of, gadr_max, gadr),
      CALLED(chosen, gadr_pmin), CALLED(chosen, gadr_pmax),
      CALLED(changed_by, gadr_scale_up, uint32_t), CALLED(changed_by, gadr_scale_down, uint32_t),
      CALLED(changed_by, gadr_align, uint32_t),
      KELVANE_OPERATION(gadr32_scale_up), KELVANE_OPERATION(gadr32_scale_down),
      KELVANE_OPERATION(gadr16_cmprange), KELVANE_OPERATION(gadr32_cmprange),
      {"gadr_cmprange", [](gadr a, gadr s, gadr e) { return gadr_cmprange(&a, &s, &e); }},
      {"gadr64_cmprange", [](gadr a, gadr s, gadr e) { return gadr64_cmprange(&a, &s, &e); }},
      {"gadr_cmprange32", [](gadr a, uint32_t s, uint32_t e) { return gadr_cmprange32(&a, s, e); }},
      {"gadr_cmpblock", [](gadr a, gadr s, uint32_t n) { return gadr_cmpblock(&a, &s, n); }},
      {"gadr_cmpblock32", [](gadr a, uint32_t s, uint32_t n) { return gadr_cmpblock32(&a, s, n); }},
      {"gadr_print", [](gadr a) { return gadr_print(&a); }},
      {"gadr_print_nopad", [](gadr a) { return gadr_print_nopad(&a); }},
      {"parse", [](const char* text) {
        gadr a = gadrNil();
        const char* const rest = gadr_parse_adr(text, &a.low, &a.high);
        return to_text(a) + "|" + rest;
      }},
      {"scan", [](const char* text, uint32_t scale) {
        gadr a = gadrNil();
        const char* const rest = gadr_scan(text, scale, &a);
        return to_text(a) + "|" + rest;
      }},
  };
  // clang-format on
  check_table(operations, KELVANE_TABLES "indgadr.table", by_mode);
}

TEST_F(TargetAddress, IsOf32BitsInANewProcess) {
  EXPECT_EQ(theMode, 2);
  gadr a{};
  EXPECT_STREQ(gadr_print(gadr_assign32(&a, 0x1234)), "0x00001234");
  EXPECT_EQ(gadr_set_mode(1), 2);
  EXPECT_EQ(gadr_get_mode(), 1);
  const gadr other = {2, 1};
  EXPECT_EQ(gadr_assign(&a, &other), &a);
  EXPECT_EQ(to_text(a), "1:2");
  EXPECT_EQ(to_text(*gadr_assign_nil(&a)), "nil");
  EXPECT_EQ(to_text(*gadr_assign_0(&a)), "0");
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

TEST_F(TargetAddress, ReportsWhatItCannotCompare) {
  const gadr a{};
  EXPECT_EQ(capture([] { gadr32_cmprange(0, 0x90000000, 0x10000000); }).errors,
            "warning: gadr: invalid range\n");
  gadr_set_mode(0);
  EXPECT_EQ(capture([&a] { gadr_pmin(&a, &a); }).errors, "error: gadr: unimplemented 16bit case\n");
  gadr r{};
  gadr_set_mode(3);
  EXPECT_EQ(capture([&r] { gadr_scan("1", 2, &r); }).errors,
            "error: [gadr_scan]: illegal scale factor\n");
}

TEST_F(TargetAddress, LeavesFourPrintedTextsAlive) {
  std::vector<const char*> texts;
  for (uint32_t low = 0; low < 4; ++low) {
    const gadr a = {low, 0};
    texts.push_back(gadr_print_nopad(&a));
  }
  for (uint32_t low = 0; low < 4; ++low) {
    EXPECT_EQ(texts[low], "0x" + std::to_string(low));
  }
}

TEST_F(TargetAddress, ScanningMovesTheTextOn) {
  gadr r{};
  const char* text = "12 34;";
  EXPECT_TRUE(gadr_scanf(&text, 1, &r));
  EXPECT_STREQ(text, " 34;");
  EXPECT_TRUE(gadr_scanf(&text, 2, &r));
  EXPECT_EQ(to_text(r), "1A");
  EXPECT_FALSE(gadr_scanf(&text, 1, &r));
  EXPECT_STREQ(text, ";");
}

}  // namespace
}  // namespace kelvane
