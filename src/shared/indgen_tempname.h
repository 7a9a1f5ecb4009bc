#pragma once

#include <sys/types.h>

#include <cstdio>

// The directory for temporary files, and names that no file has yet. A name reads qv_, the process
// number and a running number, both in base 32, a dot and a suffix; BUILDER_TEMPORARY_NAME in the
// environment takes the place of all that is in front of the dot.
//
// A name is looked up and not reserved: another process can take it before the caller does. Who
// needs certainty uses gen_mkstemp. Nothing here reports anything; a null result tells the caller.
// After 1,048,575 numbers in one process there are no more names.
namespace kelvane {

// Gives the directory for temporary files, which isn't the caller's: "TMPDIR" if it can be written
// to and searched, else `preferred` (null allowed) if that can, else "/var/tmp/" or "/tmp".
// Replaceable; callers always go through the pointer.
extern const char* (*gen_temp_dir)(const char* preferred);

// The default behind the pointer. Its last answer is given again to a null `preferred`, whatever
// has become of the environment.
const char* gen_default_temp_dir(const char* preferred);

// Makes up to three unused names in `directory` that differ in their suffix. `name1` to `name3` are
// buffers to be filled, with room for the directory, a slash, 18 characters (or
// "BUILDER_TEMPORARY_NAME") and the suffix. With a null `name1` a buffer comes from malloc; a null
// `name2` or `name3` means that this name isn't wanted. A suffix may be null, and one leading `.`
// of it is ignored. An accepted name stays when a later one has to try further numbers, so that the
// names can differ in their number. Gives `name1`; null if no name could be had, and then the
// buffers hold what was tried last.
char* xxtmp3names(const char* directory, char* name1, const char* suffix1, char* name2,
                  const char* suffix2, char* name3, const char* suffix3);
// The same in gen_temp_dir(preferred).
char* xtmp3names(const char* preferred, char* name1, const char* suffix1, char* name2,
                 const char* suffix2, char* name3, const char* suffix3);
// The same for one name.
char* tmp1name(const char* preferred, char* name, const char* suffix);
// The same for one name, after a name with `second_suffix` was free in `second_directory` too
// (null: the same directory). That one is not given.
char* tmp2name(const char* preferred, char* name, const char* suffix, const char* second_directory,
               const char* second_suffix);

// Gives an unused name, which the caller releases by the platform's free: in the directory of the
// file name `near`, or in gen_temp_dir(null) if `near` is null. Null if there is none.
char* gen_tempname(const char* near, const char* suffix);

// True if there is a file of that name. `errno` is left as it was.
bool gen_alreadyused(const char* name);

// The platform's mkstemp: creates and opens a file, writing its name over the six X at the end of
// `name_template`. Gives a descriptor, or -1 with `errno`.
int gen_mkstemp(char* name_template);
// The same as a stream of that `mode`; null, with `errno`, if that fails.
std::FILE* gen_mkstempfp(char* name_template, const char* mode);

// Gives the name of a directory in gen_temp_dir(preferred) that doesn't exist yet, owned by the
// caller (gen_free); null if all 1296 names of this process are in use.
char* gen_tmpdirname(const char* preferred);
// The same, and makes that directory with `mode`. Null, with `errno`, if that fails.
char* gen_createtmpdir(const char* preferred, mode_t mode);

}  // namespace kelvane
