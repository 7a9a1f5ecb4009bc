#pragma once

#include <array>
#include <cstdint>

namespace kelvane {

// The 20 bytes with which a structured file begins.
using gf_header = std::array<uint8_t, 20>;

// Puts them together; descriptors are not supported.
gf_header make_gf_header(uint32_t file_type, uint32_t file_version, uint8_t address_encoding,
                         uint8_t raw_arrays);

}  // namespace kelvane
