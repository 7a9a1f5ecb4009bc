// SPDX-License-Identifier: Apache-2.0
#include "quick_checksum.h"

#include <array>

#include "flash_dense.h"

namespace kelpatch {
namespace {

constexpr uint32_t kStep = 8;  // bytes at a time
using Table = std::array<uint32_t, 256>;

// The remainder that a byte leaves with 0 to 7 zeros behind it (CRC-32, reflected).
constexpr std::array<Table, kStep> make_tables() {
  std::array<Table, kStep> tables = {};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t sum = byte;
    for (int bit = 0; bit < 8; ++bit) {
      sum = sum >> 1U ^ ((sum & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    tables[0][byte] = sum;
  }
  for (uint32_t zeros = 1; zeros < kStep; ++zeros) {
    for (uint32_t byte = 0; byte < 256; ++byte) {
      const uint32_t sum = tables[zeros - 1][byte];
      tables[zeros][byte] = sum >> 8U ^ tables[0][sum & 0xFFU];
    }
  }
  return tables;
}

constexpr std::array<Table, kStep> kTables = make_tables();

}  // namespace

uint32_t quick_dense_checksum(uint32_t sum, const uint8_t* bytes, uint32_t count) {
  sum = ~sum;
  for (; count >= kStep; count -= kStep, bytes += kStep) {
    uint32_t next = 0;
    for (uint32_t i = 0; i < 4; ++i) {
      next ^= kTables[7 - i][(sum >> 8 * i ^ bytes[i]) & 0xFFU] ^ kTables[3 - i][bytes[4 + i]];
    }
    sum = next;
  }
  for (; count > 0; --count, ++bytes) {
    sum = sum >> 8U ^ kTables[0][(sum ^ *bytes) & 0xFFU];
  }
  return ~sum;
}

kelvane_payload_kind quick_dense_kind() {
  kelvane_payload_kind kind = kelvane_dense_kind;
  kind.checksum = quick_dense_checksum;
  return kind;
}

}  // namespace kelpatch
