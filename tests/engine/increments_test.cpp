#include "increments.h"

#include <gtest/gtest.h>

#include "engine_steps.h"

namespace kelvane {
namespace {

int32_t process(Data old_data, Data new_data, uint32_t command_address, uint32_t old_address,
                uint32_t new_address, int32_t recording) {
  return process_increments(old_data.bytes.data(), new_data.bytes.data(), command_address,
                            static_cast<uint32_t>(new_data.bytes.size()), old_address, new_address,
                            recording);
}

// Both passes, as the caller in the engine makes them.
int32_t take(Data old_data, Data new_data, uint32_t address) {
  const int32_t rehearsed = process(old_data, new_data, address, address, address, 0);
  if (rehearsed != 0) {
    EXPECT_EQ(process(old_data, new_data, address, address, address, 1), rehearsed);
  }
  return rehearsed;
}

class Increments : public EngineTest {};

TEST_F(Increments, AreFoundAsTheTableSays) {
  std::list<Bytes> kept;
  const auto words = [](Data old_data, Data new_data, uint32_t old_address, uint32_t new_address) {
    uint32_t old_word = 0;
    const uint32_t new_word = word_diff(old_data.bytes.data(), new_data.bytes.data(), old_address,
                                        new_address, &old_word);
    return in_hex(new_word) + "/" + in_hex(old_word);
  };
  const auto new_word = [](Data old_data, Data new_data, uint32_t old_address,
                           uint32_t new_address) {
    return in_hex(
        word_diff(old_data.bytes.data(), new_data.bytes.data(), old_address, new_address, nullptr));
  };
  // Takes so many classes: words that change by 1, 2, 3 and so on.
  const auto fill_classes = [](uint32_t count) {
    for (uint32_t i = 1; i <= count; ++i) {
      add_increment(4 * i, i, 100, 1);
    }
    return "";
  };
  go_through(KELVANE_TABLES "increments.table",
             {KELVANE_OPERATION(bad_diff),
              KELVANE_OPERATION(process),
              KELVANE_OPERATION(take),
              {"word_diff", words},
              {"new_word", new_word},
              {"incr_value", [](size_t index) { return in_hex(incr_value[index]); }},
              {"fill_classes", fill_classes}},
             &kept);
}

}  // namespace
}  // namespace kelvane
