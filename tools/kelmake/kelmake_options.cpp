#include "kelmake_options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <thread>

namespace kelmake {
namespace {

using kelvane::ByteOrder;
using kelvane::patch_profile;
using kelvane::plan_effort;

[[noreturn]] void usage_error(const std::string& text) {
  throw UsageError{"error: " + text + " (see kelmake --help)"};
}

template <typename Value>
struct Named {
  const char* name;
  Value value;
};

constexpr std::array<Named<patch_profile>, 3> kProfiles = {{
    {"any", patch_profile::any},
    {"wide", patch_profile::wide},
    {"libapply", patch_profile::libapply},
}};
constexpr std::array<Named<plan_effort>, 3> kEfforts = {{
    {"quick", plan_effort::quick},
    {"normal", plan_effort::normal},
    {"best", plan_effort::best},
}};

template <typename Value, size_t count>
Value value_named(const std::array<Named<Value>, count>& table, const char* what,
                  const std::string& word) {
  for (const Named<Value>& row : table) {
    if (word == row.name) {
      return row.value;
    }
  }
  usage_error(std::string("unknown ") + what + " '" + word + "'");
}

template <typename Value, size_t count>
const char* name_in(const std::array<Named<Value>, count>& table, Value value) {
  return std::find_if(table.begin(), table.end(),
                      [&](const Named<Value>& row) { return row.value == value; })
      ->name;
}

// A number from `least` to `most`, written with digits only.
uint32_t number_of(const std::string& option, const std::string& word, uint32_t least,
                   uint32_t most) {
  uint32_t number = 0;
  const char* const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, number);
  if (error != std::errc() || stop != end || number < least || number > most) {
    usage_error("option '" + option + "' takes a number from " + std::to_string(least) + " to " +
                std::to_string(most) + ", not '" + word + "'");
  }
  return number;
}

uint32_t default_jobs() {
  return std::clamp(std::thread::hardware_concurrency(), 1U, 64U);
}

// Takes an option of memory mode; gives false for any other.
template <typename GetValue>
bool take_memory_option(Options& options, const std::string& argument, const std::string& name,
                        const GetValue& value) {
  if (argument == "--ram") {
    options.ram = true;
  } else if (name == "--exclude") {
    options.exclude_name = value();
  } else if (name == "--alias") {
    options.aliases.push_back(value());
  } else {
    return false;
  }
  return true;
}

void check_memory_options(const Options& options) {
  if (!options.ram && (!options.exclude_name.empty() || !options.aliases.empty())) {
    usage_error("'--exclude' and '--alias' are for '--ram'");
  }
  if (options.ram && options.order) {
    usage_error("with '--ram' the images tell the byte order");
  }
}

}  // namespace

const char* help_text() {
  return "usage: kelmake [options] OLD NEW -o PATCH\n"
         "\n"
         "Writes the smallest patch that it finds from the file OLD to the file NEW. The\n"
         "patch is applied in memory and compared with NEW before it is written.\n"
         "\n"
         "  -o, --output PATCH   the file to write\n"
         "  --effort LEVEL       quick, normal (the default) or best\n"
         "  --time SECONDS       begins no further plan after so long; the patch then\n"
         "                       depends on the speed of the machine\n"
         "  --jobs N             plans at the same time; by default the processors. The\n"
         "                       patch is the same for any number\n"
         "  --profile NAME       any: for every applier of this format;\n"
         "                       wide: with more than 20 classes of increments (the default);\n"
         "                       libapply: with all that libapply takes\n"
         "  --format 0|1         format of the patch, 1 by default\n"
         "  --ram                OLD and NEW are ELF images: compares their sections at their\n"
         "                       addresses in the target's memory\n"
         "  --exclude FILE       leaves out the sections that FILE names, with --ram\n"
         "  --alias ADDRESS:MASK a memory region with two addresses, with --ram; may be given\n"
         "                       repeatedly\n"
         "  --big-endian         byte order of the target's words; by default the one that\n"
         "  --little-endian      gives the smaller patch\n"
         "  --report FILE        writes what was found to FILE, as JSON\n"
         "  -q, --quiet          prints nothing but errors\n"
         "  --help               prints this text\n"
         "  --version            prints the version\n"
         "\n"
         "Exit status: 0 if the patch was written, 1 for trouble, 2 for wrong usage.\n";
}

const char* name_of(patch_profile profile) {
  return name_in(kProfiles, profile);
}
const char* name_of(plan_effort effort) {
  return name_in(kEfforts, effort);
}
const char* name_of(ByteOrder order) {
  return order == ByteOrder::kBig ? "big-endian" : "little-endian";
}

Options parse_options(const std::vector<std::string>& arguments) {
  Options options;
  options.jobs = default_jobs();
  std::vector<std::string> operands;
  bool only_operands = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (only_operands || argument.size() < 2 || argument[0] != '-') {
      operands.push_back(argument);
      continue;
    }
    // A long option has its value behind '=' or in the next argument.
    const size_t equals = argument.starts_with("--") ? argument.find('=') : std::string::npos;
    const std::string name = argument.substr(0, equals);
    const auto value = [&]() -> std::string {
      if (equals != std::string::npos) {
        return argument.substr(equals + 1);
      }
      if (i + 1 == arguments.size()) {
        usage_error("option '" + name + "' requires an argument");
      }
      return arguments[++i];
    };
    if (name == "-o" || name == "--output") {
      options.patch_name = value();
    } else if (name == "--effort") {
      options.effort = value_named(kEfforts, "effort", value());
    } else if (name == "--time") {
      options.seconds = number_of(name, value(), 1, 1000000);
    } else if (name == "--jobs") {
      options.jobs = number_of(name, value(), 1, 1024);
    } else if (name == "--profile") {
      options.profile = value_named(kProfiles, "profile", value());
    } else if (name == "--format") {
      options.format = static_cast<uint8_t>(number_of(name, value(), 0, 1));
    } else if (name == "--report") {
      options.report_name = value();
    } else if (argument == "--big-endian") {
      options.order = ByteOrder::kBig;
    } else if (argument == "--little-endian") {
      options.order = ByteOrder::kLittle;
    } else if (argument == "-q" || argument == "--quiet") {
      options.quiet = true;
    } else if (argument == "--help") {
      options.help = true;
    } else if (argument == "--version") {
      options.version = true;
    } else if (argument == "--") {
      only_operands = true;
    } else if (!take_memory_option(options, argument, name, value)) {
      usage_error("unknown option '" + argument + "'");
    }
  }
  if (options.help || options.version) {
    return options;
  }
  if (operands.size() != 2) {
    usage_error("two files are to be compared");
  }
  if (options.patch_name.empty()) {
    usage_error("the option '-o' has to name the patch");
  }
  check_memory_options(options);
  options.old_name = operands[0];
  options.new_name = operands[1];
  return options;
}

}  // namespace kelmake
