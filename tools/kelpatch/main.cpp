// kelpatch: shows, applies and verifies the patches of kelvane on a workstation. It uses the
// applier that runs on targets and nothing else of this project.

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "device_commands.h"
#include "memory_image.h"
#include "memory_patch.h"
#include "patch_file.h"
#include "patch_show.h"
#include "patch_verify.h"
#include "printable.h"
#include "update_show.h"

namespace kelpatch {
namespace {

constexpr char kHelp[] =
    "usage: kelpatch show [options] PATCH\n"
    "       kelpatch apply [options] OLD PATCH -o NEW\n"
    "       kelpatch verify [options] OLD NEW PATCH\n"
    "       kelpatch show --ram [options] OLD.elf NEW.elf PATCH\n"
    "       kelpatch apply --ram [options] OLD.elf PATCH -o NEW\n"
    "       kelpatch verify --ram [options] OLD.elf NEW.elf PATCH\n"
    "       kelpatch plan [options] PATCH OLD\n"
    "       kelpatch bundle [options] PATCH OLD NEW -o BUNDLE\n"
    "\n"
    "show     prints what the patch says: each command in words, and sizes\n"
    "apply    makes the file NEW from the file OLD\n"
    "verify   tests that PATCH makes NEW from OLD\n"
    "plan     tells what an update of a device in flash by PATCH takes: pages,\n"
    "         erases, wear, memory, time\n"
    "bundle   makes the file BUNDLE, by which a device goes from OLD to NEW\n"
    "\n"
    "PATCH may be an update of a device too, as 'bundle' or kelmake makes it: for show,\n"
    "apply and verify, and for bundle, which adds the way back and room for a signature.\n"
    "\n"
    "  --byte-order big|little  byte order of the target, which a version 0 patch\n"
    "                           does not store; found from the sizes by default\n"
    "  -o, --output FILE        the file that apply or bundle writes\n"
    "  --max-size BYTES         refuses a patch that makes a larger file; by default\n"
    "                           16 times the old file, and at least 16 MiB\n"
    "  -q, --quiet              verify does not say that the patch is right\n"
    "  --ram                    the patch is one for target memory: the memory is\n"
    "                           built from linked images, apply writes a folder with\n"
    "                           a file for each section, and show names sections\n"
    "  --base ADDRESS           with --ram, apply writes one image from there on\n"
    "  --exclude FILE           with --ram, sections that the patch leaves alone,\n"
    "  --alias ADDRESS:MASK     and regions with two addresses, as kelvane has them\n"
    "\n"
    "for plan and bundle:\n"
    "  --page BYTES             size of an erase page of the flash; 4096 by default\n"
    "  --ring PAGES             spare pages that hold the last pages saved; 2 by default,\n"
    "                           not for an update, which has a ring of its own\n"
    "  --spare PAGES            all spare pages that the device has; 8 by default\n"
    "  --unit BYTES             what is programmed at once: 4, 8 (the default), 16 or 32\n"
    "  --window BYTES           what is computed at a time; a page by default\n"
    "  --classes COUNT          increment classes with memory of their own; 64 by default\n"
    "  --erase-time MS          milliseconds for a page; 85 by default\n"
    "  --program-time MS        milliseconds for a page; by default 42 for 4096 bytes\n"
    "  --rollback PATCH         bundle adds the way back to OLD by this patch\n"
    "  --signature BYTES        bundle leaves room for a signature\n"
    "  --simulate               bundle cuts power at every operation, in a model\n"
    "\n"
    "  --help                   prints this text\n"
    "  --version                prints the version\n"
    "\n"
    "Exit status: 0 if everything is right, 1 if something does not match (the old\n"
    "file, a checksum, the result), 2 for trouble (usage, a file, a damaged patch).\n";

struct CommandLine {
  std::vector<std::string> operands;  // the command first
  std::string output;
  bool has_output = false;
  PatchOptions options;
  bool ram = false;
  ImageOptions images;
  std::optional<uint32_t> base;
  DeviceOptions device;
  std::string device_option;  // the first one of devices that was told
  bool quiet = false;
  bool help = false;
  bool version = false;
};

[[noreturn]] void usage_error(const std::string& text) {
  throw Failure{kTrouble, "error: " + text + " (see kelpatch --help)"};
}

ByteOrder byte_order_named(const std::string& word) {
  if (word == "big") {
    return ByteOrder::kBig;
  }
  if (word == "little") {
    return ByteOrder::kLittle;
  }
  usage_error("unknown byte order '" + word + "'");
}

uint32_t size_named(const std::string& word) {
  uint32_t size = 0;
  const char* const end = word.data() + word.size();
  const auto [behind, error] = std::from_chars(word.data(), end, size);
  if (error != std::errc() || behind != end || size > kLargestFile) {
    usage_error("'--max-size' takes a number of bytes up to " + std::to_string(kLargestFile) +
                ", not '" + word + "'");
  }
  return size;
}

// Reads a hexadecimal number of 32 bits from `word`, all of it or up to a colon, and gives what
// stands behind.
std::optional<std::string_view> take_address(std::string_view word, uint32_t* address) {
  word.remove_prefix(word.starts_with("0x") || word.starts_with("0X") ? 2 : 0);
  const char* const end = word.data() + word.size();
  const auto [behind, error] = std::from_chars(word.data(), end, *address, 16);
  if (error != std::errc()) {
    return std::nullopt;
  }
  return std::string_view(behind, static_cast<size_t>(end - behind));
}

uint32_t address_named(const std::string& word) {
  uint32_t address = 0;
  const std::optional<std::string_view> rest = take_address(word, &address);
  if (!rest || !rest->empty()) {
    usage_error("'--base' takes a hexadecimal address, not '" + word + "'");
  }
  return address;
}

Alias alias_named(const std::string& word) {
  Alias alias = {};
  const std::optional<std::string_view> mask = take_address(word, &alias.address);
  if (mask && mask->starts_with(':')) {
    const std::optional<std::string_view> rest = take_address(mask->substr(1), &alias.mask);
    if (rest && rest->empty()) {
      return alias;
    }
  }
  usage_error("'--alias' takes two hexadecimal numbers, ADDRESS:MASK, not '" + word + "'");
}

// An option of devices with a number.
struct DeviceNumber {
  const char* name;
  uint32_t least;
  uint32_t most;
  bool is_power;  // of two
  void (*set)(DeviceOptions& device, uint32_t number);
};

constexpr uint32_t kMostBytes = 1U << 24U;
constexpr uint32_t kMostPages = 65535;

// clang-format off
constexpr DeviceNumber kDeviceNumbers[] = {
    // name           least most        power
    {"--page",         64, kMostBytes, true,  [](DeviceOptions& device, uint32_t number) { device.spare.page_size = number; }},
    {"--ring",         1,  kMostPages, false, [](DeviceOptions& device, uint32_t number) { device.spare.ring = number; device.has_ring = true; }},
    {"--spare",        1,  kMostPages, false, [](DeviceOptions& device, uint32_t number) { device.spare.spare = number; }},
    {"--unit",         4,  32,         true,  [](DeviceOptions& device, uint32_t number) { device.unit = number; }},
    {"--window",       4,  kMostBytes, true,  [](DeviceOptions& device, uint32_t number) { device.window = number; }},
    {"--classes",      0,  kMostPages, false, [](DeviceOptions& device, uint32_t number) { device.classes = number; }},
    {"--erase-time",   0,  kMostBytes, false, [](DeviceOptions& device, uint32_t number) { device.erase_time = number; }},
    {"--program-time", 0,  kMostBytes, false, [](DeviceOptions& device, uint32_t number) { device.program_time = number; }},
    {"--signature",    0,  kMostPages, false, [](DeviceOptions& device, uint32_t number) { device.signature = number; }},
};
// clang-format on

uint32_t number_named(const DeviceNumber& option, const std::string& word) {
  uint32_t number = 0;
  const char* const end = word.data() + word.size();
  const auto [behind, error] = std::from_chars(word.data(), end, number);
  if (error != std::errc() || behind != end || number < option.least || number > option.most) {
    usage_error("'" + std::string(option.name) + "' takes a number from " +
                std::to_string(option.least) + " to " + std::to_string(option.most) + ", not '" +
                word + "'");
  }
  if (option.is_power && !std::has_single_bit(number)) {
    usage_error("'" + std::string(option.name) + "' takes a power of two, not '" + word + "'");
  }
  return number;
}

// Takes an option of devices; gives false for any other.
template <typename Value>
bool parse_device(DeviceOptions& device, const std::string& argument, const std::string& name,
                  const Value& value) {
  const auto* const number =
      std::find_if(std::begin(kDeviceNumbers), std::end(kDeviceNumbers),
                   [&](const DeviceNumber& one) { return name == one.name; });
  if (number != std::end(kDeviceNumbers)) {
    number->set(device, number_named(*number, value()));
  } else if (name == "--rollback") {
    device.rollback = value();
  } else if (argument == "--simulate") {
    device.simulate = true;
  } else {
    return false;
  }
  return true;
}

CommandLine parse(const std::vector<std::string>& arguments) {
  CommandLine line;
  bool only_operands = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (only_operands || argument.size() < 2 || argument[0] != '-') {
      line.operands.push_back(argument);
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
    if (name == "-o" || name == "--output") {
      line.output = value();
      line.has_output = true;
    } else if (name == "--byte-order") {
      line.options.order = byte_order_named(value());
    } else if (name == "--max-size") {
      line.options.max_size = size_named(value());
    } else if (argument == "--ram") {
      line.ram = true;
    } else if (name == "--base") {
      line.base = address_named(value());
    } else if (name == "--exclude") {
      const std::vector<std::string> words = read_exclusions(value());
      line.images.excluded.insert(line.images.excluded.end(), words.begin(), words.end());
    } else if (name == "--alias") {
      line.images.aliases.push_back(alias_named(value()));
    } else if (argument == "-q" || argument == "--quiet") {
      line.quiet = true;
    } else if (argument == "--help") {
      line.help = true;
    } else if (argument == "--version") {
      line.version = true;
    } else if (argument == "--") {
      only_operands = true;
    } else if (!parse_device(line.device, argument, name, value)) {
      usage_error("unknown option '" + argument + "'");
    } else if (line.device_option.empty()) {
      line.device_option = name;
    }
  }
  return line;
}

// Ends the run if standard output did not take everything.
void finish_output() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    fatal_errno("error writing standard output");
  }
}

