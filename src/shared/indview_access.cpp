#include "indview.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_path.h"
#include "indgen_string.h"
#include "indview_internal.h"

// The platform's calls as they are, and seen through the viewpath.
namespace kelvane {

int gen_sys_access(const char* name, int mode) {
  return ::access(name, mode);
}

int gen_sys_chdir(const char* name) {
  return ::chdir(name);
}

int gen_sys_creat(const char* name, mode_t mode) {
  return ::creat(name, mode);
}

int gen_sys_link(const char* from, const char* to) {
  return ::link(from, to);
}

int gen_sys_open(const char* name, int flags, mode_t mode) {
  return ::open(name, flags, mode);
}

std::FILE* gen_sys_fopen(const char* name, const char* mode) {
  return std::fopen(name, mode);
}

std::FILE* gen_sys_freopen(const char* name, const char* mode, std::FILE* stream) {
  return std::freopen(name, mode, stream);
}

int gen_sys_stat(const char* name, struct stat* buffer) {
  return ::stat(name, buffer);
}

int gen_sys_unlink(const char* name) {
  return ::unlink(name);
}

namespace {

constexpr int32_t kLookForReading = 0;
constexpr int32_t kLookForCopying = 1;
constexpr int32_t kLookForOverwriting = 2;

constexpr mode_t kWriteBits = 0222;

// True if a call failed because the file isn't there, so that a later node may have it.
bool is_missing(int error) {
  return error == ENOENT || error == ENOTDIR;
}

bool exists_locally(const char* path) {
  return ::access(path, F_OK) == 0;
}

// Makes the directory above `path` in the local tree if only the view has it. Gives 1 if there was
// nothing to make, 0 if it is made, -1 if it can't be; `in_view` tells whether it exists at all.
int32_t bring_in_directory_above(const char* path, bool* in_view) {
  const gen_ptr<char> directory(gen_dirname(path));
  *in_view = true;
  if (directory == nullptr || exists_locally(directory.get())) {
    return 1;
  }
  *in_view = gen_access(directory.get(), F_OK) == 0;
  return *in_view ? V_mkpath(directory.get()) : 1;
}

// The lookup of a file opened for plain writing.
int32_t lookup_for_plain_writing() {
  return V_wrcopy != 0 ? kLookForCopying : kLookForOverwriting;
}

int32_t lookup_for_flags(int flags) {
  if ((flags & (O_RDWR | O_APPEND)) != 0) {
    return kLookForCopying;
  }
  return (flags & O_WRONLY) != 0 ? lookup_for_plain_writing() : kLookForReading;
}

int32_t lookup_for_mode(const char* mode) {
  bool writing = false;
  for (; *mode != '\0'; ++mode) {
    if (*mode == 'w') {
      writing = true;
    } else if (std::strchr("bcnrt", *mode) == nullptr) {
      return kLookForCopying;
    }
  }
  return writing ? lookup_for_plain_writing() : kLookForReading;
}

// Copies all of `source` to `target`. Interrupted calls are repeated; false for a read that fails
// or a write that fails or falls short.
bool copy_contents(const FileDescriptor& source, const FileDescriptor& target) {
  constexpr size_t kBlock = 8192;
  std::array<char, kBlock> block{};
  while (true) {
    ssize_t taken = 0;
    do {
      taken = ::read(source.get(), block.data(), block.size());
    } while (taken < 0 && errno == EINTR);
    if (taken <= 0) {
      return taken == 0;
    }
    ssize_t given = 0;
    do {
      given = ::write(target.get(), block.data(), static_cast<size_t>(taken));
    } while (given < 0 && errno == EINTR);
    if (given != taken) {
      return false;
    }
  }
}

bool is_same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

int32_t V_getf(const char* path) {
  bool in_view = true;
  if (bring_in_directory_above(path, &in_view) < 0 || !in_view) {
    return -1;
  }
  FileDescriptor source(gen_open(path, O_RDONLY, 0));
  struct stat source_status {};
  if (!source.is_open() || ::fstat(source.get(), &source_status) != 0) {
    return -1;
  }
  FileDescriptor target(::open(path, O_WRONLY | O_CREAT, source_status.st_mode | kWriteBits));
  struct stat target_status {};
  if (!target.is_open() || ::fstat(target.get(), &target_status) != 0) {
    return -1;
  }
  // A file that is here already (gen_link asks for those too) is its own copy; writing it over
  // itself could only lose it.
  if (!is_same_file(source_status, target_status) && !copy_contents(source, target)) {
    if (V_debug_info != 0) {
      gen_perror("Unable to copy file to %s", path);
    }
    source.close();
    target.close();
    ::unlink(path);
    return -1;
  }
  if (V_debug_info != 0) {
    gen_info("Copied file to %s", path);
  }
  return 0;
}

int32_t V_mkpath(const char* directory) {
  constexpr mode_t kModeOfUnknown = 0777;
  struct stat status {};
  return gen_createdir(directory,
                       gen_stat(directory, &status) == 0 ? status.st_mode : kModeOfUnknown);
}

void V_fix_cwd(const char* directory) {
  char* followed = nullptr;
  if (*directory == '/') {
    followed = gen_copy(directory);
  } else if (V_cwd == nullptr) {
    followed = read_current_directory();
  } else {
    followed = V_compath(gen_sconcat(V_cwd, directory));
  }
  gen_free(V_cwd);
  V_cwd = followed;
}

int V2_stat(const char* name, struct stat* buffer) {
  const gen_ptr<char> expanded = expand_root_relative(name);
  const char* path = expanded.get();
  int result = ::stat(path, buffer);
  if (result == 0 || path == nullptr || !gen_isviewpathing()) {
    return result;
  }
  const int first_error = errno;
  if (*path != '/') {
    if (V_cwd == nullptr) {
      return result;
    }
    if (std::strlen(V_cwd) + 1 + std::strlen(path) >= V_pathname.size()) {
      errno = ENAMETOOLONG;
      return -1;
    }
    V_cat(V_pathname.data(), V_cwd, "/", path, nullptr);
    path = V2_compath(V_pathname.data());
  }
  if (!lies_under_root(path, V_nodes[0])) {
    errno = first_error;
    return result;
  }
  const char* const relative = rest_behind_root(path, std::strlen(V_nodes[0]));
  int error = first_error;
  for (int32_t node = 1; node < V_ndir && result != 0; ++node) {
    const gen_ptr<char> candidate(gen_sconcat(V_nodes[node], relative));
    result = ::stat(candidate.get(), buffer);
    error = errno;
  }
  errno = error;
  return result;
}

int gen_access(const char* name, int mode) {
  if (!gen_isviewpathing()) {
    return gen_sys_access(name, mode);
  }
  const gen_ptr<char> path = expand_root_relative(name);
  if (::access(path.get(), mode) == 0) {
    return 0;
  }
  int error = errno;
  if (is_missing(error)) {
    if ((mode & W_OK) != 0) {
      if (gen_access(path.get(), F_OK) == 0) {
        return 0;
      }
    } else if (const gen_ptr<char> relative(V_getrel(path.get())); relative != nullptr) {
      for (int32_t node = 1; node < V_ndir && is_missing(error); ++node) {
        const gen_ptr<char> candidate(gen_sconcat(V_nodes[node], relative.get()));
        if (::access(candidate.get(), mode) == 0) {
          return 0;
        }
        error = errno;
      }
    }
  }
  errno = error;
  return -1;
}

int gen_diraccess(const char* name, int mode) {
  return gen_access(name, mode);
}

int gen_chdir(const char* name) {
  gen_invalidate_cwd();
  if (!gen_isviewpathing()) {
    return gen_sys_chdir(name);
  }
  if (name == nullptr || *name == '\0') {
    errno = ENOENT;
    return -1;
  }
  const gen_ptr<char> path = expand_root_relative(name);
  int result = ::chdir(path.get());
  if (result != 0) {
    struct stat status {};
    if (V2_stat(path.get(), &status) != 0) {
      if (errno != ENAMETOOLONG) {
        errno = ENOENT;
      }
      return -1;
    }
    if (!S_ISDIR(status.st_mode)) {
      errno = ENOTDIR;
      return -1;
    }
    if (V_mkpath(path.get()) != 0) {
      errno = EPERM;
      return -1;
    }
    result = ::chdir(path.get());
  }
  if (result == 0) {
    V_fix_cwd(path.get());
  }
  return result;
}

int gen_creat(const char* name, mode_t mode) {
  if (!gen_isviewpathing()) {
    return gen_sys_creat(name, mode);
  }
  const gen_ptr<char> path = expand_root_relative(name);
  const int descriptor = ::creat(path.get(), mode);
  if (descriptor >= 0) {
    return descriptor;
  }
  const int saved_errno = errno;
  bool in_view = true;
  const int32_t made = bring_in_directory_above(path.get(), &in_view);
  if (made > 0) {
    errno = saved_errno;
    return -1;
  }
  return made == 0 ? ::creat(path.get(), mode) : made;
}

int gen_link(const char* from, const char* to) {
  if (!gen_isviewpathing()) {
    return gen_sys_link(from, to);
  }
  const gen_ptr<char> path = expand_root_relative(from);
  if (::link(path.get(), to) == 0) {
    return 0;
  }
  const int saved_errno = errno;
  if (V_getf(path.get()) == 0) {
    return ::link(path.get(), to);
  }
  errno = saved_errno;
  return -1;
}

int gen_open(const char* name, int flags, mode_t mode) {
  if (V_flag == 0) {
    return gen_sys_open(name, flags, mode);
  }
  const gen_ptr<char> path(gen_viewpathfilename(name, lookup_for_flags(flags)));
  return ::open(path.get(), flags, mode);
}

std::FILE* gen_fopen(const char* name, const char* mode) {
  if (name == nullptr) {
    return nullptr;
  }
  if (V_flag == 0) {
    return gen_sys_fopen(name, mode);
  }
  const gen_ptr<char> path(gen_viewpathfilename(name, lookup_for_mode(mode)));
  return std::fopen(path.get(), mode);
}

std::FILE* gen_freopen(const char* name, const char* mode, std::FILE* stream) {
  if (name == nullptr) {
    return nullptr;
  }
  if (V_flag == 0) {
    return gen_sys_freopen(name, mode, stream);
  }
  const gen_ptr<char> path(gen_viewpathfilename(name, lookup_for_mode(mode)));
  return std::freopen(path.get(), mode, stream);
}

int gen_stat(const char* name, struct stat* buffer) {
  if (!gen_isviewpathing()) {
    return gen_sys_stat(name, buffer);
  }
  const gen_ptr<char> path = expand_root_relative(name);
  V_node = 0;
  if (::stat(path.get(), buffer) == 0) {
    return 0;
  }
  int error = errno;
  if (const gen_ptr<char> relative(V_getrel(path.get())); relative != nullptr) {
    for (int32_t node = 1; node < V_ndir; ++node) {
      V_node = node;
      const gen_ptr<char> candidate(gen_sconcat(V_nodes[node], relative.get()));
      if (::stat(candidate.get(), buffer) == 0) {
        if (V_wrstat != 0) {
          buffer->st_mode |= kWriteBits;
        }
        return 0;
      }
      error = errno;
    }
  }
  errno = error;
  return -1;
}

int gen_unlink(const char* name) {
  if (!gen_isviewpathing()) {
    return gen_sys_unlink(name);
  }
  const gen_ptr<char> path = expand_root_relative(name);
  if (::unlink(path.get()) == 0) {
    return 0;
  }
  int error = errno;
  struct stat status {};
  if (gen_stat(path.get(), &status) == 0 && ::stat(path.get(), &status) != 0) {
    error = EPERM;
  }
  errno = error;
  return -1;
}

}  // namespace kelvane
