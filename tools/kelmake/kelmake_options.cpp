#include "kelmake_options.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <string_view>
#include <thread>

#include "dense_decoder.h"

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

constexpr std::array<Named<uint8_t>, KELVANE_DENSE_MACHINES> kMachines = {{
    {"none", KELVANE_DENSE_NONE},
    {"thumb", KELVANE_DENSE_THUMB},
    {"arm", KELVANE_DENSE_ARM},
    {"powerpc", KELVANE_DENSE_POWERPC},
    {"mips", KELVANE_DENSE_MIPS},
    {"riscv", KELVANE_DENSE_RISCV},
}};
constexpr std::array<Named<uint8_t>, 2> kModels = {{{"small", 0}, {"large", 1}}};

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

uint32_t page_size_of(const std::string& option, const std::string& word) {
  const uint32_t size = number_of(option, word, 64, 1U << 24U);
  if (!std::has_single_bit(size)) {
    usage_error("option '" + option + "' takes a power of two, not '" + word + "'");
  }
  return size;
}

uint32_t address_of(const std::string& option, const std::string& word) {
  uint32_t address = 0;
  const size_t digits = word.starts_with("0x") || word.starts_with("0X") ? 2 : 0;
  const char* const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data() + digits, end, address, 16);
  if (error != std::errc() || stop != end) {
    usage_error("option '" + option + "' takes a hexadecimal address, not '" + word + "'");
  }
  return address;
}

