#pragma once

#include <cstdint>

// File names as text: joining, cutting, making canonical and absolute, suffixes, comparing. Names
// are plain strings in the host's byte set with `/` between components; the operations with `msw`
// or `anyhost` in their name understand `\` and drive letters too.
//
// - Almost everything here works on the text alone; the operations that look at the disk say so.
//   Symbolic links are not considered by the others.
// - A function that gives `char*` makes a fresh string from gen_alloc, which the caller releases by
//   gen_free. One that gives `const char*` gives a position in its argument or a string that is
//   kept here, and the caller releases nothing.
// - A null argument gives null, or false from a question, unless a function says otherwise.
// - gen_getcwd is the only one that can end the run.
namespace kelvane {

// The string in front of a suffix. The suffix of a name is what follows the last `.` of its last
// component.
inline constexpr char Dot[] = ".";

// ---- Joining. Either argument may be null or empty; two nulls give null.

// `name` as seen from `dir`: a copy of `name` if it begins with `/`, or if there is no `dir`;
// otherwise both with one `/` between them, made canonical. A leading `~` of `name` has no special
// meaning. Never empty where `dir` isn't: ("a", "..") gives ".".
char* gen_sconcat(const char* dir, const char* name);
// The same, except that an empty `name` gives a copy of `dir` and a leading `~` makes a name
// absolute.
char* gen_dconcat(const char* dir, const char* name);
// The same two, and then `dir` is released by gen_free.
char* gen_sconcatf(char* dir, const char* name);
char* gen_dconcatf(char* dir, const char* name);
// Three or four names joined from the left: the last step is gen_sconcat in the two with an s, all
// others are gen_dconcat.
char* gen_ddconcat(const char* a, const char* b, const char* c);
char* gen_dsconcat(const char* a, const char* b, const char* c);
char* gen_ddsconcat(const char* a, const char* b, const char* c, const char* d);

// ---- Form.

// Takes empty and `.` components and pairs of a component and `..` out of `path`, in place, without
// a look at the disk; what remains may be empty. A leading `/` stays, a leading `./` stays, a `/`
// at the end stays, and a leading `//` without more to do stays. With `msw` set, every `\` becomes
// `/`, a drive letter becomes upper case, and the drive or `//server/` in front is left alone. Null
// does nothing. Examples: a/./b//c gives a/b/c, a/b/../../c gives c, /../a stays.
void canonicalizefilename(char* path, uint8_t msw);
// canonicalizefilename with `msw` 0 (two names for it) and with `msw` 1.
void gen_canonicalfilename(char* path);
void gen_unix_canonicalfilename(char* path);
void gen_msw_canonicalfilename(char* path);

// True if `name` begins with `/` or `~`.
bool gen_absolutefilename(const char* name);
// True if `name` begins with `/`, `\` or `~`, or has `:` as its second character.
bool gen_absolute_msw_filename(const char* name);
// True if `name` isn't empty and has no `/`.
bool gen_is_basename(const char* name);

// `path` absolute and with all links resolved; a copy of it if that fails. Looks at the disk.
char* gen_realpath(const char* path);
// `name` absolute and canonical, with ~ and ~user in front replaced by that home directory. With an
// unknown user or no home the ~ stays. An empty name stays empty. May ask the passwd database.
char* gen_expand_filename(const char* name);
// The same with `cwd` as the directory that a relative name starts from. A null `cwd` means the
// current directory.
char* gen_expand_filename_using_cwd(const char* cwd, const char* name);
// The part of `file` behind the absolute directory `dir`; null if it doesn't lie there, and for
// `dir` itself. With `resolve` set, names that don't match as they stand are tried again with all
// links resolved (looks at the disk). Example: ("/a", "/a/b/c") gives b/c.
char* gen_relative_filename(const char* dir, const char* file, uint8_t resolve);

// ---- Cutting.

// The position in `path` behind its last `/`, or `path` itself; so the end of the string for a name
// that ends in `/`.
const char* gen_basename(const char* path);
// The same with `/`, `\` and `:` all as separators (two names for it).
const char* gen_basename_anyhost(const char* path);
const char* gen_msw_basename(const char* path);
// `path` cut at its last `/`; "/" if that is the first character; null for a name without one.
char* gen_dirname(const char* path);
// The same with `/`, `\` and `:` as separators. One that is the first character, is a `:` or
// follows a `:` stays: c:\x gives c:\ and c:x gives c:.
char* gen_dirname_anyhost(const char* path);
// The first component: leading `/` skipped, up to the next `/` or `\`, or up to and with a `:`.
char* gen_topdir(const char* path);
// The position in `path` of the `/` that ends its first component; if none does, that of the last
// leading `/`, or null if there is none either.
const char* gen_popdir(const char* path);

// ---- Comparing as text.

// True if `a` and `b` lie in the same directory: behind what they have in common neither has a `/`.
bool gen_dirmatch(const char* a, const char* b);
// True if `file` begins with `dir` and has no `/` behind that and the slashes that follow it.
bool gen_dir_contains_file(const char* dir, const char* file);
// True if `file` begins with `dir` and that prefix ends at a component: a `/` ends or follows it.
bool gen_tree_contains_file(const char* dir, const char* file);
// True if `sub` is the directory `dir` or lies below it, both made canonical. A `dir` that is given
// as one character contains all that begins with it. Null is not allowed.
bool gen_isDirSubdirOfDir(const char* sub, const char* dir);
// True if `path`, made canonical, ends with the components of `tail`: dir/z.c ends with z.c, and
// dir/xz.c doesn't. Case counts if `case_sensitive` is set.
bool gen_FilenameTailCmp(const char* path, const char* tail, uint8_t case_sensitive);

// ---- Comparing with a look at the disk.

// True if `a` and `b` name the same file: the same device and inode or, where neither exists, a
// directory in common or equal resolved names. Names whose last components are both there and
// differ are never the same, whatever links they are.
bool gen_samefile(const char* a, const char* b);

// ---- Suffixes. Where a suffix is given, one leading `.` of it is ignored.

// The suffix of `name`, a position in it; null if the last component has no `.`. A version as in
// libc.so.1.9 or libc.sa.1.9 gives "so" or "sa"; libc.so.1 gives "1".
const char* gen_getsuffix(const char* name);
// True if `name` has a suffix and it is `suffix`, or `suffix` is null.
bool gen_issuffix(const char* name, const char* suffix);
// `name` with its suffix replaced, or removed with the `.` if `suffix` is null. A null `name` gives
// a copy of `suffix`.
char* gen_changesuffix(const char* name, const char* suffix);
// `name`, `.` and `suffix`; a copy of the other if one is null.
char* gen_addsuffix(const char* name, const char* suffix);
// Length in bytes of `name`, which is meant to be a last component, up to its last `.`; 0 for null.
int32_t gen_basenamelen(const char* name);
// True if the last components of `a` and `b`, less their suffixes, are equal.
bool gen_basenamematch(const char* a, const char* b);
// gen_changesuffix of the last component of `name`.
char* gen_makeshort(const char* name, const char* suffix);
// The name of a product of `name`: in `dir` (null or empty: none), the last component of `name`
// less its suffix, then `insert`, then `.` and `suffix`; null ones drop out. Made canonical unless
// `dir` is null. A null `name` gives gen_sconcat(dir, suffix).
char* gen_changedirandsuffix(const char* dir, const char* name, const char* insert,
                             const char* suffix);
// `name`, `.` and the value of "TARVOSYM", by default "sym".
char* gen_symfilename(const char* name);

// ---- Current directory and home. Nothing here is the caller's.

// ".", the name of the current directory.
const char* gen_getdot();
// The current directory, found once and kept; at most 1024 bytes. If it can't be found, the home
// directory takes its place; without one the run ends with status 1 and "Could not get current
// working directory.".
const char* gen_getcwd();
// Makes gen_getcwd ask again. Whoever changes the directory calls it.
void gen_invalidate_cwd();
// "HOME", or the home directory of the user; null if there is neither. Found once and kept.
const char* gen_gethomedir();
// Null: this host has no device prefixes.
const char* gen_getdevice();
// The device prefix, if there is one, and gen_getdot(): ".". Found once and kept.
const char* gen_getdevdot();

// ---- Lists of paths.

// Takes the next element of a list with `:` between its elements: skips leading `:`, writes at most
// `size` bytes of the element and a terminator to `buffer` (which has `size` + 1 bytes) and gives
// the position behind the whole element; null if the list is exhausted.
const char* gen_getpath(const char* list, char* buffer, int32_t size);
// Shortens `path` for a listing in which `*current` is the directory in use: a name in that
// directory loses its directory part; any other one is given whole and becomes the directory in
// use. `*current` is an owned string of the caller's, released when it is replaced; null, empty and
// "." mean the current directory. The result lies in `path` or is `*current`.
const char* gen_addpath(const char* path, char** current);

// ---- Name mangling.

// gen_manglefilename_length(name, 64, 1).
char* gen_manglefilename(const char* name);
// A flat file name of at most `length` - 1 characters for a path: 8 hexadecimal digits of a hash,
// then the last `length` - 9 characters of `name` with `@` for every `/`, `\` and `:`. The hash is
// that of this part of `name` if `hash_kept_text` is set, else that of all of it. Null for a
// `length` below 10.
char* gen_manglefilename_length(const char* name, int32_t length, uint8_t hash_kept_text);
// The hash: for each byte, rotated left by 7 bits and the byte combined with it by exclusive or.
// 0 for null, 0x187163 for "abc".
uint32_t gen_manglefilename_hashfunc(const char* text);

}  // namespace kelvane
