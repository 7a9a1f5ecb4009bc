#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <cstdio>

// File access through the viewpath: an ordered list of directory trees, the nodes, laid over each
// other. The first node is the user's local tree, each later one a fallback for those before it. A
// file that is missing in the local tree is found by its name relative to that tree in a later
// node; a file that is to be written is brought into the local tree first. No file of a later node
// is ever changed.
//
// The environment variable "NVPATH" holds the list. With no viewpath set, which is the ordinary
// case, each wrapper is the platform's call behind one test of a flag.
//
// A root-relative name is "^", which stands for the first node, or begins with "^/" and stands for
// what follows, below the first node. The wrappers and gen_viewpathfilename take such names while
// viewpathing is active.
namespace kelvane {

// At most this many nodes; further elements of the list are ignored.
inline constexpr int32_t kMaxViewpathNodes = 128;
// Bytes of the two text buffers below, terminators included.
inline constexpr uint32_t kViewpathTextSize = 1024;
// At most this many source roots.
inline constexpr int32_t kMaxSourceRoots = 128;

// ---- State of the viewpath. Written by set-up and clean-up unless a line says otherwise.

// 1 while viewpathing is active: it came up and found at least one node.
extern int32_t V_flag;
// 1 if progress is to be printed through gen_info.
extern int32_t V_debug_info;
// Switches; with bit 0 set, an alternate spelling of the root is ignored.
extern int32_t V_xsw_flags;
// 1 in the SLOW mode, 0 in the FAST mode: whether a file opened for plain writing is first copied
// to the local tree.
extern int32_t V_wrcopy;
// If set, gen_stat adds the write bits to what it reports of a file in a later node. Written by
// whoever wants that; nobody here does.
extern int32_t V_wrstat;
// 1 until "NVPATH" has been read.
extern int32_t V_changed;
// Number of nodes.
extern int32_t V_ndir;
// Index of the node in which the last gen_stat looked last. Written by gen_stat.
extern int32_t V_node;
// The nodes: kMaxViewpathNodes owned names, links resolved; null without a list.
extern char** V_nodes;
// Owned copy of the first node's name.
extern char* V_root;
// Owned alternate spelling of the first node's name, or null.
extern char* V_alt_root;
// Owned name of the current directory as the viewpath sees it. gen_chdir keeps it up to date.
extern char* V_cwd;
// The text of "NVPATH", cut into its elements.
extern std::array<char, kViewpathTextSize> Viewpath;
// Room in which V2_stat joins a current directory and a name. Written by V2_stat.
extern std::array<char, kViewpathTextSize> V_pathname;

// Names of the environment variables that control all this; an empty variable counts as unset.
extern const char* V_vpath_variable;  // the nodes, separated by ':' or ';'
extern const char* V_debug_variable;  // set: progress is printed
extern const char* V_off_variable;    // set: viewpathing stays off whatever the caller asks
extern const char* V_slow_variable;   // set: a request for the FAST mode becomes SLOW
extern const char* V_xsw_variable;    // set: its number goes into V_xsw_flags

// ---- Set-up

// Brings viewpathing up: `mode` is 0 for off, 1 for SLOW, 2 for FAST. Any other mode reports
// "Illegal viewpath option passed to gen_viewpathing" as an error and counts as off. While
// viewpathing is active, 1 and 2 only change the mode. "NVPATH" is read once in a process, so that
// what has been turned off doesn't come on again. An element that can't be resolved gives a warning
// and is no node; of a list that is too long, the elements that don't fit are left out, with a
// warning. errno stays as it is.
void gen_viewpathing_init(int32_t mode);

// Releases the nodes and turns viewpathing off.
void gen_viewpathing_cleanup();

// True if viewpathing is active.
bool gen_isviewpathing();

// Gives the value of "NVPATH", not a copy; null if it is unset or empty.
const char* gen_getviewpathenv();

// Reports "[gen_getviewpathnodes]: not implemented" as an error, stores 0 in `count` (null allowed)
// and gives null.
char** gen_getviewpathnodes(int32_t* count);

// ---- Names

// Gives the owned name to use for the file `name`; null for null. `mode` 0 is for reading: the
// first node that has the file, or the last one tried if none has it. 1 is for writing: the file is
// copied to the local tree if only a later node has it, and a failure of that is left to the open
// that follows. 2 is for writing without a copy. Without an active viewpath: a plain copy.
char* gen_viewpathfilename(const char* name, int32_t mode);

// Gives the owned name in the first node of `path`, which lies under any node; a copy of `path` if
// it can't be resolved; null if no node holds it. A node itself lies under no node.
char* gen_viewpathlocalname(const char* path);

// Gives the owned name of `path` in the node directly behind the one that holds it, if that has it;
// otherwise null. Successive calls walk a file through the view.
char* gen_viewpathnextname(const char* path);

// ---- Wrappers: arguments, results and errno of the platform's call of the same last name. While
// viewpathing is active they see the union of the nodes.

// Success of W_OK is also reported for a file that exists in a later node only, since a write will
// copy it. gen_diraccess is the same call.
int gen_access(const char* name, int mode);
int gen_diraccess(const char* name, int mode);

// A directory that exists in a later node only is made in the local tree and entered. The cached
// current directory is dropped in any case. In an active viewpath a null or empty name fails with
// ENOENT, a name that is no directory with ENOTDIR, and a directory that can't be made with EPERM.
int gen_chdir(const char* name);

// A directory above the file that exists in a later node only is made first.
int gen_creat(const char* name, mode_t mode);

// Only `from` is looked for in the view; it is copied to the local tree first if need be.
int gen_link(const char* from, const char* to);

// Flags with O_RDWR or O_APPEND look the name up for writing, and so do those with O_WRONLY (FAST:
// without a copy); all others for reading.
int gen_open(const char* name, int flags, mode_t mode);

// A null name gives null. A mode with '+', 'a' or a character outside "bcnrtw" looks the name up
// for writing, one with 'w' too (FAST: without a copy); all others for reading.
std::FILE* gen_fopen(const char* name, const char* mode);
std::FILE* gen_freopen(const char* name, const char* mode, std::FILE* stream);

int gen_stat(const char* name, struct stat* buffer);

// A file that exists in a later node only is left alone: the call fails with EPERM.
int gen_unlink(const char* name);

// ---- The platform's calls as they are, which see only the real file system.

int gen_sys_access(const char* name, int mode);
int gen_sys_chdir(const char* name);
int gen_sys_creat(const char* name, mode_t mode);
int gen_sys_link(const char* from, const char* to);
int gen_sys_open(const char* name, int flags, mode_t mode);
std::FILE* gen_sys_fopen(const char* name, const char* mode);
std::FILE* gen_sys_freopen(const char* name, const char* mode, std::FILE* stream);
int gen_sys_stat(const char* name, struct stat* buffer);
int gen_sys_unlink(const char* name);

// ---- Source roots: directories against which a file name is made relative.

// The roots and, each null or another spelling of the root at its place, their alternates: two
// arrays ended by a null, or null before gen_sourceroot_init, which writes them.
extern char** sourceroots;
extern char** alt_sourceroots;
// Number of source roots.
extern int32_t nsourceroots;
// Set by gen_sourceroot_init if a root couldn't be resolved and is kept as it was given.
extern uint8_t allow_fake_roots;
// Set by gen_sourceroot_initfromviewpath: an active viewpath serves as the source root.
extern uint8_t use_vp_as_src_root;

// Takes the roots from `list`, separated by ':', ';' or ',' (the colon behind a drive letter
// doesn't count), in place of those before, and gives their number. A null or empty list gives 0
// and changes nothing.
int32_t gen_sourceroot_init(const char* list);

// Makes the viewpath serve as the source root while it is active.
void gen_sourceroot_initfromviewpath();

// Releases the roots.
void gen_sourceroot_cleanup();

// Gives the owned name of `name` relative to the first root that holds it, "." for the root itself;
// null if none does or `name` is null. `index` (null allowed) receives the root's number or -1.
char* gen_sourceroot_getrelname(const char* name, int32_t* index);

// Stores the two arrays in those arguments that aren't null and gives the number of roots. The
// arrays stay with the list.
int32_t gen_sourceroot_getroots(char*** roots, char*** alt_roots);

// The search of gen_sourceroot_getrelname over the first `count` entries of given arrays.
// `alt_roots` may be null.
char* gen_get_relative(char* const* roots, char* const* alt_roots, int32_t count, const char* name,
                       int32_t* index);

}  // namespace kelvane
