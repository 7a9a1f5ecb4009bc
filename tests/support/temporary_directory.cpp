#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace kelvane {

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (fs::canonical(fs::temp_directory_path()) / "kelvane-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "can't make a temporary directory like " << pattern;
  }
  name_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  fs::remove_all(name_, ignored);
}

std::string TemporaryDirectory::path(std::string_view entry) const {
  return name_ + "/" + std::string(entry);
}

std::string TemporaryDirectory::write(std::string_view entry, std::string_view contents) const {
  const std::string file = path(entry);
  fs::create_directories(fs::path(file).parent_path());
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  EXPECT_TRUE(stream.good()) << "can't write " << file;
  return file;
}

std::string TemporaryDirectory::read(std::string_view entry) const {
  return read_whole_file(path(entry));
}

std::string read_whole_file(const std::string& name) {
  std::ifstream stream(name, std::ios::binary);
  EXPECT_TRUE(stream.good()) << "can't read " << name;
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace kelvane
