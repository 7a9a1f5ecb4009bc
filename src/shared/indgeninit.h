#pragma once

#include <cstdint>

// Start-up and end of the library, the signal handlers, and who the program is: its name, how it
// was started, where it lives, which byte order the host has.
namespace kelvane {

// Last component of the program's start name, the prefix of every message. Null before gen_init.
// Written by gen_init, gen_changeprogname and gen_destruct.
extern char* gen_progname;
// The start name as given, less trailing slashes. Null before gen_init, which writes it.
extern char* gen_execname;
// Directory of the executable; null until gen_getprogdir is first asked.
extern char* gen_progdir;
// When set, gen_init installs no signal handlers. gen_init sets it itself after the first run.
extern uint8_t gen_skip_trapsetup;
// Number of the signal last taken by sigtrap or siglimitexceeded, which write it.
extern int32_t gen_sigtrap_value;
// 1 on a big-endian host, 0 on a little-endian one. Written by gen_endian_init.
extern uint8_t bigendian_host;
// The library's version word. Written by gen_set_version.
extern int32_t qvr_current_version;

// Brings the library up: names, signal handlers (the first time only), viewpath, byte order. From
// then on memory that a container can't have ends the run by gen_out_of_memory.
// `argv0` is the string by which the program was started, or null, which leaves the names as they
// are; `unused` has no effect; `viewpath_mode` goes to gen_viewpathing_init. A second call with a
// name replaces both names.
void gen_init(const char* argv0, int32_t unused, int32_t viewpath_mode);

// Releases what gen_init and the viewpath and source root services hold. Only the first call does
// anything.
void gen_destruct();

// Finds the host's byte order, stores it in `bigendian_host` and returns that.
uint8_t gen_endian_init();

// Installs the handlers for SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE and SIGXCPU.
void trapsetup();

// The handlers. Each reports and ends the run with status 2; sigtrap ends the process at once when
// it is exiting already.
void sigtrap(int32_t signal_number);
void sigpipetrap(int32_t signal_number);
void siglimitexceeded(int32_t signal_number);

// Gives the program's name, not a copy; null before gen_init.
const char* gen_getprogname();

// Stores a copy of `name` (null allowed) as the program's name and releases the old one.
void gen_changeprogname(const char* name);

// Gives the directory of the executable, links resolved, not a copy; null if it can't be found.
const char* gen_getprogdir();

// Stores gen_realpath(directory) as the directory of the executable.
void gen_changeprogdir(const char* directory);

// Finds the executable `name`: as it stands if it has a directory part, otherwise in the program's
// directory (if `look_in_progdir` is set) and then along "PATH". With `resolve` set, links are
// resolved. Gives an owned path, or null.
char* gen_findexec(const char* name, uint8_t look_in_progdir, uint8_t resolve);

// Directory of what gen_findexec finds, owned by the caller; null if nothing was found.
char* gen_findexecdir(const char* name, uint8_t look_in_progdir, uint8_t resolve);

// The version word and comparisons with it.
int32_t gen_get_version();
bool gen_is_at_least_version(int32_t v);
bool gen_is_at_most_version(int32_t v);

// Stores `v` if it is below 9. Otherwise reports "Attempt to set version to an illegal value" as an
// error and keeps the old one.
void gen_set_version(int32_t v);

}  // namespace kelvane