// Takes an option of patches; gives false for any other.
template <typename GetValue>
bool take_patch_option(Options& options, const std::string& argument, const std::string& name,
                       const GetValue& value) {
  if (name == "--time") {
    options.seconds = number_of(name, value(), 1, 1000000);
  } else if (name == "--profile") {
    options.profile = value_named(kProfiles, "profile", value());
  } else if (name == "--format") {
    options.format = static_cast<uint8_t>(number_of(name, value(), 0, 1));
  } else if (argument == "--ram") {
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

// Takes an option of updates; gives false for any other.
template <typename GetValue>
bool take_update_option(UpdateOptions& update, const std::string& argument, const std::string& name,
                        const GetValue& value) {
  constexpr uint32_t kMostPages = 65535;  // and entries of the map
  if (name == "--page") {
    update.page_size = page_size_of(name, value());
  } else if (name == "--ring") {
    update.ring = number_of(name, value(), 1, kMostPages);
  } else if (name == "--spare") {
    update.spare = number_of(name, value(), 1, kMostPages);
  } else if (name == "--checkpoint") {
    update.checkpoint = number_of(name, value(), 1, kMostPages);
  } else if (name == "--raise") {
    update.raise = number_of(name, value(), 0, kMostPages);
  } else if (name == "--map") {
    update.map = number_of(name, value(), 0, kMostPages);
  } else if (name == "--model") {
    update.model = value_named(kModels, "model", value());
  } else if (name == "--machine") {
    update.machine = value_named(kMachines, "machine", value());
  } else if (name == "--base") {
    update.base = address_of(name, value());
  } else if (argument == "--rehearse") {
    update.rehearse = true;
  } else if (argument == "--simulate") {
    update.simulate = true;
  } else {
    return false;
  }
  return true;
}

// Ends the run for an option that is not for what is made.
void check_together(const std::vector<std::string>& for_patches,
                    const std::vector<std::string>& for_updates, bool bundle) {
  if (bundle && !for_patches.empty()) {
    usage_error("option '" + for_patches.front() + "' does not go with '--bundle'");
  }
  if (!bundle && !for_updates.empty()) {
    usage_error("option '" + for_updates.front() + "' goes with '--bundle' only");
  }
}

void check_memory_options(const Options& options) {
  if (!options.ram && (!options.exclude_name.empty() || !options.aliases.empty())) {
    usage_error("'--exclude' and '--alias' are for '--ram'");
  }
  if (options.ram && options.order) {
    usage_error("with '--ram' the images tell the byte order");
  }
}

// Takes an option that patches and updates have in common; gives false for any other.
template <typename GetValue>
bool take_common_option(Options& options, const std::string& argument, const std::string& name,
                        const GetValue& value) {
  if (name == "-o" || name == "--output") {
    options.patch_name = value();
  } else if (name == "--effort") {
    options.effort = value_named(kEfforts, "effort", value());
  } else if (name == "--jobs") {
    options.jobs = number_of(name, value(), 1, 1024);
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
  } else if (argument == "--bundle") {
    options.bundle = true;
  } else {
    return false;
  }
  return true;
}

}  // namespace

const char* help_text() {
  return "usage: kelmake [options] OLD NEW -o PATCH\n"
         "       kelmake --bundle [options] OLD NEW -o UPDATE\n"
         "\n"
         "Writes the smallest patch that it finds from the file OLD to the file NEW. The\n"
         "patch is applied in memory and compared with NEW before it is written. kelpatch\n"
         "shows, applies and verifies it.\n"
         "\n"
         "  -o, --output PATCH   the file to write\n"
         "  --effort LEVEL       quick, normal (the default) or best\n"
         "  --time SECONDS       begins no further plan after so long; the patch then\n"
         "                       depends on the speed of the machine\n"
         "  --jobs N             plans made at the same time; by default one for each\n"
         "                       processor. The patch is the same for any number\n"
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
         "With --bundle it writes an update of a device in flash instead, most often far smaller\n"
         "than a patch, for a device that has these pages. It is tried on a model of the flash\n"
         "before it is written. Where OLD and NEW are ELF files, what they load is the image.\n"
         "\n"
         "  --page BYTES         size of an erase page of the flash; 4096 by default\n"
         "  --ring PAGES         how many pages back old contents can be read; 8 by default\n"
         "  --spare PAGES        all spare pages that the device has; by default what ring and\n"
         "                       checkpoints take and 8 more, for pages that are kept longer\n"
         "  --checkpoint PAGES   pages that change from one checkpoint of the device to the\n"
         "                       next; 8 by default\n"
         "  --raise PAGES        pages of flash by which the device moves the old image up first;\n"
         "                       by default as many as the new image has more, if that pays, or\n"
         "                       none\n"
         "  --rehearse           lets the device compute the whole new image before it erases\n"
         "                       anything; the update may be larger\n"
         "  --model NAME         large (the default) or small: takes half the memory on the\n"
         "                       device, and a few per cent more bytes\n"
         "  --map ENTRIES        the most entries of the map, each of which takes 14 bytes of\n"
         "                       memory on the device; 2048 by default\n"
         "  --machine NAME       none, thumb, arm, powerpc, mips or riscv: the processor. It is\n"
         "                       found, as the address is, unless it is told\n"
         "  --base ADDRESS       address of the first byte, hexadecimal\n"
         "  --simulate           cuts power at every operation, in the model\n"
         "\n"
         "Exit status: 0 if the file was written, 1 for trouble, 2 for wrong usage.\n";
}

const char* name_of(patch_profile profile) {
  return name_in(kProfiles, profile);
}
const char* name_of(plan_effort effort) {
  return name_in(kEfforts, effort);
}
const char* name_of_machine(uint8_t machine) {
  return name_in(kMachines, machine);
}
const char* name_of_model(uint8_t model) {
  return name_in(kModels, model);
}
const char* name_of(ByteOrder order) {
  return order == ByteOrder::kBig ? "big-endian" : "little-endian";
}

Options parse_options(const std::vector<std::string>& arguments) {
  Options options;
  options.jobs = default_jobs();
  std::vector<std::string> operands;
  std::vector<std::string> for_patches;  // options that were told
  std::vector<std::string> for_updates;
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
    const auto value = [&] {
      std::string text;
      if (equals != std::string::npos) {
        text = argument.substr(equals + 1);
      } else if (i + 1 < arguments.size()) {
        text = arguments[++i];
      }
      if (text.empty()) {
        usage_error("option '" + name + "' requires an argument");
      }
      return text;
    };
    if (argument == "--") {
      only_operands = true;
    } else if (take_patch_option(options, argument, name, value)) {
      for_patches.push_back(name);
    } else if (take_update_option(options.update, argument, name, value)) {
      for_updates.push_back(name);
    } else if (!take_common_option(options, argument, name, value)) {
      usage_error("unknown option '" + argument + "'");
    }
  }
  if (options.help || options.version) {
    return options;
  }
  check_together(for_patches, for_updates, options.bundle);
  if (operands.size() != 2) {
    usage_error("two files are to be compared");
  }
  if (options.patch_name.empty()) {
    usage_error(options.bundle ? "the option '-o' has to name the update"
                               : "the option '-o' has to name the patch");
  }
  check_memory_options(options);
  options.old_name = operands[0];
  options.new_name = operands[1];
  return options;
}

}  // namespace kelmake
