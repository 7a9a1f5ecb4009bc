#pragma once

#include <cstdint>

// Two in-place sorts of an array of fixed-size elements, with order and exchange given by the
// caller: a quicksort whose pivot is a median of three (of nine medians' worth from 36 elements on)
// and stays in the array, and an exchange sort below 6 elements. Nothing is ever copied out of the
// array, so elements may be of any size; which callbacks are called in which order is fixed.
namespace kelvane {

// Gives above 0 if `first` sorts after `second`, 0 if they are equal, below 0 otherwise. `context`
// is what the caller of the sort handed over.
using sort_compare = int32_t (*)(void* context, const void* first, const void* second);

// Exchanges two elements of `size` bytes.
using sort_exchange = void (*)(void* first, void* second, uint32_t size);

// Sorts `count` elements of `size` bytes at `base`; elements that compare equal end in no
// particular order. A count or size of 0 does nothing. `context` goes to `compare` untouched. A
// null `exchange` stands for qvr_swap_default_cmp. An inconsistent `compare` gives some order and
// no overrun. Allocates nothing.
void qvr_sort(void* context, void* base, uint32_t count, uint32_t size, sort_compare compare,
              sort_exchange exchange);

// The same, and elements that compare equal keep their order. Allocates 4 bytes per element above
// 64 elements, and nothing up to there.
void qvr_stable_sort(void* context, void* base, uint32_t count, uint32_t size, sort_compare compare,
                     sort_exchange exchange);

// Exchanges two elements of `size` bytes: by 32-bit words if the size and both addresses are
// divisible by 4, byte by byte otherwise.
void qvr_swap_default_cmp(void* first, void* second, uint32_t size);

}  // namespace kelvane