void show(const CommandLine& line) {
  const std::vector<std::string>& names = line.operands;
  if (line.ram) {
    const MemoryImage old_image(names[1], line.images);
    const MemoryImage new_image(names[2], line.images);
    PatchFile patch = open_memory_patch(names[3], old_image);
    show_patch(patch, patch.info().big_endian != 0 ? ByteOrder::kBig : ByteOrder::kLittle,
               {&old_image, &new_image});
    return;
  }
  Bytes bytes = read_input(names[1]);
  if (is_update(bytes)) {
    UpdateFile update(names[1], std::move(bytes));
    show_update(update);
    return;
  }
  PatchFile patch(names[1], std::move(bytes), line.options.order, {});
  show_patch(patch, line.options.order, {});
}

void apply(const CommandLine& line) {
  const std::vector<std::string>& names = line.operands;
  if (line.ram) {
    apply_memory(names[1], names[2], {line.output, line.base, line.options.max_size}, line.images);
  } else {
    apply_patch(names[1], names[2], line.output, line.options);
  }
}

void verify(const CommandLine& line) {
  const std::vector<std::string>& names = line.operands;
  if (line.ram) {
    verify_memory(names[1], names[2], names[3], line.images);
  } else {
    verify_patch(names[1], names[2], names[3], line.options);
  }
  if (!line.quiet) {
    std::puts("the patch is right");
  }
}

