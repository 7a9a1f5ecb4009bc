#include "indconfig.h"

#include <gtest/gtest.h>

#include <string>

#include "captured_run.h"
#include "changed_surroundings.h"
#include "indgeninit.h"
#include "reset_state.h"
#include "scenario.h"

namespace kelvane {
namespace {

TEST(ConfigurationDirectories, GiveWhatTheTableTells) {
  using Text = const char*;
  const TemporaryDirectory tree;
  const ChangedVariable home("HOME", tree.path("home"));
  reset_all_state();
  gen_changeprogdir(tree.write("bin/program", "").substr(0, tree.path("bin").size()).c_str());
  // clang-format off
  go_through(KELVANE_TABLES "indconfig.table", tree, {
      {"user", [](uint8_t create) {
        char unset = 'x';
        char* error_text = &unset;
        std::string directory = gen_getuserconfigdir(create, &error_text);
        directory += error_text == nullptr ? "" : "!" + taken(error_text);
        EXPECT_EQ(gen_getuserconfigdir(create, nullptr), directory.substr(0, directory.find('!')));
        return directory;
      }},
      {"site", [](Text) { return gen_getsiteconfigdir(); }},
      {"defaults", [](Text) { return gen_getsitedefaultconfigdir(); }},
      {"program", [](Text directory) { gen_changeprogdir(directory); return ""; }},
      {"set", [](Text directory) { gen_setuserconfigdir(directory); return ""; }},
      {"cleanup", [](Text) {
        gen_cleanupconfigdirs();
        return text_of(user_configuration_directory) + ":" + text_of(site_configuration_directory) +
               ":" + text_of(site_default_configuration_directory);
      }},
      {"found", [](Text name, int32_t access_mode, uint8_t defaults_only) {
        char unset = 'x';
        char* error_text = &unset;
        char* const path = gen_searchfileinconfigdirs(name, access_mode, defaults_only, &error_text);
        EXPECT_EQ(error_text, nullptr);
        return path;
      }},
      {"created", [&tree](Text name, uint8_t use_named_file, uint8_t use_override) {
        return gen_createconfigfilename(tree.name().c_str(), name, use_named_file, use_override);
      }},
  });
  // clang-format on
  gen_setuserconfigdir(gen_getuserconfigdir(0, nullptr));  // it may be its own
  EXPECT_EQ(gen_getuserconfigdir(0, nullptr), tree.path("home/.qvr"));

  reset_all_state();  // the directories of an unknown executable are relative
  EXPECT_STREQ(gen_getsiteconfigdir(), "config");
  EXPECT_STREQ(gen_getsitedefaultconfigdir(), "defaults");
  reset_all_state();
}

}  // namespace
}  // namespace kelvane
