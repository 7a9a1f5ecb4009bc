#include "indgen_file.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "indgen_file_internal.h"
#include "indgen_memory.h"
#include "indview.h"

// What a file is, and its mode.
namespace kelvane {

namespace {

constexpr mode_t kDefaultMode = 0664;      // of a file that can't be examined
constexpr mode_t kPermissionBits = 07777;  // a mode without the file type

constexpr const char* kMountTable = "/proc/self/mountinfo";

// Gives the file the mode it starts from, with the bits of `off` cleared and those of `on` set.
mode_t change_mode(const char* name, mode_t start, mode_t off, mode_t on) {
  mode_t mode = start;
  const mode_t own = gen_getmode(name, &mode);
  if (name != nullptr) {
    ::chmod(name, ((mode & ~off) | on) & kPermissionBits);
  }
  return own;
}

bool is_later(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

std::string read_all(std::FILE* stream) {
  std::string text;
  std::array<char, 4096> block{};
  while (const size_t length = std::fread(block.data(), 1, block.size(), stream)) {
    text.append(block.data(), length);
  }
  return text;
}

// Cuts the text up to `separator`, or all of it, from the front of `rest`.
std::string_view take(std::string_view& rest, std::string_view separator) {
  const size_t end = rest.find(separator);
  const std::string_view piece = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + separator.size());
  return piece;
}

}  // namespace

bool examine(const char* name, struct stat* status) {
  if (name == nullptr) {
    errno = EFAULT;
    return false;
  }
  return gen_stat(name, status) == 0;
}

int32_t gen_filesize(const char* name) {
  struct stat status {};
  if (!examine(name, &status)) {
    return -1;
  }
  if (status.st_size > INT32_MAX) {
    errno = EOVERFLOW;
    return -1;
  }
  return static_cast<int32_t>(status.st_size);
}

int32_t gen_isdir(const char* name) {
  struct stat status {};
  return examine(name, &status) && S_ISDIR(status.st_mode) ? 1 : 0;
}

int32_t gen_isvcdir(const char* name) {
  return name != nullptr && (std::strcmp(name, "CVS") == 0 || std::strcmp(name, "mvc.log") == 0)
             ? 1
             : 0;
}

int32_t gen_islink(const char* name) {
  struct stat status {};
  if (name == nullptr || ::lstat(name, &status) != 0) {
    return 0;
  }
  if (S_ISLNK(status.st_mode)) {
    return 1;
  }
  return status.st_nlink > 1 ? 2 : 0;
}

int32_t gen_canexec(const char* name) {
  if (name == nullptr || *name == '\0') {
    return -1;
  }
  if (gen_isdir(name) != 0) {
    return 0;
  }
  if (gen_access(name, X_OK) == 0) {
    return 1;
  }
  return gen_access(name, F_OK) == 0 ? 0 : -1;
}

mode_t gen_getmode(const char* name, mode_t* mode) {
  struct stat status {};
  const bool known = examine(name, &status);
  if (mode != nullptr && *mode == 0) {
    *mode = known ? status.st_mode : kDefaultMode;
  }
  return known ? status.st_mode : 0;
}

int32_t gen_newerthan(const char* a, const char* b) {
  struct stat status_a {};
  struct stat status_b {};
  if (!examine(a, &status_a)) {
    return -1;
  }
  if (!examine(b, &status_b)) {
    return 1;
  }
  return is_later(status_a.st_mtim, status_b.st_mtim) ? 1 : 0;
}

uint64_t gen_freediskspace(const char* path) {
  struct statvfs space {};
  if (path == nullptr || ::statvfs(path, &space) != 0) {
    return 0;
  }
  return uint64_t{space.f_bavail} * uint64_t{space.f_frsize};
}

std::string mounted_type(std::string_view mount_table, dev_t device) {
  const std::string wanted = std::to_string(major(device)) + ":" + std::to_string(minor(device));
  while (!mount_table.empty()) {
    // mount number, parent, major:minor, root, mount point, options, optional fields, "-", type
    std::string_view line = take(mount_table, "\n");
    take(line, " ");
    take(line, " ");
    if (take(line, " ") == wanted) {
      take(line, " - ");
      return std::string(take(line, " "));
    }
  }
  return {};
}

bool gen_in_clearcase_mvfs(const char* path) {
  // statvfs has no name of the type here; the mount table knows it by the device.
  struct statvfs space {};
  struct stat status {};
  if (path == nullptr || ::statvfs(path, &space) != 0 || ::stat(path, &status) != 0) {
    return false;
  }
  const file_ptr stream(gen_fopen(kMountTable, "r"));
  return stream && mounted_type(read_all(stream.get()), status.st_dev) == "mvfs";
}

mode_t gen_chmod_minusw(const char* name, mode_t mode) {
  return change_mode(name, mode, 0222, 0);
}

mode_t gen_chmod_plusw(const char* name, mode_t mode) {
  return change_mode(name, mode, 0, 0220);
}

mode_t gen_chmod_plusrw(const char* name, mode_t mode) {
  return change_mode(name, mode, 0, 0660);
}

mode_t gen_chmod_pluswu(const char* name, mode_t mode) {
  return change_mode(name, mode, 022, 0200);
}

mode_t gen_chmod_plusx(const char* name) {
  return change_mode(name, 0, 0, 0110);
}

mode_t gen_chmod_sameas(const char* name, const char* other) {
  const mode_t mode = gen_getmode(other, nullptr);
  if (mode != 0 && name != nullptr) {
    ::chmod(name, mode & kPermissionBits);
  }
  return mode;
}

}  // namespace kelvane
