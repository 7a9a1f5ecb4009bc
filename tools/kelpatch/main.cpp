// kelpatch: shows, applies and verifies the patches of kelvane on a workstation. It uses the
// applier that runs on targets and nothing else of this project.

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "patch_file.h"
#include "patch_show.h"
#include "patch_verify.h"

namespace kelpatch {
namespace {

constexpr char kHelp[] =
    "usage: kelpatch show [options] PATCH\n"
    "       kelpatch apply [options] OLD PATCH -o NEW\n"
    "       kelpatch verify [options] OLD NEW PATCH\n"
    "\n"
    "show     prints what the patch says: each command in words, and sizes\n"
    "apply    makes the file NEW from the file OLD\n"
    "verify   tests that PATCH makes NEW from OLD\n"
    "\n"
    "  --byte-order big|little  byte order of the target, which a version 0 patch\n"
    "                           does not store; found from the sizes by default\n"
    "  -o, --output NEW         the file that apply writes\n"
    "  --max-size BYTES         refuses a patch that makes a larger file; by default\n"
    "                           16 times the old file, and at least 16 MiB\n"
    "  -q, --quiet              verify does not say that the patch is right\n"
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
      line.output = value();
      line.has_output = true;
    } else if (name == "--byte-order") {
      line.options.order = byte_order_named(value());
    } else if (name == "--max-size") {
      line.options.max_size = size_named(value());
    } else if (argument == "-q" || argument == "--quiet") {
      line.quiet = true;
    } else if (argument == "--help") {
      line.help = true;
    } else if (argument == "--version") {
      line.version = true;
    } else if (argument == "--") {
      only_operands = true;
    } else {
      usage_error("unknown option '" + argument + "'");
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

void run(const CommandLine& line) {
  if (line.help || line.version) {
    std::fputs(line.help ? kHelp : "kelpatch " KELPATCH_VERSION "\n", stdout);
    return;
  }
  if (line.operands.empty()) {
    usage_error("no command given");
  }
  const std::string& command = line.operands[0];
  const size_t files = line.operands.size() - 1;
  if (command != "show" && command != "apply" && command != "verify") {
    usage_error("unknown command '" + command + "'");
  }
  if (command != "apply" && line.has_output) {
    usage_error("'" + command + "' writes no file");
  }
  if (command == "show" && (line.quiet || line.options.max_size)) {
    usage_error("'show' takes neither '--quiet' nor '--max-size'");
  }
  if (command == "show") {
    if (files != 1) {
      usage_error("'show' takes one file");
    }
    PatchFile patch(line.operands[1], line.options.order, {});
    show_patch(patch, line.options.order);
  } else if (command == "apply") {
    if (files != 2) {
      usage_error("'apply' takes two files");
    }
    if (!line.has_output) {
      usage_error("'apply' requires the option '-o'");
    }
    apply_patch(line.operands[1], line.operands[2], line.output, line.options);
  } else {
    if (files != 3) {
      usage_error("'verify' takes three files");
    }
    verify_patch(line.operands[1], line.operands[2], line.operands[3], line.options);
    if (!line.quiet) {
      std::puts("the patch is right");
    }
  }
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
    std::fprintf(stderr, "kelpatch: %s\n", failure.message.c_str());
    return failure.status;
  } catch (const std::bad_alloc&) {
    std::fputs("kelpatch: fatal: out of memory\n", stderr);
    return kelpatch::kTrouble;
  }
}
