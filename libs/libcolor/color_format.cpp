#include "color_format.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "color_reset.h"
#include "indconfig.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_path.h"
#include "indgen_quote.h"
#include "indgen_string.h"
#include "owners.h"

namespace kelvane {

namespace {

constexpr color_configuration kDefaultInfo = {1, -1, -1};
constexpr color_configuration kDefaultWarning = {1, -1, 5};
constexpr color_configuration kDefaultError = {1, -1, 1};
constexpr color_configuration kDefaultBefore = {0, -1, -1};
constexpr color_configuration kDefaultAfter = {1, -1, -1};

}  // namespace

color_configuration color_info_conf = kDefaultInfo;
color_configuration color_warning_conf = kDefaultWarning;
color_configuration color_error_conf = kDefaultError;
color_configuration color_before_conf = kDefaultBefore;
color_configuration color_after_conf = kDefaultAfter;
uint8_t is_tty_stdout = 0;
uint8_t is_tty_stderr = 0;
void (*gen_domessage_orig)(uint32_t code, const char* format, va_list arguments) = nullptr;

namespace {

constexpr size_t kPrefixSize = 15;

struct State {
  color_configuration* chosen_last = nullptr;
  std::array<char, kPrefixSize> prefix{};  // what get_ansi_prefix gave last
};
State state;

constexpr char kEscape = '\x1b';
constexpr size_t kLineSize = 200;  // longer lines arrive in pieces of one byte less
constexpr int32_t kMaxAttribute = 8;
constexpr int32_t kMaxColor = 7;
constexpr int32_t kForegroundBase = 30;
constexpr int32_t kBackgroundBase = 40;
constexpr int32_t kSequenceNumbers = 3;
constexpr int32_t kReadAccess = 4;
constexpr const char* kFileDescription = "configuration file";

struct Section {
  const char* name;
  int32_t type;
  color_configuration* configuration;
};
constexpr std::array<Section, 5> kSections = {{{"INFO", kColorInfo, &color_info_conf},
                                               {"WARNING", kColorWarning, &color_warning_conf},
                                               {"ERROR", kColorError, &color_error_conf},
                                               {"BEFORE", kColorBefore, &color_before_conf},
                                               {"AFTER", kColorAfter, &color_after_conf}}};

struct Field {
  const char* name;
  int32_t color_configuration::*member;
};
constexpr std::array<Field, 3> kFields = {{{"attribute", &color_configuration::attribute},
                                           {"background", &color_configuration::background},
                                           {"foreground", &color_configuration::foreground}}};

color_configuration* configuration_of_type(int32_t type) {
  for (const Section& section : kSections) {
    if (section.type == type) {
      return section.configuration;
    }
  }
  return nullptr;
}

__attribute__((format(printf, 2, 3))) void parse_error(int32_t line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const platform_ptr text(gen_vmsprintf(format, arguments));
  va_end(arguments);
  gen_error("line %d: %s\n", line, text.get());
}

// Cuts white space at the end, and blanks and tabs at the start.
std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
    text.remove_suffix(1);
  }
  while (!text.empty() && gen_isblank(text.front())) {
    text.remove_prefix(1);
  }
  return text;
}

// Reads the lines of a configuration file, one after the other.
class ConfigReader {
 public:
  void read_line(std::string_view text) {
    ++line_;
    const std::string line(trimmed(text));
    if (line.empty() || line.front() == '#') {
      return;
    }
    if (line.front() == '[' && line.back() == ']') {
      read_heading(line.substr(1, line.size() - 2));
    } else {
      read_field(line);
    }
  }

 private:
  void read_heading(const std::string& name) {
    for (const Section& section : kSections) {
      if (gen_strequal(name.c_str(), section.name)) {
        selected_ = section.configuration;
        return;
      }
    }
    parse_error(line_, "invalid heading '%s'", name.c_str());
  }

