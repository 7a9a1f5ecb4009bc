#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace kelvane {

// Sets an environment variable, or takes it away, until the object goes.
class ChangedVariable {
 public:
  ChangedVariable(std::string name, const std::optional<std::string>& value)
      : name_(std::move(name)) {
    if (const char* const old = std::getenv(name_.c_str())) {
      old_ = old;
    }
    set(value);
  }
  ~ChangedVariable() { set(old_); }
  ChangedVariable(const ChangedVariable&) = delete;
  ChangedVariable& operator=(const ChangedVariable&) = delete;

  void set(const std::optional<std::string>& value) const {
    if (value) {
      ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// Works in another directory until the object goes.
class ChangedDirectory {
 public:
  explicit ChangedDirectory(const std::string& name) : old_(std::filesystem::current_path()) {
    std::filesystem::current_path(name);
  }
  ~ChangedDirectory() { std::filesystem::current_path(old_); }
  ChangedDirectory(const ChangedDirectory&) = delete;
  ChangedDirectory& operator=(const ChangedDirectory&) = delete;

 private:
  std::filesystem::path old_;
};

}  // namespace kelvane
