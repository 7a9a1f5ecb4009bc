#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "indgen_file.h"
#include "indgen_file_internal.h"
#include "indgen_memory.h"
#include "indgen_path.h"
#include "indview.h"
#include "indview_internal.h"
#include "owners.h"

// What changes the file system.
namespace kelvane {

namespace {

constexpr size_t kBlock = 1024;      // bytes copied at a time
constexpr size_t kLinkRoom = 1024;   // a link's target, with the terminator
constexpr int32_t kMostLinks = 257;  // links followed

int32_t fail(int reason) {
  errno = reason;
  return -1;
}

bool is_same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

FileDescriptor open_directory(int above, const char* name) {
  return FileDescriptor(::openat(above, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// A directory whose contents are being removed.
struct Level {
  FileDescriptor directory;  // closed while the walk is far below
  struct stat status;
  std::string name;                         // in the directory above
  std::vector<std::string> subdirectories;  // still to be gone into
};

// Removes what is no directory from a directory, and gives the names of its subdirectories.
std::vector<std::string> remove_files(int directory) {
  std::vector<std::string> subdirectories;
  FileDescriptor reader(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
  const dir_ptr stream(reader.is_open() ? ::fdopendir(reader.get()) : nullptr);
  if (!stream) {
    return subdirectories;
  }
  reader.release();
  std::vector<std::string> files;  // removed when all have been read
  while (const struct dirent* const entry = ::readdir(stream.get())) {
    if (is_dots(entry->d_name)) {
      continue;
    }
    struct stat status {};
    const bool known = ::fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    (known && S_ISDIR(status.st_mode) ? subdirectories : files).emplace_back(entry->d_name);
  }
  for (const std::string& file : files) {
    ::unlinkat(directory, file.c_str(), 0);
  }
  return subdirectories;
}

// Removes all that is in a directory, if it is one. The walk goes from one open directory to the
// next, down by a name alone and never through a link, so that it can't be led out of the tree and
// no path is too long for it. Its depth takes no descriptors: further up than one level all are
// closed, and the way back goes by "..", which has to lead where the walk came from.
void remove_contents(const std::string& top) {
  std::vector<Level> levels;
  const auto enter = [&levels](FileDescriptor directory, const std::string& name) {
    struct stat status {};
    if (::fstat(directory.get(), &status) != 0) {
      return;
    }
    std::vector<std::string> subdirectories = remove_files(directory.get());
    levels.push_back({std::move(directory), status, name, std::move(subdirectories)});
    if (levels.size() > 2) {
      levels[levels.size() - 3].directory.close();
    }
  };
  enter(open_directory(AT_FDCWD, top.c_str()), top);
  while (!levels.empty()) {
    Level& level = levels.back();
    if (!level.subdirectories.empty()) {
      const std::string name = std::move(level.subdirectories.back());
      level.subdirectories.pop_back();
      FileDescriptor below = open_directory(level.directory.get(), name.c_str());
      if (below.is_open()) {
        enter(std::move(below), name);
      } else {
        ::unlinkat(level.directory.get(), name.c_str(), AT_REMOVEDIR);
      }
      continue;
    }
    const Level left = std::move(level);
    levels.pop_back();
    if (levels.empty()) {
      return;
    }
    Level& above = levels.back();
    if (!above.directory.is_open()) {
      above.directory = open_directory(left.directory.get(), "..");
      struct stat status {};
      if (::fstat(above.directory.get(), &status) != 0 || !is_same_file(status, above.status)) {
        return;  // moved elsewhere meanwhile
      }
    }
    ::unlinkat(above.directory.get(), left.name.c_str(), AT_REMOVEDIR);
  }
}

// A name without the slashes at its end, which would lead through a link.
std::string without_last_slashes(std::string name) {
  while (name.size() > 1 && name.back() == '/') {
    name.pop_back();
  }
  return name;
}

// Tells whether creating `name` would open the file that is open already.
bool creates_same_file(int descriptor, const char* name) {
  const gen_ptr<char> created = expand_root_relative(name);
  struct stat opened {};
  struct stat named {};
  return ::fstat(descriptor, &opened) == 0 && gen_sys_stat(created.get(), &named) == 0 &&
         is_same_file(opened, named);
}

int32_t copy_to_stream(const char* name, std::FILE* stream) {
  const file_ptr source(gen_fopen(name, "r"));
  if (!source) {
    return -1;
  }
  std::array<char, kBlock> block{};
  while (const size_t length = std::fread(block.data(), 1, block.size(), source.get())) {
    if (std::fwrite(block.data(), 1, length, stream) != length) {
      return -1;
    }
  }
  return std::fflush(stream) == 0 ? 0 : -1;
}

// Reads the first byte of a file and writes it back.
int32_t rewrite_first_byte(const char* name, mode_t mode) {
  FileDescriptor file(gen_open(name, O_RDWR, mode));
  if (!file.is_open()) {
    return -1;
  }
  char byte = 0;
  errno = 0;
  ssize_t length = ::read(file.get(), &byte, 1);
  if (length < 1 && errno == EINTR) {
    length = ::read(file.get(), &byte, 1);
  }
  if (length != 1 || ::lseek(file.get(), 0, SEEK_SET) != 0 || ::write(file.get(), &byte, 1) != 1) {
    return -1;
  }
  return file.close();
}

// Writes one byte to an empty file and takes it away again.
int32_t write_and_truncate(const char* name) {
  FileDescriptor file(gen_open(name, O_WRONLY, 0));
  if (!file.is_open()) {
    return -1;
  }
  const char byte = 0;
  ssize_t length = 0;
  do {
    length = ::write(file.get(), &byte, 1);
  } while (length == -1 && errno == EINTR);
  file.close();
  if (length != 1) {
    return -1;
  }
  FileDescriptor truncated(gen_open(name, O_RDWR | O_TRUNC, 0));
  return truncated.is_open() ? truncated.close() : -1;
}

struct timeval rounded_up(const struct timespec& time) {
  struct timeval whole {};
  whole.tv_sec = time.tv_sec + (time.tv_nsec != 0 ? 1 : 0);
  return whole;
}

}  // namespace

int32_t gen_mkdir(const char* name, mode_t mode) {
  return ::mkdir(name, mode);
}

int32_t gen_symlink(const char* from, const char* to) {
  return ::symlink(from, to);
}

int32_t gen_truncate(const char* name, off_t length) {
  return ::truncate(name, length);
}

int32_t gen_createdir(const char* name, mode_t mode) {
  struct stat status {};
  if (gen_sys_stat(name, &status) == 0) {
    return S_ISDIR(status.st_mode) ? 0 : fail(EEXIST);  // what mkdir says to such a name
  }
  return gen_mkdir(name, mode);
}

int32_t gen_createdir_recursive(const char* name, mode_t mode) {
  std::vector<gen_ptr<char>> missing;
  gen_ptr<char> parent(gen_dirname(name));
  while (parent && std::strcmp(parent.get(), "/") != 0 && gen_isdir(parent.get()) == 0) {
    gen_ptr<char> above(gen_dirname(parent.get()));
    missing.push_back(std::move(parent));
    parent = std::move(above);
  }
  for (auto directory = missing.rbegin(); directory != missing.rend(); ++directory) {
    gen_createdir(directory->get(), mode);
  }
  return gen_createdir(name, mode);
}

int32_t gen_removefile(const char* name) {
  return gen_isdir(name) != 0 ? fail(EISDIR) : gen_unlink(name);
}

int32_t gen_removedir_recursive(const char* directory) {
  if (directory == nullptr) {
    return fail(EFAULT);
  }
  const std::string bare = without_last_slashes(directory);
  struct stat status {};
  if (::lstat(bare.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
    return bare == directory ? gen_unlink(directory) : fail(ENOTDIR);
  }
  remove_contents(bare);
  return ::rmdir(directory);
}

int32_t gen_removestar_recursive(const char* directory) {
  if (directory != nullptr) {
    remove_contents(without_last_slashes(directory));
  }
  return 0;
}

int32_t gen_renamefile(const char* from, const char* to) {
  struct stat status {};
  if (gen_isdir(to) != 0 || gen_isdir(from) != 0) {
    return fail(EISDIR);
  }
  if (::lstat(from, &status) != 0) {
    return -1;  // or else `to` would be removed for nothing
  }
  if (::rename(from, to) == 0) {
    return 0;
  }
  gen_removefile(to);
  return ::rename(from, to);
}

int32_t gen_copyfile(const char* from, const char* to) {
  FileDescriptor source(gen_open(from, O_RDONLY, 0));
  if (!source.is_open()) {
    return -1;
  }
  if (creates_same_file(source.get(), to)) {
    return fail(EINVAL);  // creating it would empty the source
  }
  FileDescriptor copy(gen_creat(to, 0666));
  if (!copy.is_open()) {
    return -1;
  }
  std::array<char, kBlock> block{};
  ssize_t length = 0;
  while ((length = ::read(source.get(), block.data(), block.size())) > 0) {
    if (::write(copy.get(), block.data(), static_cast<size_t>(length)) != length) {
      const int reason = errno;
      source.close();
      copy.close();
      gen_removefile(to);
      return fail(reason);
    }
  }
  source.close();
  copy.close();
  gen_chmod_sameas(to, from);
  return 0;
}

int32_t gen_movefile(const char* from, const char* to) {
  int32_t result = gen_renamefile(from, to);
  if (result == -1 && gen_isdir(from) == 0) {
    result = gen_copyfile(from, to);
    if (result == 0) {
      result = gen_removefile(from);
    }
  }
  return result;
}

int32_t gen_catfile(const char* name, std::FILE* stream) {
  return copy_to_stream(name, stream);
}

int32_t gen_cattextfile(const char* name, std::FILE* stream) {
  return copy_to_stream(name, stream);
}

int32_t gen_touchfile(const char* name) {
  struct stat status {};
  if (!examine(name, &status)) {
    // For writing, so that a viewpath makes it in the local tree.
    FileDescriptor file(gen_open(name, O_WRONLY | O_CREAT | O_EXCL, 0666));
    return file.is_open() ? file.close() : -1;
  }
  return status.st_size != 0 ? rewrite_first_byte(name, status.st_mode) : write_and_truncate(name);
}

int32_t gen_utime(const char* name, time_t access_time, time_t modification_time) {
  std::array<struct timeval, 2> times{};
  times[0].tv_sec = access_time;
  times[1].tv_sec = modification_time;
  return ::utimes(name, times.data());
}

int32_t gen_sametimeas(const char* from, const char* to) {
  const int reason = errno;
  struct stat status {};
  int32_t result = -1;
  if (examine(from, &status)) {
    const std::array<struct timeval, 2> times = {rounded_up(status.st_atim),
                                                 rounded_up(status.st_mtim)};
    result = ::utimes(to, times.data());
  }
  errno = reason;
  return result;
}

int32_t _Mreadlink(const char* name, char* result, size_t room) {
  const int reason = errno;
  std::array<char, kLinkRoom> target{};
  const ssize_t read = ::readlink(name, target.data(), target.size());
  if (read < 0) {
    if (errno == EINVAL) {
      errno = reason;  // no link: the ordinary end of a walk
    }
    return -1;
  }
  const auto length = static_cast<size_t>(read);
  const char* const last_slash = std::strrchr(name, '/');
  size_t directory = 0;
  if (target[0] != '/' && last_slash != nullptr) {
    directory = static_cast<size_t>(last_slash - name) + 1;
  }
  if (length == target.size() || directory + length >= room) {
    return fail(ENAMETOOLONG);
  }
  // The last step's result may be this step's name.
  std::memmove(result, name, directory);
  std::memcpy(result + directory, target.data(), length);
  result[directory + length] = '\0';
  return 0;
}

int32_t gen_readlink(const char* name, char* buffer, size_t length) {
  std::array<char, kLinkRoom> place{};
  int32_t steps = 0;
  while (steps < kMostLinks &&
         _Mreadlink(steps == 0 ? name : place.data(), place.data(), place.size()) == 0) {
    ++steps;
  }
  if (steps == 0) {
    return -1;
  }
  std::strncpy(buffer, place.data(), length);
  return 1;
}

}  // namespace kelvane
