// kelmake: two builds in, the smallest patch between them out, proven to apply.

#include <cstdio>
#include <new>

#include "kelmake_options.h"
#include "kelmake_run.h"
#include "patch_file.h"

namespace kelmake {
namespace {

void run(const std::vector<std::string>& arguments) {
  const Options options = parse_options(arguments);
  if (options.help || options.version) {
    std::fputs(options.help ? kHelp : "kelmake " KELMAKE_VERSION "\n", stdout);
  } else {
    make_patch(options);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    kelpatch::fatal_errno("error writing standard output");
  }
}

}  // namespace
}  // namespace kelmake

int main(int argc, char** argv) {
  try {
    kelmake::run({argv + (argc > 0 ? 1 : 0), argv + argc});
    return kelmake::kWritten;
  } catch (const kelmake::UsageError& error) {
    std::fprintf(stderr, "kelmake: %s\n", error.message.c_str());
    return kelmake::kUsage;
  } catch (const kelpatch::Failure& failure) {
    std::fflush(stdout);
    std::fprintf(stderr, "kelmake: %s\n", failure.message.c_str());
    return kelmake::kTrouble;
  } catch (const std::bad_alloc&) {
    std::fputs("kelmake: fatal: out of memory\n", stderr);
    return kelmake::kTrouble;
  }
}
