#include "kelvane.h"

#include <gtest/gtest.h>

#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "indgen_memory.h"
#include "motion.h"

namespace kelvane {
namespace {

using Moves = std::vector<Move>;

struct Section {
  std::string name;
  uint32_t addr;
  std::string text;   // the contents in the file
  uint32_t size = 0;  // of a section without contents, or of an expanded one
  uint32_t type = 1;
  uint32_t compressed_size = 0;
};

// An image whose file holds the contents end to end, behind a first byte.
class TestImage {
 public:
  TestImage(const char* name, const std::vector<Section>& sections) : bytes_(1, 0) {
    names_.reserve(sections.size());
    for (const Section& section : sections) {
      names_.push_back(section.name);
      sym_addr record = {};
      record.name = names_.back().data();
      record.type = section.type;
      record.addr.low = section.addr;
      record.offset.low = static_cast<uint32_t>(bytes_.size()) - 1;
      record.object_start = 1;
      record.size = section.size != 0 ? section.size : static_cast<uint32_t>(section.text.size());
      record.compressed_size = section.compressed_size;
      records_.push_back(record);
      bytes_.insert(bytes_.end(), section.text.begin(), section.text.end());
    }
    file_ = {name, bytes_.data(),   static_cast<int32_t>(bytes_.size()), 0,
             0,    records_.data(), records_.data() + records_.size(),   0};
  }
  TestImage(const TestImage&) = delete;
  TestImage& operator=(const TestImage&) = delete;

  const file_data* file() const { return &file_; }
  sym_addr& record(size_t index) { return records_[index]; }
  const Bytes& bytes() const { return bytes_; }

