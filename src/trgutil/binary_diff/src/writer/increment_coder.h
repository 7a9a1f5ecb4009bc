#pragma once

#include <array>
#include <cstdint>

#include "command_lists.h"
#include "increment_stream.h"

// The coder of CM_INCRS over the engine's classes. It runs three times: twice dry, to find the maps
// and the exact size, and once for real.
namespace kelvane {

// The engine's one coder. The names are its fields, and the operations below its fronts.
extern int32_t& put_bits_dry_run;   // set: count bits and write nothing
extern uint8_t*& put_byte_pointer;  // next byte of the output
extern uint8_t& put_bits_in_byte;   // bits already in the byte being built, 0 to 7
extern int32_t& bits_total;         // bits put since set_put_pointer
extern std::array<int32_t, kJumpCategories>& population;      // uses in this class, by category
extern std::array<int32_t, kJumpCategories>& population_map;  // rank in this class, by category

// What it keeps of the engine's classes from one run to the next.
extern std::array<uint32_t, kMaxIncrementClasses> pop_map;    // map of each class; 0 at first
extern std::array<int32_t, kMaxIncrementClasses> sort_incrs;  // accepted classes, by rising value
extern int32_t sorted_incrs;
extern std::array<int32_t, kMaxIncrementClasses> reject_incrs;  // rejected classes
extern int32_t rejected_incrs;
extern command_record* first_rejected_incs;  // records of all rejected classes, merged
extern command_record* last_rejected_incr;
extern int32_t incr_size;  // bytes of the stream; written by reject_some_sort_others

// Starts a run of the coder: into `buffer`, or dry if that is null.
void set_put_pointer(uint8_t* buffer);

// Appends the low `count` bits of `value`, 1 to 32.
void put_bits(int32_t count, uint32_t value);

// Puts 0 bits until `bits_total` is a multiple of `boundary`, a power of 2.
void align_output(int32_t boundary);

// Clears the uses of all categories.
void clear_population();

// Sets the ranks from a map; 0 stands for the default map.
void set_population_map(uint32_t map);

// Gives the best map for the class just coded, from its uses. Ties keep the order in which
// `population_map` stands, so the table is sorted in place and a reader of the stream's bytes has
// to sort in just this way.
uint32_t sort_population_map();

// Counts a use of the category and puts its prefix.
void put_prefix(int32_t category);

// Puts the prefix and the extra bits of a jump in words.
void encode_jump(uint32_t jump);

// Puts all of a class that stands in front of its jumps, and sets its ranks. `index` is its place
// in `sort_incrs`, `previous_value` the value of the class before it, 0 for the first.
void encode_incr_change(int32_t index, uint32_t previous_value, uint32_t value, uint32_t map);

// One run of the coder over the classes in `sort_incrs`.
void output_sorted_increments();

// Merges the list `other` into the list that the two variables keep; both ascend by address, and at
// equal addresses the record that was in the list goes first.
void merge_sort_lists(command_record** first, command_record** last, command_record* other);

// Moves the records of all rejected classes into `first_rejected_incs`, in the order of addresses.
void commit_rejections();

// Rejects the classes with at most `threshold` records, sorts the others and runs the two dry
// passes, which set `incr_size`. Does nothing unless increments are enabled.
void reject_some_sort_others(int32_t threshold);

// Writes CM_INCRS, unless there are no classes.
void output_increments();

}  // namespace kelvane
