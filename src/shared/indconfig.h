#pragma once

#include <cstdint>

// The three directories that may hold a configuration file, from the most personal to the most
// general: the user's own, and beside the executable the site's and the defaults. This is the only
// place where their names stand. Each is computed when it is first asked for.
namespace kelvane {

// The directories, owned, null until asked for. Written by the three getters,
// gen_setuserconfigdir and gen_cleanupconfigdirs.
extern char* user_configuration_directory;          // ".qvr" in the home directory
extern char* site_configuration_directory;          // "config" beside the executable
extern char* site_default_configuration_directory;  // "defaults" beside the executable

// Gives the user's directory, which stays with this unit; relative to the current directory if
// there is no home directory. With `create` set, it is made with mode 0755 if it is missing.
// `error_text` (null allowed) receives null, or, if it couldn't be made, the owned text
// "Couldn't create user config directory: " with the directory behind it.
const char* gen_getuserconfigdir(uint8_t create, char** error_text);

// Makes a copy of `directory`, which needn't exist, the user's directory; null and empty are
// ignored. Strings that gen_getuserconfigdir gave before are no longer valid.
void gen_setuserconfigdir(const char* directory);

// Give the directories beside the executable, which stay with this unit; relative to the current
// directory if the executable can't be found.
const char* gen_getsiteconfigdir();
const char* gen_getsitedefaultconfigdir();

// Gives the owned name of the first file `name` (not a directory) in the user's, the site's and the
// defaults directory, or the last alone with `defaults_only` set, for which gen_access with
// `access_mode` succeeds; null if there is none or `name` is null. An absolute name, also one that
// begins with '~', is only tested itself. `error_text` (null allowed) receives null.
char* gen_searchfileinconfigdirs(const char* name, int access_mode, uint8_t defaults_only,
                                 char** error_text);

// Releases the three directories; the next request computes them anew.
void gen_cleanupconfigdirs();

// Gives the owned name of a .cfg file: with `use_override` set, `name` in "override" of `directory`
// if that file exists; otherwise "qvr.cfg" in `directory` if that exists or `use_named_file` is 0;
// otherwise `name` in `directory`, whether it exists or not. The suffix of `name` becomes ".cfg".
char* gen_createconfigfilename(const char* directory, const char* name, uint8_t use_named_file,
                               uint8_t use_override);

}  // namespace kelvane
