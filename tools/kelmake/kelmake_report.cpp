#include "kelmake_report.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <span>
#include <string_view>

#include "patch_file.h"
#include "printable.h"

namespace kelmake {
namespace {

using kelpatch::formatted;

struct Part {
  const char* name;       // in words
  const char* json_name;  // as a key
  uint64_t bytes;
  uint64_t count;
  const char* unit;
};

std::array<Part, 7> parts_of(const kelvane::found_plan& found) {
  const kelvane::plan& planned = found.planned;
  const auto stores = [&](kelvane::store_kind kind) {
    return static_cast<uint64_t>(
        std::count_if(planned.stores.begin(), planned.stores.end(),
                      [&](const kelvane::planned_store& store) { return store.kind == kind; }));
  };
  const kelvane::plan_cost& cost = found.cost;
  return {{
      {"header", "header", cost.header, 0, ""},
      {"moves", "moves", cost.moves, planned.moves.size(), "block"},
      {"stores", "stores", cost.plain_stores, stores(kelvane::store_kind::plain), "store"},
      {"compressed stores", "compressed_stores", cost.packed_stores,
       stores(kelvane::store_kind::compressed), "store"},
      {"single bytes", "single_bytes", cost.single_stores, stores(kelvane::store_kind::single),
       "byte"},
      {"fills", "fills", cost.fills, planned.fills.size(), "fill"},
      {"increments", "increments", cost.increments, planned.words.size(), "word"},
  }};
}

bool is_worth_it(const Outcome& outcome) {
  const uint64_t size = outcome.found.cost.total();
  return size < outcome.comparison.new_size / 10 * 9 &&
         (outcome.packed_new_size == 0 || size < outcome.packed_new_size);
}

const char* mode_of(const Options& options) {
  return options.ram ? "memory" : "file";
}

// What a report calls that which is compared.
struct Compared {
  const char* both;
  const char* is_new;  // "the new ..."
  const char* is;
  const char* takes;
};

Compared compared(const Options& options) {
  return options.ram ? Compared{"sections", "new sections", "are", "take"}
                     : Compared{"two files", "new file", "is", "takes"};
}

// More of them are only in the JSON report.
constexpr size_t kMostSections = 16;

std::string text_of_sections(const std::vector<ComparedSection>& sections) {
  std::string text;
  for (const ComparedSection& section :
       std::span(sections).first(std::min(sections.size(), kMostSections))) {
    text += formatted("  %-18s %9s at 0x%08" PRIx32, kelpatch::printable(section.name).c_str(),
                      counted(section.new_size, "byte").c_str(), section.new_address);
    text += section.old_size == section.new_size && section.old_address == section.new_address
                ? "\n"
                : formatted(", before: %s at 0x%08" PRIx32 "\n",
                            counted(section.old_size, "byte").c_str(), section.old_address);
  }
  if (sections.size() > kMostSections) {
    text += formatted("  and %zu more\n", sections.size() - kMostSections);
  }
  return text;
}

// A sentence for a patch that is of little use; empty for others.
std::string advice(const Outcome& outcome) {
  const uint64_t size = outcome.found.cost.total();
  const Compared words = compared(outcome.options);
  if (outcome.equal_files) {
    return formatted("The %s are equal: the patch changes nothing.\n", words.both);
  }
  if (outcome.comparison.new_size == 0) {
    return formatted("The %s %s empty: the patch only says so.\n", words.is_new, words.is);
  }
  if (outcome.packed_new_size != 0 && size >= outcome.packed_new_size) {
    return formatted("The patch is not worth it: the %s alone, compressed, %s %" PRIu64 " bytes.\n",
                     words.is_new, words.takes, outcome.packed_new_size);
  }
  if (!is_worth_it(outcome)) {
    return formatted("The patch is not worth it: it is nearly as large as the %s.\n", words.is_new);
  }
  return {};
}

}  // namespace

std::string counted(uint64_t count, const char* unit) {
  return formatted("%" PRIu64 " %s%s", count, unit, count == 1 ? "" : "s");
}

double percent_of(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

std::string json_text(const std::string& text) {
  std::string quoted = "\"";
  for (size_t at = 0; at < text.size();) {
    const size_t size = kelpatch::character_size(std::string_view(text).substr(at));
    const auto byte = static_cast<unsigned char>(text[at]);
    if (size == 0) {
      quoted += "\\ufffd";
    } else if (byte == '"' || byte == '\\') {
      quoted += '\\';
      quoted += text[at];
    } else if (byte < 0x20) {
      quoted += formatted("\\u%04x", byte);
    } else {
      quoted += text.substr(at, size);
    }
    at += std::max<size_t>(size, 1);
  }
  return quoted + '"';
}

namespace {

std::string json_of_sections(const std::vector<ComparedSection>& sections) {
  std::string text = "  \"sections\": [";
  for (const ComparedSection& section : sections) {
    text +=
        formatted("%s\n    {\"name\": %s, \"old\": {\"address\": %" PRIu32 ", \"size\": %" PRIu32
                  "}, \"new\": {\"address\": %" PRIu32 ", \"size\": %" PRIu32 "}}",
                  &section == &sections.front() ? "" : ",", json_text(section.name).c_str(),
                  section.old_address, section.old_size, section.new_address, section.new_size);
  }
  return text + (sections.empty() ? "],\n" : "\n  ],\n");
}

}  // namespace

std::string text_of_comparison(const Options& options, const Comparison& comparison) {
  const std::string in_sections =
      options.ram ? " in " + counted(comparison.sections.size(), "section") : "";
  const auto line = [&](const char* which, const std::string& name, uint64_t size) {
    return formatted("%s: %s, %s%s\n", which, name.c_str(), counted(size, "byte").c_str(),
                     in_sections.c_str());
  };
  return line("old", options.old_name, comparison.old_size) +
         line("new", options.new_name, comparison.new_size) +
         text_of_sections(comparison.sections) +
         formatted("%s mode, format %d, profile %s, effort %s, %s\n", mode_of(options),
                   options.format, name_of(options.profile), name_of(options.effort),
                   comparison.order ? name_of(*comparison.order) : "both byte orders");
}

std::string text_of_outcome(const Outcome& outcome) {
  const kelvane::found_plan& found = outcome.found;
  std::string text = formatted("patch: %s, %s", outcome.options.patch_name.c_str(),
                               counted(found.cost.total(), "byte").c_str());
  if (outcome.comparison.new_size > 0) {
    text += formatted(", %.1f %% of the %s",
                      percent_of(found.cost.total(), outcome.comparison.new_size),
                      compared(outcome.options).is_new);
  }
  text += formatted(", %s\n", name_of(found.planned.order));
  for (const Part& part : parts_of(found)) {
    if (part.bytes == 0) {
      continue;
    }
    text += formatted("  %-18s %9" PRIu64 " bytes", part.name, part.bytes);
    text += *part.unit == '\0' ? "\n" : ", " + counted(part.count, part.unit) + "\n";
  }
  if (found.was_stopped) {
    text += formatted("The time was over after %s: another run may give another patch.\n",
                      counted(found.tries, "plan").c_str());
  }
  const size_t classes = found.planned.classes.size();
  const uint32_t limit = kelvane::rules_for(kelvane::patch_profile::any, 1).class_limit;
  if (classes > limit) {
    text += formatted("It has %zu classes of increments; for an applier that takes %" PRIu32
                      " at most use '--profile any'.\n",
                      classes, limit);
  }
  text += formatted("Applied in memory, it made the %s.\n", compared(outcome.options).is_new);
  return text + advice(outcome);
}

std::string json_of_outcome(const Outcome& outcome) {
  const Options& options = outcome.options;
  const kelvane::found_plan& found = outcome.found;
  std::string text = "{\n";
  const auto file = [&](const char* key, const std::string& name, uint64_t size) {
    text += formatted("  \"%s\": {\"name\": %s, \"size\": %" PRIu64 "},\n", key,
                      json_text(name).c_str(), size);
  };
  file("old", options.old_name, outcome.comparison.old_size);
  file("new", options.new_name, outcome.comparison.new_size);
  file("patch", options.patch_name, found.cost.total());
  text += formatted(
      "  \"mode\": \"%s\",\n  \"format\": %d,\n  \"profile\": \"%s\",\n  \"effort\": \"%s\",\n"
      "  \"byte_order\": \"%s\",\n  \"worth_it\": %s,\n  \"parts\": {\n",
      mode_of(options), options.format, name_of(options.profile), name_of(options.effort),
      name_of(found.planned.order), is_worth_it(outcome) ? "true" : "false");
  const std::array<Part, 7> parts = parts_of(found);
  for (const Part& part : parts) {
    text += formatted("    \"%s\": {\"bytes\": %" PRIu64 ", \"count\": %" PRIu64 "}%s\n",
                      part.json_name, part.bytes, part.count, &part == &parts.back() ? "" : ",");
  }
  text += "  },\n";
  if (options.ram) {
    text += json_of_sections(outcome.comparison.sections);
  }
  text += formatted("  \"classes\": %zu,\n  \"tries\": %" PRIu32
                    ",\n  \"stopped\": %s,\n"
                    "  \"seconds\": %.2f\n}\n",
                    found.planned.classes.size(), found.tries, found.was_stopped ? "true" : "false",
                    outcome.seconds);
  return text;
}

ProgressLine::ProgressLine(const Options& options)
    : options_(options), is_on_(!options.quiet && ::isatty(STDERR_FILENO) != 0) {}

ProgressLine::~ProgressLine() {
  if (shown_ > 0) {
    std::fprintf(stderr, "\r%*s\r", static_cast<int>(shown_), "");
  }
}

void ProgressLine::begin(const char* stage) {
  stage_ = stage;
  stage_start_ = Clock::now();
  put(stage_);
}

void ProgressLine::show(const kelvane::plan_progress& progress) {
  const auto since = [now = Clock::now()](Clock::time_point point) {
    return std::chrono::duration<double>(now - point).count();
  };
  double left = since(stage_start_) / progress.tries * (progress.most_tries - progress.tries);
  if (options_.seconds) {
    left = std::clamp(*options_.seconds - since(start_), 0.0, left);
  }
  put(formatted("%s: plan %" PRIu32 " of %" PRIu32 ", best so far %" PRIu64 " bytes, %.0f s left",
                stage_, progress.tries, progress.most_tries, progress.best_size, left));
}

void ProgressLine::show(const char* unit, uint64_t count, uint64_t all) {
  put(formatted("%s: %s %" PRIu64 " of %" PRIu64, stage_, unit, count, all));
}

void ProgressLine::put(std::string line) {
  if (!is_on_) {
    return;
  }
  // A line that goes on in the next row could not be rewritten.
  struct winsize terminal = {};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &terminal) == 0 && terminal.ws_col > 1) {
    line.resize(std::min(line.size(), size_t{terminal.ws_col} - 1));
  }
  std::fprintf(stderr, "\r%-*s", static_cast<int>(shown_), line.c_str());
  std::fflush(stderr);
  shown_ = std::max(shown_, line.size());
}

}  // namespace kelmake
