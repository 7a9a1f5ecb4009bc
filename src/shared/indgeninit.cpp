#include "indgeninit.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "exit_status.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_path.h"
#include "indgen_process.h"
#include "indgen_string.h"
#include "indview.h"
#include "shared_reset.h"

namespace kelvane {

char* gen_progname = nullptr;
char* gen_execname = nullptr;
char* gen_progdir = nullptr;
uint8_t gen_skip_trapsetup = 0;
int32_t gen_sigtrap_value = 0;
uint8_t bigendian_host = 0;

namespace {
constexpr int32_t kInitialVersion = 6;
constexpr int32_t kFirstIllegalVersion = 9;

struct State {
  bool destructed = false;       // gen_destruct has run
  bool sigpipe_trapped = false;  // a SIGPIPE has been reported
};
State state;

// Gives `path` if the program may execute it, null otherwise.
gen_ptr<char> executable_or_null(gen_ptr<char> path) {
  return gen_canexec(path.get()) == 1 ? std::move(path) : nullptr;
}

// Tries `name` in each element of "PATH". Every colon ends an element, so that an empty one, at the
// end too, counts and joins to the bare name.
gen_ptr<char> find_along_path(const char* name) {
  const char* const list = gen_getenv("PATH", nullptr);
  if (list == nullptr) {
    return nullptr;
  }
  std::string_view rest = list;
  while (true) {
    const size_t length = rest.find(':');
    const std::string_view element = rest.substr(0, length);
    const gen_ptr<char> directory(gen_copyn(element.data(), static_cast<int32_t>(element.size())));
    gen_ptr<char> path = executable_or_null(gen_ptr<char>(gen_sconcat(directory.get(), name)));
    if (path != nullptr || length == std::string_view::npos) {
      return path;
    }
    rest.remove_prefix(length + 1);
  }
}

void install(int signal_number, void (*handler)(int32_t)) {
  std::signal(signal_number, handler);
}

}  // namespace

int32_t qvr_current_version = kInitialVersion;

void gen_init(const char* argv0, int32_t /*unused*/, int32_t viewpath_mode) {
  // Memory that a container asks for ends the run as all other memory does.
  std::set_new_handler([] { gen_out_of_memory(0); });
  gen_ptr<char> start_name(gen_copy(argv0));
  if (start_name != nullptr) {
    size_t length = std::strlen(start_name.get());
    while (length > 0 && start_name.get()[length - 1] == '/') {
      --length;
    }
    start_name.get()[length] = '\0';
    gen_changeprogname(gen_basename(start_name.get()));
    gen_free(gen_execname);
    gen_execname = gen_copy(start_name.get());
  }
  if (gen_skip_trapsetup == 0) {
    trapsetup();
  }
  gen_skip_trapsetup = 1;
  gen_viewpathing_init(viewpath_mode);
  gen_endian_init();
}

void gen_destruct() {
  if (state.destructed) {
    return;
  }
  state.destructed = true;
  gen_sourceroot_cleanup();
  gen_viewpathing_cleanup();
  gen_free(gen_progname);
  gen_free(gen_execname);
  gen_free(gen_progdir);
  gen_progname = nullptr;
  gen_execname = nullptr;
  gen_progdir = nullptr;
}

uint8_t gen_endian_init() {
  uint16_t word = 0;
  const uint8_t one = 1;
  std::memcpy(&word, &one, sizeof one);
  constexpr uint16_t kLittle = 1;
  constexpr uint16_t kBig = 256;
  if (word == kLittle) {
    bigendian_host = 0;
  } else if (word == kBig) {
    bigendian_host = 1;
  } else {
    gen_errorexit(kStatusFailure, "Could not determine host endianness");
  }
  return bigendian_host;
}

void trapsetup() {
  install(SIGHUP, sigtrap);
  install(SIGINT, sigtrap);
  install(SIGQUIT, sigtrap);
  install(SIGTERM, sigtrap);
  install(SIGPIPE, sigpipetrap);
  install(SIGXCPU, siglimitexceeded);
}

void sigtrap(int32_t signal_number) {
  if (already_doing_exit != 0) {
    ::_exit(kStatusSignal);
  }
  gen_sigtrap_value = signal_number;
  std::fflush(stdout);
  if (signal_number == SIGINT) {
    gen_error("Halted");
  } else if (signal_number != SIGTERM) {
    gen_error("Interrupt (%d)", signal_number);
  }
  end_run(kStatusSignal);
}

void sigpipetrap(int32_t /*signal_number*/) {
  if (!state.sigpipe_trapped) {
    state.sigpipe_trapped = true;
    install(SIGPIPE, sigpipetrap);
    gen_error("Halted by a SIGPIPE.");
  } else {
    // The report of the first one met a broken pipe itself: say nothing more.
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
  }
  end_run(kStatusSignal);
}

void siglimitexceeded(int32_t signal_number) {
  gen_sigtrap_value = signal_number;
  std::fflush(stdout);
  if (signal_number == SIGXCPU) {
    gen_error("Cpu Limit Exceeded");
  } else {
    gen_error("Resource Limit exceeded");
  }
  end_run(kStatusSignal);
}

const char* gen_getprogname() {
  return gen_progname;
}

void gen_changeprogname(const char* name) {
  char* const copy = gen_copy(name);  // first, since `name` may be the old one
  gen_free(gen_progname);
  gen_progname = copy;
}

const char* gen_getprogdir() {
  if (gen_progdir == nullptr) {
    gen_progdir = gen_findexecdir(gen_execname, 0, 1);
  }
  return gen_progdir;
}

void gen_changeprogdir(const char* directory) {
  char* const resolved = gen_realpath(directory);
  gen_free(gen_progdir);
  gen_progdir = resolved;
}

char* gen_findexec(const char* name, uint8_t look_in_progdir, uint8_t resolve) {
  if (name == nullptr) {
    return nullptr;
  }
  gen_ptr<char> path;
  if (gen_basename(name) != name) {
    path = executable_or_null(gen_ptr<char>(gen_expand_filename(name)));
    if (path == nullptr) {
      return nullptr;
    }
  }
  if (path == nullptr && look_in_progdir != 0) {
    path = executable_or_null(gen_ptr<char>(gen_sconcat(gen_getprogdir(), name)));
  }
  if (path == nullptr) {
    path = find_along_path(name);
  }
  if (path != nullptr && resolve != 0) {
    path.reset(gen_realpath(path.get()));
  }
  return path.release();
}

char* gen_findexecdir(const char* name, uint8_t look_in_progdir, uint8_t resolve) {
  const gen_ptr<char> path(gen_findexec(name, look_in_progdir, resolve));
  return gen_dirname(path.get());
}

int32_t gen_get_version() {
  return qvr_current_version;
}

bool gen_is_at_least_version(int32_t v) {
  return v <= qvr_current_version;
}

bool gen_is_at_most_version(int32_t v) {
  return qvr_current_version <= v;
}

void gen_set_version(int32_t v) {
  if (v >= kFirstIllegalVersion) {
    gen_error("Attempt to set version to an illegal value");
    return;
  }
  qvr_current_version = v;
}

void reset_indgeninit() {
  for (char** const name : {&gen_progname, &gen_execname, &gen_progdir}) {
    gen_free(*name);
    *name = nullptr;
  }
  gen_skip_trapsetup = 0;
  gen_sigtrap_value = 0;
  bigendian_host = 0;
  qvr_current_version = kInitialVersion;
  state = State{};
  std::set_new_handler(nullptr);
}

}  // namespace kelvane
