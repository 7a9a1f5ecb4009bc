// SPDX-License-Identifier: Apache-2.0
#include "dense_machines.h"

#include <algorithm>
#include <array>

#include "byte_order.h"
#include "dense_decoder.h"

namespace kelvane {
namespace {

// Code has one in some hundred bytes; random bytes have those of Thumb in 26 KB.
constexpr size_t kBytesForAReturn = 4096;
constexpr size_t kLeastReturns = 4;

struct return_instruction {
  uint8_t machine;
  uint32_t size;  // bytes: 2 or 4; it is aligned to as many
  uint32_t bits;
};
constexpr return_instruction kReturns[] = {
    {KELVANE_DENSE_THUMB, 2, 0x4770},        // bx lr
    {KELVANE_DENSE_THUMB, 2, 0xBD10},        // pop {r4, pc}
    {KELVANE_DENSE_THUMB, 2, 0xBD38},        // pop {r3, r4, r5, pc}
    {KELVANE_DENSE_THUMB, 2, 0xBD70},        // pop {r4, r5, r6, pc}
    {KELVANE_DENSE_THUMB, 2, 0xBDF0},        // pop {r4, r5, r6, r7, pc}
    {KELVANE_DENSE_ARM, 4, 0xE12FFF1E},      // bx lr
    {KELVANE_DENSE_ARM, 4, 0xE8BD8010},      // pop {r4, pc}
    {KELVANE_DENSE_ARM, 4, 0xE8BD8070},      // pop {r4, r5, r6, pc}
    {KELVANE_DENSE_ARM, 4, 0xE8BD81F0},      // pop {r4 to r8, pc}
    {KELVANE_DENSE_POWERPC, 4, 0x4E800020},  // blr
    {KELVANE_DENSE_MIPS, 4, 0x03E00008},     // jr ra
    {KELVANE_DENSE_RISCV, 2, 0x8082},        // ret, compressed
    {KELVANE_DENSE_RISCV, 4, 0x00008067},    // ret
};

}  // namespace

std::optional<uint8_t> machine_by_returns(std::span<const uint8_t> image) {
  std::array<std::array<size_t, 2>, KELVANE_DENSE_MACHINES> counts = {};  // in either order
  for (size_t at = 0; at + 2 <= image.size(); at += 2) {
    const bool has_word = at % 4 == 0 && at + 4 <= image.size();
    for (const ByteOrder order : {ByteOrder::kLittle, ByteOrder::kBig}) {
      const uint32_t half = load_half(image.data() + at, order);
      const uint32_t word = has_word ? load_word(image.data() + at, order) : 0;
      for (const return_instruction& each : kReturns) {
        if (each.bits == (each.size == 2 ? half : word)) {
          ++counts[each.machine][order == ByteOrder::kBig ? 1 : 0];
        }
      }
    }
  }
  const auto most = std::max_element(counts.begin(), counts.end(), [](auto& first, auto& other) {
    return *std::max_element(first.begin(), first.end()) <
           *std::max_element(other.begin(), other.end());
  });
  if (*std::max_element(most->begin(), most->end()) <
      image.size() / kBytesForAReturn + kLeastReturns) {
    return std::nullopt;
  }
  return static_cast<uint8_t>(most - counts.begin());
}

}  // namespace kelvane
