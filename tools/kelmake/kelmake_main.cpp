// kelmake: two builds in, the smallest patch between them out, proven to apply.

#include <csignal>
#include <cstdio>
#include <new>

#include "indgen_message.h"
#include "indgeninit.h"
#include "kelmake_options.h"
#include "kelmake_run.h"
#include "kelmake_update.h"
#include "patch_file.h"
#include "printable.h"

namespace kelmake {
namespace {

// Thrown where the libraries below would end the process. They have told why.
struct EndedBelow {};

void run(const std::vector<std::string>& arguments) {
  kelvane::gen_changeprogname("kelmake");
  kelvane::gen_exit = [](int32_t /*status*/) { throw EndedBelow(); };
  const Options options = parse_options(arguments);
  if (options.help || options.version) {
    std::fputs(options.help ? help_text() : "kelmake " KELMAKE_VERSION "\n", stdout);
  } else if (options.bundle) {
    make_update(options);
  } else {
    make_patch(options);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    kelpatch::fatal_errno("error writing standard output");
  }
}

int status_of_run(const std::vector<std::string>& arguments) {
  try {
    run(arguments);
    return kWritten;
  } catch (const UsageError& error) {
    std::fprintf(stderr, "kelmake: %s\n", kelpatch::printable(error.message).c_str());
    return kUsage;
  } catch (const kelpatch::Failure& failure) {
    std::fflush(stdout);
    std::fprintf(stderr, "kelmake: %s\n", kelpatch::printable(failure.message).c_str());
    return kTrouble;
  } catch (const EndedBelow&) {
    return kTrouble;
  } catch (const std::bad_alloc&) {
    std::fputs("kelmake: fatal: out of memory\n", stderr);
    return kTrouble;
  }
}

}  // namespace
}  // namespace kelmake

int main(int argc, char** argv) {
  // A limit of file sizes is to end in a message, as a full disk does.
  std::signal(SIGXFSZ, SIG_IGN);
  return kelmake::status_of_run({argv + (argc > 0 ? 1 : 0), argv + argc});
}