  void read_field(const std::string& line) {
    if (selected_ == nullptr) {
      parse_error(line_, "no associated section for expresion '%s'", line.c_str());
      return;
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
      parse_error(line_, "expected an '='");
      return;
    }
    const std::string name(trimmed(std::string_view(line).substr(0, equals)));
    const std::string value(trimmed(std::string_view(line).substr(equals + 1)));
    char* end = nullptr;
    const long number = std::strtol(value.c_str(), &end, 0);
    if (*end != '\0') {
      parse_error(line_, "invalid value '%s' for field '%s'", value.c_str(), name.c_str());
      return;
    }
    for (const Field& field : kFields) {
      if (gen_strequal(name.c_str(), field.name)) {
        selected_->*field.member = static_cast<int32_t>(std::clamp<long>(
            number, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
        return;
      }
    }
    parse_error(line_, "invalid field name '%s'", name.c_str());
  }

  int32_t line_ = 0;
  color_configuration* selected_ = nullptr;
};

// Reads the decimal number at `*position` and moves the position behind it. Gives false if there is
// no digit. A number too large for any use is given as some number too large for any use.
bool parse_number(const char** position, int32_t* number) {
  constexpr int32_t kLargest = 1000;
  const char* const start = *position;
  *number = 0;
  for (; **position >= '0' && **position <= '9'; ++*position) {
    *number = std::min(*number * 10 + (**position - '0'), kLargest);
  }
  return *position != start;
}

// Stores a number of a sequence in the field it stands for. Gives false if it stands for none.
bool store_number(int32_t number, color_configuration* configuration) {
  if (number >= 0 && number <= 9) {
    configuration->attribute = number;
  } else if (number >= kForegroundBase && number <= kForegroundBase + 9) {
    configuration->foreground = number - kForegroundBase;
  } else if (number >= kBackgroundBase && number <= kBackgroundBase + 9) {
    configuration->background = number - kBackgroundBase;
  } else {
    return false;
  }
  return true;
}

// Keeps errno over the printing of a sequence, which belongs to somebody else's message.
void print_sequence(const char* sequence) {
  const int reason = errno;
  color_print_string(stderr, sequence);
  errno = reason;
}

bool in_range(int32_t value, int32_t highest) {
  return value >= -1 && value <= highest;
}

}  // namespace

void color_init(const char* config_name, uint8_t force) {
  is_tty_stdout = force != 0 || ::isatty(STDOUT_FILENO) != 0 ? 1 : 0;
  is_tty_stderr = force != 0 || ::isatty(STDERR_FILENO) != 0 ? 1 : 0;
  parse_config_file(config_name);
  gen_domessage_orig = gen_domessage;
  gen_domessage = gen_color_domessage;
}

char* find_config(const char* name, const char* suffix, const char* subdirectory) {
  const auto search = [](const char* candidate) {
    return gen_searchfileinconfigdirs(candidate, kReadAccess, 0, nullptr);
  };
  char* path = search(name);
  if (path != nullptr) {
    return path;
  }
  gen_ptr<char> candidate(gen_copy(name));
  if (!gen_issuffix(candidate.get(), suffix)) {
    candidate.reset(gen_addsuffix(candidate.get(), suffix));
    path = search(candidate.get());
    if (path != nullptr) {
      return path;
    }
  }
  if (subdirectory == nullptr || *subdirectory == '\0') {
    return nullptr;
  }
  candidate.reset(gen_sconcat(subdirectory, candidate.get()));
  return search(candidate.get());
}

void parse_config_file(const char* config_name) {
  const gen_ptr<char> path(
      find_config(config_name == nullptr ? "colors.ini" : config_name, "ini", nullptr));
  if (path == nullptr) {
    return;
  }
  file_ptr stream(gen_safe_fopen(path.get(), kFileDescription, "r"));
  ConfigReader reader;
  std::array<char, kLineSize> line;
  while (std::fgets(line.data(), static_cast<int>(line.size()), stream.get()) != nullptr) {
    reader.read_line(line.data());
  }
  gen_safe_fclose(path.get(), kFileDescription, stream.release());
}

void color_config_type(int32_t type, int32_t attribute, int32_t background, int32_t foreground) {
  color_configuration* const configuration = configuration_of_type(type);
  if (configuration == nullptr) {
    gen_errorexit(1, "invalid type (%d)", type);
  }
  *configuration = {attribute, background, foreground};
}

color_configuration* get_color_conf(int32_t type) {
  if (type == kColorNone) {
    state.chosen_last = nullptr;
  } else if (type != kColorLast) {
    color_configuration* const configuration = configuration_of_type(type);
    if (configuration == nullptr) {
      gen_errorexit(1, "unknown type (%d)", type);
    }
    state.chosen_last = configuration;
  }
  return state.chosen_last;
}

const char* get_ansi_prefix(const color_configuration* configuration) {
  const auto [attribute, background, foreground] = *configuration;
  if (!in_range(attribute, kMaxAttribute) || !in_range(background, kMaxColor) ||
      !in_range(foreground, kMaxColor)) {
    return "";
  }
  std::string numbers;
  const auto append = [&numbers](int32_t base, int32_t value) {
    if (value >= 0) {
      numbers += numbers.empty() ? "" : ";";
      numbers += std::to_string(base + value);
    }
  };
  append(0, attribute);
  append(kForegroundBase, foreground);
  append(kBackgroundBase, background);
  if (numbers.empty()) {
    numbers = "00";
  }
  std::snprintf(state.prefix.data(), state.prefix.size(), "%c[%sm", kEscape, numbers.c_str());
  return state.prefix.data();
}

const char* get_ansi_suffix() {
  return "\x1b[00m";
}

char* color_format_string(int32_t type, const char* text) {
  const color_configuration* const configuration = get_color_conf(type);
  if (configuration == nullptr) {
    return gen_copy(text);
  }
  return gen_concat3(get_ansi_prefix(configuration), text, get_ansi_suffix());
}

int32_t color_print_string(std::FILE* stream, const char* text) {
  const bool plain =
      (stream == stdout && is_tty_stdout == 0) || (stream == stderr && is_tty_stderr == 0);
  if (!plain) {
    return std::fprintf(stream, "%s", text);
  }
  int32_t printed = 0;
  const auto print = [&printed, stream](const char* begin, const char* end) {
    if (begin != end) {
      printed += std::fprintf(stream, "%.*s", static_cast<int>(end - begin), begin);
    }
  };
  const char* unprinted = text;
  const char* position = text;
  while (*position != '\0') {
    const char* const behind = color_parse_ansi(position, nullptr);
    if (behind == nullptr) {
      ++position;
    } else {
      print(unprinted, position);
      unprinted = position = behind;
    }
  }
  print(unprinted, position);
  return printed;
}

void color_print_prefix(std::FILE* stream, int32_t type) {
  const color_configuration* const configuration = get_color_conf(type);
  if (configuration != nullptr) {
    color_print_string(stream, get_ansi_prefix(configuration));
  }
}

void color_print_suffix(std::FILE* stream, int32_t type) {
  if (get_color_conf(type) != nullptr) {
    color_print_string(stream, get_ansi_suffix());
  }
}

int32_t color_fprintf(std::FILE* stream, int32_t type, const char* format, ...) {
  color_print_prefix(stream, type);
  va_list arguments;
  va_start(arguments, format);
  const int32_t printed = std::vfprintf(stream, format, arguments);
  va_end(arguments);
  color_print_suffix(stream, type);
  return printed;
}

const char* color_parse_ansi(const char* text, color_configuration* configuration) {
  if (text[0] != kEscape || text[1] != '[') {
    return nullptr;
  }
  color_configuration fields{};
  if (configuration != nullptr) {
    fields = *configuration;
  }
  const char* position = text + 2;
  for (int32_t numbers = 0; *position != 'm'; ++numbers) {
    if (numbers > 0 && *position++ != ';') {
      return nullptr;
    }
    int32_t number = 0;
    if (numbers == kSequenceNumbers || !parse_number(&position, &number) ||
        !store_number(number, &fields)) {
      return nullptr;
    }
  }
  if (configuration != nullptr) {
    *configuration = fields;
  }
  return position + 1;
}

void gen_color_domessage(uint32_t code, const char* format, va_list arguments) {
  const uint32_t reduced = message_class(code);
  int32_t type = kColorNone;
  if (reduced < kMessageWarning) {
    type = kColorError;
  } else if (reduced == kMessageWarning) {
    type = kColorWarning;
  } else if (reduced < kMessageClasses) {
    type = kColorInfo;
  }
  const color_configuration* const configuration = get_color_conf(type);
  if (configuration != nullptr) {
    print_sequence(get_ansi_prefix(configuration));
  }
  gen_domessage_orig(code, format, arguments);
  if (configuration != nullptr) {
    print_sequence(get_ansi_suffix());
  }
}

void reset_color_format() {
  color_info_conf = kDefaultInfo;
  color_warning_conf = kDefaultWarning;
  color_error_conf = kDefaultError;
  color_before_conf = kDefaultBefore;
  color_after_conf = kDefaultAfter;
  is_tty_stdout = 0;
  is_tty_stderr = 0;
  gen_domessage_orig = nullptr;
  state = State{};
}

}  // namespace kelvane