void plan(const CommandLine& line) {
  plan_update(line.operands[1], line.operands[2], line.device, line.options.max_size);
}

void bundle(const CommandLine& line) {
  const std::vector<std::string>& names = line.operands;
  make_update(names[1], names[2], names[3], line.output, line.device, line.options.max_size);
}

struct Command {
  const char* name;
  size_t files;
  size_t files_of_memory;
  const char* files_text;
  const char* files_of_memory_text;
  void (*carry_out)(const CommandLine& line);
};

// clang-format off
constexpr Command kCommands[] = {
    // name    files  --ram  in words       --ram
    {"show",   1,     3,     "one file",    "three files", show},
    {"apply",  2,     2,     "two files",   "two files",   apply},
    {"verify", 3,     3,     "three files", "three files", verify},
    {"plan",   2,     0,     "two files",   "",            plan},
    {"bundle", 3,     0,     "three files", "",            bundle},
};
// clang-format on

// Ends the run unless the options go together.
void check_options(const CommandLine& line, const std::string& command) {
  const bool for_devices = command == "plan" || command == "bundle";
  if (!for_devices && !line.device_option.empty()) {
    usage_error("'" + line.device_option + "' is for 'plan' and 'bundle'");
  }
  if (for_devices && (line.ram || line.quiet || line.options.order != ByteOrder::kFound)) {
    usage_error("'" + command + "' takes none of '--ram', '--quiet' and '--byte-order'");
  }
  if (line.ram && line.options.order != ByteOrder::kFound) {
    usage_error("with '--ram' the images tell the byte order");
  }
  if (command == "plan" &&
      (line.device.rollback || line.device.simulate || line.device.signature != 0)) {
    usage_error("'--rollback', '--signature' and '--simulate' are for 'bundle'");
  }
  if (command != "apply" && command != "bundle" && line.has_output) {
    usage_error("'" + command + "' writes no file");
  }
  if (command == "show" && (line.quiet || line.options.max_size)) {
    usage_error("'show' takes neither '--quiet' nor '--max-size'");
  }
  if (command == "verify" && line.ram && line.options.max_size) {
    usage_error("'verify' takes no '--max-size' with '--ram'");
  }
  const bool has_images = !line.images.excluded.empty() || !line.images.aliases.empty();
  if (!line.ram && (line.base || has_images)) {
    usage_error("'--base', '--exclude' and '--alias' are for '--ram'");
  }
  if (line.base && command != "apply") {
    usage_error("'--base' is for 'apply'");
  }
}

