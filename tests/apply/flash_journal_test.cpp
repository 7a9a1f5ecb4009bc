#include "flash_journal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "flash_model.h"

namespace kelvane {
namespace {

constexpr uint32_t kIdentity = 0x1234ABCD;
constexpr uint32_t kAtPage = 1;  // of the flash; page 0 stays alone

// Work of some steps that a journal counts, with what the journal promises at any moment.
class Work {
 public:
  Work(const FlashGeometry& geometry, uint32_t steps, uint32_t seed)
      : flash_(geometry, kAtPage + 3, seed), page_size_(geometry.page_size), steps_(steps) {}

  FlashModel& flash() { return flash_; }

  // Goes on until power goes, or to the end. Gives whether it ended.
  bool run() {
    kelvane_journal journal;
    if (kelvane_journal_open(&journal, flash_.driver(), kAtPage * page_size_) != 0) {
      fault("open refused");
      return true;
    }
    look(journal);
    if (journal.state == KELVANE_JOURNAL_NONE) {
      // Nothing is begun over what was there: a step may be done only behind a begin that returned.
      most_ = 0;
      begun_ = true;
      if (kelvane_journal_begin(&journal, kIdentity) != 0) {
        return !flash_.powered() ? false : fault("begin failed");
      }
    } else if (kelvane_journal_resume(&journal) != 0) {
      return !flash_.powered() ? false : fault("resume failed");
    }
    least_ = static_cast<int64_t>(journal.value);
    most_ = least_;
    while (journal.state != KELVANE_JOURNAL_COMPLETE) {
      const uint32_t next = journal.value == steps_ ? KELVANE_JOURNAL_FINISHED : journal.value + 1;
      most_ = next;
      if (kelvane_journal_record(&journal, next) != 0) {
        return !flash_.powered() ? false : fault("record failed");
      }
      least_ = next;
    }
    return true;
  }

  std::string faults() const {
    return faults_ + (flash_.violations != 0 ? " flash rules broken" : "");
  }

 private:
  bool fault(const std::string& what) {
    faults_ += " " + what;
    return true;
  }

  void look(const kelvane_journal& journal) {
    const int64_t value =
        journal.state == KELVANE_JOURNAL_NONE ? -1 : static_cast<int64_t>(journal.value);
    if (value < least_ || value > most_) {
      fault("found " + std::to_string(value) + " of " + std::to_string(least_) + ".." +
            std::to_string(most_));
    }
    if (value >= 0 && journal.identity != kIdentity) {
      fault("another identity");
    }
  }

