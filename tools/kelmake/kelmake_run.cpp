#include "kelmake_run.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <optional>

#include "kelmake_files.h"
#include "kelmake_images.h"
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

// What the new image alone takes compressed; 0 if that is more than `patch_size` in any case, for
// 18 bytes take 17 bits at best.
uint64_t packed_size_if_near(const kelvane::plan_images& images, uint64_t new_size,
                             uint64_t patch_size) {
  if (patch_size * 9 < new_size) {
    return 0;
  }
  Bytes bytes;  // without what lies between sections
  const uint8_t* const image = images.new_image.data();
  kelvane::each_new_part(
      images, 0, static_cast<int64_t>(images.new_image.size()),
      [&](int64_t begin, int64_t end) { bytes.insert(bytes.end(), image + begin, image + end); });
  return kelvane::optimal_parser().packed_size(bytes);
}

// What a run compares, held as long as a plan needs it.
struct Input {
  Comparison comparison;
  kelvane::plan_images images;
  bool is_equal = false;

  Bytes old_file;
  Bytes new_file;
  std::optional<kelvane::laid_out_memory> memory;
};

void read_files(const Options& options, Input& input) {
  input.old_file = kelpatch::read_input(options.old_name);
  input.new_file = kelpatch::read_input(options.new_name);
  input.images = {input.old_file, input.new_file};
  input.is_equal = input.old_file == input.new_file;
  input.comparison = {input.old_file.size(), input.new_file.size(), {}, options.order};
}

void read_memory(const Options& options, Input& input) {
  const MemoryImages images(options);
  const auto size = kelvane::laid_out_memory::row_size(images.pairs(), images.spare());
  if (size > kelvane::kLargestImage) {
    fatal("the sections of '%s' and '%s' have more than %" PRIu32 " bytes",
          options.old_name.c_str(), options.new_name.c_str(), kelvane::kLargestImage);
  }
  input.memory.emplace(images.pairs(), images.spare()).target.header = images.header();
  input.images = input.memory->images();
  input.comparison = {0, 0, images.sections(), images.order()};
  input.is_equal = true;
  for (const auto& [old_section, new_section] : images.pairs()) {
    input.comparison.old_size += old_section.bytes.size();
    input.comparison.new_size += new_section.bytes.size();
    input.is_equal = input.is_equal && old_section.address == new_section.address &&
                     std::ranges::equal(old_section.bytes, new_section.bytes);
  }
}

}  // namespace

void make_patch(const Options& options) {
  const steady_clock::time_point start = steady_clock::now();
  check_outputs(options);
  Input input;
  (options.ram ? read_memory : read_files)(options, input);
  if (!options.quiet) {
    std::fputs(text_of_comparison(options, input.comparison).c_str(), stdout);
    std::fflush(stdout);
  }

  kelvane::plan_request request;
  request.images = input.images;
  request.rules = kelvane::rules_for(options.profile, options.format);
  if (options.profile == kelvane::patch_profile::libapply) {
    request.narrower_rules = kelvane::rules_for(kelvane::patch_profile::wide, options.format);
  }
  request.effort = options.effort;
  request.order = input.comparison.order;
  request.jobs = options.jobs;
  if (options.seconds) {
    request.is_over = [&, limit = std::chrono::seconds(*options.seconds)] {
      return steady_clock::now() - start >= limit;
    };
  }
  std::optional<ProgressLine> progress(std::in_place, options);
  request.report = [&](const kelvane::plan_progress& now) { progress->show(now); };
  Bytes patch;  // of the plan that was asked about last
  request.fault_of = [&](const kelvane::plan& planned) {
    progress->begin("trying the patch");
    patch = kelvane::write_plan(request.images, planned, request.rules);
    return kelvane::fault_of_patch(request.images, patch, planned.order);
  };
  progress->begin("making the patch");
  const kelvane::found_plan found = kelvane::search_plan(request);
  progress.reset();
  if (!found.fault.empty()) {
    fatal("internal: the patch from '%s' to '%s' does not hold: %s", options.old_name.c_str(),
          options.new_name.c_str(), found.fault.c_str());
  }
  const bool is_silent = options.quiet && options.report_name.empty();
  const Outcome outcome = {
      .options = options,
      .comparison = input.comparison,
      .equal_files = input.is_equal,
      .packed_new_size =
          is_silent ? 0
                    : packed_size_if_near(input.images, input.comparison.new_size, patch.size()),
      .found = found,
      .seconds = std::chrono::duration<double>(steady_clock::now() - start).count()};
  write_outputs(options, patch, options.report_name.empty() ? "" : json_of_outcome(outcome));
  if (!options.quiet) {
    std::fputs(text_of_outcome(outcome).c_str(), stdout);
  }
}

}  // namespace kelmake
