#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "indgen_file.h"
#include "indgen_file_internal.h"
#include "indgen_memory.h"
#include "indgen_path.h"
#include "indgen_string.h"
#include "indview.h"

namespace kelvane {

namespace {

constexpr uint32_t kFirstNames = 32;  // a list of strings begins with room for so many

// Closes what gen_dir_open opened, on every road out.
class DirReader {
 public:
  explicit DirReader(const char* directory) : open_(gen_dir_open(&handle_, directory) != 0) {}
  ~DirReader() { gen_dir_close(&handle_); }
  DirReader(const DirReader&) = delete;
  DirReader& operator=(const DirReader&) = delete;

  bool is_open() const { return open_; }
  gen_dir_handle* handle() { return &handle_; }

 private:
  gen_dir_handle handle_ = {};
  bool open_;
};

bool has_wanted_suffix(const gen_dir_handle& handle) {
  return handle.suffix == nullptr || gen_issuffix(handle.name, handle.suffix);
}

void fill_in_type(gen_dir_handle& handle) {
  handle.status = {};
  handle.is_dir = 0;
  handle.is_link = 0;
  if (!has_wanted_suffix(handle)) {
    return;
  }
  if (handle.optimize_search != 0) {
    handle.is_dir = is_dots(handle.name) || !gen_issuffix(handle.name, nullptr) ? 1 : 0;
    return;
  }
  if (gen_stat(handle.path, &handle.status) != 0) {
    handle.status = {};
  }
  handle.is_dir = S_ISDIR(handle.status.st_mode) ? 1 : 0;
  handle.is_link = S_ISLNK(handle.status.st_mode) ? 1 : 0;
}

bool is_wanted(const gen_dir_handle& handle) {
  if (handle.is_dir == 0) {
    return handle.no_files == 0 && has_wanted_suffix(handle);
  }
  return handle.no_dirs == 0 && (handle.skip_dots == 0 || !is_dots(handle.name)) &&
         (handle.skip_cvs == 0 || std::strcmp(handle.name, "CVS") != 0);
}

// The directories from the top of a search down to the current one, by device and inode.
using SearchPath = std::vector<std::pair<dev_t, ino_t>>;

// The search behind gen_find_file. A directory that is its own ancestor, through a link, holds
// nothing that isn't found without it, and is passed over.
char* find_file_below(const char* directory, const char* name, int32_t access_mode, bool recurse,
                      SearchPath& above) {
  struct stat status {};
  if (!examine(directory, &status) || !S_ISDIR(status.st_mode)) {
    return nullptr;
  }
  gen_ptr<char> candidate(gen_sconcat(directory, name));
  if (gen_access(candidate.get(), access_mode) == 0 && gen_isdir(candidate.get()) == 0) {
    return candidate.release();
  }
  const SearchPath::value_type place(status.st_dev, status.st_ino);
  if (!recurse) {
    return nullptr;
  }
  for (const auto& ancestor : above) {
    if (ancestor == place) {
      return nullptr;
    }
  }
  std::vector<std::string> subdirectories;  // so that the depth takes no descriptors
  {
    DirReader reader(directory);
    gen_dir_restrict_files(reader.handle(), 1, nullptr);
    while (reader.is_open() && gen_dir_next_entry(reader.handle()) != nullptr) {
      subdirectories.emplace_back(reader.handle()->path);
    }
  }
  above.push_back(place);
  for (const std::string& subdirectory : subdirectories) {
    char* const found = find_file_below(subdirectory.c_str(), name, access_mode, recurse, above);
    if (found != nullptr) {
      return found;
    }
  }
  above.pop_back();
  return nullptr;
}

}  // namespace

bool is_dots(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

StringList::StringList()
    : strings_(gen_alloc_array<char*>(kFirstNames + 1)), capacity_(kFirstNames) {}

StringList::~StringList() {
  for (uint32_t index = 0; index < count_; ++index) {
    gen_free(strings_[index]);
  }
  gen_free(strings_);
}

void StringList::add(std::string_view text) {
  if (count_ == capacity_) {
    strings_ = static_cast<char**>(gen_allocate(strings_, 2 * capacity_ + 1, sizeof(char*)));
    capacity_ *= 2;
  }
  char* const copy = gen_alloc_array<char>(static_cast<uint32_t>(text.size()) + 1);
  std::memcpy(copy, text.data(), text.size());
  strings_[count_++] = copy;
  strings_[count_] = nullptr;
}

char** StringList::release() {
  count_ = 0;
  return std::exchange(strings_, nullptr);
}

int32_t gen_dir_open(gen_dir_handle* handle, const char* directory) {
  *handle = gen_dir_handle{};
  if (directory == nullptr) {
    errno = EFAULT;
    return 0;
  }
  handle->stream = ::opendir(directory);
  if (handle->stream == nullptr) {
    return 0;
  }
  handle->directory = gen_copy(directory);
  handle->skip_dots = 1;
  return 1;
}

void gen_dir_optimize_search(gen_dir_handle* handle, uint8_t on) {
  handle->optimize_search = on;
}

void gen_dir_restrict_files(gen_dir_handle* handle, uint8_t no_files, const char* suffix) {
  char* const wanted = gen_copy(suffix);
  gen_free(handle->suffix);
  handle->suffix = wanted;
  handle->no_files = no_files;
}

void gen_dir_restrict_dirs(gen_dir_handle* handle, uint8_t no_dirs, uint8_t skip_dots,
                           uint8_t skip_cvs) {
  handle->no_dirs = no_dirs;
  handle->skip_dots = skip_dots;
  handle->skip_cvs = skip_cvs;
}

const char* gen_dir_next_entry(gen_dir_handle* handle) {
  while (handle->stream != nullptr) {
    const struct dirent* const entry = ::readdir(handle->stream);
    if (entry == nullptr) {
      break;
    }
    handle->name = entry->d_name;
    gen_free(std::exchange(handle->owned_path, nullptr));
    handle->owned_path = gen_dconcat(handle->directory, handle->name);
    handle->path = handle->owned_path;
    fill_in_type(*handle);
    if (is_wanted(*handle)) {
      return handle->name;
    }
  }
  return nullptr;
}

void gen_dir_close(gen_dir_handle* handle) {
  gen_free(handle->directory);
  gen_free(handle->suffix);
  gen_free(handle->owned_path);
  if (handle->stream != nullptr) {
    ::closedir(handle->stream);
  }
  *handle = gen_dir_handle{};
}

int32_t gen_isemptydir(const char* directory) {
  DirReader reader(directory);
  return reader.is_open() && gen_dir_next_entry(reader.handle()) == nullptr ? 1 : 0;
}

int32_t gen_read_directory(const char* directory, char*** list) {
  if (list != nullptr) {
    *list = nullptr;
  }
  const dir_ptr stream(directory != nullptr ? ::opendir(directory) : nullptr);
  if (!stream) {
    return 0;
  }
  StringList names;
  int32_t count = 0;
  while (const struct dirent* const entry = ::readdir(stream.get())) {
    ++count;
    if (list != nullptr) {
      names.add(entry->d_name);
    }
  }
  if (list != nullptr) {
    *list = names.release();
  }
  return count;
}

char* gen_find_file(const char* directory, const char* name, int32_t access_mode, uint8_t recurse) {
  if (name == nullptr || gen_basename(name) != name || directory == nullptr) {
    return nullptr;
  }
  SearchPath above;
  return find_file_below(directory, name, access_mode, recurse != 0, above);
}

}  // namespace kelvane