 private:
  std::vector<std::string> names_;
  std::vector<sym_addr> records_;
  Bytes bytes_;
  file_data file_;
};

CapturedRun compare(const TestImage& first, const TestImage& second) {
  return capture([&] { diff_mem(first.file(), second.file(), 100, 1000, -1); });
}

class MemoryMode : public EngineTest {
 protected:
  static void expect_failure(const std::vector<Section>& first, const std::vector<Section>& second,
                             const std::string& words) {
    reset_all_state();
    const CapturedRun run = compare({"old", first}, {"new", second});
    EXPECT_EQ(run.errors, "fatal: " + words + "\n");
    EXPECT_EQ(run.status, 1);
  }
};

TEST_F(MemoryMode, MakesNoCommandWithoutSections) {
  EXPECT_EQ(compare({"old", {{".gone", 0x100, "abc"}}}, {"new", {}}).errors, "");
  EXPECT_EQ(first_move, nullptr);
  EXPECT_EQ(first_checksum1, nullptr);
}

TEST_F(MemoryMode, ComparesSectionsInTheOrderOfTheirAddresses) {
  debug_level = 1;
  const TestImage first("old",
                        {{".b", 0x200, "bbbb"}, {".a", 0x100, "aaaa"}, {".empty", 0x300, ""}});
  const TestImage second("new",
                         {{".empty", 0x300, ""}, {".b", 0x200, "bbXb"}, {".a", 0x100, "aaaa"}});
  EXPECT_EQ(compare(first, second).errors,
            "Adding patch for section '.a'\nAdding patch for section '.b'\n"
            "Adding patch for section '.empty'\n");
  // Each section but the first gets an end mark at its start, and each ends with one.
  EXPECT_EQ(moves_of(first_move),
            (Moves{{0x104, 0}, {0x200, 0}, {0x204, 0}, {0x300, 0}, {0x300, 0}}));
  EXPECT_EQ(stores_of(first_sub_one), (std::vector<Store>{{0x202, {'X'}}}));
  EXPECT_EQ(moves_of(first_checksum1), (Moves{{0x100, 4}, {0x200, 4}}));
  EXPECT_NE(checksum1, checksum2);
}

TEST_F(MemoryMode, PlacesSectionsByTheGapsInFrontOfThem) {
  struct Case {
    const char* why;
    uint32_t first1;  // addresses of two sections of 4 bytes in each image
    uint32_t second1;
    uint32_t first2;
    uint32_t second2;
    Moves moves;
  };
  const Case cases[] = {
      {"both stay", 0x100, 0x200, 0x100, 0x200, {{0x104, 0}, {0x200, 0}, {0x204, 0}}},
      {"the first moves",
       0x100,
       0x200,
       0x140,
       0x200,
       {{0x100, 0x40}, {0x104, 0}, {0x200, 0}, {0x204, 0}}},
      {"both move",
       0x100,
       0x200,
       0x140,
       0x240,
       {{0x100, 0x40}, {0x104, 0}, {0x200, 0}, {0x200, 0x40}, {0x204, 0}}},
      {"the gap goes", 0x100, 0x200, 0x100, 0x104, {{0x104, 0}, {0x200, -0xFC}, {0x204, 0}}},
      {"there is no gap",
       0x100,
       0x104,
       0x140,
       0x144,
       {{0x100, 0x40}, {0x104, 0}, {0x104, 0}, {0x104, 0x40}, {0x108, 0}}},
      {"the gap that goes has no signed size",
       0,
       0x90000000,
       0x7FFFFFF0,
       0x7FFFFFF4,
       {{0, 0x7FFFFFF0}, {4, 0}, {0x90000000, 0}, {0x90000000, -0x1000000C}, {0x90000004, 0}}},
      {"a gap comes",
       0x100,
       0x104,
       0x100,
       0x200,
       {{0x104, 0}, {0x104, 0}, {0x104, 0xFC}, {0x108, 0}}},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.why);
    reset_all_state();
    EXPECT_EQ(compare({"old", {{".a", row.first1, "aaaa"}, {".b", row.second1, "bbbb"}}},
                      {"new", {{".a", row.first2, "aaaa"}, {".b", row.second2, "bbbb"}}})
                  .errors,
              "");
    EXPECT_EQ(moves_of(first_move), row.moves);
  }
}

TEST_F(MemoryMode, RefusesSectionsThatCannotBePaired) {
  expect_failure({{".a", 0x100, "abcd"}, {".b", 0x103, "efgh"}}, {},
                 "old: section '.b' overlaps section '.a'");
  expect_failure({}, {{".a", 0x100, "abcd"}, {".b", 0x102, "", 0, 8}},
                 "new: section '.b' overlaps section '.a'");
  expect_failure({{".a", 0x100, "a"}}, {{".b", 0x100, ""}},
                 "could not find section '.b' in first file");
  expect_failure({{".a", 0x100, "a"}, {".b", 0x200, "b"}}, {{".b", 0x100, "b"}, {".a", 0x200, "a"}},
                 "internal error: sections must be in ascending order");
  expect_failure({{".a", 0, "abcd"}}, {{".a", 0x7FFFFFFC, "abcd"}}, "section '.a' moves too far");
  expect_failure({{".bss", 0xFFFFFFF0, "", 0x11, 8}}, {{".bss", 0, "", 4, 8}},
                 "section '.bss' in file 'old' runs past the end of the addresses");
  expect_failure({{".a", 0x100, "a"}}, {{".a", 0x100, "a", 2}},
                 "section '.a' lies outside file 'new'");
  // Right at the edges all is well.
  reset_all_state();
  EXPECT_EQ(compare({"old", {{".a", 0x100, "abcd"}, {".e", 0x104, ""}, {".b", 0x104, "efgh"}}},
                    {"new", {}})
                .errors,
            "");
  EXPECT_EQ(compare({"old", {{".a", 0, "abcd"}, {".bss", 0xFFFFFFF0, "", 0x10, 8}}},
                    {"new", {{".a", 0x7FFFFFFB, "abcd"}, {".bss", 0xFFFFFFF0, "", 0x10, 8}}})
                .errors,
            "");
}

TEST_F(MemoryMode, NamesTheFirstOverlapAmongMany) {
  std::vector<Section> sections;
  for (uint32_t i = 0; i < 32768; ++i) {
    sections.push_back({".s" + std::to_string(i), 0x70000000 + 16 * i, "", 16, 8});
  }
  reset_all_state();
  {
    const TestImage many("old", sections);
    check_overlap(many.file()->sections, 32768, "old");
  }
  // The order of the pairs counts, not that of the places where they overlap.
  sections[20000].size = 17;
  sections[10].size = 40;
  expect_failure(sections, {}, "old: section '.s11' overlaps section '.s10'");
  // Addresses are signed here, so a section over the middle of all addresses meets none.
  const TestImage middle("old", {{".m", 0x7FFFFFFC, "", 8, 8}, {".n", 0x80000000, "", 16, 8}});
  check_overlap(middle.file()->sections, 2, "old");
}

TEST_F(MemoryMode, TakesSectionsWithoutContentsAsZeros) {
  const TestImage first("old", {{".noinit", 0x100, "", 4, 8}, {".my_bss", 0x200, "", 4, 8}});
  const TestImage second("new",
                         {{".noinit", 0x100, std::string(4, '\0')}, {".my_bss", 0x200, "", 4, 8}});
  EXPECT_EQ(compare(first, second).errors,
            "warning: SHT_NOBITS for possibly non-BSS section '.noinit' in file 'old'\n");
  EXPECT_EQ(first_sub, nullptr);
  EXPECT_EQ(first_fill, nullptr);
  EXPECT_EQ(checksum1, 0U);
}

TEST_F(MemoryMode, ExpandsCompressedSections) {
  const std::string stream =
      "\x07"
      "abc\xEE\xF6";
  const auto packed = [&](uint32_t size, const std::string& bytes) {
    return Section{".text_x", 0x100, bytes, size, 1, static_cast<uint32_t>(bytes.size())};
  };
  debug_level = 1;
  const TestImage second("new", {{".text_x", 0x100, "abcabcabcabc" + std::string(4, '\0')}});
  EXPECT_EQ(compare({"old", {packed(16, stream)}}, second).errors,
            "Uncompressing section '.text_x' from file 'old'\n"
            "Adding patch for section '.text_x'\n");
  EXPECT_EQ(first_sub, nullptr);
  const char* const words = "compressed section '.text_x' in file 'old' is damaged";
  expect_failure({packed(11, stream)}, {{".text_x", 0x100, "a"}}, words);
  expect_failure({packed(16, stream.substr(0, 5))}, {{".text_x", 0x100, "a"}}, words);
}

TEST_F(MemoryMode, LooksAtStartTextWithoutComparingIt) {
  const TestImage first("old", {{"XXX.starttext", 0x100, "", 16, 8}, {".a", 0x200, "a"}});
  const TestImage second("new", {{"XXX.starttext", 0x100, "", 16, 8}, {".a", 0x200, "a"}});
  EXPECT_EQ(compare(first, second).errors,
            "warning: SHT_NOBITS for possibly non-BSS section 'XXX.starttext' in file 'old'\n"
            "warning: SHT_NOBITS for possibly non-BSS section 'XXX.starttext' in file 'new'\n");
  // It counts as the first section all the same.
  EXPECT_EQ(moves_of(first_move), (Moves{{0x200, 0}, {0x201, 0}}));
  EXPECT_EQ(moves_of(first_checksum1), (Moves{{0x200, 1}}));
}

TEST_F(MemoryMode, MovesBlocksOfACopyAndSumsWhatWasThereBefore) {
  const std::string code = "The quick brown fox jumps over the lazy dog. ";
  const std::string other(code.rbegin(), code.rend());
  swap_block_enabled = 1;
  const TestImage first("old", {{".text", 0x100, code + other + std::string(45, '.')}});
  const TestImage second("new", {{".text", 0x100, std::string(45, '-') + code + other}});
  const Bytes before = first.bytes();
  EXPECT_EQ(compare(first, second).errors,
            "warning: No usable swap region found for memory swapping pass\n");
  EXPECT_NE(first_abs_move, nullptr);
  EXPECT_EQ(first.bytes(), before);
  uint32_t sum = 0;
  for (size_t i = 1; i < before.size(); ++i) {
    sum = (sum << 7U | sum >> 25U) + before[i];
  }
  EXPECT_EQ(checksum1, sum);
}

}  // namespace
}  // namespace kelvane
