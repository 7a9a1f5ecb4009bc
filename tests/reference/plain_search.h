#pragma once

#include <cstdint>

#include "block_search.h"

// The fuzzy compare and the ring search as plain loops over bytes and over all pairs: the oracle
// for the fast ones.
namespace kelvane {

int32_t plain_bstrncmp(const uint8_t* a, const uint8_t* b, int32_t n);

Agreement plain_find_agreement(const Rest& rest1, const Rest& rest2, uint16_t blocksize,
                               int32_t max_scan);

}  // namespace kelvane
