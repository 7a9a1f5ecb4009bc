#include "indgen_tempname.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_path.h"
#include "indgen_process.h"
#include "indgen_string.h"
#include "indgen_tempname_internal.h"
#include "indview.h"
#include "owners.h"
#include "shared_reset.h"

namespace kelvane {

const char* (*gen_temp_dir)(const char* preferred) = gen_default_temp_dir;
int32_t cnt = 0;

namespace {
constexpr std::string_view hexmap = "0123456789abcdefghijklmnopqrstuv";
constexpr char kTemplate[] = "qv_XXXXXXXxxxx.yyy";  // process number, running number, suffix
constexpr size_t kPrefixLength = 3;                 // qv_
constexpr uint32_t kProcessTopBit = 30;
constexpr uint32_t kRunningTopBit = 15;
constexpr int32_t kLastNumber = 0xfffff;
constexpr int kWriteAndSearch = W_OK | X_OK;

struct State {
  char* tmpdir = nullptr;              // the directory chosen last, an owned copy
  const char* file2_in_dir = nullptr;  // directory of the second name, for one call
};
State state;

// The second directory holds for one call, however that call ends.
class SecondDirectoryForOneCall {
 public:
  SecondDirectoryForOneCall() = default;
  ~SecondDirectoryForOneCall() { state.file2_in_dir = nullptr; }
  SecondDirectoryForOneCall(const SecondDirectoryForOneCall&) = delete;
  SecondDirectoryForOneCall& operator=(const SecondDirectoryForOneCall&) = delete;
};

// One of the names that a call is to make.
struct WantedName {
  char* buffer;        // receives the name; null if it is only looked up
  const char* suffix;  // null for none
  bool wanted;
  bool accepted = false;
};

std::string_view without_dot(const char* suffix) {
  std::string_view text = suffix == nullptr ? "" : suffix;
  if (text.starts_with('.')) {
    text.remove_prefix(1);
  }
  return text;
}

// What the names in `directory` begin with: up to the dot if the environment gives their stem, else
// up to the running number.
std::string beginning_of_names(const char* directory, const char* given_stem) {
  if (given_stem != nullptr) {
    const gen_ptr<char> joined(gen_sconcat(directory, given_stem));
    std::string stem = joined.get();
    if (!stem.ends_with('.')) {
      stem += '.';
    }
    return stem;
  }
  const gen_ptr<char> joined(gen_sconcat(directory, kTemplate));
  std::string stem = joined.get();
  stem.resize(stem.size() - std::strlen(kTemplate) + kPrefixLength);
  return stem + base32_digits(static_cast<uint32_t>(::getpid()), kProcessTopBit);
}

// Takes the next running number; false if there is none left.
bool next_number() {
  if (cnt <= kLastNumber) {
    ++cnt;
  }
  return cnt <= kLastNumber;
}

// Tries a name, unless it is not wanted or was accepted earlier. False if it is in use.
bool settle(WantedName* name, const std::string& stem) {
  if (!name->wanted || name->accepted) {
    return true;
  }
  std::string text = stem;
  text += without_dot(name->suffix);
  if (name->buffer != nullptr) {
    std::memcpy(name->buffer, text.c_str(), text.size() + 1);
  }
  name->accepted = !gen_alreadyused(text.c_str());
  return name->accepted;
}

// The work of xxtmp3names. Gives the buffer of the first name, which is made by malloc if it is
// null, or null.
char* make_names(const char* directory, std::array<WantedName, 3> names) {
  const SecondDirectoryForOneCall cleared;
  const char* const given_stem = gen_getenv("BUILDER_TEMPORARY_NAME", nullptr);
  const std::string beginning = beginning_of_names(directory, given_stem);
  const std::string second_beginning = state.file2_in_dir == nullptr
                                           ? beginning
                                           : beginning_of_names(state.file2_in_dir, given_stem);
  platform_ptr made;
  if (names[0].buffer == nullptr) {
    const size_t room = beginning.size() + sizeof kTemplate + without_dot(names[0].suffix).size();
    made.reset(static_cast<char*>(std::malloc(room)));
    if (made == nullptr) {
      gen_out_of_memory(static_cast<uint32_t>(room));
    }
    names[0].buffer = made.get();
  }
  bool settled = false;
  if (given_stem != nullptr) {  // no number to step on, so one round decides
    settled = settle(&names[0], beginning) && settle(&names[1], second_beginning) &&
              settle(&names[2], beginning);
  } else {
    while (!settled && next_number()) {
      const std::string number = base32_digits(static_cast<uint32_t>(cnt), kRunningTopBit) + '.';
      settled = settle(&names[0], beginning + number) &&
                settle(&names[1], second_beginning + number) &&
                settle(&names[2], beginning + number);
    }
    // Where the numbers ran out for a later name, the first one holds all the same.
    settled = names[0].accepted;
  }
  if (!settled) {
    return nullptr;
  }
  static_cast<void>(made.release());  // the caller's from now on
  return names[0].buffer;
}

// Steps a character of a directory name on: a to z, 0 to 9, then a again. True if it began again.
bool step_on(char* character) {
  switch (*character) {
    case 'z':
      *character = '0';
      return false;
    case '9':
      *character = 'a';
      return true;
    default:
      ++*character;
      return false;
  }
}

bool directory_entry_exists(const char* name) {
  struct stat status {};
  return gen_sys_stat(name, &status) == 0;
}

}  // namespace

std::string base32_digits(uint32_t value, uint32_t top_bit) {
  constexpr uint32_t kBitsPerDigit = 5;
  constexpr uint32_t kDigitMask = 0x1f;
  std::string digits;
  for (uint32_t bit = top_bit + kBitsPerDigit; bit >= kBitsPerDigit; bit -= kBitsPerDigit) {
    const uint32_t digit = (value >> (bit - kBitsPerDigit)) & kDigitMask;
    if (digit != 0 || !digits.empty()) {
      digits += hexmap[digit];
    }
  }
  return digits;
}

const char* gen_default_temp_dir(const char* preferred) {
  if (state.tmpdir != nullptr && preferred == nullptr) {
    return state.tmpdir;
  }
  const char* chosen = gen_getenv("TMPDIR", nullptr);
  if (chosen == nullptr || gen_diraccess(chosen, kWriteAndSearch) != 0) {
    if (preferred != nullptr && gen_diraccess(preferred, kWriteAndSearch) == 0) {
      chosen = preferred;
    } else {
      chosen = gen_sys_access("/var/tmp/", kWriteAndSearch) == 0 ? "/var/tmp/" : "/tmp";
    }
  }
  // An equal choice leaves the string alone, since earlier callers may still hold it; and
  // `preferred` may be that string.
  if (state.tmpdir == nullptr || std::strcmp(state.tmpdir, chosen) != 0) {
    char* const copy = gen_copy(chosen);
    gen_free(state.tmpdir);
    state.tmpdir = copy;
  }
  return state.tmpdir;
}

char* xxtmp3names(const char* directory, char* name1, const char* suffix1, char* name2,
                  const char* suffix2, char* name3, const char* suffix3) {
  return make_names(directory,
                    {WantedName{name1, suffix1, true}, WantedName{name2, suffix2, name2 != nullptr},
                     WantedName{name3, suffix3, name3 != nullptr}});
}

char* xtmp3names(const char* preferred, char* name1, const char* suffix1, char* name2,
                 const char* suffix2, char* name3, const char* suffix3) {
  return xxtmp3names(gen_temp_dir(preferred), name1, suffix1, name2, suffix2, name3, suffix3);
}

char* tmp1name(const char* preferred, char* name, const char* suffix) {
  return xtmp3names(preferred, name, suffix, nullptr, nullptr, nullptr, nullptr);
}

char* tmp2name(const char* preferred, char* name, const char* suffix, const char* second_directory,
               const char* second_suffix) {
  const char* const directory = gen_temp_dir(preferred);
  state.file2_in_dir = second_directory;
  return make_names(directory,
                    {WantedName{name, suffix, true}, WantedName{nullptr, second_suffix, true},
                     WantedName{nullptr, nullptr, false}});
}

char* gen_tempname(const char* near, const char* suffix) {
  const gen_ptr<char> beside(gen_dirname(near));
  const char* const directory = near != nullptr ? beside.get() : gen_temp_dir(nullptr);
  return xxtmp3names(directory, nullptr, suffix, nullptr, nullptr, nullptr, nullptr);
}

bool gen_alreadyused(const char* name) {
  if (name == nullptr) {
    return false;
  }
  const int saved = errno;
  struct stat status {};
  const bool found = gen_stat(name, &status) == 0;
  errno = saved;
  return found;
}

int gen_mkstemp(char* name_template) {
  return ::mkstemp(name_template);
}

std::FILE* gen_mkstempfp(char* name_template, const char* mode) {
  const int descriptor = gen_mkstemp(name_template);
  if (descriptor < 0) {
    return nullptr;
  }
  std::FILE* const stream = ::fdopen(descriptor, mode);
  if (stream == nullptr) {
    const int saved = errno;
    ::close(descriptor);
    errno = saved;
  }
  return stream;
}

char* gen_tmpdirname(const char* preferred) {
  constexpr uint32_t kLowHalf = 0xffff;
  std::array<char, sizeof "qvFFFFaa"> name{};
  std::snprintf(name.data(), name.size(), "qv%04Xaa", static_cast<uint32_t>(::getpid()) & kLowHalf);
  gen_ptr<char> path(gen_sconcat(gen_temp_dir(preferred), name.data()));
  char* const last = path.get() + std::strlen(path.get()) - 1;
  char* const before_last = last - 1;
  while (directory_entry_exists(path.get())) {
    const bool last_of_all = *before_last == '9';
    if (step_on(last)) {
      if (last_of_all) {
        return nullptr;
      }
      step_on(before_last);
    }
  }
  return path.release();
}

char* gen_createtmpdir(const char* preferred, mode_t mode) {
  gen_ptr<char> name(gen_tmpdirname(preferred));
  return name != nullptr && gen_mkdir(name.get(), mode) >= 0 ? name.release() : nullptr;
}

void reset_indgen_tempname() {
  gen_temp_dir = gen_default_temp_dir;
  cnt = 0;
  gen_free(state.tmpdir);
  state = State{};
}

}  // namespace kelvane
