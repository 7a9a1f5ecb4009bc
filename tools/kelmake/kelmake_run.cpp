#include "kelmake_run.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "kelmake_files.h"
#include "kelmake_report.h"
#include "optimal_parse.h"
#include "patch_file.h"
#include "plan_patch.h"
#include "plan_search.h"

namespace kelmake {
namespace {

using kelpatch::Bytes;
using kelpatch::fatal;
using std::chrono::steady_clock;

// What the file takes compressed; 0 if that is more than `patch_size` in any case, for 18 bytes
// take 17 bits at best.
uint64_t packed_size_if_near(const Bytes& file, uint64_t patch_size) {
  return patch_size * 9 < file.size() ? 0 : kelvane::optimal_parser().packed_size(file);
}

}  // namespace

void make_patch(const Options& options) {
  const steady_clock::time_point start = steady_clock::now();
  check_outputs(options);
  const Bytes old_file = kelpatch::read_input(options.old_name);
  const Bytes new_file = kelpatch::read_input(options.new_name);
  if (!options.quiet) {
    std::fputs(text_of_comparison(options, old_file.size(), new_file.size()).c_str(), stdout);
    std::fflush(stdout);
  }

  kelvane::plan_request request;
  request.images = {old_file, new_file};
  request.rules = kelvane::rules_for(options.profile, options.format);
  if (options.profile == kelvane::patch_profile::libapply) {
    request.narrower_rules = kelvane::rules_for(kelvane::patch_profile::wide, options.format);
  }
  request.effort = options.effort;
  request.order = options.order;
  request.jobs = options.jobs;
  if (options.seconds) {
    request.is_over = [&, limit = std::chrono::seconds(*options.seconds)] {
      return steady_clock::now() - start >= limit;
    };
  }
  Bytes patch;  // of the plan that was asked about last
  request.fault_of = [&](const kelvane::plan& planned) {
    patch = kelvane::write_plan(request.images, planned, request.rules);
    return kelvane::fault_of_patch(request.images, patch, planned.order);
  };
  kelvane::found_plan found;
  {
    ProgressLine progress(options);
    request.report = [&](const kelvane::plan_progress& now) { progress.show(now); };
    found = kelvane::search_plan(request);
    request.report = nullptr;
  }
  if (!found.fault.empty()) {
    fatal("internal: the patch from '%s' to '%s' does not hold: %s", options.old_name.c_str(),
          options.new_name.c_str(), found.fault.c_str());
  }
  write_file(options.patch_name, patch);

  const Outcome outcome = {
      .options = options,
      .old_size = old_file.size(),
      .new_size = new_file.size(),
      .equal_files = old_file == new_file,
      .packed_new_size = packed_size_if_near(new_file, patch.size()),
      .found = found,
      .seconds = std::chrono::duration<double>(steady_clock::now() - start).count()};
  if (!options.report_name.empty()) {
    const std::string report = json_of_outcome(outcome);
    write_file(options.report_name, Bytes(report.begin(), report.end()));
  }
  if (!options.quiet) {
    std::fputs(text_of_outcome(outcome).c_str(), stdout);
  }
}

}  // namespace kelmake
