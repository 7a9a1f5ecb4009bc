#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <vector>

#include "bytes.h"
#include "diffshared.h"
#include "indgeninit.h"
#include "reset_state.h"

namespace kelvane {

// Each test finds the engine as a new process has it.
class EngineTest : public testing::Test {
 protected:
  EngineTest() {
    reset_all_state();
    gen_endian_init();
  }
  ~EngineTest() override { reset_all_state(); }
  EngineTest(const EngineTest&) = delete;
  EngineTest& operator=(const EngineTest&) = delete;
};

// A move, or a block of a CM_MOVE without its shift.
struct Move {
  uint32_t address;
  int32_t size;
  friend bool operator==(const Move&, const Move&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Move& move) {
    return out << "(" << move.address << ", " << move.size << ")";
  }
};

inline std::vector<Move> moves_of(const command_record* list) {
  std::vector<Move> moves;
  for (; list != nullptr; list = list->next) {
    moves.push_back({list->address, list->size});
  }
  return moves;
}

// A command that stores bytes.
struct Store {
  uint32_t address;
  Bytes bytes;
  friend bool operator==(const Store&, const Store&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Store& store) {
    return out << "(" << store.address << ", " << testing::PrintToString(store.bytes) << ")";
  }
};

inline std::vector<Store> stores_of(const command_record* list) {
  std::vector<Store> stores;
  for (; list != nullptr; list = list->next) {
    stores.push_back({list->address, Bytes(list->data.bytes, list->data.bytes + list->size)});
  }
  return stores;
}

}  // namespace kelvane
