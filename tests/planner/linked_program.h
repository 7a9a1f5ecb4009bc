// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bytes.h"
#include "dense_plan.h"

namespace kelvane {

// A made-up program: functions that call each other and take addresses of each other, and a table
// of pointers. Linked at a base it is an image in which everything refers to everything, as in real
// firmware; changed and linked again it gives the other image of a pair.
class LinkedProgram {
 public:
  LinkedProgram(uint32_t functions, Random& random);
  // A new function in front of function `place`.
  void insert(uint32_t place, Random& random);
  void swap(uint32_t first, uint32_t second);

  Bytes link(const dense_target& target) const;

 private:
  struct Step {
    enum Kind : uint8_t { plain, call, address, pool } kind = plain;
    uint32_t value = 0;  // random bits, or the number of a function
  };
  struct Function {
    uint32_t number = 0;
    std::vector<Step> steps;
  };
  Function make(Random& random);

  uint32_t made_ = 0;
  std::vector<Function> functions_;
};

}  // namespace kelvane
