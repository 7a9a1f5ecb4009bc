#include "output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace kelpatch {
namespace {

struct State {
  // The files that a signal has to remove; null: none.
  std::array<std::atomic<const char*>, 2> temporary_names = {};
};
State state;
static_assert(std::atomic<const char*>::is_always_lock_free, "a signal handler reads it");

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGTERM};

sigset_t ending_signals() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int number : kEndingSignals) {
    ::sigaddset(&set, number);
  }
  return set;
}

extern "C" void remove_and_end(int number) {
  for (const std::atomic<const char*>& place : state.temporary_names) {
    const char* const name = place;
    if (name != nullptr) {
      ::unlink(name);
    }
  }
  // The handler is gone by now, so that this ends the program as if there had been none.
  ::raise(number);
}

// A signal that the caller had ignored stays ignored.
void catch_signals() {
  for (const int number : kEndingSignals) {
    struct sigaction action = {};
    if (::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
      action.sa_handler = remove_and_end;
      action.sa_flags = static_cast<int>(SA_RESETHAND);
      action.sa_mask = ending_signals();
      ::sigaction(number, &action, nullptr);
    }
  }
}

// As long as it lives, the signals wait.
class SignalsHeld {
 public:
  SignalsHeld() {
    const sigset_t set = ending_signals();
    ::sigprocmask(SIG_BLOCK, &set, &before_);
  }
  ~SignalsHeld() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
  sigset_t before_ = {};
};

// The full name that `name` stands for, or nothing where that does not exist.
std::string resolved(const std::string& name) {
  const std::unique_ptr<char, decltype(&std::free)> full(::realpath(name.c_str(), nullptr),
                                                         std::free);
  return full ? full.get() : "";
}

// The name of a file that `name` stands for: links are followed, but for one that leads nowhere.
std::string without_links(const std::string& name) {
  if (std::string full = resolved(name); !full.empty()) {
    return full;
  }
  const size_t base = name.rfind('/') + 1;  // 0 if there is no folder
  const std::string folder = resolved(base == 0 ? "." : name.substr(0, base));
  return folder.empty() ? name : folder + "/" + name.substr(base);
}

bool is_same_file(const std::string& first, const std::string& second) {
  struct stat one = {};
  struct stat other = {};
  return ::stat(first.c_str(), &one) == 0 && ::stat(second.c_str(), &other) == 0 &&
         one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

void refuse_inputs(const std::string& output, std::initializer_list<std::string> inputs) {
  for (const std::string& input : inputs) {
    if (is_same_file(output, input)) {
      fatal("output file '%s' is also an input file", output.c_str());
    }
  }
}

bool is_same_place(const std::string& first, const std::string& second) {
  return without_links(first) == without_links(second);
}

OutputFile::OutputFile(const std::string& name)
    : shown_name_(name), name_(without_links(name)), temporary_name_(name_ + ".XXXXXX") {
  struct stat status = {};
  const bool exists = ::stat(name_.c_str(), &status) == 0;
  if (exists && !S_ISREG(status.st_mode)) {
    fatal("output file '%s' exists and is not a regular file", name.c_str());
  }
  catch_signals();
  {
    const SignalsHeld held;
    file_ = ::mkstemp(temporary_name_.data());
    if (file_ < 0) {
      fatal_errno("unable to open output file '%s'", name.c_str());
    }
    removed_by_signal_ = std::find(state.temporary_names.begin(), state.temporary_names.end(),
                                   static_cast<const char*>(nullptr));
    *removed_by_signal_ = temporary_name_.c_str();
  }
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(file_, exists ? status.st_mode & 0777U : 0666U & ~mask);
}

OutputFile::~OutputFile() {
  if (file_ >= 0) {
    ::close(file_);
  }
  if (removed_by_signal_ != nullptr) {
    const SignalsHeld held;
    ::unlink(temporary_name_.c_str());
    *removed_by_signal_ = nullptr;
  }
}

void OutputFile::write(const Bytes& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count = ::write(file_, bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno != EINTR) {
      fail();
    }
    done += static_cast<size_t>(std::max(count, ssize_t{0}));
  }
}

void OutputFile::complete() {
  if (::fsync(file_) != 0 && errno != EINVAL && errno != EROFS) {
    fail();
  }
  if (::close(std::exchange(file_, -1)) != 0) {
    fail();
  }
}

void OutputFile::keep() {
  if (file_ >= 0) {
    complete();
  }
  const SignalsHeld held;
  if (std::rename(temporary_name_.c_str(), name_.c_str()) != 0) {
    fail();
  }
  *std::exchange(removed_by_signal_, nullptr) = nullptr;
}

void OutputFile::fail() const {
  fatal_errno("error writing output file '%s'", shown_name_.c_str());
}

}  // namespace kelpatch
