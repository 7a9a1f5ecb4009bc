#include "indsharedlib.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "captured_run.h"

namespace kelvane {
namespace {

TEST(SharedLibrary, FindsFunctionsAndStaysLoadedWhenClosed) {
  void* const handle = qvr_open_shared_library("libc.so.6", RTLD_NOW);
  ASSERT_NE(handle, nullptr) << qvr_last_shared_library_error();
  EXPECT_EQ(qvr_close_shared_library(handle), 1);
  using getpid_function = pid_t (*)();
  for (const auto find : {qvr_get_shared_library_func_ptr, qvr_must_get_shared_library_func_ptr}) {
    const auto function = reinterpret_cast<getpid_function>(find(handle, "getpid"));
    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function(), ::getpid());
  }
}

TEST(SharedLibrary, TellsWhyALibraryCannotBeLoaded) {
  EXPECT_EQ(qvr_open_shared_library("/nowhere/libmissing.so", RTLD_NOW), nullptr);
  EXPECT_THAT(qvr_last_shared_library_error(), testing::HasSubstr("/nowhere/libmissing.so"));
  EXPECT_EQ(qvr_last_shared_library_error(), nullptr);
}

TEST(SharedLibrary, ReportsAMissingFunctionOnlyWhereItMustBeThere) {
  void* const program = qvr_open_shared_library(nullptr, RTLD_NOW);
  ASSERT_NE(program, nullptr);
  EXPECT_EQ(capture([&] {
              EXPECT_EQ(qvr_get_shared_library_func_ptr(program, "no_such_thing"), nullptr);
            }).errors,
            "");
  const CapturedRun run = capture(
      [&] { EXPECT_EQ(qvr_must_get_shared_library_func_ptr(program, "no_such_thing"), nullptr); });
  EXPECT_EQ(run.errors, "error: Could not resolve \"no_such_thing\"\n");
  EXPECT_FALSE(run.ended);
}

}  // namespace
}  // namespace kelvane
