#include "indgen_process.h"

#include <fcntl.h>
#include <netdb.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_path.h"
#include "indgen_string.h"
#include "indgeninit.h"
#include "indview.h"
#include "owners.h"
#include "shared_reset.h"

namespace kelvane {

namespace {

struct State {
  std::vector<char*> entries;  // handed to the environment, which uses them in place
  bool username_known = false;
  gen_ptr<char> cached_username;
  std::array<char, 256> hostname{};
  std::array<char, 1024> fqhostname{};  // empty until it is first asked for
  gen_fileid fileid{};
  std::optional<bool> dev_program;
};
State state;

constexpr int32_t kNoLimit = 0x7fffffff;
constexpr size_t kCompareBlock = 1024;

// read, again for as long as a signal interrupts it.
ssize_t read_block(const FileDescriptor& file, std::span<char> block) {
  ssize_t count = 0;
  do {
    count = ::read(file.get(), block.data(), block.size());
  } while (count == -1 && errno == EINTR);
  return count;
}

int64_t microseconds_now() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

template <typename Resource>
int32_t set_limit(Resource resource, int32_t value) {
  const int32_t soft = value > 0 ? value : kNoLimit;
  rlimit limit{};
  limit.rlim_cur = static_cast<rlim_t>(soft);
  limit.rlim_max = static_cast<rlim_t>(kNoLimit);
  ::setrlimit(resource, &limit);
  return soft;
}

// Copies a text into a buffer of fixed size, cut to what it holds.
template <size_t size>
void store(std::array<char, size>& buffer, const char* text) {
  const size_t length = ::strnlen(text, size - 1);
  std::memmove(buffer.data(), text, length);
  buffer[length] = '\0';
}

bool is_directory_of_program(const char* name) {
  const gen_ptr<char> path(gen_sconcat(gen_getprogdir(), name));
  return gen_isdir(path.get()) != 0;
}

}  // namespace

const char* gen_getenv(const char* name, const char* default_value) {
  const char* const value = name == nullptr ? nullptr : std::getenv(name);
  return value == nullptr || *value == '\0' ? default_value : value;
}

const char* gen_get_env_variable(const char* name) {
  return name == nullptr || *name == '\0' ? nullptr : gen_getenv(name, nullptr);
}

bool gen_put_env_variable(const char* name, const char* value) {
  if (name == nullptr || *name == '\0') {
    return false;
  }
  char* const entry = gen_concat3(name, "=", value);
  state.entries.push_back(entry);
  return ::putenv(entry) == 0;
}

int32_t gen_systemex(const char* command, const char* flags) {
  if (flags == nullptr || std::strchr(flags, 'q') == nullptr) {
    return std::system(command);
  }
  const gen_ptr<char> quiet_command(gen_concat(command, ">/dev/null"));
  return std::system(quiet_command.get());
}

int32_t gen_system(const char* command) {
  return gen_systemex(command, nullptr);
}

int32_t gen_execvp(const char* file, char* const* arguments) {
  return ::execvp(file, arguments);
}

uint32_t gen_sleep(uint32_t seconds) {
  return ::sleep(seconds);
}

int32_t gen_millisleep(int32_t milliseconds) {
  constexpr int64_t kLongest = std::numeric_limits<useconds_t>::max();
  const int64_t microseconds = std::clamp<int64_t>(int64_t{milliseconds} * 1000, 0, kLongest);
  ::usleep(static_cast<useconds_t>(microseconds));
  return 0;
}

int32_t gen_millisleep_or_select(int32_t milliseconds, int32_t count, const int32_t* descriptors) {
  fd_set readable;
  FD_ZERO(&readable);
  int32_t end = 0;  // one behind the highest descriptor
  for (const int32_t descriptor : std::span(descriptors, static_cast<size_t>(std::max(count, 0)))) {
    if (descriptor >= 0 && descriptor < FD_SETSIZE) {
      FD_SET(descriptor, &readable);
      end = std::max(end, descriptor + 1);
    }
  }
  if (end == 0) {
    gen_millisleep(milliseconds);
    return milliseconds;
  }
  const int64_t start = microseconds_now();
  timeval timeout{};
  const int64_t longest = std::max(milliseconds, 0);
  timeout.tv_sec = longest / 1000;
  timeout.tv_usec = longest % 1000 * 1000;
  if (::select(end, &readable, nullptr, nullptr, &timeout) == 0) {
    return milliseconds;
  }
  const int64_t elapsed = (microseconds_now() - start) / 1000;
  if (elapsed < 1) {
    return 1;
  }
  return elapsed > milliseconds ? milliseconds : static_cast<int32_t>(elapsed);
}

int32_t gen_yield() {
  ::sched_yield();
  return 0;
}

int32_t gen_nice(int32_t increment) {
  return ::nice(increment);
}

bool gen_doeslocalprocessexist(pid_t process) {
  return ::kill(process, 0) == 0 || errno != ESRCH;
}

int32_t gen_set_cpu_time_limit(int32_t seconds) {
  return set_limit(RLIMIT_CPU, seconds);
}

int32_t gen_set_memory_limit(int32_t bytes) {
  return set_limit(RLIMIT_AS, bytes);
}

char* gen_getusername() {
  if (!state.username_known) {
    const passwd* const user = ::getpwuid(::getuid());
    if (user != nullptr && user->pw_name != nullptr && *user->pw_name != '\0') {
      state.cached_username.reset(gen_copy(user->pw_name));
    }
    state.username_known = true;
  }
  return gen_copy(state.cached_username.get());
}

const char* gen_gethostname() {
  if (::gethostname(state.hostname.data(), state.hostname.size()) != 0) {
    state.hostname.back() = '\0';  // a name that was cut may lack its terminator
  }
  return state.hostname.data();
}

const char* gen_getfullyqualifiedhostname() {
  if (state.fqhostname.front() == '\0') {
    const char* name = gen_gethostname();
    if (std::strchr(name, '.') == nullptr) {
      const hostent* const host = ::gethostbyname(name);
      if (host != nullptr && host->h_name != nullptr && *host->h_name != '\0') {
        name = host->h_name;
      }
    }
    store(state.fqhostname, name);
  }
  return state.fqhostname.data();
}

char* gen_gethostosname() {
  utsname system{};
  if (::uname(&system) < 0) {
    return nullptr;
  }
  const std::string name =
      std::string(system.sysname) + " " + system.release + " " + system.version;
  return gen_copy(name.c_str());
}

const gen_fileid* gen_fileid_from_filename(const char* name) {
  struct stat status {};
  if (name == nullptr || gen_sys_stat(name, &status) != 0) {
    return nullptr;
  }
  state.fileid = {static_cast<uint32_t>(status.st_ino), static_cast<uint32_t>(status.st_dev)};
  return &state.fileid;
}

gen_fileid* gen_duplicate_fileid(const gen_fileid* id) {
  return static_cast<gen_fileid*>(gen_structcopy(id, sizeof(gen_fileid)));
}

bool gen_compare_fileids(const gen_fileid* a, const gen_fileid* b) {
  return a != nullptr && b != nullptr && a->inode == b->inode && a->device == b->device;
}

int32_t gen_binarydifffiles(const char* a, const char* b) {
  const auto open_for_reading = [](const char* name, struct stat* status) {
    const int number = gen_stat(name, status) == 0 ? gen_open(name, O_RDONLY, 0) : -1;
    if (number < 0) {
      gen_error("Could not open file: %s", name);
    }
    return number;
  };
  struct stat status_a {};
  struct stat status_b {};
  const FileDescriptor file_a(open_for_reading(a, &status_a));
  if (file_a.get() < 0) {
    return -1;
  }
  const FileDescriptor file_b(open_for_reading(b, &status_b));
  if (file_b.get() < 0) {
    return -1;
  }
  if (status_a.st_size != status_b.st_size) {
    return 1;
  }
  std::array<char, kCompareBlock> block_a;
  std::array<char, kCompareBlock> block_b;
  while (true) {
    const ssize_t count = read_block(file_a, block_a);
    if (count <= 0) {
      return static_cast<int32_t>(count);
    }
    const auto wanted = static_cast<size_t>(count);
    if (read_block(file_b, std::span(block_b).first(wanted)) != count) {
      return -1;
    }
    if (std::memcmp(block_a.data(), block_b.data(), wanted) != 0) {
      return 1;
    }
  }
}

bool gen_is_qv_dev_program() {
  if (!state.dev_program) {
    state.dev_program = is_directory_of_program("CVS") &&
                        is_directory_of_program("../src/target") &&
                        is_directory_of_program("../src/configuration");
  }
  return *state.dev_program;
}

void reset_indgen_process() {
  for (char* const entry : state.entries) {
    const std::string name(entry, std::strchr(entry, '='));
    ::unsetenv(name.c_str());
  }
  for (char* const entry : state.entries) {
    gen_free(entry);
  }
  state = State{};
}

}  // namespace kelvane
