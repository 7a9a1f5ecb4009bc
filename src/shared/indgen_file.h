#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <ctime>

// Files and directories: what the rest of the system asks of the file system, written once. Access
// by name goes through the viewpath (indview.h) unless a comment says otherwise. The gen_safe_
// operations report failures themselves; all others print nothing, and tell a failure by their
// result and errno.
namespace kelvane {

// ---- Safe operations. In all of them `name`, the file's name for the report, may be null.

// Opens as gen_fopen does and never gives null: a failure ends the run with status 1 and "Unable to
// open TEXT for WORD: " with the reason. TEXT is the name, or with a `description` (a word for what
// the file is, or null) "DESCRIPTION 'NAME'". WORD is "output" when the first of the letters a, w
// and r in `mode` is an a or a w, else "input". The caller closes the stream.
std::FILE* gen_safe_fopen(const char* name, const char* description, const char* mode);

// fclose and its result. A failure is reported as "Error closing TEXT: " with the reason, TEXT as
// in gen_safe_fopen.
int32_t gen_safe_fclose(const char* name, const char* description, std::FILE* stream);

// fread and its count of items. Fewer than 1 is reported as "Error reading from 'NAME'" or "Error
// reading from file", with the reason if there is one besides the end of the file. A null `buffer`
// is reported as an error and gives -1.
ssize_t gen_safe_fread(const char* name, void* buffer, size_t size, size_t count,
                       std::FILE* stream);

// Reads one block of `size` bytes and gives the buffer, read or not; a block that can't be read is
// reported in the words of gen_safe_fread. A null `buffer` means a fresh one from gen_alloc, which
// the caller releases.
void* gen_safe_readbytes(const char* name, std::FILE* stream, void* buffer, uint32_t size);

// fwrite and its count of items. Fewer than `count` is reported as "Error writing to 'NAME'" or
// "Error writing to file" with the reason.
size_t gen_safe_fwrite(const char* name, const void* buffer, size_t size, size_t count,
                       std::FILE* stream);

// fseek and its result. A failure ends the run with status 1 and "seek failed to OFFSET in 'NAME'"
// or "seek failed to OFFSET in file" with the reason.
int32_t gen_safe_fseek(const char* name, std::FILE* stream, long offset, int whence);

// ---- Reading text

// Reads the next line without its end into a growing buffer and gives the buffer, or null at the
// end of the file. LF, CR and CR LF end a line, and so the character behind a lone CR is lost.
// `buffer` and `size` refer to the caller's pointer and capacity, null and 0 at first; the buffer
// grows through gen_realloc by 250 bytes at a time, and the caller releases it.
char* gen_getline(std::FILE* stream, char** buffer, int32_t* size);

// The same for the next word, the characters up to one for which gen_isspace holds; that one is
// read too. Gives null when there is none before the end of the file.
char* gen_gettoken(std::FILE* stream, char** buffer, int32_t* size);

// Gives a fresh string with the next line, its newline included, however long; an empty string at
// the end of the file, null for a null stream. The caller releases it.
char* gen_afgets(std::FILE* stream);

// Gives the number of newlines, plus 1 if the file ends without one; 0 for an empty file and for
// one that can't be read.
int32_t gen_count_lines_in_file(const char* name);

// Reads at most `length` bytes with a single read. Gives its result, or the negative one of
// gen_open.
ssize_t gen_getfile(const char* name, void* buffer, size_t length);

// Reads a whole file into a fresh block, which the caller releases by the platform's free, and
// stores it and its size (`size` may be null). Gives 0, or -1 with nothing stored if the size can't
// be had, the memory isn't there or the read fails. The file must not shrink meanwhile.
int32_t gen_readfile_into_buffer(const char* name, char** buffer, int32_t* size);

// Gives the first line of the file `root`/`directory`/`file`, each of the last two left out where
// it is null; a copy of `fallback` if the file can't be read or is empty. The caller releases it.
char* gen_getsinglelineasciifile(const char* root, const char* directory, const char* file,
                                 const char* fallback);

// Gives the words of a file, cut at white space as isspace tells it, as a null-terminated array of
// strings; array and strings are fresh from gen_alloc and the caller's. `count`, which may be null,
// receives their number. Gives null and a count of 0 for a null name and a file that can't be
// measured; a file that can't be read counts as empty.
char** gen_get_words_from_file(const char* name, int32_t* count);

// Prints to the end of a file, which is made if need be. Gives 0, or -1 if it can't be opened.
int32_t gen_append_to_file(const char* name, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// ---- Status

// Gives the size in bytes; -1 if it can't be had or is above 2147483647 (EOVERFLOW).
int32_t gen_filesize(const char* name);

// Gives 1 for a directory (or a link to one), 0 for anything else and what can't be examined.
int32_t gen_isdir(const char* name);

// Gives 1 for a directory that can be read and holds nothing, else 0.
int32_t gen_isemptydir(const char* directory);

// Gives 1 if the name is exactly "CVS" or "mvc.log", else 0. Null gives 0.
int32_t gen_isvcdir(const char* name);

// Gives 1 for a symbolic link, 2 for a file with more than one hard link, 0 for anything else and
// on failure. The `.` in a directory and the `..` in those below it may count as hard links, so a
// directory can give 2. Looks at the real file system, past the viewpath.
int32_t gen_islink(const char* name);

// Tells whether `name` can be executed: 1 yes; 0 it exists and can't, or is a directory; -1 it
// doesn't exist, or the name is null or empty.
int32_t gen_canexec(const char* name);

// Gives the mode as stat has it, file type included, or 0 on failure. `mode` may be null; a value
// of 0 there is replaced by the mode, or by 0664 on failure, and any other is left alone.
mode_t gen_getmode(const char* name, mode_t* mode);

// Compares modification times: 1 if that of `a` is later, else 0; -1 if `a` can't be examined, 1 if
// only `b` can't.
int32_t gen_newerthan(const char* a, const char* b);

// Gives the bytes that an ordinary user may still use on the file system of `path`; 0 on failure.
uint64_t gen_freediskspace(const char* path);

// Tells whether `path` lies on a file system of the type "mvfs"; false if it can't be examined.
bool gen_in_clearcase_mvfs(const char* path);

// ---- Changing modes. `mode` is the mode to start from; 0 means the file's own, or 0664 if it
// can't be examined. A chmod that fails isn't told. All but the last give the mode that the file
// had, or 0 if it couldn't be examined.

mode_t gen_chmod_minusw(const char* name, mode_t mode);  // nobody may write: 0222 off
mode_t gen_chmod_plusw(const char* name, mode_t mode);   // owner and group may write: 0220 on
mode_t gen_chmod_plusrw(const char* name, mode_t mode);  // and read: 0660 on
mode_t gen_chmod_pluswu(const char* name, mode_t mode);  // the owner alone may write
mode_t gen_chmod_plusx(const char* name);                // owner and group may execute: 0110 on

// Gives `name` the mode of `other`, and returns that mode; 0 if `other` can't be examined, and
// nothing is changed.
mode_t gen_chmod_sameas(const char* name, const char* other);

// ---- Changing the file system. What gives 0 or -1 leaves the reason in errno.

// The platform's calls mkdir, symlink and truncate, and their results.
int32_t gen_mkdir(const char* name, mode_t mode);
int32_t gen_symlink(const char* from, const char* to);
int32_t gen_truncate(const char* name, off_t length);

// Makes the directory `name` unless it is there. Gives 0, or -1 if it can't be made or something
// else has that name. Looks at the real file system, past the viewpath.
int32_t gen_createdir(const char* name, mode_t mode);

// gen_createdir, with the directories above it made first where they are missing.
int32_t gen_createdir_recursive(const char* name, mode_t mode);

// Removes a file. Gives 0, or -1 for a directory (or a link to one) and where gen_unlink fails.
int32_t gen_removefile(const char* name);

// Remove all that is in a directory; the first removes the directory too and gives the result of
// rmdir, the second gives 0. What can't be removed is passed over. A symbolic link is removed
// itself and never followed, also when it is the argument: then gen_removedir_recursive removes
// the link and gives the result of that, but -1 (ENOTDIR) if the name ends in a slash, and
// gen_removestar_recursive does nothing. A null name is one that doesn't exist. A tree may be
// deeper than a path can tell.
int32_t gen_removedir_recursive(const char* directory);
int32_t gen_removestar_recursive(const char* directory);

// Renames a file, over an existing `to`; if the platform refuses, `to` is removed and the renaming
// tried again. Gives 0 or -1. Either name being a directory, or `from` not existing, gives -1 and
// leaves `to` alone.
int32_t gen_renamefile(const char* from, const char* to);

// Copies contents and mode. Gives 0, or -1 if a file can't be opened, both names are the same file
// (EINVAL), or a write fell short; then `to` is removed. A failed read counts as the end of the
// file.
int32_t gen_copyfile(const char* from, const char* to);

// Renames, or copies and removes where that isn't possible. Gives 0 or a failure value; a directory
// is not moved.
int32_t gen_movefile(const char* from, const char* to);

// Copies a file to a stream and flushes the stream. Gives 0, or -1 if the file can't be opened or a
// write fell short. The two do the same on this host.
int32_t gen_catfile(const char* name, std::FILE* stream);
int32_t gen_cattextfile(const char* name, std::FILE* stream);

// Makes an empty file, or sets the modification time of an existing one by writing to it; its
// contents stay. Gives 0 or -1.
int32_t gen_touchfile(const char* name);

// Sets both times, in seconds, with the result of utimes.
int32_t gen_utime(const char* name, time_t access_time, time_t modification_time);

// Gives `to` the times of `from`, a fraction rounded up to the next second. Gives 0 or -1, and
// leaves errno as it was.
int32_t gen_sametimeas(const char* from, const char* to);

// Follows a chain of symbolic links, at most 257 steps, and stores where it ends: `buffer` receives
// it as strncpy does, filled up with zeros and unterminated if it has `length` bytes or more. A
// relative target is relative to the directory of its link. Gives 1, or -1 if `name` is no link.
int32_t gen_readlink(const char* name, char* buffer, size_t length);

// ---- Directories

// The record of a directory being read, from gen_dir_open to gen_dir_close. `name` and `path` are
// valid until the next call of gen_dir_next_entry.
struct gen_dir_handle {
  char* directory;          // owned; the directory's name
  const char* name;         // last component of the current entry, the platform's
  const char* path;         // full name of the current entry: owned_path
  uint8_t is_dir;           // the entry is a directory, or a link to one
  uint8_t is_link;          // the entry's status is that of a symbolic link; stat follows links
  struct stat status;       // the entry's status; zeroed if not fetched
  uint8_t no_files;         // leave out what isn't a directory
  uint8_t no_dirs;          // leave out directories
  uint8_t skip_dots;        // leave out "." and ".."
  uint8_t skip_cvs;         // leave out directories named "CVS"
  char* suffix;             // owned; only files with this suffix, all if null
  uint8_t optimize_search;  // don't call stat; guess from the name
  DIR* stream;              // null when closed
  char* owned_path;         // owned; see path
};

// Begins to read a directory, past the viewpath. Gives 1, with skip_dots set and no other
// restriction; 0 on failure, with the record zeroed.
int32_t gen_dir_open(gen_dir_handle* handle, const char* directory);

// Set the restrictions; call them before the first entry is asked for. `suffix` is copied and may
// be null. With optimize_search on, "." and ".." and all names without a suffix count as
// directories, and no status is fetched.
void gen_dir_optimize_search(gen_dir_handle* handle, uint8_t on);
void gen_dir_restrict_files(gen_dir_handle* handle, uint8_t no_files, const char* suffix);
void gen_dir_restrict_dirs(gen_dir_handle* handle, uint8_t no_dirs, uint8_t skip_dots,
                           uint8_t skip_cvs);

// Gives the name of the next wanted entry, with the other fields filled, or null at the end. With a
// suffix set, an entry that doesn't have it counts as an unwanted file, directory or not.
const char* gen_dir_next_entry(gen_dir_handle* handle);

// Releases what the record holds and zeroes it.
void gen_dir_close(gen_dir_handle* handle);

// Gives the number of entries, "." and ".." included; 0 if the directory can't be read. `list`,
// which may be null, receives a null-terminated array of their names, or null if the directory
// can't be read; array and names are fresh from gen_alloc and the caller's.
int32_t gen_read_directory(const char* directory, char*** list);

// Looks for the file `name`, a last component, in a directory and, with `recurse`, in those below
// it, in the order of the directory. Gives the first that gen_access grants `access_mode` for and
// that isn't a directory, as a fresh string; null if there is none.
char* gen_find_file(const char* directory, const char* name, int32_t access_mode, uint8_t recurse);

}  // namespace kelvane
