// SPDX-License-Identifier: Apache-2.0
// What a checkpoint takes of a decoder that is built for the small model.

#define KELVANE_DENSE_LARGEST_MODEL 0

#include "dense_decoder.h"

extern const uint32_t state_of_small_model;
const uint32_t state_of_small_model = KELVANE_DENSE_SAVED;
