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

// ---- Status

// Gives 1 for a directory (or a link to one), 0 for anything else and what can't be examined.
int32_t gen_isdir(const char* name);

// Tells whether `name` can be executed: 1 yes; 0 it exists and can't, or is a directory; -1 it
// doesn't exist, or the name is null or empty.
int32_t gen_canexec(const char* name);

// ---- Changing the file system

// mkdir and its result.
int32_t gen_mkdir(const char* name, mode_t mode);

// Makes the directory `name` unless it is there. Gives 0, or -1 if it can't be made or something
// else has that name. Looks at the real file system, past the viewpath.
int32_t gen_createdir(const char* name, mode_t mode);

// Removes a file. Gives 0, or -1 for a directory (or a link to one) and where gen_unlink fails.
int32_t gen_removefile(const char* name);

}  // namespace kelvane
