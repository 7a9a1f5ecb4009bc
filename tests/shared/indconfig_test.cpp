#include "indconfig.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "captured_run.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

namespace fs = std::filesystem;

// A home directory and the directory of an executable, both in a fresh directory.
class ConfigurationDirectories : public testing::Test {
 protected:
  ConfigurationDirectories() : home_(std::getenv("HOME") == nullptr ? "" : std::getenv("HOME")) {
    reset_all_state();
    fs::create_directory(tree_.path("home"));
    fs::create_directory(tree_.path("bin"));
    ::setenv("HOME", tree_.path("home").c_str(), 1);
    gen_changeprogdir(tree_.path("bin").c_str());
  }
  ~ConfigurationDirectories() override {
    ::setenv("HOME", home_.c_str(), 1);
    reset_all_state();
  }

  // The found name below the fresh directory; "(null)" for none.
  std::string found(const char* name, int access_mode = R_OK, uint8_t defaults_only = 0) {
    const gen_ptr<char> path(gen_searchfileinconfigdirs(name, access_mode, defaults_only, nullptr));
    return path == nullptr ? "(null)" : below_tree(path.get());
  }
  std::string created(const char* name, uint8_t use_named_file, uint8_t use_override) {
    const gen_ptr<char> path(
        gen_createconfigfilename(tree_.name().c_str(), name, use_named_file, use_override));
    return below_tree(path.get());
  }
  std::string below_tree(const std::string& path) {
    return fs::path(path).lexically_relative(tree_.name()).string();
  }

  TemporaryDirectory tree_;

 private:
  std::string home_;
};

TEST_F(ConfigurationDirectories, LieInTheHomeDirectoryAndBesideTheExecutable) {
  EXPECT_EQ(gen_getuserconfigdir(0, nullptr), tree_.path("home/.qvr"));
  EXPECT_FALSE(fs::exists(tree_.path("home/.qvr")));
  EXPECT_EQ(gen_getsiteconfigdir(), tree_.path("bin/config"));
  EXPECT_EQ(gen_getsitedefaultconfigdir(), tree_.path("bin/defaults"));
  gen_changeprogdir(tree_.path("home").c_str());
  EXPECT_EQ(gen_getsiteconfigdir(), tree_.path("bin/config"));  // kept until they are cleaned up
  gen_cleanupconfigdirs();
  EXPECT_EQ(user_configuration_directory, nullptr);
  EXPECT_EQ(site_configuration_directory, nullptr);
  EXPECT_EQ(site_default_configuration_directory, nullptr);
  EXPECT_EQ(gen_getsiteconfigdir(), tree_.path("home/config"));
  EXPECT_EQ(gen_getsitedefaultconfigdir(), tree_.path("home/defaults"));
}

TEST_F(ConfigurationDirectories, OfAnUnknownExecutableAreRelative) {
  gen_free(gen_progdir);
  gen_progdir = nullptr;
  EXPECT_STREQ(gen_getsiteconfigdir(), "config");
  EXPECT_STREQ(gen_getsitedefaultconfigdir(), "defaults");
}

TEST_F(ConfigurationDirectories, OfTheUserAreMadeOnDemand) {
  char unset = 'x';
  char* error_text = &unset;
  gen_getuserconfigdir(1, &error_text);
  EXPECT_EQ(error_text, nullptr);
  EXPECT_TRUE(fs::is_directory(tree_.path("home/.qvr")));
  gen_setuserconfigdir(tree_.write("plain", "").c_str());
  EXPECT_EQ(capture([&] { gen_getuserconfigdir(1, &error_text); }).errors, "");
  EXPECT_EQ(error_text, "Couldn't create user config directory: " + tree_.path("plain"));
  gen_free(error_text);
  EXPECT_EQ(gen_getuserconfigdir(1, nullptr), tree_.path("plain"));
}

TEST_F(ConfigurationDirectories, OfTheUserCanBeSet) {
  gen_setuserconfigdir("elsewhere");
  gen_setuserconfigdir(nullptr);
  gen_setuserconfigdir("");
  EXPECT_STREQ(gen_getuserconfigdir(0, nullptr), "elsewhere");
  gen_setuserconfigdir(gen_getuserconfigdir(0, nullptr));
  EXPECT_STREQ(gen_getuserconfigdir(0, nullptr), "elsewhere");
}

TEST_F(ConfigurationDirectories, AreSearchedFromTheMostPersonalOn) {
  EXPECT_EQ(found("f"), "(null)");
  tree_.write("bin/defaults/f", "");
  EXPECT_EQ(found("f"), "bin/defaults/f");
  tree_.write("bin/config/f", "");
  EXPECT_EQ(found("f"), "bin/config/f");
  fs::create_directories(tree_.path("home/.qvr/f"));  // a directory is passed over
  EXPECT_EQ(found("f"), "bin/config/f");
  fs::remove(tree_.path("home/.qvr/f"));
  tree_.write("home/.qvr/f", "");
  EXPECT_EQ(found("f"), "home/.qvr/f");
  EXPECT_EQ(found("f", R_OK, 1), "bin/defaults/f");
  ::chmod(tree_.path("bin/config/f").c_str(), 0755);  // the user's can't be executed
  EXPECT_EQ(found("f", X_OK), "bin/config/f");
  EXPECT_EQ(found(""), "(null)");
  EXPECT_EQ(found(nullptr), "(null)");
}

TEST_F(ConfigurationDirectories, AreNotSearchedForAnAbsoluteName) {
  const std::string name = tree_.write("f", "");
  EXPECT_EQ(found(name.c_str()), "f");
  EXPECT_EQ(found(name.c_str(), X_OK), "(null)");
  EXPECT_EQ(found(tree_.path("bin").c_str()), "(null)");
  tree_.write("home/.qvr/~f", "");
  EXPECT_EQ(found("~f"), "(null)");
}

TEST_F(ConfigurationDirectories, ClearTheErrorTextOfASearch) {
  char unset = 'x';
  char* error_text = &unset;
  EXPECT_EQ(gen_searchfileinconfigdirs(nullptr, R_OK, 0, &error_text), nullptr);
  EXPECT_EQ(error_text, nullptr);
}

TEST_F(ConfigurationDirectories, NameAConfigurationFile) {
  EXPECT_EQ(created("x.cfg", 1, 0), "x.cfg");
  EXPECT_EQ(created("x.ini", 1, 1), "x.cfg");
  EXPECT_EQ(created("x", 0, 0), "qvr.cfg");
  tree_.write("override/x.cfg", "");
  EXPECT_EQ(created("x", 1, 1), "override/x.cfg");
  EXPECT_EQ(created("x", 0, 0), "qvr.cfg");
  tree_.write("qvr.cfg", "");
  EXPECT_EQ(created("x", 1, 0), "qvr.cfg");
}

}  // namespace
}  // namespace kelvane
