#include "indview.h"

#include <cstring>
#include <string>
#include <string_view>

#include "indgen_memory.h"
#include "indgen_path.h"
#include "indgen_string.h"
#include "indview_internal.h"

// Source roots: file names made relative to the first of several directories that holds them.
namespace kelvane {

char** sourceroots = nullptr;
char** alt_sourceroots = nullptr;
int32_t nsourceroots = 0;
uint8_t allow_fake_roots = 0;
uint8_t use_vp_as_src_root = 0;

namespace {

bool is_slash(char c) {
  return c == '/' || c == '\\';
}

// Takes the next root off the front of `list`, with the separator behind it.
std::string take_root(std::string_view* list) {
  constexpr size_t kDriveLength = 3;  // as in "c:/"
  const bool has_drive = list->size() >= kDriveLength && gen_isalnum((*list)[0]) &&
                         (*list)[1] == ':' && is_slash((*list)[2]);
  const size_t end = list->find_first_of(":;,", has_drive ? kDriveLength : 0);
  std::string root(list->substr(0, end));
  list->remove_prefix(end == std::string_view::npos ? list->size() : end + 1);
  while (root.size() > 1 && is_slash(root.back())) {
    root.pop_back();
  }
  return root;
}

void add_root(const std::string& root) {
  const platform_ptr resolved = resolve_name(root.c_str());
  if (resolved == nullptr) {
    allow_fake_roots = 1;
  }
  char* const stored = gen_copy(resolved != nullptr ? resolved.get() : root.c_str());
  sourceroots[nsourceroots] = stored;
  const bool is_other_spelling = gen_absolutefilename(root.c_str()) && root != stored;
  alt_sourceroots[nsourceroots] = is_other_spelling ? gen_copy(root.c_str()) : nullptr;
  ++nsourceroots;
}

void release_roots(char*** roots) {
  if (*roots == nullptr) {
    return;
  }
  for (int32_t root = 0; root < nsourceroots; ++root) {
    gen_free((*roots)[root]);
  }
  gen_free(*roots);
  *roots = nullptr;
}

}  // namespace

int32_t gen_sourceroot_init(const char* list) {
  if (list == nullptr || *list == '\0') {
    return 0;
  }
  const std::string text = list;  // the caller's list may be one of the roots that go now
  gen_sourceroot_cleanup();
  sourceroots = gen_alloc_array<char*>(kMaxSourceRoots + 1);
  alt_sourceroots = gen_alloc_array<char*>(kMaxSourceRoots + 1);
  allow_fake_roots = 0;
  std::string_view rest = text;
  while (!rest.empty() && nsourceroots < kMaxSourceRoots) {
    add_root(take_root(&rest));
  }
  return nsourceroots;
}

void gen_sourceroot_initfromviewpath() {
  use_vp_as_src_root = 1;
}

void gen_sourceroot_cleanup() {
  release_roots(&sourceroots);
  release_roots(&alt_sourceroots);
  nsourceroots = 0;
}

char* gen_sourceroot_getrelname(const char* name, int32_t* index) {
  if (index != nullptr) {
    *index = -1;
  }
  if (name == nullptr) {
    return nullptr;
  }
  if (use_vp_as_src_root != 0 && V_flag != 0) {
    if (index != nullptr) {
      *index = 0;
    }
    return V_getrel(name);
  }
  if (nsourceroots == 0) {
    return nullptr;
  }
  return gen_get_relative(sourceroots, alt_sourceroots, nsourceroots, name, index);
}

int32_t gen_sourceroot_getroots(char*** roots, char*** alt_roots) {
  if (roots != nullptr) {
    *roots = sourceroots;
  }
  if (alt_roots != nullptr) {
    *alt_roots = alt_sourceroots;
  }
  return nsourceroots;
}

char* get_relative_from_node(const char* node, const char* name) {
  if (node == nullptr || !gen_strprefix(name, node)) {
    return nullptr;
  }
  const char* rest = name + std::strlen(node);
  if (*rest != '\0' && !is_slash(*rest)) {
    return nullptr;
  }
  while (is_slash(*rest)) {
    ++rest;
  }
  return gen_copy(*rest != '\0' ? rest : gen_getdot());
}

char* gen_get_relative(char* const* roots, char* const* alt_roots, int32_t count, const char* name,
                       int32_t* index) {
  if (index != nullptr) {
    *index = -1;
  }
  if (name == nullptr) {
    return nullptr;
  }
  gen_ptr<char> joined;
  if (allow_fake_roots == 0 && !gen_absolutefilename(name)) {
    joined.reset(gen_sconcat(gen_getcwd(), name));
    name = joined.get();
  }
  for (int32_t root = 0; root < count; ++root) {
    char* relative = get_relative_from_node(roots[root], name);
    if (relative == nullptr && alt_roots != nullptr) {
      relative = get_relative_from_node(alt_roots[root], name);
    }
    if (relative != nullptr) {
      if (index != nullptr) {
        *index = root;
      }
      return relative;
    }
  }
  return nullptr;
}

}  // namespace kelvane
