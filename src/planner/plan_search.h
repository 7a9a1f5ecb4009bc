#pragma once

// The search: several plans of one pair, the cheapest of which is used.
//
// One plan is an alignment, an order of the moves and a choice of words. What can't be calculated
// is tried: how dear a block is to the alignment, how dear a stored word, the byte order of the
// words, the rate of compressed stores. A round makes the plans of all settings; the best one's
// classes and shifts go into the alignments of the next round. A round that would be given what the
// round before was given would make the same plans, and is left out.
//
// The plans of a round are independent of each other and are made by several threads. The result
// depends on the settings alone, never on the number of threads or on time; only a search that is
// stopped early gives what it has.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "plan.h"
#include "plan_patch.h"

namespace kelvane {

enum class plan_effort : uint8_t {
  quick,   // one alignment, up to three orders
  normal,  // three rounds of two alignments, up to 12 orders each
  best     // as well, three rounds of six alignments, up to 54 orders each, several rates
};

struct plan_progress {
  uint32_t tries = 0;       // plans made so far
  uint32_t most_tries = 0;  // plans that may be made
  uint64_t best_size = 0;   // of the cheapest so far, in bytes of patch
};

struct plan_request {
  plan_images images;
  plan_rules rules;
  // Rules that these contain. A search goes its own way under each rules and may end better under
  // the narrower ones; with them both are searched, and the cheaper plan is used.
  std::optional<plan_rules> narrower_rules;
  plan_effort effort = plan_effort::normal;
  std::optional<ByteOrder> order;  // of the target's words; both are looked at if it is open
  uint32_t jobs = 1;               // threads, at least 1
  // Called after each plan, by one thread at a time. May be empty.
  std::function<void(const plan_progress&)> report;
  // Asked ahead of each plan but the first; true ends the search. Called by several threads at
  // once. May be empty.
  std::function<bool()> is_over;
  // Gives what is wrong with a plan, or nothing. Asked about the cheapest plan once all are made,
  // and about the next one as long as it finds fault, three in all. May be empty, which finds none.
  std::function<std::string(const plan&)> fault_of;
};

struct found_plan {
  plan planned;
  plan_cost cost;
  uint32_t tries = 0;
  bool was_stopped = false;  // is_over ended the search
  std::string fault;         // of the cheapest plan, if there is none without; then `planned` is it
};

// Throws std::bad_alloc if memory runs out, whichever thread finds it so.
found_plan search_plan(const plan_request& request);

// The byte order in which the words of an image seem to be: the one in which the bytes that tell
// an instruction, and so vary little, lead. A guess, which the search replaces by what is cheaper.
ByteOrder likely_order(std::span<const uint8_t> image);

}  // namespace kelvane
