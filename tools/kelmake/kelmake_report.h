#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelmake_options.h"
#include "plan_search.h"

namespace kelmake {

// "1 byte", "2 bytes".
std::string counted(uint64_t count, const char* unit);
double percent_of(uint64_t part, uint64_t whole);
// The text as JSON has it. What is no UTF-8 in it becomes U+FFFD.
std::string json_text(const std::string& text);

// A section as memory mode compares it.
struct ComparedSection {
  std::string name;
  uint32_t old_address = 0;
  uint32_t old_size = 0;
  uint32_t new_address = 0;
  uint32_t new_size = 0;
};

// What is compared: two files or, in memory mode, the sections of both.
struct Comparison {
  uint64_t old_size = 0;
  uint64_t new_size = 0;
  std::vector<ComparedSection> sections;
  std::optional<kelvane::ByteOrder> order;  // both are tried by default
};

// What a run has found, for people and for programs.
struct Outcome {
  const Options& options;
  const Comparison& comparison;
  bool equal_files = false;
  // The new file (the new sections) alone in the compressed form of this format, or 0 where the
  // patch is smaller in any case.
  uint64_t packed_new_size = 0;
  const kelvane::found_plan& found;
  double seconds = 0;
};

// "old.bin: 400112 bytes" and so on: what is compared and how.
std::string text_of_comparison(const Options& options, const Comparison& comparison);
// The size, what it is spent on, and whether the patch is worth it.
std::string text_of_outcome(const Outcome& outcome);
// The same as JSON, with a newline at the end.
std::string json_of_outcome(const Outcome& outcome);

// A line on standard error that is rewritten in place: the stage and, where it makes plans, how
// many it has made, the best size so far, time left. Only for a terminal. It goes away with the
// object.
class ProgressLine {
 public:
  explicit ProgressLine(const Options& options);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  // `stage` says what is being done, and stays the caller's until the next one begins.
  void begin(const char* stage);
  void show(const kelvane::plan_progress& progress);
  // "<stage>: <unit> 3 of 20".
  void show(const char* unit, uint64_t count, uint64_t all);

 private:
  using Clock = std::chrono::steady_clock;
  void put(std::string line);

  const Options& options_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point stage_start_ = start_;
  const char* stage_ = "";
  bool is_on_ = false;
  size_t shown_ = 0;  // characters
};

}  // namespace kelmake
