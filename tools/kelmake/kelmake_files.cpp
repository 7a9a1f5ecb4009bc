// SPDX-License-Identifier: Apache-2.0
#include "kelmake_files.h"

#include <sys/stat.h>

#include "output_file.h"

namespace kelmake {
namespace {

void refuse_input_as_output(const std::string& output, const std::string& input) {
  struct stat one = {};
  struct stat other = {};
  if (::stat(output.c_str(), &one) == 0 && ::stat(input.c_str(), &other) == 0 &&
      one.st_dev == other.st_dev && one.st_ino == other.st_ino) {
    kelpatch::fatal("output file '%s' is also an input file", output.c_str());
  }
}

void probe_output(const std::string& name) {
  const kelpatch::OutputFile probe(name);
}

}  // namespace

void check_outputs(const Options& options) {
  for (const std::string& output : {options.patch_name, options.report_name}) {
    refuse_input_as_output(output, options.old_name);
    refuse_input_as_output(output, options.new_name);
    refuse_input_as_output(output, options.exclude_name);
  }
  probe_output(options.patch_name);
  if (!options.report_name.empty()) {
    probe_output(options.report_name);
  }
}

void write_file(const std::string& name, const kelpatch::Bytes& bytes) {
  kelpatch::OutputFile output(name);
  output.write(bytes);
  output.keep();
}

}  // namespace kelmake
