// SPDX-License-Identifier: Apache-2.0
#include "kelmake_files.h"

#include <optional>

#include "output_file.h"

namespace kelmake {
namespace {

void probe_output(const std::string& name) {
  const kelpatch::OutputFile probe(name);
}

}  // namespace

void check_outputs(const Options& options) {
  const std::string& report = options.report_name;
  for (const std::string& output : {options.patch_name, report}) {
    kelpatch::refuse_inputs(output, {options.old_name, options.new_name, options.exclude_name});
  }
  probe_output(options.patch_name);
  if (!report.empty()) {
    if (kelpatch::is_same_place(report, options.patch_name)) {
      kelpatch::fatal("the report '%s' would take the place of what '-o' names", report.c_str());
    }
    probe_output(report);
  }
}

void write_outputs(const Options& options, const kelpatch::Bytes& bytes,
                   const std::string& report) {
  kelpatch::OutputFile output(options.patch_name);
  output.write(bytes);
  output.complete();
  std::optional<kelpatch::OutputFile> report_file;
  if (!report.empty()) {
    report_file.emplace(options.report_name);
    report_file->write({report.begin(), report.end()});
    report_file->complete();
  }
  output.keep();
  if (report_file) {
    report_file->keep();
  }
}

}  // namespace kelmake