  FlashModel flash_;
  uint32_t page_size_;
  uint32_t steps_;
  int64_t least_ = -1;  // -1: nothing needs to be found
  int64_t most_ = -1;
  bool begun_ = false;
  std::string faults_;
};

// Runs the work with cuts at these operations, each counted from the start before it, and to the
// end. Gives the operations of the last run, or what went wrong.
std::string run_with_cuts(const FlashGeometry& geometry, uint32_t steps, uint32_t seed,
                          const std::vector<std::pair<uint64_t, Cut>>& cuts) {
  Work work(geometry, steps, seed);
  std::string where = "seed " + std::to_string(seed) + ", cuts";
  for (const auto& [operation, how] : cuts) {
    where += " " + std::to_string(operation) + "/" + std::to_string(static_cast<int>(how));
    work.flash().cut_at(operation, how);
    if (work.run()) {
      break;
    }
  }
  work.flash().power_on();
  work.run();
  work.run();  // and what it says once all is done
  return work.faults().empty() ? "" : where + ":" + work.faults();
}

std::vector<FlashGeometry> geometries() {
  std::vector<FlashGeometry> all;
  for (const uint32_t unit : {4U, 8U, 16U, 32U}) {
    for (const bool ecc : {false, true}) {
      all.push_back({256, unit, ecc});
    }
  }
  return all;
}

uint64_t operations_of(const FlashGeometry& geometry, uint32_t steps) {
  Work work(geometry, steps, 0);
  work.run();
  return work.flash().operations();
}

// Enough steps for the journal to turn its page twice and more.
uint32_t steps_for(const FlashGeometry& geometry) {
  return 2 * geometry.page_size / geometry.unit + 5;
}

TEST(FlashJournal, EveryCutOfUpToThreeInARowKeepsItsPromise) {
  constexpr Cut kHows[] = {Cut::kBefore, Cut::kTorn, Cut::kAfter};
  uint64_t runs = 0;
  uint32_t seed = 1;
  for (const FlashGeometry& geometry : geometries()) {
    // With small units a page has many; all its records are alike but for the ones at its ends.
    const uint32_t steps = geometry.unit == 4 ? 70 : geometry.unit == 8 ? 40 : steps_for(geometry);
    const uint64_t all = operations_of(geometry, steps);
    for (uint64_t first = 0; first < all; ++first) {
      for (uint64_t second = 0; second < 9; ++second) {
        for (uint64_t third = 0; third < 9; ++third) {
          ++seed;
          const std::string fault =
              run_with_cuts(geometry, steps, seed,
                            {{first, Cut::kTorn}, {second, kHows[seed % 3]}, {third, Cut::kTorn}});
          ASSERT_EQ(fault, "") << "unit " << geometry.unit;
          ++runs;
        }
      }
    }
  }
  RecordProperty("runs", std::to_string(runs));
}

// Cuts close together, up to sixteen in a row. KELVANE_JOURNAL_RUNS asks for more runs than the
// usual ones.
TEST(FlashJournal, ManyCutsInARowKeepItsPromise) {
  const char* const asked = std::getenv("KELVANE_JOURNAL_RUNS");
  const uint64_t runs = asked != nullptr ? std::strtoull(asked, nullptr, 10) : 20000;
  const std::vector<FlashGeometry> all = geometries();
  std::minstd_rand random(7);
  for (uint64_t i = 0; i < runs; ++i) {
    const FlashGeometry& geometry = all[i % all.size()];
    std::vector<std::pair<uint64_t, Cut>> cuts = {{random() % 60, Cut::kTorn}};
    for (uint64_t more = random() % 16; more > 0; --more) {
      cuts.emplace_back(random() % 8, static_cast<Cut>(random() % 3));
    }
    const std::string fault =
        run_with_cuts(geometry, steps_for(geometry), static_cast<uint32_t>(random()), cuts);
    ASSERT_EQ(fault, "") << "unit " << geometry.unit;
  }
}

// What another update left, finished or not, never comes back once a new one has begun, and until
// then it is what is found.
TEST(FlashJournal, AnEarlierWorkHoldsUntilTheNextOneHasBegun) {
  uint32_t seed = 0;
  for (const FlashGeometry& geometry : geometries()) {
    const uint32_t at = kAtPage * geometry.page_size;
    for (uint64_t cut = 0; cut < 12; ++cut) {
      for (uint32_t draw = 0; draw < 8; ++draw) {
        FlashModel flash(geometry, kAtPage + 3, ++seed);
        kelvane_journal journal;
        ASSERT_EQ(kelvane_journal_open(&journal, flash.driver(), at), 0);
        ASSERT_EQ(kelvane_journal_begin(&journal, 7), 0);
        for (uint32_t i = 1; i <= steps_for(geometry); ++i) {
          ASSERT_EQ(kelvane_journal_record(&journal, i), 0);
        }
        ASSERT_EQ(kelvane_journal_record(&journal, KELVANE_JOURNAL_FINISHED), 0);
        flash.cut_at(cut, Cut::kTorn);
        const int code = kelvane_journal_begin(&journal, kIdentity);
        ASSERT_EQ(code == 0, flash.powered());
        flash.power_on();
        ASSERT_EQ(kelvane_journal_open(&journal, flash.driver(), at), 0);
        if (journal.identity == 7) {
          ASSERT_EQ(journal.state, KELVANE_JOURNAL_COMPLETE) << "cut " << cut;
          ASSERT_NE(code, 0);
        } else if (journal.state != KELVANE_JOURNAL_NONE) {
          ASSERT_EQ(journal.identity, kIdentity);
          ASSERT_EQ(journal.value, 0u);
        } else {
          ASSERT_NE(code, 0);
        }
        ASSERT_EQ(flash.violations, 0u);
      }
    }
  }
}

TEST(FlashJournal, RefusesWhatItCannotServe) {
  kelvane_journal journal;
  const struct {
    uint32_t page_size, unit;
    int code;
  } cases[] = {{256, 8, 0},
               {256, 32, KELVANE_JOURNAL_OK},
               {256, 2, KELVANE_JOURNAL_BAD_ARGUMENT},
               {256, 64, KELVANE_JOURNAL_BAD_ARGUMENT},
               {256, 12, KELVANE_JOURNAL_BAD_ARGUMENT},
               {128, 32, KELVANE_JOURNAL_BAD_ARGUMENT},
               {260, 8, KELVANE_JOURNAL_BAD_ARGUMENT}};
  for (const auto& [page_size, unit, code] : cases) {
    const FlashModel flash({1024, 8}, 4, 1);
    kelvane_flash_driver driver = *flash.driver();
    driver.page_size = page_size;
    driver.unit = unit;
    EXPECT_EQ(kelvane_journal_open(&journal, &driver, 0), code) << page_size << " " << unit;
  }
  const FlashModel flash({1024, 8}, 4, 1);
  ASSERT_EQ(kelvane_journal_open(&journal, flash.driver(), 0), 0);
  EXPECT_EQ(kelvane_journal_record(&journal, 1), KELVANE_JOURNAL_BAD_ARGUMENT);
  EXPECT_EQ(kelvane_journal_resume(&journal), KELVANE_JOURNAL_BAD_ARGUMENT);
  ASSERT_EQ(kelvane_journal_begin(&journal, 1), 0);
  EXPECT_EQ(kelvane_journal_resume(&journal), KELVANE_JOURNAL_BAD_ARGUMENT);
  EXPECT_EQ(kelvane_journal_record(&journal, 0x10000), KELVANE_JOURNAL_BAD_ARGUMENT);
}

TEST(FlashJournal, AFailedOperationEndsTheRun) {
  int code = KELVANE_JOURNAL_FLASH_FAILED;
  uint32_t n = 0;
  while (code != 0) {
    FlashModel flash({256, 8}, 4, n);
    kelvane_journal journal;
    ASSERT_EQ(kelvane_journal_open(&journal, flash.driver(), 0), 0);
    flash.fail_operation = ++n;
    code = kelvane_journal_begin(&journal, 1);
    if (code != 0) {
      EXPECT_EQ(code, KELVANE_JOURNAL_FLASH_FAILED);
      EXPECT_EQ(kelvane_journal_record(&journal, 1), KELVANE_JOURNAL_BAD_ARGUMENT);
    } else {
      EXPECT_EQ(kelvane_journal_record(&journal, 1), KELVANE_JOURNAL_FLASH_FAILED);
      EXPECT_EQ(kelvane_journal_record(&journal, 1), KELVANE_JOURNAL_BAD_ARGUMENT);
    }
  }
  EXPECT_GE(n, 6u);
}

}  // namespace
}  // namespace kelvane
