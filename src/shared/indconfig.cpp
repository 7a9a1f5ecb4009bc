#include "indconfig.h"

#include <sys/stat.h>

#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_path.h"
#include "indgen_string.h"
#include "indgeninit.h"
#include "indview.h"
#include "shared_reset.h"

namespace kelvane {

char* user_configuration_directory = nullptr;
char* site_configuration_directory = nullptr;
char* site_default_configuration_directory = nullptr;

namespace {

constexpr const char* kUserDirectory = ".qvr";
constexpr const char* kSiteDirectory = "config";
constexpr const char* kSiteDefaultDirectory = "defaults";
constexpr const char* kOverrideDirectory = "override";
constexpr const char* kCommonFile = "qvr.cfg";
constexpr const char* kSuffix = ".cfg";

constexpr mode_t kUserDirectoryMode = 0755;

void clear(char** text) {
  if (text != nullptr) {
    *text = nullptr;
  }
}

bool is_usable_file(const char* path, int access_mode) {
  return gen_access(path, access_mode) == 0 && gen_isdir(path) == 0;
}

bool exists(const char* path) {
  struct stat status {};
  return gen_stat(path, &status) == 0;
}

// Gives `name` in `directory` if that is a file that allows the access, otherwise null.
gen_ptr<char> usable_file_in(const char* directory, const char* name, int access_mode) {
  gen_ptr<char> path(gen_sconcat(directory, name));
  if (!is_usable_file(path.get(), access_mode)) {
    path.reset();
  }
  return path;
}

// Gives `name` in `directory` with the suffix of configuration files.
gen_ptr<char> named_file_in(const char* directory, const char* name) {
  const gen_ptr<char> path(gen_sconcat(directory, name));
  return gen_ptr<char>(gen_changesuffix(path.get(), kSuffix));
}

}  // namespace

const char* gen_getuserconfigdir(uint8_t create, char** error_text) {
  clear(error_text);
  if (user_configuration_directory == nullptr) {
    user_configuration_directory = gen_sconcat(gen_gethomedir(), kUserDirectory);
  }
  if (create != 0 && gen_createdir(user_configuration_directory, kUserDirectoryMode) != 0 &&
      error_text != nullptr) {
    *error_text =
        gen_concat("Couldn't create user config directory: ", user_configuration_directory);
  }
  return user_configuration_directory;
}

void gen_setuserconfigdir(const char* directory) {
  if (directory == nullptr || *directory == '\0') {
    return;
  }
  char* const copy = gen_copy(directory);  // first, since `directory` may be the old one
  gen_free(user_configuration_directory);
  user_configuration_directory = copy;
}

const char* gen_getsiteconfigdir() {
  if (site_configuration_directory == nullptr) {
    site_configuration_directory = gen_sconcat(gen_getprogdir(), kSiteDirectory);
  }
  return site_configuration_directory;
}

const char* gen_getsitedefaultconfigdir() {
  if (site_default_configuration_directory == nullptr) {
    site_default_configuration_directory = gen_sconcat(gen_getprogdir(), kSiteDefaultDirectory);
  }
  return site_default_configuration_directory;
}

char* gen_searchfileinconfigdirs(const char* name, int access_mode, uint8_t defaults_only,
                                 char** error_text) {
  clear(error_text);
  if (name == nullptr) {
    return nullptr;
  }
  if (gen_absolutefilename(name)) {
    return is_usable_file(name, access_mode) ? gen_copy(name) : nullptr;
  }
  gen_ptr<char> path;
  if (defaults_only == 0) {
    path = usable_file_in(gen_getuserconfigdir(0, error_text), name, access_mode);
    if (path == nullptr) {
      path = usable_file_in(gen_getsiteconfigdir(), name, access_mode);
    }
  }
  if (path == nullptr) {
    path = usable_file_in(gen_getsitedefaultconfigdir(), name, access_mode);
  }
  return path.release();
}

void gen_cleanupconfigdirs() {
  for (char** const directory : {&user_configuration_directory, &site_configuration_directory,
                                 &site_default_configuration_directory}) {
    gen_free(*directory);
    *directory = nullptr;
  }
}

char* gen_createconfigfilename(const char* directory, const char* name, uint8_t use_named_file,
                               uint8_t use_override) {
  if (use_override != 0) {
    const gen_ptr<char> overriding(gen_dconcat(directory, kOverrideDirectory));
    gen_ptr<char> path = named_file_in(overriding.get(), name);
    if (exists(path.get())) {
      return path.release();
    }
  }
  gen_ptr<char> common(gen_sconcat(directory, kCommonFile));
  if (use_named_file == 0 || exists(common.get())) {
    return common.release();
  }
  return named_file_in(directory, name).release();
}

void reset_indconfig() {
  gen_cleanupconfigdirs();
}

}  // namespace kelvane
