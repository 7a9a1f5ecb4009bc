#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "captured_run.h"
#include "indgen_memory.h"
#include "indview.h"
#include "operation_table.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {

// Two trees, "near" and "far", in a fresh directory, with "near" as the current directory and the
// environment free of all that controls viewpathing.
class ViewpathFixture : public testing::Test {
 protected:
  ViewpathFixture() : start_(std::filesystem::current_path()), umask_(::umask(022)) {
    clear();
    std::filesystem::create_directory(near_);
    std::filesystem::create_directory(far_);
    std::filesystem::current_path(near_);
  }
  ~ViewpathFixture() override {
    std::filesystem::current_path(start_);
    ::umask(umask_);
    clear();
  }

  // Brings viewpathing up over `list` and gives what it said.
  static std::string bring_up(const std::string& list, int32_t mode = 1) {
    ::setenv("NVPATH", list.c_str(), 1);
    return capture([mode] { gen_viewpathing_init(mode); }).errors;
  }
  std::string bring_up_both(int32_t mode = 1) { return bring_up(near_ + ":" + far_, mode); }

  static bool exists(const std::string& name) { return std::filesystem::exists(name); }

  TemporaryDirectory trees_;
  std::string near_ = trees_.path("near");
  std::string far_ = trees_.path("far");

  static void clear() {
    for (const char* const variable :
         {"NVPATH", "QVR_VP_DEBUG", "QVR_VP_OFF", "QVR_VP_SLOW", "QVR_VP_XSW"}) {
      ::unsetenv(variable);
    }
    reset_all_state();
  }

 private:
  std::filesystem::path start_;
  mode_t umask_;
};

}  // namespace kelvane
