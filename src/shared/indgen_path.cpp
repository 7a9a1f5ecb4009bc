#include "indgen_path.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_process.h"
#include "indgen_string.h"
#include "indview.h"
#include "owners.h"
#include "shared_reset.h"

// Joining, canonical form, absolute names, and what asks the system: current directory, home,
// resolved names, sameness of files. What only cuts and compares text stands in
// indgen_path_text.cpp.
namespace kelvane {

namespace {
constexpr size_t kLongestDirectory = 1024;

struct State {
  std::array<char, kLongestDirectory + 1> cached_cwd{};  // empty until asked for
  char* homeDir = nullptr;                               // null until found
  char* devdot = nullptr;                                // null until asked for
};
State state;

bool is_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

// ---- The canonical form.

// True if the component at `text` is `component`.
bool component_is(const char* text, std::string_view component) {
  const char after =
      std::strncmp(text, component.data(), component.size()) == 0 ? text[component.size()] : 'x';
  return after == '\0' || after == '/';
}

// Takes `count` characters out of a string.
void erase(char* text, size_t count) {
  std::memmove(text, text + count, std::strlen(text + count) + 1);
}

// The first character that may change in the form with drives and servers.
char* behind_drive_or_server(char* path) {
  if (path[0] == '/' && path[1] == '/') {
    return path + 2 + std::strcspn(path + 2, "/");
  }
  const bool lower = path[0] >= 'a' && path[0] <= 'z';
  const bool upper = path[0] >= 'A' && path[0] <= 'Z';
  if ((lower || upper) && path[1] == ':') {
    path[0] = static_cast<char>(lower ? path[0] - 'a' + 'A' : path[0]);
    return path + 2;
  }
  return path;
}

// Most names are canonical already: then no two neighbours are both a slash or a dot.
bool may_need_work(const char* text) {
  if (text[0] == '.' && text[1] == '/') {
    ++text;
  }
  bool previous = false;
  for (; *text != '\0'; ++text) {
    const bool current = *text == '/' || *text == '.';
    if (previous && current) {
      return true;
    }
    previous = current;
  }
  return false;
}

// Removes components from `start` on. After each removal that can bring new neighbours together the
// scan begins again.
void reduce_components(char* const start) {
  constexpr std::string_view kUp = "..";
  char* cursor = start;
  while (*cursor != '\0') {
    char* const slash = std::strchr(cursor, '/');
    if (slash == nullptr) {
      return;
    }
    if (slash == cursor) {  // an empty component
      erase(cursor, 1);
      cursor = start;
    } else if (component_is(slash + 1, ".")) {
      erase(slash, 2);
    } else if (!component_is(slash + 1, kUp) || component_is(cursor, kUp)) {
      cursor = slash + 1;  // nothing to undo, or only a `..` that nothing before it can undo
    } else if (slash == cursor + 1 && *cursor == '.') {
      erase(cursor, 2);  // ./.. is no more than ..
      cursor = start;
    } else {
      erase(cursor, static_cast<size_t>(slash - cursor) + 1 + kUp.size());
      cursor = start;
    }
  }
}

bool ends_in_slash(const char* text) {
  const size_t length = std::strlen(text);
  return length > 1 && text[length - 1] == '/';
}

// Makes an owned name canonical.
char* canonical(gen_ptr<char> path) {
  gen_canonicalfilename(path.get());
  return path.release();
}

// ---- Sameness of files.

// 1 or 0 if at least one of the two can be looked up: whether both can and are the same file. -1 if
// neither can.
int32_t compare_identity(const char* a, const char* b) {
  struct stat a_status {};
  struct stat b_status {};
  const bool a_found = a != nullptr && gen_stat(a, &a_status) == 0;
  const bool b_found = b != nullptr && gen_stat(b, &b_status) == 0;
  if (!a_found && !b_found) {
    return -1;
  }
  return a_found && b_found && a_status.st_dev == b_status.st_dev &&
                 a_status.st_ino == b_status.st_ino
             ? 1
             : 0;
}

// The part of `file` behind `dir` as they stand, or null.
char* part_behind(const char* dir, const char* file) {
  const size_t length = std::strlen(dir);
  if (!gen_absolutefilename(dir) || std::strncmp(dir, file, length) != 0) {
    return nullptr;
  }
  if (dir[length - 1] == '/') {
    return gen_copy(file + length);
  }
  return file[length] == '/' ? gen_copy(file + length + 1) : nullptr;
}

// The home directory that a name beginning with ~ means: of that user, or of the one who runs the
// program. Null if there is none.
gen_ptr<char> home_of(const char* name) {
  const auto length = static_cast<int32_t>(std::strcspn(name + 1, "/"));
  if (length == 0) {
    return gen_ptr<char>(gen_copy(gen_gethomedir()));
  }
  const gen_ptr<char> user(gen_copyn(name + 1, length));
  const struct passwd* const entry = ::getpwnam(user.get());
  return gen_ptr<char>(entry == nullptr ? nullptr : gen_copy(entry->pw_dir));
}

}  // namespace

// ---- Joining.

char* gen_sconcat(const char* dir, const char* name) {
  // The test for ~ comes first, since a name beginning with it counts as absolute elsewhere.
  if (name != nullptr && *name != '~' && gen_absolutefilename(name)) {
    return gen_copy(name);
  }
  if (is_empty(dir)) {
    return gen_copy(name);
  }
  const bool separated = is_empty(name) || dir[std::strlen(dir) - 1] == '/';
  gen_ptr<char> joined(separated ? gen_concat(dir, name) : gen_concat_sep(dir, '/', name));
  gen_canonicalfilename(joined.get());
  return *joined == '\0' ? gen_copy(gen_getdot()) : joined.release();
}

char* gen_dconcat(const char* dir, const char* name) {
  if (is_empty(name)) {
    return gen_copy(dir);
  }
  if (is_empty(dir) || gen_absolutefilename(name)) {
    return gen_copy(name);
  }
  return gen_sconcat(dir, name);
}

char* gen_sconcatf(char* dir, const char* name) {
  const gen_ptr<char> released(dir);
  return gen_sconcat(dir, name);
}

char* gen_dconcatf(char* dir, const char* name) {
  const gen_ptr<char> released(dir);
  return gen_dconcat(dir, name);
}

char* gen_ddconcat(const char* a, const char* b, const char* c) {
  return gen_dconcatf(gen_dconcat(a, b), c);
}

char* gen_dsconcat(const char* a, const char* b, const char* c) {
  return gen_sconcatf(gen_dconcat(a, b), c);
}

char* gen_ddsconcat(const char* a, const char* b, const char* c, const char* d) {
  return gen_sconcatf(gen_ddconcat(a, b, c), d);
}

// ---- Form.

void canonicalizefilename(char* path, uint8_t msw) {
  if (path == nullptr) {
    return;
  }
  char* start = path;
  if (msw != 0) {
    for (char* separator = path; (separator = std::strchr(separator, '\\')) != nullptr;) {
      *separator = '/';
    }
    start = behind_drive_or_server(path);
  }
  if (*start == '/') {
    ++start;  // a leading slash is never removed
  }
  if (!may_need_work(start)) {
    return;
  }
  const bool ended_in_slash = ends_in_slash(start);
  reduce_components(start);
  if (!ended_in_slash && ends_in_slash(start)) {
    start[std::strlen(start) - 1] = '\0';
  }
}

void gen_canonicalfilename(char* path) {
  canonicalizefilename(path, 0);
}

void gen_unix_canonicalfilename(char* path) {
  canonicalizefilename(path, 0);
}

void gen_msw_canonicalfilename(char* path) {
  canonicalizefilename(path, 1);
}

bool gen_absolutefilename(const char* name) {
  return name != nullptr && (*name == '/' || *name == '~');
}

bool gen_absolute_msw_filename(const char* name) {
  if (is_empty(name)) {
    return false;
  }
  return *name == '/' || *name == '\\' || *name == '~' || name[1] == ':';
}

bool gen_is_basename(const char* name) {
  return !is_empty(name) && std::strchr(name, '/') == nullptr;
}

char* gen_realpath(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  const platform_ptr resolved(::realpath(path, nullptr));
  return gen_copy(resolved != nullptr ? resolved.get() : path);
}

char* gen_expand_filename(const char* name) {
  if (is_empty(name)) {
    return gen_copy(name);
  }
  if (*name == '~') {
    gen_ptr<char> home = home_of(name);
    if (home != nullptr) {
      const char* const slash = std::strchr(name, '/');
      const bool alone = slash == nullptr || slash[1] == '\0';
      return canonical(alone ? std::move(home) : gen_ptr<char>(gen_sconcat(home.get(), slash + 1)));
    }
  }
  if (gen_absolutefilename(name)) {
    return canonical(gen_ptr<char>(gen_copy(name)));
  }
  return gen_sconcat(gen_getcwd(), name);
}

char* gen_expand_filename_using_cwd(const char* cwd, const char* name) {
  if (is_empty(name)) {
    return gen_copy(name);
  }
  if (cwd == nullptr || *name == '~') {
    return gen_expand_filename(name);
  }
  if (gen_absolutefilename(name)) {
    return canonical(gen_ptr<char>(gen_copy(name)));
  }
  return gen_sconcat(cwd, name);
}

char* gen_relative_filename(const char* dir, const char* file, uint8_t resolve) {
  if (dir == nullptr || file == nullptr) {
    return nullptr;
  }
  char* const part = part_behind(dir, file);
  if (part != nullptr || resolve == 0) {
    return part;
  }
  const gen_ptr<char> real_dir(gen_realpath(dir));
  const gen_ptr<char> real_file(gen_realpath(file));
  return part_behind(real_dir.get(), real_file.get());
}

bool gen_samefile(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) {
    return false;
  }
  const char* const a_base = gen_basename(a);
  const char* const b_base = gen_basename(b);
  if (*a_base != '\0' && *b_base != '\0' && std::strcmp(a_base, b_base) != 0) {
    return false;
  }
  if (std::strcmp(a, b) == 0) {
    return true;
  }
  int32_t same = compare_identity(a, b);
  if (same < 0) {
    const gen_ptr<char> a_dir(gen_dirname(a));
    const gen_ptr<char> b_dir(gen_dirname(b));
    same = compare_identity(a_dir.get(), b_dir.get());
  }
  if (same < 0) {
    const gen_ptr<char> a_real(gen_realpath(a));
    const gen_ptr<char> b_real(gen_realpath(b));
    return std::strcmp(a_real.get(), b_real.get()) == 0;
  }
  return same != 0;
}

