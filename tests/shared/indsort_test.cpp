#include "indsort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "indgen_memory.h"
#include "operation_table.h"

namespace kelvane {
namespace {

using sort_function = decltype(&qvr_sort);

// The callbacks see addresses only, and the exchange gets no context: the array under test and the
// record of what was called stand here. Elements are single letters, compared without case, so that
// "a" and "A" are equal keys that can be told apart.
struct Recording {
  char* base;
  std::string trace;  // "/c0.3" for a comparison of elements 0 and 3, "/x0.3" for an exchange
};
Recording recording;

std::string position(const void* element) {
  return std::to_string(static_cast<const char*>(element) - recording.base);
}

int32_t compare_letters(void*, const void* first, const void* second) {
  recording.trace += "/c" + position(first) + "." + position(second);
  return std::tolower(*static_cast<const char*>(first)) -
         std::tolower(*static_cast<const char*>(second));
}

void exchange_letters(void* first, void* second, uint32_t size) {
  EXPECT_EQ(size, 1U);
  recording.trace += "/x" + position(first) + "." + position(second);
  std::swap(*static_cast<char*>(first), *static_cast<char*>(second));
}

// Sorts the letters and gives them with the record of the callbacks.
std::string sorted(sort_function sort, std::string letters) {
  recording = {letters.data(), ""};
  sort(nullptr, letters.data(), static_cast<uint32_t>(letters.size()), 1, compare_letters,
       exchange_letters);
  return letters + recording.trace;
}

TEST(Sort, ComparesAndExchangesAsTheTableTells) {
  check_table(
      {Operation("qvr_sort", [](const std::string& text) { return sorted(qvr_sort, text); }),
       Operation("qvr_stable_sort",
                 [](const std::string& text) { return sorted(qvr_stable_sort, text); }),
       Operation("choice",
                 [](const std::string& text, int32_t comparisons) {
                   sorted(qvr_sort, text);
                   size_t end = 0;
                   for (int32_t number = 0; number <= comparisons && end != std::string::npos;
                        ++number) {
                     end = recording.trace.find('/', end == 0 && number == 0 ? 0 : end + 1);
                   }
                   return recording.trace.substr(1, end - 1);
                 })},
      KELVANE_TABLES "indsort.table");
}

struct Record {
  uint32_t key;
  uint32_t place;
  uint32_t payload;
};
static_assert(sizeof(Record) == 12);

int32_t compare_keys(void* context, const void* first, const void* second) {
  ++*static_cast<uint32_t*>(context);
  const uint32_t a = static_cast<const Record*>(first)->key;
  const uint32_t b = static_cast<const Record*>(second)->key;
  return a < b ? -70000 : (a > b ? 70000 : 0);
}

TEST(Sort, AgreesWithTheStandardSortForAnyCountAndAnyNumberOfEqualKeys) {
  std::mt19937 random(20240917);
  std::vector<uint32_t> counts = {2000};
  for (uint32_t count = 0; count <= 80; ++count) {
    counts.push_back(count);
  }
  for (int run = 0; run < 60; ++run) {
    counts.push_back(static_cast<uint32_t>(random() % 2001));
  }
  for (const uint32_t count : counts) {
    for (const uint32_t keys : {1U, 3U, 40U, 1000000U}) {
      std::vector<Record> records(count);
      for (uint32_t place = 0; place < count; ++place) {
        const auto key = static_cast<uint32_t>(random() % keys);
        records[place] = {key, place, key ^ place};
      }
      std::vector<Record> expected = records;
      std::stable_sort(expected.begin(), expected.end(),
                       [](const Record& a, const Record& b) { return a.key < b.key; });
      std::vector<Record> stable = records;
      uint32_t comparisons = 0;
      qvr_stable_sort(&comparisons, stable.data(), count, sizeof(Record), compare_keys, nullptr);
      const auto same = [](const Record& a, const Record& b) {
        return a.key == b.key && a.place == b.place && a.payload == b.payload;
      };
      ASSERT_TRUE(std::equal(stable.begin(), stable.end(), expected.begin(), same))
          << count << " elements, " << keys << " keys";
      EXPECT_EQ(comparisons > 0, count > 1);
      qvr_sort(&comparisons, records.data(), count, sizeof(Record), compare_keys, nullptr);
      for (uint32_t place = 0; place < count; ++place) {
        ASSERT_EQ(records[place].key, expected[place].key)
            << count << " elements, " << keys << " keys";
      }
      // Nothing was lost or doubled.
      std::sort(records.begin(), records.end(),
                [](const Record& a, const Record& b) { return a.place < b.place; });
      for (uint32_t place = 0; place < count; ++place) {
        ASSERT_EQ(records[place].place, place);
        ASSERT_EQ(records[place].payload, records[place].key ^ place);
      }
    }
  }
}

uint32_t allocations = 0;

TEST(StableSort, AllocatesItsIndexAboveSixtyFourElementsOnly) {
  gen_alloc = [](uint32_t count, uint32_t size) {
    ++allocations;
    EXPECT_EQ(count * size, 65U * 4);
    return gen_default_alloc(count, size);
  };
  for (const uint32_t count : {64U, 65U}) {
    allocations = 0;
    std::vector<Record> records(count);
    for (uint32_t place = 0; place < count; ++place) {
      records[place] = {7, place, 0};
    }
    uint32_t comparisons = 0;
    qvr_stable_sort(&comparisons, records.data(), count, sizeof(Record), compare_keys, nullptr);
    EXPECT_TRUE(std::is_sorted(records.begin(), records.end(),
                               [](const auto& a, const auto& b) { return a.place < b.place; }));
    EXPECT_EQ(allocations, count == 65 ? 1U : 0U);
  }
  gen_alloc = gen_default_alloc;
}

TEST(Sort, ExchangesWordsAndBytesWithoutTouchingTheNeighbours) {
  for (const uint32_t size : {1U, 4U, 6U, 12U}) {
    for (const uint32_t offset : {4U, 5U}) {
      alignas(4) std::array<uint8_t, 40> bytes{};
      std::iota(bytes.begin(), bytes.end(), uint8_t{0});
      std::array<uint8_t, 40> expected = bytes;
      std::swap_ranges(expected.begin() + offset, expected.begin() + offset + size,
                       expected.begin() + 24);
      qvr_swap_default_cmp(bytes.data() + offset, bytes.data() + 24, size);
      EXPECT_EQ(bytes, expected) << "size " << size << " at " << offset;
    }
  }
}

TEST(Sort, SortsElementsOfAnOddSizeByTheDefaultExchange) {
  std::string words = "f05555e04444d03333c02222b01111a00000a99999";
  const auto by_first_letter = [](void*, const void* first, const void* second) {
    return std::memcmp(first, second, 6);
  };
  qvr_sort(nullptr, words.data(), 7, 6, by_first_letter, nullptr);
  EXPECT_EQ(words, "a00000a99999b01111c02222d03333e04444f05555");
}

TEST(Sort, StaysInTheArrayWhateverTheComparisonSays) {
  std::mt19937 random(5);
  for (int run = 0; run < 200; ++run) {
    const auto count = static_cast<uint32_t>(random() % 300);
    std::vector<Record> records(count + 2, Record{1, 1, 1});
    records.front() = records.back() = {9, 9, 9};
    const auto at_random = [](void* context, const void*, const void*) {
      return static_cast<int32_t>((*static_cast<std::mt19937*>(context))() % 3) - 1;
    };
    qvr_sort(&random, records.data() + 1, count, sizeof(Record), at_random, nullptr);
    qvr_stable_sort(&random, records.data() + 1, count, sizeof(Record), at_random, nullptr);
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](const Record& record) { return record.key == 9; }),
              2);
    EXPECT_EQ(records.front().key, 9U);
    EXPECT_EQ(records.back().key, 9U);
  }
}

}  // namespace
}  // namespace kelvane
