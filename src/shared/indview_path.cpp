#include "indview_internal.h"

#include <cstdarg>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "exit_status.h"
#include "indgen_message.h"

// Compression of paths as text.
namespace kelvane {

namespace {

// Takes the components of a path from left to right; repeated slashes separate as one does.
class ComponentReader {
 public:
  explicit ComponentReader(std::string_view path) : rest_(path) { skip_slashes(); }
  bool at_end() const { return rest_.empty(); }
  std::string_view next() {
    const std::string_view component = rest_.substr(0, rest_.find('/'));
    rest_.remove_prefix(component.size());
    skip_slashes();
    return component;
  }

 private:
  void skip_slashes() {
    while (!rest_.empty() && rest_.front() == '/') {
      rest_.remove_prefix(1);
    }
  }
  std::string_view rest_;
};

// Writes the components over `path`, which the result is never longer than unless both are empty.
char* store(char* path, bool absolute, const std::vector<std::string_view>& components) {
  std::string result(absolute ? "/" : "");
  for (const std::string_view component : components) {
    result.append(component).append("/");
  }
  if (!components.empty()) {
    result.pop_back();
  }
  if (result.empty()) {
    result = ".";
  }
  std::memcpy(path, result.c_str(), result.size() + 1);
  return path;
}

}  // namespace

char* V_compath(char* path) {
  const bool absolute = *path == '/';
  std::vector<std::string_view> kept;
  ComponentReader reader(path);
  for (int32_t count = 1; !reader.at_end(); ++count) {
    if (count > kMaxPathComponents) {
      gen_error("[V_compath]: too many directory components for \"%s\"", path);
      break;
    }
    const std::string_view component = reader.next();
    if (component == ".") {
      continue;
    }
    if (component == ".." && !kept.empty() && kept.back() != "..") {
      kept.pop_back();
    } else {
      kept.push_back(component);
    }
  }
  return store(path, absolute, kept);
}

char* V2_compath(char* path) {
  if (*path != '/') {
    gen_perrorexit(kStatusFailure,
                   "INTERNAL ERROR: libvp: chdir: compath2: (1) [%s] not absolute path", path);
  }
  std::vector<std::string_view> kept;
  bool dots_seen = false;  // a "." or ".." has been resolved
  bool verbatim = false;   // an ordinary component followed it: all that comes is copied
  ComponentReader reader(path);
  for (int32_t count = 1; !reader.at_end(); ++count) {
    if (count > kMaxPathComponents) {
      gen_error("[V2_compath]: too many directory components for \"%s\"", path);
      break;
    }
    const std::string_view component = reader.next();
    if (!verbatim && (component == "." || component == "..")) {
      dots_seen = true;
      if (component == ".." && !kept.empty()) {
        kept.pop_back();
      }
      continue;
    }
    verbatim = dots_seen;
    kept.push_back(component);
  }
  return store(path, true, kept);
}

void V_cat(char* buffer, const char* first, ...) {
  va_list strings;
  va_start(strings, first);
  *buffer = '\0';
  for (const char* string = first; string != nullptr; string = va_arg(strings, const char*)) {
    const size_t length = std::strlen(string);
    std::memcpy(buffer, string, length + 1);
    buffer += length;
  }
  va_end(strings);
}

}  // namespace kelvane