// ---- Current directory and home.

const char* gen_getdot() {
  return ".";
}

const char* gen_getcwd() {
  char* const cwd = state.cached_cwd.data();
  if (*cwd == '\0' && ::getcwd(cwd, kLongestDirectory) == nullptr) {
    *cwd = '\0';  // what a failed call leaves there is open
    const char* const home = gen_gethomedir();
    if (home == nullptr) {
      gen_errorexit(kStatusFailure, "Could not get current working directory.");
    }
    cwd[std::string_view(home).copy(cwd, kLongestDirectory)] = '\0';
  }
  return cwd;
}

void gen_invalidate_cwd() {
  state.cached_cwd[0] = '\0';
}

const char* gen_gethomedir() {
  if (state.homeDir == nullptr) {
    const char* home = gen_getenv("HOME", nullptr);
    if (home == nullptr) {
      const struct passwd* const entry = ::getpwuid(::getuid());
      home = entry == nullptr ? nullptr : entry->pw_dir;
    }
    state.homeDir = gen_copy(home);
  }
  return state.homeDir;
}

const char* gen_getdevice() {
  return nullptr;
}

const char* gen_getdevdot() {
  if (state.devdot == nullptr) {
    state.devdot = gen_concat_sep(gen_getdevice(), ':', gen_getdot());
  }
  return state.devdot;
}

void reset_indgen_path() {
  gen_free(state.homeDir);
  gen_free(state.devdot);
  state = State{};
}

}  // namespace kelvane
