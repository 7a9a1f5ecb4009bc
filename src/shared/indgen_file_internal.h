#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "owners.h"

// What the sources of the file operations share, and the parts of them that tests look at.
namespace kelvane {

// gen_stat that tells success, and fails for a null name (EFAULT).
bool examine(const char* name, struct stat* status);

// Tells the names "." and "..".
bool is_dots(const char* name);

// Owns a growing null-terminated array of strings, as the operations give it to their callers.
class StringList {
 public:
  StringList();
  ~StringList();
  StringList(const StringList&) = delete;
  StringList& operator=(const StringList&) = delete;

  // Appends a fresh copy.
  void add(std::string_view text);
  int32_t count() const { return static_cast<int32_t>(count_); }
  // Hands the array to the caller.
  char** release();

 private:
  char** strings_;
  uint32_t capacity_;  // names there is room for, besides the null at the end
  uint32_t count_ = 0;
};

// Resolves one symbolic link: stores in `result`, of `room` bytes, the name that it leads to. A
// target that isn't absolute has the directory of the link in front. Gives 0; -1 if it doesn't fit
// (ENAMETOOLONG) or the name can't be resolved, and if it is no link, with errno as it was.
int32_t _Mreadlink(const char* name, char* result, size_t room);

// Gives the type of the file system on `device` by a mount table in the form of
// /proc/self/mountinfo; an empty string if it isn't there.
std::string mounted_type(std::string_view mount_table, dev_t device);

}  // namespace kelvane
