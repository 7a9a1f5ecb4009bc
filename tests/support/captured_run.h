#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

namespace kelvane {

// Thrown by the gen_exit that the tests put in place of the real one.
struct EndOfRun {
  int32_t status;
};

// What a call left: its text on standard error, and the status if it ended the run.
struct CapturedRun {
  std::string errors;
  bool ended = false;
  int32_t status = -1;
};

// Calls `action` with standard error captured and with gen_exit turned into an exception, so that
// a call that ends the run can be looked at.
CapturedRun capture(const std::function<void()>& action);

}  // namespace kelvane