void run(const CommandLine& line) {
  if (line.help || line.version) {
    std::fputs(line.help ? kHelp : "kelpatch " KELPATCH_VERSION "\n", stdout);
    return;
  }
  if (line.operands.empty()) {
    usage_error("no command given");
  }
  const std::string& name = line.operands[0];
  const Command* const command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                              [&](const Command& one) { return name == one.name; });
  if (command == std::end(kCommands)) {
    usage_error("unknown command '" + name + "'");
  }
  check_options(line, name);
  if (line.operands.size() - 1 != (line.ram ? command->files_of_memory : command->files)) {
    usage_error("'" + name + "' takes " +
                (line.ram ? command->files_of_memory_text : command->files_text));
  }
  if ((name == "apply" || name == "bundle") && !line.has_output) {
    usage_error("'" + name + "' requires the option '-o'");
  }
  command->carry_out(line);
}

}  // namespace
}  // namespace kelpatch

int main(int argc, char** argv) {
  // A limit of file sizes is to end in a message, as a full disk does.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    kelpatch::run(kelpatch::parse({argv + (argc > 0 ? 1 : 0), argv + argc}));
    kelpatch::finish_output();
    return kelpatch::kRight;
  } catch (const kelpatch::Failure& failure) {
    std::fflush(stdout);
    std::fprintf(stderr, "kelpatch: %s\n", kelpatch::printable(failure.message).c_str());
    return failure.status;
  } catch (const std::bad_alloc&) {
    std::fputs("kelpatch: fatal: out of memory\n", stderr);
    return kelpatch::kTrouble;
  }
}
