#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

// A fresh directory, removed with all that is in it when the object goes.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  // The directory's absolute name, links resolved, without a slash at its end.
  const std::string& name() const { return name_; }
  // The absolute name of an entry.
  std::string path(std::string_view entry) const;
  // Writes a file, making the directories on the way, and gives its absolute name.
  std::string write(std::string_view entry, std::string_view contents) const;
  // Reads a file whole; fails the test if it can't be read.
  std::string read(std::string_view entry) const;

 private:
  std::string name_;
};

// Reads the file of that name whole; fails the test if it can't be read.
std::string read_whole_file(const std::string& name);

}  // namespace kelvane
