#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "indgen_memory.h"
#include "owners.h"

// What the sources of the viewpath share.
namespace kelvane {

// At most this many components in a path that is compressed.
inline constexpr int32_t kMaxPathComponents = 128;

// Reads "NVPATH" into the nodes, the root and its alternate spelling, if V_changed is set.
void V_get_vpath();

// Gives the owned name of `path` relative to the root of the viewpath, "." for the root itself;
// null if it lies neither under the first node nor under its alternate spelling.
char* V_getrel(const char* path);

// Copies the file `path`, found in a later node, to the local tree, where it becomes writable, and
// makes the directory above it if only that is missing. Gives 0 or -1; a failure leaves no part of
// the file.
int32_t V_getf(const char* path);

// Makes `directory` in the local tree with the mode that it has in the view, 0777 if it is nowhere.
// Gives the result of gen_createdir.
int32_t V_mkpath(const char* directory);

// Makes V_cwd follow a change of the current directory to `directory`.
void V_fix_cwd(const char* directory);

// The stat of gen_chdir: tries the real file, then the later nodes. The alternate spelling of the
// root plays no part. A name too long for V_pathname fails with ENAMETOOLONG.
int V2_stat(const char* name, struct stat* buffer);

// Compresses `path` in place without a look at the disk and gives it back. Repeated slashes, "."
// components and a trailing slash go, ".." removes the component before it; at the start of the
// path it stays. A path of which nothing remains becomes ".", so that the buffer must hold 2 bytes.
// A path of more than kMaxPathComponents components is reported as an error and cut to these.
// Example: "a/b/../c" becomes "a/c".
char* V_compath(char* path);

// The same for an absolute path made of a current directory and a relative name. Components are
// copied as they stand from the first ordinary one behind a "." or ".." on; a ".." at the top goes.
// A path that is not absolute ends the run with status 1.
// Example: "/a/b/../c/../d" becomes "/a/c/../d".
char* V2_compath(char* path);

// Copies the strings, of which a null pointer ends the list, end to end into `buffer`, which has
// the room.
void V_cat(char* buffer, const char* first, ...) __attribute__((sentinel));

// True if `path` is `root` or goes on with a slash behind it.
bool lies_under_root(const char* path, const char* root);

// Gives the name that stands for a root-relative `name` while viewpathing is active; otherwise a
// copy. Null for null.
gen_ptr<char> expand_root_relative(const char* name);

// Gives what stands behind the first `length` bytes of `path` and the slashes there, "." if nothing
// does.
const char* rest_behind_root(const char* path, size_t length);

// The current directory in an owned string; null if the platform can't tell or it is too long.
char* read_current_directory();

// The owned rest of `name` behind `node` and slashes or backslashes, "." if nothing remains; null
// if it doesn't lie there or `node` is null.
char* get_relative_from_node(const char* node, const char* name);

// Gives `name` with its links resolved; null if it can't be resolved.
platform_ptr resolve_name(const char* name);

}  // namespace kelvane
