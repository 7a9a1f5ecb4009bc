#include "output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace kelpatch {
namespace {

struct State {
  // The file that a signal has to remove, or null.
  std::atomic<const char*> temporary_name = nullptr;
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
  const char* const name = state.temporary_name;
  if (name != nullptr) {
    ::unlink(name);
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

// The name of a file that `name` stands for: a link is followed.
std::string without_links(const std::string& name) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(name.c_str(), nullptr),
                                                             std::free);
  return resolved ? resolved.get() : name;
}

}  // namespace

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
    state.temporary_name = temporary_name_.c_str();
  }
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(file_, exists ? status.st_mode & 0777U : 0666U & ~mask);
}

OutputFile::~OutputFile() {
  if (file_ >= 0) {
    ::close(file_);
  }
  if (state.temporary_name != nullptr) {
    const SignalsHeld held;
    ::unlink(temporary_name_.c_str());
    state.temporary_name = nullptr;
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

void OutputFile::keep() {
  if (::fsync(file_) != 0 && errno != EINVAL && errno != EROFS) {
    fail();
  }
  const SignalsHeld held;
  if (::close(std::exchange(file_, -1)) != 0 ||
      std::rename(temporary_name_.c_str(), name_.c_str()) != 0) {
    fail();
  }
  state.temporary_name = nullptr;
}

void OutputFile::fail() const {
  fatal_errno("error writing output file '%s'", shown_name_.c_str());
}

}  // namespace kelpatch
