#pragma once

#include <sys/types.h>

#include <cstdint>

// The small services of the platform that have no home of their own: environment, commands and
// processes, time, names of user and host, identity and comparison of files. Nothing here ends the
// run, and only gen_binarydifffiles reports anything.
namespace kelvane {

// ---- Environment.

// Gives the value of the environment variable if it is set and not empty, else `default_value`.
// Every variable is read through this, so an empty one counts as unset everywhere.
const char* gen_getenv(const char* name, const char* default_value);

// gen_getenv(name, null); null for a null or empty name.
const char* gen_get_env_variable(const char* name);

// Sets the variable; a null `value` counts as empty. Gives false, having done nothing, for a null
// or empty name, and false where the platform can't. The memory of the entry stays allocated.
bool gen_put_env_variable(const char* name, const char* value);

// ---- Commands and processes.

// Runs a command by the platform's `system` and gives its result. The letter q in `flags` (which
// may be null) sends the command's standard output to /dev/null; other letters have no effect.
int32_t gen_systemex(const char* command, const char* flags);
int32_t gen_system(const char* command);

// execvp and its result: returns on failure only.
int32_t gen_execvp(const char* file, char* const* arguments);

// sleep and its result, the seconds left over when a signal ended it.
uint32_t gen_sleep(uint32_t seconds);

// Sleeps for that time, at most 71 minutes, or until a signal; below 1 it doesn't. Gives 0.
int32_t gen_millisleep(int32_t milliseconds);

// Sleeps until the time is over or one of the `count` descriptors (below 1024; those that are -1
// are left out) can be read. Gives the milliseconds spent, from 1 to `milliseconds`, and
// `milliseconds` where there was nothing to wait for but the time.
int32_t gen_millisleep_or_select(int32_t milliseconds, int32_t count, const int32_t* descriptors);

// Lets another process have the processor; gives 0.
int32_t gen_yield();

// nice and its result.
int32_t gen_nice(int32_t increment);

// Tells whether there is a process of that number on this host, whoever it belongs to.
bool gen_doeslocalprocessexist(pid_t process);

// Set the soft limit of processor time in seconds, or of the address space in bytes, and the hard
// limit to 0x7fffffff. A value below 1 means 0x7fffffff. Give the value used, whether or not the
// platform took it.
int32_t gen_set_cpu_time_limit(int32_t seconds);
int32_t gen_set_memory_limit(int32_t bytes);

// ---- Names of user and host.

// Gives a fresh copy of the name of the process's user, for gen_free; null if it has none.
char* gen_getusername();

// Gives the host's name, or its official name with a domain if that can be found, in memory that
// stays the library's. The second is looked up once.
const char* gen_gethostname();
const char* gen_getfullyqualifiedhostname();

// Gives "SYSTEM RELEASE VERSION" of the host's operating system as a fresh string for gen_free;
// null if the platform doesn't tell.
char* gen_gethostosname();

// ---- Identity and comparison of files.

// What tells one file from another, whatever its names.
struct gen_fileid {
  uint32_t inode;
  uint32_t device;
};

// Gives the identity of a file on the real file system, past the viewpath, in static memory that
// the next call overwrites; null if the file can't be examined.
const gen_fileid* gen_fileid_from_filename(const char* name);

// Gives a fresh copy for gen_free; null for null.
gen_fileid* gen_duplicate_fileid(const gen_fileid* id);

// Tells whether the two are the same file; false if either is null.
bool gen_compare_fileids(const gen_fileid* a, const gen_fileid* b);

// Compares the bytes of two files: 0 they are the same, 1 they differ, -1 that can't be told. A
// file that can't be opened is reported as the error "Could not open file: NAME"; a failure to read
// is not reported.
int32_t gen_binarydifffiles(const char* a, const char* b);

// ---- Development tree.

// Tells whether the program runs from a built source tree: the directories "CVS", "../src/target"
// and "../src/configuration" exist beside it. Looked up once.
bool gen_is_qv_dev_program();

}  // namespace kelvane
