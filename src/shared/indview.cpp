#include "indview.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_path.h"
#include "indgen_process.h"
#include "indgen_string.h"
#include "indview_internal.h"
#include "shared_reset.h"

// The viewpath brought up and taken down, and names in it.
namespace kelvane {

namespace {

constexpr int32_t kModeOff = 0;
constexpr int32_t kModeSlow = 1;
constexpr int32_t kModeFast = 2;

constexpr int32_t kWrcopyAtStart = 1;   // SLOW
constexpr int32_t kChangedAtStart = 1;  // the list is yet to be read

constexpr int32_t kIgnoreAlternateRoot = 1;  // bit of V_xsw_flags

constexpr const char* kVpathVariable = "NVPATH";
constexpr const char* kDebugVariable = "QVR_VP_DEBUG";
constexpr const char* kOffVariable = "QVR_VP_OFF";
constexpr const char* kSlowVariable = "QVR_VP_SLOW";
constexpr const char* kXswVariable = "QVR_VP_XSW";

constexpr const char* kNodeSeparators = ":;";

}  // namespace

int32_t V_flag = 0;
int32_t V_debug_info = 0;
int32_t V_xsw_flags = 0;
int32_t V_wrcopy = kWrcopyAtStart;
int32_t V_wrstat = 0;
int32_t V_changed = kChangedAtStart;
int32_t V_ndir = 0;
int32_t V_node = 0;
char** V_nodes = nullptr;
char* V_root = nullptr;
char* V_alt_root = nullptr;
char* V_cwd = nullptr;
std::array<char, kViewpathTextSize> Viewpath{};
std::array<char, kViewpathTextSize> V_pathname{};
const char* V_vpath_variable = kVpathVariable;
const char* V_debug_variable = kDebugVariable;
const char* V_off_variable = kOffVariable;
const char* V_slow_variable = kSlowVariable;
const char* V_xsw_variable = kXswVariable;

namespace {

// Puts `value`, which is taken over, in the place of an owned string.
void replace(char** owned, char* value) {
  gen_free(*owned);
  *owned = value;
}

void release_nodes() {
  if (V_nodes != nullptr) {
    for (; V_ndir > 0; --V_ndir) {
      gen_free(V_nodes[V_ndir - 1]);
    }
    gen_free(V_nodes);
    V_nodes = nullptr;
  }
  V_ndir = 0;
}

bool is_set(const char* variable) {
  return gen_getenv(variable, nullptr) != nullptr;
}

// Puts the text of the list into Viewpath, with the elements that don't fit whole left out.
void store_viewpath_text(std::string_view text) {
  constexpr size_t kRoom = kViewpathTextSize - 1;
  size_t kept = text.size();
  if (kept > kRoom) {
    const size_t separator = text.find_last_of(kNodeSeparators, kRoom);
    kept = separator == std::string_view::npos ? 0 : separator;
    std::string_view left_out = text;
    left_out.remove_prefix(separator == std::string_view::npos ? 0 : separator + 1);
    if (!left_out.empty()) {
      const std::string element(left_out.substr(0, left_out.find_first_of(kNodeSeparators)));
      gen_warning("V_get_vpath:  viewpath is too long, ignoring '%s'", element.c_str());
    }
  }
  text.copy(Viewpath.data(), kept);
  Viewpath[kept] = '\0';
}

// Makes one element of the list the next node.
void add_node(const char* element) {
  std::array<char, PATH_MAX> resolved{};
  if (::realpath(element, resolved.data()) == nullptr) {
    gen_warning("V_get_vpath:  Cannot resolve vpath node '%s', error near '%s'", element,
                resolved[0] != '\0' ? resolved.data() : element);
    return;
  }
  V_nodes[V_ndir] = gen_copy(resolved.data());
  ++V_ndir;
  if (V_debug_info != 0) {
    gen_info("Adding viewpath node %d: %s", V_ndir, resolved.data());
  }
}

// Sets the root and its alternate spelling from the first node and the element just read.
void set_root(const char* element) {
  replace(&V_root, gen_copy(V_nodes[0]));
  replace(&V_alt_root, nullptr);
  if (!gen_absolutefilename(element) || std::strcmp(element, V_root) == 0) {
    return;
  }
  const bool ignored = (V_xsw_flags & kIgnoreAlternateRoot) != 0;
  if (!ignored) {
    V_alt_root = gen_copy(element);
  }
  if (V_debug_info != 0) {
    gen_info(ignored ? "Ignoring alternate root: %s" : "Using alternate root: %s", element);
  }
}

// Gives the part of `path` below `node`, or null. A node itself is not below it.
const char* part_below(const char* path, const char* node) {
  if (!gen_strprefix(path, node)) {
    return nullptr;
  }
  const size_t length = std::strlen(node);
  if (path[length] == '/') {
    return path + length + 1;
  }
  return length > 0 && node[length - 1] == '/' ? path + length : nullptr;
}

// Takes what the variables of the environment say of `mode`.
int32_t mode_after_switches(int32_t mode) {
  if (const char* const value = gen_getenv(V_xsw_variable, nullptr); value != nullptr) {
    constexpr int kDecimal = 10;
    V_xsw_flags = static_cast<int32_t>(std::strtol(value, nullptr, kDecimal));
  }
  if (is_set(V_debug_variable)) {
    V_debug_info = 1;
  }
  if (mode != kModeOff && is_set(V_off_variable)) {
    mode = kModeOff;
    if (V_debug_info != 0) {
      gen_info("Disabling viewpathing mode \n\tbecause environment variable (%s) is set.",
               V_off_variable);
    }
  }
  if (mode == kModeFast && is_set(V_slow_variable)) {
    mode = kModeSlow;
    if (V_debug_info != 0) {
      gen_info("Disabling FAST viewpathing mode \n\tbecause environment variable (%s) is set.",
               V_slow_variable);
    }
  }
  return mode;
}

}  // namespace

platform_ptr resolve_name(const char* name) {
  return platform_ptr(::realpath(name, nullptr));
}

bool lies_under_root(const char* path, const char* root) {
  if (!gen_strprefix(path, root)) {
    return false;
  }
  const char next = path[std::strlen(root)];
  return next == '\0' || next == '/';
}

const char* rest_behind_root(const char* path, size_t length) {
  const char* rest = path + length;
  while (*rest == '/') {
    ++rest;
  }
  return *rest == '\0' ? "." : rest;
}

char* read_current_directory() {
  const platform_ptr directory(::getcwd(nullptr, kViewpathTextSize));
  return gen_copy(directory.get());
}

gen_ptr<char> expand_root_relative(const char* name) {
  if (name != nullptr && *name == '^' && gen_isviewpathing()) {
    if (name[1] == '\0') {
      return gen_ptr<char>(gen_copy(V_nodes[0]));
    }
    if (name[1] == '/') {
      constexpr int kMarkLength = 2;
      return gen_ptr<char>(gen_sconcat(V_nodes[0], name + kMarkLength));
    }
  }
  return gen_ptr<char>(gen_copy(name));
}

void gen_viewpathing_init(int32_t mode) {
  mode = mode_after_switches(mode);
  if (mode != kModeSlow && mode != kModeFast) {
    if (mode != kModeOff) {
      gen_error("Illegal viewpath option passed to gen_viewpathing");
    }
    if (V_debug_info != 0) {
      gen_info("Viewpathing support is OFF.");
    }
    gen_viewpathing_cleanup();
    return;
  }
  if (V_debug_info != 0) {
    gen_info(mode == kModeSlow ? "Viewpathing support is ON (SLOW)."
                               : "Viewpathing support is ON (FAST).");
  }
  V_wrcopy = mode == kModeSlow ? 1 : 0;
  if (V_flag != 0) {
    return;
  }
  const int saved_errno = errno;
  V_get_vpath();
  if (V_ndir > 0) {
    replace(&V_cwd, read_current_directory());
    V_flag = 1;
  }
  errno = saved_errno;
}

void V_get_vpath() {
  if (V_changed == 0) {
    return;
  }
  V_changed = 0;
  release_nodes();
  replace(&V_root, nullptr);
  replace(&V_alt_root, nullptr);
  const char* const list = gen_getviewpathenv();
  if (list == nullptr) {
    return;
  }
  store_viewpath_text(list);
  V_nodes = gen_alloc_array<char*>(kMaxViewpathNodes);
  char* element = Viewpath.data();
  while (*element != '\0' && V_ndir < kMaxViewpathNodes) {
    char* const end = element + std::strcspn(element, kNodeSeparators);
    char* const next = *end == '\0' ? end : end + 1;
    *end = '\0';
    add_node(element);
    if (V_ndir == 1) {
      set_root(element);
    }
    element = next;
  }
}

void gen_viewpathing_cleanup() {
  if (V_flag == 0) {
    return;
  }
  release_nodes();
  replace(&V_cwd, nullptr);
  replace(&V_root, nullptr);
  replace(&V_alt_root, nullptr);
  V_flag = 0;
}

bool gen_isviewpathing() {
  return V_flag != 0 && V_ndir > 0;
}

const char* gen_getviewpathenv() {
  return gen_getenv(V_vpath_variable, nullptr);
}

char** gen_getviewpathnodes(int32_t* count) {
  gen_error("[gen_getviewpathnodes]: not implemented");
  if (count != nullptr) {
    *count = 0;
  }
  return nullptr;
}

char* V_getrel(const char* path) {
  if (path == nullptr || V_ndir < 1) {
    return nullptr;
  }
  gen_ptr<char> joined;
  if (*path != '/') {
    if (V_cwd == nullptr) {
      return nullptr;
    }
    joined.reset(V_compath(gen_sconcat(V_cwd, path)));
    path = joined.get();
  }
  for (const char* const root : {V_nodes[0], V_alt_root}) {
    if (root != nullptr && lies_under_root(path, root)) {
      return gen_copy(rest_behind_root(path, std::strlen(root)));
    }
  }
  return nullptr;
}

char* gen_viewpathfilename(const char* name, int32_t mode) {
  constexpr int32_t kForReading = 0;
  constexpr int32_t kForWritingWithCopy = 1;
  constexpr int32_t kForWriting = 2;
  if (name == nullptr || !gen_isviewpathing()) {
    return gen_copy(name);
  }
  gen_ptr<char> path = expand_root_relative(name);
  if (mode == kForWriting || ::access(path.get(), F_OK) == 0) {
    return path.release();
  }
  if (mode == kForWritingWithCopy) {
    V_getf(path.get());
  }
  if (mode != kForReading) {
    return path.release();
  }
  const gen_ptr<char> relative(V_getrel(path.get()));
  if (relative == nullptr) {
    return path.release();
  }
  for (int32_t node = 1; node < V_ndir; ++node) {
    path.reset(gen_sconcat(V_nodes[node], relative.get()));
    // A candidate that is there but can't be reached ends the search too: the open that follows
    // then fails with the true reason.
    if (::access(path.get(), F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR)) {
      if (V_debug_info != 0) {
        gen_info("Located file: %s", path.get());
      }
      break;
    }
  }
  return path.release();
}

char* gen_viewpathlocalname(const char* path) {
  const platform_ptr resolved = resolve_name(path);
  if (resolved == nullptr) {
    return gen_copy(path);
  }
  for (int32_t node = 0; node < V_ndir; ++node) {
    if (const char* const rest = part_below(resolved.get(), V_nodes[node]); rest != nullptr) {
      return node == 0 ? gen_copy(resolved.get()) : gen_sconcat(V_nodes[0], rest);
    }
  }
  return nullptr;
}

char* gen_viewpathnextname(const char* path) {
  const platform_ptr resolved = resolve_name(path);
  if (resolved == nullptr) {
    return nullptr;
  }
  for (int32_t node = 0; node + 1 < V_ndir; ++node) {
    if (const char* const rest = part_below(resolved.get(), V_nodes[node]); rest != nullptr) {
      gen_ptr<char> next(gen_sconcat(V_nodes[node + 1], rest));
      if (::access(next.get(), F_OK) == 0) {
        return next.release();
      }
    }
  }
  return nullptr;
}

void reset_indview() {
  gen_sourceroot_cleanup();
  allow_fake_roots = 0;
  use_vp_as_src_root = 0;
  release_nodes();
  for (char** const owned : {&V_root, &V_alt_root, &V_cwd}) {
    replace(owned, nullptr);
  }
  V_flag = 0;
  V_debug_info = 0;
  V_xsw_flags = 0;
  V_wrcopy = kWrcopyAtStart;
  V_wrstat = 0;
  V_changed = kChangedAtStart;
  V_node = 0;
  Viewpath.fill('\0');
  V_pathname.fill('\0');
  V_vpath_variable = kVpathVariable;
  V_debug_variable = kDebugVariable;
  V_off_variable = kOffVariable;
  V_slow_variable = kSlowVariable;
  V_xsw_variable = kXswVariable;
}

}  // namespace kelvane
