#include "indgen_path.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "indgen_memory.h"
#include "indgen_process.h"
#include "indgen_string.h"

// The operations on names that only cut and compare text: components, suffixes, lists, mangling.
namespace kelvane {

namespace {
constexpr char kAnySeparator[] = "/\\:";

// The last character of `path` that is one of `separators`, or null.
const char* last_of(const char* path, const char* separators) {
  const char* last = nullptr;
  for (const char* found = path; (found = std::strpbrk(found, separators)) != nullptr; ++found) {
    last = found;
  }
  return last;
}

// `path` up to `end`.
char* copy_up_to(const char* path, const char* end) {
  return gen_copyn(path, static_cast<int32_t>(end - path));
}

// A suffix as it is stored: without the `.` that it may be given with.
const char* without_dot(const char* suffix) {
  return suffix != nullptr && *suffix == '.' ? suffix + 1 : suffix;
}

bool starts_with(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

gen_ptr<char> canonical_copy(const char* path) {
  gen_ptr<char> copy(gen_copy(path));
  gen_canonicalfilename(copy.get());
  return copy;
}

// Puts a `/` in front of a name that doesn't begin with one.
gen_ptr<char> with_leading_slash(gen_ptr<char> path) {
  return *path == '/' ? std::move(path) : gen_ptr<char>(gen_concat("/", path.get()));
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// "so" or "sa" if `candidate`, the numeric suffix of the last component `base`, is the last part of
// a shared library's version, as in name.so.1.2. Null otherwise.
const char* library_suffix(const char* base, const char* candidate) {
  constexpr std::ptrdiff_t kShortest = 7;  // as in x.so.1.2
  constexpr std::ptrdiff_t kMark = 4;      // as in .so.
  if (candidate - base < kShortest) {
    return nullptr;
  }
  const char* stop = candidate - 2;  // candidate - 1 is the dot in front of it
  while (stop > base && is_digit(*stop)) {
    --stop;
  }
  if (stop - base < kMark) {
    return nullptr;
  }
  const std::string_view mark(stop - kMark + 1, kMark);
  if (mark == ".so.") {
    return "so";
  }
  return mark == ".sa." ? "sa" : nullptr;
}

}  // namespace

// ---- Cutting.

const char* gen_basename(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  const char* const slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

const char* gen_basename_anyhost(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  const char* const separator = last_of(path, kAnySeparator);
  return separator == nullptr ? path : separator + 1;
}

const char* gen_msw_basename(const char* path) {
  return gen_basename_anyhost(path);
}

char* gen_dirname(const char* path) {
  const char* const slash = path == nullptr ? nullptr : std::strrchr(path, '/');
  if (slash == nullptr) {
    return nullptr;
  }
  return copy_up_to(path, slash == path ? slash + 1 : slash);
}

char* gen_dirname_anyhost(const char* path) {
  const char* const separator = path == nullptr ? nullptr : last_of(path, kAnySeparator);
  if (separator == nullptr) {
    return nullptr;
  }
  const bool stays = separator == path || *separator == ':' || separator[-1] == ':';
  return copy_up_to(path, stays ? separator + 1 : separator);
}

char* gen_topdir(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  const char* const first = path + std::strspn(path, "/");
  const char* const end = first + std::strcspn(first, kAnySeparator);
  return copy_up_to(first, *end == ':' ? end + 1 : end);
}

const char* gen_popdir(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  const char* const first = path + std::strspn(path, "/");
  const char* const end = std::strchr(first, '/');
  if (end != nullptr) {
    return end;
  }
  return first == path ? nullptr : first - 1;
}

// ---- Comparing.

bool gen_dirmatch(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) {
    return false;
  }
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  return std::strchr(a, '/') == nullptr && std::strchr(b, '/') == nullptr;
}

bool gen_dir_contains_file(const char* dir, const char* file) {
  if (dir == nullptr || file == nullptr || !starts_with(file, dir)) {
    return false;
  }
  const char* const behind = file + std::strlen(dir);
  return std::strchr(behind + std::strspn(behind, "/"), '/') == nullptr;
}

bool gen_tree_contains_file(const char* dir, const char* file) {
  if (dir == nullptr || file == nullptr || !starts_with(file, dir)) {
    return false;
  }
  const size_t length = std::strlen(dir);
  return file[length] == '/' || (length > 0 && dir[length - 1] == '/');
}

bool gen_isDirSubdirOfDir(const char* sub, const char* dir) {
  if (std::strcmp(sub, dir) == 0) {
    return true;
  }
  const gen_ptr<char> inner = canonical_copy(sub);
  const gen_ptr<char> outer = canonical_copy(dir);
  if (!starts_with(inner.get(), outer.get())) {
    return false;
  }
  const char behind = inner.get()[std::strlen(outer.get())];
  // As it was given: a/. is no longer the name of one character that a is.
  return std::strlen(dir) == 1 || behind == '\0' || behind == '/' || behind == '\\';
}

bool gen_FilenameTailCmp(const char* path, const char* tail, uint8_t case_sensitive) {
  if (path == nullptr || tail == nullptr) {
    return false;
  }
  gen_ptr<char> whole = canonical_copy(path);
  gen_ptr<char> end = canonical_copy(tail);
  const auto too_short = [&] { return std::strlen(whole.get()) < std::strlen(end.get()); };
  if (too_short()) {
    return false;
  }
  // With a slash in front of both, a match of the last characters is one of whole components.
  whole = with_leading_slash(std::move(whole));
  end = with_leading_slash(std::move(end));
  if (too_short()) {
    return false;
  }
  const char* const last = whole.get() + std::strlen(whole.get()) - std::strlen(end.get());
  return case_sensitive != 0 ? std::strcmp(last, end.get()) == 0 : gen_strequal(last, end.get());
}

// ---- Suffixes.

const char* gen_getsuffix(const char* name) {
  const char* const base = gen_basename(name);
  const char* const dot = base == nullptr ? nullptr : std::strrchr(base, '.');
  if (dot == nullptr) {
    return nullptr;
  }
  const char* const library = is_digit(dot[1]) ? library_suffix(base, dot + 1) : nullptr;
  return library != nullptr ? library : dot + 1;
}

bool gen_issuffix(const char* name, const char* suffix) {
  const char* const own = gen_getsuffix(name);
  return own != nullptr && (suffix == nullptr || std::strcmp(own, without_dot(suffix)) == 0);
}

char* gen_changesuffix(const char* name, const char* suffix) {
  if (name == nullptr) {
    return gen_copy(without_dot(suffix));
  }
  const char* const base = gen_basename(name);
  const gen_ptr<char> stem(copy_up_to(name, base + gen_basenamelen(base)));
  return gen_addsuffix(stem.get(), suffix);
}

char* gen_addsuffix(const char* name, const char* suffix) {
  if (name == nullptr || suffix == nullptr) {
    return gen_copy(name == nullptr ? without_dot(suffix) : name);
  }
  return gen_concat3(name, Dot, without_dot(suffix));
}

int32_t gen_basenamelen(const char* name) {
  if (name == nullptr) {
    return 0;
  }
  const char* const dot = std::strrchr(name, '.');
  return static_cast<int32_t>(dot == nullptr ? std::strlen(name) : static_cast<size_t>(dot - name));
}

bool gen_basenamematch(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) {
    return false;
  }
  const char* const a_base = gen_basename(a);
  const char* const b_base = gen_basename(b);
  const int32_t length = gen_basenamelen(a_base);
  return length == gen_basenamelen(b_base) &&
         std::strncmp(a_base, b_base, static_cast<size_t>(length)) == 0;
}

char* gen_makeshort(const char* name, const char* suffix) {
  return gen_changesuffix(gen_basename(name), suffix);
}

char* gen_changedirandsuffix(const char* dir, const char* name, const char* insert,
                             const char* suffix) {
  if (name == nullptr) {
    return gen_sconcat(dir, without_dot(suffix));
  }
  const char* const base = gen_basename(name);
  const gen_ptr<char> stem(gen_copyn(base, gen_basenamelen(base)));
  const bool in_directory = dir != nullptr && *dir != '\0';
  const gen_ptr<char> product(
      gen_concat4(in_directory ? dir : nullptr, in_directory ? "/" : nullptr, stem.get(), insert));
  gen_ptr<char> whole(gen_addsuffix(product.get(), suffix));
  if (dir != nullptr) {
    gen_canonicalfilename(whole.get());
  }
  return whole.release();
}

char* gen_symfilename(const char* name) {
  return name == nullptr ? nullptr : gen_addsuffix(name, gen_getenv("TARVOSYM", ".sym"));
}

// ---- Lists.

const char* gen_getpath(const char* list, char* buffer, int32_t size) {
  if (list == nullptr) {
    return nullptr;
  }
  const char* const element = list + std::strspn(list, ":");
  const size_t length = std::strcspn(element, ":");
  const size_t kept = std::min(length, static_cast<size_t>(std::max(size, 0)));
  std::memcpy(buffer, element, kept);
  buffer[kept] = '\0';
  return length == 0 ? nullptr : element + length;
}

namespace {

// True if the name in use lies in the current directory, or is it.
bool names_current_directory(const char* in_use) {
  if (in_use == nullptr || *in_use == '\0' || std::strcmp(in_use, gen_getdot()) == 0) {
    return true;
  }
  const gen_ptr<char> directory(gen_dirname(in_use));
  return directory != nullptr && std::strcmp(directory.get(), gen_getdot()) == 0;
}

}  // namespace

const char* gen_addpath(const char* path, char** current) {
  if (path == nullptr) {
    return nullptr;
  }
  const char* const in_use = *current;
  if (gen_dirmatch(path, in_use)) {
    return gen_basename(path);
  }
  char* next = nullptr;
  if (gen_dirmatch(path, "")) {
    if (names_current_directory(in_use)) {
      return path;
    }
    next = gen_sconcat(gen_getdevdot(), path);
  } else {
    next = gen_copy(path);
  }
  gen_free(*current);
  *current = next;
  return next;
}

// ---- Mangling.

char* gen_manglefilename(const char* name) {
  constexpr int32_t kLength = 64;
  return gen_manglefilename_length(name, kLength, 1);
}

char* gen_manglefilename_length(const char* name, int32_t length, uint8_t hash_kept_text) {
  constexpr int32_t kHashAndTerminator = 9;
  if (name == nullptr || length <= kHashAndTerminator) {
    return nullptr;
  }
  const size_t whole = std::strlen(name);
  const size_t kept = std::min(whole, static_cast<size_t>(length - kHashAndTerminator));
  const char* const kept_text = name + (whole - kept);
  const uint32_t hash = gen_manglefilename_hashfunc(hash_kept_text != 0 ? kept_text : name);
  char* const mangled = gen_alloc_array<char>(static_cast<uint32_t>(length));
  std::snprintf(mangled, static_cast<size_t>(length), "%08x%s", hash, kept_text);
  for (char* found = mangled; (found = std::strpbrk(found, kAnySeparator)) != nullptr;) {
    *found = '@';
  }
  return mangled;
}

uint32_t gen_manglefilename_hashfunc(const char* text) {
  constexpr uint32_t kRotation = 7;
  constexpr uint32_t kWordBits = 32;
  uint32_t hash = 0;
  for (; text != nullptr && *text != '\0'; ++text) {
    hash = (hash << kRotation) | (hash >> (kWordBits - kRotation));
    hash ^= static_cast<uint8_t>(*text);
  }
  return hash;
}

}  // namespace kelvane
